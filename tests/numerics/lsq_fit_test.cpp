// svdfit_std against an independent least-squares solution (normal equations
// in long double with a Cholesky factor), with culls, rank deficiency and the
// edge cases of the pipeline.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "base/report.h"
#include "numerics/lsq.h"

using namespace zorv;

namespace {

// Design table (column 0 a key) and y vector from row-major data.
Datam mitpOf(const std::vector<std::vector<double>>& x) {
    const int n = static_cast<int>(x.size()), m = static_cast<int>(x[0].size());
    Datam d(n, m, 0, 0);
    for (int j = 1; j <= m; ++j) d(0, j) = Value(std::string(1, 'T').append(std::to_string(j)));
    for (int i = 0; i < n; ++i) {
        d(i + 1, 0) = Value(static_cast<int32_t>(i + 1));
        for (int j = 0; j < m; ++j) d(i + 1, j + 1) = Value(x[i][j]);
    }
    return d;
}
Datam vdtpOf(const std::vector<double>& y) {
    Datam d(static_cast<int>(y.size()), 1, 0, 0);
    for (size_t i = 0; i < y.size(); ++i) d(static_cast<int>(i) + 1, 1) = Value(y[i]);
    return d;
}
double at(const Datam& v, int r) { return v(r, 1).toDouble(); }

// Least squares with an intercept by normal equations of the centred data,
// long double, Cholesky. Returns intercept then coefficients, and the
// standard error of each term with sigma^2 = SSR / (n - m).
struct Oracle {
    std::vector<double> coef, se;
    double ssr = 0;
};
// Without the intercept the terms alone are fitted and the intercept is the
// mean of what they leave, as the pipeline does without centring.
Oracle normalEquations(const std::vector<std::vector<double>>& x, const std::vector<double>& y,
                       bool intercept = true) {
    const size_t n = x.size(), m = x[0].size();
    std::vector<long double> mx(m, 0), a(m * m, 0), b(m, 0);
    long double my = 0;
    if (intercept) {
        for (size_t i = 0; i < n; ++i) {
            my += y[i];
            for (size_t j = 0; j < m; ++j) mx[j] += x[i][j];
        }
        my /= n;
        for (auto& v : mx) v /= n;
    }
    for (size_t i = 0; i < n; ++i)
        for (size_t j = 0; j < m; ++j) {
            const long double xj = x[i][j] - mx[j];
            b[j] += xj * (y[i] - my);
            for (size_t k = 0; k < m; ++k) a[j * m + k] += xj * (x[i][k] - mx[k]);
        }
    // Cholesky a = L L'.
    std::vector<long double> L(m * m, 0);
    for (size_t j = 0; j < m; ++j) {
        long double s = a[j * m + j];
        for (size_t k = 0; k < j; ++k) s -= L[j * m + k] * L[j * m + k];
        L[j * m + j] = std::sqrt(s);
        for (size_t i = j + 1; i < m; ++i) {
            long double t = a[i * m + j];
            for (size_t k = 0; k < j; ++k) t -= L[i * m + k] * L[j * m + k];
            L[i * m + j] = t / L[j * m + j];
        }
    }
    auto solve = [&](std::vector<long double> r) {
        for (size_t i = 0; i < m; ++i) {
            for (size_t k = 0; k < i; ++k) r[i] -= L[i * m + k] * r[k];
            r[i] /= L[i * m + i];
        }
        for (size_t i = m; i-- > 0;) {
            for (size_t k = i + 1; k < m; ++k) r[i] -= L[k * m + i] * r[k];
            r[i] /= L[i * m + i];
        }
        return r;
    };
    const std::vector<long double> c = solve(b);
    Oracle o;
    long double c0 = my;
    for (size_t j = 0; j < m; ++j) c0 -= c[j] * mx[j];
    if (!intercept) {
        for (size_t i = 0; i < n; ++i) {
            long double f = 0;
            for (size_t j = 0; j < m; ++j) f += c[j] * x[i][j];
            c0 += (y[i] - f) / n;
        }
    }
    o.coef.push_back(static_cast<double>(c0));
    for (size_t j = 0; j < m; ++j) o.coef.push_back(static_cast<double>(c[j]));
    long double ssr = 0;
    for (size_t i = 0; i < n; ++i) {
        long double f = c0;
        for (size_t j = 0; j < m; ++j) f += c[j] * x[i][j];
        ssr += (y[i] - f) * (y[i] - f);
    }
    o.ssr = static_cast<double>(ssr);
    const long double s2 = ssr / static_cast<long double>(n - m);
    for (size_t j = 0; j < m; ++j) {
        std::vector<long double> e(m, 0);
        e[j] = 1;
        o.se.push_back(static_cast<double>(std::sqrt(s2 * solve(e)[j])));
    }
    return o;
}

// A wafer-like design: x, y, x^2, xy, y^2 over random sites.
void waferData(int n, std::vector<std::vector<double>>& x, std::vector<double>& y, unsigned seed,
               double noise) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> pos(-150, 150), u(-1, 1);
    x.clear();
    y.clear();
    for (int i = 0; i < n; ++i) {
        const double px = pos(rng), py = pos(rng);
        x.push_back({px, py, px * px, px * py, py * py});
        y.push_back(12.5 + 0.02 * px - 0.015 * py + 3e-5 * px * px + 1e-5 * px * py - 2e-5 * py * py +
                    noise * u(rng));
    }
}

}  // namespace

