#include "ui/frm_daily_monitor.h"

#include <QAction>
#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QFont>
#include <QFontDatabase>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollBar>
#include <QSpinBox>
#include <QSplitter>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "app/settings.h"
#include "base/format.h"
#include "base/identity.h"
#include "base/report.h"
#include "base/text.h"
#include "graphics/chart.h"
#include "graphics/recording_surface.h"
#include "import/import.h"
#include "monitor/dm_options.h"
#include "monitor/dm_trend.h"
#include "numerics/matrix.h"
#include "ui/chart_view.h"
#include "ui/dma_notice.h"
#include "ui/frm_options_dm.h"
#include "ui/qtext.h"
#include "workbook/store.h"

namespace zorv::ui {

namespace fs = std::filesystem;

namespace {

frmDailyMonitor::FileAsker& fileAsker() {
    static frmDailyMonitor::FileAsker a;
    return a;
}

constexpr const char* kSection = "DailyMonitor";
constexpr const char* kSettings = "Settings";
const char kTemplateFilter[] = "Zorv DM Template (*.xlt *.xls *.xltx *.xlsx *.XLT *.XLS *.XLTX *.XLSX)";
const char kDataFilter[] = "Data files (*.*)";
const char* const kTemplateSuffixes[] = {"xlt", "xls", "xltx", "xlsx"};

template <class... T>
std::string Cat(const T&... parts) {
    std::string s;
    (s.append(parts), ...);
    return s;
}

std::string Setting(const char* section, const char* key, const std::string& fallback = {}) {
    return GetSetting(kDMSettingsApp, section, key, fallback);
}
void Store(const char* section, const char* key, const std::string& value) {
    SaveSetting(kDMSettingsApp, section, key, value);
}
bool Flag(const char* key, bool fallback) { return Setting(kSettings, key, fallback ? "1" : "0") != "0"; }

QPushButton* Button(const QString& text, const char* name, const QString& tip = {}) {
    auto* b = new QPushButton(text);
    b->setObjectName(name);
    if (!tip.isEmpty()) b->setToolTip(tip);
    return b;
}

std::string CellText(const Value& v) {
    if (v.isEmpty()) return {};
    if (v.isNumberType()) {
        const double d = v.toDouble();
        return std::fabs(d) >= 1e5 || d == std::floor(d) ? v.toString() : Format(d, "0.0000");
    }
    return Trim(v.isString() ? std::string(v.str()) : v.toString());
}


// A feature's level (mean, median, extremes) is what its target and limits
// belong to; on a spread or a count they would only squash the scale.
bool IsLevel(const std::string& name) {
    for (const char* l : {"Mean", "Median", "Maximum", "Minimum", "Mean+3Sigma", "Mean3Sigma", "Max99%"})
        if (IEquals(name, l)) return true;
    return false;
}

// The newest `keep` data rows of a trend table (0: all).
Datam NewestRows(const Datam& trend, int keep) {
    if (keep <= 0 || !trend.isArray() || trend.rowUb() <= keep) return trend;
    const int from = trend.rowUb() - keep;
    Datam t(keep, trend.colUb(), 0, trend.colLb());
    for (int c = trend.colLb(); c <= trend.colUb(); ++c) {
        t(0, c) = trend(0, c);
        for (int r = 1; r <= keep; ++r) t(r, c) = trend(from + r, c);
    }
    return t;
}

// The runs in order along X instead of their dates: the limit lines keep
// their half step beyond the first and the last run.
Status ByRun(cGraphic& g) {
    Datam t = g.Data();
    if (!t.isArray() || t.rowUb() < 1) return StatusOk();
    int n = 0;
    for (int r = 1; r <= t.rowUb(); ++r) {
        double v;
        if (NumericOf(t(r, 2), v)) t(r, 1) = Value(static_cast<double>(++n));
    }
    for (int r = 1; r <= t.rowUb(); ++r) {
        double v;
        if (!NumericOf(t(r, 2), v)) t(r, 1) = Value(r == 1 ? 0.5 : n + 0.5);
    }
    if (Status st = g.RegisterData(t); !st) return st;
    if (cAxis* ax = g.Axes.Item("X")) {
        const double step = std::max(1.0, std::ceil(n / 10.0));
        ax->Label = "Run";
        ax->TickFormat = "0";
        ax->LowValue = 0;
        ax->HighValue = static_cast<float>(step * (std::ceil((n + 1) / step)));
        ax->TickInterval = static_cast<float>(step);
        ax->AutoScale = false;
        ax->OriginLowValue = ax->LowValue, ax->OriginHighValue = ax->HighValue;
        ax->OriginTickInterval = ax->TickInterval, ax->OriginTickFormat = ax->TickFormat;
    }
    return StatusOk();
}

// The reporter of a run: every status text also goes to the window's log
// when no run log is written.
class StatusTap : public Reporter {
public:
    explicit StatusTap(std::vector<std::string>& lines) : prev_(CurrentReporter()), lines_(lines) { SetReporter(this); }
    ~StatusTap() override { SetReporter(&prev_); }
    StatusTap(const StatusTap&) = delete;
    StatusTap& operator=(const StatusTap&) = delete;
    int showBox(const std::string& m, int f, const std::string& t) override { return prev_.showBox(m, f, t); }
    void status(const std::string& text) override {
        if (!text.empty() && (lines_.empty() || lines_.back() != text)) lines_.push_back(text);
        prev_.status(text);
    }
    std::string currentStatus() const override { return prev_.currentStatus(); }
    void progress(int percent) override { prev_.progress(percent); }
    void busy(bool on) override { prev_.busy(on); }
    void beep() override { prev_.beep(); }
    void openUrl(const std::string& url) override { prev_.openUrl(url); }
    std::string inputBox(const std::string& p, const std::string& t, const std::string& d) override {
        return prev_.inputBox(p, t, d);
    }

private:
    Reporter& prev_;
    std::vector<std::string>& lines_;
};

// The lines a log file gained past `from` bytes.
std::vector<std::string> LinesAfter(const std::string& file, std::uintmax_t from) {
    std::vector<std::string> out;
    std::ifstream in(file, std::ios::binary);
    if (!in) return out;
    in.seekg(static_cast<std::streamoff>(from));
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        out.push_back(line);
    }
    return out;
}

std::uintmax_t SizeOf(const std::string& file) {
    std::error_code ec;
    const auto n = fs::file_size(file, ec);
    return ec ? 0 : n;
}

// The run log's place: "RemoteCallLogFolder" when set, as the automation has it.
std::string RunLogFile() {
    if (const std::string folder = Setting(kSection, "RemoteCallLogFolder"); folder.size() > 2)
        return GetLogFile((fs::path(folder) / "RemoteCall.Log").string());
    return GetLogFile();
}

}  // namespace

