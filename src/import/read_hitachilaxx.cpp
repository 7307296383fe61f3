// Import(ImportHitachiLAXX): the result workbook of a Hitachi LA-series
// overlay tool, read directly.
//
// What the workbook holds: on its data sheet (the first sheet whose header
// row has "Xreg" and "Yreg"), key rows above the header (the key in the
// first filled cell, the value in the next: "Lot", "Recipe", "Layer",
// "Device", "Date", "Time", "Shot Size X"/"Y" in mm), then one row per mark.
// Columns by name in any order, upper case, blanks as "_": the wafer
// ("Wafer", "Slot"), the shot ("Shot X", "Chip X", "Die X", "Column"; and
// Y), the mark ("Point", "Site", "No"), its place in the shot ("X", "Pos X"
// in mm; above 500 taken as um), "Xreg" and "Yreg". A unit in brackets
// decides the registration's unit ("Xreg (nm)"); without one a value of 1
// or more is in nanometres. Registration is kept in micrometres.
//
// A mark whose registration is not a number (an error cell, "*****") goes
// to the excluded rows.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/format.h"
#include "base/report.h"
#include "base/text.h"
#include "lot/features.h"
#include "reader.h"
#include "readers_thermal_yield.h"
#include "workbook/store.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr const char* kToolName = "Hitachi LAxx O/L";

struct Head {
    std::string word, unit;
};

// "Xreg (nm)": the word "XREG" and the unit "nm"; blanks become "_".
Head HeadOf(const Value& v) {
    Head h;
    std::string t = CellText(v);
    const size_t open = t.find_first_of("([");
    if (open != std::string::npos && open > 0) {
        h.unit = Trim(t[open] == '(' ? ExtractUnitsOfMeasure(t) : ExtractUnitsOfMeasure(t, "[", "]"));
        t = Trim(t.substr(0, open));
    }
    h.word = Upper(t);
    std::replace(h.word.begin(), h.word.end(), ' ', '_');
    return h;
}

struct Columns {
    int wafer = -1, dieX = -1, dieY = -1, site = -1, x = -1, y = -1, xreg = -1, yreg = -1;
    double regScale = 0;  // um per unit of Xreg and Yreg; 0: by the value
    double posScale = 0;  // mm per unit of X and Y; 0: by the value
};

bool IsHeaderRow(const Value* cells, int count) {
    bool x = false, y = false;
    for (int c = 0; c < count; ++c) {
        const std::string w = HeadOf(cells[c]).word;
        x = x || w == "XREG" || w == "X_REG";
        y = y || w == "YREG" || w == "Y_REG";
    }
    return x && y;
}

double UmPer(const std::string& unit) {
    const std::string u = Lower(unit);
    if (u == "nm") return 1e-3;
    if (u == "um" || u == "\xC2\xB5m" || u == "micron" || u == "microns") return 1;
    if (u == "mm") return 1e3;
    return 0;
}

Columns FindColumns(const Value* cells, int count) {
    std::vector<std::string> words;
    std::vector<Head> heads;
    for (int c = 0; c < count; ++c) {
        heads.push_back(HeadOf(cells[c]));
        words.push_back(heads.back().word);
    }
    Columns k;
    k.wafer = FindWord(words, {"WAFER", "WAFER_NO", "WAFERNO", "WAFER_ID", "SLOT", "SLOT_NO"});
    k.dieX = FindWord(words, {"SHOT_X", "SHOTX", "CHIP_X", "CHIPX", "DIE_X", "DIEX", "COLUMN", "COL"});
    k.dieY = FindWord(words, {"SHOT_Y", "SHOTY", "CHIP_Y", "CHIPY", "DIE_Y", "DIEY", "ROW"});
    k.site = FindWord(words, {"POINT", "POINT_NO", "PT", "SITE", "NO", "NO.", "MARK"});
    k.x = FindWord(words, {"X", "POS_X", "POSX", "X_POS", "FIELD_X", "X_LOC"});
    k.y = FindWord(words, {"Y", "POS_Y", "POSY", "Y_POS", "FIELD_Y", "Y_LOC"});
    k.xreg = FindWord(words, {"XREG", "X_REG"});
    k.yreg = FindWord(words, {"YREG", "Y_REG"});
    k.regScale = UmPer(heads[static_cast<size_t>(k.xreg)].unit);
    if (k.x >= 0) {
        const double um = UmPer(heads[static_cast<size_t>(k.x)].unit);
        k.posScale = um > 0 ? um / 1000 : 0;
    }
    return k;
}

