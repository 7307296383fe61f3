// The tables around PWcalculate: dose uniformity by site, the best focus
// summary across sites, the lot's model record and site selection, the
// window row for a dose, and the model-adjusted lot.
#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/marks.h"
#include "base/text.h"
#include "lot/lot.h"
#include "model/lot_fit.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "procwin/pw_calculate.h"

namespace zorv {

namespace {

Value Num(double v, std::string_view pattern) {
    const std::string t = Format(v, pattern);
    double d = 0;
    if (ParseNumber(t, d)) return Value(d);
    return Value(t);
}

int HeaderColumn(const Datam& t, int row, const std::string& name) {
    for (int c = t.colLb(); c <= t.colUb(); ++c)
        if (IEquals(t(row, c).toString(), name)) return c;
    return 0;
}

double Mean(const std::vector<double>& v) {
    double s = 0;
    for (double x : v) s += x;
    return v.empty() ? 0 : s / static_cast<double>(v.size());
}

// Statistics rows under a site table: "Mean:", "Max:", "Min:", "IFD:" of the
// columns from `from`.
void StatRows(Datam& t, int firstRow, int lastRow, int from) {
    const char* names[] = {"Mean:", "Max:", "Min:", "IFD:"};
    const int at = t.rowUb();
    t.redimPreserve(at + 4, t.colUb());
    for (int k = 0; k < 4; ++k) t(at + 1 + k, 1) = Value(names[k]);
    for (int c = from; c <= t.colUb(); ++c) {
        std::vector<double> v;
        for (int r = firstRow; r <= lastRow; ++r) {
            double x;
            if (!IsBlank(t(r, c)) && NumericOf(t(r, c), x)) v.push_back(x);
        }
        if (v.empty()) continue;
        const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
        t(at + 1, c) = Num(Mean(v), "0.0000");
        t(at + 2, c) = Value(*hi);
        t(at + 3, c) = Value(*lo);
        t(at + 4, c) = Num(*hi - *lo, "0.0000");
    }
}

}  // namespace

// ---------------------------------------------------------------- CreateDoseUniformity

void CreateDoseUniformity(Datam& table, const std::vector<PWSiteBest>& best,
                          const std::string& wafer) {
    if (!table.isArray()) {
        table = Datam(1, 4, 1, 1);
        const char* h[] = {"Wafer", "Test", "DieX", "DieY"};
        for (int c = 1; c <= 4; ++c) table(1, c) = Value(h[c - 1]);
    }
    const char* stems[] = {"BestDose_", "BestFocus_", "DoseLatitude_", "Dose%Latitude_"};
    for (const PWSiteBest& b : best) {
        int col = HeaderColumn(table, 1, stems[0] + b.feature);
        if (col < 1) {
            col = table.colUb() + 1;
            table.redimPreserve(table.rowUb(), col + 3);
            for (int k = 0; k < 4; ++k) table(1, col + k) = Value(stems[k] + b.feature);
        }
        int row = 0;
        for (int r = 2; r <= table.rowUb() && !row; ++r)
            if (table(r, 2).toLong() == b.site && !IsBlank(table(r, 2))) row = r;
        if (!row) {
            row = table.rowUb() + 1;
            table.redimPreserve(row, table.colUb());
            table(row, 1) = Value(wafer);
            table(row, 2) = Value(static_cast<int32_t>(b.site));
            table(row, 3) = Value(b.x);
            table(row, 4) = Value(b.y);
        }
        table(row, col) = Value(b.bestDose);
        table(row, col + 1) = Value(b.bestFocus);
        table(row, col + 2) = Value(b.latitude);
        table(row, col + 3) = Value(b.pctLatitude);
    }
}

// ---------------------------------------------------------------- BestFocusCreate

Result<PWBestFocus> BestFocusCreate(const Datam& fr, const std::vector<PWSiteBest>& best,
                                    const std::string& wafer) {
    Proc p("PWcommon(BestFocusCreate): ");
    if (!fr.isArray() || fr.dims() != 2) return p.fail("No focus response data.");
    const int siteCol = HeaderColumn(fr, 1, "Site");
    if (siteCol < 1) return p.fail("No 'Site' column in the focus response data.");
    p.chk = 1;
    // Columns as the FocusResponse table holds them.
    constexpr int kFeature = 1, kDose = 2, kBF = 4, kAtBF = 5, kDoF = 6, kTarget = 12;
    struct Row {
        double dose, bf, atBF, dof;
        long site;
    };
    std::vector<std::string> features;
    std::map<std::string, std::vector<Row>> rows;
    std::map<std::string, double> target;
    std::vector<long> sites;
    for (int r = 3; r <= fr.rowUb(); ++r) {
        const std::string f = fr.get(r, kFeature).toString();
        double dose, bf, at, dof;
        if (f.empty() || !NumericOf(fr.get(r, kDose), dose) || !NumericOf(fr.get(r, kBF), bf))
            continue;
        if (!NumericOf(fr.get(r, kAtBF), at)) at = 0;
        if (!NumericOf(fr.get(r, kDoF), dof)) dof = 0;
        if (!rows.count(f)) {
            features.push_back(f);
            target[f] = fr.get(r, kTarget).toDouble();
        }
        const long site = fr(r, siteCol).toLong();
        rows[f].push_back({dose, bf, at, dof, site});
        if (std::find(sites.begin(), sites.end(), site) == sites.end()) sites.push_back(site);
    }
    int total = 0;
    for (const auto& [f, v] : rows) total += static_cast<int>(v.size());
    if (total < 2) return p.fail("Less than two rows of focus response data.");

    p.chk = 2;
    PWBestFocus out;
    out.detail = Datam(1, 8, 1, 1);
    const char* dh[] = {"Feature",       "Dose",  "Mean", "IFD",
                        "BestFocus(BF)", "BFifd", "DoF",  "DoF(ifd)"};
    for (int c = 1; c <= 8; ++c) out.detail(1, c) = Value(dh[c - 1]);
    out.summary = Datam(1 + static_cast<int>(features.size()), 9, 1, 1);
    const char* sh[] = {"Feature", "TargetSize", "BestFocus",      "BestDose", "Mean",
                        "DoF",     "Mean(IFD)",  "BestFocus(IFD)", "DoF(IFD)"};
    for (int c = 1; c <= 9; ++c) out.summary(1, c) = Value(sh[c - 1]);
    std::map<std::string, double> bestDose;
    int sr = 1;
    for (const std::string& f : features) {
        std::vector<Row>& v = rows[f];
        std::vector<double> doses;
        for (const Row& r : v) doses.push_back(r.dose);
        std::sort(doses.begin(), doses.end());
        doses.erase(std::unique(doses.begin(), doses.end(),
                                [](double a, double b) { return std::fabs(a - b) < 1e-9; }),
                    doses.end());
        // Across the sites at each dose.
        const int first = out.detail.rowUb() + 1;
        Datam curve(static_cast<int>(doses.size()), 2, 0, 0);
        curve(0, 1) = Value("Dose"), curve(0, 2) = Value("Mean");
        for (size_t k = 0; k < doses.size(); ++k) {
            std::vector<double> at, bf, dof;
            for (const Row& r : v)
                if (std::fabs(r.dose - doses[k]) < 1e-9)
                    at.push_back(r.atBF), bf.push_back(r.bf), dof.push_back(r.dof);
            auto range = [](const std::vector<double>& x) {
                const auto [lo, hi] = std::minmax_element(x.begin(), x.end());
                return *hi - *lo;
            };
            const int r = out.detail.rowUb() + 1;
            out.detail.redimPreserve(r, 8);
            out.detail(r, 1) = Value(f), out.detail(r, 2) = Value(doses[k]);
            out.detail(r, 3) = Num(Mean(at), "0.0000"), out.detail(r, 4) = Num(range(at), "0.0000");
            out.detail(r, 5) = Num(Mean(bf), "0.0000"), out.detail(r, 6) = Num(range(bf), "0.0000");
            out.detail(r, 7) = Num(Mean(dof), "0.0000"),
                          out.detail(r, 8) = Num(range(dof), "0.0000");
            curve(static_cast<int>(k) + 1, 1) = Value(doses[k]);
            curve(static_cast<int>(k) + 1, 2) = out.detail(r, 3);
        }
        const int last = out.detail.rowUb();
        // The best dose: where the mean size at best focus meets the target.
        const double t = target[f];
        const double mid = (doses.front() + doses.back()) / 2;
        double bd = doses.front();
        if (doses.size() > 1) {
            const CurveFit cf =
                FitCurve(curve, 1, 2, std::min<int>(2, static_cast<int>(doses.size()) - 1));
            const double c1 = cf.coef.isArray() ? cf.coef(1, 1).toDouble() : 0;
            const double c2 =
                cf.coef.isArray() && cf.coef.rowUb() >= 2 ? cf.coef(2, 1).toDouble() : 0;
            const double c3 =
                cf.coef.isArray() && cf.coef.rowUb() >= 3 ? cf.coef(3, 1).toDouble() : 0;
            double x = kNoRoot;
            if (c3 != 0) {
                double x1, x2;
                GetQuadRoots(c3, c2, c1 - t, x1, x2);
                x = std::fabs(x1 - mid) <= std::fabs(x2 - mid) ? x1 : x2;
            } else if (c2 != 0) {
                x = (t - c1) / c2;
            }
            if (x == kNoRoot) {
                // No crossing: the dose whose size comes nearest.
                int k = first;
                for (int r = first; r <= last; ++r)
                    if (std::fabs(out.detail(r, 3).toDouble() - t) <
                        std::fabs(out.detail(k, 3).toDouble() - t))
                        k = r;
                x = out.detail(k, 2).toDouble();
            }
            bd = x;
        }
        bestDose[f] = bd;
        int near = first;
        for (int r = first; r <= last; ++r)
            if (std::fabs(out.detail(r, 2).toDouble() - bd) <
                std::fabs(out.detail(near, 2).toDouble() - bd))
                near = r;
        ++sr;
        out.summary(sr, 1) = Value(f), out.summary(sr, 2) = Value(t);
        out.summary(sr, 3) = out.detail(near, 5), out.summary(sr, 4) = Num(bd, "0.00");
        out.summary(sr, 5) = out.detail(near, 3), out.summary(sr, 6) = out.detail(near, 7);
        out.summary(sr, 7) = out.detail(near, 4), out.summary(sr, 8) = out.detail(near, 6);
        out.summary(sr, 9) = out.detail(near, 8);
    }

    // By site, at the dose nearest each feature's best dose.
    p.chk = 3;
    const int nf = static_cast<int>(features.size());
    out.sites = Datam(1 + static_cast<int>(sites.size()), 5 + 2 * nf, 1, 1);
    const char* th[] = {"Wafer", "Test", "Diex", "Diey", "Size at BF"};
    for (int c = 1; c <= 5; ++c) out.sites(1, c) = Value(th[c - 1]);
    for (int k = 0; k < nf; ++k) {
        out.sites(1, 6 + 2 * k) = Value(features[static_cast<size_t>(k)] + "_Focus");
        out.sites(1, 7 + 2 * k) = Value(features[static_cast<size_t>(k)] + "_DoF");
    }
    for (size_t i = 0; i < sites.size(); ++i) {
        const int r = 2 + static_cast<int>(i);
        const long site = sites[i];
        out.sites(r, 1) = Value(wafer), out.sites(r, 2) = Value(static_cast<int32_t>(site));
        for (const PWSiteBest& b : best)
            if (b.site == site) {
                out.sites(r, 3) = Value(b.x), out.sites(r, 4) = Value(b.y);
                break;
            }
        for (int k = 0; k < nf; ++k) {
            const std::string& f = features[static_cast<size_t>(k)];
            const Row* nearest = nullptr;
            for (const Row& row : rows[f])
                if (row.site == site && (!nearest || std::fabs(row.dose - bestDose[f]) <
                                                         std::fabs(nearest->dose - bestDose[f])))
                    nearest = &row;
            if (!nearest) continue;
            if (k == 0) out.sites(r, 5) = Value(nearest->atBF);
            out.sites(r, 6 + 2 * k) = Value(nearest->bf);
            out.sites(r, 7 + 2 * k) = Value(nearest->dof);
        }
    }
    StatRows(out.sites, 2, 1 + static_cast<int>(sites.size()), 5);
    return out;
}

// ---------------------------------------------------------------- the lot

Datam UpdateLotModel(cLot& lot, const PWSetup& setup) {
    std::string name;
    for (int r = 1; setup.variables.isArray() && r <= setup.variables.rowUb() && name.empty(); ++r)
        name = Trim(setup.variables.get(r, 1).toString());
    const int feature = name.empty() ? -1 : lot.GetPlotFeature(name);
    if (feature >= 0) lot.PlotFeature(feature);
    Datam t(3, 2, 0, 1);
    t(0, 1) = Value("PlotFeature"), t(0, 2) = Value("Name");
    t(1, 1) = Value(static_cast<int32_t>(feature >= 0 ? feature : lot.PlotFeature()));
    t(1, 2) = Value(feature >= 0 ? lot.GetPlotFeatureName(feature) : name);
    t(2, 1) = Value("Wafer"),
         t(2, 2) = Value(setup.waferCoefsPW.empty() ? setup.waferCoefs : setup.waferCoefsPW);
    t(3, 1) = Value("Field"),
         t(3, 2) = Value(setup.fieldCoefsPW.empty() ? setup.fieldCoefs : setup.fieldCoefsPW);
    return t;
}

long UpdatePWsites2Lot(cLot& lot, const PWSetup& setup) {
    const std::string& text = setup.siteListText;
    if (Trim(text).empty() || IContains(text, "ALL")) return 0;
    std::set<long> keep;
    std::string item;
    auto flush = [&] {
        double v;
        if (ParseNumber(Trim(item), v)) keep.insert(std::lround(v));
        item.clear();
    };
    for (char c : text) {
        if (c == ':' || c == ',')
            flush();
        else
            item += c;
    }
    flush();
    long culled = 0;
    lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) {
        if (keep.count(s.NumberKey())) return;
        s.setCull(true);
        ++culled;
    });
    return culled;
}

