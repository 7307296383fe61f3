// The geometry of the 3D view and its axes.
#include "graphics/view3d.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "numerics/matrix.h"
#include "numerics/tickformat.h"

namespace zorv {

// ---- M3Ops ----------------------------------------------------------------------

namespace M3Ops {

Matrix4 Identity() { return {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}; }

Matrix4 Multiply(const Matrix4& a, const Matrix4& b) {
    Matrix4 m{};
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) {
            double sum = 0;
            for (int k = 0; k < 4; ++k) sum += a[static_cast<size_t>(4 * r + k)] * b[static_cast<size_t>(4 * k + c)];
            m[static_cast<size_t>(4 * r + c)] = sum;
        }
    return m;
}

Matrix4 Translate(double dx, double dy, double dz) { return {1, 0, 0, dx, 0, 1, 0, dy, 0, 0, 1, dz, 0, 0, 0, 1}; }

Matrix4 Scale(double sx, double sy, double sz) { return {sx, 0, 0, 0, 0, sy, 0, 0, 0, 0, sz, 0, 0, 0, 0, 1}; }

bool View(Matrix4& out, double eyeX, double eyeY, double eyeZ, double focusX, double focusY, double focusZ,
          double upX, double upY, double upZ) {
    // f: towards the eye (view +z); s = up x f: to the right; u = f x s.
    double fx = eyeX - focusX, fy = eyeY - focusY, fz = eyeZ - focusZ;
    const double d = std::sqrt(fx * fx + fy * fy + fz * fz);
    const double upLen = std::sqrt(upX * upX + upY * upY + upZ * upZ);
    if (!(d > 0) || !(upLen > 0) || !std::isfinite(d) || !std::isfinite(upLen)) return false;
    fx /= d, fy /= d, fz /= d;
    double sx = upY * fz - upZ * fy, sy = upZ * fx - upX * fz, sz = upX * fy - upY * fx;
    const double sLen = std::sqrt(sx * sx + sy * sy + sz * sz);
    // Up along the line of sight leaves no direction for x.
    if (!(sLen > 1e-12 * upLen)) return false;
    sx /= sLen, sy /= sLen, sz /= sLen;
    const double ux = fy * sz - fz * sy, uy = fz * sx - fx * sz, uz = fx * sy - fy * sx;
    out = {sx, sy, sz, -(sx * focusX + sy * focusY + sz * focusZ),
           ux, uy, uz, -(ux * focusX + uy * focusY + uz * focusZ),
           fx, fy, fz, -(fx * focusX + fy * focusY + fz * focusZ),
           0,  0,  0,  1};
    return true;
}

Matrix4 Perspective(double d) {
    Matrix4 m = Identity();
    m[14] = -1 / d;
    return m;
}

std::array<double, 4> Transform(const Matrix4& m, double x, double y, double z, double w) {
    return {m[0] * x + m[1] * y + m[2] * z + m[3] * w, m[4] * x + m[5] * y + m[6] * z + m[7] * w,
            m[8] * x + m[9] * y + m[10] * z + m[11] * w, m[12] * x + m[13] * y + m[14] * z + m[15] * w};
}

}  // namespace M3Ops

// ---- points and lines -----------------------------------------------------------------

PixelMap FitView(double vxMin, double vxMax, double vyMin, double vyMax, double left, double top, double width,
                 double height) {
    const double spanX = vxMax - vxMin, spanY = vyMax - vyMin;
    double scale = 0;
    if (spanX > 0) scale = width / spanX;
    if (spanY > 0) scale = scale > 0 ? std::min(scale, height / spanY) : height / spanY;
    if (!(scale > 0) || !std::isfinite(scale)) scale = 1;
    PixelMap map;
    map.scale = scale;
    map.x0 = left + width / 2 - scale * (vxMin + vxMax) / 2;
    map.y0 = top + height / 2 + scale * (vyMin + vyMax) / 2;
    return map;
}

namespace {
// Nearer than this to the eye plane (w) a point is not drawn.
constexpr double kMinW = 1e-9;
}  // namespace

