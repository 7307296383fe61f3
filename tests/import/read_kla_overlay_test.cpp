// The overlay readers, from the raw file to the loaded lot: KLA Archer (with
// its Zspin and statistics files), KLA 5xxx, Nova Track, Nikon NRM, IVS.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>

#include "base/text.h"
#include "common/capture_reporter.h"
#include "import_test_util.h"
#include "lot/lot.h"
#include "readers_kla_overlay.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

constexpr const char* kArcher = "KLA Archer overlay";
constexpr const char* kZspin = "KLA ZspinFocus";
constexpr const char* kKla5 = "KLA 5xxx";
constexpr const char* kNova = "Nova Track 2020-3030 OL (*.*)";
constexpr const char* kNikon = "Nikon NRM Series OL (*.msr, *.XLS)";
constexpr const char* kIVS = "Soluris IVS Overlay family(IVS135 etc.)";

// A point as the lot holds it (values at 1000 times the workbook's).
struct Key {
    std::string wafer;
    float dieX, dieY;
    int site;
    auto operator<=>(const Key&) const = default;
};
struct Val {
    float v, h, x, y;
};
std::map<Key, Val> Points(const cLot& lot) {
    std::map<Key, Val> m;
    lot.forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        m[{w.KeyName, f.DieX, f.DieY, s.NumberKey()}] = {p.ValueV, p.ValueH, s.LocationX, s.LocationY};
    });
    return m;
}

std::string Families(const cLot& lot) {
    std::string fams;
    for (int i = 1; i <= lot.FamilyNames.rowUb(); ++i) fams += std::string(lot.FamilyNames.get(i, 1).str()) + ",";
    return fams;
}

// The value of an "Information" key.
std::string Info(const Imported& r, const std::string& key) {
    const Datam& t = r.tables.information;
    for (int i = 0; i <= t.rowUb(); ++i)
        for (int j = 0; j < t.colUb(); ++j)
            if (IEquals(t.get(i, j).toString(), key)) return t.get(i, j + 1).toString();
    return {};
}

// The reader called directly, its workbook loaded back.
Imported ReadAndLoad(ReaderFn fn, const fs::path& path, const std::string& description) {
    ImportRequest req;
    req.path = path.string();
    req.description = description;
    return ReadBack(fn, req);
}

fs::path CopySample(const fs::path& dir, const std::string& name) {
    fs::copy_file(SamplePath(name), dir / name);
    return dir / name;
}

