#include "ui/frm_analysis.h"

#include <QAction>
#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QSplitter>
#include <QStackedWidget>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <map>

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
#include "stats/raw_analysis.h"
#include "ui/chart_view.h"
#include "ui/frm_main.h"
#include "ui/grid_fill.h"
#include "ui/lot_open.h"
#include "ui/qtext.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

namespace zorv::ui {

namespace {

constexpr const char* kSection = "PSFManalysis";
constexpr const char* kTemplateKey = "PSFMtemplate";
const char kWorkbookFilter[] = "Zorv Workbook (*.xlsx *.xls *.XLSX *.XLS)";

frmAnalysis::FileAsker& fileAsker() {
    static frmAnalysis::FileAsker a;
    return a;
}

struct MatchMode {
    const char* caption;
    const char* tip;
};
constexpr MatchMode kModes[] = {
    {"All Sites", "Use this analysis when the reticle was calibrated on the same tool. Most accurate analysis"},
    {"Center", "Use the site located in the center of the reticle"},
    {"Center Column", "Scanner: Use sites located in the center of a horizontal slit"},
    {"Center Row", "Scanner: Use sites located in the center of a vertical slit"},
    {"User Selected", "Use the mouse to select a group of sites for calibration"},
};

// cmbPlotType, in order.
enum PlotType { kVector = 0, kContour = 1, kXY = 2, kAstig = 3 };
// cmbAberrationTable, in order.
enum AberTable { kXModel = 0, kYModel, kMeanModel, kRows, kColumns, kWafer, kAstigStats };

QString CellText(const Value& v) {
    if (v.isEmpty() || v.isNull()) return {};
    if (v.isNumberType() && !v.isBool()) {
        if (v.type() == VType::Integer || v.type() == VType::Long) return QString::number(v.toLong());
        const double d = v.toDouble();
        return Q(std::fabs(d) >= 1e5 || d == std::floor(d) ? CStrNumber(d, 7) : Format(d, "###0.0000"));
    }
    return Q(v.toString());
}

// Each site's slit and scan focus less the field's mean: the mean (often a
// tenth of a micron) would make every arrow alike and hide the field's shape.
void CentreVectors(cLot& field) {
    double sumV = 0, sumH = 0;
    long n = 0;
    auto each = [&](auto&& f) {
        for (cWafer* w : field.Wafers())
            for (cField* fd : w->Fields())
                for (cSite* st : fd->sites())
                    for (cPoint* pt : st->Points())
                        if (!pt->cull()) f(*pt);
    };
    each([&](cPoint& pt) { sumV += pt.ValueV, sumH += pt.ValueH, ++n; });
    if (!n) return;
    const double mV = sumV / static_cast<double>(n), mH = sumH / static_cast<double>(n);
    each([&](cPoint& pt) {
        pt.ValueV = static_cast<decltype(pt.ValueV)>(pt.ValueV - mV);
        pt.ValueH = static_cast<decltype(pt.ValueH)>(pt.ValueH - mH);
    });
}

QLabel* ValueLabel(const char* name, QWidget* parent) {
    auto* l = new QLabel(parent);
    l->setObjectName(name);
    l->setTextInteractionFlags(Qt::TextSelectableByMouse);
    l->setMinimumWidth(120);
    return l;
}

}  // namespace

frmAnalysis::frmAnalysis(QWidget* parent, const QString& libraryFolder)
    : ZorvForm("frmAnalysis", "Zorv PSFM Full-Field", parent) {
    setMinimumSize(900, 600);
    if (libraryFolder.isEmpty()) {
        lib_ = &TemplateLibrary();
    } else {
        ownLib_ = std::make_unique<cTemplateLibrary>(S(libraryFolder));
        lib_ = ownLib_.get();
    }
    chart_ = std::make_unique<cGraphic>();

    auto* split = new QSplitter(Qt::Horizontal, contentArea());
    split->addWidget(buildLeft());
    auto* right = new QSplitter(Qt::Vertical, split);
    tabs_ = new QTabWidget(right);
    tabs_->setObjectName("tabAnalysis");
    QWidget* grid = buildGridTab();
    grid->setObjectName("tabTemplateGrid");
    tabs_->addTab(grid, tr("Template Grid"));
    QWidget* plot = buildPlotOptionsTab();
    plot->setObjectName("tabPlotOptions");
    tabs_->addTab(plot, tr("Plot Options"));
    QWidget* aber = buildAberrationsTab();
    aber->setObjectName("tabAberrations");
    tabs_->addTab(aber, tr("Aberrations"));
    right->addWidget(tabs_);
    plotStack_ = new QStackedWidget(right);
    plotHint_ = emptySurface("pctHint", tr("Open a data workbook (File menu), choose a template and convert the lot.\n"
                                           "The converted focus shows here; the Plot Options tab chooses the view."));
    plotStack_->addWidget(plotHint_);
    pctAberrations_ = new ChartView(plotStack_);
    pctAberrations_->setObjectName("pctAberrations");
    pctAberrations_->setMinimumHeight(260);
    plotStack_->addWidget(pctAberrations_);
    right->addWidget(plotStack_);
    right->setStretchFactor(0, 2);
    right->setStretchFactor(1, 3);
    split->addWidget(right);
    split->setStretchFactor(0, 0);
    split->setStretchFactor(1, 1);
    contentLayout()->addWidget(split);
    buildMenus();
    updateLotLabel();
    enableCommands();
}

frmAnalysis::~frmAnalysis() { pctAberrations_->setGraphic(nullptr); }

WindowPlace frmAnalysis::place() const { return {"PSFMform", ""}; }

void frmAnalysis::setFileAsker(FileAsker asker) { fileAsker() = std::move(asker); }

QWidget* frmAnalysis::buildLeft() {
    auto* left = new QWidget;
    left->setMinimumWidth(300);
    left->setMaximumWidth(380);
    auto* v = new QVBoxLayout(left);
    v->setContentsMargins(4, 4, 4, 4);

    lblLot_ = new QLabel(left);
    lblLot_->setObjectName("lblLot");
    lblLot_->setWordWrap(true);
    lblLot_->setStyleSheet("QLabel { font-weight: bold; }");
    v->addWidget(lblLot_);

    auto* tplBox = new QGroupBox(tr("Calibration Template"), left);
    auto* form = new QFormLayout(tplBox);
    cmbTemplate_ = new QComboBox(tplBox);
    cmbTemplate_->setObjectName("cmbTemplate");
    cmbTemplate_->setToolTip(tr("The calibration template that converts image shift to focus"));
    form->addRow(tr("Template:"), cmbTemplate_);
    txtReticleName_ = new QLineEdit(tplBox);
    txtReticleName_->setObjectName("txtReticleName");
    txtReticleName_->setReadOnly(true);
    form->addRow(tr("Reticle:"), txtReticleName_);
    lblDataSet_ = ValueLabel("lblDataSet", tplBox);
    form->addRow(tr("Data set:"), lblDataSet_);
    lblDateCreated_ = ValueLabel("lblDateCreated", tplBox);
    form->addRow(tr("Created:"), lblDateCreated_);
    lblDateModified_ = ValueLabel("lblDateModified", tplBox);
    form->addRow(tr("Modified:"), lblDateModified_);
    txtComments_ = new QPlainTextEdit(tplBox);
    txtComments_->setObjectName("txtComments");
    txtComments_->setReadOnly(true);
    txtComments_->setMaximumHeight(60);
    form->addRow(tr("Comments:"), txtComments_);
    v->addWidget(tplBox);
    connect(cmbTemplate_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_) cmdTemplate();
    });

    fraConvOptions_ = new QGroupBox(tr("Conversion Options"), left);
    fraConvOptions_->setObjectName("fraConvOptions");
    auto* ov = new QVBoxLayout(fraConvOptions_);
    optSelectLayout_ = new QButtonGroup(fraConvOptions_);
    for (int i = 0; i < 5; ++i) {
        auto* b = new QRadioButton(tr(kModes[i].caption), fraConvOptions_);
        b->setObjectName("optSelectLayout");
        b->setProperty("index", i);
        b->setToolTip(tr(kModes[i].tip));
        optSelectLayout_->addButton(b, i);
        ov->addWidget(b);
    }
    optSelectLayout_->button(0)->setChecked(true);
    auto* defeat = new QGridLayout;
    auto check = [&](const char* name, const QString& text, const QString& tip, int r, int c) {
        auto* b = new QCheckBox(text, fraConvOptions_);
        b->setObjectName(name);
        b->setToolTip(tip);
        defeat->addWidget(b, r, c);
        return b;
    };
    chkNoDose_ = check("chkNoDose", tr("No Dose"), tr("Match template sites whatever their dose"), 0, 0);
    chkNoNA_ = check("chkNoNA", tr("No NA"), tr("Match template sites whatever their NA"), 0, 1);
    chkNoPCi_ = check("chkNoPCi", tr("No PCinner"), tr("Match template sites whatever their inner partial coherence"), 1, 0);
    chkNoPCo_ = check("chkNoPCo", tr("No PCouter"), tr("Match template sites whatever their outer partial coherence"), 1, 1);
    ov->addLayout(defeat);
    auto* cull = new QFormLayout;
    txtRange_ = new QLineEdit("0", fraConvOptions_);
    txtRange_->setObjectName("txtRange");
    txtRange_->setToolTip(tr("Cull points whose astigmatism lies this far (um) from the mean; 0 culls none"));
    cull->addRow(tr("Astig. range (um):"), txtRange_);
    txtSigma_ = new QLineEdit("0", fraConvOptions_);
    txtSigma_->setObjectName("txtSigma");
    txtSigma_->setToolTip(tr("Cull points whose astigmatism lies this many sigma from the mean; 0 culls none"));
    cull->addRow(tr("Astig. sigma:"), txtSigma_);
    ov->addLayout(cull);
    v->addWidget(fraConvOptions_);

    auto button = [&](const char* name, const QString& text, const QString& tip) {
        auto* b = new QPushButton(text, left);
        b->setObjectName(name);
        b->setToolTip(tip);
        v->addWidget(b);
        return b;
    };
    cmdAnalysis_ = button("cmdAnalysis", tr("Convert Lot to Focus"),
                          tr("Convert the lot's image shifts to focus with the template (sheet \"RawFocus\")"));
    cmdCullAnalysis_ = button("cmdCullAnalysis", tr("Astigmatism Analysis"),
                              tr("The astigmatism (H - V) of the lot before conversion"));
    cmdModelFocus_ = button("cmdModelFocus", tr("Model Focus Aberrations"),
                            tr("Tilt and curvature of every field of the converted lot"));
    connect(cmdAnalysis_, &QPushButton::clicked, this, [this] { cmdAnalysis(); });
    connect(cmdCullAnalysis_, &QPushButton::clicked, this, [this] { cmdCullAnalysis(); });
    connect(cmdModelFocus_, &QPushButton::clicked, this, [this] { cmdModelFocus(); });
    v->addStretch(1);
    return left;
}

