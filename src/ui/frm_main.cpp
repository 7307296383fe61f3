#include "ui/frm_main.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QScreen>
#include <QScrollArea>
#include <QStyle>
#include <QTabWidget>
#include <QToolBar>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

#include "app/settings.h"
#include "app/shutdown.h"
#include "app/strings.h"
#include "base/identity.h"
#include "base/proc.h"
#include "base/report.h"
#include "base/text.h"
#include "graphics/chart.h"
#include "import/import.h"
#include "layout/fp_data.h"
#include "lot/lot.h"
#include "ui/chart_view.h"
#include "ui/expo_tool_panel.h"
#include "ui/frm_plot.h"
#include "ui/layout_panel.h"
#include "ui/metrology_panel.h"
#include "ui/frm_template_maintenance.h"
#include "ui/windows.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {


frmMain::FileAsker& fileAsker() {
    static frmMain::FileAsker a;
    return a;
}

// "Description|*.a;*.b|..." pairs as Qt's "Description (*.a *.b)" filters.
QStringList QtFilters(const std::string& pipes) {
    QStringList parts = Q(pipes).split('|');
    QStringList out;
    for (int i = 0; i + 1 < parts.size(); i += 2) {
        QString pattern = parts[i + 1].trimmed();
        pattern.replace(';', ' ');
        out << QString("%1 (%2)").arg(parts[i].trimmed(), pattern.simplified());
    }
    return out;
}

// The description of a Qt filter made by QtFilters.
QString FilterDescription(const QString& filter) {
    const int at = filter.lastIndexOf(" (");
    return at < 0 ? filter : filter.left(at);
}

// Our workbooks are .xlsx whatever the old name asked for.
QString XlsxName(QString path) {
    if (path.endsWith(".xls", Qt::CaseInsensitive)) path += "x";
    else if (QFileInfo(path).suffix().isEmpty()) path += ".xlsx";
    return path;
}

// The centring fields: objectName and caption.
constexpr struct {
    const char* name;
    const char* caption;
} kCentering[] = {
    {"txtDieSizeX", "Die size X (mm)"},   {"txtDieSizeY", "Die size Y (mm)"},
    {"txtSiteXoffset", "Site X offset (mm)"}, {"txtSiteYoffset", "Site Y offset (mm)"},
    {"txtDieXoffset", "Die X offset (mm)"},   {"txtDieYoffset", "Die Y offset (mm)"},
    {"txtDieXarray", "Die X array"},          {"txtDieYarray", "Die Y array"},
};

constexpr const char* kWaferSizes[] = {"50", "75", "100", "125", "150", "200", "225", "250", "300", "325"};

}  // namespace

// Long work in the window: the busy cursor, and the window's controls held
// still so that no second load starts inside the first while events run
// (the status line keeps them running, and Esc reaches the work).
class frmMain::Working {
public:
    explicit Working(frmMain& m) : m_(m), was_(m.working_) {
        m_.working_ = true;
        if (was_) return;
        for (QWidget* w : {static_cast<QWidget*>(m_.menuBar()), static_cast<QWidget*>(m_.toolBar_),
                           m_.contentArea()})
            w->setEnabled(false);
    }
    ~Working() {
        m_.working_ = was_;
        if (was_) return;
        for (QWidget* w : {static_cast<QWidget*>(m_.menuBar()), static_cast<QWidget*>(m_.toolBar_),
                           m_.contentArea()})
            w->setEnabled(true);
    }
    Working(const Working&) = delete;
    Working& operator=(const Working&) = delete;

private:
    frmMain& m_;
    bool was_;
    BusyPointer busy_;
};

CurrentData& Current() {
    static CurrentData d;
    return d;
}

void frmMain::setFileAsker(FileAsker asker) { fileAsker() = std::move(asker); }

