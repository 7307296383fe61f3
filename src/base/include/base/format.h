// Number and date formatting with the patterns of the original language's
// Format function: digit placeholders "0" and "#", "." and "," (grouping, or
// scaling by 1000 when trailing), "%", scientific "E+00"/"e-00", literals
// ("\x", "quoted text", and - + $ ( ) space), sections "pos;neg;zero;null",
// the named formats ("General Number", "Fixed", "Standard", "Percent",
// "Scientific", "Currency", "Yes/No", "True/False", "On/Off", "General Date",
// "Long Date", "Medium Date", "Short Date", "Long Time", "Medium Time",
// "Short Time") and the date/time tokens (d dd ddd dddd ddddd dddddd w ww m mm
// mmm mmmm q y yy yyyy h hh n nn s ss ttttt c AM/PM am/pm A/P a/p AMPM; "m"
// right after an hour or right before seconds is the minute).
// The machine-dependent named formats are fixed here: "Short Date" is
// "yyyy-mm-dd", "Long Date" "dddd, mmmm d, yyyy", "Medium Date" "dd-mmm-yy",
// "Long Time" "hh:mm:ss", "Medium Time" "hh:mm AMPM", "Short Time" "hh:mm",
// "General Date" the short date and/or the long time; names in English.
//
// Rounding: the value is first written with 15 significant digits (7 for a
// single), as CStr would, and that decimal text is rounded half away from
// zero. So Format(2.675, "0.00") is "2.68" although the binary double lies
// just below 2.675. A negative value that rounds to zero keeps its sign
// ("-0.00") as the original does; a pattern with "." but no decimal digit
// keeps the point (Format(5, "0.##") is "5.").
//
// Numbers use the machine's separators (see regional.h); by default "." and
// ",", independent of the C/C++ locale.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include "base/value.h"

namespace zorv {

// Doubles: 15 significant digits; an empty pattern gives the CStr form.
std::string Format(double v, std::string_view pattern);
// Singles: 7 significant digits (as the original treats a Single).
std::string Format(float v, std::string_view pattern);
// Integers are exact; bool is -1 / 0.
std::string FormatInteger(long long v, std::string_view pattern);
template <class T>
    requires std::is_integral_v<T>
std::string Format(T v, std::string_view pattern) {
    if constexpr (std::is_same_v<T, bool>) return FormatInteger(v ? -1 : 0, pattern);
    else return FormatInteger(static_cast<long long>(v), pattern);
}
// A date serial (days since 1899-12-30, fraction the time of day). Numeric
// patterns format the serial as a number.
std::string FormatDate(double serial, std::string_view pattern);
// Text: a numeric text (machine separators) is formatted as a number, a date
// text with a date pattern as a date; any other text passes through.
std::string FormatText(std::string_view text, std::string_view pattern);

// True when the pattern (its first section) is a date/time pattern.
bool IsDatePattern(std::string_view pattern);

// The CStr form of a double (15 digits) / single (7 digits) with the machine's
// decimal separator: "0.5", "1E-05", "1.23456789012346E+17".
std::string CStrNumber(double v, int significant = 15);

// Format of a tagged value. Empty and Null give "", an error its CStr form,
// an array "". Inline so that only callers that link the numerics library
// need Value's definitions.
inline std::string Format(const Value& v, std::string_view pattern) {
    switch (v.type()) {
        case VType::Empty:
        case VType::Null:
        case VType::Array: return {};
        case VType::Error: return v.toString();
        case VType::String: return FormatText(v.str(), pattern);
        case VType::Date: return FormatDate(v.toDouble(), pattern);
        case VType::Single: return Format(v.toSingle(), pattern);
        case VType::Boolean:
            if (pattern.empty()) return v.toString();  // "True" / "False"
            return FormatInteger(v.toLong(), pattern);
        case VType::Integer:
        case VType::Long: return FormatInteger(v.toLong(), pattern);
        case VType::Double: return Format(v.toDouble(), pattern);
    }
    return {};
}

}  // namespace zorv
