// Least squares and curve fitting: the singular value decomposition fit that
// every polynomial and surface model goes through, its pipeline
// (svdfit_std), the polynomial curve fit with turning points, root finders
// and small numeric helpers.
//
// Vectors are n x 1 tables with the values in column 1 and rows from 1; the
// vectors made here have a row 0 as well (Datam(n, 1, 0, 1)), the residual
// vector of svdfit_std also a column 0 with the source row. Matrices (u, v)
// run from row 1 and column 1.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/marks.h"
#include "numerics/notes.h"

namespace zorv {

// ---------------------------------------------------------------------------
// Decomposition

// a (rows and columns from 1) = u w v'. u starts as a copy of a and comes back
// rows x m (at least m rows: a short table is enlarged to a square), w as an
// m-row vector, v m x m. Singular values are not sorted; a value that fails to
// converge in 30 iterations leaves the factors as they stand, silently.
void svd_decompose(const Datam& a, Datam& u, Datam& w, Datam& v);

// Solution vector (m rows) of u w v' x = b. A tolerance of exactly 0 becomes
// e^-12 and goes back to the caller; singular values below tolerance * max(w)
// are set to 0 in w. Factors of mismatched shapes: a non-array Datam and a
// run-time failure.
Datam svd_coeffs(const Datam& b, const Datam& u, Datam& w, const Datam& v, float& tolerance,
                 Notes* notes = nullptr);

// Covariance (m x m) of the solution in the units the decomposition saw.
Datam svd_covariance(const Datam& v, const Datam& w);

// ---------------------------------------------------------------------------
// The fit pipeline

// Everything svdfit_std hands back (its out-arguments).
struct SvdFit {
    int result = -1;  // culled count, or -1 when the fit left early
    Datam coef;       // m+1 rows: intercept, then the term coefficients
    Datam errors;     // standard error of each coefficient
    Datam resids;     // one row per compacted observation; column 0 the source row
    float mse = 0;
    double ssy = 0;    // sum of squares of y about its mean, capped at 1e135
    Datam colWeights;  // sum of squares of each (centred) term column; 0 -> 1e10
    Datam u, w, v;     // decomposition of the last pass (u only when asked for)
    float threshold = 0;  // the threshold as used (a negative one became 1)
    Datam curCoef, curErrors, curResids;  // the thresholded model (same rows as resids)
    double curMse = 0;
    Datam excluded;  // rows 1..n of vdtp, column 1: 1 where empty or culled, else 0
};

// Fit of vdtp (column 1, rows 1..n) on the term columns 1..m of mitp (m = the
// last column, or one less than a column headed "Xloc"). Without rows or term
// columns the result is -1 with one-row vectors of 1 and no failure; a fit
// left without observations ends with -1 and a run-time failure under
// "MathUtil(svdfit_std): ". A range cull that leaves fewer than 2 rows adds a
// warning (a box titled with the tag).
SvdFit svdfit_std(const Datam& mitp, const Datam& vdtp, float tolerance, bool center, bool scale,
                  float threshold, float rangeCull, bool wantU = false, Notes* notes = nullptr);

// The same fit on plain arrays: x row-major n x m, y n values; NaN marks an
// empty cell. Rows are numbered from 1 in residRow and excluded (index 0 unused).
struct SvdFitArrays {
    int result = -1;
    std::vector<double> coef, errors, resid;
    std::vector<int32_t> residRow;  // source row (1..n) of each residual
    float mse = 0;
    double ssy = 0;
    std::vector<double> colWeights;
    int uRows = 0;
    std::vector<double> u, w, v;  // row-major
    float threshold = 0;
    std::vector<double> curCoef, curErrors, curResid;
    double curMse = 0;
    std::vector<uint8_t> excluded;  // n + 1 entries
};
SvdFitArrays svdfit_std(const double* x, const double* y, int n, int m, float tolerance,
                        bool center, bool scale, float threshold, float rangeCull,
                        bool wantU = false, Notes* notes = nullptr);

// modelled = x c (empty cells skipped), residual = y - modelled less the
// mean of those (the intercept); coef = intercept followed by c. Returns 1, or
// -1 when x has fewer than 2 rows ("No data in matrix").
int CalcFitResids(const Datam& x, const Datam& y, const Datam& c, Datam& coef, Datam& modelled,
                  Datam& resids, double& ssModelled, double& ssResids, Notes* notes = nullptr);

// ---------------------------------------------------------------------------
// Curve fit

struct TurningPoint {
    double x = kNoRoot, y = kNoRoot, d2 = kNoRoot;  // position, value, second derivative
};

struct CurveFit {
    Datam coef;            // order+1 rows, constant first; not an array on failure
    std::string equation;  // the rounded equation every y value comes from
    TurningPoint tp[3];
    Datam errors;
    float mse = 0;
    Datam resids;
    int order = 0;  // the order the turning-point search used
};

// Polynomial of y (column yCol) in x (column xCol) of a table with a header
// row, order clamped to 1..4, and its turning points. Without data to fit,
// coef is not an array and notes get the failure.
CurveFit FitCurve(const Datam& table, int xCol, int yCol, int order, Notes* notes = nullptr);

// Value of the rounded equation text of a curve fit at x.
double EvalCurve(const std::string& equation, double x, Notes* notes = nullptr);

// Roots of x^3 + a x^2 + b x + c (trigonometric method); kNoRoot where absent.
void GetCubicRoots(double a, double b, double c, double& x1, double& x2, double& x3);
// Roots of a x^2 + b x + c; both kNoRoot unless the discriminant is above 0.
void GetQuadRoots(double a, double b, double c, double& x1, double& x2);

// ---------------------------------------------------------------------------
// Helpers

// Pooled within-group standard deviation of each value column of a table
// whose first column holds the group key (rows from 1, row 0 the header).
// ss gets each column's sum of squares within groups; dof = rows - groups - 1.
// A column is left empty where dof is not positive.
Datam CalcSS(const Datam& table, Datam& ss, int& dof, int& groups, Notes* notes = nullptr);

// Correlation coefficient r of two vectors (means in 32-bit floats over rows
// where both are numeric, divided by the full row count).
double LinearCorrelation(const Datam& x, const Datam& y);

struct SigFigParts {
    std::string text;        // the result
    std::string scientific;  // the "Scientific" form, e.g. "1.23E+02"
    std::string intPart, fracPart;
    int exponent = 0;
};
// Text of a number at a number of significant digits; -99 leaves the
// scientific text as it came (and gives the exponent).
SigFigParts SigFig(double value, int digits);
std::string SigFig(double value, std::string& scientific, std::string& intPart,
                   std::string& fracPart, int digits);

// A value that a 32-bit float can hold; non-numeric values pass through.
Value SingleCheck(const Value& v);

// Items of a delimited list as a vector (rows from 1); the text before the
// header, when one is given and found, goes to row 0. A text that is neither
// a list nor a number gives a non-array Datam and a failure.
Datam String2Vector(std::string_view list, std::string_view header = {},
                    std::string_view delimiter = ",", Notes* notes = nullptr);

}  // namespace zorv
