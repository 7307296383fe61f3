// The CD-SEM readers (Hitachi S9xxx, NanoSEM, Soluris Yosemite, Accent CDS),
// called directly, from the raw file to the loaded lot. Expected values are
// worked by hand from the sample texts.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "../common/capture_reporter.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "import_test_util.h"
#include "reader.h"
#include "readers_cdsem.h"
#include "workbook/workbook_ops.h"
#include "lot/lot.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

struct Pt {
    float v, h, z, slope, pitch, focus, x, y;
    std::string family;
};
struct Key {
    std::string wafer;
    int dieX, dieY, site;
    auto operator<=>(const Key&) const = default;
};
std::map<Key, Pt> Points(const cLot& lot) {
    std::map<Key, Pt> m;
    lot.forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        m[{w.KeyName, static_cast<int>(f.DieX), static_cast<int>(f.DieY), s.NumberKey()}] = {
            p.ValueV, p.ValueH, p.ValueZ, p.Slope, p.Pitch, f.Focus, s.LocationX, s.LocationY, s.FamilyName()};
    });
    return m;
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

// The sample copied into a fresh folder, read by `fn` and loaded back.
Imported ReadWith(ReaderFn fn, const std::string& description, const fs::path& src) {
    ImportRequest req;
    req.path = src.string();
    req.description = description;
    return ReadBack(fn, req);
}

Imported RunSample(ReaderFn fn, const std::string& description, const std::string& sample, const std::string& dir) {
    fs::path d = FreshDir(dir);
    fs::copy_file(SamplePath(sample), d / sample);
    return ReadWith(fn, description, d / sample);
}

