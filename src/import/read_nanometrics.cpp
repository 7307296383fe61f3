// Nanometrics Nanoline OCD reports, of wafers and of reticles. The file as
// the tool writes it:
//   Title: <text>            Lot ID: <lot>      Film: <stack>   (any order)
//   Wafer ID: <wafer>        (again before each wafer's table)
//   Point#, DieRow, DieCol, X(mm), Y(mm), [Stage X, Stage Y,] [OffW,] <film> (nm), ...
//   1, 2, 3, 1.5, -2.0, ..., 45.2, ...
//   Statistic                (mean, sigma rows of the wafer: passed by)
// One column per film, a scalar each. Commas, tabs or blanks cut the
// fields. A row with OffW set (the point fell off the wafer) is excluded.
// DieNum stands in for the column when a wafer report has no DieCol. The
// reticle report needs DieRow and DieCol; it may carry "Note" lines, which
// go into the comment, and ends a table at "Stat" as well.
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

bool IsPointHead(const std::string& key) { return IsOneOf(key, {"POINT", "POINT#", "POINT #", "POINT NO", "PT#"}); }

struct Columns {
    int point = -1, dieRow = -1, dieCol = -1, dieNum = -1, x = -1, y = -1, wafer = -1, offw = -1;
    double xMmPer = 0, yMmPer = 0;  // 0: by the size of the value
    std::vector<int> films, feature;  // column of each film, and its feature
    size_t needed = 0;               // fields a row must have to hold every role
};

// Millimetres per unit of a position header ("X(mm)", "X (um)"); 0 when it has none.
double MmPer(const std::string& header) {
    std::string u = Upper(UnitOfHeader(header));
    if (u == "MM") return 1;
    if (u == "UM" || u == "MICRON" || u == "MICRONS") return 1e-3;
    if (u == "NM") return 1e-6;
    return 0;
}

Columns ReadColumns(const std::vector<std::string>& heads, ocd_film::PointRows& points) {
    Columns c;
    for (int i = 0; i < static_cast<int>(heads.size()); ++i) {
        const std::string k = Key(heads[i]);
        if (k.empty()) continue;
        if (IsPointHead(k)) c.point = i;
        else if (IsOneOf(k, {"DIEROW", "DIE ROW", "DIE_ROW"})) c.dieRow = i;
        else if (IsOneOf(k, {"DIECOL", "DIE COL", "DIE_COL", "DIECOLUMN", "DIE COLUMN"})) c.dieCol = i;
        else if (IsOneOf(k, {"DIENUM", "DIE NUM", "DIE_NUM", "DIE#"})) c.dieNum = i;
        else if (IsOneOf(k, {"X(MM)", "X (MM)", "DIE X(MM)", "DIE_X(MM)", "DIE X (MM)", "LOCX", "LOC X", "LOC_X",
                             "X", "X(UM)", "X (UM)"})) {
            c.x = i;
            c.xMmPer = MmPer(heads[i]);
        } else if (IsOneOf(k, {"Y(MM)", "Y (MM)", "DIE Y(MM)", "DIE_Y(MM)", "DIE Y (MM)", "LOCY", "LOC Y", "LOC_Y",
                                 "Y", "Y(UM)", "Y (UM)"})) {
            c.y = i;
            c.yMmPer = MmPer(heads[i]);
        } else if (IsOneOf(k, {"WAFERID", "WAFER ID", "WAFER_ID", "WAFER"})) c.wafer = i;
        else if (IsOneOf(k, {"OFFW", "OFF W", "OFF_W"})) c.offw = i;
        else if (k.rfind("STAGE", 0) == 0 || k.rfind("STATISTIC", 0) == 0) continue;
        else {
            c.feature.push_back(points.feature(NameOfHeader(heads[i]), UnitOfHeader(heads[i])));
            c.films.push_back(i);
        }
    }
    for (int i : {c.point, c.dieRow, c.dieCol, c.dieNum, c.x, c.y, c.wafer, c.offw})
        if (i >= 0) c.needed = std::max(c.needed, static_cast<size_t>(i) + 1);
    return c;
}

