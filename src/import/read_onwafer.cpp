// Import(ImportOnWafer): an OnWafer Technologies thermal map, the record of
// a sensor wafer's temperatures as time goes by.
//
// What the file holds: a "[Wafer Data]" section of "Key=Value" lines
// (":", a tab or a comma also part key from value) with FileName, Vendor,
// Company, Acquisition (date and time), Version, Comment, Operator,
// Quantity, Unit, Resolution, Diameter, Label; then a line "#Data", then a
// header line and one line per sensor and time sample. Columns by name in
// any order, tab, comma, semicolon or blank separated: "Time",
// "Temperature", "Xmm", "Ymm", "Ana/Dig", and an optional sensor name
// ("Sensor", "Channel", "Label"). A unit in brackets after "Temperature"
// beats the Unit key.
//
// Each time sample becomes a wafer ("t" and the time as written), each
// sensor a site at its wafer position (told apart by name, else by
// position), its channel kind (analog or digital) the site's family.
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <unordered_map>
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

using wafer_site::HeadWord;
using wafer_site::Split;

constexpr const char* kToolName = "OnWafer Technologies";

// A workbook handed to a text reader: by its name or by its first bytes
// (the zip of .xlsx, the compound file of .xls).
bool LooksLikeWorkbook(const std::string& path) {
    if (IsSpreadsheetPath(path)) return true;
    std::ifstream in(path, std::ios::binary);
    char b[4] = {};
    in.read(b, 4);
    if (in.gcount() < 4) return false;
    return std::memcmp(b, "PK\x03\x04", 4) == 0 || std::memcmp(b, "\xD0\xCF\x11\xE0", 4) == 0;
}

// "Key=Value", "Key: Value", "Key<tab>Value" or "Key,Value".
bool SplitKey(std::string_view line, std::string& key, std::string& value) {
    size_t at = line.find_first_of("=:\t,");
    if (at == std::string_view::npos) return false;
    key = HeadWord(line.substr(0, at));
    value = Trim(line.substr(at + 1));
    return !key.empty();
}

struct Columns {
    int time = -1, temperature = -1, x = -1, y = -1, kind = -1, sensor = -1;
    std::string unit;  // from the temperature header
};

Columns FindColumns(const std::vector<std::string_view>& cells) {
    std::vector<std::string> words;
    for (std::string_view c : cells) words.push_back(HeadWord(c));
    Columns k;
    k.time = FindWord(words, {"TIME", "TIMES", "T", "SECONDS", "ELAPSEDTIME"});
    k.temperature = FindWord(words, {"TEMPERATURE", "TEMP", "TEMPERATUR", "TEMPC", "VALUE"});
    k.x = FindWord(words, {"XMM", "X", "XPOS", "XPOSITION", "POSX"});
    k.y = FindWord(words, {"YMM", "Y", "YPOS", "YPOSITION", "POSY"});
    k.kind = FindWord(words, {"ANA/DIG", "ANADIG", "A/D", "ANALOG/DIGITAL", "TYPE"});
    k.sensor = FindWord(words, {"SENSOR", "SENSORS", "CHANNEL", "CH", "LABEL", "PROBE", "NAME"});
    if (k.temperature >= 0) {
        std::string_view head = cells[static_cast<size_t>(k.temperature)];
        if (head.find('(') != std::string_view::npos) k.unit = Trim(ExtractUnitsOfMeasure(head));
        else if (head.find('[') != std::string_view::npos) k.unit = Trim(ExtractUnitsOfMeasure(head, "[", "]"));
    }
    return k;
}

// The site family of a channel kind.
std::string KindFamily(std::string_view text) {
    const std::string u = Upper(Trim(text));
    if (u.empty()) return "Sensor";
    if (u == "A" || u == "ANA" || u == "ANALOG" || u == "ANALOGUE") return "Analog";
    if (u == "D" || u == "DIG" || u == "DIGITAL") return "Digital";
    return std::string(Trim(text));
}

struct Keys {
    std::string fileName, vendor, company, acquisition, version, comment, op, quantity, unit, resolution,
        diameter, label;
};

void TakeKey(const std::string& key, const std::string& value, Keys& k) {
    auto is = [&](std::initializer_list<const char*> names) {
        for (const char* n : names)
            if (key == n) return true;
        return false;
    };
    if (is({"FILENAME", "FILE"})) k.fileName = value;
    else if (is({"VENDOR"})) k.vendor = value;
    else if (is({"COMPANY"})) k.company = value;
    else if (is({"ACQUISITION", "ACQUISITIONDATE", "ACQUISITIONTIME", "ACQUIRED", "DATE"})) k.acquisition = value;
    else if (is({"VERSION"})) k.version = value;
    else if (is({"COMMENT", "COMMENTS"})) k.comment = value;
    else if (is({"OPERATOR", "USER"})) k.op = value;
    else if (is({"QUANTITY"})) k.quantity = value;
    else if (is({"UNIT", "UNITS"})) k.unit = value;
    else if (is({"RESOLUTION"})) k.resolution = value;
    else if (is({"DIAMETER", "WAFERDIAMETER", "WAFERSIZE"})) k.diameter = value;
    else if (is({"LABEL", "WAFERLABEL"})) k.label = value;
}

}  // namespace

