// zorv: the desktop program. Start-up decides the run mode from the command
// line and opens its window; the process ends with its last window. A monitor
// automation line runs before any window and ends the process with its result.
#include <QApplication>
#include <QIcon>
#include <QSessionManager>
#include <filesystem>
#include <optional>
#include <string>

#include "base/identity.h"
#include "base/process.h"
#include "base/report.h"
#include "app/startup.h"
#include "model/model_sets.h"
#include "monitor/dm_run.h"
#include "ui/app_startup.h"
#include "ui/dma_mode.h"
#include "ui/dma_notice.h"
#include "ui/frm_daily_monitor.h"
#include "ui/forms.h"
#include "ui/gui_reporter.h"

namespace {

std::string ExecutableFolder(const char* argv0) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (ec || exe.empty()) exe = fs::absolute(argv0 ? argv0 : "", ec);
    return exe.parent_path().string();
}

// Nobody sees a notice without a display: its text goes to the log, up to
// the lines about the notice's own buttons.
void LogNotice(const zorv::DMAResult& r) {
    const bool wasLogging = zorv::Logging();
    zorv::SetLogging(true);
    zorv::AppendLogLine(r.noticeTitle);
    const std::string text = r.notice.substr(0, r.notice.find("\r\n\r\nSelect 'Log'"));
    for (size_t from = 0; from <= text.size();) {
        size_t end = text.find("\r\n", from);
        if (end == std::string::npos) end = text.size();
        if (end > from) zorv::AppendLogLine(text.substr(from, end - from));
        from = end + 2;
    }
    zorv::SetLogging(wasLogging);
}

// The run on a machine without a display: no Qt application at all.
int RunDMAWithoutDisplay(const std::string& line, const char* argv0) {
    zorv::SetProgramFolder(ExecutableFolder(argv0));
    if (zorv::Status st = zorv::LoadGlobalModelLibraries(); !st) zorv::SetStatusText(st.failure().text);
    zorv::DMAOptions options;
    // No one to ask: a missing reticle file stops the run.
    options.proceedWithoutReticle = [](const std::string&) { return false; };
    const zorv::DMAResult r = zorv::RunDMA(line, options);
    LogNotice(r);
    return r.exitCode();
}

}  // namespace

int main(int argc, char** argv) {
    zorv::PreferHugePageHeap(argv);
    // Decided on the raw line, before Qt takes its own options out of argv.
    const std::optional<std::string> dmaLine = zorv::ui::DMAAutomationLine(zorv::ui::RawCommandLine(argc, argv));
    if (dmaLine && zorv::ui::NoDisplay()) return RunDMAWithoutDisplay(*dmaLine, argc > 0 ? argv[0] : nullptr);

    QApplication app(argc, argv);
    QApplication::setApplicationName(QString::fromUtf8(zorv::kProductName));
    QApplication::setOrganizationName(QString::fromUtf8(zorv::kCompanyName));
    QApplication::setApplicationVersion(QString::fromStdString(zorv::VersionString()));
    zorv::SetProgramFolder(QApplication::applicationDirPath().toStdString());

    zorv::ui::GuiReporter reporter;
    reporter.install();
    // The wafer and field model sets; a library that cannot be read leaves
    // them empty and says so on the status line, it does not stop the program.
    if (zorv::Status st = zorv::LoadGlobalModelLibraries(); !st) zorv::SetStatusText(st.failure().text);
    if (dmaLine) {
        // The monitor window shows the run and its results behind the notice.
        auto* dm = new zorv::ui::frmDailyMonitor;
        dm->Load();
        dm->show();
        const zorv::DMAResult r = dm->RunAutomation(*dmaLine);
        dm->automationNotice()->exec();
        return r.exitCode();
    }
    // Windows closed because the session ends go without a question.
    QObject::connect(&app, &QGuiApplication::commitDataRequest, [](QSessionManager&) {
        zorv::ui::ZorvForm::setSessionEnding(true);
    });

    // argv as Qt left it: its own options (-platform, -style) are gone.
    const QStringList args = QApplication::arguments();
    std::string cmd;
    for (int i = 1; i < args.size(); ++i) {
        if (i > 1) cmd += ' ';
        cmd += args[i].toStdString();
    }
    zorv::ui::QtStartupHost host(cmd);
    const zorv::StartupResult r = zorv::ZorvStartup(host);
    if (r.refused) return 1;
    if (r.opened.empty() || r.failed) {
        // No window stands: the process ends quietly.
        bool any = false;
        for (auto* f : zorv::ui::Forms()) any = any || f->isVisible();
        if (!any) return 0;
    }
    return app.exec();
}
