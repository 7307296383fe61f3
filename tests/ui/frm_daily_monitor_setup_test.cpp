// The monitor template setup window: a template built from a simulated
// overlay lot's data workbook as a user builds it, saved, read back by a
// fresh window and by the core's own reader of the file, and run by the
// monitor to a trend row; the refused inputs, each leaving the disk alone.
#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTableWidget>
#include <QTreeWidget>
#include <algorithm>
#include <filesystem>
#include <cmath>
#include <map>
#include <sstream>

#include "app/settings.h"
#include "base/identity.h"
#include "import/import.h"
#include "import/simulate.h"
#include "monitor/dm_options.h"
#include "monitor/dm_run.h"
#include "ui/frm_daily_monitor_setup.h"
#include "ui_fixture.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

// Every file under a folder with its bytes.
std::map<std::string, std::string> Snapshot(const fs::path& dir) {
    std::map<std::string, std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(dir))
        if (e.is_regular_file()) out[e.path().string()] = FileBytes(e.path());
    return out;
}

class DMSetupTest : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        Workbooks::CloseAll();
        root_ = FreshTestDir("dm-setup");
        DMOptions o;
        o.templateFolder = (root_ / "templates").string();
        o.dataFolder = (root_ / "data").string();
        o.reticleFolder = (root_ / "reticles").string();
        SaveDMOptions(o);
    }
    void TearDown() override {
        frmDailyMonitorSetup::setFileAsker({});
        UiTest::TearDown();
        Workbooks::CloseAll();
        if (!HasFailure()) fs::remove_all(root_);
    }

    // A simulated overlay file (two wafers, known features X_reg, Y_reg) and
    // its data workbook as the import writes it.
    void makeData() {
        SimulateOptions o;
        o.outDir = (root_ / "sim").string();
        o.seed = 21, o.outliers = 0, o.failed = 0;
        auto sim = Simulate("overlay", o);
        ASSERT_TRUE(sim.ok()) << sim.failure().message();
        tool_ = fs::path(o.outDir) / sim->file;
        auto req = GetDataFile(tool_.string());
        ASSERT_TRUE(req.ok()) << req.failure().message();
        req->workbookPath = (root_ / "sim" / "overlay.xlsx").string();
        auto wb = ImportRawData(*req);
        ASSERT_TRUE(wb.ok()) << wb.failure().message();
        data_ = *wb;
        Workbooks::CloseAll();
    }

    frmDailyMonitorSetup* window() {
        auto* w = new frmDailyMonitorSetup;
        w->Load();
        return w;
    }
    bool sawBox(const std::string& part, const std::string& title = {}) const {
        for (const auto& b : rec.boxes)
            if (b.text.find(part) != std::string::npos && (title.empty() || b.title == title)) return true;
        return false;
    }
    static QTreeWidgetItem* stat(frmDailyMonitorSetup* w, const QString& group, const QString& name) {
        for (int g = 0; g < w->tvwStatistics()->topLevelItemCount(); ++g) {
            QTreeWidgetItem* top = w->tvwStatistics()->topLevelItem(g);
            if (top->text(0) != group) continue;
            for (int i = 0; i < top->childCount(); ++i)
                if (top->child(i)->text(0) == name) return top->child(i);
        }
        return nullptr;
    }
    static int featureRow(frmDailyMonitorSetup* w, const QString& name) {
        for (int r = 0; r < w->tblFeatures()->rowCount(); ++r)
            if (w->tblFeatures()->item(r, 1)->text() == name) return r;
        return -1;
    }

    fs::path root_, tool_;
    std::string data_;
};

