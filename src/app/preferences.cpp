#include "app/preferences.h"

namespace zorv {
const std::vector<PreferenceDefault>& PreferenceDefaults() { static std::vector<PreferenceDefault> v; return v; }
std::string PreferenceDefaultValue(const std::string&, const std::string&) { return {}; }
std::string GetPreference(const std::string&, const std::string&) { return {}; }
void ResetPreferences(const std::string&) {}
void SaveWindowRect(const std::string&, const std::string&, int, int, int, int) {}
bool LoadWindowRect(const std::string&, const std::string&, int&, int&, int&, int&) { return false; }
}  // namespace zorv