void cPoint3D::Apply(const Matrix4& m, const PixelMap& map, double sx, double sy, double sz) {
    const std::array<double, 4> v = M3Ops::Transform(m, x * sx, y * sy, z * sz, w);
    xt = v[0], yt = v[1], zt = v[2], wt = v[3];
    shown = valid && wt > kMinW && std::isfinite(xt) && std::isfinite(yt);
    if (shown) {
        px = map.px(xt / wt);
        py = map.py(yt / wt);
    }
}

cPoint3D& Points3D::Add(std::string_view key, double x, double y, double z) {
    cPoint3D* p = Item(key);
    if (!p) {
        items_.emplace_back(std::string(key), cPoint3D{});
        p = &items_.back().second;
    }
    p->x = x, p->y = y, p->z = z, p->w = 1;
    p->valid = true;
    return *p;
}

cPoint3D* Points3D::Item(std::string_view key) {
    for (auto& e : items_)
        if (e.first == key) return &e.second;
    return nullptr;
}

bool Points3D::Remove(std::string_view key) {
    for (auto it = items_.begin(); it != items_.end(); ++it)
        if (it->first == key) {
            items_.erase(it);
            return true;
        }
    return false;
}

void Points3D::Apply(const Matrix4& m, const PixelMap& map) {
    for (auto& e : items_) e.second.Apply(m, map);
}

void cPolyline3d::Add(double x, double y, double z) {
    cPoint3D p;
    p.x = x, p.y = y, p.z = z;
    pts_.push_back(p);
}

void cPolyline3d::Apply(const Matrix4& m, const PixelMap& map) {
    for (cPoint3D& p : pts_) p.Apply(m, map);
}

void cPolyline3d::Draw(Surface& s, Color c) const {
    const Color keep = s.ForeColor;
    if (c != -1) s.ForeColor = c;
    std::vector<PointD> run;
    run.reserve(pts_.size());
    for (const cPoint3D& p : pts_) {
        if (p.shown) {
            run.push_back({p.px, p.py});
            continue;
        }
        if (run.size() >= 2) s.Polyline(run);
        run.clear();
    }
    if (run.size() >= 2) s.Polyline(run);
    s.ForeColor = keep;
}

// ---- colours by height -------------------------------------------------------------------

Color HeightColors::of(double z) const {
    if (bands.empty()) return 0;
    const double span = zmax - zmin;
    double t = span > 0 ? (z - zmin) / span : 0;
    t = std::clamp(t, 0.0, 1.0);
    const int n = static_cast<int>(bands.size());
    return bands[static_cast<size_t>(std::min(static_cast<int>(t * n), n - 1))];
}

Result<HeightColors> MakeHeightColors(double zmin, double zmax, int n) {
    HeightColors hc;
    hc.zmin = zmin, hc.zmax = zmax;
    n = std::max(n, 1);
    hc.bands.reserve(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k) {
        Result<Color> c = cGraphic::GetContourColor(zmin + (k + 0.5) * (zmax - zmin) / n, zmax, zmin);
        if (!c) return c.failure();
        hc.bands.push_back(*c);
    }
    return hc;
}

// ---- the grid -------------------------------------------------------------------------

void cGrid3d::SetBounds(int rows, int cols) {
    rows_ = std::max(rows, 0);
    cols_ = std::max(cols, 0);
    cPoint3D empty;
    empty.valid = empty.shown = false;
    pts_.assign(static_cast<size_t>(rows_) * static_cast<size_t>(cols_), empty);
}

namespace {
// A value cell of a grid table: numeric and not the missing mark.
bool GridValue(const Value& v, double& z) { return NumericOf(v, z) && !IsMissingTol(z); }
}  // namespace

