// The exposure tool library workbook: one column per tool under the keys of
// column A.
#include "layout/tool_library.h"

#include <filesystem>

#include "app/preferences.h"
#include "app/settings.h"
#include "app/shutdown.h"
#include "base/identity.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

// A cell's text; an error reads as empty.
std::string CellText(const Value& v) { return v.isError() || v.isEmpty() ? std::string() : v.toString(); }

// The row of a key in column A (any case), 0 when none.
int RowNumber(Worksheet& ws, std::string_view key, int lastRow) {
    for (int r = 1; r <= lastRow; ++r)
        if (IEquals(Trim(CellText(ws.cell(r, 1))), key)) return r;
    return 0;
}

// The row of the tools' names: "Exposure Tool", else the first row with a key.
int NameRow(Worksheet& ws, int lastRow) {
    if (const int r = RowNumber(ws, ExpoToolRows().front().key, lastRow)) return r;
    for (int r = 1; r <= lastRow; ++r)
        if (!Trim(CellText(ws.cell(r, 1))).empty()) return r;
    return 0;
}

// The tool's column along the name row, 0 when none.
int ToolColumn(Worksheet& ws, int nameRow, int lastCol, std::string_view name) {
    for (int c = 2; c <= lastCol; ++c)
        if (IEquals(Trim(CellText(ws.cell(nameRow, c))), Trim(name))) return c;
    return 0;
}

// A value typed as a number is stored as one.
Value CellOf(const std::string& text) {
    double d = 0;
    return ParseNumber(Trim(text), d) ? Value(d) : Value(text);
}

void WriteTool(Worksheet& ws, int col, const ExpoTool& tool) {
    const auto& rows = ExpoToolRows();
    int last = ws.lastRow();
    for (size_t i = 0; i < rows.size(); ++i) {
        int r = RowNumber(ws, rows[i].key, last);
        if (!r) {
            // A row lost by hand comes back at the end.
            r = ++last;
            ws.setCell(r, 1, Value(rows[i].key));
        }
        ws.setCell(r, col, i == 0 ? Value(tool.values[i]) : CellOf(tool.values[i]));
    }
}

}  // namespace

const std::vector<ExpoToolRow>& ExpoToolRows() {
    static const std::vector<ExpoToolRow> rows = {
        {"Exposure Tool", "ExposureTool", "ASM 700"},
        {"Tool Type", "ExpoToolType", "SCANNER"},
        {"Substrate", "Substrate", ""},
        {"Notch", "Notch", "UP"},
        {"Reduction", "Reduction", "0.0"},
        {"NA", "NA", "0.6"},
        {"PCinner", "PCI", "0.3"},
        {"PCouter", "PCO", ""},
        {"Wavelength", "Wavelength", ""},
        {"FocalLength", "FocalLength", ""},
        {"FieldSizeX", "FieldSizeX", ""},
        {"FieldSizeY", "FieldSizeY", ""},
        {"FieldCenterX", "FieldCenterX", ""},
        {"FieldCenterY", "FieldCenterY", ""},
        {"SubWidth", "SubWidth", ""},
        {"SubHeight", "SubHeight", ""},
        {"SubXoffset", "SubXoffset", ""},
        {"SubYoffset", "SubYoffset", ""},
    };
    return rows;
}

std::string& ExpoTool::operator[](std::string_view key) {
    const auto& rows = ExpoToolRows();
    for (size_t i = 0; i < rows.size(); ++i)
        if (IEquals(rows[i].key, key)) return values[i];
    static thread_local std::string nowhere;
    nowhere.clear();
    return nowhere;
}

const std::string& ExpoTool::get(std::string_view key) const {
    const auto& rows = ExpoToolRows();
    for (size_t i = 0; i < rows.size(); ++i)
        if (IEquals(rows[i].key, key)) return values[i];
    static const std::string none;
    return none;
}

ExpoTool ExpoToolFromSettings() {
    ExpoTool t;
    const auto& rows = ExpoToolRows();
    const std::string app = PreferenceApplication("ToolSettings");
    for (size_t i = 0; i < rows.size(); ++i) {
        // The library's own default, else the program's ("Wavelength" 193).
        const std::string fallback =
            *rows[i].fallback ? rows[i].fallback : PreferenceDefaultValue("ToolSettings", rows[i].setting);
        t.values[i] = GetSetting(app, "ToolSettings", rows[i].setting, fallback);
    }
    return t;
}

std::string ToolLibraryPath() {
    const fs::path folder = fs::path(ProgramFolder()) / "Reticles";
    std::error_code ec;
    fs::create_directories(folder, ec);
    const fs::path xlsx = folder / kToolLibraryFile;
    fs::path xls = xlsx;
    xls.replace_extension(".xls");
    if (!fs::exists(xlsx, ec) && fs::exists(xls, ec)) return xls.string();
    return xlsx.string();
}

Result<WorkbookPtr> MakeToolLibrary(const std::string& path) {
    Proc p("Utility(MakeToolLibrary): ");
    std::error_code ec;
    if (const fs::path folder = fs::path(path).parent_path(); !folder.empty()) fs::create_directories(folder, ec);
    WorkbookPtr wb = Workbooks::Add(path, kToolLibrarySheet);
    wb->setProperty("Author", VersionLine());
    wb->setProperty("Last author", VersionLine());
    wb->setProperty("Subject", "Zorv Wavefront Exposure Tool Library");
    Worksheet* ws = wb->sheet(kToolLibrarySheet);
    WriteTool(*ws, 2, ExpoToolFromSettings());  // on an empty sheet it lays the keys too
    p.chk = 2;
    if (Status st = wb->save(); !st) {
        Workbooks::Close(wb);
        return st.failure();
    }
    return wb;
}

