// Focus/dose spreadsheets: workbooks made here with the store, read by the
// FEM reader and loaded back as a lot; and the text copy of a spreadsheet.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "app/strings.h"
#include "base/regional.h"
#include "base/text.h"
#include "common/capture_reporter.h"
#include "common/comma_locale.h"
#include "import_test_util.h"
#include "lot/lot.h"
#include "readers_fem.h"
#include "workbook/workbook_ops.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

struct SheetRows {
    std::string name;
    std::vector<std::vector<Value>> rows;  // from A1; empty values leave the cell blank
};

void WriteWorkbook(const fs::path& path, const std::vector<SheetRows>& sheets, int activeSheet = 1) {
    WorkbookPtr wb = Workbook::create(path.string(), sheets.front().name);
    for (size_t i = 0; i < sheets.size(); ++i) {
        Worksheet* ws = i == 0 ? wb->sheet(1) : wb->addSheet(sheets[i].name);
        ASSERT_NE(ws, nullptr);
        for (size_t r = 0; r < sheets[i].rows.size(); ++r)
            for (size_t c = 0; c < sheets[i].rows[r].size(); ++c)
                if (!sheets[i].rows[r][c].isEmpty())
                    ws->setCell(static_cast<int>(r) + 1, static_cast<int>(c) + 1, sheets[i].rows[r][c]);
    }
    wb->activate(wb->sheet(activeSheet));
    Status st = wb->save();
    ASSERT_TRUE(st.ok()) << st.failure().message();
}

// One measurement as the test wrote it: field exposure, site, values (nm,
// degrees); a NaN value is a blank cell.
struct Truth {
    std::string wafer, mark, family;
    double xMm, yMm, focusUm, dose, cd, swa, ler;
};

const double kNone = std::nan("");

// Two wafers. CD_W01 is named by its sheet, 3 focus columns by 2 dose rows of
// two sites, with one failed measurement (#N/A) and a note row without a
// mark; CD_W02 names its wafer "Slot7" by a key, puts its columns in another
// order, adds the feature LER and a third site. "Notes" is no data sheet.
struct FemBook {
    std::vector<Truth> rows;
    int excludedSheetRow = 0;

    void write(const fs::path& path) {
        SheetRows notes{"Notes", {{"Free text; this sheet is not read."}, {"Mark", "is", "a word here"}}};
        SheetRows w1{"CD_W01",
                     {{"Lot", "LT42"},
                      {"Device", "DEV7"},
                      {"Layer:", "POLY"},
                      {"MEDIUM DATE", Value::date(DateSerial(2026, 3, 14))},
                      {"MEDIUM TIME", "10:22:05"},
                      {},
                      {"Mark", "FAMILY", "X", "Y", "Diex", "Diey", "Focus", "Dose", "CD (nm)", "SWA (deg)"}}};
        const double focus[] = {-0.1, 0.0, 0.1};
        const double dose[] = {20.0, 22.0};
        int n = 0;
        for (int dy = 0; dy < 2; ++dy)
            for (int dx = 0; dx < 3; ++dx)
                for (int s = 0; s < 2; ++s, ++n) {
                    Truth t{"W01", s ? "B2" : "A1", s ? "DensePack" : "IsoLine", s ? 5.0 : -5.0, s ? -5.0 : 5.0,
                            focus[dx], dose[dy], (s ? 110.0 : 90.0) + 50 * focus[dx] + 2.5 * (dose[dy] - 20) + 0.125 * n,
                            88 + 0.1 * n, kNone};
                    rows.push_back(t);
                    w1.rows.push_back({t.mark, t.family, t.xMm, t.yMm, static_cast<int32_t>(dx),
                                       static_cast<int32_t>(dy), t.focusUm, t.dose, t.cd, t.swa});
                }
        w1.rows.push_back({"A1", "IsoLine", -5.0, 5.0, static_cast<int32_t>(2), static_cast<int32_t>(1), 0.1, 22.0,
                           Value::error(xlErrNA), 85.0});
        excludedSheetRow = static_cast<int>(w1.rows.size());
        w1.rows.push_back({Value(), Value(), Value(), Value(), Value(), Value(), Value(), Value(), 99.0});

        SheetRows w2{"CD_W02",
                     {{"Wafer", "Slot7"},
                      {"Lot", "ignored: the first sheet's lot stands"},
                      {"Dose", "CD [nm]", "Mark", "Diey", "Y", "X", "Focus", "Diex", "FAMILY", "LER (nm)"}}};
        const double f2[] = {-0.05, 0.05};
        for (int dx = 0; dx < 2; ++dx)
            for (int s = 0; s < 2; ++s) {
                Truth t{"Slot7", s ? "C3" : "A1", s ? "Via" : "IsoLine", s ? 0.0 : -5.0, s ? 0.0 : 5.0,
                        f2[dx], 21.0, 100.0 + dx + 10 * s, kNone, 3.5 + 0.25 * dx + s};
                rows.push_back(t);
                w2.rows.push_back({t.dose, t.cd, t.mark, static_cast<int32_t>(0), t.yMm, t.xMm, t.focusUm,
                                   static_cast<int32_t>(dx), t.family, t.ler});
            }
        WriteWorkbook(path, {notes, w1, w2});
    }
};

