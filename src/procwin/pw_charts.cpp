#include "procwin/pw_charts.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "base/text.h"
#include "graphics/chart.h"
#include "numerics/equation.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "procwin/pw_fit.h"

namespace zorv {

namespace {

Value Num(double v, std::string_view pattern) {
    const std::string t = Format(v, pattern);
    double d = 0;
    if (ParseNumber(t, d)) return Value(d);
    return Value(t);
}

double Coef(const Datam& c, int i) {
    return c.isArray() && c.inRange(i, 1) ? c(i, 1).toDouble() : 0.0;
}

// The polynomial of a fit as equation text in X, at full precision (the
// fit's own text is rounded for display).
std::string PolyText(const Datam& c) {
    std::string t;
    for (int i = 1; c.isArray() && i <= c.rowUb(); ++i) {
        const std::string n = NumberToText(Coef(c, i));
        t += i == 1 ? n : " + (" + n + ")*X^" + std::to_string(i - 1);
    }
    return t.empty() ? "0" : t;
}

double Poly(const Datam& c, double x) {
    double y = 0;
    for (int i = c.isArray() ? c.rowUb() : 0; i >= 1; --i) y = y * x + Coef(c, i);
    return y;
}

// The polynomial fit's x where it meets `level`: the root nearer to `near`
// for a quadratic, the line's crossing otherwise; kNoRoot when none.
double Solve(const Datam& c, double level, double near) {
    const double c1 = Coef(c, 1), c2 = Coef(c, 2),
                 c3 = c.isArray() && c.rowUb() >= 3 ? Coef(c, 3) : 0;
    if (c3 != 0) {
        double x1, x2;
        GetQuadRoots(c3, c2, c1 - level, x1, x2);
        return std::fabs(x1 - near) <= std::fabs(x2 - near) ? x1 : x2;
    }
    return c2 != 0 ? (level - c1) / c2 : kNoRoot;
}

double Mean(const std::vector<double>& v) {
    double s = 0;
    for (double x : v) s += x;
    return v.empty() ? 0 : s / static_cast<double>(v.size());
}
double Range(const std::vector<double>& v) {
    if (v.empty()) return 0;
    const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
    return *hi - *lo;
}

void SetTitle(cGraphic& chart, std::vector<std::string>* lines, std::vector<std::string> add) {
    std::vector<std::string> local;
    std::vector<std::string>& t = lines ? *lines : local;
    for (std::string& s : add) t.push_back(std::move(s));
    chart.TitleObj.TitleString = PWJoinTitle(t);
}

// A line (or points) series over two chart columns.
cSeries& AddCurve(cGraphic& chart, const std::string& label, int x, int y, Color color,
                  bool symbols, bool connect) {
    cSeries& c = chart.Series.Add(label);
    c.Xcol = x, c.Ycol = y;
    c.ColorFore = color;
    c.SymbolDisplay = symbols;
    c.Connect = connect;
    return c;
}

}  // namespace

int PWChartAddColumns(cGraphic& chart, const Datam& block) {
    if (!block.isArray() || block.dims() != 2) return -1;
    const Datam& d = chart.Data();
    const int base = d.isArray() ? d.colUb() + 1 : 1;
    const int cols = std::max(block.colUb(), 1);
    const int rows = std::max(d.isArray() ? d.rowUb() : 0, block.rowUb());
    Datam t(rows, base + cols - 1, 0, 0);
    if (d.isArray())
        for (int r = std::max(d.rowLb(), 0); r <= d.rowUb(); ++r)
            for (int c = std::max(d.colLb(), 0); c <= d.colUb(); ++c) t(r, c) = d(r, c);
    for (int r = std::max(block.rowLb(), 0); r <= block.rowUb(); ++r)
        for (int c = 1; c <= block.colUb(); ++c) t(r, base + c - 1) = block.get(r, c);
    if (!chart.RegisterData(t)) return -1;
    return base;
}

std::string PWJoinTitle(const std::vector<std::string>& lines) {
    std::string t;
    for (const std::string& l : lines) {
        if (Trim(l).empty()) continue;
        if (!t.empty()) t += "\r\n";
        t += l;
    }
    return t;
}

// ---------------------------------------------------------------- CreatePWgraphPost

Result<Datam> CreatePWgraphPost(const PWSetup& setup, const Datam& pws, const PWInscribed& found,
                                cGraphic& chart, std::vector<std::string>* titleLines) {
    (void)setup;
    Proc p("PWcommon(CreatePWgraphPost): ");
    SetStatusText("Graph Setup ...");
    const Datam& scan = found.scan;
    if (!scan.isArray() || scan.rowUb() < 1) return p.fail("No process window scan to draw.");

    // The axes span the window, half its range past each end.
    p.chk = 1;
    double fLo = 0, fHi = 0, dLo = 0, dHi = 0;
    bool first = true;
    for (int r = 1; r <= scan.rowUb(); ++r) {
        const double f = scan(r, 0).toDouble(), top = scan(r, 1).toDouble(),
                     bot = scan(r, 2).toDouble();
        if (first) fLo = fHi = f, dLo = std::min(top, bot), dHi = std::max(top, bot);
        fLo = std::min(fLo, f), fHi = std::max(fHi, f);
        dLo = std::min({dLo, top, bot}), dHi = std::max({dHi, top, bot});
        first = false;
    }
    const double fr = fHi > fLo ? fHi - fLo : 1, dr = dHi > dLo ? dHi - dLo : 1;
    cAxis& ax = chart.Axes.Add("X");
    ax.LowValue = static_cast<float>(fLo - fr / 2), ax.HighValue = static_cast<float>(fHi + fr / 2);
    ax.AutoScale = false;
    cAxis& ay = chart.Axes.Add("Y");
    ay.LowValue = static_cast<float>(dLo - dr / 2), ay.HighValue = static_cast<float>(dHi + dr / 2);
    ay.AutoScale = false;

    Datam table(0, 7, 0, 1);
    const char* th[] = {"SeriesR", "SeriesEL", "Key", "Focus", "Dose", "DoF", "EL%"};
    for (int c = 1; c <= 7; ++c) table(0, c) = Value(th[c - 1]);
    auto addRow = [&](int seriesR, int seriesEL, const std::string& key, double f, double d,
                      double dof, double pct) {
        const int r = table.rowUb() + 1;
        table.redimPreserve(r, 7);
        if (seriesR > 0) table(r, 1) = Value(static_cast<int32_t>(seriesR));
        if (seriesEL > 0) table(r, 2) = Value(static_cast<int32_t>(seriesEL));
        table(r, 3) = Value(key);
        table(r, 4) = Value(f), table(r, 5) = Value(d), table(r, 6) = Value(dof),
                 table(r, 7) = Value(pct);
    };

    // The window between the scan's top and bottom doses.
    p.chk = 2;
    Datam area(scan.rowUb(), 3, 0, 0);
    for (int r = 0; r <= scan.rowUb(); ++r)
        for (int c = 0; c <= 2; ++c) area(r, c + 1) = scan(r, c);
    const int a = PWChartAddColumns(chart, area);
    if (a < 0) return p.fail("The window could not be registered with the chart.");
    const Color shade = RGB(160, 160, 160);
    AddCurve(chart, "Process Area 1", a, a + 1, shade, false, true);
    addRow(chart.Series.Count(), 0, "PW area top", 0, 0, 0, 0);
    AddCurve(chart, "Process Area 2", a, a + 2, shade, false, true);
    addRow(chart.Series.Count(), 0, "PW area bottom", 0, 0, 0, 0);

    std::vector<std::string> lines;
    auto numeric = [&](int r, int c, double& v) {
        return pws.inRange(r, c) && !IsBlank(pws(r, c)) && NumericOf(pws(r, c), v);
    };
    const Color figure = RGB(0, 0, 0);

    // Ellipses, from the right block.
    p.chk = 3;
    bool bestSeen = false;
    for (int r = 1; pws.isArray() && r <= pws.rowUb(); ++r) {
        double cx, cy, rx, ry;
        if (!numeric(r, 14, cx) || !numeric(r, 15, cy) || !numeric(r, 16, rx) ||
            !numeric(r, 17, ry))
            continue;
        SetStatusText(" Graph Ellipse: " + std::to_string(r));
        Datam e(37, 2, 0, 0);
        e(0, 1) = Value("Focus"), e(0, 2) = Value("Dose");
        for (int i = 0; i <= 36; ++i) {
            const double t = 2 * kPi * i / 36;
            e(i + 1, 1) = Value(cx + rx * std::cos(t)), e(i + 1, 2) = Value(cy + ry * std::sin(t));
        }
        // Each figure keeps its own few rows: thousands of candidates must
        // not each grow and copy the chart's table.
        cSeries& s = AddCurve(chart, "", 1, 2, figure, false, true);
        s.PlotData = std::move(e);
        const bool best = !bestSeen && std::fabs(cx - found.ellipseFocus) < 1e-9 &&
                          std::fabs(cy - found.ellipseDose) < 1e-9;
        s.Hide = !best;
        const double pct = cy != 0 ? 2 * ry / cy * 100 : 0;
        addRow(0, chart.Series.Count(),
               "PWelsp Dose_" + Format(cy, "#0.00") + " DoF_" + Format(2 * rx, "#0.000"), cx, cy,
               2 * rx, pct);
        if (!best) continue;
        bestSeen = true;
        s.nPenWidth = 2;
        Datam c(1, 2, 0, 0);
        c(0, 1) = Value("XbfElsp"), c(0, 2) = Value("Dose");
        c(1, 1) = Value(cx), c(1, 2) = Value(cy);
        cSeries& centre = AddCurve(chart, "", 1, 2, figure, true, false);
        centre.PlotData = std::move(c);
        centre.Symbol = SymbolShape::Plus;
        addRow(0, chart.Series.Count(), "BestFocusElsp", cx, cy, 2 * rx, pct);
        lines.push_back("Ellipse Best Focus:" + Format(cx, "#0.000") +
                        " Dose:" + Format(cy, "#0.00"));
        lines.push_back("        DoF:" + Format(2 * rx, "#0.000") + " / " +
                        "  DoseLat:" + Format(pct, "#0.00"));
    }

    // Rectangles, from the left block.
    p.chk = 4;
    bestSeen = false;
    for (int r = 1; pws.isArray() && r <= pws.rowUb(); ++r) {
        double f, d, xl, xr, dl, du, dof, pct;
        if (!numeric(r, 1, f) || !numeric(r, 2, d) || !numeric(r, 3, xl) || !numeric(r, 4, xr) ||
            !numeric(r, 5, dl) || !numeric(r, 8, du))
            continue;
        if (!numeric(r, 10, dof)) dof = std::fabs(xr - xl);
        if (!numeric(r, 12, pct)) pct = d != 0 ? 100 * std::fabs(du - dl) / d : 0;
        SetStatusText(" Graph Rectangle: " + std::to_string(r));
        Datam q(5, 2, 0, 0);
        q(0, 1) = Value("Rectangle Focus"), q(0, 2) = Value("Dose");
        const double xs[] = {xl, xr, xr, xl, xl}, ys[] = {dl, dl, du, du, dl};
        for (int i = 0; i < 5; ++i) q(i + 1, 1) = Value(xs[i]), q(i + 1, 2) = Value(ys[i]);
        cSeries& s = AddCurve(chart, "", 1, 2, RGB(0, 0, 160), false, true);
        s.PlotData = std::move(q);
        const bool best = !bestSeen && std::fabs(f - found.rectFocus) < 1e-9 &&
                          std::fabs(d - found.rectDose) < 1e-9;
        s.Hide = !best;
        addRow(chart.Series.Count(), 0,
               "PWrect Dose_" + Format(d, "#0.00") + " DoF_" + Format(dof, "#0.000"), f, d, dof,
               pct);
        if (!best) continue;
        bestSeen = true;
        s.nPenWidth = 2;
        lines.push_back("Rectangle Best Focus:" + Format(f, "#0.000") +
                        " Dose:" + Format(d, "#0.00"));
        lines.push_back("        DoF:" + Format(dof, "#0.000") + " / " +
                        "  DoseLat:" + Format(pct, "#0.00"));
    }
    SetTitle(chart, titleLines, std::move(lines));
    return table;
}

// ---------------------------------------------------------------- DoseBFgraph

Result<PWDoseBF> DoseBFgraph(const PWSetup& setup, const Datam& fr, cGraphic& chart,
                             std::vector<std::string>* titleLines) {
    Proc p("PWcommon(DoseBFgraph): ");
    if (!fr.isArray() || fr.dims() != 2 || fr.rowUb() < 3)
        return p.fail("No focus response data in 'FocusResponse'.");
    chart.KeyName = kDoseBF;
    cAxis& ax = chart.Axes.Add("X");
    ax.Label = "Dose";
    ax.TickFormat = "###0.0";
    chart.Axes.Add("Y").Label = "Feature";
    chart.Axes.Add("Y2").Label = "Best Focus";

    // FocusResponse columns: feature, dose, site, best focus, the feature
    // there, DoF, ..., target, UCL, LCL.
    p.chk = 1;
    struct Row {
        double dose, bf, at, dof;
    };
    struct Group {
        std::string feature;
        long site;
        double tcl, ucl, lcl;
        std::vector<Row> rows;
    };
    std::vector<Group> groups;
    for (int r = 3; r <= fr.rowUb(); ++r) {
        const std::string f = fr.get(r, 1).toString();
        double dose, bf, at, dof = 0;
        if (f.empty() || !NumericOf(fr.get(r, 2), dose) || !NumericOf(fr.get(r, 4), bf) ||
            !NumericOf(fr.get(r, 5), at))
            continue;
        (void)NumericOf(fr.get(r, 6), dof);
        const long site = fr.get(r, 3).toLong();
        auto it = std::find_if(groups.begin(), groups.end(),
                               [&](const Group& g) { return g.feature == f && g.site == site; });
        if (it == groups.end()) {
            groups.push_back({f,
                              site,
                              fr.get(r, 12).toDouble(),
                              fr.get(r, 13).toDouble(),
                              fr.get(r, 14).toDouble(),
                              {}});
            it = groups.end() - 1;
        }
        it->rows.push_back({dose, bf, at, dof});
    }

    PWDoseBF out;
    int series = 0;
    for (Group& g : groups) {
        if (g.rows.size() < 2) continue;
        if (CheckEscKey()) break;
        std::sort(g.rows.begin(), g.rows.end(),
                  [](const Row& a, const Row& b) { return a.dose < b.dose; });
        const int n = static_cast<int>(g.rows.size());
        Datam t(n, 4, 0, 0);
        t(0, 1) = Value("Dose"), t(0, 2) = Value(g.feature), t(0, 3) = Value("BestFocus"),
             t(0, 4) = Value("DoF");
        for (int i = 0; i < n; ++i) {
            const Row& row = g.rows[static_cast<size_t>(i)];
            t(i + 1, 1) = Value(row.dose), t(i + 1, 2) = Value(row.at), t(i + 1, 3) = Value(row.bf),
                     t(i + 1, 4) = Value(row.dof);
        }
        p.chk = 2;
        CurveFit cf = FitCurve(t, 1, 2, 2);
        if (!cf.coef.isArray()) cf = FitCurve(t, 1, 2, 1);
        if (!cf.coef.isArray()) continue;
        const double lo = g.rows.front().dose, hi = g.rows.back().dose, mid = (lo + hi) / 2;
        PWSiteBest b;
        b.feature = g.feature, b.site = g.site;
        b.bestDose = Solve(cf.coef, g.tcl, mid);
        const double u = Solve(cf.coef, g.ucl, mid), l = Solve(cf.coef, g.lcl, mid);
        if (b.bestDose != kNoRoot) {
            b.latitude = u != kNoRoot && l != kNoRoot ? std::fabs(u - l) : 0;
            b.pctLatitude = b.bestDose != 0 ? b.latitude / b.bestDose * 100 : 0;
            const CurveFit ff = FitCurve(t, 1, 3, std::min(2, n - 1));
            const int k = mv_FindNearest(b.bestDose, t, 1);
            b.bestFocus =
                ff.coef.isArray() ? Poly(ff.coef, b.bestDose) : t(std::max(k, 1), 3).toDouble();
            b.dof = t(std::max(k, 1), 4).toDouble();
            b.featureAtBestFocus = g.tcl;
        }
        b.bestDose = Num(b.bestDose, "0.00").toDouble(),
        b.bestFocus = Num(b.bestFocus, "0.000").toDouble();
        b.latitude = Num(b.latitude, "0.000").toDouble(),
        b.pctLatitude = Num(b.pctLatitude, "0.00").toDouble();
        out.best.push_back(b);

        const int base = PWChartAddColumns(chart, t);
        const Color color = cGraphic::GetPlotColors(series++);
        const std::string tag = g.feature + " Site: " + std::to_string(g.site);
        cSeries& data = AddCurve(chart, tag, base, base + 1, color, true, false);
        data.Symbol = SymbolShape::Circle;
        cSeries& fit = chart.Series.Add();
        fit.DisplayFunction.setEquation(PolyText(cf.coef));
        fit.Xcol = base;
        fit.DisplayFunctionXlow = lo, fit.DisplayFunctionXhigh = hi;
        fit.SymbolDisplay = false;
        fit.ColorFore = color;
        cSeries& focus = chart.Series.Add("Best Focus " + tag);
        focus.Xcol = base, focus.Ycol = -1, focus.Y2col = base + 2;
        focus.Symbol = SymbolShape::Diamond;
        focus.ColorFore = color;
    }
    if (out.best.empty()) return p.fail("No focus response data in 'FocusResponse'.");

    // By feature over the sites, then over everything.
    p.chk = 3;
    const char* cols[] = {"BestDose",       "DoseRange",           "BestFocus", "FocusRange",
                          "Dose_%Latitude", "Dose_%LatitudeRange", "DoF",       "DoF_Range"};
    auto stats = [&](Datam& t, int r, int c0, const std::vector<const PWSiteBest*>& v) {
        std::vector<double> d, f, pl, dof;
        for (const PWSiteBest* b : v)
            d.push_back(b->bestDose), f.push_back(b->bestFocus), pl.push_back(b->pctLatitude),
                dof.push_back(b->dof);
        t(r, c0) = Num(Mean(d), "0.00"), t(r, c0 + 1) = Num(Range(d), "0.00");
        t(r, c0 + 2) = Num(Mean(f), "0.000"), t(r, c0 + 3) = Num(Range(f), "0.000");
        t(r, c0 + 4) = Num(Mean(pl), "0.00"), t(r, c0 + 5) = Num(Range(pl), "0.00");
        t(r, c0 + 6) = Num(Mean(dof), "0.000"), t(r, c0 + 7) = Num(Range(dof), "0.000");
    };
    std::vector<std::string> features;
    for (const PWSiteBest& b : out.best)
        if (std::find(features.begin(), features.end(), b.feature) == features.end())
            features.push_back(b.feature);
    out.byFeature = Datam(static_cast<int>(features.size()), 9, 0, 1);
    out.byFeature(0, 1) = Value("Feature");
    for (int c = 0; c < 8; ++c) out.byFeature(0, c + 2) = Value(cols[c]);
    std::vector<const PWSiteBest*> all;
    for (size_t k = 0; k < features.size(); ++k) {
        std::vector<const PWSiteBest*> v;
        for (const PWSiteBest& b : out.best)
            if (b.feature == features[k]) v.push_back(&b), all.push_back(&b);
        out.byFeature(static_cast<int>(k) + 1, 1) = Value(features[k]);
        stats(out.byFeature, static_cast<int>(k) + 1, 2, v);
    }
    out.summary = Datam(1, 8, 0, 1);
    for (int c = 0; c < 8; ++c) out.summary(0, c + 1) = Value(cols[c]);
    stats(out.summary, 1, 1, all);

    std::vector<std::string> lines{
        " BestDose:" + Format(out.summary(1, 1).toDouble(), "0.00") +
        "   BestFocus:" + Format(out.summary(1, 3).toDouble(), "0.000") +
        "   Dose_%Latitude:" + Format(out.summary(1, 5).toDouble(), "0.00")};
    if (setup.title.empty() && features.size() == 1)
        chart.Axes.Item("Y")->Label = features.front();
    else if (!setup.title.empty())
        chart.Axes.Item("Y")->Label = setup.title;
    SetTitle(chart, titleLines, std::move(lines));
    return out;
}

// ---------------------------------------------------------------- GraphIsoFocal

Result<PWIsoFocalGraph> GraphIsoFocal(const PWSetup& setup, const Datam& work, cGraphic& chart,
                                      std::vector<std::string>* titleLines) {
    Proc p("PWcommon(GraphIsoFocal): ");
    if (!work.isArray() || work.dims() != 2 || work.rowUb() < 1 || work.colUb() < 5)
        return p.fail("No data for the isofocal analysis.");
    chart.KeyName = kIsoFocal;
    cAxis& ax = chart.Axes.Add("X");
    ax.Label = "Dose";
    ax.TickFormat = "###0.0";
    chart.Axes.Add("Y").Label = "IsoFocal Deviant";
    chart.Axes.Add("Y2").Label = "Aberrated Prec.";

    PWIsoFocalGraph out;
    out.table = Datam(work.rowUb() * (work.colUb() - 4), 7, 0, 1);
    const char* th[] = {"Site", "Focus", "Dose", "Feature", "Aberrated", "FittedFocus", "Measured"};
    for (int c = 1; c <= 7; ++c) out.table(0, c) = Value(th[c - 1]);
    int tr = 0;
    const PWFitLimits limits{setup.range, setup.sigma};
    std::vector<std::string> lines;
    int series = 0;
    bool stop = false;

    // Site runs of the sorted table.
    std::vector<std::pair<int, int>> sites;
    for (int r = 1; r <= work.rowUb(); ++r) {
        if (!sites.empty() && CompareKeys(work(r, 2), work(sites.back().second, 2)) == 0)
            sites.back().second = r;
        else
            sites.push_back({r, r});
    }
    for (const auto& [first, last] : sites) {
        if (stop || CheckEscKey()) break;
        const long site = work(first, 2).toLong();
        Datam sub(last - first + 1, work.colUb(), 0, 0);
        for (int c = 0; c <= work.colUb(); ++c) sub(0, c) = work(0, c);
        for (int r = first; r <= last; ++r)
            for (int c = 0; c <= work.colUb(); ++c) sub(r - first + 1, c) = work(r, c);
        for (int col = 5; col <= work.colUb(); ++col) {
            const std::string feature = work(0, col).toString();
            p.chk = 1;
            Result<PWSurfaceFit> pw = PWfit(sub, col, limits);
            if (!pw) return pw.failure();
            if (pw->escaped) {
                stop = true;
                break;
            }
            if (!pw->c.isArray()) continue;
            clsEquation z(pw->equation);
            const int ds = z.VarSlot("d"), fs = z.VarSlot("f");
            auto at = [&](double d, double f) {
                z.SetSlot(ds, d);
                z.SetSlot(fs, f);
                return z.Solution();
            };
            double iso = 0;
            if (IsoFocalDose(pw->c, false, iso)) {
                iso = Num(iso, "####0.00").toDouble();
                out.isoFocal.push_back({feature, site, iso, Num(at(iso, 0), "0.000").toDouble()});
            }
            // Each row: how far focus moved it from the value at F = 0.
            p.chk = 2;
            std::map<long long, std::pair<double, double>> spread;  // dose -> min, max deviation
            std::map<long long, double> doseOf;
            const Datam byFocus = sub.rowUb() > 1 ? mat_sort(sub, 3) : sub;
            std::vector<std::pair<int, int>> groups;
            for (int r = 1; r <= byFocus.rowUb(); ++r) {
                if (!groups.empty() &&
                    CompareKeys(byFocus(r, 3), byFocus(groups.back().second, 3)) == 0)
                    groups.back().second = r;
                else
                    groups.push_back({r, r});
            }
            for (const auto& [g0, g1] : groups) {
                std::vector<std::pair<double, double>> pts;
                const double focus = byFocus(g0, 3).toDouble();
                for (int r = g0; r <= g1; ++r) {
                    double v;
                    if (IsBlank(byFocus(r, col)) || !NumericOf(byFocus(r, col), v)) continue;
                    const double d = byFocus(r, 4).toDouble();
                    const double base0 = at(d, 0), dev = v - base0;
                    ++tr;
                    out.table(tr, 1) = Value(static_cast<int32_t>(site)),
                                  out.table(tr, 2) = Value(focus);
                    out.table(tr, 3) = Value(d), out.table(tr, 4) = Value(feature),
                                  out.table(tr, 5) = Value(dev);
                    out.table(tr, 6) = Value(at(d, focus) - base0), out.table(tr, 7) = Value(v);
                    pts.push_back({d, dev});
                    const long long key = std::llround(d * 1e6);
                    doseOf[key] = d;
                    auto it = spread.find(key);
                    if (it == spread.end())
                        spread[key] = {dev, dev};
                    else
                        it->second = {std::min(it->second.first, dev),
                                      std::max(it->second.second, dev)};
                }
                if (pts.size() < 2) continue;
                std::sort(pts.begin(), pts.end());
                Datam b(static_cast<int>(pts.size()), 2, 0, 0);
                b(0, 1) = Value("Dose"), b(0, 2) = Value(feature + "_Iso");
                for (size_t i = 0; i < pts.size(); ++i)
                    b(static_cast<int>(i) + 1, 1) = Value(pts[i].first),
                                               b(static_cast<int>(i) + 1, 2) = Value(pts[i].second);
                const int base = PWChartAddColumns(chart, b);
                const Color color = cGraphic::GetPlotColors(series++);
                const std::string at0 =
                    " Focus: " + Format(focus, "###0.0#") + " Site: " + std::to_string(site);
                cSeries& s =
                    AddCurve(chart, feature + "_Iso" + at0, base, base + 1, color, true, false);
                s.Symbol = static_cast<SymbolShape>(1 + (series - 1) % (kSymbolShapes - 1));
                const CurveFit cf =
                    FitCurve(b, 1, 2, std::min(2, static_cast<int>(pts.size()) - 1));
                if (!cf.coef.isArray()) continue;
                cSeries& fit = chart.Series.Add();
                fit.DisplayFunction.setEquation(PolyText(cf.coef));
                fit.Xcol = base;
                fit.DisplayFunctionXlow = pts.front().first,
                fit.DisplayFunctionXhigh = pts.back().first;
                fit.SymbolDisplay = false;
                fit.ColorFore = color;
                lines.push_back("Isofocal: " + feature + "_fit2" + at0 + " = " + cf.equation);
            }
            // The spread across focus at each dose, on the right axis.
            if (spread.size() >= 2) {
                Datam b(static_cast<int>(spread.size()), 2, 0, 0);
                b(0, 1) = Value("Dose"), b(0, 2) = Value(feature + "_Aber");
                int i = 0;
                for (const auto& [key, mm] : spread) {
                    ++i;
                    b(i, 1) = Value(doseOf[key]), b(i, 2) = Value(mm.second - mm.first);
                }
                const int base = PWChartAddColumns(chart, b);
                cSeries& s = chart.Series.Add(feature + "_Aber Site: " + std::to_string(site));
                s.Xcol = base, s.Ycol = -1, s.Y2col = base + 1;
                s.Symbol = SymbolShape::FilledSquare;
                s.ColorFore = RGB(128, 0, 0);
            }
        }
    }
    if (tr == 0) return p.fail("No data for the isofocal analysis.");
    out.table.redimPreserve(tr, 7);
    SetTitle(chart, titleLines, std::move(lines));
    return out;
}

}  // namespace zorv
