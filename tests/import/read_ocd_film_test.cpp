// The scatterometry and film readers, from the sample files to the loaded
// lot. Expected values are worked out by hand from the samples' text.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <tuple>

#include "app/shutdown.h"
#include "base/text.h"
#include "import_test_util.h"
#include "lot/lot.h"
#include "readers_ocd_film.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

// Points by wafer key, field relative to the lowest field, site number.
using PtKey = std::tuple<std::string, int, int, int>;
struct Pt {
    float v, h, z, slope, pitch;
    float x, y;  // site in the field, um
    float focus, dose;
    bool operator==(const Pt&) const = default;
};

std::map<PtKey, Pt> Points(const cLot& lot) {
    float x0 = 1e9f, y0 = 1e9f;
    lot.forEachLive([&](cWafer&, cField& f, cSite&, cPoint&) {
        x0 = std::min(x0, f.DieX);
        y0 = std::min(y0, f.DieY);
    });
    std::map<PtKey, Pt> m;
    lot.forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        m[{w.KeyName, static_cast<int>(f.DieX - x0), static_cast<int>(f.DieY - y0), s.NumberKey()}] = {
            p.ValueV, p.ValueH, p.ValueZ, p.Slope, p.Pitch, s.LocationX, s.LocationY, f.Focus, f.Dose};
    });
    return m;
}

// The unit the workbook keeps for a feature, "" when none.
std::string UnitOf(const Datam& units, const std::string& feature) {
    if (!units.isArray()) return {};
    for (int r = units.rowLb(); r <= units.rowUb(); ++r)
        if (IEquals(units(r, units.colLb()).toString(), feature)) return units(r, units.colLb() + 1).toString();
    return {};
}

// An Information value by key.
std::string Info(const Datam& info, const std::string& key) {
    for (int r = info.rowLb(); r <= info.rowUb(); ++r)
        if (IEquals(info(r, info.colLb()).toString(), key)) return info(r, info.colLb() + 1).toString();
    return {};
}

std::string Families(const cLot& lot) {
    std::string s;
    for (int i = 1; i <= lot.FamilyNames.rowUb(); ++i) s += std::string(lot.FamilyNames.get(i, 1).str()) + ",";
    return s;
}

