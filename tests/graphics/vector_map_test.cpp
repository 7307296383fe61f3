// Wafer and field vector maps, and the mouse selection over a map.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <tuple>

#include "graphics/chart.h"
#include "graphics/map_selection.h"
#include "graphics/recording_surface.h"
#include "graphics/vector_map.h"
#include "lot/lot.h"

using namespace zorv;
using Op = RecordingSurface::Op;

namespace {

// (dx, dy) in display units at a wafer position in micrometres.
using VectorField = std::function<std::pair<double, double>(double x, double y)>;

// A 200 mm wafer of square fields `die` across, centred on whole die steps
// (field (i, j) centred at (i die, j die)), n by n sites a field, sites kept
// within 95 mm of the centre. Values from the vector field at each site.
std::shared_ptr<cLot> MakeMapLot(const VectorField& v, int n = 1, float die = 20000, float radius = 95000,
                                 float wafer = 200000) {
    auto lot = cLot::create();
    lot->LotName = "Map";
    lot->DataSource(eDataSourceOverlay);
    lot->ValueV_Name = "X";
    lot->ValueH_Name = "Y";
    lot->WaferSize = wafer;
    lot->DieSizeX = lot->DieSizeY = die;
    lot->DieXoffset = lot->DieYoffset = -die / 2;
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    const int k = static_cast<int>(std::ceil(radius / die));
    for (int j = -k; j <= k; ++j)
        for (int i = -k; i <= k; ++i) {
            cField* f = nullptr;
            int key = 0;
            for (int b = 0; b < n; ++b)
                for (int a = 0; a < n; ++a) {
                    const double sx = (a - (n - 1) / 2.0) * die / n, sy = (b - (n - 1) / 2.0) * die / n;
                    const double ax = i * die + sx, ay = j * die + sy;
                    ++key;
                    if (std::hypot(ax, ay) > radius) continue;
                    if (!f) {
                        f = w->AddField(float(i), float(j), isNew, false);
                        // With the die offset of half a die, the field's centre.
                        f->LocationX = i * die;
                        f->LocationY = j * die;
                    }
                    Ref<cSite> s = cSite::New();
                    s->setNumberKey(key);
                    s->LocationX = float(sx), s->LocationY = float(sy);
                    s->setParent(f);
                    auto p = std::make_unique<cPoint>();
                    const auto [dx, dy] = v(ax, ay);
                    p->ValueV = float(dx * 1000);
                    p->ValueH = float(dy * 1000);
                    f->AddPoint(s, std::move(p));
                }
        }
    lot->CalcWaferPositions();
    return lot;
}

std::vector<cSite*> Sites(const cLot& lot) {
    std::vector<cSite*> out;
    lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) { out.push_back(&s); });
    return out;
}

MapPlacement Placed(const cLot& lot) { return MapPlacement{lot.um2pixels, lot.wcenx, lot.wceny}; }

double Length(const RecordingSurface::Call* c) {
    return std::hypot(c->points[1].x - c->points[0].x, c->points[1].y - c->points[0].y);
}

// The arrow whose tail is at a pixel; nullptr when none starts there.
const RecordingSurface::Call* ArrowAt(const RecordingSurface& s, double x, double y) {
    for (const auto* c : s.of(Op::Polyline))
        if (std::fabs(c->points[0].x - x) < 1e-6 && std::fabs(c->points[0].y - y) < 1e-6) return c;
    return nullptr;
}

const cSite* SiteAt(const cLot& lot, double x, double y) {
    for (const cSite* s : Sites(lot))
        if (std::fabs(s->LocationXabs - x) < 0.5 && std::fabs(s->LocationYabs - y) < 0.5) return s;
    return nullptr;
}

double LongestArrow(const RecordingSurface& s) {
    double m = 0;
    for (const auto* c : s.of(Op::Polyline)) m = std::max(m, Length(c));
    return m;
}

