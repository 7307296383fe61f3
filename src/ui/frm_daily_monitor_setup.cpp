#include "ui/frm_daily_monitor_setup.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTabWidget>
#include <QTableWidget>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <cmath>
#include <filesystem>
#include <set>

#include "app/settings.h"
#include "base/identity.h"
#include "base/report.h"
#include "base/text.h"
#include "calib/template_library.h"
#include "import/import.h"
#include "layout/fp_data.h"
#include "lot/lot.h"
#include "model/model.h"
#include "model/model_sets.h"
#include "monitor/dm_options.h"
#include "monitor/dm_run.h"
#include "ui/qtext.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

namespace zorv::ui {

namespace fs = std::filesystem;

namespace {

frmDailyMonitorSetup::FileAsker& fileAsker() {
    static frmDailyMonitorSetup::FileAsker a;
    return a;
}

const char kSetupError[] = "Daily Monitor Setup error.";
const char kAcquisitionError[] = "Template Acquisition error.";
const char kWorkbookFilter[] =
    "Zorv Template or Workbook (*.xlt *.xltx *.xls *.xlsx *.XLT *.XLTX *.XLS *.XLSX)";

// The raw statistics a template can show and trend.
const char* const kRawStats[] = {"Count",  "Wafers", "Fields",     "Sites",   "IFD",
                                 "IFDxyMax", "Mean", "Median",     "SEM",     "StDev",
                                 "Maximum", "Minimum", "Range",    "Mean3Sigma", "MinMax",
                                 "Piston", "Tilt (um/cm)", "Tilt (urad)", "Astigmatism", "Curvature",
                                 "IFD Residuals"};
// The field model's own rows ahead of its terms.
const char* const kFieldStats[] = {"Piston",    "X Tilt(urad)", "Y Tilt(urad)",
                                   "Astigmatism", "Curvature",  "IFD Residuals"};
const char* const kConversions[] = {"All Sites", "Center", "Center Column", "Center Row", "User Selected",
                                    "(None)"};
const char* const kComponents[] = {"(NONE)", "Mean Field", "Reticle Field"};
const char* const kAxisNames[] = {"All (X, Y and Mean)", "X (Slit) Axis", "Y (Scan) Axis", "Mean Axis"};

template <class... T>
std::string Cat(const T&... parts) {
    std::string s;
    (s.append(parts), ...);
    return s;
}

QPushButton* Button(const QString& text, const char* name, const QString& tip = {}) {
    auto* b = new QPushButton(text);
    b->setObjectName(name);
    if (!tip.isEmpty()) b->setToolTip(tip);
    return b;
}

template <class W>
W* Named(W* w, const char* name) {
    w->setObjectName(name);
    return w;
}

QLineEdit* NumberEdit(const char* name) {
    auto* e = Named(new QLineEdit, name);
    e->setMaximumWidth(110);
    return e;
}


QString Num(double v) { return QString::number(v, 'g', 7); }

bool IsWorkbookName(const std::string& name) {
    for (const char* e : {".xlt", ".xltx", ".xls", ".xlsx"})
        if (IEndsWith(name, e)) return true;
    return false;
}
bool IsTemplateName(const std::string& name) { return IEndsWith(name, ".xlt") || IEndsWith(name, ".xltx"); }

std::string CellText(const Value& v) { return v.isError() ? std::string() : v.toString(); }
std::string FileOfPath(const std::string& p) { return S(QFileInfo(Q(p)).fileName()); }
// A header value as a number; a flag cell reads as 1 or 0.
int CellIndex(const Value& v) {
    return IsNumericValue(v) && !v.isEmpty() ? static_cast<int>(std::lround(v.toDouble())) : -1;
}

int StateCol(QTreeWidgetItem* it, int col) { return it->checkState(col) == Qt::Checked; }

}  // namespace

// ---------------------------------------------------------------- options

const std::vector<std::string>& frmDailyMonitorSetup::AnalysisCaptions() {
    static const std::vector<std::string> c = {"Focus/Expo", "Fixed Focus", "Raw Metrology", "Tool Monitor"};
    return c;
}

const std::vector<std::string>& frmDailyMonitorSetup::PWCaptions() {
    static const std::vector<std::string> c = {"(None)", "Process Window", "Focus Response", "Dose Response",
                                               "Dose at Best Focus"};
    return c;
}

std::string frmDailyMonitorSetup::PWKindOfCaption(const std::string& caption) {
    const std::string up = Upper(caption);
    if (up.find("BEST") != std::string::npos) return "DoseBF";
    if (up.find("DOSE") != std::string::npos) return "Dose";
    if (up.find("FOCUS") != std::string::npos) return "Focus";
    return "PW";
}

void frmDailyMonitorSetup::setFileAsker(FileAsker asker) { fileAsker() = std::move(asker); }

// ----------------------------------------------------------------- layout

frmDailyMonitorSetup::frmDailyMonitorSetup(QWidget* parent)
    : ZorvForm("frmDailyMonitorSetup", "Zorv DM Setup", parent) {
    setMinimumSize(640, 420);
    resize(820, 600);
    contentLayout()->addWidget(buildSource());
    tabs_ = Named(new QTabWidget, "tabSetup");
    tabs_->addTab(buildAnalysis(), tr("Analysis"));
    tabs_->addTab(buildConversion(), tr("Conversion"));
    tabs_->addTab(buildComponent(), tr("Component"));
    tabs_->addTab(buildModels(), tr("Models"));
    tabs_->addTab(buildProcessWindow(), tr("Process Window"));
    tabs_->addTab(buildStatistics(), tr("Statistics"));
    tabs_->addTab(buildFeatures(), tr("Features"));
    tabs_->addTab(buildAxes(), tr("Axes"));
    tabs_->addTab(buildSummary(), tr("Summary"));
    contentLayout()->addWidget(tabs_, 1);

    auto* bottom = new QHBoxLayout;
    lblSourceKind_ = Named(new QLabel, "lblSourceKind");
    lblSourceKind_->setStyleSheet("color: #555;");
    bottom->addWidget(lblSourceKind_, 1);
    cmdSaveTemplate_ = Button(tr("Save Template"), "cmdSaveTemplate", tr("Write the setup and save the template"));
    bottom->addWidget(cmdSaveTemplate_);
    auto* close = Button(tr("Close"), "cmdClose");
    bottom->addWidget(close);
    contentLayout()->addLayout(bottom);

    fillModelLists();
    showSetup(loaded_);
    connect(cmdSaveTemplate_, &QPushButton::clicked, this, [this] { cmdSaveTemplate(); });
    connect(close, &QPushButton::clicked, this, [this] { Unload(); });
    connect(tabs_, &QTabWidget::currentChanged, this, [this](int i) {
        if (i == kSummary) updateSummary();
    });
}

frmDailyMonitorSetup::~frmDailyMonitorSetup() { takeSource(nullptr); }

WindowPlace frmDailyMonitorSetup::place() const { return {"Setup", ""}; }

void frmDailyMonitorSetup::formLoad() { LoadFolders(); }

QWidget* frmDailyMonitorSetup::buildSource() {
    auto* box = new QGroupBox(tr("Template"));
    auto* g = new QGridLayout(box);
    g->addWidget(new QLabel(tr("Source:")), 0, 0);
    txtTemplateSource_ = Named(new QLineEdit, "txtTemplateSource");
    txtTemplateSource_->setReadOnly(true);
    txtTemplateSource_->setPlaceholderText(tr("a template (.xlt) or a data workbook (.xls)"));
    g->addWidget(txtTemplateSource_, 0, 1, 1, 3);
    cmdOpenTemplate_ = Button(tr("Open..."), "cmdOpenTemplate", tr("Choose a template or a data workbook"));
    g->addWidget(cmdOpenTemplate_, 0, 4);
    g->addWidget(new QLabel(tr("Save as:")), 1, 0);
    txtTemplateName_ = Named(new QLineEdit, "txtTemplateName");
    txtTemplateName_->setPlaceholderText(tr("template name (.xlt)"));
    g->addWidget(txtTemplateName_, 1, 1);
    g->addWidget(new QLabel(tr("in:")), 1, 2);
    txtTemplateFolder_ = Named(new QLineEdit, "txtTemplateFolder");
    txtTemplateFolder_->setToolTip("The default Template Folder:");
    g->addWidget(txtTemplateFolder_, 1, 3);
    auto* browse = Button(tr("Browse..."), "cmdBrowseTemplateFolder");
    g->addWidget(browse, 1, 4);
    g->addWidget(new QLabel(tr("Data folder:")), 2, 0);
    txtDataFolder_ = Named(new QLineEdit, "txtDataFolder");
    txtDataFolder_->setToolTip("The default Data Folder:");
    g->addWidget(txtDataFolder_, 2, 1, 1, 3);
    auto* browseData = Button(tr("Browse..."), "cmdBrowseDataFolder");
    g->addWidget(browseData, 2, 4);
    g->setColumnStretch(1, 2);
    g->setColumnStretch(3, 3);
    connect(cmdOpenTemplate_, &QPushButton::clicked, this, [this] { cmdOpenTemplate(); });
    for (auto [button, edit] : {std::pair{browse, txtTemplateFolder_}, std::pair{browseData, txtDataFolder_}}) {
        QLineEdit* target = edit;
        connect(button, &QPushButton::clicked, this, [this, target] {
            const QString f = askFile(tr("Folder"), {}, target->text());
            if (!f.isEmpty()) target->setText(QDir::toNativeSeparators(f));
        });
    }
    return box;
}

QWidget* frmDailyMonitorSetup::buildAnalysis() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* kind = new QGroupBox(tr("Analysis"));
    auto* f = new QFormLayout(kind);
    cmbAnalysisType_ = Named(new QComboBox, "cmbAnalysisType");
    for (const std::string& c : AnalysisCaptions()) cmbAnalysisType_->addItem(Q(c));
    f->addRow(tr("Analysis type:"), cmbAnalysisType_);
    cmbDataImport_ = Named(new QComboBox, "cmbDataImport");
    cmbDataImport_->addItem(tr("(detected from the file)"));
    const Datam& formats = FormatTable();
    for (int r = 1; r <= formats.rowUb(); ++r) cmbDataImport_->addItem(Q(formats(r, 0).toString()));
    f->addRow(tr("Data import:"), cmbDataImport_);
    chkStatistics_ = Named(new QCheckBox(tr("Calculate statistics")), "chkStatistics");
    chkCombineWafers_ = Named(new QCheckBox(tr("Combine the wafers of a lot (one trend row per run)")),
                              "chkCombineWafers");
    chkModelData_ = Named(new QCheckBox(tr("Keep the modeled data")), "chkModelData");
    f->addRow(chkStatistics_);
    f->addRow(chkCombineWafers_);
    f->addRow(chkModelData_);
    v->addWidget(kind);

