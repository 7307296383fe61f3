// frmDailyMonitorSetup: builds and saves a monitor template. A template or a
// data workbook is the source; the tabs fill the template's setup (analysis
// kind, conversion, component removal, models, process window, statistics,
// features, axes) and cmdSaveTemplate writes it as the ".XLT"-named template.
#pragma once

#include <QString>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "monitor/dm_template.h"
#include "ui/forms.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QTabWidget;
class QTableWidget;
class QTreeWidget;
class QTreeWidgetItem;

namespace zorv {
class Workbook;
}

namespace zorv::ui {

class frmDailyMonitorSetup : public ZorvForm {
    Q_OBJECT
public:
    explicit frmDailyMonitorSetup(QWidget* parent = nullptr);
    ~frmDailyMonitorSetup() override;

    enum Tab { kAnalysis = 0, kConversion, kComponent, kModels, kProcessWindow, kStatistics, kFeatures, kAxes, kSummary };
    // The options of cmbAnalysisType, in index order.
    static const std::vector<std::string>& AnalysisCaptions();
    // The options of cmbPWanalysis ("(None)" first) and the report kind of each.
    static const std::vector<std::string>& PWCaptions();
    static std::string PWKindOfCaption(const std::string& caption);

    // The file asker of cmdOpenTemplate and the browse buttons when set (tests,
    // scripts): title, filter, start in; the path out ("" cancels). An empty
    // filter asks for a folder.
    using FileAsker = std::function<QString(const QString& title, const QString& filter, const QString& start)>;
    static void setFileAsker(FileAsker asker);

    // The folders of the options, each made when missing; one that can't be
    // is reported and set to the program's folder. Answers whether all stood.
    bool LoadFolders();
    // cmdOpenTemplate: asks for a template or data workbook and opens it.
    bool cmdOpenTemplate();
    // The same for a path: a template fills the tabs from its header, a data
    // workbook gives its features and the defaults. A refused file leaves the
    // window as it was.
    bool OpenTemplate(const QString& path);
    // frmDMsetup(UpdateTemplateDisplay): the tabs from a template read whole.
    bool UpdateTemplateDisplay(const zorv::DMTemplate& tpl);
    // cmdSaveTemplate: header, statistics, the save as the template. Answers
    // the template's path, empty when refused or failed.
    QString cmdSaveTemplate();
    // frmDMsetup(GetPWvariables): the process window statistics from the
    // source's report sheet of the chosen analysis; false when missing.
    bool GetPWvariables();

    // What the controls hold, as the template's setup.
    zorv::DMSetup setup() const;
    // The source workbook (the template after a save); null when none.
    zorv::Workbook* sourceWorkbook() const { return source_.get(); }
    QString sourcePath() const;
    const std::vector<std::string>& saveLog() const { return log_; }

    // ---- controls
    QTabWidget* tabs() const { return tabs_; }
    QLineEdit* txtTemplateSource() const { return txtTemplateSource_; }
    QLineEdit* txtTemplateName() const { return txtTemplateName_; }
    QLineEdit* txtTemplateFolder() const { return txtTemplateFolder_; }
    QLineEdit* txtDataFolder() const { return txtDataFolder_; }
    QLineEdit* txtReticleFolder() const { return txtReticleFolder_; }
    QPushButton* cmdOpen() const { return cmdOpenTemplate_; }
    QPushButton* cmdSave() const { return cmdSaveTemplate_; }
    QComboBox* cmbAnalysisType() const { return cmbAnalysisType_; }
    QComboBox* cmbDataImport() const { return cmbDataImport_; }
    QCheckBox* chkStatistics() const { return chkStatistics_; }
    QCheckBox* chkCombineWafers() const { return chkCombineWafers_; }
    QCheckBox* chkModelData() const { return chkModelData_; }
    QLineEdit* txtFocusMax() const { return txtFocusMax_; }
    QLineEdit* txtFocusMin() const { return txtFocusMin_; }
    QLineEdit* txtRangeCull() const { return txtRangeCull_; }
    QLineEdit* txtSigmaCull() const { return txtSigmaCull_; }
    QLineEdit* txtAstigCull() const { return txtAstigCull_; }
    QLineEdit* txtComments() const { return txtComments_; }
    QLineEdit* txtPassword() const { return txtPassword_; }
    QComboBox* cmbFocusTemplate() const { return cmbFocusTemplate_; }
    QComboBox* cmbConversionMethod() const { return cmbConversionMethod_; }
    QCheckBox* chkRemoveReticle() const { return chkRemoveReticle_; }
    QLineEdit* txtReticleName() const { return txtReticleName_; }
    QCheckBox* chkRemoveComponent() const { return chkRemoveComponent_; }
    QComboBox* cmbComponentRemoval() const { return cmbComponentRemoval_; }
    QCheckBox* chkDoWaferModel() const { return chkDoWaferModel_; }
    QComboBox* cmbWaferTerms() const { return cmbWaferTerms_; }
    QComboBox* cmbFieldModel() const { return cmbFieldModel_; }
    QComboBox* cmbPWanalysis() const { return cmbPWanalysis_; }
    QCheckBox* chkPWellipse() const { return chkPWellipse_; }
    QCheckBox* chkPWrectangle() const { return chkPWrectangle_; }
    QLineEdit* txtPWsites() const { return txtPWsites_; }
    QLineEdit* txtPWprecision() const { return txtPWprecision_; }
    QCheckBox* chkPWshowLimits() const { return chkPWshowLimits_; }
    // Groups "Raw Statistics", "Wafer Model", "Field Model", "Process
    // Window"; each row a statistic with the check columns Display (1) and
    // Trend (2).
    QTreeWidget* tvwStatistics() const { return tvwStatistics_; }
    // Analyze (check), Name, Target, Max, Min; the key in the first item's data.
    QTableWidget* tblFeatures() const { return tblFeatures_; }
    // Name, Display (a check, or the caption of the chart rows).
    QTableWidget* tblAxes() const { return tblAxes_; }
    QPlainTextEdit* txtSummary() const { return txtSummary_; }
    QPlainTextEdit* txtLog() const { return txtLog_; }

