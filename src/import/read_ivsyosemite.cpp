// Soluris Yosemite CD-SEM output. Header lines "KEY: value" (or "KEY value",
// tab or comma between) after an optional HEADER line: CARRIER, PROCESS (the
// device), LAYER, RECIPE, JOB_PLAN, LOT# or LOT_#, TIME (date and time),
// DIE_X_ARRAY/DIE_Y_ARRAY, ROWS, COLUMNS (the field grid), STEPSIZE_X/_Y
// (field pitch, um). Then a table, space, tab or comma separated, whose header
// holds OUTPUT_NAME or VALUE: WAFER (or SLOT), FIELD_NUM, COLUMN, ROW,
// LOCATION_X, LOCATION_Y (site in the field, um), TEMPLATE_NAME (its words
// LINE, SPACE, VIA give the family), OUTPUT_NAME (the feature), VALUE, UNITS.
// One line per output; the outputs of one field and place make one row.
// Without COLUMN and ROW the field number counts the grid row by row. Older
// tools write no UNITS column: values stand as written, and the user is told.
#include <algorithm>
#include <cstdio>
#include <cmath>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "reader.h"
#include "readers_cdsem.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr int kMaxEmptyLines = 10;

std::string_view TrimView(std::string_view f) {
    while (!f.empty() && (f.front() == ' ' || f.front() == '\t' || f.front() == '"')) f.remove_prefix(1);
    while (!f.empty() && (f.back() == ' ' || f.back() == '\t' || f.back() == '"')) f.remove_suffix(1);
    return f;
}

// At tabs, else commas, else runs of blanks.
void SplitRow(std::string_view line, std::vector<std::string_view>& out) {
    out.clear();
    char d = line.find('\t') != std::string_view::npos ? '\t' : line.find(',') != std::string_view::npos ? ',' : ' ';
    size_t i = 0;
    if (d == ' ') {
        while (i < line.size()) {
            while (i < line.size() && line[i] == ' ') ++i;
            if (i >= line.size()) break;
            size_t j = i;
            while (j < line.size() && line[j] != ' ') ++j;
            out.push_back(line.substr(i, j - i));
            i = j;
        }
        return;
    }
    size_t start = 0;
    for (i = 0; i <= line.size(); ++i)
        if (i == line.size() || line[i] == d) {
            out.push_back(TrimView(line.substr(start, i - start)));
            start = i + 1;
        }
}

// The value of a unit word in micrometres when it is a length; false else.
bool LengthFactor(const std::string& upperUnit, double& f) {
    if (upperUnit == "NM") f = 0.001;
    else if (upperUnit == "UM" || upperUnit == "MICRON" || upperUnit == "MICRONS") f = 1;
    else if (upperUnit == "MM") f = 1000;
    else if (upperUnit == "A" || upperUnit == "ANGSTROM") f = 0.0001;
    else return false;
    return true;
}

struct Columns {
    int wafer = -1, fieldNum = -1, column = -1, row = -1, x = -1, y = -1, templ = -1, output = -1, value = -1,
        units = -1;
};

}  // namespace