struct Map {
    RecordingSurface surface{800, 600};
    cGraphic chart;
    Map() { chart.Container(&surface); }
    Status Wafer(cLot& lot, const VectorMapFlags& f = {}) {
        surface.clear();
        return cWaferVector(chart, lot, f);
    }
};

}  // namespace

// ---------------------------------------------------------------- direction against hand truth

TEST(WaferVector, ArrowsPointTheWayTheVectorsDo) {
    // A pure X translation: every arrow to the right, level.
    {
        auto lot = MakeMapLot([](double, double) { return std::pair{3.0, 0.0}; });
        Map m;
        ASSERT_TRUE(m.Wafer(*lot));
        const MapPlacement at = Placed(*lot);
        const cSite* right = SiteAt(*lot, 80000, 0);
        ASSERT_TRUE(right);
        const auto* a = ArrowAt(m.surface, at.px(80000), at.py(0));
        ASSERT_TRUE(a);
        EXPECT_GT(a->points[1].x, a->points[0].x);
        EXPECT_NEAR(a->points[1].y, a->points[0].y, 1e-9);
        EXPECT_EQ(m.surface.of(Op::Polyline).size(), Sites(*lot).size());
    }
    // A rotation (dx = -k y, dy = k x): at the top to the left, at the right
    // upward (pixel y decreasing).
    {
        const double k = 1e-5;
        auto lot = MakeMapLot([k](double x, double y) { return std::pair{-k * y, k * x}; });
        Map m;
        ASSERT_TRUE(m.Wafer(*lot));
        const MapPlacement at = Placed(*lot);
        const auto* top = ArrowAt(m.surface, at.px(0), at.py(80000));
        const auto* right = ArrowAt(m.surface, at.px(80000), at.py(0));
        ASSERT_TRUE(top && right);
        EXPECT_LT(top->points[1].x, top->points[0].x);
        EXPECT_NEAR(top->points[1].y, top->points[0].y, 1e-9);
        EXPECT_LT(right->points[1].y, right->points[0].y);
        EXPECT_NEAR(right->points[1].x, right->points[0].x, 1e-9);
    }
    // A magnification: every arrow away from the centre, along the radius;
    // the centre site has none.
    {
        const double k = 2e-5;
        auto lot = MakeMapLot([k](double x, double y) { return std::pair{k * x, k * y}; });
        Map m;
        ASSERT_TRUE(m.Wafer(*lot));
        const auto arrows = m.surface.of(Op::Polyline);
        EXPECT_EQ(arrows.size(), Sites(*lot).size() - 1);
        for (const auto* a : arrows) {
            const double rx = a->points[0].x - lot->wcenx, ry = a->points[0].y - lot->wceny;
            const double ax = a->points[1].x - a->points[0].x, ay = a->points[1].y - a->points[0].y;
            EXPECT_GT(rx * ax + ry * ay, 0);
            EXPECT_NEAR(rx * ay - ry * ax, 0, 1e-6 * std::hypot(rx, ry));
        }
    }
}

TEST(WaferVector, LargestArrowSpansTheReferenceLength) {
    // Automatic scale and no reference set: P is a quarter die at the wafer's
    // zoom (the lot has no site step), and the longest vector spans it. Other
    // arrows in proportion: length P |v| / |v|max.
    const double k = 1e-5;
    auto lot = MakeMapLot([k](double x, double y) { return std::pair{-k * y, k * x}; });
    Map m;
    ASSERT_TRUE(m.Wafer(*lot));
    const double P = lot->um2pixels * 5000;
    EXPECT_NEAR(LongestArrow(m.surface), P, 1e-9);
    double rmax = 0;
    for (const cSite* s : Sites(*lot)) rmax = std::max(rmax, std::hypot(double(s->LocationXabs), double(s->LocationYabs)));
    const MapPlacement at = Placed(*lot);
    const auto* a = ArrowAt(m.surface, at.px(40000), at.py(20000));
    ASSERT_TRUE(a);
    EXPECT_NEAR(Length(a), P * std::hypot(40000.0, 20000.0) / rmax, 1e-6);
    // The head: two strokes back from the tip, on either side of the shaft.
    ASSERT_EQ(a->points.size(), 5u);
    EXPECT_DOUBLE_EQ(a->points[3].x, a->points[1].x);
    // A reference length on the chart wins.
    m.chart.ArrowReference = 37;
    ASSERT_TRUE(m.Wafer(*lot));
    EXPECT_NEAR(LongestArrow(m.surface), 37, 1e-9);
}

