// Readers of wafer-site data (thermal maps, resistivity) called directly,
// their workbooks loaded back as lots.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "base/regional.h"
#include "base/text.h"
#include "import_test_util.h"
#include "lot/lot.h"
#include "readers_thermal_yield.h"
#include "workbook/workbook_ops.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

using ReaderCall = Result<std::string> (*)(const ImportRequest&);

// The file through one reader and the workbook back into a lot.
Imported ReadAndLoad(ReaderCall reader, const fs::path& path, const std::string& description,
                     const std::string& workbookPath = {}) {
    ImportRequest req;
    req.path = path.string();
    req.description = description;
    req.workbookPath = workbookPath;
    return ReadBack(reader, req);
}

// A point as the lot holds it: value V (1000 times the file's), the site's
// place in the field and on the wafer (um), its family.
struct Pt {
    float v, x, y, wx, wy;
    std::string family;
};
using Key = std::pair<std::string, int>;  // wafer key, site number

std::map<Key, Pt> Points(const cLot& lot) {
    std::map<Key, Pt> m;
    lot.forEachLive([&](cWafer& w, cField&, cSite& s, cPoint& p) {
        m[{w.KeyName, s.NumberKey()}] = {p.ValueV, s.LocationX, s.LocationY, s.WaferX, s.WaferY, s.FamilyName()};
    });
    return m;
}

int FieldsPerWafer(const cLot& lot) {
    int most = 0;
    for (cWafer* w : lot.Wafers()) most = std::max(most, w->Fields().Count());
    return most;
}

std::string UnitOf(const Imported& r, const std::string& feature) {
    const Datam& u = r.tables.units;
    if (!u.isArray()) return {};
    for (int i = u.rowLb() + 1; i <= u.rowUb(); ++i)
        if (IEquals(u.get(i, u.colLb()).toString(), feature)) return u.get(i, u.colLb() + 1).toString();
    return {};
}

// A failure with no new workbook behind it, naming the file (and the line when
// `line` is above 0), the source as it was.
void ExpectRefused(ReaderCall reader, const fs::path& path, const std::string& description, long line = -1,
                   const std::string& text = {}) {
    const std::string before = ReadBytes(path);
    const int books = WorkbooksIn(path.parent_path());
    ImportRequest req;
    req.path = path.string();
    req.description = description;
    Result<std::string> w = reader(req);
    ASSERT_FALSE(w.ok()) << path;
    EXPECT_EQ(w.failure().file, path.string());
    if (line >= 0) {
        EXPECT_EQ(w.failure().row, line) << w.failure().text;
    }
    if (!text.empty()) {
        EXPECT_EQ(w.failure().text.substr(0, text.size()), text) << w.failure().text;
    }
    Workbooks::CloseAll();
    EXPECT_EQ(WorkbooksIn(path.parent_path()), books);
    EXPECT_EQ(ReadBytes(path), before);
}

// Empty, another format's file, bytes that are no text, and the sample cut
// off in the middle of its last line (`cutLine` is that line).
void BadInputs(ReaderCall reader, const std::string& description, const std::string& sample, size_t cutAt,
               long cutLine, const std::string& cutText, const std::string& dirName) {
    auto dir = FreshDir(dirName);
    WriteBytes(dir / "empty.txt", "");
    ExpectRefused(reader, dir / "empty.txt", description);
    fs::copy_file(SamplePath("kla_cdsem_fem.txt"), dir / "kla.txt");
    ExpectRefused(reader, dir / "kla.txt", description);
    WriteBytes(dir / "bin.dat", std::string("\x01\x02garbage\0\xff\xfe\x00zz\r\n\x7f", 18));
    ExpectRefused(reader, dir / "bin.dat", description);
    const std::string whole = ReadBytes(SamplePath(sample));
    WriteBytes(dir / "cut.txt", whole.substr(0, cutAt));
    ExpectRefused(reader, dir / "cut.txt", description, cutLine, cutText);
}

// ------------------------------------------------------------------ OnWafer

constexpr const char* kOnWafer = "OnWafer Thermal Map (*.*)";

