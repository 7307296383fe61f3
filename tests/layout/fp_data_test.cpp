// The field table, the "Layout" sheet through the workbook loader's own
// reading, the templates, and the layout drawing.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>

#include "graphics/recording_surface.h"
#include "layout/fp_data.h"
#include "layout/layout_draw.h"
#include "layout/meander.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

namespace fs = std::filesystem;

namespace zorv {
namespace {

fs::path TempDir(const std::string& name) {
    const fs::path d = fs::path(ZORV_TEST_TMP) / "layout" / (name + "-" + std::to_string(getpid()));
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
}

// Two wafers of 2 x 3 fields with distinct exposures.
std::string WaferName(int n) {
    std::string s = "W";
    s.append(std::to_string(n));
    return s;
}

// A field where the loader puts it: its location the die index times the
// die size, so that it is never mistaken for another by location.
cField* AddAt(cWafer* w, int x, int y) {
    bool isNew = false;
    cField* f = w->AddField(static_cast<float>(x), static_cast<float>(y), isNew, true);
    f->LocationX = x * 20000.0f;
    f->LocationY = y * 20000.0f;
    return f;
}

std::shared_ptr<cLot> ExposedLot() {
    auto lot = cLot::create();
    lot->LotName = "Exposed";
    bool isNew = false;
    for (int wn = 1; wn <= 2; ++wn) {
        cWafer* w = lot->AddWafer(WaferName(wn), isNew);
        for (int y = -1; y <= 1; ++y)
            for (int x = 0; x <= 1; ++x) {
                cField* f = AddAt(w, x, y);
                f->Focus = 0.1f * x - 0.05f * y + wn;
                f->Dose = 20 + x + 2 * y;
                f->NA = 0.75f;
                f->PCinner = 0.5f;
                f->PCouter = 0.8f;
                f->Direction = (x + y + 3) % 4;
            }
    }
    return lot;
}

// The same fields with no exposure.
std::shared_ptr<cLot> BareLot() {
    auto lot = cLot::create();
    lot->LotName = "Exposed";
    bool isNew = false;
    for (int wn = 1; wn <= 2; ++wn) {
        cWafer* w = lot->AddWafer(WaferName(wn), isNew);
        for (int y = -1; y <= 1; ++y)
            for (int x = 0; x <= 1; ++x) AddAt(w, x, y);
    }
    return lot;
}

TEST(LayoutFPdata, TableOfTheLot) {
    auto lot = ExposedLot();
    Result<Datam> fp = MakeFPdata(lot.get());
    ASSERT_TRUE(fp.ok());
    const Datam& t = fp.value();
    ASSERT_EQ(t.rowUb(), 12);
    ASSERT_EQ(t.colUb(), 10);
    EXPECT_EQ(t(0, 1).toString(), "Wafer");
    EXPECT_EQ(t(0, 10).toString(), "ScanDirection");
    // Row 8: wafer 2's second field, DieX 1 and DieY -1.
    EXPECT_EQ(t(8, 1).toString(), "W2");
    EXPECT_EQ(t(8, 3).toDouble(), 1);
    EXPECT_EQ(t(8, 4).toDouble(), -1);
    EXPECT_DOUBLE_EQ(t(8, 5).toDouble(), 2.15);  // 0.1 + 0.05 + 2, as its single reads
    EXPECT_DOUBLE_EQ(t(8, 6).toDouble(), 19);
    EXPECT_EQ(t(8, 10).toString(), "Up");  // code (1 - 1 + 3) % 4 = 3
    EXPECT_EQ(t(7, 10).toString(), "Right");  // code 2
    Result<Datam> none = MakeFPdata(nullptr);
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(none.failure().text, "No data in lot object.");
}

TEST(LayoutFPdata, SetupBlocks) {
    auto lot = ExposedLot();
    const Datam s = MakeSetup(*lot);
    ASSERT_EQ(s.rowUb(), 16);
    ASSERT_EQ(s.colUb(), 8);
    EXPECT_EQ(s(0, 1).toString(), "selWafer");
    EXPECT_EQ(s(0, 8).toString(), "ScanDirection");
    const char* names[] = {"Meander", "DieXo", "DieYo", "InitialValue", "Step", "ControlIndex", "Scan1", "Scan2"};
    for (int b = 0; b < 2; ++b)
        for (int k = 0; k < 8; ++k) {
            EXPECT_EQ(s(b * 8 + k + 1, 1).toString(), b == 0 ? "W1" : "W2");
            EXPECT_EQ(s(b * 8 + k + 1, 2).toString(), names[k]);
        }
    EXPECT_EQ(s(1, 3).toString(), "Constant");
    EXPECT_EQ(s(2, 4).toDouble(), 0);    // start field: lowest row, lowest column
    EXPECT_EQ(s(3, 4).toDouble(), -1);
    EXPECT_DOUBLE_EQ(s(12, 3).toDouble(), 2.05);  // W2 first field (0, -1): 0 + 0.05 + 2
    EXPECT_DOUBLE_EQ(s(12, 4).toDouble(), 18);
    EXPECT_EQ(s(14, 5).toDouble(), 1);
    EXPECT_EQ(s(15, 6).toString(), "Right");
    EXPECT_EQ(s(16, 7).toString(), "Up");

    EXPECT_EQ(FEMlayout(*lot), 2);
    const cWafer* w2 = lot->Wafers().At(2);
    ASSERT_EQ(w2->Layouts.size(), 6u);
    EXPECT_EQ(w2->Layouts[1].VariableName, "Dose");
    EXPECT_FLOAT_EQ(w2->Layouts[1].InitialValue, 18);
    EXPECT_EQ(w2->Layouts[1].ControlIndex, 1);
    EXPECT_STREQ(MeanderOf(w2->Layouts[1].ControlIndex).scan2, "Up");  // the defaults agree with LLRight
    EXPECT_EQ(FEMlayout(*lot), 0);  // wafers with layouts keep them
}

TEST(LayoutFPdata, SheetRoundTripThroughTheLoader) {
    const fs::path dir = TempDir("roundtrip");
    const std::string path = (dir / "lot.xlsx").string();
    auto lot = ExposedLot();
    // A layout on wafer 1 so that its settings travel too.
    Datam fp = MakeFPdata(lot.get()).value();
    LayoutControls c;
    c.wafer = "W1";
    c.variable = "Dose";
    c.program = "Serpentine";
    c.meander = "LLRight";
    c.initial = 30;
    c.step = 0.5;
    c.dieXo = 0;
    c.dieYo = -1;
    ASSERT_TRUE(CalculateLayout(c, *lot, &fp).ok());
    {
        WorkbookPtr wb = Workbook::create(path, "Information");
        Status s = SaveFPdata(*lot, fp, wb.get());
        ASSERT_TRUE(s.ok()) << s.failure().text;
    }
    Result<WorkbookPtr> back = Workbook::open(path);
    ASSERT_TRUE(back.ok());
    Worksheet* index = back.value()->sheet("Index");
    ASSERT_NE(index, nullptr);
    bool dated = false;
    for (int r = 1; r <= index->lastRow(); ++r)
        for (int col = 1; col <= index->lastCol(); ++col)
            dated = dated || index->cell(r, col).toString().rfind("Wafer Layout last saved: ", 0) == 0;
    EXPECT_TRUE(dated);
    EXPECT_EQ(back.value()->sheet("Layout")->cell(1, kLayoutExposureColumn).toString(), "Unique Exposures for Layout:");

    Datam setup, values;
    ASSERT_TRUE(GetLayoutData(back.value().get(), setup, values));
    auto bare = BareLot();
    FPdata2Lot(*bare, setup);
    for (int wn = 1; wn <= 2; ++wn) {
        cWafer* a = lot->Wafers().At(wn);
        cWafer* b = bare->Wafers().At(wn);
        for (int i = 1; i <= a->Fields().Count(); ++i) {
            const cField* fa = a->Fields().At(i);
            const cField* fb = b->Fields().At(i);
            EXPECT_FLOAT_EQ(fb->Focus, fa->Focus);
            EXPECT_FLOAT_EQ(fb->Dose, fa->Dose);
            EXPECT_FLOAT_EQ(fb->NA, 0.75f);
            EXPECT_FLOAT_EQ(fb->PCinner, 0.5f);
            EXPECT_FLOAT_EQ(fb->PCouter, 0.8f);
            EXPECT_EQ(fb->Direction, fa->Direction);
        }
    }
    // Serpentine doses on wafer 1: (0,-1) 30, (1,-1) 30.5, (1,0) 31, (0,0) 31.5, (0,1) 32, (1,1) 32.5.
    const cWafer* w1 = bare->Wafers().At(1);
    EXPECT_FLOAT_EQ(w1->mFindField(1, 0)->Dose, 31);
    EXPECT_FLOAT_EQ(w1->mFindField(0, 0)->Dose, 31.5f);
    EXPECT_FLOAT_EQ(w1->mFindField(1, 1)->Dose, 32.5f);

    // The layout rows read back with the loader's headers.
    ASSERT_TRUE(values.isArray());
    EXPECT_EQ(values(0, 1).toString(), "Wafer");
    EXPECT_EQ(values(0, 2).toString(), "Variable");
    bool found = false;
    for (int r = 1; r <= values.rowUb(); ++r)
        if (values(r, 1).toString() == "W1" && values(r, 2).toString() == "Dose") {
            found = true;
            EXPECT_EQ(values(r, 3).toString(), "Serpentine");
            EXPECT_DOUBLE_EQ(values(r, 6).toDouble(), 30);
            EXPECT_DOUBLE_EQ(values(r, 7).toDouble(), 0.5);
            EXPECT_EQ(values(r, 9).toString(), "Right");
            EXPECT_EQ(values(r, 10).toString(), "Up");
        }
    EXPECT_TRUE(found);
    fs::remove_all(dir);
}

TEST(LayoutFPdata, UnnamedLotAndTemplates) {
    auto lot = ExposedLot();
    lot->LotName = "";
    WorkbookPtr wb = Workbook::create((TempDir("unnamed") / "x.xlsx").string());
    Status s = SaveFPdataFromLot(*lot, wb.get(), false);
    ASSERT_FALSE(s.ok());
    EXPECT_EQ(s.failure().text, "File not saved");

    const fs::path dir = TempDir("templates");
    EXPECT_EQ(UpdateLayoutTemplates(dir.string()), (std::vector<std::string>{"Files", "Empty"}));
    lot->LotName = "FEM 5x5";
    Result<std::string> saved = SaveAsLayout(*lot, "", dir.string());
    ASSERT_TRUE(saved.ok()) << saved.failure().text;
    EXPECT_TRUE(fs::exists(saved.value()));
    const std::vector<std::string> list = UpdateLayoutTemplates(dir.string());
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0], "Files");
    EXPECT_EQ(fs::path(saved.value()).filename().string(), list[1]);
    Result<WorkbookPtr> t = Workbook::open(saved.value());
    ASSERT_TRUE(t.ok());
    Datam setup, values;
    ASSERT_TRUE(GetLayoutData(t.value().get(), setup, values));
    EXPECT_EQ(setup.rowUb(), 12);
    fs::remove_all(dir);
}