// ---------------------------------------------------------------- the scale

TEST(WaferVector, ZeroVectorsKeepTheScaleAtTheReferenceLength) {
    auto lot = MakeMapLot([](double, double) { return std::pair{0.0, 0.0}; });
    Map m;
    m.chart.ArrowReference = 40;
    ASSERT_TRUE(m.Wafer(*lot));
    // L = 0 takes P's place: one pixel per unit, the bar of 40 pixels says 40.
    EXPECT_EQ(m.chart.VectorScale, 0);
    EXPECT_DOUBLE_EQ(lot->Pum2pixelsZ, 1);
    EXPECT_DOUBLE_EQ(lot->Pum2pixelsV, 1);
    EXPECT_DOUBLE_EQ(lot->Pum2pixelsH, 1);
    EXPECT_TRUE(m.surface.of(Op::Polyline).empty());
    EXPECT_EQ(m.surface.of(Op::PSet).size(), Sites(*lot).size());  // the sites are marked
    const auto t = m.surface.texts();
    EXPECT_NE(std::find(t.begin(), t.end(), "Scale(um): 40"), t.end());
}

TEST(WaferVector, TypedScaleIsKeptAndAutomaticIsRecomputedEachDrawing) {
    double amp = 2.5;
    auto lot = MakeMapLot([&amp](double x, double) { return std::pair{x > 0 ? amp : -amp / 2, 0.0}; });
    auto scaleData = [&](double f) {
        for (const cSite* s : Sites(*lot))
            for (cPoint* p : s->Points()) p->ValueV *= float(f);
    };
    Map m;
    m.chart.ArrowReference = 50;
    // Automatic: the largest vector (2.5) is the scale, the chart keeps 0.
    ASSERT_TRUE(m.Wafer(*lot));
    EXPECT_EQ(m.chart.VectorScale, 0);
    EXPECT_FLOAT_EQ(lot->ThresholdZ, 2500);
    EXPECT_DOUBLE_EQ(lot->Pum2pixelsZ, 50 / 2.5);
    EXPECT_NEAR(LongestArrow(m.surface), 50, 1e-9);
    auto t = m.surface.texts();
    EXPECT_NE(std::find(t.begin(), t.end(), "Scale(um): 2.500"), t.end());
    // Data twice as large: recomputed, the longest arrow still spans 50.
    scaleData(2);
    ASSERT_TRUE(m.Wafer(*lot));
    EXPECT_DOUBLE_EQ(lot->Pum2pixelsZ, 50 / 5.0);
    EXPECT_NEAR(LongestArrow(m.surface), 50, 1e-9);
    t = m.surface.texts();
    EXPECT_NE(std::find(t.begin(), t.end(), "Scale(um): 5"), t.end());

    // Typed 10 units: 5 spans half the bar, across redraws and data changes.
    m.chart.VectorScale = 10000;
    ASSERT_TRUE(m.Wafer(*lot));
    EXPECT_NEAR(LongestArrow(m.surface), 25, 1e-9);
    scaleData(0.5);
    ASSERT_TRUE(m.Wafer(*lot));
    EXPECT_EQ(m.chart.VectorScale, 10000);
    EXPECT_NEAR(LongestArrow(m.surface), 12.5, 1e-9);
    t = m.surface.texts();
    EXPECT_NE(std::find(t.begin(), t.end(), "Scale(um): 10"), t.end());
    EXPECT_FLOAT_EQ(lot->ThresholdZ, 10000);
}

