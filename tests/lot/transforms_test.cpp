#include <gtest/gtest.h>

#include <cmath>

#include "lot/lot.h"
#include "lot_fixture.h"

using namespace zorv;
using zorv::testing::ScopedCapture;
using zorv::testing::MakeLot;

namespace {
cSite* site(cLot& lot, int w, int f, int s) { return lot.Wafers().At(w)->Fields().At(f)->sites().Item(s); }
cPoint* point(cLot& lot, int w, int f, int s) { return site(lot, w, f, s)->Points().Item(1); }
}  // namespace

TEST(Clone, IndependentTreeSharedReferencesCopiedTables) {
    auto lot = MakeLot(2, 2, 1, 2);
    lot->Container = std::make_shared<int>(1);
    lot->xlwb = std::make_shared<int>(2);
    lot->ReticleMEEF = 3.5f;
    auto c = lot->clone(false, false, "Copy");
    ASSERT_TRUE(c);
    EXPECT_NE(c.get(), lot.get());
    EXPECT_EQ(c->LotName, "Copy");
    EXPECT_EQ(c->ReticleMEEF, 3.5f);
    EXPECT_EQ(c->Container.get(), lot->Container.get());  // shared, not copied
    EXPECT_EQ(c->xlwb.get(), lot->xlwb.get());
    c->FamilyNames(0, 1) = Value("Other");
    EXPECT_EQ(lot->FamilyNames(0, 1).toString(), "Name");  // the table is a copy

    ASSERT_EQ(c->Wafers().Count(), 2);
    EXPECT_EQ(c->TotalPoints(), 16);
    EXPECT_EQ(c->Wafers().At(1)->KeyName, "W1");
    EXPECT_EQ(c->Wafers().At(2)->Fields().At(2)->NumberKey, "WW2F2");
    cPoint* cp = point(*c, 1, 1, 1);
    cPoint* sp = point(*lot, 1, 1, 1);
    EXPECT_NE(cp, sp);
    EXPECT_EQ(cp->ParentLot(), c.get());
    EXPECT_EQ(cp->parent()->ParentLot(), c.get());
    cp->ValueV = 123;
    cp->setCull(true);
    site(*c, 1, 1, 2)->LocationX = 77;
    EXPECT_EQ(sp->ValueV, 1000);
    EXPECT_FALSE(sp->cull());
    EXPECT_EQ(site(*lot, 1, 1, 2)->LocationX, 500);
    EXPECT_EQ(lot->TotalPoints(), 16);
    EXPECT_EQ(c->TotalPoints(), 15);

    // culled wafer: left out unless asked for
    lot->Wafers().At(2)->setCull(true);
    EXPECT_EQ(lot->clone()->Wafers().Count(), 1);
    EXPECT_EQ(lot->clone(true)->Wafers().Count(), 2);
    // culled points are not copied without keepCulled
    point(*lot, 1, 1, 1)->setCull(true);
    auto d = lot->clone();
    EXPECT_EQ(site(*d, 1, 1, 1)->Points().Count(), 0);
    EXPECT_EQ(lot->clone(true)->Wafers().At(1)->Fields().At(1)->sites().Item(1)->Points().Count(), 1);

    auto t = lot->clone(false, true);
    EXPECT_EQ(t->Wafers().Count(), 0);
    EXPECT_EQ(t->DieSizeY, 30000);
}

TEST(Clone, WaferSitesViewFollowsTheClone) {
    auto lot = cLot::create();
    bool isNew;
    cWafer* w = lot->AddWafer("A", isNew);
    for (int k = 1; k <= 3; ++k) {
        Ref<cSite> s = cSite::New();
        s->setNumberKey(k);
        s->LocationX = 1000.0f * k;
        w->AddPoint(s, std::make_unique<cPoint>());
    }
    auto c = lot->clone();
    cWafer* cw = c->Wafers().At(1);
    ASSERT_EQ(cw->SitesWafer().Count(), 3);
    for (int k = 1; k <= 3; ++k) {
        EXPECT_EQ(cw->SitesWafer().Item(k), cw->Fields().At(1)->sites().Item(k));
        EXPECT_NE(cw->SitesWafer().Item(k), w->SitesWafer().Item(k));
    }
}

TEST(Clone, EmptyLotsReport) {
    ScopedCapture rep;
    auto lot = cLot::create();
    EXPECT_EQ(lot->clone(), nullptr);
    EXPECT_TRUE(rep.saw("No wafers in lot."));
    bool isNew;
    lot->AddWafer("W1", isNew);
    EXPECT_EQ(lot->clone(), nullptr);
    EXPECT_TRUE(rep.saw("Total points in lot to be clones are < 1."));
    EXPECT_TRUE(rep.saw("cLot(clone): "));
}

