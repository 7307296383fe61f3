// The range and sigma cull against hand-worked families, and the cull
// analysis against the cull itself and a plain count.
#include <gtest/gtest.h>

#include <cstdio>
#include <cmath>
#include <map>
#include <vector>

#include "stats/cull.h"
#include "stats/sigma_test.h"
#include "stats_fixture.h"

using namespace zorv;
using zorv::testing::LotShape;
using zorv::testing::MakeStatsLot;
using zorv::testing::PointAt;
using zorv::testing::ScopedCapture;

namespace {

using Values = std::array<double, 8>;

Values Only(double cd) {
    Values v;
    v.fill(1.0);
    v[0] = cd;
    return v;
}

// One wafer, one field, one family: the site keys 1..n carry `cd`, in order.
std::shared_ptr<cLot> OneFamily(const std::vector<double>& cd, int sitesX, int sitesY) {
    LotShape shape;
    shape.wafers = 1;
    shape.fieldsX = shape.fieldsY = 1;
    shape.sitesX = sitesX;
    shape.sitesY = sitesY;
    auto lot = MakeStatsLot(shape, [&](const PointAt& at) { return Only(cd[size_t(at.site - 1)]); });
    lot->PlotFeature(ePlotFeatureV);
    return lot;
}

// Two families on 2 wafers x 4 fields x 9 sites: family 1 (odd keys, 40
// points) at 50 with one point at 80, family 2 (even keys, 32 points) at 20.
std::shared_ptr<cLot> TwoFamilies() {
    LotShape shape;
    shape.families = 2;
    auto lot = MakeStatsLot(shape, [](const PointAt& at) {
        if (at.site % 2 == 0) return Only(20);
        return Only(at.wafer == 2 && at.field == 3 && at.site == 5 ? 80 : 50);
    });
    lot->PlotFeature(ePlotFeatureV);
    return lot;
}

void UncullEverything(cLot& lot) {
    for (cWafer* w : lot.Wafers()) {
        w->setCull(false);
        for (cField* f : w->Fields()) {
            f->setCull(false);
            for (cSite* s : f->sites()) {
                s->setCull(false);
                for (cPoint* p : s->Points()) p->setCull(false);
            }
        }
    }
}

bool SameTable(const Datam& a, const Datam& b) {
    if (a.rowLb() != b.rowLb() || a.rowUb() != b.rowUb() || a.colLb() != b.colLb() ||
        a.colUb() != b.colUb())
        return false;
    for (int r = a.rowLb(); r <= a.rowUb(); ++r)
        for (int c = a.colLb(); c <= a.colUb(); ++c)
            if (!a(r, c).identical(b(r, c))) return false;
    return true;
}

}  // namespace

TEST(CullRangeSigma, SmallFamilyTakesTheMedianOfThreeBins) {
    ScopedCapture rep;
    // Nine values 0..7 and 30: bins of width 10, eight values in the first
    // (centre 5) and one in the last (centre 25). The middle of nine is in
    // the first bin, so the median is 5, not the plain median 4. A tenth,
    // missing point must not change the count that picks the bins.
    auto lot = OneFamily({0, 1, 2, 3, 4, 5, 6, 7, 30, kMissingValue}, 5, 2);
    auto r = CullRangeSigma(*lot, -4.5, 0);  // |range|
    ASSERT_TRUE(r.ok()) << r.failure().message();
    ASSERT_EQ(r->families.rowUb(), 1);
    EXPECT_EQ(r->families(1, 1).toDouble(), 1);  // family
    EXPECT_EQ(r->families(1, 2).toDouble(), 5);  // median
    // |0 - 5| = 5 and |30 - 5| = 25 are above 4.5; 1..7 are within.
    EXPECT_EQ(r->rangeCount, 3);  // 0, 30 and the missing point
    EXPECT_EQ(r->sigmaCount, 0);
    EXPECT_EQ(r->pointsBefore, 10);
    EXPECT_EQ(lot->TotalPoints(), 7);
    // kept deltas 4,3,2,1,0,1,2: mean 13/7
    EXPECT_DOUBLE_EQ(r->families(1, 3).toDouble(), 13.0 / 7);
    EXPECT_DOUBLE_EQ(r->mean, 13.0 / 7);
    EXPECT_DOUBLE_EQ(r->stdev, 13.0 / 7);
}

