#include "ui/frm_calibrate.h"

#include <QAction>
#include <QButtonGroup>
#include <QComboBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QMouseEvent>
#include <QPainter>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QSplitter>
#include <QCoreApplication>
#include <QStackedWidget>
#include <QTabBar>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <map>
#include <set>

#include "app/settings.h"
#include "base/format.h"
#include "base/identity.h"
#include "base/proc.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "calib/template_library.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "ui/chart_view.h"
#include "ui/frm_main.h"
#include "ui/frm_plot.h"
#include "ui/frm_template_maintenance.h"
#include "ui/lot_open.h"
#include "ui/qtext.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv::ui {

namespace {

constexpr const char* kSection = "PSFMcal";
constexpr const char* kOrderKey = "PSFMCalibrationOrder";
constexpr const char* kUnits = "Microns";
constexpr const char* kNumber = "####0.000";
constexpr const char* kSelectionTitle = "Calibration selection error...";
constexpr const char* kNoTemplate = "A Calibration template does not exist.";
constexpr const char* kCalibrateFirst = "You must first calibrate the data before moving to a ''Best Focus'' analysis.";
constexpr const char* kCalculateFirst = "Please calculate the Best Focus field before displaying.";
constexpr const char* kDisplayFirst = "Please display a graph";
const char kWorkbookFilter[] = "Zorv Workbook (*.xlsx *.xls *.XLSX *.XLS)";

struct ViewKey {
    const char* key;
    const char* caption;
    const char* sheet;  // ViewSaveData's sheet
};
constexpr ViewKey kCalViews[] = {{"kCalibration", "Calibration", "CalibrationData"},
                                 {"kOffset", "Offset", "CalSlopeOffset"},
                                 {"kSlope", "Slope", "CalSlopeOffset"},
                                 {"kResiduals", "Residuals", "CalSlopeOffsetResids"},
                                 {"kFocus", "Best Focus", "BestFocus"},
                                 {"kFocusSigma", "Focus Sigma", "BestFocusSigma"},
                                 {"kCal_Dose", "Dose Response", "CalDoseResponse"},
                                 {"kDoseSlope", "Dose Slope", "CalPlotDoseSlope"},
                                 {"kNonLinearity", "Non-Linearity", "CalNonLinearity"}};
constexpr ViewKey kBFViews[] = {{"kUniformity", "Uniformity", "BestFocusField"},
                                {"kResiduals", "Residuals", "BestFocusField"},
                                {"kRawFocus", "Raw Focus", "BestFocusRaw"}};

frmCalibrate::FileAsker& fileAsker() {
    static frmCalibrate::FileAsker a;
    return a;
}
frmCalibrate::NameAsker& nameAsker() {
    static frmCalibrate::NameAsker a;
    return a;
}

std::string Num(double v) { return std::isfinite(v) ? Trim(Format(v, kNumber)) : std::string(); }

// The column of a header in row 0; -1 when missing.
int Col(const Datam& t, const std::string& head) {
    if (!t.isArray()) return -1;
    for (int c = t.colLb(); c <= t.colUb(); ++c)
        if (t.get(t.rowLb(), c).toString() == head) return c;
    return -1;
}

bool SameExpo(const std::array<double, 4>& a, double dose, double na, double pci, double pco) {
    const double b[4] = {dose, na, pci, pco};
    for (int i = 0; i < 4; ++i)
        if (std::fabs(a[static_cast<size_t>(i)] - b[i]) > 0.0005) return false;
    return true;
}

// One calibrated site of an exposure set, from the results table.
struct CalRow {
    long site = 0;
    double x = 0, y = 0;  // mm
    double xOffset = 0, yOffset = 0, xSlope = 0, ySlope = 0;
    double xFocus = 0, yFocus = 0, xSigma = 0, ySigma = 0;
};

std::vector<CalRow> RowsOf(const Datam& r, const std::array<double, 4>& expo) {
    std::vector<CalRow> out;
    const int cSite = Col(r, "Site"), cDose = Col(r, "Dose"), cXo = Col(r, "Xoffset"), cYo = Col(r, "Yoffset");
    const int cXs = Col(r, "Xslope"), cYs = Col(r, "Yslope"), cXf = Col(r, "Xfocus"), cYf = Col(r, "Yfocus");
    const int cXe = Col(r, "XFsigma"), cYe = Col(r, "YFsigma");
    if (cSite < 0 || cDose < 0 || cXo < 0 || cXf < 0 || cXe < 0) return out;
    for (int i = r.rowLb() + 1; i <= r.rowUb(); ++i) {
        if (r.get(i, cSite).isEmpty() || r.get(i, cXo).isEmpty()) continue;
        if (!SameExpo(expo, r.get(i, cDose).toDouble(), r.get(i, cDose + 1).toDouble(), r.get(i, cDose + 2).toDouble(),
                      r.get(i, cDose + 3).toDouble()))
            continue;
        CalRow c;
        c.site = r.get(i, cSite).toLong();
        c.x = r.get(i, cDose + 4).toDouble(), c.y = r.get(i, cDose + 5).toDouble();
        c.xOffset = r.get(i, cXo).toDouble(), c.yOffset = r.get(i, cYo).toDouble();
        c.xSlope = r.get(i, cXs).toDouble(), c.ySlope = r.get(i, cYs).toDouble();
        c.xFocus = r.get(i, cXf).toDouble(), c.yFocus = r.get(i, cYf).toDouble();
        c.xSigma = r.get(i, cXe).toDouble(), c.ySigma = r.get(i, cYe).toDouble();
        out.push_back(c);
    }
    return out;
}

Datam Table(const std::vector<std::string>& heads, const std::vector<std::vector<double>>& rows) {
    Datam t(static_cast<int>(rows.size()), static_cast<int>(heads.size()) - 1, 0, 0);
    for (size_t c = 0; c < heads.size(); ++c) t(0, static_cast<int>(c)) = Value(heads[c]);
    for (size_t r = 0; r < rows.size(); ++r)
        for (size_t c = 0; c < rows[r].size() && c < heads.size(); ++c)
            t(static_cast<int>(r + 1), static_cast<int>(c)) = Value(rows[r][c]);
    return t;
}

// The statistics box of a view: mean, spread and extremes of each column.
Datam StatsBlock(const std::vector<std::pair<std::string, std::vector<double>>>& cols) {
    Datam t(static_cast<int>(cols.size()), 5, 0, 0);
    const char* heads[] = {"", "Mean", "StdDev", "Max", "Min", "Count"};
    for (int c = 0; c < 6; ++c) t(0, c) = Value(heads[c]);
    int r = 0;
    for (const auto& [name, v] : cols) {
        ++r;
        t(r, 0) = Value(name);
        if (v.empty()) continue;
        double m = 0, ss = 0;
        for (double x : v) m += x;
        m /= static_cast<double>(v.size());
        for (double x : v) ss += (x - m) * (x - m);
        const double sd = v.size() > 1 ? std::sqrt(ss / static_cast<double>(v.size() - 1)) : 0;
        t(r, 1) = Value(Num(m)), t(r, 2) = Value(Num(sd));
        t(r, 3) = Value(Num(*std::max_element(v.begin(), v.end())));
        t(r, 4) = Value(Num(*std::min_element(v.begin(), v.end())));
        t(r, 5) = Value(static_cast<double>(v.size()));
    }
    return t;
}

// The unit of the image shift (the lot's vertical feature); "" when unknown.
std::string ShiftUnit(const cLot& lot) {
    std::string text;
    long code = 0;
    if (!lot.GetPlotFeatureUnits(ePlotFeatureV, text, code)) text.clear();
    return Trim(text);
}

// The field of the best focus lot that holds exposure set e (DieX = e).
cField* ExpoField(cLot& lot, int e, cWafer** wafer) {
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields())
            if (std::lround(f->DieX) == e) {
                if (wafer) *wafer = w;
                return f;
            }
    return nullptr;
}

// The white page a view shows in place of its chart, with why there is none.
QLabel* messagePage(const char* name) {
    auto* l = new QLabel;
    l->setObjectName(name);
    l->setAlignment(Qt::AlignCenter);
    l->setWordWrap(true);
    l->setAutoFillBackground(true);
    l->setStyleSheet("QLabel { background: white; color: #787878; border: 1px solid #c8c8c8; }");
    return l;
}

