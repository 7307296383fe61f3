// The template maintenance window on a library file written here by hand
// (UTF-16 with its mark, CR LF lines): what it shows against the values
// written, and every write read back from the file by a fresh library;
// refused input and a "No" leave the file's bytes as they were.
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QTabWidget>
#include <QTableWidget>
#include <QTreeWidget>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "calib/template_library.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "ui/chart_view.h"
#include "ui/frm_template_maintenance.h"
#include "ui_fixture.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

using Lines = std::vector<std::string>;

// ASCII lines as the library stores them: FF FE, then each character and a
// zero byte, CR LF after each line.
std::string Utf16(const Lines& lines) {
    std::string b = "\xFF\xFE";
    for (const std::string& l : lines) {
        for (char c : l + "\r\n") {
            b.push_back(c);
            b.push_back('\0');
        }
    }
    return b;
}

Lines FromUtf16(const std::string& bytes) {
    std::string text;
    for (size_t i = 2; i + 1 < bytes.size(); i += 2) text.push_back(bytes[i]);
    Lines out;
    size_t at = 0;
    for (size_t e; (e = text.find("\r\n", at)) != std::string::npos; at = e + 2) out.push_back(text.substr(at, e - at));
    return out;
}

void Append(Lines& a, const Lines& b) { a.insert(a.end(), b.begin(), b.end()); }

// A version 3 site: exposure, place, key, zero and first order with their
// errors, twelve higher order zeros.
Lines Site(const std::string& dose, const std::string& x, const std::string& y, const std::string& key,
           const std::string& offX, const std::string& offY, const std::string& slopeX, const std::string& slopeY) {
    Lines l = {dose, "0.75", "0", "0", x, y, key, offX, "0.001", offY, "0.002", slopeX, "0.01", slopeY, "0.02"};
    for (int i = 0; i < 12; ++i) l.push_back("0");
    return l;
}

Lines Line9(const std::string& key, const std::string& at, const std::string& piston, const std::string& se) {
    return {key, at, piston, se, "1.5", "0.1", "0", "0", "0.001"};
}

Lines Header(const std::string& name, const Lines& comment, const std::string& dataSet, int sites, int sets) {
    Lines l = {name, "CommentLines: " + std::to_string(comment.empty() ? 1 : comment.size())};
    if (comment.empty())
        l.push_back("");
    else
        Append(l, comment);
    Append(l, {dataSet, "3/4/2020", "8/9/2021", "RET-" + name, "0", "SitesTotal: " + std::to_string(sites),
               "BestFocusSets: " + std::to_string(sets)});
    return l;
}

// Alpha: four sites of one exposure and a best focus set of two rows and two
// columns; Beta: one site at two doses; Gamma: one site.
Lines Alpha() {
    Lines l = Header("Alpha", {"first line", "second line"}, "LotA", 4, 1);
    Append(l, Site("20", "-5000", "-5000", "1_20_0.75_0_0", "0.01", "0.02", "-6.5", "7.1"));
    Append(l, Site("20", "5000", "-5000", "2_20_0.75_0_0", "0.03", "0.04", "-6.6", "7.2"));
    Append(l, Site("20", "-5000", "5000", "3_20_0.75_0_0", "-0.01", "0.05", "-6.7", "7.3"));
    Append(l, Site("20", "5000", "5000", "4_20_0.75_0_0", "0.02", "-0.03", "-6.8", "7.4"));
    Append(l, {"20_0.75_0_0", "20", "0.75", "0", "0", "Rows: 2", "Columns: 2"});
    Append(l, Line9("R1", "-5", "0.015", "0.002"));
    Append(l, Line9("R2", "5", "0.005", "0.003"));
    Append(l, Line9("C1", "-5", "0.025", "0.004"));
    Append(l, Line9("C2", "5", "0.01", "0.001"));
    return l;
}
Lines Beta() {
    Lines l = Header("Beta", {}, "LotB", 2, 0);
    Append(l, Site("20", "0", "0", "1_20_0.75_0_0", "0.1", "0.2", "-5", "5"));
    Append(l, Site("22", "0", "0", "1_22_0.75_0_0", "0.3", "0.4", "-5", "5"));
    return l;
}
Lines Gamma() {
    Lines l = Header("Gamma", {"g"}, "LotG", 1, 0);
    Append(l, Site("19", "5", "0", "39_19_0.75_0_0", "2.809E-02", "6.0E-02", "-6.91", "7.35"));
    return l;
}

