// The reticle workbench on a simulated wafer lot and its mask measurement:
// the compare maps against means worked out from the tool files, the
// reticle's orientation by hand, the MEEF of every field against a straight
// line fitted here to the tool files and against the simulator's law, the
// result opened as a lot, a clone, the focus-exposure matrix of a simulated
// FEM, and bad input that leaves the files alone.
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFileInfo>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTabWidget>
#include <QTableWidget>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "common/json_lite.h"
#include "graphics/chart.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "ui/chart_view.h"
#include "ui/frm_plot.h"
#include "ui/frm_reticle.h"
#include "ui_fixture.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

// The data rows of a simulated CSV: cells split at commas, "#" lines and
// the heading skipped.
std::vector<std::vector<std::string>> CsvRows(const fs::path& p) {
    std::ifstream in(p);
    std::vector<std::vector<std::string>> rows;
    std::string line;
    bool head = true;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        if (head) {
            head = false;
            continue;
        }
        std::vector<std::string> cells;
        std::stringstream s(line);
        std::string c;
        while (std::getline(s, c, ',')) cells.push_back(c);
        rows.push_back(cells);
    }
    return rows;
}

// Slope of y on x by least squares.
double Slope(const std::vector<double>& x, const std::vector<double>& y) {
    const double n = static_cast<double>(x.size());
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (size_t i = 0; i < x.size(); ++i) sx += x[i], sy += y[i], sxx += x[i] * x[i], sxy += x[i] * y[i];
    return (n * sxy - sx * sy) / (n * sxx - sx * sx);
}

std::string Import(const std::string& file, const fs::path& workbook) {
    auto req = GetDataFile(file);
    EXPECT_TRUE(req.ok()) << (req.ok() ? "" : req.failure().text);
    if (!req.ok()) return {};
    req->workbookPath = workbook.string();
    auto wb = ImportCall(*req);
    EXPECT_TRUE(wb.ok()) << (wb.ok() ? "" : wb.failure().text);
    return wb.ok() ? *wb : std::string();
}

bool SawBoxWith(const RecordingReporter& rec, const std::string& text) {
    for (const auto& b : rec.boxes)
        if (b.text.find(text) != std::string::npos) return true;
    return false;
}

cSite* SiteOf(const cLot& lot, int number) {
    cSite* found = nullptr;
    lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) {
        if (s.NumberKey() == number && !found) found = &s;
    });
    return found;
}

}  // namespace

class ReticleUi : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        dir_ = FreshTestDir("reticle-window");
        SimulateOptions o;
        o.outDir = (dir_ / "sim").string();
        o.format = "csv";
        o.seed = 5;
        o.failed = 0;
        o.outliers = 0;
        auto sim = Simulate("reticle", o);
        ASSERT_TRUE(sim.ok()) << sim.failure().text;
        lotCsv_ = fs::path(o.outDir) / sim->file;
        maskCsv_ = fs::path(o.outDir) / sim->reticleFile;
        truth_ = zorv::testing::ReadJsonFile((fs::path(o.outDir) / "truth.json").string());
        lotPath_ = Import(lotCsv_.string(), dir_ / "lot.xlsx");
        maskPath_ = Import(maskCsv_.string(), dir_ / "mask.xlsx");
        ASSERT_FALSE(lotPath_.empty());
        ASSERT_FALSE(maskPath_.empty());
        Workbooks::CloseAll();

        win_ = new frmReticle;
        win_->resize(1280, 820);
        win_->Load();
        win_->show();
        QApplication::processEvents();
    }
    void TearDown() override {
        frmReticle::setFileAsker({});
        if (win_) win_->Unload();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        Current() = CurrentData();
        Workbooks::CloseAll();
        fs::remove_all(dir_);
        UiTest::TearDown();
    }
    void shoot(QWidget* w, const std::string& name) {
        const fs::path shots = "/tmp/hR/shots";
        if (!fs::exists(shots.parent_path())) return;
        fs::create_directories(shots);
        QApplication::processEvents();
        w->grab().save(QString::fromStdString((shots / (name + ".png")).string()));
    }
    bool loadBoth() {
        if (!win_->LoadLotReticle(QString::fromStdString(lotPath_), QString::fromStdString(maskPath_))) return false;
        QApplication::processEvents();
        return true;
    }
    double coefficient(const std::string& name) const {
        const auto& c = truth_["model"]["coefficients"];
        for (size_t i = 0; i < c.size(); ++i)
            if (c[i]["name"].str == name) return c[i]["value"].number();
        ADD_FAILURE() << "no coefficient " << name;
        return 0;
    }

    fs::path dir_, lotCsv_, maskCsv_;
    std::string lotPath_, maskPath_;
    zorv::testing::Json truth_;
    frmReticle* win_ = nullptr;
};

