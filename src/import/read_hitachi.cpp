// Hitachi CD-SEM S9xxx measurement result (.msr). Comma- or tab-separated
// lines in sections opened by a tag line ("_INFO", "_MEASURE", "_DATA",
// "_STATS"; any order, a tag may carry a suffix such as "_DATA_1"):
//   _INFO     "key, value" lines: IDW_INFO (device, layer), LOT, RECIPE, DATE,
//             TIME, SLOT_NO (wafer of the lines that follow), MAP_ORIGIN (chip
//             taken as index 0,0), MAP_OFFSET, CHIP_PITCH (um), FEM_EXECUTION,
//             FEM_X/FEM_Y (chip of nominal focus), FOCUS_STEP (um per chip
//             column), CTRL_VALUE, UCL1, UCL2, LCL1, LCL2 (control chart).
//   _MEASURE  TOTAL_OF_MP_NAME, then a header (MP_NO, MP_NAME, MP_X, MP_Y,
//             EDGROUGH, UPPERLEFT, LOWERRIGHT) and a line per measurement
//             point: its place in the chip, um unless the header says "(nm)".
//   _DATA     a header (SLOT_NO, CHIP_X, CHIP_Y, MP_NO or MP_NAME, then items
//             named "<name>_mean1", "_3sigma", "_Mi/Ma", "_Xdiam", "_Ydiam1",
//             "_Area"), a line per chip and point. Lengths nm unless "(um)";
//             "*" or blank: not measured; 0 or less: failed, excluded.
//   _STATS    a header (SLOT_NO, MP_NO or MP_NAME, MEAN, 3SIGMA, MAX, MIN,
//             RANGE), a line per wafer and point, nm.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "lot/features.h"
#include "reader.h"
#include "readers_cdsem.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr int kMaxEmptyLines = 10;

enum class Section { None, Info, Measure, Data, Stats };

// The fields of a line: at commas, else at tabs, trimmed.
void SplitCells(std::string_view line, std::vector<std::string_view>& out) {
    out.clear();
    const char d = line.find(',') != std::string_view::npos ? ',' : '\t';
    size_t start = 0;
    for (size_t i = 0; i <= line.size(); ++i)
        if (i == line.size() || line[i] == d) {
            std::string_view f = line.substr(start, i - start);
            while (!f.empty() && (f.front() == ' ' || f.front() == '\t' || f.front() == '"')) f.remove_prefix(1);
            while (!f.empty() && (f.back() == ' ' || f.back() == '\t' || f.back() == '"')) f.remove_suffix(1);
            out.push_back(f);
            start = i + 1;
        }
}

// A section tag: the first cell alone, starting "_" and naming a section.
Section SectionOf(const std::string& upperFirst) {
    if (upperFirst.empty() || upperFirst[0] != '_') return Section::None;
    if (upperFirst.rfind("_INFO", 0) == 0) return Section::Info;
    if (upperFirst.rfind("_MEASURE", 0) == 0) return Section::Measure;
    if (upperFirst.rfind("_DATA", 0) == 0) return Section::Data;
    if (upperFirst.rfind("_STATS", 0) == 0 || upperFirst.rfind("_STATISTICS", 0) == 0) return Section::Stats;
    return Section::None;
}

// A column name in upper case without its unit, and the unit.
std::string HeadKey(std::string_view cell, std::string* unit = nullptr) {
    std::string name, u;
    UnitsExtract(cell, name, u);
    if (unit) *unit = Upper(u);
    return Upper(name);
}

// The measured items of the data section.
bool IsItemColumn(const std::string& upperName) {
    for (const char* s : {"_MEAN", "_3SIGM", "_MI/MA", "_XDIAM", "_YDIAM", "_AREA"})
        if (upperName.find(s) != std::string::npos) return true;
    return false;
}

// A length to micrometres by its unit word (nanometres when none).
double ToMicrons(double v, const std::string& upperUnit, bool area) {
    const double f = upperUnit == "UM" || upperUnit == "MICRON" ? 1 : upperUnit == "MM" ? 1000 : 0.001;
    return area ? v * f * f : v * f;
}

