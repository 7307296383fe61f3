// AMAT NanoSEM 3D reports, in two forms.
// The detailed report: "KEY: value" lines (RECIPE:, LOT:, NAME: the device,
// ORIENTATION: the notch, DATE:, TIME:, TOOL:), "ID: <wafer>" before each
// wafer's table, and tables drawn with "|" and "+--" or "----" rules. The
// table that counts has a header with DIE, LOCATION X, LOCATION Y, NAME and
// MEASUREMENT (TARGET, 3SIGMA, EDGES or Edges_*, SUCCESS optional); the die
// is written "@ 3,-2", "@_3_-2" or "@ (3, -2)", values carry their unit word
// ("91.2 nm", "-1200 um"; a length without one is nm, a place um). Tables
// without a location (a summary) are passed by; SUCCESS other than YES/OK/
// PASS/SUCCESS/1 excludes the measurement.
// The RPT form: comma or tab separated, "Key,value" lines (Recipe_Product,
// Recipe_Layer, Tool_ID, Lot_ID, Date, Time) and a table whose header holds
// Field_Order or LC_Order: Wafer_ID (or Slot), LC_Order (the site), F.ID_X,
// F.ID_Y (the field), LocationX_(field), LocationY_(field) (site in the
// field, um), PR_Vector_X/Y, Location_X/Y (wafer places, not kept), and the
// measured columns, each "name(unit)" (nm when none is given).
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <tuple>
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

enum class Mode { ByName, ByFamily, RptOnly };

std::string_view TrimView(std::string_view f) {
    while (!f.empty() && (f.front() == ' ' || f.front() == '\t' || f.front() == '"')) f.remove_prefix(1);
    while (!f.empty() && (f.back() == ' ' || f.back() == '\t' || f.back() == '"' || f.back() == '\r')) f.remove_suffix(1);
    return f;
}

void Split(std::string_view line, char d, std::vector<std::string_view>& out) {
    out.clear();
    size_t start = 0;
    for (size_t i = 0; i <= line.size(); ++i)
        if (i == line.size() || line[i] == d) {
            out.push_back(TrimView(line.substr(start, i - start)));
            start = i + 1;
        }
}

// A header cell as a key: upper case, blanks to "_".
std::string Key(std::string_view cell) {
    std::string k = Upper(TrimView(cell));
    std::replace(k.begin(), k.end(), ' ', '_');
    return k;
}

// "91.2 nm" into 91.2 and "NM"; false without a leading number.
bool NumberAndUnit(std::string_view cell, double& v, std::string& unit) {
    cell = TrimView(cell);
    size_t end = 0;
    while (end < cell.size() && cell[end] != ' ' && cell[end] != '\t') ++end;
    std::string_view num = cell.substr(0, end);
    std::string_view rest = TrimView(cell.substr(end));
    // "91.2nm": the unit stuck to the number.
    if (rest.empty()) {
        size_t k = num.size();
        while (k > 0 && std::isalpha(static_cast<unsigned char>(num[k - 1]))) --k;
        rest = num.substr(k);
        num = num.substr(0, k);
    }
    unit = Upper(rest);
    return ParseFileNumber(num, v);
}

// A length to micrometres by its unit; none: nanometres at 1 or more.
double LengthUm(double v, const std::string& unit) {
    if (unit == "NM") return v / 1000;
    if (unit == "UM" || unit == "MICRON" || unit == "MICRONS") return v;
    if (unit == "MM") return v * 1000;
    if (unit == "A" || unit == "ANG" || unit == "ANGSTROM") return v / 10000;
    return v >= 1 ? v / 1000 : v;
}

// A place to micrometres; none: micrometres.
double PlaceUm(double v, const std::string& unit) {
    if (unit == "NM") return v / 1000;
    if (unit == "MM") return v * 1000;
    return v;
}