// One view strip into `v`: the tabs of the keys, a line of figures, and the
// chart with the message page behind it.
struct PaneNames {
    const char *tabs, *info, *message, *chart;
};
template <size_t N>
void ViewPane(QVBoxLayout* v, const ViewKey (&keys)[N], const PaneNames& n, QTabBar*& tabs, QLabel*& info,
              QStackedWidget*& stack, ChartView*& chart) {
    QWidget* parent = v->parentWidget();
    tabs = new QTabBar(parent);
    tabs->setObjectName(n.tabs);
    tabs->setExpanding(false);
    for (const ViewKey& k : keys) {
        const int i = tabs->addTab(QCoreApplication::translate("zorv::ui::frmCalibrate", k.caption));
        tabs->setTabData(i, QString(k.key));
    }
    v->addWidget(tabs);
    info = new QLabel(parent);
    info->setObjectName(n.info);
    info->setWordWrap(true);
    v->addWidget(info);
    stack = new QStackedWidget(parent);
    stack->addWidget(messagePage(n.message));
    chart = new ChartView(stack);
    chart->setObjectName(n.chart);
    stack->addWidget(chart);
    v->addWidget(stack, 1);
}

QListWidget* ExpoList(const char* name, QWidget* parent) {
    auto* l = new QListWidget(parent);
    l->setObjectName(name);
    l->setSelectionMode(QAbstractItemView::MultiSelection);
    l->setMaximumHeight(72);
    return l;
}

}  // namespace

// ----------------------------------------------------------- FieldLayoutView

FieldLayoutView::FieldLayoutView(QWidget* parent) : QWidget(parent) {
    setObjectName("pctFieldLayout");
    setMinimumSize(160, 130);
    setToolTip(tr("Click a site to choose it."));
}

void FieldLayoutView::setSites(std::vector<Site> sites) {
    sites_ = std::move(sites);
    update();
}

void FieldLayoutView::setSelected(long site) {
    selected_ = site;
    update();
}

QPointF FieldLayoutView::toWidget(double x, double y) const {
    double x0 = 0, x1 = 0, y0 = 0, y1 = 0;
    for (size_t i = 0; i < sites_.size(); ++i) {
        const Site& s = sites_[i];
        if (i == 0) x0 = x1 = s.x, y0 = y1 = s.y;
        x0 = std::min(x0, s.x), x1 = std::max(x1, s.x), y0 = std::min(y0, s.y), y1 = std::max(y1, s.y);
    }
    const double m = 18, w = std::max(1.0, width() - 2 * m), h = std::max(1.0, height() - 2 * m);
    const double span = std::max({x1 - x0, y1 - y0, 1.0});
    const double k = std::min(w, h) / span;
    const double cx = (x0 + x1) / 2, cy = (y0 + y1) / 2;
    return {width() / 2.0 + (x - cx) * k, height() / 2.0 - (y - cy) * k};
}

QPoint FieldLayoutView::sitePos(long site) const {
    for (const Site& s : sites_)
        if (s.number == site) return toWidget(s.x, s.y).toPoint();
    return {-1, -1};
}

long FieldLayoutView::FindLayoutSite(const QPoint& pos) const {
    long best = 0;
    double d = 0;
    for (const Site& s : sites_) {
        const QPointF p = toWidget(s.x, s.y) - QPointF(pos);
        const double dd = p.x() * p.x() + p.y() * p.y();
        if (best == 0 || dd < d) best = s.number, d = dd;
    }
    return best;
}

void FieldLayoutView::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.fillRect(rect(), Qt::white);
    p.setPen(QColor(180, 180, 180));
    p.drawRect(rect().adjusted(0, 0, -1, -1));
    if (sites_.empty()) {
        p.setPen(QColor(120, 120, 120));
        p.drawText(rect(), Qt::AlignCenter, tr("No sites"));
        return;
    }
    QFont f = p.font();
    f.setPointSizeF(7.5);
    p.setFont(f);
    for (const Site& s : sites_) {
        const QPointF c = toWidget(s.x, s.y);
        const bool on = s.number == selected_;
        p.setPen(on ? QColor(200, 0, 0) : QColor(40, 40, 120));
        p.setBrush(on ? QColor(200, 0, 0) : QColor(255, 255, 255));
        p.drawEllipse(c, 4.5, 4.5);
        p.setPen(QColor(60, 60, 60));
        p.drawText(c + QPointF(6, -4), QString::number(s.number));
    }
}

void FieldLayoutView::mousePressEvent(QMouseEvent* e) {
    const long site = FindLayoutSite(e->position().toPoint());
    if (site <= 0) return;
    setSelected(site);
    if (onPick) onPick(site);
}

// -------------------------------------------------------------- the window

void frmCalibrate::setFileAsker(FileAsker asker) { fileAsker() = std::move(asker); }
void frmCalibrate::setNameAsker(NameAsker asker) { nameAsker() = std::move(asker); }

frmCalibrate::frmCalibrate(QWidget* parent)
    : ZorvForm("frmCalibrate", "Zorv PSFM Calibrate", parent),
      gCal_(std::make_unique<cGraphic>()),
      gBF_(std::make_unique<cGraphic>()) {
    setMinimumSize(640, 420);
    resize(1280, 820);
    auto* top = new QHBoxLayout;
    lblLot_ = new QLabel(contentArea());
    lblLot_->setObjectName("lblLot");
    top->addWidget(lblLot_, 1);
    contentLayout()->addLayout(top);
    tabWorkbench_ = new QTabWidget(contentArea());
    tabWorkbench_->setObjectName("tabWorkbench");
    tabWorkbench_->addTab(buildCalibrationPage(), tr("Calibration"));
    tabWorkbench_->addTab(buildBestFocusPage(), tr("Best Focus"));
    contentLayout()->addWidget(tabWorkbench_, 1);
    buildMenus();
    setLot(nullptr, nullptr);
}

frmCalibrate::~frmCalibrate() {
    if (pctCalibrate_) pctCalibrate_->setGraphic(nullptr);
    if (pctBestFocus_) pctBestFocus_->setGraphic(nullptr);
}

WindowPlace frmCalibrate::place() const { return {"PSFMformSize", ""}; }

void frmCalibrate::setLibraryFolder(const QString& folder) {
    libraryFolder_ = folder;
    ownLib_.reset();
    libRead_ = false;
}

cTemplateLibrary& frmCalibrate::library() {
    if (libraryFolder_.isEmpty()) return TemplateLibrary();
    if (!ownLib_) ownLib_ = std::make_unique<cTemplateLibrary>(S(libraryFolder_));
    return *ownLib_;
}

