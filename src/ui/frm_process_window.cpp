#include "ui/frm_process_window.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSlider>
#include <QScrollArea>
#include <QSplitter>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <set>

#include "app/settings.h"
#include "app/strings.h"
#include "calib/best_focus.h"
#include "base/format.h"
#include "base/identity.h"
#include "base/proc.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "procwin/pw_charts.h"
#include "stats/cull.h"
#include "stats/raw_analysis.h"
#include "stats/sigma_test.h"
#include "ui/chart_view.h"
#include "ui/frm_main.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {

constexpr const char* kSection = "ProcessWindow";
constexpr const char* kSpatialSection = "PWSpatialModel";
constexpr const char* kSetupErrorTitle = "Zorv Setup Error";
constexpr const char* kValueFormat = "#####0.000#";
constexpr const char* kRangeFormat = "#0.0";
constexpr const char* kCrLf = "\r\n";
// Enough for stable 95 % ends at a few seconds a run of the window.
constexpr int kResamples = 100;

struct Analysis {
    const char* key;
    const char* caption;
};
constexpr Analysis kAnalyses[] = {{kDose, "Dose Response"},
                                  {kFocus, "Focus Response"},
                                  {kPW, "Process Window"},
                                  {kDoseBF, "Dose @ Best Focus"},
                                  {kIsoFocal, "IsoFocal"}};


std::string Setting(const char* key, const char* def) { return GetSetting(ApplicationTitle(), kSection, key, def); }

bool ParseBox(const QString& text, double& v) { return ParseNumber(Trim(S(text)), v) && std::isfinite(v); }

// Column 1 of a GetUniqueExposures table as sorted texts.
std::vector<std::string> Values(const Datam& t) {
    std::vector<double> v;
    for (int r = 1; t.isArray() && r <= t.rowUb(); ++r)
        if (!t.get(r, 1).isEmpty()) v.push_back(t.get(r, 1).toDouble());
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end()), v.end());
    std::vector<std::string> out;
    for (double x : v) out.push_back(CStrNumber(x, 6));
    return out;
}

// "ALL" first, then the values; ALL chosen alone.
void FillList(QListWidget* list, const std::vector<std::string>& values) {
    list->clear();
    list->addItem("ALL");
    for (const std::string& v : values) list->addItem(Q(v));
    list->item(0)->setSelected(true);
}

// The values chosen; none (all) when "ALL" or nothing is chosen.
std::vector<std::string> Chosen(const QListWidget* list) {
    std::vector<std::string> out;
    if (list->count() == 0 || list->item(0)->isSelected()) return out;
    for (int i = 1; i < list->count(); ++i)
        if (list->item(i)->isSelected()) out.push_back(S(list->item(i)->text()));
    return out;
}

std::string CellText(const Value& v) {
    if (v.isEmpty() || v.isNull()) return {};
    if (v.isNumberType()) return CStrNumber(v.toDouble(), 6);
    return v.toString();
}

}  // namespace

frmProcessWindow::frmProcessWindow(QWidget* parent) : ZorvForm("frmProcessWindow", "Zorv PW", parent) {
    setMinimumSize(720, 480);
    tabPWCurve_ = new QTabWidget(contentArea());
    tabPWCurve_->setObjectName("tabPWCurve");
    setupPage_ = buildSetup();
    setupPage_->setProperty("key", "kSetup");
    tabPWCurve_->addTab(setupPage_, tr("Setup"));
    selectionPage_ = buildSelection();
    selectionPage_->setProperty("key", "kDataSelection");
    for (const Analysis& a : kAnalyses) buildPage(a.key, tr(a.caption));
    aberPage_ = buildAberrations();
    aberPage_->setProperty("key", "kAberrations");
    contentLayout()->addWidget(tabPWCurve_);
    loadSettings();
    fillAnalysisTabs();
    connect(tabPWCurve_, &QTabWidget::currentChanged, this, &frmProcessWindow::tabPWCurve_Click);
}

frmProcessWindow::~frmProcessWindow() {
    for (auto& p : pages_) {
        p->view->setGraphic(nullptr);
        p->dofView->setGraphic(nullptr);
    }
    chtPWselection_->setGraphic(nullptr);
    chtAberrations_->setGraphic(nullptr);
}

WindowPlace frmProcessWindow::place() const { return {"PWformSize", ""}; }

void frmProcessWindow::formLoad() {
    if (Current().lot) setLot(Current().lot, Current().workbook.get());
}

void frmProcessWindow::formUnload() {
    for (auto& p : pages_) {
        p->view->setGraphic(nullptr);
        p->dofView->setGraphic(nullptr);
    }
    chtPWselection_->setGraphic(nullptr);
    chtAberrations_->setGraphic(nullptr);
}

// ------------------------------------------------------------------ setup

