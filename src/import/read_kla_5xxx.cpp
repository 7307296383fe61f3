// The KLA 50xx overlay report ("KLA 5xxx").
//
// What the reader expects: header lines of "KEY: value" pairs, several to a
// line (PROGRAM:, LOT:, DEVICE:, LAYER:, DATE:, TIME:, OPERATOR:,
// ACQUISITION:), a COORDINATES line whose "AX" and "AY" words give the field
// pitch (mm, um above 50); then per wafer a "WAFER: n" line, a table header
// of blank-separated names and its rows, and a "WAFER PASS" or "WAFER FAIL"
// line; a "STATISTICS:" section ends the data. Table columns, in any order:
// NX and NY (or XFIELD, YFIELD: the field), LOC_X / LOC. X / XOFF / X OFF /
// X_OFF / ELM_X / ELM X and Y (the site in the field), MISR_X / MISR._X /
// MISR X (or DX, DELTAX) and Y (the misregistration, um unless the name
// carries "(nm)"), SITE, PASS (P or F), TIS columns (left). A failed wafer
// marks the lot failed: a warning, and the comment says so; its rows stay.
#include <cmath>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "read_kla_overlay_common.h"
#include "reader.h"
#include "readers_kla_overlay.h"

namespace zorv {

using namespace overlay;

namespace {

// Names of two words become one, so that a header splits at blanks.
std::string JoinTwoWordNames(std::string_view line) {
    std::string s(line);
    static const char* const pairs[][2] = {
        {"MISR. X", "MISR._X"}, {"MISR. Y", "MISR._Y"}, {"MISR X", "MISR_X"}, {"MISR Y", "MISR_Y"},
        {"LOC. X", "LOC._X"},   {"LOC. Y", "LOC._Y"},   {"X OFF", "X_OFF"},   {"Y OFF", "Y_OFF"},
        {"ELM X", "ELM_X"},     {"ELM Y", "ELM_Y"},     {"TIS X", "TIS_X"},   {"TIS Y", "TIS_Y"},
    };
    std::string u = Upper(s);
    for (const auto& pr : pairs)
        for (size_t at = u.find(pr[0]); at != std::string::npos; at = u.find(pr[0], at + 1)) {
            s.replace(at, std::char_traits<char>::length(pr[0]), pr[1]);
            u.replace(at, std::char_traits<char>::length(pr[0]), Upper(pr[1]));
        }
    return s;
}

struct Kla5Columns {
    int fieldX = -1, fieldY = -1, siteX = -1, siteY = -1, x = -1, y = -1, site = -1, pass = -1;
    std::string unit;
};

bool FindKla5Columns(const std::vector<std::string_view>& f, Kla5Columns& c) {
    std::vector<std::string> keys(f.size()), units(f.size());
    for (size_t i = 0; i < f.size(); ++i) keys[i] = HeadingKey(f[i], &units[i]);
    Kla5Columns n;
    n.x = FindKey(keys, {"MISRX", "MISR(X)", "DX", "DELTAX"});
    n.y = FindKey(keys, {"MISRY", "MISR(Y)", "DY", "DELTAY"});
    if (n.x < 0 || n.y < 0) return false;
    n.unit = units[static_cast<size_t>(n.x)];
    n.fieldX = FindKey(keys, {"NX", "XFIELD", "FIELDX"});
    n.fieldY = FindKey(keys, {"NY", "YFIELD", "FIELDY"});
    n.siteX = FindKey(keys, {"LOCX", "XOFF", "ELMX"});
    n.siteY = FindKey(keys, {"LOCY", "YOFF", "ELMY"});
    n.site = FindKey(keys, {"SITE", "SITENO", "NO", "#"});
    n.pass = FindKey(keys, {"PASS", "P/F", "PASS/FAIL"});
    c = n;
    return true;
}

// The "KEY: value" pairs of a header line, several to a line.
void Kla5HeaderLine(const std::vector<std::string_view>& words, ReaderHeader& h, std::string& wafer,
                    std::string& acquisition) {
    // "AX 26.000 AY 33.000" stand inside the COORDINATES value.
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        double v;
        const std::string u = Upper(words[i]);
        if ((u == "AX" || u == "AY") && ParseFileNumber(words[i + 1], v))
            (u == "AX" ? h.dieSizeXmm : h.dieSizeYmm) = PositionMm(v);
    }
    for (size_t i = 0; i < words.size(); ++i) {
        std::string_view w = words[i];
        if (w.size() < 2 || w.back() != ':') continue;
        // The value: the words up to the next key.
        std::string value;
        size_t j = i + 1;
        for (; j < words.size() && !(words[j].size() > 1 && words[j].back() == ':'); ++j) {
            if (!value.empty()) value += ' ';
            value += words[j];
        }
        const std::string key = HeadingKey(w.substr(0, w.size() - 1));
        if (key == "PROGRAM") h.recipe = value;
        else if (key == "LOT" || key == "LOTID") h.lotName = value;
        else if (key == "DEVICE") h.device = value;
        else if (key == "LAYER") h.layer = value;
        else if (key == "DATE") h.date = value;
        else if (key == "TIME") h.time = value;
        else if (key == "OPERATOR" || key == "USER") h.user = value;
        else if (key == "SYSTEM" || key == "TOOL") h.system = value;
        else if (key == "ACQUISITION") acquisition = value;
        else if (key == "WAFER" || key == "WAFERID") wafer = value.substr(0, value.find(' '));
        i = j - 1;
    }
}

}  // namespace