TEST(SvdFit, NoiseFreePolynomialGivesItsCoefficients) {
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    for (int i = 0; i < 40; ++i) {
        const double t = -2 + 0.1 * i;
        x.push_back({t, t * t, t * t * t});
        y.push_back(1.5 - 2.0 * t + 0.75 * t * t - 0.125 * t * t * t);
    }
    for (bool fast : {true, false}) {
        SvdFit f = svdfit_std(mitpOf(x), vdtpOf(y), 0, true, true, 3, 1e6f, !fast);
        ASSERT_EQ(f.result, 0);
        EXPECT_NEAR(at(f.coef, 1), 1.5, 1e-12);
        EXPECT_NEAR(at(f.coef, 2), -2.0, 1e-12);
        EXPECT_NEAR(at(f.coef, 3), 0.75, 1e-12);
        EXPECT_NEAR(at(f.coef, 4), -0.125, 1e-12);
        EXPECT_LT(f.mse, 1e-20);
    }
}

TEST(SvdFit, NoisyDataAgreesWithNormalEquations) {
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    waferData(3000, x, y, 7, 0.05);
    for (int mode = 0; mode < 3; ++mode) {
        const bool center = mode != 2, scale = mode != 1;
        const Oracle o = normalEquations(x, y, center);
        SvdFit f = svdfit_std(mitpOf(x), vdtpOf(y), 0, center, scale, 2, 1e6f);
        ASSERT_EQ(f.result, 0) << mode;
        ASSERT_EQ(f.coef.rowUb(), 6);
        for (int j = 0; j < 6; ++j)
            EXPECT_NEAR(at(f.coef, j + 1), o.coef[j], 1e-9 * (1 + std::fabs(o.coef[j]))) << mode;
        // Term errors: sqrt(cvm_jj * MSE), MSE = SSR / (n - m).
        EXPECT_NEAR(f.mse, o.ssr / (3000 - 5), 1e-6 * o.ssr / 3000);
        for (int j = 1; j < 6; ++j)
            EXPECT_NEAR(at(f.errors, j + 1), o.se[j - 1], 1e-5 * o.se[j - 1]) << mode << " " << j;
        // The intercept's variance is twice the squared SEM of the residuals.
        double s1 = 0, s2 = 0;
        for (int i = 1; i <= f.resids.rowUb(); ++i) {
            s1 += at(f.resids, i);
            s2 += at(f.resids, i) * at(f.resids, i);
        }
        const double n = f.resids.rowUb();
        const double sem = std::sqrt(std::fabs((n * s2 - s1 * s1) / (n * (n - 1))) / n);
        EXPECT_NEAR(at(f.errors, 1), std::sqrt(2 * sem * sem), 1e-12);
    }
}

