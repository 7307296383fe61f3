// Box plots over an XY chart, the rebuild by kind, and the lot behind a chart.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "graphics/chart.h"
#include "graphics/recording_surface.h"
#include "lot/lot.h"
#include "numerics/matrix.h"

using namespace zorv;

namespace {

// X = 1 holds 1..6, X = 2 holds 1..7 (in a shuffled order), X = 3 one value.
Datam Profiles() {
    const double ys1[] = {4, 1, 6, 2, 5, 3};
    const double ys2[] = {7, 3, 1, 5, 2, 6, 4};
    Datam t(14, 2, 0, 0);
    t(0, 1) = Value("Focus");
    t(0, 2) = Value("CD");
    int r = 1;
    for (double y : ys1) t(r, 1) = Value(1.0), t(r++, 2) = Value(y);
    for (double y : ys2) t(r, 1) = Value(2.0), t(r++, 2) = Value(y);
    t(r, 1) = Value(3.0), t(r, 2) = Value(4.0);
    return t;
}

// Filled boxes in a colour, as (top pixel, bottom pixel).
std::vector<std::pair<double, double>> FilledBoxes(const RecordingSurface& s, Color fill) {
    std::vector<std::pair<double, double>> out;
    for (const auto* l : s.of(RecordingSurface::Op::Line))
        if (l->form == LineForm::FilledBox && l->color == fill)
            out.emplace_back(std::min(l->points[0].y, l->points[1].y), std::max(l->points[0].y, l->points[1].y));
    return out;
}

}  // namespace

TEST(BoxPlot, QuartilesPerXPositionDrawnUnderTheCurve) {
    RecordingSurface s(800, 500);
    cGraphic g;
    g.Container(&s);
    ASSERT_TRUE(g.RegisterData(Profiles()));
    cSeries& c = g.Series.Add("CD");
    c.Xcol = 1, c.Ycol = 2, c.Connect = false;
    g.doBoxPlot = true;
    ASSERT_TRUE(g.DrawFigure());
    ASSERT_EQ(g.BoxPlotTables().size(), 1u);
    const Datam& b = g.BoxPlotTables()[0];
    EXPECT_EQ(b(0, 1).toString(), "Xprofile");
    EXPECT_EQ(b(0, 6).toString(), "Median");
    EXPECT_EQ(b(0, 9).toString(), "Colors_CD");
    ASSERT_EQ(b.rowUb(), 3);
    // Six values 1..6: Q1 2, median 3.5, Q3 5. Seven values: both halves
    // hold the fourth, Q1 = (2 + 3) / 2, Q3 = (5 + 6) / 2.
    EXPECT_EQ(b(1, 5).toDouble(), 2);
    EXPECT_EQ(b(1, 6).toDouble(), 3.5);
    EXPECT_EQ(b(1, 7).toDouble(), 5);
    EXPECT_EQ(b(2, 3).toDouble(), 7);
    EXPECT_EQ(b(2, 5).toDouble(), 2.5);
    EXPECT_EQ(b(2, 6).toDouble(), 4);
    EXPECT_EQ(b(2, 7).toDouble(), 5.5);
    EXPECT_EQ(b(2, 4).toDouble(), 1);
    EXPECT_EQ(b(2, 8).toDouble(), 7);
    // One value: counted, no box.
    EXPECT_EQ(b(3, 3).toDouble(), 1);
    EXPECT_TRUE(IsBlank(b(3, 5)));

    // Two boxes, spanning Q1..Q3 in pixels, and each centred on its X.
    const auto boxes = FilledBoxes(s, g.HistoBoxPlotColor2);
    ASSERT_EQ(boxes.size(), 2u);
    const PlotFrame& f = g.Frame();
    EXPECT_NEAR(boxes[0].first, f.py(5), 1e-9);
    EXPECT_NEAR(boxes[0].second, f.py(2), 1e-9);
    EXPECT_NEAR(boxes[1].first, f.py(5.5), 1e-9);
    EXPECT_NEAR(b(2, 2).toDouble(), f.px(2), 1e-9);
    // The boxes come before the curve's symbols, which stay on top.
    const auto& calls = s.calls();
    size_t lastBox = 0, firstSymbol = calls.size();
    for (size_t i = 0; i < calls.size(); ++i) {
        if (calls[i].op == RecordingSurface::Op::Line && calls[i].form == LineForm::FilledBox &&
            calls[i].color == g.HistoBoxPlotColor2)
            lastBox = i;
        if (calls[i].op == RecordingSurface::Op::Circle) firstSymbol = std::min(firstSymbol, i);
    }
    EXPECT_LT(lastBox, firstSymbol);
}

