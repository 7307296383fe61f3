// Shared set-up of the desktop tests: one QApplication (offscreen), a
// settings file of this process, a reporter that records, dialogs answered
// from a timer.
#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <QMouseEvent>
#include <QTimer>
#include <QWidget>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "base/identity.h"
#include "base/report.h"
#include "app/shutdown.h"
#include "ui/app_startup.h"
#include "ui/forms.h"
#include "ui/windows.h"

namespace zorv::uitest {

// A file's bytes, to show that a failure left it as it was.
inline std::string FileBytes(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline QApplication* EnsureApp() {
    if (!qApp) {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char arg0[] = "test_ui";
        static char* argv[] = {arg0, nullptr};
        new QApplication(argc, argv);
        QApplication::setQuitOnLastWindowClosed(false);
    }
    return qobject_cast<QApplication*>(qApp);
}

// Records boxes and status texts; answers from a queue (default No).
struct RecordingReporter : Reporter {
    struct Box {
        std::string text;
        int flags;
        std::string title;
    };
    std::vector<Box> boxes;
    std::vector<std::string> statuses;
    std::deque<int> answers;
    int showBox(const std::string& m, int f, const std::string& t) override {
        boxes.push_back({m, f, t});
        if (answers.empty()) return vbNo;
        const int a = answers.front();
        answers.pop_front();
        return a;
    }
    void status(const std::string& t) override { statuses.push_back(t); }
    // Typed answers (InputBox) from their own queue (default: Cancel, "").
    std::vector<Box> inputs;
    std::deque<std::string> typed;
    std::string inputBox(const std::string& p, const std::string& t, const std::string&) override {
        inputs.push_back({p, 0, t});
        if (typed.empty()) return {};
        std::string a = typed.front();
        typed.pop_front();
        return a;
    }
    std::string currentStatus() const override { return statuses.empty() ? "" : statuses.back(); }
    bool sawStatus(const std::string& s) const {
        for (auto& x : statuses)
            if (x == s) return true;
        return false;
    }
};

// A start-up host with its own lock name and typed menu answers (none: the
// real input box is shown).
class TestHost : public ui::QtStartupHost {
public:
    explicit TestHost(std::string line, const std::string& lockName = UniqueLock())
        : QtStartupHost(std::move(line), lockName) {}
    std::deque<std::string> answers;
    bool useRealBox = false;
    int menuCalls = 0;
    std::string inputBox(const std::string& p, const std::string& t, const std::string& d) override {
        ++menuCalls;
        if (useRealBox) return QtStartupHost::inputBox(p, t, d);
        if (answers.empty()) return "";
        std::string a = answers.front();
        answers.pop_front();
        return a;
    }
    static std::string UniqueLock() {
        static int n = 0;
        return "zorv-uitest-" + std::to_string(getpid()) + "-" + std::to_string(++n);
    }
};

// A folder of this test program's own under the test area, emptied and made
// afresh (the pid keeps parallel runs apart).
inline std::filesystem::path FreshTestDir(const std::string& name) {
    const std::filesystem::path d = std::filesystem::path(ZORV_TEST_TMP) / (name + "-" + std::to_string(getpid()));
    std::filesystem::remove_all(d);
    std::filesystem::create_directories(d);
    return d;
}

// The mean of the columns whose head starts with `head` in a comma-separated
// file (a simulated tool file), read straight from it: the truth a run's
// statistics are held against.
inline double CsvColumnMean(const std::filesystem::path& csv, const std::string& head) {
    std::ifstream in(csv);
    std::vector<std::string> heads;
    double sum = 0;
    long n = 0;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> cells;
        std::stringstream ss(line);
        for (std::string c; std::getline(ss, c, ',');) cells.push_back(c);
        if (heads.empty()) {
            heads = cells;
            continue;
        }
        for (size_t i = 0; i < heads.size() && i < cells.size(); ++i)
            if (heads[i].rfind(head, 0) == 0 && !cells[i].empty()) sum += std::stod(cells[i]), ++n;
    }
    return n ? sum / static_cast<double>(n) : NAN;
}

// A picture of a window into $ZORV_SHOTS_DIR/name.png, for a look by eye;
// nothing without the variable.
inline void ShootWindow(QWidget* w, const std::string& name) {
    const char* shots = std::getenv("ZORV_SHOTS_DIR");
    if (!shots || !w) return;
    std::filesystem::create_directories(shots);
    QApplication::processEvents();
    w->grab().save(QString::fromStdString(std::string(shots) + "/" + name + ".png"));
}

// A left drag from a to b on a widget, as the hand does it.
inline void DragOn(QWidget* w, QPoint a, QPoint b) {
    auto send = [&](QEvent::Type t, QPoint p, Qt::MouseButton button, Qt::MouseButtons held) {
        QMouseEvent e(t, QPointF(p), w->mapToGlobal(QPointF(p)), button, held, Qt::NoModifier);
        QApplication::sendEvent(w, &e);
    };
    send(QEvent::MouseButtonPress, a, Qt::LeftButton, Qt::LeftButton);
    send(QEvent::MouseMove, (a + b) / 2, Qt::NoButton, Qt::LeftButton);
    send(QEvent::MouseMove, b, Qt::NoButton, Qt::LeftButton);
    send(QEvent::MouseButtonRelease, b, Qt::LeftButton, Qt::NoButton);
}

// Runs `act` on the next modal dialog once it is up.
inline void OnNextModal(std::function<void(QWidget*)> act) {
    auto* t = new QTimer;
    t->setInterval(10);
    QObject::connect(t, &QTimer::timeout, [t, act] {
        QWidget* w = QApplication::activeModalWidget();
        if (w && w->isVisible()) {
            t->stop();
            t->deleteLater();
            act(w);
        }
    });
    t->start();
}

// The same for the first modal window of type T: any other modal window
// that shows first (a progress box on a busy machine) is passed over.
template <class T>
void OnNextModalOf(std::function<void(T*)> act) {
    auto* t = new QTimer;
    t->setInterval(10);
    QObject::connect(t, &QTimer::timeout, [t, act] {
        T* w = qobject_cast<T*>(QApplication::activeModalWidget());
        if (w && w->isVisible()) {
            t->stop();
            t->deleteLater();
            act(w);
        }
    });
    t->start();
}

// Unloads every window by code and lets the deletions happen.
inline void CloseAllForms() {
    for (ui::ZorvForm* f : ui::Forms()) f->Unload();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    for (QWidget* w : QApplication::topLevelWidgets()) {
        if (w->isVisible()) w->close();
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

class UiTest : public ::testing::Test {
protected:
    void SetUp() override {
        EnsureApp();
        std::filesystem::create_directories(ZORV_TEST_TMP);
        settings_ = std::string(ZORV_TEST_TMP) + "/ui-settings-" + std::to_string(getpid()) + ".ini";
        std::filesystem::remove(settings_);
        setenv("ZORV_SETTINGS_FILE", settings_.c_str(), 1);
        // What a window keeps beside the program (the template library) stays
        // out of the working folder.
        const std::string program = std::string(ZORV_TEST_TMP) + "/program-" + std::to_string(getpid());
        std::filesystem::create_directories(program);
        SetProgramFolder(program);
        SetApplicationTitle(kProductName);
        SetExiting(false);
        SetCloseWorkbooksHook({});
        SetReporter(&rec);
    }
    void TearDown() override {
        SetReporter(&rec);
        rec.answers.clear();
        CloseAllForms();
        SetReporter(nullptr);
        SetApplicationTitle(kProductName);
        SetExiting(false);
        SetCloseWorkbooksHook({});
        unsetenv("ZORV_SETTINGS_FILE");
        std::filesystem::remove(settings_);
    }
    RecordingReporter rec;
    std::string settings_;
};

}  // namespace zorv::uitest
