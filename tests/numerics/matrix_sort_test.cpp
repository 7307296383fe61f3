// The fast sorts against a literal exchange sort: walk adjacent pairs from
// the top, swap a pair out of order and carry the moved row back while the
// row above is strictly out of order.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "base/report.h"
#include "numerics/matrix.h"

using namespace zorv;

namespace {

// Independent key: class (empty, number, text, error), then the float's
// seven-digit text read back, the text itself, or the error code.
struct SlowKey {
    int cls = 0;
    double num = 0;
    std::string txt;
};

SlowKey SlowKeyOf(const Value& v) {
    SlowKey k;
    switch (v.type()) {
        case VType::Empty:
        case VType::Null:
        case VType::Array: return k;
        case VType::Error: k.cls = 3; k.num = v.errorCode(); return k;
        case VType::Date: k.cls = 1; k.num = v.toDouble(); return k;
        default: break;
    }
    std::string t = v.isString() ? std::string(v.str()) : std::string();
    double x = 0;
    bool numeric = !v.isString();
    if (numeric) {
        x = v.toDouble();
    } else if (!t.empty()) {
        std::string s;
        for (char c : t)
            if (c != '%') s += c;
        numeric = ParseNumber(t, x) || ParseNumber(s, x);
    }
    if (!numeric) {
        k.cls = 2;
        k.txt = t;
        return k;
    }
    k.cls = 1;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.7G", static_cast<double>(static_cast<float>(x)));
    k.num = std::strtod(buf, nullptr);
    return k;
}

int SlowCmp(const Value& a, const Value& b) {
    const SlowKey x = SlowKeyOf(a), y = SlowKeyOf(b);
    if (x.cls != y.cls) return x.cls < y.cls ? -1 : 1;
    if (x.cls == 2) return x.txt.compare(y.txt) < 0 ? -1 : (x.txt == y.txt ? 0 : 1);
    return x.num < y.num ? -1 : (x.num > y.num ? 1 : 0);
}

// Row numbers of `rows` after the exchange sort on the given keys.
void ExchangeSort(const Datam& m, std::vector<int>& rows, const std::vector<int>& cols,
                  const std::vector<bool>& desc) {
    auto outOfOrder = [&](int upper, int lower) {
        for (size_t k = 0; k < cols.size(); ++k) {
            const int c = SlowCmp(m(upper, cols[k]), m(lower, cols[k]));
            if (c != 0) return desc[k] ? c < 0 : c > 0;
        }
        return false;
    };
    for (size_t i = 0; i + 1 < rows.size(); ++i) {
        if (!outOfOrder(rows[i], rows[i + 1])) continue;
        std::swap(rows[i], rows[i + 1]);
        for (size_t j = i; j > 0 && outOfOrder(rows[j - 1], rows[j]); --j)
            std::swap(rows[j - 1], rows[j]);
    }
}

bool SameUnique6(const Value& a, const Value& b, bool single) {
    const SlowKey x = SlowKeyOf(a), y = SlowKeyOf(b);
    if (x.cls != y.cls) return false;
    if (x.cls == 2) return x.txt == y.txt;
    if (x.cls == 0) return true;
    double u = a.isDate() ? a.toDouble() : 0, w = b.isDate() ? b.toDouble() : 0;
    if (!a.isDate()) NumericOf(a, u);
    if (!b.isDate()) NumericOf(b, w);
    if (x.cls == 3) return x.num == y.num;
    if (single && !a.isDate()) u = static_cast<float>(u);
    if (single && !b.isDate()) w = static_cast<float>(w);
    return std::round(u * 1e6) == std::round(w * 1e6);
}

Value RandomCell(std::mt19937& rng) {
    static const char* words[] = {"abc", "ABC", "b", "Zeta", "zeta", "a b", "", "alpha"};
    static const double near[] = {1.0000001, 1.0000002, 1.0000005, 1.0000006, 1.0, 0.9999999};
    switch (rng() % 14) {
        case 0: return Value();
        case 1: return Value(words[rng() % 8]);
        case 2: return Value(near[rng() % 6]);
        case 3: return Value(static_cast<int32_t>(rng() % 7) - 3);
        case 4: return Value(static_cast<double>(rng() % 5) + 0.25);
        case 5: return Value(static_cast<float>(rng() % 5) + 0.25f);
        case 6: return Value(std::to_string(rng() % 7));  // numeric text ties numbers
        case 7: return Value(std::to_string(rng() % 4) + "%");
        case 8: return Value::date(45000 + rng() % 3);
        case 9: return Value(rng() % 2 == 0);
        case 10: return Value::error(2007 + static_cast<int>(rng() % 2));
        case 11: return Value(static_cast<int16_t>(rng() % 3));
        case 12: return Value(1e7 + static_cast<double>(rng() % 3));  // 7 digits of large numbers
        default: return Value(std::ldexp(static_cast<double>(rng() % 1000), -7));
    }
}

Datam RandomTable(std::mt19937& rng, int rows) {
    Datam m(rows, 4, 0, 0);
    m(0, 1) = Value("Key");
    m(0, 2) = Value("Second");
    m(0, 3) = Value("Source");
    for (int r = 1; r <= rows; ++r) {
        m(r, 0) = Value("row" + std::to_string(r));
        m(r, 1) = RandomCell(rng);
        m(r, 2) = Value(static_cast<int32_t>(rng() % 3));
        m(r, 3) = Value(static_cast<int32_t>(r));
        m(r, 4) = RandomCell(rng);
    }
    return m;
}

void ExpectRowsAre(const Datam& sorted, const Datam& src, const std::vector<int>& rows) {
    ASSERT_TRUE(sorted.isArray());
    ASSERT_EQ(sorted.rowUb(), src.rowUb());
    for (int c = src.colLb(); c <= src.colUb(); ++c) EXPECT_TRUE(sorted(0, c).identical(src(0, c)));
    for (size_t i = 0; i < rows.size(); ++i)
        for (int c = src.colLb(); c <= src.colUb(); ++c)
            ASSERT_TRUE(sorted(static_cast<int>(i) + 1, c).identical(src(rows[i], c)))
                << "sorted row " << i + 1 << " column " << c << " should be source row " << rows[i];
}

std::vector<int> DataRows(const Datam& m) {
    std::vector<int> rows;
    for (int r = 1; r <= m.rowUb(); ++r) rows.push_back(r);
    return rows;
}

class SortTest : public ::testing::Test {
protected:
    void SetUp() override { SetEscPressed(false); }
};

}  // namespace