TEST(ReadOnWafer, SampleIsThreeTimeSamplesOfFourSensors) {
    auto dir = FreshDir("onwafer_sample");
    fs::copy_file(SamplePath("onwafer_peb.txt"), dir / "peb.txt");
    Imported r = ReadAndLoad(ImportOnWafer, dir / "peb.txt", kOnWafer);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "OnWafer Technologies");
    EXPECT_EQ(lot.DataSource(), eDataSourceThermal);
    EXPECT_TRUE(lot.PlotWaferSites);
    // A wafer per time sample, one field each, four sensors.
    EXPECT_EQ(lot.Wafers().Count(), 3);
    EXPECT_EQ(FieldsPerWafer(lot), 1);
    auto pts = Points(lot);
    ASSERT_EQ(pts.size(), 12u);
    EXPECT_EQ(lot.ValueV_Name, "Temperature");
    EXPECT_EQ(UnitOf(r, "Temperature"), "C");  // from "Temperature (C)"
    EXPECT_NEAR(lot.WaferSize, 200000, 1e-3);  // Diameter=200 mm
    // t=0.5 s, sensor S4 at (0, 90) mm: 67.20 C.
    const Pt& s4 = pts.at({"t0.5", 4});
    EXPECT_NEAR(s4.v, 67200, 1e-2);
    EXPECT_NEAR(s4.x, 0, 1e-3);
    EXPECT_NEAR(s4.y, 90000, 1e-3);
    // The site stands on the wafer where the file puts it.
    EXPECT_NEAR(s4.wx, 0, 1e-2);
    EXPECT_NEAR(s4.wy, 90000, 1e-2);
    const Pt& s3 = pts.at({"t1.0", 3});
    EXPECT_NEAR(s3.v, 109600, 1e-2);
    EXPECT_NEAR(s3.wx, -60000, 1e-2);
    EXPECT_EQ(s3.family, "Digital");
    EXPECT_EQ(pts.at({"t0.0", 2}).family, "Analog");
    // The mean of the first sample, by hand: (23.10 + 23.25 + 23.05 + 23.40) / 4.
    double sum = 0;
    for (int s = 1; s <= 4; ++s) sum += pts.at({"t0.0", s}).v;
    EXPECT_NEAR(sum / 4, 23200, 1e-2);
}

TEST(ReadOnWafer, CommasOtherOrderNoSensorNamesNoDiameter) {
    // "Temperatur", a blank column, sensors told apart by place, the unit
    // from the Unit key, and no diameter: the sites reach 141.4 mm, so 300.
    auto dir = FreshDir("onwafer_varied");
    fs::copy_file(SamplePath("onwafer_chill.txt"), dir / "chill.txt");
    Imported r = ReadAndLoad(ImportOnWafer, dir / "chill.txt", kOnWafer);
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    ASSERT_EQ(pts.size(), 6u);
    EXPECT_EQ(r.lot->Wafers().Count(), 2);
    EXPECT_EQ(UnitOf(r, "Temperature"), "F");
    EXPECT_NEAR(r.lot->WaferSize, 300000, 1e-3);
    EXPECT_NEAR(pts.at({"t2", 2}).v, 68400, 1e-2);
    EXPECT_NEAR(pts.at({"t2", 2}).wx, 100000, 1e-2);
    EXPECT_NEAR(pts.at({"t2", 2}).wy, -100000, 1e-2);
    EXPECT_EQ(pts.at({"t0", 3}).family, "Digital");
}

