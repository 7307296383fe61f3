// The settings tree: application name, section, key -> text. Stored in one
// file per user: $ZORV_SETTINGS_FILE, else $XDG_CONFIG_HOME/zorv/settings.ini,
// else ~/.config/zorv/settings.ini. Names compare case-insensitively (as the
// registry does) and keep the case they were first written with.
// Writes re-read the file, change one entry and replace the file atomically
// (temporary file and rename), so other keys and other processes' entries stay.
// A missing or damaged file reads as empty; unreadable lines are skipped.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace zorv {

std::string GetSetting(const std::string& app, const std::string& section, const std::string& key,
                       const std::string& def = "");
void SaveSetting(const std::string& app, const std::string& section, const std::string& key,
                 const std::string& value);
// Empty key: the whole section. Empty section too: the whole application.
void DeleteSetting(const std::string& app, const std::string& section, const std::string& key = "");
// Several keys of one section in one write. With replaceSection the section
// holds exactly these keys afterwards.
void SaveSettings(const std::string& app, const std::string& section,
                  const std::vector<std::pair<std::string, std::string>>& values,
                  bool replaceSection = false);
// Keys and values of a section in stored order.
std::vector<std::pair<std::string, std::string>> GetAllSettings(const std::string& app,
                                                                const std::string& section);

// Utility(GetSettingRegional): the setting as a single. The stored text (always
// "." decimal) is turned into the machine's form, formatted with `format` and
// read back as a number. An empty or non-numeric text gives 0.
float GetSettingRegional(const std::string& app, const std::string& section,
                         const std::string& key, const std::string& def,
                         std::string_view format = "#####0.0####");
// Utility(SaveSettingRegional): stores the value with "." as decimal separator
// whatever the machine uses (CStr form: 15 digits for a double, 7 for a single).
void SaveSettingRegional(const std::string& app, const std::string& section,
                         const std::string& key, double value);
void SaveSettingRegional(const std::string& app, const std::string& section,
                         const std::string& key, float value);
template <class T>
    requires std::is_integral_v<T>
void SaveSettingRegional(const std::string& app, const std::string& section,
                         const std::string& key, T value) {
    SaveSettingRegional(app, section, key, static_cast<double>(value));
}

// Path of the settings file in use (resolved on every call).
std::string SettingsFilePath();
// Text of the last failed write ("" after a good one).
std::string LastSettingsError();

}  // namespace zorv