frmMain::frmMain(QWidget* parent) : ZorvForm("frmMain", Q(ApplicationTitle()), parent) {
    unloadSavesPlace_ = true;
    setMinimumSize(760, 520);
    resize(1200, 820);
    buildMenus();
    buildToolBar();

    // The data sheet of the workbook, above the tabs.
    auto* top = new QHBoxLayout;
    top->setContentsMargins(0, 0, 0, 0);
    auto* lbl = new QLabel(tr("Data sheet:"));
    cmbDataSheet_ = new QComboBox;
    cmbDataSheet_->setObjectName("cmbDataSheet");
    cmbDataSheet_->setMinimumContentsLength(24);
    cmbDataSheet_->setToolTip(tr("The sheet of the workbook the lot is read from"));
    lbl->setBuddy(cmbDataSheet_);
    top->addWidget(lbl);
    top->addWidget(cmbDataSheet_);
    top->addStretch(1);
    contentLayout()->addLayout(top);
    connect(cmbDataSheet_, &QComboBox::activated, this, [this](int i) { cmbDataSheet_Click(i); });

    tabServer_ = new QTabWidget(contentArea());
    tabServer_->setObjectName("tabServer");
    tabServer_->setDocumentMode(true);

    layout_ = new LayoutPanel;
    layout_->setObjectName("kLayout");
    tabServer_->addTab(layout_, tr("Layout"));
    connect(layout_, &LayoutPanel::filesDropped, this, [this](const QStringList& paths) {
        if (!paths.isEmpty()) OpenDropped(paths.front());
    });

    metrology_ = new MetrologyPanel;
    metrology_->setObjectName("kMetrology");
    tabServer_->addTab(metrology_, tr("Metrology"));

    tool_ = new ExpoToolPanel;
    // Scrolls on a small screen rather than squeezing its fields.
    auto* scroll = new QScrollArea;
    scroll->setObjectName("kExposureTool");
    scroll->setWidget(tool_);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    tabServer_->addTab(scroll, tr("Exposure Tool"));

    centering_ = buildCentering();
    centering_->setObjectName("kCentering");
    tabServer_->addTab(centering_, tr("Centering"));

    contentLayout()->addWidget(tabServer_, 1);
    connect(tabServer_, &QTabWidget::currentChanged, this, [this](int i) { tabServer_Click(i); });
    setLoaded(false);
}

frmMain::~frmMain() { chtCentering_->setGraphic(nullptr); }

void frmMain::buildMenus() {
    QMenu* file = fileMenu();
    QAction* first = file->actions().isEmpty() ? nullptr : file->actions().front();
    auto add = [&](const char* name, const QString& text, const QKeySequence& key, auto slot) {
        auto* a = new QAction(text, this);
        a->setObjectName(name);
        if (!key.isEmpty()) a->setShortcut(key);
        connect(a, &QAction::triggered, this, slot);
        file->insertAction(first, a);
        return a;
    };
    add("mnuFileOpen", tr("&Open Raw Data File..."), QKeySequence::Open, [this] { mnuFileOpen(); });
    add("mnuFileOpenWorksheet", tr("Open &Workbook..."), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_O),
        [this] { mnuFileOpenWorksheet(); });
    file->insertSeparator(first);
    add("mnuFileSave", tr("&Save"), QKeySequence::Save, [this] { mnuFileSave(); });
    add("mnuFileSaveAs", tr("Save &As..."), QKeySequence::SaveAs, [this] { mnuFileSaveAs(); });
    add("mnuFileSaveAsReticle", tr("Save As &Reticle Workbook..."), {}, [this] { mnuFileSaveAsReticle(); });
    add("mnuSaveAsLayout", tr("Save As &Layout Template..."), {}, [this] { mnuSaveAsLayout(); });
    mnuRecLayoutTemplates_ = new QMenu(tr("Layout &Templates"), this);
    mnuRecLayoutTemplates_->setObjectName("mnuRecLayoutTemplates");
    file->insertMenu(first, mnuRecLayoutTemplates_);
    connect(mnuRecLayoutTemplates_, &QMenu::aboutToShow, this, [this] { fillLayoutTemplates(); });
    file->insertSeparator(first);
    connect(this, &ZorvForm::recentFileChosen, this, [this](const QString& path) { OpenDropped(path); });

    QMenu* view = new QMenu(tr("&View"), this);
    view->setObjectName("mnuView");
    menuBar()->insertMenu(helpMenu()->menuAction(), view);
    QAction* sheet = view->addAction(tr("&Sheet in a Grid..."));
    sheet->setObjectName("mnuViewSheet");
    sheet->setToolTip(tr("The data sheet chosen above, read-only, in a grid"));
    connect(sheet, &QAction::triggered, this, [this] { mnuViewSheet(); });

    QMenu* tools = new QMenu(tr("&Analysis"), this);
    tools->setObjectName("mnuAnalysis");
    menuBar()->insertMenu(helpMenu()->menuAction(), tools);
    auto addTool = [&](const char* name, const QString& text, auto slot) {
        QAction* a = tools->addAction(text);
        a->setObjectName(name);
        connect(a, &QAction::triggered, this, slot);
    };
    addTool("mnuFocusCalibrate", tr("Focus &Calibration..."), [this] { mnuFocusCalibrate(); });
    addTool("mnuFocusUniformity", tr("Focus &Uniformity..."), [this] { mnuFocusUniformity(); });
    addTool("mnuProcessWindow", tr("&Process Window..."), [this] { mnuProcessWindow(); });
    addTool("mnuMaskFactor", tr("&Mask Error Factor..."), [this] { mnuMaskFactor(); });
    addTool("mnuDailyMonitor", tr("&Daily Monitor..."), [this] { mnuDailyMonitor(); });
    addTool("mnuDailyMonitorSetup", tr("Daily Monitor &Setup..."), [this] { mnuDailyMonitorSetup(); });
    tools->addSeparator();
    // A window of its own beside this one: nothing to hand over.
    addTool("mnuTemplateMaintenance", tr("Calibration &Templates..."), [this] { frmTemplateMaintenance::Open(this); });
}

