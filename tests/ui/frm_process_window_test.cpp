// The process window workbench as a user works it, on a simulated
// focus-exposure lot: targets whose limits are worked out here by hand, bad
// entries that change nothing, every analysis tab run and drawn, the best
// focus held against the simulator's truth, and a lot with nothing left after
// its culls.
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QKeyEvent>
#include <QMessageBox>
#include <QMouseEvent>
#include <QSlider>
#include <QLabel>
#include <QAction>
#include <QTabWidget>
#include <QTableWidget>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "app/settings.h"
#include "base/format.h"
#include "base/identity.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "procwin/pw_calculate.h"
#include "graphics/chart.h"
#include "ui/chart_view.h"
#include "ui/frm_process_window.h"
#include "ui/gui_reporter.h"
#include "ui_fixture.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

// truth.json's "bestFocus" array: dose -> focus of the turning point.
std::map<double, double> TruthBestFocus(const std::string& json) {
    std::map<double, double> out;
    const size_t at = json.find("\"bestFocus\"");
    if (at == std::string::npos) return out;
    const std::string block = json.substr(at, json.find(']', at) - at);
    const std::regex item(R"re("dose"\s*:\s*([-+0-9.eE]+)\s*,\s*"focus"\s*:\s*([-+0-9.eE]+))re");
    for (std::sregex_iterator i(block.begin(), block.end(), item), e; i != e; ++i)
        out[std::stod((*i)[1])] = std::stod((*i)[2]);
    return out;
}

std::string Setting(const char* key) { return GetSetting(ApplicationTitle(), "ProcessWindow", key, "<none>"); }

bool SawBoxWith(const RecordingReporter& rec, const std::string& text, std::string* title = nullptr) {
    for (const auto& b : rec.boxes)
        if (b.text.find(text) != std::string::npos) {
            if (title) *title = b.title;
            return true;
        }
    return false;
}

}  // namespace

class ProcessWindowUi : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        dir_ = FreshTestDir("pw-window");
        workbookPath_ = simulateFem("fem", 3, 7, lot_, tables_);
        ASSERT_FALSE(workbookPath_.empty());
        truth_ = TruthBestFocus(FileBytes(dir_ / "fem" / "truth.json"));
        ASSERT_TRUE(lot_ && tables_.workbook);
        fileBefore_ = FileBytes(workbookPath_);

        win_ = new frmProcessWindow;
        win_->resize(1280, 860);
        win_->show();
        QApplication::processEvents();
    }
    void TearDown() override {
        if (win_) win_->Unload();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        Current() = CurrentData();
        Workbooks::CloseAll();
        fs::remove_all(dir_);
        UiTest::TearDown();
    }
    // Types into a box and leaves it, as the hand does.
    static void enter(QLineEdit* box, const QString& text) {
        box->setText(text);
        emit box->editingFinished();
        QApplication::processEvents();
    }
    // A simulated focus-exposure lot of `sites` sites a field, imported to
    // <name>.xlsx and loaded; answers the workbook's path ("" on failure).
    std::string simulateFem(const std::string& name, int sites, uint64_t seed, std::shared_ptr<cLot>& lot,
                            WBLotTables& tables) {
        SimulateOptions o;
        o.outDir = (dir_ / name).string();
        o.sites = sites;
        o.noise = 0.2;
        o.outliers = 0;
        o.failed = 0;
        o.seed = seed;
        auto sim = Simulate("fem", o);
        EXPECT_TRUE(sim.ok()) << sim.failure().message();
        if (!sim) return {};
        auto req = GetDataFile((fs::path(o.outDir) / sim->file).string());
        EXPECT_TRUE(req.ok()) << req.failure().message();
        if (!req) return {};
        req->workbookPath = (dir_ / (name + ".xlsx")).string();
        auto wb = ImportCall(*req);
        EXPECT_TRUE(wb.ok()) << wb.failure().message();
        if (!wb) return {};
        LoadOptions lo;
        lo.quiet = true;
        EXPECT_TRUE(GetExcelWBLot(*wb, lo, lot, &tables).ok());
        return *wb;
    }
    // The window with a lot and a target of about 90 nm, the size the
    // simulator prints at 24 mJ/cm2 and best focus.
    void loadWithTarget() {
        Current().lot = lot_;
        Current().workbook = tables_.workbook;
        win_->Load();
        enter(win_->txtPWTarget(0), "0.09");
    }
    // Live points of the window's lot whose site lies in a box (mm) or
    // within a radius (mm) of the wafer centre, counted here from the tree.
    long livePoints(const std::function<bool(double, double)>& in) const {
        long n = 0;
        win_->lot()->forEachLive([&](cWafer&, cField&, cSite& s, cPoint&) {
            if (in(s.LocationXabs / 1000.0, s.LocationYabs / 1000.0)) ++n;
        });
        return n;
    }
    void shoot(const std::string& name) { ShootWindow(win_, name); }

    fs::path dir_;
    std::string workbookPath_, fileBefore_;
    std::shared_ptr<cLot> lot_;
    WBLotTables tables_;
    std::map<double, double> truth_;
    frmProcessWindow* win_ = nullptr;
};

