#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "common/capture_reporter.h"
#include "stats/cull.h"
#include "stats_fixture.h"

using namespace zorv;
using namespace zorv::testing;

namespace {

// CD is 10 + site key (11..19); Height 2; SWA 3; Pitch 4.
std::array<double, 8> ByKey(const PointAt& at) { return {10.0 + at.site, 2, 3, 4, 0, 0, 0, 0}; }

std::shared_ptr<cLot> DefaultLot() { return MakeStatsLot(LotShape{}, ByKey); }

// Cell by cell, type and content.
void ExpectSameTable(const Datam& a, const Datam& b) {
    ASSERT_EQ(a.rowLb(), b.rowLb());
    ASSERT_EQ(a.rowUb(), b.rowUb());
    ASSERT_EQ(a.colLb(), b.colLb());
    ASSERT_EQ(a.colUb(), b.colUb());
    for (int r = a.rowLb(); r <= a.rowUb(); ++r)
        for (int c = a.colLb(); c <= a.colUb(); ++c)
            ASSERT_TRUE(a(r, c).identical(b(r, c))) << "row " << r << " col " << c;
}

// The running counters agree with a fresh count of the tree.
long CheckedPoints(cLot& lot) {
    const long running = lot.TotalPoints();
    EXPECT_EQ(running, lot.TotalPoints(nullptr, true));
    return running;
}

// The 4 x 1 rectangle x1, y1, x2, y2 in rows 1..4 of column 1.
Datam Rect(double x1, double y1, double x2, double y2) {
    Datam d = Datam::vec(4);
    d(1, 1) = Value(x1);
    d(2, 1) = Value(y1);
    d(3, 1) = Value(x2);
    d(4, 1) = Value(y2);
    return d;
}

// A list of cells in column 1 from row 1 (row 0 a header).
Datam List(std::initializer_list<Value> cells) {
    Datam d(static_cast<int>(cells.size()), 1, 0, 0);
    d(0, 1) = Value("Site");
    int r = 0;
    for (const Value& v : cells) d(++r, 1) = v;
    return d;
}

// Focus and dose of field n (1..4) on every wafer.
void SetExposures(cLot& lot, const std::array<float, 4>& focus, const std::array<float, 4>& dose) {
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields()) {
            f->Focus = focus[f->Number - 1];
            f->Dose = dose[f->Number - 1];
        }
}

}  // namespace

// Site centres, mm on the wafer (default shape: die 20 x 30 mm, pitch 1 x 1.5
// mm, 3 x 3 sites): x = 10 + 20 i + (a - 1), y = 15 + 30 j + 1.5 (b - 1).
// The rectangle x 9.5..30.5, y 14..44 holds a = 1, 2 in column i = 0 and
// a = 0, 1 in i = 1 (2 each), b = 1, 2 in row j = 0 and b = 0 in j = 1: per
// wafer (2 + 2) x (2 + 1) = 12 sites, 24 in the lot.
TEST(CullData, RectangleCullsCountedSitesAndRestoreUndoes) {
    auto lot = DefaultLot();
    const Datam before = lot->GetDataMatrix(2, true, true);
    ScopedCapture cap;
    std::vector<CullChange> changed;
    ASSERT_TRUE(CullData(*lot, Rect(30.5, 44, 9.5, 14), false, &changed).ok());
    EXPECT_EQ(changed.size(), 24u);
    EXPECT_EQ(CheckedPoints(*lot), 72 - 24);
    EXPECT_EQ(cap.statusText(), " Cull data: (30.5,44) to (9.5,14)");
    // No live site is left inside.
    const Datam after = lot->GetDataMatrix(2);
    for (int r = 1; r <= after.rowUb(); ++r) {
        const double x = after(r, 4).toDouble(), y = after(r, 5).toDouble();
        EXPECT_FALSE(x >= 9.5 && x <= 30.5 && y >= 14 && y <= 44) << x << "," << y;
    }
    // The list names wafer, field and site of each change.
    EXPECT_EQ(changed[0].wafer, lot->Wafers().At(1)->KeyName);
    EXPECT_EQ(changed[0].field, lot->Wafers().At(1)->Fields().At(1)->NumberKey);

    changed.clear();
    ASSERT_TRUE(CullData(*lot, Rect(9.5, 14, 30.5, 44), true, &changed).ok());
    EXPECT_EQ(changed.size(), 24u);
    EXPECT_EQ(cap.statusText(), " Restore culled data: (9.5,14) to (30.5,44)");
    EXPECT_EQ(CheckedPoints(*lot), 72);
    ExpectSameTable(lot->GetDataMatrix(2, true, true), before);
}

