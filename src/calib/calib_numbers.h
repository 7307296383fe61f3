// Rounding as the calibration code compares and shows its numbers.
#pragma once

#include <cmath>
#include <string_view>

#include "base/format.h"
#include "base/value.h"

namespace zorv {

// To n decimals, ties to even, as exposure values are compared.
inline double Round(double v, int n) {
    const double f = std::pow(10.0, n);
    return std::nearbyint(v * f) / f;
}
inline double Round3(double v) { return Round(v, 3); }

// A number as a format shows it, read back.
inline double Through(double v, std::string_view pattern) {
    double d = 0;
    ParseNumber(Format(v, pattern), d);
    return d;
}

}  // namespace zorv
