// Settings store, regional numbers and dates, recent-file lists, preferences.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/format.h"
#include "common/comma_locale.h"
#include "base/identity.h"
#include "app/mru.h"
#include "app/preferences.h"
#include "base/regional.h"
#include "app/settings.h"

using namespace zorv;
namespace fs = std::filesystem;

namespace {

std::string slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Each test gets its own settings file and a known title.
class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = fs::path(ZORV_TEST_TMP) / "settings" / (std::string(info->test_suite_name()) + "." + info->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        file_ = dir_ / "sub" / "settings.ini";
        ::setenv("ZORV_SETTINGS_FILE", file_.c_str(), 1);
        oldTitle_ = ApplicationTitle();
        SetApplicationTitle("Zorv Main");
    }
    void TearDown() override {
        ::unsetenv("ZORV_SETTINGS_FILE");
        SetRegionalSeparatorsForTest('\0', '\0');
        SetApplicationTitle(oldTitle_);
    }
    fs::path dir_, file_;
    std::string oldTitle_;
};

}  // namespace

TEST_F(SettingsTest, RoundTripKeepsOtherKeysAndApplications) {
    EXPECT_EQ(GetSetting("Zorv PW", "Options", "MRUsize", "10"), "10");  // no file yet
    SaveSetting("Zorv PW", "Options", "MRUsize", "6");
    SaveSetting("Zorv PW", "Options", "ImportFilter", "*.txt");
    SaveSetting("Zorv DM", "Options", "MRUsize", "4");
    SaveSetting("Zorv PW", "Settings", "MainWidth", "9000");
    EXPECT_EQ(GetSetting("Zorv PW", "Options", "MRUsize"), "6");
    EXPECT_EQ(GetSetting("Zorv DM", "Options", "MRUsize"), "4");
    // Names compare without regard to case, as in the registry.
    EXPECT_EQ(GetSetting("zorv pw", "OPTIONS", "mrusize"), "6");
    SaveSetting("Zorv PW", "options", "MRUSIZE", "8");
    const auto all = GetAllSettings("Zorv PW", "Options");
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0], (std::pair<std::string, std::string>{"MRUsize", "8"}));
    EXPECT_EQ(all[1], (std::pair<std::string, std::string>{"ImportFilter", "*.txt"}));
    EXPECT_EQ(GetSetting("Zorv PW", "Settings", "MainWidth"), "9000");
    EXPECT_TRUE(GetAllSettings("Zorv PW", "Nothing").empty());
    // The default settings file follows XDG_CONFIG_HOME.
    ::unsetenv("ZORV_SETTINGS_FILE");
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    if (xdg && *xdg) {
        EXPECT_EQ(SettingsFilePath(), std::string(xdg) + "/zorv/settings.ini");
    }
}

TEST_F(SettingsTest, AwkwardNamesAndValuesSurviveTheFile) {
    const std::string value = "  a=b;c [x]\\y\nsecond line\r\n100% ";
    SaveSetting("App [1]\\x", "Sec;tion=", "key=1 ", value);
    SaveSetting("App [1]\\x", "Sec;tion=", "Plain", "");
    EXPECT_EQ(GetSetting("App [1]\\x", "Sec;tion=", "key=1 "), value);
    EXPECT_EQ(GetSetting("App [1]\\x", "Sec;tion=", "Plain", "def"), "");
    // Each entry stays on one line.
    int lines = 0;
    std::istringstream in(slurp(file_));
    for (std::string l; std::getline(in, l);) ++lines;
    EXPECT_EQ(lines, 5);  // comment, blank, header, two keys
}

