// Quartiles against hand-worked cases, and the frequency form against the
// raw form on the expanded list.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "numerics/quartiles.h"

using namespace zorv;

namespace {

// A one-column table with a header row: rows 1..n, column 1.
Datam Cells(const std::vector<Value>& values) {
    Datam t(static_cast<int>(values.size()), 1, 0, 0);
    t(0, 1) = Value("Data");
    for (size_t i = 0; i < values.size(); ++i) t(static_cast<int>(i) + 1, 1) = values[i];
    return t;
}

Datam Column(const std::vector<double>& values) {
    return Cells(std::vector<Value>(values.begin(), values.end()));
}

double Pos(const Quartiles& q, int row) { return q.table(row, 2).toDouble(); }

}  // namespace

TEST(Quartiles, SixValuesHalveEvenly) {
    const Quartiles q = GetQuartiles(Column({1, 2, 3, 4, 5, 6}), 1);
    ASSERT_TRUE(q.ok());
    EXPECT_EQ(q.count(), 6);
    EXPECT_EQ(q.q0(), 1);
    EXPECT_EQ(q.q1(), 2);
    EXPECT_EQ(q.median(), 3.5);
    EXPECT_EQ(q.q3(), 5);
    EXPECT_EQ(q.q4(), 6);
    EXPECT_EQ(q.iqr(), 3);
    EXPECT_EQ(q.lowerFence, -2.5);
    EXPECT_EQ(q.upperFence, 9.5);
    // positions: Q1 is row 2 of rows 1..3, Q3 row 5 of rows 4..6
    EXPECT_EQ(Pos(q, 2), 1);
    EXPECT_EQ(Pos(q, 3), 2);
    EXPECT_EQ(Pos(q, 4), 3.5);
    EXPECT_EQ(Pos(q, 5), 5);
    EXPECT_EQ(Pos(q, 6), 6);
    // the labels and headers
    EXPECT_EQ(q.table(0, 1).str(), "Value");
    EXPECT_EQ(q.table(0, 2).str(), "Percentage");
    EXPECT_EQ(q.table(1, 0).str(), "Count");
    EXPECT_EQ(q.table(4, 0).str(), "Median");
    EXPECT_EQ(q.table(7, 0).str(), "IQR");
    // deciles by nearest rank (ceil(6 d / 10)) and the mean
    EXPECT_EQ(q.second(1, 0).str(), "10%");
    EXPECT_EQ(q.second(1, 1).toDouble(), 1);
    EXPECT_EQ(q.second(5, 1).toDouble(), 3);
    EXPECT_EQ(q.second(7, 2).toDouble(), 5);  // ceil(4.2)
    EXPECT_EQ(q.second(10, 1).toDouble(), 6);
    EXPECT_EQ(q.second(11, 0).str(), "Mean");
    EXPECT_EQ(q.second(11, 1).toDouble(), 3.5);
}

TEST(Quartiles, OddCountsShareTheMiddleRow) {
    // Seven: rows 1..4 and 4..7, both holding the fourth value (40).
    Quartiles q = GetQuartiles(Column({10, 20, 30, 40, 50, 60, 70}), 1);
    ASSERT_TRUE(q.ok());
    EXPECT_EQ(q.q1(), 25);  // (20 + 30) / 2
    EXPECT_EQ(q.median(), 40);
    EXPECT_EQ(q.q3(), 55);  // (50 + 60) / 2
    EXPECT_EQ(Pos(q, 3), 2.5);
    EXPECT_EQ(Pos(q, 5), 5.5);

    // Nine: rows 1..5 and, n/2 = 4.5 going to the even 4, rows 4..9.
    q = GetQuartiles(Column({1, 2, 3, 4, 5, 6, 7, 8, 9}), 1);
    ASSERT_TRUE(q.ok());
    EXPECT_EQ(q.q1(), 3);
    EXPECT_EQ(q.median(), 5);
    EXPECT_EQ(q.q3(), 6.5);  // six rows 4..9: mean of rows 6 and 7
    EXPECT_EQ(Pos(q, 3), 3);
    EXPECT_EQ(Pos(q, 5), 6.5);
    EXPECT_EQ(q.iqr(), 3.5);

    // Eleven: 5.5 goes to 6: rows 1..6 and 6..11.
    q = GetQuartiles(Column({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}), 1);
    EXPECT_EQ(q.q1(), 3.5);
    EXPECT_EQ(q.q3(), 8.5);
}

