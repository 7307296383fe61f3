// The BioRad / Accent overlay readers and the ASML scanner logs, from the raw
// file to the loaded lot.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import_test_util.h"
#include "lot/features.h"
#include "lot/lot.h"
#include "readers_biorad_asml.h"
#include "workbook/data_workbook.h"
#include "workbook/workbook_ops.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

constexpr const char* kAccent = "Accent Overlay";
constexpr const char* kQuestar = "BioRad Questar Overlay";
constexpr const char* kASML = "ASML Registration";

using Reader = Result<std::string> (*)(const ImportRequest&);

struct PointKey {
    std::string wafer;
    float dieX, dieY;
    int site;
    auto operator<=>(const PointKey&) const = default;
};
struct PointVal {
    float v, h, z, x, y, focus, dose;
};

struct Loaded {
    std::string workbook;
    std::shared_ptr<cLot> lot;
    std::map<PointKey, PointVal> points;
};

// The file through `reader` (called directly) and back as a lot.
Loaded ReadAndLoad(Reader reader, const fs::path& path, const std::string& description) {
    Loaded r;
    ImportRequest req;
    req.path = path.string();
    req.description = description;
    Imported read = ReadBack(reader, req);
    r.workbook = read.workbook;
    r.lot = read.lot;
    if (r.lot) {
        r.lot->forEachLive([&](cWafer& wf, cField& f, cSite& s, cPoint& p) {
            r.points[{wf.KeyName, f.DieX, f.DieY, s.NumberKey()}] = {p.ValueV, p.ValueH, p.ValueZ, s.LocationX,
                                                                      s.LocationY, f.Focus, f.Dose};
        });
    }
    Workbooks::CloseAll();
    return r;
}

fs::path CopySample(const std::string& sample, const std::string& dir) {
    fs::path d = FreshDir(dir);
    fs::copy_file(SamplePath(sample), d / sample);
    return d / sample;
}

// The line number (from 1) of the first line of `text` holding `needle`.
long LineOf(const std::string& text, const std::string& needle) {
    size_t at = text.find(needle);
    long n = 1;
    for (size_t i = 0; i < at; ++i)
        if (text[i] == '\n') ++n;
    return n;
}

// The rows of a sheet's used range, and the excluded rows' source lines.
Datam SheetTable(const std::string& workbook, const std::string& sheet) {
    WorkbookPtr wb;
    EXPECT_TRUE(OpenExcelWorksheet(workbook, wb, nullptr, false).ok());
    Datam u;
    if (Worksheet* ws = wb ? wb->sheet(sheet) : nullptr) {
        Area a = ws->usedArea();
        u = ws->range(Area{1, 1, a.row2, a.col2});
    }
    Workbooks::CloseAll();
    return u;
}
std::vector<long> ExcludedLines(const std::string& workbook) {
    std::vector<long> lines;
    Datam u = SheetTable(workbook, "Excluded");
    if (!u.isArray()) return lines;
    int hr = -1, hc = -1;
    FindFirstRow(u, hr, hc, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
    if (hr < 0) return lines;
    for (int r = hr + 1; r <= u.rowUb(); ++r)
        if (IsNumericValue(u(r, hc - 1))) lines.push_back(std::lround(u(r, hc - 1).toDouble()));
    return lines;
}

// The unit code of a feature as the lot holds it.
long UnitOf(const cLot& lot, int feature) {
    std::string text;
    long code = 0;
    lot.GetPlotFeatureUnits(feature, text, code);
    return code;
}

// ------------------------------------------------------------- Res file

TEST(BioRadQ6res, SampleReadsToTheLotItDescribes) {
    fs::path src = CopySample("biorad_res.txt", "rb_res");
    Loaded r = ReadAndLoad(ImportBioRadQ6res, src, kAccent);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "BioRad 'Res' File");
    EXPECT_EQ(lot.DataSource(), eDataSourceOverlay);
    EXPECT_EQ(lot.ValueV_Name, "X");
    EXPECT_EQ(lot.ValueH_Name, "Y");
    // Nanometres in the file, micrometres in the workbook.
    EXPECT_EQ(UnitOf(lot, 0), ParseUnitCode("um"));
    EXPECT_EQ(UnitOf(lot, 1), ParseUnitCode("um"));
    EXPECT_NE(ParseUnitCode("um"), ParseUnitCode("nm"));
    EXPECT_EQ(lot.LotName, "LT4471");
    EXPECT_EQ(lot.GetNotchString(), "Left");  // FIDUCIAL 270
    EXPECT_NEAR(lot.DieSizeX, 20000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 25000, 1e-3);
    // Wafer 3: six rows, one FAIL; wafer 5: four rows after the MEAN block.
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(r.points.size(), 9u);
    // nm in the file; the lot holds 1000 times micrometres.
    const PointVal& a = r.points.at({"W3", -1, 0, 1});
    EXPECT_NEAR(a.v, 12.0f, 1e-3);
    EXPECT_NEAR(a.h, -4.0f, 1e-3);
    EXPECT_NEAR(a.x, -8000, 1e-2);
    EXPECT_NEAR(a.y, 10000, 1e-2);
    const PointVal& b = r.points.at({"W5", 0, 0, 2});
    EXPECT_NEAR(b.v, 23.0f, 1e-3);
    EXPECT_NEAR(b.h, -4.0f, 1e-3);
    EXPECT_NEAR(b.x, 8000, 1e-2);
    EXPECT_EQ(r.points.count({"W3", 1, 0, 2}), 0u);
    std::string text = ReadBytes(src);
    EXPECT_EQ(ExcludedLines(r.workbook), std::vector<long>{LineOf(text, "999.0")});
}

