// The BioRad / Accent overlay family: the Q6 "Res" file, the Questar QDX
// report and the Accent Q200 report. All three are key lines, then a table
// of one row per measured mark under a header line that names its columns;
// one reading loop serves them, each format giving its words.
//
// Res file (ImportBioRadQ6res): "VERSION", "AUTORUN:", "LOT:", "WAFER:",
//   "FIDUCIAL:" (notch), "ARRAY:" (field columns, rows), "SIZE:" (field size,
//   mm), "MISREGISTRATION (nm)" (unit of the results); "---" / "___" rulers;
//   columns SITE, FX, FY (field index), FIELD.X, FIELD.Y (site in the field,
//   mm), MEAS-X, MEAS-Y, Xtis, Ytis, Pass/Fail. A file of bare number rows in
//   that column order has no header at all.
// QDX report (ImportBioRad): "DATA FILE:", "HEADER_LENGTH", "WAFER_SIZE",
//   "SITE_X_ARRAY" / "SITE_Y_ARRAY" and "SITE_STEP_X:" (the site grid, mm),
//   "DIE_STEP_X:" (field pitch, mm), "WAFER NUMBER n" before each wafer;
//   columns "F X" (also F_X, FX, FIELD X), "F Y", SITE, "MEAS X" (also MEAS-X,
//   MEAS_X, MEASX) with its unit in brackets, "MEAS Y", "OK?"; the ANALYSIS
//   block (TRANS, ROTA in URAD, ORTHO, EXPAN, MAG) after each wafer's rows.
// Q200 report (ImportAccentQ200_OL): "SOFTWARE:", "PORT:", "CARRIER:",
//   "LOT:", "WAFER:", "Origin: CENTRE|TOP|BOTTOM" (where site positions are
//   counted from); columns FIELD.X, FIELD.Y (field index), SITE.X, SITE.Y,
//   RESULT.X(nm), RESULT.Y(nm), TIS.X, TIS.Y, MEASURED; a STATISTICS block
//   (MEAN, 3SIGMA) ends the rows.
// The results become features "X" and "Y" in micrometres (the file's unit
// from a bracketed word beside the column or the MISREGISTRATION line;
// without one micrometres, nanometres for the Q200); a row marked failed
// goes to the excluded table.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "lot/features.h"
#include "reader.h"
#include "readers_biorad_asml.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr int kMaxEmptyLines = 10;
constexpr int kSniffLines = 60;
constexpr double kMicronLimit = 500;  // a site position above this is micrometres

using Words = std::vector<std::string>;

// One line split into words, upper case and as written, at the same places.
struct LineWords {
    Words up, raw;
    std::string upLine, rawLine;  // kept between lines, so rows need no new buffers
};

bool IsSep(char c) { return c == ' ' || c == '\t' || c == ',' || c == ';'; }

// Phrases of several words the tools write with blanks ("MEAS X") become one
// word ("MEAS_X"), in both copies of the line, where they stand as words.
void JoinPhrases(std::string& up, std::string& raw, const std::vector<const char*>& phrases) {
    for (const char* ph : phrases) {
        const std::string_view p(ph);
        for (size_t at = up.find(p); at != std::string::npos; at = up.find(p, at + p.size())) {
            const bool startOk = at == 0 || IsSep(up[at - 1]);
            const size_t end = at + p.size();
            const bool endOk = end >= up.size() || IsSep(up[end]) || up[end] == '(' || up[end] == ':';
            if (!startOk || !endOk) continue;
            for (size_t i = at; i < end; ++i)
                if (up[i] == ' ') up[i] = raw[i] = '_';
        }
    }
}

