// frmReticle: the window of the reticle mode. A wafer lot and the reticle
// measurement that printed it side by side (Compare), the mask error factor
// analysis set up and run (MEEF), its table as field maps and as wafer CD
// against reticle CD (MEEF Graph), and the lot's focus-exposure matrix as
// small multiple surfaces (FEM). Every chart copies and exports; the FEM
// grid does too through FemView.
#pragma once

#include <QImage>
#include <QString>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>

#include "reticle/fem.h"
#include "reticle/meef.h"
#include "ui/forms.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QTabWidget;
class QTableWidget;

namespace zorv {
class cGraphic;
class cLot;
class Workbook;
}  // namespace zorv

namespace zorv::ui {

class ChartView;
class frmPlot;
class frmSpreadsheet;

// The small multiples of a focus-exposure matrix on a widget: drawn once into
// an image per size and content, copied (image and SVG) and exported as
// .png, .svg or .pdf like a chart.
class FemView : public QWidget {
    Q_OBJECT
public:
    explicit FemView(QWidget* parent = nullptr);
    // The matrix drawn (copied); nullopt clears the view.
    void setMatrix(std::optional<zorv::FEMMatrix> fem);
    const std::optional<zorv::FEMMatrix>& matrix() const { return fem_; }
    bool copyToClipboard();
    // At the widget's size; failures go through the reporting path.
    bool saveTo(const QString& path);
    void saveAs();
    QString failureText() const { return failure_; }
    QSize sizeHint() const override { return {800, 560}; }

protected:
    void paintEvent(QPaintEvent* e) override;
    void resizeEvent(QResizeEvent* e) override;
    void contextMenuEvent(QContextMenuEvent* e) override;

private:
    std::optional<zorv::FEMMatrix> fem_;
    QImage cache_;
    bool dirty_ = true;
    QString failure_;
};

class frmReticle : public ZorvForm {
    Q_OBJECT
public:
    explicit frmReticle(QWidget* parent = nullptr);
    ~frmReticle() override;
    // Set before load by the reticle mode: the window starts by itself, as the
    // top window, with its own open and save tools.
    bool StandAlone = false;

    // The open and save dialogs ask through this when set (tests, scripts):
    // title, filter and start folder in, the path out ("" cancels).
    using FileAsker = std::function<QString(const QString& title, const QString& filter, const QString& folder)>;
    static void setFileAsker(FileAsker asker);

    // Opens the lot workbook and the reticle workbook (either may be empty to
    // keep the one loaded) and sets the window up on them.
    bool LoadLotReticle(const QString& lotPath, const QString& reticlePath);
    // The reticle workbook alone (asked for when empty).
    bool OpenReticle(const QString& path = {});
    // A saved result lot workbook (SaveAsLot's) as the lot side (asked for
    // when empty): MEEF, BEEF and the rest are its features.
    bool OpenMEFfile(const QString& path = {});

    // The Compare tab's two field maps, the reticle side flipped, rotated
    // (0, 90, 180, 270 degrees, anticlockwise) and its positions divided by
    // the magnification.
    bool CompareGraphSetup();
    // The MEEF analysis with the entries of the MEEF tab.
    bool SetupMEF();
    // The last result as a new lot workbook beside the lot, opened on the
    // lot side; answers its path ("" on failure).
    QString OpenResultAsLot();
    // The MEEF Graph tab: the chosen column of the MEF table as a field map
    // and wafer CD against reticle CD.
    bool MEEFgraphSetup();
    // The FEM tab: the lot's matrix of the lot feature.
    bool FEMsetup();
    // The chart shown, cloned into a plot window of its own.
    frmPlot* cmdClone();
    // The shown feature's field table: into a sheet of the lot workbook
    // (SaveFeature), into a new .xlsx (FileSaveAs, asked for when empty), or
    // in a grid (VeiwSaveData).
    bool SaveFeature();
    bool FileSaveAs(const QString& path = {});
    frmSpreadsheet* VeiwSaveData();

    // ---- what the window holds
    std::shared_ptr<zorv::cLot> lot() const { return lot_; }
    std::shared_ptr<zorv::cLot> reticle() const { return reticle_; }
    std::shared_ptr<zorv::Workbook> xlwb;         // the lot's workbook
    std::shared_ptr<zorv::Workbook> xlwbReticle;  // the reticle's workbook
    const std::optional<zorv::MEFResult>& result() const { return result_; }
    const zorv::MEFSetup& setup() const { return setup_; }
    QString lastResultLot() const { return resultLotPath_; }

