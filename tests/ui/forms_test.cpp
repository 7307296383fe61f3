// The window frame: the close question, frmMain's exit and unload, recent
// files, window places, string captions.
#include <QAbstractButton>
#include <QCloseEvent>
#include <QComboBox>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTabWidget>
#include <QWindow>

#include "app/mru.h"
#include "app/preferences.h"
#include "app/settings.h"
#include "ui/gui_reporter.h"
#include "ui/res_strings.h"
#include "ui_fixture.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;

// The platform's entry for a window-system close (what a click on the title
// bar's close button delivers). Its header is not public; the function is
// exported by QtGui.
class QWindowSystemInterface {
public:
    class SynchronousDelivery;
    template <typename Delivery>
    static bool handleCloseEvent(QWindow* window);
};

namespace {

// Closes the window as the user does; true when it closed.
bool userClose(QWidget* w) {
    w->winId();
    return QWindowSystemInterface::handleCloseEvent<QWindowSystemInterface::SynchronousDelivery>(
        w->windowHandle());
}

template <class F>
F* openForm() {
    auto* f = new F;
    f->Load();
    f->show();
    return f;
}

}  // namespace

class FormsUi : public UiTest {};

TEST_F(FormsUi, UserCloseAsksWithTheRealBox) {
    GuiReporter gui;
    gui.install();
    SetApplicationTitle("Zorv PW");
    QPointer<frmProcessWindow> w = openForm<frmProcessWindow>();
    QString text, title;
    bool question = false, yesNo = false;
    OnNextModal([&](QWidget* m) {
        auto* box = qobject_cast<QMessageBox*>(m);
        ASSERT_NE(box, nullptr);
        text = box->text();
        title = box->windowTitle();
        question = box->icon() == QMessageBox::Question;
        yesNo = box->standardButtons() == (QMessageBox::Yes | QMessageBox::No);
        box->button(QMessageBox::No)->click();
    });
    EXPECT_FALSE(userClose(w));
    EXPECT_EQ(text, "Are you sure you wish to unload?");
    EXPECT_EQ(title, "Zorv PW: shutdown ...");
    EXPECT_TRUE(question);
    EXPECT_TRUE(yesNo);
    ASSERT_TRUE(w);
    EXPECT_EQ(w->lastUnloadMode(), vbFormControlMenu);
    EXPECT_FALSE(w->isUnloaded());

    OnNextModal([](QWidget* m) { qobject_cast<QMessageBox*>(m)->button(QMessageBox::Yes)->click(); });
    EXPECT_TRUE(userClose(w));
    EXPECT_TRUE(w->isUnloaded());
    gui.uninstall();
    SetReporter(&rec);
}

TEST_F(FormsUi, CloseByCodeDoesNotAsk) {
    QPointer<frmCalibrate> a = openForm<frmCalibrate>();
    QPointer<frmAnalysis> b = openForm<frmAnalysis>();
    QPointer<frmReticle> c = openForm<frmReticle>();
    EXPECT_TRUE(a->Unload());
    EXPECT_TRUE(b->close());  // a plain close by code is code too
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_FALSE(a);
    EXPECT_FALSE(b);
    EXPECT_TRUE(rec.boxes.empty());
    // The session's end closes without a question.
    ZorvForm::setSessionEnding(true);
    EXPECT_TRUE(userClose(c));
    ZorvForm::setSessionEnding(false);
    EXPECT_TRUE(rec.boxes.empty());
    // The monitor runs unattended and never asks.
    QPointer<frmDailyMonitor> d = openForm<frmDailyMonitor>();
    EXPECT_TRUE(userClose(d));
    EXPECT_TRUE(rec.boxes.empty());
    // The other windows ask the user: the recorded answer No keeps them.
    for (ZorvForm* f : std::initializer_list<ZorvForm*>{openForm<frmMain>(), openForm<frmProcessWindow>(),
                                                       openForm<frmCalibrate>(), openForm<frmAnalysis>(),
                                                       openForm<frmReticle>()}) {
        rec.boxes.clear();
        rec.answers = {vbNo};
        EXPECT_FALSE(userClose(f)) << f->objectName().toStdString();
        ASSERT_EQ(rec.boxes.size(), 1u);
        EXPECT_EQ(rec.boxes[0].flags, vbYesNo | vbQuestion);
        EXPECT_EQ(rec.boxes[0].title, f->windowTitle().toStdString() + ": shutdown ...");
    }
}

