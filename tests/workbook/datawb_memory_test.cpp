// What a loaded lot keeps of its workbook: no parsed cells. The rows of a
// sheet streamed without loading it, against the loaded sheet and against
// cells known by construction; the data sheet after a load, re-read and
// copied unchanged by a save.
#include <gtest/gtest.h>
#include <zip.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/report.h"
#include "common/capture_reporter.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"
#include "workbook_test_util.h"

namespace fs = std::filesystem;
using namespace zorv;
using zorv::testing::CaptureReporter;
using zorv::testing::FreshDir;
using zorv::testing::MakeZip;
using zorv::testing::kCT;
using zorv::testing::kRootRels;

namespace {



struct PartStat {
    uint64_t compSize = 0;
    uint32_t crc = 0;
    bool found = false;
};

PartStat StatPart(const std::string& path, const std::string& part) {
    PartStat out;
    int err = 0;
    zip_t* z = zip_open(path.c_str(), ZIP_RDONLY, &err);
    if (!z) return out;
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat(z, part.c_str(), 0, &st) == 0) {
        out.compSize = st.comp_size;
        out.crc = st.crc;
        out.found = true;
    }
    zip_close(z);
    return out;
}

// The largest worksheet part of the archive: the data sheet of a sample.
std::string LargestSheetPart(const std::string& path) {
    int err = 0;
    zip_t* z = zip_open(path.c_str(), ZIP_RDONLY, &err);
    if (!z) return {};
    std::string best;
    uint64_t size = 0;
    for (zip_int64_t i = 0; i < zip_get_num_entries(z, 0); ++i) {
        zip_stat_t st;
        zip_stat_init(&st);
        if (zip_stat_index(z, static_cast<zip_uint64_t>(i), 0, &st) != 0) continue;
        std::string n = st.name;
        if (n.starts_with("xl/worksheets/sheet") && st.size > size) {
            size = st.size;
            best = n;
        }
    }
    zip_close(z);
    return best;
}

// Same type and same content, strings by their text.
::testing::AssertionResult SameValue(const Value& a, const Value& b) {
    if (a.type() != b.type()) return ::testing::AssertionFailure() << "types differ: '" << a.toString() << "' vs '" << b.toString() << "'";
    if (a.isString() ? a.str() != b.str() : !a.identical(b))
        return ::testing::AssertionFailure() << "'" << a.toString() << "' vs '" << b.toString() << "'";
    return ::testing::AssertionSuccess();
}

void ExpectSameTable(const Datam& a, const Datam& b) {
    ASSERT_EQ(a.rowCount(), b.rowCount());
    ASSERT_EQ(a.colCount(), b.colCount());
    int bad = 0;
    for (int r = a.rowLb(); r <= a.rowUb() && bad < 5; ++r)
        for (int c = a.colLb(); c <= a.colUb() && bad < 5; ++c) {
            auto same = SameValue(a(r, c), b(r - a.rowLb() + b.rowLb(), c - a.colLb() + b.colLb()));
            if (!same) {
                ADD_FAILURE() << "row " << r << " column " << c << ": " << same.message();
                ++bad;
            }
        }
}

// The rows a walk hands over, laid out as a table from (1, 1) over the area.
Datam TableOfRows(Worksheet& ws, const Area& a, Status* st = nullptr) {
    Datam t(a.rows(), a.cols(), 1, 1);
    int lastSeen = 0;
    bool ordered = true;
    Status s = ws.forEachRow([&](int row, const Value* cells, int count) {
        if (row <= lastSeen) ordered = false;
        lastSeen = row;
        bool any = false;
        for (int c = 0; c < count; ++c) any = any || !cells[c].isEmpty();
        EXPECT_TRUE(any) << "row " << row << " was handed over without a value";
        EXPECT_FALSE(cells[count - 1].isEmpty()) << "row " << row << " counts past its last value";
        for (int c = 1; c <= count; ++c)
            if (row >= a.row1 && row <= a.row2 && c >= a.col1 && c <= a.col2) t(row - a.row1 + 1, c - a.col1 + 1) = cells[c - 1];
        return true;
    });
    EXPECT_TRUE(ordered);
    if (st) *st = s;
    return t;
}