struct MeasurePoint {
    std::string name;
    double xUm = 0, yUm = 0;
};

// What the whole file tells, whichever part a reader takes.
struct MsrFile {
    ReaderHeader h;
    std::map<long, MeasurePoint> points;          // by MP number
    std::map<std::string, long> numberOfName;     // upper-case MP name
    std::string limits;                           // "UCL1=..., ..." as met
    long originX = 0, originY = 0, femX = 0, femY = 0;
    double focusStepUm = 0;
    bool fem = false;
};

long PointNumber(MsrFile& m, std::string_view noCell, std::string_view nameCell) {
    double n;
    if (ParseFileNumber(noCell, n) && n >= 1) {
        auto& p = m.points[std::lround(n)];
        if (p.name.empty() && !nameCell.empty()) p.name.assign(nameCell);
        return std::lround(n);
    }
    if (nameCell.empty()) return 1;
    const std::string key = Upper(nameCell);
    auto it = m.numberOfName.find(key);
    if (it != m.numberOfName.end()) return it->second;
    long next = m.points.empty() ? 1 : m.points.rbegin()->first + 1;
    m.numberOfName[key] = next;
    m.points[next].name.assign(nameCell);
    return next;
}

// One "key, value" line of the info section (also met between sections).
void InfoLine(MsrFile& m, const std::string& key, const std::vector<std::string_view>& c, std::string& slot) {
    auto cell = [&](size_t i) { return i < c.size() ? std::string(c[i]) : std::string(); };
    auto num = [&](size_t i) {
        double v = 0;
        if (i < c.size()) ParseFileNumber(c[i], v);
        return v;
    };
    ReaderHeader& h = m.h;
    if (key == "IDW_INFO" || key == "IDW") {
        h.device = cell(1);
        if (c.size() > 2) h.layer = cell(2);
    } else if (key == "LOT" || key == "LOT_NO" || key == "LOT_ID" || key == "LOTID") {
        h.lotName = cell(1);
    } else if (key == "RECIPE" || key == "RECIPE_NAME" || key == "IDP") {
        h.recipe = cell(1);
    } else if (key == "LAYER") {
        h.layer = cell(1);
    } else if (key == "DATE") {
        h.date = cell(1);
    } else if (key == "TIME") {
        h.time = cell(1);
    } else if (key == "SLOT_NO" || key == "SLOT" || key == "SLOTNO") {
        slot = cell(1);
    } else if (key == "OPERATOR" || key == "USER") {
        h.user = cell(1);
    } else if (key == "MACHINE" || key == "TOOL_ID" || key == "SYSTEM") {
        h.system = cell(1);
    } else if (key == "MAP_ORIGIN") {
        m.originX = std::lround(num(1));
        m.originY = std::lround(num(2));
    } else if (key == "MAP_OFFSET") {
        h.siteXoffsetMm = num(1) / 1000;
        h.siteYoffsetMm = num(2) / 1000;
    } else if (key == "CHIP_PITCH" || key == "CHIP_SIZE") {
        h.dieSizeXmm = num(1) / 1000;
        h.dieSizeYmm = (c.size() > 2 ? num(2) : num(1)) / 1000;
    } else if (key == "FEM_EXECUTION") {
        const std::string v = Upper(cell(1));
        m.fem = v == "ON" || v == "YES" || v == "1" || v == "TRUE";
    } else if (key == "FEM_X") {
        m.femX = std::lround(num(1));
    } else if (key == "FEM_Y") {
        m.femY = std::lround(num(1));
    } else if (key == "FOCUS_STEP") {
        m.focusStepUm = num(1);
    } else if (key == "CTRL_VALUE" || key == "UCL1" || key == "UCL2" || key == "LCL1" || key == "LCL2") {
        if (!m.limits.empty()) m.limits += ", ";
        m.limits += key + "=" + cell(1);
    }
}

// The measure section's table: MP number, name and place.
struct MeasureColumns {
    int no = -1, name = -1, x = -1, y = -1;
    std::string xUnit, yUnit;
};

