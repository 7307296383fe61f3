// The main window as a user works it: a raw file imported through the File
// menu, a workbook opened by its dialog or dropped on the layout, the tabs
// drawn, the workbook saved under another name, the workbenches reached and
// left, and bad input that leaves the window usable and the disk unchanged.
#include <QAction>
#include <QComboBox>
#include <QFileDialog>
#include <QKeyEvent>
#include <QMenuBar>
#include <QMessageBox>
#include <QTimer>
#include <QLineEdit>
#include <QTabBar>
#include <QTabWidget>
#include <QTableView>
#include <filesystem>
#include <fstream>
#include <map>

#include "app/settings.h"
#include "base/identity.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "ui/chart_view.h"
#include "ui/frm_main.h"
#include "ui/frm_plot.h"
#include "ui/frm_reticle.h"
#include "ui/gui_reporter.h"
#include "ui/layout_panel.h"
#include "ui/metrology_panel.h"
#include "ui_fixture.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

std::vector<std::string> Listing(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

class MainUi : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        dir = fs::path(ZORV_TEST_TMP) / ("frm-main-" + std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir / "program");
        oldFolder = ProgramFolder();
        SetProgramFolder((dir / "program").string());
        asked.clear();
        frmMain::setFileAsker([this](const QString& title, const QString& filter, const QString&) {
            asked.push_back({title.toStdString(), filter.toStdString()});
            if (answers.empty()) return QString();
            const QString a = QString::fromStdString(answers.front());
            answers.pop_front();
            return a;
        });
        m = new frmMain;
        forms().frmMain = m;
        m->Load();
        m->resize(1200, 820);
        m->show();
    }
    void TearDown() override {
        frmMain::setFileAsker({});
        UiTest::TearDown();
        SetProgramFolder(oldFolder);
        fs::remove_all(dir);
    }
    // A simulated tool file of `kind` in its own folder.
    std::string simulate(const std::string& kind, int wafers = 2) {
        SimulateOptions o;
        o.outDir = (dir / kind).string();
        o.wafers = wafers;
        o.seed = 7;
        Result<SimulateOutput> out = Simulate(kind, o);
        EXPECT_TRUE(out) << (out ? "" : out.failure().text);
        return out ? out->file : std::string();
    }
    QAction* action(const char* name) { return m->findChild<QAction*>(name); }
    long lotPoints() { return m->lot() ? m->lot()->TotalPoints(nullptr, true) : -1; }

    fs::path dir;
    std::string oldFolder;
    QPointer<frmMain> m;
    std::deque<std::string> answers;
    struct Ask {
        std::string title, filter;
    };
    std::vector<Ask> asked;
};