// Rows of the "Excluded" sheet below its header.
int ExcludedRows(const std::string& workbook) {
    WorkbookPtr wb;
    if (!OpenExcelWorksheet(workbook, wb, nullptr, false).ok()) return -1;
    Worksheet* ex = wb->sheet("Excluded");
    int n = 0;
    if (ex) {
        Area a = ex->usedArea();
        Datam u = ex->range(Area{1, 1, a.row2, a.col2});
        int hr = -1, hc = -1;
        FindFirstRow(u, hr, hc, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
        n = hr >= 0 ? u.rowUb() - hr : -1;
    }
    Workbooks::CloseAll();
    return n;
}

// The first lines of a text.
std::string Head(const std::string& text, int lines) {
    size_t at = 0;
    for (int i = 0; i < lines && at != std::string::npos; ++i) at = text.find('\n', at + 1);
    return text.substr(0, at == std::string::npos ? text.size() : at + 1);
}

// Bad input to a reader: a failure naming the file (and a line where there
// is one), no workbook, the source as it was.
void ExpectCleanFailures(ReaderFn fn, const std::string& description, const std::string& dirName,
                         const std::string& good, const std::string& otherFormat) {
    auto dir = FreshDir(dirName);
    const std::pair<std::string, std::string> cases[] = {
        {"empty", ""},
        {"other", otherFormat},
        {"binary", std::string("\x7f" "ELF\0\0\x01\x02 MREG X\tMISR_X\n\0\xff", 31)},
        {"truncated", Head(good, 3)},
    };
    for (const auto& [name, bytes] : cases) {
        fs::path src = dir / (name + ".txt");
        WriteBytes(src, bytes);
        ImportRequest req{src.string(), {}, {}, description, {}};
        Result<std::string> w = fn(req);
        ASSERT_FALSE(w.ok()) << description << " " << name;
        EXPECT_EQ(w.failure().file, src.string()) << name;
        EXPECT_NE(w.failure().message().find(src.string()), std::string::npos) << name;
        EXPECT_EQ(WorkbooksIn(dir), 0) << name;
        EXPECT_EQ(ReadBytes(src), bytes) << name;
        if (name == "binary") {
            EXPECT_NE(w.failure().text.find("File type incorrect: "), std::string::npos);
        }
        if (name == "empty") {
            EXPECT_NE(w.failure().text.find("Incomplete data file: "), std::string::npos);
        } else {
            EXPECT_GT(w.failure().row, 0) << description << " " << name;
        }
    }
}

const std::string kCsvOther = "Wafer,Site,X,Y,CD\r\n1,1,0,0,90\r\n";

// ------------------------------------------------------------ KLA Archer

TEST(ReadKlaOverlay, ArcherSampleReadsToItsLot) {
    auto dir = FreshDir("ra_archer");
    Imported r = ReadAndLoad(ImportKLAarcher, CopySample(dir, "kla_archer_overlay.txt"), kArcher);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    // 2 wafers x 3 fields x 2 sites, less a failed row and a flyer.
    EXPECT_EQ(lot.Wafers().Count(), 2);
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 10u);
    EXPECT_EQ(ExcludedRows(r.workbook), 2);
    EXPECT_EQ(lot.ValueV_Name, "MReg_X");
    EXPECT_EQ(lot.ValueH_Name, "MReg_Y");
    EXPECT_EQ(lot.DataSource(), eDataSourceOverlay);
    EXPECT_EQ(lot.MetrologyTool, "KLA Archer");
    EXPECT_EQ(lot.LotName, "LTA001");
    EXPECT_EQ(lot.GetUnitsAsString(lot.ValueV_Units), "nm");
    EXPECT_NEAR(lot.DieSizeX, 26000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 33000, 1e-3);
    // Wafer 1, column 1, site 1: 1 + 2*1 + 0.5 = 3.5 nm, -0.5 + 1 - 0.25 = 0.25 nm.
    const Val& p = pts.at({"W1", 1, 0, 1});
    EXPECT_NEAR(p.v, 3500, 1e-2);
    EXPECT_NEAR(p.h, 250, 1e-2);
    EXPECT_NEAR(p.x, -10000, 1e-2);
    EXPECT_NEAR(p.y, 12000, 1e-2);
    EXPECT_EQ(Families(lot), "DensePack,");
    EXPECT_EQ(pts.count({"W1", 0, 0, 2}), 0u);  // the flyer
    EXPECT_EQ(pts.count({"W2", 1, 0, 2}), 0u);  // the failed row, line 25
    EXPECT_NE(Info(r, "Comments").find("KLA Archer: FAILED Data row #: 25"), std::string::npos)
        << Info(r, "Comments");
}