TEST(BioRadQ6res, MacLineEndsReadAlike) {
    auto dir = FreshDir("rb_res_mac");
    WriteBytes(dir / "mac.txt", Replace(ReadBytes(SamplePath("biorad_res.txt")), "\r\n", "\r"));
    Loaded r = ReadAndLoad(ImportBioRadQ6res, dir / "mac.txt", kQuestar);
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(r.points.size(), 9u);
    EXPECT_NEAR(r.points.at({"W5", -1, 0, 1}).v, 20.0f, 1e-3);
}

TEST(BioRadQ6res, FileWithoutHeader) {
    fs::path src = CopySample("biorad_res_noheader.txt", "rb_nohdr");
    Loaded r = ReadAndLoad(ImportBioRadQ6res, src, kAccent);
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(r.lot->MetrologyTool, "BioRad 'Res' File");
    EXPECT_EQ(r.lot->Wafers().Count(), 1);
    EXPECT_EQ(r.points.size(), 5u);  // one FAIL of six
    // Micrometres as written: 0.0140 um at field 1 is 14 in the lot;
    // columns 0..1 centre on 1, so field 1 becomes 0.
    const PointVal& p = r.points.at({"W1", 0, 0, 1});
    EXPECT_NEAR(p.v, 14.0f, 1e-3);
    EXPECT_NEAR(p.h, -2.0f, 1e-3);
    EXPECT_NEAR(r.points.at({"W1", -1, 0, 3}).y, -5000, 1e-2);

    // A line that is not a row fails under the no-header tag, at that line.
    auto dir = src.parent_path();
    std::string bad = ReadBytes(src) + "END OF RUN\n";
    WriteBytes(dir / "bad.txt", bad);
    ImportRequest req{(dir / "bad.txt").string(), {}, {}, kAccent, {}};
    Result<std::string> w = ImportBioRadQ6res(req);
    ASSERT_FALSE(w.ok());
    EXPECT_EQ(w.failure().tag, "Accent Questar NoHeader: ");
    EXPECT_EQ(w.failure().row, 7);
    EXPECT_EQ(w.failure().file, (dir / "bad.txt").string());
    EXPECT_FALSE(fs::exists(dir / "bad.xlsx"));
}

// ------------------------------------------------------------- QDX report

TEST(BioRadQDX, SampleThroughTheOverlayRow) {
    // The Questar report reaches its reader through the row of the Res file.
    fs::path src = CopySample("biorad_qdx.txt", "rb_qdx");
    Loaded r = ReadAndLoad(ImportBioRadQ6res, src, kQuestar);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "Accent QDX");
    EXPECT_EQ(lot.LotName, "LT2210");
    EXPECT_EQ(lot.Wafers().Count(), 2);
    EXPECT_EQ(r.points.size(), 11u);  // 8 + 4, one NG
    EXPECT_NEAR(lot.DieSizeX, 22000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 24000, 1e-3);
    EXPECT_NEAR(lot.WaferSize, 200000, 1e-3);
    // Columns 0..1 centre on 1. Sites of the 2 x 2 grid, 10 by 12 mm apart,
    // row by row from the top: 1 (-5, 6), 2 (5, 6), 3 (-5, -6), 4 (5, -6).
    const PointVal& a = r.points.at({"W1", -1, 0, 1});
    EXPECT_NEAR(a.v, 12.3f, 1e-3);
    EXPECT_NEAR(a.h, -8.1f, 1e-3);
    EXPECT_NEAR(a.x, -5000, 1e-2);
    EXPECT_NEAR(a.y, 6000, 1e-2);
    const PointVal& d = r.points.at({"W2", 0, 0, 4});
    EXPECT_NEAR(d.v, 10.0f, 1e-3);
    EXPECT_NEAR(d.x, 5000, 1e-2);
    EXPECT_NEAR(d.y, -6000, 1e-2);
    EXPECT_EQ(ExcludedLines(r.workbook), std::vector<long>{LineOf(ReadBytes(src), " NG\r\n")});
}