TEST(ReadOnWafer, MessagesOfItsOwn) {
    auto dir = FreshDir("onwafer_messages");
    // A workbook, by name or by its bytes.
    WriteBytes(dir / "map.xlsx", "PK\x03\x04 not really");
    ExpectRefused(ImportOnWafer, dir / "map.xlsx", kOnWafer, 0, "Cannot import when data is in Excel format.");
    WriteBytes(dir / "map.dat", std::string("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8));
    ExpectRefused(ImportOnWafer, dir / "map.dat", kOnWafer, 0, "Cannot import when data is in Excel format.");
    // No "[Wafer Data]" section before "#Data".
    WriteBytes(dir / "nohead.txt", "#Data\r\nTime\tTemperature\tXmm\tYmm\r\n0\t20\t0\t0\r\n");
    ExpectRefused(ImportOnWafer, dir / "nohead.txt", kOnWafer, -1, "Data header not correct for input from nohead.txt");
    // A column header without positions (line 3).
    WriteBytes(dir / "nopos.txt", "[Wafer Data]\r\n#Data\r\nTime\tTemperature\r\n0\t20\r\n");
    ExpectRefused(ImportOnWafer, dir / "nopos.txt", kOnWafer, 3, "Data header not correct for input from nopos.txt");
    // A temperature that is no number, on line 5.
    WriteBytes(dir / "text.txt", "[Wafer Data]\r\n#Data\r\nTime\tTemperature\tXmm\tYmm\r\n0\t20\t0\t0\r\n1\thot\t0\t0\r\n");
    ExpectRefused(ImportOnWafer, dir / "text.txt", kOnWafer, 5, "Incorrect data format");
}

TEST(ReadOnWafer, BadInput) {
    // The sample cut inside its last line "S4 0.0 90.0 Dig 1.0 110.40" (line 28).
    const std::string whole = ReadBytes(SamplePath("onwafer_peb.txt"));
    const size_t cut = whole.rfind("90.0");
    BadInputs(ImportOnWafer, kOnWafer, "onwafer_peb.txt", cut + 2, 28, "Incorrect data format", "onwafer_bad");
}


// ---------------------------------------------------------------- SensArray

constexpr const char* kSensArray = "SensArray Thermal Map(*.xls,*.*)";

TEST(ReadSensArray, TextSampleTurnedByItsRotation) {
    auto dir = FreshDir("sensarray_text");
    fs::copy_file(SamplePath("sensarray_rtd.txt"), dir / "rtd.txt");
    Imported r = ReadAndLoad(ImportSensArray, dir / "rtd.txt", kSensArray);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "SensArrayMAP3");
    EXPECT_EQ(lot.DataSource(), eDataSourceThermal);
    EXPECT_EQ(lot.LotName, "TW-0815");
    EXPECT_EQ(lot.Wafers().Count(), 3);
    EXPECT_EQ(FieldsPerWafer(lot), 1);
    EXPECT_NEAR(lot.WaferSize, 200000, 1e-3);
    auto pts = Points(lot);
    // 3 samples of 5 sensors; 999.0 is above the limit 150 and left out.
    ASSERT_EQ(pts.size(), 14u);
    EXPECT_EQ(pts.count({"t1.0", 3}), 0u);
    // Rotation 90: East (60, 0) comes to (0, 60), North (0, 60) to (-60, 0).
    EXPECT_NEAR(pts.at({"t0.5", 2}).wx, 0, 1e-2);
    EXPECT_NEAR(pts.at({"t0.5", 2}).wy, 60000, 1e-2);
    EXPECT_NEAR(pts.at({"t0.5", 3}).wx, -60000, 1e-2);
    EXPECT_NEAR(pts.at({"t0.5", 3}).wy, 0, 1e-2);
    EXPECT_NEAR(pts.at({"t0.5", 2}).v, 66000, 1e-2);
    EXPECT_NEAR(pts.at({"t1.0", 5}).v, 110500, 1e-2);
    EXPECT_EQ(pts.at({"t0.0", 1}).family, "RTD");
    // The excluded reading keeps its source line (23).
    WorkbookPtr wb;
    ASSERT_TRUE(OpenExcelWorksheet(r.workbook, wb, nullptr, false).ok());
    Worksheet* ex = wb->sheet("Excluded");
    ASSERT_NE(ex, nullptr);
    Area a = ex->usedArea();
    Datam u = ex->range(Area{1, 1, a.row2, a.col2});
    int hr = -1, hc = -1;
    FindFirstRow(u, hr, hc, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
    ASSERT_GE(hr, 0);
    EXPECT_EQ(u.rowUb() - hr, 1);
    EXPECT_EQ(u(hr + 1, hc - 1).toDouble(), 23);
    EXPECT_EQ(u(hr + 1, hc + 4).toDouble(), 999);
    Workbooks::CloseAll();
}

// The spreadsheet sample: "Wafer_S/N", no sensor type (the wafer type says
// ISIS), no time column (2 s apart), a sensor without a reading.
void WriteSensArrayBook(const fs::path& path) {
    WorkbookPtr wb = Workbook::create(path.string(), "ISIS map");
    Worksheet* ws = wb->sheet(1);
    const std::vector<std::vector<Value>> rows = {
        {"Wafer_S/N", "ISIS-77"}, {"Wafer Type", "ISIS 300"}, {"Wafer Size", 300.0}, {"Sensor Type"},
        {"Sensors", 3.0},         {"Interval", "2 sec"},      {"Acquired", "3/15/2026 08:00"}, {},
        {"Positions"},            {1.0, 0.0, 0.0},            {2.0, 100.0, 0.0},  {3.0, -100.0, 50.0},
        {"*DATA*"},               {"Sensor 1", "Sensor 2", "Sensor 3"},
        {20.0, 21.0, 22.0},       {25.5, Value(), 27.5}};
    for (size_t r = 0; r < rows.size(); ++r)
        for (size_t c = 0; c < rows[r].size(); ++c)
            if (!rows[r][c].isEmpty()) ws->setCell(static_cast<int>(r) + 1, static_cast<int>(c) + 1, rows[r][c]);
    ASSERT_TRUE(wb->save().ok());
}

TEST(ReadSensArray, DISABLED_WriteSampleWorkbook) { WriteSensArrayBook(SamplePath("sensarray_isis.xlsx")); }

TEST(ReadSensArray, SpreadsheetSampleThroughItsTextCopy) {
    auto dir = FreshDir("sensarray_book");
    fs::copy_file(SamplePath("sensarray_isis.xlsx"), dir / "isis.xlsx");
    std::string text;
    ASSERT_TRUE(XLS2ASCII((dir / "isis.xlsx").string(), text).ok());
    Imported r = ReadAndLoad(ImportSensArray, text, kSensArray, (dir / "isis_data.xlsx").string());
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    ASSERT_EQ(pts.size(), 5u);
    EXPECT_EQ(r.lot->LotName, "ISIS-77");
    EXPECT_NEAR(r.lot->WaferSize, 300000, 1e-3);
    EXPECT_EQ(pts.count({"t2", 2}), 0u);
    EXPECT_NEAR(pts.at({"t2", 3}).v, 27500, 1e-2);
    EXPECT_NEAR(pts.at({"t0", 3}).wx, -100000, 1e-2);
    EXPECT_NEAR(pts.at({"t0", 3}).wy, 50000, 1e-2);
    EXPECT_EQ(pts.at({"t0", 1}).family, "ISIS");
}

TEST(ReadSensArray, HeaderAndRowsRefused) {
    auto dir = FreshDir("sensarray_messages");
    // Two positions for three sensors.
    WriteBytes(dir / "count.txt", "Sensors,3\r\nPositions\r\n1,0,0\r\n2,1,1\r\n*DATA*\r\n0,1,2,3\r\n");
    ExpectRefused(ImportSensArray, dir / "count.txt", kSensArray, 5, "Header import not correct.");
    // No "*DATA*".
    WriteBytes(dir / "nodata.txt", "Sensors,1\r\nPositions\r\n1,0,0\r\n");
    ExpectRefused(ImportSensArray, dir / "nodata.txt", kSensArray, -1, "Header import not correct.");
    // A row with a cell too many, on line 5.
    WriteBytes(dir / "wide.txt", "Positions\r\n1,0,0\r\n*DATA*\r\n0,20\r\n1,21,22,23\r\n");
    ExpectRefused(ImportSensArray, dir / "wide.txt", kSensArray, 5, "Wrong data format.");
}

TEST(ReadSensArray, BadInput) {
    // Cut inside the last line "1.0,110.1,...", line 23: a cell too few.
    const std::string whole = ReadBytes(SamplePath("sensarray_rtd.txt"));
    BadInputs(ImportSensArray, kSensArray, "sensarray_rtd.txt", whole.rfind(",110.4"), 23, "Wrong data format.",
              "sensarray_bad");
}


// -------------------------------------------------------------- CDE ResMap

constexpr const char* kResMap = "CDE ResMap Probe";

TEST(ReadCDEResMap, TwoSlotsOfFiveProbePoints) {
    auto dir = FreshDir("resmap_sample");
    fs::copy_file(SamplePath("cderesmap_poly.txt"), dir / "poly.txt");
    Imported r = ReadAndLoad(ImportCDEResMap, dir / "poly.txt", kResMap);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "CDE ResMap");
    EXPECT_EQ(lot.DataSource(), eDataSourceResistivity);
    EXPECT_TRUE(lot.PlotWaferSites);
    EXPECT_EQ(lot.LotName, "LT42_S03");
    EXPECT_EQ(lot.GetNotchString(), "Left");  // "NOTCH 270"
    EXPECT_EQ(lot.ValueV_Name, "Rs");
    EXPECT_EQ(UnitOf(r, "Rs"), "ohm/sq");
    EXPECT_NEAR(lot.WaferSize, 200000, 1e-3);
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(FieldsPerWafer(lot), 1);
    auto pts = Points(lot);
    // Ten points; slot 3 point 4 has merit 0.850 (not above 0.90), slot 4
    // point 3 reads 150 (beyond 10 TO 100).
    ASSERT_EQ(pts.size(), 8u);
    EXPECT_EQ(pts.count({"W3", 4}), 0u);
    EXPECT_EQ(pts.count({"W4", 3}), 0u);
    EXPECT_NEAR(pts.at({"W3", 2}).v, 53100, 1e-2);
    EXPECT_NEAR(pts.at({"W3", 2}).wx, 90000, 1e-2);
    EXPECT_NEAR(pts.at({"W4", 5}).wy, -90000, 1e-2);
    // Mean of slot 4's four good points by hand: (48.20 + 49.05 + 48.75 + 48.90) / 4 = 48.725.
    double sum = 0;
    for (int s : {1, 2, 4, 5}) sum += pts.at({"W4", s}).v;
    EXPECT_NEAR(sum / 4, 48725, 1e-2);
}

TEST(ReadCDEResMap, OneWaferMicrometresUnitInTheHeader) {
    // Lower-case keys, "numprobepts", no slot, tabs, positions in um, the
    // unit beside the value's name, no diameter (140 mm out: 300).
    auto dir = FreshDir("resmap_varied");
    fs::copy_file(SamplePath("cderesmap_metal.txt"), dir / "metal.txt");
    Imported r = ReadAndLoad(ImportCDEResMap, dir / "metal.txt", kResMap);
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    ASSERT_EQ(pts.size(), 3u);
    EXPECT_EQ(r.lot->ValueV_Name, "Rs");
    EXPECT_EQ(UnitOf(r, "Rs"), "ohm/sq");
    EXPECT_NEAR(r.lot->WaferSize, 300000, 1e-3);
    EXPECT_NEAR(pts.at({"W1", 2}).wx, 140000, 1e-2);
    EXPECT_NEAR(pts.at({"W1", 3}).wy, -140000, 1e-2);
    EXPECT_NEAR(pts.at({"W1", 1}).v, 71.2, 1e-3);
}

TEST(ReadCDEResMap, FileCutShortAndBadInput) {
    // Cut after line 23: slot 4 has 3 of its 5 points.
    auto dir = FreshDir("resmap_short");
    const std::string whole = ReadBytes(SamplePath("cderesmap_poly.txt"));
    size_t at = 0;
    for (int line = 0; line < 23; ++line) at = whole.find("\r\n", at) + 2;
    WriteBytes(dir / "short.txt", whole.substr(0, at));
    ExpectRefused(ImportCDEResMap, dir / "short.txt", kResMap, 23,
                  "End of file encountered early.\r\nLast Line: '3    0.00    90.00    150.00    0.997'");
    // Cut inside the last line, after its Y (line 25).
    BadInputs(ImportCDEResMap, kResMap, "cderesmap_poly.txt", whole.rfind("48.90"), 25, "Wrong data format.",
              "resmap_bad");
}


// ------------------------------------------------------------ Yield summary

constexpr const char* kYield = "Yield data summary (*.*)";

void WriteRows(Worksheet* ws, const std::vector<std::vector<Value>>& rows) {
    for (size_t r = 0; r < rows.size(); ++r)
        for (size_t c = 0; c < rows[r].size(); ++c)
            if (!rows[r][c].isEmpty()) ws->setCell(static_cast<int>(r) + 1, static_cast<int>(c) + 1, rows[r][c]);
}

// A notes sheet first, then "PDFSdata": two slots, dice 0..2 by 0..2 of
// 20 by 25 mm, two structures; a row marked "Duplicate" and a repeated row.
void WriteYieldBook(const fs::path& path) {
    WorkbookPtr wb = Workbook::create(path.string(), "Summary");
    WriteRows(wb->sheet(1), {{"Yield summary, not read"}, {"LOT_ID", "DIE_X"}});
    Worksheet* ws = wb->addSheet("PDFSdata");
    auto row = [](double slot, double dx, double dy, double sx, double sy, const char* target, const char* fill,
                  double yield, double rc, const char* status) {
        return std::vector<Value>{"LT77", slot, dx, dy, sx, sy, target, fill, yield, rc, status};
    };
    WriteRows(ws, {{"SUBSTRATE", 200.0},
                   {"ORIENTATION", 270.0},
                   {"DIE_SIZE_X", 20.0, "DIE_SIZE_Y", 25.0},
                   {},
                   {"LOT_ID", "SLOT_ID", "DIE_X", "DIE_Y", "STRUCT_X", "STRUCT_Y", "TARGET_NAME", "DUMMY_FILL",
                    "YIELD (%)", "RC (ohm)", "STATUS"},
                   row(1, 0, 0, -2, 1, "VIA_CHAIN", "N", 98.5, 12.1, "OK"),
                   row(1, 0, 0, 3, -1, "M1_LINE", "Y", 97.0, 8.4, "OK"),
                   row(1, 2, 0, -2, 1, "VIA_CHAIN", "N", 95.0, 12.6, "OK"),
                   row(1, 2, 0, 3, -1, "M1_LINE", "Y", 96.0, 8.1, "OK"),
                   row(1, 1, 2, -2, 1, "VIA_CHAIN", "N", 99.0, 11.9, "OK"),
                   row(1, 1, 2, -2, 1, "VIA_CHAIN", "N", 10.0, 50.0, "Duplicate"),
                   row(2, 0, 0, -2, 1, "VIA_CHAIN", "N", 90.0, 12.4, "OK"),
                   row(2, 2, 0, -2, 1, "VIA_CHAIN", "N", 91.0, 12.5, ""),
                   row(2, 2, 0, -2, 1, "VIA_CHAIN", "N", 92.0, 12.2, "")});
    ASSERT_TRUE(wb->save().ok());
}

TEST(ReadYieldXLS, DISABLED_WriteSampleWorkbook) { WriteYieldBook(SamplePath("yield_pdfs.xlsx")); }

TEST(ReadYieldXLS, SampleByDieAndStructure) {
    auto dir = FreshDir("yield_sample");
    fs::copy_file(SamplePath("yield_pdfs.xlsx"), dir / "pdfs.xlsx");
    Imported r = ReadAndLoad(ImportYieldXLS, dir / "pdfs.xlsx", kYield);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "PDF spreadsheet");
    EXPECT_EQ(lot.DataSource(), eDataSourceWaferSite);
    EXPECT_EQ(lot.LotName, "LT77");
    EXPECT_EQ(lot.GetNotchString(), "Left");
    EXPECT_NEAR(lot.WaferSize, 200000, 1e-3);
    EXPECT_EQ(lot.ValueV_Name, "YIELD");
    EXPECT_EQ(lot.ValueH_Name, "RC");
    EXPECT_EQ(UnitOf(r, "YIELD"), "%");
    EXPECT_EQ(UnitOf(r, "RC"), "ohm");
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(FieldsPerWafer(lot), 1);
    auto pts = Points(lot);
    // Nine rows less the "Duplicate" one and the repeat of slot 2, die (2, 0).
    ASSERT_EQ(pts.size(), 7u);
    // Dice 0..2 centre on 1: die (0, 0), structure (-2, 1) is at
    // (-1 * 20 - 2, -1 * 25 + 1) = (-22, -24) mm; die (1, 2) at (-2, 26).
    EXPECT_NEAR(pts.at({"W1", 1}).wx, -22000, 1e-2);
    EXPECT_NEAR(pts.at({"W1", 1}).wy, -24000, 1e-2);
    EXPECT_NEAR(pts.at({"W1", 5}).wx, -2000, 1e-2);
    EXPECT_NEAR(pts.at({"W1", 5}).wy, 26000, 1e-2);
    EXPECT_NEAR(pts.at({"W1", 5}).v, 99000, 1e-2);  // not the duplicate's 10.0
    EXPECT_NEAR(pts.at({"W2", 3}).v, 91000, 1e-2);  // the first of the two
    EXPECT_EQ(pts.at({"W1", 1}).family, "Via");
    EXPECT_EQ(pts.at({"W1", 2}).family, "IsoLine");
}

