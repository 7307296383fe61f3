#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "base/identity.h"
#include "base/report.h"
#include "app/settings.h"
#include "app/shutdown.h"
#include "app/startup.h"

using namespace zorv;

namespace {

struct Boxes : Reporter {
    struct Box {
        std::string text;
        int flags;
        std::string title;
    };
    std::vector<Box> boxes;
    std::vector<std::string> statuses;
    int answer = vbNo;
    int showBox(const std::string& m, int f, const std::string& t) override {
        boxes.push_back({m, f, t});
        return answer;
    }
    void status(const std::string& t) override { statuses.push_back(t); }
    std::string currentStatus() const override { return statuses.empty() ? "" : statuses.back(); }
};

// Records what start-up asks of the front end.
struct FakeHost : StartupHost {
    std::string line;
    bool instanceFree = true;
    std::deque<std::string> answers;  // typed into the menu, in turn
    struct Call {
        std::string prompt, title, def;
    };
    std::vector<Call> menuCalls;
    std::vector<std::pair<ModeWindow, bool>> opened;  // window, shown by start-up
    std::vector<std::string> titleAtOpen;
    std::vector<std::string> events;
    std::function<void(const RunMode&)> onOpen;

    std::vector<std::string> createdUnderTitle;
    void createWindow(const RunMode& m) override {
        events.push_back(std::string("create ") + ModeWindowName(m.window));
        createdUnderTitle.push_back(ApplicationTitle());
    }
    std::string commandLine() override { return line; }
    bool acquireInstance() override { return instanceFree; }
    void showSplash() override { events.push_back("splash"); }
    void hideSplash() override { events.push_back("unsplash"); }
    void openWindow(const RunMode& m, bool show) override {
        events.push_back(ModeWindowName(m.window));
        if (onOpen) onOpen(m);
        opened.emplace_back(m.window, show);
        titleAtOpen.push_back(ApplicationTitle());
    }
    std::string inputBox(const std::string& p, const std::string& t, const std::string& d) override {
        menuCalls.push_back({p, t, d});
        if (answers.empty()) return "";
        std::string a = answers.front();
        answers.pop_front();
        return a;
    }
};

class Startup : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(ZORV_TEST_TMP);
        settingsFile_ = std::string(ZORV_TEST_TMP) + "/startup-settings-" + std::to_string(getpid()) + ".ini";
        std::filesystem::remove(settingsFile_);
        setenv("ZORV_SETTINGS_FILE", settingsFile_.c_str(), 1);
        SetApplicationTitle(kProductName);
        SetReporter(&boxes);
    }
    void TearDown() override {
        SetReporter(nullptr);
        SetApplicationTitle(kProductName);
        unsetenv("ZORV_SETTINGS_FILE");
        std::filesystem::remove(settingsFile_);
    }
    std::vector<ModeWindow> windows(const FakeHost& h) const {
        std::vector<ModeWindow> w;
        for (auto& o : h.opened) w.push_back(o.first);
        return w;
    }
    Boxes boxes;
    std::string settingsFile_;
};

}  // namespace

TEST(RunModeTable, OrderWordsTitlesAndWindows) {
    const auto& m = RunModes();
    const char* words[] = {"PSFMff", "PSFMcal", "PW", "RET", "DMA", "Main"};
    const char* titles[] = {"Zorv PSFM Full-Field", "Zorv PSFM Calibrate", "Zorv PW",
                            "Zorv MaskFactor",      "Zorv DM",             "Zorv Main"};
    const ModeWindow wins[] = {ModeWindow::Analysis, ModeWindow::Calibrate, ModeWindow::ProcessWindow,
                               ModeWindow::Reticle,  ModeWindow::DailyMonitor, ModeWindow::Main};
    const int numbers[] = {3, 4, 2, 1, 5, 6};
    for (int i = 0; i < 6; ++i) {
        EXPECT_STREQ(m[i].word, words[i]);
        EXPECT_STREQ(m[i].title, titles[i]);
        EXPECT_EQ(m[i].window, wins[i]);
        EXPECT_EQ(m[i].menuNumber, numbers[i]);
        EXPECT_STREQ(MenuWordFor(numbers[i]), words[i]);
    }
    EXPECT_STREQ(MenuWordFor(7), "Main");
    EXPECT_STREQ(MenuWordFor(0), "Main");
    EXPECT_STREQ(MenuWordFor(-1), "Main");
}

