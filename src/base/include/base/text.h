// Text helpers in the manner of the original language: ASCII case folding
// (UCase, LCase, case-blind compares), Replace without rescan, Trim.
#pragma once

#include <string>
#include <string_view>

namespace zorv {

inline char UpChar(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c; }
inline char LowChar(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

inline std::string Upper(std::string_view s) {
    std::string r(s);
    for (char& c : r) c = UpChar(c);
    return r;
}
inline std::string Lower(std::string_view s) {
    std::string r(s);
    for (char& c : r) c = LowChar(c);
    return r;
}
inline bool IEquals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (UpChar(a[i]) != UpChar(b[i])) return false;
    return true;
}
inline bool IStartsWith(std::string_view s, std::string_view prefix) {
    return s.size() >= prefix.size() && IEquals(s.substr(0, prefix.size()), prefix);
}
inline bool IContains(std::string_view s, std::string_view part) {
    if (part.empty()) return true;
    for (size_t i = 0; i + part.size() <= s.size(); ++i)
        if (IEquals(s.substr(i, part.size()), part)) return true;
    return false;
}
inline bool IEndsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && IEquals(s.substr(s.size() - suffix.size()), suffix);
}

// Every occurrence, left to right, no rescan of what was put in.
inline std::string Replace(std::string_view s, std::string_view from, std::string_view to) {
    if (from.empty()) return std::string(s);
    std::string r;
    r.reserve(s.size());
    size_t i = 0;
    while (true) {
        const size_t j = s.find(from, i);
        if (j == std::string_view::npos) break;
        r.append(s.substr(i, j - i));
        r.append(to);
        i = j + from.size();
    }
    r.append(s.substr(i));
    return r;
}
inline void ReplaceAll(std::string& s, std::string_view from, std::string_view to) {
    s = Replace(s, from, to);
}

// Blanks and tabs off both ends.
inline std::string Trim(std::string_view s) {
    size_t a = 0, b = s.size();
    while (a < b && (s[a] == ' ' || s[a] == '\t')) ++a;
    while (b > a && (s[b - 1] == ' ' || s[b - 1] == '\t')) --b;
    return std::string(s.substr(a, b - a));
}

// Appends `s` as a JSON string literal: quotes, backslash escapes, control
// characters as \u00XX. Bytes above 0x7f pass as they are (UTF-8 stays UTF-8).
inline void AppendJsonString(std::string& out, std::string_view s) {
    static const char hex[] = "0123456789abcdef";
    out += '"';
    for (unsigned char c : s) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    out += "\\u00";
                    out += hex[c >> 4];
                    out += hex[c & 15];
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += '"';
}

}  // namespace zorv