QWidget* frmAnalysis::buildGridTab() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    tblTemplate_ = new QTableWidget(page);
    tblTemplate_->setObjectName("tblTemplateGrid");
    tblTemplate_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tblTemplate_->setSelectionBehavior(QAbstractItemView::SelectRows);
    tblTemplate_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    tblTemplate_->verticalHeader()->setVisible(false);
    v->addWidget(tblTemplate_, 1);
    auto* hint = new QLabel(tr("With \"User Selected\", the conversion uses the sites selected here."), page);
    hint->setStyleSheet("QLabel { color: palette(mid); }");
    v->addWidget(hint);
    return page;
}

QWidget* frmAnalysis::buildPlotOptionsTab() {
    auto* page = new QWidget;
    auto* h = new QHBoxLayout(page);
    auto* plotBox = new QGroupBox(tr("Plot"), page);
    auto* pf = new QFormLayout(plotBox);
    cmbPlotType_ = new QComboBox(plotBox);
    cmbPlotType_->setObjectName("cmbPlotType");
    cmbPlotType_->addItems({tr("Vector"), tr("Contour"), tr("XY"), tr("Astigmatism")});
    cmbPlotType_->setToolTip(tr("Vector: X and Y focus of the mean field as arrows; Contour: the mean field; "
                                "XY: focus across the field"));
    pf->addRow(tr("View:"), cmbPlotType_);
    cmbPlotFeature_ = new QComboBox(plotBox);
    cmbPlotFeature_->setObjectName("cmbPlotFeature");
    cmbPlotFeature_->addItems({tr("Mean"), tr("Slit"), tr("Scan")});
    cmbPlotFeature_->setToolTip(tr("The focus the contour shows: mean, vertical feature (slit), horizontal (scan)"));
    pf->addRow(tr("Contour of:"), cmbPlotFeature_);
    h->addWidget(plotBox);
    connect(cmbPlotType_, &QComboBox::currentIndexChanged, this, [this] { drawPlot(); });
    connect(cmbPlotFeature_, &QComboBox::currentIndexChanged, this, [this] {
        if (cmbPlotType_->currentIndex() == kContour) drawPlot();
    });

    auto* model = new QGroupBox(tr("Aberration Model"), page);
    auto* mv = new QVBoxLayout(model);
    auto* wf = new QHBoxLayout;
    chkWaferModel_ = new QCheckBox(tr("Wafer model, terms:"), model);
    chkWaferModel_->setObjectName("chkWaferModel");
    chkWaferModel_->setChecked(true);
    chkWaferModel_->setToolTip(tr("Report the wafer's tilt and bow (sheet \"WaferAberrations\")"));
    txtWaferTerms_ = new QSpinBox(model);
    txtWaferTerms_->setObjectName("cmbWaferTerms");
    txtWaferTerms_->setRange(1, 36);
    txtWaferTerms_->setValue(10);
    wf->addWidget(chkWaferModel_);
    wf->addWidget(txtWaferTerms_);
    wf->addStretch(1);
    mv->addLayout(wf);
    auto* rem = new QGridLayout;
    auto check = [&](const char* name, const QString& text, int r, int c) {
        auto* b = new QCheckBox(text, model);
        b->setObjectName(name);
        rem->addWidget(b, r, c);
        return b;
    };
    rem->addWidget(new QLabel(tr("Remove from the wafer:"), model), 0, 0, 1, 3);
    chkPiston_ = check("chkPiston", tr("Piston"), 1, 0);
    chkTilt_ = check("chkTilt", tr("Tilt"), 1, 1);
    chkCurvature_ = check("chkCurvature", tr("Curvature"), 1, 2);
    rem->addWidget(new QLabel(tr("of the features:"), model), 2, 0, 1, 3);
    chkRemoveV_ = check("chkRemoveV", tr("Vertical"), 3, 0);
    chkRemoveH_ = check("chkRemoveH", tr("Horizontal"), 3, 1);
    mv->addLayout(rem);
    mv->addStretch(1);
    h->addWidget(model);
    h->addStretch(1);
    return page;
}

