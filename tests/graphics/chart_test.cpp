// The chart's data and its limits, and a note drawn where it was put.
#include <gtest/gtest.h>

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