TEST(CullRangeSigma, MissingValuesAreAlwaysCulled) {
    ScopedCapture rep;
    const std::vector<double> cd = {10, 11, kMissingValue, 12, 13, kMissingValue, 14, 15, 16};
    {
        // both rules off: only the missing points go, counted under sigma
        auto lot = OneFamily(cd, 3, 3);
        auto r = CullRangeSigma(*lot, 0, 0);
        ASSERT_TRUE(r.ok());
        EXPECT_EQ(r->rangeCount, 0);
        EXPECT_EQ(r->sigmaCount, 2);
        EXPECT_EQ(lot->TotalPoints(), 7);
        ASSERT_EQ(r->detail.rowUb(), 2);
        EXPECT_EQ(r->detail(0, 1).str(), "CD");
        EXPECT_EQ(r->detail(0, 2).str(), "Delta");
        EXPECT_EQ(r->detail(0, 5).str(), "Family");
        EXPECT_EQ(r->detail(1, 1).toDouble(), double(kMissingValue));
        // Seven values 10..16 in three bins of width 2: 10,11 | 12,13 | 14,15,16.
        // The fourth of seven lies in the middle bin: centre 13.
        EXPECT_EQ(r->detail(1, 3).toDouble(), 13);
        EXPECT_EQ(r->families(1, 2).toDouble(), 13);
    }
    {
        // range on (but wide): the missing points count under range
        auto lot = OneFamily(cd, 3, 3);
        auto r = CullRangeSigma(*lot, 100, 0);
        ASSERT_TRUE(r.ok());
        EXPECT_EQ(r->rangeCount, 2);
        EXPECT_EQ(r->sigmaCount, 0);
    }
    {
        // a far outlier with both rules off stays
        auto lot = TwoFamilies();
        auto r = CullRangeSigma(*lot, 0, 0);
        ASSERT_TRUE(r.ok());
        EXPECT_EQ(r->rangeCount + r->sigmaCount, 0);
        EXPECT_EQ(lot->TotalPoints(), 72);
        EXPECT_EQ(r->detail.rowUb(), 0);
    }
}

TEST(CullRangeSigma, PlantedOutlierGoesByRange) {
    ScopedCapture rep;
    auto lot = TwoFamilies();
    auto r = CullRangeSigma(*lot, 10, 0);
    ASSERT_TRUE(r.ok());
    // Family 1: 40 points, 20 bins between 50 and 80 (width 1.5): 39 in the
    // first, centre 50.75, the median. Family 2: all at 20, one bin at 20.
    ASSERT_EQ(r->families.rowUb(), 2);
    EXPECT_EQ(r->families(1, 2).toDouble(), 50.75);
    EXPECT_EQ(r->families(2, 2).toDouble(), 20);
    EXPECT_EQ(r->rangeCount, 1);
    EXPECT_EQ(r->sigmaCount, 0);
    ASSERT_EQ(r->detail.rowUb(), 1);
    EXPECT_EQ(r->detail(1, 1).toDouble(), 80);
    EXPECT_EQ(r->detail(1, 2).toDouble(), 29.25);
    EXPECT_EQ(r->detail(1, 3).toDouble(), 50.75);
    EXPECT_EQ(r->detail(1, 4).toDouble(), 29.25);
    EXPECT_EQ(r->detail(1, 5).toDouble(), 1);
    // kept deltas: 0.75 for family 1, 0 for family 2
    EXPECT_EQ(r->families(1, 3).toDouble(), 0.75);
    EXPECT_EQ(r->families(2, 3).toDouble(), 0);
    EXPECT_DOUBLE_EQ(r->mean, 0.375);
    EXPECT_DOUBLE_EQ(r->stdev, std::sqrt(0.75 * 0.75 / 2));
    EXPECT_EQ(lot->TotalPoints(), 71);
}

TEST(CullRangeSigma, SigmaLimitFromTheSampleDeviation) {
    ScopedCapture rep;
    // Eight 10s and a 19: mean 11, squares 8 * 1 + 64 = 72 over 8: sd 3.
    // Bins of width 3: eight in the first (centre 11.5), the median.
    // The 19 is 7.5 from it: culled at 2.4 sd (7.2), kept at 2.6 (7.8).
    const std::vector<double> cd = {10, 10, 10, 10, 19, 10, 10, 10, 10};
    {
        auto lot = OneFamily(cd, 3, 3);
        auto r = CullRangeSigma(*lot, 0, -2.4);  // |sigma|
        ASSERT_TRUE(r.ok());
        EXPECT_EQ(r->sigmaCount, 1);
        EXPECT_EQ(r->rangeCount, 0);
        ASSERT_EQ(r->detail.rowUb(), 1);
        EXPECT_EQ(r->detail(1, 1).toDouble(), 19);
        EXPECT_EQ(r->detail(1, 2).toDouble(), 7.5);
    }
    {
        auto lot = OneFamily(cd, 3, 3);
        auto r = CullRangeSigma(*lot, 0, 2.6);
        ASSERT_TRUE(r.ok());
        EXPECT_EQ(r->sigmaCount, 0);
        EXPECT_EQ(lot->TotalPoints(), 9);
    }
    {
        // both rules catch it: the range rule comes first
        auto lot = OneFamily(cd, 3, 3);
        auto r = CullRangeSigma(*lot, 7, 2);
        ASSERT_TRUE(r.ok());
        EXPECT_EQ(r->rangeCount, 1);
        EXPECT_EQ(r->sigmaCount, 0);
    }
}