// The die of "@ 3,-2", "@_3_-2", "@ (3, -2)", or "3,-2".
bool DieOf(std::string_view cell, long& x, long& y) {
    size_t at = cell.find('@');
    std::string_view s = at == std::string_view::npos ? cell : cell.substr(at + 1);
    long got[2];
    int n = 0;
    for (size_t i = 0; i < s.size() && n < 2;) {
        const bool neg = s[i] == '-' && i + 1 < s.size() && std::isdigit(static_cast<unsigned char>(s[i + 1]));
        if (!neg && !std::isdigit(static_cast<unsigned char>(s[i]))) {
            ++i;
            continue;
        }
        size_t j = neg ? i + 1 : i;
        long v = 0;
        while (j < s.size() && std::isdigit(static_cast<unsigned char>(s[j]))) v = v * 10 + (s[j++] - '0');
        got[n++] = neg ? -v : v;
        i = j;
    }
    if (n < 2) return false;
    x = got[0];
    y = got[1];
    return true;
}

bool SuccessWord(std::string_view cell) {
    const std::string u = Upper(TrimView(cell));
    return u.empty() || u == "YES" || u == "Y" || u == "OK" || u == "PASS" || u == "SUCCESS" || u == "1" ||
           u == "TRUE";
}

// One measurement of the detailed report.
struct Meas {
    int wafer;         // index into wafers
    long dieX, dieY;
    int site;          // site number, from 1
    int feature;       // by name: the name's column; by family: 0
    double value = 0, sigma = 0;
    bool hasValue = false, hasSigma = false, ok = true;
    long line;
};

class NanoReader {
public:
    NanoReader(const ImportRequest& r, Mode mode, const char* tag) : req_(r), mode_(mode), p_(tag) {}
    Result<std::string> run();

private:
    Failure failed(long line, std::string text) { return FileFailure(p_, req_.path, line, std::move(text)); }
    Failure early(TextStream& in, const std::string& last) {
        if (in.lineNumber() == 0)
            return failed(0, IncompleteDataText(fs::path(req_.path).filename().string()));
        return failed(in.lineNumber(), "End of file encountered early.\r\nLast Line: '" + last +
                                           "'\r\nPlease check the import type or data file.");
    }
    Failure noRows(long line) {
        return failed(line, IncompleteDataText(fs::path(req_.path).filename().string()));
    }
    void keyLine(const std::string& key, std::string_view value);
    int waferIndex(const std::string& w);
    Status detailedLine(std::string_view s, long line);
    Status rpt(TextStream& in, std::string_view headerLine, char d);
    void emitDetailed();
    void setWafer(long r, const std::string& w);

    const ImportRequest& req_;
    Mode mode_;
    Proc p_;
    ReaderHeader h_;
    ReaderTables t_;
    std::vector<std::string> wafers_;
    std::string wafer_ = "1";
    std::vector<Meas> meas_;
    std::vector<std::string> names_;  // features by name
    struct SiteInfo {
        double xUm, yUm;
        std::string family;
    };
    std::vector<SiteInfo> sites_;
    std::map<std::string, int> siteOf_;
    struct TableCols {
        int die = -1, x = -1, y = -1, name = -1, meas = -1, sigma = -1, success = -1;
        std::string xUnit, yUnit;
        bool usable() const { return meas >= 0 && die >= 0 && x >= 0 && y >= 0; }
    } c_;
    bool inTable_ = false;
    std::vector<std::string_view> f_;
    std::string lastLine_;
    long headerLine_ = 0;
};

void NanoReader::keyLine(const std::string& key, std::string_view value) {
    std::string v(TrimView(value));
    if (key == "RECIPE" || key == "RECIPE_NAME") h_.recipe = v;
    else if (key == "RECIPE_PRODUCT" || key == "NAME" || key == "PRODUCT" || key == "DEVICE") h_.device = v;
    else if (key == "RECIPE_LAYER" || key == "LAYER") h_.layer = v;
    else if (key == "LOT" || key == "LOT_ID" || key == "LOTID") h_.lotName = v;
    else if (key == "ID" || key == "WAFER_ID" || key == "WAFER" || key == "SLOT") wafer_ = Replace(v, " ", "_");
    else if (key == "TOOL_ID" || key == "TOOL") h_.system = v;
    else if (key == "DATE") {
        // "DATE: 2026/01/14 09:30:00": the time may follow.
        size_t sp = v.find(' ');
        h_.date = v.substr(0, sp);
        if (sp != std::string::npos && h_.time.empty()) h_.time = std::string(TrimView(std::string_view(v).substr(sp)));
    } else if (key == "TIME") h_.time = v;
    else if (key == "ORIENTATION" || key == "NOTCH") {
        const std::string u = Upper(v);
        if (u == "U" || u == "UP" || u == "0" || u == "TOP") h_.notch = "UP";
        else if (u == "D" || u == "DOWN" || u == "180" || u == "BOTTOM") h_.notch = "DOWN";
        else if (u == "R" || u == "RIGHT" || u == "90") h_.notch = "RIGHT";
        else if (u == "L" || u == "LEFT" || u == "270") h_.notch = "LEFT";
    }
}