void frmDailyMonitor::setFileAsker(FileAsker asker) { fileAsker() = std::move(asker); }

frmDailyMonitor::frmDailyMonitor(QWidget* parent) : ZorvForm("frmDailyMonitor", "Zorv DM", parent) {
    setMinimumSize(900, 620);
    resize(1040, 760);
    // The monitor runs unattended: closing it never asks.
    asksOnClose_ = false;
    QMenu* tools = menuBar()->addMenu(tr("&Tools"));
    tools->setObjectName("mnuTools");
    QAction* options = tools->addAction(tr("&Options..."));
    options->setObjectName("mnuOptions");
    connect(options, &QAction::triggered, this, [this] {
        auto* o = new frmOptionsDM(this);
        o->Load();
        o->show();
    });

    contentLayout()->addWidget(buildSelection());
    tabs_ = new QTabWidget;
    tabs_->setObjectName("tabDM");

    txtLog_ = new QPlainTextEdit;
    txtLog_->setObjectName("txtLog");
    txtLog_->setReadOnly(true);
    txtLog_->setLineWrapMode(QPlainTextEdit::NoWrap);
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    txtLog_->setFont(mono);
    txtLog_->setPlaceholderText(tr("The log lines of each run show here."));
    tabs_->addTab(txtLog_, tr("Log"));

    auto* analysis = new QSplitter(Qt::Horizontal);
    analysis->setObjectName("splAnalysis");
    grdSummary_ = new QTableWidget(0, 2);
    grdSummary_->setObjectName("grdSummary");
    grdSummary_->setHorizontalHeaderLabels({tr("Template"), tr("Setting")});
    grdSummary_->verticalHeader()->hide();
    grdSummary_->horizontalHeader()->setStretchLastSection(true);
    grdSummary_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    grdStats_ = new QTableWidget(0, 0);
    grdStats_->setObjectName("grdStats");
    grdStats_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    grdStats_->setAlternatingRowColors(true);
    grdStats_->verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 6);
    analysis->addWidget(grdSummary_);
    analysis->addWidget(grdStats_);
    analysis->setStretchFactor(0, 1);
    analysis->setStretchFactor(1, 3);
    analysis->setSizes({330, 700});
    tabs_->addTab(analysis, tr("Analysis"));
    tabs_->addTab(buildTrendTab(), tr("Trend Charts"));
    contentLayout()->addWidget(tabs_, 1);
    GetBatchSheets();
    CreateTrendTabs();
}

frmDailyMonitor::~frmDailyMonitor() {
    for (ChartView* v : views_) v->setGraphic(nullptr);
}

WindowPlace frmDailyMonitor::place() const { return {"Settings", "Main"}; }

void frmDailyMonitor::changeEvent(QEvent* e) {
    ZorvForm::changeEvent(e);
    if (e->type() == QEvent::ActivationChange && isActiveWindow() && tplWb_ && cmdRun_->isEnabled()) GetBatchSheets();
}