QWidget* frmCalibrate::buildCalibrationPage() {
    auto* page = new QWidget;
    auto* h = new QHBoxLayout(page);

    auto* side = new QWidget(page);
    side->setMaximumWidth(300);
    auto* sv = new QVBoxLayout(side);
    sv->setContentsMargins(0, 0, 0, 0);

    auto* fit = new QGroupBox(tr("Fit"), side);
    auto* form = new QFormLayout(fit);
    cmbFitOrder_ = new QComboBox(fit);
    cmbFitOrder_->setObjectName("cmbFitOrder");
    for (int i = 1; i <= 6; ++i) cmbFitOrder_->addItem(QString::number(i));
    cmbFitOrder_->setToolTip(tr("Order of the polynomial of image shift against focus."));
    form->addRow(tr("Fit order:"), cmbFitOrder_);
    txtRange_ = new QLineEdit("0", fit);
    txtRange_->setObjectName("txtRange");
    txtRange_->setToolTip(tr("Cull range of the fits in microns of image shift (0: four sigma)."));
    form->addRow(tr("Cull range:"), txtRange_);
    lblCullRange_ = new QLabel("0", fit);
    lblCullRange_->setObjectName("lblCullRange");
    form->addRow(tr("Points culled:"), lblCullRange_);
    sv->addWidget(fit);

    auto* siteBox = new QGroupBox(tr("Sites"), side);
    auto* sb = new QVBoxLayout(siteBox);
    auto* opts = new QHBoxLayout;
    optAll_ = new QRadioButton(tr("All sites"), siteBox);
    optAll_->setObjectName("optSelectLayout_0");
    optOne_ = new QRadioButton(tr("One site"), siteBox);
    optOne_->setObjectName("optSelectLayout_1");
    optAll_->setChecked(true);
    auto* group = new QButtonGroup(siteBox);
    group->setObjectName("optSelectLayout");
    group->addButton(optAll_, 0);
    group->addButton(optOne_, 1);
    opts->addWidget(optAll_);
    opts->addWidget(optOne_);
    sb->addLayout(opts);
    auto* siteRow = new QHBoxLayout;
    siteRow->addWidget(new QLabel(tr("Site:"), siteBox));
    txtSiteNumber_ = new QLineEdit(siteBox);
    txtSiteNumber_->setObjectName("txtSiteNumber");
    txtSiteNumber_->setMaximumWidth(70);
    siteRow->addWidget(txtSiteNumber_);
    txtLayout_ = new QLabel(siteBox);
    txtLayout_->setObjectName("txtLayout");
    siteRow->addWidget(txtLayout_, 1);
    sb->addLayout(siteRow);
    pctFieldLayout_ = new FieldLayoutView(siteBox);
    sb->addWidget(pctFieldLayout_, 1);
    sv->addWidget(siteBox, 1);
    pctFieldLayout_->onPick = [this](long site) {
        txtSiteNumber_->setText(QString::number(site));
        if (run_) showCalView(calKey());
    };
    connect(txtSiteNumber_, &QLineEdit::editingFinished, this, [this] {
        double v = 0;
        if (ParseNumber(Trim(S(txtSiteNumber_->text())), v)) pctFieldLayout_->setSelected(static_cast<long>(v));
        if (run_) showCalView(calKey());
    });

    auto* expoRow = new QHBoxLayout;
    auto* expoLabel = new QLabel(tr("Exposure:"), side);
    expoLabel->setObjectName("lblExpoGroup");
    expoRow->addWidget(expoLabel);
    cmbExpoGroup_ = new QComboBox(side);
    cmbExpoGroup_->setObjectName("cmbExpoGroup");
    cmbExpoGroup_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    expoRow->addWidget(cmbExpoGroup_, 1);
    sv->addLayout(expoRow);
    connect(cmbExpoGroup_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_ && run_) showCalView(calKey());
    });

    cmdCalibrate_ = new QPushButton(tr("&Calibrate"), side);
    cmdCalibrate_->setObjectName("cmdCalibrate");
    cmdCalibrate_->setToolTip(tr("Calibrates the lot into a template (Esc stops)."));
    connect(cmdCalibrate_, &QPushButton::clicked, this, [this] { CalibratePSFM(); });
    sv->addWidget(cmdCalibrate_);
    h->addWidget(side);

    auto* right = new QWidget(page);
    auto* rv = new QVBoxLayout(right);
    rv->setContentsMargins(0, 0, 0, 0);
    ViewPane(rv, kCalViews, {"tabCalCurve", "lblCalInfo", "lblCalMessage", "pctCalibrate"}, tabCalCurve_,
             lblCalInfo_, calStack_, pctCalibrate_);
    h->addWidget(right, 1);
    connect(tabCalCurve_, &QTabBar::currentChanged, this, [this] {
        if (!filling_) showCalView(calKey());
    });

    // The pop-up culls of the calibration curve.
    QList<QAction*> culls;
    auto add = [&](const char* name, const QString& text, std::function<void()> fn) {
        auto* a = new QAction(text, this);
        a->setObjectName(name);
        connect(a, &QAction::triggered, this, fn);
        culls << a;
    };
    add("mnuPopUpSelect", tr("Select Points (drag a box)"), [this] { pctCalibrate_->setSelectMode(true); });
    add("mnuPopUpCullField", tr("Cull Field"), [this] { mnuPopUpCullField(); });
    add("mnuPopUpCullWafer", tr("Cull Wafer"), [this] { mnuPopUpCullWafer(); });
    add("mnuPopUpCullAll", tr("Cull All Points"), [this] { mnuPopUpCullAll(); });
    add("mnuPopUpCullRestore", tr("Restore Culled Data"), [this] { mnuPopUpCullRestore(); });
    pctCalibrate_->addMenuActions(culls);
    return page;
}

QWidget* frmCalibrate::buildBestFocusPage() {
    auto* page = new QWidget;
    auto* h = new QHBoxLayout(page);
    auto* side = new QWidget(page);
    side->setMaximumWidth(300);
    auto* sv = new QVBoxLayout(side);
    sv->setContentsMargins(0, 0, 0, 0);

    auto* model = new QGroupBox(tr("Model"), side);
    auto* mv = new QVBoxLayout(model);
    optWhole_ = new QRadioButton(tr("Whole field (piston, tilt, curvature)"), model);
    optWhole_->setObjectName("OptBFModel_0");
    optRowCol_ = new QRadioButton(tr("Rows (X focus) and columns (Y focus)"), model);
    optRowCol_->setObjectName("OptBFModel_1");
    // The row and column models follow the field's lines of sites, so they
    // are shown first.
    optRowCol_->setChecked(true);
    auto* group = new QButtonGroup(model);
    group->setObjectName("OptBFModel");
    group->addButton(optWhole_, 0);
    group->addButton(optRowCol_, 1);
    mv->addWidget(optWhole_);
    mv->addWidget(optRowCol_);
    sv->addWidget(model);
    connect(group, &QButtonGroup::idClicked, this, [this] {
        if (bf_) showBestFocusView(bestFocusKey());
    });

    auto* sel = new QGroupBox(tr("Exposures to model"), side);
    auto* grid = new QFormLayout(sel);
    lstDose2_ = ExpoList("lstDose2", sel);
    lstNA2_ = ExpoList("lstNA2", sel);
    lstPCI2_ = ExpoList("lstPCI2", sel);
    lstPCO2_ = ExpoList("lstPCO2", sel);
    grid->addRow(tr("Dose:"), lstDose2_);
    grid->addRow(tr("NA:"), lstNA2_);
    grid->addRow(tr("PC inner:"), lstPCI2_);
    grid->addRow(tr("PC outer:"), lstPCO2_);
    sv->addWidget(sel);

    auto* expoRow = new QHBoxLayout;
    expoRow->addWidget(new QLabel(tr("Show:"), side));
    cmbExpoGroupBF_ = new QComboBox(side);
    cmbExpoGroupBF_->setObjectName("cmbExpoGroupBF");
    cmbExpoGroupBF_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    expoRow->addWidget(cmbExpoGroupBF_, 1);
    sv->addLayout(expoRow);
    connect(cmbExpoGroupBF_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_ && bf_) showBestFocusView(bestFocusKey());
    });
    cmdBestFocus_ = new QPushButton(tr("Calculate &Best Focus"), side);
    cmdBestFocus_->setObjectName("cmdCalculateBestFocus");
    connect(cmdBestFocus_, &QPushButton::clicked, this, [this] { cmdCalculateBestFocus(); });
    sv->addWidget(cmdBestFocus_);
    sv->addStretch(1);
    h->addWidget(side);

    auto* split = new QSplitter(Qt::Vertical, page);
    auto* right = new QWidget(split);
    auto* rv = new QVBoxLayout(right);
    rv->setContentsMargins(0, 0, 0, 0);
    ViewPane(rv, kBFViews, {"tabBestFocus", "lblBFInfo", "lblBFMessage", "pctBestFocus"}, tabBestFocus_,
             lblBFInfo_, bfStack_, pctBestFocus_);
    split->addWidget(right);
    tblBestFocus_ = new QTableWidget(split);
    tblBestFocus_->setObjectName("tblBestFocus");
    tblBestFocus_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tblBestFocus_->verticalHeader()->setVisible(false);
    split->addWidget(tblBestFocus_);
    split->setStretchFactor(0, 2);
    split->setStretchFactor(1, 1);
    split->setSizes({520, 220});
    h->addWidget(split, 1);
    connect(tabBestFocus_, &QTabBar::currentChanged, this, [this] {
        if (!filling_ && bf_) showBestFocusView(bestFocusKey());
    });
    return page;
}

void frmCalibrate::buildMenus() {
    QMenu* file = fileMenu();
    QAction* first = file->actions().isEmpty() ? nullptr : file->actions().front();
    auto* open = new QAction(tr("&Open Data Workbook..."), this);
    open->setObjectName("mnuFileOpen");
    connect(open, &QAction::triggered, this, [this] { OpenDataWorkbook(); });
    file->insertAction(first, open);
    file->insertSeparator(first);

    auto item = [this](QMenu* m, const char* name, const QString& text, std::function<void()> fn) {
        auto* a = m->addAction(text);
        a->setObjectName(name);
        connect(a, &QAction::triggered, this, fn);
    };
    QMenu* data = new QMenu(tr("&Data"), this);
    data->setObjectName("mnuData");
    item(data, "mnuViewData", tr("&View Data"), [this] { mnuViewData(); });
    item(data, "mnuSaveData", tr("&Save Data to the Workbook"), [this] { mnuSaveData(); });
    QMenu* tpl = new QMenu(tr("&Template"), this);
    tpl->setObjectName("mnuTemplate");
    item(tpl, "mnuTemplateSave", tr("&Save"), [this] { mnuTemplateSave(); });
    item(tpl, "mnuTemplateSaveAs", tr("Save &As..."), [this] { mnuTemplateSaveAs(); });
    tpl->addSeparator();
    item(tpl, "mnuTemplateMaintenance", tr("&Maintenance..."), [this] { mnuTemplateMaintenance(); });
    QAction* before = helpMenu() ? helpMenu()->menuAction() : nullptr;
    menuBar()->insertMenu(before, data);
    menuBar()->insertMenu(before, tpl);
}

