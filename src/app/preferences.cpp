#include "app/preferences.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "base/identity.h"
#include "app/settings.h"
#include "base/text.h"

namespace zorv {

namespace {

int toTwips(int px) { return px * kTwipsPerPixel; }
int toPixels(const std::string& twips, int fallback) {
    double v = 0;
    try {
        size_t used = 0;
        v = std::stod(twips, &used);
        if (used == 0) return fallback;
    } catch (...) {
        return fallback;
    }
    if (!std::isfinite(v)) return fallback;
    return static_cast<int>(std::lround(v / kTwipsPerPixel));
}

}  // namespace

const std::vector<PreferenceDefault>& PreferenceDefaults() {
    static const std::vector<PreferenceDefault> table = {
        {"Options", "DataStorageDirectory", ""},
        {"Options", "DataStorageFolder", nullptr},
        {"Options", "FocusCorrections", "True"},
        {"Options", "FollowLastDirectory", "1"},
        {"Options", "ImportFilter", nullptr},
        {"Options", "LayoutPlotGraphType", "0"},
        {"Options", "MRUsize", "10"},
        {"Options", "ReticleFolder", nullptr},
        {"Options", "SourceDirectory", nullptr},
        {"Options", "StoreInDataDirectory", "1"},

        {"Settings", "MainLeft", nullptr},
        {"Settings", "MainTop", nullptr},
        {"Settings", "MainWidth", "6500"},
        {"Settings", "MainHeight", "6500"},
        {"Settings", "IgnoreEmpty", "0"},
        {"Settings", "AbscissaItems", nullptr},
        {"Settings", "chkLogData", "0"},
        {"Settings", "chkTrendDate", "1"},
        {"Settings", "chkTrendGraphics", "1"},
        {"Settings", "chkTrendStats", "1"},
        {"Settings", "chkYgridline", "0"},
        {"Settings", "optAbscissaTrend", "0"},

        {"ToolSettings", "ExposureTool", "ASM 700"},
        {"ToolSettings", "ExpoToolType", "SCANNER"},
        {"ToolSettings", "Notch", "DOWN"},
        {"ToolSettings", "Substrate", "200"},
        {"ToolSettings", "Reduction", nullptr},
        {"ToolSettings", "NA", nullptr},
        {"ToolSettings", "PCI", nullptr},
        {"ToolSettings", "PCO", nullptr},
        {"ToolSettings", "Wavelength", "193"},
        {"ToolSettings", "FocalLength", nullptr},
        {"ToolSettings", "FieldSizeX", nullptr},
        {"ToolSettings", "FieldSizeY", nullptr},
        {"ToolSettings", "FieldCenterX", nullptr},
        {"ToolSettings", "FieldCenterY", nullptr},
        {"ToolSettings", "SubWidth", nullptr},
        {"ToolSettings", "SubHeight", nullptr},
        {"ToolSettings", "SubXoffset", nullptr},
        {"ToolSettings", "SubYoffset", nullptr},
        {"ToolSettings", "Dose", nullptr},
        {"ToolSettings", "PCinner", nullptr},
        {"ToolSettings", "PCouter", nullptr},
        {"ToolSettings", "ScanDirection", nullptr},
        {"ToolSettings", "DSX", nullptr},
        {"ToolSettings", "DSY", nullptr},
        {"ToolSettings", "IDX", nullptr},
        {"ToolSettings", "IDY", nullptr},
        {"ToolSettings", "OffsetX", nullptr},
        {"ToolSettings", "OffsetY", nullptr},

        {"DailyMonitor", "AllowXLSdata", nullptr},
        {"DailyMonitor", "AutoLoadData", nullptr},
        {"DailyMonitor", "AutoLoadTemplate", nullptr},
        {"DailyMonitor", "DMA_DisplayTime", "60.0"},
        {"DailyMonitor", "DMA_FileName", nullptr},
        {"DailyMonitor", "DMA_OutputAsciiPath", nullptr},
        {"DailyMonitor", "DMA_OutputHTMLPath", nullptr},
        {"DailyMonitor", "DMA_OutputXLSPath", nullptr},
        {"DailyMonitor", "DMAlimitFileSize", "0"},
        {"DailyMonitor", "DMAmaxLines", "-1"},
        {"DailyMonitor", "DMAminLines", "100"},
        {"DailyMonitor", "DataFolder", nullptr},
        {"DailyMonitor", "DataStorageDirectory", nullptr},
        {"DailyMonitor", "FollowLastDirectory", nullptr},
        {"DailyMonitor", "ImportFilter", nullptr},
        {"DailyMonitor", "MRUsize", "10"},
        {"DailyMonitor", "RemoteCallLogFolder", nullptr},
        {"DailyMonitor", "ReticleFolder", nullptr},
        {"DailyMonitor", "StoreInDataDirectory", "1"},
        {"DailyMonitor", "TemplateName", nullptr},
        {"DailyMonitor", "TemplateSource", nullptr},

        {"Batch", "BatchName", nullptr},
        {"Batch", "FileType", "0"},
        {"Batch", "Folder", nullptr},

        {"ProcessWindow", "PWtargetRange", "10.0"},
        {"ProcessWindow", "cmbPWprecision", "10"},
        {"PWSpatialModel", "cmbWaferTerms", "-1"},
        {"PWSpatialModel", "cmbFieldTerms", "-1"},

        {"PSFManalysis", "PSFMtemplate", nullptr},
        {"PSFManalysis", "VectorColor", "1"},
        {"PSFMcal", "PSFMCalibrationOrder", "6"},

        {"FEMsetup", "txtFEMvarname", "Profile"},
        {"FEMsetup", "cmbFEMformat", "#0."},
        {"frmReticle", "cmbRetMag", nullptr},
        {"frmReticle", "cmbRetRot", nullptr},
        {"frmReticle", "cmbRetMagSites", nullptr},

        {"Templates", "NumTemplates", "0"},
        {"Setup", "AnalysisType", "0"},
        {"RadialOptions", "RadiusFitOrder", "3"},
    };
    return table;
}

std::string PreferenceDefaultValue(const std::string& section, const std::string& key) {
    for (const PreferenceDefault& p : PreferenceDefaults())
        if (IEquals(p.section, section) && IEquals(p.key, key)) return p.value ? p.value : "";
    return {};
}

std::string PreferenceApplication(const std::string& section) {
    return IEquals(section, "ToolSettings") ? ProductName() : ApplicationTitle();
}

std::string GetPreference(const std::string& section, const std::string& key) {
    return GetSetting(PreferenceApplication(section), section, key, PreferenceDefaultValue(section, key));
}

void ResetPreferences(const std::string& section) {
    if (section.empty()) return;
    std::vector<std::pair<std::string, std::string>> values;
    for (const PreferenceDefault& p : PreferenceDefaults())
        if (p.value && IEquals(p.section, section)) values.emplace_back(p.key, p.value);
    SaveSettings(PreferenceApplication(section), section, values, true);
}

void SaveWindowRect(const std::string& section, const std::string& prefix, int x, int y, int w,
                    int h) {
    SaveSettings(ApplicationTitle(), section,
                 {{prefix + "Left", std::to_string(toTwips(x))},
                  {prefix + "Top", std::to_string(toTwips(y))},
                  {prefix + "Width", std::to_string(toTwips(w))},
                  {prefix + "Height", std::to_string(toTwips(h))}});
}

bool LoadWindowRect(const std::string& section, const std::string& prefix, int& x, int& y, int& w,
                    int& h) {
    const std::string& app = ApplicationTitle();
    const std::string left = GetSetting(app, section, prefix + "Left");
    const std::string top = GetSetting(app, section, prefix + "Top");
    const std::string width =
        GetSetting(app, section, prefix + "Width", PreferenceDefaultValue(section, prefix + "Width"));
    const std::string height =
        GetSetting(app, section, prefix + "Height", PreferenceDefaultValue(section, prefix + "Height"));
    w = std::max(1, toPixels(width, w));
    h = std::max(1, toPixels(height, h));
    if (left.empty() || top.empty()) return false;
    const int nx = toPixels(left, x), ny = toPixels(top, y);
    x = nx;
    y = ny;
    return true;
}

}  // namespace zorv