TEST_F(SettingsTest, DeleteKeySectionAndApplication) {
    SaveSetting("A", "S1", "k1", "1");
    SaveSetting("A", "S1", "k2", "2");
    SaveSetting("A", "S2", "k1", "3");
    SaveSetting("B", "S1", "k1", "4");
    DeleteSetting("A", "S1", "k1");
    EXPECT_EQ(GetSetting("A", "S1", "k1", "gone"), "gone");
    EXPECT_EQ(GetSetting("A", "S1", "k2"), "2");
    DeleteSetting("A", "S1");
    EXPECT_TRUE(GetAllSettings("A", "S1").empty());
    EXPECT_EQ(GetSetting("A", "S2", "k1"), "3");
    DeleteSetting("A", "");
    EXPECT_EQ(GetSetting("A", "S2", "k1", "gone"), "gone");
    EXPECT_EQ(GetSetting("B", "S1", "k1"), "4");
    DeleteSetting("B", "S1", "missing");  // no error for a missing key
}

TEST_F(SettingsTest, DamagedFileIsReadAsFarAsItMakesSense) {
    fs::create_directories(file_.parent_path());
    {
        std::ofstream out(file_, std::ios::binary);
        out << "garbage before any section\n"
            << std::string("\x00\xff\xfe binary", 10) << "\n"
            << "[no separator]\nlost=1\n"
            << "[Zorv Main\\Options]\r\n"
            << "MRUsize=7\r\n"
            << "no equals sign\n"
            << "=no key\n"
            << "[unterminated\\header\n"
            << "x=1\n"
            << "[Zorv Main\\Settings]\n"
            << "MainWidth=8000";  // no final line end
    }
    EXPECT_EQ(GetSetting("Zorv Main", "Options", "MRUsize"), "7");
    EXPECT_EQ(GetSetting("Zorv Main", "Settings", "MainWidth"), "8000");
    EXPECT_EQ(GetSetting("no separator", "", "lost", "d"), "d");
    // A write keeps what could be read and drops the rubbish.
    SaveSetting("Zorv Main", "Options", "ImportFilter", "x");
    EXPECT_EQ(GetSetting("Zorv Main", "Options", "MRUsize"), "7");
    EXPECT_EQ(GetSetting("Zorv Main", "Settings", "MainWidth"), "8000");
    EXPECT_EQ(slurp(file_).find("garbage"), std::string::npos);
}

