// frmMain: where data enters. It imports raw tool files and opens data
// workbooks, shows the exposure layout, the raw data as maps, histograms,
// contours and XY plots, the exposure tool and the lot's centring, and sends
// the user on to the workbenches. The lot it holds is the program's current
// lot, which the workbenches take over.
#pragma once

#include <QPointer>
#include <QString>
#include <functional>
#include <memory>

#include "ui/forms.h"

class QAction;
class QComboBox;
class QLineEdit;
class QTabWidget;
class QToolBar;

namespace zorv {
class cGraphic;
class cLot;
class Workbook;
}  // namespace zorv

namespace zorv::ui {

class ChartView;
class ExpoToolPanel;
class frmSpreadsheet;
class LayoutPanel;
class MetrologyPanel;

// The lot the program works on and the data workbook it came from; empty
// when none is loaded. frmMain fills them, the workbenches read them.
struct CurrentData {
    std::shared_ptr<zorv::cLot> lot;
    std::shared_ptr<zorv::Workbook> workbook;
};
CurrentData& Current();

class frmMain : public ZorvForm {
    Q_OBJECT
public:
    explicit frmMain(QWidget* parent = nullptr);
    ~frmMain() override;

    // The window that called this one; an exit here ends the caller too.
    void setCaller(ZorvForm* caller);
    ZorvForm* caller() const { return caller_; }
    // Whether the load makes the window visible (Main mode, empty command line).
    void setShowOnLoad(bool on) { showOnLoad_ = on; }

    // Recent files: Options, MRUsize (default 10, at least 3), RecentFiles.
    static int MRUsize();

    // ResetObjects: caption, Exiting, the lot and the window's charts.
    void ResetObjects();

    // mnuFileOpen: the raw file (asked for when empty) imported with the
    // format of `description` (detected when empty), its workbook opened.
    bool mnuFileOpen(const QString& path = {}, const QString& description = {});
    // True while a load or a drawing runs.
    bool isWorking() const { return working_; }
    // mnuFileOpenWorksheet: a data workbook (asked for when empty) opened.
    bool mnuFileOpenWorksheet(const QString& path = {});
    // GetWorksheet: loads the lot of a workbook (from `sheet`, else its data
    // sheet) and sets the window up on it.
    bool GetWorksheet(const QString& path, const QString& sheet = {});
    // Opens a file as a drop on the layout does: by its extension.
    bool OpenDropped(const QString& path);
    // The workbook saved where it is (a legacy .xls as a new .xlsx).
    bool mnuFileSave();
    // The saves; the name is asked for when empty.
    bool mnuFileSaveAs(const QString& path = {});
    bool mnuFileSaveAsReticle(const QString& path = {});
    bool mnuSaveAsLayout(const QString& name = {});

    // View > Sheet in a Grid: the sheet of cmbDataSheet in frmSpreadsheet.
    frmSpreadsheet* mnuViewSheet();

    // UpdateFrmMain: the wafer list and the centring fields from the lot.
    void UpdateFrmMain();
    // Shows the tab of a key ("kLayout", "kMetrology", "kExposureTool",
    // "kCentering") and runs its set-up.
    void showTab(const QString& key);
    QString currentTabKey() const;

    // The workbenches: the window found open is reused, else made; frmMain
    // hides until it goes.
    ZorvForm* mnuFocusCalibrate();
    ZorvForm* mnuFocusUniformity();
    ZorvForm* mnuProcessWindow();
    // The reticle workbench, the loaded lot its lot side.
    ZorvForm* mnuMaskFactor();
    ZorvForm* mnuDailyMonitor();
    ZorvForm* mnuDailyMonitorSetup();

    std::shared_ptr<zorv::cLot> lot() const;
    zorv::Workbook* workbook() const;
    QString workbookPath() const { return workbookPath_; }

    LayoutPanel* layoutPanel() const { return layout_; }
    MetrologyPanel* metrologyPanel() const { return metrology_; }
    QTabWidget* tabServer() const { return tabServer_; }
    QComboBox* cmbDataSheet() const { return cmbDataSheet_; }
    // A toolbar key's action ("kOpen", ...).
    QAction* toolAction(const QString& key) const;

    // The file dialogs ask through this when set (scripts and tests), with
    // the title, the filter and the start folder; the answer is the path.
    using FileAsker = std::function<QString(const QString& title, const QString& filter, const QString& folder)>;
    static void setFileAsker(FileAsker asker);

public slots:
    void mnuFileExit_Click() override;

protected:
    void formLoad() override;
    void formUnload() override;
    WindowPlace place() const override;

private:
    void buildMenus();
    void buildToolBar();
    QWidget* buildCentering();
    void showCentering();
    void tabServer_Click(int index);
    void cmbDataSheet_Click(int index);
    void fillDataSheets(zorv::Workbook* wb, const QString& chosen);
    void mnuReturn();
    void copyScreen();
    void copyGraphic();
    void printGraphic();
    void fillLayoutTemplates();
    ZorvForm* showWorkbench(ZorvForm* form, const char* status);
    QString askOpen(const QString& title, const QString& filter, const QString& folder, QString* chosenFilter = nullptr);
    QString askSave(const QString& title, const QString& filter, const QString& folder);
    void setLoaded(bool loaded);
    // The data workbook of the lot; none: "Please open a data file first."
    zorv::Workbook* loadedWorkbook();

    class Working;
    bool working_ = false;  // long work under way
    QPointer<ZorvForm> caller_;
    bool showOnLoad_ = false;
    bool toolLibraryIn_ = false;  // the exposure tool library brought in
    bool fillingSheets_ = false;
    QString workbookPath_;

    QTabWidget* tabServer_ = nullptr;
    QComboBox* cmbDataSheet_ = nullptr;
    QToolBar* toolBar_ = nullptr;
    LayoutPanel* layout_ = nullptr;
    MetrologyPanel* metrology_ = nullptr;
    ExpoToolPanel* tool_ = nullptr;
    QWidget* centering_ = nullptr;
    ChartView* chtCentering_ = nullptr;
    std::unique_ptr<zorv::cGraphic> centeringChart_;
    QMenu* mnuRecLayoutTemplates_ = nullptr;
};

}  // namespace zorv::ui
