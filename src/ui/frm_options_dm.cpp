#include "ui/frm_options_dm.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPushButton>
#include <QTabWidget>
#include <QUrl>
#include <QVBoxLayout>
#include <cmath>
#include <filesystem>
#include <set>

#include "app/settings.h"
#include "base/identity.h"
#include "base/report.h"
#include "base/text.h"
#include "import/import.h"
#include "monitor/dm_automation.h"
#include "monitor/dm_run.h"
#include "ui/qtext.h"
#include "workbook/store.h"

namespace zorv::ui {

namespace fs = std::filesystem;

namespace {

frmOptionsDM::FileAsker& fileAsker() {
    static frmOptionsDM::FileAsker a;
    return a;
}

// The patterns of cmbFileType; "FileType" keeps the index.
const char* const kPatterns[] = {"*.*", "*.txt", "*.csv", "*.dat", "*.msr", "*.xls;*.xlsx"};

const char kWorkbookFilter[] = "Zorv Template (*.xlt *.xls *.xltx *.xlsx *.XLT *.XLS *.XLTX *.XLSX)";

QPushButton* Button(const QString& text, const char* name, const QString& tip = {}) {
    auto* b = new QPushButton(text);
    b->setObjectName(name);
    if (!tip.isEmpty()) b->setToolTip(tip);
    return b;
}


// Message texts built by appending (long + chains upset GCC 12's -Wrestrict).
template <class... T>
std::string Cat(const T&... parts) {
    std::string s;
    (s.append(parts), ...);
    return s;
}

bool ReadWhole(const QString& text, long& v) {
    bool ok = false;
    v = text.trimmed().toLong(&ok);
    return ok;
}

}  // namespace

// ---------------------------------------------------------- BatchFileList

BatchFileList::BatchFileList(QWidget* parent) : QTableWidget(0, 2, parent) {
    setHorizontalHeaderLabels({"File", "Folder"});
    setAcceptDrops(true);
    viewport()->setAcceptDrops(true);
    setDragDropMode(QAbstractItemView::DropOnly);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setAlternatingRowColors(true);
    verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 6);
    horizontalHeader()->setSectionResizeMode(0, QHeaderView::Interactive);
    horizontalHeader()->setStretchLastSection(true);
    setColumnWidth(0, 220);
}

int BatchFileList::addFiles(const BatchList& files) {
    std::set<std::pair<QString, QString>> have;
    for (int r = 0; r < rowCount(); ++r) have.emplace(item(r, 0)->text(), item(r, 1)->text());
    int added = 0;
    for (const auto& [file, folder] : files) {
        if (!have.emplace(Q(file), Q(folder)).second) continue;
        const int r = rowCount();
        insertRow(r);
        setItem(r, 0, new QTableWidgetItem(Q(file)));
        auto* where = new QTableWidgetItem(Q(folder));
        where->setToolTip(Q(folder));
        setItem(r, 1, where);
        ++added;
    }
    return added;
}

BatchList BatchFileList::files() const {
    BatchList out;
    for (int r = 0; r < rowCount(); ++r) out.emplace_back(S(item(r, 0)->text()), S(item(r, 1)->text()));
    return out;
}

void BatchFileList::dragEnterEvent(QDragEnterEvent* e) {
    if (e->mimeData()->hasUrls()) e->acceptProposedAction();
}

void BatchFileList::dragMoveEvent(QDragMoveEvent* e) {
    if (e->mimeData()->hasUrls()) e->acceptProposedAction();
}

void BatchFileList::dropEvent(QDropEvent* e) {
    QStringList paths;
    for (const QUrl& u : e->mimeData()->urls())
        if (u.isLocalFile()) paths << u.toLocalFile();
    if (paths.isEmpty()) return;
    e->acceptProposedAction();
    emit pathsDropped(paths);
}

// ----------------------------------------------------------- frmOptionsDM

void frmOptionsDM::setFileAsker(FileAsker asker) { fileAsker() = std::move(asker); }

