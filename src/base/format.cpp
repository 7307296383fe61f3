#include "base/format.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "base/regional.h"
#include "base/text.h"

namespace zorv {

namespace {

// |value| as decimal digits: value = 0.D * 10^E, D without leading or
// trailing zeros; zero is D = "".
struct Dec {
    std::string d;
    int e = 0;
};

void stripTrailingZeros(Dec& x) {
    while (!x.d.empty() && x.d.back() == '0') x.d.pop_back();
    if (x.d.empty()) x.e = 0;
}

Dec decFromDouble(double v, int significant) {
    Dec x;
    v = std::fabs(v);
    if (v == 0 || !std::isfinite(v)) return x;
    char buf[64];
    const auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::scientific,
                                 significant - 1);
    std::string_view s(buf, static_cast<size_t>(r.ptr - buf));
    const size_t epos = s.find('e');
    for (char c : s.substr(0, epos))
        if (c != '.') x.d += c;
    int exp10 = 0;
    std::from_chars(s.data() + epos + (s[epos + 1] == '+' ? 2 : 1), s.data() + s.size(), exp10);
    x.e = exp10 + 1;
    stripTrailingZeros(x);
    return x;
}

Dec decFromInteger(long long v) {
    Dec x;
    unsigned long long u = v < 0 ? 0ULL - static_cast<unsigned long long>(v)
                                 : static_cast<unsigned long long>(v);
    if (u == 0) return x;
    x.d = std::to_string(u);
    x.e = static_cast<int>(x.d.size());
    stripTrailingZeros(x);
    return x;
}

// Rounds to `frac` decimals, half away from zero on the decimal digits.
void roundDec(Dec& x, int frac) {
    if (x.d.empty()) return;
    const long keep = static_cast<long>(x.e) + frac;
    if (keep < 0) {
        x = Dec{};
        return;
    }
    if (keep >= static_cast<long>(x.d.size())) return;
    const bool up = x.d[static_cast<size_t>(keep)] >= '5';
    x.d.resize(static_cast<size_t>(keep));
    if (up) {
        long i = keep - 1;
        while (i >= 0 && x.d[static_cast<size_t>(i)] == '9') x.d[static_cast<size_t>(i--)] = '0';
        if (i < 0) {
            x.d.insert(x.d.begin(), '1');
            ++x.e;
        } else {
            ++x.d[static_cast<size_t>(i)];
        }
    }
    stripTrailingZeros(x);
}

std::string intDigits(const Dec& x) {
    if (x.d.empty() || x.e <= 0) return {};
    std::string s = x.d.substr(0, std::min<size_t>(x.d.size(), static_cast<size_t>(x.e)));
    s.append(static_cast<size_t>(x.e) - s.size(), '0');
    return s;
}

std::string fracDigits(const Dec& x, int n) {
    std::string s;
    for (int p = 0; p < n; ++p) {
        const long i = static_cast<long>(x.e) + p;
        s += (i >= 0 && i < static_cast<long>(x.d.size())) ? x.d[static_cast<size_t>(i)] : '0';
    }
    return s;
}

// The number being formatted: its sign and a way to get its digits, kept
// apart from the digits so that percent and scaling shift exactly.
struct Num {
    bool neg = false;
    bool zero = true;
    Dec dec;
};

// Splits at ";" outside quotes and escapes.
std::vector<std::string_view> splitSections(std::string_view p) {
    std::vector<std::string_view> out;
    size_t start = 0;
    bool quoted = false;
    for (size_t i = 0; i < p.size(); ++i) {
        const char c = p[i];
        if (c == '"') quoted = !quoted;
        else if (!quoted && c == '\\') ++i;
        else if (!quoted && c == ';') {
            out.push_back(p.substr(start, i - start));
            start = i + 1;
        }
    }
    out.push_back(p.substr(start));
    return out;
}

// ---- numeric sections -------------------------------------------------------

struct Item {
    enum Kind { Lit, IntDigit, Point, FracDigit, Exp, ExpDigit, Comma } kind;
    std::string text;  // Lit: the text; digits: "0" or "#"; Exp: "E+" etc.
};

struct NumPattern {
    std::vector<Item> items;
    int intCount = 0, fracCount = 0, fracMin = 0, expMin = 0;
    bool point = false, grouping = false, percent = false, sci = false;
    int scale = 0;  // divisions by 1000
};

NumPattern parseNumPattern(std::string_view s) {
    NumPattern np;
    enum { Int, Frac, ExpPh } phase = Int;
    auto lit = [&](std::string t) {
        if (!np.items.empty() && np.items.back().kind == Item::Lit) np.items.back().text += t;
        else np.items.push_back({Item::Lit, std::move(t)});
    };
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        if (c == '"') {
            const size_t j = s.find('"', i + 1);
            const size_t end = j == std::string_view::npos ? s.size() : j;
            lit(std::string(s.substr(i + 1, end - i - 1)));
            i = end;
        } else if (c == '\\') {
            if (i + 1 < s.size()) lit(std::string(1, s[++i]));
        } else if (c == '0' || c == '#' || c == '?') {
            const std::string ph(1, c == '?' ? '#' : c);
            if (phase == Int) {
                np.items.push_back({Item::IntDigit, ph});
                ++np.intCount;
            } else if (phase == Frac) {
                np.items.push_back({Item::FracDigit, ph});
                ++np.fracCount;
                if (ph == "0") np.fracMin = np.fracCount;
            } else {
                np.items.push_back({Item::ExpDigit, ph});
                if (ph == "0") ++np.expMin;
            }
        } else if (c == '.' && phase == Int) {
            np.items.push_back({Item::Point, "."});
            np.point = true;
            phase = Frac;
        } else if (c == ',' && phase == Int) {
            np.items.push_back({Item::Comma, ","});
        } else if ((c == 'E' || c == 'e') && i + 1 < s.size() && (s[i + 1] == '+' || s[i + 1] == '-') &&
                   phase != ExpPh) {
            np.items.push_back({Item::Exp, std::string(s.substr(i, 2))});
            np.sci = true;
            phase = ExpPh;
            ++i;
        } else {
            if (c == '%') np.percent = true;
            lit(std::string(1, c));
        }
    }
    // A comma followed by an integer placeholder turns grouping on; commas
    // after the last integer placeholder scale by 1000 each.
    bool digitAfter = false;
    for (auto it = np.items.rbegin(); it != np.items.rend(); ++it) {
        if (it->kind == Item::Point || it->kind == Item::FracDigit || it->kind == Item::Exp ||
            it->kind == Item::ExpDigit)
            continue;
        if (it->kind == Item::IntDigit) digitAfter = true;
        else if (it->kind == Item::Comma) {
            if (digitAfter) np.grouping = true;
            else ++np.scale;
        }
    }
    return np;
}

