// frmAnalysis: the full-field focus workbench. A lot of PSFM image shifts is
// converted to focus with a template of the library (cmdAnalysis), its
// pre-conversion astigmatism summarised (cmdCullAnalysis), and the field
// aberrations of the converted lot modelled (cmdModelFocus). The template's
// sites show in the Template Grid tab, the model tables in the Aberrations
// tab, and the converted focus in pctAberrations as a vector map, a contour
// of the mean field or a profile across the field.
//
// The window works on a copy of the lot: the program's lot keeps its values
// and culls. The result sheets go into the lot's workbook.
#pragma once

#include <QString>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "calib/best_focus.h"
#include "calib/convert.h"
#include "ui/forms.h"

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QRadioButton;
class QSpinBox;
class QStackedWidget;
class QTabWidget;
class QTableWidget;

namespace zorv {
class cGraphic;
class cLot;
class cTemplate;
class cTemplateLibrary;
class Workbook;
}  // namespace zorv

namespace zorv::ui {

class ChartView;

class frmAnalysis : public ZorvForm {
    Q_OBJECT
public:
    // `libraryFolder` holds ZORVpsfm.tpl; empty: the program's library.
    explicit frmAnalysis(QWidget* parent = nullptr, const QString& libraryFolder = {});
    ~frmAnalysis() override;

    // The open dialog asks through this when set (tests, scripts): title,
    // filter and start folder in, the path out ("" cancels).
    using FileAsker = std::function<QString(const QString& title, const QString& filter, const QString& folder)>;
    static void setFileAsker(FileAsker asker);

    // File > Open: a data workbook (asked for when empty) becomes the lot.
    bool OpenLot(const QString& path = {});
    // The lot to convert and the workbook its result sheets go to.
    void setLot(std::shared_ptr<zorv::cLot> lot, std::shared_ptr<zorv::Workbook> workbook);

    // ---- operations (each also behind its control)
    // The template chosen in cmbTemplate into the descriptive fields and the
    // grid; remembered in the settings. False when there is none.
    bool cmdTemplate();
    // frmAnaly(PSFMmetro2Focus): the lot converted with the chosen template
    // and match mode; the "RawFocus" sheet written; the plots drawn.
    bool cmdAnalysis();
    // PSFManalysis(AstigmaticAnalysis) of the lot before conversion.
    bool cmdCullAnalysis();
    // frmAnalysis(ModelFocusAberrations) of the converted lot, with the row
    // and column models beside it.
    bool cmdModelFocus();
    // The view of cmbPlotType over the converted lot (or the astigmatism).
    bool drawPlot();

    // optSelectLayout: 0 "All Sites" .. 4 "User Selected".
    int matchMode() const;
    void setMatchMode(int mode);

    // ---- what the window holds
    std::shared_ptr<zorv::cLot> lot() const { return lot_; }
    std::shared_ptr<zorv::Workbook> workbook() const { return wb_; }
    std::shared_ptr<zorv::cTemplate> currentTemplate() const { return tpl_; }
    zorv::cTemplateLibrary& library() const { return *lib_; }
    // The converted lot and the matrix of the last conversion.
    const std::optional<zorv::FocusAnalysisResult>& result() const { return result_; }
    const std::optional<zorv::FocusAberrationReport>& aberrations() const { return aber_; }
    const std::optional<zorv::FieldAberrations>& rowColumnModels() const { return rowCol_; }
    const std::optional<zorv::AstigmaticReport>& astigmatism() const { return astig_; }
    zorv::cGraphic* chart() const { return chart_.get(); }

