// The six top-level windows of the run modes and their global references.
// Each is a frame for now: later windows fill contentArea().
#pragma once

#include <QPointer>

#include "ui/forms.h"

namespace zorv::ui {

class frmMain : public ZorvForm {
    Q_OBJECT
public:
    explicit frmMain(QWidget* parent = nullptr);

    // The window that called this one; an exit here ends the caller too.
    void setCaller(ZorvForm* caller) { caller_ = caller; }
    ZorvForm* caller() const { return caller_; }
    // Whether the load makes the window visible (Main mode, empty command line).
    void setShowOnLoad(bool on) { showOnLoad_ = on; }

    // Recent files: Options, MRUsize (default 10, at least 3), RecentFiles.
    static int MRUsize();

    // ResetObjects: caption, Exiting, the lot and the window's charts.
    void ResetObjects();

public slots:
    void mnuFileExit_Click() override;

protected:
    void formLoad() override;
    void formUnload() override;
    WindowPlace place() const override;

private:
    QPointer<ZorvForm> caller_;
    bool showOnLoad_ = false;
    bool toolLibraryIn_ = false;  // the exposure tool library brought in
};

class frmProcessWindow : public ZorvForm {
    Q_OBJECT
public:
    explicit frmProcessWindow(QWidget* parent = nullptr);

protected:
    WindowPlace place() const override;
};

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

class frmReticle : public ZorvForm {
    Q_OBJECT
public:
    explicit frmReticle(QWidget* parent = nullptr);
    // Set before load by the reticle mode: the window starts by itself, as the
    // top window, with its own open and save tools.
    bool StandAlone = false;

protected:
    void formLoad() override;
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
