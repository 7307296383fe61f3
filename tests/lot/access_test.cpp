#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "lot/lot.h"
#include "lot_fixture.h"

using namespace zorv;
using zorv::testing::ScopedCapture;
using zorv::testing::MakeLot;

namespace {

// One wafer, one single-point field per (focus, dose, V display value).
std::shared_ptr<cLot> FemLot(std::initializer_list<std::array<double, 3>> fields) {
    auto lot = cLot::create();
    lot->DataSource(eDataSourceCDSEM);
    lot->ValueV_Name = "CD";
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    int i = 0;
    for (const auto& f : fields) {
        cField* fld = w->AddField(float(i++), 0, isNew, false);
        fld->Focus = float(f[0]);
        fld->Dose = float(f[1]);
        Ref<cSite> s = cSite::New();
        s->setNumberKey(1);
        auto p = std::make_unique<cPoint>();
        p->ValueV = float(f[2] * 1000);
        fld->AddPoint(s, std::move(p));
    }
    return lot;
}

}  // namespace

TEST(GetFEMmatrix, HandWorkedSurface) {
    auto lot = FemLot({{0, 20, 1.0},
                       {0, 21, 2.0},
                       {0.1, 20, 3.5},
                       {0, 20.0004, 99},  // same pair as the first: the first field wins
                       {0.2, 20, 5.0},
                       {-0.1, 22, 0.5}});
    lot->PlotFeature(3);
    double mx = 0, mn = 0, step = 0;
    Datam table;
    Datam s = lot->GetFEMmatrix(1, mx, mn, step, table);
    EXPECT_EQ(lot->PlotFeature(), 3);  // put back
    EXPECT_DOUBLE_EQ(mx, 5.0);
    EXPECT_DOUBLE_EQ(mn, 0.5);
    EXPECT_DOUBLE_EQ(step, 0.5);

    ASSERT_EQ(table.rowUb(), 5);
    EXPECT_EQ(table(0, 0).toString(), "FieldID");
    EXPECT_EQ(table(0, 3).toString(), "CD");
    const char* expect[5][3] = {{"-0.1", "22", "0.5"}, {"0", "20", "1"}, {"0", "21", "2"}, {"0.1", "20", "3.5"}, {"0.2", "20", "5"}};
    for (int r = 1; r <= 5; ++r)
        for (int c = 1; c <= 3; ++c) {
            EXPECT_TRUE(table(r, c).isString());
            EXPECT_EQ(table(r, c).toString(), expect[r - 1][c - 1]) << r << "," << c;
        }

    ASSERT_EQ(s.rowUb(), 4);
    ASSERT_EQ(s.colUb(), 3);
    const double foci[] = {-0.1, 0, 0.1, 0.2};
    const double doses[] = {20, 21, 22};
    for (int i = 1; i <= 4; ++i) EXPECT_DOUBLE_EQ(s(i, 0).toDouble(), foci[i - 1]);
    for (int j = 1; j <= 3; ++j) EXPECT_DOUBLE_EQ(s(0, j).toDouble(), doses[j - 1]);
    // cells: focus row by dose column; no measurement, no value
    const double cells[4][3] = {{0, 0, 0.5}, {1, 2, 0}, {3.5, 0, 0}, {5, 0, 0}};
    for (int i = 1; i <= 4; ++i)
        for (int j = 1; j <= 3; ++j) {
            if (cells[i - 1][j - 1] == 0) EXPECT_TRUE(s(i, j).isEmpty()) << i << "," << j;
            else EXPECT_DOUBLE_EQ(s(i, j).toDouble(), cells[i - 1][j - 1]) << i << "," << j;
        }
}

TEST(GetFEMmatrix, SingleFocusHasOneRowAndCulledFieldsCount) {
    auto lot = FemLot({{0.05, 20, 1}, {0.05, 22, 2}});
    lot->Wafers().At(1)->Fields().At(2)->setCull(true);  // culled fields still take part
    double mx, mn, step;
    Datam table;
    Datam s = lot->GetFEMmatrix(1, mx, mn, step, table);
    ASSERT_EQ(s.rowUb(), 1);
    ASSERT_EQ(s.colUb(), 2);
    EXPECT_DOUBLE_EQ(s(1, 0).toDouble(), 0.05);
    EXPECT_DOUBLE_EQ(s(1, 2).toDouble(), 2);
}