QWidget* frmProcessWindow::buildSetup() {
    auto* page = new QWidget;
    auto* top = new QVBoxLayout(page);
    lblPWlot_ = new QLabel(page);
    lblPWlot_->setObjectName("lblPWlot");
    lblPWlot_->setStyleSheet("QLabel { font-weight: bold; }");
    top->addWidget(lblPWlot_);

    auto* cols = new QHBoxLayout;
    top->addLayout(cols, 1);

    // The variables.
    auto* vars = new QGroupBox(tr("Process Variables"), page);
    vars->setObjectName("kPWvariables");
    auto* vl = new QVBoxLayout(vars);
    auto* scroll = new QScrollArea(vars);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    rowsHost_ = new QWidget(scroll);
    auto* grid = new QGridLayout(rowsHost_);
    grid->setContentsMargins(0, 0, 0, 0);
    const char* heads[] = {"Variable", "Target", "Max", "Min"};
    for (int c = 0; c < 4; ++c) {
        auto* h = new QLabel(tr(heads[c]), rowsHost_);
        h->setStyleSheet("QLabel { font-weight: bold; }");
        grid->addWidget(h, 0, c);
    }
    grid->setColumnStretch(0, 2);
    for (int c = 1; c < 4; ++c) grid->setColumnStretch(c, 1);
    scroll->setWidget(rowsHost_);
    vl->addWidget(scroll, 1);
    auto* rf = new QFormLayout;
    txtPWTargetRange_ = new QLineEdit(vars);
    txtPWTargetRange_->setObjectName("txtPWTargetRange");
    txtPWTargetRange_->setMaximumWidth(90);
    txtPWTargetRange_->setToolTip(tr("Max and min are the target plus and minus this percentage of it (at most 90)"));
    rf->addRow(tr("Target range (%)"), txtPWTargetRange_);
    vl->addLayout(rf);
    auto* hint = new QLabel(tr("Check the variables to analyse. Entering a target sets max and min from the "
                               "range; either may then be typed over."),
                            vars);
    hint->setWordWrap(true);
    hint->setStyleSheet("QLabel { color: palette(mid); }");
    vl->addWidget(hint);
    cols->addWidget(vars, 3);
    connect(txtPWTargetRange_, &QLineEdit::editingFinished, this, [this] { txtPWTargetRange_Validate(); });

    // The focus, dose and site selections.
    auto* sel = new QGroupBox(tr("Data Selection"), page);
    sel->setObjectName("kPWselection");
    auto* sl = new QGridLayout(sel);
    auto list = [&](const char* name, const char* caption, int col) {
        auto* l = new QListWidget(sel);
        l->setObjectName(name);
        l->setSelectionMode(QAbstractItemView::MultiSelection);
        l->setMinimumWidth(90);
        sl->addWidget(new QLabel(tr(caption), sel), 0, col);
        sl->addWidget(l, 1, col);
        // "ALL" and single values exclude each other.
        connect(l, &QListWidget::itemClicked, this, [this, l](QListWidgetItem* it) {
            if (filling_) return;
            filling_ = true;
            if (l->row(it) == 0 && it->isSelected()) {
                for (int i = 1; i < l->count(); ++i) l->item(i)->setSelected(false);
            } else if (l->row(it) != 0) {
                bool any = false;
                for (int i = 1; i < l->count(); ++i) any = any || l->item(i)->isSelected();
                l->item(0)->setSelected(!any);
            } else {
                it->setSelected(true);  // nothing chosen stays ALL
            }
            filling_ = false;
        });
        return l;
    };
    lstPWfocus_ = list("lstPWfocus", "Focus (um)", 0);
    lstPWDose_ = list("lstPWDose", "Dose", 1);
    lstPWsites_ = list("lstPWsites", "Sites", 2);
    cols->addWidget(sel, 3);

    // The options.
    auto* opts = new QGroupBox(tr("Options"), page);
    opts->setObjectName("kPWoptions");
    auto* ol = new QVBoxLayout(opts);
    auto check = [&](const char* name, const char* caption) {
        auto* c = new QCheckBox(tr(caption), opts);
        c->setObjectName(name);
        ol->addWidget(c);
        return c;
    };
    chkPWstatistics_ = check("chkPWstatistics", "Statistics box");
    chkPWGraphics_ = check("chkPWGraphics", "Graphics");
    chkShowLimits_ = check("chkShowLimits", "Draw target, max and min lines");
    chkPWvarSettings_ = check("chkPWvarSettings", "Keep variable settings");
    chkPWconfidence_ = check("chkPWconfidence", "Confidence intervals (bootstrap, 95%)");
    chkPWconfidence_->setToolTip(tr("Resample the response surfaces' residuals 100 times and show how far the "
                                    "isofocal dose and the window found may move"));
    chkPWvarSettings_->setToolTip(tr("Restore the saved targets of features of the same name with the next lot"));
    auto* of = new QFormLayout;
    cmbPWprecision_ = new QComboBox(opts);
    cmbPWprecision_->setObjectName("cmbPWprecision");
    cmbPWprecision_->addItems({"1", "2", "5", "10", "20", "50"});
    cmbPWprecision_->setToolTip(tr("Grid steps per focus and dose step of the window search"));
    of->addRow(tr("Precision"), cmbPWprecision_);
    optFocusResponse_ = new QComboBox(opts);
    optFocusResponse_->setObjectName("optFocusResponse");
    optFocusResponse_->addItems({tr("Process Window Algorithm"), Q(LoadResString(resFocusPolynomial))});
    optFocusResponse_->setItemData(0, Q(LoadResString(resPWAlgorithmTip)), Qt::ToolTipRole);
    of->addRow(tr("Focus response"), optFocusResponse_);
    optDoseResponse_ = new QComboBox(opts);
    optDoseResponse_->setObjectName("optDoseResponse");
    optDoseResponse_->addItems({tr("Process Window Algorithm"), Q(LoadResString(resDosePolynomial))});
    optDoseResponse_->setItemData(0, Q(LoadResString(resPWAlgorithmTip)), Qt::ToolTipRole);
    for (QComboBox* c : {optFocusResponse_, optDoseResponse_}) c->setToolTip(Q(LoadResString(resPWAlgorithmTip)));
    of->addRow(tr("Dose response"), optDoseResponse_);
    ol->addLayout(of);

    // Signatures removed first, so the window is that of the process alone.
    auto* sm = new QGroupBox(tr("Spatial Model"), opts);
    sm->setObjectName("fraPWSpatialModel");
    auto* sg = new QGridLayout(sm);
    chkWValidate_ = new QCheckBox(tr("Remove wafer model"), sm);
    chkWValidate_->setObjectName("chkWValidate");
    cmbWaferTerms_ = new QComboBox(sm);
    cmbWaferTerms_->setObjectName("cmbWaferTerms");
    cmbWaferTerms_->addItems({tr("Term 1"), tr("Terms 1-3"), tr("All 10 terms")});
    chkFValidate_ = new QCheckBox(tr("Remove field model"), sm);
    chkFValidate_->setObjectName("chkFValidate");
    cmbFieldTerms_ = new QComboBox(sm);
    cmbFieldTerms_->setObjectName("cmbFieldTerms");
    cmbFieldTerms_->addItems({tr("Piston"), tr("Piston, tilts"), tr("Piston, tilts, curvatures")});
    sg->addWidget(chkWValidate_, 0, 0);
    sg->addWidget(cmbWaferTerms_, 0, 1);
    sg->addWidget(chkFValidate_, 1, 0);
    sg->addWidget(cmbFieldTerms_, 1, 1);
    ol->addWidget(sm);
    ol->addStretch(1);
    auto* run = new QLabel(tr("Choose an analysis tab above to run it on the checked variables."), opts);
    run->setWordWrap(true);
    run->setStyleSheet("QLabel { color: palette(mid); }");
    ol->addWidget(run);
    cols->addWidget(opts, 2);

    auto saveCheck = [this](QCheckBox* c, const char* key) {
        connect(c, &QCheckBox::toggled, this, [this, key](bool on) { saveSetting(key, on ? "1" : "0"); });
    };
    saveCheck(chkPWstatistics_, "chkPWstatistics");
    saveCheck(chkPWGraphics_, "chkPWGraphics");
    saveCheck(chkShowLimits_, "chkShowLimits");
    saveCheck(chkPWvarSettings_, "chkPWvarSettings");
    saveCheck(chkPWconfidence_, "chkPWconfidence");
    connect(cmbPWprecision_, &QComboBox::currentTextChanged, this,
            [this](const QString& t) { saveSetting("cmbPWprecision", S(t)); });
    connect(optFocusResponse_, &QComboBox::currentIndexChanged, this,
            [this](int i) { saveSetting("optFocusResponse", std::to_string(i)); });
    connect(optDoseResponse_, &QComboBox::currentIndexChanged, this,
            [this](int i) { saveSetting("optDoseResponse", std::to_string(i)); });
    auto saveSpatial = [this](const char* key, const std::string& value) {
        if (!filling_) SaveSetting(ApplicationTitle(), kSpatialSection, key, value);
    };
    connect(chkWValidate_, &QCheckBox::toggled, this, [saveSpatial](bool on) { saveSpatial("chkWValidate", on ? "1" : "0"); });
    connect(chkFValidate_, &QCheckBox::toggled, this, [saveSpatial](bool on) { saveSpatial("chkFValidate", on ? "1" : "0"); });
    connect(cmbWaferTerms_, &QComboBox::currentIndexChanged, this,
            [saveSpatial](int i) { saveSpatial("cmbWaferTerms", std::to_string(i)); });
    connect(cmbFieldTerms_, &QComboBox::currentIndexChanged, this,
            [saveSpatial](int i) { saveSpatial("cmbFieldTerms", std::to_string(i)); });
    return page;
}

void frmProcessWindow::loadSettings() {
    filling_ = true;
    double range = 10;
    if (!ParseNumber(Setting("PWtargetRange", "10.0"), range)) range = 10;
    lastRange_ = Q(Format(std::min(range, 90.0), kRangeFormat));
    txtPWTargetRange_->setText(lastRange_);
    chkPWstatistics_->setChecked(Setting("chkPWstatistics", "1") == "1");
    chkPWGraphics_->setChecked(Setting("chkPWGraphics", "1") == "1");
    chkShowLimits_->setChecked(Setting("chkShowLimits", "1") == "1");
    chkPWvarSettings_->setChecked(Setting("chkPWvarSettings", "0") == "1");
    chkPWconfidence_->setChecked(Setting("chkPWconfidence", "0") == "1");
    const int at = cmbPWprecision_->findText(Q(Trim(Setting("cmbPWprecision", "10"))));
    cmbPWprecision_->setCurrentIndex(at >= 0 ? at : cmbPWprecision_->findText("10"));
    optFocusResponse_->setCurrentIndex(std::clamp(std::atoi(Setting("optFocusResponse", "0").c_str()), 0, 1));
    optDoseResponse_->setCurrentIndex(std::clamp(std::atoi(Setting("optDoseResponse", "0").c_str()), 0, 1));
    auto spatial = [](const char* key, const char* def) { return GetSetting(ApplicationTitle(), kSpatialSection, key, def); };
    chkWValidate_->setChecked(spatial("chkWValidate", "0") == "1");
    chkFValidate_->setChecked(spatial("chkFValidate", "0") == "1");
    // -1, the default, is no choice yet: all terms.
    auto terms = [&](QComboBox* c, const char* key) {
        const int i = std::atoi(spatial(key, "-1").c_str());
        c->setCurrentIndex(i >= 0 && i < c->count() ? i : c->count() - 1);
    };
    terms(cmbWaferTerms_, "cmbWaferTerms");
    terms(cmbFieldTerms_, "cmbFieldTerms");
    filling_ = false;
}

void frmProcessWindow::saveSetting(const char* key, const std::string& value) {
    if (!filling_) SaveSetting(ApplicationTitle(), kSection, key, value);
}

void frmProcessWindow::clearRows() {
    for (Row& r : rows_) {
        delete r.chk;
        delete r.target;
        delete r.max;
        delete r.min;
    }
    rows_.clear();
}

void frmProcessWindow::setLot(std::shared_ptr<cLot> lot, Workbook* workbook) {
    for (auto& p : pages_) {
        p->view->setGraphic(nullptr);
        p->dofView->setGraphic(nullptr);
        p->chart.reset();
        p->dofChart.reset();
        p->report = PWReport();
        p->ran = false;
        p->table->clear();
        p->table->setRowCount(0);
        p->table->setColumnCount(0);
        p->title->clear();
    }
    state_ = PWState();
    pwLot_.reset();
    figures_.Kill();
    shown_ = figureSeries_ = scanAt_ = 0;
    scan_ = Datam();
    intervals_.clear();
    chtPWselection_->setGraphic(nullptr);
    selectionChart_.reset();
    chtAberrations_->setGraphic(nullptr);
    aberChart_.reset();
    aberRows_ = aberColumns_ = Datam();
    grdAberrations_->clear();
    grdAberrations_->setRowCount(0);
    lblPWcull_->clear();
    source_ = std::move(lot);
    // A lot with nothing left after its culls is kept as it is (a clone
    // refuses it): the analyses then say so.
    const bool live = source_ && source_->TotalWafers() > 0 && source_->TotalPoints() > 0;
    lot_ = live ? source_->clone(true) : source_;
    workbook_ = lot_ ? workbook : nullptr;
    fillSetup();
    fillAnalysisTabs();
}

