// The KLA Archer overlay export, its Zspin focus files and its AIM statistics.
//
// What the reader expects of an Archer export: title lines and "Name: value"
// lines (Lot ID, Recipe, Tool, Lot Start Time, X Die Size or DieSizeX and Y,
// Array Columns or Array_X and rows, Units), then a table with a header row,
// tab or comma separated, that holds a misregistration X and Y column ("MReg
// X(nm)", "MReg X(um)", "MRegX", "Misreg X"; a unit in brackets is the unit of
// the values, else nm). Further columns, by name in any order: Wafer,
// TestNumber, Wafer Column(X) and Wafer Row(Y) or Field_XPos and Y (field
// indices), Xf(Field Coord) or Element X or Target X (the site in the field),
// Xw(Wafer Coord) (the site on the wafer: gives the field when no index
// column does), Pass/Fail or P/F, Flyer Flag. A row marked failed, or a
// flyer, goes to "Excluded".
//
// The AIM statistics file: "Program", "Wafers", "Array Columns", "Pitch:"
// lines, then a table of one row per test: Test ID, Die_X, Die_Y, site X
// and Y, and the mean misregistration "Mis X"/"MReg X" and Y; columns of
// spread (3 sigma, range) are left.
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "read_kla_overlay_common.h"
#include "reader.h"
#include "readers_kla_overlay.h"