bool PWgetBestFocusDose(const Datam& pws, double dose, PWBestRow& out) {
    if (!pws.isArray() || pws.dims() != 2 || pws.rowUb() < 1) return false;
    // The rectangle block: "Rectangle Focus", "Dose", ... "Area", "DoF", "ExpoLat".
    const int fc = HeaderColumn(pws, pws.rowLb(), "Rectangle Focus");
    const int f = fc > 0 ? fc : 1;
    int row = 0;
    if (dose > -1) {
        row = mv_FindNearest(dose, pws, f + 1);
    } else {
        double best = 0;
        for (int r = 1; r <= pws.rowUb(); ++r) {
            double a;
            if (!NumericOf(pws(r, f + 8), a)) continue;
            if (!row || a > best) row = r, best = a;
        }
    }
    if (row < 1 || IsBlank(pws(row, f))) return false;
    out.row = row;
    out.focus = pws(row, f).toDouble();
    out.dose = pws(row, f + 1).toDouble();
    out.area = pws(row, f + 8).toDouble();
    out.dof = pws(row, f + 9).toDouble();
    out.expoLat = pws(row, f + 10).toDouble();
    return true;
}

Result<PWModeled> getModeledData(const PWSetup& setup, cLot& lot) {
    Proc p("PWcommon(getModeledData): ");
    PWModeled out;
    out.lot = lot.clone(true);
    if (!out.lot) return p.fail("The lot could not be copied.");
    if (setup.waferModelRemoval != 0 || setup.fieldModelRemoval != 0) {
        p.chk = 1;
        const Datam model = UpdateLotModel(*out.lot, setup);
        LensSetup ls;
        ls.name = setup.key.size() > 1 ? setup.key.substr(1) : setup.key;
        ls.feature =
            model(1, 1).toLong() > 0 ? static_cast<int>(model(1, 1).toLong()) : ePlotFeatureLot;
        ls.removeWafer = setup.waferModelRemoval != 0;
        ls.removeField = setup.fieldModelRemoval != 0;
        if (!model(2, 2).toString().empty()) ls.waferTerms = model(2, 2).toString();
        if (!model(3, 2).toString().empty()) ls.fieldTerms = model(3, 2).toString();
        ls.rangeCull = setup.range;
        ls.sigma = setup.sigma;
        Result<LensResult> r = RemoveLensAberrations(*out.lot, ls, setup.workbook);
        if (!r) return r.failure();
        if (r->lot) out.lot = r->lot;
    }
    p.chk = 2;
    if (out.lot->TotalPoints() > 0) out.table = out.lot->GetDataMatrix(0, true, true);
    return out;
}

}  // namespace zorv