TEST(Tables, GetDataColumnsValuesAndCulls) {
    ScopedCapture rep;
    auto lot = MakeLot(1, 1, 1, 2);
    Datam d = lot->GetData(true, false, true);
    ASSERT_TRUE(d.isArray());
    EXPECT_EQ(d.rowUb(), 4);
    EXPECT_EQ(d(0, 0).toString(), "RawData");
    EXPECT_EQ(d(0, 1).toString(), "Wafer");
    EXPECT_EQ(d(0, 5).toString(), "X");
    EXPECT_EQ(d(0, 8).toString(), "Family");  // not line-width data
    EXPECT_EQ(d(0, 9).toString(), "Focus");
    EXPECT_EQ(d(0, 14).toString(), "Scan");
    EXPECT_EQ(d(1, 1).toString(), "W1");
    EXPECT_EQ(d(3, 2).toLong(), 3);
    EXPECT_DOUBLE_EQ(d(3, 5).toDouble(), 3.0);   // stored / 1000
    EXPECT_DOUBLE_EQ(d(3, 6).toDouble(), -3.0);
    EXPECT_NEAR(d(3, 7).toDouble(), -999.9, 1e-4);  // the mark is kept, not scaled

    lot->Wafers().At(1)->Fields().At(1)->sites().Item(2)->setCull(true);
    lot->Wafers().At(1)->Fields().At(1)->sites().Item(3)->Points().Item(1)->setCull(true);
    d = lot->GetData();
    ASSERT_EQ(d.rowUb(), 2);
    EXPECT_EQ(d(1, 2).toLong(), 1);
    EXPECT_EQ(d(2, 2).toLong(), 4);
    EXPECT_EQ(lot->GetDataFull().rowUb(), 2);
    EXPECT_EQ(lot->GetDataMatrix().rowUb(), 2);
    long n = 0;
    std::string name;
    EXPECT_EQ(lot->GetPlotFeatureData(n, name).rowUb(), 2);
    EXPECT_EQ(n, 2);
    int walked = 0;
    lot->ForEAch([&](cWafer&, cField&, cSite&, cPoint&) { ++walked; });
    EXPECT_EQ(walked, 2);

    lot->DataSource(eDataSourceCDSEM);
    d = lot->GetData();
    EXPECT_EQ(d(0, 13).toString(), "Family");
    EXPECT_EQ(d(0, 8).toString(), "");  // Slope has no name here

    auto empty = cLot::create();
    bool isNew;
    empty->AddWafer("W1", isNew);
    EXPECT_FALSE(empty->GetData().isArray());
    EXPECT_TRUE(rep.saw("No data points in lot."));
}

TEST(Tables, GetDataMatrixColumnsAndLocations) {
    auto lot = MakeLot(1, 2, 1, 3);
    lot->PLotDataType = 1;
    Datam m = lot->GetDataMatrix(0, true, true);
    EXPECT_EQ(m(0, 0).toString(), "Fitted");
    EXPECT_EQ(m(0, 4).toString(), "Xloc (mm)");
    EXPECT_EQ(m(0, 6).toString(), "X");
    EXPECT_EQ(m(0, 8).toString(), "Length");
    EXPECT_EQ(m(0, 9).toString(), "Focus");  // 9 to 13 on a vector lot
    EXPECT_EQ(m(0, 13).toString(), "PCo");
    EXPECT_EQ(m(0, 14).toString(), "Family");
    EXPECT_EQ(m(0, 15).toString(), "Serial");
    EXPECT_EQ(m.colUb(), 15);
    EXPECT_EQ(lot->GetDataMatrix()(0, 9).toString(), "Family");
    ASSERT_EQ(m.rowUb(), 18);
    EXPECT_EQ(m(10, 2).toString(), "WW1F2");
    EXPECT_DOUBLE_EQ(m(1, 4).toDouble(), -1.0);  // site 1 at (-1000, -1000) um
    EXPECT_EQ(m(1, 15).toString(), "1001.1");
    EXPECT_NEAR(m(1, 6).toDouble(), -999.9, 1e-4);  // no fit yet

    lot->PLotDataType = 0;
    lot->DataSource(eDataSourceCDSEM);
    m = lot->GetDataMatrix(2, true);
    EXPECT_EQ(m(0, 0).toString(), "Raw Data");
    EXPECT_EQ(m(0, 4).toString(), "Xabsolute (mm)");
    EXPECT_EQ(m(0, 14).toString(), "Family");
    EXPECT_EQ(m(0, 15).toString(), "Focus");
    EXPECT_EQ(m(0, 19).toString(), "PCo");
    // field 2 at die column 1: x = -1000 + 20000 + 10000 (half die) um
    EXPECT_DOUBLE_EQ(m(10, 4).toDouble(), 29.0);
    m = lot->GetDataMatrix(1);
    EXPECT_EQ(m(0, 4).toString(), "Radius (mm)");
    EXPECT_NEAR(m(1, 4).toDouble(), std::sqrt(2.0), 1e-6);
}

