// The lot loader on hand-worked tables: the derived Z, rows with a blank
// wafer name, where a failure says the input was wrong, a load the user ends,
// and the settings a load reads and leaves alone.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "base/identity.h"
#include "base/report.h"
#include "app/settings.h"
#include "app/strings.h"
#include "common/capture_reporter.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"
#include "workbook_test_util.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

std::string ReadBytes(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// One data row: wafer name (an empty Value for a blank cell), Test, DieX,
// DieY, then V and H in millimetres (an empty Value for a blank cell).
struct Row {
    Value wafer;
    int test, dieX, dieY;
    Value v, h;
};

class DataWorkbookLoad : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::path(ZORV_TEST_TMP) / "datawb_load" /
              ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir);
        fs::create_directories(dir);
        rep.answer = vbNo;
        SetReporter(&rep);
        Workbooks::CloseAll();
    }
    void TearDown() override {
        Workbooks::CloseAll();
        SetReporter(nullptr);
    }

    // A workbook of the sample's sites and information (4 sites, die 26 x
    // 33 mm) whose data sheet holds exactly these rows.
    std::string write(const std::string& name, int dataType, const std::vector<Row>& rows) {
        SampleSpec shape;
        shape.dataType = dataType;
        shape.values = 2;
        shape.dataTable = name;
        shape.workbookPath = (dir / (name + ".xlsx")).string();
        SampleTables t = MakeSampleTables(shape);
        Datam data(static_cast<int>(rows.size()), 6, 0, 0);
        for (int c = 1; c <= 6; ++c) data(0, c) = t.data(0, c);
        for (size_t i = 0; i < rows.size(); ++i) {
            const int r = static_cast<int>(i) + 1;
            data(r, 1) = rows[i].wafer;
            data(r, 2) = static_cast<int32_t>(rows[i].test);
            data(r, 3) = static_cast<int32_t>(rows[i].dieX);
            data(r, 4) = static_cast<int32_t>(rows[i].dieY);
            data(r, 5) = rows[i].v;
            data(r, 6) = rows[i].h;
        }
        Result<std::string> saved = SaveData(data, t.excluded, t.sites, t.information);
        EXPECT_TRUE(saved.ok()) << saved.failure().message();
        Workbooks::CloseAll();
        return saved.ok() ? *saved : std::string();
    }
    std::string sample(const std::string& name) { return zorv::testing::MakeSampleWorkbook(dir, name); }

    fs::path dir;
    zorv::testing::CaptureReporter rep;
};

std::vector<cPoint*> PointsIn(const cLot& lot) {
    std::vector<cPoint*> out;
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields())
            for (cSite* s : f->sites())
                for (cPoint* p : s->Points()) out.push_back(p);
    return out;
}

long PointsOf(const cWafer& w) {
    long n = 0;
    for (cField* f : w.Fields())
        for (cSite* s : f->sites()) n += s->Points().Count();
    return n;
}

}  // namespace

// "If Z is still -999.9: DataSource 0 or 1 gives the root of V squared plus H
// squared, 4 gives the mean of V and H." A blank V or H is held as -999.9 and
// goes into the formula as that number. Values are stored x1000.
TEST_F(DataWorkbookLoad, DerivedZTakesABlankVOrHAsItsMark) {
    const Value blank;
    std::shared_ptr<cLot> lot;
    std::string overlay = write("ZOverlay", 1,
                                {{"W1", 1, 0, 0, 0.003, 0.004},    // 3, 4: Z = 5
                                 {"W1", 2, 0, 0, blank, 0.003},    // -999.9, 3: Z = sqrt(999.9^2 + 9) = 999.9045
                                 {"W1", 3, 0, 0, 0.002, blank}});  // 2, -999.9: Z = sqrt(999.9^2 + 4) = 999.9020
    Status loaded = GetExcelWBLot(overlay, {}, lot);
    ASSERT_TRUE(loaded.ok()) << loaded.failure().message();
    std::vector<cPoint*> p = PointsIn(*lot);
    ASSERT_EQ(p.size(), 3u);
    EXPECT_NEAR(p[0]->ValueZ, 5, 1e-3);
    EXPECT_EQ(p[1]->ValueV, -999.9f);
    EXPECT_NEAR(p[1]->ValueZ, 999.9045, 1e-3);
    EXPECT_EQ(p[2]->ValueH, -999.9f);
    EXPECT_NEAR(p[2]->ValueZ, 999.9020, 1e-3);

    std::string focus = write("ZFocus", 4,
                              {{"W1", 1, 0, 0, 0.010, 0.030},   // 10, 30: Z = 20
                               {"W1", 2, 0, 0, 0.010, blank},   // 10, -999.9: Z = -494.95
                               {"W1", 3, 0, 0, blank, blank}});  // no value: no point
    loaded = GetExcelWBLot(focus, {}, lot);
    ASSERT_TRUE(loaded.ok()) << loaded.failure().message();
    p = PointsIn(*lot);
    ASSERT_EQ(p.size(), 2u);
    EXPECT_NEAR(p[0]->ValueZ, 20, 1e-3);
    EXPECT_NEAR(p[1]->ValueZ, -494.95, 1e-3);

    // CD data leaves a missing Z as it is.
    std::string cd = write("ZCd", 2, {{"W1", 1, 0, 0, 0.050, blank}});
    loaded = GetExcelWBLot(cd, {}, lot);
    ASSERT_TRUE(loaded.ok()) << loaded.failure().message();
    p = PointsIn(*lot);
    ASSERT_EQ(p.size(), 1u);
    EXPECT_EQ(p[0]->ValueZ, -999.9f);
}

