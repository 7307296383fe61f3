#include "app/mru.h"

#include <algorithm>

#include "base/identity.h"
#include "app/settings.h"

namespace zorv {

namespace {

// The stored list, by position "1", "2", ...; gaps end nothing, empty values
// are skipped.
std::vector<std::string> readList(const std::string& section) {
    std::vector<std::pair<int, std::string>> numbered;
    for (const auto& [key, value] : GetAllSettings(ApplicationTitle(), section)) {
        int pos = 0;
        bool ok = !key.empty();
        for (char c : key) {
            if (c < '0' || c > '9' || pos > 100000) {
                ok = false;
                break;
            }
            pos = pos * 10 + (c - '0');
        }
        if (ok && pos >= 1 && !value.empty()) numbered.emplace_back(pos, value);
    }
    std::stable_sort(numbered.begin(), numbered.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> out;
    for (auto& [pos, value] : numbered) out.push_back(std::move(value));
    return out;
}

void writeList(const std::string& section, const std::vector<std::string>& list) {
    std::vector<std::pair<std::string, std::string>> keys;
    for (size_t i = 0; i < list.size(); ++i) keys.emplace_back(std::to_string(i + 1), list[i]);
    // The section holds the list only: surplus keys of a longer list go.
    SaveSettings(ApplicationTitle(), section, keys, true);
}

}  // namespace

void MRU_RegisterFile(const std::string& section, const std::string& path, int size) {
    if (path.empty()) return;
    size = std::max(size, 1);
    std::vector<std::string> list = readList(section);
    list.erase(std::remove(list.begin(), list.end(), path), list.end());
    list.insert(list.begin(), path);
    if (static_cast<int>(list.size()) > size) list.resize(static_cast<size_t>(size));
    writeList(section, list);
}

std::vector<std::string> MRU_List(const std::string& section, int size) {
    std::vector<std::string> list = readList(section);
    if (size >= 0 && static_cast<int>(list.size()) > size) list.resize(static_cast<size_t>(size));
    return list;
}

void MRU_RemoveFile(const std::string& section, const std::string& path) {
    std::vector<std::string> list = readList(section);
    const auto end = std::remove(list.begin(), list.end(), path);
    if (end == list.end()) return;
    list.erase(end, list.end());
    writeList(section, list);
}

}  // namespace zorv