TEST(Quartiles, FewRowsAreReadDirectly) {
    Quartiles q = GetQuartiles(Column({8, 3}), 1);
    ASSERT_TRUE(q.ok());
    EXPECT_EQ(q.q0(), 3);
    EXPECT_EQ(q.q1(), 3);
    EXPECT_EQ(q.median(), 5.5);
    EXPECT_EQ(q.q3(), 8);
    EXPECT_EQ(q.q4(), 8);
    EXPECT_EQ(q.iqr(), 5);

    q = GetQuartiles(Column({5, 1, 4, 2, 3}), 1);
    EXPECT_EQ(q.q1(), 2);
    EXPECT_EQ(q.median(), 3);
    EXPECT_EQ(q.q3(), 4);

    q = GetQuartiles(Column({4, 1, 3, 2}), 1);
    EXPECT_EQ(q.q1(), 2);
    EXPECT_EQ(q.median(), 2.5);
    EXPECT_EQ(q.q3(), 3);

    // fewer than two values: no table
    EXPECT_FALSE(GetQuartiles(Column({7}), 1).ok());
    EXPECT_FALSE(GetQuartiles(Column(std::vector<double>{}), 1).ok());
}

TEST(Quartiles, UnsortedInputTextAndFloats) {
    // Text and empty cells are not values; the header row is not data.
    const Quartiles q =
        GetQuartiles(Cells(std::vector<Value>{Value(6.0), Value("x"), Value(2.0), Value(), Value(5.0),
                                               Value(1.0), Value("4"), Value(3.0)}),
                     1);
    ASSERT_TRUE(q.ok());
    EXPECT_EQ(q.count(), 6);
    EXPECT_EQ(q.q1(), 2);
    EXPECT_EQ(q.median(), 3.5);
    EXPECT_EQ(q.q3(), 5);

    // values are read as 32-bit floats
    const Quartiles f = GetQuartiles(Column({0.1, 0.2, 0.3}), 1);
    EXPECT_EQ(f.median(), double(0.2f));
    EXPECT_EQ(f.table(4, 1).type(), VType::Single);
}

TEST(Quartiles, ColumnBeyondTheTable) {
    Datam t(4, 3, 0, 0);
    for (int r = 1; r <= 4; ++r) t(r, 1) = Value(double(r));
    Notes notes;
    EXPECT_FALSE(GetQuartiles(t, 5, &notes).ok());
    ASSERT_TRUE(notes.failure.has_value());
    EXPECT_EQ(notes.failure->tag, "cGraphic(GetQuartiles): ");
    EXPECT_EQ(notes.failure->text,
              "Data array contains only '3' columns of data and column: 5 was specified for use.");

    Notes freqNotes;
    EXPECT_FALSE(GetQuartilesFreq(t, 1, 4, &freqNotes).ok());
    ASSERT_TRUE(freqNotes.failure.has_value());
    EXPECT_NE(freqNotes.failure->text.find("column: 4 was"), std::string::npos);
}

TEST(Quartiles, FrequenciesAgreeWithTheExpandedList) {
    std::mt19937 rng(17);
    std::uniform_int_distribution<int> level(-20, 20), freq(-1, 6), rows(1, 40);
    for (int trial = 0; trial < 300; ++trial) {
        const int n = rows(rng);
        Datam pairs(n, 2, 0, 0);
        std::vector<double> expanded;
        for (int r = 1; r <= n; ++r) {
            const double v = level(rng) * 0.25;  // repeated values on purpose
            const int f = freq(rng);
            pairs(r, 1) = Value(v);
            pairs(r, 2) = Value(double(f));
            for (int k = 0; k < f; ++k) expanded.push_back(v);
        }
        const Quartiles a = GetQuartilesFreq(pairs, 1, 2);
        const Quartiles b = GetQuartiles(Column(expanded), 1);
        ASSERT_EQ(a.ok(), b.ok()) << "trial " << trial;
        if (!a.ok()) continue;
        for (int r = 1; r <= 7; ++r)
            for (int c = 1; c <= 2; ++c)
                EXPECT_EQ(a.table(r, c).toDouble(), b.table(r, c).toDouble())
                    << "trial " << trial << " row " << r << " col " << c;
        for (int r = 1; r <= 11; ++r)
            EXPECT_NEAR(a.second(r, 1).toDouble(), b.second(r, 1).toDouble(), 1e-5)
                << "trial " << trial << " row " << r;
        EXPECT_EQ(a.lowerFence, b.lowerFence);
        EXPECT_EQ(a.upperFence, b.upperFence);
    }
}
