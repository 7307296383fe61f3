// Quartiles by the median-of-halves rule.
//
// Both forms reduce to one walk over a sorted list reached through at(k), the
// value at 1-based position k: the raw form holds the sorted values, the
// frequency form finds k in the running counts, so a histogram of a million
// points is never expanded.
#include "numerics/quartiles.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "base/proc.h"
#include "numerics/matrix.h"
#include "tell.h"

namespace zorv {

namespace {

constexpr const char* kTag = "cGraphic(GetQuartiles): ";

// A value and its 1-based position in the sorted list (x.5: between two rows).
struct At {
    float value = 0;
    double pos = 0;
};

// Median of the rows a..b by the rule used throughout: the middle row of an
// odd count, the mean of the two middle rows of an even one.
template <class Get>
At MedianOf(long a, long b, const Get& at) {
    const long m = b - a + 1;
    if (m % 2 == 1) {
        const long k = a + m / 2;
        return {at(k), double(k)};
    }
    const long k = a + m / 2 - 1;
    const double mean = (double(at(k)) + double(at(k + 1))) / 2.0;
    return {static_cast<float>(mean), k + 0.5};
}

template <class Get>
Quartiles Build(long n, double sum, const Get& at) {
    Quartiles q;
    if (n < 2) return q;

    At q0{at(1), 1}, q4{at(n), double(n)};
    const At med = MedianOf(1, n, at);
    At q1, q3;
    if (n <= 5) {
        // Too few rows to halve: Q1 and Q3 are the rows next to the median
        // from outside, the top of the strict lower half and the bottom of the
        // strict upper one. n = 2 gives Q1 = Q0 and Q3 = Q4; n = 3 likewise;
        // n = 4 rows 2 and 3; n = 5 rows 2 and 4.
        const long lo = n / 2, hi = n + 1 - n / 2;
        q1 = {at(lo), double(lo)};
        q3 = {at(hi), double(hi)};
    } else if (n % 2 == 0) {
        q1 = MedianOf(1, n / 2, at);
        q3 = MedianOf(n / 2 + 1, n, at);
    } else {
        // Odd: both halves take the middle row. The lower half ends at
        // int(n/2 + 0.5); the upper one starts at n/2 rounded half to even,
        // so for n = 9 it starts at row 4 and holds six rows.
        const long k = n / 2;
        const long lowerEnd = k + 1;
        const long upperStart = (k % 2 == 0) ? k : k + 1;
        q1 = MedianOf(1, lowerEnd, at);
        q3 = MedianOf(upperStart, n, at);
    }
    const float iqr = static_cast<float>(double(q3.value) - double(q1.value));
    q.lowerFence = double(q1.value) - 1.5 * double(iqr);
    q.upperFence = double(q3.value) + 1.5 * double(iqr);

    Datam& t = q.table;
    t = Datam(7, 2, 0, 0);
    t(0, 0) = Value("");
    t(0, 1) = Value("Value");
    t(0, 2) = Value("Percentage");
    const char* labels[] = {"Count", "Q0", "Q1", "Median", "Q3", "Q4", "IQR"};
    for (int r = 1; r <= 7; ++r) t(r, 0) = Value(labels[r - 1]);
    t(1, 1) = Value(double(n));
    t(1, 2) = Value(double(n));
    const At rows[] = {q0, q1, med, q3, q4};
    for (int i = 0; i < 5; ++i) {
        t(i + 2, 1) = Value(rows[i].value);
        t(i + 2, 2) = Value(rows[i].pos);
    }
    t(7, 1) = Value(iqr);

    Datam& s = q.second;
    s = Datam(11, 2, 0, 0);
    s(0, 0) = Value("Percentile");
    s(0, 1) = Value("Value");
    s(0, 2) = Value("Row");
    for (int d = 1; d <= 10; ++d) {
        // nearest rank: the smallest k with k / n >= d / 10
        const long k = std::max<long>(1, (long(d) * n + 9) / 10);
        s(d, 0) = Value(std::to_string(d * 10) + "%");
        s(d, 1) = Value(at(k));
        s(d, 2) = Value(double(k));
    }
    s(11, 0) = Value("Mean");
    s(11, 1) = Value(static_cast<float>(sum / double(n)));
    return q;
}

// The column check both forms share; false after telling the failure.
bool ColumnExists(const Datam& table, int col, Notes* notes) {
    const int last = table.isArray() ? table.colUb() : 0;
    if (table.isArray() && table.dims() == 1) return true;  // a list: the column is the list
    if (col <= last) return true;
    Proc p(kTag);
    p.chk = 1;
    TellFailure(notes, p.fail("Data array contains only '" + std::to_string(last) +
                              "' columns of data and column: " + std::to_string(col) +
                              " was specified for use."));
    return false;
}

// A numeric cell as a finite 32-bit float.
bool ReadCell(const Value& v, float& out) {
    double d = 0;
    if (!NumericOf(v, d)) return false;
    out = static_cast<float>(d);
    return std::isfinite(out);
}

}  // namespace

Quartiles GetQuartiles(const Datam& table, int col, Notes* notes) {
    if (!ColumnExists(table, col, notes)) return {};
    std::vector<float> v;
    if (table.dims() == 1) {
        for (int i = std::max(1, table.lb(1)); i <= table.ub(1); ++i) {
            float x;
            if (ReadCell(table.at(i), x)) v.push_back(x);
        }
    } else {
        if (col < table.colLb()) return {};
        v.reserve(static_cast<size_t>(std::max(0, table.rowUb())));
        for (int r = FirstData(table, 1); r <= table.rowUb(); ++r) {
            float x;
            if (ReadCell(table(r, col), x)) v.push_back(x);
        }
    }
    std::sort(v.begin(), v.end());
    double sum = 0;
    for (float x : v) sum += x;
    return Build(static_cast<long>(v.size()), sum,
                 [&](long k) { return v[static_cast<size_t>(k - 1)]; });
}

Quartiles GetQuartilesFreq(const Datam& table, int valueCol, int freqCol, Notes* notes) {
    if (!ColumnExists(table, valueCol, notes) || !ColumnExists(table, freqCol, notes)) return {};
    if (table.dims() != 2 || std::min(valueCol, freqCol) < table.colLb()) return {};
    std::vector<std::pair<float, long long>> pairs;
    pairs.reserve(static_cast<size_t>(std::max(0, table.rowUb())));
    for (int r = FirstData(table, 1); r <= table.rowUb(); ++r) {
        float x;
        double f = 0;
        if (!ReadCell(table(r, valueCol), x) || !NumericOf(table(r, freqCol), f)) continue;
        // whole counts, halves to even as the system rounds
        const double rounded = std::nearbyint(f);
        if (rounded >= 1 && rounded < 9e15) pairs.emplace_back(x, static_cast<long long>(rounded));
    }
    std::stable_sort(pairs.begin(), pairs.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<long long> cum(pairs.size());
    long long total = 0;
    double sum = 0;
    for (size_t i = 0; i < pairs.size(); ++i) {
        total += pairs[i].second;
        sum += double(pairs[i].first) * double(pairs[i].second);
        cum[i] = total;
    }
    return Build(static_cast<long>(total), sum, [&](long k) {
        const auto it = std::lower_bound(cum.begin(), cum.end(), static_cast<long long>(k));
        return pairs[static_cast<size_t>(it - cum.begin())].first;
    });
}

}  // namespace zorv