Lines Library(const std::vector<Lines>& templates) {
    Lines l = {"Version: 3", "TemplatesTotal: " + std::to_string(templates.size())};
    for (const Lines& t : templates) Append(l, t);
    return l;
}

std::string Texts(const QComboBox* c) {
    std::string s;
    for (int i = 0; i < c->count(); ++i) s.append(i ? "|" : "").append(c->itemText(i).toStdString());
    return s;
}

bool SawBox(const RecordingReporter& rec, const std::string& text, const std::string& title) {
    for (const auto& b : rec.boxes)
        if (b.text == text && b.title == title) return true;
    return false;
}

}  // namespace

class TemplateMaintenanceUi : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = fs::path(ZORV_TEST_TMP) / ("template-window-" + std::to_string(getpid())) / info->name();
        fs::remove_all(dir_);
        fs::create_directories(folder());
    }
    void TearDown() override {
        UiTest::TearDown();
        fs::remove_all(dir_.parent_path());
    }
    fs::path folder() const { return dir_ / "Templates"; }
    fs::path file() const { return folder() / "ZORVpsfm.tpl"; }
    void write(const Lines& lines) {
        std::ofstream out(file(), std::ios::binary | std::ios::trunc);
        const std::string b = Utf16(lines);
        out.write(b.data(), static_cast<std::streamsize>(b.size()));
    }
    void writeThree() { write(Library({Alpha(), Beta(), Gamma()})); }
    frmTemplateMaintenance* open() {
        frmTemplateMaintenance* f = frmTemplateMaintenance::Open(nullptr, QString::fromStdString(folder().string()));
        if (f) f->resize(1240, 780);
        return f;
    }
    // The file as a fresh library reads it.
    std::unique_ptr<cTemplateLibrary> readBack() {
        auto lib = std::make_unique<cTemplateLibrary>(folder().string());
        EXPECT_TRUE(lib->FileGet().ok());
        return lib;
    }
    static std::string Names(const cTemplateLibrary& lib) {
        std::string s;
        for (const auto& t : lib.Templates()) s.append(s.empty() ? "" : "|").append(t->NameTemplate);
        return s;
    }
    void choose(frmTemplateMaintenance* f, const char* name) {
        f->cmbTemplate()->setCurrentIndex(f->cmbTemplate()->findText(name));
        ASSERT_EQ(f->currentTemplate()->NameTemplate, name);
    }
    fs::path dir_;
};

