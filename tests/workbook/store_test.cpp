// The workbook store: the model, the .xlsx round trip, lazy sheets and the
// copy of unchanged parts, and the failures of bad input.
#include <gtest/gtest.h>
#include <zip.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <tuple>

#include "workbook/store.h"
#include "workbook_test_util.h"

namespace fs = std::filesystem;
using namespace zorv;
using zorv::testing::MakeZip;
using zorv::testing::kCT;
using zorv::testing::kRootRels;

namespace {

std::string TmpDir() {
    fs::path p = fs::path(ZORV_TEST_TMP) / "workbook_store";
    fs::create_directories(p);
    return p.string();
}

std::string Tmp(const std::string& name) { return TmpDir() + "/" + name; }

std::string ReadFile(const std::string& p) {
    std::ifstream f(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

void WriteFile(const std::string& p, std::string_view bytes) {
    std::ofstream f(p, std::ios::binary | std::ios::trunc);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

uint64_t Bits(double d) {
    uint64_t u;
    std::memcpy(&u, &d, 8);
    return u;
}


const char* kWbRels =
    "<?xml version=\"1.0\"?><Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
    "<Relationship Id=\"rId1\" Type=\"http://schemas.openxmlformats.org/officeDocument/2006/relationships/worksheet\" "
    "Target=\"worksheets/sheet1.xml\"/></Relationships>";
const char* kWorkbook =
    "<?xml version=\"1.0\"?><workbook xmlns=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\" "
    "xmlns:r=\"http://schemas.openxmlformats.org/officeDocument/2006/relationships\"><sheets>"
    "<sheet name=\"Data\" sheetId=\"1\" r:id=\"rId1\"/></sheets></workbook>";

// A minimal package around one sheet part.
void MakeSheetZip(const std::string& path, const std::string& sheetXml, const std::string& workbookXml = kWorkbook,
                  bool stored = false) {
    MakeZip(path,
            {{"[Content_Types].xml", kCT},
             {"_rels/.rels", kRootRels},
             {"xl/workbook.xml", workbookXml},
             {"xl/_rels/workbook.xml.rels", kWbRels},
             {"xl/worksheets/sheet1.xml", sheetXml}},
            stored);
}

}  // namespace

TEST(WorkbookRefs, AddressesAndRanges) {
    EXPECT_EQ(ColumnLetters(1), "A");
    EXPECT_EQ(ColumnLetters(26), "Z");
    EXPECT_EQ(ColumnLetters(27), "AA");
    EXPECT_EQ(ColumnLetters(16384), "XFD");
    EXPECT_EQ(CellAddress(9, 2, true), "$B$9");
    int r, c;
    EXPECT_TRUE(ParseCellRef("$XFD$1048576", r, c));
    EXPECT_EQ(r, kMaxRows);
    EXPECT_EQ(c, kMaxCols);
    EXPECT_FALSE(ParseCellRef("XFE1", r, c));
    EXPECT_FALSE(ParseCellRef("A0", r, c));

    auto a = ParseRangeRef("=Sheet1!$A$1:$B$9");
    ASSERT_TRUE(a);
    EXPECT_EQ(a->sheet, "Sheet1");
    EXPECT_EQ(a->area.row2, 9);
    EXPECT_EQ(a->area.col2, 2);
    auto q = ParseRangeRef("='It''s data'!C3");
    ASSERT_TRUE(q);
    EXPECT_EQ(q->sheet, "It's data");
    EXPECT_EQ(q->area.row1, 3);
    auto col = ParseRangeRef("Sites!$B:$C");
    ASSERT_TRUE(col);
    EXPECT_EQ(col->area.row2, kMaxRows);
    EXPECT_EQ(col->area.col1, 2);
    EXPECT_FALSE(ParseRangeRef("=Sheet1!#REF!"));

    EXPECT_EQ(FormatRangeRef("Sheet1", Area{1, 1, 9, 2}), "=Sheet1!$A$1:$B$9");
    EXPECT_EQ(FormatRangeRef("My data", Area{2, 3, 2, 3}), "='My data'!$C$2");
    EXPECT_EQ(FormatRangeRef("It's", Area{1, 2, kMaxRows, 2}), "='It''s'!$B:$B");
    EXPECT_EQ(FormatRangeRef("A1", Area{1, 1, 1, 1}), "='A1'!$A$1");
    auto back = ParseRangeRef(FormatRangeRef("It's", Area{4, 5, 6, 7}));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->sheet, "It's");
    EXPECT_EQ(back->area.col2, 7);
}

TEST(WorkbookModel, SheetsNamesAndRenames) {
    auto wb = Workbook::create(Tmp("model.xlsx"));
    EXPECT_EQ(wb->sheetNames(), std::vector<std::string>{"Sheet1"});
    EXPECT_NE(wb->addSheet("Data"), nullptr);
    EXPECT_EQ(wb->addSheet("DATA"), nullptr) << "names compare without case";
    EXPECT_EQ(wb->addSheet("a[1]"), nullptr);
    EXPECT_EQ(wb->addSheet(std::string(32, 'x')), nullptr);
    EXPECT_NE(wb->addSheet(std::string(31, 'x')), nullptr);
    EXPECT_NE(wb->addSheet("Sites", 0), nullptr);
    EXPECT_EQ(wb->sheetNames(), (std::vector<std::string>{"Sites", "Sheet1", "Data", std::string(31, 'x')}));
    EXPECT_TRUE(wb->moveSheet("data", 0));
    EXPECT_EQ(wb->sheet(1)->name(), "Data");
    EXPECT_EQ(wb->sheet("sites")->index(), 2);

    EXPECT_TRUE(wb->addName("Measure", "Data!$F$2:$F$9"));
    EXPECT_EQ(*wb->nameRef("MEASURE"), "=Data!$F$2:$F$9");
    EXPECT_TRUE(wb->sheet("Data")->setName("Raw data"));
    EXPECT_EQ(*wb->nameRef("Measure"), "='Raw data'!$F$2:$F$9") << "names follow a renamed sheet";
    EXPECT_FALSE(wb->sheet("Sites")->setName("raw DATA"));
    EXPECT_FALSE(wb->addName("A1", "=Sites!$A$1"));
    EXPECT_FALSE(wb->addName("two words", "=Sites!$A$1"));
    auto rr = wb->nameRange("measure");
    ASSERT_TRUE(rr);
    EXPECT_EQ(rr->sheet, "Raw data");
    EXPECT_EQ(rr->area.row2, 9);

    EXPECT_TRUE(wb->removeSheet("Sheet1"));
    EXPECT_FALSE(wb->removeSheet("Sheet1"));
    EXPECT_TRUE(wb->removeSheet("Raw data"));
    EXPECT_TRUE(wb->removeSheet(std::string(31, 'x')));
    EXPECT_FALSE(wb->removeSheet("Sites")) << "the last sheet stays";
}

TEST(WorkbookModel, CellsRangesAndUsedArea) {
    auto wb = Workbook::create(Tmp("cells.xlsx"));
    Worksheet& ws = *wb->sheet(1);
    EXPECT_TRUE(ws.usedArea().empty());
    EXPECT_FALSE(ws.usedRange().isArray());
    Datam t = Datam::fromRows({{"Wafer", "Test", 1.5}, {Value(), 2, Value(true)}}, 0, 0);
    ws.setRange(3, 2, t);
    EXPECT_EQ(ws.cell(3, 2).str(), "Wafer");
    EXPECT_DOUBLE_EQ(ws.cell(4, 3).toDouble(), 2);
    Area a = ws.usedArea();
    EXPECT_EQ(a.row1, 3);
    EXPECT_EQ(a.col1, 2);
    EXPECT_EQ(a.row2, 4);
    EXPECT_EQ(a.col2, 4);
    Datam u = ws.usedRange();
    EXPECT_EQ(u.rowLb(), 1);
    EXPECT_EQ(u.colLb(), 1);
    EXPECT_EQ(u.rowUb(), 2);
    EXPECT_EQ(u.colUb(), 3);
    EXPECT_TRUE(u(2, 1).isEmpty());
    EXPECT_TRUE(u(2, 3).isBool());
    // A comment counts in the used area, as in the spreadsheet.
    ws.setComment(1, 1, "DATASHEET");
    EXPECT_EQ(ws.usedArea().row1, 1);
    EXPECT_EQ(ws.usedArea().col1, 1);
    // Empty values clear cells
    ws.setRange(3, 2, Datam::fromRows({{Value(), Value()}}));
    EXPECT_TRUE(ws.cell(3, 2).isEmpty());
    // Formats over whole columns stay within the used rows.
    ws.setNumberFormat(Area{1, 3, kMaxRows, 3}, "0.0000");
    EXPECT_EQ(ws.numberFormat(4, 3), "0.0000");
    EXPECT_EQ(ws.numberFormat(4, 2), "General");
    EXPECT_EQ(ws.lastRow(), 4);
    ws.clear();
    EXPECT_EQ(ws.lastRow(), 1) << "the comment stays after Clear";
}

TEST(WorkbookXlsx, RoundTripKeepsEverything) {
    std::string path = Tmp("roundtrip.xlsx");
    fs::remove(path);
    auto wb = Workbook::create(path, "Information");
    Worksheet& info = *wb->sheet(1);
    Worksheet& data = *wb->addSheet("My data");
    std::vector<double> doubles = {0.1, 1.0 / 3, M_PI, -2.5e-300, 5e-324, DBL_MAX, -DBL_MIN, 123456789012345678.0,
                                   1e21, 0.0, -7.0, 100.0, 1e-7};
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> U(-1e6, 1e6);
    for (int i = 0; i < 400; ++i) doubles.push_back(U(rng) / std::pow(10.0, i % 17));
    for (size_t i = 0; i < doubles.size(); ++i) data.setCell(static_cast<int>(i) + 2, 6, doubles[i]);
    data.setCell(1, 2, "Wafer");
    data.setCell(2, 2, "  padded  ");
    data.setCell(3, 2, "line 1\r\nline 2");
    data.setCell(4, 2, "<&> \"quotes\" _x000D_ literal");
    data.setCell(5, 2, "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC");
    data.setCell(6, 2, "Latin-1 \xB5m");
    data.setCell(7, 2, Value(true));
    data.setCell(8, 2, Value(false));
    data.setCell(9, 2, Value::error(xlErrDiv0));
    data.setCell(10, 2, Value::date(45000.0));
    data.setCell(11, 2, Value::date(45000.75));
    data.setCell(12, 2, Value(int32_t(42)));
    data.setCell(13, 2, Value(2.5f));
    data.setCell(14, 2, "tab\there");
    data.setComment(1, 1, "DATASHEET", false);
    data.setComment(2, 1, "roundtrip", true);
    data.setComment(3, 6, "two\r\nlines");
    data.setNumberFormat(Area{2, 6, 20, 6}, "0.0000");
    data.setNumberFormat(Area{2, 7, 2, 7}, "##0.000");
    data.setBold(Area{1, 1, 1, 12});
    data.setAlignment(Area{1, 2, 20, 2}, HAlign::Left);
    data.setAlignment(Area{1, 3, 1, 3}, HAlign::Right);
    data.setNumberFormat(15, 2, "d-mmm-yy");
    data.setCell(15, 2, 45123.0);
    info.setCell(1, 1, "Data Type");
    info.setCell(1, 2, "Overlay");
    info.addHyperlink(2, 1, "#'My data'!A1", "go");
    wb->addName("Measure", "='My data'!$F$2:$F$9");
    wb->addName("Sites_all", "=Information!$A:$B");
    wb->setProperty("Author", "Zorv Wavefront Engineering ver: 5.1.0");
    wb->setProperty("Last author", "Zorv Wavefront Engineering ver: 5.1.0");
    wb->setProperty("Company", "Zorv & Co <test>");
    wb->setProperty("Subject", "Zorv Wavefront Analysis Data");
    wb->activate(&data);
    EXPECT_FALSE(wb->saved());
    ASSERT_TRUE(wb->save()) << wb->save().failure().message();
    EXPECT_TRUE(wb->saved());

    auto r = Workbook::open(path);
    ASSERT_TRUE(r) << r.failure().message();
    Workbook& w2 = **r;
    EXPECT_TRUE(w2.saved());
    EXPECT_EQ(w2.sheetNames(), (std::vector<std::string>{"Information", "My data"}));
    EXPECT_EQ(w2.activeSheet()->name(), "My data");
    Worksheet& d2 = *w2.sheet("My data");
    for (size_t i = 0; i < doubles.size(); ++i) {
        const Value& v = d2.cell(static_cast<int>(i) + 2, 6);
        ASSERT_EQ(v.type(), VType::Double) << i;
        EXPECT_EQ(Bits(v.toDouble()), Bits(doubles[i])) << "row " << i + 2 << " " << doubles[i];
    }
    EXPECT_EQ(d2.cell(1, 2).str(), "Wafer");
    EXPECT_EQ(d2.cell(2, 2).str(), "  padded  ");
    EXPECT_EQ(d2.cell(3, 2).str(), "line 1\r\nline 2");
    EXPECT_EQ(d2.cell(4, 2).str(), "<&> \"quotes\" _x000D_ literal");
    EXPECT_EQ(d2.cell(5, 2).str(), "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC");
    EXPECT_EQ(d2.cell(6, 2).str(), "Latin-1 \xC2\xB5m") << "8-bit text is taken as Latin-1";
    EXPECT_EQ(d2.cell(7, 2).type(), VType::Boolean);
    EXPECT_TRUE(d2.cell(7, 2).toBool());
    EXPECT_FALSE(d2.cell(8, 2).toBool());
    EXPECT_EQ(d2.cell(9, 2).errorCode(), xlErrDiv0);
    EXPECT_EQ(d2.cell(10, 2).type(), VType::Date);
    EXPECT_DOUBLE_EQ(d2.cell(10, 2).toDouble(), 45000.0);
    EXPECT_EQ(d2.cell(11, 2).type(), VType::Date);
    EXPECT_DOUBLE_EQ(d2.cell(11, 2).toDouble(), 45000.75);
    EXPECT_DOUBLE_EQ(d2.cell(12, 2).toDouble(), 42);
    EXPECT_DOUBLE_EQ(d2.cell(13, 2).toDouble(), 2.5);
    EXPECT_EQ(d2.cell(14, 2).str(), "tab\there");
    EXPECT_EQ(d2.cell(15, 2).type(), VType::Date) << "a number with a date format reads as a date";
    EXPECT_EQ(d2.numberFormat(15, 2), "d-mmm-yy");
    EXPECT_EQ(d2.numberFormat(5, 6), "0.0000");
    EXPECT_EQ(d2.numberFormat(2, 7), "##0.000");
    EXPECT_TRUE(d2.bold(1, 5));
    EXPECT_FALSE(d2.bold(2, 5));
    EXPECT_EQ(d2.alignment(3, 2), HAlign::Left);
    EXPECT_EQ(d2.alignment(1, 3), HAlign::Right);
    ASSERT_NE(d2.comment(1, 1), nullptr);
    EXPECT_EQ(d2.comment(1, 1)->text, "DATASHEET");
    EXPECT_FALSE(d2.comment(1, 1)->visible);
    EXPECT_TRUE(d2.comment(2, 1)->visible);
    EXPECT_EQ(d2.comment(3, 6)->text, "two\r\nlines");
    EXPECT_EQ(d2.comments().size(), 3u);
    auto links = w2.sheet("Information")->hyperlinks();
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(links[0].location, "'My data'!A1");
    EXPECT_EQ(links[0].row, 2);
    EXPECT_EQ(*w2.nameRef("measure"), "='My data'!$F$2:$F$9");
    EXPECT_EQ(w2.nameRange("Sites_all")->area.col2, 2);
    EXPECT_EQ(w2.property("Author"), "Zorv Wavefront Engineering ver: 5.1.0");
    EXPECT_EQ(w2.property("Last author"), "Zorv Wavefront Engineering ver: 5.1.0");
    EXPECT_EQ(w2.property("Company"), "Zorv & Co <test>");
    EXPECT_EQ(w2.property("Subject"), "Zorv Wavefront Analysis Data");
}

TEST(WorkbookXlsx, UnchangedSheetsAreCopiedAsTheyStand) {
    std::string path = Tmp("copy.xlsx");
    fs::remove(path);
    {
        auto wb = Workbook::create(path, "Big");
        Datam t(3000, 12, 1, 1);
        for (int r = 1; r <= 3000; ++r)
            for (int c = 1; c <= 12; ++c) t(r, c) = (c == 1) ? Value(std::string(1, 'W').append(std::to_string(r % 25))) : Value(r * 0.001 + c);
        wb->sheet(1)->setRange(1, 1, t);
        wb->sheet(1)->setComment(1, 1, "DATASHEET");
        wb->addSheet("Small")->setCell(1, 1, "x");
        ASSERT_TRUE(wb->save());
    }
    auto stat = [](const std::string& p, const char* part, zip_stat_t& st) {
        int err = 0;
        zip_t* z = zip_open(p.c_str(), ZIP_RDONLY, &err);
        ASSERT_NE(z, nullptr);
        zip_stat_init(&st);
        ASSERT_EQ(zip_stat(z, part, 0, &st), 0) << part;
        zip_close(z);
    };
    zip_stat_t before;
    stat(path, "xl/worksheets/sheet1.xml", before);

    auto r = Workbook::open(path, Workbook::Load::Lazy);
    ASSERT_TRUE(r);
    Workbook& wb = **r;
    EXPECT_FALSE(wb.sheet("Big")->loaded());
    Worksheet* res = wb.addSheet("Result");
    res->setRange(1, 1, Datam::fromRows({{"a", 1.0}, {"W3", 2.0}}, 1, 1));
    wb.sheet("Small")->setCell(2, 2, 5.0);
    auto saved = wb.save();
    ASSERT_TRUE(saved) << saved.failure().message();
    EXPECT_FALSE(wb.sheet("Big")->loaded()) << "saving does not read an unchanged sheet";
    zip_stat_t after;
    stat(path, "xl/worksheets/sheet1.xml", after);
    EXPECT_EQ(after.comp_size, before.comp_size);
    EXPECT_EQ(after.crc, before.crc);

    // The copied sheet still reads right against the extended string table.
    auto r2 = Workbook::open(path);
    ASSERT_TRUE(r2) << r2.failure().message();
    Worksheet& big = *(*r2)->sheet("Big");
    EXPECT_EQ(big.cell(3000, 1).str(), "W0");
    EXPECT_DOUBLE_EQ(big.cell(3000, 12).toDouble(), 3000 * 0.001 + 12);
    EXPECT_EQ(big.comment(1, 1)->text, "DATASHEET");
    EXPECT_EQ((*r2)->sheet("Result")->cell(2, 1).str(), "W3");
    EXPECT_EQ((*r2)->sheet("Small")->cell(2, 2).toDouble(), 5.0);
    EXPECT_EQ((*r2)->sheetNames(), (std::vector<std::string>{"Big", "Small", "Result"}));

    // Removing and renaming sheets of a lazily opened workbook.
    ASSERT_TRUE((*r2)->removeSheet("Small"));
    ASSERT_TRUE((*r2)->sheet("Big")->setName("Data"));
    (*r2)->sheet("Result")->setNumberFormat(Area{1, 2, 2, 2}, "0.0000");
    ASSERT_TRUE((*r2)->save());
    auto r3 = Workbook::open(path);
    ASSERT_TRUE(r3) << r3.failure().message();
    EXPECT_EQ((*r3)->sheetNames(), (std::vector<std::string>{"Data", "Result"}));
    EXPECT_EQ((*r3)->sheet("Result")->numberFormat(2, 2), "0.0000");
    EXPECT_EQ((*r3)->sheet("Data")->cell(2999, 1).str(), "W24");
}

TEST(WorkbookXlsx, Registry) {
    std::string path = Tmp("registry.xlsx");
    fs::remove(path);
    Workbooks::CloseAll();
    auto wb = Workbooks::Add(path, "Information");
    ASSERT_TRUE(wb->save());
    EXPECT_EQ(Workbooks::Find("REGISTRY.XLSX"), wb);
    auto again = Workbooks::Open(path);
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, wb) << "an open workbook is reused";
    EXPECT_EQ(Workbooks::Count(), 1);
    Workbooks::Close(wb);
    EXPECT_EQ(Workbooks::Find(path), nullptr);
    auto fresh = Workbooks::Open(path);
    ASSERT_TRUE(fresh);
    EXPECT_NE(*fresh, wb);
    Workbooks::CloseAll();
}

TEST(WorkbookXlsx, BadInputGivesMessagesAndChangesNothing) {
    auto failText = [](const std::string& p) {
        std::string before = ReadFile(p);
        auto r = Workbook::open(p);
        EXPECT_FALSE(r);
        EXPECT_TRUE(ReadFile(p) == before) << "a failed load changes no file";
        return r ? std::string() : r.failure().message();
    };
    EXPECT_NE(failText(Tmp("missing.xlsx")).find("Cannot find file"), std::string::npos);

    std::string text = Tmp("text.xlsx");
    WriteFile(text, "Wafer,Test\n1,2\n");
    EXPECT_NE(failText(text).find("not an .xlsx workbook"), std::string::npos);

    // A truncated workbook
    std::string good = Tmp("good.xlsx");
    {
        auto wb = Workbook::create(good);
        Datam t(500, 5, 1, 1);
        for (int r = 1; r <= 500; ++r)
            for (int c = 1; c <= 5; ++c) t(r, c) = r * 1.5 + c;
        wb->sheet(1)->setRange(1, 1, t);
        ASSERT_TRUE(wb->save());
    }
    std::string bytes = ReadFile(good);
    std::string cut = Tmp("cut.xlsx");
    WriteFile(cut, bytes.substr(0, bytes.size() / 2));
    std::string m = failText(cut);
    EXPECT_NE(m.find("cut.xlsx"), std::string::npos) << m;
    EXPECT_NE(m.find("truncated"), std::string::npos) << m;

    // A zip bomb: a sheet of 64 MB of blanks in some 60 kB
    std::string bomb = Tmp("bomb.xlsx");
    {
        std::string sheet = "<worksheet xmlns=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\"><sheetData>";
        sheet += std::string(64u << 20, ' ');
        sheet += "</sheetData></worksheet>";
        MakeSheetZip(bomb, sheet);
    }
    m = failText(bomb);
    EXPECT_NE(m.find("'xl/worksheets/sheet1.xml' inflates beyond"), std::string::npos) << m;
    EXPECT_NE(m.find("bomb.xlsx"), std::string::npos) << m;
    fs::remove(bomb);

    // Malformed XML names the file, the part and the line
    std::string bad = Tmp("badxml.xlsx");
    MakeSheetZip(bad, "<worksheet><sheetData><row r=\"1\"><c r=\"A1\"><v>1</v></c></row></sheetData></worksheet>",
                 "<?xml version=\"1.0\"?>\n<workbook>\n<sheets>\n<sheet name=\"Data\" sheetId=\"1\" r:id=\"rId1\">\n</sheets></workbook>");
    m = failText(bad);
    EXPECT_NE(m.find("badxml.xlsx"), std::string::npos) << m;
    EXPECT_NE(m.find("'xl/workbook.xml'"), std::string::npos) << m;
    EXPECT_NE(m.find("line 5"), std::string::npos) << m;

    MakeSheetZip(bad, "<worksheet><sheetData>\n<row r=\"1\"><c r=\"A1\"><v>1</v></c></row>\n<row r=\"2\"><c r=\"A2\" t=\"s\"><v>7</v></c></row></sheetData></worksheet>");
    m = failText(bad);
    EXPECT_NE(m.find("sheet 'Data'"), std::string::npos) << m;
    EXPECT_NE(m.find("shared string"), std::string::npos) << m;
    EXPECT_NE(m.find("line 3"), std::string::npos) << m;

    MakeSheetZip(bad, "<worksheet><sheetData><row r=\"1\"><c r=\"A1\"><v>1</v></c></row><row r=\"2\"><c r=\"A2\"");
    m = failText(bad);
    EXPECT_NE(m.find("ends"), std::string::npos) << m;

    // A sparse sheet that would need far more memory than its content
    std::string sparse = "<worksheet><sheetData>";
    for (int r = 1; r <= 4000; ++r) sparse += "<row r=\"" + std::to_string(r * 250) + "\"><c r=\"XFD" + std::to_string(r * 250) + "\"><v>1</v></c></row>";
    sparse += "</sheetData></worksheet>";
    MakeSheetZip(bad, sparse);
    m = failText(bad);
    EXPECT_NE(m.find("too sparse"), std::string::npos) << m;
}

// Number texts as other writers leave them, each read back bit for bit as
// the C library's strtod reads it: short decimals, long ones, exponents,
// padding, signs and texts that only look like numbers.
TEST(WorkbookXlsx, NumberTextsReadAsStrtodReadsThem) {
    std::vector<std::string> texts = {"0", "-0", "1", "-4", "1.161", "0.14700000000000002", "00012.500", "1.", ".5",
                                      "-.25", " 7.5 ", "9007199254740992", "9007199254740993", "-9007199254740993.5",
                                      "0.1234567890123456789012", "0.00000000000000000000001", "1e5", "-2.5E-3",
                                      "123456789012345678901234567890", "0.3", "2.675", "1.005"};
    std::mt19937_64 rng(7);
    for (int i = 0; i < 20000; ++i) {
        // a mantissa of 1 to 18 digits with the point anywhere in it
        const int digits = 1 + static_cast<int>(rng() % 18);
        std::string m = std::to_string(rng() % 1000000000000000000ULL);
        m = m.substr(0, static_cast<size_t>(digits));
        const size_t point = rng() % (m.size() + 1);
        std::string t = rng() % 3 == 0 ? "-" : "";
        t.append(m, 0, point);
        if (point < m.size()) t.append(".").append(m, point);
        if (t.back() == '.' || t == "-" || t.empty()) t += "0";
        texts.push_back(t);
    }
    std::string sheet = "<worksheet><sheetData>";
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string r = std::to_string(i + 1);
        sheet += "<row r=\"" + r + "\"><c r=\"A" + r + "\"><v>" + texts[i] + "</v></c></row>";
    }
    sheet += "<row r=\"" + std::to_string(texts.size() + 1) + "\"><c r=\"A" + std::to_string(texts.size() + 1) +
             "\"><v>1.5x</v></c></row></sheetData></worksheet>";
    const std::string path = Tmp("numbers.xlsx");
    MakeSheetZip(path, sheet);
    auto r = Workbook::open(path);
    ASSERT_TRUE(r) << r.failure().message();
    Worksheet& ws = *(*r)->sheet("Data");
    for (size_t i = 0; i < texts.size(); ++i) {
        const Value& v = ws.cell(static_cast<int>(i) + 1, 1);
        ASSERT_EQ(v.type(), VType::Double) << texts[i];
        const double want = std::strtod(texts[i].c_str(), nullptr);
        EXPECT_EQ(Bits(v.toDouble()), Bits(want)) << "'" << texts[i] << "' read as " << v.toDouble();
    }
    EXPECT_EQ(ws.cell(static_cast<int>(texts.size()) + 1, 1).str(), "1.5x") << "not a number: kept as text";
}

