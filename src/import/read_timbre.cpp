// Timbre Technologies ODP reports (.odp, .csv), in their two layouts.
// Both start with keys, "KEY,value" (plain) or "KEY=value" (verbose):
//   MDLN, SOFTREV, RECIPENAME, CARRIERID (the lot), PROCESSMODULENAME,
//   LIBRARYNAME, DIETEMPLATE, DIE_SIZE_X/Y, REF_DIE_X/Y (the die at the wafer
//   centre), VUNITS, HUNITS, ZUNITS (units of the first, second and third
//   result), SLOTNUMBER (the wafer, again before each wafer), SEQUENCENUMBER.
// Plain: a table per wafer, one row per measurement:
//   MEAS.NO,DIE_ROW,DIE_COL,GLOBAL_X,GLOBAL_Y,ALARM,CD,HEIGHT,SWA
// Verbose: a record per measurement, its results one per line:
//   MEAS.NO=1 DIE_ROW=0 DIE_COL=0 GLOBAL_X=-5.0 GLOBAL_Y=5.0 ALARM=0
//   N=CD V=45.2
// MEAS.NO is the site of the die template. The site's place in the field is
// its wafer position less the die's centre, (DIE_COL - REF_DIE_X) times the
// die size (likewise Y with DIE_ROW). A measurement with its alarm set is
// excluded. The same data in either layout gives the same lot.
#include <cmath>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "base/text.h"
#include "import/getline.h"
#include "readers_ocd_film.h"

namespace zorv {

namespace fs = std::filesystem;
using namespace ocd_film;

namespace {

bool IsMeasHead(const std::string& k) { return IsOneOf(k, {"MEAS.NO", "MEAS.NO.", "MEAS_NO", "MEASNO", "MEAS NO"}); }

// "KEY=value KEY2=value 2": each key is the word before an "=", its value
// runs to the blank before the next key.
void EqualPairs(std::string_view line, std::vector<std::pair<std::string, std::string>>& out) {
    out.clear();
    std::vector<size_t> keyStart, eq;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] != '=') continue;
        size_t s = i;
        while (s > 0 && line[s - 1] != ' ' && line[s - 1] != '\t' && line[s - 1] != ',') --s;
        if (s == i) continue;
        keyStart.push_back(s);
        eq.push_back(i);
    }
    for (size_t k = 0; k < eq.size(); ++k) {
        size_t end = k + 1 < eq.size() ? keyStart[k + 1] : line.size();
        std::string value = Trim(line.substr(eq[k] + 1, end - eq[k] - 1));
        while (!value.empty() && (value.back() == ',' || value.back() == ';')) value.pop_back();
        out.emplace_back(Key(line.substr(keyStart[k], eq[k] - keyStart[k])), Trim(value));
    }
}

// One measurement, from a table row or a verbose record.
struct Measurement {
    bool open = false;
    long line = 0;
    double measNo = 0, row = 0, col = 0, gx = 0, gy = 0;
    bool alarm = false;
    std::vector<std::pair<std::string, double>> results;  // name (as written), value
    std::vector<std::string> units;                       // beside each name in a table header
};

struct State {
    ReaderTables& t;
    ReaderHeader& h;
    PointRows points;
    std::string wafer = "1";
    std::string unitKeys[3];  // VUNITS, HUNITS, ZUNITS
    double refX = 0, refY = 0;
    std::string family;
    long rows = 0;

    State(ReaderTables& tables, ReaderHeader& header) : t(tables), h(header), points(tables) {}

    // The keys both layouts share; false for a key that is not one.
    bool key(const std::string& k, const std::string& value) {
        double num = 0;
        const bool isNum = ParseFileNumber(value, num);
        if (k == "SLOTNUMBER" || k == "SLOT") {
            if (!value.empty()) wafer = value;
        } else if (k == "CARRIERID") h.lotName = value;
        else if (k == "RECIPENAME") h.recipe = value;
        else if (k == "MDLN") h.system = value;
        else if (k == "DIE_SIZE_X" && isNum) h.dieSizeXmm = PositionMm(num);
        else if (k == "DIE_SIZE_Y" && isNum) h.dieSizeYmm = PositionMm(num);
        else if (k == "REF_DIE_X" && isNum) refX = num;
        else if (k == "REF_DIE_Y" && isNum) refY = num;
        else if (k == "VUNITS") unitKeys[0] = value;
        else if (k == "HUNITS") unitKeys[1] = value;
        else if (k == "ZUNITS") unitKeys[2] = value;
        else if (k == "DATE" && h.date.empty()) h.date = value;
        else if (k == "TIME" && h.time.empty()) h.time = value;
        else return false;
        return true;
    }