// A line with commas (or tabs) keeps its empty fields, so a blank column
// keeps its place; other lines split at runs of blanks.
void Split(const std::string& s, Words& out) {
    out.clear();
    const char delim = s.find(',') != std::string::npos ? ',' : s.find('\t') != std::string::npos ? '\t' : 0;
    if (delim) {
        size_t i = 0;
        while (true) {
            size_t j = s.find(delim, i);
            out.push_back(Trim(std::string_view(s).substr(i, j == std::string::npos ? std::string::npos : j - i)));
            if (j == std::string::npos) break;
            i = j + 1;
        }
        while (!out.empty() && out.back().empty()) out.pop_back();
        return;
    }
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && IsSep(s[i])) ++i;
        size_t j = i;
        while (j < s.size() && !IsSep(s[j])) ++j;
        if (j > i) out.emplace_back(s, i, j - i);
        i = j;
    }
}

void SplitLine(std::string_view line, const std::vector<const char*>& phrases, LineWords& w) {
    w.rawLine.assign(line);
    w.upLine.assign(line);
    for (char& ch : w.upLine) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    JoinPhrases(w.upLine, w.rawLine, phrases);
    Split(w.upLine, w.up);
    Split(w.rawLine, w.raw);
}

// The word after a key ("LOT: LT1", "LOT LT1", "LOT:LT1"); empty when absent.
std::string After(const LineWords& w, std::initializer_list<const char*> keys, int skip = 0) {
    for (size_t i = 0; i < w.up.size(); ++i)
        for (const char* k : keys) {
            const std::string_view key(k);
            if (w.up[i] == key) {
                size_t v = i + 1 + static_cast<size_t>(skip);
                if (v < w.raw.size() && w.up[v] == ":") ++v;
                return v < w.raw.size() ? w.raw[v] : std::string();
            }
            if (key.back() == ':' && w.up[i].size() > key.size() && w.up[i].compare(0, key.size(), key) == 0 &&
                skip == 0)
                return w.raw[i].substr(key.size());
        }
    return {};
}

double Num(const std::string& s, double fallback) {
    double v;
    return ParseFileNumber(s, v) ? v : fallback;
}

// U/UP/0, D/DOWN/180, R/RIGHT/90, L/LEFT/270; anything else keeps `current`.
std::string NotchWord(std::string_view word, const std::string& current) {
    std::string u = Upper(Trim(word));
    if (u == "U" || u == "UP" || u == "0") return "UP";
    if (u == "D" || u == "DOWN" || u == "180") return "DOWN";
    if (u == "R" || u == "RIGHT" || u == "90") return "RIGHT";
    if (u == "L" || u == "LEFT" || u == "270") return "LEFT";
    return current;
}

// Micrometres per unit of a unit word; 0 for a word that is no length unit.
double MicronsPer(std::string_view unit) {
    std::string u = Upper(Trim(unit));
    if (u == "NM" || u == "NANOMETER" || u == "NANOMETERS") return 0.001;
    if (u == "UM" || u == "MICRON" || u == "MICRONS" || u == "\xC2\xB5M") return 1;
    if (u == "MM") return 1000;
    return 0;
}

// A ruler line: nothing but "-", "_", "=" and blanks.
bool IsRuler(std::string_view s) {
    bool any = false;
    for (char c : s) {
        if (c == '-' || c == '_' || c == '=') any = true;
        else if (!IsSep(c)) return false;
    }
    return any;
}

// The first `count` words are all numbers.
bool LeadingNumbers(const Words& w, size_t count) {
    if (w.size() < count) return false;
    double v;
    for (size_t i = 0; i < count; ++i)
        if (!ParseFileNumber(w[i], v)) return false;
    return true;
}

// Pass words keep a row; fail words send it to the excluded table.
bool FailWord(const std::string& upperWord) {
    static const char* const fails[] = {"FAIL", "FAILED", "F", "NG", "N", "NO", "0", "*", "X", "REJECT", "NOT"};
    for (const char* f : fails)
        if (upperWord == f) return true;
    return false;
}

// ------------------------------------------------------------- the format

struct Columns {
    int wafer = -1, site = -1, fieldX = -1, fieldY = -1, siteX = -1, siteY = -1, measX = -1, measY = -1, ok = -1;
};

