// The automation start and its closing notice: which lines run the monitor
// without a user, the countdown that closes the notice, and its two buttons.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QPushButton>
#include <QTimer>
#include <vector>

#include "app/settings.h"
#include "ui/dma_mode.h"
#include "ui/dma_notice.h"
#include "ui_fixture.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;

namespace {

const QString kNotice =
    "Analysis of file: lot7.txt Complete.\r\n\r\n1\r\n\r\nSelect 'Log' to display the 'RemoteCall.log' file.\r\n"
    "Select 'Analysis' to display the analysis results.\r\n\r\nThis window will close in ";
const QString kTitle = "Zorv... Automation analysis complete.";
const char* kDMApp = "Zorv Daily Monitor";
const char* kDMSection = "DailyMonitor";

}  // namespace

TEST(DMAMode, LinesThatRunTheMonitorWithoutAUser) {
    // The text after the mode word is what the run gets, switches as typed.
    EXPECT_EQ(DMAAutomationLine("DMA -f a.txt -t b.xls"), std::optional<std::string>(" -f a.txt -t b.xls"));
    EXPECT_EQ(DMAAutomationLine("dma -D \"x y.txt\""), std::optional<std::string>(" -D \"x y.txt\""));
    EXPECT_EQ(DMAAutomationLine("PW DMA -T tpl.xls -o out"), std::optional<std::string>(" -T tpl.xls -o out"));
}

TEST(DMAMode, LinesThatStartTheProgramAsUsual) {
    EXPECT_EQ(DMAAutomationLine(""), std::nullopt);
    EXPECT_EQ(DMAAutomationLine("DMA"), std::nullopt);               // the monitor window, interactive
    EXPECT_EQ(DMAAutomationLine("DMA -o out -x xls"), std::nullopt);  // outputs only: nothing to run
    EXPECT_EQ(DMAAutomationLine("DMA -fx"), std::nullopt);            // "-fx" is no switch
    EXPECT_EQ(DMAAutomationLine("RET -f a.txt"), std::nullopt);
    EXPECT_EQ(DMAAutomationLine("/palvex"), std::nullopt);
    EXPECT_EQ(DMAAutomationLine("/PALVEX"), std::nullopt);
}

TEST(DMAMode, DisplayFromTheEnvironment) {
    EXPECT_TRUE(NoDisplay(nullptr, nullptr, nullptr));
    EXPECT_TRUE(NoDisplay("", "", ""));
    EXPECT_FALSE(NoDisplay(":0", nullptr, nullptr));
    EXPECT_FALSE(NoDisplay(nullptr, "wayland-0", ""));
    EXPECT_FALSE(NoDisplay(":0", nullptr, "xcb"));
    EXPECT_TRUE(NoDisplay(":0", nullptr, "offscreen"));
    EXPECT_TRUE(NoDisplay(nullptr, "wayland-0", "minimal"));
    EXPECT_TRUE(NoDisplay(":0", nullptr, "offscreen:fontengine=freetype"));
}

class DMANotice : public UiTest {};

TEST_F(DMANotice, CountsDownEachTickAndClosesAtZero) {
    frmDMANotice n(kTitle, kNotice, 2);
    EXPECT_EQ(n.objectName(), "frmDMANotice");
    EXPECT_EQ(n.windowTitle(), kTitle);
    EXPECT_EQ(n.timer()->interval(), 1000);
    n.show();
    EXPECT_EQ(n.labelText(), kNotice + "2 seconds.");
    n.tick();
    EXPECT_TRUE(n.isVisible());
    EXPECT_EQ(n.labelText(), kNotice + "1 seconds.");
    n.tick();
    EXPECT_FALSE(n.isVisible());
    EXPECT_EQ(n.result(), QDialog::Accepted);
    EXPECT_FALSE(n.timer()->isActive());
}

TEST_F(DMANotice, ClosesByItselfOnItsTimer) {
    frmDMANotice n(kTitle, kNotice, 2);
    std::vector<QString> seen;
    QObject::connect(n.timer(), &QTimer::timeout, [&] { seen.push_back(n.labelText()); });
    n.show();
    // A generous wait: the count is what is checked, not its speed.
    QElapsedTimer wait;
    wait.start();
    while (n.isVisible() && wait.elapsed() < 20000) QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    EXPECT_FALSE(n.isVisible());
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen[0], kNotice + "1 seconds.");
    EXPECT_TRUE(seen[1].startsWith(kNotice));
}

TEST_F(DMANotice, ButtonsOpenLogAndResultsWithoutStoppingTheCount) {
    const std::string log = std::string(ZORV_TEST_TMP) + "/dma-notice-RemoteCall.Log";
    GetLogFile(log);
    const std::string csv = std::string(ZORV_TEST_TMP) + "/lot7_ZorvDMA.csv";
    const std::string xls = std::string(ZORV_TEST_TMP) + "/lot7_ZorvDMA.xls";
    SaveSetting(kDMApp, kDMSection, "DMA_OutputAsciiPath", csv);
    SaveSetting(kDMApp, kDMSection, "DMA_OutputXLSPath", xls);
    frmDMANotice n(kTitle, kNotice, 60);
    std::vector<QString> opened;
    n.setOpener([&](const QUrl& u) { opened.push_back(u.toLocalFile()); });
    n.show();
    n.logButton()->click();
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0].toStdString(), log);
    n.analysisButton()->click();
    ASSERT_EQ(opened.size(), 3u);
    EXPECT_EQ(opened[1].toStdString(), csv);
    EXPECT_EQ(opened[2].toStdString(), xls);
    EXPECT_TRUE(rec.boxes.empty());
    EXPECT_TRUE(n.isVisible());
    EXPECT_TRUE(n.timer()->isActive());
    EXPECT_EQ(n.secondsLeft(), 60);
}

TEST_F(DMANotice, AnalysisWithoutResultFilesSaysSo) {
    SaveSetting(kDMApp, kDMSection, "DMA_FileName", "lot7.txt");
    frmDMANotice n(kTitle, kNotice, 60);
    int opens = 0;
    n.setOpener([&](const QUrl&) { ++opens; });
    // The run leaves logging on; the answer to a press is still a box.
    SetLogging(true);
    n.analysisButton()->click();
    EXPECT_TRUE(Logging());
    SetLogging(false);
    EXPECT_EQ(opens, 0);
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "No results file listed for: lot7.txt");
}

TEST_F(DMANotice, DisplayTimeFromTheSetting) {
    EXPECT_EQ(frmDMANotice::DisplaySeconds(), 60);  // the default "60.0"
    SaveSetting(kDMApp, kDMSection, "DMA_DisplayTime", "2.6");
    EXPECT_EQ(frmDMANotice::DisplaySeconds(), 3);
    SaveSetting(kDMApp, kDMSection, "DMA_DisplayTime", "15");
    EXPECT_EQ(frmDMANotice::DisplaySeconds(), 15);
    SaveSetting(kDMApp, kDMSection, "DMA_DisplayTime", "soon");
    EXPECT_EQ(frmDMANotice::DisplaySeconds(), 60);
    SaveSetting(kDMApp, kDMSection, "DMA_DisplayTime", "-5");
    EXPECT_EQ(frmDMANotice::DisplaySeconds(), 0);
}
