#include "ui/frm_reticle.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QContextMenuEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSplitter>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>
#include <cmath>
#include <map>

#include "base/format.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/value.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "paint/qpainter_surface.h"
#include "stats/raw_analysis.h"
#include "ui/chart_view.h"
#include "ui/frm_main.h"
#include "ui/frm_plot.h"
#include "ui/lot_open.h"
#include "ui/qtext.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv::ui {

namespace {

frmReticle::FileAsker& fileAsker() {
    static frmReticle::FileAsker a;
    return a;
}

const char kWorkbookFilter[] = "Zorv Workbook (*.xlsx *.xls *.XLSX *.XLS)";

// Tab order.
enum Tab { kCompare = 0, kMEEF = 1, kMEEFgraph = 2, kFEM = 3 };

std::string Num(double v, const char* pattern = "0.000") { return std::isfinite(v) ? Format(v, pattern) : std::string(); }

// The lot's features by name, without the vector.
std::vector<std::string> FeatureNames(const cLot& lot) {
    std::vector<std::string> out;
    for (const auto& [n, name] : RawFeatureList(lot))
        if (n >= ePlotFeatureV && n <= ePlotFeatureC) out.push_back(name);
    return out;
}

std::string UnitOf(const cLot& lot, int feature) {
    std::string text;
    long code = 0;
    if (!lot.GetPlotFeatureUnits(feature, text, code)) text.clear();
    return text;
}

// " Feature: f Mean Field: m Points: n [ unit ]" after the side's name.
std::string MapTitle(const std::string& side, const std::string& feature, const RawStats& st,
                     const std::string& unit) {
    std::string t = side;
    t.append(" Feature: ").append(feature);
    t.append(" Mean Field: ").append(Num(st.mean));
    t.append(" Points: ").append(std::to_string(st.points));
    if (!unit.empty()) t.append(" [ ").append(unit).append(" ]");
    return t;
}

// The sites of a one-field lot: "Site", "X (mm)", "Y (mm)" and the plotted
// feature, under `source` in column 1.
void AddFieldRows(const cLot& field, const std::string& source, std::vector<std::vector<Value>>& rows) {
    const int f = field.PlotFeature();
    field.forEachLive([&](cWafer&, cField&, cSite& s, cPoint& pt) {
        double v = 0;
        if (!RawPointValue(pt, f, eRaw, v)) return;
        rows.push_back({Value(source), Value(static_cast<double>(s.NumberKey())), Value(s.LocationX / 1000.0),
                        Value(s.LocationY / 1000.0), Value(v / 1000)});
    });
}

// The path beside `stem` that does not exist yet: stem + ext, then stem_2 ...
QString FreePath(const QString& stem, const QString& ext) {
    QString path = stem + ext;
    for (int n = 2; QFileInfo::exists(path); ++n) path = stem + QString("_%1").arg(n) + ext;
    return path;
}

bool SameFile(const QString& a, const QString& b) {
    if (a.isEmpty() || b.isEmpty()) return false;
    const QFileInfo fa(a), fb(b);
    return fa.absoluteFilePath() == fb.absoluteFilePath() ||
           (!fa.canonicalFilePath().isEmpty() && fa.canonicalFilePath() == fb.canonicalFilePath());
}

}  // namespace

// ---------------------------------------------------------------- FemView

FemView::FemView(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMinimumSize(200, 160);
}

void FemView::setMatrix(std::optional<FEMMatrix> fem) {
    fem_ = std::move(fem);
    dirty_ = true;
    update();
}

void FemView::resizeEvent(QResizeEvent*) {
    // FEMresize lays the cells out again at the new size.
    dirty_ = true;
}

void FemView::paintEvent(QPaintEvent*) {
    const qreal ratio = devicePixelRatioF();
    if (dirty_ || cache_.size() != size() * ratio) {
        cache_ = QImage(size() * ratio, QImage::Format_ARGB32_Premultiplied);
        cache_.setDevicePixelRatio(ratio);
        cache_.fill(Qt::white);
        failure_.clear();
        if (fem_) {
            QPainter p(&cache_);
            p.setRenderHint(QPainter::Antialiasing);
            QPainterSurface s(p, width(), height());
            if (Status st = DrawFEM(*fem_, s); !st) failure_ = Q(st.failure().text);
        }
        dirty_ = false;
    }
    QPainter p(this);
    p.drawImage(0, 0, cache_);
    if (!fem_ || !failure_.isEmpty()) {
        p.setPen(QColor(120, 120, 120));
        p.drawText(rect(), Qt::AlignCenter,
                   failure_.isEmpty() ? tr("No focus-exposure matrix.\nOpen a lot exposed at several doses and focuses.")
                                      : failure_);
    }
}

bool FemView::copyToClipboard() {
    if (!fem_) return false;
    if (!CopyDrawingToClipboard(width(), height(), [this](Surface& s) { return DrawFEM(*fem_, s); })) return false;
    SetStatusText("Focus-exposure matrix copied.");
    return true;
}

bool FemView::saveTo(const QString& path) {
    return fem_ && SaveDrawingTo(path, width(), height(), [this](Surface& s) { return DrawFEM(*fem_, s); });
}

void FemView::saveAs() {
    if (!fem_) return;
    std::function<QString(const QString&, const QString&)> ask;
    if (fileAsker()) ask = [](const QString& title, const QString& filter) { return fileAsker()(title, filter, {}); };
    const QString path = AskPicturePath(this, ask);
    if (!path.isEmpty()) saveTo(path);
}

void FemView::contextMenuEvent(QContextMenuEvent* e) {
    QMenu menu(this);
    QAction* copy = menu.addAction(tr("Copy"));
    QAction* save = menu.addAction(tr("Save As..."));
    copy->setEnabled(fem_.has_value());
    save->setEnabled(fem_.has_value());
    QAction* chosen = menu.exec(e->globalPos());
    if (chosen == copy) copyToClipboard();
    if (chosen == save) saveAs();
}