void MeasureHeader(const std::vector<std::string_view>& c, MeasureColumns& mc) {
    std::vector<std::string> heads;
    std::vector<std::string> units;
    for (std::string_view s : c) {
        std::string u;
        heads.push_back(HeadKey(s, &u));
        units.push_back(u);
    }
    mc.no = FindWord(heads, {"MP_NO", "MPNO", "MP_NUMBER", "MP"});
    mc.name = FindWord(heads, {"MP_NAME", "MPNAME", "NAME"});
    mc.x = FindWord(heads, {"MP_X", "MPX", "MP_POS_X", "X"});
    mc.y = FindWord(heads, {"MP_Y", "MPY", "MP_POS_Y", "Y"});
    if (mc.x >= 0) mc.xUnit = units[mc.x];
    if (mc.y >= 0) mc.yUnit = units[mc.y];
}

double PlaceUm(std::string_view cell, const std::string& unit) {
    double v = 0;
    ParseFileNumber(cell, v);
    if (unit == "NM") return v / 1000;
    if (unit == "MM") return v * 1000;
    return v;
}

// The columns of the data or statistics table.
struct TableColumns {
    int slot = -1, chipX = -1, chipY = -1, mpNo = -1, mpName = -1;
    std::vector<int> items;            // measured columns
    std::vector<std::string> units;    // their unit words
    std::vector<bool> area;
};

enum class Part { Points, Stats };

class MsrReader {
public:
    MsrReader(const ImportRequest& r, Part part, const char* tag) : req_(r), part_(part), p_(tag) {}
    Result<std::string> run();

private:
    Failure failed(long line, std::string text) { return FileFailure(p_, req_.path, line, std::move(text)); }
    bool tableHeader(const std::vector<std::string_view>& c);
    void row(const std::vector<std::string_view>& c, long line);
    void addSites();
    std::string comment() const;

    const ImportRequest& req_;
    Part part_;
    Proc p_;
    MsrFile m_;
    ReaderTables t_;
    FieldExposures fields_;
    TableColumns tc_;
    std::string slot_ = "1";
    std::vector<long> seenPoints_;
    long headerLine_ = 0, dataRows_ = 0;
};

bool MsrReader::tableHeader(const std::vector<std::string_view>& c) {
    std::vector<std::string> heads, units;
    for (std::string_view s : c) {
        std::string u;
        heads.push_back(HeadKey(s, &u));
        units.push_back(u);
    }
    tc_ = TableColumns();
    tc_.slot = FindWord(heads, {"SLOT_NO", "SLOTNO", "SLOT", "SLOT_NUMBER", "WAFER", "WAFER_ID"});
    tc_.chipX = FindWord(heads, {"CHIP_X", "CHIPX", "CHIP_COL", "DIE_X", "CHIP_NO_X"});
    tc_.chipY = FindWord(heads, {"CHIP_Y", "CHIPY", "CHIP_ROW", "DIE_Y", "CHIP_NO_Y"});
    tc_.mpNo = FindWord(heads, {"MP_NO", "MPNO", "MP_NUMBER", "MP"});
    tc_.mpName = FindWord(heads, {"MP_NAME", "MPNAME"});
    std::vector<std::string> names;
    if (part_ == Part::Points) {
        for (int i = 0; i < static_cast<int>(heads.size()); ++i)
            if (IsItemColumn(heads[i])) {
                tc_.items.push_back(i);
                names.emplace_back(c[i]);
            }
    } else {
        // The statistics in a fixed order of names, whatever the file's order.
        const std::initializer_list<const char*> kinds[] = {{"MEAN", "AVERAGE", "AVE"},
                                                            {"3SIGMA", "3SIGM", "3-SIGMA", "3_SIGMA", "3S"},
                                                            {"MAX", "MAXIMUM"},
                                                            {"MIN", "MINIMUM"},
                                                            {"RANGE"}};
        const char* const label[] = {"Mean", "3Sigma", "Max", "Min", "Range"};
        for (int k = 0; k < 5; ++k) {
            int i = FindWord(heads, kinds[k]);
            if (i < 0) continue;
            tc_.items.push_back(i);
            names.emplace_back(label[k]);
        }
    }
    if (tc_.items.empty()) return false;
    for (size_t k = 0; k < tc_.items.size(); ++k) {
        t_.setFeature(static_cast<int>(k), names[k]);
        const std::string& u = units[tc_.items[k]];
        const bool area = heads[tc_.items[k]].find("_AREA") != std::string::npos;
        tc_.units.push_back(u);
        tc_.area.push_back(area);
        if (!area) t_.setUnit(static_cast<int>(k), "um");
    }
    return true;
}

