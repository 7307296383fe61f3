#include "graphics/sub_data.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "app/preferences.h"
#include "app/settings.h"
#include "base/format.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "numerics/equation.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

struct Row {
    float pos, value;
    int32_t family;  // index into the families met
};

struct Moments {
    long n = 0;
    double sum = 0, sum2 = 0, lo = 0, hi = 0;
    void add(double v) {
        if (n == 0) lo = hi = v;
        ++n, sum += v, sum2 += v * v, lo = std::min(lo, v), hi = std::max(hi, v);
    }
    double mean() const { return n ? sum / double(n) : 0; }
    double stdev() const { return n > 1 ? std::sqrt(std::max(0.0, (sum2 - sum * sum / double(n)) / double(n - 1))) : 0; }
};

bool ReadRect(const Datam& d, double v[4]) {
    if (!d.isArray() || !(d.dims() == 1 || d.colUb() == d.colLb()) || d.rowUb() - std::max(d.rowLb(), 1) != 3)
        return false;
    int n = 0;
    for (int r = std::max(d.rowLb(), 1); r <= d.rowUb(); ++r)
        if (NumericOf(d.dims() == 1 ? d.at(r) : d.get(r, d.colLb()), v[n])) ++n;
    return n == 4;
}

std::string Mm(double um) { return Format(um / 1000, "0.0"); }

// The zone edges: given, else the "RadiusZone..." settings, else quarters of the radius.
std::vector<double> ZoneEdges(const SubDataOptions& o, const cLot& lot) {
    std::vector<double> z = o.zones;
    if (z.empty())
        for (const auto& [key, value] : GetAllSettings(PreferenceApplication("RadialOptions"), "RadialOptions")) {
            if (key.size() < 10 || !std::equal(key.begin(), key.begin() + 10, "RadiusZone", [](char a, char b) {
                    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
                }))
                continue;
            char* end = nullptr;
            const double v = std::strtod(value.c_str(), &end);
            if (end != value.c_str() && v > 0) z.push_back(v);
        }
    if (z.empty()) {
        const double r = lot.WaferSize > 0 ? lot.WaferSize / 2000.0 : 100.0;
        z = {r / 4, r / 2, 3 * r / 4, r};
    }
    std::sort(z.begin(), z.end());
    z.erase(std::unique(z.begin(), z.end()), z.end());
    return z;
}

}  // namespace