TEST(CullData, OnlyAFourByOneTableIsARectangle) {
    auto lot = DefaultLot();
    const Datam before = lot->GetDataMatrix();
    ScopedCapture cap;
    for (const Datam& bad : {Datam(3, 1, 1, 1), Datam(4, 2, 1, 1), Datam(), Datam::array1(4, 1)}) {
        Status st = CullData(*lot, bad, false);
        ASSERT_FALSE(st.ok());
        EXPECT_EQ(st.failure().tag, "cLot(CullData): ");
        EXPECT_EQ(st.failure().text, "Input 'dRect' must be a (4,1) array rectangle.");
    }
    EXPECT_TRUE(cap.statuses.empty());
    EXPECT_TRUE(cap.boxes.empty());
    ExpectSameTable(lot->GetDataMatrix(), before);
    // Bounds from 0 are a (4,1) table too.
    Datam zeroBased(4, 1, 0, 0);
    zeroBased(3, 1) = Value(100.0);
    zeroBased(4, 1) = Value(100.0);
    ASSERT_TRUE(CullData(*lot, zeroBased, false).ok());
    EXPECT_EQ(CheckedPoints(*lot), 0);
}

TEST(CullSites, DottedNamesNumbersAndFourthCharacterRule) {
    auto lot = DefaultLot();
    // 1.2.5: one site; "2,1,9": one; Sit3 and 7: that key in all 8 fields.
    auto n = CullSites(*lot, List({Value("1.2.5"), Value("Sit3"), Value(7.0), Value("2,1,9")}));
    ASSERT_TRUE(n.ok());
    EXPECT_EQ(*n, 1 + 8 + 8 + 1);
    EXPECT_EQ(CheckedPoints(*lot), 72 - 18);
    EXPECT_TRUE(lot->Wafers().At(1)->Fields().At(2)->sites().Item("5")->cull());
    EXPECT_FALSE(lot->Wafers().At(2)->Fields().At(2)->sites().Item("5")->cull());
    EXPECT_TRUE(lot->Wafers().At(2)->Fields().At(1)->sites().Item("9")->cull());
    EXPECT_FALSE(lot->Wafers().At(1)->Fields().At(1)->sites().Item("9")->cull());

    // Already culled sites and culled fields are not counted again.
    lot->Wafers().At(1)->Fields().At(4)->setCull(true);
    auto again = CullSites(*lot, List({Value("Sit3"), Value("Abc4"), Value(""), Value("xy")}));
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(*again, 7);  // key 4 in the 7 live fields
}

TEST(CullPoints, CullAndRestoreByWaferSiteAndPointKey) {
    auto lot = DefaultLot();
    Datam t(2, 3, 0, 0);
    t(1, 1) = Value("1");  // wafer name "1" (stored under key W1)
    t(1, 2) = Value(4.0);
    t(1, 3) = Value("4");  // each site's point carries its site key
    t(2, 1) = Value("W2");
    t(2, 2) = Value(6.0);  // no point key: every point of the site
    auto n = CullPoints(*lot, t);
    ASSERT_TRUE(n.ok());
    EXPECT_EQ(*n, 4 + 4);  // each key once in every field of its wafer
    EXPECT_EQ(CheckedPoints(*lot), 64);

    auto r = CullPoints(*lot, t, true);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(*r, 8);
    EXPECT_EQ(CheckedPoints(*lot), 72);
}