    auto* cull = new QGroupBox(tr("Data limits"));
    auto* g = new QGridLayout(cull);
    txtFocusMax_ = NumberEdit("txtFocusMax");
    txtFocusMin_ = NumberEdit("txtFocusMin");
    txtRangeCull_ = NumberEdit("txtRangeCull");
    txtSigmaCull_ = NumberEdit("txtSigmaCull");
    txtAstigCull_ = NumberEdit("txtAstigCull");
    g->addWidget(new QLabel(tr("Focus max:")), 0, 0);
    g->addWidget(txtFocusMax_, 0, 1);
    g->addWidget(new QLabel(tr("Focus min:")), 0, 2);
    g->addWidget(txtFocusMin_, 0, 3);
    g->addWidget(new QLabel(tr("Range cull:")), 1, 0);
    g->addWidget(txtRangeCull_, 1, 1);
    g->addWidget(new QLabel(tr("Sigma cull:")), 1, 2);
    g->addWidget(txtSigmaCull_, 1, 3);
    g->addWidget(new QLabel(tr("Astigmatism cull:")), 1, 4);
    g->addWidget(txtAstigCull_, 1, 5);
    auto* hint = new QLabel(tr("A cull of 0 culls nothing."));
    hint->setStyleSheet("color: #555;");
    g->addWidget(hint, 2, 0, 1, 6);
    g->setColumnStretch(6, 1);
    v->addWidget(cull);

    auto* about = new QGroupBox(tr("Template"));
    auto* af = new QFormLayout(about);
    txtComments_ = Named(new QLineEdit, "txtComments");
    af->addRow(tr("Comments:"), txtComments_);
    txtPassword_ = Named(new QLineEdit, "txtPassword");
    txtPassword_->setEchoMode(QLineEdit::Password);
    txtPassword_->setPlaceholderText(tr("none"));
    af->addRow(tr("Password:"), txtPassword_);
    v->addWidget(about);
    v->addStretch(1);

    connect(cmbAnalysisType_, &QComboBox::currentIndexChanged, this, [this](int i) {
        if (filling_) return;
        SaveSetting(kDMSettingsApp, "Setup", "AnalysisType", std::to_string(i));
        updateEnabled();
    });
    return page;
}

QWidget* frmDailyMonitorSetup::buildConversion() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* box = new QGroupBox(tr("Focus conversion (Fixed Focus)"));
    auto* f = new QFormLayout(box);
    cmbFocusTemplate_ = Named(new QComboBox, "cmbFocusTemplate");
    cmbFocusTemplate_->setEditable(true);
    cmbFocusTemplate_->setInsertPolicy(QComboBox::NoInsert);
    cmbFocusTemplate_->setMinimumContentsLength(24);
    f->addRow(tr("Focus template:"), cmbFocusTemplate_);
    cmbConversionMethod_ = Named(new QComboBox, "cmbConversionMethod");
    for (const char* c : kConversions) cmbConversionMethod_->addItem(c);
    f->addRow(tr("Conversion method:"), cmbConversionMethod_);
    auto* hint = new QLabel(tr("The run converts the data to focus by the calibration template of this "
                               "name in the focus template library. \"None\" analyses the raw data."));
    hint->setWordWrap(true);
    hint->setStyleSheet("color: #555;");
    f->addRow(hint);
    v->addWidget(box);
    v->addStretch(1);
    fillFocusTemplates();
    return page;
}