frmOptionsDM::frmOptionsDM(QWidget* parent) : ZorvForm("frmOptionsDM", "Daily Monitor Options", parent) {
    // An options window closes without the unload question.
    asksOnClose_ = false;
    setMinimumSize(560, 420);
    resize(720, 520);

    tabs_ = new QTabWidget;
    tabs_->setObjectName("tabOptionsDM");
    tabs_->addTab(buildFolders(), tr("Folders"));
    tabs_->addTab(buildLogging(), tr("Logging"));
    tabs_->addTab(buildBatch(), tr("Batch"));
    contentLayout()->addWidget(tabs_, 1);

    auto* buttons = new QDialogButtonBox;
    QPushButton* ok = buttons->addButton(QDialogButtonBox::Ok);
    ok->setObjectName("cmdOK");
    QPushButton* cancel = buttons->addButton(QDialogButtonBox::Cancel);
    cancel->setObjectName("cmdCancel");
    QPushButton* apply = buttons->addButton(QDialogButtonBox::Apply);
    apply->setObjectName("cmdApply");
    contentLayout()->addWidget(buttons);
    connect(ok, &QPushButton::clicked, this, [this] {
        if (ApplyOptions()) Unload();
    });
    connect(cancel, &QPushButton::clicked, this, [this] { Unload(); });
    connect(apply, &QPushButton::clicked, this, [this] { ApplyOptions(); });
}

frmOptionsDM::~frmOptionsDM() { releaseWorkbook(); }

WindowPlace frmOptionsDM::place() const { return {"frmOptionsDM", ""}; }

void frmOptionsDM::formLoad() { LoadOptions(); }

QWidget* frmOptionsDM::folderRow(QLineEdit*& edit, const char* name, const QString& title) {
    auto* row = new QWidget;
    auto* h = new QHBoxLayout(row);
    h->setContentsMargins(0, 0, 0, 0);
    edit = new QLineEdit;
    edit->setObjectName(name);
    edit->setMinimumWidth(320);
    h->addWidget(edit, 1);
    auto* browse = Button(tr("Browse..."), (std::string("cmdBrowse_") + name).c_str(), title);
    QLineEdit* target = edit;
    connect(browse, &QPushButton::clicked, this, [this, target, title] {
        const QString chosen = askFolder(title, target->text());
        if (!chosen.isEmpty()) target->setText(QDir::toNativeSeparators(chosen));
    });
    h->addWidget(browse);
    return row;
}

QWidget* frmOptionsDM::buildFolders() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* box = new QGroupBox(tr("Default folders"));
    auto* form = new QFormLayout(box);
    form->addRow("The default Template Folder:", folderRow(txtTemplateFolder_, "txtTemplateFolder", tr("Template folder")));
    form->addRow("The default Data Folder:", folderRow(txtDataFolder_, "txtDataFolder", tr("Data folder")));
    form->addRow("The default Reticle Folder:", folderRow(txtReticleFolder_, "txtReticleFolder", tr("Reticle folder")));
    v->addWidget(box);

    auto* store = new QGroupBox(tr("Imported data workbooks"));
    auto* sf = new QFormLayout(store);
    chkStoreInDataDirectory_ = new QCheckBox(tr("Store each data workbook beside its data file"));
    chkStoreInDataDirectory_->setObjectName("chkStoreInDataDirectory");
    sf->addRow(chkStoreInDataDirectory_);
    QWidget* storeRow =
        folderRow(txtDataStorageDirectory_, "txtDataStorageDirectory", tr("Folder for the data workbooks"));
    sf->addRow(tr("Else store them in:"), storeRow);
    cmbImportFilter_ = new QComboBox;
    cmbImportFilter_->setObjectName("cmbImportFilter");
    cmbImportFilter_->addItem(QString());  // none: told from each file
    const Datam& formats = FormatTable();
    for (int r = 1; r <= formats.rowUb(); ++r) cmbImportFilter_->addItem(Q(formats(r, 0).toString()));
    cmbImportFilter_->setItemText(0, tr("(detected from the file)"));
    sf->addRow(tr("Default data import:"), cmbImportFilter_);
    v->addWidget(store);
    v->addStretch(1);
    connect(chkStoreInDataDirectory_, &QCheckBox::toggled, storeRow, [storeRow](bool on) { storeRow->setEnabled(!on); });
    return page;
}

