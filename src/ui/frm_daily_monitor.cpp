#include "ui/frm_daily_monitor.h"

#include <QAction>
#include <QMenu>
#include <QMenuBar>
#include <QVBoxLayout>

#include "ui/frm_options_dm.h"

namespace zorv::ui {

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