// ------------------------------------------------------------- frmReticle

void frmReticle::setFileAsker(FileAsker asker) { fileAsker() = std::move(asker); }

frmReticle::frmReticle(QWidget* parent)
    : ZorvForm("frmReticle", "Zorv MaskFactor", parent),
      gLot_(std::make_unique<cGraphic>()),
      gReticle_(std::make_unique<cGraphic>()),
      gMEFmap_(std::make_unique<cGraphic>()),
      gMEFxy_(std::make_unique<cGraphic>()) {
    setMinimumSize(640, 420);
    resize(1200, 800);

    auto* bar = new QHBoxLayout;
    lblFiles_ = new QLabel(tr("No lot loaded. Open a wafer lot and a reticle measurement."));
    lblFiles_->setObjectName("lblFiles");
    lblFiles_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    bar->addWidget(lblFiles_, 1);
    bar->addWidget(new QLabel(tr("Lot feature:")));
    cmbLotVariable_ = new QComboBox;
    cmbLotVariable_->setObjectName("cmbLotVariable");
    cmbLotVariable_->setMinimumContentsLength(10);
    cmbLotVariable_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    bar->addWidget(cmbLotVariable_);
    bar->addWidget(new QLabel(tr("Reticle feature:")));
    cmbRetVariable_ = new QComboBox;
    cmbRetVariable_->setObjectName("cmbRetVariable");
    cmbRetVariable_->setMinimumContentsLength(10);
    cmbRetVariable_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    bar->addWidget(cmbRetVariable_);
    contentLayout()->addLayout(bar);

    tabs_ = new QTabWidget;
    tabs_->setObjectName("tabReticle");
    tabs_->addTab(buildCompare(), tr("Compare"));
    tabs_->addTab(buildMEEF(), tr("MEEF"));
    tabs_->addTab(buildMEEFgraph(), tr("MEEF Graph"));
    tabs_->addTab(buildFEM(), tr("FEM"));
    contentLayout()->addWidget(tabs_, 1);
    buildMenus();

    connect(tabs_, &QTabWidget::currentChanged, this, [this](int i) { tabChanged(i); });
    auto refresh = [this] {
        if (!filling_) tabChanged(tabs_->currentIndex());
    };
    connect(cmbLotVariable_, &QComboBox::currentIndexChanged, this, refresh);
    connect(cmbRetVariable_, &QComboBox::currentIndexChanged, this, refresh);
}

frmReticle::~frmReticle() {
    // The views hold the charts by pointer: they let go first.
    for (ChartView* v : {chtLot_, chtReticle_, chtMEFmap_, chtMEFxy_})
        if (v) v->setGraphic(nullptr);
}

WindowPlace frmReticle::place() const { return {"frmReticle", ""}; }

void frmReticle::formLoad() {
    // A lot already open in the program is the lot side until another is opened.
    if (!lot_ && Current().lot) {
        lot_ = Current().lot;
        xlwb = Current().workbook;
        lotPath_ = xlwb ? Q(xlwb->path()) : QString();
        fillFeatures();
        tabChanged(tabs_->currentIndex());
    }
    // Started by itself, it comes up as the top window.
    if (StandAlone) raise();
}

void frmReticle::buildMenus() {
    QMenu* file = fileMenu();
    QAction* first = file->actions().isEmpty() ? nullptr : file->actions().front();
    auto add = [&](const char* name, const QString& text, auto slot) {
        auto* a = new QAction(text, this);
        a->setObjectName(name);
        connect(a, &QAction::triggered, this, slot);
        file->insertAction(first, a);
        return a;
    };
    add("mnuOpenLotReticle", tr("&Open Lot and Reticle..."), [this] {
        const QString lotFile = askOpen(tr("Open the wafer lot workbook"), kWorkbookFilter);
        if (lotFile.isEmpty()) return;
        const QString ret = askOpen(tr("Open the reticle workbook"), kWorkbookFilter);
        if (ret.isEmpty()) return;
        LoadLotReticle(lotFile, ret);
    });
    add("mnuOpenReticle", tr("Open &Reticle..."), [this] { OpenReticle(); });
    add("mnuOpenMEFfile", tr("Open &MEEF Result..."), [this] { OpenMEFfile(); });
    file->insertSeparator(first);
    add("mnuSaveFeature", tr("Save &Feature to the Lot Workbook"), [this] { SaveFeature(); });
    add("mnuFileSaveAs", tr("Save &As..."), [this] { FileSaveAs(); });
    add("mnuViewData", tr("&View Data"), [this] { VeiwSaveData(); });
    file->insertSeparator(first);

    QMenu* tools = new QMenu(tr("&Tools"), this);
    tools->setObjectName("mnuTools");
    menuBar()->insertMenu(helpMenu() ? helpMenu()->menuAction() : nullptr, tools);
    QAction* clone = tools->addAction(tr("&Clone Plot"));
    clone->setObjectName("cmdClone");
    connect(clone, &QAction::triggered, this, [this] { cmdClone(); });
    QAction* run = tools->addAction(tr("Run &MEEF Analysis"));
    run->setObjectName("mnuRunMEF");
    connect(run, &QAction::triggered, this, [this] { SetupMEF(); });
    QAction* asLot = tools->addAction(tr("Open MEEF Result as &Lot"));
    asLot->setObjectName("mnuOpenAsLot");
    connect(asLot, &QAction::triggered, this, [this] { OpenResultAsLot(); });
    QAction* saveFem = tools->addAction(tr("Save FEM &Picture As..."));
    saveFem->setObjectName("mnuSaveFEM");
    connect(saveFem, &QAction::triggered, this, [this] { femView_->saveAs(); });
}

