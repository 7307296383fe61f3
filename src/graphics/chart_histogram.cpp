// Histograms and their box plots.
#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "numerics/matrix.h"
#include "numerics/quartiles.h"
#include "numerics/tickformat.h"

namespace zorv {

namespace {

constexpr int kDefaultBins = 20;

struct Group {
    std::string name;
    std::vector<double> values;
};

}  // namespace

Status cGraphic::PlotHistogram() {
    Proc p("cGraphic(PlotHistogram): ");
    if (HistoXcol < 0) return p.fail("Data columns not specified.");
    if (!surface_) return Proc("cGraphic(DrawFigure): ").fail("Graph Container was not specified.");
    Surface& s = *surface_;
    SetStatusText("Histogram setup ...");
    const FontSpec keepFont = s.Font;
    s.Font = Font;
    const double lineH = s.TextHeight("yY"), dotW = s.TextWidth("o");

    // The values by group, in the order groups first appear.
    p.chk = 1;
    const Datam& t = data_;
    if (!t.isArray() || HistoXcol > t.colUb()) return p.fail("Data columns not specified.");
    std::vector<Group> groups;
    std::map<std::string, size_t> at;
    for (int r = FirstData(t, 1); r <= t.rowUb(); ++r) {
        double v;
        if (IsBlank(t(r, HistoXcol)) || !NumericOf(t(r, HistoXcol), v) || IsMissingTol(v)) continue;
        const std::string key = HistoYcol >= 0 && HistoYcol <= t.colUb() ? t(r, HistoYcol).toString() : std::string();
        auto [it, fresh] = at.emplace(key, groups.size());
        if (fresh) groups.push_back({key, {}});
        groups[it->second].values.push_back(v);
    }
    // PlotHistogramAxes: the axes need two values.
    size_t total = 0;
    for (const Group& g : groups) total += g.values.size();
    if (total < 2) {
        const std::string name = HistoXcol <= t.colUb() && t.rowLb() <= 0 ? t(0, HistoXcol).toString() : "";
        return Proc("cGraphic(PlotHistogramAxes): ").fail("Less than 2 rows of data provided.\r\nfor data: '" + name + "'");
    }
    double lo = 1e300, hi = -1e300;
    for (const Group& g : groups)
        for (double v : g.values) lo = std::min(lo, v), hi = std::max(hi, v);
    if (hi == lo) hi = lo + 1;
    const int bins = HistoDisplayResolution > 0 ? HistoDisplayResolution : kDefaultBins;
    const double w = (hi - lo) / bins;

    // Counts, and the series table of each group: the corners of its bars.
    p.chk = 2;
    histo_.clear();
    std::vector<std::vector<long>> counts;
    long maxCount = 1;
    for (const Group& g : groups) {
        std::vector<long> c(static_cast<size_t>(bins), 0);
        for (double v : g.values) c[static_cast<size_t>(std::clamp(static_cast<int>((v - lo) / w), 0, bins - 1))] += 1;
        for (long k : c) maxCount = std::max(maxCount, k);
        const std::string name =
            g.name.empty() ? "_" : "_(" + g.name + "," + std::to_string(g.values.size()) + ")";
        Datam d(4 * bins, 2, 0, 0);
        d(0, 1) = Value("X_" + name);
        d(0, 2) = Value("Y");
        for (int b = 0; b < bins; ++b) {
            const double x0 = lo + b * w, x1 = x0 + w, y = double(c[static_cast<size_t>(b)]);
            const double corners[4][2] = {{x0, 0}, {x0, y}, {x1, y}, {x1, 0}};
            for (int k = 0; k < 4; ++k) {
                d(4 * b + k + 1, 1) = Value(corners[k][0]);
                d(4 * b + k + 1, 2) = Value(corners[k][1]);
            }
        }
        histo_.push_back(std::move(d));
        counts.push_back(std::move(c));
    }

    // Axes: values along one, counts along the other.
    cAxis& av = Axes.Add(HistoOrientHorizontal ? "Y" : "X");
    cAxis& ac = Axes.Add(HistoOrientHorizontal ? "X" : "Y");
    if (AutoScale && av.AutoScale) {
        const TickFormat tf = CalcTickFormat((hi - lo) / 9, 1);
        av.TickFormat = tf.format;
        av.UnitsPerTick = static_cast<float>((hi - lo) / 9);
        av.LowValue = static_cast<float>(lo - w);
        av.HighValue = static_cast<float>(hi + w);
        av.OriginLowValue = av.LowValue, av.OriginHighValue = av.HighValue;
        av.OriginTickInterval = av.UnitsPerTick, av.OriginTickFormat = av.TickFormat;
    }
    if (AutoScale && ac.AutoScale) {
        const double top = maxCount * 1.1 + (doBoxPlot ? maxCount * 0.25 : 0);
        const double step = std::max(1.0, std::ceil(top / 8));
        ac.TickFormat = "#0";
        ac.UnitsPerTick = static_cast<float>(step);
        ac.LowValue = 0;
        ac.HighValue = static_cast<float>(std::ceil(top / step) * step);
        ac.OriginLowValue = ac.LowValue, ac.OriginHighValue = ac.HighValue;
        ac.OriginTickInterval = ac.UnitsPerTick, ac.OriginTickFormat = ac.TickFormat;
    }
    if (ac.Label.empty()) ac.Label = HistoPlotCumulative ? "Count (and cumulative %)" : "Count";

    // The layout of an XY chart over an empty curve set: title, axes, legend.
    // A stand-in table and curve give PlotChart its frame without curves of
    // its own.
    p.chk = 3;
    const Datam keepData = data_;
    zorv::Series keepSeries;
    std::swap(keepSeries, Series);
    Datam frameTable = Datam::fromRows({{"", "x", "y"}, {1, av.LowValue, ac.LowValue}, {2, av.HighValue, ac.HighValue}});
    data_ = frameTable;
    cSeries& frameCurve = Series.Add();
    frameCurve.Xcol = HistoOrientHorizontal ? 2 : 1;
    frameCurve.Ycol = HistoOrientHorizontal ? 1 : 2;
    frameCurve.Connect = false;
    frameCurve.SymbolDisplay = false;
    const bool keepAuto = AutoScale, keepLegend = DisplayLegend, keepBox = doBoxPlot;
    AutoScale = false;
    DisplayLegend = false;
    doBoxPlot = false;  // the histogram's own box plot follows the bars
    Status laid = PlotChart();
    AutoScale = keepAuto;
    DisplayLegend = keepLegend;
    doBoxPlot = keepBox;
    std::swap(keepSeries, Series);
    data_ = keepData;
    if (!laid) return laid;

    // Bars: a group's colour each, outlined.
    const PlotFrame& f = frame_;
    auto box = [&](double v0, double v1, double c0, double c1, Color fill) {
        double x0, x1, y0, y1;
        if (HistoOrientHorizontal) x0 = f.px(c0), x1 = f.px(c1), y0 = f.py(v0), y1 = f.py(v1);
        else x0 = f.px(v0), x1 = f.px(v1), y0 = f.py(c0), y1 = f.py(c1);
        s.Line(x0, y0, x1, y1, fill, LineForm::FilledBox);
        if (HistoDrawBoxOutline) s.Line(x0, y0, x1, y1, ForeColor, LineForm::Box);
    };
    const size_t ng = groups.size();
    for (size_t g = 0; g < ng; ++g) {
        const Color fill = ng == 1 ? HistoColorVar1 : g == 0 ? HistoColorVar1 : g == 1 ? HistoColorVar2 : GetPlotColors(int(g));
        // Side by side within a bin when there are several groups.
        const double share = w / static_cast<double>(ng);
        for (int b = 0; b < bins; ++b) {
            const long c = counts[g][static_cast<size_t>(b)];
            if (c == 0) continue;
            const double v0 = lo + b * w + (HistoCategoryBars || ng > 1 ? share * g : 0);
            const double v1 = HistoCategoryBars || ng > 1 ? v0 + share : v0 + w;
            box(v0, v1, 0, double(c), fill);
        }
        if (HistoPlotCumulative) {
            // Cumulative share of the group, on the count scale (100% at the top count).
            std::vector<PointD> line;
            long run = 0;
            const double n = double(groups[g].values.size());
            for (int b = 0; b < bins; ++b) {
                run += counts[g][static_cast<size_t>(b)];
                const double v = lo + (b + 1) * w, c = run / n * maxCount;
                line.push_back(HistoOrientHorizontal ? PointD{f.px(c), f.py(v)} : PointD{f.px(v), f.py(c)});
            }
            const Color keep = s.ForeColor;
            s.ForeColor = GetPlotColors(int(g) + 1);
            s.Polyline(line);
            s.ForeColor = keep;
        }
    }

    // The box plot above the bars: Q1 to Q3 with the median, whiskers to Q0
    // and Q4, its values written beside it.
    if (doBoxPlot) {
        for (size_t g = 0; g < ng; ++g) {
            SetStatusText("Population distribution BoxPlot calculation for " + groups[g].name);
            Datam col(static_cast<int>(groups[g].values.size()), 1, 0, 1);
            for (size_t i = 0; i < groups[g].values.size(); ++i) col(static_cast<int>(i) + 1, 1) = Value(groups[g].values[i]);
            const Quartiles q = GetQuartiles(col, 1);
            if (!q.ok()) continue;
            const double band = maxCount * 0.2 / double(ng);
            const double c0 = maxCount * 1.1 + band * g, c1 = c0 + band * 0.8, cm = (c0 + c1) / 2;
            auto at = [&](double v, double c) {
                return HistoOrientHorizontal ? PointD{f.px(c), f.py(v)} : PointD{f.px(v), f.py(c)};
            };
            const PointD a = at(q.q1(), c0), b = at(q.q3(), c1);
            s.Line(a.x, a.y, b.x, b.y, HistoBoxPlotColor2, LineForm::FilledBox);
            s.Line(a.x, a.y, b.x, b.y, HistoBoxPlotColor1, LineForm::Box);
            const PointD m0 = at(q.median(), c0), m1 = at(q.median(), c1);
            s.Line(m0.x, m0.y, m1.x, m1.y, HistoBoxPlotColor1);
            const PointD w0 = at(q.q0(), cm), w1 = at(q.q1(), cm), w2 = at(q.q3(), cm), w3 = at(q.q4(), cm);
            s.Line(w0.x, w0.y, w1.x, w1.y, HistoBoxPlotColor1);
            s.Line(w2.x, w2.y, w3.x, w3.y, HistoBoxPlotColor1);
            const char* fmt = av.TickFormat.empty() ? "0.000" : av.TickFormat.c_str();
            const std::string label = "Q0:" + Format(q.q0(), fmt) + " Q1:" + Format(q.q1(), fmt) +
                                      " M:" + Format(q.median(), fmt) + " Q3:" + Format(q.q3(), fmt) +
                                      " Q4:" + Format(q.q4(), fmt);
            const Color keep = s.ForeColor;
            s.ForeColor = HistoBoxPlotColor1;
            // Above the box, from its left whisker, kept inside the graph box.
            const double lw = s.TextWidth(label);
            const double top = std::min(at(q.q0(), c1).y, at(q.q4(), c1).y);
            s.CurrentX = std::clamp(std::min(w0.x, w3.x), f.left + dotW, std::max(f.left + dotW, f.left + f.width - lw - dotW));
            s.CurrentY = HistoOrientHorizontal ? f.top + dotW : top - lineH;
            s.Print(label);
            s.ForeColor = keep;
        }
    }
    s.Font = keepFont;
    return StatusOk();
}

}  // namespace zorv
