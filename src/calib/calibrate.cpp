// cTemplate.CalibrateReticle and Utility(EquationInvert): the forward fits of
// image shift on focus per site and exposure set, their least squares
// inverses, the results table with its summary block, and the chart per site.
#include "calib/calibrate.h"
#include "calib_numbers.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

#include "base/format.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "numerics/equation.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"

namespace zorv {

namespace {

constexpr int kMaxOrder = 6;

std::string F3(double v) { return Format(v, "####0.000"); }

// The numbers of a polynomial text read back as the coefficients were.
std::string CoefText(double v) { return NumberToText(v); }

// Where each result column sits for a fit order.
struct CalColumns {
    int order;
    int xHigher(int k) const { return 13 + 2 * (k - 2); }  // X_k_order; Y one further
    int sigma0() const { return 13 + 2 * (order - 1); }    // Xoffset_sigma
    int xHigherSigma(int k) const { return sigma0() + 4 + 2 * (k - 2); }
    int xFocus() const { return sigma0() + 4 + 2 * (order - 1); }
    int ySigmaF() const { return xFocus() + 3; }            // YFsigma
    int siteCount() const { return xFocus() + 4; }          // the header cell with the count of sites
    int last() const { return siteCount(); }
};

Datam NewResults(int order, int rows) {
    const CalColumns c{order};
    Datam t(std::max(rows, 1), c.last(), 0, 0);
    const char* head[] = {"Site", "Cull", "Dose", "NA", "PCinner", "PCouter", "Xloc", "Xloc",
                          "Xoffset", "Yoffset", "Xslope", "Yslope"};
    for (int i = 0; i < 12; ++i) t(0, i + 1) = Value(head[i]);
    for (int k = 2; k <= order; ++k) {
        const std::string n = std::to_string(k);
        t(0, c.xHigher(k)) = Value("X_" + n + "_order");
        t(0, c.xHigher(k) + 1) = Value("Y_" + n + "_order");
        t(0, c.xHigherSigma(k)) = Value("X_" + n + "_OrderSigma");
        t(0, c.xHigherSigma(k) + 1) = Value("Y_" + n + "_OrderSigma");
    }
    const char* sig[] = {"Xoffset_sigma", "Yoffset_sigma", "Xslope_sigma", "Yslope_sigma"};
    for (int i = 0; i < 4; ++i) t(0, c.sigma0() + i) = Value(sig[i]);
    const char* foc[] = {"Xfocus", "Yfocus", "XFsigma", "YFsigma"};
    for (int i = 0; i < 4; ++i) t(0, c.xFocus() + i) = Value(foc[i]);
    return t;
}

// One exposure set of the lot, rounded to 3 decimals.
struct ExpoSet {
    double v[4];
    int firstRow = 0, lastRow = 0;
    bool matches(const cField& f) const {
        return Round3(f.Dose) == v[0] && Round3(f.NA) == v[1] && Round3(f.PCinner) == v[2] &&
               Round3(f.PCouter) == v[3];
    }
};

std::vector<ExpoSet> ExposureSets(const cLot& lot) {
    long count = 0;
    Datam focus;
    const Datam ex = lot.GetUniqueExposures(count, focus);
    std::vector<ExpoSet> sets;
    for (int r = 1; r <= count; ++r) {
        ExpoSet e{};
        for (int c = 0; c < 4; ++c) e.v[c] = Round3(ex(r, c + 1).toDouble());
        sets.push_back(e);
    }
    return sets;
}

// The highest site key of the lot: sites are numbered 1..n in each field.
int LotSiteCount(const cLot& lot) {
    int n = 0;
    for (const cWafer* w : lot.Wafers())
        for (const cField* f : w->Fields())
            for (const cSite* s : f->sites()) n = std::max(n, static_cast<int>(s->NumberKey()));
    return n;
}

// The forward fit of one response on focus and what the inverse gives.
struct SideFit {
    std::vector<double> coef, err;  // fitOrder + 1 each, zero padded
    std::vector<double> inverse;    // constant first
    std::string forward, inverseText;
    std::vector<uint8_t> culled;    // per gathered row
    int culls = 0;
    double offsetSe = 0;
    bool ok = false;
};

// One side: the design cut to the order (rows - 2 where the rows cannot carry
// it), svdfit_std at tolerance 0.01 with the intercept, then the inverse.
Status FitSide(const std::vector<double>& design, const std::vector<double>& y, int rows, int fitOrder,
               float rangeCull, float& sigma, const std::string& letter, double fLow, double fHigh, SideFit& out) {
    int cols = std::min(fitOrder, rows - 2);
    cols = std::max(cols, 1);
    std::vector<double> x(static_cast<size_t>(rows) * cols);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) x[static_cast<size_t>(r) * cols + c] = design[static_cast<size_t>(r) * kMaxOrder + c];
    sigma = 1;
    SvdFitArrays f = svdfit_std(x.data(), y.data(), rows, cols, 0.01f, true, true, sigma, rangeCull);
    out.coef.assign(static_cast<size_t>(fitOrder) + 1, 0.0);
    out.err.assign(static_cast<size_t>(fitOrder) + 1, 0.0);
    out.culled.assign(static_cast<size_t>(rows), 0);
    if (f.result < 0 || f.coef.size() < static_cast<size_t>(cols) + 1) return StatusOk();
    for (size_t i = 0; i < f.coef.size() && i < out.coef.size(); ++i) {
        out.coef[i] = f.coef[i];
        out.err[i] = i < f.errors.size() ? f.errors[i] : 0;
    }
    out.culls = f.result;
    // The exclusion flags mark empty rows too; none of ours is empty.
    for (int r = 1; r <= rows && static_cast<size_t>(r) < f.excluded.size(); ++r) out.culled[static_cast<size_t>(r - 1)] = f.excluded[static_cast<size_t>(r)];
    out.forward = CalPolynomialText(std::vector<double>(out.coef.begin(), out.coef.begin() + cols + 1), letter);
    Status s = EquationInvert(out.forward, letter, cols, 20, fHigh, fLow, out.inverse, out.inverseText);
    if (!s) return s;
    for (double& c : out.inverse) c = SingleCheck(Value(c)).toDouble();
    // The offset's error carried through both polynomials, as it always was.
    clsEquation fw(out.forward), inv(out.inverseText);
    fw.Var(letter, out.err[0]);
    inv.Var(letter, fw.Solution());
    out.offsetSe = inv.Solution();
    out.ok = !out.inverse.empty();
    return StatusOk();
}

void StoreSide(cSiteCal& s, const SideFit& f, bool x) {
    auto inv = [&](size_t k) { return k < f.inverse.size() ? static_cast<float>(f.inverse[k]) : 0.0f; };
    auto err = [&](size_t k) { return k < f.err.size() ? static_cast<float>(f.err[k]) : 0.0f; };
    float* hi[5][2];
    if (x) {
        s.OffsetX = inv(0), s.OffsetXse = static_cast<float>(f.offsetSe), s.SlopeX = inv(1), s.SlopeXse = err(1);
        float* t[5][2] = {{&s.X2nd, &s.X2ndSE}, {&s.X3rd, &s.X3rdSE}, {&s.X4th, &s.X4thSE},
                          {&s.X5th, &s.X5thSE}, {&s.X6th, &s.X6thSE}};
        std::copy(&t[0][0], &t[0][0] + 10, &hi[0][0]);
    } else {
        s.OffsetY = inv(0), s.OffsetYse = static_cast<float>(f.offsetSe), s.SlopeY = inv(1), s.SlopeYse = err(1);
        float* t[5][2] = {{&s.Y2nd, &s.Y2ndSE}, {&s.Y3rd, &s.Y3rdSE}, {&s.Y4th, &s.Y4thSE},
                          {&s.Y5th, &s.Y5thSE}, {&s.Y6th, &s.Y6thSE}};
        std::copy(&t[0][0], &t[0][0] + 10, &hi[0][0]);
    }
    for (size_t k = 2; k <= 6; ++k) {
        *hi[k - 2][0] = k < f.inverse.size() ? inv(k) : 0.0f;
        *hi[k - 2][1] = k < f.inverse.size() ? err(k) : 0.0f;
    }
}

// The chart of one site and exposure set: data, culls and both fits.
std::unique_ptr<cGraphic> SiteChart(int site, const ExpoSet& e, const std::vector<double>& focus,
                                    const std::vector<double>& xr, const std::vector<double>& yr,
                                    const SideFit& fx, const SideFit& fy, double fLow, double fHigh, double step,
                                    double rMin, double rMax) {
    const int n = static_cast<int>(focus.size());
    Datam t(n, 5, 0, 1);
    const char* head[] = {"Focus", "X data", "Y data", "Xcull", "Ycull"};
    for (int c = 0; c < 5; ++c) t(0, c + 1) = Value(head[c]);
    for (int r = 0; r < n; ++r) {
        t(r + 1, 1) = Value(focus[static_cast<size_t>(r)]);
        const bool cx = static_cast<size_t>(r) < fx.culled.size() && fx.culled[static_cast<size_t>(r)];
        const bool cy = static_cast<size_t>(r) < fy.culled.size() && fy.culled[static_cast<size_t>(r)];
        t(r + 1, cx ? 4 : 2) = Value(xr[static_cast<size_t>(r)]);
        t(r + 1, cy ? 5 : 3) = Value(yr[static_cast<size_t>(r)]);
    }
    auto g = std::make_unique<cGraphic>();
    if (!g->RegisterData(t)) return nullptr;
    std::string title = "Site:" + std::to_string(site) + " [Dose=" + NumberToText(e.v[0]);
    title.append(",NA=").append(NumberToText(e.v[1])).append(",PCi=").append(NumberToText(e.v[2]));
    title.append(",PCo=").append(NumberToText(e.v[3])).append("]");
    if (fx.culls + fy.culls > 0) title.append("/Culls:").append(std::to_string(fx.culls + fy.culls));
    g->TitleObj.TitleString = title;
    cAxis& ax = g->Axes.Add("X");
    ax.Label = "Tool Focus";
    ax.TickFormat = "###0.00";
    ax.LowValue = static_cast<float>(fLow - step), ax.HighValue = static_cast<float>(fHigh + step);
    ax.TickInterval = static_cast<float>(step);
    ax.AutoScale = false;
    cAxis& ay = g->Axes.Add("Y");
    ay.Label = "Image Shift";
    ay.TickFormat = "###0.000";
    const double widen = (rMax - rMin) / 9;
    ay.LowValue = static_cast<float>(rMin - widen), ay.HighValue = static_cast<float>(rMax + widen);
    ay.TickInterval = static_cast<float>(widen > 0 ? widen : 1);
    ay.AutoScale = false;
    struct S {
        const char* label;
        int col;
        Color color;
        SymbolShape shape;
    };
    const S curves[] = {{"Xdata", 2, RGB(255, 0, 0), SymbolShape::Circle},
                        {"Ydata", 3, RGB(0, 0, 255), SymbolShape::Square},
                        {"X cull", 4, RGB(255, 160, 160), SymbolShape::Cross},
                        {"Y cull", 5, RGB(150, 150, 255), SymbolShape::Cross}};
    for (const S& c : curves) {
        cSeries& s = g->Series.Add(c.label);
        s.Xcol = 1, s.Ycol = c.col;
        s.ColorFore = c.color;
        s.Symbol = c.shape;
        s.Connect = false;
        const SideFit* fit = c.col == 2 ? &fx : c.col == 3 ? &fy : nullptr;
        if (!fit || fit->forward.empty()) continue;
        std::string eq = fit->forward;
        ReplaceAll(eq, c.col == 2 ? "X" : "Y", "x");
        cSeries& fs = g->Series.Add(c.col == 2 ? "X_fit" : "Y_fit");
        fs.DisplayFunction.setEquation(eq);
        fs.Xcol = 1;
        fs.DisplayFunctionXlow = fLow, fs.DisplayFunctionXhigh = fHigh;
        fs.Evaluations = 20;
        fs.SymbolDisplay = false;
        fs.ColorFore = c.color;
        fs.ParentCurve = &s;
    }
    return g;
}

void WriteRow(Datam& t, int row, const CalColumns& cc, int site, int culls, const ExpoSet& e, double xmm, double ymm,
              const SideFit& fx, const SideFit& fy) {
    if (row > t.rowUb()) t.redimPreserve(std::max(row, t.rowUb() * 2), t.colUb());
    t(row, 1) = Value(static_cast<int32_t>(site));
    t(row, 2) = Value(static_cast<int32_t>(culls));
    for (int c = 0; c < 4; ++c) t(row, 3 + c) = Value(e.v[c]);
    t(row, 7) = Value(xmm), t(row, 8) = Value(ymm);
    t(row, 9) = Value(fx.coef[0]), t(row, 10) = Value(fy.coef[0]);
    t(row, 11) = Value(fx.coef[1]), t(row, 12) = Value(fy.coef[1]);
    for (int k = 2; k <= cc.order; ++k) {
        t(row, cc.xHigher(k)) = Value(fx.coef[static_cast<size_t>(k)]);
        t(row, cc.xHigher(k) + 1) = Value(fy.coef[static_cast<size_t>(k)]);
        t(row, cc.xHigherSigma(k)) = Value(fx.err[static_cast<size_t>(k)]);
        t(row, cc.xHigherSigma(k) + 1) = Value(fy.err[static_cast<size_t>(k)]);
    }
    t(row, cc.sigma0()) = Value(fx.err[0]), t(row, cc.sigma0() + 1) = Value(fy.err[0]);
    t(row, cc.sigma0() + 2) = Value(fx.err[1]), t(row, cc.sigma0() + 3) = Value(fy.err[1]);
    auto inv0 = [](const SideFit& f) { return f.inverse.empty() ? 0.0 : f.inverse[0]; };
    t(row, cc.xFocus()) = Value(inv0(fx)), t(row, cc.xFocus() + 1) = Value(inv0(fy));
    t(row, cc.xFocus() + 2) = Value(fx.offsetSe), t(row, cc.xFocus() + 3) = Value(fy.offsetSe);
}

// Steps 5 to 9: slope deviations and the statistics block of every set.
void SummaryBlock(Datam& t, const std::vector<ExpoSet>& sets) {
    const int xFocus = FindColumn(t, Value("Xfocus"), 0), yfs = FindColumn(t, Value("YFsigma"), 0);
    const int xSlope = FindColumn(t, Value("Xslope"), 0), ySlope = FindColumn(t, Value("Yslope"), 0);
    if (xFocus <= 0 || yfs <= 0) return;
    const int sc = yfs + 2;
    const char* stats[] = {"Mean", "Maximum", "Minimum", "Range", "StdErr", "Count"};
    const int params = yfs - 9 + 1;

    for (const ExpoSet& e : sets) {
        if (e.firstRow <= 0 || e.lastRow < e.firstRow) continue;
        Datam range(1, 2, 1, 1);
        range(1, 1) = Value(static_cast<int32_t>(e.firstRow)), range(1, 2) = Value(static_cast<int32_t>(e.lastRow));
        const Datam mean = mat_rcstat(t, "Mean", true, -1, nullptr, &range);
        if (!mean.isArray()) continue;
        // Columns 15 and 16 are fixed, whatever the order: above order 1 they
        // overwrite what stood there.
        if (xSlope > 0 && mean.inRange(xSlope, 1) && !IsBlank(mean(xSlope, 1))) {
            const double mx = Through(mean(xSlope, 1).toDouble(), "####0.000");
            const double my = Through(mean(ySlope, 1).toDouble(), "####0.000");
            for (int r = e.firstRow; r <= e.lastRow; ++r) {
                if (IsBlank(t(r, xSlope))) continue;
                t(r, 15) = Value(t(r, xSlope).toDouble() - mx);
                t(r, 16) = Value(t(r, ySlope).toDouble() - my);
            }
        }
    }

    int lastRow = 3;
    for (size_t i = 0; i < sets.size(); ++i) lastRow = 3 + static_cast<int>(i) * (params + 5) + params + 1;
    t.redimPreserve(std::max(t.rowUb(), lastRow), std::max(t.colUb(), sc + 6));

    int top = 3;
    for (const ExpoSet& e : sets) {
        const char* head[] = {"[Dose,", "NA,", "PCinner,", "PCouter]:"};
        for (int c = 0; c < 4; ++c) {
            t(top - 1, sc + c) = Value(head[c]);
            t(top, sc + c) = Value(e.v[c]);
        }
        for (int k = 0; k < 6; ++k) t(top + 1, sc + 1 + k) = Value(stats[k]);
        Datam range(1, 2, 1, 1);
        range(1, 1) = Value(static_cast<int32_t>(e.firstRow)), range(1, 2) = Value(static_cast<int32_t>(e.lastRow));
        std::vector<Datam> st;
        for (const char* s : stats)
            st.push_back(e.firstRow > 0 ? mat_rcstat(t, s, true, -1, nullptr, &range) : Datam());
        for (int p = 0; p < params; ++p) {
            const int col = 9 + p, row = top + 2 + p;
            t(row, sc) = t(0, col);
            for (int k = 0; k < 6; ++k)
                if (st[static_cast<size_t>(k)].isArray() && st[static_cast<size_t>(k)].inRange(col, 1))
                    t(row, sc + 1 + k) = st[static_cast<size_t>(k)](col, 1);
        }
        top += params + 5;
    }
}

}  // namespace

