// The statistical cull by family: points too far from their family's median,
// by a fixed range or by a multiple of the family's standard deviation.
//
// One walk of the tree sorts the live points into their families and reads
// every feature's value on the way; each feature and family is then a pass
// over those lists, in the order GetDataFull sorted by family would give
// (families ascending, walk order within each). A point is touched once
// more only when it is culled.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "base/marks.h"
#include "base/report.h"
#include "numerics/quartiles.h"
#include "stats/cull.h"
#include "family_slot.h"

namespace zorv {

namespace {

// Bins of a family's histogram by its count: coarse for small families, so
// the median of a handful of points is the centre of a wide bin.
int BinsFor(long n) {
    if (n < 10) return 3;
    if (n < 20) return 5;
    if (n < 50) return 20;
    if (n < 100) return 30;
    return 50;
}

// The live points of one family in walk order, with the values of the
// features the cull looks at (width values a point) read in the same walk:
// the points are touched once, not once per feature. Only points are culled
// here, so `gone` is all a later feature needs to know of an earlier one.
struct Family {
    long key = 0;
    std::vector<cPoint*> points;
    std::vector<float> values;
    std::vector<uint8_t> gone;
};

struct DetailRow {
    int feature;
    long family;
    float value;
    double median;  // stored unit
    bool missing;
};

// Restores the lot's feature selection however the cull ends.
class FeatureGuard {
public:
    explicit FeatureGuard(cLot& lot)
        : lot_(lot), feature_(lot.PlotFeature()), units_(lot.PlotFeatureUnits()),
          name_(lot.PlotFeatureName), min_(lot.PlotFeatureMin), max_(lot.PlotFeatureMax) {}
    ~FeatureGuard() {
        lot_.PlotFeature(feature_);
        lot_.PlotFeatureName = name_;
        lot_.PlotFeatureMin = min_;
        lot_.PlotFeatureMax = max_;
        lot_.PlotFeatureUnits(units_);
    }
    FeatureGuard(const FeatureGuard&) = delete;
    FeatureGuard& operator=(const FeatureGuard&) = delete;

private:
    cLot& lot_;
    int feature_;
    long units_;
    std::string name_;
    float min_, max_;
};

// "Cull analysis point n of m" without building a new string each time.
void ShowPointStatus(std::string& text, long n, long m) {
    char buf[24];
    text.assign("Cull analysis point ");
    text.append(buf, std::to_chars(buf, buf + sizeof buf, n).ptr);
    text.append(" of ");
    text.append(buf, std::to_chars(buf, buf + sizeof buf, m).ptr);
    SetStatusText(text);
}

}  // namespace

FamilyCentre CullFamilyCentre(std::span<const float> stored) {
    FamilyCentre c;
    c.n = static_cast<long>(stored.size());
    if (c.n == 0) return c;
    auto display = [](float v) { return double(v) / 1000.0; };
    double sum = 0;
    c.min = c.max = display(stored[0]);
    for (float s : stored) {
        const double v = display(s);
        sum += v;
        c.min = std::min(c.min, v);
        c.max = std::max(c.max, v);
    }
    c.mean = sum / double(c.n);
    if (c.n > 1) {
        double ss = 0;
        for (float s : stored) ss += (display(s) - c.mean) * (display(s) - c.mean);
        c.stdev = std::sqrt(ss / double(c.n - 1));
    }

    const int bins = BinsFor(c.n);
    const double width = (c.max - c.min) / bins;
    long counts[50] = {};
    for (float s : stored) {
        const int k = width > 0 ? static_cast<int>((display(s) - c.min) / width) : 0;
        counts[std::clamp(k, 0, bins - 1)] += 1;
    }
    Datam hist(bins, 2, 0, 0);
    hist(0, 1) = Value("Bin");
    hist(0, 2) = Value("Count");
    for (int k = 0; k < bins; ++k) {
        hist(k + 1, 1) = Value(c.min + (k + 0.5) * width);
        hist(k + 1, 2) = Value(double(counts[k]));
    }
    const Quartiles q = GetQuartilesFreq(hist, 1, 2);
    // A single point has no quartiles; its bin centre is its value.
    c.median = q.ok() ? q.median() : double(static_cast<float>(hist(1, 1).toDouble()));
    return c;
}

Result<RangeSigmaResult> CullRangeSigma(cLot& lot, double range, double sigma, bool allFeatures) {
    Proc p("cLot(CullRangeSigma): ");
    p.chk = 1;
    const double rangeLimit = std::fabs(range) * 1000.0;
    sigma = std::fabs(sigma);
    RangeSigmaResult res;
    if (lot.TotalWafers() == 0) return p.fail("No data.");
    res.pointsBefore = lot.TotalPoints();
    if (res.pointsBefore < 1) return p.fail("No data.");

    p.chk = 2;
    std::vector<int> features;
    if (allFeatures) {
        const Datam types = lot.GetFeatureTypes();
        for (int r = 1; r <= types.rowUb(); ++r) {
            const int k = types(r, 0).toLong();
            if (k >= 1 && k <= 8) features.push_back(k);
        }
    } else {
        // "None" (or nothing known) would read as missing everywhere and cull all
        if (lot.PlotFeature() < ePlotFeatureVector || lot.PlotFeature() > ePlotFeatureAstig)
            return p.fail("No data.");
        features.push_back(lot.PlotFeature());
    }

    // One walk: the families' points with the values of every feature.
    const int dataType = ((lot.PLotDataType % 3) + 3) % 3;
    const size_t width = features.size();
    std::vector<Family> fams;
    const size_t expect = static_cast<size_t>(res.pointsBefore / std::max(1L, lot.FamilyTotal())) + 64;
    size_t last = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite& s, cPoint& pt) {
        Family& f = FamilySlot(fams, s.Family(), last, [&](Family& n) {
            n.points.reserve(expect);
            n.values.reserve(expect * width);
        });
        f.points.push_back(&pt);
        for (int k : features) {
            float v1 = kMissingValue, v2 = kMissingValue, v3 = kMissingValue;
            f.values.push_back(pt.GetPlotFeatureValue(v1, v2, v3, k, dataType));
        }
    });
    std::sort(fams.begin(), fams.end(), [](const Family& a, const Family& b) { return a.key < b.key; });
    for (Family& f : fams) f.gone.assign(f.points.size(), 0);

    FeatureGuard guard(lot);
    std::vector<DetailRow> detail;
    std::vector<float> values;  // one family's values that are not missing
    std::string status;
    double sumStat = 0, sumStat2 = 0;
    long familyRows = 0;
    std::vector<double> famMedian, famStat;
    std::vector<long> famKey;
    std::vector<int> famFeature;
    bool stopped = false;

    p.chk = 3;
    for (size_t column = 0; column < width && !stopped; ++column) {
        const int feature = features[column];
        if (allFeatures) lot.PlotFeature(feature);
        const long total = res.pointsBefore - res.rangeCount - res.sigmaCount;
        long seen = 0;
        for (Family& fam : fams) {
            const size_t n = fam.points.size();
            const float* vals = fam.values.data() + column;
            values.clear();
            long live = 0;
            for (size_t i = 0; i < n; ++i) {
                if (fam.gone[i]) continue;
                ++live;
                const float v = vals[i * width];
                if (!IsMissingTol(v)) values.push_back(v);
            }
            if (live == 0) continue;  // culled whole for an earlier feature

            const FamilyCentre c = CullFamilyCentre(values);
            const double median = c.medianStored();
            const double sigmaLimit = sigma > 0 ? c.sigmaLimit(sigma) : 0.0;
            double keptDelta = 0;
            long kept = 0;
            for (size_t i = 0; i < n; ++i) {
                if (fam.gone[i]) continue;
                const float v = vals[i * width];
                if (++seen % 100 == 0) {
                    ShowPointStatus(status, seen, total);
                    if (CheckEscKey()) {
                        stopped = true;
                        break;
                    }
                }
                if (IsMissingTol(v)) {
                    fam.gone[i] = 1;
                    fam.points[i]->setCull(true);
                    ++(rangeLimit > 0 ? res.rangeCount : res.sigmaCount);
                    detail.push_back({feature, fam.key, v, median, true});
                    continue;
                }
                const double delta = std::fabs(double(v) - median);
                if (rangeLimit > 0 && delta > rangeLimit) {
                    ++res.rangeCount;
                } else if (sigmaLimit > 0 && delta > sigmaLimit) {
                    ++res.sigmaCount;
                } else {
                    keptDelta += delta;
                    ++kept;
                    continue;
                }
                fam.gone[i] = 1;
                fam.points[i]->setCull(true);
                detail.push_back({feature, fam.key, v, median, false});
            }
            if (stopped) break;
            const double stat = kept > 0 ? keptDelta / double(kept) / 1000.0 : 0.0;
            sumStat += stat;
            sumStat2 += stat * stat;
            ++familyRows;
            famFeature.push_back(feature);
            famKey.push_back(fam.key);
            famMedian.push_back(c.median);
            famStat.push_back(stat);
        }
    }

    p.chk = 4;
    if (familyRows > 0) {
        res.mean = sumStat / double(familyRows);
        res.stdev = std::sqrt(sumStat2 / double(familyRows));
    }
    const std::string heading =
        features.size() == 1 ? lot.GetPlotFeatureName(features[0]) : std::string(kAllFeatures);
    // Column 0 keeps the feature of each row, since one cull may cover several.
    Datam& d = res.detail;
    d = Datam(static_cast<int>(detail.size()), 5, 0, 0);
    d(0, 1) = Value(heading);
    d(0, 2) = Value("Delta");
    d(0, 3) = Value("Median");
    d(0, 4) = Value("Range");
    d(0, 5) = Value("Family");
    int r = 0;
    for (const DetailRow& row : detail) {
        ++r;
        d(r, 0) = Value(int32_t(row.feature));
        d(r, 3) = Value(row.median / 1000.0);
        d(r, 5) = Value(int32_t(row.family));
        if (row.missing) {
            // the mark stays unscaled, as in every table of the lot
            d(r, 1) = Value(double(kMissingValue));
            d(r, 2) = Value(double(kMissingValue));
            d(r, 4) = Value(double(kMissingValue));
        } else {
            const double delta = double(row.value) - row.median;
            d(r, 1) = Value(double(row.value) / 1000.0);
            d(r, 2) = Value(delta / 1000.0);
            d(r, 4) = Value(std::fabs(delta) / 1000.0);
        }
    }
    Datam& f = res.families;
    f = Datam(static_cast<int>(familyRows), 3, 0, 0);
    f(0, 1) = Value("Family");
    f(0, 2) = Value("Value");
    f(0, 3) = Value("Delta");
    for (long i = 0; i < familyRows; ++i) {
        const int row = static_cast<int>(i) + 1;
        f(row, 0) = Value(int32_t(famFeature[i]));
        f(row, 1) = Value(int32_t(famKey[i]));
        f(row, 2) = Value(famMedian[i]);
        f(row, 3) = Value(famStat[i]);
    }
    return res;
}

}  // namespace zorv
