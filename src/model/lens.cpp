// The lens signature of the process window: the wafer model (the ten pentode
// terms) of every wafer and the field model (piston, tilts, curvatures)
// common to the chosen fields, and the lot less the switched terms.
//
// How the signature is found: each wafer's model is fitted to the raw values
// of the feature; the field model is then fitted, field by field, to what the
// wafer model leaves (its residuals), so that the wafer's tilt does not show
// as a field tilt. The field signature is the mean of the field fits, a term
// averaged over the fields where the fit let it in.
//
// Removal: at each site the switched terms' modelled values (term value x
// coefficient x 1000, at the positions the fits used: the absolute wafer
// position in mm for the wafer model, the field position plus
// SiteXoffset/SiteYoffset in mm for the field model) are the fitted value of
// the feature, raw less that the residual, and the returned lot reads its
// residuals (PLotDataType 2). The other features read their raw values there
// (fitted 0), so that the whole lot reads alike. Culled items are kept and
// treated alike, except that a wafer without a fit (culled, or without live
// points) loses only the field terms.
//
// Tables (row 0 headers, column 0 the row key; display units, positions in mm):
//   wafer model     "Wafer", "Feature", a column per term (its display units
//                   in the header, the value through the term's display
//                   factor), the same per term with "_SE", "MSE", "Points",
//                   "Culled"; one row per wafer fitted, then "Mean"
//                   (mat_rcstat "MEAN"). A term the fit left out is empty.
//   field model     the same with "Field" (its key) for "Feature", one row per
//                   chosen field fitted; "Mean" is the signature removed.
//   wafer response  per wafer and live field: "Wafer", "Field", "X(mm)",
//                   "Y(mm)" (the mean absolute position of its points), the
//                   feature's mean raw value, "Model" (the wafer model's mean
//                   there), "Residual", "Points".
//   row / column    "Row(mm)" / "Column(mm)" (field position), the feature's
//   averages        "AVERAGE" over the chosen fields less the wafer model,
//                   "Model" (the field signature there), "Residual", "Points".
//   removed         by site key of the chosen fields: "Site", "X(mm)",
//                   "Y(mm)", then "Removed" (the switched field terms) or,
//                   for the measured field, the feature's average and "Points".
// The removal tables of RemoveLensAberrations hold the switched terms only.
//
// Culls: each fit's range and sigma cull; the count reported sums them over
// the wafer and field fits, so a point culled by both counts twice.
//
// Sheets, only with a workbook, each with its row in "Index": the models
// write "WaferModel_" feature, "WaferResponse_" feature, "FieldModel_" name
// "[" feature "]" (sheet names take the brackets as "(" ")"),
// "FieldAberrations" (the row averages over the column averages) and, with a
// field removed, "FieldModelRemoval" or, for the measured field,
// "FieldRemoval"; the removal "WaferPWModel_" and "FieldPWModel_" name "["
// feature "]". The removal note stands in A1 of the removal sheets.
#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/marks.h"
#include "base/report.h"
#include "base/text.h"
#include "model/lot_fit.h"
#include "numerics/equation.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

std::string Num(long n) { return std::to_string(n); }

// The terms of a model evaluated at one site: each term's equation with the
// slots of the variables it uses, as the fits evaluate them.
class TermValues {
public:
    explicit TermValues(const Cmodel& m) {
        for (const cCoefficient* c : m.Coefficients) {
            const std::string up = Upper(c->ValueString());
            eqs_.emplace_back(c->ValueString());
            clsEquation& e = eqs_.back();
            Slots s;
            if (up.find('X') != std::string::npos) s.x = e.VarSlot("x");
            if (up.find('Y') != std::string::npos) s.y = e.VarSlot("y");
            if (up.find('R') != std::string::npos) s.r = e.VarSlot("r");
            if (up.find("THETA") != std::string::npos) s.th = e.VarSlot("theta");
            slots_.push_back(s);
        }
        vals_.assign(eqs_.size(), 0.0);
    }
    void eval(double x, double y, double r, double th) {
        for (size_t k = 0; k < eqs_.size(); ++k) {
            const Slots& s = slots_[k];
            clsEquation& e = eqs_[k];
            if (s.x >= 0) e.SetSlot(s.x, x);
            if (s.y >= 0) e.SetSlot(s.y, y);
            if (s.r >= 0) e.SetSlot(s.r, r);
            if (s.th >= 0) e.SetSlot(s.th, th);
            vals_[k] = e.Solution();
        }
    }
    // Sum of coefficient x term over the terms `on` (all when empty).
    double sum(const std::vector<double>& coef, const std::vector<char>* on = nullptr) const {
        double v = 0;
        for (size_t k = 0; k < vals_.size() && k < coef.size(); ++k)
            if (!on || (k < on->size() && (*on)[k])) v += coef[k] * vals_[k];
        return v;
    }

private:
    struct Slots {
        int x = -1, y = -1, r = -1, th = -1;
    };
    std::vector<clsEquation> eqs_;
    std::vector<Slots> slots_;
    std::vector<double> vals_;
};