// Hand count: distances from (20, 30) mm are |dx| in {9, 10, 11} and |dy| in
// {13.5, 15, 16.5} in every field. Beyond 18 mm (324 mm^2): 121 + 272.25,
// 121 + 225, 100 + 272.25, 100 + 225, 81 + 272.25, so 5 sites of 9 per field,
// 40 of 72 in the lot.
TEST(CullRadius, HandCountAndMessage) {
    auto lot = DefaultLot();
    std::string msg;
    auto n = CullRadius(*lot, 18, 20, 30, &msg);
    ASSERT_TRUE(n.ok());
    EXPECT_EQ(*n, 40);
    EXPECT_EQ(msg, "40 / 72.");
    EXPECT_EQ(CheckedPoints(*lot), 32);
    // A second pass finds nothing more; the total counts live sites only.
    auto again = CullRadius(*lot, 18, 20, 30, &msg);
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(msg, "0 / 32.");
    // The wafer form works in micrometres.
    lot = DefaultLot();
    EXPECT_EQ(CullRadius(*lot->Wafers().At(1), 18000, 20000, 30000), 20);
    EXPECT_EQ(CullRadius(*lot->Wafers().At(1), 0), 0);
}

TEST(CullVariable, UnknownNameTouchesNothingAndSaysNothing) {
    auto lot = DefaultLot();
    const Datam before = lot->GetDataMatrix(0, true, true);
    ScopedCapture cap;
    for (const char* name : {"", "NONE", "none", "Bogus", "Vector", "Astigmatism"}) {
        auto n = CullVariable(*lot, name, 0, 0);  // limits that would cull every point
        ASSERT_TRUE(n.ok());
        EXPECT_EQ(*n, 0) << name;
    }
    EXPECT_TRUE(cap.statuses.empty());
    EXPECT_TRUE(cap.boxes.empty());
    EXPECT_EQ(CheckedPoints(*lot), 72);
    ExpectSameTable(lot->GetDataMatrix(0, true, true), before);
}

TEST(CullVariable, LimitsInDisplayUnits) {
    auto lot = DefaultLot();
    // CD 11..19: above 17.5 are keys 8, 9, below 12.5 keys 1, 2.
    auto n = CullVariable(*lot, "cd", 17.5, 12.5);
    ASSERT_TRUE(n.ok());
    EXPECT_EQ(*n, 4 * 8);
    EXPECT_EQ(CheckedPoints(*lot), 72 - 32);
    // Limits equal to a value keep it.
    auto edge = CullVariable(*lot, "CD", 17, 13);
    ASSERT_TRUE(edge.ok());
    EXPECT_EQ(*edge, 0);
}

TEST(CullVariable, WaferSiteLotsWalkTheWaferView) {
    // MakeStatsLot's sites stand in the fields only: a wafer-site lot sees none.
    auto lot = DefaultLot();
    lot->PlotWaferSites = true;
    auto none = CullVariable(*lot, "CD", 0, 0);
    ASSERT_TRUE(none.ok());
    EXPECT_EQ(*none, 0);

    // Sites added through the wafer view are found.
    auto wl = cLot::create();
    wl->DataSource(eDataSourceCDSEM);
    wl->ValueV_Name = "Rs";
    wl->PlotWaferSites = true;
    bool isNew = false;
    cWafer* w = wl->AddWafer("1", isNew);
    for (int k = 1; k <= 5; ++k) {
        Ref<cSite> s = cSite::New();
        s->setNumberKey(k);
        s->LocationX = 1000.0f * k;
        auto p = std::make_unique<cPoint>();
        p->ValueV = 100.0f * k;  // 0.1 .. 0.5
        w->AddPoint(s, std::move(p));
    }
    auto n = CullVariable(*wl, "rs", 0.35, 0.15);
    ASSERT_TRUE(n.ok());
    EXPECT_EQ(*n, 3);  // 0.1, 0.4, 0.5
}

