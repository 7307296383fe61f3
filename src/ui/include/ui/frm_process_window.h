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
#include "ui/forms.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
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
    // The tab of a key (its index in tabPWCurve), -1 when the lot has none.
    int tabIndex(const QString& key) const;
    // The chart view, report table and last report of an analysis key.
    ChartView* chartView(const QString& key) const;
    QTableWidget* reportTable(const QString& key) const;
    QPlainTextEdit* resultText(const QString& key) const;
    const zorv::PWReport* report(const QString& key) const;
    // The lot the last analysis used (its culls reset), kept for the charts.
    std::shared_ptr<zorv::cLot> analysisLot() const { return pwLot_; }

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
    std::vector<std::unique_ptr<Page>> pages_;
};

}  // namespace zorv::ui
