#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "base/marks.h"
#include "numerics/aberration.h"
#include "numerics/equation.h"

using namespace zorv;

namespace {

using B = AberrationBasis;

Datam vec(const std::vector<double>& v) {
    Datam d = Datam::vec(static_cast<int>(v.size()));
    for (size_t i = 0; i < v.size(); ++i) d(static_cast<int>(i) + 1, 1) = v[i];
    return d;
}

// Points of a wafer: a polar pattern of radius 1 to 100 and the centre.
void waferPoints(std::vector<double>& x, std::vector<double>& y) {
    x = {0};
    y = {0};
    for (int ring = 1; ring <= 8; ++ring)
        for (int k = 0; k < 6 * ring; ++k) {
            const double r = 100.0 * ring / 8, t = 2 * kPi * k / (6 * ring) + 0.1 * ring;
            x.push_back(r * std::cos(t));
            y.push_back(r * std::sin(t));
        }
}

}  // namespace

TEST(Aberration, PolarPositionQuadrantsAndOrigin) {
    float r, t;
    const struct { double x, y, theta; } cases[] = {
        {1, 1, kPi / 4},      {-1, 1, 3 * kPi / 4}, {-1, -1, 5 * kPi / 4}, {1, -1, 7 * kPi / 4},
        {0, 2, kPi / 2},      {0, -2, 3 * kPi / 2}, {-3, 0, kPi},          {3, 0, 0},
    };
    for (const auto& c : cases) {
        PolarPosition(c.x, c.y, r, t);
        EXPECT_NEAR(t, c.theta, 1e-6) << c.x << "," << c.y;
        EXPECT_FLOAT_EQ(r, static_cast<float>(std::hypot(c.x, c.y)));
    }
    // The origin: Rval 0 and the angle of y over the 1e-27 guard.
    PolarPosition(0, 0, r, t);
    EXPECT_EQ(r, 0.0f);
    EXPECT_EQ(t, 0.0f);
}

TEST(Aberration, TermsMatchTheirCartesianForms) {
    for (const auto& [x, y] : std::vector<std::pair<double, double>>{{0.3, -0.7}, {-0.9, 0.2}, {0.5, 0.5}}) {
        float rf, tf;
        PolarPosition(x, y, rf, tf);
        const double r = rf, t = tf;
        auto Z = [&](int k) { return AberrationTermValue(B::Zernike, k, r, t); };
        auto A = [&](int k) { return AberrationTermValue(B::ASMLfocus, k, r, t); };
        const double tol = 1e-6;
        EXPECT_NEAR(Z(1), x, tol);
        EXPECT_NEAR(Z(2), y, tol);
        EXPECT_NEAR(Z(3), x * x, tol);
        EXPECT_NEAR(Z(4), y * y, tol);
        EXPECT_NEAR(Z(5), x * x * x - 3 * x * y * y, tol);
        EXPECT_NEAR(Z(6), 3 * x * x * y - y * y * y, tol);
        EXPECT_NEAR(Z(7), std::pow(x, 5) - 10 * std::pow(x, 3) * y * y + 5 * x * std::pow(y, 4), tol);
        EXPECT_NEAR(Z(8), 5 * std::pow(x, 4) * y - 10 * x * x * std::pow(y, 3) + std::pow(y, 5), tol);
        EXPECT_NEAR(Z(9), std::pow(x * x + y * y, 2.5), tol);
        EXPECT_NEAR(A(3), std::hypot(x, y) * x, tol);
        EXPECT_NEAR(A(4), std::hypot(x, y) * y, tol);
        EXPECT_NEAR(A(5), x * x + y * y, tol);
        EXPECT_NEAR(A(10), Z(7), tol);
        EXPECT_NEAR(A(11), Z(8), tol);
    }
}