TEST_F(MainUi, RawFileThroughTheMenuIsImportedLoadedAndDrawnOnEveryTab) {
    const std::string raw = simulate("overlay");
    answers.push_back(raw);
    action("mnuFileOpen")->trigger();
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].title, "Zorv: Raw Data File Selection");
    // One filter per format row after "All Files".
    EXPECT_NE(asked[0].filter.find("All Files (*.*)"), std::string::npos);
    EXPECT_NE(asked[0].filter.find("KLA Archer overlay"), std::string::npos);
    ASSERT_TRUE(m->lot()) << (rec.boxes.empty() ? "" : rec.boxes.back().text);
    EXPECT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;

    // The workbook was written beside the source and is the one loaded.
    const fs::path wb = m->workbookPath().toStdString();
    EXPECT_TRUE(fs::exists(wb));
    EXPECT_EQ(wb.parent_path(), fs::path(raw).parent_path());
    EXPECT_TRUE(m->windowTitle().endsWith(QString::fromStdString(wb.filename().string())));
    EXPECT_EQ(m->cmbDataSheet()->currentText().toStdString(), m->lot()->DataSheetName);
    EXPECT_GT(m->lot()->TotalWafers(), 1);

    // The status texts of the open, in their order.
    const std::vector<std::string> order = {"Workbook loaded, setting up display...", "update spreadsheets...",
                                            "Set Workbook pathname ....", "Update data sheet names into combo",
                                            "Wafer set to wafer 1", "layout set", "Setup up cmdArray",
                                            "call DisplayVariables...", "call DisplayVariables...done ", "Ready"};
    size_t at = 0;
    for (const std::string& s : rec.statuses)
        if (at < order.size() && s == order[at]) ++at;
    EXPECT_EQ(at, order.size());
    EXPECT_EQ(m->currentTabKey(), "kLayout");

    // The metrology tab draws its plots without failure.
    m->showTab("kMetrology");
    const MetrologyPanel::Shown shown = m->metrologyPanel()->shown();
    EXPECT_EQ(shown.points, lotPoints());
    auto* inner = m->metrologyPanel()->findChild<QTabWidget*>("tabMetrology");
    ASSERT_NE(inner, nullptr);
    for (int i = 0; i < inner->count(); ++i) {
        inner->setCurrentIndex(i);
        QCoreApplication::processEvents();
        auto* v = qobject_cast<ChartView*>(inner->widget(i));
        ASSERT_NE(v, nullptr);
        ASSERT_NE(v->graphic(), nullptr) << inner->tabText(i).toStdString();
        EXPECT_FALSE(v->grab().isNull());
        EXPECT_TRUE(v->failureText().isEmpty()) << inner->tabText(i).toStdString() << ": "
                                                << v->failureText().toStdString();
    }
    // Any chart goes to a window of its own, and the data sheet to a grid.
    auto* wafer = qobject_cast<ChartView*>(inner->widget(0));
    frmPlot* own = wafer->openInWindow();
    ASSERT_NE(own, nullptr);
    own->resize(600, 500);
    EXPECT_TRUE(own->view()->render());
    EXPECT_TRUE(own->view()->failureText().isEmpty()) << own->view()->failureText().toStdString();
    frmSpreadsheet* grid = m->mnuViewSheet();
    ASSERT_NE(grid, nullptr);
    EXPECT_GT(grid->grid()->model()->rowCount(), lotPoints());

    // The centring tab shows the lot's die size in millimetres.
    m->showTab("kCentering");
    auto* dieX = m->findChild<QLineEdit*>("txtDieSizeX");
    ASSERT_NE(dieX, nullptr);
    EXPECT_DOUBLE_EQ(dieX->text().toDouble(), m->lot()->DieSizeX / 1000.0);
    EXPECT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;
}

