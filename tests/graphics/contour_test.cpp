// The contour ramp and key, wafer and field surfaces, and the painted contours.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "base/format.h"
#include "graphics/chart.h"
#include "graphics/contour.h"
#include "graphics/recording_surface.h"
#include "graphics/wafer_draw.h"
#include "lot/lot.h"
#include "numerics/aberration.h"
#include "numerics/equation.h"

using namespace zorv;

namespace {

// One wafer, one field; sites placed by hand at wafer and field positions.
struct TestLot {
    std::shared_ptr<cLot> lot = cLot::create();
    cWafer* wafer = nullptr;
    cField* field = nullptr;
    int key = 0;

    TestLot() {
        lot->WaferSize = 300000;
        lot->PlotFeature(ePlotFeatureV);
        bool isNew = false;
        wafer = lot->AddWafer("W1", isNew);
        field = wafer->AddField(0, 0, isNew, false);
    }
    // Values in display units; kMissingValue stays missing.
    cSite* site(double xmm, double ymm, std::initializer_list<float> values, double fxmm = 1e9, double fymm = 1e9) {
        Ref<cSite> s = cSite::New();
        s->setNumberKey(++key);
        s->LocationXabs = float(xmm * 1000), s->LocationYabs = float(ymm * 1000);
        s->LocationX = float((fxmm == 1e9 ? xmm : fxmm) * 1000), s->LocationY = float((fymm == 1e9 ? ymm : fymm) * 1000);
        for (float v : values) {
            auto p = std::make_unique<cPoint>();
            p->ValueV = IsMissing(v) ? v : v * 1000;
            field->AddPoint(s, std::move(p));
        }
        return s.get();
    }
};

std::vector<const RecordingSurface::Call*> Boxes(const RecordingSurface& s) {
    std::vector<const RecordingSurface::Call*> out;
    for (const auto* l : s.of(RecordingSurface::Op::Line))
        if (l->form == LineForm::FilledBox) out.push_back(l);
    return out;
}

double X0(const RecordingSurface::Call* c) { return std::min(c->points[0].x, c->points[1].x); }
double X1(const RecordingSurface::Call* c) { return std::max(c->points[0].x, c->points[1].x); }
double Y0(const RecordingSurface::Call* c) { return std::min(c->points[0].y, c->points[1].y); }
double Y1(const RecordingSurface::Call* c) { return std::max(c->points[0].y, c->points[1].y); }

// The colour of the box covering a pixel (-2 when none does).
Color ColorAt(const std::vector<const RecordingSurface::Call*>& boxes, double x, double y) {
    for (const auto* b : boxes)
        if (x >= X0(b) && x < X1(b) && y >= Y0(b) && y < Y1(b)) return b->color;
    return -2;
}

bool HasText(const RecordingSurface& s, const std::string& t) {
    const auto texts = s.texts();
    return std::find(texts.begin(), texts.end(), t) != texts.end();
}

}  // namespace

TEST(ContourColor, BandsAgainstTheRampFormulas) {
    auto col = [](double z) {
        Result<Color> r = cGraphic::GetContourColor(z, 10, 0);
        EXPECT_TRUE(r);
        return r ? r.value() : -1;
    };
    EXPECT_EQ(col(0), RGB(0, 0, 255));      // t = 0
    EXPECT_EQ(col(10), RGB(255, 0, 0));     // k = 10: green 255 - (3 + 0) / 3 * 255 = 0
    EXPECT_EQ(col(4), RGB(0, 255, 255));    // k = 4, f = 0: blue 255 - 0
    EXPECT_EQ(col(7), RGB(255, 255, 0));    // k = 7, f = 0
    EXPECT_EQ(col(2.2), RGB(0, 140, 255));  // green 2.2 / 4 * 255 = 140.25
    EXPECT_EQ(col(4.6), RGB(51, 255, 153)); // red 0.6 / 3 * 255 = 51; blue 255 - 0.4 * 255 = 153
    EXPECT_EQ(col(5), RGB(85, 255, 0));     // red 1 / 3 * 255; blue 255 - 1 * 255
    EXPECT_EQ(col(8.6), RGB(255, 119, 0));  // green 255 - 1.6 / 3 * 255 = 119
    // Beyond the key: the end colours.
    EXPECT_EQ(col(-3), RGB(0, 0, 255));
    EXPECT_EQ(col(25), RGB(255, 0, 0));

    Result<Color> bad = cGraphic::GetContourColor(3, 2, 2);
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.failure().tag, "cGraphic(GetContourColor): ");
    EXPECT_EQ(bad.failure().text, "Division by zero");
    EXPECT_TRUE(bad.failure().runtime);
}

