// The focus calibration workbench as a user works it, on a simulated PSFM
// focus matrix whose best focus is known: every view of the calibration and
// of the best focus drawn, the best focus held against the simulator's
// field tilt, the template saved, renamed and deleted through the menu and the
// maintenance window, and refused input that leaves the files as they were.
#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QTabBar>
#include <QTabWidget>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "app/settings.h"
#include "base/identity.h"
#include "calib/template_library.h"
#include "graphics/chart.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "ui/chart_view.h"
#include "ui/frm_calibrate.h"
#include "ui/frm_main.h"
#include "ui/frm_plot.h"
#include "ui/frm_template_maintenance.h"
#include "ui_fixture.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

constexpr double kTiltX = 20, kTiltY = -10;  // nm of best focus per mm across the field
constexpr double kNoise = 0.5;               // nm of image shift
constexpr double kSlopeX = 150;              // nm of X shift per um of focus

// truth.json's siteModel: site -> focus offset the site sees (um).
std::map<long, double> TruthFocusOffsets(const std::string& json) {
    std::map<long, double> out;
    const std::regex item(R"re("site"\s*:\s*(\d+)[^}]*"focusOffset"\s*:\s*([-+0-9.eE]+))re");
    for (std::sregex_iterator i(json.begin(), json.end(), item), e; i != e; ++i)
        out[std::stol((*i)[1])] = std::stod((*i)[2]);
    return out;
}

bool SawBoxWith(const RecordingReporter& rec, const std::string& text, std::string* title = nullptr) {
    for (const auto& b : rec.boxes)
        if (b.text.find(text) != std::string::npos) {
            if (title) *title = b.title;
            return true;
        }
    return false;
}

int Col(const Datam& t, const std::string& head) {
    for (int c = t.colLb(); c <= t.colUb(); ++c)
        if (t.get(t.rowLb(), c).toString() == head) return c;
    return -1;
}

}  // namespace

class CalibrateUi : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        dir_ = FreshTestDir("calibrate-window");
        lib_ = dir_ / "lib";
        // Offsets of zero and equal slopes at every site: each site's best
        // focus is then the field's tilt alone, -(TiltX x + TiltY y) / 1000.
        SimulateOptions o;
        o.outDir = (dir_ / "psfm").string();
        o.noise = kNoise;
        o.outliers = 0;
        o.failed = 0;
        o.seed = 5;
        o.coefficients = {{"OffsetX", 0},      {"OffsetY", 0}, {"OffsetSpread", 0}, {"SlopeSpread", 0},
                          {"SlopeX", kSlopeX}, {"X2", 0},      {"Y2", 0},           {"X3", 0},
                          {"Y3", 0},           {"TiltX", kTiltX}, {"TiltY", kTiltY}, {"Curvature", 0}};
        auto sim = Simulate("psfm", o);
        ASSERT_TRUE(sim.ok()) << sim.failure().message();
        truth_ = TruthFocusOffsets(FileBytes(fs::path(o.outDir) / "truth.json"));
        ASSERT_FALSE(truth_.empty());
        auto req = GetDataFile((fs::path(o.outDir) / sim->file).string());
        ASSERT_TRUE(req.ok()) << req.failure().message();
        req->workbookPath = (dir_ / "psfm.xlsx").string();
        auto wb = ImportCall(*req);
        ASSERT_TRUE(wb.ok()) << wb.failure().message();
        workbookPath_ = *wb;
        LoadOptions lo;
        lo.quiet = true;
        ASSERT_TRUE(GetExcelWBLot(*wb, lo, lot_, &tables_).ok());
        win_ = new frmCalibrate;
        win_->setLibraryFolder(QString::fromStdString(lib_.string()));
        win_->resize(1280, 820);
    }
    void TearDown() override {
        frmCalibrate::setNameAsker({});
        if (win_) win_->Unload();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        Current() = CurrentData();
        Workbooks::CloseAll();
        fs::remove_all(dir_);
        UiTest::TearDown();
    }
    // The window on the program's lot, as the main window hands it over.
    void loadWithLot() {
        Current().lot = lot_;
        Current().workbook = tables_.workbook;
        win_->Load();
        win_->show();
        QApplication::processEvents();
    }
    void calibrateFirstOrder() {
        win_->cmbFitOrder()->setCurrentIndex(0);
        win_->cmdCalibrate()->click();
        ASSERT_NE(win_->run(), nullptr) << (rec.boxes.empty() ? "" : rec.boxes.back().text);
    }
    void shoot(const std::string& name) { ShootWindow(win_, name); }
    fs::path dir_, lib_;
    std::string workbookPath_;
    std::map<long, double> truth_;
    std::shared_ptr<cLot> lot_;
    WBLotTables tables_;
    frmCalibrate* win_ = nullptr;
};

