// The 3D view: matrices, the projected grid, the axes and the surface chart.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "graphics/chart.h"
#include "graphics/recording_surface.h"
#include "graphics/view3d.h"

using namespace zorv;

namespace {

using Op = RecordingSurface::Op;
constexpr double kHalfTurn = std::numbers::pi;

// A grid table: X in row 0, Y in column 0, z(x, y) inside.
template <class F>
Datam Grid(const std::vector<double>& xs, const std::vector<double>& ys, F z) {
    Datam t(static_cast<int>(ys.size()), static_cast<int>(xs.size()), 0, 0);
    for (size_t c = 0; c < xs.size(); ++c) t(0, static_cast<int>(c + 1)) = Value(xs[c]);
    for (size_t r = 0; r < ys.size(); ++r) {
        t(static_cast<int>(r + 1), 0) = Value(ys[r]);
        for (size_t c = 0; c < xs.size(); ++c) t(static_cast<int>(r + 1), static_cast<int>(c + 1)) = Value(z(xs[c], ys[r]));
    }
    return t;
}

// The vertices of the surface's lines: polylines not in the axes' colour.
std::vector<PointD> SurfaceVertices(const RecordingSurface& s, Color axes = 0) {
    std::vector<PointD> v;
    for (const auto* c : s.of(Op::Polyline))
        if (c->color != axes) v.insert(v.end(), c->points.begin(), c->points.end());
    return v;
}

// Distinct values to a tolerance, sorted.
std::vector<double> Distinct(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    std::vector<double> out;
    for (double x : v)
        if (out.empty() || x - out.back() > 1e-6) out.push_back(x);
    return out;
}

void ExpectPoint(const std::array<double, 4>& v, double x, double y, double z, double w = 1) {
    EXPECT_NEAR(v[0], x, 1e-12);
    EXPECT_NEAR(v[1], y, 1e-12);
    EXPECT_NEAR(v[2], z, 1e-12);
    EXPECT_NEAR(v[3], w, 1e-12);
}

}  // namespace

TEST(M3Ops, ProductsApplyRightFactorFirst) {
    using namespace M3Ops;
    const Matrix4 t = Translate(1, 2, 3), s = Scale(2, 3, 4);
    // Translate then scale: ((1 + 1) 2, (1 + 2) 3, (1 + 3) 4).
    ExpectPoint(Transform(Multiply(s, t), 1, 1, 1), 4, 9, 16);
    // Scale then translate: (2 + 1, 3 + 2, 4 + 3).
    ExpectPoint(Transform(Multiply(t, s), 1, 1, 1), 3, 5, 7);
    // A direction (w = 0) is not moved.
    ExpectPoint(Transform(t, 1, 0, 0, 0), 1, 0, 0, 0);
    ExpectPoint(Transform(Multiply(Identity(), t), 0, 0, 0), 1, 2, 3);
    // Perspective at d = 10: z = 5 halves w, so the divide doubles x and y.
    ExpectPoint(Transform(Perspective(10), 2, 4, 5), 2, 4, 5, 0.5);
}

TEST(M3Ops, ViewPutsFocusAtOriginEyeOnPlusZUpUp) {
    using namespace M3Ops;
    Matrix4 v;
    // Eye 5 from the focus along (0, -4, 3) / 5.
    ASSERT_TRUE(View(v, 1, -2, 6, 1, 2, 3, 0, 0, 1));
    ExpectPoint(Transform(v, 1, 2, 3), 0, 0, 0);
    ExpectPoint(Transform(v, 1, -2, 6), 0, 0, 5);
    // Up (a direction) stays in the y-z plane on the +y side; x = model x.
    const auto up = Transform(v, 0, 0, 1, 0);
    EXPECT_NEAR(up[0], 0, 1e-12);
    EXPECT_NEAR(up[1], 4.0 / 5, 1e-12);
    ExpectPoint(Transform(v, 1, 0, 0, 0), 1, 0, 0, 0);
    // Eye on -y looking at the origin, z up: x stays x, z becomes y, y becomes -z.
    ASSERT_TRUE(View(v, 0, -5, 0, 0, 0, 0, 0, 0, 1));
    ExpectPoint(Transform(v, 1, 2, 3), 1, 3, -2);
    // No view with up along the line of sight, or the eye on the focus.
    EXPECT_FALSE(View(v, 0, 0, 5, 0, 0, 0, 0, 0, 1));
    EXPECT_FALSE(View(v, 1, 1, 1, 1, 1, 1, 0, 0, 1));
}

