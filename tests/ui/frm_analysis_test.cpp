// The full-field focus workbench on simulated PSFM data: a matrix calibrated
// into a library of the test's own, a lot exposed at one known focus
// converted in the window with every match mode and held against the
// simulator's law, its field tilt and curvature against what the simulation
// put in and the whole field model against a fit written here, the sample
// template of an empty library, the remembered template, and bad input that
// leaves the files alone.
#include <QAbstractItemView>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QTabWidget>
#include <QTableWidget>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <tuple>

#include "app/settings.h"
#include "calib/calibrate.h"
#include "calib/template_library.h"
#include "common/json_lite.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "ui/chart_view.h"
#include "ui/frm_analysis.h"
#include "ui/frm_main.h"
#include "ui_fixture.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

// Both files share the seed and the coefficients: the same sites with the
// same law. No spread between sites: every template site holds the same
// polynomial, so each match mode must give every site its own focus.
constexpr const char* kFlat[][2] = {{"OffsetSpread", "0"}, {"SlopeSpread", "0"}};

std::string Simulated(const fs::path& dir, double focus, int sites, double dose = 24) {
    SimulateOptions o;
    o.outDir = dir.string();
    o.format = "csv";
    o.seed = 5;
    o.noise = 0.3;
    o.outliers = 0;
    o.failed = 0;
    o.sites = sites;
    o.doseCentre = dose;
    for (auto& c : kFlat) o.coefficients.push_back({c[0], std::stod(c[1])});
    if (!std::isnan(focus)) {
        o.focusCentre = focus;
        o.focusSpan = 0;
        o.fieldsX = 4;
    }
    auto sim = Simulate("psfm", o);
    EXPECT_TRUE(sim.ok()) << (sim.ok() ? "" : sim.failure().text);
    if (!sim.ok()) return {};
    auto req = GetDataFile((dir / sim->file).string());
    EXPECT_TRUE(req.ok());
    if (!req.ok()) return {};
    req->workbookPath = (dir / "data.xlsx").string();
    auto wb = ImportCall(*req);
    EXPECT_TRUE(wb.ok()) << (wb.ok() ? "" : wb.failure().text);
    return wb.ok() ? *wb : std::string();
}

// The simulation, the library and the lots, made once for the suite.
struct Prepared {
    fs::path dir, lib, lot, otherDose, moreSites;
    zorv::testing::Json truth;
    bool ok = false;
};

Prepared& Data() {
    static Prepared d;
    static bool made = false;
    if (made) return d;
    made = true;
    d.dir = FreshTestDir("analysis-window");
    d.lib = d.dir / "lib";
    const std::string matrix = Simulated(d.dir / "matrix", NAN, 25);
    d.lot = Simulated(d.dir / "lot", 0.1, 25);
    d.otherDose = Simulated(d.dir / "dose", 0.1, 25, 40);
    d.moreSites = Simulated(d.dir / "sites", 0.1, 36);
    if (matrix.empty() || d.lot.empty() || d.otherDose.empty() || d.moreSites.empty()) return d;
    d.truth = zorv::testing::ReadJsonFile((d.dir / "lot" / "truth.json").string());
    std::shared_ptr<cLot> lot;
    LoadOptions lo;
    lo.quiet = true;
    if (!GetExcelWBLot(matrix, lo, lot) || !lot) return d;
    CalControls c;
    c.fitOrder = 3;
    CalFormState state;
    CalibrateOptions co;
    co.charts = false;
    auto run = CalibratePSFM(*lot, c, state, co);
    EXPECT_TRUE(run) << (run ? "" : run.failure().text);
    if (!run) return d;
    cTemplateLibrary lib(d.lib.string());
    run->tpl->ReticleName = "PSFM-R7";
    auto saved = run->tpl->SaveTemplate("Mark", &lib, lot->LotName);
    EXPECT_TRUE(saved && *saved);
    Workbooks::CloseAll();
    d.ok = saved && *saved;
    return d;
}

double Coefficient(const zorv::testing::Json& truth, const std::string& name) {
    for (const auto& c : truth["model"]["coefficients"].items)
        if (c["name"].text() == name) return c["value"].number();
    ADD_FAILURE() << "no coefficient " << name;
    return 0;
}

// The tool focus u at which off + k1 u + k2 u^2 + k3 u^3 = 0, by Newton.
double Root(double off, double k1, double k2, double k3) {
    double u = -off / k1;
    for (int i = 0; i < 50; ++i) u -= (off + k1 * u + k2 * u * u + k3 * u * u * u) / (k1 + 2 * k2 * u + 3 * k3 * u * u);
    return u;
}