TEST(CullFeature, OtherFamiliesAndTheirUndo) {
    LotShape shape;
    shape.families = 3;  // sites 1..9 of a field: families 1 2 3 1 2 3 1 2 3
    auto lot = MakeStatsLot(shape, ByKey);
    const Datam before = lot->GetDataMatrix();
    Datam table;
    auto n = CullFeature(*lot, 2, &table);
    ASSERT_TRUE(n.ok());
    EXPECT_EQ(*n, 6 * 8);  // two wafers x four fields x six sites of families 1 and 3
    EXPECT_EQ(CheckedPoints(*lot), 3 * 8);
    lot->forEachLiveSite([](cWafer&, cField&, cSite& s) { EXPECT_EQ(s.Family(), 2); });
    ASSERT_EQ(table.rowUb(), 48);
    EXPECT_EQ(table(0, 1).str(), "WaferNumber");
    EXPECT_EQ(table(0, 2).str(), "FieldNumber");
    EXPECT_EQ(table(0, 3).str(), "SiteNumberKey");
    std::set<std::array<int, 3>> rows;
    for (int r = 1; r <= 48; ++r) {
        const int s = table(r, 3).toLong();
        EXPECT_NE((s - 1) % 3 + 1, 2);
        rows.insert({table(r, 1).toLong(), table(r, 2).toLong(), s});
    }
    EXPECT_EQ(rows.size(), 48u);
    EXPECT_TRUE(rows.count({2, 4, 9}));
    EXPECT_EQ(RestoreSites(*lot, table), 48);
    EXPECT_EQ(CheckedPoints(*lot), 72);
    const Datam after = lot->GetDataMatrix();
    ASSERT_EQ(after.rowUb(), before.rowUb());
    for (int r = 1; r <= after.rowUb(); ++r) EXPECT_EQ(after(r, 6).toDouble(), before(r, 6).toDouble());
}

// H = V + 0.5 + d with d = 0.05 at key 5, -0.03 at key 1, else 0: the mean
// astigmatism is 0.5 + 0.02 / 9, so keys 5 and 1 lie 0.0478 and 0.0322 from
// it, the rest 0.0022. Measured from 0 every point would be beyond.
TEST(CullAstigmatism, DistanceFromTheMeanOfAVectorLot) {
    LotShape shape;
    shape.lineWidth = false;
    auto make = [&] {
        return MakeStatsLot(shape, [](const PointAt& at) {
            const double d = at.site == 5 ? 0.05 : at.site == 1 ? -0.03 : 0.0;
            return std::array<double, 8>{1.0, 1.5 + d, 2.0, 0, 0, 0, 0, 0};
        });
    };
    auto lot = make();
    ScopedCapture cap;
    auto n = CullAstigmatism(*lot, 0.02);
    ASSERT_TRUE(n.ok());
    EXPECT_EQ(*n, 16);
    std::set<int> kept;
    lot->forEachLive([&](cWafer&, cField&, cSite& s, cPoint&) { kept.insert(s.NumberKey()); });
    EXPECT_EQ(kept, (std::set<int>{2, 3, 4, 6, 7, 8, 9}));
    EXPECT_EQ(cap.statusText(), "Astimatic points culled = 16");
    EXPECT_EQ(CheckedPoints(*lot), 56);

    lot = make();
    cap.clear();
    auto off = CullAstigmatism(*lot, 0);
    ASSERT_TRUE(off.ok());
    EXPECT_EQ(*off, 0);
    EXPECT_TRUE(cap.statuses.empty());
}

