// The daily monitor window driven as its user does: a template made from a
// simulated data workbook, template and data chosen with the browse buttons,
// runs that each add a point to the trend (counted in the drawn chart and in
// the template's trend sheet), the password of the manual entry, a batch list
// run from the window, and a workbook that is no template.
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QRadioButton>
#include <QPushButton>
#include <QTimer>
#include <QTabWidget>
#include <QTableWidget>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "app/settings.h"
#include "graphics/chart.h"
#include "graphics/recording_surface.h"
#include "import/import.h"
#include "import/simulate.h"
#include "monitor/dm_options.h"
#include "monitor/dm_run.h"
#include "monitor/dm_trend.h"
#include "ui/dma_notice.h"
#include "ui/frm_options_dm.h"
#include "ui/frm_daily_monitor.h"
#include "ui_fixture.h"
#include "workbook/store.h"

namespace fs = std::filesystem;

namespace zorv::uitest {
namespace {

class FrmDailyMonitorTest : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        Workbooks::CloseAll();
        dir = FreshTestDir(std::string("dm-window-") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        GetLogFile((dir / "RemoteCall.Log").string());
        SetLogging(false);
    }
    void TearDown() override {
        ui::frmDailyMonitor::setFileAsker({});
        SetLogging(false);
        UiTest::TearDown();
        Workbooks::CloseAll();
    }

    std::string simulate(std::uint64_t seed, const std::string& name) {
        SimulateOptions o;
        o.seed = seed;
        o.outliers = 0, o.failed = 0;
        o.name = name;
        o.outDir = (dir / "data").string();
        auto r = Simulate("overlay", o);
        EXPECT_TRUE(r.ok()) << (r.ok() ? "" : r.failure().message());
        return r.ok() ? (fs::path(o.outDir) / r->file).string() : std::string();
    }
    // The data workbook of a tool file, then the core's overlay template of it.
    std::string makeTemplate(const std::string& toolFile, const std::string& name) {
        fs::create_directories(dir / "imported");
        auto req = GetDataFile(toolFile);
        EXPECT_TRUE(req.ok());
        if (!req.ok()) return {};
        req->workbookPath = (dir / "imported" / (fs::path(toolFile).stem().string() + ".xlsx")).string();
        auto wb = ImportRawData(*req);
        EXPECT_TRUE(wb.ok()) << (wb.ok() ? "" : wb.failure().message());
        Workbooks::CloseAll();
        if (!wb.ok()) return {};
        fs::create_directories(dir / "templates");
        auto made = NewDMTemplate(*wb, "overlay", (dir / "templates" / name).string());
        EXPECT_TRUE(made.ok()) << (made.ok() ? "" : made.failure().message());
        Workbooks::CloseAll();
        return made.ok() ? made->path : std::string();
    }
    // Data rows of a trend sheet, read from the file on disk; -1 without the sheet.
    static int trendRows(const std::string& templatePath, const std::string& sheet) {
        auto wb = Workbook::open(templatePath);
        if (!wb.ok()) return -1;
        Worksheet* ws = (*wb)->sheet(sheet);
        if (!ws) return -1;
        int head = 0;
        for (int r = 1; r <= ws->lastRow() && !head; ++r)
            if (ws->cell(r, 1).toString() == "Date") head = r;
        return head ? ws->lastRow() - head : -1;
    }
    // The browse buttons answered with these paths, in turn.
    void answerFiles(std::vector<QString> paths) {
        auto queue = std::make_shared<std::deque<QString>>(paths.begin(), paths.end());
        ui::frmDailyMonitor::setFileAsker([queue](const QString&, const QString&, const QString&) {
            if (queue->empty()) return QString();
            QString p = queue->front();
            queue->pop_front();
            return p;
        });
    }
    static int tabOf(QTabWidget* t, const QString& text) {
        for (int i = 0; i < t->count(); ++i)
            if (t->tabText(i) == text) return i;
        return -1;
    }
    // The data symbols (filled blue circles) the chart draws, the legend's one included.
    static int drawnPoints(cGraphic* g) {
        if (!g) return 0;
        RecordingSurface s(800, 500);
        if (!PlotDMstats(g, s)) return 0;
        g->Container(nullptr);
        int n = 0;
        for (const auto* c : s.of(RecordingSurface::Op::Circle))
            n += c->fill == FillStyle::Solid && c->color == RGB(0, 0, 255);
        return n;
    }
    // A picture of the window on a tab where asked (ZORV_SHOTS_DIR), for a look by eye.
    static void shoot(ui::frmDailyMonitor& w, int tab, const std::string& name) {
        if (!std::getenv("ZORV_SHOTS_DIR")) return;
        w.tabs()->setCurrentIndex(tab);
        w.resize(1040, 720);
        w.show();
        ShootWindow(&w, name);
    }
    bool sawBox(const std::string& part) const {
        for (const auto& b : rec.boxes)
            if (b.text.find(part) != std::string::npos) return true;
        return false;
    }