Result<std::string> ImportKLA(const ImportRequest& request) {
    Proc p("Import(ImportKLA): ");
    p.chk = 1;
    const std::string& source = request.path;
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    OverlayBuilder b("MISR_X", "MISR_Y", "");
    ReaderHeader& h = b.header();
    std::string wafer = "1", acquisition, lastLine, joined;
    std::vector<std::string> failedWafers;
    std::vector<std::string_view> f;
    Kla5Columns c;
    bool haveColumns = false, statistics = false, cancelled = false;
    long firstHeader = 0;
    OverlayRow row;
    std::string_view v;

    // 2: the lines, in one pass: header pairs, wafer lines, tables.
    p.chk = 2;
    while (!statistics && in.readLine(v)) {
        if (in.sawNul()) return WrongFileType(p, source, in.lineNumber());
        if (Trim(v).empty()) continue;
        lastLine.assign(v);
        const std::string upper = Upper(v);
        if (upper.find("STATISTICS:") != std::string::npos) {
            statistics = true;
            break;
        }
        if (upper.find("WAFER FAIL") != std::string::npos || upper.find("WAFER PASS") != std::string::npos) {
            SplitFields(v, ' ', f);
            Kla5HeaderLine(f, h, wafer, acquisition);  // "WAFER: 2  WAFER FAIL"
            if (upper.find("WAFER FAIL") != std::string::npos &&
                (failedWafers.empty() || failedWafers.back() != wafer))
                failedWafers.push_back(wafer);
            continue;
        }
        joined = JoinTwoWordNames(v);
        SplitFields(joined, ' ', f);
        Kla5Columns n;
        if (FindKla5Columns(f, n)) {
            if (!haveColumns) {
                firstHeader = in.lineNumber();
                b.tables().setFeature(0, std::string(f[static_cast<size_t>(n.x)]));
                b.tables().setFeature(1, std::string(f[static_cast<size_t>(n.y)]));
                b.setUnit(n.unit.empty() ? "um" : n.unit);
            }
            c = n;
            haveColumns = true;
            continue;
        }
        double first;
        if (!haveColumns || f.empty() || !ParseFileNumber(f[0], first)) {
            Kla5HeaderLine(f, h, wafer, acquisition);
            continue;
        }
        // 3: a row of the table.
        p.chk = 3;
        auto num = [&](int col, bool& ok) {
            double x = 0;
            ok = col >= 0 && col < static_cast<int>(f.size()) && ParseFileNumber(f[static_cast<size_t>(col)], x);
            return x;
        };
        bool okX, okY, ok;
        row.x = num(c.x, okX);
        row.y = num(c.y, okY);
        row.hasX = okX;
        row.hasY = okY;
        row.wafer = wafer;
        const double site = num(c.site, ok);
        row.site = ok && site >= 1 ? static_cast<long>(site) : 0;
        row.dieX = std::lround(num(c.fieldX, ok));
        row.dieY = std::lround(num(c.fieldY, ok));
        row.siteXmm = PositionMm(num(c.siteX, ok));
        row.siteYmm = PositionMm(num(c.siteY, ok));
        row.exclude = false;
        b.add(row, in.lineNumber(), cancelled);
        if (cancelled) return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
    }
    in.close();
    if (!haveColumns) {
        if (in.lineNumber() == 0) return IncompleteFile(p, source, 0);
        return EndedEarly(p, source, in.lineNumber(), lastLine);
    }
    if (b.rows() < 1) return IncompleteFile(p, source, firstHeader);

    // 4: the lot's pass or fail, the tool name, the comment.
    p.chk = 4;
    h.toolName = "KLA 50xx Overlay";
    h.comment = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName: " + h.lotName +
                "\r\nProgram: " + h.recipe + "\r\nUser: " + h.user;
    if (!acquisition.empty()) h.comment += "\r\nAcquisition: " + acquisition;
    if (!failedWafers.empty()) {
        std::string list;
        for (const std::string& w : failedWafers) {
            if (!list.empty()) list += ", ";
            list += w;
        }
        const std::string text = "Lot marked as failure in data.";
        h.comment += "\r\n" + text + " Failed wafers: " + list;
        MsgBox("Warning: Lot:" + h.lotName + " Failed wafers: " + list + "\r\n" + text, vbInformation,
               "KLA 50xx Overlay");
    }
    return b.finish(p, request);
}

}  // namespace zorv