TEST(Geometry, CalcWaferPositionsByHand) {
    auto lot = MakeLot(1, 1, 1, 1);
    lot->DieXarray = -1;
    lot->DieYarray = 0;
    lot->DieXoffset = 500;
    lot->DieYoffset = -300;
    lot->SiteXoffset = 100;
    lot->SiteYoffset = -50;
    cField* f = lot->Wafers().At(1)->Fields().At(1);
    f->LocationX = 40000;
    f->LocationY = 30000;
    cSite* s = f->sites().Item(1);
    s->LocationX = 1000;
    s->LocationY = 2000;
    lot->CalcWaferPositions();
    // hx 10000, hy 15000; gx -19500, gy -300; fx 20500, fy 29700
    EXPECT_FLOAT_EQ(f->LocationR, std::hypot(30500.0, 44700.0));
    EXPECT_FLOAT_EQ(f->LocationTheta, std::atan2(44700.0, 30500.0));
    EXPECT_FLOAT_EQ(s->LocationR, std::hypot(1100.0, 1950.0));
    EXPECT_FLOAT_EQ(s->LocationXabs, 31600);
    EXPECT_FLOAT_EQ(s->LocationYabs, 46650);
    EXPECT_FLOAT_EQ(s->LocationRabs, std::hypot(31600.0, 46650.0));
    EXPECT_FLOAT_EQ(s->LocationThetaAbs, std::atan2(46650.0, 31600.0));
    // a site in the third quadrant
    s->LocationX = -2000;
    s->LocationY = -1000;
    lot->SiteXoffset = lot->SiteYoffset = 0;
    lot->CalcWaferPositions();
    EXPECT_FLOAT_EQ(s->LocationTheta, std::atan2(-1000.0, -2000.0));
}

TEST(Geometry, RotateLotQuarterTurn) {
    auto lot = MakeLot(1, 2, 1, 3);
    EXPECT_EQ(lot->RotateLot(true, true, 0, 0).get(), lot.get());  // nothing to do: itself
    auto r = lot->RotateLot(true, true, kPi / 2, kPi / 2);
    ASSERT_TRUE(r);
    EXPECT_NE(r.get(), lot.get());
    cField* f = r->Wafers().At(1)->Fields().At(2);  // die (1, 0), location (20000, 0)
    EXPECT_EQ(f->DieX, 0);
    EXPECT_EQ(f->DieY, 1);
    EXPECT_NEAR(f->LocationX, 0, 1e-9 * 20000);
    EXPECT_FLOAT_EQ(f->LocationY, 20000);
    cSite* s = f->sites().Item(6);  // (1000, 0) -> (0, 1000)
    EXPECT_NEAR(s->LocationX, 0, 1e-3);
    EXPECT_FLOAT_EQ(s->LocationY, 1000);
    EXPECT_FLOAT_EQ(s->LocationYabs, 1000 + 20000 + 15000);
    EXPECT_EQ(lot->Wafers().At(1)->Fields().At(2)->DieX, 1);  // the source stays
    // only the sites
    auto q = lot->RotateLot(true, true, 0, kPi);
    EXPECT_EQ(q->Wafers().At(1)->Fields().At(2)->DieX, 1);
    EXPECT_FLOAT_EQ(q->Wafers().At(1)->Fields().At(2)->sites().Item(6)->LocationX, -1000);
}

TEST(Geometry, RotateSitesSwapsDieSizesOnceInTheOverlap) {
    auto lot = MakeLot(1, 2, 1, 1);
    lot->RotateSites(130);  // in both bands
    EXPECT_EQ(lot->DieSizeX, 30000);
    EXPECT_EQ(lot->DieSizeY, 20000);
    EXPECT_EQ(lot->CurrentRotation, 130);
    lot->RotateSites(130);  // no change
    EXPECT_EQ(lot->DieSizeX, 30000);
    lot->RotateSites(90);  // delta -40: no swap
    EXPECT_EQ(lot->DieSizeX, 30000);

    auto b = MakeLot(1, 2, 1, 3);
    b->RotateSites(90);
    EXPECT_EQ(b->DieSizeX, 30000);
    cField* f = b->Wafers().At(1)->Fields().At(2);
    EXPECT_NEAR(f->DieX, 0, 1e-6);
    EXPECT_FLOAT_EQ(f->DieY, 1);
    EXPECT_FLOAT_EQ(f->sites().Item(6)->LocationY, 1000);
    b->RotateSites(20);  // delta -70: swapped back, die indices turn too
    EXPECT_EQ(b->DieSizeX, 20000);
}