TEST(RunModeTable, LooseSubstringMatchInTableOrder) {
    auto kinds = [](std::string_view line) {
        std::vector<ModeWindow> k;
        for (auto* m : MatchRunModes(line)) k.push_back(m->window);
        return k;
    };
    EXPECT_EQ(kinds("psfmcal"), std::vector<ModeWindow>{ModeWindow::Calibrate});
    EXPECT_EQ(kinds("PSFMff"), std::vector<ModeWindow>{ModeWindow::Analysis});
    // Words are tested in table order whatever their order on the line.
    EXPECT_EQ(kinds("DMA RET"), (std::vector<ModeWindow>{ModeWindow::Reticle, ModeWindow::DailyMonitor}));
    // A path that happens to hold the letters opens that mode too.
    EXPECT_EQ(kinds("/data/secret/lot.xls"), std::vector<ModeWindow>{ModeWindow::Reticle});
    EXPECT_EQ(kinds("upward"), std::vector<ModeWindow>{ModeWindow::ProcessWindow});
    EXPECT_TRUE(kinds("hello").empty());
    EXPECT_TRUE(kinds("").empty());
}

TEST_F(Startup, EmptyLineOpensMainShownAndKeepsTitle) {
    FakeHost h;
    const StartupResult r = ZorvStartup(h);
    ASSERT_EQ(h.opened.size(), 1u);
    EXPECT_EQ(h.opened[0], std::make_pair(ModeWindow::Main, true));
    EXPECT_EQ(ApplicationTitle(), "Zorv Wavefront Engineering");
    EXPECT_EQ(h.events, (std::vector<std::string>{"splash", "frmMain", "unsplash"}));
    EXPECT_TRUE(boxes.boxes.empty());
    ASSERT_FALSE(boxes.statuses.empty());
    EXPECT_EQ(boxes.statuses.back(), "");
    EXPECT_FALSE(r.failed);
}

TEST_F(Startup, EachWordSetsTitleAndOpensItsWindow) {
    for (const RunMode& m : RunModes()) {
        SetApplicationTitle(kProductName);
        FakeHost h;
        h.line = m.word;
        ZorvStartup(h);
        ASSERT_EQ(h.opened.size(), 1u) << m.word;
        EXPECT_EQ(h.opened[0].first, m.window);
        // Main is only loaded: frmMain shows itself; the others are shown.
        EXPECT_EQ(h.opened[0].second, m.window != ModeWindow::Main);
        EXPECT_EQ(ApplicationTitle(), m.title);
        EXPECT_EQ(h.titleAtOpen[0], m.title);
    }
}

TEST_F(Startup, TwoWordsOpenTwoWindowsLaterTitleStands) {
    FakeHost h;
    h.line = "dma ret";
    const StartupResult r = ZorvStartup(h);
    EXPECT_EQ(windows(h), (std::vector<ModeWindow>{ModeWindow::Reticle, ModeWindow::DailyMonitor}));
    EXPECT_EQ(r.opened, windows(h));
    EXPECT_EQ(ApplicationTitle(), "Zorv DM");
    // The monitor's object exists before its title is set; then it is loaded.
    ASSERT_EQ(h.createdUnderTitle.size(), 1u);
    EXPECT_EQ(h.createdUnderTitle[0], "Zorv MaskFactor");
    EXPECT_EQ(h.titleAtOpen[1], "Zorv DM");
}

TEST_F(Startup, LineWithoutWordOpensNothingQuietly) {
    FakeHost h;
    h.line = "hello";
    const StartupResult r = ZorvStartup(h);
    EXPECT_TRUE(h.opened.empty());
    EXPECT_TRUE(r.opened.empty());
    EXPECT_TRUE(boxes.boxes.empty());
    EXPECT_EQ(h.events, (std::vector<std::string>{"splash", "unsplash"}));
    EXPECT_EQ(ApplicationTitle(), kProductName);
}