struct StatusLog : Reporter {
    std::vector<std::string> texts;
    int showBox(const std::string&, int, const std::string&) override { return 0; }
    void status(const std::string& t) override { texts.push_back(t); }
};

TEST(BioRadQDX, OtherSpellingsAndItsStatusText) {
    // FIELD X / MEASX / OK spellings, micrometres, tab separated, 250 rows.
    auto dir = FreshDir("rb_qdx_spell");
    std::string s = "DIE_STEP_X: 20\r\nDIE_STEP_Y: 20\r\nWAFER NUMBER 7\r\nFIELD X\tFIELD Y\tSITE\tMEASX(um)\tMEASY(um)\tOK\r\n";
    for (int i = 0; i < 250; ++i)
        s += std::to_string(i % 5) + "\t" + std::to_string(i / 5) + "\t1\t0.0" + std::to_string(i % 10) + "\t-0.01\tOK\r\n";
    WriteBytes(dir / "q.txt", s);
    StatusLog log;
    SetReporter(&log);
    Loaded r = ReadAndLoad(ImportBioRad, dir / "q.txt", kQuestar);
    SetReporter(nullptr);
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(r.points.size(), 250u);
    // Row i = 13: column 3, row 2 (centred: columns 0..4 on 2, rows 0..49 on 25).
    const PointVal& p = r.points.at({"W7", 1, -23, 1});
    EXPECT_NEAR(p.v, 30.0f, 1e-3);
    EXPECT_NEAR(p.h, -10.0f, 1e-3);
    EXPECT_NE(std::find(log.texts.begin(), log.texts.end(), "Questar: Data Import Row 200"), log.texts.end());
}

// ------------------------------------------------------------- Q200 report

TEST(AccentQ200, SampleThroughTheOverlayRow) {
    // Comma separated, RESULT.Y before RESULT.X, blank TIS columns, sites
    // counted from the bottom left corner.
    fs::path src = CopySample("accent_q200.txt", "rb_q200");
    Loaded r = ReadAndLoad(ImportBioRadQ6res, src, kAccent);
    ASSERT_TRUE(r.lot);
    EXPECT_EQ(r.lot->MetrologyTool, "Accent Q200 ");
    EXPECT_EQ(r.lot->LotName, "LT3301");
    EXPECT_EQ(r.points.size(), 7u);
    // Sites at (3, 2), (23, 2), (3, 22), (23, 22) mm; the middle (13, 12) is the centre.
    const PointVal& a = r.points.at({"W7", -1, 0, 1});
    EXPECT_NEAR(a.v, 5.2f, 1e-3);
    EXPECT_NEAR(a.h, -3.1f, 1e-3);
    EXPECT_NEAR(a.x, -10000, 1e-2);
    EXPECT_NEAR(a.y, -10000, 1e-2);
    const PointVal& d = r.points.at({"W7", 0, 0, 4});
    EXPECT_NEAR(d.v, 7.5f, 1e-3);
    EXPECT_NEAR(d.x, 10000, 1e-2);
    EXPECT_NEAR(d.y, 10000, 1e-2);
    EXPECT_EQ(r.points.count({"W7", 0, 0, 2}), 0u);  // MEASURED NO

    // From the top, Y counts downwards.
    auto dir = FreshDir("rb_q200_top");
    WriteBytes(dir / "top.txt", Replace(ReadBytes(src), "BOTTOM", "TOP"));
    Loaded t = ReadAndLoad(ImportAccentQ200_OL, dir / "top.txt", kAccent);
    ASSERT_TRUE(t.lot);
    EXPECT_NEAR(t.points.at({"W7", -1, 0, 1}).y, 10000, 1e-2);
}