// The data workbook back as a lot. The data sheet is named after the
// source ("fem_xlsx"), not after the workbook ("fem_Zorv"): the loader finds
// it by its "DATASHEET" comment.
struct Loaded {
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
};
Loaded Load(const std::string& workbook) {
    Loaded r;
    Workbooks::CloseAll();
    LoadOptions o;
    o.quiet = false;
    Status st = GetExcelWBLot(workbook, o, r.lot, &r.tables);
    EXPECT_TRUE(st.ok()) << st.failure().message();
    r.tables.workbook.reset();
    if (r.lot) r.lot->xlwb.reset();
    Workbooks::CloseAll();
    return r;
}

Value InfoValue(const Datam& info, const std::string& key) {
    for (int r = info.rowLb(); r <= info.rowUb(); ++r)
        if (IEquals(info(r, info.colLb()).toString(), key)) return info(r, info.colLb() + 1);
    return Value();
}

std::string UnitOf(const Datam& units, const std::string& variable) {
    for (int r = units.rowLb(); r <= units.rowUb(); ++r)
        if (IEquals(units.get(r, 1).toString(), variable)) return units.get(r, 2).toString();
    return "?";
}

class ExcelFEM : public ::testing::Test {
protected:
    void SetUp() override {
        dir = FreshDir(std::string("excel_fem_") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        Workbooks::CloseAll();
    }
    void TearDown() override { Workbooks::CloseAll(); }

    Result<std::string> run(const fs::path& path, std::vector<std::string> sheets = {}) {
        ImportRequest req;
        req.path = path.string();
        req.description = "Focus/Dose(FEM) spreadsheets";
        req.sheets = std::move(sheets);
        return ImportExcelFEM(req);
    }

    fs::path dir;
    ScopedCapture rep;
};

TEST_F(ExcelFEM, TwoSheetsLoadBackWithTheirValuesUnitsAndFieldExposures) {
    FemBook book;
    book.write(dir / "fem.xlsx");
    const std::string before = ReadBytes(dir / "fem.xlsx");
    Result<std::string> w = run(dir / "fem.xlsx");
    ASSERT_TRUE(w.ok()) << w.failure().message();
    EXPECT_NE(fs::path(*w).filename(), "fem.xlsx") << "the source is never its own data workbook";
    EXPECT_EQ(ReadBytes(dir / "fem.xlsx"), before);
    EXPECT_NE(std::find(rep.statuses.begin(), rep.statuses.end(), "Importing data from worksheet: CD_W02"),
              rep.statuses.end());

    Loaded r = Load(*w);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(lot.ValueV_Name, "CD");
    EXPECT_EQ(lot.ValueH_Name, "SWA");
    EXPECT_EQ(lot.valueZ_Name, "LER");
    EXPECT_EQ(UnitOf(r.tables.units, "CD"), "nm");
    EXPECT_EQ(UnitOf(r.tables.units, "SWA"), "deg");
    EXPECT_EQ(UnitOf(r.tables.units, "LER"), "nm");
    EXPECT_EQ(InfoValue(r.tables.information, "Data Type").toString(), "CDsem");
    EXPECT_EQ(InfoValue(r.tables.information, "Metrologynom").toString(), "CDsem");
    EXPECT_EQ(InfoValue(r.tables.information, "Lot").toString(), "LT42");
    EXPECT_EQ(InfoValue(r.tables.information, "Device").toString(), "DEV7");
    EXPECT_EQ(InfoValue(r.tables.information, "Level").toString(), "POLY");
    double date = 0;
    ASSERT_TRUE(DateExtract(InfoValue(r.tables.information, "Date"), date));
    EXPECT_EQ(date, DateSerial(2026, 3, 14));

    // Every point matches exactly one written row by wafer, exposure and
    // site, and carries its values (x1000) and the field's focus and dose.
    std::multiset<size_t> seen;
    std::map<std::string, std::set<std::pair<float, float>>> fieldsOf;
    lot.forEachLive([&](cWafer& wf, cField& f, cSite& s, cPoint& p) {
        fieldsOf[wf.KeyName].insert({f.DieX, f.DieY});
        size_t hit = book.rows.size();
        for (size_t i = 0; i < book.rows.size(); ++i) {
            const Truth& t = book.rows[i];
            if (t.wafer == wf.KeyName && std::fabs(t.focusUm - f.Focus) < 1e-6 && std::fabs(t.dose - f.Dose) < 1e-5 &&
                t.family == s.FamilyName() && std::fabs(t.xMm * 1000 - s.LocationX) < 1e-3 &&
                std::fabs(t.yMm * 1000 - s.LocationY) < 1e-3) {
                EXPECT_EQ(hit, book.rows.size()) << "two rows fit one point";
                hit = i;
            }
        }
        ASSERT_LT(hit, book.rows.size()) << wf.KeyName << " focus " << f.Focus << " dose " << f.Dose;
        seen.insert(hit);
        const Truth& t = book.rows[hit];
        EXPECT_FLOAT_EQ(p.ValueV, static_cast<float>(t.cd * 1000));
        EXPECT_FLOAT_EQ(p.ValueH, std::isnan(t.swa) ? kMissingValue : static_cast<float>(t.swa * 1000));
        EXPECT_FLOAT_EQ(p.ValueZ, std::isnan(t.ler) ? kMissingValue : static_cast<float>(t.ler * 1000));
    });
    EXPECT_EQ(seen.size(), book.rows.size());
    EXPECT_EQ(std::set<size_t>(seen.begin(), seen.end()).size(), book.rows.size());
    EXPECT_EQ(fieldsOf["W01"].size(), 6u);
    EXPECT_EQ(fieldsOf["Slot7"].size(), 2u);

    // The sites by mark and family, the mark in the site table's first
    // column; the #N/A row on "Excluded" with its sheet row.
    WorkbookPtr out = *Workbook::open(*w);
    Worksheet* sites = out->sheet("Sites");
    ASSERT_NE(sites, nullptr);
    EXPECT_EQ(sites->lastRow(), 4);
    EXPECT_EQ(sites->cell(2, 1).toString(), "A1");
    EXPECT_EQ(sites->cell(3, 1).toString(), "B2");
    EXPECT_EQ(sites->cell(4, 1).toString(), "C3");
    EXPECT_EQ(sites->cell(4, 7).toString(), "Via");
    Worksheet* excluded = out->sheet("Excluded");
    ASSERT_NE(excluded, nullptr);
    Datam x = excluded->usedRange();
    int found = 0;
    for (int rr = 1; rr <= x.rowUb(); ++rr)
        if (x(rr, 1).toString() == std::to_string(book.excludedSheetRow)) {
            ++found;
            EXPECT_EQ(x(rr, 2).toString(), "W01");
        }
    EXPECT_EQ(found, 1) << "the failed measurement, once, with its row of CD_W01";
}

TEST_F(ExcelFEM, SheetsChosenByNameAndTheMessagesWhenNoneIs) {
    FemBook book;
    book.write(dir / "fem.xlsx");
    Result<std::string> w = run(dir / "fem.xlsx", {"cd_w02"});
    ASSERT_TRUE(w.ok()) << w.failure().message();
    Loaded r = Load(*w);
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(r.lot->Wafers().Count(), 1);
    EXPECT_EQ(r.lot->Wafers().Item(1)->KeyName, "Slot7");
    fs::remove(*w);

    const std::string none = "No worksheets in workbook 'fem.xlsx' were selected for import.";
    Result<std::string> unknown = run(dir / "fem.xlsx", {"CD_W09"});
    ASSERT_FALSE(unknown.ok());
    EXPECT_EQ(unknown.failure().tag, "Import(ImportExcelFEM): ");
    EXPECT_TRUE((unknown.failure().text).starts_with(none)) << unknown.failure().text;
    EXPECT_EQ(unknown.failure().file, (dir / "fem.xlsx").string());

    Result<std::string> partly = run(dir / "fem.xlsx", {"CD_W01", "CD_W09"});
    ASSERT_FALSE(partly.ok());
    EXPECT_EQ(partly.failure().sheet, "CD_W09");

    WriteWorkbook(dir / "plain.xlsx", {{"Sheet1", {{"Mark", "CD"}, {"A", 1.0}}}});
    Result<std::string> noCd = run(dir / "plain.xlsx");
    ASSERT_FALSE(noCd.ok());
    EXPECT_TRUE((noCd.failure().text).starts_with("No worksheets in workbook 'plain.xlsx' were selected for import."));
    EXPECT_EQ(WorkbooksIn(dir), 2) << "only the two sources";
}

// Without Diex and Diey a field is placed by its focus (column) and dose
// (row); units in brackets convert positions to mm and focus to um.
TEST_F(ExcelFEM, FieldsFromFocusAndDoseAndUnitsOfPositions) {
    SheetRows s{"CD_Lines", {{"Mark", "X [um]", "Y [um]", "Focus [nm]", "Dose", "CD"}}};
    const double focusNm[] = {100, -100, 0};  // written out of order
    const double dose[] = {24, 20};
    for (double d : dose)
        for (double f : focusNm) s.rows.push_back({"1", 1500.0, -2500.0, f, d, 80 + f / 10 + d});
    WriteWorkbook(dir / "lines.xlsx", {s});
    Result<std::string> w = run(dir / "lines.xlsx");
    ASSERT_TRUE(w.ok()) << w.failure().message();
    Loaded r = Load(*w);
    ASSERT_TRUE(r.lot);
    int n = 0;
    r.lot->forEachLive([&](cWafer& wf, cField& f, cSite& site, cPoint& p) {
        ++n;
        EXPECT_EQ(wf.KeyName, "Lines");
        EXPECT_FLOAT_EQ(site.LocationX, 1500);  // um in the lot
        EXPECT_FLOAT_EQ(site.LocationY, -2500);
        EXPECT_EQ(site.FamilyName(), "IsoLine") << "from the word LINE of the sheet";
        // CD was written as 80 + focus(nm)/10 + dose.
        EXPECT_FLOAT_EQ(p.ValueV, static_cast<float>((80 + f.Focus * 100 + f.Dose) * 1000));
    });
    EXPECT_EQ(n, 6);
    // Columns follow focus and rows follow dose, whatever the centring did.
    std::map<float, std::set<float>> dieXofFocus, dieYofDose;
    r.lot->forEachLive([&](cWafer&, cField& f, cSite&, cPoint&) {
        dieXofFocus[f.Focus].insert(f.DieX);
        dieYofDose[f.Dose].insert(f.DieY);
    });
    ASSERT_EQ(dieXofFocus.size(), 3u);
    ASSERT_EQ(dieYofDose.size(), 2u);
    float last = -1e9f;
    for (auto& [focus, xs] : dieXofFocus) {
        ASSERT_EQ(xs.size(), 1u);
        EXPECT_EQ(*xs.begin(), last == -1e9f ? *xs.begin() : last + 1);
        last = *xs.begin();
    }
    EXPECT_EQ(*dieYofDose[24].begin() - *dieYofDose[20].begin(), 1);
}

// Bad input: a message naming the file and the sheet or row; no workbook
// written; the source as it was.
TEST_F(ExcelFEM, BadInputNamesFileAndSheetAndWritesNothing) {
    struct Case {
        std::string what;
        std::vector<SheetRows> sheets;
        std::string text;  // part of the message
        std::string sheet;
        long row;
    };
    const std::vector<Case> cases = {
        {"no header", {{"CD_A", {{"Lot", "L1"}, {"Site", "CD"}, {"1", 90.0}}}},
         "Worksheet 'CD_A' has no header row with 'Mark'.", "CD_A", 0},
        {"no rows", {{"CD_A", {{"Mark", "CD"}}}, {"CD_B", {{"Mark", "CD"}, {Value(), 5.0}}}},
         std::string(LoadResString(resNoDataRows)) + " (worksheet 'CD_A', 'CD_B')", "CD_A", 0},
        {"text field column", {{"CD_A", {{"Mark", "Diex", "Diey", "CD"}, {"1", 0.0, 0.0, 90.0}, {"1", "two", 0.0, 91.0}}}},
         "Row 3 of worksheet 'CD_A': 'Diex' is not a number.", "CD_A", 3},
        {"empty field row", {{"CD_A", {{"Mark", "Diex", "Diey", "CD"}, {"1", 0.0, Value(), 90.0}}}},
         "Row 2 of worksheet 'CD_A': the field row 'Diey' is empty.", "CD_A", 2},
        {"nothing measured", {{"CD_A", {{"Mark", "X", "Y", "Note"}, {"1", 0.0, 0.0, "fine"}}}},
         "Row 1 of worksheet 'CD_A': no column of measured values.", "CD_A", 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const fs::path src = dir / (Replace(c.what, " ", "_") + ".xlsx");
        WriteWorkbook(src, c.sheets);
        const std::string before = ReadBytes(src);
        const int books = WorkbooksIn(dir);
        Result<std::string> w = run(src);
        ASSERT_FALSE(w.ok());
        EXPECT_TRUE((w.failure().text).starts_with(c.text)) << w.failure().text;
        EXPECT_EQ(w.failure().file, src.string());
        EXPECT_EQ(w.failure().sheet, c.sheet);
        EXPECT_EQ(w.failure().row, c.row);
        EXPECT_EQ(WorkbooksIn(dir), books);
        EXPECT_EQ(ReadBytes(src), before);
    }

    WriteBytes(dir / "text.xlsx", "Mark\tCD\n1\t90\n");
    Result<std::string> notBook = run(dir / "text.xlsx");
    ASSERT_FALSE(notBook.ok());
    EXPECT_EQ(notBook.failure().file, (dir / "text.xlsx").string());
    EXPECT_NE(notBook.failure().message().find("text.xlsx"), std::string::npos);
}

// The sample of docs/tool-formats.md is the one WriteSample makes.
void WriteSample(const fs::path& path) {
    std::vector<SheetRows> sheets;
    sheets.push_back({"Notes", {{"Focus-exposure matrix, poly gate, two wafers."}, {"One CD_ sheet per wafer."}}});
    const char* const wafers[] = {"W01", "W02"};
    for (int w = 0; w < 2; ++w) {
        SheetRows s{std::string("CD_") + wafers[w],
                    {{"Lot", "LT0815"},
                     {"Device", "DEV7"},
                     {"Layer", "POLY"},
                     {"Tool", "CDSEM04"},
                     {"MEDIUM DATE", Value::date(DateSerial(2026, 11, 23))},
                     {"MEDIUM TIME", "10:22:00"},
                     {"Field Size X", 26.0},
                     {"Field Size Y", 33.0},
                     {},
                     {"Mark", "FAMILY", "X", "Y", "Diex", "Diey", "Focus", "Dose", "CD (nm)", "LER (nm)"}}};
        for (int dy = 0; dy < 3; ++dy)
            for (int dx = 0; dx < 5; ++dx) {
                const double focus = -0.2 + 0.1 * dx, dose = 18 + dy;
                for (int site = 0; site < 2; ++site) {
                    const double base = site ? 120 : 90;
                    const double cd = base - 600 * focus * focus * (site ? -1 : 1) - 3 * (dose - 19) + w;
                    s.rows.push_back({site ? "S2" : "S1", site ? "DensePack" : "IsoLine", site ? 5.0 : -5.0,
                                      site ? -5.0 : 5.0, static_cast<int32_t>(dx - 2), static_cast<int32_t>(dy - 1),
                                      focus, dose, std::round(cd * 100) / 100, 3.0 + 0.1 * dx});
                }
            }
        sheets.push_back(s);
    }
    WriteWorkbook(path, sheets);
}

TEST_F(ExcelFEM, SampleWorkbookIsTheGeneratorsAndImports) {
    ASSERT_TRUE(fs::exists(SamplePath("fem_spreadsheet.xlsx")));
    fs::copy_file(SamplePath("fem_spreadsheet.xlsx"), dir / "fem_spreadsheet.xlsx");
    WriteSample(dir / "fresh.xlsx");
    WorkbookPtr a = *Workbook::open((dir / "fem_spreadsheet.xlsx").string());
    WorkbookPtr b = *Workbook::open((dir / "fresh.xlsx").string());
    ASSERT_EQ(a->sheetNames(), b->sheetNames());
    for (int i = 1; i <= a->sheetCount(); ++i) {
        Datam x = a->sheet(i)->usedRange(), y = b->sheet(i)->usedRange();
        ASSERT_EQ(x.rowUb(), y.rowUb());
        ASSERT_EQ(x.colUb(), y.colUb());
        for (int r = 1; r <= x.rowUb(); ++r)
            for (int c = 1; c <= x.colUb(); ++c) EXPECT_TRUE(x(r, c).identical(y(r, c))) << r << "," << c;
    }
    Result<std::string> w = run(dir / "fem_spreadsheet.xlsx");
    ASSERT_TRUE(w.ok()) << w.failure().message();
    Loaded r = Load(*w);
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(r.lot->Wafers().Count(), 2);
    long points = 0;
    r.lot->forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++points; });
    EXPECT_EQ(points, 2 * 15 * 2);
}