void frmMain::buildToolBar() {
    toolBar_ = addToolBar(tr("Main"));
    toolBar_->setObjectName("tbMain");
    toolBar_->setMovable(false);
    toolBar_->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
    toolBar_->setIconSize(QSize(20, 20));
    QStyle* st = style();
    auto add = [&](const char* key, const QString& text, const QString& tip, QStyle::StandardPixmap icon, auto slot) {
        QAction* a = toolBar_->addAction(st->standardIcon(icon), text);
        a->setObjectName(key);
        a->setToolTip(tip);
        connect(a, &QAction::triggered, this, slot);
        return a;
    };
    add("kOpen", tr("Open"), tr("Import a raw data file"), QStyle::SP_DialogOpenButton, [this] { mnuFileOpen(); });
    add("kOpenWorksheet", tr("Workbook"), tr("Open a data workbook"), QStyle::SP_DirOpenIcon,
        [this] { mnuFileOpenWorksheet(); });
    add("kSave", tr("Save"), tr("Save the data workbook"), QStyle::SP_DialogSaveButton, [this] { mnuFileSave(); });
    add("kPrint", tr("Export"), tr("Save the chart shown as PNG, SVG or PDF"), QStyle::SP_FileDialogDetailedView,
        [this] { printGraphic(); });
    add("kCopyScreen", tr("Copy"), tr("Copy the window as a picture"), QStyle::SP_DesktopIcon,
        [this] { copyScreen(); });
    add("kCopyGraphic", tr("Chart"), tr("Copy the chart shown"), QStyle::SP_FileDialogContentsView,
        [this] { copyGraphic(); });
    toolBar_->addSeparator();
    add("kDailyMonitor", tr("Monitor"), tr("Daily monitor"), QStyle::SP_ComputerIcon, [this] { mnuDailyMonitor(); });
    add("kDailyMonitorSetup", tr("Setup"), tr("Set up a daily monitor template"),
        QStyle::SP_FileDialogInfoView, [this] { mnuDailyMonitorSetup(); });
    QAction* tpl = add("kLayoutTemplate", tr("Layouts"), tr("Layout templates"), QStyle::SP_FileDialogListView,
                       [this] {
                           fillLayoutTemplates();
                           if (QWidget* w = toolBar_->widgetForAction(toolAction("kLayoutTemplate")))
                               mnuRecLayoutTemplates_->exec(w->mapToGlobal(QPoint(0, w->height())));
                       });
    (void)tpl;
    add("kCalibrateFocus", tr("Calibrate"), tr("Focus calibration"), QStyle::SP_MediaSeekForward,
        [this] { mnuFocusCalibrate(); });
    add("kFocusUniformity", tr("Uniformity"), tr("Focus uniformity across the field"), QStyle::SP_MediaSeekBackward,
        [this] { mnuFocusUniformity(); });
    add("kProcessWindow", tr("Window"), tr("Process window analysis"), QStyle::SP_MediaPlay,
        [this] { mnuProcessWindow(); });
    toolBar_->addSeparator();
    add("kReturn", tr("Return"), tr("Back to the window that opened this one"), QStyle::SP_ArrowBack,
        [this] { mnuReturn(); });
    toolAction("kReturn")->setEnabled(false);
}

QWidget* frmMain::buildCentering() {
    auto* page = new QWidget;
    auto* outer = new QVBoxLayout(page);
    auto* box = new QGroupBox(tr("Die size, offsets and arrays"));
    box->setMinimumWidth(260);
    auto* form = new QFormLayout(box);
    form->setLabelAlignment(Qt::AlignRight);
    for (const auto& c : kCentering) {
        auto* e = new QLineEdit;
        e->setObjectName(c.name);
        e->setReadOnly(true);
        e->setMaximumWidth(140);
        form->addRow(tr(c.caption), e);
    }
    auto* size = new QComboBox;
    size->setObjectName("cmbLotWaferSize");
    for (const char* s : kWaferSizes) size->addItem(s);
    size->setEnabled(false);
    form->addRow(tr("Wafer size (mm)"), size);
    auto* notch = new QComboBox;
    notch->setObjectName("cmbLotNotch");
    notch->addItems({"Up", "Down", "Left", "Right"});
    notch->setEnabled(false);
    form->addRow(tr("Notch"), notch);
    auto* left = new QVBoxLayout;
    left->addWidget(box);
    left->addStretch(1);
    auto* row = new QHBoxLayout;
    row->addLayout(left);
    // The sites in their field, all fields laid over each other: where the
    // offsets put them.
    chtCentering_ = new ChartView;
    chtCentering_->setObjectName("chtCentering");
    chtCentering_->setMinimumSize(320, 320);
    row->addWidget(chtCentering_, 1);
    outer->addLayout(row, 1);
    return page;
}

