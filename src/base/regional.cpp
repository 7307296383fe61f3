#include "base/regional.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <ctime>
#include <string>
#include <vector>

#include "base/format.h"

namespace zorv {

namespace {

char g_decimal = '.';
char g_thousands = ',';

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

// Days from 1970-01-01 of a civil date (H. Hinnant's algorithm).
long long daysFromCivil(long long y, unsigned m, unsigned d) {
    y -= m <= 2;
    const long long era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<long long>(doe) - 719468;
}

void civilFromDays(long long z, int& y, int& m, int& d) {
    z += 719468;
    const long long era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long long yy = static_cast<long long>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    y = static_cast<int>(yy + (m <= 2));
}

constexpr long long kEpochOffset = 25569;  // serial of 1970-01-01

constexpr std::array<const char*, 12> kMonths = {"jan", "feb", "mar", "apr", "may", "jun",
                                                 "jul", "aug", "sep", "oct", "nov", "dec"};

int monthFromName(std::string_view w) {
    if (w.size() < 3) return 0;
    std::string low;
    for (char c : w) low += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (int i = 0; i < 12; ++i)
        if (low.compare(0, 3, kMonths[i]) == 0) return i + 1;
    return 0;
}

int fullYear(int y, size_t digits) {
    if (digits <= 2) return y < 30 ? 2000 + y : 1900 + y;
    return y;
}

int daysInMonth(int y, int m) {
    static const int dm[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (m == 2 && ((y % 4 == 0 && y % 100 != 0) || y % 400 == 0)) return 29;
    return dm[m - 1];
}

bool validDate(int y, int m, int d) {
    return y >= 100 && y <= 9999 && m >= 1 && m <= 12 && d >= 1 && d <= daysInMonth(y, m);
}

// Tokens of a date text: numbers (with their digit count), words, separators.
struct Tok {
    enum Kind { Num, Word, Sep } kind;
    std::string text;
    int num = 0;
};

std::vector<Tok> tokenize(std::string_view s) {
    std::vector<Tok> out;
    size_t i = 0;
    while (i < s.size()) {
        const char c = s[i];
        if (std::isdigit(static_cast<unsigned char>(c))) {
            size_t j = i;
            while (j < s.size() && std::isdigit(static_cast<unsigned char>(s[j]))) ++j;
            Tok t{Tok::Num, std::string(s.substr(i, j - i))};
            if (j - i > 9) return {};
            t.num = std::stoi(t.text);
            out.push_back(t);
            i = j;
        } else if (std::isalpha(static_cast<unsigned char>(c))) {
            size_t j = i;
            while (j < s.size() && std::isalpha(static_cast<unsigned char>(s[j]))) ++j;
            out.push_back({Tok::Word, std::string(s.substr(i, j - i))});
            i = j;
        } else if (isBlank(c)) {
            ++i;
        } else {
            out.push_back({Tok::Sep, std::string(1, c)});
            ++i;
        }
    }
    return out;
}

// Time part "h:mm[:ss[.fff]] [AM|PM]" starting at token k; consumes to the end.
bool parseTime(const std::vector<Tok>& t, size_t k, double& frac) {
    if (k >= t.size()) { frac = 0; return true; }
    if (t[k].kind != Tok::Num) return false;
    int h = t[k].num, mi = 0;
    double sec = 0;
    size_t i = k + 1;
    bool hadColon = false;
    if (i + 1 < t.size() && t[i].kind == Tok::Sep && t[i].text == ":" && t[i + 1].kind == Tok::Num) {
        mi = t[i + 1].num;
        i += 2;
        hadColon = true;
        if (i + 1 < t.size() && t[i].kind == Tok::Sep && t[i].text == ":" && t[i + 1].kind == Tok::Num) {
            sec = t[i + 1].num;
            i += 2;
            if (i + 1 < t.size() && t[i].kind == Tok::Sep && t[i].text == "." && t[i + 1].kind == Tok::Num) {
                sec += std::stod("0." + t[i + 1].text);
                i += 2;
            }
        }
    }
    bool ampm = false;
    if (i < t.size() && t[i].kind == Tok::Word) {
        std::string w;
        for (char c : t[i].text) w += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        if (w == "AM" || w == "A" || w == "PM" || w == "P") {
            if (h < 1 || h > 12) return false;
            if (w[0] == 'P' && h != 12) h += 12;
            if (w[0] == 'A' && h == 12) h = 0;
            ampm = true;
            ++i;
        }
    }
    if (i != t.size() || (!hadColon && !ampm)) return false;
    if (h > 23 || mi > 59 || sec >= 60) return false;
    frac = (h * 3600 + mi * 60 + sec) / 86400.0;
    return true;
}

bool isSep(const Tok& t, const char* s) { return t.kind == Tok::Sep && t.text == s; }

// Date part at the start; sets the index after it.
bool parseDatePart(const std::vector<Tok>& t, size_t& k, double& serial) {
    auto num = [&](size_t i) { return i < t.size() && t[i].kind == Tok::Num; };
    auto word = [&](size_t i) { return i < t.size() && t[i].kind == Tok::Word && monthFromName(t[i].text); };
    auto sep = [&](size_t i) {
        return i < t.size() && t[i].kind == Tok::Sep &&
               (t[i].text == "-" || t[i].text == "/" || t[i].text == "." || t[i].text == ",");
    };
    int y = 0, m = 0, d = 0;
    // yyyy-mm-dd, yyyy/mm/dd
    if (num(0) && t[0].text.size() == 4 && sep(1) && num(2) && sep(3) && num(4)) {
        y = t[0].num, m = t[2].num, d = t[4].num;
        k = 5;
    } else if (num(0) && sep(1) && word(2) && sep(3) && num(4)) {  // d-mmm-yy
        d = t[0].num, m = monthFromName(t[2].text), y = fullYear(t[4].num, t[4].text.size());
        k = 5;
    } else if (num(0) && word(1) && num(2)) {  // d mmm yyyy
        d = t[0].num, m = monthFromName(t[1].text), y = fullYear(t[2].num, t[2].text.size());
        k = 3;
    } else if (word(0) && num(1)) {  // mmm d, yyyy / mmm d yyyy
        size_t i = 2;
        if (i < t.size() && isSep(t[i], ",")) ++i;
        if (!num(i)) return false;
        m = monthFromName(t[0].text), d = t[1].num, y = fullYear(t[i].num, t[i].text.size());
        k = i + 1;
    } else if (num(0) && sep(1) && num(2) && sep(3) && num(4) && t[1].text == t[3].text) {
        // "." between the parts: d.m.y; otherwise the month first (m/d/y).
        if (t[1].text == ".") d = t[0].num, m = t[2].num;
        else m = t[0].num, d = t[2].num;
        y = fullYear(t[4].num, t[4].text.size());
        k = 5;
    } else {
        return false;
    }
    if (!validDate(y, m, d)) return false;
    serial = DateSerial(y, m, d);
    return true;
}

}  // namespace

void SetRegionalSeparatorsForTest(char decimal, char thousands) {
    g_decimal = decimal ? decimal : '.';
    g_thousands = thousands ? thousands : ',';
}
char MachineDecimal() { return g_decimal; }
char MachineThousands() { return g_thousands; }

bool GetRegionalSeparators(char& decimal, char& thousands) {
    const std::string s = Format(1234.56, "0,000.00");  // "1,234.56" on a "." machine
    decimal = s.size() > 5 ? s[5] : '.';
    thousands = s.size() > 1 ? s[1] : ',';
    return decimal != '.';
}

std::string FixRegionalNumber(std::string_view text, char decimal, char thousands, bool mode) {
    std::string s(text);
    if (mode) {
        for (char& c : s)
            if (c == ',') c = '@';
        for (char& c : s)
            if (c == '.') c = decimal;
        for (char& c : s)
            if (c == '@') c = thousands;
    } else if (s.find(',') != std::string::npos) {
        for (char& c : s)
            if (c == '.') c = '@';
        for (char& c : s)
            if (c == ',') c = decimal;
        for (char& c : s)
            if (c == '@') c = thousands;
    }
    return s;
}

bool ParseMachineNumber(std::string_view text, double& out) {
    text = trim(text);
    if (text.empty()) return false;
    std::string s;
    s.reserve(text.size());
    bool digitSeen = false, pointSeen = false;
    for (char c : text) {
        if (c == g_decimal) {
            s += '.';
            pointSeen = true;
        } else if (c == g_thousands && !pointSeen && digitSeen) {
            continue;  // grouping in the integer part, as CDbl accepts it
        } else {
            s += c;
            if (std::isdigit(static_cast<unsigned char>(c))) digitSeen = true;
        }
    }
    // Sign, digits, point, exponent (also "D"), checked by hand; then from_chars,
    // which does not depend on the C locale.
    size_t i = 0;
    bool neg = false;
    if (s[i] == '+' || s[i] == '-') neg = s[i++] == '-';
    size_t digits = 0;
    const size_t start = i;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i, ++digits;
    if (i < s.size() && s[i] == '.') {
        ++i;
        while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i, ++digits;
    }
    if (digits == 0) return false;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E' || s[i] == 'd' || s[i] == 'D')) {
        s[i] = 'e';
        size_t j = i + 1;
        if (j < s.size() && (s[j] == '+' || s[j] == '-')) ++j;
        size_t ed = 0;
        while (j < s.size() && std::isdigit(static_cast<unsigned char>(s[j]))) ++j, ++ed;
        if (ed == 0) return false;
        i = j;
    }
    if (i != s.size()) return false;
    std::string body = s.substr(start);
    if (!body.empty() && body[0] == '.') body.insert(body.begin(), '0');
    double v = 0;
    const auto r = std::from_chars(body.data(), body.data() + body.size(), v);
    if (r.ec != std::errc() || r.ptr != body.data() + body.size() || !std::isfinite(v)) return false;
    out = neg ? -v : v;
    return true;
}

double DateSerial(int year, int month, int day, int hour, int minute, double second) {
    const double days = static_cast<double>(daysFromCivil(year, static_cast<unsigned>(month),
                                                          static_cast<unsigned>(day)) +
                                            kEpochOffset);
    const double frac = (hour * 3600.0 + minute * 60.0 + second) / 86400.0;
    // Before 1899-12-30 the fraction counts forward from midnight of a day
    // whose serial is negative: -1.25 is 1899-12-29 06:00.
    return days < 0 ? days - frac : days + frac;
}

CivilTime CivilFromSerial(double serial) {
    CivilTime ct;
    if (!std::isfinite(serial)) return ct;
    double dayPart = std::trunc(serial);
    long long secs = std::llround(std::fabs(serial - dayPart) * 86400.0);
    long long days = static_cast<long long>(dayPart);
    if (secs >= 86400) {
        secs -= 86400;
        days += serial < 0 ? -1 : 1;
    }
    civilFromDays(days - kEpochOffset, ct.year, ct.month, ct.day);
    ct.hour = static_cast<int>(secs / 3600);
    ct.minute = static_cast<int>(secs / 60 % 60);
    ct.second = static_cast<int>(secs % 60);
    // 1899-12-30 was a Saturday (7).
    long long w = ((days % 7) + 7) % 7;  // 0 for a Saturday
    ct.weekday = static_cast<int>(w == 0 ? 7 : w);
    return ct;
}

bool ParseDateText(std::string_view text, double& serial) {
    text = trim(text);
    if (text.empty()) return false;
    double num = 0;
    if (ParseMachineNumber(text, num)) {
        if (num < -657434 || num > 2958465) return false;  // 100-01-01 .. 9999-12-31
        serial = num;
        return true;
    }
    const std::vector<Tok> t = tokenize(text);
    if (t.empty()) return false;
    // Skip a leading weekday name ("Sunday, November 22, 2026").
    size_t skip = 0;
    if (t[0].kind == Tok::Word && !monthFromName(t[0].text) && t.size() > 1) {
        skip = 1;
        if (isSep(t[1], ",")) skip = 2;
    }
    const std::vector<Tok> rest(t.begin() + static_cast<long>(skip), t.end());
    size_t k = 0;
    double date = 0;
    if (parseDatePart(rest, k, date)) {
        double frac = 0;
        if (!parseTime(rest, k, frac)) return false;
        // Before 1899-12-30 the time counts away from zero (-1.25 is 29 Dec, 06:00).
        serial = date < 0 ? date - frac : date + frac;
        return true;
    }
    if (skip) return false;
    double frac = 0;
    if (!parseTime(rest, 0, frac)) return false;
    serial = frac;
    return true;
}

bool FixRegionalDateSerial(std::string_view text, char decimal, char thousands, double& serial) {
    if (ParseDateText(text, serial)) return true;
    if (ParseDateText(FixRegionalNumber(text, decimal, thousands, true), serial)) return true;
    return ParseDateText(FixRegionalNumber(text, decimal, thousands, false), serial);
}

}  // namespace zorv

namespace zorv {

double NowSerial() {
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    return DateSerial(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

}  // namespace zorv