TEST_F(ReticleUi, ComparesLotAndReticleSideBySide) {
    EXPECT_EQ(win_->windowTitle(), "Zorv MaskFactor");
    ASSERT_TRUE(loadBoth());
    ASSERT_TRUE(win_->xlwb && win_->xlwbReticle);
    ASSERT_EQ(win_->cmbLotVariable()->findText("CD") >= 0, true);
    ASSERT_GE(win_->cmbRetVariable()->count(), 1);
    const std::string retFeature = win_->cmbRetVariable()->currentText().toStdString();

    // The titles against the tool files: every CD row, and their mean.
    const auto lotRows = CsvRows(lotCsv_);
    const auto maskRows = CsvRows(maskCsv_);
    double sum = 0;
    for (const auto& r : lotRows) sum += std::stod(r.back());
    std::ostringstream mean;
    mean.setf(std::ios::fixed);
    mean.precision(3);
    mean << sum / static_cast<double>(lotRows.size());
    ASSERT_NE(win_->chtLot()->graphic(), nullptr);
    ASSERT_NE(win_->chtReticle()->graphic(), nullptr);
    const std::string lotTitle = win_->chtLot()->graphic()->TitleObj.TitleString;
    EXPECT_EQ(lotTitle.rfind("Lot: ", 0), 0u) << lotTitle;
    EXPECT_NE(lotTitle.find(" Feature: CD"), std::string::npos) << lotTitle;
    EXPECT_NE(lotTitle.find(" Mean Field: " + mean.str()), std::string::npos) << lotTitle << " vs " << mean.str();
    EXPECT_NE(lotTitle.find(" Points: " + std::to_string(lotRows.size())), std::string::npos) << lotTitle;
    EXPECT_NE(lotTitle.find(" [ nm ]"), std::string::npos) << lotTitle;
    const std::string retTitle = win_->chtReticle()->graphic()->TitleObj.TitleString;
    EXPECT_EQ(retTitle.rfind("Reticle: ", 0), 0u) << retTitle;
    EXPECT_NE(retTitle.find(" Feature: " + retFeature), std::string::npos) << retTitle;
    EXPECT_NE(retTitle.find(" Points: " + std::to_string(maskRows.size())), std::string::npos) << retTitle;
    EXPECT_TRUE(win_->chtLot()->render()) << win_->chtLot()->failureText().toStdString();
    EXPECT_TRUE(win_->chtReticle()->render()) << win_->chtReticle()->failureText().toStdString();
    shoot(win_, "compare");

    // Site 1 of the mask file, turned by hand: flip X, then a quarter turn
    // anticlockwise, then positions halved.
    double x = 0, y = 0;
    for (const auto& r : maskRows)
        if (r[0] == "1") x = std::stod(r[1]), y = std::stod(r[2]);
    // The map's lot numbers its sites itself: the one at the file's place.
    int number = -1;
    win_->chtReticle()->graphic()->Lot()->forEachLiveSite([&](cWafer&, cField&, cSite& site) {
        if (std::fabs(site.LocationX / 1000.0 - x) < 1e-3 && std::fabs(site.LocationY / 1000.0 - y) < 1e-3)
            number = site.NumberKey();
    });
    ASSERT_GE(number, 0);
    win_->chkFlipX()->setChecked(true);
    win_->cmbRotate()->setCurrentIndex(win_->cmbRotate()->findData(90));
    win_->txtMagnify()->setText("2");
    emit win_->txtMagnify()->editingFinished();
    QApplication::processEvents();
    const cSite* s = SiteOf(*win_->chtReticle()->graphic()->Lot(), number);
    ASSERT_NE(s, nullptr);
    // (x, y) -> (-x, y) -> (-y, -x) -> halved.
    EXPECT_NEAR(s->LocationX / 1000.0, -y / 2, 1e-3);
    EXPECT_NEAR(s->LocationY / 1000.0, -x / 2, 1e-3);
    EXPECT_NEAR(win_->chtReticle()->graphic()->Lot()->DieSizeX, 33000 / 2.0, 1);
    // The lot side stays as it was.
    EXPECT_EQ(win_->chtLot()->graphic()->TitleObj.TitleString, lotTitle);

    // A magnification that is no number: the message, and the map as it was.
    rec.boxes.clear();
    win_->txtMagnify()->setText("big");
    emit win_->txtMagnify()->editingFinished();
    EXPECT_EQ(rec.boxes.size(), 1u);
    EXPECT_TRUE(SawBoxWith(rec, "Magnify must be a number above 0"));
    EXPECT_EQ(SiteOf(*win_->chtReticle()->graphic()->Lot(), number), s);
}

