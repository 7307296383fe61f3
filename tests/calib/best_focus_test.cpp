// Field aberration models against fields whose focus is a known plane and
// bowl: the row, column and whole field models recover tilt (urad) and
// curvature (nm/cm2); the line windows, the short lines, the flat field, the
// divided angle; the template's best focus sets.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>

#include "calib/best_focus.h"
#include "calib/template_library.h"
#include "lot/lot.h"

namespace zorv {
namespace {

using Law = std::function<double(double x, double y)>;  // focus, um, at x, y mm

// One field per dose; sites on the grid `xs` x `ys` (mm); V and H carry the law.
std::shared_ptr<cLot> FocusLot(const std::vector<double>& xs, const std::vector<double>& ys, const Law& law,
                               std::vector<float> doses = {20}, double noise = 0) {
    auto lot = cLot::create();
    lot->LotName = "BF";
    std::mt19937 rng(3);
    std::normal_distribution<double> g(0, noise > 0 ? noise : 1);
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    int n = 0;
    for (float dose : doses) {
        cField* f = w->AddField(static_cast<float>(n++), 0, isNew);
        f->Dose = dose;
        int k = 0;
        for (double y : ys)
            for (double x : xs) {
                Ref<cSite> s = cSite::New();
                s->setNumberKey(++k);
                s->LocationX = static_cast<float>(x * 1000), s->LocationY = static_cast<float>(y * 1000);
                s->LocationR = static_cast<float>(std::hypot(x, y) * 1000);
                s->LocationTheta = static_cast<float>(std::atan2(y, x));
                s->setParent(f);
                f->sites().Add(s, std::to_string(k));
                auto p = std::make_unique<cPoint>();
                const double fo = law(x, y) + (noise > 0 ? noise * g(rng) : 0);
                p->ValueV = p->ValueH = p->ValueZ = static_cast<float>(1000 * fo);
                f->AddPoint(s, std::move(p));
            }
    }
    return lot;
}

const std::vector<double> kGrid = {-10, -5, 0, 5, 10};

TEST(FieldModels, RowsAndColumnsRecoverTiltAndCurvature) {
    // 2 urad along x, -3 urad along y, 40 nm/cm2 of bowl, 0.05 um piston.
    const Law law = [](double x, double y) { return 0.05 + 0.002 * x - 0.003 * y + 0.0004 * (x * x + y * y); };
    auto lot = FocusLot(kGrid, kGrid, law);
    const FieldPoints pts = GatherFieldPoints(*lot);
    ASSERT_EQ(pts.size(), 25u);
    const Datam rows = RowModels(pts), cols = ColumnModels(pts);
    EXPECT_EQ(rows(0, 1).toString(), "Row (mm)");
    EXPECT_EQ(rows(0, 8).toString(), "SEreisduals(um)");
    EXPECT_EQ(cols(0, 8).toString(), "SEresiduals(um)");
    ASSERT_EQ(rows.rowUb(), 5 + 4);
    for (int r = 1; r <= 5; ++r) {
        const double y = rows(r, 1).toDouble();
        EXPECT_NEAR(rows(r, 2).toDouble(), 0.05 - 0.003 * y + 0.0004 * y * y, 1e-4);  // the line's piston
        EXPECT_NEAR(rows(r, 4).toDouble(), 2, 1e-3);                                  // urad
        EXPECT_NEAR(rows(r, 6).toDouble(), 40, 1e-2);                                 // nm/cm2
        EXPECT_NEAR(cols(r, 4).toDouble(), -3, 1e-3);
        EXPECT_NEAR(cols(r, 6).toDouble(), 40, 1e-2);
    }
    EXPECT_EQ(rows(6, 0).toString(), "MEAN");
    EXPECT_NEAR(rows(6, 4).toDouble(), 2, 1e-3);
    EXPECT_EQ(rows(9, 0).toString(), "StdErr");
}

TEST(FieldModels, NoisyTiltLiesWithinThreeStandardErrors) {
    const Law law = [](double x, double) { return 0.002 * x + 0.0004 * x * x; };
    std::vector<double> xs;
    for (int i = -10; i <= 10; ++i) xs.push_back(i);
    auto lot = FocusLot(xs, {0}, law, {20}, 0.003);
    const Datam rows = RowModels(GatherFieldPoints(*lot));
    ASSERT_GE(rows.rowUb(), 1);
    EXPECT_LT(std::fabs(rows(1, 4).toDouble() - 2), 3 * rows(1, 5).toDouble());
    EXPECT_LT(std::fabs(rows(1, 6).toDouble() - 40), 3 * rows(1, 7).toDouble());
    EXPECT_GT(rows(1, 5).toDouble(), 0);
}

TEST(FieldModels, WindowsShortLinesFlatFieldAndTheDividedAngle) {
    // Sites at y = 0 (two), 0.5 and 3 (one each): the row at 0 takes the one
    // at 0.5 into its window and has three points; the row at 3 has one.
    const Law flat = [](double, double) { return 0.1; };
    auto lot = FocusLot({-1, 1}, {0}, flat);
    {
        cField* f = lot->Wafers().Item(1)->Fields().Item(1);
        auto add = [&](int key, double x, double y) {
            Ref<cSite> s = cSite::New();
            s->setNumberKey(key);
            s->LocationX = static_cast<float>(x * 1000), s->LocationY = static_cast<float>(y * 1000);
            s->setParent(f);
            f->sites().Add(s, std::to_string(key));
            auto p = std::make_unique<cPoint>();
            p->ValueV = p->ValueH = p->ValueZ = 100;
            f->AddPoint(s, std::move(p));
        };
        add(3, 0, 0.5);
        add(4, 2, 3);
    }
    const Datam rows = RowModels(GatherFieldPoints(*lot));
    ASSERT_GE(rows.rowUb(), 4);
    EXPECT_EQ(rows(1, 1).toDouble(), 0);    // y = 0, with the site at 0.5
    EXPECT_EQ(rows(2, 1).toDouble(), 0.5);  // y = 0.5, with those at 0
    EXPECT_EQ(rows(3, 0).toString(), "MEAN");  // no line at 3
    EXPECT_EQ(rows(1, 4).toDouble(), 0);    // a flat field: no tilt
    EXPECT_EQ(rows(1, 5).toDouble(), 0);    // and no error
    EXPECT_NEAR(rows(1, 2).toDouble(), 0.1, 1e-9);

    // The whole field model sees R cos(angle / 1000): a focus of exactly that
    // times 0.004 reads as 4 urad of X tilt, whatever the true angle.
    FieldPoints p;
    for (double x : kGrid)
        for (double y : kGrid) {
            const double r = std::round(std::hypot(x, y) * 100) / 100, a = std::round(std::atan2(y, x) / 1000 * 100) / 100;
            p.x.push_back(x), p.y.push_back(y), p.r.push_back(r), p.angle.push_back(a);
            const double f = 0.004 * r * std::cos(a) + 0.0002 * r * r;
            p.dX.push_back(f), p.dY.push_back(f), p.dZ.push_back(f), p.label.push_back("1");
        }
    const FocusModel m = WholeFieldModel(p, 2);
    ASSERT_TRUE(m.ok);
    EXPECT_NEAR(m.tiltX * 1000, 4, 1e-6);
    EXPECT_NEAR(m.curvature * 1e5, 20, 1e-6);
}

TEST(BestFocus, ModelsPerExposureSetIntoTheTemplate) {
    const Law bowl = [](double x, double y) { return -0.02 + 0.001 * x + 0.0003 * (x * x + y * y); };
    auto lot = FocusLot(kGrid, kGrid, bowl, {20, 22});
    auto r = CalcBFTiltCurvature(*lot);
    ASSERT_TRUE(r) << r.failure().text;
    ASSERT_EQ(r->sets.size(), 2u);
    const BestFocusSet& s = r->sets[1];
    EXPECT_EQ(s.exposure[0], 22);
    // The whole field sees R and R^2: the bowl's curvature and piston come back.
    ASSERT_TRUE(s.whole.ok);
    EXPECT_NEAR(s.whole.curvature * 1e5, 30, 0.5);
    EXPECT_EQ(r->sheet(1, 1).toString(), "CalculateBFFieldTiltCurvature");

    cTemplate t;
    ModelUpdate(t, *r);
    ASSERT_EQ(t.BestFocusSets.Count(), 2);
    const cBestFocus* bf = t.GetBestFocus(0, 0, 0, 22);
    ASSERT_NE(bf, nullptr);
    ASSERT_EQ(bf->CalRows.Count(), 5);
    EXPECT_NEAR(bf->CalRows.Item(1)->Tilt, 1, 1e-3);
    EXPECT_NEAR(bf->CalColumns.Item(1)->Curvature, 30, 1e-2);

    BestFocusSelection only22;
    only22.doses = {22};
    auto data = BestFocusModel(*lot, "BF", only22);
    ASSERT_TRUE(data) << data.failure().text;
    ASSERT_EQ(data->z.rowUb(), 1);
    EXPECT_EQ(data->z(1, 0).toString(), "Expo: 2");
    EXPECT_NEAR(data->z(1, 11).toDouble(), 30, 0.5);  // the bowl, nm/cm2
    EXPECT_EQ(data->sheet(1, 1).toString(), "Whole Field Calibration");
    const Datam pts = GetBFdata(*lot);
    EXPECT_EQ(pts.rowUb(), 50);
    EXPECT_EQ(pts(0, 1).toString(), "selsite");
    EXPECT_NEAR(pts(1, 4).toDouble(), bowl(-10, -10), 1e-6);

    auto few = FocusLot({0, 1}, {0}, bowl);
    auto bad = CalcBFTiltCurvature(*few);
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.failure().text, "There are insufficient sites in the calibration for a BestFocus Analysis.");
}

TEST(FieldAberrationsOfALot, PerFieldTablesByKey) {
    const Law law = [](double x, double y) { return 0.01 * x - 0.002 * y; };
    auto lot = FocusLot(kGrid, kGrid, law, {20, 20, 20});
    auto f = CalculateFieldTiltCurvature(*lot);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->rows(0, 1).toString(), "FieldKey");
    EXPECT_EQ(f->rows.rowUb(), 15);
    EXPECT_NEAR(f->rows(7, 5).toDouble(), 10, 1e-3);
    auto w = CalculateWholeFieldTiltCurvature(*lot);
    ASSERT_TRUE(w);
    EXPECT_EQ(w->z.rowUb(), 3);
    EXPECT_EQ(w->z(0, 10).toString(), "IFD residsuals(um)");
    auto s = CalculateASMLscanModel(*lot);
    ASSERT_TRUE(s);
    EXPECT_NEAR(s->slit(1, 4).toDouble(), 10, 1e-3);   // Ry along the slit
    EXPECT_NEAR(s->scan(1, 4).toDouble(), -2, 1e-3);   // Rx along the scan
    EXPECT_EQ(s->scan(0, 4).toString(), "Rx Tilt(urad)");
}

}  // namespace
}  // namespace zorv