    fs::path dir;
};

TEST_F(FrmDailyMonitorTest, EachRunAddsATrendPointAndTheManualEntryNeedsThePassword) {
    const std::string data = simulate(11, "ov11");
    const std::string tpl = makeTemplate(data, "Overlay.xlt");
    ASSERT_FALSE(tpl.empty());

    ui::frmDailyMonitor w;
    w.Load();
    // No template yet: the one tab that says so.
    ASSERT_EQ(w.tabTrend()->count(), 1);
    EXPECT_EQ(w.tabTrend()->tabText(0), "No Statistics");
    EXPECT_EQ(w.tabTrend()->widget(0)->objectName(), "kNo Statistics");

    answerFiles({QString::fromStdString(tpl), QString::fromStdString(data)});
    w.cmdBrowseTemplate()->click();
    w.cmdBrowseData()->click();
    EXPECT_EQ(w.cmbTemplate()->currentText(), "Overlay.xlt");
    EXPECT_EQ(w.txtDataFile()->text().toStdString(), fs::path(data).filename().string());
    EXPECT_EQ(w.templatePath().toStdString(), tpl);
    EXPECT_EQ(w.dataPath().toStdString(), data);
    ASSERT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;
    EXPECT_GT(w.grdSummary()->rowCount(), 0);
    EXPECT_LE(trendRows(tpl, "TC_X_reg"), 0);

    w.chkLogData()->setChecked(true);
    w.chkTrendGraphics()->setChecked(true);
    w.cmdRun()->click();
    ASSERT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;
    ASSERT_NE(w.lastOutcome(), nullptr);
    EXPECT_EQ(w.tabs()->currentIndex(), ui::frmDailyMonitor::kTrend);
    const QString log = w.txtLog()->toPlainText();
    EXPECT_TRUE(log.contains("+++++++++++++++++START++++++++++++++++++++++")) << log.toStdString();
    EXPECT_TRUE(log.contains("    _____ Analysis Successful! _____"));
    EXPECT_EQ(trendRows(tpl, "TC_X_reg"), 1);

    // The statistics grid: the mean of X_reg is the file's own mean.
    const double mean = CsvColumnMean(data, "X_reg");
    int meanRow = -1, xCol = -1;
    for (int r = 0; r < w.grdStats()->rowCount(); ++r)
        if (w.grdStats()->item(r, 0)->text() == "Mean") meanRow = r;
    for (int c = 0; c < w.grdStats()->columnCount(); ++c)
        if (w.grdStats()->horizontalHeaderItem(c)->text() == "X_reg") xCol = c;
    ASSERT_GE(meanRow, 0);
    ASSERT_GE(xCol, 0);
    EXPECT_NEAR(w.grdStats()->item(meanRow, xCol)->text().toDouble(), mean, 1e-3);

    // The trend of the mean: one point, at the run's mean, between its limits.
    w.cmbTrendFeature()->setCurrentText("X_reg");
    w.CreateTrendTabs();
    const int meanTab = tabOf(w.tabTrend(), "Mean");
    ASSERT_GE(meanTab, 0);
    w.tabTrend()->setCurrentIndex(meanTab);
    EXPECT_EQ(w.trendPointCount(), 1);
    const int drawn1 = drawnPoints(w.currentTrendChart());
    EXPECT_GE(drawn1, 1);
    cGraphic* g = w.currentTrendChart();
    ASSERT_NE(g, nullptr);
    ASSERT_TRUE(g->Series.Item("UCL") != nullptr && g->Series.Item("Target") != nullptr);
    double y = NAN;
    for (int r = 1; r <= g->Data().rowUb(); ++r)
        if (!g->Data()(r, 2).isEmpty()) y = g->Data()(r, 2).toDouble();
    EXPECT_NEAR(y, mean, 1e-3);
    w.chkShowLimits()->setChecked(false);
    w.tabTrend()->setCurrentIndex(meanTab);
    ASSERT_NE(w.currentTrendChart(), nullptr);
    EXPECT_EQ(w.currentTrendChart()->Series.Count(), 1);
    w.chkShowLimits()->setChecked(true);

    // A second run, a second point.
    w.tabTrend()->setCurrentIndex(tabOf(w.tabTrend(), "Mean"));
    w.cmdRun()->click();
    ASSERT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;
    EXPECT_EQ(trendRows(tpl, "TC_X_reg"), 2);
    EXPECT_EQ(w.tabTrend()->tabText(w.tabTrend()->currentIndex()), "Mean");
    EXPECT_EQ(w.trendPointCount(), 2);
    EXPECT_EQ(drawnPoints(w.currentTrendChart()), drawn1 + 1);

    // The manual entry: a wrong password writes nothing.
    Workbooks::CloseAll();  // the file, not the window's copy, is compared
    w.SelectTemplate(QString::fromStdString(tpl));
    w.cmbTrendFeature()->setCurrentText("X_reg");
    w.CreateTrendTabs();
    w.tabTrend()->setCurrentIndex(tabOf(w.tabTrend(), "Mean"));
    const std::string before = FileBytes(tpl);
    rec.typed = {"qalm7vx204", "1.5"};
    w.cmdTrendEntry()->click();
    ASSERT_EQ(rec.inputs.size(), 1u);
    EXPECT_EQ(rec.inputs[0].text, "Enter password: ");
    EXPECT_EQ(rec.inputs[0].title, ApplicationTitle() + ": Trend Chart Entry");
    EXPECT_EQ(FileBytes(tpl), before);
    EXPECT_EQ(w.trendPointCount(), 2);

    shoot(w, ui::frmDailyMonitor::kLog, "dm_log");
    shoot(w, ui::frmDailyMonitor::kAnalysis, "dm_analysis");
    shoot(w, ui::frmDailyMonitor::kTrend, "dm_trend");

    // The right one, then the value: a row with that value.
    rec.typed = {"Qalm7Vx204", "0.125"};
    w.cmdTrendEntry()->click();
    EXPECT_TRUE(rec.boxes.empty());
    EXPECT_EQ(trendRows(tpl, "TC_X_reg"), 3);
    EXPECT_EQ(w.trendPointCount(), 3);
    EXPECT_EQ(drawnPoints(w.currentTrendChart()), drawn1 + 2);
    g = w.currentTrendChart();
    ASSERT_NE(g, nullptr);
    y = NAN;
    for (int r = 1; r <= g->Data().rowUb(); ++r)
        if (!g->Data()(r, 2).isEmpty()) y = g->Data()(r, 2).toDouble();
    EXPECT_DOUBLE_EQ(y, 0.125);

    // The chart settings are kept in "Settings" and read back by the next window.
    w.chkYgridline()->setChecked(true);
    w.optAbscissaRun()->setChecked(true);
    ASSERT_NE(w.currentTrendChart(), nullptr);
    EXPECT_TRUE(w.currentTrendChart()->Axes.Item("Y")->PlotGridline);
    EXPECT_EQ(w.currentTrendChart()->Axes.Item("X")->Label, "Run");
    EXPECT_EQ(GetSetting(kDMSettingsApp, "Settings", "chkYgridline", "0"), "1");
    EXPECT_EQ(GetSetting(kDMSettingsApp, "Settings", "optAbscissaTrend", "0"), "1");
    ui::frmDailyMonitor again;
    again.Load();
    EXPECT_TRUE(again.chkYgridline()->isChecked());
    EXPECT_TRUE(again.optAbscissaRun()->isChecked());
    EXPECT_TRUE(again.chkLogData()->isChecked());
    EXPECT_EQ(again.templatePath().toStdString(), tpl);  // the last template comes back
}

TEST_F(FrmDailyMonitorTest, BatchListRunsEachFileAndGoesOnlyAfterYes) {
    const std::string a = simulate(21, "ov21"), b = simulate(22, "ov22");
    const std::string tpl = makeTemplate(a, "Batch.xlt");
    ASSERT_FALSE(tpl.empty());
    {
        // The list built as a user does: the options window, its files dropped in.
        auto* o = new ui::frmOptionsDM;
        o->Load();
        ASSERT_TRUE(o->OpenBatchWorkbook(QString::fromStdString(tpl)));
        o->cmbBatch()->setEditText("Nightly");
        EXPECT_EQ(o->addBatchPaths({QString::fromStdString(a), QString::fromStdString(b)}), 2);
        ASSERT_TRUE(o->SaveBatch()) << (rec.boxes.empty() ? "" : rec.boxes.back().text);
        o->Unload();
        rec.boxes.clear();
    }
    Workbooks::CloseAll();

    ui::frmDailyMonitor w;
    w.Load();
    ASSERT_TRUE(w.SelectTemplate(QString::fromStdString(tpl)));
    ASSERT_EQ(w.cmbBatch()->count(), 1);
    EXPECT_EQ(w.cmbBatch()->currentText(), "Nightly");
    w.cmdBatch()->click();
    ASSERT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;
    EXPECT_EQ(trendRows(tpl, "TC_X_reg"), 2);
    const QString log = w.txtLog()->toPlainText();
    for (const std::string& line :
         {std::string("___________Batch file ______________"), std::string("    Batch: Nightly"),
          "      File1: " + fs::path(a).filename().string() + " [" + fs::path(a).parent_path().string() + "]",
          "      File2: " + fs::path(b).filename().string() + " [" + fs::path(b).parent_path().string() + "]",
          std::string("    Batch: [Nightly] Total Files=2"),
          std::string("___________Batch [Nightly] Successful ______________")})
        EXPECT_TRUE(log.contains(QString::fromStdString(line))) << line << "\n" << log.toStdString();
    // The trend shows the two files' runs.
    w.cmbTrendFeature()->setCurrentText("X_reg");
    w.CreateTrendTabs();
    w.tabTrend()->setCurrentIndex(tabOf(w.tabTrend(), "Mean"));
    EXPECT_EQ(w.trendPointCount(), 2);
    shoot(w, ui::frmDailyMonitor::kLog, "dm_batch");

    // Delete asks; No keeps the list, Yes takes it out of the template.
    rec.answers = {vbNo};
    w.cmdBatchDelete()->click();
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "This command will delete Batch:  [Nightly] \r\nAre you sure you wish to proceed?");
    EXPECT_EQ(rec.boxes[0].flags & 7, vbYesNo);
    EXPECT_EQ(w.cmbBatch()->count(), 1);
    rec.answers = {vbYes};
    w.cmdBatchDelete()->click();
    EXPECT_EQ(w.cmbBatch()->count(), 0);
    EXPECT_FALSE(w.cmdBatch()->isEnabled());
    Workbooks::CloseAll();
    auto wb = Workbook::open(tpl);
    ASSERT_TRUE(wb.ok());
    EXPECT_TRUE(GetBatchSheets(**wb).empty());
}