Result<long> cGrid3d::SetPointArray(const Datam& grid) {
    Proc p("cGrid3d(SetPointArray): ");
    if (!grid.isArray() || grid.dims() != 2 || grid.rowLb() > 0 || grid.colLb() > 0)
        return p.fail("No data in surface.");
    const int r0 = std::max(grid.rowLb(), 1), c0 = std::max(grid.colLb(), 1);
    if (r0 > grid.rowUb() || c0 > grid.colUb()) return p.fail("No data in surface.");
    p.chk = 1;
    SetBounds(grid.rowUb() - r0 + 1, grid.colUb() - c0 + 1);
    std::vector<double> xs(static_cast<size_t>(cols_)), ys(static_cast<size_t>(rows_));
    std::vector<char> xok(static_cast<size_t>(cols_)), yok(static_cast<size_t>(rows_));
    for (int c = 0; c < cols_; ++c) xok[static_cast<size_t>(c)] = NumericOf(grid(0, c0 + c), xs[static_cast<size_t>(c)]);
    for (int r = 0; r < rows_; ++r) yok[static_cast<size_t>(r)] = NumericOf(grid(r0 + r, 0), ys[static_cast<size_t>(r)]);
    long n = 0;
    for (int r = 0; r < rows_; ++r) {
        if (!yok[static_cast<size_t>(r)]) continue;
        const Value* row = &grid(r0 + r, c0);
        for (int c = 0; c < cols_; ++c) {
            double z;
            if (!xok[static_cast<size_t>(c)] || !GridValue(row[c], z)) continue;
            SetPoint(r, c, xs[static_cast<size_t>(c)], ys[static_cast<size_t>(r)], z);
            ++n;
        }
    }
    return n;
}

void cGrid3d::SetPoint(int row, int col, double x, double y, double z) {
    cPoint3D& p = pts_[index(row, col)];
    p.x = x, p.y = y, p.z = z, p.w = 1;
    p.valid = true;
}

void cGrid3d::SetValue(int row, int col, double z) {
    cPoint3D& p = pts_[index(row, col)];
    p.z = z;
    p.valid = true;
}

void cGrid3d::SetScale(double sx, double sy, double sz) { sx_ = sx, sy_ = sy, sz_ = sz; }

void cGrid3d::Apply(const Matrix4& m, const PixelMap& map) {
    for (cPoint3D& p : pts_) p.Apply(m, map, sx_, sy_, sz_);
}

PixelMap cGrid3d::ApplyFull(const Matrix4& m, double left, double top, double width, double height) {
    const PixelMap unit;
    double x0 = 0, x1 = 0, y0 = 0, y1 = 0;
    bool any = false;
    for (cPoint3D& p : pts_) {
        p.Apply(m, unit, sx_, sy_, sz_);
        if (!p.shown) continue;
        const double vx = p.xt / p.wt, vy = p.yt / p.wt;
        if (!any) x0 = x1 = vx, y0 = y1 = vy, any = true;
        x0 = std::min(x0, vx), x1 = std::max(x1, vx), y0 = std::min(y0, vy), y1 = std::max(y1, vy);
    }
    const PixelMap map = FitView(x0, x1, y0, y1, left, top, width, height);
    for (cPoint3D& p : pts_)
        if (p.shown) p.px = map.px(p.xt / p.wt), p.py = map.py(p.yt / p.wt);
    return map;
}

bool cGrid3d::Draw(Surface& s, const HeightColors* colors) const {
    const Color keep = s.ForeColor;
    Color runColor = keep;
    std::vector<PointD> run;
    run.reserve(static_cast<size_t>(std::max(rows_, cols_)));
    auto flush = [&] {
        if (run.size() >= 2) {
            s.ForeColor = runColor;
            s.Polyline(run);
        }
        run.clear();
    };
    // One row or column: n points, stride apart from the first.
    auto walk = [&](size_t first, size_t stride, int n) {
        double prevZ = 0;
        for (int i = 0; i < n; ++i) {
            const cPoint3D& p = pts_[first + static_cast<size_t>(i) * stride];
            if (!p.shown) {
                flush();
                continue;
            }
            if (colors && !run.empty()) {
                const Color c = colors->of((prevZ + p.z) / 2);
                if (run.size() == 1) {
                    runColor = c;
                } else if (c != runColor) {
                    const PointD last = run.back();
                    flush();
                    run.push_back(last);
                    runColor = c;
                }
            }
            run.push_back({p.px, p.py});
            prevZ = p.z;
        }
        flush();
    };
    bool done = true;
    for (int r = 0; r < rows_ && done; ++r) {
        walk(index(r, 0), 1, cols_);
        done = !CheckEscKey();
    }
    for (int c = 0; c < cols_ && done; ++c) {
        walk(index(0, c), static_cast<size_t>(cols_), rows_);
        done = !CheckEscKey();
    }
    s.ForeColor = keep;
    return done;
}

// ---- the box and its axes -----------------------------------------------------------------

