#include "monitor/dm_options.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "app/settings.h"
#include "base/identity.h"
#include "base/text.h"
#include "dm_template_util.h"
#include "workbook/store.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr const char* kSection = "DailyMonitor";

std::string Get(const char* section, const char* key, const std::string& def = {}) {
    return GetSetting(kDMSettingsApp, section, key, def);
}

long ToLong(const std::string& s, long def) {
    char* end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    return end == s.c_str() ? def : v;
}

// Wildcards of one pattern; '*' takes any run, '?' one character.
bool Wild(std::string_view name, std::string_view pat) {
    size_t n = 0, p = 0, starP = std::string_view::npos, starN = 0;
    while (n < name.size()) {
        if (p < pat.size() && (pat[p] == '?' || IEquals(pat.substr(p, 1), name.substr(n, 1)))) {
            ++n, ++p;
        } else if (p < pat.size() && pat[p] == '*') {
            starP = p++, starN = n;
        } else if (starP != std::string_view::npos) {
            p = starP + 1, n = ++starN;
        } else {
            return false;
        }
    }
    while (p < pat.size() && pat[p] == '*') ++p;
    return p == pat.size();
}

}  // namespace

DMOptions LoadDMOptions() {
    DMOptions o;
    const std::string& prog = ProgramFolder();
    o.templateFolder = Get(kSection, "TemplateSource", prog);
    o.dataFolder = Get(kSection, "DataFolder", prog);
    o.reticleFolder = Get(kSection, "ReticleFolder");
    o.dataStorageDirectory = Get(kSection, "DataStorageDirectory");
    o.storeInDataDirectory = Get(kSection, "StoreInDataDirectory", "1") != "0";
    o.importFilter = Get(kSection, "ImportFilter");
    o.logFolder = Get(kSection, "RemoteCallLogFolder");
    o.limitFileSize = Get(kSection, "DMAlimitFileSize", "0") != "0";
    o.maxLines = ToLong(Get(kSection, "DMAmaxLines", "-1"), -1);
    o.minLines = ToLong(Get(kSection, "DMAminLines", "100"), 100);
    o.displayTime = GetSettingRegional(kDMSettingsApp, kSection, "DMA_DisplayTime", "60.0");
    o.logData = Get("Settings", "chkLogData", "0") == "1";
    o.batchName = Get("Batch", "BatchName");
    o.batchFolder = Get("Batch", "Folder");
    o.fileType = Get("Batch", "FileType", "0");
    return o;
}

void SaveDMOptions(const DMOptions& o) {
    SaveSettings(kDMSettingsApp, kSection,
                 {{"TemplateSource", o.templateFolder},
                  {"DataFolder", o.dataFolder},
                  {"ReticleFolder", o.reticleFolder},
                  {"DataStorageDirectory", o.dataStorageDirectory},
                  {"StoreInDataDirectory", o.storeInDataDirectory ? "1" : "0"},
                  {"ImportFilter", o.importFilter},
                  {"RemoteCallLogFolder", o.logFolder},
                  {"DMAlimitFileSize", o.limitFileSize ? "1" : "0"},
                  {"DMAmaxLines", std::to_string(o.maxLines)},
                  {"DMAminLines", std::to_string(o.minLines)}});
    SaveSettingRegional(kDMSettingsApp, kSection, "DMA_DisplayTime", o.displayTime);
    SaveSetting(kDMSettingsApp, "Settings", "chkLogData", o.logData ? "1" : "0");
    SaveSettings(kDMSettingsApp, "Batch",
                 {{"BatchName", o.batchName}, {"FileType", o.fileType}, {"Folder", o.batchFolder}});
}

bool DMFolderCanBeMade(const std::string& folder) {
    if (folder.empty()) return true;
    std::error_code ec;
    fs::path p = fs::absolute(fs::path(folder), ec);
    if (ec) return false;
    // The nearest part that exists decides: a folder we may write in.
    while (!fs::exists(p, ec)) {
        if (!p.has_parent_path() || p.parent_path() == p) return false;
        p = p.parent_path();
    }
    if (!fs::is_directory(p, ec)) return false;
    return p == fs::absolute(fs::path(folder), ec) || ::access(p.c_str(), W_OK | X_OK) == 0;
}

Status EnsureDMFolder(const std::string& label, const std::string& folder) {
    Proc p("frmOptionsDM(CheckFolder): ");
    if (folder.empty()) return StatusOk();
    std::error_code ec;
    p.chk = 1;
    if (fs::is_directory(folder, ec)) return StatusOk();
    p.chk = 2;
    if (DMFolderCanBeMade(folder) && fs::create_directories(folder, ec) && !ec) return StatusOk();
    std::string m = label;
    m.append(" '").append(folder).append("'\r\n");
    m.append("Specified in your Daily Monitor Options setup does not exist and could not be created.\r\n");
    m.append("Please correct the folder location in your 'Tools/Options' menu.");
    Failure f = p.fail(std::move(m));
    f.file = folder;
    return f;
}

bool MatchesFilePattern(const std::string& name, const std::string& pattern) {
    size_t start = 0;
    while (start <= pattern.size()) {
        size_t end = pattern.find_first_of(";,", start);
        if (end == std::string::npos) end = pattern.size();
        const std::string one = Trim(std::string_view(pattern).substr(start, end - start));
        if (one == "*.*" || one == "*") return true;
        if (!one.empty() && Wild(name, one)) return true;
        start = end + 1;
    }
    return false;
}

Result<BatchList> ListBatchFiles(const std::string& folder, const std::string& pattern) {
    Proc p("frmOptionsDM(cmdBatchGetFile): ");
    p.chk = 1;
    std::error_code ec;
    if (Trim(folder).empty() || !fs::is_directory(folder, ec)) return p.fail("Please specify a data folder.");
    const std::string pat = Trim(pattern).empty() ? std::string("*.*") : pattern;
    BatchList out;
    fs::path dir = fs::absolute(fs::path(folder), ec).lexically_normal();
    if (!dir.has_filename()) dir = dir.parent_path();
    const std::string where = dir.string();
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (!it->is_regular_file(ec)) continue;
        const std::string name = it->path().filename().string();
        if (MatchesFilePattern(name, pat)) out.emplace_back(name, where);
    }
    std::sort(out.begin(), out.end());
    return out;
}

BatchList ReadBatchSheet(Workbook& workbook, const std::string& sheet) {
    BatchList out;
    Worksheet* ws = workbook.sheet(sheet);
    if (!ws) return out;
    const Datam used = ws->usedRange();
    if (!used.isArray()) return out;
    for (int r = used.rowLb(); r <= used.rowUb(); ++r)
        for (int c = used.colLb(); c <= used.colUb(); ++c) {
            if (!IEquals(Trim(dmt::CellText(used(r, c))), "File")) continue;
            for (int i = r + 1; i <= used.rowUb(); ++i) {
                const std::string f = Trim(dmt::CellText(used(i, c)));
                if (f.empty()) break;
                out.emplace_back(f, c + 1 <= used.colUb() ? Trim(dmt::CellText(used(i, c + 1))) : std::string());
            }
            return out;
        }
    return out;
}

}  // namespace zorv
