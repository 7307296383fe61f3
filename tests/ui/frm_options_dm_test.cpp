// The monitor's options window: a batch gathered from a folder of files by
// pattern and by drop, stored in a workbook and read back cell by cell
// against the folder as the test lists it; batches deleted on Yes only; each
// of the window's messages; the settings a second window reads; bad input
// that leaves the settings file and the workbook as they were.
#include <QCheckBox>
#include <QComboBox>
#include <QDropEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPushButton>
#include <QTabWidget>
#include <QUrl>
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>

#include "app/settings.h"
#include "base/regional.h"
#include "monitor/dm_options.h"
#include "monitor/dm_run.h"
#include "ui/frm_options_dm.h"
#include "ui_fixture.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

std::string Lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// The folder's files whose extension is `ext` (any case), or all with "",
// sorted by name: the listing the window must match.
BatchList FolderListing(const fs::path& dir, const std::string& ext) {
    BatchList out;
    for (const auto& e : fs::directory_iterator(dir))
        if (e.is_regular_file() && (ext.empty() || Lower(e.path().extension().string()) == ext))
            out.emplace_back(e.path().filename().string(), dir.string());
    std::sort(out.begin(), out.end());
    return out;
}

std::string CellString(Worksheet* ws, int r, int c) { return ws->cell(r, c).toString(); }

class OptionsDMTest : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        root_ = fs::path(ZORV_TEST_TMP) / ("options-dm-" + std::to_string(getpid()));
        fs::remove_all(root_);
        data_ = root_ / "data";
        fs::create_directories(data_ / "sub");
        for (const char* f : {"lot1.txt", "lot2.txt", "LOT3.TXT", "summary.csv", "readme"})
            std::ofstream(data_ / f) << f << "\n";
        std::ofstream(data_ / "sub" / "inner.txt") << "x\n";
        frmOptionsDM::setFileAsker({});
    }
    void TearDown() override {
        frmOptionsDM::setFileAsker({});
        SetRegionalSeparatorsForTest('\0', '\0');
        Workbooks::CloseAll();
        UiTest::TearDown();
        fs::remove_all(root_);
    }
    frmOptionsDM* open() {
        auto* f = new frmOptionsDM;
        f->Load();
        return f;
    }
    // A workbook with one plain sheet, saved.
    std::string makeWorkbook(const std::string& name) {
        const std::string path = (root_ / name).string();
        auto wb = Workbook::create(path, "Layout");
        wb->sheet("Layout")->setCell(1, 1, Value("Layout"));
        EXPECT_TRUE(wb->save().ok());
        return path;
    }
    bool boxSaid(const std::string& text) const {
        for (const auto& b : rec.boxes)
            if (b.text.find(text) != std::string::npos) return true;
        return false;
    }
    void drop(frmOptionsDM* f, const std::vector<fs::path>& paths) {
        QMimeData mime;
        QList<QUrl> urls;
        for (const fs::path& p : paths) urls << QUrl::fromLocalFile(QString::fromStdString(p.string()));
        mime.setUrls(urls);
        QWidget* vp = f->lstBatchFiles()->viewport();
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(vp, &enter);
        EXPECT_TRUE(enter.isAccepted());
        QDropEvent d(QPointF(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(vp, &d);
    }
    fs::path root_, data_;
};

}  // namespace