QWidget* frmOptionsDM::buildLogging() {
    auto* page = new QWidget;
    auto* v = new QVBoxLayout(page);
    auto* box = new QGroupBox(tr("Analysis log"));
    auto* form = new QFormLayout(box);
    chkLogData_ = new QCheckBox(tr("Log each analysis step to 'RemoteCall.Log'"));
    chkLogData_->setObjectName("chkLogData");
    form->addRow(chkLogData_);
    form->addRow(tr("Log folder:"), folderRow(txtLogFolder_, "txtLogFolder", tr("Folder of the log")));
    txtLogFolder_->setPlaceholderText(tr("the program folder"));
    v->addWidget(box);

    auto* size = new QGroupBox(tr("Log size"));
    auto* sf = new QFormLayout(size);
    chkLimitFileSize_ = new QCheckBox(tr("Limit the size of the log"));
    chkLimitFileSize_->setObjectName("chkLimitFileSize");
    sf->addRow(chkLimitFileSize_);
    txtMaxLines_ = new QLineEdit;
    txtMaxLines_->setObjectName("txtMaxLines");
    txtMaxLines_->setMaximumWidth(100);
    txtMaxLines_->setToolTip(tr("-1: the lines kept plus 150"));
    sf->addRow(tr("Cut the log above (lines):"), txtMaxLines_);
    txtMinLines_ = new QLineEdit;
    txtMinLines_->setObjectName("txtMinLines");
    txtMinLines_->setMaximumWidth(100);
    txtMinLines_->setToolTip(tr("At least 150"));
    sf->addRow(tr("Lines kept after a cut:"), txtMinLines_);
    lblLogRule_ = new QLabel;
    lblLogRule_->setObjectName("lblLogRule");
    lblLogRule_->setWordWrap(true);
    lblLogRule_->setStyleSheet("color: #555;");
    sf->addRow(lblLogRule_);
    v->addWidget(size);

    auto* dma = new QGroupBox(tr("Automation"));
    auto* df = new QFormLayout(dma);
    txtDisplayTime_ = new QLineEdit;
    txtDisplayTime_->setObjectName("txtDisplayTime");
    txtDisplayTime_->setMaximumWidth(100);
    df->addRow(tr("Closing notice stays (seconds):"), txtDisplayTime_);
    v->addWidget(dma);
    v->addStretch(1);

    connect(chkLimitFileSize_, &QCheckBox::toggled, this, [this] { updateLogRule(); });
    connect(txtMaxLines_, &QLineEdit::textChanged, this, [this] { updateLogRule(); });
    connect(txtMinLines_, &QLineEdit::textChanged, this, [this] { updateLogRule(); });
    return page;
}

