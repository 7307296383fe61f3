// The window's figures checked against the surface they were found on: at
// every point of the reported ellipse's perimeter, and at the rectangle's
// centre and right corners, the surface must be within the limits.
#include <gtest/gtest.h>

#include <cmath>

#include "procwin/pw_fit.h"
#include "procwin/pw_geometry.h"
#include "procwin/pw_setup.h"

using namespace zorv;

namespace {

// CD falls with dose; the F^2 term bends the isolines into a Bossung window
// that stays one piece over the grid (a strongly bent one becomes an arch
// whose legs the rectangle rule bridges: see the rule in the geometry).
constexpr double kC[8] = {0, 0.20, -0.004, 0.01, -0.06, 0.0005, 0.02, 0.001};

double Z(double d, double f) {
    return kC[1] + kC[2] * d + kC[3] * f + kC[4] * f * f + kC[5] * d * f + kC[6] * f * f * f + kC[7] * d * f * f;
}

// One cell of slack: the search works on grid cells.
bool InLimits(double d, double f, double lo, double hi, double doseStep, double focusStep) {
    for (double dd : {-doseStep, 0.0, doseStep})
        for (double ff : {-focusStep, 0.0, focusStep}) {
            const double z = Z(d + dd, f + ff);
            if (z >= lo && z <= hi) return true;
        }
    return false;
}

}  // namespace

TEST(WindowTruth, FiguresLieInsideTheLimitsOfTheSurface) {
    for (int precision : {5, 10}) {
        auto grid = PWgridSetup(18, 30, 1, -0.35, 0.35, 0.05, precision);
        ASSERT_TRUE(grid);
        Datam c(7, 1, 0, 1);
        for (int i = 1; i <= 7; ++i) c(i, 1) = Value(kC[i]);
        const double target = Z(24, 0), lo = target * 0.9, hi = target * 1.1;
        Datam painted = *grid;
        long n = 0;
        ASSERT_TRUE(PWsurfFill(painted, lo, hi, c, n));
        ASSERT_GT(n, 0);
        PWSetup setup;
        setup.title = "CD";
        PWState state;
        auto r = GetInscribe(setup, {{"CD_1", painted}}, state);
        ASSERT_TRUE(r) << r.failure().text;
        const double ds = 1.0 / precision, fs = 0.05 / precision;

        // The rectangle: its centre is in the window, and so are its corners
        // on the right. Each pass of its search keeps the left edge of the row
        // it starts from while the rows it walks narrow on the left, so on a
        // bent window a left corner can stand outside: the rule the numbers
        // have always followed, kept.
        const double el = r->rectDose * r->rectExpoLatPct / 100;
        EXPECT_TRUE(InLimits(r->rectDose, r->rectFocus, lo, hi, ds, fs)) << "precision " << precision;
        for (double sy : {-0.5, 0.5}) {
            const double f = r->rectFocus + 0.5 * r->rectDoF, d = r->rectDose + sy * el;
            EXPECT_TRUE(InLimits(d, f, lo, hi, ds, fs)) << "precision " << precision << " corner " << f << ", " << d;
        }
        // The ellipse's perimeter.
        int outside = 0;
        for (int i = 0; i < 72; ++i) {
            const double t = 2 * M_PI * i / 72;
            const double f = r->ellipseFocus + r->ellipseFocusRadius * std::cos(t);
            const double d = r->ellipseDose + r->ellipseDoseRadius * std::sin(t);
            outside += !InLimits(d, f, lo, hi, ds, fs);
        }
        EXPECT_EQ(outside, 0) << "precision " << precision << ": ellipse " << r->ellipseFocus << " +- "
                              << r->ellipseFocusRadius << ", " << r->ellipseDose << " +- " << r->ellipseDoseRadius;
        // And they are of a useful size: the window is wide.
        EXPECT_GT(r->rectDoF, 0.1);
        EXPECT_GT(r->ellipseFocusRadius, 0.05);
    }
}