void frmProcessWindow::fillSetup() {
    filling_ = true;
    clearRows();
    focusValues_ = doseValues_ = Datam();
    allFocus_.clear();
    allDose_.clear();
    lstPWfocus_->clear();
    lstPWDose_->clear();
    lstPWsites_->clear();
    cmbPWDataCull_->clear();
    cmbPWDataCull_->addItem("NONE");
    cmbPWSelWafer_->clear();
    if (!lot_) {
        lblPWlot_->setText(tr("No lot loaded. Load a data workbook to set up a process window analysis."));
        filling_ = false;
        return;
    }
    long exposures = 0;
    doseValues_ = lot_->GetUniqueExposures(exposures, focusValues_);
    allFocus_ = Values(focusValues_);
    allDose_ = Values(doseValues_);
    FillList(lstPWfocus_, allFocus_);
    FillList(lstPWDose_, allDose_);
    std::set<long> sites;
    lot_->forEachLiveSite([&](cWafer&, cField&, cSite& s) { sites.insert(s.NumberKey()); });
    std::vector<std::string> siteTexts;
    for (long s : sites) siteTexts.push_back(std::to_string(s));
    FillList(lstPWsites_, siteTexts);
    lblPWlot_->setText(tr("Lot: %1    %2 focus and %3 dose values, %4 sites")
                           .arg(Q(lot_->LotName))
                           .arg(allFocus_.size())
                           .arg(allDose_.size())
                           .arg(sites.size()));

    // A row per feature that holds data.
    auto* grid = static_cast<QGridLayout*>(rowsHost_->layout());
    const Datam types = lot_->GetFeatureTypes();
    for (int r = 1; types.isArray() && r <= types.rowUb(); ++r) {
        const long k = types.get(r, 0).toLong();
        if (k < 1 || k > 8) continue;
        const int n = static_cast<int>(rows_.size());
        Row row;
        row.chk = new QCheckBox(Q(types.get(r, 2).toString()), rowsHost_);
        row.chk->setObjectName(QString("chkPWvar%1").arg(n));
        auto box = [&](const char* name) {
            auto* e = new QLineEdit(rowsHost_);
            e->setObjectName(QString("%1%2").arg(name).arg(n));
            e->setMinimumWidth(70);
            e->setAlignment(Qt::AlignRight);
            return e;
        };
        row.target = box("txtPWTarget");
        row.max = box("txtPWmax");
        row.min = box("txtPWmin");
        grid->addWidget(row.chk, n + 1, 0);
        grid->addWidget(row.target, n + 1, 1);
        grid->addWidget(row.max, n + 1, 2);
        grid->addWidget(row.min, n + 1, 3);
        connect(row.target, &QLineEdit::editingFinished, this, [this, n] { txtPWTarget_Validate(n); });
        connect(row.max, &QLineEdit::editingFinished, this, [this, n] { txtPWmax_Validate(n); });
        connect(row.min, &QLineEdit::editingFinished, this, [this, n] { txtPWmin_Validate(n); });
        rows_.push_back(row);
    }
    grid->setRowStretch(static_cast<int>(rows_.size()) + 1, 1);
    fillCullVariables();
    cmbPWSelWafer_->clear();
    cmbPWSelWafer_->addItem(tr("All wafers"), QString());
    for (cWafer* w : lot_->Wafers()) cmbPWSelWafer_->addItem(Q(w->KeyName), Q(w->KeyName));
    filling_ = false;

    // The targets of the last session, where the feature is the same.
    if (chkPWvarSettings_->isChecked())
        for (int n = 0; n < variableCount(); ++n) {
            const std::string key = "chkPWvarNom" + std::to_string(n);
            if (Setting(key.c_str(), "") != Upper(S(rows_[n].chk->text()))) continue;
            const std::string t = Setting(("txtPWTarget" + std::to_string(n)).c_str(), "");
            if (t.empty()) continue;
            rows_[n].target->setText(Q(t));
            txtPWTarget_Validate(n);
        }
}

void frmProcessWindow::fillAnalysisTabs() {
    filling_ = true;
    while (tabPWCurve_->count() > 1) tabPWCurve_->removeTab(1);
    tabPWCurve_->addTab(selectionPage_, tr("Data Selection"));
    tabPWCurve_->setTabEnabled(1, lot_ != nullptr);
    // The dose at best focus needs more than one dose.
    for (const Analysis& a : kAnalyses) {
        Page* p = page(a.key);
        if (std::string(a.key) == kDoseBF && allDose_.size() < 2) {
            p->page->hide();
            continue;
        }
        tabPWCurve_->addTab(p->page, tr(a.caption));
        tabPWCurve_->setTabEnabled(tabPWCurve_->count() - 1, lot_ != nullptr);
    }
    tabPWCurve_->addTab(aberPage_, tr("Aberrations"));
    tabPWCurve_->setTabEnabled(tabPWCurve_->count() - 1, lot_ != nullptr);
    tabPWCurve_->setCurrentIndex(0);
    filling_ = false;
}

QCheckBox* frmProcessWindow::chkPWvar(int n) const {
    return n >= 0 && n < variableCount() ? rows_[static_cast<size_t>(n)].chk : nullptr;
}
QLineEdit* frmProcessWindow::txtPWTarget(int n) const {
    return n >= 0 && n < variableCount() ? rows_[static_cast<size_t>(n)].target : nullptr;
}
QLineEdit* frmProcessWindow::txtPWmax(int n) const {
    return n >= 0 && n < variableCount() ? rows_[static_cast<size_t>(n)].max : nullptr;
}
QLineEdit* frmProcessWindow::txtPWmin(int n) const {
    return n >= 0 && n < variableCount() ? rows_[static_cast<size_t>(n)].min : nullptr;
}

// ---------------------------------------------------------------- entries

bool frmProcessWindow::numberEntry(QLineEdit* box, QString& last, const char* format, double& value) {
    const QString text = box->text().trimmed();
    if (!ParseBox(text, value)) {
        std::string m;
        m.append("Entered value of '").append(S(text)).append("' is not valid.");
        box->setText(last);
        MsgBox(m, vbOKOnly | vbExclamation, kSetupErrorTitle);
        return false;
    }
    last = Q(Format(value, format));
    box->setText(last);
    return true;
}

void frmProcessWindow::applyTargetRange(int n) {
    Row& row = rows_[static_cast<size_t>(n)];
    double target = 0, range = 0;
    if (!ParseBox(row.target->text(), target) || !ParseBox(txtPWTargetRange_->text(), range)) return;
    const double r = range / 100.0 * std::fabs(target);
    if (r == 0) return;
    row.lastMax = Q(Format(target + r, kValueFormat));
    row.lastMin = Q(Format(target - r, kValueFormat));
    row.max->setText(row.lastMax);
    row.min->setText(row.lastMin);
}

bool frmProcessWindow::txtPWTarget_Validate(int n) {
    if (n < 0 || n >= variableCount()) return false;
    Row& row = rows_[static_cast<size_t>(n)];
    // Leaving the box unchanged is no entry.
    if (row.target->text().trimmed() == row.lastTarget) return true;
    double target = 0;
    if (!numberEntry(row.target, row.lastTarget, kValueFormat, target)) return false;
    applyTargetRange(n);
    row.chk->setChecked(true);
    const std::string i = std::to_string(n);
    saveSetting(("chkPWvarNom" + i).c_str(), Upper(S(row.chk->text())));
    saveSetting(("txtPWTarget" + i).c_str(), S(row.lastTarget));
    return true;
}

bool frmProcessWindow::txtPWTargetRange_Validate() {
    if (txtPWTargetRange_->text().trimmed() == lastRange_) return true;
    double range = 0;
    if (!numberEntry(txtPWTargetRange_, lastRange_, kRangeFormat, range)) return false;
    if (range > 90) {
        lastRange_ = "90.0";
        txtPWTargetRange_->setText(lastRange_);
    }
    saveSetting("PWtargetRange", S(lastRange_));
    for (int n = 0; n < variableCount(); ++n) applyTargetRange(n);
    return true;
}

bool frmProcessWindow::txtPWmax_Validate(int n) {
    if (n < 0 || n >= variableCount()) return false;
    Row& row = rows_[static_cast<size_t>(n)];
    if (row.max->text().trimmed() == row.lastMax) return true;
    double v = 0;
    return numberEntry(row.max, row.lastMax, kValueFormat, v);
}

