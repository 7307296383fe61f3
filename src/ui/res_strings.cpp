#include "ui/res_strings.h"

#include <QAbstractButton>
#include <QAction>
#include <QComboBox>
#include <QGroupBox>
#include <QHeaderView>
#include <QLabel>
#include <QListWidget>
#include <QMenu>
#include <QStatusBar>
#include <QTabBar>
#include <QTabWidget>
#include <QTableWidget>
#include <QToolBar>
#include <QTreeWidget>
#include <QWidget>

#include "base/identity.h"
#include "app/settings.h"
#include "app/strings.h"

namespace zorv::ui {

namespace {

// The string of a text that is a number, or nothing.
bool lookup(const QString& text, QString& out) {
    const QString t = text.trimmed();
    if (t.isEmpty()) return false;
    bool ok = false;
    const int id = t.toInt(&ok);
    if (!ok) return false;
    const std::string s = zorv::LoadResString(id);
    if (s.empty()) return false;
    out = QString::fromStdString(s);
    return true;
}

// The number a control carries: its "tag" property, else its text.
bool fromTagOrText(const QObject* o, const QString& text, QString& out) {
    const QVariant tag = o->property("tag");
    if (tag.isValid() && lookup(tag.toString(), out)) return true;
    return lookup(text, out);
}

// A picture box ("pct" name) takes its background from "DisplayBackground",
// keyed by its name: a colour number as the original keeps it (&HBBGGRR).
void applyBackground(QWidget* w) {
    const QString name = w->objectName();
    if (!name.startsWith("pct")) return;
    const QString v =
        QString::fromStdString(GetSetting(ApplicationTitle(), "DisplayBackground", name.toStdString())).trimmed();
    if (v.isEmpty()) return;
    bool ok = false;
    const long long c = v.toLongLong(&ok);
    if (!ok || c < 0 || c > 0xFFFFFF) return;
    QPalette pal = w->palette();
    pal.setColor(QPalette::Window, QColor(static_cast<int>(c & 0xFF), static_cast<int>((c >> 8) & 0xFF),
                                          static_cast<int>((c >> 16) & 0xFF)));
    w->setPalette(pal);
    w->setAutoFillBackground(true);
}

}  // namespace

int LoadResStrings(QWidget* window) {
    if (!window) return 0;
    int n = 0;
    QString s;
    for (QWidget* w : window->findChildren<QWidget*>()) applyBackground(w);
    if (lookup(window->windowTitle(), s)) {
        window->setWindowTitle(s);
        ++n;
    }
    for (QAction* a : window->findChildren<QAction*>()) {
        if (a->isSeparator()) continue;
        if (fromTagOrText(a, a->text(), s)) {
            a->setText(s);
            ++n;
        }
        if (lookup(a->toolTip(), s)) {
            a->setToolTip(s);
            ++n;
        }
    }
    for (QMenu* m : window->findChildren<QMenu*>()) {
        if (fromTagOrText(m, m->title(), s)) {
            m->setTitle(s);
            ++n;
        }
    }
    for (QLabel* l : window->findChildren<QLabel*>()) {
        if (fromTagOrText(l, l->text(), s)) {
            l->setText(s);
            ++n;
        }
    }
    for (QAbstractButton* b : window->findChildren<QAbstractButton*>()) {
        if (fromTagOrText(b, b->text(), s)) {
            b->setText(s);
            ++n;
        }
        if (lookup(b->toolTip(), s)) {
            b->setToolTip(s);
            ++n;
        }
    }
    for (QGroupBox* g : window->findChildren<QGroupBox*>()) {
        if (fromTagOrText(g, g->title(), s)) {
            g->setTitle(s);
            ++n;
        }
    }
    for (QTabBar* t : window->findChildren<QTabBar*>()) {
        for (int i = 0; i < t->count(); ++i) {
            if (lookup(t->tabText(i), s)) {
                t->setTabText(i, s);
                ++n;
            }
        }
    }
    for (QComboBox* c : window->findChildren<QComboBox*>()) {
        for (int i = 0; i < c->count(); ++i) {
            if (lookup(c->itemText(i), s)) {
                c->setItemText(i, s);
                ++n;
            }
        }
    }
    for (QListWidget* l : window->findChildren<QListWidget*>()) {
        for (int i = 0; i < l->count(); ++i) {
            if (lookup(l->item(i)->text(), s)) {
                l->item(i)->setText(s);
                ++n;
            }
        }
    }
    for (QTableWidget* t : window->findChildren<QTableWidget*>()) {
        for (int c = 0; c < t->columnCount(); ++c) {
            QTableWidgetItem* h = t->horizontalHeaderItem(c);
            if (h && lookup(h->text(), s)) {
                h->setText(s);
                ++n;
            }
        }
    }
    for (QTreeWidget* t : window->findChildren<QTreeWidget*>()) {
        QTreeWidgetItem* h = t->headerItem();
        for (int c = 0; h && c < h->columnCount(); ++c) {
            if (lookup(h->text(c), s)) {
                h->setText(c, s);
                ++n;
            }
        }
    }
    return n;
}

}  // namespace zorv::ui