TEST(ReadYieldXLS, OtherSpellingsFirstSheetNoPitch) {
    // "SLOTID", "XDIE"/"YDIE", "XSTRUCT"/"YSTRUCT" on the only sheet; no
    // pitch: the dice are as wide as the spread of their structures (6, 4).
    auto dir = FreshDir("yield_varied");
    {
        WorkbookPtr wb = Workbook::create((dir / "y.xlsx").string(), "Yield");
        WriteRows(wb->sheet(1), {{"XDIE", "YDIE", "SLOTID", "XSTRUCT", "YSTRUCT", "Leak [nA]"},
                                 {0.0, 0.0, "S5", -3.0, -2.0, 1.5},
                                 {1.0, 0.0, "S5", 3.0, 2.0, 2.5},
                                 {}, {"note: end of data"}});
        ASSERT_TRUE(wb->save().ok());
    }
    Imported r = ReadAndLoad(ImportYieldXLS, dir / "y.xlsx", kYield);
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    ASSERT_EQ(pts.size(), 2u);
    EXPECT_EQ(UnitOf(r, "Leak"), "nA");
    // Dice 0..1 centre on 0.5: (-0.5 * 6 - 3, 0 - 2) and (0.5 * 6 + 3, 0 + 2).
    EXPECT_NEAR(pts.at({"S5", 1}).wx, -6000, 1e-2);
    EXPECT_NEAR(pts.at({"S5", 1}).wy, -2000, 1e-2);
    EXPECT_NEAR(pts.at({"S5", 2}).wx, 6000, 1e-2);
    EXPECT_NEAR(pts.at({"S5", 2}).v, 2500, 1e-2);
}

