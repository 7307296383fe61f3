// The chart of a selected area: points gathered from the rectangle, the radial
// zones and the polynomial of the radius against values made from a known law.
#include <gtest/gtest.h>

#include <cmath>

#include "graphics/chart.h"
#include "graphics/recording_surface.h"
#include "graphics/sub_data.h"
#include "lot/lot.h"
#include "numerics/matrix.h"
#include "workbook/store.h"

using namespace zorv;

namespace {

// Sites on rings of 10..90 mm (8 per ring), two families (1 on even spokes,
// 2 on odd), two repeats each; value (display units) = 5 + 0.001 r^2 for
// family 1 and 2 + 0.0005 r^2 for family 2, r in mm.
std::shared_ptr<cLot> RingLot() {
    auto lot = cLot::create();
    lot->LotName = "RING\r\n01";
    lot->WaferSize = 200000;
    lot->ValueV_Name = "CD";
    lot->DataSource(eDataSourceCDSEM);
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    cField* fld = w->AddField(0, 0, isNew, false);
    int key = 0;
    for (int ring = 1; ring <= 9; ++ring)
        for (int k = 0; k < 8; ++k) {
            const double r = ring * 10.0, a = k * M_PI / 4;
            Ref<cSite> s = cSite::New();
            s->setNumberKey(++key);
            s->setFamily(k % 2 + 1);
            s->setFamilyName(k % 2 ? "Dense" : "Iso");
            s->LocationXabs = float(r * 1000 * std::cos(a));
            s->LocationYabs = float(r * 1000 * std::sin(a));
            const double v = k % 2 ? 2 + 0.0005 * r * r : 5 + 0.001 * r * r;
            for (int rep = 0; rep < 2; ++rep) {
                auto p = std::make_unique<cPoint>();
                p->ValueV = float(v * 1000);
                cSite* site = s.get();
                if (rep == 0) fld->AddPoint(s, std::move(p));
                else site->AddPoint(std::move(p));
            }
        }
    lot->PlotFeature(1);
    return lot;
}

Datam Rect(double x1, double y1, double x2, double y2) {
    Datam d(4, 1, 1, 1);
    d(1, 1) = Value(x1), d(2, 1) = Value(y1), d(3, 1) = Value(x2), d(4, 1) = Value(y2);
    return d;
}

}  // namespace

TEST(PlotSubData, RadialZonesAndFitRecoverTheLaw) {
    auto lot = RingLot();
    RecordingSurface s(900, 600);
    cGraphic g;
    g.Container(&s);
    SubDataOptions o;
    o.fitOrder = 2;
    o.zones = {50, 100};
    SubDataResult r;
    ASSERT_TRUE(PlotSubData(g, *lot, Rect(100000, 100000, -100000, -100000), o, &r));
    EXPECT_EQ(r.points, 9 * 8 * 2);
    EXPECT_EQ(g.KeyName, "RadialPlot");
    EXPECT_EQ(g.Axes.Item("X")->Label, "Radial Position on Wafer(mm)");
    // The lot name's line break turned to a blank; the area in mm.
    EXPECT_EQ(g.TitleObj.TitleString.rfind("Selected data: RING  01 - Feature: CD Wafers:W1 Area Selected(X,Y)=(-100.0,-100.0) to (100.0,100.0)", 0), 0u);

    // Fit rows: family, offset and coefficients of the law.
    ASSERT_EQ(r.fit.rowUb(), 2);
    EXPECT_EQ(r.fit(0, 3).toString(), "Offset");
    EXPECT_EQ(r.fit(0, 5).toString(), "Coef_2");
    EXPECT_EQ(r.fit(0, 7).toString(), "Residuals(1s)");
    for (int f = 1; f <= 2; ++f) {
        const bool iso = r.fit(f, 2).toString() == "Iso";
        EXPECT_NEAR(r.fit(f, 3).toDouble(), iso ? 5 : 2, 1e-3);
        EXPECT_NEAR(r.fit(f, 4).toDouble(), 0, 1e-4);
        EXPECT_NEAR(r.fit(f, 5).toDouble(), iso ? 0.001 : 0.0005, 1e-6);
        EXPECT_NEAR(r.fit(f, 7).toDouble(), 0, 1e-3);
        EXPECT_EQ(r.fit(f, 9).toDouble(), 72);
    }
    // Zones of family Iso: r 10..50 (5 rings x 4 spokes x 2) and 60..90.
    // Mean of 5 + 0.001 r^2 over r = 10..50: 5 + 0.001 * 1100.
    ASSERT_EQ(r.zones.rowUb(), 4);
    int iso = r.zones(1, 2).toString() == "Iso" ? 1 : 3;
    EXPECT_EQ(r.zones(iso, 3).toDouble(), 50);
    EXPECT_EQ(r.zones(iso, 6).toDouble(), 40);
    EXPECT_NEAR(r.zones(iso, 4).toDouble(), 6.1, 1e-5);
    EXPECT_NEAR(r.zones(iso, 7).toDouble(), 7.5, 1e-5);
    EXPECT_NEAR(r.zones(iso, 8).toDouble(), 5.1, 1e-5);
    EXPECT_EQ(r.zones(iso + 1, 6).toDouble(), 32);
    // A point curve per family and a fit curve per family, labelled in R.
    ASSERT_EQ(g.Series.Count(), 4);
    ASSERT_EQ(r.equations.size(), 2u);
    EXPECT_EQ(r.equations[0].rfind("Fit_", 0), 0u);
    EXPECT_NE(r.equations[0].find("R^2"), std::string::npos);
    EXPECT_FALSE(s.of(RecordingSurface::Op::Polyline).empty());
}