TEST_F(FormsUi, MainExitClosesWorkbooksUnloadsWindowsAndKeepsPlace) {
    SetApplicationTitle("Zorv Main");
    int open = 1, closedAll = 0;
    SetCloseWorkbooksHook({[&] { return open; }, [&] { ++closedAll; }, [] {}});
    QPointer<frmMain> m = openForm<frmMain>();
    forms().frmMain = m;
    QPointer<frmProcessWindow> pw = openForm<frmProcessWindow>();
    QPointer<frmCalibrate> cal = openForm<frmCalibrate>();
    m->resize(900, 600);
    m->move(30, 40);

    // Cancel at "Close all workbooks?": the program stays.
    rec.answers = {vbCancel};
    m->mnuFileExit_Click();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    ASSERT_TRUE(m);
    EXPECT_FALSE(Exiting());
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "Close all workbooks?");

    // Yes: the workbooks close, frmMain and every other window unload, no
    // window asks "Are you sure".
    rec.boxes.clear();
    rec.answers = {vbYes};
    m->mnuFileExit_Click();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(closedAll, 1);
    EXPECT_TRUE(Exiting());
    EXPECT_EQ(rec.boxes.size(), 1u);
    EXPECT_FALSE(m);
    EXPECT_FALSE(pw);
    EXPECT_FALSE(cal);
    EXPECT_FALSE(forms().frmMain);
    EXPECT_TRUE(Forms().empty());
    EXPECT_TRUE(rec.sawStatus("FrmMain: Unloading forms . . ."));
    EXPECT_EQ(rec.statuses.back(), "Termination ...");
    // The place, in twips, in "Settings" of the mode.
    EXPECT_EQ(GetSetting("Zorv Main", "Settings", "MainWidth", ""), std::to_string(900 * 15));
    EXPECT_EQ(GetSetting("Zorv Main", "Settings", "MainHeight", ""), std::to_string(600 * 15));
    EXPECT_EQ(GetSetting("Zorv Main", "Settings", "MainLeft", ""), std::to_string(30 * 15));

    // A new frmMain comes up where the last one was.
    QPointer<frmMain> again = openForm<frmMain>();
    EXPECT_EQ(again->size(), QSize(900, 600));
    EXPECT_EQ(again->pos(), QPoint(30, 40));
}

TEST_F(FormsUi, MainExitFromACalledMainEndsTheCaller) {
    QPointer<frmCalibrate> caller = openForm<frmCalibrate>();
    QPointer<frmMain> m = openForm<frmMain>();
    m->setCaller(caller);
    caller->hide();
    QPointer<frmReticle> other = openForm<frmReticle>();
    m->mnuFileExit_Click();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_FALSE(m);
    EXPECT_FALSE(other);
    EXPECT_FALSE(caller);
    EXPECT_TRUE(rec.boxes.empty());  // no workbook open, no question
}

TEST_F(FormsUi, MainUnloadKeepsTheFirstWindowOfTheProcess) {
    // frmMain opened from the monitor's process: the monitor (first in the
    // list) stays, the windows opened after it go.
    QPointer<frmDailyMonitor> dm = openForm<frmDailyMonitor>();
    QPointer<frmMain> m = openForm<frmMain>();
    QPointer<frmProcessWindow> pw = openForm<frmProcessWindow>();
    ASSERT_TRUE(m->Unload());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_FALSE(m);
    EXPECT_FALSE(pw);
    ASSERT_TRUE(dm);
    EXPECT_EQ(Forms(), std::vector<ZorvForm*>{dm.data()});
}

TEST_F(FormsUi, MainUnloadRunsItsStepsInOrder) {
    SetApplicationTitle("Zorv Main");
    std::vector<std::string> steps;
    QPointer<frmMain> m = openForm<frmMain>();
    QPointer<frmCalibrate> cal = openForm<frmCalibrate>();
    SetTemplateLibraryRelease([&](bool dropLibrary) {
        // The caption is reset and the place not yet saved.
        steps.push_back(std::string("templates ") + (dropLibrary ? "dropped" : "kept") + " caption=" +
                        m->windowTitle().toStdString() + " place=" +
                        GetSetting("Zorv Main", "Settings", "MainWidth", "none"));
    });
    int saved = 0, closed = 0;
    SetToolLibraryHook({[] { return true; }, [] { return true; },
                        [&] { ++saved; },
                        [&] {
                            ++closed;
                            steps.push_back("tool library closed, place " +
                                            std::string(GetSetting("Zorv Main", "Settings", "MainWidth", "")
                                                            .empty() ? "missing" : "saved"));
                        }});
    rec.answers = {vbYes};
    ASSERT_TRUE(m->Unload());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    SetTemplateLibraryRelease({});
    SetToolLibraryHook({});
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_EQ(steps[0], "templates dropped caption=Zorv Wavefront Engineering:  place=none");
    EXPECT_EQ(steps[1], "tool library closed, place saved");
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "The Exposure Tool Library has changed!\r\nSave the current library?");
    EXPECT_EQ(rec.boxes[0].flags & 7, vbYesNo);
    EXPECT_EQ(saved, 1);
    EXPECT_EQ(closed, 1);
    // The other windows go after the library is closed.
    EXPECT_FALSE(cal);
    EXPECT_FALSE(m);
}