void WaferTerms(TermValues& t, const cSite& s) {
    t.eval(s.LocationXabs / 1000.0, s.LocationYabs / 1000.0, s.LocationRabs / 1000.0, s.LocationThetaAbs);
}
void FieldPosition(const cLot& lot, const cSite& s, double& x, double& y) {
    x = (double(s.LocationX) + lot.SiteXoffset) / 1000.0;
    y = (double(s.LocationY) + lot.SiteYoffset) / 1000.0;
}
void FieldTerms(TermValues& t, const cLot& lot, const cSite& s) {
    double x = 0, y = 0;
    FieldPosition(lot, s, x, y);
    t.eval(x, y, std::sqrt(x * x + y * y), s.CalcAngle());
}

// A term's column: its header and the factor into its display units.
struct TermColumn {
    std::string name, head;
    double factor = 1;
};
std::vector<TermColumn> TermColumns(const Cmodel& m, const std::string& unitsText, long unitsCode) {
    std::vector<TermColumn> out;
    for (const cCoefficient* c : m.Coefficients) {
        TermColumn t;
        t.name = c->NameCoef;
        if (Trim(c->DisplayUnits).empty()) {
            t.head = t.name + "(" + unitsText + ")";
        } else {
            cCoefficient probe;
            probe.DisplayUnits = c->DisplayUnits;
            if (probe.CalcDisplayFactor(unitsCode)) t.factor = probe.DisplayFactor;
            t.head = t.name + "(" + c->DisplayUnits + ")";
        }
        out.push_back(std::move(t));
    }
    return out;
}

// One fitted model of a wafer or field, in the fit's units.
struct FitRow {
    cWafer* wafer = nullptr;
    cField* field = nullptr;
    std::vector<double> coef, se;  // 0 where the fit left a term out
    std::vector<char> in;
    double mse = 0;
    long points = 0, culled = 0;
};

FitRow ReadFit(const Cmodel& m, cWafer* w, cField* f) {
    FitRow r;
    r.wafer = w;
    r.field = f;
    for (const cCoefficient* c : m.Coefficients) {
        // A fit sets the terms it leaves out to -999.
        const bool in = c->Include && c->Value != -999;
        r.in.push_back(in ? 1 : 0);
        r.coef.push_back(in ? c->Value : 0.0);
        r.se.push_back(in ? c->Sigma : 0.0);
    }
    r.mse = m.MSE;
    const Datam& dep = m.Dependent();
    r.points = dep.isArray() && dep.dims() == 2 ? std::max(dep.rowUb(), 0) : 0;
    return r;
}

// The points the fit's range and sigma cull left out: the model keeps its
// tables, and the same fit on them counts its culls.
long CulledBy(const Cmodel& m, const ModelFitOptions& o) {
    if (o.rangeCull < 0) return 0;  // no cull asked
    const Datam& x = m.Mitp();
    const Datam& y = m.Dependent();
    if (!x.isArray() || !y.isArray() || x.dims() != 2 || y.dims() != 2 || y.rowUb() < 3 || x.colUb() < 1)
        return 0;
    Notes notes;
    const SvdFit f = svdfit_std(x, y, 0.0f, true, true, o.thresholdMultiple, o.rangeCull, false, &notes);
    return std::max(f.result, 0);
}

// A switch string: "1" switches a term on; missing characters leave it off.
std::vector<char> Switches(const std::string& s, size_t n) {
    std::vector<char> on(n, 0);
    for (size_t k = 0; k < n && k < s.size(); ++k) on[k] = s[k] == '1';
    return on;
}
bool Any(const std::vector<char>& on) { return std::find(on.begin(), on.end(), 1) != on.end(); }