TEST_F(ProcessWindowUi, SettingsStartAtTheirDefaultsAndFollowTheControls) {
    EXPECT_EQ(win_->objectName(), "frmProcessWindow");
    EXPECT_EQ(win_->txtPWTargetRange()->text(), "10.0");
    EXPECT_TRUE(win_->chkPWstatistics()->isChecked());
    EXPECT_TRUE(win_->chkPWGraphics()->isChecked());
    EXPECT_TRUE(win_->chkShowLimits()->isChecked());
    EXPECT_EQ(win_->cmbPWprecision()->currentText(), "10");
    // Nothing is written until something changes.
    EXPECT_EQ(Setting("chkShowLimits"), "<none>");
    win_->chkShowLimits()->setChecked(false);
    EXPECT_EQ(Setting("chkShowLimits"), "0");
    enter(win_->txtPWTargetRange(), "20");
    EXPECT_EQ(Setting("PWtargetRange"), "20.0");

    // A window made later starts from what was saved.
    frmProcessWindow other;
    EXPECT_FALSE(other.chkShowLimits()->isChecked());
    EXPECT_EQ(other.txtPWTargetRange()->text(), "20.0");
    // Without a lot the analysis tabs are there but cannot be chosen.
    EXPECT_FALSE(other.tabPWCurve()->isTabEnabled(other.tabIndex(kDose)));
}