TEST_F(OptionsDMTest, BatchFromFolderAndDropIsStoredAsTheFolderLists) {
    frmOptionsDM* f = open();
    f->txtBatchFolder()->setText(QString::fromStdString(data_.string()));
    f->cmbFileType()->setEditText("*.txt");
    EXPECT_EQ(f->cmdBatchGetFile(), 3);
    EXPECT_EQ(f->lstBatchFiles()->files(), FolderListing(data_, ".txt"));  // the sub folder's file stays out
    EXPECT_EQ(f->lstBatchFiles()->horizontalHeaderItem(0)->text(), "File");
    EXPECT_EQ(f->lstBatchFiles()->horizontalHeaderItem(1)->text(), "Folder");

    // A drop adds what is new; the same files again add nothing.
    drop(f, {data_ / "summary.csv", data_ / "lot1.txt"});
    EXPECT_EQ(f->lstBatchFiles()->rowCount(), 4);
    drop(f, {data_ / "summary.csv"});
    EXPECT_EQ(f->lstBatchFiles()->rowCount(), 4);
    // Then every file by the default pattern: the whole folder, once each.
    f->cmbFileType()->setCurrentIndex(0);
    EXPECT_EQ(f->cmbFileType()->currentText(), "*.*");
    EXPECT_EQ(f->cmdBatchGetFile(), 1);  // only "readme" is new
    BatchList shown = f->lstBatchFiles()->files();
    std::sort(shown.begin(), shown.end());
    const BatchList all = FolderListing(data_, "");
    EXPECT_EQ(shown, all);

    const std::string wbPath = makeWorkbook("Monitor.xlsx");
    ASSERT_TRUE(f->OpenBatchWorkbook(QString::fromStdString(wbPath)));
    EXPECT_EQ(f->cmbBatch()->count(), 0);
    f->cmbBatch()->setEditText("Night Shift");
    ASSERT_TRUE(f->SaveBatch());
    EXPECT_EQ(rec.boxes.back().text, "Batch list saved to: 'NightShift' in 'Monitor.xlsx'");
    EXPECT_EQ(f->cmbBatch()->count(), 1);

    // The file on disk, read here cell by cell.
    auto back = Workbook::open(wbPath);
    ASSERT_TRUE(back.ok());
    Worksheet* ws = (*back)->sheet("NightShift");
    ASSERT_NE(ws, nullptr);
    EXPECT_EQ(CellString(ws, 1, 1), "File");
    EXPECT_EQ(CellString(ws, 1, 2), "Folder");
    BatchList stored;
    for (int r = 2; !CellString(ws, r, 1).empty(); ++r) stored.emplace_back(CellString(ws, r, 1), CellString(ws, r, 2));
    std::sort(stored.begin(), stored.end());
    EXPECT_EQ(stored, all);
    bool marked = false;
    for (const Comment& c : ws->comments()) marked = marked || c.text.find("BATCHFILE") != std::string::npos;
    EXPECT_TRUE(marked);
    EXPECT_NE((*back)->sheet("Layout"), nullptr);
    EXPECT_EQ(GetSetting(kDMSettingsApp, "Batch", "BatchName"), "NightShift");

    // A second window opened on the batch shows the stored rows.
    f->Unload();
    frmOptionsDM* g = frmOptionsDM::BatchFile(QString::fromStdString(wbPath), true, false, "NightShift");
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g->tabs()->currentIndex(), frmOptionsDM::kBatch);
    BatchList again = g->lstBatchFiles()->files();
    std::sort(again.begin(), again.end());
    EXPECT_EQ(again, all);
}

TEST_F(OptionsDMTest, BatchMessages) {
    frmOptionsDM* f = open();
    // No folder, then one that is not there.
    EXPECT_EQ(f->cmdBatchGetFile(), -1);
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "frmOptionsDM(cmdBatchGetFile): \r\nPlease specify a data folder. chk: 1");
    f->txtBatchFolder()->setText(QString::fromStdString((root_ / "nowhere").string()));
    EXPECT_EQ(f->cmdBatchGetFile(), -1);
    EXPECT_TRUE(boxSaid("Please specify a data folder."));

    rec.boxes.clear();
    EXPECT_FALSE(f->SaveBatch());
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("No files selected for Batch Processing"), std::string::npos);

    f->txtBatchFolder()->setText(QString::fromStdString(data_.string()));
    ASSERT_GT(f->cmdBatchGetFile(), 0);
    rec.boxes.clear();
    f->cmbBatch()->setEditText("Nightly");
    EXPECT_FALSE(f->SaveBatch());
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("A workbook for batch storage was not specified."), std::string::npos);
}