QWidget* frmReticle::buildCompare() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* controls = new QHBoxLayout;
    controls->addWidget(new QLabel(tr("Reticle orientation:")));
    chkFlipX_ = new QCheckBox(tr("Flip X"));
    chkFlipX_->setObjectName("chkFlipX");
    chkFlipX_->setToolTip(tr("Mirror the reticle left to right (x to -x)"));
    chkFlipY_ = new QCheckBox(tr("Flip Y"));
    chkFlipY_->setObjectName("chkFlipY");
    chkFlipY_->setToolTip(tr("Mirror the reticle top to bottom (y to -y)"));
    cmbRotate_ = new QComboBox;
    cmbRotate_->setObjectName("cmbRotate");
    for (int a : {0, 90, 180, 270}) cmbRotate_->addItem(QString::number(a) + QChar(0x00B0), a);
    cmbRotate_->setToolTip(tr("Rotate the reticle anticlockwise, after the flips"));
    txtMagnify_ = new QLineEdit("1");
    txtMagnify_->setObjectName("txtMagnify");
    txtMagnify_->setMaximumWidth(70);
    txtMagnify_->setToolTip(tr("Reticle positions are divided by this to meet the wafer's (4 for a 4x mask measured at mask scale)"));
    controls->addWidget(chkFlipX_);
    controls->addWidget(chkFlipY_);
    controls->addSpacing(12);
    controls->addWidget(new QLabel(tr("Rotate:")));
    controls->addWidget(cmbRotate_);
    controls->addSpacing(12);
    controls->addWidget(new QLabel(tr("Magnify:")));
    controls->addWidget(txtMagnify_);
    controls->addStretch(1);
    v->addLayout(controls);

    auto* split = new QSplitter(Qt::Horizontal);
    chtLot_ = new ChartView;
    chtLot_->setObjectName("chtLot");
    chtReticle_ = new ChartView;
    chtReticle_->setObjectName("chtReticle");
    split->addWidget(chtLot_);
    split->addWidget(chtReticle_);
    v->addWidget(split, 1);

    auto again = [this] {
        if (!filling_) CompareGraphSetup();
    };
    connect(chkFlipX_, &QCheckBox::toggled, this, again);
    connect(chkFlipY_, &QCheckBox::toggled, this, again);
    connect(cmbRotate_, &QComboBox::currentIndexChanged, this, again);
    connect(txtMagnify_, &QLineEdit::editingFinished, this, again);
    return page;
}

QWidget* frmReticle::buildMEEF() {
    auto* page = new QWidget;
    auto* h = new QHBoxLayout(page);
    auto* left = new QVBoxLayout;
    auto* box = new QGroupBox(tr("MEEF Analysis"));
    auto* form = new QFormLayout(box);
    lblLotFeature_ = new QLabel("    Lot Feature: ");
    lblLotFeature_->setObjectName("lblLotFeature");
    form->addRow(lblLotFeature_);
    connect(cmbLotVariable_, &QComboBox::currentTextChanged, this, [this] { updateLotFeature(); });
    auto* retLabel = new QLabel(tr("Reticle Feature: see the bar above"));
    retLabel->setObjectName("lblRetFeature");
    form->addRow(retLabel);
    connect(cmbRetVariable_, &QComboBox::currentTextChanged, retLabel,
            [retLabel](const QString& t) { retLabel->setText("Reticle Feature: " + t); });
    txtMag_ = new QLineEdit("4");
    txtMag_->setObjectName("txtMag");
    txtMag_->setToolTip(tr("Reticle magnification of the CD values: reticle CD / Mag is at wafer scale"));
    form->addRow("Mag:", txtMag_);
    txtSiteMag_ = new QLineEdit("1");
    txtSiteMag_->setObjectName("txtSiteMag");
    txtSiteMag_->setToolTip(tr("Reticle magnification of the site positions: reticle position / SiteMag meets the lot's"));
    form->addRow("SiteMag:", txtSiteMag_);
    chkSaveSheets_ = new QCheckBox(tr("Write the result sheets to the lot workbook"));
    chkSaveSheets_->setObjectName("chkSaveSheets");
    chkSaveSheets_->setChecked(true);
    form->addRow(chkSaveSheets_);
    cmdRunMEF_ = new QPushButton(tr("Run MEEF Analysis"));
    cmdRunMEF_->setObjectName("cmdRunMEF");
    form->addRow(cmdRunMEF_);
    cmdOpenAsLot_ = new QPushButton(tr("Open Result as Lot"));
    cmdOpenAsLot_->setObjectName("cmdOpenAsLot");
    cmdOpenAsLot_->setEnabled(false);
    cmdOpenAsLot_->setToolTip(tr("Writes the result as a new lot workbook beside the lot and opens it here"));
    form->addRow(cmdOpenAsLot_);
    left->addWidget(box);
    txtSetup_ = new QPlainTextEdit;
    txtSetup_->setObjectName("txtSetup");
    txtSetup_->setReadOnly(true);
    txtSetup_->setFont(QFont("DejaVu Sans Mono", 9));
    txtSetup_->setPlaceholderText(tr("The analysis set-up shows here once it has run."));
    left->addWidget(txtSetup_, 1);
    h->addLayout(left, 2);

    tblSummary_ = new QTableWidget;
    tblSummary_->setObjectName("tblSummary");
    tblSummary_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tblSummary_->verticalHeader()->setVisible(false);
    tblSummary_->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
    h->addWidget(tblSummary_, 3);

    connect(cmdRunMEF_, &QPushButton::clicked, this, [this] { SetupMEF(); });
    connect(cmdOpenAsLot_, &QPushButton::clicked, this, [this] { OpenResultAsLot(); });
    return page;
}