// Deflated parts are inflated here and checked against the CRC the archive
// keeps; stored parts read as they stand. A sheet large enough to come in
// many pieces, so that every read of the stream is exercised.
TEST(WorkbookXlsx, SheetPartsReadDeflatedOrStoredAndTheirCrcChecked) {
    std::string sheet = "<worksheet><sheetData>";
    for (int r = 1; r <= 60000; ++r) {
        const std::string n = std::to_string(r);
        sheet += "<row r=\"" + n + "\"><c r=\"A" + n + "\"><v>" + n + "</v></c><c r=\"B" + n + "\"><v>" +
                 std::to_string(r * 7919 % 100003) + ".25</v></c></row>";
    }
    sheet += "</sheetData></worksheet>";
    auto check = [](const std::string& path) {
        auto r = Workbook::open(path);
        ASSERT_TRUE(r) << r.failure().message();
        Worksheet& ws = *(*r)->sheet("Data");
        for (int row : {1, 2, 30000, 59999, 60000}) {
            EXPECT_EQ(ws.cell(row, 1).toDouble(), row);
            EXPECT_EQ(ws.cell(row, 2).toDouble(), row * 7919 % 100003 + 0.25) << row;
        }
    };
    const std::string deflated = Tmp("deflated.xlsx"), stored = Tmp("stored.xlsx");
    MakeSheetZip(deflated, sheet);
    MakeSheetZip(stored, sheet, kWorkbook, true);
    ASSERT_LT(fs::file_size(deflated) * 5, fs::file_size(stored)) << "the first really deflated";
    check(deflated);
    check(stored);

    // The same bytes under a wrong CRC, in the local header and the central
    // directory alike: the sheet fails as damaged, naming file and part.
    std::string bytes = ReadFile(deflated);
    const std::string name = "xl/worksheets/sheet1.xml";
    int patched = 0;
    for (const auto& [sig, crcAt, nameAt] : {std::tuple{std::string("PK\x03\x04", 4), 14, 30},
                                             std::tuple{std::string("PK\x01\x02", 4), 16, 46}}) {
        for (size_t at = bytes.find(sig); at != std::string::npos; at = bytes.find(sig, at + 4)) {
            if (bytes.compare(at + static_cast<size_t>(nameAt), name.size(), name) != 0) continue;
            bytes[at + static_cast<size_t>(crcAt)] ^= 0x5a;
            ++patched;
        }
    }
    ASSERT_EQ(patched, 2);
    const std::string bad = Tmp("badcrc.xlsx");
    WriteFile(bad, bytes);
    auto r = Workbook::open(bad);
    std::string m;
    if (r) {
        Worksheet* ws = (*r)->sheet("Data");
        ASSERT_NE(ws, nullptr);
        Status st = ws->forEachRow([](int, const Value*, int) { return true; });
        ASSERT_FALSE(st) << "a wrong CRC must not pass";
        m = st.failure().message();
    } else {
        m = r.failure().message();
    }
    EXPECT_NE(m.find("badcrc.xlsx"), std::string::npos) << m;
    EXPECT_NE(m.find(name), std::string::npos) << m;
    EXPECT_NE(m.find("CRC"), std::string::npos) << m;
}

