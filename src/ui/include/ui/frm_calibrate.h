// frmCalibrate: the focus calibration workbench. It calibrates its own clone
// of the program's lot (a PSFM focus matrix) into a template, shows the
// calibration by the keys of tabCalCurve on pctCalibrate, models the best
// focus of the calibrated sites on the Best Focus page (tabBestFocus on
// pctBestFocus), and saves the template into the library or hands it to
// frmTemplateMaintenance.
#pragma once

#include <QString>
#include <QWidget>
#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "calib/best_focus.h"
#include "calib/calibrate.h"
#include "ui/forms.h"

class QAction;
class QButtonGroup;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QRadioButton;
class QStackedWidget;
class QTabBar;
class QTabWidget;
class QTableWidget;

namespace zorv {
class cGraphic;
class cLot;
class cPoint;
class cTemplate;
class cTemplateLibrary;
class Workbook;
}  // namespace zorv

namespace zorv::ui {

class ChartView;
class frmSpreadsheet;
class frmTemplateMaintenance;

// pctFieldLayout: the sites of one field at their place; a click picks the
// nearest, the chosen one drawn filled.
class FieldLayoutView : public QWidget {
public:
    explicit FieldLayoutView(QWidget* parent = nullptr);
    struct Site {
        long number;
        double x, y;  // um in the field
    };
    void setSites(std::vector<Site> sites);
    const std::vector<Site>& sites() const { return sites_; }
    void setSelected(long site);
    long selected() const { return selected_; }
    // The widget position of a site (for clicks); (-1, -1) when not shown.
    QPoint sitePos(long site) const;
    // frmCalibrate(FindLayoutSite): the site nearest a widget position; 0
    // without sites.
    long FindLayoutSite(const QPoint& pos) const;
    std::function<void(long)> onPick;
    QSize sizeHint() const override { return {220, 180}; }

protected:
    void paintEvent(QPaintEvent* e) override;
    void mousePressEvent(QMouseEvent* e) override;

private:
    QPointF toWidget(double x, double y) const;
    std::vector<Site> sites_;
    long selected_ = 0;
};

class frmCalibrate : public ZorvForm {
    Q_OBJECT
public:
    explicit frmCalibrate(QWidget* parent = nullptr);
    ~frmCalibrate() override;

    // The folder of the template library (ZORVpsfm.tpl); empty: the
    // program's library. Set before any template work.
    void setLibraryFolder(const QString& folder);
    QString libraryFolder() const { return libraryFolder_; }

    // The lot to calibrate (the window works on a clone); nullptr clears.
    void setLot(std::shared_ptr<zorv::cLot> lot, std::shared_ptr<zorv::Workbook> workbook);
    std::shared_ptr<zorv::cLot> lot() const { return lot_; }
    std::shared_ptr<zorv::cLot> sourceLot() const { return source_; }
    std::shared_ptr<zorv::Workbook> workbook() const { return workbook_; }
    // File, Open: a data workbook as the window's lot (asked for when empty).
    bool OpenDataWorkbook(const QString& path = {});

    // Dialog answers for scripts and tests: a file to open, a template name.
    using FileAsker = std::function<QString(const QString& title, const QString& filter)>;
    using NameAsker = std::function<QString(const QString& prompt, const QString& title, const QString& def)>;
    static void setFileAsker(FileAsker asker);
    static void setNameAsker(NameAsker asker);

    // ---- the work (each also behind its control)
    // cmdCalibrate: frmCalibrate(CalibratePSFM) on the window's lot.
    bool CalibratePSFM();
    // The view of a tabCalCurve key on pctCalibrate; false (the message on
    // the chart) when it has nothing to show.
    bool showCalView(const QString& key);
    // cmdCalculateBestFocus: the best focus models of the calibration.
    bool cmdCalculateBestFocus();
    // The view of a tabBestFocus key on pctBestFocus.
    bool showBestFocusView(const QString& key);
    // frmCalibrate(ViewSaveData): the table of the shown view in a grid
    // (save false) or into the lot's workbook under its sheet name.
    frmSpreadsheet* mnuViewData();
    bool mnuSaveData();
    // The template menu.
    bool mnuTemplateSave();
    bool mnuTemplateSaveAs();
    frmTemplateMaintenance* mnuTemplateMaintenance();
    // The pop-up culls of pctCalibrate on its dragged box (the calibration
    // curve of one site): the fields, the wafers or the points in it; then
    // the data calibrate again. Restore gives those points back.
    bool mnuPopUpCullField() { return cullBox(1); }
    bool mnuPopUpCullWafer() { return cullBox(2); }
    bool mnuPopUpCullAll() { return cullBox(0); }
    bool mnuPopUpCullRestore();

    // ---- what the window holds
    std::shared_ptr<zorv::cTemplate> currentTemplate() const { return tpl_; }
    // Whether the template was saved into the library since the calibration.
    bool templateSaved() const { return tplSaved_; }
    const zorv::CalibrationRun* run() const { return run_.get(); }
    bool calibratedAllSites() const { return calibratedAll_; }
    const zorv::BestFocusModels* bestFocus() const { return bf_.get(); }
    const zorv::BestFocusModelData* bestFocusData() const { return bfData_.get(); }
    // The table behind the shown view and its sheet name.
    const zorv::Datam& viewTable() const { return viewTable_; }
    QString viewSheet() const { return viewSheet_; }
    QString calKey() const;
    QString bestFocusKey() const;
    zorv::cTemplateLibrary& library();

