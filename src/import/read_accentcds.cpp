// Accent Optical CDS scatterometry results. Header lines "KEY: value" (or
// "KEY value"): TOOL, OPER, RECIPE, LOT, DEVICE, LAYER, DATE, TIME. Then a
// table, space, tab or comma separated, whose header holds DIEX and DIEY (or
// SITE and FEATURE): WAFER (or SLOT), DIEX, DIEY, SITE, XPOS/XPOSITION and
// YPOS/YPOSITION (the site in the field, um; mm when its unit says so),
// FEATURE (LINE/SPACE, LINE, VIA: the family), DOSE, FOCUS or FOC/SCAN, and
// the modelled values: CD, THK/THICK/HEIGHT, SWA/ANGLE/SLP/SLOPE/ANG,
// PITCH/PTC, MSE/RMSE/%RMSE/%MSE, any other column too. A line starting
// UNITS gives each column's unit, a line starting LIMIT the tolerance limits
// (passed by). Lengths in nm are kept in um; other units as they stand.
#include <algorithm>
#include <cmath>
#include <filesystem>
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
    if (d == ' ') {
        for (size_t i = 0; i < line.size();) {
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
    for (size_t i = 0; i <= line.size(); ++i)
        if (i == line.size() || line[i] == d) {
            out.push_back(TrimView(line.substr(start, i - start)));
            start = i + 1;
        }
}

struct Columns {
    int wafer = -1, dieX = -1, dieY = -1, site = -1, x = -1, y = -1, feature = -1, dose = -1, focus = -1;
    std::vector<int> values;
};

bool IsDataHeader(const std::vector<std::string>& w) {
    return (FindWord(w, {"DIEX", "DIE_X"}) >= 0 && FindWord(w, {"DIEY", "DIE_Y"}) >= 0) ||
           (FindWord(w, {"SITE"}) >= 0 && FindWord(w, {"FEATURE"}) >= 0);
}

// A unit word as a factor to micrometres for lengths; 1 and false otherwise.
bool LengthFactor(const std::string& u, double& f) {
    f = 1;
    if (u == "NM") f = 0.001;
    else if (u == "A" || u == "ANG" || u == "ANGSTROM") f = 0.0001;
    else if (u == "MM") f = 1000;
    else if (u != "UM" && u != "MICRON" && u != "MICRONS") return false;
    return true;
}

}  // namespace