TEST(ReadYieldXLS, BadInput) {
    auto dir = FreshDir("yield_bad");
    WriteBytes(dir / "empty.xlsx", "");
    ExpectRefused(ImportYieldXLS, dir / "empty.xlsx", kYield, 0);
    fs::copy_file(SamplePath("kla_cdsem_fem.txt"), dir / "kla.txt");
    ExpectRefused(ImportYieldXLS, dir / "kla.txt", kYield, 0, "File type incorrect: ");
    WriteBytes(dir / "bin.dat", std::string("PK\x03\x04\x00\x01garbage", 13));
    ExpectRefused(ImportYieldXLS, dir / "bin.dat", kYield, 0);
    // The sample cut in half is no workbook any more.
    const std::string whole = ReadBytes(SamplePath("yield_pdfs.xlsx"));
    WriteBytes(dir / "cut.xlsx", whole.substr(0, whole.size() / 2));
    ExpectRefused(ImportYieldXLS, dir / "cut.xlsx", kYield, 0);
    // A workbook of another kind: the FEM sample has no yield header.
    fs::copy_file(SamplePath("fem_spreadsheet.xlsx"), dir / "fem.xlsx");
    ExpectRefused(ImportYieldXLS, dir / "fem.xlsx", kYield, 0, "This is not a proper format data sheet.");
    // A die that is no number, on row 3.
    {
        WorkbookPtr wb = Workbook::create((dir / "die.xlsx").string(), "PDFSdata");
        WriteRows(wb->sheet(1), {{"LOT_ID", "DIE_X", "DIE_Y", "V"}, {"L", 0.0, 0.0, 1.0}, {"L", "two", 0.0, 2.0}});
        ASSERT_TRUE(wb->save().ok());
    }
    const std::string before = ReadBytes(dir / "die.xlsx");
    const int books = WorkbooksIn(dir);
    ImportRequest req;
    req.path = (dir / "die.xlsx").string();
    Result<std::string> w = ImportYieldXLS(req);
    ASSERT_FALSE(w.ok());
    EXPECT_EQ(w.failure().row, 3);
    EXPECT_EQ(w.failure().sheet, "PDFSdata");
    Workbooks::CloseAll();
    EXPECT_EQ(WorkbooksIn(dir), books);
    EXPECT_EQ(ReadBytes(dir / "die.xlsx"), before);
}