    // ---- controls
    QTabWidget* tabWorkbench() const { return tabWorkbench_; }
    QTabBar* tabCalCurve() const { return tabCalCurve_; }
    QTabBar* tabBestFocus() const { return tabBestFocus_; }
    ChartView* pctCalibrate() const { return pctCalibrate_; }
    ChartView* pctBestFocus() const { return pctBestFocus_; }
    FieldLayoutView* pctFieldLayout() const { return pctFieldLayout_; }
    QComboBox* cmbFitOrder() const { return cmbFitOrder_; }
    QLineEdit* txtRange() const { return txtRange_; }
    QLineEdit* txtSiteNumber() const { return txtSiteNumber_; }
    // optSelectLayout(0): all sites; (1): the site of txtSiteNumber.
    QRadioButton* optSelectLayout(int i) const { return i == 0 ? optAll_ : optOne_; }
    QPushButton* cmdCalibrate() const { return cmdCalibrate_; }
    QPushButton* cmdCalculateBestFocusButton() const { return cmdBestFocus_; }
    QComboBox* cmbExpoGroup() const { return cmbExpoGroup_; }
    QComboBox* cmbExpoGroupBF() const { return cmbExpoGroupBF_; }
    // OptBFModel(0): the whole field model; (1): the row and column models.
    QRadioButton* OptBFModel(int i) const { return i == 0 ? optWhole_ : optRowCol_; }
    QListWidget* lstDose2() const { return lstDose2_; }
    QListWidget* lstNA2() const { return lstNA2_; }
    QListWidget* lstPCI2() const { return lstPCI2_; }
    QListWidget* lstPCO2() const { return lstPCO2_; }
    QLabel* lblCalInfo() const { return lblCalInfo_; }
    QLabel* lblBFInfo() const { return lblBFInfo_; }
    QLabel* lblCullRange() const { return lblCullRange_; }
    QLabel* txtLayout() const { return txtLayout_; }
    QTableWidget* tblBestFocus() const { return tblBestFocus_; }
    QAction* action(const char* objectName) const;

protected:
    void formLoad() override;
    WindowPlace place() const override;

private:
    QWidget* buildCalibrationPage();
    QWidget* buildBestFocusPage();
    void buildMenus();
    void fillLayout();
    void fillExposureLists();
    // Exposure set index (1-based) of cmbExpoGroup / cmbExpoGroupBF.
    int expoIndex() const;
    int expoIndexBF() const;
    long chosenSite() const;
    // Why a view has no chart, on a white page in its place; and the chart.
    void showMessage(ChartView* view, zorv::cGraphic& g, const std::string& text);
    void showChart(ChartView* view, zorv::cGraphic* g);
    std::string noDataText(int expo) const;
    bool cullBox(int mode);
    bool saveTable(const zorv::Datam& t, const std::string& sheet, const std::string& title, const std::string& index);
    // Each view's chart and table.
    bool viewCalibration(zorv::cGraphic& g);
    bool viewVectors(zorv::cGraphic& g, bool slope);
    bool viewResiduals(zorv::cGraphic& g);
    bool viewFocus(zorv::cGraphic& g, bool sigma);

    std::shared_ptr<zorv::cLot> source_, lot_;
    std::shared_ptr<zorv::Workbook> workbook_;
    QString libraryFolder_;
    std::unique_ptr<zorv::cTemplateLibrary> ownLib_;
    bool libRead_ = false;
    std::shared_ptr<zorv::cTemplate> tpl_;
    bool tplSaved_ = false;  // tpl_ is in the library under its name
    std::unique_ptr<zorv::CalibrationRun> run_;
    zorv::CalFormState state_;
    std::vector<zorv::cPoint*> culled_;  // points of lot_ the pop-up culls took out
    bool calibratedAll_ = false;
    std::vector<std::array<double, 4>> exposures_;  // Dose, NA, PCi, PCo of each set
    std::unique_ptr<zorv::BestFocusModels> bf_;
    std::unique_ptr<zorv::BestFocusModelData> bfData_;
    std::unique_ptr<zorv::cGraphic> gCal_, gBF_;
    std::shared_ptr<zorv::cLot> display_;  // the lot a map view draws
    zorv::Datam viewTable_;
    QString viewSheet_;
    bool filling_ = false;

    QTabWidget* tabWorkbench_ = nullptr;
    QTabBar* tabCalCurve_ = nullptr;
    QTabBar* tabBestFocus_ = nullptr;
    ChartView* pctCalibrate_ = nullptr;
    ChartView* pctBestFocus_ = nullptr;
    QStackedWidget* calStack_ = nullptr;
    QStackedWidget* bfStack_ = nullptr;
    FieldLayoutView* pctFieldLayout_ = nullptr;
    QComboBox* cmbFitOrder_ = nullptr;
    QLineEdit* txtRange_ = nullptr;
    QLineEdit* txtSiteNumber_ = nullptr;
    QRadioButton* optAll_ = nullptr;
    QRadioButton* optOne_ = nullptr;
    QPushButton* cmdCalibrate_ = nullptr;
    QPushButton* cmdBestFocus_ = nullptr;
    QComboBox* cmbExpoGroup_ = nullptr;
    QComboBox* cmbExpoGroupBF_ = nullptr;
    QRadioButton* optWhole_ = nullptr;
    QRadioButton* optRowCol_ = nullptr;
    QListWidget* lstDose2_ = nullptr;
    QListWidget* lstNA2_ = nullptr;
    QListWidget* lstPCI2_ = nullptr;
    QListWidget* lstPCO2_ = nullptr;
    QLabel* lblLot_ = nullptr;
    QLabel* lblCalInfo_ = nullptr;
    QLabel* lblBFInfo_ = nullptr;
    QLabel* lblCullRange_ = nullptr;
    QLabel* txtLayout_ = nullptr;
    QTableWidget* tblBestFocus_ = nullptr;
};

}  // namespace zorv::ui
