// The raw data analysis tab on simulated lots: every plot draws, the pop-up
// culls take off exactly the points in the dragged box, and an emptied
// wafer says so.
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QLineEdit>
#include <QListWidget>
#include <QMouseEvent>
#include <QTabWidget>
#include <QVBoxLayout>
#include <cstdlib>
#include <filesystem>

#include "import/import.h"
#include "import/simulate.h"
#include "stats/raw_analysis.h"
#include "ui/chart_view.h"
#include "ui/metrology_panel.h"
#include "ui_fixture.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

class MetrologyPanelTest : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        dir_ = FreshTestDir("metrology");
        top_ = std::make_unique<QWidget>();
        auto* l = new QVBoxLayout(top_.get());
        l->setContentsMargins(0, 0, 0, 0);
        panel_ = new MetrologyPanel(top_.get());
        l->addWidget(panel_);
        top_->resize(1200, 800);
        top_->show();
        QApplication::processEvents();
    }
    void TearDown() override {
        top_.reset();
        fs::remove_all(dir_);
        UiTest::TearDown();
    }

    // Simulated tool file -> data workbook -> lot, as the main window loads it.
    void load(const std::string& kind, SimulateOptions o) {
        o.outDir = (dir_ / kind).string();
        auto sim = Simulate(kind, o);
        ASSERT_TRUE(sim.ok()) << sim.failure().message();
        auto req = GetDataFile((fs::path(o.outDir) / sim->file).string());
        ASSERT_TRUE(req.ok()) << req.failure().message();
        req->workbookPath = (dir_ / (kind + ".xlsx")).string();
        auto wb = ImportCall(*req);
        ASSERT_TRUE(wb.ok()) << wb.failure().message();
        ASSERT_TRUE(GetExcelWBLot(*wb, LoadOptions{}, lot_, &tables_).ok());
        ASSERT_TRUE(lot_);
        panel_->setLot(lot_, tables_.workbook.get());
    }

    void select(int plot) {
        panel_->tabs()->setCurrentIndex(plot);
        QApplication::processEvents();
    }
    // Draws the plot and keeps a picture of the whole tab where asked.
    void drawAndShoot(int plot, const std::string& name) {
        select(plot);
        ChartView* v = panel_->view(plot);
        v->repaint();
        EXPECT_TRUE(v->failureText().isEmpty()) << name << ": " << v->failureText().toStdString();
        if (const char* shots = std::getenv("ZORV_SHOTS_DIR")) {
            fs::create_directories(shots);
            top_->grab().save(QString::fromStdString(std::string(shots) + "/" + name + ".png"));
        }
    }
    // Live points with a value in a box (mm) of wafer (or field) positions.
    long pointsIn(const QRectF& box, bool field, int feature) const {
        long n = 0;
        lot_->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
            double v;
            if (!RawPointValue(p, feature, eFitted, v)) return;
            const double x = (field ? s.LocationX + lot_->SiteXoffset : s.LocationXabs) / 1000.0;
            const double y = (field ? s.LocationY + lot_->SiteYoffset : s.LocationYabs) / 1000.0;
            n += x >= box.left() && x <= box.right() && y >= box.top() && y <= box.bottom();
        });
        return n;
    }
    QAction* action(const char* name) const { return panel_->findChild<QAction*>(name); }

    fs::path dir_;
    std::unique_ptr<QWidget> top_;
    MetrologyPanel* panel_ = nullptr;
    std::shared_ptr<cLot> lot_;
    WBLotTables tables_;
};

}  // namespace