TEST(ReadKlaOverlay, ZspinFileKeepsItsOffsetsAsFocusData) {
    // Comma separated, columns in another order, "MRegX" without a unit
    // (Units: um), fields from the wafer coordinates, die sizes in um.
    auto dir = FreshDir("ra_zspin");
    Imported r = ReadAndLoad(ImportKLAarcher, CopySample(dir, "kla_archer_zspin.txt"), kZspin);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.DataSource(), eDataSourceFocus);
    EXPECT_EQ(lot.MetrologyTool, "KLA Archer");
    EXPECT_EQ(lot.ValueV_Name, "MRegX");
    EXPECT_EQ(lot.GetUnitsAsString(lot.ValueV_Units), "\xC2\xB5m");
    EXPECT_NE(Info(r, "Comments").find("Zspin original offset format"), std::string::npos);
    EXPECT_EQ(Families(lot), "Zspin,");
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 11u);
    EXPECT_EQ(ExcludedRows(r.workbook), 1);
    // Xw -31 less Xf -5 is field -1 of 26 mm; sites numbered as met.
    const Val& p = pts.at({"W01", -1, 0, 1});
    EXPECT_NEAR(p.v, 5.0, 1e-3);  // 0.0050 um
    EXPECT_NEAR(p.x, -5000, 1e-2);
    const Val& q = pts.at({"W02", 1, 0, 2});
    EXPECT_NEAR(q.v, 35.0, 1e-3);
    EXPECT_NEAR(q.h, -20.0, 1e-3);
    // The same file as an overlay file is overlay data.
    Imported o = ReadAndLoad(ImportKLAarcher, dir / "kla_archer_zspin.txt", kArcher);
    ASSERT_TRUE(o.lot);
    EXPECT_EQ(o.lot->DataSource(), eDataSourceOverlay);
}

TEST(ReadKlaOverlay, StatisticsFileGoesToItsOwnReader) {
    auto dir = FreshDir("ra_stats");
    const fs::path src = CopySample(dir, "kla_archer_stats.txt");
    for (ReaderFn fn : {ImportKLA_Stats, ImportKLAarcher}) {
        Imported r = ReadAndLoad(fn, src, kArcher);
        ASSERT_TRUE(r.lot);
        EXPECT_EQ(r.lot->MetrologyTool, "KLA Archer Aim Statistics");
        EXPECT_EQ(r.lot->Wafers().Count(), 1);
        auto pts = Points(*r.lot);
        EXPECT_EQ(pts.size(), 4u);  // the "Lot" row is not a test
        EXPECT_EQ(r.lot->ValueV_Name, "Mis_X");
        // Test 3 at Die_X 1, Die_Y 1; the rows 0..1 centre on 1, so row 0.
        const Val& p = pts.at({"Mean", 1, 0, 3});
        EXPECT_NEAR(p.v, 4500, 1e-2);
        EXPECT_NEAR(p.h, -1500, 1e-2);
        EXPECT_NEAR(r.lot->DieSizeX, 26000, 1e-3);  // "Pitch:"
        EXPECT_NE(Info(r, "Comments").find("Wafers: 1 3 5"), std::string::npos);
    }
}

TEST(ReadKlaOverlay, ArcherBadInputFailsCleanly) {
    ExpectCleanFailures(ImportKLAarcher, kArcher, "ra_archer_bad", ReadBytes(SamplePath("kla_archer_overlay.txt")),
                        kCsvOther);
    ExpectCleanFailures(ImportKLA_Stats, kArcher, "ra_stats_bad", ReadBytes(SamplePath("kla_archer_stats.txt")),
                        kCsvOther);
}

// ------------------------------------------------------------ KLA 5xxx