bool frmProcessWindow::txtPWmin_Validate(int n) {
    if (n < 0 || n >= variableCount()) return false;
    Row& row = rows_[static_cast<size_t>(n)];
    if (row.min->text().trimmed() == row.lastMin) return true;
    double v = 0;
    return numberEntry(row.min, row.lastMin, kValueFormat, v);
}

// ------------------------------------------------------------- analyses

frmProcessWindow::Page* frmProcessWindow::buildPage(const QString& key, const QString& caption) {
    auto p = std::make_unique<Page>();
    p->key = key;
    p->page = new QWidget(tabPWCurve_);
    p->page->setObjectName("k" + key.mid(1) + "Page");
    p->page->setProperty("key", key);
    p->page->setAccessibleName(caption);
    // Out of the tab set until fillAnalysisTabs puts it there.
    p->page->hide();
    auto* v = new QVBoxLayout(p->page);
    v->setContentsMargins(4, 4, 4, 4);
    p->title = new QLabel(p->page);
    p->title->setObjectName("lblPWnote" + key.mid(1));
    p->title->setWordWrap(true);
    p->title->setStyleSheet("QLabel { color: #a00000; font-weight: bold; }");
    p->title->hide();
    v->addWidget(p->title);
    auto* split = new QSplitter(Qt::Horizontal, p->page);
    if (key == kPW) {
        // The window chart with its figure controls under it.
        auto* box = new QWidget(split);
        auto* bl = new QVBoxLayout(box);
        bl->setContentsMargins(0, 0, 0, 0);
        p->view = new ChartView(box);
        bl->addWidget(p->view, 1);
        bl->addWidget(buildFigureBar(*p));
    } else {
        p->view = new ChartView(split);
    }
    p->view->setObjectName("chtPW" + key.mid(1));
    auto* side = new QSplitter(Qt::Vertical, split);
    p->text = new QPlainTextEdit(side);
    p->text->setObjectName("txtPW" + key.mid(1));
    p->text->setReadOnly(true);
    p->text->setLineWrapMode(QPlainTextEdit::NoWrap);
    p->text->setPlaceholderText(tr("The results of the analysis appear here."));
    p->text->setTabStopDistance(p->text->fontMetrics().horizontalAdvance(QString(12, 'x')));
    p->table = new QTableWidget(side);
    p->table->setObjectName("grdPW" + key.mid(1));
    p->table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    p->table->verticalHeader()->setDefaultSectionSize(20);
    p->table->horizontalHeader()->hide();
    p->table->setAlternatingRowColors(true);
    p->dofView = new ChartView(side);
    p->dofView->setObjectName("chtPWdof");
    p->dofView->hide();
    split->addWidget(key == kPW ? p->view->parentWidget() : p->view);
    split->addWidget(side);
    split->setSizes({840, 420});
    side->setSizes({160, 340, 340});
    v->addWidget(split, 1);
    pages_.push_back(std::move(p));
    return pages_.back().get();
}

frmProcessWindow::Page* frmProcessWindow::page(const QString& key) const {
    for (const auto& p : pages_)
        if (p->key == key) return p.get();
    return nullptr;
}

int frmProcessWindow::tabIndex(const QString& key) const {
    if (key == "kSetup") return 0;
    if (key == "kDataSelection") return tabPWCurve_->indexOf(selectionPage_);
    if (key == "kAberrations") return tabPWCurve_->indexOf(aberPage_);
    const Page* p = page(key);
    return p ? tabPWCurve_->indexOf(p->page) : -1;
}
ChartView* frmProcessWindow::chartView(const QString& key) const {
    const Page* p = page(key);
    return p ? p->view : nullptr;
}
QPlainTextEdit* frmProcessWindow::resultText(const QString& key) const {
    const Page* p = page(key);
    return p ? p->text : nullptr;
}
QTableWidget* frmProcessWindow::reportTable(const QString& key) const {
    const Page* p = page(key);
    return p ? p->table : nullptr;
}
const PWReport* frmProcessWindow::report(const QString& key) const {
    const Page* p = page(key);
    return p && p->ran ? &p->report : nullptr;
}

void frmProcessWindow::tabPWCurve_Click(int index) {
    if (filling_ || index < 1) return;
    const QString key = tabPWCurve_->widget(index)->property("key").toString();
    if (key == "kDataSelection") {
        Draw_Selection();
        return;
    }
    if (key == "kAberrations") {
        cmdModelField();
        return;
    }
    runAnalysis(key);
}

PWSetup frmProcessWindow::LoadPWanalysis(const QString& key) {
    PWControls c;
    c.chkShowLimits = chkShowLimits_->isChecked();
    c.tabPWCurve = S(key);
    c.responseOption = key == kFocus ? optFocusResponse_->currentIndex()
                       : key == kDose || key == kDoseBF ? optDoseResponse_->currentIndex()
                                                        : 0;
    bool warned = false;
    for (const Row& r : rows_) {
        PWControls::Variable v;
        v.checked = r.chk->isChecked();
        v.name = S(r.chk->text());
        v.target = S(r.target->text().trimmed());
        v.max = S(r.max->text().trimmed());
        v.min = S(r.min->text().trimmed());
        double mx = 0, mn = 0;
        if (v.checked && ParseBox(r.max->text(), mx) && ParseBox(r.min->text(), mn) && mx < mn) {
            if (!warned) SetStatusText("Process window variable setup ...");
            warned = true;
            std::string m;
            m.append("Process window variable setup ...").append(kCrLf);
            m.append("Warning: Maximum value for '").append(v.name).append("' is LESS than it's minimum value.");
            MsgBox(m, vbOKOnly | vbExclamation);
        }
        c.variables.push_back(std::move(v));
    }
    c.lstPWfocus = Chosen(lstPWfocus_);
    c.lstPWDose = Chosen(lstPWDose_);
    c.allFocus = allFocus_;
    c.allDose = allDose_;
    std::string sites;
    for (const std::string& s : Chosen(lstPWsites_)) sites.append(sites.empty() ? "" : ",").append(s);
    c.siteList = sites;
    c.chkPWStatistics = chkPWstatistics_->isChecked();
    c.chkPWGraphics = chkPWGraphics_->isChecked();
    c.cmbPWprecision = S(cmbPWprecision_->currentText());
    // The term switches, one character a term.
    const int wTerms[] = {1, 3, 10}, fTerms[] = {1, 3, 5};
    c.waferModel = chkWValidate_->isChecked() ? 1 : 0;
    c.fieldModel = chkFValidate_->isChecked() ? 1 : 0;
    c.lstWcoef.assign(10, false);
    c.lstFcoef.assign(5, false);
    for (int i = 0; i < wTerms[std::clamp(cmbWaferTerms_->currentIndex(), 0, 2)]; ++i) c.lstWcoef[static_cast<size_t>(i)] = true;
    for (int i = 0; i < fTerms[std::clamp(cmbFieldTerms_->currentIndex(), 0, 2)]; ++i) c.lstFcoef[static_cast<size_t>(i)] = true;
    c.cmbPWDataCull = S(cmbPWDataCull_->currentText());
    c.cmbPWDataCullItemData = cmbPWDataCull_->currentIndex();
    c.txtPWDataMax = S(txtPWDataMax_->text().trimmed());
    c.txtPWDataMin = S(txtPWDataMin_->text().trimmed());
    PWSetup s = zorv::LoadPWanalysis(c);
    s.workbook = workbook_;
    return s;
}

