#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "stats/raw_analysis.h"
#include "stats_fixture.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::testing;

namespace {

// 2 wafers of 2 x 2 fields of 3 x 3 sites. V = site + 10 field + 100 wafer,
// H = 2 site, Z = 0 (a vector lot; the import left no Z).
std::array<double, 8> Known(const PointAt& at) {
    return {double(at.site + 10 * at.field + 100 * at.wafer), 2.0 * at.site, 0, 0, 0, 0, 0, 0};
}

std::shared_ptr<cLot> VectorLot() {
    LotShape s;
    s.lineWidth = false;
    return MakeStatsLot(s, Known);
}

cPoint* PointOf(cLot& lot, int wafer, int field, int site) {
    cWafer* w = lot.Wafers().At(wafer);
    int n = 0;
    for (cField* f : w->Fields())
        if (++n == field)
            for (cSite* s : f->sites())
                if (s->NumberKey() == site) return s->Points().Item(1);
    return nullptr;
}

long LivePoints(const cLot& lot) {
    long n = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++n; });
    return n;
}

}  // namespace

TEST(RawAnalysis, MakeRawLotClearsCullsBelowWaferAndCopiesRaw) {
    auto lot = VectorLot();
    cWafer* w1 = lot->Wafers().At(1);
    cWafer* w2 = lot->Wafers().At(2);
    w2->setCull(true);
    cField* f = w1->Fields().At(2);
    f->setCull(true);
    f->Color = 5;
    cPoint* p = PointOf(*lot, 1, 1, 4);
    p->setCull(true);
    p->pColor = 7;
    p->parent()->Color = 3;

    MakeRawLot(*lot);
    EXPECT_FALSE(f->cull());
    EXPECT_EQ(f->Color, 0);
    EXPECT_FALSE(p->cull());
    EXPECT_EQ(p->pColor, 0);
    EXPECT_EQ(p->parent()->Color, 0);
    EXPECT_TRUE(w2->cull()) << "wafer culls are kept";
    EXPECT_EQ(LivePoints(*lot), 36);

    // Wafer 1, field 1, site 4: V = 114, H = 8; fitted Z = H - V; raw Z was 0.
    EXPECT_FLOAT_EQ(p->ValueV_fit, 114000);
    EXPECT_FLOAT_EQ(p->ValueH_fit, 8000);
    EXPECT_FLOAT_EQ(p->ValueZ_fit, 8000 - 114000);
    EXPECT_FLOAT_EQ(p->ValueZ, (114000 + 8000) / 2.0f);
}

TEST(RawAnalysis, LineWidthLotCopiesZ) {
    auto lot = MakeStatsLot(LotShape{}, [](const PointAt& at) {
        return std::array<double, 8>{1.0 * at.site, 2, 0, 4, 0, 0, 0, 0};
    });
    MakeRawLot(*lot);
    cPoint* p = PointOf(*lot, 2, 3, 5);
    EXPECT_FLOAT_EQ(p->ValueZ_fit, 0);
    EXPECT_FLOAT_EQ(p->ValueZ, 0) << "a line-width Z of 0 is a value";
    EXPECT_FLOAT_EQ(p->Slope_fit, 4000);
    EXPECT_FLOAT_EQ(p->ValueV_fit, 5000);
}

TEST(RawAnalysis, ComponentRemoval) {
    auto lot = VectorLot();
    MakeRawLot(*lot);
    // Mean over the 8 fields of site k: k + 10 * 2.5 + 100 * 1.5 = k + 175.
    RawComponents c;
    c.removeMeanField = true;
    ApplyRawComponents(*lot, c, ePlotFeatureV);
    EXPECT_FLOAT_EQ(PointOf(*lot, 1, 1, 4)->ValueV_fit, (114 - 179) * 1000.0f);
    EXPECT_FLOAT_EQ(PointOf(*lot, 2, 4, 9)->ValueV_fit, (249 - 184) * 1000.0f);
    EXPECT_NEAR(PointOf(*lot, 2, 4, 9)->ValueH_fit, 0, 1e-3) << "H is the same in every field";
    EXPECT_FLOAT_EQ(PointOf(*lot, 1, 1, 4)->ValueV, 114000) << "raw untouched";

    // Over wafer 2 alone: k + 25 + 200; wafer 1 keeps its values.
    ApplyRawComponents(*lot, c, ePlotFeatureV, lot->Wafers().At(2)->KeyName);
    EXPECT_FLOAT_EQ(PointOf(*lot, 2, 1, 4)->ValueV_fit, (214 - 229) * 1000.0f);
    EXPECT_FLOAT_EQ(PointOf(*lot, 1, 1, 4)->ValueV_fit, 114000);

    // A fixed value off V only; then off the vector (V and H).
    RawComponents v;
    v.removeValue = true;
    v.value = 1.5;
    ApplyRawComponents(*lot, v, ePlotFeatureV);
    EXPECT_FLOAT_EQ(PointOf(*lot, 1, 2, 1)->ValueV_fit, 121000 - 1500);
    EXPECT_FLOAT_EQ(PointOf(*lot, 1, 2, 1)->ValueH_fit, 2000);
    ApplyRawComponents(*lot, v, ePlotFeatureVector);
    EXPECT_FLOAT_EQ(PointOf(*lot, 1, 2, 1)->ValueH_fit, 500);
    // Both together: mean field first, then the value.
    c.removeValue = true;
    c.value = -2;
    ApplyRawComponents(*lot, c, ePlotFeatureV);
    EXPECT_FLOAT_EQ(PointOf(*lot, 1, 1, 4)->ValueV_fit, (114 - 179 + 2) * 1000.0f);
}

