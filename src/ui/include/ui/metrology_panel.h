// The raw data analysis tab of the main window ("kMetrology"): the raw data
// of the current lot as wafer and field maps, the field residuals, a
// histogram, the mean field contour and an XY plot, with the wafer and
// feature choice, the component removal, the culls and the statistics of
// what is shown.
//
// The plots read the fitted slots the raw analysis fills (stats/raw_analysis.h)
// and the field residuals the residual slots; the raw values stay as loaded.
#pragma once

#include <QWidget>
#include <array>
#include <memory>
#include <string>

#include "graphics/chart.h"
#include "lot/lot.h"

class QAction;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QTabWidget;
class QTableWidget;

namespace zorv {
class Workbook;
}

namespace zorv::ui {

class ChartView;

class MetrologyPanel : public QWidget {
    Q_OBJECT
public:
    explicit MetrologyPanel(QWidget* parent = nullptr);
    ~MetrologyPanel() override;

    // The lot and its data workbook (result sheets go there, in memory; the
    // panel never saves to disk). nullptr clears.
    void setLot(std::shared_ptr<zorv::cLot> lot, zorv::Workbook* workbook);
    // The "kMetrology" tab click: MakeRawLot, the wafer list filled, then
    // tabMetrology(). False when nothing drew.
    bool showRawAnalysis();
    // Draws the current inner plot again. False when nothing drew.
    bool tabMetrology();
    void clear();

    // The statistics shown now, for tests and the status line.
    struct Shown {
        long points = 0;
        double mean = 0, sigma = 0;
    };
    Shown shown() const { return shown_; }

    // The inner plots, in tab order.
    enum Plot { kWafer = 0, kField, kFieldResiduals, kHistogram, kContour, kXYplot, kPlots };
    ChartView* view(int plot) const { return views_[static_cast<size_t>(plot)]; }
    QTabWidget* tabs() const { return tabMetrology_; }
    // cmdPlotData: the data of the plot shown as sheets of the lot's workbook
    // (in memory; saved with the workbook): "WaferRawData", "FieldRawData",
    // "MeanSurface_" and the feature, the XY series. False when none is shown.
    bool writePlotData();

signals:
    void cullsChanged();

private:
    // The wafer key of lstMetWafers' choice; empty for "All".
    std::string waferKey() const;
    int feature() const;
    int dataType() const;
    // The plot's chart set up from the lot and the controls; false with the
    // failure reported.
    bool setupPlot(int plot);
    void showNoData(const QString& text);
    void fillStatistics();
    // The pop-up culls of the wafer and field maps.
    void cullSelection(bool restore);
    void cullWafer();
    void restoreAll();
    void cullRadius();
    void resetCulls();
    void afterCull();
    bool readNumber(QLineEdit* edit, double& value);

    std::shared_ptr<zorv::cLot> lot_;
    zorv::Workbook* workbook_ = nullptr;
    std::shared_ptr<zorv::cLot> meanLot_;  // the contour's mean field
    std::array<std::unique_ptr<zorv::cGraphic>, kPlots> charts_;
    std::array<ChartView*, kPlots> views_{};
    Shown shown_;
    int plotSheets_ = 0;  // the sheets of the plot shown (RawSheets)
    bool filling_ = false;

    QTabWidget* tabMetrology_ = nullptr;
    QLabel* lblNoData_ = nullptr;
    QListWidget* lstMetWafers_ = nullptr;
    QComboBox* cmbMetFeature_ = nullptr;
    QComboBox* cmbMetDataType_ = nullptr;
    QCheckBox* chkRemoveMeanField_ = nullptr;
    QCheckBox* chkRemoveValue_ = nullptr;
    QLineEdit* txtValueRemove_ = nullptr;
    QLineEdit* txtCullRadius_ = nullptr;
    QPushButton* cmdCullRadius_ = nullptr;
    QPushButton* cmdResetCulls_ = nullptr;
    QLineEdit* txtVectorScale_ = nullptr;
    QTableWidget* tblMetStats_ = nullptr;
    QAction* mnuPopUpCullRemove_ = nullptr;
    QAction* mnuPopUpCullClear_ = nullptr;
    QAction* mnuPopUpCullWafer_ = nullptr;
    QAction* mnuPopUpCullAll_ = nullptr;
};

}  // namespace zorv::ui
