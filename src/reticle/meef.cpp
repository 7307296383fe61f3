// Mask error factor analysis: the local and field-wide fits, the MEF table,
// the field summary and the driver, FindMEF.
#include "reticle/meef.h"

#include <cmath>

#include "base/format.h"
#include "base/report.h"
#include "meef_common.h"
#include "numerics/lsq.h"

namespace zorv {

using namespace mefimpl;

namespace {

// Line fit y = c1 + c2 x as every fit of the analysis makes it; false when
// the fit left early.
bool LineFit(const double* x, const double* y, int n, double& c1, double& c2, double& e1, double& e2) {
    const SvdFitArrays f = svdfit_std(x, y, n, 1, kMefTolerance, true, true, 0.0f, -1.0f);
    if (f.result < 0 || f.coef.size() < 2 || f.errors.size() < 2) return false;
    c1 = f.coef[0];
    c2 = f.coef[1];
    e1 = f.errors[0];
    e2 = f.errors[1];
    return Known(c2);
}

std::string Num3(double v) { return Format(v, "0.000"); }

std::string DieText(double x, double y) {
    std::string s = "(";
    s.append(Format(x, "0")).append(", ").append(Format(y, "0")).append(")");
    return s;
}

Value NumberOrText(const std::string& s) {
    double v;
    if (!s.empty() && ParseNumber(s, v)) return Value(v);
    return Value(s);
}

std::string WaferName(const cWafer& w) {
    if (!w.WaferID.empty()) return w.WaferID;
    if (!w.KeyName.empty()) return w.KeyName;
    return std::to_string(w.Number());
}

}  // namespace

std::vector<std::string> MefHeaders(const std::string& feature, const std::string& reticleFeature) {
    return {"Wafer", "Test", "DieX", "DieY", feature, feature + "_Ret",
            "MEEF_" + feature + "_" + reticleFeature, "BEEF", "WaferBias(" + feature + ")",
            "Ratio_" + feature + "/" + reticleFeature, "RetEffective_" + feature, "MEEFfield_" + feature,
            "BEEFfield", "RetEffField_" + feature, "MEFoffset", "MEFslope", "MEFoffset_Sigma", "MEF_sigma",
            "Bias_offset", "Bias_slope", "BiasOffset_Sigma", "BiasSlope_Sigma", "MEEFfield_Sigma",
            "BEEFfield_Sigma", "Focus", "Dose", "NA", "PCinner", "PCouter", "Scan"};
}

MEFRow::MEFRow() {
    meef = beef = retEffective = offset = slope = offsetSigma = slopeSigma = kNaN;
    biasOffset = biasSlope = biasOffsetSigma = biasSlopeSigma = kNaN;
    meefField = beefField = retEffField = meefFieldSigma = beefFieldSigma = kNaN;
}

MEFField::MEFField() { meef = meefSigma = beef = beefSigma = retEffective = kNaN; }

// ---------------------------------------------------------------- the fits

namespace {

// Fills the local fit columns of one row from its point lists.
void LocalFits(MEFRow& row, const double* x, const double* y, const double* b, int n) {
    row.points = n;
    if (n <= 2) return;
    double c1, c2, e1, e2;
    if (LineFit(x, y, n, c1, c2, e1, e2)) {
        row.meef = row.slope = c2;
        row.offset = c1;
        row.offsetSigma = e1;
        row.slopeSigma = e2;
    }
    if (LineFit(x, b, n, c1, c2, e1, e2) && std::fabs(c2) > 0) {
        row.retEffective = -c1 / c2;
        row.beef = row.biasSlope = c2;
        row.biasOffset = c1;
        row.biasOffsetSigma = e1;
        row.biasSlopeSigma = e2;
    }
}

}  // namespace

MEFField MEFcalc(std::span<MEFRow> rows, const NeighborTable& nb, const EquivalentTable& eq) {
    MEFField field;
    // The field's row of each layout site; a site measured twice keeps its first row.
    std::vector<int> rowOf(static_cast<size_t>(nb.Count()), -1);
    for (size_t i = 0; i < rows.size(); ++i) {
        const int li = rows[i].layoutIndex;
        if (li >= 0 && li < nb.Count() && rowOf[li] < 0) rowOf[li] = static_cast<int>(i);
    }
    auto present = [&](int li) -> int {
        if (li < 0) return -1;
        if (rowOf[li] >= 0) return rowOf[li];
        if (static_cast<size_t>(li) < eq.of.size())
            for (int e : eq.of[li])
                if (rowOf[e] >= 0) return rowOf[e];
        return -1;
    };

    double x[kMefMaxPoints], y[kMefMaxPoints], b[kMefMaxPoints];
    for (MEFRow& row : rows) {
        int n = 0;
        x[n] = row.retCD, y[n] = row.cd, b[n] = row.bias, ++n;
        if (row.layoutIndex >= 0 && row.layoutIndex < nb.Count())
            for (int k = 0; k < kMefNeighbors && n < kMefMaxPoints; ++k) {
                const int r = present(nb.neighbor[row.layoutIndex][k]);
                if (r < 0) continue;
                const MEFRow& o = rows[static_cast<size_t>(r)];
                x[n] = o.retCD, y[n] = o.cd, b[n] = o.bias, ++n;
            }
        LocalFits(row, x, y, b, n);
    }

    // The field-wide fits over every row.
    const int n = static_cast<int>(rows.size());
    if (!rows.empty()) {
        field.wafer = rows.front().wafer;
        field.dieX = rows.front().dieX;
        field.dieY = rows.front().dieY;
    }
    field.rows = n;
    if (n > 2) {
        std::vector<double> fx(rows.size()), fy(rows.size()), fb(rows.size());
        for (size_t i = 0; i < rows.size(); ++i) fx[i] = rows[i].retCD, fy[i] = rows[i].cd, fb[i] = rows[i].bias;
        double c1, c2, e1, e2;
        if (LineFit(fx.data(), fy.data(), n, c1, c2, e1, e2)) field.meef = c2, field.meefSigma = e2;
        if (LineFit(fx.data(), fb.data(), n, c1, c2, e1, e2)) {
            field.beef = c2;
            field.beefSigma = e2;
            if (c2 != 0) field.retEffective = -c1 / c2;
        }
    }
    for (MEFRow& row : rows) {
        row.meefField = field.meef;
        row.meefFieldSigma = field.meefSigma;
        row.beefField = field.beef;
        row.beefFieldSigma = field.beefSigma;
        row.retEffField = field.retEffective;
    }
    field.title = "Field " + DieText(field.dieX, field.dieY) + " MEEF: " + Num3(field.meef) + " +/- " +
                  Num3(3 * field.meefSigma);
    return field;
}

// ---------------------------------------------------------------- FindMEF

namespace {

// The table of the rows, 30 columns, row 0 the header.
Datam MefTable(const std::vector<MEFRow>& rows, const MEFSetup& setup) {
    const std::vector<std::string> heads = MefHeaders(setup.feature, setup.reticleFeature);
    Datam t(static_cast<int>(rows.size()), kMefColumns, 0, 1);
    for (int c = 1; c <= kMefColumns; ++c) t(0, c) = heads[static_cast<size_t>(c - 1)];
    for (size_t i = 0; i < rows.size(); ++i) {
        const MEFRow& r = rows[i];
        const int k = static_cast<int>(i) + 1;
        const double cells[kMefColumns - 2] = {
            r.dieX, r.dieY, r.cd, r.retCD, r.meef, r.beef, r.bias, r.ratio, r.retEffective, r.meefField,
            r.beefField, r.retEffField, r.offset, r.slope, r.offsetSigma, r.slopeSigma, r.biasOffset,
            r.biasSlope, r.biasOffsetSigma, r.biasSlopeSigma, r.meefFieldSigma, r.beefFieldSigma, r.focus,
            r.dose, r.na, r.pcInner, r.pcOuter, r.scan};
        t(k, mefWafer) = NumberOrText(r.wafer);
        t(k, mefTest) = Value(r.site);
        for (int c = mefDieX; c <= kMefColumns; ++c) t(k, c) = Cell(cells[c - mefDieX]);
    }
    return t;
}

// "Full-Field", "Summary"; the heads; a row for each field.
Datam SummaryTable(const std::vector<MEFField>& fields) {
    Datam t(static_cast<int>(fields.size()) + 1, 5, 0, 1);
    t(0, 1) = "Full-Field";
    t(0, 2) = "Summary";
    const char* heads[] = {"Die(X,Y)", "MEEF", "StdErr(3s)", "BEEF", "StdErr(3s)"};
    for (int c = 0; c < 5; ++c) t(1, c + 1) = heads[c];
    for (size_t i = 0; i < fields.size(); ++i) {
        const MEFField& f = fields[i];
        const int r = static_cast<int>(i) + 2;
        t(r, 1) = DieText(f.dieX, f.dieY);
        t(r, 2) = Cell(f.meef);
        t(r, 3) = Cell(3 * f.meefSigma);
        t(r, 4) = Cell(f.beef);
        t(r, 5) = Cell(3 * f.beefSigma);
    }
    return t;
}

// The lot averaged over its fields, site by site, beside the reticle.
Datam FieldAverage(const cLot& lot, int feature, const NeighborTable& nb, const std::vector<double>& ret,
                   const MEFSetup& setup) {
    std::vector<double> sum(static_cast<size_t>(nb.Count()), 0.0);
    std::vector<int> count(static_cast<size_t>(nb.Count()), 0);
    lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) {
        const int i = nb.IndexOf(s.NumberKey());
        const double v = SiteMean(s, feature);
        if (i < 0 || !Known(v)) return;
        sum[i] += v;
        ++count[i];
    });
    Datam t(nb.Count(), 5, 0, 1);
    t(0, 1) = "Site";
    t(0, 2) = "X";
    t(0, 3) = "Y";
    t(0, 4) = setup.feature;
    t(0, 5) = setup.reticleFeature;
    for (int i = 0; i < nb.Count(); ++i) {
        t(i + 1, 1) = Value(nb.site[i]);
        t(i + 1, 2) = Value(nb.x[i] / 1000);
        t(i + 1, 3) = Value(nb.y[i] / 1000);
        t(i + 1, 4) = Cell(count[i] ? sum[i] / count[i] : kNaN);
        t(i + 1, 5) = Cell(ret[i]);
    }
    return t;
}

