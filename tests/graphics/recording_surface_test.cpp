// The recording surface keeps what was asked, in the state it was asked in.
#include <gtest/gtest.h>

#include "graphics/recording_surface.h"

using namespace zorv;

TEST(RecordingSurface, KeepsCallsStateAndPosition) {
    RecordingSurface s(640, 480);
    EXPECT_EQ(s.ScaleWidth(), 640);
    s.ForeColor = RGB(255, 0, 0);
    s.DrawWidth = 2;
    s.Line(10, 20, 30, 40);
    EXPECT_EQ(s.CurrentX, 30);
    EXPECT_EQ(s.CurrentY, 40);
    s.FillStyle = FillStyle::Solid;
    s.FillColor = RGB(0, 0, 255);
    s.Line(1, 1, 5, 5, RGB(0, 255, 0), LineForm::FilledBox);
    s.Font.size = 10;
    s.CurrentX = 100;
    s.CurrentY = 50;
    s.Print("Wafer µ");  // seven characters, nine bytes
    ASSERT_EQ(s.calls().size(), 3u);
    const auto& line = s.calls()[0];
    EXPECT_EQ(line.color, RGB(255, 0, 0));  // -1 took the ForeColor
    EXPECT_EQ(line.width, 2);
    const auto& box = s.calls()[1];
    EXPECT_EQ(box.form, LineForm::FilledBox);
    EXPECT_EQ(box.color, RGB(0, 255, 0));
    EXPECT_EQ(box.fillColor, RGB(0, 0, 255));
    const auto& text = s.calls()[2];
    EXPECT_EQ(text.text, "Wafer µ");
    EXPECT_EQ(text.points[0].x, 100);
    EXPECT_EQ(text.font.size, 10);
    // 0.6 of 10 pt at 96 dpi a character.
    EXPECT_NEAR(s.CurrentX, 100 + 7 * 0.6 * 10 * 96 / 72.0, 1e-9);
    EXPECT_NEAR(s.TextHeight("x"), 1.2 * 10 * 96 / 72.0, 1e-9);
    EXPECT_EQ(s.texts(), std::vector<std::string>{"Wafer µ"});
    EXPECT_EQ(s.of(RecordingSurface::Op::Line).size(), 2u);
    s.Cls();
    EXPECT_EQ(s.CurrentX, 0);
    EXPECT_EQ(RedOf(RGB(1, 2, 3)), 1);
    EXPECT_EQ(GreenOf(RGB(1, 2, 3)), 2);
    EXPECT_EQ(BlueOf(RGB(1, 2, 3)), 3);
}