TEST(ReadKlaOverlay, Kla5xxxSampleAndTheFailedWafer) {
    auto dir = FreshDir("ra_kla5");
    ScopedCapture cap;
    Imported r = ReadAndLoad(ImportKLA, CopySample(dir, "kla_5xxx_overlay.txt"), kKla5);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "KLA 50xx Overlay");
    EXPECT_EQ(lot.LotName, "LT5001");
    EXPECT_EQ(lot.Wafers().Count(), 2);
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 24u);  // the failed wafer keeps its rows
    EXPECT_EQ(lot.ValueV_Name, "MISR_X");
    EXPECT_EQ(lot.GetUnitsAsString(lot.ValueV_Units), "\xC2\xB5m");
    EXPECT_NEAR(lot.DieSizeX, 26000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 33000, 1e-3);
    // Wafer 2, NX 1, NY 1 (rows -1..1 centre on 0.5: no shift), site 2:
    // 0.002 + 0.002 + 0.002 = 0.006 um, -0.002 + 0.003 - 0.002 = -0.001 um.
    const Val& p = pts.at({"W2", 1, 1, 2});
    EXPECT_NEAR(p.v, 6.0, 1e-3);
    EXPECT_NEAR(p.h, -1.0, 1e-3);
    EXPECT_NEAR(p.x, 10000, 1e-2);
    EXPECT_NEAR(p.y, -12000, 1e-2);
    EXPECT_TRUE(cap.saw("Warning: Lot:LT5001")) << cap.joined();
    EXPECT_TRUE(cap.saw("Lot marked as failure in data.")) << cap.joined();
    EXPECT_NE(Info(r, "Comments").find("Lot marked as failure in data. Failed wafers: 2"), std::string::npos);
}

TEST(ReadKlaOverlay, Kla5xxxPassedLotWarnsNothing) {
    auto dir = FreshDir("ra_kla5_pass");
    std::string text = Replace(ReadBytes(SamplePath("kla_5xxx_overlay.txt")), "WAFER FAIL", "WAFER PASS");
    WriteBytes(dir / "pass.txt", text);
    ScopedCapture cap;
    Imported r = ReadAndLoad(ImportKLA, dir / "pass.txt", kKla5);
    ASSERT_TRUE(r.lot);
    EXPECT_FALSE(cap.saw("Lot marked as failure in data.")) << cap.joined();
}

TEST(ReadKlaOverlay, Kla5xxxBadInputFailsCleanly) {
    ExpectCleanFailures(ImportKLA, kKla5, "ra_kla5_bad", ReadBytes(SamplePath("kla_5xxx_overlay.txt")), kCsvOther);
}

// ------------------------------------------------------------ Nova Track

TEST(ReadKlaOverlay, NovaSampleReadsToItsLot) {
    // Columns out of order, a blank GOF column, the header again per wafer,
    // field centres in mm, site coordinates in um.
    auto dir = FreshDir("ra_nova");
    Imported r = ReadAndLoad(ImportNovaTrackOL, CopySample(dir, "nova_track_overlay.txt"), kNova);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "NOVA Track 2020-3030");
    EXPECT_EQ(lot.LotName, "LTN004");
    EXPECT_EQ(lot.Wafers().Count(), 2);
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 16u);
    EXPECT_EQ(lot.ValueV_Name, "X_OVERLAY");
    EXPECT_EQ(lot.ValueH_Name, "Y_OVERLAY");
    EXPECT_EQ(lot.GetUnitsAsString(lot.ValueV_Units), "nm");
    EXPECT_EQ(lot.GetNotchString(), "Left");
    EXPECT_NEAR(lot.WaferSize, 300000, 1e-3);
    // Pitch 26 by 33 from the centres -26, 0, 26 and 0, 33.
    EXPECT_NEAR(lot.DieSizeX, 26000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 33000, 1e-3);
    // Wafer 2, centre (26, 0): column 2 of 0..2 and row 0 of 0..1, centred
    // to (1, -1); NO. 2: x = 2 + 1 + 0.2, y = -2 + 0 - 0.2.
    const Val& p = pts.at({"W2", 1, -1, 2});
    EXPECT_NEAR(p.v, 3200, 1e-2);
    EXPECT_NEAR(p.h, -2200, 1e-2);
    EXPECT_NEAR(p.x, 8000, 1e-2);
    EXPECT_NEAR(p.y, -9000, 1e-2);
}

