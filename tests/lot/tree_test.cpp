#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lot/lot.h"
#include "lot_fixture.h"

using namespace zorv;
using zorv::testing::ScopedCapture;
using zorv::testing::MakeLot;

TEST(Point, NewPointIsMissingEverywhereAndVectorFallsBackToV) {
    cPoint p;
    for (int f = 1; f <= 9; ++f)
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(*p.FeatureSlot(f, k), -999.9f) << f << "," << k;
            EXPECT_TRUE(IsMissing(*p.FeatureSlot(f, k)));
            EXPECT_TRUE(IsMissingTol(*p.FeatureSlot(f, k)));
        }
    // the tolerant test accepts what the exact one refuses
    EXPECT_FALSE(IsMissing(-999.91f));
    EXPECT_TRUE(IsMissingTol(-999.91f));
    EXPECT_FALSE(IsMissingTol(-999.85f));

    p.ValueV = 42;
    float a = 0, b = 0, c = 0;
    EXPECT_EQ(p.GetPlotFeatureValue(a, b, c, 0, 0), 42.0f);
    EXPECT_EQ(a, 42.0f);
    EXPECT_EQ(c, 42.0f);
    EXPECT_EQ(b, -999.9f);
    // only H: Z falls back past the missing V to H
    cPoint q;
    q.ValueH = 7;
    EXPECT_EQ(q.GetPlotFeatureValue(a, b, c, 0, 0), 7.0f);
    // fitted data has no fallback
    EXPECT_EQ(p.GetPlotFeatureValue(a, b, c, 0, 1), -999.9f);
}

TEST(Counters, CullTwiceCountsOnceRestoreAndNeverBelowZero) {
    auto lot = MakeLot(1, 1, 1, 2);
    cField* f = lot->Wafers().At(1)->Fields().At(1);
    cSite* s = f->sites().Item(1);
    ASSERT_EQ(f->TotalPointsCount, 4);
    ASSERT_EQ(f->TotalSitesCount, 4);
    ASSERT_EQ(s->TotalPointsCount, 1);
    lot->SetModified(false);

    cPoint* p = s->Points().Item(1);
    p->setCull(true);
    p->setCull(true);
    EXPECT_EQ(s->TotalPointsCount, 0);
    EXPECT_EQ(f->TotalPointsCount, 3);
    EXPECT_TRUE(lot->Modified());
    EXPECT_EQ(lot->TotalPoints(), 3);
    p->setCull(false);
    p->setCull(false);
    EXPECT_EQ(s->TotalPointsCount, 1);
    EXPECT_EQ(f->TotalPointsCount, 4);

    // a site cull takes its points and itself off the field's counters once
    s->setCull(true);
    s->setCull(true);
    EXPECT_EQ(f->TotalPointsCount, 3);
    EXPECT_EQ(f->TotalSitesCount, 3);
    s->setCull(false);
    EXPECT_EQ(f->TotalPointsCount, 4);
    EXPECT_EQ(f->TotalSitesCount, 4);

    // counters at 0 stay at 0
    f->TotalPointsCount = 0;
    s->TotalPointsCount = 0;
    p->setCull(true);
    EXPECT_EQ(f->TotalPointsCount, 0);
    EXPECT_EQ(s->TotalPointsCount, 0);
    EXPECT_EQ(lot->TotalPoints(nullptr, true), 3);  // recount repairs them
    EXPECT_EQ(f->TotalPointsCount, 3);

    // a point without parent only changes its flag
    cPoint lone;
    lone.setCull(true);
    EXPECT_TRUE(lone.cull());

    long culled = 0;
    EXPECT_EQ(lot->TotalPoints(&culled), 3);
    EXPECT_EQ(culled, 1);
}

