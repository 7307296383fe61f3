// The response of one site to focus, dose by dose: the calibration's
// "Calibration as a function of Dose" view and the "DoseResponse" sheet.
#include <algorithm>
#include <cmath>
#include <map>

#include "base/format.h"
#include "calib/best_focus.h"
#include "calib/template_library.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "numerics/lsq.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

// The zero of c0 + c1 f + c2 f^2 + c3 f^3 in [lo, hi] nearest the middle, by
// bisection over a scan of the span; false where the curve keeps its sign.
bool ZeroIn(const double c[4], double lo, double hi, double& at) {
    auto y = [&](double f) { return c[0] + f * (c[1] + f * (c[2] + f * c[3])); };
    const int n = 200;
    bool found = false;
    const double mid = (lo + hi) / 2;
    for (int i = 0; i < n; ++i) {
        double a = lo + (hi - lo) * i / n, b = lo + (hi - lo) * (i + 1) / n;
        if (y(a) == 0) b = a;
        else if ((y(a) < 0) == (y(b) < 0)) continue;
        for (int k = 0; k < 60 && a != b; ++k) {
            const double m = (a + b) / 2;
            ((y(a) < 0) == (y(m) < 0) ? a : b) = m;
        }
        if (!found || std::fabs(a - mid) < std::fabs(at - mid)) at = a;
        found = true;
    }
    return found;
}

}  // namespace