QAction* frmCalibrate::action(const char* objectName) const { return findChild<QAction*>(objectName); }

void frmCalibrate::formLoad() {
    filling_ = true;
    const int order = std::atoi(GetSetting(ApplicationTitle(), kSection, kOrderKey, "6").c_str());
    cmbFitOrder_->setCurrentIndex(std::clamp(order, 1, 6) - 1);
    filling_ = false;
    connect(cmbFitOrder_, &QComboBox::currentIndexChanged, this, [this](int i) {
        if (!filling_) SaveSetting(ApplicationTitle(), kSection, kOrderKey, std::to_string(i + 1));
    });
    if (!lot_ && Current().lot) setLot(Current().lot, Current().workbook);
}

// ------------------------------------------------------------------- the lot

void frmCalibrate::setLot(std::shared_ptr<cLot> lot, std::shared_ptr<Workbook> workbook) {
    pctCalibrate_->setGraphic(nullptr);
    pctBestFocus_->setGraphic(nullptr);
    source_ = lot;
    lot_ = lot ? lot->clone(true) : nullptr;
    workbook_ = lot ? std::move(workbook) : nullptr;
    run_.reset();
    bf_.reset();
    bfData_.reset();
    tpl_.reset();
    state_ = CalFormState();
    culled_.clear();
    calibratedAll_ = false;
    exposures_.clear();
    viewTable_ = Datam();
    viewSheet_.clear();
    filling_ = true;
    cmbExpoGroup_->clear();
    cmbExpoGroupBF_->clear();
    filling_ = false;
    tblBestFocus_->clear();
    tblBestFocus_->setRowCount(0);
    tblBestFocus_->setColumnCount(0);
    if (lot_) {
        long count = 0;
        Datam focus;
        const Datam ex = lot_->GetUniqueExposures(count, focus);
        for (int r = 1; r <= count; ++r)
            exposures_.push_back({ex(r, 1).toDouble(), ex(r, 2).toDouble(), ex(r, 3).toDouble(), ex(r, 4).toDouble()});
        lblLot_->setText(tr("Lot: %1   (%2 points, %3 exposure set(s))")
                             .arg(Q(lot_->LotName))
                             .arg(lot_->TotalPoints())
                             .arg(exposures_.size()));
        showMessage(pctCalibrate_, *gCal_, "Choose the fit and the sites, then Calibrate.");
    } else {
        lblLot_->setText(tr("No lot loaded. Open a data workbook (File, Open Data Workbook...) to calibrate."));
        showMessage(pctCalibrate_, *gCal_, "No lot loaded. Open a data workbook to calibrate focus.");
    }
    showMessage(pctBestFocus_, *gBF_, "Calibrate all sites, then Calculate Best Focus.");
    cmbExpoGroup_->setVisible(false);
    if (auto* l = findChild<QLabel*>("lblExpoGroup")) l->setVisible(false);
    fillLayout();
    fillExposureLists();
}

bool frmCalibrate::OpenDataWorkbook(const QString& path) {
    QString file = path;
    if (file.isEmpty()) {
        file = fileAsker() ? fileAsker()(tr("Open a data workbook"), kWorkbookFilter)
                           : QFileDialog::getOpenFileName(this, tr("Open a data workbook"), {}, kWorkbookFilter);
        if (file.isEmpty()) return false;
    }
    const BusyPointer busy;
    std::shared_ptr<cLot> loaded;
    std::shared_ptr<Workbook> book;
    if (!OpenLotWorkbook(file, loaded, book)) return false;
    setLot(loaded, book);
    SetStatusText("Ready");
    return true;
}

void frmCalibrate::fillLayout() {
    std::vector<FieldLayoutView::Site> sites;
    if (lot_) {
        std::set<long> seen;
        lot_->forEachLiveSite([&](cWafer&, cField&, cSite& s) {
            if (seen.insert(s.NumberKey()).second) sites.push_back({s.NumberKey(), s.LocationX, s.LocationY});
        });
    }
    std::sort(sites.begin(), sites.end(), [](const auto& a, const auto& b) { return a.number < b.number; });
    pctFieldLayout_->setSites(sites);
    const long site = sites.empty() ? 0 : sites.front().number;
    pctFieldLayout_->setSelected(site);
    txtSiteNumber_->setText(site ? QString::number(site) : QString());
    txtLayout_->setText(sites.empty() ? QString() : tr("of %1 sites").arg(sites.size()));
}

void frmCalibrate::fillExposureLists() {
    auto fill = [&](QListWidget* l, int k, const char* format) {
        l->clear();
        l->addItem("All");
        std::set<std::string> seen;
        for (const auto& e : exposures_) {
            const std::string t = Trim(Format(e[static_cast<size_t>(k)], format));
            if (seen.insert(t).second) l->addItem(Q(t));
        }
        l->item(0)->setSelected(true);
    };
    fill(lstDose2_, 0, "####0.0##");
    fill(lstNA2_, 1, "0.0##");
    fill(lstPCI2_, 2, "0.0##");
    fill(lstPCO2_, 3, "0.0##");
}

long frmCalibrate::chosenSite() const {
    double v = 0;
    if (ParseNumber(Trim(S(txtSiteNumber_->text())), v) && v >= 1) return static_cast<long>(v);
    return pctFieldLayout_->sites().empty() ? 0 : pctFieldLayout_->sites().front().number;
}

int frmCalibrate::expoIndex() const {
    if (exposures_.empty()) return 0;
    return std::max(0, cmbExpoGroup_->currentIndex()) + 1;
}

int frmCalibrate::expoIndexBF() const {
    if (exposures_.empty()) return 0;
    return std::max(0, cmbExpoGroupBF_->currentIndex()) + 1;
}

QString frmCalibrate::calKey() const { return tabCalCurve_->tabData(tabCalCurve_->currentIndex()).toString(); }
QString frmCalibrate::bestFocusKey() const { return tabBestFocus_->tabData(tabBestFocus_->currentIndex()).toString(); }

std::string frmCalibrate::noDataText(int expo) const {
    std::string t = "No data for exposure: [Dose:";
    if (expo >= 1 && expo <= static_cast<int>(exposures_.size())) {
        const auto& e = exposures_[static_cast<size_t>(expo - 1)];
        t.append(Num(e[0])).append(" NA:").append(Num(e[1])).append(" PCi:").append(Num(e[2]));
        t.append(" PCo:").append(Num(e[3]));
    } else {
        t.append(" NA: PCi: PCo:");
    }
    t.append("]");
    return t;
}

void frmCalibrate::showMessage(ChartView* view, cGraphic& g, const std::string& text) {
    view->setGraphic(nullptr);
    g = cGraphic();
    const bool cal = view == pctCalibrate_;
    (cal ? lblCalInfo_ : lblBFInfo_)->setText(Q(text));
    QStackedWidget* stack = cal ? calStack_ : bfStack_;
    if (auto* l = qobject_cast<QLabel*>(stack->widget(0))) l->setText(Q(text));
    stack->setCurrentIndex(0);
}

void frmCalibrate::showChart(ChartView* view, cGraphic* g) {
    (view == pctCalibrate_ ? calStack_ : bfStack_)->setCurrentIndex(1);
    view->setGraphic(g);
    view->render();
}

// ------------------------------------------------------------- calibration

