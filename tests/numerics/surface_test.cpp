#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "numerics/equation.h"
#include "numerics/surface.h"

using namespace zorv;

namespace {

// A grid with X headers xs in row 0 and Y headers ys in column 0, all cells empty.
Datam makeGrid(const std::vector<double>& xs, const std::vector<double>& ys) {
    Datam g(static_cast<int>(ys.size()), static_cast<int>(xs.size()));
    for (size_t j = 0; j < xs.size(); ++j) g(0, static_cast<int>(j) + 1) = xs[j];
    for (size_t i = 0; i < ys.size(); ++i) g(static_cast<int>(i) + 1, 0) = ys[i];
    return g;
}

double X(const Datam& g, int c) { return g(0, c).toDouble(); }
double Y(const Datam& g, int r) { return g(r, 0).toDouble(); }

}  // namespace

TEST(Surface, PlaneIsRecoveredExactlyOnAnUnevenGrid) {
    const std::vector<double> xs{0, 1, 3, 4, 7, 8, 10, 15}, ys{-2, 0, 1, 5, 6};
    Datam g = makeGrid(xs, ys);
    auto plane = [](double x, double y) { return 2 + 3 * x - y; };
    // Known: the first and last columns, and the first and last rows.
    for (int r = 1; r <= g.rowUb(); ++r)
        for (int c : {1, g.colUb()}) g(r, c) = plane(X(g, c), Y(g, r));
    for (int c = 1; c <= g.colUb(); ++c)
        for (int r : {1, g.rowUb()}) g(r, c) = plane(X(g, c), Y(g, r));
    double zmin = 0, zmax = 0;
    ASSERT_EQ(surf_interpolate2(g, zmin, zmax), 1);
    for (int r = 1; r <= g.rowUb(); ++r)
        for (int c = 1; c <= g.colUb(); ++c) EXPECT_NEAR(g(r, c).toDouble(), plane(X(g, c), Y(g, r)), 1e-12);
    EXPECT_DOUBLE_EQ(zmin, plane(0, 6));
    EXPECT_DOUBLE_EQ(zmax, plane(15, -2));
}

TEST(Surface, ParaboloidGapsTakeTheChord) {
    Datam g = makeGrid({0, 1, 2, 3, 4}, {0});
    g(1, 1) = 0.0;   // x^2 at 0
    g(1, 5) = 16.0;  // x^2 at 4
    double zmin = 0, zmax = 0;
    ASSERT_EQ(surf_interpolate2(g, zmin, zmax), 1);
    EXPECT_DOUBLE_EQ(g(1, 2).toDouble(), 4);
    EXPECT_DOUBLE_EQ(g(1, 3).toDouble(), 8);
    EXPECT_DOUBLE_EQ(g(1, 4).toDouble(), 12);
}

TEST(Surface, SingleValueRowIsFilledByTheColumnPass) {
    Datam g = makeGrid({0, 1, 2}, {0, 1, 2});
    // Rows 1 and 3 complete; row 2 holds one value only.
    for (int c = 1; c <= 3; ++c) {
        g(1, c) = 10.0 * c;
        g(3, c) = 10.0 * c + 2;
    }
    g(2, 2) = 99.0;
    double zmin = 0, zmax = 0;
    ASSERT_EQ(surf_interpolate2(g, zmin, zmax), 1);
    EXPECT_DOUBLE_EQ(g(2, 1).toDouble(), 11);
    EXPECT_DOUBLE_EQ(g(2, 2).toDouble(), 99);  // a known value is never touched
    EXPECT_DOUBLE_EQ(g(2, 3).toDouble(), 31);
    EXPECT_DOUBLE_EQ(zmax, 99);
}

TEST(Surface, MaskedCellSplitsTheRunAndStaysEmpty) {
    Datam g = makeGrid({0, 1, 2, 3, 4}, {0});
    Datam mask(1, 5);
    g(1, 1) = 0.0;
    g(1, 5) = 4.0;
    mask(1, 3) = -9;
    double zmin = -5, zmax = 0;  // a seeded minimum is kept
    ASSERT_EQ(surf_interpolate2(g, zmin, zmax, mask), 1);
    for (int c = 2; c <= 4; ++c) EXPECT_TRUE(g(1, c).isEmpty()) << c;
    EXPECT_DOUBLE_EQ(zmin, -5);
    EXPECT_DOUBLE_EQ(zmax, 4);

    // The same line without the mask is filled.
    double a = 0, b = 0;
    surf_interpolate2(g, a, b);
    EXPECT_DOUBLE_EQ(g(1, 3).toDouble(), 2);
}

