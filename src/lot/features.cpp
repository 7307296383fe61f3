#include "lot/features.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>

#include "base/proc.h"
#include "base/value.h"

namespace zorv {

std::string UnitName(long code) {
    switch (code) {
        case 0: return std::string(kMicroSign) + "m";
        case 1: return kAngstromSign;
        case 2: return "nm";
        case 3: return "mm";
        case 4: return "cm";
        case 5: return "m";
        case 6: return "Deg.";
        case 7: return "Rad.";
        case 8: return "Sec";
        case 9: return "Hr";
        case 10: return "Min";
        case 11: return "mSec";
        case 12: return std::string(kDegreeSign) + "C";
        case 13: return std::string(kDegreeSign) + "F";
        case 14: return "Deg/Sec";
        case 15: return "Kdeg-Minutes";
        case 16: return "mj/cm2";
        case 17: return "mw/cm2";
        case 18: return "Deg/Sec^2";
        case 19: return "Deg*Sec";
        default: return "";
    }
}

double UnitFactor(long code) {
    switch (code) {
        case 0: return 1e-6;
        case 1: return 1e-10;
        case 2: return 1e-9;
        case 3: return 1e-3;
        case 4: return 1e-2;
        default: return 1;
    }
}

namespace {

// Upper case as the unit words are compared: ASCII letters, and the
// lower-case Angstrom ring to its capital; the micro and degree signs stay.
std::string upper(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == 0xC3 && i + 1 < s.size() && static_cast<unsigned char>(s[i + 1]) == 0xA5) {
            out += "\xC3\x85";
            ++i;
        } else {
            out += static_cast<char>(std::toupper(c));
        }
    }
    return out;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

struct WordRow {
    long code;
    std::initializer_list<const char*> words;
};

}  // namespace

std::optional<long> UnitCodeOf(std::string_view text) {
    std::string_view t = trim(text);
    if (t.empty()) return std::nullopt;
    // A number not above 15 is the code itself, as the Long code takes it:
    // rounded to the nearest whole number, ties to even (2.7 is 3, 2.5 is 2),
    // and a negative number is a (nameless) code too. One beyond the range of
    // a code cannot be one, and is left to the word list like any text.
    double d;
    if (ParseNumber(t, d) && d <= 15 && d >= std::numeric_limits<int32_t>::min())
        return static_cast<long>(std::nearbyint(d));
    static const std::string microM = std::string(kMicroSign) + "M";
    static const WordRow rows[] = {
        {14, {"DEG/SEC", "DEGREES/SECOND", "/SEC", "O/SEC"}},
        {7, {"RADIANS", "RADIAN", "RAD", "R", "RAD."}},
        {2, {"NANOMETERS", "NANOM", "NANO", "NANOMETER", "NM"}},
        {3, {"MILLEMETERS", "MILLIMETERS", "MILLIMETER", "MILLEMETER", "MM"}},
        {0, {"MICRONS", "MICRON", "UM", "MI", "MC", "\xC2\xB5M"}},
        {5, {"METERS", "METER", "M"}},
        {6, {"DEGREES", "DEGREE", "O", "DEG", "DEG.", "D", "THETA", "\xC2\xB0"}},
        {4, {"CENTIMETERS", "CENTIMETER", "CM"}},
        {1, {"ANGSTROMS", "ANGSTROM", "A", "\xC3\x85", "ANG"}},
        {9, {"HOUR", "HOURS", "HR", "HRS"}},
        {11, {"MILLISECONDS", "MILLESECONDS", "MS", "MSEC"}},
        {10, {"MINUTES", "MINUTE"}},
        {8, {"SECOND", "SECONDS", "SEC"}},
        {16, {"MJ/CM2", "MJ"}},
        {17, {"MW/CM2", "MW"}},
    };
    const std::string u = upper(t);
    for (const WordRow& r : rows)
        for (const char* w : r.words)
            if (u == w) return r.code;
    return std::nullopt;
}

long ParseUnitCode(std::string_view text) { return UnitCodeOf(text).value_or(-1); }

std::string ExtractUnitsOfMeasure(std::string_view text, std::string_view open, std::string_view close) {
    if (text.empty()) {
        Proc p("Import(ExtractUnitsOfMeasure): ");
        p.msg = "An input string was not provided.";
        p.report();
        return {};
    }
    size_t a = text.find(open);
    if (a == std::string_view::npos) return {};
    a += open.size();
    size_t b = text.find(close, a);
    if (b == std::string_view::npos) return {};
    return std::string(text.substr(a, b - a));
}

bool UnitsExtract(std::string_view heading, std::string& name, std::string& unit) {
    static const std::pair<const char*, const char*> brackets[] = {{"(", ")"}, {"[", "]"}, {"{", "}"}, {"<", ">"}};
    for (const auto& [o, c] : brackets) {
        size_t a = heading.find(o);
        if (a == std::string_view::npos) continue;
        size_t b = heading.find(c, a + 1);
        if (b == std::string_view::npos) continue;
        unit = std::string(trim(heading.substr(a + 1, b - a - 1)));
        name = std::string(trim(heading.substr(0, a)));
        return true;
    }
    name = std::string(trim(heading));
    unit.clear();
    return false;
}

}  // namespace zorv
