// zorv: the desktop program. Start-up decides the run mode from the command
// line and opens its window; the process ends with its last window.
#include <QApplication>
#include <QIcon>
#include <QSessionManager>

#include "base/identity.h"
#include "base/process.h"
#include "base/report.h"
#include "app/startup.h"
#include "model/model_sets.h"
#include "ui/app_startup.h"
#include "ui/forms.h"
#include "ui/gui_reporter.h"

int main(int argc, char** argv) {
    zorv::PreferHugePageHeap(argv);
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