QWidget* frmDailyMonitorSetup::buildComponent() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* ret = new QGroupBox(tr("Reticle"));
    auto* g = new QGridLayout(ret);
    chkRemoveReticle_ = Named(new QCheckBox(tr("Remove the reticle's own signature")), "chkRemoveReticle");
    g->addWidget(chkRemoveReticle_, 0, 0, 1, 3);
    g->addWidget(new QLabel(tr("Reticle workbook:")), 1, 0);
    txtReticleName_ = Named(new QLineEdit, "txtReticleName");
    g->addWidget(txtReticleName_, 1, 1);
    auto* browse = Button(tr("Browse..."), "cmdBrowseReticle");
    g->addWidget(browse, 1, 2);
    g->addWidget(new QLabel(tr("Reticle folder:")), 2, 0);
    txtReticleFolder_ = Named(new QLineEdit, "txtReticleFolder");
    txtReticleFolder_->setToolTip("The default Reticle Folder:");
    g->addWidget(txtReticleFolder_, 2, 1, 1, 2);
    g->setColumnStretch(1, 1);
    v->addWidget(ret);
    auto* comp = new QGroupBox(tr("Field component"));
    auto* cf = new QFormLayout(comp);
    chkRemoveComponent_ = Named(new QCheckBox(tr("Remove a component of the field")), "chkRemoveComponent");
    cf->addRow(chkRemoveComponent_);
    cmbComponentRemoval_ = Named(new QComboBox, "cmbComponentRemoval");
    for (const char* c : kComponents) cmbComponentRemoval_->addItem(c);
    cf->addRow(tr("Component:"), cmbComponentRemoval_);
    v->addWidget(comp);
    v->addStretch(1);
    connect(browse, &QPushButton::clicked, this, [this] {
        const QString f = askFile(tr("Reticle workbook"), kWorkbookFilter, txtReticleFolder_->text());
        if (f.isEmpty()) return;
        const QFileInfo fi(f);
        txtReticleName_->setText(fi.fileName());
        txtReticleFolder_->setText(QDir::toNativeSeparators(fi.absolutePath()));
        chkRemoveReticle_->setChecked(true);
    });
    connect(chkRemoveReticle_, &QCheckBox::toggled, this, [this] { updateEnabled(); });
    connect(chkRemoveComponent_, &QCheckBox::toggled, this, [this] { updateEnabled(); });
    return page;
}

QWidget* frmDailyMonitorSetup::buildModels() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* wafer = new QGroupBox(tr("Wafer model"));
    auto* wf = new QFormLayout(wafer);
    chkDoWaferModel_ = Named(new QCheckBox(tr("Model each wafer")), "chkDoWaferModel");
    wf->addRow(chkDoWaferModel_);
    cmbWaferTerms_ = Named(new QComboBox, "cmbWaferTerms");
    cmbWaferTerms_->setMinimumContentsLength(20);
    wf->addRow(tr("Wafer terms:"), cmbWaferTerms_);
    v->addWidget(wafer);
    auto* field = new QGroupBox(tr("Field model"));
    auto* ff = new QFormLayout(field);
    cmbFieldModel_ = Named(new QComboBox, "cmbFieldModel");
    cmbFieldModel_->setMinimumContentsLength(20);
    ff->addRow(tr("Field model:"), cmbFieldModel_);
    v->addWidget(field);
    auto* hint = new QLabel(tr("The statistics of a model are chosen on the Statistics tab."));
    hint->setStyleSheet("color: #555;");
    v->addWidget(hint);
    v->addStretch(1);
    connect(chkDoWaferModel_, &QCheckBox::toggled, this, [this] { updateEnabled(); });
    // A new model brings its terms into the statistics.
    connect(chkDoWaferModel_, &QCheckBox::toggled, this, [this](bool on) {
        if (!filling_ && on && grpWafer_->childCount() == 0) fillModelTerms(false);
    });
    connect(cmbWaferTerms_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_) fillModelTerms(false);
    });
    connect(cmbFieldModel_, &QComboBox::currentIndexChanged, this, [this] {
        if (!filling_) fillModelTerms(true);
    });
    return page;
}

void frmDailyMonitorSetup::fillModelTerms(bool field) {
    std::vector<DMStatRow> rows;
    if (field)
        for (const char* n : kFieldStats) rows.push_back({n, true, false});
    const cModelLib& lib = field ? static_cast<const cModelLib&>(FieldModelLibrary())
                                 : static_cast<const cModelLib&>(WaferModelLibrary());
    if (const cModelSet* set = lib.Find(S((field ? cmbFieldModel_ : cmbWaferTerms_)->currentText()))) {
        std::set<std::string> seen;
        for (const DMStatRow& r : rows) seen.insert(r.name);
        for (int m = 1; m <= set->models.Count(); ++m)
            if (const Cmodel* model = set->models.Item(m))
                for (int c = 1; c <= model->Coefficients.Count(); ++c)
                    if (const cCoefficient* k = model->Coefficients.Item(c); k && seen.insert(k->NameCoef).second)
                        rows.push_back({k->NameCoef, true, false});
    }
    if (!field) rows.push_back({"MSE", true, false});
    showStatGroup(field ? grpField_ : grpWafer_, rows);
    updateEnabled();
}

QWidget* frmDailyMonitorSetup::buildProcessWindow() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* box = new QGroupBox(tr("Process window"));
    auto* f = new QFormLayout(box);
    cmbPWanalysis_ = Named(new QComboBox, "cmbPWanalysis");
    for (const std::string& c : PWCaptions()) cmbPWanalysis_->addItem(Q(c));
    f->addRow(tr("Analysis:"), cmbPWanalysis_);
    auto* shapes = new QHBoxLayout;
    chkPWellipse_ = Named(new QCheckBox(tr("Ellipse")), "chkPWellipse");
    chkPWrectangle_ = Named(new QCheckBox(tr("Rectangle")), "chkPWrectangle");
    shapes->addWidget(chkPWellipse_);
    shapes->addWidget(chkPWrectangle_);
    shapes->addStretch(1);
    f->addRow(tr("Window shapes:"), shapes);
    txtPWsites_ = Named(new QLineEdit, "txtPWsites");
    txtPWsites_->setPlaceholderText(tr("All Sites"));
    f->addRow(tr("Sites:"), txtPWsites_);
    txtPWprecision_ = NumberEdit("txtPWprecision");
    f->addRow(tr("Precision:"), txtPWprecision_);
    chkPWshowLimits_ = Named(new QCheckBox("Show UCL/LCL limits"), "chkPWshowLimits");
    f->addRow(chkPWshowLimits_);
    auto* hint = new QLabel(tr("The statistics of the window are the variables of the source's report sheet "
                               "of this analysis (Statistics tab)."));
    hint->setWordWrap(true);
    hint->setStyleSheet("color: #555;");
    f->addRow(hint);
    v->addWidget(box);
    v->addStretch(1);
    connect(cmbPWanalysis_, &QComboBox::currentIndexChanged, this, [this] {
        if (filling_) return;
        if (cmbPWanalysis_->currentIndex() > 0) GetPWvariables();
        else showStatGroup(grpPW_, {});
        updateEnabled();
    });
    return page;
}

