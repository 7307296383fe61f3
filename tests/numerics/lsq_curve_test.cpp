// FitCurve and the helpers around the fit.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "numerics/lsq.h"

using namespace zorv;

namespace {

// Header row 0: "Focus", "CD"; x in column 1, y in column 2.
template <class F>
Datam curveTable(double from, double step, int n, F f) {
    Datam t(n, 2, 0, 0);
    t(0, 1) = Value("Focus");
    t(0, 2) = Value("CD");
    for (int i = 1; i <= n; ++i) {
        const double x = from + step * (i - 1);
        t(i, 1) = Value(x);
        t(i, 2) = Value(f(x));
    }
    return t;
}

double c(const Datam& v, int r) { return v(r, 1).toDouble(); }

}  // namespace

TEST(FitCurve, CubicCoefficientsAndTurningPoints) {
    auto f = [](double x) { return 2 - 3 * x + 0.5 * x * x + 0.1 * x * x * x; };
    CurveFit fit = FitCurve(curveTable(-6, 0.25, 49, f), 1, 2, 3);
    ASSERT_TRUE(fit.coef.isArray());
    EXPECT_NEAR(c(fit.coef, 1), 2, 1e-9);
    EXPECT_NEAR(c(fit.coef, 2), -3, 1e-9);
    EXPECT_NEAR(c(fit.coef, 3), 0.5, 1e-9);
    EXPECT_NEAR(c(fit.coef, 4), 0.1, 1e-9);
    EXPECT_EQ(fit.equation, "2.000-3.000*X +0.5000*X^2 +0.1000*X^3");
    // 0.3 x^2 + x - 3 = 0, in the order GetQuadRoots gives them.
    const double r1 = (-1 - std::sqrt(4.6)) / 0.6, r2 = (-1 + std::sqrt(4.6)) / 0.6;
    EXPECT_NEAR(fit.tp[0].x, r1, 1e-9);
    EXPECT_NEAR(fit.tp[1].x, r2, 1e-9);
    EXPECT_NEAR(fit.tp[0].d2, 1 + 0.6 * r1, 1e-9);
    EXPECT_NEAR(fit.tp[1].d2, 1 + 0.6 * r2, 1e-9);
    // y values come from the rounded equation.
    EXPECT_EQ(fit.tp[0].y, EvalCurve(fit.equation, fit.tp[0].x));
    EXPECT_NEAR(fit.tp[0].y, f(r1), 1e-6);
    EXPECT_EQ(fit.tp[2].x, kNoRoot);
}

TEST(FitCurve, QuadraticVertexUsesTheRoundedEquation) {
    // y = 3.0004 + 2 (x - 1)^2: the constant rounds to 3.000 in the equation.
    CurveFit fit = FitCurve(curveTable(-2, 0.5, 9, [](double x) { return 3.0004 + 2 * (x - 1) * (x - 1); }),
                            1, 2, 2);
    EXPECT_NEAR(fit.tp[0].x, 1, 1e-9);
    EXPECT_NEAR(fit.tp[0].y, 3.000, 1e-9);
    EXPECT_NEAR(fit.tp[0].d2, 4, 1e-9);
    EXPECT_EQ(fit.tp[1].x, kNoRoot);
}

TEST(FitCurve, QuarticTurningPoints) {
    CurveFit fit = FitCurve(curveTable(-2, 0.1, 41, [](double x) { return x * x * x * x - 2 * x * x; }),
                            1, 2, 4);
    ASSERT_EQ(fit.coef.rowUb(), 5);
    std::vector<std::pair<double, double>> tp;
    for (const auto& t : fit.tp)
        if (t.x != kNoRoot) tp.push_back({t.x, t.d2});
    ASSERT_EQ(tp.size(), 3u);
    std::sort(tp.begin(), tp.end());
    EXPECT_NEAR(tp[0].first, -1, 1e-6);
    EXPECT_NEAR(tp[1].first, 0, 1e-6);
    EXPECT_NEAR(tp[2].first, 1, 1e-6);
    EXPECT_NEAR(tp[0].second, 8, 1e-5);
    EXPECT_NEAR(tp[1].second, -4, 1e-5);
}