// Run once by hand to renew data/samples/fem_spreadsheet.xlsx:
//   test_import --gtest_also_run_disabled_tests --gtest_filter='*WriteSampleWorkbook*'
TEST_F(ExcelFEM, DISABLED_WriteSampleWorkbook) { WriteSample(SamplePath("fem_spreadsheet.xlsx")); }

// ------------------------------------------------------------- XLS2ASCII

std::vector<std::vector<std::string>> Cells(const std::string& text) {
    std::vector<std::vector<std::string>> rows;
    std::string line;
    std::istringstream in(text);
    while (std::getline(in, line)) {
        std::vector<std::string> cells;
        size_t start = 0;
        for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1)
            cells.push_back(line.substr(start, tab - start));
        cells.push_back(line.substr(start));
        rows.push_back(cells);
    }
    return rows;
}

TEST(XLS2ASCII, TheActiveSheetAsTabSeparatedTextBesideTheSource) {
    auto dir = FreshDir("xls2ascii");
    const fs::path src = dir / "Run 7.XLSX";
    {
        WorkbookPtr wb = Workbook::create(src.string(), "First");
        wb->sheet(1)->setCell(1, 1, "not this sheet");
        Worksheet* ws = wb->addSheet("Data");
        ws->setCell(1, 1, "Name");
        ws->setCell(1, 2, 1.5);
        ws->setCell(1, 3, 0.1 + 0.2);
        ws->setCell(1, 4, 1e-7);
        ws->setCell(1, 5, static_cast<int32_t>(-3));
        ws->setCell(1, 6, true);
        ws->setCell(3, 1, "a\tb");
        ws->setCell(3, 2, Value::error(xlErrNA));
        ws->setCell(3, 4, 42.0);
        ws->setCell(4, 2, Value::date(DateSerial(2026, 3, 14)));
        ws->setNumberFormat(4, 2, "d-mmm-yy");
        ws->setCell(4, 3, Value::date(DateSerial(2026, 3, 14, 10, 22, 5)));
        ws->setNumberFormat(4, 3, "[$-409]yyyy-mm-dd hh:mm:ss;@");
        wb->activate(ws);
        ASSERT_TRUE(wb->save().ok());
    }
    const bool comma = UseCommaLocale();
    SetRegionalSeparatorsForTest(',', '.');
    std::string out;
    Status st = XLS2ASCII(src.string(), out);
    SetRegionalSeparatorsForTest('\0', '\0');
    if (comma) RestoreCLocale();
    ASSERT_TRUE(st.ok()) << st.failure().message();
    EXPECT_EQ(out, (dir / "ZORVRun 7.txt").string());
    const auto rows = Cells(ReadBytes(out));
    const std::vector<std::vector<std::string>> want = {
        {"Name", "1.5", "0.30000000000000004", "1e-07", "-3", "TRUE"},
        {""},
        {"a b", "#N/A", "", "42"},
        {"", "14-Mar-26", "2026-03-14 10:22:05"},
    };
    ASSERT_EQ(rows.size(), want.size());
    for (size_t r = 0; r < want.size(); ++r) EXPECT_EQ(rows[r], want[r]) << "row " << r + 1;
    EXPECT_EQ(std::stod(rows[0][2]), 0.1 + 0.2) << "the shortest text reads back to the same double";
    EXPECT_FALSE(fs::exists(out + ".part"));
}