TEST(LayoutFPdata, ExposureStandard) {
    auto lot = ExposedLot();
    ExposureStandard s = GetExposureStandard(*lot);
    EXPECT_FLOAT_EQ(static_cast<float>(s.NA), 0.75f);
    EXPECT_FLOAT_EQ(static_cast<float>(s.dose), 18);
    Datam info = Datam::fromRows({{"Data Type", "Overlay"}, {"NA", 0.6}, {"Fo", -0.1}, {"Dose", 25.0}});
    s = GetExposureStandard(*lot, &info);
    EXPECT_DOUBLE_EQ(s.NA, 0.6);
    EXPECT_DOUBLE_EQ(s.focus, -0.1);
    EXPECT_DOUBLE_EQ(s.dose, 25);
    EXPECT_FLOAT_EQ(static_cast<float>(s.PCouter), 0.8f);
}

TEST(LayoutDraw, MapCellsTitleAndOrigin) {
    auto lot = ExposedLot();
    lot->DieSizeX = lot->DieSizeY = 20000;
    RecordingSurface s(800, 600);
    Result<LayoutView> v = MainDraw(*lot, "Dose", "W2", s);
    ASSERT_TRUE(v.ok()) << v.failure().text;
    const std::vector<std::string> texts = s.texts();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.front(), "Variable: Dose - Wafer: W2");
    // One filled cell per field (and the key's bands), the highest dose red.
    std::vector<const RecordingSurface::Call*> cells;
    for (const auto* call : s.of(RecordingSurface::Op::Line))
        if (call->form == LineForm::FilledBox && call->points[1].x - call->points[0].x > 16.5) cells.push_back(call);
    ASSERT_EQ(cells.size(), 6u);
    // Field (1, 1), dose 23, is red and stands above field (1, -1).
    EXPECT_EQ(v->rows, 3);
    EXPECT_LT(v->cellTop(1), v->cellTop(-1));
    bool redAtTop = false;
    for (const auto* call : cells)
        if (std::fabs(call->points[0].y - v->cellTop(1)) < 1e-9 && std::fabs(call->points[0].x - v->cellLeft(1)) < 1e-9)
            redAtTop = call->color == RGB(230, 0, 0);
    EXPECT_TRUE(redAtTop);

    RecordingSurface all;
    ASSERT_TRUE(MainDraw(*lot, "Focus", "All", all).ok());
    EXPECT_EQ(all.texts().front(), "Variable: Focus - Wafers: W1, W2");

    Datam fp = MakeFPdata(lot.get()).value();
    s.clear();
    Result<std::vector<std::string>> shown = DisplayVariables(fp, "Dose", "W2", *v, s);
    ASSERT_TRUE(shown.ok());
    EXPECT_EQ(shown->size(), 6u);
    EXPECT_EQ(shown->front(), "18");
    Datam narrow = fp;
    narrow.redimPreserve(fp.rowUb(), 5);
    Result<std::vector<std::string>> missing = DisplayVariables(narrow, "Dose", "W2", *v, s);
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.failure().text, "Could not find column values for: Dose");

    EXPECT_TRUE(DrawLayoutOrigin(*lot, "W1", "0", "-1", *v, s).ok());
    Status bad = DrawLayoutOrigin(*lot, "W1", "x0", "-1", *v, s);
    ASSERT_FALSE(bad.ok());
    EXPECT_EQ(bad.failure().text, "x0: Data entry error..");
    Status off = DrawLayoutOrigin(*lot, "W1", "5", "5", *v, s);
    ASSERT_FALSE(off.ok());
    EXPECT_EQ(off.failure().text, "Could not locate field in data.");
}

TEST(LayoutDraw, ListsAndFieldBoxes) {
    auto lot = ExposedLot();
    const LayoutLists l = LoadFeatures(*lot);
    EXPECT_EQ(l.wafers, (std::vector<std::string>{"All", "W1", "W2"}));
    EXPECT_EQ(l.meanders.size(), 8u);
    EXPECT_EQ(l.variables[2], "Numeric Aperature");
    FieldExposureValues v;
    v.focus = -0.3;
    v.dose = 33;
    v.direction = "left";
    const std::string key = lot->Wafers().At(2)->Fields().At(3)->NumberKey;
    ASSERT_TRUE(UpdateLotFromDisplay(*lot, "W2", key, v).ok());
    EXPECT_FLOAT_EQ(lot->Wafers().At(2)->Fields().At(3)->Dose, 33);
    EXPECT_EQ(lot->Wafers().At(2)->Fields().At(3)->Direction, 1);
    Status none = UpdateLotFromDisplay(*lot, "W2", "nope", v);
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(none.failure().text, "Could not locate field in data.");
}

}  // namespace
}  // namespace zorv