bool frmProcessWindow::runAnalysis(const QString& key) {
    if (running_) return false;
    Proc p("frmProcessWindow(tabPWCurve_Click): ");
    Page* pg = page(key);
    if (!pg) {
        Report(p.fail("Unknown analysis: '" + S(key) + "'"));
        return false;
    }
    // Without a lot of its own, the window takes the loaded one.
    if (!lot_ && Current().lot) setLot(Current().lot, Current().workbook.get());
    const int at = tabPWCurve_->indexOf(pg->page);
    if (at < 0) {
        Report(p.fail("Unknown analysis: '" + S(key) + "'"));
        return false;
    }
    if (tabPWCurve_->currentIndex() != at) {
        filling_ = true;
        tabPWCurve_->setCurrentIndex(at);
        filling_ = false;
    }
    pg->view->setGraphic(nullptr);
    pg->dofView->setGraphic(nullptr);
    pg->dofView->hide();
    pg->title->hide();
    pg->text->clear();
    pg->statsMoved = Datam();
    pg->ran = false;
    if (key == kPW) {
        figures_.Kill();
        shown_ = figureSeries_ = scanAt_ = 0;
        scan_ = Datam();
        lblPWfigure_->clear();
    }
    long points = 0;
    if (lot_ && lot_->TotalWafers() > 0) points = lot_->TotalPoints();
    if (points < 1) {
        pg->title->setText(tr("No data points after culling. Please check data setup & culling."));
        pg->title->show();
        std::string m;
        m.append("No data points after culling.").append(kCrLf).append("Please check data setup & culling");
        Report(p.fail(m));
        return false;
    }

    const PWSetup setup = LoadPWanalysis(key);
    const BusyPointer busy;
    running_ = true;
    tabPWCurve_->setEnabled(false);
    auto ran = PWcalculate(setup, *lot_, focusValues_, doseValues_, state_, true, &pg->report);
    tabPWCurve_->setEnabled(true);
    running_ = false;
    ShowProgress(-1);
    if (!ran) {
        pg->title->setText(Q(Replace(ran.failure().text, kCrLf, " ")));
        pg->title->show();
        Report(ran.failure());
        return false;
    }
    pwLot_ = *ran;
    pg->ran = true;
    if (pg->report.escaped) {
        pg->title->setText(tr("Stopped by Esc: the results hold what was done before it."));
        pg->title->show();
    }
    pg->chart = state_.chart;
    pg->dofChart = pg->report.expoLatChart;
    if (pg->chart) {
        // The statistics box sits right of the plot beside the legend of
        // every focus or dose and site, squeezing the plot to a sliver: here
        // it goes to the text box beside the chart.
        cStats& st = pg->chart->Stats;
        if (st.DoPlot && st.TotalRows() > 0) {
            st.DoPlot = false;
            pg->statsMoved = st.GetArray();
        }
    }
    showReport(*pg);
    // The setup's data cull, told beside its controls.
    lblPWcull_->setText(pg->report.removed > 0 ? QString("Removed: %1").arg(pg->report.removed) : QString());
    if (chkPWconfidence_->isChecked()) showIntervals(*pg, setup);
    if (pg->chart) {
        // A long title (the isofocal fits, a line per focus and site) would
        // crowd out the plot: the chart keeps its head, the text box has all.
        constexpr size_t kTitleLines = 12;
        if (pg->report.titleLines.size() > kTitleLines) {
            std::vector<std::string> head(pg->report.titleLines.begin(), pg->report.titleLines.begin() + 2);
            head.push_back("(" + std::to_string(pg->report.titleLines.size() - 2) + " more lines beside the chart)");
            pg->chart->TitleObj.TitleString = PWJoinTitle(head);
        }
        if (key == kPW) afterKPW(*pg);
        pg->view->setGraphic(pg->chart.get());
        if (pg->view->isVisible()) pg->view->render();
    }
    if (pg->dofChart) {
        pg->dofView->setGraphic(pg->dofChart.get());
        pg->dofView->show();
        if (pg->dofView->isVisible()) pg->dofView->render();
    }
    if (!pg->view->failureText().isEmpty()) {
        SetStatusText(S(pg->view->failureText()));
        return false;
    }
    return true;
}

void frmProcessWindow::showReport(Page& pg) {
    std::string lines;
    for (const std::string& l : pg.report.titleLines)
        if (!Trim(l).empty()) lines.append(lines.empty() ? "" : "\n").append(l);
    const Datam& st = pg.statsMoved;
    if (st.isArray() && st.dims() == 2) {
        lines.append("\n");
        for (int r = st.rowLb(); r <= st.rowUb(); ++r) {
            std::string line;
            for (int c = st.colLb(); c <= st.colUb(); ++c) line.append(c > st.colLb() ? "\t" : "").append(CellText(st.get(r, c)));
            lines.append("\n").append(line);
        }
    }
    pg.text->setPlainText(Q(lines));
    const Datam& t = pg.report.report;
    QTableWidget* tab = pg.table;
    tab->clear();
    if (!t.isArray() || t.dims() != 2) {
        tab->setRowCount(0);
        tab->setColumnCount(0);
        return;
    }
    // Trailing empty columns left out.
    int lastCol = t.colLb();
    for (int r = t.rowLb(); r <= t.rowUb(); ++r)
        for (int c = t.colLb(); c <= t.colUb(); ++c)
            if (!CellText(t.get(r, c)).empty()) lastCol = std::max(lastCol, c);
    const int first = std::max(1, t.rowLb()), firstCol = std::max(1, t.colLb());
    tab->setRowCount(std::max(0, t.rowUb() - first + 1));
    tab->setColumnCount(std::max(0, lastCol - firstCol + 1));
    for (int r = first; r <= t.rowUb(); ++r)
        for (int c = firstCol; c <= lastCol; ++c) {
            const Value& v = t.get(r, c);
            const std::string s = CellText(v);
            if (s.empty()) continue;
            auto* it = new QTableWidgetItem(Q(s));
            it->setToolTip(it->text());
            if (v.isNumberType()) it->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
            tab->setItem(r - first, c - firstCol, it);
        }
    // The report's title row would make its column as wide as the pane.
    tab->resizeColumnsToContents();
    for (int c = 0; c < tab->columnCount(); ++c) tab->setColumnWidth(c, std::min(tab->columnWidth(c), 150));
}

// ------------------------------------------------------------ kPW figures

QWidget* frmProcessWindow::buildFigureBar(Page& pg) {
    auto* bar = new QGroupBox(tr("Window figures"), pg.page);
    bar->setObjectName("fraPWfigures");
    auto* g = new QGridLayout(bar);
    g->setContentsMargins(6, 4, 6, 4);
    g->setVerticalSpacing(2);
    auto* fmt = new QHBoxLayout;
    const char* shapes[] = {"Rectangle", "Ellipse", "Off"};
    for (int i = 0; i < 3; ++i) {
        optPWformat_[i] = new QRadioButton(tr(shapes[i]), bar);
        optPWformat_[i]->setObjectName(QString("optPWformat%1").arg(i));
        fmt->addWidget(optPWformat_[i]);
        connect(optPWformat_[i], &QRadioButton::toggled, this, [this, i](bool on) {
            if (on && !filling_) setFigureFormat(i);
        });
    }
    optPWformat_[0]->setChecked(true);
    fmt->addStretch(1);
    auto button = [&](const char* name, const QString& caption, const QString& tip) {
        auto* b = new QPushButton(caption, bar);
        b->setObjectName(name);
        b->setToolTip(tip);
        fmt->addWidget(b);
        return b;
    };
    QPushButton* scan = button("cmdPWdoScan", tr("Scan"), tr("Step through the figures whose dose lies on the chart"));
    QPushButton* minus = button("cmdPWadjMinus", "<", tr("Previous figure"));
    QPushButton* plus = button("cmdPWadjPlus", ">", tr("Next figure"));
    minus->setMaximumWidth(32);
    plus->setMaximumWidth(32);
    connect(scan, &QPushButton::clicked, this, [this] { cmdPWdoScan(); });
    connect(minus, &QPushButton::clicked, this, [this] { cmdPWadjMinus(); });
    connect(plus, &QPushButton::clicked, this, [this] { cmdPWadjPlus(); });
    g->addLayout(fmt, 0, 0, 1, 3);
    const char* captions[] = {"Dose", "DoF", "ExpoLat%"};
    for (int n = 0; n < 3; ++n) {
        g->addWidget(new QLabel(tr(captions[n]), bar), n + 1, 0);
        sldPW_[n] = new QSlider(Qt::Horizontal, bar);
        sldPW_[n]->setObjectName(QString("sldPW%1").arg(n));
        sldPW_[n]->setRange(0, 1000);
        sldPW_[n]->setEnabled(false);
        g->addWidget(sldPW_[n], n + 1, 1);
        txtPW_[n] = new QLineEdit(bar);
        txtPW_[n]->setObjectName(QString("txtPW%1").arg(n));
        txtPW_[n]->setReadOnly(true);
        txtPW_[n]->setMaximumWidth(90);
        txtPW_[n]->setAlignment(Qt::AlignRight);
        g->addWidget(txtPW_[n], n + 1, 2);
        connect(sldPW_[n], &QSlider::valueChanged, this, [this, n] {
            if (!filling_) sliderMoved(n);
        });
    }
    g->setColumnStretch(1, 1);
    lblPWfigure_ = new QLabel(bar);
    lblPWfigure_->setObjectName("lblPWfigure");
    g->addWidget(lblPWfigure_, 4, 0, 1, 3);
    return bar;
}

void frmProcessWindow::afterKPW(Page& pg) {
    figures_ = PWobjectsFromSpace(state_.processWindowSpace, shape_ == 1 ? 1 : 0);
    baseTitle_ = pg.report.titleLines;
    // The figure the sliders pick: its own curve over the others.
    cSeries& s = pg.chart->Series.Add("");
    s.Xcol = 1, s.Ycol = 2;
    // Magenta and heavier: the limit curves already use red and blue.
    s.ColorFore = RGB(220, 0, 220);
    s.nPenWidth = 3;
    s.SymbolDisplay = false;
    s.Connect = true;
    s.Hide = true;
    figureSeries_ = pg.chart->Series.Count();
    filling_ = true;
    for (int n = 0; n < 3; ++n) {
        double lo = 0, hi = 0;
        for (int i = 1; i <= figures_.Count(); ++i) {
            const double v = PWsliderValue(*figures_.Item(i), static_cast<PWSlider>(n));
            if (i == 1 || v < lo) lo = v;
            if (i == 1 || v > hi) hi = v;
        }
        sldLow_[n] = lo, sldHigh_[n] = hi;
        sldPW_[n]->setEnabled(figures_.Count() > 0 && shape_ != 2);
        txtPW_[n]->clear();
    }
    filling_ = false;
    if (figures_.Count() == 0) {
        lblPWfigure_->setText(tr("No window figures were found."));
        return;
    }
    // Start at the best figure of the shape.
    const double dose = shape_ == 1 ? pg.report.ellipseDose : pg.report.rectDose;
    showFigure(std::max(1, PWnearestFigure(figures_, PWSlider::Dose, dose)));
}