TEST_F(TemplateMaintenanceUi, ShowsTemplatesAndTheirBestFocus) {
    writeThree();
    frmTemplateMaintenance* f = open();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->windowTitle(), "Zorv Template Maintenance");
    ASSERT_EQ(f->tabTM()->count(), 2);
    EXPECT_EQ(Texts(f->cmbTemplate()), "Alpha|Beta|Gamma");
    ASSERT_EQ(f->lstLibrary()->topLevelItemCount(), 3);
    EXPECT_EQ(f->lstLibrary()->topLevelItem(1)->text(0), "Beta");
    EXPECT_EQ(f->lstLibrary()->topLevelItem(0)->text(4), "4");
    EXPECT_EQ(f->lstLibrary()->topLevelItem(0)->text(5), "1");
    EXPECT_TRUE(rec.sawStatus("Getting template: Alpha"));
    EXPECT_TRUE(rec.sawStatus("Best Focus items update ..."));

    // Alpha's fields and sites as written.
    EXPECT_EQ(f->lblDataSet()->text(), "LotA");
    EXPECT_EQ(f->lblReticle()->text(), "RET-Alpha");
    EXPECT_EQ(f->lblComment()->text(), "first line\nsecond line");
    EXPECT_EQ(f->txtSaveAs()->text(), "Alpha");
    ASSERT_EQ(f->tblSites()->rowCount(), 4);
    EXPECT_EQ(f->tblSites()->item(2, 0)->text(), "3");
    EXPECT_EQ(f->tblSites()->item(2, 6)->text(), "-5000");   // X (um)
    EXPECT_EQ(f->tblSites()->item(2, 8)->text(), "-0.01");   // OffsetX
    EXPECT_EQ(f->tblSites()->item(3, 14)->text(), "7.4");    // SlopeY
    EXPECT_EQ(Texts(f->cmbDisplayData()), "Best Focus|BestFocus: 20_0.75_0_0");

    // "Best Focus": each site's focus at zero shift, in nanometres on the map's lot.
    ASSERT_NE(f->chart(), nullptr);
    ASSERT_TRUE(f->chart()->Lot());
    EXPECT_TRUE(f->chtTemplate()->failureText().isEmpty()) << f->chtTemplate()->failureText().toStdString();
    double v2 = 0, h4 = 0;
    f->chart()->Lot()->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
        if (s.NumberKey() == 2) v2 = p.ValueV;
        if (s.NumberKey() == 4) h4 = p.ValueH;
    });
    EXPECT_NEAR(v2, 30, 1e-4);
    EXPECT_NEAR(h4, -30, 1e-4);
    ASSERT_EQ(f->tblDisplayData()->rowCount(), 1);  // one exposure set, with best focus
    EXPECT_EQ(f->tblDisplayData()->item(0, 1)->text(), "20");
    EXPECT_EQ(f->tblDisplayData()->item(0, 5)->text(), "1");

    // The best focus set: rows and columns at their locations.
    f->cmbDisplayData()->setCurrentIndex(1);
    EXPECT_EQ(f->chart()->TitleObj.TitleString, "[Dose,NA,PCouter,PCinnter]: [20,0.75,0,0]");
    EXPECT_TRUE(f->chtTemplate()->failureText().isEmpty()) << f->chtTemplate()->failureText().toStdString();
    const cSeries* rows = f->chart()->Series.Item("Rows");
    const cSeries* cols = f->chart()->Series.Item("Columns");
    ASSERT_TRUE(rows && cols);
    const Datam re = rows->Elements(), ce = cols->Elements();
    ASSERT_EQ(re.rowUb(), 2);
    ASSERT_EQ(ce.rowUb(), 2);
    EXPECT_NEAR(re(1, 3).toDouble(), -5, 1e-6);
    EXPECT_NEAR(re(1, 4).toDouble(), 0.015, 1e-6);
    EXPECT_NEAR(ce(2, 3).toDouble(), 5, 1e-6);
    EXPECT_NEAR(ce(2, 4).toDouble(), 0.01, 1e-6);
    ASSERT_EQ(f->tblDisplayData()->rowCount(), 4);
    EXPECT_EQ(f->tblDisplayData()->item(2, 0)->text(), "Column");
    EXPECT_EQ(f->tblDisplayData()->item(2, 2)->text(), "0.025");

    // Beta: two exposure sets, no best focus set; its comment is empty.
    choose(f, "Beta");
    EXPECT_TRUE(rec.sawStatus("Getting template: Beta"));
    EXPECT_EQ(Texts(f->cmbDisplayData()), "Best Focus");
    EXPECT_EQ(f->lblComment()->text(), "");
    ASSERT_EQ(f->tblDisplayData()->rowCount(), 2);
    EXPECT_EQ(f->tblDisplayData()->item(1, 1)->text(), "22");
    EXPECT_EQ(f->tblDisplayData()->item(1, 5)->text(), "0");
    // The library list follows the choice, and a choice there follows back.
    EXPECT_EQ(f->lstLibrary()->currentItem()->text(0), "Beta");
    f->lstLibrary()->setCurrentItem(f->lstLibrary()->topLevelItem(2));
    EXPECT_EQ(f->cmbTemplate()->currentText(), "Gamma");
    EXPECT_NEAR(f->tblSites()->item(0, 8)->text().toDouble(), 0.02809, 1e-9);
    EXPECT_TRUE(rec.boxes.empty());

    // The chart exports.
    const fs::path png = dir_ / "set.png";
    choose(f, "Alpha");
    f->cmbDisplayData()->setCurrentIndex(1);
    EXPECT_TRUE(f->chtTemplate()->saveTo(QString::fromStdString(png.string())));
    EXPECT_GT(fs::file_size(png), 1000u);
}

