#include "base/report.h"

#include <algorithm>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sys/utsname.h>

#include "base/identity.h"
#include "base/proc.h"

namespace zorv {

namespace {

StreamReporter& defaultReporter() {
    static StreamReporter r(stderr, false);
    return r;
}

struct State {
    Reporter* reporter = nullptr;
    bool logging = false;
    std::string logPath;
    std::string openLogPath;  // path of the cached handle
    std::ofstream log;
    std::atomic<bool> esc{false};
    int busyDepth = 0;
};

State& st() {
    static State s;
    return s;
}

std::string nowText(const char* fmt) {
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, fmt, &tm);
    return buf;
}

std::string urlEncode(const std::string& s) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

}  // namespace

std::string GetSystemInfo() {
    struct utsname u {};
    std::string s = VersionLine();
    if (uname(&u) == 0) {
        s += "\r\n";
        s += u.sysname;
        s += " ";
        s += u.release;
        s += " ";
        s += u.machine;
    }
    return s;
}


int StreamReporter::showBox(const std::string& message, int flags, const std::string& title) {
    (void)flags;
    // Boxes compose their lines with CR LF; a terminal wants LF alone.
    std::string text;
    text.reserve(message.size());
    for (size_t i = 0; i < message.size(); ++i)
        if (!(message[i] == '\r' && i + 1 < message.size() && message[i + 1] == '\n')) text += message[i];
    if (!title.empty()) std::fprintf(out_, "%s: ", title.c_str());
    std::fprintf(out_, "%s\n", text.c_str());
    std::fflush(out_);
    return 0;
}

void StreamReporter::status(const std::string& text) {
    status_ = text;
    if (showStatus_ && !text.empty()) {
        std::fprintf(out_, "%s\n", text.c_str());
        std::fflush(out_);
    }
}

void SetReporter(Reporter* r) { st().reporter = r; }

Reporter& CurrentReporter() { return st().reporter ? *st().reporter : defaultReporter(); }

void SetLogging(bool on) { st().logging = on; }
bool Logging() { return st().logging; }

std::string GetLogFile(const std::string& path) {
    State& s = st();
    if (path.size() > 2) s.logPath = path;
    if (s.logPath.size() < 2) s.logPath = ProgramFolder() + "/RemoteCall.Log";
    if (s.log.is_open() && s.openLogPath != s.logPath) s.log.close();
    if (!s.log.is_open()) {
        std::error_code ec;
        const bool exists = std::filesystem::exists(s.logPath, ec);
        s.log.open(s.logPath, std::ios::app | std::ios::binary);
        s.openLogPath = s.logPath;
        if (s.log && !exists) {
            s.log << "Log File: " << s.logPath << "\r\n"
                  << "Created: " << nowText("%d-%b-%Y") << " " << nowText("%H:%M:%S") << "\r\n"
                  << "___________________\r\n";
            s.log.flush();
        }
    }
    return s.logPath;
}

void CloseLogFile() {
    State& s = st();
    if (s.log.is_open()) s.log.close();
}

void AppendLogLine(const std::string& line) {
    GetLogFile();
    State& s = st();
    if (!s.log) return;
    s.log << line << "\r\n";
    s.log.flush();
}

int MsgBox(const std::string& message, int flags, const std::string& title) {
    Reporter& r = CurrentReporter();
    try {
        if (Logging()) {
            AppendLogLine(message);
            SetStatusText("Remote Call: " + message);
            return 0;
        }
        const std::string boxTitle = title.empty() ? ApplicationTitle() : title;
        const bool selfError = message.size() > 3 && message.find("(MsgBox)", 3) != std::string::npos;
        if (flags == vbCritical && !selfError) {
            const std::string text = message + "\r\n\r\nDo you wish to Email this message to " +
                                     kCompanyName + "?";
            const int answer = r.showBox(text, vbYesNo | vbCritical, boxTitle);
            if (answer == vbYes) {
                // Every part is appended as "&name=" after an empty query head.
                r.openUrl(std::string("mailto:support@") + "palvex.example" + "?" + "&CC=" + "&BCC=" +
                          "&Subject=" + urlEncode(VersionLine()) + "&Body=" +
                          urlEncode(message + "\r\n\r\n" + GetSystemInfo()));
            }
            return answer;
        }
        return r.showBox(message, flags, boxTitle);
    } catch (const std::exception& e) {
        // A fault here is shown plainly, without the mail offer.
        return r.showBox(std::string("Utility(MsgBox): \r\n") + e.what(), vbOKOnly, kProductName);
    }
}

std::string InputBox(const std::string& prompt, const std::string& title, const std::string& def) {
    if (Logging()) {
        AppendLogLine(prompt);
        return {};
    }
    return CurrentReporter().inputBox(prompt, title.empty() ? ApplicationTitle() : title, def);
}

void SetStatusText(const std::string& text, bool append) {
    try {
        Reporter& r = CurrentReporter();
        if (append) {
            const std::string old = r.currentStatus();
            r.status(old.empty() ? text : old + " " + text);
        } else {
            r.status(text);
        }
    } catch (...) {
        // Faults in the status line are ignored.
    }
}

std::string StatusText() { return CurrentReporter().currentStatus(); }

void ShowProgress(int percent) {
    if (percent > 100) percent = 100;
    CurrentReporter().progress(percent);
}

void ProgressBar(int percent) { ShowProgress(std::clamp(percent, 0, 100)); }

bool CheckEscKey() {
    if (!st().esc.exchange(false)) return false;
    Reporter& r = CurrentReporter();
    for (int i = 0; i < 3; ++i) r.beep();
    return true;
}

void SetEscPressed(bool pressed) { st().esc = pressed; }

void SetMouse(bool busy) {
    if (busy) {
        if (st().busyDepth++ == 0) CurrentReporter().busy(true);
    } else if (st().busyDepth > 0 && --st().busyDepth == 0) {
        CurrentReporter().busy(false);
    }
}

BusyPointer::BusyPointer() { SetMouse(true); }
BusyPointer::~BusyPointer() { SetMouse(false); }

std::string ChkText(float chk) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.7g", static_cast<double>(chk));
    return buf;
}

// The exit block of a procedure lives here, beside MsgBox.
std::string Failure::message() const { return tag + "\r\n" + text + std::string(chkLabel) + ChkText(chk); }

int Failure::boxFlags() const { return runtime ? vbCritical : vbInformation; }

void Report(const Failure& f) {
    if (f.runtime)
        MsgBox(f.message(), vbCritical, VersionLine());
    else
        MsgBox(f.message(), vbInformation, std::string(kProductName) + " chk: " + ChkText(f.chk));
}

Failure Proc::failure() {
    done_ = true;
    Failure f;
    f.tag = tag_;
    f.chk = chk;
    f.chkLabel = chkLabel_;
    if (err_) {
        f.text = *err_;
        f.runtime = true;
    } else {
        f.text = msg;
    }
    return f;
}

void Proc::report() {
    if (done_) return;
    done_ = true;
    Failure f;
    f.tag = tag_;
    f.chk = chk;
    f.chkLabel = chkLabel_;
    if (!msg.empty()) {
        f.text = msg;
        Report(f);
    }
    if (err_) {
        f.text = *err_;
        f.runtime = true;
        Report(f);
    }
}

}  // namespace zorv
