// Import(ImportSensArray): a SensArray sensor wafer map (SensArrayMAP3), as
// text or as the tab-text copy of its spreadsheet.
//
// What the file holds: key rows, the key in the first cell and the values
// after it ("Wafer S/N", "Wafer Type", "Wafer Size", "Sensor Type" (RTD,
// ISIS, TMAP), "Sensors" (the count), "Rotation" (degrees), "Acquired",
// "Interval" (seconds between samples), "Attributes", "Descriptions" (a
// name per sensor), "Limits" (lowest and highest plausible reading)); a
// "Positions" row followed by one row per sensor: number, X, Y (mm); then
// "*DATA*", an optional header row, and one row per sample: the time, then
// one reading per sensor in sensor order. Rows without a time column take
// their time from the interval. Cells by tab, comma or semicolon.
//
// Each sample becomes a wafer ("t" and its time), each sensor a site at its
// position turned by the rotation, the sensor type its family. A reading
// outside the limits goes to the excluded rows.
#include <charconv>
#include <cmath>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "reader.h"
#include "readers_thermal_yield.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

using wafer_site::Split;

constexpr const char* kToolName = "SensArrayMAP3";
constexpr const char* kBadHeader = "Header import not correct.";

// A key cell as compared: upper case, "_" and runs of blanks one blank, no
// trailing ":".
std::string KeyOf(std::string_view cell) {
    std::string out;
    for (char c : cell) {
        if (c == '_' || c == '\t') c = ' ';
        if (c == ' ' && (out.empty() || out.back() == ' ')) continue;
        out += UpChar(c);
    }
    while (!out.empty() && (out.back() == ' ' || out.back() == ':')) out.pop_back();
    return out;
}

bool IsKey(const std::string& key, std::initializer_list<const char*> spellings) {
    for (const char* s : spellings)
        if (key == s) return true;
    return false;
}

struct Sensor {
    std::string name;
    double x = 0, y = 0;
};

struct Header {
    std::string serial, waferType, waferSize, sensorType, acquired, attributes;
    long sensorCount = 0;
    double rotationDeg = 0, intervalS = 0, low = -1e300, high = 1e300;
    std::vector<std::string> descriptions;
    std::vector<Sensor> sensors;
};

std::string Joined(const std::vector<std::string_view>& cells, size_t from) {
    std::string s;
    for (size_t i = from; i < cells.size(); ++i)
        if (!cells[i].empty()) {
            if (!s.empty()) s += ' ';
            s.append(cells[i]);
        }
    return s;
}

// Seconds of an interval such as "0.5", "0.5 sec", "500 ms".
double Seconds(const std::string& text) {
    std::vector<std::string_view> w;
    Split(text, ' ', w);
    double v = 0;
    if (w.empty() || !ParseFileNumber(w[0], v)) return 0;
    if (w.size() > 1 && (IEquals(w[1], "ms") || IEquals(w[1], "msec"))) v /= 1000;
    return v;
}

std::string TimeText(double seconds) {
    char buf[32];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, seconds);
    return ec == std::errc() ? std::string(buf, end) : std::to_string(seconds);
}

}  // namespace