TEST_F(ProcessWindowUi, TargetsSetMaxAndMinByTheRange) {
    win_->setLot(lot_, tables_.workbook.get());
    ASSERT_GE(win_->variableCount(), 1);
    EXPECT_EQ(win_->chkPWvar(0)->text(), "MEAS_1");
    EXPECT_EQ(win_->chkPWvar(0)->objectName(), "chkPWvar0");
    QLineEdit* target = win_->txtPWTarget(0);
    QLineEdit* mx = win_->txtPWmax(0);
    QLineEdit* mn = win_->txtPWmin(0);

    // 10 % of 0.25 is 0.025.
    enter(target, "0.25");
    EXPECT_EQ(target->text(), "0.250");
    EXPECT_EQ(mx->text(), "0.275");
    EXPECT_EQ(mn->text(), "0.225");
    EXPECT_TRUE(win_->chkPWvar(0)->isChecked());
    EXPECT_EQ(Setting("chkPWvarNom0"), "MEAS_1");
    EXPECT_EQ(Setting("txtPWTarget0"), "0.250");

    // 95 % is held at 90 %: 0.25 +- 0.225.
    enter(win_->txtPWTargetRange(), "95");
    EXPECT_EQ(win_->txtPWTargetRange()->text(), "90.0");
    EXPECT_EQ(Setting("PWtargetRange"), "90.0");
    EXPECT_EQ(mx->text(), "0.475");
    EXPECT_EQ(mn->text(), "0.025");

    // A target of 0 has no range: max and min stay.
    enter(target, "0");
    EXPECT_EQ(target->text(), "0.000");
    EXPECT_EQ(mx->text(), "0.475");
    EXPECT_EQ(mn->text(), "0.025");

    // Max and min are free once typed; four decimals kept, a fifth rounded.
    enter(mx, "0.12346");
    EXPECT_EQ(mx->text(), "0.1235");

    // Text that is not a number: the box, and nothing changed.
    rec.boxes.clear();
    enter(target, "abc");
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].title, "Zorv Setup Error");
    EXPECT_EQ(target->text(), "0.000");
    EXPECT_EQ(mx->text(), "0.1235");
    EXPECT_EQ(mn->text(), "0.025");
    EXPECT_EQ(Setting("txtPWTarget0"), "0.000");
    enter(win_->txtPWTargetRange(), "ten");
    ASSERT_EQ(rec.boxes.size(), 2u);
    EXPECT_EQ(rec.boxes[1].title, "Zorv Setup Error");
    EXPECT_EQ(win_->txtPWTargetRange()->text(), "90.0");
    EXPECT_EQ(Setting("PWtargetRange"), "90.0");

    // A max below the min warns and the run goes on with them as typed.
    enter(mx, "0.1");
    enter(mn, "0.2");
    rec.boxes.clear();
    const PWSetup s = win_->LoadPWanalysis(kDose);
    EXPECT_TRUE(SawBoxWith(rec, "Warning: Maximum value for 'MEAS_1' is LESS than it's minimum value."));
    ASSERT_EQ(s.variables.rowUb(), 1);
    EXPECT_DOUBLE_EQ(s.variables(1, 3).toDouble(), 0.1);
    EXPECT_DOUBLE_EQ(s.variables(1, 4).toDouble(), 0.2);
    EXPECT_EQ(s.focusText, "ALL");
    EXPECT_EQ(s.siteListText, "All Sites");

    // Two doses and one site chosen by hand; choosing "ALL" again takes the rest back.
    auto click = [](QListWidget* l, int row) {
        l->item(row)->setSelected(!l->item(row)->isSelected());
        emit l->itemClicked(l->item(row));
    };
    QListWidget* doses = win_->lstPWDose();
    ASSERT_EQ(doses->item(1)->text(), "18");
    ASSERT_EQ(doses->item(2)->text(), "19.5");
    click(doses, 1);
    click(doses, 2);
    EXPECT_FALSE(doses->item(0)->isSelected());
    click(win_->lstPWsites(), 2);
    enter(mx, "0.3");  // no warning this time
    rec.boxes.clear();
    PWSetup chosen = win_->LoadPWanalysis(kFocus);
    EXPECT_TRUE(rec.boxes.empty());
    EXPECT_EQ(chosen.doseText, "18,19.5");
    ASSERT_EQ(chosen.doseSelection.rowUb(), 2);
    EXPECT_DOUBLE_EQ(chosen.doseSelection(2, 1).toDouble(), 19.5);
    EXPECT_FLOAT_EQ(chosen.doseLow, 18);
    EXPECT_FLOAT_EQ(chosen.doseHigh, 19.5);
    EXPECT_EQ(chosen.siteListText, "2");
    click(doses, 0);
    EXPECT_FALSE(doses->item(1)->isSelected());
    EXPECT_EQ(win_->LoadPWanalysis(kFocus).doseText, "ALL");

    // With "Keep variable settings" the next lot's row of the same feature
    // takes the saved target back, and its limits from the range.
    win_->chkPWvarSettings()->setChecked(true);
    enter(target, "0.2");
    frmProcessWindow next;
    next.setLot(lot_, nullptr);
    EXPECT_EQ(next.txtPWTarget(0)->text(), "0.200");
    EXPECT_EQ(next.txtPWmax(0)->text(), "0.380");  // 0.2 +- 90 %
    EXPECT_EQ(next.txtPWmin(0)->text(), "0.020");
    EXPECT_TRUE(next.chkPWvar(0)->isChecked());
}

TEST_F(ProcessWindowUi, EveryTabRunsAndDrawsAndFocusMeetsTheTruth) {
    Current().lot = lot_;
    Current().workbook = tables_.workbook;
    win_->Load();
    ASSERT_TRUE(win_->lot());
    ASSERT_NE(win_->lot(), lot_);  // its own clone
    // About 90 nm at 24 mJ/cm2 and best focus.
    enter(win_->txtPWTarget(0), "0.09");
    EXPECT_EQ(win_->txtPWmax(0)->text(), "0.099");
    EXPECT_EQ(win_->txtPWmin(0)->text(), "0.081");
    win_->tabPWCurve()->setCurrentIndex(0);
    shoot("pw_setup");

    ASSERT_GE(win_->tabIndex(kDoseBF), 1);  // the lot has many doses
    const char* keys[] = {kDose, kFocus, kDoseBF, kPW, kIsoFocal};
    for (const char* key : keys) {
        rec.boxes.clear();
        // The tab click runs it.
        win_->tabPWCurve()->setCurrentIndex(win_->tabIndex(key));
        QApplication::processEvents();
        const PWReport* r = win_->report(key);
        ASSERT_TRUE(r) << key << ": " << (rec.boxes.empty() ? "" : rec.boxes[0].text);
        ChartView* v = win_->chartView(key);
        ASSERT_TRUE(v->graphic()) << key;
        v->repaint();
        EXPECT_TRUE(v->failureText().isEmpty()) << key << ": " << v->failureText().toStdString();
        EXPECT_GT(win_->reportTable(key)->rowCount(), 0) << key;
        EXPECT_FALSE(win_->resultText(key)->toPlainText().isEmpty()) << key;
        EXPECT_TRUE(rec.boxes.empty()) << key << ": " << rec.boxes[0].text;
        shoot(std::string("pw_") + key);
    }
    EXPECT_TRUE(rec.sawStatus("Begin PW Analysis: MEAS_1"));

    // The best focus of each site, against the turning point of the model at
    // the dose found.
    const PWReport* focus = win_->report(kFocus);
    ASSERT_TRUE(focus);
    ASSERT_FALSE(focus->best.empty());
    ASSERT_FALSE(truth_.empty());
    int compared = 0;
    for (const PWSiteBest& b : focus->best) {
        auto it = truth_.lower_bound(b.bestDose - 1e-6);
        if (it == truth_.end() || std::fabs(it->first - b.bestDose) > 1e-3) continue;
        EXPECT_NEAR(b.bestFocus, it->second, 0.03) << "site " << b.site << " dose " << b.bestDose;
        ++compared;
    }
    EXPECT_GT(compared, 0);

    // The result sheets went to the lot's workbook.
    const PWReport* dose = win_->report(kDose);
    ASSERT_FALSE(dose->sheets.empty());
    for (const std::string& sheet : dose->sheets) EXPECT_TRUE(tables_.workbook->sheet(sheet)) << sheet;
}

