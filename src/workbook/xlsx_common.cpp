// Pieces shared by the reader and writer: number formats and styles, text
// escapes, ISO dates, relationship targets.
#include <cmath>
#include <cstring>

#include "xlsx_internal.h"

namespace zorv::xlsx {

// ----------------------------------------------------------------- styles

void StyleTable::reset(std::vector<Style> xfs) {
    if (xfs.empty()) xfs.push_back(Style{});
    styles_ = std::move(xfs);
    date_.clear();
    index_.clear();
    for (size_t i = 0; i < styles_.size(); ++i) {
        date_.push_back(IsDateFormat(styles_[i].numFmt));
        index_.emplace(std::make_tuple(styles_[i].numFmt, styles_[i].bold, int(styles_[i].align)),
                       static_cast<uint16_t>(i));
    }
    original = styles_.size();
}

uint16_t StyleTable::intern(const Style& s) {
    auto key = std::make_tuple(s.numFmt, s.bold, int(s.align));
    auto it = index_.find(key);
    if (it != index_.end()) return it->second;
    if (styles_.size() >= 65000) return 0;  // Excel's own limit is 64000 formats
    styles_.push_back(s);
    date_.push_back(IsDateFormat(s.numFmt));
    auto id = static_cast<uint16_t>(styles_.size() - 1);
    index_.emplace(std::move(key), id);
    return id;
}

namespace {
// Built-in formats of the en-US locale (ids without a fixed code are empty).
const char* const kBuiltin[50] = {
    "General", "0", "0.00", "#,##0", "#,##0.00", "", "", "", "", "0%",
    "0.00%", "0.00E+00", "# ?/?", "# ?\?/??", "m/d/yyyy", "d-mmm-yy", "d-mmm", "mmm-yy", "h:mm AM/PM",
    "h:mm:ss AM/PM", "h:mm", "h:mm:ss", "m/d/yyyy h:mm", "", "", "", "", "", "", "", "", "", "", "", "",
    "", "", "#,##0 ;(#,##0)", "#,##0 ;[Red](#,##0)", "#,##0.00;(#,##0.00)", "#,##0.00;[Red](#,##0.00)", "",
    "", "", "", "mm:ss", "[h]:mm:ss", "mmss.0", "##0.0E+0", "@"};
}  // namespace

std::string_view BuiltinFormat(int id) {
    if (id < 0 || id >= 50) return {};
    return kBuiltin[id];
}

int BuiltinFormatId(std::string_view code) {
    if (code.empty() || IEquals(code, "General")) return 0;
    for (int i = 1; i < 50; ++i)
        if (kBuiltin[i][0] && code == kBuiltin[i]) return i;
    return -1;
}

bool IsBuiltinDateId(int id) { return (id >= 14 && id <= 22) || (id >= 45 && id <= 47); }

bool IsDateFormat(std::string_view code) {
    if (code.empty() || IEquals(code, "General")) return false;
    // Only the first section decides (positive numbers).
    bool quoted = false;
    for (size_t i = 0; i < code.size(); ++i) {
        char c = code[i];
        if (quoted) {
            if (c == '"') quoted = false;
            continue;
        }
        switch (c) {
        case '"': quoted = true; break;
        case '\\':
        case '_':
        case '*': ++i; break;
        case ';': return false;
        case '[': {
            size_t j = code.find(']', i);
            if (j == std::string_view::npos) return false;
            std::string_view in = code.substr(i + 1, j - i - 1);
            // [h], [mm], [ss]: elapsed time
            if (!in.empty() && (in[0] == 'h' || in[0] == 'H' || in[0] == 'm' || in[0] == 'M' || in[0] == 's' ||
                                in[0] == 'S') &&
                in.find_first_not_of(in[0]) == std::string_view::npos)
                return true;
            i = j;
            break;
        }
        case 'd': case 'D': case 'm': case 'M': case 'y': case 'Y':
        case 'h': case 'H': case 's': case 'S':
            return true;
        case 'e': case 'E':
            // "E+" is scientific notation, not a year
            if (i + 1 < code.size() && (code[i + 1] == '+' || code[i + 1] == '-')) { ++i; break; }
            return true;
        default: break;
        }
    }
    return false;
}

// ------------------------------------------------------------------ text

bool IEquals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'a' && x <= 'z') x = char(x - 32);
        if (y >= 'a' && y <= 'z') y = char(y - 32);
        if (x != y) return false;
    }
    return true;
}

std::string Lower(std::string_view s) {
    std::string r(s);
    for (char& c : r)
        if (c >= 'A' && c <= 'Z') c = char(c + 32);
    return r;
}

namespace {
void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += char(cp);
    } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    } else {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

// Length of a valid UTF-8 sequence at p (0 when invalid).
size_t Utf8Len(const unsigned char* p, size_t n) {
    unsigned char c = p[0];
    size_t len = c < 0xC2 ? 0 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : c < 0xF5 ? 4 : 0;
    if (len == 0 || len > n) return 0;
    for (size_t i = 1; i < len; ++i)
        if ((p[i] & 0xC0) != 0x80) return 0;
    if (c == 0xE0 && p[1] < 0xA0) return 0;
    if (c == 0xED && p[1] >= 0xA0) return 0;  // surrogates
    if (c == 0xF0 && p[1] < 0x90) return 0;
    if (c == 0xF4 && p[1] >= 0x90) return 0;
    if (len == 3 && c == 0xEF && p[1] == 0xBF && (p[2] == 0xBE || p[2] == 0xBF)) return 0;  // U+FFFE/F
    return len;
}

bool IsHex4(std::string_view s, size_t i) {
    if (i + 7 > s.size() || s[i] != '_' || s[i + 1] != 'x' || s[i + 6] != '_') return false;
    for (size_t k = i + 2; k < i + 6; ++k)
        if (!std::isxdigit(static_cast<unsigned char>(s[k]))) return false;
    return true;
}
}  // namespace

