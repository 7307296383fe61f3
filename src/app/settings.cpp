#include "app/settings.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "base/format.h"
#include "base/regional.h"
#include "base/text.h"

namespace zorv {

namespace {

// File layout (an INI file):
//   [application\section]
//   key=value
// Application, section and key names are percent-encoded where they hold
// "%", "\", "[", "]", "=", ";", "#" or control characters; values escape
// "\" , line feed and carriage return with a backslash.

struct Section {
    std::string app, name;
    std::vector<std::pair<std::string, std::string>> keys;
};

struct Store {
    std::vector<Section> sections;
};

int hexVal(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string encodeName(std::string_view s) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const bool edgeBlank = c == ' ' && (i == 0 || i + 1 == s.size());
        if (c < 0x20 || c == 0x7F || std::strchr("%\\[]=;#", c) || edgeBlank) {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string decodeName(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() + 0 && hexVal(s[i + 1]) >= 0 && hexVal(s[i + 2]) >= 0) {
            out += static_cast<char>(hexVal(s[i + 1]) * 16 + hexVal(s[i + 2]));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

std::string encodeValue(std::string_view s) {
    std::string out;
    for (char c : s) {
        if (c == '\\') out += "\\\\";
        else if (c == '\n') out += "\\n";
        else if (c == '\r') out += "\\r";
        else out += c;
    }
    return out;
}

std::string decodeValue(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 1 < s.size()) {
            const char n = s[i + 1];
            if (n == '\\') { out += '\\'; ++i; continue; }
            if (n == 'n') { out += '\n'; ++i; continue; }
            if (n == 'r') { out += '\r'; ++i; continue; }
        }
        out += s[i];
    }
    return out;
}

Store parse(const std::string& text) {
    Store st;
    Section* cur = nullptr;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == ';' || line[0] == '#') continue;
        if (line[0] == '[') {
            cur = nullptr;
            const size_t close = line.rfind(']');
            if (close == std::string::npos || close < 1) continue;
            const std::string body = line.substr(1, close - 1);
            const size_t sep = body.find('\\');
            if (sep == std::string::npos) continue;
            const std::string app = decodeName(body.substr(0, sep));
            const std::string name = decodeName(body.substr(sep + 1));
            for (Section& s : st.sections)
                if (IEquals(s.app, app) && IEquals(s.name, name)) cur = &s;
            if (!cur) {
                st.sections.push_back({app, name, {}});
                cur = &st.sections.back();
            }
            continue;
        }
        if (!cur) continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos || eq == 0) continue;
        const std::string key = decodeName(line.substr(0, eq));
        const std::string value = decodeValue(line.substr(eq + 1));
        bool found = false;
        for (auto& kv : cur->keys)
            if (IEquals(kv.first, key)) {
                kv.second = value;
                found = true;
            }
        if (!found) cur->keys.emplace_back(key, value);
    }
    return st;
}

std::string serialize(const Store& st) {
    std::string out = "; Zorv settings: [application\\section], key=value\n";
    for (const Section& s : st.sections) {
        if (s.keys.empty()) continue;
        out += "\n[" + encodeName(s.app) + "\\" + encodeName(s.name) + "]\n";
        for (const auto& kv : s.keys) out += encodeName(kv.first) + "=" + encodeValue(kv.second) + "\n";
    }
    return out;
}

struct FileStamp {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    long long mtimeNs = 0;
    bool operator==(const FileStamp&) const = default;
};

FileStamp stampOf(const std::string& path) {
    FileStamp f;
    struct stat sb;
    if (::stat(path.c_str(), &sb) != 0 || !S_ISREG(sb.st_mode)) return f;
    f.exists = true;
    f.dev = sb.st_dev;
    f.ino = sb.st_ino;
    f.size = sb.st_size;
    f.mtimeNs = static_cast<long long>(sb.st_mtim.tv_sec) * 1000000000LL + sb.st_mtim.tv_nsec;
    return f;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::mutex g_mutex;
std::string g_cachePath;
FileStamp g_cacheStamp;
Store g_cache;
std::string g_lastError;

// The store of `path`, re-read when the file changed on disk.
const Store& loadCached(const std::string& path) {
    const FileStamp st = stampOf(path);
    if (path != g_cachePath || !(st == g_cacheStamp)) {
        g_cache = st.exists ? parse(readFile(path)) : Store{};
        g_cachePath = path;
        g_cacheStamp = st;
    }
    return g_cache;
}

const Section* findSection(const Store& st, std::string_view app, std::string_view section) {
    for (const Section& s : st.sections)
        if (IEquals(s.app, app) && IEquals(s.name, section)) return &s;
    return nullptr;
}

// Read-modify-write under an advisory lock; the file is replaced atomically.
template <class F>
void modify(F&& change) {
    const std::string path = SettingsFilePath();
    std::lock_guard<std::mutex> guard(g_mutex);
    std::error_code ec;
    const std::filesystem::path p(path);
    if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path(), ec);
    const std::string lockPath = path + ".lock";
    const int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lockFd >= 0) ::flock(lockFd, LOCK_EX);
    struct Unlock {
        int fd;
        ~Unlock() {
            if (fd >= 0) ::close(fd);  // closing drops the lock
        }
    } unlock{lockFd};

    const FileStamp before = stampOf(path);
    Store st = before.exists ? parse(readFile(path)) : Store{};
    if (!change(st)) return;  // nothing changed: leave the file alone

    const std::string tmp = path + ".tmp" + std::to_string(::getpid());
    const std::string text = serialize(st);
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        g_lastError = "Cannot write settings file '" + tmp + "': " + std::strerror(errno);
        return;
    }
    size_t off = 0;
    bool ok = true;
    while (off < text.size()) {
        const ssize_t n = ::write(fd, text.data() + off, text.size() - off);
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        off += static_cast<size_t>(n);
    }
    if (ok && ::fsync(fd) != 0) ok = false;
    if (::close(fd) != 0) ok = false;
    if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
        g_lastError = "Cannot write settings file '" + path + "': " + std::strerror(errno);
        ::unlink(tmp.c_str());
        return;
    }
    g_lastError.clear();
    g_cache = std::move(st);
    g_cachePath = path;
    g_cacheStamp = stampOf(path);
}