TEST_F(DMSetupTest, TemplateBuiltFromDataWorkbookReadsBackAndRunsToATrendRow) {
    makeData();
    const std::string dataBytes = FileBytes(data_);
    frmDailyMonitorSetup* w = window();
    EXPECT_TRUE(rec.boxes.empty());
    EXPECT_EQ(w->txtTemplateFolder()->text().toStdString(), (root_ / "templates").string());
    EXPECT_TRUE(fs::is_directory(root_ / "data"));  // the options' folders are made

    // The data workbook is open in another window as well; that one is left alone.
    auto other = Workbooks::Open(data_);
    ASSERT_TRUE(other.ok());
    // The data workbook through the open button, as the user picks it.
    frmDailyMonitorSetup::setFileAsker([&](const QString&, const QString& filter, const QString&) {
        EXPECT_TRUE(filter.contains("*.xlt") && filter.contains("*.xlsx"));
        return QString::fromStdString(data_);
    });
    w->cmdOpen()->click();
    ASSERT_NE(w->sourceWorkbook(), nullptr) << (rec.boxes.empty() ? "" : rec.boxes.back().text);
    EXPECT_EQ(w->txtTemplateName()->text(), "overlay.xlt");
    // The features of the lot, as the simulator wrote them.
    ASSERT_GE(featureRow(w, "X_reg"), 0);
    ASSERT_GE(featureRow(w, "Y_reg"), 0);

    w->cmbAnalysisType()->setCurrentText("Focus/Expo");
    w->cmbAnalysisType()->setCurrentText("Raw Metrology");
    EXPECT_EQ(GetSetting(kDMSettingsApp, "Setup", "AnalysisType"), "2");
    w->chkCombineWafers()->setChecked(true);
    ASSERT_TRUE(w->setStatistic("Raw Statistics", "Mean", true, true));
    ASSERT_TRUE(w->setStatistic("Raw Statistics", "Range", true, true));
    ASSERT_TRUE(w->setStatistic("Raw Statistics", "Count", false, false));
    ASSERT_TRUE(w->setFeature("X_reg", true, 1.5, 12, -9));
    ASSERT_TRUE(w->setFeature("Y_reg", false, 0, 0, 0));
    w->txtComments()->setText("Overlay check");
    w->txtTemplateName()->setText("OverlaySetup.xls");

    if (std::getenv("ZORV_SHOTS_DIR")) {
        w->resize(820, 600);
        w->show();
        for (int t = 0; t < w->tabs()->count(); ++t) {
            w->tabs()->setCurrentIndex(t);
            ShootWindow(w, "dm-setup-" + std::to_string(t));
        }
    }
    const QString saved = w->cmdSaveTemplate();
    ASSERT_FALSE(saved.isEmpty()) << (rec.boxes.empty() ? "" : rec.boxes.back().text);
    const fs::path tpl = root_ / "templates" / "OverlaySetup.xlt";
    EXPECT_EQ(saved.toStdString(), tpl.string());
    EXPECT_TRUE(fs::is_regular_file(tpl));
    EXPECT_EQ(FileBytes(data_), dataBytes);  // the source workbook stays as it was
    EXPECT_EQ((*other)->path(), data_);
    EXPECT_EQ((*other)->sheet("TemplateHeader"), nullptr);
    EXPECT_EQ(Workbooks::Find(data_), *other);
    const auto& log = w->saveLog();
    auto logged = [&](const std::string& l) { return std::find(log.begin(), log.end(), l) != log.end(); };
    EXPECT_TRUE(logged("    Header Saved."));
    EXPECT_TRUE(logged("    Statistics Saved."));
    EXPECT_TRUE(logged("SaveAsTemplate :  Successful"));
    EXPECT_TRUE(rec.sawStatus("Saving Template: OverlaySetup.xls"));
    EXPECT_TRUE(w->txtSummary()->toPlainText().startsWith("Analysis:OverlaySetup.Raw Metrology"));
    Workbooks::CloseAll();

    // The file as the core reads it, opened apart from the window.
    {
        auto wb = Workbook::open(tpl.string());
        ASSERT_TRUE(wb.ok());
        auto read = ReadDMTemplate(wb->get());
        ASSERT_TRUE(read.ok()) << read.failure().message();
        EXPECT_EQ(read->analysis.kind, DMKind::Metrology);
        EXPECT_EQ(read->analysis.caption, "Raw Metrology");
        EXPECT_TRUE(read->analysis.combineWafers);
        EXPECT_EQ(read->analysis.comments, "Overlay check");
        std::map<std::string, std::pair<bool, bool>> raw;
        for (const DMStatRow& r : read->tables.raw.rows) raw[r.name] = {r.display, r.trend};
        EXPECT_EQ(raw.size(), 21u);
        EXPECT_EQ(raw["Mean"], std::make_pair(true, true));
        EXPECT_EQ(raw["Range"], std::make_pair(true, true));
        EXPECT_EQ(raw["Count"], std::make_pair(false, false));
        EXPECT_FALSE(raw["Median"].second);
        bool seenX = false;
        for (const DMFeatureRow& f : read->tables.features) {
            if (f.name != "X_reg") {
                EXPECT_FALSE(f.analyze) << f.name;
                continue;
            }
            seenX = true;
            EXPECT_TRUE(f.analyze);
            EXPECT_DOUBLE_EQ(f.target, 1.5);
            EXPECT_DOUBLE_EQ(f.max, 12);
            EXPECT_DOUBLE_EQ(f.min, -9);
        }
        EXPECT_TRUE(seenX);
        EXPECT_NE((*wb)->sheet("Layout"), nullptr);
    }

    // A fresh window shows the same choices.
    frmDailyMonitorSetup* again = window();
    ASSERT_TRUE(again->OpenTemplate(QString::fromStdString(tpl.string())));
    EXPECT_EQ(again->cmbAnalysisType()->currentText(), "Raw Metrology");
    EXPECT_TRUE(again->chkCombineWafers()->isChecked());
    EXPECT_EQ(again->txtComments()->text(), "Overlay check");
    QTreeWidgetItem* mean = stat(again, "Raw Statistics", "Mean");
    ASSERT_NE(mean, nullptr);
    EXPECT_EQ(mean->checkState(2), Qt::Checked);
    EXPECT_EQ(stat(again, "Raw Statistics", "Count")->checkState(1), Qt::Unchecked);
    const int x = featureRow(again, "X_reg");
    ASSERT_GE(x, 0);
    EXPECT_EQ(again->tblFeatures()->item(x, 0)->checkState(), Qt::Checked);
    EXPECT_EQ(again->tblFeatures()->item(x, 2)->text().toDouble(), 1.5);
    EXPECT_EQ(again->tblFeatures()->item(x, 4)->text().toDouble(), -9);
    const DMSetup first = w->setup(), second = again->setup();
    EXPECT_EQ(second.analysisType.index, first.analysisType.index);
    EXPECT_EQ(second.rawStats.size(), first.rawStats.size());
    for (size_t i = 0; i < first.rawStats.size() && i < second.rawStats.size(); ++i) {
        EXPECT_EQ(second.rawStats[i].name, first.rawStats[i].name);
        EXPECT_EQ(second.rawStats[i].trend, first.rawStats[i].trend) << first.rawStats[i].name;
    }
    EXPECT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;
    again->Unload();
    w->Unload();
    Workbooks::CloseAll();

    // The monitor runs the saved template on the tool file: one trend row for
    // the combined lot, its mean the mean of the file's X_reg column.
    DMRunRequest req;
    req.templatePath = tpl.string();
    req.dataPath = tool_.string();
    auto run = DoDailyMonitor(req);
    ASSERT_TRUE(run.ok()) << run.failure().message();
    EXPECT_EQ(run->trendFeatures, std::vector<std::string>{"X_reg"});
    Workbooks::CloseAll();
    auto after = Workbook::open(tpl.string());
    ASSERT_TRUE(after.ok());
    Worksheet* trend = (*after)->sheet("TC_X_reg");
    ASSERT_NE(trend, nullptr);
    int head = 0;
    for (int r = 1; r <= trend->lastRow() && !head; ++r)
        if (trend->cell(r, 1).toString() == "Date") head = r;
    ASSERT_GT(head, 0);
    ASSERT_EQ(trend->lastRow() - head, 1);
    int meanCol = 0;
    for (int c = 1; c <= trend->lastCol() && !meanCol; ++c)
        if (trend->cell(head, c).toString() == "Mean") meanCol = c;
    ASSERT_GT(meanCol, 0);
    EXPECT_NEAR(trend->cell(head + 1, meanCol).toDouble(), CsvColumnMean(tool_, "X_reg"), 1e-4);
}

