// Import(ImportYieldXLS): a yield summary workbook (PDF spreadsheet), one
// row per wafer, die and test structure.
//
// What the workbook holds: a sheet "PDFSdata" (else the first sheet) with
// key rows at the top, the key in the first filled cell and its value in
// the next ("SUBSTRATE" the wafer diameter, "ORIENTATION" or "ORIENT" the
// notch, "DIE_SIZE_X"/"DIE_SIZE_Y" or "DIE_PITCH_X"/"DIE_PITCH_Y" in mm),
// then a header row and the data rows. Columns by name in any order, upper
// case, with their spellings: "LOT_ID", "SLOT_ID"/"SLOTID", "DIE_X"/"XDIE"/
// "DIEX" (and Y), "STRUCT_X"/"XSTRUCT"/"STRUCTX" (and Y; the structure's
// place in its die, mm from the die centre), "TARGET_NAME",
// "DUMMY_FILL"/"DUMMYFILL", "ORIENT"/"ORIENTATION", "SUBSTRATE"; every other
// column holding numbers is a measured feature. A unit in brackets after a
// feature's name ("RC (ohm)") is its unit.
//
// Each slot is a wafer, each die and structure a site at its wafer position
// (die index from the middle of the dice times the die pitch, plus the
// structure's place). A row marked "Duplicate", or a second row of the same
// slot, die and structure, goes to the excluded rows.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "lot/features.h"
#include "reader.h"
#include "readers_thermal_yield.h"
#include "workbook/store.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr const char* kToolName = "PDF spreadsheet";
constexpr const char* kDataSheet = "PDFSdata";

// A header cell as looked up: upper case, blanks to "_", unit cut off.
std::string HeadOf(const Value& v) {
    std::string t = CellText(v);
    const size_t open = t.find_first_of("([");
    if (open != std::string::npos && open > 0) t = Trim(t.substr(0, open));
    std::string u = Upper(t);
    std::replace(u.begin(), u.end(), ' ', '_');
    return u;
}

std::string NotchWord(const std::string& text, const std::string& current) {
    const std::string u = Upper(Trim(text));
    if (u == "U" || u == "UP" || u == "0") return "UP";
    if (u == "D" || u == "DOWN" || u == "180") return "DOWN";
    if (u == "R" || u == "RIGHT" || u == "90") return "RIGHT";
    if (u == "L" || u == "LEFT" || u == "270") return "LEFT";
    return current;
}

struct Columns {
    std::vector<std::string> heads, names;
    int lot = -1, slot = -1, dieX = -1, dieY = -1, structX = -1, structY = -1, target = -1, fill = -1,
        orient = -1, substrate = -1;
    bool keyword(int c) const {
        return c == lot || c == slot || c == dieX || c == dieY || c == structX || c == structY || c == target ||
               c == fill || c == orient || c == substrate;
    }
};

bool IsHeaderRow(const Value* cells, int count) {
    bool lotOrSlot = false, die = false;
    for (int c = 0; c < count; ++c) {
        const std::string h = HeadOf(cells[c]);
        if (h == "LOT_ID" || h == "SLOT_ID" || h == "SLOTID") lotOrSlot = true;
        if (h == "DIE_X" || h == "XDIE" || h == "DIEX") die = true;
    }
    return lotOrSlot && die;
}

Columns FindColumns(const Value* cells, int count) {
    Columns k;
    for (int c = 0; c < count; ++c) {
        k.heads.push_back(HeadOf(cells[c]));
        k.names.push_back(CellText(cells[c]));
    }
    k.lot = FindWord(k.heads, {"LOT_ID", "LOTID", "LOT"});
    k.slot = FindWord(k.heads, {"SLOT_ID", "SLOTID", "SLOT", "WAFER"});
    k.dieX = FindWord(k.heads, {"DIE_X", "XDIE", "DIEX"});
    k.dieY = FindWord(k.heads, {"DIE_Y", "YDIE", "DIEY"});
    k.structX = FindWord(k.heads, {"STRUCT_X", "XSTRUCT", "STRUCTX"});
    k.structY = FindWord(k.heads, {"STRUCT_Y", "YSTRUCT", "STRUCTY"});
    k.target = FindWord(k.heads, {"TARGET_NAME", "TARGETNAME", "TARGET", "STRUCTURE"});
    k.fill = FindWord(k.heads, {"DUMMY_FILL", "DUMMYFILL"});
    k.orient = FindWord(k.heads, {"ORIENT", "ORIENTATION"});
    k.substrate = FindWord(k.heads, {"SUBSTRATE"});
    return k;
}