Result<Datam> FocusDoseGraph(const cLot& lot, long site, cGraphic& chart, Workbook* saveTo) {
    Proc p("PSFManal(FocusDoseGraph): ");
    if (site <= 0) return p.fail("A Field site has not been selected.");
    // feature -> dose (2 decimals) -> (focus, response)
    std::map<double, std::vector<std::pair<double, double>>> byDose[2];
    lot.forEachLive([&](cWafer&, cField& f, cSite& s, cPoint& pt) {
        if (s.NumberKey() != site) return;
        const double d = std::nearbyint(f.Dose * 100.0) / 100;
        if (pt.ValueV != kMissingValue) byDose[0][d].push_back({f.Focus, pt.ValueV / 1000.0});
        if (pt.ValueH != kMissingValue) byDose[1][d].push_back({f.Focus, pt.ValueH / 1000.0});
    });
    if (byDose[0].empty() && byDose[1].empty()) return p.fail("No data for site " + std::to_string(site) + ".");
    const char* head[] = {"Feature", "Dose", "Site", "Best Focus", "culls", "DoF", "Offset", "Slope",
                          "Cubic", "Residuals", "Sigma", "FocusMax", "FocusMin"};
    Datam table(static_cast<int>(byDose[0].size() + byDose[1].size()), 13, 0, 1);
    for (int c = 0; c < 13; ++c) table(0, c + 1) = Value(head[c]);
    Datam points(0, 2, 0, 1);
    chart.Series.Clear();
    chart.KeyName = "kFocus";
    chart.TitleObj.TitleString = "Target response to focus\r\nSite: " + std::to_string(site);
    chart.Axes.Add("X").Label = "Focus";
    chart.Axes.Add("Y").Label = "Response";
    int row = 0, series = 0;
    const std::string names[2] = {lot.ValueV_Name.empty() ? "ValueV" : lot.ValueV_Name,
                                  lot.ValueH_Name.empty() ? "ValueH" : lot.ValueH_Name};
    for (int k = 0; k < 2; ++k)
        for (auto& [dose, pts] : byDose[k]) {
            std::sort(pts.begin(), pts.end());
            const int n = static_cast<int>(pts.size());
            const int m = std::min(3, n - 2);
            if (m < 1) continue;
            std::vector<double> x(static_cast<size_t>(n) * m), y(static_cast<size_t>(n));
            for (int i = 0; i < n; ++i) {
                double f = 1;
                for (int j = 0; j < m; ++j) x[static_cast<size_t>(i) * m + j] = (f *= pts[static_cast<size_t>(i)].first);
                y[static_cast<size_t>(i)] = pts[static_cast<size_t>(i)].second;
            }
            SvdFitArrays fit = svdfit_std(x.data(), y.data(), n, m, 0.0f, true, true, 1.0f, -1.0f);
            if (fit.result < 0 || fit.coef.size() < static_cast<size_t>(m) + 1) continue;
            double c[4] = {0, 0, 0, 0};
            for (int j = 0; j <= m; ++j) c[j] = fit.coef[static_cast<size_t>(j)];
            const double lo = pts.front().first, hi = pts.back().first;
            double best = 0;
            const bool crosses = ZeroIn(c, lo, hi, best);
            ++row;
            table(row, 1) = Value(names[k]), table(row, 2) = Value(dose), table(row, 3) = Value(static_cast<int32_t>(site));
            if (crosses) table(row, 4) = Value(best);
            table(row, 5) = Value(static_cast<int32_t>(0)), table(row, 6) = Value(hi - lo);
            table(row, 7) = Value(c[0]), table(row, 8) = Value(c[1]), table(row, 9) = Value(c[3]);
            table(row, 10) = Value(std::sqrt(std::max(0.0, double(fit.mse))));
            table(row, 11) = Value(fit.errors.empty() ? 0.0 : fit.errors[0]);
            table(row, 12) = Value(hi), table(row, 13) = Value(lo);

            cSeries& s = chart.Series.Add("Dose response for " + Format(dose, "###0.0#") + " mj");
            Datam pd(n, 2, 0, 1);
            pd(0, 1) = Value("Focus"), pd(0, 2) = Value(names[k]);
            for (int i = 0; i < n; ++i) pd(i + 1, 1) = Value(pts[static_cast<size_t>(i)].first), pd(i + 1, 2) = Value(pts[static_cast<size_t>(i)].second);
            s.PlotData = pd;
            s.Xcol = 1, s.Ycol = 2;
            s.Connect = false;
            s.ColorFore = cGraphic::GetPlotColors(series++);
            std::string eq = NumberToText(c[0]);
            eq.append("+").append(NumberToText(c[1])).append(" * X+").append(NumberToText(c[2]));
            eq.append(" * X^2+").append(NumberToText(c[3])).append(" * X^3");
            cSeries& fs = chart.Series.Add("Fit: Dose: " + Format(dose, "###0.0#") + " Site: " + std::to_string(site));
            fs.DisplayFunction.setEquation(eq);
            fs.Xcol = 1;
            fs.PlotData = pd;
            fs.DisplayFunctionXlow = lo, fs.DisplayFunctionXhigh = hi;
            fs.SymbolDisplay = false;
            fs.ColorFore = s.ColorFore;
        }
    table.redimPreserve(row, 13);
    if (row == 0) return p.fail("Too few points for a response curve at site " + std::to_string(site) + ".");
    // The chart's own table: every curve's points, for the axes' ranges.
    Datam all(0, 2, 0, 1);
    all(0, 1) = Value("Focus"), all(0, 2) = Value("Response");
    for (int i = 1; i <= chart.Series.Count(); ++i) {
        const cSeries* s = chart.Series.Item(i);
        if (s->IsFunction()) continue;
        const int at = all.rowUb();
        all.redimPreserve(at + s->PlotData.rowUb(), 2);
        for (int r = 1; r <= s->PlotData.rowUb(); ++r) all(at + r, 1) = s->PlotData(r, 1), all(at + r, 2) = s->PlotData(r, 2);
    }
    if (Status s = chart.RegisterData(all); !s) return s.failure();
    if (saveTo) {
        SaveArrayOptions o;
        o.title = "Dose Response for Field Site: " + std::to_string(site) + " Date: " + FormatDate(TemplateNow(), "yyyy-mm-dd");
        o.save = false;
        if (Status s = SaveArray(table, "DoseResponse", saveTo, o); !s) return s.failure();
        if (Status s = SaveWorkbookChecked(*saveTo, "DoseResponse", false); !s) return s.failure();
    }
    return table;
}

}  // namespace zorv
