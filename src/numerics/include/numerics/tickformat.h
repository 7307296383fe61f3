// The tick format rule of the chart axes, shared with the equation formatter.
#pragma once

#include <string>

namespace zorv {

struct TickFormat {
    int decimals = 0;
    std::string format;  // "#0." followed by `decimals` zeros
};

// cGraphic.CalcTickFormat(value, digits): the decimal exponent e of the value
// (as its scientific text "0.00E+00" shows it) gives `digits` decimals when
// e > 0, otherwise |e| + digits.
TickFormat CalcTickFormat(double value, int digits);

// The "Scientific" text of a value ("0.00E+00"), always with "." as the
// decimal point: the mantissa is rounded half away from zero on the value's
// 15 significant decimal digits, so 0.09995 reads "1.00E-01".
std::string ScientificText(double value);

// The exponent of the scientific text of a value, as SigFig with the digit
// count -99 leaves it: 9.996 reads "1.00E+01" and gives 1; 0 gives 0.
int ScientificExponent(double value);

}  // namespace zorv