int NanoReader::waferIndex(const std::string& w) {
    auto it = std::find(wafers_.begin(), wafers_.end(), w);
    if (it != wafers_.end()) return static_cast<int>(it - wafers_.begin());
    wafers_.push_back(w);
    return static_cast<int>(wafers_.size()) - 1;
}

void NanoReader::setWafer(long r, const std::string& w) {
    double num;
    if (ParseFileNumber(w, num) && num == std::floor(num) && std::fabs(num) < 2e9)
        t_.cell(r, 1) = static_cast<int32_t>(num);
    else
        t_.cell(r, 1) = w;
}

// One line of the detailed report's tables.
Status NanoReader::detailedLine(std::string_view s, long line) {
    if (s.rfind("+--", 0) == 0 || s.rfind("----", 0) == 0 || s.rfind("====", 0) == 0) return StatusOk();
    if (s.front() != '|') {
        inTable_ = false;
        return StatusOk();
    }
    Split(s.substr(1, s.back() == '|' ? s.size() - 2 : s.size() - 1), '|', f_);
    TableCols& c = c_;
    if (!inTable_) {
        // A header row: its words, blanks as "_", units in brackets apart.
        std::vector<std::string> heads, units;
        for (std::string_view cell : f_) {
            std::string name, unit;
            UnitsExtract(cell, name, unit);
            heads.push_back(Key(name));
            units.push_back(Upper(unit));
        }
        c.die = FindWord(heads, {"DIE", "DIE_ID", "DIE_INDEX", "CHIP"});
        c.x = FindWord(heads, {"LOCATION_X", "LOCATIONX", "LOC_X", "X"});
        c.y = FindWord(heads, {"LOCATION_Y", "LOCATIONY", "LOC_Y", "Y"});
        c.name = FindWord(heads, {"NAME", "MEASUREMENT_NAME", "FEATURE", "TARGET_NAME"});
        c.meas = FindWord(heads, {"MEASUREMENT", "MEASURE", "VALUE", "CD"});
        c.sigma = FindWord(heads, {"3SIGMA", "3_SIGMA", "3-SIGMA"});
        c.success = FindWord(heads, {"SUCCESS", "STATUS", "SUCCESS?"});
        c.xUnit = c.x >= 0 ? units[c.x] : std::string();
        c.yUnit = c.y >= 0 ? units[c.y] : std::string();
        inTable_ = true;
        if (c.usable() && headerLine_ == 0) headerLine_ = line;
        return StatusOk();
    }
    if (!c.usable()) return StatusOk();  // a summary table
    auto cell = [&](int i) { return i >= 0 && i < static_cast<int>(f_.size()) ? f_[i] : std::string_view(); };
    Meas m{};
    m.line = line;
    if (!DieOf(cell(c.die), m.dieX, m.dieY)) return StatusOk();
    double x = 0, y = 0;
    std::string ux, uy, um, us;
    if (!NumberAndUnit(cell(c.x), x, ux) || !NumberAndUnit(cell(c.y), y, uy)) return StatusOk();
    x = PlaceUm(x, ux.empty() ? c.xUnit : ux);
    y = PlaceUm(y, uy.empty() ? c.yUnit : uy);
    const std::string name(cell(c.name));
    m.hasValue = NumberAndUnit(cell(c.meas), m.value, um);
    if (m.hasValue) m.value = LengthUm(m.value, um);
    m.hasSigma = NumberAndUnit(cell(c.sigma), m.sigma, us);
    if (m.hasSigma) m.sigma = LengthUm(m.sigma, us.empty() ? um : us);
    if (!m.hasValue && !m.hasSigma) return StatusOk();
    m.ok = SuccessWord(cell(c.success)) && (!m.hasValue || m.value > 0);
    m.wafer = waferIndex(wafer_);
    // A site is a place in the field; by family, a place and a name.
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.3f|%.3f", x, y);
    std::string key = buf;
    if (mode_ == Mode::ByFamily) key += "|" + Upper(name);
    auto [it, fresh] = siteOf_.emplace(key, static_cast<int>(sites_.size()) + 1);
    if (fresh)
        sites_.push_back({x, y, FamilyOfFeature(name, mode_ == Mode::ByFamily && !name.empty() ? name : h_.family)});
    m.site = it->second;
    m.feature = 0;
    if (mode_ != Mode::ByFamily) {
        auto n = std::find(names_.begin(), names_.end(), name);
        m.feature = static_cast<int>(n - names_.begin());
        if (n == names_.end()) names_.push_back(name);
    }
    meas_.push_back(m);
    if ((meas_.size() % 100) == 0) {
        SetStatusText("Data Import Row " + std::to_string(meas_.size()));
        if (CheckEscKey()) return failed(line, " Aborting data load...");
    }
    return StatusOk();
}