namespace zorv {

namespace fs = std::filesystem;
using namespace overlay;

namespace {

constexpr const char* kZspinDescription = "KLA ZspinFocus";

struct ArcherColumns {
    int wafer = -1, site = -1, dieX = -1, dieY = -1, siteX = -1, siteY = -1, waferX = -1, waferY = -1, x = -1,
        y = -1, pass = -1, flyer = -1;
    int width = 0;
    std::string unit;
};

ArcherColumns FindArcherColumns(const std::vector<std::string_view>& fields) {
    ArcherColumns c;
    std::vector<std::string> keys(fields.size());
    std::vector<std::string> units(fields.size());
    for (size_t i = 0; i < fields.size(); ++i) keys[i] = HeadingKey(fields[i], &units[i]);
    c.x = FindKey(keys, {"MREGX", "MISREGX", "MISREGISTRATIONX", "MREG(X)", "MISREG(X)"});
    c.y = FindKey(keys, {"MREGY", "MISREGY", "MISREGISTRATIONY", "MREG(Y)", "MISREG(Y)"});
    if (c.x < 0 || c.y < 0) return c;
    c.unit = units[c.x];
    c.wafer = FindKey(keys, {"WAFER", "WAFERID", "WAFERNO", "WAFER#", "SLOT", "SLOTID", "WAFERSLOT"});
    c.site = FindKey(keys, {"TESTNUMBER", "TESTNO", "TEST#", "TEST", "SITE", "SITENUMBER"});
    c.dieX = FindKey(keys, {"WAFERCOLUMN(X)", "WAFERCOLUMN", "WAFERCOL(X)", "WAFERCOL", "COLUMN(X)", "FIELDXPOS",
                            "FIELDX", "COLUMN", "COL"});
    c.dieY = FindKey(keys, {"WAFERROW(Y)", "WAFERROW", "ROW(Y)", "FIELDYPOS", "FIELDY", "ROW"});
    c.siteX = FindKey(keys, {"XF(FIELDCOORD)", "XF", "XFIELDCOORD", "ELEMENTX", "TARGETX", "SITEX"});
    c.siteY = FindKey(keys, {"YF(FIELDCOORD)", "YF", "YFIELDCOORD", "ELEMENTY", "TARGETY", "SITEY"});
    c.waferX = FindKey(keys, {"XW(WAFERCOORD)", "XW", "XWAFERCOORD", "WAFERX"});
    c.waferY = FindKey(keys, {"YW(WAFERCOORD)", "YW", "YWAFERCOORD", "WAFERY"});
    c.pass = FindKey(keys, {"PASS/FAIL", "P/F", "PASSFAIL"});
    c.flyer = FindKey(keys, {"FLYERFLAG", "FLYER"});
    c.width = static_cast<int>(fields.size());
    return c;
}

// The statistics file's header row: a test id and a misregistration.
bool IsStatisticsHeader(const std::vector<std::string_view>& fields) {
    std::vector<std::string> keys;
    for (std::string_view f : fields) keys.push_back(HeadingKey(f));
    return FindKey(keys, {"TESTID"}) >= 0 && FindKey(keys, {"MISX", "MREGX"}) >= 0;
}

// "P", "PASS" pass; "F", "FAIL", "FAILED" fail; anything else passes.
bool MarkedFailed(std::string_view v) {
    std::string u = Upper(v);
    return u == "F" || u == "FAIL" || u == "FAILED" || u == "FALSE";
}

// A flyer flag is set when it holds anything but a blank, 0 or a no.
bool FlyerSet(std::string_view v) {
    std::string u = Upper(v);
    return !(u.empty() || u == "0" || u == "N" || u == "NO" || u == "FALSE" || u == "_" || u == "-");
}

// Utility(ZspinKLAarcher): a Zspin focus file is an Archer export whose
// misregistrations are the focus marks' offsets. They are kept as measured:
// the conversion to focus belongs to the calibration, not to the import.
// Called before the rows, so that the sites take the family.
void ZspinKLAarcher(ReaderHeader& h) {
    h.dataType = "Focus";
    h.family = "Zspin";
}
constexpr const char* kZspinComment = "Zspin original offset format";

// The header lines both files share.
void ArcherHeaderLine(std::string_view line, ReaderHeader& h, std::string& unit, std::string& array) {
    std::string key, value;
    if (!NameValue(line, key, value) || value.empty()) return;
    double v = 0;
    if (key == "LOTID" || key == "LOT") h.lotName = value;
    else if (key == "RECIPE" || key == "RECIPENAME" || key == "PROGRAM") h.recipe = value;
    else if (key == "TOOL" || key == "TOOLID" || key == "SYSTEM") h.system = value;
    else if (key == "DEVICE" || key == "PRODUCT") h.device = value;
    else if (key == "LAYER") h.layer = value;
    else if (key == "OPERATOR" || key == "USER") h.user = value;
    else if (key == "LOTSTARTTIME" || key == "DATE") {
        const size_t sp = value.find(' ');
        h.date = value.substr(0, sp);
        if (sp != std::string::npos) h.time = Trim(value.substr(sp + 1));
    } else if ((key == "XDIESIZE" || key == "DIESIZEX") && LeadingNumber(value, v)) h.dieSizeXmm = PositionMm(v);
    else if ((key == "YDIESIZE" || key == "DIESIZEY") && LeadingNumber(value, v)) h.dieSizeYmm = PositionMm(v);
    else if (key == "PITCH") {
        // "Pitch: 26.000 33.000"
        std::vector<std::string_view> f;
        SplitFields(value, DelimiterOf(value), f);
        if (f.size() >= 2 && LeadingNumber(f[0], v)) h.dieSizeXmm = PositionMm(v);
        if (f.size() >= 2 && LeadingNumber(f[1], v)) h.dieSizeYmm = PositionMm(v);
    } else if (key == "ARRAYCOLUMNS" || key == "ARRAYX" || key == "COLUMNS") array = "Array: " + value + array;
    else if (key == "ARRAYROWS" || key == "ARRAYY" || key == "ROWS") array += " x " + value;
    else if (key == "UNITS" || key == "UNIT") unit = UnitWord(value);
    else if (key == "WAFERSIZE" && LeadingNumber(value, v)) h.waferSizeMm = v > 1000 ? v / 1000 : v;
}

// A heading as a feature name: without its unit, blanks as "_".
std::string FeatureName(std::string_view heading) {
    std::string unit;
    HeadingKey(heading, &unit);
    std::string name(heading);
    if (!unit.empty()) name = name.substr(0, name.rfind('('));
    name = Trim(name);
    for (char& ch : name)
        if (ch == ' ') ch = '_';
    return name;
}

double FieldNumber(const std::vector<std::string_view>& f, int col, bool& ok) {
    double v = 0;
    ok = col >= 0 && col < static_cast<int>(f.size()) && ParseFileNumber(f[static_cast<size_t>(col)], v);
    return v;
}

}  // namespace

Result<std::string> ImportKLAarcher(const ImportRequest& request) {
    Proc p("Import(ImportKLAarcher): ");
    p.chk = 1;
    const std::string& source = request.path;
    const bool zspin = IEquals(Trim(request.description), kZspinDescription);
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }

    // 2: the header lines, up to the table's header row.
    p.chk = 2;
    ReaderHeader h;
    std::string unit, array, lastLine;
    std::string_view v;
    std::vector<std::string_view> f;
    ArcherColumns c;
    char delim = '\t';
    while (c.x < 0) {
        if (!in.readLine(v)) {
            if (in.lineNumber() == 0) return IncompleteFile(p, source, 0);
            return EndedEarly(p, source, in.lineNumber(), lastLine);
        }
        if (in.sawNul()) return WrongFileType(p, source, in.lineNumber());
        if (Trim(v).empty()) continue;
        lastLine.assign(v);
        delim = DelimiterOf(v);
        SplitFields(v, delim, f);
        if (f.size() >= 3) {
            if (IsStatisticsHeader(f)) {
                // An AIM statistics file: its own reader.
                in.close();
                p.quiet();
                return ImportKLA_Stats(request);
            }
            c = FindArcherColumns(f);
            if (c.x >= 0) break;
        }
        ArcherHeaderLine(v, h, unit, array);
    }
    const long headerLine = in.lineNumber();

    // 3: the rows.
    p.chk = 3;
    OverlayBuilder b(FeatureName(f[static_cast<size_t>(c.x)]), FeatureName(f[static_cast<size_t>(c.y)]),
                     !c.unit.empty() ? c.unit : !unit.empty() ? unit : "nm");
    ReaderHeader& bh = b.header();
    bh = h;
    bh.dataType = "Overlay";
    if (zspin) ZspinKLAarcher(bh);
    std::string failedRows;
    int failedCount = 0;
    OverlayRow row;
    bool cancelled = false;
    while (in.readLine(v)) {
        if (in.sawNul()) return WrongFileType(p, source, in.lineNumber());
        SplitFields(v, delim, f);
        if (static_cast<int>(f.size()) <= std::max(c.x, c.y)) continue;
        bool okX, okY;
        row.x = FieldNumber(f, c.x, okX);
        row.y = FieldNumber(f, c.y, okY);
        row.hasX = okX;
        row.hasY = okY;
        if (!okX && !okY) continue;  // a summary or a note
        row.wafer = c.wafer >= 0 ? f[static_cast<size_t>(c.wafer)] : std::string_view();
        bool ok;
        double test = FieldNumber(f, c.site, ok);
        row.site = ok && test >= 1 ? static_cast<long>(test) : 0;
        row.siteXmm = PositionMm(FieldNumber(f, c.siteX, ok));
        row.siteYmm = PositionMm(FieldNumber(f, c.siteY, ok));
        bool okCol, okRow;
        const double col = FieldNumber(f, c.dieX, okCol), rw = FieldNumber(f, c.dieY, okRow);
        if (okCol && okRow) {
            row.dieX = std::lround(col);
            row.dieY = std::lround(rw);
        } else {
            // The field from the site's place on the wafer.
            bool okWX, okWY;
            const double wx = PositionMm(FieldNumber(f, c.waferX, okWX), 500);
            const double wy = PositionMm(FieldNumber(f, c.waferY, okWY), 500);
            row.dieX = okWX && bh.dieSizeXmm > 0 ? std::lround((wx - row.siteXmm) / bh.dieSizeXmm) : 0;
            row.dieY = okWY && bh.dieSizeYmm > 0 ? std::lround((wy - row.siteYmm) / bh.dieSizeYmm) : 0;
        }
        const bool failed = c.pass >= 0 && c.pass < static_cast<int>(f.size()) && MarkedFailed(f[static_cast<size_t>(c.pass)]);
        const bool flyer = c.flyer >= 0 && c.flyer < static_cast<int>(f.size()) && FlyerSet(f[static_cast<size_t>(c.flyer)]);
        row.exclude = failed || flyer;
        if (failed) {
            if (++failedCount <= 50) {
                if (!failedRows.empty()) failedRows += ", ";
                failedRows += std::to_string(in.lineNumber());
            }
            SetStatusText("KLA Archer: FAILED Data row #: " + std::to_string(in.lineNumber()));
        }
        b.add(row, in.lineNumber(), cancelled);
        if (cancelled) return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
    }
    in.close();
    if (b.rows() < 1) return IncompleteFile(p, source, headerLine);

    // 4: the tool name and the comment.
    p.chk = 4;
    bh.toolName = "KLA Archer";
    bh.comment = bh.toolName + "\r\nDevice: " + bh.device + " / Level: " + bh.layer + "\r\nLotName: " + bh.lotName +
                 "\r\nRecipe: " + bh.recipe + "\r\nSystem: " + bh.system;
    if (!array.empty()) bh.comment += "\r\n" + array;
    if (!failedRows.empty())
        bh.comment += "\r\nKLA Archer: FAILED Data row #: " + failedRows + (failedCount > 50 ? " ..." : "");
    if (zspin) bh.comment += std::string("\r\n") + kZspinComment;
    return b.finish(p, request);
}

