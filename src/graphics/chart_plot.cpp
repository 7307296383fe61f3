// The layout and drawing of a 2D chart.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "numerics/matrix.h"

namespace zorv {

namespace {

std::string CellText(const Value& v, const char* numberFormat) {
    double x;
    if (v.type() == VType::Double || v.type() == VType::Single)
        if (NumericOf(v, x)) return Format(x, numberFormat);
    return v.toString();
}

// The ticks of an axis: low, low + step, ... up to high.
std::vector<double> Ticks(const cAxis& a) {
    std::vector<double> t;
    const double step = a.TickStep();
    if (!(step > 0)) return t;
    const double lo = a.LowValue, hi = a.HighValue;
    for (int i = 0;; ++i) {
        const double v = lo + i * step;
        if (v > hi + step * 1e-6 || i > static_cast<int>(kMaxTicks)) break;
        t.push_back(std::fabs(v) < step * 1e-9 ? 0.0 : v);
    }
    return t;
}

}  // namespace

Status cGraphic::PlotChart() {
    Proc p("cGraphic(PlotChart): ");
    if (!surface_) return p.fail("Graph Container was not specified.");
    Surface& s = *surface_;
    p.chk = 1;
    const FontSpec keepFont = s.Font;
    s.Font = Font;
    const double lineH = s.TextHeight("Yy"), charW = s.TextWidth("W");
    const double margin = charW;

    // 1. The chart's area on the surface.
    const double width = PlotWidth > 0 ? std::min(PlotWidth, s.ScaleWidth() - PLotLeft) : s.ScaleWidth() - PLotLeft - OffsetX;
    const double height =
        PlotHeight > 0 ? std::min(PlotHeight, s.ScaleHeight() - PlotTop) : s.ScaleHeight() - PlotTop - OffsetY;

    // 2. The title's height sets the graph's top.
    s.Font = TitleObj.Font;
    TitleObj.parent = this;
    // A title of several lines (analyses put their results there) is
    // centred line by line; one wider than the chart is set smaller, down to
    // a readable size.
    std::vector<std::string> titleLines;
    for (size_t a = 0, b; a < TitleObj.TitleString.size(); a = b + 1) {
        b = TitleObj.TitleString.find('\n', a);
        if (b == std::string::npos) b = TitleObj.TitleString.size();
        std::string line = TitleObj.TitleString.substr(a, b - a);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) titleLines.push_back(std::move(line));
    }
    auto widest = [&] {
        double w = 0;
        for (const std::string& l : titleLines) w = std::max(w, s.TextWidth(l));
        return w;
    };
    FontSpec titleFont = TitleObj.Font;
    while (!titleLines.empty() && titleFont.size > 7 && widest() > width - 2 * margin) {
        titleFont.size -= 1;
        s.Font = titleFont;
    }
    const double titleLineH = titleLines.empty() ? 0 : s.TextHeight("Yy");
    TitleObj.HeightTitle = titleLineH * static_cast<double>(titleLines.size());
    TitleObj.WidthTitle = titleLines.empty() ? 0 : widest();
    s.Font = Font;

