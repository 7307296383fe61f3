// zorv-cli meef: the mask error factor analysis of a wafer lot against its
// reticle measurement, headless: the tables or JSON, the result sheets
// written back with --save, the result as a lot workbook with --as-lot.
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "base/format.h"
#include "base/proc.h"
#include "json.h"
#include "lot/lot.h"
#include "reticle/meef.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/store.h"

namespace zorv::cli {

namespace {

bool SameFile(const std::string& a, const std::string& b) {
    std::error_code ec;
    if (std::filesystem::equivalent(a, b, ec)) return true;
    return std::filesystem::absolute(a, ec).lexically_normal() == std::filesystem::absolute(b, ec).lexically_normal();
}

// The field summary as a plain table for the text block (the sheet form has
// its title row above the heads).
Datam SummaryView(const MEFResult& r) {
    Datam t(static_cast<int>(r.fields.size()), 6, 0, 1);
    const char* heads[] = {"Wafer", "Die(X,Y)", "MEEF", "StdErr(3s)", "BEEF", "StdErr(3s)"};
    for (int c = 0; c < 6; ++c) t(0, c + 1) = heads[c];
    for (size_t i = 0; i < r.fields.size(); ++i) {
        const int row = static_cast<int>(i) + 1;
        t(row, 1) = r.fields[i].wafer;
        for (int c = 1; c <= 5; ++c) t(row, c + 1) = r.summary(row + 1, c);
    }
    return t;
}

void RowJson(Json& j, const MEFRow& r) {
    j.beginObject().field("wafer", r.wafer).field("site", static_cast<long long>(r.site));
    j.field("dieX", r.dieX).field("dieY", r.dieY).field("cd", r.cd).field("retCD", r.retCD);
    j.field("meef", r.meef).field("meefSigma", r.slopeSigma).field("beef", r.beef).field("bias", r.bias);
    j.field("ratio", r.ratio).field("retEffective", r.retEffective).field("points", r.points).endObject();
}

}  // namespace

const char kMeefHelp[] =
    "Usage: zorv-cli meef LOT.xlsx RETICLE.xlsx --feature F --reticle-feature G\n"
    "                     [--mag M] [--site-mag M] [--save] [--as-lot OUT.xlsx]\n"
    "                     [--sheet NAME] [--json]\n\n"
    "Mask error factors of a wafer lot against the reticle measurement that printed\n"
    "it. For each site, wafer CD F is fitted against reticle CD G over the site and\n"
    "its neighbours in the field's site grid (up to 24, two rings): the slope is the\n"
    "local MEEF, the slope of the bias (wafer less reticle CD) the BEEF. A fit over\n"
    "each whole field gives the field-wide MEEF and BEEF.\n\n"
    "--mag M       reticle magnification of the CD values (default 1; 4 for a 4x\n"
    "              mask measured at mask scale)\n"
    "--site-mag M  magnification of the reticle's site positions (default 1)\n"
    "--save        writes the sheets \"MEF_<F>_<G>\" and \"MEEF_FieldSummary_<F>\"\n"
    "              into LOT.xlsx\n"
    "--as-lot OUT  writes the result as a new lot workbook: MEEF, BEEF and the\n"
    "              rest are its features\n"
    "--sheet NAME  data sheet of LOT.xlsx\n\n"
    "Prints the MEF table and the field summary (with --json the sites and fields).\n"
    "A workbook that cannot be loaded, a feature either lot does not have, or lots\n"
    "whose sites do not meet give the message on stderr (with --json an error\n"
    "object) and exit code 1, and neither workbook is changed; bad arguments exit\n"
    "with 2.\n";

int RunMeef(const Args& args) {
    const Args pos = Positional(args, {"--feature", "--reticle-feature", "--mag", "--site-mag", "--as-lot", "--sheet"});
    const bool json = HasFlag(args, "--json");
    MEFSetup setup;
    setup.feature = OptionValue(args, "--feature");
    setup.reticleFeature = OptionValue(args, "--reticle-feature");
    bool bad = pos.size() != 2 || setup.feature.empty() || setup.reticleFeature.empty();
    auto number = [&](const char* opt, double& v) {
        const std::string s = OptionValue(args, opt);
        if (!s.empty() && (!ParseNumber(s, v) || !(v > 0))) bad = true;
    };
    number("--mag", setup.mag);
    number("--site-mag", setup.siteMag);
    const std::string asLot = OptionValue(args, "--as-lot");
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli meef LOT.xlsx RETICLE.xlsx --feature F --reticle-feature G [options]\n"
                             "       (zorv-cli meef --help for the options)\n");
        return kExitUsage;
    }
    if (!asLot.empty() && (SameFile(asLot, pos[0]) || SameFile(asLot, pos[1]))) {
        std::fprintf(stderr, "meef: --as-lot must name a new workbook, not one of the inputs\n");
        return kExitUsage;
    }

    Loaded lot, reticle;
    if (Status st = LoadLot(pos[0], args, lot); !st) return ShowFailure(st.failure(), json);
    if (Status st = LoadLot(pos[1], Args{}, reticle); !st) return ShowFailure(st.failure(), json);
    // The sheets go in only once the analysis has succeeded.
    setup.workbook = HasFlag(args, "--save") ? lot.tables.workbook.get() : nullptr;

    auto ran = FindMEF(lot.lot.get(), reticle.lot.get(), setup);
    if (!ran) return ShowFailure(ran.failure(), json);
    const MEFResult& r = *ran;
    std::string written;
    if (!asLot.empty()) {
        auto saved = SaveAsLot(r, *lot.lot, setup, asLot);
        if (!saved) return ShowFailure(saved.failure(), json);
        written = *saved;
    }

    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("reticle", pos[1]).field("feature", setup.feature);
        j.field("reticleFeature", setup.reticleFeature).field("mag", setup.mag).field("siteMag", setup.siteMag);
        j.field("lot", lot.lot->LotName).field("rows", static_cast<long long>(r.rows.size()));
        j.field("skipped", static_cast<long long>(r.skipped));
        j.key("fields").beginArray();
        for (const MEFField& f : r.fields) {
            j.beginObject().field("wafer", f.wafer).field("dieX", f.dieX).field("dieY", f.dieY);
            j.field("meef", f.meef).field("meefSigma", f.meefSigma).field("beef", f.beef);
            j.field("beefSigma", f.beefSigma).field("retEffective", f.retEffective).field("rows", f.rows);
            j.field("title", f.title).endObject();
        }
        j.endArray();
        j.key("sites").beginArray();
        for (const MEFRow& row : r.rows) RowJson(j, row);
        j.endArray();
        j.key("sheets").beginArray();
        for (const std::string& s : r.sheets) j.value(s);
        j.endArray();
        if (!written.empty()) j.field("asLot", written);
        j.endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    PrintTable(r.table);
    std::printf("\n");
    PrintTable(SummaryView(r));
    std::printf("\n");
    for (const MEFField& f : r.fields) std::printf("%s\n", f.title.c_str());
    if (r.skipped > 0) std::printf("\n%ld sites of the lot have no reticle CD and were left out.\n", r.skipped);
    for (const std::string& s : r.sheets) std::printf("Sheet written: %s\n", s.c_str());
    if (!written.empty()) std::printf("Lot workbook written: %s\n", written.c_str());
    return kExitOk;
}

}  // namespace zorv::cli