TEST_F(Startup, SecondInstanceShowsOnlyTheMessage) {
    FakeHost h;
    h.line = "PW";
    h.instanceFree = false;
    const StartupResult r = ZorvStartup(h);
    EXPECT_TRUE(r.refused);
    EXPECT_TRUE(h.events.empty());
    ASSERT_EQ(boxes.boxes.size(), 1u);
    EXPECT_EQ(boxes.boxes[0].text,
              "ZorvStartup: \r\nOne instance of Zorv Wavefront Engineering is already running on this "
              "computer. chk: 1");
    EXPECT_EQ(boxes.boxes[0].flags, vbInformation);
    EXPECT_EQ(boxes.boxes[0].title, "Zorv Wavefront Engineering");
    EXPECT_EQ(boxes.statuses.back(), "");
}

TEST_F(Startup, WindowUnloadedDuringLoadIsNotReportedOtherErrorsAre) {
    {
        FakeHost h;
        h.line = "PW RET";
        h.onOpen = [](const RunMode&) { throw WindowUnloaded(); };
        const StartupResult r = ZorvStartup(h);
        EXPECT_TRUE(r.failed);
        EXPECT_TRUE(boxes.boxes.empty());
        // The splash goes even so.
        EXPECT_EQ(h.events.back(), "unsplash");
    }
    {
        FakeHost h;
        h.line = "RET";
        h.onOpen = [](const RunMode&) { throw std::runtime_error("Form already UNLOADED"); };
        ZorvStartup(h);
        EXPECT_TRUE(boxes.boxes.empty());
    }
    {
        FakeHost h;
        h.line = "RET";
        h.onOpen = [](const RunMode&) { throw std::runtime_error("Out of memory"); };
        boxes.answer = vbNo;
        ZorvStartup(h);
        ASSERT_EQ(boxes.boxes.size(), 1u);
        // A critical box (with the e-mail offer) titled with the product name.
        EXPECT_EQ(boxes.boxes[0].flags, vbYesNo | vbCritical);
        EXPECT_EQ(boxes.boxes[0].title, "Zorv Wavefront Engineering");
        EXPECT_EQ(boxes.boxes[0].text.rfind("ZorvStartup: \r\nOut of memory chk: 7", 0), 0u);
        EXPECT_EQ(h.events.back(), "unsplash");
    }
}

TEST_F(Startup, ObjectBuildersRunBeforeAnyWindow) {
    FakeHost h;
    h.line = "PW";
    AddStartupObjectBuilder([&] { h.events.push_back("objects"); });
    ZorvStartup(h);
    ClearStartupObjectBuilders();
    EXPECT_EQ(h.events, (std::vector<std::string>{"splash", "objects", "frmProcessWindow", "unsplash"}));
}

TEST_F(Startup, MenuPromptTitleAndStoredDefault) {
    FakeHost h;
    h.line = "palvex";
    h.answers = {"2"};
    ZorvStartup(h);
    ASSERT_EQ(h.menuCalls.size(), 1u);
    EXPECT_EQ(h.menuCalls[0].prompt,
              "Program startup: \r\n1.Zorv MaskFactor\r\n2.Zorv PW\r\n3.Zorv PSFM Fixed-Focus\r\n"
              "4.Zorv PSFM Calibrate\r\n5.Zorv DM\r\n6.Zorv Main\r\n");
    EXPECT_EQ(h.menuCalls[0].title, "Zorv Wavefront Engineering");
    EXPECT_EQ(h.menuCalls[0].def, "2");  // nothing stored yet
    EXPECT_EQ(windows(h), std::vector<ModeWindow>{ModeWindow::ProcessWindow});
}