TEST(WaferVector, AxisScalesAndThresholds) {
    // Largest X component 4, largest Y 2, largest length sqrt(16 + 1).
    auto lot = MakeMapLot([](double x, double y) {
        return std::pair{x > 70000 ? 4.0 : 0.5, y > 70000 ? 2.0 : 1.0};
    });
    Map m;
    m.chart.ArrowReference = 60;
    VectorMapFlags f;
    f.axisScales = true;
    ASSERT_TRUE(m.Wafer(*lot, f));
    EXPECT_DOUBLE_EQ(lot->Pum2pixelsV, 60 / 4.0);
    EXPECT_DOUBLE_EQ(lot->Pum2pixelsH, 60 / 2.0);
    EXPECT_NEAR(lot->Pum2pixelsZ, 60 / std::sqrt(17.0), 1e-9);
    const auto t = m.surface.texts();
    EXPECT_NE(std::find(t.begin(), t.end(), "X-Scale(um): 4"), t.end());
    EXPECT_NE(std::find(t.begin(), t.end(), "Y-Scale(um): 2"), t.end());
    // Each component on its own scale: the right edge's X spans 60 pixels.
    const MapPlacement at = Placed(*lot);
    const auto* a = ArrowAt(m.surface, at.px(80000), at.py(0));
    ASSERT_TRUE(a);
    EXPECT_NEAR(a->points[1].x - a->points[0].x, 60, 1e-9);
    EXPECT_NEAR(a->points[0].y - a->points[1].y, 30, 1e-9);
    // Thresholds that were 0 become +-1000 S; ThresholdZ always 1000 S.
    EXPECT_NEAR(lot->ThresholdMax, 1000 * std::sqrt(17.0), 1e-2);
    EXPECT_NEAR(lot->ThresholdMin, -1000 * std::sqrt(17.0), 1e-2);
    lot->ThresholdMax = 123;
    m.chart.VectorScale = 3000;
    ASSERT_TRUE(m.Wafer(*lot, f));
    EXPECT_FLOAT_EQ(lot->ThresholdMax, 123);
    EXPECT_FLOAT_EQ(lot->ThresholdZ, 3000);
    // A typed scale is one scale for every direction.
    EXPECT_DOUBLE_EQ(lot->Pum2pixelsV, 20);
    EXPECT_DOUBLE_EQ(lot->Pum2pixelsH, 20);
}

// ---------------------------------------------------------------- scalar features

TEST(WaferVector, ScalarFeatureColoursSitesOnTheRamp) {
    // V = x in mm: the right edge is the top of the range (red), the left
    // edge the bottom (blue).
    auto lot = MakeMapLot([](double x, double) { return std::pair{x / 1000, 0.0}; });
    lot->PlotFeature(ePlotFeatureV);
    Map m;
    ASSERT_TRUE(m.Wafer(*lot));
    EXPECT_TRUE(m.surface.of(Op::Polyline).empty());
    const MapPlacement at = Placed(*lot);
    auto circleAt = [&](double x, double y) -> const RecordingSurface::Call* {
        for (const auto* c : m.surface.of(Op::Circle))
            if (c->fill == FillStyle::Solid && std::fabs(c->points[0].x - at.px(x)) < 1e-6 && std::fabs(c->points[0].y - at.py(y)) < 1e-6) return c;
        return nullptr;
    };
    const auto* hi = circleAt(80000, 0);
    const auto* lo = circleAt(-80000, 0);
    ASSERT_TRUE(hi && lo);
    EXPECT_EQ(hi->fill, FillStyle::Solid);
    EXPECT_EQ(hi->fillColor, RGB(255, 0, 0));
    EXPECT_EQ(lo->fillColor, RGB(0, 0, 255));
    EXPECT_FLOAT_EQ(lot->PlotMaxZ, 80000);
    EXPECT_FLOAT_EQ(lot->PlotMinZ, -80000);
    // The legend's series is made once.
    ASSERT_TRUE(m.Wafer(*lot));
    EXPECT_EQ(m.chart.Series.Count(), 1);

    // A fourth axis of equal ends: widened to 1.1 and 0.9 of its value;
    // values outside it clamp to the ends of the ramp.
    cAxis& z = m.chart.Axes.Add("Z");
    z.HighValue = z.LowValue = 20;
    ASSERT_TRUE(m.Wafer(*lot));
    EXPECT_FLOAT_EQ(lot->PlotMaxZ, 22000);
    EXPECT_FLOAT_EQ(lot->PlotMinZ, 18000);
    EXPECT_EQ(circleAt(80000, 0)->fillColor, RGB(255, 0, 0));
    EXPECT_EQ(circleAt(0, 0)->fillColor, RGB(0, 0, 255));
}

