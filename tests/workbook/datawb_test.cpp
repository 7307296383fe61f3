// Data workbook: SaveData then GetExcelWBLot against the tables that made the
// workbook, the loader's edge rules, bad input, naming, SaveArray and Index.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/identity.h"
#include "base/report.h"
#include "app/strings.h"
#include "common/capture_reporter.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"
#include "workbook/workbook_ops.h"

namespace fs = std::filesystem;
using namespace zorv;
using zorv::testing::CaptureReporter;

namespace {

class DataWorkbook : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::path(ZORV_TEST_TMP) / ("datawb_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
        fs::remove_all(dir);
        fs::create_directories(dir);
        rep.answer = vbNo;
        SetReporter(&rep);
        Workbooks::CloseAll();
    }
    void TearDown() override {
        Workbooks::CloseAll();
        SetReporter(nullptr);
    }
    std::string save(SampleSpec shape, const std::string& name = "Lot1") {
        shape.dataTable = name;
        shape.workbookPath = (dir / (name + ".xlsx")).string();
        SampleTables t = MakeSampleTables(shape);
        return saveTables(t, shape.workbookPath);
    }
    std::string saveTables(SampleTables& t, const std::string& path) {
        t.information(infoWorkBookPath, 1) = path;
        Result<std::string> saved = SaveData(t.data, t.excluded, t.sites, t.information);
        EXPECT_TRUE(saved.ok()) << saved.failure().message();
        Workbooks::CloseAll();  // the loader reads the file, not the open copy
        return saved.ok() ? *saved : std::string();
    }
    // Loads as the desktop does: a failure is shown by the caller.
    Status load(const std::string& path, std::shared_ptr<cLot>& lot, WBLotTables* t = nullptr,
                const LoadOptions& options = {}) {
        Status s = GetExcelWBLot(path, options, lot, t);
        if (!s) Report(s.failure());
        return s;
    }
    std::string Boxes() const { return rep.joined(); }
    fs::path dir;
    CaptureReporter rep;
};

struct PointRef {
    cWafer* w;
    cField* f;
    cSite* s;
    cPoint* p;
};
std::vector<PointRef> AllPoints(const cLot& lot) {
    std::vector<PointRef> out;
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields())
            for (cSite* s : f->sites())
                for (cPoint* p : s->Points()) out.push_back({w, f, s, p});
    return out;
}

std::string ReadBytes(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

}  // namespace