QWidget* frmAnalysis::buildAberrationsTab() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* top = new QHBoxLayout;
    top->addWidget(new QLabel(tr("Table:"), page));
    cmbAberrationTable_ = new QComboBox(page);
    cmbAberrationTable_->setObjectName("cmbAberrationTable");
    cmbAberrationTable_->addItems({"XModel(Slit):", "YModel(Scan):", "MeanModel:", tr("Row (Vertical Feature) Field Aberrations"),
                                   tr("Column (Horizontal Feature) Field Aberrations"), tr("Wafer tilt & bow"),
                                   tr("Astigmatism")});
    cmbAberrationTable_->setCurrentIndex(kMeanModel);
    top->addWidget(cmbAberrationTable_);
    top->addStretch(1);
    v->addLayout(top);
    tblAberrations_ = new QTableWidget(page);
    tblAberrations_->setObjectName("tblAberrations");
    tblAberrations_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tblAberrations_->verticalHeader()->setVisible(false);
    v->addWidget(tblAberrations_, 1);
    connect(cmbAberrationTable_, &QComboBox::currentIndexChanged, this, [this] { showAberrationTable(); });
    return page;
}

void frmAnalysis::buildMenus() {
    QMenu* file = fileMenu();
    QAction* first = file->actions().isEmpty() ? nullptr : file->actions().front();
    auto* open = new QAction(tr("&Open Data Workbook..."), this);
    open->setObjectName("mnuFileOpen");
    connect(open, &QAction::triggered, this, [this] { OpenLot(); });
    file->insertAction(first, open);
    file->insertSeparator(first);
}