QWidget* frmOptionsDM::buildBatch() {
    auto* page = new QWidget;
    page->setObjectName("tabBatch");
    auto* v = new QVBoxLayout(page);

    auto* store = new QGroupBox(tr("Batch list"));
    auto* sf = new QGridLayout(store);
    sf->addWidget(new QLabel(tr("Template workbook:")), 0, 0);
    txtBatchWorkbook_ = new QLineEdit;
    txtBatchWorkbook_->setObjectName("txtBatchWorkbook");
    txtBatchWorkbook_->setPlaceholderText(tr("the template that keeps the batch lists"));
    sf->addWidget(txtBatchWorkbook_, 0, 1, 1, 3);
    auto* browseWb = Button(tr("Browse..."), "cmdBrowseBatchWorkbook");
    sf->addWidget(browseWb, 0, 4);
    sf->addWidget(new QLabel(tr("Batch:")), 1, 0);
    cmbBatch_ = new QComboBox;
    cmbBatch_->setObjectName("cmbBatch");
    cmbBatch_->setEditable(true);
    cmbBatch_->setInsertPolicy(QComboBox::NoInsert);
    cmbBatch_->setToolTip(tr("A batch list of the workbook, or a new name"));
    sf->addWidget(cmbBatch_, 1, 1);
    cmdBatchSave_ = Button(tr("Save Batch"), "cmdBatchSave", tr("Store the files below as this batch"));
    cmdBatchDelete_ = Button(tr("Delete Batch"), "cmdBatchDelete");
    cmdBatchDeleteAll_ = Button(tr("Delete All"), "cmdBatchDeleteAll", tr("Delete every batch list of the workbook"));
    sf->addWidget(cmdBatchSave_, 1, 2);
    sf->addWidget(cmdBatchDelete_, 1, 3);
    sf->addWidget(cmdBatchDeleteAll_, 1, 4);
    sf->setColumnStretch(1, 1);
    v->addWidget(store);

    auto* get = new QGroupBox(tr("Data files"));
    auto* gv = new QVBoxLayout(get);
    auto* row = new QHBoxLayout;
    row->addWidget(new QLabel(tr("Folder:")));
    QWidget* folder = folderRow(txtBatchFolder_, "txtBatchFolder", tr("Folder of the data files"));
    row->addWidget(folder, 1);
    row->addWidget(new QLabel(tr("Files:")));
    cmbFileType_ = new QComboBox;
    cmbFileType_->setObjectName("cmbFileType");
    cmbFileType_->setEditable(true);
    cmbFileType_->setInsertPolicy(QComboBox::NoInsert);
    for (const char* p : kPatterns) cmbFileType_->addItem(p);
    cmbFileType_->setMinimumContentsLength(10);
    row->addWidget(cmbFileType_);
    cmdBatchGetFile_ = Button(tr("Get Files"), "cmdBatchGetFile", tr("Add the files of the folder that fit the pattern"));
    row->addWidget(cmdBatchGetFile_);
    gv->addLayout(row);
    lstBatchFiles_ = new BatchFileList;
    lstBatchFiles_->setObjectName("lstBatchFiles");
    lstBatchFiles_->setToolTip(tr("Drop data files or folders here"));
    gv->addWidget(lstBatchFiles_, 1);
    auto* below = new QHBoxLayout;
    lblBatchCount_ = new QLabel;
    lblBatchCount_->setObjectName("lblBatchCount");
    below->addWidget(lblBatchCount_, 1);
    cmdBatchRemove_ = Button(tr("Remove"), "cmdBatchRemove", tr("Take the selected files off the list"));
    cmdBatchClear_ = Button(tr("Clear"), "cmdBatchClear");
    below->addWidget(cmdBatchRemove_);
    below->addWidget(cmdBatchClear_);
    gv->addLayout(below);
    v->addWidget(get, 1);

    connect(browseWb, &QPushButton::clicked, this, [this] {
        const QString path = askFile(tr("Template workbook of the batch lists"), kWorkbookFilter,
                                     txtBatchWorkbook_->text().isEmpty() ? txtTemplateFolder_->text() : txtBatchWorkbook_->text());
        if (!path.isEmpty()) OpenBatchWorkbook(path);
    });
    connect(txtBatchWorkbook_, &QLineEdit::editingFinished, this, [this] {
        if (!wb_ || Q(wb_->path()) != txtBatchWorkbook_->text().trimmed()) OpenBatchWorkbook(txtBatchWorkbook_->text());
    });
    connect(cmbBatch_, &QComboBox::activated, this, [this] { LoadBatch(); });
    connect(cmbBatch_, &QComboBox::editTextChanged, this, [this] { updateBatchButtons(); });
    connect(cmdBatchGetFile_, &QPushButton::clicked, this, [this] { cmdBatchGetFile(); });
    connect(cmdBatchSave_, &QPushButton::clicked, this, [this] { SaveBatch(); });
    connect(cmdBatchDelete_, &QPushButton::clicked, this, [this] { DeleteBatch(false); });
    connect(cmdBatchDeleteAll_, &QPushButton::clicked, this, [this] { DeleteBatch(true); });
    connect(cmdBatchRemove_, &QPushButton::clicked, this, [this] {
        std::set<int, std::greater<int>> rows;
        for (const QModelIndex& i : lstBatchFiles_->selectionModel()->selectedRows()) rows.insert(i.row());
        for (int r : rows) lstBatchFiles_->removeRow(r);
        updateBatchButtons();
    });
    connect(cmdBatchClear_, &QPushButton::clicked, this, [this] {
        lstBatchFiles_->setRowCount(0);
        updateBatchButtons();
    });
    connect(lstBatchFiles_, &BatchFileList::pathsDropped, this, [this](const QStringList& p) { addBatchPaths(p); });
    connect(lstBatchFiles_->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            [this] { updateBatchButtons(); });
    return page;
}

