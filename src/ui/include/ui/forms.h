// The top-level windows. ZorvForm is the frame every main and workbench
// window shares: a File menu with Exit (and optionally the recent files), a
// central content area that later windows fill, the status bar sbStatusBar
// whose first panel takes the status text, the progress bar, its place kept
// in the settings, and the unload protocol: the question "Are you sure you
// wish to unload?" when the user closes the window, none when code does.
#pragma once

#include <QMainWindow>
#include <QPointer>
#include <QString>
#include <vector>

class QLabel;
class QMenu;
class QAction;
class QProgressBar;
class QStatusBar;
class QVBoxLayout;

namespace zorv::ui {

// How an unload was asked for, with the original codes.
enum UnloadMode {
    vbFormControlMenu = 0,  // the user closed the window (title bar, control menu)
    vbFormCode = 1,         // code closed it
    vbAppWindows = 2,       // the session ends
    vbAppTaskManager = 3,
};

// Where a window keeps its place: section and the prefix of the keys
// Left, Top, Width, Height.
struct WindowPlace {
    QString section;
    QString prefix;
};

class ZorvForm : public QMainWindow {
    Q_OBJECT
public:
    ZorvForm(const QString& objectName, const QString& caption, QWidget* parent = nullptr);
    ~ZorvForm() override;

    // Form_Load: place, captions from the string table, the window's own load.
    // Runs once; showing the window is the caller's business.
    void Load();
    bool isLoaded() const { return loaded_; }
    // Runs the window's own load again (a caller refreshed on return).
    void Reload() { formLoad(); }
    // True once the unload has run (the window is going away).
    bool isUnloaded() const { return unloading_; }
    // Unload by code: no question; the window's unload runs and it is deleted.
    // False when the window refused (it stays).
    bool Unload();

    // Area that holds the window's content.
    QWidget* contentArea() const { return content_; }
    QVBoxLayout* contentLayout() const { return contentLayout_; }
    QMenu* fileMenu() const { return mnuFile_; }
    QMenu* helpMenu() const { return mnuHelp_; }
    // A white drawing surface with a quiet hint, the look of an empty page.
    static QWidget* emptySurface(const QString& objectName, const QString& hint);
    QAction* exitAction() const { return mnuFileExit_; }
    QStatusBar* sbStatusBar() const;
    // Panel 1 of the status bar.
    QString statusPanelText() const;
    void setStatusPanelText(const QString& text);
    // 0..100 shows the bar; a negative value hides it.
    void showProgress(int percent);
    QProgressBar* progressBar() const { return progress_; }

    // Recent files in the File menu, above Exit, from MRU section `section`.
    void setupRecentFiles(const QString& section, int size);
    // Utility(MRU_UpdateFromRegistry): rebuilds the entries from the settings.
    void MRU_UpdateFromRegistry();
    void registerRecentFile(const QString& path);
    int recentFilesSize() const { return mruSize_; }
    const std::vector<QAction*>& recentFileActions() const { return mruActions_; }

    // Whether the user's close asks first (every window but the monitor).
    bool asksOnClose() const { return asksOnClose_; }

    // How the last unload was asked for (-1 before any).
    int lastUnloadMode() const { return lastUnloadMode_; }

    // Marks the session end: closes from now on have mode vbAppWindows.
    static void setSessionEnding(bool on);

public slots:
    // File, Exit: unloads this window.
    virtual void mnuFileExit_Click();
    // Help, About: product, version and company.
    void mnuHelpAbout_Click();

signals:
    // A recent file was chosen.
    void recentFileChosen(const QString& path);
    void unloaded();

protected:
    // Form_QueryUnload: true cancels the unload.
    virtual bool QueryUnload(int unloadMode);
    // Form_Load and Form_Unload of the window itself.
    virtual void formLoad() {}
    virtual void formUnload() {}
    // Where the window keeps its place; an empty section keeps none.
    virtual WindowPlace place() const { return {}; }
    void savePlace();
    void restorePlace();

    void closeEvent(QCloseEvent* e) override;

    bool asksOnClose_ = true;
    // The window's own unload saves its place at its proper step; the frame
    // then leaves it out.
    bool unloadSavesPlace_ = false;

private:
    QWidget* content_ = nullptr;
    QVBoxLayout* contentLayout_ = nullptr;
    QMenu* mnuFile_ = nullptr;
    QMenu* mnuHelp_ = nullptr;
    QAction* mnuFileExit_ = nullptr;
    QAction* mruSeparator_ = nullptr;
    QLabel* panel1_ = nullptr;
    QProgressBar* progress_ = nullptr;
    QString mruSection_;
    int mruSize_ = 0;
    std::vector<QAction*> mruActions_;
    bool loaded_ = false;
    bool unloading_ = false;
    bool byCode_ = false;
    int lastUnloadMode_ = -1;
};

// The platform's list of open windows, in the order they were created.
std::vector<ZorvForm*> Forms();

}  // namespace zorv::ui