QAction* frmMain::toolAction(const QString& key) const {
    for (QAction* a : toolBar_->actions())
        if (a->objectName() == key) return a;
    return nullptr;
}

void frmMain::setCaller(ZorvForm* caller) {
    caller_ = caller;
    if (QAction* a = toolAction("kReturn")) a->setEnabled(caller != nullptr);
}

int frmMain::MRUsize() {
    const QString v = Q(GetSetting(ApplicationTitle(), "Options", "MRUsize", "10")).trimmed();
    bool ok = false;
    const int n = v.toInt(&ok);
    return std::max(3, ok ? n : 10);
}

WindowPlace frmMain::place() const { return {"Settings", "Main"}; }

void frmMain::formLoad() {
    SetStatusText("Loading ...");
    // The first start: room for the charts rather than the smallest size.
    if (GetSetting(ApplicationTitle(), "Settings", "MainLeft").empty())
        if (QScreen* scr = QGuiApplication::primaryScreen()) {
            const QRect a = scr->availableGeometry();
            resize(QSize(std::min(1400, a.width() * 9 / 10), std::min(900, a.height() * 9 / 10))
                       .expandedTo(minimumSize()));
            move(a.x() + (a.width() - width()) / 2, a.y() + (a.height() - height()) / 2);
        }
    setupRecentFiles("RecentFiles", MRUsize());
    layout_->setLot(nullptr, nullptr);
    // In Main mode the window makes itself visible during its own load.
    if (showOnLoad_) show();
    SetStatusText("Ready");
}

void frmMain::setLoaded(bool loaded) {
    for (const char* key : {"kSave", "kCopyGraphic", "kPrint"})
        if (QAction* a = toolAction(key)) a->setEnabled(loaded);
    for (const char* name : {"mnuFileSave", "mnuFileSaveAs", "mnuFileSaveAsReticle", "mnuSaveAsLayout"})
        if (auto* a = findChild<QAction*>(name)) a->setEnabled(loaded);
    cmbDataSheet_->setEnabled(cmbDataSheet_->count() > 0);
}

void frmMain::ResetObjects() {
    setWindowTitle(Q(LoadResString(1686)) + ": ");
    SetExiting(true);
    metrology_->setLot(nullptr, nullptr);
    layout_->setLot(nullptr, nullptr);
    chtCentering_->setGraphic(nullptr);
    centeringChart_.reset();
    Current() = {};
    workbookPath_.clear();
    fillingSheets_ = true;
    cmbDataSheet_->clear();
    fillingSheets_ = false;
    for (const auto& c : kCentering)
        if (auto* e = findChild<QLineEdit*>(c.name)) e->clear();
    setLoaded(false);
    SetExiting(false);
}

std::shared_ptr<cLot> frmMain::lot() const { return Current().lot; }
Workbook* frmMain::workbook() const { return Current().workbook.get(); }

// ------------------------------------------------------------------ dialogs

QString frmMain::askOpen(const QString& title, const QString& filter, const QString& folder, QString* chosenFilter) {
    if (fileAsker()) return fileAsker()(title, filter, folder);
    QFileDialog d(this, title, folder, filter);
    d.setObjectName("dlgOpen");
    d.setFileMode(QFileDialog::ExistingFile);
    d.setAcceptMode(QFileDialog::AcceptOpen);
    if (chosenFilter && !chosenFilter->isEmpty()) d.selectNameFilter(*chosenFilter);
    if (d.exec() != QDialog::Accepted || d.selectedFiles().isEmpty()) return {};
    if (chosenFilter) *chosenFilter = d.selectedNameFilter();
    return d.selectedFiles().front();
}

QString frmMain::askSave(const QString& title, const QString& filter, const QString& folder) {
    if (fileAsker()) return fileAsker()(title, filter, folder);
    QFileDialog d(this, title, folder, filter);
    d.setObjectName("dlgSave");
    d.setAcceptMode(QFileDialog::AcceptSave);
    if (d.exec() != QDialog::Accepted || d.selectedFiles().isEmpty()) return {};
    return d.selectedFiles().front();
}

// --------------------------------------------------------------- opening