// What the first walk learns.
struct Scan {
    int headerRow = 0;
    Columns cols;
    std::unordered_map<std::string, Value> keys;
    std::vector<char> numeric;
    long dataRows = 0;
};

bool NeverMeasured(const std::string& h) {
    for (const char* w : {"STATUS", "COMMENT", "COMMENTS", "NOTE", "NOTES", "FLAG", "DUPLICATE", "INDEX", "NO"})
        if (h == w) return true;
    return h.empty();
}

bool MarkedDuplicate(const Value* cells, int count) {
    for (int c = 0; c < count; ++c)
        if (cells[c].isString() && IContains(cells[c].str(), "DUPLICATE")) return true;
    return false;
}

struct SiteSpot {
    double dieX, dieY, sx, sy;
};

}  // namespace

Result<std::string> ImportYieldXLS(const ImportRequest& request) {
    Proc p("Import(ImportYieldXLS): ");
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
    Worksheet* ws = wb->sheet(std::string_view(kDataSheet));
    if (!ws) ws = wb->sheet(1);
    const std::string sheet = ws->name();
    // The data workbook never takes the source's place.
    std::string target = ReaderWorkbookPath(request);
    std::error_code ec;
    if (fs::equivalent(target, source, ec)) return failed(0, "The data workbook would replace its source file: " + target);

    // 2: header, keys above it, the columns that hold numbers.
    p.chk = 2;
    Scan s;
    Status walked = ws->forEachRow([&](int row, const Value* cells, int count) {
        if (!s.headerRow) {
            if (IsHeaderRow(cells, count)) {
                s.headerRow = row;
                s.cols = FindColumns(cells, count);
                s.numeric.assign(static_cast<size_t>(count), 0);
                return true;
            }
            int c = 0;
            while (c < count && cells[c].isEmpty()) ++c;
            while (c + 1 < count) {  // pairs of key and value along the row
                const std::string key = HeadOf(cells[c]);
                if (!key.empty()) s.keys.emplace(key, cells[c + 1]);
                c += 2;
                while (c < count && cells[c].isEmpty()) ++c;
            }
            return true;
        }
        ++s.dataRows;
        double v;
        const int n = std::min(count, static_cast<int>(s.numeric.size()));
        for (int c = 0; c < n; ++c)
            if (!s.numeric[static_cast<size_t>(c)] && CellNumber(cells[c], v)) s.numeric[static_cast<size_t>(c)] = 1;
        return true;
    });
    if (!walked) return failed(0, "Cannot read worksheet '" + sheet + "': " + walked.failure().text);
    if (!s.headerRow) {
        Failure f = failed(0, "This is not a proper format data sheet.\r\nPlease check the import type or data file.");
        f.sheet = sheet;
        return f;
    }
    const Columns& k = s.cols;
    ReaderTables t;
    ReaderHeader h;
    h.toolName = kToolName;
    h.dataType = "WaferSiteData";
    std::vector<int> measured;
    for (size_t c = 0; c < k.heads.size(); ++c) {
        const int col = static_cast<int>(c);
        if (k.keyword(col) || NeverMeasured(k.heads[c]) || !s.numeric[c]) continue;
        const int f = t.featureCount();
        std::string name = k.names[c], unit;
        if (const size_t open = name.find_first_of("(["); open != std::string::npos && open > 0) {
            unit = Trim(name[open] == '(' ? ExtractUnitsOfMeasure(name) : ExtractUnitsOfMeasure(name, "[", "]"));
            name = Trim(name.substr(0, open));
        }
        t.setFeature(f, name);
        if (!unit.empty()) t.setUnit(f, unit);
        measured.push_back(col);
    }
    if (measured.empty()) {
        Failure f = failed(s.headerRow, "Header information for measured data not found. Aborting ...");
        f.sheet = sheet;
        return f;
    }
    auto key = [&](std::initializer_list<const char*> names, double& out) {
        for (const char* n : names)
            if (auto it = s.keys.find(n); it != s.keys.end() && CellNumber(it->second, out)) return true;
        return false;
    };

    // 3: the rows.
    p.chk = 3;
    std::unordered_map<std::string, long> siteOf;
    std::unordered_map<std::string, char> seen;  // slot and site met already
    std::vector<SiteSpot> spots;
    std::string siteKey, rowKey, lotName;
    double dieMinX = 1e300, dieMaxX = -1e300, dieMinY = 1e300, dieMaxY = -1e300, substrate = 0;
    std::optional<Failure> bad;
    long done = 0;
    walked = ws->forEachRow([&](int row, const Value* cells, int count) {
        if (row <= s.headerRow) return true;
        auto fail = [&](std::string text) {
            bad = failed(row, "Row " + std::to_string(row) + " of worksheet '" + sheet + "': " + text);
            bad->sheet = sheet;
            return false;
        };
        double dx, dy, sx = 0, sy = 0;
        const Value& cx = CellAt(cells, count, k.dieX);
        if (cx.isEmpty() || (cx.isString() && Trim(cx.str()).empty())) return true;  // a note or a blank row
        if (!CellNumber(cx, dx) || !CellNumber(CellAt(cells, count, k.dieY), dy)) {
            // A note written across the table is no row; a row with values is a bad one.
            double any;
            for (int c : measured)
                if (CellNumber(CellAt(cells, count, c), any)) return fail("the die is not a number.");
            return true;
        }
        if (k.structX >= 0 && !CellAt(cells, count, k.structX).isEmpty() && !CellNumber(CellAt(cells, count, k.structX), sx))
            return fail("the structure position is not a number.");
        if (k.structY >= 0 && !CellAt(cells, count, k.structY).isEmpty() && !CellNumber(CellAt(cells, count, k.structY), sy))
            return fail("the structure position is not a number.");
        if (++done % 100 == 0) {
            SetStatusText("Data Import Row " + std::to_string(done));
            if (CheckEscKey()) return fail("Aborting data load...");
        }
        if (lotName.empty()) lotName = CellText(CellAt(cells, count, k.lot));
        if (substrate <= 0) {
            double d;
            if (CellNumber(CellAt(cells, count, k.substrate), d) && d > 0) substrate = d;
        }
        if (k.orient >= 0) h.notch = NotchWord(CellText(CellAt(cells, count, k.orient)), h.notch);
        const std::string targetName = CellText(CellAt(cells, count, k.target));
        const std::string fill = CellText(CellAt(cells, count, k.fill));
        siteKey = std::to_string(std::lround(dx)) + '|' + std::to_string(std::lround(dy)) + '|' + targetName + '|' +
                  fill + '|' + std::to_string(sx) + '|' + std::to_string(sy);
        auto it = siteOf.find(siteKey);
        if (it == siteOf.end()) {
            const long site = t.siteCount() + 1;
            it = siteOf.emplace(siteKey, site).first;
            t.addSite(site, 0, 0, 0, 0, FamilyOfFeature(targetName, targetName.empty() ? h.family : targetName));
            t.siteTable()(t.siteCount(), 0) = targetName;
            spots.push_back({dx, dy, sx, sy});
        }
        dieMinX = std::min(dieMinX, dx);
        dieMaxX = std::max(dieMaxX, dx);
        dieMinY = std::min(dieMinY, dy);
        dieMaxY = std::max(dieMaxY, dy);
        const std::string slot = CellText(CellAt(cells, count, k.slot));
        const long r = t.addRow();
        double num;
        t.cell(r, 1) = slot.empty() ? Value(static_cast<int32_t>(1))
                       : ParseFileNumber(slot, num) && num == std::floor(num) ? Value(static_cast<int32_t>(num))
                                                                              : Value(slot);
        t.cell(r, 2) = static_cast<int32_t>(it->second);
        t.cell(r, 3) = static_cast<int32_t>(0);
        t.cell(r, 4) = static_cast<int32_t>(0);
        for (size_t f = 0; f < measured.size(); ++f)
            if (CellNumber(CellAt(cells, count, measured[f]), num)) t.cell(r, 5 + static_cast<int>(f)) = num;
        rowKey = slot + '#' + std::to_string(it->second);
        const bool again = !seen.emplace(rowKey, 1).second;
        if (again || MarkedDuplicate(cells, count)) t.excludeLastRow(row);
        return true;
    });
    if (!walked) return failed(0, "Cannot read worksheet '" + sheet + "': " + walked.failure().text);
    if (bad) return *bad;
    ws = nullptr;
    wb.reset();
    if (t.rows() < 1) {
        Failure f = failed(s.headerRow, IncompleteDataText(fs::path(source).filename().string()));
        f.sheet = sheet;
        return f;
    }

    // 4: the sites' wafer positions, the geometry.
    p.chk = 4;
    double pitchX = 0, pitchY = 0;
    key({"DIE_SIZE_X", "DIE_PITCH_X", "DIESIZEX", "DIEPITCHX", "STEP_X"}, pitchX);
    key({"DIE_SIZE_Y", "DIE_PITCH_Y", "DIESIZEY", "DIEPITCHY", "STEP_Y"}, pitchY);
    // Without a pitch the dice are as large as the spread of their structures.
    auto spread = [&](bool x) {
        double lo = 1e300, hi = -1e300;
        for (const SiteSpot& sp : spots) {
            lo = std::min(lo, x ? sp.sx : sp.sy);
            hi = std::max(hi, x ? sp.sx : sp.sy);
        }
        return hi > lo ? std::ceil(hi - lo) : 10.0;
    };
    if (pitchX <= 0) pitchX = spread(true);
    if (pitchY <= 0) pitchY = spread(false);
    const double midX = (dieMinX + dieMaxX) / 2, midY = (dieMinY + dieMaxY) / 2;
    double maxRadius = 0;
    for (size_t i = 0; i < spots.size(); ++i) {
        const SiteSpot& sp = spots[i];
        const double x = (sp.dieX - midX) * pitchX + sp.sx, y = (sp.dieY - midY) * pitchY + sp.sy;
        t.siteTable()(static_cast<int>(i) + 1, 4) = x;
        t.siteTable()(static_cast<int>(i) + 1, 5) = y;
        maxRadius = std::max(maxRadius, std::hypot(std::fabs(x) + pitchX / 2, std::fabs(y) + pitchY / 2));
    }
    double diameter = 0;
    if (substrate <= 0) key({"SUBSTRATE", "WAFER_SIZE", "WAFERSIZE"}, substrate);
    if (substrate > 1000) substrate /= 1000;
    diameter = substrate > 0 ? substrate : wafer_site::WaferDiameterFor(maxRadius);
    wafer_site::SetWaferGeometry(h, diameter);
    for (int i = 1; i <= t.siteCount(); ++i) {
        t.siteTable()(i, 1) = diameter;
        t.siteTable()(i, 2) = diameter;
    }
    if (auto it = s.keys.find("ORIENTATION"); it != s.keys.end()) h.notch = NotchWord(CellText(it->second), h.notch);
    else if (auto o = s.keys.find("ORIENT"); o != s.keys.end()) h.notch = NotchWord(CellText(o->second), h.notch);
    h.lotName = lotName.empty() ? fs::path(source).stem().string() : lotName;
    h.recipe = sheet;
    h.comment = h.toolName + "\r\nLot: " + h.lotName + " / Worksheet: " + sheet + "\r\nDie pitch: " +
                std::to_string(pitchX) + " x " + std::to_string(pitchY) + " mm";
    ImportRequest call = request;
    call.workbookPath = target;
    return FinishImport(p, call, t, h, nullptr);
}

}  // namespace zorv
