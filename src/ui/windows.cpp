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
#include "ui/frm_options_dm.h"

namespace zorv::ui {

FormRefs& forms() {
    static FormRefs r;
    return r;
}

// ------------------------------------------------------- workbench windows

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

frmDailyMonitor::frmDailyMonitor(QWidget* parent) : ZorvForm("frmDailyMonitor", "Zorv DM", parent) {
    setMinimumSize(640, 420);
    contentLayout()->addWidget(emptySurface("pctDailyMonitor", tr("No monitor template loaded.")));
    // The monitor runs unattended: closing it never asks.
    asksOnClose_ = false;
    QMenu* tools = menuBar()->addMenu(tr("&Tools"));
    tools->setObjectName("mnuTools");
    QAction* options = tools->addAction(tr("&Options..."));
    options->setObjectName("mnuOptions");
    connect(options, &QAction::triggered, this, [this] {
        auto* o = new frmOptionsDM(this);
        o->Load();
        o->show();
    });
}
WindowPlace frmDailyMonitor::place() const { return {"Settings", "Main"}; }

}  // namespace zorv::ui
