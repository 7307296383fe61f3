// Small helpers shared by the tree's sources: rounding, the site search,
// angles, counters and key repair. Private to lot.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include "base/marks.h"
#include "base/value.h"
#include "lot/keyed.h"

namespace zorv {

// Round to n decimals, ties to even.
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

// Next free numeric key above both `key` and `count`, trying up to three
// times count + 2 candidates; empty when none is free.
template <class Taken>
Value repairKey(const Value& key, int count, Taken taken) {
    double k = 0;
    if (key.type() == VType::Long) k = key.toLong();
    long start = static_cast<long>(std::max<double>(k, count)) + 1;
    long tries = 3L * (count + 2);
    for (long i = 0; i < tries; ++i) {
        Value cand = MakeKey(start + i);
        if (!taken(cand)) return cand;
    }
    return Value();
}

// "W", wafer number, "F", field number
inline std::string FieldKeyText(long wafer, long field) {
    std::string k(1, 'W');
    k.append(std::to_string(wafer));
    k.push_back('F');
    k.append(std::to_string(field));
    return k;
}

}  // namespace zorv