// What the models found, on a clone of the lot.
struct Lens {
    std::shared_ptr<cLot> lot;
    int feature = 1;
    std::string featureName, name;
    ModelFitOptions options;
    std::unique_ptr<Cmodel> waferModel, fieldModel;  // the terms, for evaluation
    std::vector<TermColumn> waferColumns, fieldColumns;
    std::vector<FitRow> wafers, fields;
    std::unordered_map<const cWafer*, size_t> waferRow;
    std::vector<double> fieldMean;  // the field signature
    std::vector<char> fieldMeanIn;
    std::vector<cField*> chosen;
    std::vector<char> waferOn, fieldOn;
    long culled = 0;
};

bool Chosen(const Datam& list, const cField& f) {
    if (!list.isArray()) return true;
    const int col = list.dims() == 2 ? VecCol(list) : 0;
    for (int r = list.rowLb(); r <= list.rowUb(); ++r) {
        const Value& v = list.dims() == 2 ? list.get(r, col) : list.at(r);
        if (v.isEmpty()) continue;
        if (v.isNumberType()) {
            if (std::lround(v.toDouble()) == f.Number) return true;
        } else if (IEquals(Trim(v.toString()), f.NumberKey)) {
            return true;
        }
    }
    return false;
}

long LivePoints(const cLot& lot, int feature) {
    long n = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        if (!IsMissingTol(*p.FeatureSlot(feature, eRaw))) ++n;
    });
    return n;
}
bool HasValues(const cWafer& w, int feature) {
    for (const cField* f : w.Fields()) {
        if (f->cull()) continue;
        for (const cSite* s : f->sites()) {
            if (s->cull()) continue;
            for (const cPoint* p : s->Points())
                if (!p->cull() && !IsMissingTol(*p->FeatureSlot(feature, eRaw))) return true;
        }
    }
    return false;
}