TEST_F(ReticleUi, MeefOfEveryFieldMatchesTheToolFiles) {
    ASSERT_TRUE(loadBoth());
    win_->tabs()->setCurrentIndex(1);
    win_->txtMag()->setText("4");
    win_->txtSiteMag()->setText("1");
    const std::string maskBefore = FileBytes(maskPath_);
    ASSERT_TRUE(win_->SetupMEF());
    EXPECT_TRUE(rec.sawStatus(" MEEF Analysis setup ..."));
    ASSERT_TRUE(win_->result().has_value());
    const MEFResult& r = *win_->result();

    // The field-wide slope of each field: wafer CD on mask CD / 4, fitted
    // here to the two tool files.
    std::map<std::string, double> mask;
    for (const auto& m : CsvRows(maskCsv_)) mask[m[0]] = std::stod(m[3]) / 4;
    std::map<std::string, std::pair<std::vector<double>, std::vector<double>>> byField;
    for (const auto& row : CsvRows(lotCsv_)) {
        auto& f = byField[row[0] + "/" + row[1] + "/" + row[2]];
        f.first.push_back(mask.at(row[3]));
        f.second.push_back(std::stod(row.back()));
    }
    std::vector<double> mine, theirs;
    for (auto& [k, f] : byField) mine.push_back(Slope(f.first, f.second));
    for (const MEFField& f : r.fields) theirs.push_back(f.meef);
    ASSERT_EQ(mine.size(), theirs.size());
    std::sort(mine.begin(), mine.end());
    std::sort(theirs.begin(), theirs.end());
    for (size_t i = 0; i < mine.size(); ++i) EXPECT_NEAR(theirs[i], mine[i], 2e-3) << i;

    // Against the law without noise: 90 + MEEF(x, y) (mask/4 - 90) at every
    // site of the mask, and its straight line.
    const double m0 = coefficient("MEEF0"), mx = coefficient("MEEFx"), my = coefficient("MEEFy"),
                 mr = coefficient("MEEFr2"), nominal = coefficient("NominalCD"),
                 nominalMask = coefficient("NominalMaskCD");
    std::vector<double> xs, ys;
    for (const auto& m : CsvRows(maskCsv_)) {
        const double x = std::stod(m[1]), y = std::stod(m[2]), xm = std::stod(m[3]) / 4;
        xs.push_back(xm);
        ys.push_back(nominal + (m0 + mx * x + my * y + mr * (x * x + y * y)) * (xm - nominalMask / 4));
    }
    double meanMeef = 0;
    for (double v : theirs) meanMeef += v / static_cast<double>(theirs.size());
    EXPECT_NEAR(meanMeef, Slope(xs, ys), 0.1);

    // The set-up block and the summary.
    const std::string block = win_->txtSetup()->toPlainText().toStdString();
    for (const char* head : {"Zorv Mask Error Factor Analysis", "Date: ", "Lot Feature: CD", "Reticle: ", "MEF: ",
                             "(Final MEF = MEF * MEEF)", "MEEF: ", "Lot:", "Cull:", "Mag:      4", "SiteMag:  1"})
        EXPECT_NE(block.find(head), std::string::npos) << head;
    EXPECT_EQ(win_->tblSummary()->rowCount(), static_cast<int>(r.fields.size()));
    EXPECT_EQ(win_->tblSummary()->horizontalHeaderItem(2)->text(), "MEEF");
    // The sheets went to the lot workbook; the mask's file is as it was.
    ASSERT_TRUE(win_->xlwb);
    EXPECT_NE(win_->xlwb->sheet("MEF_CD_" + win_->setup().reticleFeature), nullptr);
    EXPECT_EQ(FileBytes(maskPath_), maskBefore);

    // The maps of the MEF table and wafer CD against reticle CD.
    win_->tabs()->setCurrentIndex(2);
    QApplication::processEvents();
    ASSERT_NE(win_->chtMEFmap()->graphic(), nullptr);
    EXPECT_EQ(win_->chtMEFmap()->graphic()->Kind, GraphKind::FieldContour);
    EXPECT_EQ(win_->chtMEFmap()->graphic()->TitleObj.TitleString.rfind("MEEF_CD_", 0), 0u);
    ASSERT_NE(win_->chtMEFxy()->graphic(), nullptr);
    EXPECT_NE(win_->chtMEFxy()->graphic()->TitleObj.TitleString.find("MEEF: "), std::string::npos);
    EXPECT_TRUE(win_->chtMEFmap()->render()) << win_->chtMEFmap()->failureText().toStdString();
    EXPECT_TRUE(win_->chtMEFxy()->render()) << win_->chtMEFxy()->failureText().toStdString();
    shoot(win_, "meef_maps");
    win_->cmbMEFColumn()->setCurrentIndex(win_->cmbMEFColumn()->findText("BEEF"));
    QApplication::processEvents();
    EXPECT_EQ(win_->chtMEFmap()->graphic()->TitleObj.TitleString.rfind("BEEF", 0), 0u);

    // A clone of the shown map in a plot window of its own.
    rec.statuses.clear();
    frmPlot* clone = win_->cmdClone();
    ASSERT_NE(clone, nullptr);
    EXPECT_TRUE(clone->windowTitle().contains(" - Clone: ")) << clone->windowTitle().toStdString();
    EXPECT_EQ(clone->graphic()->TitleObj.TitleString, win_->chtMEFmap()->graphic()->TitleObj.TitleString);
    bool said = false;
    for (const auto& st : rec.statuses) said = said || st.rfind("Clone of plot interface, Graph:", 0) == 0;
    EXPECT_TRUE(said);

    // The table shown: in a grid, and as a workbook of its own.
    win_->tabs()->setCurrentIndex(1);
    frmSpreadsheet* grid = win_->VeiwSaveData();
    ASSERT_NE(grid, nullptr);
    EXPECT_EQ(grid->table().rowUb(), static_cast<int>(CsvRows(lotCsv_).size()));
    EXPECT_EQ(grid->table()(0, mefMEEF).toString(), "MEEF_CD_" + win_->setup().reticleFeature);
    const fs::path saved = dir_ / "mef_table.xlsx";
    ASSERT_TRUE(win_->FileSaveAs(QString::fromStdString(saved.string())));
    {
        auto wb = Workbook::open(saved.string());
        ASSERT_TRUE(wb.ok());
        Worksheet* ws = (*wb)->sheet(MefSheetName(win_->setup()));
        ASSERT_NE(ws, nullptr);
        EXPECT_EQ(ws->cell(1, mefWafer).toString(), "Wafer");
        EXPECT_EQ(ws->lastRow(), static_cast<int>(CsvRows(lotCsv_).size()) + 1);
    }

    // The result as a lot: a new workbook beside the lot, opened here.
    const QString asLot = win_->OpenResultAsLot();
    ASSERT_FALSE(asLot.isEmpty());
    EXPECT_TRUE(fs::exists(asLot.toStdString()));
    EXPECT_EQ(fs::path(asLot.toStdString()).parent_path(), fs::path(lotPath_).parent_path());
    EXPECT_NE(fs::path(asLot.toStdString()), fs::path(lotPath_));
    EXPECT_TRUE(win_->cmbLotVariable()->currentText().startsWith("MEEF"));
    EXPECT_EQ(win_->lot()->TotalPoints(), static_cast<long>(CsvRows(lotCsv_).size()));
    // A second one does not overwrite the first.
    const QString again = win_->OpenResultAsLot();
    EXPECT_FALSE(again.isEmpty());
    EXPECT_NE(again, asLot);
    EXPECT_EQ(fs::path(again.toStdString()).filename(), "lot_MEEF_CD_2.xlsx");
    shoot(win_, "meef_setup");

    // A saved result opened by the menu's dialog: its factor is a feature.
    ASSERT_TRUE(win_->LoadLotReticle(QString::fromStdString(lotPath_), {}));
    frmReticle::setFileAsker([&](const QString&, const QString&, const QString&) { return asLot; });
    ASSERT_TRUE(win_->OpenMEFfile());
    EXPECT_TRUE(win_->cmbLotVariable()->currentText().startsWith("MEEF"));
    EXPECT_EQ(QFileInfo(asLot).fileName(), QFileInfo(QString::fromStdString(win_->xlwb->path())).fileName());
}