long LivePoints(const cLot& lot) {
    long n = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++n; });
    return n;
}

}  // namespace

namespace {

// A field's rows in the table: the first and how many.
struct FieldSpan {
    size_t first, count;
};

// Step 1: the lots, their points, the set-up and both features.
Status CheckInput(Proc& p, const cLot* lot, const cLot* reticle, const MEFSetup& setup) {
    p.chk = 1;
    if (!lot) return p.fail("Lot data not provided.");
    if (!reticle) return p.fail("Reticle data not provided.");
    if (const long n = LivePoints(*lot); n < 3) return p.fail("Insufficient data points in the Lot: " + std::to_string(n));
    if (const long n = LivePoints(*reticle); n < 3)
        return p.fail("Insufficient data points in the Reticle Data: " + std::to_string(n));
    if (!(setup.mag > 0) || !(setup.siteMag > 0)) return p.fail("The magnification must be above 0.");
    if (!FeatureOf(*lot, setup.feature) || !FeatureOf(*reticle, setup.reticleFeature))
        return p.fail("Could not find feature column.");
    return StatusOk();
}

// Step 6: a row for each live site with a wafer CD and a reticle CD, field
// after field; sites without a reticle CD are counted in res.skipped.
std::vector<FieldSpan> ReadRows(const cLot& lot, int feature, const std::vector<double>& ret, MEFResult& res) {
    const NeighborTable& nb = res.neighbors;
    std::vector<FieldSpan> spans;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        const std::string wafer = WaferName(*w);
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            const size_t first = res.rows.size();
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                const double cd = SiteMean(*s, feature);
                if (!Known(cd)) continue;
                const int li = nb.IndexOf(s->NumberKey());
                const double rc = li >= 0 ? ret[static_cast<size_t>(li)] : kNaN;
                if (!Known(rc)) {
                    ++res.skipped;
                    continue;
                }
                MEFRow r;
                r.wafer = wafer;
                r.site = s->NumberKey();
                r.layoutIndex = li;
                r.dieX = f->DieX;
                r.dieY = f->DieY;
                r.cd = cd;
                r.retCD = rc;
                r.bias = cd - rc;
                r.ratio = rc != 0 ? cd / rc : kNaN;
                r.focus = f->Focus;
                r.dose = f->Dose;
                r.na = f->NA;
                r.pcInner = f->PCinner;
                r.pcOuter = f->PCouter;
                r.scan = static_cast<double>(f->Direction);
                res.rows.push_back(std::move(r));
            }
            if (res.rows.size() > first) spans.push_back({first, res.rows.size() - first});
        }
    }
    return spans;
}