TEST(WorkbookXlsx, FailedSaveLeavesTheTargetAlone) {
    std::string src = Tmp("src.xlsx"), dst = Tmp("dst.xlsx");
    {
        auto wb = Workbook::create(src);
        // large enough that the archive is not all in a read buffer
        Datam t(20000, 4, 1, 1);
        for (int i = 1; i <= 20000; ++i)
            for (int c = 1; c <= 4; ++c) t(i, c) = i * 0.37 + c / 7.0;
        wb->sheet(1)->setRange(1, 1, t);
        wb->addSheet("Two")->setCell(1, 1, 2.0);
        ASSERT_TRUE(wb->save());
        auto other = Workbook::create(dst);
        other->sheet(1)->setCell(1, 1, "keep me");
        ASSERT_TRUE(other->save());
    }
    std::string before = ReadFile(dst);
    auto r = Workbook::open(src, Workbook::Load::Lazy);
    ASSERT_TRUE(r);
    (*r)->sheet("Two")->setCell(2, 2, 3.0);  // "Sheet1" stays a copy from the original
    // The original goes bad under the open workbook: the copy must fail.
    fs::resize_file(src, 200);
    auto st = (*r)->saveAs(dst);
    EXPECT_FALSE(st);
    if (!st) {
        EXPECT_NE(st.failure().text.find("Error Saving: " + dst), std::string::npos) << st.failure().text;
    }
    EXPECT_TRUE(ReadFile(dst) == before) << "the target is unchanged";
    // no temporary files left behind
    for (auto& e : fs::directory_iterator(TmpDir()))
        EXPECT_EQ(e.path().filename().string().find("dst.xlsx."), std::string::npos) << e.path();

    auto ro = Workbook::create(Tmp("nowhere/sub/x.xlsx"));
    auto st2 = ro->save();
    EXPECT_FALSE(st2);
    if (!st2) {
        EXPECT_NE(st2.failure().text.find("Error Saving: "), std::string::npos);
    }
}

