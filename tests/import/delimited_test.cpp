// The delimited text reader, from a table written here to the loaded lot.
// Each file is made from a small plan (wafers, fields, sites and a formula
// for the values), and the lot is checked against the plan, not against the
// reader's own output.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "../common/capture_reporter.h"
#include "base/text.h"
#include "import_test_util.h"
#include "lot/lot.h"
#include "readers_extra.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

struct Pt {
    float v, h;
    float x, y;  // site in the field, um
    float focus, dose;
};
// Points by wafer key, field relative to the lowest field, site.
using PtKey = std::tuple<std::string, int, int, int>;

std::map<PtKey, Pt> Points(const cLot& lot) {
    float x0 = 1e9f, y0 = 1e9f;
    lot.forEachLive([&](cWafer&, cField& f, cSite&, cPoint&) {
        x0 = std::min(x0, f.DieX);
        y0 = std::min(y0, f.DieY);
    });
    std::map<PtKey, Pt> m;
    lot.forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        m[{w.KeyName, static_cast<int>(f.DieX - x0), static_cast<int>(f.DieY - y0), s.NumberKey()}] = {
            p.ValueV, p.ValueH, s.LocationX, s.LocationY, f.Focus, f.Dose};
    });
    return m;
}

// A column of a loaded table by its header in row 0 (case-blind), or -1.
int Column(const Datam& t, const std::string& head) {
    if (!t.isArray()) return -1;
    for (int c = t.colLb(); c <= t.colUb(); ++c)
        if (IEquals(t(t.rowLb(), c).toString(), head)) return c;
    return -1;
}

// The unit the workbook keeps for a feature, "" when none.
std::string UnitOf(const Datam& units, const std::string& feature) {
    if (!units.isArray()) return {};
    for (int r = units.rowLb(); r <= units.rowUb(); ++r)
        if (IEquals(units(r, units.colLb()).toString(), feature)) return units(r, units.colLb() + 1).toString();
    return {};
}

class Delimited : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = FreshDir(std::string("delimited_") + info->name());
    }
    void TearDown() override { Workbooks::CloseAll(); }

    std::string file(const std::string& name, const std::string& bytes) {
        const fs::path p = dir / name;
        WriteBytes(p, bytes);
        return p.string();
    }
    Result<std::string> read(const std::string& path) {
        ImportRequest r;
        r.path = path;
        r.description = kDelimitedDescription;
        Result<std::string> w = ImportDelimited(r);
        Workbooks::CloseAll();
        return w;
    }
    // The file through the reader and back from its workbook.
    std::shared_ptr<cLot> load(const std::string& path) {
        Result<std::string> w = read(path);
        EXPECT_TRUE(w.ok()) << w.failure().message();
        if (!w.ok()) return nullptr;
        std::shared_ptr<cLot> lot;
        LoadOptions o;
        o.quiet = true;
        Status st = GetExcelWBLot(*w, o, lot, &tables);
        EXPECT_TRUE(st.ok()) << st.failure().message();
        tables.workbook.reset();
        if (lot) lot->xlwb.reset();
        Workbooks::CloseAll();
        return lot;
    }
    // A site table column (the loaded table starts at X) for a site number.
    Value siteCell(int site, const std::string& head) {
        const int c = Column(tables.sites, head);
        if (c < 0 || site > tables.sites.rowUb()) return {};
        return tables.sites(site, c);
    }

    ScopedCapture rep;
    fs::path dir;
    WBLotTables tables;
};

// The plan of the comma file: 2 wafers, fields (-1..1, 0..1), 3 sites;
// CD = 90 + 2 site + 1.5 dx + 0.5 dy + 0.25 (wafer - 1) nm, SWA = 88 + 0.1 site.
double PlanCD(int w, int dx, int dy, int s) { return 90 + 2 * s + 1.5 * dx + 0.5 * dy + 0.25 * (w - 1); }
const int kSiteX[] = {0, -5000, 0, 5000}, kSiteY[] = {0, 5000, 0, -5000};
const char* const kFeature[] = {"", "ISO_LINE", "\"DENSE, SPACE \"\"A\"\"\"", "VIA_HOLE"};

