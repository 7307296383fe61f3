// The aberration (tilt and bow) model of each wafer, its lot report, the
// write-back of the model into the points, and the table of modelled data.
//
// Positions: a wafer aberration model is a surface over the wafer, so it is
// fitted on each site's absolute wafer position (LocationXabs, LocationYabs)
// in mm, the columns GetDataMatrix(2) gives; the field position would fold
// every field onto one another. The values are the raw values in display
// units (stored / 1000): the model writes the fitted and residual fields, so
// it must start from the raw data, and raw = fit + residual holds after it.
// The positions and values are read straight off the wafer's points rather
// than from a lot-wide table, which would cost a walk of the whole lot per
// wafer.
//
// Coefficients come out in the display unit per mm^k; the report shows them
// in its column units through the display factor of each column's unit text
// and the feature's unit code (cCoefficient::CalcDisplayFactor).
//
// Tables (row 0 headers, column 0 the row key):
//   report        one row per wafer and fitted component (a component without
//                 values, the Z of most vector lots, has none); a term beyond
//                 those in use leaves its cells empty; "MSerror(um)" has no SE.
//   coefficients  "Wafer", "Term", then "MSe" .. "SterZ": one row per wafer
//                 and term in use, in the fit's units; "MSe" is the wafer's,
//                 the root sum of squares of its components'; a lone feature
//                 other than V, H, Z goes in the V columns.
//   modelled data column 0 the site key; GridLoc the field's die column and
//                 row; FieldLoc the site in its field (mm); Pos its absolute
//                 wafer position (mm); astigmatism, H less V, is derived
//                 where the point holds none.
#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "base/marks.h"
#include "base/report.h"
#include "base/text.h"
#include "model/lot_fit.h"
#include "numerics/aberration.h"
#include "numerics/matrix.h"