// ---------------------------------------------------------------- the field map

TEST(FieldVector, ReferenceLengthIsTheSmallestStepAtTheFieldsZoom) {
    const double k = 1e-4;
    auto lot = MakeMapLot([k](double x, double y) { return std::pair{-k * y, k * x}; }, 5);
    lot->SiteXoffset = 300, lot->SiteYoffset = -200;
    lot->CalcWaferPositions();
    Map m;
    for (cField* f : lot->Wafers().At(1)->Fields())
        if (f->DieX == 0 && f->DieY == 0) m.chart.FieldKey = f->NumberKey;
    ASSERT_FALSE(m.chart.FieldKey.empty());
    // No site step: a quarter of the die.
    ASSERT_TRUE(cFieldVector(m.chart, *lot));
    EXPECT_NEAR(LongestArrow(m.surface), lot->um2pixels * 5000, 1e-9);
    // Only the chosen field: its 25 sites but the wafer's centre (0 there),
    // tails at the field position plus the offset.
    EXPECT_EQ(m.surface.of(Op::Polyline).size(), 24u);
    const MapPlacement at = Placed(*lot);
    EXPECT_TRUE(ArrowAt(m.surface, at.px(-8000 + 300), at.py(-8000 - 200)));
    // Site steps 4 mm and 3 mm: the smaller.
    lot->SiteStepX = 4000, lot->SiteStepy = 3000;
    m.surface.clear();
    ASSERT_TRUE(cFieldVector(m.chart, *lot));
    EXPECT_NEAR(LongestArrow(m.surface), lot->um2pixels * 3000, 1e-9);
    // All fields overlaid.
    VectorMapFlags all;
    all.allFields = true;
    m.surface.clear();
    ASSERT_TRUE(cFieldVector(m.chart, *lot, all));
    EXPECT_EQ(m.surface.of(Op::Polyline).size(), Sites(*lot).size() - 1);  // the wafer centre site is 0
}

