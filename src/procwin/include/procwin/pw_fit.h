// Focus and dose response fits of a focus-exposure matrix: the 7-term
// surface Z(D,F) = c1 + c2 D + c3 F + c4 F^2 + c5 D F + c6 F^3 + c7 D F^2, the
// dose and focus polynomials, the isoline of a target and the painted grid.
// Failures come back as values with the routine's tag; nothing shows a box.
#pragma once

#include <string>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

// The fit limits the callers read from their setup: the residual cull limit
// and the significance limit of svdfit_std; 0 leaves a limit unset.
struct PWFitLimits {
    float range = 0;
    float sigma = 0;
};

struct PWSurfaceFit {
    Datam c;  // rows 1..7, column 1, constant first (the full solution); not an array on failure
    std::string equation;              // in D and F
    std::string doseTerm, focusTerm, crossTerm;
    bool escaped = false;              // Esc while the rows were read: the caller stops its loop
};

// PWcommon(PWfit): the feature in column `column` of a table with a header row
// whose "Focus" and "Dose" columns are found by name; empty feature cells are
// skipped (the design is cut to the filled rows).
[[nodiscard]] Result<PWSurfaceFit> PWfit(const Datam& table, int column, const PWFitLimits& limits);

struct PWCurveFit {
    Datam c;                // coefficients, constant first (rows 1..n, column 1)
    std::string equation;   // in X
    double chiSquare = 0;
    double xHigh = -99999, xLow = 99999;
    double root1 = -9.99, root2 = -9.99;  // FocusFit: turning points (-9.99: none)
};

// pwCommon(DoseFit): y against dose x, quadratic (or the straight-line refit).
// The significance limit is always 4 here, whatever limits.sigma says.
[[nodiscard]] Result<PWCurveFit> DoseFit(const Datam& table, int xColumn, int yColumn, const PWFitLimits& limits);
// frmProcessWindow(FocusFit): y against focus x, cubic, with its turning
// points. Fewer than 3 rows: an empty fit (c not an array), no failure.
[[nodiscard]] Result<PWCurveFit> FocusFit(const Datam& table, int xColumn, int yColumn, const PWFitLimits& limits);

// PWcommon(PWcurveFill): the isoline D(F) of `target` on the surface c, rows
// from 1 under the header "Focus", "Dose"; the equation in X.
struct PWIsoline {
    Datam table;
    std::string equation;
};
[[nodiscard]] Result<PWIsoline> PWcurveFill(const Datam& c, double target, double doseLow, double doseHigh,
                                            double focusLow, double focusHigh, double focusStep);

// PWcommon(PWsurfFill): paints the surface c over `grid` (focus in row 0 from
// column 1, dose in column 0 from row 1): cells with low <= Z <= high become
// 1 and are counted, the others are left as they are. Returns the table of Z
// (32-bit values) of the same shape.
[[nodiscard]] Result<Datam> PWsurfFill(Datam& grid, double low, double high, const Datam& c, long& count);

// The isofocal dose -c4/c7 (c7 != 0); with processWindowRule, a result of
// exactly 0 with c6 != 0 becomes -c3/c6. False when there is none.
bool IsoFocalDose(const Datam& c, bool processWindowRule, double& dose);

}  // namespace zorv
