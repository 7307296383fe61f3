#include "ui/gui_reporter.h"

#include <QApplication>
#include <QDesktopServices>
#include <QInputDialog>
#include <QKeyEvent>
#include <QMessageBox>
#include <QPushButton>
#include <QUrl>
#include <algorithm>

#include "ui/forms.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {


// CR LF of the messages to plain line ends.
QString boxText(const std::string& s) {
    QString t = Q(s);
    t.replace("\r\n", "\n");
    t.replace('\r', '\n');
    return t;
}

}  // namespace

GuiReporter::GuiReporter(QObject* parent) : QObject(parent) {}

GuiReporter::~GuiReporter() { uninstall(); }

void GuiReporter::install() {
    if (installed_) return;
    installed_ = true;
    SetReporter(this);
    qApp->installEventFilter(this);
}

void GuiReporter::uninstall() {
    if (!installed_) return;
    installed_ = false;
    if (&CurrentReporter() == this) SetReporter(nullptr);
    if (qApp) qApp->removeEventFilter(this);
}

int GuiReporter::answerOf(int b) {
    switch (b) {
        case QMessageBox::Ok: return vbOK;
        case QMessageBox::Cancel: return vbCancel;
        case QMessageBox::Abort: return vbAbort;
        case QMessageBox::Retry: return vbRetry;
        case QMessageBox::Ignore: return vbIgnore;
        case QMessageBox::Yes: return vbYes;
        case QMessageBox::No: return vbNo;
        default: return vbCancel;
    }
}

int GuiReporter::showBox(const std::string& message, int flags, const std::string& title) {
    QMessageBox box(targetWindow());
    box.setObjectName("MsgBox");
    box.setWindowTitle(Q(title));
    box.setText(boxText(message));
    switch (flags & 0x70) {
        case vbCritical: box.setIcon(QMessageBox::Critical); break;
        case vbQuestion: box.setIcon(QMessageBox::Question); break;
        case vbExclamation: box.setIcon(QMessageBox::Warning); break;
        case vbInformation: box.setIcon(QMessageBox::Information); break;
        default: box.setIcon(QMessageBox::NoIcon); break;
    }
    std::vector<QMessageBox::StandardButton> buttons;
    switch (flags & 7) {
        case vbOKCancel: buttons = {QMessageBox::Ok, QMessageBox::Cancel}; break;
        case vbAbortRetryIgnore: buttons = {QMessageBox::Abort, QMessageBox::Retry, QMessageBox::Ignore}; break;
        case vbYesNoCancel: buttons = {QMessageBox::Yes, QMessageBox::No, QMessageBox::Cancel}; break;
        case vbYesNo: buttons = {QMessageBox::Yes, QMessageBox::No}; break;
        case vbRetryCancel: buttons = {QMessageBox::Retry, QMessageBox::Cancel}; break;
        default: buttons = {QMessageBox::Ok}; break;
    }
    for (auto b : buttons) box.addButton(b);
    // Default button: 0, 256 (second) or 512 (third).
    const size_t def = static_cast<size_t>((flags >> 8) & 3);
    box.setDefaultButton(buttons[def < buttons.size() ? def : 0]);
    // Esc answers Cancel where there is one, else No, else OK.
    if (std::find(buttons.begin(), buttons.end(), QMessageBox::Cancel) != buttons.end())
        box.setEscapeButton(QMessageBox::Cancel);
    else if (std::find(buttons.begin(), buttons.end(), QMessageBox::No) != buttons.end())
        box.setEscapeButton(QMessageBox::No);
    else if (buttons.size() == 1)
        box.setEscapeButton(buttons[0]);

    const bool wasBusy = QApplication::overrideCursor() != nullptr;
    if (wasBusy) QApplication::setOverrideCursor(Qt::ArrowCursor);
    box.exec();
    if (wasBusy) QApplication::restoreOverrideCursor();
    QAbstractButton* clicked = box.clickedButton();
    if (!clicked) return buttons.size() == 1 ? answerOf(buttons[0]) : vbCancel;
    return answerOf(box.standardButton(clicked));
}

QWidget* GuiReporter::targetWindow() const {
    QWidget* active = QApplication::activeWindow();
    if (qobject_cast<ZorvForm*>(active)) return active;
    // No active main window (a box on top, the program in the background):
    // the last window opened that is still visible.
    const std::vector<ZorvForm*> f = Forms();
    for (auto it = f.rbegin(); it != f.rend(); ++it)
        if ((*it)->isVisible()) return *it;
    return nullptr;
}

void GuiReporter::status(const std::string& text) {
    last_ = text;
    // Events run even with no window to show the text: Esc must still get in.
    if (auto* w = qobject_cast<ZorvForm*>(targetWindow())) w->setStatusPanelText(Q(text));
    pumpEvents();
}

void GuiReporter::pumpEvents() {
    // Let pending events run: a long analysis stays responsive and Esc gets in.
    constexpr qint64 kPumpMs = 40;
    if (pumped_.isValid() && pumped_.elapsed() < kPumpMs) return;
    QCoreApplication::processEvents();
    pumped_.start();
}

std::string GuiReporter::currentStatus() const {
    if (auto* w = qobject_cast<ZorvForm*>(targetWindow())) return w->statusPanelText().toStdString();
    return last_;
}

void GuiReporter::progress(int percent) {
    if (auto* w = qobject_cast<ZorvForm*>(targetWindow())) w->showProgress(percent);
    pumpEvents();
}

void GuiReporter::busy(bool on) {
    if (on)
        QApplication::setOverrideCursor(Qt::WaitCursor);
    else
        QApplication::restoreOverrideCursor();
}

void GuiReporter::beep() {
    ++beeps_;
    QApplication::beep();
}

void GuiReporter::openUrl(const std::string& url) { QDesktopServices::openUrl(QUrl(Q(url))); }

std::string GuiReporter::inputBox(const std::string& prompt, const std::string& title, const std::string& def) {
    const QString text = boxText(prompt).trimmed();
    const auto echo = text.contains("password", Qt::CaseInsensitive) ? QLineEdit::Password : QLineEdit::Normal;
    bool ok = false;
    const QString answer = QInputDialog::getText(targetWindow(), Q(title), text, echo, Q(def), &ok);
    return ok ? S(answer) : std::string();
}

bool GuiReporter::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::KeyPress) {
        auto* k = static_cast<QKeyEvent*>(event);
        // Esc in a program window cancels the running work; Esc in a dialog
        // belongs to the dialog.
        auto* w = qobject_cast<QWidget*>(watched);
        if (k->key() == Qt::Key_Escape && !k->isAutoRepeat() && w && qobject_cast<ZorvForm*>(w->window()))
            SetEscPressed(true);
    }
    return QObject::eventFilter(watched, event);
}

}  // namespace zorv::ui
