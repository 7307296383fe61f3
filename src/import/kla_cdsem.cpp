// The KLA 8xxx CD-SEM report: a header pair of names and values, then a
// table of fixed columns whose positions its header line gives.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "reader.h"
#include "readers.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr int kMaxEmptyLines = 10;
constexpr int kMaxHeaderPairs = 40;

// The columns of the data table, by name; -1 when the file has none.
struct Columns {
    int wafer = -1, cassette = -1, station = -1, slot = -1, column = -1, row = -1, focus = -1, exposure = -1,
        exposure3 = -1, waferX = -1, waferY = -1, field = -1, siteName = -1, site = -1, siteX = -1, siteY = -1,
        feature = -1, repeat = -1, date = -1, time = -1, firstMeas = -1, lastMeas = -1;
};

// Names that end the measured columns when no IMAGE_PATH does.
bool IsTrailerColumn(const std::string& w) {
    return w == "IMAGE_PATH" || w == "DATE" || w == "TIME" || w == "IMAGE" || w == "COMMENT";
}

// The notch word of the header: U/UP/0, D/DOWN/180, R/RIGHT/90, L/LEFT/270.
std::string NotchWord(std::string_view word, const std::string& current) {
    std::string u = Upper(Trim(word));
    if (u == "U" || u == "UP" || u == "0") return "UP";
    if (u == "D" || u == "DOWN" || u == "180") return "DOWN";
    if (u == "R" || u == "RIGHT" || u == "90") return "RIGHT";
    if (u == "L" || u == "LEFT" || u == "270") return "LEFT";
    return current;
}

// Whether a line needs the replacements at all: most data lines do not.
bool NeedsReplacements(std::string_view s) {
    for (size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (c == '\t' || c == ',' || c == '(') return true;
        if (c == ' ' && i + 2 < s.size() && (s[i + 1] == 'P' || s[i + 1] == 'A') && s[i + 2] == 'M') return true;
    }
    return false;
}

// The file with every lone CR made CR LF, written beside the source as
// "Zorv" + its name. Fails when it cannot be written.
Status RewriteMacFile(Proc& p, const std::string& path, std::string& out) {
    SetStatusText("Converting file from MAC to DOS format ...");
    fs::path src(path);
    out = (src.parent_path() / ("Zorv" + src.filename().string())).string();
    std::ifstream in(path, std::ios::binary);
    std::ofstream os(out, std::ios::binary | std::ios::trunc);
    if (!in || !os) return FileFailure(p, out, 0, "Cannot write the converted file: " + out);
    std::vector<char> buf(1 << 20);
    std::string w;
    bool pendingCR = false;
    while (in) {
        in.read(buf.data(), static_cast<std::streamsize>(buf.size()));
        std::streamsize n = in.gcount();
        w.clear();
        for (std::streamsize i = 0; i < n; ++i) {
            char c = buf[static_cast<size_t>(i)];
            if (pendingCR) {
                w += "\r\n";
                pendingCR = false;
                if (c == '\n') continue;
            }
            if (c == '\r') pendingCR = true;
            else w += c;
        }
        os.write(w.data(), static_cast<std::streamsize>(w.size()));
    }
    if (pendingCR) os.write("\r\n", 2);
    os.close();
    if (!os) {
        std::error_code ec;
        fs::remove(out, ec);
        return FileFailure(p, out, 0, "Cannot write the converted file: " + out);
    }
    return StatusOk();
}

// The values of the file header pair by exact name.
struct HeaderPairs {
    std::vector<std::string> names, values;
    std::string get(std::initializer_list<const char*> keys) const {
        for (const char* k : keys)
            for (size_t i = 0; i < names.size(); ++i)
                if (names[i] == k) return i < values.size() ? values[i] : std::string();
        return {};
    }
};

double NumberOr(const std::string& s, double fallback) {
    double v;
    return ParseFileNumber(s, v) ? v : fallback;
}

}  // namespace

