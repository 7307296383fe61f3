#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "base/report.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "numerics/surface.h"

using namespace zorv;

namespace {

class MatrixTest : public ::testing::Test {};

Datam Column(std::initializer_list<Value> values) {
    Datam v(static_cast<int>(values.size()), 1, 1, 1);
    int r = 1;
    for (const auto& x : values) v(r++, 1) = x;
    return v;
}

}  // namespace

TEST_F(MatrixTest, LastRowAndLastColumn) {
    Datam headerOnly(5, 3, 0, 0);
    headerOnly(0, 1) = Value("X");
    headerOnly(0, 2) = Value("Y");
    EXPECT_EQ(mat_LastRow(headerOnly), 0);
    EXPECT_EQ(mat_LastRow(Datam(5, 3, 1, 1)), 1);  // blank, 1-based: still 1

    Datam m(6, 3, 0, 0);
    m(0, 1) = Value("X");
    m(0, 2) = Value("Y");
    m(0, 3) = Value("Z");
    m(4, 1) = Value("0");  // text 0 has length 1 and counts
    m(6, 1) = Value("");   // empty text does not
    m(5, 2) = Value(1.5);
    EXPECT_EQ(mat_LastRow(m), 4);  // stops at the first column with data
    EXPECT_EQ(mat_LastRow(m, 2), 5);
    EXPECT_EQ(mat_LastRow(m, 3), 0);
    m(0, 3) = Value();
    EXPECT_EQ(mat_LastCol(m), 2);
    EXPECT_EQ(mat_LastRow(m, 3), -1);  // beyond mat_LastCol
    EXPECT_EQ(mat_LastCol(m, true), 3);
    m(0, 3) = Value::error(2042);  // error cells are not a last column
    EXPECT_EQ(mat_LastCol(m), 2);

    // A one-dimensional array falls back to one subscript.
    Datam a = Datam::array1(5, 0);
    a.at(3) = Value(7);
    EXPECT_EQ(mat_LastRow(a), 3);
    EXPECT_EQ(mat_LastRow(Datam()), -1);

    const Datam b = mat_Bounds(Datam(9, 4, 0, 1));
    EXPECT_EQ(b(1, 1).toLong(), 0);
    EXPECT_EQ(b(1, 2).toLong(), 9);
    EXPECT_EQ(b(2, 1).toLong(), 1);
    EXPECT_EQ(b(2, 2).toLong(), 4);
}

TEST_F(MatrixTest, ExtremesSeedAndSkip) {
    EXPECT_EQ(mv_Max({Value(3), Value("x"), Value("12%"), Value(-4.0)}), 12);
    EXPECT_EQ(mv_Min({Value(3), Value("x"), Value(), Value(-4.0)}), -4);
    EXPECT_EQ(mv_Max({Value(-5), Value(-7)}), -5);  // the first entry seeds
    const Datam v = Column({Value(2), Value("abc"), Value(), Value(-1.5)});
    EXPECT_EQ(vec_Max(v), 2);
    EXPECT_EQ(vec_Min(v), -1.5);
    EXPECT_EQ(vec_Max(Column({Value("a")})), -3.402e38);
    EXPECT_EQ(vec_Min(Datam()), 3.402e38);
}