TEST(BoxPlot, PercentileWhiskersAndLabels) {
    // 1..20 at one X: nearest rank puts 5% at 1 and 95% at 19.
    Datam t(20, 2, 0, 0);
    t(0, 1) = Value("X"), t(0, 2) = Value("Y");
    for (int i = 1; i <= 20; ++i) t(i, 1) = Value(0.0), t(i, 2) = Value(double(21 - i));
    RecordingSurface s(600, 400);
    cGraphic g;
    g.Container(&s);
    ASSERT_TRUE(g.RegisterData(t));
    cSeries& c = g.Series.Add("v");
    c.Xcol = 1, c.Ycol = 2;
    g.doBoxPlot = g.BoxPlotPercentiles = true;
    ASSERT_TRUE(g.DrawFigure());
    const Datam& b = g.BoxPlotTables()[0];
    EXPECT_EQ(b(0, 9).toString(), "5%");
    EXPECT_EQ(b(1, 9).toDouble(), 1);
    EXPECT_EQ(b(1, 10).toDouble(), 19);
    const auto texts = s.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "5%"), texts.end());
    EXPECT_NE(std::find(texts.begin(), texts.end(), "95%"), texts.end());
    // Q1 5.5 and Q3 15.5 hold 6..15: half of the values.
    EXPECT_NE(std::find(texts.begin(), texts.end(), "50.0%"), texts.end());
}

TEST(Refresh, DrawsByKindAndKeepsTheSurfaceWhenAsked) {
    RecordingSurface s(600, 400);
    cGraphic g;
    g.Container(&s);
    ASSERT_TRUE(g.RegisterData(Profiles()));
    g.HistoXcol = 2;
    g.Kind = GraphKind::Histogram;
    ASSERT_TRUE(g.Refresh());
    EXPECT_EQ(s.of(RecordingSurface::Op::Cls).size(), 1u);
    EXPECT_EQ(g.HistogramTables().size(), 1u);
    s.clear();
    ASSERT_TRUE(g.Refresh(true));
    EXPECT_TRUE(s.of(RecordingSurface::Op::Cls).empty());
}

TEST(LotData, TheLotCarriesTheContainerAndSeesTheChartsView) {
    auto lot = cLot::create();
    lot->PLotDataType = eResidual;
    auto surface = std::make_shared<RecordingSurface>(500, 300);
    lot->Container = surface;
    cGraphic g;
    g.PLotDataType = eFitted;
    ASSERT_TRUE(g.RegisterData(Profiles()));
    cSeries& c = g.Series.Add("CD");
    c.Xcol = 1, c.Ycol = 2;
    auto none = g.DrawFigure();
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().text, "Graph Container was not specified.");
    ASSERT_TRUE(g.LotData(lot));
    ASSERT_TRUE(g.DrawFigure());
    EXPECT_FALSE(surface->of(RecordingSurface::Op::Circle).empty());
    EXPECT_EQ(lot->PlotGraph.get(), &g);
    EXPECT_EQ(lot->PLotDataType, eResidual);  // the lot's own view back after drawing
}