TEST_F(DMSetupTest, RefusedInputsLeaveTheFilesAsTheyWere) {
    makeData();
    // Not a template: a workbook without the "Information" sheet.
    const fs::path bogus = root_ / "templates" / "Plain.xlt";
    fs::create_directories(bogus.parent_path());
    {
        WorkbookPtr wb = Workbook::create(bogus.string(), "Sheet1");
        wb->sheet("Sheet1")->setCell(1, 1, Value("hello"));
        ASSERT_TRUE(wb->save().ok());
    }
    const auto before = Snapshot(root_);
    frmDailyMonitorSetup* w = window();

    // Saving with nothing open.
    w->cmdSave()->click();
    EXPECT_TRUE(sawBox("Please select a template source before saving.", "Daily Monitor Setup error."));

    rec.boxes.clear();
    EXPECT_FALSE(w->OpenTemplate(QString::fromStdString(bogus.string())));
    EXPECT_TRUE(sawBox("This is not a proper Zorv DM template. The 'Information' spreadsheet is not present."));
    EXPECT_EQ(w->sourceWorkbook(), nullptr);
    EXPECT_TRUE(w->txtTemplateSource()->text().isEmpty());

    rec.boxes.clear();
    EXPECT_FALSE(w->OpenTemplate(QString::fromStdString((root_ / "sim" / "truth.json").string())));
    EXPECT_TRUE(sawBox("must be selected.\r\nCurrent selection was 'truth.json'"));
    rec.boxes.clear();
    EXPECT_FALSE(w->OpenTemplate(QString::fromStdString((root_ / "missing.xlt").string())));
    EXPECT_TRUE(sawBox("Excel workbook does not exist: "));

    // A data folder under a regular file can't be made: the save is refused.
    ASSERT_TRUE(w->OpenTemplate(QString::fromStdString(data_)));
    w->txtDataFolder()->setText(QString::fromStdString((root_ / "sim" / "overlay.xlsx" / "sub").string()));
    rec.boxes.clear();
    EXPECT_TRUE(w->cmdSaveTemplate().isEmpty());
    EXPECT_TRUE(sawBox("Specified in your Daily Monitor Options setup does not exist and could not be created."));
    // A limit that is no number.
    w->txtDataFolder()->setText(QString::fromStdString((root_ / "data").string()));
    w->setFeature("X_reg", true, 0, 1, -1);
    w->tblFeatures()->item(featureRow(w, "X_reg"), 3)->setText("high");
    rec.boxes.clear();
    EXPECT_TRUE(w->cmdSaveTemplate().isEmpty());
    EXPECT_TRUE(sawBox("'high' is not a number."));
    // The window is still usable and the disk is as it was.
    EXPECT_TRUE(w->cmdSave()->isEnabled());
    EXPECT_EQ(Snapshot(root_), before);
    EXPECT_FALSE(fs::exists(root_ / "templates" / "overlay.xlt"));
}