TEST_F(ProcessWindowUi, NothingLeftAfterCullingIsReported) {
    auto culled = lot_->clone(true);
    culled->forEachLiveSite([](cWafer&, cField&, cSite& s) { s.setCull(true); });
    rec.boxes.clear();
    win_->setLot(culled, tables_.workbook.get());
    EXPECT_FALSE(win_->runAnalysis(kDose));
    EXPECT_EQ(rec.boxes.size(), 1u);
    EXPECT_TRUE(SawBoxWith(rec, "No data points after culling."));
    EXPECT_TRUE(SawBoxWith(rec, "Please check data setup & culling"));
    EXPECT_FALSE(win_->report(kDose));
    EXPECT_FALSE(win_->chartView(kDose)->graphic());

    shoot("pw_culled");

    // A lot with data but no variable checked: the analysis' own message.
    win_->setLot(lot_, tables_.workbook.get());
    rec.boxes.clear();
    EXPECT_FALSE(win_->runAnalysis(kPW));
    EXPECT_TRUE(SawBoxWith(rec, "No process variables have been selected"));
    EXPECT_FALSE(win_->chartView(kPW)->graphic());

    // No lot at all says the same; an unknown key is refused.
    win_->setLot(nullptr, nullptr);
    shoot("pw_nolot");
    rec.boxes.clear();
    EXPECT_FALSE(win_->runAnalysis(kFocus));
    EXPECT_TRUE(SawBoxWith(rec, "No data points after culling."));
    EXPECT_FALSE(win_->runAnalysis("kSomething"));
    EXPECT_TRUE(FileBytes(workbookPath_) == fileBefore_);
}

