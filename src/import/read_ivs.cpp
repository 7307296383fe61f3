// The Soluris (Schlumberger) IVS overlay report, IVS 135 and its family.
//
// What the reader expects: header lines "KEY: value" (or "KEY value"):
// SYSTEM, PLAN, DEVICE, LEVEL, DATE (date and time), USER / USER_NAME /
// USERNAME, WAFER-SIZE / WAFERSIZE (mm), HEADER_LENGTH, DIE_STEP_X and Y (the
// field pitch, mm, um above 50), DIE_X_OFFSET, SITE_STEP_X, SITE_X_OFFSET and
// Y (mm), PIVOT_X, EXPOSURE_AXIS_X; the site table, one line a site:
// "SITE_LOCATION: n x y" (any of SITE_LOCATION, SITE-LOCATION, SITE LOCATION,
// SITELOCATION; mm, um above 50). Then per wafer a "WAFER_ID: name" line
// (WAFERID, WAFER-ID) and one line per measurement, its words in any order:
// "SITE: n  LOCATION: col row  X: dx [unit]  Y: dy [unit]" (um unless a unit
// word stands beside the value; "LOCATION: (col,row)" too).
#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
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

// The words of a line: blanks, tabs, commas and brackets separate; a key
// keeps its ':' and ends there.
void Words(std::string_view s, std::vector<std::string_view>& out) {
    out.clear();
    auto sep = [](char c) { return c == ' ' || c == '\t' || c == ',' || c == '(' || c == ')' || c == '"'; };
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && sep(s[i])) ++i;
        if (i >= s.size()) break;
        size_t j = i;
        // A key's ':' ends its word ("X:0.5"); a time's ("07:45:00") does not.
        auto keyColon = [&](size_t k) { return s[k] == ':' && k > i && std::isalpha(static_cast<unsigned char>(s[k - 1])); };
        while (j < s.size() && !sep(s[j]) && !keyColon(j)) ++j;
        if (j < s.size() && keyColon(j)) ++j;
        out.push_back(s.substr(i, j - i));
        i = j;
    }
}

// A word that is a key: upper case without separators and its ':'.
std::string KeyOf(std::string_view w) {
    if (!w.empty() && w.back() == ':') w.remove_suffix(1);
    return HeadingKey(w);
}

}  // namespace