TEST_F(DMSetupTest, FolderThatCannotBeMadeIsResetWithTheSetupMessage) {
    fs::create_directories(root_);
    { std::ofstream(root_ / "afile") << "x"; }
    DMOptions o = LoadDMOptions();
    o.dataFolder = (root_ / "afile" / "data").string();
    SaveDMOptions(o);
    const auto before = Snapshot(root_);
    frmDailyMonitorSetup* w = window();
    ASSERT_EQ(rec.boxes.size(), 1u);
    const auto& b = rec.boxes.front();
    EXPECT_EQ(b.title, "Daily Monitor Setup error.");
    EXPECT_NE(b.text.find("The default Data Folder:"), std::string::npos);
    EXPECT_NE(b.text.find("Specified in your Daily Monitor Options setup does not exist and could not be created."),
              std::string::npos);
    EXPECT_NE(b.text.find("Please correct the folder location in your 'Tools/Options' menu."), std::string::npos);
    EXPECT_NE(b.text.find("Resetting folder to: " + ProgramFolder()), std::string::npos);
    EXPECT_EQ(w->txtDataFolder()->text().toStdString(), ProgramFolder());
    // The template folder, which could be made, was.
    EXPECT_TRUE(fs::is_directory(root_ / "templates"));
    auto after = Snapshot(root_);
    EXPECT_EQ(after, before);  // no file touched (only folders made)
}

