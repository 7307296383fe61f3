// zorv-cli plot: a chart of a data or result sheet, written as PNG, SVG or
// PDF by the chart engine, without a display.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/proc.h"
#include "base/text.h"
#include "graphics/chart.h"
#include "json.h"
#include "numerics/matrix.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/store.h"

namespace zorv::cli {

namespace {

std::string JoinNames(const std::vector<std::string>& v) {
    std::string out;
    for (const std::string& x : v) out += (out.empty() ? "" : ", ") + x;
    return out;
}

// The sheet as a table with its header in row 0: the used area's first row
// holds the column names (a title row above a header, as result sheets have,
// is skipped when the row under it names more columns).
Datam SheetTable(Worksheet& ws) {
    const Datam used = ws.usedRange();
    if (!used.isArray() || used.rowUb() < 1) return {};
    auto named = [&](int r) {
        int n = 0;
        for (int c = 1; c <= used.colUb(); ++c) n += !IsBlank(used(r, c));
        return n;
    };
    const int head = used.rowUb() >= 2 && named(2) > named(1) ? 2 : 1;
    Datam t(used.rowUb() - head, used.colUb(), 0, 0);
    for (int r = head; r <= used.rowUb(); ++r)
        for (int c = 1; c <= used.colUb(); ++c) t(r - head, c) = used(r, c);
    for (int r = 1; r <= t.rowUb(); ++r) t(r, 0) = Value(int32_t(r));
    return t;
}

// A column by header (case blind) or by number; 0 when there is none.
int ColumnOf(const Datam& t, const std::string& name) {
    for (int c = 1; c <= t.colUb(); ++c)
        if (IEquals(t(0, c).toString(), name)) return c;
    double n;
    if (ParseNumber(name, n) && n >= 1 && n <= t.colUb() && n == static_cast<int>(n)) return static_cast<int>(n);
    return 0;
}

}  // namespace

const char kPlotHelp[] =
    "Usage: zorv-cli plot WORKBOOK --out FILE.png|.svg|.pdf [--sheet NAME]\n"
    "                     [--kind xy|histogram|boxplot] [--x COL] [--y COL[,COL...]]\n"
    "                     [--err COL[,COL...]] [--boxes] [--percentiles] [--group COL]\n"
    "                     [--bins N] [--stats]\n"
    "                     [--title T] [--size WxH] [--json]\n\n"
    "Draws a chart of a sheet of the workbook (the data sheet by default) and writes\n"
    "it as PNG, SVG or PDF, as the extension says; no display is needed. Columns are\n"
    "named by their header (any case) or number.\n\n"
    "  xy         each --y column against --x, joined, with symbols; --err gives each\n"
    "             curve's error column (the error on both sides); a legend names them;\n"
    "             --boxes adds a box plot of each curve's values at every X (quartiles,\n"
    "             median, whiskers to the extremes), --percentiles the same with the\n"
    "             whiskers at 5% and 95%, labelled\n"
    "  histogram  the distribution of the first --y column, per --group if given,\n"
    "             in --bins bins (default 20)\n"
    "  boxplot    the histogram with the box plot of each group above it\n\n"
    "Kinds drawn from the data workbook's lot (--sheet names its data sheet):\n"
    "  wafer-vector, wafer-map    an arrow per site (overlay) or a symbol coloured by\n"
    "                             value, on the wafer outline with its field grid\n"
    "  field-vector, field-map    the same over the field\n"
    "  wafer-contour, field-contour  the interpolated surface in colour, with its key\n"
    "  surface3d                  the wafer's surface as a grid in projection\n"
    "  radial                     the points inside --rect X1,Y1,X2,Y2 (mm) against\n"
    "                             radius (or --by rows|columns), per family, with\n"
    "                             radial zones and a fit of the radius (--order N);\n"
    "                             --save writes the \"RadialZones_\" and \"RadialFit_\"\n"
    "                             sheets into the workbook\n"
    "  --feature F  the feature by name; --data raw|fitted|residual; --wafer W one\n"
    "  wafer (default: the first); --field N one field; --scale S the vector scale in\n"
    "  the feature's units (default: the largest vector); --view R,THETA,PHI the 3D\n"
    "  eye (distance, angles in degrees); --statistic Mean|StDev|Maximum|Minimum one\n"
    "  value per position\n\n"
    "--stats      a statistics box: count, mean and standard deviation of each --y\n"
    "--title T    the chart's title (default: the sheet and the columns)\n"
    "--size WxH   pixels (default 1000x650)\n\n"
    "An unknown sheet or column, an empty sheet or a file that cannot be written\n"
    "gives the message on stderr (with --json an error object) and exit code 1;\n"
    "no partial file is left.\n";

int RunPlot(const Args& args) {
    const Args pos = Positional(args, {"--out", "--sheet", "--kind", "--x", "--y", "--err", "--group", "--bins",
                                       "--title", "--size"});
    const std::string out = OptionValue(args, "--out");
    const std::string kind = OptionValue(args, "--kind").empty() ? "xy" : OptionValue(args, "--kind");
    if (IsMapKind(kind)) return RunPlotMap(args, kind);
    int w = 1000, h = 650, bins = 0;
    bool bad = pos.size() != 1 || out.empty() || (kind != "xy" && kind != "histogram" && kind != "boxplot");
    if (const std::string sz = OptionValue(args, "--size"); !sz.empty())
        bad = bad || std::sscanf(sz.c_str(), "%dx%d", &w, &h) != 2 || w < 50 || h < 50 || w > 20000 || h > 20000;
    if (const std::string b = OptionValue(args, "--bins"); !b.empty()) {
        bins = std::atoi(b.c_str());
        bad = bad || bins < 1 || bins > 1000;
    }
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli plot WORKBOOK --out FILE.png|.svg|.pdf [--kind xy|histogram|boxplot] "
                             "[--x COL] [--y COL,...] [options]\n");
        return kExitUsage;
    }
    const bool json = HasFlag(args, "--json");
    Proc p("zorv-cli(plot): ");
