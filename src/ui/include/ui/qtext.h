// Text between the core (std::string, UTF-8) and the widgets (QString).
#pragma once

#include <QString>
#include <cmath>
#include <string>

namespace zorv::ui {

inline QString Q(const std::string& s) { return QString::fromStdString(s); }
inline std::string S(const QString& s) { return s.toStdString(); }

// A number typed with "." or "," as the decimal: a box never depends on the
// machine's own separator.
inline bool ReadNumber(const QString& text, double& v) {
    QString t = text.trimmed();
    t.replace(',', '.');
    bool ok = false;
    v = t.toDouble(&ok);
    return ok && std::isfinite(v);
}

}  // namespace zorv::ui