std::string invariantNumber(double v, int significant) {
    std::string s = CStrNumber(v, significant);
    const char dec = MachineDecimal();
    if (dec != '.')
        for (char& c : s)
            if (c == dec) c = '.';
    return s;
}

}  // namespace

std::string SettingsFilePath() {
    if (const char* f = std::getenv("ZORV_SETTINGS_FILE"); f && *f) return f;
    std::string base;
    if (const char* x = std::getenv("XDG_CONFIG_HOME"); x && *x) base = x;
    else if (const char* h = std::getenv("HOME"); h && *h) base = std::string(h) + "/.config";
    else base = "/tmp";
    return base + "/zorv/settings.ini";
}

std::string LastSettingsError() {
    std::lock_guard<std::mutex> guard(g_mutex);
    return g_lastError;
}

std::string GetSetting(const std::string& app, const std::string& section, const std::string& key,
                       const std::string& def) {
    const std::string path = SettingsFilePath();
    std::lock_guard<std::mutex> guard(g_mutex);
    const Section* s = findSection(loadCached(path), app, section);
    if (!s) return def;
    for (const auto& kv : s->keys)
        if (IEquals(kv.first, key)) return kv.second;
    return def;
}

std::vector<std::pair<std::string, std::string>> GetAllSettings(const std::string& app,
                                                                const std::string& section) {
    const std::string path = SettingsFilePath();
    std::lock_guard<std::mutex> guard(g_mutex);
    const Section* s = findSection(loadCached(path), app, section);
    if (!s) return {};
    return s->keys;
}

void SaveSetting(const std::string& app, const std::string& section, const std::string& key,
                 const std::string& value) {
    if (app.empty() || section.empty() || key.empty()) return;
    modify([&](Store& st) {
        Section* s = const_cast<Section*>(findSection(st, app, section));
        if (!s) {
            st.sections.push_back({app, section, {}});
            s = &st.sections.back();
        }
        for (auto& kv : s->keys)
            if (IEquals(kv.first, key)) {
                if (kv.second == value) return false;
                kv.second = value;
                return true;
            }
        s->keys.emplace_back(key, value);
        return true;
    });
}

void SaveSettings(const std::string& app, const std::string& section,
                  const std::vector<std::pair<std::string, std::string>>& values,
                  bool replaceSection) {
    if (app.empty() || section.empty()) return;
    modify([&](Store& st) {
        Section* s = const_cast<Section*>(findSection(st, app, section));
        if (!s) {
            if (values.empty()) return false;
            st.sections.push_back({app, section, {}});
            s = &st.sections.back();
        }
        const auto before = s->keys;
        if (replaceSection) s->keys.clear();
        for (const auto& [key, value] : values) {
            if (key.empty()) continue;
            bool found = false;
            for (auto& kv : s->keys)
                if (IEquals(kv.first, key)) {
                    kv.second = value;
                    found = true;
                }
            if (!found) s->keys.emplace_back(key, value);
        }
        return s->keys != before;
    });
}

void DeleteSetting(const std::string& app, const std::string& section, const std::string& key) {
    modify([&](Store& st) {
        bool changed = false;
        for (auto it = st.sections.begin(); it != st.sections.end();) {
            if (!IEquals(it->app, app) || (!section.empty() && !IEquals(it->name, section))) {
                ++it;
                continue;
            }
            if (key.empty()) {
                it = st.sections.erase(it);
                changed = true;
                continue;
            }
            auto& keys = it->keys;
            for (auto k = keys.begin(); k != keys.end();) {
                if (IEquals(k->first, key)) {
                    k = keys.erase(k);
                    changed = true;
                } else {
                    ++k;
                }
            }
            ++it;
        }
        return changed;
    });
}

float GetSettingRegional(const std::string& app, const std::string& section,
                         const std::string& key, const std::string& def, std::string_view format) {
    std::string text = GetSetting(app, section, key, def);
    if (text.empty()) return 0;
    if (IEquals(text, "True")) return -1;
    if (IEquals(text, "False")) return 0;
    char decimal = '.', thousands = ',';
    if (GetRegionalSeparators(decimal, thousands))
        text = FixRegionalNumber(text, decimal, thousands, true);
    const std::string formatted = FormatText(text, format);
    double v = 0;
    if (!ParseMachineNumber(formatted, v)) return 0;
    return static_cast<float>(v);
}

void SaveSettingRegional(const std::string& app, const std::string& section,
                         const std::string& key, double value) {
    SaveSetting(app, section, key, invariantNumber(value, 15));
}

void SaveSettingRegional(const std::string& app, const std::string& section,
                         const std::string& key, float value) {
    SaveSetting(app, section, key, invariantNumber(value, 7));
}

}  // namespace zorv
