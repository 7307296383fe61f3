// Curves drawn on the recording surface, their pixels worked out by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <utility>

#include "base/marks.h"
#include "graphics/recording_surface.h"
#include "graphics/series.h"

using namespace zorv;

namespace {

// x 0..10 over 100..600 pixels, y 0..5 over 400..100 (up is smaller).
PlotFrame Frame() {
    PlotFrame f;
    f.left = 100;
    f.top = 100;
    f.width = 500;
    f.height = 300;
    f.xLow = 0;
    f.xHigh = 10;
    f.yLow = 0;
    f.yHigh = 5;
    return f;
}

// Columns: x, y, lower error, upper error, colour; one row empty, one missing.
Datam Table() {
    return Datam::fromRows({{"", "X", "Y", "Lo", "Hi", "Col"},
                            {1, 2.0, 1.0, 0.5, 0.25, RGB(255, 0, 0)},
                            {2, 4.0, 2.0, Value(), Value(), RGB(0, 255, 0)},
                            {3, Value(), 3.0, 0.1, 0.1, 0},
                            {4, 8.0, double(kMissingValue), 0.1, 0.1, 0},
                            {5, 10.0, 5.0, 1.0, 1.0, Value()}});
}

}  // namespace

TEST(Series, ColumnsToPixelsWithSymbolsErrorBarsAndElements) {
    RecordingSurface s;
    cSeries c;
    c.Label = "CD";
    c.Xcol = 1;
    c.Ycol = 2;
    c.YerrCol1 = 3;
    c.YerrCol2 = 4;
    c.ColorCol = 5;
    c.ColorFore = RGB(0, 0, 255);
    c.Symbol = SymbolShape::Square;
    c.SymbolSize = 6;
    ASSERT_TRUE(c.Draw(s, Table(), Frame()));
    // Three rows have both values: (2,1), (4,2), (10,5).
    const auto lines = s.of(RecordingSurface::Op::Polyline);
    ASSERT_EQ(lines.size(), 1u);
    ASSERT_EQ(lines[0]->points.size(), 3u);
    EXPECT_DOUBLE_EQ(lines[0]->points[0].x, 100 + 2.0 / 10 * 500);  // 200
    EXPECT_DOUBLE_EQ(lines[0]->points[0].y, 100 + 300 - 1.0 / 5 * 300);  // 340
    EXPECT_DOUBLE_EQ(lines[0]->points[2].y, 100);  // the top edge
    // Symbols: boxes 6 across in each row's colour; the last row has none, so the curve's.
    std::vector<Color> colours;
    for (const auto* b : s.of(RecordingSurface::Op::Line))
        if (b->form == LineForm::Box) colours.push_back(b->color);
    EXPECT_EQ(colours, (std::vector<Color>{RGB(255, 0, 0), RGB(0, 255, 0), RGB(0, 0, 255)}));
    // Error bars on rows 1 and 5 (row 2 has none): a bar and two caps each,
    // but row 5 sits on the top edge, so its bar is cut there and its upper
    // cap, outside the box, is not drawn.
    int bars = 0;
    for (const auto* l : s.of(RecordingSurface::Op::Line))
        if (l->form == LineForm::Line) ++bars;
    EXPECT_EQ(bars, 5);
    // Row 1: from 1 - 0.5 to 1 + 0.25, that is pixels 370 to 325.
    const auto* first = s.of(RecordingSurface::Op::Line)[0];
    EXPECT_DOUBLE_EQ(first->points[0].y, 370);
    EXPECT_DOUBLE_EQ(first->points[1].y, 325);
    // The element table.
    const Datam e = c.Elements();
    ASSERT_EQ(e.rowUb(), 3);
    EXPECT_EQ(e(0, 1).toString(), "Xp");
    EXPECT_EQ(e(2, 3).toDouble(), 4.0);
    EXPECT_EQ(e(2, 4).toDouble(), 2.0);
    EXPECT_EQ(e(3, 6).toString(), "CD");
}

TEST(Series, FunctionCurvesAndHiddenOnes) {
    RecordingSurface s;
    cSeries f;
    f.SeriesType = 1;  // a function curve without its text draws nothing
    ASSERT_TRUE(f.Draw(s, Datam(), Frame()));
    EXPECT_TRUE(s.calls().empty());
    f.DisplayFunction.setEquation("0.5 * t + 1");
    f.Evaluations = 5;
    f.DisplayFunctionXlow = 0;
    f.DisplayFunctionXhigh = 8;
    ASSERT_TRUE(f.Draw(s, Datam(), Frame()));
    const auto lines = s.of(RecordingSurface::Op::Polyline);
    ASSERT_EQ(lines.size(), 1u);
    ASSERT_EQ(lines[0]->points.size(), 5u);
    // t = 0, 2, 4, 6, 8: y = 1 .. 5.
    EXPECT_DOUBLE_EQ(lines[0]->points[4].x, 100 + 0.8 * 500);
    EXPECT_DOUBLE_EQ(lines[0]->points[4].y, 100);
    EXPECT_DOUBLE_EQ(lines[0]->points[0].y, 400 - 60);
    s.clear();
    cSeries h;
    h.Xcol = 1;
    h.Ycol = 2;
    h.Hide = true;
    ASSERT_TRUE(h.Draw(s, Table(), Frame()));
    EXPECT_TRUE(s.calls().empty());
}