QWidget* frmReticle::buildMEEFgraph() {
    auto* page = new QWidget;
    page->setObjectName("tabMEEFgraph");
    auto* v = new QVBoxLayout(page);
    auto* controls = new QHBoxLayout;
    controls->addWidget(new QLabel(tr("Column:")));
    cmbMEFColumn_ = new QComboBox;
    cmbMEFColumn_->setObjectName("cmbMEFColumn");
    cmbMEFColumn_->setMinimumContentsLength(24);
    controls->addWidget(cmbMEFColumn_);
    controls->addStretch(1);
    v->addLayout(controls);
    auto* split = new QSplitter(Qt::Horizontal);
    chtMEFmap_ = new ChartView;
    chtMEFmap_->setObjectName("chtMEFmap");
    chtMEFxy_ = new ChartView;
    chtMEFxy_->setObjectName("chtMEFxy");
    split->addWidget(chtMEFmap_);
    split->addWidget(chtMEFxy_);
    v->addWidget(split, 1);
    connect(cmbMEFColumn_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_) MEEFgraphSetup();
    });
    return page;
}

QWidget* frmReticle::buildFEM() {
    femView_ = new FemView;
    femView_->setObjectName("femView");
    return femView_;
}

void frmReticle::tabChanged(int index) {
    switch (index) {
        case kCompare: CompareGraphSetup(); break;
        case kMEEFgraph: MEEFgraphSetup(); break;
        case kFEM: FEMsetup(); break;
        default: break;
    }
}

void frmReticle::fillFeatures() {
    filling_ = true;
    auto fill = [](QComboBox* box, const std::shared_ptr<cLot>& lot) {
        const QString keep = box->currentText();
        box->clear();
        if (lot)
            for (const std::string& n : FeatureNames(*lot)) box->addItem(Q(n));
        const int at = box->findText(keep);
        box->setCurrentIndex(at >= 0 ? at : box->count() > 0 ? 0 : -1);
    };
    fill(cmbLotVariable_, lot_);
    fill(cmbRetVariable_, reticle_);
    filling_ = false;
    updateLotFeature();
    updateCaption();
}

void frmReticle::updateLotFeature() {
    std::string t = "    Lot Feature: ";
    if (lot_ && cmbLotVariable_->count() > 0) {
        const std::string f = S(cmbLotVariable_->currentText());
        t.append(f);
        const std::string unit = UnitOf(*lot_, lot_->GetPlotFeature(f));
        if (!unit.empty()) t.append(" [ ").append(unit).append(" ]");
    }
    lblLotFeature_->setText(Q(t));
}

void frmReticle::updateCaption() {
    QString text;
    text += tr("Lot: ") + (lotPath_.isEmpty() ? tr("(none)") : QFileInfo(lotPath_).fileName());
    text += tr("    Reticle: ") + (reticlePath_.isEmpty() ? tr("(none)") : QFileInfo(reticlePath_).fileName());
    lblFiles_->setText(text);
    lblFiles_->setToolTip(lotPath_ + "\n" + reticlePath_);
}

// ---------------------------------------------------------------- files

QString frmReticle::askOpen(const QString& title, const QString& filter) {
    const QString folder = lotPath_.isEmpty() ? QString() : QFileInfo(lotPath_).absolutePath();
    if (fileAsker()) return fileAsker()(title, filter, folder);
    return QFileDialog::getOpenFileName(this, title, folder, filter);
}

QString frmReticle::askSave(const QString& title, const QString& filter, const QString& folder) {
    if (fileAsker()) return fileAsker()(title, filter, folder);
    return QFileDialog::getSaveFileName(this, title, folder, filter);
}

bool frmReticle::LoadLotReticle(const QString& lotPath, const QString& reticlePath) {
    const BusyPointer busy;
    std::shared_ptr<cLot> lot, ret;
    std::shared_ptr<Workbook> wbLot, wbRet;
    // Both load before either replaces what the window holds.
    if (!lotPath.isEmpty() && !OpenLotWorkbook(lotPath, lot, wbLot)) return false;
    if (!reticlePath.isEmpty() && !OpenLotWorkbook(reticlePath, ret, wbRet)) return false;
    if (lot) {
        lot_ = lot;
        xlwb = wbLot;
        lotPath_ = Q(wbLot ? wbLot->path() : S(lotPath));
    }
    if (ret) {
        reticle_ = ret;
        xlwbReticle = wbRet;
        reticlePath_ = Q(wbRet ? wbRet->path() : S(reticlePath));
    }
    if (lot) registerRecentFile(lotPath_);
    result_.reset();
    cmdOpenAsLot_->setEnabled(false);
    fillFeatures();
    tabChanged(tabs_->currentIndex());
    SetStatusText("Ready");
    return true;
}

bool frmReticle::OpenReticle(const QString& path) {
    const QString file = path.isEmpty() ? askOpen(tr("Open the reticle workbook"), kWorkbookFilter) : path;
    if (file.isEmpty()) return false;
    return LoadLotReticle({}, file);
}

bool frmReticle::OpenMEFfile(const QString& path) {
    const QString file = path.isEmpty() ? askOpen(tr("Open a MEEF result workbook"), kWorkbookFilter) : path;
    if (file.isEmpty()) return false;
    if (!LoadLotReticle(file, {})) return false;
    // The result's own factor first.
    for (int i = 0; i < cmbLotVariable_->count(); ++i)
        if (cmbLotVariable_->itemText(i).startsWith("MEEF")) {
            cmbLotVariable_->setCurrentIndex(i);
            break;
        }
    return true;
}

// --------------------------------------------------------------- compare