TEST_F(ReticleUi, BadInputLeavesTheFilesAlone) {
    // No lot yet: the analysis says so.
    rec.boxes.clear();
    EXPECT_FALSE(win_->SetupMEF());
    EXPECT_TRUE(SawBoxWith(rec, "Lot data not provided."));

    // A reticle of another layout: the mask's sites 60 mm away from the field.
    const fs::path shifted = dir_ / "shifted_mask.csv";
    {
        std::ifstream in(maskCsv_);
        std::ofstream out(shifted);
        std::string line;
        bool head = true;
        while (std::getline(in, line)) {
            if (line.empty() || line[0] == '#' || head) {
                if (!line.empty() && line[0] != '#') head = false;
                out << line << "\n";
                continue;
            }
            std::stringstream s(line);
            std::string site, x, y, cd;
            std::getline(s, site, ',');
            std::getline(s, x, ',');
            std::getline(s, y, ',');
            std::getline(s, cd, ',');
            out << site << "," << std::stod(x) + 60 << "," << std::stod(y) + 60 << "," << cd << "\n";
        }
    }
    const std::string badPath = Import(shifted.string(), dir_ / "shifted.xlsx");
    ASSERT_FALSE(badPath.empty());
    Workbooks::CloseAll();
    ASSERT_TRUE(win_->LoadLotReticle(QString::fromStdString(lotPath_), QString::fromStdString(badPath)));
    const std::string lotBefore = FileBytes(lotPath_), badBefore = FileBytes(badPath);
    const auto filesBefore = std::distance(fs::directory_iterator(dir_), fs::directory_iterator());
    rec.boxes.clear();
    EXPECT_FALSE(win_->SetupMEF());
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("FindMEF"), std::string::npos) << rec.boxes[0].text;
    EXPECT_NE(rec.boxes[0].text.find("Surface array could not be generated."), std::string::npos);
    EXPECT_FALSE(win_->result().has_value());

    // A magnification that is no number.
    win_->txtMag()->setText("four");
    rec.boxes.clear();
    EXPECT_FALSE(win_->SetupMEF());
    EXPECT_TRUE(SawBoxWith(rec, "Mag: must be a number above 0"));
    win_->txtMag()->setText("4");
    // Nothing to open as a lot.
    rec.boxes.clear();
    EXPECT_TRUE(win_->OpenResultAsLot().isEmpty());
    EXPECT_TRUE(SawBoxWith(rec, "Run the MEEF analysis first."));
    // Save As onto an input is refused.
    rec.boxes.clear();
    EXPECT_FALSE(win_->FileSaveAs(QString::fromStdString(badPath)));
    EXPECT_TRUE(SawBoxWith(rec, "not overwritten"));

    EXPECT_EQ(FileBytes(lotPath_), lotBefore);
    EXPECT_EQ(FileBytes(badPath), badBefore);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), filesBefore);

    // The window still works: the right reticle by the menu's dialog.
    frmReticle::setFileAsker([&](const QString&, const QString&, const QString&) { return QString::fromStdString(maskPath_); });
    ASSERT_TRUE(win_->OpenReticle());
    EXPECT_TRUE(win_->SetupMEF());
}