TEST(RawAnalysis, StatisticsOfTheSelection) {
    auto lot = VectorLot();
    MakeRawLot(*lot);
    const std::string w1 = lot->Wafers().At(1)->KeyName;
    // Wafer 1: V = k + 10 f + 100 over k 1..9, f 1..4 crossed. Population
    // variance 20/3 + 125; sample variance times 36/35.
    const RawStats s = RawFeatureStats(*lot, w1, ePlotFeatureV, eFitted);
    EXPECT_EQ(s.points, 36);
    EXPECT_NEAR(s.mean, 130, 1e-9);
    EXPECT_NEAR(s.sigma, std::sqrt((20.0 / 3 + 125) * 36 / 35), 1e-9);
    EXPECT_NEAR(s.min, 111, 1e-9);
    EXPECT_NEAR(s.max, 149, 1e-9);
    // The vector's length at wafer 1, field 1, site 3: sqrt(113^2 + 6^2).
    double len = 0;
    ASSERT_TRUE(RawPointValue(*PointOf(*lot, 1, 1, 3), ePlotFeatureVector, eFitted, len));
    EXPECT_NEAR(len / 1000, std::hypot(113.0, 6.0), 1e-3);
    EXPECT_EQ(RawFeatureStats(*lot, {}, ePlotFeatureV, eFitted).points, 72);
    EXPECT_EQ(RawFeatureStats(*lot, "nowafer", ePlotFeatureV, eFitted).points, 0);
}

TEST(RawAnalysis, TablesAndSheets) {
    auto lot = VectorLot();
    MakeRawLot(*lot);
    const Datam wt = WaferRawTable(*lot, {}, eFitted);
    EXPECT_EQ(wt.rowUb(), 72);
    EXPECT_EQ(wt(0, 4).toString(), "X (mm)");
    EXPECT_EQ(wt(0, 6).toString(), "X");  // the V feature's name

    const Datam ft = FieldRawTable(*lot, {}, eFitted);
    EXPECT_EQ(ft.rowUb(), 9);
    for (int r = 1; r <= 9; ++r) EXPECT_EQ(ft(r, 3).toDouble(), 8);

    // Grid: X -1, 0, 1 mm; Y 1.5, 0, -1.5 mm from the top. Top left is site 7
    // (column 0, row 2): mean V 7 + 175.
    const Datam ms = MeanSurfaceTable(*lot, {}, ePlotFeatureV, eFitted);
    ASSERT_EQ(ms.rowUb(), 3);
    ASSERT_EQ(ms.colUb(), 3);
    EXPECT_NEAR(ms(0, 1).toDouble(), -1, 1e-9);
    EXPECT_NEAR(ms(1, 0).toDouble(), 1.5, 1e-9);
    EXPECT_NEAR(ms(1, 1).toDouble(), 182, 1e-6);
    EXPECT_NEAR(ms(3, 3).toDouble(), 3 + 175, 1e-6);

    const Datam xy = XYSeriesTable(*lot, {}, ePlotFeatureV, eFitted, "All");
    EXPECT_EQ(xy(0, 1).toString(), "Horizontal postion(mm) on All");
    EXPECT_EQ(xy(0, 3).toString(), "Vertical position(mm) on All");
    EXPECT_EQ(xy.rowUb(), 72);

    auto m = MeanFieldLot(*lot, {}, eFitted);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->TotalPoints(), 9);
    EXPECT_EQ(m->Wafers().At(1)->Fields().At(1)->SiteCount(), 9);

    WorkbookPtr wb = Workbook::create("/nonexistent/raw.xlsx");
    ASSERT_TRUE(SaveRawAnalysisSheets(*lot, wb.get(), {}, ePlotFeatureV, eFitted).ok());
    for (const char* s : {"WaferRawData", "FieldRawData", "MeanSurface_X", "VertSeries", "HorizSeries", "MeanSeries"})
        EXPECT_NE(wb->sheet(std::string(s)), nullptr) << s;
    EXPECT_NE(wb->sheet(std::string("Index")), nullptr);
}

TEST(RawAnalysis, RectangleCulls) {
    auto lot = VectorLot();
    MakeRawLot(*lot);
    const std::string w1 = lot->Wafers().At(1)->KeyName;
    // The middle column of sites (x = 0) in every field: 3 sites x 8 fields.
    auto r = CullFieldRect(*lot, -0.5, -2, 0.5, 2, false);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(*r, 24);
    EXPECT_EQ(LivePoints(*lot), 48);
    r = CullFieldRect(*lot, -0.5, -2, 0.5, 2, true, w1);
    EXPECT_EQ(*r, 12) << "restored on wafer 1 alone";
    EXPECT_EQ(LivePoints(*lot), 60);

    MakeRawLot(*lot);
    // A rectangle over the whole wafer, limited to wafer 1.
    r = CullWaferRect(*lot, -1000, -1000, 1000, 1000, false, w1);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(*r, 36);
    EXPECT_FALSE(lot->Wafers().At(2)->cull()) << "the other wafer is live again";
    EXPECT_EQ(LivePoints(*lot), 36);
    EXPECT_EQ(RawFeatureStats(*lot, w1, ePlotFeatureV, eFitted).points, 0);

    MakeRawLot(*lot);
    EXPECT_EQ(CullWaferSites(*lot, lot->Wafers().At(2)->KeyName), 36);
    EXPECT_EQ(LivePoints(*lot), 36);
}
