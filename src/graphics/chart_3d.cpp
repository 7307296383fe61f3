// The chart's 3D surface: its view transform and its drawing.
#include <algorithm>
#include <cmath>

#include "graphics/chart.h"
#include "graphics/view3d.h"

namespace zorv {

Status cGraphic::SetProjection() {
    Proc p("cGraphic(SetProjection): ");
    // The model is centred on the surface's box, so the focus is relative to
    // the middle of the surface. Without a surface nothing is moved.
    p.chk = 1;
    double cx = 0, cy = 0, cz = 0, reach = 0;
    if (Result<Box3D> box = SurfaceBox(*this, p.tag()); box) {
        cx = box->cx(), cy = box->cy(), cz = box->cz();
        for (int i = 0; i < 8; ++i) {
            const double dx = (i & 1 ? box->x.high : box->x.low) - cx - FocusX;
            const double dy = (i & 2 ? box->y.high : box->y.low) - cy - FocusY;
            const double dz = (i & 4 ? box->z.high : box->z.low) * box->zscale - cz - FocusZ;
            reach = std::max(reach, std::sqrt(dx * dx + dy * dy + dz * dz));
        }
    } else if (!(ViewR > 0)) {
        return box.failure();
    }
    // ViewR 0: three times the box's farthest corner from the focus, which
    // keeps the whole box in front of the eye with a mild perspective.
    p.chk = 2;
    const double r = ViewR > 0 ? ViewR : (reach > 0 ? 3 * reach : 1);
    const double st = std::sin(ViewTheta), ct = std::cos(ViewTheta), sp = std::sin(ViewPhi), cp = std::cos(ViewPhi);
    const double ex = FocusX + r * sp * ct, ey = FocusY + r * sp * st, ez = FocusZ + r * cp;
    Matrix4 view;
    if (!M3Ops::View(view, ex, ey, ez, FocusX, FocusY, FocusZ, Xup, Yup, Zup)) {
        // Looking along the up direction (straight from above): up becomes
        // the direction in which ViewPhi shrinks, the limit of the views
        // next to this one.
        if (!M3Ops::View(view, ex, ey, ez, FocusX, FocusY, FocusZ, -cp * ct, -cp * st, sp))
            return p.fail("The view direction is undefined.");
    }
    p.chk = 3;
    const Matrix4 placed = M3Ops::Multiply(M3Ops::Scale(1, 1, 1), M3Ops::Translate(-cx, -cy, -cz));
    Projection = M3Ops::Multiply(view, placed);
    if (Perspective) Projection = M3Ops::Multiply(M3Ops::Perspective(r), Projection);
    return StatusOk();
}

Status cGraphic::Draw3d() {
    Proc p("cGraphic(Draw3d): ");
    if (!surface_) return p.fail("Graph Container was not specified.");
    Surface& s = *surface_;
    p.chk = 1;
    if (Status st = SetProjection(); !st) return st;

    // The axes lay out the box in the chart's area; the grid shares their map.
    p.chk = 2;
    Result<View3D> view = DrawFieldAxes3D(*this, s);
    if (!view) return view.failure();
    p.chk = 3;
    cGrid3d grid;
    if (Result<long> n = grid.SetPointArray(DataGrid); !n) return n.failure();
    grid.SetScale(1, 1, view->box.zscale);
    grid.Apply(Projection, view->map);
    // Colours over the surface's own heights (a flat one: over its axis).
    const Box3D& box = view->box;
    const bool flat = !(box.zmax > box.zmin);
    Result<HeightColors> colors = MakeHeightColors(flat ? box.z.low : box.zmin, flat ? box.z.high : box.zmax);
    if (!colors) return colors.failure();
    p.chk = 4;
    const int keepWidth = s.DrawWidth;
    s.DrawWidth = std::max(LineWidthData, 1);
    const bool done = grid.Draw(s, &*colors);
    s.DrawWidth = keepWidth;
    if (!done) return StatusOk();

    p.chk = 5;
    if (!TitleObj.TitleString.empty()) {
        const FontSpec keep = s.Font;
        const Area3D area = ViewArea(*this, s);
        s.Font = TitleObj.Font;
        TitleObj.parent = this;
        TitleObj.WidthTitle = s.TextWidth(TitleObj.TitleString);
        TitleObj.HeightTitle = s.TextHeight(TitleObj.TitleString);
        TitleObj.Xo = area.left + area.width / 2 - TitleObj.WidthTitle / 2;
        TitleObj.Yo = PlotTop + OffsetY + TitleObj.HeightTitle / 4;
        s.ForeColor = ForeColor;
        s.CurrentX = TitleObj.Xo;
        s.CurrentY = TitleObj.Yo;
        s.Print(TitleObj.TitleString);
        s.Font = keep;
    }
    return StatusOk();
}

}  // namespace zorv