Result<std::string> ImportIVSyosemite(const ImportRequest& request) {
    Proc p("Import(ImportIVSyosemite): ");
    p.chk = 1;
    const std::string& source = request.path;
    auto failed = [&](long line, std::string text) { return FileFailure(p, source, line, std::move(text)); };
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    ReaderTables t;
    ReaderHeader h;
    h.toolName = "Soluris CD-SEM";
    h.dataType = "CDsem";
    if (in.size() > 0) t.reserveRows(static_cast<long>(in.size() / 200) + 16);

    // 2: the header lines, up to the table's header.
    p.chk = 2;
    std::string_view v;
    std::vector<std::string_view> f;
    std::vector<std::string> heads;
    std::string lastLine, wafer = "1", carrier, job;
    long columns = 0;
    int empty = 0;
    bool haveTable = false;
    while (!haveTable && in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        std::string_view s = TrimView(v);
        if (s.empty()) {
            if (++empty > kMaxEmptyLines) return failed(in.lineNumber(), "More than 10 empty lines read &  Aborting! ");
            continue;
        }
        empty = 0;
        lastLine.assign(v);
        const std::string upper = Upper(s);
        SplitRow(upper, f);
        heads.assign(f.begin(), f.end());
        if (FindWord(heads, {"OUTPUT_NAME", "VALUE"}) >= 0 &&
            FindWord(heads, {"FIELD_NUM", "COLUMN", "LOCATION_X", "OUTPUT_NAME"}) >= 0) {
            haveTable = true;
            break;
        }
        // "KEY: value", "KEY = value" or "KEY value".
        size_t cut = s.find_first_of(":=\t,");
        if (cut == std::string_view::npos) cut = s.find(' ');
        if (cut == std::string_view::npos) continue;  // "HEADER", a title
        std::string key = Upper(TrimView(s.substr(0, cut)));
        std::replace(key.begin(), key.end(), ' ', '_');
        std::string value(TrimView(s.substr(cut + 1)));
        double num = 0;
        ParseFileNumber(value, num);
        if (key == "PROCESS" || key == "DEVICE") h.device = value;
        else if (key == "LAYER") h.layer = value;
        else if (key == "RECIPE") h.recipe = value;
        else if (key == "JOB_PLAN" || key == "JOBPLAN") job = value;
        else if (key == "LOT#" || key == "LOT_#" || key == "LOT" || key == "LOT_ID") h.lotName = value;
        else if (key == "CARRIER") carrier = value;
        else if (key == "WAFER" || key == "WAFER_ID" || key == "SLOT") wafer = value;
        else if (key == "COLUMNS") columns = std::lround(num);
        else if (key == "STEPSIZE_X") h.dieSizeXmm = num / 1000;
        else if (key == "STEPSIZE_Y") h.dieSizeYmm = num / 1000;
        else if (key == "TIME" || key == "DATE") {
            const size_t sp = value.find(' ');
            h.date = value.substr(0, sp);
            if (sp != std::string::npos) h.time = std::string(TrimView(std::string_view(value).substr(sp)));
        }
    }
    if (!haveTable) {
        if (in.lineNumber() == 0)
            return failed(0, IncompleteDataText(fs::path(source).filename().string()));
        return failed(in.lineNumber(), "End of file encountered early.\r\nLast Line: '" + lastLine +
                                           "'\r\nPlease check the import type or data file.");
    }

    // 3: the columns.
    p.chk = 3;
    const long headerLine = in.lineNumber();
    Columns c;
    c.wafer = FindWord(heads, {"WAFER", "WAFER_ID", "WAFERID", "SLOT"});
    c.fieldNum = FindWord(heads, {"FIELD_NUM", "FIELD", "FIELD_NO"});
    c.column = FindWord(heads, {"COLUMN", "COL"});
    c.row = FindWord(heads, {"ROW"});
    c.x = FindWord(heads, {"LOCATION_X", "LOC_X"});
    c.y = FindWord(heads, {"LOCATION_Y", "LOC_Y"});
    c.templ = FindWord(heads, {"TEMPLATE_NAME", "TEMPLATE"});
    c.output = FindWord(heads, {"OUTPUT_NAME", "OUTPUT"});
    c.value = FindWord(heads, {"VALUE"});
    c.units = FindWord(heads, {"UNITS", "UNIT"});
    if (c.value < 0) return failed(headerLine, "Header information for measured data not found. Aborting ...");
    if (c.units < 0) MsgBox(p.tag() + "\r\nThis format does not include the Units-of-measure for variables.", vbInformation);

    // 4: the lines.
    p.chk = 4;
    std::vector<std::string> features;
    std::vector<bool> unitSet;
    std::map<std::string, long> rowOf;  // wafer | field | place
    std::map<std::string, int> siteOf;  // place
    std::string key;
    long measured = 0;
    char buf[96];
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (TrimView(v).empty()) continue;
        SplitRow(v, f);
        auto cell = [&](int i) { return i >= 0 && i < static_cast<int>(f.size()) ? f[i] : std::string_view(); };
        double value;
        if (!ParseFileNumber(cell(c.value), value)) continue;  // not measured
        if ((++measured % 100) == 0) {
            SetStatusText("Data Import Row " + std::to_string(measured));
            if (CheckEscKey()) return failed(in.lineNumber(), " Aborting data load...");
        }
        // The feature column of this output.
        std::string name(cell(c.output));
        if (name.empty()) name = "VALUE";
        auto it = std::find(features.begin(), features.end(), name);
        const int k = static_cast<int>(it - features.begin());
        if (it == features.end()) {
            features.push_back(name);
            unitSet.push_back(false);
            t.setFeature(k, name);
        }
        // Its unit: lengths to micrometres.
        const std::string unit = Upper(cell(c.units));
        double factor = 1;
        if (c.units >= 0 && !unit.empty()) {
            const bool length = LengthFactor(unit, factor);
            if (!unitSet[k]) {
                t.setUnit(k, length ? "um" : Lower(unit));
                unitSet[k] = true;
            }
        }
        // The field: its column and row, or its number in the grid.
        double dx = 0, dy = 0, n;
        if (c.column >= 0 || c.row >= 0) {
            ParseFileNumber(cell(c.column), dx);
            ParseFileNumber(cell(c.row), dy);
        } else if (ParseFileNumber(cell(c.fieldNum), n) && n >= 1) {
            const long i = std::lround(n) - 1, cols = std::max(1L, columns);
            dx = static_cast<double>(i % cols);
            dy = static_cast<double>(i / cols);
        }
        double x = 0, y = 0;
        ParseFileNumber(cell(c.x), x);
        ParseFileNumber(cell(c.y), y);
        std::snprintf(buf, sizeof buf, "%.3f|%.3f", x, y);
        auto [s, freshSite] = siteOf.emplace(buf, static_cast<int>(siteOf.size()) + 1);
        const long site = s->second;
        if (freshSite) {
            const std::string templ(cell(c.templ));
            t.addSite(site, h.dieSizeXmm, h.dieSizeYmm, x / 1000, y / 1000,
                      FamilyOfFeature(templ, templ.empty() ? h.family : templ));
        }
        const std::string w = c.wafer >= 0 && !cell(c.wafer).empty() ? std::string(cell(c.wafer)) : wafer;
        const long dieX = std::lround(dx), dieY = std::lround(dy);
        auto place = [&](long r) {
            double num;
            if (ParseFileNumber(w, num) && num == std::floor(num) && std::fabs(num) < 2e9)
                t.cell(r, 1) = static_cast<int32_t>(num);
            else
                t.cell(r, 1) = w;
            t.cell(r, 2) = static_cast<int32_t>(site);
            t.cell(r, 3) = static_cast<int32_t>(dieX);
            t.cell(r, 4) = static_cast<int32_t>(dieY);
        };
        if (value <= 0) {
            // A failed output stands alone in the excluded table.
            const long r = t.addRow();
            place(r);
            t.cell(r, 5 + k) = value * factor;
            t.excludeLastRow(in.lineNumber());
            continue;
        }
        key = w;
        key += '|';
        key += std::to_string(dieX);
        key += '|';
        key += std::to_string(dieY);
        key += '|';
        key += buf;
        auto [r, freshRow] = rowOf.emplace(key, 0);
        if (freshRow) {
            r->second = t.addRow();
            place(r->second);
        }
        t.cell(r->second, 5 + k) = value * factor;
    }
    in.close();
    if (t.rows() < 1)
        return failed(headerLine, IncompleteDataText(fs::path(source).filename().string()));

    p.chk = 5;
    h.comment = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName No:" + h.lotName +
                " / Job Plan: " + job + "\r\nLotName: " + h.lotName + "\r\nCarrier: " + carrier;
    h.job = job;
    return FinishImport(p, request, t, h, nullptr);
}

}  // namespace zorv