std::string renderNumber(const NumPattern& np, Dec x) {
    if (np.percent && !x.d.empty()) x.e += 2;
    if (!x.d.empty()) x.e -= 3 * np.scale;

    int exponent = 0;
    if (np.sci) {
        if (!x.d.empty()) {
            exponent = x.e - np.intCount;
            x.e = np.intCount;
            roundDec(x, np.fracCount);
            if (!x.d.empty() && x.e > np.intCount) {
                // 9.99 rounded up to 10.0: one more power of ten.
                exponent += x.e - np.intCount;
                x.e = np.intCount;
            }
        }
    } else {
        roundDec(x, np.fracCount);
    }

    const std::string idig = intDigits(x);
    std::string fdig = fracDigits(x, np.fracCount);
    while (static_cast<int>(fdig.size()) > np.fracMin && fdig.back() == '0') fdig.pop_back();

    // Integer part: digits placed right-aligned on the placeholders, surplus
    // digits on the first one; literals where they stand. Grouping counts
    // the digits that will be written.
    const int L = static_cast<int>(idig.size());
    const int P = np.intCount;
    size_t idx = 0;
    size_t intEnd = 0;
    int total = L > P ? L - P : 0;
    {
        int ph = 0;
        for (; intEnd < np.items.size(); ++intEnd) {
            const Item& it = np.items[intEnd];
            if (it.kind == Item::Point || it.kind == Item::FracDigit || it.kind == Item::Exp ||
                it.kind == Item::ExpDigit)
                break;
            if (it.kind == Item::IntDigit) {
                if (ph - (P - L) >= 0 || it.text[0] == '0') ++total;
                ++ph;
            }
        }
    }
    std::string out;
    out.reserve(static_cast<size_t>(total) + static_cast<size_t>(np.fracCount) + 8);
    int seen = 0;
    auto digit = [&](char c) {
        out += c;
        ++seen;
        const int right = total - seen;
        if (np.grouping && right > 0 && right % 3 == 0) out += MachineThousands();
    };
    bool extraPlaced = false;
    auto placeExtra = [&]() {
        if (extraPlaced) return;
        extraPlaced = true;
        for (int k = 0; k < L - P; ++k) digit(idig[static_cast<size_t>(k)]);
    };
    int ph = 0;
    for (; idx < intEnd; ++idx) {
        const Item& it = np.items[idx];
        if (it.kind == Item::IntDigit) {
            placeExtra();
            const int di = ph - (P - L);
            if (di >= 0) digit(idig[static_cast<size_t>(di)]);
            else if (it.text[0] == '0') digit('0');
            ++ph;
        } else if (it.kind == Item::Lit) {
            out += it.text;
        }
    }
    placeExtra();  // no integer placeholder: the digits stand before the point

    int fk = 0;
    bool expDigitsDone = false;
    for (; idx < np.items.size(); ++idx) {
        const Item& it = np.items[idx];
        switch (it.kind) {
            case Item::Point: out += MachineDecimal(); break;
            case Item::FracDigit:
                if (fk < static_cast<int>(fdig.size())) out += fdig[static_cast<size_t>(fk)];
                ++fk;
                break;
            case Item::Exp:
                out += it.text[0];
                if (exponent < 0) out += '-';
                else if (it.text[1] == '+') out += '+';
                break;
            case Item::ExpDigit:
                if (!expDigitsDone) {
                    std::string e = std::to_string(std::abs(exponent));
                    if (static_cast<int>(e.size()) < np.expMin)
                        e.insert(0, static_cast<size_t>(np.expMin) - e.size(), '0');
                    if (np.expMin == 0 && exponent == 0) e.clear();
                    out += e;
                    expDigitsDone = true;
                }
                break;
            case Item::Lit: out += it.text; break;
            default: break;
        }
    }
    if (np.sci && !expDigitsDone) out += std::to_string(std::abs(exponent));
    return out;
}