TEST(ContourColor, ScaleTableAndItsKeyPainting) {
    Result<ColorScale> t = GetColorScale();
    ASSERT_TRUE(t);
    ASSERT_EQ(t->count, 2048);
    ASSERT_EQ(t->colors.size(), 2048u);
    EXPECT_EQ(t->colors[0], RGB(0, 0, 255));
    EXPECT_EQ(t->colors[1024], RGB(85, 255, 0));  // t = 1/2: k = 5, f = 0
    // i = 2048: 10 t = 9.995..., green 255 - 2.995 / 3 * 255 = 0.4
    EXPECT_EQ(t->colors[2047], RGB(255, 0, 0));

    RecordingSurface s(200, 300);
    ASSERT_TRUE(GetColorScale(&s, KeyRect{10, 20, 16, 200}));
    const auto boxes = Boxes(s);
    ASSERT_FALSE(boxes.empty());
    EXPECT_LE(boxes.size(), 200u);
    // Rows 20..220 covered without gaps, top down.
    EXPECT_DOUBLE_EQ(Y0(boxes.front()), 20);
    EXPECT_DOUBLE_EQ(Y1(boxes.back()), 220);
    for (size_t i = 1; i < boxes.size(); ++i) EXPECT_DOUBLE_EQ(Y0(boxes[i]), Y1(boxes[i - 1]));
    for (const auto* b : boxes) EXPECT_TRUE(X0(b) == 10 && X1(b) == 26);
    // Top row: t = 0.9975, entry 2042, 10 t = 9.9707: green 255 - 2.9707 / 3 * 255 = 2.49.
    EXPECT_EQ(boxes.front()->color, RGB(255, 2, 0));
    // Bottom row: entry 5, 10 t = 0.0244: green 0.0244 / 4 * 255 = 1.56.
    EXPECT_EQ(boxes.back()->color, RGB(0, 2, 255));

    Result<ColorScale> none = GetColorScale(&s, KeyRect{10, 20, 0, 200});
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().tag, "cLot(GetColorScale): ");
}

TEST(BarCodeKey, LabelsRunFromZminToZmaxInItsFormat) {
    RecordingSurface s(400, 400);
    cBarCodeKey key;
    key.Container = &s;
    key.kFormat = "0.00";
    key.PLotLeft = 50, key.PlotTop = 40, key.PlotWidth = 20, key.PlotHeight = 200;
    key.Zmin = 1, key.Zmax = 3;
    key.NumberTicks = 4;
    ASSERT_TRUE(key.DrawKeyCode());
    EXPECT_EQ(s.texts(), (std::vector<std::string>{"1.00", "1.50", "2.00", "2.50", "3.00"}));
    // Zmin's label centred on the bottom edge, Zmax's on the top one.
    const auto prints = s.of(RecordingSurface::Op::Print);
    s.Font = key.kFont;
    const double half = s.TextHeight("1.00") / 2;
    EXPECT_NEAR(prints.front()->points[0].y + half, 240, 1e-9);
    EXPECT_NEAR(prints.back()->points[0].y + half, 40, 1e-9);
    EXPECT_GT(prints.front()->points[0].x, 70);
    // The bar: boxes inside it, a hundred at most, blue at the bottom, red on top.
    const auto boxes = Boxes(s);
    ASSERT_FALSE(boxes.empty());
    EXPECT_LE(boxes.size(), 100u);
    for (const auto* b : boxes) EXPECT_TRUE(X0(b) == 50 && X1(b) == 70 && Y0(b) >= 40 && Y1(b) <= 240);
    EXPECT_EQ(RedOf(ColorAt(boxes, 60, 239.5)), 0);
    EXPECT_EQ(BlueOf(ColorAt(boxes, 60, 239.5)), 255);
    EXPECT_EQ(RedOf(ColorAt(boxes, 60, 40.5)), 255);
    EXPECT_EQ(BlueOf(ColorAt(boxes, 60, 40.5)), 0);

    // A fixed interval gives the same ticks.
    s.clear();
    key.kFormat = "#0.0";
    key.TickInterval = 0.5;
    ASSERT_TRUE(key.DrawKeyCode());
    EXPECT_EQ(s.texts(), (std::vector<std::string>{"1.0", "1.5", "2.0", "2.5", "3.0"}));

    key.TickInterval = -1;
    Status neg = key.DrawKeyCode();
    ASSERT_FALSE(neg);
    EXPECT_EQ(neg.failure().text, "Tick interval improperly specified.");

    key.TickInterval = 0;
    key.Zmax = key.Zmin = 2;
    Status flat = key.DrawKeyCode();
    ASSERT_FALSE(flat);
    EXPECT_EQ(flat.failure().tag, "cGraphic(GetContourColor): ");
    EXPECT_EQ(flat.failure().text, "Division by zero");
}