TEST(UpdatePWLotCulls, FocusAndDoseComparedAtThreeDecimals) {
    auto lot = DefaultLot();
    SetExposures(*lot, {0.1234f, 0.1231f, 0.2f, -0.1f}, {20, 21, 22, 20.0004f});
    ScopedCapture cap;

    CullSetup list;
    list.focusList = {0.123};
    list.allFocus = false;
    ASSERT_TRUE(UpdatePWLotCulls(*lot, list).ok());
    EXPECT_EQ(CheckedPoints(*lot), 2 * 2 * 9);  // fields 1 and 2 of both wafers

    // A fresh setup starts from a reset: the dose list keeps fields 1 and 4.
    CullSetup dose;
    dose.doseList = {20};
    dose.allDose = false;
    ASSERT_TRUE(UpdatePWLotCulls(*lot, dose).ok());
    EXPECT_EQ(CheckedPoints(*lot), 36);
    EXPECT_FALSE(lot->Wafers().At(1)->Fields().At(4)->cull());
    EXPECT_TRUE(lot->Wafers().At(1)->Fields().At(2)->cull());

    // A list with allFocus set is no list.
    list.allFocus = true;
    ASSERT_TRUE(UpdatePWLotCulls(*lot, list).ok());
    EXPECT_EQ(CheckedPoints(*lot), 72);

    // Limits round too: 0.1232 is 0.123, so 0.1231 is not below it; -0.1 is.
    CullSetup limits;
    limits.focusMin = 0.1232;
    limits.doseMax = 21.0004;  // 21.000: field 3 (22) goes
    ASSERT_TRUE(UpdatePWLotCulls(*lot, limits).ok());
    EXPECT_EQ(CheckedPoints(*lot), 2 * 2 * 9);
    EXPECT_FALSE(lot->Wafers().At(2)->Fields().At(2)->cull());
    EXPECT_TRUE(lot->Wafers().At(2)->Fields().At(3)->cull());
    EXPECT_TRUE(lot->Wafers().At(2)->Fields().At(4)->cull());
    EXPECT_TRUE(cap.statuses.empty());  // no data cull, no text
}

TEST(UpdatePWLotCulls, SitesThenDataCull) {
    auto lot = DefaultLot();
    ScopedCapture cap;
    CullSetup s;
    s.sites = List({Value("Sit1")});
    s.dataCullVariable = "CD";
    s.dataMax = 18.5;  // key 9
    auto r = UpdatePWLotCulls(*lot, s);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(*r, 1);
    EXPECT_EQ(cap.statusText(), "Cull: CD Points removed: 8");
    EXPECT_EQ(CheckedPoints(*lot), 72 - 8 - 8);
    // An unknown variable still reports its zero.
    s.dataCullVariable = "Bogus";
    ASSERT_TRUE(UpdatePWLotCulls(*lot, s).ok());
    EXPECT_EQ(cap.statusText(), "Cull: Bogus Points removed: 0");
}

TEST(UpdateLotCulls, ListsAndPanelTexts) {
    auto lot = DefaultLot();
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) f->Direction = f->Number <= 2 ? 0 : 2;
    LotCullSetup s;
    s.wafers = {"2"};
    s.exposures = {1, 3};
    s.na = 0.75;
    s.pcInner = 0.5;
    s.pcOuter = 0.8;
    auto st = UpdateLotCulls(*lot, s);
    ASSERT_TRUE(st.ok());
    EXPECT_EQ(st->wafer, "Waf:2");
    EXPECT_EQ(st->dose, "Exp:1,3");
    EXPECT_EQ(st->scan, "NA:0.75 PCi:0.5 PCo:0.8");
    EXPECT_EQ(st->pointsLeft, 18);
    EXPECT_TRUE(lot->Wafers().At(1)->cull());

    s.wafers = {"all"};
    s.exposures.clear();
    s.scans = {2};  // fields 3, 4
    auto all = UpdateLotCulls(*lot, s);
    ASSERT_TRUE(all.ok());
    EXPECT_EQ(all->wafer, "Waf:All");
    EXPECT_EQ(all->dose, "Exp:All");
    EXPECT_EQ(all->pointsLeft, 36);
    EXPECT_FALSE(lot->Wafers().At(1)->cull());
    EXPECT_EQ(CheckedPoints(*lot), 36);
}