// A blank wafer name counts toward the stop but the row is read: it goes to
// AddWafer with the blank name, and AddWafer names a new wafer by its number
// ("2", key "W2"). A run of blank names stays in that wafer; the fifth blank
// in a row ends the load, keeping the four before it.
TEST_F(DataWorkbookLoad, BlankWaferNamesGoIntoAWaferNamedByItsNumber) {
    const Value blank;
    std::string path = write("Blanks", 1,
                             {{"Alpha", 1, 0, 0, 0.001, 0.001},
                              {"Alpha", 2, 0, 0, 0.001, 0.001},
                              {blank, 1, 0, 0, 0.002, 0.002},  // wafer 2, "W2"
                              {blank, 2, 0, 0, 0.002, 0.002},
                              {"Beta", 1, 0, 0, 0.003, 0.003},  // wafer 3
                              {blank, 1, 0, 0, 0.004, 0.004},  // wafer 4, "W4"
                              {blank, 2, 0, 0, 0.004, 0.004},
                              {blank, 3, 0, 0, 0.004, 0.004},
                              {blank, 4, 0, 0, 0.004, 0.004},
                              {blank, 1, 1, 0, 0.005, 0.005},  // the fifth: the load ends here
                              {"Gamma", 1, 0, 0, 0.006, 0.006}});
    std::shared_ptr<cLot> lot;
    Status loaded = GetExcelWBLot(path, {}, lot);
    ASSERT_TRUE(loaded.ok()) << loaded.failure().message();
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();
    const auto& w = lot->Wafers();
    ASSERT_EQ(w.Count(), 4);
    EXPECT_EQ(w.At(1)->KeyName, "Alpha");
    EXPECT_EQ(w.At(2)->KeyName, "W2");
    EXPECT_EQ(w.At(2)->WaferID, "2");
    EXPECT_EQ(w.At(3)->KeyName, "Beta");
    EXPECT_EQ(w.At(4)->KeyName, "W4");
    EXPECT_EQ(PointsOf(*w.At(1)), 2);
    EXPECT_EQ(PointsOf(*w.At(2)), 2);
    EXPECT_EQ(PointsOf(*w.At(3)), 1);
    EXPECT_EQ(PointsOf(*w.At(4)), 4);
    EXPECT_NEAR(w.At(4)->Fields().At(1)->sites().Item("1")->Points().Item(1)->ValueV, 4, 1e-3);
    EXPECT_EQ(w.At(4)->Fields().Count(), 1);  // the fifth row's field (1, 0) was never made
}

