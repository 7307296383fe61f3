#include "graphics/series.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/marks.h"
#include "base/report.h"
#include "numerics/matrix.h"

namespace zorv {

namespace {

// A curve with more symbols than this draws one at each pixel only.
constexpr size_t kDenseSymbols = 20000;

// The surface's drawing state, back as it was when a curve is done.
class StateGuard {
public:
    explicit StateGuard(Surface& s)
        : s_(s), fore_(s.ForeColor), fillColor_(s.FillColor), width_(s.DrawWidth), fill_(s.FillStyle),
          style_(s.DrawStyle) {}
    ~StateGuard() {
        s_.ForeColor = fore_;
        s_.FillColor = fillColor_;
        s_.DrawWidth = width_;
        s_.FillStyle = fill_;
        s_.DrawStyle = style_;
    }
    StateGuard(const StateGuard&) = delete;
    StateGuard& operator=(const StateGuard&) = delete;

private:
    Surface& s_;
    Color fore_, fillColor_;
    int width_;
    FillStyle fill_;
    DrawStyle style_;
};

// A numeric cell that is a measurement: not empty, not text, not the mark.
bool ValueOf(const Datam& t, int r, int c, double& v) {
    if (c < t.colLb() || c > t.colUb()) return false;
    const Value& cell = t(r, c);
    if (IsBlank(cell) || !NumericOf(cell, v)) return false;
    return !IsMissingTol(v);
}

// The variable a function curve is a function of: the first name its text
// uses other than the constants.
std::string FunctionVariable(const clsEquation& eq) {
    const Datam names = eq.GetmvarVarNames();
    if (!names.isArray()) return "x";
    for (int r = names.rowLb(); r <= names.rowUb(); ++r) {
        const std::string n = names(r, VecCol(names)).toString();
        if (!n.empty() && n != "pi" && n != "e" && n != "rnd") return n;
    }
    return "x";
}

}  // namespace

bool PlotFrame::Clip(PointD& a, PointD& b) const {
    const double dx = b.x - a.x, dy = b.y - a.y;
    double t0 = 0, t1 = 1;
    const double pq[4][2] = {{-dx, a.x - left}, {dx, left + width - a.x}, {-dy, a.y - top}, {dy, top + height - a.y}};
    for (const auto& [p, q] : pq) {
        if (p == 0) {
            if (q < 0) return false;
            continue;
        }
        const double r = q / p;
        if (p < 0) t0 = std::max(t0, r);
        else t1 = std::min(t1, r);
        if (t0 > t1) return false;
    }
    const PointD a0 = a;
    a = {a0.x + t0 * dx, a0.y + t0 * dy};
    b = {a0.x + t1 * dx, a0.y + t1 * dy};
    return true;
}

Status cSeries::Draw(Surface& s, const Datam& chartTable, const PlotFrame& frame) {
    Proc p("cSeries(Draw): ");
    elements_.clear();
    zvals_.clear();
    if (Hide) return StatusOk();
    SetStatusText("Curve setup '" + Label);
    if (frame.xHigh == frame.xLow || frame.yHigh == frame.yLow) return p.fail("Axis range of curve '" + Label + "' is empty.");
    StateGuard keep(s);
    s.DrawWidth = nPenWidth;
    s.ForeColor = ColorFore;
    SetStatusText("Plotting curve '" + Label);

    struct Pt {
        double x, y, xv, yv;
        int row;
    };
    std::vector<Pt> pts;
    const bool function = SeriesType == 1 || IsFunction();
    if (function) {
        // A function curve with no text has nothing to draw.
        if (!IsFunction() || Evaluations < 2) return StatusOk();
        double lo = DisplayFunctionXlow, hi = DisplayFunctionXhigh;
        if (lo == 0 && hi == 0) lo = frame.xLow, hi = frame.xHigh;
        clsEquation& eq = DisplayFunction;
        const int slot = eq.VarSlot(FunctionVariable(eq));
        pts.reserve(static_cast<size_t>(Evaluations));
        for (int i = 0; i < Evaluations; ++i) {
            const double x = lo + (hi - lo) * i / (Evaluations - 1);
            eq.SetSlot(slot, x);
            if (!eq.Solve()) continue;
            const double y = eq.LastValue();
            if (!std::isfinite(y)) continue;
            pts.push_back({frame.px(x), frame.py(y), x, y, 0});
        }
    } else {
        const Datam& t = Source(chartTable);
        if (!t.isArray() || t.dims() != 2) return StatusOk();
        const int yc = Ycol >= 0 ? Ycol : Y2col;
        pts.reserve(static_cast<size_t>(std::max(t.rowUb() - FirstData(t, 1) + 1, 0)));
        for (int r = FirstData(t, 1); r <= t.rowUb(); ++r) {
            double x, y;
            if (!ValueOf(t, r, Xcol, x) || !ValueOf(t, r, yc, y)) continue;
            pts.push_back({frame.px(x), frame.py(y), x, y, r});
        }
    }
    const Datam& t = Source(chartTable);
    if (Connect && pts.size() > 1) {
        // Joined within the graph box: each segment clipped to it, runs of
        // joined segments drawn as one line, in the curve's dash pattern.
        s.DrawStyle = LineType >= 0 && LineType <= static_cast<int>(DrawStyle::DashDotDot) ? static_cast<DrawStyle>(LineType)
                                                                                           : DrawStyle::Solid;
        std::vector<PointD> run;
        for (size_t i = 1; i < pts.size(); ++i) {
            PointD a{pts[i - 1].x, pts[i - 1].y}, b{pts[i].x, pts[i].y};
            const bool aWhole = frame.Inside(a);
            if (!frame.Clip(a, b)) {
                if (run.size() > 1) s.Polyline(run);
                run.clear();
                continue;
            }
            if (!aWhole && run.size() > 1) {
                s.Polyline(run);
                run.clear();
            }
            if (run.empty()) run.push_back(a);
            run.push_back(b);
            if (!frame.Inside({pts[i].x, pts[i].y})) {
                if (run.size() > 1) s.Polyline(run);
                run.clear();
            }
        }
        if (run.size() > 1) s.Polyline(run);
        s.DrawStyle = DrawStyle::Solid;  // symbols and error bars stay whole
    }
    // Symbols and error bars only where the point lies in the box.
    std::erase_if(pts, [&](const Pt& q) { return !frame.Inside({q.x, q.y}); });
    // Error bars: lower and upper error columns, with a cap of the symbol's width.
    if (!function && (YerrCol1 >= 0 || YerrCol2 >= 0)) {
        const double cap = SymbolSize / 2;
        for (const Pt& q : pts) {
            if (!frame.Inside({q.x, q.y})) continue;
            double lo = 0, hi = 0;
            const bool hasLo = ValueOf(t, q.row, YerrCol1, lo), hasHi = ValueOf(t, q.row, YerrCol2, hi);
            if (!hasLo && !hasHi) continue;
            if (!hasLo) lo = hi;
            if (!hasHi) hi = lo;
            const double y1 = frame.py(q.yv - std::fabs(lo)), y2 = frame.py(q.yv + std::fabs(hi));
            // Within the box: the bar cut at its edges, a cap only where its end is inside.
            PointD a{q.x, y1}, b{q.x, y2};
            if (!frame.Clip(a, b)) continue;
            s.Line(a.x, a.y, b.x, b.y, ColorFore);
            if (frame.Inside({q.x, y1})) s.Line(q.x - cap, y1, q.x + cap, y1, ColorFore);
            if (frame.Inside({q.x, y2})) s.Line(q.x - cap, y2, q.x + cap, y2, ColorFore);
        }
    }
    if (SymbolDisplay && Symbol != SymbolShape::None && !function) {
        // A cloud of a million points covers each pixel many times over: a
        // symbol of one colour at a pixel already drawn adds nothing.
        const bool oneColour = ColorCol < 0;
        const bool dense = oneColour && pts.size() > kDenseSymbols;
        const long x0 = std::lround(frame.left), y0 = std::lround(frame.top);
        const long w = std::lround(frame.width) + 2, h = std::lround(frame.height) + 2;
        std::vector<bool> drawn(dense && w > 0 && h > 0 ? static_cast<size_t>(w * h) : 0);
        for (const Pt& q : pts) {
            if (!drawn.empty()) {
                const long x = std::lround(q.x) - x0, y = std::lround(q.y) - y0;
                if (x >= 0 && x < w && y >= 0 && y < h) {
                    auto cell = drawn[static_cast<size_t>(y * w + x)];
                    if (cell) continue;
                    cell = true;
                }
            }
            Color c = ColorFore;
            double v;
            if (!oneColour && ValueOf(t, q.row, ColorCol, v)) c = static_cast<Color>(v);
            DrawSymbol(s, q.x, q.y, c);
        }
    }
    // The element table, for finding a point under the mouse.
    elements_.reserve(pts.size());
    for (const Pt& q : pts) elements_.push_back({static_cast<float>(q.x), static_cast<float>(q.y), q.xv, q.yv});
    if (!function && Y2col >= 0 && Ycol >= 0) {
        zvals_.reserve(pts.size());
        for (const Pt& q : pts) {
            double z = 0;
            zvals_.push_back(ValueOf(t, q.row, Y2col, z) ? z : std::numeric_limits<double>::quiet_NaN());
        }
    }
    return StatusOk();
}

Datam cSeries::Elements() const {
    Datam e(static_cast<int>(elements_.size()), 6, 0, 1);
    const char* heads[] = {"Xp", "Yp", "Xval", "Yval", "Zval", "Xlabel"};
    for (int c = 0; c < 6; ++c) e(0, c + 1) = Value(heads[c]);
    for (size_t i = 0; i < elements_.size(); ++i) {
        const Element& x = elements_[i];
        const int r = static_cast<int>(i) + 1;
        e(r, 1) = Value(double(x.xp));
        e(r, 2) = Value(double(x.yp));
        e(r, 3) = Value(x.xv);
        e(r, 4) = Value(x.yv);
        if (i < zvals_.size() && !std::isnan(zvals_[i])) e(r, 5) = Value(zvals_[i]);
        e(r, 6) = Value(Label);
    }
    return e;
}

int cSeries::NearestElement(double px, double py, double reach, double* xv, double* yv) const {
    int best = 0;
    double bestD = reach * reach;
    for (size_t i = 0; i < elements_.size(); ++i) {
        const double dx = elements_[i].xp - px, dy = elements_[i].yp - py, d = dx * dx + dy * dy;
        if (d <= bestD) {
            bestD = d;
            best = static_cast<int>(i) + 1;
        }
    }
    if (best) {
        if (xv) *xv = elements_[static_cast<size_t>(best - 1)].xv;
        if (yv) *yv = elements_[static_cast<size_t>(best - 1)].yv;
    }
    return best;
}

void cSeries::DrawSymbol(Surface& s, double x, double y, Color c) const {
    StateGuard keep(s);
    const double h = SymbolSize / 2;
    s.ForeColor = c;
    s.FillStyle = FillStyle::Transparent;
    switch (Symbol) {
        case SymbolShape::None: break;
        case SymbolShape::Circle: s.Circle(x, y, h, c); break;
        case SymbolShape::FilledCircle:
            s.FillStyle = FillStyle::Solid;
            s.FillColor = c;
            s.Circle(x, y, h, c);
            break;
        case SymbolShape::Square: s.Line(x - h, y - h, x + h, y + h, c, LineForm::Box); break;
        case SymbolShape::FilledSquare: s.Line(x - h, y - h, x + h, y + h, c, LineForm::FilledBox); break;
        case SymbolShape::Diamond: s.Polygon({{x, y - h}, {x + h, y}, {x, y + h}, {x - h, y}}); break;
        case SymbolShape::TriangleUp: s.Polygon({{x, y - h}, {x + h, y + h}, {x - h, y + h}}); break;
        case SymbolShape::TriangleDown: s.Polygon({{x - h, y - h}, {x + h, y - h}, {x, y + h}}); break;
        case SymbolShape::Plus:
            s.Line(x - h, y, x + h, y, c);
            s.Line(x, y - h, x, y + h, c);
            break;
        case SymbolShape::Cross:
            s.Line(x - h, y - h, x + h, y + h, c);
            s.Line(x - h, y + h, x + h, y - h, c);
            break;
        case SymbolShape::Star:
            s.Line(x - h, y, x + h, y, c);
            s.Line(x, y - h, x, y + h, c);
            s.Line(x - h * 0.7, y - h * 0.7, x + h * 0.7, y + h * 0.7, c);
            s.Line(x - h * 0.7, y + h * 0.7, x + h * 0.7, y - h * 0.7, c);
            break;
        case SymbolShape::Dot: s.PSet(x, y, c); break;
    }
}

Status cSeries::EraseCurve(Surface& s, const Datam& chartTable, const PlotFrame& frame) {
    const Color fore = ColorFore, back = ColorBack;
    if (ColorFore != -2) ColorFore = s.BackColor;
    if (ColorBack != -2) ColorBack = s.BackColor;
    const Status st = Draw(s, chartTable, frame);
    ColorFore = fore;
    ColorBack = back;
    if (!st) {
        Failure f = st.failure();
        f.tag = "cSeries(EraseCurve): ";
        return f;
    }
    return StatusOk();
}

std::unique_ptr<cSeries> cSeries::clone() const {
    auto c = std::make_unique<cSeries>();
    c->ParentCurve = ParentCurve;
    c->YerrCol1 = YerrCol1;
    c->YerrCol2 = YerrCol2;
    c->nPenWidth = nPenWidth;
    c->DisplayFunctionXhigh = DisplayFunctionXhigh;
    c->DisplayFunctionXlow = DisplayFunctionXlow;
    c->ColorCol = ColorCol;
    c->Hide = Hide;
    c->PlotData = PlotData;
    c->PenType = PenType;
    c->LineType = LineType;
    c->SeriesType = SeriesType;
    c->Height = Height;
    c->Top = Top;
    c->WidthPixel = WidthPixel;
    c->LeftPixel = LeftPixel;
    c->SymbolDisplay = SymbolDisplay;
    c->Symbol = Symbol;
    c->SymbolSize = SymbolSize;
    c->Y2col = Y2col;
    c->Ycol = Ycol;
    c->Xcol = Xcol;
    c->ColorBack = ColorBack;
    c->ColorFore = ColorFore;
    c->Evaluations = Evaluations;
    c->DisplayFunction.setEquation(DisplayFunction.Equation());
    c->Connect = Connect;
    c->Label = Label;
    return c;
}

void cSeries::Kill() {
    PlotData = Datam();
    elements_ = {};
    zvals_ = {};
    DisplayFunction.Kill();
    ParentCurve = nullptr;
}

cSeries* Series::Item(std::string_view label) const {
    for (const auto& s : items_)
        if (s->Label == label) return s.get();
    return nullptr;
}

cSeries& Series::Add(std::string label) {
    items_.push_back(std::make_unique<cSeries>());
    items_.back()->Label = std::move(label);
    return *items_.back();
}

void Series::Remove(int i) {
    if (i >= 1 && i <= Count()) items_.erase(items_.begin() + (i - 1));
}

}  // namespace zorv