TEST_F(MatrixTest, PartitionHeadersAndBounds) {
    Datam m = Datam::fromRows({{"Key", "X", "Y", "Z"},
                               {"r1", 1, 10, 100},
                               {"r2", 2, 20, 200},
                               {"r3", 3, 30, 300}},
                              0, 0);
    // Defaults: the whole data part; the header row comes along.
    const Datam all = mat_partition(m);
    EXPECT_EQ(all.rowLb(), 0);
    EXPECT_EQ(all.rowUb(), 3);
    EXPECT_EQ(all.colUb(), 3);
    EXPECT_EQ(all(0, 1).str(), "X");
    EXPECT_EQ(all(3, 3).toLong(), 300);

    const Datam part = mat_partition(m, 2, 2, 3, 3);
    EXPECT_EQ(part.rowUb(), 2);
    EXPECT_EQ(part.colUb(), 2);
    EXPECT_EQ(part(0, 1).str(), "Y");
    EXPECT_EQ(part(1, 1).toLong(), 20);
    EXPECT_EQ(part(2, 2).toLong(), 300);
    EXPECT_TRUE(part(1, 0).isEmpty());
    // A row key column fills column 0 of the result.
    EXPECT_EQ(mat_partition(m, 2, 2, 3, 3, 0)(2, 0).str(), "r3");

    // A header in the middle of a 1-based table is found by the upward search.
    Datam blocks = Datam::fromRows({{"Focus", "Dose"}, {1, 2}, {"Focus", "CD"}, {5, 6}, {7, 8}},
                                   1, 1);
    const Datam lower = mat_partition(blocks, 4, 1, -1, 2);
    EXPECT_EQ(lower.rowLb(), 0);
    EXPECT_EQ(lower(0, 2).str(), "CD");
    EXPECT_EQ(lower(1, 1).toLong(), 5);
    EXPECT_EQ(lower.rowUb(), 2);
}