TEST_F(TemplateMaintenanceUi, CommentAndSaveCopy) {
    writeThree();
    const std::string before = FileBytes(file());
    frmTemplateMaintenance* f = open();
    ASSERT_NE(f, nullptr);
    choose(f, "Beta");
    f->txtComment()->setPlainText("line one\nline two\nline three");
    f->cmdSave()->click();
    EXPECT_TRUE(rec.sawStatus("Template Saved: Beta"));
    EXPECT_TRUE(rec.boxes.empty());
    // The previous file stays beside it.
    EXPECT_EQ(FileBytes(folder() / "ZORVpsfm.stp"), before);
    {
        auto lib = readBack();
        EXPECT_EQ(Names(*lib), "Alpha|Beta|Gamma");
        EXPECT_EQ(lib->Templates()[1]->Comment, "line one\r\nline two\r\nline three");
        EXPECT_EQ(lib->Templates()[1]->sites.Count(), 2);
        EXPECT_EQ(lib->Templates()[0]->BestFocusSets.Item(1)->CalColumns.Count(), 2);
        EXPECT_EQ(lib->Templates()[0]->Comment, "first line\r\nsecond line");
    }
    // Beta's record in the file: its comment as three lines.
    const Lines text = FromUtf16(FileBytes(file()));
    const auto at = std::find(text.begin(), text.end(), "Beta");
    ASSERT_NE(at, text.end());
    ASSERT_GT(text.end() - at, 5);
    EXPECT_EQ(*(at + 1), "CommentLines: 3");
    EXPECT_EQ(*(at + 3), "line two");
    EXPECT_EQ(*(at + 5), "LotB");

    // A new name saves a copy under it, which becomes the window's template.
    choose(f, "Alpha");
    f->txtSaveAs()->setText("AlphaCopy");
    f->txtComment()->setPlainText("copied");
    ASSERT_TRUE(f->cmdSaveCalTemplate());
    EXPECT_TRUE(rec.sawStatus("Template Saved: AlphaCopy"));
    EXPECT_EQ(f->cmbTemplate()->currentText(), "AlphaCopy");
    EXPECT_EQ(Texts(f->cmbTemplate()), "Alpha|Beta|Gamma|AlphaCopy");
    auto lib = readBack();
    ASSERT_EQ(Names(*lib), "Alpha|Beta|Gamma|AlphaCopy");
    const cTemplate& copy = *lib->Templates()[3];
    const cTemplate& alpha = *lib->Templates()[0];
    EXPECT_EQ(copy.Comment, "copied");
    EXPECT_EQ(alpha.Comment, "first line\r\nsecond line");
    ASSERT_EQ(copy.sites.Count(), 4);
    EXPECT_FLOAT_EQ(copy.sites.Item("3_20_0.75_0_0")->OffsetX, -0.01f);
    EXPECT_FLOAT_EQ(copy.sites.Item("4_20_0.75_0_0")->SlopeY, 7.4f);
    ASSERT_EQ(copy.BestFocusSets.Count(), 1);
    EXPECT_FLOAT_EQ(copy.BestFocusSets.Item(1)->CalRows.Item(2)->Piston, 0.005f);
    EXPECT_EQ(copy.DataSetName, "LotA");
}

