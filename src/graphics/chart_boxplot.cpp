// Box plots over an XY chart: one box per X position of each curve.
#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "base/format.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "numerics/matrix.h"
#include "numerics/quartiles.h"

namespace zorv {

namespace {

// Nearest-rank percentile of sorted values, as the quartile deciles are read.
double Percentile(const std::vector<double>& sorted, double pct) {
    const size_t n = sorted.size();
    const size_t rank = static_cast<size_t>(std::ceil(pct / 100.0 * static_cast<double>(n)));
    return sorted[std::clamp<size_t>(rank, 1, n) - 1];
}

}  // namespace

Status cGraphic::BoxPlotAdd(Surface& s) {
    Proc p("cGraphic(BoxPlotAdd): ");
    boxes_.clear();
    const PlotFrame& f = frame_;
    const double charW = s.TextWidth("W"), lineH = s.TextHeight("Yy");
    std::vector<int> curves;
    for (int i = 1; i <= Series.Count(); ++i) {
        const cSeries* c = Series.Item(i);
        if (!c->Hide && !c->IsFunction() && c->Xcol >= 0 && c->Ycol >= 0) curves.push_back(i);
    }
    const int n = static_cast<int>(curves.size());
    std::vector<std::pair<double, double>> xy;
    std::vector<double> ys;
    for (int k = 0; k < n; ++k) {
        SetStatusText("... BoxPlot curve generation #" + std::to_string(k + 1) + " of " + std::to_string(n));
        if (CheckEscKey()) return StatusOk();
        p.chk = k + 1;
        const cSeries& c = *Series.Item(curves[static_cast<size_t>(k)]);
        const Datam& t = c.Source(data_);
        if (!t.isArray() || c.Xcol > t.colUb() || c.Ycol > t.colUb()) continue;
        xy.clear();
        for (int r = FirstData(t, 1); r <= t.rowUb(); ++r) {
            double x, y;
            if (IsBlank(t(r, c.Xcol)) || IsBlank(t(r, c.Ycol))) continue;
            if (!NumericOf(t(r, c.Xcol), x) || !NumericOf(t(r, c.Ycol), y)) continue;
            xy.emplace_back(x, y);
        }
        std::sort(xy.begin(), xy.end());
        // The X positions and the narrowest gap between two, for the box width.
        std::vector<std::pair<size_t, size_t>> runs;
        for (size_t a = 0; a < xy.size();) {
            size_t b = a;
            while (b < xy.size() && xy[b].first == xy[a].first) ++b;
            runs.emplace_back(a, b);
            a = b;
        }
        double gap = 4 * charW;
        for (size_t g = 1; g < runs.size(); ++g)
            gap = std::min(gap, std::fabs(f.px(xy[runs[g].first].first) - f.px(xy[runs[g - 1].first].first)));
        const double half = std::max(gap * 0.35, 2.0) / std::max(1, n) * (n > 1 ? 1.6 : 1.0);
        // Several curves share a position side by side.
        const double shift = n > 1 ? (k - (n - 1) / 2.0) * 2 * half : 0;

        const int cols = BoxPlotPercentiles ? 11 : 9;
        Datam table(static_cast<int>(runs.size()), cols, 0, 1);
        const char* heads[] = {"Xprofile", "Xloc", "Count", "Q0", "Q1", "Median", "Q3", "Q4", "5%", "95%"};
        for (int h = 0; h < cols - 1; ++h) table(0, h + 1) = Value(heads[h]);
        table(0, cols) = Value("Colors_" + c.Label);
        const Color line = c.ColorFore != 0 ? c.ColorFore : GetPlotColors(curves[static_cast<size_t>(k)] - 1);
        for (size_t g = 0; g < runs.size(); ++g) {
            ys.clear();
            for (size_t i = runs[g].first; i < runs[g].second; ++i) ys.push_back(xy[i].second);
            Datam col(static_cast<int>(ys.size()), 1, 0, 1);
            for (size_t i = 0; i < ys.size(); ++i) col(static_cast<int>(i) + 1, 1) = Value(ys[i]);
            const Quartiles q = GetQuartiles(col, 1);
            const int row = static_cast<int>(g) + 1;
            const double x = xy[runs[g].first].first, xp = f.px(x) + shift;
            table(row, 1) = Value(x);
            table(row, 2) = Value(xp);
            table(row, 3) = Value(static_cast<double>(ys.size()));
            table(row, cols) = Value(static_cast<double>(line));
            if (!q.ok()) {  // one value: no box, the curve shows it
                continue;
            }
            const double qv[5] = {q.q0(), q.q1(), q.median(), q.q3(), q.q4()};
            for (int j = 0; j < 5; ++j) table(row, 4 + j) = Value(qv[j]);
            double lo = q.q0(), hi = q.q4();
            if (BoxPlotPercentiles) {
                std::sort(ys.begin(), ys.end());
                lo = Percentile(ys, 5);
                hi = Percentile(ys, 95);
                table(row, 9) = Value(lo);
                table(row, 10) = Value(hi);
            }
            // Whiskers, box from Q1 to Q3, median across it.
            s.Line(xp, f.py(lo), xp, f.py(q.q1()), line);
            s.Line(xp, f.py(q.q3()), xp, f.py(hi), line);
            s.Line(xp - half / 2, f.py(lo), xp + half / 2, f.py(lo), line);
            s.Line(xp - half / 2, f.py(hi), xp + half / 2, f.py(hi), line);
            s.Line(xp - half, f.py(q.q3()), xp + half, f.py(q.q1()), HistoBoxPlotColor2, LineForm::FilledBox);
            s.Line(xp - half, f.py(q.q3()), xp + half, f.py(q.q1()), line, LineForm::Box);
            s.DrawWidth = 2;
            s.Line(xp - half, f.py(q.median()), xp + half, f.py(q.median()), line);
            s.DrawWidth = 1;
            if (BoxPlotPercentiles) {
                const Color keep = s.ForeColor;
                s.ForeColor = line;
                const auto label = [&](const std::string& text, double v) {
                    s.CurrentX = xp + half + charW / 3;
                    s.CurrentY = f.py(v) - lineH / 2;
                    s.Print(text);
                };
                // Beside the median: the share of the values inside the box.
                size_t inBox = 0;
                for (double y : ys) inBox += y >= q.q1() && y <= q.q3();
                label("95%", hi);
                label(Format(100.0 * static_cast<double>(inBox) / static_cast<double>(ys.size()), "#0.0") + "%", q.median());
                label("5%", lo);
                s.ForeColor = keep;
            }
        }
        boxes_.push_back(std::move(table));
    }
    SetStatusText("");
    return StatusOk();
}

}  // namespace zorv