// ------------------------------------------------------------- ASML

TEST(ASMLRegistration, LevelAIsTheDataAndBLessAItsOwnSheet) {
    fs::path src = CopySample("asml_registration.txt", "rb_asml");
    Loaded r = ReadAndLoad(ImportASML, src, kASML);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "ASML Stepper ");
    EXPECT_EQ(lot.DataSource(), eDataSourceRegistration);
    EXPECT_EQ(lot.LotName, "LT9001");
    EXPECT_EQ(lot.GetNotchString(), "Down");
    EXPECT_NEAR(lot.DieSizeX, 22000, 1e-3);
    EXPECT_EQ(UnitOf(lot, 0), ParseUnitCode("um"));
    EXPECT_EQ(r.points.size(), 5u);  // six of level A, one FAIL
    // Columns 1..2 centre on 2. Result less MARK_OFFSET (1, -1) nm.
    const PointVal& a = r.points.at({"W1", -1, 0, 1});
    EXPECT_NEAR(a.v, 10.0f, 1e-3);
    EXPECT_NEAR(a.h, -2.0f, 1e-3);
    EXPECT_NEAR(a.x, -8000, 1e-2);
    EXPECT_NEAR(a.y, 8000, 1e-2);
    EXPECT_NEAR(r.points.at({"W1", 0, 0, 2}).v, 9.0f, 1e-3);

    // B - A where both levels measured a valid mark: (1,0,1), (1,0,2), (2,0,1).
    Datam ov = SheetTable(r.workbook, "Overlay_BA");
    ASSERT_TRUE(ov.isArray());
    EXPECT_EQ(ov(1, 1).str(), "Overlay Data Level of 'B-A' registration");
    int hr = -1, hc = -1;
    FindFirstRow(ov, hr, hc, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
    ASSERT_GE(hr, 0);
    ASSERT_EQ(ov.rowUb() - hr, 3);
    std::map<std::pair<int, int>, std::pair<double, double>> ba;
    for (int row = hr + 1; row <= ov.rowUb(); ++row)
        ba[{static_cast<int>(ov(row, hc + 2).toDouble()), static_cast<int>(ov(row, hc + 1).toDouble())}] = {
            ov(row, hc + 4).toDouble(), ov(row, hc + 5).toDouble()};
    // (15 - 11, -1 + 3) nm, (13 - 9, -3 + 5) nm, (14 - 12, 0 + 2) nm, in micrometres.
    EXPECT_NEAR(ba.at({-1, 1}).first, 0.004, 1e-9);
    EXPECT_NEAR(ba.at({-1, 1}).second, 0.002, 1e-9);
    EXPECT_NEAR(ba.at({-1, 2}).first, 0.004, 1e-9);
    EXPECT_NEAR(ba.at({0, 1}).first, 0.002, 1e-9);
    EXPECT_NEAR(ba.at({0, 1}).second, 0.002, 1e-9);
    // The Index names both sheets.
    Datam index = SheetTable(r.workbook, "Index");
    std::string all;
    for (int i = index.rowLb(); i <= index.rowUb(); ++i)
        for (int j = index.colLb(); j <= index.colUb(); ++j) all += std::string(index(i, j).str()) + "|";
    EXPECT_NE(all.find("Registration Data Level 'A'"), std::string::npos) << all;
    EXPECT_NE(all.find("Overlay Data Level of 'B-A' registration"), std::string::npos) << all;
    EXPECT_EQ(ExcludedLines(r.workbook), std::vector<long>{LineOf(ReadBytes(src), "FAIL")});
}