TEST_F(FormsUi, RecentFilesInTheFileMenu) {
    SetApplicationTitle("Zorv Main");
    SaveSetting("Zorv Main", "Options", "MRUsize", "2");  // frmMain keeps at least 3
    EXPECT_EQ(frmMain::MRUsize(), 3);
    for (const char* f : {"/d/a.xls", "/d/b.xls", "/d/c.xls", "/d/d.xls"}) MRU_RegisterFile("RecentFiles", f, 3);
    QPointer<frmMain> m = openForm<frmMain>();
    ASSERT_EQ(m->recentFileActions().size(), 3u);
    EXPECT_EQ(m->recentFileActions()[0]->data().toString(), "/d/d.xls");
    EXPECT_EQ(m->recentFileActions()[0]->text(), "&1 d.xls");
    EXPECT_EQ(m->recentFileActions()[2]->data().toString(), "/d/b.xls");
    // A file already listed moves to the top without a double.
    m->registerRecentFile("/d/b.xls");
    ASSERT_EQ(m->recentFileActions().size(), 3u);
    EXPECT_EQ(m->recentFileActions()[0]->data().toString(), "/d/b.xls");
    EXPECT_EQ(m->recentFileActions()[1]->data().toString(), "/d/d.xls");
    // The entries sit in the File menu above Exit.
    const QList<QAction*> acts = m->fileMenu()->actions();
    EXPECT_LT(acts.indexOf(m->recentFileActions()[0]), acts.indexOf(m->exitAction()));
    QString chosen;
    QObject::connect(m, &ZorvForm::recentFileChosen, [&](const QString& p) { chosen = p; });
    m->recentFileActions()[1]->trigger();
    EXPECT_EQ(chosen, "/d/d.xls");
}