std::string CommaFile() {
    std::string s =
        "\xEF\xBB\xBF# Lot: LT7001\r\n# Device: DEV42\r\n# Layer: GATE\r\n#Tool=Bench 3\r\n# Notch: 270\r\n"
        "# Wafer Size: 300\r\n\r\n"
        "Wafer,Site,Die X,DIE_Y,X [um],Y [um],Focus [nm],Dose [mJ/cm2],Feature,CD [nm],SWA (deg),Note\r\n";
    char buf[256];
    for (int w = 1; w <= 2; ++w)
        for (int dy = 0; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
                for (int st = 1; st <= 3; ++st) {
                    std::snprintf(buf, sizeof buf, "W%02d, %d,%d,%d,%d,%d,%d,%.1f,%s,\"%.2f\",%.1f,\"a, \"\"b\"\"\"\r\n", w,
                                  st, dx, dy, kSiteX[st], kSiteY[st], 100 * dx, 20.0 + 2 * dy, kFeature[st],
                                  PlanCD(w, dx, dy, st), 88 + 0.1 * st);
                    s += buf;
                }
    return s;
}

TEST_F(Delimited, CommaFileReadsToThePlannedLot) {
    std::shared_ptr<cLot> lot = load(file("cd.csv", CommaFile()));
    ASSERT_TRUE(lot);
    EXPECT_EQ(lot->Wafers().Count(), 2);
    EXPECT_EQ(lot->ValueV_Name, "CD");
    EXPECT_EQ(lot->ValueH_Name, "SWA");
    EXPECT_EQ(UnitOf(tables.units, "CD"), "nm");
    EXPECT_EQ(UnitOf(tables.units, "SWA"), "deg");
    EXPECT_EQ(lot->LotName, "LT7001");
    EXPECT_EQ(lot->MetrologyTool, "Bench 3");
    EXPECT_EQ(lot->DataSource(), eDataSourceCDSEM);
    EXPECT_EQ(lot->GetNotchString(), "Left");
    EXPECT_NEAR(lot->WaferSize, 300000, 1e-3);

    const auto pts = Points(*lot);
    ASSERT_EQ(pts.size(), 36u);
    for (int w = 1; w <= 2; ++w)
        for (int dy = 0; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
                for (int st = 1; st <= 3; ++st) {
                    char key[8];
                    std::snprintf(key, sizeof key, "W%02d", w);
                    SCOPED_TRACE(std::string(key) + " " + std::to_string(dx) + "," + std::to_string(dy) + " site " +
                                 std::to_string(st));
                    const Pt& p = pts.at({key, dx + 1, dy, st});
                    EXPECT_NEAR(p.v, PlanCD(w, dx, dy, st) * 1000, 1e-2);  // points hold 1000 times the value
                    EXPECT_NEAR(p.h, (88 + 0.1 * st) * 1000, 1e-2);
                    EXPECT_NEAR(p.x, kSiteX[st], 1e-2);  // um in the lot, mm in the workbook
                    EXPECT_NEAR(p.y, kSiteY[st], 1e-2);
                    EXPECT_NEAR(p.focus, 0.1 * dx, 1e-6);  // nm in the file, um in the layout
                    EXPECT_NEAR(p.dose, 20 + 2 * dy, 1e-6);
                }
    // Families from the feature words, one of them quoted with a comma and "" in it.
    EXPECT_EQ(siteCell(1, "FAMILY").toString(), "IsoLine");
    EXPECT_EQ(siteCell(2, "FAMILY").toString(), "DensePack");
    EXPECT_EQ(siteCell(3, "FAMILY").toString(), "Via");
    // The field is the site spread plus a step: 10 mm of sites, 3 sites a side.
    EXPECT_NEAR(siteCell(1, "X_LOC").toDouble(), -5, 1e-9);
}

// Tab separated, the columns in another order, units from "_UNITS" columns,
// positions in millimetres, a slot for the wafer: an overlay table.
TEST_F(Delimited, TabFileWithUnitsColumnsIsOverlay) {
    std::string s = "Row\tCol\tSiteID\tY_Loc\tX_Loc\tOVL_X\tOVL_Y\tOVL_X_UNITS\tOVL_Y_UNITS\tSlot\n";
    const double sx[] = {0, -10, 10, -10, 10}, sy[] = {0, 12, 12, -12, -12};
    char buf[160];
    for (int r = 0; r <= 1; ++r)
        for (int c = 0; c <= 1; ++c)
            for (int st = 1; st <= 4; ++st) {
                std::snprintf(buf, sizeof buf, "%d\t%d\t%d\t%g\t%g\t%.2f\t%.2f\tnm\tnm\t5\n", r, c, st, sy[st], sx[st],
                              2.5 * c + 0.3 * st, -1.5 * r - 0.2 * st);
                s += buf;
            }
    std::shared_ptr<cLot> lot = load(file("ovl.tsv", s));
    ASSERT_TRUE(lot);
    EXPECT_EQ(lot->DataSource(), eDataSourceOverlay);
    EXPECT_EQ(lot->ValueV_Name, "OVL_X");
    EXPECT_EQ(lot->ValueH_Name, "OVL_Y");
    EXPECT_EQ(UnitOf(tables.units, "OVL_X"), "nm");
    EXPECT_EQ(lot->Wafers().Count(), 1);
    EXPECT_EQ(lot->Wafers().At(1)->WaferID, "W5");  // the loader's "W" before a numeric name
    const auto pts = Points(*lot);
    ASSERT_EQ(pts.size(), 16u);
    const Pt& p = pts.at({"W5", 1, 1, 3});
    EXPECT_NEAR(p.v, (2.5 + 0.9) * 1000, 1e-2);
    EXPECT_NEAR(p.h, (-1.5 - 0.6) * 1000, 1e-2);
    EXPECT_NEAR(p.x, -10000, 1e-2);  // 10 mm is not over 50: millimetres
    EXPECT_NEAR(p.y, -12000, 1e-2);
    // No focus or dose column: no Layout sheet of the file's own.
    EXPECT_EQ(Column(tables.layoutSetup, "Focus"), -1);
}

// Semicolons with decimal commas, empty columns, micrometres in "(µm)" and
// no field indices: the fields come from the wafer positions less the site
// positions, their pitch is the field size.
TEST_F(Delimited, SemicolonFileFindsFieldsFromWaferPositions) {
    std::string s = "Wafer;Site;Pos. X (\xC2\xB5m);Pos. Y (\xC2\xB5m);;Wafer X (mm);Wafer Y (mm);;CD (nm);Bemerkung\r\n";
    const int sx[] = {0, -4000, 4000}, sy[] = {0, 3000, -3000};
    char buf[160];
    auto comma = [](std::string t) {
        for (char& c : t)
            if (c == '.') c = ',';
        return t;
    };
    for (int cy : {33, 0, -33})
        for (int cx : {-26, 0, 26})
            for (int st = 1; st <= 2; ++st) {
                std::snprintf(buf, sizeof buf, "A1;%d;%d;%d;;%.3f;%.3f;;", st, sx[st], sy[st], cx + sx[st] / 1000.0,
                              cy + sy[st] / 1000.0);
                s += comma(buf);
                std::snprintf(buf, sizeof buf, "%.2f;gut\r\n", 50 + st + 0.01 * cx - 0.02 * cy);
                s += comma(buf);
            }
    std::shared_ptr<cLot> lot = load(file("euro.txt", s));
    ASSERT_TRUE(lot);
    EXPECT_NEAR(lot->DieSizeX, 26000, 1e-2);
    EXPECT_NEAR(lot->DieSizeY, 33000, 1e-2);
    EXPECT_EQ(lot->ValueV_Name, "CD");
    const auto pts = Points(*lot);
    ASSERT_EQ(pts.size(), 18u);
    for (int iy = 0; iy < 3; ++iy)
        for (int ix = 0; ix < 3; ++ix)
            for (int st = 1; st <= 2; ++st) {
                const int cx = -26 + 26 * ix, cy = -33 + 33 * iy;
                const Pt& p = pts.at({"A1", ix, iy, st});
                EXPECT_NEAR(p.v, (50 + st + 0.01 * cx - 0.02 * cy) * 1000, 1e-2) << ix << "," << iy;
                EXPECT_NEAR(p.x, sx[st], 1e-2);
            }
}

// The least a file may hold: one column of numbers beside positions. No
// wafer column is wafer "1"; no site column numbers the distinct positions;
// no die columns leave every row in field (0, 0).
TEST_F(Delimited, DefaultsForMissingColumns) {
    std::shared_ptr<cLot> lot = load(file("least.csv", "X,Y,Height\n1,2,10\n3,4,11\n1,2,12\n5,6,13\n"));
    ASSERT_TRUE(lot);
    ASSERT_EQ(lot->Wafers().Count(), 1);
    EXPECT_EQ(lot->Wafers().At(1)->WaferID, "W1");
    EXPECT_EQ(lot->Wafers().At(1)->Fields().Count(), 1);
    // Three distinct positions, the first seen being site 1; site 1 has two points.
    std::map<int, std::vector<float>> bySite;
    lot->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) { bySite[s.NumberKey()].push_back(p.ValueV); });
    ASSERT_EQ(bySite.size(), 3u);
    EXPECT_EQ(bySite[1], (std::vector<float>{10000, 12000}));
    EXPECT_EQ(bySite[3], (std::vector<float>{13000}));
    EXPECT_NEAR(siteCell(2, "X_LOC").toDouble(), 3, 1e-9);

    // Without positions every row is site 1.
    lot = load(file("bare.csv", "Wafer;Thickness\nW1;100,5\nW1;101\n"));
    ASSERT_TRUE(lot);
    long n = 0;
    lot->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
        EXPECT_EQ(s.NumberKey(), 1);
        EXPECT_NEAR(p.ValueV, n++ == 0 ? 100500 : 101000, 1e-2);  // "100,5": a decimal comma
    });
    EXPECT_EQ(n, 2);
}