TEST(PlotSubData, RowsStatisticsAndSubtraction) {
    auto lot = RingLot();
    cGraphic g;  // no container: set up, not drawn
    SubDataOptions o;
    o.kind = SubDataKind::Columns;
    o.statistic = "Mean";
    o.subtractMean = true;
    SubDataResult r;
    // The positive X axis strip: spokes at angle 0 only (family Iso).
    ASSERT_TRUE(PlotSubData(g, *lot, Rect(0, -1000, 100000, 1000), o, &r));
    EXPECT_EQ(g.KeyName, "RowPlot");
    EXPECT_EQ(g.Axes.Item("X")->Label, "Horizontal(Columns) Position on Wafer(mm)");
    EXPECT_NE(g.TitleObj.TitleString.find(" Curve MEAN Subtracted"), std::string::npos);
    // The two repeats collapse to one value per position.
    EXPECT_EQ(r.points, 9);
    ASSERT_EQ(r.data.rowUb(), 9);
    // Values less their mean (5 + 0.001 * 3166.67) at 10 mm and 90 mm.
    const double mean = 5 + 0.001 * (100 + 400 + 900 + 1600 + 2500 + 3600 + 4900 + 6400 + 8100) / 9.0;
    EXPECT_NEAR(r.data(1, 1).toDouble(), 10, 1e-4);
    EXPECT_NEAR(r.data(1, 2).toDouble(), 5.1 - mean, 1e-4);
    EXPECT_NEAR(r.data(9, 2).toDouble(), 13.1 - mean, 1e-4);
    EXPECT_FALSE(r.zones.isArray());
}

TEST(PlotSubData, EmptySelectionAndBadRectangle) {
    auto lot = RingLot();
    RecordingSurface s;
    cGraphic g;
    g.Container(&s);
    auto none = PlotSubData(g, *lot, Rect(1000, 1000, 2000, 2000), {});
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().text, "No data rows in selection.\r\nPlease re-display graphic and select the area again.");
    EXPECT_EQ(none.failure().tag, "Graphics(PlotSubData): ");
    EXPECT_TRUE(s.calls().empty());
    EXPECT_FALSE(PlotSubData(g, *lot, Datam(2, 1, 1, 1), {}));
}

TEST(PlotSubData, RadialSheetsWritten) {
    auto lot = RingLot();
    cGraphic g;
    SubDataResult r;
    SubDataOptions o;
    o.fitOrder = 1;
    ASSERT_TRUE(PlotSubData(g, *lot, Rect(-1e6, -1e6, 1e6, 1e6), o, &r));
    // No zones given and none set: quarters of the 100 mm radius.
    EXPECT_EQ(r.zones(1, 3).toDouble(), 25);
    WorkbookPtr wb = Workbook::create("radial.xlsx");
    ASSERT_TRUE(SaveRadialSheets(r, wb.get(), "CD"));
    Worksheet* zones = wb->sheet("RadialZones_CD");
    Worksheet* fit = wb->sheet("RadialFit_CD");
    ASSERT_TRUE(zones && fit);
    // The title above the table.
    bool titled = false;
    for (int row = 1; row <= 3; ++row) titled = titled || zones->cell(row, 1).toString() == "Radial Analysis of wafer zones. ";
    EXPECT_TRUE(titled);
}