TEST_F(ProcessWindowUi, SlidersAndScanPickTheWindowFigures) {
    loadWithTarget();
    win_->tabPWCurve()->setCurrentIndex(win_->tabIndex(kPW));
    QApplication::processEvents();
    const PWReport* r = win_->report(kPW);
    ASSERT_TRUE(r && r->haveWindow);
    ChartView* v = win_->chartView(kPW);

    // The rectangles, read straight from the ProcessWindowSpace table.
    const Datam& pws = r->processWindowSpace;
    double lowDose = 1e300, highDoF = -1;
    int rects = 0;
    for (int i = 1; i <= pws.rowUb(); ++i) {
        if (pws(i, 2).isEmpty() || pws(i, 10).isEmpty()) continue;
        ++rects;
        lowDose = std::min(lowDose, pws(i, 2).toDouble());
        highDoF = std::max(highDoF, pws(i, 10).toDouble());
    }
    ASSERT_GT(rects, 1);
    // It starts at the best rectangle.
    ASSERT_TRUE(win_->shownFigure());
    EXPECT_NEAR(win_->shownFigure()->Ydose, r->rectDose, 1e-9);

    // Dose slider to its low end: the rectangle of the lowest dose, its DoF
    // and latitude in the other boxes, and its outline and title on the chart.
    win_->sldPW(0)->setValue(0);
    const clsPWobject* f = win_->shownFigure();
    ASSERT_TRUE(f);
    EXPECT_NEAR(f->Ydose, lowDose, 1e-9);
    EXPECT_EQ(win_->txtPW(0)->text(), QString::fromStdString(Format(lowDose, "#0.00")));
    EXPECT_EQ(win_->txtPW(1)->text(), QString::fromStdString(Format(f->DoF, "#0.000")));
    EXPECT_EQ(win_->txtPW(2)->text(), QString::fromStdString(Format(f->EL, "#0.00")));
    const cGraphic* g = v->graphic();
    const cSeries* outline = g->Series.Item(g->Series.Count());
    ASSERT_TRUE(outline && !outline->Hide);
    EXPECT_EQ(outline->PlotData(0, 1).toString(), "PWrectX");
    EXPECT_DOUBLE_EQ(outline->PlotData(2, 1).toDouble() - outline->PlotData(1, 1).toDouble(), f->X1 - f->Xo);
    EXPECT_NEAR(f->X1 - f->Xo, f->DoF, 1e-9);
    EXPECT_NE(g->TitleObj.TitleString.find("Rectangle  Focus:"), std::string::npos);
    v->repaint();
    EXPECT_TRUE(v->failureText().isEmpty());

    // DoF slider to its top: the widest rectangle; the dose slider follows.
    win_->sldPW(1)->setValue(1000);
    EXPECT_NEAR(win_->shownFigure()->DoF, highDoF, 1e-9);
    EXPECT_GT(win_->sldPW(0)->value(), 0);
    shoot("pw_kPW_rectangle");

    // Ellipses: the centre and radii of the table's right block.
    win_->setFigureFormat(1);
    ASSERT_TRUE(win_->shownFigure());
    win_->sldPW(2)->setValue(1000);
    f = win_->shownFigure();
    bool inTable = false;
    for (int i = 1; i <= pws.rowUb(); ++i)
        if (!pws(i, 14).isEmpty() && std::fabs(pws(i, 14).toDouble() - f->Xo) < 1e-9 &&
            std::fabs(pws(i, 15).toDouble() - f->Yo) < 1e-9 && std::fabs(2 * pws(i, 16).toDouble() - f->DoF) < 1e-9)
            inTable = true;
    EXPECT_TRUE(inTable);
    g = v->graphic();
    outline = g->Series.Item(g->Series.Count());
    EXPECT_EQ(outline->PlotData.rowUb(), 37);
    EXPECT_EQ(outline->PlotData(0, 1).toString(), "PWelspX");
    EXPECT_NE(g->TitleObj.TitleString.find("Ellipse  Focus:"), std::string::npos);
    shoot("pw_kPW_ellipse");

    // Off: the figure goes and the sliders say why.
    win_->setFigureFormat(2);
    EXPECT_FALSE(win_->shownFigure());
    win_->setFigureFormat(0);
    win_->setFigureFormat(2);
    rec.statuses.clear();
    emit win_->sldPW(0)->valueChanged(5);
    EXPECT_TRUE(rec.sawStatus("Rectange/Ellipse display formats turned off."));

    // The scan steps through the rectangles within the dose axis, in order.
    win_->setFigureFormat(0);
    const int n = win_->cmdPWdoScan();
    ASSERT_GT(n, 1);
    const Datam& scan = win_->scanTable();
    EXPECT_EQ(scan(0, 1).toString(), "Figure");
    EXPECT_EQ(scan(0, 2).toString(), "Keys");
    EXPECT_EQ(scan(0, 3).toString(), "SeriesNumber");
    EXPECT_EQ(win_->shownFigure()->Key, scan(1, 2).toString());
    win_->cmdPWadjMinus();  // already first
    EXPECT_EQ(win_->scanPosition(), 1);
    win_->cmdPWadjPlus();
    EXPECT_EQ(win_->scanPosition(), 2);
    EXPECT_EQ(win_->shownFigure()->Key, scan(2, 2).toString());
    const cAxis* y = g->Axes.Item("Y");
    ASSERT_TRUE(y);
    for (int i = 1; i <= scan.rowUb(); ++i) {
        // Each names a rectangle curve of the chart whose dose is on the axis.
        const cSeries* s = g->Series.Item(static_cast<int>(scan(i, 3).toLong()));
        ASSERT_TRUE(s && s->PlotData.isArray()) << i;
        EXPECT_EQ(s->PlotData(0, 1).toString(), "Rectangle Focus") << i;
        const clsPWobject* fig = win_->figures().Item(scan(i, 2).toString());
        ASSERT_TRUE(fig) << i;
        EXPECT_GE(fig->Ydose, std::min(y->LowValue, y->HighValue) - 1e-4) << i;
        EXPECT_LE(fig->Ydose, std::max(y->LowValue, y->HighValue) + 1e-4) << i;
    }

    // A slider leaves the scan; a step starts it again from the first.
    win_->sldPW(0)->setValue(500);
    EXPECT_TRUE(win_->lblPWfigure()->text().startsWith("Rectangle")) << win_->lblPWfigure()->text().toStdString();
    win_->cmdPWadjPlus();
    EXPECT_EQ(win_->scanPosition(), 1);

    // A narrower limit, re-run: the window cannot grow.
    const double dof = r->rectDoF;
    enter(win_->txtPWmax(0), "0.094");
    enter(win_->txtPWmin(0), "0.086");
    win_->tabPWCurve()->setCurrentIndex(win_->tabIndex(kDose));
    QApplication::processEvents();
    win_->tabPWCurve()->setCurrentIndex(win_->tabIndex(kPW));
    QApplication::processEvents();
    r = win_->report(kPW);
    ASSERT_TRUE(r && r->haveWindow);
    EXPECT_LE(r->rectDoF, dof + 1e-9);
    EXPECT_EQ(win_->figureFormat(), 0);
    EXPECT_TRUE(win_->shownFigure());
}

