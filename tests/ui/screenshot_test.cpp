// Pictures of the main window and the splash for a look by eye: written to
// the test folder (frmMain.png, frmSplash.png). Under Xvfb with the xcb
// platform the screen grab shows the window as the display has it.
#include <QGuiApplication>
#include <QImage>
#include <QMenuBar>
#include <QPixmap>
#include <QScreen>
#include <QTabWidget>
#include <QThread>
#include <filesystem>
#include <set>

#include "app/startup.h"
#include "ui/chart_view.h"
#include "ui/gui_reporter.h"
#include "ui/metrology_panel.h"
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

// Every tab of the main window, and every raw plot, on the sample lots:
// frmMain-<lot>-<tab>.png in the test folder. Each picture must hold more
// than the window's background.
TEST_F(Screenshot, MainWindowTabsOnTheSampleLots) {
    GuiReporter gui;
    gui.install();
    const std::filesystem::path dir = std::filesystem::path(ZORV_TEST_TMP) / "shots";
    std::filesystem::create_directories(dir);
    for (const char* sample : {"SampleOverlay", "SampleCD"}) {
        // A copy: the window may change the workbook in memory.
        const std::filesystem::path book = dir / (std::string(sample) + ".xlsx");
        std::filesystem::copy_file(std::filesystem::path(ZORV_DATA_DIR) / "samples" / (std::string(sample) + ".xlsx"),
                                   book, std::filesystem::copy_options::overwrite_existing);
        auto* m = new frmMain;
        m->Load();
        m->resize(1280, 860);
        m->show();
        ASSERT_TRUE(m->mnuFileOpenWorksheet(QString::fromStdString(book.string())));
        auto shoot = [&](const QString& name) {
            QCoreApplication::processEvents();
            const QImage img = m->grab().toImage();
            ASSERT_FALSE(img.isNull());
            EXPECT_TRUE(img.save(QString::fromStdString(dir.string()) + "/frmMain-" + sample + "-" + name + ".png"));
            // The middle of the page is drawn on, not empty.
            std::set<QRgb> colours;
            for (int x = img.width() / 4; x < img.width() * 3 / 4; x += 7)
                for (int y = img.height() / 4; y < img.height() * 3 / 4; y += 7) colours.insert(img.pixel(x, y));
            EXPECT_GT(colours.size(), 3u) << sample << " " << name.toStdString();
        };
        for (const char* key : {"kLayout", "kExposureTool", "kCentering"}) {
            m->showTab(key);
            shoot(key);
        }
        m->showTab("kMetrology");
        QTabWidget* inner = m->metrologyPanel()->tabs();
        for (int i = 0; i < inner->count(); ++i) {
            inner->setCurrentIndex(i);
            auto* v = qobject_cast<ChartView*>(inner->widget(i));
            ASSERT_NE(v, nullptr);
            shoot(QString("kMetrology-%1").arg(i));
            EXPECT_TRUE(v->failureText().isEmpty()) << sample << " " << i << ": " << v->failureText().toStdString();
        }
        m->Unload();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    gui.uninstall();
    SetReporter(&rec);
}