// ----------------------------------------------------------- Hitachi LAxx

constexpr const char* kHitachi = "Hitachi LAXXX Overlay";

// A cover sheet, then the result sheet: keys, two wafers, two shots of two
// marks; registration in nm; one mark that failed ("*****").
void WriteHitachiBook(const fs::path& path) {
    WorkbookPtr wb = Workbook::create(path.string(), "Cover");
    WriteRows(wb->sheet(1), {{"LA3100 overlay export"}, {"Xreg is explained here"}});
    Worksheet* ws = wb->addSheet("LA3100 Result");
    WriteRows(ws, {{"Lot", "LT9"},
                   {"Recipe", "OVL_M1V1"},
                   {"Layer", "M1"},
                   {"Date", Value::date(DateSerial(2026, 3, 14))},
                   {"Shot Size X", 26.0},
                   {"Shot Size Y", 33.0},
                   {},
                   {"Wafer", "Shot X", "Shot Y", "Point", "X (mm)", "Y (mm)", "Xreg (nm)", "Yreg (nm)"},
                   {1.0, 0.0, 0.0, 1.0, -10.0, -12.0, 12.5, -3.0},
                   {1.0, 0.0, 0.0, 2.0, 10.0, 12.0, 8.0, 4.5},
                   {1.0, 1.0, 0.0, 1.0, -10.0, -12.0, 11.0, -2.0},
                   {1.0, 1.0, 0.0, 2.0, 10.0, 12.0, "*****", 4.0},
                   {2.0, 0.0, 0.0, 1.0, -10.0, -12.0, 10.0, -1.0},
                   {2.0, 1.0, 0.0, 2.0, 10.0, 12.0, 7.5, 5.5}});
    ASSERT_TRUE(wb->save().ok());
}

