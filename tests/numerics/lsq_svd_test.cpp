// The decomposition: reconstruction, orthogonality, the enlarged short
// table, the tolerance rules of the solution, the silent stop; and the
// closed-form roots.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "numerics/lsq.h"
#include "numerics/svd.h"

using namespace zorv;

namespace {

Datam randomTable(int rows, int cols, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> nd(0, 1);
    Datam a(rows, cols, 0, 0);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j) a(i, j) = Value(nd(rng) * (1 + j));
    return a;
}

double cell(const Datam& t, int r, int c) { return t(r, c).toDouble(); }

void checkFactors(const Datam& a, int rows, int cols) {
    Datam u, w, v;
    svd_decompose(a, u, w, v);
    ASSERT_EQ(u.rowUb(), std::max(rows, cols));
    ASSERT_EQ(u.colUb(), cols);
    ASSERT_EQ(w.rowUb(), cols);
    ASSERT_EQ(v.rowUb(), cols);
    for (int k = 1; k <= cols; ++k) EXPECT_GE(cell(w, k, 1), 0.0);
    // u w v' = a, with the added rows zero.
    for (int i = 1; i <= u.rowUb(); ++i)
        for (int j = 1; j <= cols; ++j) {
            double s = 0;
            for (int k = 1; k <= cols; ++k) s += cell(u, i, k) * cell(w, k, 1) * cell(v, j, k);
            const double want = i <= rows ? cell(a, i, j) : 0.0;
            EXPECT_NEAR(s, want, 1e-11) << i << "," << j;
        }
    // v'v = I; u'u = I over the columns with a non-zero singular value.
    for (int p = 1; p <= cols; ++p)
        for (int q = 1; q <= cols; ++q) {
            double sv = 0, su = 0;
            for (int k = 1; k <= cols; ++k) sv += cell(v, k, p) * cell(v, k, q);
            for (int i = 1; i <= u.rowUb(); ++i) su += cell(u, i, p) * cell(u, i, q);
            EXPECT_NEAR(sv, p == q ? 1.0 : 0.0, 1e-12);
            if (cell(w, p, 1) > 1e-9 && cell(w, q, 1) > 1e-9) {
                EXPECT_NEAR(su, p == q ? 1.0 : 0.0, 1e-11);
            }
        }
}

}  // namespace

TEST(SvdDecompose, ReconstructsAndIsOrthogonal) {
    checkFactors(randomTable(12, 4, 1), 12, 4);      // Golub-Reinsch on the table
    checkFactors(randomTable(3000, 6, 2), 3000, 6);  // reduced by QR first
    checkFactors(randomTable(3, 5, 3), 3, 5);        // enlarged to a square
    checkFactors(randomTable(1, 1, 4), 1, 1);
}

TEST(SvdDecompose, SingularValuesAreNotSorted) {
    // A diagonal table keeps its values where they stand.
    Datam a = Datam::fromRows({{Value(), Value(), Value(), Value()},
                               {Value(), 1.0, 0.0, 0.0},
                               {Value(), 0.0, 5.0, 0.0},
                               {Value(), 0.0, 0.0, 3.0}});
    Datam u, w, v;
    svd_decompose(a, u, w, v);
    EXPECT_DOUBLE_EQ(cell(w, 1, 1), 1.0);
    EXPECT_DOUBLE_EQ(cell(w, 2, 1), 5.0);
    EXPECT_DOUBLE_EQ(cell(w, 3, 1), 3.0);
}

TEST(SvdDecompose, SilentStopAtIteration30) {
    // A NaN never passes the negligibility test: the sweep gives up after 30
    // iterations and returns what it has, without a word.
    std::vector<double> a = {1, 2, 3, std::nan(""), 5, 6, 7, 8, 10};
    std::vector<double> w(3), v(9);
    EXPECT_FALSE(svdk::golubReinsch(a.data(), 3, 3, w.data(), v.data()));
    std::vector<double> b = {4, 1, 0, 1, 3, 1, 0, 1, 2};
    EXPECT_TRUE(svdk::golubReinsch(b.data(), 3, 3, w.data(), v.data()));
}