QWidget* frmDailyMonitor::buildSelection() {
    auto* box = new QGroupBox(tr("Template and data"));
    auto* g = new QGridLayout(box);
    g->addWidget(new QLabel(tr("Template folder:")), 0, 0);
    txtTemplateFolder_ = new QLineEdit;
    txtTemplateFolder_->setObjectName("txtTemplateFolder");
    g->addWidget(txtTemplateFolder_, 0, 1);
    g->addWidget(new QLabel(tr("Template:")), 0, 2);
    cmbTemplate_ = new QComboBox;
    cmbTemplate_->setObjectName("cmbTemplate");
    cmbTemplate_->setEditable(true);
    cmbTemplate_->setInsertPolicy(QComboBox::NoInsert);
    cmbTemplate_->setMinimumContentsLength(22);
    g->addWidget(cmbTemplate_, 0, 3);
    cmdBrowseTemplate_ = Button(tr("Browse..."), "cmdBrowseTemplate", tr("Choose a monitor template"));
    g->addWidget(cmdBrowseTemplate_, 0, 4);

    g->addWidget(new QLabel(tr("Data folder:")), 1, 0);
    txtDataFolder_ = new QLineEdit;
    txtDataFolder_->setObjectName("txtDataFolder");
    g->addWidget(txtDataFolder_, 1, 1);
    g->addWidget(new QLabel(tr("Data file:")), 1, 2);
    txtDataFile_ = new QLineEdit;
    txtDataFile_->setObjectName("txtDataFile");
    txtDataFile_->setPlaceholderText(tr("a tool file or a data workbook"));
    g->addWidget(txtDataFile_, 1, 3);
    cmdBrowseData_ = Button(tr("Browse..."), "cmdBrowseData", tr("Choose the data file to analyse"));
    g->addWidget(cmdBrowseData_, 1, 4);

    g->addWidget(new QLabel(tr("Data import:")), 2, 0);
    cmbImportFilter_ = new QComboBox;
    cmbImportFilter_->setObjectName("cmbImportFilter");
    cmbImportFilter_->addItem(tr("(detected from the file)"));
    const Datam& formats = FormatTable();
    for (int r = 1; r <= formats.rowUb(); ++r) cmbImportFilter_->addItem(Q(formats(r, 0).toString()));
    cmbImportFilter_->setMinimumContentsLength(24);
    g->addWidget(cmbImportFilter_, 2, 1);
    auto* runRow = new QHBoxLayout;
    chkLogData_ = new QCheckBox(tr("Log the run"));
    chkLogData_->setObjectName("chkLogData");
    chkLogData_->setToolTip(tr("Write each step to 'RemoteCall.Log' and show it below"));
    runRow->addWidget(chkLogData_);
    chkTrendStats_ = new QCheckBox(tr("Show statistics"));
    chkTrendStats_->setToolTip(tr("Turn to the statistics after a run"));
    chkTrendStats_->setObjectName("chkTrendStats");
    chkTrendGraphics_ = new QCheckBox(tr("Show trends"));
    chkTrendGraphics_->setToolTip(tr("Turn to the trend charts after a run"));
    chkTrendGraphics_->setObjectName("chkTrendGraphics");
    runRow->addWidget(chkTrendStats_);
    runRow->addWidget(chkTrendGraphics_);
    runRow->addStretch(1);
    cmdRun_ = Button(tr("Run Analysis"), "cmdRun", tr("Run the template on the data file"));
    cmdRun_->setDefault(true);
    runRow->addWidget(cmdRun_);
    g->addLayout(runRow, 2, 2, 1, 3);

    g->addWidget(new QLabel(tr("Batch:")), 3, 0);
    auto* batchRow = new QHBoxLayout;
    cmbBatch_ = new QComboBox;
    cmbBatch_->setObjectName("cmbBatch");
    cmbBatch_->setMinimumContentsLength(24);
    cmbBatch_->setToolTip(tr("The batch lists kept in the template"));
    batchRow->addWidget(cmbBatch_, 1);
    cmdBatch_ = Button(tr("Run Batch"), "cmdBatch", tr("Run every file of the batch list"));
    cmdBatchShow_ = Button(tr("Edit..."), "cmdBatchShow", tr("Show the batch list in the options"));
    cmdBatchDelete_ = Button(tr("Delete"), "cmdBatchDelete", tr("Delete the batch list from the template"));
    batchRow->addWidget(cmdBatch_);
    batchRow->addWidget(cmdBatchShow_);
    batchRow->addWidget(cmdBatchDelete_);
    g->addLayout(batchRow, 3, 1);
    lblTemplate_ = new QLabel;
    lblTemplate_->setObjectName("lblTemplate");
    lblTemplate_->setStyleSheet("color: #555;");
    lblTemplate_->setWordWrap(true);
    g->addWidget(lblTemplate_, 3, 2, 1, 3);
    g->setColumnStretch(1, 2);
    g->setColumnStretch(3, 2);

    connect(cmdBrowseTemplate_, &QPushButton::clicked, this, [this] {
        const QString start = templatePath().isEmpty() ? txtTemplateFolder_->text() : templatePath();
        const QString path = askFile(tr("Monitor template"), kTemplateFilter, start);
        if (!path.isEmpty()) SelectTemplate(path);
    });
    connect(cmdBrowseData_, &QPushButton::clicked, this, [this] {
        const QString start = dataPath().isEmpty() ? txtDataFolder_->text() : dataPath();
        const QString path = askFile(tr("Data file"), kDataFilter, start);
        if (!path.isEmpty()) SelectData(path);
    });
    connect(txtTemplateFolder_, &QLineEdit::editingFinished, this, [this] { fillTemplates(); });
    connect(cmbTemplate_, &QComboBox::activated, this, [this] {
        if (!cmbTemplate_->currentText().trimmed().isEmpty()) SelectTemplate(templatePath());
    });
    connect(cmbImportFilter_, &QComboBox::currentIndexChanged, this, [this](int i) {
        if (!loadingSettings_) Store(kSection, "ImportFilter", i <= 0 ? std::string() : S(cmbImportFilter_->currentText()));
    });
    connect(chkLogData_, &QCheckBox::toggled, this, [this](bool on) {
        if (!loadingSettings_) Store(kSettings, "chkLogData", on ? "1" : "0");
    });
    connect(cmdRun_, &QPushButton::clicked, this, [this] { Run(); });
    connect(cmdBatch_, &QPushButton::clicked, this, [this] { RunBatchList(); });
    connect(cmdBatchShow_, &QPushButton::clicked, this, [this] { ShowBatch(); });
    connect(cmdBatchDelete_, &QPushButton::clicked, this, [this] { DeleteBatch(); });
    return box;
}