TEST_F(DataWorkbookLoad, FailuresNameWhereTheInputWasWrong) {
    std::shared_ptr<cLot> lot;
    const std::string missing = (dir / "Missing.xlsx").string();
    Status s = GetExcelWBLot(missing, {}, lot);
    ASSERT_FALSE(s.ok());
    EXPECT_EQ(s.failure().text, "Cannot find file: " + missing);
    EXPECT_EQ(s.failure().file, missing);
    EXPECT_EQ(s.failure().sheet, "");
    EXPECT_EQ(s.failure().chk, 1);

    // The data sheet with nothing in it: the text is the message alone, the
    // sheet is a field.
    std::string empty = sample("EmptyData");
    {
        auto wb = Workbook::open(empty);
        ASSERT_TRUE(wb.ok());
        (*wb)->sheet("EmptyData")->clear();
        (*wb)->sheet("EmptyData")->clearComments();
        ASSERT_TRUE((*wb)->save().ok());
    }
    s = GetExcelWBLot(empty, {}, lot);
    ASSERT_FALSE(s.ok());
    EXPECT_EQ(s.failure().text, std::string(LoadResString(resNoDataRows)) + " (EmptyData.xlsx)");
    EXPECT_EQ(s.failure().file, empty);
    EXPECT_EQ(s.failure().sheet, "EmptyData");
    EXPECT_EQ(s.failure().chk, 6);

    // No header cell of the three: the sheet, at checkpoint 18.
    std::string noHead = write("NoHead", 1, {{"W1", 1, 0, 0, 0.001, 0.002}});
    {
        auto wb = Workbook::open(noHead);
        ASSERT_TRUE(wb.ok());
        Worksheet* ws = (*wb)->sheet("NoHead");
        for (int c = 2; c <= 5; ++c) ws->setCell(1, c, "Col" + std::to_string(c));
        ASSERT_TRUE((*wb)->save().ok());
    }
    s = GetExcelWBLot(noHead, {}, lot);
    ASSERT_FALSE(s.ok());
    EXPECT_EQ(s.failure().text, "This is not a proper format data sheet.");
    EXPECT_EQ(s.failure().sheet, "NoHead");
    EXPECT_EQ(s.failure().chk, 18);

    // Without "Sites": the routine that reads it says so and names it.
    std::string noSites = (dir / "NoSites.xlsx").string();
    {
        auto wb = Workbook::open(sample("WithSites"));
        ASSERT_TRUE(wb.ok());
        (*wb)->removeSheet("Sites");
        ASSERT_TRUE((*wb)->saveAs(noSites).ok());
    }
    s = GetExcelWBLot(noSites, {}, lot);
    ASSERT_FALSE(s.ok());
    EXPECT_EQ(s.failure().tag, "Import(GetWorksheetSites): ");
    EXPECT_EQ(s.failure().text, LoadResString(resNoSitesSheet));
    EXPECT_EQ(s.failure().sheet, "Sites");
    EXPECT_EQ(s.failure().file, noSites);
    // The caller shows each once; the loader itself showed nothing.
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();
}

// No to the data sheet question ends the load; the question was the message,
// so the failure has no text, and the workbook the load opened is closed.
TEST_F(DataWorkbookLoad, LoadTheUserEndsFailsWithoutText) {
    std::string path = sample("Asked");
    LoadOptions o;
    o.sheetName = "Nowhere";
    o.quiet = true;
    std::shared_ptr<cLot> lot;
    Status s = GetExcelWBLot(path, o, lot);
    ASSERT_FALSE(s.ok());
    EXPECT_EQ(s.failure().text, "");
    ASSERT_EQ(rep.boxes.size(), 1u) << rep.joined();
    EXPECT_NE(rep.boxes[0].find("Cannot locate data sheet:'Nowhere'"), std::string::npos);
    bool aborted = false;
    for (const std::string& t : rep.statuses) aborted |= t == " Aborting data load...";
    EXPECT_TRUE(aborted);
    EXPECT_EQ(Workbooks::Find(path), nullptr);

    // A workbook the process held stays open after a failed load.
    WorkbookPtr held;
    ASSERT_TRUE(OpenExcelWorksheet(path, held, nullptr, false).ok());
    s = GetExcelWBLot(path, o, lot);
    EXPECT_FALSE(s.ok());
    EXPECT_EQ(Workbooks::Find(path), held);
}