void frmProcessWindow::setFigureFormat(int shape) {
    shape = std::clamp(shape, 0, 2);
    if (shape_ == shape) return;
    shape_ = shape;
    filling_ = true;
    optPWformat_[shape]->setChecked(true);
    filling_ = false;
    Page* pg = page(kPW);
    if (!pg || !pg->ran || !pg->chart) return;
    scan_ = Datam();
    scanAt_ = 0;
    if (shape == 2) {
        if (cSeries* s = pg->chart->Series.Item(figureSeries_)) s->Hide = true;
        shown_ = 0;
        pg->chart->TitleObj.TitleString = PWJoinTitle(baseTitle_);
        for (QSlider* s : sldPW_) s->setEnabled(false);
        lblPWfigure_->setText(tr("Rectange/Ellipse display formats turned off."));
        pg->view->invalidate();
        if (pg->view->isVisible()) pg->view->render();
        return;
    }
    // The series of the old shape goes; afterKPW adds it for the new one.
    if (figureSeries_ > 0 && figureSeries_ == pg->chart->Series.Count()) pg->chart->Series.Remove(figureSeries_);
    afterKPW(*pg);
    pg->view->invalidate();
    if (pg->view->isVisible()) pg->view->render();
}

const clsPWobject* frmProcessWindow::shownFigure() const { return shown_ > 0 ? figures_.Item(shown_) : nullptr; }

void frmProcessWindow::sliderMoved(int n) {
    if (shape_ == 2) {
        SetStatusText("Rectange/Ellipse display formats turned off.");
        lblPWfigure_->setText(tr("Rectange/Ellipse display formats turned off."));
        return;
    }
    if (figures_.Count() == 0) return;
    const double v = sldLow_[n] + (sldHigh_[n] - sldLow_[n]) * sldPW_[n]->value() / 1000.0;
    const int i = PWnearestFigure(figures_, static_cast<PWSlider>(n), v);
    // A slider leaves the scan; the next step starts it again.
    scanAt_ = 0;
    if (i > 0) showFigure(i);
}

void frmProcessWindow::showFigure(int index) {
    Page* pg = page(kPW);
    const clsPWobject* f = figures_.Item(index);
    if (!pg || !pg->chart || !f) return;
    const int shape = shape_ == 1 ? 1 : 0;
    if (cSeries* s = pg->chart->Series.Item(figureSeries_)) {
        s->PlotData = PWfigureOutline(*f, shape);
        s->Hide = false;
    }
    shown_ = index;
    std::vector<std::string> title = baseTitle_;
    for (std::string& l : PWfigureTitle(*f, shape)) title.push_back(std::move(l));
    pg->chart->TitleObj.TitleString = PWJoinTitle(title);
    // The sliders follow the figure, without moving it again.
    filling_ = true;
    const char* formats[] = {"#0.00", "#0.000", "#0.00"};
    for (int n = 0; n < 3; ++n) {
        const double v = PWsliderValue(*f, static_cast<PWSlider>(n));
        const double span = sldHigh_[n] - sldLow_[n];
        sldPW_[n]->setValue(span > 0 ? static_cast<int>(std::lround((v - sldLow_[n]) / span * 1000)) : 0);
        txtPW_[n]->setText(Q(Format(v, formats[n])));
    }
    filling_ = false;
    QString where = tr("%1 %2 of %3").arg(shape == 0 ? tr("Rectangle") : tr("Ellipse")).arg(index).arg(figures_.Count());
    if (scanAt_ > 0 && scan_.isArray()) where = tr("Scan %1 of %2").arg(scanAt_).arg(scan_.rowUb());
    lblPWfigure_->setText(where + "    " + Q(f->Key));
    pg->view->invalidate();
    if (pg->view->isVisible()) pg->view->render();
}

int frmProcessWindow::cmdPWdoScan() {
    Page* pg = page(kPW);
    if (!pg || !pg->ran || !pg->chart) {
        SetStatusText("Run the process window first.");
        return 0;
    }
    if (shape_ == 2) {
        SetStatusText("Rectange/Ellipse display formats turned off.");
        lblPWfigure_->setText(tr("Rectange/Ellipse display formats turned off."));
        return 0;
    }
    double lo = -1e300, hi = 1e300;
    if (const cAxis* y = pg->chart->Axes.Item("Y")) lo = y->LowValue, hi = y->HighValue;
    scan_ = PWscanTable(pg->report.windowSeries, shape_, lo, hi);
    scanAt_ = scan_.rowUb() >= 1 ? 1 : 0;
    if (scanAt_ == 0) {
        lblPWfigure_->setText(tr("No figure lies within the dose axis."));
        return 0;
    }
    pwDoNext(0);
    return scan_.rowUb();
}

void frmProcessWindow::pwDoNext(int step) {
    // Without a scan under way a step starts one, at its first figure.
    if (scanAt_ < 1 || !scan_.isArray() || scan_.rowUb() < 1) {
        cmdPWdoScan();
        return;
    }
    scanAt_ = std::clamp(scanAt_ + step, 1, scan_.rowUb());
    const std::string key = scan_.get(scanAt_, 2).toString();
    for (int i = 1; i <= figures_.Count(); ++i)
        if (figures_.Item(i)->Key == key) {
            showFigure(i);
            return;
        }
}

// -------------------------------------------------- selection and culls

QWidget* frmProcessWindow::buildSelection() {
    auto* page = new QWidget(tabPWCurve_);
    page->setObjectName("kDataSelectionPage");
    page->hide();
    auto* h = new QHBoxLayout(page);
    auto* left = new QVBoxLayout;
    auto* top = new QHBoxLayout;
    lblPWselection_ = new QLabel(page);
    lblPWselection_->setObjectName("lblPWselection");
    lblPWselection_->setStyleSheet("QLabel { font-weight: bold; }");
    top->addWidget(lblPWselection_, 1);
    top->addWidget(new QLabel(tr("Wafer"), page));
    cmbPWSelWafer_ = new QComboBox(page);
    cmbPWSelWafer_->setObjectName("cmbPWSelWafer");
    cmbPWSelWafer_->setMinimumWidth(110);
    top->addWidget(cmbPWSelWafer_);
    left->addLayout(top);
    chtPWselection_ = new ChartView(page);
    chtPWselection_->setObjectName("chtPWselection");
    chtPWselection_->setSelectMode(true);
    chtPWselection_->setToolTip(tr("Drag a box, then right-click to cull or restore the points in it"));
    left->addWidget(chtPWselection_, 1);
    h->addLayout(left, 1);
    connect(cmbPWSelWafer_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_ && tabPWCurve_->currentWidget() == selectionPage_) Draw_Selection();
    });

    auto action = [&](const char* name, const char* caption) {
        auto* a = new QAction(tr(caption), page);
        a->setObjectName(name);
        return a;
    };
    QAction* remove = action("mnuPopUpCullRemove", "Cull Selected Points");
    QAction* all = action("mnuPopUpCullAll", "Restore Selected Points");
    QAction* wafer = action("mnuPopUpCullWafer", "Cull Wafer");
    QAction* reset = action("mnuPopUpCullReset", "Restore All Culls");
    chtPWselection_->addMenuActions({remove, all, wafer, reset});
    connect(remove, &QAction::triggered, this, [this] { mnuPopUpCullRemove(); });
    connect(all, &QAction::triggered, this, [this] { mnuPopUpCullAll(); });
    connect(wafer, &QAction::triggered, this, [this] { mnuPopUpCullWafer(); });
    connect(reset, &QAction::triggered, this, [this] { mnuPopUpCullReset(); });

    auto* side = new QVBoxLayout;
    auto* data = new QGroupBox(tr("Data Cull"), page);
    data->setObjectName("fraPWDataCull");
    auto* df = new QFormLayout(data);
    cmbPWDataCull_ = new QComboBox(data);
    cmbPWDataCull_->setObjectName("cmbPWDataCull");
    cmbPWDataCull_->setToolTip(tr("Points of this variable outside max and min are left out of each analysis"));
    df->addRow(tr("Variable"), cmbPWDataCull_);
    txtPWDataMax_ = new QLineEdit("0", data);
    txtPWDataMax_->setObjectName("txtPWDataMax");
    df->addRow(tr("Max"), txtPWDataMax_);
    txtPWDataMin_ = new QLineEdit("0", data);
    txtPWDataMin_->setObjectName("txtPWDataMin");
    df->addRow(tr("Min"), txtPWDataMin_);
    lblPWcull_ = new QLabel(data);
    lblPWcull_->setObjectName("lblPWcull");
    df->addRow(lblPWcull_);
    side->addWidget(data);
    for (QLineEdit* box : {txtPWDataMax_, txtPWDataMin_})
        connect(box, &QLineEdit::editingFinished, this, [this, box] {
            double v = 0;
            if (ParseBox(box->text(), v)) return;
            std::string m = "Entered value of '";
            m.append(S(box->text().trimmed())).append("' is not valid.");
            box->setText("0");
            MsgBox(m, vbOKOnly | vbExclamation, kSetupErrorTitle);
        });

    auto* sites = new QGroupBox(tr("Site Cull"), page);
    sites->setObjectName("fraPWSiteCull");
    auto* sf = new QGridLayout(sites);
    sf->addWidget(new QLabel(tr("Radius (mm)"), sites), 0, 0);
    txtCullRadius_ = new QLineEdit(sites);
    txtCullRadius_->setObjectName("txtCullRadius");
    txtCullRadius_->setToolTip(tr("Cull the points of sites farther than this from the wafer centre"));
    sf->addWidget(txtCullRadius_, 0, 1);
    auto* radius = new QPushButton(tr("Cull"), sites);
    radius->setObjectName("cmdCullRadius");
    sf->addWidget(radius, 0, 2);
    auto* restore = new QPushButton(tr("Restore All Culls"), sites);
    restore->setObjectName("cmdPWResetCulls");
    sf->addWidget(restore, 1, 0, 1, 3);
    side->addWidget(sites);
    connect(radius, &QPushButton::clicked, this, [this] { cmdCullRadius(); });
    connect(txtCullRadius_, &QLineEdit::returnPressed, this, [this] { cmdCullRadius(); });
    connect(restore, &QPushButton::clicked, this, [this] { mnuPopUpCullReset(); });

    auto* sigma = new QPushButton(tr("Distribution && Cull Analysis..."), page);
    sigma->setObjectName("cmdSigmaTest");
    sigma->setToolTip(tr("How many points each range or sigma limit would cull, without culling"));
    side->addWidget(sigma);
    connect(sigma, &QPushButton::clicked, this, [this] { cmdSigmaTest(); });
    auto* hint = new QLabel(tr("Culls here stay with the window's lot for every analysis; the focus, dose and site "
                               "lists of the setup apply on top of them."),
                            page);
    hint->setWordWrap(true);
    hint->setStyleSheet("QLabel { color: palette(mid); }");
    side->addWidget(hint);
    side->addStretch(1);
    h->addLayout(side);
    return page;
}