// The models of the lot's feature on a clone: wafers, then the chosen fields
// on the wafer residuals.
Status FitLens(Proc& p, cLot& lot, const LensSetup& setup, Lens& L) {
    SetStatusText("Data model setup ...");
    p.chk = 1;
    if (lot.Wafers().Count() == 0) return p.fail("No data points in lot.");
    L.feature = setup.feature == ePlotFeatureLot ? lot.PlotFeature() : setup.feature;
    if (L.feature < ePlotFeatureV || L.feature > ePlotFeatureAstig)
        return p.fail("The lens models take one feature: select a feature other than the vector.");
    L.featureName = lot.GetPlotFeatureName(L.feature);
    if (L.featureName.empty()) L.featureName = "Feature" + Num(L.feature);
    L.name = setup.name.empty() ? lot.LotName : setup.name;
    long total = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++total; });
    if (total < 1) return p.fail("No data points in lot.");
    if (LivePoints(lot, L.feature) < 1) return p.fail("No data for the feature '" + L.featureName + "' in the lot.");

    // The significance limit asks for the reduced solution: terms under it
    // count as zero and are not removed.
    L.options.thresholdMultiple = setup.sigma > 0 ? setup.sigma : setup.threshold;
    L.options.useCurrent = setup.sigma > 0;
    L.options.rangeCull = setup.rangeCull;

    L.waferModel = LoadPW_WafModelPentode();
    L.waferModel->PlotFeature = L.feature;
    L.waferModel->FamilyType = 0;  // every family's sites: the lens sees them all
    L.fieldModel = LoadPWModel(L.feature);
    L.fieldModel->FamilyType = 0;
    std::string unitsText;
    long unitsCode = 0;
    const int unitFeature = L.feature == ePlotFeatureAstig ? ePlotFeatureV : L.feature;
    if (!lot.GetPlotFeatureUnits(unitFeature, unitsText, unitsCode)) {
        unitsCode = lot.PlotFeatureUnits();
        unitsText = UnitName(unitsCode);
    }
    L.waferColumns = TermColumns(*L.waferModel, unitsText, unitsCode);
    L.fieldColumns = TermColumns(*L.fieldModel, unitsText, unitsCode);
    L.waferOn = Switches(setup.waferTerms, L.waferColumns.size());
    L.fieldOn = Switches(setup.fieldTerms, L.fieldColumns.size());

    p.chk = 2;
    SetStatusText("Wafer-model clone ...");
    L.lot = lot.clone(true);
    if (!L.lot) return p.fail("The lot could not be copied for the model.");
    SetStatusText(".. .Done");
    cLot& work = *L.lot;
    work.PLotDataType = eRaw;
    work.PlotFeature(L.feature);
    LotModelWafer(work).Clear();
    LotModelField(work).Clear();

    // The wafer model of every wafer with live points.
    p.chk = 3;
    LotFitSetup ws;
    ws.doWafer = true;
    ws.doField = false;
    ws.fit = L.options;
    for (cWafer* w : work.Wafers()) {
        // A wafer without values of the feature is passed over quietly.
        if (w->cull() || !HasValues(*w, L.feature)) continue;
        if (CheckEscKey()) return p.fail("Model fit stopped.");
        Models& ms = WaferModels(*w);
        ms.Clear();
        ms.models.Add(L.waferModel->clone(), L.waferModel->Key);
        WaferModels(*w);  // the model's parent
        Result<std::string> eq = WaferModelFit(*w, ws, 0);
        if (!eq || eq->size() < 2) {
            if (CheckEscKey()) return p.fail("Model fit stopped.");
            if (!eq) SetStatusText(eq.failure().text);
            return p.fail("Model did not return a valid wafer model.");
        }
        Cmodel& m = *ms.models.Item(1);
        L.waferRow[w] = L.wafers.size();
        L.wafers.push_back(ReadFit(m, w, nullptr));
        L.wafers.back().culled = CulledBy(m, L.options);
        L.culled += L.wafers.back().culled;
        m.clearMITP();  // a point's worth of cells: not kept with the lot
    }
    if (L.wafers.empty()) return p.fail("Model did not return a valid wafer model.");

    // The field model on what the wafer model left.
    p.chk = 4;
    SetStatusText("Remove model component...");
    work.PLotDataType = eResidual;
    for (cWafer* w : work.Wafers()) {
        if (w->cull() || !L.waferRow.count(w)) continue;
        for (cField* f : w->Fields())
            if (!f->cull() && f->TotalPointsCount > 0 && Chosen(setup.fields, *f)) L.chosen.push_back(f);
    }
    if (L.chosen.empty()) return p.fail("None of the chosen fields holds data.");
    p.chk = 5;
    for (cField* f : L.chosen) {
        if (CheckEscKey()) return p.fail("Model fit stopped.");
        ModelsField& mf = FieldModels(*f);
        mf.Clear();
        mf.models.Add(L.fieldModel->clone(), L.fieldModel->Key);
        FieldModels(*f);
        Result<FieldFitResult> r = FieldModelFit(*f, L.options, 0);
        if (!r) return r.failure();
        if (r->result == "-1") continue;
        Cmodel& m = *mf.models.Item(1);
        L.fields.push_back(ReadFit(m, f->ParentWafer(), f));
        L.fields.back().culled = CulledBy(m, L.options);
        L.culled += L.fields.back().culled;
        m.clearMITP();
    }
    const size_t nf = L.fieldColumns.size();
    L.fieldMean.assign(nf, 0.0);
    L.fieldMeanIn.assign(nf, 0);
    for (size_t k = 0; k < nf; ++k) {
        RcMoments mo;
        for (const FitRow& r : L.fields)
            if (r.in[k]) mo.add(r.coef[k]);
        if (mo.n == 0) continue;
        L.fieldMean[k] = RcFinish(mo).mean;
        L.fieldMeanIn[k] = 1;
    }
    work.PLotDataType = eRaw;
    return StatusOk();
}

// ---------------------------------------------------------------- tables