TEST(Keys, WaferFieldSiteAndPointIdentity) {
    auto lot = cLot::create();
    bool isNew = false;
    cWafer* w = lot->AddWafer("12", isNew);
    ASSERT_TRUE(isNew);
    EXPECT_EQ(w->KeyName, "W12");
    EXPECT_EQ(w->Number(), 1);
    EXPECT_EQ(lot->AddWafer("12", isNew), w);
    EXPECT_FALSE(isNew);
    cWafer* w2 = lot->AddWafer("", isNew);
    EXPECT_EQ(w2->Number(), 2);
    EXPECT_EQ(w2->WaferID, "2");
    EXPECT_EQ(lot->Wafers().Item("w12"), w);  // keys ignore case
    EXPECT_EQ(lot->Wafers().Item(99), w2);    // a number beyond the count gives the last

    cField* f = w->AddField(3, -2, isNew);
    EXPECT_EQ(f->NumberKey, "WW12F1");
    EXPECT_EQ(f->Number, 1);
    EXPECT_EQ(lot->DieXmin, 3);
    EXPECT_EQ(lot->DieYmax, -2);
    EXPECT_EQ(w->AddField(3.004f, -2.0f, isNew, true), f);  // two decimals
    EXPECT_FALSE(isNew);
    EXPECT_EQ(w->AddField(3.02f, -2.0f, isNew, true)->Number, 2);

    Ref<cSite> s = cSite::New();
    s->Number = 9;
    s->setNumberKey(5);
    s->setParent(f);
    EXPECT_EQ(s->SerialNumber(), "1001.5");  // from the key
    s->SetSerial();
    EXPECT_EQ(s->SerialNumber(), "1001.9");  // from the number
    EXPECT_EQ(s->WaferKey(), "W12");
    EXPECT_EQ(s->FieldKey(), "WW12F1");

    auto p1 = std::make_unique<cPoint>();
    cPoint* a = f->AddPoint(s, std::move(p1));
    cPoint* b = f->AddPoint(s, std::make_unique<cPoint>());
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->ParentLot(), lot.get());
    EXPECT_EQ(b->SerialNumber, a->SerialNumber + 1);
    EXPECT_EQ(a->Number(), 1);
    EXPECT_EQ(b->Number(), 2);
    EXPECT_EQ(s->Points().Count(), 2);
    EXPECT_EQ(lot->PointCounter(), 2);
}

TEST(Keys, DuplicatePointKeyIsRepaired) {
    Ref<cSite> s = cSite::New();
    auto p = std::make_unique<cPoint>();
    cPoint* a = s->AddPoint(std::move(p), "3");
    EXPECT_EQ(a->NumberKey(), "3");
    cPoint* b = s->AddPoint(std::make_unique<cPoint>(), "3");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->NumberKey(), "4");  // next free above the key and the count
    // a key not above the count becomes count + 1
    cPoint* c = s->AddPoint(std::make_unique<cPoint>(), "1");
    EXPECT_EQ(c->NumberKey(), "5");  // "3" ... "3"+1 taken: count + 1 = 3 is taken too
    EXPECT_EQ(s->Points().Count(), 3);
    EXPECT_EQ(s->GetPoint(Value("4")), b);
    EXPECT_EQ(s->GetPoint(Value(int32_t(2))), b);  // numeric miss goes by position
    EXPECT_EQ(s->GetPoint(Value("2")), nullptr);     // a text key is only a key

    zorv::Points pts;
    pts.Add(nullptr, "7");
    cPoint* d = pts.Add(nullptr, "7");
    EXPECT_EQ(d->NumberKey(), "8");
    cPoint* e = pts.Add(nullptr, "x");
    EXPECT_EQ(pts.Item("X"), e);
}

TEST(Lookup, FindSiteToleranceFamilyAndOrder) {
    cField f;
    Ref<cSite> a = cSite::New();
    a->LocationX = 1000;
    a->LocationY = -500;
    a->setNumberKey(11);
    a->setFamily(1);
    f.sites().Add(a, "11");
    int number = 0;
    EXPECT_EQ(f.FindSite(1000.09f, -500.09f, number), 1);
    EXPECT_EQ(number, 11);
    EXPECT_EQ(f.FindSite(1000.10f, -500.0f, number), -1);
    EXPECT_EQ(f.FindSite(1000.0f, -499.90f, number), -1);
    EXPECT_EQ(f.FindSite(1000.0f, -500.0f, number, 2), -1);  // other family
    EXPECT_EQ(f.FindSite(1000.0f, -500.0f, number, 1), 1);
    // the scan runs from the last site: a later site at the same place wins
    Ref<cSite> b = cSite::New();
    b->LocationX = 1000.05f;
    b->LocationY = -500;
    b->setNumberKey(12);
    b->setFamily(1);
    f.sites().Add(b, "12");
    EXPECT_EQ(f.FindSite(1000.0f, -500.0f, number), 2);
    EXPECT_EQ(number, 12);
}

