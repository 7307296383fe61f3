#include "ui/app_startup.h"

#include <QApplication>
#include <QInputDialog>

#include "ui/splash.h"
#include "ui/windows.h"

namespace zorv::ui {

QtStartupHost::QtStartupHost(std::string commandLine, std::string instanceName)
    : commandLine_(std::move(commandLine)), instanceName_(std::move(instanceName)) {}

QtStartupHost::~QtStartupHost() {
    if (splash_) delete splash_.data();
}

bool QtStartupHost::acquireInstance() { return lock_.acquire(instanceName_); }

void QtStartupHost::showSplash() {
    splash_ = new frmSplash;
    splash_->show();
    splash_->repaint();
    splashShown_ = true;
    QCoreApplication::processEvents();
}

void QtStartupHost::hideSplash() {
    if (!splash_) return;
    splash_->hide();
    delete splash_.data();
}

ZorvForm* CreateModeWindow(ModeWindow kind) {
    FormRefs& r = forms();
    switch (kind) {
        case ModeWindow::Main:
            if (!r.frmMain) r.frmMain = new frmMain;
            return r.frmMain;
        case ModeWindow::ProcessWindow:
            if (!r.frmProcessWindow) r.frmProcessWindow = new frmProcessWindow;
            return r.frmProcessWindow;
        case ModeWindow::Calibrate:
            if (!r.frmCalibrate) r.frmCalibrate = new frmCalibrate;
            return r.frmCalibrate;
        case ModeWindow::Analysis:
            if (!r.frmAnalysis) r.frmAnalysis = new frmAnalysis;
            return r.frmAnalysis;
        case ModeWindow::Reticle:
            if (!r.frmReticle) r.frmReticle = new frmReticle;
            return r.frmReticle;
        case ModeWindow::DailyMonitor:
            if (!r.frmDailyMonitor) r.frmDailyMonitor = new frmDailyMonitor;
            return r.frmDailyMonitor;
    }
    return nullptr;
}

void QtStartupHost::openWindow(const RunMode& mode, bool show) {
    QPointer<ZorvForm> f = CreateModeWindow(mode.window);
    if (auto* m = qobject_cast<frmMain*>(f.data())) m->setShowOnLoad(!show);
    if (auto* r = qobject_cast<frmReticle*>(f.data())) r->StandAlone = true;
    f->Load();
    if (!f || f->isUnloaded()) throw WindowUnloaded();
    if (show) f->show();
}

std::string QtStartupHost::inputBox(const std::string& prompt, const std::string& title,
                                    const std::string& def) {
    QString text = QString::fromStdString(prompt);
    text.replace("\r\n", "\n");
    bool ok = false;
    const QString answer = QInputDialog::getText(splash_, QString::fromStdString(title), text.trimmed(),
                                                 QLineEdit::Normal, QString::fromStdString(def), &ok);
    return ok ? answer.toStdString() : std::string();
}

std::string RawCommandLine(int argc, char** argv) {
    std::string cmd;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) cmd += ' ';
        cmd += argv[i];
    }
    return cmd;
}

}  // namespace zorv::ui
