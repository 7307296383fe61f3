// The workbench's figures and scan on tables written here by hand, with
// answers worked out by hand.
#include <gtest/gtest.h>

#include <cmath>

#include "procwin/pw_workbench.h"

using namespace zorv;

namespace {

// A ProcessWindowSpace table: rectangles in columns 1..12, ellipses in 14..21.
Datam Space() {
    Datam t(3, 23, 0, 0);
    // focus, dose, left, right, lower dose, upper dose, DoF, EL%
    const double rects[3][6] = {{0.10, 20, -0.10, 0.30, 19, 21}, {0.00, 22, -0.25, 0.25, 21.5, 22.5}, {0.05, 24, 0.0, 0.1, 20, 28}};
    for (int i = 0; i < 3; ++i) {
        const int r = i + 1;
        const double* v = rects[i];
        t(r, 1) = Value(v[0]), t(r, 2) = Value(v[1]), t(r, 3) = Value(v[2]), t(r, 4) = Value(v[3]);
        t(r, 5) = Value(v[4]), t(r, 8) = Value(v[5]);
        t(r, 10) = Value(v[3] - v[2]);
        t(r, 12) = Value(100 * (v[5] - v[4]) / v[1]);
    }
    // Two ellipses (centre, radii), the second twice: one figure.
    const double ells[3][4] = {{0.02, 21, 0.3, 1.5}, {-0.01, 23, 0.2, 2.3}, {-0.01, 23, 0.2, 2.3}};
    for (int i = 0; i < 3; ++i) {
        const int r = i + 1;
        t(r, 14) = Value(ells[i][0]), t(r, 15) = Value(ells[i][1]), t(r, 16) = Value(ells[i][2]), t(r, 17) = Value(ells[i][3]);
    }
    return t;
}

}  // namespace

TEST(PWFigures, TableBlocksBecomeFiguresAndSlidersFindTheNearest) {
    const Datam t = Space();
    const PWobjects rects = PWobjectsFromSpace(t, 0);
    ASSERT_EQ(rects.Count(), 3);
    EXPECT_EQ(rects.PWshape, 0);
    const clsPWobject& a = *rects.Item(1);
    EXPECT_DOUBLE_EQ(a.Xo, -0.10);
    EXPECT_DOUBLE_EQ(a.X1, 0.30);
    EXPECT_DOUBLE_EQ(a.Yo, 19);
    EXPECT_DOUBLE_EQ(a.Y1, 21);
    EXPECT_NEAR(a.DoF, 0.4, 1e-12);
    EXPECT_NEAR(a.EL, 10, 1e-12);  // 2 of 20
    EXPECT_EQ(a.Key, "PWrect Dose_20.00 DoF_0.400");
    EXPECT_EQ(rects.Item(a.Key), rects.Item(1));

    const PWobjects ells = PWobjectsFromSpace(t, 1);
    ASSERT_EQ(ells.Count(), 2);  // the repeated row is one figure
    const clsPWobject& e = *ells.Item(2);
    EXPECT_DOUBLE_EQ(e.Xo, -0.01);
    EXPECT_DOUBLE_EQ(e.Yo, 23);
    EXPECT_NEAR(e.DoF, 0.4, 1e-12);
    EXPECT_NEAR(e.EL, 200 * 2.3 / 23, 1e-12);  // 20 %

    // Dose 21.2 is nearest 22; DoF 0.47 nearest 0.5; EL 30 % nearest 33.3 %.
    EXPECT_EQ(PWnearestFigure(rects, PWSlider::Dose, 21.2), 2);
    EXPECT_EQ(PWnearestFigure(rects, PWSlider::DoF, 0.47), 2);
    EXPECT_EQ(PWnearestFigure(rects, PWSlider::DoF, 0.45), 1);  // halfway: the first
    EXPECT_EQ(PWnearestFigure(rects, PWSlider::ExpoLat, 30), 3);
    EXPECT_EQ(PWnearestFigure(PWobjects(), PWSlider::Dose, 1), 0);

    // Add refuses a key held; Remove and Kill empty it.
    PWobjects copy = rects;
    EXPECT_FALSE(copy.Add(a));
    EXPECT_TRUE(copy.Add(a, "another"));
    copy.Remove("another");
    EXPECT_EQ(copy.Count(), 3);
    copy.Kill();
    EXPECT_EQ(copy.Count(), 0);
}