TEST_F(SortTest, SingleKeyMatchesExchangeSortIncludingUniqueTable) {
    std::mt19937 rng(1234);
    for (int trial = 0; trial < 40; ++trial) {
        const Datam m = RandomTable(rng, 5 + trial * 6);
        for (int col : {1, 2, 4})
            for (bool desc : {false, true}) {
                std::vector<int> rows = DataRows(m);
                ExchangeSort(m, rows, {col}, {desc});
                Datam header, unique;
                const Datam fast = mat_sortCol(m, col, desc, &header, &unique);
                ExpectRowsAre(fast, m, rows);
                EXPECT_EQ(mat_sortOrder(m, col, desc), rows);
                EXPECT_TRUE(header(3, 1).identical(Value("Source")));

                // Unique table: runs of equal values (6 decimals of the 32-bit value).
                std::vector<std::pair<int, int>> runs;  // first sorted row, last sorted row
                for (int i = 1; i <= m.rowUb(); ++i) {
                    if (runs.empty() ||
                        !SameUnique6(fast(runs.back().first, col), fast(i, col), true))
                        runs.emplace_back(i, i);
                    else
                        runs.back().second = i;
                }
                ASSERT_EQ(unique.rowUb(), static_cast<int>(runs.size()));
                EXPECT_EQ(unique(0, 2).str(), "Count");
                EXPECT_EQ(unique(0, 3).str(), "SortOrder");
                EXPECT_TRUE(unique(0, 1).identical(m(0, col)));
                for (size_t u = 0; u < runs.size(); ++u) {
                    const int ur = static_cast<int>(u) + 1;
                    EXPECT_TRUE(unique(ur, 1).identical(fast(runs[u].first, col)));
                    EXPECT_EQ(unique(ur, 2).toLong(), runs[u].second - runs[u].first + 1);
                    EXPECT_EQ(unique(ur, 3).toLong(), runs[u].second);
                }
            }
    }
}

TEST_F(SortTest, SeveralKeysMatchRunByRunAndHierarchicalSorts) {
    std::mt19937 rng(99);
    for (int trial = 0; trial < 30; ++trial) {
        const Datam m = RandomTable(rng, 10 + trial * 7);
        Datam keys(2, 2, 1, 1);
        keys(1, 1) = Value(int32_t(2));
        keys(2, 1) = Value(int32_t(1));
        keys(2, 2) = Value(trial % 2 == 1);

        // Run by run: a plain lexicographic exchange sort.
        std::vector<int> rows = DataRows(m);
        ExchangeSort(m, rows, {2, 1}, {false, trial % 2 == 1});
        ExpectRowsAre(mat_sort(m, keys, nullptr, false), m, rows);
        ExpectRowsAre(mat_SheetSort(m, keys), m, rows);

        // Hierarchical: sort on the first key, then each group of equal values
        // (6 decimals, 64-bit) on the second.
        std::vector<int> h = DataRows(m);
        ExchangeSort(m, h, {2}, {false});
        std::vector<int> out;
        for (size_t s = 0; s < h.size();) {
            size_t e = s + 1;
            while (e < h.size() && SameUnique6(m(h[s], 2), m(h[e], 2), false)) ++e;
            std::vector<int> g(h.begin() + static_cast<long>(s), h.begin() + static_cast<long>(e));
            ExchangeSort(m, g, {1}, {trial % 2 == 1});
            out.insert(out.end(), g.begin(), g.end());
            s = e;
        }
        ExpectRowsAre(mat_sort(m, keys), m, out);
    }
}