TEST(Tables, GetDataFullArea) {
    auto lot = MakeLot(1, 1, 1, 3);
    // die size 20000 x 30000: site abs x = LocationX + 10000, y = LocationY + 15000
    Datam area = Datam::fromRows({{0, 0, 0, 0}, {10500, 0, 20000, 20000}}, 0, 1);
    Datam d = lot->GetDataFull(&area, true);
    ASSERT_EQ(d.rowUb(), 3);  // the right-hand column of sites
    EXPECT_EQ(d(0, 6).toString(), "Xabsolute (mm)");
    for (int r = 1; r <= 3; ++r) EXPECT_DOUBLE_EQ(d(r, 6).toDouble(), 11.0);
    Datam none = Datam::fromRows({{0, 0, 0, 0}, {0, 0, 0, 0}}, 0, 1);
    EXPECT_EQ(lot->GetDataFull(&none).rowUb(), 9);
}

TEST(Tables, UniqueExposuresInOrderOfAppearance) {
    auto lot = FemLot({{0.1, 21, 1}, {0, 20, 1}, {0.1, 21.0001, 1}, {0.2, 20, 1}});
    lot->Wafers().At(1)->Fields().At(4)->Dose = 30;
    lot->Wafers().At(1)->Fields().At(4)->setCull(true);
    long count = 0;
    Datam foci;
    Datam ex = lot->GetUniqueExposures(count, foci);
    EXPECT_EQ(count, 2);
    ASSERT_EQ(ex.rowUb(), 2);
    EXPECT_EQ(ex(0, 1).toString(), "Dose");
    EXPECT_EQ(ex(0, 4).toString(), "PCouter");
    EXPECT_DOUBLE_EQ(ex(1, 1).toDouble(), 21);
    EXPECT_DOUBLE_EQ(ex(2, 1).toDouble(), 20);
    ASSERT_EQ(foci.rowUb(), 2);
    EXPECT_EQ(foci(0, 1).toString(), "Focus");
    EXPECT_DOUBLE_EQ(foci(1, 1).toDouble(), 0.1);
    EXPECT_DOUBLE_EQ(foci(2, 1).toDouble(), 0.0);
}

