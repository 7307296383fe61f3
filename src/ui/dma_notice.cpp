#include "ui/dma_notice.h"

#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>

#include "app/settings.h"
#include "base/report.h"
#include "base/text.h"

namespace zorv::ui {

namespace {

constexpr const char* kDMApp = "Zorv Daily Monitor";
constexpr const char* kDMSection = "DailyMonitor";

std::string Setting(const char* key, const std::string& fallback = {}) {
    return GetSetting(kDMApp, kDMSection, key, fallback);
}

}  // namespace

frmDMANotice::frmDMANotice(const QString& title, const QString& notice, int seconds, QWidget* parent)
    : QDialog(parent), notice_(notice), left_(seconds) {
    setObjectName("frmDMANotice");
    setWindowTitle(title);
    open_ = [](const QUrl& url) { QDesktopServices::openUrl(url); };

    lblNotice_ = new QLabel(this);
    lblNotice_->setObjectName("lblNotice");
    lblNotice_->setWordWrap(true);
    auto* buttons = new QDialogButtonBox(this);
    cmdLog_ = buttons->addButton("Log", QDialogButtonBox::ActionRole);
    cmdLog_->setObjectName("cmdLog");
    cmdAnalysis_ = buttons->addButton("Analysis", QDialogButtonBox::ActionRole);
    cmdAnalysis_->setObjectName("cmdAnalysis");
    // Neither button is a default: Enter must not close the notice early.
    cmdLog_->setAutoDefault(false);
    cmdAnalysis_->setAutoDefault(false);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(lblNotice_);
    layout->addWidget(buttons);
    connect(cmdLog_, &QPushButton::clicked, this, &frmDMANotice::showLog);
    connect(cmdAnalysis_, &QPushButton::clicked, this, &frmDMANotice::showLastResults);

    timer_ = new QTimer(this);
    timer_->setInterval(1000);
    connect(timer_, &QTimer::timeout, this, &frmDMANotice::tick);
    timer_->start();
    refresh();
}

int frmDMANotice::DisplaySeconds() {
    const std::string text = Trim(Setting("DMA_DisplayTime", "60.0"));
    double secs = 60.0;
    // Stored with "." whatever the machine's separator: read without the locale.
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), secs);
    if (ec != std::errc() || end == text.data() || !std::isfinite(secs)) secs = 60.0;
    return secs <= 0 ? 0 : static_cast<int>(std::lround(std::min(secs, 1e6)));
}

QString frmDMANotice::labelText() const { return lblNotice_->text(); }

void frmDMANotice::refresh() { lblNotice_->setText(notice_ + QString::number(left_) + " seconds."); }

void frmDMANotice::tick() {
    if (left_ > 0) --left_;
    refresh();
    if (left_ <= 0) {
        timer_->stop();
        accept();
    }
}

void frmDMANotice::showLog() { open_(QUrl::fromLocalFile(QString::fromStdString(GetLogFile()))); }

void frmDMANotice::showLastResults() {
    const std::string ascii = Setting("DMA_OutputAsciiPath");
    const std::string xls = Setting("DMA_OutputXLSPath");
    if (ascii.empty() && xls.empty()) {
        // A box even while the run's logging is on, which would send it to the log.
        const bool wasLogging = Logging();
        SetLogging(false);
        std::string m = "No results file listed for: ";
        MsgBox(m.append(Setting("DMA_FileName")));
        SetLogging(wasLogging);
        return;
    }
    for (const std::string* f : {&ascii, &xls})
        if (!f->empty()) open_(QUrl::fromLocalFile(QString::fromStdString(*f)));
}

}  // namespace zorv::ui