std::shared_ptr<cLot> frmReticle::orientedReticle(const std::string& feature, double magnify) {
    std::shared_ptr<cLot> field = MeanFieldLot(*reticle_, "", eRaw);
    if (!field) return nullptr;
    field->PlotFeature(field->GetPlotFeature(feature));
    const bool fx = chkFlipX_->isChecked(), fy = chkFlipY_->isChecked();
    const int quarter = (cmbRotate_->currentData().toInt() / 90) % 4;
    // Quarter turns anticlockwise, exact: no rounding of the positions.
    auto turn = [quarter](double& x, double& y) {
        for (int k = 0; k < quarter; ++k) {
            const double t = x;
            x = -y;
            y = t;
        }
    };
    field->forEachLiveSite([&](cWafer&, cField&, cSite& s) {
        double x = s.LocationX, y = s.LocationY;
        if (fx) x = -x;
        if (fy) y = -y;
        turn(x, y);
        s.LocationX = static_cast<float>(x / magnify);
        s.LocationY = static_cast<float>(y / magnify);
    });
    // The field's box turns with it; a reticle without a size takes the lot's.
    double w = reticle_->DieSizeX, h = reticle_->DieSizeY;
    if (!(w > 0) || !(h > 0)) {
        w = lot_ ? lot_->DieSizeX * magnify : 26000;
        h = lot_ ? lot_->DieSizeY * magnify : 33000;
    }
    if (quarter % 2) std::swap(w, h);
    field->DieSizeX = static_cast<float>(w / magnify);
    field->DieSizeY = static_cast<float>(h / magnify);
    return field;
}

bool frmReticle::CompareGraphSetup() {
    Proc p("frmReticle(CompareGraphSetup): ");
    if (!lot_ && !reticle_) {
        SetStatusText("Open a lot and a reticle to compare.");
        return false;
    }
    double magnify = 1;
    if (!ParseNumber(S(txtMagnify_->text().trimmed()), magnify) || !(magnify > 0)) {
        p.chk = 1;
        Report(p.fail("Magnify must be a number above 0: " + S(txtMagnify_->text())));
        return false;
    }
    const BusyPointer busy;
    SetStatusText("Compare graph setup...");
    if (lot_ && cmbLotVariable_->count() > 0) {
        p.chk = 2;
        const std::string feature = S(cmbLotVariable_->currentText());
        const int f = lot_->GetPlotFeature(feature);
        lotField_ = MeanFieldLot(*lot_, "", eRaw);
        if (!lotField_) {
            Report(p.fail("No data points in the lot."));
            return false;
        }
        lotField_->PlotFeature(f);
        chtLot_->setGraphic(nullptr);
        *gLot_ = cGraphic();
        gLot_->Kind = GraphKind::FieldContour;
        gLot_->PLotDataType = eFitted;
        gLot_->TitleObj.Font.size = 9;
        gLot_->TitleObj.TitleString =
            MapTitle("Lot: " + lot_->LotName, feature, RawFeatureStats(*lot_, "", f, eRaw), UnitOf(*lot_, f));
        if (Status st = gLot_->LotData(lotField_); !st) {
            Report(st.failure());
            return false;
        }
        chtLot_->setGraphic(gLot_.get());
        chtLot_->setToolTip(Q("Lot: " + feature));
    }
    if (reticle_ && cmbRetVariable_->count() > 0) {
        p.chk = 3;
        const std::string feature = S(cmbRetVariable_->currentText());
        const int f = reticle_->GetPlotFeature(feature);
        reticleField_ = orientedReticle(feature, magnify);
        if (!reticleField_) {
            Report(p.fail("No data points in the reticle."));
            return false;
        }
        chtReticle_->setGraphic(nullptr);
        *gReticle_ = cGraphic();
        gReticle_->Kind = GraphKind::FieldContour;
        gReticle_->PLotDataType = eFitted;
        gReticle_->TitleObj.Font.size = 9;
        std::string side = "Reticle: ";
        side.append(reticle_->LotName);
        gReticle_->TitleObj.TitleString =
            MapTitle(side, feature, RawFeatureStats(*reticle_, "", f, eRaw), UnitOf(*reticle_, f));
        if (Status st = gReticle_->LotData(reticleField_); !st) {
            Report(st.failure());
            return false;
        }
        chtReticle_->setGraphic(gReticle_.get());
        chtReticle_->setToolTip(Q("Reticle: " + feature));
    }
    chtLot_->invalidate();
    chtReticle_->invalidate();
    SetStatusText("Ready");
    return true;
}

// ------------------------------------------------------------------ MEEF