void frmProcessWindow::fillCullVariables() {
    cmbPWDataCull_->clear();
    cmbPWDataCull_->addItem("NONE");
    for (const Row& r : rows_) cmbPWDataCull_->addItem(r.chk->text());
}

bool frmProcessWindow::Draw_Selection() {
    Proc p("frmProcessWindow(Draw_Selection): ");
    if (!lot_) {
        std::string m = "Data not loaded. ";
        m.append(kCrLf).append("Please load a data file.");
        MsgBox(m, vbOKOnly | vbExclamation);
        return false;
    }
    SetStatusText("Lot setup for display ...");
    long culled = 0;
    const long n = lot_->TotalWafers() > 0 ? lot_->TotalPoints(&culled, true) : 0;
    std::string title = culled > 0 ? "Selected Data ... " : "Raw Data ... ";
    title.append(":  ").append(std::to_string(n)).append(" Points");
    lblPWselection_->setText(Q(title));
    chtPWselection_->setGraphic(nullptr);
    chtPWselection_->clearSelection();
    selectionChart_ = std::make_shared<cGraphic>();
    if (n < 1) {
        MsgBox("No data in selection.", vbOKOnly | vbExclamation);
        return false;
    }
    SetStatusText("Draw vector plot ...");
    cGraphic& g = *selectionChart_;
    g.Kind = GraphKind::WaferVector;
    g.WaferKey = S(cmbPWSelWafer_->currentData().toString());
    g.MapAllWafers = g.WaferKey.empty();
    g.TitleObj.TitleString = lot_->LotName + ": " + title;
    if (Status st = g.LotData(lot_); !st) {
        Report(st.failure());
        return false;
    }
    chtPWselection_->setGraphic(&g);
    if (chtPWselection_->isVisible()) chtPWselection_->render();
    SetStatusText("Update process window values ...");
    SetStatusText("Load PW models ...");
    SetStatusText("Ready");
    return chtPWselection_->failureText().isEmpty();
}

void frmProcessWindow::afterCull(const std::string& message) {
    SetStatusText(message);
    if (tabPWCurve_->currentWidget() == selectionPage_) Draw_Selection();
}

void frmProcessWindow::cullBox(bool restore) {
    if (!lot_) return;
    const QRectF box = chtPWselection_->selectedValues();
    if (box.isNull()) {
        SetStatusText("Drag a box on the map first.");
        return;
    }
    const long n = CullPointsInWaferRect(*lot_, box.left(), box.top(), box.right(), box.bottom(), restore,
                                         S(cmbPWSelWafer_->currentData().toString()));
    std::string m = restore ? "Culls restored: " : "Points culled: ";
    afterCull(m.append(std::to_string(n)));
}

void frmProcessWindow::mnuPopUpCullWafer() {
    if (!lot_) return;
    const std::string key = S(cmbPWSelWafer_->currentData().toString());
    if (key.empty()) {
        MsgBox("Choose a wafer in the list to cull it.", vbOKOnly | vbInformation, "Cull Wafer");
        return;
    }
    CullWaferSites(*lot_, key);
    std::string m = "Points culled: ";
    afterCull(m.append(std::to_string(SiteCullsToPoints(*lot_))));
}

void frmProcessWindow::mnuPopUpCullReset() {
    if (!lot_) return;
    std::string m = "Culls restored: ";
    afterCull(m.append(std::to_string(ResetCulls(*lot_))));
}

bool frmProcessWindow::cmdCullRadius() {
    if (!lot_) return false;
    double r = 0;
    if (!ParseBox(txtCullRadius_->text(), r) || r <= 0) {
        std::string m = "Entered value of '";
        m.append(S(txtCullRadius_->text().trimmed())).append("' is not valid.");
        MsgBox(m, vbOKOnly | vbExclamation, kSetupErrorTitle);
        return false;
    }
    std::string message;
    Result<long> n = CullRadius(*lot_, r, 0, 0, &message);
    if (!n) {
        Report(n.failure());
        return false;
    }
    SiteCullsToPoints(*lot_);
    afterCull("Sites culled: " + message);
    return true;
}

namespace {

// The distribution analysis beside the workbench: its two graphs and table.
class SigmaTestWindow : public QWidget {
public:
    SigmaTestWindow(const SigmaTestResult& r, QWidget* parent) : QWidget(parent, Qt::Window) {
        setAttribute(Qt::WA_DeleteOnClose);
        setObjectName("frmSigmaTest");
        setWindowTitle(Q(r.heading));
        resize(1000, 640);
        auto* v = new QVBoxLayout(this);
        auto* charts = new QHBoxLayout;
        range_ = std::make_unique<cGraphic>();
        sigma_ = std::make_unique<cGraphic>();
        status_ = SigmaTestGraphs(r, *range_, *sigma_);
        for (cGraphic* g : {range_.get(), sigma_.get()}) {
            auto* view = new ChartView(this);
            view->setObjectName(g == range_.get() ? "chtRangeCull" : "chtSigmaCull");
            if (status_) view->setGraphic(g);
            views_.push_back(view);
            charts->addWidget(view);
        }
        v->addLayout(charts, 3);
        auto* table = new QTableWidget(this);
        table->setObjectName("grdSigmaTest");
        table->setEditTriggers(QAbstractItemView::NoEditTriggers);
        const Datam& d = r.distribution;
        if (d.isArray() && d.dims() == 2) {
            table->setColumnCount(d.colUb() - d.colLb() + 1);
            table->setRowCount(std::max(0, d.rowUb()));
            for (int c = d.colLb(); c <= d.colUb(); ++c)
                table->setHorizontalHeaderItem(c - d.colLb(), new QTableWidgetItem(Q(CellText(d.get(0, c)))));
            for (int row = 1; row <= d.rowUb(); ++row)
                for (int c = d.colLb(); c <= d.colUb(); ++c)
                    table->setItem(row - 1, c - d.colLb(), new QTableWidgetItem(Q(CellText(d.get(row, c)))));
        }
        table->verticalHeader()->hide();
        v->addWidget(table, 2);
    }
    ~SigmaTestWindow() override {
        for (ChartView* view : views_) view->setGraphic(nullptr);
    }
    bool ok() const { return static_cast<bool>(status_); }
    const Failure& failure() const { return status_.failure(); }

private:
    std::unique_ptr<cGraphic> range_, sigma_;
    std::vector<ChartView*> views_;
    Status status_ = StatusOk();
};

}  // namespace