QWidget* frmDailyMonitorSetup::buildStatistics() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    tvwStatistics_ = Named(new QTreeWidget, "tvwStatistics");
    tvwStatistics_->setColumnCount(3);
    tvwStatistics_->setHeaderLabels({tr("Statistic"), tr("Display"), tr("Trend")});
    tvwStatistics_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    tvwStatistics_->header()->setStretchLastSection(false);
    tvwStatistics_->setColumnWidth(1, 80);
    tvwStatistics_->setColumnWidth(2, 80);
    tvwStatistics_->setAlternatingRowColors(true);
    auto group = [this](const QString& name) {
        auto* g = new QTreeWidgetItem(tvwStatistics_, {name});
        QFont bold = g->font(0);
        bold.setBold(true);
        g->setFont(0, bold);
        g->setFlags(Qt::ItemIsEnabled);
        g->setExpanded(true);
        return g;
    };
    grpRaw_ = group("Raw Statistics");
    grpWafer_ = group("Wafer Model");
    grpField_ = group("Field Model");
    grpPW_ = group("Process Window");
    v->addWidget(tvwStatistics_, 1);
    auto* hint = new QLabel(tr("Display: the statistic is listed in the results. Trend: each run adds it to the "
                               "feature's trend chart."));
    hint->setWordWrap(true);
    hint->setStyleSheet("color: #555;");
    v->addWidget(hint);
    connect(tvwStatistics_, &QTreeWidget::itemChanged, this, [this] {
        if (!filling_) updateSummary();
    });
    return page;
}

QWidget* frmDailyMonitorSetup::buildFeatures() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    tblFeatures_ = Named(new QTableWidget(0, 5), "tblFeatures");
    tblFeatures_->setHorizontalHeaderLabels({tr("Analyze"), tr("Name"), tr("Target"), tr("Max"), tr("Min")});
    tblFeatures_->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Stretch);
    tblFeatures_->verticalHeader()->setVisible(false);
    tblFeatures_->setColumnWidth(0, 70);
    v->addWidget(tblFeatures_, 1);
    auto* hint = new QLabel(tr("Target and limits are drawn on the feature's trend charts."));
    hint->setStyleSheet("color: #555;");
    v->addWidget(hint);
    return page;
}

QWidget* frmDailyMonitorSetup::buildAxes() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    tblAxes_ = Named(new QTableWidget(0, 2), "tblAxes");
    tblAxes_->setHorizontalHeaderLabels({tr("Axis"), tr("Display")});
    tblAxes_->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    tblAxes_->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Stretch);
    tblAxes_->verticalHeader()->setVisible(false);
    v->addWidget(tblAxes_, 1);
    auto* hint = new QLabel(tr("\"All (X, Y and Mean)\" keeps every feature column in the statistics."));
    hint->setStyleSheet("color: #555;");
    v->addWidget(hint);
    return page;
}

QWidget* frmDailyMonitorSetup::buildSummary() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    v->addWidget(new QLabel(tr("Summary (the template's \"Comments\" property):")));
    txtSummary_ = Named(new QPlainTextEdit, "txtSummary");
    txtSummary_->setReadOnly(true);
    txtSummary_->setMaximumHeight(120);
    v->addWidget(txtSummary_);
    v->addWidget(new QLabel(tr("Save log:")));
    txtLog_ = Named(new QPlainTextEdit, "txtLog");
    txtLog_->setReadOnly(true);
    txtLog_->setLineWrapMode(QPlainTextEdit::NoWrap);
    v->addWidget(txtLog_, 1);
    return page;
}

QString frmDailyMonitorSetup::askFile(const QString& title, const QString& filter, const QString& start) {
    if (fileAsker()) return fileAsker()(title, filter, start);
    if (filter.isEmpty()) return QFileDialog::getExistingDirectory(this, title, start);
    return QFileDialog::getOpenFileName(this, title, start, filter);
}

void frmDailyMonitorSetup::fillModelLists() {
    if (Status st = LoadGlobalModelLibraries(); !st) SetStatusText(st.failure().text);
    cmbWaferTerms_->clear();
    for (int i = 1; i <= WaferModelLibrary().Count(); ++i)
        if (const cModelSet* s = WaferModelLibrary().Item(i)) cmbWaferTerms_->addItem(Q(s->NameSet));
    cmbFieldModel_->clear();
    cmbFieldModel_->addItem("NO MODEL");
    for (int i = 1; i <= FieldModelLibrary().Count(); ++i)
        if (const cModelSet* s = FieldModelLibrary().Item(i)) cmbFieldModel_->addItem(Q(s->NameSet));
    cmbFieldModel_->addItem("Full Field");
}

void frmDailyMonitorSetup::fillFocusTemplates() {
    cmbFocusTemplate_->clear();
    cmbFocusTemplate_->addItem("None");
    cTemplateLibrary lib;
    if (lib.FileGet())
        for (const auto& t : lib.Templates())
            if (t && !t->NameTemplate.empty()) cmbFocusTemplate_->addItem(Q(t->NameTemplate));
}

// ---------------------------------------------------------------- folders

bool frmDailyMonitorSetup::LoadFolders() {
    const DMOptions o = LoadDMOptions();
    bool all = true;
    const struct {
        const char* label;
        std::string folder;
        QLineEdit* edit;
    } rows[] = {{"The default Template Folder:", o.templateFolder, txtTemplateFolder_},
                {"The default Data Folder:", o.dataFolder, txtDataFolder_},
                {"The default Reticle Folder:", o.reticleFolder, txtReticleFolder_}};
    for (const auto& r : rows) {
        std::string folder = r.folder;
        if (Status st = EnsureDMFolder(r.label, folder); !st) {
            all = false;
            folder = ProgramFolder();
            MsgBox(Cat(st.failure().text, std::string("\r\nResetting folder to: "), folder), vbExclamation,
                   kSetupError);
        }
        r.edit->setText(Q(folder));
    }
    filling_ = true;
    bool isIndex = false;
    const int kind = Q(GetSetting(kDMSettingsApp, "Setup", "AnalysisType", "2")).toInt(&isIndex);
    if (isIndex && kind >= 0 && kind < cmbAnalysisType_->count()) cmbAnalysisType_->setCurrentIndex(kind);
    filling_ = false;
    updateEnabled();
    return all;
}

// ------------------------------------------------------------------ source

QString frmDailyMonitorSetup::sourcePath() const { return source_ ? Q(source_->path()) : QString(); }

void frmDailyMonitorSetup::takeSource(std::shared_ptr<Workbook> wb) {
    if (source_ && source_ != wb) Workbooks::Close(source_);
    source_ = std::move(wb);
}

bool frmDailyMonitorSetup::cmdOpenTemplate() {
    QString start = txtTemplateSource_->text();
    if (start.isEmpty()) start = txtTemplateFolder_->text();
    const QString path = askFile(tr("Template or data workbook"), kWorkbookFilter, start);
    if (path.isEmpty()) return false;
    return OpenTemplate(path);
}