TEST_F(TemplateMaintenanceUi, RenameSavesAndCloses) {
    writeThree();
    QPointer<frmTemplateMaintenance> f = open();
    ASSERT_TRUE(f);
    choose(f, "Gamma");
    f->txtSaveAs()->setText("Delta");
    f->cmdRename()->click();
    EXPECT_TRUE(rec.sawStatus("Delta Saving calibration template ..."));
    EXPECT_TRUE(rec.sawStatus("Template Saved: Delta"));
    EXPECT_TRUE(rec.boxes.empty());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_FALSE(f);  // the window closed
    auto lib = readBack();
    ASSERT_EQ(Names(*lib), "Alpha|Beta|Delta");
    EXPECT_EQ(lib->Templates()[2]->DataSetName, "LotG");
    EXPECT_FLOAT_EQ(lib->Templates()[2]->sites.Item(1)->OffsetY, 0.06f);
}

TEST_F(TemplateMaintenanceUi, RenameOntoAnotherNameAsksFirst) {
    writeThree();
    const std::string before = FileBytes(file());
    frmTemplateMaintenance* f = open();
    ASSERT_NE(f, nullptr);
    choose(f, "Gamma");
    f->txtSaveAs()->setText("beta");
    rec.answers = {vbNo};
    EXPECT_FALSE(f->cmdSaveAs());
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].title, "Zorving templates");
    EXPECT_EQ(FileBytes(file()), before);
    EXPECT_EQ(f->currentTemplate()->NameTemplate, "Gamma");

    rec.answers = {vbYes};
    EXPECT_TRUE(f->cmdSaveAs());
    auto lib = readBack();
    ASSERT_EQ(Names(*lib), "Alpha|beta");
    EXPECT_EQ(lib->Templates()[1]->DataSetName, "LotG");  // Gamma's record under the name
}

TEST_F(TemplateMaintenanceUi, ShortNamesAreRefusedAndTheFileStays) {
    writeThree();
    const std::string before = FileBytes(file());
    frmTemplateMaintenance* f = open();
    ASSERT_NE(f, nullptr);
    choose(f, "Beta");
    f->txtComment()->setPlainText("not to be kept");
    for (const char* name : {"X", "", " Y "}) {
        rec.boxes.clear();
        f->txtSaveAs()->setText(name);
        EXPECT_FALSE(f->cmdSaveCalTemplate());
        EXPECT_FALSE(f->cmdSaveAs());
        ASSERT_EQ(rec.boxes.size(), 2u) << name;
        const std::string trimmed = QString(name).trimmed().toStdString();
        EXPECT_EQ(rec.boxes[0].text, "Improper template name: " + trimmed);
        EXPECT_EQ(rec.boxes[0].title, "Zorving templates");
        EXPECT_EQ(rec.boxes[1].text, rec.boxes[0].text);
    }
    EXPECT_EQ(FileBytes(file()), before);
    EXPECT_FALSE(fs::exists(folder() / "ZORVpsfm.stp"));
    EXPECT_EQ(f->currentTemplate()->NameTemplate, "Beta");
    EXPECT_EQ(f->currentTemplate()->Comment, "");
    EXPECT_FALSE(f->isUnloaded());
}

