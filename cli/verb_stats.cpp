// zorv-cli stats and cull: the statistics tables of a lot, and the culls, on
// a data workbook loaded as the program loads it. Results can be written back
// as result sheets; the data sheet itself is never changed.
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "base/proc.h"
#include "base/report.h"
#include "json.h"
#include "numerics/matrix.h"
#include "stats/cull.h"
#include "stats/lot_stats.h"
#include "stats/precision.h"
#include "stats/sigma_test.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv::cli {

namespace {

// The feature columns of the lot matrix that hold data, with the header row;
// with a feature selected, that column alone.
Datam FeatureColumns(cLot& lot, const std::string& feature) {
    const Datam m = lot.GetDataMatrix();
    if (!m.isArray()) return {};
    std::vector<int> cols;
    const Datam ft = lot.GetFeatureTypes();
    for (int r = 1; r <= ft.rowUb(); ++r) {
        const int k = ft(r, 0).toLong();
        if (k < ePlotFeatureV || k > ePlotFeatureC) continue;
        if (!feature.empty() && k != lot.PlotFeature()) continue;
        cols.push_back(5 + k);
    }
    Datam t(m.rowUb(), static_cast<int>(cols.size()), 0, 0);
    for (int r = 0; r <= m.rowUb(); ++r)
        for (size_t c = 0; c < cols.size(); ++c) t(r, static_cast<int>(c) + 1) = m(r, cols[c]);
    return t;
}

struct TableKind {
    const char* name;   // --table word
    const char* sheet;  // result sheet
    const char* title;  // its title, before the lot name
};
constexpr TableKind kTables[] = {
    {"summary", "Statistics", "Summary Statistics for: "},
    {"raw", "RawStats", "Raw Data Statistics for: "},
    {"ifd", "IFDstats", "IFD Statistics for: "},
    {"feature", "FeatureStats", "Feature Statistics for: "},
    {"precision", "Precision", "Precision Table for: "},
    {"covariance", "Covariance", "Covariance Matrix for: "},
};

}  // namespace

const char kStatsHelp[] =
    "Usage: zorv-cli stats WORKBOOK [--sheet NAME] [--feature F]\n"
    "                      [--table summary|raw|ifd|feature|precision|covariance]\n"
    "                      [--json] [--save]\n\n"
    "Loads the data workbook as a lot and prints one statistics table of its points\n"
    "(culled points left out; values in the features' display units):\n"
    "  summary     Count, Mean, Median, SEM, StDev, Maximum, Minimum, Range and\n"
    "              Mean+3Sigma of each feature (the default)\n"
    "  raw         the raw statistics: counts, IFD, astigmatism and the statistics rows\n"
    "  ifd         the intra-field difference table\n"
    "  feature     the feature statistics table\n"
    "  precision   the spread of each feature split over lot, wafer, field, site,\n"
    "              column, row and family, by sums of squares within groups\n"
    "  covariance  the feature-by-feature covariance matrix\n\n"
    "--feature F  the feature by name (default: the lot's; summary: that column alone)\n"
    "--json       the table as {\"table\", \"columns\", \"rows\": [{\"label\", \"values\"}]}\n"
    "--save       also write the table to the workbook as a result sheet (\"Statistics\",\n"
    "             \"RawStats\", \"IFDstats\", \"FeatureStats\", \"Precision\" or \"Covariance\")\n"
    "             with its Index row; the data sheet is not changed\n\n"
    "A workbook that cannot be loaded, a lot without points or a feature it does not\n"
    "have gives the message on stderr (with --json as an error object) and exit code 1.\n";