// A short row keeps what it has; a text in a feature cell is a missing
// value; a row without any number is left out; site numbers from 0, or with
// gaps, become 1..n in their order (the loader finds a site by its row).
TEST_F(Delimited, ShortRowsTextCellsAndSiteNumbers) {
    std::shared_ptr<cLot> lot =
        load(file("ragged.csv",
                  "Wafer,Site,A,B\n"
                  "1,0,1.5,2.5\n"
                  "1,10,n/a,3.5\n"   // text: A missing
                  "1,20,4.5\n"       // short: B missing
                  "1,30,x,y\n"       // no number: skipped
                  "\n# a remark\n"
                  "1,20,5.5,6.5\n"));
    ASSERT_TRUE(lot);
    std::map<int, std::vector<std::pair<float, float>>> bySite;
    lot->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
        bySite[s.NumberKey()].push_back({p.ValueV, p.ValueH});
    });
    ASSERT_EQ(bySite.size(), 3u);  // 0, 10, 20; 30 had no number
    EXPECT_EQ(bySite[1], (std::vector<std::pair<float, float>>{{1500, 2500}}));
    EXPECT_EQ(bySite[2], (std::vector<std::pair<float, float>>{{kMissingValue, 3500}}));
    EXPECT_EQ(bySite[3], (std::vector<std::pair<float, float>>{{4500, kMissingValue}, {5500, 6500}}));
}

