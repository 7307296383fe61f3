// Polynomial curve fit with turning points, root finders, pooled sigma and
// the small number helpers around the fit.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/proc.h"
#include "base/report.h"  // CheckEscKey
#include "numerics/equation.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "numerics/tickformat.h"
#include "tell.h"

namespace zorv {

namespace {

std::string headerOf(const Datam& t, int col) {
    if (!t.isArray() || !t.inRange(0, col)) return {};
    return t(0, col).toString();
}

// The text of a double as string concatenation writes it.
std::string num(double d) { return NumberToText(d); }

}  // namespace

// ---------------------------------------------------------------------------

void GetQuadRoots(double a, double b, double c, double& x1, double& x2) {
    x1 = x2 = kNoRoot;
    if (b == 0.0) b = 1e-22;
    const double disc = b * b - 4 * a * c;
    if (!(disc > 0.0)) return;
    const double sgn = b > 0 ? 1.0 : (b < 0 ? -1.0 : 0.0);
    const double q = -0.5 * (b + sgn * std::sqrt(disc));
    x1 = a == 0.0 ? kNoRoot : q / a;
    x2 = q == 0.0 ? kNoRoot : c / q;
}

void GetCubicRoots(double a, double b, double c, double& x1, double& x2, double& x3) {
    const double Q = (a * a - 3 * b) / 9;
    const double R = (2 * a * a * a - 9 * a * b + 27 * c) / 54;
    const double pi = 4 * std::atan(1.0);
    if (Q * Q * Q - R * R > 0) {
        double t = R / std::sqrt(Q * Q * Q);
        if (t == -1.0) t = -1 + 1e-10;  // ArcCos divides by sqrt(1 - t^2)
        const double theta = ArcCos(t);
        const double sq = -2 * std::sqrt(Q);
        x1 = sq * std::cos(theta / 3) - a / 3;
        x2 = sq * std::cos((theta + 2 * pi) / 3) - a / 3;
        x3 = sq * std::cos((theta + 4 * pi) / 3) - a / 3;
    } else {
        const double sgn = R > 0 ? 1.0 : (R < 0 ? -1.0 : 0.0);
        const double A = -sgn * std::pow(std::fabs(R) + std::sqrt(R * R - Q * Q * Q), 1.0 / 3.0);
        const double B = A == 0.0 ? 0.0 : Q / A;
        x1 = A + B - a / 3;
        x2 = x3 = kNoRoot;
    }
}

// ---------------------------------------------------------------------------

double EvalCurve(const std::string& equation, double x, Notes* notes) {
    clsEquation eq(equation);
    eq.Var("x", x);
    return eq.Solution(notes);
}

CurveFit FitCurve(const Datam& table, int xCol, int yCol, int order, Notes* notes) {
    Proc p("Math(FitCurve): ");
    CurveFit out;
    order = std::clamp(order, 1, 4);
    out.order = order;
    if (!table.isArray() || table.dims() != 2) {
        TellFailure(notes, p.fail("No data for mitp matrix: '' analysis."));
        return out;
    }
    p.chk = 1;
    const int lastX = mat_LastRow(table, xCol);
    if (lastX < 1) {
        TellFailure(notes,
                    p.fail("No data for mitp matrix: '" + headerOf(table, xCol) + "' analysis."));
        return out;
    }
    const int lastY = mat_LastRow(table, yCol);
    if (lastY < 1) {
        TellFailure(notes,
                    p.fail("No data for dtp matrix: '" + headerOf(table, yCol) + "' analysis."));
        return out;
    }
    const int last = std::max(lastX, lastY);
    if (last == 1) {
        out.coef = Datam(order + 1, 1, 0, 1);
        out.coef(0, 1) = Value("Coef");
        for (int r = 1; r <= order + 1; ++r) out.coef(r, 1) = Value(0.0);
        out.coef(1, 1) = table.get(1, yCol);
        return out;
    }

    // Design: x, x^2 .. x^order of the rows where both cells are numbers.
    p.chk = 2;
    std::vector<double> xs, ys;
    xs.reserve(static_cast<size_t>(last));
    ys.reserve(static_cast<size_t>(last));
    for (int r = 1; r <= last; ++r) {
        const Value& xv = table.get(r, xCol);
        if (IsBlank(xv)) continue;
        double x, y;
        if (!NumericOf(xv, x) || !NumericOf(table.get(r, yCol), y)) continue;
        xs.push_back(x);
        ys.push_back(y);
    }
    const int n = static_cast<int>(xs.size());
    if (n < 2) {
        TellFailure(notes, p.fail("Not enough numeric data points for a fit."));
        return out;
    }
    Datam mitp(n, order, 0, 0), vdtp(n, 1, 0, 0);
    for (int k = 1; k <= order; ++k) mitp(0, k) = Value(k == 1 ? std::string("X") : "X^" + std::to_string(k));
    vdtp(0, 1) = table.get(0, yCol);
    for (int i = 0; i < n; ++i) {
        double t = xs[i];
        for (int k = 1; k <= order; ++k) {
            mitp(i + 1, k) = Value(t);
            t *= xs[i];
        }
        vdtp(i + 1, 1) = Value(ys[i]);
    }
    p.chk = 3;
    SvdFit fit = svdfit_std(mitp, vdtp, 1e-19f, true, true, 5.0f, 0.0f, false, notes);
    if (!fit.coef.isArray()) return out;
    out.coef = fit.coef;
    out.errors = fit.errors;
    out.mse = fit.mse;
    out.resids = fit.resids;

    std::vector<double> c(static_cast<size_t>(order) + 2, 0.0);  // c[1]..c[order+1]
    for (int k = 1; k <= order + 1 && k <= fit.coef.rowUb(); ++k) c[k] = fit.coef(k, 1).toDouble();

    // The equation is rounded for display, and every y below comes from it.
    p.chk = 4;
    std::string text = num(c[1]) + " + " + num(c[2]) + "*X ";
    for (int k = 2; k <= order; ++k) text += " + " + num(c[k + 1]) + "*X^" + std::to_string(k);
    out.equation = FormatEquation(text, "-1", 3);
    clsEquation eq(out.equation);
    const int slot = eq.VarSlot("x");
    auto at = [&](double x) {
        eq.SetSlot(slot, x);
        return eq.Solution(notes);
    };

    if (order > 3 && c[5] == 0.0) order = 3;
    clsEquation work;
    std::vector<double> roots;
    auto fill = [&](const std::string& d2text) {
        work.setEquation(d2text);
        const int ws = work.VarSlot("x");
        int k = 0;
        for (double r : roots) {
            if (r == kNoRoot || k >= 3) continue;
            work.SetSlot(ws, r);
            out.tp[k].x = r;
            out.tp[k].y = at(r);
            out.tp[k].d2 = work.Solution(notes);
            ++k;
        }
    };
    p.chk = 5;
    if (order == 4) {
        const double d = 4 * c[5];
        if (std::fabs(d) > 0) {
            double r1, r2, r3;
            GetCubicRoots(3 * c[4] / d, 2 * c[3] / d, c[2] / d, r1, r2, r3);
            roots = {r1, r2, r3};
            fill("2 *" + num(c[3]) + " + 6*" + num(c[4]) + "*X + 12*" + num(c[5]) + "* X^2");
        } else {
            order = 3;
        }
    }
    if (order == 3) {
        double r1, r2;
        GetQuadRoots(3 * c[4], 2 * c[3], c[2], r1, r2);
        if (r1 == kNoRoot && r2 == kNoRoot) {
            order = 2;
        } else {
            roots = {r1, r2};
            fill("2 *" + num(c[3]) + " + (6*" + num(c[4]) + ")* X");
        }
    }
    if (order == 2 && std::fabs(c[3]) > 0) {
        const double x = -c[2] / (2 * c[3]);
        out.tp[0].x = x;
        out.tp[0].y = at(x);
        out.tp[0].d2 = 2 * c[3];
    }
    out.order = order;
    work.Kill();
    return out;
}

// ---------------------------------------------------------------------------

double LinearCorrelation(const Datam& x, const Datam& y) {
    if (!x.isArray() || !y.isArray() || x.dims() != 2 || y.dims() != 2) return 0.0;
    const int xc = VecCol(x), yc = VecCol(y);
    const int r0 = FirstData(x, 1), n = x.rowUb() - r0 + 1;
    if (n < 1) return 0.0;
    float sx = 0, sy = 0;
    for (int r = r0; r <= x.rowUb(); ++r) {
        double a, b;
        if (NumericOf(x.get(r, xc), a) && NumericOf(y.get(r, yc), b)) {
            sx += static_cast<float>(a);
            sy += static_cast<float>(b);
        }
    }
    if (sx == 0.0f || sy == 0.0f) return 0.0;
    const float mx = sx / static_cast<float>(n), my = sy / static_cast<float>(n);
    double sxy = 0, sxx = 0, syy = 0;
    for (int r = r0; r <= x.rowUb(); ++r) {
        double a = 0, b = 0;
        if (!NumericOf(x.get(r, xc), a)) a = 0;
        if (!NumericOf(y.get(r, yc), b)) b = 0;
        const double dx = a - mx, dy = b - my;
        sxy += dx * dy;
        sxx += dx * dx;
        syy += dy * dy;
    }
    const double prod = sxx * syy;
    return prod > 0 ? sxy / std::sqrt(prod) : 0.0;
}

SigFigParts SigFig(double value, int digits) {
    SigFigParts s;
    char buf[64];
    s.scientific = ScientificText(value);  // "Scientific": 0.00E+00
    std::snprintf(buf, sizeof buf, "%s", s.scientific.c_str());
    const char* dot = std::strchr(buf, '.');
    const char* e = std::strchr(buf, 'E');
    if (!dot || !e) {  // not a finite number
        s.text = s.scientific;
        return s;
    }
    s.intPart.assign(static_cast<const char*>(buf), dot);
    s.fracPart.assign(dot + 1, e);
    s.exponent = std::atoi(e + 1);
    if (digits == -99) {
        s.text = s.scientific;
        return s;
    }
    // The digits come from the number's general text (15 significant).
    std::snprintf(buf, sizeof buf, "%.14E", value);
    dot = std::strchr(buf, '.');
    e = std::strchr(buf, 'E');
    std::string frac(dot + 1, e);
    while (!frac.empty() && frac.back() == '0') frac.pop_back();
    if (digits - 1 < static_cast<int>(frac.size())) frac.resize(static_cast<size_t>(std::max(digits - 1, 0)));
    s.intPart.assign(static_cast<const char*>(buf), dot);
    s.fracPart = frac;
    s.exponent = std::atoi(e + 1);
    char ex[16];
    std::snprintf(ex, sizeof ex, "E%c%02d", s.exponent < 0 ? '-' : '+', std::abs(s.exponent));
    s.text = s.intPart + "." + s.fracPart + ex;
    return s;
}

std::string SigFig(double value, std::string& scientific, std::string& intPart,
                   std::string& fracPart, int digits) {
    SigFigParts s = SigFig(value, digits);
    scientific = s.scientific;
    intPart = s.intPart;
    fracPart = s.fracPart;
    return s.text;
}

Value SingleCheck(const Value& v) {
    double x;
    if (!NumericOf(v, x)) return v;
    if (x > 0) x = std::clamp(x, 1.4e-45, 3.4e38);
    else x = std::clamp(x, -3.4e38, -1.4e-45);
    return Value(static_cast<float>(x));
}

Datam String2Vector(std::string_view list, std::string_view header, std::string_view delimiter,
                    Notes* notes) {
    if (list.find(',') == std::string_view::npos && !IsNumericValue(list)) {
        Proc p("MathUtility(String2Vector): ");
        TellFailure(notes, p.fail("Listing provided is not a comma-delimited list."));
        return Datam();
    }
    std::string head;
    if (!header.empty()) {
        const size_t at = list.find(header);
        if (at != std::string_view::npos) {
            head = std::string(list.substr(0, at));
            list = list.substr(at + header.size());
        }
    }
    if (delimiter.empty()) delimiter = ",";
    constexpr int kMaxItems = 5096;
    std::vector<std::string_view> items;
    size_t pos = 0;
    while (static_cast<int>(items.size()) < kMaxItems) {
        const size_t at = list.find(delimiter, pos);
        items.push_back(list.substr(pos, at == std::string_view::npos ? std::string_view::npos : at - pos));
        if (at == std::string_view::npos) break;
        pos = at + delimiter.size();
    }
    Datam out(static_cast<int>(items.size()), 1, 0, 0);
    if (!head.empty()) out(0, 1) = Value(head);
    for (size_t i = 0; i < items.size(); ++i) {
        std::string_view t = items[i];
        while (!t.empty() && (t.front() == ' ' || t.front() == '\t')) t.remove_prefix(1);
        while (!t.empty() && (t.back() == ' ' || t.back() == '\t')) t.remove_suffix(1);
        if (!t.empty()) out(static_cast<int>(i) + 1, 1) = Value(t);
    }
    return out;
}

}  // namespace zorv