Result<std::string> ImportOnWafer(const ImportRequest& request) {
    Proc p("Import(ImportOnWafer): ");
    p.chk = 1;
    const std::string& source = request.path;
    const std::string name = fs::path(source).filename().string();
    auto failed = [&](long line, std::string text) { return FileFailure(p, source, line, std::move(text)); };
    if (LooksLikeWorkbook(source)) return failed(0, "Cannot import when data is in Excel format.");

    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    ReaderTables t;
    ReaderHeader h;
    h.toolName = kToolName;
    h.dataType = "Thermal";
    if (in.size() > 0) t.reserveRows(static_cast<long>(in.size() / 32) + 16);

    // 2: the "[Wafer Data]" keys, up to "#Data" and the column header.
    p.chk = 2;
    const std::string badHeader = "Data header not correct for input from " + name;
    Keys keys;
    bool section = false, dataMark = false;
    std::string_view v;
    std::string key, value;
    while (!dataMark && in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        std::string_view s = v;
        while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
        if (s.empty()) continue;
        const std::string u = Upper(s.substr(0, std::min<size_t>(s.size(), 16)));
        if (u.rfind("[WAFER DATA]", 0) == 0 || u.rfind("[WAFERDATA]", 0) == 0) section = true;
        else if (u.rfind("#DATA", 0) == 0) dataMark = true;
        else if (section && SplitKey(s, key, value)) TakeKey(key, value, keys);
    }
    if (!section || !dataMark) return failed(in.lineNumber(), badHeader);
    Columns c;
    std::vector<std::string_view> cells;
    char delim = ' ';
    long headerLine = 0;
    while (in.readLine(v)) {
        if (Trim(v).empty()) continue;
        delim = wafer_site::DelimiterOf(v);
        Split(v, delim, cells);
        c = FindColumns(cells);
        headerLine = in.lineNumber();
        break;
    }
    if (c.time < 0 || c.temperature < 0 || c.x < 0 || c.y < 0)
        return failed(headerLine ? headerLine : in.lineNumber(), badHeader);
    t.setFeature(0, "Temperature");
    const std::string unit = !c.unit.empty() ? c.unit : keys.unit;
    if (!unit.empty()) t.setUnit(0, unit);

    // 3: the samples.
    p.chk = 3;
    std::unordered_map<std::string, long> siteOf;  // sensor name or position -> site
    std::unordered_map<std::string, Value> waferOf;
    std::string sensorKey, timeKey;
    double maxRadius = 0;
    long rows = 0;
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (v.find_first_not_of(" \t") == std::string_view::npos) continue;
        Split(v, delim, cells);
        auto cell = [&](int i) { return i >= 0 && i < static_cast<int>(cells.size()) ? cells[i] : std::string_view(); };
        double time, temp, x, y;
        if (!ParseFileNumber(cell(c.time), time) || !ParseFileNumber(cell(c.temperature), temp) ||
            !ParseFileNumber(cell(c.x), x) || !ParseFileNumber(cell(c.y), y))
            return failed(in.lineNumber(), "Incorrect data format");
        if (++rows % 100 == 0) {
            SetStatusText("Data Import Row " + std::to_string(rows));
            if (CheckEscKey()) return failed(in.lineNumber(), " Aborting data load...");
        }
        // The sensor: its name, else its place.
        if (c.sensor >= 0 && !cell(c.sensor).empty()) {
            sensorKey.assign(cell(c.sensor));
        } else {
            sensorKey.assign(cell(c.x));
            sensorKey += '|';
            sensorKey.append(cell(c.y));
        }
        auto it = siteOf.find(sensorKey);
        if (it == siteOf.end()) {
            const long site = t.siteCount() + 1;
            it = siteOf.emplace(sensorKey, site).first;
            t.addSite(site, 0, 0, x, y, KindFamily(cell(c.kind)));
            maxRadius = std::max(maxRadius, std::hypot(x, y));
        }
        timeKey.assign(cell(c.time));
        auto w = waferOf.find(timeKey);
        if (w == waferOf.end()) w = waferOf.emplace(timeKey, Value("t" + timeKey)).first;
        const long r = t.addRow();
        t.cell(r, 1) = w->second;
        t.cell(r, 2) = static_cast<int32_t>(it->second);
        t.cell(r, 3) = static_cast<int32_t>(0);
        t.cell(r, 4) = static_cast<int32_t>(0);
        t.cell(r, 5) = temp;
    }
    in.close();
    if (rows == 0)
        return failed(headerLine, IncompleteDataText(name));

    // 4: the header for the workbook.
    p.chk = 4;
    double diameter = 0;
    if (!wafer_site::ParseDiameter(keys.diameter, diameter)) diameter = wafer_site::WaferDiameterFor(maxRadius);
    wafer_site::SetWaferGeometry(h, diameter);
    for (int i = 1; i <= t.siteTable().rowUb() && i <= t.siteCount(); ++i) {
        t.siteTable()(i, 1) = diameter;
        t.siteTable()(i, 2) = diameter;
    }
    h.lotName = keys.fileName.empty() ? fs::path(source).stem().string() : fs::path(keys.fileName).stem().string();
    h.device = keys.label;
    h.user = keys.op;
    h.system = keys.vendor.empty() ? std::string(kToolName) : keys.vendor;
    h.recipe = keys.quantity;
    {
        const std::string a = Trim(keys.acquisition);
        const size_t sp = a.find(' ');
        h.date = a.substr(0, sp);
        if (sp != std::string::npos) h.time = Trim(a.substr(sp + 1));
    }
    h.comment = h.toolName + "\r\nCompany: " + keys.company + " / Version: " + keys.version +
                "\r\nComment: " + keys.comment + "\r\nResolution: " + keys.resolution + "\r\nLabel: " + keys.label;
    p.chk = 5;
    return FinishImport(p, request, t, h, nullptr);
}

}  // namespace zorv