TEST(ReadHitachiLAXX, DISABLED_WriteSampleWorkbook) { WriteHitachiBook(SamplePath("hitachi_laxx.xlsx")); }

// Overlay points by wafer, field column and row, and mark: V and H (nm), site place (um).
struct OlPt {
    float v, h, x, y;
};
std::map<std::tuple<std::string, int, int, int>, OlPt> Overlay(const cLot& lot) {
    std::map<std::tuple<std::string, int, int, int>, OlPt> m;
    lot.forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        m[{w.KeyName, static_cast<int>(f.DieX), static_cast<int>(f.DieY), s.NumberKey()}] = {p.ValueV, p.ValueH,
                                                                                          s.LocationX, s.LocationY};
    });
    return m;
}

TEST(ReadHitachiLAXX, SampleWorkbookReadDirectly) {
    auto dir = FreshDir("hitachi_sample");
    fs::copy_file(SamplePath("hitachi_laxx.xlsx"), dir / "la.xlsx");
    Imported r = ReadAndLoad(ImportHitachiLAXX, dir / "la.xlsx", kHitachi);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "Hitachi LAxx O/L");
    EXPECT_EQ(lot.DataSource(), eDataSourceOverlay);
    EXPECT_EQ(lot.LotName, "LT9");
    EXPECT_EQ(lot.ValueV_Name, "Xreg");
    EXPECT_EQ(lot.ValueH_Name, "Yreg");
    EXPECT_NEAR(lot.DieSizeX, 26000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 33000, 1e-3);
    EXPECT_EQ(lot.Wafers().Count(), 2);
    auto pts = Overlay(lot);
    ASSERT_EQ(pts.size(), 5u);  // six marks, one failed
    // Shots 0 and 1 centre to -1 and 0; 12.5 nm is 0.0125 um, held as 12.5.
    const OlPt& a = pts.at({"W1", -1, 0, 1});
    EXPECT_NEAR(a.v, 12.5f, 1e-4);
    EXPECT_NEAR(a.h, -3.0f, 1e-4);
    EXPECT_NEAR(a.x, -10000, 1e-2);
    EXPECT_NEAR(a.y, -12000, 1e-2);
    EXPECT_EQ(pts.count({"W1", 0, 0, 2}), 0u);
    EXPECT_NEAR(pts.at({"W2", 0, 0, 2}).h, 5.5f, 1e-4);
}

