// Start-up through the desktop host: the real windows, splash and input box.
#include <QInputDialog>
#include <QLabel>
#include <QStatusBar>

#include "app/settings.h"
#include "app/startup.h"
#include "ui/splash.h"
#include "ui_fixture.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;

namespace {

ZorvForm* refOf(ModeWindow w) {
    FormRefs& r = forms();
    switch (w) {
        case ModeWindow::Main: return r.frmMain;
        case ModeWindow::ProcessWindow: return r.frmProcessWindow;
        case ModeWindow::Calibrate: return r.frmCalibrate;
        case ModeWindow::Analysis: return r.frmAnalysis;
        case ModeWindow::Reticle: return r.frmReticle;
        case ModeWindow::DailyMonitor: return r.frmDailyMonitor;
    }
    return nullptr;
}

std::vector<std::string> formNames() {
    std::vector<std::string> n;
    for (ZorvForm* f : Forms()) n.push_back(f->objectName().toStdString());
    return n;
}

}  // namespace

class StartupUi : public UiTest {};

TEST_F(StartupUi, EachWordOpensItsWindowAndSetsTitle) {
    for (const RunMode& m : RunModes()) {
        SetApplicationTitle(kProductName);
        TestHost host(m.word);
        const StartupResult r = ZorvStartup(host);
        ASSERT_FALSE(r.refused);
        ZorvForm* f = refOf(m.window);
        ASSERT_NE(f, nullptr) << m.word;
        EXPECT_EQ(f->objectName().toStdString(), ModeWindowName(m.window));
        EXPECT_TRUE(f->isVisible()) << m.word;
        EXPECT_TRUE(f->isLoaded());
        EXPECT_EQ(ApplicationTitle(), m.title);
        EXPECT_EQ(f->windowTitle().toStdString(), m.title);
        EXPECT_EQ(formNames(), std::vector<std::string>{ModeWindowName(m.window)});
        // The frame every window shares.
        EXPECT_EQ(f->exitAction()->objectName(), "mnuFileExit");
        EXPECT_EQ(f->sbStatusBar()->objectName(), "sbStatusBar");
        EXPECT_NE(f->contentArea(), nullptr);
        // The splash stood during start-up and is gone.
        EXPECT_TRUE(host.splashShown());
        EXPECT_EQ(host.splash(), nullptr);
        if (m.window == ModeWindow::Reticle) {
            EXPECT_TRUE(forms().frmReticle->StandAlone);
        }
        EXPECT_TRUE(rec.boxes.empty());
        CloseAllForms();
        EXPECT_EQ(refOf(m.window), nullptr);
    }
}

TEST_F(StartupUi, TwoWordsOpenTwoWindowsInTableOrder) {
    TestHost host("DMA RET");
    ZorvStartup(host);
    EXPECT_EQ(formNames(), (std::vector<std::string>{"frmReticle", "frmDailyMonitor"}));
    EXPECT_EQ(ApplicationTitle(), "Zorv DM");
    EXPECT_TRUE(forms().frmReticle->isVisible());
    EXPECT_TRUE(forms().frmDailyMonitor->isVisible());
}

TEST_F(StartupUi, LowerCaseWordAndEmptyLine) {
    {
        TestHost host("psfmcal");
        ZorvStartup(host);
        EXPECT_EQ(formNames(), std::vector<std::string>{"frmCalibrate"});
        EXPECT_EQ(ApplicationTitle(), "Zorv PSFM Calibrate");
    }
    CloseAllForms();
    SetApplicationTitle(kProductName);
    {
        TestHost host("");
        ZorvStartup(host);
        EXPECT_EQ(formNames(), std::vector<std::string>{"frmMain"});
        ASSERT_TRUE(forms().frmMain);
        EXPECT_TRUE(forms().frmMain->isVisible());
        EXPECT_EQ(ApplicationTitle(), "Zorv Wavefront Engineering");
        EXPECT_EQ(forms().frmMain->windowTitle(), "Zorv Wavefront Engineering");
    }
}

