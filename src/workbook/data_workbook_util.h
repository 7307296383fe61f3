// Small text and cell helpers shared by the data workbook code.
#pragma once

#include "base/regional.h"

#include <cmath>
#include <ctime>
#include <string>
#include <string_view>

#include "base/datam.h"
#include "base/text.h"
#include "base/value.h"

namespace zorv::dwb {

using ::zorv::IContains;
using ::zorv::IEndsWith;
using ::zorv::IEquals;
using ::zorv::IStartsWith;
using ::zorv::Lower;
using ::zorv::Replace;
using ::zorv::Trim;
using ::zorv::Upper;
inline char up(char c) { return UpChar(c); }
inline char low(char c) { return LowChar(c); }

// Text of a cell (CStr); error cells read as "".
inline std::string CellText(const Value& v) { return v.isError() ? std::string() : v.toString(); }

// Compares a cell with a text, case-insensitively, without building strings
// for text cells.
inline bool CellIs(const Value& v, std::string_view text) {
    if (v.isString()) return IEquals(v.str(), text);
    if (v.isEmpty() || v.isError()) return text.empty() && v.isEmpty();
    return IEquals(v.toString(), text);
}

inline double Round(double x, int decimals) {
    double f = std::pow(10.0, decimals);
    return std::nearbyint(x * f) / f;  // half to even, as the original Round
}

// Folder part (without the trailing separator) and file part of a path;
// both "\" and "/" separate.
inline size_t LastSep(std::string_view p) {
    size_t a = p.rfind('/'), b = p.rfind('\\');
    if (a == std::string_view::npos) return b;
    if (b == std::string_view::npos) return a;
    return a > b ? a : b;
}
inline std::string FolderOf(std::string_view p) {
    size_t i = LastSep(p);
    return i == std::string_view::npos ? std::string() : std::string(p.substr(0, i));
}
inline std::string FileOf(std::string_view p) {
    size_t i = LastSep(p);
    return i == std::string_view::npos ? std::string(p) : std::string(p.substr(i + 1));
}
// File name without its extension (the part after the last ".").
inline std::string BaseOf(std::string_view p) {
    std::string f = FileOf(p);
    size_t d = f.rfind('.');
    return d == std::string::npos ? f : f.substr(0, d);
}

// Serial date of today and of now, local time.
inline double SerialNow() { return NowSerial(); }
inline double SerialToday() { return std::floor(SerialNow()); }

}  // namespace zorv::dwb