// Coefficients by wafer or field, the terms `on` only, and their "Mean".
Datam CoefTable(const Lens& L, bool fields, const std::vector<char>& on) {
    const std::vector<FitRow>& rows = fields ? L.fields : L.wafers;
    const std::vector<TermColumn>& cols = fields ? L.fieldColumns : L.waferColumns;
    std::vector<size_t> use;
    for (size_t k = 0; k < cols.size(); ++k)
        if (k < on.size() && on[k]) use.push_back(k);
    const int nt = static_cast<int>(use.size());
    const int n = static_cast<int>(rows.size());
    const int last = 2 * nt + 4;
    Datam t(n + 1, last, 0, 0);
    t(0, 0) = Value("Wafer");
    t(0, 1) = Value(fields ? "Field" : "Feature");
    for (int j = 0; j < nt; ++j) {
        const TermColumn& c = cols[use[static_cast<size_t>(j)]];
        t(0, 2 + j) = Value(c.head);
        t(0, 2 + nt + j) = Value(c.name + "_SE");
    }
    t(0, last - 2) = Value("MSE");
    t(0, last - 1) = Value("Points");
    t(0, last) = Value("Culled");
    for (int i = 1; i <= n; ++i) {
        const FitRow& r = rows[static_cast<size_t>(i - 1)];
        t(i, 0) = Value(r.wafer ? r.wafer->WaferID : std::string());
        t(i, 1) = Value(fields ? r.field->NumberKey : L.featureName);
        for (int j = 0; j < nt; ++j) {
            const size_t k = use[static_cast<size_t>(j)];
            if (!r.in[k]) continue;
            t(i, 2 + j) = Value(r.coef[k] * cols[k].factor);
            t(i, 2 + nt + j) = Value(r.se[k] * cols[k].factor);
        }
        t(i, last - 2) = Value(r.mse);
        t(i, last - 1) = Value(int32_t(r.points));
        t(i, last) = Value(int32_t(r.culled));
    }
    // The last row is still empty, and empty cells do not count.
    if (n > 0) {
        const Datam mean = mat_rcstat(t, "MEAN");
        for (int c = 2; c <= last; ++c) {
            const Value& v = mean.get(c, VecCol(mean));
            if (v.isNumberType()) t(n + 1, c) = v;
        }
    }
    t(n + 1, 0) = Value("Mean");
    return t;
}

struct Acc {
    RcMoments x, y, value, model;
};

Datam ResponseTable(Lens& L) {
    TermValues tv(*L.waferModel);
    struct Row {
        const cWafer* w;
        const cField* f;
        Acc a;
    };
    std::vector<Row> rows;
    for (const FitRow& fr : L.wafers) {
        for (cField* f : fr.wafer->Fields()) {
            if (f->cull()) continue;
            Row row{fr.wafer, f, {}};
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                WaferTerms(tv, *s);
                const double model = tv.sum(fr.coef);
                for (cPoint* pt : s->Points()) {
                    if (pt->cull()) continue;
                    const float raw = *pt->FeatureSlot(L.feature, eRaw);
                    if (IsMissingTol(raw)) continue;
                    row.a.x.add(s->LocationXabs / 1000.0);
                    row.a.y.add(s->LocationYabs / 1000.0);
                    row.a.value.add(double(raw) / 1000.0);
                    row.a.model.add(model);
                }
            }
            if (row.a.value.n > 0) rows.push_back(std::move(row));
        }
    }
    Datam t(static_cast<int>(rows.size()), 7, 0, 0);
    const char* heads[] = {"Wafer", "Field", "X(mm)", "Y(mm)", nullptr, "Model", "Residual", "Points"};
    for (int c = 0; c <= 7; ++c) t(0, c) = heads[c] ? Value(heads[c]) : Value(L.featureName);
    int i = 0;
    for (const Row& r : rows) {
        ++i;
        const double v = RcFinish(r.a.value).mean, m = RcFinish(r.a.model).mean;
        t(i, 0) = Value(r.w->WaferID);
        t(i, 1) = Value(r.f->NumberKey);
        t(i, 2) = Value(RcFinish(r.a.x).mean);
        t(i, 3) = Value(RcFinish(r.a.y).mean);
        t(i, 4) = Value(v);
        t(i, 5) = Value(m);
        t(i, 6) = Value(v - m);
        t(i, 7) = Value(int32_t(r.a.value.n));
    }
    return t;
}

// The chosen fields less the wafer model, gathered by row, by column and by
// site key, with the field signature at the same points.
struct FieldAverages {
    std::map<long long, Acc> rows, cols;  // by position in micrometres
    struct Site {
        double x = 0, y = 0;
        Acc a;
    };
    std::map<long, Site> sites;
};

