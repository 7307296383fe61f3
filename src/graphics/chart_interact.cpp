// What a chart answers after it is drawn: data values under the mouse, the
// element there, zooming to a box and back, and X and Y exchanged.
#include <algorithm>
#include <cmath>
#include <utility>

#include "base/report.h"
#include "graphics/chart.h"
#include "numerics/matrix.h"

namespace zorv {

PointD cGraphic::GetXYvalues(double px, double py) const {
    const PlotFrame& f = frame_;
    if (f.width <= 0 || f.height <= 0) return {};
    return {f.xLow + (px - f.left) / f.width * (f.xHigh - f.xLow),
            f.yLow + (f.top + f.height - py) / f.height * (f.yHigh - f.yLow)};
}

Status cGraphic::ReScale(const Datam& box) {
    Proc p("cGraphic(ReScaleGraph): ");
    std::vector<double> v;
    if (box.isArray())
        for (int r = std::max(box.rowLb(), 1); r <= box.rowUb() && v.size() < 4; ++r) {
            double x;
            if (NumericOf(box.dims() == 1 ? box.at(r) : box.get(r, VecCol(box)), x)) v.push_back(x);
        }
    if (v.size() < 4) return p.fail("Box array for rescale not provided.");
    SetStatusText("Rescale graph...");
    const PointD a = GetXYvalues(v[0], v[1]), b = GetXYvalues(v[2], v[3]);
    p.chk = 1;
    if (a.x == b.x || a.y == b.y) return Proc("cGRaphic(ReScaleAxes): ").fail("Box array for rescale not provided.");
    cAxis& x = Axes.Add("X");
    cAxis& y = Axes.Add("Y");
    x.LowValue = static_cast<float>(std::min(a.x, b.x));
    x.HighValue = static_cast<float>(std::max(a.x, b.x));
    y.LowValue = static_cast<float>(std::min(a.y, b.y));
    y.HighValue = static_cast<float>(std::max(a.y, b.y));
    // Ticks for the box: ten or so across it.
    x.UnitsPerTick = (x.HighValue - x.LowValue) / 9;
    y.UnitsPerTick = (y.HighValue - y.LowValue) / 9;
    x.AutoScale = y.AutoScale = false;
    SetStatusText("Done");
    return StatusOk();
}

void cGraphic::ResetAutosize() {
    for (int i = 1; i <= Axes.Count(); ++i) Axes.Item(i)->AutoScale = true;
    Axes.Reset();
}

void cGraphic::SwapAxes() {
    for (int i = 1; i <= Series.Count(); ++i) {
        cSeries* c = Series.Item(i);
        std::swap(c->Xcol, c->Ycol);
    }
    cAxis& x = Axes.Add("X");
    cAxis& y = Axes.Add("Y");
    std::swap(x, y);
}

cGraphic::ChartElement cGraphic::GetChartElement(double px, double py) const {
    ChartElement e;
    // A point first: within a symbol's reach.
    for (int i = 1; i <= Series.Count(); ++i) {
        const cSeries* c = Series.Item(i);
        if (c->Hide) continue;
        double xv = 0, yv = 0;
        if (const int k = c->NearestElement(px, py, std::max(c->SymbolSize, 4.0), &xv, &yv)) {
            e.kind = ChartElement::Point;
            e.series = i;
            e.point = k;
            e.x = xv;
            e.y = yv;
            return e;
        }
    }
    for (int i = 1; i <= Series.Count(); ++i) {
        const cSeries* c = Series.Item(i);
        if (c->WidthPixel > 0 && px >= c->LeftPixel && px <= c->LeftPixel + c->WidthPixel && py >= c->Top &&
            py <= c->Top + c->Height) {
            e.kind = ChartElement::Legend;
            e.series = i;
            return e;
        }
    }
    const PlotFrame& f = frame_;
    if (px >= f.left && px <= f.left + f.width && py >= f.top && py <= f.top + f.height) {
        e.kind = ChartElement::Plot;
        const PointD v = GetXYvalues(px, py);
        e.x = v.x;
        e.y = v.y;
        return e;
    }
    if (px >= f.left && px <= f.left + f.width && py > f.top + f.height && py <= f.top + f.height + 3 * f.height / 10)
        e.kind = ChartElement::XAxis;
    else if (py >= f.top && py <= f.top + f.height && px < f.left && px >= GraphLeft - f.width / 5)
        e.kind = ChartElement::YAxis;
    return e;
}

}  // namespace zorv