TEST_F(DataWorkbook, RoundTripGivesTheLotTheTablesDescribe) {
    SampleSpec shape;
    shape.wafers = 3;
    shape.fieldsX = 4;
    shape.fieldsY = 3;
    shape.sitesX = 3;
    shape.sitesY = 2;
    shape.values = 5;
    shape.blankEvery = 7;
    shape.families = "Iso,Dense,Via";
    std::string path = save(shape);
    std::shared_ptr<cLot> lot;
    WBLotTables t;
    ASSERT_TRUE(load(path, lot, &t).ok()) << Boxes();
    EXPECT_TRUE(rep.boxes.empty()) << Boxes();
    const cLot& L = *lot;
    EXPECT_EQ(L.DataSource(), 1);
    EXPECT_FALSE(L.LineWidthType);
    EXPECT_EQ(L.LotName, "Lot1");
    EXPECT_EQ(L.MetrologyTool, "SampleTool 9000");
    EXPECT_EQ(L.DateMeasured, "2026-11-02");
    EXPECT_EQ(L.TimeMeasured, "10:30:00");
    EXPECT_EQ(L.ValueV_Name, "X_reg");
    EXPECT_EQ(L.ValueH_Name, "Y_reg");
    EXPECT_EQ(L.valueZ_Name, "Mean");
    EXPECT_EQ(L.Slope_Name, "Slope");
    EXPECT_EQ(L.Pitch_Name, "Pitch");
    EXPECT_EQ(L.ValueV_Units, eUnitsNm);
    EXPECT_EQ(L.ValueZ_units, eUnitsMicron);
    EXPECT_FLOAT_EQ(L.DieSizeX, 26000);
    EXPECT_FLOAT_EQ(L.DieSizeY, 33000);
    EXPECT_FLOAT_EQ(L.DieXarray, -0.5f);  // even field count: the grid is centred between fields
    EXPECT_EQ(L.Wafers().Count(), 3);
    EXPECT_EQ(L.Wafers().At(1)->KeyName, "W1");
    EXPECT_EQ(L.Wafers().At(1)->Fields().Count(), 12);
    EXPECT_FLOAT_EQ(L.DieXmin, -1);
    EXPECT_FLOAT_EQ(L.DieXmax, 2);
    // Families: three names round-robin over six sites, counted per site made.
    ASSERT_EQ(L.FamilyNames.rowUb(), 3);
    EXPECT_EQ(L.FamilyNames(2, 1).toString(), "Dense");
    EXPECT_EQ(L.FamilyNames(2, 2).toLong(), 3 * 12 * 2);

    std::vector<PointRef> pts = AllPoints(L);
    ASSERT_EQ(pts.size(), 3u * 12 * 6);
    long row = 0, blanks = 0;
    for (const PointRef& r : pts) {
        ++row;  // the walk is in row order: wafers, fields, sites as written
        int w = std::stoi(r.w->KeyName.substr(1));
        int dx = static_cast<int>(r.f->DieX), dy = static_cast<int>(r.f->DieY);
        int s = r.s->NumberKey();
        double x, y;
        SampleSiteXY(shape, s, x, y);
        EXPECT_NEAR(r.s->LocationX, x * 1000, 1e-3);
        EXPECT_NEAR(r.s->LocationY, y * 1000, 1e-3);
        EXPECT_NEAR(r.f->LocationX, dx * 26000.0, 1e-3);
        float* slots[] = {&r.p->ValueV, &r.p->ValueH, &r.p->ValueZ, &r.p->Slope, &r.p->Pitch};
        for (int j = 0; j < 5; ++j) {
            if (j == 0 && row % shape.blankEvery == 0) {
                EXPECT_EQ(*slots[0], -999.9f);
                ++blanks;
                continue;
            }
            EXPECT_NEAR(*slots[j], static_cast<float>(SampleValue(w, dx, dy, s, j) * 1000), 0.01)
                << "row " << row << " value " << j;
        }
        EXPECT_EQ(r.p->ValueA, -999.9f);  // no sixth column
        // the site's absolute position: field centre plus site
        EXPECT_NEAR(r.s->LocationXabs, dx * 26000.0 - 0.5 * 26000 + 13000 + x * 1000, 0.05);
    }
    EXPECT_EQ(blanks, static_cast<long>(pts.size()) / shape.blankEvery);
    // Information comes back as the key table.
    ASSERT_TRUE(t.information.isArray());
    EXPECT_EQ(t.information(1, 1).toString(), "Data Type");
    EXPECT_EQ(t.information(1, 2).toString(), "Overlay");
    EXPECT_EQ(t.information(infoExposureToolType, 2).toString(), "Scanner");
}

TEST_F(DataWorkbook, DerivedZAndFieldExposureRunningOn) {
    SampleSpec shape;
    shape.values = 2;  // V and H only
    shape.wafers = 1;
    std::string path = save(shape, "Overlay2");
    std::shared_ptr<cLot> lot;
    ASSERT_TRUE(load(path, lot).ok()) << Boxes();
    EXPECT_EQ(lot->valueZ_Name, "Length");
    for (const PointRef& r : AllPoints(*lot))
        EXPECT_NEAR(r.p->ValueZ, std::hypot(r.p->ValueV, r.p->ValueH), 1e-2);
    // Focus and dose count the fields on from the value loop's end (2 values + 1).
    int k = 3;
    for (cField* f : lot->Wafers().At(1)->Fields()) {
        EXPECT_NEAR(f->Focus, -0.2 + k * 0.05, 1e-6);
        EXPECT_NEAR(f->Dose, 20 + k * 0.5, 1e-5);
        EXPECT_NEAR(f->NA, 0.75, 1e-7);
        ++k;
    }

    shape.dataType = 4;  // focus: Z is the mean, named "Mean"
    path = save(shape, "Focus2");
    ASSERT_TRUE(load(path, lot).ok()) << Boxes();
    EXPECT_EQ(lot->DataSource(), 4);
    EXPECT_EQ(lot->valueZ_Name, "Mean");
    for (const PointRef& r : AllPoints(*lot))
        EXPECT_NEAR(r.p->ValueZ, (r.p->ValueV + r.p->ValueH) / 2, 1e-2);
}