const char* kWbRels =
    "<?xml version=\"1.0\"?><Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
    "<Relationship Id=\"rId1\" Type=\"http://schemas.openxmlformats.org/officeDocument/2006/relationships/worksheet\" "
    "Target=\"worksheets/sheet1.xml\"/>"
    "<Relationship Id=\"rId2\" Type=\"http://schemas.openxmlformats.org/officeDocument/2006/relationships/sharedStrings\" "
    "Target=\"sharedStrings.xml\"/></Relationships>";
const char* kWorkbook =
    "<?xml version=\"1.0\"?><workbook xmlns=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\" "
    "xmlns:r=\"http://schemas.openxmlformats.org/officeDocument/2006/relationships\"><sheets>"
    "<sheet name=\"Data\" sheetId=\"1\" r:id=\"rId1\"/></sheets></workbook>";
const char* kSst =
    "<?xml version=\"1.0\"?><sst xmlns=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\" count=\"2\" uniqueCount=\"2\">"
    "<si><t>alpha</t></si><si><r><t>be</t></r><r><t>ta</t></r></si></sst>";

void MakeSheetZip(const std::string& path, const std::string& sheetData, const std::string& dimension = "") {
    std::string sheet =
        "<?xml version=\"1.0\"?><worksheet xmlns=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\">" +
        (dimension.empty() ? std::string() : "<dimension ref=\"" + dimension + "\"/>") + "<sheetData>" + sheetData +
        "</sheetData></worksheet>";
    MakeZip(path, {{"[Content_Types].xml", kCT},
                   {"_rels/.rels", kRootRels},
                   {"xl/workbook.xml", kWorkbook},
                   {"xl/_rels/workbook.xml.rels", kWbRels},
                   {"xl/sharedStrings.xml", kSst},
                   {"xl/worksheets/sheet1.xml", sheetData.empty() ? std::string() : sheet}});
}

// Gaps between cells, shared and inline strings, a row with a style alone, a
// blank row, cells without references, booleans, errors, a formula's value.
const char* kMixedRows =
    "<row r=\"1\"><c r=\"A1\" t=\"s\"><v>0</v></c><c r=\"C1\"><v>2.5</v></c></row>"
    "<row r=\"2\"><c r=\"B2\" s=\"0\"/></row>"
    "<row r=\"4\"><c r=\"B4\" t=\"inlineStr\"><is><t>in line</t></is></c><c r=\"E4\" t=\"s\"><v>1</v></c></row>"
    "<row r=\"5\"></row>"
    "<row r=\"7\"><c t=\"b\"><v>1</v></c><c><v>-3</v></c><c t=\"e\"><v>#DIV/0!</v></c>"
    "<c r=\"F7\" t=\"str\"><f>A1</f><v>alpha</v></c></row>"
    "<row r=\"9\"><c r=\"D9\"><v>1e3</v></c></row>";

}  // namespace

TEST(SheetRowStream, GivesTheRowsOfTheSheetWithoutLoadingIt) {
    fs::path dir = FreshDir(std::string("datawb_memory_") + "mixed");
    std::string path = (dir / "mixed.xlsx").string();
    MakeSheetZip(path, kMixedRows, "A1:F9");

    auto lazy = Workbook::open(path, Workbook::Load::Lazy);
    ASSERT_TRUE(lazy) << lazy.failure().message();
    Worksheet& ws = *(*lazy)->sheet("Data");
    std::vector<int> rows;
    std::vector<std::vector<Value>> cells;
    Status st = ws.forEachRow([&](int row, const Value* c, int n) {
        rows.push_back(row);
        cells.emplace_back(c, c + n);
        return true;
    });
    ASSERT_TRUE(st) << st.failure().message();
    EXPECT_FALSE(ws.loaded()) << "streaming does not load the sheet";
    // By construction: rows 1, 4, 7 and 9 have values; 2 (a style), 3, 5, 6, 8 none.
    ASSERT_EQ(rows, (std::vector<int>{1, 4, 7, 9}));
    ASSERT_EQ(cells[0].size(), 3u);
    EXPECT_EQ(cells[0][0].str(), "alpha");
    EXPECT_TRUE(cells[0][1].isEmpty());
    EXPECT_EQ(cells[0][2].toDouble(), 2.5);
    ASSERT_EQ(cells[1].size(), 5u);
    EXPECT_TRUE(cells[1][0].isEmpty());
    EXPECT_EQ(cells[1][1].str(), "in line");
    EXPECT_EQ(cells[1][4].str(), "beta");
    ASSERT_EQ(cells[2].size(), 6u);
    EXPECT_TRUE(cells[2][0].isBool());
    EXPECT_TRUE(cells[2][0].toBool());
    EXPECT_EQ(cells[2][1].toDouble(), -3);
    EXPECT_EQ(cells[2][2].errorCode(), xlErrDiv0);
    EXPECT_EQ(cells[2][5].str(), "alpha");
    ASSERT_EQ(cells[3].size(), 4u);
    EXPECT_EQ(cells[3][3].toDouble(), 1000);

    // The same cells as the loaded sheet's used range, and as a walk of the
    // loaded sheet.
    auto full = Workbook::open(path);
    ASSERT_TRUE(full);
    Worksheet& loaded = *(*full)->sheet("Data");
    const Area used = loaded.usedArea();
    Datam streamed = TableOfRows(ws, used);
    ExpectSameTable(streamed, loaded.usedRange());
    ExpectSameTable(TableOfRows(loaded, used), loaded.usedRange());
    EXPECT_FALSE(ws.loaded());
}