TEST(VectorMaps, ContainerFamilyAndWaferChoice) {
    auto lot = MakeMapLot([](double, double) { return std::pair{1.0, 1.0}; });
    cGraphic g;
    auto none = cWaferVector(g, *lot, {});
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().tag, "Graphics(cWaferVector): ");
    EXPECT_EQ(none.failure().text, "A container for the plot was not specified.");
    EXPECT_EQ(cFieldVector(g, *lot, {}).failure().tag, "Graphics(cFieldVector): ");

    // The lot's container serves when the chart has none; notes over the map hidden.
    auto surface = std::make_shared<RecordingSurface>(600, 600);
    lot->Container = surface;
    g.Messages.push_back(cMessage{});
    g.Messages.back().Key = "txtNote";
    // Family 2 alone; culled sites skipped.
    auto sites = Sites(*lot);
    for (size_t i = 0; i < sites.size(); ++i) sites[i]->setFamily(i % 3 == 0 ? 2 : 1);
    sites[0]->setCull(true);
    VectorMapFlags f;
    f.family = 2;
    ASSERT_TRUE(cWaferVector(g, *lot, f));
    EXPECT_TRUE(g.Messages.back().Hide);
    EXPECT_EQ(surface->of(Op::Polyline).size(), (sites.size() + 2) / 3 - 1);

    // The chart's wafer rather than the first; or all wafers overlaid.
    bool isNew = false;
    cField* fld = lot->AddWafer("W2", isNew)->AddField(0, 0, isNew, false);
    Ref<cSite> s = cSite::New();
    s->setParent(fld);
    auto p = std::make_unique<cPoint>();
    p->ValueV = 1000, p->ValueH = 0;
    fld->AddPoint(s, std::move(p));
    lot->CalcWaferPositions();
    g.WaferKey = "W2";
    surface->clear();
    ASSERT_TRUE(cWaferVector(g, *lot, {}));
    EXPECT_EQ(surface->of(Op::Polyline).size(), 1u);
    f = {};
    f.allWafers = true;
    surface->clear();
    ASSERT_TRUE(cWaferVector(g, *lot, f));
    EXPECT_EQ(surface->of(Op::Polyline).size(), sites.size());  // less the culled one, plus W2's
}

TEST(WaferVector, HundredThousandSitesOneArrowEach) {
    auto lot = MakeMapLot([](double x, double y) { return std::pair{x * 1e-5, -y * 2e-5}; }, 25, 20000, 148000, 300000);
    const size_t n = Sites(*lot).size();
    ASSERT_GE(n, 100000u);
    Map m;
    m.surface.clear();
    ASSERT_TRUE(cWaferVector(m.chart, *lot));
    EXPECT_EQ(m.surface.of(Op::Polyline).size() + 1, n);  // the centre site is 0
}

// ---------------------------------------------------------------- the selection

TEST(MapSelection, EitherWayOfDraggingGivesTheSameRectangle) {
    RecordingSurface s;
    MapSelection sel;
    auto drag = [&](double x0, double y0, std::initializer_list<std::pair<double, double>> path) {
        ASSERT_TRUE(MouseGraphic_MouseDown(sel, &s, kMouseLeft, x0, y0));
        std::pair<double, double> last{x0, y0};
        for (auto [x, y] : path) {
            ASSERT_TRUE(MouseMoveGraphic(sel, &s, kMouseLeft, x, y));
            last = {x, y};
        }
        ASSERT_TRUE(MouseGraphic_MouseUp(sel, &s, kMouseLeft, last.first, last.second));
    };
    const MapPlacement at{0.002, 400, 300};
    drag(100, 80, {{120, 90}, {150, 120}});
    const SelectedArea a = GetSelectedArea(sel, at);
    drag(150, 120, {{130, 95}, {100, 80}});
    const SelectedArea b = GetSelectedArea(sel, at);
    EXPECT_EQ(std::tie(a.left, a.top, a.right, a.bottom), std::tie(b.left, b.top, b.right, b.bottom));
    EXPECT_EQ(std::tie(a.left, a.top, a.right, a.bottom), std::make_tuple(100.0, 80.0, 150.0, 120.0));
    // Micrometres, y up: x (100 - 400) / 0.002, y (300 - 120) / 0.002 at the bottom.
    EXPECT_DOUBLE_EQ(b.x1, -150000);
    EXPECT_DOUBLE_EQ(b.x2, -125000);
    EXPECT_DOUBLE_EQ(b.y1, 90000);
    EXPECT_DOUBLE_EQ(b.y2, 110000);
    const Datam r = b.Rect();
    EXPECT_EQ(r.rowLb(), 1);
    EXPECT_EQ(r.rowUb(), 4);
    EXPECT_EQ(r(3, 1).toDouble(), -125000);

    // Inverting rectangles cancel in pairs: only the standing one is drawn an
    // odd number of times, and every one with sorted corners.
    std::map<std::tuple<double, double, double, double>, int> times;
    for (const auto* c : s.of(Op::FocusRect)) {
        EXPECT_LE(c->points[0].x, c->points[1].x);
        EXPECT_LE(c->points[0].y, c->points[1].y);
        ++times[{c->points[0].x, c->points[0].y, c->points[1].x, c->points[1].y}];
    }
    int odd = 0;
    for (const auto& [rect, n] : times)
        if (n % 2) {
            ++odd;
            EXPECT_EQ(rect, std::make_tuple(100.0, 80.0, 150.0, 120.0));
        }
    EXPECT_EQ(odd, 1);
    EXPECT_TRUE(sel.standing);
}