QWidget* frmDailyMonitor::buildTrendTab() {
    auto* page = new QWidget;
    page->setObjectName("tabTrendCharts");
    auto* v = new QVBoxLayout(page);
    auto* top = new QHBoxLayout;
    top->addWidget(new QLabel(tr("Feature:")));
    cmbTrendFeature_ = new QComboBox;
    cmbTrendFeature_->setObjectName("cmbTrendFeature");
    cmbTrendFeature_->setMinimumContentsLength(14);
    top->addWidget(cmbTrendFeature_);
    chkShowLimits_ = new QCheckBox("Show UCL/LCL limits");
    chkShowLimits_->setObjectName("chkShowLimits");
    chkShowLimits_->setChecked(true);
    top->addWidget(chkShowLimits_);
    top->addStretch(1);
    cmdTrendEntry_ = Button(tr("Enter Trend Row..."), "cmdTrendEntry",
                            tr("Add a value of this statistic by hand (asks the password)"));
    top->addWidget(cmdTrendEntry_);
    v->addLayout(top);

    tabTrend_ = new QTabWidget;
    tabTrend_->setObjectName("tabTrend");
    tabTrend_->setDocumentMode(true);
    v->addWidget(tabTrend_, 1);
    lblTrendNote_ = new QLabel;
    lblTrendNote_->setObjectName("lblTrendNote");
    lblTrendNote_->setStyleSheet("color: #555;");
    v->addWidget(lblTrendNote_);

    auto* opts = new QHBoxLayout;
    opts->addWidget(new QLabel(tr("Abscissa:")));
    optAbscissaDate_ = new QRadioButton(tr("Date"));
    optAbscissaDate_->setObjectName("optAbscissaDate");
    optAbscissaRun_ = new QRadioButton(tr("Run"));
    optAbscissaRun_->setObjectName("optAbscissaRun");
    auto* group = new QButtonGroup(page);
    group->addButton(optAbscissaDate_, 0);
    group->addButton(optAbscissaRun_, 1);
    optAbscissaDate_->setChecked(true);
    opts->addWidget(optAbscissaDate_);
    opts->addWidget(optAbscissaRun_);
    opts->addSpacing(12);
    opts->addWidget(new QLabel(tr("Last runs:")));
    txtAbscissaItems_ = new QSpinBox;
    txtAbscissaItems_->setObjectName("txtAbscissaItems");
    txtAbscissaItems_->setRange(0, 100000);
    txtAbscissaItems_->setSpecialValueText(tr("all"));
    txtAbscissaItems_->setToolTip(tr("How many of the newest runs the charts show"));
    opts->addWidget(txtAbscissaItems_);
    opts->addSpacing(12);
    chkTrendDate_ = new QCheckBox(tr("Time of day on the axis"));
    chkTrendDate_->setObjectName("chkTrendDate");
    chkYgridline_ = new QCheckBox(tr("Y grid lines"));
    chkYgridline_->setObjectName("chkYgridline");
    opts->addWidget(chkTrendDate_);
    opts->addWidget(chkYgridline_);
    opts->addStretch(1);
    v->addLayout(opts);

    auto redraw = [this] {
        if (loadingSettings_) return;
        saveSettings();
        redrawTrends();
    };
    connect(cmbTrendFeature_, &QComboBox::activated, this, [this] { CreateTrendTabs(); });
    connect(chkShowLimits_, &QCheckBox::toggled, this, redraw);
    connect(chkTrendDate_, &QCheckBox::toggled, this, redraw);
    connect(chkYgridline_, &QCheckBox::toggled, this, redraw);
    connect(optAbscissaRun_, &QRadioButton::toggled, this, redraw);
    connect(txtAbscissaItems_, &QSpinBox::valueChanged, this, redraw);
    connect(chkTrendStats_, &QCheckBox::toggled, this, [this] {
        if (!loadingSettings_) saveSettings();
    });
    connect(chkTrendGraphics_, &QCheckBox::toggled, this, [this] {
        if (!loadingSettings_) saveSettings();
    });
    connect(cmdTrendEntry_, &QPushButton::clicked, this, [this] { EnterTrendRow(); });
    return page;
}

// ------------------------------------------------------------ settings

void frmDailyMonitor::formLoad() { loadSettings(); }

void frmDailyMonitor::formUnload() { saveSettings(); }

void frmDailyMonitor::loadSettings() {
    loadingSettings_ = true;
    const DMOptions o = LoadDMOptions();
    const std::string filter = o.importFilter;
    const int f = filter.empty() ? 0 : cmbImportFilter_->findText(Q(filter));
    cmbImportFilter_->setCurrentIndex(f < 0 ? 0 : f);
    chkLogData_->setChecked(Flag("chkLogData", false));
    chkTrendDate_->setChecked(Flag("chkTrendDate", false));
    chkTrendGraphics_->setChecked(Flag("chkTrendGraphics", true));
    chkTrendStats_->setChecked(Flag("chkTrendStats", true));
    chkYgridline_->setChecked(Flag("chkYgridline", false));
    (Setting(kSettings, "optAbscissaTrend", "0") == "1" ? optAbscissaRun_ : optAbscissaDate_)->setChecked(true);
    txtAbscissaItems_->setValue(std::max(0, std::atoi(Setting(kSettings, "AbscissaItems", "0").c_str())));
    if (txtDataFolder_->text().isEmpty()) txtDataFolder_->setText(Q(o.dataFolder));
    if (txtTemplateFolder_->text().isEmpty()) txtTemplateFolder_->setText(Q(o.templateFolder));
    loadingSettings_ = false;
    fillTemplates();
    // The template last used comes back with its trends.
    if (!tpl_) {
        std::string last = Setting(kSection, "TemplateName");
        if (!last.empty() && fs::path(last).is_relative()) last = (fs::path(o.templateFolder) / last).string();
        std::error_code ec;
        if (!last.empty() && fs::is_regular_file(last, ec)) {
            txtTemplateFolder_->setText(Q(fs::path(last).parent_path().string()));
            fillTemplates();
            cmbTemplate_->setEditText(Q(fs::path(last).filename().string()));
            // A last template that is no longer one is no reason for a box at start.
            loadTemplate(last, true);
        }
    }
}

void frmDailyMonitor::saveSettings() {
    Store(kSettings, "chkTrendDate", chkTrendDate_->isChecked() ? "1" : "0");
    Store(kSettings, "chkTrendGraphics", chkTrendGraphics_->isChecked() ? "1" : "0");
    Store(kSettings, "chkTrendStats", chkTrendStats_->isChecked() ? "1" : "0");
    Store(kSettings, "chkYgridline", chkYgridline_->isChecked() ? "1" : "0");
    Store(kSettings, "optAbscissaTrend", optAbscissaRun_->isChecked() ? "1" : "0");
    Store(kSettings, "AbscissaItems", std::to_string(txtAbscissaItems_->value()));
    Store(kSettings, "chkLogData", chkLogData_->isChecked() ? "1" : "0");
}

// ------------------------------------------------------------ choosing

QString frmDailyMonitor::askFile(const QString& title, const QString& filter, const QString& start) {
    if (fileAsker()) return fileAsker()(title, filter, start);
    return QFileDialog::getOpenFileName(this, title, start, filter);
}

