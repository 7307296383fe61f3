// The exposure tool library as the main window uses it: made from the
// settings, tools saved and read back by name, and the libraries people edit
// by hand.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "app/preferences.h"
#include "app/settings.h"
#include "base/report.h"
#include "common/capture_reporter.h"
#include "layout/tool_library.h"
#include "workbook/store.h"

namespace fs = std::filesystem;

namespace zorv {
namespace {

class ToolLibraryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fs::path(ZORV_TEST_TMP) / "tool_library" / ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir);
        fs::create_directories(dir);
        setenv("ZORV_SETTINGS_FILE", (dir / "settings.ini").string().c_str(), 1);
        SetReporter(&rep);
        Workbooks::CloseAll();
    }
    void TearDown() override {
        Workbooks::CloseAll();
        SetReporter(nullptr);
        unsetenv("ZORV_SETTINGS_FILE");
    }
    std::string path() const { return (dir / "Reticles" / kToolLibraryFile).string(); }

    fs::path dir;
    zorv::testing::CaptureReporter rep;
};

ExpoTool Tool(const std::string& name, const std::string& na) {
    ExpoTool t;
    t["Exposure Tool"] = name;
    t["Tool Type"] = "SCANNER";
    t["Substrate"] = "300";
    t["Notch"] = "DOWN";
    t["Reduction"] = "4";
    t["NA"] = na;
    t["PCinner"] = "0.55";
    t["PCouter"] = "0.85";
    t["Wavelength"] = "193";
    t["FieldSizeX"] = "26";
    t["FieldSizeY"] = "33";
    return t;
}

TEST_F(ToolLibraryTest, NewLibraryHoldsTheSettingsToolUnderTheKeysInOrder) {
    SaveSetting(PreferenceApplication("ToolSettings"), "ToolSettings", "ExposureTool", "NXT:1980");
    SaveSetting(PreferenceApplication("ToolSettings"), "ToolSettings", "NA", "1.35");
    WorkbookPtr wb;
    auto sheet = GetExpoToolLibrary(wb, path());
    ASSERT_TRUE(sheet.ok()) << sheet.failure().message();
    ASSERT_TRUE(fs::exists(path()));
    Worksheet& ws = **sheet;
    EXPECT_EQ(ws.name(), "ExposureTools");
    const char* keys[] = {"Exposure Tool", "Tool Type", "Substrate", "Notch", "Reduction", "NA", "PCinner",
                          "PCouter", "Wavelength", "FocalLength", "FieldSizeX", "FieldSizeY", "FieldCenterX",
                          "FieldCenterY", "SubWidth", "SubHeight", "SubXoffset", "SubYoffset"};
    for (int r = 0; r < 18; ++r) EXPECT_EQ(ws.cell(r + 1, 1).toString(), keys[r]);
    EXPECT_EQ(ws.cell(1, 2).toString(), "NXT:1980");
    EXPECT_DOUBLE_EQ(ws.cell(6, 2).toDouble(), 1.35);
    // Unset settings take the library's own defaults.
    EXPECT_EQ(ws.cell(2, 2).toString(), "SCANNER");
    EXPECT_DOUBLE_EQ(ws.cell(7, 2).toDouble(), 0.3);
    EXPECT_EQ(wb->property("Subject"), "Zorv Wavefront Exposure Tool Library");
}