TEST(PWFigures, OutlinesAndTitlesAsDrawn) {
    clsPWobject r;
    r.Xfocus = 0.1, r.Ydose = 20, r.DoF = 0.4, r.EL = 10;
    r.Xo = -0.1, r.Yo = 19, r.X1 = 0.3, r.Y1 = 21;
    const Datam q = PWfigureOutline(r, 0);
    ASSERT_EQ(q.rowUb(), 5);
    EXPECT_EQ(q(0, 1).toString(), "PWrectX");
    EXPECT_EQ(q(0, 2).toString(), "PWrectY");
    // Closed: it ends where it starts, and runs round the corners.
    EXPECT_DOUBLE_EQ(q(1, 1).toDouble(), q(5, 1).toDouble());
    EXPECT_DOUBLE_EQ(q(3, 1).toDouble(), 0.3);
    EXPECT_DOUBLE_EQ(q(3, 2).toDouble(), 21);
    const auto rt = PWfigureTitle(r, 0);
    ASSERT_EQ(rt.size(), 2u);
    EXPECT_EQ(rt[0], "Rectangle  Focus:0.100 Dose:20.0");
    EXPECT_EQ(rt[1], "        DoF:0.400 /   DoseLat:10.00");

    clsPWobject e;
    e.Xfocus = e.Xo = 0.02, e.Ydose = e.Yo = 21, e.X1 = 0.3, e.Y1 = 1.5, e.DoF = 0.6, e.EL = 200 * 1.5 / 21;
    const Datam c = PWfigureOutline(e, 1);
    ASSERT_EQ(c.rowUb(), 37);
    EXPECT_EQ(c(0, 1).toString(), "PWelspX");
    EXPECT_NEAR(c(1, 1).toDouble(), 0.32, 1e-12);   // angle 0: the focus radius
    EXPECT_NEAR(c(10, 2).toDouble(), 22.5, 1e-12);  // a quarter round: the dose radius
    EXPECT_EQ(PWfigureTitle(e, 1)[0], "Ellipse  Focus:0.020 Dose:21.0");
}

TEST(PWFigures, ScanKeepsTheShapesFiguresOnTheDoseAxis) {
    Datam ws(5, 7, 0, 0);
    const char* heads[] = {"SeriesR", "SeriesEL", "Key", "Focus", "Dose", "DoF", "EL%"};
    for (int c = 1; c <= 7; ++c) ws(0, c) = Value(heads[c - 1]);
    struct Row {
        int r, el;
        const char* key;
        double dose;
    } rows[] = {{1, 0, "PW area top", 0},
                {0, 3, "PWelsp Dose_21.00 DoF_0.600", 21},
                {4, 0, "PWrect Dose_20.00 DoF_0.400", 20},
                {5, 0, "PWrect Dose_26.00 DoF_0.100", 26},
                {6, 0, "PWrect Dose_22.00 DoF_0.500", 22}};
    for (int i = 0; i < 5; ++i) {
        if (rows[i].r) ws(i + 1, 1) = Value(int32_t(rows[i].r));
        if (rows[i].el) ws(i + 1, 2) = Value(int32_t(rows[i].el));
        ws(i + 1, 3) = Value(rows[i].key);
        ws(i + 1, 5) = Value(rows[i].dose);
    }
    const Datam s = PWscanTable(ws, 0, 19, 25);
    ASSERT_EQ(s.rowUb(), 2);  // 26 is off the axis, the area and the ellipse are not rectangles
    EXPECT_EQ(s(1, 2).toString(), "PWrect Dose_20.00 DoF_0.400");
    EXPECT_EQ(s(1, 3).toLong(), 4);
    EXPECT_EQ(s(2, 1).toLong(), 2);
    EXPECT_EQ(s(2, 3).toLong(), 6);
    const Datam e = PWscanTable(ws, 1, 25, 19);  // limits either way round
    ASSERT_EQ(e.rowUb(), 1);
    EXPECT_EQ(e(1, 3).toLong(), 3);
}