double Registration(double v, double scale) { return scale > 0 ? v * scale : (std::fabs(v) >= 1 ? v / 1000 : v); }
double Position(double v, double scale) { return scale > 0 ? v * scale : (std::fabs(v) > 500 ? v / 1000 : v); }

}  // namespace

Result<std::string> ImportHitachiLAXX(const ImportRequest& request) {
    Proc p("Import(ImportHitachiLAXX): ");
    p.chk = 1;
    const std::string& source = request.path;
    auto failed = [&](long row, std::string text) { return FileFailure(p, source, row, std::move(text)); };
    WorkbookPtr wb = Workbooks::Find(source);
    if (!wb) {
        Result<WorkbookPtr> opened = Workbook::open(source, Workbook::Load::Lazy);
        if (!opened) return failed(0, "File type incorrect: " + source + "\r\nWrong data format.");
        wb = std::move(*opened);
    }
    if (wb->sheetCount() < 1) return failed(0, "There are no worksheets in file: " + source);
    std::string target = ReaderWorkbookPath(request);
    std::error_code ec;
    if (fs::equivalent(target, source, ec)) return failed(0, "The data workbook would replace its source file: " + target);

    // 2: the data sheet, its keys and its header.
    p.chk = 2;
    Worksheet* ws = nullptr;
    int headerRow = 0;
    Columns k;
    std::unordered_map<std::string, Value> keys;
    for (int i = 1; i <= wb->sheetCount() && !ws; ++i) {
        Worksheet* cand = wb->sheet(i);
        keys.clear();
        Status walked = cand->forEachRow([&](int row, const Value* cells, int count) {
            if (IsHeaderRow(cells, count)) {
                headerRow = row;
                k = FindColumns(cells, count);
                return false;
            }
            int c = 0;
            while (c < count && cells[c].isEmpty()) ++c;
            if (c + 1 < count && cells[c].isString()) keys.emplace(HeadOf(cells[c]).word, cells[c + 1]);
            return true;
        });
        if (!walked) return failed(0, "Cannot read worksheet '" + cand->name() + "': " + walked.failure().text);
        if (headerRow) ws = cand;
    }
    if (!ws) return failed(0, "No data sheet found in workbook: " + wb->name());
    const std::string sheet = ws->name();

    ReaderTables t;
    ReaderHeader h;
    h.toolName = kToolName;
    h.dataType = "Overlay";
    t.setFeature(0, "Xreg");
    t.setFeature(1, "Yreg");
    t.setUnit(0, "um");
    t.setUnit(1, "um");
    auto keyText = [&](std::initializer_list<const char*> names) -> std::string {
        for (const char* n : names)
            if (auto it = keys.find(n); it != keys.end() && !it->second.isEmpty()) return CellText(it->second);
        return {};
    };
    auto keyNumber = [&](std::initializer_list<const char*> names) {
        double v = 0;
        for (const char* n : names)
            if (auto it = keys.find(n); it != keys.end() && CellNumber(it->second, v) && v > 0) return v;
        return 0.0;
    };

    // 3: the marks.
    p.chk = 3;
    std::unordered_map<std::string, long> siteOf;
    std::string siteKey;
    std::optional<Failure> bad;
    long done = 0;
    Status walked = ws->forEachRow([&](int row, const Value* cells, int count) {
        if (row <= headerRow) return true;
        auto fail = [&](const std::string& text) {
            bad = failed(row, "Row " + std::to_string(row) + " of worksheet '" + sheet + "': " + text);
            bad->sheet = sheet;
            return false;
        };
        const Value& xr = CellAt(cells, count, k.xreg);
        const Value& yr = CellAt(cells, count, k.yreg);
        if (xr.isEmpty() && yr.isEmpty()) return true;  // a note or a blank row
        double dx = 0, dy = 0, x = 0, y = 0, n = 0;
        if (k.dieX >= 0 && !CellNumber(CellAt(cells, count, k.dieX), dx)) return fail("the shot column is not a number.");
        if (k.dieY >= 0 && !CellNumber(CellAt(cells, count, k.dieY), dy)) return fail("the shot row is not a number.");
        if (k.x >= 0 && !CellNumber(CellAt(cells, count, k.x), x)) return fail("X is not a number.");
        if (k.y >= 0 && !CellNumber(CellAt(cells, count, k.y), y)) return fail("Y is not a number.");
        if (++done % 100 == 0) {
            SetStatusText("Data Import Row " + std::to_string(done));
            if (CheckEscKey()) return fail("Aborting data load...");
        }
        x = Position(x, k.posScale);
        y = Position(y, k.posScale);
        // The mark: its number, else its place in the shot.
        long site;
        if (k.site >= 0 && CellNumber(CellAt(cells, count, k.site), n) && n >= 1) {
            site = std::lround(n);
        } else {
            siteKey = std::to_string(x) + '|' + std::to_string(y);
            auto it = siteOf.find(siteKey);
            if (it == siteOf.end()) it = siteOf.emplace(siteKey, static_cast<long>(siteOf.size()) + 1).first;
            site = it->second;
        }
        if (!t.hasSite(site)) t.addSite(site, 0, 0, x, y, h.family);
        const std::string wafer = CellText(CellAt(cells, count, k.wafer));
        const long r = t.addRow();
        double num;
        t.cell(r, 1) = wafer.empty() ? Value(static_cast<int32_t>(1))
                       : ParseFileNumber(wafer, num) && num == std::floor(num) ? Value(static_cast<int32_t>(num))
                                                                               : Value(wafer);
        t.cell(r, 2) = static_cast<int32_t>(site);
        t.cell(r, 3) = static_cast<int32_t>(std::lround(dx));
        t.cell(r, 4) = static_cast<int32_t>(std::lround(dy));
        double vx, vy;
        const bool okX = CellNumber(xr, vx), okY = CellNumber(yr, vy);
        if (okX) t.cell(r, 5) = Registration(vx, k.regScale);
        if (okY) t.cell(r, 6) = Registration(vy, k.regScale);
        if (!okX || !okY) t.excludeLastRow(row);
        return true;
    });
    if (!walked) return failed(0, "Cannot read worksheet '" + sheet + "': " + walked.failure().text);
    if (bad) return *bad;
    ws = nullptr;
    wb.reset();
    if (t.rows() < 1) {
        Failure f = failed(headerRow, IncompleteDataText(fs::path(source).filename().string()));
        f.sheet = sheet;
        return f;
    }

    // 4: the header for the workbook.
    p.chk = 4;
    h.lotName = keyText({"LOT", "LOT_ID", "LOTID", "LOT_NO"});
    if (h.lotName.empty()) h.lotName = fs::path(source).stem().string();
    h.recipe = keyText({"RECIPE", "RECIPE_NAME"});
    h.layer = keyText({"LAYER", "PROCESS"});
    h.device = keyText({"DEVICE", "PRODUCT"});
    h.system = keyText({"TOOL", "TOOL_ID", "MACHINE"});
    h.date = keyText({"DATE", "MEASURE_DATE"});
    h.time = keyText({"TIME", "MEASURE_TIME"});
    // A date cell carries its day as a serial; the text form is repaired later.
    if (auto it = keys.find("DATE"); it != keys.end() && (it->second.isDate() || it->second.isNumberType()))
        h.date = FormatDate(std::floor(it->second.toDouble()), "yyyy-mm-dd");
    h.dieSizeXmm = keyNumber({"SHOT_SIZE_X", "FIELD_SIZE_X", "CHIP_SIZE_X", "STEP_X", "PITCH_X"});
    h.dieSizeYmm = keyNumber({"SHOT_SIZE_Y", "FIELD_SIZE_Y", "CHIP_SIZE_Y", "STEP_Y", "PITCH_Y"});
    if (h.dieSizeXmm > 0 && h.dieSizeYmm > 0)
        for (int i = 1; i <= t.siteCount(); ++i) {
            t.siteTable()(i, 1) = h.dieSizeXmm;
            t.siteTable()(i, 2) = h.dieSizeYmm;
        }
    h.comment = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName No:" + h.lotName +
                " / Recipe: " + h.recipe + "\r\nWorksheet: " + sheet;
    ImportRequest call = request;
    call.workbookPath = target;
    return FinishImport(p, call, t, h, nullptr);
}

}  // namespace zorv
