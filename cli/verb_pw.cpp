// zorv-cli pw: the process window analyses of a focus-exposure lot, headless:
// the report, the results as JSON, the chart as a file, the result sheets
// written back with --save, and bootstrap intervals with --ci.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/proc.h"
#include "graphics/chart.h"
#include "json.h"
#include "lot/lot.h"
#include "numerics/matrix.h"
#include "procwin/pw_bootstrap.h"
#include "procwin/pw_calculate.h"
#include "procwin/pw_fit.h"
#include "procwin/pw_geometry.h"
#include "procwin/pw_setup.h"
#include "procwin/pw_workbench.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv::cli {

namespace {

struct Analysis {
    const char* word;
    const char* key;
};
constexpr Analysis kAnalyses[] = {
    {"dose", kDose}, {"focus", kFocus}, {"dosebf", kDoseBF}, {"window", kPW}, {"isofocal", kIsoFocal}};

std::vector<std::string> Split(const std::string& s, char sep) {
    std::vector<std::string> out;
    size_t a = 0;
    for (size_t b; (b = s.find(sep, a)) != std::string::npos; a = b + 1) out.push_back(s.substr(a, b - a));
    out.push_back(s.substr(a));
    return out;
}

// "ALL" or a comma list of numbers: the selection table and its text.
bool Selection(const std::string& text, std::string& shown, Datam& table) {
    if (text.empty() || text == "ALL" || text == "all") {
        shown = "ALL";
        table = Datam();
        return true;
    }
    const std::vector<std::string> items = SplitCommas(text);
    table = Datam::vec(static_cast<int>(items.size()));
    for (size_t i = 0; i < items.size(); ++i) {
        double v;
        if (!ParseNumber(items[i], v)) return false;
        table(static_cast<int>(i) + 1, 1) = Value(v);
    }
    shown = text;
    return !items.empty();
}

void Figure(Json& j, const char* name, double focus, double dose, double dof, double el, double elPct) {
    j.key(name).beginObject().field("focus", focus).field("dose", dose).field("dof", dof).field("expoLat", el);
    j.field("expoLatPct", elPct).endObject();
}

}  // namespace

const char kPwHelp[] =
    "Usage: zorv-cli pw WORKBOOK --analysis dose|focus|dosebf|window|isofocal\n"
    "                   --var NAME:TARGET[:MAX:MIN] [--var ...] [--range-pct P]\n"
    "                   [--focus LIST|ALL] [--dose LIST|ALL] [--sites LIST|ALL]\n"
    "                   [--precision N] [--cull VAR:MAX:MIN] [--range R] [--sigma S]\n"
    "                   [--ci LEVEL] [--resamples N] [--seed N]\n"
    "                   [--chart FILE.png|.svg|.pdf] [--size WxH] [--json] [--save]\n\n"
    "Runs a process window analysis of the data workbook's focus-exposure lot (the\n"
    "fields' focus and dose) and prints its report:\n"
    "  dose      dose response at each focus: best dose, latitude (kDose)\n"
    "  focus     Bossung curves at each dose: best focus, DoF (kFocus)\n"
    "  dosebf    dose against best focus over the focus response (kDoseBF)\n"
    "  window    the process window of all variables: isolines of each limit, the\n"
    "            common window, the largest rectangle and ellipse (kPW)\n"
    "  isofocal  the isofocal dose of each site (kIsoFocal)\n\n"
    "--var NAME:TARGET[:MAX:MIN]  a variable (a feature of the lot) with its target\n"
    "             and limits; without MAX:MIN the limits are TARGET +- --range-pct\n"
    "             percent (default 10)\n"
    "--focus, --dose, --sites    the values used (default ALL)\n"
    "--precision N  grid steps per scan step of the window (default 10)\n"
    "--cull VAR:MAX:MIN  points of VAR outside MAX..MIN left out\n"
    "--range R, --sigma S  the fits' residual cull and significance limits\n"
    "--ci LEVEL  a residual bootstrap (--resamples, default 200; --seed, default 1) of\n"
    "             the response surfaces pooled over the sites: intervals at LEVEL (0.9\n"
    "             or 90) for each variable's isofocal dose and, for window, for the\n"
    "             rectangle's and the ellipse's best focus, dose, DoF and EL%. They\n"
    "             sit beside the analysis and never change its results.\n"
    "--chart FILE  the analysis' chart; window also writes FILE-dof.EXT, the DoF\n"
    "             against exposure latitude graph\n"
    "--save      the result and report sheets written into the workbook\n\n"
    "A workbook that cannot be loaded, a variable the lot does not have, one focus\n"
    "or one dose value, or limits no point reaches give the message on stderr (with\n"
    "--json an error object) and exit code 1; sheets written before the failure\n"
    "are kept with --save, and the data sheet is never changed.\n";

