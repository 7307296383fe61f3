#include "ui/forms.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QFileInfo>
#include <QFrame>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QProgressBar>
#include <QScreen>
#include <QStatusBar>
#include <QVBoxLayout>

#include "base/identity.h"
#include "app/mru.h"
#include "app/preferences.h"
#include "base/report.h"
#include "app/settings.h"
#include "ui/res_strings.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {

std::vector<QPointer<ZorvForm>>& formList() {
    static std::vector<QPointer<ZorvForm>> f;
    return f;
}

bool g_sessionEnding = false;


}  // namespace

std::vector<ZorvForm*> Forms() {
    std::vector<ZorvForm*> out;
    for (auto& p : formList())
        if (p) out.push_back(p.data());
    return out;
}

void ZorvForm::setSessionEnding(bool on) { g_sessionEnding = on; }

ZorvForm::ZorvForm(const QString& objectName, const QString& caption, QWidget* parent)
    : QMainWindow(parent) {
    setObjectName(objectName);
    setWindowTitle(caption);
    setAttribute(Qt::WA_DeleteOnClose);

    mnuFile_ = menuBar()->addMenu(tr("&File"));
    mnuFile_->setObjectName("mnuFile");
    mruSeparator_ = mnuFile_->addSeparator();
    mruSeparator_->setVisible(false);
    mnuFileExit_ = mnuFile_->addAction(tr("E&xit"));
    mnuFileExit_->setObjectName("mnuFileExit");
    mnuFileExit_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    connect(mnuFileExit_, &QAction::triggered, this, [this] { mnuFileExit_Click(); });

    mnuHelp_ = menuBar()->addMenu(tr("&Help"));
    mnuHelp_->setObjectName("mnuHelp");
    QAction* about = mnuHelp_->addAction(tr("&About %1...").arg(QString::fromUtf8(kProductName)));
    about->setObjectName("mnuHelpAbout");
    connect(about, &QAction::triggered, this, [this] { mnuHelpAbout_Click(); });

    content_ = new QWidget(this);
    content_->setObjectName("contentArea");
    contentLayout_ = new QVBoxLayout(content_);
    contentLayout_->setContentsMargins(6, 6, 6, 6);
    setCentralWidget(content_);

    auto* sb = new QStatusBar(this);
    sb->setObjectName("sbStatusBar");
    setStatusBar(sb);
    panel1_ = new QLabel(sb);
    panel1_->setObjectName("sbStatusBarPanel1");
    panel1_->setMinimumWidth(200);
    panel1_->setContentsMargins(4, 0, 4, 0);
    sb->addWidget(panel1_, 1);
    progress_ = new QProgressBar(sb);
    progress_->setObjectName("sbProgress");
    progress_->setRange(0, 100);
    progress_->setMaximumWidth(180);
    progress_->setMaximumHeight(16);
    progress_->setTextVisible(false);
    progress_->hide();
    sb->addPermanentWidget(progress_);

    formList().emplace_back(this);
}

ZorvForm::~ZorvForm() {
    auto& l = formList();
    for (auto it = l.begin(); it != l.end();) {
        if (!*it || it->data() == this)
            it = l.erase(it);
        else
            ++it;
    }
}

QStatusBar* ZorvForm::sbStatusBar() const { return statusBar(); }

QString ZorvForm::statusPanelText() const { return panel1_->text(); }

void ZorvForm::setStatusPanelText(const QString& text) {
    panel1_->setText(text);
    // Painted when events next run (the reporter runs them in long work).
    panel1_->update();
}

void ZorvForm::showProgress(int percent) {
    if (percent < 0) {
        progress_->hide();
        return;
    }
    progress_->setValue(std::min(100, percent));
    progress_->show();
}

void ZorvForm::Load() {
    if (loaded_) return;
    loaded_ = true;
    restorePlace();
    LoadResStrings(this);
    formLoad();
}

bool ZorvForm::Unload() {
    byCode_ = true;
    const bool closed = close();
    byCode_ = false;
    return closed;
}

bool ZorvForm::QueryUnload(int unloadMode) {
    if (unloadMode != vbFormControlMenu || !asksOnClose_) return false;
    const int answer = MsgBox("Are you sure you wish to unload?", vbYesNo | vbQuestion,
                              S(windowTitle()) + ": shutdown ...");
    return answer == vbNo;
}