TEST_F(OptionsDMTest, DeleteOneAndAllOnYesOnly) {
    const std::string wbPath = makeWorkbook("Batches.xlsx");
    {
        auto wb = Workbook::open(wbPath);
        ASSERT_TRUE(wb.ok());
        ASSERT_TRUE(SaveBatchSheet(**wb, "Nightly", {{"a.txt", data_.string()}}).ok());
        ASSERT_TRUE(SaveBatchSheet(**wb, "Weekly", {{"b.txt", data_.string()}}).ok());
    }
    frmOptionsDM* f = open();
    ASSERT_TRUE(f->OpenBatchWorkbook(QString::fromStdString(wbPath)));
    ASSERT_EQ(f->cmbBatch()->count(), 2);
    f->cmbBatch()->setCurrentIndex(f->cmbBatch()->findText("Nightly"));

    const std::string before = FileBytes(wbPath);
    rec.answers = {vbNo};
    EXPECT_EQ(f->DeleteBatch(false), 0);
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "This command will delete Batch:  [Nightly] \r\nAre you sure you wish to proceed?");
    EXPECT_EQ(rec.boxes[0].flags & vbYesNo, vbYesNo);
    EXPECT_EQ(FileBytes(wbPath), before);

    rec.answers = {vbYes};
    EXPECT_EQ(f->DeleteBatch(false), 1);
    {
        auto back = Workbook::open(wbPath);
        ASSERT_TRUE(back.ok());
        EXPECT_EQ((*back)->sheet("Nightly"), nullptr);
        EXPECT_NE((*back)->sheet("Weekly"), nullptr);
    }
    EXPECT_EQ(f->cmbBatch()->count(), 1);

    const std::string one = FileBytes(wbPath);
    rec.boxes.clear();
    rec.answers = {vbNo};
    EXPECT_EQ(f->DeleteBatch(true), 0);
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "This command will delete ALL Batch listing. ");
    EXPECT_EQ(FileBytes(wbPath), one);
    rec.answers = {vbYes};
    EXPECT_EQ(f->DeleteBatch(true), 1);
    auto back = Workbook::open(wbPath);
    ASSERT_TRUE(back.ok());
    EXPECT_TRUE(GetBatchSheets(**back).empty());
    EXPECT_NE((*back)->sheet("Layout"), nullptr);
    EXPECT_EQ(f->cmbBatch()->count(), 0);
}