void frmDailyMonitor::fillTemplates() {
    const QString keep = cmbTemplate_->currentText();
    cmbTemplate_->clear();
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(S(txtTemplateFolder_->text().trimmed()), ec), end; !ec && it != end; it.increment(ec)) {
        if (!it->is_regular_file(ec)) continue;
        std::string ext = it->path().extension().string();
        if (!ext.empty()) ext.erase(0, 1);
        for (const char* s : kTemplateSuffixes)
            if (IEquals(ext, s)) names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    for (const std::string& n : names) cmbTemplate_->addItem(Q(n));
    cmbTemplate_->setEditText(keep);
}

QString frmDailyMonitor::templatePath() const {
    const QString name = cmbTemplate_->currentText().trimmed();
    if (name.isEmpty()) return {};
    const QString folder = txtTemplateFolder_->text().trimmed();
    return folder.isEmpty() || QFileInfo(name).isAbsolute() ? name : QDir(folder).filePath(name);
}

QString frmDailyMonitor::dataPath() const {
    const QString name = txtDataFile_->text().trimmed();
    if (name.isEmpty()) return {};
    const QString folder = txtDataFolder_->text().trimmed();
    return folder.isEmpty() || QFileInfo(name).isAbsolute() ? name : QDir(folder).filePath(name);
}

void frmDailyMonitor::SelectData(const QString& path) {
    const QFileInfo fi(path);
    txtDataFolder_->setText(QDir::toNativeSeparators(fi.absolutePath()));
    txtDataFile_->setText(fi.fileName());
}

bool frmDailyMonitor::SelectTemplate(const QString& path) {
    const QFileInfo fi(path);
    txtTemplateFolder_->setText(QDir::toNativeSeparators(fi.absolutePath()));
    fillTemplates();
    cmbTemplate_->setEditText(fi.fileName());
    return loadTemplate(S(fi.absoluteFilePath()), false);
}

bool frmDailyMonitor::loadTemplate(const std::string& file, bool quiet) {
    tpl_.reset();
    tplWb_.reset();
    outcome_.reset();
    cmbBatch_->clear();
    grdSummary_->setRowCount(0);
    lblTemplate_->clear();
    clearTrendTabs();
    const bool wasOpen = Workbooks::Find(file) != nullptr;
    auto opened = Workbooks::Open(file);
    if (!opened) {
        if (!quiet) Report(opened.failure());
        return false;
    }
    auto read = ReadDMTemplate(opened->get());
    if (!read) {
        // Not ours to keep open: the file stays as it was.
        if (!wasOpen) Workbooks::Close(*opened);
        if (!quiet) Report(read.failure());
        GetBatchSheets();
        fillTrendFeatures();
        CreateTrendTabs();
        return false;
    }
    tplWb_ = *opened;
    tpl_ = std::make_unique<DMTemplate>(std::move(*read));
    Store(kSection, "TemplateName", file);
    showSummary(tpl_->summary);
    QString caption = Q(tpl_->analysis.caption);
    if (!tpl_->analysis.comments.empty()) caption += " - " + Q(tpl_->analysis.comments);
    lblTemplate_->setText(caption);
    GetBatchSheets();
    fillTrendFeatures();
    CreateTrendTabs();
    return true;
}

zorv::Workbook* frmDailyMonitor::templateWorkbook() {
    if (tplWb_) return tplWb_.get();
    const QString path = templatePath();
    if (path.isEmpty()) return nullptr;
    if (!SelectTemplate(path)) return nullptr;
    return tplWb_.get();
}

void frmDailyMonitor::showSummary(const Datam& summary) {
    grdSummary_->setRowCount(0);
    if (!summary.isArray() || summary.dims() != 2) return;
    for (int r = std::max(1, summary.rowLb()); r <= summary.rowUb(); ++r) {
        const std::string key = CellText(summary(r, 1));
        if (key.empty()) continue;
        const int row = grdSummary_->rowCount();
        grdSummary_->insertRow(row);
        grdSummary_->setItem(row, 0, new QTableWidgetItem(Q(key)));
        grdSummary_->setItem(row, 1, new QTableWidgetItem(Q(CellText(summary(r, 2)))));
    }
    grdSummary_->resizeColumnToContents(0);
}

// ------------------------------------------------------------ batch lists

int frmDailyMonitor::GetBatchSheets() {
    const QString keep = cmbBatch_->currentText();
    cmbBatch_->clear();
    if (tplWb_)
        for (const std::string& s : zorv::GetBatchSheets(*tplWb_)) cmbBatch_->addItem(Q(s));
    // With a placeholder the combo picks no item by itself.
    const int i = cmbBatch_->findText(keep);
    cmbBatch_->setCurrentIndex(i >= 0 ? i : cmbBatch_->count() > 0 ? 0 : -1);
    const bool any = cmbBatch_->count() > 0;
    cmbBatch_->setPlaceholderText(tr("(none)"));
    cmdBatch_->setEnabled(any);
    cmdBatchDelete_->setEnabled(any);
    return cmbBatch_->count();
}

void frmDailyMonitor::ShowBatch() {
    if (templatePath().isEmpty()) {
        Proc p("DMcommon(BatchFile): ");
        Report(p.fail("Please select a template first."));
        return;
    }
    frmOptionsDM::BatchFile(templatePath(), true, false, cmbBatch_->currentText());
}

int frmDailyMonitor::DeleteBatch() {
    Proc p("DMcommon(BatchFile): ");
    Workbook* wb = templateWorkbook();
    if (!wb) return -1;
    const std::string sheet = S(cmbBatch_->currentText().trimmed());
    if (sheet.empty()) {
        Report(p.fail("No batch list selected."));
        return -1;
    }
    auto gone = zorv::DeleteBatch(*wb, sheet, {});
    if (!gone) {
        Report(gone.failure());
        return -1;
    }
    if (*gone > 0) SetStatusText(Cat("Batch [", sheet, "] deleted."));
    GetBatchSheets();
    return *gone;
}

// ------------------------------------------------------------ running