bool frmDailyMonitorSetup::OpenTemplate(const QString& qpath) {
    const std::string path = S(qpath.trimmed());
    const std::string name = FileOfPath(path);
    if (!IsWorkbookName(name)) {
        MsgBox(Cat(std::string("A Zorv workbook template ('filename.XLT') or an existing Zorv data workbook "
                               "('filename.XLS')  must be selected.\r\nCurrent selection was '"),
                   name, std::string("'")),
               vbExclamation, kSetupError);
        return false;
    }
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) {
        MsgBox("Excel workbook does not exist: " + path, vbExclamation, kSetupError);
        return false;
    }
    BusyPointer busy;
    SetStatusText("Opening " + name + " ...");
    // Opened apart from the list of open workbooks: a refused file is let go
    // untouched, and the window's copy is its own.
    Result<WorkbookPtr> wb = Workbook::open(path);
    if (!wb) {
        MsgBox(wb.failure().message(), vbExclamation, kAcquisitionError);
        return false;
    }
    const bool hasHeader = (*wb)->sheet(kTemplateSheet) != nullptr;
    if (IsTemplateName(name) || hasHeader) {
        Result<DMTemplate> tpl = ReadDMTemplate(wb->get());
        if (!tpl) {
            MsgBox(tpl.failure().message(), vbExclamation, kAcquisitionError);
            return false;
        }
        takeSource(*wb);
        txtTemplateSource_->setText(qpath);
        txtTemplateName_->setText(Q(name));
        // Saved again where it lives.
        txtTemplateFolder_->setText(QFileInfo(qpath).absolutePath());
        UpdateTemplateDisplay(*tpl);
        lblSourceKind_->setText(tr("Template: saving writes its setup again."));
        SetStatusText("Template loaded: " + name);
        return true;
    }
    // A data workbook: its features and layout, the defaults for the rest.
    // The lot is read through the list of open workbooks; a workbook another
    // window has open stays open there, and the template is made from a copy
    // of the window's own.
    const bool wasOpen = Workbooks::Find(path) != nullptr;
    LoadOptions options;
    options.quiet = true;
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
    const Status loadedLot = GetExcelWBLot(path, options, lot, &tables);
    if (tables.workbook && !wasOpen) Workbooks::Close(tables.workbook);
    if (!loadedLot || !lot) {
        if (!loadedLot && !loadedLot.failure().text.empty())
            MsgBox(loadedLot.failure().message(), vbExclamation, kAcquisitionError);
        return false;
    }
    // The run reads the exposure layout from the template.
    if (Status st = SaveFPdataFromLot(*lot, wb->get(), false); !st) {
        MsgBox(st.failure().message(), vbExclamation, kAcquisitionError);
        return false;
    }
    takeSource(*wb);
    DMSetup s;
    s.analysisType = {cmbAnalysisType_->currentIndex(), S(cmbAnalysisType_->currentText())};
    s.dataFolder = S(txtDataFolder_->text());
    for (const char* n : kRawStats) {
        const std::string stat = n;
        const bool level = stat == "Mean" || stat == "StDev" || stat == "Range" || stat == "Maximum" ||
                           stat == "Minimum" || stat == "Count";
        s.rawStats.push_back({stat, level, stat == "Mean"});
    }
    // The lot's first plotted feature is analysed unless the user picks others.
    const std::string first = lot->GetPlotFeatureName(ePlotFeatureV);
    const Datam types = lot->GetFeatureTypes();
    for (int r = 1; types.isArray() && r <= types.rowUb(); ++r) {
        const std::string fname = Trim(CellText(types(r, 2)));
        if (fname.empty()) continue;
        const int n = static_cast<int>(s.features.size()) + 1;
        s.features.push_back({"Feature_" + std::to_string(n), IEquals(fname, first), fname, 0, 0, 0});
    }
    for (const char* a : kAxisNames) s.axes.push_back({a, Value(std::string(a) != "All (X, Y and Mean)")});
    s.combineWafers = true;
    filling_ = true;
    showSetup(s);
    filling_ = false;
    loaded_ = s;
    txtTemplateSource_->setText(qpath);
    txtTemplateName_->setText(Q(DMTemplateFileName(name)));
    lblSourceKind_->setText(tr("Data workbook: saving makes a new template of it; the workbook stays as it is."));
    updateEnabled();
    SetStatusText("Data workbook loaded: " + name);
    return true;
}

// Header keys into a setup record, for the display.
bool frmDailyMonitorSetup::UpdateTemplateDisplay(const DMTemplate& tpl) {
    const DMTemplateTables& t = tpl.tables;
    const DMAnalysis& a = tpl.analysis;
    DMSetup s;
    // The header block by key: the choices keep their index and caption.
    auto row = [&](const char* key) {
        for (int r = 1; t.header.isArray() && r <= t.header.rowUb(); ++r)
            if (IEquals(Trim(CellText(t.header(r, 1))), key)) return r;
        return -1;
    };
    auto text = [&](const char* key, int col = 2) {
        const int r = row(key);
        return r > 0 ? Trim(CellText(t.header(r, col))) : std::string();
    };
    auto choice = [&](const char* key) {
        DMChoice c;
        const int r = row(key);
        if (r < 0) return c;
        c.index = CellIndex(t.header(r, 2));
        c.caption = Trim(CellText(t.header(r, 3)));
        return c;
    };
    s.templateName = text("Template");
    s.templateFolder = text("Folder");
    s.dataImport = text("DataImport");
    s.dataFolder = text("DataFolder");
    s.analysisType = {-1, a.caption};
    if (const int r = row("AnalysisType"); r > 0) s.analysisType.index = CellIndex(t.header(r, 2));
    if (!a.focusTemplate.empty()) s.focusTemplate = a.focusTemplate;
    if (!a.conversionMethod.empty()) s.conversionMethod = a.conversionMethod;
    s.modelData = a.modelData;
    s.removeReticle = a.removeReticle;
    s.reticleName = a.reticleName, s.reticlePath = a.reticlePath;
    s.removeComponent = a.removeComponent;
    s.componentRemoval = a.component;
    s.combineWafers = a.combineWafers;
    s.dieXArray = a.dieXArray, s.dieYArray = a.dieYArray;
    s.doWaferModel = a.doWaferModel;
    s.waferTerms = a.waferTerms;
    if (row("FieldModel") > 0) s.fieldModel = choice("FieldModel");
    s.statistics = a.statistics, s.graphic = a.graphic;
    s.pwAnalysis = a.pwAnalysis;
    s.pwEllipse = a.pwEllipse, s.pwRectangle = a.pwRectangle;
    s.pwModel = a.pwModel;
    s.graphicData = a.graphicData;
    s.waferFieldGraphic = a.waferFieldGraphic, s.graphicPlot = a.graphicPlot;
    s.graphicDataFormat = a.graphicDataFormat;
    s.comments = a.comments;
    s.focusMax = a.focusMax, s.focusMin = a.focusMin;
    s.password = a.password;
    // The setup's own cull keys; the run's spelling stands in for a hand-made template.
    auto num = [&](const char* key, const char* other, float dflt) {
        for (const char* k : {key, other})
            if (const int r = row(k); r > 0 && IsNumericValue(t.header(r, 2)) && !t.header(r, 2).isEmpty())
                return static_cast<float>(t.header(r, 2).toDouble());
        return dflt;
    };
    s.rangeCull = num("RangeCull:", "CullRange:", 0);
    s.sigmaCull = num("SigmaCull:", "CullSigma:", 0);
    s.astigCull = num("AstigCull:", "CullAstig:", 0);
    s.pwGraphData = a.pwGraphData, s.pwGraphType = a.pwGraphType, s.pwPwGraph = a.pwGraph;
    s.pwFeatureCull = a.pwFeatureCull;
    s.pwFeatureCullMax = a.pwFeatureCullMax, s.pwFeatureCullMin = a.pwFeatureCullMin;
    s.pwSites = a.pwSites;
    s.pwSiteID = a.pwSiteID;
    s.pwPrecision = a.pwPrecision;
    s.pwShowLimits = a.pwShowLimits;
    if (s.templateName.empty()) {
        MsgBox("Header Display update error.", vbExclamation, kAcquisitionError);
    }

    s.rawStats = t.raw.rows.empty() ? t.model.rows : t.raw.rows;
    s.waferModelStats = t.waferModel.rows;
    s.fieldModelStats = t.fieldModel.rows;
    s.processWindowStats = t.processWindow.rows;
    s.features = t.features;
    s.axes = t.axes;
    if (t.raw.head.empty() && t.model.head.empty())
        MsgBox("Raw Stats update Display Error.", vbExclamation, kAcquisitionError);
    else if (s.rawStats.empty())
        MsgBox("RawStatistics: statistics table is is empty", vbExclamation, kAcquisitionError);
    if (t.axesDefaulted) MsgBox("Caution: resave template. No axis display information present.", vbExclamation,
                                kAcquisitionError);
    filling_ = true;
    showSetup(s);
    if (!s.dataFolder.empty()) txtDataFolder_->setText(Q(s.dataFolder));
    filling_ = false;
    loaded_ = s;
    updateEnabled();
    return true;
}

