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
#include <QTabWidget>
#include <QTableWidget>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "app/settings.h"
#include "base/identity.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "procwin/pw_calculate.h"
#include "ui/chart_view.h"
#include "ui/frm_process_window.h"
#include "ui_fixture.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

std::string ReadText(const fs::path& p) {
    std::ifstream in(p);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

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
        dir_ = fs::path(ZORV_TEST_TMP) / ("pw-window-" + std::to_string(getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        SimulateOptions o;
        o.outDir = (dir_ / "fem").string();
        o.sites = 3;
        o.noise = 0.2;
        o.outliers = 0;
        o.failed = 0;
        o.seed = 7;
        auto sim = Simulate("fem", o);
        ASSERT_TRUE(sim.ok()) << sim.failure().message();
        truth_ = TruthBestFocus(ReadText(fs::path(o.outDir) / "truth.json"));
        auto req = GetDataFile((fs::path(o.outDir) / sim->file).string());
        ASSERT_TRUE(req.ok()) << req.failure().message();
        req->workbookPath = (dir_ / "fem.xlsx").string();
        auto wb = ImportCall(*req);
        ASSERT_TRUE(wb.ok()) << wb.failure().message();
        workbookPath_ = *wb;
        LoadOptions lo;
        lo.quiet = true;
        ASSERT_TRUE(GetExcelWBLot(workbookPath_, lo, lot_, &tables_).ok());
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
    void shoot(const std::string& name) {
        const fs::path shots = "/tmp/hC/shots";
        if (!fs::exists(shots.parent_path())) return;
        fs::create_directories(shots);
        QApplication::processEvents();
        win_->grab().save(QString::fromStdString((shots / (name + ".png")).string()));
    }

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