TEST_F(ProcessWindowUi, CullsByRadiusBoxAndDataStayWithTheWindowsLot) {
    loadWithTarget();
    const long all = win_->lot()->TotalPoints(nullptr, true);
    win_->tabPWCurve()->setCurrentIndex(win_->tabIndex("kDataSelection"));
    QApplication::processEvents();
    EXPECT_EQ(win_->lblPWselection()->text(), QString("Raw Data ... :  %1 Points").arg(all));
    ChartView* map = win_->selectionView();
    ASSERT_TRUE(map->graphic());

    // By radius: what is left is what lies within it, counted here.
    const double radius = 60;
    const long inside = livePoints([&](double x, double y) { return std::hypot(x, y) <= radius; });
    ASSERT_GT(inside, 0);
    ASSERT_LT(inside, all);
    win_->txtCullRadius()->setText("60");
    ASSERT_TRUE(win_->cmdCullRadius());
    EXPECT_EQ(win_->lot()->TotalPoints(nullptr, true), inside);
    EXPECT_EQ(win_->lblPWselection()->text(), QString("Selected Data ... :  %1 Points").arg(inside));
    shoot("pw_selection_radius");

    // The culls hold through an analysis, which resets site culls of its own.
    win_->tabPWCurve()->setCurrentIndex(win_->tabIndex(kDose));
    QApplication::processEvents();
    ASSERT_TRUE(win_->report(kDose));
    EXPECT_LE(win_->report(kDose)->points, inside);
    EXPECT_EQ(win_->lot()->TotalPoints(nullptr, true), inside);

    // Restore all, then a box from the pop-up menu.
    win_->mnuPopUpCullReset();
    EXPECT_EQ(win_->lot()->TotalPoints(nullptr, true), all);
    win_->tabPWCurve()->setCurrentIndex(win_->tabIndex("kDataSelection"));
    QApplication::processEvents();
    DragOn(map, QPoint(map->width() * 30 / 100, map->height() * 25 / 100),
         QPoint(map->width() * 60 / 100, map->height() * 65 / 100));
    const QRectF box = map->selectedValues();
    ASSERT_FALSE(box.isNull());
    auto inBox = [&](double x, double y) { return x >= box.left() && x <= box.right() && y >= box.top() && y <= box.bottom(); };
    const long boxed = livePoints(inBox);
    ASSERT_GT(boxed, 0);
    QAction* remove = win_->findChild<QAction*>("mnuPopUpCullRemove");
    ASSERT_TRUE(remove);
    remove->trigger();
    EXPECT_EQ(win_->lot()->TotalPoints(nullptr, true), all - boxed);
    EXPECT_EQ(livePoints(inBox), 0);
    shoot("pw_selection_box");

    // A wafer: the menu asks for one first, then takes its points.
    rec.boxes.clear();
    win_->mnuPopUpCullWafer();
    EXPECT_TRUE(SawBoxWith(rec, "Choose a wafer in the list to cull it."));
    win_->mnuPopUpCullReset();
    win_->cmbPWSelWafer()->setCurrentIndex(1);
    const std::string wafer = win_->cmbPWSelWafer()->currentText().toStdString();
    long onWafer = 0;
    win_->lot()->forEachLive([&](cWafer& w, cField&, cSite&, cPoint&) { onWafer += w.KeyName == wafer; });
    win_->mnuPopUpCullWafer();
    EXPECT_EQ(win_->lot()->TotalPoints(nullptr, true), all - onWafer);
    win_->mnuPopUpCullReset();
    EXPECT_EQ(win_->lot()->TotalPoints(nullptr, true), all);

    // The data cull: the points outside max and min, counted here, are the
    // ones the run says it removed.
    const int feature = win_->lot()->GetPlotFeature("MEAS_1");
    std::vector<double> values;
    win_->lot()->forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        values.push_back(*p.FeatureSlot(feature, win_->lot()->PLotDataType) / 1000.0);
    });
    std::sort(values.begin(), values.end());
    // Limits at the quartiles, on three decimals as typed.
    const double hi = std::round(values[values.size() * 3 / 4] * 1000) / 1000;
    const double lo = std::round(values[values.size() / 4] * 1000) / 1000;
    const long outside = std::count_if(values.begin(), values.end(), [&](double v) { return v > hi || v < lo; });
    ASSERT_GT(outside, 0);
    win_->cmbPWDataCull()->setCurrentIndex(win_->cmbPWDataCull()->findText("MEAS_1"));
    enter(win_->txtPWDataMax(), QString::number(hi));
    enter(win_->txtPWDataMin(), QString::number(lo));
    EXPECT_TRUE(win_->runAnalysis(kDose));
    EXPECT_EQ(win_->report(kDose)->removed, outside);
    EXPECT_EQ(win_->lblPWcull()->text(), QString("Removed: %1").arg(outside));
    // The data cull belongs to the run: the window's lot keeps every point.
    EXPECT_EQ(win_->lot()->TotalPoints(nullptr, true), all);

    // Bad entries: the box, and the fields back to what they were.
    rec.boxes.clear();
    enter(win_->txtPWDataMax(), "lots");
    EXPECT_TRUE(SawBoxWith(rec, "Entered value of 'lots' is not valid."));
    EXPECT_EQ(win_->txtPWDataMax()->text(), "0");
    win_->txtCullRadius()->setText("-");
    EXPECT_FALSE(win_->cmdCullRadius());
    EXPECT_EQ(win_->lot()->TotalPoints(nullptr, true), all);
    EXPECT_TRUE(FileBytes(workbookPath_) == fileBefore_);

    // The distribution analysis opens with its two graphs drawn.
    QWidget* sigma = win_->cmdSigmaTest();
    ASSERT_TRUE(sigma);
    for (const char* name : {"chtRangeCull", "chtSigmaCull"}) {
        auto* cv = sigma->findChild<ChartView*>(name);
        ASSERT_TRUE(cv && cv->graphic()) << name;
        EXPECT_TRUE(cv->render()) << name << ": " << cv->failureText().toStdString();
    }
    sigma->close();
}