// What the key lines set beyond the common header.
struct Extra {
    double unitScale = 0;         // micrometres per file unit; 0: not told
    int gridNx = 0, gridNy = 0;   // site grid of a report without site positions
    double gridStepX = 0, gridStepY = 0;
    std::string origin = "CENTRE";
    std::string notes;            // lines for the comment
};

struct Format {
    const char* tag;
    const char* tool;
    const char* status;
    std::vector<const char*> phrases;
    std::vector<const char*> wafer, site, fieldX, fieldY, siteX, siteY, measX, measY, ok;
    std::vector<const char*> waferKeys;  // a key line that names the wafer of the rows below
    std::vector<const char*> endWords;   // the first word of a block that ends the rows
    double defaultScale = 1;
    bool noHeader = false;               // bare rows in the Res column order
    std::function<void(const LineWords&, const std::string&, ReaderHeader&, Extra&)> keyLine;
};

int Find(const Words& w, const std::vector<const char*>& spellings) {
    for (size_t i = 0; i < w.size(); ++i)
        for (const char* s : spellings)
            if (w[i] == s) return static_cast<int>(i);
    return -1;
}

// The column header: words with their bracketed units taken off; a unit that
// stands as a word of its own belongs to the word before it. The unit of the
// X result is answered.
bool MapColumns(const Format& f, const LineWords& w, Columns& c, std::string& unit) {
    Words names;
    Words units;
    for (const std::string& word : w.up) {
        if (!word.empty() && word.front() == '(' && !names.empty()) {
            units.back() = ExtractUnitsOfMeasure(word);
            continue;
        }
        size_t b = word.find('(');
        names.push_back(b == std::string::npos || b == 0 ? word : word.substr(0, b));
        units.push_back(b == std::string::npos || b == 0 ? std::string() : ExtractUnitsOfMeasure(word));
    }
    Columns n;
    n.measX = Find(names, f.measX);
    n.measY = Find(names, f.measY);
    if (n.measX < 0 || n.measY < 0) return false;
    n.wafer = Find(names, f.wafer);
    n.site = Find(names, f.site);
    n.fieldX = Find(names, f.fieldX);
    n.fieldY = Find(names, f.fieldY);
    n.siteX = Find(names, f.siteX);
    n.siteY = Find(names, f.siteY);
    n.ok = Find(names, f.ok);
    c = n;
    unit = units[static_cast<size_t>(n.measX)];
    return true;
}

// The Res columns of a file without a header line.
Columns NoHeaderColumns(size_t words) {
    Columns c;
    c.site = 0;
    c.fieldX = 1;
    c.fieldY = 2;
    c.siteX = 3;
    c.siteY = 4;
    c.measX = 5;
    c.measY = 6;
    if (words >= 10) c.ok = 9;
    else if (words == 8) c.ok = 7;
    return c;
}

// Site n of a grid of nx by ny sites, row by row from the top, centred (mm).
void GridSite(long n, const Extra& e, double& x, double& y) {
    const int nx = std::max(1, e.gridNx), ny = std::max(1, e.gridNy);
    const long i = (n - 1) % nx, j = ((n - 1) / nx) % ny;
    x = (static_cast<double>(i) - (nx - 1) / 2.0) * e.gridStepX;
    y = ((ny - 1) / 2.0 - static_cast<double>(j)) * e.gridStepY;
}

// Site positions counted from a field corner moved to the field centre: the
// middle of the sites' range becomes 0; from the top, Y runs downwards.
void MoveOrigin(ReaderTables& t, const std::string& origin) {
    if (origin != "TOP" && origin != "BOTTOM") return;
    Datam& s = t.siteTable();
    const int n = t.siteCount();
    if (n < 1) return;
    double lo[2] = {1e300, 1e300}, hi[2] = {-1e300, -1e300};
    for (int r = 1; r <= n; ++r)
        for (int k = 0; k < 2; ++k) {
            const double v = s(r, 4 + k).toDouble();
            lo[k] = std::min(lo[k], v);
            hi[k] = std::max(hi[k], v);
        }
    const double mx = (lo[0] + hi[0]) / 2, my = (lo[1] + hi[1]) / 2;
    for (int r = 1; r <= n; ++r) {
        s(r, 4) = s(r, 4).toDouble() - mx;
        const double y = s(r, 5).toDouble() - my;
        s(r, 5) = origin == "TOP" ? -y : y;
    }
}