bool frmCalibrate::CalibratePSFM() {
    Proc p("frmCalibrate(CalibratePSFM): ");
    if (!lot_) {
        Report(p.fail("No data to calibrate: there is no lot loaded. Open a data workbook (File, Open Data "
                      "Workbook...) first."));
        return false;
    }
    CalControls c;
    c.fitOrder = cmbFitOrder_->currentIndex() + 1;
    const std::string rangeText = Trim(S(txtRange_->text()));
    double range = 0;
    if (!rangeText.empty() && (!ParseNumber(rangeText, range) || range < 0)) {
        std::string m = "The cull range must be a number of 0 or more: ";
        m.append(rangeText);
        Report(p.fail(m));
        return false;
    }
    c.range = static_cast<float>(range);
    if (optOne_->isChecked()) {
        const std::string siteText = Trim(S(txtSiteNumber_->text()));
        double v = 0;
        if (!ParseNumber(siteText, v) || v < 1 || v != std::floor(v)) {
            std::string m = "The site number must be a whole number of 1 or more: ";
            m.append(siteText);
            Report(p.fail(m));
            return false;
        }
        c.siteNumber = static_cast<long>(v);
        txtLayout_->setText(tr("site %1").arg(c.siteNumber));
    } else {
        txtLayout_->setText(tr("All: %1 sites").arg(pctFieldLayout_->sites().size()));
    }

    const BusyPointer busy;
    pctCalibrate_->setGraphic(nullptr);
    pctBestFocus_->setGraphic(nullptr);
    lblCullRange_->setText("0");
    CalibrateEvents events;
    events.CurrentExpoGroup = [](const std::string& e) { SetStatusText("Expo Group: " + e); };
    CalibrateOptions o;
    o.charts = true;
    o.saveSheet = workbook_ != nullptr;
    o.workbook = workbook_.get();
    o.events = &events;
    SetEscPressed(false);
    auto r = zorv::CalibratePSFM(*lot_, c, state_, o);
    if (!r) {
        Report(r.failure());
        return false;
    }
    run_ = std::make_unique<CalibrationRun>(std::move(*r));
    tpl_ = run_->tpl;
    tplSaved_ = false;
    calibratedAll_ = c.siteNumber == 0 && !run_->escaped;
    bf_.reset();
    bfData_.reset();
    gBF_ = std::make_unique<cGraphic>();
    lblCullRange_->setText(QString::number(run_->culled));

    filling_ = true;
    cmbExpoGroup_->clear();
    cmbExpoGroupBF_->clear();
    for (const std::string& e : run_->exposureGroups) {
        cmbExpoGroup_->addItem(Q(e));
        cmbExpoGroupBF_->addItem(Q(e));
    }
    cmbExpoGroup_->setVisible(cmbExpoGroup_->count() >= 2);
    if (auto* l = findChild<QLabel*>("lblExpoGroup")) l->setVisible(cmbExpoGroup_->count() >= 2);
    filling_ = false;
    fillExposureLists();
    showMessage(pctBestFocus_, *gBF_,
                calibratedAll_ ? "Calculate Best Focus to model the calibration's best focus."
                               : "Calibrate all sites to model the best focus.");
    showCalView(calKey());
    if (run_->escaped) {
        SetStatusText("Calibration stopped by Esc: the template holds the sites done before it.");
    } else {
        std::string s = "Calibration completed: ";
        s.append(std::to_string(tpl_->sites.Count())).append(" site calibrations");
        if (!run_->description.empty()) s.append(", ").append(run_->description);
        SetStatusText(s);
    }
    return true;
}

bool frmCalibrate::showCalView(const QString& key) {
    pctCalibrate_->setGraphic(nullptr);
    gCal_ = std::make_unique<cGraphic>();
    viewTable_ = Datam();
    viewSheet_.clear();
    for (const ViewKey& k : kCalViews)
        if (key == k.key) viewSheet_ = k.sheet;
    if (!run_) {
        showMessage(pctCalibrate_, *gCal_, lot_ ? "Calibrate the data to see this view." : "No lot loaded.");
        return false;
    }
    const BusyPointer busy;
    cGraphic& g = *gCal_;
    bool ok = false;
    Status st = StatusOk();
    if (key == "kCalibration") {
        return viewCalibration(g);
    } else if (key == "kOffset" || key == "kSlope") {
        ok = viewVectors(g, key == "kSlope");
    } else if (key == "kResiduals") {
        ok = viewResiduals(g);
    } else if (key == "kFocus" || key == "kFocusSigma") {
        ok = viewFocus(g, key == "kFocusSigma");
    } else if (key == "kCal_Dose") {
        auto t = FocusDoseGraph(*lot_, chosenSite(), g);
        if (!t) {
            st = t.failure();
        } else {
            viewTable_ = *t;
            g.TitleObj.TitleString = "Calibration as a function of Dose";
            g.TitleObj.TitleString.append("\r\nSite: ").append(std::to_string(chosenSite()));
            lblCalInfo_->setText(tr("Image shift against focus by dose, site %1.").arg(chosenSite()));
            ok = true;
        }
    } else if (key == "kDoseSlope") {
        st = DoseSlopeGraph(*run_->lots.calibrated, g);
        if (st) {
            viewTable_ = g.Data();
            lblCalInfo_->setText(tr("The slopes of every site by dose."));
            ok = true;
        }
    } else if (key == "kNonLinearity") {
        auto t = NonLinearityGraph(*run_->lots.calibrated, g);
        if (!t) {
            st = t.failure();
        } else {
            viewTable_ = *t;
            lblCalInfo_->setText(tr("Quartiles of the residuals to the calibration curves by dose."));
            ok = true;
        }
    }
    if (!st) {
        showMessage(pctCalibrate_, g, st.failure().text);
        return false;
    }
    if (!ok) return false;
    showChart(pctCalibrate_, &g);
    return true;
}

bool frmCalibrate::viewCalibration(cGraphic&) {
    const int e = expoIndex();
    const long site = chosenSite();
    cGraphic* chart = run_->graphs ? run_->graphs->Item(std::to_string(site) + "_" + std::to_string(e)) : nullptr;
    if (!chart) {
        showMessage(pctCalibrate_, *gCal_, noDataText(e));
        return false;
    }
    viewTable_ = chart->Data();
    std::string info = "Best Focus for Site: ";
    info.append(std::to_string(site));
    if (e >= 1 && e <= static_cast<int>(exposures_.size()))
        for (const CalRow& r : RowsOf(run_->results, exposures_[static_cast<size_t>(e - 1)]))
            if (r.site == site) {
                info.append("   X: ").append(Num(r.xFocus)).append("   Y: ").append(Num(r.yFocus));
                info.append(" ").append(kUnits);
            }
    lblCalInfo_->setText(Q(info));
    showChart(pctCalibrate_, chart);
    return true;
}

bool frmCalibrate::viewVectors(cGraphic& g, bool slope) {
    const int e = expoIndex();
    std::vector<CalRow> rows;
    if (e >= 1) rows = RowsOf(run_->results, exposures_[static_cast<size_t>(e - 1)]);
    cWafer* wafer = nullptr;
    display_ = run_->lots.bestFocus ? run_->lots.bestFocus->clone(true) : nullptr;
    cField* field = display_ ? ExpoField(*display_, e, &wafer) : nullptr;
    if (rows.empty() || !field) {
        showMessage(pctCalibrate_, g, noDataText(e));
        return false;
    }
    double mxo = 0, myo = 0, mxs = 0, mys = 0;
    for (const CalRow& r : rows) mxo += r.xOffset, myo += r.yOffset, mxs += r.xSlope, mys += r.ySlope;
    const double n = static_cast<double>(rows.size());
    mxo /= n, myo /= n, mxs /= n, mys /= n;
    std::map<long, const CalRow*> bySite;
    for (const CalRow& r : rows) bySite[r.site] = &r;
    for (cSite* s : field->sites()) {
        auto it = bySite.find(s->NumberKey());
        for (cPoint* pt : s->Points()) {
            if (it == bySite.end()) {
                pt->setCull(true);
                continue;
            }
            const CalRow& r = *it->second;
            pt->ValueV = static_cast<float>(1000 * (slope ? r.xSlope - mxs : r.xOffset));
            pt->ValueH = static_cast<float>(1000 * (slope ? r.ySlope - mys : r.yOffset));
            pt->ValueZ = (pt->ValueV + pt->ValueH) / 2;
        }
    }
    display_->LineWidthType = false;
    display_->PlotFeature(0);
    g.Kind = GraphKind::FieldVector;
    g.WaferKey = wafer->KeyName;
    g.FieldKey = field->NumberKey;
    g.MapAllFields = false;
    g.KeyName = slope ? "kSlope" : "kOffset";
    std::string title = slope ? "Slope delta from Mean: " : "Calibration Curve Offset Values ";
    title.append(run_->exposureGroups[static_cast<size_t>(e - 1)]);
    g.TitleObj.TitleString = title;
    if (Status st = g.LotData(display_); !st) {
        showMessage(pctCalibrate_, g, st.failure().text);
        return false;
    }
    std::string info = slope ? "Mean Slope: " : "Mean Offset: ";
    info.append("X ").append(Num(slope ? mxs : mxo)).append("   Y ").append(Num(slope ? mys : myo));
    // Offsets and slopes are of the image shift, in the lot's unit (per
    // micron of focus for the slope).
    const std::string unit = ShiftUnit(*lot_);
    if (!unit.empty()) info.append(" ").append(unit).append(slope ? "/um" : "");
    lblCalInfo_->setText(Q(info));
    std::vector<std::vector<double>> t;
    for (const CalRow& r : rows)
        t.push_back({static_cast<double>(r.site), r.x, r.y, r.xOffset, r.yOffset, r.xSlope, r.ySlope, r.xSlope - mxs,
                     r.ySlope - mys});
    viewTable_ = Table({"Site", "X_Loc", "Y_Loc", "Xoffset", "Yoffset", "Xslope", "Yslope", "Xslope_delta",
                        "Yslope_delta"},
                       t);
    return true;
}