TEST_F(ProcessWindowUi, AberrationsFitTheBestFocusAcrossTheField) {
    // Nine sites, three to a row: enough for a line through each row.
    std::shared_ptr<cLot> lot9;
    WBLotTables tables9;
    ASSERT_FALSE(simulateFem("fem9", 9, 11, lot9, tables9).empty());
    win_->setLot(lot9, tables9.workbook.get());
    enter(win_->txtPWTarget(0), "0.09");
    win_->tabPWCurve()->setCurrentIndex(win_->tabIndex("kAberrations"));
    QApplication::processEvents();
    // Reached straight away, it runs the focus response first.
    const PWReport* focus = win_->report(kFocus);
    ASSERT_TRUE(focus);
    const Datam& rows = win_->aberrationRows();
    const Datam& cols = win_->aberrationColumns();
    ASSERT_TRUE(rows.isArray() || cols.isArray());
    const Datam& t = rows.isArray() && rows.rowUb() >= 1 ? rows : cols;
    EXPECT_EQ(t(0, 8).toString(), "IFDresidsualsSE(um)");
    EXPECT_EQ(t(0, 4).toString(), "Tilt(urad)");
    ASSERT_GE(t.rowUb(), 1);
    // The first line's tilt by hand: the slope of best focus along it by
    // least squares of a parabola (the model has a curvature term).
    const bool byRows = &t == &rows;
    const double at = t(1, 1).toDouble();
    std::vector<double> s, f;
    for (const PWSiteBest& b : focus->best)
        if (b.feature == focus->best.front().feature && std::fabs(std::round((byRows ? b.y : b.x) * 10) / 10 - at) <= 0.5)
            s.push_back(byRows ? b.x : b.y), f.push_back(b.bestFocus);
    ASSERT_GE(s.size(), 3u);
    // Normal equations of f = a + b s + c s^2, solved by Cramer's rule.
    double S[5] = {}, T[3] = {};
    for (size_t i = 0; i < s.size(); ++i)
        for (int k = 0; k < 5; ++k) {
            S[k] += std::pow(s[i], k);
            if (k < 3) T[k] += f[i] * std::pow(s[i], k);
        }
    auto det = [](double a, double b, double c, double d, double e, double f2, double g, double h, double i) {
        return a * (e * i - f2 * h) - b * (d * i - f2 * g) + c * (d * h - e * g);
    };
    const double D = det(S[0], S[1], S[2], S[1], S[2], S[3], S[2], S[3], S[4]);
    const double Db = det(S[0], T[0], S[2], S[1], T[1], S[3], S[2], T[2], S[4]);
    ASSERT_GT(std::fabs(D), 1e-12);
    EXPECT_NEAR(t(1, 4).toDouble(), Db / D * 1000, 1e-3 + 1e-4 * std::fabs(Db / D * 1000));
    ChartView* v = win_->findChild<ChartView*>("chtAberrations");
    ASSERT_TRUE(v && v->graphic());
    v->repaint();
    EXPECT_TRUE(v->failureText().isEmpty());
    shoot("pw_aberrations");

    // The field signature removed first: its model sheet goes with the run.
    EXPECT_EQ(win_->cmbFieldTerms()->currentIndex(), 2);  // no choice yet: all terms
    win_->chkFValidate()->setChecked(true);
    win_->cmbFieldTerms()->setCurrentIndex(1);
    EXPECT_EQ(GetSetting(ApplicationTitle(), "PWSpatialModel", "chkFValidate", ""), "1");
    EXPECT_EQ(GetSetting(ApplicationTitle(), "PWSpatialModel", "cmbFieldTerms", ""), "1");
    const PWSetup removal = win_->LoadPWanalysis(kDose);
    EXPECT_EQ(removal.fieldModelRemoval, 1);
    EXPECT_EQ(removal.fieldCoefs, "11100");
    EXPECT_EQ(removal.waferModelRemoval, 0);
    ASSERT_TRUE(win_->runAnalysis(kDose));
    bool sheet = false;
    for (const std::string& n : win_->report(kDose)->sheets) sheet = sheet || n.rfind("FieldPWModel_", 0) == 0;
    EXPECT_TRUE(sheet);
    win_->chkFValidate()->setChecked(false);
}