TEST(Lookup, FieldPointJoinsSiteByPlaceAndSerial) {
    ScopedCapture rep;
    auto lot = MakeLot(1, 1, 1, 1);
    cField* f = lot->Wafers().At(1)->Fields().At(1);
    Ref<cSite> none;
    EXPECT_EQ(f->AddPoint(none, std::make_unique<cPoint>()), nullptr);
    EXPECT_TRUE(rep.saw("Site object was not valid."));
    EXPECT_TRUE(rep.saw("cField(AddPoint): "));

    // the site object itself again: the point joins it
    Ref<cSite> same = f->sites().ref(1);
    f->AddPoint(same, std::make_unique<cPoint>());
    EXPECT_EQ(f->sites().Count(), 1);
    EXPECT_EQ(f->sites().Item(1)->Points().Count(), 2);
    EXPECT_EQ(f->TotalPointsCount, 2);

    // a new object at another place with a key that is taken gets count + 1
    Ref<cSite> other = cSite::New();
    other->setNumberKey(1);
    other->LocationX = 5000;
    f->AddPoint(other, std::make_unique<cPoint>());
    EXPECT_EQ(f->sites().Count(), 2);
    EXPECT_EQ(other->NumberKey(), 2);
    EXPECT_EQ(f->sites().Item("2"), other.get());

    // when count + 1 is taken as well, the next free number: the site's key
    // and the key it is stored under stay one
    Ref<cSite> third = cSite::New();
    third->setNumberKey(3);
    third->LocationX = 9000;
    f->AddPoint(third, std::make_unique<cPoint>());  // keys 1, 2, 3
    Ref<cSite> fourth = cSite::New();
    fourth->setNumberKey(2);
    fourth->LocationX = 13000;
    f->sites().Remove(1);  // keys 2, 3: count + 1 = 3 is taken
    f->AddPoint(fourth, std::make_unique<cPoint>());
    EXPECT_EQ(fourth->NumberKey(), 4);
    EXPECT_EQ(f->sites().Item("4"), fourth.get());

    cWafer* w = lot->Wafers().At(1);
    for (int k : {2, 3}) {
        Ref<cSite> s = cSite::New();
        s->setNumberKey(k);
        s->LocationX = 1000.0f * k;
        w->AddPoint(s, std::make_unique<cPoint>());
    }
    Ref<cSite> clash = cSite::New();
    clash->setNumberKey(3);
    clash->LocationX = 50000;
    ASSERT_NE(w->AddPoint(clash, std::make_unique<cPoint>()), nullptr);
    EXPECT_EQ(clash->NumberKey(), 4);
    EXPECT_EQ(w->SitesWafer().Item("4"), clash.get());
}

TEST(Lookup, GetSiteExactAndByPosition) {
    cField f;
    for (int k : {5, 2, 9}) {
        Ref<cSite> s = cSite::New();
        s->setNumberKey(k);
        s->LocationX = k * 1000.0f;
        f.sites().Add(s);
    }
    bool exact = false;
    EXPECT_EQ(f.GetSite(2, exact)->NumberKey(), 2);  // second by position
    exact = false;
    EXPECT_EQ(f.GetSite(4, exact), nullptr);
    EXPECT_TRUE(exact);
    exact = true;
    EXPECT_EQ(f.GetSite(9, exact)->NumberKey(), 9);
    EXPECT_EQ(f.GetSite(2, exact)->NumberKey(), 2);  // position 2 holds key 2
    EXPECT_EQ(f.GetSite(0, exact)->NumberKey(), 5);
    EXPECT_EQ(f.GetSite(7, exact), nullptr);
    EXPECT_TRUE(f.SiteExists(9));
    EXPECT_FALSE(f.SiteExists(3));
}

TEST(Collections, FieldsItemSingleFieldAndKeyRules) {
    ScopedCapture rep;
    auto lot = cLot::create();
    bool isNew = false;
    cWafer* w = lot->AddWafer("A", isNew);
    cField* f = w->AddField(0, 0, isNew);
    EXPECT_EQ(w->Fields().Item(77), f);
    EXPECT_EQ(w->Fields().Item("nothing"), f);
    cField* g = w->AddField(1, 0, isNew);
    EXPECT_EQ(w->Fields().Item(2), g);
    EXPECT_EQ(w->Fields().Item("WAF2"), g);
    EXPECT_EQ(w->Fields().Item(Value()), f);  // empty index: first
    EXPECT_EQ(w->Fields().Item(3), nullptr);

    // a used key renumbers the stored clone
    cField* h = w->AddFieldObj(f, "WAF1");
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->NumberKey, "WAF3");
    EXPECT_EQ(h->Number, 3);
    EXPECT_NE(h, f);
    EXPECT_EQ(w->AddFieldObj(nullptr), nullptr);
    EXPECT_TRUE(rep.saw("Field object is empty"));

    // a whole number goes by Number, 1.5 by the key text
    EXPECT_EQ(lot->GetField(Value(2.0)), g);
    g->NumberKey = "1.5";
    EXPECT_EQ(lot->GetField(Value(1.5)), g);
    EXPECT_EQ(lot->GetField(Value("1.5")), g);
    g->setCull(true);
    EXPECT_EQ(lot->GetField(Value(1.5)), nullptr);  // culled fields are not found
}

