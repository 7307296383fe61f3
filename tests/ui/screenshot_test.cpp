// Pictures of the main window and the splash for a look by eye: written to
// the test folder (frmMain.png, frmSplash.png). Under Xvfb with the xcb
// platform the screen grab shows the window as the display has it.
#include <QGuiApplication>
#include <QImage>
#include <QMenuBar>
#include <QPixmap>
#include <QScreen>
#include <QThread>

#include "app/startup.h"
#include "ui/gui_reporter.h"
#include "ui/splash.h"
#include "ui_fixture.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;

class Screenshot : public UiTest {};

TEST_F(Screenshot, MainWindowAndSplash) {
    GuiReporter gui;
    gui.install();
    TestHost host("Main");
    ZorvStartup(host);
    ASSERT_TRUE(forms().frmMain);
    frmMain* m = forms().frmMain;
    m->resize(960, 640);
    SetStatusText("Ready");
    for (int i = 0; i < 20; ++i) {
        QCoreApplication::processEvents();
        QThread::msleep(10);
    }
    const QString dir = QString::fromUtf8(ZORV_TEST_TMP);
    const QPixmap shot = m->grab();
    EXPECT_FALSE(shot.isNull());
    EXPECT_EQ(shot.size(), m->size());
    EXPECT_TRUE(shot.save(dir + "/frmMain.png"));
    if (QGuiApplication::platformName() == "xcb") {
        QScreen* s = QGuiApplication::primaryScreen();
        ASSERT_NE(s, nullptr);
        EXPECT_TRUE(s->grabWindow(0).save(dir + "/screen.png"));
    }
    // The picture has content: the menu bar, tabs and the status bar differ
    // from the window background.
    const QImage img = shot.toImage();
    EXPECT_NE(img.pixel(5, img.height() - 5), img.pixel(img.width() / 2, img.height() / 2));

    frmSplash splash;
    splash.show();
    QCoreApplication::processEvents();
    EXPECT_TRUE(splash.grab().save(dir + "/frmSplash.png"));
    EXPECT_EQ(m->statusPanelText(), "Ready");
    gui.uninstall();
    SetReporter(&rec);
}
