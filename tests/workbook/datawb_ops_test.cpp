// Information sheet helpers, the sheet menu, and zorv-cli info on good and
// bad workbooks.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/identity.h"
#include "base/report.h"
#include "app/shutdown.h"
#include "common/capture_reporter.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"
#include "workbook_test_util.h"

namespace fs = std::filesystem;
using namespace zorv;
using zorv::testing::MakeSampleWorkbook;

namespace {

std::string RunCommand(const std::string& cmd, int& rc) {
    // ctest runs each test in its own process, side by side: one capture file per process.
    std::string out = (fs::path(ZORV_TEST_TMP) / ("datawb_cli_out-" + std::to_string(getpid()) + ".txt")).string();
    rc = std::system((cmd + " > " + out + " 2>&1").c_str());
    std::ifstream in(out);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
}  // namespace

class DataWorkbookOps : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::path(ZORV_TEST_TMP) / "datawb_ops" /
              ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::create_directories(dir);
        SetReporter(&rep);
        Workbooks::CloseAll();
    }
    void TearDown() override {
        Workbooks::CloseAll();
        SetReporter(nullptr);
    }
    fs::path dir;
    zorv::testing::CaptureReporter rep;
};

TEST_F(DataWorkbookOps, DataTypeAndInformationSheet) {
    std::string cd = MakeSampleWorkbook(dir, "OpsCD", 2);
    std::string ov = MakeSampleWorkbook(dir, "OpsOverlay", 1);
    auto a = Workbook::open(cd);
    auto b = Workbook::open(ov);
    ASSERT_TRUE(a.ok() && b.ok());
    Result<bool> cdType = xlDataTypeCD(a->get()), overlayType = xlDataTypeCD(b->get());
    ASSERT_TRUE(cdType.ok() && overlayType.ok());
    EXPECT_TRUE(*cdType);
    EXPECT_FALSE(*overlayType);
    Result<bool> none = xlDataTypeCD(nullptr);
    EXPECT_FALSE(none.ok());
    EXPECT_NE(none.failure().message().find("Excel workbook not provided."), std::string::npos);
    (*b)->removeSheet("Information");
    Result<bool> noInfo = xlDataTypeCD(b->get());
    EXPECT_FALSE(noInfo.ok());
    EXPECT_NE(noInfo.failure().message().find("'Information' data sheet not present."), std::string::npos);

    // With no Information sheet the keys are made, die sizes from Sites B2, C2.
    Result<Datam> made = GetWorksheetInspection(b->get());
    ASSERT_TRUE(made.ok()) << made.failure().message();
    const Datam& info = *made;
    ASSERT_EQ(info.rowUb(), kInformationKeyCount);
    EXPECT_EQ(info(infoDataTable, 2).toString(), "OpsOverlay");
    EXPECT_DOUBLE_EQ(info(infoDieSizeX, 2).toDouble(), 26);
    EXPECT_DOUBLE_EQ(info(infoDieSizeY, 2).toDouble(), 33);
    EXPECT_EQ((*b)->sheetNames().back(), "Information");
    Datam t;
    Status noBook = CreateInfoWorksheet(nullptr, t);
    EXPECT_FALSE(noBook.ok());
    EXPECT_NE(noBook.failure().message().find("A workbook reference was not provided."), std::string::npos);

    std::vector<std::string> menu(6, "");
    ASSERT_TRUE(UpdateSpreadsheets(&menu, a->get()).ok());
    EXPECT_EQ(menu[0], "Sites");
    EXPECT_EQ(menu[2], "OpsCD");
    EXPECT_EQ(menu[5], "Empty");
    Status noForm = UpdateSpreadsheets(nullptr, a->get());
    EXPECT_FALSE(noForm.ok());
    EXPECT_NE(noForm.failure().message().find("A form was not provided."), std::string::npos);
}

TEST_F(DataWorkbookOps, UpdateXLInformationWritesTheGeometryBack) {
    std::string path = MakeSampleWorkbook(dir, "OpsGeom", 1);
    std::shared_ptr<cLot> lot;
    WBLotTables t;
    Status loaded = GetExcelWBLot(path, {}, lot, &t);
    ASSERT_TRUE(loaded.ok()) << loaded.failure().message();
    lot->DieSizeX = 22000;
    lot->SiteXoffset = -1500;
    lot->WaferSize = 300000;
    Status updated = UpdateXLInformation(t.workbook.get(), lot.get());
    ASSERT_TRUE(updated.ok()) << updated.failure().message();
    Workbooks::CloseAll();
    auto wb = Workbook::open(path);
    ASSERT_TRUE(wb.ok());
    Worksheet* is = (*wb)->sheet("Information");
    EXPECT_DOUBLE_EQ(is->cell(infoDieSizeX, 2).toDouble(), 22);
    EXPECT_DOUBLE_EQ(is->cell(infoSiteXoffset, 2).toDouble(), -1.5);
    EXPECT_DOUBLE_EQ(is->cell(infoWaferSize, 2).toDouble(), 300);
    Status noBook = UpdateXLInformation(nullptr, lot.get());
    EXPECT_FALSE(noBook.ok());
    EXPECT_NE(noBook.failure().message().find("Please reload data."), std::string::npos);
}