TEST(ReadHitachiLAXX, OtherSpellingsNoUnitsNoPointColumn) {
    // "Slot", "Chip X"/"Chip Y", "Y_Reg", no point column (marks by place),
    // no unit: 1 or more is nm, below 1 um.
    auto dir = FreshDir("hitachi_varied");
    {
        WorkbookPtr wb = Workbook::create((dir / "v.xlsx").string(), "Data");
        WriteRows(wb->sheet(1), {{"Slot", "Xreg", "Y_Reg", "Chip X", "Chip Y", "X", "Y"},
                                 {3.0, 6.0, 0.004, 0.0, 0.0, -5.0, 5.0},
                                 {3.0, 2.0, 0.002, 0.0, 0.0, 5.0, -5.0},
                                 {3.0, 4.0, 0.003, 0.0, 1.0, -5.0, 5.0}});
        ASSERT_TRUE(wb->save().ok());
    }
    Imported r = ReadAndLoad(ImportHitachiLAXX, dir / "v.xlsx", kHitachi);
    ASSERT_TRUE(r.lot);
    auto pts = Overlay(*r.lot);
    ASSERT_EQ(pts.size(), 3u);
    double sumV = 0, sumH = 0;
    for (const auto& [key, p] : pts) {
        sumV += p.v;
        sumH += p.h;
    }
    EXPECT_NEAR(sumV, 12.0, 1e-3);  // 6 + 2 + 4 nm
    EXPECT_NEAR(sumH, 9.0, 1e-3);   // 4 + 2 + 3 nm
    EXPECT_EQ(r.lot->Wafers().Count(), 1);
    EXPECT_EQ(r.lot->Wafers().At(1)->KeyName, "W3");
}

TEST(ReadHitachiLAXX, MessagesAndBadInput) {
    auto dir = FreshDir("hitachi_bad");
    // A workbook without a sheet of registrations.
    fs::copy_file(SamplePath("fem_spreadsheet.xlsx"), dir / "fem.xlsx");
    ExpectRefused(ImportHitachiLAXX, dir / "fem.xlsx", kHitachi, 0, "No data sheet found in workbook: fem.xlsx");
    WriteBytes(dir / "empty.xlsx", "");
    ExpectRefused(ImportHitachiLAXX, dir / "empty.xlsx", kHitachi, 0, "File type incorrect: ");
    fs::copy_file(SamplePath("kla_cdsem_fem.txt"), dir / "kla.txt");
    ExpectRefused(ImportHitachiLAXX, dir / "kla.txt", kHitachi, 0, "File type incorrect: ");
    WriteBytes(dir / "bin.dat", std::string("\xD0\xCF\x11\xE0\x00\x01garbage", 13));
    ExpectRefused(ImportHitachiLAXX, dir / "bin.dat", kHitachi, 0);
    const std::string whole = ReadBytes(SamplePath("hitachi_laxx.xlsx"));
    WriteBytes(dir / "cut.xlsx", whole.substr(0, whole.size() * 2 / 3));
    ExpectRefused(ImportHitachiLAXX, dir / "cut.xlsx", kHitachi, 0);
    // A shot that is no number, on row 3 of the sheet.
    {
        WorkbookPtr wb = Workbook::create((dir / "shot.xlsx").string(), "R");
        WriteRows(wb->sheet(1), {{"Shot X", "Shot Y", "Xreg", "Yreg"}, {0.0, 0.0, 1.0, 1.0}, {"A", 0.0, 1.0, 1.0}});
        ASSERT_TRUE(wb->save().ok());
    }
    ExpectRefused(ImportHitachiLAXX, dir / "shot.xlsx", kHitachi, 3, "Row 3 of worksheet 'R': ");
}

}  // namespace
}  // namespace zorv