int RunPw(const Args& args) {
    const Args pos = Positional(args, {"--analysis", "--var", "--range-pct", "--focus", "--dose", "--sites", "--precision",
                                       "--cull", "--ci", "--chart", "--size", "--sheet", "--resamples", "--seed",
                                       "--range", "--sigma"});
    const bool json = HasFlag(args, "--json");
    std::string key;
    for (const Analysis& a : kAnalyses)
        if (OptionValue(args, "--analysis") == a.word) key = a.key;
    bool bad = pos.size() != 1 || key.empty();
    double pct = 10, ci = 0, range = 0, sigma = 0;
    int precision = 10, resamples = 200, w = 1000, h = 700;
    long seed = 1;
    auto number = [&](const char* opt, double& v) {
        const std::string s = OptionValue(args, opt);
        if (!s.empty() && !ParseNumber(s, v)) bad = true;
    };
    number("--range-pct", pct);
    number("--ci", ci);
    number("--range", range);
    number("--sigma", sigma);
    if (const std::string s = OptionValue(args, "--precision"); !s.empty()) precision = std::atoi(s.c_str());
    if (const std::string s = OptionValue(args, "--resamples"); !s.empty()) resamples = std::atoi(s.c_str());
    if (const std::string s = OptionValue(args, "--seed"); !s.empty()) seed = std::atol(s.c_str());
    if (const std::string sz = OptionValue(args, "--size"); !sz.empty())
        bad = bad || std::sscanf(sz.c_str(), "%dx%d", &w, &h) != 2 || w < 50 || h < 50 || w > 20000 || h > 20000;
    if (ci > 1) ci /= 100;
    bad = bad || precision < 1 || precision > 100 || resamples < 2 || resamples > 100000 || ci < 0 || ci >= 1;

    // The variables: name, target, max, min.
    PWSetup setup;
    setup.key = key;
    const std::vector<std::string> vars = OptionValues(args, "--var");
    setup.variables = Datam(static_cast<int>(vars.size()), 4, 0, 0);
    const char* heads[] = {"Variable", "Target", "Max", "Min"};
    for (int c = 0; c < 4; ++c) setup.variables(0, c + 1) = Value(heads[c]);
    std::vector<std::string> names;
    for (size_t i = 0; i < vars.size(); ++i) {
        const std::vector<std::string> f = Split(vars[i], ':');
        double t = 0, mx = 0, mn = 0;
        bad = bad || (f.size() != 2 && f.size() != 4) || f[0].empty() || !ParseNumber(f[1], t);
        if (f.size() == 4) bad = bad || !ParseNumber(f[2], mx) || !ParseNumber(f[3], mn);
        else mx = t * (1 + pct / 100), mn = t * (1 - pct / 100);
        const int r = static_cast<int>(i) + 1;
        setup.variables(r, 1) = Value(f[0]);
        setup.variables(r, 2) = Value(t), setup.variables(r, 3) = Value(std::max(mx, mn)), setup.variables(r, 4) = Value(std::min(mx, mn));
        names.push_back(f[0]);
    }
    if (const std::string cull = OptionValue(args, "--cull"); !cull.empty()) {
        const std::vector<std::string> f = Split(cull, ':');
        double mx = 0, mn = 0;
        bad = bad || f.size() != 3 || !ParseNumber(f[1], mx) || !ParseNumber(f[2], mn);
        if (f.size() == 3) setup.cullVariable = f[0], setup.cullMax = float(mx), setup.cullMin = float(mn);
    }
    bad = bad || !Selection(OptionValue(args, "--focus"), setup.focusText, setup.focusSelection) ||
          !Selection(OptionValue(args, "--dose"), setup.doseText, setup.doseSelection);
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli pw WORKBOOK --analysis dose|focus|dosebf|window|isofocal "
                             "--var NAME:TARGET[:MAX:MIN] ... [options]\n       (zorv-cli pw --help for the options)\n");
        return kExitUsage;
    }
    for (const std::string& n : names) setup.title += (setup.title.empty() ? "" : ", ") + n;
    if (const std::string sites = OptionValue(args, "--sites"); !sites.empty() && sites != "ALL" && sites != "all")
        setup.siteListText = sites;
    setup.precision = precision;
    setup.range = static_cast<float>(range);
    setup.sigma = static_cast<float>(sigma);
    setup.statistics = false;

    Loaded loaded;
    if (Status st = LoadLot(pos[0], args, loaded); !st) return ShowFailure(st.failure(), json);
    cLot& lot = *loaded.lot;
    long exposures = 0;
    Datam focusValues;
    const Datam doseValues = lot.GetUniqueExposures(exposures, focusValues);
    ScanSpan(focusValues, setup.focusLow, setup.focusHigh, setup.focusStep);
    ScanSpan(doseValues, setup.doseLow, setup.doseHigh, setup.doseStep);
    Workbook* wb = HasFlag(args, "--save") ? loaded.tables.workbook.get() : nullptr;
    setup.workbook = wb;

    PWState state;
    PWReport report;
    auto ran = PWcalculate(setup, lot, focusValues, doseValues, state, true, &report);
    // Sheets written before a failure stay, as they always have.
    if (wb && !report.sheets.empty())
        if (Status st = SaveWorkbookChecked(*wb, report.sheets.front(), false); !st) return ShowFailure(st.failure(), json);
    if (!ran) return ShowFailure(ran.failure(), json);