TEST(FindLotPoints, PointsOfSitesInsideTheRectangle) {
    auto lot = cLot::create();
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    std::vector<cPoint*> pts;
    // A 3 x 3 grid of fields, one site each at the field's wafer position
    // (-10, 0, 10 mm) and at (100, 200) in the field.
    for (int i = 0; i < 9; ++i) {
        cField* fld = w->AddField(float(i % 3), float(i / 3), isNew, false);
        Ref<cSite> site = cSite::New();
        site->setNumberKey(1);
        site->LocationX = 100, site->LocationY = 200;
        site->LocationXabs = float((i % 3 - 1) * 10000), site->LocationYabs = float((i / 3 - 1) * 10000);
        auto p = std::make_unique<cPoint>();
        pts.push_back(p.get());
        fld->AddPoint(site, std::move(p));
    }
    cGraphic g;
    ASSERT_TRUE(g.LotData(lot));
    auto rect = [](double x1, double y1, double x2, double y2) {
        Datam d(4, 1, 1, 1);
        d(1, 1) = Value(x1), d(2, 1) = Value(y1), d(3, 1) = Value(x2), d(4, 1) = Value(y2);
        return d;
    };
    // Corners in any order; edges included.
    auto r = g.FindLotPoints(rect(10000, 0, -5000, 12000));
    ASSERT_TRUE(r);
    std::vector<cPoint*> want = {pts[4], pts[5], pts[7], pts[8]};
    auto got = r.value();
    std::sort(got.begin(), got.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(got, want);
    // Culled points are not found; field positions put every site at (100, 200).
    pts[5]->setCull(true);
    EXPECT_EQ(g.FindLotPoints(rect(10000, 0, -5000, 12000)).value().size(), 3u);
    EXPECT_EQ(g.FindLotPoints(rect(0, 0, 150, 250), true).value().size(), 8u);

    for (const Datam& bad : {Datam(3, 1, 1, 1), Datam(4, 2, 1, 1), Datam()}) {
        auto f = g.FindLotPoints(bad);
        ASSERT_FALSE(f);
        EXPECT_EQ(f.failure().text, "Input 'dRect' must be a (4,1) array rectangle.");
        EXPECT_EQ(f.failure().tag, "cGraphic(FindLotPoints): ");
    }
}

TEST(Refresh, MapsRefuseLotsTheyCannotDraw) {
    RecordingSurface s(600, 600);
    cGraphic g;
    g.Container(&s);
    for (GraphKind k : {GraphKind::WaferVector, GraphKind::WaferContour, GraphKind::Surface3D}) {
        g.Kind = k;
        auto none = g.Refresh();
        ASSERT_FALSE(none);
        EXPECT_EQ(none.failure().text, "The chart has no lot to draw.");
    }
    // No wafer at all.
    auto lot = cLot::create();
    lot->LotName = "EMPTY";
    ASSERT_TRUE(g.LotData(lot));
    for (GraphKind k : {GraphKind::WaferVector, GraphKind::WaferContour, GraphKind::FieldContour}) {
        g.Kind = k;
        auto r = g.Refresh();
        ASSERT_FALSE(r);
        EXPECT_EQ(r.failure().text, "No wafers in lot: EMPTY");
    }
    // A wafer without points: nothing to make a surface of.
    bool isNew = false;
    lot->AddWafer("W1", isNew)->AddField(0, 0, isNew, false);
    g.Kind = GraphKind::WaferContour;
    auto empty = g.Refresh();
    ASSERT_FALSE(empty);
    EXPECT_EQ(empty.failure().text, "No data in surface.");
    // A lot that does not know its wafer's size has no place for it.
    lot->WaferSize = 0;
    g.Kind = GraphKind::WaferVector;
    auto size = g.Refresh();
    ASSERT_FALSE(size);
    EXPECT_EQ(size.failure().text, "The lot has no wafer size.");
}

TEST(PlotChart, CurvesOnTheSecondAxisUseItsRange) {
    // CD 0.1..0.2 on the left, focus -1..1 on the right, against dose.
    Datam t = Datam::fromRows({{"", "Dose", "CD", "Focus"}, {1, 20.0, 0.1, -1.0}, {2, 25.0, 0.15, 0.0}, {3, 30.0, 0.2, 1.0}});
    RecordingSurface s(800, 500);
    cGraphic g;
    g.Container(&s);
    ASSERT_TRUE(g.RegisterData(t));
    cSeries& cd = g.Series.Add("CD");
    cd.Xcol = 1, cd.Ycol = 2;
    cSeries& bf = g.Series.Add("Best Focus");
    bf.Xcol = 1, bf.Ycol = -1, bf.Y2col = 3;
    bf.Symbol = SymbolShape::Square;
    g.Axes.Add("Y2").Label = "Best Focus";
    ASSERT_TRUE(g.DrawFigure());
    const cAxis& y2 = *g.Axes.Item("Y2");
    ASSERT_LT(y2.LowValue, -1);
    ASSERT_GT(y2.HighValue, 1);
    // The focus curve's middle point (focus 0) sits where 0 falls on the right
    // axis, the CD curve's (0.15) where it falls on the left one.
    const PlotFrame& f = g.Frame();
    const double y0 = f.top + f.height - (0 - y2.LowValue) / (y2.HighValue - y2.LowValue) * f.height;
    const auto lines = s.of(RecordingSurface::Op::Polyline);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NEAR(lines[1]->points[1].y, y0, 1e-6);
    EXPECT_NEAR(lines[0]->points[1].y, f.py(0.15), 1e-6);
    // Its labels and title stand right of the graph box.
    bool rightLabel = false;
    for (const auto* c : s.of(RecordingSurface::Op::Print))
        rightLabel = rightLabel || (c->text == "Best Focus" && c->points[0].x > f.left + f.width / 2);
    EXPECT_TRUE(rightLabel);
}