TEST(XLS2ASCII, OtherFilesPassAndAFileThatIsNoWorkbookIsNamed) {
    auto dir = FreshDir("xls2ascii_other");
    EXPECT_TRUE(IsSpreadsheetPath("a.xls"));
    EXPECT_TRUE(IsSpreadsheetPath("B.XLT"));
    EXPECT_TRUE(IsSpreadsheetPath("c.XlSx"));
    EXPECT_FALSE(IsSpreadsheetPath("d.txt"));
    EXPECT_FALSE(IsSpreadsheetPath("xls"));
    EXPECT_FALSE(IsSpreadsheetPath("e.xlsm"));

    WriteBytes(dir / "run.txt", "a b c\n");
    std::string out = "unchanged?";
    ASSERT_TRUE(XLS2ASCII((dir / "run.txt").string(), out).ok());
    EXPECT_EQ(out, (dir / "run.txt").string());
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);

    WriteBytes(dir / "broken.xls", "this is no workbook");
    out.clear();
    Status st = XLS2ASCII((dir / "broken.xls").string(), out);
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().tag, "Import(XLS2ASCII): ");
    EXPECT_EQ(st.failure().file, (dir / "broken.xls").string());
    EXPECT_NE(st.failure().message().find("broken.xls"), std::string::npos);
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(fs::exists(dir / "ZORVbroken.txt"));
}

}  // namespace
}  // namespace zorv