int RunStats(const Args& args) {
    const Args pos = Positional(args, {"--sheet", "--feature", "--table"});
    const std::string which = OptionValue(args, "--table").empty() ? "summary" : OptionValue(args, "--table");
    const TableKind* kind = nullptr;
    for (const TableKind& k : kTables)
        if (which == k.name) kind = &k;
    if (pos.size() != 1 || !kind) {
        std::fprintf(stderr,
                     "Usage: zorv-cli stats WORKBOOK [--sheet NAME] [--feature F]\n"
                     "       [--table summary|raw|ifd|feature|precision|covariance] [--json] [--save]\n");
        return kExitUsage;
    }
    const bool json = HasFlag(args, "--json");
    Loaded in;
    if (Status st = LoadLot(pos[0], args, in); !st) return ShowFailure(st.failure(), json);
    cLot& lot = *in.lot;
    const std::string feature = OptionValue(args, "--feature");
    if (Status st = SelectFeature(lot, feature, "zorv-cli(stats): "); !st) return ShowFailure(st.failure(), json);

    Datam table;
    const std::string name = kind->name;
    Status st = StatusOk();
    if (name == "summary") {
        const Datam cols = FeatureColumns(lot, feature);
        if (!cols.isArray() || cols.rowUb() < 1) {
            Proc p("Util(CalcStatistics): ");
            st = p.fail("No data.");
        } else if (auto r = CalcStatistics(cols, -1, "###0.00#", lot.GetPlotFeatureTypeName(), 0); r) {
            table = std::move(*r);
        } else {
            st = r.failure();
        }
    } else if (name == "precision") {
        if (auto r = CalcPrecision(lot); r) table = std::move(*r);
        else st = r.failure();
    } else if (name == "covariance") {
        if (auto r = CoVariance(lot); r) table = std::move(*r);
        else st = r.failure();
    } else {
        table = Datam(0, 0, 0, 0);
        st = name == "raw" ? CalcRawStats(lot, &table)
             : name == "ifd" ? CalcIFDstats(lot, &table)
                             : CalcFeatureStats(lot, &table);
    }
    if (!st) return ShowFailure(st.failure(), json);

    const std::string title = kind->title + lot.LotName;
    if (HasFlag(args, "--save"))
        if (Status s = SaveResult(in.tables.workbook.get(), table, kind->sheet, title); !s)
            return ShowFailure(s.failure(), json);
    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("lot", lot.LotName).field("table", name);
        j.field("title", title);
        TableJson(j, table);
        if (HasFlag(args, "--save")) j.field("savedSheet", std::string(kind->sheet));
        j.endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        std::printf("%s\n\n", title.c_str());
        PrintTable(table);
        if (HasFlag(args, "--save")) std::printf("\nSaved as sheet \"%s\" of %s\n", kind->sheet, pos[0].c_str());
    }
    return kExitOk;
}