TEST(Geometry, MirrorFlip) {
    auto lot = MakeLot(1, 2, 1, 3);
    lot->Wafers().At(1)->Fields().At(1)->sites().Item(1)->LocationXabs = 12345;  // stale
    auto m = lot->MirrorFlip(false, false, false, false);
    ASSERT_TRUE(m);
    EXPECT_NE(m.get(), lot.get());  // always a clone
    EXPECT_FLOAT_EQ(site(*m, 1, 1, 1)->LocationXabs, -1000 + 10000);  // recomputed

    auto f = lot->MirrorFlip(true, false, false, true);
    cField* fld = f->Wafers().At(1)->Fields().At(2);
    EXPECT_EQ(fld->DieX, -1);
    EXPECT_EQ(fld->LocationX, -20000);
    cSite* s = fld->sites().Item(9);  // (1000, 1000)
    EXPECT_EQ(s->LocationX, 1000);
    EXPECT_EQ(s->LocationY, -1000);
    EXPECT_FLOAT_EQ(s->LocationXabs, 1000 - 20000 + 10000);
    EXPECT_FLOAT_EQ(s->LocationYabs, -1000 + 15000);
}

TEST(Geometry, MagnifyScalesTheCallerDieSizes) {
    auto lot = MakeLot(1, 2, 1, 3);
    EXPECT_EQ(lot->Magnify(true, true, 0, 0, 0, 0).get(), lot.get());
    auto m = lot->Magnify(true, true, 2, 1.5, 0.5, 3);
    ASSERT_TRUE(m);
    EXPECT_EQ(lot->DieSizeX, 30000);  // the lot it was called on
    EXPECT_EQ(lot->DieSizeY, 45000);
    EXPECT_EQ(m->DieSizeX, 20000);    // not the clone
    cField* f = m->Wafers().At(1)->Fields().At(2);
    EXPECT_EQ(f->LocationX, 40000);
    cSite* s = f->sites().Item(6);
    EXPECT_EQ(s->LocationX, 3000);
    cPoint* p = s->Points().Item(1);
    EXPECT_EQ(p->ValueV, 12000);  // value factor 1.5 + 0.5
    EXPECT_EQ(p->ValueZ, -999.9f);
    EXPECT_EQ(point(*lot, 1, 2, 6)->ValueV, 6000);
    EXPECT_FLOAT_EQ(s->LocationXabs, 3000 + 40000 + 10000);
}

TEST(Geometry, ReticleScaleWithDefaultsCopiesIntoFit) {
    auto lot = MakeLot(1, 1, 1, 2);
    lot->PlotFeature(0);
    lot->ReticleScale();
    cPoint* p = point(*lot, 1, 1, 3);
    EXPECT_EQ(p->ValueV_fit, p->ValueV);
    EXPECT_EQ(p->ValueH_fit, p->ValueH);
    EXPECT_EQ(p->ValueV, 3000);
    EXPECT_EQ(lot->PLotDataType, 1);
    EXPECT_EQ(lot->DieSizeX, 20000);  // rotation 0: no turn

    auto b = MakeLot(1, 1, 1, 2);
    b->PlotFeature(1);
    b->ReticleMagnification = 2;
    b->ReticleRotation = 0;
    b->ReticleScale();
    EXPECT_EQ(point(*b, 1, 1, 2)->ValueV_fit, 4000);
    EXPECT_EQ(point(*b, 1, 1, 2)->ValueH_fit, -999.9f);
}

namespace {
// V = key + wafer*10 + field (display units), H = -key.
std::shared_ptr<cLot> OffsetLot() {
    auto lot = MakeLot(2, 2, 1, 2);
    for (int w = 1; w <= 2; ++w)
        for (int f = 1; f <= 2; ++f)
            for (int s = 1; s <= 4; ++s) point(*lot, w, f, s)->ValueV += (w * 10 + f) * 1000.0f;
    return lot;
}
}  // namespace

