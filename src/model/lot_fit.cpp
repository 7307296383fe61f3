// The lot fit: families, wafers and fields in turn, and the tables made of
// their results.
#include "model/lot_fit.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/format.h"
#include "base/report.h"
#include "base/text.h"
#include "numerics/matrix.h"
#include "stats/cull.h"

namespace zorv {

namespace {

// The lot's plot feature and data kind, back however a fit ends.
class LotStateGuard {
public:
    explicit LotStateGuard(cLot& lot) : lot_(lot), feature_(lot.PlotFeature()), kind_(lot.PLotDataType) {}
    ~LotStateGuard() {
        lot_.PLotDataType = kind_;
        if (lot_.PlotFeature() != feature_) lot_.PlotFeature(feature_);
    }
    LotStateGuard(const LotStateGuard&) = delete;
    LotStateGuard& operator=(const LotStateGuard&) = delete;

private:
    cLot& lot_;
    int feature_;
    int kind_;
};

// A model takes part in family `family`'s pass when it is for that family or
// for whichever is current (0); family 0 takes every model.
bool ForFamily(const Cmodel& m, long family) { return family == 0 || m.FamilyType == 0 || m.FamilyType == family; }

// Rebuilds each live point's vector from its modelled components.
void RebuildVectors(cField& f) {
    for (cSite* s : f.sites()) {
        if (s->cull()) continue;
        for (cPoint* p : s->Points()) {
            if (p->cull()) continue;
            float a, b, c;
            p->CalcVector(a, b, c, true);
        }
    }
}

void RebuildVectors(cWafer& w) {
    for (cField* f : w.Fields())
        if (!f->cull()) RebuildVectors(*f);
}

std::string Num(long n) { return std::to_string(n); }

}  // namespace

// ---------------------------------------------------------------- families

Datam LotFamilies(cLot& lot) {
    std::set<long> live;
    lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) { live.insert(s.Family()); });
    // Family 0 is a site that never got one: such a lot is family 1.
    live.erase(0);
    if (live.empty()) live.insert(1);
    Datam t(static_cast<int>(live.size()), 3, 0, 0);
    t(0, 1) = Value("Family");
    t(0, 2) = Value("Number");
    t(0, 3) = Value("Include");
    const Datam& names = lot.FamilyNames;
    int r = 0;
    for (long f : live) {
        ++r;
        std::string name = "Family " + Num(f);
        if (names.isArray() && names.inRange(static_cast<int>(f), 1) && !IsBlank(names(static_cast<int>(f), 1)))
            name = names(static_cast<int>(f), 1).toString();
        t(r, 1) = Value(name);
        t(r, 2) = Value(int32_t(f));
        t(r, 3) = Value(true);
    }
    return t;
}

// ---------------------------------------------------------------- field