TEST(Aberration, AngularTermsAreOrthogonalOverTheUnitDisc) {
    // Midpoint rule in r and theta; the angular integrals are exact on the grid.
    const int nr = 400, nt = 256;
    auto inner = [&](int j, int k) {
        double s = 0;
        for (int a = 0; a < nr; ++a) {
            const double r = (a + 0.5) / nr;
            for (int b = 0; b < nt; ++b) {
                const double t = 2 * kPi * (b + 0.5) / nt;
                s += AberrationTermValue(B::Zernike, j, r, t) * AberrationTermValue(B::Zernike, k, r, t) * r;
            }
        }
        return s * (1.0 / nr) * (2 * kPi / nt);
    };
    for (auto [j, k] : std::vector<std::pair<int, int>>{{1, 2}, {1, 5}, {2, 6}, {5, 6}, {7, 8}, {1, 7}, {5, 7}, {6, 8}, {1, 9}})
        EXPECT_NEAR(inner(j, k), 0, 1e-10) << j << "," << k;
    EXPECT_NEAR(inner(1, 1), kPi / 4, 1e-5);
    EXPECT_NEAR(inner(5, 5), kPi / 8, 1e-5);
    EXPECT_NEAR(inner(7, 7), kPi / 12, 1e-5);
}

TEST(Aberration, ZernikeRecoversPlantedCoefficientsAndTextEvaluates) {
    std::vector<double> x, y;
    waferPoints(x, y);
    const double a[kZernikeTerms] = {1.5, 2e-3, -3e-3, 4e-5, -5e-5, 1e-6, 2e-6, -1e-10, 3e-10, 2e-10};
    std::vector<double> z(x.size());
    for (size_t i = 0; i < x.size(); ++i) {
        float r, t;
        PolarPosition(x[i], y[i], r, t);
        z[i] = a[0];
        for (int k = 1; k < kZernikeTerms; ++k) z[i] += a[k] * AberrationTermValue(B::Zernike, k, r, t);
    }
    AberrationFit f = Model_Zernike(vec(x), vec(y), vec(z), 10, 0, 1e6);
    ASSERT_EQ(f.result, 0);
    ASSERT_EQ(f.terms, 10);
    for (int k = 0; k < kZernikeTerms; ++k) {
        EXPECT_NEAR(f.coef(k + 1, 1).toDouble(), a[k], 1e-7 * std::fabs(a[k]) + 1e-13) << k;
        EXPECT_EQ(f.coef(k + 1, 0).str(), AberrationTermName(B::Zernike, k));
    }
    EXPECT_EQ(f.coef(1, 0).str(), "Piston");
    EXPECT_EQ(f.coef(10, 0).str(), "Pentode");
    EXPECT_LT(f.mse, 1e-12);

    // The model text is what clsEquation evaluates with Rval and Theta.
    clsEquation eq(f.text);
    for (size_t i = 0; i < x.size(); i += 7) {
        eq.Var("Rval", f.rval(static_cast<int>(i) + 1, 1).toDouble());
        eq.Var("Theta", f.theta(static_cast<int>(i) + 1, 1).toDouble());
        ASSERT_TRUE(eq.Solve()) << f.text << " " << eq.LastError();
        EXPECT_NEAR(eq.LastValue(), z[i], 1e-9) << f.text;
        EXPECT_NEAR(f.modelled(static_cast<int>(i) + 1, 1).toDouble(), z[i], 1e-9);
        EXPECT_NEAR(f.resids(static_cast<int>(i) + 1, 1).toDouble(), 0, 1e-9);
    }
    // A negative TiltY folds the "+" that TiltX's text carries.
    EXPECT_NE(f.text.find(" * Rval * cos(theta) -0.00299"), std::string::npos) << f.text;
    EXPECT_NE(f.shortText.find("* (Rval * sin(Theta))^2"), std::string::npos);
    EXPECT_EQ(f.shortText.find("Rval^3"), std::string::npos);
    // The terms beyond the bows are shown with the generic factor.
    EXPECT_NE(f.shortText.find(" * Rval * Rval "), std::string::npos) << f.shortText;
    EXPECT_STREQ(AberrationShortText(B::Zernike, 9), "* Rval * Rval ");
    EXPECT_STREQ(AberrationShortText(B::ASMLfocus, 11), "* R ");
    EXPECT_STREQ(AberrationShortText(B::ASMLfocus, 5), "* R * R ");
}