DMRunRequest frmDailyMonitor::request() const {
    DMRunRequest req;
    req.templatePath = S(templatePath());
    req.dataPath = S(dataPath());
    req.importFilter = cmbImportFilter_->currentIndex() <= 0 ? std::string() : S(cmbImportFilter_->currentText());
    const DMOptions o = LoadDMOptions();
    req.storeInDataDirectory = o.storeInDataDirectory;
    req.dataStorageDirectory = o.dataStorageDirectory;
    return req;
}

void frmDailyMonitor::working(bool on) {
    for (QWidget* w : std::initializer_list<QWidget*>{cmdRun_, cmdBatch_, cmdBatchShow_, cmdBatchDelete_, cmbTemplate_,
                                                      cmdBrowseTemplate_, cmdBrowseData_, txtTemplateFolder_,
                                                      txtDataFolder_, txtDataFile_, cmbImportFilter_, cmbBatch_,
                                                      cmdTrendEntry_, cmbTrendFeature_})
        w->setEnabled(!on);
    menuBar()->setEnabled(!on);
    if (on) {
        SetMouse(true);
    } else {
        SetMouse(false);
        GetBatchSheets();
        showProgress(-1);
    }
}

void frmDailyMonitor::appendLog(const std::vector<std::string>& lines) {
    for (const std::string& l : lines) txtLog_->appendPlainText(Q(l));
    txtLog_->verticalScrollBar()->setValue(txtLog_->verticalScrollBar()->maximum());
}

bool frmDailyMonitor::Run() {
    Proc p("ZorvDM(doDailyMonitor): ");
    if (templatePath().isEmpty()) {
        Report(p.fail("Please select a monitor template."));
        return false;
    }
    if (dataPath().isEmpty()) {
        Report(p.fail("Please select a data file."));
        return false;
    }
    saveSettings();
    working(true);
    txtLog_->clear();
    const bool wasLogging = Logging();
    const bool log = chkLogData_->isChecked() || wasLogging;
    std::string logFile;
    std::uintmax_t from = 0;
    if (log) {
        logFile = RunLogFile();
        from = SizeOf(logFile);
        appendLog({Cat("Log: ", logFile)});
    }
    std::vector<std::string> statuses;
    auto run = [&] {
        StatusTap tap(statuses);
        SetLogging(log);
        auto r = DoDailyMonitor(request());
        SetLogging(wasLogging);
        return r;
    }();
    if (log) {
        CloseLogFile();
        appendLog(LinesAfter(logFile, from));
    } else {
        appendLog(statuses);
    }
    working(false);
    if (!run) {
        // The failure's text with its checkpoint, then the termination line.
        Failure f = run.failure();
        appendLog({DMFailedText(S(txtDataFile_->text()))});
        f.text.append("\r\n      ***** Termination With Error *****");
        // Rows a failed run left in the open template never reach the file.
        if (tplWb_ && tplWb_->isDirty()) {
            Workbooks::Close(tplWb_);
            tplWb_.reset();
            tpl_.reset();
        }
        tabs_->setCurrentIndex(kLog);
        Report(f);
        if (!tpl_) {
            // The template as it is on disk, when it is one.
            const std::string path = S(templatePath());
            std::error_code ec;
            if (fs::is_regular_file(path, ec)) {
                auto wb = Workbooks::Open(path);
                if (wb) {
                    if (auto t = ReadDMTemplate(wb->get())) {
                        tplWb_ = *wb;
                        tpl_ = std::make_unique<DMTemplate>(std::move(*t));
                        GetBatchSheets();
                        fillTrendFeatures(cmbTrendFeature_->currentText());
                        CreateTrendTabs();
                    } else {
                        Workbooks::Close(*wb);
                    }
                }
            }
        }
        return false;
    }
    showOutcome(std::make_shared<DMRunOutcome>(std::move(*run)));
    return true;
}

void frmDailyMonitor::showOutcome(std::shared_ptr<DMRunOutcome> outcome) {
    outcome_ = std::move(outcome);
    if (!outcome_) return;
    tplWb_ = outcome_->templateWorkbook;
    tpl_ = std::make_unique<DMTemplate>(outcome_->tpl);
    showSummary(tpl_->summary);
    lblTemplate_->setText(Q(tpl_->analysis.caption));
    const QString title = Q(outcome_->info.dataFile);
    setWindowTitle(title.isEmpty() ? "Zorv DM" : title + " - Zorv DM");

    // The statistics: a row per name, a column per unit and feature.
    const Datam& s = outcome_->stats;
    grdStats_->clear();
    grdStats_->setRowCount(0);
    grdStats_->setColumnCount(0);
    if (s.isArray() && s.dims() == 2) {
        const int cols = s.colUb() - s.colLb() + 1;
        grdStats_->setColumnCount(cols);
        QStringList heads;
        for (int c = s.colLb(); c <= s.colUb(); ++c) heads << (c == s.colLb() ? tr("Statistic") : Q(CellText(s(0, c))));
        grdStats_->setHorizontalHeaderLabels(heads);
        QFont bold = font();
        bold.setBold(true);
        for (int r = 1; r <= s.rowUb(); ++r) {
            const int row = grdStats_->rowCount();
            grdStats_->insertRow(row);
            const std::string name = CellText(s(r, s.colLb()));
            const bool head = name.rfind("__", 0) == 0;
            for (int c = s.colLb(); c <= s.colUb(); ++c) {
                auto* it = new QTableWidgetItem(Q(CellText(s(r, c))));
                if (c > s.colLb()) it->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
                if (head) {
                    it->setFont(bold);
                    it->setBackground(QColor(0xe8, 0xec, 0xf2));
                }
                grdStats_->setItem(row, c - s.colLb(), it);
            }
        }
        grdStats_->resizeColumnsToContents();
    }
    fillTrendFeatures(cmbTrendFeature_->currentText());
    CreateTrendTabs();
    if (chkTrendGraphics_->isChecked()) tabs_->setCurrentIndex(kTrend);
    else if (chkTrendStats_->isChecked()) tabs_->setCurrentIndex(kAnalysis);
    // Drawing the trends leaves its last step on the status line.
    SetStatusText("Ready");
}