bool frmReticle::SetupMEF() {
    Proc p("frmReticle(SetupMEF): ");
    SetStatusText(" MEEF Analysis setup ...");
    MEFSetup setup;
    setup.feature = S(cmbLotVariable_->currentText());
    setup.reticleFeature = S(cmbRetVariable_->currentText());
    p.chk = 1;
    if (!ParseNumber(S(txtMag_->text().trimmed()), setup.mag) || !(setup.mag > 0)) {
        Report(p.fail("Mag: must be a number above 0: " + S(txtMag_->text())));
        return false;
    }
    if (!ParseNumber(S(txtSiteMag_->text().trimmed()), setup.siteMag) || !(setup.siteMag > 0)) {
        Report(p.fail("SiteMag: must be a number above 0: " + S(txtSiteMag_->text())));
        return false;
    }
    p.chk = 2;
    Result<MEFResult> ran = [&] {
        const BusyPointer busy;
        return FindMEF(lot_.get(), reticle_.get(), setup);
    }();
    ShowProgress(-1);
    if (!ran) {
        Report(ran.failure());
        SetStatusText("Ready");
        return false;
    }
    setup_ = setup;
    result_ = std::move(*ran);
    analysisLotPath_ = lotPath_;
    if (chkSaveSheets_->isChecked() && xlwb && !xlwb->readOnly()) {
        p.chk = 3;
        if (Status st = SaveMEFSheets(*result_, setup_, *xlwb); !st) Report(st.failure());
    }

    // The set-up block, the head of the result.
    p.chk = 4;
    double sum = 0;
    int n = 0;
    for (const MEFField& f : result_->fields)
        if (std::isfinite(f.meef)) sum += f.meef, ++n;
    long culled = 0;
    lot_->TotalPoints(&culled);
    std::string unit = UnitOf(*lot_, lot_->GetPlotFeature(setup_.feature));
    std::string b = "Zorv Mask Error Factor Analysis\n";
    b.append("Date: ").append(FormatDate(NowSerial(), "dd-mmmm-yyyy hh:mm")).append("\n");
    b.append("Lot Feature: ").append(setup_.feature);
    if (!unit.empty()) b.append(" [ ").append(unit).append(" ]");
    b.append("\nReticle: ").append(setup_.reticleFeature).append("\n");
    b.append("MEF: ").append(Num(lot_->ReticleMEEF)).append("   (Final MEF = MEF * MEEF)\n");
    b.append("MEEF: ").append(n > 0 ? Num(sum / n) : std::string("none")).append("   (mean of ");
    b.append(std::to_string(result_->fields.size())).append(" fields)\n");
    b.append("Lot:").append("      ").append(lot_->LotName).append("   ").append(S(lotPath_)).append("\n");
    b.append("Cull:").append("     ").append(culled > 0 ? std::to_string(culled) + " points culled" : std::string("none")).append("\n");
    b.append("Reticle:").append("  ").append(reticle_->LotName).append("   ").append(S(reticlePath_)).append("\n");
    b.append("Mag:").append("      ").append(CStrNumber(setup_.mag, 6)).append("\n");
    b.append("SiteMag:").append("  ").append(CStrNumber(setup_.siteMag, 6)).append("\n");
    for (const MEFField& f : result_->fields) b.append("\n").append(f.wafer).append("  ").append(f.title);
    if (result_->skipped > 0)
        b.append("\n\n").append(std::to_string(result_->skipped)).append(" sites of the lot have no reticle CD.");
    if (!result_->sheets.empty() && chkSaveSheets_->isChecked())
        b.append("\n\nSheets written: ").append(result_->sheets.front()).append(", ").append(result_->sheets.back());
    txtSetup_->setPlainText(Q(b));

    // The field summary.
    p.chk = 5;
    const QStringList heads = {"Wafer", "Die(X,Y)", "MEEF", "StdErr(3s)", "BEEF", "StdErr(3s)"};
    tblSummary_->clear();
    tblSummary_->setColumnCount(static_cast<int>(heads.size()));
    tblSummary_->setHorizontalHeaderLabels(heads);
    tblSummary_->setRowCount(static_cast<int>(result_->fields.size()));
    for (size_t i = 0; i < result_->fields.size(); ++i) {
        const MEFField& f = result_->fields[i];
        const int row = static_cast<int>(i);
        std::string die = "(";
        die.append(CStrNumber(f.dieX, 6)).append(", ").append(CStrNumber(f.dieY, 6)).append(")");
        const std::string cells[] = {f.wafer, die, Num(f.meef), Num(3 * f.meefSigma), Num(f.beef), Num(3 * f.beefSigma)};
        for (int c = 0; c < 6; ++c) {
            auto* item = new QTableWidgetItem(Q(cells[c]));
            if (c >= 2) item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
            tblSummary_->setItem(row, c, item);
        }
    }

    // The table's columns for the maps.
    filling_ = true;
    const int keep = cmbMEFColumn_->currentData().isValid() ? cmbMEFColumn_->currentData().toInt() : mefMEEF;
    cmbMEFColumn_->clear();
    for (int c = mefCD; c <= mefBEEFfieldSigma; ++c) cmbMEFColumn_->addItem(Q(result_->table(0, c).toString()), c);
    const int at = cmbMEFColumn_->findData(keep);
    cmbMEFColumn_->setCurrentIndex(at >= 0 ? at : 0);
    filling_ = false;
    cmdOpenAsLot_->setEnabled(true);
    std::string done = "MEEF: ";
    done.append(n > 0 ? Num(sum / n) : std::string("none")).append("  Lot: ").append(setup_.feature);
    done.append("  Ret: ").append(setup_.reticleFeature);
    SetStatusText(done);
    return true;
}

QString frmReticle::OpenResultAsLot() {
    Proc p("frmReticle(OpenResultAsLot): ");
    if (!result_ || !lot_) {
        Report(p.fail("Run the MEEF analysis first."));
        return {};
    }
    // A new file beside the lot: the inputs and earlier results stay.
    const QFileInfo at(analysisLotPath_.isEmpty() ? QString("MEEF.xlsx") : analysisLotPath_);
    QString stem = at.absolutePath() + "/" + at.completeBaseName() + "_MEEF_" + Q(setup_.feature);
    const QString path = FreePath(stem, ".xlsx");
    Result<std::string> written = SaveAsLot(*result_, *lot_, setup_, S(path));
    if (!written) {
        Report(written.failure());
        return {};
    }
    const QString file = Q(*written);
    const std::optional<MEFResult> keep = result_;
    const MEFSetup keepSetup = setup_;
    if (!LoadLotReticle(file, {})) return {};
    // Opening the lot starts a new analysis; the one just saved stays shown.
    result_ = keep;
    setup_ = keepSetup;
    cmdOpenAsLot_->setEnabled(true);
    for (int i = 0; i < cmbLotVariable_->count(); ++i)
        if (cmbLotVariable_->itemText(i).startsWith("MEEF")) {
            cmbLotVariable_->setCurrentIndex(i);
            break;
        }
    resultLotPath_ = file;
    SetStatusText("MEEF result lot written: " + S(file));
    return file;
}

