// frmProcessWindow: the process window workbench. It holds its own clone of
// the current lot, a setup tab with a row per feature of the lot (target,
// max, min), the focus, dose and site selections and the options, and the tab
// set tabPWCurve whose tabs run the analyses ("kDose", "kFocus", "kPW",
// "kDoseBF", "kIsoFocal") and show each one's chart beside its report.
#pragma once

#include <QString>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "procwin/pw_calculate.h"
#include "procwin/pw_setup.h"
#include "procwin/pw_workbench.h"
#include "ui/forms.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
class QPushButton;
class QRadioButton;
class QSlider;
class QTabWidget;
class QTableWidget;

namespace zorv {
class cGraphic;
class cLot;
class Workbook;
}  // namespace zorv

namespace zorv::ui {

class ChartView;

class frmProcessWindow : public ZorvForm {
    Q_OBJECT
public:
    explicit frmProcessWindow(QWidget* parent = nullptr);
    ~frmProcessWindow() override;

    // The lot to analyse (the window clones it for its own culls); nullptr clears.
    void setLot(std::shared_ptr<zorv::cLot> lot, zorv::Workbook* workbook);
    // The window's own clone; null without a lot.
    std::shared_ptr<zorv::cLot> lot() const { return lot_; }
    // The lot handed over, which lot() is a clone of.
    std::shared_ptr<zorv::cLot> sourceLot() const { return source_; }
    // The tab click of tabPWCurve: runs the analysis of a key ("kDose",
    // "kFocus", "kPW", "kDoseBF", "kIsoFocal") and draws its chart. False
    // (after the reporting path's message) when it cannot.
    bool runAnalysis(const QString& key);

    // The setup record the controls hold for an analysis key, with the
    // max-below-min warning of each checked row.
    zorv::PWSetup LoadPWanalysis(const QString& key);

    // The entries, as the boxes' editing-finished runs them. False (the
    // "Zorv Setup Error" box shown, the box back to its last value) for a
    // text that is not a number.
    bool txtPWTarget_Validate(int n);
    bool txtPWTargetRange_Validate();
    bool txtPWmax_Validate(int n);
    bool txtPWmin_Validate(int n);

    // The controls, for scripts and tests. Rows count from 0.
    QTabWidget* tabPWCurve() const { return tabPWCurve_; }
    int variableCount() const { return static_cast<int>(rows_.size()); }
    QCheckBox* chkPWvar(int n) const;
    QLineEdit* txtPWTarget(int n) const;
    QLineEdit* txtPWmax(int n) const;
    QLineEdit* txtPWmin(int n) const;
    QLineEdit* txtPWTargetRange() const { return txtPWTargetRange_; }
    QListWidget* lstPWfocus() const { return lstPWfocus_; }
    QListWidget* lstPWDose() const { return lstPWDose_; }
    QListWidget* lstPWsites() const { return lstPWsites_; }
    QCheckBox* chkPWstatistics() const { return chkPWstatistics_; }
    QCheckBox* chkPWGraphics() const { return chkPWGraphics_; }
    QCheckBox* chkShowLimits() const { return chkShowLimits_; }
    QCheckBox* chkPWvarSettings() const { return chkPWvarSettings_; }
    QComboBox* cmbPWprecision() const { return cmbPWprecision_; }
    QCheckBox* chkWValidate() const { return chkWValidate_; }
    QCheckBox* chkFValidate() const { return chkFValidate_; }
    QComboBox* cmbWaferTerms() const { return cmbWaferTerms_; }
    QComboBox* cmbFieldTerms() const { return cmbFieldTerms_; }
    // The tab of a key (its index in tabPWCurve), -1 when the lot has none.
    int tabIndex(const QString& key) const;
    // The chart view, report table and last report of an analysis key.
    ChartView* chartView(const QString& key) const;
    QTableWidget* reportTable(const QString& key) const;
    QPlainTextEdit* resultText(const QString& key) const;
    const zorv::PWReport* report(const QString& key) const;
    // The lot the last analysis used (its culls reset), kept for the charts.
    std::shared_ptr<zorv::cLot> analysisLot() const { return pwLot_; }

