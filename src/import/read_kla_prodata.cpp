// KLA ProDATA focus-exposure files (.pfe). Keys, then the table after a
// line "Data":
//   Parameter1 = Focus (um)          the varied parameters, by name and unit
//   Parameter2 = Exposure (mJ/cm2)
//   TypeOfData = Linewidth (nm)      the measured quantity, named as written
//   FormatOfData = Focus Exposure Linewidth   the order of the columns
//   Target = 180                     the target CD, kept in the comment
//   Data
//   -0.20  18.0  175.2
// Without FormatOfData the columns are focus, exposure, then the values.
// Each focus and exposure pair is a field: columns by focus, rows by
// exposure, both ascending; repeats of a pair are sites 2, 3, ... of its
// field. The focus and dose go to the layout.
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

enum class Role { Focus, Dose, Value };

Role RoleOf(const std::string& upperWord) {
    if (upperWord.rfind("FOCUS", 0) == 0 || upperWord == "FOC" || upperWord == "DEFOCUS") return Role::Focus;
    if (upperWord.rfind("EXPOSURE", 0) == 0 || upperWord.rfind("DOSE", 0) == 0 || upperWord.rfind("ENERGY", 0) == 0)
        return Role::Dose;
    return Role::Value;
}

// Micrometres per unit of a focus unit.
double FocusUmPer(const std::string& unit) {
    const std::string u = Upper(unit);
    if (u == "NM") return 1e-3;
    if (u == "MM") return 1e3;
    return 1;
}

struct Reading {
    double focus, dose;
    std::vector<double> values;  // per value column; NaN when empty
    long line;
};

}  // namespace