QWidget* frmProcessWindow::cmdSigmaTest() {
    if (!lot_ || lot_->TotalWafers() < 1) {
        std::string m = "Data not loaded. ";
        MsgBox(m.append(kCrLf).append("Please load a data file."), vbOKOnly | vbExclamation);
        return nullptr;
    }
    SigmaTestSetup setup;
    for (const Row& r : rows_)
        if (r.chk->isChecked()) {
            setup.feature = lot_->GetPlotFeature(S(r.chk->text()));
            break;
        }
    const BusyPointer busy;
    Result<SigmaTestResult> r = SigmaTest(*lot_, setup);
    if (!r) {
        Report(r.failure());
        return nullptr;
    }
    auto* w = new SigmaTestWindow(*r, this);
    if (!w->ok()) {
        Report(w->failure());
        delete w;
        return nullptr;
    }
    w->show();
    return w;
}

void frmProcessWindow::showIntervals(Page& pg, const PWSetup& setup) {
    intervals_.clear();
    SetStatusText("Bootstrap intervals ...");
    auto b = PWconfidence(setup, pg.report, kResamples, 1, 0.95);
    ShowProgress(-1);
    if (!b) {
        SetStatusText(b.failure().text);
        return;
    }
    intervals_ = std::move(b.value());
    std::string lines = S(pg.text->toPlainText());
    lines.append("\n\nBootstrap intervals (95%, ").append(std::to_string(kResamples));
    lines.append(" resamples, surfaces pooled over the sites):");
    for (const PWInterval& i : intervals_) {
        lines.append("\n").append(i.name).append("\t").append(Format(i.estimate, "0.0000"));
        lines.append("\t[").append(Format(i.low, "0.0000")).append(", ").append(Format(i.high, "0.0000")).append("]");
    }
    pg.text->setPlainText(Q(lines));
}

// ---------------------------------------------------------- aberrations

QWidget* frmProcessWindow::buildAberrations() {
    auto* page = new QWidget(tabPWCurve_);
    page->setObjectName("tabAberrations");
    page->hide();
    auto* v = new QVBoxLayout(page);
    auto* top = new QHBoxLayout;
    auto* run = new QPushButton(tr("Model Field"), page);
    run->setObjectName("cmdModelField");
    run->setToolTip(tr("Tilt and curvature of the best focus along the field's rows and columns"));
    top->addWidget(run);
    top->addWidget(new QLabel(tr("Feature"), page));
    cmbAberFeature_ = new QComboBox(page);
    cmbAberFeature_->setObjectName("cmbAberFeature");
    cmbAberFeature_->setMinimumWidth(140);
    top->addWidget(cmbAberFeature_);
    auto* hint = new QLabel(tr("From the best focus of each site of the Focus Response analysis."), page);
    hint->setStyleSheet("QLabel { color: palette(mid); }");
    top->addWidget(hint, 1);
    v->addLayout(top);
    auto* split = new QSplitter(Qt::Horizontal, page);
    chtAberrations_ = new ChartView(split);
    chtAberrations_->setObjectName("chtAberrations");
    grdAberrations_ = new QTableWidget(split);
    grdAberrations_->setObjectName("grdAberrations");
    grdAberrations_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    grdAberrations_->horizontalHeader()->hide();
    grdAberrations_->verticalHeader()->hide();
    split->addWidget(chtAberrations_);
    split->addWidget(grdAberrations_);
    split->setSizes({700, 560});
    v->addWidget(split, 1);
    connect(run, &QPushButton::clicked, this, [this] { cmdModelField(); });
    connect(cmbAberFeature_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_) cmdModelField();
    });
    return page;
}

bool frmProcessWindow::cmdModelField() {
    Proc p("frmProcessWindow(cmdModelField): ");
    Page* focus = page(kFocus);
    if (!focus->ran || focus->report.best.empty()) {
        // The lens needs the best focus of every site: run that first.
        const int back = tabPWCurve_->currentIndex();
        if (!runAnalysis(kFocus)) return false;
        filling_ = true;
        tabPWCurve_->setCurrentIndex(back);
        filling_ = false;
    }
    const std::vector<PWSiteBest>& best = focus->report.best;
    filling_ = true;
    const QString chosen = cmbAberFeature_->currentText();
    cmbAberFeature_->clear();
    for (const PWSiteBest& b : best)
        if (cmbAberFeature_->findText(Q(b.feature)) < 0) cmbAberFeature_->addItem(Q(b.feature));
    cmbAberFeature_->setCurrentIndex(std::max(0, cmbAberFeature_->findText(chosen)));
    filling_ = false;
    const std::string feature = S(cmbAberFeature_->currentText());
    std::vector<double> x, y, f;
    for (const PWSiteBest& b : best)
        if (b.feature == feature) x.push_back(b.x), y.push_back(b.y), f.push_back(b.bestFocus);
    SetStatusText("Lens tilt and curvature ...");
    const LensTiltCurvature lens = CalculateLensTiltCurvature(x, y, f);
    aberRows_ = lens.rows;
    aberColumns_ = lens.columns;

    // The two tables one under the other.
    grdAberrations_->clear();
    int rows = 0, cols = 0;
    for (const Datam* t : {&aberRows_, &aberColumns_})
        if (t->isArray() && t->dims() == 2) rows += t->rowUb() - t->rowLb() + 2, cols = std::max(cols, t->colUb() - t->colLb() + 1);
    grdAberrations_->setRowCount(rows);
    grdAberrations_->setColumnCount(cols);
    int at = 0;
    for (const Datam* t : {&aberRows_, &aberColumns_}) {
        if (!t->isArray() || t->dims() != 2) continue;
        for (int r = t->rowLb(); r <= t->rowUb(); ++r, ++at)
            for (int c = t->colLb(); c <= t->colUb(); ++c) {
                const Value& v = t->get(r, c);
                const std::string s = v.isNumberType() ? Format(v.toDouble(), "###0.0000") : CellText(v);
                if (s.empty()) continue;
                auto* it = new QTableWidgetItem(Q(s));
                if (r == 0) it->setFont([&] { QFont b = font(); b.setBold(true); return b; }());
                if (v.isNumberType()) it->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
                grdAberrations_->setItem(at, c - t->colLb(), it);
            }
        ++at;
    }
    grdAberrations_->resizeColumnsToContents();

    // Best focus across the field, a curve per row of sites.
    std::vector<double> rowsAt;
    for (double v : y) {
        const double r = std::round(v * 10) / 10;
        if (std::none_of(rowsAt.begin(), rowsAt.end(), [&](double w) { return std::fabs(w - r) <= 0.5; })) rowsAt.push_back(r);
    }
    std::sort(rowsAt.begin(), rowsAt.end());
    Datam t(static_cast<int>(x.size()), static_cast<int>(rowsAt.size()) + 1, 0, 1);
    t(0, 1) = Value("Column(mm)");
    for (size_t k = 0; k < rowsAt.size(); ++k) t(0, static_cast<int>(k) + 2) = Value("Row " + Format(rowsAt[k], "#0.0") + " mm");
    // Sorted along x so each row's curve runs left to right.
    std::vector<size_t> order(x.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return x[a] < x[b]; });
    for (size_t k = 0; k < order.size(); ++k) {
        const size_t i = order[k];
        const int r = static_cast<int>(k) + 1;
        t(r, 1) = Value(x[i]);
        for (size_t j = 0; j < rowsAt.size(); ++j)
            if (std::fabs(std::round(y[i] * 10) / 10 - rowsAt[j]) <= 0.5) t(r, static_cast<int>(j) + 2) = Value(f[i]);
    }
    chtAberrations_->setGraphic(nullptr);
    aberChart_ = std::make_shared<cGraphic>();
    cGraphic& g = *aberChart_;
    g.TitleObj.TitleString = feature + ": best focus across the field";
    if (Status st = g.RegisterData(t); !st) {
        Report(st.failure());
        return false;
    }
    g.Axes.Add("X").Label = "Column (mm)";
    g.Axes.Add("Y").Label = "Best Focus (um)";
    for (size_t j = 0; j < rowsAt.size(); ++j) {
        cSeries& s = g.Series.Add(t.get(0, static_cast<int>(j) + 2).toString());
        s.Xcol = 1, s.Ycol = static_cast<int>(j) + 2;
        s.Connect = true;
    }
    chtAberrations_->setGraphic(&g);
    if (chtAberrations_->isVisible()) chtAberrations_->render();
    SetStatusText("Ready");
    return aberRows_.isArray() || aberColumns_.isArray();
}

}  // namespace zorv::ui
