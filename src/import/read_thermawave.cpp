// Therma-Wave RTCD profile reports (.csv). A block per wafer:
//   File:,<wafer file>    Process:,<layer>   Directory:,...   Subdirectory:,<lot>
//   Equipment:,...        System ID:,...     Cassette:,...    Date:,...  Time:,...
//   H_UNITS,nm            V_UNITS,nm  ...    (units of the profile parameters)
//   Measurement Point Number,X,Y,Horizontal,Vertical,Slope,GOF,Residual,Shift
//   1,-50.0,0.0,45.1,120.3,88.2,0.99,0.21,0.0
// A new "File:" starts the next wafer, named after the file unless a Slot
// or Wafer key after it names it. The profile parameters go to the data table in the lot's own
// order, whatever order the columns stand in: Horizontal (also spelt
// "Horixontal"), Vertical, Z (Height), Slope, Pitch, A, B, C. Units come from
// the *_UNITS keys, a *_UNITS column, or a unit beside the column name.
// GOF, Residual and Shift are fit diagnostics and are not kept. The points
// are wafer positions (mm), all in one field.
#include <array>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "base/text.h"
#include "import/getline.h"
#include "readers_ocd_film.h"

namespace zorv {

namespace fs = std::filesystem;
using namespace ocd_film;

namespace {

constexpr int kSlots = 8;
constexpr std::array<const char*, kSlots> kSlotNames = {"Horizontal", "Vertical", "Z", "Slope",
                                                         "Pitch",      "A",        "B", "C"};
constexpr std::array<const char*, kSlots> kUnitKeys = {"H_UNITS",     "V_UNITS", "Z_UNITS", "SLOPE_UNITS",
                                                        "PITCH_UNITS", "A_UNITS", "B_UNITS", "C_UNITS"};

bool IsPointHead(const std::string& k) {
    return IsOneOf(k, {"MEASUREMENT POINT NUMBER", "MEASUREMENT POINT", "POINT NUMBER", "POINT", "POINT#",
                       "MEASUREMENT_POINT_NUMBER", "POINT_NUMBER"});
}

// The profile slot of a column name (upper case, unit cut off), -1 for none.
int SlotOf(const std::string& name) {
    if (name.rfind("HORIZONTAL", 0) == 0 || name.rfind("HORIXONTAL", 0) == 0) return 0;
    if (name.rfind("VERTICAL", 0) == 0) return 1;
    if (IsOneOf(name, {"Z", "HEIGHT", "DEPTH"})) return 2;
    if (IsOneOf(name, {"SLOPE", "SWA", "SIDEWALL_ANGLE"})) return 3;
    if (name == "PITCH") return 4;
    if (name == "A") return 5;
    if (name == "B") return 6;
    if (name == "C") return 7;
    return -1;
}

int UnitSlotOf(const std::string& key) {
    for (int s = 0; s < kSlots; ++s)
        if (key == kUnitKeys[static_cast<size_t>(s)]) return s;
    return -1;
}

struct Columns {
    int point = -1, x = -1, y = -1;
    std::array<int, kSlots> slot{};      // column of each slot, -1
    std::array<int, kSlots> unitCol{};   // a *_UNITS column of each slot, -1
    bool any = false;
};

Columns ReadColumns(const std::vector<std::string>& heads) {
    Columns c;
    c.slot.fill(-1);
    c.unitCol.fill(-1);
    for (int i = 0; i < static_cast<int>(heads.size()); ++i) {
        const std::string k = Key(heads[i]);
        const std::string name = Upper(NameOfHeader(heads[i]));
        if (IsPointHead(k)) c.point = i;
        else if (IsOneOf(name, {"X", "XPOS", "X_POS", "X_POSITION", "X_(MM)"})) c.x = i;
        else if (IsOneOf(name, {"Y", "YPOS", "Y_POS", "Y_POSITION", "Y_(MM)"})) c.y = i;
        else if (int u = UnitSlotOf(name); u >= 0) c.unitCol[static_cast<size_t>(u)] = i;
        else if (int s = SlotOf(name); s >= 0 && c.slot[static_cast<size_t>(s)] < 0) {
            c.slot[static_cast<size_t>(s)] = i;
            c.any = true;
        }
    }
    return c;
}

}  // namespace

Result<std::string> ImportThermaWaveProfile(const ImportRequest& request) {
    Proc p("Import(ImportThermaWaveProfile): ");
    p.chk = 1;
    const std::string& source = request.path;
    ReaderTables t;
    ReaderHeader h;
    h.dataType = "Scatter";
    h.toolName = "Therma-Wave RTCD";
    PointRows points(t);

    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    if (in.size() > 0) t.reserveRows(static_cast<long>(in.size() / 48) + 16);

    p.chk = 2;
    std::string_view v;
    std::string key, value, lastLine, wafer = "1", directory, equipment, cassette;
    std::array<std::string, kSlots> units;
    std::array<int, kSlots> feature{};
    std::vector<std::string> f;
    Columns c;
    char delim = ',';
    bool inTable = false, sawHeader = false;
    long rows = 0;
    std::string family = h.family;
    while (in.readLine(v)) {
        if (in.sawNul()) return BinaryFailure(p, source, in.lineNumber());
        if (IsBlank(v)) continue;
        lastLine.assign(v);
        if (inTable) {
            SplitFields(v, delim, f);
            double point;
            if (c.point < static_cast<int>(f.size()) && ParseFileNumber(f[c.point], point)) {
                // 3: a data row.
                p.chk = 3;
                auto number = [&](int i, double& out) {
                    return i >= 0 && i < static_cast<int>(f.size()) && ParseFileNumber(f[i], out);
                };
                long r = 0;
                const long site = std::max(1L, std::lround(point));
                for (int s = 0; s < kSlots; ++s) {
                    double m;
                    if (!number(c.slot[static_cast<size_t>(s)], m)) continue;
                    if (r == 0) r = points.row(wafer, site, 0, 0);
                    points.set(r, feature[static_cast<size_t>(s)], m);
                    const int uc = c.unitCol[static_cast<size_t>(s)];
                    if (units[static_cast<size_t>(s)].empty() && uc >= 0 && uc < static_cast<int>(f.size()) &&
                        !f[uc].empty()) {
                        units[static_cast<size_t>(s)] = f[uc];
                        t.setUnit(feature[static_cast<size_t>(s)], f[uc]);
                    }
                }
                if (r == 0) continue;  // no parameter in this row
                double x = 0, y = 0;
                number(c.x, x);
                number(c.y, y);
                points.site(site, PositionMm(x), PositionMm(y), family);
                if (RowProgress(++rows)) return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
                continue;
            }
            inTable = false;
        }
        // 2: the keys of a wafer's block.
        p.chk = 2;
        const char d = DelimiterOf(v);
        SplitFields(v, d, f);
        bool header = false;
        for (const std::string& field : f)
            if (IsPointHead(Key(field))) header = true;
        if (header && f.size() > 1) {
            // 4: the table header.
            p.chk = 4;
            c = ReadColumns(f);
            if (!c.any)
                return FileFailure(p, source, in.lineNumber(),
                                   "Header information for measured data not found. Aborting ...");
            // The slots the file has, in the lot's order, as features.
            for (int s = 0; s < kSlots; ++s) {
                if (c.slot[static_cast<size_t>(s)] < 0) continue;
                const int col = c.slot[static_cast<size_t>(s)];
                std::string unit = units[static_cast<size_t>(s)];
                if (unit.empty()) unit = units[static_cast<size_t>(s)] = UnitOfHeader(f[col]);
                feature[static_cast<size_t>(s)] = points.feature(kSlotNames[static_cast<size_t>(s)], unit);
                if (!unit.empty()) t.setUnit(feature[static_cast<size_t>(s)], unit);
            }
            family = FamilyOfFeature(h.layer, h.family);
            delim = d;
            inTable = sawHeader = true;
            continue;
        }
        if (!SplitKeyValue(v, key, value)) continue;
        if (int u = UnitSlotOf(key); u >= 0) {
            if (!value.empty()) units[static_cast<size_t>(u)] = value;
        } else if (key == "FILE") {
            std::string stem = fs::path(Replace(value, "\\", "/")).stem().string();
            if (!stem.empty()) wafer = stem;
        } else if (IsOneOf(key, {"SLOT", "WAFER", "WAFER ID", "WAFERID", "WAFER_ID"})) {
            if (!value.empty()) wafer = value;
        } else if (key == "PROCESS") h.layer = value;
        else if (key == "DIRECTORY") directory = value;
        else if (key == "SUBDIRECTORY" || key == "LOT" || key == "LOT ID") {
            if (h.lotName.empty() || key != "SUBDIRECTORY") h.lotName = value;
        } else if (key == "EQUIPMENT") equipment = value;
        else if (key == "SYSTEM ID" || key == "SYSTEM_ID" || key == "SYSTEMID") h.system = value;
        else if (key == "CASSETTE") cassette = value;
        else if (key == "RECIPE") h.recipe = value;
        else if (key == "DATE" && h.date.empty()) h.date = value;
        else if (key == "TIME" && h.time.empty()) h.time = value;
    }
    in.close();
    if (!sawHeader) {
        if (in.lineNumber() == 0)
            return FileFailure(p, source, 0,
                               IncompleteDataText(fs::path(source).filename().string()));
        return EarlyEndFailure(p, source, in.lineNumber(), lastLine);
    }
    if (t.rows() < 1)
        return FileFailure(p, source, in.lineNumber(),
                           IncompleteDataText(fs::path(source).filename().string()));
    p.chk = 5;
    if (h.lotName.empty()) h.lotName = cassette;
    h.comment = h.toolName + "\r\nProcess: " + h.layer + "\r\nLotName: " + h.lotName + "\r\nDirectory: " +
                directory + "\r\nEquipment: " + equipment + "\r\nSystem: " + h.system + "\r\nCassette: " + cassette;
    return FinishImport(p, request, t, h, nullptr);
}

}  // namespace zorv