// The measurements into rows: by name one row per wafer, die and place with a
// column per name; by family one row per measurement. A failed measurement
// stands alone in the excluded table.
void NanoReader::emitDetailed() {
    if (mode_ == Mode::ByFamily) {
        t_.setFeature(0, "Measurement");
        t_.setUnit(0, "um");
        bool sigma = std::any_of(meas_.begin(), meas_.end(), [](const Meas& m) { return m.hasSigma; });
        if (sigma) {
            t_.setFeature(1, "3Sigma");
            t_.setUnit(1, "um");
        }
    } else {
        for (size_t k = 0; k < names_.size(); ++k) {
            t_.setFeature(static_cast<int>(k), names_[k].empty() ? "Measurement" : names_[k]);
            t_.setUnit(static_cast<int>(k), "um");
        }
    }
    std::map<std::tuple<int, long, long, int>, long> rowOf;
    auto fresh = [&](const Meas& m) {
        const long r = t_.addRow();
        setWafer(r, wafers_[m.wafer]);
        t_.cell(r, 2) = static_cast<int32_t>(m.site);
        t_.cell(r, 3) = static_cast<int32_t>(m.dieX);
        t_.cell(r, 4) = static_cast<int32_t>(m.dieY);
        return r;
    };
    // Failed ones last, each moved to the excluded table as it is made.
    for (int pass = 0; pass < 2; ++pass)
        for (const Meas& m : meas_) {
            if (m.ok != (pass == 0)) continue;
            long r;
            if (mode_ == Mode::ByName && pass == 0) {
                auto [it, isNew] = rowOf.emplace(std::make_tuple(m.wafer, m.dieX, m.dieY, m.site), 0);
                if (isNew) it->second = fresh(m);
                r = it->second;
            } else {
                r = fresh(m);
            }
            if (m.hasValue) t_.cell(r, 5 + m.feature) = m.value;
            if (mode_ == Mode::ByFamily && m.hasSigma) t_.cell(r, 6) = m.sigma;
            if (pass == 1) t_.excludeLastRow(m.line);
        }
    for (size_t s = 0; s < sites_.size(); ++s)
        t_.addSite(static_cast<long>(s) + 1, 0, 0, sites_[s].xUm / 1000, sites_[s].yUm / 1000, sites_[s].family);
}