// ---- date sections ----------------------------------------------------------

constexpr const char* kMonthNames[] = {"January", "February", "March",     "April",   "May",      "June",
                                       "July",    "August",   "September", "October", "November", "December"};
constexpr const char* kDayNames[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                     "Thursday", "Friday", "Saturday"};

constexpr std::string_view kShortDate = "yyyy-mm-dd";
constexpr std::string_view kLongDate = "dddd, mmmm d, yyyy";
constexpr std::string_view kLongTime = "hh:mm:ss";

struct DTok {
    enum Kind { Lit, D, DD, DDD, DDDD, ShortDate, LongDate, W, WW, M, MM, MMM, MMMM, Q, Y, YY, YYYY,
                H, HH, N, NN, S, SS, LongTime, General, AmPm } kind;
    std::string text;  // literal text, or the AM/PM token as written
};

bool isDateLetter(char c) {
    switch (std::tolower(static_cast<unsigned char>(c))) {
        case 'd': case 'w': case 'm': case 'q': case 'y': case 'h': case 'n': case 's': case 'c':
            return true;
        default: return false;
    }
}

// Length of an AM/PM token at i ("AM/PM", "A/P", "AMPM"), 0 if none.
size_t ampmAt(std::string_view s, size_t i) {
    if (IEquals(s.substr(i, 5), "AM/PM")) return 5;
    if (IEquals(s.substr(i, 4), "AMPM")) return 4;
    if (IEquals(s.substr(i, 3), "A/P")) return 3;
    return 0;
}