TEST(Families, NamesDefaultsAndTotal) {
    auto lot = MakeLot(1, 1, 1, 1);
    cSite* s = lot->Wafers().At(1)->Fields().At(1)->sites().Item(1);
    s->setFamily(5);
    EXPECT_EQ(lot->FamilyTotal(), 5);  // raised by the site
    EXPECT_EQ(s->FamilyName(), "DensePack");
    EXPECT_EQ(s->Family(), 2);
    s->setFamily(0);
    EXPECT_EQ(s->FamilyName(), "DensePack");
    EXPECT_EQ(s->Family(), 2);
    s->setFamily(1);
    EXPECT_EQ(s->FamilyName(), "IsoLine");
    s->setFamily(3);
    EXPECT_EQ(s->FamilyName(), "Via");
    s->setFamily(-1);
    EXPECT_EQ(s->FamilyName(), "");
    s->setFamilyName("Trench");
    EXPECT_EQ(s->FamilyName(), "Trench");

    auto fresh = cLot::create();
    EXPECT_EQ(fresh->FamilyNames.rowUb(), 0);
    EXPECT_EQ(fresh->FamilyNames(0, 1).toString(), "Name");
    EXPECT_EQ(fresh->FamilyTotal(), 1);
}

TEST(Collections, WaferSitesAreTheFieldsSites) {
    auto lot = cLot::create();
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    for (int k = 1; k <= 12; ++k) {
        Ref<cSite> s = cSite::New();
        s->setNumberKey(k);
        s->LocationX = 1000.0f * k;
        w->SitesWafer().Add(s, std::to_string(k));
        auto p = std::make_unique<cPoint>();
        p->ValueV = float(k);
        w->AddPoint(s, std::move(p));
    }
    ASSERT_EQ(w->Fields().Count(), 1);  // made for the sites
    cField* f = w->Fields().At(1);
    EXPECT_EQ(w->SitesWafer().Count(), 12);
    EXPECT_EQ(f->sites().Count(), 12);
    EXPECT_EQ(w->SitesWafer().MaxSite, 12);
    for (int k = 1; k <= 12; ++k) {
        EXPECT_EQ(w->SitesWafer().Item(std::to_string(k)), f->sites().Item(std::to_string(k)));
        EXPECT_EQ(w->SitesWafer().Item(std::to_string(k))->Points().Count(), 1);
    }
    EXPECT_EQ(f->TotalPointsCount, 12);
    EXPECT_EQ(f->TotalSitesCount, 12);
    EXPECT_EQ(lot->TotalPoints(), 12);
    // wafer AddPoint without a site makes one
    Ref<cSite> none;
    w->AddPoint(none, std::make_unique<cPoint>());
    ASSERT_TRUE(none);
    EXPECT_EQ(none->NumberKey(), 13);
    EXPECT_EQ(lot->TotalPoints(), 13);
}

TEST(Lifecycle, KillReportsAndEmpties) {
    ScopedCapture rep;
    auto lot = MakeLot(2, 1, 1, 2);
    Ref<cSite> held = lot->Wafers().At(1)->Fields().At(1)->sites().ref(1);
    lot->Kill();
    EXPECT_EQ(lot->Wafers().Count(), 0);
    ASSERT_FALSE(rep.statuses.empty());
    EXPECT_EQ(rep.statuses.front(), "Remove Lot 'T' Wafer: 1 of 2");
    EXPECT_EQ(held->Points().Count(), 0);  // a held site is emptied, not freed
    EXPECT_EQ(held->parent(), nullptr);
    EXPECT_EQ(lot->TotalPoints(), 0);
    EXPECT_TRUE(rep.saw("No wafers in lot: T"));

    // one wafer: the lot line alone, once, then the clean-up lines appended to it
    ScopedCapture one;
    auto single = MakeLot(1, 1, 1, 1);
    single->Kill();
    ASSERT_EQ(one.statuses.size(), 3u);
    EXPECT_EQ(one.statuses[0], "Remove Lot 'T'");
    EXPECT_EQ(one.statuses[1], "Remove Lot 'T' ... Model cleanup");
    EXPECT_EQ(one.statuses[2], "Remove Lot 'T' ... Model cleanup ... Graphic links");
}

