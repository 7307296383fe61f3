// The lens tilt and curvature of a best focus map built here from a known
// parabola along every row.
#include <gtest/gtest.h>

#include <vector>

#include "calib/best_focus.h"

using namespace zorv;

TEST(LensTiltCurvature, RowsCarryTheTiltAndCurvatureOfTheField) {
    // Best focus 0.05 + 0.002 x + 0.0001 x^2 (um, x in mm) on three rows of
    // five sites: 2 urad of tilt and 10 nm/cm2 of curvature along every row;
    // down each column focus is constant.
    std::vector<double> x, y, f;
    for (double yy : {-10.0, 0.0, 10.0})
        for (double xx : {-10.0, -5.0, 0.0, 5.0, 10.0}) {
            x.push_back(xx), y.push_back(yy);
            f.push_back(0.05 + 0.002 * xx + 0.0001 * xx * xx);
        }
    const LensTiltCurvature l = CalculateLensTiltCurvature(x, y, f);
    ASSERT_TRUE(l.rows.isArray());
    EXPECT_EQ(l.rows(0, 1).toString(), "Row (mm)");
    EXPECT_EQ(l.rows(0, 8).toString(), "IFDresidsualsSE(um)");
    EXPECT_EQ(l.columns(0, 1).toString(), "Column(mm)");
    EXPECT_EQ(l.columns(0, 8).toString(), "IFDresidsualsSE(um)");
    for (int r = 1; r <= 3; ++r) {
        EXPECT_NEAR(l.rows(r, 2).toDouble(), 0.05, 1e-4) << r;  // piston
        EXPECT_NEAR(l.rows(r, 4).toDouble(), 2, 1e-3) << r;     // tilt
        EXPECT_NEAR(l.rows(r, 6).toDouble(), 10, 1e-3) << r;    // curvature
        EXPECT_NEAR(l.rows(r, 8).toDouble(), 0, 1e-6) << r;
    }
    for (int c = 1; c <= 5; ++c) EXPECT_NEAR(l.columns(c, 4).toDouble(), 0, 1e-3) << c;
    // Lines of fewer than three sites fit nothing.
    const LensTiltCurvature few = CalculateLensTiltCurvature({0, 1}, {0, 0}, {0.1, 0.2});
    for (int r = 1; few.rows.isArray() && r <= few.rows.rowUb(); ++r)
        EXPECT_NE(few.rows(r, 1).toString(), "0") << r;
}