    // ---- the window figures of "kPW"
    // optPWformat: 0 rectangles, 1 ellipses, 2 off.
    void setFigureFormat(int shape);
    int figureFormat() const { return shape_; }
    QSlider* sldPW(int n) const { return n >= 0 && n < 3 ? sldPW_[n] : nullptr; }
    QLineEdit* txtPW(int n) const { return n >= 0 && n < 3 ? txtPW_[n] : nullptr; }
    // The figure the sliders or the scan show; null when none.
    const zorv::clsPWobject* shownFigure() const;
    const zorv::PWobjects& figures() const { return figures_; }
    // cmdPWdoScan: the figures within the chart's dose axis, the first shown;
    // answers how many. cmdPWadjMinus / cmdPWadjPlus step through them.
    int cmdPWdoScan();
    void cmdPWadjMinus() { pwDoNext(-1); }
    void cmdPWadjPlus() { pwDoNext(1); }
    const zorv::Datam& scanTable() const { return scan_; }
    int scanPosition() const { return scanAt_; }
    QLabel* lblPWfigure() const { return lblPWfigure_; }

    // ---- the selection and its culls
    // Draw_Selection: the lot's wafer map on "kDataSelection" with its count.
    bool Draw_Selection();
    ChartView* selectionView() const { return chtPWselection_; }
    QLabel* lblPWselection() const { return lblPWselection_; }
    QComboBox* cmbPWDataCull() const { return cmbPWDataCull_; }
    QLineEdit* txtPWDataMax() const { return txtPWDataMax_; }
    QLineEdit* txtPWDataMin() const { return txtPWDataMin_; }
    QLabel* lblPWcull() const { return lblPWcull_; }
    QLineEdit* txtCullRadius() const { return txtCullRadius_; }
    // cmdCullRadius: culls the window's lot beyond the radius (mm).
    bool cmdCullRadius();
    // The pop-up culls of the selection map, on its dragged box.
    void mnuPopUpCullRemove() { cullBox(false); }
    void mnuPopUpCullAll() { cullBox(true); }
    void mnuPopUpCullWafer();
    void mnuPopUpCullReset();
    QComboBox* cmbPWSelWafer() const { return cmbPWSelWafer_; }
    // cmdSigmaTest: the distribution analysis of the first checked feature in
    // a window of its own with its two graphs; the window answered.
    QWidget* cmdSigmaTest();
    QCheckBox* chkPWconfidence() const { return chkPWconfidence_; }
    const std::vector<zorv::PWInterval>& intervals() const { return intervals_; }

    // ---- tabAberrations
    // cmdModelField: the lens tilt and curvature of the last focus run's best
    // focus, row and column models per feature. False without one.
    bool cmdModelField();
    QTableWidget* aberrationTable() const { return grdAberrations_; }
    const zorv::Datam& aberrationRows() const { return aberRows_; }
    const zorv::Datam& aberrationColumns() const { return aberColumns_; }

protected:
    void formLoad() override;
    void formUnload() override;
    WindowPlace place() const override;

private:
    struct Row {
        QCheckBox* chk = nullptr;
        QLineEdit* target = nullptr;
        QLineEdit* max = nullptr;
        QLineEdit* min = nullptr;
        // The last accepted texts, restored after a bad entry.
        QString lastTarget, lastMax, lastMin;
    };
    struct Page {
        QString key;
        QWidget* page = nullptr;
        QLabel* title = nullptr;  // why there is no chart
        QPlainTextEdit* text = nullptr;  // the result lines
        ChartView* view = nullptr;
        ChartView* dofView = nullptr;  // kPW: DoF against exposure latitude
        QTableWidget* table = nullptr;
        std::shared_ptr<zorv::cGraphic> chart, dofChart;
        zorv::PWReport report;
        zorv::Datam statsMoved;  // a statistics box too wide for the chart
        bool ran = false;
    };

