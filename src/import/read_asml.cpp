// The ASML stepper's registration log: line records, each led by its code.
//   PM <key> <value>...     parameters: LOT, DEVICE, LAYER, JOB, DATE, TIME,
//                           MACHINE, USER, NOTCH, WAFER_SIZE, RETICLE, UNITS
//                           (of the results, nm unless told), SIGNAL
//                           (REDBLUE or M1EM2: which alignment signal)
//   > IL ...                illumination: CONVENTIONAL, ANNULAR or AERIAL, NA, sigma
//   > IP ...                image: SCAN_EXPO or STEP_EXPO, the job and reticle
//   FS <x> <y>              field size, mm
//   MD <mark> <x> <y>       a mark and its place in the field, mm
//   MARK_OFFSET <dx> <dy>   the designed offset of the marks, taken off each result
//   MB <level>              the block of registration level A or B (also "_A", "_B")
//   OV [<level>] <wafer> <col> <row> <mark> <dx> <dy> [<flag>]
//                           one registration result; a flag of 0, N, FAIL or *
//                           marks it invalid
//   FOCAL_BestFocus <v>, BestFocusFocal <v>, BestFocusStatistics ...
//                           the FOCAL test's best focus, kept in the comment
// Level A is the data sheet ("Registration Data Level 'A'"); where level B
// measured the same mark, B - A goes to a sheet of its own ("Overlay Data
// Level of 'B-A' registration"). A log of brace-nested blocks is the XT form
// and is read by ImportASMLxt.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "reader.h"
#include "readers_biorad_asml.h"
#include "workbook/data_workbook.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr int kMaxEmptyLines = 10;
constexpr int kSniffLines = 40;
constexpr double kMicronLimit = 500;
const char* const kDataSheetTitle = "Registration Data Level 'A'";
const char* const kOverlayTitle = "Overlay Data Level of 'B-A' registration";
const char* const kOverlaySheet = "Overlay_BA";

using Words = std::vector<std::string>;

void Split(std::string_view s, Words& out) {
    out.clear();
    size_t i = 0;
    auto sep = [](char c) { return c == ' ' || c == '\t' || c == ',' || c == ';'; };
    while (i < s.size()) {
        while (i < s.size() && sep(s[i])) ++i;
        size_t j = i;
        while (j < s.size() && !sep(s[j])) ++j;
        if (j > i) out.emplace_back(s.substr(i, j - i));
        i = j;
    }
}

double Num(const std::string& s, double fallback) {
    double v;
    return ParseFileNumber(s, v) ? v : fallback;
}

std::string NotchWord(std::string_view word, const std::string& current) {
    std::string u = Upper(Trim(word));
    if (u == "U" || u == "UP" || u == "0") return "UP";
    if (u == "D" || u == "DOWN" || u == "180") return "DOWN";
    if (u == "R" || u == "RIGHT" || u == "90") return "RIGHT";
    if (u == "L" || u == "LEFT" || u == "270") return "LEFT";
    return current;
}

// The rest of the line from word `from` on, as written.
std::string Rest(const Words& w, size_t from) {
    std::string s;
    for (size_t i = from; i < w.size(); ++i) s += (s.empty() ? "" : " ") + w[i];
    return s;
}

// 'A' or 'B' from "A", "_A", "LEVEL_A", "'A'"; 0 for anything else.
char LevelOf(std::string_view upperWord) {
    std::string u;
    for (char c : upperWord)
        if (c != '\'' && c != '"') u += c;
    if (u == "A" || u == "_A" || u == "LEVEL_A") return 'A';
    if (u == "B" || u == "_B" || u == "LEVEL_B") return 'B';
    return 0;
}

// One registration result.
struct Reg {
    std::string wafer;
    long dieX, dieY, mark;
    double x, y;  // micrometres
    bool valid;
    long line;
};

Value WaferValue(const std::string& wafer) {
    double num;
    if (ParseFileNumber(wafer, num) && num == std::floor(num) && std::fabs(num) < 2e9)
        return Value(static_cast<int32_t>(num));
    return Value(wafer);
}