// The rows of the "Excluded" sheet: the source line and the first value.
std::vector<std::pair<long, double>> ExcludedRows(const std::string& workbook) {
    std::vector<std::pair<long, double>> rows;
    WorkbookPtr wb;
    if (!OpenExcelWorksheet(workbook, wb, nullptr, false).ok()) return rows;
    if (Worksheet* ex = wb->sheet("Excluded")) {
        Area a = ex->usedArea();
        Datam u = ex->range(Area{1, 1, a.row2, a.col2});
        int hr = -1, hc = -1;
        FindFirstRow(u, hr, hc, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
        if (hr >= 0)
            for (int r = hr + 1; r <= u.rowUb(); ++r)
                rows.emplace_back(static_cast<long>(u(r, hc - 1).toDouble()), u(r, hc + 4).toDouble());
    }
    Workbooks::CloseAll();
    return rows;
}

// Bad input: a failure naming the file (and its line where there is one), no
// workbook, the source untouched. Answers the failure texts by case name.
std::map<std::string, std::string> BadInputs(ReaderFn fn, const std::string& description, const std::string& dir,
                                             const std::vector<std::pair<std::string, std::string>>& cases) {
    std::map<std::string, std::string> texts;
    fs::path d = FreshDir(dir);
    for (const auto& [name, bytes] : cases) {
        fs::path src = d / (name + ".txt");
        WriteBytes(src, bytes);
        ImportRequest req;
        req.path = src.string();
        req.description = description;
        Result<std::string> w = fn(req);
        EXPECT_FALSE(w.ok()) << name;
        if (w.ok()) continue;
        EXPECT_EQ(w.failure().file, src.string()) << name;
        EXPECT_NE(w.failure().message().find(src.string()), std::string::npos) << name;
        if (name != "empty") {
            EXPECT_GT(w.failure().row, 0) << name;
        }
        EXPECT_EQ(WorkbooksIn(d), 0) << name;
        EXPECT_EQ(ReadBytes(src), bytes) << name;
        texts[name] = w.failure().text;
    }
    return texts;
}

const std::string kGarbage("\x7f" "ELF\0\0\x01\x02 _DATA DETAILED HEADER\n\0\xff\r\n", 38);

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// --------------------------------------------------------------- Hitachi

constexpr const char* kHitachi = "Hitachi_CDSEM (multi-point)";
constexpr const char* kHitachiStats = "Hitachi_CDSEM (statistical)";

TEST(ReadHitachi, MultiPointSampleReadsToItsLot) {
    Imported r = RunSample(ImportHitachi_CDSEM_S9xxx, kHitachi, "hitachi_cdsem_fem.txt", "hitachi_multi");
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    // Slots 3 and 5, chips 4..6 of row 7 around the origin chip (5, 7), two
    // points per chip; the all-zero line of slot 5 is excluded: 11 points.
    EXPECT_EQ(lot.Wafers().Count(), 2);
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 11u);
    EXPECT_EQ(lot.ValueV_Name, "CD_mean1");
    EXPECT_EQ(lot.ValueH_Name, "CD_mean2");
    EXPECT_EQ(lot.valueZ_Name, "CD_3sigma");
    EXPECT_EQ(lot.Slope_Name, "CD_Mi/Ma");
    EXPECT_EQ(lot.MetrologyTool, "Hitachi CDsem S9xxx ");
    EXPECT_EQ(lot.LotName, "LT0042");
    EXPECT_NEAR(lot.DieSizeX, 26000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 33000, 1e-3);
    EXPECT_EQ(UnitOf(r.tables.units, "CD_mean1"), "um");
    // Slot 3, chip 4 (index -1), ISO_LINE at (-1200, 800) um: 91.2 / 92.0 nm;
    // focus (4 - 5) * 0.1 um.
    const Pt& a = pts.at({"W3", -1, 0, 1});
    EXPECT_NEAR(a.v, 91.2f, 1e-3);
    EXPECT_NEAR(a.h, 92.0f, 1e-3);
    EXPECT_NEAR(a.slope, 5.1f, 1e-3);
    EXPECT_NEAR(a.x, -1200, 1e-2);
    EXPECT_NEAR(a.y, 800, 1e-2);
    EXPECT_NEAR(a.focus, -0.1f, 1e-6);
    EXPECT_EQ(a.family, "IsoLine");
    // "*" leaves the value missing; the next column keeps its own place.
    const Pt& b = pts.at({"W3", 0, 0, 2});
    EXPECT_NEAR(b.h, -999.9f, 1e-3);
    EXPECT_NEAR(b.z, 2.9f, 1e-3);
    EXPECT_EQ(b.family, "DensePack");
    EXPECT_NEAR(pts.at({"W5", 1, 0, 2}).focus, 0.1f, 1e-6);
    EXPECT_EQ(pts.count({"W5", 0, 0, 1}), 0u);
    auto ex = ExcludedRows(r.workbook);
    ASSERT_EQ(ex.size(), 1u);
    EXPECT_EQ(ex[0].first, 35);  // the source line of the zeros
    EXPECT_EQ(ex[0].second, 0);
    const std::string comments = InfoValue(r.tables.information, "Comments").toString();
    EXPECT_TRUE(Has(comments, "UCL & LCL control limits CTRL_VALUE=90, UCL1=110, UCL2=105, LCL2=75")) << comments;
    double date = 0;
    ASSERT_TRUE(DateExtract(InfoValue(r.tables.information, "Date"), date));
    EXPECT_EQ(date, DateSerial(2026, 1, 12));
}

TEST(ReadHitachi, StatisticsOfTheSameFile) {
    Imported r = RunSample(ImportHitachi_CDSEM_Stats, kHitachiStats, "hitachi_cdsem_fem.txt", "hitachi_stats_fem");
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    EXPECT_EQ(pts.size(), 4u);  // two slots by two points, one field each
    EXPECT_EQ(r.lot->ValueV_Name, "Mean");
    EXPECT_EQ(r.lot->ValueH_Name, "3Sigma");
    EXPECT_EQ(r.lot->MetrologyTool, "Hitachi_CDSEM (statistical)");
    const Pt& p = pts.at({"W5", 0, 0, 2});
    EXPECT_NEAR(p.v, 119.87f, 1e-3);
    EXPECT_NEAR(p.h, 5.10f, 1e-3);
    EXPECT_NEAR(p.pitch, 3.4f, 1e-3);  // range
}

