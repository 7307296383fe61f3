// The layout programs against grids worked out by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "layout/fp_data.h"
#include "layout/meander.h"
#include "lot/lot.h"

namespace zorv {
namespace {

// A lot of one wafer "W1" with a full grid of fields, DieX 0..cols-1 and
// DieY 0..rows-1, every focus set to `focus`.
std::shared_ptr<cLot> GridLot(int cols, int rows, float focus = -7, int x0 = 0, int y0 = 0) {
    auto lot = cLot::create();
    lot->LotName = "Grid";
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    for (int y = y0; y < y0 + rows; ++y)
        for (int x = x0; x < x0 + cols; ++x) {
            cField* f = w->AddField(static_cast<float>(x), static_cast<float>(y), isNew, true);
            f->LocationX = x * 20000.0f;  // where the loader puts it
            f->LocationY = y * 20000.0f;
            f->Focus = focus;
        }
    return lot;
}

const cField* FieldAt(const cLot& lot, int x, int y) {
    for (cField* f : lot.Wafers().At(1)->Fields())
        if (std::lround(f->DieX) == x && std::lround(f->DieY) == y) return f;
    return nullptr;
}

// The focus values of the wafer as rows from the highest DieY down.
std::vector<std::vector<double>> FocusRows(const cLot& lot, int cols, int rows) {
    std::vector<std::vector<double>> out;
    for (int y = rows - 1; y >= 0; --y) {
        std::vector<double> r;
        for (int x = 0; x < cols; ++x) r.push_back(FieldAt(lot, x, y)->Focus);
        out.push_back(r);
    }
    return out;
}

struct LayoutRun {
    std::shared_ptr<cLot> lot;
    Datam table;
    LayoutControls c;
    Result<LayoutOutcome> out = Failure{};
};

LayoutRun Calc(int cols, int rows, const std::string& program, int index, float sx, float sy, double initial = 10,
         double step = 1) {
    LayoutRun r;
    r.lot = GridLot(cols, rows);
    r.table = MakeFPdata(r.lot.get()).value();
    r.c.program = program;
    r.c.controlIndex = index;
    r.c.initial = initial;
    r.c.step = step;
    r.c.dieXo = sx;
    r.c.dieYo = sy;
    r.out = CalculateLayout(r.c, *r.lot, &r.table);
    return r;
}

using Rows = std::vector<std::vector<double>>;

TEST(LayoutMeander, RowsAndFallback) {
    EXPECT_STREQ(MeanderOf(0).kind, "ULRight");
    EXPECT_STREQ(MeanderOf(0).scan2, "Down");
    EXPECT_STREQ(MeanderOf(7).kind, "ULDown");
    // Anything off the combo's eight entries walks as "LRLeft".
    for (int bad : {8, 9, 42, -1}) {
        EXPECT_EQ(MeanderRow(bad), 5) << bad;
        EXPECT_STREQ(MeanderOf(bad).kind, "LRLeft");
        EXPECT_STREQ(MeanderOf(bad).scan1, "Left");
        EXPECT_STREQ(MeanderOf(bad).scan2, "Up");
    }
    EXPECT_EQ(MeanderControlIndex("lrup"), 3);
    EXPECT_EQ(MeanderControlIndex("Zigzag"), -1);
    EXPECT_EQ(LayoutVariableColumn("Focus"), 5);
    EXPECT_EQ(LayoutVariableColumn("Dose"), 6);
    EXPECT_EQ(LayoutVariableColumn("Numeric Aperature"), 7);
    EXPECT_EQ(LayoutVariableColumn("PCinner"), 8);
    EXPECT_EQ(LayoutVariableColumn("PCouter"), 9);
    EXPECT_EQ(LayoutVariableColumn("ScanDirection"), 10);
    EXPECT_EQ(LayoutVariableColumn("anything"), 10);
}

// A 3 x 4 wafer walked from its upper left corner, right then down.
TEST(CalculateLayout, ProgramsOnThreeByFour) {
    LayoutRun s = Calc(3, 4, "Serpentine", 0, 0, 3);
    ASSERT_TRUE(s.out.ok()) << s.out.failure().text;
    EXPECT_EQ(FocusRows(*s.lot, 3, 4), (Rows{{10, 11, 12}, {15, 14, 13}, {16, 17, 18}, {21, 20, 19}}));
    EXPECT_EQ(s.out->rowsWritten, 12);

    LayoutRun single = Calc(3, 4, "SingleScan", 0, 0, 3);
    ASSERT_TRUE(single.out.ok());
    EXPECT_EQ(FocusRows(*single.lot, 3, 4), (Rows{{10, 11, 12}, {10, 11, 12}, {10, 11, 12}, {10, 11, 12}}));

    LayoutRun multi = Calc(3, 4, "MultiScan", 0, 0, 3);
    ASSERT_TRUE(multi.out.ok());
    EXPECT_EQ(FocusRows(*multi.lot, 3, 4), (Rows{{10, 11, 12}, {13, 14, 15}, {16, 17, 18}, {19, 20, 21}}));

    // Columns as lines: up from the lower left corner, then to the right.
    LayoutRun up = Calc(3, 4, "MultiScan", MeanderControlIndex("LLUp"), 0, 0, 0, 0.5);
    ASSERT_TRUE(up.out.ok());
    EXPECT_EQ(FocusRows(*up.lot, 3, 4), (Rows{{1.5, 3.5, 5.5}, {1, 3, 5}, {0.5, 2.5, 4.5}, {0, 2, 4}}));

    // The table's column follows the fields.
    for (int r = 1; r <= s.table.rowUb(); ++r) {
        const cField* f = FieldAt(*s.lot, s.table(r, 3).toLong(), s.table(r, 4).toLong());
        EXPECT_DOUBLE_EQ(s.table(r, 5).toDouble(), f->Focus);
    }
    // The wafer's layout keeps the settings.
    const cWafer* w = s.lot->Wafers().At(1);
    ASSERT_EQ(w->Layouts.size(), 1u);
    EXPECT_EQ(w->Layouts[0].VariableName, "Focus");
    EXPECT_FLOAT_EQ(w->Layouts[0].InitialValue, 10);
    EXPECT_FLOAT_EQ(w->Layouts[0].Step, 1);
    EXPECT_EQ(w->Layouts[0].Scan1, "Right");
    EXPECT_EQ(w->Layouts[0].Scan2, "Down");
}

TEST(CalculateLayout, StartAtCornerExcludesNothing) {
    // Each kind from its own corner reaches every field.
    for (int k = 0; k < 8; ++k) {
        auto lot = GridLot(4, 3);
        float x = 0, y = 0;
        ASSERT_TRUE(LayoutCorner(*lot, "All", k, x, y));
        Datam t = MakeFPdata(lot.get()).value();
        LayoutControls c;
        c.program = "MultiScan";
        c.controlIndex = k;
        c.initial = 1;
        c.step = 1;
        c.dieXo = x;
        c.dieYo = y;
        Result<LayoutOutcome> out = CalculateLayout(c, *lot, &t);
        ASSERT_TRUE(out.ok()) << k;
        EXPECT_EQ(out->rowsWritten, 12) << MeanderOf(k).kind;
        for (auto s : out->grid.state) EXPECT_NE(s, LayoutGrid::Excluded);
        // The start field takes the initial value, the last field walked 12.
        EXPECT_FLOAT_EQ(FieldAt(*lot, static_cast<int>(x), static_cast<int>(y))->Focus, 1) << MeanderOf(k).kind;
        double high = 0;
        for (cField* f : lot->Wafers().At(1)->Fields()) high = std::max<double>(high, f->Focus);
        EXPECT_DOUBLE_EQ(high, 12);
    }
}

TEST(CalculateLayout, MiddleStartUsesLowerRightQuarter) {
    // 5 x 5 from (2, 2), right then down: x >= 2 and y <= 2 only.
    LayoutRun r = Calc(5, 5, "Serpentine", MeanderControlIndex("ULRight"), 2, 2, 0, 1);
    ASSERT_TRUE(r.out.ok());
    EXPECT_EQ(r.out->rowsWritten, 9);
    EXPECT_EQ(FocusRows(*r.lot, 5, 5), (Rows{{-7, -7, -7, -7, -7},
                                            {-7, -7, -7, -7, -7},
                                            {-7, -7, 0, 1, 2},
                                            {-7, -7, 5, 4, 3},
                                            {-7, -7, 6, 7, 8}}));
    // The table keeps its old values off the path.
    for (int i = 1; i <= r.table.rowUb(); ++i) {
        const int x = r.table(i, 3).toLong(), y = r.table(i, 4).toLong();
        if (x < 2 || y > 2) {
            EXPECT_DOUBLE_EQ(r.table(i, 5).toDouble(), -7) << x << "," << y;
        }
    }
    int excluded = 0;
    for (auto s : r.out->grid.state) excluded += s == LayoutGrid::Excluded;
    EXPECT_EQ(excluded, 16);
}

TEST(CalculateLayout, ConstantSetsStepToZero) {
    LayoutRun r = Calc(3, 2, "Constant", 0, 1, 0, 4.5, 5);
    ASSERT_TRUE(r.out.ok());
    EXPECT_EQ(r.c.step, 0);
    EXPECT_EQ(r.out->step, 0);
    // Constant covers the wafer whatever the start.
    EXPECT_EQ(FocusRows(*r.lot, 3, 2), (Rows{{4.5, 4.5, 4.5}, {4.5, 4.5, 4.5}}));
    EXPECT_FLOAT_EQ(r.lot->Wafers().At(1)->Layouts[0].Step, 0);
}

TEST(CalculateLayout, IndexNineWalksAsLRLeft) {
    LayoutRun nine = Calc(3, 4, "MultiScan", 9, 2, 0, 0, 1);
    LayoutRun lrLeft = Calc(3, 4, "MultiScan", MeanderControlIndex("LRLeft"), 2, 0, 0, 1);
    ASSERT_TRUE(nine.out.ok());
    ASSERT_TRUE(lrLeft.out.ok());
    EXPECT_STREQ(nine.out->kind->kind, "LRLeft");
    const Rows expected{{11, 10, 9}, {8, 7, 6}, {5, 4, 3}, {2, 1, 0}};
    EXPECT_EQ(FocusRows(*nine.lot, 3, 4), expected);
    EXPECT_EQ(FocusRows(*lrLeft.lot, 3, 4), expected);
}

TEST(CalculateLayout, SingleFieldTakesInitial) {
    for (const char* program : kMeanderPrograms) {
        auto lot = GridLot(1, 1, -7, 3, 7);
        Datam t = MakeFPdata(lot.get()).value();
        LayoutControls c;
        c.program = program;
        c.meander = "URDown";
        c.initial = 2.5;
        c.step = 0.25;
        c.dieXo = 3;
        c.dieYo = 7;
        Result<LayoutOutcome> out = CalculateLayout(c, *lot, &t);
        ASSERT_TRUE(out.ok()) << program;
        EXPECT_EQ(c.controlIndex, 6);
        EXPECT_FLOAT_EQ(lot->Wafers().At(1)->Fields().At(1)->Focus, 2.5f) << program;
    }
}

TEST(CalculateLayout, OtherVariablesAndWafers) {
    // Two wafers; the layout of W2 leaves W1 alone.
    auto lot = GridLot(2, 2);
    bool isNew = false;
    cWafer* w2 = lot->AddWafer("W2", isNew);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 2; ++x) {
            cField* f = w2->AddField(static_cast<float>(x), static_cast<float>(y), isNew, true);
            f->LocationX = x * 20000.0f;
            f->LocationY = y * 20000.0f;
            f->Dose = 20;
        }
    Datam t = MakeFPdata(lot.get()).value();
    LayoutControls c;
    c.variable = "Dose";
    c.wafer = "W2";
    c.program = "SingleScan";
    c.meander = "LLRight";
    c.initial = 30;
    c.step = 2;
    ASSERT_TRUE(CalculateLayout(c, *lot, &t).ok());
    for (cField* f : lot->Wafers().At(1)->Fields()) EXPECT_FLOAT_EQ(f->Dose, 0);
    for (cField* f : w2->Fields()) EXPECT_FLOAT_EQ(f->Dose, 30 + 2 * f->DieX);
    EXPECT_TRUE(lot->Wafers().At(1)->Layouts.empty());