TEST(Tables, CenterSiteAndLines) {
    auto lot = MakeLot(2, 2, 1, 3);
    Datam col, row;
    float mx = 0, my = 0;
    EXPECT_EQ(lot->GetCenterSite(col, row, true, mx, my), 5);
    EXPECT_EQ(mx, 20000);
    EXPECT_EQ(my, 30000);
    ASSERT_EQ(row.rowUb(), 3);
    ASSERT_EQ(col.rowUb(), 3);
    EXPECT_EQ(row(0, 1).toString(), "Site");
    EXPECT_EQ(row(1, 1).toLong(), 4);
    EXPECT_EQ(row(3, 1).toLong(), 6);
    EXPECT_EQ(col(1, 1).toLong(), 2);
    EXPECT_EQ(col(3, 1).toLong(), 8);
    // without centre lines: the distinct columns and rows of sites
    EXPECT_EQ(lot->GetCenterSite(col, row, false, mx, my), 5);
    EXPECT_EQ(row.rowUb(), 3);
    EXPECT_EQ(col.rowUb(), 3);
    EXPECT_EQ(col(2, 1).toLong(), 4);  // first site of the second row
    // sites all further out than DieSizeY: no centre
    lot->DieSizeY = 100;
    EXPECT_EQ(lot->GetCenterSite(col, row, true, mx, my), 5);  // site 5 is at R = 0
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) f->sites().Item(5)->setCull(true);
    EXPECT_EQ(lot->GetCenterSite(col, row, true, mx, my), -1);
}

TEST(Tables, PlotFeatureDataVectorAndScalar) {
    auto lot = MakeLot(1, 1, 1, 2);
    lot->PlotFeature(0);
    long n = 0;
    std::string name;
    Datam d = lot->GetPlotFeatureData(n, name);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(name, "Vector");
    EXPECT_EQ(d(0, 1).toString(), "Vector");
    EXPECT_EQ(d(0, 2).toString(), "Yreg");
    EXPECT_EQ(d(0, 3).toString(), "Mean");
    EXPECT_DOUBLE_EQ(d(2, 3).toDouble(), 2.0);  // Z falls back to V
    lot->PlotFeature(2);
    d = lot->GetPlotFeatureData(n, name);
    EXPECT_EQ(d.colUb(), 1);
    EXPECT_EQ(name, "Y");
    EXPECT_DOUBLE_EQ(d(4, 1).toDouble(), -4.0);
}

TEST(Tables, FieldSurfaceGrid) {
    auto lot = MakeLot(1, 1, 1, 2);
    lot->PlotFeature(1);
    cField* f = lot->Wafers().At(1)->Fields().At(1);
    f->sites().Item(4)->setCull(true);
    Datam g = lot->GetFieldSurface(f);
    ASSERT_EQ(g.rowUb(), 2);
    ASSERT_EQ(g.colUb(), 2);
    EXPECT_DOUBLE_EQ(g(0, 1).toDouble(), -0.5);
    EXPECT_DOUBLE_EQ(g(2, 0).toDouble(), 0.5);
    EXPECT_DOUBLE_EQ(g(1, 2).toDouble(), 2.0);
    EXPECT_TRUE(g(2, 2).isEmpty());
}

TEST(Tables, GetDataOnTheWaferSiteRoad) {
    auto lot = cLot::create();
    lot->DataSource(eDataSourceWaferSite);
    lot->ValueV_Name = std::string("T");
    lot->DieSizeX = lot->DieSizeY = 10000;
    bool isNew;
    cWafer* w = lot->AddWafer("1", isNew);
    const float xs[] = {-26000, 4000, 31000};
    for (int k = 1; k <= 3; ++k) {
        Ref<cSite> s = cSite::New();
        s->setNumberKey(k);
        s->LocationX = xs[k - 1];
        s->LocationY = 14000;
        w->SitesWafer().Add(s, std::to_string(k));
        auto p = std::make_unique<cPoint>();
        p->ValueV = 250.0f * k;
        w->AddPoint(s, std::move(p));
    }
    lot->CalcWaferPositions();  // abs = location + half a die
    w->SitesWafer().Item(2)->setCull(true);
    Datam d = lot->GetData(false, true);
    ASSERT_EQ(d.rowUb(), 2);
    EXPECT_EQ(d(1, 1).toString(), "W1");
    EXPECT_DOUBLE_EQ(d(1, 3).toDouble(), -2);  // -21000 / 10000 rounded
    EXPECT_DOUBLE_EQ(d(2, 3).toDouble(), 4);   // 36000 / 10000
    EXPECT_DOUBLE_EQ(d(2, 4).toDouble(), 2);   // 19000 / 10000
    EXPECT_DOUBLE_EQ(d(2, 5).toDouble(), 0.75);
    EXPECT_EQ(d(0, 13).toString(), "Family");  // scalar data
}