TEST(ReadHitachi, StatisticsSampleOfOtherOrderAndSpellings) {
    // Tab separated, statistics first, names without numbers, "Average" and
    // "3-Sigma", columns in reverse order, blanks, places in nanometres.
    Imported r = RunSample(ImportHitachi_CDSEM_Stats, kHitachiStats, "hitachi_cdsem_stats.txt", "hitachi_stats");
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    EXPECT_EQ(r.lot->Wafers().Count(), 2);
    EXPECT_EQ(pts.size(), 4u);
    EXPECT_EQ(r.lot->ValueV_Name, "Mean");
    EXPECT_EQ(r.lot->valueZ_Name, "Max");
    // HOLE_VIA met first is point 1; LINE_A point 2 at (-2000, 1000) um.
    const Pt& v = pts.at({"W2", 0, 0, 1});
    EXPECT_EQ(v.family, "Via");
    EXPECT_NEAR(v.v, 62.25f, 1e-3);
    EXPECT_NEAR(v.slope, 60.5f, 1e-3);
    const Pt& l = pts.at({"W4", 0, 0, 2});
    EXPECT_EQ(l.family, "IsoLine");
    EXPECT_NEAR(l.x, -2000, 1e-2);
    EXPECT_NEAR(l.y, 1000, 1e-2);
    EXPECT_NEAR(l.v, 90.8f, 1e-3);
    EXPECT_NEAR(l.h, -999.9f, 1e-3);
    EXPECT_NEAR(l.z, 92.5f, 1e-3);
    // Two points only: the field size of so few sites is 24 by 36.
    EXPECT_NEAR(r.lot->DieSizeX, 24000, 1e-3);
    const std::string comments = InfoValue(r.tables.information, "Comments").toString();
    EXPECT_TRUE(Has(comments, "UCL & LCL control limits LCL1=55, UCL1=70")) << comments;
}

TEST(ReadHitachi, SlotLinesBetweenBlocksNameTheWafers) {
    fs::path d = FreshDir("hitachi_slots");
    WriteBytes(d / "s.msr",
               "_DATA\nSLOT_NO,7\nCHIP_X,CHIP_Y,MP_NAME,Hole_Xdiam(um),Hole_Ydiam1(um),Hole_Area\n"
               "0,0,VIA_1,0.061,0.063,3000\n_DATA\nSLOT_NO,8\nMP_NAME,CHIP_Y,CHIP_X,Hole_Xdiam(um),Hole_Ydiam1(um)\n"
               "VIA_1,1,2,0.060,0.064\n");
    Imported r = ReadWith(ImportHitachi_CDSEM_S9xxx, kHitachi, d / "s.msr");
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    ASSERT_EQ(pts.size(), 2u);
    EXPECT_EQ(r.lot->ValueV_Name, "Hole_Xdiam(um)");
    EXPECT_EQ(r.lot->valueZ_Name, "Hole_Area");
    // Micrometres as they stand; the area from nm2 to um2. Columns 0..2 and
    // rows 0..1 both move by 1 (middles 1.5 and 1).
    const Pt& a = pts.at({"W7", -1, -1, 1});
    EXPECT_NEAR(a.v, 61.0f, 1e-3);
    EXPECT_NEAR(a.z, 3.0f, 1e-4);
    EXPECT_EQ(a.family, "Via");
    EXPECT_NEAR(pts.at({"W8", 1, 0, 1}).h, 64.0f, 1e-3);
}

