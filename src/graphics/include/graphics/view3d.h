// The 3D view of a surface: homogeneous 4 x 4 matrices (M3Ops), projected
// points, polylines and the surface grid, and the 3D axes. The chart builds
// its view transform with cGraphic::SetProjection; every 3D object runs its
// points through that transform and then through one PixelMap, which fits
// the projected box in the chart's area. The fit stays out of the transform
// so that the transform is the pure view and can be reused at any size.
//
// Coordinates: a grid table's X and Y are model x and y; its values are
// model z times the box's zscale. The view transform sees the model centred
// on its box (the chart's Focus is relative to that centre).
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/surface.h"

namespace zorv {

class cGraphic;

// Row-major, applied to column vectors (x, y, z, w): element (r, c) is m[4 r + c].
using Matrix4 = std::array<double, 16>;

namespace M3Ops {

Matrix4 Identity();
// a b: b applies first.
Matrix4 Multiply(const Matrix4& a, const Matrix4& b);
Matrix4 Translate(double dx, double dy, double dz);
Matrix4 Scale(double sx, double sy, double sz);
// The view from an eye towards a focus: the focus goes to the origin, the
// eye to (0, 0, |eye - focus|) on +z, the up direction to the +y side of the
// y-z plane (to +y itself when it is square to the line of sight), x to the
// right. False, with out untouched, when the eye is on the focus or up lies
// along the line of sight.
bool View(Matrix4& out, double eyeX, double eyeY, double eyeZ, double focusX, double focusY, double focusZ,
          double upX, double upY, double upZ);
// Perspective for an eye at (0, 0, d) of a view matrix: w = 1 - z / d, so the
// focus plane keeps its size and nearer points grow after the divide.
Matrix4 Perspective(double d);
// m (x, y, z, w).
std::array<double, 4> Transform(const Matrix4& m, double x, double y, double z, double w = 1);

}  // namespace M3Ops

// Projected coordinates to pixels: x to the right, y up in the view and down
// on the surface.
struct PixelMap {
    double scale = 1;     // pixels per view unit
    double x0 = 0, y0 = 0;  // the pixel of the view's origin
    double px(double vx) const { return x0 + scale * vx; }
    double py(double vy) const { return y0 - scale * vy; }
};

// The map that fits a projected rectangle (view units) into a pixel
// rectangle, centred, the same scale both ways.
PixelMap FitView(double vxMin, double vxMax, double vyMin, double vyMax, double left, double top, double width,
                 double height);

struct cPoint3D {
    double x = 0, y = 0, z = 0, w = 1;      // model
    double xt = 0, yt = 0, zt = 0, wt = 1;  // transformed
    double px = 0, py = 0;                  // pixels
    bool valid = true;  // has a value (a grid's empty cell has not)
    bool shown = true;  // valid and in front of the eye after the last Apply
    // Transforms the point (its model coordinates times sx, sy, sz) and maps
    // it to pixels; a point at or behind the eye is not shown.
    void Apply(const Matrix4& m, const PixelMap& map, double sx = 1, double sy = 1, double sz = 1);
};

// Points under keys (compared as given), in the order added.
class Points3D {
public:
    // A new point under the key, or the point already there moved.
    cPoint3D& Add(std::string_view key, double x, double y, double z);
    cPoint3D* Item(std::string_view key);
    int Count() const { return static_cast<int>(items_.size()); }
    bool Remove(std::string_view key);
    void Clear() { items_.clear(); }
    void Apply(const Matrix4& m, const PixelMap& map);

private:
    std::vector<std::pair<std::string, cPoint3D>> items_;
};

// An open line through 3D points: an axis or an outline.
class cPolyline3d {
public:
    void Clear() { pts_.clear(); }
    void Add(double x, double y, double z);
    int Count() const { return static_cast<int>(pts_.size()); }
    const cPoint3D& Point(int i) const { return pts_[static_cast<size_t>(i)]; }
    void Apply(const Matrix4& m, const PixelMap& map);
    // One Polyline in colour c (-1: the surface's ForeColor) through the
    // shown points; a point not shown breaks it.
    void Draw(Surface& s, Color c = -1) const;

private:
    std::vector<cPoint3D> pts_;
};

// Colours by height: the contour ramp cut into bands, looked up without a
// call per point.
struct HeightColors {
    double zmin = 0, zmax = 0;
    std::vector<Color> bands;
    Color of(double z) const;
};
// cGraphic::GetContourColor at the middle of each of n bands between zmin
// and zmax (it refuses zmax = zmin).
[[nodiscard]] Result<HeightColors> MakeHeightColors(double zmin, double zmax, int n = 64);

// The surface as a rows x cols array of points, row-major, indices from 0.
class cGrid3d {
public:
    // rows x cols points, all empty (not valid).
    void SetBounds(int rows, int cols);
    int Rows() const { return rows_; }
    int Cols() const { return cols_; }
    // cGrid3d(SetPointArray): from a grid table, X in row 0 (columns from 1),
    // Y in column 0 (rows from 1), the values inside; a blank, non-numeric or
    // missing (-999.9) cell, or one without a numeric X or Y, stays empty.
    // The table's data row r, column c becomes point (r - first row, c - first
    // column). Gives the number of points with a value; a table without a
    // header row and column: "No data in surface."
    [[nodiscard]] Result<long> SetPointArray(const Datam& grid);
    void SetPoint(int row, int col, double x, double y, double z);
    // The height of a point that has its x and y; the point becomes valid.
    void SetValue(int row, int col, double z);
    // Factors on the model coordinates when applied (the height's scale).
    void SetScale(double sx, double sy, double sz);
    const cPoint3D& Point(int row, int col) const { return pts_[index(row, col)]; }
    // Transforms every valid point and maps it with a given map.
    void Apply(const Matrix4& m, const PixelMap& map);
    // Transforms, fits the projected points into the pixel rectangle
    // (FitView) and maps them; gives the map.
    PixelMap ApplyFull(const Matrix4& m, double left, double top, double width, double height);
    // Lines only, no hidden-surface removal: each row, then each column, as a
    // Polyline through its shown points, broken at an empty or hidden one. In
    // the surface's ForeColor, or with colors by the mean height (model z) of
    // each segment: the line then breaks where the colour changes. False when
    // Escape stopped it.
    bool Draw(Surface& s, const HeightColors* colors = nullptr) const;

private:
    size_t index(int r, int c) const { return static_cast<size_t>(r) * static_cast<size_t>(cols_) + static_cast<size_t>(c); }
    int rows_ = 0, cols_ = 0;
    double sx_ = 1, sy_ = 1, sz_ = 1;
    std::vector<cPoint3D> pts_;
};

// One axis of the 3D box: range, tick step and label format, label, colour.
struct Axis3D {
    double low = 0, high = 0, step = 0;
    std::string format;
    std::string label;
    Color color = -1;  // -1: the chart's ForeColor
};

// The box of a 3D view: its three axes, the surface's own height range
// (the colours run over it) and the factor from values to model z.
struct Box3D {
    Axis3D x, y, z;
    double zmin = 0, zmax = 0;
    double zscale = 1;
    // The box's centre in model coordinates.
    double cx() const { return (x.low + x.high) / 2; }
    double cy() const { return (y.low + y.high) / 2; }
    double cz() const { return (z.low + z.high) / 2 * zscale; }
};

// The box of the chart's DataGrid. Each axis comes from the chart's axis
// "X", "Y" or "Z" when it has one and that axis (or the chart) is not
// auto-scaled: its range, tick step and format (CalcTickFormat of the step
// when it has none); otherwise from the data, widened to whole steps of
// about five ticks, the format from CalcTickFormat. Labels are the axis's
// when set, else "Xaxis", "yaxis", "Zaxis". A flat surface gets a Z range of
// its value +- 1. A grid without a value: "No data in surface." under tag.
[[nodiscard]] Result<Box3D> SurfaceBox(const cGraphic& g, std::string_view tag);

// The chart's area for the 3D view on a surface: the plot area less the
// title's line.
struct Area3D {
    double left = 0, top = 0, width = 0, height = 0;
};
Area3D ViewArea(const cGraphic& g, Surface& s);

// The map that fits the chart's projected box (its eight corners, through
// g.Projection) into the area, leaving room around it for the axis labels.
PixelMap FitBox(const cGraphic& g, Surface& s, const Box3D& box, const Area3D& area);

// cGraphic(DrawAxes3D): the three axes of the box through the chart's
// Projection: X and Y along the bottom edges nearest the eye, Z up the far
// end of the X axis; ticks, their labels and the axis labels outside the box
// (an axis seen end on, as Z from straight above, gets no labels).
// Refuses an empty range ("Xaxis axis high value = low value", and Yaxis,
// Zaxis) and a bad tick step ("Tick interval improperly specified.").
[[nodiscard]] Status DrawAxes3D(cGraphic& g, Surface& s, const Box3D& box, const PixelMap& map);

// What DrawFieldAxes3D laid out, for the surface drawn over it.
struct View3D {
    Box3D box;
    PixelMap map;
};
// cGraphic(DrawFieldAxes3D): the box of the chart's DataGrid fitted in the
// chart's area, and its axes drawn (SetProjection first). An empty grid:
// "No data in surface."
[[nodiscard]] Result<View3D> DrawFieldAxes3D(cGraphic& g, Surface& s);

}  // namespace zorv