TEST_F(MainUi, WorkbookOpenedByItsDialogAndSavedUnderANewName) {
    const std::string raw = simulate("fem", 1);
    answers.push_back(raw);
    ASSERT_TRUE(m->mnuFileOpen());
    const fs::path first = m->workbookPath().toStdString();
    const std::string firstBytes = FileBytes(first);
    const long points = lotPoints();

    // The real dialog this time, answered as a user would.
    frmMain::setFileAsker({});
    bool sawDialog = false;
    OnNextModalOf<QFileDialog>([&](QFileDialog* d) {
        sawDialog = true;
        EXPECT_EQ(d->windowTitle(), "New Spreadsheet Selection");
        d->selectFile(QString::fromStdString(first.string()));
        QMetaObject::invokeMethod(d, "accept", Qt::QueuedConnection);
    });
    action("kOpenWorksheet")->trigger();
    EXPECT_TRUE(sawDialog);
    ASSERT_TRUE(m->lot());
    EXPECT_EQ(lotPoints(), points);

    // Save As: a new file with the data set's subject; the first one untouched.
    frmMain::setFileAsker([this](const QString& title, const QString&, const QString&) {
        asked.push_back({title.toStdString(), {}});
        return QString::fromStdString((dir / "copy.xls").string());
    });
    ASSERT_TRUE(m->mnuFileSaveAs());
    EXPECT_EQ(asked.back().title, "Save Zorv Workbook as ....");
    const fs::path copy = dir / "copy.xlsx";  // our workbooks are .xlsx
    ASSERT_TRUE(fs::exists(copy));
    EXPECT_EQ(FileBytes(first), firstBytes);
    EXPECT_TRUE(rec.sawStatus("File saved: " + copy.string()));
    Result<WorkbookPtr> reread = Workbook::open(copy.string());
    ASSERT_TRUE(reread);
    EXPECT_EQ((*reread)->property("Subject"), "Zorv Wavefront Data Set");

    // The copy opens as a lot of its own, with the same points.
    ASSERT_TRUE(m->mnuFileOpenWorksheet(QString::fromStdString(copy.string())));
    EXPECT_EQ(lotPoints(), points);

    // The wafer map's data asked for, then saved in place: on disk, and the
    // lot reads back the same.
    m->showTab("kMetrology");
    ASSERT_TRUE(m->metrologyPanel()->writePlotData());
    ASSERT_TRUE(m->mnuFileSave());
    {
        Result<WorkbookPtr> saved = Workbook::open(copy.string());
        ASSERT_TRUE(saved);
        EXPECT_NE((*saved)->sheet("WaferRawData"), nullptr);
    }
    Workbooks::CloseAll();
    ASSERT_TRUE(m->mnuFileOpenWorksheet(QString::fromStdString(copy.string())));
    EXPECT_EQ(lotPoints(), points);

    // A reticle copy goes to the reticle folder; the lot's workbook stays.
    const fs::path reticle = dir / "program" / "Reticles" / "ret.xlt";
    fs::create_directories(reticle.parent_path());
    ASSERT_TRUE(m->mnuFileSaveAsReticle(QString::fromStdString(reticle.string())));
    EXPECT_TRUE(fs::exists(reticle));
    EXPECT_EQ(fs::path(m->workbookPath().toStdString()), copy);

    // A layout template under the program folder.
    ASSERT_TRUE(m->mnuSaveAsLayout("MyLayout"));
    bool found = false;
    for (const std::string& s : rec.statuses) found = found || s.rfind("Layout Template saved: ", 0) == 0;
    EXPECT_TRUE(found);
}

TEST_F(MainUi, OpeningWhileALotIsLoadedResetsFirstAndBadInputLeavesTheWindowUsable) {
    const std::string overlay = simulate("overlay");
    ASSERT_TRUE(m->mnuFileOpen(QString::fromStdString(overlay)));
    const std::string overlayWafer = m->lot()->Wafers().At(1)->WaferID;

    // A garbage file: the message, no lot, nothing new on disk.
    const fs::path junkDir = dir / "junk";
    fs::create_directories(junkDir);
    const fs::path junk = junkDir / "garbage.txt";
    std::ofstream(junk) << "this is not\na tool file\n\x01\x02\x03";
    const auto before = Listing(junkDir);
    rec.boxes.clear();
    EXPECT_FALSE(m->mnuFileOpen(QString::fromStdString(junk.string())));
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("garbage.txt"), std::string::npos) << rec.boxes[0].text;
    EXPECT_FALSE(m->lot());
    EXPECT_EQ(Listing(junkDir), before);
    EXPECT_EQ(m->cmbDataSheet()->count(), 0);

    // The window goes on: another lot opens over the first, reset first.
    const std::string fem = simulate("fem", 1);
    ASSERT_TRUE(m->mnuFileOpen(QString::fromStdString(fem)));
    EXPECT_TRUE(m->lot()->LineWidthType);
    EXPECT_EQ(m->lot()->TotalWafers(), 1);
    const fs::path femBook = m->workbookPath().toStdString();
    ASSERT_TRUE(m->mnuFileOpen(QString::fromStdString(overlay)));
    EXPECT_EQ(m->lot()->Wafers().At(1)->WaferID, overlayWafer);
    EXPECT_EQ(m->cmbDataSheet()->findText(QString::fromStdString(femBook.stem().string())), -1);

    // A workbook that is no data workbook: the question, then its sheets
    // offered; the file is not changed.
    const fs::path plain = dir / "plain.xlsx";
    {
        WorkbookPtr wb = Workbook::create(plain.string(), "Notes");
        wb->sheet(1)->setCell(1, 1, Value(std::string("hello")));
        wb->addSheet("More");
        ASSERT_TRUE(wb->save());
    }
    const std::string plainBytes = FileBytes(plain);
    rec.boxes.clear();
    rec.answers.push_back(vbNo);
    EXPECT_FALSE(m->mnuFileOpenWorksheet(QString::fromStdString(plain.string())));
    ASSERT_FALSE(rec.boxes.empty());
    EXPECT_NE(rec.boxes[0].text.find("Cannot locate data sheet:'plain'"), std::string::npos) << rec.boxes[0].text;
    EXPECT_FALSE(m->lot());
    EXPECT_EQ(m->cmbDataSheet()->count(), 2);
    EXPECT_EQ(m->cmbDataSheet()->currentIndex(), -1);
    EXPECT_EQ(FileBytes(plain), plainBytes);
    // Choosing a sheet that holds no data fails with its message; the window stays.
    rec.boxes.clear();
    rec.answers.push_back(vbNo);
    emit m->cmbDataSheet()->activated(0);
    EXPECT_FALSE(m->lot());
    EXPECT_EQ(FileBytes(plain), plainBytes);

    // A data workbook whose sheet lost its name and mark: chosen from the list.
    ASSERT_TRUE(m->mnuFileOpen(QString::fromStdString(fem)));
    const long points = lotPoints();
    const fs::path renamed = dir / "renamed.xlsx";
    {
        Result<WorkbookPtr> wb = Workbook::open(m->workbookPath().toStdString());
        ASSERT_TRUE(wb);
        Worksheet* data = (*wb)->sheet(m->lot()->DataSheetName);
        ASSERT_NE(data, nullptr);
        data->clearComments();
        data->setName("Measured");
        ASSERT_TRUE((*wb)->saveAs(renamed.string()));
    }
    rec.answers.push_back(vbNo);
    EXPECT_FALSE(m->mnuFileOpenWorksheet(QString::fromStdString(renamed.string())));
    const int measured = m->cmbDataSheet()->findText("Measured");
    ASSERT_GE(measured, 0);
    m->cmbDataSheet()->setCurrentIndex(measured);
    emit m->cmbDataSheet()->activated(measured);
    ASSERT_TRUE(m->lot());
    EXPECT_EQ(lotPoints(), points);
}