// One data row after its wafer: the site (its number, and its place in the
// field in mm), the field indices, the results in micrometres.
void FillRow(ReaderTables& t, long r, const Columns& c, const Words& raw, double x, double scale,
             const ReaderHeader& h, const Extra& e, std::map<std::pair<long, long>, long>& siteOfPlace) {
    static const std::string none;
    auto field = [&](int i) -> const std::string& {
        return i >= 0 && i < static_cast<int>(raw.size()) ? raw[static_cast<size_t>(i)] : none;
    };
    double sx = 0, sy = 0;
    const bool placed = c.siteX >= 0 && c.siteY >= 0 && ParseFileNumber(field(c.siteX), sx) &&
                        ParseFileNumber(field(c.siteY), sy);
    if (placed && (std::fabs(sx) > kMicronLimit || std::fabs(sy) > kMicronLimit)) {
        sx /= 1000;
        sy /= 1000;
    }
    long site = 1;
    if (c.site >= 0) {
        site = std::max(1L, std::lround(Num(field(c.site), 1)));
    } else if (placed) {
        auto key = std::make_pair(std::lround(sx * 1000), std::lround(sy * 1000));
        auto it = siteOfPlace.find(key);
        if (it == siteOfPlace.end()) it = siteOfPlace.emplace(key, static_cast<long>(siteOfPlace.size()) + 1).first;
        site = it->second;
    }
    if (!placed && e.gridStepX != 0) GridSite(site, e, sx, sy);
    if (!t.hasSite(site)) t.addSite(site, h.dieSizeXmm, h.dieSizeYmm, sx, sy, h.family);
    t.cell(r, 2) = static_cast<int32_t>(site);
    t.cell(r, 3) = static_cast<int32_t>(std::lround(Num(field(c.fieldX), 0)));
    t.cell(r, 4) = static_cast<int32_t>(std::lround(Num(field(c.fieldY), 0)));
    t.cell(r, 5) = x;
    double y;
    if (ParseFileNumber(field(c.measY), y)) t.cell(r, 6) = y * scale;
}

