// The KLA 8xxx CD-SEM reader, from the raw report to the loaded lot.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>

#include "base/text.h"
#include "import_test_util.h"
#include "app/shutdown.h"
#include "lot/lot.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

constexpr const char* kCDSEM = "KLA 8xxx CD-SEM";

// One point as the lot holds it, for comparing two lots.
struct PointKey {
    std::string wafer;
    float dieX, dieY;
    int site;
    auto operator<=>(const PointKey&) const = default;
};
struct PointVal {
    float v, h, focus, dose, x, y;
    bool operator==(const PointVal&) const = default;
};
std::map<PointKey, PointVal> Points(const cLot& lot) {
    std::map<PointKey, PointVal> m;
    lot.forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        m[{w.KeyName, f.DieX, f.DieY, s.NumberKey()}] = {p.ValueV, p.ValueH, f.Focus, f.Dose, s.LocationX,
                                                         s.LocationY};
    });
    return m;
}

// A small report with the header pair and the given data lines.
std::string Report(const std::string& notch, const std::string& before = "", const std::string& rows = "",
                   const std::string& eol = "\r\n") {
    std::string s = "KLA-Tencor CD SEM" + eol + before;
    s += "PROCESS_DEVICE BEAM_FILE LAYER LOT X_STEP_SIZE Y_STEP_SIZE DATE TIME ORIENTATION_OF_NOTCH" + eol;
    s += "DEV BF1 POLY L9 20000 30000 1/2/2026 9:15 PM " + notch + eol;
    s += "WAFER_ID COLUMN ROW SITE X_SITE_LOC Y_SITE_LOC FEATURE  MEAS_1" + eol;
    s += rows.empty() ? "1        0      0   1    1000       -2000      ISO_LINE 95.5" + eol : rows;
    return s;
}

TEST(KLACDsem, SampleReadsToTheLotItDescribes) {
    auto dir = FreshDir("kla_sample");
    fs::copy_file(SamplePath("kla_cdsem_fem.txt"), dir / "fem.txt");
    Imported r = ImportAndLoad((dir / "fem.txt").string(), kCDSEM);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    // 2 wafers of 5 focus columns by 3 dose rows, 2 sites per field.
    EXPECT_EQ(lot.Wafers().Count(), 2);
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 60u);
    EXPECT_EQ(lot.ValueV_Name, "MEAS_1");
    EXPECT_EQ(lot.ValueH_Name, "MEAS_2");
    EXPECT_EQ(lot.LotName, "LT0001");
    EXPECT_NEAR(lot.DieSizeX, 26000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 33000, 1e-3);
    EXPECT_EQ(lot.GetNotchString(), "Down");  // "180"
    // The first line of data: wafer W01, column 3, row 2 (centred to -2, -1),
    // site 1 at (-5000, 5000) um, 93.36 nm at focus -0.2, dose 18.
    // Columns 3..7 centre on 5, rows 2..4 on 3.
    const PointVal& p = pts.at({"W01", -2, -1, 1});
    EXPECT_NEAR(p.v, 93.36f, 1e-3);
    EXPECT_NEAR(p.h, 116.70f, 1e-3);
    EXPECT_NEAR(p.focus, -0.2f, 1e-6);
    EXPECT_NEAR(p.dose, 18.0f, 1e-6);
    EXPECT_NEAR(p.x, -5000, 1e-2);
    EXPECT_NEAR(p.y, 5000, 1e-2);
    // The last field of wafer 2: column 7, row 4; focus 0.2, dose 22.
    const PointVal& q = pts.at({"W02", 2, 1, 2});
    EXPECT_NEAR(q.focus, 0.2f, 1e-6);
    EXPECT_NEAR(q.dose, 22.0f, 1e-6);
    // Families from the feature words: LINE and SPACE.
    std::string fams;
    for (int i = 1; i <= lot.FamilyNames.rowUb(); ++i) fams += std::string(lot.FamilyNames.get(i, 1).str()) + ",";
    EXPECT_NE(fams.find("IsoLine"), std::string::npos) << fams;
    EXPECT_NE(fams.find("DensePack"), std::string::npos) << fams;
}

TEST(KLACDsem, MacintoshLineEndsReadToTheSameLot) {
    auto dir = FreshDir("kla_mac");
    std::string crlf = ReadBytes(SamplePath("kla_cdsem_fem.txt"));
    std::string cr = Replace(crlf, "\r\n", "\r");
    WriteBytes(dir / "dos.txt", crlf);
    fs::create_directories(dir / "mac");
    WriteBytes(dir / "mac" / "dos.txt", cr);
    Imported a = ImportAndLoad((dir / "dos.txt").string(), kCDSEM);
    Imported b = ImportAndLoad((dir / "mac" / "dos.txt").string(), kCDSEM);
    ASSERT_TRUE(a.lot && b.lot);
    EXPECT_EQ(Points(*a.lot), Points(*b.lot));
    // The rewritten copy stands beside the source, with CR LF; the source is as it was.
    EXPECT_EQ(ReadBytes(dir / "mac" / "Zorvdos.txt"), crlf);
    EXPECT_EQ(ReadBytes(dir / "mac" / "dos.txt"), cr);
}