std::string TidyEquation(std::string text) {
    ReplaceAll(text, "+-", "-");
    ReplaceAll(text, "+ -", "-");
    ReplaceAll(text, "+  -", "-");
    ReplaceAll(text, "^ ", "^");
    return text;
}

std::string CalPolynomialText(const std::vector<double>& c, const std::string& v) {
    std::string t = c.empty() ? "0" : CoefText(c[0]);
    for (size_t k = 1; k < c.size(); ++k) t.append(" + ").append(CoefText(c[k])).append(" * ").append(v).append("^").append(std::to_string(k));
    ReplaceAll(t, v + "^1", v);  // orders stop at 6: no "^10" to spoil
    return TidyEquation(t);
}

std::string ExposureGroupText(double dose, double na, double pcInner, double pcOuter) {
    std::string s = "[ ";
    s.append(F3(dose)).append(" , ").append(F3(na)).append(" , ").append(F3(pcInner)).append(" , ");
    return s.append(F3(pcOuter)).append(" ]");
}

Status EquationInvert(const std::string& equation, const std::string& variable, int order, int points,
                      double xHigh, double xLow, std::vector<double>& coefficients, std::string& inverseText) {
    Proc p("Utility(EquationInvert): ");
    coefficients.clear();
    inverseText.clear();
    if (equation.size() < 2 || variable.empty()) return p.fail("Equation or variable name not given.");
    if (order < 1) return p.fail("Equation order was not given");
    if (xHigh < xLow) return p.fail("X-Axis max/min values are not correct.");
    if (xHigh == xLow) return StatusOk();
    const int n = points < order + 2 ? order + 4 : points;
    const int m = std::min(order, kMaxOrder);
    p.chk = 1;
    clsEquation e(equation);
    const int slot = e.VarSlot(variable);
    Notes notes;
    std::vector<double> xs(static_cast<size_t>(n)), design(static_cast<size_t>(n) * m);
    const double step = (xHigh - xLow) / (n - 1);
    for (int i = 0; i < n; ++i) {
        const double x = xLow + i * step;
        e.SetSlot(slot, x);
        if (!e.Solve(&notes)) return p.fail(e.LastError().empty() ? "The equation could not be evaluated." : e.LastError());
        const double y = e.LastValue();
        xs[static_cast<size_t>(i)] = x;
        double yk = 1;
        for (int k = 0; k < m; ++k) design[static_cast<size_t>(i) * m + k] = (yk *= y);
    }
    p.chk = 2;
    SvdFitArrays f = svdfit_std(design.data(), xs.data(), n, m, 0.0f, true, true, 1.0f, -1.0f);
    if (f.result < 0 || f.coef.empty()) return p.fail("The inverse fit failed.");
    coefficients = f.coef;
    std::string t = CoefText(coefficients[0]);
    if (coefficients.size() > 1) t.append(" + ").append(CoefText(coefficients[1])).append(" * ").append(variable);
    for (size_t k = 2; k < coefficients.size(); ++k)
        t.append(" + ").append(CoefText(coefficients[k])).append(" * (").append(variable).append("^").append(std::to_string(k)).append(")");
    inverseText = TidyEquation(t);
    return StatusOk();
}

