// The chart's data and its limits, and a note drawn where it was put.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "base/format.h"
#include "graphics/chart.h"
#include "graphics/recording_surface.h"

using namespace zorv;

TEST(Chart, RegisterDataCountsAndRefuses) {
    cGraphic g;
    auto none = g.RegisterData(Datam());
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().text, "Data provided is not an array");
    EXPECT_EQ(none.failure().tag, "cGraphic(RegisterData): ");
    // One empty data row is no rows.
    auto empty = g.RegisterData(Datam::fromRows({{"", "X", "Y"}, {Value(), Value(), Value()}}));
    ASSERT_FALSE(empty);
    EXPECT_EQ(empty.failure().text, "Data set had zero rows of data");

    const Datam t = Datam::fromRows({{"", "X", "Y"}, {1, 1.0, 2.0}, {2, 3.0, Value()}});
    ASSERT_TRUE(g.RegisterData(t));
    EXPECT_EQ(g.TotalPoints, 3);  // three non-blank data cells
    // A copy: changing the source leaves the chart's table alone.
    Datam u = t;
    u(1, 1) = Value(99.0);
    EXPECT_EQ(g.Data()(1, 1).toDouble(), 1.0);
    ASSERT_TRUE(g.RegisterDataAdd(Datam::fromRows({{"", "X", "Y"}, {3, 5.0, 6.0}})));
    EXPECT_EQ(g.Data().rowUb(), 3);
    EXPECT_EQ(g.Data()(3, 2).toDouble(), 6.0);
    EXPECT_EQ(g.TotalPoints, 5);
    g.ClearData();
    EXPECT_FALSE(g.Data().isArray());
}

TEST(Chart, SixteenSeriesSlots) {
    cGraphic g;
    EXPECT_TRUE(g.SetSeriesOptions(0, "first", SymbolShape::Circle));
    EXPECT_TRUE(g.SetSeriesOptions(15, "sixteenth", SymbolShape::Square));
    EXPECT_EQ(g.SeriesLabel(15), "sixteenth");
    auto r = g.SetSeriesOptions(16, "seventeenth", SymbolShape::Square);
    ASSERT_FALSE(r);
    EXPECT_EQ(r.failure().text, "Too many data series -- limit is 15");
    EXPECT_FALSE(g.SetSeriesOptions(-1, "", SymbolShape::None));
    EXPECT_NE(cGraphic::GetPlotColors(0), cGraphic::GetPlotColors(1));
    EXPECT_EQ(cGraphic::GetPlotColors(16), cGraphic::GetPlotColors(0));
}

TEST(Chart, MessageCentredBoxedAndJustified) {
    RecordingSurface s;
    cMessage m;
    m.Message = "Best focus";
    m.XcenterLoc = 200;
    m.YcenterLoc = 100;
    m.Boxed = true;
    m.Font.size = 9;
    m.Draw(s);
    const auto texts = s.of(RecordingSurface::Op::Print);
    ASSERT_EQ(texts.size(), 1u);
    const double w = 10 * 0.6 * 9 * 96 / 72.0, h = 1.2 * 9 * 96 / 72.0;
    EXPECT_NEAR(texts[0]->points[0].x, 200 - w / 2, 1e-9);
    EXPECT_NEAR(texts[0]->points[0].y, 100 - h / 2, 1e-9);
    EXPECT_EQ(s.of(RecordingSurface::Op::Line).size(), 1u);  // the box
    s.clear();
    m.Boxed = false;
    m.Justify = 2;
    m.Draw(s);
    EXPECT_NEAR(s.of(RecordingSurface::Op::Print)[0]->points[0].x, 200 - w, 1e-9);
}

namespace {

// Two curves over x 0..10, one with error bars, the other its square root.
cGraphic TwoCurves(RecordingSurface& s) {
    cGraphic g;
    g.Container(&s);
    Datam t(11, 4, 0, 0);
    t(0, 1) = Value("Dose");
    t(0, 2) = Value("CD");
    t(0, 3) = Value("Err");
    t(0, 4) = Value("Root");
    for (int i = 0; i <= 10; ++i) {
        t(i + 1, 1) = Value(double(i));
        t(i + 1, 2) = Value(50.0 + 2 * i);
        t(i + 1, 3) = Value(1.0);
        t(i + 1, 4) = Value(std::sqrt(double(i)) * 20);
    }
    EXPECT_TRUE(g.RegisterData(t));
    cSeries& a = g.Series.Add("CD");
    a.Xcol = 1, a.Ycol = 2, a.YerrCol1 = 3, a.YerrCol2 = 3;
    cSeries& b = g.Series.Add("Root");
    b.Xcol = 1, b.Ycol = 4, b.Symbol = SymbolShape::TriangleUp;
    g.TitleObj.TitleString = "CD against dose";
    g.Axes.Add("X").Label = "Dose (mJ/cm2)";
    g.Axes.Add("Y").Label = "CD (nm)";
    return g;
}

}  // namespace

