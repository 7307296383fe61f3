#include "app/startup.h"

#include <cctype>
#include <cmath>
#include <exception>

#include "base/identity.h"
#include "base/proc.h"
#include "base/regional.h"
#include "base/report.h"
#include "app/settings.h"

namespace zorv {

namespace {

const std::array<RunMode, 6> kModes{{
    {"PSFMff", 3, "Zorv PSFM Full-Field", ModeWindow::Analysis, true},
    {"PSFMcal", 4, "Zorv PSFM Calibrate", ModeWindow::Calibrate, true},
    {"PW", 2, "Zorv PW", ModeWindow::ProcessWindow, true},
    {"RET", 1, "Zorv MaskFactor", ModeWindow::Reticle, true},
    {"DMA", 5, "Zorv DM", ModeWindow::DailyMonitor, true},
    {"Main", 6, "Zorv Main", ModeWindow::Main, false},
}};

// The empty command line: frmMain, loaded and shown, title unchanged.
const RunMode kEmptyLine{"", 0, "", ModeWindow::Main, true};

std::string& rawLine() {
    static std::string l;
    return l;
}

std::vector<std::function<void()>>& builders() {
    static std::vector<std::function<void()>> b;
    return b;
}

}  // namespace

const char* ModeWindowName(ModeWindow w) {
    switch (w) {
        case ModeWindow::Main: return "frmMain";
        case ModeWindow::ProcessWindow: return "frmProcessWindow";
        case ModeWindow::Calibrate: return "frmCalibrate";
        case ModeWindow::Analysis: return "frmAnalysis";
        case ModeWindow::Reticle: return "frmReticle";
        case ModeWindow::DailyMonitor: return "frmDailyMonitor";
    }
    return "";
}

const std::array<RunMode, 6>& RunModes() { return kModes; }

bool ContainsNoCase(std::string_view text, std::string_view word) {
    if (word.empty()) return true;
    if (word.size() > text.size()) return false;
    auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
    for (size_t i = 0; i + word.size() <= text.size(); ++i) {
        size_t k = 0;
        while (k < word.size() && lower(text[i + k]) == lower(word[k])) ++k;
        if (k == word.size()) return true;
    }
    return false;
}

std::vector<const RunMode*> MatchRunModes(std::string_view commandLine) {
    std::vector<const RunMode*> out;
    for (const RunMode& m : kModes)
        if (ContainsNoCase(commandLine, m.word)) out.push_back(&m);
    return out;
}

std::string StartupMenuPrompt() {
    return "Program startup: \r\n"
           "1.Zorv MaskFactor\r\n"
           "2.Zorv PW\r\n"
           "3.Zorv PSFM Fixed-Focus\r\n"
           "4.Zorv PSFM Calibrate\r\n"
           "5.Zorv DM\r\n"
           "6.Zorv Main\r\n";
}

const char* MenuWordFor(long number) {
    switch (number) {
        case 1: return "RET";
        case 2: return "PW";
        case 3: return "PSFMff";
        case 4: return "PSFMcal";
        case 5: return "DMA";
        default: return "Main";
    }
}

std::string RunStartupMenu(const std::string& commandLine, const InputBoxFn& inputBox) {
    const std::string def = GetSetting(ProductName(), ApplicationTitle(), "StartUp", "2");
    for (;;) {
        const std::string answer = inputBox(StartupMenuPrompt(), ApplicationTitle(), def);
        if (answer.empty()) return commandLine;
        double d = 0;
        if (!ParseMachineNumber(answer, d)) continue;
        // Rounded to the nearest integer, a half to the even neighbour; a number
        // beyond any menu entry selects Main.
        const double r = std::nearbyint(d);
        const long n = (std::isfinite(r) && std::fabs(r) < 1e9) ? static_cast<long>(r) : 0;
        SaveSetting(ProductName(), ApplicationTitle(), "StartUp", answer);
        return MenuWordFor(n);
    }
}

const std::string& StartupCommandLine() { return rawLine(); }

void AddStartupObjectBuilder(std::function<void()> build) { builders().push_back(std::move(build)); }
void ClearStartupObjectBuilders() { builders().clear(); }

StartupResult ZorvStartup(StartupHost& host) {
    Proc p("ZorvStartup: ");  // reported below, with the product name as title
    StartupResult res;
    bool splashUp = false;
    try {
        p.chk = 1;
        if (!host.acquireInstance()) {
            res.refused = true;
            p.msg = "One instance of " + ProductName() + " is already running on this computer.";
        } else {
            p.chk = 2;
            std::string cmd = host.commandLine();
            rawLine() = cmd;
            p.chk = 3;
            host.showSplash();
            splashUp = true;
            p.chk = 4;
            for (auto& b : builders()) b();
            if (cmd.empty()) {
                p.chk = 5;
                host.openWindow(kEmptyLine, true);
                res.opened.push_back(ModeWindow::Main);
            } else {
                p.chk = 6;
                if (ContainsNoCase(cmd, kStartupMenuWord))
                    cmd = RunStartupMenu(cmd, [&](const std::string& pr, const std::string& t,
                                                  const std::string& d) { return host.inputBox(pr, t, d); });
                p.chk = 7;
                for (const RunMode* m : MatchRunModes(cmd)) {
                    if (m->window == ModeWindow::DailyMonitor) host.createWindow(*m);
                    SetApplicationTitle(m->title);
                    host.openWindow(*m, m->showAfterLoad);
                    res.opened.push_back(m->window);
                }
            }
            res.commandLine = cmd;
            p.chk = 8;
            host.hideSplash();
            splashUp = false;
        }
    } catch (const std::exception& e) {
        res.failed = true;
        const std::string desc = e.what();
        const bool unloaded = dynamic_cast<const WindowUnloaded*>(&e) != nullptr ||
                              ContainsNoCase(desc, "unloaded");
        if (!unloaded) p.error(desc);
    } catch (...) {
        res.failed = true;
        p.error("Unknown error");
    }
    if (splashUp) {
        try {
            host.hideSplash();
        } catch (...) {
        }
    }
    const Failure f = p.failure();
    if (!f.text.empty()) MsgBox(f.message(), f.boxFlags(), ProductName());
    SetStatusText("");
    return res;
}

}  // namespace zorv