// ------------------------------------------------------------ asking

QString frmOptionsDM::askFolder(const QString& title, const QString& start) {
    if (fileAsker()) return fileAsker()(title, {}, start);
    return QFileDialog::getExistingDirectory(this, title, start);
}

QString frmOptionsDM::askFile(const QString& title, const QString& filter, const QString& start) {
    if (fileAsker()) return fileAsker()(title, filter, start);
    return QFileDialog::getOpenFileName(this, title, start, filter);
}

// ----------------------------------------------------------- settings

void frmOptionsDM::LoadOptions() {
    const DMOptions o = LoadDMOptions();
    txtTemplateFolder_->setText(Q(o.templateFolder));
    txtDataFolder_->setText(Q(o.dataFolder));
    txtReticleFolder_->setText(Q(o.reticleFolder));
    txtDataStorageDirectory_->setText(Q(o.dataStorageDirectory));
    chkStoreInDataDirectory_->setChecked(o.storeInDataDirectory);
    txtDataStorageDirectory_->parentWidget()->setEnabled(!o.storeInDataDirectory);
    const int filter = o.importFilter.empty() ? 0 : cmbImportFilter_->findText(Q(o.importFilter));
    cmbImportFilter_->setCurrentIndex(filter < 0 ? 0 : filter);
    chkLogData_->setChecked(o.logData);
    txtLogFolder_->setText(Q(o.logFolder));
    chkLimitFileSize_->setChecked(o.limitFileSize);
    txtMaxLines_->setText(QString::number(o.maxLines));
    txtMinLines_->setText(QString::number(o.minLines));
    txtDisplayTime_->setText(QString::number(o.displayTime));
    txtBatchFolder_->setText(Q(o.batchFolder));
    bool isIndex = false;
    const int type = Q(o.fileType).toInt(&isIndex);
    if (isIndex && type >= 0 && type < cmbFileType_->count())
        cmbFileType_->setCurrentIndex(type);
    else
        cmbFileType_->setEditText(o.fileType.empty() ? QString("*.*") : Q(o.fileType));
    // The batch lists live in the template last used.
    if (!wb_) {
        std::string tpl = GetSetting(kDMSettingsApp, "DailyMonitor", "TemplateName");
        if (!tpl.empty() && fs::path(tpl).is_relative()) tpl = (fs::path(o.templateFolder) / tpl).string();
        std::error_code ec;
        if (!tpl.empty() && fs::is_regular_file(tpl, ec)) {
            txtBatchWorkbook_->setText(Q(tpl));
            if (Workbook* wb = batchWorkbook(); wb && !o.batchName.empty()) {
                GetBatchSheets();
                const int i = cmbBatch_->findText(Q(o.batchName), Qt::MatchFixedString);
                if (i >= 0) {
                    cmbBatch_->setCurrentIndex(i);
                    LoadBatch();
                }
            }
        }
    }
    updateLogRule();
    updateBatchButtons();
}

DMOptions frmOptionsDM::options() const {
    DMOptions o = LoadDMOptions();
    o.templateFolder = S(txtTemplateFolder_->text().trimmed());
    o.dataFolder = S(txtDataFolder_->text().trimmed());
    o.reticleFolder = S(txtReticleFolder_->text().trimmed());
    o.dataStorageDirectory = NormaliseStoragePath(S(txtDataStorageDirectory_->text().trimmed()));
    o.storeInDataDirectory = chkStoreInDataDirectory_->isChecked();
    o.importFilter = cmbImportFilter_->currentIndex() > 0 ? S(cmbImportFilter_->currentText()) : std::string();
    o.logData = chkLogData_->isChecked();
    o.logFolder = S(txtLogFolder_->text().trimmed());
    o.limitFileSize = chkLimitFileSize_->isChecked();
    ReadWhole(txtMaxLines_->text(), o.maxLines);
    ReadWhole(txtMinLines_->text(), o.minLines);
    ReadNumber(txtDisplayTime_->text(), o.displayTime);
    o.batchFolder = S(txtBatchFolder_->text().trimmed());
    const int type = cmbFileType_->findText(cmbFileType_->currentText().trimmed());
    o.fileType = type >= 0 ? std::to_string(type) : S(cmbFileType_->currentText().trimmed());
    const QString batch = cmbBatch_->currentText().trimmed();
    if (!batch.isEmpty()) o.batchName = S(batch);
    return o;
}