TEST(SvdCoeffs, ToleranceRules) {
    // Columns 1 and 2 identical: one singular value is (numerically) zero.
    Datam a(6, 3, 0, 0), b(6, 1, 0, 0);
    for (int i = 1; i <= 6; ++i) {
        a(i, 1) = Value(static_cast<double>(i));
        a(i, 2) = Value(static_cast<double>(i));
        a(i, 3) = Value(1.0 / i);
        b(i, 1) = Value(2.0 * i + 3.0 / i);
    }
    Datam u, w, v;
    svd_decompose(a, u, w, v);
    float tol = 0;
    Datam x = svd_coeffs(b, u, w, v, tol);
    EXPECT_FLOAT_EQ(tol, static_cast<float>(std::exp(-12.0)));  // 0 came back replaced
    int zeros = 0;
    for (int k = 1; k <= 3; ++k) zeros += cell(w, k, 1) == 0.0;  // edited in place
    EXPECT_EQ(zeros, 1);
    EXPECT_NEAR(cell(x, 1, 1), 1.0, 1e-9);  // the minimum-norm split of 2
    EXPECT_NEAR(cell(x, 2, 1), 1.0, 1e-9);
    EXPECT_NEAR(cell(x, 3, 1), 3.0, 1e-9);
    // The covariance sees the edited values: wti of a zero w is 0.
    Datam cvm = svd_covariance(v, w);
    ASSERT_EQ(cvm.rowUb(), 3);
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j) {
            double s = 0;
            for (int k = 1; k <= 3; ++k)
                if (cell(w, k, 1) != 0)
                    s += cell(v, i, k) * cell(v, j, k) / (cell(w, k, 1) * cell(w, k, 1));
            EXPECT_DOUBLE_EQ(cell(cvm, i, j), s);
            EXPECT_DOUBLE_EQ(cell(cvm, i, j), cell(cvm, j, i));
        }
    // A large tolerance keeps only the strongest direction.
    Datam w2;
    svd_decompose(a, u, w2, v);
    float big = 0.9f;
    svd_coeffs(b, u, w2, v, big);
    zeros = 0;
    for (int k = 1; k <= 3; ++k) zeros += cell(w2, k, 1) == 0.0;
    EXPECT_EQ(zeros, 2);
    EXPECT_EQ(big, 0.9f);
}

TEST(LsqRoots, Quadratic) {
    double x1, x2;
    GetQuadRoots(1, -3, 2, x1, x2);
    EXPECT_DOUBLE_EQ(x1, 2);
    EXPECT_DOUBLE_EQ(x2, 1);
    GetQuadRoots(1, 0, 1, x1, x2);  // complex pair
    EXPECT_EQ(x1, kNoRoot);
    EXPECT_EQ(x2, kNoRoot);
    GetQuadRoots(1, -2, 1, x1, x2);  // a double root: discriminant not above 0
    EXPECT_EQ(x1, kNoRoot);
    EXPECT_EQ(x2, kNoRoot);
    GetQuadRoots(0, 2, -4, x1, x2);  // linear: only c/q
    EXPECT_EQ(x1, kNoRoot);
    EXPECT_DOUBLE_EQ(x2, 2);
    GetQuadRoots(1, 0, -4, x1, x2);  // b = 0 becomes 1e-22
    EXPECT_NEAR(std::min(x1, x2), -2, 1e-12);
    EXPECT_NEAR(std::max(x1, x2), 2, 1e-12);
    GetQuadRoots(1, 2, 0, x1, x2);  // q nonzero, c zero
    EXPECT_DOUBLE_EQ(x1, -2);
    EXPECT_DOUBLE_EQ(x2, 0);
}

TEST(LsqRoots, Cubic) {
    double r[3];
    GetCubicRoots(-6, 11, -6, r[0], r[1], r[2]);  // 1, 2, 3
    std::sort(r, r + 3);
    EXPECT_NEAR(r[0], 1, 1e-12);
    EXPECT_NEAR(r[1], 2, 1e-12);
    EXPECT_NEAR(r[2], 3, 1e-12);
    GetCubicRoots(-6, 12, -8, r[0], r[1], r[2]);  // triple root 2: one real root
    EXPECT_NEAR(r[0], 2, 1e-12);
    EXPECT_EQ(r[1], kNoRoot);
    EXPECT_EQ(r[2], kNoRoot);
    GetCubicRoots(-1, 1, -1, r[0], r[1], r[2]);  // (x - 1)(x^2 + 1)
    EXPECT_NEAR(r[0], 1, 1e-12);
    EXPECT_EQ(r[1], kNoRoot);
    EXPECT_EQ(r[2], kNoRoot);
    GetCubicRoots(0, 0, 0, r[0], r[1], r[2]);  // A = 0: B is 0 too
    EXPECT_EQ(r[0], 0);
}

TEST(LsqRoots, CubicRepeatedRootTakesTheNudge) {
    // Roots -75, -75, -73.25: rounding leaves Q^3 - R^2 just above 0 with
    // t = R / sqrt(Q^3) exactly -1.
    const double a = 223.25, b = 16612.5, c = 412031.25;
    const double Q = (a * a - 3 * b) / 9, R = (2 * a * a * a - 9 * a * b + 27 * c) / 54;
    ASSERT_GT(Q * Q * Q - R * R, 0);
    ASSERT_EQ(R / std::sqrt(Q * Q * Q), -1.0);
    double r[3];
    GetCubicRoots(a, b, c, r[0], r[1], r[2]);
    std::sort(r, r + 3);
    EXPECT_NEAR(r[0], -75, 1e-3);
    EXPECT_NEAR(r[1], -75, 1e-3);
    EXPECT_NEAR(r[2], -73.25, 1e-3);
}