TEST(WorkbookXlsx, ReadsPrefixesInlineStringsAndLegacyErrors) {
    std::string p = Tmp("prefixed.xlsx");
    std::string sheet =
        "<?xml version=\"1.0\"?>\n<x:worksheet xmlns:x=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\">"
        "<x:dimension ref=\"A1:C2\"/><x:sheetData><x:row r=\"1\"><x:c r=\"A1\" t=\"inlineStr\"><x:is><x:t>Wafer</x:t>"
        "</x:is></x:c><x:c t=\"inlineStr\"><x:is><x:r><x:t>Te</x:t></x:r><x:r><x:t xml:space=\"preserve\">st &amp; more</x:t></x:r>"
        "<x:rPh><x:t>phonetic</x:t></x:rPh></x:is></x:c><x:c><x:v> 2.5 </x:v></x:c></x:row>"
        "<!-- a comment > with a bracket --><x:row><x:c t=\"b\"><x:v>1</x:v></x:c><x:c t=\"e\"><x:v>#N/A</x:v></x:c>"
        "<x:c t=\"str\"><x:f>A1</x:f><x:v>Wafer</x:v></x:c><x:c t=\"d\"><x:v>2024-03-01T12:00:00</x:v></x:c></x:row>"
        "</x:sheetData></x:worksheet>";
    MakeSheetZip(p, sheet);
    auto r = Workbook::open(p);
    ASSERT_TRUE(r) << r.failure().message();
    Worksheet& ws = *(*r)->sheet(1);
    EXPECT_EQ(ws.cell(1, 1).str(), "Wafer");
    EXPECT_EQ(ws.cell(1, 2).str(), "Test & more");
    EXPECT_DOUBLE_EQ(ws.cell(1, 3).toDouble(), 2.5);
    EXPECT_TRUE(ws.cell(2, 1).toBool());
    EXPECT_EQ(ws.cell(2, 2).errorCode(), xlErrNA);
    EXPECT_EQ(ws.cell(2, 3).str(), "Wafer");
    EXPECT_EQ(ws.cell(2, 4).type(), VType::Date);
    EXPECT_DOUBLE_EQ(ws.cell(2, 4).toDouble(), 45352.5);

    // A stray end of row before any row (found by the fuzzer) is no crash.
    MakeSheetZip(p, "<worksheet><sheetData></row><row r=\"1\"><c r=\"A1\"><v>1</v></c></row></sheetData></worksheet>");
    auto stray = Workbook::open(p);
    ASSERT_TRUE(stray) << stray.failure().message();
    EXPECT_DOUBLE_EQ((*stray)->sheet(1)->cell(1, 1).toDouble(), 1.0);

    // An OLE2 file that is no workbook goes to the legacy reader and fails there.
    std::string ole = Tmp("fake.xls");
    std::string bytes("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8);
    bytes += std::string(1000, '\0');
    WriteFile(ole, bytes);
    auto x = Workbook::open(ole);
    ASSERT_FALSE(x);
    EXPECT_NE(x.failure().text.find("fake.xls is not a readable .xls workbook"), std::string::npos) << x.failure().text;
}

TEST(WorkbookXlsx, CommentDrawingsOfCopiedAndNewSheetsDoNotClash) {
    std::string path = Tmp("vml.xlsx");
    fs::remove(path);
    {
        auto wb = Workbook::create(path, "A");
        wb->sheet(1)->setComment(1, 1, "DATASHEET");
        ASSERT_TRUE(wb->save());
    }
    for (int round = 0; round < 2; ++round) {
        auto r = Workbook::open(path, Workbook::Load::Lazy);
        ASSERT_TRUE(r);
        Worksheet* ws = (*r)->addSheet(round == 0 ? "B" : "C");
        ws->setComment(2, 2, "BATCHFILE", round == 1);
        ASSERT_TRUE((*r)->save());
    }
    // Every VML drawing has its own idmap number.
    int err = 0;
    zip_t* z = zip_open(path.c_str(), ZIP_RDONLY, &err);
    ASSERT_NE(z, nullptr);
    std::set<std::string> ids;
    int drawings = 0;
    for (zip_int64_t i = 0; i < zip_get_num_entries(z, 0); ++i) {
        std::string name = zip_get_name(z, static_cast<zip_uint64_t>(i), 0);
        if (name.find(".vml") == std::string::npos) continue;
        ++drawings;
        zip_stat_t st;
        zip_stat_index(z, static_cast<zip_uint64_t>(i), 0, &st);
        std::string text(st.size, '\0');
        zip_file_t* f = zip_fopen_index(z, static_cast<zip_uint64_t>(i), 0);
        zip_fread(f, text.data(), st.size);
        zip_fclose(f);
        size_t d = text.find("data=\"");
        ASSERT_NE(d, std::string::npos);
        ids.insert(text.substr(d + 6, text.find('"', d + 6) - d - 6));
    }
    zip_close(z);
    EXPECT_EQ(drawings, 3);
    EXPECT_EQ(ids.size(), 3u);
    auto r = Workbook::open(path);
    ASSERT_TRUE(r) << r.failure().message();
    EXPECT_EQ((*r)->sheet("A")->comment(1, 1)->text, "DATASHEET");
    EXPECT_FALSE((*r)->sheet("B")->comment(2, 2)->visible);
    EXPECT_TRUE((*r)->sheet("C")->comment(2, 2)->visible);
}