namespace {

// About five ticks over the range: 1, 2 or 5 times a power of ten.
double NiceStep(double range) {
    const double raw = range / 5;
    if (!(raw > 0) || !std::isfinite(raw)) return 0;
    const double mag = std::pow(10.0, std::floor(std::log10(raw)));
    const double n = raw / mag;
    return (n < 1.5 ? 1 : n < 3 ? 2 : n < 7 ? 5 : 10) * mag;
}

Axis3D MakeAxis(const cGraphic& g, std::string_view key, std::string_view label, double lo, double hi, bool flatOk) {
    Axis3D a;
    const cAxis* set = g.Axes.Item(key);
    a.label = set && !set->Label.empty() ? set->Label : std::string(label);
    if (set) a.color = set->Color;
    if (set && (!g.AutoScale || !set->AutoScale)) {
        a.low = set->LowValue;
        a.high = set->HighValue;
        a.step = set->TickStep();
        a.format = !set->TickFormat.empty() ? set->TickFormat : CalcTickFormat(a.step, 1).format;
        return a;
    }
    if (flatOk && hi == lo) lo -= 1, hi += 1;
    a.step = NiceStep(hi - lo);
    if (a.step > 0) {
        // Whole steps around the data; the hair keeps an end on a step there.
        lo = std::floor(lo / a.step + 1e-9) * a.step;
        hi = std::ceil(hi / a.step - 1e-9) * a.step;
    }
    a.low = lo, a.high = hi;
    a.format = CalcTickFormat(a.step > 0 ? a.step : (lo != 0 ? lo : 1), 1).format;
    return a;
}

}  // namespace

Result<Box3D> SurfaceBox(const cGraphic& g, std::string_view tag) {
    Proc p(tag);
    const Datam& t = g.DataGrid;
    double x0 = 0, x1 = 0, y0 = 0, y1 = 0, z0 = 0, z1 = 0;
    long n = 0;
    if (t.isArray() && t.dims() == 2 && t.rowLb() <= 0 && t.colLb() <= 0) {
        const int r0 = std::max(t.rowLb(), 1), c0 = std::max(t.colLb(), 1);
        for (int r = r0; r <= t.rowUb(); ++r) {
            double y;
            if (!NumericOf(t(r, 0), y)) continue;
            for (int c = c0; c <= t.colUb(); ++c) {
                double x, z;
                if (!GridValue(t(r, c), z) || !NumericOf(t(0, c), x)) continue;
                if (n++ == 0) x0 = x1 = x, y0 = y1 = y, z0 = z1 = z;
                x0 = std::min(x0, x), x1 = std::max(x1, x);
                y0 = std::min(y0, y), y1 = std::max(y1, y);
                z0 = std::min(z0, z), z1 = std::max(z1, z);
            }
        }
    }
    if (n == 0) return p.fail("No data in surface.");
    Box3D box;
    box.x = MakeAxis(g, "X", "Xaxis", x0, x1, false);
    box.y = MakeAxis(g, "Y", "yaxis", y0, y1, false);
    box.z = MakeAxis(g, "Z", "Zaxis", z0, z1, true);
    box.zmin = z0, box.zmax = z1;
    // The values are in other units than the positions: the height range is
    // drawn at half the larger of the X and Y extents.
    const double across = std::max(box.x.high - box.x.low, box.y.high - box.y.low);
    const double zspan = box.z.high - box.z.low;
    box.zscale = zspan > 0 && across > 0 ? 0.5 * across / zspan : 1;
    return box;
}

Area3D ViewArea(const cGraphic& g, Surface& s) {
    Area3D a;
    a.left = g.PLotLeft + g.OffsetX;
    a.top = g.PlotTop + g.OffsetY;
    a.width = g.PlotWidth > 0 ? std::min(g.PlotWidth, s.ScaleWidth() - g.PLotLeft) : s.ScaleWidth() - a.left;
    a.height = g.PlotHeight > 0 ? std::min(g.PlotHeight, s.ScaleHeight() - g.PlotTop) : s.ScaleHeight() - a.top;
    if (!g.TitleObj.TitleString.empty()) {
        const FontSpec keep = s.Font;
        s.Font = g.TitleObj.Font;
        const double h = s.TextHeight(g.TitleObj.TitleString) * 1.5;
        s.Font = keep;
        a.top += h;
        a.height -= h;
    }
    a.width = std::max(a.width, 10.0);
    a.height = std::max(a.height, 10.0);
    return a;
}