#ifdef ZORV_HAVE_PAINT
    if (const std::string chart = OptionValue(args, "--chart"); !chart.empty()) {
        if (!state.chart) return ShowFailure(Proc("zorv-cli(pw): ").fail("The analysis made no chart."), json);
        if (Status st = WriteChart(*state.chart, chart, w, h); !st) return ShowFailure(st.failure(), json);
        if (report.expoLatChart) {
            const size_t dot = chart.find_last_of('.');
            const std::string dof = chart.substr(0, dot) + "-dof" + chart.substr(dot);
            if (Status st = WriteChart(*report.expoLatChart, dof, w, h); !st) return ShowFailure(st.failure(), json);
        }
    }
#else
    if (!OptionValue(args, "--chart").empty())
        return ShowFailure(Proc("zorv-cli(pw): ").fail("This zorv-cli was built without the drawing library."), json);
#endif

    // Bootstrap intervals of the pooled surfaces.
    std::vector<PWInterval> intervals;
    if (ci > 0) {
        auto b = PWconfidence(setup, report, resamples, static_cast<uint64_t>(seed), ci);
        if (!b) return ShowFailure(b.failure(), json);
        intervals = std::move(b.value());
    }

    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("analysis", OptionValue(args, "--analysis")).field("key", key);
        j.field("lot", lot.LotName).field("points", static_cast<long long>(report.points));
        j.key("isoFocal").beginArray();
        for (const PWIsoFocal& i : report.isoFocal)
            j.beginObject().field("feature", i.feature).field("site", static_cast<long long>(i.site)).field("dose", i.dose).field("value", i.value).endObject();
        j.endArray();
        j.key("sites").beginArray();
        for (const PWSiteBest& b : report.best) {
            j.beginObject().field("feature", b.feature).field("site", static_cast<long long>(b.site)).field("x", b.x).field("y", b.y);
            j.field("bestDose", b.bestDose).field("bestFocus", b.bestFocus).field("latitude", b.latitude);
            j.field("pctLatitude", b.pctLatitude).field("dof", b.dof).endObject();
        }
        j.endArray();
        if (report.haveWindow) {
            Figure(j, "rectangle", report.rectFocus, report.rectDose, report.rectDoF, report.rectExpoLat, report.rectExpoLatPct);
            Figure(j, "ellipse", report.ellipseFocus, report.ellipseDose, report.ellipseDoF, report.ellipseExpoLat,
                   report.ellipseExpoLatPct);
        }
        if (!intervals.empty()) {
            j.key("ci").beginObject().field("level", ci).field("resamples", resamples).field("seed", static_cast<long long>(seed));
            j.key("intervals").beginArray();
            for (const PWInterval& i : intervals)
                j.beginObject().field("name", i.name).field("estimate", i.estimate).field("low", i.low).field("high", i.high).field("samples", i.samples).endObject();
            j.endArray().endObject();
        }
        j.key("sheets").beginArray();
        for (const std::string& s : report.sheets) j.value(s);
        j.endArray().endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    PrintTable(report.report);
    if (!intervals.empty()) {
        std::printf("\nBootstrap intervals (%g%%, %d resamples, seed %ld, surfaces pooled over the sites):\n", ci * 100,
                    resamples, seed);
        for (const PWInterval& i : intervals)
            std::printf("  %-22s %12s  [%s, %s]  (%d)\n", i.name.c_str(), Format(i.estimate, "0.0000").c_str(),
                        Format(i.low, "0.0000").c_str(), Format(i.high, "0.0000").c_str(), i.samples);
    }
    return kExitOk;
}

}  // namespace zorv::cli