TEST_F(MatrixTest, AppendDeleteSwapDropAndFill) {
    const Datam a = Datam::fromRows({{"A", "B"}, {1, 2}}, 0, 1);
    const Datam b = Datam::fromRows({{"A", "B"}, {3, 4}, {5, 6}}, 0, 1);
    const Datam rows = mat_append(a, b, "AddRows");
    EXPECT_EQ(rows.rowUb(), 3);
    EXPECT_EQ(rows(3, 2).toLong(), 6);
    const Datam cols = mat_append(a, b, "ADDCOLUMNS");
    EXPECT_EQ(cols.colUb(), 4);
    EXPECT_EQ(cols(0, 3).str(), "A");
    EXPECT_EQ(cols(2, 4).toLong(), 6);
    EXPECT_TRUE(cols(2, 1).isEmpty());

    const Datam m = Datam::fromRows({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 1, 1);
    const Datam noRow = mat_delrc(m, Column({Value(1), Value(3), Value("x")}), true);
    ASSERT_EQ(noRow.rowUb(), 1);
    EXPECT_EQ(noRow(1, 3).toLong(), 6);
    const Datam noCol = mat_delrc(m, 2, false);
    EXPECT_EQ(noCol.colUb(), 2);
    EXPECT_EQ(noCol(3, 2).toLong(), 9);
    EXPECT_EQ(mat_delrc(m, Datam(), true).rowUb(), 3);  // empty list: nothing removed

    Datam s = m;
    EXPECT_TRUE(mat_SwapRows(s, 1, 3));
    EXPECT_EQ(s(1, 1).toLong(), 7);
    EXPECT_EQ(s(3, 3).toLong(), 3);
    Notes swap;
    EXPECT_FALSE(mat_SwapRows(s, 0, 3, &swap));
    ASSERT_TRUE(swap.failure);
    EXPECT_NE(swap.failure->message().find("MathUtil(mat_SwapRows): "), std::string::npos);

    const Datam d = vec_DropEmpty(Column({Value(), Value(1), Value::null(), Value(""), Value(2)}));
    ASSERT_EQ(d.rowUb(), 3);
    EXPECT_EQ(d(2, 1).str(), "");
    EXPECT_FALSE(vec_DropEmpty(Column({Value(), Value::null()})).isArray());

    const Datam f = vec_Fill(3, Value(-999.9));
    EXPECT_EQ(f.rowLb(), 0);
    EXPECT_EQ(f.rowUb(), 3);
    EXPECT_EQ(f(0, 1).toDouble(), -999.9);

    Datam r = Datam::fromRows({{"h"}, {1}}, 0, 1);
    mat_redim(r, 3, 2);
    EXPECT_EQ(r.rowLb(), 0);
    EXPECT_EQ(r.rowUb(), 3);
    EXPECT_EQ(r(1, 1).toLong(), 1);

    const Datam col = mat_vector(m, false, 2);
    EXPECT_EQ(col(3, 1).toLong(), 8);
    EXPECT_EQ(mat_vector(m, true, 2)(3, 1).toLong(), 6);
    EXPECT_EQ(mat_diag(m)(3, 1).toLong(), 9);
}

TEST_F(MatrixTest, ArithmeticSkipsEmptyAndText) {
    const Datam v = Column({Value(4), Value(), Value("text"), Value("-2"), Value(9)});
    const Datam sc = mat_scale(v, 2);
    EXPECT_EQ(sc(1, 1).toDouble(), 8);
    EXPECT_TRUE(sc(2, 1).isEmpty());
    EXPECT_EQ(sc(3, 1).str(), "text");
    EXPECT_EQ(sc(4, 1).toDouble(), -4);

    const Datam minus = vec_sub(v, 1.5);  // a number: from all rows
    EXPECT_EQ(minus(1, 1).toDouble(), 2.5);
    EXPECT_EQ(minus(5, 1).toDouble(), 7.5);
    EXPECT_TRUE(minus(2, 1).isEmpty());

    Notes sub;
    const Datam shorter = vec_sub(v, Column({Value(1), Value(1), Value(1)}), &sub);
    EXPECT_EQ(shorter.rowUb(), 3);
    EXPECT_FALSE(sub.failure);
    ASSERT_EQ(sub.warnings.size(), 1u);
    EXPECT_EQ(sub.warnings[0].text, "Warning: unequal length vectors in Subtraction.");
    EXPECT_TRUE(sub.warnings[0].statusLine);
    EXPECT_FALSE(vec_sub(v, MatOperand(), &sub).isArray());
    ASSERT_TRUE(sub.failure);
    EXPECT_NE(sub.failure->message().find("MathUtility(vec_sub): \r\nSecond vector not submitted."),
              std::string::npos);
    EXPECT_EQ(sub.failure->boxFlags(), vbInformation);

    EXPECT_EQ(vec_abs(v)(4, 1).toDouble(), 2);
    EXPECT_EQ(vec_sqrt(v)(5, 1).toDouble(), 3);
    EXPECT_TRUE(vec_sqrt(v)(4, 1).isEmpty());
    EXPECT_EQ(vec_pow(v, 2)(4, 1).toDouble(), 4);
    EXPECT_EQ(vec_recip(v)(1, 1).toDouble(), 0.25);
    EXPECT_EQ(vec_mul(v, v)(5, 1).toDouble(), 81);
    EXPECT_EQ(vec_div(v, Column({Value(2), Value(1), Value(1), Value(0), Value(3)}))(5, 1).toDouble(), 3);

    const Datam sum = mat_sum({v, v, 1.0});
    EXPECT_EQ(sum(1, 1).toDouble(), 9);
    EXPECT_TRUE(sum(2, 1).isEmpty());

    const Datam m = Datam::fromRows({{"k", "A", "B"}, {"r", 1, 2}, {"s", 3, Value()}}, 0, 0);
    RegionTouched t;
    const Datam mr = mat_mulRegion(m, m, &t);
    EXPECT_EQ(mr(2, 1).toDouble(), 9);
    EXPECT_TRUE(mr(2, 2).isEmpty());
    EXPECT_EQ(mr(1, 0).str(), "r");
    EXPECT_EQ(t.minRow, 1);
    EXPECT_EQ(t.maxRow, 2);
    EXPECT_EQ(t.maxCol, 2);

    const Datam scaled = mat_scaleCols(m, Column({Value(10), Value(100)}));
    EXPECT_EQ(scaled(2, 1).toDouble(), 30);
    EXPECT_EQ(scaled(1, 2).toDouble(), 200);
    EXPECT_EQ(scaled(0, 1).str(), "A");

    const Datam prod = mat_vecProduct(m, Column({Value(1), Value(10)}));
    EXPECT_EQ(prod(1, 1).toDouble(), 21);
    EXPECT_EQ(prod(2, 1).toDouble(), 3);

    Datam means;
    const Datam centred = mat_center(m, 1, 2, &means);
    EXPECT_EQ(means(1, 1).toDouble(), 2);
    EXPECT_EQ(centred(1, 1).toDouble(), -1);
    EXPECT_EQ(centred(1, 2).toDouble(), 0);
    Datam cv = Column({Value(1), Value(2), Value(6)});
    EXPECT_EQ(vec_center(cv), 3);
    EXPECT_EQ(cv(3, 1).toDouble(), 3);
}

TEST_F(MatrixTest, VectorStatisticsByHand) {
    const Datam v = Column({Value(2), Value(4), Value(), Value("x"), Value(4), Value(5), Value(5),
                            Value(7), Value(9), Value(4)});
    // 2 4 4 4 5 5 7 9: mean 5, sum of squared deviations 32, n 8.
    int n = 0;
    EXPECT_DOUBLE_EQ(vec_Mean(v), 5);
    EXPECT_DOUBLE_EQ(vec_Sum(v), 40);
    EXPECT_DOUBLE_EQ(vec_SS(v), 232);
    EXPECT_DOUBLE_EQ(vec_SS(v, true), 32);
    EXPECT_DOUBLE_EQ(vec_StDev(v, &n), std::sqrt(32.0 / 7));
    EXPECT_EQ(n, 8);
    EXPECT_DOUBLE_EQ(vec_SEM(v), std::sqrt(32.0 / 7 / 8));
    EXPECT_EQ(vec_SEM(Column({Value(1), Value(2)})), -999);
    EXPECT_EQ(vec_StDev(Column({Value(1)})), 0);
    EXPECT_EQ(vec_Mean(Datam()), 0);

    EXPECT_EQ(svd_Sign(-3, 0), 3);
    EXPECT_EQ(svd_Sign(3, -1), -3);
    for (double x : {-1.0, -0.7, 0.0, 0.3, 1.0}) {
        EXPECT_NEAR(ArcSin(x), std::asin(x), 1e-12);
        EXPECT_NEAR(ArcCos(x), std::acos(x), 1e-12);
    }
}

TEST_F(MatrixTest, RcStatNamesMarksAndSummary) {
    Datam m = Datam::fromRows({{"Key", "CD", "Pct", "Marked", "Blank"},
                               {"a", 10, "12%", -999.9, Value()},
                               {"b", 14, "5", -999.9001, Value()},
                               {"c", "12", "x", 3, Value()},
                               {"d", Value(), 7, -999.90001, Value()}},
                              0, 0);
    auto one = [&](const char* name, int col) { return mat_rcstat(m, name, true, col)(1, 1); };
    EXPECT_EQ(one("count", 1).toLong(), 3);
    EXPECT_TRUE(IsNumericValue(Value("12%")));
    EXPECT_EQ(one("Count", 2).toLong(), 2);  // 12% is not plainly numeric
    EXPECT_EQ(one("COUNT", 3).toLong(), 2);  // -999.9 and its 32-bit twin -999.90001 do not count
    for (const char* n : {"MEAN", "AVERAGE", "AVE"}) EXPECT_DOUBLE_EQ(one(n, 1).toDouble(), 12);
    for (const char* n : {"SS", "SUM OF SQUARES", "SumSquares"})
        EXPECT_DOUBLE_EQ(one(n, 1).toDouble(), 440);
    EXPECT_DOUBLE_EQ(one("SUM", 1).toDouble(), 36);
    for (const char* n : {"STDEV", "STDERR", "SIGMA"}) EXPECT_DOUBLE_EQ(one(n, 1).toDouble(), 2);
    EXPECT_DOUBLE_EQ(one("VARIANCE", 1).toDouble(), 4);
    EXPECT_DOUBLE_EQ(one("SEM", 1).toDouble(), std::sqrt(4.0 / 3));
    EXPECT_DOUBLE_EQ(one("RMSS", 1).toDouble(), std::sqrt(440.0 / 3));
    EXPECT_DOUBLE_EQ(one("RANGE", 1).toDouble(), 4);
    EXPECT_DOUBLE_EQ(one("MAXIMUM", 3).toDouble(), 3);
    EXPECT_NEAR(one("MINIMUM", 3).toDouble(), -999.9001, 1e-4);
    EXPECT_NEAR(one("MINMAX", 3).toDouble(), -999.9001, 1e-4);
    EXPECT_TRUE(one("MEAN", 4).isEmpty());

    Datam summary;
    bool has = false;
    const Datam all = mat_rcstat(m, "MEAN", true, -1, &summary, nullptr, &has);
    EXPECT_TRUE(has);
    ASSERT_EQ(all.rowUb(), 4);
    EXPECT_DOUBLE_EQ(all(2, 1).toDouble(), 6);
    EXPECT_EQ(summary(1, 0).str(), "Count");
    EXPECT_EQ(summary(3, 0).str(), "Median");
    EXPECT_EQ(summary(14, 0).str(), "RMSS");
    EXPECT_EQ(summary(0, 1).str(), "CD");
    EXPECT_DOUBLE_EQ(summary(3, 1).toDouble(), 12);  // midrange (10 + 14) / 2
    EXPECT_DOUBLE_EQ(summary(3, 2).toDouble(), 6);   // midrange of 5 and 7, mean also 6
    EXPECT_DOUBLE_EQ(summary(9, 1).toDouble(), 18);  // |12| + |3 * 2|
    EXPECT_TRUE(summary(2, 4).isEmpty());

    // A date counts through its serial value; the range table limits the rows.
    Datam d = Datam::fromRows({{"When"}, {Value::date(45000)}, {Value::date(45002)}, {1}}, 0, 1);
    EXPECT_DOUBLE_EQ(mat_rcstat(d, "MEAN", true, 1)(1, 1).toDouble(), (45000 + 45002 + 1) / 3.0);
    const Datam rows12 = Datam::fromRows({{1, 2}}, 1, 1);
    EXPECT_DOUBLE_EQ(mat_rcstat(d, "MEAN", true, 1, nullptr, &rows12)(1, 1).toDouble(), 45001);

    // Rows instead of columns.
    EXPECT_DOUBLE_EQ(mat_rcstat(m, "SUM", false, 3)(1, 1).toDouble(), 15);

    has = true;
    Notes n;
    const Datam none = mat_rcstat(Datam::fromRows({{"A"}, {"x"}}, 0, 1), "MEAN", true, -1,
                                  nullptr, nullptr, &has, &n);
    EXPECT_FALSE(has);
    EXPECT_TRUE(none(1, 1).isEmpty());
    ASSERT_EQ(n.warnings.size(), 1u);
    EXPECT_EQ(n.warnings.back().text, "No data in input matrix.");
    EXPECT_TRUE(n.warnings.back().statusLine);
    EXPECT_FALSE(n.failure);
}

TEST_F(MatrixTest, FindColumnAndRowNumber) {
    const Datam m = Datam::fromRows({{"Key", "XLOC", "Yloc", 0.1, "XLOC"},
                                     {"site1", 1, 2, 3, 4},
                                     {"SITE2", 5, 6, 7, 8}},
                                    0, 0);
    EXPECT_EQ(FindColumn(m, "Xloc"), 4);  // the highest match
    EXPECT_EQ(FindColumn(m, "YLOC"), 2);
    EXPECT_EQ(FindColumn(m, 0.1000001), 3);  // numbers at "0.000000"
    EXPECT_EQ(FindColumn(m, "0.1"), 3);
    EXPECT_LE(FindColumn(m, "Zloc"), 0);
    EXPECT_EQ(FindColumn(m, "Xloc", 0, 1), 4);
    EXPECT_EQ(FindColumn(Datam::fromRows({{"A", "B"}}, 0, 1), "C"), 0);
    EXPECT_EQ(RowNumber(m, "site2"), 2);
    EXPECT_EQ(RowNumber(m, 7, 3), 2);
    EXPECT_EQ(RowNumber(m, "7.0000001", 3), 2);
    EXPECT_LE(RowNumber(m, 7.00001, 3), 0);
    EXPECT_EQ(RowNumber(Datam::fromRows({{"k"}, {true}, {-2.5e-7}}, 0, 1), "TRUE", 1), 1);
    EXPECT_EQ(RowNumber(Datam::fromRows({{"k"}, {true}, {-2.5e-7}}, 0, 1), -1, 1), 1);  // True is -1
    EXPECT_LE(RowNumber(m, "site3"), 0);
}

TEST_F(MatrixTest, FindNearestRulesAndMessages) {
    const Datam m = Datam::fromRows({{"Dose"}, {20}, {22}, {Value("")}, {24}, {21}, {"x"}, {23}},
                                    0, 1);
    EXPECT_EQ(mv_FindNearest(22, m, 1), 2);   // exact match ends the walk
    EXPECT_EQ(mv_FindNearest(21.5, m, 1), 2);  // 22 and 21 equally near: the first wins
    EXPECT_EQ(mv_FindNearest(100, m, 1), 4);
    EXPECT_EQ(mv_FindNearest(22.9, m, 1), 7);

    const Datam dates = Datam::fromRows({{"When"}, {Value::date(45000.25)}, {Value::date(45003)}}, 0, 1);
    EXPECT_EQ(mv_FindNearest(45002, dates, 1), 2);

    Notes n;
    EXPECT_EQ(mv_FindNearest(1, m, 3, true, &n), -1);
    ASSERT_TRUE(n.failure);
    EXPECT_NE(n.failure->message().find("Math(mv_FindNearest): \r\nColumn number '3' is greater "
                                        "than the number of columns in data."),
              std::string::npos);
    EXPECT_EQ(mv_FindNearest(1, Datam::fromRows({{"Dose"}}, 0, 1), 1, true, &n), -1);
    EXPECT_NE(n.failure->message().find("Less than one data point in input matrix."),
              std::string::npos);
}

TEST_F(MatrixTest, StdErrColumns) {
    Datam m = Datam::fromRows({{"A"}, {1}, {2}, {3}, {Value()}}, 0, 1);
    mat_StdErrCols(m);
    EXPECT_DOUBLE_EQ(m(1, 1).toDouble(), -1);
    EXPECT_DOUBLE_EQ(m(3, 1).toDouble(), 1);
    EXPECT_TRUE(m(4, 1).isEmpty());
}

// Tables with a header row but no data row, or no column at all, reach the
// toolkit from empty sheets: every entry point gives its neutral result.
TEST_F(MatrixTest, TablesWithoutRowsOrColumnsDoNotFail) {
    const Datam noRows(-1, 3, 0, 0), noCols(3, -1, 0, 0);
    for (const Datam* t : {&noRows, &noCols}) {
        Datam u;
        mat_sort(*t, 1, false, &u);
        EXPECT_FALSE(vec_DropEmpty(*t).isArray());
        EXPECT_EQ(LinearCorrelation(*t, *t), 0.0);
        EXPECT_EQ(svdfit_std(*t, *t, 0, true, true, 3, 0).result, -1);
        Datam g = *t;
        double lo = 0, hi = 0;
        surf_interpolate2(g, lo, hi);
    }
}
