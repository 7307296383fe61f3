// frmOptionsDM: the options of the daily monitor. Its folders, the run log
// and its size limit, and the batch lists: data files gathered from a folder
// by a pattern or dropped from the desktop, stored as a batch sheet of a
// template workbook, and batch sheets deleted again.
#pragma once

#include <QString>
#include <QStringList>
#include <QTableWidget>
#include <functional>
#include <memory>

#include "monitor/dm_options.h"
#include "ui/forms.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTabWidget;

namespace zorv {
class Workbook;
}

namespace zorv::ui {

// lstBatchFiles: the "File", "Folder" table that takes files dropped on it.
class BatchFileList : public QTableWidget {
    Q_OBJECT
public:
    explicit BatchFileList(QWidget* parent = nullptr);
    // Adds rows (no doubles); answers how many were new.
    int addFiles(const zorv::BatchList& files);
    zorv::BatchList files() const;

signals:
    // Local paths dropped on the table.
    void pathsDropped(const QStringList& paths);

protected:
    void dragEnterEvent(QDragEnterEvent* e) override;
    void dragMoveEvent(QDragMoveEvent* e) override;
    void dropEvent(QDropEvent* e) override;
};

class frmOptionsDM : public ZorvForm {
    Q_OBJECT
public:
    explicit frmOptionsDM(QWidget* parent = nullptr);
    ~frmOptionsDM() override;

    enum Tab { kFolders = 0, kLogging = 1, kBatch = 2 };

    // The browse buttons ask through this when set (tests, scripts): title,
    // filter and start in, the path out ("" cancels). An empty filter asks
    // for a folder.
    using FileAsker = std::function<QString(const QString& title, const QString& filter, const QString& start)>;
    static void setFileAsker(FileAsker asker);

    // DMcommon(BatchFile): with show, the window on its batch tab with the
    // workbook and sheet; with del, the sheet (all batch sheets when empty)
    // deleted after the question. Answers the window (made when needed).
    static frmOptionsDM* BatchFile(const QString& workbook, bool show, bool del, const QString& sheet);

    // The controls from the settings, and back. ApplyOptions checks every
    // entry first: a bad one is reported and nothing is written.
    void LoadOptions();
    bool ApplyOptions();
    zorv::DMOptions options() const;  // what the controls hold now

    // ---- batch
    // The template workbook that holds the batch lists; fills cmbBatch.
    bool OpenBatchWorkbook(const QString& path);
    // frmDM(GetBatchSheets): cmbBatch from the workbook; answers how many.
    int GetBatchSheets();
    // The rows of the batch chosen in cmbBatch into the table.
    void LoadBatch();
    // cmdBatchGetFile: the files of txtBatchFolder by the pattern; answers
    // how many were added, -1 on failure.
    int cmdBatchGetFile();
    // Files (and the files of folders, by the pattern) into the table.
    int addBatchPaths(const QStringList& paths);
    // The table to the sheet named in cmbBatch of the workbook.
    bool SaveBatch();
    // The batch of cmbBatch, or every batch with all; answers how many sheets
    // went (0 when the answer was No), -1 on failure.
    int DeleteBatch(bool all);
    QString batchWorkbookPath() const;

    // ---- controls
    QTabWidget* tabs() const { return tabs_; }
    QLineEdit* txtTemplateFolder() const { return txtTemplateFolder_; }
    QLineEdit* txtDataFolder() const { return txtDataFolder_; }
    QLineEdit* txtReticleFolder() const { return txtReticleFolder_; }
    QCheckBox* chkStoreInDataDirectory() const { return chkStoreInDataDirectory_; }
    QLineEdit* txtDataStorageDirectory() const { return txtDataStorageDirectory_; }
    QComboBox* cmbImportFilter() const { return cmbImportFilter_; }
    QCheckBox* chkLogData() const { return chkLogData_; }
    QLineEdit* txtLogFolder() const { return txtLogFolder_; }
    QCheckBox* chkLimitFileSize() const { return chkLimitFileSize_; }
    QLineEdit* txtMaxLines() const { return txtMaxLines_; }
    QLineEdit* txtMinLines() const { return txtMinLines_; }
    QLineEdit* txtDisplayTime() const { return txtDisplayTime_; }
    QLabel* lblLogRule() const { return lblLogRule_; }
    QLineEdit* txtBatchWorkbook() const { return txtBatchWorkbook_; }
    QComboBox* cmbBatch() const { return cmbBatch_; }
    QLineEdit* txtBatchFolder() const { return txtBatchFolder_; }
    QComboBox* cmbFileType() const { return cmbFileType_; }
    BatchFileList* lstBatchFiles() const { return lstBatchFiles_; }

protected:
    void formLoad() override;
    WindowPlace place() const override;

private:
    QWidget* buildFolders();
    QWidget* buildLogging();
    QWidget* buildBatch();
    QWidget* folderRow(QLineEdit*& edit, const char* name, const QString& title);
    QString askFolder(const QString& title, const QString& start);
    QString askFile(const QString& title, const QString& filter, const QString& start);
    void updateLogRule();
    void updateBatchButtons();
    QString pattern() const;
    // The workbook of txtBatchWorkbook, opened once; failures reported.
    zorv::Workbook* batchWorkbook();
    void releaseWorkbook();

    std::shared_ptr<zorv::Workbook> wb_;
    bool ownsWorkbook_ = false;  // opened here, so closed here

    QTabWidget* tabs_ = nullptr;
    QLineEdit* txtTemplateFolder_ = nullptr;
    QLineEdit* txtDataFolder_ = nullptr;
    QLineEdit* txtReticleFolder_ = nullptr;
    QCheckBox* chkStoreInDataDirectory_ = nullptr;
    QLineEdit* txtDataStorageDirectory_ = nullptr;
    QComboBox* cmbImportFilter_ = nullptr;
    QCheckBox* chkLogData_ = nullptr;
    QLineEdit* txtLogFolder_ = nullptr;
    QCheckBox* chkLimitFileSize_ = nullptr;
    QLineEdit* txtMaxLines_ = nullptr;
    QLineEdit* txtMinLines_ = nullptr;
    QLineEdit* txtDisplayTime_ = nullptr;
    QLabel* lblLogRule_ = nullptr;
    QLineEdit* txtBatchWorkbook_ = nullptr;
    QComboBox* cmbBatch_ = nullptr;
    QLineEdit* txtBatchFolder_ = nullptr;
    QComboBox* cmbFileType_ = nullptr;
    QPushButton* cmdBatchGetFile_ = nullptr;
    QPushButton* cmdBatchRemove_ = nullptr;
    QPushButton* cmdBatchClear_ = nullptr;
    QPushButton* cmdBatchSave_ = nullptr;
    QPushButton* cmdBatchDelete_ = nullptr;
    QPushButton* cmdBatchDeleteAll_ = nullptr;
    QLabel* lblBatchCount_ = nullptr;
    BatchFileList* lstBatchFiles_ = nullptr;
};

}  // namespace zorv::ui