TEST(SheetRowStream, StopsWhenAskedAndWalksAChangedSheet) {
    fs::path dir = FreshDir(std::string("datawb_memory_") + "stop");
    std::string path = (dir / "stop.xlsx").string();
    MakeSheetZip(path, kMixedRows, "A1:F9");
    auto r = Workbook::open(path, Workbook::Load::Lazy);
    ASSERT_TRUE(r);
    Worksheet& ws = *(*r)->sheet("Data");
    std::vector<int> rows;
    ASSERT_TRUE(ws.forEachRow([&](int row, const Value*, int) {
        rows.push_back(row);
        return row < 4;
    }));
    EXPECT_EQ(rows, (std::vector<int>{1, 4}));

    ws.setCell(3, 2, "new");
    ws.setCell(7, 1, Value());
    EXPECT_FALSE(ws.declaredArea()) << "a changed sheet declares nothing";
    rows.clear();
    std::vector<int> widths;
    ASSERT_TRUE(ws.forEachRow([&](int row, const Value*, int n) {
        rows.push_back(row);
        widths.push_back(n);
        return true;
    }));
    EXPECT_EQ(rows, (std::vector<int>{1, 3, 4, 7, 9}));
    EXPECT_EQ(widths, (std::vector<int>{3, 2, 5, 6, 4}));
}

TEST(SheetRowStream, ALargeSheetStreamsAsItLoads) {
    // Large enough for the inflate to run on its own thread.
    fs::path dir = FreshDir(std::string("datawb_memory_") + "large");
    std::string path = (dir / "large.xlsx").string();
    std::string xml;
    const int n = 150000;
    for (int r = 1; r <= n; ++r) {
        xml += "<row r=\"" + std::to_string(r) + "\">";
        if (r % 7 == 0) {
            xml += "</row>";
            continue;
        }
        xml += "<c r=\"A" + std::to_string(r) + "\" t=\"s\"><v>" + std::to_string(r % 2) + "</v></c>";
        xml += "<c r=\"B" + std::to_string(r) + "\"><v>" + std::to_string(r * 0.25) + "</v></c>";
        if (r % 3 == 0) xml += "<c r=\"D" + std::to_string(r) + "\" t=\"inlineStr\"><is><t>x" + std::to_string(r) + "</t></is></c>";
        xml += "</row>";
    }
    MakeSheetZip(path, xml, "A1:D" + std::to_string(n));
    auto lazy = Workbook::open(path, Workbook::Load::Lazy);
    ASSERT_TRUE(lazy);
    Worksheet& ws = *(*lazy)->sheet("Data");
    auto declared = ws.declaredArea();
    ASSERT_TRUE(declared);
    auto full = Workbook::open(path);
    ASSERT_TRUE(full);
    Worksheet& loaded = *(*full)->sheet("Data");
    const Area used = loaded.usedArea();
    EXPECT_EQ(declared->row2, used.row2);
    EXPECT_EQ(declared->col2, used.col2);
    Status st = StatusOk();
    Datam streamed = TableOfRows(ws, used, &st);
    ASSERT_TRUE(st) << st.failure().message();
    ExpectSameTable(streamed, loaded.usedRange());
    EXPECT_EQ(streamed(n, 4).str(), "x" + std::to_string(n));  // 150000: a multiple of 3, not of 7
    EXPECT_FALSE(ws.loaded());
}