TEST(Collections, WafersAddAdoptsABuiltWafer) {
    auto lot = MakeLot(1, 1, 1, 1);
    auto other = MakeLot(1, 2, 1, 2);
    // move a wafer with its tree from one lot to another
    std::unique_ptr<cWafer> w = other->Wafers().Remove(1);
    w->WaferID = "X7";
    const int before = lot->PointCounter();
    cWafer* added = lot->Wafers().Add(std::move(w));
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(added->KeyName, "X7");
    EXPECT_EQ(added->parent(), lot.get());
    EXPECT_EQ(added->Fields().At(2)->NumberKey, "WX7F2");  // renamed after the key
    cPoint* p = added->Fields().At(2)->sites().Item(4)->Points().Item(1);
    EXPECT_EQ(p->ParentLot(), lot.get());
    EXPECT_EQ(lot->PointCounter(), before + 8);
    EXPECT_EQ(lot->TotalPoints(), 9);
    EXPECT_EQ(lot->Wafers().Add(std::make_unique<cWafer>(), "x7"), nullptr);  // the key is taken

    Datam out;
    EXPECT_EQ(lot->mFindWafer("x7", false, &out), 2);
    EXPECT_EQ(out.at(3).toString(), "X7");
    EXPECT_EQ(lot->mFindWafer("nope", true, &out), -1);
    EXPECT_EQ(out.at(1).toLong(), -1);
}

TEST(Lookup, PickingByWaferCoordinates) {
    auto lot = MakeLot(1, 1, 1, 3);
    lot->wcenx = 300;
    lot->wceny = 300;
    cField* f = lot->Wafers().At(1)->Fields().At(1);
    // site 6 at (1000, 0) in the field: wafer (11000, 15000) plus the centre
    EXPECT_EQ(f->mFindSite(11300, 15300, 20), 6);
    EXPECT_EQ(f->mFindSite(11300 + 15, 15300, 20), 6);  // wcenx/30 = 10 is below 20
    EXPECT_EQ(f->mFindSite(11300 + 15, 15300, 5), -1);
    EXPECT_EQ(f->mFindSite(11300 + 8, 15300, 5), 6);    // wcenx/30 = 10 is above 5
    f->sites().Item(6)->setCull(true);
    EXPECT_EQ(f->mFindSite(11300, 15300, 20), -1);
    f->sites().Item(6)->setCull(false);
    Datam hit = f->mFindPoint(11300, 15300, 20);
    EXPECT_EQ(hit.at(2).toLong(), 6);
    EXPECT_EQ(hit.at(3).toLong(), 1);
    EXPECT_TRUE(hit.at(4).toBool());
    EXPECT_EQ(hit.at(1).toString(), "WW1F1");
    // field coordinates are the second try, unless forbidden
    EXPECT_EQ(f->mFindPoint(0, 0, 1).at(2).toLong(), 5);
    EXPECT_FALSE(f->mFindPoint(0, 0, 1, true).at(4).toBool());
    EXPECT_FALSE(f->mFindPoint(99999, 99999, 1).at(4).toBool());
}

TEST(Lifecycle, FieldRemovedWhileWaferViewHoldsItsSites) {
    auto lot = cLot::create();
    bool isNew;
    cWafer* w = lot->AddWafer("A", isNew);
    Ref<cSite> s = cSite::New();
    s->setNumberKey(1);
    w->AddPoint(s, std::make_unique<cPoint>());
    ASSERT_EQ(s->parent(), w->Fields().At(1));
    w->Fields().Remove(1);
    EXPECT_EQ(s->parent(), nullptr);  // no dangling link
    EXPECT_EQ(w->SitesWafer().Item(1), s.get());
    EXPECT_EQ(s->WaferKey(), "");
}