TEST_F(FormsUi, StatusProgressAndEscThroughTheGuiReporter) {
    GuiReporter gui;
    gui.install();
    QPointer<frmProcessWindow> w = openForm<frmProcessWindow>();
    w->activateWindow();
    SetStatusText("Calculating statistics ...");
    EXPECT_EQ(w->statusPanelText(), "Calculating statistics ...");
    SetStatusText("done", true);
    EXPECT_EQ(w->statusPanelText(), "Calculating statistics ... done");
    EXPECT_EQ(StatusText(), "Calculating statistics ... done");
    ShowProgress(40);
    EXPECT_TRUE(w->progressBar()->isVisible());
    EXPECT_EQ(w->progressBar()->value(), 40);
    ShowProgress(250);
    EXPECT_EQ(w->progressBar()->value(), 100);
    ShowProgress(-1);
    EXPECT_FALSE(w->progressBar()->isVisible());
    {
        BusyPointer busy;
        ASSERT_NE(QApplication::overrideCursor(), nullptr);
        EXPECT_EQ(QApplication::overrideCursor()->shape(), Qt::WaitCursor);
    }
    EXPECT_EQ(QApplication::overrideCursor(), nullptr);
    // Esc in a program window sets the cancel flag once.
    EXPECT_FALSE(CheckEscKey());
    QKeyEvent esc(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
    QApplication::sendEvent(w->contentArea(), &esc);
    EXPECT_TRUE(CheckEscKey());
    EXPECT_FALSE(CheckEscKey());
    EXPECT_EQ(gui.beeps(), 3);
    gui.uninstall();
    SetReporter(&rec);
}

TEST_F(FormsUi, MessageBoxButtonsIconsAndAnswers) {
    GuiReporter gui;
    gui.install();
    struct Case {
        int flags;
        QMessageBox::StandardButton click;
        int answer;
        QMessageBox::Icon icon;
    } cases[] = {
        {vbOKOnly | vbInformation, QMessageBox::Ok, vbOK, QMessageBox::Information},
        {vbYesNoCancel | vbQuestion, QMessageBox::Yes, vbYes, QMessageBox::Question},
        {vbYesNoCancel | vbQuestion, QMessageBox::No, vbNo, QMessageBox::Question},
        {vbYesNoCancel | vbQuestion, QMessageBox::Cancel, vbCancel, QMessageBox::Question},
        {vbOKCancel | vbExclamation, QMessageBox::Cancel, vbCancel, QMessageBox::Warning},
        {vbAbortRetryIgnore, QMessageBox::Ignore, vbIgnore, QMessageBox::NoIcon},
        {vbRetryCancel | vbCritical, QMessageBox::Retry, vbRetry, QMessageBox::Critical},
    };
    for (const Case& c : cases) {
        QMessageBox::Icon icon = QMessageBox::NoIcon;
        QString text;
        OnNextModal([&](QWidget* m) {
            auto* box = qobject_cast<QMessageBox*>(m);
            icon = box->icon();
            text = box->text();
            box->button(c.click)->click();
        });
        EXPECT_EQ(gui.showBox("line one\r\nline two", c.flags, "Zorv"), c.answer) << c.flags;
        EXPECT_EQ(icon, c.icon) << c.flags;
        EXPECT_EQ(text, "line one\nline two");
    }
    // Default button: 256 is the second.
    QAbstractButton* def = nullptr;
    QAbstractButton* no = nullptr;
    OnNextModal([&](QWidget* m) {
        auto* box = qobject_cast<QMessageBox*>(m);
        def = box->defaultButton();
        no = box->button(QMessageBox::No);
        box->button(QMessageBox::Yes)->click();
    });
    EXPECT_EQ(gui.showBox("?", vbYesNo | vbQuestion | 256, "Zorv"), vbYes);
    EXPECT_EQ(def, no);
    gui.uninstall();
    SetReporter(&rec);
}

TEST_F(FormsUi, LoadResStringsReplacesNumbersOnly) {
    QWidget w;
    w.setWindowTitle("1686");
    auto* l1 = new QLabel("1642", &w);
    auto* l2 = new QLabel("12.5", &w);
    auto* l3 = new QLabel("Focus", &w);
    auto* b = new QPushButton("x", &w);
    b->setProperty("tag", 2074);
    auto* c = new QComboBox(&w);
    c->addItems({"6055", "6057", "Other"});
    auto* t = new QTabWidget(&w);
    t->addTab(new QWidget, "2075");
    auto* menu = new QMenu("1686", &w);
    QAction* a = menu->addAction("1642");
    EXPECT_EQ(LoadResStrings(&w), 8);
    EXPECT_EQ(w.windowTitle(), "Zorv Wavefront Engineering");
    EXPECT_EQ(l1->text(), "Close all workbooks?");
    EXPECT_EQ(l2->text(), "12.5");
    EXPECT_EQ(l3->text(), "Focus");
    EXPECT_EQ(b->text(), "The Exposure Tool Library has changed!");
    EXPECT_EQ(c->itemText(0), "Focus polynomial");
    EXPECT_EQ(c->itemText(1), "Dose polynomial");
    EXPECT_EQ(c->itemText(2), "Other");
    EXPECT_EQ(t->tabText(0), "Save the current library?");
    EXPECT_EQ(menu->title(), "Zorv Wavefront Engineering");
    EXPECT_EQ(a->text(), "Close all workbooks?");
}

TEST_F(FormsUi, PictureBoxesTakeTheirBackgroundFromTheSettings) {
    SetApplicationTitle("Zorv Main");
    SaveSetting("Zorv Main", "DisplayBackground", "pctLayout", "not a colour");
    {
        QPointer<frmMain> m = openForm<frmMain>();
        auto* layout = m->findChild<QWidget*>("pctLayout");
        ASSERT_TRUE(layout);
        const QImage img = layout->grab().toImage();
        EXPECT_EQ(QColor(img.pixel(3, 3)), QColor(Qt::white));
        m->Unload();
    }
    SaveSetting("Zorv Main", "DisplayBackground", "pctLayout", std::to_string(0x336699));  // &HBBGGRR
    QPointer<frmMain> m = openForm<frmMain>();
    auto* layout = m->findChild<QWidget*>("pctLayout");
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->palette().color(QPalette::Window), QColor(0x99, 0x66, 0x33));
    // The picture draws on it.
    const QImage img = layout->grab().toImage();
    EXPECT_EQ(QColor(img.pixel(3, 3)), QColor(0x99, 0x66, 0x33));
}

TEST_F(FormsUi, WorkbenchKeepsItsPlace) {
    SetApplicationTitle("Zorv PW");
    {
        QPointer<frmProcessWindow> w = openForm<frmProcessWindow>();
        w->resize(800, 520);
        w->move(64, 48);
        w->Unload();
    }
    int x = 0, y = 0, wd = 0, h = 0;
    EXPECT_TRUE(LoadWindowRect("PWformSize", "", x, y, wd, h));
    EXPECT_EQ(wd, 800);
    EXPECT_EQ(h, 520);
    QPointer<frmProcessWindow> w = openForm<frmProcessWindow>();
    EXPECT_EQ(w->size(), QSize(800, 520));
    EXPECT_EQ(w->pos(), QPoint(64, 48));
}
