// One curve of a chart (cSeries) and the chart's curves (Series): read from
// columns of the chart's table or computed from a function, drawn with its
// line, symbols and error bars, and remembered point by point so that the
// chart can tell what lies under the mouse.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/surface.h"
#include "numerics/equation.h"

namespace zorv {

// Where a curve is drawn: the graph box in pixels and the value ranges its
// edges stand for (y grows upward in values, downward in pixels).
struct PlotFrame {
    double left = 0, top = 0, width = 0, height = 0;
    double xLow = 0, xHigh = 1, yLow = 0, yHigh = 1;
    double px(double x) const { return left + (x - xLow) / (xHigh - xLow) * width; }
    double py(double y) const { return top + height - (y - yLow) / (yHigh - yLow) * height; }
    // In the box (pixels), edges included, with a hair of slack for rounding.
    bool Inside(PointD p) const {
        const double e = 1e-6 * (width + height);
        return p.x >= left - e && p.x <= left + width + e && p.y >= top - e && p.y <= top + height + e;
    }
    // Cuts the segment a-b to the box (Liang-Barsky); false when none of it is inside.
    bool Clip(PointD& a, PointD& b) const;
};

// The marker shapes; the set is fixed.
enum class SymbolShape : int {
    None = 0, Circle, Square, Diamond, TriangleUp, TriangleDown, Plus, Cross, Star, Dot, FilledCircle, FilledSquare,
};
inline constexpr int kSymbolShapes = 12;

class cSeries {
public:
    cSeries() = default;
    cSeries(const cSeries&) = delete;
    cSeries& operator=(const cSeries&) = delete;

    const cSeries* ParentCurve = nullptr;
    int YerrCol1 = -1, YerrCol2 = -1;   // lower and upper error columns
    int nPenWidth = 1;
    double DisplayFunctionXhigh = 0, DisplayFunctionXlow = 0;
    int ColorCol = -1;                  // a colour per point
    bool Hide = false;
    Datam PlotData;                     // the curve's own data (instead of the chart's)
    int PenType = 0, SeriesType = 0;
    int LineType = 0;  // the line's DrawStyle: 0 solid, 1 dash, 2 dot, 3 dash-dot, 4 dash-dot-dot
    double Height = 0, Top = 0, WidthPixel = 0, LeftPixel = 0;  // legend box
    bool SymbolDisplay = true;
    SymbolShape Symbol = SymbolShape::Circle;
    double SymbolSize = 6;              // pixels across
    int Y2col = -1, Ycol = -1, Xcol = -1;
    Color ColorBack = RGB(255, 255, 255), ColorFore = 0;
    int Evaluations = 100;
    clsEquation DisplayFunction;
    bool Connect = true;
    std::string Label;

    // The table a drawing reads: PlotData when it is an array, else the chart's.
    const Datam& Source(const Datam& chartTable) const { return PlotData.isArray() ? PlotData : chartTable; }
    bool IsFunction() const { return !DisplayFunction.Equation().empty(); }

    // cSeries(Draw): the curve on the surface, in the frame; fills Elements.
    [[nodiscard]] Status Draw(Surface& s, const Datam& chartTable, const PlotFrame& frame);
    // cSeries(DrawSymbol): the marker at a pixel position.
    void DrawSymbol(Surface& s, double x, double y, Color c) const;
    // cSeries(EraseCurve): drawn again in the background colour (a colour of
    // -2 keeps its own).
    [[nodiscard]] Status EraseCurve(Surface& s, const Datam& chartTable, const PlotFrame& frame);
    std::unique_ptr<cSeries> clone() const;
    void Kill();

    // The drawn points: rows 1..n, columns "Xp", "Yp", "Xval", "Yval",
    // "Zval", "Xlabel" (header row 0), made when asked for.
    Datam Elements() const;
    int ElementCount() const { return static_cast<int>(elements_.size()); }
    // The drawn point nearest a pixel within `reach` pixels: its 1-based
    // number and values; 0 when none.
    int NearestElement(double px, double py, double reach, double* xv = nullptr, double* yv = nullptr) const;

private:
    // Kept compact: a chart of a million points asks for its table seldom,
    // and a table of cells would be most of the drawing's memory. The Z of a
    // curve that has one goes beside (NaN where its cell held none).
    struct Element {
        float xp, yp;
        double xv, yv;
    };
    std::vector<Element> elements_;
    std::vector<double> zvals_;
};

class Series {
public:
    Series() = default;
    // A copy holds copies of the curves (a chart cloned into another window).
    Series(const Series& o) { *this = o; }
    Series& operator=(const Series& o) {
        if (this == &o) return *this;
        items_.clear();
        for (const auto& c : o.items_) items_.push_back(c->clone());
        return *this;
    }
    Series(Series&&) noexcept = default;
    Series& operator=(Series&&) noexcept = default;

    int Count() const { return static_cast<int>(items_.size()); }
    // 1-based; nullptr out of range.
    cSeries* Item(int i) const { return i >= 1 && i <= Count() ? items_[static_cast<size_t>(i - 1)].get() : nullptr; }
    cSeries* Item(std::string_view label) const;
    cSeries& Add(std::string label = {});
    void Remove(int i);
    void Clear() { items_.clear(); }

private:
    std::vector<std::unique_ptr<cSeries>> items_;
};

}  // namespace zorv
