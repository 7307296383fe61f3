// Import(FileOpen) without its dialog: what the dialog starts with, where the
// data workbook of the chosen file goes, and what is remembered afterwards.
//
// "StoreInDataDirectory" reads as "store the workbook in the directory of the
// data": on ("1", the default) the workbook goes beside the source file; off
// ("0") it goes to "DataStorageDirectory", when that folder is set and can be
// reached.
//
// The storage folder is kept in the settings in the back-slash form the
// settings have always held ("D:\fab\data"), so that a settings file moves
// between machines unchanged; on this build it becomes a "/" path only where
// the file system is touched (StorageFolderOnDisk).
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "app/settings.h"
#include "base/identity.h"
#include "base/report.h"
#include "import/import.h"

namespace zorv {

namespace {

constexpr const char* kOptions = "Options";

std::string OptionSetting(const char* key, const char* def = "") {
    return GetSetting(ApplicationTitle(), kOptions, key, def);
}

// A setting of "1" (or any non-zero number, or "True") is on.
bool SettingOn(const std::string& text) {
    if (text.empty()) return false;
    if (text == "True" || text == "true" || text == "TRUE") return true;
    double v = 0;
    return ParseNumber(text, v) && v != 0;
}

bool FolderReachable(const std::string& folder) {
    std::error_code ec;
    return std::filesystem::is_directory(folder, ec) && ::access(folder.c_str(), W_OK | X_OK) == 0;
}

std::string SourceFolder(const std::string& sourcePath) {
    return std::filesystem::path(sourcePath).parent_path().string();
}

}  // namespace

std::string StorageFolderOnDisk(std::string_view stored) {
    std::string p(stored);
    for (char& c : p)
        if (c == '\\') c = '/';
    return p;
}

std::string NormaliseStoragePath(std::string_view path) {
    std::string out;
    out.reserve(path.size());
    for (char c : path) {
        const bool sep = c == '\\' || c == '/';
        if (!sep) {
            out += c;
        } else if (out.empty() || out.back() != '\\') {
            out += '\\';
        }
    }
    return out;
}

FileOpenSetup FileOpenSettings() {
    FileOpenSetup s;
    s.filters = "All Files (*.*)|*.*|";
    const Datam& table = FormatTable();
    for (int r = 1; r <= table.rowUb(); ++r) {
        if (r > 1) s.filters += '|';
        s.filters += table(r, 0).toString();
        s.filters += '|';
        s.filters += table(r, 1).toString();
    }
    s.startDirectory = OptionSetting("SourceDirectory");
    s.startFilter = OptionSetting("ImportFilter");
    s.followLastDirectory = SettingOn(OptionSetting("FollowLastDirectory", "1"));
    s.storeInDataDirectory = SettingOn(OptionSetting("StoreInDataDirectory", "1"));
    s.dataStorageDirectory = NormaliseStoragePath(OptionSetting("DataStorageDirectory"));
    return s;
}

std::string ImportDataFolder(const FileOpenSetup& setup, const std::string& sourcePath) {
    const std::string source = SourceFolder(sourcePath);
    // An empty storage folder is one never set: nothing to warn about.
    if (setup.storeInDataDirectory || setup.dataStorageDirectory.empty()) return source;
    const std::string folder = StorageFolderOnDisk(NormaliseStoragePath(setup.dataStorageDirectory));
    if (FolderReachable(folder)) return folder;
    MsgBox("Warning: Data storage directory: '" + setup.dataStorageDirectory + "' is not accessable.",
           vbInformation, ApplicationTitle() + " Data import.");
    return source;
}

void SaveFileOpenChoice(const std::string& sourcePath, const std::string& filter) {
    SaveSettings(ApplicationTitle(), kOptions,
                 {{"SourceDirectory", SourceFolder(sourcePath)}, {"ImportFilter", filter}});
}

}  // namespace zorv