TEST_F(MetrologyPanelTest, OverlayLotDrawsEveryPlotAndCullsTheBox) {
    SimulateOptions o;
    o.wafers = 2;
    load("overlay", o);
    ASSERT_FALSE(HasFatalFailure());

    ASSERT_TRUE(panel_->showRawAnalysis());
    for (const char* s : {"Setting up data for Raw Analysis ...", "Graphics Setup...", "Data setup ... ",
                          "Plot definitions...", "Calculating statistics ...", "Vector graphic setup..."})
        EXPECT_TRUE(rec.sawStatus(s)) << s;
    auto* list = panel_->findChild<QListWidget*>("lstMetWafers");
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->count(), 1 + lot_->TotalWafers());
    EXPECT_EQ(list->item(0)->text(), "All");
    EXPECT_EQ(list->item(1)->text().toStdString(), lot_->Wafers().At(1)->KeyName);

    const char* names[] = {"overlay_wafer", "overlay_field", "overlay_field_residuals",
                           "overlay_histogram", "overlay_contour", "overlay_xy"};
    // Looking writes nothing; the data goes to the workbook when asked.
    EXPECT_EQ(tables_.workbook->sheet(std::string("WaferRawData")), nullptr);
    for (int i = 0; i < MetrologyPanel::kPlots; ++i) {
        drawAndShoot(i, names[i]);
        EXPECT_EQ(panel_->writePlotData(), i != MetrologyPanel::kHistogram) << names[i];
    }
    for (const char* s : {"Histogram setup...", "Contour data setup...", "XYplot data setup..."})
        EXPECT_TRUE(rec.sawStatus(s)) << s;
    for (const char* s : {"WaferRawData", "FieldRawData", "VertSeries", "HorizSeries", "MeanSeries"})
        EXPECT_NE(tables_.workbook->sheet(std::string(s)), nullptr) << s;
    bool surface = false;
    for (const std::string& n : tables_.workbook->sheetNames()) surface = surface || n.rfind("MeanSurface_", 0) == 0;
    EXPECT_TRUE(surface);

    // Wafer map: a box over part of the wafer, culled through the pop-up.
    select(MetrologyPanel::kWafer);
    const int feature = lot_->PlotFeature();
    const long all = panel_->shown().points;
    ASSERT_GT(all, 0);
    ChartView* wv = panel_->view(MetrologyPanel::kWafer);
    DragOn(wv, QPoint(wv->width() * 30 / 100, wv->height() * 25 / 100),
         QPoint(wv->width() * 55 / 100, wv->height() * 60 / 100));
    ASSERT_FALSE(wv->selectedBox().isNull());
    const QRectF box = wv->selectedValues();
    const long inBox = pointsIn(box, false, feature);
    EXPECT_GT(inBox, 0);
    EXPECT_LT(inBox, all);
    int culls = 0;
    QObject::connect(panel_, &MetrologyPanel::cullsChanged, [&] { ++culls; });
    action("mnuPopUpCullRemove")->trigger();
    EXPECT_EQ(panel_->shown().points, all - inBox);
    EXPECT_EQ(pointsIn(box, false, feature), 0);
    EXPECT_EQ(culls, 1);
    EXPECT_TRUE(wv->selectedBox().isNull());
    drawAndShoot(MetrologyPanel::kWafer, "overlay_wafer_culled");

    action("mnuPopUpCullAll")->trigger();
    EXPECT_EQ(panel_->shown().points, all);

    // Field map (every field overlaid): a box of field positions.
    select(MetrologyPanel::kField);
    ChartView* fv = panel_->view(MetrologyPanel::kField);
    DragOn(fv, QPoint(fv->width() * 20 / 100, fv->height() * 20 / 100),
         QPoint(fv->width() * 50 / 100, fv->height() * 50 / 100));
    const QRectF fbox = fv->selectedValues();
    const long inField = pointsIn(fbox, true, feature);
    EXPECT_GT(inField, 0);
    action("mnuPopUpCullRemove")->trigger();
    EXPECT_EQ(panel_->shown().points, all - inField);
    DragOn(fv, QPoint(fv->width() * 20 / 100, fv->height() * 20 / 100),
         QPoint(fv->width() * 50 / 100, fv->height() * 50 / 100));
    action("mnuPopUpCullClear")->trigger();
    EXPECT_EQ(panel_->shown().points, all);
    EXPECT_TRUE(rec.sawStatus("Culls restored: " + std::to_string(inField)));

    // A wafer culled whole leaves nothing to show.
    list->setCurrentRow(2);
    QApplication::processEvents();
    const long wafer2 = panel_->shown().points;
    EXPECT_GT(wafer2, 0);
    EXPECT_LT(wafer2, all);
    drawAndShoot(MetrologyPanel::kWafer, "overlay_wafer_w02");
    EXPECT_EQ(panel_->shown().points, wafer2);
    action("mnuPopUpCullWafer")->trigger();
    EXPECT_TRUE(rec.sawStatus("Too many points culled."));
    EXPECT_EQ(panel_->shown().points, 0);
    EXPECT_EQ(panel_->view(MetrologyPanel::kField)->graphic(), nullptr) << "the plots stay empty";
    drawAndShoot(MetrologyPanel::kField, "overlay_wafer_culled_empty");
    action("mnuPopUpCullAll")->trigger();
    EXPECT_EQ(panel_->shown().points, wafer2);
}

TEST_F(MetrologyPanelTest, ComponentRemovalAndBadValue) {
    SimulateOptions o;
    o.wafers = 1;
    load("overlay", o);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(panel_->showRawAnalysis());
    select(MetrologyPanel::kHistogram);
    const auto before = panel_->shown();

    // A text that is no number: a box, and nothing changes.
    auto* value = panel_->findChild<QLineEdit*>("txtValueRemove");
    auto* chk = panel_->findChild<QCheckBox*>("chkRemoveValue");
    value->setText("abc");
    const size_t boxes = rec.boxes.size();
    chk->setChecked(true);
    ASSERT_GT(rec.boxes.size(), boxes);
    EXPECT_EQ(rec.boxes.back().text, "Entered value of 'abc' is not valid.");
    EXPECT_DOUBLE_EQ(panel_->shown().mean, before.mean);

    // Removing the mean field leaves the field residual plot's own data:
    // every site position averages to 0 over the fields.
    chk->setChecked(false);
    panel_->findChild<QCheckBox*>("chkRemoveMeanField")->setChecked(true);
    for (const MeanSite& m : MeanFieldSites(*lot_, {}, eFitted)) {
        EXPECT_NEAR(m.mean[ePlotFeatureV] / 1000, 0, 1e-4);
        EXPECT_NEAR(m.mean[ePlotFeatureH] / 1000, 0, 1e-4);
    }
    drawAndShoot(MetrologyPanel::kHistogram, "overlay_histogram_meanfield");
}

TEST_F(MetrologyPanelTest, ScalarLotDrawsMapHistogramContourAndXY) {
    SimulateOptions o;
    load("fem", o);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(lot_->LineWidthType);
    ASSERT_TRUE(panel_->showRawAnalysis());
    EXPECT_GT(panel_->shown().points, 0);
    drawAndShoot(MetrologyPanel::kWafer, "fem_wafer");
    drawAndShoot(MetrologyPanel::kHistogram, "fem_histogram");
    drawAndShoot(MetrologyPanel::kContour, "fem_contour");
    drawAndShoot(MetrologyPanel::kXYplot, "fem_xy");
    EXPECT_FALSE(rec.sawStatus("No data"));
}

TEST_F(MetrologyPanelTest, NoLotSaysNoData) {
    EXPECT_FALSE(panel_->showRawAnalysis());
    EXPECT_TRUE(rec.sawStatus("No data"));
    EXPECT_TRUE(rec.sawStatus("No data points in selected lot."));
    EXPECT_EQ(panel_->shown().points, 0);
}