Result<Worksheet*> GetExpoToolLibrary(WorkbookPtr& workbook, const std::string& path) {
    Proc p("Utility(GetExpoToolLibrary): ");
    SetStatusText("Opening Exposure Tool Library...");
    const std::string file = path.empty() ? ToolLibraryPath() : path;
    if (!workbook) {
        std::error_code ec;
        if (fs::exists(file, ec)) {
            auto opened = Workbooks::Open(file);
            if (!opened) return opened.failure();
            workbook = *opened;
        } else {
            auto made = MakeToolLibrary(file);
            if (!made) return made.failure();
            workbook = *made;
        }
    }
    p.chk = 2;
    for (const std::string& name : workbook->sheetNames())
        if (Upper(name) == Upper(kToolLibrarySheet)) return workbook->sheet(name);
    // Made by hand without the sheet: it gets one, holding the settings' tool.
    Worksheet* ws = workbook->addSheet(kToolLibrarySheet);
    if (!ws) return p.fail("Could not add the sheet '" + std::string(kToolLibrarySheet) + "' to " + workbook->name());
    WriteTool(*ws, 2, ExpoToolFromSettings());  // on an empty sheet it lays the keys too
    return ws;
}

std::vector<std::string> ExpoToolNames(Worksheet& sheet) {
    std::vector<std::string> names;
    const int row = NameRow(sheet, sheet.lastRow());
    if (!row) return names;
    for (int c = 2; c <= sheet.lastCol(); ++c)
        if (std::string n = Trim(CellText(sheet.cell(row, c))); !n.empty()) names.push_back(std::move(n));
    return names;
}

Status SaveExpoTool2Library(Worksheet* sheet, const ExpoTool& tool) {
    Proc p("frmMain(SaveExpoTool2Library): ");
    SetStatusText("Saving Exposure Tool Library ... ");
    if (!sheet) return p.fail("Excel Tool Sheet not loaded.");
    if (Trim(tool.name()).empty())
        return p.fail("An exposure tool name was not properly entered.\r\nCurrent name:" + tool.name());
    p.chk = 3;
    const int lastRow = sheet->lastRow(), lastCol = sheet->lastCol();
    const int nameRow = NameRow(*sheet, lastRow);
    if (!nameRow) return p.fail("Possible library corruption!\r\nValue: '" + std::string(ExpoToolRows().front().key) +
                                "' Not Found.");
    p.chk = 4;
    int col = ToolColumn(*sheet, nameRow, lastCol, tool.name());
    if (!col) col = std::max(lastCol, 1) + 1;
    p.chk = 5;
    WriteTool(*sheet, col, tool);
    SetStatusText("Tool Library saved!");
    return StatusOk();
}

Result<ExpoTool> UpdateExpoToolFromLibrary(Worksheet* sheet, const std::string& name) {
    Proc p("frmMain(UpdateExpoToolFromLibrary): ");
    if (!sheet) return p.fail("Excel Tool Sheet not loaded.");
    if (Trim(name).empty())
        return p.fail("An exposure tool name was has not been properly entered.\r\nCurrent name:" + name);
    const int lastRow = sheet->lastRow();
    const int nameRow = NameRow(*sheet, lastRow);
    const int col = nameRow ? ToolColumn(*sheet, nameRow, sheet->lastCol(), name) : 0;
    if (!col) return p.fail("Could not locate exposure tool '" + name + "' in the library.");
    p.chk = 3;
    ExpoTool t;
    const auto& rows = ExpoToolRows();
    for (size_t i = 0; i < rows.size(); ++i) {
        const int r = RowNumber(*sheet, rows[i].key, lastRow);
        if (!r) return p.fail("Possible library corruption!\r\nValue: '" + std::string(rows[i].key) + "' Not Found.");
        t.values[i] = Trim(CellText(sheet->cell(r, col)));
    }
    return t;
}

Status SaveToolLibrary(WorkbookPtr& workbook) {
    Proc p("Utility(SaveToolLibrary): ");
    if (!workbook) return p.fail("Excel Tool Sheet not loaded.");
    const fs::path path(workbook->path());
    if (workbook->readOnly() || IEquals(path.extension().string(), ".xls")) {
        fs::path xlsx = path;
        xlsx.replace_extension(".xlsx");
        return workbook->saveAs(xlsx.string());
    }
    return workbook->save();
}

namespace {

WorkbookPtr& Held() {
    static WorkbookPtr wb;
    return wb;
}

}  // namespace

Result<Worksheet*> HeldToolLibrary(const std::string& path) {
    WorkbookPtr& wb = Held();
    const bool first = !wb;
    auto sheet = GetExpoToolLibrary(wb, path);
    if (!sheet) return sheet;
    if (first) {
        ToolLibraryHook hook;
        hook.isOpen = [] { return Held() != nullptr; };
        hook.changed = [] { return Held() && Held()->isDirty(); };
        hook.save = [] {
            if (Status st = SaveToolLibrary(Held()); !st) Report(st.failure());
        };
        hook.close = [] {
            if (Held()) Workbooks::Close(Held());
            Held().reset();
        };
        SetToolLibraryHook(std::move(hook));
    }
    return sheet;
}

WorkbookPtr HeldToolLibraryWorkbook() { return Held(); }

}  // namespace zorv