    // ---- controls
    QComboBox* cmbTemplate() const { return cmbTemplate_; }
    QLineEdit* txtReticleName() const { return txtReticleName_; }
    QPlainTextEdit* txtComments() const { return txtComments_; }
    QLabel* lblDataSet() const { return lblDataSet_; }
    QLabel* lblDateCreated() const { return lblDateCreated_; }
    QLabel* lblDateModified() const { return lblDateModified_; }
    QLabel* lblLot() const { return lblLot_; }
    QGroupBox* fraConvOptions() const { return fraConvOptions_; }
    QRadioButton* optSelectLayout(int index) const;
    QCheckBox* chkNoDose() const { return chkNoDose_; }
    QCheckBox* chkNoNA() const { return chkNoNA_; }
    QCheckBox* chkNoPCi() const { return chkNoPCi_; }
    QCheckBox* chkNoPCo() const { return chkNoPCo_; }
    QLineEdit* txtRange() const { return txtRange_; }
    QLineEdit* txtSigma() const { return txtSigma_; }
    QPushButton* cmdAnalysisButton() const { return cmdAnalysis_; }
    QPushButton* cmdCullAnalysisButton() const { return cmdCullAnalysis_; }
    QPushButton* cmdModelFocusButton() const { return cmdModelFocus_; }
    QTabWidget* tabs() const { return tabs_; }
    QTableWidget* tabTemplateGrid() const { return tblTemplate_; }
    QComboBox* cmbPlotType() const { return cmbPlotType_; }
    QComboBox* cmbPlotFeature() const { return cmbPlotFeature_; }
    QCheckBox* chkWaferModel() const { return chkWaferModel_; }
    QSpinBox* txtWaferTerms() const { return txtWaferTerms_; }
    QCheckBox* chkRemoveV() const { return chkRemoveV_; }
    QCheckBox* chkRemoveH() const { return chkRemoveH_; }
    QCheckBox* chkPiston() const { return chkPiston_; }
    QCheckBox* chkTilt() const { return chkTilt_; }
    QCheckBox* chkCurvature() const { return chkCurvature_; }
    QComboBox* cmbAberrationTable() const { return cmbAberrationTable_; }
    QTableWidget* tabAberrations() const { return tblAberrations_; }
    ChartView* pctAberrations() const { return pctAberrations_; }

protected:
    void formLoad() override;
    void formUnload() override;
    WindowPlace place() const override;

private:
    QWidget* buildLeft();
    QWidget* buildGridTab();
    QWidget* buildPlotOptionsTab();
    QWidget* buildAberrationsTab();
    void buildMenus();
    // The library read (the sample made when it is empty) and cmbTemplate filled.
    void loadLibrary();
    void showTemplate();
    void showAberrationTable();
    void updateLotLabel();
    void enableCommands();
    // The template of the conversion: in mode 4 a copy holding only the sites
    // picked in the grid, in a library of its own.
    zorv::cTemplateLibrary* conversionLibrary(std::unique_ptr<zorv::cTemplateLibrary>& own);

    std::unique_ptr<zorv::cTemplateLibrary> ownLib_;
    zorv::cTemplateLibrary* lib_ = nullptr;
    std::shared_ptr<zorv::cTemplate> tpl_;
    std::shared_ptr<zorv::cLot> lot_;
    std::shared_ptr<zorv::Workbook> wb_;
    std::optional<zorv::FocusAnalysisResult> result_;
    std::optional<zorv::FocusAberrationReport> aber_;
    std::optional<zorv::FieldAberrations> rowCol_;
    std::optional<zorv::AstigmaticReport> astig_;
    std::shared_ptr<zorv::cLot> meanField_;  // what the maps draw
    std::shared_ptr<zorv::cLot> vectorField_;  // the same, less its mean: what the arrows show
    std::unique_ptr<zorv::cGraphic> chart_;
    bool filling_ = false;

    QComboBox* cmbTemplate_ = nullptr;
    QLineEdit* txtReticleName_ = nullptr;
    QPlainTextEdit* txtComments_ = nullptr;
    QLabel* lblDataSet_ = nullptr;
    QLabel* lblDateCreated_ = nullptr;
    QLabel* lblDateModified_ = nullptr;
    QLabel* lblLot_ = nullptr;
    QGroupBox* fraConvOptions_ = nullptr;
    QButtonGroup* optSelectLayout_ = nullptr;
    QCheckBox* chkNoDose_ = nullptr;
    QCheckBox* chkNoNA_ = nullptr;
    QCheckBox* chkNoPCi_ = nullptr;
    QCheckBox* chkNoPCo_ = nullptr;
    QLineEdit* txtRange_ = nullptr;
    QLineEdit* txtSigma_ = nullptr;
    QPushButton* cmdAnalysis_ = nullptr;
    QPushButton* cmdCullAnalysis_ = nullptr;
    QPushButton* cmdModelFocus_ = nullptr;
    QTabWidget* tabs_ = nullptr;
    QTableWidget* tblTemplate_ = nullptr;
    QComboBox* cmbPlotType_ = nullptr;
    QComboBox* cmbPlotFeature_ = nullptr;
    QCheckBox* chkWaferModel_ = nullptr;
    QSpinBox* txtWaferTerms_ = nullptr;
    QCheckBox* chkRemoveV_ = nullptr;
    QCheckBox* chkRemoveH_ = nullptr;
    QCheckBox* chkPiston_ = nullptr;
    QCheckBox* chkTilt_ = nullptr;
    QCheckBox* chkCurvature_ = nullptr;
    QComboBox* cmbAberrationTable_ = nullptr;
    QTableWidget* tblAberrations_ = nullptr;
    QStackedWidget* plotStack_ = nullptr;
    QWidget* plotHint_ = nullptr;  // shown until a plot is drawn
    ChartView* pctAberrations_ = nullptr;
};

}  // namespace zorv::ui