Result<FieldFitResult> FieldModelFit(cField& f, const ModelFitOptions& options, long family) {
    Proc p("cField(ModelFit): ");
    FieldFitResult res;
    ModelsField& ms = FieldModels(f);
    if (ms.models.Count() == 0 || f.TotalPointsCount <= 0) return res;
    p.chk = 1;
    std::vector<Cmodel*> todo;
    for (Cmodel* m : ms.models)
        if (ForFamily(*m, family)) todo.push_back(m);
    const int n = static_cast<int>(todo.size());
    res.keys = Datam(n, 2, 0, 0);
    res.keys(0, 1) = Value("ModelKey");
    res.keys(0, 2) = Value("MSE");
    // Per model a block of its terms plus two rows: the header row of the
    // block, then one row per term (feature, term, value, SE), then "MSE".
    int rows = 0;
    for (Cmodel* m : todo) rows += m->Coefficients.Count() + 2;
    res.coefs = Datam(rows, 4, 0, 0);
    res.coefs(0, 0) = Value("Feature");
    res.coefs(0, 1) = Value("Term");
    res.coefs(0, 2) = Value("Value");
    res.coefs(0, 3) = Value("SE");
    std::vector<ModelFitResult> fits;
    double ss = 0;
    int row = 0, i = 0;
    for (Cmodel* m : todo) {
        ++i;
        m->FitLibrary.Clear();
        auto fit = m->Fit(options);
        if (!fit) return fit.failure();
        res.result = fit->equation;
        res.keys(i, 1) = Value(m->Key);
        res.keys(i, 2) = Value(double(fit->mse));
        ss += double(fit->mse) * fit->mse;
        res.mse = fit->mse;
        cLot* lot = f.ParentLot();
        const std::string feature = lot ? lot->GetPlotFeatureName(m->PlotFeature < 0 ? lot->PlotFeature() : m->PlotFeature)
                                        : std::to_string(m->PlotFeature);
        ++row;
        res.coefs(row, 0) = Value(feature);
        res.coefs(row, 1) = Value(m->Key);
        for (cCoefficient* c : m->Coefficients) {
            ++row;
            res.coefs(row, 0) = Value(feature);
            res.coefs(row, 1) = Value(c->NameCoef);
            res.coefs(row, 2) = Value(c->Value);
            res.coefs(row, 3) = Value(c->Sigma);
        }
        ++row;
        res.coefs(row, 0) = Value(feature);
        res.coefs(row, 1) = Value("MSE");
        res.coefs(row, 2) = Value(double(fit->mse));
        fits.push_back(std::move(*fit));
        fits.back().equation = feature;  // the residual column's header
    }
    if (n > 2) res.mse = static_cast<float>(ss);
    // The residuals side by side, one column per model.
    int nr = 0;
    for (const ModelFitResult& r : fits) nr = std::max(nr, r.resids.isArray() ? r.resids.rowUb() : 0);
    res.resids = Datam(nr, n, 0, 0);
    for (int k = 0; k < n; ++k) {
        const Datam& r = fits[static_cast<size_t>(k)].resids;
        res.resids(0, k + 1) = Value(fits[static_cast<size_t>(k)].equation);
        if (!r.isArray()) continue;
        const int vc = r.colUb() >= 1 ? 1 : r.colLb();
        for (int j = std::max(1, r.rowLb()); j <= r.rowUb(); ++j) {
            if (k == 0 || IsBlank(res.resids(j, 0))) res.resids(j, 0) = r.get(j, 0);
            res.resids(j, k + 1) = r(j, vc);
        }
    }
    if (n > 1 && f.ParentWafer()) RebuildVectors(f);
    return res;
}

// ---------------------------------------------------------------- wafer

Result<std::string> WaferModelFit(cWafer& w, const LotFitSetup& setup, long family) {
    Proc p("cWafer(ModelFit): ");
    Models& ms = WaferModels(w);
    if (ms.models.Count() == 0) return p.fail("No models in wafer. Please reselect your data set.");
    cLot* lot = w.parent();
    p.chk = 1;
    if (lot) {
        ModelWafer& mw = LotModelWafer(*lot);
        if (mw.models.Count() < ms.models.Count())
            for (Cmodel* m : ms.models)
                if (!mw.models.Item(m->Key)) mw.models.Add(m->clone(), m->Key);
    }
    std::string equation;
    int fitted = 0;
    for (Cmodel* m : ms.models) {
        if (!ForFamily(*m, family)) continue;
        m->FitLibrary.Clear();
        auto fit = m->Fit(setup.fit);
        if (!fit) return fit.failure();
        if (fit->equation.size() > 2) equation = fit->equation;
        ++fitted;
    }
    p.chk = 2;
    if (setup.doField && lot) {
        // The field models fit what the wafer model left: the residuals.
        const int kind = lot->PLotDataType;
        lot->PLotDataType = eResidual;
        for (cField* f : w.Fields()) {
            if (f->cull() || f->TotalPointsCount <= 0) continue;
            auto r = FieldModelFit(*f, setup.fit, family);
            if (!r) {
                lot->PLotDataType = kind;
                return r.failure();
            }
        }
        lot->PLotDataType = kind;
    }
    if (lot && lot->PlotFeature() == ePlotFeatureVector && fitted > 1) RebuildVectors(w);
    return equation;
}

// ---------------------------------------------------------------- lot

