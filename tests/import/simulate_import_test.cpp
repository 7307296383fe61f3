// Simulated tool files of every kind, through their readers into loaded
// lots, held against the generator's truth.json.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "common/json_lite.h"
#include "import/simulate.h"
#include "import_test_util.h"
#include "lot/features.h"
#include "lot/lot.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

struct Case {
    const char* name;
    const char* kind;
    const char* format;  // "" the kind's own
    LineEnd eol;
};

cWafer* WaferOf(const cLot& lot, const std::string& name) {
    for (cWafer* w : lot.Wafers())
        if (w->KeyName == name || w->KeyName == "W" + name || w->WaferID == name) return w;
    return nullptr;
}

float FeatureValue(const cPoint& p, int i) { return i == 0 ? p.ValueV : i == 1 ? p.ValueH : p.ValueZ; }
long FeatureUnits(const cLot& lot, int i) { return i == 0 ? lot.ValueV_Units : i == 1 ? lot.ValueH_units : lot.ValueZ_units; }
const std::string& FeatureName(const cLot& lot, int i) {
    return i == 0 ? lot.ValueV_Name : i == 1 ? lot.ValueH_Name : lot.valueZ_Name;
}

// The lot of one simulated file against the part of truth.json it answers.
void CheckAgainstTruth(const Imported& r, const Json& truth, const std::string& label, bool mask = false) {
    ASSERT_TRUE(r.lot) << label;
    const cLot& lot = *r.lot;
    long points = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++points; });
    if (mask) {
        // The mask file: one row per site of one field.
        EXPECT_EQ(points, truth["model"]["meef"].size()) << label;
        return;
    }
    const long wafers = truth["wafers"].integer();
    EXPECT_EQ(lot.Wafers().Count(), wafers) << label;
    long fields = 0;
    for (cWafer* w : lot.Wafers()) fields += w->Fields().Count();
    EXPECT_EQ(fields, wafers * truth["fields"].integer()) << label;
    EXPECT_EQ(points, truth["rows"].integer() - truth["skippedRows"].integer() - truth["excludedRows"].integer())
        << label;

    const Json& features = truth["features"];
    for (size_t i = 0; i < features.size(); ++i) {
        EXPECT_EQ(FeatureName(lot, static_cast<int>(i)), features[i]["name"].str) << label;
        // A unit the unit words do not name (the thermal map's "C") has no code to hold the lot to.
        std::optional<long> code = UnitCodeOf(features[i]["unit"].str);
        if (!code) continue;
        EXPECT_EQ(FeatureUnits(lot, static_cast<int>(i)), *code) << label << " " << features[i]["name"].str;
    }

    // The field grid may have been moved to lie around index 0.
    float minTruth = 1e9f, minLot = 1e9f;
    for (const Json& f : truth["fieldTable"].items) minTruth = std::min(minTruth, static_cast<float>(f["dieX"].number()));
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields()) minLot = std::min(minLot, f->DieX);
    float minTruthY = 1e9f, minLotY = 1e9f;
    for (const Json& f : truth["fieldTable"].items) minTruthY = std::min(minTruthY, static_cast<float>(f["dieY"].number()));
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields()) minLotY = std::min(minLotY, f->DieY);
    const float dx = minLot - minTruth, dy = minLotY - minTruthY;

    const Json& checks = truth["checks"];
    ASSERT_GT(checks.size(), 0u);
    for (const Json& c : checks.items) {
        std::string where = label + " line " + c["line"].text();
        cWafer* w = WaferOf(lot, c["wafer"].text());
        ASSERT_NE(w, nullptr) << where;
        cField* field = nullptr;
        for (cField* f : w->Fields())
            if (f->DieX == static_cast<float>(c["dieX"].number()) + dx &&
                f->DieY == static_cast<float>(c["dieY"].number()) + dy)
                field = f;
        ASSERT_NE(field, nullptr) << where;
        if (c.has("focus")) {
            EXPECT_NEAR(field->Focus, c["focus"].number(), 1e-5) << where;
            EXPECT_NEAR(field->Dose, c["dose"].number(), 1e-4) << where;
        }
        const cSite* site = nullptr;
        for (cSite* s : field->sites())
            if (s->NumberKey() == c["site"].integer()) site = s;
        ASSERT_NE(site, nullptr) << where;
        // Site positions: millimetres in the truth, micrometres in the lot.
        EXPECT_NEAR(site->LocationX, c["x"].number() * 1000, 1.0) << where;
        EXPECT_NEAR(site->LocationY, c["y"].number() * 1000, 1.0) << where;
        ASSERT_GE(site->Points().Count(), 1) << where;
        const cPoint& p = *site->Points().Item(1);
        for (const Json& v : c["values"].items) {
            int slot = -1;
            for (size_t i = 0; i < features.size(); ++i)
                if (features[i]["name"].str == v["feature"].str) slot = static_cast<int>(i);
            ASSERT_GE(slot, 0) << where;
            // Points hold a thousand times the workbook's value.
            const double want = v["written"].number() * features[slot]["toWorkbook"].number() * 1000;
            EXPECT_NEAR(FeatureValue(p, slot), want, 1e-5 * std::max(1.0, std::fabs(want))) << where;
        }
    }
}

TEST(SimulateImport, EveryKindLoadsToItsTruth) {
    const Case cases[] = {
        {"fem", "fem", "", LineEnd::CrLf},
        {"fem_cr", "fem", "", LineEnd::Cr},
        {"fem_csv", "fem", "csv", LineEnd::Lf},
        {"overlay", "overlay", "", LineEnd::CrLf},
        {"psfm", "psfm", "", LineEnd::Cr},
        {"reticle", "reticle", "", LineEnd::CrLf},
        {"overlay_archer", "overlay", "archer", LineEnd::CrLf},
        {"thermal", "thermal", "", LineEnd::Lf},
    };
    for (const Case& k : cases) {
        auto dir = FreshDir(std::string("sim_") + k.name);
        SimulateOptions o;
        o.outDir = dir.string();
        o.format = k.format;
        o.eol = k.eol;
        o.seed = 11;
        o.outliers = 2;
        Result<SimulateOutput> out = Simulate(k.kind, o);
        ASSERT_TRUE(out.ok()) << out.failure().message();
        Json truth = ReadJsonFile(out->truth);
        Imported r = ImportAndLoad(out->file, truth["format"].str);
        CheckAgainstTruth(r, truth, k.name);
        if (!out->reticleFile.empty()) {
            Imported m = ImportAndLoad(out->reticleFile, truth["reticleFormat"].str);
            CheckAgainstTruth(m, truth, std::string(k.name) + " mask", true);
        }
        // Detection names the same reader.
        EXPECT_EQ(DetectFormat(out->file).description, truth["format"].str) << k.name;
    }
}

}  // namespace
}  // namespace zorv
