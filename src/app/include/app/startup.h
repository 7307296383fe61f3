// ZorvStartup: the process's entry procedure. It decides, from the raw
// command line (and the "Palvex" start-up menu), which run mode the process
// takes and which top-level windows open; a StartupHost carries the decisions
// out, so the same logic runs under the desktop program and under tests.
#pragma once

#include <array>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zorv {

// The six top-level windows a run mode can open.
enum class ModeWindow { Main, ProcessWindow, Calibrate, Analysis, Reticle, DailyMonitor };

// Object name of a mode window ("frmMain", "frmProcessWindow", ...).
const char* ModeWindowName(ModeWindow w);

struct RunMode {
    const char* word;    // looked for in the command line
    int menuNumber;      // number in the start-up menu (Main: 6 and any other)
    const char* title;   // application title the mode sets
    ModeWindow window;   // the window it opens
    bool showAfterLoad;  // false: the window shows itself during its load
};

// The run modes in the order their words are tested.
const std::array<RunMode, 6>& RunModes();

// The modes whose word occurs in the command line, in table order. Each word
// is a case-insensitive plain substring of the whole line; the tests do not
// exclude each other.
std::vector<const RunMode*> MatchRunModes(std::string_view commandLine);

// Case-insensitive plain substring test.
bool ContainsNoCase(std::string_view text, std::string_view word);

// The word that calls the start-up menu.
inline constexpr const char* kStartupMenuWord = "Palvex";

// The menu's prompt, each line ended by CR LF.
std::string StartupMenuPrompt();

// An input box: prompt, title, default; returns the typed text, "" on Cancel.
using InputBoxFn =
    std::function<std::string(const std::string& prompt, const std::string& title, const std::string& def)>;

// The mode word of a menu number: 1 "RET", 2 "PW", 3 "PSFMff", 4 "PSFMcal",
// 5 "DMA", anything else "Main".
const char* MenuWordFor(long number);

// Runs the start-up menu. Default of the box is the stored StartUp value
// (application ProductName, section ApplicationTitle, default "2"). A
// zero-length answer returns the command line unchanged; a non-numeric answer
// asks again; a numeric one is rounded half to even, saved as typed and
// replaces the whole command line by its mode word.
std::string RunStartupMenu(const std::string& commandLine, const InputBoxFn& inputBox);

// What start-up needs from the front end.
class StartupHost {
public:
    virtual ~StartupHost() = default;
    // The raw command line text (no parsing of quotes or options).
    virtual std::string commandLine() = 0;
    // False when another copy of the program is already running.
    virtual bool acquireInstance() = 0;
    // Creates the window object of a mode without loading it. Start-up calls
    // it for the monitor before the title is set (its object exists first).
    virtual void createWindow(const RunMode& mode) { (void)mode; }
    virtual void showSplash() {}
    virtual void hideSplash() {}
    // Creates and loads the window of a mode, then shows it when asked. The
    // reticle window of the "RET" mode starts by itself as the top window.
    // Throws WindowUnloaded when the window unloaded itself during its load.
    virtual void openWindow(const RunMode& mode, bool show) = 0;
    // The start-up menu's input box.
    virtual std::string inputBox(const std::string& prompt, const std::string& title,
                                 const std::string& def) = 0;
};

// Run-time error 364: a window unloaded itself during its load. Start-up does
// not report it.
class WindowUnloaded : public std::runtime_error {
public:
    WindowUnloaded() : std::runtime_error("Object was unloaded") {}
    static constexpr int kNumber = 364;
};

// Builders of the process-wide objects (template library, import format
// table), run by start-up before any mode window exists. The subsystems that
// own them register here.
void AddStartupObjectBuilder(std::function<void()> build);
void ClearStartupObjectBuilders();

struct StartupResult {
    bool refused = false;              // another copy runs
    std::string commandLine;           // after the menu
    std::vector<ModeWindow> opened;    // windows opened, in order
    bool failed = false;               // an error ended start-up
};

// The raw command line start-up read (before the menu); the monitor window
// reads its automation arguments from it.
const std::string& StartupCommandLine();

// The start-up sequence. Returns what it did; a process whose result opened no
// window ends quietly.
StartupResult ZorvStartup(StartupHost& host);

}  // namespace zorv