TEST_F(Startup, MenuAnswersSelectAndAreStoredAsTyped) {
    struct Case {
        const char* typed;
        ModeWindow win;
        const char* title;
    } cases[] = {
        {"7", ModeWindow::Main, "Zorv Main"},        {"0", ModeWindow::Main, "Zorv Main"},
        {"-1", ModeWindow::Main, "Zorv Main"},       {"2.5", ModeWindow::ProcessWindow, "Zorv PW"},
        {"3.5", ModeWindow::Calibrate, "Zorv PSFM Calibrate"}, {"1", ModeWindow::Reticle, "Zorv MaskFactor"},
        {" 5 ", ModeWindow::DailyMonitor, "Zorv DM"}, {"3", ModeWindow::Analysis, "Zorv PSFM Full-Field"},
        {"1e12", ModeWindow::Main, "Zorv Main"},
    };
    std::string stored = "2";
    for (const Case& c : cases) {
        SetApplicationTitle(kProductName);
        FakeHost h;
        h.line = "Palvex";
        h.answers = {c.typed};
        ZorvStartup(h);
        ASSERT_EQ(h.menuCalls.size(), 1u);
        EXPECT_EQ(h.menuCalls[0].def, stored) << c.typed;  // the last answer comes back as default
        EXPECT_EQ(windows(h), std::vector<ModeWindow>{c.win}) << c.typed;
        EXPECT_EQ(ApplicationTitle(), c.title) << c.typed;
        stored = c.typed;
        EXPECT_EQ(GetSetting(ProductName(), "Zorv Wavefront Engineering", "StartUp", "2"), stored);
    }
}

TEST_F(Startup, MenuAsksAgainOnNonNumeric) {
    FakeHost h;
    h.line = "Palvex";
    h.answers = {"abc", "two", " ", "4"};
    ZorvStartup(h);
    EXPECT_EQ(h.menuCalls.size(), 4u);
    EXPECT_EQ(windows(h), std::vector<ModeWindow>{ModeWindow::Calibrate});
    EXPECT_EQ(GetSetting(ProductName(), kProductName, "StartUp", ""), "4");
}

TEST_F(Startup, MenuAnswerReplacesLineCancelKeepsIt) {
    {
        // A typed number replaces the whole line: its own PW no longer counts.
        FakeHost h;
        h.line = "PALVEX PW";
        h.answers = {"4"};
        const StartupResult r = ZorvStartup(h);
        EXPECT_EQ(windows(h), std::vector<ModeWindow>{ModeWindow::Calibrate});
        EXPECT_EQ(r.commandLine, "PSFMcal");
        // The monitor's second reading sees the line as it was typed.
        EXPECT_EQ(StartupCommandLine(), "PALVEX PW");
    }
    {
        // Cancel (or an empty field) keeps the line; PW then opens its window.
        SaveSetting(ProductName(), kProductName, "StartUp", "5");
        FakeHost h;
        h.line = "PALVEX PW";
        const StartupResult r = ZorvStartup(h);
        EXPECT_EQ(h.menuCalls.size(), 1u);
        EXPECT_EQ(r.commandLine, "PALVEX PW");
        EXPECT_EQ(StartupCommandLine(), "PALVEX PW");
        EXPECT_EQ(windows(h), std::vector<ModeWindow>{ModeWindow::ProcessWindow});
        // Nothing is stored on Cancel.
        EXPECT_EQ(GetSetting(ProductName(), kProductName, "StartUp", ""), "5");
    }
    {
        // Cancelled menu, no mode word: nothing opens.
        FakeHost h;
        h.line = "Palvex";
        ZorvStartup(h);
        EXPECT_TRUE(h.opened.empty());
        EXPECT_TRUE(boxes.boxes.empty());
    }
}

// ------------------------------------------------------------- CloseExcel

namespace {
struct FakeStore {
    int open = 0;
    int closedAll = 0;
    int quits = 0;
    void install() {
        SetCloseWorkbooksHook({[this] { return open; }, [this] { ++closedAll; }, [this] { ++quits; }});
    }
};
}  // namespace