bool frmOptionsDM::ApplyOptions() {
    Proc p("frmOptionsDM(ApplyOptions): ");
    // Every entry is checked before anything is written.
    p.chk = 1;
    long lines = 0;
    for (QLineEdit* e : {txtMaxLines_, txtMinLines_})
        if (!ReadWhole(e->text(), lines) || lines < -1) {
            tabs_->setCurrentIndex(kLogging);
            e->setFocus();
            Report(p.fail(Cat("The number of log lines must be a whole number: '", S(e->text()), "'")));
            return false;
        }
    double secs = 0;
    if (!ReadNumber(txtDisplayTime_->text(), secs) || secs < 0) {
        tabs_->setCurrentIndex(kLogging);
        txtDisplayTime_->setFocus();
        Report(p.fail(Cat("The display time must be a number of seconds: '", S(txtDisplayTime_->text()), "'")));
        return false;
    }
    p.chk = 2;
    const DMOptions o = options();
    const std::pair<const char*, std::string> folders[] = {
        {"The default Template Folder:", o.templateFolder},
        {"The default Data Folder:", o.dataFolder},
        {"The default Reticle Folder:", o.reticleFolder},
        {"The data storage folder:", o.storeInDataDirectory ? std::string() : StorageFolderOnDisk(o.dataStorageDirectory)},
        {"The log folder:", o.logFolder}};
    // None is made unless all can be.
    for (const auto& [label, folder] : folders)
        if (!DMFolderCanBeMade(folder)) {
            tabs_->setCurrentIndex(std::string(label) == "The log folder:" ? kLogging : kFolders);
            if (Status st = EnsureDMFolder(label, folder); !st) Report(st.failure());
            p.quiet();
            return false;
        }
    p.chk = 3;
    for (const auto& [label, folder] : folders)
        if (Status st = EnsureDMFolder(label, folder); !st) {
            Report(st.failure());
            p.quiet();
            return false;
        }
    SaveDMOptions(o);
    if (!LastSettingsError().empty()) {
        Report(p.fail(LastSettingsError()));
        return false;
    }
    SetStatusText("Daily Monitor options saved.");
    return true;
}

void frmOptionsDM::updateLogRule() {
    long minLines = 0, maxLines = 0;
    if (!chkLimitFileSize_->isChecked()) {
        lblLogRule_->setText(tr("The log grows without limit."));
    } else if (!ReadWhole(txtMinLines_->text(), minLines) || !ReadWhole(txtMaxLines_->text(), maxLines)) {
        lblLogRule_->setText(tr("Enter whole numbers of lines."));
    } else {
        LogLineLimits(minLines, maxLines);
        lblLogRule_->setText(tr("After a run the log is cut once it passes %1 lines: it keeps its newest %2 lines, "
                                "the older lines go to 'RemoteCall.BAK'.")
                                 .arg(maxLines)
                                 .arg(minLines));
    }
    txtMaxLines_->setEnabled(chkLimitFileSize_->isChecked());
    txtMinLines_->setEnabled(chkLimitFileSize_->isChecked());
}

// --------------------------------------------------------------- batch

QString frmOptionsDM::batchWorkbookPath() const { return txtBatchWorkbook_->text().trimmed(); }

QString frmOptionsDM::pattern() const {
    const QString p = cmbFileType_->currentText().trimmed();
    return p.isEmpty() ? QString("*.*") : p;
}

void frmOptionsDM::releaseWorkbook() {
    if (wb_ && ownsWorkbook_) Workbooks::Close(wb_);
    wb_.reset();
    ownsWorkbook_ = false;
}