Result<LotFitResult> LotModelFit(cLot& lot, const LotFitSetup& setup) {
    Proc p("cLot(ModelFit): ");
    LotStateGuard keep(lot);
    const Datam families = setup.families.isArray() ? setup.families : LotFamilies(lot);
    p.chk = 1;
    if (setup.doWafer) LotModelWafer(lot).Clear();
    if (setup.doField) LotModelField(lot).Clear();
    LotFitResult out;
    std::vector<std::string> residualRows;  // the field key of each block
    std::vector<Datam> residualKeep;

    // Families in use, and whether a family cull is needed at all.
    std::vector<std::pair<long, std::string>> included;
    for (int r = 1; r <= families.rowUb(); ++r)
        if (families.get(r, 3).isEmpty() || families(r, 3).toBool())
            included.emplace_back(families(r, 2).toLong(), families(r, 1).toString());
    std::set<long> live;
    lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) { live.insert(s.Family()); });
    const bool cullFamilies = live.size() > 1;
    const int nFam = static_cast<int>(included.size());

    p.chk = 2;
    int famIndex = 0;
    bool firstFieldType = true;
    int fieldType = 3;
    for (const auto& [family, name] : included) {
        ++famIndex;
        if (nFam > 1)
            SetStatusText("Setup data for Family: " + name + "  row " + Num(famIndex) + " of " + Num(nFam));
        Datam culled;
        if (cullFamilies) {
            auto c = CullFeature(lot, family, &culled);
            if (!c) return c.failure();
        }
        // Whatever ends this family's pass gives its sites back first.
        struct Undo {
            cLot& lot;
            const Datam& table;
            ~Undo() { RestoreSites(lot, table); }
        } undo{lot, culled};

        for (cWafer* w : lot.Wafers()) {
            if (w->cull()) continue;
            if (setup.doWafer) {
                const long points = [&] {
                    long n = 0;
                    for (cField* f : w->Fields())
                        if (!f->cull()) n += f->TotalPointsCount;
                    return n;
                }();
                if (points <= 0) continue;  // a wafer culled whole is passed over quietly
                auto eq = WaferModelFit(*w, setup, family);
                if (eq && CheckEscKey()) {
                    p.chk = 4;
                    return p.fail("Model fit stopped.");
                }
                if (!eq || eq->size() < 4) {
                    if (!eq && eq.failure().tag != "cModel(FitWafer): " && eq.failure().tag != "cModel(Fit): ")
                        return eq.failure();
                    p.chk = 3;
                    return p.fail("Wafer model was not fitted for wafer '" + w->WaferID + "'\r\n" +
                                  " Number of data points in the wafer = " + Num(points) + "\r\n" +
                                  " Please insure that a model variable was properly specified.");
                }
                ++out.wafersFitted;
            } else if (setup.doField) {
                const int nFields = w->Fields().Count();
                int j = 0;
                for (cField* f : w->Fields()) {
                    ++j;
                    if (f->cull() || f->TotalPointsCount <= 0) continue;
                    if (nFam > 1)
                        SetStatusText("Model [Field: " + f->NumberKey + " ___Family: " + name + "] - Family: " +
                                      Num(famIndex) + " of " + Num(nFam) + ", Field: " + Num(j) + " of " + Num(nFields));
                    else
                        SetStatusText("Model [Field: " + f->NumberKey + "] - Field: " + Num(j) + " of " + Num(nFields));
                    auto r = FieldModelFit(*f, setup.fit, family);
                    if (!r) return r.failure();
                    if (r->result == "-1") continue;
                    ++out.fieldsFitted;
                    out.mse = r->mse;
                    residualKeep.push_back(std::move(r->resids));
                    residualRows.push_back(f->NumberKey);
                    if (firstFieldType) {
                        ModelsField& mf = FieldModels(*f);
                        if (mf.models.Count() > 0) fieldType = mf.models.Item(1)->FieldModelType;
                        firstFieldType = false;
                    }
                    if (CheckEscKey()) {
                        p.chk = 4;
                        return p.fail("Model fit stopped.");
                    }
                }
            }
        }
    }

    // The field fits' residuals, one block per field: "<key>: <n>".
    int rows = 0, cols = 0;
    for (const Datam& r : residualKeep)
        if (r.isArray()) rows += std::max(0, r.rowUb()), cols = std::max(cols, r.colUb());
    out.residuals = Datam(rows, cols, 0, 0);
    int at = 0;
    for (size_t k = 0; k < residualKeep.size(); ++k) {
        const Datam& r = residualKeep[k];
        if (!r.isArray()) continue;
        for (int c = 1; c <= r.colUb(); ++c)
            if (IsBlank(out.residuals(0, c))) out.residuals(0, c) = r(0, c);
        for (int j = 1; j <= r.rowUb(); ++j) {
            ++at;
            out.residuals(at, 0) = Value(residualRows[k] + ": " + Num(j));
            for (int c = 1; c <= r.colUb(); ++c) out.residuals(at, c) = r(j, c);
        }
    }

    p.chk = 5;
    SetStatusText("Model report creation ...");
    if (setup.doWafer) {
        auto rep = LotModelWafer(lot).UpdateAverageModels(lot);
        if (!rep) return rep.failure();
        out.waferReport = std::move(*rep);
    }
    if (setup.doField) {
        auto rep = LotModelField(lot).UpdateAverageModels(lot);
        if (!rep) return rep.failure();
        out.fieldReport = std::move(*rep);
        if (fieldType == 1 || fieldType == 2) {
            auto rc = UpdateRowColumnModelValues(lot);
            if (!rc) return rc.failure();
            out.rowColumnReport = std::move(*rc);
        }
    }
    // The process window's field report (CreateFieldReport) starts from
    // out.fieldReport; it is made by the process window reports.
    return out;
}