void MsrReader::row(const std::vector<std::string_view>& c, long line) {
    auto cell = [&](int i) -> std::string_view { return i >= 0 && i < static_cast<int>(c.size()) ? c[i] : std::string_view(); };
    // A line without a single number among the items is no measurement.
    double v;
    bool any = false;
    for (int i : tc_.items)
        if (ParseFileNumber(cell(i), v)) any = true;
    if (!any) return;
    const long r = t_.addRow();
    if ((++dataRows_ % 100) == 0) SetStatusText("Data Import Row " + std::to_string(dataRows_));
    std::string_view w = cell(tc_.slot);
    std::string wafer = w.empty() ? slot_ : std::string(w);
    double num;
    if (ParseFileNumber(wafer, num) && num == std::floor(num) && std::fabs(num) < 2e9) {
        t_.cell(r, 1) = static_cast<int32_t>(num);
        wafer = std::to_string(static_cast<int32_t>(num));  // the Layout sheet's key: "03" is wafer 3
    } else {
        t_.cell(r, 1) = wafer;
    }
    const long mp = PointNumber(m_, cell(tc_.mpNo), cell(tc_.mpName));
    if (std::find(seenPoints_.begin(), seenPoints_.end(), mp) == seenPoints_.end()) seenPoints_.push_back(mp);
    double cx = 0, cy = 0;
    ParseFileNumber(cell(tc_.chipX), cx);
    ParseFileNumber(cell(tc_.chipY), cy);
    // Chips count from the map's origin; the statistics have no chip.
    const long dieX = tc_.chipX >= 0 ? std::lround(cx) - m_.originX : 0;
    const long dieY = tc_.chipY >= 0 ? std::lround(cy) - m_.originY : 0;
    t_.cell(r, 2) = static_cast<int32_t>(mp);
    t_.cell(r, 3) = static_cast<int32_t>(dieX);
    t_.cell(r, 4) = static_cast<int32_t>(dieY);
    bool valid = true;
    for (size_t k = 0; k < tc_.items.size(); ++k) {
        if (!ParseFileNumber(cell(tc_.items[k]), v)) continue;
        if (v <= 0 && part_ == Part::Points) valid = false;  // the tool's mark of a failed measurement
        t_.cell(r, 5 + static_cast<int>(k)) = ToMicrons(v, tc_.units[k], tc_.area[k]);
    }
    if (m_.fem && part_ == Part::Points)
        fields_.note(wafer, dieX, dieY, static_cast<double>(std::lround(cx) - m_.femX) * m_.focusStepUm, 0);
    if (!valid) t_.excludeLastRow(line);
}

void MsrReader::addSites() {
    for (long mp : seenPoints_) {
        const MeasurePoint& pt = m_.points[mp];
        t_.addSite(mp, m_.h.dieSizeXmm, m_.h.dieSizeYmm, pt.xUm / 1000, pt.yUm / 1000,
                   FamilyOfFeature(pt.name, m_.h.family));
    }
}

std::string MsrReader::comment() const {
    const ReaderHeader& h = m_.h;
    std::string s = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName: " + h.lotName +
                    "\r\nRecipe: " + h.recipe;
    if (!m_.limits.empty()) s += "\r\nUCL & LCL control limits " + m_.limits;
    return s;
}