TEST(ReadKlaOverlay, NovaHeaderNotCorrect) {
    auto dir = FreshDir("ra_nova_header");
    const std::string good = ReadBytes(SamplePath("nova_track_overlay.txt"));
    const std::pair<std::string, std::string> cases[] = {
        {"no_y", Replace(good, "Y_OVERLAY(nm)", "Z_VALUE")},
        {"no_keys", good.substr(good.find("WAFER_ID=1") + 12)},
    };
    for (const auto& [name, bytes] : cases) {
        fs::path src = dir / (name + ".txt");
        WriteBytes(src, bytes);
        Result<std::string> w = ImportNovaTrackOL(ImportRequest{src.string(), {}, {}, kNova, {}});
        ASSERT_FALSE(w.ok()) << name;
        EXPECT_NE(w.failure().text.find("Header import not correct."), std::string::npos) << name;
        EXPECT_GT(w.failure().row, 0);
        EXPECT_EQ(WorkbooksIn(dir), 0);
    }
    // The header row of "no_y" is line 10.
    Result<std::string> w = ImportNovaTrackOL(ImportRequest{(dir / "no_y.txt").string(), {}, {}, kNova, {}});
    EXPECT_EQ(w.failure().row, 10);
}

TEST(ReadKlaOverlay, NovaBadInputFailsCleanly) {
    ExpectCleanFailures(ImportNovaTrackOL, kNova, "ra_nova_bad", ReadBytes(SamplePath("nova_track_overlay.txt")),
                        kCsvOther);
}

// ------------------------------------------------------------ Nikon NRM

TEST(ReadKlaOverlay, NikonSampleReadsToItsLot) {
    auto dir = FreshDir("ra_nikon");
    Imported r = ReadAndLoad(ImportNikonNRM, CopySample(dir, "nikon_nrm_overlay.txt"), kNikon);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "NIKON NRM series");
    EXPECT_EQ(lot.LotName, "LTK005");
    // Slots 1 ("W1:") and 10 ("Wa:"); "WA:" and "WB:" are statistics.
    EXPECT_EQ(lot.Wafers().Count(), 2);
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 16u);
    EXPECT_EQ(lot.GetUnitsAsString(lot.ValueV_Units), "nm");
    EXPECT_NEAR(lot.DieSizeX, 25000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 32000, 1e-3);
    // Slot 10, shot (1, 0) centred to (1, -1), mark 2 at (10, -12) mm:
    // dX = 10 + 1 + 1, dY = -10 + 0 - 1.
    const Val& p = pts.at({"W10", 1, -1, 2});
    EXPECT_NEAR(p.v, 12000, 1e-2);
    EXPECT_NEAR(p.h, -11000, 1e-2);
    EXPECT_NEAR(p.x, 10000, 1e-2);
    EXPECT_NEAR(p.y, -12000, 1e-2);

    // The tab-text copy of a workbook of the same lines reads the same.
    std::string tabbed = ReadBytes(SamplePath("nikon_nrm_overlay.txt"));
    std::replace(tabbed.begin(), tabbed.end(), ' ', '\t');
    WriteBytes(dir / "ZORVnrm.txt", tabbed);
    Imported t = ReadAndLoad(ImportNikonNRM, dir / "ZORVnrm.txt", kNikon);
    ASSERT_TRUE(t.lot);
    auto tp = Points(*t.lot);
    ASSERT_EQ(tp.size(), pts.size());
    for (const auto& [k, val] : pts) {
        ASSERT_EQ(tp.count(k), 1u);
        EXPECT_FLOAT_EQ(tp.at(k).v, val.v);
        EXPECT_FLOAT_EQ(tp.at(k).h, val.h);
    }
}