// ---------------------------------------------------------------- row and column models

Result<Datam> UpdateRowColumnModelValues(cLot& lot) {
    Proc p("cLot(UpdateRowColumnModelValues): ");
    struct Row {
        const cWafer* w;
        const cField* f;
        int type;
        double loc;
        const Cmodel* m;
        const cFitRecord* r;
    };
    std::vector<Row> rows;
    std::vector<std::string> terms;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        for (cField* f : w->Fields()) {
            if (f->cull() || !f->ModelsField) continue;
            for (Cmodel* m : FieldModels(*f).models) {
                if (m->FieldModelType != 1 && m->FieldModelType != 2) continue;
                for (const cCoefficient* c : m->Coefficients)
                    if (std::find(terms.begin(), terms.end(), c->NameCoef) == terms.end()) terms.push_back(c->NameCoef);
                // One record per line, keyed feature "_" family "_" location.
                for (const cFitRecord* r : m->FitLibrary) {
                    const size_t cut = r->Key.rfind('_');
                    double loc;
                    if (cut == std::string::npos || !ParseNumber(r->Key.substr(cut + 1), loc)) continue;
                    rows.push_back(Row{w, f, m->FieldModelType, loc, m, r});
                }
            }
        }
    }
    p.chk = 1;
    const int nt = static_cast<int>(terms.size());
    const char* head[] = {"Wafer", "Field", "Xloc", "Yloc", "Feature", "Family"};
    const char* tail[] = {"MSE", "Focus", "Dose", "NA", "PCi", "PCo"};
    const int cols = 6 + 2 * nt + 6;
    Datam t(static_cast<int>(rows.size()), cols, 0, 0);
    t(0, 0) = Value("Model");
    for (int i = 0; i < 6; ++i) t(0, i + 1) = Value(head[i]);
    for (int k = 0; k < nt; ++k) {
        t(0, 7 + k) = Value(terms[static_cast<size_t>(k)]);
        t(0, 7 + nt + k) = Value(terms[static_cast<size_t>(k)] + "_SE");
    }
    for (int i = 0; i < 6; ++i) t(0, 7 + 2 * nt + i) = Value(tail[i]);
    int r = 0;
    for (const Row& x : rows) {
        ++r;
        t(r, 0) = Value(x.type == 2 ? "Column" : "Row");
        t(r, 1) = Value(x.w->WaferID);
        t(r, 2) = Value(x.f->NumberKey);
        if (x.type == 2) t(r, 3) = Value(x.loc);
        else t(r, 4) = Value(x.loc);
        t(r, 5) = Value(int32_t(x.r->PlotFeature));
        t(r, 6) = Value(int32_t(x.r->FamilyType));
        int k = 0;
        for (const cCoefficient* c : x.m->Coefficients) {
            ++k;
            const int at = static_cast<int>(std::find(terms.begin(), terms.end(), c->NameCoef) - terms.begin());
            t(r, 7 + at) = Value(x.r->GetFitValue(k));
            t(r, 7 + nt + at) = Value(x.r->GetFitError(k));
        }
        const int e = 7 + 2 * nt;
        t(r, e) = Value(double(x.r->MSE));
        t(r, e + 1) = Value(double(x.f->Focus));
        t(r, e + 2) = Value(double(x.f->Dose));
        t(r, e + 3) = Value(double(x.f->NA));
        t(r, e + 4) = Value(double(x.f->PCinner));
        t(r, e + 5) = Value(double(x.f->PCouter));
    }
    return t;
}

