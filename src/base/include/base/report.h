// The one reporting path: message boxes, the status line, progress, the busy
// pointer and the cancel flag. The front end installs a Reporter: the GUI shows
// boxes, the command-line tools print to stderr; in logging mode (automation)
// every message goes to the remote-call log and questions answer 0.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>
#include <string_view>

namespace zorv {

// Box flags and answers, with the values of the original message box.
enum MsgFlags : int {
    vbOKOnly = 0,
    vbOKCancel = 1,
    vbAbortRetryIgnore = 2,
    vbYesNoCancel = 3,
    vbYesNo = 4,
    vbRetryCancel = 5,
    vbCritical = 16,
    vbQuestion = 32,
    vbExclamation = 48,
    vbInformation = 64,
};
enum MsgAnswer : int { vbOK = 1, vbCancel = 2, vbAbort = 3, vbRetry = 4, vbIgnore = 5, vbYes = 6, vbNo = 7 };

class Reporter {
public:
    virtual ~Reporter() = default;
    // Shows a box and returns the answer code.
    virtual int showBox(const std::string& message, int flags, const std::string& title) = 0;
    // First panel of the status bar; lets pending events run.
    virtual void status(const std::string& text) { (void)text; }
    virtual std::string currentStatus() const { return {}; }
    // 0..100; a negative value hides the progress display.
    virtual void progress(int percent) { (void)percent; }
    virtual void busy(bool on) { (void)on; }
    virtual void beep() {}
    // Hands a URL (mailto:, file:) to the desktop.
    virtual void openUrl(const std::string& url) { (void)url; }
    // Asks for a line of text; "" is Cancel. No one to ask: "".
    virtual std::string inputBox(const std::string& prompt, const std::string& title, const std::string& def) {
        (void)prompt, (void)title, (void)def;
        return {};
    }
};

// Prints boxes and status to a stream; questions answer 0, as in automation.
class StreamReporter : public Reporter {
public:
    explicit StreamReporter(std::FILE* out = stderr, bool showStatus = false)
        : out_(out), showStatus_(showStatus) {}
    int showBox(const std::string& message, int flags, const std::string& title) override;
    void status(const std::string& text) override;
    std::string currentStatus() const override { return status_; }

private:
    std::FILE* out_;
    bool showStatus_;
    std::string status_;
};

// The installed reporter (a StreamReporter on stderr until one is set). The
// caller keeps ownership; pass nullptr to go back to the default.
void SetReporter(Reporter* r);
Reporter& CurrentReporter();

// Utility(MsgBox): the only path to a box.
int MsgBox(const std::string& message, int flags = vbOKOnly, const std::string& title = {});

// Utility(InputBox): the one path to a typed answer. In logging mode the
// prompt goes to the log and the answer is "", as a question's is 0.
std::string InputBox(const std::string& prompt, const std::string& title = {}, const std::string& def = {});

// Remote-call logging (the daily-monitor automation).
void SetLogging(bool on);
bool Logging();
// Utility(GetLogFile): sets the log path when the given one is longer than two
// characters, creates the file with its header when missing; returns the path.
std::string GetLogFile(const std::string& path = {});
void AppendLogLine(const std::string& line);
// Lets go of the log's handle, so that the file may be cut or moved; the next
// line opens it again.
void CloseLogFile();

// Utility.SetStatusText: with append, the old text, " " and the new one.
void SetStatusText(const std::string& text, bool append = false);
std::string StatusText();
void ShowProgress(int percent);
// Utility(ProgressBar): the progress display, held between 0 and 100.
void ProgressBar(int percent);

// Utility.CheckEscKey: True once after Esc was pressed (the GUI sets the flag);
// beeps three times when it answers True.
bool CheckEscKey();
void SetEscPressed(bool pressed = true);

// Utility(SetMouse): the busy pointer on (nests) or back to what it was.
void SetMouse(bool busy);
// Busy pointer for the life of the object; nests.
class BusyPointer {
public:
    BusyPointer();
    ~BusyPointer();
    BusyPointer(const BusyPointer&) = delete;
    BusyPointer& operator=(const BusyPointer&) = delete;
};

// Utility(GetSystemInfo): a short description of the program and machine,
// for the mail body of an error report.
std::string GetSystemInfo();

// Text of a checkpoint as the original writes a single: "3", "2.5".
std::string ChkText(float chk);

}  // namespace zorv