TEST_F(ProcessWindowUi, ConfidenceIntervalsStandBesideTheWindow) {
    loadWithTarget();
    win_->chkPWconfidence()->setChecked(true);
    ASSERT_TRUE(win_->runAnalysis(kPW));
    const PWReport* r = win_->report(kPW);
    ASSERT_TRUE(r && r->haveWindow);
    const auto& iv = win_->intervals();
    ASSERT_FALSE(iv.empty());
    bool dof = false;
    bool iso = false;
    for (const PWInterval& i : iv) {
        EXPECT_LE(i.low, i.high) << i.name;
        EXPECT_GT(i.samples, 0) << i.name;
        iso = iso || i.name == "IsoFocal_MEAS_1";
        if (i.name != "RectangleDoF") continue;
        dof = true;
        // The surfaces pooled over the sites give about the window the run
        // found site by site.
        EXPECT_NEAR(i.estimate, r->rectDoF, 0.1 * r->rectDoF);
    }
    EXPECT_TRUE(dof);
    EXPECT_TRUE(iso);
    EXPECT_TRUE(win_->resultText(kPW)->toPlainText().contains("Bootstrap intervals (95%"));
}

TEST_F(ProcessWindowUi, EscStopsTheWindowRunAndTheWindowGoesOn) {
    // The real reporter: the status line runs events, so the key gets in.
    GuiReporter gui;
    gui.install();
    loadWithTarget();
    QCoreApplication::postEvent(win_, new QKeyEvent(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier));
    QString boxText;
    OnNextModal([&](QWidget* w) {
        if (auto* box = qobject_cast<QMessageBox*>(w)) {
            boxText = box->text();
            box->accept();
        }
    });
    // Stopped, it says so, or shows what it had with a note that it is partial.
    if (win_->runAnalysis(kPW)) {
        ASSERT_TRUE(win_->report(kPW));
        EXPECT_TRUE(win_->report(kPW)->escaped);
    } else {
        EXPECT_NE(boxText.indexOf("Analysis stopped (Esc)."), -1) << boxText.toStdString();
    }
    EXPECT_TRUE(win_->tabPWCurve()->isEnabled());
    // Without Esc the same run finds its window.
    EXPECT_TRUE(win_->runAnalysis(kPW));
    ASSERT_TRUE(win_->report(kPW));
    EXPECT_TRUE(win_->report(kPW)->haveWindow);
    gui.uninstall();
    SetReporter(&rec);
}