std::vector<DTok> parseDatePattern(std::string_view s) {
    std::vector<DTok> out;
    auto lit = [&](std::string t) {
        if (!out.empty() && out.back().kind == DTok::Lit) out.back().text += t;
        else out.push_back({DTok::Lit, std::move(t)});
    };
    for (size_t i = 0; i < s.size();) {
        const char c = s[i];
        if (c == '"') {
            const size_t j = s.find('"', i + 1);
            const size_t end = j == std::string_view::npos ? s.size() : j;
            lit(std::string(s.substr(i + 1, end - i - 1)));
            i = end + 1;
            continue;
        }
        if (c == '\\') {
            if (i + 1 < s.size()) lit(std::string(1, s[i + 1]));
            i += 2;
            continue;
        }
        if (const size_t n = ampmAt(s, i)) {
            out.push_back({DTok::AmPm, std::string(s.substr(i, n))});
            i += n;
            continue;
        }
        const char lc = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        size_t run = 1;
        while (i + run < s.size() && std::tolower(static_cast<unsigned char>(s[i + run])) == lc) ++run;
        DTok::Kind k = DTok::Lit;
        switch (lc) {
            case 'd': k = run == 1 ? DTok::D : run == 2 ? DTok::DD : run == 3 ? DTok::DDD
                        : run == 4 ? DTok::DDDD : run == 5 ? DTok::ShortDate : DTok::LongDate; break;
            case 'w': k = run == 1 ? DTok::W : DTok::WW; break;
            case 'm': k = run == 1 ? DTok::M : run == 2 ? DTok::MM : run == 3 ? DTok::MMM : DTok::MMMM; break;
            case 'q': k = DTok::Q; run = 1; break;
            case 'y': k = run == 1 ? DTok::Y : run == 2 ? DTok::YY : DTok::YYYY; break;
            case 'h': k = run == 1 ? DTok::H : DTok::HH; break;
            case 'n': k = run == 1 ? DTok::N : DTok::NN; break;
            case 's': k = run == 1 ? DTok::S : DTok::SS; break;
            case 'c': k = DTok::General; run = 1; break;
            case 't':
                if (run >= 5) { k = DTok::LongTime; run = 5; }
                break;
            default: break;
        }
        if (k == DTok::Lit) {
            lit(std::string(s.substr(i, run)));
        } else {
            out.push_back({k, {}});
        }
        i += run;
    }
    // "m" right after an hour or right before seconds is the minute.
    auto neighbour = [&](size_t i, int dir) -> DTok::Kind {
        for (long j = static_cast<long>(i) + dir; j >= 0 && j < static_cast<long>(out.size()); j += dir)
            if (out[static_cast<size_t>(j)].kind != DTok::Lit) return out[static_cast<size_t>(j)].kind;
        return DTok::Lit;
    };
    for (size_t i = 0; i < out.size(); ++i) {
        if (out[i].kind != DTok::M && out[i].kind != DTok::MM) continue;
        const DTok::Kind prev = neighbour(i, -1), next = neighbour(i, 1);
        if (prev == DTok::H || prev == DTok::HH || next == DTok::S || next == DTok::SS)
            out[i].kind = out[i].kind == DTok::M ? DTok::N : DTok::NN;
    }
    return out;
}

std::string two(int v) {
    std::string s = std::to_string(v);
    return s.size() < 2 ? "0" + s : s;
}

int dayOfYear(const CivilTime& t) { return static_cast<int>(DateSerial(t.year, t.month, t.day) -
                                                            DateSerial(t.year, 1, 1)) + 1; }

std::string renderDate(std::string_view pattern, double serial);

std::string renderDateTokens(const std::vector<DTok>& toks, double serial) {
    const CivilTime t = CivilFromSerial(serial);
    bool twelve = false;
    for (const DTok& k : toks)
        if (k.kind == DTok::AmPm) twelve = true;
    const int h12 = t.hour % 12 == 0 ? 12 : t.hour % 12;
    const int hour = twelve ? h12 : t.hour;
    std::string out;
    for (const DTok& k : toks) {
        switch (k.kind) {
            case DTok::Lit: out += k.text; break;
            case DTok::D: out += std::to_string(t.day); break;
            case DTok::DD: out += two(t.day); break;
            case DTok::DDD: out += std::string(kDayNames[t.weekday - 1]).substr(0, 3); break;
            case DTok::DDDD: out += kDayNames[t.weekday - 1]; break;
            case DTok::ShortDate: out += renderDate(kShortDate, serial); break;
            case DTok::LongDate: out += renderDate(kLongDate, serial); break;
            case DTok::W: out += std::to_string(t.weekday); break;
            case DTok::WW: {
                const CivilTime jan1 = CivilFromSerial(DateSerial(t.year, 1, 1));
                out += std::to_string((dayOfYear(t) + jan1.weekday - 2) / 7 + 1);
                break;
            }
            case DTok::M: out += std::to_string(t.month); break;
            case DTok::MM: out += two(t.month); break;
            case DTok::MMM: out += std::string(kMonthNames[t.month - 1]).substr(0, 3); break;
            case DTok::MMMM: out += kMonthNames[t.month - 1]; break;
            case DTok::Q: out += std::to_string((t.month - 1) / 3 + 1); break;
            case DTok::Y: out += std::to_string(dayOfYear(t)); break;
            case DTok::YY: out += two(t.year % 100); break;
            case DTok::YYYY: out += std::to_string(t.year); break;
            case DTok::H: out += std::to_string(hour); break;
            case DTok::HH: out += two(hour); break;
            case DTok::N: out += std::to_string(t.minute); break;
            case DTok::NN: out += two(t.minute); break;
            case DTok::S: out += std::to_string(t.second); break;
            case DTok::SS: out += two(t.second); break;
            case DTok::LongTime: out += renderDate(kLongTime, serial); break;
            case DTok::General: {
                const bool hasDate = std::trunc(serial) != 0;
                const bool hasTime = t.hour || t.minute || t.second;
                if (hasDate) out += renderDate(kShortDate, serial);
                if (hasDate && hasTime) out += ' ';
                if (hasTime || !hasDate) out += renderDate(kLongTime, serial);
                break;
            }
            case DTok::AmPm: {
                const bool pm = t.hour >= 12;
                const std::string& w = k.text;
                if (IEquals(w, "AMPM")) out += pm ? "PM" : "AM";
                else if (w.size() == 3) out += pm ? w[2] : w[0];  // A/P, a/p
                else out += pm ? w.substr(3, 2) : w.substr(0, 2);  // AM/PM, am/pm
                break;
            }
        }
    }
    return out;
}