Result<std::string> ImportSensArray(const ImportRequest& request) {
    Proc p("Import(ImportSensArray): ");
    p.chk = 1;
    const std::string& source = request.path;
    auto failed = [&](long line, std::string text) { return FileFailure(p, source, line, std::move(text)); };
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }

    // 2: the key rows and the positions, up to "*DATA*".
    p.chk = 2;
    Header hd;
    std::vector<std::string_view> cells;
    std::string_view v;
    bool inPositions = false, data = false;
    while (!data && in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (v.find_first_not_of(" \t,;") == std::string_view::npos) {
            inPositions = false;
            continue;
        }
        Split(v, wafer_site::DelimiterOf(v), cells);
        const std::string key = KeyOf(cells[0]);
        double n = 0, x = 0, y = 0;
        if (inPositions && cells.size() >= 3 && ParseFileNumber(cells[0], n) && ParseFileNumber(cells[1], x) &&
            ParseFileNumber(cells[2], y)) {
            hd.sensors.push_back({std::string(cells[0]), x, y});
            continue;
        }
        inPositions = false;
        const std::string rest = Joined(cells, 1);
        if (key == "*DATA*" || key == "DATA*" || key == "*DATA") data = true;
        else if (IsKey(key, {"POSITIONS", "POSITION", "SENSOR POSITIONS"})) inPositions = true;
        else if (IsKey(key, {"WAFER S/N", "WAFER SN", "WAFER S N", "WAFER SERIAL", "S/N"})) hd.serial = rest;
        else if (IsKey(key, {"WAFER TYPE"})) hd.waferType = rest;
        else if (IsKey(key, {"WAFER SIZE", "WAFERSIZE", "WAFER DIAMETER"})) hd.waferSize = rest;
        else if (IsKey(key, {"SENSOR TYPE", "SENSORTYPE"})) hd.sensorType = rest;
        else if (IsKey(key, {"SENSORS", "NUMBER OF SENSORS", "SENSOR COUNT"})) {
            double c = 0;
            if (cells.size() > 1 && ParseFileNumber(cells[1], c) && c > 0) hd.sensorCount = std::lround(c);
        } else if (IsKey(key, {"ROTATION", "ROTATION ANGLE"})) {
            if (cells.size() > 1) ParseFileNumber(cells[1], hd.rotationDeg);
        } else if (IsKey(key, {"ACQUIRED", "ACQUISITION", "DATE ACQUIRED"})) hd.acquired = rest;
        else if (IsKey(key, {"INTERVAL", "SAMPLE INTERVAL", "SAMPLING INTERVAL"})) hd.intervalS = Seconds(rest);
        else if (IsKey(key, {"ATTRIBUTES"})) hd.attributes = rest;
        else if (IsKey(key, {"DESCRIPTIONS", "DESCRIPTION"})) {
            for (size_t i = 1; i < cells.size(); ++i) hd.descriptions.emplace_back(cells[i]);
        } else if (IsKey(key, {"LIMITS", "LIMIT"})) {
            double lo, hi;
            if (cells.size() > 2 && ParseFileNumber(cells[1], lo) && ParseFileNumber(cells[2], hi)) {
                hd.low = std::min(lo, hi);
                hd.high = std::max(lo, hi);
            }
        }
    }
    if (hd.sensorCount == 0) hd.sensorCount = static_cast<long>(hd.sensors.size());
    if (!data || hd.sensors.empty() || static_cast<long>(hd.sensors.size()) != hd.sensorCount)
        return failed(in.lineNumber(), kBadHeader);

    // 3: the sites, turned by the rotation.
    p.chk = 3;
    ReaderTables t;
    ReaderHeader h;
    h.toolName = kToolName;
    h.dataType = "Thermal";
    t.setFeature(0, "Temperature");
    std::string family = Trim(hd.sensorType);
    if (family.empty())
        for (const char* w : {"TMAP", "RTD", "ISIS"})
            if (IContains(hd.waferType, w)) family = w;
    if (family.empty()) family = "Sensor";
    const double a = hd.rotationDeg * 3.14159265358979323846 / 180;
    double maxRadius = 0;
    for (size_t i = 0; i < hd.sensors.size(); ++i) {
        const Sensor& s = hd.sensors[i];
        double x = s.x * std::cos(a) - s.y * std::sin(a), y = s.x * std::sin(a) + s.y * std::cos(a);
        x = std::round(x * 1e6) / 1e6;
        y = std::round(y * 1e6) / 1e6;
        const long site = static_cast<long>(i) + 1;
        t.addSite(site, 0, 0, x, y, family);
        t.siteTable()(t.siteCount(), 0) = i < hd.descriptions.size() ? hd.descriptions[i] : s.name;
        maxRadius = std::max(maxRadius, std::hypot(x, y));
    }

    // 4: the samples.
    p.chk = 4;
    const size_t nSensors = hd.sensors.size();
    long sample = 0, rows = 0;
    char delim = 0;
    std::string time;
    Value wafer;
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (v.find_first_not_of(" \t,;") == std::string_view::npos) continue;
        if (!delim) delim = wafer_site::DelimiterOf(v);
        Split(v, delim, cells);
        while (!cells.empty() && cells.back().empty() && cells.size() > nSensors) cells.pop_back();
        double first;
        if (sample == 0 && !ParseFileNumber(cells[0], first)) continue;  // the header row
        size_t from;
        if (cells.size() == nSensors + 1) {
            from = 1;
            time.assign(cells[0]);
            if (!ParseFileNumber(cells[0], first)) return failed(in.lineNumber(), "Wrong data format.");
        } else if (cells.size() == nSensors) {
            from = 0;
            time = TimeText(static_cast<double>(sample) * hd.intervalS);
        } else {
            return failed(in.lineNumber(), "Wrong data format.");
        }
        ++sample;
        wafer = Value("t" + time);
        for (size_t k = 0; k < nSensors; ++k) {
            std::string_view c = cells[from + k];
            if (c.empty()) continue;  // no reading from this sensor
            double temp;
            if (!ParseFileNumber(c, temp)) return failed(in.lineNumber(), "Wrong data format.");
            const long r = t.addRow();
            t.cell(r, 1) = wafer;
            t.cell(r, 2) = static_cast<int32_t>(k + 1);
            t.cell(r, 3) = static_cast<int32_t>(0);
            t.cell(r, 4) = static_cast<int32_t>(0);
            t.cell(r, 5) = temp;
            if (temp < hd.low || temp > hd.high) t.excludeLastRow(in.lineNumber());
        }
        if (++rows % 100 == 0) {
            SetStatusText("Data Import Row " + std::to_string(rows));
            if (CheckEscKey()) return failed(in.lineNumber(), " Aborting data load...");
        }
    }
    in.close();
    if (sample == 0) {
        const std::string name = fs::path(source).filename().string();
        return failed(in.lineNumber(), IncompleteDataText(name));
    }

    // 5: the header for the workbook.
    p.chk = 5;
    double diameter = 0;
    if (!wafer_site::ParseDiameter(hd.waferSize, diameter)) diameter = wafer_site::WaferDiameterFor(maxRadius);
    wafer_site::SetWaferGeometry(h, diameter);
    for (int i = 1; i <= t.siteCount(); ++i) {
        t.siteTable()(i, 1) = diameter;
        t.siteTable()(i, 2) = diameter;
    }
    h.lotName = hd.serial.empty() ? fs::path(source).stem().string() : hd.serial;
    h.device = hd.waferType;
    h.recipe = hd.attributes;
    {
        const std::string acq = Trim(hd.acquired);
        const size_t sp = acq.find(' ');
        h.date = acq.substr(0, sp);
        if (sp != std::string::npos) h.time = Trim(acq.substr(sp + 1));
    }
    h.comment = h.toolName + "\r\nWafer S/N: " + hd.serial + " / Wafer Type: " + hd.waferType +
                "\r\nSensor Type: " + hd.sensorType + " / Sensors: " + std::to_string(nSensors) +
                "\r\nRotation: " + TimeText(hd.rotationDeg) + " / Interval: " + TimeText(hd.intervalS);
    return FinishImport(p, request, t, h, nullptr);
}

}  // namespace zorv