void ZorvForm::closeEvent(QCloseEvent* e) {
    if (unloading_) {
        e->accept();
        return;
    }
    int mode = vbFormCode;
    if (g_sessionEnding)
        mode = vbAppWindows;
    else if (!byCode_ && e->spontaneous())
        mode = vbFormControlMenu;
    lastUnloadMode_ = mode;
    if (QueryUnload(mode)) {
        e->ignore();
        return;
    }
    unloading_ = true;
    if (!unloadSavesPlace_ && !isMinimized()) savePlace();
    formUnload();
    emit unloaded();
    e->accept();
}

void ZorvForm::mnuFileExit_Click() { Unload(); }

void ZorvForm::mnuHelpAbout_Click() {
    MsgBox(ProductName() + "\r\nVersion " + VersionString() + "\r\n\r\n" + kCompanyName, vbInformation,
           "About " + ApplicationTitle());
}

QWidget* ZorvForm::emptySurface(const QString& objectName, const QString& hint) {
    auto* page = new QWidget;
    auto* outer = new QVBoxLayout(page);
    outer->setContentsMargins(4, 6, 4, 4);
    auto* surface = new QFrame(page);
    surface->setObjectName(objectName);
    surface->setFrameShape(QFrame::StyledPanel);
    surface->setFrameShadow(QFrame::Sunken);
    surface->setAutoFillBackground(true);
    QPalette pal = surface->palette();
    pal.setColor(QPalette::Window, Qt::white);
    surface->setPalette(pal);
    auto* inner = new QVBoxLayout(surface);
    auto* lbl = new QLabel(hint, surface);
    lbl->setObjectName(objectName + "Hint");
    lbl->setAlignment(Qt::AlignCenter);
    lbl->setWordWrap(true);
    QPalette lp = lbl->palette();
    lp.setColor(QPalette::WindowText, QColor(0x8a, 0x8f, 0x98));
    lbl->setPalette(lp);
    inner->addWidget(lbl);
    outer->addWidget(surface);
    return page;
}

void ZorvForm::savePlace() {
    const WindowPlace p = place();
    if (p.section.isEmpty()) return;
    // Left and top of the frame (what move() takes), size of the client area
    // (what resize() takes), both of the normal state.
    const QRect g = normalGeometry().isValid() ? normalGeometry() : geometry();
    const QPoint frame = geometry().topLeft() - frameGeometry().topLeft();
    SaveWindowRect(S(p.section), S(p.prefix), g.x() - frame.x(), g.y() - frame.y(), g.width(), g.height());
}

void ZorvForm::restorePlace() {
    const WindowPlace p = place();
    if (p.section.isEmpty()) return;
    int x = 0, y = 0, w = width(), h = height();
    const bool placed = LoadWindowRect(S(p.section), S(p.prefix), x, y, w, h);
    resize(QSize(w, h).expandedTo(minimumSize()));
    // A stored place counts only on a screen that exists now; else centre.
    if (placed && QGuiApplication::screenAt(QPoint(x + 20, y + 20))) {
        move(x, y);
    } else if (QScreen* scr = QGuiApplication::primaryScreen()) {
        const QRect a = scr->availableGeometry();
        move(a.x() + (a.width() - width()) / 2, a.y() + (a.height() - height()) / 2);
    }
}

void ZorvForm::setupRecentFiles(const QString& section, int size) {
    mruSection_ = section;
    mruSize_ = size;
    MRU_UpdateFromRegistry();
}

void ZorvForm::MRU_UpdateFromRegistry() {
    for (QAction* a : mruActions_) {
        mnuFile_->removeAction(a);
        a->deleteLater();
    }
    mruActions_.clear();
    if (mruSection_.isEmpty()) {
        mruSeparator_->setVisible(false);
        return;
    }
    const std::vector<std::string> files = MRU_List(S(mruSection_), mruSize_);
    int n = 0;
    for (const std::string& f : files) {
        const QString path = QString::fromStdString(f);
        auto* a = new QAction(QString("&%1 %2").arg(++n).arg(QFileInfo(path).fileName()), mnuFile_);
        a->setObjectName(QString("mnuRecentFile%1").arg(n));
        a->setToolTip(path);
        a->setStatusTip(path);
        a->setData(path);
        connect(a, &QAction::triggered, this, [this, path] { emit recentFileChosen(path); });
        mnuFile_->insertAction(mruSeparator_, a);
        mruActions_.push_back(a);
    }
    mruSeparator_->setVisible(!mruActions_.empty());
}

void ZorvForm::registerRecentFile(const QString& path) {
    if (mruSection_.isEmpty()) return;
    MRU_RegisterFile(S(mruSection_), S(path), mruSize_);
    MRU_UpdateFromRegistry();
}

}  // namespace zorv::ui