bool frmCalibrate::viewResiduals(cGraphic& g) {
    const int e = expoIndex();
    if (e < 1) {
        showMessage(pctCalibrate_, g, noDataText(e));
        return false;
    }
    const auto& ex = exposures_[static_cast<size_t>(e - 1)];
    std::vector<std::vector<double>> rows;
    double xMax = -1e300, xMin = 1e300, yMax = -1e300, yMin = 1e300;
    run_->lots.calibrated->forEachLive([&](cWafer&, cField& f, cSite& s, cPoint& pt) {
        if (!SameExpo(ex, f.Dose, f.NA, f.PCinner, f.PCouter)) return;
        if (pt.ValueV_Res <= -999 || pt.ValueH_Res <= -999) return;
        const double xr = pt.ValueV_Res / 1000.0, yr = pt.ValueH_Res / 1000.0;
        rows.push_back({static_cast<double>(s.NumberKey()), f.Focus, xr, yr});
        xMax = std::max(xMax, xr), xMin = std::min(xMin, xr), yMax = std::max(yMax, yr), yMin = std::min(yMin, yr);
    });
    if (rows.empty()) {
        showMessage(pctCalibrate_, g, noDataText(e));
        return false;
    }
    viewTable_ = Table({"Site", "Focus", "X_Residual", "Y_Residual"}, rows);
    if (Status st = g.RegisterData(viewTable_); !st) {
        showMessage(pctCalibrate_, g, st.failure().text);
        return false;
    }
    g.KeyName = "kResiduals";
    std::string title = "Residuals to Calibration Curve ";
    title.append(run_->exposureGroups[static_cast<size_t>(e - 1)]);
    g.TitleObj.TitleString = title;
    g.Axes.Add("X").Label = "Tool Focus";
    cAxis& ay = g.Axes.Add("Y");
    const std::string unit = ShiftUnit(*lot_);
    ay.Label = "Image Shift Residual";
    if (!unit.empty()) ay.Label.append(" (").append(unit).append(")");
    ay.TickFormat = kNumber;
    cSeries& sx = g.Series.Add("X residuals");
    sx.Xcol = 1, sx.Ycol = 2, sx.Connect = false, sx.ColorFore = RGB(200, 0, 0), sx.Symbol = SymbolShape::FilledCircle;
    sx.Label = "X residuals";
    cSeries& sy = g.Series.Add("Y residuals");
    sy.Xcol = 1, sy.Ycol = 3, sy.Connect = false, sy.ColorFore = RGB(0, 0, 200), sy.Symbol = SymbolShape::Square;
    sy.Label = "Y residuals";
    std::string info = "Max/Min(X,Y): (";
    info.append(Num(xMax)).append(" / ").append(Num(xMin)).append(", ").append(Num(yMax)).append(" / ");
    info.append(Num(yMin)).append(")");
    if (!unit.empty()) info.append(" ").append(unit);
    lblCalInfo_->setText(Q(info));
    return true;
}

bool frmCalibrate::viewFocus(cGraphic& g, bool sigma) {
    const int e = expoIndex();
    std::vector<CalRow> rows;
    if (e >= 1) rows = RowsOf(run_->results, exposures_[static_cast<size_t>(e - 1)]);
    if (rows.empty()) {
        showMessage(pctCalibrate_, g, noDataText(e));
        return false;
    }
    std::vector<std::vector<double>> t;
    std::vector<double> xs, ys;
    for (const CalRow& r : rows) {
        const double x = sigma ? r.xSigma : r.xFocus, y = sigma ? r.ySigma : r.yFocus;
        t.push_back({static_cast<double>(r.site), r.x, r.y, x, y, (x + y) / 2});
        xs.push_back(x), ys.push_back(y);
    }
    viewTable_ = sigma ? Table({"Site", "X_Loc", "Y_Loc", "XFsigma", "YFsigma", "MeanSigma"}, t)
                       : Table({"Site", "X_Loc", "Y_Loc", "Xfocus", "Yfocus", "MeanFocus"}, t);
    if (Status st = g.RegisterData(viewTable_); !st) {
        showMessage(pctCalibrate_, g, st.failure().text);
        return false;
    }
    g.KeyName = sigma ? "kFocusSigma" : "kFocus";
    std::string title = sigma ? "Best Focus Standard Error " : "Estimation of Best Focus. ";
    title.append(run_->exposureGroups[static_cast<size_t>(e - 1)]);
    g.TitleObj.TitleString = title;
    g.Axes.Add("X").Label = "Site";
    cAxis& ay = g.Axes.Add("Y");
    ay.Label = kUnits;
    ay.TickFormat = kNumber;
    cSeries& sx = g.Series.Add(sigma ? "XFsigma" : "Xfocus");
    sx.Xcol = 0, sx.Ycol = 3, sx.ColorFore = RGB(200, 0, 0), sx.Symbol = SymbolShape::FilledCircle, sx.Connect = false;
    sx.Label = sigma ? "X focus error" : "X focus";
    cSeries& sy = g.Series.Add(sigma ? "YFsigma" : "Yfocus");
    sy.Xcol = 0, sy.Ycol = 4, sy.ColorFore = RGB(0, 0, 200), sy.Symbol = SymbolShape::Square, sy.Connect = false;
    sy.Label = sigma ? "Y focus error" : "Y focus";
    // The statistics block of the view, under the name of what it holds.
    g.Stats.Title = sigma ? "__St'd Err Focus__" : "__Raw Focus__";
    g.Stats.RegisterArray(StatsBlock({{"X", xs}, {"Y", ys}}));
    lblCalInfo_->setText(sigma ? tr("Standard error of the focus at zero image shift, by site (%1).").arg(kUnits)
                               : tr("Focus at zero image shift, by site (%1).").arg(kUnits));
    return true;
}

// ------------------------------------------------------------------- culls

bool frmCalibrate::cullBox(int mode) {
    Proc p("frmCalibrate(Cull): ");
    if (!run_ || calKey() != "kCalibration" || !pctCalibrate_->graphic()) {
        Report(p.fail("Show a calibration curve and select the points to cull on it first."));
        return false;
    }
    const QRectF box = pctCalibrate_->selectedValues();
    if (box.isEmpty()) {
        Report(p.fail("Drag a box around the points to cull first (Select Points on the chart's menu)."));
        return false;
    }
    const long site = chosenSite();
    const auto& ex = exposures_[static_cast<size_t>(expoIndex() - 1)];
    // The points of the curve inside the box: focus along X, either image shift along Y.
    std::vector<cPoint*> hit;
    std::set<cField*> fields;
    std::set<cWafer*> wafers;
    lot_->forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& pt) {
        if (s.NumberKey() != site || !SameExpo(ex, f.Dose, f.NA, f.PCinner, f.PCouter)) return;
        const double x = f.Focus;
        const bool in = box.contains(QPointF(x, pt.ValueV / 1000.0)) || box.contains(QPointF(x, pt.ValueH / 1000.0));
        if (!in) return;
        hit.push_back(&pt);
        fields.insert(&f);
        wafers.insert(&w);
    });
    std::string st = "Points to be culled: ";
    st.append(std::to_string(hit.size()));
    SetStatusText(st);
    if (hit.empty()) return false;
    long removed = 0;
    // Culls are made on the points: the calibration clears wafer and field culls at each run.
    auto cullAll = [&](auto&& in) {
        lot_->forEachLive([&](cWafer& w, cField& f, cSite&, cPoint& pt) {
            if (in(w, f)) pt.setCull(true), culled_.push_back(&pt), ++removed;
        });
    };
    if (mode == 1) {
        std::string t = " Culling Field in: (";
        for (cField* f : fields) t.append(f->NumberKey).append(" ");
        t.append(")");
        SetStatusText(t);
        cullAll([&](cWafer&, cField& f) { return fields.count(&f) > 0; });
    } else if (mode == 2) {
        cullAll([&](cWafer& w, cField&) { return wafers.count(&w) > 0; });
    } else {
        for (cPoint* pt : hit) pt->setCull(true), culled_.push_back(pt), ++removed;
    }
    std::string done = "...Points removed: ";
    done.append(std::to_string(removed));
    SetStatusText(done);
    pctCalibrate_->clearSelection();
    pctCalibrate_->setSelectMode(false);
    return CalibratePSFM();
}

bool frmCalibrate::mnuPopUpCullRestore() {
    if (!lot_) return false;
    SetStatusText("Restore culled data...");
    // Only what these menus took out comes back; the lot's own culls stay.
    long n = 0;
    for (cPoint* pt : culled_)
        if (pt->cull()) pt->setCull(false), ++n;
    culled_.clear();
    std::string t = "Points Culled: ";
    t.append(std::to_string(n));
    SetStatusText(t);
    return run_ ? CalibratePSFM() : true;
}

