// Import(ImportCDEResMap): a CDE ResMap four-point probe report, sheet
// resistance by probe point.
//
// What the file holds: "KEY: value" lines in any order (TITLE, FILENAME,
// TEMPLATEFILE, DateTime, Engineer, DIAM, FLATORNOTCH, DATA_UNITS,
// NumProbePoints, RANGEFROM "low TO high", "MERIT> limit"), then for each
// wafer a "CassSlotSelected: slot" line and one line per probe point:
// number, X, Y (mm), value and, when the tool gives it, the figure of merit.
// A header line of words before the points names the value column. A file
// of one wafer may leave the slot out.
//
// Each slot is a wafer, each probe point a site at its wafer position. A
// value outside RANGEFROM, or a merit not above MERIT>, goes to the excluded
// rows.
#include <cmath>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "lot/features.h"
#include "reader.h"
#include "readers_thermal_yield.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

using wafer_site::Split;

constexpr const char* kToolName = "CDE ResMap";

// Key and value of a header line: the key is the text before the first ":"
// or ">" (which "MERIT>" keeps), upper case, without blanks and "_".
bool KeyLine(std::string_view line, std::string& key, std::string& value) {
    size_t at = line.find_first_of(":>=");
    if (at == std::string_view::npos || at == 0) return false;
    key = wafer_site::HeadWord(line.substr(0, at));
    if (line[at] == '>') key += '>';
    value = Trim(line.substr(at + 1));
    return !key.empty() && key.find_first_of("0123456789") != 0;
}

bool IsKey(const std::string& key, std::initializer_list<const char*> spellings) {
    for (const char* s : spellings)
        if (key == s) return true;
    return false;
}

std::string NotchOf(const std::string& text, const std::string& current) {
    std::vector<std::string_view> w;
    Split(text, ' ', w);
    if (w.empty()) return current;
    const std::string u = Upper(w.back());
    if (u == "U" || u == "UP" || u == "TOP" || u == "0") return "UP";
    if (u == "D" || u == "DOWN" || u == "BOTTOM" || u == "180") return "DOWN";
    if (u == "R" || u == "RIGHT" || u == "90") return "RIGHT";
    if (u == "L" || u == "LEFT" || u == "270") return "LEFT";
    return current;
}

// The base name of a path written on another machine ("C:\DATA\LT42.RMP").
std::string BaseName(const std::string& path) {
    std::string s = path.substr(path.find_last_of("\\/") == std::string::npos ? 0 : path.find_last_of("\\/") + 1);
    const size_t dot = s.rfind('.');
    return dot == std::string::npos || dot == 0 ? s : s.substr(0, dot);
}

struct Keys {
    std::string title, fileName, templateFile, dateTime, engineer, diameter, units;
    std::string notch = "DOWN";
    long probePoints = 0;
    double low = -1e300, high = 1e300, merit = -1e300;
};

void TakeKey(const std::string& key, const std::string& value, Keys& k) {
    if (IsKey(key, {"TITLE"})) k.title = value;
    else if (IsKey(key, {"FILENAME", "FILE"})) k.fileName = value;
    else if (IsKey(key, {"TEMPLATEFILE", "TEMPLATE"})) k.templateFile = value;
    else if (IsKey(key, {"DATETIME", "DATE"})) k.dateTime = value;
    else if (IsKey(key, {"ENGINEER", "OPERATOR"})) k.engineer = value;
    else if (IsKey(key, {"DIAM", "DIAMETER", "WAFERDIAM"})) k.diameter = value;
    else if (IsKey(key, {"FLATORNOTCH", "FLAT/NOTCH", "NOTCH", "FLAT"})) k.notch = NotchOf(value, k.notch);
    else if (IsKey(key, {"DATAUNITS", "UNITS"})) k.units = value;
    else if (IsKey(key, {"NUMPROBEPOINTS", "NUMPROBEPTS", "NUMPOINTS"})) {
        double n = 0;
        if (ParseFileNumber(value, n) && n > 0) k.probePoints = std::lround(n);
    } else if (IsKey(key, {"RANGEFROM"})) {
        // "10.0 TO 100.0"
        std::vector<std::string_view> w;
        Split(value, ' ', w);
        double lo, hi;
        if (w.size() >= 3 && ParseFileNumber(w[0], lo) && ParseFileNumber(w.back(), hi)) {
            k.low = std::min(lo, hi);
            k.high = std::max(lo, hi);
        }
    } else if (IsKey(key, {"MERIT>", "MERIT"})) {
        ParseFileNumber(value, k.merit);
    }
}

}  // namespace