Workbook* frmOptionsDM::batchWorkbook() {
    const QString path = batchWorkbookPath();
    if (wb_ && Q(wb_->path()) == path) return wb_.get();
    releaseWorkbook();
    Proc p("frmOptionsDM(BatchWorkbook): ");
    if (path.isEmpty()) {
        Report(p.fail("A workbook for batch storage was not specified."));
        return nullptr;
    }
    const bool wasOpen = Workbooks::Find(S(path)) != nullptr;
    auto opened = Workbooks::Open(S(path));
    if (!opened) {
        p.quiet();
        Report(opened.failure());
        return nullptr;
    }
    wb_ = *opened;
    ownsWorkbook_ = !wasOpen;
    return wb_.get();
}

bool frmOptionsDM::OpenBatchWorkbook(const QString& path) {
    txtBatchWorkbook_->setText(QDir::toNativeSeparators(path.trimmed()));
    cmbBatch_->clear();
    if (!batchWorkbook()) {
        updateBatchButtons();
        return false;
    }
    GetBatchSheets();
    LoadBatch();
    return true;
}

int frmOptionsDM::GetBatchSheets() {
    const QString keep = cmbBatch_->currentText();
    cmbBatch_->clear();
    int n = 0;
    if (wb_)
        for (const std::string& s : zorv::GetBatchSheets(*wb_)) {
            cmbBatch_->addItem(Q(s));
            ++n;
        }
    const int i = cmbBatch_->findText(keep, Qt::MatchFixedString);
    if (i >= 0) cmbBatch_->setCurrentIndex(i);
    updateBatchButtons();
    return n;
}

void frmOptionsDM::LoadBatch() {
    const QString sheet = cmbBatch_->currentText().trimmed();
    if (!wb_ || sheet.isEmpty() || cmbBatch_->findText(sheet, Qt::MatchFixedString) < 0) return;
    lstBatchFiles_->setRowCount(0);
    lstBatchFiles_->addFiles(ReadBatchSheet(*wb_, S(sheet)));
    updateBatchButtons();
}

int frmOptionsDM::cmdBatchGetFile() {
    auto listed = ListBatchFiles(S(txtBatchFolder_->text().trimmed()), S(pattern()));
    if (!listed) {
        Report(listed.failure());
        txtBatchFolder_->setFocus();
        return -1;
    }
    const int added = lstBatchFiles_->addFiles(*listed);
    SetStatusText(Cat(std::to_string(listed->size()), " files fit '", S(pattern()), "'."));
    updateBatchButtons();
    return added;
}

int frmOptionsDM::addBatchPaths(const QStringList& paths) {
    BatchList files;
    for (const QString& path : paths) {
        const QFileInfo fi(path);
        if (fi.isDir()) {
            if (auto listed = ListBatchFiles(S(fi.absoluteFilePath()), S(pattern())))
                files.insert(files.end(), listed->begin(), listed->end());
        } else if (fi.isFile()) {
            files.emplace_back(S(fi.fileName()), S(QDir::toNativeSeparators(fi.absolutePath())));
        }
    }
    const int added = lstBatchFiles_->addFiles(files);
    updateBatchButtons();
    return added;
}

