// The Nikon NRM series overlay result (".msr", or a workbook of the same
// lines, which reaches the reader as its tab-text copy).
//
// What the reader expects: one record a line, opened by its line code; the
// fields after the code are separated by blanks, tabs or commas.
//   L1: lot   L2: device or process   L3: recipe   L4: date and time
//   L5: operator
//   F1: tool and version   F2: number of dice (shots), field pitch X and Y (mm)
//   M1: marks per shot [unit of the results: nm (default) or um]
//   M2: mark number, X and Y of the mark in the shot (mm), one line a mark
//   W1: .. W9:, Wa: .. Wv:  a measurement of wafer (slot) 1..9, 10..31:
//       shot number, shot column, shot row, mark number, dX, dY
//   WA:, WB:  the wafer's mean and 3 sigma (upper case): not measurements.
// Lines before the first code (a title) are passed; any other line after it
// is not a record of this format.
#include <algorithm>
#include <cmath>
#include <filesystem>
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

constexpr int kMaxTitleLines = 10;

// The slot of a wafer code ('1'..'9', 'a'..'v'), 0 for none.
int SlotOfCode(char c) {
    if (c >= '1' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'v') return 10 + (c - 'a');
    return 0;
}

// The code of a line ("L1", "Wa", "WA" ...) and the text after its ':';
// false for a line that opens with none.
bool LineCode(std::string_view line, std::string& code, std::string_view& rest) {
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t' || line.front() == '"')) line.remove_prefix(1);
    if (line.size() < 3 || line[2] != ':') return false;
    const char a = line[0], b = line[1];
    const bool known = (a == 'L' && b >= '1' && b <= '5') || (a == 'F' && (b == '1' || b == '2')) ||
                       (a == 'M' && (b == '1' || b == '2')) || (a == 'W' && (SlotOfCode(b) > 0 || b == 'A' || b == 'B'));
    if (!known) return false;
    code.assign(line.substr(0, 2));
    rest = line.substr(3);
    return true;
}

void Fields(std::string_view rest, std::vector<std::string_view>& f) {
    // Blanks, tabs and commas alike.
    f.clear();
    size_t i = 0;
    auto sep = [](char c) { return c == ' ' || c == '\t' || c == ',' || c == '"'; };
    while (i < rest.size()) {
        while (i < rest.size() && sep(rest[i])) ++i;
        if (i >= rest.size()) break;
        size_t j = i;
        while (j < rest.size() && !sep(rest[j])) ++j;
        f.push_back(rest.substr(i, j - i));
        i = j;
    }
}

std::string Joined(const std::vector<std::string_view>& f) {
    std::string s;
    for (std::string_view w : f) {
        if (!s.empty()) s += ' ';
        s += w;
    }
    return s;
}

}  // namespace

Result<std::string> ImportNikonNRM(const ImportRequest& request) {
    Proc p("Import(ImportNikonNRM): ");
    p.chk = 1;
    const std::string& source = request.path;
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    OverlayBuilder b("dX", "dY", "");
    ReaderHeader& h = b.header();
    std::map<long, std::pair<double, double>> marks;  // mark number: X, Y in the shot (mm)
    std::string unit = "nm", code, tool, slotName;
    std::vector<std::string_view> f;
    std::string_view v, rest;
    bool started = false, cancelled = false;
    long shots = -1, shotsLine = 0, title = 0;
    OverlayRow row;
    auto invalid = [&](std::string_view line) {
        return FileFailure(p, source, in.lineNumber(), "Invalid format for import: " + std::string(line));
    };

    // 2: record by record.
    p.chk = 2;
    while (in.readLine(v)) {
        if (in.sawNul()) return WrongFileType(p, source, in.lineNumber());
        if (Trim(v).empty()) continue;
        if (!LineCode(v, code, rest)) {
            if (started || ++title > kMaxTitleLines) return invalid(v);
            continue;
        }
        started = true;
        Fields(rest, f);
        const char kind = code[0], which = code[1];
        double n1 = 0, n2 = 0, n3 = 0;
        if (kind == 'L') {
            const std::string text = Joined(f);
            if (which == '1') h.lotName = text;
            else if (which == '2') h.device = text;
            else if (which == '3') h.recipe = text;
            else if (which == '4') {
                h.date = f.empty() ? std::string() : std::string(f[0]);
                if (f.size() > 1) h.time = std::string(f[1]);
            } else h.user = text;
        } else if (kind == 'F' && which == '1') {
            tool = Joined(f);
            h.system = tool;
        } else if (kind == 'F') {
            if (f.empty() || !ParseFileNumber(f[0], n1)) return invalid(v);
            shots = std::lround(n1);
            shotsLine = in.lineNumber();
            if (f.size() >= 3 && ParseFileNumber(f[1], n2) && ParseFileNumber(f[2], n3)) {
                h.dieSizeXmm = PositionMm(n2);
                h.dieSizeYmm = PositionMm(n3);
            }
        } else if (kind == 'M' && which == '1') {
            if (f.size() >= 2 && !UnitWord(f[1]).empty()) unit = UnitWord(f[1]);
        } else if (kind == 'M') {
            if (f.size() < 3 || !ParseFileNumber(f[0], n1) || !ParseFileNumber(f[1], n2) || !ParseFileNumber(f[2], n3))
                return invalid(v);
            marks[std::lround(n1)] = {PositionMm(n2), PositionMm(n3)};
        } else if (which == 'A' || which == 'B') {
            continue;  // the wafer's statistics
        } else {
            // 3: a measurement.
            p.chk = 3;
            double d[6];
            if (f.size() < 6) return invalid(v);
            for (int i = 0; i < 6; ++i)
                if (!ParseFileNumber(f[static_cast<size_t>(i)], d[i])) return invalid(v);
            slotName = std::to_string(SlotOfCode(which));
            row.wafer = slotName;
            row.dieX = std::lround(d[1]);
            row.dieY = std::lround(d[2]);
            const long mark = std::max(1L, std::lround(d[3]));
            row.site = mark;
            auto m = marks.find(mark);
            row.siteXmm = m != marks.end() ? m->second.first : 0;
            row.siteYmm = m != marks.end() ? m->second.second : 0;
            row.x = d[4];
            row.y = d[5];
            row.hasX = row.hasY = true;
            row.exclude = false;
            b.add(row, in.lineNumber(), cancelled);
            if (cancelled) return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
        }
    }
    in.close();
    if (!started) {
        if (in.lineNumber() == 0) return IncompleteFile(p, source, 0);
        return FileFailure(p, source, in.lineNumber(),
                           "Invalid format for import: " + std::filesystem::path(source).filename().string());
    }
    if (shots == 0) return FileFailure(p, source, shotsLine, "Number of dice (shots) = 0");
    if (b.rows() < 1) return IncompleteFile(p, source, in.lineNumber());

    p.chk = 4;
    b.setUnit(unit);
    h.toolName = "NIKON NRM series";
    h.comment = h.toolName + "\r\nTool: " + tool + "\r\nDevice: " + h.device + "\r\nLotName: " + h.lotName +
                "\r\nRecipe: " + h.recipe + "\r\nUser: " + h.user + "\r\nShots: " + std::to_string(shots);
    return b.finish(p, request);
}

}  // namespace zorv
