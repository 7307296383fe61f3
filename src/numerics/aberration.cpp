#include "numerics/aberration.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"  // CheckEscKey
#include "base/text.h"
#include "numerics/lsq.h"
#include "tell.h"

namespace zorv {

namespace {

constexpr const char* kCoefFormat = "#################0.##################";

struct TermDef {
    const char* name;
    const char* text;
    const char* shortText;
};

// The model texts are the ones the rest of the system parses and shows;
// their blanks and the "+" after TiltX are part of them.
constexpr TermDef kZernike[kZernikeTerms] = {
    {"Piston", "", ""},
    {"TiltX", " * Rval * cos(theta) +", "* Rval * cos(Theta) "},
    {"TiltY", " * Rval * sin(theta)", "* Rval * sin(Theta)"},
    {"BowX", " * (Rval * cos(theta))^2 ", "* (Rval * cos(Theta))^2"},
    {"BowY", " * (Rval * sin(theta))^2 ", "* (Rval * sin(Theta))^2"},
    {"TrifoilX", " * Rval^3 * cos(3 * Theta) ", ""},
    {"TrifoilY", " * Rval^3 * sin(3 * Theta) ", ""},
    {"PentodeX", " * Rval^5 * cos(5 * Theta)", ""},
    {"PentodeY", " * Rval^5 * sin(5 * Theta)", ""},
    {"Pentode", " * Rval^5", ""},
};

// The first term's text leaves out R: kept as the system has always written it.
constexpr TermDef kASML[kASMLfocusTerms] = {
    {"Piston", "", ""},
    {"TiltX", " *  cos(Theta) ", "* R * cos(Theta) "},
    {"TiltY", " * R * sin(Theta) ", "* R * sin(Theta)"},
    {"Bow", " * R^2 * cos( Theta) ", "* R * R * cos( Theta)"},
    {"R2sin", " * R^2 * sin( Theta) ", "* R * R * sin( Theta)"},
    {"R2", " * R^2 ", "* R * R "},
    {"R3cos3", " * R^3 * cos(3 * Theta) ", ""},
    {"R3sin3", " * R^3 * sin(3 * Theta) ", ""},
    {"R3", " * R^3 ", ""},
    {"R5", " * R^5 ", ""},
    {"R5cos5", " * R^5 * cos(5 * Theta)", ""},
    {"R5sin5", " * R^5 * sin(5 * Theta)", ""},
};

const TermDef* table(AberrationBasis b, int& count) {
    if (b == AberrationBasis::Zernike) {
        count = kZernikeTerms;
        return kZernike;
    }
    count = kASMLfocusTerms;
    return kASML;
}

const TermDef* term(AberrationBasis b, int k) {
    int n;
    const TermDef* t = table(b, n);
    return (k >= 0 && k < n) ? &t[k] : nullptr;
}

double vecValue(const Datam& d, int i, bool* ok) {
    static const Value empty;
    const Value& v = d.dims() == 1 ? (d.inRange(i) ? d.at(i) : empty)
                                   : d.get(i, d.colUb() >= 1 ? 1 : d.colLb());
    if (v.isEmpty()) {
        *ok = false;
        return 0;
    }
    return v.toDouble(ok);
}

int vecUb(const Datam& d) { return d.isArray() ? d.rowUb() : 0; }

// The display text of the terms beyond those it names: the higher orders
// are shown, as the system always has, with the one generic factor.
const char* shortFallback(AberrationBasis b) {
    return b == AberrationBasis::Zernike ? "* Rval * Rval " : "* R ";
}

// Concatenates " +" coefficient text for each non-zero coefficient, then
// folds the sign runs and trims the ends; "0" when nothing is left.
std::string modelText(AberrationBasis b, const Datam& coef, int terms, bool shortForm) {
    std::string s;
    for (int k = 0; k < terms; ++k) {
        const double c = coef.get(k + 1, 1).toDouble();
        if (c == 0) continue;
        const TermDef* t = term(b, k);
        s += " +";
        s += Format(c, kCoefFormat);
        if (shortForm) {
            if (k > 0) s += " ", s += *t->shortText ? t->shortText : shortFallback(b);
        } else {
            s += t->text;
        }
    }
    ReplaceAll(s, "+-", "-");
    ReplaceAll(s, "-+", "-");
    ReplaceAll(s, "+ -", "-");
    ReplaceAll(s, "- +", "-");
    size_t b0 = s.find_first_not_of(' ');
    if (b0 != std::string::npos && s[b0] == '+') b0 = s.find_first_not_of(' ', b0 + 1);
    const size_t e = s.find_last_not_of(" +");
    if (b0 == std::string::npos || e == std::string::npos || e < b0) return "0";
    return s.substr(b0, e - b0 + 1);
}

Datam namedVector(AberrationBasis b, const Datam& src, int terms, const char* head) {
    Datam d(terms, 1, 0, 0);
    d(0, 1) = Value(head);
    for (int k = 0; k < terms; ++k) {
        d(k + 1, 0) = Value(term(b, k)->name);
        d(k + 1, 1) = src.get(k + 1, 1);
    }
    return d;
}

AberrationFit fitBasis(AberrationBasis b, const Datam& x, const Datam& y, const Datam& values,
                       int nTerms, float threshold, float rangeCull, bool reuse,
                       AberrationCache* cache, Notes* notes) {
    AberrationFit out;
    int tableTerms;
    table(b, tableTerms);
    const int n = vecUb(values);
    const int terms = std::clamp(std::min(n, nTerms), 0, tableTerms);
    const int m = std::max(terms - 1, 0);
    out.terms = terms;
    if (n < 1 || terms < 1) {
        out.text = out.shortText = "0";
        return out;
    }

    AberrationCache local;
    AberrationCache& c = cache ? *cache : local;
    const bool keep = reuse && c.basis == b && c.mitp.isArray() && c.mitp.rowUb() == n &&
                      c.mitp.colUb() == m && c.rval.isArray() && c.rval.rowUb() == n;
    if (!keep) {
        c.basis = b;
        c.mitp = Datam(n, m, 0, 0);
        c.rval = Datam::vec(n);
        c.theta = Datam::vec(n);
        for (int k = 1; k <= m; ++k) c.mitp(0, k) = Value(term(b, k)->name);
        for (int i = 1; i <= n; ++i) {
            if (i % 200 == 0) {
                TellStatus(notes,
                           "Zernike model row: " + std::to_string(i) + " of " + std::to_string(n));
                if (CheckEscKey()) {
                    c.mitp.clear();
                    out.text = out.shortText = "0";
                    return out;
                }
            }
            bool okx = false, oky = false;
            const double xi = vecValue(x, i, &okx), yi = vecValue(y, i, &oky);
            float r, t;
            PolarPosition(xi, yi, r, t);
            c.rval(i, 1) = Value(r);
            c.theta(i, 1) = Value(t);
            c.mitp(i, 0) = Value(static_cast<int32_t>(i));
            for (int k = 1; k <= m; ++k) c.mitp(i, k) = Value(AberrationTermValue(b, k, r, t));
        }
    }
    out.rval = c.rval;
    out.theta = c.theta;

    Datam vdtp(n, 1, 0, 0);
    for (int i = 1; i <= n; ++i) {
        bool ok = false;
        const double v = vecValue(values, i, &ok);
        vdtp(i, 0) = Value(static_cast<int32_t>(i));
        if (ok) vdtp(i, 1) = Value(v);
    }
    SvdFit fit = svdfit_std(c.mitp, vdtp, 0.0f, true, true, threshold, rangeCull, false, notes);
    out.result = fit.result;
    out.excluded = fit.excluded;
    if (fit.result < 0 || !fit.coef.isArray()) {
        out.text = out.shortText = "0";
        return out;
    }

    out.coef = namedVector(b, fit.curCoef, terms, "Coef");
    out.errors = namedVector(b, fit.curErrors, terms, "SE");
    out.fullCoef = namedVector(b, fit.coef, terms, "Coef");
    out.fullErrors = namedVector(b, fit.errors, terms, "SE");
    out.mse = static_cast<float>(fit.curMse);
    out.fullMse = fit.mse;

    // Modelled values at every position, residuals where a value exists.
    out.modelled = Datam::vec(n);
    out.resids = Datam::vec(n);
    std::vector<double> cf(static_cast<size_t>(terms));
    for (int k = 0; k < terms; ++k) cf[static_cast<size_t>(k)] = out.coef(k + 1, 1).toDouble();
    for (int i = 1; i <= n; ++i) {
        double z = cf[0];
        for (int k = 1; k <= m; ++k) z += cf[static_cast<size_t>(k)] * c.mitp(i, k).toDouble();
        out.modelled(i, 1) = Value(z);
        if (!vdtp(i, 1).isEmpty()) out.resids(i, 1) = Value(vdtp(i, 1).toDouble() - z);
    }

    out.text = modelText(b, out.coef, terms, false);
    out.shortText = modelText(b, out.coef, terms, true);
    return out;
}

}  // namespace

const char* AberrationTermName(AberrationBasis b, int k) {
    const TermDef* t = term(b, k);
    return t ? t->name : "";
}
const char* AberrationTermText(AberrationBasis b, int k) {
    const TermDef* t = term(b, k);
    return t ? t->text : "";
}
const char* AberrationShortText(AberrationBasis b, int k) {
    const TermDef* t = term(b, k);
    if (!t) return "";
    return k > 0 && !*t->shortText ? shortFallback(b) : t->shortText;
}

double AberrationTermValue(AberrationBasis b, int k, double r, double t) {
    if (b == AberrationBasis::Zernike) {
        switch (k) {
            case 1: return r * std::cos(t);
            case 2: return r * std::sin(t);
            case 3: { const double v = r * std::cos(t); return v * v; }
            case 4: { const double v = r * std::sin(t); return v * v; }
            case 5: return r * r * r * std::cos(3 * t);
            case 6: return r * r * r * std::sin(3 * t);
            case 7: return std::pow(r, 5) * std::cos(5 * t);
            case 8: return std::pow(r, 5) * std::sin(5 * t);
            case 9: return std::pow(r, 5);
            default: return 0;
        }
    }
    switch (k) {
        case 1: return r * std::cos(t);
        case 2: return r * std::sin(t);
        case 3: return r * r * std::cos(t);
        case 4: return r * r * std::sin(t);
        case 5: return r * r;
        case 6: return r * r * r * std::cos(3 * t);
        case 7: return r * r * r * std::sin(3 * t);
        case 8: return r * r * r;
        case 9: return std::pow(r, 5);
        case 10: return std::pow(r, 5) * std::cos(5 * t);
        case 11: return std::pow(r, 5) * std::sin(5 * t);
        default: return 0;
    }
}

void PolarPosition(double x, double y, float& rval, float& theta) {
    rval = static_cast<float>(std::sqrt(x * x + y * y));
    if (std::fabs(x) < 1e-27) x = 1e-27;
    double t = std::atan(y / x);
    if (x < 0) t += kPi;
    else if (y < 0) t += 2 * kPi;
    theta = static_cast<float>(t);
}

AberrationFit Model_Zernike(const Datam& x, const Datam& y, const Datam& values, int nTerms,
                            float threshold, float rangeCull, bool reuse, AberrationCache* cache,
                            Notes* notes) {
    return fitBasis(AberrationBasis::Zernike, x, y, values, nTerms, threshold, rangeCull, reuse,
                    cache, notes);
}

AberrationFit Model_ASMLfocus(const Datam& x, const Datam& y, const Datam& values, int nTerms,
                              float threshold, float rangeCull, bool reuse, AberrationCache* cache,
                              Notes* notes) {
    return fitBasis(AberrationBasis::ASMLfocus, x, y, values, nTerms, threshold, rangeCull, reuse,
                    cache, notes);
}

}  // namespace zorv
