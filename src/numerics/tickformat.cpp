#include "numerics/tickformat.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zorv {

int ScientificExponent(double value) {
    if (!std::isfinite(value) || value == 0) return 0;
    // The mantissa is rounded to two decimals first, exactly as the text form
    // rounds it, so 9.996 counts as 1.00E+01.
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.2E", value);
    const char* e = std::strchr(buf, 'E');
    return e ? std::atoi(e + 1) : 0;
}

TickFormat CalcTickFormat(double value, int digits) {
    const int e = ScientificExponent(value);
    TickFormat t;
    t.decimals = e > 0 ? digits : std::abs(e) + digits;
    if (t.decimals < 0) t.decimals = 0;
    t.format = "#0.";
    t.format.append(static_cast<size_t>(t.decimals), '0');
    return t;
}

}  // namespace zorv