bool frmMain::mnuFileOpen(const QString& path, const QString& description) {
    if (working_) return false;
    QString file = path;
    QString desc = description;
    const FileOpenSetup setup = FileOpenSettings();
    if (file.isEmpty()) {
        const QStringList filters = QtFilters(setup.filters);
        QString chosen;
        for (const QString& f : filters)
            if (FilterDescription(f) == Q(setup.startFilter)) chosen = f;
        file = askOpen("Zorv: Raw Data File Selection", filters.join(";;"), Q(setup.startDirectory), &chosen);
        if (file.isEmpty()) return false;
        SaveFileOpenChoice(S(file), S(FilterDescription(chosen)));
        // "All Files" leaves the format to the file's first lines.
        if (!chosen.isEmpty() && !chosen.startsWith("All Files")) desc = FilterDescription(chosen);
    }
    ResetObjects();
    Working working(*this);
    SetStatusText("Import: " + S(QFileInfo(file).fileName()));
    Result<ImportRequest> request = GetDataFile(S(file), S(desc));
    if (!request) {
        Report(request.failure());
        SetStatusText("Ready");
        return false;
    }
    SetStatusText("Format: " + request->description);
    request->dataFolder = ImportDataFolder(setup, S(file));
    Result<std::string> written = ImportCall(*request);
    if (!written) {
        Report(written.failure());
        SetStatusText("Ready");
        return false;
    }
    SetStatusText("Workbook loaded, setting up display...");
    return GetWorksheet(Q(*written));
}

bool frmMain::mnuFileOpenWorksheet(const QString& path) {
    if (working_) return false;
    QString file = path;
    if (file.isEmpty()) {
        const QString folder = Q(GetSetting(ApplicationTitle(), "Options", "SourceDirectory", ""));
        file = askOpen("New Spreadsheet Selection", "Spreadsheet (*.xlsx *.xls *.xlt *.XLS *.XLT *.XLSX)", folder);
    }
    // A name this short is no file.
    if (file.size() < 3) return false;
    ResetObjects();
    return GetWorksheet(file);
}

bool frmMain::OpenDropped(const QString& path) {
    if (working_) return false;
    Proc p("frmMain(pctLayout_oleDragDrop): ");
    const QString ext = QFileInfo(path).suffix().toUpper();
    if (!QFileInfo(path).isFile()) {
        Failure f = p.fail("File not found: " + S(path));
        f.file = S(path);
        Report(f);
        return false;
    }
    if (ext == "XLS" || ext == "XLT" || ext == "XLSX") return mnuFileOpenWorksheet(path);
    return mnuFileOpen(path);
}

bool frmMain::GetWorksheet(const QString& path, const QString& sheet) {
    Working working(*this);
    SetStatusText("Open: " + S(path));
    LoadOptions options = LoadOptionsFromSettings();
    options.sheetName = S(sheet);
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
    const Status st = GetExcelWBLot(S(path), options, lot, &tables);
    SaveLoadSettings(tables);
    if (!st) {
        if (!st.failure().text.empty()) Report(st.failure());
        // A workbook whose data sheet was not found: its sheets are offered,
        // and choosing one loads it.
        WorkbookPtr wb;
        Worksheet* ws = nullptr;
        if (OpenExcelWorksheet(S(path), wb, &ws, false)) {
            workbookPath_ = path;
            fillDataSheets(wb.get(), {});
            cmbDataSheet_->setCurrentIndex(-1);
            cmbDataSheet_->setEnabled(true);
            SetStatusText("Choose the data sheet of " + S(QFileInfo(path).fileName()));
        } else {
            SetStatusText("Ready");
        }
        return false;
    }
    if (lot->DataSheetName.empty()) lot->DataSheetName = tables.sheetName;
    Current().lot = lot;
    Current().workbook = tables.workbook;
    workbookPath_ = Q(tables.workbook ? tables.workbook->path() : S(path));

    SetStatusText("update spreadsheets...");
    std::vector<std::string> menu;
    (void)UpdateSpreadsheets(&menu, tables.workbook.get());
    SetStatusText("Set Workbook pathname ....");
    setWindowTitle(Q(LoadResString(1686)) + ": " + QFileInfo(workbookPath_).fileName());
    SetStatusText("Update data sheet names into combo");
    fillDataSheets(tables.workbook.get(), Q(tables.sheetName));
    registerRecentFile(workbookPath_);

    layout_->setLot(lot, tables.workbook.get());
    metrology_->setLot(lot, tables.workbook.get());
    UpdateFrmMain();
    setLoaded(true);
    if (currentTabKey() != "kLayout")
        showTab("kLayout");
    else
        layout_->DisplayVariables();
    SetStatusText("Ready");
    return true;
}

void frmMain::fillDataSheets(Workbook* wb, const QString& chosen) {
    fillingSheets_ = true;
    cmbDataSheet_->clear();
    if (wb)
        for (const std::string& n : wb->sheetNames()) cmbDataSheet_->addItem(Q(n));
    cmbDataSheet_->setCurrentIndex(cmbDataSheet_->findText(chosen, Qt::MatchFixedString));
    fillingSheets_ = false;
}