    // 3. Axes: X and Y, auto-scaled over the curves unless zoomed by hand.
    std::vector<AutoScaleSeries> cols;
    bool anyY2 = false;
    for (int i = 1; i <= Series.Count(); ++i) {
        const cSeries* c = Series.Item(i);
        if (c->Hide) continue;
        cols.push_back({c->Xcol, c->Ycol, c->Y2col, c->DisplayFunction.Equation()});
        anyY2 = anyY2 || c->Y2col >= 0;
    }
    p.chk = 2;
    if (cols.empty() || !data_.isArray()) return p.fail("Total number of data points in graph = 0");
    for (AxisRole role : {AxisRole::X, AxisRole::Y}) {
        cAxis& a = Axes.Add(AxisKey(role));
        if (AutoScale && a.AutoScale)
            if (Status st = Axes.CalcAutoScale(role, data_, cols, ChartType, false); !st) return st;
    }
    cAxis& ax = *Axes.Item(AxisKey(AxisRole::X));
    cAxis& ay = *Axes.Item(AxisKey(AxisRole::Y));
    if (Status st = ValidateAxis(ax, 'X', false, p.tag()); !st) return st;
    if (Status st = ValidateAxis(ay, 'Y', false, p.tag()); !st) return st;
    const std::vector<double> xt = Ticks(ax), yt = Ticks(ay);
    // Curves on the second Y axis: its own range, drawn at the right.
    cAxis* ay2 = nullptr;
    std::vector<double> y2t;
    if (anyY2) {
        ay2 = &Axes.Add(AxisKey(AxisRole::Y2));
        if (AutoScale && ay2->AutoScale)
            if (Status st = Axes.CalcAutoScale(AxisRole::Y2, data_, cols, ChartType, false); !st) return st;
        if (Status st = ValidateAxis(*ay2, 'Y', false, p.tag()); !st) return st;
        y2t = Ticks(*ay2);
    }

    // 4. Statistics box at the right (or left); the plot gives it room.
    double statsW = 0, statsH = 0;
    std::vector<double> colW;
    const Datam& st = Stats.GetArray();
    if (Stats.DoPlot && st.isArray() && Stats.TotalRows() > 0) {
        for (int c = st.colLb(); c <= st.colUb(); ++c) {
            double w = 0;
            for (int r = st.rowLb(); r <= st.rowUb(); ++r) w = std::max(w, s.TextWidth(CellText(st(r, c), "0.0000")));
            colW.push_back(w + charW);
        }
        for (double w : colW) statsW += w;
        statsH = lineH * (Stats.TotalRows() + (Stats.Title.empty() ? 0 : 1)) + lineH / 2;
    }
    // 5. Legend: one row per labelled curve.
    double legendW = 0;
    int legendRows = 0;
    if (DisplayLegend)
        for (int i = 1; i <= Series.Count(); ++i) {
            const cSeries* c = Series.Item(i);
            if (c->Hide || c->Label.empty()) continue;
            legendW = std::max(legendW, s.TextWidth(c->Label));
            ++legendRows;
        }
    if (legendRows > 0) legendW += 3 * charW;
    // A legend of long labels (fit equations) goes under the graph instead of
    // taking most of its width.
    const bool legendBelow = legendRows > 0 && legendW > 0.3 * width;

    // 6. The graph box: tick labels left of it and under it, the axis labels beyond.
    double yLabW = 0;
    for (double v : yt) yLabW = std::max(yLabW, s.TextWidth(Format(v, ay.TickFormat)));
    GraphLeft = PLotLeft + OffsetX + margin + yLabW + charW / 2;
    GraphTop = PlotTop + OffsetY + margin + TitleObj.HeightTitle + (ay.Label.empty() ? 0 : lineH) + lineH / 2;
    double y2LabW = 0;
    if (ay2) {
        for (double v : y2t) y2LabW = std::max(y2LabW, s.TextWidth(Format(v, ay2->TickFormat)));
        y2LabW += charW;
    }
    double right = PLotLeft + OffsetX + width - margin - (legendRows > 0 && !legendBelow ? legendW + margin : 0) - y2LabW;
    if (statsW > 0 && Stats.PositionHoriz == 5) right -= statsW + margin;
    if (statsW > 0 && Stats.PositionHoriz == 4) GraphLeft += statsW + margin;
    // The last X tick label is centred on the box's right edge: half of it must fit.
    if (!xt.empty()) right = std::min(right, PLotLeft + OffsetX + width - s.TextWidth(Format(xt.back(), ax.TickFormat)) / 2 - 2);
    GraphWidth = std::max(right - GraphLeft, 10.0);
    const double bottom = PlotTop + OffsetY + height - margin - lineH * (ax.Label.empty() ? 1.3 : 2.5) -
                          (legendBelow ? legendRows * lineH + lineH / 2 : 0);
    GraphHeight = std::max(bottom - GraphTop, 10.0);
    frame_ = PlotFrame{GraphLeft, GraphTop, GraphWidth, GraphHeight, ax.LowValue, ax.HighValue, ay.LowValue, ay.HighValue};

