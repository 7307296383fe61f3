// Defaults of the settings and window geometry. Window rectangles are stored
// in twips (15 per pixel), the unit of the defaults ("MainWidth" 6500).
#pragma once

#include <string>
#include <vector>

namespace zorv {

struct PreferenceDefault {
    const char* section;
    const char* key;
    const char* value;  // nullptr: no default (the key is only cleared)
};

// The whole defaults table.
const std::vector<PreferenceDefault>& PreferenceDefaults();
// Default of one key ("" when none); sections and keys case-insensitive.
std::string PreferenceDefaultValue(const std::string& section, const std::string& key);
// Application name a section is kept under: ProductName() for the exposure
// tool's "ToolSettings" (shared by every run mode), else ApplicationTitle().
std::string PreferenceApplication(const std::string& section);
// GetSetting under PreferenceApplication(section) with the table's default.
std::string GetPreference(const std::string& section, const std::string& key);

// Utility(ResetPreferences): clears the section under its application name and
// writes the table's defaults of that section.
void ResetPreferences(const std::string& section);

inline constexpr int kTwipsPerPixel = 15;

// Keys prefix + "Left", "Top", "Width", "Height" under ApplicationTitle(),
// stored in twips; arguments in pixels.
void SaveWindowRect(const std::string& section, const std::string& prefix, int x, int y, int w,
                    int h);
// Reads the rectangle in pixels. The arguments come in as the fallbacks;
// stored values (or the table's defaults for the size) replace them. True
// when a position was stored.
bool LoadWindowRect(const std::string& section, const std::string& prefix, int& x, int& y, int& w,
                    int& h);

}  // namespace zorv