    // ---- controls
    QTabWidget* tabs() const { return tabs_; }
    QComboBox* cmbLotVariable() const { return cmbLotVariable_; }
    QComboBox* cmbRetVariable() const { return cmbRetVariable_; }
    QCheckBox* chkFlipX() const { return chkFlipX_; }
    QCheckBox* chkFlipY() const { return chkFlipY_; }
    QComboBox* cmbRotate() const { return cmbRotate_; }
    QLineEdit* txtMagnify() const { return txtMagnify_; }
    QLineEdit* txtMag() const { return txtMag_; }
    QLineEdit* txtSiteMag() const { return txtSiteMag_; }
    QCheckBox* chkSaveSheets() const { return chkSaveSheets_; }
    QPlainTextEdit* txtSetup() const { return txtSetup_; }
    QTableWidget* tblSummary() const { return tblSummary_; }
    QComboBox* cmbMEFColumn() const { return cmbMEFColumn_; }
    ChartView* chtLot() const { return chtLot_; }
    ChartView* chtReticle() const { return chtReticle_; }
    ChartView* chtMEFmap() const { return chtMEFmap_; }
    ChartView* chtMEFxy() const { return chtMEFxy_; }
    FemView* femView() const { return femView_; }
    // The chart of the tab shown (the lot's on Compare, the map on MEEF
    // Graph); nullptr on the others.
    ChartView* shownChart() const;

protected:
    void formLoad() override;
    WindowPlace place() const override;

private:
    void buildMenus();
    QWidget* buildCompare();
    QWidget* buildMEEF();
    QWidget* buildMEEFgraph();
    QWidget* buildFEM();
    void tabChanged(int index);
    void fillFeatures();
    void updateCaption();
    void updateLotFeature();
    QString askOpen(const QString& title, const QString& filter);
    QString askSave(const QString& title, const QString& filter, const QString& folder);
    // The reticle's mean field as the Compare tab shows it.
    std::shared_ptr<zorv::cLot> orientedReticle(const std::string& feature, double magnify);
    // The field table of the shown feature: the lot's or the reticle's mean
    // field, or the MEF table.
    zorv::Datam shownTable(std::string& name);

    std::shared_ptr<zorv::cLot> lot_, reticle_;
    std::shared_ptr<zorv::cLot> lotField_, reticleField_, mefField_;  // what the maps draw
    QString lotPath_, reticlePath_, resultLotPath_;
    QString analysisLotPath_;  // the lot the last result came from
    zorv::MEFSetup setup_;
    std::optional<zorv::MEFResult> result_;

    std::unique_ptr<zorv::cGraphic> gLot_, gReticle_, gMEFmap_, gMEFxy_;

    QTabWidget* tabs_ = nullptr;
    QLabel* lblFiles_ = nullptr;
    QComboBox* cmbLotVariable_ = nullptr;
    QComboBox* cmbRetVariable_ = nullptr;
    QCheckBox* chkFlipX_ = nullptr;
    QCheckBox* chkFlipY_ = nullptr;
    QComboBox* cmbRotate_ = nullptr;
    QLineEdit* txtMagnify_ = nullptr;
    QLabel* lblLotFeature_ = nullptr;
    QLineEdit* txtMag_ = nullptr;
    QLineEdit* txtSiteMag_ = nullptr;
    QCheckBox* chkSaveSheets_ = nullptr;
    QPushButton* cmdRunMEF_ = nullptr;
    QPushButton* cmdOpenAsLot_ = nullptr;
    QPlainTextEdit* txtSetup_ = nullptr;
    QTableWidget* tblSummary_ = nullptr;
    QComboBox* cmbMEFColumn_ = nullptr;
    ChartView* chtLot_ = nullptr;
    ChartView* chtReticle_ = nullptr;
    ChartView* chtMEFmap_ = nullptr;
    ChartView* chtMEFxy_ = nullptr;
    FemView* femView_ = nullptr;
    bool filling_ = false;
};

}  // namespace zorv::ui