// ---------------------------------------------------------------- load

void frmAnalysis::formLoad() {
    loadLibrary();
    if (!lot_ && Current().lot) setLot(Current().lot, Current().workbook);
}

void frmAnalysis::formUnload() {
    pctAberrations_->setGraphic(nullptr);
    if (tpl_) SaveSetting(ApplicationTitle(), kSection, kTemplateKey, tpl_->NameTemplate);
}

void frmAnalysis::loadLibrary() {
    const BusyPointer busy;
    if (Status st = lib_->FileGet(); !st) Report(st.failure());
    if (lib_->Count() == 0) {
        if (Status st = CreateTemplateBase(lib_->Folder()); !st) Report(st.failure());
        else if (Status again = lib_->FileGet(); !again) Report(again.failure());
    }
    const std::string last = GetSetting(ApplicationTitle(), kSection, kTemplateKey, "");
    filling_ = true;
    cmbTemplate_->clear();
    int pick = 0;
    for (const auto& t : lib_->Templates()) {
        if (IEquals(t->NameTemplate, last)) pick = cmbTemplate_->count();
        cmbTemplate_->addItem(Q(t->NameTemplate));
    }
    if (cmbTemplate_->count() > 0) cmbTemplate_->setCurrentIndex(pick);
    filling_ = false;
    cmdTemplate();
}