TEST(SvdFit, FastPathAgreesWithExplicitDecomposition) {
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    waferData(5000, x, y, 11, 0.2);
    y[10] += 40;
    y[4000] -= 25;
    SvdFit a = svdfit_std(mitpOf(x), vdtpOf(y), 0, true, true, 3, 0);
    SvdFit b = svdfit_std(mitpOf(x), vdtpOf(y), 0, true, true, 3, 0, true);
    ASSERT_EQ(a.result, b.result);
    for (int j = 1; j <= 6; ++j) {
        EXPECT_NEAR(at(a.coef, j), at(b.coef, j), 1e-9 * (1 + std::fabs(at(b.coef, j))));
        EXPECT_NEAR(at(a.errors, j), at(b.errors, j), 1e-9 * at(b.errors, j));
    }
    // u w v' of the last pass reproduces its scaled design: check u'u = I.
    ASSERT_TRUE(b.u.isArray());
    for (int p = 1; p <= 5; ++p)
        for (int q = 1; q <= 5; ++q) {
            double s = 0;
            for (int i = 1; i <= b.u.rowUb(); ++i) s += b.u(i, p).toDouble() * b.u(i, q).toDouble();
            EXPECT_NEAR(s, p == q ? 1.0 : 0.0, 1e-10);
        }
    EXPECT_FALSE(a.u.isArray());
}

TEST(SvdFit, PlantedOutliersAreCulledAndTheRestUntouched) {
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    waferData(400, x, y, 3, 0.1);
    const std::vector<int> planted = {17, 123, 350};  // 0-based rows
    std::vector<std::vector<double>> xk;
    std::vector<double> yk;
    for (int i = 0; i < 400; ++i)
        if (i != 17 && i != 123 && i != 350) {
            xk.push_back(x[i]);
            yk.push_back(y[i]);
        }
    for (int r : planted) y[r] += 6.0;
    Datam vd = vdtpOf(y);
    vd(200, 1) = Value();  // an empty observation takes no part
    xk.erase(xk.begin() + 197);
    yk.erase(yk.begin() + 197);
    const Oracle o = normalEquations(xk, yk);

    SvdFit f = svdfit_std(mitpOf(x), vd, 0, true, true, 2, 0);
    EXPECT_EQ(f.result, 3);
    ASSERT_EQ(f.excluded.rowUb(), 400);
    for (int r = 1; r <= 400; ++r) {
        const bool expect = r == 18 || r == 124 || r == 351 || r == 200;
        EXPECT_EQ(f.excluded(r, 1).toLong(), expect ? 1 : 0) << r;
    }
    for (int j = 1; j < 6; ++j)
        EXPECT_NEAR(at(f.coef, j + 1), o.coef[j], 1e-8 * (1 + std::fabs(o.coef[j])));
    // The intercept is derived again from all rows, the culled ones included.
    double s = 0;
    for (int i = 0; i < 400; ++i) {
        if (i == 199) continue;
        double fit = 0;
        for (int j = 0; j < 5; ++j) fit += at(f.coef, j + 2) * x[i][j];
        s += y[i] - fit;
    }
    EXPECT_NEAR(at(f.coef, 1), s / 399, 1e-9);
    EXPECT_NEAR(at(f.coef, 1) - o.coef[0], 18.0 / 399, 1e-3);
    EXPECT_NEAR(f.mse, o.ssr / (396 - 5), 1e-6);
    // Residuals cover every compacted row, culled ones included, keyed by source row.
    ASSERT_EQ(f.resids.rowUb(), 399);
    for (int k = 1; k <= 399; ++k) {
        const int src = f.resids(k, 0).toLong();
        double fit = at(f.coef, 1);
        for (int j = 0; j < 5; ++j) fit += at(f.coef, j + 2) * x[src - 1][j];
        EXPECT_NEAR(at(f.resids, k), y[src - 1] - fit, 1e-9);
        if (src == 18 || src == 124 || src == 351) {
            EXPECT_GT(at(f.resids, k), 5.0);
        }
    }
}