TEST(FitCurve, EdgeCases) {
    // A single x value at order 2: every term column is constant.
    {
        Datam t = curveTable(0, 0, 5, [](double) { return 0.0; });
        for (int i = 1; i <= 5; ++i) {
            t(i, 1) = Value(2.0);
            t(i, 2) = Value(static_cast<double>(i));
        }
        CurveFit fit = FitCurve(t, 1, 2, 2);
        ASSERT_TRUE(fit.coef.isArray());
        EXPECT_DOUBLE_EQ(c(fit.coef, 1), 3.0);
        EXPECT_EQ(c(fit.coef, 2), 0.0);
        EXPECT_EQ(c(fit.coef, 3), 0.0);
        EXPECT_EQ(fit.tp[0].x, kNoRoot);
    }
    // One row: order + 1 zeros, the first the y, headed "Coef".
    {
        CurveFit fit = FitCurve(curveTable(1, 1, 1, [](double) { return 7.5; }), 1, 2, 3);
        ASSERT_EQ(fit.coef.rowUb(), 4);
        EXPECT_EQ(fit.coef(0, 1).toString(), "Coef");
        EXPECT_EQ(c(fit.coef, 1), 7.5);
        EXPECT_EQ(c(fit.coef, 4), 0.0);
    }
    // No data in a column, too few numbers.
    {
        Datam t(4, 2, 0, 0);
        t(0, 1) = Value("Focus");
        t(0, 2) = Value("CD");
        Notes n;
        EXPECT_FALSE(FitCurve(t, 1, 2, 2, &n).coef.isArray());
        ASSERT_TRUE(n.failure);
        EXPECT_TRUE(n.warnings.empty());
        EXPECT_EQ(n.failure->message(),
                  "Math(FitCurve): \r\nNo data for mitp matrix: 'Focus' analysis. chk: 1");
        t(1, 1) = Value(1.0);
        t(2, 1) = Value(2.0);
        t(2, 2) = Value("n/a");
        t(3, 2) = Value(4.0);
        n = Notes();
        EXPECT_FALSE(FitCurve(t, 1, 2, 2, &n).coef.isArray());
        ASSERT_TRUE(n.failure);
        EXPECT_NE(n.failure->message().find("Not enough numeric data points for a fit."),
                  std::string::npos);
        Datam t2 = t;
        for (int i = 1; i <= 4; ++i) t2(i, 2) = Value();
        t2(1, 1) = Value(1.0);
        n = Notes();
        FitCurve(t2, 1, 2, 2, &n);
        ASSERT_TRUE(n.failure);
        EXPECT_NE(n.failure->message().find("No data for dtp matrix: 'CD' analysis."),
                  std::string::npos);
    }
}

TEST(LsqHelpers, CalcSSPoolsWithinGroups) {
    // Key in column 0: A {1, 2, 3}, B {10, 14}; second column twice the first.
    Datam t(5, 2, 0, 0);
    const char* keys[] = {"B", "A", "A", "B", "A"};
    const double vals[] = {10, 1, 2, 14, 3};
    t(0, 1) = Value("F1");
    t(0, 2) = Value("F2");
    for (int i = 1; i <= 5; ++i) {
        t(i, 0) = Value(keys[i - 1]);
        t(i, 1) = Value(vals[i - 1]);
        t(i, 2) = Value(2 * vals[i - 1]);
    }
    Datam ss;
    int dof = 0, groups = 0;
    Datam sigma = CalcSS(t, ss, dof, groups);
    EXPECT_EQ(groups, 2);
    EXPECT_EQ(dof, 2);  // rows - groups - 1
    ASSERT_TRUE(sigma.isArray());
    EXPECT_NEAR(ss(1, 1).toDouble(), 10, 1e-9);
    EXPECT_NEAR(ss(2, 1).toDouble(), 40, 1e-9);
    EXPECT_NEAR(sigma(1, 1).toDouble(), std::sqrt(5.0), 1e-9);
    EXPECT_NEAR(sigma(2, 1).toDouble(), std::sqrt(20.0), 1e-9);
}