    // 7. Title.
    if (!titleLines.empty()) {
        s.Font = titleFont;
        s.ForeColor = ForeColor;
        // Centred over the graph, but kept on the chart.
        const double chartLeft = PLotLeft + OffsetX + margin / 2, chartRight = PLotLeft + OffsetX + width - margin / 2;
        TitleObj.Xo = std::clamp(GraphLeft + GraphWidth / 2 - TitleObj.WidthTitle / 2, chartLeft,
                                 std::max(chartLeft, chartRight - TitleObj.WidthTitle));
        TitleObj.Yo = PlotTop + OffsetY + margin / 2;
        double y = TitleObj.Yo;
        for (const std::string& l : titleLines) {
            const double w = s.TextWidth(l);
            s.CurrentX = std::clamp(GraphLeft + GraphWidth / 2 - w / 2, chartLeft, std::max(chartLeft, chartRight - w));
            s.CurrentY = y;
            s.Print(l);
            y += titleLineH;
        }
        s.Font = Font;
    }

    // 8. Axes: grid, box, ticks and their labels.
    Axes.LineSegmentsClear();
    s.DrawStyle = DrawStyle::Solid;
    const Color grid = RGB(225, 225, 225);
    for (double v : xt) {
        const double x = frame_.px(v);
        if (ax.PlotGridline) s.Line(x, GraphTop, x, GraphTop + GraphHeight, grid);
        s.Line(x, GraphTop + GraphHeight, x, GraphTop + GraphHeight + charW / 3, ax.Color);
        const std::string t = Format(v, ax.TickFormat);
        s.ForeColor = ax.Color;
        s.CurrentX = x - s.TextWidth(t) / 2;
        s.CurrentY = GraphTop + GraphHeight + charW / 3;
        s.Print(t);
    }
    for (double v : yt) {
        const double y = frame_.py(v);
        if (ay.PlotGridline) s.Line(GraphLeft, y, GraphLeft + GraphWidth, y, grid);
        s.Line(GraphLeft - charW / 3, y, GraphLeft, y, ay.Color);
        const std::string t = Format(v, ay.TickFormat);
        s.ForeColor = ay.Color;
        s.CurrentX = GraphLeft - charW / 2 - s.TextWidth(t);
        s.CurrentY = y - lineH / 2;
        s.Print(t);
    }
    s.DrawWidth = std::max(ax.nPenWidth, 1);
    s.Line(GraphLeft, GraphTop, GraphLeft + GraphWidth, GraphTop + GraphHeight, ForeColor, LineForm::Box);
    ax.LeftPixel = GraphLeft, ax.Top = GraphTop + GraphHeight, ax.WidthPixel = GraphWidth, ax.Height = lineH;
    ay.LeftPixel = GraphLeft - yLabW, ay.Top = GraphTop, ay.WidthPixel = yLabW, ay.Height = GraphHeight;
    s.DrawWidth = 1;
    if (!ax.Label.empty()) {
        s.ForeColor = ax.Color;
        s.CurrentX = GraphLeft + GraphWidth / 2 - s.TextWidth(ax.Label) / 2;
        s.CurrentY = GraphTop + GraphHeight + lineH * 1.3;
        s.Print(ax.Label);
    }
    if (!ay.Label.empty()) {
        s.ForeColor = ay.Color;
        s.CurrentX = std::max(PLotLeft + OffsetX + margin / 2, GraphLeft - s.TextWidth(ay.Label) / 2);
        s.CurrentY = GraphTop - lineH * 1.4;
        s.Print(ay.Label);
    }
    PlotFrame frame2 = frame_;
    if (ay2) {
        frame2.yLow = ay2->LowValue, frame2.yHigh = ay2->HighValue;
        const double xr = GraphLeft + GraphWidth;
        s.ForeColor = ay2->Color;
        for (double v : y2t) {
            const double y = frame2.py(v);
            s.Line(xr, y, xr + charW / 3, y, ay2->Color);
            s.CurrentX = xr + charW / 2;
            s.CurrentY = y - lineH / 2;
            s.Print(Format(v, ay2->TickFormat));
        }
        ay2->LeftPixel = xr, ay2->Top = GraphTop, ay2->WidthPixel = y2LabW, ay2->Height = GraphHeight;
        if (!ay2->Label.empty()) {
            s.CurrentX = std::max(GraphLeft, xr - s.TextWidth(ay2->Label) / 2);
            s.CurrentY = GraphTop - lineH * 1.4;
            s.Print(ay2->Label);
        }
    }

