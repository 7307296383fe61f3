// Response fits of a focus-exposure matrix against data made from the 7-term
// law with known coefficients, and the isoline and grid worked by hand.
#include <gtest/gtest.h>

#include <cmath>

#include "numerics/equation.h"
#include "procwin/pw_fit.h"
#include "procwin/pw_setup.h"

using namespace zorv;

namespace {

// CD = c1 + c2 D + c3 F + c4 F^2 + c5 D F + c6 F^3 + c7 D F^2
constexpr double kC[8] = {0, 0.20, -0.004, 0.01, -0.30, 0.0005, 0.02, 0.004};

double Law(double d, double f) {
    return kC[1] + kC[2] * d + kC[3] * f + kC[4] * f * f + kC[5] * d * f + kC[6] * f * f * f + kC[7] * d * f * f;
}

// Focus -0.3..0.3 by 0.1, dose 20..28 by 2: "Focus", "Dose", "CD".
Datam Matrix(bool holes) {
    Datam t(35, 3, 0, 0);
    t(0, 1) = Value("Focus"), t(0, 2) = Value("Dose"), t(0, 3) = Value("CD");
    int r = 0;
    for (int i = 0; i < 7; ++i)
        for (int j = 0; j < 5; ++j) {
            ++r;
            const double f = -0.3 + 0.1 * i, d = 20 + 2 * j;
            t(r, 1) = Value(f), t(r, 2) = Value(d);
            // The law at the 32-bit values the fit reads.
            if (!(holes && r % 4 == 0)) t(r, 3) = Value(Law(static_cast<float>(d), static_cast<float>(f)));
        }
    return t;
}

double Eval(const std::string& eq, std::initializer_list<std::pair<const char*, double>> vars) {
    clsEquation e(eq);
    for (const auto& [n, v] : vars) e.Var(n, v);
    return e.Solution();
}

}  // namespace

TEST(PWfit, RecoversTheLawOverTheFilledRows) {
    for (bool holes : {false, true}) {
        auto r = PWfit(Matrix(holes), 3, {});
        ASSERT_TRUE(r) << holes;
        const PWSurfaceFit& fit = r.value();
        ASSERT_EQ(fit.c.rowUb(), 7);
        for (int i = 1; i <= 7; ++i) EXPECT_NEAR(fit.c(i, 1).toDouble(), kC[i], 1e-9) << i << " holes " << holes;
        // The equation and its parts say the same surface.
        EXPECT_EQ(fit.equation.find("+-"), std::string::npos);
        EXPECT_NEAR(Eval(fit.equation, {{"D", 23}, {"F", 0.17}}), Law(23, 0.17), 1e-9);
        const double parts = Eval(fit.doseTerm, {{"D", 23}}) + Eval(fit.focusTerm, {{"F", 0.17}}) +
                             Eval(fit.crossTerm, {{"D", 23}, {"F", 0.17}});
        EXPECT_NEAR(parts + fit.c(1, 1).toDouble(), Law(23, 0.17), 1e-9);
        // A negative coefficient: "+(-" became "-(".
        EXPECT_NE(fit.focusTerm.find("-("), std::string::npos) << fit.focusTerm;
    }
    Datam noFocus = Matrix(false);
    noFocus(0, 1) = Value("Defocus");
    EXPECT_FALSE(PWfit(noFocus, 3, {}));
}

TEST(PWfit, IsoFocalDoseRules) {
    Datam c(7, 1, 0, 1);
    for (int i = 1; i <= 7; ++i) c(i, 1) = Value(kC[i]);
    double d = 0;
    ASSERT_TRUE(IsoFocalDose(c, false, d));
    EXPECT_DOUBLE_EQ(d, 0.30 / 0.004);  // -c4 / c7
    c(7, 1) = Value(0.0);
    EXPECT_FALSE(IsoFocalDose(c, true, d));
    // c4 = 0: the window's second rule takes -c3 / c6.
    c(7, 1) = Value(0.004);
    c(4, 1) = Value(0.0);
    ASSERT_TRUE(IsoFocalDose(c, false, d));
    EXPECT_EQ(d, 0);
    ASSERT_TRUE(IsoFocalDose(c, true, d));
    EXPECT_DOUBLE_EQ(d, -0.01 / 0.02);
}