bool frmAnalysis::OpenLot(const QString& pathIn) {
    QString path = pathIn;
    if (path.isEmpty()) {
        const QString folder = wb_ ? QFileInfo(Q(wb_->path())).absolutePath() : QString();
        path = fileAsker() ? fileAsker()(tr("Open a data workbook"), kWorkbookFilter, folder)
                           : QFileDialog::getOpenFileName(this, tr("Open a data workbook"), folder, kWorkbookFilter);
        if (path.isEmpty()) return false;
    }
    const BusyPointer busy;
    std::shared_ptr<cLot> loaded;
    std::shared_ptr<Workbook> book;
    if (!OpenLotWorkbook(path, loaded, book)) return false;
    setLot(loaded, book);
    registerRecentFile(path);
    SetStatusText("Ready");
    return true;
}

void frmAnalysis::setLot(std::shared_ptr<cLot> lot, std::shared_ptr<Workbook> workbook) {
    lot_ = std::move(lot);
    wb_ = std::move(workbook);
    result_.reset();
    aber_.reset();
    rowCol_.reset();
    astig_.reset();
    meanField_.reset();
    vectorField_.reset();
    pctAberrations_->setGraphic(nullptr);
    *chart_ = cGraphic();
    plotStack_->setCurrentWidget(plotHint_);
    tblAberrations_->clear();
    tblAberrations_->setRowCount(0);
    tblAberrations_->setColumnCount(0);
    updateLotLabel();
    enableCommands();
}

void frmAnalysis::updateLotLabel() {
    if (!lot_) {
        lblLot_->setText(tr("No lot loaded: File > Open Data Workbook."));
        return;
    }
    QString t = tr("Lot: ") + Q(lot_->LotName);
    if (result_ && result_->lot) t += tr("\nConverted: ") + Q(result_->lot->LotName);
    lblLot_->setText(t);
}

void frmAnalysis::enableCommands() {
    const bool converted = result_ && result_->lot;
    cmdModelFocus_->setEnabled(converted);
    cmdModelFocus_->setToolTip(converted ? tr("Tilt and curvature of every field of the converted lot")
                                         : tr("Convert the lot first"));
}

// ---------------------------------------------------------------- template

bool frmAnalysis::cmdTemplate() {
    const std::string name = S(cmbTemplate_->currentText());
    tpl_ = name.empty() ? nullptr : lib_->GetTemplate(name);
    showTemplate();
    if (!tpl_) return false;
    SaveSetting(ApplicationTitle(), kSection, kTemplateKey, tpl_->NameTemplate);
    return true;
}