TEST(SheetRowStream, ADamagedPartFailsAsItsLoadDoes) {
    fs::path dir = FreshDir(std::string("datawb_memory_") + "damaged");
    std::string path = (dir / "damaged.xlsx").string();
    MakeSheetZip(path, "<row r=\"1\"><c r=\"A1\"><v>1</v></c></row><row r=\"2\"><c r=\"A2\" t=\"s\"><v>9</v></c></row>", "A1:A2");
    auto lazy = Workbook::open(path, Workbook::Load::Lazy);
    ASSERT_TRUE(lazy);
    Worksheet& ws = *(*lazy)->sheet("Data");
    int seen = 0;
    Status streamed = ws.forEachRow([&](int, const Value*, int) { return ++seen > 0; });
    ASSERT_FALSE(streamed);
    EXPECT_EQ(seen, 1);
    Status load = ws.load();
    ASSERT_FALSE(load);
    EXPECT_EQ(streamed.failure().text, load.failure().text);
}

TEST(SheetRowStream, DeclaredAreaOnlyWhenPlausible) {
    fs::path dir = FreshDir(std::string("datawb_memory_") + "declared");
    std::string path = (dir / "d.xlsx").string();
    for (const char* dim : {"", "A1", "B1:A2", "nonsense"}) {
        MakeSheetZip(path, kMixedRows, dim);
        auto r = Workbook::open(path, Workbook::Load::Lazy);
        ASSERT_TRUE(r);
        EXPECT_FALSE((*r)->sheet("Data")->declaredArea()) << dim;
    }
    MakeSheetZip(path, kMixedRows, "A1:F9");
    auto r = Workbook::open(path, Workbook::Load::Lazy);
    ASSERT_TRUE(r);
    Worksheet& ws = *(*r)->sheet("Data");
    auto a = ws.declaredArea();
    ASSERT_TRUE(a);
    EXPECT_EQ(a->row1, 1);
    EXPECT_EQ(a->col1, 1);
    EXPECT_EQ(a->row2, 9);
    EXPECT_EQ(a->col2, 6);
    EXPECT_FALSE(ws.loaded());
    (void)ws.cell(1, 1);
    EXPECT_FALSE(ws.declaredArea()) << "a loaded sheet has its used area";
}

static cPoint* FirstPoint(const cLot& lot) {
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields())
            for (cSite* s : f->sites())
                for (cPoint* p : s->Points()) return p;
    return nullptr;
}

