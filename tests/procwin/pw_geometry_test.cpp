// Window geometry on grids painted by hand: focus 0.5 * column in row 0 and
// dose 100 - row in column 0, so that every expected value is exact.
#include "procwin/pw_geometry.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "base/report.h"
#include "graphics/chart.h"
#include "numerics/matrix.h"
#include "workbook/store.h"

namespace zorv {
namespace {

const auto Fo = [](int c) { return 0.5 * c; };
const auto Do = [](int r) { return 100.0 - r; };

Datam MakeGrid(int rows = 20, int cols = 20) {
    Datam g(rows, cols, 0, 0);
    for (int c = 1; c <= cols; ++c) g(0, c) = Value(Fo(c));
    for (int r = 1; r <= rows; ++r) g(r, 0) = Value(Do(r));
    return g;
}

void Paint(Datam& g, int r0, int r1, int c0, int c1) {
    for (int r = r0; r <= r1; ++r)
        for (int c = c0; c <= c1; ++c) g(r, c) = Value(1.0);
}

bool Filled(const Datam& g, int r, int c) {
    return g.inRange(r, c) && r >= 1 && c >= 1 && !g(r, c).isEmpty();
}

using Surfaces = std::vector<std::pair<std::string, Datam>>;

double Num(const Value& v) {
    double x = 0;
    return NumericOf(v, x) ? x : -12345.0;
}

// Rows of the rectangle and of the ellipse block: the last with an Area.
int LastArea(const Datam& t, int col) {
    int n = 0;
    for (int r = 1; r <= t.rowUb(); ++r)
        if (IsNumericValue(t(r, col))) n = r;
    return n;
}
int RectRows(const Datam& t) {
    return LastArea(t, 9);
}
int EllipseRows(const Datam& t) {
    return LastArea(t, 18);
}

// The status line's texts while a test runs.
class StatusLog : public Reporter {
  public:
    StatusLog() { SetReporter(this); }
    ~StatusLog() override { SetReporter(nullptr); }
    int showBox(const std::string&, int, const std::string&) override { return 0; }
    void status(const std::string& text) override { texts.push_back(text); }
    std::vector<std::string> texts;
};

// ---------------------------------------------------------------- grid setup

TEST(PWgridSetup, WorkedExample) {
    // Dose 20..30 step 1, focus -0.2..0.2 step 0.05, 10 grid steps per scan
    // step: steps 0.1 and 0.005, half a range past each end (15..35 and
    // -0.4..0.4), 20 / 0.1 = 200 rows and 0.8 / 0.005 = 160 columns.
    Result<Datam> g = PWgridSetup(20, 30, 1, -0.2, 0.2, 0.05, 10);
    ASSERT_TRUE(g.ok());
    EXPECT_EQ(g->rowLb(), 0);
    EXPECT_EQ(g->colLb(), 0);
    EXPECT_EQ(g->rowUb(), 200);
    EXPECT_EQ(g->colUb(), 160);
    EXPECT_TRUE((*g)(0, 0).isEmpty());
    EXPECT_DOUBLE_EQ((*g)(1, 0).toDouble(), 35.0);
    EXPECT_DOUBLE_EQ((*g)(2, 0).toDouble(), 34.9);
    EXPECT_DOUBLE_EQ((*g)(101, 0).toDouble(), 25.0);
    EXPECT_DOUBLE_EQ((*g)(200, 0).toDouble(), 15.1);
    EXPECT_DOUBLE_EQ((*g)(0, 1).toDouble(), -0.4);
    EXPECT_DOUBLE_EQ((*g)(0, 2).toDouble(), -0.395);
    EXPECT_DOUBLE_EQ((*g)(0, 81).toDouble(), 0.0);
    EXPECT_DOUBLE_EQ((*g)(0, 160).toDouble(), 0.395);
    for (int r = 1; r <= 200; r += 37)
        for (int c = 1; c <= 160; c += 23) EXPECT_TRUE((*g)(r, c).isEmpty());

    Result<Datam> fine = PWgridSetup(20, 30, 1, -0.2, 0.2, 0.05, 20);
    ASSERT_TRUE(fine.ok());
    EXPECT_EQ(fine->rowUb(), 400);
    EXPECT_EQ(fine->colUb(), 320);
    EXPECT_DOUBLE_EQ((*fine)(2, 0).toDouble(), 34.95);
    EXPECT_DOUBLE_EQ((*fine)(0, 2).toDouble(), -0.3975);
}

// ---------------------------------------------------------------- cell searches

using Ints = std::vector<int>;

// {row, top, bottom}
Ints DoseRun(const Datam& g, int column, int row) {
    int top = 0, bottom = 0;
    FindPWDoseLimits(g, column, row, top, bottom);
    return {row, top, bottom};
}

// {found, left, right, left2, right2}
Ints FocusRun(const Datam& g, int row, int column, bool ellipse = false) {
    int l = -7, r = -7, l2 = -1, r2 = -1;
    const bool ok = FindPWFocusLimits(g, row, column, l, r, ellipse, &l2, &r2);
    return {ok, l, r, l2, r2};
}

// {result, quadrant, failed column, failed row, radius limit}
Ints Check(const Datam& g, int column, int row, int xRadius, int yRadius) {
    int q = -1, fc = -1, fr = -1, lim = -1;
    const int res = PWcheckEllipse(g, column, row, xRadius, yRadius, q, fc, fr, lim);
    return {res, q, fc, fr, lim};
}

TEST(FindPWDoseLimits, RunsAndRowReplacement) {
    Datam g = MakeGrid(15, 5);
    Paint(g, 3, 6, 2, 2);
    Paint(g, 9, 12, 2, 2);
    Paint(g, 4, 15, 4, 4);
    EXPECT_EQ(DoseRun(g, 2, 0), (Ints{3, 3, 6}));     // 0: the first filled row
    EXPECT_EQ(DoseRun(g, 2, 10), (Ints{10, 9, 12}));  // filled: kept, its own run
    EXPECT_EQ(DoseRun(g, 2, 7), (Ints{3, 3, 6}));     // empty: replaced
    EXPECT_EQ(DoseRun(g, 4, 99), (Ints{15, 4, 15}));  // clamped to the last row
}

TEST(FindPWFocusLimits, SeedIslandsAndSecondIsland) {
    Datam g = MakeGrid(5, 20);
    Paint(g, 2, 2, 2, 4);
    Paint(g, 2, 2, 8, 12);
    EXPECT_EQ(FocusRun(g, 2, 10), (Ints{1, 8, 12, 0, 0}));  // seed inside: no second island
    EXPECT_EQ(FocusRun(g, 2, 6), (Ints{1, 8, 12, 2, 4}));   // empty seed: right, then its side
    EXPECT_EQ(FocusRun(g, 2, 15), (Ints{1, 2, 4, 8, 12}));  // nothing right: from column 1
    EXPECT_EQ(FocusRun(g, 2, 99), (Ints{1, 2, 4, 8, 12}));  // clamped to the last column
    EXPECT_EQ(FocusRun(g, 2, 0), (Ints{1, 2, 4, 0, 0}));    // seed 0: the first island
    EXPECT_EQ(FocusRun(g, 3, 5), (Ints{0, -7, -7, 0, 0}));  // an empty row
}

TEST(FindPWFocusLimits, EllipseReachAtTheLastColumn) {
    // A span touching the last column becomes symmetric about the seed,
    // reaching max(right - seed, seed - left): here past the grid.
    Datam g = MakeGrid();
    Paint(g, 1, 20, 14, 20);
    EXPECT_EQ(FocusRun(g, 10, 18), (Ints{1, 14, 20, 0, 0}));
    EXPECT_EQ(FocusRun(g, 10, 18, true), (Ints{1, 14, 22, 0, 0}));
    // The last column holding rows 8..12 only limits the reach:
    // sqrt(2^2 * 9^2 / (9^2 - 2^2)) = 2.05, rounded 2.
    Datam h = MakeGrid();
    Paint(h, 1, 20, 14, 19);
    Paint(h, 8, 12, 20, 20);
    EXPECT_EQ(FocusRun(h, 10, 18, true), (Ints{1, 16, 20, 0, 0}));
}

TEST(PWcheckEllipse, PerimeterInQuadrantOrder) {
    // Centre (row 10, column 10), radii 3 and 3. Perimeter rows by i:
    // i=0 y=3: 7, 13; i=1 y=2.83: 7, 13; i=2 y=2.24: 8, 12.
    Datam full = MakeGrid();
    Paint(full, 1, 20, 1, 20);
    EXPECT_EQ(Check(full, 10, 10, 3, 3), (Ints{1, 0, 0, 0, 0}));
    auto without = [&](std::initializer_list<std::pair<int, int>> holes) {
        Datam g = full;
        for (auto [r, c] : holes) g(r, c) = Value();
        return Check(g, 10, 10, 3, 3);
    };
    EXPECT_EQ(without({{8, 12}}), (Ints{-1, 1, 12, 8, 0}));
    EXPECT_EQ(without({{8, 8}}), (Ints{-1, 4, 8, 8, 0}));
    EXPECT_EQ(without({{12, 12}}), (Ints{-1, 2, 12, 12, 0}));
    EXPECT_EQ(without({{12, 8}}), (Ints{-1, 3, 8, 12, 0}));
    EXPECT_EQ(without({{7, 10}}), (Ints{-1, 1, 10, 7, 0}));
    // Walking order: i=1 upper left fails before i=2 upper right.
    EXPECT_EQ(without({{7, 9}, {8, 12}}), (Ints{-1, 4, 9, 7, 0}));
    // Only the perimeter is tested.
    EXPECT_EQ(without({{10, 10}, {9, 11}}), (Ints{1, 0, 0, 0, 0}));
    // Immediate failures: a negative radius, 19 + 3 - 1 past the last row.
    EXPECT_EQ(Check(full, 10, 10, -1, 3), (Ints{-1, 0, 0, 0, 0}));
    EXPECT_EQ(Check(full, 10, 19, 3, 3), (Ints{-1, 0, 0, 0, 0}));
    // Row 1 with y radius 2 passes them, then its top point lies on row -1.
    EXPECT_EQ(Check(full, 10, 1, 3, 2), (Ints{-1, 1, 10, -1, 0}));
    // Points past the last column are skipped.
    EXPECT_EQ(Check(full, 19, 10, 3, 2), (Ints{1, 0, 0, 0, 0}));
}

TEST(PWcheckEllipse, RadiusLimitPastTheLastColumn) {
    // Column 20 holds rows 8..12: x = 20 - 18 = 2, t = b = 2 under y radius 3:
    // sqrt(4 * 9 / (9 - 4)) = 2.68, rounded 3; then (row 7, column 20) fails.
    Datam g = MakeGrid();
    Paint(g, 1, 20, 1, 19);
    Paint(g, 8, 12, 20, 20);
    EXPECT_EQ(Check(g, 18, 10, 4, 3), (Ints{-1, 1, 20, 7, 3}));
    // The row at the top of the last column's run: radii from 3 down are
    // tried; 3 fails at (9, 20), 2 passes, and the call fails with limit 2.
    Datam h = MakeGrid();
    Paint(h, 1, 20, 1, 19);
    Paint(h, 10, 15, 20, 20);
    EXPECT_EQ(Check(h, 18, 10, 4, 2), (Ints{-1, 0, 0, 0, 2}));
    EXPECT_EQ(Check(h, 18, 10, 3, 2), (Ints{-1, 1, 20, 9, 0}));
    EXPECT_EQ(Check(h, 18, 10, 2, 2)[0], 1);
}

// ---------------------------------------------------------------- GetInscribe

// One analysis of the given grids.
struct Analysis {
    explicit Analysis(const Surfaces& s, PWSetup su = {})
        : setup(std::move(su)), res(GetInscribe(setup, s, state)) {}
    PWSetup setup;
    PWState state;
    Result<PWInscribed> res;
    const Datam& table() const { return state.processWindowSpace; }
};

std::vector<double> Vals(const Datam& t, int r, const Ints& cols) {
    std::vector<double> v;
    for (int c : cols) v.push_back(Num(t(r, c)));
    return v;
}

// Centre foci of the ellipse rows recorded for a grid row.
std::vector<double> EllipsesOn(const Datam& t, int row) {
    std::vector<double> foci;
    for (int r = 1; r <= EllipseRows(t); ++r)
        if (Num(t(r, 15)) == Do(row)) foci.push_back(Num(t(r, 14)));
    return foci;
}

TEST(GetInscribe, CompositeFailures) {
    StatusLog log;
    Analysis empty({});
    ASSERT_FALSE(empty.res.ok());
    EXPECT_EQ(empty.res.failure().tag, "PWcommon(GetInscribe): ");
    EXPECT_EQ(empty.res.failure().text, "No surfaces stored in collection.");
    Datam a = MakeGrid(), b = MakeGrid();
    Paint(a, 2, 5, 2, 5);
    Paint(b, 10, 14, 10, 14);
    Analysis r(Surfaces{{"CD_1", a}, {"Side_Wall_2", b}});
    ASSERT_FALSE(r.res.ok());
    EXPECT_EQ(r.res.failure().tag, "PWcommon(GetInscribe): ");
    EXPECT_EQ(
        r.res.failure().text,
        "There is no common process window for the variables selected and over this range.\r\n"
        "Variable: 'Side_Wall' exceeds the window.");
    EXPECT_FALSE(r.state.haveWindow);
    ASSERT_GE(log.texts.size(), 2u);
    EXPECT_EQ(log.texts[0], "Composite surface collection ... Surface #:1 of 2");
    EXPECT_EQ(log.texts[1], "Composite surface collection ... Surface #:2 of 2");
}

TEST(GetInscribe, FullRectangularWindow) {
    // Two grids whose overlap is rows 6..15, columns 6..15 (focus 3..7.5, dose 94..85).
    Datam a = MakeGrid(), b = MakeGrid();
    Paint(a, 4, 15, 6, 18);
    Paint(b, 6, 17, 3, 15);
    Analysis run(Surfaces{{"CD_1", a}, {"SWA_1", b}});
    ASSERT_TRUE(run.res.ok()) << run.res.failure().text;
    const PWInscribed& res = *run.res;
    Datam comp = MakeGrid();
    Paint(comp, 6, 15, 6, 15);

    // The rectangle is the window; 100 * 9 / 89.5 as "###0.00".
    EXPECT_EQ((std::vector<double>{res.rectFocus, res.rectDose, res.rectDoF, res.rectExpoLatPct}),
              (std::vector<double>{5.25, 89.5, 4.5, 10.06}));
    EXPECT_TRUE(run.state.haveWindow);
    EXPECT_EQ(run.state.rectFocus, 5.25);
    const double el = res.rectDose * res.rectExpoLatPct / 100;
    for (double f : {res.rectFocus - res.rectDoF / 2, res.rectFocus + res.rectDoF / 2})
        for (double d : {res.rectDose - el / 2, res.rectDose + el / 2})
            EXPECT_TRUE(Filled(comp, int(std::lround(100 - d)), int(std::lround(f / 0.5))));

    // The table's headers; scan column 6, top-down, row 15 is the tenth
    // candidate: lower is the pass's last row, upper its first. Bottom-up
    // candidates store the bottom row as upper.
    const Datam& t = run.table();
    // clang-format off
    const char* heads[] = {"", "Rectangle Focus", "Dose", "Xleft LFocus", "Xright LFocus", "LDose",
                           "Xleft UFocus", "Xright UFocus", "UDose", "Area", "DoF", "ExpoLat",
                           "ExpoLat%", "", "Ellipse Focus", "Dose", "Xradius", "Yradius", "Area",
                           "DoF", "ExpoLat", "ExpoLat%", "Xleft Focus", "Xright Focus"};
    // clang-format on
    ASSERT_EQ(t.colUb(), 23);
    for (int c = 0; c <= 23; ++c) EXPECT_EQ(t(0, c).toString(), heads[c]) << c;
    EXPECT_EQ(Vals(t, 10, {0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11}),
              (std::vector<double>{3, 5.25, 89.5, 3, 7.5, 85, 3, 7.5, 94, 4.5, 9}));
    EXPECT_EQ(t(10, 12).toString(), "10.06");
    EXPECT_DOUBLE_EQ(Num(t(10, 9)), 4.5 * 10.06);
    EXPECT_EQ(Vals(t, 11, {5, 8}), (std::vector<double>{85, 85}));
    EXPECT_EQ(Vals(t, 20, {5, 8}), (std::vector<double>{94, 85}));

    // One rectangle per dose: 85..94 by 0.5, ascending, each the largest Area.
    const Datam& rect = res.rectangles;
    ASSERT_EQ(rect.rowUb(), 19);
    EXPECT_EQ(rect(0, 9).toString(), "Area");
    for (int r = 1; r <= 19; ++r) EXPECT_EQ(Num(rect(r, 2)), 85.0 + 0.5 * (r - 1));
    for (int r = 1; r <= RectRows(t); ++r)
        EXPECT_LE(Num(t(r, 9)), Num(rect(int(std::lround((Num(t(r, 2)) - 85.0) / 0.5)) + 1, 9)));

    // The scan table: one row per window column.
    const Datam& scan = res.scan;
    ASSERT_EQ(scan.rowUb(), 10);
    EXPECT_EQ(scan(0, 0).toString(), "Xfocus");
    EXPECT_EQ(scan(0, 5).toString(), "clFocus");
    EXPECT_EQ(Vals(scan, 1, {0, 1, 2, 3, 4, 5}), (std::vector<double>{3, 94, 85, 6, 15, 6}));
    EXPECT_EQ(scan(10, 5).toLong(), 15);

    // The ellipse: every perimeter point, as the test walks it, lies in the window.
    ASSERT_GT(EllipseRows(t), 0);
    const int ec = int(std::lround(res.ellipseFocus / 0.5)),
              er = int(std::lround(100 - res.ellipseDose));
    const int xr = int(std::lround(res.ellipseFocusRadius / 0.5)),
              yr = int(std::lround(res.ellipseDoseRadius));
    EXPECT_GT(xr, 0);
    EXPECT_TRUE(Filled(comp, er, ec));
    for (int i = 0; i < xr; ++i) {
        const double y = yr * std::sqrt(1.0 - double(i) * i / (double(xr) * xr));
        for (int rr : {int(std::nearbyint(er - y)), int(std::nearbyint(er + y))})
            for (int cc : {ec + i, ec - i}) EXPECT_TRUE(Filled(comp, rr, cc)) << rr << "," << cc;
    }
    for (int r = 1; r <= EllipseRows(t); ++r) {
        EXPECT_EQ(Num(t(r, 19)), 2 * Num(t(r, 16)));
        EXPECT_EQ(Num(t(r, 20)), 2 * Num(t(r, 17)));
        EXPECT_EQ(Num(t(r, 22)), Num(t(r, 14)) - Num(t(r, 16)));
        EXPECT_EQ(Num(t(r, 23)), Num(t(r, 14)) + Num(t(r, 16)));
        EXPECT_NEAR(Num(t(r, 21)), 100 * Num(t(r, 20)) / Num(t(r, 15)), 1e-9);
        EXPECT_NEAR(Num(t(r, 18)), M_PI * Num(t(r, 19)) / 2 * Num(t(r, 21)) / 2, 1e-9);
    }
}

TEST(GetInscribe, TwoIslandsOnOneRowGiveTwoEllipses) {
    // A bar (rows 5..10, columns 3..12) on two legs (rows 11..16, columns
    // 3..5 and 10..12). The seed rectangle is columns 3..12, rows 5..14
    // (the top-down pass keeps its first row's left), centre column 8: on
    // the legs' rows that column is empty and both legs are islands.
    Datam g = MakeGrid();
    Paint(g, 5, 10, 3, 12);
    Paint(g, 11, 16, 3, 5);
    Paint(g, 11, 16, 10, 12);
    Analysis run(Surfaces{{"CD_1", g}});
    ASSERT_TRUE(run.res.ok()) << run.res.failure().text;
    for (int row = 11; row <= 16; ++row)  // the right island first
        EXPECT_EQ(EllipsesOn(run.table(), row), (std::vector<double>{Fo(11), Fo(4)})) << row;
    for (int row = 5; row <= 10; ++row) EXPECT_EQ(EllipsesOn(run.table(), row).size(), 1u) << row;
}

TEST(GetInscribe, NarrowingOnTheLeftKeepsTheSeedRowsLeftEdge) {
    // Rows 5..10 span columns 3..12; rows 11..14 only 6..12. Scan column 6,
    // top-down: rows 5..14 with the left of row 5.
    Datam g = MakeGrid();
    Paint(g, 5, 10, 3, 12);
    Paint(g, 11, 14, 6, 12);
    Analysis run(Surfaces{{"CD_1", g}});
    ASSERT_TRUE(run.res.ok()) << run.res.failure().text;
    EXPECT_EQ((std::vector<double>{run.res->rectFocus, run.res->rectDose, run.res->rectDoF}),
              (std::vector<double>{3.75, 90.5, 4.5}));
    EXPECT_EQ(run.res->rectFocus - run.res->rectDoF / 2, Fo(3));
    bool found = false;
    for (int r = 1; r <= RectRows(run.table()); ++r)
        found = found || Vals(run.table(), r, {0, 3, 5, 8}) ==
                             std::vector<double>{Fo(6), Fo(3), Do(14), Do(5)};
    EXPECT_TRUE(found);
}

TEST(GetInscribe, SingleCellWideWindow) {
    // Accepted by the rectangle stage (11 rows, two passes, doses 85..95 by
    // 0.5), no ellipse: its seed rectangle has a half width of 0.
    Datam one = MakeGrid();
    Paint(one, 5, 15, 10, 10);
    Analysis run(Surfaces{{"CD_1", one}});
    ASSERT_TRUE(run.res.ok()) << run.res.failure().text;
    EXPECT_EQ(RectRows(run.table()), 22);
    EXPECT_EQ(EllipseRows(run.table()), 0);
    EXPECT_EQ(run.res->rectFocus, Fo(10));
    EXPECT_EQ(run.res->rectDoF, 0);
    EXPECT_EQ(run.res->rectangles.rowUb(), 21);

    // A block (rows 2..9, columns 6..11) seeds the ellipse search at column
    // 8; below it a one-cell column (rows 12..16, column 14) is the first
    // span on its rows and is rejected, though the rectangles scan it...
    Datam base = MakeGrid();
    Paint(base, 2, 9, 6, 11);
    Paint(base, 12, 16, 14, 14);
    Analysis without(Surfaces{{"CD_1", base}});
    ASSERT_TRUE(without.res.ok());
    for (int row = 12; row <= 16; ++row)
        EXPECT_TRUE(EllipsesOn(without.table(), row).empty()) << row;
    for (int row = 2; row <= 9; ++row)
        EXPECT_EQ(EllipsesOn(without.table(), row).size(), 1u) << row;
    bool column14 = false;
    for (int r = 1; r <= RectRows(without.table()); ++r)
        column14 = column14 || Num(without.table()(r, 0)) == Fo(14);
    EXPECT_TRUE(column14);
    // ...unless a second island (columns 2..4) lies on the seed's other side.
    Paint(base, 12, 16, 2, 4);
    Analysis with(Surfaces{{"CD_1", base}});
    ASSERT_TRUE(with.res.ok());
    for (int row = 12; row <= 16; ++row)
        EXPECT_EQ(EllipsesOn(with.table(), row), std::vector<double>{Fo(3)}) << row;
}

TEST(GetInscribe, OneRowGivesARectangleOfHeightOne) {
    Datam g = MakeGrid();
    Paint(g, 10, 10, 5, 12);
    Analysis run(Surfaces{{"CD_1", g}});
    ASSERT_TRUE(run.res.ok()) << run.res.failure().text;
    EXPECT_EQ((std::vector<double>{run.res->rectFocus, run.res->rectDose, run.res->rectDoF,
                                   run.res->rectExpoLatPct}),
              (std::vector<double>{4.25, 90, 3.5, 0}));
    EXPECT_EQ(RectRows(run.table()), 16);
    for (int r = 1; r <= RectRows(run.table()); ++r) {
        EXPECT_EQ(Num(run.table()(r, 5)), Num(run.table()(r, 8)));
        EXPECT_EQ(run.table()(r, 12).toString(), "0.00");
    }
    EXPECT_EQ(run.res->rectangles.rowUb(), 1);
}

TEST(GetInscribe, EqualAreaTheFirstRowWins) {
    // Two identical blocks on the same rows give the same Areas twice.
    Datam g = MakeGrid();
    Paint(g, 5, 10, 2, 5);
    Paint(g, 5, 10, 10, 13);
    Analysis run(Surfaces{{"CD_1", g}});
    ASSERT_TRUE(run.res.ok()) << run.res.failure().text;
    const Datam& t = run.table();
    double best = -1;
    for (int r = 1; r <= RectRows(t); ++r) best = std::max(best, Num(t(r, 9)));
    Ints rows;
    for (int r = 1; r <= RectRows(t); ++r)
        if (Num(t(r, 9)) == best) rows.push_back(r);
    ASSERT_GE(rows.size(), 2u);
    EXPECT_GE(Num(t(rows.back(), 0)), Fo(10));  // a tie in the second block
    EXPECT_EQ(run.res->rectFocus, Num(t(rows.front(), 1)));
    EXPECT_EQ(run.res->rectFocus, (Fo(2) + Fo(5)) / 2);
}

TEST(GetInscribe, EscapeLeavesWithWhatExists) {
    // A lone cell gives two candidates, one per pass; Escape before the
    // first scan column leaves none.
    Datam g = MakeGrid();
    Paint(g, 7, 7, 7, 7);
    Analysis one(Surfaces{{"CD_1", g}});
    ASSERT_TRUE(one.res.ok());
    EXPECT_EQ(RectRows(one.table()), 2);
    StatusLog log;
    SetEscPressed(true);
    Analysis none(Surfaces{{"CD_1", g}});
    SetEscPressed(false);
    ASSERT_FALSE(none.res.ok());
    EXPECT_EQ(none.res.failure().tag, "PWcommon(GetInscribe): ");
    EXPECT_EQ(none.res.failure().text,
              "No rows available for process window analysis.\r\nTry a different dose-seed value.");
    EXPECT_FALSE(none.state.haveWindow);
}

TEST(GetInscribe, SavesTheSheetWithItsIndexText) {
    std::filesystem::create_directories(ZORV_TEST_TMP);
    WorkbookPtr wb = Workbook::create(std::string(ZORV_TEST_TMP) + "/pw_geometry_save.xlsx");
    Datam g = MakeGrid();
    Paint(g, 6, 12, 5, 14);
    PWSetup setup;
    setup.title = "CD, SWA";
    setup.workbook = wb.get();
    Analysis run(Surfaces{{"CD_1", g}}, setup);
    ASSERT_TRUE(run.res.ok()) << run.res.failure().text;
    Worksheet* ws = wb->sheet("ProcessWindowSpace");
    ASSERT_NE(ws, nullptr);
    EXPECT_EQ(ws->cell(1, 2).toString(), "Rectangle Focus");
    EXPECT_EQ(ws->cell(1, 24).toString(), "Xright Focus");
    ASSERT_NE(wb->sheet("Index"), nullptr);
    const Datam used = wb->sheet("Index")->usedRange();
    bool found = false;
    for (int r = used.rowLb(); r <= used.rowUb(); ++r)
        for (int c = used.colLb(); c <= used.colUb(); ++c)
            found = found || used(r, c).toString().starts_with(
                                 "Data characterization of process window for CD, SWA, ");
    EXPECT_TRUE(found);
}

// ---------------------------------------------------------------- the DoF frontier

TEST(PWselectreduceDOF, FrontierByHand) {
    // Columns: 1 focus, 2 dose, 3 EL%, 4 DoF. By DoF falling, the widest
    // latitude of each DoF: 8 (0.30) kept, 7 (0.25) under it, 10 (0.20) and
    // 12 (0.10) kept; focus 0.5 is outside 0 +- 0.3/3 and dose 500 outside
    // 20 * (1 +- 10), while 30 passes.
    Datam t = Datam::fromRows({{Value(), "Focus", "Dose", "ExpoLat%", "DoF"},
                               {Value(), 0.0, 20.0, 5.0, 0.30},
                               {Value(), 0.0, 20.0, 8.0, 0.30},
                               {Value(), 0.0, 20.0, 7.0, 0.25},
                               {Value(), 0.0, 30.0, 10.0, 0.20},
                               {Value(), 0.0, 20.0, 9.0, 0.10},
                               {Value(), 0.0, 20.0, 12.0, 0.10},
                               {Value(), 0.5, 20.0, 20.0, 0.05},
                               {Value(), 0.0, 500.0, 25.0, 0.04}});
    Result<PWFrontier> f = PWselectreduceDOF(t, 1, 2, 3, 4, 20.0, 0.0, 10.0, 0.3);
    ASSERT_TRUE(f.ok());
    ASSERT_EQ(f->table.rowUb(), 3);
    EXPECT_EQ(f->table(0, 3).toString(), "ExpoLat%");
    EXPECT_EQ(Vals(f->table, 1, {3, 4}), (std::vector<double>{8, 0.30}));
    EXPECT_EQ(Vals(f->table, 2, {3, 4}), (std::vector<double>{10, 0.20}));
    EXPECT_EQ(Vals(f->table, 3, {3, 4}), (std::vector<double>{12, 0.10}));
    EXPECT_FALSE(f->equation.empty());
    EXPECT_FALSE(f->equation2.empty());
    // Nothing passes the gates: the whole input.
    Result<PWFrontier> none = PWselectreduceDOF(t, 1, 2, 3, 4, 20.0, 9.0, 10.0, 0.3);
    ASSERT_TRUE(none.ok());
    EXPECT_EQ(none->table.rowUb(), 8);
}

TEST(CreateGraphExpoLat_DOF, EllipticalWindowOfRealisticSize) {
    // An elliptical window about (0, 26), focus radius 0.25, dose radius 4,
    // on the grid of 15 focus by 13 dose steps at precision 10.
    Result<Datam> grid = PWgridSetup(20, 32, 1, -0.35, 0.35, 0.05, 10);
    ASSERT_TRUE(grid.ok());
    Datam g = *grid;
    for (int r = 1; r <= g.rowUb(); ++r)
        for (int c = 1; c <= g.colUb(); ++c) {
            const double f = g(0, c).toDouble() / 0.25, d = (g(r, 0).toDouble() - 26) / 4;
            if (f * f + d * d <= 1) g(r, c) = Value(1.0);
        }
    PWSetup setup;
    setup.title = "CD";
    Analysis run(Surfaces{{"CD_1", g}}, setup);
    ASSERT_TRUE(run.res.ok()) << run.res.failure().text;
    const PWInscribed& res = *run.res;
    EXPECT_NEAR(res.rectFocus, 0, 0.02);
    EXPECT_NEAR(res.rectDose, 26, 0.5);
    EXPECT_NEAR(res.ellipseFocus, 0, 0.05);
    EXPECT_GT(res.ellipseFocusRadius, 0.1);

    StatusLog log;
    cGraphic chart;
    Status s = CreateGraphExpoLat_DOF(setup, run.state, res.rectangles, chart);
    ASSERT_TRUE(s.ok()) << s.failure().text;
    EXPECT_EQ(log.texts.front(), "DoF vs EL% graph setup ....");
    EXPECT_EQ(chart.KeyName, "ExpoLatDof");
    EXPECT_TRUE(chart.TitleObj.TitleString.starts_with("CD  --  Zorv PW Process Window\r\nData: "));
    const cAxis* x = chart.Axes.Item("X");
    const cAxis* y = chart.Axes.Item("Y");
    ASSERT_TRUE(x && y);
    EXPECT_EQ(x->Label, "Exposure Latitude(%)");
    EXPECT_EQ(x->TickFormat, "#0.00");
    EXPECT_EQ(x->LowValue, 0.0f);
    EXPECT_GT(x->HighValue, 0.0f);
    EXPECT_FLOAT_EQ(x->TickInterval, x->HighValue / 10);
    EXPECT_EQ(y->Label, "Depth-of-Focus");
    EXPECT_EQ(y->TickFormat, "#0.000");
    ASSERT_NE(chart.Series.Item("DoF_Rectangle"), nullptr);
    ASSERT_NE(chart.Series.Item("DoF_Ellipse"), nullptr);
    const cSeries* drop = nullptr;
    bool rectCurve = false;
    for (int i = 1; i <= chart.Series.Count(); ++i) {
        const cSeries* c = chart.Series.Item(i);
        if (c->Label.starts_with("ELmaxX=")) drop = c;
        rectCurve = rectCurve || c->Label.starts_with("DoFrect=");
    }
    EXPECT_TRUE(rectCurve);
    ASSERT_NE(drop, nullptr);

    // The dashed drop falls from the last frontier point of the candidates.
    const Datam& t = run.table();
    Datam cand(RectRows(t), 12, 0, 0);
    for (int r = 0; r <= cand.rowUb(); ++r)
        for (int c = 0; c <= 12; ++c) cand(r, c) = t(r, c);
    Result<PWFrontier> f = PWselectreduceDOF(cand, 1, 2, 12, 10, res.rectDose, res.rectFocus,
                                             res.rectExpoLatPct, res.rectDoF);
    ASSERT_TRUE(f.ok());
    const Datam& ft = f->table;
    const int last = ft.rowUb();
    ASSERT_GT(last, 2);
    for (int r = 2; r <= last; ++r) {  // DoF falls while the latitude rises
        EXPECT_LT(Num(ft(r, 10)), Num(ft(r - 1, 10)));
        EXPECT_GE(Num(ft(r, 12)), Num(ft(r - 1, 12)));
    }
    const Datam& d = chart.Data();
    EXPECT_EQ(d(0, drop->Xcol).toString(), "XconstDOF");
    EXPECT_EQ(d(0, drop->Ycol).toString(), "YconstDOF");
    EXPECT_EQ(Vals(d, 1, {drop->Xcol, drop->Ycol}),
              (std::vector<double>{Num(ft(last, 12)), Num(ft(last, 10))}));
    EXPECT_EQ(Vals(d, 2, {drop->Xcol, drop->Ycol}), (std::vector<double>{Num(ft(last, 12)), 0}));
    EXPECT_EQ(drop->Label, "ELmaxX=" + ft(last, 12).toString());
}

}  // namespace
}  // namespace zorv