    // Test helpers as a user would click: a statistic's boxes, a feature's row.
    bool setStatistic(const QString& group, const QString& name, bool display, bool trend);
    bool setFeature(const QString& name, bool analyze, double target, double max, double min);

protected:
    void formLoad() override;
    WindowPlace place() const override;

private:
    QWidget* buildSource();
    QWidget* buildAnalysis();
    QWidget* buildConversion();
    QWidget* buildComponent();
    QWidget* buildModels();
    QWidget* buildProcessWindow();
    QWidget* buildStatistics();
    QWidget* buildFeatures();
    QWidget* buildAxes();
    QWidget* buildSummary();
    QString askFile(const QString& title, const QString& filter, const QString& start);
    void fillModelLists();
    void fillFocusTemplates();
    // The statistics rows of the chosen wafer (field) model: its terms.
    void fillModelTerms(bool field);
    // The display from a setup record (the defaults for a data workbook).
    void showSetup(const zorv::DMSetup& s);
    void showStatGroup(QTreeWidgetItem* group, const std::vector<zorv::DMStatRow>& rows);
    std::vector<zorv::DMStatRow> statGroup(QTreeWidgetItem* group) const;
    void showFeatures(const std::vector<zorv::DMFeatureRow>& rows);
    void showAxes(const std::vector<zorv::DMAxisRow>& rows);
    void selectChoice(QComboBox* box, const zorv::DMChoice& c);
    void updateEnabled();
    void updateSummary();
    // A new source replaces the old; the old is closed when it was opened here.
    void takeSource(std::shared_ptr<zorv::Workbook> wb);
    // The typed numbers; false (reported) when one is no number.
    bool readNumbers(zorv::DMSetup& s) const;

    std::shared_ptr<zorv::Workbook> source_;
    zorv::DMSetup loaded_;  // what the source held: the keys without a control stay
    std::vector<std::string> log_;
    bool filling_ = false;

    QTabWidget* tabs_ = nullptr;
    QLineEdit* txtTemplateSource_ = nullptr;
    QLineEdit* txtTemplateName_ = nullptr;
    QLineEdit* txtTemplateFolder_ = nullptr;
    QLineEdit* txtDataFolder_ = nullptr;
    QLineEdit* txtReticleFolder_ = nullptr;
    QPushButton* cmdOpenTemplate_ = nullptr;
    QPushButton* cmdSaveTemplate_ = nullptr;
    QLabel* lblSourceKind_ = nullptr;
    QComboBox* cmbAnalysisType_ = nullptr;
    QComboBox* cmbDataImport_ = nullptr;
    QCheckBox* chkStatistics_ = nullptr;
    QCheckBox* chkCombineWafers_ = nullptr;
    QCheckBox* chkModelData_ = nullptr;
    QLineEdit* txtFocusMax_ = nullptr;
    QLineEdit* txtFocusMin_ = nullptr;
    QLineEdit* txtRangeCull_ = nullptr;
    QLineEdit* txtSigmaCull_ = nullptr;
    QLineEdit* txtAstigCull_ = nullptr;
    QLineEdit* txtComments_ = nullptr;
    QLineEdit* txtPassword_ = nullptr;
    QComboBox* cmbFocusTemplate_ = nullptr;
    QComboBox* cmbConversionMethod_ = nullptr;
    QCheckBox* chkRemoveReticle_ = nullptr;
    QLineEdit* txtReticleName_ = nullptr;
    QCheckBox* chkRemoveComponent_ = nullptr;
    QComboBox* cmbComponentRemoval_ = nullptr;
    QCheckBox* chkDoWaferModel_ = nullptr;
    QComboBox* cmbWaferTerms_ = nullptr;
    QComboBox* cmbFieldModel_ = nullptr;
    QComboBox* cmbPWanalysis_ = nullptr;
    QCheckBox* chkPWellipse_ = nullptr;
    QCheckBox* chkPWrectangle_ = nullptr;
    QLineEdit* txtPWsites_ = nullptr;
    QLineEdit* txtPWprecision_ = nullptr;
    QCheckBox* chkPWshowLimits_ = nullptr;
    QTreeWidget* tvwStatistics_ = nullptr;
    QTreeWidgetItem* grpRaw_ = nullptr;
    QTreeWidgetItem* grpWafer_ = nullptr;
    QTreeWidgetItem* grpField_ = nullptr;
    QTreeWidgetItem* grpPW_ = nullptr;
    QTableWidget* tblFeatures_ = nullptr;
    QTableWidget* tblAxes_ = nullptr;
    QPlainTextEdit* txtSummary_ = nullptr;
    QPlainTextEdit* txtLog_ = nullptr;
};

}  // namespace zorv::ui
