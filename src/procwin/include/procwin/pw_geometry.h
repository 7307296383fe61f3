// Window geometry: the common process window of the painted grids, the
// rectangle and the ellipse inscribed in it, the ProcessWindowSpace table and
// the DoF against exposure latitude frontier. The searches run on grid cell
// indices; physical values come from the grid's headers.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "procwin/pw_setup.h"

namespace zorv {

class cGraphic;

// The grid over the scan ranges: row 0 focus (rising from column 1), column 0
// dose (falling from row 1), steps a precision-th of the scan steps, half a
// range past each end. Empty inside.
[[nodiscard]] Result<Datam> PWgridSetup(double doseLow, double doseHigh, double doseStep, double focusLow,
                                        double focusHigh, double focusStep, int precision);

// FindPWDoseLimits: the filled run of a column through `row` (0: the first
// filled row); row is replaced only when it was 0 or its cell empty.
void FindPWDoseLimits(const Datam& grid, int column, int& row, int& top, int& bottom);
// FindPWFocusLimits: the filled run of a row from the seed column; with
// ellipse, a run touching the last column is cut to the ellipse's reach; with
// second, the next island toward the seed goes into *left2, *right2 (0 when
// none). False when the row holds nothing.
bool FindPWFocusLimits(const Datam& grid, int row, int column, int& left, int& right, bool ellipse,
                       int* left2 = nullptr, int* right2 = nullptr);
// PWcheckEllipse: 1 when every perimeter point is filled, else -1 with the
// failing quadrant, column and row, and a radius limit where one was found.
int PWcheckEllipse(const Datam& grid, int column, int row, int xRadius, int yRadius, int& quadrant,
                   int& failedColumn, int& failedRow, int& radiusLimit);

// The figures found: the sorted rectangle table (one per dose), the scan
// table, and the best rectangle and ellipse (also left in state).
struct PWInscribed {
    Datam rectangles;
    Datam scan;
    double rectFocus = 0, rectDose = 0, rectDoF = 0, rectExpoLatPct = 0;
    double ellipseFocus = 0, ellipseDose = 0, ellipseFocusRadius = 0, ellipseDoseRadius = 0;
};

// PWcommon(GetInscribe): the composite of the painted grids (keyed
// "<feature>_<site>"), the rectangle and ellipse searches, the
// ProcessWindowSpace table in state (saved to setup.workbook when there is
// one, with its index text) and the best figures.
[[nodiscard]] Result<PWInscribed> GetInscribe(const PWSetup& setup,
                                              const std::vector<std::pair<std::string, Datam>>& surfaces,
                                              PWState& state);

// PWselectreduceDOF: the DoF against ExpoLat% frontier of a rectangle table,
// with its two order-3 fits (DoF of EL%, EL% of DoF).
struct PWFrontier {
    Datam table;
    std::string equation, equation2;
};
[[nodiscard]] Result<PWFrontier> PWselectreduceDOF(const Datam& table, int focusColumn, int doseColumn, int xColumn,
                                                   int yColumn, double dose, double focus, double percent, double dof);

// CreateGraphExpoLat_DOF: the chart (key "ExpoLatDof") of DoF against
// exposure latitude for the rectangles and the ellipses, on `chart`.
[[nodiscard]] Status CreateGraphExpoLat_DOF(const PWSetup& setup, const PWState& state, const Datam& sortedTable,
                                            cGraphic& chart);

}  // namespace zorv