TEST(Grid3d, RowsThenColumnsOnePolylineEachSkippingEmptyCells) {
    // 3 rows (Y 0, 1, 2) by 4 columns (X 0..3); the cell at X 0, Y 0 empty.
    Datam t = Grid({0, 1, 2, 3}, {0, 1, 2}, [](double x, double y) { return x + y; });
    t(1, 1) = Value();
    cGrid3d g;
    Result<long> n = g.SetPointArray(t);
    ASSERT_TRUE(n);
    EXPECT_EQ(*n, 11);
    g.Apply(M3Ops::Identity(), PixelMap{});  // pixel = (x, -y)
    RecordingSurface s;
    ASSERT_TRUE(g.Draw(s));
    const auto lines = s.of(Op::Polyline);
    ASSERT_EQ(lines.size(), 7u);
    // Rows first, from X 1 in the first row; then columns, from Y 1 in the first.
    EXPECT_EQ(lines[0]->points.size(), 3u);
    EXPECT_EQ(lines[0]->points[0].x, 1);
    EXPECT_EQ(lines[1]->points.size(), 4u);
    EXPECT_EQ(lines[1]->points[3].y, -1);
    EXPECT_EQ(lines[3]->points.size(), 2u);
    EXPECT_EQ(lines[3]->points[0].y, -1);
    EXPECT_EQ(lines[6]->points.size(), 3u);
    EXPECT_EQ(lines[6]->points[2].x, 3);
    for (const auto* l : lines)
        for (PointD p : l->points) EXPECT_FALSE(p.x == 0 && p.y == 0);

    // An inner gap breaks its row in two and leaves its column of three
    // with no two neighbours.
    Datam u = Grid({0, 1, 2, 3, 4}, {0, 1, 2}, [](double, double) { return 1.0; });
    u(2, 3) = Value("");
    ASSERT_TRUE(g.SetPointArray(u));
    g.Apply(M3Ops::Identity(), PixelMap{});
    s.clear();
    ASSERT_TRUE(g.Draw(s));
    EXPECT_EQ(s.of(Op::Polyline).size(), 4u + 4u);
    EXPECT_EQ(s.of(Op::Polyline)[1]->points.size(), 2u);
    EXPECT_EQ(s.of(Op::Polyline)[2]->points[0].x, 3);
}

TEST(Grid3d, SegmentsColouredByTheirMeanHeight) {
    HeightColors hc{0, 10, {10, 11, 12, 13, 14, 15, 16, 17, 18, 19}};
    cGrid3d g;
    g.SetBounds(2, 4);
    const double zs[2][4] = {{0, 3, 10, 10}, {0, 3, 0, 3}};
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 4; ++c) g.SetPoint(r, c, c, r, zs[r][c]);
    g.Apply(M3Ops::Identity(), PixelMap{});
    RecordingSurface s;
    s.ForeColor = 7;
    ASSERT_TRUE(g.Draw(s, &hc));
    const auto lines = s.of(Op::Polyline);
    // Row 0: mean 1.5 (band 1), then 6.5 and 10 (bands 6, 9): three pieces
    // that share their ends. Row 1: means 1.5 each: one line.
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0]->color, 11);
    EXPECT_EQ(lines[1]->color, 16);
    EXPECT_EQ(lines[2]->color, 19);
    EXPECT_EQ(lines[1]->points[0].x, lines[0]->points.back().x);
    EXPECT_EQ(lines[3]->color, 11);
    EXPECT_EQ(lines[3]->points.size(), 4u);
    EXPECT_EQ(s.ForeColor, 7);
}

TEST(View3d, TopViewDrawsTheGridAsARegularLattice) {
    RecordingSurface s(800, 600);
    cGraphic g;
    g.Container(&s);
    // X steps of 10, Y steps of 5.
    g.DataGrid = Grid({0, 10, 20, 30}, {0, 5, 10}, [](double x, double y) { return x * y / 100; });
    g.Perspective = false;
    g.ViewPhi = 0;
    g.ViewTheta = -kHalfTurn / 2;
    ASSERT_TRUE(g.Draw3d());
    const std::vector<PointD> v = SurfaceVertices(s);
    ASSERT_FALSE(v.empty());
    std::vector<double> xs, ys;
    for (PointD p : v) xs.push_back(p.x), ys.push_back(p.y);
    const std::vector<double> px = Distinct(xs), py = Distinct(ys);
    ASSERT_EQ(px.size(), 4u);
    ASSERT_EQ(py.size(), 3u);
    const double dx = px[1] - px[0], dy = py[1] - py[0];
    for (size_t i = 1; i < px.size(); ++i) EXPECT_NEAR(px[i] - px[i - 1], dx, 1e-6);
    for (size_t i = 1; i < py.size(); ++i) EXPECT_NEAR(py[i] - py[i - 1], dy, 1e-6);
    EXPECT_NEAR(dx / dy, 10.0 / 5.0, 1e-9);
    for (PointD p : v) {
        EXPECT_GE(p.x, 0);
        EXPECT_LE(p.x, 800);
        EXPECT_GE(p.y, 0);
        EXPECT_LE(p.y, 600);
    }
    // X to the right, Y up: the first row (Y 0) runs along the bottom from
    // the left.
    const std::vector<PointD> row0 = SurfaceVertices(s);
    EXPECT_NEAR(row0[0].x, px[0], 1e-6);
    EXPECT_NEAR(row0[0].y, py[2], 1e-6);
    EXPECT_NEAR(row0[1].x, px[1], 1e-6);
    EXPECT_NEAR(row0[1].y, py[2], 1e-6);
}