namespace {

// "Data Distribution and Cull Analysis": the table, and with a chart path its
// two graphs (the range cull's at the path, the sigma cull's beside it with
// "-sigma" before the extension). Nothing is culled.
int CullAnalysis(cLot& lot, const std::string& workbook, const std::string& chart, bool json) {
    auto r = SigmaTest(lot, SigmaTestSetup{});
    if (!r) return ShowFailure(r.failure(), json);
    std::string sigmaChart;
    if (!chart.empty()) {
#ifdef ZORV_HAVE_PAINT
        const size_t dot = chart.find_last_of('.');
        sigmaChart = dot == std::string::npos ? chart + "-sigma" : chart.substr(0, dot) + "-sigma" + chart.substr(dot);
        cGraphic range, sigma;
        if (Status st = SigmaTestGraphs(*r, range, sigma); !st) return ShowFailure(st.failure(), json);
        for (auto [g, path] : {std::pair<cGraphic*, std::string>{&range, chart}, {&sigma, sigmaChart}})
            if (Status st = WriteChart(*g, path, 1000, 650); !st) return ShowFailure(st.failure(), json);
#else
        return ShowFailure(Proc("zorv-cli(cull): ").fail("This zorv-cli was built without the drawing library."), json);
#endif
    }
    if (json) {
        Json j;
        j.beginObject().field("workbook", workbook).field("lot", lot.LotName).field("title", r->title);
        j.key("distribution").beginObject();
        TableJson(j, r->distribution);
        j.endObject();
        j.key("families").beginObject();
        TableJson(j, r->families);
        j.endObject();
        if (!chart.empty()) j.field("rangeChart", chart).field("sigmaChart", sigmaChart);
        j.endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    std::printf("%s\n%s\n\n", r->heading.c_str(), r->title.c_str());
    PrintTable(r->distribution);
    if (!chart.empty()) std::printf("\nCharts: %s, %s\n", chart.c_str(), sigmaChart.c_str());
    return kExitOk;
}

}  // namespace

const char kCullHelp[] =
    "Usage: zorv-cli cull WORKBOOK [--sheet NAME] [--feature F | --all-features]\n"
    "                     [--range R] [--sigma S] [--radius MM]\n"
    "                     [--variable NAME --max X --min Y] [--json] [--save]\n\n"
    "Loads the data workbook as a lot and culls, in this order:\n"
    "  --range R, --sigma S  by family, points whose distance from the family's median\n"
    "                        is above R (display units) or above S standard deviations;\n"
    "                        points without a measurement (-999.9) always go\n"
    "  --radius MM           sites farther than MM from the wafer centre\n"
    "  --variable NAME       points whose feature NAME lies above --max or below --min\n"
    "Prints the points before and after, the counts of each rule and the table of\n"
    "culled points (value, delta and median in display units, family).\n\n"
    "--feature F      the feature the range and sigma rules look at (default: the lot's)\n"
    "--all-features   the range and sigma rules on every feature in turn\n"
    "--json           the counts and the table as JSON\n"
    "--save           also write the culled points to the workbook as the result sheet\n"
    "                 \"Culled\" with its Index row; the data sheet is not changed\n"
    "--analysis       cull nothing: print the \"Data Distribution and Cull Analysis\"\n"
    "                 table (per family, the points each range and sigma limit would\n"
    "                 remove); with --chart FILE.png|.svg|.pdf also draw its range-cull\n"
    "                 graph there and its sigma-cull graph as FILE-sigma.png\n\n"
    "Bad input (a workbook that cannot be loaded, a lot without points, an unknown\n"
    "feature) gives the message on stderr (with --json as an error object) and exit 1.\n";

int RunCull(const Args& args) {
    const Args pos = Positional(args, {"--sheet", "--feature", "--range", "--sigma", "--radius", "--variable",
                                       "--max", "--min", "--chart"});
    auto number = [&](const char* opt, double def, bool& bad) {
        const std::string s = OptionValue(args, opt);
        if (s.empty()) return def;
        char* end = nullptr;
        const double v = std::strtod(s.c_str(), &end);
        if (!end || *end) bad = true;
        return v;
    };
    bool bad = false;
    const double range = number("--range", 0, bad), sigma = number("--sigma", 0, bad);
    const double radius = number("--radius", 0, bad);
    const double vmax = number("--max", 1e30, bad), vmin = number("--min", -1e30, bad);
    const std::string variable = OptionValue(args, "--variable");
    if (pos.size() != 1 || bad) {
        std::fprintf(stderr,
                     "Usage: zorv-cli cull WORKBOOK [--sheet NAME] [--feature F | --all-features] [--range R]\n"
                     "       [--sigma S] [--radius MM] [--variable NAME --max X --min Y] [--json] [--save]\n");
        return kExitUsage;
    }
    const bool json = HasFlag(args, "--json");
    Loaded in;
    if (Status st = LoadLot(pos[0], args, in); !st) return ShowFailure(st.failure(), json);
    cLot& lot = *in.lot;
    if (Status st = SelectFeature(lot, OptionValue(args, "--feature"), "zorv-cli(cull): "); !st)
        return ShowFailure(st.failure(), json);

    // A lot that opens on "Vector" (or none) culls its first measured feature.
    if (OptionValue(args, "--feature").empty() &&
        (lot.PlotFeature() < ePlotFeatureV || lot.PlotFeature() > ePlotFeatureAstig)) {
        const Datam ft = lot.GetFeatureTypes();
        for (int r = 1; r <= ft.rowUb(); ++r)
            if (const int k = ft(r, 0).toLong(); k >= ePlotFeatureV && k <= ePlotFeatureC) {
                lot.PlotFeature(k);
                break;
            }
    }
    const std::string featureName =
        HasFlag(args, "--all-features") ? std::string(kAllFeatures) : lot.GetPlotFeatureName(lot.PlotFeature());
    if (HasFlag(args, "--analysis")) return CullAnalysis(lot, pos[0], OptionValue(args, "--chart"), json);
    const long before = lot.TotalPoints();
    RangeSigmaResult rs;
    bool ranRS = false;
    // Without a rule given, the range-sigma pass still takes out the points
    // that have no measurement.
    if (range != 0 || sigma != 0 || HasFlag(args, "--all-features") || (radius <= 0 && variable.empty())) {
        auto r = CullRangeSigma(lot, range, sigma, HasFlag(args, "--all-features"));
        if (!r) return ShowFailure(r.failure(), json);
        rs = std::move(*r);
        ranRS = true;
    }
    long radiusCount = 0;
    std::string radiusText;
    if (radius > 0) {
        auto r = CullRadius(lot, radius, 0, 0, &radiusText);
        if (!r) return ShowFailure(r.failure(), json);
        radiusCount = *r;
    }
    long variableCount = 0;
    if (!variable.empty()) {
        auto r = CullVariable(lot, variable, vmax, vmin);
        if (!r) return ShowFailure(r.failure(), json);
        variableCount = *r;
    }
    const long after = lot.TotalPoints();
    if (after < 1 && before > 0) MsgBox("No data points in selected lot.\r\nToo many points culled.");

    const std::string title = "Culled Data Values for: " + lot.LotName;
    if (HasFlag(args, "--save") && ranRS)
        if (Status s = SaveResult(in.tables.workbook.get(), rs.detail, "Culled", title); !s)
            return ShowFailure(s.failure(), json);
    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("lot", lot.LotName).field("feature", featureName);
        j.field("pointsBefore", static_cast<long long>(before)).field("pointsAfter", static_cast<long long>(after));
        j.field("rangeCount", static_cast<long long>(rs.rangeCount));
        j.field("sigmaCount", static_cast<long long>(rs.sigmaCount));
        j.field("radiusCount", static_cast<long long>(radiusCount));
        j.field("variableCount", static_cast<long long>(variableCount));
        j.field("meanDelta", rs.mean).field("stdevDelta", rs.stdev);
        if (ranRS) {
            j.key("detail").beginObject();
            TableJson(j, rs.detail);
            j.endObject();
            j.key("families").beginObject();
            TableJson(j, rs.families);
            j.endObject();
        }
        if (HasFlag(args, "--save") && ranRS) j.field("savedSheet", "Culled");
        j.endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    std::printf("Lot:          %s\n", lot.LotName.c_str());
    std::printf("Feature:      %s\n", featureName.c_str());
    std::printf("Points:       %ld before, %ld after\n", before, after);
    if (ranRS)
        std::printf("Range, sigma: %ld by range, %ld by sigma (mean delta %.6g, spread %.6g)\n", rs.rangeCount,
                    rs.sigmaCount, rs.mean, rs.stdev);
    if (radius > 0) std::printf("Radius:       %ld sites culled (%s)\n", radiusCount, radiusText.c_str());
    if (!variable.empty()) std::printf("Variable:     %ld points culled on %s\n", variableCount, variable.c_str());
    if (ranRS && rs.detail.isArray() && rs.detail.rowUb() >= 1) {
        std::printf("\n");
        PrintTable(rs.detail);
    }
    if (HasFlag(args, "--save") && ranRS) std::printf("\nSaved as sheet \"Culled\" of %s\n", pos[0].c_str());
    return kExitOk;
}

}  // namespace zorv::cli