bool frmReticle::MEEFgraphSetup() {
    Proc p("frmReticle(tabMEEFgraph): ");
    if (!result_) {
        SetStatusText("Run the MEEF analysis to see its maps.");
        return false;
    }
    const int col = cmbMEFColumn_->currentData().isValid() ? cmbMEFColumn_->currentData().toInt() : int(mefMEEF);
    const Datam& t = result_->table;
    const std::string head = t(0, col).toString();

    // The column's mean over the fields at each site of the layout.
    p.chk = 1;
    const NeighborTable& nb = result_->neighbors;
    std::vector<double> sum(static_cast<size_t>(nb.Count()), 0.0);
    std::vector<int> count(static_cast<size_t>(nb.Count()), 0);
    for (size_t i = 0; i < result_->rows.size(); ++i) {
        const int k = result_->rows[i].layoutIndex;
        const Value& v = t(static_cast<int>(i) + 1, col);
        if (k < 0 || k >= nb.Count() || v.isEmpty() || !v.isNumberType()) continue;
        sum[static_cast<size_t>(k)] += v.toDouble();
        ++count[static_cast<size_t>(k)];
    }
    auto field = cLot::create();
    field->DataSource(lot_ ? lot_->DataSource() : eDataSourceCDSEM);
    field->LotName = lot_ ? lot_->LotName : std::string("MEEF");
    field->DieSizeX = lot_ && lot_->DieSizeX > 0 ? lot_->DieSizeX : 26000;
    field->DieSizeY = lot_ && lot_->DieSizeY > 0 ? lot_->DieSizeY : 33000;
    field->ValueV_Name = head;
    field->PlotFeature(ePlotFeatureV);
    bool isNew = false;
    cWafer* w = field->AddWafer("1", isNew);
    cField* f = w ? w->AddField(0, 0, isNew, true) : nullptr;
    int sites = 0;
    double mean = 0;
    for (int k = 0; f && k < nb.Count(); ++k) {
        if (count[static_cast<size_t>(k)] == 0) continue;
        const double z = sum[static_cast<size_t>(k)] / count[static_cast<size_t>(k)];
        Ref<cSite> site = cSite::New();
        site->setNumberKey(nb.site[static_cast<size_t>(k)]);
        site->LocationX = static_cast<float>(nb.x[static_cast<size_t>(k)]);
        site->LocationY = static_cast<float>(nb.y[static_cast<size_t>(k)]);
        site->setParent(f);
        f->sites().Add(site, std::to_string(nb.site[static_cast<size_t>(k)]));
        auto pt = std::make_unique<cPoint>();
        pt->ValueV = static_cast<float>(z * 1000);
        pt->ValueV_fit = pt->ValueV;
        f->AddPoint(site, std::move(pt));
        mean += z;
        ++sites;
    }
    chtMEFmap_->setGraphic(nullptr);
    if (sites == 0) {
        *gMEFmap_ = cGraphic();
        Report(p.fail("No values in the column: " + head));
        return false;
    }
    mefField_ = field;
    *gMEFmap_ = cGraphic();
    gMEFmap_->Kind = GraphKind::FieldContour;
    gMEFmap_->PLotDataType = eRaw;
    std::string title = head;
    title.append(" Mean Field: ").append(Num(mean / sites)).append(" Points: ").append(std::to_string(sites));
    gMEFmap_->TitleObj.TitleString = title;
    if (Status st = gMEFmap_->LotData(mefField_); !st) {
        Report(st.failure());
        return false;
    }
    chtMEFmap_->setGraphic(gMEFmap_.get());

    // Wafer CD against reticle CD, every site of every field, and the
    // straight line through them.
    p.chk = 2;
    int n = 0;
    double sx = 0, sy = 0, sxx = 0, sxy = 0, lo = 0, hi = 0;
    for (int r = 1; r <= t.rowUb(); ++r) {
        const Value& x = t(r, mefRetCD);
        const Value& y = t(r, mefCD);
        if (x.isEmpty() || y.isEmpty() || !x.isNumberType() || !y.isNumberType()) continue;
        const double xv = x.toDouble(), yv = y.toDouble();
        if (n == 0) lo = hi = xv;
        lo = std::min(lo, xv), hi = std::max(hi, xv);
        sx += xv, sy += yv, sxx += xv * xv, sxy += xv * yv;
        ++n;
    }
    const double den = n * sxx - sx * sx;
    const bool line = n > 2 && den > 0;
    const double slope = line ? (n * sxy - sx * sy) / den : 0, offset = line ? (sy - slope * sx) / n : 0;
    Datam xy(std::max(n, 2), 4, 0, 1);
    xy(0, 1) = Value(t(0, mefRetCD).toString());
    xy(0, 2) = Value(t(0, mefCD).toString());
    xy(0, 3) = Value("FitX");
    xy(0, 4) = Value("Fit");
    int row = 0;
    for (int r = 1; r <= t.rowUb(); ++r) {
        const Value& x = t(r, mefRetCD);
        const Value& y = t(r, mefCD);
        if (x.isEmpty() || y.isEmpty() || !x.isNumberType() || !y.isNumberType()) continue;
        ++row;
        xy(row, 1) = x;
        xy(row, 2) = y;
    }
    if (line) {
        xy(1, 3) = Value(lo);
        xy(1, 4) = Value(offset + slope * lo);
        xy(2, 3) = Value(hi);
        xy(2, 4) = Value(offset + slope * hi);
    }
    chtMEFxy_->setGraphic(nullptr);
    *gMEFxy_ = cGraphic();
    if (Status st = gMEFxy_->RegisterData(xy); !st) {
        Report(st.failure());
        return false;
    }
    cSeries& pts = gMEFxy_->Series.Add("Sites");
    pts.Xcol = 1;
    pts.Ycol = 2;
    pts.Symbol = SymbolShape::Circle;
    pts.Connect = false;
    if (line) {
        std::string label = "Fit: slope ";
        label.append(Num(slope));
        cSeries& fit = gMEFxy_->Series.Add(label);
        fit.Xcol = 3;
        fit.Ycol = 4;
        fit.Symbol = SymbolShape::None;
        fit.Connect = true;
    }
    const std::string unit = lot_ ? UnitOf(*lot_, lot_->GetPlotFeature(setup_.feature)) : std::string();
    std::string xl = "Reticle CD at wafer scale: ";
    xl.append(t(0, mefRetCD).toString());
    std::string yl = "Wafer CD: ";
    yl.append(t(0, mefCD).toString());
    if (!unit.empty()) {
        xl.append(" (").append(unit).append(")");
        yl.append(" (").append(unit).append(")");
    }
    gMEFxy_->Axes.Add("X").Label = xl;
    gMEFxy_->Axes.Add("Y").Label = yl;
    gMEFxy_->Axes.Item("Y")->PlotGridline = true;
    std::string xt = "Wafer CD against Reticle CD";
    if (line) xt.append("  MEEF: ").append(Num(slope));
    gMEFxy_->TitleObj.TitleString = xt;
    chtMEFxy_->setGraphic(gMEFxy_.get());
    chtMEFmap_->invalidate();
    chtMEFxy_->invalidate();
    return true;
}