Status PlotSubData(cGraphic& chart, cLot& lot, const Datam& rect, const SubDataOptions& o, SubDataResult* result) {
    Proc p("Graphics(PlotSubData): ");
    SetStatusText("Data definition ...");
    double v[4];
    if (!ReadRect(rect, v)) return p.fail("Input 'dRect' must be a (4,1) array rectangle.");
    const double x0 = std::min(v[0], v[2]), x1 = std::max(v[0], v[2]);
    const double y0 = std::min(v[1], v[3]), y1 = std::max(v[1], v[3]);
    const char* kindWord = o.kind == SubDataKind::Radial ? "Radial " : o.kind == SubDataKind::Rows ? "Vertical(Rows) "
                                                                                                    : "Horizontal(Columns) ";

    // The points inside, with their position along the chart's X.
    p.chk = 1;
    SetStatusText(": Selected data...");
    SetStatusText("Data collection ...");
    std::vector<Row> rows;
    std::vector<long> familyIds;
    std::vector<std::string> familyNames;
    std::vector<const cWafer*> wafers;
    lot.forEachLive([&](cWafer& w, cField&, cSite& s, cPoint& pt) {
        const double x = o.fieldPositions ? s.LocationX : s.LocationXabs;
        const double y = o.fieldPositions ? s.LocationY : s.LocationYabs;
        if (x < x0 || x > x1 || y < y0 || y > y1) return;
        float a, b, c;
        const float value = pt.GetPlotFeatureValue(a, b, c);
        if (value == kMissingValue) return;
        const double pos = o.kind == SubDataKind::Radial ? std::hypot(x, y) : o.kind == SubDataKind::Rows ? y : x;
        // Families and wafers are few: a short search, names only on first sight.
        const long fam = s.Family();
        size_t k = 0;
        while (k < familyIds.size() && familyIds[k] != fam) ++k;
        if (k == familyIds.size()) {
            familyIds.push_back(fam);
            familyNames.push_back(s.FamilyName());
        }
        if (wafers.empty() || wafers.back() != &w)
            if (std::find(wafers.begin(), wafers.end(), &w) == wafers.end()) wafers.push_back(&w);
        rows.push_back({static_cast<float>(pos / 1000), value / 1000.0f, static_cast<int32_t>(k)});
    });
    if (rows.empty()) return p.fail("No data rows in selection.\r\nPlease re-display graphic and select the area again.");

    // By family, then position; one value per position when a statistic is asked for.
    p.chk = 2;
    const int nf = static_cast<int>(familyIds.size());
    if (nf > 1) SetStatusText("Sort by family ...");
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        return a.family != b.family ? a.family < b.family : a.pos < b.pos;
    });
    if (!o.statistic.empty()) {
        std::vector<Row> out;
        for (size_t i = 0; i < rows.size();) {
            Moments m;
            size_t j = i;
            for (; j < rows.size() && rows[j].family == rows[i].family && std::fabs(rows[j].pos - rows[i].pos) < 1e-4f; ++j)
                m.add(rows[j].value);
            double s = m.mean();
            if (o.statistic == "StDev") s = m.stdev();
            else if (o.statistic == "Maximum") s = m.hi;
            else if (o.statistic == "Minimum") s = m.lo;
            out.push_back({rows[i].pos, static_cast<float>(s), rows[i].family});
            i = j;
        }
        rows.swap(out);
    }

    // Radial analysis: zones and a polynomial of the radius per family.
    const std::string feature = lot.GetPlotFeatureName(lot.PlotFeature());
    std::vector<double> offsets(static_cast<size_t>(nf), 0.0), means(static_cast<size_t>(nf), 0.0);
    std::vector<std::string> fitText(static_cast<size_t>(nf));
    SubDataResult res;
    std::vector<size_t> start(static_cast<size_t>(nf) + 1, rows.size());
    for (size_t i = rows.size(); i-- > 0;) start[static_cast<size_t>(rows[i].family)] = i;
    for (int f = nf - 1; f >= 0; --f) start[static_cast<size_t>(f)] = std::min(start[static_cast<size_t>(f)], start[static_cast<size_t>(f) + 1]);
    const bool radial = o.kind == SubDataKind::Radial && o.radialAnalysis;
    if (radial) {
        p.chk = 3;
        SetStatusText("Update Radial Analysis Parameters...");
        int order = o.fitOrder;
        if (order <= 0) order = std::atoi(GetPreference("RadialOptions", "RadiusFitOrder").c_str());
        order = std::clamp(order <= 0 ? 3 : order, 1, 4);
        const std::vector<double> edges = ZoneEdges(o, lot);
        SetStatusText("Begin Radial Analysis ...");
        const int nz = static_cast<int>(edges.size());
        res.zones = Datam(nf * nz, 8, 0, 1);
        const char* zh[] = {"Feature", "Family", "Radius (mm)", "Average", "StDev", "Points", "Maximum", "Minimum"};
        for (int c = 0; c < 8; ++c) res.zones(0, c + 1) = Value(zh[c]);
        res.fit = Datam(nf, order + 7, 0, 1);
        res.fit(0, 1) = Value("Feature"), res.fit(0, 2) = Value("Family"), res.fit(0, 3) = Value("Offset");
        for (int k = 1; k <= order; ++k) res.fit(0, 3 + k) = Value("Coef_" + std::to_string(k));
        res.fit(0, order + 4) = Value("MSE"), res.fit(0, order + 5) = Value("Residuals(1s)");
        res.fit(0, order + 6) = Value("Average"), res.fit(0, order + 7) = Value("Count");
        for (int f = 0; f < nf; ++f) {
            SetStatusText("Assemble family '" + familyNames[static_cast<size_t>(f)] + "' values #" + std::to_string(f + 1) +
                          " of " + std::to_string(nf));
            const size_t a = start[static_cast<size_t>(f)], b = start[static_cast<size_t>(f) + 1];
            std::vector<Moments> zm(static_cast<size_t>(nz));
            Moments all;
            Datam t(static_cast<int>(b - a), 2, 0, 1);
            t(0, 1) = Value("Radius Abs (mm)"), t(0, 2) = Value(feature);
            for (size_t i = a; i < b; ++i) {
                const double r = rows[i].pos, val = rows[i].value;
                all.add(val);
                const auto z = std::lower_bound(edges.begin(), edges.end(), r - 1e-9);
                if (z != edges.end()) zm[static_cast<size_t>(z - edges.begin())].add(val);
                t(static_cast<int>(i - a) + 1, 1) = Value(r);
                t(static_cast<int>(i - a) + 1, 2) = Value(val);
            }
            for (int z = 0; z < nz; ++z) {
                const int r = f * nz + z + 1;
                const Moments& m = zm[static_cast<size_t>(z)];
                res.zones(r, 1) = Value(feature), res.zones(r, 2) = Value(familyNames[static_cast<size_t>(f)]);
                res.zones(r, 3) = Value(edges[static_cast<size_t>(z)]);
                res.zones(r, 6) = Value(static_cast<double>(m.n));
                if (m.n == 0) continue;
                res.zones(r, 4) = Value(m.mean()), res.zones(r, 5) = Value(m.stdev());
                res.zones(r, 7) = Value(m.hi), res.zones(r, 8) = Value(m.lo);
            }
            SetStatusText(" Fitting curve to radial data ...");
            means[static_cast<size_t>(f)] = all.mean();
            const CurveFit cf = FitCurve(t, 1, 2, order);
            const int r = f + 1;
            res.fit(r, 1) = Value(feature), res.fit(r, 2) = Value(familyNames[static_cast<size_t>(f)]);
            res.fit(r, order + 6) = Value(all.mean()), res.fit(r, order + 7) = Value(static_cast<double>(all.n));
            if (!cf.coef.isArray()) continue;
            std::vector<double> c(static_cast<size_t>(order) + 1, 0.0);
            for (int k = 0; k <= order && k + 1 <= cf.coef.rowUb(); ++k) c[static_cast<size_t>(k)] = cf.coef(k + 1, 1).toDouble();
            offsets[static_cast<size_t>(f)] = c[0];
            for (int k = 0; k <= order; ++k) res.fit(r, 3 + k) = Value(c[static_cast<size_t>(k)]);
            res.fit(r, order + 4) = Value(static_cast<double>(cf.mse));
            double ss = 0;
            for (size_t i = a; i < b; ++i) {
                double y = 0;
                for (int k = order; k >= 0; --k) y = y * rows[i].pos + c[static_cast<size_t>(k)];
                ss += (rows[i].value - y) * (rows[i].value - y);
            }
            const double n = static_cast<double>(b - a);
            res.fit(r, order + 5) = Value(n > 1 ? std::sqrt(ss / (n - 1)) : 0.0);
            fitText[static_cast<size_t>(f)] = cf.equation;
        }
    } else {
        for (int f = 0; f < nf; ++f) {
            Moments m;
            for (size_t i = start[static_cast<size_t>(f)]; i < start[static_cast<size_t>(f) + 1]; ++i) m.add(rows[i].value);
            means[static_cast<size_t>(f)] = m.mean();
        }
    }

    // The chart's table: "Position" and a value column per family.
    p.chk = 4;
    SetStatusText(" Series Setup...");
    std::string note;
    if (o.removeOffset && radial) note = " Fitted-curve OFFSET Removed";
    else if (o.subtractMean) note = " Curve MEAN Subtracted";
    Datam table(static_cast<int>(rows.size()), nf + 1, 0, 0);
    table(0, 1) = Value("Position");
    for (int f = 0; f < nf; ++f) table(0, f + 2) = Value(familyNames[static_cast<size_t>(f)].empty() ? feature : familyNames[static_cast<size_t>(f)]);
    for (size_t i = 0; i < rows.size(); ++i) {
        const size_t f = static_cast<size_t>(rows[i].family);
        double val = rows[i].value;
        if (o.removeOffset && radial) val -= offsets[f];
        else if (o.subtractMean) val -= means[f];
        table(static_cast<int>(i) + 1, 0) = Value(static_cast<double>(i + 1));
        table(static_cast<int>(i) + 1, 1) = Value(static_cast<double>(rows[i].pos));
        table(static_cast<int>(i) + 1, static_cast<int>(f) + 2) = Value(val);
    }
    chart.Kind = GraphKind::Chart;
    chart.Series.Clear();
    chart.Messages.clear();
    chart.KeyName = o.kind == SubDataKind::Radial ? "RadialPlot" : "RowPlot";
    if (Status st = chart.RegisterData(table); !st) return st;
    std::string names;
    for (const cWafer* w : wafers) names += (names.empty() ? "" : ",") + w->WaferID;
    std::string title = "Selected data: " + lot.LotName;
    std::replace(title.begin(), title.end(), '\n', ' ');
    std::replace(title.begin(), title.end(), '\r', ' ');
    title += " - Feature: " + feature + " Wafers:" + names + " Area Selected(X,Y)=(" + Mm(x0) + "," + Mm(y0) + ") to (" +
             Mm(x1) + "," + Mm(y1) + ")" + note;
    chart.TitleObj.TitleString = title;
    for (int f = 0; f < nf; ++f) {
        cSeries& c = chart.Series.Add(table(0, f + 2).toString());
        c.Xcol = 1, c.Ycol = f + 2;
        c.Connect = false;
        c.Symbol = static_cast<SymbolShape>(1 + f % (kSymbolShapes - 1));
        c.ColorFore = cGraphic::GetPlotColors(f);
    }
    if (radial) {
        // Over every family's positions: the rows are sorted within each family only.
        const auto [lowest, highest] =
            std::minmax_element(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.pos < b.pos; });
        const double lo = lowest->pos, hi = highest->pos;
        for (int f = 0; f < nf; ++f) {
            const std::string& eq = fitText[static_cast<size_t>(f)];
            if (eq.empty()) continue;
            std::string shown = FormatEquation(eq, "0.000####", 2);
            for (char& ch : shown)
                if (ch == 'x' || ch == 'X') ch = 'R';
            res.equations.push_back("Fit_" + familyNames[static_cast<size_t>(f)] + ": " + shown);
            // Drawn as fitted, or less its offset when the values are.
            std::string drawn = eq;
            if (o.removeOffset) drawn = "(" + eq + ") - (" + Format(offsets[static_cast<size_t>(f)], "0.000000000") + ")";
            else if (o.subtractMean) drawn = "(" + eq + ") - (" + Format(means[static_cast<size_t>(f)], "0.000000000") + ")";
            cSeries& c = chart.Series.Add(res.equations.back());
            c.DisplayFunction.setEquation(drawn);
            c.Xcol = 1;
            c.DisplayFunctionXlow = lo, c.DisplayFunctionXhigh = hi;
            c.SymbolDisplay = false;
            c.ColorFore = cGraphic::GetPlotColors(f);
            c.nPenWidth = 2;
        }
    }
    cAxis& ax = chart.Axes.Add("X");
    ax.Label = std::string(kindWord) + (o.fieldPositions ? "Position on Field(mm)" : "Position on Wafer(mm)");
    ax.TickFormat = "####0.0";
    cAxis& ay = chart.Axes.Add("Y");
    ay.Label = feature;
    ay.PlotGridline = true;
    res.data = table;
    res.points = static_cast<long>(rows.size());

    Status drawn = StatusOk();
    if (chart.Container() || (chart.Lot() && chart.Lot()->Container)) {
        SetStatusText("Plotting graph ...");
        drawn = chart.DrawFigure();
    }
    if (result) *result = std::move(res);
    return drawn;
}

Status SaveRadialSheets(const SubDataResult& r, Workbook* wb, const std::string& name) {
    Proc p("Graphics(PlotSubData): ");
    if (!r.zones.isArray() || !r.fit.isArray()) return p.fail("No radial analysis to save.");
    const std::pair<const Datam*, std::string> sheets[] = {{&r.zones, "RadialZones_"}, {&r.fit, "RadialFit_"}};
    for (const auto& [table, prefix] : sheets) {
        const std::string sheet = (prefix + name).substr(0, 31);  // the longest sheet name a workbook takes
        const std::string title = table == &r.zones ? "Radial Analysis of wafer zones. " : "Radial fit-polynomial coefficients. ";
        SaveArrayOptions o;
        o.title = title;
        o.save = false;
        if (Status s = SaveArray(*table, sheet, wb, o); !s) return s;
        if (Status s = AddIndexItem(wb, sheet, title, Value(), false); !s) return s;
    }
    return StatusOk();
}

}  // namespace zorv