TEST(ASMLxt, BraceLogThroughTheRegistrationRow) {
    fs::path src = CopySample("asml_xt_log.txt", "rb_xt");
    Loaded r = ReadAndLoad(ImportASML, src, kASML);
    ASSERT_TRUE(r.lot);
    const cLot& lot = *r.lot;
    EXPECT_EQ(lot.MetrologyTool, "ASML");
    EXPECT_EQ(lot.LotName, "LT7700");
    EXPECT_EQ(lot.ValueV_Name, "X");
    EXPECT_EQ(lot.valueZ_Name, "FocusOffset");
    EXPECT_NEAR(lot.DieSizeX, 26000, 1e-3);
    EXPECT_NEAR(lot.DieSizeY, 32000, 1e-3);
    EXPECT_EQ(r.points.size(), 3u);  // four marks, one not valid
    // Field at x = -26 mm of a 26 mm field: column -1. X and Y of site 1
    // came in two mark_results: found less nominal, mm to um, times 1000.
    const PointVal& a = r.points.at({"W4", -1, 0, 1});
    EXPECT_NEAR(a.v, 12.0f, 1e-2);
    EXPECT_NEAR(a.h, 5.0f, 1e-2);
    EXPECT_NEAR(a.z, 30.0f, 1e-3);  // focus_offset 30 nm
    EXPECT_NEAR(a.x, -10000, 1e-2);
    EXPECT_NEAR(a.y, 12000, 1e-2);
    EXPECT_NEAR(a.focus, -0.05f, 1e-6);
    EXPECT_NEAR(a.dose, 24.5f, 1e-5);
    const PointVal& b = r.points.at({"W4", -1, 0, 2});
    EXPECT_NEAR(b.v, 8.0f, 1e-2);
    EXPECT_NEAR(b.h, -3.0f, 1e-2);
    const PointVal& c = r.points.at({"W4", 0, 0, 1});
    EXPECT_NEAR(c.v, 10.0f, 1e-2);
    EXPECT_NEAR(c.dose, 25.5f, 1e-5);
    EXPECT_EQ(r.points.count({"W4", 0, 0, 2}), 0u);

    // One block per line or spread, "na=" or "na = ": the same lot.
    auto dir = src.parent_path();
    std::string text = ReadBytes(src);
    std::string flat = Replace(Replace(text, "\n      ", " "), "= ", "=");
    WriteBytes(dir / "flat.txt", flat);
    Loaded f = ReadAndLoad(ImportASMLxt, dir / "flat.txt", kASML);
    ASSERT_TRUE(f.lot);
    EXPECT_EQ(f.points.size(), 3u);
    EXPECT_NEAR(f.points.at({"W4", -1, 0, 1}).h, 5.0f, 1e-2);
}

// ------------------------------------------------------------- bad input

// A message naming the file (and the line where there is one), no workbook,
// the source untouched, for every reader.
TEST(BioRadASMLReaders, BadInputFailsCleanly) {
    struct Case {
        Reader reader;
        const char* sample;
        const char* cutBefore;  // the truncated file ends before this text
    };
    const Case readers[] = {{ImportBioRadQ6res, "biorad_res.txt", "SITE  FX"},
                            {ImportBioRad, "biorad_qdx.txt", "  F X"},
                            {ImportAccentQ200_OL, "accent_q200.txt", "SITE.Y"},
                            {ImportASML, "asml_registration.txt", "MB A"},
                            {ImportASMLxt, "asml_xt_log.txt", "  field_cluster_result = {\n    exposure_position = {\n      matching"}};
    const std::string other = "Wafer,Site,X,Y,CD\r\n1,1,0,0,90\r\n2,1,0,0,91\r\n";
    int n = 0;
    for (const Case& c : readers) {
        auto dir = FreshDir("rb_bad" + std::to_string(n++));
        std::string good = ReadBytes(SamplePath(c.sample));
        ASSERT_NE(good.find(c.cutBefore), std::string::npos) << c.sample;
        const std::pair<std::string, std::string> cases[] = {
            {"empty", ""},
            {"other", other},
            {"binary", std::string("\x7f" "ELF\0\0\x01\x02 MEAS-X RESULT.X OV {\n\0\xff", 33)},
            {"truncated", good.substr(0, good.find(c.cutBefore))},
        };
        for (const auto& [name, bytes] : cases) {
            fs::path src = dir / (name + ".txt");
            WriteBytes(src, bytes);
            ImportRequest req{src.string(), {}, {}, kAccent, {}};
            Result<std::string> w = c.reader(req);
            ASSERT_FALSE(w.ok()) << c.sample << " " << name;
            EXPECT_EQ(w.failure().file, src.string()) << c.sample << " " << name;
            EXPECT_EQ(WorkbooksIn(dir), 0) << c.sample << " " << name;
            EXPECT_EQ(ReadBytes(src), bytes) << c.sample << " " << name;
            const std::string& text = w.failure().text;
            if (name == "empty") {
                EXPECT_NE(text.find("Incomplete data file: "), std::string::npos) << c.sample;
            } else {
                EXPECT_GT(w.failure().row, 0) << c.sample << " " << name;
            }
            if (name == "binary") {
                EXPECT_NE(text.find("File type incorrect: "), std::string::npos) << c.sample;
            }
        }
    }
}

}  // namespace
}  // namespace zorv