TEST_F(SettingsTest, WritesReplaceTheFileAtomicallyAndSeeOutsideChanges) {
    SaveSetting("A", "S", "k", "1");
    struct stat before;
    ASSERT_EQ(::stat(file_.c_str(), &before), 0);
    SaveSetting("A", "S", "k", "2");
    struct stat after;
    ASSERT_EQ(::stat(file_.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);  // a new file renamed over the old one
    for (const auto& e : fs::directory_iterator(file_.parent_path()))
        EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path();
    // Another process edits the file: the next read sees it.
    EXPECT_EQ(GetSetting("A", "S", "k"), "2");
    {
        std::ofstream out(file_, std::ios::trunc);
        out << "[A\\S]\nk=changed elsewhere\nother=1\n";
    }
    EXPECT_EQ(GetSetting("A", "S", "k"), "changed elsewhere");
    // A write starts from the file on disk, not from a stale copy.
    SaveSetting("A", "S", "new", "3");
    EXPECT_EQ(GetSetting("A", "S", "other"), "1");
}

TEST_F(SettingsTest, UnwritableStoreFailsQuietlyWithAReason) {
    fs::create_directories(dir_ / "blocker");
    ::setenv("ZORV_SETTINGS_FILE", (dir_ / "blocker").c_str(), 1);  // a directory
    SaveSetting("A", "S", "k", "1");
    EXPECT_NE(LastSettingsError(), "");
    EXPECT_EQ(GetSetting("A", "S", "k", "def"), "def");
    ::setenv("ZORV_SETTINGS_FILE", file_.c_str(), 1);
    SaveSetting("A", "S", "k", "1");
    EXPECT_EQ(LastSettingsError(), "");
}

TEST_F(SettingsTest, RegionalNumbersUseThePointWhateverTheMachine) {
    SaveSettingRegional("Zorv PW", "ProcessWindow", "PWtargetRange", 0.6);
    SaveSettingRegional("Zorv PW", "ProcessWindow", "Single", 0.6f);
    SaveSettingRegional("Zorv PW", "ProcessWindow", "Count", 5);
    SaveSettingRegional("Zorv PW", "ProcessWindow", "Big", 1234567.25);
    EXPECT_EQ(GetSetting("Zorv PW", "ProcessWindow", "PWtargetRange"), "0.6");
    EXPECT_EQ(GetSetting("Zorv PW", "ProcessWindow", "Single"), "0.6");
    EXPECT_EQ(GetSetting("Zorv PW", "ProcessWindow", "Count"), "5");
    EXPECT_EQ(GetSetting("Zorv PW", "ProcessWindow", "Big"), "1234567.25");
    EXPECT_FLOAT_EQ(GetSettingRegional("Zorv PW", "ProcessWindow", "PWtargetRange", "10.0"), 0.6f);

    // A machine with "," as decimal separator: the same texts, the same numbers.
    SetRegionalSeparatorsForTest(',', '.');
    char dec = 0, thou = 0;
    EXPECT_TRUE(GetRegionalSeparators(dec, thou));
    EXPECT_EQ(dec, ',');
    EXPECT_EQ(thou, '.');
    EXPECT_FLOAT_EQ(GetSettingRegional("Zorv PW", "ProcessWindow", "PWtargetRange", "10.0"), 0.6f);
    EXPECT_FLOAT_EQ(GetSettingRegional("Zorv PW", "ProcessWindow", "Big", "0"), 1234567.25f);
    EXPECT_FLOAT_EQ(GetSettingRegional("Zorv PW", "ProcessWindow", "Missing", "10.0"), 10.0f);
    SaveSettingRegional("Zorv PW", "ProcessWindow", "Written", 2.5);
    EXPECT_EQ(GetSetting("Zorv PW", "ProcessWindow", "Written"), "2.5");
    SetRegionalSeparatorsForTest('\0', '\0');
    EXPECT_FALSE(GetRegionalSeparators(dec, thou));

    // The format argument is honoured; empty and non-numeric texts give 0.
    SaveSetting("Zorv PW", "ProcessWindow", "Fine", "0.123456789");
    EXPECT_FLOAT_EQ(GetSettingRegional("Zorv PW", "ProcessWindow", "Fine", ""), 0.12346f);
    EXPECT_FLOAT_EQ(GetSettingRegional("Zorv PW", "ProcessWindow", "Fine", "", "0.0"), 0.1f);
    EXPECT_EQ(GetSettingRegional("Zorv PW", "ProcessWindow", "None", ""), 0.0f);
    SaveSetting("Zorv PW", "ProcessWindow", "Word", "abc");
    EXPECT_EQ(GetSettingRegional("Zorv PW", "ProcessWindow", "Word", ""), 0.0f);
    SaveSetting("Zorv PW", "ProcessWindow", "Flag", "True");
    EXPECT_EQ(GetSettingRegional("Zorv PW", "ProcessWindow", "Flag", ""), -1.0f);
}

TEST_F(SettingsTest, CommaDecimalCLocaleChangesNothing) {
    // Qt sets the C locale from the environment; a German user gets ","
    // from printf and strtod. Build such a locale if the system has none.
    const bool ok = zorv::testing::UseCommaLocale();
    if (!ok) GTEST_SKIP() << "no locale with a comma decimal separator on this machine";
    ASSERT_EQ(std::string(std::localeconv()->decimal_point), ",");
    SaveSettingRegional("A", "S", "v", 0.6);
    SaveSetting("A", "S", "text", "1234.5");
    const std::string stored = GetSetting("A", "S", "v");
    const float back = GetSettingRegional("A", "S", "v", "");
    const float text = GetSettingRegional("A", "S", "text", "");
    const std::string formatted = Format(1234.56, "0,000.00");
    zorv::testing::RestoreCLocale();
    EXPECT_EQ(stored, "0.6");
    EXPECT_FLOAT_EQ(back, 0.6f);
    EXPECT_FLOAT_EQ(text, 1234.5f);
    EXPECT_EQ(formatted, "1,234.56");
}

TEST(Regional, FixRegionalNumberBothWays) {
    // Settings to machine.
    EXPECT_EQ(FixRegionalNumber("0.6", ',', '.', true), "0,6");
    EXPECT_EQ(FixRegionalNumber("1,234.5", ',', '.', true), "1.234,5");
    EXPECT_EQ(FixRegionalNumber("1,234.5", '.', ',', true), "1,234.5");
    // Machine to settings, only for a text holding ",".
    EXPECT_EQ(FixRegionalNumber("1.234,5", '.', ',', false), "1,234.5");
    EXPECT_EQ(FixRegionalNumber("0,6", '.', ',', false), "0.6");
    EXPECT_EQ(FixRegionalNumber("1.5", ',', '.', false), "1.5");
}

TEST(Regional, MachineNumbers) {
    double v = 0;
    EXPECT_TRUE(ParseMachineNumber(" 1,234.5 ", v));
    EXPECT_DOUBLE_EQ(v, 1234.5);
    EXPECT_TRUE(ParseMachineNumber("-.5e2", v));
    EXPECT_DOUBLE_EQ(v, -50);
    EXPECT_TRUE(ParseMachineNumber("1D3", v));
    EXPECT_DOUBLE_EQ(v, 1000);
    EXPECT_FALSE(ParseMachineNumber("1.2.3", v));
    EXPECT_FALSE(ParseMachineNumber("", v));
    EXPECT_FALSE(ParseMachineNumber("e5", v));
    SetRegionalSeparatorsForTest(',', '.');
    EXPECT_TRUE(ParseMachineNumber("1.234,5", v));
    EXPECT_DOUBLE_EQ(v, 1234.5);
    EXPECT_TRUE(ParseMachineNumber("0,6", v));
    EXPECT_DOUBLE_EQ(v, 0.6);
    SetRegionalSeparatorsForTest('\0', '\0');
}

TEST(Regional, DatesFromText) {
    const double sunday = 46348;  // 2026-11-22
    double s = 0;
    EXPECT_TRUE(ParseDateText("2026-11-22", s));
    EXPECT_DOUBLE_EQ(s, sunday);
    EXPECT_TRUE(ParseDateText("11/22/2026", s));
    EXPECT_DOUBLE_EQ(s, sunday);
    EXPECT_TRUE(ParseDateText("22-Nov-26", s));
    EXPECT_DOUBLE_EQ(s, sunday);
    EXPECT_TRUE(ParseDateText("22.11.2026", s));
    EXPECT_DOUBLE_EQ(s, sunday);
    EXPECT_TRUE(ParseDateText("Sunday, November 22, 2026", s));
    EXPECT_DOUBLE_EQ(s, sunday);
    EXPECT_TRUE(ParseDateText("22 Nov 2026 2:30 PM", s));
    EXPECT_DOUBLE_EQ(s, sunday + 14.5 / 24);
    EXPECT_TRUE(ParseDateText("2026-11-22 14:05:09", s));
    EXPECT_EQ(FormatDate(s, "yyyy-mm-dd hh:mm:ss"), "2026-11-22 14:05:09");
    EXPECT_TRUE(ParseDateText("12:00", s));
    EXPECT_DOUBLE_EQ(s, 0.5);
    EXPECT_TRUE(ParseDateText("1-Jan-30", s));
    EXPECT_EQ(FormatDate(s, "yyyy"), "1930");
    EXPECT_TRUE(ParseDateText("1-Jan-29", s));
    EXPECT_EQ(FormatDate(s, "yyyy"), "2029");
    EXPECT_FALSE(ParseDateText("2026-02-30", s));
    EXPECT_FALSE(ParseDateText("25:00", s));
    EXPECT_FALSE(ParseDateText("Nov", s));
    EXPECT_FALSE(ParseDateText("", s));
    EXPECT_DOUBLE_EQ(DateSerial(1899, 12, 30), 0);
    EXPECT_DOUBLE_EQ(DateSerial(1899, 12, 29, 6), -1.25);
    const CivilTime t = CivilFromSerial(-1.25);
    EXPECT_EQ(t.day, 29);
    EXPECT_EQ(t.hour, 6);
}

TEST(Regional, FixRegionalDateRepairsSeparators) {
    double s = 0;
    EXPECT_TRUE(FixRegionalDateSerial("2026-11-22", '.', ',', s));
    EXPECT_DOUBLE_EQ(s, 46348);
    // A time written on a "," machine: the repair makes it readable here.
    EXPECT_TRUE(FixRegionalDateSerial("12:00:30,5", '.', ',', s));
    EXPECT_NEAR(s * 86400, 12 * 3600 + 30.5, 1e-6);
    EXPECT_FALSE(FixRegionalDateSerial("no date", '.', ',', s));
}

TEST_F(SettingsTest, RecentFilesMoveUpWithoutDoublesAndTrim) {
    MRU_RegisterFile("RecentFiles", "/data/a.xlsx", 3);
    MRU_RegisterFile("RecentFiles", "/data/b.xlsx", 3);
    MRU_RegisterFile("RecentFiles", "/data/c.xlsx", 3);
    EXPECT_EQ(MRU_List("RecentFiles", 10),
              (std::vector<std::string>{"/data/c.xlsx", "/data/b.xlsx", "/data/a.xlsx"}));
    MRU_RegisterFile("RecentFiles", "/data/a.xlsx", 3);
    EXPECT_EQ(MRU_List("RecentFiles", 10),
              (std::vector<std::string>{"/data/a.xlsx", "/data/c.xlsx", "/data/b.xlsx"}));
    MRU_RegisterFile("RecentFiles", "/data/d.xlsx", 3);
    EXPECT_EQ(MRU_List("RecentFiles", 10),
              (std::vector<std::string>{"/data/d.xlsx", "/data/a.xlsx", "/data/c.xlsx"}));
    // Keys by position under the application title.
    EXPECT_EQ(GetSetting("Zorv Main", "RecentFiles", "1"), "/data/d.xlsx");
    EXPECT_EQ(GetSetting("Zorv Main", "RecentFiles", "3"), "/data/c.xlsx");
    EXPECT_EQ(GetSetting("Zorv Main", "RecentFiles", "4", "none"), "none");
    // A smaller size drops the tail and its keys.
    MRU_RegisterFile("RecentFiles", "/data/c.xlsx", 2);
    EXPECT_EQ(MRU_List("RecentFiles", 10), (std::vector<std::string>{"/data/c.xlsx", "/data/d.xlsx"}));
    EXPECT_EQ(GetAllSettings("Zorv Main", "RecentFiles").size(), 2u);
    EXPECT_EQ(MRU_List("RecentFiles", 1), (std::vector<std::string>{"/data/c.xlsx"}));
    // Lists and titles are kept apart.
    MRU_RegisterFile("RecentFilesMEF", "/data/m.xlsx", 10);
    EXPECT_EQ(MRU_List("RecentFilesMEF", 10).size(), 1u);
    SetApplicationTitle("Zorv PW");
    EXPECT_TRUE(MRU_List("RecentFiles", 10).empty());
    SetApplicationTitle("Zorv Main");
    MRU_RemoveFile("RecentFiles", "/data/c.xlsx");
    EXPECT_EQ(MRU_List("RecentFiles", 10), (std::vector<std::string>{"/data/d.xlsx"}));
    EXPECT_EQ(GetSetting("Zorv Main", "RecentFiles", "1"), "/data/d.xlsx");
    MRU_RegisterFile("RecentFiles", "", 10);  // an empty path is not listed
    EXPECT_EQ(MRU_List("RecentFiles", 10).size(), 1u);
}

TEST_F(SettingsTest, ResetPreferencesRestoresTheTableDefaults) {
    EXPECT_EQ(GetPreference("Options", "MRUsize"), "10");
    EXPECT_EQ(PreferenceDefaultValue("toolsettings", "exposuretool"), "ASM 700");
    EXPECT_EQ(PreferenceDefaultValue("FEMsetup", "cmbFEMformat"), "#0.");
    SaveSetting("Zorv Main", "Options", "MRUsize", "4");
    SaveSetting("Zorv Main", "Options", "SourceDirectory", "/somewhere");
    SaveSetting("Zorv Main", "Options", "Extra", "x");
    SaveSetting("Zorv Main", "Settings", "IgnoreEmpty", "1");
    ResetPreferences("Options");
    EXPECT_EQ(GetSetting("Zorv Main", "Options", "MRUsize"), "10");
    EXPECT_EQ(GetSetting("Zorv Main", "Options", "FocusCorrections"), "True");
    EXPECT_EQ(GetSetting("Zorv Main", "Options", "SourceDirectory", "cleared"), "cleared");
    EXPECT_EQ(GetSetting("Zorv Main", "Options", "Extra", "cleared"), "cleared");
    EXPECT_EQ(GetSetting("Zorv Main", "Settings", "IgnoreEmpty"), "1");  // other sections stay
}

TEST_F(SettingsTest, ExposureToolSettingsAreSharedByEveryMode) {
    // The tool settings live under the product name, not the mode's title.
    SaveSetting("Zorv Wavefront Engineering", "ToolSettings", "ExposureTool", "Stepper 9");
    SaveSetting("Zorv Main", "ToolSettings", "ExposureTool", "mode copy");
    EXPECT_EQ(GetPreference("ToolSettings", "ExposureTool"), "Stepper 9");
    EXPECT_EQ(GetPreference("ToolSettings", "Notch"), "DOWN");
    ResetPreferences("ToolSettings");
    EXPECT_EQ(GetSetting("Zorv Wavefront Engineering", "ToolSettings", "ExposureTool"), "ASM 700");
    EXPECT_EQ(GetSetting("Zorv Wavefront Engineering", "ToolSettings", "Wavelength"), "193");
    EXPECT_EQ(GetSetting("Zorv Main", "ToolSettings", "ExposureTool"), "mode copy");
    EXPECT_EQ(PreferenceApplication("Options"), "Zorv Main");
}

TEST_F(SettingsTest, WindowRectanglesInTwips) {
    int x = 5, y = 6, w = 300, h = 200;
    EXPECT_FALSE(LoadWindowRect("Settings", "Main", x, y, w, h));
    EXPECT_EQ(x, 5);
    EXPECT_EQ(w, 433);  // default 6500 twips
    EXPECT_EQ(h, 433);
    SaveWindowRect("Settings", "Main", 10, 20, 640, 480);
    EXPECT_EQ(GetSetting("Zorv Main", "Settings", "MainLeft"), "150");
    EXPECT_EQ(GetSetting("Zorv Main", "Settings", "MainWidth"), "9600");
    x = y = w = h = 0;
    EXPECT_TRUE(LoadWindowRect("Settings", "Main", x, y, w, h));
    EXPECT_EQ(x, 10);
    EXPECT_EQ(y, 20);
    EXPECT_EQ(w, 640);
    EXPECT_EQ(h, 480);
    // A section without defaults keeps the caller's size.
    w = 111;
    h = 222;
    EXPECT_FALSE(LoadWindowRect("PWformSize", "", x, y, w, h));
    EXPECT_EQ(w, 111);
    EXPECT_EQ(h, 222);
}