bool frmDailyMonitor::RunBatchList() {
    Proc p("frmDM(cmdBatch): ");
    if (!templateWorkbook()) {
        if (templatePath().isEmpty()) Report(p.fail("Please select a monitor template."));
        return false;
    }
    const std::string sheet = S(cmbBatch_->currentText().trimmed());
    if (sheet.empty()) {
        Report(p.fail("No batch list selected."));
        return false;
    }
    saveSettings();
    working(true);
    txtLog_->clear();
    const bool wasLogging = Logging();
    const bool log = chkLogData_->isChecked() || wasLogging;
    if (log) appendLog({Cat("Log: ", RunLogFile())});
    std::shared_ptr<DMRunOutcome> last;
    std::vector<std::string> statuses, results;
    auto batch = [&] {
        StatusTap tap(statuses);
        SetLogging(log);
        auto b = RunBatch(request(), sheet, [&](int i, const std::string& file, const Result<DMRunOutcome>& r) {
            std::string line = Cat("    File ", std::to_string(i), ": ", file);
            line.append(r.ok() ? "  done." : Cat("  FAILED: ", r.failure().text));
            txtLog_->appendPlainText(Q(line));
            results.push_back(line);
            if (r.ok()) last = std::make_shared<DMRunOutcome>(*r);
        });
        SetLogging(wasLogging);
        return b;
    }();
    working(false);
    if (!batch) {
        appendLog({"_______ Batch Analysis NOT Successful ____________"});
        if (last) showOutcome(last);
        tabs_->setCurrentIndex(kLog);
        Report(batch.failure());
        return false;
    }
    // The batch's own log, then what became of each file.
    txtLog_->clear();
    if (log) appendLog({Cat("Log: ", RunLogFile())});
    appendLog(batch->log);
    appendLog(results);
    if (last) showOutcome(last);
    tabs_->setCurrentIndex(kLog);
    SetStatusText(Cat("Batch [", sheet, "]: ", std::to_string(batch->done), " of ", std::to_string(batch->files),
                      " files."));
    return true;
}

DMAResult frmDailyMonitor::RunAutomation(const std::string& commandLine) {
    setWindowTitle("Zorv DM  - Automation Mode");
    working(true);
    txtLog_->clear();
    const std::string logFile = RunLogFile();
    const std::uintmax_t from = SizeOf(logFile);
    appendLog({Cat("Log: ", logFile)});
    DMAResult r = RunDMA(commandLine);
    CloseLogFile();
    appendLog(LinesAfter(logFile, from));
    working(false);
    if (r.outcome) {
        const DMRunInfo& info = r.outcome->info;
        txtTemplateFolder_->setText(Q(info.templateFolder));
        fillTemplates();
        cmbTemplate_->setEditText(Q(info.templateName));
        txtDataFolder_->setText(Q(info.dataFolder));
        txtDataFile_->setText(Q(info.dataFile));
        showOutcome(r.outcome);
        GetBatchSheets();
    }
    tabs_->setCurrentIndex(r.succeeded && chkTrendGraphics_->isChecked() ? kTrend : kLog);
    if (!windowTitle().endsWith("  - Automation Mode")) setWindowTitle(windowTitle() + "  - Automation Mode");
    delete notice_;
    notice_ = new frmDMANotice(Q(r.noticeTitle), Q(r.notice), frmDMANotice::DisplaySeconds(), this);
    notice_->show();
    return r;
}

// ------------------------------------------------------------ trends

void frmDailyMonitor::fillTrendFeatures(const QString& keep) {
    cmbTrendFeature_->clear();
    std::vector<std::string> features;
    if (outcome_)
        for (const std::string& f : outcome_->trendFeatures) features.push_back(f);
    if (tplWb_)
        for (const std::string& s : tplWb_->sheetNames()) {
            if (s.rfind("TC_", 0) != 0) continue;
            const std::string f = s.substr(3);
            bool have = false;
            for (const std::string& g : features) have = have || TrendSheetName(g) == s;
            if (!have && !f.empty()) features.push_back(f);
        }
    for (const std::string& f : features) cmbTrendFeature_->addItem(Q(f));
    const int i = keep.isEmpty() ? -1 : cmbTrendFeature_->findText(keep);
    if (i >= 0) cmbTrendFeature_->setCurrentIndex(i);
}

void frmDailyMonitor::clearTrendTabs() {
    for (ChartView* v : views_) v->setGraphic(nullptr);
    views_.clear();
    tabItems_.clear();
    while (tabTrend_->count() > 0) {
        QWidget* w = tabTrend_->widget(0);
        tabTrend_->removeTab(0);
        delete w;
    }
    charts_.clear();
    lblTrendNote_->clear();
    cmdTrendEntry_->setEnabled(false);
}