int Column(const QTableWidget* t, const QString& head) {
    for (int c = 0; c < t->columnCount(); ++c)
        if (t->horizontalHeaderItem(c) && t->horizontalHeaderItem(c)->text() == head) return c;
    return -1;
}

// 3 x 3 solve by Cramer's rule.
std::array<double, 3> Solve3(const double a[3][3], const double b[3]) {
    auto det = [](const double m[3][3]) {
        return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
               m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    };
    const double d = det(a);
    std::array<double, 3> x{};
    for (int k = 0; k < 3; ++k) {
        double m[3][3];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) m[i][j] = j == k ? b[i] : a[i][j];
        x[static_cast<size_t>(k)] = det(m) / d;
    }
    return x;
}

}  // namespace

class AnalysisUi : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        ASSERT_TRUE(Data().ok);
        work_ = FreshTestDir("analysis-work");
        frmAnalysis::setFileAsker([this](const QString&, const QString&, const QString&) { return asked_; });
    }
    void TearDown() override {
        frmAnalysis::setFileAsker({});
        if (win_) win_->Unload();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        Current() = CurrentData();
        Workbooks::CloseAll();
        fs::remove_all(work_);
        UiTest::TearDown();
    }
    frmAnalysis* open(const fs::path& lib) {
        win_ = new frmAnalysis(nullptr, QString::fromStdString(lib.string()));
        win_->resize(1280, 820);
        win_->Load();
        win_->show();
        QApplication::processEvents();
        return win_;
    }
    // A copy of a lot workbook (its data sheet takes the file's name: the
    // name stays), opened through File > Open.
    fs::path openLot(const fs::path& src, const std::string& folder) {
        fs::create_directories(work_ / folder);
        const fs::path p = work_ / folder / src.filename();
        fs::copy_file(src, p, fs::copy_options::overwrite_existing);
        asked_ = QString::fromStdString(p.string());
        win_->findChild<QAction*>("mnuFileOpen")->trigger();
        return p;
    }
    void shoot(const std::string& name) { ShootWindow(win_, name); }

    fs::path work_;
    QString asked_;
    QPointer<frmAnalysis> win_;
};

TEST_F(AnalysisUi, EveryMatchModeGivesTheSimulatedFocus) {
    open(Data().lib);
    ASSERT_GE(win_->cmbTemplate()->findText("Mark"), 0);
    win_->cmbTemplate()->setCurrentIndex(win_->cmbTemplate()->findText("Mark"));
    EXPECT_EQ(win_->txtReticleName()->text(), "PSFM-R7");
    EXPECT_FALSE(win_->lblDateCreated()->text().isEmpty());
    EXPECT_EQ(GetSetting(ApplicationTitle(), "PSFManalysis", "PSFMtemplate", ""), "Mark");

    const char* captions[] = {"All Sites", "Center", "Center Column", "Center Row", "User Selected"};
    for (int m = 0; m < 5; ++m) EXPECT_EQ(win_->optSelectLayout(m)->text(), captions[m]);
    EXPECT_EQ(win_->optSelectLayout(2)->toolTip(), "Scanner: Use sites located in the center of a horizontal slit");

    const fs::path lotPath = openLot(Data().lot, "lot");
    ASSERT_TRUE(win_->lot()) << (rec.boxes.empty() ? "" : rec.boxes.back().text);
    const zorv::testing::Json& truth = Data().truth;
    const double sign = win_->lot()->FocusReportCorrections ? -1 : 1;
    const double x2 = Coefficient(truth, "X2"), x3 = Coefficient(truth, "X3");
    const double y2 = Coefficient(truth, "Y2"), y3 = Coefficient(truth, "Y3");
    const auto& model = truth["model"]["siteModel"];
    long centre = 0;
    for (const auto& s : model.items)
        if (s["x"].number() == 0 && s["y"].number() == 0) centre = s["site"].integer();
    ASSERT_GT(centre, 0);

    for (int mode = 0; mode < 5; ++mode) {
        win_->optSelectLayout(mode)->click();
        if (mode == 4) {
            // The centre site's calibrations, picked in the grid.
            QTableWidget* g = win_->tabTemplateGrid();
            g->clearSelection();
            for (int r = 0; r < g->rowCount(); ++r)
                if (g->item(r, 0)->text().toLong() == centre)
                    g->selectionModel()->select(g->model()->index(r, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
        }
        rec.boxes.clear();
        win_->cmdAnalysisButton()->click();
        ASSERT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;
        ASSERT_TRUE(win_->result() && win_->result()->lot) << "mode " << mode;
        const cLot& out = *win_->result()->lot;
        std::vector<double> dv, dh;
        out.forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
            const auto& t = model[static_cast<size_t>(s.NumberKey() - 1)];
            const double fo = t["focusOffset"].number();
            // The converted focus is told from the calibration's zero of
            // shift: the lot's focus, plus the site's field offset, less the
            // focus at which the shift law crosses zero.
            const double v = sign * (0.1 + fo - Root(t["offsetX"].number(), t["slopeX"].number(), x2, x3));
            const double h = sign * (0.1 + fo - Root(t["offsetY"].number(), t["slopeY"].number(), y2, y3));
            dv.push_back(p.ValueV / 1000 - v);
            dh.push_back(p.ValueH / 1000 - h);
        });
        const long n = static_cast<long>(dv.size());
        EXPECT_EQ(n, 4L * 3 * 25) << "mode " << mode;
        // The shifts carry 0.3 nm of noise on slopes of 150 (X) and 140 (Y)
        // nm/um: 0.0020 and 0.0021 um of focus a point; the template's own
        // error, fitted over 39 fields, is small beside it. So: no point past
        // 7 sigma, the spread within 1.3 sigma, no bias past 3 sigma/sqrt(n)
        // plus the template's share.
        for (auto [d, sigma, what] : {std::tuple{&dv, 0.0020, "V"}, std::tuple{&dh, 0.00214, "H"}}) {
            double sum = 0, sq = 0, worst = 0;
            for (double x : *d) sum += x, sq += x * x, worst = std::max(worst, std::fabs(x));
            EXPECT_LT(worst, 7 * sigma) << what << " mode " << mode;
            EXPECT_LT(std::sqrt(sq / n), 1.3 * sigma) << what << " mode " << mode;
            EXPECT_LT(std::fabs(sum / n), 0.001) << what << " mode " << mode;
        }
    }
    // The raw focus table went into the lot's workbook on disk.
    Workbooks::CloseAll();
    auto book = Workbook::open(lotPath.string());
    ASSERT_TRUE(book);
    EXPECT_NE((*book)->sheet("RawFocus"), nullptr);
}