TEST_F(DataWorkbook, WaferSizeGivenOrEstimated) {
    SampleSpec shape;
    shape.wafers = 1;
    shape.waferSizeMm = 150;
    std::shared_ptr<cLot> lot;
    ASSERT_TRUE(load(save(shape, "Given150"), lot).ok()) << Boxes();
    EXPECT_FLOAT_EQ(lot->WaferSize, 150000);
    EXPECT_FLOAT_EQ(lot->CullRadiusSetting, 75000);
    // No size: 5 fields of 33 mm, range 4 plus three dies = 231 mm -> 300 mm.
    shape.waferSizeMm = 0;
    shape.fieldsX = shape.fieldsY = 5;
    ASSERT_TRUE(load(save(shape, "Estimated"), lot).ok()) << Boxes();
    EXPECT_FLOAT_EQ(lot->WaferSize, 300000);
}

// A blank wafer name only counts toward the stop; its row is not left out.
// Where the loader drops a row it says so ("is skipped", "no point is
// added"); the blank-name step only counts, and the next step hands the name
// to AddWafer, whose rule for an empty name (the new wafer's number becomes
// its name) would otherwise have no use. So up to four blank names in a row
// go into one new wafer, and "keep what was read" at the fifth keeps them.
TEST_F(DataWorkbook, RowsSkippedSilentlyAndFiveEmptyWaferNamesStop) {
    SampleSpec shape;
    shape.wafers = 2;
    SampleTables t = MakeSampleTables(shape);
    const int rows = t.data.rowUb();  // 72
    t.data(3, 2) = static_cast<int32_t>(99);  // beyond the Sites table: left out
    t.data(4, 3) = "x";                       // DieX not numeric: left out
    for (int r = 40; r < 45; ++r) t.data(r, 1) = Value();  // five rows with no wafer
    std::string path = saveTables(t, (dir / "Stops.xlsx").string());
    std::shared_ptr<cLot> lot;
    ASSERT_TRUE(load(path, lot).ok()) << Boxes();
    EXPECT_TRUE(rep.boxes.empty()) << Boxes();
    // Rows 1..39 less the two skipped, and rows 40..43 read before the fifth blank name.
    EXPECT_EQ(AllPoints(*lot).size(), 39u - 2 + 4);
    EXPECT_LT(AllPoints(*lot).size(), static_cast<size_t>(rows));
    // Four empty names in a row do not stop it: their rows make wafer 3.
    SampleTables u = MakeSampleTables(shape);
    for (int r = 40; r < 44; ++r) u.data(r, 1) = Value();
    path = saveTables(u, (dir / "Four.xlsx").string());
    ASSERT_TRUE(load(path, lot).ok()) << Boxes();
    EXPECT_EQ(AllPoints(*lot).size(), static_cast<size_t>(rows));
    ASSERT_EQ(lot->Wafers().Count(), 3);
    EXPECT_EQ(lot->Wafers().At(3)->KeyName, "W3");
    long inThird = 0;
    for (const PointRef& r : AllPoints(*lot)) inThird += r.w == lot->Wafers().At(3);
    EXPECT_EQ(inThird, 4);
}