// The RPT table, row by row.
Status NanoReader::rpt(TextStream& in, std::string_view headerLine, char d) {
    std::vector<std::string_view> f;
    Split(headerLine, d, f);
    std::vector<std::string> heads, units, names;
    for (std::string_view cell : f) {
        std::string name, unit;
        UnitsExtract(cell, name, unit);
        // "LocationX_(field)" is a name, not a unit.
        if (IEquals(unit, "field")) {
            name = std::string(cell);
            unit.clear();
        }
        heads.push_back(Key(name));
        units.push_back(Upper(unit));
        names.push_back(name);
    }
    headerLine_ = in.lineNumber();
    const int wafer = FindWord(heads, {"WAFER_ID", "WAFERID", "WAFER", "SLOT", "SLOT_ID"});
    const int site = FindWord(heads, {"LC_ORDER", "LC_ID", "SITE"});
    const int fx = FindWord(heads, {"F.ID_X", "F_ID_X", "FIELD_X", "FIELD_ID_X"});
    const int fy = FindWord(heads, {"F.ID_Y", "F_ID_Y", "FIELD_Y", "FIELD_ID_Y"});
    const int sx = FindWord(heads, {"LOCATIONX_(FIELD)", "LOCATION_X_(FIELD)", "LOCATIONX(FIELD)"});
    const int sy = FindWord(heads, {"LOCATIONY_(FIELD)", "LOCATION_Y_(FIELD)", "LOCATIONY(FIELD)"});
    const int product = FindWord(heads, {"RECIPE_PRODUCT"}), layer = FindWord(heads, {"RECIPE_LAYER"});
    const int tool = FindWord(heads, {"TOOL_ID"}), lot = FindWord(heads, {"LOT_ID", "LOT"});
    const int name = FindWord(heads, {"NAME", "TARGET", "MEASUREMENT_NAME"});
    if (sx < 0 || sy < 0 || fx < 0 || fy < 0) return failed(headerLine_, "This is not a proper format data sheet.");
    // Every other column is measured.
    std::vector<int> meas;
    for (int i = 0; i < static_cast<int>(heads.size()); ++i) {
        if (i == wafer || i == site || i == fx || i == fy || i == sx || i == sy || i == product || i == layer ||
            i == tool || i == lot || i == name || heads[i].empty())
            continue;
        const std::string& k = heads[i];
        if (k == "FIELD_ORDER" || k.rfind("PR_VECTOR", 0) == 0 || k == "LOCATION_X" || k == "LOCATION_Y" ||
            k == "DATE" || k == "TIME")
            continue;
        const int n = static_cast<int>(meas.size());
        meas.push_back(i);
        t_.setFeature(n, names[i]);
        const std::string& u = units[i];
        if (u.empty() || u == "NM" || u == "UM" || u == "A" || u == "MM") t_.setUnit(n, "um");
        else t_.setUnit(n, Lower(u));
    }
    if (meas.empty())
        return failed(headerLine_, "Header information for measured data not found. Aborting ...");
    auto lengthOf = [&](int n, double v) {
        const std::string& u = units[meas[n]];
        if (u.empty() || u == "NM" || u == "UM" || u == "A" || u == "MM") return LengthUm(v, u.empty() ? "NM" : u);
        return v;
    };
    std::string_view v;
    long rows = 0;
    int nextSite = 0;
    std::map<long, bool> seen;
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + req_.path + "\r\nWrong data format.");
        if (TrimView(v).empty()) continue;
        Split(v, d, f);
        auto cell = [&](int i) { return i >= 0 && i < static_cast<int>(f.size()) ? f[i] : std::string_view(); };
        double dx, dy;
        if (!ParseFileNumber(cell(fx), dx) || !ParseFileNumber(cell(fy), dy)) continue;
        bool any = false;
        double x;
        for (int i : meas)
            if (ParseFileNumber(cell(i), x)) any = true;
        if (!any) continue;
        if (rows == 0) {
            if (product >= 0) h_.device.assign(cell(product));
            if (layer >= 0) h_.layer.assign(cell(layer));
            if (tool >= 0) h_.system.assign(cell(tool));
            if (lot >= 0) h_.lotName.assign(cell(lot));
        }
        const long r = t_.addRow();
        if ((++rows % 100) == 0) SetStatusText("Data Import Row " + std::to_string(rows));
        setWafer(r, wafer >= 0 && !cell(wafer).empty() ? std::string(cell(wafer)) : wafer_);
        double sn;
        const long test = ParseFileNumber(cell(site), sn) && sn >= 1 ? std::lround(sn) : ++nextSite;
        t_.cell(r, 2) = static_cast<int32_t>(test);
        t_.cell(r, 3) = static_cast<int32_t>(std::lround(dx));
        t_.cell(r, 4) = static_cast<int32_t>(std::lround(dy));
        bool valid = true;
        for (size_t n = 0; n < meas.size(); ++n)
            if (ParseFileNumber(cell(meas[n]), x)) {
                if (x <= 0 && units[meas[n]] != "DEG") valid = false;  // failed measurement
                t_.cell(r, 5 + static_cast<int>(n)) = lengthOf(static_cast<int>(n), x);
            }
        if (!t_.hasSite(test)) {
            double px = 0, py = 0;
            ParseFileNumber(cell(sx), px);
            ParseFileNumber(cell(sy), py);
            const std::string nm(cell(name));
            t_.addSite(test, 0, 0, PlaceUm(px, units[sx]) / 1000, PlaceUm(py, units[sy]) / 1000,
                       FamilyOfFeature(nm, mode_ == Mode::ByFamily && !nm.empty() ? nm : h_.family));
        }
        if (!valid) t_.excludeLastRow(in.lineNumber());
    }
    if (rows == 0) return noRows(headerLine_);
    return StatusOk();
}