    // The measurement into the tables.
    void emit(Measurement& m) {
        if (!m.open) return;
        m.open = false;
        if (m.results.empty()) return;
        const long site = std::max(1L, std::lround(m.measNo));
        const long dieX = std::lround(m.col), dieY = std::lround(m.row);
        const long r = points.row(wafer, site, dieX, dieY);
        for (size_t k = 0; k < m.results.size(); ++k) {
            const int next = t.featureCount();
            std::string unit = k < m.units.size() ? m.units[k] : std::string();
            if (unit.empty() && next < 3) unit = unitKeys[next];
            const int f = points.feature(m.results[k].first, unit);
            points.set(r, f, m.results[k].second);
        }
        if (family.empty()) {
            family = h.family;
            for (int k = 0; k < t.featureCount() && family == h.family; ++k)
                family = FamilyOfFeature(t.featureName(k), h.family);
        }
        const double x = PositionMm(m.gx) - (dieX - refX) * h.dieSizeXmm;
        const double y = PositionMm(m.gy) - (dieY - refY) * h.dieSizeYmm;
        points.site(site, std::round(x * 1e4) / 1e4, std::round(y * 1e4) / 1e4, family);
        ++rows;
        if (m.alarm) points.excludeLast(m.line);
    }
};

// The table header of the plain layout.
struct Columns {
    int meas = -1, row = -1, col = -1, gx = -1, gy = -1, alarm = -1;
    std::vector<int> results;
    std::vector<std::string> names, units;
};

Columns ReadColumns(const std::vector<std::string>& heads) {
    Columns c;
    for (int i = 0; i < static_cast<int>(heads.size()); ++i) {
        const std::string k = Key(heads[i]);
        if (k.empty()) continue;
        if (IsMeasHead(k)) c.meas = i;
        else if (IsOneOf(k, {"DIE_ROW", "DIEROW", "DIE ROW"})) c.row = i;
        else if (IsOneOf(k, {"DIE_COL", "DIECOL", "DIE COL"})) c.col = i;
        else if (IsOneOf(k, {"GLOBAL_X", "GLOBALX", "GLOBAL X"})) c.gx = i;
        else if (IsOneOf(k, {"GLOBAL_Y", "GLOBALY", "GLOBAL Y"})) c.gy = i;
        else if (k == "ALARM") c.alarm = i;
        else if (IsOneOf(k, {"SEQUENCENUMBER", "SLOTNUMBER", "SITE", "DIE"})) continue;
        else {
            c.results.push_back(i);
            c.names.push_back(NameOfHeader(heads[i]));
            c.units.push_back(UnitOfHeader(heads[i]));
        }
    }
    return c;
}