TEST_F(AnalysisUi, ModelsTheFieldTiltAndCurvature) {
    open(Data().lib);
    win_->cmbTemplate()->setCurrentIndex(win_->cmbTemplate()->findText("Mark"));
    openLot(Data().lot, "lot");
    EXPECT_FALSE(win_->cmdModelFocusButton()->isEnabled());
    win_->cmdAnalysisButton()->click();
    ASSERT_TRUE(win_->result());
    win_->chkWaferModel()->setChecked(false);
    win_->cmdModelFocusButton()->click();
    ASSERT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;
    ASSERT_TRUE(win_->aberrations() && win_->rowColumnModels());
    const double sign = win_->lot()->FocusReportCorrections ? -1 : 1;

    // Rows carry the vertical feature along x, columns the horizontal along
    // y: the field tilt in nm/mm is urad, and a curvature of c nm/mm2 is
    // 100 c nm/cm2. The mean over 12 fields x 5 lines: about 0.03 urad and
    // 0.3 nm/cm2 of noise.
    auto mean = [&](int table, const QString& head) {
        win_->cmbAberrationTable()->setCurrentIndex(table);
        const QTableWidget* t = win_->tabAberrations();
        const int c = Column(t, head);
        EXPECT_GE(c, 0) << head.toStdString();
        double sum = 0;
        int n = 0;
        for (int r = 0; r < t->rowCount() && c >= 0; ++r) {
            const QString key = t->item(r, 0) ? t->item(r, 0)->text() : QString();
            bool num = false;
            const double v = t->item(r, c) ? t->item(r, c)->text().toDouble(&num) : 0;
            if (!num || key.isEmpty() || key == "MEAN" || key == "Maximum" || key == "Minimum" || key == "StdErr") continue;
            sum += v, ++n;
        }
        EXPECT_GT(n, 20);
        return n ? sum / n : NAN;
    };
    const zorv::testing::Json& truth = Data().truth;
    const double tiltX = Coefficient(truth, "TiltX"), tiltY = Coefficient(truth, "TiltY");
    const double curv = 100 * Coefficient(truth, "Curvature");
    EXPECT_NEAR(mean(3, "Tilt(urad)"), sign * tiltX, 0.15);
    EXPECT_NEAR(mean(4, "Tilt(urad)"), sign * tiltY, 0.15);
    EXPECT_NEAR(mean(3, "Curv(nm/cm2)"), sign * curv, 1.5);
    EXPECT_NEAR(mean(4, "Curv(nm/cm2)"), sign * curv, 1.5);

    // The whole field model of mean focus, field by field, against normal
    // equations in 1, R and R^2 (the angle term of the model comes to nothing:
    // the stored angle over 1000 rounds to 0).
    const Datam& z = win_->aberrations()->meanModel;
    std::map<std::string, std::vector<std::array<double, 2>>> byField;  // R (mm), Z (um)
    win_->result()->lot->forEachLive([&](cWafer&, cField& f, cSite& s, cPoint& p) {
        byField[f.NumberKey].push_back({std::round(s.LocationR / 10.0) / 100.0, p.ValueZ / 1000.0});
    });
    int checked = 0;
    for (int r = 1; r <= z.rowUb(); ++r) {
        if (!z(r, 0).isEmpty()) continue;  // the MEAN row
        const std::string field = z(r, 2).toString();
        const auto& pts = byField[field];
        double a[3][3] = {}, b[3] = {};
        for (const auto& q : pts) {
            const double row[3] = {1, q[0], q[0] * q[0]};
            for (int i = 0; i < 3; ++i) {
                b[i] += row[i] * q[1];
                for (int j = 0; j < 3; ++j) a[i][j] += row[i] * row[j];
            }
        }
        const auto c = Solve3(a, b);
        EXPECT_NEAR(z(r, 3).toDouble(), c[0], 1e-4) << "field " << field;
        EXPECT_NEAR(z(r, 5).toDouble(), 1000 * c[1], 1e-2) << "field " << field;
        EXPECT_NEAR(z(r, 9).toDouble(), 1e5 * c[2], 1e-1) << "field " << field;
        ++checked;
    }
    EXPECT_EQ(checked, 12);
    win_->cmbAberrationTable()->setCurrentIndex(2);
    shoot("aberrations");

    // Each view draws, copies and exports.
    const char* names[] = {"vector", "contour", "xy"};
    for (int k = 0; k < 3; ++k) {
        win_->cmbPlotType()->setCurrentIndex(k);
        ChartView* v = win_->pctAberrations();
        ASSERT_NE(v->graphic(), nullptr) << names[k];
        EXPECT_TRUE(v->render()) << v->failureText().toStdString();
        EXPECT_TRUE(v->copyToClipboard()) << names[k];
        const fs::path png = work_ / (std::string(names[k]) + ".png");
        EXPECT_TRUE(v->saveTo(QString::fromStdString(png.string())));
        EXPECT_GT(fs::file_size(png), 1000u);
        win_->tabs()->setCurrentIndex(1);
        shoot(std::string("plot-") + names[k]);
    }
    const fs::path svg = work_ / "xy.svg";
    EXPECT_TRUE(win_->pctAberrations()->saveTo(QString::fromStdString(svg.string())));
    EXPECT_NE(FileBytes(svg).find("<svg"), std::string::npos);

    // The astigmatism of the lot before conversion: H - V of the shifts.
    win_->cmdCullAnalysisButton()->click();
    ASSERT_TRUE(win_->astigmatism());
    double sum = 0;
    long n = 0;
    win_->lot()->forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) { sum += (double(p.ValueH) - p.ValueV) / 1000, ++n; });
    EXPECT_EQ(win_->astigmatism()->stats(1, 1).toLong(), n);
    EXPECT_NEAR(win_->astigmatism()->stats(4, 1).toDouble(), sum / n, 1e-9);
    EXPECT_TRUE(win_->pctAberrations()->render()) << win_->pctAberrations()->failureText().toStdString();
    shoot("astigmatism");
}