TEST_F(DMSetupTest, ShippedTemplateResavedKeepsEveryKeyAndTable) {
    makeData();
    const fs::path a = root_ / "templates" / "Overlay.xlt", b = root_ / "templates" / "Again.xlt";
    fs::create_directories(a.parent_path());
    auto made = NewDMTemplate(data_, "overlay", a.string());
    ASSERT_TRUE(made.ok()) << made.failure().message();
    Workbooks::CloseAll();
    frmDailyMonitorSetup* w = window();
    ASSERT_TRUE(w->OpenTemplate(QString::fromStdString(made->path)));
    EXPECT_EQ(w->cmbAnalysisType()->currentText(), "Raw Metrology");
    EXPECT_TRUE(w->chkDoWaferModel()->isChecked());
    w->txtTemplateName()->setText("Again");
    ASSERT_EQ(w->cmdSaveTemplate().toStdString(), b.string());
    Workbooks::CloseAll();

    // Both files read by the core: every header key but the name, date and
    // the summary that quotes the name, and every table, the same.
    auto read = [](const fs::path& p) {
        auto wb = Workbook::open(p.string());
        EXPECT_TRUE(wb.ok());
        auto t = GetDMtemplateTables(wb->get());
        EXPECT_TRUE(t.ok()) << t.failure().message();
        return *t;
    };
    const DMTemplateTables ta = read(made->path), tb = read(b);
    auto keys = [](const DMTemplateTables& t) {
        std::map<std::string, std::string> out;
        for (int r = 1; r <= t.header.rowUb(); ++r) {
            const std::string k = t.header(r, 1).toString();
            if (k == "Template" || k == "DateSaved" || k == "Summary" || k.empty()) continue;
            out[k] = t.header(r, 2).toString() + "|" + t.header(r, 3).toString();
        }
        return out;
    };
    EXPECT_GT(keys(ta).size(), 20u);
    EXPECT_EQ(keys(tb), keys(ta));
    auto rows = [](const DMStatTable& t) {
        std::vector<std::string> out;
        for (const DMStatRow& r : t.rows) out.push_back(r.name + (r.display ? "+" : "-") + (r.trend ? "+" : "-"));
        return out;
    };
    EXPECT_EQ(rows(tb.raw), rows(ta.raw));
    EXPECT_EQ(rows(tb.waferModel), rows(ta.waferModel));
    EXPECT_EQ(rows(tb.fieldModel), rows(ta.fieldModel));
    ASSERT_EQ(tb.features.size(), ta.features.size());
    for (size_t i = 0; i < ta.features.size(); ++i) {
        EXPECT_EQ(tb.features[i].name, ta.features[i].name);
        EXPECT_EQ(tb.features[i].analyze, ta.features[i].analyze);
        EXPECT_EQ(tb.features[i].max, ta.features[i].max);
    }
    ASSERT_EQ(tb.axes.size(), ta.axes.size());
    for (size_t i = 0; i < ta.axes.size(); ++i) EXPECT_EQ(tb.axes[i].name, ta.axes[i].name);
    EXPECT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;
}

TEST_F(DMSetupTest, DisplayMessagesOfAnOlderTemplateAndAMissingReport) {
    makeData();
    const fs::path a = root_ / "templates" / "Old.xlt";
    fs::create_directories(a.parent_path());
    auto made = NewDMTemplate(data_, "overlay", a.string());
    ASSERT_TRUE(made.ok()) << made.failure().message();
    Workbooks::CloseAll();
    // An older template: no axes table.
    {
        auto wb = Workbook::open(made->path);
        ASSERT_TRUE(wb.ok());
        Worksheet* ws = (*wb)->sheet("TemplateHeader");
        ASSERT_NE(ws, nullptr);
        int from = 0;
        for (int r = 1; r <= ws->lastRow() && !from; ++r)
            if (ws->cell(r, 1).toString() == "AxesDisplayed") from = r;
        ASSERT_GT(from, 0);
        for (int r = from, last = ws->lastRow(); r <= last; ++r)
            for (int c = 1; c <= 3; ++c) ws->setCell(r, c, Value());
        ASSERT_TRUE((*wb)->save().ok());
    }
    const std::string bytes = FileBytes(made->path);
    frmDailyMonitorSetup* w = window();
    ASSERT_TRUE(w->OpenTemplate(QString::fromStdString(made->path)));
    EXPECT_TRUE(sawBox("Caution: resave template. No axis display information present.", "Template Acquisition error."));
    // The default rows stand in.
    ASSERT_EQ(w->tblAxes()->rowCount(), 3);
    EXPECT_EQ(w->tblAxes()->item(0, 0)->text(), "All (X, Y and Mean)");

    // A process window whose report sheet the template lacks.
    rec.boxes.clear();
    w->cmbPWanalysis()->setCurrentText("Process Window");
    EXPECT_TRUE(sawBox("Template does not contain the needed spreadsheet: ProcessWindowReport Please run a Process "
                       "Window analysis  so that the variable names can be updated."));
    EXPECT_EQ(FileBytes(made->path), bytes);
}

}  // namespace
