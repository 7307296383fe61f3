// frmDailyMonitor: runs a monitor template on a data file and shows its trends.
// The template and the data file are chosen by folder and name; Run calls the
// core's one run (DoDailyMonitor), the log box shows the run's log lines, the
// Analysis tab its statistics, and the Trend Charts tab a chart per trended
// statistic of a feature, read back from the template's trend sheets. A
// batch list of the template runs file after file; the automation (DMA) fills
// the same window and ends with its counting notice.
#pragma once

#include <QString>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "monitor/dm_run.h"
#include "ui/forms.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QRadioButton;
class QSpinBox;
class QTabWidget;
class QTableWidget;

namespace zorv {
class cGraphic;
class Workbook;
}  // namespace zorv

namespace zorv::ui {

class ChartView;
class frmDMANotice;

class frmDailyMonitor : public ZorvForm {
    Q_OBJECT
public:
    explicit frmDailyMonitor(QWidget* parent = nullptr);
    ~frmDailyMonitor() override;

    enum Tab { kLog = 0, kAnalysis = 1, kTrend = 2 };

    // The browse buttons ask through this when set (tests, scripts): title,
    // filter and start in, the path out ("" cancels).
    using FileAsker = std::function<QString(const QString& title, const QString& filter, const QString& start)>;
    static void setFileAsker(FileAsker asker);

    // ---- template and data
    // The template by its full path: folder and name boxes, its summary, its
    // batch lists and its trend tabs. A workbook that is no template is
    // reported and leaves the window without one.
    bool SelectTemplate(const QString& path);
    // The data file by its full path into the folder and name boxes.
    void SelectData(const QString& path);
    QString templatePath() const;
    QString dataPath() const;

    // ZorvDM(doDailyMonitor) from the controls: false when the run failed
    // (reported, the template unchanged).
    bool Run();
    // frmDM(cmdBatch): every file of the batch list in cmbBatch.
    bool RunBatchList();
    // DMcommon(BatchFile): the list of cmbBatch in the options' batch tab.
    void ShowBatch();
    // DMcommon(BatchFile) with delete: after the question; answers how many
    // lists went, -1 on failure.
    int DeleteBatch();
    // frmDM(GetBatchSheets): cmbBatch from the template; answers how many.
    int GetBatchSheets();

    // frmDM(Load) for a host's command line: the run, its results shown
    // here, the title marked, and the closing notice shown (counting down).
    DMAResult RunAutomation(const std::string& commandLine);
    frmDMANotice* automationNotice() const { return notice_; }

    // ---- trends
    // DailyMonitor(CreateTrendTabs) for the feature of cmbTrendFeature, each
    // tab a chart drawn by PlotDMstats.
    void CreateTrendTabs();
    // The manual entry of a trend row for the statistic of the current tab:
    // the password, then the value. True when a row was written.
    bool EnterTrendRow();
    // Points of the data series of the current trend tab's chart (0 when none).
    int trendPointCount() const;
    zorv::cGraphic* currentTrendChart() const;

    // The outcome of the last run (null before one, or after a failed one).
    const DMRunOutcome* lastOutcome() const { return outcome_.get(); }

