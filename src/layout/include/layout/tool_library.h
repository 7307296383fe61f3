// The exposure tool library: the lens, illumination and field parameters of
// each wafer exposure tool, kept by name in a workbook of its own (one tool
// per column, the keys in column A), so that an engineer picks a tool by name
// and the main window fills its exposure tool fields.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/proc.h"
#include "workbook/store.h"

namespace zorv {

inline constexpr const char* kToolLibrarySheet = "ExposureTools";
inline constexpr const char* kToolLibraryFile = "ExposureToolLibrary.xlsx";

// One row of the library: its key in column A, the "ToolSettings" key the
// first tool's value comes from, and the value when that setting is unset
// (empty: the program's default of the setting).
struct ExpoToolRow {
    const char* key;
    const char* setting;
    const char* fallback;
};
// The rows in their order, "Exposure Tool" (the tool's name) first.
const std::vector<ExpoToolRow>& ExpoToolRows();

// A tool's values as the form's fields hold them, one per row of
// ExpoToolRows(); the units are the fields' own.
struct ExpoTool {
    std::vector<std::string> values = std::vector<std::string>(ExpoToolRows().size());
    const std::string& name() const { return values.front(); }
    // The value of a row by its key (any case); an unknown key is an empty
    // value that goes nowhere.
    std::string& operator[](std::string_view key);
    const std::string& get(std::string_view key) const;
};

// The tool of the settings section "ToolSettings" of the product.
ExpoTool ExpoToolFromSettings();

// "Reticles" below the program folder, made when missing, and the library in
// it: ExposureToolLibrary.xlsx, or an older ExposureToolLibrary.xls when only
// that one is there.
std::string ToolLibraryPath();

// Utility(MakeToolLibrary): a new library at path with its properties and
// the sheet "ExposureTools" holding the settings' tool in column B. Saved.
[[nodiscard]] Result<WorkbookPtr> MakeToolLibrary(const std::string& path);
// Utility(GetExpoToolLibrary): the library's sheet; the file is made when it
// cannot be opened, and a workbook without the sheet (any case) gets one.
// path empty: ToolLibraryPath().
[[nodiscard]] Result<Worksheet*> GetExpoToolLibrary(WorkbookPtr& workbook, const std::string& path = {});
// The tools' names, in column order.
std::vector<std::string> ExpoToolNames(Worksheet& sheet);

// frmMain(SaveExpoTool2Library): writes the tool under its name: its column
// when the name is there, else a new column after the last. The workbook is
// not saved (SaveToolLibrary).
[[nodiscard]] Status SaveExpoTool2Library(Worksheet* sheet, const ExpoTool& tool);
// frmMain(UpdateExpoToolFromLibrary): the tool of that name. Fails with "Excel
// Tool Sheet not loaded.", the empty name's text, "Could not locate exposure
// tool '" name "' in the library." or, for a row the sheet lacks, "Possible
// library corruption!".
[[nodiscard]] Result<ExpoTool> UpdateExpoToolFromLibrary(Worksheet* sheet, const std::string& name);

// Saves the library; one read from an .xls is written as the .xlsx beside it.
[[nodiscard]] Status SaveToolLibrary(WorkbookPtr& workbook);

// The library the main window holds from its first use to the window's
// unload (xlToolSheet). The first call opens it (GetExpoToolLibrary) and
// hands it to the exit path, which asks to save it when it changed.
[[nodiscard]] Result<Worksheet*> HeldToolLibrary(const std::string& path = {});
// The held library's workbook; null before the first use and after the exit.
WorkbookPtr HeldToolLibraryWorkbook();

}  // namespace zorv