// Whether a file is the brace-nested XT log.
bool IsXtLog(const std::string& path) {
    TextStream in;
    if (!in.open(path)) return false;
    std::string_view v;
    for (int n = 0; n < kSniffLines && in.readLine(v); ++n) {
        if (in.sawNul()) return false;
        size_t eq = v.find('=');
        if (eq != std::string_view::npos && v.find('{', eq) != std::string_view::npos) return true;
    }
    return false;
}

// The B - A table, rows in level A's order, indices as in the saved data.
Datam OverlayTable(const std::vector<Reg>& a, const std::vector<Reg>& b, long shiftX, long shiftY) {
    std::map<std::tuple<std::string, long, long, long>, const Reg*> ofB;
    for (const Reg& r : b)
        if (r.valid) ofB.emplace(std::make_tuple(r.wafer, r.dieX, r.dieY, r.mark), &r);
    std::vector<std::pair<const Reg*, const Reg*>> pairs;
    for (const Reg& r : a) {
        if (!r.valid) continue;
        auto it = ofB.find(std::make_tuple(r.wafer, r.dieX, r.dieY, r.mark));
        if (it != ofB.end()) pairs.emplace_back(&r, it->second);
    }
    if (pairs.empty()) return Datam();
    Datam t(static_cast<int>(pairs.size()), 6, 0, 0);
    const char* const heads[] = {"", "Wafer", "Test", "Diex", "Diey", "X", "Y"};
    for (int c = 1; c <= 6; ++c) t(0, c) = heads[c];
    int row = 0;
    for (auto [ra, rb] : pairs) {
        ++row;
        t(row, 1) = WaferValue(ra->wafer);
        t(row, 2) = static_cast<int32_t>(ra->mark);
        t(row, 3) = static_cast<int32_t>(ra->dieX + shiftX);
        t(row, 4) = static_cast<int32_t>(ra->dieY + shiftY);
        t(row, 5) = rb->x - ra->x;
        t(row, 6) = rb->y - ra->y;
    }
    return t;
}

// The B - A sheet and the Index rows of both sheets, in the saved workbook.
Status WriteOverlaySheet(const std::string& path, const Datam& overlay) {
    WorkbookPtr wb;
    if (Status s = OpenExcelWorksheet(path, wb, nullptr, false); !s) return s;
    SaveArrayOptions o;
    o.title = kOverlayTitle;
    o.save = false;
    if (Status s = SaveArray(overlay, kOverlaySheet, wb.get(), o); !s) return s;
    if (Worksheet* data = GetDataSheet(wb.get(), fs::path(path).stem().string(), true))
        if (Status s = AddIndexItem(wb.get(), data->name(), kDataSheetTitle, Value(), false); !s) return s;
    if (Status s = AddIndexItem(wb.get(), kOverlaySheet, kOverlayTitle, Value(), true); !s) return s;
    return StatusOk();
}

}  // namespace

