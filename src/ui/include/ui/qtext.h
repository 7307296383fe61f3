// Text between the core (std::string, UTF-8) and the widgets (QString).
#pragma once

#include <QString>
#include <string>

namespace zorv::ui {

inline QString Q(const std::string& s) { return QString::fromStdString(s); }
inline std::string S(const QString& s) { return s.toStdString(); }

}  // namespace zorv::ui