Result<std::string> ImportAccentCDS(const ImportRequest& request) {
    Proc p("Import(ImportAccentCDS): ");
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
    FieldExposures fields;
    h.toolName = "Accent CDS";
    h.dataType = "Scatter";
    if (in.size() > 0) t.reserveRows(static_cast<long>(in.size() / 80) + 16);

    // 2: header lines up to the table's header.
    p.chk = 2;
    std::string_view v;
    std::vector<std::string_view> f;
    std::vector<std::string> heads;
    std::string lastLine, wafer = "1";
    int empty = 0;
    bool haveTable = false;
    while (in.readLine(v)) {
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
        if (IsDataHeader(heads)) {
            haveTable = true;
            break;
        }
        size_t cut = s.find_first_of(":=\t,");
        if (cut == std::string_view::npos) cut = s.find(' ');
        if (cut == std::string_view::npos) continue;
        const std::string key = Upper(TrimView(s.substr(0, cut)));
        std::string value(TrimView(s.substr(cut + 1)));
        if (key == "TOOL") h.system = value;
        else if (key == "OPER" || key == "OPERATOR") h.user = value;
        else if (key == "RECIPE") h.recipe = value;
        else if (key == "LOT" || key == "LOTID" || key == "LOT_ID") h.lotName = value;
        else if (key == "DEVICE" || key == "PRODUCT") h.device = value;
        else if (key == "LAYER") h.layer = value;
        else if (key == "WAFER" || key == "SLOT") wafer = value;
        else if (key == "DATE") {
            const size_t sp = value.find(' ');
            h.date = value.substr(0, sp);
            if (sp != std::string::npos && h.time.empty()) h.time = std::string(TrimView(std::string_view(value).substr(sp)));
        } else if (key == "TIME") h.time = value;
    }
    if (!haveTable) {
        if (in.lineNumber() == 0)
            return failed(0, IncompleteDataText(fs::path(source).filename().string()));
        return failed(in.lineNumber(), "End of file encountered early.\r\nLast Line: '" + lastLine +
                                           "'\r\nPlease check the import type or data file.");
    }

    // 3: the columns; a site needs its place in the field.
    p.chk = 3;
    const long headerLine = in.lineNumber();
    Columns c;
    c.wafer = FindWord(heads, {"WAFER", "WAFERID", "WAFER_ID", "SLOT"});
    c.dieX = FindWord(heads, {"DIEX", "DIE_X"});
    c.dieY = FindWord(heads, {"DIEY", "DIE_Y"});
    c.site = FindWord(heads, {"SITE"});
    c.x = FindWord(heads, {"XPOS", "XPOSITION", "X_POS"});
    c.y = FindWord(heads, {"YPOS", "YPOSITION", "Y_POS"});
    c.feature = FindWord(heads, {"FEATURE"});
    c.dose = FindWord(heads, {"DOSE"});
    c.focus = FindWord(heads, {"FOCUS", "FOC/SCAN"});
    if (c.x < 0 || c.y < 0) return failed(headerLine, "No feature position information in data file. Aborting ...");
    for (int i = 0; i < static_cast<int>(heads.size()); ++i) {
        if (i == c.wafer || i == c.dieX || i == c.dieY || i == c.site || i == c.x || i == c.y || i == c.feature ||
            i == c.dose || i == c.focus || heads[i].empty() || heads[i] == "_")
            continue;
        // Text columns some recipes add.
        if (FindWord({heads[i]}, {"NOTE", "NOTES", "COMMENT", "COMMENTS", "STATUS", "DATE", "TIME", "LOT", "TOOL"}) >= 0)
            continue;
        c.values.push_back(i);
    }
    if (c.values.empty()) return failed(headerLine, "Header information for measured data not found. Aborting ...");
    // The names as the file spells them: the header line again, not in upper case.
    SplitRow(TrimView(lastLine), f);
    for (size_t k = 0; k < c.values.size(); ++k) t.setFeature(static_cast<int>(k), std::string(f[c.values[k]]));

    // 4: the lines.
    p.chk = 4;
    std::vector<double> factor(heads.size(), 1.0);
    double placeFactor[2] = {1, 1};
    std::vector<std::pair<double, double>> places;  // sites without a number
    long rows = 0;
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        std::string_view s = TrimView(v);
        if (s.empty()) continue;
        SplitRow(s, f);
        auto cell = [&](int i) { return i >= 0 && i < static_cast<int>(f.size()) ? f[i] : std::string_view(); };
        const std::string first = Upper(f[0]);
        if (first == "UNITS" || first == "UNIT") {
            // Units below their columns; the first cell is the word itself.
            for (size_t k = 0; k < c.values.size(); ++k) {
                const std::string u = Upper(cell(c.values[k]));
                double fa;
                const bool length = LengthFactor(u, fa);
                factor[c.values[k]] = fa;
                if (length) t.setUnit(static_cast<int>(k), "um");
                else if (!u.empty() && u != "-" && u != "_") t.setUnit(static_cast<int>(k), Lower(u));
            }
            double fa;
            if (LengthFactor(Upper(cell(c.x)), fa)) placeFactor[0] = fa;
            if (LengthFactor(Upper(cell(c.y)), fa)) placeFactor[1] = fa;
            continue;
        }
        if (first == "LIMIT" || first == "LIMITS") continue;
        double x, y;
        if (!ParseFileNumber(cell(c.x), x) || !ParseFileNumber(cell(c.y), y)) continue;
        double m;
        bool any = false;
        for (int i : c.values)
            if (ParseFileNumber(cell(i), m)) any = true;
        if (!any) continue;
        const long r = t.addRow();
        if ((++rows % 100) == 0) {
            SetStatusText("Data Import Row " + std::to_string(rows));
            if (CheckEscKey()) return failed(in.lineNumber(), " Aborting data load...");
        }
        const std::string w = c.wafer >= 0 && !cell(c.wafer).empty() ? std::string(cell(c.wafer)) : wafer;
        double num;
        std::string waferKey = w;  // the Layout sheet's wafer: "07" is wafer 7
        if (ParseFileNumber(w, num) && num == std::floor(num) && std::fabs(num) < 2e9) {
            t.cell(r, 1) = static_cast<int32_t>(num);
            waferKey = std::to_string(static_cast<int32_t>(num));
        } else {
            t.cell(r, 1) = w;
        }
        x *= placeFactor[0];
        y *= placeFactor[1];
        // The site: its number, or its place when the file numbers none.
        long site = 0;
        if (ParseFileNumber(cell(c.site), num) && num >= 1) {
            site = std::lround(num);
        } else {
            auto it = std::find(places.begin(), places.end(), std::make_pair(x, y));
            site = static_cast<long>(it - places.begin()) + 1;
            if (it == places.end()) places.emplace_back(x, y);
        }
        double dx = 0, dy = 0;
        ParseFileNumber(cell(c.dieX), dx);
        ParseFileNumber(cell(c.dieY), dy);
        t.cell(r, 2) = static_cast<int32_t>(site);
        t.cell(r, 3) = static_cast<int32_t>(std::lround(dx));
        t.cell(r, 4) = static_cast<int32_t>(std::lround(dy));
        if (!t.hasSite(site)) {
            const std::string feature(cell(c.feature));
            t.addSite(site, 0, 0, x / 1000, y / 1000, FamilyOfFeature(feature, feature.empty() ? h.family : feature));
        }
        for (size_t k = 0; k < c.values.size(); ++k)
            if (ParseFileNumber(cell(c.values[k]), m)) t.cell(r, 5 + static_cast<int>(k)) = m * factor[c.values[k]];
        if (c.dose >= 0 || c.focus >= 0) {
            double focus = 0, dose = 0;
            ParseFileNumber(cell(c.focus), focus);
            ParseFileNumber(cell(c.dose), dose);
            fields.note(waferKey, std::lround(dx), std::lround(dy), focus, dose);
        }
    }
    in.close();
    if (t.rows() < 1)
        return failed(headerLine, IncompleteDataText(fs::path(source).filename().string()));

    p.chk = 5;
    h.comment = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName: " + h.lotName +
                "\r\nRecipe: " + h.recipe + "\r\nSystem: " + h.system + "\r\nUser: " + h.user;
    return FinishImport(p, request, t, h, &fields);
}

}  // namespace zorv