// The source lines of the rows on the "Excluded" sheet.
std::vector<int> ExcludedLines(const std::string& workbook) {
    std::vector<int> lines;
    WorkbookPtr wb;
    EXPECT_TRUE(OpenExcelWorksheet(workbook, wb, nullptr, false).ok());
    Worksheet* ex = wb ? wb->sheet("Excluded") : nullptr;
    if (ex) {
        Area a = ex->usedArea();
        Datam u = ex->range(Area{1, 1, a.row2, a.col2});
        int hr = -1, hc = -1;
        FindFirstRow(u, hr, hc, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
        for (int r = hr + 1; hr >= 0 && r <= u.rowUb(); ++r) lines.push_back(static_cast<int>(u(r, hc - 1).toDouble()));
    }
    Workbooks::CloseAll();
    return lines;
}

// The source copied into a fresh folder, through `reader`, and the
// workbook loaded back.
using Loaded = Imported;
// The reader held under Exiting, as the dispatch holds it.
Loaded Load(ReaderFn reader, const std::string& description, const fs::path& src) {
    struct Hold {
        bool was = Exiting();
        Hold() { SetExiting(true); }
        ~Hold() { SetExiting(was); }
    } hold;
    ImportRequest req;
    req.path = src.string();
    req.description = description;
    return ReadBack(reader, req);
}
Loaded LoadSample(ReaderFn reader, const std::string& description, const std::string& sample,
                  const std::string& dirName) {
    auto dir = FreshDir(dirName);
    fs::copy_file(SamplePath(sample), dir / sample);
    return Load(reader, description, dir / sample);
}

Failure Fails(ReaderFn reader, const std::string& description, const fs::path& src) {
    ImportRequest req;
    req.path = src.string();
    req.description = description;
    Result<std::string> w = reader(req);
    EXPECT_FALSE(w.ok()) << src;
    Workbooks::CloseAll();
    return w.ok() ? Failure{} : w.failure();
}

// Bad input for a reader: each case fails naming the file (and the line
// when `withLine`), leaves no workbook and the source as it was.
struct BadCase {
    std::string name, bytes, message;
    bool withLine;
};
void ExpectBadInput(ReaderFn reader, const std::string& description, const std::string& dirName,
                    const std::vector<BadCase>& cases) {
    auto dir = FreshDir(dirName);
    for (const BadCase& c : cases) {
        fs::path src = dir / (c.name + ".txt");
        WriteBytes(src, c.bytes);
        Failure f = Fails(reader, description, src);
        EXPECT_EQ(f.file, src.string()) << c.name;
        EXPECT_NE(f.message().find(src.string()), std::string::npos) << c.name;
        if (!c.message.empty()) {
            EXPECT_NE(f.text.find(c.message), std::string::npos) << c.name << ": " << f.text;
        }
        if (c.withLine) {
            EXPECT_GT(f.row, 0) << c.name;
        }
        EXPECT_EQ(WorkbooksIn(dir), 0) << c.name;
        EXPECT_EQ(ReadBytes(src), c.bytes) << c.name;
    }
}

const std::string kGarbage("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\x01\0POINT#,X(mm)\n\xff\xfe", 38);
const std::string kOtherFormat = "Wafer,Site,X,Y,CD\r\n1,1,0,0,90\r\n";

// ------------------------------------------------------------ NanoMetrics

constexpr const char* kNano = "NanoMetrics OCD";
constexpr const char* kNanoReticle = "NanoMetrics OCD(strReticle)";

TEST(ReadOcdFilm, NanoMetricsSampleReadsToTheLotItDescribes) {
    Loaded r = LoadSample(ImportNanoMetricsOCD, kNano, "nanometrics_ocd.txt", "rd_nano");
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    // Two wafers of three dies (columns 1..2, rows 1..2), two points each;
    // wafer 02's point 2 of die (1, 2) has OffW set and is excluded.
    auto pts = Points(lot);
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(pts.size(), 11u);
    EXPECT_EQ(pts.count({"W2", 0, 1, 2}), 0u);  // wafer "02" is the number 2
    EXPECT_EQ(ExcludedLines(r.workbook), std::vector<int>{26});
    EXPECT_EQ(lot.ValueV_Name, "Resist");
    EXPECT_EQ(lot.ValueH_Name, "LINE_CD");
    EXPECT_EQ(UnitOf(r.tables.units, "Resist"), "nm");
    EXPECT_EQ(lot.MetrologyTool, "NanolineOCD");
    EXPECT_EQ(lot.LotName, "LT0042");
    // Wafer 01, die column 2 row 1, point 2 at (5, -4) mm:
    // Resist 800 + 20 + 1 + 2 = 823.0 nm, LINE_CD 45 + 2 + 0.1 + 0.02 = 47.12 nm.
    const Pt& p = pts.at({"W1", 1, 0, 2});
    EXPECT_NEAR(p.v, 823000, 1e-1);
    EXPECT_NEAR(p.h, 47120, 1e-1);
    EXPECT_NEAR(p.x, 5000, 1e-2);
    EXPECT_NEAR(p.y, -4000, 1e-2);
    // Wafer 02 is half a nanometre thicker.
    EXPECT_NEAR(pts.at({"W2", 1, 0, 2}).v, 823500, 1e-1);
    EXPECT_NE(Families(lot).find("IsoLine"), std::string::npos) << Families(lot);  // from LINE_CD
}

TEST(ReadOcdFilm, NanoMetricsReticleNeedsRowAndColumn) {
    Loaded r = LoadSample(ImportNanoMetricsOCDreticle, kNanoReticle, "nanometrics_ocd_reticle.txt", "rd_nanoret");
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    EXPECT_EQ(pts.size(), 9u);
    EXPECT_EQ(r.lot->ValueV_Name, "VIA_CD");
    EXPECT_EQ(r.lot->MetrologyTool, "NanolineOCD");
    EXPECT_EQ(Info(r.tables.information, "strReticle"), "R7781-A");
    // Column 1, row 0, point 3: 200 + 2 + 0 + 1.5 = 203.5 nm at (1500, -1200) um.
    const Pt& p = pts.at({"R7781-A", 1, 0, 3});
    EXPECT_NEAR(p.v, 203500, 1e-1);
    EXPECT_NEAR(p.x, 1500, 1e-2);
    EXPECT_NEAR(p.y, -1200, 1e-2);
    EXPECT_NE(Families(*r.lot).find("Via"), std::string::npos) << Families(*r.lot);

    const std::string good = ReadBytes(SamplePath("nanometrics_ocd_reticle.txt"));
    ExpectBadInput(ImportNanoMetricsOCDreticle, kNanoReticle, "rd_nanoret_bad",
                   {{"no_row", Replace(good, "DIE_ROW", "BLOCK"), "No Die-Row information.", true},
                    {"no_col", Replace(good, "DIE_COL", "BLOCK"), "No Die-Column information.", true},
                    {"short_row", good.substr(0, good.find("\n0\t2\t")) + "\n0\t2\t0\n", "Wrong data format.", true},
                    {"empty", "", "Wrong data format.", false},
                    {"other", kOtherFormat, "Wrong data format.", false},
                    {"garbage", kGarbage, "File type incorrect: ", true}});
}

TEST(ReadOcdFilm, NanoMetricsBadInputFailsCleanly) {
    const std::string good = ReadBytes(SamplePath("nanometrics_ocd.txt"));
    ExpectBadInput(ImportNanoMetricsOCD, kNano, "rd_nano_bad",
                   {{"empty", "", "Incomplete data file: ", false},
                    {"other", kOtherFormat, "End of file encountered early.", true},
                    {"garbage", kGarbage, "File type incorrect: ", true},
                    {"truncated", good.substr(0, good.find("Point#") + 3), "End of file encountered early.", true},
                    {"header_only", good.substr(0, good.find("\r\n", good.find("Point#")) + 2),
                     "Incomplete data file: ", true}});
}


// ------------------------------------------------------------ Therma-Wave

constexpr const char* kRTCD = "Therma-Wave RTCD (*.csv)";

TEST(ReadOcdFilm, ThermaWaveSampleReadsToTheLotItDescribes) {
    Loaded r = LoadSample(ImportThermaWaveProfile, kRTCD, "thermawave_rtcd.txt", "rd_tw");
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    // Two files (wafers) of five points, all in one field.
    auto pts = Points(lot);
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(pts.size(), 10u);
    EXPECT_EQ(lot.ValueV_Name, "Horizontal");
    EXPECT_EQ(lot.ValueH_Name, "Vertical");
    EXPECT_EQ(lot.valueZ_Name, "Z");
    EXPECT_EQ(lot.Slope_Name, "Slope");
    EXPECT_EQ(lot.Pitch_Name, "Pitch");
    EXPECT_EQ(UnitOf(r.tables.units, "Horizontal"), "nm");
    EXPECT_EQ(UnitOf(r.tables.units, "Slope"), "deg");
    EXPECT_EQ(lot.MetrologyTool, "Therma-Wave RTCD");
    EXPECT_EQ(lot.LotName, "LT0101");
    // Second file, point 3 at (-50, 0) mm: H 45 + 1.5 + 0.2, V 123, Z 30, slope 88.3, pitch 180.
    const Pt& p = pts.at({"W04_GATE", 0, 0, 3});
    EXPECT_NEAR(p.v, 46700, 1e-1);
    EXPECT_NEAR(p.h, 123000, 1e-1);
    EXPECT_NEAR(p.z, 30000, 1e-1);
    EXPECT_NEAR(p.slope, 88300, 1e-1);
    EXPECT_NEAR(p.pitch, 180000, 1e-1);
    EXPECT_NEAR(p.x, -50000, 1e-1);
    EXPECT_NE(Families(lot).find("IsoLine"), std::string::npos) << Families(lot);  // "GATE_LINE"
}

TEST(ReadOcdFilm, ThermaWaveHorixontalOtherOrderAndUnitColumn) {
    // Tabs, "Horixontal", columns in another order with a blank one, the
    // vertical unit in a column, positions in micrometres, the slot as wafer.
    Loaded r = LoadSample(ImportThermaWaveProfile, kRTCD, "thermawave_rtcd_varied.txt", "rd_tw2");
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    EXPECT_EQ(pts.size(), 5u);
    EXPECT_EQ(r.lot->ValueV_Name, "Horizontal");
    EXPECT_EQ(r.lot->ValueH_Name, "Vertical");
    EXPECT_EQ(UnitOf(r.tables.units, "Horizontal"), "nm");
    EXPECT_EQ(UnitOf(r.tables.units, "Vertical"), "nm");
    // Point 2: H 60 + 2, V 200 + 4, at X 50000 um.
    const Pt& p = pts.at({"W7", 0, 0, 2});
    EXPECT_NEAR(p.v, 62000, 1e-1);
    EXPECT_NEAR(p.h, 204000, 1e-1);
    EXPECT_NEAR(p.x, 50000, 1e-1);
    EXPECT_NEAR(p.y, 0, 1e-1);
    EXPECT_NE(Families(*r.lot).find("Via"), std::string::npos) << Families(*r.lot);
}

TEST(ReadOcdFilm, ThermaWaveBadInputFailsCleanly) {
    const std::string good = ReadBytes(SamplePath("thermawave_rtcd.txt"));
    const size_t head = good.find("Measurement Point Number");
    ExpectBadInput(ImportThermaWaveProfile, kRTCD, "rd_tw_bad",
                   {{"empty", "", "Incomplete data file: ", false},
                    {"other", kOtherFormat, "End of file encountered early.", true},
                    {"garbage", kGarbage, "File type incorrect: ", true},
                    {"truncated", good.substr(0, head + 11), "End of file encountered early.", true},
                    {"header_only", good.substr(0, good.find("\r\n", head) + 2), "Incomplete data file: ", true},
                    {"no_profile", "File:,W1.csv\r\nPoint Number,X,Y,GOF\r\n1,0,0,0.9\r\n",
                     "Header information for measured data not found. Aborting ...", true}});
}

// ------------------------------------------------------------ Timbre ODP

constexpr const char* kODP = "Timbre Tech. ODP (*.odp;*.csv)";

TEST(ReadOcdFilm, TimbrePlainAndVerboseGiveTheSameLot) {
    Loaded a = LoadSample(ImportTimbreODP, kODP, "timbre_odp_plain.txt", "rd_odp_plain");
    Loaded b = LoadSample(ImportTimbreODP_Verbose, kODP, "timbre_odp_verbose.txt", "rd_odp_verbose");
    Loaded c = LoadSample(ImportTimbreODP, kODP, "timbre_odp_verbose.txt", "rd_odp_either");
    ASSERT_TRUE(a.lot && b.lot && c.lot);
    auto pts = Points(*a.lot);
    // Two wafers of three dies with two sites; one measurement has its alarm set.
    EXPECT_EQ(a.lot->Wafers().Count(), 2);
    EXPECT_EQ(pts.size(), 11u);
    EXPECT_EQ(pts.count({"W2", 1, 0, 1}), 0u);
    // The alarm's line: the third row of slot 2's table; the line of its record in the verbose file.
    EXPECT_EQ(ExcludedLines(a.workbook), std::vector<int>{30});
    EXPECT_EQ(ExcludedLines(b.workbook), std::vector<int>{53});
    EXPECT_EQ(a.lot->ValueV_Name, "CD");
    EXPECT_EQ(a.lot->ValueH_Name, "HEIGHT");
    EXPECT_EQ(a.lot->valueZ_Name, "SWA");
    EXPECT_EQ(UnitOf(a.tables.units, "CD"), "nm");
    EXPECT_EQ(UnitOf(a.tables.units, "HEIGHT"), "nm");
    EXPECT_EQ(UnitOf(a.tables.units, "SWA"), "deg");
    EXPECT_EQ(a.lot->MetrologyTool, "Timbre Tech ODP");
    EXPECT_EQ(a.lot->LotName, "LT0099");
    EXPECT_NEAR(a.lot->DieSizeX, 26000, 1e-3);
    EXPECT_NEAR(a.lot->DieSizeY, 33000, 1e-3);
    // Slot 2, die column 0 row 1, site 2: CD 40 + 2 + 0 + 0.5 + 0.1; the site
    // at (5, -5) mm in the field, whatever die it was measured in.
    const Pt& p = pts.at({"W2", 0, 1, 2});
    EXPECT_NEAR(p.v, 42600, 1e-1);
    EXPECT_NEAR(p.h, 104000, 1e-1);
    EXPECT_NEAR(p.z, 88200, 1e-1);
    EXPECT_NEAR(p.x, 5000, 1e-1);
    EXPECT_NEAR(p.y, -5000, 1e-1);
    EXPECT_EQ(Points(*b.lot), pts);
    EXPECT_EQ(Points(*c.lot), pts);
}

TEST(ReadOcdFilm, TimbreBadInputFailsCleanly) {
    const std::string plain = ReadBytes(SamplePath("timbre_odp_plain.txt"));
    const std::string verbose = ReadBytes(SamplePath("timbre_odp_verbose.txt"));
    ExpectBadInput(ImportTimbreODP, kODP, "rd_odp_bad",
                   {{"empty", "", "Incomplete data file: ", false},
                    {"other", kOtherFormat, "End of file encountered early.", true},
                    {"garbage", kGarbage, "File type incorrect: ", true},
                    {"truncated", plain.substr(0, plain.find("MEAS.NO") + 4), "End of file encountered early.", true},
                    {"value_without_name", Replace(verbose, "N=HEIGHT V=", "V="), "Wrong data format.", true}});
    // The verbose reader refuses a plain table.
    ExpectBadInput(ImportTimbreODP_Verbose, kODP, "rd_odp_bad_verbose",
                   {{"plain", plain, "Wrong data format.", true}, {"garbage", kGarbage, "File type incorrect: ", true}});
}

// ------------------------------------------------------------ KLA ProData

constexpr const char* kProData = "KLA ProData Files";

TEST(ReadOcdFilm, ProDataSampleReadsToTheFocusExposureLot) {
    Loaded r = LoadSample(ImportKLAProData, kProData, "kla_prodata_fem.txt", "rd_pfe");
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    // 5 foci by 3 exposures, one repeat at (0, 20) as site 2, one empty row.
    auto pts = Points(lot);
    EXPECT_EQ(lot.Wafers().Count(), 1);
    EXPECT_EQ(pts.size(), 16u);
    EXPECT_EQ(lot.ValueV_Name, "Linewidth");
    EXPECT_EQ(UnitOf(r.tables.units, "Linewidth"), "nm");
    EXPECT_EQ(lot.MetrologyTool, "KLA ProData");
    EXPECT_EQ(lot.LotName, "LT0815");
    // Focus 200 nm (column 4), exposure 18 (row 0): 180 - 50 * 0.2^2 + 2 * (18 - 20) = 174.
    const Pt& p = pts.at({"W1", 4, 0, 1});
    EXPECT_NEAR(p.v, 174000, 1e-1);
    EXPECT_NEAR(p.focus, 0.2f, 1e-6);  // nm in the file, um in the layout
    EXPECT_NEAR(p.dose, 18.0f, 1e-6);
    EXPECT_NEAR(pts.at({"W1", 2, 1, 1}).v, 180000, 1e-1);
    EXPECT_NEAR(pts.at({"W1", 2, 1, 2}).v, 180400, 1e-1);
    EXPECT_NEAR(pts.at({"W1", 0, 2, 1}).focus, -0.2f, 1e-6);
    EXPECT_NEAR(pts.at({"W1", 0, 2, 1}).dose, 22.0f, 1e-6);
    EXPECT_NE(Info(r.tables.information, "Comments").find("TargetCD: 180"), std::string::npos)
        << Info(r.tables.information, "Comments");
    EXPECT_NE(Families(lot).find("IsoLine"), std::string::npos) << Families(lot);  // "Linewidth"
}

TEST(ReadOcdFilm, ProDataDefaultColumnOrderAndBadInput) {
    // Without FormatOfData: focus (um), exposure, value; two values per row.
    auto dir = FreshDir("rd_pfe_default");
    WriteBytes(dir / "d.pfe", "TypeOfData = CD\nTarget = 0.25\nDATA\n0.1 20 0.251\n-0.1 20 0.249\n0.1 24 0.240\n");
    Loaded r = Load(ImportKLAProData, kProData, dir / "d.pfe");
    ASSERT_TRUE(r.lot);
    auto pts = Points(*r.lot);
    EXPECT_EQ(pts.size(), 3u);
    EXPECT_EQ(r.lot->ValueV_Name, "CD");
    EXPECT_NEAR(pts.at({"W1", 1, 1, 1}).v, 240, 1e-2);
    EXPECT_NEAR(pts.at({"W1", 0, 0, 1}).focus, -0.1f, 1e-6);

    const std::string good = ReadBytes(SamplePath("kla_prodata_fem.txt"));
    ExpectBadInput(ImportKLAProData, kProData, "rd_pfe_bad",
                   {{"empty", "", "Incomplete data file: ", false},
                    {"other", kOtherFormat, "End of file encountered early.", true},
                    {"garbage", kGarbage, "File type incorrect: ", true},
                    {"truncated", good.substr(0, good.find("Target")), "End of file encountered early.", true},
                    {"no_rows", good.substr(0, good.find("\r\nData\r\n") + 8), "Incomplete data file: ", true},
                    {"no_focus", Replace(good, "Exposure Focus Linewidth", "Exposure Linewidth Sigma"),
                     "Header information for measured data not found. Aborting ...", true}});
}

// ------------------------------------------------------------ KLA ASET F5

constexpr const char* kAset = "KLA ASET F5 Ellipsometer";

TEST(ReadOcdFilm, AsetF5SampleGivesAFeaturePerMaterial) {
    Loaded r = LoadSample(ImportKLAAsetF5, kAset, "kla_asetf5.txt", "rd_aset");
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    // Two slots of five sites; oxide and nitride share each site's row.
    auto pts = Points(lot);
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(pts.size(), 10u);
    EXPECT_EQ(lot.ValueV_Name, "OXIDE");
    EXPECT_EQ(lot.ValueH_Name, "NITRIDE");
    EXPECT_EQ(UnitOf(r.tables.units, "OXIDE"), "A");
    EXPECT_EQ(lot.MetrologyTool, "KLA ASET F5");
    EXPECT_EQ(lot.LotName, "LT0077");
    // Slot 4, site 2 in field 4 (column 3 from the lowest), at (50, 0) mm:
    // oxide 1000 + 20 + 2.5, nitride 500 + 20 + 2.5 (from the table in another order).
    const Pt& p = pts.at({"W4", 3, 0, 2});
    EXPECT_NEAR(p.v, 1022500, 1e-1);
    EXPECT_NEAR(p.h, 522500, 1e-1);
    EXPECT_NEAR(p.x, 50000, 1e-1);
    EXPECT_NEAR(pts.at({"W3", 0, 0, 4}).v, 1040000, 1e-1);
}

TEST(ReadOcdFilm, AsetF5BadInputFailsCleanly) {
    const std::string good = ReadBytes(SamplePath("kla_asetf5.txt"));
    const size_t head = good.find("SITE #");
    ExpectBadInput(ImportKLAAsetF5, kAset, "rd_aset_bad",
                   {{"empty", "", "Incomplete data file: ", false},
                    {"other", kOtherFormat, "Header information for measured data not found.", true},
                    {"garbage", kGarbage, "File type incorrect: ", true},
                    {"truncated", good.substr(0, head - 3), "End of file encountered early.", true},
                    {"header_only", good.substr(0, good.find("\r\n", head) + 2), "Incomplete data file: ", true},
                    {"no_thickness", Replace(good, "THICKNESS (A)", "VALUE (A)"),
                     "Header information for measured data not found. Aborting ...", true}});
}

}  // namespace
}  // namespace zorv