// --------------------------------------------------------------- best focus

bool frmCalibrate::cmdCalculateBestFocus() {
    Proc p("frmCalibrate(CalculateBestFocus): ");
    if (!run_ || !tpl_) {
        MsgBox(kCalibrateFirst, vbExclamation, kSelectionTitle);
        return false;
    }
    if (!calibratedAll_) {
        std::string m = "A ''Best Focus'' analysis requires that ALL sites be calibrated.";
        m.append(" Please first select the ''All sites'' option and calibrate the data.");
        MsgBox(m, vbExclamation, kSelectionTitle);
        return false;
    }
    const BusyPointer busy;
    SetEscPressed(false);
    const cLot& bfLot = *run_->lots.bestFocus;
    auto models = CalcBFTiltCurvature(bfLot, 0, nullptr);
    if (!models) {
        Report(models.failure());
        return false;
    }
    BestFocusSelection sel;
    auto picked = [](QListWidget* l, std::vector<double>& out) {
        for (int i = 1; i < l->count(); ++i) {
            if (!l->item(i)->isSelected()) continue;
            double v = 0;
            if (ParseNumber(S(l->item(i)->text()), v)) out.push_back(v);
        }
        if (l->item(0)->isSelected()) out.clear();
    };
    picked(lstDose2_, sel.doses), picked(lstNA2_, sel.na), picked(lstPCI2_, sel.pcInner), picked(lstPCO2_, sel.pcOuter);
    auto data = BestFocusModel(bfLot, lot_->LotName, sel, workbook_.get());
    if (!data) {
        Report(data.failure());
        return false;
    }
    bf_ = std::make_unique<BestFocusModels>(std::move(*models));
    bfData_ = std::make_unique<BestFocusModelData>(std::move(*data));
    ModelUpdate(*tpl_, *bf_);
    tplSaved_ = false;  // the library's copy lacks these best focus sets
    if (workbook_) {
        if (!saveTable(bf_->sheet, "Aberrations", "Calibrated Best Focus Models " + lot_->LotName,
                       "Calculated Best Focus Models from PSFM Calibration. "))
            return false;
        std::vector<std::vector<double>> rows;
        for (const BestFocusSet& s : bf_->sets) {
            const FieldPoints pts = GatherFieldPoints(bfLot, 0, s.exposure);
            for (size_t i = 0; i < pts.size(); ++i)
                rows.push_back({s.exposure[0], s.exposure[1], s.exposure[2], s.exposure[3], pts.x[i], pts.y[i],
                                pts.dZ[i], i < s.whole.fit.size() ? s.whole.fit[i] : 0.0});
        }
        std::string title = "Best Focus Mean Surface for Contour Plot of ";
        title.append(lot_->LotName);
        if (!saveTable(Table({"Dose", "NA", "PCinner", "PCouter", "X_Loc", "Y_Loc", "MeanFocus", "MeanFocus_fit"}, rows),
                       "BFmeanSurface ", title, "Best focus dataset for vector display. "))
            return false;
    }
    showBestFocusView(bestFocusKey());
    SetStatusText("Best Focus models done: " + std::to_string(bf_->sets.size()) + " exposure set(s).");
    return true;
}

bool frmCalibrate::saveTable(const Datam& t, const std::string& sheet, const std::string& title,
                             const std::string& index) {
    SaveArrayOptions o;
    o.title = title;
    o.save = false;
    Status st = SaveArray(t, sheet, workbook_.get(), o);
    if (st) st = AddIndexItem(workbook_.get(), sheet, index + lot_->LotName, Value(), false);
    if (st) st = SaveWorkbookChecked(*workbook_, sheet, false);
    if (!st) {
        Report(st.failure());
        return false;
    }
    return true;
}

bool frmCalibrate::showBestFocusView(const QString& key) {
    pctBestFocus_->setGraphic(nullptr);
    gBF_ = std::make_unique<cGraphic>();
    cGraphic& g = *gBF_;
    if (!bf_ || !run_) {
        showMessage(pctBestFocus_, g, kCalculateFirst);
        return false;
    }
    const int e = expoIndexBF();
    const BestFocusSet* set = nullptr;
    if (e >= 1)
        for (const BestFocusSet& s : bf_->sets)
            if (SameExpo(exposures_[static_cast<size_t>(e - 1)], s.exposure[0], s.exposure[1], s.exposure[2],
                         s.exposure[3]))
                set = &s;
    cWafer* wafer = nullptr;
    auto full = run_->lots.bestFocus->clone(true);
    cField* field = ExpoField(*full, e, &wafer);
    if (!set || !field) {
        showMessage(pctBestFocus_, g, noDataText(e));
        return false;
    }
    const bool whole = optWhole_->isChecked();
    // Fits of each site: the whole field model of X, Y and mean focus, or the
    // row model of X focus and the column model of Y focus.
    FieldPoints pts;
    std::vector<cPoint*> order;
    for (cSite* s : field->sites())
        for (cPoint* pt : s->Points()) {
            if (pt->cull() || pt->ValueV <= -999 || pt->ValueH <= -999) continue;
            order.push_back(pt);
            pts.dX.push_back(pt->ValueV / 1000.0), pts.dY.push_back(pt->ValueH / 1000.0);
            pts.dZ.push_back(pt->ValueZ / 1000.0);
            pts.x.push_back(std::round(s->LocationX / 10.0) / 100), pts.y.push_back(std::round(s->LocationY / 10.0) / 100);
            pts.r.push_back(std::round(s->LocationR / 10.0) / 100);
            pts.angle.push_back(std::round(s->LocationTheta / 10.0) / 100);
            pts.label.push_back(std::to_string(s->NumberKey()));
        }
    const size_t n = pts.size();
    std::vector<double> fx(n, 0), fy(n, 0);
    if (whole) {
        const FocusModel mx = WholeFieldModel(pts, 0), my = WholeFieldModel(pts, 1);
        for (size_t i = 0; i < n; ++i) {
            fx[i] = mx.ok && i < mx.fit.size() ? mx.fit[i] : pts.dX[i];
            fy[i] = my.ok && i < my.fit.size() ? my.fit[i] : pts.dY[i];
        }
    } else {
        auto lines = [&](const std::vector<double>& along, const std::vector<double>& across,
                         const std::vector<double>& focus, std::vector<double>& fit) {
            fit = focus;
            std::map<double, std::vector<size_t>> groups;
            for (size_t i = 0; i < n; ++i) groups[std::round(across[i] * 2) / 2].push_back(i);
            for (const auto& [at, idx] : groups) {
                std::vector<double> s, f;
                for (size_t i : idx) s.push_back(along[i]), f.push_back(focus[i]);
                const FocusModel m = LineModel(s, f);
                if (!m.ok) continue;
                for (size_t k = 0; k < idx.size() && k < m.fit.size(); ++k) fit[idx[k]] = m.fit[k];
            }
        };
        lines(pts.x, pts.y, pts.dX, fx);
        lines(pts.y, pts.x, pts.dY, fy);
    }
    for (size_t i = 0; i < n; ++i) {
        cPoint* pt = order[i];
        pt->ValueV_fit = static_cast<float>(1000 * fx[i]), pt->ValueH_fit = static_cast<float>(1000 * fy[i]);
        pt->ValueZ_fit = (pt->ValueV_fit + pt->ValueH_fit) / 2;
        pt->ValueV_Res = pt->ValueV - pt->ValueV_fit, pt->ValueH_Res = pt->ValueH - pt->ValueH_fit;
        pt->ValueZ_Res = pt->ValueZ - pt->ValueZ_fit;
    }
    // Only this set's field stays live in the table of the view.
    for (cWafer* w : full->Wafers())
        for (cField* f : w->Fields())
            if (f != field)
                for (cSite* s : f->sites())
                    for (cPoint* pt : s->Points()) pt->setCull(true);
    const Datam table = GetBFdata(*full);

    display_ = full->clone(true);
    cWafer* dw = nullptr;
    cField* df = ExpoField(*display_, e, &dw);
    std::string what;
    if (key == "kUniformity")
        what = ": Best Focus ";
    else if (key == "kResiduals")
        what = ": Best Focus Residuals from ";
    else
        what = ": Raw Best Focus ";
    for (cSite* s : df->sites())
        for (cPoint* pt : s->Points()) {
            if (key == "kUniformity") pt->ValueV = pt->ValueV_fit, pt->ValueH = pt->ValueH_fit;
            if (key == "kResiduals") pt->ValueV = pt->ValueV_Res, pt->ValueH = pt->ValueH_Res;
            pt->ValueZ = (pt->ValueV + pt->ValueH) / 2;
        }
    display_->LineWidthType = false;
    display_->PlotFeature(0);
    g.Kind = GraphKind::FieldVector;
    g.WaferKey = dw->KeyName;
    g.FieldKey = df->NumberKey;
    g.MapAllFields = false;
    g.KeyName = S(key);
    std::string title = lot_->LotName;
    title.append(what);
    if (key == "kResiduals") title.append(whole ? "Whole Field Model " : "Row/Column Models ");
    title.append(run_->exposureGroups[static_cast<size_t>(e - 1)]);
    g.TitleObj.TitleString = title;
    if (Status st = g.LotData(display_); !st) {
        showMessage(pctBestFocus_, g, st.failure().text);
        return false;
    }
    viewTable_ = table;
    for (const ViewKey& k : kBFViews)
        if (key == k.key) viewSheet_ = k.sheet;
    // The model of the set in the table below the chart.
    const Datam& models = whole ? bfData_->z : set->rows;
    tblBestFocus_->clear();
    const Datam& shown = whole ? models : set->rows;
    if (shown.isArray()) {
        tblBestFocus_->setColumnCount(shown.colUb() - shown.colLb() + 1);
        tblBestFocus_->setRowCount(shown.rowUb() - shown.rowLb());
        QStringList heads;
        for (int c = shown.colLb(); c <= shown.colUb(); ++c) heads << Q(shown.get(shown.rowLb(), c).toString());
        tblBestFocus_->setHorizontalHeaderLabels(heads);
        for (int r = shown.rowLb() + 1; r <= shown.rowUb(); ++r)
            for (int c = shown.colLb(); c <= shown.colUb(); ++c) {
                const Value& v = shown.get(r, c);
                const QString text = v.isNumberType() && !v.isBool() ? Q(Trim(Format(v.toDouble(), "####0.0000")))
                                                                     : Q(v.toString());
                tblBestFocus_->setItem(r - shown.rowLb() - 1, c - shown.colLb(), new QTableWidgetItem(text));
            }
        tblBestFocus_->resizeColumnsToContents();
    }
    std::string info = whole ? "Whole field model of the mean focus: piston " : "Row models of X focus (below) and column "
                                                                                "models of Y focus. Whole field piston ";
    info.append(Num(set->whole.piston)).append(" ").append(kUnits).append(", residual SE ");
    info.append(Num(set->whole.seResiduals)).append(" ").append(kUnits);
    lblBFInfo_->setText(Q(info));
    showChart(pctBestFocus_, &g);
    return true;
}