std::string renderDate(std::string_view pattern, double serial) {
    return renderDateTokens(parseDatePattern(pattern), serial);
}

bool sectionIsDate(std::string_view s) {
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        if (c == '"') {
            const size_t j = s.find('"', i + 1);
            if (j == std::string_view::npos) return false;
            i = j;
        } else if (c == '\\') {
            ++i;
        } else if (isDateLetter(c) || ampmAt(s, i) || IEquals(s.substr(i, 5), "ttttt")) {
            return true;
        }
    }
    return false;
}

// Named formats.
enum class Named { None, GeneralNumber, YesNo, TrueFalse, OnOff, Date };

Named namedFormat(std::string_view p, std::string_view& expanded) {
    struct Entry {
        const char* name;
        Named kind;
        const char* pattern;
    };
    static const Entry table[] = {
        {"General Number", Named::GeneralNumber, ""},
        {"Currency", Named::None, "$#,##0.00;($#,##0.00)"},
        {"Fixed", Named::None, "0.00"},
        {"Standard", Named::None, "#,##0.00"},
        {"Percent", Named::None, "0.00%"},
        {"Scientific", Named::None, "0.00E+00"},
        {"Yes/No", Named::YesNo, ""},
        {"True/False", Named::TrueFalse, ""},
        {"On/Off", Named::OnOff, ""},
        {"General Date", Named::Date, "c"},
        {"Long Date", Named::Date, "dddd, mmmm d, yyyy"},
        {"Medium Date", Named::Date, "dd-mmm-yy"},
        {"Short Date", Named::Date, "yyyy-mm-dd"},
        {"Long Time", Named::Date, "hh:mm:ss"},
        {"Medium Time", Named::Date, "hh:mm AMPM"},
        {"Short Time", Named::Date, "hh:mm"},
    };
    for (const Entry& e : table)
        if (IEquals(p, e.name)) {
            expanded = e.pattern;
            return e.kind == Named::None ? Named::None : e.kind;
        }
    expanded = p;
    return Named::None;
}

// A pattern taken apart once: named kind, sections, date tokens.
struct Compiled {
    Named named = Named::None;
    bool isDate = false;
    bool empty = false;
    std::vector<DTok> date;
    std::vector<NumPattern> sections;  // up to three
    std::vector<bool> sectionEmpty;
};

std::shared_ptr<const Compiled> compile(std::string_view pattern) {
    auto c = std::make_shared<Compiled>();
    std::string_view p;
    c->named = namedFormat(pattern, p);
    if (c->named == Named::Date) {
        c->isDate = true;
        c->date = parseDatePattern(p);
        return c;
    }
    if (c->named != Named::None) return c;
    if (p.empty()) {
        c->empty = true;
        return c;
    }
    const std::vector<std::string_view> sections = splitSections(p);
    if (sectionIsDate(sections[0])) {
        c->isDate = true;
        c->date = parseDatePattern(sections[0]);
        return c;
    }
    for (size_t i = 0; i < sections.size() && i < 3; ++i) {
        c->sections.push_back(parseNumPattern(sections[i]));
        c->sectionEmpty.push_back(sections[i].empty());
    }
    return c;
}