TEST(KLACDsem, VariedSampleSkipsFailedAndExcludesZeroRows) {
    // Other column order, MEASURE_1, a blank column, CR-only line ends, notch
    // 270, step sizes 0, a "*****" row and a 0.00 row among 18.
    auto dir = FreshDir("kla_varied");
    fs::copy_file(SamplePath("kla_cdsem_mac.txt"), dir / "mac.txt");
    Imported r = ImportAndLoad((dir / "mac.txt").string(), kCDSEM);
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(Points(*r.lot).size(), 16u);
    EXPECT_EQ(r.lot->ValueV_Name, "MEASURE_1");
    EXPECT_EQ(r.lot->GetNotchString(), "Left");
    // Three sites: the field size of so few sites is 24 by 36.
    EXPECT_NEAR(r.lot->DieSizeX, 24000, 1e-3);
    EXPECT_NEAR(r.lot->DieSizeY, 36000, 1e-3);
    // The 0.00 row went to "Excluded" with its line in the source (line 15).
    WorkbookPtr wb;
    ASSERT_TRUE(OpenExcelWorksheet(r.workbook, wb, nullptr, false).ok());
    Worksheet* ex = wb->sheet("Excluded");
    ASSERT_NE(ex, nullptr);
    Area a = ex->usedArea();
    int hr = -1, hc = -1;
    Datam u = ex->range(Area{1, 1, a.row2, a.col2});
    FindFirstRow(u, hr, hc, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
    ASSERT_GE(hr, 0);
    EXPECT_EQ(u.rowUb() - hr, 1) << "one excluded row";
    EXPECT_EQ(u(hr + 1, hc - 1).toDouble(), 15);
    EXPECT_EQ(u(hr + 1, hc + 4).toDouble(), 0);
    Workbooks::CloseAll();
}

TEST(KLACDsem, NotchWordsAndStepSizeZero) {
    auto dir = FreshDir("kla_notch");
    const std::pair<const char*, const char*> cases[] = {
        {"180", "Down"}, {"270", "Left"}, {"R", "Right"}, {"up", "Up"}, {"0", "Up"}, {"sideways", "Down"}};
    for (auto [word, want] : cases) {
        WriteBytes(dir / "n.txt", Report(word));
        Imported r = ImportAndLoad((dir / "n.txt").string(), kCDSEM);
        ASSERT_TRUE(r.lot) << word;
        EXPECT_EQ(r.lot->GetNotchString(), want) << word;
        EXPECT_NEAR(r.lot->DieSizeX, 20000, 1e-3);
        EXPECT_NEAR(r.lot->ValueV_Name == "MEAS_1" ? 1 : 0, 1, 0);
    }
}

TEST(KLACDsem, TenEmptyLinesAreReadElevenStop) {
    auto dir = FreshDir("kla_empty");
    std::string ten(10 * 2, ' ');
    ten.clear();
    for (int i = 0; i < 10; ++i) ten += "\r\n";
    WriteBytes(dir / "ten.txt", Report("180", ten));
    Imported r = ImportAndLoad((dir / "ten.txt").string(), kCDSEM);
    EXPECT_TRUE(r.lot);
    WriteBytes(dir / "eleven.txt", Report("180", ten + "\r\n"));
    ImportRequest req{(dir / "eleven.txt").string(), {}, {}, kCDSEM, {}};
    Result<std::string> w = ImportCall(req);
    ASSERT_FALSE(w.ok());
    EXPECT_NE(w.failure().text.find("More than 10 empty lines read &  Aborting! "), std::string::npos);
    EXPECT_EQ(w.failure().row, 12);
    EXPECT_FALSE(fs::exists(dir / "eleven.xlsx"));
}

// Bad input: a message naming the file (and the line where there is one),
// no workbook, the source untouched.
TEST(KLACDsem, BadInputFailsCleanly) {
    auto dir = FreshDir("kla_bad");
    std::string good = ReadBytes(SamplePath("kla_cdsem_fem.txt"));
    const std::pair<std::string, std::string> cases[] = {
        {"empty", ""},
        {"csv", "Wafer,Site,X,Y,CD\r\n1,1,0,0,90\r\n"},
        {"binary", std::string("\x7f" "ELF\0\0\x01\x02 BEAM_FILE X_SITE_LOC\n\0\xff", 36)},
        {"truncated_header", good.substr(0, good.find("WAFER_ID") - 5)},
        {"header_no_rows", good.substr(0, good.find("\r\n", good.find("WAFER_ID")) + 2)},
        {"no_measure_column", Replace(Replace(good, "MEAS_1", "VALUE1"), "MEAS_2", "VALUE2")},
    };
    for (const auto& [name, bytes] : cases) {
        fs::path src = dir / (name + ".txt");
        WriteBytes(src, bytes);
        ImportRequest req{src.string(), {}, {}, kCDSEM, {}};
        Result<std::string> w = ImportCall(req);
        ASSERT_FALSE(w.ok()) << name;
        EXPECT_EQ(w.failure().file, src.string()) << name;
        EXPECT_NE(w.failure().message().find(src.string()), std::string::npos) << name;
        EXPECT_EQ(WorkbooksIn(dir), 0) << name;
        EXPECT_EQ(ReadBytes(src), bytes) << name;
        const std::string& text = w.failure().text;
        if (name == "binary") {
            EXPECT_NE(text.find("File type incorrect: "), std::string::npos);
        } else if (name == "header_no_rows") {
            EXPECT_NE(text.find("Incomplete data file: "), std::string::npos);
        } else if (name == "no_measure_column") {
            EXPECT_NE(text.find("Header information for measured data not found. Aborting ..."), std::string::npos);
        }
        if (name != "empty") {
            EXPECT_GT(w.failure().row, 0) << name;
        }
    }
    // Cut inside a row: the rows before it still import.
    fs::path cut = dir / "cut.txt";
    WriteBytes(cut, good.substr(0, good.size() - 30));
    Imported r = ImportAndLoad(cut.string(), kCDSEM);
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(Points(*r.lot).size(), 60u);  // the last row keeps its first measurement
}

}  // namespace
}  // namespace zorv