void frmMain::cmbDataSheet_Click(int index) {
    if (fillingSheets_ || working_ || index < 0) return;
    if (workbookPath_.isEmpty()) {
        MsgBox("Data workbook is not loaded.\r\nPlease reload data.", vbExclamation, ApplicationTitle());
        return;
    }
    const QString sheet = cmbDataSheet_->itemText(index);
    if (Current().lot && Q(Current().lot->DataSheetName).compare(sheet, Qt::CaseInsensitive) == 0) return;
    const QString path = workbookPath_;
    ResetObjects();
    GetWorksheet(path, sheet);
}

// ------------------------------------------------------------------ tabs

QString frmMain::currentTabKey() const {
    QWidget* w = tabServer_->currentWidget();
    return w ? w->objectName() : QString();
}

void frmMain::showTab(const QString& key) {
    for (int i = 0; i < tabServer_->count(); ++i)
        if (tabServer_->widget(i)->objectName() == key) {
            if (tabServer_->currentIndex() == i)
                tabServer_Click(i);
            else
                tabServer_->setCurrentIndex(i);
            return;
        }
}

void frmMain::tabServer_Click(int index) {
    QWidget* page = tabServer_->widget(index);
    if (!page || working_) return;
    const QString key = page->objectName();
    if (Current().lot) UpdateFrmMain();
    if (key == "kLayout") {
        layout_->DisplayVariables();
    } else if (key == "kMetrology") {
        if (Current().lot) {
            Working working(*this);
            metrology_->showRawAnalysis();
        }
    } else if (key == "kExposureTool") {
        if (!toolLibraryIn_) toolLibraryIn_ = tool_->bringInLibrary();
    } else if (key == "kCentering") {
        showCentering();
    }
    SetStatusText("Ready");
}

void frmMain::showCentering() {
    chtCentering_->setGraphic(nullptr);
    centeringChart_ = std::make_unique<cGraphic>();
    const std::shared_ptr<cLot> lot = Current().lot;
    if (!lot || lot->TotalWafers() < 1) return;
    cGraphic& g = *centeringChart_;
    g.Kind = GraphKind::FieldVector;
    g.MapAllFields = true;
    g.WaferKey = lot->Wafers().At(1)->KeyName;
    g.TitleObj.TitleString = lot->LotName + ": sites in the field";
    if (Status st = g.LotData(lot); !st) {
        Report(st.failure());
        return;
    }
    chtCentering_->setGraphic(&g);
    chtCentering_->render();
}

void frmMain::UpdateFrmMain() {
    const std::shared_ptr<cLot> lot = Current().lot;
    if (!lot) return;
    SetStatusText(" Update lot statistics....");
    const double values[] = {lot->DieSizeX / 1000.0,    lot->DieSizeY / 1000.0,    lot->SiteXoffset / 1000.0,
                             lot->SiteYoffset / 1000.0, lot->DieXoffset / 1000.0, lot->DieYoffset / 1000.0,
                             lot->DieXarray,            lot->DieYarray};
    for (size_t i = 0; i < std::size(kCentering); ++i)
        if (auto* e = findChild<QLineEdit*>(kCentering[i].name))
            e->setText(QString::number(values[i], 'g', 8));
    if (auto* size = findChild<QComboBox*>("cmbLotWaferSize")) {
        const QString mm = QString::number(std::lround(lot->WaferSize / 1000.0));
        if (size->findText(mm) < 0) size->addItem(mm);
        size->setCurrentIndex(size->findText(mm));
    }
    if (auto* notch = findChild<QComboBox*>("cmbLotNotch")) {
        // At two decimals against the multiples of pi.
        auto at = [](double v) { return std::lround(v * 100); };
        const long n = at(lot->Notch);
        QString word = "Down";
        if (n == 0) word = "Right";
        else if (n == at(M_PI) || n == at(-M_PI)) word = "Left";
        else if (n == at(M_PI / 2)) word = "Up";
        notch->setCurrentText(word);
    }
}

// ---------------------------------------------------------------- saving

Workbook* frmMain::loadedWorkbook() {
    Workbook* wb = workbook();
    if (wb && Current().lot) return wb;
    MsgBox("Please open a data file first.", vbExclamation, ApplicationTitle());
    return nullptr;
}

bool frmMain::mnuFileSave() {
    if (working_) return false;
    Workbook* wb = loadedWorkbook();
    if (!wb) return false;
    // A legacy workbook is read only: it is saved as a new one.
    if (wb->readOnly()) return mnuFileSaveAs();
    Working working(*this);
    SetWorkbookProperties(*wb);
    if (Status st = wb->save(); !st) {
        Report(st.failure());
        return false;
    }
    SetStatusText("File saved: " + wb->path());
    return true;
}

