// frmDMANotice: the closing notice of an automation run. It counts down the
// seconds it stays, a tick a second, and closes itself at zero; "Log" and
// "Analysis" open the log and the last results without stopping the count.
#pragma once

#include <QDialog>
#include <QString>
#include <QUrl>
#include <functional>

class QLabel;
class QPushButton;
class QTimer;

namespace zorv::ui {

class frmDMANotice : public QDialog {
    Q_OBJECT
public:
    using Opener = std::function<void(const QUrl&)>;

    // notice: the text before the seconds (it ends "This window will close in ").
    frmDMANotice(const QString& title, const QString& notice, int seconds, QWidget* parent = nullptr);

    // "DMA_DisplayTime" rounded to whole seconds; a text that is no number
    // gives the default 60.
    static int DisplaySeconds();

    int secondsLeft() const { return left_; }
    QString labelText() const;
    QPushButton* logButton() const { return cmdLog_; }
    QPushButton* analysisButton() const { return cmdAnalysis_; }
    QTimer* timer() const { return timer_; }
    // How files are opened (the desktop's handler unless replaced).
    void setOpener(Opener open) { open_ = std::move(open); }

public slots:
    // One second gone; at zero the notice closes.
    void tick();
    // The log file.
    void showLog();
    // frmDM(ViewLastResults): the result files of the last run.
    void showLastResults();

private:
    void refresh();

    QString notice_;
    int left_;
    QLabel* lblNotice_;
    QPushButton* cmdLog_;
    QPushButton* cmdAnalysis_;
    QTimer* timer_;
    Opener open_;
};

}  // namespace zorv::ui