namespace {

// Where the axes go: X and Y along the bottom edges on the eye's side, Z up
// the other end of the X axis; ticks of length t (model units) point out of
// the box, tick labels at 2.5 t, axis labels at 5 t (Z's above its top).
struct AxesLayout {
    double t = 0, zs = 1, zl = 0, zh = 0;
    double ySide = 1, xSide = 1, yF = 0, xF = 0, xB = 0;
    struct P3 {
        double x, y, z;
    };
    // A point of axis k (0 X, 1 Y, 2 Z) at value v, moved out by `out` ticks.
    P3 at(int k, double v, double out) const {
        switch (k) {
            case 0: return {v, yF + ySide * t * out, zl};
            case 1: return {xF + xSide * t * out, v, zl};
            default: return {xB - xSide * t * out * 0.7, yF + ySide * t * out * 0.7, v * zs};
        }
    }
    P3 labelAt(int k, const Box3D& box) const {
        switch (k) {
            case 0: return at(0, (box.x.low + box.x.high) / 2, 5);
            case 1: return at(1, (box.y.low + box.y.high) / 2, 5);
            default: return {xB, yF, zh + 2 * t};
        }
    }
};

AxesLayout Layout(const cGraphic& g, const Box3D& box) {
    AxesLayout l;
    l.zs = box.zscale;
    l.zl = box.z.low * l.zs, l.zh = box.z.high * l.zs;
    l.t = 0.04 * std::max(box.x.high - box.x.low, box.y.high - box.y.low);
    l.ySide = std::sin(g.ViewTheta) >= 0 ? 1 : -1;
    l.xSide = std::cos(g.ViewTheta) >= 0 ? 1 : -1;
    l.yF = l.ySide > 0 ? box.y.high : box.y.low;
    l.xF = l.xSide > 0 ? box.x.high : box.x.low;
    l.xB = l.xSide > 0 ? box.x.low : box.x.high;
    return l;
}

const Axis3D& AxisOf(const Box3D& box, int k) { return k == 0 ? box.x : k == 1 ? box.y : box.z; }

// low, low + step, ... up to high.
template <class F>
void ForTicks(const Axis3D& a, F&& f) {
    if (!(a.step > 0)) return;
    for (int i = 0; i <= static_cast<int>(kMaxTicks); ++i) {
        const double v = a.low + i * a.step;
        if (v > a.high + a.step * 1e-6) break;
        f(std::fabs(v) < a.step * 1e-9 ? 0.0 : v);
    }
}

// Text centred on a point.
void PrintAt(Surface& s, const cPoint3D& p, const std::string& text) {
    if (!p.shown || text.empty()) return;
    s.CurrentX = p.px - s.TextWidth(text) / 2;
    s.CurrentY = p.py - s.TextHeight(text) / 2;
    s.Print(text);
}

}  // namespace

PixelMap FitBox(const cGraphic& g, Surface& s, const Box3D& box, const Area3D& area) {
    // The box's corners and the label anchors, projected; the labels are
    // centred on their anchors, so half the widest label and half a line
    // are kept free around them.
    const AxesLayout l = Layout(g, box);
    std::vector<AxesLayout::P3> pts;
    for (int i = 0; i < 8; ++i)
        pts.push_back({i & 1 ? box.x.high : box.x.low, i & 2 ? box.y.high : box.y.low, i & 4 ? l.zh : l.zl});
    const FontSpec keep = s.Font;
    s.Font = g.Font;
    double wide = 0;
    for (int k = 0; k < 3; ++k) {
        const Axis3D& a = AxisOf(box, k);
        pts.push_back(l.at(k, a.low, 2.5));
        pts.push_back(l.at(k, a.high, 2.5));
        pts.push_back(l.labelAt(k, box));
        wide = std::max({wide, s.TextWidth(Format(a.low, a.format)), s.TextWidth(Format(a.high, a.format)),
                         s.TextWidth(a.label)});
    }
    const double mx = std::min(wide / 2 + 2, area.width / 4);
    const double my = std::min(s.TextHeight("Yy") / 2 + 2, area.height / 4);
    s.Font = keep;
    double x0 = 0, x1 = 0, y0 = 0, y1 = 0;
    bool any = false;
    for (const AxesLayout::P3& p : pts) {
        const std::array<double, 4> v = M3Ops::Transform(g.Projection, p.x, p.y, p.z);
        if (!(v[3] > kMinW)) continue;
        const double vx = v[0] / v[3], vy = v[1] / v[3];
        if (!any) x0 = x1 = vx, y0 = y1 = vy, any = true;
        x0 = std::min(x0, vx), x1 = std::max(x1, vx), y0 = std::min(y0, vy), y1 = std::max(y1, vy);
    }
    return FitView(x0, x1, y0, y1, area.left + mx, area.top + my, std::max(area.width - 2 * mx, 10.0),
                   std::max(area.height - 2 * my, 10.0));
}