bool frmOptionsDM::SaveBatch() {
    Proc p("frmOptionsDM(SaveBatch): ");
    p.chk = 1;
    const BatchList files = lstBatchFiles_->files();
    if (files.empty()) {
        Report(p.fail("No files selected for Batch Processing"));
        return false;
    }
    p.chk = 2;
    if (batchWorkbookPath().isEmpty()) {
        Report(p.fail("A workbook for batch storage was not specified."));
        return false;
    }
    // The sheet keeps its name without blanks, as the store writes it.
    const std::string sheet = Replace(Trim(S(cmbBatch_->currentText())), " ", "");
    if (sheet.empty() || !Workbook::validSheetName(sheet)) {
        Report(p.fail("Please name the batch: a sheet name of 1 to 31 characters without []:*?/\\"));
        return false;
    }
    Workbook* wb = batchWorkbook();
    if (!wb) {
        p.quiet();
        return false;
    }
    p.chk = 3;
    // A sheet of the template that is not a batch list is never overwritten.
    if (wb->sheet(sheet)) {
        bool isBatch = false;
        for (const std::string& s : zorv::GetBatchSheets(*wb)) isBatch = isBatch || IEquals(s, sheet);
        if (!isBatch) {
            Report(p.fail(Cat("Sheet '", sheet, "' of '", wb->name(), "' is not a batch list.")));
            return false;
        }
    }
    p.chk = 4;
    if (Status st = SaveBatchSheet(*wb, sheet, files); !st) {
        p.quiet();
        Report(st.failure());
        // The copy in memory goes, so the next look reads the file as it is.
        if (ownsWorkbook_) releaseWorkbook();
        return false;
    }
    SaveSetting(kDMSettingsApp, "Batch", "BatchName", sheet);
    SaveSetting(kDMSettingsApp, "Batch", "Folder", S(txtBatchFolder_->text().trimmed()));
    cmbBatch_->setEditText(Q(sheet));
    GetBatchSheets();
    std::string m = "Batch list saved to: '";
    m.append(sheet).append("' in '").append(wb->name()).append("'");
    SetStatusText(m);
    MsgBox(m, vbInformation, ProductName());
    return true;
}

int frmOptionsDM::DeleteBatch(bool all) {
    Proc p("DMcommon(BatchFile): ");
    Workbook* wb = batchWorkbook();
    if (!wb) {
        p.quiet();
        return -1;
    }
    const std::string sheet = all ? std::string() : Trim(S(cmbBatch_->currentText()));
    if (!all) {
        bool isBatch = false;
        for (const std::string& s : zorv::GetBatchSheets(*wb)) isBatch = isBatch || IEquals(s, sheet);
        if (!isBatch) {
            Report(p.fail(Cat("No batch list '", sheet, "' in '", wb->name(), "'.")));
            return -1;
        }
    }
    auto gone = zorv::DeleteBatch(*wb, sheet, {});
    if (!gone) {
        Report(gone.failure());
        if (ownsWorkbook_) releaseWorkbook();
        return -1;
    }
    if (*gone > 0) {
        lstBatchFiles_->setRowCount(0);
        cmbBatch_->setEditText(QString());
        GetBatchSheets();
        SetStatusText(Cat(std::to_string(*gone), *gone == 1 ? " batch list deleted." : " batch lists deleted."));
    }
    return *gone;
}

void frmOptionsDM::updateBatchButtons() {
    const int n = lstBatchFiles_->rowCount();
    lblBatchCount_->setText(n == 0 ? tr("No files. Get them from a folder or drop them here.")
                                   : n == 1 ? tr("1 file") : tr("%1 files").arg(n));
    cmdBatchRemove_->setEnabled(lstBatchFiles_->selectionModel()->hasSelection());
    cmdBatchClear_->setEnabled(n > 0);
    const bool listed = cmbBatch_->findText(cmbBatch_->currentText().trimmed(), Qt::MatchFixedString) >= 0 &&
                        !cmbBatch_->currentText().trimmed().isEmpty();
    cmdBatchDelete_->setEnabled(wb_ && listed);
    cmdBatchDeleteAll_->setEnabled(wb_ && cmbBatch_->count() > 0);
}

frmOptionsDM* frmOptionsDM::BatchFile(const QString& workbook, bool show, bool del, const QString& sheet) {
    frmOptionsDM* f = nullptr;
    for (ZorvForm* w : Forms())
        if (auto* o = qobject_cast<frmOptionsDM*>(w); o && !o->isUnloaded()) f = o;
    if (!f) {
        f = new frmOptionsDM;
        f->Load();
    }
    if (!workbook.isEmpty()) f->OpenBatchWorkbook(workbook);
    if (!sheet.isEmpty()) {
        const int i = f->cmbBatch_->findText(sheet, Qt::MatchFixedString);
        if (i >= 0) {
            f->cmbBatch_->setCurrentIndex(i);
            f->LoadBatch();
        } else {
            f->cmbBatch_->setEditText(sheet);
        }
    }
    if (del) f->DeleteBatch(sheet.isEmpty());
    if (show) {
        f->tabs_->setCurrentIndex(kBatch);
        f->show();
        f->raise();
    }
    return f;
}

}  // namespace zorv::ui