void frmAnalysis::showTemplate() {
    tblTemplate_->clear();
    if (!tpl_) {
        txtReticleName_->clear();
        txtComments_->clear();
        for (QLabel* l : {lblDataSet_, lblDateCreated_, lblDateModified_}) l->clear();
        tblTemplate_->setRowCount(0);
        tblTemplate_->setColumnCount(0);
        return;
    }
    txtReticleName_->setText(Q(tpl_->ReticleName));
    QString comment = Q(tpl_->Comment);
    comment.replace("\r\n", "\n");
    txtComments_->setPlainText(comment);
    lblDataSet_->setText(Q(tpl_->DataSetName));
    lblDateCreated_->setText(Q(TemplateDateText(tpl_->DateCreated)));
    lblDateModified_->setText(Q(TemplateDateText(tpl_->DateModified)));

    const char* heads[] = {"Site", "Dose", "NA", "PCinner", "PCouter", "X (um)", "Y (um)", "SlopeX", "X2nd", "X3rd",
                           "X4th", "SlopeY", "Y2nd", "Y3rd", "Y4th", "OffsetX", "OffsetY"};
    const int nc = static_cast<int>(std::size(heads));
    Datam d(tpl_->sites.Count(), nc - 1, 0, 0);
    for (int c = 0; c < nc; ++c) d(0, c) = Value(heads[c]);
    int r = 0;
    for (const cSiteCal* s : tpl_->sites) {
        ++r;
        const float v[] = {s->Dose,   s->NA,   s->PCinner, s->PCouter, s->LocationX, s->LocationY,
                           s->SlopeX, s->X2nd, s->X3rd,    s->X4th,    s->SlopeY,    s->Y2nd,
                           s->Y3rd,   s->Y4th, s->OffsetX, s->OffsetY};
        d(r, 0) = Value(static_cast<int32_t>(s->Number));
        for (int c = 1; c < nc; ++c) d(r, c) = Value(static_cast<double>(v[c - 1]));
    }
    FillGrid(tblTemplate_, d, CellText);
}

QRadioButton* frmAnalysis::optSelectLayout(int index) const {
    return qobject_cast<QRadioButton*>(optSelectLayout_->button(index));
}

int frmAnalysis::matchMode() const { return std::max(0, optSelectLayout_->checkedId()); }

void frmAnalysis::setMatchMode(int mode) {
    if (QAbstractButton* b = optSelectLayout_->button(mode)) b->setChecked(true);
}

cTemplateLibrary* frmAnalysis::conversionLibrary(std::unique_ptr<cTemplateLibrary>& own) {
    if (matchMode() != static_cast<int>(SiteMatch::UserSelected)) return lib_;
    std::vector<int> rows;
    for (const QModelIndex& i : tblTemplate_->selectionModel()->selectedRows()) rows.push_back(i.row());
    std::sort(rows.begin(), rows.end());
    if (rows.empty()) return nullptr;
    // The copy never reaches a file: its library has no folder of its own use.
    auto copy = tpl_->clone();
    copy->sites.Clear();
    int r = 0, k = 0;
    for (const cSiteCal* s : tpl_->sites) {
        if (k < static_cast<int>(rows.size()) && rows[static_cast<size_t>(k)] == r) {
            auto site = std::make_unique<cSiteCal>(*s);
            copy->AddSite(std::move(site));
            ++k;
        }
        ++r;
    }
    own = std::make_unique<cTemplateLibrary>(lib_->Folder());
    own->AddTemplate(copy, tpl_->NameTemplate);
    return own.get();
}

// ---------------------------------------------------------------- analyses

bool frmAnalysis::cmdAnalysis() {
    Proc p("frmAnaly(PSFMmetro2Focus): ");
    if (!lot_) {
        Report(p.fail("No lot loaded. Open a data workbook first."));
        return false;
    }
    if (!tpl_) {
        p.chk = 1;
        Report(p.fail("A Calibration template does not exist."));
        return false;
    }
    FocusAnalysisControls c;
    p.chk = 2;
    for (auto [box, v] : {std::pair{txtRange_, &c.range}, std::pair{txtSigma_, &c.sigma}}) {
        const std::string t = Trim(S(box->text()));
        if (!t.empty() && (!ParseNumber(t, *v) || !std::isfinite(*v))) {
            Report(p.fail("Cull range and sigma must be numbers: " + t));
            return false;
        }
    }
    ConvertOptions& o = c.convertOptions;
    o.templateName = tpl_->NameTemplate;
    o.mode = static_cast<SiteMatch>(matchMode());
    o.noDose = chkNoDose_->isChecked(), o.noNA = chkNoNA_->isChecked();
    o.noPCi = chkNoPCi_->isChecked(), o.noPCo = chkNoPCo_->isChecked();
    o.continueMissing = [](const std::string& q) {
        SetStatusText("Analysis Warning!");
        std::string title = "cLot(ConvertLot): ";
        title.append(VersionString());
        return MsgBox(q, vbYesNo + vbQuestion, title) == vbYes;
    };
    std::unique_ptr<cTemplateLibrary> own;
    cTemplateLibrary* lib = conversionLibrary(own);
    if (!lib) {
        p.chk = 3;
        Report(p.fail("Select the template sites to use in the Template Grid."));
        return false;
    }

    const BusyPointer busy;
    SetStatusText("Lot conversion to focus...");
    // The program's lot keeps its values and culls: the conversion culls a copy.
    auto work = lot_->clone(true);
    auto r = PSFMmetro2Focus(*work, *lib, c, wb_.get());
    if (!r) {
        Report(r.failure());
        SetStatusText("Ready");
        return false;
    }
    if (r->answeredNo) {
        SetStatusText("Conversion stopped.");
        return false;
    }
    result_ = std::move(*r);
    aber_.reset();
    rowCol_.reset();
    updateLotLabel();
    enableCommands();
    meanField_ = MeanFieldLot(*result_->lot, "", eRaw);
    vectorField_ = MeanFieldLot(*result_->lot, "", eRaw);
    if (vectorField_) CentreVectors(*vectorField_);
    if (cmbPlotType_->currentIndex() == kAstig) {
        filling_ = true;
        cmbPlotType_->setCurrentIndex(kVector);
        filling_ = false;
    }
    drawPlot();
    SetStatusText("Ready");
    return true;
}