TEST_F(Startup, CloseExcelAsksOnlyWithOpenWorkbooks) {
    FakeStore store;
    store.install();
    EXPECT_EQ(CloseExcel(), 1);
    EXPECT_TRUE(boxes.boxes.empty());
    EXPECT_EQ(store.quits, 1);
    // The status line says so and is then cleared.
    ASSERT_GE(boxes.statuses.size(), 2u);
    EXPECT_EQ(boxes.statuses[boxes.statuses.size() - 2], "Exiting application ...");
    EXPECT_EQ(boxes.statuses.back(), "");

    store.open = 2;
    boxes.answer = vbYes;
    EXPECT_EQ(CloseExcel(), 1);
    ASSERT_EQ(boxes.boxes.size(), 1u);
    EXPECT_EQ(boxes.boxes[0].text, "Close all workbooks?");
    EXPECT_EQ(boxes.boxes[0].flags, vbYesNoCancel | vbQuestion);
    EXPECT_EQ(boxes.boxes[0].title, "Zorv Wavefront Engineering ver: 5.1.0");
    EXPECT_EQ(store.closedAll, 1);

    boxes.answer = vbNo;
    EXPECT_EQ(CloseExcel(), 1);
    EXPECT_EQ(store.closedAll, 1);

    boxes.answer = vbCancel;
    EXPECT_EQ(CloseExcel(), -1);
    EXPECT_EQ(store.closedAll, 1);
    EXPECT_EQ(store.quits, 1);

    // Automation: the question answers 0, which is neither Yes nor Cancel.
    boxes.answer = 0;
    EXPECT_EQ(CloseExcel(), 1);
    EXPECT_EQ(store.closedAll, 1);
    SetCloseWorkbooksHook({});
    EXPECT_EQ(CloseExcel(), 1);
}

TEST(CloseExcelRule, SheetWorkbooksCloseWithoutSaving) {
    EXPECT_TRUE(CloseExcelSavesWorkbook("Lot42.xls"));
    EXPECT_FALSE(CloseExcelSavesWorkbook("Sheet1"));
    EXPECT_FALSE(CloseExcelSavesWorkbook("mySheets.xls"));
    SetExiting(true);
    EXPECT_TRUE(Exiting());
    SetExiting(false);
    EXPECT_FALSE(Exiting());
}

TEST_F(Startup, ToolLibraryAsksOnlyWhenChangedAndClosesAlways) {
    int saved = 0, closed = 0;
    bool changed = false;
    SetToolLibraryHook({[] { return true; }, [&] { return changed; }, [&] { ++saved; }, [&] { ++closed; }});
    EXPECT_EQ(CloseToolLibrary(), 0);
    EXPECT_TRUE(boxes.boxes.empty());
    EXPECT_EQ(closed, 1);
    changed = true;
    boxes.answer = vbNo;
    EXPECT_EQ(CloseToolLibrary(), vbNo);
    ASSERT_EQ(boxes.boxes.size(), 1u);
    EXPECT_EQ(boxes.boxes[0].text, "The Exposure Tool Library has changed!\r\nSave the current library?");
    EXPECT_EQ(saved, 0);
    EXPECT_EQ(closed, 2);
    boxes.answer = vbYes;
    EXPECT_EQ(CloseToolLibrary(), vbYes);
    EXPECT_EQ(saved, 1);
    EXPECT_EQ(closed, 3);
    SetToolLibraryHook({});
    EXPECT_EQ(CloseToolLibrary(), 0);  // no library: nothing to do
}

TEST_F(Startup, WorkbookClosedByHandIsRefusedUnlessExiting) {
    SetApplicationTitle("Zorv PW");
    SetExiting(false);
    EXPECT_TRUE(WorkbookBeforeClose("Lot7.xls"));
    ASSERT_EQ(boxes.boxes.size(), 1u);
    EXPECT_EQ(boxes.boxes[0].text,
              "Workbook 'Lot7.xls' should not be manually closed .\r\nPlease close from within Zorv PW");
    SetExiting(true);
    EXPECT_FALSE(WorkbookBeforeClose("Lot7.xls"));
    EXPECT_EQ(boxes.boxes.size(), 1u);
    EXPECT_EQ(StatusText(), "Workbook Lot7.xls has been closed.");
    SetExiting(false);
}
