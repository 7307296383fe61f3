// The desktop program's start-up host: windows, splash, input box and the
// single-instance lock for ZorvStartup.
#pragma once

#include <QPointer>
#include <string>

#include "app/instance.h"
#include "app/startup.h"
#include "ui/splash.h"

namespace zorv::ui {

class ZorvForm;

// Creates (or finds) the window of a kind, keeps it in its global reference.
ZorvForm* CreateModeWindow(ModeWindow kind);

class QtStartupHost : public StartupHost {
public:
    // `instanceName` names the lock that keeps a second copy out.
    explicit QtStartupHost(std::string commandLine, std::string instanceName = "zorv");
    ~QtStartupHost() override;

    std::string commandLine() override { return commandLine_; }
    bool acquireInstance() override;
    void showSplash() override;
    void hideSplash() override;
    void createWindow(const RunMode& mode) override { CreateModeWindow(mode.window); }
    void openWindow(const RunMode& mode, bool show) override;
    std::string inputBox(const std::string& prompt, const std::string& title, const std::string& def) override;

    frmSplash* splash() const { return splash_; }
    // Whether the splash was shown during start-up.
    bool splashShown() const { return splashShown_; }

private:
    std::string commandLine_;
    std::string instanceName_;
    InstanceLock lock_;
    QPointer<frmSplash> splash_;
    bool splashShown_ = false;
};

// The raw command line of the process: the arguments joined by blanks.
std::string RawCommandLine(int argc, char** argv);

}  // namespace zorv::ui