Result<std::string> ReadNanometrics(const ImportRequest& request, bool reticle) {
    Proc p(reticle ? "Import(ImportNanoMetricsOCDreticle): " : "Import(ImportNanoMetricsOCD): ");
    p.chk = 1;
    const std::string& source = request.path;
    ReaderTables t;
    ReaderHeader h;
    h.dataType = "Scatter";
    h.toolName = "NanolineOCD";
    PointRows points(t);
    auto wrongFormat = [&](long line) { return FileFailure(p, source, line, "Wrong data format."); };

    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    if (in.size() > 0) t.reserveRows(static_cast<long>(in.size() / 64) + 16);

    p.chk = 2;
    std::string_view v;
    std::string key, value, title, film, notes, lastLine, wafer, family;
    std::vector<std::string> f;
    Columns c;
    char delim = ',';
    bool inTable = false, sawHeader = false;
    long rows = 0;
    while (in.readLine(v)) {
        if (in.sawNul()) return BinaryFailure(p, source, in.lineNumber());
        if (IsBlank(v)) continue;
        lastLine.assign(v);
        if (inTable) {
            SplitFields(v, delim, f);
            const std::string first = f.empty() ? std::string() : Key(f[0]);
            if (first.rfind("STATISTIC", 0) == 0 || (reticle && first.rfind("STAT", 0) == 0)) {
                inTable = false;
                continue;
            }
            double point;
            if (!f.empty() && c.point >= 0 && c.point < static_cast<int>(f.size()) && ParseFileNumber(f[c.point], point)) {
                // 3: a data row.
                p.chk = 3;
                if (f.size() < c.needed) {
                    if (reticle) return wrongFormat(in.lineNumber());
                    continue;  // a row cut short
                }
                auto number = [&](int i, double& out) { return i >= 0 && ParseFileNumber(f[i], out); };
                double row = 0, col = 0, x = 0, y = 0;
                if (!number(c.dieRow, row) && reticle) return wrongFormat(in.lineNumber());
                if (!number(c.dieCol, col)) {
                    if (reticle) return wrongFormat(in.lineNumber());
                    number(c.dieNum, col);
                }
                number(c.x, x);
                number(c.y, y);
                bool any = false;
                for (int i : c.films) {
                    double m;
                    if (i < static_cast<int>(f.size()) && ParseFileNumber(f[i], m)) any = true;
                }
                if (!any) continue;
                const std::string w = c.wafer >= 0 && !f[c.wafer].empty() ? f[c.wafer] : wafer;
                const long site = std::max(1L, std::lround(point));
                const long r = points.row(w, site, std::lround(col), std::lround(row));
                for (size_t k = 0; k < c.films.size(); ++k) {
                    double m;
                    if (c.films[k] < static_cast<int>(f.size()) && ParseFileNumber(f[c.films[k]], m))
                        points.set(r, c.feature[k], m);
                }
                points.site(site, c.xMmPer > 0 ? x * c.xMmPer : PositionMm(x),
                            c.yMmPer > 0 ? y * c.yMmPer : PositionMm(y), family);
                ++rows;
                if (c.offw >= 0 && FlagSet(f[c.offw])) points.excludeLast(in.lineNumber());
                if (RowProgress(rows)) return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
                continue;
            }
            // Any other line ends the table: a key line, a new header, the wafer's summary.
            inTable = false;
        }
        // 2: the lines around the tables.
        p.chk = 2;
        char d = DelimiterOf(v);
        SplitFields(v, d, f);
        bool header = false;
        for (const std::string& field : f)
            if (IsPointHead(Key(field))) header = true;
        if (header && f.size() > 1) {
            // 4: a table header; the films are the same columns in every table.
            p.chk = 4;
            c = ReadColumns(f, points);
            delim = d;
            sawHeader = inTable = true;
            if (reticle && c.dieRow < 0) return FileFailure(p, source, in.lineNumber(), "No Die-Row information.");
            if (reticle && c.dieCol < 0) return FileFailure(p, source, in.lineNumber(), "No Die-Column information.");
            if (c.films.empty())
                return FileFailure(p, source, in.lineNumber(),
                                   "Header information for measured data not found. Aborting ...");
            family = h.family;
            for (int k = 0; k < t.featureCount() && family == h.family; ++k)
                family = FamilyOfFeature(t.featureName(k), h.family);
            if (wafer.empty()) wafer = reticle && !h.reticle.empty() ? h.reticle : "1";
            continue;
        }
        const std::string lead = f.empty() ? std::string() : Key(f[0]);
        if (reticle && lead.rfind("NOTE", 0) == 0) {
            const size_t cut = v.find_first_of(":= \t,");
            std::string note = cut == std::string_view::npos ? std::string() : Trim(v.substr(cut + 1));
            if (!note.empty()) notes += "\r\nNote: " + note;
            continue;
        }
        if (!SplitKeyValue(v, key, value)) continue;
        if (key == "TITLE") title = value;
        else if (IsOneOf(key, {"LOTID", "LOT_ID", "LOT ID", "LOT"})) h.lotName = value;
        else if (IsOneOf(key, {"WAFERID", "WAFER_ID", "WAFER ID", "WAFER"})) wafer = value;
        else if (key == "FILM" || key == "FILM STACK") film = value;
        else if (key == "RETICLE" || key == "RETICLE ID" || key == "RETICLEID") h.reticle = value;
        else if (key == "RECIPE") h.recipe = value;
        else if (key == "DEVICE") h.device = value;
        else if (key == "LAYER") h.layer = value;
        else if (key == "OPERATOR" || key == "USER") h.user = value;
        else if (key == "DATE" && h.date.empty()) h.date = value;
        else if (key == "TIME" && h.time.empty()) h.time = value;
    }
    in.close();
    if (!sawHeader) {
        if (reticle) return wrongFormat(in.lineNumber());
        if (in.lineNumber() == 0)
            return FileFailure(p, source, 0,
                               IncompleteDataText(fs::path(source).filename().string()));
        return EarlyEndFailure(p, source, in.lineNumber(), lastLine);
    }
    if (t.rows() < 1 && t.excludedRows() < 1)
        return FileFailure(p, source, in.lineNumber(),
                           IncompleteDataText(fs::path(source).filename().string()));

    // 5: the comment.
    p.chk = 5;
    if (reticle && h.reticle.empty()) h.reticle = title;
    if (h.layer.empty()) h.layer = film;
    h.comment = h.toolName + "\r\nTitle: " + title + "\r\nLotName: " + h.lotName + "\r\nFilm: " + film + notes;
    if (reticle) h.comment += "\r\nReticle: " + h.reticle;
    return FinishImport(p, request, t, h, nullptr);
}

}  // namespace

Result<std::string> ImportNanoMetricsOCD(const ImportRequest& request) { return ReadNanometrics(request, false); }

Result<std::string> ImportNanoMetricsOCDreticle(const ImportRequest& request) {
    return ReadNanometrics(request, true);
}

}  // namespace zorv