// The reading loop all three formats share.
Result<std::string> ReadOverlay(const ImportRequest& request, const Format& f) {
    Proc p(f.tag);
    p.chk = 1;
    const std::string& source = request.path;
    const std::string name = fs::path(source).filename().string();
    auto failed = [&](long line, std::string text) { return FileFailure(p, source, line, std::move(text)); };
    ReaderTables t;
    ReaderHeader h;
    Extra e;
    h.dataType = "Overlay";
    h.toolName = f.tool;
    t.setFeature(0, "X");
    t.setFeature(1, "Y");

    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    if (in.size() > 0) t.reserveRows(static_cast<long>(in.size() / 48) + 16);

    p.chk = 2;
    Columns c;
    bool haveColumns = false, inRows = false;
    if (f.noHeader) haveColumns = inRows = true;
    long headerLine = 0;
    std::string unitWord;
    std::string wafer = "1";
    Value waferValue(static_cast<int32_t>(1));
    std::map<std::pair<long, long>, long> siteOfPlace;  // site number by position (um), without a SITE column
    LineWords w;
    std::string_view v;
    std::string lastLine;
    int empty = 0;
    long dataRows = 0;
    double scale = 0;
    auto setWafer = [&](const std::string& text) {
        wafer = text.empty() ? "1" : text;
        double num;
        waferValue = ParseFileNumber(wafer, num) && num == std::floor(num) && std::fabs(num) < 2e9
                         ? Value(static_cast<int32_t>(num))
                         : Value(wafer);
    };
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (v.find_first_not_of(" \t,;") == std::string_view::npos) {
            if (++empty > kMaxEmptyLines && !haveColumns)
                return failed(in.lineNumber(), "More than 10 empty lines read &  Aborting! ");
            continue;
        }
        empty = 0;
        if (IsRuler(v)) continue;
        lastLine.assign(v);
        SplitLine(v, f.phrases, w);

        // A header line names the columns (again for each wafer, in some files).
        if (!f.noHeader) {
            Columns nc;
            std::string u;
            if (MapColumns(f, w, nc, u)) {
                c = nc;
                haveColumns = inRows = true;
                headerLine = in.lineNumber();
                if (!u.empty()) unitWord = u;
                continue;
            }
        }
        if (f.noHeader && c.measX < 0) c = NoHeaderColumns(w.raw.size());
        if (inRows && Find(w.up, f.endWords) == 0) {
            inRows = false;  // an analysis or statistics block follows
            continue;
        }
        double mx;
        const bool isRow = inRows && c.measX >= 0 && c.measX < static_cast<int>(w.raw.size()) &&
                           ParseFileNumber(w.raw[static_cast<size_t>(c.measX)], mx);
        if (!isRow) {
            // Without a header every line is a row: anything else is no such file.
            if (f.noHeader)
                return failed(in.lineNumber(),
                              "This is not a proper format data sheet.\r\nLast Line: '" + lastLine + "'");
            // A wafer key line starts the rows of a wafer.
            if (int i = Find(w.up, f.waferKeys); i >= 0) {
                std::string next = After(w, {w.up[static_cast<size_t>(i)].c_str()});
                if (!next.empty()) {
                    setWafer(next);
                    inRows = haveColumns;
                }
            }
            if (f.keyLine) f.keyLine(w, lastLine, h, e);
            continue;
        }
        if (scale == 0) {
            scale = MicronsPer(unitWord);
            if (scale == 0) scale = e.unitScale;
            if (scale == 0) scale = f.defaultScale;
            t.setUnit(0, "um");
            t.setUnit(1, "um");
        }
        const long r = t.addRow();
        ++dataRows;
        if ((dataRows % 100) == 0) {
            SetStatusText(f.status + std::to_string(dataRows));
            if (CheckEscKey()) return failed(in.lineNumber(), " Aborting data load...");
        }
        if (c.wafer >= 0 && c.wafer < static_cast<int>(w.raw.size()) && w.raw[static_cast<size_t>(c.wafer)] != wafer)
            setWafer(w.raw[static_cast<size_t>(c.wafer)]);
        t.cell(r, 1) = waferValue;
        FillRow(t, r, c, w.raw, mx * scale, scale, h, e, siteOfPlace);
        if (c.ok >= 0 && c.ok < static_cast<int>(w.up.size()) && FailWord(w.up[static_cast<size_t>(c.ok)]))
            t.excludeLastRow(in.lineNumber());
    }
    in.close();

    p.chk = 3;
    if (!haveColumns) {
        if (in.lineNumber() == 0 || lastLine.empty())
            return failed(0, IncompleteDataText(name));
        return failed(in.lineNumber(), "End of file encountered early.\r\nLast Line: '" + lastLine +
                                           "'\r\nPlease check the import type or data file.");
    }
    if (t.rows() < 1)
        return failed(headerLine > 0 ? headerLine : in.lineNumber(),
                      IncompleteDataText(name));

    MoveOrigin(t, e.origin);
    h.comment = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName No:" + h.lotName +
                " / Job Plan: " + h.job + "\r\nLotName: " + h.lotName + "\r\nSystem: " + h.system +
                "\r\nUser: " + h.user + e.notes;
    return FinishImport(p, request, t, h, nullptr);
}

