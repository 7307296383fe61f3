// Axis auto-scaling against hand calculations, SetStyle's exact list, the
// zoom reset, the drawing's range checks and the keyed collection.
#include <gtest/gtest.h>

#include <initializer_list>

#include "base/report.h"
#include "graphics/axis.h"

using namespace zorv;

namespace {

// A table with header row 0 and one data column "V" (column 1) of the cells.
Datam Column(std::initializer_list<Value> cells) {
    Datam t(static_cast<int>(cells.size()), 1, 0, 1);
    t(0, 1) = Value("V");
    int r = 1;
    for (const Value& v : cells) t(r++, 1) = v;
    return t;
}

std::vector<AutoScaleSeries> OnY(int col = 1) { return {AutoScaleSeries{-1, col, -1, ""}}; }

constexpr float kTol = 1e-4f;

}  // namespace

TEST(AxisAutoScale, AllEqualValuesOpenFiveUnits) {
    // 7 everywhere: high = 7 + 5 = 12, low 7. Interval 5/9 = 0.5556 (exponent
    // -1, so 2 decimals, "#0.00"); 12.00 and 7.00 keep; one interval each side.
    Datam t = Column({7.0, 7.0, 7.0, 7.0});
    cAxis a;
    ASSERT_TRUE(CalcAutoScale(a, t, OnY(), AxisRole::Y, 0, false).ok());
    EXPECT_EQ(a.TickFormat, "#0.00");
    EXPECT_NEAR(a.UnitsPerTick, 5.0f / 9, kTol);
    EXPECT_NEAR(a.HighValue - a.UnitsPerTick, 12.0f, kTol);  // before the margin
    EXPECT_NEAR(a.LowValue + a.UnitsPerTick, 7.0f, kTol);
    EXPECT_NEAR(a.HighValue, 12.5556f, kTol);
    EXPECT_NEAR(a.LowValue, 6.4444f, kTol);
    EXPECT_EQ(a.TickInterval, 0.0f);  // the setting stays automatic
}

TEST(AxisAutoScale, PercentTextsReadAsNumbersAndLoseTheSign) {
    // 9..15: interval 6/9 = 0.6667, "#0.00", margin gives 8.3333 .. 15.6667.
    Datam t = Column({Value("12%"), Value("15%"), Value("9%"), Value()});
    cAxis a;
    ASSERT_TRUE(CalcAutoScale(a, t, OnY(), AxisRole::Y, 0, false).ok());
    EXPECT_NEAR(a.HighValue, 15.6667f, kTol);
    EXPECT_NEAR(a.LowValue, 8.3333f, kTol);
    EXPECT_EQ(t(1, 1).str(), "12");
    EXPECT_EQ(t(2, 1).str(), "15");
    EXPECT_EQ(t(3, 1).str(), "9");
    EXPECT_TRUE(t(4, 1).isEmpty());
    EXPECT_EQ(t(0, 1).str(), "V");
}

TEST(AxisAutoScale, SmallIntervalsGiveMoreDecimals) {
    {
        // A set interval of 0.0123 (1.23E-02): 2 + 1 = 3 decimals. 2.34567
        // rounds to 2.346, 1.23456 to 1.235, then 0.0123 each side.
        Datam t = Column({1.23456, 2.34567});
        cAxis a;
        a.TickInterval = 0.0123f;
        ASSERT_TRUE(CalcAutoScale(a, t, OnY(), AxisRole::Y, 0, false).ok());
        EXPECT_EQ(a.TickFormat, "#0.000");
        EXPECT_FLOAT_EQ(a.TickInterval, 0.0123f);
        EXPECT_FLOAT_EQ(a.UnitsPerTick, 0.0123f);
        EXPECT_NEAR(a.HighValue, 2.3583f, kTol);
        EXPECT_NEAR(a.LowValue, 1.2227f, kTol);
    }
    {
        // Automatic: (0.6107 - 0.5) / 9 = 0.0123, the same format; 0.611 and 0.500.
        Datam t = Column({0.5, 0.6107});
        cAxis a;
        ASSERT_TRUE(CalcAutoScale(a, t, OnY(), AxisRole::Y, 0, false).ok());
        EXPECT_EQ(a.TickFormat, "#0.000");
        EXPECT_NEAR(a.UnitsPerTick, 0.0123f, 1e-6f);
        EXPECT_NEAR(a.HighValue, 0.611f + 0.0123f, kTol);
        EXPECT_NEAR(a.LowValue, 0.5f - 0.0123f, kTol);
    }
}