Result<std::string> ImportASML(const ImportRequest& request) {
    if (IsXtLog(request.path)) return ImportASMLxt(request);
    Proc p("Import(ImportASML): ");
    p.chk = 1;
    const std::string& source = request.path;
    const std::string name = fs::path(source).filename().string();
    auto failed = [&](long line, std::string text) { return FileFailure(p, source, line, std::move(text)); };
    ReaderHeader h;
    h.dataType = "Registration";
    h.toolName = "ASML Stepper ";
    std::string notes;

    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }

    // The records, in one pass; levels kept apart until the end.
    p.chk = 2;
    std::vector<Reg> levelA, levelB;
    std::map<long, std::pair<double, double>> marks;  // mark: place in the field, mm
    double scale = 0.001;                             // micrometres per result unit
    double offX = 0, offY = 0;                        // MARK_OFFSET, in result units
    char level = 'A';
    bool anyRecord = false;
    Words w, u;
    std::string_view v;
    std::string lastLine;
    int empty = 0;
    long results = 0;
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (v.find_first_not_of(" \t") == std::string_view::npos) {
            if (++empty > kMaxEmptyLines && !anyRecord)
                return failed(in.lineNumber(), "More than 10 empty lines read &  Aborting! ");
            continue;
        }
        empty = 0;
        lastLine.assign(v);
        Split(v, w);
        Split(Upper(v), u);
        if (u[0].size() > 1 && u[0][0] == '>') {
            // ">IL" as one word reads as "> IL"
            u.insert(u.begin() + 1, u[0].substr(1));
            w.insert(w.begin() + 1, w[0].substr(1));
            u[0] = w[0] = ">";
        }
        const std::string& code = u[0];
        if (code == ">" && u.size() >= 2) {
            anyRecord = true;
            if (u[1] == "IL") notes += "\r\nIllumination: " + Rest(w, 2);
            else if (u[1] == "IP") {
                notes += "\r\nImage: " + Rest(w, 2);
                if (std::find(u.begin(), u.end(), "SCAN_EXPO") != u.end()) h.exposureTool = "Scanner";
                else if (std::find(u.begin(), u.end(), "STEP_EXPO") != u.end()) h.exposureTool = "Stepper";
            }
        } else if (code == "PM" && u.size() >= 3) {
            anyRecord = true;
            const std::string& key = u[1];
            const std::string& val = w[2];
            if (key == "LOT" || key == "LOT_ID") h.lotName = val;
            else if (key == "DEVICE") h.device = val;
            else if (key == "LAYER") h.layer = val;
            else if (key == "JOB") h.job = val;
            else if (key == "DATE") {
                h.date = val;
                if (u.size() >= 5 && u[3] == "TIME") h.time = w[4];
            } else if (key == "TIME") h.time = val;
            else if (key == "MACHINE" || key == "SYSTEM") h.system = val;
            else if (key == "USER") h.user = val;
            else if (key == "NOTCH") h.notch = NotchWord(val, h.notch);
            else if (key == "WAFER_SIZE") h.waferSizeMm = Num(val, 0);
            else if (key == "RETICLE") h.reticle = val;
            else if (key == "UNITS") {
                const std::string uu = Upper(val);
                scale = uu == "UM" || uu == "MICRON" ? 1 : uu == "MM" ? 1000 : 0.001;
            } else if (key == "SIGNAL") notes += "\r\nSignal: " + Rest(w, 2);
        } else if (code == "FS" && u.size() >= 3) {
            anyRecord = true;
            h.dieSizeXmm = Num(u[1], 0);
            h.dieSizeYmm = Num(u[2], 0);
            if (h.dieSizeXmm > kMicronLimit) h.dieSizeXmm /= 1000;
            if (h.dieSizeYmm > kMicronLimit) h.dieSizeYmm /= 1000;
        } else if (code == "MD" && u.size() >= 4) {
            anyRecord = true;
            double x = Num(u[2], 0), y = Num(u[3], 0);
            if (std::fabs(x) > kMicronLimit || std::fabs(y) > kMicronLimit) {
                x /= 1000;
                y /= 1000;
            }
            marks[std::max(1L, std::lround(Num(u[1], 1)))] = {x, y};
        } else if (code == "MARK_OFFSET" && u.size() >= 3) {
            offX = Num(u[1], 0);
            offY = Num(u[2], 0);
        } else if (code == "MB" && u.size() >= 2) {
            anyRecord = true;
            if (char l = LevelOf(u[1])) level = l;
        } else if (code == "REDBLUE" || code == "M1EM2") {
            notes += "\r\nSignal: " + w[0];
        } else if (code == "FOCAL_BESTFOCUS" || code == "BESTFOCUSFOCAL" || code == "BESTFOCUSSTATISTICS") {
            notes += "\r\n" + w[0] + ": " + Rest(w, 1);
        } else if (code == "OV") {
            anyRecord = true;
            size_t i = 1;
            char l = level;
            if (u.size() > 1 && LevelOf(u[1])) l = LevelOf(u[i++]);
            double col, row, mark, dx, dy;
            if (u.size() < i + 6 || !ParseFileNumber(u[i + 1], col) || !ParseFileNumber(u[i + 2], row) ||
                !ParseFileNumber(u[i + 3], mark) || !ParseFileNumber(u[i + 4], dx) || !ParseFileNumber(u[i + 5], dy))
                continue;  // a result the tool could not measure
            bool valid = true;
            if (u.size() > i + 6) {
                const std::string& fl = u[i + 6];
                valid = !(fl == "0" || fl == "N" || fl == "NO" || fl == "FAIL" || fl == "*" || fl == "INVALID");
            }
            Reg r{w[i], std::lround(col), std::lround(row), std::max(1L, std::lround(mark)),
                  (dx - offX) * scale, (dy - offY) * scale, valid, in.lineNumber()};
            (l == 'B' ? levelB : levelA).push_back(std::move(r));
            if ((++results % 100) == 0) {
                SetStatusText("Data Import Row " + std::to_string(results));
                if (CheckEscKey()) return failed(in.lineNumber(), " Aborting data load...");
            }
        }
    }
    const long lastLineNo = in.lineNumber();
    in.close();
    if (!anyRecord) {
        if (lastLineNo == 0)
            return failed(0, IncompleteDataText(name));
        return failed(lastLineNo, "End of file encountered early.\r\nLast Line: '" + lastLine +
                                      "'\r\nPlease check the import type or data file.");
    }
    if (levelA.empty())
        return failed(lastLineNo, IncompleteDataText(name));

    // Level A to the tables.
    p.chk = 3;
    ReaderTables t;
    t.reserveRows(static_cast<long>(levelA.size()));
    t.setFeature(0, "X");
    t.setFeature(1, "Y");
    t.setUnit(0, "um");
    t.setUnit(1, "um");
    for (const Reg& r : levelA) {
        const long row = t.addRow();
        t.cell(row, 1) = WaferValue(r.wafer);
        t.cell(row, 2) = static_cast<int32_t>(r.mark);
        t.cell(row, 3) = static_cast<int32_t>(r.dieX);
        t.cell(row, 4) = static_cast<int32_t>(r.dieY);
        t.cell(row, 5) = r.x;
        t.cell(row, 6) = r.y;
        if (!t.hasSite(r.mark)) {
            auto it = marks.find(r.mark);
            const double x = it == marks.end() ? 0 : it->second.first, y = it == marks.end() ? 0 : it->second.second;
            t.addSite(r.mark, h.dieSizeXmm, h.dieSizeYmm, x, y, h.family);
        }
        if (!r.valid) t.excludeLastRow(r.line);
    }
    if (t.rows() < 1) return failed(lastLineNo, "No data rows were imported.");
    // The grid shift the save applies, read off the first row.
    const long firstX = std::lround(t.cell(1, 3).toDouble()), firstY = std::lround(t.cell(1, 4).toDouble());

    p.chk = 4;
    h.comment = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName No:" + h.lotName +
                " / Job Plan: " + h.job + "\r\nLotName: " + h.lotName + "\r\nSystem: " + h.system +
                "\r\nUser: " + h.user + notes;
    std::error_code ec;
    const bool existed = fs::exists(ReaderWorkbookPath(request), ec);
    Result<std::string> saved = FinishImport(p, request, t, h, nullptr);
    if (!saved) return saved;

    // Level B less level A, where both measured a mark.
    p.chk = 5;
    const long shiftX = std::lround(t.dataTable()(1, 3).toDouble()) - firstX;
    const long shiftY = std::lround(t.dataTable()(1, 4).toDouble()) - firstY;
    Datam overlay = OverlayTable(levelA, levelB, shiftX, shiftY);
    if (overlay.isArray()) {
        SetStatusText(std::string("Saving ") + kOverlayTitle);
        if (Status s = WriteOverlaySheet(*saved, overlay); !s) {
            if (WorkbookPtr wb = Workbooks::Find(*saved)) Workbooks::Close(wb);
            if (!existed) fs::remove(*saved, ec);
            p.quiet();
            return s.failure();
        }
    }
    return saved;
}

}  // namespace zorv