TEST(PWcurveFill, IsolineFromZeroOutwardWithItsGap) {
    Datam c(7, 1, 0, 1);
    for (int i = 1; i <= 7; ++i) c(i, 1) = Value(kC[i]);
    const double target = Law(24, 0);
    auto r = PWcurveFill(c, target, 20, 28, -0.3, 0.3, 0.1);
    ASSERT_TRUE(r);
    const Datam& t = r.value().table;
    EXPECT_EQ(t(0, 1).toString(), "Focus");
    // Straddling zero: the first row is F = 0, at the dose that gives the target.
    EXPECT_EQ(t(1, 1).toDouble(), 0);
    EXPECT_NEAR(t(1, 2).toDouble(), 24, 1e-9);
    // Upward from 0 by the step, then from -0.1 down to -0.4 (one step past
    // the low end).
    EXPECT_NEAR(t(2, 1).toDouble(), 0.1, 1e-12);
    int down = 2;
    while (down <= t.rowUb() && t(down, 1).toDouble() > 0) ++down;
    ASSERT_LE(down, t.rowUb());
    EXPECT_NEAR(t(down, 1).toDouble(), -0.1, 1e-12);
    EXPECT_NEAR(t(t.rowUb(), 1).toDouble(), -0.4, 1e-12);
    for (int i = 1; i <= t.rowUb(); ++i) {
        const double f = t(i, 1).toDouble(), d = t(i, 2).toDouble();
        EXPECT_NEAR(Law(d, f), target, 1e-9) << f;
        EXPECT_NEAR(Eval(r.value().equation, {{"X", f}}), d, 1e-9) << r.value().equation;
    }
    // A window of doses no point reaches: every row dropped, no failure.
    auto none = PWcurveFill(c, target + 100, 20, 28, -0.3, 0.3, 0.1);
    ASSERT_TRUE(none);
    EXPECT_EQ(none.value().table.rowUb(), 0);
    auto flat = PWcurveFill(c, target, 20, 20, -0.3, 0.3, 0.1);
    ASSERT_FALSE(flat);
    EXPECT_EQ(flat.failure().text, "Scan Range (dose/focus) values not set properly.");
}

TEST(PWsurfFill, PaintsTheCellsWithinLimits) {
    Datam c(7, 1, 0, 1);
    for (int i = 1; i <= 7; ++i) c(i, 1) = Value(kC[i]);
    // Dose falling from row 1, focus rising from column 1.
    Datam grid(3, 4, 0, 0);
    const double doses[] = {0, 26, 24, 22}, focus[] = {0, -0.2, 0, 0.2, 0.4};
    for (int i = 1; i <= 3; ++i) grid(i, 0) = Value(doses[i]);
    for (int j = 1; j <= 4; ++j) grid(0, j) = Value(focus[j]);
    // CD falls with dose here: the limits are the values at 26 and 22.
    const double low = Law(26, 0) - 1e-9, high = Law(22, 0) + 1e-9;
    long count = 0, want = 0;
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 4; ++j) want += Law(doses[i], focus[j]) >= low && Law(doses[i], focus[j]) <= high;
    auto r = PWsurfFill(grid, low, high, c, count);
    ASSERT_TRUE(r);
    EXPECT_EQ(count, want);
    EXPECT_EQ(grid(2, 2).toDouble(), 1);  // 24 at best focus: inside
    EXPECT_NEAR(r.value()(1, 4).toDouble(), Law(26, 0.4), 1e-5);
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 4; ++j) {
            const double z = Law(doses[i], focus[j]);
            EXPECT_EQ(grid(i, j).isEmpty(), !(z >= low && z <= high)) << i << "," << j;
        }
    Datam six(6, 1, 0, 1);
    long n = 0;
    auto bad = PWsurfFill(grid, low, high, six, n);
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.failure().text, "There are less than 7 coefficients presented.");
}