TEST_F(SortTest, NearEqualFloatsAreOneKeyAndKeepTheirOrder) {
    Datam m = Datam::fromRows({{"Value", "Tag"}, {1.0000002, "first"}, {1.0000001, "second"},
                               {0.5, "third"}, {"1.0000001", "fourth"}},
                              0, 1);
    Datam unique;
    const Datam s = mat_sortCol(m, 1, false, nullptr, &unique);
    EXPECT_EQ(s(1, 2).str(), "third");
    EXPECT_EQ(s(2, 2).str(), "first");
    EXPECT_EQ(s(3, 2).str(), "second");
    EXPECT_EQ(s(4, 2).str(), "fourth");
    ASSERT_EQ(unique.rowUb(), 2);
    EXPECT_EQ(unique(2, 2).toLong(), 3);
    EXPECT_EQ(unique(2, 3).toLong(), 4);
    EXPECT_EQ(CompareKeys(Value(16777217.0), Value(16777216.0)), 0);  // one float
    EXPECT_LT(CompareKeys(Value(), Value(-1e30)), 0);                  // empty first
    EXPECT_LT(CompareKeys(Value(1e30), Value("")), 0);                 // then numbers, text
    EXPECT_LT(CompareKeys(Value("B"), Value("a")), 0);                 // binary order
    EXPECT_EQ(CompareKeys(Value("12%"), Value(12)), 0);
}

TEST_F(SortTest, SevenDigitKeysAgreeWithTheTextForm) {
    // Near ties of the eighth digit and magnitudes across the float range.
    std::mt19937 rng(7);
    std::vector<double> xs = {10000005, 10000015, 16777215, 1.0000005, 0.12345675, 9999999.5,
                              99999995, 1e-20, 3.4e38, -2.5e-7};
    for (int i = 0; i < 20000; ++i) {
        const double mant = 1 + static_cast<double>(rng() % 9000000) / 1e6;
        xs.push_back((rng() % 2 ? -1 : 1) * mant * std::pow(10.0, static_cast<int>(rng() % 60) - 30));
    }
    for (size_t i = 0; i + 1 < xs.size(); ++i) {
        const Value a(xs[i]), b(xs[i + 1]), c(static_cast<double>(static_cast<float>(xs[i]) * 1.0000001f));
        ASSERT_EQ(CompareKeys(a, b), SlowCmp(a, b)) << xs[i] << " " << xs[i + 1];
        ASSERT_EQ(CompareKeys(a, c), SlowCmp(a, c)) << xs[i];
    }
}

TEST_F(SortTest, EscapeLeavesTheRowsSeenSoFarSorted) {
    Datam m(100, 1, 0, 1);
    for (int r = 1; r <= 100; ++r) m(r, 1) = Value(static_cast<double>(101 - r));
    SetEscPressed(true);
    const Datam s = mat_sortCol(m, 1);
    // The first tenth was walked: those rows are in order, the rest untouched.
    for (int r = 1; r <= 10; ++r) EXPECT_EQ(s(r, 1).toDouble(), 90 + r);
    for (int r = 11; r <= 100; ++r) EXPECT_EQ(s(r, 1).toDouble(), 101 - r);
}

TEST_F(SortTest, ProgressGoesToTheCallerEachTenth) {
    Datam m(100, 1, 0, 1);
    for (int r = 1; r <= 100; ++r) m(r, 1) = Value(static_cast<double>(101 - r));
    std::vector<int> seen;
    Notes n;
    n.progress = [&](int percent) { seen.push_back(percent); };
    EXPECT_EQ(mat_sortCol(m, 1, false, nullptr, nullptr, &n)(1, 1).toDouble(), 1);
    const std::vector<int> expected{10, 20, 30, 40, 50, 60, 70, 80, 90, -1};
    EXPECT_EQ(seen, expected);
    EXPECT_FALSE(n.failure);
    EXPECT_TRUE(n.warnings.empty());
}