    // The scan direction as words in the table, codes on the fields.
    c.variable = "ScanDirection";
    c.wafer = "All";
    c.program = "Constant";
    c.initial = 1;
    ASSERT_TRUE(CalculateLayout(c, *lot, &t).ok());
    for (int r = 1; r <= t.rowUb(); ++r) EXPECT_EQ(t(r, 10).toString(), "Left");
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) EXPECT_EQ(f->Direction, 1);
}

TEST(CalculateLayout, Failures) {
    auto lot = GridLot(3, 3, 1.5f);
    LayoutControls c;
    c.program = "Serpentine";
    Result<LayoutOutcome> none = CalculateLayout(c, *lot, nullptr);
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(none.failure().text, "An input calibration table was not provided.");

    // A start off the grid: the question, No leaves the lot as it was.
    Datam t = MakeFPdata(lot.get()).value();
    c.dieXo = 9;
    c.initial = 100;
    c.step = 1;
    std::string asked;
    LayoutCalcOptions o;
    o.ask = [&](const std::string& q) {
        asked = q;
        return false;
    };
    Result<LayoutOutcome> no = CalculateLayout(c, *lot, &t, o);
    ASSERT_FALSE(no.ok());
    EXPECT_EQ(asked, "Layout File may be corrupted.\r\nGenerate new file? ");
    EXPECT_EQ(no.failure().text, "Error: Layout not updated.");
    for (cField* f : lot->Wafers().At(1)->Fields()) EXPECT_FLOAT_EQ(f->Focus, 1.5f);

    // Yes makes the table again from the lot.
    o.ask = [](const std::string&) { return true; };
    t = Datam(2, 10, 0, 1);
    Result<LayoutOutcome> yes = CalculateLayout(c, *lot, &t, o);
    ASSERT_TRUE(yes.ok());
    EXPECT_EQ(yes->note, "Layout re-calculated.");
    EXPECT_EQ(t.rowUb(), 9);
    for (cField* f : lot->Wafers().At(1)->Fields()) EXPECT_FLOAT_EQ(f->Focus, 1.5f);
}

TEST(CalculateLayout, TableOfOtherFieldCountIsMadeAgain) {
    auto lot = GridLot(2, 2);
    Datam stale(1, 10, 0, 1);  // one row for four fields
    LayoutControls c;
    c.program = "MultiScan";
    c.meander = "LLRight";
    c.initial = 1;
    c.step = 1;
    ASSERT_TRUE(CalculateLayout(c, *lot, &stale).ok());
    EXPECT_EQ(stale.rowUb(), 4);
    EXPECT_EQ(FocusRows(*lot, 2, 2), (Rows{{3, 4}, {1, 2}}));
}

}  // namespace
}  // namespace zorv