TEST_F(DataWorkbook, NoWaferHeaderShiftsTheColumns) {
    SampleSpec shape;
    shape.wafers = 2;
    SampleTables t = MakeSampleTables(shape);
    // Wafer names in column A without a header, Test in B: one column left.
    Datam d(t.data.rowUb(), t.data.colUb() - 1, 0, 0);
    for (int r = 0; r <= d.rowUb(); ++r)
        for (int c = 0; c <= d.colUb(); ++c) d(r, c) = t.data(r, c + 1);
    d(0, 0) = Value();
    t.data = d;
    std::string path = saveTables(t, (dir / "Shifted.xlsx").string());
    std::shared_ptr<cLot> lot;
    ASSERT_TRUE(load(path, lot).ok()) << Boxes();
    EXPECT_EQ(lot->Wafers().Count(), 2);
    EXPECT_EQ(lot->ValueV_Name, "X_reg");
    std::vector<PointRef> pts = AllPoints(*lot);
    ASSERT_EQ(pts.size(), 72u);
    EXPECT_NEAR(pts[5].p->ValueH,
                SampleValue(1, static_cast<int>(pts[5].f->DieX), static_cast<int>(pts[5].f->DieY),
                            pts[5].s->NumberKey(), 1) * 1000, 0.01);
}

TEST_F(DataWorkbook, LongNameIsCutAndFoundAgain) {
    SampleSpec shape;
    shape.wafers = 1;
    const std::string name = "A_very_long_lot_name_of_forty_chars_1234";
    ASSERT_EQ(name.size(), 40u);
    std::string path = save(shape, name);
    {
        Result<WorkbookPtr> wb = Workbook::open(path);
        ASSERT_TRUE(wb.ok());
        EXPECT_TRUE((*wb)->sheet(name.substr(0, 31)) != nullptr);
    }
    std::shared_ptr<cLot> lot;
    WBLotTables t;
    ASSERT_TRUE(load(path, lot, &t).ok()) << Boxes();
    EXPECT_EQ(t.sheetName, name.substr(0, 31));
    EXPECT_EQ(AllPoints(*lot).size(), 36u);
}