TEST(ReadHitachi, BadInputFailsCleanly) {
    std::string good = ReadBytes(SamplePath("hitachi_cdsem_fem.txt"));
    using Case = std::tuple<ReaderFn, const char*, const char*>;
    for (auto [fn, desc, cut] : {Case{ImportHitachi_CDSEM_S9xxx, kHitachi, "_DATA"},
                                 Case{ImportHitachi_CDSEM_Stats, kHitachiStats, "_STATS"}}) {
        auto texts = BadInputs(fn, desc, "hitachi_bad",
                               {{"empty", ""},
                                {"other", ReadBytes(SamplePath("kla_cdsem_fem.txt"))},
                                {"garbage", kGarbage},
                                {"truncated", good.substr(0, good.find(cut))},
                                {"no_rows", good.substr(0, good.find("\r\n", good.find(cut) + 8) + 2)}});
        EXPECT_TRUE(Has(texts["empty"], "Incomplete data file: empty.txt")) << desc;
        EXPECT_TRUE(Has(texts["other"], "End of file encountered early.")) << desc;
        EXPECT_TRUE(Has(texts["garbage"], "File type incorrect: ")) << desc;
        EXPECT_TRUE(Has(texts["truncated"], "Please check the import type or data file.")) << desc;
        EXPECT_TRUE(Has(texts["no_rows"], "Incomplete data file: no_rows.txt")) << desc;
    }
}


// --------------------------------------------------------------- NanoSEM

constexpr const char* kNano = "AMAT NanoSEM 3D";
constexpr const char* kNanoFamily = "AMAT NanoSEM 3D(Family)";

TEST(ReadNanoSEM, ReportSampleByName) {
    Imported r = RunSample(ImportNanoSEM, kNano, "nanosem_report.txt", "nanosem_report");
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(lot.ValueV_Name, "Iso_Line");
    EXPECT_EQ(lot.ValueH_Name, "Gate_Space");
    EXPECT_EQ(lot.MetrologyTool, "AMAT NanoSEM 3D");
    EXPECT_EQ(lot.LotName, "LT7788");
    EXPECT_EQ(lot.GetNotchString(), "Left");
    EXPECT_EQ(UnitOf(r.tables.units, "Iso_Line"), "um");
    double date = 0;
    ASSERT_TRUE(DateExtract(InfoValue(r.tables.information, "Date"), date));
    EXPECT_EQ(date, DateSerial(2026, 1, 14));
    // Dies 0..1 by 0..2: the rows centre on 1, the columns stay. Two places:
    // (-1200, 800) um is site 1 (also as -1.2 mm), (1500, -600) site 2.
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 4u);
    const Pt& a = pts.at({"W01", 0, -1, 1});
    EXPECT_NEAR(a.v, 91.2f, 1e-3);
    EXPECT_NEAR(a.h, 111.5f, 1e-3);
    EXPECT_NEAR(a.x, -1200, 1e-2);
    EXPECT_NEAR(pts.at({"W01", 0, -1, 2}).v, 92.4f, 1e-3);
    EXPECT_NEAR(pts.at({"W01", 0, -1, 2}).h, -999.9f, 1e-3);
    EXPECT_NEAR(pts.at({"W01", 1, -1, 1}).h, 110.0f, 1e-3);  // "0.11 um"
    const Pt& w2 = pts.at({"W02", -1, 1, 1});
    EXPECT_NEAR(w2.v, 90.5f, 1e-3);  // no unit: nanometres
    EXPECT_NEAR(w2.h, 112.0f, 1e-3);
    // SUCCESS "NO": the measurement alone in "Excluded", with its line.
    auto ex = ExcludedRows(r.workbook);
    ASSERT_EQ(ex.size(), 1u);
    EXPECT_EQ(ex[0].first, 17);
    EXPECT_NEAR(ex[0].second, 0.095, 1e-9);
}