TEST_F(DataWorkbookOps, CliInfo) {
    const char* cli = ZORV_CLI_PATH;
    ASSERT_TRUE(fs::exists(cli)) << cli;
    std::string sample = std::string(ZORV_DATA_DIR) + "/samples/SampleOverlay.xlsx";
    int rc = 0;
    std::string out = RunCommand(std::string(cli) + " info " + sample + " --json", rc);
    EXPECT_EQ(rc, 0) << out;
    EXPECT_NE(out.find("\"points\":72"), std::string::npos) << out;
    EXPECT_NE(out.find("\"dataType\":\"Overlay\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"name\":\"X_reg\""), std::string::npos) << out;
    std::string bad = (dir / "NotAWorkbook.xlsx").string();
    std::ofstream(bad) << "not a workbook\n";
    out = RunCommand(std::string(cli) + " info " + bad, rc);
    EXPECT_NE(rc, 0);
    EXPECT_NE(out.find("NotAWorkbook.xlsx"), std::string::npos) << out;
}

TEST_F(DataWorkbookOps, CliSampleRefusesShapesThatCannotBeMade) {
    const char* cli = ZORV_CLI_PATH;
    ASSERT_TRUE(fs::exists(cli)) << cli;
    const std::string out = (dir / "Refused.xlsx").string();
    fs::remove(out);
    // Sizes of nothing or below nothing used to crash the sample maker.
    for (const char* opts : {"--wafers -3", "--sites 0", "--fields 0", "--values 9", "--wafers abc",
                             "--fields 1000 --sites 2"}) {
        int rc = 0;
        std::string text = RunCommand(std::string(cli) + " sample-workbook " + out + " " + opts, rc);
        ASSERT_TRUE(WIFEXITED(rc)) << opts << ": " << text;
        EXPECT_EQ(WEXITSTATUS(rc), 2) << opts << ": " << text;
        EXPECT_NE(text.find("sample-workbook: "), std::string::npos) << opts << ": " << text;
    }
    EXPECT_FALSE(fs::exists(out));
    // The library side keeps at least one of everything.
    SampleSpec none;
    none.wafers = -1;
    none.sitesX = 0;
    none.excludedRows = -5;
    SampleTables t = MakeSampleTables(none);
    EXPECT_EQ(t.data.rowUb(), 18);  // one wafer, 3 x 3 fields, 1 x 2 sites
    EXPECT_EQ(t.excluded.rowUb(), 0);
}

TEST_F(DataWorkbookOps, OpeningLogsItsStepsAndReusesAnOpenWorkbook) {
    std::string log = (dir / "RemoteCall.Log").string();
    fs::remove(log);
    fs::remove(dir / "New_book.xlsx");
    SetLogging(true);
    GetLogFile(log);
    WorkbookPtr wb;
    Worksheet* ws = nullptr;
    Status rc = OpenExcelWorksheet((dir / "New book").string(), wb, &ws, true);
    WorkbookPtr again;
    Status rc2 = OpenExcelWorksheet((dir / "New_book.xlsx").string(), again, nullptr, false);
    WorkbookPtr none;
    Status rc3 = OpenExcelWorksheet((dir / "Template.xlt").string(), none, nullptr, false);
    if (!rc3) Report(rc3.failure());  // shown as the caller shows it, into the log
    SetLogging(false);
    ASSERT_TRUE(rc.ok());
    EXPECT_TRUE(rc2.ok());
    EXPECT_EQ(again, wb);  // the open one is reused, not read again
    EXPECT_FALSE(rc3.ok());
    ASSERT_TRUE(ws);
    EXPECT_EQ(ws->name(), "Information");
    EXPECT_TRUE(fs::exists(dir / "New_book.xlsx"));  // spaces out, extension added, saved at once
    std::ifstream in(log);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("    ...Loading: "), std::string::npos) << text;
    EXPECT_NE(text.find("    ...Start Excel Application.  chk:"), std::string::npos) << text;
    EXPECT_NE(text.find("    ...SaveAS Workbook: "), std::string::npos) << text;
    EXPECT_NE(text.find("    ...File Checked, now create..: "), std::string::npos) << text;
    EXPECT_NE(text.find("' successfully loaded/saved. "), std::string::npos) << text;
    EXPECT_NE(text.find("    ...Workbook:  'New_book.xlsx' already exists.  chk:"), std::string::npos) << text;
    // In logging mode the message goes to the log, not to a box.
    EXPECT_NE(text.find("A Zorv Macro Template '.XLT' has not been loaded."), std::string::npos) << text;
    EXPECT_NE(text.find("    ...Saveas Workbook properties."), std::string::npos) << text;
    EXPECT_TRUE(rep.joined().empty()) << rep.joined();

    // From the file: loaded, its properties written, and a workbook of ours
    // still counts as saved.
    wb.reset();
    again.reset();
    Workbooks::CloseAll();
    log = (dir / "RemoteCall2.Log").string();  // the first log stays open
    fs::remove(log);
    SetLogging(true);
    GetLogFile(log);
    WorkbookPtr fromFile;
    Status rc4 = OpenExcelWorksheet((dir / "New_book.xlsx").string(), fromFile, nullptr, false);
    SetLogging(false);
    ASSERT_TRUE(rc4.ok());
    EXPECT_TRUE(fromFile->saved());
    EXPECT_EQ(fromFile->property("Subject"), "Zorv Wavefront Analysis Data");
    std::ifstream in2(log);
    text.assign(std::istreambuf_iterator<char>(in2), std::istreambuf_iterator<char>());
    size_t load = text.find("    ...Load 'New_book.xlsx' from existing workbook. chk:");
    size_t props = text.find("    ...Save Workbook properties.");
    size_t done = text.find("    ...Workbook: 'New_book.xlsx' successfully loaded/saved. ");
    EXPECT_NE(load, std::string::npos) << text;
    EXPECT_NE(props, std::string::npos) << text;
    EXPECT_NE(done, std::string::npos) << text;
    EXPECT_LT(load, props);
    EXPECT_LT(props, done);
}