// ---------------------------------------------------------------- display

void frmDailyMonitorSetup::selectChoice(QComboBox* box, const DMChoice& c) {
    int i = c.caption.empty() ? -1 : box->findText(Q(c.caption), Qt::MatchFixedString);
    if (i < 0 && !c.caption.empty()) {
        // A caption of another program version stays as it was written.
        box->addItem(Q(c.caption));
        i = box->count() - 1;
    }
    if (i < 0) i = 0;
    box->setCurrentIndex(i);
}

void frmDailyMonitorSetup::showSetup(const DMSetup& s) {
    const bool was = filling_;
    filling_ = true;
    // The analysis by the word in its caption.
    const std::string up = Upper(s.analysisType.caption);
    int kind = -1;
    const char* const words[] = {"FOCUS/EXPO", "FIXED FOCUS", "RAW METROLOGY", "TOOL MONITOR"};
    for (int i = 0; i < 4 && kind < 0; ++i)
        if (up.find(words[i]) != std::string::npos) kind = i;
    if (kind < 0 && !s.analysisType.caption.empty()) {
        selectChoice(cmbAnalysisType_, s.analysisType);
    } else if (kind >= 0) {
        cmbAnalysisType_->setCurrentIndex(kind);
    }
    const int imp = s.dataImport.empty() ? 0 : cmbDataImport_->findText(Q(s.dataImport));
    cmbDataImport_->setCurrentIndex(imp < 0 ? 0 : imp);
    chkStatistics_->setChecked(s.statistics);
    chkCombineWafers_->setChecked(s.combineWafers);
    chkModelData_->setChecked(s.modelData);
    txtFocusMax_->setText(Num(s.focusMax));
    txtFocusMin_->setText(Num(s.focusMin));
    txtRangeCull_->setText(Num(s.rangeCull));
    txtSigmaCull_->setText(Num(s.sigmaCull));
    txtAstigCull_->setText(Num(s.astigCull));
    txtComments_->setText(Q(s.comments));
    txtPassword_->setText(Q(s.password));
    selectChoice(cmbFocusTemplate_, {0, s.focusTemplate.empty() ? std::string("None") : s.focusTemplate});
    selectChoice(cmbConversionMethod_, {0, s.conversionMethod.empty() ? std::string("(None)") : s.conversionMethod});
    chkRemoveReticle_->setChecked(s.removeReticle);
    txtReticleName_->setText(Q(s.reticleName));
    if (!s.reticlePath.empty()) txtReticleFolder_->setText(Q(s.reticlePath));
    chkRemoveComponent_->setChecked(s.removeComponent);
    selectChoice(cmbComponentRemoval_, s.componentRemoval);
    chkDoWaferModel_->setChecked(s.doWaferModel);
    if (!s.waferTerms.empty()) selectChoice(cmbWaferTerms_, {0, s.waferTerms});
    selectChoice(cmbFieldModel_, s.fieldModel.caption.empty() ? DMChoice{0, "NO MODEL"} : s.fieldModel);
    const bool window = s.pwAnalysis.index >= 0 && !s.pwAnalysis.caption.empty();
    if (window) selectChoice(cmbPWanalysis_, s.pwAnalysis);
    else cmbPWanalysis_->setCurrentIndex(0);
    chkPWellipse_->setChecked(s.pwEllipse);
    chkPWrectangle_->setChecked(s.pwRectangle);
    txtPWsites_->setText(Q(s.pwSites));
    txtPWprecision_->setText(QString::number(s.pwPrecision));
    chkPWshowLimits_->setChecked(s.pwShowLimits);
    showStatGroup(grpRaw_, s.rawStats);
    showStatGroup(grpWafer_, s.waferModelStats);
    showStatGroup(grpField_, s.fieldModelStats);
    showStatGroup(grpPW_, s.processWindowStats);
    showFeatures(s.features);
    showAxes(s.axes);
    filling_ = was;
    updateSummary();
}

void frmDailyMonitorSetup::showStatGroup(QTreeWidgetItem* group, const std::vector<DMStatRow>& rows) {
    const bool was = filling_;
    filling_ = true;
    qDeleteAll(group->takeChildren());
    for (const DMStatRow& r : rows) {
        auto* it = new QTreeWidgetItem(group, {Q(r.name)});
        it->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable | Qt::ItemIsSelectable);
        it->setCheckState(1, r.display ? Qt::Checked : Qt::Unchecked);
        it->setCheckState(2, r.trend ? Qt::Checked : Qt::Unchecked);
    }
    group->setExpanded(true);
    filling_ = was;
}

std::vector<DMStatRow> frmDailyMonitorSetup::statGroup(QTreeWidgetItem* group) const {
    std::vector<DMStatRow> rows;
    for (int i = 0; i < group->childCount(); ++i) {
        QTreeWidgetItem* it = group->child(i);
        rows.push_back({S(it->text(0)), StateCol(it, 1) != 0, StateCol(it, 2) != 0});
    }
    return rows;
}

void frmDailyMonitorSetup::showFeatures(const std::vector<DMFeatureRow>& rows) {
    tblFeatures_->setRowCount(0);
    for (const DMFeatureRow& f : rows) {
        const int r = tblFeatures_->rowCount();
        tblFeatures_->insertRow(r);
        auto* on = new QTableWidgetItem;
        on->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable | Qt::ItemIsSelectable);
        on->setCheckState(f.analyze ? Qt::Checked : Qt::Unchecked);
        on->setData(Qt::UserRole, Q(f.key));
        tblFeatures_->setItem(r, 0, on);
        auto* name = new QTableWidgetItem(Q(f.name));
        name->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable);
        tblFeatures_->setItem(r, 1, name);
        tblFeatures_->setItem(r, 2, new QTableWidgetItem(Num(f.target)));
        tblFeatures_->setItem(r, 3, new QTableWidgetItem(Num(f.max)));
        tblFeatures_->setItem(r, 4, new QTableWidgetItem(Num(f.min)));
    }
}