Result<std::string> ImportKLA_Stats(const ImportRequest& request) {
    Proc p("Import(ImportKLA_Stats): ");
    p.chk = 1;
    const std::string& source = request.path;
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    p.chk = 2;
    ReaderHeader h;
    std::string unit, array, lastLine, wafers;
    std::string_view v;
    std::vector<std::string_view> f;
    std::vector<std::string> keys;
    char delim = '\t';
    int test = -1, dieX = -1, dieY = -1, siteX = -1, siteY = -1, mx = -1, my = -1;
    std::string xUnit;
    while (mx < 0) {
        if (!in.readLine(v)) {
            if (in.lineNumber() == 0) return IncompleteFile(p, source, 0);
            return EndedEarly(p, source, in.lineNumber(), lastLine);
        }
        if (in.sawNul()) return WrongFileType(p, source, in.lineNumber());
        if (Trim(v).empty()) continue;
        lastLine.assign(v);
        delim = DelimiterOf(v);
        SplitFields(v, delim, f);
        if (f.size() >= 3 && IsStatisticsHeader(f)) {
            keys.assign(f.size(), std::string());
            std::vector<std::string> units(f.size());
            for (size_t i = 0; i < f.size(); ++i) keys[i] = HeadingKey(f[i], &units[i]);
            test = FindKey(keys, {"TESTID"});
            dieX = FindKey(keys, {"DIEX", "COLUMN", "COL", "FIELDX"});
            dieY = FindKey(keys, {"DIEY", "ROW", "FIELDY"});
            siteX = FindKey(keys, {"X", "SITEX", "XF", "TARGETX"});
            siteY = FindKey(keys, {"Y", "SITEY", "YF", "TARGETY"});
            mx = FindKey(keys, {"MISX", "MREGX"});
            my = FindKey(keys, {"MISY", "MREGY"});
            if (my < 0) return FileFailure(p, source, in.lineNumber(), "This is not a proper format data sheet.");
            xUnit = units[static_cast<size_t>(mx)];
            break;
        }
        std::string key, value;
        if (NameValue(v, key, value) && key == "WAFERS") wafers = value;
        ArcherHeaderLine(v, h, unit, array);
    }
    const long headerLine = in.lineNumber();
    OverlayBuilder b(FeatureName(f[static_cast<size_t>(mx)]), FeatureName(f[static_cast<size_t>(my)]),
                     !xUnit.empty() ? xUnit : !unit.empty() ? unit : "nm");
    ReaderHeader& bh = b.header();
    bh = h;
    bh.dataType = "Overlay";

    // 3: one row per test; the lot holds the means as one wafer.
    p.chk = 3;
    OverlayRow row;
    row.wafer = "Mean";
    bool cancelled = false;
    while (in.readLine(v)) {
        if (in.sawNul()) return WrongFileType(p, source, in.lineNumber());
        SplitFields(v, delim, f);
        bool okX, okY, ok;
        row.x = FieldNumber(f, mx, okX);
        row.y = FieldNumber(f, my, okY);
        row.hasX = okX;
        row.hasY = okY;
        const double t = FieldNumber(f, test, ok);
        if (!ok || t < 1 || (!okX && !okY)) continue;  // statistics rows of the lot, notes
        row.site = static_cast<long>(t);
        row.dieX = std::lround(FieldNumber(f, dieX, ok));
        row.dieY = std::lround(FieldNumber(f, dieY, ok));
        row.siteXmm = PositionMm(FieldNumber(f, siteX, ok));
        row.siteYmm = PositionMm(FieldNumber(f, siteY, ok));
        b.add(row, in.lineNumber(), cancelled);
        if (cancelled) return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
    }
    in.close();
    if (b.rows() < 1) return IncompleteFile(p, source, headerLine);
    p.chk = 4;
    bh.toolName = "KLA Archer Aim Statistics";
    bh.comment = bh.toolName + "\r\nLotName: " + bh.lotName + "\r\nProgram: " + bh.recipe;
    if (!wafers.empty()) bh.comment += "\r\nWafers: " + wafers;
    if (!array.empty()) bh.comment += "\r\n" + array;
    return b.finish(p, request);
}

}  // namespace zorv
