// KLA-Tencor ASET F5 ellipsometer reports: header keys, several to a line,
// then a thickness table per material:
//   MACHINE: ASET-F5 #2      EQUIPMENT: F5-02
//   RCP CNT: 12              RECIPE: OX_NIT
//   MEAS SET: LT0077         COLLECTION: 11/23/2026 10:22:15
//   CASSETTE: 1   SLOT: 3   SHIFT: B          (SLOT, or WAFER, names the wafer)
//   MATERIAL: OXIDE
//   SITE #   Field No.   X(mm)   Y(mm)   THICKNESS (A)   GOF   SCD
//   1        1           0.0     0.0     1002.5          0.998 0
//   MEAN  1000.2   STD DEV  3.1              (the material's statistics)
// Each material is a feature, its thickness column the value (the unit
// beside the column name); the materials of a site share its data row.
// Header cells are cut at tabs, commas or two blanks, data cells at blanks.
// "Field No." is the field's column. GOF and SCD are fit diagnostics.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "readers_ocd_film.h"

namespace zorv {

namespace fs = std::filesystem;
using namespace ocd_film;

namespace {

bool IsSiteHead(const std::string& k) { return IsOneOf(k, {"SITE #", "SITE#", "SITE NO.", "SITE NO", "SITE"}); }

constexpr const char* kKeys[] = {"MACHINE", "EQUIPMENT", "RCP CNT", "RECIPE",  "MEAS SET", "COLLECTION",
                                 "CASSETTE", "SLOT",     "WAFER ID", "WAFER",  "SHIFT",    "MATERIAL",
                                 "LOT ID",  "LOT",       "OPERATOR", "DATE",   "TIME"};

// The known keys of a line, each followed by ":" and its value up to the
// next key.
void KeyPairs(std::string_view line, std::vector<std::pair<std::string, std::string>>& out) {
    out.clear();
    const std::string u = Upper(line);
    struct Hit {
        size_t at, valueAt;
        const char* key;
    };
    std::vector<Hit> hits;
    for (const char* k : kKeys) {
        const size_t n = std::char_traits<char>::length(k);
        for (size_t at = u.find(k); at != std::string::npos; at = u.find(k, at + 1)) {
            if (at > 0 && u[at - 1] != ' ' && u[at - 1] != '\t' && u[at - 1] != ',') continue;
            size_t c = at + n;
            while (c < u.size() && (u[c] == ' ' || u[c] == '\t')) ++c;
            if (c >= u.size() || u[c] != ':') continue;
            // "WAFER ID:" is not "WAFER" too, nor "LOT ID:" "LOT".
            bool inside = false;
            for (const Hit& h : hits)
                if (at >= h.at && at < h.valueAt) inside = true;
            if (!inside) hits.push_back({at, c + 1, k});
        }
    }
    std::sort(hits.begin(), hits.end(), [](const Hit& a, const Hit& b) { return a.at < b.at; });
    for (size_t i = 0; i < hits.size(); ++i) {
        const size_t end = i + 1 < hits.size() ? hits[i + 1].at : line.size();
        if (hits[i].valueAt > end) continue;
        std::string value = Trim(line.substr(hits[i].valueAt, end - hits[i].valueAt));
        while (!value.empty() && (value.back() == ',' || value.back() == ';')) value.pop_back();
        out.emplace_back(hits[i].key, Trim(value));
    }
}

// Header cells: at tabs or commas when the line has them, else at two blanks.
void SplitHeader(std::string_view line, std::vector<std::string>& out) {
    const char d = DelimiterOf(line);
    if (d != ' ') {
        SplitFields(line, d, out);
        return;
    }
    out.clear();
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        if (i >= line.size()) break;
        size_t j = i;
        while (j < line.size() && !(line[j] == ' ' && (j + 1 >= line.size() || line[j + 1] == ' '))) ++j;
        out.push_back(Trim(line.substr(i, j - i)));
        i = j;
    }
}

struct Columns {
    int site = -1, field = -1, x = -1, y = -1, thickness = -1;
    char delim = ' ';
    std::string unit;
};

Columns ReadColumns(const std::vector<std::string>& heads, char delim) {
    Columns c;
    c.delim = delim;
    for (int i = 0; i < static_cast<int>(heads.size()); ++i) {
        const std::string k = Key(heads[i]);
        const std::string name = Upper(NameOfHeader(heads[i]));
        if (IsSiteHead(k)) c.site = i;
        else if (IsOneOf(k, {"FIELD NO.", "FIELD NO", "FIELD", "FIELD#", "FIELD #"})) c.field = i;
        else if (name == "X" || name == "XPOS" || name == "X_POS") c.x = i;
        else if (name == "Y" || name == "YPOS" || name == "Y_POS") c.y = i;
        else if (c.thickness < 0 && (name.rfind("THICK", 0) == 0 || name == "THK" || name == "T")) {
            c.thickness = i;
            c.unit = UnitOfHeader(heads[i]);
        }
    }
    return c;
}

}  // namespace