TEST(Chart, PlotChartLaysOutEverythingInsideTheSurface) {
    RecordingSurface s(800, 500);
    cGraphic g = TwoCurves(s);
    g.Stats.Title = "Statistics";
    g.Stats.RegisterArray(Datam::fromRows({{"Mean", 60.0}, {"StDev", 6.63}}));
    ASSERT_TRUE(g.DrawFigure());
    const auto texts = s.texts();
    auto has = [&](const std::string& t) { return std::find(texts.begin(), texts.end(), t) != texts.end(); };
    EXPECT_TRUE(has("CD against dose"));
    EXPECT_TRUE(has("Dose (mJ/cm2)"));
    EXPECT_TRUE(has("CD (nm)"));
    EXPECT_TRUE(has("CD"));    // legend
    EXPECT_TRUE(has("Root"));  // legend
    EXPECT_TRUE(has("Statistics"));
    EXPECT_TRUE(has("Mean"));
    // The X axis: the 0 holds no range, so 1..10 in steps of 1 ("#0.0"), and
    // one step of margin: 0..11.
    const cAxis* x = g.Axes.Item("X");
    EXPECT_EQ(x->TickFormat, "#0.0");
    EXPECT_FLOAT_EQ(x->LowValue, 0.0f);
    EXPECT_FLOAT_EQ(x->HighValue, 11.0f);
    EXPECT_TRUE(has("0.0"));
    EXPECT_TRUE(has("11.0"));
    // Everything on the surface, the graph box inside the chart, right of the
    // Y tick labels and left of the legend and statistics box.
    for (const auto& c : s.calls())
        for (const PointD& q : c.points) {
            EXPECT_GE(q.x, 0);
            EXPECT_LE(q.x, 800);
            EXPECT_GE(q.y, 0);
            EXPECT_LE(q.y, 500);
        }
    EXPECT_GT(g.GraphLeft, 20);
    EXPECT_LT(g.GraphLeft + g.GraphWidth, g.LegendLeft);
    EXPECT_LT(g.LegendLeft + g.LegendWidth, g.Stats.PLotLeft + 1);
    // The curves were drawn in the axes' frame: the first point of CD at x = 0.
    const auto lines = s.of(RecordingSurface::Op::Polyline);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NEAR(lines[0]->points[0].x, g.Frame().px(0), 1e-9);
    EXPECT_EQ(lines[0]->color, cGraphic::GetPlotColors(0));
    EXPECT_EQ(lines[1]->color, cGraphic::GetPlotColors(1));
}

TEST(Chart, ZoomAndResetAndMissingContainer) {
    RecordingSurface s(800, 500);
    cGraphic g = TwoCurves(s);
    ASSERT_TRUE(g.PlotChart());
    cAxis* y = g.Axes.Item("Y");
    const float lo = y->LowValue, hi = y->HighValue;
    // A zoom by hand, drawn without auto-scale, then the reset.
    y->AutoScale = false;
    y->LowValue = 55;
    y->HighValue = 60;
    ASSERT_TRUE(g.PlotChart());
    EXPECT_EQ(g.Frame().yLow, 55);
    g.Axes.Reset();
    EXPECT_EQ(y->LowValue, lo);
    EXPECT_EQ(y->HighValue, hi);

    cGraphic none;
    auto r = none.DrawFigure();
    ASSERT_FALSE(r);
    EXPECT_EQ(r.failure().text, "Graph Container was not specified.");
    EXPECT_EQ(r.failure().tag, "cGraphic(DrawFigure): ");
    cGraphic empty;
    empty.Container(&s);
    auto e = empty.PlotChart();
    ASSERT_FALSE(e);
    EXPECT_EQ(e.failure().text, "Total number of data points in graph = 0");
}

