// zorv-cli meef end to end: a `simulate reticle` lot and its mask measurement
// imported, the local MEEF map against truth.json, the field-wide MEEF
// against a straight-line fit of the printed points, the sheets and the
// result lot, and bad input leaving the workbooks alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "cli_run.h"
#include "common/json_lite.h"
#include "workbook/store.h"

namespace fs = std::filesystem;
using zorv::testing::Json;

namespace {

fs::path Dir(const char* name) {
    const fs::path d = fs::path(ZORV_TEST_TMP) / "meef" / name;
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
}

std::string Slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A simulated wafer lot and its reticle, both imported into d.
struct Pair {
    std::string lot, reticle;
    Json truth;
};
Pair Simulate(const fs::path& d, const std::string& options) {
    Pair p;
    const CliRun sim = Cli("simulate reticle --format csv --out " + d.string() + " --json " + options);
    EXPECT_EQ(sim.rc, 0) << sim.out;
    const Json s = zorv::testing::JsonParser(sim.out).parse();
    for (const char* key : {"file", "reticleFile"}) {
        const CliRun imp = Cli("import " + s[key].str + " --out " + d.string());
        EXPECT_EQ(imp.rc, 0) << imp.out;
    }
    p.lot = (fs::path(s["file"].str).replace_extension(".xlsx")).string();
    p.reticle = (fs::path(s["reticleFile"].str).replace_extension(".xlsx")).string();
    p.truth = zorv::testing::ReadJsonFile(s["truth"].str);
    return p;
}

Json RunJson(const std::string& args, int& rc, std::string& out) {
    const CliRun r = Cli("meef " + args + " --json");
    rc = r.rc;
    out = r.out;
    return r.rc == 0 ? zorv::testing::JsonParser(r.out).parse() : Json();
}

const char* kFeatures = " --feature CD --reticle-feature Mask_CD --mag 4";

// What the local fit of a site should give by the law of truth.json: the
// slope of CD = NominalCD + MEEF_i (x_i - NominalMaskCD/4), x_i = MaskCD_i/4,
// over the sites of its 5 x 5 box of the site grid. The MEEF map varies over
// the box, so this, not the map's value at the site, is the noise-free answer.
std::map<long, double> WindowSlopes(const Json& truth) {
    const Json& meef = truth["model"]["meef"];
    double nominalMask = 0;
    const Json& coef = truth["model"]["coefficients"];
    for (size_t i = 0; i < coef.size(); ++i)
        if (coef[i]["name"].str == "NominalMaskCD") nominalMask = coef[i]["value"].number();
    std::vector<double> xs, ys;
    for (size_t i = 0; i < meef.size(); ++i) xs.push_back(meef[i]["x"].number()), ys.push_back(meef[i]["y"].number());
    auto index = [](std::vector<double> v, double at) {
        std::sort(v.begin(), v.end());
        v.erase(std::unique(v.begin(), v.end(), [](double a, double b) { return std::fabs(a - b) < 1e-6; }), v.end());
        for (size_t k = 0; k < v.size(); ++k)
            if (std::fabs(v[k] - at) < 1e-6) return static_cast<int>(k);
        return -1;
    };
    std::map<long, double> out;
    for (size_t i = 0; i < meef.size(); ++i) {
        const int ci = index(xs, xs[i]), ri = index(ys, ys[i]);
        std::vector<double> x, m;
        for (size_t j = 0; j < meef.size(); ++j)
            if (std::abs(index(xs, xs[j]) - ci) <= 2 && std::abs(index(ys, ys[j]) - ri) <= 2) {
                x.push_back(meef[j]["maskCD"].number() / 4);
                m.push_back(meef[j]["meef"].number());
            }
        double xb = 0, sxx = 0, sxy = 0;
        for (double v : x) xb += v / static_cast<double>(x.size());
        for (size_t k = 0; k < x.size(); ++k) {
            sxx += (x[k] - xb) * (x[k] - xb);
            sxy += (x[k] - xb) * m[k] * (x[k] - nominalMask / 4);
        }
        out[meef[i]["site"].integer()] = sxy / sxx;
    }
    return out;
}

// Each field's slope of wafer CD on reticle CD over its printed sites, as a
// straight line is fitted by hand.
void FieldWideIsAStraightLine(const Json& r) {
    const Json& sites = r["sites"];
    const Json& fields = r["fields"];
    ASSERT_EQ(fields.size(), 25u);
    for (size_t f = 0; f < fields.size(); ++f) {
        std::vector<double> x, y;
        for (size_t i = 0; i < sites.size(); ++i)
            if (sites[i]["dieX"].number() == fields[f]["dieX"].number() &&
                sites[i]["dieY"].number() == fields[f]["dieY"].number()) {
                x.push_back(sites[i]["retCD"].number());
                y.push_back(sites[i]["cd"].number());
            }
        ASSERT_EQ(x.size(), 49u);
        double mx = 0, my = 0, sxx = 0, sxy = 0;
        for (size_t i = 0; i < x.size(); ++i) mx += x[i] / 49, my += y[i] / 49;
        for (size_t i = 0; i < x.size(); ++i) sxx += (x[i] - mx) * (x[i] - mx), sxy += (x[i] - mx) * (y[i] - my);
        EXPECT_NEAR(fields[f]["meef"].number(), sxy / sxx, 1e-6) << f;
        EXPECT_NEAR(fields[f]["beef"].number(), sxy / sxx - 1, 1e-6) << f;
        EXPECT_EQ(fields[f]["title"].str.rfind("Field (", 0), 0u);
    }
}

}  // namespace