TEST_F(ToolLibraryTest, SavedToolsReadBackAndAKnownNameKeepsItsColumn) {
    WorkbookPtr wb;
    auto sheet = GetExpoToolLibrary(wb, path());
    ASSERT_TRUE(sheet.ok());
    ASSERT_TRUE(SaveExpoTool2Library(*sheet, Tool("Scanner 4", "0.75")).ok());
    ASSERT_TRUE(SaveExpoTool2Library(*sheet, Tool("Scanner 7", "0.93")).ok());
    EXPECT_EQ(ExpoToolNames(**sheet), (std::vector<std::string>{"ASM 700", "Scanner 4", "Scanner 7"}));
    // The same name again, any case: its own column changes, none is added.
    ASSERT_TRUE(SaveExpoTool2Library(*sheet, Tool("scanner 4", "0.8")).ok());
    EXPECT_EQ(ExpoToolNames(**sheet).size(), 3u);
    EXPECT_EQ((*sheet)->lastCol(), 4);
    ASSERT_TRUE(SaveToolLibrary(wb).ok());

    Workbooks::CloseAll();
    WorkbookPtr again;
    auto reopened = GetExpoToolLibrary(again, path());
    ASSERT_TRUE(reopened.ok());
    auto s4 = UpdateExpoToolFromLibrary(*reopened, "Scanner 4");
    ASSERT_TRUE(s4.ok()) << s4.failure().message();
    EXPECT_EQ(s4->get("NA"), "0.8");
    EXPECT_EQ(s4->get("Notch"), "DOWN");
    EXPECT_EQ(s4->get("FieldSizeY"), "33");
    EXPECT_EQ(s4->get("FocalLength"), "");
    auto s7 = UpdateExpoToolFromLibrary(*reopened, "Scanner 7");
    ASSERT_TRUE(s7.ok());
    EXPECT_EQ(s7->get("NA"), "0.93");
}

TEST_F(ToolLibraryTest, MessagesForWhatCannotBeFound) {
    EXPECT_EQ(UpdateExpoToolFromLibrary(nullptr, "X").failure().text, "Excel Tool Sheet not loaded.");
    WorkbookPtr wb;
    auto sheet = GetExpoToolLibrary(wb, path());
    ASSERT_TRUE(sheet.ok());
    EXPECT_EQ(UpdateExpoToolFromLibrary(*sheet, "").failure().text,
              "An exposure tool name was has not been properly entered.\r\nCurrent name:");
    EXPECT_EQ(UpdateExpoToolFromLibrary(*sheet, "Stepper 9").failure().text,
              "Could not locate exposure tool 'Stepper 9' in the library.");
    EXPECT_EQ(SaveExpoTool2Library(*sheet, ExpoTool{}).failure().text,
              "An exposure tool name was not properly entered.\r\nCurrent name:");

    // A row taken out by hand: the next load of a tool says so.
    Worksheet& ws = **sheet;
    for (int c = 1; c <= ws.lastCol(); ++c) ws.setCell(6, c, Value());
    auto lost = UpdateExpoToolFromLibrary(*sheet, "ASM 700");
    ASSERT_FALSE(lost.ok());
    EXPECT_EQ(lost.failure().text, "Possible library corruption!\r\nValue: 'NA' Not Found.");
    // Saving a tool brings the row back.
    ASSERT_TRUE(SaveExpoTool2Library(*sheet, Tool("ASM 700", "0.6")).ok());
    EXPECT_TRUE(UpdateExpoToolFromLibrary(*sheet, "ASM 700").ok());
}

TEST_F(ToolLibraryTest, HandMadeLibraryWithoutTheSheetGetsOne) {
    fs::create_directories(dir / "Reticles");
    {
        WorkbookPtr hand = Workbook::create(path(), "My tools");
        hand->sheet("My tools")->setCell(1, 1, Value("notes"));
        ASSERT_TRUE(hand->save().ok());
    }
    WorkbookPtr wb;
    auto sheet = GetExpoToolLibrary(wb, path());
    ASSERT_TRUE(sheet.ok()) << sheet.failure().message();
    EXPECT_EQ((*sheet)->name(), "ExposureTools");
    EXPECT_EQ(wb->sheetNames(), (std::vector<std::string>{"My tools", "ExposureTools"}));
    EXPECT_EQ(ExpoToolNames(**sheet), std::vector<std::string>{"ASM 700"});
    // A sheet of the name in another case is the library's.
    WorkbookPtr other = Workbook::create((dir / "lower.xlsx").string(), "exposuretools");
    auto found = GetExpoToolLibrary(other, (dir / "lower.xlsx").string());
    ASSERT_TRUE(found.ok());
    EXPECT_EQ((*found)->name(), "exposuretools");
}

}  // namespace
}  // namespace zorv