TEST_F(MainUi, DroppedFilesOpenByExtensionAndWorkbenchesAreReused) {
    const std::string raw = simulate("overlay", 1);
    // A raw file dropped on the layout is imported.
    emit m->layoutPanel()->filesDropped({QString::fromStdString(raw)});
    ASSERT_TRUE(m->lot());
    const QString book = m->workbookPath();
    // A workbook dropped is opened as it is.
    rec.statuses.clear();
    emit m->layoutPanel()->filesDropped({book});
    ASSERT_TRUE(m->lot());
    EXPECT_FALSE(rec.sawStatus("Workbook loaded, setting up display..."));
    EXPECT_TRUE(rec.sawStatus("Open: " + book.toStdString()));

    // The process window: made once, found again; frmMain back when it goes.
    ZorvForm* pw = m->mnuProcessWindow();
    ASSERT_NE(pw, nullptr);
    EXPECT_TRUE(pw->isVisible());
    EXPECT_FALSE(m->isVisible());
    EXPECT_TRUE(rec.sawStatus("Loading Process Window analysis. . . ."));
    EXPECT_EQ(m->mnuProcessWindow(), pw);
    EXPECT_EQ(Current().lot, m->lot());
    auto* pwForm = qobject_cast<frmProcessWindow*>(pw);
    ASSERT_NE(pwForm, nullptr);
    EXPECT_EQ(pwForm->sourceLot(), m->lot());
    // Another lot loaded: the window kept from before takes it.
    m->show();
    ASSERT_TRUE(m->mnuFileOpenWorksheet(book));
    EXPECT_EQ(m->mnuProcessWindow(), pw);
    EXPECT_EQ(pwForm->sourceLot(), m->lot());
    pw->Unload();
    EXPECT_TRUE(m->isVisible());
    ZorvForm* cal = m->mnuFocusCalibrate();
    EXPECT_NE(cal, nullptr);
    EXPECT_TRUE(rec.sawStatus("Loading Focus Calibration..."));
    EXPECT_EQ(qobject_cast<frmCalibrate*>(cal)->sourceLot(), m->lot());
    cal->Unload();
    EXPECT_TRUE(m->isVisible());
    // The reticle workbench takes the loaded lot as its lot side.
    auto* ret = qobject_cast<frmReticle*>(m->mnuMaskFactor());
    ASSERT_NE(ret, nullptr);
    EXPECT_EQ(ret->lot(), m->lot());
    EXPECT_FALSE(m->isVisible());
    ret->Unload();
    EXPECT_TRUE(m->isVisible());
    // The toolbar's "Setup" is the monitor's setup window, not the monitor.
    m->toolAction("kDailyMonitorSetup")->trigger();
    ASSERT_NE(forms().frmDailyMonitorSetup, nullptr);
    EXPECT_TRUE(forms().frmDailyMonitorSetup->isVisible());
    EXPECT_EQ(forms().frmDailyMonitor, nullptr);
    forms().frmDailyMonitorSetup->Unload();
    EXPECT_TRUE(m->isVisible());

    // Saving with nothing loaded says so and writes nothing.
    m->ResetObjects();
    rec.boxes.clear();
    EXPECT_FALSE(m->mnuFileSaveAs(QString::fromStdString((dir / "none.xlsx").string())));
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "Please open a data file first.");
    EXPECT_FALSE(fs::exists(dir / "none.xlsx"));
}