TEST_F(TemplateMaintenanceUi, DeleteAsksAndRemoves) {
    writeThree();
    const std::string before = FileBytes(file());
    frmTemplateMaintenance* f = open();
    ASSERT_NE(f, nullptr);

    // No: nothing changes.
    rec.answers = {vbNo};
    EXPECT_FALSE(f->cmdDeleteCalTemplate());
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "Are you sure you wish to remove template: ALPHA");
    EXPECT_EQ(rec.boxes[0].title, "Zorving Calibration Templates");
    EXPECT_EQ(rec.boxes[0].flags & 7, vbYesNo);
    EXPECT_TRUE(rec.sawStatus("Removing template: Alpha"));
    EXPECT_EQ(FileBytes(file()), before);
    EXPECT_EQ(Texts(f->cmbTemplate()), "Alpha|Beta|Gamma");

    // Yes: gone from the file and the lists; the first left is shown.
    rec.answers = {vbYes};
    f->cmdDelete()->click();
    EXPECT_TRUE(rec.sawStatus("Saving updated library..."));
    EXPECT_TRUE(rec.sawStatus("TemplateAlpharemoved"));
    EXPECT_EQ(Texts(f->cmbTemplate()), "Beta|Gamma");
    EXPECT_EQ(f->currentTemplate()->NameTemplate, "Beta");
    EXPECT_EQ(f->lstLibrary()->topLevelItemCount(), 2);
    EXPECT_EQ(Names(*readBack()), "Beta|Gamma");
    EXPECT_EQ(FileBytes(folder() / "ZORVpsfm.stp"), before);

    // The last one: the library file holds none, and the window says so.
    rec.answers = {vbYes, vbYes};
    EXPECT_TRUE(f->cmdDeleteCalTemplate());
    EXPECT_TRUE(f->cmdDeleteCalTemplate());
    EXPECT_EQ(f->cmbTemplate()->count(), 0);
    EXPECT_EQ(f->currentTemplate(), nullptr);
    EXPECT_TRUE(SawBox(rec, "Template not created.", "Zorving templates"));
    EXPECT_EQ(FromUtf16(FileBytes(file())), (Lines{"Version: 3", "TemplatesTotal: 0"}));
    rec.boxes.clear();
    EXPECT_FALSE(f->cmdSaveCalTemplate());
    EXPECT_TRUE(SawBox(rec, "Template not created.", "Zorving templates"));
}

TEST_F(TemplateMaintenanceUi, AnEmptyLibraryClosesTheWindow) {
    // No file at all, then a file of no templates.
    for (int pass = 0; pass < 2; ++pass) {
        if (pass == 1) write({"Version: 3", "TemplatesTotal: 0"});
        const std::string before = pass == 1 ? FileBytes(file()) : std::string();
        rec.boxes.clear();
        QPointer<frmTemplateMaintenance> f = new frmTemplateMaintenance(nullptr, QString::fromStdString(folder().string()));
        f->Load();
        ASSERT_EQ(rec.boxes.size(), 1u);
        EXPECT_EQ(rec.boxes[0].text, "There are not any templates stored in the library.");
        EXPECT_EQ(rec.boxes[0].title, "Zorv Template Maintenance");
        ASSERT_TRUE(f);
        EXPECT_TRUE(f->isUnloaded());
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        EXPECT_FALSE(f);
        EXPECT_EQ(fs::exists(file()), pass == 1);
        if (pass == 1) {
            EXPECT_EQ(FileBytes(file()), before);
        }
    }
    EXPECT_EQ(frmTemplateMaintenance::Open(nullptr, QString::fromStdString(folder().string())), nullptr);
}