TEST_F(CalibrateUi, CalibratesEveryViewAndFindsTheSimulatedBestFocus) {
    loadWithLot();
    ASSERT_TRUE(win_->lot());
    EXPECT_NE(win_->lot(), lot_);  // the window culls its own copy
    EXPECT_EQ(static_cast<size_t>(win_->pctFieldLayout()->sites().size()), truth_.size());
    calibrateFirstOrder();
    EXPECT_EQ(GetSetting(ApplicationTitle(), "PSFMcal", "PSFMCalibrationOrder", ""), "1");
    EXPECT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;

    // Each site's focus at zero shift is the focus it sees the field's tilt
    // take away. One point's focus error is noise / slope (3.3 nm); a site
    // has one point per field of its exposure set, so five standard errors
    // of the mean hold every site of a right calibration.
    const auto tpl = win_->currentTemplate();
    ASSERT_TRUE(tpl);
    long perSite = 0;
    lot_->forEachLive([&](cWafer&, cField& f, cSite& s, cPoint&) {
        if (s.NumberKey() == 1 && std::fabs(f.Dose - tpl->sites.Item(1)->Dose) < 1e-3) ++perSite;
    });
    ASSERT_GT(perSite, 3);
    const double tol = 5 * kNoise / kSlopeX / std::sqrt(static_cast<double>(perSite));
    for (const cSiteCal* s : tpl->sites) {
        ASSERT_TRUE(truth_.count(s->Number));
        EXPECT_NEAR(s->OffsetX, -truth_[s->Number], tol) << s->NumberKey;
    }

    // Every view of the calibration draws its chart, or says which exposure
    // set has no data.
    const std::map<std::string, std::string> labels = {{"kCalibration", "Best Focus for Site:"},
                                                       {"kOffset", "Mean Offset:"},
                                                       {"kSlope", "Mean Slope:"},
                                                       {"kResiduals", "Max/Min(X,Y):"}};
    for (int i = 0; i < win_->tabCalCurve()->count(); ++i) {
        win_->tabCalCurve()->setCurrentIndex(i);
        const std::string key = win_->calKey().toStdString();
        const std::string info = win_->lblCalInfo()->text().toStdString();
        if (win_->pctCalibrate()->graphic()) {
            EXPECT_TRUE(win_->pctCalibrate()->failureText().isEmpty()) << key << ": " << win_->pctCalibrate()->failureText().toStdString();
            EXPECT_TRUE(win_->viewTable().isArray()) << key;
            EXPECT_GE(win_->viewTable().rowUb(), 1) << key;
            if (labels.count(key)) {
                EXPECT_EQ(info.rfind(labels.at(key), 0), 0u) << key << ": " << info;
            }
        } else {
            EXPECT_EQ(info.rfind("No data for exposure: [Dose:", 0), 0u) << key << ": " << info;
        }
        shoot("cal_" + key);
    }
    // The slope view's mean is the simulated slope: one site's slope is good
    // to noise / (sqrt(n) sd(focus)), about 0.4 nm/um, the mean of nine to 0.15.
    win_->tabCalCurve()->setCurrentIndex(2);
    ASSERT_EQ(win_->calKey(), "kSlope");
    const std::regex mean(R"re(Mean Slope: X ([-0-9.]+)\s+Y ([-0-9.]+) nm/um)re");
    std::smatch m;
    const std::string slopeInfo = win_->lblCalInfo()->text().toStdString();
    ASSERT_TRUE(std::regex_search(slopeInfo, m, mean)) << slopeInfo;
    EXPECT_NEAR(std::stod(m[1]), kSlopeX, 1.0);
    EXPECT_NEAR(std::stod(m[2]), 140, 1.0);  // the simulator's default SlopeY
    // Saved with the map's own dataset sheet beside the view's.
    EXPECT_TRUE(win_->mnuSaveData());
    {
        auto book = Workbook::open(workbookPath_);
        ASSERT_TRUE(book);
        EXPECT_NE((*book)->sheet("CalSlopeOffset"), nullptr);
        EXPECT_NE((*book)->sheet("FocusCalSlope"), nullptr);
    }
    // The site picked on the layout is the one the calibration curve shows.
    win_->tabCalCurve()->setCurrentIndex(0);
    const long last = win_->pctFieldLayout()->sites().back().number;
    {
        const QPoint at = win_->pctFieldLayout()->sitePos(last);
        QMouseEvent press(QEvent::MouseButtonPress, QPointF(at), win_->pctFieldLayout()->mapToGlobal(QPointF(at)),
                          Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(win_->pctFieldLayout(), &press);
    }
    EXPECT_EQ(win_->txtSiteNumber()->text().toLong(), last);
    EXPECT_EQ(win_->lblCalInfo()->text().toStdString().rfind("Best Focus for Site: " + std::to_string(last), 0), 0u);

    // The pop-up culls: a box round the whole curve of the last site takes
    // all its points; the site drops out of the calibration, and Restore
    // brings it back.
    const int sites = tpl->sites.Count();
    win_->action("mnuPopUpSelect")->trigger();
    ChartView* chart = win_->pctCalibrate();
    DragOn(chart, QPoint(2, 2), QPoint(chart->width() - 2, chart->height() - 2));
    ASSERT_FALSE(chart->selectedValues().isEmpty());
    EXPECT_TRUE(win_->mnuPopUpCullAll());
    EXPECT_EQ(win_->currentTemplate()->sites.Count(), sites - 1);
    EXPECT_TRUE(rec.sawStatus("Points to be culled: " + std::to_string(perSite)));
    EXPECT_TRUE(win_->mnuPopUpCullRestore());
    EXPECT_TRUE(rec.sawStatus("Points Culled: " + std::to_string(perSite)));
    EXPECT_EQ(win_->currentTemplate()->sites.Count(), sites);
    EXPECT_EQ(lot_->TotalPoints(), win_->lot()->TotalPoints());  // the program's lot kept its points

    // Best focus: the row models' tilt is the simulated tilt along x (nm/mm
    // of focus is urad). Each site's focus holds about 1 nm of error, so a
    // row's slope over its sites some 10 mm apart is good to 0.1 urad.
    win_->tabWorkbench()->setCurrentIndex(1);
    win_->cmdCalculateBestFocusButton()->click();
    ASSERT_NE(win_->bestFocus(), nullptr) << (rec.boxes.empty() ? "" : rec.boxes.back().text);
    ASSERT_FALSE(win_->bestFocus()->sets.empty());
    const auto tplNow = win_->currentTemplate();
    for (const BestFocusSet& set : win_->bestFocus()->sets) {
        const Datam& rows = set.rows;
        const int tilt = Col(rows, "Tilt(urad)");
        ASSERT_GE(tilt, 0);
        bool found = false;
        for (int r = rows.rowLb() + 1; r <= rows.rowUb(); ++r)
            if (rows.get(r, rows.colLb()).toString() == "MEAN") {
                EXPECT_NEAR(rows.get(r, tilt).toDouble(), -kTiltX, 0.5);
                found = true;
            }
        EXPECT_TRUE(found);
    }
    EXPECT_EQ(tplNow->BestFocusSets.Count(), static_cast<int>(win_->bestFocus()->sets.size()));
    for (int i = 0; i < win_->tabBestFocus()->count(); ++i) {
        win_->tabBestFocus()->setCurrentIndex(i);
        const std::string key = win_->bestFocusKey().toStdString();
        ASSERT_NE(win_->pctBestFocus()->graphic(), nullptr) << key << ": " << win_->lblBFInfo()->text().toStdString();
        EXPECT_TRUE(win_->pctBestFocus()->failureText().isEmpty()) << key;
        shoot("bf_" + key);
    }
    win_->OptBFModel(0)->click();
    EXPECT_NE(win_->pctBestFocus()->graphic(), nullptr);
    shoot("bf_whole");

    // The data of the view shown in a grid; then into the lot's workbook.
    frmSpreadsheet* grid = win_->mnuViewData();
    ASSERT_NE(grid, nullptr);
    EXPECT_EQ(grid->table().rowUb(), win_->viewTable().rowUb());
    EXPECT_EQ(win_->viewSheet(), "BestFocusRaw");
    grid->Unload();
    EXPECT_TRUE(win_->mnuSaveData());
    auto book = Workbook::open(workbookPath_);
    ASSERT_TRUE(book);
    for (const char* sheet : {"Calibration", "BestFocusModelData", "Aberrations", "BestFocusRaw"})
        EXPECT_NE((*book)->sheet(sheet), nullptr) << sheet;
}

TEST_F(CalibrateUi, TemplateSavedRenamedAndDeletedThroughTheMaintenanceWindow) {
    loadWithLot();
    calibrateFirstOrder();
    frmCalibrate::setNameAsker([](const QString&, const QString&, const QString&) { return QString("PSFMtest"); });
    win_->action("mnuTemplateSaveAs")->trigger();
    EXPECT_TRUE(SawBoxWith(rec, "Template PSFMtest Saved."));
    EXPECT_TRUE(win_->templateSaved());
    {
        cTemplateLibrary lib(lib_.string());
        ASSERT_TRUE(lib.FileGet().ok());
        auto t = lib.GetTemplate("PSFMtest");
        ASSERT_TRUE(t);
        EXPECT_EQ(t->sites.Count(), win_->currentTemplate()->sites.Count());
    }

    win_->action("mnuTemplateMaintenance")->trigger();
    frmTemplateMaintenance* tm = nullptr;
    for (ZorvForm* f : Forms())
        if (auto* t = qobject_cast<frmTemplateMaintenance*>(f); t && !t->isUnloaded()) tm = t;
    ASSERT_NE(tm, nullptr);
    ASSERT_TRUE(tm->currentTemplate());
    EXPECT_EQ(tm->currentTemplate()->NameTemplate, "PSFMtest");
    tm->txtSaveAs()->setText("PSFMrenamed");
    EXPECT_TRUE(tm->cmdSaveAs());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    {
        cTemplateLibrary lib(lib_.string());
        ASSERT_TRUE(lib.FileGet().ok());
        EXPECT_TRUE(lib.GetTemplate("PSFMrenamed"));
        EXPECT_FALSE(lib.GetTemplate("PSFMtest"));
    }
    // The window's template is no longer the one in the library.
    EXPECT_FALSE(win_->templateSaved());

    tm = win_->mnuTemplateMaintenance();
    ASSERT_NE(tm, nullptr);
    tm->cmbTemplate()->setCurrentIndex(tm->cmbTemplate()->findText("PSFMrenamed"));
    ASSERT_EQ(tm->currentTemplate()->NameTemplate, "PSFMrenamed");
    rec.answers = {vbYes};
    EXPECT_TRUE(tm->cmdDeleteCalTemplate());
    cTemplateLibrary lib(lib_.string());
    ASSERT_TRUE(lib.FileGet().ok());
    EXPECT_FALSE(lib.GetTemplate("PSFMrenamed"));
    tm->Unload();
}

TEST_F(CalibrateUi, RefusedInputSaysWhyAndLeavesTheFilesAlone) {
    // No lot: the calibration has no data; the window stays.
    win_->Load();
    win_->show();
    const std::string bookBefore = FileBytes(workbookPath_);
    win_->cmdCalibrate()->click();
    EXPECT_TRUE(SawBoxWith(rec, "No data to calibrate"));
    EXPECT_EQ(win_->run(), nullptr);
    EXPECT_TRUE(win_->isVisible());
    shoot("no_lot");
    rec.boxes.clear();
    win_->action("mnuTemplateSave")->trigger();
    EXPECT_TRUE(SawBoxWith(rec, "A Calibration template does not exist."));

    // A lot, not calibrated: no best focus, nothing to view.
    win_->setLot(lot_, tables_.workbook);
    rec.boxes.clear();
    win_->tabWorkbench()->setCurrentIndex(1);
    win_->cmdCalculateBestFocusButton()->click();
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "You must first calibrate the data before moving to a ''Best Focus'' analysis.");
    win_->action("mnuViewData")->trigger();
    EXPECT_TRUE(SawBoxWith(rec, "Please calculate the Best Focus field before displaying."));
    win_->tabWorkbench()->setCurrentIndex(0);
    EXPECT_FALSE(win_->mnuSaveData());
    EXPECT_TRUE(SawBoxWith(rec, "Please display a graph"));
    EXPECT_EQ(FileBytes(workbookPath_), bookBefore);
    EXPECT_FALSE(fs::exists(lib_ / "ZORVpsfm.tpl"));

    // One site calibrated: the best focus wants them all.
    win_->tabWorkbench()->setCurrentIndex(0);
    win_->optSelectLayout(1)->setChecked(true);
    win_->txtSiteNumber()->setText("2");
    calibrateFirstOrder();
    EXPECT_EQ(win_->currentTemplate()->sites.Count(), static_cast<int>(win_->run()->exposureGroups.size()));
    // A site the calibration left out: its curve is missing from the only set.
    win_->txtSiteNumber()->setText("5");
    emit win_->txtSiteNumber()->editingFinished();
    EXPECT_EQ(win_->pctCalibrate()->graphic(), nullptr);
    EXPECT_EQ(win_->lblCalInfo()->text().toStdString(), "No data for exposure: [Dose:24.000 NA:0.000 PCi:0.000 PCo:0.000]");
    rec.boxes.clear();
    win_->cmdCalculateBestFocusButton()->click();
    std::string title;
    ASSERT_TRUE(SawBoxWith(rec, "A ''Best Focus'' analysis requires that ALL sites be calibrated.", &title));
    EXPECT_TRUE(SawBoxWith(rec, " Please first select the ''All sites'' option and calibrate the data."));
    EXPECT_EQ(title, "Calibration selection error...");
    EXPECT_EQ(win_->bestFocus(), nullptr);

    // A template name under two characters: refused, the library untouched.
    frmCalibrate::setNameAsker([](const QString&, const QString&, const QString&) { return QString("AB"); });
    ASSERT_TRUE(win_->mnuTemplateSaveAs());
    const std::string libBefore = FileBytes(lib_ / "ZORVpsfm.tpl");
    ASSERT_FALSE(libBefore.empty());
    frmCalibrate::setNameAsker([](const QString&, const QString&, const QString&) { return QString("X"); });
    rec.boxes.clear();
    EXPECT_FALSE(win_->mnuTemplateSaveAs());
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "Improper template name: X");
    EXPECT_EQ(FileBytes(lib_ / "ZORVpsfm.tpl"), libBefore);
    EXPECT_FALSE(fs::exists(lib_ / "ZORVpsfm.stp"));  // no save ran
}