void frmDailyMonitorSetup::showAxes(const std::vector<DMAxisRow>& rows) {
    tblAxes_->setRowCount(0);
    std::vector<DMAxisRow> shown = rows;
    if (shown.empty())
        for (const char* a : {"All (X, Y and Mean)", "X (Slit) Axis", "X (Slit)"})
            shown.push_back({a, Value(std::string(a) == "All (X, Y and Mean)")});
    for (const DMAxisRow& a : shown) {
        const int r = tblAxes_->rowCount();
        tblAxes_->insertRow(r);
        auto* name = new QTableWidgetItem(Q(a.name));
        name->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable);
        tblAxes_->setItem(r, 0, name);
        auto* shownItem = new QTableWidgetItem;
        if (a.display.isBool() || a.display.isEmpty()) {
            shownItem->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable | Qt::ItemIsSelectable);
            shownItem->setCheckState(a.display.isBool() && a.display.toBool() ? Qt::Checked : Qt::Unchecked);
        } else {
            // The chart captions of the last rows.
            shownItem->setText(Q(CellText(a.display)));
        }
        tblAxes_->setItem(r, 1, shownItem);
    }
}

void frmDailyMonitorSetup::updateEnabled() {
    const bool fixed = DMKindOfCaption(S(cmbAnalysisType_->currentText())) == DMKind::FixedFocus;
    tabs_->widget(kConversion)->setEnabled(fixed);
    // The process window runs on every kind but fixed focus.
    tabs_->widget(kProcessWindow)->setEnabled(!fixed);
    txtReticleName_->setEnabled(chkRemoveReticle_->isChecked());
    cmbComponentRemoval_->setEnabled(chkRemoveComponent_->isChecked());
    cmbWaferTerms_->setEnabled(chkDoWaferModel_->isChecked());
    grpWafer_->setHidden(!chkDoWaferModel_->isChecked());
    const QString field = cmbFieldModel_->currentText();
    grpField_->setHidden(field.isEmpty() || field.compare("NO MODEL", Qt::CaseInsensitive) == 0);
    grpPW_->setHidden(cmbPWanalysis_->currentIndex() <= 0);
    cmdSaveTemplate_->setEnabled(true);
    updateSummary();
}

void frmDailyMonitorSetup::updateSummary() {
    if (filling_ || !txtSummary_) return;
    DMSetup s = setup();
    txtSummary_->setPlainText(Q(DMTemplateSummary(s)));
}

// ------------------------------------------------------------------ setup

bool frmDailyMonitorSetup::readNumbers(DMSetup& s) const {
    struct Field {
        QLineEdit* edit;
        float* to;
        const char* what;
    } fields[] = {{txtFocusMax_, &s.focusMax, "Focus max"},     {txtFocusMin_, &s.focusMin, "Focus min"},
                  {txtRangeCull_, &s.rangeCull, "Range cull"},  {txtSigmaCull_, &s.sigmaCull, "Sigma cull"},
                  {txtAstigCull_, &s.astigCull, "Astigmatism cull"}};
    for (const Field& f : fields) {
        double v = 0;
        if (!ReadNumber(f.edit->text(), v)) {
            MsgBox(Cat(std::string(f.what), std::string(": '"), S(f.edit->text()),
                       std::string("' is not a number.")),
                   vbExclamation, kSetupError);
            return false;
        }
        *f.to = static_cast<float>(v);
    }
    double precision = 1;
    if (!ReadNumber(txtPWprecision_->text(), precision) || precision < 1) {
        MsgBox(Cat(std::string("Precision: '"), S(txtPWprecision_->text()), std::string("' is not a whole number of 1 or more.")),
               vbExclamation, kSetupError);
        return false;
    }
    s.pwPrecision = static_cast<int>(precision);
    for (int r = 0; r < tblFeatures_->rowCount(); ++r) {
        DMFeatureRow& f = s.features[static_cast<size_t>(r)];
        double* to[] = {&f.target, &f.max, &f.min};
        for (int c = 2; c <= 4; ++c) {
            const QString t = tblFeatures_->item(r, c) ? tblFeatures_->item(r, c)->text() : QString();
            if (!ReadNumber(t, *to[c - 2])) {
                MsgBox(Cat(std::string("Feature "), f.name, std::string(": '"), S(t), std::string("' is not a number.")),
                       vbExclamation, kSetupError);
                return false;
            }
        }
    }
    return true;
}

DMSetup frmDailyMonitorSetup::setup() const {
    DMSetup s = loaded_;  // keys the window does not show stay as read
    s.templateName = S(txtTemplateName_->text().trimmed());
    s.templateFolder = S(txtTemplateFolder_->text().trimmed());
    s.dateSaved = 0;
    s.dataImport = cmbDataImport_->currentIndex() > 0 ? S(cmbDataImport_->currentText()) : std::string();
    s.dataFolder = S(txtDataFolder_->text().trimmed());
    const std::string caption = S(cmbAnalysisType_->currentText());
    s.analysisType = {cmbAnalysisType_->currentIndex(), caption};
    if (caption == loaded_.analysisType.caption && loaded_.analysisType.index >= 0)
        s.analysisType.index = loaded_.analysisType.index;
    s.focusTemplate = S(cmbFocusTemplate_->currentText().trimmed());
    if (s.focusTemplate.empty()) s.focusTemplate = "None";
    s.conversionMethod = S(cmbConversionMethod_->currentText());
    s.statistics = chkStatistics_->isChecked();
    s.combineWafers = chkCombineWafers_->isChecked();
    s.modelData = chkModelData_->isChecked();
    s.comments = S(txtComments_->text());
    s.password = S(txtPassword_->text());
    s.removeReticle = chkRemoveReticle_->isChecked();
    s.reticleName = s.removeReticle ? S(txtReticleName_->text().trimmed()) : std::string();
    s.reticlePath = s.removeReticle ? S(txtReticleFolder_->text().trimmed()) : std::string();
    s.removeComponent = chkRemoveComponent_->isChecked();
    s.componentRemoval = s.removeComponent
                             ? DMChoice{cmbComponentRemoval_->currentIndex(), S(cmbComponentRemoval_->currentText())}
                             : DMChoice{};
    s.doWaferModel = chkDoWaferModel_->isChecked() && cmbWaferTerms_->count() > 0;
    s.waferTerms = s.doWaferModel ? S(cmbWaferTerms_->currentText()) : std::string();
    s.waferTermCount = 0;
    if (s.doWaferModel)
        for (int i = 0; i < grpWafer_->childCount(); ++i)
            s.waferTermCount += grpWafer_->child(i)->text(0) != "MSE";
    s.fieldModel = {cmbFieldModel_->currentIndex(), S(cmbFieldModel_->currentText())};
    // A choice as read keeps its index: another program's lists may order differently.
    for (auto [now, was] : {std::pair{&s.fieldModel, &loaded_.fieldModel},
                            std::pair{&s.componentRemoval, &loaded_.componentRemoval}})
        if (now->caption == was->caption && was->index >= 0) now->index = was->index;
    const int pw = cmbPWanalysis_->isEnabled() ? cmbPWanalysis_->currentIndex() : 0;
    s.pwAnalysis = pw > 0 ? DMChoice{pw - 1, S(cmbPWanalysis_->currentText())} : DMChoice{};
    if (pw > 0 && loaded_.pwAnalysis.caption == s.pwAnalysis.caption) s.pwAnalysis.index = loaded_.pwAnalysis.index;
    s.pwEllipse = chkPWellipse_->isChecked();
    s.pwRectangle = chkPWrectangle_->isChecked();
    s.pwSites = S(txtPWsites_->text().trimmed());
    if (s.pwSites.empty()) s.pwSites = "All Sites";
    s.pwShowLimits = chkPWshowLimits_->isChecked();
    bool ok = false;
    const int precision = txtPWprecision_->text().trimmed().toInt(&ok);
    s.pwPrecision = ok && precision > 0 ? precision : 1;
    auto number = [](QLineEdit* e, float dflt) {
        double v = 0;
        return ReadNumber(e->text(), v) ? static_cast<float>(v) : dflt;
    };
    s.focusMax = number(txtFocusMax_, 999), s.focusMin = number(txtFocusMin_, -999);
    s.rangeCull = number(txtRangeCull_, 0), s.sigmaCull = number(txtSigmaCull_, 0);
    s.astigCull = number(txtAstigCull_, 0);
    s.rawStats = statGroup(grpRaw_);
    s.waferModelStats = statGroup(grpWafer_);
    s.fieldModelStats = statGroup(grpField_);
    s.processWindowStats = statGroup(grpPW_);
    s.features.clear();
    for (int r = 0; r < tblFeatures_->rowCount(); ++r) {
        DMFeatureRow f;
        f.key = S(tblFeatures_->item(r, 0)->data(Qt::UserRole).toString());
        f.analyze = tblFeatures_->item(r, 0)->checkState() == Qt::Checked;
        f.name = S(tblFeatures_->item(r, 1)->text());
        double v = 0;
        f.target = tblFeatures_->item(r, 2) && ReadNumber(tblFeatures_->item(r, 2)->text(), v) ? v : 0;
        f.max = tblFeatures_->item(r, 3) && ReadNumber(tblFeatures_->item(r, 3)->text(), v) ? v : 0;
        f.min = tblFeatures_->item(r, 4) && ReadNumber(tblFeatures_->item(r, 4)->text(), v) ? v : 0;
        s.features.push_back(f);
    }
    s.axes.clear();
    for (int r = 0; r < tblAxes_->rowCount(); ++r) {
        QTableWidgetItem* it = tblAxes_->item(r, 1);
        Value shown = it->flags() & Qt::ItemIsUserCheckable ? Value(it->checkState() == Qt::Checked)
                                                            : Value(S(it->text()));
        s.axes.push_back({S(tblAxes_->item(r, 0)->text()), shown});
    }
    return s;
}