TEST(Surface, OneStatisticPerSiteOnTheUniquePositions) {
    TestLot t;
    // z = x + 2 y on a 3 x 3 grid; the centre site holds the repeats 1 and 3
    // (mean 2 = 0 + 2 * 0 + 2) and a missing value.
    for (int y = -5; y <= 5; y += 5)
        for (int x = -10; x <= 10; x += 10)
            if (x || y) t.site(x, y, {float(x + 2 * y)});
    t.site(0, 0, {1, 3, kMissingValue});
    // Neither a site without values nor a culled one adds a position.
    t.site(20, 20, {kMissingValue});
    t.site(30, 30, {7})->setCull(true);

    Result<SurfaceGrid> r = GetWaferSurface(*t.lot, *t.wafer);
    ASSERT_TRUE(r) << r.failure().text;
    const SurfaceGrid& s = r.value();
    EXPECT_FALSE(s.modelled);
    EXPECT_EQ(s.sites.size(), 9u);
    EXPECT_EQ(s.x, (std::vector<double>{-10, 0, 10}));
    EXPECT_EQ(s.y, (std::vector<double>{-5, 0, 5}));
    ASSERT_EQ(s.grid.rowUb(), 3);
    ASSERT_EQ(s.grid.colUb(), 3);
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(s.grid(0, i).toDouble(), -20 + 10 * i);
        EXPECT_EQ(s.grid(i, 0).toDouble(), -10 + 5 * i);
    }
    EXPECT_NEAR(s.grid(1, 1).toDouble(), -10 - 10, 1e-9);  // (-10, -5)
    EXPECT_NEAR(s.grid(3, 2).toDouble(), 0 + 10, 1e-9);    // (0, 5)
    EXPECT_NEAR(s.grid(2, 2).toDouble(), 2, 1e-9);
    EXPECT_NEAR(s.zmin, -20, 1e-9);
    EXPECT_NEAR(s.zmax, 20, 1e-9);

    // Asked for, the model fills every cell.
    Result<SurfaceGrid> m = GetWaferSurface(*t.lot, *t.wafer, true);
    ASSERT_TRUE(m);
    EXPECT_TRUE(m->modelled);
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j) EXPECT_FALSE(m->grid(i, j).isEmpty());

    // The field surface stands on the field positions.
    TestLot f;
    for (int k = 0; k < 9; ++k) f.site(100 + k, 50, {float(k)}, (k % 3) * 4.0, (k / 3) * 2.0);
    Result<SurfaceGrid> fs = GetFieldSurface(*f.lot, *f.field);
    ASSERT_TRUE(fs);
    EXPECT_EQ(fs->x, (std::vector<double>{0, 4, 8}));
    EXPECT_EQ(fs->y, (std::vector<double>{0, 2, 4}));
    EXPECT_NEAR(fs->grid(3, 2).toDouble(), 7, 1e-6);  // k = 7 at (4, 4)

    TestLot empty;
    empty.site(0, 0, {kMissingValue});
    Result<SurfaceGrid> e = GetWaferSurface(*empty.lot, *empty.wafer);
    ASSERT_FALSE(e);
    EXPECT_EQ(e.failure().tag, "cWafer(GetSurface): ");
    EXPECT_EQ(e.failure().text, "No data in surface.");
}