TEST_F(SortTest, FailureMessagesAndSmallCases) {
    // The text of the failure each call hands back.
    auto failed = [](const Notes& n) {
        EXPECT_TRUE(n.failure.has_value());
        return n.failure ? n.failure->message() : std::string();
    };
    Notes n;
    EXPECT_FALSE(mat_sortCol(Datam(0, 2, 0, 1), 1, false, nullptr, nullptr, &n).isArray());
    EXPECT_NE(failed(n).find("MathUtil(mat_sortCol): \r\nNo data rows provided."),
              std::string::npos);

    n = Notes();
    EXPECT_FALSE(mat_SheetSort(Datam(), 1, false, nullptr, &n).isArray());
    EXPECT_NE(failed(n).find("Input data is not a matrix or has no data in it."),
              std::string::npos);
    const Datam m = Datam::fromRows({{"A", "B"}, {2, 1}, {1, 2}}, 0, 1);
    n = Notes();
    EXPECT_FALSE(mat_SheetSort(m, kMissing, false, nullptr, &n).isArray());
    EXPECT_NE(failed(n).find("Sort column or vector not given."), std::string::npos);
    n = Notes();
    EXPECT_FALSE(mat_SheetSort(m, 3, false, nullptr, &n).isArray());
    EXPECT_NE(failed(n).find(
                  "Insufficient rows/columns in input data matrix: (row,col)=(2, 2)"),
              std::string::npos);
    n = Notes();
    EXPECT_EQ(mat_SheetSort(m, 1, false, nullptr, &n)(1, 1).toLong(), 1);
    EXPECT_FALSE(n.failure);

    EXPECT_FALSE(vec_sort(Datam(0, 1, 0, 1), false, &n).isArray());
    ASSERT_EQ(n.warnings.size(), 1u);
    EXPECT_EQ(n.warnings.back().text, "Vec_sort: no rows in vector");
    EXPECT_FALSE(n.failure);

    // A routine that fails in a routine it calls hands on that failure.
    n = Notes();
    EXPECT_FALSE(mat_sort(Datam(3, 1, 0, 1), 1, false, nullptr, &n).isArray());
    EXPECT_EQ(failed(n), "MathUtil(mat_sortCol): \r\nNo data rows provided. chk: 0");

    // One data row: the table as it is and a one-value unique table.
    Datam unique;
    const Datam one = Datam::fromRows({{"Dose"}, {21.5}}, 0, 1);
    EXPECT_EQ(mat_sort(one, 1, false, &unique)(1, 1).toDouble(), 21.5);
    EXPECT_EQ(unique(0, 2).str(), "Count");
    EXPECT_EQ(unique(1, 1).toDouble(), 21.5);
    EXPECT_EQ(unique(1, 2).toLong(), 1);
}

TEST_F(SortTest, UniqueValuesCountGroupsAtSixDecimals) {
    Datam m = Datam::fromRows({{"Site", "x"},
                               {3, 0},
                               {"b", 0},
                               {1.0000001, 0},
                               {1, 0},
                               {3.0000004, 0},
                               {"b", 0},
                               {"B", 0},
                               {1.000002, 0}},
                              0, 1);
    Value header;
    const Datam u = GetUniqueValues(m, 1, &header);
    EXPECT_EQ(header.str(), "Site");
    EXPECT_EQ(u(0, 1).str(), "Site");
    EXPECT_EQ(u(0, 2).str(), "Count");
    ASSERT_EQ(u.rowUb(), 5);
    EXPECT_EQ(u(1, 1).toDouble(), 1.0000001);  // 1 and 1.0000001 are one value
    EXPECT_EQ(u(1, 2).toLong(), 2);
    EXPECT_EQ(u(2, 1).toDouble(), 1.000002);
    EXPECT_EQ(u(3, 1).toDouble(), 3);
    EXPECT_EQ(u(3, 2).toLong(), 2);
    EXPECT_EQ(u(4, 1).str(), "B");
    EXPECT_EQ(u(5, 1).str(), "b");
    EXPECT_EQ(u(5, 2).toLong(), 2);

    // The row key column of a 0-based table, as the group sums of squares use it.
    const Datam keyed = Datam::fromRows({{"Key", "v"}, {2, 1}, {1, 1}, {2, 1}}, 0, 0);
    const Datam byKey = GetUniqueValues(mat_sort(keyed, 0), 0, nullptr, true);
    ASSERT_EQ(byKey.rowUb(), 2);
    EXPECT_EQ(byKey(0, 1).str(), "Key");
    EXPECT_EQ(byKey(2, 1).toLong(), 2);
    EXPECT_EQ(byKey(2, 2).toLong(), 2);

    const Datam single = GetUniqueValues(Datam::fromRows({{"H"}, {"only"}}, 0, 1), 1);
    ASSERT_EQ(single.rowUb(), 1);
    EXPECT_EQ(single(1, 2).toLong(), 1);
}
