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
#include <QScrollArea>
#include <QSplitter>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <set>

#include "app/settings.h"
#include "base/format.h"
#include "base/identity.h"
#include "base/proc.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "procwin/pw_charts.h"
#include "ui/chart_view.h"
#include "ui/frm_main.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {

constexpr const char* kSection = "ProcessWindow";
constexpr const char* kSetupErrorTitle = "Zorv Setup Error";
constexpr const char* kValueFormat = "#####0.000#";
constexpr const char* kRangeFormat = "#0.0";
constexpr const char* kCrLf = "\r\n";

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
    for (const Analysis& a : kAnalyses) buildPage(a.key, tr(a.caption));
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
    chkPWvarSettings_->setToolTip(tr("Restore the saved targets of features of the same name with the next lot"));
    auto* of = new QFormLayout;
    cmbPWprecision_ = new QComboBox(opts);
    cmbPWprecision_->setObjectName("cmbPWprecision");
    cmbPWprecision_->addItems({"1", "2", "5", "10", "20", "50"});
    cmbPWprecision_->setToolTip(tr("Grid steps per focus and dose step of the window search"));
    of->addRow(tr("Precision"), cmbPWprecision_);
    optFocusResponse_ = new QComboBox(opts);
    optFocusResponse_->setObjectName("optFocusResponse");
    optFocusResponse_->addItems({tr("Process Window Algorithm"), tr("Focus polynomial")});
    of->addRow(tr("Focus response"), optFocusResponse_);
    optDoseResponse_ = new QComboBox(opts);
    optDoseResponse_->setObjectName("optDoseResponse");
    optDoseResponse_->addItems({tr("Process Window Algorithm"), tr("Dose polynomial")});
    of->addRow(tr("Dose response"), optDoseResponse_);
    ol->addLayout(of);
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
    connect(cmbPWprecision_, &QComboBox::currentTextChanged, this,
            [this](const QString& t) { saveSetting("cmbPWprecision", S(t)); });
    connect(optFocusResponse_, &QComboBox::currentIndexChanged, this,
            [this](int i) { saveSetting("optFocusResponse", std::to_string(i)); });
    connect(optDoseResponse_, &QComboBox::currentIndexChanged, this,
            [this](int i) { saveSetting("optDoseResponse", std::to_string(i)); });
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
    const int at = cmbPWprecision_->findText(Q(Trim(Setting("cmbPWprecision", "10"))));
    cmbPWprecision_->setCurrentIndex(at >= 0 ? at : cmbPWprecision_->findText("10"));
    optFocusResponse_->setCurrentIndex(std::clamp(std::atoi(Setting("optFocusResponse", "0").c_str()), 0, 1));
    optDoseResponse_->setCurrentIndex(std::clamp(std::atoi(Setting("optDoseResponse", "0").c_str()), 0, 1));
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
    p->view = new ChartView(split);
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
    split->addWidget(p->view);
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
    if (pg->chart) {
        // A long title (the isofocal fits, a line per focus and site) would
        // crowd out the plot: the chart keeps its head, the text box has all.
        constexpr size_t kTitleLines = 12;
        if (pg->report.titleLines.size() > kTitleLines) {
            std::vector<std::string> head(pg->report.titleLines.begin(), pg->report.titleLines.begin() + 2);
            head.push_back("(" + std::to_string(pg->report.titleLines.size() - 2) + " more lines beside the chart)");
            pg->chart->TitleObj.TitleString = PWJoinTitle(head);
        }
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

}  // namespace zorv::ui