TEST_F(FrmDailyMonitorTest, AWorkbookThatIsNoTemplateIsRefusedAndLeftAsItWas) {
    const std::string data = simulate(5, "ov5");
    fs::create_directories(dir / "templates");
    const std::string plain = (dir / "templates" / "Plain.xlt").string();
    {
        WorkbookPtr wb = Workbook::create(plain, "Sheet1");
        wb->sheet("Sheet1")->setCell(1, 1, Value("just a sheet"));
        ASSERT_TRUE(wb->save().ok());
    }
    const std::string plainBytes = FileBytes(plain), dataBytes = FileBytes(data);

    ui::frmDailyMonitor w;
    w.Load();
    answerFiles({QString::fromStdString(plain), QString::fromStdString(data)});
    w.cmdBrowseTemplate()->click();
    w.cmdBrowseData()->click();
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("This is not a proper Zorv DM template. The 'Information' spreadsheet is not present."),
              std::string::npos)
        << rec.boxes[0].text;
    EXPECT_EQ(w.tabTrend()->tabText(0), "No Statistics");
    EXPECT_EQ(w.cmbBatch()->count(), 0);
    shoot(w, ui::frmDailyMonitor::kTrend, "dm_notemplate");

    // Run anyway: refused through the one path, the window usable, nothing written.
    w.cmdRun()->click();
    ASSERT_EQ(rec.boxes.size(), 2u);
    EXPECT_NE(rec.boxes[1].text.find("***** Termination With Error *****"), std::string::npos) << rec.boxes[1].text;
    EXPECT_TRUE(w.cmdRun()->isEnabled());
    EXPECT_EQ(w.lastOutcome(), nullptr);
    EXPECT_TRUE(w.txtLog()->toPlainText().contains("Failed."));
    Workbooks::CloseAll();
    EXPECT_EQ(FileBytes(plain), plainBytes);
    EXPECT_EQ(FileBytes(data), dataBytes);
    std::error_code ec;
    EXPECT_FALSE(fs::exists(dir / "data" / "ov5.xlsx", ec));
}