TEST(CullRangeSigma, AllFeaturesAndReversibility) {
    ScopedCapture rep;
    LotShape shape;
    shape.families = 2;
    // V has an outlier at wafer 1 field 1 site 1, Z one at wafer 2 field 4 site 2.
    auto lot = MakeStatsLot(shape, [](const PointAt& at) {
        Values v;
        v.fill(5.0);
        if (at.wafer == 1 && at.field == 1 && at.site == 1) v[0] = 500;
        if (at.wafer == 2 && at.field == 4 && at.site == 2) v[2] = -300;
        return v;
    });
    lot->PlotFeature(ePlotFeatureH);
    const Datam before = lot->GetDataMatrix();
    // 36 points a family: 20 bins, so the 5s sit up to 12.4 from the coarse
    // median; a range of 20 takes only the outliers.
    auto r = CullRangeSigma(*lot, 20, 0, true);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(r->rangeCount, 2);
    EXPECT_EQ(lot->PlotFeature(), ePlotFeatureH);  // restored
    EXPECT_EQ(r->detail(0, 1).str(), kAllFeatures);
    ASSERT_EQ(r->detail.rowUb(), 2);
    EXPECT_EQ(r->detail(1, 0).toLong(), 1);  // feature V
    EXPECT_EQ(r->detail(2, 0).toLong(), 3);  // feature Z
    EXPECT_EQ(r->detail(2, 1).toDouble(), -300);
    EXPECT_EQ(r->detail(2, 5).toLong(), 2);  // family of site 2
    // four features with data, two families each
    EXPECT_EQ(r->families.rowUb(), 8);
    EXPECT_EQ(lot->GetDataMatrix().rowUb(), before.rowUb() - 2);

    UncullEverything(*lot);
    EXPECT_TRUE(SameTable(lot->GetDataMatrix(), before));
}

TEST(CullRangeSigma, NoLivePoints) {
    ScopedCapture rep;
    auto lot = TwoFamilies();
    for (cWafer* w : lot->Wafers()) w->setCull(true);
    auto r = CullRangeSigma(*lot, 1, 1);
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.failure().tag, "cLot(CullRangeSigma): ");
    EXPECT_EQ(r.failure().text, "No data.");
    EXPECT_TRUE(rep.boxes.empty());
}