TEST(ReadKlaOverlay, NikonMessages) {
    auto dir = FreshDir("ra_nikon_msg");
    const std::string good = ReadBytes(SamplePath("nikon_nrm_overlay.txt"));
    struct Case {
        std::string name, bytes, text;
        long row;
    };
    const Case cases[] = {
        {"zero", Replace(good, "F2: 4 ", "F2: 0 "), "Number of dice (shots) = 0", 8},
        {"short", Replace(good, "W1: 2 0 0 1 1.50 -1.50", "W1: 2 0 0"), "Invalid format for import: W1: 2 0 0", 14},
        {"stray", Replace(good, "L5: TAKEDA", "OPERATOR TAKEDA"), "Invalid format for import: OPERATOR TAKEDA", 6},
    };
    for (const Case& c : cases) {
        fs::path src = dir / (c.name + ".txt");
        WriteBytes(src, c.bytes);
        Result<std::string> w = ImportNikonNRM(ImportRequest{src.string(), {}, {}, kNikon, {}});
        ASSERT_FALSE(w.ok()) << c.name;
        EXPECT_NE(w.failure().text.find(c.text), std::string::npos) << c.name << ": " << w.failure().text;
        EXPECT_EQ(w.failure().row, c.row) << c.name;
        EXPECT_EQ(WorkbooksIn(dir), 0);
    }
}

TEST(ReadKlaOverlay, NikonBadInputFailsCleanly) {
    ExpectCleanFailures(ImportNikonNRM, kNikon, "ra_nikon_bad", ReadBytes(SamplePath("nikon_nrm_overlay.txt")),
                        kCsvOther);
}

// ------------------------------------------------------------ IVS

TEST(ReadKlaOverlay, IvsSampleReadsToItsLot) {
    // Words of a line in any order, "(col,row)", "SITE-LOCATION", units beside values.
    auto dir = FreshDir("ra_ivs");
    Imported r = ReadAndLoad(ImportIVS, CopySample(dir, "ivs_overlay.txt"), kIVS);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "IVS Overlay");
    EXPECT_EQ(lot.Wafers().Count(), 2);
    auto pts = Points(lot);
    EXPECT_EQ(pts.size(), 20u);
    EXPECT_EQ(lot.ValueV_Name, "X");
    EXPECT_EQ(lot.ValueH_Name, "Y");
    EXPECT_EQ(lot.GetUnitsAsString(lot.ValueV_Units), "\xC2\xB5m");
    EXPECT_NEAR(lot.DieSizeX, 20000, 1e-3);  // DIE_STEP_X 20000 um
    EXPECT_NEAR(lot.DieSizeY, 25000, 1e-3);
    EXPECT_NEAR(lot.WaferSize, 150000, 1e-3);
    EXPECT_EQ(lot.UserName, "jsmith");
    // W02, field (1, 1), site 2: x = 0.002 + 0.002 + 0.001 um, y = -0.002 + 0.002 - 0.001 um.
    const Val& p = pts.at({"W02", 1, 1, 2});
    EXPECT_NEAR(p.v, 5.0, 1e-3);
    EXPECT_NEAR(p.h, -1.0, 1e-3);
    EXPECT_NEAR(p.x, 8000, 1e-2);
    EXPECT_NEAR(p.y, -10000, 1e-2);
}

TEST(ReadKlaOverlay, IvsBadInputFailsCleanly) {
    ExpectCleanFailures(ImportIVS, kIVS, "ra_ivs_bad", ReadBytes(SamplePath("ivs_overlay.txt")), kCsvOther);
}

// Each sample is taken for its own row when no format is named.
TEST(ReadKlaOverlay, SamplesAreDetectedAsTheirRows) {
    const std::pair<const char*, const char*> cases[] = {
        {"kla_archer_overlay.txt", kArcher}, {"kla_archer_zspin.txt", kZspin},  {"kla_archer_stats.txt", kArcher},
        {"kla_5xxx_overlay.txt", kKla5},     {"nova_track_overlay.txt", kNova}, {"nikon_nrm_overlay.txt", kNikon},
        {"ivs_overlay.txt", kIVS},
    };
    for (auto [name, want] : cases) {
        Detection d = DetectFormat(SamplePath(name).string());
        EXPECT_EQ(d.description, want) << name << ": " << d.why;
    }
}

}  // namespace
}  // namespace zorv
