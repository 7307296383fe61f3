// Surface interpolation on grid tables: X values in row 0, Y values in
// column 0, data from row 1 and column 1; an empty cell is unknown. A mask
// table of the same shape holds -9 in cells outside the shape that must stay
// empty. Where a header holds numbers they are the coordinates; otherwise the
// row and column numbers are.
#pragma once

#include <string>

#include "base/datam.h"
#include "numerics/notes.h"

namespace zorv {

// Fills the gaps of each row, then of each column, by linear interpolation
// between the known cells that bound them; masked cells stay empty and split
// a run. zmin and zmax come in as seeds (0 means none) and go out as the
// extremes of the values met. 1 on success, -1 when stopped (Esc) or when the
// grid is not a table ("No surface grid to interpolate."). Progress goes to
// notes->status.
int surf_interpolate2(Datam& grid, double& zmin, double& zmax, const Datam& mask = Datam(),
                      Notes* notes = nullptr);

// The corner table of subSurf_Interpolate: rows "upl", "upr", "lowl", "lowr"
// (column 0), each with the grid row (column 1) and grid column (column 2).
Datam MakeSurfCorners(int topRow, int leftCol, int bottomRow, int rightCol);

// Fills the empty cells of the rectangle the corners span from the bilinear
// surface a + b * X + c * Y + d * X * Y through the known corner values (a
// plane when only three are known). The model text goes to *model. The
// number of cells filled, or -1 with "Not enough data points to create a
// surface." when fewer than three corners hold values. The model and the
// progress go to notes->status as well.
int subSurf_Interpolate(Datam& grid, const Datam& corners, std::string* model = nullptr,
                        Notes* notes = nullptr);

// Finds the bounding rectangle of the known cells (bounds out; inputs are
// ignored) and continues each row, then each column, to the grid's edges
// with its outermost known value. 1 on success, -1 for a grid without data
// or when stopped by Esc.
int EdgeExtrapolate(Datam& grid, int& firstRow, int& lastRow, int& firstCol, int& lastCol);

// The grid refined by an integer factor: factor - 1 new lines between each
// pair of lines, headers and cells interpolated bilinearly (a cell whose four
// neighbours are not all known takes the nearest one). A factor below 2
// returns the grid unchanged.
Datam SurfExpand(const Datam& grid, int factor);

}  // namespace zorv
