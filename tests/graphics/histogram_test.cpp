// Histograms on the recording surface: bars counted by hand, the box plot's
// quartiles by the median-of-halves rule.
#include <gtest/gtest.h>

#include <string>

#include "graphics/chart.h"
#include "graphics/recording_surface.h"

using namespace zorv;

namespace {

// Values 1..10 (and a blank), group "A" for 1..6 and "B" for 7..10.
Datam Values() {
    Datam t(11, 2, 0, 0);
    t(0, 1) = Value("CD");
    t(0, 2) = Value("Lot");
    for (int i = 1; i <= 10; ++i) {
        t(i, 1) = Value(double(i));
        t(i, 2) = Value(i <= 6 ? "A" : "B");
    }
    return t;
}

}  // namespace

TEST(Histogram, BarsCountedAndTheirTable) {
    RecordingSurface s(800, 500);
    cGraphic g;
    g.Container(&s);
    ASSERT_TRUE(g.RegisterData(Values()));
    g.HistoXcol = 1;
    g.HistoDisplayResolution = 3;  // 1..10 in bins of 3: [1,4) [4,7) [7,10]
    ASSERT_TRUE(g.PlotHistogram());
    ASSERT_EQ(g.HistogramTables().size(), 1u);
    const Datam& d = g.HistogramTables()[0];
    EXPECT_EQ(d(0, 1).toString(), "X__");
    EXPECT_EQ(d(0, 2).toString(), "Y");
    ASSERT_EQ(d.rowUb(), 12);
    // Heights 3, 3, 4: the second corner of each bar.
    EXPECT_EQ(d(2, 2).toDouble(), 3);
    EXPECT_EQ(d(6, 2).toDouble(), 3);
    EXPECT_EQ(d(10, 2).toDouble(), 4);
    EXPECT_EQ(d(9, 1).toDouble(), 7);
    int bars = 0;
    for (const auto* l : s.of(RecordingSurface::Op::Line)) bars += l->form == LineForm::FilledBox && l->color == g.HistoColorVar1;
    EXPECT_EQ(bars, 3);
    // The bars stand on the count axis's 0: the graph box's bottom.
    EXPECT_EQ(g.Axes.Item("Y")->LowValue, 0);
}

TEST(Histogram, GroupsAndTheBoxPlot) {
    RecordingSurface s(900, 500);
    cGraphic g;
    g.Container(&s);
    ASSERT_TRUE(g.RegisterData(Values()));
    g.HistoXcol = 1;
    g.HistoYcol = 2;
    g.doBoxPlot = true;
    ASSERT_TRUE(g.PlotHistogram());
    ASSERT_EQ(g.HistogramTables().size(), 2u);
    EXPECT_EQ(g.HistogramTables()[0](0, 1).toString(), "X__(A,6)");
    EXPECT_EQ(g.HistogramTables()[1](0, 1).toString(), "X__(B,4)");
    // A: 1..6, Q1 2, median 3.5, Q3 5; B: 7..10 read directly, Q1 8, Q3 9.
    bool sawA = false, sawB = false;
    for (const std::string& t : s.texts()) {
        sawA = sawA || (t.find("Q0:1") == 0 && t.find(" Q1:2") != std::string::npos && t.find(" M:3.5") != std::string::npos);
        sawB = sawB || (t.find("Q0:7") == 0 && t.find(" Q4:10") != std::string::npos);
    }
    EXPECT_TRUE(sawA);
    EXPECT_TRUE(sawB);
}

TEST(Histogram, Refusals) {
    RecordingSurface s;
    cGraphic g;
    g.Container(&s);
    auto none = g.PlotHistogram();
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().text, "Data columns not specified.");
    ASSERT_TRUE(g.RegisterData(Datam::fromRows({{"", "CD"}, {1, 5.0}})));
    g.HistoXcol = 1;
    auto one = g.PlotHistogram();
    ASSERT_FALSE(one);
    EXPECT_EQ(one.failure().tag, "cGraphic(PlotHistogramAxes): ");
    EXPECT_NE(one.failure().text.find("Less than 2 rows of data provided."), std::string::npos);
    EXPECT_NE(one.failure().text.find("for data: 'CD'"), std::string::npos);
}