TEST(AxisAutoScale, ZeroNeverHoldsTheRange) {
    // 0, 0, 5, 3: both bounds still 0 when 5 comes, so 5 seeds both; then
    // low 3. Range 3..5, interval 2/9 = 0.2222, "#0.00".
    for (auto cells : {Column({0.0, 0.0, 5.0, 3.0}), Column({5.0, 0.0, 3.0})}) {
        cAxis a;
        ASSERT_TRUE(CalcAutoScale(a, cells, OnY(), AxisRole::Y, 0, false).ok());
        EXPECT_NEAR(a.HighValue, 5.2222f, kTol);
        EXPECT_NEAR(a.LowValue, 2.7778f, kTol);
    }
    // Below zero the high is lost the same way: 0, -2, -4 gives -4..-2.
    Datam t = Column({0.0, -2.0, -4.0});
    cAxis a;
    ASSERT_TRUE(CalcAutoScale(a, t, OnY(), AxisRole::Y, 0, false).ok());
    EXPECT_NEAR(a.HighValue, -1.7778f, kTol);
    EXPECT_NEAR(a.LowValue, -4.2222f, kTol);
}

TEST(AxisAutoScale, TextAxisCountsUniqueValues) {
    // Three categories: high 3 + 1 = 4, low 1, interval 1 ("#0.0"), then one
    // each side: 0 .. 5.
    Datam t = Column({Value("A"), Value("B"), Value("A"), Value("C")});
    cAxis a;
    ASSERT_TRUE(CalcAutoScale(a, t, {AutoScaleSeries{1, -1, -1, ""}}, AxisRole::X, 0, true).ok());
    EXPECT_FLOAT_EQ(a.UnitsPerTick, 1.0f);
    EXPECT_EQ(a.TickFormat, "#0.0");
    EXPECT_FLOAT_EQ(a.HighValue, 5.0f);
    EXPECT_FLOAT_EQ(a.LowValue, 0.0f);

    // A category chart makes its X axis a text axis even for numbers: 10, 20,
    // 20, 30 are three categories. Its Y axis still reads values.
    Datam n = Column({10.0, 20.0, 20.0, 30.0});
    cAxis x, y;
    ASSERT_TRUE(CalcAutoScale(x, n, {AutoScaleSeries{1, 1, -1, ""}}, AxisRole::X, 2, false).ok());
    EXPECT_FLOAT_EQ(x.HighValue, 5.0f);
    ASSERT_TRUE(CalcAutoScale(y, n, {AutoScaleSeries{1, 1, -1, ""}}, AxisRole::Y, 2, false).ok());
    EXPECT_NEAR(y.HighValue, 30 + 20.0f / 9, kTol);  // 10..30, interval 2.2222, "#0.0"
    EXPECT_NEAR(y.LowValue, 10 - 20.0f / 9, kTol);
}

TEST(AxisAutoScale, FunctionSeriesSampledAtThreeRows) {
    // X column "Focus": 1, 10, 3, 7, 5, 2 in rows 1..6. The function is taken
    // at rows 1, 6 and (6 + 1) / 2 = 3, i.e. at x = 1, 2, 3: -1, 2, 7. The
    // unsampled rows (x = 10 gives 98) stay out. Range -1..7, interval 8/9,
    // "#0.00".
    Datam t(6, 2, 0, 1);
    t(0, 1) = Value("Focus");
    t(0, 2) = Value("CD");
    const double xs[] = {1, 10, 3, 7, 5, 2};
    for (int r = 1; r <= 6; ++r) {
        t(r, 1) = Value(xs[r - 1]);
        t(r, 2) = Value(500.0);
    }
    const float m = 8.0f / 9;
    {
        cAxis a;
        ASSERT_TRUE(CalcAutoScale(a, t, {AutoScaleSeries{1, -1, -1, "Focus*Focus - 2"}}, AxisRole::Y, 0, false).ok());
        EXPECT_NEAR(a.HighValue, 7 + m, kTol);
        EXPECT_NEAR(a.LowValue, -1 - m, kTol);
    }
    {
        // A text naming another variable takes X as it: 2x + 1 at 1, 2, 3 is 3..7;
        // a data series on the same axis adds its values (500).
        cAxis a;
        std::vector<AutoScaleSeries> s{{1, -1, -1, "2*x + 1"}, {1, 2, -1, ""}};
        ASSERT_TRUE(CalcAutoScale(a, t, s, AxisRole::Y, 0, false).ok());
        // 3..500: interval 497/9 = 55.22 (exponent 1: "#0.0"), so 555.2, -52.2.
        EXPECT_EQ(a.TickFormat, "#0.0");
        EXPECT_NEAR(a.HighValue, 500 + 497.0f / 9, 1e-3f);
        EXPECT_NEAR(a.LowValue, 3 - 497.0f / 9, 1e-3f);
    }
    {
        // The X axis of a function series reads its X column: 1..10.
        cAxis a;
        ASSERT_TRUE(CalcAutoScale(a, t, {AutoScaleSeries{1, -1, -1, "2*x"}}, AxisRole::X, 0, false).ok());
        EXPECT_NEAR(a.HighValue, 11.0f, kTol);  // interval 1, "#0.0"
        EXPECT_NEAR(a.LowValue, 0.0f, kTol);
    }
}