TEST(Surface, TwoRowsTakeTheZernikeModelWhichKeepsAPlane) {
    TestLot t;
    // z = 2 + 0.05 x on the rows y = -10 and y = 10.
    for (int y : {-10, 10})
        for (int x = -40; x <= 40; x += 20) t.site(x, y, {float(2 + 0.05 * x)});
    Result<SurfaceGrid> r = GetWaferSurface(*t.lot, *t.wafer);
    ASSERT_TRUE(r) << r.failure().text;
    const SurfaceGrid& s = r.value();
    ASSERT_TRUE(s.modelled);
    ASSERT_EQ(s.grid.rowUb(), 2);
    ASSERT_EQ(s.grid.colUb(), 5);
    for (int i = 1; i <= 2; ++i)
        for (int j = 1; j <= 5; ++j) EXPECT_NEAR(s.grid(i, j).toDouble(), 2 + 0.05 * s.grid(0, j).toDouble(), 1e-5);
    // y^2 is constant on two rows, so the fit cannot tell BowY from the
    // piston; on the rows it is the plane all the same.
    clsEquation eq(s.model);
    for (int x : {-40, 0, 40}) {
        float rv, th;
        PolarPosition(x, 10, rv, th);
        eq.Var("Rval", rv);
        eq.Var("Theta", th);
        EXPECT_NEAR(eq.Solution(), 2 + 0.05 * x, 1e-5) << s.model;
    }

    // The contour takes the model's grid values as its data: between the
    // rows and beyond them each column keeps the plane's value. z runs
    // 0 .. 4; at x = -20, 10 t = 2.5: green 2.5 / 4 * 255 = 159.4.
    RecordingSurface surf(700, 600);
    cGraphic g;
    g.Container(&surf);
    ASSERT_TRUE(DrawWaferContour(g, *t.lot, *t.wafer, 5));
    const MapPlacement at{t.lot->um2pixels, t.lot->wcenx, t.lot->wceny};
    const auto boxes = Boxes(surf);
    EXPECT_EQ(ColorAt(boxes, at.px(-20000) + 1, at.py(0) - 1), RGB(0, 159, 255));
    EXPECT_EQ(ColorAt(boxes, at.px(-20000) + 1, at.py(100000)), RGB(0, 159, 255));
    EXPECT_EQ(ColorAt(boxes, at.px(-20000) + 1, at.py(-120000)), RGB(0, 159, 255));
}

TEST(Contour, RadialTrendIsBlueInTheCentreRedAtTheEdgeAndStaysInTheCircle) {
    TestLot t;
    // value = r^2 / 100 on a 10 mm lattice inside 140 mm: 0 .. 196.
    for (int y = -140; y <= 140; y += 10)
        for (int x = -140; x <= 140; x += 10)
            if (x * x + y * y <= 140 * 140) t.site(x, y, {float((x * x + y * y) / 100.0)});
    RecordingSurface s(700, 600);
    cGraphic g;
    g.Container(&s);
    ASSERT_TRUE(DrawWaferContour(g, *t.lot, *t.wafer, 5));

    const MapPlacement at{t.lot->um2pixels, t.lot->wcenx, t.lot->wceny};
    const double R = 150000 * at.um2pixels, cell = 5000 * at.um2pixels;
    std::vector<const RecordingSurface::Call*> cells;
    for (const auto* b : Boxes(s))
        if (X0(b) < at.cx + R) cells.push_back(b);  // the key stands right of the wafer
    ASSERT_FALSE(cells.empty());
    double area = 0;
    for (const auto* b : cells) {
        // The first and last cell of each run have their centres in the circle.
        const double yc = (Y0(b) + Y1(b)) / 2 - at.cy;
        EXPECT_LE(std::hypot(X0(b) + cell / 2 - at.cx, yc), R + 1e-6);
        EXPECT_LE(std::hypot(X1(b) - cell / 2 - at.cx, yc), R + 1e-6);
        area += (X1(b) - X0(b)) * (Y1(b) - Y0(b));
    }
    EXPECT_NEAR(area / (kPi * R * R), 1, 0.03);

    const Color centre = ColorAt(cells, at.cx + 1, at.cy + 1);
    EXPECT_EQ(RedOf(centre), 0);
    EXPECT_EQ(BlueOf(centre), 255);
    const Color edge = ColorAt(cells, at.px(142500), at.cy + 1);
    EXPECT_EQ(edge, RGB(255, 0, 0));
    const Color top = ColorAt(cells, at.cx + 1, at.py(142500));
    EXPECT_EQ(top, RGB(255, 0, 0));

    EXPECT_TRUE(HasText(s, "Max/Min: 196.0/0.0"));
    EXPECT_TRUE(HasText(s, "0.0"));
    EXPECT_TRUE(HasText(s, "196.0"));
    // The filled grid stays on the chart: 60 x 60 cells, X from -147.5 mm.
    ASSERT_EQ(g.DataGrid.rowUb(), 60);
    ASSERT_EQ(g.DataGrid.colUb(), 60);
    EXPECT_DOUBLE_EQ(g.DataGrid(0, 1).toDouble(), -147.5);
    EXPECT_DOUBLE_EQ(g.DataGrid(1, 0).toDouble(), 147.5);
}