void frmDailyMonitor::CreateTrendTabs() {
    const int keepTab = tabTrend_->currentIndex();
    const QString keepKey = keepTab >= 0 && tabTrend_->widget(keepTab) ? tabTrend_->widget(keepTab)->objectName() : QString();
    clearTrendTabs();
    TrendPlotList plots;
    if (tpl_) plots = TrendPlotSetup(TrendNames(tpl_->tables));
    const auto tabs = zorv::CreateTrendTabs(plots);
    const std::string feature = S(cmbTrendFeature_->currentText());

    // The charts of the feature, by their keys.
    std::vector<std::unique_ptr<cGraphic>> made;
    std::string note;
    if (tpl_ && tplWb_ && !feature.empty() && tplWb_->sheet(TrendSheetName(feature))) {
        TrendLimits limits;
        for (const DMFeatureRow& f : tpl_->tables.features)
            if (IEquals(f.name, feature) || TrendSheetName(f.name) == TrendSheetName(feature))
                limits = {f.target, f.max, f.min};
        auto data = GetDMTrendChartData(tplWb_.get(), feature, limits);
        if (!data) {
            note = data.failure().text;
        } else {
            const Datam trend = NewestRows(*data, txtAbscissaItems_->value());
            TrendStatistics levels, others = TrendNames(tpl_->tables);
            others.raw.clear();
            for (const std::string& n : TrendNames(tpl_->tables).raw) (IsLevel(n) ? levels.raw : others.raw).push_back(n);
            TrendChartSetup setup;
            setup.feature = feature;
            setup.showLimits = chkShowLimits_->isChecked();
            setup.dateFormat = chkTrendDate_->isChecked() ? "dd-mmm hh:mm" : "dd-mmm-yy";
            auto a = CreateTrendPlots(trend, TrendPlotSetup(levels), setup);
            setup.showLimits = false;
            auto b = CreateTrendPlots(trend, TrendPlotSetup(others), setup);
            if (!a || !b) {
                note = (!a ? a.failure() : b.failure()).text;
            } else {
                for (auto& g : *a) made.push_back(std::move(g));
                for (auto& g : *b) {
                    // Not in the feature's units: the axis says what it shows.
                    const std::string& title = g->TitleObj.TitleString;
                    if (cAxis* ay = g->Axes.Item("Y")) ay->Label = title.substr(std::min(title.size(), feature.size() + 2));
                    made.push_back(std::move(g));
                }
                note = Cat(std::to_string(data->rowUb()), " runs in ", TrendSheetName(feature));
                if (trend.rowUb() < data->rowUb()) note.append(Cat(", the newest ", std::to_string(trend.rowUb()), " shown"));
                note.append(".");
            }
        }
    } else if (tpl_ && !feature.empty()) {
        note = "Trend Statistics have no data.";
    }
    lblTrendNote_->setText(Q(note));

    int select = 0;
    for (const auto& [key, caption] : tabs) {
        cGraphic* chart = nullptr;
        for (auto& g : made)
            if (g && g->KeyName == key) {
                if (optAbscissaRun_->isChecked()) (void)ByRun(*g);
                if (cAxis* ay = g->Axes.Item("Y")) ay->PlotGridline = chkYgridline_->isChecked();
                charts_.push_back(std::move(g));
                chart = charts_.back().get();
                break;
            }
        TrendItem item;
        for (const TrendItem& it : plots.items)
            if (!it.separator && !it.blank && Cat(std::string("k"), TrendColumnName(it)) == key) {
                item = it;
                break;
            }
        tabItems_.push_back(item);
        // PlotDMstats says whether there is anything to draw.
        Status drawn = StatusOk();
        if (chart) {
            RecordingSurface probe(640, 400);
            drawn = PlotDMstats(chart, probe, true);
            chart->Container(nullptr);
        }
        QWidget* page = nullptr;
        if (chart && drawn) {
            auto* view = new ChartView;
            view->setGraphic(chart);
            views_.push_back(view);
            page = view;
        } else {
            const std::string why = !tpl_                    ? "No monitor template loaded."
                                    : key == "kNo Statistics" ? "No statistic of the template is marked for a trend."
                                    : chart                  ? drawn.failure().text
                                                             : "Trend Statistics have no data.";
            page = emptySurface(Q(Cat("pctTrend_", key.substr(1))), Q(why));
        }
        page->setObjectName(Q(key));
        tabTrend_->addTab(page, Q(caption));
        if (Q(key) == keepKey) select = tabTrend_->count() - 1;
    }
    tabTrend_->setCurrentIndex(select);
    cmdTrendEntry_->setEnabled(tpl_ && !feature.empty() && !tabs.empty() && tabs.front().first != "kNo Statistics");
}

void frmDailyMonitor::redrawTrends() { CreateTrendTabs(); }

zorv::cGraphic* frmDailyMonitor::currentTrendChart() const {
    auto* view = qobject_cast<ChartView*>(tabTrend_->currentWidget());
    return view ? view->graphic() : nullptr;
}

int frmDailyMonitor::trendPointCount() const {
    const cGraphic* g = currentTrendChart();
    if (!g || g->Series.Count() < 1) return 0;
    const int col = g->Series.Item(1)->Ycol;
    const Datam& t = g->Data();
    int n = 0;
    for (int r = 1; t.isArray() && r <= t.rowUb(); ++r) {
        double v;
        n += NumericOf(t(r, col), v);
    }
    return n;
}

bool frmDailyMonitor::EnterTrendRow() {
    Proc p("DM(tabTrendCharts): ");
    const int tab = tabTrend_->currentIndex();
    const std::string feature = S(cmbTrendFeature_->currentText());
    if (!tpl_ || !tplWb_ || feature.empty() || tab < 0 || static_cast<size_t>(tab) >= tabItems_.size() ||
        tabItems_[static_cast<size_t>(tab)].name.empty()) {
        Report(p.fail("Choose a feature and a trended statistic first."));
        return false;
    }
    const std::string title = Cat(ApplicationTitle(), ": Trend Chart Entry");
    if (!TrendEntryAllowed(ApplicationTitle(), [](const std::string& prompt, const std::string& t) {
            return InputBox(prompt, t);
        })) {
        SetStatusText("Trend Chart Entry: not allowed.");
        return false;
    }
    const TrendItem item = tabItems_[static_cast<size_t>(tab)];
    const std::string typed =
        Trim(InputBox(Cat("Value of ", TrendColumnName(item), " for ", feature, ": "), title));
    if (typed.empty()) return false;
    QString t = Q(typed);
    t.replace(',', '.');
    bool ok = false;
    const double v = t.toDouble(&ok);
    if (!ok || !std::isfinite(v)) {
        Report(p.fail(Cat("'", typed, "' is not a number: no trend row entered.")));
        return false;
    }
    TrendRun run;
    run.when = TrendNow();
    run.dataSet = "Manual entry";
    if (Status st = SaveTrendData(*tplWb_, {{feature, {item}, {Value(v)}}}, run, true); !st) {
        Report(st.failure());
        return false;
    }
    SetStatusText(Cat("Trend row entered in ", TrendSheetName(feature), "."));
    CreateTrendTabs();
    return true;
}

}  // namespace zorv::ui