bool frmAnalysis::cmdCullAnalysis() {
    Proc p("PSFManalysis(AstigmaticAnalysis): ");
    if (!lot_) {
        Report(p.fail("No lot loaded. Open a data workbook first."));
        return false;
    }
    double range = 0, sigma = 0;
    ParseNumber(Trim(S(txtRange_->text())), range);
    ParseNumber(Trim(S(txtSigma_->text())), sigma);
    if (!std::isfinite(range)) range = 0;
    if (!std::isfinite(sigma)) sigma = 0;
    const BusyPointer busy;
    // The counts a cull would take, on a copy: the lot itself stays whole.
    auto work = lot_->clone(true);
    const FocusCullCounts culls = FocusRangeCull(*work, range, sigma, true);
    auto whole = lot_->clone(true);
    auto r = AstigmaticAnalysis(*whole, std::fabs(range), std::fabs(sigma), culls);
    if (!r) {
        Report(r.failure());
        return false;
    }
    astig_ = std::move(*r);
    filling_ = true;
    cmbAberrationTable_->setCurrentIndex(kAstigStats);
    cmbPlotType_->setCurrentIndex(kAstig);
    filling_ = false;
    showAberrationTable();
    tabs_->setCurrentIndex(2);
    drawPlot();
    SetStatusText("Ready");
    return true;
}

bool frmAnalysis::cmdModelFocus() {
    Proc p("frmAnalysis(ModelFocusAberrations): ");
    if (!result_ || !result_->lot) {
        Report(p.fail("Please convert the lot to focus first."));
        return false;
    }
    FocusAberrationControls c;
    c.waferModel = chkWaferModel_->isChecked();
    c.waferTerms = txtWaferTerms_->value();
    c.removeV = chkRemoveV_->isChecked(), c.removeH = chkRemoveH_->isChecked();
    c.piston = chkPiston_->isChecked(), c.tilt = chkTilt_->isChecked(), c.curvature = chkCurvature_->isChecked();
    const BusyPointer busy;
    // The removal works on a copy, so that a second model starts from the
    // converted focus again.
    auto work = result_->lot->clone(true);
    auto r = ModelFocusAberrations(*work, c, wb_.get());
    if (!r) {
        Report(r.failure());
        SetStatusText("Ready");
        return false;
    }
    auto rc = CalculateFieldTiltCurvature(*work, 0, wb_.get());
    if (!rc) {
        Report(rc.failure());
        SetStatusText("Ready");
        return false;
    }
    aber_ = std::move(*r);
    rowCol_ = std::move(*rc);
    if (cmbAberrationTable_->currentIndex() == kAstigStats || cmbAberrationTable_->currentIndex() == kWafer) {
        filling_ = true;
        cmbAberrationTable_->setCurrentIndex(kMeanModel);
        filling_ = false;
    }
    showAberrationTable();
    tabs_->setCurrentIndex(2);
    SetStatusText("Ready");
    return true;
}

