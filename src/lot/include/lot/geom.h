// Small numeric helpers of the lot code (internal).
#pragma once

#include <cmath>
#include <cstdint>

#include "base/marks.h"

namespace zorv {

// Round to n decimals, ties to even as the original Round does.
inline double Round(double x, int n) {
    static const double p10[] = {1, 10, 100, 1000, 10000, 100000, 1000000};
    const double f = (n >= 0 && n <= 6) ? p10[n] : std::pow(10.0, n);
    return std::nearbyint(x * f) / f;
}

// FindSite's rule: the last site of the list within 0.09 in x and y (after
// rounding the distance to 3 decimals), of the family unless it is -1.
// Its position, with its number key in `number`; -1 when none.
template <class List>
int findSiteIn(const List& list, float x, float y, int& number, long family) {
    for (int i = list.Count(); i >= 1; --i) {
        const auto* s = list.Item(i);
        if (!s) continue;
        if (family != -1 && family != s->Family()) continue;
        if (Round(std::fabs(double(s->LocationX) - x), 3) <= 0.09 &&
            Round(std::fabs(double(s->LocationY) - y), 3) <= 0.09) {
            number = s->NumberKey();
            return i;
        }
    }
    return -1;
}

// Angle of (x, y) in -pi..pi; x of 0 is taken as 1e-27 so that the
// arctangent never divides by zero.
inline double FoldAngle(double x, double y) {
    if (x == 0) x = 1e-27;
    double a = std::atan(y / x);
    if (x < 0) a += kPi;
    if (a > kPi) a -= 2 * kPi;
    if (a < -kPi) a += 2 * kPi;
    return a;
}

// A running counter down by one on cull, up on restore, never below 0.
inline void CountStep(int32_t& counter, bool culled) {
    if (culled) {
        if (counter > 0) --counter;
    } else {
        ++counter;
    }
}

}  // namespace zorv