class DataWorkbookMemory : public ::testing::Test {
protected:
    void SetUp() override {
        dir = FreshDir(std::string("datawb_memory_") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        rep.answer = vbNo;
        SetReporter(&rep);
        Workbooks::CloseAll();
    }
    void TearDown() override {
        Workbooks::CloseAll();
        SetReporter(nullptr);
    }
    std::string save(const std::string& name) {
        SampleSpec shape;
        shape.wafers = 3;
        shape.fieldsX = shape.fieldsY = 5;
        shape.sitesX = shape.sitesY = 3;
        shape.values = 4;
        shape.blankEvery = 11;
        shape.dataTable = name;
        shape.workbookPath = (dir / (name + ".xlsx")).string();
        SampleTables t = MakeSampleTables(shape);
        t.information(infoWorkBookPath, 1) = shape.workbookPath;
        Result<std::string> saved = SaveData(t.data, t.excluded, t.sites, t.information);
        EXPECT_TRUE(saved.ok()) << saved.failure().message();
        Workbooks::CloseAll();
        return saved.ok() ? *saved : std::string();
    }
    fs::path dir;
    CaptureReporter rep;
};

TEST_F(DataWorkbookMemory, ALoadedLotKeepsNoParsedCells) {
    const std::string path = save("Mem1");
    std::shared_ptr<cLot> lot;
    WBLotTables t;
    Status st = GetExcelWBLot(path, {}, lot, &t);
    ASSERT_TRUE(st) << st.failure().message();
    ASSERT_TRUE(t.workbook);
    EXPECT_EQ(t.workbook, lot->xlwb);
    for (int i = 1; i <= t.workbook->sheetCount(); ++i)
        EXPECT_FALSE(t.workbook->sheet(i)->loaded()) << t.workbook->sheet(i)->name();
    // The other sheets still read, parsed again on access.
    EXPECT_EQ(t.workbook->sheet("Information")->cell(1, 1).str(), "Data Type");
    EXPECT_EQ(t.workbook->sheet("Sites")->cell(1, 1).str(), "Sites");
}

TEST_F(DataWorkbookMemory, TheDataSheetReadsTheSameAfterTheLoad) {
    const std::string path = save("Mem2");
    Datam before;
    {
        auto fresh = Workbook::open(path);
        ASSERT_TRUE(fresh) << fresh.failure().message();
        before = (*fresh)->sheet("Mem2")->usedRange();
    }
    ASSERT_GT(before.rowCount(), 600);
    std::shared_ptr<cLot> lot;
    WBLotTables t;
    ASSERT_TRUE(GetExcelWBLot(path, {}, lot, &t));
    Worksheet* ws = t.workbook->sheet(t.sheetName);
    ASSERT_TRUE(ws);
    EXPECT_FALSE(ws->loaded());
    ExpectSameTable(ws->usedRange(), before);
    EXPECT_TRUE(ws->loaded());
}

TEST_F(DataWorkbookMemory, AResultSheetSavedCopiesTheDataSheetUnchanged) {
    const std::string path = save("Mem3");
    const std::string part = LargestSheetPart(path);
    ASSERT_FALSE(part.empty());
    const PartStat before = StatPart(path, part);
    ASSERT_TRUE(before.found);
    std::shared_ptr<cLot> lot;
    WBLotTables t;
    ASSERT_TRUE(GetExcelWBLot(path, {}, lot, &t));
    const Datam result = Datam::fromRows({{"Wafer", "Mean"}, {"W1", 1.25}, {"W2", 2.5}}, 1, 1);
    Status saved = SaveArray(result, "Result", t.workbook.get());
    ASSERT_TRUE(saved) << saved.failure().message();
    EXPECT_FALSE(t.workbook->sheet(t.sheetName)->loaded()) << "the save does not parse the data sheet";
    const PartStat after = StatPart(path, part);
    ASSERT_TRUE(after.found) << part;
    EXPECT_EQ(after.compSize, before.compSize);
    EXPECT_EQ(after.crc, before.crc);

    // The saved file, read fresh: the result, and a lot as before.
    Workbooks::CloseAll();
    auto back = Workbook::open(path);
    ASSERT_TRUE(back) << back.failure().message();
    Worksheet* res = (*back)->sheet("Result");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->cell(2, 1).str(), "W1");
    EXPECT_DOUBLE_EQ(res->cell(3, 2).toDouble(), 2.5);
    std::shared_ptr<cLot> again;
    ASSERT_TRUE(GetExcelWBLot(path, {}, again));
    EXPECT_EQ(again->Wafers().Count(), lot->Wafers().Count());
}

TEST_F(DataWorkbookMemory, TwoLotsOfOneWorkbookStayApart) {
    const std::string path = save("Mem4");
    std::shared_ptr<cLot> a, b;
    WBLotTables ta, tb;
    ASSERT_TRUE(GetExcelWBLot(path, {}, a, &ta));
    ASSERT_TRUE(GetExcelWBLot(path, {}, b, &tb));
    ASSERT_NE(a, b);
    EXPECT_EQ(ta.workbook, tb.workbook) << "the open workbook is shared";
    cPoint* pa = FirstPoint(*a);
    cPoint* pb = FirstPoint(*b);
    ASSERT_TRUE(pa && pb);
    ASSERT_NE(pa, pb);
    const float was = pb->ValueV;
    EXPECT_EQ(pa->ValueV, was);
    pa->ValueV = was + 1000;
    a->Wafers().At(1)->KeyName = "Changed";
    EXPECT_EQ(pb->ValueV, was);
    EXPECT_NE(b->Wafers().At(1)->KeyName, "Changed");
    // The workbook both hold still reads as the file.
    EXPECT_GT(tb.workbook->sheet("Mem4")->usedRange().rowCount(), 600);
}