TEST(Aberration, FewerRowsThanTermsUsesTheFirstTerms) {
    // Three points: piston and the two tilts only (32-bit angles limit the match).
    AberrationFit f = Model_Zernike(vec({0, 10, 0}), vec({0, 0, 10}), vec({1, 21, 31}), 10, 0, 1e6);
    ASSERT_EQ(f.terms, 3);
    ASSERT_EQ(f.coef.rowUb(), 3);
    EXPECT_NEAR(f.coef(1, 1).toDouble(), 1, 1e-6);
    EXPECT_NEAR(f.coef(2, 1).toDouble(), 2, 1e-6);
    EXPECT_NEAR(f.coef(3, 1).toDouble(), 3, 1e-6);
    // TiltX's own "+" and the joining one stand side by side; the evaluator
    // reads the second as a sign.
    EXPECT_NE(f.text.find("2. * Rval * cos(theta) + +3."), std::string::npos) << f.text;
    EXPECT_NE(f.text.find("* Rval * sin(theta)"), std::string::npos);
    EXPECT_EQ(f.text.find("^2"), std::string::npos);
}

TEST(Aberration, ZeroCoefficientsAreLeftOutOfTheText) {
    std::vector<double> x, y, z;
    waferPoints(x, y);
    uint32_t s = 12345;
    for (size_t i = 0; i < x.size(); ++i) {
        s = s * 1664525u + 1013904223u;
        z.push_back(5 + 0.02 * x[i] + 1e-3 * ((s >> 8) / double(1 << 24) - 0.5));
    }
    // TiltY is noise only: the thresholded model zeroes it.
    AberrationFit f = Model_Zernike(vec(x), vec(y), vec(z), 3, 3, 1e6);
    ASSERT_EQ(f.terms, 3);
    ASSERT_EQ(f.coef(3, 1).toDouble(), 0);
    EXPECT_NE(f.fullCoef(3, 1).toDouble(), 0);
    EXPECT_EQ(f.text.find("sin"), std::string::npos) << f.text;
    EXPECT_NE(f.text.find("cos"), std::string::npos) << f.text;

    // Nothing but zeros: the text is "0".
    std::vector<double> zero(x.size(), 0.0);
    AberrationFit g = Model_Zernike(vec(x), vec(y), vec(zero), 6, 0, 1e6);
    EXPECT_EQ(g.text, "0");
    EXPECT_EQ(g.shortText, "0");
}

TEST(Aberration, ASMLfocusFitsAndKeepsItsTermTexts) {
    std::vector<double> x, y;
    waferPoints(x, y);
    std::vector<double> z(x.size());
    for (size_t i = 0; i < x.size(); ++i) {
        float r, t;
        PolarPosition(x[i], y[i], r, t);
        z[i] = 0.5 + 1e-3 * AberrationTermValue(B::ASMLfocus, 1, r, t) -
               2e-3 * AberrationTermValue(B::ASMLfocus, 2, r, t) +
               3e-5 * AberrationTermValue(B::ASMLfocus, 5, r, t);
    }
    AberrationCache cache;
    AberrationFit f = Model_ASMLfocus(vec(x), vec(y), vec(z), 6, 0, 1e6, false, &cache);
    ASSERT_EQ(f.terms, 6);
    EXPECT_EQ(f.coef(4, 0).str(), "Bow");
    EXPECT_NEAR(f.coef(1, 1).toDouble(), 0.5, 1e-9);
    EXPECT_NEAR(f.coef(2, 1).toDouble(), 1e-3, 1e-11);
    EXPECT_NEAR(f.coef(3, 1).toDouble(), -2e-3, 1e-11);
    EXPECT_NEAR(f.coef(6, 1).toDouble(), 3e-5, 1e-13);
    // The first term's text leaves out R, as it always has.
    EXPECT_NE(f.text.find(" *  cos(Theta) "), std::string::npos) << f.text;
    EXPECT_NE(f.text.find(" * R^2 "), std::string::npos) << f.text;

    // Reuse keeps the term table: the positions are not even read again.
    std::vector<double> z2(z);
    for (double& v : z2) v *= 2;
    AberrationFit g = Model_ASMLfocus(Datam(), Datam(), vec(z2), 6, 0, 1e6, true, &cache);
    ASSERT_EQ(g.terms, 6);
    EXPECT_NEAR(g.coef(2, 1).toDouble(), 2e-3, 1e-11);
    EXPECT_NEAR(g.coef(6, 1).toDouble(), 6e-5, 1e-13);
}