TEST(View3d, ParaboloidCentreBelowItsCornersFromTheSide) {
    const std::vector<double> axis = {-2, -1, 0, 1, 2};
    for (bool perspective : {false, true}) {
        SCOPED_TRACE(perspective);
        RecordingSurface s(800, 600);
        cGraphic g;
        g.Container(&s);
        g.DataGrid = Grid(axis, axis, [](double x, double y) { return x * x + y * y; });
        g.TitleObj.TitleString = "Bowl";
        g.Perspective = perspective;
        g.ViewPhi = kHalfTurn / 2;     // eye level with the focus
        g.ViewTheta = -kHalfTurn / 2;  // on the -y side, x to the right
        ASSERT_TRUE(g.Draw3d());
        const std::vector<PointD> v = SurfaceVertices(s);
        double minX = 1e9, maxX = -1e9, minY = 1e9, maxY = -1e9;
        for (PointD p : v) minX = std::min(minX, p.x), maxX = std::max(maxX, p.x), minY = std::min(minY, p.y), maxY = std::max(maxY, p.y);
        const double mid = (minX + maxX) / 2;
        // The lowest vertex is the centre (x = 0); the highest a corner.
        for (PointD p : v) {
            if (p.y == maxY) {
                EXPECT_NEAR(p.x, mid, 1e-6);
            }
            if (p.y == minY) {
                EXPECT_TRUE(std::fabs(p.x - minX) < 1e-6 || std::fabs(p.x - maxX) < 1e-6);
            }
        }
        if (!perspective) {
            // Heights 0..8 drawn at half the X extent of 4: the corner rises
            // by half the width.
            EXPECT_NEAR((maxY - minY) / (maxX - minX), 0.5, 1e-9);
        }
        EXPECT_EQ(s.texts().back(), "Bowl");
    }
}

TEST(View3d, AxesLabelledByDefaultOrByTheChartsAxes) {
    const std::vector<double> axis = {-2, -1, 0, 1, 2};
    RecordingSurface s(800, 600);
    cGraphic g;
    g.Container(&s);
    g.DataGrid = Grid(axis, axis, [](double x, double y) { return x * x + y * y; });
    ASSERT_TRUE(g.Draw3d());
    auto has = [&](const std::string& t) {
        const auto texts = s.texts();
        return std::find(texts.begin(), texts.end(), t) != texts.end();
    };
    EXPECT_TRUE(has("Xaxis"));
    EXPECT_TRUE(has("yaxis"));
    EXPECT_TRUE(has("Zaxis"));
    // Z 0..8 in steps of 2: CalcTickFormat(2, 1) gives one decimal.
    EXPECT_TRUE(has("8.0"));
    EXPECT_TRUE(has("-2.0"));

    cAxis& x = g.Axes.Add("X");
    x.AutoScale = false;
    x.LowValue = -3, x.HighValue = 3, x.TickInterval = 1.5f, x.TickFormat = "0.00";
    x.Label = "Focus";
    s.clear();
    ASSERT_TRUE(g.Draw3d());
    EXPECT_TRUE(has("Focus"));
    EXPECT_FALSE(has("Xaxis"));
    EXPECT_TRUE(has("-1.50"));
    EXPECT_TRUE(has("3.00"));
}

TEST(View3d, FailuresOfTheSurfaceAndItsAxes) {
    RecordingSurface s;
    cGraphic g;
    EXPECT_EQ(g.Draw3d().failure().text, "Graph Container was not specified.");
    g.Container(&s);

    // Headers only.
    g.DataGrid = Grid({0, 1}, {0, 1}, [](double, double) { return 0.0; });
    g.DataGrid(1, 1) = g.DataGrid(1, 2) = g.DataGrid(2, 1) = g.DataGrid(2, 2) = Value();
    Result<View3D> v = DrawFieldAxes3D(g, s);
    ASSERT_FALSE(v);
    EXPECT_EQ(v.failure().tag, "cGraphic(DrawFieldAxes3D): ");
    EXPECT_EQ(v.failure().text, "No data in surface.");
    EXPECT_EQ(g.Draw3d().failure().text, "No data in surface.");

    // One X value, one Y value: no extent.
    g.DataGrid = Grid({5}, {0, 1, 2}, [](double, double y) { return y; });
    Status st = g.Draw3d();
    ASSERT_FALSE(st);
    EXPECT_EQ(st.failure().tag, "cGraphic(DrawAxes3D): ");
    EXPECT_EQ(st.failure().text, "Xaxis axis high value = low value");
    g.DataGrid = Grid({0, 1, 2}, {5}, [](double x, double) { return x; });
    EXPECT_EQ(g.Draw3d().failure().text, "Yaxis axis high value = low value");

    // A Z axis set by hand with equal ends; a flat surface alone is drawn.
    g.DataGrid = Grid({0, 1, 2}, {0, 1}, [](double, double) { return 3.0; });
    EXPECT_TRUE(g.Draw3d());
    cAxis& z = g.Axes.Add("Z");
    z.AutoScale = false;
    z.LowValue = z.HighValue = 3;
    st = g.Draw3d();
    ASSERT_FALSE(st);
    EXPECT_EQ(st.failure().text, "Zaxis axis high value = low value");
}
