// Cell helpers of the template reader and writer.
#pragma once

#include <string>
#include <string_view>

#include "base/text.h"
#include "base/value.h"

namespace zorv::dmt {

// Text of a cell (CStr); error cells read as "".
inline std::string CellText(const Value& v) {
    return v.isError() ? std::string() : v.toString();
}
// A key of column A, without surrounding blanks.
inline std::string KeyOf(const Value& v) {
    return Trim(CellText(v));
}

inline bool CellIs(const Value& v, std::string_view text) {
    return !v.isError() && IEquals(v.isString() ? std::string(v.str()) : v.toString(), text);
}

// A flag cell: a Boolean, "True"/"False" in any case, or a number (not 0 is true).
inline bool CellBool(const Value& v) {
    if (v.isBool()) return v.toBool();
    if (v.isString()) {
        std::string t = Trim(v.str());
        if (IEquals(t, "True")) return true;
        if (IEquals(t, "False") || t.empty()) return false;
        double d = 0;
        return ParseNumber(t, d) && d != 0;
    }
    if (v.isNumberType()) return v.toDouble() != 0;
    return false;
}

// A numeric cell's value, else `fallback`.
inline double CellNumber(const Value& v, double fallback) {
    if (v.isEmpty() || v.isError() || !IsNumericValue(v)) return fallback;
    bool ok = true;
    double d = v.toDouble(&ok);
    return ok ? d : fallback;
}

// Folder (without the trailing separator) and file of a path; "/" and backslash both separate.
inline size_t LastSep(std::string_view p) {
    size_t a = p.rfind('/'), b = p.rfind('\\');
    if (a == std::string_view::npos) return b;
    if (b == std::string_view::npos) return a;
    return a > b ? a : b;
}
inline std::string FolderOfPath(std::string_view p) {
    size_t i = LastSep(p);
    return i == std::string_view::npos ? std::string() : std::string(p.substr(0, i));
}
inline std::string FileOfPath(std::string_view p) {
    size_t i = LastSep(p);
    return i == std::string_view::npos ? std::string(p) : std::string(p.substr(i + 1));
}
// The file name without folder and extension.
inline std::string BaseOfName(std::string_view p) {
    std::string f = FileOfPath(p);
    size_t dot = f.rfind('.');
    return dot == std::string::npos ? f : f.substr(0, dot);
}

}  // namespace zorv::dmt