bool IsRptHeader(const std::string& upper) {
    return upper.find("FIELD_ORDER") != std::string::npos || upper.find("LC_ORDER") != std::string::npos ||
           upper.find("LOCATIONX_(FIELD)") != std::string::npos;
}

Result<std::string> NanoReader::run() {
    p_.chk = 1;
    TextStream in;
    if (Status s = in.open(req_.path); !s) {
        p_.quiet();
        return s.failure();
    }
    h_.toolName = "AMAT NanoSEM 3D";
    h_.dataType = "CDsem";
    // 2: line by line; the RPT header hands the rest of the file to rpt().
    p_.chk = 2;
    std::string_view v;
    std::vector<std::string_view> f;
    bool rptForm = false;
    int empty = 0;
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + req_.path + "\r\nWrong data format.");
        std::string_view s = TrimView(v);
        if (s.empty()) {
            if (++empty > kMaxEmptyLines && meas_.empty())
                return failed(in.lineNumber(), "More than 10 empty lines read &  Aborting! ");
            continue;
        }
        empty = 0;
        lastLine_.assign(v);
        if (IsRptHeader(Upper(s))) {
            p_.chk = 3;
            const char d = s.find('\t') != std::string_view::npos ? '\t' : ',';
            if (Status st = rpt(in, s, d); !st) {
                p_.quiet();
                return st.failure();
            }
            rptForm = true;
            break;
        }
        const size_t colon = s.find(':');
        const size_t delim = s.find_first_of(",\t");
        if (s.front() != '|' && delim != std::string_view::npos && (colon == std::string_view::npos || colon > delim)) {
            Split(s, s[delim], f);  // an RPT "Key,value" line
            keyLine(Key(f[0]), f[1]);
        } else if (s.front() != '|' && colon != std::string_view::npos) {
            keyLine(Key(s.substr(0, colon)), s.substr(colon + 1));
        } else if (mode_ != Mode::RptOnly) {
            p_.chk = 4;
            if (Status st = detailedLine(s, in.lineNumber()); !st) {
                p_.quiet();
                return st.failure();
            }
        }
    }
    in.close();
    if (!rptForm) {
        if (meas_.empty()) {
            if (headerLine_ > 0) return noRows(headerLine_);
            return early(in, lastLine_);
        }
        emitDetailed();
    }
    if (t_.rows() < 1) return noRows(headerLine_);
    p_.chk = 5;
    h_.comment = h_.toolName + "\r\nDevice: " + h_.device + " / Level: " + h_.layer + "\r\nLotName: " + h_.lotName +
                 "\r\nRecipe: " + h_.recipe + "\r\nSystem: " + h_.system;
    return FinishImport(p_, req_, t_, h_, nullptr);
}

}  // namespace

Result<std::string> ImportNanoSEM(const ImportRequest& request) {
    NanoReader r(request, Mode::ByName, "Import(ImportNanoSEM): ");
    return r.run();
}

Result<std::string> ImportNanoSEM_ByFamily(const ImportRequest& request) {
    NanoReader r(request, Mode::ByFamily, "Import(ImportNanoSEM_ByFamily): ");
    return r.run();
}

Result<std::string> ImportNanoSEM_RPTfile(const ImportRequest& request) {
    NanoReader r(request, Mode::RptOnly, "Import(ImportNanoSEM_RPTfile): ");
    return r.run();
}

}  // namespace zorv