TEST_F(DataWorkbook, BadInputGivesItsMessageAndLeavesTheFile) {
    SampleSpec shape;
    shape.wafers = 1;
    std::string good = save(shape, "Good");
    std::string goodBytes = ReadBytes(good);

    struct Case {
        std::string file;
        std::string bytes;
        std::string expect;  // part of the message
    };
    std::vector<Case> cases;
    cases.push_back({"NotAWorkbook.xlsx", "Wafer,Test,Diex,Diey\n1,1,0,0\n", ""});
    cases.push_back({"Truncated.xlsx", goodBytes.substr(0, goodBytes.size() / 2), ""});
    {
        // Without "Sites" and with an empty data sheet, made through the store.
        auto wb = Workbook::open(good);
        ASSERT_TRUE(wb.ok());
        (*wb)->removeSheet("Sites");
        ASSERT_TRUE((*wb)->saveAs((dir / "NoSites.xlsx").string()).ok());
        cases.push_back({"NoSites.xlsx", "", LoadResString(resNoSitesSheet)});
        std::string emptyData = save(shape, "EmptyData");
        auto wb2 = Workbook::open(emptyData);
        ASSERT_TRUE(wb2.ok());
        (*wb2)->sheet("EmptyData")->clear();
        (*wb2)->sheet("EmptyData")->clearComments();
        ASSERT_TRUE((*wb2)->save().ok());
        cases.push_back({"EmptyData.xlsx", "", LoadResString(resNoDataRows)});
        auto wb3 = Workbook::open(good);
        ASSERT_TRUE(wb3.ok());
        (*wb3)->sheet("Sites")->clear();
        ASSERT_TRUE((*wb3)->saveAs((dir / "EmptySites.xlsx").string()).ok());
        cases.push_back({"EmptySites.xlsx", "", LoadResString(resSitesSheetEmpty)});
    }
    if (fs::exists("/usr/bin/python3")) {
        // The data sheet's part (the largest sheet) cut in the middle of its
        // XML; the package itself stays sound.
        fs::path script = dir / "malform.py";
        std::ofstream(script) << "import zipfile, sys\n"
                                 "src = zipfile.ZipFile(sys.argv[1])\n"
                                 "dst = zipfile.ZipFile(sys.argv[2], 'w', zipfile.ZIP_DEFLATED)\n"
                                 "sheets = [i for i in src.infolist() if i.filename.startswith('xl/worksheets/sheet')]\n"
                                 "big = max(sheets, key=lambda i: i.file_size).filename\n"
                                 "for i in src.infolist():\n"
                                 "    data = src.read(i.filename)\n"
                                 "    if i.filename == big:\n"
                                 "        data = b'<worksheet><sheetData><row r=\"1\"><c r=\"B1\"><v>1</v></c></row><row'\n"
                                 "    dst.writestr(i, data)\n"
                                 "dst.close()\n";
        std::string bad = save(shape, "Malformed");
        std::string tmp = (dir / "Malformed.tmp").string();
        std::string cmd = "/usr/bin/python3 " + script.string() + " " + bad + " " + tmp;
        if (std::system(cmd.c_str()) == 0) {
            fs::rename(tmp, bad);
            cases.push_back({"Malformed.xlsx", "", ""});
        }
    }
    for (Case& c : cases) {
        std::string path = (dir / c.file).string();
        if (!c.bytes.empty()) {
            std::ofstream(path, std::ios::binary) << c.bytes;
        }
        std::string before = ReadBytes(path);
        auto mtime = fs::last_write_time(path);
        rep.boxes.clear();
        std::shared_ptr<cLot> lot;
        EXPECT_FALSE(load(path, lot).ok()) << c.file;
        ASSERT_FALSE(rep.boxes.empty()) << c.file;
        EXPECT_NE(rep.boxes.back().find("chk:"), std::string::npos) << rep.boxes.back();
        const std::string want = c.expect.empty() ? c.file : c.expect;
        EXPECT_NE(Boxes().find(want), std::string::npos) << c.file << ": " << Boxes();
        EXPECT_EQ(ReadBytes(path), before) << c.file;
        EXPECT_EQ(fs::last_write_time(path), mtime) << c.file;
        Workbooks::CloseAll();
    }
    rep.boxes.clear();
    std::shared_ptr<cLot> lot;
    EXPECT_FALSE(load((dir / "Missing.xlsx").string(), lot).ok());
    EXPECT_NE(Boxes().find("Cannot find file: "), std::string::npos);
    EXPECT_EQ(ReadBytes(good), goodBytes);
}

TEST_F(DataWorkbook, SaveDataRefusesAnEmptyTable) {
    Datam empty(0, 5, 0, 0);
    Result<std::string> saved = SaveData(empty, Datam(), Datam(), Datam());
    EXPECT_FALSE(saved.ok());
    EXPECT_NE(saved.failure().message().find("No rows in data matrix as provided."), std::string::npos);
}

TEST_F(DataWorkbook, NamingRules) {
    EXPECT_EQ(FixSheetName("Lot[3]: a*b?.xls.xls"), "Lot(3) axb");
    EXPECT_EQ(FixSheetName("dir/file\\x..y"), "dir_file_x.y");
    std::string forty(40, 'n');
    EXPECT_EQ(FixSheetName(forty).size(), 31u);
    auto wb = Workbook::create((dir / "Names.xlsx").string());
    ASSERT_TRUE(wb->addSheet(FixWorkSheetName(wb.get(), forty)));
    std::string second = FixWorkSheetName(wb.get(), forty);
    EXPECT_EQ(second, std::string(29, 'n') + "_1");
    EXPECT_EQ(FixWorkSheetName(wb.get(), "a.b/c\\d?e*:f;g[h]"), "abcdefg_h_");
    EXPECT_EQ(FixWorkbookPathName("/tmp/x y/Lot[1]?.xlsx"), "/tmp/x y/Lot_1_.xlsx");
}