// Site names instead of numbers are numbered as they come; a wafer name that
// is a number stays one wafer; the data type of focus names is Focus.
TEST_F(Delimited, SiteNamesAndFocusNames) {
    std::shared_ptr<cLot> lot = load(file("names.csv",
                                          "Wafer,Site,ShiftX,ShiftY\n"
                                          "7,TopLeft,1,2\n7,BottomRight,3,4\n7,TopLeft,5,6\n"));
    ASSERT_TRUE(lot);
    EXPECT_EQ(lot->DataSource(), eDataSourceFocus);
    std::map<int, int> count;
    lot->forEachLive([&](cWafer&, cField&, cSite& s, cPoint&) { ++count[s.NumberKey()]; });
    EXPECT_EQ(count, (std::map<int, int>{{1, 2}, {2, 1}}));
}

// What a bad file gives: the message of the reader habits, the file and the
// line, no workbook, the source as it was.
TEST_F(Delimited, BadFilesFailNamingFileAndLine) {
    struct Case {
        const char* name;
        std::string bytes;
        std::string text;  // the start of the message
        long line;
    };
    const std::string kla =
        "KLA-Tencor 8250 CD SEM  Measurement Report\r\n"
        "PROCESS_DEVICE  BEAM_FILE  LAYER\r\nDEV7 BF_500V POLY\r\n";
    const Case cases[] = {
        {"empty.csv", "", "This is not a proper format data sheet.", 0},
        {"blank.csv", "\r\n\r\n# Lot: L1\r\n", "This is not a proper format data sheet.", 3},
        {"kla.txt", kla, "This is not a proper format data sheet.", 1},
        {"numbers.csv", "1,2,3\n4,5,6\n", "This is not a proper format data sheet.", 1},
        {"words.csv", "Wafer,Site,Remark\n1,1,fine\n1,2,good\n", "This is not a proper format data sheet.", 1},
        {"binary.csv", std::string("PK\x03\x04\x00\x01\x02,\x03;\x04", 12), "File type incorrect: ", 1},
        {"headonly.csv", "# Lot: L1\nWafer,Site,CD\n\n# end\n", "Incomplete data file: headonly.csv", 2},
        {"cut.csv", "# Lot: L1\n# Dev", "This is not a proper format data sheet.", 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = file(c.name, c.bytes);
        Result<std::string> r = read(path);
        ASSERT_FALSE(r.ok());
        EXPECT_EQ(r.failure().text.rfind(c.text, 0), 0u) << r.failure().text;
        EXPECT_EQ(r.failure().tag, "Import(ImportDelimited): ");
        EXPECT_EQ(r.failure().file, path);
        EXPECT_EQ(r.failure().row, c.line);
        EXPECT_EQ(ReadBytes(path), c.bytes);
    }
    EXPECT_EQ(WorkbooksIn(dir), 0);
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();
}

// The exact texts where a check of a message is the point.
TEST_F(Delimited, MessagesAreTheReaderHabits) {
    const std::string head = file("h.csv", "Wafer,Site,CD\n");
    Result<std::string> r = read(head);
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.failure().text,
              "Incomplete data file: h.csv\r\nEncountered end of data file. Please check import format.\r\nFile: " +
                  head + ", line 1");
    const std::string bin = file("b.csv", std::string("a,b,c\n\0\0\0", 9));
    r = read(bin);
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.failure().text.rfind("File type incorrect: " + bin + "\r\nWrong data format.", 0), 0u);
}

// The samples kept with the program read, and say what they hold.
TEST_F(Delimited, SamplesRead) {
    for (const char* name : {"delimited_cd.csv", "delimited_overlay.tsv", "delimited_euro.txt"}) {
        SCOPED_TRACE(name);
        fs::copy_file(SamplePath(name), dir / name);
        std::shared_ptr<cLot> lot = load((dir / name).string());
        ASSERT_TRUE(lot);
        long n = 0;
        lot->forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++n; });
        EXPECT_GT(n, 15);
    }
}

}  // namespace
}  // namespace zorv