TEST(ReadNanoSEM, FamilySampleMakesASitePerName) {
    Imported r = RunSample(ImportNanoSEM_ByFamily, kNanoFamily, "nanosem_family.txt", "nanosem_family");
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(r.lot->ValueV_Name, "Measurement");
    EXPECT_EQ(r.lot->ValueH_Name, "3Sigma");
    EXPECT_EQ(r.lot->GetNotchString(), "Up");
    auto pts = Points(*r.lot);
    EXPECT_EQ(pts.size(), 4u);
    // Dies 2..3 of row 1 centre to -1..0 and 0.
    const Pt& a = pts.at({"W7", -1, 0, 1});
    EXPECT_EQ(a.family, "IsoLine");
    EXPECT_NEAR(a.v, 65.0f, 1e-3);
    EXPECT_NEAR(a.h, 1.5f, 1e-3);
    EXPECT_NEAR(a.x, 100, 1e-2);
    EXPECT_NEAR(pts.at({"W7", 0, 0, 1}).h, -999.9f, 1e-3);
    const Pt& v = pts.at({"W7", 0, 0, 2});
    EXPECT_EQ(v.family, "Via");
    EXPECT_NEAR(v.v, 81.5f, 1e-3);
    EXPECT_NEAR(v.y, 200, 1e-2);
}

TEST(ReadNanoSEM, RptFormThroughBothEntries) {
    for (ReaderFn fn : {ImportNanoSEM, ImportNanoSEM_RPTfile}) {
        Imported r = RunSample(fn, kNano, "nanosem_rpt.txt", "nanosem_rpt");
        ASSERT_TRUE(r.lot);
        const cLot& lot = *r.lot;
        EXPECT_EQ(lot.ValueV_Name, "CD_Top");
        EXPECT_EQ(lot.Slope_Name, "SWA");
        EXPECT_EQ(lot.LotName, "LT7790");
        EXPECT_EQ(UnitOf(r.tables.units, "SWA"), "deg");
        EXPECT_EQ(UnitOf(r.tables.units, "Height"), "um");
        EXPECT_EQ(InfoValue(r.tables.information, "Device").toString(), "DEV5");
        EXPECT_EQ(InfoValue(r.tables.information, "Level").toString(), "GATE");
        auto pts = Points(lot);
        EXPECT_EQ(pts.size(), 3u);  // the zeros of line 10 are excluded
        const Pt& a = pts.at({"W01", -1, 0, 1});
        EXPECT_NEAR(a.v, 88.0f, 1e-3);
        EXPECT_NEAR(a.z, 120.0f, 1e-3);
        EXPECT_NEAR(a.slope, 88500.0f, 1e-1);  // degrees as they stand
        EXPECT_EQ(a.family, "IsoLine");
        const Pt& b = pts.at({"W01", 0, 0, 1});
        EXPECT_NEAR(b.z, -999.9f, 1e-3);
        const Pt& c = pts.at({"W01", -1, 0, 2});
        EXPECT_NEAR(c.x, 1500, 1e-2);
        EXPECT_EQ(c.family, "DensePack");
        auto ex = ExcludedRows(r.workbook);
        ASSERT_EQ(ex.size(), 1u);
        EXPECT_EQ(ex[0].first, 10);
    }
}