Result<std::string> ImportKLAProData(const ImportRequest& request) {
    Proc p("Import(ImportKLAProData): ");
    p.chk = 1;
    const std::string& source = request.path;
    ReaderTables t;
    ReaderHeader h;
    h.dataType = "CDsem";
    h.toolName = "KLA ProData";
    FieldExposures fields;

    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }

    // 2: the keys up to "Data".
    p.chk = 2;
    std::string_view v;
    std::string key, value, lastLine, typeOfData, format, target, focusUnit;
    std::vector<std::string> parameters, f;
    bool sawData = false;
    while (in.readLine(v)) {
        if (in.sawNul()) return BinaryFailure(p, source, in.lineNumber());
        if (IsBlank(v)) continue;
        lastLine.assign(v);
        const std::string whole = Key(v);
        if (whole == "DATA" || whole == "[DATA]" || whole == "DATA:") {
            sawData = true;
            break;
        }
        if (!SplitKeyValue(v, key, value)) continue;
        if (key.rfind("PARAMETER", 0) == 0) parameters.push_back(value);
        else if (key == "TYPEOFDATA" || key == "TYPE OF DATA") typeOfData = value;
        else if (key == "FORMATOFDATA" || key == "FORMAT OF DATA") format = value;
        else if (key == "TARGET" || key == "TARGETCD" || key == "TARGET CD") target = value;
        else if (key == "LOT" || key == "LOTID" || key == "LOT ID") h.lotName = value;
        else if (key == "DEVICE") h.device = value;
        else if (key == "LAYER") h.layer = value;
        else if (key == "DATE" && h.date.empty()) h.date = value;
        else if (key == "TIME" && h.time.empty()) h.time = value;
        else if (key == "TITLE" || key == "NAME") h.recipe = value;
    }
    if (!sawData) {
        in.close();
        if (in.lineNumber() == 0)
            return FileFailure(p, source, 0,
                               IncompleteDataText(fs::path(source).filename().string()));
        return EarlyEndFailure(p, source, in.lineNumber(), lastLine);
    }
    const long dataLine = in.lineNumber();

    // 3: the roles of the columns; the focus unit from its parameter.
    p.chk = 3;
    std::vector<std::string> words;
    SplitFields(format, DelimiterOf(format), words);
    if (words.size() < 3) words = {"Focus", "Exposure", typeOfData.empty() ? "Value" : NameOfHeader(typeOfData)};
    std::vector<Role> roles;
    std::vector<std::string> valueNames;
    int nValues = 0;
    for (const std::string& w : words) {
        roles.push_back(RoleOf(Upper(w)));
        if (roles.back() == Role::Value) {
            ++nValues;
            valueNames.push_back(NameOfHeader(w));
        }
    }
    if (std::count(roles.begin(), roles.end(), Role::Focus) != 1 ||
        std::count(roles.begin(), roles.end(), Role::Dose) != 1 || nValues == 0)
        return FileFailure(p, source, dataLine, "Header information for measured data not found. Aborting ...");
    // TypeOfData names the one measured column, and gives its unit.
    std::string valueUnit = UnitOfHeader(typeOfData);
    if (nValues == 1 && !typeOfData.empty()) valueNames[0] = NameOfHeader(typeOfData);
    for (const std::string& par : parameters)
        if (RoleOf(Upper(NameOfHeader(par))) == Role::Focus) focusUnit = UnitOfHeader(par);
    const double focusUm = FocusUmPer(focusUnit);

    // 4: the readings.
    p.chk = 4;
    std::vector<Reading> readings;
    while (in.readLine(v)) {
        if (in.sawNul()) return BinaryFailure(p, source, in.lineNumber());
        if (IsBlank(v)) continue;
        SplitFields(v, DelimiterOf(v), f);
        Reading r{0, 0, std::vector<double>(static_cast<size_t>(nValues), std::nan("")), in.lineNumber()};
        bool ok = f.size() >= 2, any = false;
        size_t k = 0;
        for (size_t i = 0; i < roles.size() && ok; ++i) {
            double x;
            const bool num = i < f.size() && ParseFileNumber(f[i], x);
            if (roles[i] == Role::Focus) {
                ok = num;
                r.focus = num ? x * focusUm : 0;
            } else if (roles[i] == Role::Dose) {
                ok = num;
                r.dose = num ? x : 0;
            } else {
                if (num) {
                    r.values[k] = x;
                    any = true;
                }
                ++k;
            }
        }
        if (!ok || !any) continue;  // a note or a cut row
        readings.push_back(std::move(r));
        if (RowProgress(static_cast<long>(readings.size())))
            return FileFailure(p, source, in.lineNumber(), " Aborting data load...");
    }
    in.close();
    if (readings.empty())
        return FileFailure(p, source, dataLine,
                           IncompleteDataText(fs::path(source).filename().string()));

    // 5: fields by focus (columns) and exposure (rows), ascending.
    p.chk = 5;
    auto levels = [&](auto get) {
        std::vector<double> l;
        for (const Reading& r : readings) l.push_back(get(r));
        std::sort(l.begin(), l.end());
        l.erase(std::unique(l.begin(), l.end(), [](double a, double b) { return std::fabs(a - b) < 1e-9; }), l.end());
        return l;
    };
    const std::vector<double> foci = levels([](const Reading& r) { return r.focus; });
    const std::vector<double> doses = levels([](const Reading& r) { return r.dose; });
    auto indexOf = [](const std::vector<double>& l, double x) {
        return static_cast<long>(std::lower_bound(l.begin(), l.end(), x - 1e-9) - l.begin());
    };
    PointRows points(t);
    std::vector<int> feature;
    for (int k = 0; k < nValues; ++k)
        feature.push_back(points.feature(valueNames[static_cast<size_t>(k)], nValues == 1 || k == 0 ? valueUnit : ""));
    const std::string family = FamilyOfFeature(valueNames[0], h.family);
    std::vector<int> repeats(foci.size() * doses.size(), 0);
    for (const Reading& r : readings) {
        const long col = indexOf(foci, r.focus), row = indexOf(doses, r.dose);
        const long site = ++repeats[static_cast<size_t>(row) * foci.size() + static_cast<size_t>(col)];
        const long at = points.row("1", site, col, row);
        for (int k = 0; k < nValues; ++k)
            if (!std::isnan(r.values[static_cast<size_t>(k)])) points.set(at, feature[static_cast<size_t>(k)], r.values[static_cast<size_t>(k)]);
        points.site(site, 0, 0, family);
        fields.note("1", col, row, r.focus, r.dose);
    }

    p.chk = 6;
    if (h.lotName.empty()) h.lotName = fs::path(source).stem().string();
    h.comment = h.toolName + "\r\nLotName: " + h.lotName + "\r\nTypeOfData: " + typeOfData + "\r\nTargetCD: " + target;
    return FinishImport(p, request, t, h, &fields);
}

}  // namespace zorv