// Key lines every format may hold.
void CommonKeys(const LineWords& w, ReaderHeader& h) {
    if (std::string s = After(w, {"LOT:", "LOT", "LOT_ID", "LOTID"}); !s.empty()) h.lotName = s;
    if (std::string s = After(w, {"DEVICE:", "DEVICE", "PRODUCT:"}); !s.empty()) h.device = s;
    if (std::string s = After(w, {"LAYER:", "LAYER", "LEVEL:"}); !s.empty()) h.layer = s;
    if (std::string s = After(w, {"RECIPE:", "RECIPE"}); !s.empty()) h.recipe = s;
    if (std::string s = After(w, {"OPERATOR:", "USER:", "USER"}); !s.empty()) h.user = s;
    if (std::string s = After(w, {"DATE:", "DATE"}); !s.empty()) h.date = s;
    if (std::string s = After(w, {"TIME:", "TIME"}); !s.empty()) h.time = s;
    if (h.time.empty()) {
        // "DATE 11/21/2026 08:15:40": the time follows the date.
        std::string s = After(w, {"DATE:", "DATE"}, 1);
        if (s.find(':') != std::string::npos) h.time = s;
    }
}

Format ResFormat() {
    Format f;
    f.tag = "Import(ImportBioRadQ6res): ";
    f.tool = "BioRad 'Res' File";
    f.status = "Data Import Row ";
    f.phrases = {"PASS / FAIL"};
    f.wafer = {"WAFER_ID"};
    f.site = {"SITE", "SITE#", "SITE_NO"};
    f.fieldX = {"FX", "FIELD_X", "COL"};
    f.fieldY = {"FY", "FIELD_Y", "ROW"};
    f.siteX = {"FIELD.X", "XPOS"};
    f.siteY = {"FIELD.Y", "YPOS"};
    f.measX = {"MEAS-X", "MEASX", "MEAS_X", "MISREG-X"};
    f.measY = {"MEAS-Y", "MEASY", "MEAS_Y", "MISREG-Y"};
    f.ok = {"PASS/FAIL", "PASS_/_FAIL", "P/F", "STATUS"};
    f.waferKeys = {"WAFER:", "WAFER", "SLOT:", "SLOT"};
    f.endWords = {"MEAN", "AVERAGE", "3SIGMA", "STATISTICS", "SUMMARY"};
    f.keyLine = [](const LineWords& w, const std::string& line, ReaderHeader& h, Extra& e) {
        CommonKeys(w, h);
        if (std::string s = After(w, {"AUTORUN:", "AUTORUN"}); !s.empty()) h.recipe = s;
        if (std::string s = After(w, {"VERSION:", "VERSION"}); !s.empty()) e.notes += "\r\nVersion: " + s;
        if (Find(w.up, {"FIDUCIAL:", "FIDUCIAL"}) >= 0) {
            for (size_t i = 0; i < w.up.size(); ++i) h.notch = NotchWord(w.up[i], h.notch);
        }
        if (int i = Find(w.up, {"SIZE:", "SIZE"}); i >= 0 && i + 2 < static_cast<int>(w.up.size())) {
            double x = Num(w.up[static_cast<size_t>(i) + 1], 0), y = Num(w.up[static_cast<size_t>(i) + 2], 0);
            if (x > 50) x /= 1000;  // micrometres
            if (y > 50) y /= 1000;
            h.dieSizeXmm = x;
            h.dieSizeYmm = y;
        }
        if (int i = Find(w.up, {"ARRAY:", "ARRAY"}); i >= 0 && i + 2 < static_cast<int>(w.up.size()))
            e.notes += "\r\nArray: " + w.raw[static_cast<size_t>(i) + 1] + " x " + w.raw[static_cast<size_t>(i) + 2];
        if (Find(w.up, {"MISREGISTRATION", "MISREGISTRATION:"}) >= 0) {
            if (line.find('(') != std::string::npos) e.unitScale = MicronsPer(ExtractUnitsOfMeasure(line));
        }
    };
    return f;
}

