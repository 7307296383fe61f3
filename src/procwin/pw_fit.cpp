#include "procwin/pw_fit.h"

#include <cmath>
#include <initializer_list>
#include <string_view>
#include <string>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"

namespace zorv {

namespace {

std::string Num(double v) { return NumberToText(v); }

// Texts and numbers joined (appending: GCC 12 warns falsely on chains of +).
std::string Cat(std::initializer_list<std::string_view> parts) {
    std::string s;
    for (std::string_view x : parts) s.append(x);
    return s;
}

// Ties to even, as the old rounding did.
double Round4(double x) { return std::nearbyint(x * 10000) / 10000; }

double Coef(const Datam& c, int i) { return c.isArray() && i <= c.rowUb() ? c(i, 1).toDouble() : 0.0; }

double SumSquares(const Datam& r) {
    double s = 0;
    if (!r.isArray()) return s;
    for (int i = std::max(r.rowLb(), 1); i <= r.rowUb(); ++i) {
        const double v = r(i, 1).toDouble();
        s += v * v;
    }
    return s;
}

std::string Dashes(std::string e) {
    for (const char* from : {"+-", "+ -", "+  -"}) ReplaceAll(e, from, "-");
    return e;
}

// x and y of the rows where both cells are numbers.
void ReadXY(const Datam& t, int xCol, int yCol, std::vector<double>& xs, std::vector<double>& ys, double& xHigh,
            double& xLow) {
    xHigh = -99999, xLow = 99999;
    for (int r = 1; r <= t.rowUb(); ++r) {
        double x, y;
        if (IsBlank(t(r, xCol)) || IsBlank(t(r, yCol))) continue;
        if (!NumericOf(t(r, xCol), x) || !NumericOf(t(r, yCol), y)) continue;
        xs.push_back(x);
        ys.push_back(y);
        xHigh = std::max(xHigh, x);
        xLow = std::min(xLow, x);
    }
}

// The design of powers 1..order of x, and y.
void Design(const std::vector<double>& xs, const std::vector<double>& ys, int order, Datam& mitp, Datam& vdtp) {
    const int n = static_cast<int>(xs.size());
    mitp = Datam(n, order, 0, 0);
    vdtp = Datam(n, 1, 0, 0);
    for (int i = 0; i < n; ++i) {
        double t = xs[static_cast<size_t>(i)];
        for (int k = 1; k <= order; ++k) {
            mitp(i + 1, k) = Value(t);
            t *= xs[static_cast<size_t>(i)];
        }
        vdtp(i + 1, 1) = Value(ys[static_cast<size_t>(i)]);
    }
}

Failure FitFailure(Proc& p, const Notes& notes) {
    if (notes.failure) return *notes.failure;
    return p.fail("The fit could not be made.");
}

}  // namespace

Result<PWSurfaceFit> PWfit(const Datam& table, int column, const PWFitLimits& limits) {
    Proc p("PWcommon(PWfit): ");
    const int fc = FindColumn(table, Value("Focus"), 0), dc = FindColumn(table, Value("Dose"), 0);
    if (fc < 1) return p.fail("Could not locate variable: Focus");
    if (dc < 1) return p.fail("Could not locate variable: Dose");
    p.chk = 1;
    const int last = table.rowUb();
    Datam mitp(last, 6, 0, 0), vdtp(last, 1, 0, 0);
    int n = 0;
    for (int r = 1; r <= last; ++r) {
        const Value& z = table(r, column);
        if (IsBlank(z)) continue;
        // Focus and dose as 32-bit values before the powers are formed.
        const double d = static_cast<float>(table(r, dc).toDouble()), f = static_cast<float>(table(r, fc).toDouble());
        ++n;
        const double cols[6] = {d, f, f * f, d * f, f * f * f, d * f * f};
        for (int k = 0; k < 6; ++k) mitp(n, k + 1) = Value(cols[k]);
        vdtp(n, 1) = Value(z.toDouble());
    }
    PWSurfaceFit out;
    if (CheckEscKey()) {
        out.escaped = true;
        return out;
    }
    if (n < last) {
        mitp.redimPreserve(n, 6);
        vdtp.redimPreserve(n, 1);
    }
    p.chk = 2;
    Notes notes;
    const SvdFit fit = svdfit_std(mitp, vdtp, 1e-7f, true, true, limits.sigma, limits.range, false, &notes);
    // Esc inside the fit's cull passes: a full set of coefficients, but of a
    // fit cut short (the fit's other early ends leave fewer).
    if (fit.result == -1 && fit.coef.isArray() && fit.coef.rowUb() >= 7) {
        out.escaped = true;
        return out;
    }
    if (!fit.coef.isArray() || fit.coef.rowUb() < 7) return FitFailure(p, notes);
    out.c = fit.coef;
    double c[8];
    for (int i = 1; i <= 7; ++i) c[i] = Coef(out.c, i);
    p.chk = 3;
    out.equation = Cat({Num(c[1]), "+(", Num(c[2]), "* D)+(", Num(c[3]), "*F) +(", Num(c[4]), "* F^2) +(", Num(c[5]),
                        "*(D*F)) +(", Num(c[6]), "*(F^3)) +(", Num(c[7]), "*(D*F^2))"});
    ReplaceAll(out.equation, "+-", "-");
    out.doseTerm = Cat({"(", Num(c[2]), "* D)"});
    out.focusTerm = Cat({"(", Num(c[3]), "*F) +(", Num(c[4]), "* F^2) +(", Num(c[6]), "*F^3)"});
    out.crossTerm = Cat({"D*((", Num(c[5]), "*F) +(", Num(c[7]), "*F^2))"});
    for (std::string* t : {&out.focusTerm, &out.crossTerm}) {
        ReplaceAll(*t, "+(-", "-(");
        ReplaceAll(*t, "+-", "-");
    }
    return out;
}

Result<PWCurveFit> DoseFit(const Datam& table, int xColumn, int yColumn, const PWFitLimits& limits) {
    Proc p("pwCommon(DoseFit): ");
    PWCurveFit out;
    std::vector<double> xs, ys;
    ReadXY(table, xColumn, yColumn, xs, ys, out.xHigh, out.xLow);
    if (xs.size() < 2) return p.fail("Not enough data points for a dose fit.");
    Datam mitp, vdtp;
    Design(xs, ys, 2, mitp, vdtp);
    p.chk = 1;
    // The dose fit always judges significance at 4, whatever the setup says.
    Notes notes;
    const SvdFit fit = svdfit_std(mitp, vdtp, 1e-7f, true, true, 4.0f, limits.range, false, &notes);
    if (!fit.coef.isArray()) return FitFailure(p, notes);
    const bool full = !(SumSquares(fit.resids) > SumSquares(fit.curResids)) || Coef(fit.curCoef, 2) == 0;
    out.c = full ? fit.coef : fit.curCoef;
    out.chiSquare = full ? fit.mse : fit.curMse;
    out.equation = Num(Coef(out.c, 1)) + " +" + Num(Coef(out.c, 2)) + " * X" + " +" + Num(Coef(out.c, 3)) + " * X^2";
    if (Coef(fit.coef, 2) == 0 && Coef(fit.curCoef, 2) == 0) {
        // No dose term at all: a straight line instead.
        p.chk = 2;
        Design(xs, ys, 1, mitp, vdtp);
        const SvdFit line = svdfit_std(mitp, vdtp, 1e-7f, true, true, 4.0f, limits.range, false, &notes);
        if (!line.coef.isArray()) return FitFailure(p, notes);
        out.c = line.coef;
        out.chiSquare = line.mse;
        out.equation = Num(Coef(out.c, 1)) + " +" + Num(Coef(out.c, 2)) + " * X";
    }
    out.equation = Dashes(out.equation);
    return out;
}

Result<PWCurveFit> FocusFit(const Datam& table, int xColumn, int yColumn, const PWFitLimits& limits) {
    Proc p("frmProcessWindow(FocusFit): ");
    PWCurveFit out;
    std::vector<double> xs, ys;
    ReadXY(table, xColumn, yColumn, xs, ys, out.xHigh, out.xLow);
    if (xs.size() < 3) return out;
    Datam mitp, vdtp;
    Design(xs, ys, 3, mitp, vdtp);
    p.chk = 1;
    Notes notes;
    const SvdFit fit = svdfit_std(mitp, vdtp, 1e-7f, true, true, limits.sigma, limits.range, false, &notes);
    if (!fit.coef.isArray()) return FitFailure(p, notes);
    if (!(SumSquares(fit.resids) > SumSquares(fit.curResids))) {
        out.c = fit.coef;
        out.chiSquare = fit.mse;
    } else {
        // The reduced solution, but never without its quadratic term.
        out.c = fit.curCoef;
        if (Coef(out.c, 3) == 0) out.c(3, 1) = fit.coef(3, 1);
        out.chiSquare = fit.curMse;
    }
    const double c1 = Coef(out.c, 1), c2 = Coef(out.c, 2), c3 = Coef(out.c, 3), c4 = Coef(out.c, 4);
    out.equation = Num(c1) + "+" + Num(c2) + " * F" + " +" + Num(c3) + " * F^2 +" + Num(c4) + " * F^3";

    // Turning points in the stable quadratic form. A discriminant that is not
    // positive is used as it stands: the old results depend on it.
    p.chk = 2;
    const double a = 3 * c4, c = c2;
    double b = 2 * c3;
    if (b == 0) b = 1e-21;
    double q = b * b - 4 * a * c;
    if (q > 0) q = -0.5 * (b + (b > 0 ? 1 : b < 0 ? -1 : 0) * std::sqrt(q));
    if (std::fabs(a) > 0) out.root1 = q / a;
    if (std::fabs(q) > 0) out.root2 = c / q;
    out.equation = Dashes(out.equation);
    return out;
}

Result<PWIsoline> PWcurveFill(const Datam& cv, double target, double doseLow, double doseHigh, double focusLow,
                              double focusHigh, double focusStep) {
    Proc p("PWcommon(PWcurveFill): ");
    if (doseHigh == doseLow || focusHigh == focusLow) return p.fail("Scan Range (dose/focus) values not set properly.");
    if (!(focusStep > 0)) return p.fail("Scan Range (dose/focus) values not set properly.");
    double c[8];
    for (int i = 1; i <= 7; ++i) c[i] = Coef(cv, i);
    const double start = focusLow < 0 && 0 < focusHigh ? 0.0 : (focusLow + focusHigh) / 2;
    const double doseRange = std::fabs(doseHigh - doseLow), focusRange = std::fabs(focusHigh - focusLow);
    const double upper = doseHigh + 2 * doseRange, lower = std::max(doseLow - 2 * doseRange, 0.0);
    PWIsoline out;
    const int size = 2 * (static_cast<int>(focusRange / focusStep) + 4);
    out.table = Datam(size, 2, 0, 0);
    out.table(0, 1) = Value("Focus");
    out.table(0, 2) = Value("Dose");
    int n = 0;
    auto add = [&](double f, double d) {
        if (d < lower || d > upper) return;
        if (n >= out.table.rowUb()) out.table.redimPreserve(out.table.rowUb() + size, 2);
        ++n;
        out.table(n, 1) = Value(f);
        out.table(n, 2) = Value(d);
    };
    p.chk = 1;
    for (double f = start; f <= focusHigh;) {
        f = Round4(f);
        const double num = c[1] + c[3] * f + c[4] * f * f + c[6] * f * f * f;
        const double den = c[2] + c[5] * f + c[7] * f * f;
        add(f, den == 0 ? -999.0 : (target - num) / den);
        f += focusStep;
    }
    // Downward without the zero test: a zero denominator is a division failure.
    p.chk = 2;
    for (double f = start - focusStep; f >= focusLow - focusStep;) {
        f = Round4(f);
        const double num = c[1] + c[3] * f + c[4] * f * f + c[6] * f * f * f;
        const double den = c[2] + c[5] * f + c[7] * f * f;
        if (den == 0) return p.fail("Division by zero");
        add(f, (target - num) / den);
        f -= focusStep;
    }
    out.table.redimPreserve(n, 2);
    out.equation = Cat({"(", Num(target), "-", Num(c[1]), "-", Num(c[3]), "*X -", Num(c[4]), "*X^2-", Num(c[6]),
                        "*X^3", ")/(", Num(c[2]), "+", Num(c[5]), "*X ", "+", Num(c[7]), "*X^2)"});
    ReplaceAll(out.equation, "--", "+");
    ReplaceAll(out.equation, "+-", "-");
    return out;
}

Result<Datam> PWsurfFill(Datam& grid, double low, double high, const Datam& cv, long& count) {
    Proc p("PWcommon(PWsurfFill): ");
    if (!cv.isArray() || cv.rowUb() < 7) return p.fail("There are less than 7 coefficients presented.");
    double c[8];
    for (int i = 1; i <= 7; ++i) c[i] = Coef(cv, i);
    p.chk = 1;
    Datam values(grid.rowUb(), grid.colUb(), 0, 0);
    for (int j = 0; j <= grid.colUb(); ++j) values(0, j) = grid(0, j);
    for (int i = 1; i <= grid.rowUb(); ++i) values(i, 0) = grid(i, 0);
    std::vector<double> dose(static_cast<size_t>(grid.rowUb()) + 1);
    for (int i = 1; i <= grid.rowUb(); ++i) dose[static_cast<size_t>(i)] = grid(i, 0).toDouble();
    for (int j = 1; j <= grid.colUb(); ++j) {
        const double f = grid(0, j).toDouble();
        // The focus-only part once a column.
        const double pf = c[1] + c[3] * f + c[4] * f * f + c[6] * f * f * f;
        for (int i = 1; i <= grid.rowUb(); ++i) {
            const double d = dose[static_cast<size_t>(i)];
            const double z = pf + c[2] * d + c[5] * d * f + c[7] * d * f * f;
            values(i, j) = Value(static_cast<float>(z));
            if (low <= z && z <= high) {
                grid(i, j) = Value(1.0);
                ++count;
            }
        }
    }
    return values;
}

bool IsoFocalDose(const Datam& c, bool processWindowRule, double& dose) {
    const double c3 = Coef(c, 3), c4 = Coef(c, 4), c6 = Coef(c, 6), c7 = Coef(c, 7);
    if (c7 == 0) return false;
    dose = -c4 / c7;
    if (processWindowRule && dose == 0 && c6 != 0) dose = -c3 / c6;
    return true;
}

}  // namespace zorv