TEST_F(FrmDailyMonitorTest, AutomationFillsTheWindowAndCountsDownItsNotice) {
    const std::string data = simulate(3, "ov3");
    const std::string tpl = makeTemplate(data, "Auto.xlt");
    ASSERT_FALSE(tpl.empty());
    SaveSetting(kDMSettingsApp, "DailyMonitor", "DMA_DisplayTime", "3");
    fs::create_directories(dir / "out");

    ui::frmDailyMonitor w;
    w.Load();
    const DMAResult r = w.RunAutomation("-t \"" + tpl + "\" -f " + data + " -o " + (dir / "out").string());
    ASSERT_TRUE(r.succeeded) << r.resultText;
    EXPECT_TRUE(w.windowTitle().endsWith("  - Automation Mode"));
    EXPECT_EQ(w.templatePath().toStdString(), tpl);
    EXPECT_EQ(w.dataPath().toStdString(), data);
    EXPECT_TRUE(w.txtLog()->toPlainText().contains("_________Analysis was SUCCESSFUL____________"));
    EXPECT_GT(w.grdStats()->rowCount(), 0);
    EXPECT_EQ(trendRows(tpl, "TC_X_reg"), 1);

    ui::frmDMANotice* n = w.automationNotice();
    ASSERT_NE(n, nullptr);
    EXPECT_TRUE(n->isVisible());
    EXPECT_EQ(n->logButton()->text(), "Log");
    EXPECT_EQ(n->analysisButton()->text(), "Analysis");
    EXPECT_TRUE(n->labelText().startsWith("Analysis of file: " + QString::fromStdString(fs::path(data).filename().string())));
    EXPECT_TRUE(n->labelText().endsWith("This window will close in 3 seconds."));
    n->tick();
    EXPECT_TRUE(n->labelText().endsWith("2 seconds."));
    n->timer()->stop();
    n->close();
    EXPECT_TRUE(rec.boxes.empty());
}

}  // namespace
}  // namespace zorv::uitest
