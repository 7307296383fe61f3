// The desktop program's reporter: boxes as QMessageBox, the status text in
// the first panel of the active window's status bar, progress in its
// progress bar, the busy cursor, Esc through an application event filter.
#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <functional>
#include <string>

#include "base/report.h"

class QWidget;

namespace zorv::ui {

class GuiReporter : public QObject, public Reporter {
    Q_OBJECT
public:
    explicit GuiReporter(QObject* parent = nullptr);
    ~GuiReporter() override;

    // Installs this reporter and the Esc filter on the application.
    void install();
    void uninstall();

    int showBox(const std::string& message, int flags, const std::string& title) override;
    void status(const std::string& text) override;
    std::string currentStatus() const override;
    void progress(int percent) override;
    void busy(bool on) override;
    void beep() override;
    void openUrl(const std::string& url) override;
    // A prompt that asks for a password hides what is typed.
    std::string inputBox(const std::string& prompt, const std::string& title, const std::string& def) override;

    // Box buttons and answers: flags & 7 pick the buttons, flags & 0x70 the
    // icon, 256/512 the default button.
    static int answerOf(int standardButton);

    // Beeps count here too (tests of CheckEscKey).
    int beeps() const { return beeps_; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QWidget* targetWindow() const;
    // Runs pending events at most every few tens of milliseconds: a loop that
    // reports every hundred rows stays responsive without spending its time
    // on repaints.
    void pumpEvents();
    QElapsedTimer pumped_;
    std::string last_;
    int beeps_ = 0;
    bool installed_ = false;
};

// While it lives, status texts and progress go nowhere (boxes still reach
// the user). A drawing that runs from a paint event holds one: the status
// line runs pending events, and a paint must not paint from inside itself.
class QuietStatus : public Reporter {
public:
    QuietStatus() : prev_(CurrentReporter()) { SetReporter(this); }
    ~QuietStatus() override { SetReporter(&prev_); }
    QuietStatus(const QuietStatus&) = delete;
    QuietStatus& operator=(const QuietStatus&) = delete;
    int showBox(const std::string& m, int f, const std::string& t) override { return prev_.showBox(m, f, t); }
    std::string currentStatus() const override { return prev_.currentStatus(); }

private:
    Reporter& prev_;
};

}  // namespace zorv::ui