// The loader reads no setting and writes none; the front passes the options
// in and persists what the load asks to remember.
TEST_F(DataWorkbookLoad, SettingsComeInAsOptionsAndGoOutThroughTheFront) {
    const fs::path settings = dir / "settings.ini";
    const char* before = std::getenv("ZORV_SETTINGS_FILE");
    const std::string kept = before ? before : "";
    setenv("ZORV_SETTINGS_FILE", settings.c_str(), 1);

    std::string path = sample("Remembered");
    std::shared_ptr<cLot> lot;
    WBLotTables t;
    LoadOptions o;
    o.focusReportCorrections = false;
    ASSERT_TRUE(GetExcelWBLot(path, o, lot, &t).ok());
    EXPECT_FALSE(lot->FocusReportCorrections);
    EXPECT_FALSE(GetExcelWBLot((dir / "Missing.xlsx").string(), o, lot).ok());
    EXPECT_FALSE(fs::exists(settings));

    // 3 x 3 fields of 26 x 33 mm and no size given: range 2 plus three dies
    // is 165 mm, which snaps to 200 mm; "Substrate" gets it in micrometres.
    EXPECT_EQ(t.sourceDirectory, dir.string());
    EXPECT_DOUBLE_EQ(t.substrateMm, 200000);
    SaveLoadSettings(t);
    EXPECT_EQ(GetSetting(ApplicationTitle(), "Options", "SourceDirectory"), dir.string());
    EXPECT_EQ(GetSetting(ProductName(), "ToolSettings", "Substrate"), "200000");

    SaveSetting(ApplicationTitle(), "Options", "FocusCorrections", "False");
    SaveSetting(ProductName(), "ToolSettings", "Substrate", "150");
    LoadOptions read = LoadOptionsFromSettings();
    EXPECT_FALSE(read.focusReportCorrections);
    EXPECT_DOUBLE_EQ(read.substrateMm, 150);

    if (before) setenv("ZORV_SETTINGS_FILE", kept.c_str(), 1);
    else unsetenv("ZORV_SETTINGS_FILE");
}

// zorv-cli info only reads: the settings file is the same byte for byte after
// a good load and after each failing one, and is not made when missing.
TEST_F(DataWorkbookLoad, CliInfoLeavesTheSettingsFileAlone) {
    const char* cli = ZORV_CLI_PATH;
    ASSERT_TRUE(fs::exists(cli)) << cli;
    std::string noSites = (dir / "NoSites.xlsx").string();
    {
        auto wb = Workbook::open(sample("Good"));
        ASSERT_TRUE(wb.ok());
        (*wb)->removeSheet("Sites");
        ASSERT_TRUE((*wb)->saveAs(noSites).ok());
    }
    const std::string garbage = (dir / "Garbage.xlsx").string();
    std::ofstream(garbage) << "not a workbook\n";
    struct Case {
        std::string workbook;
        int exit;
    };
    const std::vector<Case> cases = {{(dir / "Good.xlsx").string(), 0},
                                     {(dir / "Missing.xlsx").string(), 1},
                                     {garbage, 1},
                                     {noSites, 1}};
    const fs::path home = dir / "config";
    const fs::path settings = home / "zorv" / "settings.ini";
    auto run = [&](const Case& c) {
        const std::string out = (dir / ("cli-" + std::to_string(getpid()) + ".txt")).string();
        const std::string cmd = "env -u ZORV_SETTINGS_FILE XDG_CONFIG_HOME='" + home.string() + "' " + cli +
                                " info '" + c.workbook + "' > '" + out + "' 2>&1";
        const int rc = std::system(cmd.c_str());
        EXPECT_TRUE(WIFEXITED(rc) && WEXITSTATUS(rc) == c.exit) << c.workbook << ": " << ReadBytes(out);
    };

    fs::create_directories(home);
    for (const Case& c : cases) {
        run(c);
        EXPECT_FALSE(fs::exists(settings)) << c.workbook;
    }

    // A settings file of the user's, with the keys a load used to write.
    const char* before = std::getenv("ZORV_SETTINGS_FILE");
    const std::string kept = before ? before : "";
    setenv("ZORV_SETTINGS_FILE", settings.c_str(), 1);
    SaveSetting(ApplicationTitle(), "Options", "SourceDirectory", "/elsewhere");
    SaveSetting(ProductName(), "ToolSettings", "Substrate", "150");
    SaveSetting(ApplicationTitle(), "Options", "FocusCorrections", "False");
    if (before) setenv("ZORV_SETTINGS_FILE", kept.c_str(), 1);
    else unsetenv("ZORV_SETTINGS_FILE");
    const std::string bytes = ReadBytes(settings);
    ASSERT_FALSE(bytes.empty());
    const auto mtime = fs::last_write_time(settings);
    for (const Case& c : cases) {
        run(c);
        EXPECT_EQ(ReadBytes(settings), bytes) << c.workbook;
        EXPECT_EQ(fs::last_write_time(settings), mtime) << c.workbook;
    }
}
