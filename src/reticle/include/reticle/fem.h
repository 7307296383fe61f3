// Focus-exposure matrices: the lot's fields grouped by their dose and focus
// into the cells of a matrix (dose rows, focus columns), each cell's field
// surface of one feature, and all cells drawn as small multiple 3D surfaces
// on one drawing surface with one height scale, so that cells compare and
// the whole matrix goes to a picture file at once.
//
// Units: site positions in mm in the field, values in the feature's display
// unit, dose and focus as the fields hold them.
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/surface.h"

namespace zorv {

class cLot;

// One matrix cell: the fields exposed at one dose and focus.
struct FEMCell {
    double dose = 0, focus = 0;
    int row = 0, col = 0;  // dose row and focus column, from 0
    std::string caption;   // "(<dose>, <focus>)"
    int fields = 0;        // fields in the cell
    // After doFEMsurfm: the mean over the cell's fields at each field site
    // (x, y in mm, z), and its surface (X in row 0, Y in column 0, mm).
    struct Site {
        int number = 0;
        double x = 0, y = 0, z = 0;
    };
    std::vector<Site> sites;
    Datam grid;
    double zmin = 0, zmax = 0;  // over the grid
};

struct FEMMatrix {
    // "Wafer", "Test", "Dose", "Focus", then one column per feature; one row
    // per live point (row 0 the header, columns from 1).
    Datam table;
    std::vector<std::string> features;
    std::vector<double> doses, focuses;  // ascending, one per row / column
    std::vector<FEMCell> cells;          // by dose row, then focus column; only cells with fields
    int Rows() const { return static_cast<int>(doses.size()); }
    int Cols() const { return static_cast<int>(focuses.size()); }
    // The cell at a row and column, nullptr where no field was exposed so.
    const FEMCell* At(int row, int col) const;

    // After doFEMsurfm: the feature drawn, its unit, and the one height
    // scale of every cell (the surfaces' range widened to whole ticks).
    std::string feature, unit;
    double zmin = 0, zmax = 0;    // over all cells' surfaces
    double zlow = 0, zhigh = 0, zstep = 0;  // the common axis
    std::string zformat;
};

// Two doses (focuses) closer than this are one row (column).
inline constexpr double kFEMTolerance = 1e-4;

// frmReticle(doFEMsetup): the table and the cells from the lot's live
// points. "No lot data." without a lot, "No data points in the lot." when
// nothing is live, "The lot has no features." when no feature is named.
[[nodiscard]] Result<FEMMatrix> doFEMsetup(const cLot* lot);

// frmReticle(doFEMsurfm): each cell's field surface of `feature` (a name of
// the lot's features): the site means, interpolated over the field on cells
// of cellMm (0: 24 across), and the common height scale. "Could not find
// feature column." for an unknown feature; a cell without a value of the
// feature keeps no grid.
[[nodiscard]] Status doFEMsurfm(const cLot& lot, const std::string& feature, FEMMatrix& fem, double cellMm = 0);

struct FEMRect {
    double left = 0, top = 0, width = 0, height = 0;
};
// Where everything goes on a surface of a given size.
struct FEMLayout {
    double width = 0, height = 0;
    FEMRect title;                // the heading line
    FEMRect focusLabel;           // "Focus" over the columns
    std::vector<FEMRect> colHead; // each column's focus value
    std::vector<FEMRect> rowHead; // each row's "Dose = <d>"
    std::vector<FEMRect> cells;   // row-major, Rows() x Cols()
    FEMRect key;                  // the colour bar of the common scale
    const FEMRect& Cell(int row, int col, int cols) const { return cells[static_cast<size_t>(row * cols + col)]; }
};

// frmReticle(FEMresize): the cells laid out for a width and height (pixels)
// with room for the heading, the row and column labels and the colour key;
// text sizes are those of `s` in the font the drawing uses.
FEMLayout FEMresize(const FEMMatrix& fem, double width, double height, Surface& s);

// The row label of a dose and the caption of a cell.
std::string FEMDoseLabel(double dose);
std::string FEMCaption(double dose, double focus);

// All cells on one surface at its size: heading, "Focus" and the focus of
// each column, "Dose = " of each row, each cell's surface in the common
// height scale with its caption, and the colour key. Needs doFEMsurfm's
// surfaces: "No surfaces to draw." otherwise.
[[nodiscard]] Status DrawFEM(const FEMMatrix& fem, Surface& s);

}  // namespace zorv