TEST(Fields, CollapseRemoveAndPutBack) {
    ScopedCapture rep;
    auto lot = OffsetLot();
    auto col = lot->CollapseField();
    ASSERT_TRUE(col);
    EXPECT_EQ(col->LotName, "T_CollapsedField");
    ASSERT_EQ(col->Wafers().Count(), 1);
    cField* avg = col->Wafers().At(1)->Fields().At(1);
    ASSERT_EQ(avg->sites().Count(), 4);
    EXPECT_FLOAT_EQ(avg->sites().Item("3")->Points().Item(1)->ValueV, 3000 + 16500);
    EXPECT_FLOAT_EQ(avg->sites().Item("3")->Points().Item(1)->ValueH, -3000);
    EXPECT_EQ(avg->sites().Item("3")->Points().Item(1)->ValueZ, -999.9f);
    EXPECT_EQ(rep.statuses.back(), "Collapsed field completed...");

    auto rem = lot->RemoveFieldValue();
    ASSERT_TRUE(rem);
    EXPECT_FLOAT_EQ(point(*rem, 2, 1, 4)->ValueV, (21 - 16.5f) * 1000);
    EXPECT_FLOAT_EQ(point(*rem, 2, 1, 4)->ValueH, 0);
    EXPECT_EQ(point(*rem, 2, 1, 4)->ValueZ, -999.9f);  // missing stays missing
    EXPECT_FLOAT_EQ(point(*lot, 2, 1, 4)->ValueV, 25000);  // the source stays

    auto back = rem->PutFieldValue(avg);
    ASSERT_TRUE(back);
    EXPECT_FLOAT_EQ(point(*back, 2, 1, 4)->ValueV, 25000);
    EXPECT_FLOAT_EQ(point(*back, 1, 2, 1)->ValueH, -1000);

    std::shared_ptr<cLot> collapsed;
    Datam st = lot->CollapseSites(&collapsed);
    ASSERT_TRUE(collapsed);
    EXPECT_EQ(st(0, 1).toString(), "Feature");
    EXPECT_EQ(st(0, 10).toString(), "Res_Min");
    EXPECT_EQ(st(1, 1).toString(), "X");
    EXPECT_DOUBLE_EQ(st(1, 2).toDouble(), 19.0);
    EXPECT_DOUBLE_EQ(st(1, 3).toDouble(), 20.5);
    EXPECT_DOUBLE_EQ(st(1, 4).toDouble(), 17.5);
    EXPECT_TRUE(st(1, 5).isEmpty());  // nothing fitted
    EXPECT_EQ(rep.statuses.back(), "CollapseSites ...done ");
}

TEST(Fields, SubFieldAroundTheCentre) {
    auto lot = MakeLot(1, 1, 1, 3);
    auto all = lot->GetSubFieldLot();
    EXPECT_EQ(all->LotName, "SubField of T");
    EXPECT_EQ(all->TotalPoints(), 9);
    lot->SubWidth = 1000;
    auto sub = lot->GetSubFieldLot(-1, false, "Mid");
    ASSERT_TRUE(sub);
    EXPECT_EQ(sub->LotName, "Mid");
    EXPECT_EQ(sub->TotalPoints(), 3);  // the middle column: 2, 5, 8
    cField* f = sub->Wafers().At(1)->Fields().At(1);
    EXPECT_TRUE(f->SiteExists(5));
    EXPECT_FALSE(f->SiteExists(4));
}

TEST(Derived, ValuesResidualsAbcAndReticle) {
    ScopedCapture rep;
    auto lot = MakeLot(1, 1, 1, 2);
    auto plus = lot->AddValue2Lot(1.5, 1);
    EXPECT_EQ(point(*plus, 1, 1, 2)->ValueV, 3500);
    EXPECT_EQ(point(*lot, 1, 1, 2)->ValueV, 2000);
    EXPECT_EQ(point(*plus, 1, 1, 2)->ValueZ, -999.9f);
    EXPECT_EQ(lot->AddValue2Lot(1, 2, true).get(), lot.get());
    EXPECT_EQ(point(*lot, 1, 1, 2)->ValueH, -1000);

    point(*lot, 1, 1, 1)->ValueV_fit = 800;
    point(*lot, 1, 1, 1)->ValueV_Res = 200;
    auto res = lot->GetResidsLot();
    EXPECT_EQ(point(*res, 1, 1, 1)->ValueV, 200);
    EXPECT_EQ(point(*res, 1, 1, 1)->ValueV_Res, 0);

    point(*lot, 1, 1, 1)->ValueA = 7;
    lot->ValueA_Name = "Sidewall";
    auto abc = lot->GetValueABClot();
    EXPECT_EQ(point(*abc, 1, 1, 1)->ValueV, 7);
    EXPECT_EQ(abc->ValueV_Name, "Sidewall");

    EXPECT_EQ(lot->RemoveReticle(nullptr), nullptr);
    EXPECT_TRUE(rep.saw("Reticle Lot was not passed."));
    auto ret = MakeLot(1, 1, 1, 2);
    auto clean = lot->RemoveReticle(ret.get());
    ASSERT_TRUE(clean);
    EXPECT_FLOAT_EQ(point(*clean, 1, 1, 3)->ValueV, 0);
    EXPECT_FLOAT_EQ(point(*clean, 1, 1, 3)->ValueH, 1000);  // H was raised by 1 above
    EXPECT_FLOAT_EQ(point(*clean, 1, 1, 3)->ValueZ, 1000);  // the length follows
}