Result<std::string> ImportKLAAsetF5(const ImportRequest& request) {
    Proc p("Import(ImportKLAAsetF5): ");
    p.chk = 1;
    SetStatusText("Importing ASET F5 data ...");
    const std::string& source = request.path;
    ReaderTables t;
    ReaderHeader h;
    h.dataType = "Scatter";
    h.toolName = "KLA ASET F5";
    PointRows points(t);

    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }

    p.chk = 2;
    std::string_view v;
    std::vector<std::pair<std::string, std::string>> pairs;
    std::vector<std::string> f;
    std::string lastLine, wafer = "1", material, machine, equipment, count, measSet, cassette, shift;
    Columns c;
    int feature = -1;
    bool inTable = false, sawHeader = false;
    long rows = 0;
    while (in.readLine(v)) {
        if (in.sawNul()) return BinaryFailure(p, source, in.lineNumber());
        if (IsBlank(v)) continue;
        lastLine.assign(v);
        if (inTable) {
            SplitFields(v, c.delim, f);
            double site;
            if (c.site < static_cast<int>(f.size()) && ParseFileNumber(f[c.site], site)) {
                // 3: a site of the material's table.
                p.chk = 3;
                auto number = [&](int i, double& out) {
                    return i >= 0 && i < static_cast<int>(f.size()) && ParseFileNumber(f[i], out);
                };
                double thick, field = 0, x = 0, y = 0;
                if (!number(c.thickness, thick)) continue;
                number(c.field, field);
                number(c.x, x);
                number(c.y, y);
                const long s = std::max(1L, std::lround(site));
                const long r = points.row(wafer, s, std::lround(field), 0);
                points.set(r, feature, thick);
                points.site(s, PositionMm(x), PositionMm(y), FamilyOfFeature(material, h.family));
                if (RowProgress(++rows)) return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
                continue;
            }
            // "MEAN", "STD DEV", the next material: the table is over.
            inTable = false;
        }
        // 2: the header keys and the material tables' headers.
        p.chk = 2;
        SplitHeader(v, f);
        bool header = false;
        for (const std::string& cell : f)
            if (IsSiteHead(Key(cell))) header = true;
        if (header && f.size() > 1) {
            // 4: a material's table.
            p.chk = 4;
            const char d = DelimiterOf(v);
            c = ReadColumns(f, d);
            if (c.thickness < 0)
                return FileFailure(p, source, in.lineNumber(),
                                   "Header information for measured data not found. Aborting ...");
            if (material.empty()) material = "Film";
            feature = points.feature(material, c.unit);
            inTable = sawHeader = true;
            continue;
        }
        KeyPairs(v, pairs);
        for (const auto& [key, value] : pairs) {
            if (key == "MATERIAL") material = NameOfHeader(value);
            else if (key == "SLOT" || key == "WAFER" || key == "WAFER ID") {
                if (!value.empty()) wafer = value;
            } else if (key == "MACHINE") machine = value;
            else if (key == "EQUIPMENT") equipment = value;
            else if (key == "RCP CNT") count = value;
            else if (key == "RECIPE") h.recipe = value;
            else if (key == "MEAS SET") measSet = value;
            else if (key == "LOT" || key == "LOT ID") h.lotName = value;
            else if (key == "CASSETTE") cassette = value;
            else if (key == "SHIFT") shift = value;
            else if (key == "OPERATOR") h.user = value;
            else if (key == "COLLECTION" && h.date.empty()) {
                // "11/23/2026 10:22:15": the date, then the time.
                const size_t blank = value.find(' ');
                h.date = value.substr(0, blank);
                if (blank != std::string::npos && h.time.empty()) h.time = Trim(value.substr(blank + 1));
            } else if (key == "DATE" && h.date.empty()) h.date = value;
            else if (key == "TIME" && h.time.empty()) h.time = value;
        }
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
    if (h.lotName.empty()) h.lotName = measSet;
    h.system = machine;
    h.comment = h.toolName + "\r\nMachine: " + machine + " / Equipment: " + equipment + "\r\nLotName: " + h.lotName +
                "\r\nRecipe: " + h.recipe + " / Rcp Cnt: " + count + "\r\nCassette: " + cassette +
                " / Shift: " + shift;
    return FinishImport(p, request, t, h, nullptr);
}

}  // namespace zorv