Format QdxFormat() {
    Format f;
    f.tag = "Import(ImportBioRad): ";
    f.tool = "Accent QDX";
    f.status = "Questar: Data Import Row ";
    f.phrases = {"MEAS X", "MEAS Y", "F X", "F Y", "FIELD X", "FIELD Y", "WAFER NUMBER", "DATA FILE"};
    f.wafer = {"WAFER_ID"};
    f.site = {"SITE", "SITE#"};
    f.fieldX = {"F_X", "FX", "FIELD_X", "FIELDX"};
    f.fieldY = {"F_Y", "FY", "FIELD_Y", "FIELDY"};
    f.siteX = {"SITE_X", "X_SITE"};
    f.siteY = {"SITE_Y", "Y_SITE"};
    f.measX = {"MEAS-X", "MEAS_X", "MEASX"};
    f.measY = {"MEAS-Y", "MEAS_Y", "MEASY"};
    f.ok = {"OK?", "OK"};
    f.waferKeys = {"WAFER_NUMBER", "WAFER_NUMBER:"};
    f.endWords = {"ANALYSIS", "ANALYSIS:", "NORMAL", "GROUP", "AVERAGE", "RAW", "RESIDUAL", "TRANS", "ROTA", "ORTHO",
                  "EXPAN", "MAG"};
    f.keyLine = [](const LineWords& w, const std::string&, ReaderHeader& h, Extra& e) {
        CommonKeys(w, h);
        if (std::string s = After(w, {"DATA_FILE:", "DATA_FILE"}); !s.empty()) e.notes += "\r\nData file: " + s;
        if (std::string s = After(w, {"WAFER_SIZE", "WAFER_SIZE:"}); !s.empty()) {
            double mm = Num(s, 0);
            h.waferSizeMm = mm > 1000 ? mm / 1000 : mm;
        }
        if (std::string s = After(w, {"SITE_X_ARRAY", "SITE_X_ARRAY:"}); !s.empty()) e.gridNx = static_cast<int>(Num(s, 0));
        if (std::string s = After(w, {"SITE_Y_ARRAY", "SITE_Y_ARRAY:"}); !s.empty()) e.gridNy = static_cast<int>(Num(s, 0));
        if (std::string s = After(w, {"SITE_STEP_X:", "SITE_STEP_X"}); !s.empty()) e.gridStepX = Num(s, 0);
        if (std::string s = After(w, {"SITE_STEP_Y:", "SITE_STEP_Y"}); !s.empty()) e.gridStepY = Num(s, 0);
        if (std::string s = After(w, {"DIE_STEP_X:", "DIE_STEP_X"}); !s.empty()) h.dieSizeXmm = Num(s, 0);
        if (std::string s = After(w, {"DIE_STEP_Y:", "DIE_STEP_Y"}); !s.empty()) h.dieSizeYmm = Num(s, 0);
        if (std::fabs(e.gridStepX) > kMicronLimit) e.gridStepX /= 1000;
        if (std::fabs(e.gridStepY) > kMicronLimit) e.gridStepY /= 1000;
        if (h.dieSizeXmm > kMicronLimit) h.dieSizeXmm /= 1000;
        if (h.dieSizeYmm > kMicronLimit) h.dieSizeYmm /= 1000;
    };
    return f;
}