Result<std::string> MsrReader::run() {
    p_.chk = 1;
    const std::string& source = req_.path;
    TextStream in;
    if (Status s = in.open(source); !s) {
        p_.quiet();
        return s.failure();
    }
    if (in.size() > 0) t_.reserveRows(static_cast<long>(in.size() / 64) + 16);
    m_.h.toolName = part_ == Part::Points ? "Hitachi CDsem S9xxx " : "Hitachi_CDSEM (statistical)";
    m_.h.dataType = "CDsem";

    p_.chk = 2;
    const Section wanted = part_ == Part::Points ? Section::Data : Section::Stats;
    Section sec = Section::None;
    bool expectHeader = false, haveHeader = false, sawWanted = false;
    MeasureColumns mc;
    bool measureHeader = false;
    std::vector<std::string_view> c;
    std::string lastLine;
    std::string_view v;
    int empty = 0;
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (v.find_first_not_of(" \t,") == std::string_view::npos) {
            if (++empty > kMaxEmptyLines && !sawWanted)
                return failed(in.lineNumber(), "More than 10 empty lines read &  Aborting! ");
            continue;
        }
        empty = 0;
        lastLine.assign(v);
        SplitCells(v, c);
        const std::string first = Upper(c[0]);
        if (Section s = SectionOf(first); s != Section::None) {
            sec = s;
            expectHeader = s == wanted;
            measureHeader = false;
            if (s == wanted) sawWanted = true;
            continue;
        }
        switch (sec) {
        case Section::None:
        case Section::Info:
            InfoLine(m_, first, c, slot_);
            break;
        case Section::Measure:
            if (first == "TOTAL_OF_MP_NAME") break;
            if (!measureHeader) {
                MeasureHeader(c, mc);
                measureHeader = mc.x >= 0 && mc.y >= 0;
                if (!measureHeader) InfoLine(m_, first, c, slot_);
                break;
            } else {
                auto cell = [&](int i) { return i >= 0 && i < static_cast<int>(c.size()) ? c[i] : std::string_view(); };
                const long mp = PointNumber(m_, cell(mc.no), cell(mc.name));
                MeasurePoint& pt = m_.points[mp];
                pt.xUm = PlaceUm(cell(mc.x), mc.xUnit);
                pt.yUm = PlaceUm(cell(mc.y), mc.yUnit);
            }
            break;
        case Section::Data:
        case Section::Stats:
            // A "key, value" line between blocks (the wafer of the next); a
            // table line has more cells.
            if (c.size() == 2 || (c.size() > 2 && c[2].empty() && c.back().empty())) {
                if (first == "SLOT_NO" || first == "SLOT" || first == "SLOTNO") {
                    InfoLine(m_, first, c, slot_);
                    break;
                }
            }
            if (sec != wanted) break;
            if (expectHeader) {
                p_.chk = 3;
                if (!tableHeader(c))
                    return failed(in.lineNumber(), "Header information for measured data not found. Aborting ...");
                expectHeader = false;
                haveHeader = true;
                if (headerLine_ == 0) headerLine_ = in.lineNumber();
                p_.chk = 4;
                break;
            }
            row(c, in.lineNumber());
            if ((dataRows_ % 100) == 0 && dataRows_ > 0 && CheckEscKey())
                return failed(in.lineNumber(), " Aborting data load...");
            break;
        }
    }
    in.close();
    if (!haveHeader) {
        if (in.lineNumber() == 0)
            return failed(0, IncompleteDataText(fs::path(source).filename().string()));
        return failed(in.lineNumber(), "End of file encountered early.\r\nLast Line: '" + lastLine +
                                           "'\r\nPlease check the import type or data file.");
    }
    if (t_.rows() < 1)
        return failed(headerLine_, IncompleteDataText(fs::path(source).filename().string()));
    p_.chk = 5;
    addSites();
    m_.h.comment = comment();
    return FinishImport(p_, req_, t_, m_.h, m_.fem && part_ == Part::Points ? &fields_ : nullptr);
}

}  // namespace

Result<std::string> ImportHitachi_CDSEM_S9xxx(const ImportRequest& request) {
    MsrReader r(request, Part::Points, "Import(ImportHitachi_CDSEM_S9xxx): ");
    return r.run();
}

Result<std::string> ImportHitachi_CDSEM_Stats(const ImportRequest& request) {
    MsrReader r(request, Part::Stats, "Import(ImportHitachi_CDSEM_Stats): ");
    return r.run();
}

}  // namespace zorv