Result<std::string> ImportCDEResMap(const ImportRequest& request) {
    Proc p("Import(ImportCDEResMap): ");
    p.chk = 1;
    const std::string& source = request.path;
    const std::string name = fs::path(source).filename().string();
    auto failed = [&](long line, std::string text) { return FileFailure(p, source, line, std::move(text)); };
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    ReaderTables t;
    ReaderHeader h;
    h.toolName = kToolName;
    h.dataType = "Resistivity";

    // 2 to 4: keys, slots and probe points as they come.
    p.chk = 2;
    Keys keys;
    std::string key, value, lastLine, headOfValues;
    std::vector<std::string_view> cells;
    std::string_view v;
    Value wafer(static_cast<int32_t>(1));
    long inBlock = 0, rows = 0, keysSeen = 0;
    double maxRadius = 0;
    // A wafer's points end at the next slot or at the end of the file: too
    // few is a file cut short.
    auto blockDone = [&](bool atEnd) -> Status {
        if (keys.probePoints > 0 && inBlock > 0 && inBlock < keys.probePoints) {
            if (atEnd) return failed(in.lineNumber(), "End of file encountered early.\r\nLast Line: '" + lastLine + "'");
            return failed(in.lineNumber(), "Wrong data format.");
        }
        inBlock = 0;
        return StatusOk();
    };
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (v.find_first_not_of(" \t") == std::string_view::npos) continue;
        lastLine = Trim(v);
        Split(v, wafer_site::DelimiterOf(v), cells);
        double n = 0;
        if (ParseFileNumber(cells[0], n)) {
            // 3: a probe point.
            p.chk = 3;
            double x, y, val, merit = 1e300;
            if (cells.size() < 4 || !ParseFileNumber(cells[1], x) || !ParseFileNumber(cells[2], y) ||
                !ParseFileNumber(cells[3], val) || (cells.size() > 4 && !ParseFileNumber(cells[4], merit)))
                return failed(in.lineNumber(), "Wrong data format.");
            // Positions beyond any wafer are micrometres.
            if (std::fabs(x) > 1000 || std::fabs(y) > 1000) {
                x /= 1000;
                y /= 1000;
            }
            const long site = std::max(1L, std::lround(n));
            if (!t.hasSite(site)) {
                t.addSite(site, 0, 0, x, y, "Probe");
                maxRadius = std::max(maxRadius, std::hypot(x, y));
            }
            if (t.featureCount() == 0) {
                // "Rs(ohm/sq)": the name, and the unit when DATA_UNITS gave none.
                std::string head = headOfValues.empty() ? std::string("Rs") : headOfValues, unit = keys.units;
                if (const size_t open = head.find('('); open != std::string::npos && open > 0) {
                    if (unit.empty()) unit = Trim(ExtractUnitsOfMeasure(head));
                    head = Trim(head.substr(0, open));
                }
                t.setFeature(0, head);
                if (!unit.empty()) t.setUnit(0, unit);
            }
            const long r = t.addRow();
            t.cell(r, 1) = wafer;
            t.cell(r, 2) = static_cast<int32_t>(site);
            t.cell(r, 3) = static_cast<int32_t>(0);
            t.cell(r, 4) = static_cast<int32_t>(0);
            t.cell(r, 5) = val;
            ++inBlock;
            if (val < keys.low || val > keys.high || merit <= keys.merit) t.excludeLastRow(in.lineNumber());
            if (++rows % 100 == 0) {
                SetStatusText("Data Import Row " + std::to_string(rows));
                if (CheckEscKey()) return failed(in.lineNumber(), " Aborting data load...");
            }
            continue;
        }
        p.chk = 2;
        headOfValues.clear();
        if (KeyLine(v, key, value)) {
            ++keysSeen;
            if (IsKey(key, {"CASSSLOTSELECTED", "CASSSLOT", "SLOTSELECTED", "SLOT"})) {
                // 4: the next wafer.
                p.chk = 4;
                if (Status s = blockDone(false); !s) return s.failure();
                double slot = 0;
                wafer = ParseFileNumber(value, slot) && slot == std::floor(slot) ? Value(static_cast<int32_t>(slot))
                                                                                 : Value(value);
            } else {
                TakeKey(key, value, keys);
            }
        } else if (cells.size() >= 4) {
            // Column heads, when the points follow: the fourth names the value.
            headOfValues = std::string(cells[3]);
        }
    }
    in.close();
    // Numbers alone, without one key of the report, are some other file.
    if (keysSeen == 0 && rows > 0)
        return failed(0, "Wrong data format.\r\nPlease check the import type or data file.");
    if (rows == 0)
        return failed(in.lineNumber(), IncompleteDataText(name));
    if (Status s = blockDone(true); !s) return s.failure();

    // 5: the header for the workbook.
    p.chk = 5;
    double diameter = 0;
    if (!wafer_site::ParseDiameter(keys.diameter, diameter)) diameter = wafer_site::WaferDiameterFor(maxRadius);
    wafer_site::SetWaferGeometry(h, diameter);
    for (int i = 1; i <= t.siteCount(); ++i) {
        t.siteTable()(i, 1) = diameter;
        t.siteTable()(i, 2) = diameter;
    }
    h.notch = keys.notch;
    h.lotName = keys.fileName.empty() ? fs::path(source).stem().string() : BaseName(keys.fileName);
    h.recipe = keys.templateFile;
    h.user = keys.engineer;
    h.device = keys.title;
    {
        const std::string dt = Trim(keys.dateTime);
        const size_t sp = dt.find(' ');
        h.date = dt.substr(0, sp);
        if (sp != std::string::npos) h.time = Trim(dt.substr(sp + 1));
    }
    h.comment = h.toolName + "\r\nTitle: " + keys.title + "\r\nTemplate: " + keys.templateFile +
                " / Probe points: " + std::to_string(keys.probePoints) + "\r\nEngineer: " + keys.engineer;
    return FinishImport(p, request, t, h, nullptr);
}

}  // namespace zorv