Format Q200Format() {
    Format f;
    f.tag = "Import(ImportAccentQ200_OL): ";
    f.tool = "Accent Q200 ";
    f.status = "Data Import Row ";
    f.phrases = {"PASS / FAIL"};
    f.wafer = {"WAFER", "WAFER_ID", "SLOT"};
    f.site = {"SITE", "SITE#", "SITE.NO"};
    f.fieldX = {"FIELD.X", "FIELD_X"};
    f.fieldY = {"FIELD.Y", "FIELD_Y"};
    f.siteX = {"SITE.X", "SITE_X"};
    f.siteY = {"SITE.Y", "SITE_Y"};
    f.measX = {"RESULT.X", "RESULT_X"};
    f.measY = {"RESULT.Y", "RESULT_Y"};
    f.ok = {"MEASURED", "PASS/FAIL"};
    f.waferKeys = {"WAFER:", "WAFER", "SLOT:", "SLOT"};
    f.endWords = {"STATISTICS", "STATISTICS:", "MEAN", "3SIGMA"};
    f.defaultScale = 0.001;  // the Q200 writes nanometres unless its header says otherwise
    f.keyLine = [](const LineWords& w, const std::string&, ReaderHeader& h, Extra& e) {
        CommonKeys(w, h);
        if (std::string s = After(w, {"SOFTWARE:", "SOFTWARE"}); !s.empty()) e.notes += "\r\nSoftware: " + s;
        if (std::string s = After(w, {"PORT:", "PORT"}); !s.empty()) e.notes += "\r\nPort: " + s;
        if (std::string s = After(w, {"CARRIER:", "CARRIER"}); !s.empty()) h.job = s;
        if (std::string s = Upper(After(w, {"ORIGIN:", "ORIGIN"})); !s.empty()) {
            if (s == "CENTRE" || s == "CENTER") e.origin = "CENTRE";
            else if (s == "TOP" || s == "BOTTOM") e.origin = s;
        }
        if (std::string s = After(w, {"NOTCH:", "NOTCH"}); !s.empty()) h.notch = NotchWord(s, h.notch);
    };
    return f;
}

enum class Kind { Res, ResNoHeader, Qdx, Q200 };

// Which of the family a file is, from its first lines.
Kind Sniff(const std::string& path) {
    TextStream in;
    if (!in.open(path)) return Kind::Res;
    std::string_view v;
    std::string text;
    bool first = true;
    Kind firstNumeric = Kind::Res;
    for (int n = 0; n < kSniffLines && in.readLine(v);) {
        if (in.sawNul()) return Kind::Res;
        if (v.find_first_not_of(" \t,;") == std::string_view::npos) continue;
        ++n;
        std::string up = Upper(v);
        if (first) {
            Words w;
            Split(up, w);
            if (LeadingNumbers(w, 7)) firstNumeric = Kind::ResNoHeader;
            first = false;
        }
        text += up;
        text += '\n';
    }
    if (firstNumeric == Kind::ResNoHeader) return Kind::ResNoHeader;
    auto has = [&](std::initializer_list<const char*> words) {
        for (const char* s : words)
            if (text.find(s) != std::string::npos) return true;
        return false;
    };
    if (has({"AUTORUN", "FIDUCIAL", "MISREGISTRATION", "XTIS", "YTIS"})) return Kind::Res;
    if (has({"RESULT.X", "RESULT.Y", "TIS.X", "SOFTWARE", "CARRIER"})) return Kind::Q200;
    if (has({"DATA FILE", "HEADER_LENGTH", "WAFER NUMBER", "SITE_X_ARRAY", "DIE_STEP_X", "SITE_STEP_X", "OK?"}))
        return Kind::Qdx;
    return Kind::Res;
}

}  // namespace

Result<std::string> ImportBioRadQ6res(const ImportRequest& request) {
    switch (Sniff(request.path)) {
    case Kind::Qdx:
        return ImportBioRad(request);
    case Kind::Q200:
        return ImportAccentQ200_OL(request);
    case Kind::ResNoHeader: {
        Format f = ResFormat();
        f.tag = "Accent Questar NoHeader: ";
        f.noHeader = true;
        return ReadOverlay(request, f);
    }
    case Kind::Res:
        break;
    }
    return ReadOverlay(request, ResFormat());
}

Result<std::string> ImportBioRad(const ImportRequest& request) { return ReadOverlay(request, QdxFormat()); }

Result<std::string> ImportAccentQ200_OL(const ImportRequest& request) { return ReadOverlay(request, Q200Format()); }

}  // namespace zorv