TEST_F(MainUi, EveryNamedControlOfTheWindowHasAUniqueName) {
    // Tests and scripts find controls by name: two tabs must not share one.
    std::map<QString, int> seen;
    for (QObject* o : m->findChildren<QObject*>()) {
        const QString n = o->objectName();
        if (n.isEmpty() || n.startsWith("qt_") || !(qobject_cast<QWidget*>(o) || qobject_cast<QAction*>(o))) continue;
        if (qobject_cast<QTabBar*>(o->parent())) continue;  // Qt's own scroll buttons
        ++seen[n];
    }
    for (const auto& [name, count] : seen) EXPECT_EQ(count, 1) << name.toStdString();
    EXPECT_TRUE(seen.count("txtNA") && seen.count("cmbVariable") && seen.count("pctLayout"));
}

TEST_F(MainUi, EscStopsALoadAndTheWindowGoesOn) {
    // The real reporter: the status line runs events, so a key gets in.
    GuiReporter gui;
    gui.install();
    SimulateOptions o;
    o.outDir = (dir / "big").string();
    o.wafers = 4;
    o.rows = 20000;
    Result<SimulateOutput> sim = Simulate("overlay", o);
    ASSERT_TRUE(sim);
    // The workbook first, quietly.
    Result<ImportRequest> req = GetDataFile((fs::path(o.outDir) / sim->file).string());
    ASSERT_TRUE(req);
    Result<std::string> book = ImportRawData(*req);
    ASSERT_TRUE(book);
    const std::string bytes = FileBytes(*book);

    // Esc waits in the queue; the load's first look at the events takes it.
    QCoreApplication::postEvent(m, new QKeyEvent(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier));
    QString boxText;
    OnNextModal([&](QWidget* w) {
        if (auto* box = qobject_cast<QMessageBox*>(w)) {
            boxText = box->text();
            box->accept();
        }
    });
    EXPECT_FALSE(m->mnuFileOpenWorksheet(QString::fromStdString(*book)));
    EXPECT_FALSE(m->lot());
    EXPECT_NE(boxText.indexOf("Aborting data load"), -1) << boxText.toStdString();
    EXPECT_FALSE(m->isWorking());
    EXPECT_TRUE(m->menuBar()->isEnabled());
    EXPECT_EQ(FileBytes(*book), bytes);
    // Without Esc the same file loads.
    ASSERT_TRUE(m->mnuFileOpenWorksheet(QString::fromStdString(*book)));
    EXPECT_EQ(m->lot()->TotalPoints(nullptr, true), 20000);
    gui.uninstall();
    SetReporter(&rec);
}