// The last few patterns, per thread: tables format column after column with
// the same pattern.
std::shared_ptr<const Compiled> compiled(std::string_view pattern) {
    struct Slot {
        std::string key;
        std::shared_ptr<const Compiled> value;
    };
    thread_local Slot slots[8];
    thread_local unsigned next = 0;
    for (Slot& s : slots)
        if (s.value && s.key == pattern) return s.value;
    Slot& s = slots[next++ % 8];
    s.key.assign(pattern);
    s.value = compile(pattern);
    return s.value;
}

constexpr double kMinSerial = -657434;  // 100-01-01
constexpr double kMaxSerial = 2958465;  // 9999-12-31

// The common path: a number given by its sign, exactness and digits.
std::string formatNumber(bool neg, bool isZero, const Dec& digits, double asDouble,
                         std::string_view pattern, int significant, bool integral) {
    const std::shared_ptr<const Compiled> c = compiled(pattern);
    auto cstr = [&]() {
        if (integral) return std::string(neg ? "-" : "") + intDigits(digits);
        return CStrNumber(asDouble, significant);
    };
    switch (c->named) {
        case Named::GeneralNumber: return isZero ? "0" : cstr();
        case Named::YesNo: return isZero ? "No" : "Yes";
        case Named::TrueFalse: return isZero ? "False" : "True";
        case Named::OnOff: return isZero ? "Off" : "On";
        default: break;
    }
    if (c->isDate) {
        if (asDouble < kMinSerial || asDouble > kMaxSerial) return cstr();
        return renderDateTokens(c->date, asDouble);
    }
    if (c->empty) return isZero ? "0" : cstr();
    size_t sec = 0;
    bool sign = neg;
    if (isZero && c->sections.size() >= 3 && !c->sectionEmpty[2]) {
        sec = 2;
    } else if (neg && c->sections.size() >= 2 && !c->sectionEmpty[1]) {
        sec = 1;
        sign = false;
    }
    std::string body = renderNumber(c->sections[sec], digits);
    if (sign) body.insert(body.begin(), '-');
    return body;
}

}  // namespace

std::string CStrNumber(double v, int significant) {
    if (v == 0) return "0";
    if (std::isnan(v)) return "NaN";
    if (std::isinf(v)) return v > 0 ? "Inf" : "-Inf";
    char buf[64];
    const auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::general, significant);
    std::string s(buf, static_cast<size_t>(r.ptr - buf));
    for (char& c : s) {
        if (c == 'e') c = 'E';
        else if (c == '.') c = MachineDecimal();
    }
    return s;
}

std::string Format(double v, std::string_view pattern) {
    if (!std::isfinite(v)) return CStrNumber(v, 15);
    return formatNumber(v < 0, v == 0, decFromDouble(v, 15), v, pattern, 15, false);
}

std::string Format(float v, std::string_view pattern) {
    if (!std::isfinite(v)) return CStrNumber(v, 7);
    const double d = v;
    return formatNumber(v < 0, v == 0, decFromDouble(d, 7), d, pattern, 7, false);
}

std::string FormatInteger(long long v, std::string_view pattern) {
    return formatNumber(v < 0, v == 0, decFromInteger(v), static_cast<double>(v), pattern, 15, true);
}

std::string FormatDate(double serial, std::string_view pattern) {
    if (pattern.empty()) pattern = "c";
    if (compiled(pattern)->isDate) {
        if (std::isfinite(serial) && serial >= kMinSerial && serial <= kMaxSerial)
            return formatNumber(serial < 0, serial == 0, Dec{}, serial, pattern, 15, false);
        return CStrNumber(serial, 15);
    }
    return Format(serial, pattern);
}

std::string FormatText(std::string_view text, std::string_view pattern) {
    if (pattern.empty()) return std::string(text);
    double v = 0;
    if (ParseMachineNumber(text, v)) return Format(v, pattern);
    if (IsDatePattern(pattern) && ParseDateText(text, v)) return FormatDate(v, pattern);
    return std::string(text);
}

bool IsDatePattern(std::string_view pattern) { return compiled(pattern)->isDate; }

}  // namespace zorv