TEST(MapSelection, ButtonsClicksAndALostMouseUp) {
    RecordingSurface s;
    MapSelection sel;
    // The right button and moves without a drag draw nothing.
    ASSERT_TRUE(MouseGraphic_MouseDown(sel, &s, kMouseRight, 10, 10));
    ASSERT_TRUE(MouseMoveGraphic(sel, &s, kMouseRight, 30, 30));
    ASSERT_TRUE(MouseMoveGraphic(sel, &s, 0, 40, 40));
    EXPECT_TRUE(s.calls().empty());
    // A click leaves nothing standing.
    ASSERT_TRUE(MouseGraphic_MouseDown(sel, &s, kMouseLeft, 10, 10));
    ASSERT_TRUE(MouseGraphic_MouseUp(sel, &s, kMouseLeft, 10, 10));
    EXPECT_FALSE(sel.standing);
    EXPECT_TRUE(s.calls().empty());
    // The button released outside the window: the next move ends the drag there.
    ASSERT_TRUE(MouseGraphic_MouseDown(sel, &s, kMouseLeft, 10, 10));
    ASSERT_TRUE(MouseMoveGraphic(sel, &s, kMouseLeft, 20, 20));
    ASSERT_TRUE(MouseMoveGraphic(sel, &s, 0, 25, 30));
    EXPECT_FALSE(sel.dragging);
    EXPECT_TRUE(sel.standing);
    const auto last = s.of(Op::FocusRect).back();
    EXPECT_EQ(last->points[1].x, 25);
    EXPECT_EQ(last->points[1].y, 30);
    // No surface.
    auto f = MouseGraphic_MouseDown(sel, nullptr, kMouseLeft, 1, 1);
    ASSERT_FALSE(f);
    EXPECT_EQ(f.failure().tag, "Graphics(MouseGraphic_MouseDown): ");
    EXPECT_EQ(f.failure().text, "A container for the plot was not specified.");
}

TEST(MapSelection, TheRectangleFindsThePointsUnderIt) {
    auto lot = MakeMapLot([](double, double) { return std::pair{1.0, 0.0}; });
    Map m;
    ASSERT_TRUE(m.chart.LotData(lot));
    ASSERT_TRUE(m.Wafer(*lot));
    const MapPlacement at = Placed(*lot);
    const cSite* target = SiteAt(*lot, 40000, -20000);
    ASSERT_TRUE(target);
    // A few pixels around the site's mark, dragged up and to the left.
    MapSelection sel;
    const double x = at.px(40000), y = at.py(-20000);
    ASSERT_TRUE(MouseGraphic_MouseDown(sel, &m.surface, kMouseLeft, x + 4, y + 4));
    ASSERT_TRUE(MouseGraphic_MouseUp(sel, &m.surface, kMouseLeft, x - 4, y - 4));
    auto found = m.chart.FindLotPoints(GetSelectedArea(sel, at).Rect());
    ASSERT_TRUE(found);
    ASSERT_EQ(found->size(), 1u);
    EXPECT_EQ(found->front()->parent(), target);
}