    QWidget* buildSetup();
    Page* buildPage(const QString& key, const QString& caption);
    void clearRows();
    void fillSetup();
    void fillAnalysisTabs();
    void applyTargetRange(int n);
    bool numberEntry(QLineEdit* box, QString& last, const char* format, double& value);
    void loadSettings();
    void saveSetting(const char* key, const std::string& value);
    void tabPWCurve_Click(int index);
    void showReport(Page& page);
    QWidget* buildSelection();
    QWidget* buildAberrations();
    QWidget* buildFigureBar(Page& page);
    void afterKPW(Page& page);
    void sliderMoved(int n);
    void showFigure(int index);
    void pwDoNext(int step);
    void cullBox(bool restore);
    void afterCull(const std::string& message);
    void fillCullVariables();
    // The run's own setup: asking the controls again would warn twice.
    void showIntervals(Page& page, const zorv::PWSetup& setup);
    Page* page(const QString& key) const;

    std::shared_ptr<zorv::cLot> source_;  // the lot handed over
    std::shared_ptr<zorv::cLot> lot_;     // the window's clone
    std::shared_ptr<zorv::cLot> pwLot_;   // the last analysis' lot
    zorv::Workbook* workbook_ = nullptr;
    zorv::PWState state_;
    zorv::Datam focusValues_, doseValues_;
    std::vector<std::string> allFocus_, allDose_;
    bool filling_ = false;
    // An analysis under way: the status line runs events, and a second tab
    // click must not start another inside it.
    bool running_ = false;

    QTabWidget* tabPWCurve_ = nullptr;
    QWidget* setupPage_ = nullptr;
    QLabel* lblPWlot_ = nullptr;
    QWidget* rowsHost_ = nullptr;
    std::vector<Row> rows_;
    QLineEdit* txtPWTargetRange_ = nullptr;
    QString lastRange_;
    QListWidget* lstPWfocus_ = nullptr;
    QListWidget* lstPWDose_ = nullptr;
    QListWidget* lstPWsites_ = nullptr;
    QCheckBox* chkPWstatistics_ = nullptr;
    QCheckBox* chkPWGraphics_ = nullptr;
    QCheckBox* chkShowLimits_ = nullptr;
    QCheckBox* chkPWvarSettings_ = nullptr;
    QComboBox* cmbPWprecision_ = nullptr;
    QComboBox* optFocusResponse_ = nullptr;
    QComboBox* optDoseResponse_ = nullptr;
    // The wafer and field signatures removed before an analysis.
    QCheckBox* chkWValidate_ = nullptr;
    QCheckBox* chkFValidate_ = nullptr;
    QComboBox* cmbWaferTerms_ = nullptr;
    QComboBox* cmbFieldTerms_ = nullptr;
    std::vector<std::unique_ptr<Page>> pages_;

    // kPW's figures: the slider figure is one series of the chart.
    int shape_ = 0;
    zorv::PWobjects figures_;
    int shown_ = 0;          // 1-based in figures_, 0 none
    int figureSeries_ = 0;   // the chart's series of the shown figure
    std::vector<std::string> baseTitle_;
    zorv::Datam scan_;
    int scanAt_ = 0;
    QRadioButton* optPWformat_[3] = {};
    QSlider* sldPW_[3] = {};
    QLineEdit* txtPW_[3] = {};
    double sldLow_[3] = {}, sldHigh_[3] = {};
    QLabel* lblPWfigure_ = nullptr;

    QWidget* selectionPage_ = nullptr;
    ChartView* chtPWselection_ = nullptr;
    std::shared_ptr<zorv::cGraphic> selectionChart_;
    QLabel* lblPWselection_ = nullptr;
    QComboBox* cmbPWSelWafer_ = nullptr;
    QComboBox* cmbPWDataCull_ = nullptr;
    QLineEdit* txtPWDataMax_ = nullptr;
    QLineEdit* txtPWDataMin_ = nullptr;
    QLabel* lblPWcull_ = nullptr;
    QLineEdit* txtCullRadius_ = nullptr;
    QCheckBox* chkPWconfidence_ = nullptr;
    std::vector<zorv::PWInterval> intervals_;

    QWidget* aberPage_ = nullptr;
    QTableWidget* grdAberrations_ = nullptr;
    QComboBox* cmbAberFeature_ = nullptr;
    ChartView* chtAberrations_ = nullptr;
    std::shared_ptr<zorv::cGraphic> aberChart_;
    zorv::Datam aberRows_, aberColumns_;
};

}  // namespace zorv::ui