// ------------------------------------------------------------------- FEM

bool frmReticle::FEMsetup() {
    if (!lot_) {
        femView_->setMatrix(std::nullopt);
        SetStatusText("Open a lot to see its focus-exposure matrix.");
        return false;
    }
    const BusyPointer busy;
    Result<FEMMatrix> fem = doFEMsetup(lot_.get());
    if (!fem) {
        femView_->setMatrix(std::nullopt);
        Report(fem.failure());
        return false;
    }
    if (Status st = doFEMsurfm(*lot_, S(cmbLotVariable_->currentText()), *fem); !st) {
        femView_->setMatrix(std::nullopt);
        Report(st.failure());
        return false;
    }
    femView_->setMatrix(std::move(*fem));
    SetStatusText("Ready");
    return true;
}

// ------------------------------------------------------------ the shown

ChartView* frmReticle::shownChart() const {
    switch (tabs_->currentIndex()) {
        case kCompare: return chtLot_;
        case kMEEFgraph: return chtMEFmap_;
        default: return nullptr;
    }
}

frmPlot* frmReticle::cmdClone() {
    ChartView* view = shownChart();
    if (!view || !view->graphic() || (view->graphic()->Kind != GraphKind::Chart && !view->graphic()->Lot())) {
        SetStatusText("No chart to clone on this tab.");
        return nullptr;
    }
    // frmPlot numbers its clones; a window of the chart that is never shown
    // gives the clone its caption.
    frmPlot source;
    source.setGraphic(*view->graphic());
    frmPlot* clone = source.cmdClone();
    return clone;
}

Datam frmReticle::shownTable(std::string& name) {
    const int tab = tabs_->currentIndex();
    if ((tab == kMEEF || tab == kMEEFgraph) && result_) {
        name = MefSheetName(setup_);
        return result_->table;
    }
    if (tab == kFEM && femView_->matrix()) {
        name = "FEM_";
        name.append(femView_->matrix()->feature);
        return femView_->matrix()->table;
    }
    std::vector<std::vector<Value>> rows;
    if (lotField_) AddFieldRows(*lotField_, "Lot", rows);
    if (reticleField_) AddFieldRows(*reticleField_, "Reticle", rows);
    if (rows.empty()) return Datam();
    name = "Compare_";
    name.append(S(cmbLotVariable_->currentText()));
    Datam t(static_cast<int>(rows.size()), 5, 0, 1);
    const char* heads[] = {"Source", "Site", "X (mm)", "Y (mm)", "Value"};
    for (int c = 0; c < 5; ++c) t(0, c + 1) = Value(heads[c]);
    for (size_t r = 0; r < rows.size(); ++r)
        for (int c = 0; c < 5; ++c) t(static_cast<int>(r) + 1, c + 1) = rows[r][static_cast<size_t>(c)];
    return t;
}

bool frmReticle::SaveFeature() {
    Proc p("frmReticle(SaveFeature): ");
    std::string name;
    const Datam t = shownTable(name);
    if (!t.isArray()) {
        Report(p.fail("No data to save."));
        return false;
    }
    if (!xlwb || xlwb->readOnly()) {
        Report(p.fail("The lot workbook cannot be written; use Save As."));
        return false;
    }
    const std::string sheet = FixSheetName(name);
    if (Status st = SaveArray(t, sheet, xlwb.get()); !st) {
        Report(st.failure());
        return false;
    }
    SetStatusText("Saved to sheet " + sheet + " of " + xlwb->path());
    return true;
}

bool frmReticle::FileSaveAs(const QString& path) {
    Proc p("frmReticle(FileSaveAs): ");
    std::string name;
    const Datam t = shownTable(name);
    if (!t.isArray()) {
        Report(p.fail("No data to save."));
        return false;
    }
    QString file = path;
    if (file.isEmpty()) {
        const QString folder = lotPath_.isEmpty() ? QString() : QFileInfo(lotPath_).absolutePath();
        file = askSave(tr("Save the data as a workbook"), "Spreadsheet (*.xlsx)", folder);
        if (file.isEmpty()) return false;
    }
    if (QFileInfo(file).suffix().isEmpty()) file += ".xlsx";
    p.chk = 1;
    if (SameFile(file, lotPath_) || SameFile(file, reticlePath_)) {
        Report(p.fail("Choose a new file: the lot and reticle workbooks are not overwritten."));
        return false;
    }
    const std::string sheet = FixSheetName(name);
    WorkbookPtr wb = Workbook::create(S(file), sheet);
    if (!wb) {
        Failure f = p.fail("Could not create " + S(file));
        f.file = S(file);
        Report(f);
        return false;
    }
    if (Status st = SaveArray(t, sheet, wb.get()); !st) {
        Report(st.failure());
        return false;
    }
    SetStatusText("Saved: " + S(file));
    return true;
}

frmSpreadsheet* frmReticle::VeiwSaveData() {
    std::string name;
    const Datam t = shownTable(name);
    if (!t.isArray()) {
        SetStatusText("No data to view.");
        return nullptr;
    }
    auto* grid = new frmSpreadsheet;
    grid->setTable(t, Q(name));
    grid->Load();
    grid->show();
    return grid;
}

}  // namespace zorv::ui