TEST_F(OptionsDMTest, SettingsRoundTripWithPointDecimal) {
    // A machine that writes "," as its decimal: the settings still hold ".".
    SetRegionalSeparatorsForTest(',', '.');
    const fs::path made = root_ / "new" / "templates";
    frmOptionsDM* f = open();
    f->txtTemplateFolder()->setText(QString::fromStdString(made.string()));
    f->txtDataFolder()->setText(QString::fromStdString(data_.string()));
    f->txtReticleFolder()->setText(QString::fromStdString(data_.string()));
    f->chkStoreInDataDirectory()->setChecked(false);
    // Kept in its back-slash form, but made where it really is.
    f->txtDataStorageDirectory()->setText(QString::fromStdString((root_ / "store").string()));
    f->cmbImportFilter()->setCurrentIndex(2);
    const QString filter = f->cmbImportFilter()->currentText();
    f->chkLogData()->setChecked(true);
    f->chkLimitFileSize()->setChecked(true);
    f->txtMaxLines()->setText("100");
    f->txtMinLines()->setText("100");
    f->txtDisplayTime()->setText("45,5");
    f->txtBatchFolder()->setText(QString::fromStdString(data_.string()));
    f->cmbFileType()->setCurrentIndex(1);
    // 100 and 100: a cut above 250 lines, keeping 150.
    EXPECT_NE(f->lblLogRule()->text().indexOf("passes 250 lines"), -1);
    EXPECT_NE(f->lblLogRule()->text().indexOf("newest 150 lines"), -1);
    ASSERT_TRUE(f->ApplyOptions());
    EXPECT_TRUE(fs::is_directory(made));
    EXPECT_TRUE(fs::is_directory(root_ / "store"));
    EXPECT_TRUE(rec.boxes.empty());

    const char* app = kDMSettingsApp;
    EXPECT_EQ(GetSetting(app, "DailyMonitor", "TemplateSource"), made.string());
    EXPECT_EQ(GetSetting(app, "DailyMonitor", "DataFolder"), data_.string());
    EXPECT_EQ(GetSetting(app, "DailyMonitor", "StoreInDataDirectory"), "0");
    EXPECT_EQ(GetSetting(app, "DailyMonitor", "ImportFilter"), filter.toStdString());
    EXPECT_EQ(GetSetting(app, "DailyMonitor", "DMAlimitFileSize"), "1");
    EXPECT_EQ(GetSetting(app, "DailyMonitor", "DMAmaxLines"), "100");
    EXPECT_EQ(GetSetting(app, "DailyMonitor", "DMAminLines"), "100");
    EXPECT_EQ(GetSetting(app, "DailyMonitor", "DMA_DisplayTime"), "45.5");
    EXPECT_EQ(GetSetting(app, "Settings", "chkLogData"), "1");
    EXPECT_EQ(GetSetting(app, "Batch", "FileType"), "1");
    EXPECT_EQ(GetSetting(app, "Batch", "Folder"), data_.string());
    f->Unload();

    frmOptionsDM* g = open();
    EXPECT_EQ(g->txtTemplateFolder()->text().toStdString(), made.string());
    EXPECT_EQ(g->txtDataFolder()->text().toStdString(), data_.string());
    EXPECT_FALSE(g->chkStoreInDataDirectory()->isChecked());
    EXPECT_EQ(g->cmbImportFilter()->currentText(), filter);
    EXPECT_TRUE(g->chkLogData()->isChecked());
    EXPECT_TRUE(g->chkLimitFileSize()->isChecked());
    EXPECT_EQ(g->txtMaxLines()->text(), "100");
    EXPECT_EQ(g->txtDisplayTime()->text(), "45.5");
    EXPECT_EQ(g->cmbFileType()->currentIndex(), 1);
    EXPECT_EQ(g->txtBatchFolder()->text().toStdString(), data_.string());
}

TEST_F(OptionsDMTest, BadInputLeavesTheFilesAlone) {
    frmOptionsDM* f = open();
    ASSERT_TRUE(f->ApplyOptions());  // the defaults, so that the file exists
    const std::string before = FileBytes(settings_);
    ASSERT_FALSE(before.empty());

    f->txtDataFolder()->setText(QString::fromStdString(data_.string()));
    f->txtMaxLines()->setText("many");
    EXPECT_FALSE(f->ApplyOptions());
    EXPECT_TRUE(boxSaid("The number of log lines must be a whole number: 'many'"));
    EXPECT_EQ(f->tabs()->currentIndex(), frmOptionsDM::kLogging);
    EXPECT_EQ(FileBytes(settings_), before);

    f->txtMaxLines()->setText("-1");
    f->txtDisplayTime()->setText("soon");
    EXPECT_FALSE(f->ApplyOptions());
    EXPECT_EQ(FileBytes(settings_), before);

    // A folder beneath a file can't be made; the folder before it is not made either.
    f->txtDisplayTime()->setText("60");
    const fs::path first = root_ / "first";
    f->txtTemplateFolder()->setText(QString::fromStdString(first.string()));
    f->txtReticleFolder()->setText(QString::fromStdString((data_ / "readme" / "reticles").string()));
    rec.boxes.clear();
    EXPECT_FALSE(f->ApplyOptions());
    ASSERT_EQ(rec.boxes.size(), 1u);
    const std::string& m = rec.boxes[0].text;
    std::string label = "The default Reticle Folder: '";
    label.append((data_ / "readme" / "reticles").string()).append("'");
    EXPECT_NE(m.find(label), std::string::npos);
    EXPECT_NE(m.find("Specified in your Daily Monitor Options setup does not exist and could not be created."),
              std::string::npos);
    EXPECT_NE(m.find("Please correct the folder location in your 'Tools/Options' menu."), std::string::npos);
    EXPECT_FALSE(fs::exists(first));
    EXPECT_EQ(FileBytes(settings_), before);

    // A sheet of the workbook that is no batch list is not overwritten.
    const std::string wbPath = makeWorkbook("Plain.xlsx");
    const std::string wbBefore = FileBytes(wbPath);
    f->txtBatchFolder()->setText(QString::fromStdString(data_.string()));
    ASSERT_GT(f->cmdBatchGetFile(), 0);
    ASSERT_TRUE(f->OpenBatchWorkbook(QString::fromStdString(wbPath)));
    f->cmbBatch()->setEditText("Layout");
    rec.boxes.clear();
    EXPECT_FALSE(f->SaveBatch());
    EXPECT_TRUE(boxSaid("is not a batch list."));
    f->cmbBatch()->setEditText("Bad:Name");
    EXPECT_FALSE(f->SaveBatch());
    EXPECT_EQ(rec.boxes.size(), 2u);
    EXPECT_EQ(FileBytes(wbPath), wbBefore);
    // A workbook that is not there.
    EXPECT_FALSE(f->OpenBatchWorkbook(QString::fromStdString((root_ / "missing.xlsx").string())));
    EXPECT_FALSE(fs::exists(root_ / "missing.xlsx"));
}