TEST_F(AnalysisUi, AnEmptyLibraryGetsTheSampleAndTheTemplateIsRemembered) {
    const fs::path empty = work_ / "empty";
    open(empty);
    ASSERT_EQ(win_->cmbTemplate()->count(), 1);
    EXPECT_TRUE(fs::exists(empty / kTemplateFileName));
    const std::vector<std::string> lines = SampleTemplateLines(0);
    const std::string name = win_->cmbTemplate()->currentText().toStdString();
    EXPECT_NE(std::find(lines.begin(), lines.end(), name), lines.end()) << name;
    EXPECT_GT(win_->tabTemplateGrid()->rowCount(), 0);
    shoot("sample");
    win_->Unload();

    // Two templates: the one chosen last comes back at the next opening.
    const fs::path two = work_ / "two";
    fs::create_directories(two);
    fs::copy_file(Data().lib / kTemplateFileName, two / kTemplateFileName);
    {
        cTemplateLibrary sample(empty.string()), lib(two.string());
        ASSERT_TRUE(sample.FileGet());
        ASSERT_TRUE(lib.FileGet());
        lib.AddTemplate(sample.Templates().front()->clone(), "Sample");
        ASSERT_TRUE(lib.FileSave());
    }
    open(two);
    ASSERT_EQ(win_->cmbTemplate()->count(), 2);
    win_->cmbTemplate()->setCurrentIndex(win_->cmbTemplate()->findText("Sample"));
    win_->Unload();
    EXPECT_EQ(GetSetting(ApplicationTitle(), "PSFManalysis", "PSFMtemplate", ""), "Sample");
    open(two);
    EXPECT_EQ(win_->cmbTemplate()->currentText(), "Sample");
    win_->Unload();
    SaveSetting(ApplicationTitle(), "PSFManalysis", "PSFMtemplate", "mark");  // case aside
    open(two);
    EXPECT_EQ(win_->cmbTemplate()->currentText(), "Mark");
}

