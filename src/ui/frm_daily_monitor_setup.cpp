#include "ui/frm_daily_monitor_setup.h"

#include <QVBoxLayout>

namespace zorv::ui {

frmDailyMonitorSetup::frmDailyMonitorSetup(QWidget* parent)
    : ZorvForm("frmDailyMonitorSetup", "Zorv DM Setup", parent) {
    setMinimumSize(640, 420);
    contentLayout()->addWidget(emptySurface("pctSetup", tr("No monitor template open.")));
}
WindowPlace frmDailyMonitorSetup::place() const { return {"Setup", ""}; }

}  // namespace zorv::ui