TEST(ReadNanoSEM, BadInputFailsCleanly) {
    std::string report = ReadBytes(SamplePath("nanosem_report.txt"));
    std::string rpt = ReadBytes(SamplePath("nanosem_rpt.txt"));
    for (ReaderFn fn : {ImportNanoSEM, ImportNanoSEM_ByFamily}) {
        auto texts = BadInputs(fn, kNano, "nanosem_bad",
                               {{"empty", ""},
                                {"other", ReadBytes(SamplePath("kla_cdsem_fem.txt"))},
                                {"garbage", kGarbage},
                                {"truncated", report.substr(0, report.find("+--"))},
                                {"no_rows", report.substr(0, report.find("| 1 "))},
                                {"rpt_no_rows", rpt.substr(0, rpt.find("1,1,"))},
                                {"rpt_no_place", Replace(rpt, "LocationX_(field)", "Xf")}});
        EXPECT_TRUE(Has(texts["empty"], "Incomplete data file: empty.txt"));
        EXPECT_TRUE(Has(texts["other"], "End of file encountered early."));
        EXPECT_TRUE(Has(texts["garbage"], "File type incorrect: "));
        EXPECT_TRUE(Has(texts["truncated"], "Please check the import type or data file."));
        EXPECT_TRUE(Has(texts["no_rows"], "Incomplete data file: no_rows.txt"));
        EXPECT_TRUE(Has(texts["rpt_no_rows"], "Incomplete data file: rpt_no_rows.txt"));
        EXPECT_TRUE(Has(texts["rpt_no_place"], "This is not a proper format data sheet."));
    }
    // The RPT entry does not read the report form.
    auto texts = BadInputs(ImportNanoSEM_RPTfile, kNano, "nanosem_bad_rpt", {{"report", report}});
    EXPECT_TRUE(Has(texts["report"], "End of file encountered early."));
}


// ---------------------------------------------------------- Soluris IVS

constexpr const char* kYosemite = "Soluris Yosemite CD-SEM family";

TEST(ReadIVSyosemite, SampleWithUnits) {
    CaptureReporter cap;
    SetReporter(&cap);
    Imported r = RunSample(ImportIVSyosemite, kYosemite, "ivs_yosemite.txt", "ivs_units");
    SetReporter(nullptr);
    EXPECT_FALSE(cap.saw("Units-of-measure")) << cap.joined();
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(lot.ValueV_Name, "TOP_CD");
    EXPECT_EQ(lot.ValueH_Name, "BOTTOM_CD");
    EXPECT_EQ(lot.MetrologyTool, "Soluris CD-SEM");
    EXPECT_EQ(lot.LotName, "LT3300");
    EXPECT_EQ(UnitOf(r.tables.units, "TOP_CD"), "um");
    EXPECT_NEAR(lot.DieSizeX, 25000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 32000, 1e-3);
    // Columns 0..1 centre to -1..0; outputs of one field and place are one row.
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 5u);
    const Pt& a = pts.at({"W1", -1, 0, 1});
    EXPECT_NEAR(a.v, 70.5f, 1e-3);
    EXPECT_NEAR(a.h, 78.0f, 1e-3);
    EXPECT_NEAR(a.x, -1000, 1e-2);
    EXPECT_EQ(a.family, "IsoLine");
    EXPECT_NEAR(pts.at({"W1", 0, 0, 1}).h, 77.5f, 1e-3);  // "0.0775 um"
    const Pt& b = pts.at({"W1", 0, 0, 2});
    EXPECT_NEAR(b.v, -999.9f, 1e-3);  // the failed -1 went to "Excluded"
    EXPECT_NEAR(b.h, 97.0f, 1e-3);
    EXPECT_EQ(b.family, "DensePack");
    EXPECT_NEAR(pts.at({"W2", -1, 0, 1}).v, 69.5f, 1e-3);
    auto ex = ExcludedRows(r.workbook);
    ASSERT_EQ(ex.size(), 1u);
    EXPECT_EQ(ex[0].first, 24);
    EXPECT_NEAR(ex[0].second, -0.001, 1e-12);
}