Result<Datam> SummarizeRCmodel(const Datam& rc) {
    Proc p("cLot(SummarizeRCmodel): ");
    if (!rc.isArray() || rc.rowUb() < 1) return p.fail("No data.");
    const int famCol = FindColumn(rc, Value("Family"), 0), featCol = FindColumn(rc, Value("Feature"), 0);
    const int first = FindColumn(rc, Value("Family"), 0) + 1;
    const int last = FindColumn(rc, Value("MSE"), 0);
    if (famCol < 1 || featCol < 1 || last < first) return p.fail("No data.");
    // The means of the value columns over the rows of each family, then of
    // each feature: blocks headed "Family" / "Feature" "Summary".
    auto block = [&](int keyCol, const char* what, std::vector<std::vector<Value>>& out) {
        std::map<double, std::vector<int>> groups;
        for (int r = 1; r <= rc.rowUb(); ++r) groups[rc(r, keyCol).toDouble()].push_back(r);
        out.push_back({Value("_____")});
        out.push_back({Value(what), Value("Summary")});
        for (const auto& [key, members] : groups) {
            Datam part(static_cast<int>(members.size()), last - first + 1, 0, 1);
            for (size_t i = 0; i < members.size(); ++i)
                for (int c = first; c <= last; ++c) part(static_cast<int>(i) + 1, c - first + 1) = rc(members[i], c);
            const Datam mean = mat_rcstat(part, "MEAN");
            std::vector<Value> row{Value("Mean"), Value(key)};
            for (int c = 1; c <= last - first + 1; ++c) row.push_back(mean.get(c, 1));
            out.push_back(std::move(row));
        }
    };
    std::vector<std::vector<Value>> rows;
    block(famCol, "Family", rows);
    block(featCol, "Feature", rows);
    Datam t(static_cast<int>(rows.size()), last - first + 2, 0, 0);
    t(0, 0) = Value("Summary");
    t(0, 1) = Value("Key");
    for (int c = first; c <= last; ++c) t(0, c - first + 2) = rc(0, c);
    for (size_t r = 0; r < rows.size(); ++r)
        for (size_t c = 0; c < rows[r].size() && static_cast<int>(c) <= t.colUb(); ++c)
            t(static_cast<int>(r) + 1, static_cast<int>(c)) = rows[r][c];
    return t;
}

// ---------------------------------------------------------------- MITP copies and coefficient effects

Status UpdateMITP(cLot& lot, cLot& source, bool doWafer, bool doField) {
    Proc p("cLot(UpdateMITP): ");
    if (doWafer && doField) return p.fail("Cannot have both field and wafer switches. Check MITP update code.");
    p.chk = 1;
    for (cWafer* w : lot.Wafers()) {
        cWafer* sw = nullptr;
        for (cWafer* x : source.Wafers())
            if (x->WaferID == w->WaferID) sw = x;
        if (!sw) continue;
        if (doWafer && sw->Models)
            for (Cmodel* m : WaferModels(*w).models)
                if (Cmodel* sm = WaferModels(*sw).models.Item(m->Key)) m->SetMitp(sm->Mitp());
        if (!doField) continue;
        for (cField* f : w->Fields()) {
            cField* sf = sw->GetField(Value(f->NumberKey));
            if (!sf || !sf->ModelsField) continue;
            for (Cmodel* m : FieldModels(*f).models)
                if (Cmodel* sm = FieldModels(*sf).models.Item(m->Key)) m->SetMitp(sm->Mitp());
        }
    }
    return StatusOk();
}

Status AddWafCoef(cLot& lot, int coef, int family, int model) {
    Proc p("cLot(AddWafCoef): ");
    LotStateGuard keep(lot);
    for (cWafer* w : lot.Wafers()) {
        if (w->cull() || !w->Models) continue;
        Cmodel* m = WaferModels(*w).models.Item(model);
        if (!m || !ForFamily(*m, family)) continue;
        cCoefficient* c = m->Coefficients.Item(coef);
        if (!c) continue;
        const double value = c->Value * 1000.0;
        if (value == 0) continue;  // a term the fit left out adds nothing
        const int feature = m->PlotFeature >= ePlotFeatureV ? m->PlotFeature : lot.PlotFeature();
        clsEquation& eq = c->ValueEqn();
        const int sx = eq.VarSlot("x"), sy = eq.VarSlot("y"), sr = eq.VarSlot("r"), st = eq.VarSlot("theta");
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites()) {
                if (s->cull() || (family != 0 && s->Family() != family)) continue;
                eq.SetSlot(sx, s->LocationXabs / 1000.0);
                eq.SetSlot(sy, s->LocationYabs / 1000.0);
                eq.SetSlot(sr, s->LocationRabs / 1000.0);
                eq.SetSlot(st, s->LocationThetaAbs);
                const double effect = value * eq.Solution();
                for (cPoint* pt : s->Points()) {
                    if (pt->cull()) continue;
                    float* v = pt->FeatureSlot(feature, eRaw);
                    if (v && !IsMissing(*v)) *v = static_cast<float>(*v + effect);
                }
            }
        }
    }
    return StatusOk();
}

}  // namespace zorv
