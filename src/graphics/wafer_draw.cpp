#include "graphics/wafer_draw.h"

#include <algorithm>
#include <cmath>

#include "graphics/chart.h"
#include "lot/lot.h"

namespace zorv {

namespace {

// The chart's area on the surface, as PlotChart takes it.
void Area(const cGraphic& g, Surface& s, double& left, double& top, double& width, double& height) {
    left = g.PLotLeft + g.OffsetX;
    top = g.PlotTop + g.OffsetY;
    width = g.PlotWidth > 0 ? std::min(g.PlotWidth, s.ScaleWidth() - g.PLotLeft) : s.ScaleWidth() - left;
    height = g.PlotHeight > 0 ? std::min(g.PlotHeight, s.ScaleHeight() - g.PlotTop) : s.ScaleHeight() - top;
}

MapPlacement Place(cGraphic& chart, Surface& s, const MapMargins& m, double spanX, double spanY) {
    double left, top, width, height;
    Area(chart, s, left, top, width, height);
    const double w = std::max(width - m.left - m.right, 10.0), h = std::max(height - m.top - m.bottom, 10.0);
    MapPlacement at;
    at.um2pixels = spanX > 0 && spanY > 0 ? std::min(w / spanX, h / spanY) : 0;
    at.cx = left + m.left + w / 2;
    at.cy = top + m.top + h / 2;
    if (at.um2pixels > 0) {
        // Values under the mouse in millimetres.
        const double hx = w / 2 / at.um2pixels / 1000, hy = h / 2 / at.um2pixels / 1000;
        chart.Frame(PlotFrame{left + m.left, top + m.top, w, h, -hx, hx, -hy, hy});
    }
    return at;
}

}  // namespace

cWafer* MapWafer(const cGraphic& chart, const cLot& lot) {
    for (const std::string* key : {&chart.WaferKey, &lot.CurrentWaferKey}) {
        if (key->empty()) continue;
        cWafer* w = lot.Wafers().Item(*key);
        if (w && !w->cull()) return w;
    }
    for (cWafer* w : lot.Wafers())
        if (!w->cull()) return w;
    return nullptr;
}

const cField* MapField(const cGraphic& chart, const cLot& lot, const cWafer& wafer) {
    for (const std::string* key : {&chart.FieldKey, &lot.CurrentFieldKey}) {
        if (key->empty()) continue;
        const cField* f = wafer.Fields().ByKey(*key);
        if (f && !f->cull()) return f;
    }
    for (const cField* f : wafer.Fields())
        if (!f->cull()) return f;
    return nullptr;
}

MapPlacement PlaceWafer(cGraphic& chart, cLot& lot, Surface& s, const MapMargins& m) {
    // A little air around the outline for the notch.
    const double span = double(lot.WaferSize) * 1.04;
    const MapPlacement at = Place(chart, s, m, span, span);
    lot.um2pixels = at.um2pixels;
    lot.wcenx = at.cx;
    lot.wceny = at.cy;
    return at;
}

MapPlacement PlaceField(cGraphic& chart, cLot& lot, Surface& s, const MapMargins& m) {
    const MapPlacement at = Place(chart, s, m, double(lot.DieSizeX) * 1.04, double(lot.DieSizeY) * 1.04);
    lot.um2pixels = at.um2pixels;
    lot.wcenx = at.cx;
    lot.wceny = at.cy;
    return at;
}

Status DrawWafer(const cLot& lot, Surface& s, const MapPlacement& at, const WaferDrawFlags& flags) {
    Proc p("cLot(DrawWafer) :");
    if (!(lot.WaferSize > 0)) return p.fail("The lot has no wafer size.");
    if (!(at.um2pixels > 0)) return p.fail("The wafer has no place on the plot.");
    const double r = lot.WaferSize / 2.0;
    const double rp = r * at.um2pixels;
    p.chk = 1;
    if (flags.dieGrid && lot.DieSizeX > 0 && lot.DieSizeY > 0) {
        // Field edges: the array origin plus whole steps, each clipped to the circle.
        const double gx = double(lot.DieXarray) * lot.DieSizeX + lot.DieXoffset;
        const double gy = double(lot.DieYarray) * lot.DieSizeY + lot.DieYoffset;
        const double sx = lot.DieSizeX, sy = lot.DieSizeY;
        const int kx = static_cast<int>(std::ceil(r / sx)) + 1, ky = static_cast<int>(std::ceil(r / sy)) + 1;
        const double kx0 = std::floor(gx / sx), ky0 = std::floor(gy / sy);
        for (int k = -kx; k <= kx; ++k) {
            const double x = gx - kx0 * sx + k * sx;
            if (std::fabs(x) >= r) continue;
            const double h = std::sqrt(r * r - x * x);
            s.Line(at.px(x), at.py(-h), at.px(x), at.py(h), flags.gridColor);
        }
        for (int k = -ky; k <= ky; ++k) {
            const double y = gy - ky0 * sy + k * sy;
            if (std::fabs(y) >= r) continue;
            const double h = std::sqrt(r * r - y * y);
            s.Line(at.px(-h), at.py(y), at.px(h), at.py(y), flags.gridColor);
        }
    }
    if (flags.outline) {
        const Color keep = s.FillColor;
        const FillStyle keepFill = s.FillStyle;
        s.FillStyle = FillStyle::Transparent;
        s.Circle(at.cx, at.cy, rp, flags.outlineColor);
        s.FillStyle = keepFill;
        s.FillColor = keep;
    }
    if (flags.notch) {
        // A small V cut into the edge where the notch angle points.
        const double a = lot.Notch, depth = std::max(rp * 0.03, 4.0), half = std::max(rp * 0.025, 3.0);
        const double ex = at.cx + rp * std::cos(a), ey = at.cy - rp * std::sin(a);
        const double ix = at.cx + (rp - depth) * std::cos(a), iy = at.cy - (rp - depth) * std::sin(a);
        const double tx = -std::sin(a), ty = -std::cos(a);  // along the edge, in pixels
        s.Line(ex + tx * half, ey + ty * half, ix, iy, flags.outlineColor);
        s.Line(ix, iy, ex - tx * half, ey - ty * half, flags.outlineColor);
    }
    return StatusOk();
}

}  // namespace zorv