TEST(Surface, SubSurfaceIsExactForBilinearData) {
    const std::vector<double> xs{1, 2, 4, 5, 8}, ys{10, 8, 7, 3};
    auto f = [](double x, double y) { return 1.5 - 0.25 * x + 2 * y + 0.125 * x * y; };
    Datam g = makeGrid(xs, ys);
    for (int r : {1, 4})
        for (int c : {1, 5}) g(r, c) = f(X(g, c), Y(g, r));
    g(2, 3) = 1000.0;  // a known interior cell stays
    std::string model;
    std::vector<std::string> status;
    Notes n;
    n.status = [&](const std::string& text) { status.push_back(text); };
    EXPECT_EQ(subSurf_Interpolate(g, MakeSurfCorners(1, 1, 4, 5), &model, &n), 20 - 5);
    EXPECT_FALSE(n.failure);
    // The model and the progress reach a caller that shows them.
    const std::vector<std::string> expected{"Surface Model Fit . . .", "Surface Model: " + model,
                                            "Interpolate row 1 of 4"};
    EXPECT_EQ(status, expected);
    clsEquation eq(model);
    for (int r = 1; r <= 4; ++r)
        for (int c = 1; c <= 5; ++c) {
            if (r == 2 && c == 3) continue;
            EXPECT_NEAR(g(r, c).toDouble(), f(X(g, c), Y(g, r)), 1e-12);
            eq.Var("X", X(g, c));
            eq.Var("Y", Y(g, r));
            EXPECT_NEAR(eq.Solution(), f(X(g, c), Y(g, r)), 1e-9) << model;
        }
    EXPECT_DOUBLE_EQ(g(2, 3).toDouble(), 1000);
    EXPECT_NE(model.find(" * X * Y"), std::string::npos);
}

TEST(Surface, SubSurfaceThreeCornersGiveAPlaneTwoAreRefused) {
    auto plane = [](double x, double y) { return 3 + 2 * x - 4 * y; };
    Datam g = makeGrid({0, 1, 2}, {0, 1, 2});
    g(1, 1) = plane(0, 0);
    g(1, 3) = plane(2, 0);
    g(3, 1) = plane(0, 2);
    EXPECT_EQ(subSurf_Interpolate(g, MakeSurfCorners(1, 1, 3, 3)), 6);
    for (int r = 1; r <= 3; ++r)
        for (int c = 1; c <= 3; ++c) EXPECT_NEAR(g(r, c).toDouble(), plane(X(g, c), Y(g, r)), 1e-12);

    Datam h = makeGrid({0, 1, 2}, {0, 1, 2});
    h(1, 1) = 1.0;
    h(3, 3) = 2.0;
    Notes n;
    EXPECT_EQ(subSurf_Interpolate(h, MakeSurfCorners(1, 1, 3, 3), nullptr, &n), -1);
    ASSERT_TRUE(n.failure);
    EXPECT_TRUE(n.warnings.empty());
    EXPECT_EQ(n.failure->message(),
              "Math(subSurf_Interpolate): \r\nNot enough data points to create a surface. chk: 1");
    EXPECT_TRUE(h(2, 2).isEmpty());
}

TEST(Surface, EdgeExtrapolateFindsBoundsAndFillsToTheEdges) {
    Datam g = makeGrid({0, 1, 2, 3, 4, 5}, {0, 1, 2, 3, 4});
    g(2, 3) = 1.0;
    g(2, 4) = 2.0;
    g(3, 2) = 3.0;
    g(3, 4) = 4.0;
    int fr = 9, lr = 9, fc = 9, lc = 9;
    ASSERT_EQ(EdgeExtrapolate(g, fr, lr, fc, lc), 1);
    EXPECT_EQ(fr, 2);
    EXPECT_EQ(lr, 3);
    EXPECT_EQ(fc, 2);
    EXPECT_EQ(lc, 4);
    // Rows continue with their end values; rows outside take the edge rows'.
    EXPECT_DOUBLE_EQ(g(2, 1).toDouble(), 1);
    EXPECT_DOUBLE_EQ(g(2, 6).toDouble(), 2);
    EXPECT_DOUBLE_EQ(g(3, 1).toDouble(), 3);
    EXPECT_DOUBLE_EQ(g(3, 3).toDouble(), 1);  // left by its row, continued down its column
    EXPECT_DOUBLE_EQ(g(1, 1).toDouble(), 1);
    EXPECT_DOUBLE_EQ(g(5, 6).toDouble(), 4);
    EXPECT_DOUBLE_EQ(g(1, 3).toDouble(), 1);

    Datam empty = makeGrid({0, 1}, {0, 1});
    EXPECT_EQ(EdgeExtrapolate(empty, fr, lr, fc, lc), -1);
}

TEST(Surface, ExpandRefinesBilinearDataExactly) {
    auto f = [](double x, double y) { return 1 + 2 * x + 3 * y + 0.5 * x * y; };
    Datam g = makeGrid({0, 2, 6}, {1, 3});
    for (int r = 1; r <= 2; ++r)
        for (int c = 1; c <= 3; ++c) g(r, c) = f(X(g, c), Y(g, r));
    Datam e = SurfExpand(g, 4);
    ASSERT_EQ(e.rowUb(), 5);
    ASSERT_EQ(e.colUb(), 9);
    EXPECT_DOUBLE_EQ(X(e, 2), 0.5);
    EXPECT_DOUBLE_EQ(X(e, 7), 4);
    EXPECT_DOUBLE_EQ(X(e, 9), 6);
    EXPECT_DOUBLE_EQ(Y(e, 3), 2);
    for (int r = 1; r <= 5; ++r)
        for (int c = 1; c <= 9; ++c) EXPECT_NEAR(e(r, c).toDouble(), f(X(e, c), Y(e, r)), 1e-12);
    EXPECT_EQ(SurfExpand(g, 1).colUb(), 3);
}