FieldAverages AverageField(Lens& L) {
    const cLot& lot = *L.lot;
    TermValues tw(*L.waferModel), tf(*L.fieldModel);
    FieldAverages out;
    for (cField* f : L.chosen) {
        const FitRow& wr = L.wafers[L.waferRow.at(f->ParentWafer())];
        for (cSite* s : f->sites()) {
            if (s->cull()) continue;
            WaferTerms(tw, *s);
            FieldTerms(tf, lot, *s);
            const double wafer = tw.sum(wr.coef);
            const double field = tf.sum(L.fieldMean);
            double x = 0, y = 0;
            FieldPosition(lot, *s, x, y);
            Acc& ra = out.rows[std::llround(y * 1000.0)];
            Acc& ca = out.cols[std::llround(x * 1000.0)];
            auto [it, isNew] = out.sites.try_emplace(s->NumberKey());
            if (isNew) {
                it->second.x = x;
                it->second.y = y;
            }
            for (cPoint* pt : s->Points()) {
                if (pt->cull()) continue;
                const float raw = *pt->FeatureSlot(L.feature, eRaw);
                if (IsMissingTol(raw)) continue;
                const double v = double(raw) / 1000.0 - wafer;
                for (Acc* a : {&ra, &ca, &it->second.a}) {
                    a->value.add(v);
                    a->model.add(field);
                }
            }
        }
    }
    return out;
}

Datam AverageTable(const std::map<long long, Acc>& groups, const char* head, const std::string& feature) {
    int n = 0;
    for (const auto& [k, a] : groups)
        if (a.value.n > 0) ++n;
    Datam t(n, 4, 0, 0);
    t(0, 0) = Value(head);
    t(0, 1) = Value(feature);
    t(0, 2) = Value("Model");
    t(0, 3) = Value("Residual");
    t(0, 4) = Value("Points");
    int i = 0;
    for (const auto& [k, a] : groups) {
        if (a.value.n == 0) continue;
        ++i;
        const double v = RcFinish(a.value).mean, m = RcFinish(a.model).mean;
        t(i, 0) = Value(double(k) / 1000.0);
        t(i, 1) = Value(v);
        t(i, 2) = Value(m);
        t(i, 3) = Value(v - m);
        t(i, 4) = Value(int32_t(a.value.n));
    }
    return t;
}

// The field removed at each site key: the switched terms of the signature,
// or the measured average.
Datam RemovedTable(Lens& L, const FieldAverages& avg, bool metrology, const std::vector<char>& on) {
    TermValues tf(*L.fieldModel);
    const int n = static_cast<int>(avg.sites.size());
    Datam t(n, metrology ? 4 : 3, 0, 0);
    t(0, 0) = Value("Site");
    t(0, 1) = Value("X(mm)");
    t(0, 2) = Value("Y(mm)");
    if (metrology) {
        t(0, 3) = Value(L.featureName);
        t(0, 4) = Value("Points");
    } else {
        t(0, 3) = Value("Removed");
    }
    int i = 0;
    for (const auto& [key, s] : avg.sites) {
        ++i;
        t(i, 0) = Value(int32_t(key));
        t(i, 1) = Value(s.x);
        t(i, 2) = Value(s.y);
        if (metrology) {
            if (s.a.value.n > 0) t(i, 3) = Value(RcFinish(s.a.value).mean);
            t(i, 4) = Value(int32_t(s.a.value.n));
        } else {
            tf.eval(s.x, s.y, std::sqrt(s.x * s.x + s.y * s.y), std::atan2(s.y, s.x));
            t(i, 3) = Value(tf.sum(L.fieldMean, &on));
        }
    }
    return t;
}

// Row and column averages one under the other, for one sheet.
Datam Stack(const Datam& a, const Datam& b) {
    const int cols = std::max(a.colUb(), b.colUb());
    Datam t(a.rowUb() + b.rowUb() + 2, cols, 0, 0);
    for (int r = 0; r <= a.rowUb(); ++r)
        for (int c = 0; c <= a.colUb(); ++c) t(r, c) = a(r, c);
    const int off = a.rowUb() + 2;
    for (int r = 0; r <= b.rowUb(); ++r)
        for (int c = 0; c <= b.colUb(); ++c) t(off + r, c) = b(r, c);
    return t;
}

// ---------------------------------------------------------------- removal