TEST(SvdFit, RankDeficientGivesMinimumNormAndDeadColumnZero) {
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    for (int i = 0; i < 30; ++i) {
        const double t = 0.3 * i - 4;
        x.push_back({t, t, 2.5});  // duplicate column and a constant one
        y.push_back(1 + 4 * t);
    }
    SvdFit f = svdfit_std(mitpOf(x), vdtpOf(y), 0, true, true, 3, 1e6f);
    ASSERT_EQ(f.result, 0);
    EXPECT_NEAR(at(f.coef, 1), 1.0, 1e-10);
    EXPECT_NEAR(at(f.coef, 2), 2.0, 1e-10);  // the minimum-norm split
    EXPECT_NEAR(at(f.coef, 3), 2.0, 1e-10);
    EXPECT_EQ(at(f.coef, 4), 0.0);
    // The constant column centres to zero and is weighted 1e10.
    EXPECT_EQ(at(f.colWeights, 3), 1e10);
    int zeros = 0;
    for (int k = 1; k <= 3; ++k) zeros += at(f.w, k) == 0.0;
    EXPECT_EQ(zeros, 2);
}

TEST(SvdFit, ColumnLeftConstantByTheCullsIsDead) {
    // The second term differs only at the two outliers: once they are culled
    // it is constant, so it must get weight 1e10 and coefficient 0 exactly as
    // a column constant from the start does.
    std::mt19937 rng(3);
    std::normal_distribution<double> nd;
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    for (int i = 0; i < 60; ++i) {
        const double t = 0.1 * i;
        x.push_back({t, (i == 5 || i == 6) ? 2.0 : 1.0});
        y.push_back(1 + 0.5 * t + 0.01 * nd(rng));
    }
    y[5] += 5;
    y[6] -= 5;
    SvdFit f = svdfit_std(mitpOf(x), vdtpOf(y), 0, true, true, 5, 0);
    SvdFit g = svdfit_std(mitpOf(x), vdtpOf(y), 0, true, true, 5, 0, true);
    ASSERT_EQ(f.result, 2);
    EXPECT_EQ(at(f.colWeights, 2), 1e10);
    EXPECT_EQ(at(f.coef, 3), 0.0);
    EXPECT_EQ(at(f.errors, 3), 0.0);
    for (int j = 1; j <= 3; ++j) {
        EXPECT_NEAR(at(f.coef, j), at(g.coef, j), 1e-10);
        EXPECT_NEAR(at(f.errors, j), at(g.errors, j), 1e-10);
    }
    EXPECT_NEAR(at(f.coef, 2), 0.5, 0.01);
}