TEST_F(DataWorkbookOps, UnitsGoBackToTheSitesSheet) {
    std::string path = MakeSampleWorkbook(dir, "OpsUnits", 1);
    std::shared_ptr<cLot> lot;
    ASSERT_TRUE(GetExcelWBLot(path, {}, lot).ok());
    EXPECT_EQ(lot->ValueV_Units, 2);  // "nm"
    lot->ValueV_Units = 1;              // Angstrom
    ASSERT_EQ(lot->UpdateUnits2Workbook(), 1) << rep.joined();
    Workbooks::CloseAll();
    ASSERT_TRUE(GetExcelWBLot(path, {}, lot).ok());
    EXPECT_EQ(lot->ValueV_Units, 1);
    EXPECT_EQ(lot->ValueH_units, 2);
}

TEST_F(DataWorkbookOps, DataSheetFoundByNameCommentOrAnswer) {
    auto wb = Workbook::create((dir / "Find.xlsx").string(), "Sheet1");
    wb->addSheet("LOT7_extra");
    wb->addSheet("Other");
    wb->sheet("Other")->setComment(1, 1, "DataSheet");
    // Exact name first, then a name that begins with it, any case.
    EXPECT_EQ(GetDataSheet(wb.get(), "lot7_EXTRA", true)->name(), "LOT7_extra");
    EXPECT_EQ(GetDataSheet(wb.get(), "Lot7.xls", true)->name(), "LOT7_extra");
    // Not by name: the "DataSheet" comment (not in quiet mode).
    EXPECT_EQ(GetDataSheet(wb.get(), "Missing", false)->name(), "Other");
    // Quiet: the question about the first sheet; No ends with no sheet.
    rep.clear();
    EXPECT_EQ(GetDataSheet(wb.get(), "Missing", true), nullptr);
    EXPECT_NE(rep.joined().find("Cannot locate data sheet:'Missing' in workbook:'Find.xlsx'\r\n"
                             "Use data from sheet: Sheet1 instead?"),
              std::string::npos)
        << rep.joined();
    EXPECT_EQ(StatusText(), " Aborting data load...");

    // A reference that is no longer open is opened again from its folder.
    std::string path = MakeSampleWorkbook(dir, "Checked", 1);
    WorkbookPtr gone;
    Status reopened = CheckExcel(gone, dir.string(), "Checked");
    ASSERT_TRUE(reopened.ok()) << reopened.failure().message();
    ASSERT_TRUE(gone);
    EXPECT_EQ(gone->name(), "Checked.xlsx");
    WorkbookPtr same = gone;
    EXPECT_TRUE(CheckExcel(same, "", "").ok());
    EXPECT_EQ(same, gone);

    // A second index entry for the same sheet renews its row.
    ASSERT_TRUE(AddIndexItem(gone.get(), "Checked", "first").ok());
    ASSERT_TRUE(AddIndexItem(gone.get(), "Checked", "second").ok());
    Worksheet* ix = gone->sheet("Index");
    ASSERT_TRUE(ix);
    EXPECT_EQ(ix->cell(3, 3).toString(), "second");
    EXPECT_TRUE(ix->cell(4, 1).isEmpty());
}

TEST_F(DataWorkbookOps, ClosingAHeldWorkbookIsRefusedUntilTheProgramExits) {
    auto wb = Workbook::create((dir / "Held.xlsx").string());
    bool cancel = false;
    xlwb_BeforeClose(*wb, cancel);
    EXPECT_TRUE(cancel);
    EXPECT_EQ(rep.joined(), "Workbook 'Held.xlsx' should not be manually closed .\r\nPlease close from within " +
                                ApplicationTitle() + "\n");
    rep.clear();
    SetExiting(true);
    xlwb_BeforeClose(*wb, cancel);
    SetExiting(false);
    EXPECT_FALSE(cancel);
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();
    EXPECT_EQ(rep.statusText(), "Workbook Held.xlsx has been closed.");
}