TEST(ReadIVSyosemite, SampleWithoutUnitsSaysSo) {
    CaptureReporter cap;
    SetReporter(&cap);
    Imported r = RunSample(ImportIVSyosemite, kYosemite, "ivs_yosemite_nounits.txt", "ivs_nounits");
    SetReporter(nullptr);
    EXPECT_TRUE(cap.saw("This format does not include the Units-of-measure for variables.")) << cap.joined();
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(r.lot->LotName, "LT4400");  // "LOT_#"
    auto pts = Points(*r.lot);
    ASSERT_EQ(pts.size(), 2u);  // the third line has no value
    // Field 1 is (0, 0), field 5 of a 3-column grid (1, 1); both axes centre by 1.
    const Pt& a = pts.at({"W3", -1, -1, 1});
    EXPECT_NEAR(a.v, 55500.0f, 1e-1);  // as written, no unit
    EXPECT_NEAR(a.x, -100, 1e-2);
    EXPECT_NEAR(a.y, 100, 1e-2);
    EXPECT_EQ(a.family, "Via");
    EXPECT_NEAR(pts.at({"W3", 0, 0, 1}).v, 56000.0f, 1e-1);
    EXPECT_NEAR(r.lot->DieSizeX, 20000, 1e-3);
}

TEST(ReadIVSyosemite, BadInputFailsCleanly) {
    std::string good = ReadBytes(SamplePath("ivs_yosemite.txt"));
    auto texts = BadInputs(ImportIVSyosemite, kYosemite, "ivs_bad",
                           {{"empty", ""},
                            {"other", ReadBytes(SamplePath("kla_cdsem_fem.txt"))},
                            {"garbage", kGarbage},
                            {"truncated", good.substr(0, good.find("WAFER FIELD"))},
                            {"no_rows", good.substr(0, good.find("1     1 "))}});
    EXPECT_TRUE(Has(texts["empty"], "Incomplete data file: empty.txt"));
    EXPECT_TRUE(Has(texts["other"], "End of file encountered early."));
    EXPECT_TRUE(Has(texts["garbage"], "File type incorrect: "));
    EXPECT_TRUE(Has(texts["truncated"], "Please check the import type or data file."));
    EXPECT_TRUE(Has(texts["no_rows"], "Incomplete data file: no_rows.txt"));
}


// ------------------------------------------------------------ Accent CDS

constexpr const char* kAccent = "Accent Optical CDS";

TEST(ReadAccentCDS, SampleWithUnitsAndLimits) {
    Imported r = RunSample(ImportAccentCDS, kAccent, "accent_cds.txt", "accent");
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "Accent CDS");
    EXPECT_EQ(InfoValue(r.tables.information, "Data Type").toString(), "Scatter");
    EXPECT_EQ(lot.LotName, "LT5500");
    EXPECT_EQ(lot.ValueV_Name, "CD");
    EXPECT_EQ(lot.ValueH_Name, "HEIGHT");
    EXPECT_EQ(lot.valueZ_Name, "SWA");
    EXPECT_EQ(lot.Slope_Name, "PITCH");
    EXPECT_EQ(lot.Pitch_Name, "MSE");
    EXPECT_EQ(UnitOf(r.tables.units, "CD"), "um");
    EXPECT_EQ(UnitOf(r.tables.units, "SWA"), "deg");
    EXPECT_EQ(lot.Wafers().Count(), 2);
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 5u);
    // Columns 0..1 centre to -1..0.
    const Pt& a = pts.at({"W1", -1, 0, 1});
    EXPECT_NEAR(a.v, 91.2f, 1e-3);
    EXPECT_NEAR(a.h, 120.5f, 1e-3);
    EXPECT_NEAR(a.z, 88200.0f, 1e-1);  // degrees as they stand
    EXPECT_NEAR(a.slope, 180.0f, 1e-3);
    EXPECT_NEAR(a.pitch, 12.0f, 1e-3);
    EXPECT_NEAR(a.focus, -0.1f, 1e-6);
    EXPECT_NEAR(a.x, -1200, 1e-2);
    EXPECT_EQ(a.family, "DensePack");  // LINE/SPACE
    const Pt& b = pts.at({"W1", 0, 0, 2});
    EXPECT_NEAR(b.v, 74.2f, 1e-3);
    EXPECT_EQ(b.family, "IsoLine");
    EXPECT_NEAR(b.y, -600, 1e-2);
    EXPECT_NEAR(pts.at({"W2", -1, 0, 1}).v, 92.0f, 1e-3);
}