namespace zorv {

namespace {

constexpr AberrationBasis kBasis = AberrationBasis::Zernike;

// The factor from the fit's units (the feature's unit per mm^k) into a
// report column's unit text, as a term with those units would show it; 1
// where the rule has nothing to say.
double displayFactor(std::string_view units, long unitsCode) {
    cCoefficient c;
    c.DisplayUnits = std::string(units);
    if (!c.CalcDisplayFactor(unitsCode)) return 1;
    return c.DisplayFactor;
}

// ---- report columns -----------------------------------------------------------

struct Column {
    const char* head;
    int term;           // Zernike term, -1 the MSE
    const char* units;  // the text the display factor reads
};

std::vector<Column> reportColumns(const TiltBowSetup& s) {
    std::vector<Column> c = {{"Piston(um)", 0, "um"},
                             {"Ry(X-Tilt)urad", 1, "urad"},
                             {"Rx(Y-Tilt)urad", 2, "urad"}};
    if (s.bow) {
        c.push_back({"BowX(nm/cm2)", 3, "nm/cm2"});
        c.push_back({"BowY(nm/cm2)", 4, "nm/cm2"});
    }
    if (s.trifoil) {
        c.push_back({"TrifoilX(nm/cm3)", 5, "nm/cm3"});
        c.push_back({"TrifoilY(nm/cm3)", 6, "nm/cm3"});
    }
    if (s.pentode) {
        c.push_back({"PentodeX(nm/cm5)", 7, "nm/cm5"});
        c.push_back({"PentodeY(nm/cm5)", 8, "nm/cm5"});
        c.push_back({"Pentode(nm/cm5)", 9, "nm/cm5"});
    }
    c.push_back({"MSerror(um)", -1, "um"});
    return c;
}

// ---- walks --------------------------------------------------------------------

// fn(field, site, point) over the wafer's points not culled, nor their field
// or site. Every site stands in its field's collection, so the fields see all.
template <class F>
void forEachLivePoint(cWafer& w, F&& fn) {
    for (cField* f : w.Fields()) {
        if (f->cull()) continue;
        for (cSite* s : f->sites()) {
            if (s->cull()) continue;
            for (cPoint* p : s->Points())
                if (!p->cull()) fn(*f, *s, *p);
        }
    }
}

long livePoints(cWafer& w) {
    long n = 0;
    forEachLivePoint(w, [&](cField&, cSite&, cPoint&) { ++n; });
    return n;
}

// The lot's plot feature (and what selecting one overwrites) comes back on
// every path.
class FeatureGuard {
public:
    explicit FeatureGuard(cLot& lot)
        : lot_(lot), feature_(lot.PlotFeature()), name_(lot.PlotFeatureName),
          min_(lot.PlotFeatureMin), max_(lot.PlotFeatureMax) {}
    ~FeatureGuard() {
        lot_.PlotFeature(feature_);
        lot_.PlotFeatureName = name_;
        lot_.PlotFeatureMin = min_;
        lot_.PlotFeatureMax = max_;
    }
    FeatureGuard(const FeatureGuard&) = delete;
    FeatureGuard& operator=(const FeatureGuard&) = delete;
    int feature() const { return feature_; }

private:
    cLot& lot_;
    int feature_;
    std::string name_;
    float min_, max_;
};

// The features a fit holds: V, H, Z for the vector, else the one.
int componentCount(int plotFeature) { return plotFeature == ePlotFeatureVector ? 3 : 1; }
int componentFeature(int plotFeature, int c) {
    return plotFeature == ePlotFeatureVector ? c : plotFeature;
}

bool numberIn(const Value& v, double& x) {
    if (v.isEmpty() || !v.isNumberType()) return false;
    x = v.toDouble();
    return true;
}

// The unit code of a feature; astigmatism is in the units of V.
long unitsCode(const cLot& lot, int feature) {
    std::string text;
    long code = 0;
    if (!lot.GetPlotFeatureUnits(feature == ePlotFeatureAstig ? ePlotFeatureV : feature, text, code))
        return lot.PlotFeatureUnits();
    return code;
}

// Display value of a stored one; the missing mark stays as it is.
inline Value disp(float v) { return IsMissing(v) ? Value(double(kMissingValue)) : Value(double(v) / 1000.0); }
inline Value mm(float um) { return Value(double(um) / 1000.0); }

}  // namespace

// ---------------------------------------------------------------- CalcTiltBow

Result<WaferTiltBow> CalcTiltBow(cWafer& w, const TiltBowSetup& setup) {
    Proc p("cWafer(CalcTiltBow): ");
    cLot* lot = w.parent();
    if (!lot) return p.fail("The wafer belongs to no lot.");
    const int feature = lot->PlotFeature();
    if (feature < ePlotFeatureVector || feature > ePlotFeatureAstig)
        return p.fail("No plot feature selected for the wafer model.");
    p.chk = 1;
    SetStatusText("Wafer aberration model ...");

    // The wafer's positions (absolute, mm) and raw values (display units).
    const int nComp = componentCount(feature);
    const long n = livePoints(w);
    if (n < 3)
        return p.fail("Wafer '" + w.WaferID + "' holds " + std::to_string(n) +
                      " data points: a wafer model needs at least 3.");
    const int rows = static_cast<int>(n);
    Datam x = Datam::vec(rows), y = Datam::vec(rows);
    std::array<Datam, 3> vals;
    std::array<long, 3> valid{0, 0, 0};
    for (int c = 0; c < nComp; ++c) vals[c] = Datam::vec(rows);
    int r = 0;
    forEachLivePoint(w, [&](cField&, cSite& s, cPoint& pt) {
        ++r;
        x(r, 1) = mm(s.LocationXabs);
        y(r, 1) = mm(s.LocationYabs);
        for (int c = 0; c < nComp; ++c) {
            const float v = *pt.FeatureSlot(componentFeature(feature, c + 1), eRaw);
            if (IsMissing(v)) continue;
            vals[c](r, 1) = Value(double(v) / 1000.0);
            ++valid[c];
        }
    });

    p.chk = 2;
    const int asked = std::clamp(setup.terms, 1, kZernikeTerms);
    int terms = 0;
    for (int c = 0; c < nComp; ++c)
        terms = std::max<int>(terms, static_cast<int>(std::min<long>(valid[c] - 2, asked)));
    if (terms < 1)
        return p.fail("Wafer '" + w.WaferID + "' holds too few values for a wafer model.");

    WaferTiltBow out;
    out.terms = terms;
    out.coef = Datam(terms, nComp, 0, 0);
    out.errors = Datam(terms, nComp, 0, 0);
    out.mse = Datam(nComp, 1, 0, 0);
    out.coef(0, 0) = Value("Coef");
    out.errors(0, 0) = Value("SE");
    out.mse(0, 0) = Value("Feature");
    out.mse(0, 1) = Value("MSE");
    for (int k = 0; k < terms; ++k) {
        out.coef(k + 1, 0) = Value(AberrationTermName(kBasis, k));
        out.errors(k + 1, 0) = Value(AberrationTermName(kBasis, k));
    }

    // V, H, Z in turn with the plot feature on each, so what reads the lot's
    // feature (its units above all) sees the component being fitted.
    p.chk = 3;
    FeatureGuard guard(*lot);
    Notes notes;
    notes.status = [](const std::string& t) { SetStatusText(t); };
    AberrationCache cache;
    bool haveTable = false;
    for (int c = 1; c <= nComp; ++c) {
        const int f = componentFeature(feature, c);
        out.coef(0, c) = Value(lot->GetPlotFeatureName(f));
        out.errors(0, c) = Value(lot->GetPlotFeatureName(f));
        out.mse(c, 0) = Value(static_cast<int32_t>(f));
        const int t = static_cast<int>(std::min<long>(valid[c - 1] - 2, asked));
        if (t < 1) continue;  // a component without data (Z of most vector lots)
        lot->PlotFeature(f);
        // The term table depends on the positions alone: built once per wafer.
        const bool reuse = haveTable && t == terms;
        AberrationFit fit = Model_Zernike(x, y, vals[c - 1], t, setup.threshold, setup.rangeCull,
                                          reuse, t == terms ? &cache : nullptr, &notes);
        if (fit.result < 0 || !fit.coef.isArray()) {
            if (notes.failure) return p.fail(notes.failure->text);
            return p.fail("Wafer '" + w.WaferID + "': no model for " + lot->GetPlotFeatureName(f) + ".");
        }
        if (t == terms) haveTable = true;
        for (int k = 1; k <= fit.terms && k <= terms; ++k) {
            out.coef(k, c) = fit.coef.get(k, 1);
            out.errors(k, c) = fit.errors.get(k, 1);
        }
        out.mse(c, 1) = Value(double(fit.mse));
    }
    for (const Warning& wn : notes.warnings) SetStatusText(wn.text);
    return out;
}

// ---------------------------------------------------------------- UpdateWaferModel

Status UpdateWaferModel(cWafer& w, const WaferTiltBow& fit) {
    Proc p("cWafer(UpdateWaferModel): ");
    cLot* lot = w.parent();
    if (!lot) return p.fail("The wafer belongs to no lot.");
    if (!fit.coef.isArray() || !fit.mse.isArray() || fit.coef.colUb() < 1)
        return p.fail("No wafer model to write.");
    p.chk = 1;

    // The components with coefficients, each with its feature and terms.
    struct Comp {
        int feature = 0;
        std::array<double, kZernikeTerms> cf{};
    };
    std::vector<Comp> comps;
    const int terms = std::min({fit.coef.rowUb(), fit.terms > 0 ? fit.terms : kZernikeTerms, kZernikeTerms});
    for (int c = 1; c <= fit.coef.colUb(); ++c) {
        double f = 0;
        if (!numberIn(fit.mse.get(c, 0), f))
            return p.fail("The wafer model names no feature for its column " + std::to_string(c) + ".");
        Comp comp;
        comp.feature = static_cast<int>(f);
        bool any = false;
        for (int k = 1; k <= terms; ++k) {
            double v = 0;
            if (numberIn(fit.coef.get(k, c), v)) {
                comp.cf[static_cast<size_t>(k - 1)] = v;
                any = true;
            }
        }
        if (any) comps.push_back(comp);
    }
    if (comps.empty()) return StatusOk();

    p.chk = 2;
    std::array<double, kZernikeTerms> tv{};
    forEachLivePoint(w, [&](cField&, cSite& s, cPoint& pt) {
        // As the fit saw the position: mm, polar in 32-bit floats.
        float rv, th;
        PolarPosition(double(s.LocationXabs) / 1000.0, double(s.LocationYabs) / 1000.0, rv, th);
        for (int k = 1; k < terms; ++k) tv[static_cast<size_t>(k)] = AberrationTermValue(kBasis, k, rv, th);
        for (const Comp& c : comps) {
            float* raw = pt.FeatureSlot(c.feature, eRaw);
            if (!raw || IsMissing(*raw)) continue;
            double z = c.cf[0];
            for (int k = 1; k < terms; ++k) z += c.cf[static_cast<size_t>(k)] * tv[static_cast<size_t>(k)];
            const float modelled = static_cast<float>(z * 1000.0);
            *pt.FeatureSlot(c.feature, eFitted) = modelled;
            *pt.FeatureSlot(c.feature, eResidual) = *raw - modelled;
        }
    });
    lot->SetModified();
    return StatusOk();
}

// ---------------------------------------------------------------- CalcWaferTiltBow

Result<TiltBowResult> CalcWaferTiltBow(cLot& lot, const TiltBowSetup& setup) {
    Proc p("cLot(CalcWaferTiltBow): ");
    const int feature = lot.PlotFeature();
    const int nComp = componentCount(feature);
    // Wafers whose points are all culled are passed over without a word.
    std::vector<cWafer*> wafers;
    for (cWafer* w : lot.Wafers())
        if (!w->cull() && livePoints(*w) > 0) wafers.push_back(w);
    if (wafers.empty()) return p.fail("No data points in lot.");
    const int liveWafers = static_cast<int>(wafers.size());

    p.chk = 1;
    const std::vector<Column> cols = reportColumns(setup);
    const int lastCol = 1 + 2 * static_cast<int>(cols.size()) - 1;  // the MSE has no "SE"
    TiltBowResult res;
    Datam& rep = res.report;
    rep = Datam(liveWafers * nComp + 3, lastCol, 0, 0);
    rep(0, 0) = Value("Wafer");
    rep(0, 1) = Value("Feature");
    {
        int c = 2;
        for (const Column& col : cols) {
            rep(0, c++) = Value(col.head);
            if (col.term >= 0) rep(0, c++) = Value("SE");
        }
    }
    Datam& ct = res.coefficients;
    ct = Datam(liveWafers * kZernikeTerms, 8, 0, 0);
    {
        const char* h[] = {"Wafer", "Term", "MSe", "CoefV", "CoefH", "CoefZ", "SterV", "SterH", "SterZ"};
        for (int c = 0; c <= 8; ++c) ct(0, c) = Value(h[c]);
    }

    p.chk = 2;
    int row = 0, crow = 0;
    for (cWafer* w : wafers) {
        SetStatusText(" Model setup for wafer: " + w->WaferID);
        if (CheckEscKey()) break;
        Result<WaferTiltBow> fit = CalcTiltBow(*w, setup);
        if (!fit) return fit.failure();
        if (Status st = UpdateWaferModel(*w, *fit); !st) return st.failure();

        const WaferTiltBow& m = *fit;
        double mseSq = 0;
        int fitted = 0;
        for (int c = 1; c <= nComp; ++c) {
            double mse = 0;
            if (!numberIn(m.mse.get(c, 1), mse)) continue;
            ++fitted;
            mseSq += mse * mse;
            const int f = componentFeature(feature, c);
            const long code = unitsCode(lot, f);
            ++row;
            rep(row, 0) = Value(w->WaferID);
            rep(row, 1) = Value(lot.GetPlotFeatureName(f));
            int col = 2;
            for (const Column& cd : cols) {
                if (cd.term < 0) {
                    rep(row, col++) = Value(mse * displayFactor(cd.units, code));
                    continue;
                }
                const double fac = displayFactor(cd.units, code);
                double v = 0, e = 0;
                if (numberIn(m.coef.get(cd.term + 1, c), v)) rep(row, col) = Value(v * fac);
                if (numberIn(m.errors.get(cd.term + 1, c), e)) rep(row, col + 1) = Value(e * fac);
                col += 2;
            }
        }
        // The coefficient table, in the fit's units; one MSE for the wafer,
        // the root sum of squares of its components'.
        if (fitted == 0) continue;
        for (int k = 1; k <= m.terms; ++k) {
            ++crow;
            ct(crow, 0) = Value(w->WaferID);
            ct(crow, 1) = Value(AberrationTermName(kBasis, k - 1));
            ct(crow, 2) = Value(std::sqrt(mseSq));
            for (int c = 1; c <= nComp; ++c) {
                const int f = componentFeature(feature, c);
                const int slot = (f >= 1 && f <= 3) ? f - 1 : 0;
                ct(crow, 3 + slot) = m.coef.get(k, c);
                ct(crow, 6 + slot) = m.errors.get(k, c);
            }
        }
    }

    // "_Summary_": mean and maximum of each value column over the wafer rows.
    p.chk = 3;
    rep.redimPreserve(row + 3, lastCol);
    ct.redimPreserve(crow, 8);
    rep(row + 1, 0) = Value("_Summary_");
    rep(row + 2, 0) = Value("Mean");
    rep(row + 3, 0) = Value("Maximum");
    if (row > 0) {
        Datam range(1, 2, 0, 0);
        range(1, 1) = Value(static_cast<int32_t>(1));
        range(1, 2) = Value(static_cast<int32_t>(row));
        const Datam mean = mat_rcstat(rep, "Mean", true, -1, nullptr, &range);
        const Datam mx = mat_rcstat(rep, "Maximum", true, -1, nullptr, &range);
        for (int c = 2; c <= lastCol; ++c) {
            rep(row + 2, c) = mean.get(c, 1);
            rep(row + 3, c) = mx.get(c, 1);
        }
    }
    return res;
}

// ---------------------------------------------------------------- GetModeledData

Result<Datam> GetModeledData(cLot& lot) {
    Proc p("GetModeledData: ");
    long n = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++n; });
    if (n < 1) return p.fail("No data points in lot.");

    p.chk = 1;
    static constexpr const char* heads[] = {
        "selSite",    "GridLocX",   "GridLocY",   "FieldLocX",  "FieldLocY",      "ValueV",
        "ValueH",     "ValueZ",     "ValueV_fit", "ValueH_fit", "ValueZ_fit",     "ValueV_Res",
        "ValueH_Res", "ValueZ_Res", "ValueAstig", "ValueAstig_Fit", "ValueAstig_Res", "PosX",
        "PosY"};
    constexpr int last = 18;
    Datam d(static_cast<int>(n), last, 0, 0);
    for (int c = 0; c <= last; ++c) d(0, c) = Value(heads[c]);
    const size_t stride = d.stride();
    Value* cells = d.data();
    int r = 0;
    lot.forEachLive([&](cWafer&, cField& f, cSite& s, cPoint& pt) {
        Value* row = cells + static_cast<size_t>(++r) * stride;
        row[0] = Value(static_cast<int32_t>(s.NumberKey()));
        row[1] = Value(double(f.DieX));
        row[2] = Value(double(f.DieY));
        row[3] = mm(s.LocationX);
        row[4] = mm(s.LocationY);
        const float* v[] = {&pt.ValueV, &pt.ValueH, &pt.ValueZ, &pt.ValueV_fit, &pt.ValueH_fit,
                            &pt.ValueZ_fit, &pt.ValueV_Res, &pt.ValueH_Res, &pt.ValueZ_Res};
        for (int k = 0; k < 9; ++k) row[5 + k] = disp(*v[k]);
        // Astigmatism is H less V; where the point holds none, it comes from
        // the components it has.
        float a = pt.ValueAstig, af = pt.ValueAstig_fit, ar = pt.ValueAstig_Res;
        if (IsMissing(a) && !IsMissing(pt.ValueV) && !IsMissing(pt.ValueH)) a = pt.ValueH - pt.ValueV;
        if (IsMissing(af) && !IsMissing(pt.ValueV_fit) && !IsMissing(pt.ValueH_fit))
            af = pt.ValueH_fit - pt.ValueV_fit;
        if (IsMissing(ar) && !IsMissing(a) && !IsMissing(af)) ar = a - af;
        row[14] = disp(a);
        row[15] = disp(af);
        row[16] = disp(ar);
        row[17] = mm(s.LocationXabs);
        row[18] = mm(s.LocationYabs);
    });
    return d;
}

}  // namespace zorv