// The lot's values less the switched terms: fitted the part removed,
// residual raw less it, for every point with a value.
Status Remove(Proc& p, Lens& L, const LensSetup& setup, const FieldAverages& avg) {
    cLot& lot = *L.lot;
    TermValues tw(*L.waferModel), tf(*L.fieldModel);
    const bool wafer = setup.removeWafer && Any(L.waferOn);
    const bool metrology = setup.removeFieldMetrology;
    const bool field = !metrology && setup.removeField && Any(L.fieldOn);
    std::unordered_map<long, double> measured;
    if (metrology)
        for (const auto& [key, s] : avg.sites)
            if (s.a.value.n > 0) measured[key] = RcFinish(s.a.value).mean;
    p.chk = 7;
    for (cWafer* w : lot.Wafers()) {
        if (CheckEscKey()) return p.fail("Model fit stopped.");
        const auto at = L.waferRow.find(w);
        const FitRow* wr = at == L.waferRow.end() ? nullptr : &L.wafers[at->second];
        for (cField* f : w->Fields())
            for (cSite* s : f->sites()) {
                double removed = 0;
                if (wafer && wr) {
                    WaferTerms(tw, *s);
                    removed += tw.sum(wr->coef, &L.waferOn);
                }
                if (field) {
                    FieldTerms(tf, lot, *s);
                    removed += tf.sum(L.fieldMean, &L.fieldOn);
                }
                if (metrology) {
                    const auto m = measured.find(s->NumberKey());
                    if (m != measured.end()) removed += m->second;
                }
                const float part = static_cast<float>(removed * 1000.0);
                for (cPoint* pt : s->Points())
                    for (int k = ePlotFeatureV; k <= ePlotFeatureAstig; ++k) {
                        const float* rawSlot = pt->FeatureSlot(k, eRaw);
                        float* fit = pt->FeatureSlot(k, eFitted);
                        float* res = pt->FeatureSlot(k, eResidual);
                        if (!rawSlot || !fit || !res) continue;
                        const float raw = *rawSlot;
                        if (IsMissingTol(raw)) {
                            *fit = kMissingValue;
                            *res = kMissingValue;
                        } else if (k == L.feature) {
                            *fit = part;
                            *res = static_cast<float>(double(raw) - double(part));
                        } else {
                            *fit = 0;
                            *res = raw;
                        }
                    }
            }
    }
    lot.PLotDataType = eResidual;
    lot.SetModified();
    return StatusOk();
}

// The removal as the report words it: "Data Removal, " feature "." and the
// field terms by kind, X terms "Vertical", Y terms "Horiz".
std::string RemovalNote(const Lens& L, const LensSetup& setup) {
    std::string s = "Data Removal, " + L.featureName + ".";
    if (!setup.removeField || setup.removeFieldMetrology) return s;
    const std::vector<char>& on = L.fieldOn;
    auto kind = [&](const char* label, bool x, bool y) {
        if (!x && !y) return;
        s += std::string(" ") + label;
        if (x) s += " Vertical,";
        if (y) s += "Horiz,";
    };
    kind("Piston: ", on[0], on[0]);
    kind("Tilt: ", on[1], on[2]);
    kind("Curvature: ", on[3], on[4]);
    return s;
}

// ---------------------------------------------------------------- sheets

std::string SheetName(const std::string& raw) {
    std::string s = FixSheetName(Replace(raw, " ", ""));
    while (!s.empty() && s.front() == '\'') s.erase(s.begin());
    while (!s.empty() && s.back() == '\'') s.pop_back();
    return s;
}

class SheetWriter {
public:
    SheetWriter(Workbook* wb, LensResult& out) : wb_(wb), out_(out) {}
    Status put(const Datam& table, const std::string& rawName, const std::string& description,
               const std::string& title = {}) {
        if (!wb_ || !table.isArray()) return StatusOk();
        const std::string name = SheetName(rawName);
        SaveArrayOptions o;
        o.title = title;
        o.save = false;
        if (Status s = SaveArray(table, name, wb_, o); !s) return s;
        if (Status s = AddIndexItem(wb_, name, description, Value(), false); !s) return s;
        out_.sheets.push_back(name);
        return StatusOk();
    }
    Status save() {
        if (!wb_ || out_.sheets.empty()) return StatusOk();
        return SaveWorkbookChecked(*wb_, out_.sheets.back(), false);
    }

private:
    Workbook* wb_;
    LensResult& out_;
};

std::string CleanName(std::string s) {
    for (char& c : s)
        if (c == '(' || c == ')' || c == '.') c = '_';
    return s;
}

