#include "numerics/tickformat.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zorv {

std::string ScientificText(double value) {
    char buf[64];
    if (!std::isfinite(value)) {
        std::snprintf(buf, sizeof buf, "%.2E", value);
        return buf;
    }
    // The 15 significant digits the number's text carries, then rounded to
    // three half away from zero on those decimal digits: 0.09995 (stored just
    // below) reads 1.00E-01, as the format function writes it.
    std::snprintf(buf, sizeof buf, "%.14E", value);
    const bool neg = buf[0] == '-';
    const char* d = buf + (neg ? 1 : 0);  // d.dddddddddddddd E+xx
    const char* e = std::strchr(d, 'E');
    int exponent = e ? std::atoi(e + 1) : 0;
    int mant = (d[0] - '0') * 100 + (d[2] - '0') * 10 + (d[3] - '0');
    if (d[4] >= '5') ++mant;
    if (mant >= 1000) {
        mant /= 10;
        ++exponent;
    }
    if (mant == 0) exponent = 0;
    std::snprintf(buf, sizeof buf, "%s%d.%02dE%c%02d", neg ? "-" : "", mant / 100, mant % 100,
                  exponent < 0 ? '-' : '+', std::abs(exponent));
    return buf;
}

int ScientificExponent(double value) {
    if (!std::isfinite(value) || value == 0) return 0;
    const std::string s = ScientificText(value);
    const size_t e = s.find('E');
    return e == std::string::npos ? 0 : std::atoi(s.c_str() + e + 1);
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
