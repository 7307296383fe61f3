// "Data Distribution and Cull Analysis": what CullRangeSigma would remove at
// a series of limits, family by family, on an uncull'd clone of the lot.
//
// Each family's deltas from its median are sorted once; a limit's count is
// then a binary search, so a long series costs no more walks of the tree.
// Medians, deviations and the comparisons are CullRangeSigma's own
// (CullFamilyCentre), so a row's count is what that cull would take.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "stats/cull.h"
#include "stats/sigma_test.h"
#include "family_slot.h"

namespace zorv {

namespace {

struct FamilyData {
    long key = 0;
    cSite* site = nullptr;  // the first met, for the family's name
    long points = 0;        // live points, missing marks included
    std::vector<float> values;   // stored unit (x1000), no missing marks
    std::vector<double> deltas;  // |value - median|, stored unit, sorted
    FamilyCentre centre;
};

// Points whose delta is not above the limit (stored unit).
long Within(const std::vector<double>& sortedDeltas, double limit) {
    return static_cast<long>(std::upper_bound(sortedDeltas.begin(), sortedDeltas.end(), limit) -
                             sortedDeltas.begin());
}

// Every level's cull flag back to false, points first so the running
// counters follow each step.
void UncullAll(cLot& lot) {
    for (cWafer* w : lot.Wafers()) {
        for (cField* f : w->Fields()) {
            for (cSite* s : f->sites()) {
                for (cPoint* pt : s->Points()) pt->setCull(false);
                s->setCull(false);
            }
            f->setCull(false);
        }
        w->setCull(false);
    }
    lot.Recount();
}

std::string FamilyNameOf(const cLot& lot, FamilyData& fam) {
    const Datam& names = lot.FamilyNames;
    if (names.isArray() && names.dims() == 2 && names.colUb() >= names.colLb() + 1)
        for (int r = std::max(1, names.rowLb()); r <= names.rowUb(); ++r) {
            bool ok = false;
            const long enumValue = names(r, names.colLb()).toLong(&ok);
            if (ok && enumValue == fam.key) {
                const std::string n = names(r, names.colLb() + 1).toString();
                if (!n.empty()) return n;
            }
        }
    // The clone's site: FamilyName() may normalise an unnamed family.
    return fam.site ? fam.site->FamilyName() : std::to_string(fam.key);
}

}  // namespace

Result<SigmaTestResult> SigmaTest(cLot& lot, const SigmaTestSetup& setup) {
    Proc p("cLot(SigmaTest): ");
    p.chk = 1;
    if (lot.TotalWafers() == 0 || lot.TotalPoints() < 1) return p.fail("No data.");
    const int feature = setup.feature == ePlotFeatureLot ? lot.PlotFeature() : setup.feature;
    if (feature < ePlotFeatureVector || feature > ePlotFeatureAstig) return p.fail("No data.");

    SetStatusText("Existing cull removal ...");
    p.chk = 2;
    std::shared_ptr<cLot> work = lot.clone(true);
    if (!work) return p.fail("No data.");
    UncullAll(*work);
    if (work->PlotFeature() != feature) work->PlotFeature(feature);

    SigmaTestResult res;
    res.lot = work->LotName;
    res.feature = work->GetPlotFeatureName(feature);
    res.unit = work->GetPlotFeatureUnits();
    res.title = " Data Distribution Analysis - " + res.feature + " (" + res.unit + ")";
    res.heading = res.feature + " Data Distribution and Cull Analysis";

    SetStatusText("Analyzing data for cull ...");
    p.chk = 3;
    const int dataType = ((work->PLotDataType % 3) + 3) % 3;
    std::vector<FamilyData> fams;
    size_t last = 0;
    work->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& pt) {
        FamilyData& f = FamilySlot(fams, s.Family(), last, [&](FamilyData& n) { n.site = &s; });
        float v1 = kMissingValue, v2 = kMissingValue, v3 = kMissingValue;
        const float v = pt.GetPlotFeatureValue(v1, v2, v3, feature, dataType);
        ++f.points;
        if (!IsMissingTol(v)) f.values.push_back(v);
    });
    std::sort(fams.begin(), fams.end(), [](const FamilyData& a, const FamilyData& b) { return a.key < b.key; });

    SetStatusText("Calculating data statistics and distribution ....");
    p.chk = 4;
    double largestDelta = 0;  // stored unit
    const int m = static_cast<int>(fams.size());
    for (int i = 0; i < m; ++i) {
        FamilyData& f = fams[static_cast<size_t>(i)];
        SetStatusText("Analysis of family: " + FamilyNameOf(*work, f) + " #:" + std::to_string(i + 1) +
                      " of " + std::to_string(m));
        f.centre = CullFamilyCentre(f.values);
        const double median = f.centre.medianStored();
        f.deltas.reserve(f.values.size());
        for (float v : f.values) f.deltas.push_back(std::fabs(double(v) - median));
        std::sort(f.deltas.begin(), f.deltas.end());
        if (!f.deltas.empty()) largestDelta = std::max(largestDelta, f.deltas.back());
    }

    std::vector<double> ranges, sigmas;
    for (double r : setup.rangeLimits) ranges.push_back(std::fabs(r));
    for (double s : setup.sigmaLimits) sigmas.push_back(std::fabs(s));
    if (setup.rangeLimits.empty()) {
        const double top = largestDelta / 1000.0;
        if (top > 0)
            for (int k = 1; k <= 10; ++k) ranges.push_back(top * k / 10.0);
        else
            ranges.push_back(0.0);
    }
    if (setup.sigmaLimits.empty())
        for (int k = 1; k <= 6; ++k) sigmas.push_back(k);
    const size_t steps = std::max(ranges.size(), sigmas.size());

    // One row per family and step: the step's limits applied together as the
    // cull applies them (missing marks always go).
    Datam& d = res.distribution;
    d = Datam(static_cast<int>(fams.size() * steps), 11, 0, 0);
    const char* heads[] = {"Family", "DeltaAbs", "SigmaDelta", "Points", "Mean", "StDev",
                           "Range",  "Median",   "Cull%",      "Delta",  "Culls"};
    for (int c = 0; c < 11; ++c) d(0, c + 1) = Value(heads[c]);
    Datam& fl = res.families;
    fl = Datam(m, 4, 0, 0);
    const char* famHeads[] = {"Enum", "Name", "Count", "Median"};
    for (int c = 0; c < 4; ++c) fl(0, c + 1) = Value(famHeads[c]);
    int row = 0;
    for (int i = 0; i < m; ++i) {
        FamilyData& f = fams[static_cast<size_t>(i)];
        const std::string name = FamilyNameOf(*work, f);
        fl(i + 1, 1) = Value(int32_t(f.key));
        fl(i + 1, 2) = Value(name);
        fl(i + 1, 3) = Value(int32_t(f.points));
        fl(i + 1, 4) = Value(f.centre.median);
        const long missing = f.points - static_cast<long>(f.values.size());
        for (size_t k = 0; k < steps; ++k) {
            ++row;
            d(row, 0) = Value(int32_t(f.key));
            d(row, 1) = Value(name);
            double limit = -1;  // stored unit; below 0: no rule on
            if (k < ranges.size()) {
                d(row, 2) = Value(ranges[k]);
                if (ranges[k] > 0) limit = ranges[k] * 1000.0;
            }
            if (k < sigmas.size()) {
                d(row, 3) = Value(sigmas[k]);
                const double s = sigmas[k] > 0 ? f.centre.sigmaLimit(sigmas[k]) : 0.0;
                if (s > 0) limit = limit < 0 ? s : std::min(limit, s);
            }
            const long culls =
                missing + (limit < 0 ? 0 : static_cast<long>(f.deltas.size()) - Within(f.deltas, limit));
            d(row, 4) = Value(int32_t(f.points));
            d(row, 5) = Value(f.centre.mean);
            d(row, 6) = Value(f.centre.stdev);
            d(row, 7) = Value(f.centre.max - f.centre.min);
            d(row, 8) = Value(f.centre.median);
            d(row, 9) = Value(Format(f.points > 0 ? double(culls) / double(f.points) : 0.0, "#0.00%"));
            if (limit >= 0) d(row, 10) = Value(limit / 1000.0);
            d(row, 11) = Value(int32_t(culls));
        }
    }

    SetStatusText("Range-Cull Graph Setup...");
    p.chk = 5;
    // Points kept at each limit, over all families: within |delta| for the
    // range graph, within sigma times the family's deviation for the other.
    Datam& rs = res.rangeSeries;
    rs = Datam(static_cast<int>(ranges.size()), 2, 0, 0);
    rs(0, 1) = Value("DeltaAbs");
    rs(0, 2) = Value("Points in Range");
    for (size_t k = 0; k < ranges.size(); ++k) {
        long n = 0;
        for (const FamilyData& f : fams) n += Within(f.deltas, ranges[k] * 1000.0);
        rs(static_cast<int>(k) + 1, 1) = Value(ranges[k]);
        rs(static_cast<int>(k) + 1, 2) = Value(int32_t(n));
    }
    Datam& ss = res.sigmaSeries;
    ss = Datam(static_cast<int>(sigmas.size()), 2, 0, 0);
    ss(0, 1) = Value("SigmaDelta");
    ss(0, 2) = Value("Points");
    for (size_t k = 0; k < sigmas.size(); ++k) {
        long n = 0;
        for (const FamilyData& f : fams) n += Within(f.deltas, f.centre.sigmaLimit(sigmas[k]));
        ss(static_cast<int>(k) + 1, 1) = Value(sigmas[k]);
        ss(static_cast<int>(k) + 1, 2) = Value(int32_t(n));
    }
    return res;
}

