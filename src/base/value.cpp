#include "base/value.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "base/regional.h"
#include "base/datam.h"

namespace zorv {

namespace {

detail::StrRep* makeStr(std::string_view s) {
    void* mem = ::operator new(sizeof(detail::StrRep) + s.size());
    auto* rep = static_cast<detail::StrRep*>(mem);
    new (&rep->rc) std::atomic<uint32_t>(1);
    rep->len = static_cast<uint32_t>(s.size());
    if (!s.empty()) std::memcpy(rep->data, s.data(), s.size());
    rep->data[s.size()] = '\0';
    return rep;
}

bool isBlankChar(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

Value::Value(std::string_view s) : t_(VType::String) { u_.s = makeStr(s); }

Value::Value(const Datam& array) : t_(VType::Array) { u_.a = new detail::ArrRep{{1}, array}; }

Value::Value(Datam&& array) : t_(VType::Array) {
    u_.a = new detail::ArrRep{{1}, std::move(array)};
}

void Value::retainShared() const noexcept {
    if (t_ == VType::String)
        u_.s->rc.fetch_add(1, std::memory_order_relaxed);
    else if (t_ == VType::Array)
        u_.a->rc.fetch_add(1, std::memory_order_relaxed);
}

void Value::releaseShared() noexcept {
    if (t_ == VType::String) {
        if (u_.s->rc.fetch_sub(1, std::memory_order_acq_rel) == 1) ::operator delete(u_.s);
    } else {
        if (u_.a->rc.fetch_sub(1, std::memory_order_acq_rel) == 1) delete u_.a;
    }
}

bool ParseNumber(std::string_view t, double& out) {
    size_t b = 0, e = t.size();
    while (b < e && isBlankChar(t[b])) ++b;
    while (e > b && isBlankChar(t[e - 1])) --e;
    if (b == e) return false;
    std::string_view s = t.substr(b, e - b);
    if (s.size() > 2 && s[0] == '&' && (s[1] == 'H' || s[1] == 'h' || s[1] == 'O' || s[1] == 'o')) {
        const int base = (s[1] == 'H' || s[1] == 'h') ? 16 : 8;
        long long v = 0;
        for (size_t i = 2; i < s.size(); ++i) {
            const char c = s[i];
            int dgt;
            if (c >= '0' && c <= '9') dgt = c - '0';
            else if (base == 16 && c >= 'a' && c <= 'f') dgt = c - 'a' + 10;
            else if (base == 16 && c >= 'A' && c <= 'F') dgt = c - 'A' + 10;
            else return false;
            if (dgt >= base) return false;
            v = v * base + dgt;
            if (v > 0xFFFFFFFFLL) return false;
        }
        // Hex and octal literals are 16 or 32-bit signed in the original language.
        if (v <= 0xFFFF && s.size() <= 6 && base == 16) v = static_cast<int16_t>(v);
        else v = static_cast<int32_t>(static_cast<uint32_t>(v));
        out = static_cast<double>(v);
        return true;
    }
    size_t i = 0;
    if (s[i] == '+' || s[i] == '-') ++i;
    size_t digits = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++digits;
    if (i < s.size() && s[i] == '.') {
        ++i;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++digits;
    }
    if (digits == 0) return false;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E' || s[i] == 'd' || s[i] == 'D')) {
        size_t j = i + 1;
        if (j < s.size() && (s[j] == '+' || s[j] == '-')) ++j;
        size_t ed = 0;
        while (j < s.size() && s[j] >= '0' && s[j] <= '9') ++j, ++ed;
        if (ed == 0) return false;
        i = j;
    }
    if (i != s.size()) return false;
    // from_chars ignores the C locale, which the GUI toolkit sets from the
    // user's environment; it takes no "+" and no "d" exponent, so normalise.
    std::string buf;
    buf.reserve(s.size());
    for (char c : s) {
        if (c == 'd' || c == 'D') c = 'e';
        if (c == '+' && buf.empty()) continue;
        buf += c;
    }
    double v = 0;
    const auto res = std::from_chars(buf.data(), buf.data() + buf.size(), v);
    if (res.ec != std::errc() || res.ptr != buf.data() + buf.size() || !std::isfinite(v))
        return false;
    out = v;
    return true;
}

std::string NumberToText(double d, int significant) {
    if (d == 0) return "0";
    if (std::isnan(d)) return "NaN";
    if (std::isinf(d)) return d > 0 ? "Inf" : "-Inf";
    char buf[40];
    const auto res = std::to_chars(buf, buf + sizeof buf, d, std::chars_format::general, significant);
    std::string out(buf, res.ptr);
    for (char& c : out)
        if (c == 'e') c = 'E';
    return out;
}

double Value::toDouble(bool* ok) const {
    if (ok) *ok = true;
    switch (t_) {
        case VType::Empty: return 0;
        case VType::Integer:
        case VType::Long:
        case VType::Boolean: return u_.i;
        case VType::Single: return u_.f;
        case VType::Double:
        case VType::Date: return u_.d;
        case VType::String: {
            double v = 0;
            if (ParseNumber(str(), v)) return v;
            break;
        }
        default: break;
    }
    if (ok) *ok = false;
    return 0;
}

int32_t Value::toLong(bool* ok) const {
    bool good = true;
    const double d = toDouble(&good);
    const double r = std::nearbyint(d);  // default rounding mode: half to even
    if (r > std::numeric_limits<int32_t>::max() || r < std::numeric_limits<int32_t>::min()) {
        if (ok) *ok = false;
        return 0;
    }
    if (ok) *ok = good;
    return static_cast<int32_t>(r);
}

bool Value::toBool() const {
    if (t_ == VType::String) {
        const std::string_view s = str();
        if (s.size() == 4 && (s[0] == 'T' || s[0] == 't') &&
            (s == "True" || s == "TRUE" || s == "true"))
            return true;
        if (s.size() == 5 && (s == "False" || s == "FALSE" || s == "false")) return false;
    }
    return toDouble() != 0;
}

std::string Value::toString() const {
    switch (t_) {
        case VType::Empty:
        case VType::Null: return {};
        case VType::Error: return "Error " + std::to_string(u_.i);
        case VType::Integer:
        case VType::Long: return std::to_string(u_.i);
        case VType::Boolean: return u_.i ? "True" : "False";
        case VType::Single: return NumberToText(u_.f, 7);
        case VType::Double: return NumberToText(u_.d, 15);
        case VType::String: return std::string(str());
        case VType::Array: return {};
        case VType::Date: {
            const CivilTime ct = CivilFromSerial(u_.d);
            const bool timeOnly = std::trunc(u_.d) == 0 && u_.d != 0;
            const bool hasTime = ct.hour || ct.minute || ct.second;
            char buf[48];
            if (timeOnly)  // a time of day alone, as CStr writes it
                std::snprintf(buf, sizeof buf, "%02d:%02d:%02d", ct.hour, ct.minute, ct.second);
            else if (!hasTime)
                std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", ct.year, ct.month, ct.day);
            else
                std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", ct.year, ct.month,
                              ct.day, ct.hour, ct.minute, ct.second);
            return buf;
        }
    }
    return {};
}

size_t Value::textLength() const {
    switch (t_) {
        case VType::Empty:
        case VType::Null:
        case VType::Array: return 0;
        case VType::String: return u_.s->len;
        default: return toString().size();
    }
}

bool Value::isNumericPlain() const {
    switch (t_) {
        case VType::Empty:
        case VType::Integer:
        case VType::Long:
        case VType::Single:
        case VType::Double:
        case VType::Boolean: return true;
        case VType::String: {
            double v;
            return ParseNumber(str(), v);
        }
        default: return false;
    }
}

bool Value::identical(const Value& o) const {
    if (t_ != o.t_) return false;
    switch (t_) {
        case VType::Empty:
        case VType::Null: return true;
        case VType::Single: return u_.f == o.u_.f;
        case VType::Double:
        case VType::Date: return u_.d == o.u_.d;
        case VType::String: return str() == o.str();
        case VType::Array: return u_.a == o.u_.a;
        default: return u_.i == o.u_.i;
    }
}

bool IsNumericValue(std::string_view text) {
    if (text.empty()) return false;
    double v;
    if (ParseNumber(text, v)) return true;
    if (text.find('%') == std::string_view::npos) return false;
    std::string s;
    s.reserve(text.size());
    for (char c : text)
        if (c != '%') s += c;
    return ParseNumber(s, v);
}

bool IsNumericValue(const Value& v) {
    switch (v.type()) {
        case VType::Empty:
        case VType::Null:
        case VType::Error:
        case VType::Array:
        case VType::Date: return false;
        case VType::String: return IsNumericValue(v.str());
        default: return true;
    }
}

}  // namespace zorv
