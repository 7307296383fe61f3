// Culls are reversible: after any mix of culls and a reset, every table of
// the lot is the one it had before.
#include <gtest/gtest.h>

#include <string>

#include "stats/cull.h"
#include "stats/lot_stats.h"
#include "stats/precision.h"
#include "stats_fixture.h"

using namespace zorv;
using namespace zorv::testing;

namespace {

struct Tables {
    Datam matrix, precision, raw, ifd, feature, covariance;
};

Tables Take(cLot& lot) {
    Tables t;
    t.matrix = lot.GetDataMatrix();
    if (auto p = CalcPrecision(lot)) t.precision = *p;
    EXPECT_TRUE(CalcRawStats(lot, &t.raw));
    EXPECT_TRUE(CalcIFDstats(lot, &t.ifd));
    EXPECT_TRUE(CalcFeatureStats(lot, &t.feature));
    if (auto c = CoVariance(lot)) t.covariance = *c;
    return t;
}

void ExpectSame(const Datam& a, const Datam& b, const char* what) {
    ASSERT_EQ(a.rowUb(), b.rowUb()) << what;
    ASSERT_EQ(a.colUb(), b.colUb()) << what;
    for (int r = a.rowLb(); r <= a.rowUb(); ++r)
        for (int c = a.colLb(); c <= a.colUb(); ++c)
            ASSERT_EQ(a(r, c).toString(), b(r, c).toString()) << what << " at " << r << "," << c;
}

}  // namespace

TEST(Culls, ResetGivesBackEveryTable) {
    LotShape shape;
    shape.wafers = 3;
    shape.fieldsX = 3;
    shape.fieldsY = 3;
    shape.sitesX = shape.sitesY = 4;
    shape.features = 3;
    shape.families = 2;
    auto lot = MakeStatsLot(shape, [](const PointAt& p) {
        std::array<double, 8> v{};
        v[0] = 50 + 0.4 * p.wafer + 0.05 * p.field + 0.01 * p.site + (p.site == 7 && p.field == 5 ? 3 : 0);
        v[1] = p.site == 3 ? double(kMissingValue) : 100 - 0.2 * p.dieX + 0.1 * p.b;
        v[2] = 88 + 0.02 * p.a * p.b;
        return v;
    });
    CaptureReporter rep;
    SetReporter(&rep);
    const Tables before = Take(*lot);
    const long points = lot->TotalPoints();
    ASSERT_TRUE(before.precision.isArray());
    ASSERT_TRUE(before.covariance.isArray());
    ASSERT_EQ(lot->PlotFeature(), 0);

    lot->PlotFeature(1);
    auto rs = CullRangeSigma(*lot, 1.0, 2.5, true);
    ASSERT_TRUE(rs);
    EXPECT_GT(rs->rangeCount + rs->sigmaCount, 0);
    const Datam rect = Datam::fromRows({{-10.0}, {-10.0}, {5.0}, {5.0}}, 1, 1);
    ASSERT_TRUE(CullData(*lot, rect, false));
    ASSERT_TRUE(CullRadius(*lot, 30));
    ASSERT_TRUE(CullVariable(*lot, lot->valueZ_Name, 88.2, 0));
    ASSERT_LT(lot->TotalPoints(), points);

    ResetCulls(*lot);
    lot->PlotFeature(0);
    const Tables after = Take(*lot);
    SetReporter(nullptr);
    EXPECT_EQ(lot->TotalPoints(), points);
    ExpectSame(before.matrix, after.matrix, "lot matrix");
    ExpectSame(before.precision, after.precision, "precision");
    ExpectSame(before.raw, after.raw, "raw statistics");
    ExpectSame(before.ifd, after.ifd, "IFD statistics");
    ExpectSame(before.feature, after.feature, "feature statistics");
    ExpectSame(before.covariance, after.covariance, "covariance");
}