Status SigmaTestGraphs(const SigmaTestResult& result, cGraphic& rangeGraph, cGraphic& sigmaGraph) {
    Proc p("cLot(SigmaTest): ");
    auto setUp = [&](cGraphic& g, const Datam& table, const std::string& key, const std::string& title,
                     const std::string& xLabel, const std::string& yLabel) -> Status {
        g.KeyName = key;
        if (Status st = g.RegisterData(table); !st) return st;
        cSeries& c = g.Series.Add(result.feature);
        c.Xcol = 1;
        c.Ycol = 2;
        c.Symbol = SymbolShape::FilledCircle;
        g.TitleObj.TitleString = title;
        cAxis& x = g.Axes.Add("X");
        x.Label = xLabel;
        cAxis& y = g.Axes.Add("Y");
        y.Label = yLabel;
        y.PlotGridline = true;
        g.DisplayLegend = false;
        return StatusOk();
    };
    p.chk = 1;
    if (Status st = setUp(rangeGraph, result.rangeSeries, "Range Cull", "Absolute Delta from Median (Range Cull)",
                          "AbsDelta from median (" + result.unit + ")", "Points in Range");
        !st)
        return st;
    p.chk = 2;
    return setUp(sigmaGraph, result.sigmaSeries, "Sigma Cull", "Sigma Delta from Median (Sigma Cull)",
                 "Sigma delta from median", "Points within");
}

}  // namespace zorv