TEST(SigmaTest, LeavesTheLotAndCountsLikeTheCull) {
    ScopedCapture rep;
    LotShape shape;
    shape.families = 2;
    // Spread values so the limits cut at different places; one missing point.
    auto lot = MakeStatsLot(shape, [](const PointAt& at) {
        const int k = (at.wafer * 31 + at.field * 7 + at.site * 3) % 13;
        double v = (at.site % 2 ? 40.0 : 10.0) + 0.5 * k;
        if (at.wafer == 1 && at.field == 2 && at.site == 4) v = 70;
        if (at.wafer == 2 && at.field == 1 && at.site == 3) v = kMissingValue;
        return Only(v);
    });
    lot->PlotFeature(ePlotFeatureV);
    // Existing culls, which the analysis removes on its own clone.
    lot->Wafers().Item(1)->Fields().Item(1)->setCull(true);
    const Datam before = lot->GetDataMatrix();
    const long livesBefore = lot->TotalPoints();

    SigmaTestSetup setup;
    setup.rangeLimits = {1, 2.5, 4};
    setup.sigmaLimits = {3, 1, 0};
    auto r = SigmaTest(*lot, setup);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    EXPECT_TRUE(SameTable(lot->GetDataMatrix(), before));
    EXPECT_EQ(lot->TotalPoints(), livesBefore);
    EXPECT_EQ(r->title, " Data Distribution Analysis - CD (" + lot->GetPlotFeatureUnits() + ")");
    EXPECT_EQ(r->heading, "CD Data Distribution and Cull Analysis");
    EXPECT_EQ(r->distribution(0, 9).str(), "Cull%");
    auto statusAt = [&](const std::string& text) {
        for (size_t i = 0; i < rep.statuses.size(); ++i)
            if (rep.statuses[i] == text) return int(i);
        return -1;
    };
    const int removal = statusAt("Existing cull removal ...");
    const int second = statusAt("Analysis of family: DensePack #:2 of 2");
    const int graph = statusAt("Range-Cull Graph Setup...");
    EXPECT_GE(removal, 0);
    EXPECT_GT(statusAt("Analysis of family: IsoLine #:1 of 2"), removal);
    EXPECT_GT(second, removal);
    EXPECT_GT(graph, second);

    // The clone holds every point: 40 in family 1, 32 in family 2.
    ASSERT_EQ(r->families.rowUb(), 2);
    EXPECT_EQ(r->families(1, 3).toLong(), 40);
    EXPECT_EQ(r->families(2, 3).toLong(), 32);

    // Plain count over all points of the lot, with each family's median.
    std::map<long, double> median = {{1, r->families(1, 4).toDouble()}, {2, r->families(2, 4).toDouble()}};
    auto countWithin = [&](double limit) {
        long n = 0;
        for (cWafer* w : lot->Wafers())
            for (cField* f : w->Fields())
                for (cSite* s : f->sites())
                    for (cPoint* p : s->Points()) {
                        if (IsMissingTol(p->ValueV)) continue;
                        if (std::fabs(p->ValueV - median[s->Family()] * 1000) <= limit * 1000) ++n;
                    }
        return n;
    };
    for (int k = 0; k < 3; ++k)
        EXPECT_EQ(r->rangeSeries(k + 1, 2).toLong(), countWithin(setup.rangeLimits[size_t(k)]))
            << "limit " << setup.rangeLimits[size_t(k)];

    // Each row's count is what the cull takes from an uncull'd copy.
    for (int k = 0; k < 3; ++k) {
        auto copy = lot->clone(true);
        UncullEverything(*copy);
        copy->Recount();
        auto cull = CullRangeSigma(*copy, setup.rangeLimits[size_t(k)], setup.sigmaLimits[size_t(k)]);
        ASSERT_TRUE(cull.ok());
        std::map<long, long> byFamily;
        for (int i = 1; i <= cull->detail.rowUb(); ++i) ++byFamily[cull->detail(i, 5).toLong()];
        for (int i = 1; i <= r->distribution.rowUb(); ++i)
            if (r->distribution(i, 2).toDouble() == setup.rangeLimits[size_t(k)]) {
                const long fam = r->distribution(i, 0).toLong();
                EXPECT_EQ(r->distribution(i, 11).toLong(), byFamily[fam]) << "step " << k << " family " << fam;
            }
    }
    // the missing point is culled at every step of family 1
    EXPECT_GE(r->distribution(1, 11).toLong(), 1);

    // Default series: ten range steps up to the largest delta, where every
    // point with a value is in range, and 1..6 sigma.
    auto d = SigmaTest(*lot, SigmaTestSetup{});
    ASSERT_TRUE(d.ok());
    ASSERT_EQ(d->rangeSeries.rowUb(), 10);
    EXPECT_EQ(d->rangeSeries(10, 2).toLong(), 71);
    EXPECT_LT(d->rangeSeries(1, 2).toLong(), 71);
    ASSERT_EQ(d->sigmaSeries.rowUb(), 6);
    EXPECT_EQ(d->sigmaSeries(6, 1).toDouble(), 6);
    EXPECT_EQ(d->distribution.rowUb(), 2 * 10);
}

TEST(CullRangeSigma, LargeFamiliesTakeFiftyBins) {
    ScopedCapture rep;
    LotShape shape;
    shape.wafers = 2;
    shape.fieldsX = shape.fieldsY = 5;
    shape.sitesX = shape.sitesY = 10;  // 2 * 25 * 100 = 5,000 points, 1,250 a family
    shape.families = 4;
    auto lot = MakeStatsLot(shape, [](const PointAt& at) {
        Values v;
        for (int k = 0; k < 8; ++k) v[size_t(k)] = 10 * (k + 1) + ((at.site * 7 + at.field * 3 + k) % 17) * 0.1;
        if (at.field == 17 && at.site == 33) v[1] = 900;
        return v;
    });
    // Family 1 of V2 spans 20..900 in 50 bins (width 17.6): its median is the
    // first centre, 28.8, within 8.8 of every ordinary value.
    auto r = CullRangeSigma(*lot, 10, 3, true);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(r->pointsBefore, 5000);
    EXPECT_EQ(r->rangeCount, 2);  // the 900s, one per wafer
    EXPECT_EQ(r->sigmaCount, 0);
    bool sawStatus = false;
    for (const auto& t : rep.statuses) sawStatus = sawStatus || t == "Cull analysis point 100 of 5000";
    EXPECT_TRUE(sawStatus);
}