TEST(SvdFit, EdgeCases) {
    // No term column: one-row vectors holding 1, copied to the current ones.
    {
        Datam mitp(5, 0, 0, 0);
        std::vector<double> y = {1, 2, 3, 4, 5};
        SvdFit f = svdfit_std(mitp, vdtpOf(y), 0, true, true, 3, 0);
        EXPECT_EQ(f.result, -1);
        ASSERT_EQ(f.coef.rowUb(), 1);
        EXPECT_EQ(at(f.coef, 1), 1.0);
        EXPECT_EQ(at(f.errors, 1), 1.0);
        EXPECT_EQ(at(f.curCoef, 1), 1.0);
    }
    // 3 rows, one of them beyond the cull: 2 would remain, so nothing goes.
    {
        SvdFit f = svdfit_std(mitpOf({{1}, {2}, {3}}), vdtpOf({1, 2, 10}), 0, true, true, 3, 2.0f);
        EXPECT_EQ(f.result, 0);
        EXPECT_NEAR(at(f.coef, 2), 4.5, 1e-12);
        EXPECT_NEAR(at(f.coef, 1), 13.0 / 3 - 9, 1e-12);
        EXPECT_EQ(f.excluded(2, 1).toLong(), 1);  // listed before the count check
        EXPECT_EQ(f.resids.rowUb(), 3);
    }
    // Zero residuals: the cull range stays 0 and the loop ends at once.
    {
        SvdFit f = svdfit_std(mitpOf({{1}, {4}, {2}, {8}, {5}}), vdtpOf({5, 5, 5, 5, 5}), 0, true,
                              true, 3, 0);
        EXPECT_EQ(f.result, 0);
        EXPECT_EQ(at(f.coef, 1), 5.0);
        EXPECT_EQ(at(f.coef, 2), 0.0);
    }
    // Fewer than 3 residuals: the intercept's error is 0.
    {
        SvdFit f = svdfit_std(mitpOf({{1}, {3}}), vdtpOf({2, 8}), 0, true, true, 3, 0);
        EXPECT_EQ(f.result, 0);
        EXPECT_NEAR(at(f.coef, 2), 3.0, 1e-12);
        EXPECT_EQ(at(f.errors, 1), 0.0);
    }
    // A negative threshold becomes 1. One observation is still fitted: its
    // term centres away and the intercept is the value, with no message.
    // With no observation at all the fit ends with the count message.
    {
        SvdFit f = svdfit_std(mitpOf({{1}, {3}}), vdtpOf({2, 8}), 0, true, true, -4, 0);
        EXPECT_EQ(f.threshold, 1.0f);
        Datam vd = vdtpOf({2, 8});
        vd(2, 1) = Value();
        Notes n;
        for (bool explicitU : {false, true}) {
            SvdFit g = svdfit_std(mitpOf({{1}, {3}}), vd, 0, true, true, 3, 0, explicitU, &n);
            EXPECT_EQ(g.result, 0);
            EXPECT_EQ(at(g.coef, 1), 2.0);
            EXPECT_EQ(at(g.coef, 2), 0.0);
            EXPECT_EQ(at(g.errors, 1), 0.0);  // fewer than 3 residuals
            EXPECT_EQ(g.excluded.rowUb(), 1);  // n is the last row with a y
        }
        EXPECT_FALSE(n.failure);
        EXPECT_TRUE(n.warnings.empty());
        vd(1, 1) = Value("n/a");
        SvdFit h = svdfit_std(mitpOf({{1}, {3}}), vd, 0, true, true, 3, 0, false, &n);
        EXPECT_EQ(h.result, -1);
        ASSERT_TRUE(n.failure);
        EXPECT_TRUE(n.warnings.empty());
        EXPECT_NE(n.failure->message().find("MathUtil(svdfit_std): \r\nThe number  of "
                                            "DEPENDANT(vdtp) observations is <2."),
                  std::string::npos);
    }
    // "Xloc" ends the term columns.
    {
        Datam mitp = mitpOf({{1, 7}, {2, 9}, {3, 4}, {4, 1}});
        mitp(0, 2) = Value("XLOC");
        SvdFit f = svdfit_std(mitp, vdtpOf({3, 5, 7, 9}), 0, true, true, 3, 0);
        ASSERT_EQ(f.coef.rowUb(), 2);
        EXPECT_NEAR(at(f.coef, 2), 2.0, 1e-12);
    }
}

