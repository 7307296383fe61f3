#include "app/settings.h"

namespace zorv {
std::string GetSetting(const std::string&, const std::string&, const std::string&, const std::string& def) { return def; }
void SaveSetting(const std::string&, const std::string&, const std::string&, const std::string&) {}
void DeleteSetting(const std::string&, const std::string&, const std::string&) {}
std::vector<std::pair<std::string, std::string>> GetAllSettings(const std::string&, const std::string&) { return {}; }
float GetSettingRegional(const std::string&, const std::string&, const std::string&, const std::string&, std::string_view) { return 0; }
void SaveSettingRegional(const std::string&, const std::string&, const std::string&, double) {}
void SaveSettingRegional(const std::string&, const std::string&, const std::string&, float) {}
std::string SettingsFilePath() { return {}; }
std::string LastSettingsError() { return {}; }
}  // namespace zorv
