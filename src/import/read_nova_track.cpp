// The Nova Track 2020/3030 integrated overlay export.
//
// What the reader expects: "KEY=value" (or "KEY: value") header lines:
// TOOL_ID, CREATOR, LOT_ID, LAYER, WAFER_DIA (mm), ORIENTATION (a notch word
// or angle), DATE, TIME, and WAFER_ID (or SLOT) before each wafer's rows.
// The table header row, comma, tab or blank separated, names in any order:
// NO. (the site number), FIELD_X_COORD and Y (the field centre on the wafer,
// mm, or field indices when all are small whole numbers), SITE_X_COORD and
// Y (the site in the field, mm, um above 50), X_OVERLAY and Y_OVERLAY (nm, or
// the unit in brackets). A header row may stand again before each wafer.
// The field pitch is the smallest spacing of the field centres.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "base/text.h"
#include "import/getline.h"
#include "read_kla_overlay_common.h"
#include "reader.h"
#include "readers_kla_overlay.h"

namespace zorv {

using namespace overlay;

namespace {

struct NovaColumns {
    int no = -1, fieldX = -1, fieldY = -1, siteX = -1, siteY = -1, x = -1, y = -1;
    std::string unit;
};

// The header row; false for a line that is none. A row that names overlay
// columns but lacks one the reader needs is `broken`.
bool FindNovaColumns(const std::vector<std::string_view>& f, NovaColumns& c, bool& broken) {
    std::vector<std::string> keys(f.size()), units(f.size());
    for (size_t i = 0; i < f.size(); ++i) keys[i] = HeadingKey(f[i], &units[i]);
    NovaColumns n;
    n.x = FindKey(keys, {"XOVERLAY", "OVERLAYX"});
    n.y = FindKey(keys, {"YOVERLAY", "OVERLAYY"});
    n.no = FindKey(keys, {"NO", "NO#", "SITE", "SITENO"});
    n.fieldX = FindKey(keys, {"FIELDXCOORD", "FIELDX"});
    n.fieldY = FindKey(keys, {"FIELDYCOORD", "FIELDY"});
    n.siteX = FindKey(keys, {"SITEXCOORD", "SITEX"});
    n.siteY = FindKey(keys, {"SITEYCOORD", "SITEY"});
    if (n.x < 0 && n.y < 0 && n.fieldX < 0) return false;
    broken = n.x < 0 || n.y < 0 || n.fieldX < 0 || n.fieldY < 0;
    if (n.x >= 0) n.unit = units[static_cast<size_t>(n.x)];
    c = n;
    return true;
}

std::string NotchOf(const std::string& value, const std::string& current) {
    const std::string u = Upper(value);
    if (u.find("UP") != std::string::npos || u == "0") return "UP";
    if (u.find("DOWN") != std::string::npos || u == "180") return "DOWN";
    if (u.find("RIGHT") != std::string::npos || u == "90") return "RIGHT";
    if (u.find("LEFT") != std::string::npos || u == "270") return "LEFT";
    return current;
}

// A row as read, before the field pitch is known.
struct NovaRow {
    long line, site;
    size_t wafer;
    double fieldX, fieldY, siteX, siteY, x, y;
    bool hasX, hasY;
};

// The smallest spacing between distinct values, over 0.5 mm; 0 when none.
double SmallestStep(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    double step = 0;
    for (size_t i = 1; i < v.size(); ++i) {
        const double d = v[i] - v[i - 1];
        if (d > 0.5 && (step == 0 || d < step)) step = d;
    }
    return step;
}

}  // namespace

Result<std::string> ImportNovaTrackOL(const ImportRequest& request) {
    Proc p("Import(ImportNovaTrackOL): ");
    p.chk = 1;
    const std::string& source = request.path;
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    ReaderHeader h;
    std::vector<std::string> wafers{"1"};
    std::vector<NovaRow> rows;
    std::vector<std::string_view> f;
    NovaColumns c;
    bool haveColumns = false, haveHeaderKeys = false;
    char delim = ',';
    long headerLine = 0;
    std::string lastLine, key, value, creator;
    std::string_view v;

    // 2: header keys, the table header, rows.
    p.chk = 2;
    while (in.readLine(v)) {
        if (in.sawNul()) return WrongFileType(p, source, in.lineNumber());
        if (Trim(v).empty()) continue;
        lastLine.assign(v);
        const char d = DelimiterOf(v);
        SplitFields(v, d, f);
        bool broken = false;
        NovaColumns n;
        if (f.size() >= 3 && FindNovaColumns(f, n, broken)) {
            if (broken || !haveHeaderKeys) return FileFailure(p, source, in.lineNumber(), "Header import not correct.");
            c = n;
            delim = d;
            haveColumns = true;
            if (headerLine == 0) headerLine = in.lineNumber();
            continue;
        }
        if (haveColumns && d == delim && f.size() > static_cast<size_t>(std::max(c.x, c.y))) {
            double x = 0, y = 0, fx = 0, fy = 0;
            const bool okX = ParseFileNumber(f[static_cast<size_t>(c.x)], x);
            const bool okY = ParseFileNumber(f[static_cast<size_t>(c.y)], y);
            if ((okX || okY) && ParseFileNumber(f[static_cast<size_t>(c.fieldX)], fx) &&
                ParseFileNumber(f[static_cast<size_t>(c.fieldY)], fy)) {
                auto num = [&](int col) {
                    double z = 0;
                    if (col >= 0 && col < static_cast<int>(f.size())) ParseFileNumber(f[static_cast<size_t>(col)], z);
                    return z;
                };
                const double no = num(c.no);
                rows.push_back(NovaRow{in.lineNumber(), no >= 1 ? static_cast<long>(no) : 0, wafers.size() - 1, fx,
                                       fy, PositionMm(num(c.siteX)), PositionMm(num(c.siteY)), x, y, okX, okY});
                continue;
            }
        }
        if (!NameValue(v, key, value)) continue;
        if (key == "TOOLID") h.system = value;
        else if (key == "CREATOR") creator = value;
        else if (key == "LOTID" || key == "LOT") h.lotName = value;
        else if (key == "LAYER") h.layer = value;
        else if (key == "DEVICE" || key == "PRODUCT") h.device = value;
        else if (key == "RECIPE") h.recipe = value;
        else if (key == "DATE") h.date = value;
        else if (key == "TIME") h.time = value;
        else if (key == "ORIENTATION") h.notch = NotchOf(value, h.notch);
        else if (key == "WAFERDIA") {
            double mm;
            if (LeadingNumber(value, mm)) h.waferSizeMm = mm > 1000 ? mm / 1000 : mm;
        } else if (key == "WAFERID" || key == "SLOT" || key == "WAFER") {
            if (rows.empty() || rows.back().wafer != wafers.size() - 1) wafers.back() = value;
            else wafers.push_back(value);
        } else continue;
        haveHeaderKeys = true;
    }
    in.close();
    if (!haveColumns) {
        if (in.lineNumber() == 0) return IncompleteFile(p, source, 0);
        if (!haveHeaderKeys) return FileFailure(p, source, in.lineNumber(), "Header import not correct.");
        return EndedEarly(p, source, in.lineNumber(), lastLine);
    }
    if (rows.empty()) return IncompleteFile(p, source, headerLine);

    // 3: the field grid: indices as given, or centres by their pitch.
    p.chk = 3;
    bool whole = true;
    std::vector<double> xs, ys;
    for (const NovaRow& r : rows) {
        whole = whole && r.fieldX == std::floor(r.fieldX) && r.fieldY == std::floor(r.fieldY);
        xs.push_back(r.fieldX);
        ys.push_back(r.fieldY);
    }
    double pitchX = SmallestStep(xs), pitchY = SmallestStep(ys), x0 = 0, y0 = 0;
    // Indices step by 1; centres by the field pitch.
    const bool indices = whole && pitchX <= 1 && pitchY <= 1;
    if (indices) {
        pitchX = pitchY = 1;
    } else {
        x0 = *std::min_element(xs.begin(), xs.end());
        y0 = *std::min_element(ys.begin(), ys.end());
        if (pitchX > 0) h.dieSizeXmm = pitchX;
        if (pitchY > 0) h.dieSizeYmm = pitchY;
        if (pitchX <= 0) pitchX = 1e9;  // one column
        if (pitchY <= 0) pitchY = 1e9;
    }

    // 4: the rows into the tables.
    p.chk = 4;
    OverlayBuilder b("X_OVERLAY", "Y_OVERLAY", c.unit.empty() ? "nm" : c.unit);
    b.header() = h;
    b.header().dataType = "Overlay";
    OverlayRow row;
    bool cancelled = false;
    for (const NovaRow& r : rows) {
        row.wafer = wafers[r.wafer];
        row.site = r.site;
        row.dieX = std::lround((r.fieldX - x0) / pitchX);
        row.dieY = std::lround((r.fieldY - y0) / pitchY);
        row.siteXmm = r.siteX;
        row.siteYmm = r.siteY;
        row.x = r.x;
        row.y = r.y;
        row.hasX = r.hasX;
        row.hasY = r.hasY;
        b.add(row, r.line, cancelled);
        if (cancelled) return FileFailure(p, source, r.line, " Aborting data load...");
    }
    ReaderHeader& bh = b.header();
    bh.toolName = "NOVA Track 2020-3030";
    bh.comment = bh.toolName + "\r\nTool: " + bh.system + " / Creator: " + creator + "\r\nLotName: " + bh.lotName +
                 " / Layer: " + bh.layer;
    return b.finish(p, request);
}

}  // namespace zorv