TEST(Keys, KeyFormsAgree) {
    EXPECT_EQ(MakeKey("12").type(), VType::Long);
    EXPECT_EQ(MakeKey("012").type(), VType::String);  // not the canonical text of 12
    EXPECT_FALSE(KeyEqual(MakeKey("012"), MakeKey("12")));
    EXPECT_TRUE(KeyEqual(MakeKey("w1f2"), MakeKey("W1F2")));
    EXPECT_EQ(KeyHash(MakeKey("w1f2")), KeyHash(MakeKey("W1F2")));
    EXPECT_TRUE(KeyEqual(Value(2.0), MakeKey("2")));
    EXPECT_EQ(KeyHash(Value(2.0)), KeyHash(MakeKey("2")));
    EXPECT_EQ(KeyText(MakeKey(-7L)), "-7");
    // past the linear size the hashed index answers the same
    cField f;
    for (int k = 1; k <= 50; ++k) {
        Ref<cSite> s = cSite::New();
        s->setNumberKey(k * 3);
        f.sites().Add(s);
    }
    EXPECT_EQ(f.sites().Item("99")->NumberKey(), 99);
    EXPECT_EQ(f.sites().Item("98"), nullptr);
    f.sites().Remove(1);
    EXPECT_EQ(f.sites().Item("3"), nullptr);
    EXPECT_EQ(f.sites().Item("6")->NumberKey(), 6);
}

TEST(Lookup, PickingASiteWithNoPointUnderTheMouse) {
    auto lot = MakeLot(1, 1, 1, 3);
    lot->wcenx = 300;
    lot->wceny = 300;
    cField* f = lot->Wafers().At(1)->Fields().At(1);
    cSite* s = f->sites().Item(6);  // wafer (11000, 15000), plus the centre: (11300, 15300)
    Ref<cSite> ref(s);
    f->AddPoint(ref, std::make_unique<cPoint>());
    ASSERT_EQ(s->Points().Count(), 2);
    cPoint* first = s->Points().Item(1);
    cPoint* second = s->Points().Item(2);
    // tips 50 and 10 to the right of the site; the letter is 20 wide
    first->ValueH_Pixel = 50;
    second->ValueH_Pixel = 10;
    Datam hit = f->mFindPoint(11300, 15300, 20);
    EXPECT_EQ(hit.at(2).toLong(), 6);
    EXPECT_EQ(hit.at(3).toLong(), 2);  // the point whose tip is within reach
    EXPECT_TRUE(hit.at(4).toBool());

    // the site is hit, but no point of it is: the site is told, the point not
    second->setCull(true);
    Datam miss = f->mFindPoint(11300, 15300, 20);
    EXPECT_EQ(miss.at(1).toString(), "WW1F1");
    EXPECT_EQ(miss.at(2).toLong(), 6);
    EXPECT_EQ(miss.at(3).toLong(), -1);
    EXPECT_FALSE(miss.at(4).toBool());
}

TEST(Walk, ForEachLiveSkipsEveryCulledLevelAndStopsWhenAsked) {
    auto lot = MakeLot(2, 2, 1, 2);  // 2 wafers x 2 fields x 4 sites, one point each
    auto keys = [&] {
        std::vector<std::string> seen;
        lot->forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint&) {
            seen.push_back(w.KeyName + "/" + f.NumberKey + "/" + std::to_string(s.NumberKey()));
        });
        return seen;
    };
    EXPECT_EQ(keys().size(), 16u);
    lot->Wafers().At(2)->setCull(true);                                   // 8 left
    lot->Wafers().At(1)->Fields().At(2)->setCull(true);                   // 4 left
    lot->Wafers().At(1)->Fields().At(1)->sites().Item(1)->setCull(true);  // 3 left
    lot->Wafers().At(1)->Fields().At(1)->sites().Item(2)->Points().Item(1)->setCull(true);
    EXPECT_EQ(keys(), (std::vector<std::string>{"W1/WW1F1/3", "W1/WW1F1/4"}));

    lot->Wafers().At(2)->setCull(false);
    int visits = 0;
    EXPECT_FALSE(lot->forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { return ++visits < 3; }));
    EXPECT_EQ(visits, 3);
    visits = 0;
    EXPECT_TRUE(lot->forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { return ++visits > 0; }));
    EXPECT_EQ(visits, 2 + 8);
    int plain = 0;
    lot->ForEAch([&](cWafer&, cField&, cSite&, cPoint&) { ++plain; });
    EXPECT_EQ(plain, visits);
}