bool frmMain::mnuFileSaveAs(const QString& path) {
    if (working_) return false;
    Workbook* wb = loadedWorkbook();
    if (!wb) return false;
    QString file = path;
    if (file.isEmpty())
        file = askSave("Save Zorv Workbook as ....", "Spreadsheet (*.xlsx *.xls)", QFileInfo(workbookPath_).path());
    if (file.isEmpty()) return false;
    file = XlsxName(file);
    BusyPointer busy;
    SetWorkbookProperties(*wb);
    wb->setProperty("Subject", "Zorv Wavefront Data Set");
    if (Status st = wb->saveAs(S(file)); !st) {
        Report(st.failure());
        return false;
    }
    workbookPath_ = Q(wb->path());
    Current().lot->FileName = S(QFileInfo(workbookPath_).fileName());
    Current().lot->FilePath = S(QFileInfo(workbookPath_).path());
    setWindowTitle(Q(LoadResString(1686)) + ": " + QFileInfo(workbookPath_).fileName());
    registerRecentFile(workbookPath_);
    SetStatusText("File saved: " + S(workbookPath_));
    return true;
}

bool frmMain::mnuFileSaveAsReticle(const QString& path) {
    if (working_) return false;
    Workbook* wb = loadedWorkbook();
    if (!wb) return false;
    const QString folder = Q(GetSetting(ApplicationTitle(), "Options", "ReticleFolder", ProgramFolder() + "/Reticles"));
    QString file = path;
    if (file.isEmpty()) {
        QDir().mkpath(folder);
        file = askSave("Save Zorv Workbook as a Reticle Workbook....", "Spreadsheet (*.xlt *.XLT)",
                       folder + "/" + QFileInfo(workbookPath_).completeBaseName() + ".xlt");
    }
    if (file.isEmpty()) return false;
    if (QFileInfo(file).suffix().isEmpty()) file += ".xlt";
    BusyPointer busy;
    // The lot's workbook stays where it is: the reticle is a copy.
    const std::string keep = wb->path();
    SetWorkbookProperties(*wb);
    Status st = wb->saveAs(S(file));
    if (Status back = wb->saveAs(keep); st && !back) st = back;
    if (!st) {
        Report(st.failure());
        return false;
    }
    SetStatusText(S(QFileInfo(file).fileName()) + " Saved");
    return true;
}

bool frmMain::mnuSaveAsLayout(const QString& name) {
    if (working_) return false;
    if (!loadedWorkbook()) return false;
    QString n = name;
    if (n.isEmpty()) {
        const QString folder = Q(LayoutTemplateFolder());
        QDir().mkpath(folder);
        n = askSave("Save Layout Template", "Layout template (*.xlsx *.xlt)",
                    folder + "/" + QFileInfo(workbookPath_).completeBaseName());
        if (n.isEmpty()) return false;
        n = QFileInfo(n).completeBaseName();
    }
    Result<std::string> saved = SaveAsLayout(*Current().lot, S(n));
    if (!saved) {
        Report(saved.failure());
        return false;
    }
    SetStatusText("Layout Template saved: " + *saved);
    return true;
}

void frmMain::fillLayoutTemplates() {
    SetStatusText("Update FEM Layout Templates ...");
    mnuRecLayoutTemplates_->clear();
    const std::vector<std::string> files = UpdateLayoutTemplates();
    // The first entry is the list's head.
    for (size_t i = 1; i < files.size(); ++i) {
        QAction* a = mnuRecLayoutTemplates_->addAction(Q(files[i]));
        a->setEnabled(files[i] != "Empty");
        const QString path = Q(LayoutTemplateFolder()) + "/" + Q(files[i]);
        connect(a, &QAction::triggered, this, [this, path] { mnuFileOpenWorksheet(path); });
    }
    SetStatusText("Ready");
}

frmSpreadsheet* frmMain::mnuViewSheet() {
    Workbook* wb = loadedWorkbook();
    if (!wb) return nullptr;
    QString sheet = cmbDataSheet_->currentText();
    if (sheet.isEmpty()) sheet = Q(Current().lot->DataSheetName);
    auto* grid = new frmSpreadsheet;
    grid->Load();
    if (!grid->setSheet(*wb, sheet)) {
        grid->Unload();
        return nullptr;
    }
    grid->show();
    return grid;
}

// ----------------------------------------------------------- the toolbar

void frmMain::copyScreen() { QGuiApplication::clipboard()->setImage(grab().toImage()); }

void frmMain::copyGraphic() {
    QWidget* page = tabServer_->currentWidget();
    ChartView* view = nullptr;
    if (page)
        for (ChartView* v : page->findChildren<ChartView*>())
            if (v->isVisible() && v->graphic()) view = v;
    if (view)
        view->copyToClipboard();
    else
        copyScreen();
}