Status CalibrateReticle(cTemplate& tpl, cLot& lot, const CalibrateArgs& args, CalibrateOut& out) {
    Proc p("cTemplate(CalibrateReticle): ");
    const int order = std::clamp(args.fitOrder, 1, kMaxOrder);
    const CalColumns cc{order};
    const int siteCount = LotSiteCount(lot);
    if (siteCount < 1) return p.fail("No sites in the lot.");
    int firstSite = 1, lastSite = siteCount;
    if (!IEquals(args.siteChoice, "All")) {
        double v = 0;
        if (!ParseNumber(args.siteChoice, v) || v < 1) return p.fail("Site '" + args.siteChoice + "' is not a site number.");
        firstSite = lastSite = static_cast<int>(v);
    }
    double measured = 0;
    if (ParseDateText(lot.DateMeasured, measured)) tpl.DateCreated = measured;
    tpl.DateModified = TemplateNow();
    if (args.graphs) args.graphs->Clear();
    while (tpl.sites.Count() > 0) tpl.sites.Remove(tpl.sites.Count());
    while (tpl.BestFocusSets.Count() > 0) tpl.BestFocusSets.Remove(tpl.BestFocusSets.Count());

    std::vector<ExpoSet> sets = ExposureSets(lot);
    if (sets.empty()) return p.fail("No exposures in the lot.");
    out.results = NewResults(order, static_cast<int>(sets.size()) * siteCount);
    out.results(0, cc.siteCount()) = Value(static_cast<int32_t>(siteCount));
    out.cullsX = out.cullsY = 0;

    // The live sites of each set and site number, gathered once.
    std::map<std::pair<int, int>, std::vector<std::pair<cField*, cSite*>>> where;
    lot.forEachLiveSite([&](cWafer&, cField& f, cSite& s) {
        for (size_t e = 0; e < sets.size(); ++e)
            if (sets[e].matches(f)) {
                where[{static_cast<int>(e), s.NumberKey()}].push_back({&f, &s});
                break;
            }
    });

    std::vector<double> focus, design, xr, yr;
    for (size_t ei = 0; ei < sets.size(); ++ei) {
        ExpoSet& e = sets[ei];
        const std::string expoText = ExposureGroupText(e.v[0], e.v[1], e.v[2], e.v[3]);
        if (args.events && args.events->CurrentExpoGroup) args.events->CurrentExpoGroup(expoText);
        e.firstRow = static_cast<int>(ei) * siteCount + 1;
        for (int site = firstSite; site <= lastSite; ++site) {
            p.chk = 3;
            if (CheckEscKey()) {
                out.escaped = true;
                return StatusOk();
            }
            focus.clear(), design.clear(), xr.clear(), yr.clear();
            double rMin = 9999, rMax = -999, xum = 0, yum = 0;
            auto it = where.find({static_cast<int>(ei), site});
            if (it != where.end())
                for (auto [f, s] : it->second) {
                    xum = s->LocationX + lot.SiteXoffset, yum = s->LocationY + lot.SiteYoffset;
                    for (const cPoint* pt : s->Points()) {
                        if (pt->cull() || pt->ValueV == kMissingValue || pt->ValueH == kMissingValue) continue;
                        const double F = f->Focus;
                        focus.push_back(F);
                        double fk = 1;
                        for (int k = 0; k < kMaxOrder; ++k) design.push_back(fk *= F);
                        const double y = pt->ValueH / 1000.0, x = pt->ValueV / 1000.0;
                        yr.push_back(y), xr.push_back(x);
                        rMin = std::min({rMin, x, y}), rMax = std::max({rMax, x, y});
                    }
                }
            const int rows = static_cast<int>(focus.size());
            if (rows < 2) {
                std::string s = "No values found for Site #:" + std::to_string(site);
                SetStatusText(s.append("  ").append(expoText));
                continue;
            }
            SetStatusText("Site:" + std::to_string(site) + " of " + std::to_string(siteCount) + " " + expoText);

            p.chk = 4;
            double step = std::fabs(focus[0] - focus[1]);
            if (Round3(step) == 0) {
                std::vector<double> u(focus);
                std::sort(u.begin(), u.end());
                u.erase(std::unique(u.begin(), u.end()), u.end());
                if (u.size() < 2) return p.fail("Bad Data: Only one Focus value = " + NumberToText(u[0], 7));
                step = u[1] - u[0];
            }
            const double fLow = *std::min_element(focus.begin(), focus.end());
            const double fHigh = *std::max_element(focus.begin(), focus.end());
            if (fLow == fHigh) continue;

            std::string key = std::to_string(site);
            for (double v : e.v) key.append("_").append(NumberToText(static_cast<float>(v)));
            cSiteCal* sc = tpl.GetSite(key);
            sc->NumberKey = key;
            sc->Number = site;
            sc->Dose = static_cast<float>(e.v[0]), sc->NA = static_cast<float>(e.v[1]);
            sc->PCinner = static_cast<float>(e.v[2]), sc->PCouter = static_cast<float>(e.v[3]);
            sc->LocationX = static_cast<float>(xum), sc->LocationY = static_cast<float>(yum);
            if (rows <= 2) continue;

            p.chk = 5;
            SideFit fy, fx;
            if (Status s = FitSide(design, yr, rows, order, args.rangeCull, out.sigma, "Y", fLow, fHigh, fy); !s)
                return s.failure();
            if (Status s = FitSide(design, xr, rows, order, args.rangeCull, out.sigma, "X", fLow, fHigh, fx); !s)
                return s.failure();
            out.cullsY = fy.culls, out.cullsX = fx.culls;
            StoreSide(*sc, fy, false);
            StoreSide(*sc, fx, true);

            for (auto [f, s] : it->second) {
                cSiteExtra& x = s->extra();
                x.FocusH = 1000 * sc->OffsetY;
                x.Focusv = 1000 * sc->OffsetX;
                x.FocusZ = 1000 * (sc->OffsetX + sc->OffsetY) / 2;
                x.Focus_units = "nm";
            }
            if (args.events && args.events->BestFocusCalculated)
                args.events->BestFocusCalculated(std::to_string(site) + ":[ " + F3(sc->OffsetX) + "," + F3(sc->OffsetY) + "]");

            if (args.graphs) {
                p.chk = 6;
                auto g = SiteChart(site, e, focus, xr, yr, fx, fy, fLow, fHigh, step, rMin, rMax);
                if (g) args.graphs->Add(std::move(g), std::to_string(site) + "_" + std::to_string(ei + 1));
            }
            const int row = static_cast<int>(ei) * siteCount + site;
            WriteRow(out.results, row, cc, site, fx.culls + fy.culls, e, xum / 1000, yum / 1000, fx, fy);
            e.lastRow = std::max(e.lastRow, row);
        }
        if (e.lastRow < e.firstRow) e.firstRow = 0;
    }
    p.chk = 7;
    SummaryBlock(out.results, sets);
    SetStatusText("Reticle Calibration Done...");
    return StatusOk();
}

}  // namespace zorv