TEST_F(DataWorkbook, SaveArrayAndIndex) {
    SampleSpec shape;
    shape.wafers = 1;
    std::string path = save(shape, "Indexed");
    WorkbookPtr wb;
    Worksheet* ws = nullptr;
    ASSERT_TRUE(OpenExcelWorksheet(path, wb, &ws, false).ok());
    Datam result(3, 2, 0, 0);
    result(0, 0) = "Wafer";
    result(0, 1) = "Mean";
    result(1, 0) = "W1";
    result(1, 1) = 1.23456789;
    SaveArrayOptions o;
    o.dataSheet = true;
    o.fileName = "Indexed";
    Status saved = SaveArray(result, "My Result", wb.get(), o);
    ASSERT_TRUE(saved.ok()) << saved.failure().message();
    Status indexed = AddIndexItem(wb.get(), "MyResult", "Statistics", Value("2026-11-03 08:00:00"));
    ASSERT_TRUE(indexed.ok()) << indexed.failure().message();
    Workbooks::CloseAll();

    auto back = Workbook::open(path);
    ASSERT_TRUE(back.ok());
    Workbook& b = **back;
    Worksheet* r = b.sheet("MyResult");  // spaces taken out
    ASSERT_TRUE(r);
    EXPECT_EQ(r->numberFormat(2, 2), "0.0000");
    EXPECT_DOUBLE_EQ(r->cell(2, 2).toDouble(), 1.23456789);
    ASSERT_TRUE(r->comment(1, 1));
    EXPECT_EQ(r->comment(1, 1)->text, "DATASHEET");
    EXPECT_FALSE(r->comment(1, 1)->visible);
    EXPECT_EQ(r->comment(2, 1)->text, "Indexed");
    Worksheet* ix = b.sheet("Index");
    ASSERT_TRUE(ix);
    EXPECT_LT(ix->index(), b.sheet("Sites")->index());
    EXPECT_EQ(ix->cell(1, 1).toString(), "Index of Data SpreadSheets");
    EXPECT_EQ(ix->cell(3, 1).toString(), "MyResult");
    EXPECT_EQ(ix->cell(3, 3).toString(), "Statistics");
    std::vector<Hyperlink> links = ix->hyperlinks();
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(links[0].location, "'MyResult'!A1");
    EXPECT_EQ(b.property("Subject"), "Zorv Wavefront Analysis Data");
}

TEST_F(DataWorkbook, GeometryHelpers) {
    Datam none(0, 5, 0, 0);
    double sx = 0, sy = 0, stx = 0, sty = 0;
    Status noSites = FindFieldSize(none, sx, sy, stx, sty, false);
    EXPECT_FALSE(noSites.ok());
    EXPECT_NE(noSites.failure().message().find("No site information in data."), std::string::npos);
    Datam three = Datam::fromRows({{}, {0, 0, 0, 1, 1.0, 1.0}, {0, 0, 0, 2, 2.0, 1.0}, {0, 0, 0, 3, 3.0, 1.0}});
    EXPECT_TRUE(FindFieldSize(three, sx, sy, stx, sty, false).ok());
    EXPECT_EQ(sx, 24);
    EXPECT_EQ(sy, 36);

    // DieX 1..5, DieY 2..3: the grid moves to -2..2 and -1..0 with arrays -0.5 and 0.
    Datam data(10, 5, 0, 0);
    for (int r = 1; r <= 10; ++r) {
        data(r, 3) = static_cast<int32_t>(1 + (r - 1) % 5);
        data(r, 4) = static_cast<int32_t>(2 + (r - 1) / 5);
    }
    auto lot = cLot::create();
    ASSERT_TRUE(CenterWaferGrid(data, true, lot.get()).ok());
    EXPECT_EQ(data(1, 3).toLong(), -2);
    EXPECT_EQ(data(5, 3).toLong(), 2);
    EXPECT_EQ(data(1, 4).toLong(), -1);
    EXPECT_FLOAT_EQ(lot->DieXarray, -0.5f);
    EXPECT_FLOAT_EQ(lot->DieYarray, -0.0f);

    Datam sites = Datam::fromRows({{}, {0, 0, 0, 1, 1.0, 2.0}, {0, 0, 0, 2, 3.0, 4.0}});
    double ox = 0, oy = 0;
    ASSERT_TRUE(CenterFieldSites(sites, ox, oy, false, lot.get()).ok());
    EXPECT_DOUBLE_EQ(ox, -2);
    EXPECT_DOUBLE_EQ(oy, -3);
    EXPECT_FLOAT_EQ(lot->SiteXoffset, -2000);

    int row = 0, col = 0;
    EXPECT_EQ(FindFirstRow(Datam(), row, col, "x"), -1);
    EXPECT_NE(Boxes().find("Input matrix is not an array."), std::string::npos);
    Datam t = Datam::fromRows({{"a", Value::error(2042), "Data type"}, {"DATA TYPE", 1, 2}});
    EXPECT_EQ(FindFirstRow(t, row, col, "data TYPE"), 0);
    EXPECT_EQ(col, 2);
}