// Step 7: MEFcalc on each field's rows, with status and progress every 100 rows.
Status FitFields(Proc& p, const std::vector<FieldSpan>& spans, MEFResult& res) {
    p.chk = 7;
    const size_t total = res.rows.size();
    size_t nextStatus = 0;
    for (const FieldSpan& span : spans) {
        if (span.first >= nextStatus) {
            const MEFRow& head = res.rows[span.first];
            std::string text = "MEF Die ";
            text.append(DieText(head.dieX, head.dieY)).append(" Calculation row ").append(std::to_string(span.first + 1));
            SetStatusText(text.append(" of ").append(std::to_string(total)));
            ProgressBar(static_cast<int>(100 * span.first / total));
            nextStatus = span.first + 100;
            if (CheckEscKey()) return p.fail("Analysis stopped by the user.");
        }
        MEFField fr = MEFcalc(std::span<MEFRow>(res.rows.data() + span.first, span.count), res.neighbors,
                              res.equivalents);
        fr.firstRow = static_cast<int>(span.first);
        res.fields.push_back(std::move(fr));
    }
    ProgressBar(100);
    return StatusOk();
}

}  // namespace

Result<MEFResult> FindMEF(const cLot* lot, const cLot* reticle, const MEFSetup& setup) {
    Proc p(kTag);
    if (Status s = CheckInput(p, lot, reticle, setup); !s) return s.failure();
    const int feature = FeatureOf(*lot, setup.feature);
    // A reticle measured in other length units than the lot (nm against um)
    // is brought to the lot's before the magnification.
    MEFSetup eff = setup;
    {
        const long* lu = const_cast<cLot*>(lot)->FeatureUnitsField(feature);
        const long* ru = const_cast<cLot*>(reticle)->FeatureUnitsField(FeatureOf(*reticle, setup.reticleFeature));
        const auto length = [](const long* u) { return u && *u >= eUnitsMicron && *u <= eUnitsMeter; };
        if (length(lu) && length(ru)) eff.mag = setup.mag * UnitFactor(*lu) / UnitFactor(*ru);
    }

    // 2. Layout, neighbours, equivalents.
    p.chk = 2;
    SetStatusText("Setup Lot & Reticle surfaces...");
    MEFResult res;
    auto nb = GetNeighborSites(GetSiteLayout(*lot));
    if (!nb) return nb.failure();
    res.neighbors = std::move(nb.value());
    auto eq = GetEquivalentSites(*lot, *reticle, res.neighbors, eff);
    if (!eq) return eq.failure();
    res.equivalents = std::move(eq.value());

    // 3. The reticle at the lot's sites, and the lot's field average.
    p.chk = 3;
    SetStatusText("Calculating Lot's Field-Average surface....");
    auto ret = ReticleAtSites(*reticle, res.neighbors, eff);
    if (!ret) return ret.failure();
    res.fieldAverage = FieldAverage(*lot, feature, res.neighbors, *ret, eff);

    // 4-6. The rows: wafer, site, die, CDs, bias, ratio, exposure.
    p.chk = 6;
    SetStatusText("Correlation analysis...Lot: " + setup.feature + "  Ret: " + setup.reticleFeature);
    const std::vector<FieldSpan> spans = ReadRows(*lot, feature, *ret, res);
    if (res.rows.size() < 3)
        return p.fail("Insufficient data points in the Lot: " + std::to_string(res.rows.size()));

    // 7-8. The fits, field by field, and the tables.
    if (Status s = FitFields(p, spans, res); !s) return s.failure();
    p.chk = 8;
    res.table = MefTable(res.rows, setup);
    res.summary = SummaryTable(res.fields);

    // 9. The sheets.
    p.chk = 9;
    if (setup.workbook) {
        if (Status s = SaveMEFSheets(res, setup, *setup.workbook); !s) return s.failure();
        res.sheets = {MefSheetName(setup), MefSummarySheetName(setup)};
    }
    SetStatusText("");
    return res;
}

}  // namespace zorv