TEST(FocusAndDoseFits, TurningPointsAndLines) {
    // y = F^3 - 3F: turning points at -1 and 1.
    Datam t(9, 2, 0, 0);
    t(0, 1) = Value("Focus"), t(0, 2) = Value("CD");
    for (int i = 1; i <= 9; ++i) {
        const double f = -2 + 0.5 * (i - 1);
        t(i, 1) = Value(f), t(i, 2) = Value(f * f * f - 3 * f);
    }
    auto r = FocusFit(t, 1, 2, {});
    ASSERT_TRUE(r);
    // Which root comes first follows the sign of the (vanishing) quadratic term.
    EXPECT_NEAR(std::fabs(r.value().root1), 1, 1e-6);
    EXPECT_NEAR(r.value().root1 + r.value().root2, 0, 1e-6);
    EXPECT_EQ(r.value().xLow, -2);
    EXPECT_EQ(r.value().xHigh, 2);
    EXPECT_NEAR(Eval(r.value().equation, {{"F", 1.5}}), 1.5 * 1.5 * 1.5 - 4.5, 1e-6);
    // Two rows: no fit, no failure.
    Datam two(2, 2, 0, 0);
    two(1, 1) = Value(0.0), two(1, 2) = Value(1.0), two(2, 1) = Value(1.0), two(2, 2) = Value(2.0);
    auto none = FocusFit(two, 1, 2, {});
    ASSERT_TRUE(none);
    EXPECT_FALSE(none.value().c.isArray());
    EXPECT_EQ(none.value().root1, -9.99);

    // A dose response that is a straight line 2 + 3X.
    for (int i = 1; i <= 9; ++i) t(i, 2) = Value(2 + 3 * t(i, 1).toDouble());
    auto d = DoseFit(t, 1, 2, {});
    ASSERT_TRUE(d);
    EXPECT_NEAR(Eval(d.value().equation, {{"X", 1.25}}), 5.75, 1e-6) << d.value().equation;
    EXPECT_EQ(d.value().equation.find("+-"), std::string::npos);
}

TEST(LoadPWanalysis, TheSetupOfTheControls) {
    PWControls c;
    c.tabPWCurve = kFocus;
    c.responseOption = 1;
    c.txtPWRange = "2.5";
    c.txtPWSigma = "abc";  // not a number: 0
    c.variables = {{true, "CD", "0.09", "0.099", "0.081"}, {false, "SWA", "88", "90", "86"}, {true, "Height", "1", "2", "0"}};
    c.allFocus = {"-0.1", "0", "0.1", "0.2"};
    c.lstPWfocus = {"0", "0.1", "-0.1"};
    c.allDose = {"18", "20", "22"};
    c.lstWcoef = {true, false, true};
    c.siteList = "1,3";
    const PWSetup s = LoadPWanalysis(c);
    EXPECT_EQ(s.key, kFocus);
    EXPECT_FALSE(s.surfaceAlgorithm);
    EXPECT_EQ(s.method, "Focus polynomial");
    EXPECT_FLOAT_EQ(s.range, 2.5f);
    EXPECT_EQ(s.sigma, 0);
    ASSERT_EQ(s.variables.rowUb(), 2);  // the checked ones
    EXPECT_EQ(s.variables(0, 3).toString(), "Max");
    EXPECT_EQ(s.variables(2, 1).toString(), "Height");
    EXPECT_EQ(s.title, "CD, Height");
    EXPECT_EQ(s.focusText, "0,0.1,-0.1");
    EXPECT_FLOAT_EQ(s.focusLow, -0.1f);
    EXPECT_FLOAT_EQ(s.focusHigh, 0.1f);
    EXPECT_FLOAT_EQ(s.focusStep, 0.1f);
    EXPECT_EQ(s.doseText, "ALL");
    EXPECT_FLOAT_EQ(s.doseStep, 2);
    EXPECT_EQ(s.waferCoefs, "101");
    EXPECT_EQ(s.siteListText, "1,3");
    c.tabPWCurve = kPW;
    EXPECT_TRUE(LoadPWanalysis(c).surfaceAlgorithm);
    EXPECT_EQ(LoadPWanalysis(c).method, "PW Surface Fit");
}