Result<std::string> ReadTimbre(const ImportRequest& request, bool verboseOnly) {
    Proc p(verboseOnly ? "Import(ImportTimbreODP_Verbose): " : "Import(ImportTimbreODP): ");
    p.chk = 1;
    const std::string& source = request.path;
    ReaderTables t;
    ReaderHeader h;
    h.dataType = "Scatter";
    h.toolName = "Timbre Tech ODP";
    State st(t, h);
    std::string software, library, module, dieTemplate, lastLine;

    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }
    if (in.size() > 0) t.reserveRows(static_cast<long>(in.size() / 64) + 16);

    p.chk = 2;
    std::string_view v;
    std::vector<std::string> f;
    std::vector<std::pair<std::string, std::string>> pairs;
    std::string key, value;
    Columns c;
    Measurement m;
    char delim = ',';
    bool inTable = false, sawData = false;
    std::string pendingName;  // a verbose "N=" whose "V=" is on the next line
    auto others = [&](const std::string& k, const std::string& val) {
        if (k == "SOFTREV") software = val;
        else if (k == "LIBRARYNAME") library = val;
        else if (k == "PROCESSMODULENAME") module = val;
        else if (k == "DIETEMPLATE") dieTemplate = val;
    };
    while (in.readLine(v)) {
        if (in.sawNul()) return BinaryFailure(p, source, in.lineNumber());
        if (IsBlank(v)) continue;
        lastLine.assign(v);
        if (v.find('=') != std::string_view::npos) {
            // 3: the verbose layout.
            p.chk = 3;
            inTable = false;
            EqualPairs(v, pairs);
            for (auto& [k, val] : pairs) {
                double num = 0;
                const bool isNum = ParseFileNumber(val, num);
                if (IsMeasHead(k)) {
                    st.emit(m);
                    if (RowProgress(st.rows)) return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
                    m = Measurement();
                    m.open = sawData = true;
                    m.line = in.lineNumber();
                    if (!isNum) return FileFailure(p, source, in.lineNumber(), "Wrong data format.");
                    m.measNo = num;
                } else if (k == "N") {
                    pendingName = val;
                } else if (k == "V") {
                    if (!m.open || pendingName.empty()) return FileFailure(p, source, in.lineNumber(), "Wrong data format.");
                    if (isNum) m.results.emplace_back(NameOfHeader(pendingName), num);
                    pendingName.clear();
                } else if (m.open && IsOneOf(k, {"DIE_ROW", "DIEROW"})) m.row = num;
                else if (m.open && IsOneOf(k, {"DIE_COL", "DIECOL"})) m.col = num;
                else if (m.open && IsOneOf(k, {"GLOBAL_X", "GLOBALX"})) m.gx = num;
                else if (m.open && IsOneOf(k, {"GLOBAL_Y", "GLOBALY"})) m.gy = num;
                else if (m.open && k == "ALARM") m.alarm = FlagSet(val);
                else {
                    if (k == "SLOTNUMBER" || k == "SLOT") st.emit(m);
                    if (!st.key(k, val)) others(k, val);
                }
            }
            continue;
        }
        if (inTable) {
            SplitFields(v, delim, f);
            double meas;
            if (c.meas < static_cast<int>(f.size()) && ParseFileNumber(f[c.meas], meas)) {
                // 4: a row of the plain table.
                p.chk = 4;
                auto number = [&](int i) {
                    double x = 0;
                    if (i >= 0 && i < static_cast<int>(f.size())) ParseFileNumber(f[i], x);
                    return x;
                };
                m = Measurement();
                m.open = sawData = true;
                m.line = in.lineNumber();
                m.measNo = meas;
                m.row = number(c.row);
                m.col = number(c.col);
                m.gx = number(c.gx);
                m.gy = number(c.gy);
                m.alarm = c.alarm >= 0 && c.alarm < static_cast<int>(f.size()) && FlagSet(f[c.alarm]);
                for (size_t k = 0; k < c.results.size(); ++k) {
                    double x;
                    if (c.results[k] < static_cast<int>(f.size()) && ParseFileNumber(f[c.results[k]], x)) {
                        m.results.emplace_back(c.names[k], x);
                        m.units.resize(m.results.size());
                        m.units.back() = c.units[k];
                    }
                }
                st.emit(m);
                if (RowProgress(st.rows))
                    return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
                continue;
            }
            inTable = false;
        }
        // 2: keys and table headers of the plain layout.
        p.chk = 2;
        st.emit(m);
        const char d = DelimiterOf(v);
        SplitFields(v, d, f);
        bool header = false;
        for (const std::string& field : f)
            if (IsMeasHead(Key(field))) header = true;
        if (header && f.size() > 1) {
            if (verboseOnly) return FileFailure(p, source, in.lineNumber(), "Wrong data format.");
            c = ReadColumns(f);
            if (c.results.empty())
                return FileFailure(p, source, in.lineNumber(),
                                   "Header information for measured data not found. Aborting ...");
            delim = d;
            inTable = true;
            continue;
        }
        if (SplitKeyValue(v, key, value) && !st.key(key, value)) others(key, value);
    }
    st.emit(m);
    in.close();
    if (!sawData) {
        if (in.lineNumber() == 0)
            return FileFailure(p, source, 0,
                               IncompleteDataText(fs::path(source).filename().string()));
        return EarlyEndFailure(p, source, in.lineNumber(), lastLine);
    }
    if (t.rows() < 1)
        return FileFailure(p, source, in.lineNumber(),
                           IncompleteDataText(fs::path(source).filename().string()));
    p.chk = 5;
    h.comment = h.toolName + "\r\nModel: " + h.system + " / Software: " + software + "\r\nLotName: " + h.lotName +
                "\r\nRecipe: " + h.recipe + " / Library: " + library + "\r\nProcess module: " + module +
                " / Die template: " + dieTemplate;
    return FinishImport(p, request, t, h, nullptr);
}

}  // namespace

Result<std::string> ImportTimbreODP(const ImportRequest& request) { return ReadTimbre(request, false); }

Result<std::string> ImportTimbreODP_Verbose(const ImportRequest& request) { return ReadTimbre(request, true); }

}  // namespace zorv