TEST(MeefCli, NoiseFreeLocalSlopesAreTheLawOverEachSitesBox) {
    const fs::path d = Dir("noisefree");
    const Pair p = Simulate(d, "--seed 1 --noise 0 --outliers 0 --failed 0");
    int rc = 0;
    std::string out;
    const Json r = RunJson(p.lot + " " + p.reticle + kFeatures, rc, out);
    ASSERT_EQ(rc, 0) << out;
    const std::map<long, double> want = WindowSlopes(p.truth);
    ASSERT_EQ(want.size(), 49u);
    const Json& sites = r["sites"];
    ASSERT_EQ(sites.size(), 25u * 49u);
    std::map<long, double> meefAt;  // the truth map at the site, for the interior
    const Json& meef = p.truth["model"]["meef"];
    for (size_t i = 0; i < meef.size(); ++i) meefAt[meef[i]["site"].integer()] = meef[i]["meef"].number();
    for (size_t i = 0; i < sites.size(); ++i) {
        const long site = sites[i]["site"].integer();
        // The file holds CDs to 0.01 nm: that much is left of the noise.
        EXPECT_NEAR(sites[i]["meef"].number(), want.at(site), 0.01) << "site " << site;
        if (sites[i]["points"].integer() == 25) {
            EXPECT_NEAR(sites[i]["meef"].number(), meefAt.at(site), 0.25);
        }
    }
    FieldWideIsAStraightLine(r);
}

TEST(MeefCli, NoisyLocalSlopesWithinTheirErrors) {
    const fs::path d = Dir("noisy");
    const Pair p = Simulate(d, "--seed 5 --outliers 0 --failed 0");
    int rc = 0;
    std::string out;
    const Json r = RunJson(p.lot + " " + p.reticle + kFeatures, rc, out);
    ASSERT_EQ(rc, 0) << out;
    const std::map<long, double> want = WindowSlopes(p.truth);
    const Json& sites = r["sites"];
    ASSERT_EQ(sites.size(), 25u * 49u);
    double z2 = 0;
    for (size_t i = 0; i < sites.size(); ++i) {
        const Json& s = sites[i];
        const double z = (s["meef"].number() - want.at(s["site"].integer())) / s["meefSigma"].number();
        EXPECT_LT(std::fabs(z), 5.0) << "site " << s["site"].integer() << " meef " << s["meef"].number();
        z2 += z * z;
    }
    // The errors are of the size of the misses.
    EXPECT_GT(z2 / 1225, 0.5);
    EXPECT_LT(z2 / 1225, 2.0);
    FieldWideIsAStraightLine(r);
}

TEST(MeefCli, SheetsAndTheResultLot) {
    const fs::path d = Dir("save");
    const Pair p = Simulate(d, "--seed 2 --fields 3");
    const std::string lotOut = (d / "meef_result.xlsx").string();
    int rc = 0;
    std::string out;
    const Json r = RunJson(p.lot + " " + p.reticle + kFeatures + " --save --as-lot " + lotOut, rc, out);
    ASSERT_EQ(rc, 0) << out;
    ASSERT_EQ(r["sheets"].size(), 2u);
    EXPECT_EQ(r["sheets"][0].str, "MEF_CD_Mask_CD");
    EXPECT_EQ(r["sheets"][1].str, "MEEF_FieldSummary_CD");
    auto wb = zorv::Workbook::open(p.lot);
    ASSERT_TRUE(wb);
    ASSERT_NE((*wb)->sheet("MEF_CD_Mask_CD"), nullptr);
    EXPECT_EQ((*wb)->sheet("MEF_CD_Mask_CD")->cell(1, 7).toString(), "MEEF_CD_Mask_CD");
    ASSERT_NE((*wb)->sheet("MEEF_FieldSummary_CD"), nullptr);
    // The result lot loads, with MEEF among its features.
    const CliRun info = Cli("info " + lotOut + " --json");
    ASSERT_EQ(info.rc, 0) << info.out;
    EXPECT_NE(info.out.find("MEEF_CD_Mask_CD"), std::string::npos) << info.out;
    // The text form prints the tables and the field lines.
    const CliRun text = Cli("meef " + p.lot + " " + p.reticle + kFeatures);
    ASSERT_EQ(text.rc, 0) << text.out;
    EXPECT_NE(text.out.find("MEFoffset_Sigma"), std::string::npos);
    EXPECT_NE(text.out.find("Field (0, 0) MEEF: "), std::string::npos) << text.out;
}