TEST(AxisAutoScale, EscapeAndMissingTable) {
    Datam t = Column({1.0, 2.0});
    cAxis a;
    a.HighValue = 42;
    SetEscPressed(true);
    ASSERT_TRUE(CalcAutoScale(a, t, OnY(), AxisRole::Y, 0, false).ok());
    EXPECT_EQ(a.HighValue, 42.0f);  // Esc ended it before anything changed

    Datam none;
    const Status s = CalcAutoScale(a, none, OnY(), AxisRole::Y, 0, false);
    ASSERT_FALSE(s.ok());
    EXPECT_EQ(s.failure().tag, "cAxis(CalcAutoScale): ");
}

TEST(AxisStyle, SetStyleCopiesExactlyItsList) {
    cAxis src;
    src.Color = RGB(1, 2, 3);
    src.Font.name = "Serif";
    src.Font.size = 12;
    src.HighValue = 9;
    src.LowValue = -9;
    src.nPenWidth = 3;
    src.PlotGridline = true;
    src.Resolution = 0.5f;
    src.TickFormat = "#0.000";
    src.TickInterval = 0.25f;
    // Everything else differs too, and must not travel.
    src.Label = "Source";
    src.OriginLowValue = 1;
    src.OriginHighValue = 2;
    src.OriginTickInterval = 3;
    src.OriginTickFormat = "#0.0";
    src.UnitsPerTick = 4;
    src.AutoScale = false;
    src.AxisType = 7;
    src.LeftPixel = src.Top = src.WidthPixel = src.Height = 11;
    src.TickLabelAdd("a");
    src.LineSegments.push_back({1, 2, 3, 4});
    src.ClassID = "other";

    cAxis dst;
    dst.Label = "Mine";
    const cAxis before = dst;
    ASSERT_TRUE(dst.SetStyle(&src).ok());
    EXPECT_EQ(dst.Color, src.Color);
    EXPECT_EQ(dst.Font, src.Font);
    EXPECT_EQ(dst.HighValue, 9.0f);
    EXPECT_EQ(dst.LowValue, -9.0f);
    EXPECT_EQ(dst.nPenWidth, 3);
    EXPECT_TRUE(dst.PlotGridline);
    EXPECT_EQ(dst.Resolution, 0.5f);
    EXPECT_EQ(dst.TickFormat, "#0.000");
    EXPECT_EQ(dst.TickInterval, 0.25f);

    EXPECT_EQ(dst.Label, "Mine");
    EXPECT_EQ(dst.OriginLowValue, before.OriginLowValue);
    EXPECT_EQ(dst.OriginHighValue, before.OriginHighValue);
    EXPECT_EQ(dst.OriginTickInterval, before.OriginTickInterval);
    EXPECT_EQ(dst.OriginTickFormat, before.OriginTickFormat);
    EXPECT_EQ(dst.UnitsPerTick, before.UnitsPerTick);
    EXPECT_EQ(dst.AutoScale, before.AutoScale);
    EXPECT_EQ(dst.AxisType, before.AxisType);
    EXPECT_EQ(dst.LeftPixel, before.LeftPixel);
    EXPECT_EQ(dst.Top, before.Top);
    EXPECT_EQ(dst.WidthPixel, before.WidthPixel);
    EXPECT_EQ(dst.Height, before.Height);
    EXPECT_TRUE(dst.TickLabels.empty());
    EXPECT_TRUE(dst.LineSegments.empty());
    EXPECT_EQ(dst.ClassID, "cAxis");

    const Status s = dst.SetStyle(nullptr);
    ASSERT_FALSE(s.ok());
    EXPECT_EQ(s.failure().tag, "cAxis(SetStyle): ");
    EXPECT_TRUE(s.failure().runtime);
}