void frmMain::printGraphic() {
    QWidget* page = tabServer_->currentWidget();
    if (!page) return;
    for (ChartView* v : page->findChildren<ChartView*>())
        if (v->isVisible() && v->graphic()) {
            v->saveAs();
            return;
        }
    MsgBox("No chart is shown on this tab.", vbInformation, ApplicationTitle());
}

// ------------------------------------------------------------ workbenches

ZorvForm* frmMain::showWorkbench(ZorvForm* form, const char* status) {
    if (working_) return nullptr;
    SetStatusText(status);
    if (!form->isLoaded()) form->Load();
    // Back here when the workbench goes.
    if (!form->property("zorvReturnsToMain").toBool()) {
        form->setProperty("zorvReturnsToMain", true);
        QPointer<frmMain> self(this);
        connect(form, &ZorvForm::unloaded, this, [self] {
            if (self && !self->isUnloaded()) self->show();
        });
    }
    form->show();
    form->raise();
    hide();
    SetStatusText("Ready");
    return form;
}

namespace {
// The window of a type from the list of open windows, else a new one.
template <class T>
T* OpenOrNew(QPointer<T>& ref) {
    if (!ref)
        for (ZorvForm* f : Forms())
            if (auto* t = qobject_cast<T*>(f); t && !t->isUnloaded()) ref = t;
    if (!ref) ref = new T;
    return ref;
}
}  // namespace

ZorvForm* frmMain::mnuFocusCalibrate() {
    frmCalibrate* cal = OpenOrNew(forms().frmCalibrate);
    // A window kept from before works on the lot loaded now.
    if (cal->isLoaded() && Current().lot && cal->sourceLot() != Current().lot)
        cal->setLot(Current().lot, Current().workbook);
    return showWorkbench(cal, "Loading Focus Calibration...");
}

ZorvForm* frmMain::mnuFocusUniformity() {
    frmAnalysis* an = OpenOrNew(forms().frmAnalysis);
    if (an->isLoaded() && Current().lot && an->lot() != Current().lot) an->setLot(Current().lot, Current().workbook);
    return showWorkbench(an, "Loading Focus Uniformity ...");
}

ZorvForm* frmMain::mnuProcessWindow() {
    frmProcessWindow* pw = OpenOrNew(forms().frmProcessWindow);
    // A window kept from before works on the lot loaded now.
    if (pw->isLoaded() && pw->sourceLot() != Current().lot) pw->setLot(Current().lot, Current().workbook.get());
    return showWorkbench(pw, "Loading Process Window analysis. . . .");
}

ZorvForm* frmMain::mnuMaskFactor() {
    return showWorkbench(OpenOrNew(forms().frmReticle), "Loading Mask Error Factor analysis...");
}

ZorvForm* frmMain::mnuDailyMonitor() {
    return showWorkbench(OpenOrNew(forms().frmDailyMonitor), "Loading Daily Monitor ...");
}

ZorvForm* frmMain::mnuDailyMonitorSetup() {
    return showWorkbench(OpenOrNew(forms().frmDailyMonitorSetup), "Loading Daily Monitor Setup ...");
}

void frmMain::mnuReturn() {
    if (!caller_) return;
    caller_->setEnabled(true);
    caller_->show();
    caller_->raise();
    hide();
}

// ------------------------------------------------------------ exit, unload

void frmMain::mnuFileExit_Click() {
    QPointer<ZorvForm> caller = caller_;
    {
        BusyPointer busy;
        SetExiting(true);
        if (CloseExcel() == -1) {
            // Cancel: the program stays.
            SetExiting(false);
            return;
        }
        Unload();
        if (caller) {
            caller->mnuFileExit_Click();
            caller = nullptr;
        }
    }
}

void frmMain::formUnload() {
    QPointer<ZorvForm> caller = caller_;
    {
        BusyPointer busy;
        ResetObjects();
        SetExiting(true);
        if (caller) caller->show();
        // A called frmMain leaves the library to its caller.
        ReleaseTemplateLibrary(!caller);
        if (!isMinimized()) savePlace();
        CloseToolLibrary();
        SetStatusText("FrmMain: Unloading forms . . .");
        // From the last window down to the second: the first one opened (the
        // mode's own window) stays, and so does the caller.
        const std::vector<ZorvForm*> open = Forms();
        for (size_t i = open.size(); i-- > 1;) {
            ZorvForm* f = open[i];
            if (f == this || f == caller.data()) continue;
            f->Unload();
        }
    }
    if (caller) {
        caller->setEnabled(true);
        caller->show();
        caller->Reload();
    }
    if (forms().frmMain == this) forms().frmMain = nullptr;
    SetStatusText("Termination ...");
}

}  // namespace zorv::ui