Result<std::string> ImportIVS(const ImportRequest& request) {
    Proc p("Import(ImportIVS): ");
    p.chk = 1;
    const std::string& source = request.path;
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    OverlayBuilder b("X", "Y", "");
    ReaderHeader& h = b.header();
    std::map<long, std::pair<double, double>> sites;
    std::string wafer = "1", unit, lastLine, plan, notes;
    std::vector<std::string_view> w;
    std::string_view v;
    bool cancelled = false;
    long dataLines = 0;
    OverlayRow row;

    p.chk = 2;
    while (in.readLine(v)) {
        if (in.sawNul()) return WrongFileType(p, source, in.lineNumber());
        if (Trim(v).empty()) continue;
        lastLine.assign(v);
        // "SITE LOCATION" is one key.
        std::string line(v);
        std::string upper = Upper(line);
        for (const char* two : {"SITE LOCATION", "WAFER ID"})
            for (size_t at = upper.find(two); at != std::string::npos; at = upper.find(two, at + 1))
                line[at + std::string_view(two).find(' ')] = '_';
        Words(line, w);
        if (w.empty()) continue;
        const std::string key = KeyOf(w[0]);
        auto number = [&](size_t i, double& out) { return i < w.size() && ParseFileNumber(w[i], out); };
        auto rest = [&](size_t from) {
            std::string s;
            for (size_t i = from; i < w.size(); ++i) {
                if (!s.empty()) s += ' ';
                s += w[i];
            }
            return s;
        };
        double n1 = 0, n2 = 0, n3 = 0;
        bool measurement = false;
        for (std::string_view x : w) measurement = measurement || (x.back() == ':' && KeyOf(x) == "SITE");
        if (measurement && w.size() >= 4) {
            // 3: a measurement line, its keys in any order.
            p.chk = 3;
            row = OverlayRow();
            row.wafer = wafer;
            bool hasSite = false, hasLoc = false;
            for (size_t i = 0; i < w.size(); ++i) {
                const std::string k = w[i].back() == ':' ? KeyOf(w[i]) : std::string();
                if (k == "SITE" && number(i + 1, n1)) {
                    row.site = std::max(1L, std::lround(n1));
                    hasSite = true;
                } else if (k == "LOCATION" && number(i + 1, n1) && number(i + 2, n2)) {
                    row.dieX = std::lround(n1);
                    row.dieY = std::lround(n2);
                    hasLoc = true;
                } else if ((k == "X" || k == "Y") && number(i + 1, n1)) {
                    (k == "X" ? row.x : row.y) = n1;
                    (k == "X" ? row.hasX : row.hasY) = true;
                    const std::string u = i + 2 < w.size() ? UnitWord(w[i + 2]) : std::string();
                    if (!u.empty() && unit.empty()) unit = u;
                }
            }
            if (!hasSite || !hasLoc) continue;  // a site line of another kind
            auto s = sites.find(row.site);
            if (s != sites.end()) {
                row.siteXmm = s->second.first;
                row.siteYmm = s->second.second;
            }
            ++dataLines;
            b.add(row, in.lineNumber(), cancelled);
            if (cancelled) return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
            continue;
        }
        const std::string value = rest(1);
        if (key == "SITELOCATION") {
            if (number(1, n1) && number(2, n2) && number(3, n3))
                sites[std::lround(n1)] = {PositionMm(n2), PositionMm(n3)};
        } else if (key == "WAFERID") wafer = value.empty() ? wafer : std::string(w[1]);
        else if (key == "SYSTEM") h.system = value;
        else if (key == "PLAN") plan = h.recipe = value;
        else if (key == "DEVICE") h.device = value;
        else if (key == "LEVEL") h.layer = value;
        else if (key == "USER" || key == "USERNAME") h.user = value;
        else if (key == "DATE") {
            h.date = w.size() > 1 ? std::string(w[1]) : std::string();
            h.time = rest(2);
        } else if ((key == "WAFERSIZE") && number(1, n1)) h.waferSizeMm = n1 > 1000 ? n1 / 1000 : n1;
        else if (key == "DIESTEPX" && number(1, n1)) h.dieSizeXmm = PositionMm(n1);
        else if (key == "DIESTEPY" && number(1, n1)) h.dieSizeYmm = PositionMm(n1);
        else if (key == "SITEXOFFSET" && number(1, n1)) h.siteXoffsetMm = PositionMm(n1);
        else if (key == "SITEYOFFSET" && number(1, n1)) h.siteYoffsetMm = PositionMm(n1);
        else if (key == "DIEXOFFSET" || key == "DIEYOFFSET" || key == "PIVOTX" || key == "PIVOTY" ||
                 key == "EXPOSUREAXISX" || key == "EXPOSUREAXISY" || key == "SITESTEPX" || key == "SITESTEPY" ||
                 key == "HEADERLENGTH")
            notes += "\r\n" + std::string(w[0]) + " " + value;
    }
    in.close();
    if (in.lineNumber() == 0) return IncompleteFile(p, source, 0);
    if (dataLines == 0) return EndedEarly(p, source, in.lineNumber(), lastLine);

    p.chk = 4;
    b.setUnit(unit.empty() ? "um" : unit);
    h.toolName = "IVS Overlay";
    h.comment = h.toolName + "\r\nSystem: " + h.system + "\r\nDevice: " + h.device + " / Level: " + h.layer +
                "\r\nPlan: " + plan + "\r\nUser: " + h.user + notes;
    return b.finish(p, request);
}

}  // namespace zorv
