// The file choice without its dialog: the filter list, the settings it starts
// from and writes back, and where the data workbook goes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "app/settings.h"
#include "base/identity.h"
#include "common/capture_reporter.h"
#include "import/import.h"
#include "import_test_util.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

std::vector<std::string> Split(const std::string& s, char sep) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at; (at = s.find(sep, start)) != std::string::npos; start = at + 1) parts.push_back(s.substr(start, at - start));
    parts.push_back(s.substr(start));
    return parts;
}

// Each test its own settings file, so that parallel test programs never meet.
class FileOpen : public ::testing::Test {
protected:
    void SetUp() override {
        dir = FreshDir(std::string("file_open_") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        ::setenv("ZORV_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
    }
    void TearDown() override { ::unsetenv("ZORV_SETTINGS_FILE"); }
    void option(const std::string& key, const std::string& value) {
        SaveSetting(ApplicationTitle(), "Options", key, value);
    }
    fs::path dir;
};

TEST_F(FileOpen, FiltersListEveryFormatAfterAllFiles) {
    const FileOpenSetup s = FileOpenSettings();
    EXPECT_TRUE(s.filters.starts_with("All Files (*.*)|*.*|Accent Optical CDS|*.*|Accent Overlay|*.*|"
                                      "AMAT NanoSEM 3D|*.*|"))
        << s.filters;
    const std::vector<std::string> parts = Split(s.filters, '|');
    const Datam& table = FormatTable();
    ASSERT_EQ(parts.size(), static_cast<size_t>(2 + 2 * table.rowUb()));
    EXPECT_EQ(parts[2 + 2 * 7], "Focus/Dose(FEM) spreadsheets");
    EXPECT_EQ(parts[3 + 2 * 7], "*.XLS");
    EXPECT_EQ(parts[2 + 2 * 19], "Nikon NRM Series OL (*.msr, *.XLS)");
    EXPECT_EQ(parts[3 + 2 * 19], "*.msr; *.XLS");
    EXPECT_EQ(parts.back(), table(table.rowUb(), 1).toString());
}

TEST_F(FileOpen, StoragePathHasOneBackSlashBetweenParts) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"C:\\data\\fab", "C:\\data\\fab"},
        {"C:\\\\data\\\\\\fab\\", "C:\\data\\fab\\"},
        {"C:/data/fab", "C:\\data\\fab"},
        {"D:\\a/\\b\\/c", "D:\\a\\b\\c"},
        {"D://a//b", "D:\\a\\b"},
        {"\\\\server\\share", "\\server\\share"},
        {"/home/eng/fem", "\\home\\eng\\fem"},
        {"", ""},
        {"plain", "plain"},
    };
    for (const auto& [in, want] : cases) EXPECT_EQ(NormaliseStoragePath(in), want) << in;
}

TEST_F(FileOpen, SettingsStartWithTheirDefaultsAndKeepTheChoice) {
    FileOpenSetup s = FileOpenSettings();
    EXPECT_TRUE(s.followLastDirectory);
    EXPECT_TRUE(s.storeInDataDirectory);
    EXPECT_EQ(s.startDirectory, "");
    EXPECT_EQ(s.dataStorageDirectory, "");

    SaveFileOpenChoice("/lab/fem runs/w07.xlsx", "Focus/Dose(FEM) spreadsheets");
    option("FollowLastDirectory", "0");
    option("StoreInDataDirectory", "0");
    option("DataStorageDirectory", "D:\\\\store//fem");
    s = FileOpenSettings();
    EXPECT_EQ(s.startDirectory, "/lab/fem runs");
    EXPECT_EQ(s.startFilter, "Focus/Dose(FEM) spreadsheets");
    EXPECT_FALSE(s.followLastDirectory);
    EXPECT_FALSE(s.storeInDataDirectory);
    EXPECT_EQ(s.dataStorageDirectory, "D:\\store\\fem");
    EXPECT_EQ(GetSetting(ApplicationTitle(), "Options", "SourceDirectory"), "/lab/fem runs");
    EXPECT_EQ(GetSetting(ApplicationTitle(), "Options", "ImportFilter"), "Focus/Dose(FEM) spreadsheets");
}

TEST_F(FileOpen, WorkbookFolderIsTheSourcesOrAReachableStorageFolder) {
    ScopedCapture rep;
    fs::create_directories(dir / "store");
    const std::string source = (dir / "raw" / "w07.xlsx").string();
    const std::string sourceFolder = (dir / "raw").string();

    FileOpenSetup s;
    s.storeInDataDirectory = true;
    s.dataStorageDirectory = NormaliseStoragePath((dir / "store").string());
    EXPECT_EQ(ImportDataFolder(s, source), sourceFolder);

    // Off: the storage folder, held in back-slash form, found on disk.
    s.storeInDataDirectory = false;
    EXPECT_EQ(ImportDataFolder(s, source), (dir / "store").string());
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();

    s.dataStorageDirectory = "";
    EXPECT_EQ(ImportDataFolder(s, source), sourceFolder) << "a folder never set is no warning";
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();

    s.dataStorageDirectory = NormaliseStoragePath((dir / "gone").string());
    EXPECT_EQ(ImportDataFolder(s, source), sourceFolder);
    ASSERT_EQ(rep.boxes.size(), 1u);
    EXPECT_EQ(rep.boxes[0], "Warning: Data storage directory: '" + s.dataStorageDirectory + "' is not accessable.");
    EXPECT_EQ(rep.flags[0], 64);
    EXPECT_EQ(rep.titles[0], ApplicationTitle() + " Data import.");
}

}  // namespace
}  // namespace zorv