void AppendEscaped(std::string& out, std::string_view text, bool attribute) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    size_t n = text.size();
    for (size_t i = 0; i < n;) {
        unsigned char c = p[i];
        if (c >= 0x80) {
            size_t len = Utf8Len(p + i, n - i);
            if (len) {
                out.append(text.data() + i, len);
                i += len;
            } else {
                AppendUtf8(out, c);  // a lone byte of 8-bit text: Latin-1
                ++i;
            }
            continue;
        }
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"':
            if (attribute) out += "&quot;";
            else out += '"';
            break;
        case '\n':
            if (attribute) out += "&#10;";
            else out += '\n';
            break;
        case '\t':
            if (attribute) out += "&#9;";
            else out += '\t';
            break;
        case '_':
            // a literal "_xHHHH_" must not read back as an escape
            if (IsHex4(text, i)) out += "_x005F_";
            else out += '_';
            break;
        case '\r':
            // a character reference keeps CR through line-end normalisation
            out += "&#13;";
            break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "_x%04X_", c);
                out += buf;
            } else {
                out += char(c);
            }
        }
        ++i;
    }
}

std::string Unescape(std::string_view s, bool entities) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
        char c = s[i];
        if (c == '&' && entities) {
            size_t semi = s.find(';', i);
            if (semi != std::string_view::npos && semi - i <= 10) {
                std::string_view ent = s.substr(i + 1, semi - i - 1);
                uint32_t cp = 0;
                bool ok = true;
                if (ent == "lt") cp = '<';
                else if (ent == "gt") cp = '>';
                else if (ent == "amp") cp = '&';
                else if (ent == "quot") cp = '"';
                else if (ent == "apos") cp = '\'';
                else if (ent.size() > 1 && ent[0] == '#') {
                    bool hex = ent[1] == 'x' || ent[1] == 'X';
                    std::string digits(ent.substr(hex ? 2 : 1));
                    char* end = nullptr;
                    unsigned long v = digits.empty() ? 0 : std::strtoul(digits.c_str(), &end, hex ? 16 : 10);
                    ok = !digits.empty() && end && *end == 0 && v > 0 && v < 0x110000;
                    cp = static_cast<uint32_t>(v);
                } else {
                    ok = false;
                }
                if (ok) {
                    AppendUtf8(out, cp);
                    i = semi + 1;
                    continue;
                }
            }
        } else if (c == '_' && IsHex4(s, i)) {
            uint32_t cp = static_cast<uint32_t>(std::strtoul(std::string(s.substr(i + 2, 4)).c_str(), nullptr, 16));
            AppendUtf8(out, cp);
            i += 7;
            continue;
        } else if (c == '\r' && entities) {
            // XML line ends: CR LF and lone CR read as LF
            out += '\n';
            i += (i + 1 < s.size() && s[i + 1] == '\n') ? 2 : 1;
            continue;
        }
        out += c;
        ++i;
    }
    return out;
}

// ----------------------------------------------------------------- dates

namespace {
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}
}  // namespace

bool ParseIsoDate(std::string_view t, double& serial) {
    int y = 0, mo = 1, d = 1, h = 0, mi = 0;
    double sec = 0;
    char buf[64];
    if (t.empty() || t.size() >= sizeof buf) return false;
    std::memcpy(buf, t.data(), t.size());
    buf[t.size()] = 0;
    int n = std::sscanf(buf, "%d-%d-%dT%d:%d:%lf", &y, &mo, &d, &h, &mi, &sec);
    if (n < 3) {
        // a bare time
        n = std::sscanf(buf, "%d:%d:%lf", &h, &mi, &sec);
        if (n < 2) return false;
        serial = (h * 3600 + mi * 60 + sec) / 86400.0;
        return true;
    }
    if (mo < 1 || mo > 12 || d < 1 || d > 31) return false;
    int64_t days = DaysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d)) -
                   DaysFromCivil(1899, 12, 30);
    serial = static_cast<double>(days) + (h * 3600 + mi * 60 + sec) / 86400.0;
    return true;
}

// ---------------------------------------------------------- relationships

bool RelIs(const Rel& r, std::string_view word) {
    size_t slash = r.type.rfind('/');
    std::string_view last = slash == std::string::npos ? std::string_view(r.type)
                                                       : std::string_view(r.type).substr(slash + 1);
    return last == word;
}

std::string ResolveTarget(std::string_view sourcePart, std::string_view target) {
    std::string path;
    if (!target.empty() && target[0] == '/') {
        path = std::string(target.substr(1));
    } else {
        size_t slash = sourcePart.rfind('/');
        path = slash == std::string_view::npos ? std::string() : std::string(sourcePart.substr(0, slash + 1));
        path += target;
    }
    // fold "." and ".." segments
    std::vector<std::string> segs;
    size_t i = 0;
    while (i <= path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string::npos) j = path.size();
        std::string seg = path.substr(i, j - i);
        if (seg == "..") {
            if (!segs.empty()) segs.pop_back();
        } else if (!seg.empty() && seg != ".") {
            segs.push_back(seg);
        }
        i = j + 1;
    }
    std::string out;
    for (size_t k = 0; k < segs.size(); ++k) {
        if (k) out += '/';
        out += segs[k];
    }
    return out;
}

std::string RelsPartOf(std::string_view part) {
    size_t slash = part.rfind('/');
    std::string dir = slash == std::string_view::npos ? std::string() : std::string(part.substr(0, slash + 1));
    std::string base(slash == std::string_view::npos ? part : part.substr(slash + 1));
    return dir + "_rels/" + base + ".rels";
}

}  // namespace zorv::xlsx