bool frmDailyMonitorSetup::setStatistic(const QString& group, const QString& name, bool display, bool trend) {
    for (QTreeWidgetItem* g : {grpRaw_, grpWafer_, grpField_, grpPW_}) {
        if (g->text(0).compare(group, Qt::CaseInsensitive) != 0) continue;
        for (int i = 0; i < g->childCount(); ++i) {
            QTreeWidgetItem* it = g->child(i);
            if (it->text(0).compare(name, Qt::CaseInsensitive) != 0) continue;
            it->setCheckState(1, display ? Qt::Checked : Qt::Unchecked);
            it->setCheckState(2, trend ? Qt::Checked : Qt::Unchecked);
            return true;
        }
    }
    return false;
}

bool frmDailyMonitorSetup::setFeature(const QString& name, bool analyze, double target, double max, double min) {
    for (int r = 0; r < tblFeatures_->rowCount(); ++r) {
        if (tblFeatures_->item(r, 1)->text().compare(name, Qt::CaseInsensitive) != 0) continue;
        tblFeatures_->item(r, 0)->setCheckState(analyze ? Qt::Checked : Qt::Unchecked);
        tblFeatures_->item(r, 2)->setText(Num(target));
        tblFeatures_->item(r, 3)->setText(Num(max));
        tblFeatures_->item(r, 4)->setText(Num(min));
        return true;
    }
    return false;
}

bool frmDailyMonitorSetup::GetPWvariables() {
    const std::string caption = S(cmbPWanalysis_->currentText());
    const std::string kind = PWKindOfCaption(caption);
    const std::string sheet = PWReportSheet(kind);
    if (!source_ || !source_->sheet(sheet)) {
        MsgBox(Cat(std::string("Template does not contain the needed spreadsheet: "), sheet,
                   std::string(" Please run a "), caption, std::string(" analysis "),
                   std::string(" so that the variable names can be updated.")),
               vbExclamation, kSetupError);
        showStatGroup(grpPW_, {});
        return false;
    }
    Result<Datam> vars = GetPWmodeled(source_.get(), kind);
    if (!vars) {
        Report(vars.failure());
        showStatGroup(grpPW_, {});
        return false;
    }
    std::vector<DMStatRow> rows;
    for (int r = 1; r <= vars->rowUb(); ++r)
        if (const std::string n = Trim(CellText((*vars)(r, 1))); !n.empty()) rows.push_back({n, true, false});
    showStatGroup(grpPW_, rows);
    return true;
}

// ------------------------------------------------------------------- save

QString frmDailyMonitorSetup::cmdSaveTemplate() {
    if (!source_) {
        MsgBox("Please select a template source before saving.", vbExclamation, kSetupError);
        return {};
    }
    DMSetup s = setup();
    // Everything checked first: a refused save leaves the disk as it was.
    if (!readNumbers(s)) return {};
    if (s.templateName.empty() || QFileInfo(Q(DMTemplateFileName(s.templateName))).completeBaseName().isEmpty()) {
        MsgBox("Please enter a name for the template.", vbExclamation, kSetupError);
        return {};
    }
    for (const auto& [label, folder] : {std::pair{"The default Template Folder:", s.templateFolder},
                                        std::pair{"The default Data Folder:", s.dataFolder}}) {
        if (DMFolderCanBeMade(folder)) continue;
        MsgBox(Cat(std::string(label), std::string(" '"), folder,
                   std::string("'\r\nSpecified in your Daily Monitor Options setup does not exist and could not be "
                               "created.\r\nPlease correct the folder location in your 'Tools/Options' menu.")),
               vbExclamation, kSetupError);
        return {};
    }
    if (Status st = EnsureDMFolder("The default Data Folder:", s.dataFolder); !st) {
        MsgBox(st.failure().message(), vbExclamation, kSetupError);
        return {};
    }
    BusyPointer busy;
    Result<DMSavedTemplate> saved = SaveDMTemplate(source_, s);
    if (!saved) {
        Report(saved.failure());
        return {};
    }
    // The saved template is the source from now on.
    source_ = saved->workbook;
    log_ = saved->log;
    QStringList lines;
    for (const std::string& l : log_) lines << Q(l);
    txtLog_->setPlainText(lines.join('\n'));
    s.templateName = FileOfPath(saved->path);
    loaded_ = s;
    txtTemplateSource_->setText(Q(saved->path));
    txtTemplateName_->setText(Q(s.templateName));
    txtSummary_->setPlainText(Q(DMTemplateSummary(s)));
    lblSourceKind_->setText(tr("Template saved: ") + Q(saved->path));
    SetStatusText("Template saved: " + saved->path);
    return Q(saved->path);
}

}  // namespace zorv::ui
