// Fixed polar bases for surfaces over a wafer or field: Model_Zernike (terms
// in Rval and Theta) and Model_ASMLfocus (terms in R and Theta). Both build
// their term table in code and fit it with svdfit_std, centred and scaled,
// tolerance 0; the constant is the fit's intercept and has no column.
#pragma once

#include <string>

#include "base/datam.h"
#include "numerics/notes.h"

namespace zorv {

enum class AberrationBasis { Zernike, ASMLfocus };

inline constexpr int kZernikeTerms = 10;   // with the piston
inline constexpr int kASMLfocusTerms = 12;

// Name, term text of the model, and short display text of term k (0 the
// piston, which has no texts); the higher orders share one generic display
// text ("* Rval * Rval ", "* R ").
const char* AberrationTermName(AberrationBasis b, int k);
const char* AberrationTermText(AberrationBasis b, int k);
const char* AberrationShortText(AberrationBasis b, int k);
// Value of term k (k >= 1) at a polar position.
double AberrationTermValue(AberrationBasis b, int k, double r, double theta);

// Rval: length of (x, y); Theta: angle of (x, y) in [0, 2 pi) from the
// arctangent of y/x and the signs, with x replaced by 1e-27 when near zero.
// Both as 32-bit floats.
void PolarPosition(double x, double y, float& rval, float& theta);

// The term table of a previous call, kept when the reuse flag is set.
struct AberrationCache {
    AberrationBasis basis = AberrationBasis::Zernike;
    Datam mitp;         // rows 1..n, term columns 1..m, names in row 0
    Datam rval, theta;  // polar positions, rows 1..n (32-bit floats)
};

struct AberrationFit {
    int result = -1;      // culled count of the fit, or -1 when it did not run
    int terms = 0;        // terms in use, the piston included
    Datam coef, errors;   // thresholded model: rows 1..terms, names in column 0, values in column 1
    Datam fullCoef, fullErrors;  // the same for the full model
    std::string text;       // model text for clsEquation; "0" when empty
    std::string shortText;  // display text
    float mse = 0;          // of the thresholded model
    float fullMse = 0;
    Datam resids;    // rows 1..n: value - modelled, empty where the value is empty
    Datam modelled;  // rows 1..n: the thresholded model at each position
    Datam rval, theta;
    Datam excluded;  // rows 1..n: 1 where empty or culled
};

// x, y and values are vectors of equal length (rows 1..n, column 1). nTerms
// counts the piston; the columns used are min(n, nTerms) - 1, at most the
// table's. threshold and rangeCull go to svdfit_std, and so do the notes (its
// failure and warnings); the row count while the table is built goes to
// notes->status. With reuse and a cache holding a table of the same basis,
// rows and columns, the table is kept.
AberrationFit Model_Zernike(const Datam& x, const Datam& y, const Datam& values, int nTerms,
                            float threshold, float rangeCull, bool reuse = false,
                            AberrationCache* cache = nullptr, Notes* notes = nullptr);
AberrationFit Model_ASMLfocus(const Datam& x, const Datam& y, const Datam& values, int nTerms,
                              float threshold, float rangeCull, bool reuse = false,
                              AberrationCache* cache = nullptr, Notes* notes = nullptr);

}  // namespace zorv