TEST_F(TemplateMaintenanceUi, TheCallersTemplate) {
    writeThree();
    // Called with the flag and nothing calibrated: said, and the library shown.
    auto* f = new frmTemplateMaintenance(nullptr, QString::fromStdString(folder().string()));
    f->CalledFromCalibrate = true;
    f->Load();
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "No calibrations have been performed.'");
    EXPECT_FALSE(f->isUnloaded());
    EXPECT_EQ(f->cmbTemplate()->count(), 3);
    f->Unload();

    // A calibration held: listed first, not yet in the library, and saved into it.
    auto t = std::make_shared<cTemplate>();
    t->NameTemplate = "LotX";
    t->DataSetName = "LotX";
    auto s = std::make_unique<cSiteCal>();
    s->NumberKey = "5_21_0.8_0.3_0.6";
    s->Dose = 21, s->NA = 0.8f, s->PCinner = 0.3f, s->PCouter = 0.6f;
    s->OffsetX = 0.125f, s->SlopeX = -4.5f;
    t->AddSite(std::move(s));
    rec.boxes.clear();
    f = new frmTemplateMaintenance(nullptr, QString::fromStdString(folder().string()));
    f->CalledFromCalibrate = true;
    f->CallerTemplate = t;
    f->Load();
    EXPECT_TRUE(rec.boxes.empty());
    EXPECT_EQ(Texts(f->cmbTemplate()), "LotX|Alpha|Beta|Gamma");
    EXPECT_EQ(f->currentTemplate(), t);
    EXPECT_EQ(f->lstLibrary()->topLevelItemCount(), 3);
    EXPECT_FALSE(f->cmdDelete()->isEnabled());  // nothing to remove from the library
    EXPECT_TRUE(f->cmdSaveCalTemplate());
    EXPECT_EQ(Texts(f->cmbTemplate()), "Alpha|Beta|Gamma|LotX");
    EXPECT_EQ(f->lstLibrary()->topLevelItemCount(), 4);
    auto lib = readBack();
    ASSERT_EQ(Names(*lib), "Alpha|Beta|Gamma|LotX");
    const cSiteCal* back = lib->Templates()[3]->sites.Item(1);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->NumberKey, "5_21_0.8_0.3_0.6");
    EXPECT_FLOAT_EQ(back->OffsetX, 0.125f);
    EXPECT_FLOAT_EQ(back->PCouter, 0.6f);
}

TEST_F(TemplateMaintenanceUi, ADamagedLibraryIsNotSavedOver) {
    // The second template's site count does not read.
    Lines bad = Library({Alpha(), Beta()});
    const auto at = std::find(bad.begin(), bad.end(), "SitesTotal: 2");
    ASSERT_NE(at, bad.end());
    *at = "SitesTotal: two";
    write(bad);
    const std::string before = FileBytes(file());
    frmTemplateMaintenance* f = open();
    ASSERT_NE(f, nullptr);
    ASSERT_FALSE(rec.boxes.empty());  // the read's failure
    EXPECT_TRUE(f->libraryReadOnly());
    EXPECT_EQ(f->cmbTemplate()->itemText(0), "Alpha");
    EXPECT_FALSE(f->cmdSave()->isEnabled());
    EXPECT_FALSE(f->cmdDelete()->isEnabled());
    rec.answers = {vbYes, vbYes, vbYes};
    f->txtSaveAs()->setText("Other");
    EXPECT_FALSE(f->cmdSaveCalTemplate());
    EXPECT_FALSE(f->cmdSaveAs());
    EXPECT_FALSE(f->cmdDeleteCalTemplate());
    EXPECT_EQ(FileBytes(file()), before);
    EXPECT_FALSE(fs::exists(folder() / "ZORVpsfm.stp"));
}

TEST_F(TemplateMaintenanceUi, Pictures) {
    writeThree();
    frmTemplateMaintenance* f = open();
    ASSERT_NE(f, nullptr);
    f->cmbDisplayData()->setCurrentIndex(1);
    QCoreApplication::processEvents();
    const QString out = QString::fromUtf8(ZORV_TEST_TMP);
    EXPECT_TRUE(f->grab().save(out + "/frmTemplateMaintenance_set.png"));
    f->cmbDisplayData()->setCurrentIndex(0);
    QCoreApplication::processEvents();
    EXPECT_TRUE(f->grab().save(out + "/frmTemplateMaintenance_template.png"));
    f->tabTM()->setCurrentIndex(1);
    QCoreApplication::processEvents();
    EXPECT_TRUE(f->grab().save(out + "/frmTemplateMaintenance_library.png"));
}