#ifndef ZORV_HAVE_PAINT
    return ShowFailure(p.fail("This zorv-cli was built without the drawing library."), json);
#else
    auto opened = Workbook::open(pos[0]);
    if (!opened) return ShowFailure(opened.failure(), json);
    std::string sheetName = OptionValue(args, "--sheet");
    if (sheetName.empty()) {
        // The data sheet: named after the file.
        std::string base = pos[0].substr(pos[0].find_last_of("/\\") + 1);
        sheetName = base.substr(0, base.find_last_of('.'));
    }
    Worksheet* ws = (*opened)->sheet(sheetName);
    if (!ws) {
        Failure f = p.fail("Sheet '" + sheetName + "' is not in workbook: " + pos[0]);
        f.file = pos[0];
        return ShowFailure(f, json);
    }
    Datam table = SheetTable(*ws);
    if (!table.isArray() || table.rowUb() < 1) {
        Failure f = p.fail("Sheet '" + sheetName + "' holds no data.");
        f.file = pos[0];
        f.sheet = sheetName;
        return ShowFailure(f, json);
    }
    auto column = [&](const std::string& name, int& col) {
        col = ColumnOf(table, name);
        if (col > 0) return true;
        Failure f = p.fail("Column '" + name + "' is not in sheet '" + sheetName + "'.");
        f.file = pos[0];
        f.sheet = sheetName;
        ShowFailure(f, json);
        return false;
    };
    std::vector<std::string> ys = SplitCommas(OptionValue(args, "--y"));
    if (ys.empty()) ys.push_back(table.colUb() >= 2 ? table(0, 2).toString() : table(0, 1).toString());
    std::vector<int> yc(ys.size());
    for (size_t i = 0; i < ys.size(); ++i)
        if (!column(ys[i], yc[i])) return kExitFailed;

    cGraphic g;
    g.TitleObj.TitleString = OptionValue(args, "--title");
    if (Status st = g.RegisterData(table); !st) return ShowFailure(st.failure(), json);
    if (kind == "xy") {
        int xc = 1;
        const std::string xname = OptionValue(args, "--x").empty() ? table(0, 1).toString() : OptionValue(args, "--x");
        if (!column(xname, xc)) return kExitFailed;
        const std::vector<std::string> errs = SplitCommas(OptionValue(args, "--err"));
        for (size_t i = 0; i < yc.size(); ++i) {
            cSeries& c = g.Series.Add(table(0, yc[i]).toString());
            c.Xcol = xc;
            c.Ycol = yc[i];
            c.Symbol = static_cast<SymbolShape>(1 + static_cast<int>(i) % (kSymbolShapes - 1));
            // Over boxes the points stand alone: a line through every row would hide them.
            c.Connect = !HasFlag(args, "--boxes") && !HasFlag(args, "--percentiles");
            if (i < errs.size()) {
                int ec = 0;
                if (!column(errs[i], ec)) return kExitFailed;
                c.YerrCol1 = c.YerrCol2 = ec;
            }
        }
        g.doBoxPlot = HasFlag(args, "--boxes") || HasFlag(args, "--percentiles");
        g.BoxPlotPercentiles = HasFlag(args, "--percentiles");
        g.Axes.Add("X").Label = table(0, xc).toString();
        g.Axes.Add("Y").Label = ys.size() == 1 ? table(0, yc[0]).toString() : std::string();
        g.Axes.Item("Y")->PlotGridline = true;
        if (g.TitleObj.TitleString.empty())
            g.TitleObj.TitleString = sheetName + ": " + JoinNames(ys) + " against " + table(0, xc).toString();
    } else {
        g.Kind = GraphKind::Histogram;
        g.HistoXcol = yc[0];
        g.HistoDisplayResolution = bins;
        g.doBoxPlot = kind == "boxplot";
        if (const std::string grp = OptionValue(args, "--group"); !grp.empty())
            if (!column(grp, g.HistoYcol)) return kExitFailed;
        g.Axes.Add("X").Label = table(0, yc[0]).toString();
        if (g.TitleObj.TitleString.empty())
            g.TitleObj.TitleString = sheetName + ": distribution of " + table(0, yc[0]).toString();
    }
    if (HasFlag(args, "--stats")) {
        g.Stats.Title = "Statistics";
        Datam st(3, static_cast<int>(yc.size()), 0, 0);
        st(0, 0) = Value("");
        st(1, 0) = Value("Count");
        st(2, 0) = Value("Mean");
        st(3, 0) = Value("StDev");
        for (size_t i = 0; i < yc.size(); ++i) {
            const int c = static_cast<int>(i) + 1;
            st(0, c) = table(0, yc[i]);
            st(1, c) = Value(int32_t(mat_rcstat1(table, "COUNT", yc[i])));
            st(2, c) = Value(mat_rcstat1(table, "MEAN", yc[i]));
            st(3, c) = Value(mat_rcstat1(table, "STDEV", yc[i]));
        }
        g.Stats.RegisterArray(st);
    }
    if (Status st = WriteChart(g, out, w, h); !st) return ShowFailure(st.failure(), json);
    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("sheet", sheetName).field("kind", kind);
        j.field("out", out).field("width", w).field("height", h).field("points", static_cast<long long>(g.TotalPoints));
        j.endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        std::printf("%s\n", out.c_str());
    }
    return kExitOk;
#endif
}

}  // namespace zorv::cli