// Every cull, then a reset, gives back the lot it started from.
TEST(ResetCulls, EveryCullIsReversible) {
    auto lot = MakeStatsLot(LotShape{}, [](const PointAt& at) {
        std::array<double, 8> v = ByKey(at);
        if (at.site == 2) v[1] = kMissingValue;
        return v;
    });
    SetExposures(*lot, {0.1f, 0.2f, 0.3f, 0.4f}, {20, 20, 21, 21});
    const Datam before = lot->GetDataMatrix(0, true, true);
    const long total = lot->TotalPoints();
    CullSetup pw;
    pw.focusMax = 0.25;
    pw.sites = List({Value("Sit4")});
    pw.dataCullVariable = "CD";
    pw.dataMin = 12.5;
    Datam pts(1, 3, 0, 0);
    pts(1, 1) = Value("1");
    pts(1, 2) = Value(5.0);
    const std::vector<std::pair<const char*, std::function<void()>>> culls = {
        {"CullData", [&] { ASSERT_TRUE(CullData(*lot, Rect(0, 0, 20, 20), false).ok()); }},
        {"CullSites", [&] { ASSERT_TRUE(CullSites(*lot, List({Value("1.1.1"), Value(3.0)})).ok()); }},
        {"CullPoints", [&] { ASSERT_TRUE(CullPoints(*lot, pts).ok()); }},
        {"CullRadius", [&] { ASSERT_TRUE(CullRadius(*lot, 18, 20, 30).ok()); }},
        {"CullVariable", [&] { ASSERT_TRUE(CullVariable(*lot, "CD", 15, 12).ok()); }},
        {"CullFeature", [&] { ASSERT_TRUE(CullFeature(*lot, 2).ok()); }},
        {"UpdatePWLotCulls", [&] { ASSERT_TRUE(UpdatePWLotCulls(*lot, pw).ok()); }},
        {"field", [&] { lot->Wafers().At(2)->Fields().At(1)->setCull(true); }},
    };
    ScopedCapture cap;
    for (const auto& [name, cull] : culls) {
        cull();
        ASSERT_LT(CheckedPoints(*lot), total) << name;
        EXPECT_GT(ResetCulls(*lot), 0) << name;
        EXPECT_EQ(CheckedPoints(*lot), total) << name;
        ExpectSameTable(lot->GetDataMatrix(0, true, true), before);
    }
    // Every cull at once, at every level; then a reset counts each flag.
    lot->Wafers().At(1)->setCull(true);
    lot->Wafers().At(2)->Fields().At(1)->setCull(true);
    // A point before its site: culling under a culled site is no cull's business.
    lot->Wafers().At(2)->Fields().At(2)->sites().Item("1")->Points().Item(1)->setCull(true);
    lot->Wafers().At(2)->Fields().At(2)->sites().Item("1")->setCull(true);
    lot->Wafers().At(2)->Fields().At(3)->sites().Item("1")->Points().Item(1)->setCull(true);
    EXPECT_EQ(CheckedPoints(*lot), 72 - 36 - 9 - 1 - 1);
    EXPECT_EQ(ResetCulls(*lot, CullLevels{false, false, false, true}), 2);
    EXPECT_EQ(CheckedPoints(*lot), 72 - 36 - 9 - 1);
    EXPECT_EQ(ResetCulls(*lot), 3);
    EXPECT_EQ(CheckedPoints(*lot), 72);
    EXPECT_EQ(ResetCulls(*lot), 0);
}

TEST(CullFieldRestore, RestoresFieldSitesAndPoints) {
    auto lot = DefaultLot();
    cField* f = lot->Wafers().At(1)->Fields().At(2);
    f->sites().Item("3")->Points().Item(1)->setCull(true);
    f->sites().Item("4")->Points().Item(1)->setCull(true);
    f->sites().Item("4")->setCull(true);
    f->setCull(true);
    EXPECT_EQ(CheckedPoints(*lot), 63);
    CullFieldRestore(*f);
    EXPECT_FALSE(f->cull());
    EXPECT_EQ(f->TotalPointsCount, 9);
    EXPECT_EQ(f->TotalSitesCount, 9);
    EXPECT_EQ(CheckedPoints(*lot), 72);
}