Status DrawAxes3D(cGraphic& g, Surface& s, const Box3D& box, const PixelMap& map) {
    Proc p("cGraphic(DrawAxes3D): ");
    p.chk = 1;
    const char names[] = {'X', 'Y', 'Z'};
    for (int k = 0; k < 3; ++k) {
        const Axis3D& a = AxisOf(box, k);
        cAxis check;
        check.LowValue = static_cast<float>(a.low);
        check.HighValue = static_cast<float>(a.high);
        check.TickInterval = static_cast<float>(a.step);
        if (Status st = ValidateAxis(check, names[k], true, p.tag()); !st) return st;
    }
    p.chk = 2;
    const Matrix4& m = g.Projection;
    const AxesLayout l = Layout(g, box);
    const FontSpec keepFont = s.Font;
    const Color keepColor = s.ForeColor;
    const int keepWidth = s.DrawWidth;
    s.Font = g.Font;
    const double lineH = s.TextHeight("Yy");

    cPolyline3d line;
    cPoint3D a, b, lab;
    auto place = [&](cPoint3D& q, const AxesLayout::P3& at) {
        q.x = at.x, q.y = at.y, q.z = at.z;
        q.Apply(m, map);
    };
    Points3D labels;
    for (int k = 0; k < 3; ++k) {
        const Axis3D& ax = AxisOf(box, k);
        const Color c = ax.color >= 0 ? ax.color : g.ForeColor;
        line.Clear();
        const AxesLayout::P3 p0 = l.at(k, ax.low, 0), p1 = l.at(k, ax.high, 0);
        line.Add(p0.x, p0.y, p0.z);
        line.Add(p1.x, p1.y, p1.z);
        line.Apply(m, map);
        s.DrawWidth = 1;
        line.Draw(s, c);
        // An axis seen end on (Z from straight above) would pile its labels up.
        const cPoint3D &e0 = line.Point(0), &e1 = line.Point(1);
        if (!e0.shown || !e1.shown || std::hypot(e1.px - e0.px, e1.py - e0.py) < 2 * lineH) continue;
        s.ForeColor = c;
        ForTicks(ax, [&](double v) {
            place(a, l.at(k, v, 0));
            place(b, l.at(k, v, 1));
            place(lab, l.at(k, v, 2.5));
            if (a.shown && b.shown) s.Line(a.px, a.py, b.px, b.py, c);
            PrintAt(s, lab, Format(v, ax.format));
        });
        const AxesLayout::P3 at = l.labelAt(k, box);
        labels.Add(ax.label, at.x, at.y, at.z);
        labels.Apply(m, map);
        PrintAt(s, *labels.Item(ax.label), ax.label);
    }
    s.Font = keepFont;
    s.ForeColor = keepColor;
    s.DrawWidth = keepWidth;
    return StatusOk();
}

Result<View3D> DrawFieldAxes3D(cGraphic& g, Surface& s) {
    Proc p("cGraphic(DrawFieldAxes3D): ");
    p.chk = 1;
    Result<Box3D> box = SurfaceBox(g, p.tag());
    if (!box) return box.failure();
    p.chk = 2;
    View3D view;
    view.box = *box;
    view.map = FitBox(g, s, view.box, ViewArea(g, s));
    if (Status st = DrawAxes3D(g, s, view.box, view.map); !st) return st.failure();
    return view;
}

}  // namespace zorv
