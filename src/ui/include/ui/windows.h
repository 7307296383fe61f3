// The top-level windows of the run modes and their global references. The
// workbenches are frames for now: later windows fill contentArea().
#pragma once

#include <QPointer>

#include "ui/forms.h"
#include "ui/frm_main.h"
#include "ui/frm_process_window.h"
#include "ui/frm_reticle.h"

namespace zorv::ui {

class frmCalibrate : public ZorvForm {
    Q_OBJECT
public:
    explicit frmCalibrate(QWidget* parent = nullptr);

protected:
    WindowPlace place() const override;
};

class frmAnalysis : public ZorvForm {
    Q_OBJECT
public:
    explicit frmAnalysis(QWidget* parent = nullptr);

protected:
    WindowPlace place() const override;
};

class frmDailyMonitor : public ZorvForm {
    Q_OBJECT
public:
    explicit frmDailyMonitor(QWidget* parent = nullptr);

protected:
    WindowPlace place() const override;
};

// One global reference per window type; null when the window is not loaded.
struct FormRefs {
    QPointer<zorv::ui::frmMain> frmMain;
    QPointer<zorv::ui::frmProcessWindow> frmProcessWindow;
    QPointer<zorv::ui::frmCalibrate> frmCalibrate;
    QPointer<zorv::ui::frmAnalysis> frmAnalysis;
    QPointer<zorv::ui::frmReticle> frmReticle;
    QPointer<zorv::ui::frmDailyMonitor> frmDailyMonitor;
};
FormRefs& forms();

}  // namespace zorv::ui