TEST(ReadAccentCDS, VariedSampleOfOtherSpellings) {
    // Commas, XPOSITION in mm, THK, FOC/SCAN, SLP, PTC, %RMSE, a blank and a
    // note column, no site numbers, the wafer in the header.
    Imported r = RunSample(ImportAccentCDS, kAccent, "accent_cds_varied.txt", "accent_varied");
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(r.lot->ValueV_Name, "THK");
    EXPECT_EQ(r.lot->ValueH_Name, "SLP");
    EXPECT_EQ(r.lot->valueZ_Name, "PTC");
    EXPECT_EQ(r.lot->Slope_Name, "%RMSE");
    EXPECT_EQ(r.lot->Pitch_Name, "");
    auto pts = Points(*r.lot);
    ASSERT_EQ(pts.size(), 3u);
    // Columns 3..4 centre to -1..0; places numbered as met.
    const Pt& a = pts.at({"W7", -1, 0, 1});
    EXPECT_NEAR(a.v, 250.0f, 1e-3);
    EXPECT_NEAR(a.h, 85000.0f, 1e-1);
    EXPECT_NEAR(a.z, 200.0f, 1e-3);
    EXPECT_NEAR(a.slope, 1500.0f, 1e-1);
    EXPECT_NEAR(a.x, 500, 1e-2);
    EXPECT_NEAR(a.y, -250, 1e-2);
    EXPECT_NEAR(a.focus, 0.05f, 1e-6);
    EXPECT_EQ(a.family, "Via");
    const Pt& b = pts.at({"W7", 0, 0, 2});
    EXPECT_NEAR(b.v, 248.0f, 1e-3);
    EXPECT_NEAR(b.h, -999.9f, 1e-3);
    EXPECT_NEAR(b.x, -750, 1e-2);
}

TEST(ReadAccentCDS, BadInputFailsCleanly) {
    std::string good = ReadBytes(SamplePath("accent_cds.txt"));
    auto texts = BadInputs(ImportAccentCDS, kAccent, "accent_bad",
                           {{"empty", ""},
                            {"other", ReadBytes(SamplePath("nanosem_report.txt"))},
                            {"garbage", kGarbage},
                            {"truncated", good.substr(0, good.find("WAFER DIEX"))},
                            {"no_rows", good.substr(0, good.find("1     0 "))},
                            {"no_place", Replace(Replace(good, "XPOS", "XX"), "YPOS", "YY")}});
    EXPECT_TRUE(Has(texts["empty"], "Incomplete data file: empty.txt"));
    EXPECT_TRUE(Has(texts["other"], "End of file encountered early."));
    EXPECT_TRUE(Has(texts["garbage"], "File type incorrect: "));
    EXPECT_TRUE(Has(texts["truncated"], "Please check the import type or data file."));
    EXPECT_TRUE(Has(texts["no_rows"], "Incomplete data file: no_rows.txt"));
    EXPECT_TRUE(Has(texts["no_place"], "No feature position information in data file. Aborting ..."));
}


// Each sample is recognised as its own row by the format detection.
TEST(ReadCdsemSamples, DetectedAsTheirRows) {
    const std::pair<const char*, const char*> samples[] = {
        {"hitachi_cdsem_fem.txt", kHitachi},       {"hitachi_cdsem_stats.txt", kHitachiStats},
        {"nanosem_report.txt", kNano},             {"nanosem_family.txt", kNano},
        {"nanosem_rpt.txt", kNano},                {"ivs_yosemite.txt", kYosemite},
        {"ivs_yosemite_nounits.txt", kYosemite},   {"accent_cds.txt", kAccent},
        {"accent_cds_varied.txt", kAccent}};
    for (auto [file, row] : samples) {
        Detection d = DetectFormat(SamplePath(file).string());
        EXPECT_EQ(d.description, row) << file << ": " << d.why;
    }
}

}  // namespace
}  // namespace zorv
