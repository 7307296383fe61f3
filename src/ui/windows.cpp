#include "ui/windows.h"

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QTabWidget>
#include <QScrollArea>
#include <QVBoxLayout>
#include <algorithm>

#include "base/identity.h"
#include "base/report.h"
#include "app/settings.h"
#include "app/shutdown.h"
#include "app/strings.h"
#include "ui/expo_tool_panel.h"

namespace zorv::ui {

namespace {

QString Q(const std::string& s) { return QString::fromStdString(s); }

}  // namespace

FormRefs& forms() {
    static FormRefs r;
    return r;
}

// ---------------------------------------------------------------- frmMain

frmMain::frmMain(QWidget* parent) : ZorvForm("frmMain", Q(ApplicationTitle()), parent) {
    unloadSavesPlace_ = true;
    setMinimumSize(720, 480);
    auto* tabServer = new QTabWidget(contentArea());
    tabServer->setObjectName("tabServer");
    tabServer->setDocumentMode(true);
    const QString hint = tr("No data loaded.\nOpen a raw data file or a data workbook.");
    const struct {
        const char* key;
        const char* surface;
        QString caption;
    } tabs[] = {{"kLayout", "pctLayout", tr("Layout")},
                {"kMetrology", "pctMetrology", tr("Metrology")},
                {"kExposureTool", "pctExposureTool", tr("Exposure Tool")},
                {"kCentering", "pctCentering", tr("Centering")}};
    for (const auto& t : tabs) {
        QWidget* page = nullptr;
        if (std::string_view(t.key) == "kExposureTool") {
            auto* panel = new ExpoToolPanel;
            // Scrolls on a small screen rather than squeezing its fields.
            auto* scroll = new QScrollArea;
            scroll->setWidget(panel);
            scroll->setWidgetResizable(true);
            scroll->setFrameShape(QFrame::NoFrame);
            page = scroll;
        } else {
            page = emptySurface(t.surface, hint);
        }
        page->setObjectName(t.key);
        tabServer->addTab(page, t.caption);
    }
    contentLayout()->addWidget(tabServer);
    // The exposure tool tab brings the library in when it is first shown.
    connect(tabServer, &QTabWidget::currentChanged, this, [this, tabServer](int index) {
        QWidget* page = tabServer->widget(index);
        if (!page || page->objectName() != "kExposureTool" || toolLibraryIn_) return;
        if (auto* panel = page->findChild<ExpoToolPanel*>()) toolLibraryIn_ = panel->bringInLibrary();
    });
}

int frmMain::MRUsize() {
    const QString v = Q(GetSetting(ApplicationTitle(), "Options", "MRUsize", "10")).trimmed();
    bool ok = false;
    const int n = v.toInt(&ok);
    return std::max(3, ok ? n : 10);
}

WindowPlace frmMain::place() const { return {"Settings", "Main"}; }

void frmMain::formLoad() {
    SetStatusText("Loading ...");
    setupRecentFiles("RecentFiles", MRUsize());
    // In Main mode the window makes itself visible during its own load.
    if (showOnLoad_) show();
    SetStatusText("Ready");
}

void frmMain::ResetObjects() {
    setWindowTitle(Q(LoadResString(1686)) + ": ");
    SetExiting(true);
}

void frmMain::mnuFileExit_Click() {
    QPointer<ZorvForm> caller = caller_;
    {
        BusyPointer busy;
        SetExiting(true);
        if (CloseExcel() == -1) {
            // Cancel: the program stays.
            SetExiting(false);
            return;
        }
        Unload();
        if (caller) {
            caller->mnuFileExit_Click();
            caller = nullptr;
        }
    }
}

void frmMain::formUnload() {
    QPointer<ZorvForm> caller = caller_;
    {
        BusyPointer busy;
        ResetObjects();
        if (caller) caller->show();
        // A called frmMain leaves the library to its caller.
        ReleaseTemplateLibrary(!caller);
        if (!isMinimized()) savePlace();
        CloseToolLibrary();
        SetStatusText("FrmMain: Unloading forms . . .");
        // From the last window down to the second: the first one opened (the
        // mode's own window) stays, and so does the caller.
        const std::vector<ZorvForm*> open = Forms();
        for (size_t i = open.size(); i-- > 1;) {
            ZorvForm* f = open[i];
            if (f == this || f == caller.data()) continue;
            f->Unload();
        }
    }
    if (caller) {
        caller->setEnabled(true);
        caller->show();
        caller->Reload();
    }
    if (forms().frmMain == this) forms().frmMain = nullptr;
    SetStatusText("Termination ...");
}

// ------------------------------------------------------- workbench windows

frmProcessWindow::frmProcessWindow(QWidget* parent)
    : ZorvForm("frmProcessWindow", "Zorv PW", parent) {
    setMinimumSize(640, 420);
    contentLayout()->addWidget(emptySurface("pctProcessWindow", tr("No lot loaded.\nLoad a data workbook to set up a process window analysis.")));
}
WindowPlace frmProcessWindow::place() const { return {"PWformSize", ""}; }

frmCalibrate::frmCalibrate(QWidget* parent) : ZorvForm("frmCalibrate", "Zorv PSFM Calibrate", parent) {
    setMinimumSize(640, 420);
    contentLayout()->addWidget(emptySurface("pctCalibrate", tr("No lot loaded.\nLoad a data workbook to calibrate focus.")));
}
WindowPlace frmCalibrate::place() const { return {"PSFMformSize", ""}; }

frmAnalysis::frmAnalysis(QWidget* parent) : ZorvForm("frmAnalysis", "Zorv PSFM Full-Field", parent) {
    setMinimumSize(640, 420);
    contentLayout()->addWidget(emptySurface("pctAnalysis", tr("No lot loaded.\nLoad a data workbook to analyse focus across the field.")));
}
WindowPlace frmAnalysis::place() const { return {"PSFMform", ""}; }

frmReticle::frmReticle(QWidget* parent) : ZorvForm("frmReticle", "Zorv MaskFactor", parent) {
    setMinimumSize(640, 420);
    contentLayout()->addWidget(emptySurface("pctReticle", tr("No lot loaded.\nOpen a wafer lot and a reticle measurement.")));
}
WindowPlace frmReticle::place() const { return {"frmReticle", ""}; }
void frmReticle::formLoad() {
    // Started by itself, it comes up as the top window.
    if (StandAlone) raise();
}

frmDailyMonitor::frmDailyMonitor(QWidget* parent) : ZorvForm("frmDailyMonitor", "Zorv DM", parent) {
    setMinimumSize(640, 420);
    contentLayout()->addWidget(emptySurface("pctDailyMonitor", tr("No monitor template loaded.")));
    // The monitor runs unattended: closing it never asks.
    asksOnClose_ = false;
}
WindowPlace frmDailyMonitor::place() const { return {"Settings", "Main"}; }

}  // namespace zorv::ui
