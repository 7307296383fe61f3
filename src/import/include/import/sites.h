// Site grids for readers whose files give no site table.
#pragma once

#include <vector>

#include "base/datam.h"

namespace zorv {

// Import(MakeSites): a rectangular grid of nx by ny sites centred on the
// field, in the layout of the site table (column 1 die size X, 2 die size
// Y, 3 site number, 4 X, 5 Y, millimetres). Die sizes over 50 and steps over
// 500 are micrometres. With `meander` every second row runs back. Returns 1.
int MakeSites(Datam& sites, double dieSizeX, double dieSizeY, int nx, int ny, double stepX, double stepY,
              bool meander);

// Import(FindDieSize): the die pitch of a wafer map from the X and Y
// positions of its fields: the most common positive spacing per axis.
// False with fewer than two distinct positions on an axis (that size is 0).
bool FindDieSize(const std::vector<double>& x, const std::vector<double>& y, double& dieSizeX, double& dieSizeY);

}  // namespace zorv