void frmAnalysis::showAberrationTable() {
    Datam d;
    const int k = cmbAberrationTable_->currentIndex();
    if (aber_) {
        if (k == kXModel) d = aber_->xModel;
        if (k == kYModel) d = aber_->yModel;
        if (k == kMeanModel) d = aber_->meanModel;
        if (k == kWafer) d = aber_->waferReport;
    }
    if (rowCol_) {
        if (k == kRows) d = rowCol_->rows;
        if (k == kColumns) d = rowCol_->columns;
    }
    if (astig_ && k == kAstigStats) d = astig_->stats;
    FillGrid(tblAberrations_, d, CellText);
}

// ---------------------------------------------------------------- plots

bool frmAnalysis::drawPlot() {
    if (filling_) return false;
    pctAberrations_->setGraphic(nullptr);
    *chart_ = cGraphic();
    cGraphic& g = *chart_;
    const int type = cmbPlotType_->currentIndex();
    Status st = StatusOk();
    if (type == kAstig) {
        if (!astig_) return false;
        st = g.RegisterData(astig_->points);
        g.Kind = GraphKind::Histogram;
        g.HistoXcol = 1;
        g.Axes.Add("X").Label = "Astigmatism (H - V)";
        g.TitleObj.TitleString = astig_->title + astig_->histogramText;
        g.Stats.Title = "Astigmatism";
        g.Stats.RegisterArray(astig_->stats);
    } else {
        if (!result_ || !result_->lot || !meanField_) return false;
        const std::string lotName = result_->lot->LotName;
        if (type == kVector) {
            g.Kind = GraphKind::FieldVector;
            vectorField_->PlotFeature(0);
            g.TitleObj.TitleString = lotName + ": mean field focus less its mean (X slit, Y scan)";
            st = g.LotData(vectorField_);
        } else if (type == kContour) {
            const std::string names[] = {meanField_->valueZ_Name, meanField_->ValueV_Name, meanField_->ValueH_Name};
            const std::string& feature = names[std::clamp(cmbPlotFeature_->currentIndex(), 0, 2)];
            g.Kind = GraphKind::FieldContour;
            g.PLotDataType = eFitted;
            const int f = std::max(0, meanField_->GetPlotFeature(feature));
            meanField_->PlotFeature(f);
            g.TitleObj.TitleString = lotName + ": mean field " + meanField_->GetPlotFeatureName(f) + " focus";
            st = g.LotData(meanField_);
        } else {
            // Focus across the field: the mean over the sites at each X.
            const FieldPoints pts = GatherFieldPoints(*result_->lot);
            std::map<double, std::array<double, 4>> at;  // sums of V, H, Z and the count
            for (size_t i = 0; i < pts.size(); ++i) {
                auto& s = at[pts.x[i]];
                s[0] += pts.dX[i], s[1] += pts.dY[i], s[2] += pts.dZ[i], s[3] += 1;
            }
            Datam t(static_cast<int>(at.size()), 4, 0, 1);
            const char* heads[] = {"X (mm)", "Slit", "Scan", "Mean"};
            for (int c = 0; c < 4; ++c) t(0, c + 1) = Value(heads[c]);
            int r = 0;
            for (const auto& [x, s] : at) {
                ++r;
                t(r, 1) = Value(x);
                for (int c = 0; c < 3; ++c) t(r, c + 2) = Value(s[static_cast<size_t>(c)] / s[3]);
            }
            st = g.RegisterData(t);
            g.TitleObj.TitleString = lotName + ": focus across the field";
            g.Axes.Add("X").Label = "Field X (mm)";
            cAxis& ay = g.Axes.Add("Y");
            ay.Label = "Focus (um)";
            ay.TickFormat = "####0.000";
            const Color colors[] = {RGB(0, 0, 255), RGB(200, 0, 0), RGB(0, 140, 0)};
            const SymbolShape shapes[] = {SymbolShape::FilledCircle, SymbolShape::FilledSquare, SymbolShape::Diamond};
            for (int k = 0; k < 3; ++k) {
                cSeries& s = g.Series.Add(heads[k + 1]);
                s.Xcol = 1, s.Ycol = k + 2;
                s.ColorFore = colors[k];
                s.Symbol = shapes[k];
            }
        }
    }
    g.TitleObj.Font.size = 9;
    if (!st) {
        Report(st.failure());
        return false;
    }
    pctAberrations_->setGraphic(&g);
    plotStack_->setCurrentWidget(pctAberrations_);
    pctAberrations_->invalidate();
    return true;
}

}  // namespace zorv::ui