TEST(SvdFit, ThresholdedModelZeroesInsignificantTerms) {
    std::mt19937_64 rng(5);
    std::normal_distribution<double> nd(0, 1);
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    for (int i = 0; i < 200; ++i) {
        const double a = nd(rng), b = nd(rng);
        x.push_back({a, b});
        y.push_back(3 + 2 * a + 0.1 * nd(rng));  // b plays no part
    }
    SvdFit f = svdfit_std(mitpOf(x), vdtpOf(y), 0, true, true, 3, 1e6f);
    ASSERT_EQ(f.result, 0);
    EXPECT_LT(std::fabs(at(f.coef, 3)), 3 * at(f.errors, 3));
    EXPECT_EQ(at(f.curCoef, 3), 0.0);
    EXPECT_EQ(at(f.curCoef, 2), at(f.coef, 2));
    // The current intercept is re-derived from the residuals with the term
    // dropped, and its error is the plain SEM of those residuals.
    double s = 0, s1 = 0, s2 = 0;
    for (int i = 0; i < 200; ++i) s += y[i] - at(f.coef, 2) * x[i][0];
    EXPECT_NEAR(at(f.curCoef, 1), s / 200, 1e-12);
    for (int i = 1; i <= 200; ++i) {
        s1 += at(f.curResids, i);
        s2 += at(f.curResids, i) * at(f.curResids, i);
    }
    const double sem = std::sqrt(std::fabs((200 * s2 - s1 * s1) / (200.0 * 199)) / 200);
    EXPECT_NEAR(at(f.curErrors, 1), sem, 1e-12);
    EXPECT_NEAR(f.curMse, (s2 - s1 * s1 / 200) / 198, 1e-9);
}

TEST(SvdFit, ArrayEntryMatchesDatamEntry) {
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    waferData(2500, x, y, 21, 0.3);
    y[77] = 50;
    std::vector<double> xa, ya = y;
    for (auto& r : x) xa.insert(xa.end(), r.begin(), r.end());
    ya[5] = std::nan("");
    Datam vd = vdtpOf(y);
    vd(6, 1) = Value();
    SvdFit d = svdfit_std(mitpOf(x), vd, 0, true, true, 3, 0);
    SvdFitArrays a = svdfit_std(xa.data(), ya.data(), 2500, 5, 0, true, true, 3, 0);
    ASSERT_EQ(d.result, a.result);
    EXPECT_GE(a.result, 1);
    for (int j = 0; j < 6; ++j) {
        EXPECT_EQ(at(d.coef, j + 1), a.coef[j]);
        EXPECT_EQ(at(d.errors, j + 1), a.errors[j]);
    }
    EXPECT_EQ(a.excluded[6], 1);
    EXPECT_EQ(a.excluded[78], 1);
}

TEST(SvdFit, EmptyTermCellsStayOutOfCentringAndProducts) {
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    waferData(1500, x, y, 31, 0.2);
    Datam mitp = mitpOf(x);
    mitp(10, 2) = Value();
    mitp(700, 4) = Value("");
    mitp(701, 5) = Value("text");
    for (bool center : {true, false}) {
        SvdFit a = svdfit_std(mitp, vdtpOf(y), 0, center, true, 3, 0);
        SvdFit b = svdfit_std(mitp, vdtpOf(y), 0, center, true, 3, 0, true);
        ASSERT_EQ(a.result, b.result);
        for (int j = 1; j <= 6; ++j)
            EXPECT_NEAR(at(a.coef, j), at(b.coef, j), 1e-9 * (1 + std::fabs(at(b.coef, j))));
        // The modelled value skips the empty cell: check the residual of row 10.
        int k = 1;
        while (a.resids(k, 0).toLong() != 10) ++k;
        double fit = at(a.coef, 1);
        for (int j = 0; j < 5; ++j)
            if (j != 1) fit += at(a.coef, j + 2) * x[9][j];
        EXPECT_NEAR(at(a.resids, k), y[9] - fit, 1e-9);
    }
}

TEST(SvdFit, EscapeStopsTheFitAfterThePass) {
    std::vector<std::vector<double>> x;
    std::vector<double> y;
    waferData(300, x, y, 41, 0.1);
    SetEscPressed(true);
    SvdFit f = svdfit_std(mitpOf(x), vdtpOf(y), 0, true, true, 3, 0);
    SetEscPressed(false);
    EXPECT_EQ(f.result, -1);
    ASSERT_TRUE(f.coef.isArray());
    EXPECT_EQ(f.coef.rowUb(), 6);
}