TEST_F(DataWorkbook, LayoutTablesAreRead) {
    SampleSpec shape;
    shape.wafers = 2;
    std::string path = save(shape, "WithLayout");
    {
        auto wb = Workbook::open(path);
        ASSERT_TRUE(wb.ok());
        Worksheet* l = (*wb)->addSheet("Layout");
        Datam fp = Datam::fromRows({{"Wafer", "Field", "Diex", "Diey", "Focus", "Dose", "NA", "PCinner"},
                                    {"W1", 1, -1, -1, -0.1, 20, 0.75, 0.5},
                                    {"W1", 2, 0, -1, 0.0, 21, 0.75, 0.5}},
                                   1, 1);
        l->setRange(3, 2, fp);
        Datam vars = Datam::fromRows({{"Wafer", "Variable", "DieXo", "DieYo", "InitialValue", "Step", "Meander"},
                                      {"", "Focus", -1, -1, -0.1, 0.05, "Serpentine"},
                                      {"W2", "Dose", 0, 0, 20, 0.5, "Constant"}},
                                     1, 1);
        l->setRange(3, 12, vars);
        ASSERT_TRUE((*wb)->save().ok());
    }
    std::shared_ptr<cLot> lot;
    WBLotTables t;
    ASSERT_TRUE(load(path, lot, &t).ok()) << Boxes();
    ASSERT_TRUE(t.layoutSetup.isArray());
    EXPECT_EQ(t.layoutSetup.rowUb(), 2);
    EXPECT_EQ(t.layoutSetup(0, 10).toString(), "ScanDirection");
    EXPECT_DOUBLE_EQ(t.layoutSetup(2, 6).toDouble(), 21);
    ASSERT_TRUE(t.layoutValues.isArray());
    EXPECT_EQ(t.layoutValues.rowUb(), 2);
    // The row with no wafer applies to every wafer, the "W2" row to W2 only.
    cWafer* w1 = lot->Wafers().Item("W1");
    cWafer* w2 = lot->Wafers().Item("W2");
    ASSERT_TRUE(w1 && w2);
    EXPECT_EQ(w1->Layouts.size(), 1u);
    ASSERT_EQ(w2->Layouts.size(), 2u);
    EXPECT_EQ(w2->Layouts[1].VariableName, "Dose");
    EXPECT_FLOAT_EQ(w2->Layouts[1].InitialValue, 20);
    EXPECT_EQ(w1->Layouts[0].Meander, "Serpentine");
}