TEST_F(OptionsDMTest, BrowseAsksThroughTheHookAndTabsLookRight) {
    std::vector<QString> asked;
    frmOptionsDM::setFileAsker([&](const QString& title, const QString& filter, const QString&) {
        asked.push_back(title + "|" + filter);
        return QString::fromStdString(data_.string());
    });
    frmOptionsDM* f = open();
    auto* browse = f->findChild<QPushButton*>("cmdBrowse_txtDataFolder");
    ASSERT_NE(browse, nullptr);
    browse->click();
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_TRUE(asked[0].endsWith("|"));  // a folder is asked for
    EXPECT_EQ(f->txtDataFolder()->text().toStdString(), data_.string());

    // Pictures of each tab for a look by eye.
    f->findChild<QPushButton*>("cmdBrowse_txtBatchFolder")->click();
    f->cmdBatchGetFile();
    ASSERT_TRUE(f->OpenBatchWorkbook(QString::fromStdString(makeWorkbook("Monitor.xlsx"))));
    f->cmbBatch()->setEditText("Nightly");
    ASSERT_TRUE(f->SaveBatch());
    f->chkLimitFileSize()->setChecked(true);
    f->txtMaxLines()->setText("2000");
    f->txtMinLines()->setText("500");
    f->resize(760, 540);
    f->show();
    const fs::path shots = fs::path(ZORV_TEST_TMP) / "shots";
    fs::create_directories(shots);
    const char* names[] = {"frmOptionsDM-folders.png", "frmOptionsDM-logging.png", "frmOptionsDM-batch.png"};
    for (int i = 0; i < 3; ++i) {
        f->tabs()->setCurrentIndex(i);
        QCoreApplication::processEvents();
        EXPECT_TRUE(f->grab().save(QString::fromStdString((shots / names[i]).string())));
    }
}

TEST_F(OptionsDMTest, PatternsAsTheFileDialogTakesThem) {
    EXPECT_TRUE(MatchesFilePattern("readme", "*.*"));
    EXPECT_TRUE(MatchesFilePattern("LOT3.TXT", "lot?.txt"));
    EXPECT_FALSE(MatchesFilePattern("lot10.txt", "lot?.txt"));
    EXPECT_TRUE(MatchesFilePattern("a.xlsx", "*.xls;*.xlsx"));
    EXPECT_TRUE(MatchesFilePattern("b.msr", "*.txt, *.msr"));
    EXPECT_FALSE(MatchesFilePattern("b.msr.bak", "*.msr"));
    EXPECT_TRUE(MatchesFilePattern("w01_x.csv", "w*_*.csv"));

    frmOptionsDM* f = open();
    f->txtBatchFolder()->setText(QString::fromStdString(data_.string()));
    f->cmbFileType()->setEditText("lot?.txt");
    EXPECT_EQ(f->cmdBatchGetFile(), 3);  // lot1.txt, lot2.txt, LOT3.TXT
}