TEST(AxisStyle, ResetScaleRestoresTheOriginAfterAZoom) {
    Datam t = Column({7.0, 7.0});
    Axes axes;
    ASSERT_TRUE(axes.CalcAutoScale(AxisRole::Y2, t, {AutoScaleSeries{-1, -1, 1, ""}}, 0, false).ok());
    cAxis& a = *axes.Item("y2");
    EXPECT_NEAR(axes.y2max, 12.5556f, kTol);
    EXPECT_NEAR(axes.y2min, 6.4444f, kTol);
    // Zoom by hand.
    a.LowValue = 8;
    a.HighValue = 9;
    a.UnitsPerTick = 0.1f;
    a.TickFormat = "#0.0";
    axes.y2min = 8;
    axes.y2max = 9;
    a.ResetScale();
    EXPECT_NEAR(a.HighValue, 12.5556f, kTol);
    EXPECT_NEAR(a.LowValue, 6.4444f, kTol);
    EXPECT_NEAR(a.UnitsPerTick, 0.5556f, kTol);
    EXPECT_EQ(a.TickFormat, "#0.00");
    // The collection's reset does the same and brings the Y2 pair along.
    a.LowValue = 8;
    axes.Reset();
    EXPECT_NEAR(a.LowValue, 6.4444f, kTol);
    EXPECT_NEAR(axes.y2min, 6.4444f, kTol);
    EXPECT_NEAR(axes.y2max, 12.5556f, kTol);
}

TEST(AxisChecks, ValidateAxisMessages) {
    cAxis a;
    a.LowValue = a.HighValue = 3;
    auto text = [](const Status& s) { return s.ok() ? std::string() : s.failure().text; };
    EXPECT_EQ(text(ValidateAxis(a, 'X')), "X-axis: axis high value = low value");
    EXPECT_EQ(text(ValidateAxis(a, 'Y')), "Yaxis: axis high value = low value");
    EXPECT_EQ(text(ValidateAxis(a, 'X', true)), "Xaxis axis high value = low value");
    EXPECT_EQ(text(ValidateAxis(a, 'Y', true)), "Yaxis axis high value = low value");
    EXPECT_EQ(text(ValidateAxis(a, 'Z', true)), "Zaxis axis high value = low value");
    EXPECT_EQ(ValidateAxis(a, 'X').failure().tag, "cAxis(Draw): ");

    a.HighValue = 13;  // range 10
    EXPECT_TRUE(ValidateAxis(a, 'X').ok());  // automatic: 10/9
    a.TickInterval = -1;
    EXPECT_EQ(text(ValidateAxis(a, 'X')), "Tick interval improperly specified.");
    a.TickInterval = 0.001f;  // 10000 ticks
    EXPECT_EQ(text(ValidateAxis(a, 'Y')), "Tick interval improperly specified.");
    a.TickInterval = 0.015625f;  // 640 ticks: still drawn
    EXPECT_TRUE(ValidateAxis(a, 'Y').ok());
}

TEST(AxesCollection, KeysCountRemoveAndSegments) {
    Axes axes;
    cAxis& x = axes.Add("X");
    axes.Add("Y");
    axes.Add("Y2");
    EXPECT_EQ(&axes.Add("x"), &x);  // a key already there gives its axis
    EXPECT_EQ(axes.Count(), 3);
    EXPECT_EQ(axes.Item("x"), &x);
    EXPECT_EQ(axes.Item(1), &x);
    EXPECT_EQ(axes.Item(4), nullptr);
    EXPECT_EQ(axes.Item("Z"), nullptr);
    x.LineSegments.push_back({0, 0, 1, 1});
    axes.Item("Y")->LineSegments.push_back({0, 0, 1, 1});
    axes.LineSegmentsClear();
    EXPECT_TRUE(x.LineSegments.empty());
    EXPECT_TRUE(axes.Item("Y")->LineSegments.empty());
    EXPECT_TRUE(axes.Remove("y"));
    EXPECT_FALSE(axes.Remove("y"));
    EXPECT_EQ(axes.Count(), 2);
    EXPECT_EQ(axes.Item("X"), &x);  // others keep their place
    EXPECT_EQ(axes.Item(2), axes.Item("Y2"));
}