TEST_F(DataWorkbook, WithoutFieldSplitAWaferHoldsOneFieldAndItsSitesWafer) {
    SampleSpec shape;
    shape.wafers = 2;
    std::string path = save(shape, "NoSplit");
    std::shared_ptr<cLot> lot;
    LoadOptions noSplit;
    noSplit.splitByField = false;
    ASSERT_TRUE(load(path, lot, nullptr, noSplit).ok()) << Boxes();
    ASSERT_EQ(lot->Wafers().Count(), 2);
    for (cWafer* w : lot->Wafers()) {
        ASSERT_EQ(w->Fields().Count(), 1);
        EXPECT_EQ(w->Fields().At(1)->NumberKey, std::string("W").append(std::to_string(w->Number())).append("F1"));
        ASSERT_EQ(w->SitesWafer().Count(), 4);
        long points = 0;
        for (cSite* s : w->SitesWafer()) {
            points += s->Points().Count();
            // The wafer's one field is the parent, so the points know their lot.
            EXPECT_EQ(s->parent(), w->Fields().At(1));
            EXPECT_EQ(s->ParentWafer(), w);
            for (cPoint* pt : s->Points()) EXPECT_EQ(pt->ParentLot(), lot.get());
        }
        EXPECT_EQ(points, 36);  // nine fields' rows of each site number join one site
    }
    // A clone carries every site and point, and walks over fields see them.
    const long all = lot->TotalPoints(nullptr, true);
    EXPECT_EQ(all, 2 * 36);
    std::shared_ptr<cLot> copy = lot->clone();
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->TotalPoints(nullptr, true), all);
    for (cWafer* w : copy->Wafers()) {
        EXPECT_EQ(w->SitesWafer().Count(), 4);
        EXPECT_EQ(w->Fields().At(1)->sites().Count(), 4);
    }
}

TEST_F(DataWorkbook, ImproperDataSheetsAreRefused) {
    SampleSpec shape;
    shape.wafers = 1;
    SampleTables t = MakeSampleTables(shape);
    SampleTables narrow = t;
    narrow.data = Datam(5, 1, 0, 0);
    narrow.data(0, 1) = "Wafer";
    for (int r = 1; r <= 5; ++r) narrow.data(r, 1) = static_cast<int32_t>(1);
    std::string path = saveTables(narrow, (dir / "Narrow.xlsx").string());
    std::shared_ptr<cLot> lot;
    EXPECT_FALSE(load(path, lot).ok());
    EXPECT_NE(Boxes().find("Improper worksheet setup. Only 2 columns of data."), std::string::npos) << Boxes();

    SampleTables noHead = t;
    for (int c = 1; c <= 4; ++c) noHead.data(0, c) = "Col" + std::to_string(c);
    path = saveTables(noHead, (dir / "NoHead.xlsx").string());
    rep.boxes.clear();
    EXPECT_FALSE(load(path, lot).ok());
    EXPECT_NE(Boxes().find("This is not a proper format data sheet."), std::string::npos) << Boxes();
}

TEST_F(DataWorkbook, LoadShowsItsStepsAndProgressEveryHundredRows) {
    SampleSpec shape;
    shape.wafers = 2;
    shape.fieldsX = shape.fieldsY = 5;  // 2 x 25 fields x 4 sites = 200 rows
    std::string path = save(shape, "Progress");
    CaptureReporter st;
    SetReporter(&st);
    std::shared_ptr<cLot> lot;
    Status loaded = GetExcelWBLot(path, {}, lot);
    SetReporter(&rep);
    ASSERT_TRUE(loaded.ok()) << loaded.failure().message();
    auto at = [&](const std::string& t) {
        for (size_t i = 0; i < st.statuses.size(); ++i)
            if (st.statuses[i] == t) return static_cast<long>(i);
        return -1L;
    };
    long loading = at(VersionLine() + ": Loading 201 lines of data..."),
         uploaded = at(VersionLine() + ": Data Uploaded");
    long get = at("Get Progress data..."), first = at("    Zorv Data Upload row 1 of 200"),
         hundred = at(": Zorv Data Upload: row 100 of 200"), fields = at("Set up Field exposure display values."),
         done = at("... Upload complete");
    EXPECT_GE(get, 0);
    EXPECT_GT(loading, get);
    EXPECT_GT(uploaded, loading);
    EXPECT_GT(first, uploaded);
    EXPECT_GT(hundred, first);
    EXPECT_GT(fields, hundred);
    EXPECT_GT(done, fields);
}