    // ---- controls
    QTabWidget* tabs() const { return tabs_; }
    QLineEdit* txtTemplateFolder() const { return txtTemplateFolder_; }
    QComboBox* cmbTemplate() const { return cmbTemplate_; }
    QPushButton* cmdBrowseTemplate() const { return cmdBrowseTemplate_; }
    QLineEdit* txtDataFolder() const { return txtDataFolder_; }
    QLineEdit* txtDataFile() const { return txtDataFile_; }
    QPushButton* cmdBrowseData() const { return cmdBrowseData_; }
    QComboBox* cmbImportFilter() const { return cmbImportFilter_; }
    QPushButton* cmdRun() const { return cmdRun_; }
    QComboBox* cmbBatch() const { return cmbBatch_; }
    QPushButton* cmdBatch() const { return cmdBatch_; }
    QPushButton* cmdBatchShow() const { return cmdBatchShow_; }
    QPushButton* cmdBatchDelete() const { return cmdBatchDelete_; }
    QPlainTextEdit* txtLog() const { return txtLog_; }
    QTableWidget* grdStats() const { return grdStats_; }
    QTableWidget* grdSummary() const { return grdSummary_; }
    QComboBox* cmbTrendFeature() const { return cmbTrendFeature_; }
    QTabWidget* tabTrend() const { return tabTrend_; }
    QPushButton* cmdTrendEntry() const { return cmdTrendEntry_; }
    QCheckBox* chkShowLimits() const { return chkShowLimits_; }
    QCheckBox* chkTrendDate() const { return chkTrendDate_; }
    QCheckBox* chkTrendGraphics() const { return chkTrendGraphics_; }
    QCheckBox* chkTrendStats() const { return chkTrendStats_; }
    QCheckBox* chkYgridline() const { return chkYgridline_; }
    QRadioButton* optAbscissaDate() const { return optAbscissaDate_; }
    QRadioButton* optAbscissaRun() const { return optAbscissaRun_; }
    QSpinBox* txtAbscissaItems() const { return txtAbscissaItems_; }
    QCheckBox* chkLogData() const { return chkLogData_; }

protected:
    void formLoad() override;
    void formUnload() override;
    WindowPlace place() const override;
    // Back from the options: the batch lists may have changed.
    void changeEvent(QEvent* e) override;

private:
    QWidget* buildSelection();
    QWidget* buildTrendTab();
    QString askFile(const QString& title, const QString& filter, const QString& start);
    void fillTemplates();
    void loadSettings();
    void saveSettings();
    void working(bool on);
    DMRunRequest request() const;
    // A run's outcome into the tabs.
    void showOutcome(std::shared_ptr<DMRunOutcome> outcome);
    void showSummary(const Datam& summary);
    void fillTrendFeatures(const QString& keep = {});
    void redrawTrends();
    void appendLog(const std::vector<std::string>& lines);
    void clearTrendTabs();
    zorv::Workbook* templateWorkbook();
    // The template read into the window; quiet leaves a failure unreported.
    bool loadTemplate(const std::string& path, bool quiet);

    std::shared_ptr<DMRunOutcome> outcome_;
    std::shared_ptr<zorv::Workbook> tplWb_;
    std::unique_ptr<DMTemplate> tpl_;
    std::vector<std::unique_ptr<zorv::cGraphic>> charts_;
    std::vector<ChartView*> views_;
    std::vector<TrendItem> tabItems_;  // the statistic of each trend tab
    frmDMANotice* notice_ = nullptr;
    bool loadingSettings_ = false;

    QTabWidget* tabs_ = nullptr;
    QLineEdit* txtTemplateFolder_ = nullptr;
    QComboBox* cmbTemplate_ = nullptr;
    QPushButton* cmdBrowseTemplate_ = nullptr;
    QLineEdit* txtDataFolder_ = nullptr;
    QLineEdit* txtDataFile_ = nullptr;
    QPushButton* cmdBrowseData_ = nullptr;
    QComboBox* cmbImportFilter_ = nullptr;
    QPushButton* cmdRun_ = nullptr;
    QComboBox* cmbBatch_ = nullptr;
    QPushButton* cmdBatch_ = nullptr;
    QPushButton* cmdBatchShow_ = nullptr;
    QPushButton* cmdBatchDelete_ = nullptr;
    QLabel* lblTemplate_ = nullptr;
    QPlainTextEdit* txtLog_ = nullptr;
    QTableWidget* grdStats_ = nullptr;
    QTableWidget* grdSummary_ = nullptr;
    QComboBox* cmbTrendFeature_ = nullptr;
    QTabWidget* tabTrend_ = nullptr;
    QLabel* lblTrendNote_ = nullptr;
    QPushButton* cmdTrendEntry_ = nullptr;
    QCheckBox* chkShowLimits_ = nullptr;
    QCheckBox* chkTrendDate_ = nullptr;
    QCheckBox* chkTrendGraphics_ = nullptr;
    QCheckBox* chkTrendStats_ = nullptr;
    QCheckBox* chkYgridline_ = nullptr;
    QRadioButton* optAbscissaDate_ = nullptr;
    QRadioButton* optAbscissaRun_ = nullptr;
    QSpinBox* txtAbscissaItems_ = nullptr;
    QCheckBox* chkLogData_ = nullptr;
};

}  // namespace zorv::ui