TEST(Chart, PixelsBackToValuesElementsZoomAndSwap) {
    RecordingSurface s(800, 500);
    cGraphic g = TwoCurves(s);
    ASSERT_TRUE(g.PlotChart());
    const PlotFrame f = g.Frame();
    // A pixel back to its values.
    const PointD v = g.GetXYvalues(f.px(3), f.py(55));
    EXPECT_NEAR(v.x, 3, 1e-9);
    EXPECT_NEAR(v.y, 55, 1e-9);
    // The CD point at dose 4 (CD 58) is under its pixel.
    auto e = g.GetChartElement(f.px(4) + 1, f.py(58) - 1);
    EXPECT_EQ(e.kind, cGraphic::ChartElement::Point);
    EXPECT_EQ(e.series, 1);
    EXPECT_EQ(e.x, 4);
    EXPECT_EQ(e.y, 58);
    // The legend's second line, an empty spot of the plot, nothing.
    const cSeries* root = g.Series.Item(2);
    e = g.GetChartElement(root->LeftPixel + 2, root->Top + root->Height / 2);
    EXPECT_EQ(e.kind, cGraphic::ChartElement::Legend);
    EXPECT_EQ(e.series, 2);
    e = g.GetChartElement(f.left + f.width - 2, f.top + f.height - 2);
    EXPECT_EQ(e.kind, cGraphic::ChartElement::Plot);
    EXPECT_EQ(g.GetChartElement(1, 1).kind, cGraphic::ChartElement::None);

    // Zoom to the box from dose 2..6 and CD 52..62, draw, and back.
    const Datam box = Datam::fromRows({{f.px(2)}, {f.py(62)}, {f.px(6)}, {f.py(52)}}, 1, 1);
    ASSERT_TRUE(g.ReScale(box));
    ASSERT_TRUE(g.PlotChart());
    EXPECT_NEAR(g.Frame().xLow, 2, 1e-4);
    EXPECT_NEAR(g.Frame().xHigh, 6, 1e-4);
    EXPECT_NEAR(g.Frame().yLow, 52, 1e-4);
    EXPECT_NEAR(g.Frame().yHigh, 62, 1e-4);
    g.ResetAutosize();
    ASSERT_TRUE(g.PlotChart());
    EXPECT_EQ(g.Frame().xLow, f.xLow);
    EXPECT_EQ(g.Frame().yHigh, f.yHigh);
    auto bad = g.ReScale(Datam::fromRows({{1.0}, {2.0}}, 1, 1));
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.failure().text, "Box array for rescale not provided.");

    // X and Y exchanged: the curves' columns and the axes' labels.
    g.SwapAxes();
    EXPECT_EQ(g.Series.Item(1)->Xcol, 2);
    EXPECT_EQ(g.Series.Item(1)->Ycol, 1);
    EXPECT_EQ(g.Axes.Item("X")->Label, "CD (nm)");
    EXPECT_EQ(g.Axes.Item("Y")->Label, "Dose (mJ/cm2)");
    ASSERT_TRUE(g.PlotChart());
    EXPECT_NEAR(g.Frame().yLow, f.xLow, 1e-6);  // doses now run up the chart
}

TEST(Chart, ACopyHoldsCurvesAndAxesOfItsOwn) {
    cGraphic g;
    ASSERT_TRUE(g.RegisterData(Datam::fromRows({{"", "X", "Y"}, {1, 1.0, 2.0}, {2, 2.0, 3.0}})));
    cSeries& c = g.Series.Add("CD");
    c.Xcol = 1;
    c.Ycol = 2;
    g.Axes.Add("X").Label = "Dose";
    cGraphic copy = g;
    copy.Series.Item(1)->Label = "changed";
    copy.Axes.Item("X")->Label = "Focus";
    copy.Series.Add("more");
    EXPECT_EQ(g.Series.Item(1)->Label, "CD");
    EXPECT_EQ(g.Axes.Item("X")->Label, "Dose");
    EXPECT_EQ(g.Series.Count(), 1);
    EXPECT_EQ(copy.Series.Item(1)->Xcol, 1);
    // Both draw, each on its own.
    RecordingSurface s1, s2;
    g.Container(&s1);
    copy.Container(&s2);
    EXPECT_TRUE(g.DrawFigure());
    EXPECT_TRUE(copy.DrawFigure());
    g.Container(nullptr);
    copy.Container(nullptr);
}