TEST_F(AnalysisUi, BadInputIsOneMessageAndLeavesTheFilesAlone) {
    open(Data().lib);
    win_->cmbTemplate()->setCurrentIndex(win_->cmbTemplate()->findText("Mark"));
    const std::string libBefore = FileBytes(Data().lib / kTemplateFileName);

    // No lot.
    win_->cmdAnalysisButton()->click();
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("No lot loaded"), std::string::npos) << rec.boxes[0].text;
    EXPECT_FALSE(win_->result());

    // A lot at another dose than every calibration.
    rec.boxes.clear();
    const fs::path dose = openLot(Data().otherDose, "dose");
    const std::string doseBefore = FileBytes(dose);
    win_->cmdAnalysisButton()->click();
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("Dose, NA, PCinner and PCouter settings do not match between template and lot."),
              std::string::npos)
        << rec.boxes[0].text;
    EXPECT_FALSE(win_->result());
    // Defeating the dose lets the calibrations of another dose convert it.
    rec.boxes.clear();
    win_->chkNoDose()->setChecked(true);
    win_->cmdAnalysisButton()->click();
    EXPECT_TRUE(rec.boxes.empty()) << rec.boxes.size() << " " << rec.boxes.front().text;
    EXPECT_TRUE(win_->result());
    win_->chkNoDose()->setChecked(false);
    Workbooks::CloseAll();
    EXPECT_NE(FileBytes(dose), doseBefore);  // that one wrote its RawFocus

    // A lot of 36 sites: 11 have no calibration; No to going on.
    rec.boxes.clear();
    const fs::path more = openLot(Data().moreSites, "sites");
    const std::string moreBefore = FileBytes(more);
    ASSERT_FALSE(win_->result());
    win_->cmdAnalysisButton()->click();
    // Each missing site number is told once as it is met, then the one
    // question; No stops the conversion.
    ASSERT_EQ(rec.boxes.size(), 36u - 25 + 1);
    for (size_t i = 0; i + 1 < rec.boxes.size(); ++i)
        EXPECT_NE(rec.boxes[i].text.find("not located!"), std::string::npos) << rec.boxes[i].text;
    EXPECT_EQ(rec.boxes.back().flags & vbYesNo, vbYesNo);
    EXPECT_NE(rec.boxes.back().text.find("A total of "), std::string::npos) << rec.boxes.back().text;
    EXPECT_FALSE(win_->result());
    Workbooks::CloseAll();
    EXPECT_EQ(FileBytes(more), moreBefore);

    // No template chosen; User Selected with no site picked.
    rec.boxes.clear();
    win_->cmbTemplate()->setCurrentIndex(-1);
    win_->cmdAnalysisButton()->click();
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("A Calibration template does not exist."), std::string::npos);
    rec.boxes.clear();
    win_->cmbTemplate()->setCurrentIndex(win_->cmbTemplate()->findText("Mark"));
    win_->optSelectLayout(4)->click();
    win_->tabTemplateGrid()->clearSelection();
    win_->cmdAnalysisButton()->click();
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_FALSE(win_->result());

    // Not converted: nothing to model.
    rec.boxes.clear();
    win_->cmdModelFocus();
    EXPECT_EQ(rec.boxes.size(), 1u);

    // Still usable: the good lot converts.
    rec.boxes.clear();
    win_->optSelectLayout(0)->click();
    openLot(Data().lot, "lot");
    win_->cmdAnalysisButton()->click();
    EXPECT_TRUE(rec.boxes.empty());
    EXPECT_TRUE(win_->result());
    EXPECT_EQ(FileBytes(Data().lib / kTemplateFileName), libBefore);
}