TEST(LsqHelpers, LinearCorrelation) {
    Datam x(5, 1, 0, 0), y(5, 1, 0, 0), z(5, 1, 0, 0);
    const double xv[] = {1, 2, 3, 4, 6}, yv[] = {2.1, 3.9, 6.2, 7.8, 12.5};
    double mx = 0, my = 0;
    for (int i = 0; i < 5; ++i) {
        x(i + 1, 1) = Value(xv[i]);
        y(i + 1, 1) = Value(yv[i]);
        z(i + 1, 1) = Value(10 - 2 * xv[i]);
        mx += xv[i] / 5;
        my += yv[i] / 5;
    }
    double sxy = 0, sxx = 0, syy = 0;
    for (int i = 0; i < 5; ++i) {
        sxy += (xv[i] - mx) * (yv[i] - my);
        sxx += (xv[i] - mx) * (xv[i] - mx);
        syy += (yv[i] - my) * (yv[i] - my);
    }
    EXPECT_NEAR(LinearCorrelation(x, y), sxy / std::sqrt(sxx * syy), 1e-6);
    EXPECT_NEAR(LinearCorrelation(x, z), -1, 1e-6);
    // A sum of 0 gives no result.
    Datam w(3, 1, 0, 0), v(3, 1, 0, 0);
    for (int i = 1; i <= 3; ++i) {
        w(i, 1) = Value(i - 2.0);
        v(i, 1) = Value(static_cast<double>(i));
    }
    EXPECT_EQ(LinearCorrelation(w, v), 0.0);
}

TEST(LsqHelpers, SigFigSingleCheckString2Vector) {
    SigFigParts s = SigFig(123.456, 4);
    EXPECT_EQ(s.text, "1.234E+02");
    EXPECT_EQ(s.scientific, "1.23E+02");
    s = SigFig(123.456, -99);
    EXPECT_EQ(s.text, "1.23E+02");
    EXPECT_EQ(s.intPart, "1");
    EXPECT_EQ(s.fracPart, "23");
    EXPECT_EQ(s.exponent, 2);
    EXPECT_EQ(SigFig(-0.000123456, 3).text, "-1.23E-04");
    EXPECT_EQ(SigFig(-0.000123456, -99).exponent, -4);

    EXPECT_EQ(SingleCheck(Value(0.0)).type(), VType::Single);
    EXPECT_EQ(SingleCheck(Value(0.0)).toDouble(), static_cast<double>(-1.4e-45f));
    EXPECT_EQ(SingleCheck(Value(1e40)).toDouble(), static_cast<double>(3.4e38f));
    EXPECT_EQ(SingleCheck(Value(-1e40)).toDouble(), static_cast<double>(-3.4e38f));
    EXPECT_EQ(SingleCheck(Value(1e-50)).toDouble(), static_cast<double>(1.4e-45f));
    EXPECT_EQ(SingleCheck(Value(2.5)).toDouble(), 2.5);
    EXPECT_EQ(SingleCheck(Value("abc")).str(), "abc");

    Datam v = String2Vector("1, 2,3");
    ASSERT_EQ(v.rowUb(), 3);
    EXPECT_EQ(v(2, 1).toDouble(), 2);
    v = String2Vector("Sites: 4;5", ":", ";");
    EXPECT_FALSE(v.isArray());  // no comma, not a number
    v = String2Vector("Sites: 4,5", ":");
    ASSERT_EQ(v.rowUb(), 2);
    EXPECT_EQ(v(0, 1).toString(), "Sites");
    EXPECT_EQ(v(1, 1).toString(), "4");
    v = String2Vector("7");
    ASSERT_EQ(v.rowUb(), 1);
    std::string many;
    for (int i = 0; i < 6000; ++i) many += std::to_string(i) + ",";
    EXPECT_EQ(String2Vector(many).rowUb(), 5096);
    Notes n;
    EXPECT_FALSE(String2Vector("abc", {}, ",", &n).isArray());
    ASSERT_TRUE(n.failure);
    EXPECT_TRUE(n.warnings.empty());
    EXPECT_NE(n.failure->message().find("Listing provided is not a comma-delimited list."),
              std::string::npos);
}
