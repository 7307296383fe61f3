// zorv-cli convert and astig: a lot's image shifts into focus by a stored
// calibration template, and the astigmatism (H - V) of a lot before it.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/proc.h"
#include "calib/convert.h"
#include "calib/template_library.h"
#include "json.h"
#include "lot/lot.h"
#include "numerics/matrix.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/store.h"

namespace zorv::cli {

const char kConvertHelp[] =
    "Usage: zorv-cli convert WORKBOOK --template NAME [options]\n\n"
    "Converts the lot's image shifts (ValueV, ValueH) into focus by the polynomials\n"
    "of a calibration template from the library. Focus is told relative to the\n"
    "calibration's zero of image shift, in micrometres; with the lot's\n"
    "FocusReportCorrections the signs are reversed. Prints the focus of every site\n"
    "and the statistics of the converted lot.\n\n"
    "Options:\n"
    "  --template NAME        the template (required)\n"
    "  --folder DIR           the template library's folder (default: see README)\n"
    "  --mode M               all (default): the template site of the same number;\n"
    "                         center: the first template site of the exposure;\n"
    "                         center-column / center-row: same number, else the\n"
    "                         nearest template site of the centre column (row)\n"
    "  --no-dose, --no-na, --no-pci, --no-pco   leave that value out of the match\n"
    "  --range R --sigma S    cull points whose astigmatism lies R um (S sigma) or\n"
    "                         more from the mean, before converting\n"
    "  --continue-missing     go on without lot sites the template lacks (else stop)\n"
    "  --save                 write the \"RawFocus\" sheet into the workbook\n"
    "  --sheet NAME           the data sheet (default: the workbook's)\n"
    "  --json                 the result as JSON\n\n"
    "Exit: 0 done, 1 the conversion failed or was not continued, 2 bad arguments.\n";

const char kAstigHelp[] =
    "Usage: zorv-cli astig WORKBOOK [--range R] [--sigma S] [--json]\n\n"
    "The astigmatism (ValueH - ValueV, micrometres) of every live point: its\n"
    "statistics, with the counts a range and sigma cull about the mean would take.\n";

namespace {

bool ModeOf(const std::string& s, SiteMatch& m) {
    if (s.empty() || s == "all") return m = SiteMatch::AllSites, true;
    if (s == "center") return m = SiteMatch::Center, true;
    if (s == "center-column") return m = SiteMatch::CenterColumn, true;
    if (s == "center-row") return m = SiteMatch::CenterRow, true;
    return false;
}

}  // namespace

int RunConvert(const Args& args) {
    const Args pos = Positional(args, {"--template", "--folder", "--mode", "--range", "--sigma", "--sheet"});
    const bool json = HasFlag(args, "--json");
    FocusAnalysisControls c;
    ConvertOptions& o = c.convertOptions;
    o.templateName = OptionValue(args, "--template");
    bool bad = pos.size() != 1 || o.templateName.empty() || !ModeOf(OptionValue(args, "--mode"), o.mode);
    for (auto [flag, v] : {std::pair{"--range", &c.range}, std::pair{"--sigma", &c.sigma}})
        if (const std::string t = OptionValue(args, flag); !t.empty() && !ParseNumber(t, *v)) bad = true;
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli convert WORKBOOK --template NAME [--mode all|center|center-column|center-row] ...\n"
                             "       (zorv-cli convert --help for the options)\n");
        return kExitUsage;
    }
    o.noDose = HasFlag(args, "--no-dose"), o.noNA = HasFlag(args, "--no-na");
    o.noPCi = HasFlag(args, "--no-pci"), o.noPCo = HasFlag(args, "--no-pco");
    const bool goOn = HasFlag(args, "--continue-missing");
    o.continueMissing = [&](const std::string& q) {
        std::fprintf(stderr, "%s\n%s\n", q.c_str(), goOn ? "Yes (--continue-missing)" : "No (without --continue-missing)");
        return goOn;
    };

    Loaded loaded;
    if (Status st = LoadLot(pos[0], args, loaded); !st) return ShowFailure(st.failure(), json);
    cTemplateLibrary lib(TemplateFolder(OptionValue(args, "--folder")));
    if (Status st = lib.FileGet(); !st) return ShowFailure(st.failure(), json);
    Workbook* wb = HasFlag(args, "--save") ? loaded.tables.workbook.get() : nullptr;
    auto r = PSFMmetro2Focus(*loaded.lot, lib, c, wb);
    if (!r) return ShowFailure(r.failure(), json);
    if (r->answeredNo) {
        std::fprintf(stderr, "convert: stopped: some lot sites have no template site (see --continue-missing).\n");
        return kExitFailed;
    }
    const cLot& lot = *r->lot;
    RcMoments v, h;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        v.add(p.ValueV / 1000.0);
        h.add(p.ValueH / 1000.0);
    });
    const RcStats sv = RcFinish(v), sh = RcFinish(h);
    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("lot", lot.LotName).field("template", o.templateName);
        j.field("description", r->description).field("rangeCulls", static_cast<long long>(r->culls.range));
        j.field("sigmaCulls", static_cast<long long>(r->culls.sigma)).field("points", static_cast<long long>(v.n));
        j.key("focusV").beginObject().field("mean", sv.mean).field("sd", sv.sd).field("min", sv.mn).field("max", sv.mx).endObject();
        j.key("focusH").beginObject().field("mean", sh.mean).field("sd", sh.sd).field("min", sh.mn).field("max", sh.mx).endObject();
        j.key("focus").beginObject();
        TableJson(j, r->focus);
        j.endObject().endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    std::printf("%s (template %s): %lld points\n%s\n", lot.LotName.c_str(), o.templateName.c_str(), v.n,
                r->description.c_str());
    std::printf("Focus %s (um): mean %.4f  sd %.4f  min %.4f  max %.4f\n", lot.ValueV_Name.c_str(), sv.mean, sv.sd, sv.mn, sv.mx);
    std::printf("Focus %s (um): mean %.4f  sd %.4f  min %.4f  max %.4f\n", lot.ValueH_Name.c_str(), sh.mean, sh.sd, sh.mn, sh.mx);
    PrintTable(r->focus);
    return kExitOk;
}

int RunAstig(const Args& args) {
    const Args pos = Positional(args, {"--range", "--sigma", "--sheet"});
    const bool json = HasFlag(args, "--json");
    double range = 0, sigma = 0;
    bool bad = pos.size() != 1;
    if (const std::string t = OptionValue(args, "--range"); !t.empty() && !ParseNumber(t, range)) bad = true;
    if (const std::string t = OptionValue(args, "--sigma"); !t.empty() && !ParseNumber(t, sigma)) bad = true;
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli astig WORKBOOK [--range R] [--sigma S] [--json]\n");
        return kExitUsage;
    }
    Loaded loaded;
    if (Status st = LoadLot(pos[0], args, loaded); !st) return ShowFailure(st.failure(), json);
    auto clone = loaded.lot->clone(true);
    const FocusCullCounts culls = FocusRangeCull(*clone, range, sigma, true);
    auto r = AstigmaticAnalysis(*loaded.lot, range, sigma, culls);
    if (!r) return ShowFailure(r.failure(), json);
    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("lot", loaded.lot->LotName).field("title", r->title);
        j.key("stats").beginObject();
        TableJson(j, r->stats);
        j.endObject().endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    std::printf("%s%s\n", r->title.c_str(), r->histogramText.c_str());
    PrintTable(r->stats);
    return kExitOk;
}

}  // namespace zorv::cli