namespace zorv {
namespace {

// Nine fields 26 x 33 mm apart whose focus is a wafer plane and bowl plus a
// field bowl: taking the wafer's piston, tilt and curvature off leaves each
// field its own bowl.
std::shared_ptr<cLot> NineFields() {
    auto lot = cLot::create();
    lot->LotName = "Conv";
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    auto focus = [](double X, double Y, double x, double y) {
        return 0.03 + 0.0005 * X - 0.0002 * Y + 0.00001 * (X * X + Y * Y) + 0.0004 * (x * x + y * y);
    };
    for (int fx = -1; fx <= 1; ++fx)
        for (int fy = -1; fy <= 1; ++fy) {
            cField* f = w->AddField(static_cast<float>(fx), static_cast<float>(fy), isNew, false);
            int k = 0;
            for (double y : kGrid)
                for (double x : kGrid) {
                    Ref<cSite> s = cSite::New();
                    s->setNumberKey(++k);
                    s->LocationX = static_cast<float>(x * 1000), s->LocationY = static_cast<float>(y * 1000);
                    s->LocationR = static_cast<float>(std::hypot(x, y) * 1000);
                    s->LocationTheta = static_cast<float>(std::atan2(y, x));
                    const double X = 26 * fx + x, Y = 33 * fy + y;
                    s->LocationXabs = static_cast<float>(X * 1000), s->LocationYabs = static_cast<float>(Y * 1000);
                    s->setParent(f);
                    f->sites().Add(s, std::to_string(k));
                    auto p = std::make_unique<cPoint>();
                    p->ValueV = p->ValueH = p->ValueZ = static_cast<float>(1000 * focus(X, Y, x, y));
                    f->AddPoint(s, std::move(p));
                }
        }
    return lot;
}

TEST(FocusAberrations, WaferComponentsOffThenFieldModels) {
    auto lot = NineFields();
    FocusAberrationControls c;
    c.waferModel = false;
    c.removeV = c.removeH = true;
    c.piston = c.tilt = true;
    auto r = ModelFocusAberrations(*lot, c);
    ASSERT_TRUE(r) << r.failure().text;
    EXPECT_EQ(r->description, "Data Removal, Data Model setup: Piston:  Vertical, Horiz,Tilt:  Vertical, Horiz,");
    ASSERT_EQ(r->meanModel.rowUb(), 10);
    EXPECT_EQ(r->meanModel(10, 0).toString(), "MEAN");
    // Each field keeps its own bowl (40 nm/cm2) on the wafer's, which the
    // plane fit leaves in place: 1 nm/cm2 more.
    for (int i = 1; i <= 9; ++i) EXPECT_NEAR(r->meanModel(i, 9).toDouble(), 41, 0.5) << i;
}

// With the wafer's and then each field's plane and bowl taken off, nothing of
// the law is left.
TEST(FocusAberrations, FocusDataWithEveryComponentRemoved) {
    auto lot = NineFields();
    const FocusComponents all{true, true, true, true, true};
    std::string d;
    const Datam t = GetFocusData(*lot, all, all, &d);
    EXPECT_EQ(d, "Wafer: Piston Tilt Curvature Field: Piston Tilt Curvature ");
    ASSERT_EQ(t.rowUb(), 9 * 25);
    for (int r = 1; r <= t.rowUb(); ++r) EXPECT_NEAR(t(r, 6).toDouble(), 0, 2e-3) << r;  // ValueV, stored nm
    std::string none;
    GetFocusData(*lot, {}, {}, &none);
    EXPECT_EQ(none, "Wafer: All but Piston. Field: All");
}

}  // namespace
}  // namespace zorv