// Both entries: the models, the averages and the lot less what is switched.
Status Run(Proc& p, cLot& lot, const LensSetup& setup, Lens& L, FieldAverages& avg, LensResult& out) {
    if (Status s = FitLens(p, lot, setup, L); !s) return s;
    p.chk = 6;
    avg = AverageField(L);
    out.rowAverage = AverageTable(avg.rows, "Row(mm)", L.featureName);
    out.columnAverage = AverageTable(avg.cols, "Column(mm)", L.featureName);
    out.waferResponse = ResponseTable(L);
    const bool removal = setup.removeWafer || setup.removeField || setup.removeFieldMetrology;
    if (removal) {
        SetStatusText("Removal of Modeled values ....");
        out.notes.push_back(RemovalNote(L, setup));
    }
    if (setup.removeField && !setup.removeFieldMetrology && L.fields.empty())
        return p.fail("The field model was not fitted: no field of the chosen ones holds enough data.");
    if (Status s = Remove(p, L, setup, avg); !s) return s;
    out.culled = L.culled;
    out.notes.push_back("Range,Sigma cull of " + Num(L.culled) + " points.");
    out.lot = L.lot;
    return StatusOk();
}

}  // namespace

// ---------------------------------------------------------------- entries

Result<LensResult> ModelLensAberrations(cLot& lot, const LensSetup& setup, Workbook* workbook) {
    Proc p("PWcommon(ModelLensAberrations): ");
    LensResult out;
    Lens L;
    FieldAverages avg;
    if (Status s = Run(p, lot, setup, L, avg, out); !s) return s.failure();
    const std::vector<char> all(16, 1);
    out.waferModel = CoefTable(L, false, all);
    out.fieldModel = CoefTable(L, true, all);
    const bool metrology = setup.removeFieldMetrology;
    if (metrology || setup.removeField) out.removed = RemovedTable(L, avg, metrology, L.fieldOn);

    p.chk = 8;
    SheetWriter sheets(workbook, out);
    const std::string note = out.notes.size() > 1 ? out.notes.front() : std::string();
    const std::string tag = "[" + L.featureName + "]";
    Status s = sheets.put(out.waferModel, "WaferModel_" + L.featureName, "Modeled wafer Tilt & Bow. ");
    if (s) s = sheets.put(out.waferResponse, "WaferResponse_" + L.featureName, "Feature response across wafer.");
    if (s) s = sheets.put(out.fieldModel, "FieldModel_" + L.name + tag, "Modeled Field Aberrations. ");
    if (s) s = sheets.put(Stack(out.rowAverage, out.columnAverage), "FieldAberrations", "Modeled Field Aberrations. ");
    if (s && metrology)
        s = sheets.put(out.removed, "FieldRemoval", "Metrology Field removed: " + L.name + " from dataset. ", note);
    else if (s && setup.removeField)
        s = sheets.put(out.removed, "FieldModelRemoval", "Modeled Values of Field removed: " + CleanName(L.name), note);
    if (s) s = sheets.save();
    if (!s) return s.failure();
    return out;
}

Result<LensResult> RemoveLensAberrations(cLot& lot, const LensSetup& setup, Workbook* workbook) {
    Proc p("PWcommon(RemoveLensAberrations): ");
    LensResult out;
    Lens L;
    FieldAverages avg;
    if (Status s = Run(p, lot, setup, L, avg, out); !s) return s.failure();
    const bool metrology = setup.removeFieldMetrology;
    if (setup.removeWafer) out.waferModel = CoefTable(L, false, L.waferOn);
    if (setup.removeField && !metrology) out.fieldModel = CoefTable(L, true, L.fieldOn);
    if (metrology || setup.removeField) out.removed = RemovedTable(L, avg, metrology, L.fieldOn);

    p.chk = 8;
    SheetWriter sheets(workbook, out);
    const std::string note = out.notes.size() > 1 ? out.notes.front() : std::string();
    const std::string tag = L.name + "[" + L.featureName + "]";
    Status s = StatusOk();
    if (setup.removeWafer) s = sheets.put(out.waferModel, "WaferPWModel_" + tag, "PW Wafer errors removed. ", note);
    if (s && (setup.removeField || metrology))
        s = sheets.put(metrology ? out.removed : out.fieldModel, "FieldPWModel_" + tag,
                       "PW Field Aberrations removed. ", note);
    if (s) s = sheets.save();
    if (!s) return s.failure();
    return out;
}

}  // namespace zorv
