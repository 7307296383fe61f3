// Contour plots: the colour ramp and its key, the surface of the plotted
// value over a wafer or a field, and the painted contour with its key and
// the Max/Min note. The colour of a single value is
// cGraphic::GetContourColor (chart.h).
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/surface.h"

namespace zorv {

class cGraphic;
class cLot;
class cWafer;
class cField;

// The ramp colour of z between zmin and zmax (clamped): blue, cyan, green,
// yellow, red, as GetContourColor gives it, without its check. zmax must
// differ from zmin; for loops that checked once.
Color ContourRampColor(double z, double zmax, double zmin) noexcept;

inline constexpr int kColorScaleSize = 2048;

// A rectangle on a surface, in its units.
struct KeyRect {
    double left = 0, top = 0, width = 0, height = 0;
};

struct ColorScale {
    std::vector<Color> colors;  // entry i - 1 for i = 1..2048, t = (i - 1) / 2048
    int count = 0;
};

// cLot(GetColorScale): the table of 2048 ramp colours. With a surface, the
// table is painted onto the rectangle as well, lowest value at the bottom,
// one filled box per run of rows of one colour. Fails for a rectangle
// without area.
[[nodiscard]] Result<ColorScale> GetColorScale(Surface* key = nullptr, const KeyRect& at = {});

// The colour key of a contour: a vertical bar from Zmin (bottom) to Zmax
// (top) in the ramp's colours, outlined and ticked in LineColor, the tick
// values written right of it in kFormat and kFont.
class cBarCodeKey {
public:
    Surface* Container = nullptr;
    std::string kFormat = "##0.0##";
    FontSpec kFont;
    Color LineColor = 0;
    double PLotLeft = 0, PlotTop = 0, PlotWidth = 20, PlotHeight = 200;
    double Zmax = 1, Zmin = 0;
    // Ticks every TickInterval from Zmin when it is above 0; otherwise
    // NumberTicks equal steps from Zmin to Zmax.
    int NumberTicks = 5;
    double TickInterval = 0;

    // cBarCodeKey(DrawKeyCode): "Tick interval improperly specified." for a
    // negative interval or one giving more than 1000 ticks; Zmax = Zmin stops
    // with GetContourColor's failure.
    [[nodiscard]] Status DrawKeyCode();
    // The width the bar, its ticks and its widest label take on the surface.
    double Extent();
};

// One site of a surface: position in mm and the statistic of its values.
struct SurfaceSite {
    double x = 0, y = 0, z = 0;
};

// A surface over the sites: the grid table (Y values in mm in column 0 from
// row 1, X values in row 0 from column 1, ascending; the feature name at
// 0, 0), each site's value at its row and column, other cells empty. A model
// surface has a value in every cell.
struct SurfaceGrid {
    Datam grid;
    std::vector<double> x, y;        // the unique X and Y values
    std::vector<SurfaceSite> sites;  // the sites that hold a value, in walk order
    bool modelled = false;
    std::string model;  // the Zernike fit's text in Rval and Theta when modelled
    double zmin = 0, zmax = 0;  // over the grid's cells
};

// cWafer(GetSurface): the wafer's surface at the sites' wafer positions
// (LocationXabs, LocationYabs). One value per site: the statistic of its
// live points' plot feature values (display units) chosen by the lot's
// PlotGraphDataType: 1 "MAXIMUM", 2 "MINIMUM", 3 "STDEV", 4 "RANGE",
// otherwise "MEAN". With fewer than 3 unique X or Y values, or forceModel,
// every cell takes a Zernike fit of order 6 of the site values instead.
// "No data in surface." when no site holds a value.
[[nodiscard]] Result<SurfaceGrid> GetWaferSurface(const cLot& lot, const cWafer& wafer, bool forceModel = false);
// cField(GetSurface): the same over one field at the sites' field positions
// (LocationX, LocationY).
[[nodiscard]] Result<SurfaceGrid> GetFieldSurface(const cLot& lot, const cField& field, bool forceModel = false);

// The wafer's values interpolated on square cells of cellMm (0: 40 across
// the wafer), as a contour takes them: X in row 0, Y in column 0 (mm), cells
// outside the wafer empty. The surface a 3D view draws.
[[nodiscard]] Result<Datam> GetWaferGrid(const cLot& lot, const cWafer& wafer, double cellMm = 0);
// The same over one field at its sites' field positions, on cells of cellMm
// (0: 24 across the longer side) over DieSizeX by DieSizeY.
[[nodiscard]] Result<Datam> GetFieldGrid(const cLot& lot, const cField& field, double cellMm = 0);

// cWafer(DrawContour): the wafer placed on chart.Container(), its cells
// painted by the interpolated surface (the site values, or a model's values
// at the surface grid's cells), the colour key right of it, the outline,
// notch and die grid over it, and the note "Max/Min: " under it. Cells are
// cellMm square; 0 takes the larger of one pixel and a 400th of the wafer.
// Cells whose centre lies outside the wafer stay unpainted. The filled grid
// is left in chart.DataGrid (X in row 0, Y in column 0, mm). Esc stops
// quietly.
[[nodiscard]] Status DrawWaferContour(cGraphic& chart, cLot& lot, const cWafer& wafer, double cellMm = 0);
// Graphics(DrawFieldContour): the same over one field (DieSizeX by
// DieSizeY, its outline drawn as a box); a 400th of the longer side by
// default.
[[nodiscard]] Status DrawFieldContour(cGraphic& chart, cLot& lot, const cField& field, double cellMm = 0);

}  // namespace zorv
