// frmTemplateMaintenance: the focus calibration template library in a window.
// The Template tab shows one template (its fields, its sites, and its best
// focus: the focus at zero image shift of every site, or the row and column
// models of one best focus set); the Library tab lists the templates and
// saves, copies, renames (with its comment) and deletes them.
//
// Every write goes through the library's own save, which keeps the previous
// file as ZORVpsfm.stp. A library that did not read whole is never saved
// over, and refused input leaves the file as it was.
#pragma once

#include <QString>
#include <memory>
#include <string>

#include "base/datam.h"
#include "ui/forms.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QTabWidget;
class QTableWidget;
class QTreeWidget;

namespace zorv {
class cGraphic;
class cTemplate;
class cTemplateLibrary;
}  // namespace zorv

namespace zorv::ui {

class ChartView;

class frmTemplateMaintenance : public ZorvForm {
    Q_OBJECT
public:
    // `libraryFolder` holds ZORVpsfm.tpl; empty: the program's library (the
    // Templates folder, the one library object of the program).
    explicit frmTemplateMaintenance(QWidget* parent = nullptr, const QString& libraryFolder = {});
    ~frmTemplateMaintenance() override;

    // Set before Load by the workbench that opens the window: its flag, and
    // the template it holds (null when it has not calibrated). A held
    // template that is not in the library is listed first and can be saved.
    bool CalledFromCalibrate = false;
    std::shared_ptr<zorv::cTemplate> CallerTemplate;

    // Load and show; null when the load closed the window (an empty library).
    static frmTemplateMaintenance* Open(QWidget* parent = nullptr, const QString& libraryFolder = {});

    // ---- operations (each also behind its control)
    // frmTempMaint(cmdTemplate): the template named in cmbTemplate into the
    // Template tab. False when there is none of that name.
    bool cmdTemplate();
    // Save: the comment (and, with a new name in txtSaveAs, a copy under that
    // name) into the library file. True when saved.
    bool cmdSaveCalTemplate();
    // Save As: renames the template to txtSaveAs, saves, and closes the window.
    bool cmdSaveAs();
    // Removes the template shown (after the Yes/No question) and saves.
    bool cmdDeleteCalTemplate();

    // ---- what the window holds
    std::shared_ptr<zorv::cTemplate> currentTemplate() const { return tpl_; }
    zorv::cTemplateLibrary& library() const { return *lib_; }
    QString libraryFilePath() const;
    // The library file did not read whole: nothing is written.
    bool libraryReadOnly() const { return readOnly_; }
    zorv::cGraphic* chart() const { return chart_.get(); }

    // ---- controls
    QTabWidget* tabTM() const { return tabTM_; }
    QComboBox* cmbTemplate() const { return cmbTemplate_; }
    QComboBox* cmbDisplayData() const { return cmbDisplayData_; }
    QLabel* lblName() const { return lblName_; }
    QLabel* lblDataSet() const { return lblDataSet_; }
    QLabel* lblReticle() const { return lblReticle_; }
    QLabel* lblDateCreated() const { return lblDateCreated_; }
    QLabel* lblDateModified() const { return lblDateModified_; }
    QLabel* lblSites() const { return lblSites_; }
    QLabel* lblComment() const { return lblComment_; }
    QTableWidget* tblSites() const { return tblSites_; }
    QTableWidget* tblDisplayData() const { return tblDisplayData_; }
    ChartView* chtTemplate() const { return chtTemplate_; }
    QTreeWidget* lstLibrary() const { return lstLibrary_; }
    QLineEdit* txtSaveAs() const { return txtSaveAs_; }
    QPlainTextEdit* txtComment() const { return txtComment_; }
    QPushButton* cmdSave() const { return cmdSave_; }
    QPushButton* cmdRename() const { return cmdRename_; }
    QPushButton* cmdDelete() const { return cmdDelete_; }

protected:
    void formLoad() override;
    WindowPlace place() const override { return {"frmTemplateMaintenance", ""}; }

private:
    QWidget* buildTemplateTab();
    QWidget* buildLibraryTab();
    // cmbTemplate and lstLibrary from the library (and the caller's template),
    // `select` chosen when listed, else the first.
    void refill(const std::string& select);
    void selectInLibrary(const std::string& name);
    void showTemplate();
    void clearTemplate();
    // cmbDisplayData's entry: 0 the sites' best focus, else a best focus set.
    void showDisplayData(int index);
    // The held template of that name (case-insensitive), the caller's too.
    std::shared_ptr<zorv::cTemplate> find(const std::string& name) const;
    bool inLibrary(const std::shared_ptr<zorv::cTemplate>& t) const;
    // Refusals shared by the writing operations: no template, no library to
    // write, a name under 2 characters, a name held by another template
    // (unless the user replaces it). True when the write may go on.
    bool mayWrite(const std::string& name, std::shared_ptr<zorv::cTemplate>& other);
    // SaveTemplate of `t` under its own name; the status and the failure shown.
    bool saveUnderOwnName(const std::string& name);
    std::string commentText() const;
    void setWriteEnabled();

    std::unique_ptr<zorv::cTemplateLibrary> ownLib_;
    zorv::cTemplateLibrary* lib_ = nullptr;
    std::shared_ptr<zorv::cTemplate> tpl_;
    std::unique_ptr<zorv::cGraphic> chart_;
    bool readOnly_ = false;
    bool filling_ = false;

    QTabWidget* tabTM_ = nullptr;
    QComboBox* cmbTemplate_ = nullptr;
    QComboBox* cmbDisplayData_ = nullptr;
    QLabel* lblName_ = nullptr;
    QLabel* lblDataSet_ = nullptr;
    QLabel* lblReticle_ = nullptr;
    QLabel* lblDateCreated_ = nullptr;
    QLabel* lblDateModified_ = nullptr;
    QLabel* lblSites_ = nullptr;
    QLabel* lblComment_ = nullptr;
    QLabel* lblLibraryFile_ = nullptr;
    QTableWidget* tblSites_ = nullptr;
    QTableWidget* tblDisplayData_ = nullptr;
    ChartView* chtTemplate_ = nullptr;
    QTreeWidget* lstLibrary_ = nullptr;
    QLineEdit* txtSaveAs_ = nullptr;
    QPlainTextEdit* txtComment_ = nullptr;
    QPushButton* cmdSave_ = nullptr;
    QPushButton* cmdRename_ = nullptr;
    QPushButton* cmdDelete_ = nullptr;
};

}  // namespace zorv::ui