// ---------------------------------------------------------- view and save

frmSpreadsheet* frmCalibrate::mnuViewData() {
    const bool bfPage = tabWorkbench_->currentIndex() == 1;
    if (bfPage && !bf_) {
        MsgBox(kCalculateFirst, vbInformation);
        return nullptr;
    }
    ChartView* view = bfPage ? pctBestFocus_ : pctCalibrate_;
    if (!view->graphic() || !viewTable_.isArray()) {
        MsgBox(kDisplayFirst, vbInformation);
        return nullptr;
    }
    auto* grid = new frmSpreadsheet;
    grid->setTable(viewTable_, viewSheet_);
    grid->Load();
    grid->show();
    return grid;
}

bool frmCalibrate::mnuSaveData() {
    Proc p("frmCalibrate(ViewSaveData): ");
    const bool bfPage = tabWorkbench_->currentIndex() == 1;
    if (bfPage && !bf_) {
        MsgBox(kCalculateFirst, vbInformation);
        return false;
    }
    ChartView* view = bfPage ? pctBestFocus_ : pctCalibrate_;
    if (!view->graphic() || !viewTable_.isArray()) {
        MsgBox(kDisplayFirst, vbInformation);
        return false;
    }
    if (!workbook_) {
        Report(p.fail("The lot has no workbook to save the data in."));
        return false;
    }
    const BusyPointer busy;
    const std::string sheet = S(viewSheet_);
    std::string title = sheet;
    title.append(": ").append(lot_->LotName);
    if (!saveTable(viewTable_, sheet, title, sheet + ": ")) return false;
    // The datasets of the maps go with their own index texts.
    const QString key = bfPage ? QString() : calKey();
    bool ok = true;
    if (key == "kOffset")
        ok = saveTable(viewTable_, "FocusCalOffset", "Calibration Curve Offset Values",
                       "DataSet for vector display of PSFM Calibration Offset. ");
    else if (key == "kSlope")
        ok = saveTable(viewTable_, "FocusCalSlope", "Slope delta from Mean: ",
                       "Dataset for PSFM Calibration Slope delta from Mean. ");
    else if (key == "kResiduals")
        ok = saveTable(viewTable_, "FocusCalResids", "Residuals to Calibration Curve",
                       "Dataset for Residuals to PSFM Calibration. ") &&
             saveTable(viewTable_, "FocusCalResiduals", "Residuals to Calibration Curve",
                       "Dataset for Residuals to PSFM Calibration. ");
    if (ok) SetStatusText("Saved: " + sheet);
    return ok;
}

// ---------------------------------------------------------------- templates

namespace {
// The library as the file holds it now (another window may have written it).
bool ReadLibrary(cTemplateLibrary& lib) {
    if (Status st = lib.FileGet(); !st) {
        Report(st.failure());
        return false;
    }
    return true;
}
}  // namespace

bool frmCalibrate::mnuTemplateSave() {
    if (!tpl_) {
        MsgBox(kNoTemplate, vbExclamation);
        return false;
    }
    cTemplateLibrary& lib = library();
    if (!ReadLibrary(lib)) return false;
    auto saved = tpl_->SaveTemplate("", &lib, lot_ ? lot_->LotName : std::string());
    std::string t = "Template ";
    t.append(tpl_->NameTemplate).append(saved && *saved ? " Saved." : " NOT Saved.");
    if (!saved) Report(saved.failure());
    SetStatusText(t);
    MsgBox(t, vbInformation);
    if (saved && *saved) tplSaved_ = true;
    return saved && *saved;
}

bool frmCalibrate::mnuTemplateSaveAs() {
    if (!tpl_) {
        MsgBox(kNoTemplate, vbExclamation);
        return false;
    }
    const QString prompt = tr("Name of the calibration template:");
    const QString title = tr("Save Template As");
    const QString def = Q(tpl_->NameTemplate);
    bool ok = true;
    const QString answer = nameAsker() ? nameAsker()(prompt, title, def)
                                       : QInputDialog::getText(this, title, prompt, QLineEdit::Normal, def, &ok);
    if (!ok || answer.isNull()) return false;
    const std::string name = Trim(S(answer));
    if (name.size() < 2) {
        std::string m = "Improper template name: ";
        m.append(name);
        MsgBox(m, vbExclamation);
        return false;
    }
    cTemplateLibrary& lib = library();
    if (!ReadLibrary(lib)) return false;
    if (auto other = lib.GetTemplate(name); other && other.get() != tpl_.get() && other->CalID() != tpl_->CalID()) {
        std::string q = "A template named ";
        q.append(name).append(" is in the library. Replace it?");
        if (MsgBox(q, vbYesNo | vbQuestion) != vbYes) return false;
    }
    auto saved = tpl_->SaveTemplate(name, &lib, lot_ ? lot_->LotName : std::string());
    std::string t = "Template ";
    t.append(name).append(saved && *saved ? " Saved." : " NOT Saved.");
    if (!saved) Report(saved.failure());
    SetStatusText(t);
    MsgBox(t, vbInformation);
    if (saved && *saved) tplSaved_ = true;
    return saved && *saved;
}

frmTemplateMaintenance* frmCalibrate::mnuTemplateMaintenance() {
    auto* f = new frmTemplateMaintenance(nullptr, libraryFolder_);
    // A template saved since the calibration is the library's own record:
    // the window works on that one, so that a rename or a delete there is
    // one of the library's entry. An unsaved one is handed over to be saved.
    const bool saved = tpl_ && tplSaved_;
    f->CalledFromCalibrate = !saved;
    if (!saved) f->CallerTemplate = tpl_;
    f->Load();
    if (f->isUnloaded()) return nullptr;
    if (saved) {
        const int i = f->cmbTemplate()->findText(Q(tpl_->NameTemplate), Qt::MatchFixedString);
        if (i >= 0) f->cmbTemplate()->setCurrentIndex(i);
    }
    // Back here: a template renamed or removed there is no longer saved here.
    QPointer<frmCalibrate> self(this);
    connect(f, &ZorvForm::unloaded, this, [self] {
        if (!self || !self->tpl_ || !self->tplSaved_) return;
        cTemplateLibrary& lib = self->library();
        if (lib.FileGet().ok() && !lib.GetTemplate(self->tpl_->NameTemplate)) self->tplSaved_ = false;
    });
    f->show();
    return f;
}

}  // namespace zorv::ui