Result<std::string> ImportKLACDsem(const ImportRequest& request) {
    Proc p("Import(ImportKLACDsem): ");
    p.chk = 1;
    char decimal = '.', thousands = ',';
    GetRegionalSeparators(decimal, thousands);
    ReaderTables t;
    ReaderHeader h;
    FieldExposures fields;
    h.dataType = "CDsem";
    const std::string& source = request.path;
    std::string readPath = source;
    std::string converted;  // the "Zorv" copy of a Macintosh file
    auto failed = [&](long line, std::string text) {
        if (!converted.empty()) {
            std::error_code ec;
            fs::remove(converted, ec);
        }
        return FileFailure(p, source, line, std::move(text));
    };

    TextStream in;
    if (Status s = in.open(readPath); !s) {
        p.quiet();
        return s.failure();
    }
    if (in.size() > 0) t.reserveRows(static_cast<long>(in.size() / 96) + 16);

    // 2 to 7: the lines before the data.
    p.chk = 2;
    HeaderPairs pairs;
    std::vector<std::string> heads;  // data header words, upper case
    std::vector<int> starts;         // and where they start
    std::string line, lastLine;
    std::string_view v;
    int empty = 0;
    bool haveData = false;
    while (!haveData) {
        if (!in.readLine(v)) break;
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (in.sawLoneCR() && converted.empty()) {
            // 3: a file from a Macintosh is rewritten and read again from the top.
            p.chk = 3;
            if (Status s = RewriteMacFile(p, source, converted); !s) return s.failure();
            in.close();
            if (Status s = in.open(converted); !s) {
                p.quiet();
                return failed(0, s.failure().text);
            }
            readPath = converted;
            empty = 0;
            pairs = HeaderPairs();
            continue;
        }
        if (v.empty() || v.find_first_not_of(" \t") == std::string_view::npos) {
            if (++empty > kMaxEmptyLines) return failed(in.lineNumber(), "More than 10 empty lines read &  Aborting! ");
            continue;
        }
        empty = 0;
        line.assign(v);
        ReaderLineReplacements(line);
        lastLine = line;
        std::string upper = Upper(line);
        size_t beam = upper.find("BEAM_FILE");
        if (beam != std::string::npos && beam > 0) {
            // 4: names on this line, values on the next.
            p.chk = 4;
            pairs.names.clear();
            pairs.values.clear();
            std::string delim = " ";
            std::vector<std::string> words;
            TokeniseLine(upper, delim, words);
            pairs.names = words;
            if (!in.readLine(v)) return failed(in.lineNumber(), "End of file encountered early.\r\nLast Line: '" + lastLine + "'");
            line.assign(v);
            ReaderLineReplacements(line);
            delim = " ";
            TokeniseLine(line, delim, words);
            pairs.values = words;
            if (pairs.names.size() > kMaxHeaderPairs) pairs.names.resize(kMaxHeaderPairs);
            continue;
        }
        if (upper.find("X_SITE_LOC") != std::string::npos || upper.find("FEATURE") != std::string::npos) {
            // 7: the data header, each word with the place it starts.
            p.chk = 7;
            for (size_t i = 0; i < upper.size();) {
                while (i < upper.size() && upper[i] == ' ') ++i;
                if (i >= upper.size()) break;
                size_t j = i;
                while (j < upper.size() && upper[j] != ' ') ++j;
                heads.push_back(upper.substr(i, j - i));
                starts.push_back(static_cast<int>(i));
                i = j;
            }
            haveData = true;
        }
    }
    if (!haveData) {
        if (in.lineNumber() == 0)
            return failed(0, IncompleteDataText(fs::path(source).filename().string()));
        return failed(in.lineNumber(), "End of file encountered early.\r\nLast Line: '" + lastLine +
                                           "'\r\nPlease check the import type or data file.");
    }

    // 5, 6: what the header pair tells.
    p.chk = 5;
    h.device = pairs.get({"DEVICE", "PROCESS_DEVICE"});
    h.layer = pairs.get({"LAYER"});
    h.job = pairs.get({"JOB"});
    h.lotName = pairs.get({"LOT"});
    h.system = pairs.get({"SYSTEM_ID"});
    h.recipe = pairs.get({"BEAM_FILE"});
    h.date = pairs.get({"DATE"});
    h.time = Replace(pairs.get({"TIME"}), "_", " ");
    h.notch = NotchWord(pairs.get({"ORIENTATION_OF_NOTCH"}), h.notch);
    double stepX = NumberOr(pairs.get({"X_STEP_SIZE"}), 0), stepY = NumberOr(pairs.get({"Y_STEP_SIZE"}), 0);
    const bool stepGiven = stepX != 0 && stepY != 0;
    // A step of 0 stands for 10 mm until the sites give the field size.
    if (stepX == 0) stepX = 10000;
    if (stepY == 0) stepY = 10000;

    // 8: the columns.
    p.chk = 8;
    Columns c;
    auto col = [&](std::initializer_list<const char*> names) { return FindWord(heads, names); };
    c.wafer = col({"WAFER_ID", "WAFER"});
    c.cassette = col({"CASSETTE_ID"});
    c.station = col({"CASSETTE_STATION"});
    c.slot = col({"SLOT"});
    c.column = col({"COLUMN"});
    c.row = col({"ROW"});
    c.focus = col({"FOCUS"});
    c.exposure = col({"EXPOSURE"});
    c.waferX = col({"X_WAFER_LOC"});
    c.waferY = col({"Y_WAFER_LOC"});
    c.field = col({"FIELD", "FLD"});
    c.siteName = col({"SITE_NAME"});
    c.site = col({"SITE"});
    c.siteX = col({"X_SITE_LOC"});
    c.siteY = col({"Y_SITE_LOC"});
    c.feature = col({"FEATURE"});
    c.repeat = col({"REPEAT"});
    c.firstMeas = col({"MEAS", "MEAS_1", "MEASURE", "MEASURE_1"});
    if (c.firstMeas < 0)
        return failed(in.lineNumber(), "Header information for measured data not found. Aborting ...");
    c.lastMeas = static_cast<int>(heads.size()) - 1;
    for (int i = c.firstMeas + 1; i < static_cast<int>(heads.size()); ++i)
        if (IsTrailerColumn(heads[i])) {
            c.lastMeas = i - 1;
            break;
        }
    for (int i = c.lastMeas + 1; i < static_cast<int>(heads.size()); ++i) {
        if (heads[i] == "DATE" && c.date < 0) c.date = i;
        if (heads[i] == "TIME" && c.time < 0) c.time = i;
    }
    if (c.wafer < 0) c.wafer = c.slot;
    const int nMeas = c.lastMeas - c.firstMeas + 1;
    for (int k = 0; k < nMeas; ++k) t.setFeature(k, heads[c.firstMeas + k]);
    // A third exposure column, as some recipes write one.
    for (int i = 0; i < static_cast<int>(heads.size()); ++i)
        if (i != c.exposure && heads[i].rfind("EXPOSURE", 0) == 0) {
            c.exposure3 = i;
            break;
        }

    // 9 to 14: the data lines.
    p.chk = 9;
    std::vector<std::string_view> f;
    f.reserve(heads.size());
    std::string waferText;
    Value waferValue;
    std::string firstDate, firstTime, lastDate, lastTime;
    long dataRows = 0;
    const long headerLine = in.lineNumber();
    std::string row;
    empty = 0;
    while (in.readLine(v)) {
        if (v.empty() || v.find_first_not_of(" \t") == std::string_view::npos) {
            if (++empty > kMaxEmptyLines) return failed(in.lineNumber(), "More than 10 empty lines read &  Aborting! ");
            continue;
        }
        empty = 0;
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        std::string_view s = v;
        if (NeedsReplacements(v)) {
            row.assign(v);
            ReaderLineReplacements(row);
            s = row;
        }
        CutFixed(s, starts, f);
        auto field = [&](int i) -> std::string_view { return i >= 0 && i < static_cast<int>(f.size()) ? f[i] : std::string_view(); };
        double first;
        if (!ParseFileNumber(field(c.firstMeas), first)) continue;  // no measurement in this row

        const long r = t.addRow();
        ++dataRows;
        if ((dataRows % 100) == 0) {
            SetStatusText("Data Import Row " + std::to_string(dataRows));
            if (CheckEscKey()) return failed(in.lineNumber(), " Aborting data load...");
        }
        if (c.time >= 0) {
            std::string_view d = field(c.date), tm = field(c.time);
            if (dataRows == 1) {
                firstDate.assign(d);
                firstTime.assign(tm);
            } else {
                lastDate.assign(d);
                lastTime.assign(tm);
            }
        }
        // 10: the indices of the row.
        std::string_view w = field(c.wafer);
        if (w.empty()) w = "1";
        if (w != waferText) {
            waferText.assign(w);
            double num;
            waferValue = ParseFileNumber(w, num) && num == std::floor(num) && std::fabs(num) < 2e9
                             ? Value(static_cast<int32_t>(num))
                             : Value(w);
        }
        t.cell(r, 1) = waferValue;
        double test = 1, dx = 0, dy = 0;
        if (ParseFileNumber(field(c.site), test)) test = std::max(1.0, std::floor(test));
        else test = 1;
        ParseFileNumber(field(c.column), dx);
        ParseFileNumber(field(c.row), dy);
        const long site = static_cast<long>(test), dieX = std::lround(dx), dieY = std::lround(dy);
        t.cell(r, 2) = static_cast<int32_t>(site);
        t.cell(r, 3) = static_cast<int32_t>(dieX);
        t.cell(r, 4) = static_cast<int32_t>(dieY);

        // 11: a new site.
        if (!t.hasSite(site)) {
            double sx = 0, sy = 0;
            ParseFileNumber(field(c.siteX), sx);
            ParseFileNumber(field(c.siteY), sy);
            std::string feature(field(c.feature));
            std::string family = FamilyOfFeature(feature, feature.empty() ? h.family : feature);
            t.addSite(site, stepX / 1000, stepY / 1000, sx / 1000, sy / 1000, family);
        }

        // 12: the measurements; nanometres above 1, micrometres below.
        bool valid = true;
        for (int k = 0; k < nMeas; ++k) {
            double m;
            if (!ParseFileNumber(field(c.firstMeas + k), m)) continue;
            if (m <= 0) valid = false;  // the tool's mark of a failed measurement
            t.cell(r, 5 + k) = m >= 1 ? m / 1000 : m;
        }

        // 13: the field's exposure.
        if (c.focus >= 0 || c.exposure >= 0) {
            double focus = 0, dose = 0;
            ParseFileNumber(field(c.focus), focus);
            if (!ParseFileNumber(field(c.exposure), dose)) ParseFileNumber(field(c.exposure3), dose);
            fields.note(waferText, dieX, dieY, focus, dose);
        }
        if (!valid) t.excludeLastRow(in.lineNumber());
    }
    in.close();
    if (t.rows() < 1) {
        std::string name = fs::path(source).filename().string();
        return failed(headerLine, IncompleteDataText(name));
    }

    // 15: the field size, the tool name.
    p.chk = 15;
    h.dieSizeXmm = stepGiven ? stepX / 1000 : 0;  // 0: from the sites
    h.dieSizeYmm = stepGiven ? stepY / 1000 : 0;
    if (h.toolName.size() < 5) h.toolName = "KLA CD-sem 8xxx";
    if (!firstDate.empty()) h.date = firstDate;
    if (!firstTime.empty()) h.time = Replace(firstTime, "_", " ");

    // 16: the comment.
    p.chk = 16;
    h.comment = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName No:" + h.lotName +
                " / Job Plan: " + h.job + "\r\nLotName: " + h.lotName + "\r\nSystem: " + h.system +
                "\r\nUser: " + h.user;
    if (!lastTime.empty()) h.comment += "\r\nLast measure: " + lastDate + " " + Replace(lastTime, "_", " ");
    Result<std::string> saved = FinishImport(p, request, t, h, &fields);
    if (!saved && !converted.empty()) {
        std::error_code ec;
        fs::remove(converted, ec);
    }
    return saved;
}

}  // namespace zorv