TEST(Contour, ARowOfOneColourIsOneBox) {
    TestLot t;
    for (int y = -100; y <= 100; y += 100)
        for (int x = -100; x <= 100; x += 100) t.site(x, y, {float(y)});
    RecordingSurface s(700, 600);
    cGraphic g;
    g.Container(&s);
    ASSERT_TRUE(DrawWaferContour(g, *t.lot, *t.wafer, 5));
    const double right = t.lot->wcenx + 150000 * t.lot->um2pixels;
    size_t n = 0;
    for (const auto* b : Boxes(s)) n += X0(b) < right;
    EXPECT_EQ(n, 60u);  // one box for each of the 60 rows of cells
}

TEST(Contour, FieldFromLeftToRightAndAFlatSurfaceStops) {
    TestLot t;
    t.lot->DieSizeX = 20000, t.lot->DieSizeY = 10000;
    for (int y = -4; y <= 4; y += 4)
        for (int x = -8; x <= 8; x += 4) t.site(x + 50, y, {float(x)}, x, y);
    RecordingSurface s(600, 400);
    cGraphic g;
    g.Container(&s);
    ASSERT_TRUE(DrawFieldContour(g, *t.lot, *t.field, 0.5));
    const MapPlacement at{t.lot->um2pixels, t.lot->wcenx, t.lot->wceny};
    std::vector<const RecordingSurface::Call*> cells;
    for (const auto* b : Boxes(s))
        if (X0(b) < at.px(10000)) cells.push_back(b);
    ASSERT_FALSE(cells.empty());
    for (const auto* b : cells) {
        EXPECT_GE(X0(b), at.px(-10000) - 1e-9);
        EXPECT_LE(X1(b), at.px(10000) + 1e-9);
        EXPECT_GE(Y0(b), at.py(5000) - 1e-9);
        EXPECT_LE(Y1(b), at.py(-5000) + 1e-9);
    }
    EXPECT_EQ(ColorAt(cells, at.px(-9800), at.cy + 1), RGB(0, 0, 255));
    EXPECT_EQ(ColorAt(cells, at.px(9800), at.py(4800)), RGB(255, 0, 0));
    EXPECT_TRUE(HasText(s, "Max/Min: 8.0/-8.0"));

    // zmax = zmin: the key's colour fails and nothing is painted.
    TestLot flat;
    for (int y = -10; y <= 10; y += 10)
        for (int x = -10; x <= 10; x += 10) flat.site(x, y, {5});
    RecordingSurface fs(600, 400);
    cGraphic fg;
    fg.Container(&fs);
    Status st = DrawWaferContour(fg, *flat.lot, *flat.wafer);
    ASSERT_FALSE(st);
    EXPECT_EQ(st.failure().tag, "cGraphic(GetContourColor): ");
    EXPECT_EQ(st.failure().text, "Division by zero");
    EXPECT_TRUE(Boxes(fs).empty());

    cGraphic none;
    Status nc = DrawWaferContour(none, *flat.lot, *flat.wafer);
    ASSERT_FALSE(nc);
    EXPECT_EQ(nc.failure().tag, "cWafer(DrawContour): ");
}