TEST(Series, EraseDrawsInTheBackgroundAndCloneCopies) {
    RecordingSurface s;
    s.BackColor = RGB(250, 250, 250);
    cSeries c;
    c.Xcol = 1;
    c.Ycol = 2;
    c.ColorFore = RGB(1, 2, 3);
    c.Symbol = SymbolShape::Circle;
    ASSERT_TRUE(c.EraseCurve(s, Table(), Frame()));
    for (const auto* k : s.of(RecordingSurface::Op::Circle)) EXPECT_EQ(k->color, RGB(250, 250, 250));
    EXPECT_EQ(c.ColorFore, RGB(1, 2, 3));  // its own colour back
    auto d = c.clone();
    EXPECT_EQ(d->Xcol, 1);
    EXPECT_EQ(d->ColorFore, RGB(1, 2, 3));
    Series all;
    all.Add("a");
    all.Add("b");
    EXPECT_EQ(all.Item("b"), all.Item(2));
    all.Remove(1);
    EXPECT_EQ(all.Count(), 1);
    EXPECT_EQ(all.Item(1)->Label, "b");
}

TEST(Series, LinesClippedToTheGraphBox) {
    // (5, 2.5) is inside; (15, 2.5) lies beyond the right edge at x = 10.
    RecordingSurface s;
    cSeries c;
    c.Xcol = 1;
    c.Ycol = 2;
    c.Symbol = SymbolShape::Plus;
    const Datam t = Datam::fromRows({{"", "X", "Y"}, {1, 5.0, 2.5}, {2, 15.0, 2.5}, {3, 20.0, 2.5}});
    ASSERT_TRUE(c.Draw(s, t, Frame()));
    const auto lines = s.of(RecordingSurface::Op::Polyline);
    ASSERT_EQ(lines.size(), 1u);
    ASSERT_EQ(lines[0]->points.size(), 2u);
    EXPECT_DOUBLE_EQ(lines[0]->points[0].x, 350);
    EXPECT_DOUBLE_EQ(lines[0]->points[1].x, 600);  // cut at the box's right edge
    EXPECT_DOUBLE_EQ(lines[0]->points[1].y, 250);
    EXPECT_EQ(s.of(RecordingSurface::Op::Line).size(), 2u);  // one plus: the point inside
    EXPECT_EQ(c.ElementCount(), 1);
}

TEST(Series, DashedLinesKeepWholeSymbols) {
    RecordingSurface s;
    cSeries c;
    c.Xcol = 1;
    c.Ycol = 2;
    c.LineType = static_cast<int>(DrawStyle::Dash);
    ASSERT_TRUE(c.Draw(s, Table(), Frame()));
    const auto lines = s.of(RecordingSurface::Op::Polyline);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]->style, DrawStyle::Dash);
    for (const auto* m : s.of(RecordingSurface::Op::Circle)) EXPECT_EQ(m->style, DrawStyle::Solid);
}

TEST(Series, ACloudOfPointsDrawsOneSymbolAPixelAndAFewPointsAllOfThem) {
    // 60,000 points on a grid of 0.01 in x and y: several points to a pixel
    // (50 pixels an x unit, 60 a y unit), every one of them kept for the mouse.
    Datam t(60000, 2, 0, 1);
    std::set<std::pair<long, long>> pixels;
    const PlotFrame f = Frame();
    for (int r = 1; r <= 60000; ++r) {
        const double x = (r % 300) * 0.01, y = (r / 300) * 0.01;
        t(r, 1) = Value(x);
        t(r, 2) = Value(y);
        pixels.insert({std::lround(f.px(x)), std::lround(f.py(y))});
    }
    cSeries c;
    c.Xcol = 1;
    c.Ycol = 2;
    c.Symbol = SymbolShape::Circle;
    RecordingSurface s;
    ASSERT_TRUE(c.Draw(s, t, f));
    const auto circles = s.of(RecordingSurface::Op::Circle);
    ASSERT_EQ(circles.size(), pixels.size());
    std::set<std::pair<long, long>> at;
    for (const auto* k : circles) at.insert({std::lround(k->points[0].x), std::lround(k->points[0].y)});
    EXPECT_EQ(at, pixels);
    EXPECT_EQ(c.Elements().rowUb(), 60000);

    // Below the threshold every point draws, also where they coincide.
    Datam few(100, 2, 0, 1);
    for (int r = 1; r <= 100; ++r) few(r, 1) = Value(1.0), few(r, 2) = Value(1.0);
    RecordingSurface s2;
    ASSERT_TRUE(c.Draw(s2, few, f));
    EXPECT_EQ(s2.of(RecordingSurface::Op::Circle).size(), 100u);
}