TEST_F(StartupUi, LineWithoutWordOpensNothing) {
    TestHost host("--no-such-thing");
    const StartupResult r = ZorvStartup(host);
    EXPECT_TRUE(r.opened.empty());
    EXPECT_TRUE(Forms().empty());
    EXPECT_TRUE(rec.boxes.empty());
    EXPECT_EQ(host.splash(), nullptr);
}

TEST_F(StartupUi, MenuAnswersTypedIntoTheInputBox) {
    // The real input box, answered from a timer: 3.5 rounds to 4.
    {
        TestHost host("Palvex");
        host.useRealBox = true;
        QString label, title, def;
        OnNextModal([&](QWidget* w) {
            auto* d = qobject_cast<QInputDialog*>(w);
            ASSERT_NE(d, nullptr);
            label = d->labelText();
            title = d->windowTitle();
            def = d->textValue();
            d->setTextValue("3.5");
            d->accept();
        });
        ZorvStartup(host);
        EXPECT_TRUE(label.startsWith("Program startup: \n1.Zorv MaskFactor\n"));
        EXPECT_TRUE(label.contains("3.Zorv PSFM Fixed-Focus\n4.Zorv PSFM Calibrate\n5.Zorv DM\n6.Zorv Main"));
        EXPECT_EQ(title, "Zorv Wavefront Engineering");
        EXPECT_EQ(def, "2");
        EXPECT_EQ(formNames(), std::vector<std::string>{"frmCalibrate"});
        EXPECT_EQ(GetSetting(ProductName(), kProductName, "StartUp", ""), "3.5");
    }
    CloseAllForms();
    SetApplicationTitle(kProductName);
    // Typed answers: non-numeric asks again; 7 is Main and is kept as typed.
    {
        TestHost host("Palvex");
        host.answers = {"seven", "7"};
        ZorvStartup(host);
        EXPECT_EQ(host.menuCalls, 2);
        EXPECT_EQ(formNames(), std::vector<std::string>{"frmMain"});
        EXPECT_TRUE(forms().frmMain->isVisible());
        EXPECT_EQ(ApplicationTitle(), "Zorv Main");
        EXPECT_EQ(GetSetting(ProductName(), kProductName, "StartUp", ""), "7");
    }
    CloseAllForms();
    SetApplicationTitle(kProductName);
    {
        TestHost host("palvex");
        host.answers = {"2.5"};
        ZorvStartup(host);
        EXPECT_EQ(formNames(), std::vector<std::string>{"frmProcessWindow"});
    }
    CloseAllForms();
    SetApplicationTitle(kProductName);
    // Cancel keeps the line: its RET then opens the reticle window.
    {
        TestHost host("Palvex RET");
        host.useRealBox = true;
        OnNextModal([](QWidget* w) { qobject_cast<QDialog*>(w)->reject(); });
        ZorvStartup(host);
        EXPECT_EQ(formNames(), std::vector<std::string>{"frmReticle"});
        EXPECT_EQ(GetSetting(ProductName(), kProductName, "StartUp", ""), "2.5");
    }
}

TEST_F(StartupUi, SecondInstanceIsRefused) {
    const std::string lock = TestHost::UniqueLock();
    TestHost first("PW", lock);
    ZorvStartup(first);
    EXPECT_EQ(formNames(), std::vector<std::string>{"frmProcessWindow"});
    TestHost second("PW RET", lock);
    const StartupResult r = ZorvStartup(second);
    EXPECT_TRUE(r.refused);
    EXPECT_FALSE(second.splashShown());
    EXPECT_EQ(formNames(), std::vector<std::string>{"frmProcessWindow"});
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("One instance of Zorv Wavefront Engineering is already running on this computer."),
              std::string::npos);
    EXPECT_EQ(rec.boxes[0].flags, vbInformation);
    EXPECT_EQ(rec.boxes[0].title, "Zorv Wavefront Engineering");
}

TEST_F(StartupUi, SplashShowsProductCompanyVersion) {
    frmSplash s;
    EXPECT_EQ(s.objectName(), "frmSplash");
    EXPECT_EQ(s.productText(), "Zorv Wavefront Engineering");
    EXPECT_EQ(s.companyText(), "Palvex");
    EXPECT_EQ(s.versionText(), "Version 5.1.0");
}
