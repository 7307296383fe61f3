// The top-level windows of the run modes and their global references.
#pragma once

#include <QPointer>

#include "ui/forms.h"
#include "ui/frm_analysis.h"
#include "ui/frm_calibrate.h"
#include "ui/frm_daily_monitor.h"
#include "ui/frm_daily_monitor_setup.h"
#include "ui/frm_main.h"
#include "ui/frm_process_window.h"
#include "ui/frm_reticle.h"

namespace zorv::ui {

// One global reference per window type; null when the window is not loaded.
struct FormRefs {
    QPointer<zorv::ui::frmMain> frmMain;
    QPointer<zorv::ui::frmProcessWindow> frmProcessWindow;
    QPointer<zorv::ui::frmCalibrate> frmCalibrate;
    QPointer<zorv::ui::frmAnalysis> frmAnalysis;
    QPointer<zorv::ui::frmReticle> frmReticle;
    QPointer<zorv::ui::frmDailyMonitor> frmDailyMonitor;
    QPointer<zorv::ui::frmDailyMonitorSetup> frmDailyMonitorSetup;
};
FormRefs& forms();

}  // namespace zorv::ui