TEST(MeefCli, BadInputLeavesTheWorkbooksAlone) {
    const fs::path d = Dir("bad");
    const Pair p = Simulate(d, "--seed 3 --fields 2");
    const std::string lotBefore = Slurp(p.lot), retBefore = Slurp(p.reticle);
    struct Case {
        std::string args, message;
    };
    const Case cases[] = {
        {p.lot + " " + p.reticle + " --feature CD --reticle-feature NOPE", "Could not find feature column."},
        {p.lot + " " + p.reticle + " --feature NOPE --reticle-feature Mask_CD", "Could not find feature column."},
        // The reticle as the lot and the lot as the reticle: no mask CD column in the lot.
        {p.reticle + " " + p.lot + " --feature Mask_CD --reticle-feature Mask_CD", "Could not find feature column."},
    };
    for (const Case& c : cases) {
        const CliRun r = Cli("meef " + c.args + " --save --as-lot " + (d / "x.xlsx").string());
        EXPECT_EQ(r.rc, 1) << c.args << "\n" << r.out;
        EXPECT_NE(r.out.find(c.message), std::string::npos) << c.args << "\n" << r.out;
        EXPECT_NE(r.out.find("PWcommon(FindMEF): "), std::string::npos) << r.out;
        EXPECT_FALSE(fs::exists(d / "x.xlsx")) << c.args;
    }
    {
        const CliRun r = Cli("meef " + p.lot + " " + p.reticle + " --feature CD --reticle-feature NOPE --json");
        EXPECT_EQ(r.rc, 1);
        const Json e = zorv::testing::JsonParser(r.out).parse();
        EXPECT_EQ(e["error"]["text"].str, "Could not find feature column.");
    }
    EXPECT_EQ(Cli("meef " + (d / "none.xlsx").string() + " " + p.reticle + kFeatures).rc, 1);
    EXPECT_EQ(Cli("meef " + p.lot + kFeatures).rc, 2);
    EXPECT_EQ(Cli("meef " + p.lot + " " + p.reticle + " --feature CD").rc, 2);
    EXPECT_EQ(Cli("meef " + p.lot + " " + p.reticle + " --feature CD --reticle-feature Mask_CD --mag 0").rc, 2);
    EXPECT_EQ(Cli("meef " + p.lot + " " + p.reticle + kFeatures + " --as-lot " + p.lot).rc, 2);
    EXPECT_EQ(Slurp(p.lot), lotBefore);
    EXPECT_EQ(Slurp(p.reticle), retBefore);
}

// A KLA report holds CD in um, the mask file in nm: the same law read through
// either gives the same factors, the units brought together by the analysis.
TEST(MeefCli, LengthUnitsOfLotAndReticleAreBroughtTogether) {
    const fs::path d = Dir("units");
    int rc = 0;
    std::string out;
    Pair csv = Simulate(d / "csv", "--seed 9");
    const Json a = RunJson(csv.lot + " " + csv.reticle + kFeatures, rc, out);
    ASSERT_EQ(rc, 0) << out;
    const CliRun sim = Cli("simulate reticle --format kla --seed 9 --out " + (d / "kla").string());
    ASSERT_EQ(sim.rc, 0) << sim.out;
    ASSERT_EQ(Cli("import " + (d / "kla" / "reticle.txt").string()).rc, 0);
    ASSERT_EQ(Cli("import " + (d / "kla" / "reticle_mask.csv").string()).rc, 0);
    const Json b = RunJson((d / "kla" / "reticle.xlsx").string() + " " + (d / "kla" / "reticle_mask.xlsx").string() +
                               " --feature MEAS_1 --reticle-feature Mask_CD --mag 4",
                           rc, out);
    ASSERT_EQ(rc, 0) << out;
    ASSERT_EQ(a["fields"].size(), b["fields"].size());
    for (size_t i = 0; i < a["fields"].size(); ++i)
        EXPECT_NEAR(b["fields"][i]["meef"].number(), a["fields"][i]["meef"].number(), 0.02) << i;
}