TEST_F(ReticleUi, FocusExposureMatrixAsSmallMultiples) {
    SimulateOptions o;
    o.outDir = (dir_ / "fem").string();
    o.seed = 3;
    auto sim = Simulate("fem", o);
    ASSERT_TRUE(sim.ok()) << sim.failure().text;
    const auto truth = zorv::testing::ReadJsonFile((fs::path(o.outDir) / "truth.json").string());
    const std::string femPath = Import((fs::path(o.outDir) / sim->file).string(), dir_ / "fem.xlsx");
    ASSERT_FALSE(femPath.empty());
    Workbooks::CloseAll();
    ASSERT_TRUE(win_->LoadLotReticle(QString::fromStdString(femPath), {}));
    win_->tabs()->setCurrentIndex(3);
    QApplication::processEvents();
    const auto& fem = win_->femView()->matrix();
    ASSERT_TRUE(fem.has_value()) << win_->femView()->failureText().toStdString();
    // Focus along the field columns, dose along the rows, one cell each.
    const int fx = static_cast<int>(truth["fieldsX"].number()), fy = static_cast<int>(truth["fieldsY"].number());
    EXPECT_EQ(fem->Cols(), fx);
    EXPECT_EQ(fem->Rows(), fy);
    EXPECT_EQ(static_cast<int>(fem->cells.size()), fx * fy);
    EXPECT_EQ(fem->table.rowUb(), win_->lot()->TotalPoints());
    shoot(win_, "fem");

    // The grid exports as one picture, and the window's width lays it out.
    for (const char* ext : {".png", ".svg", ".pdf"}) {
        const fs::path out = dir_ / (std::string("fem") + ext);
        EXPECT_TRUE(win_->femView()->saveTo(QString::fromStdString(out.string()))) << ext;
        EXPECT_GT(fs::file_size(out), 1000u) << ext;
    }
    win_->resize(900, 700);
    QApplication::processEvents();
    shoot(win_->femView(), "fem_narrow");

    // A lot exposed once gives one cell.
    ASSERT_TRUE(win_->LoadLotReticle(QString::fromStdString(lotPath_), {}));
    QApplication::processEvents();
    ASSERT_TRUE(win_->femView()->matrix().has_value());
    EXPECT_EQ(win_->femView()->matrix()->cells.size(), 1u);
}