    // 9. Boxes under the curves, then the curves, each in its colour unless
    // it has its own.
    p.chk = 3;
    if (doBoxPlot)
        if (Status st = BoxPlotAdd(s); !st) return st;
    for (int i = 1; i <= Series.Count(); ++i) {
        cSeries* c = Series.Item(i);
        if (c->ColorFore == 0) c->ColorFore = GetPlotColors(i - 1);
        if (c->nPenWidth < LineWidthData) c->nPenWidth = LineWidthData;
        const bool onY2 = ay2 && c->Ycol < 0 && c->Y2col >= 0;
        if (Status st = c->Draw(s, data_, onY2 ? frame2 : frame_); !st) return st;
        if (CheckEscKey()) return StatusOk();
    }

    // 10. Legend, notes, statistics box.
    if (legendRows > 0) {
        LegendLeft = legendBelow ? GraphLeft : GraphLeft + GraphWidth + y2LabW + margin;
        LegendTop = legendBelow ? GraphTop + GraphHeight + lineH * (ax.Label.empty() ? 1.3 : 2.5) : GraphTop;
        LegendWidth = legendW;
        LegendHeight = legendRows * lineH;
        double y = LegendTop;
        for (int i = 1; i <= Series.Count(); ++i) {
            cSeries* c = Series.Item(i);
            if (c->Hide || c->Label.empty()) continue;
            c->LeftPixel = LegendLeft, c->Top = y, c->WidthPixel = legendW, c->Height = lineH;
            const double mid = y + lineH / 2;
            if (c->Connect) s.Line(LegendLeft, mid, LegendLeft + 2 * charW, mid, c->ColorFore);
            if (c->SymbolDisplay) c->DrawSymbol(s, LegendLeft + charW, mid, c->ColorFore);
            s.ForeColor = ForeColor;
            s.CurrentX = LegendLeft + 2.5 * charW;
            s.CurrentY = y;
            s.Print(c->Label);
            y += lineH;
        }
    }
    for (cMessage& m : Messages) m.Draw(s);
    if (statsW > 0) {
        const double left = Stats.PositionHoriz == 4 ? PLotLeft + OffsetX + margin
                                                     : PLotLeft + OffsetX + width - margin - statsW;
        const double top = GraphTop;
        Stats.PLotLeft = left, Stats.PlotTop = top, Stats.PlotWidth = statsW, Stats.PlotHeight = statsH;
        s.Line(left, top, left + statsW, top + statsH, RGB(250, 250, 250), LineForm::FilledBox);
        s.Line(left, top, left + statsW, top + statsH, Stats.Color, LineForm::Box);
        double y = top + lineH / 4;
        s.ForeColor = Stats.Color;
        if (!Stats.Title.empty()) {
            s.CurrentX = left + charW / 2;
            s.CurrentY = y;
            s.Print(Stats.Title);
            y += lineH;
        }
        for (int r = st.rowLb(); r <= st.rowUb(); ++r) {
            double x = left + charW / 2;
            for (int c = st.colLb(); c <= st.colUb(); ++c) {
                s.CurrentX = x;
                s.CurrentY = y;
                s.Print(CellText(st(r, c), "0.0000"));
                x += colW[static_cast<size_t>(c - st.colLb())];
            }
            y += lineH;
        }
    }
    s.Font = keepFont;
    return StatusOk();
}

}  // namespace zorv
