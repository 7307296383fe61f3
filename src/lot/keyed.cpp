#include "lot/keyed.h"

#include <cctype>
#include <cmath>
#include <cstring>

namespace zorv {

namespace {

// "0", "12", "-7": the one text form of an int32, so that the number and the
// text are interchangeable as keys.
bool canonicalInt(std::string_view t, int32_t& out) {
    if (t.empty() || t.size() > 11) return false;
    size_t i = 0;
    bool neg = false;
    if (t[0] == '-') {
        neg = true;
        i = 1;
        if (t.size() == 1) return false;
    }
    if (t[i] == '0' && (t.size() - i > 1 || neg)) return false;
    int64_t v = 0;
    for (; i < t.size(); ++i) {
        if (t[i] < '0' || t[i] > '9') return false;
        v = v * 10 + (t[i] - '0');
    }
    if (neg) v = -v;
    if (v < INT32_MIN || v > INT32_MAX) return false;
    out = static_cast<int32_t>(v);
    return true;
}

inline size_t mix(uint64_t x) {
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    return static_cast<size_t>(x);
}

}  // namespace

Value MakeKey(std::string_view text) {
    int32_t n;
    if (canonicalInt(text, n)) return Value(n);
    return Value(text);
}

Value MakeKey(long n) {
    if (n >= INT32_MIN && n <= INT32_MAX) return Value(static_cast<int32_t>(n));
    return Value(std::to_string(n));
}

std::string KeyText(const Value& key) {
    if (key.type() == VType::Long) return std::to_string(key.toLong());
    if (key.isString()) return std::string(key.str());
    return key.toString();
}

bool KeyEqual(const Value& a, const Value& b) {
    const bool al = a.type() == VType::Long, bl = b.type() == VType::Long;
    if (al && bl) return a.toLong() == b.toLong();
    if (al || bl) {
        if (a.isString() || b.isString()) return false;  // canonical ints are never strings
        return KeyText(a) == KeyText(b);
    }
    std::string_view x = a.isString() ? a.str() : std::string_view();
    std::string_view y = b.isString() ? b.str() : std::string_view();
    if (!a.isString() || !b.isString()) return KeyText(a) == KeyText(b);
    if (x.size() != y.size()) return false;
    for (size_t i = 0; i < x.size(); ++i)
        if (std::toupper(static_cast<unsigned char>(x[i])) != std::toupper(static_cast<unsigned char>(y[i])))
            return false;
    return true;
}

size_t KeyHash(const Value& key) {
    if (key.type() == VType::Long) return mix(static_cast<uint64_t>(static_cast<int64_t>(key.toLong())));
    if (key.isNumberType()) {
        // a whole number stands for the same key as its Long form
        const double d = key.toDouble();
        if (d == std::floor(d) && d >= INT32_MIN && d <= INT32_MAX)
            return mix(static_cast<uint64_t>(static_cast<int64_t>(d)));
    }
    std::string text;
    std::string_view s;
    if (key.isString()) {
        s = key.str();
    } else {
        text = KeyText(key);
        s = text;
    }
    uint64_t h = 1469598103934665603ULL;
    for (unsigned char c : s) {
        h ^= static_cast<unsigned char>(std::toupper(c));
        h *= 1099511628211ULL;
    }
    return mix(h);
}

}  // namespace zorv
