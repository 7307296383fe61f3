// Wafer aberration models: known tilts and bows, put on the sites' absolute
// wafer positions, come back in the report's units; the points get the model
// and its residual; the modelled-data table follows the points.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "../stats/stats_fixture.h"
#include "model/lot_fit.h"

namespace zorv {
namespace {

using testing::LotShape;
using testing::MakeStatsLot;
using testing::PointAt;
using testing::ScopedCapture;

// Die 20 x 30 mm; with these offsets the middle field of a 3 x 3 grid sits
// on the wafer centre, so a site's absolute position in mm is
// x = (a - 1) * pitchX + (dieX - 1) * 20, y = (b - 1) * pitchY + (dieY - 1) * 30.
constexpr float kDieXoffset = -30000, kDieYoffset = -45000;

struct Truth {
    double piston, tx, ty, bx, by;  // display unit per mm^k
    double at(double x, double y, double scale) const {
        return scale * (piston + tx * x + ty * y + bx * x * x + by * y * y);
    }
};
// V in micrometres, H in nanometres; wafer w carries w times the coefficients.
constexpr Truth kV{2.0, 0.05, -0.02, 1e-4, -2e-4};
constexpr Truth kH{30.0, 3.0, 1.5, 0.02, 0.05};

LotShape vectorShape() {
    LotShape s;
    s.wafers = 3;
    s.fieldsX = 3;
    s.fieldsY = 3;
    s.sitesX = 3;
    s.sitesY = 3;
    s.pitchX = 4000;
    s.pitchY = 5000;
    s.lineWidth = false;
    s.features = 3;
    return s;
}

double absX(const LotShape& s, const PointAt& p) { return (p.a - 1) * s.pitchX / 1000.0 + (p.dieX - 1) * 20.0; }
double absY(const LotShape& s, const PointAt& p) { return (p.b - 1) * s.pitchY / 1000.0 + (p.dieY - 1) * 30.0; }

// noise: a fixed pattern by site and field, in display units of V.
std::shared_ptr<cLot> MakeAberrationLot(double noise = 0) {
    const LotShape s = vectorShape();
    auto lot = MakeStatsLot(s, [&](const PointAt& p) {
        const double x = absX(s, p), y = absY(s, p);
        const double e = noise * (((p.site * 7 + p.field * 3) % 5) - 2);
        return std::array<double, 8>{kV.at(x, y, p.wafer) + e, kH.at(x, y, p.wafer) - 10 * e,
                                     kMissingValue, 0, 0, 0, 0, 0};
    });
    lot->DieXoffset = kDieXoffset;
    lot->DieYoffset = kDieYoffset;
    lot->CalcWaferPositions();
    lot->ValueV_Units = eUnitsMicron;
    lot->ValueH_units = eUnitsNm;
    lot->PlotFeature(ePlotFeatureVector);
    return lot;
}

std::vector<std::string> headers(const Datam& d) {
    std::vector<std::string> h;
    for (int c = d.colLb(); c <= d.colUb(); ++c) h.push_back(d(0, c).toString());
    return h;
}

int columnOf(const Datam& d, const std::string& head, int nth = 1) {
    for (int c = d.colLb(); c <= d.colUb(); ++c)
        if (d(0, c).toString() == head && --nth == 0) return c;
    return -1;
}

// ------------------------------------------------------------------ the report

TEST(TiltBow, ReportRecoversTiltAndBowInReportUnits) {
    ScopedCapture cap;
    auto lot = MakeAberrationLot();
    TiltBowSetup setup;  // bow only, 10 terms
    auto r = CalcWaferTiltBow(*lot, setup);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    const Datam& rep = r->report;

    EXPECT_EQ(headers(rep), (std::vector<std::string>{"Wafer", "Feature", "Piston(um)", "SE",
                                                      "Ry(X-Tilt)urad", "SE", "Rx(Y-Tilt)urad", "SE",
                                                      "BowX(nm/cm2)", "SE", "BowY(nm/cm2)", "SE",
                                                      "MSerror(um)"}));
    // Three wafers, V and H each; Z holds no data and has no row.
    ASSERT_EQ(rep.rowUb(), 6 + 3);
    // By hand. V in um: um/mm is 1000 urad, um/mm^2 is 1e5 nm/cm^2. H in nm:
    // nm/mm is 1 urad, nm/mm^2 is 100 nm/cm^2. Pistons stay in their unit.
    const double vExp[5] = {2.0, 50.0, -20.0, 10.0, -20.0};
    const double hExp[5] = {30.0, 3.0, 1.5, 2.0, 5.0};
    for (int w = 1; w <= 3; ++w) {
        for (int k = 0; k < 2; ++k) {
            const int row = 2 * (w - 1) + 1 + k;
            EXPECT_EQ(rep(row, 0).toString(), lot->Wafers().At(w)->WaferID);
            EXPECT_EQ(rep(row, 1).toString(), k == 0 ? "X" : "Y");
            const double* e = k == 0 ? vExp : hExp;
            for (int t = 0; t < 5; ++t) {
                const double got = rep(row, 2 + 2 * t).toDouble();
                EXPECT_NEAR(got, w * e[t], 1e-3 * std::fabs(w * e[t])) << "wafer " << w << " term " << t;
                EXPECT_LT(std::fabs(rep(row, 3 + 2 * t).toDouble()), 1e-3 * std::fabs(w * e[t]));
            }
            EXPECT_LT(rep(row, 12).toDouble(), 1e-6);  // an exact surface
        }
    }
    // Summary over the six rows: Ry is 50, 100, 150 (V) and 3, 6, 9 (H).
    EXPECT_EQ(rep(7, 0).toString(), "_Summary_");
    EXPECT_EQ(rep(8, 0).toString(), "Mean");
    EXPECT_EQ(rep(9, 0).toString(), "Maximum");
    EXPECT_NEAR(rep(8, 4).toDouble(), 318.0 / 6, 0.05);
    EXPECT_NEAR(rep(9, 4).toDouble(), 150.0, 0.15);
    // BowY: -20, -40, -60 and 5, 10, 15.
    EXPECT_NEAR(rep(8, 10).toDouble(), -15.0, 0.05);
    EXPECT_NEAR(rep(9, 10).toDouble(), 15.0, 0.02);

    // The parallel table keeps the fit's units (display unit per mm^k).
    const Datam& ct = r->coefficients;
    EXPECT_EQ(headers(ct), (std::vector<std::string>{"Wafer", "Term", "MSe", "CoefV", "CoefH", "CoefZ",
                                                     "SterV", "SterH", "SterZ"}));
    ASSERT_EQ(ct.rowUb(), 3 * 10);
    EXPECT_EQ(ct(2, 1).toString(), "TiltX");
    EXPECT_NEAR(ct(2, 3).toDouble(), 0.05, 1e-6);
    EXPECT_NEAR(ct(2, 4).toDouble(), 3.0, 1e-4);
    EXPECT_TRUE(ct(2, 5).isEmpty());
    EXPECT_EQ(ct(15, 1).toString(), "BowY");  // wafer 2, term 5
    EXPECT_NEAR(ct(15, 3).toDouble(), 2 * -2e-4, 1e-7);

    // The feature came back, and the status line named the wafers.
    EXPECT_EQ(lot->PlotFeature(), ePlotFeatureVector);
    EXPECT_NE(std::find(cap.statuses.begin(), cap.statuses.end(),
                        " Model setup for wafer: " + lot->Wafers().At(3)->WaferID),
              cap.statuses.end());
    EXPECT_NE(std::find(cap.statuses.begin(), cap.statuses.end(), "Wafer aberration model ..."),
              cap.statuses.end());
    EXPECT_TRUE(cap.boxes.empty()) << cap.joined();
}

TEST(TiltBow, ColumnsAndComponentsFollowTheSetup) {
    ScopedCapture cap;
    auto lot = MakeAberrationLot();
    TiltBowSetup setup;
    setup.bow = false;
    setup.trifoil = true;
    setup.pentode = true;
    auto r = CalcWaferTiltBow(*lot, setup);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    EXPECT_EQ(headers(r->report),
              (std::vector<std::string>{"Wafer", "Feature", "Piston(um)", "SE", "Ry(X-Tilt)urad", "SE",
                                        "Rx(Y-Tilt)urad", "SE", "TrifoilX(nm/cm3)", "SE",
                                        "TrifoilY(nm/cm3)", "SE", "PentodeX(nm/cm5)", "SE",
                                        "PentodeY(nm/cm5)", "SE", "Pentode(nm/cm5)", "SE",
                                        "MSerror(um)"}));
    // Bows are still fitted, only not shown: the tilts stay exact.
    EXPECT_NEAR(r->report(1, columnOf(r->report, "Ry(X-Tilt)urad")).toDouble(), 50.0, 0.05);
    EXPECT_NEAR(r->report(1, columnOf(r->report, "TrifoilX(nm/cm3)")).toDouble(), 0.0, 1e-2);

    // One feature alone: one component, H's rows only, in the H columns of
    // the parallel table; V gets no model; the feature comes back.
    cPoint* pt = lot->Wafers().At(1)->Fields().At(1)->sites().Item(1)->Points().Item(1);
    pt->ValueV_fit = pt->ValueH_fit = kMissingValue;
    lot->PlotFeature(ePlotFeatureH);
    setup = TiltBowSetup{};
    setup.bow = false;
    r = CalcWaferTiltBow(*lot, setup);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(headers(r->report),
              (std::vector<std::string>{"Wafer", "Feature", "Piston(um)", "SE", "Ry(X-Tilt)urad", "SE",
                                        "Rx(Y-Tilt)urad", "SE", "MSerror(um)"}));
    ASSERT_EQ(r->report.rowUb(), 3 + 3);
    EXPECT_EQ(r->report(3, 1).toString(), "Y");
    EXPECT_NEAR(r->report(3, 4).toDouble(), 9.0, 0.01);
    EXPECT_NEAR(r->coefficients(1, 4).toDouble(), 30.0, 1e-3);
    EXPECT_TRUE(r->coefficients(1, 3).isEmpty());
    EXPECT_EQ(lot->PlotFeature(), ePlotFeatureH);
    EXPECT_TRUE(IsMissing(pt->ValueV_fit));
    EXPECT_FALSE(IsMissing(pt->ValueH_fit));
}

// ------------------------------------------- the write-back and modelled data

// With a pattern of +-0.02 um on the surface the residuals are real: each
// point holds the model (the coefficient table's polynomial in the absolute
// x, y) and raw less model, and the residuals are orthogonal to the terms.
TEST(TiltBow, PointsGetModelAndResidualAsTheTableShows) {
    ScopedCapture cap;
    auto lot = MakeAberrationLot(0.01);
    lot->Wafers().At(3)->setCull(true);
    lot->Wafers().At(1)->Fields().At(2)->sites().Item(4)->setCull(true);
    TiltBowSetup setup;
    setup.terms = 5;  // piston, tilts, bows
    setup.rangeCull = 1e6;
    auto r = CalcWaferTiltBow(*lot, setup);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    const Datam& ct = r->coefficients;
    ASSERT_EQ(ct.rowUb(), 2 * 5);

    auto md = GetModeledData(*lot);
    ASSERT_TRUE(md.ok()) << md.failure().message();
    const Datam& d = *md;
    EXPECT_EQ(headers(d), (std::vector<std::string>{
                              "selSite", "GridLocX", "GridLocY", "FieldLocX", "FieldLocY", "ValueV",
                              "ValueH", "ValueZ", "ValueV_fit", "ValueH_fit", "ValueZ_fit", "ValueV_Res",
                              "ValueH_Res", "ValueZ_Res", "ValueAstig", "ValueAstig_Fit",
                              "ValueAstig_Res", "PosX", "PosY"}));
    ASSERT_EQ(d.rowUb(), 2 * 81 - 1);  // one culled site, one culled wafer
    const LotShape s = vectorShape();
    double sum[2] = {0, 0}, sumX[2] = {0, 0}, sumY2[2] = {0, 0};
    for (int i = 1; i <= d.rowUb(); ++i) {
        const int w = i <= 80 ? 1 : 2;  // the walk goes wafer by wafer
        PointAt at;
        const int site = d(i, 0).toLong();
        at.a = (site - 1) % 3;
        at.b = (site - 1) / 3;
        at.dieX = d(i, 1).toLong();
        at.dieY = d(i, 2).toLong();
        EXPECT_FALSE(w == 1 && at.dieX == 1 && at.dieY == 0 && site == 4) << "a culled site came out";
        const double x = absX(s, at), y = absY(s, at);
        EXPECT_NEAR(d(i, 3).toDouble(), (at.a - 1) * 4.0, 1e-9);
        EXPECT_NEAR(d(i, 4).toDouble(), (at.b - 1) * 5.0, 1e-9);
        EXPECT_NEAR(d(i, 17).toDouble(), x, 1e-4);
        EXPECT_NEAR(d(i, 18).toDouble(), y, 1e-4);
        EXPECT_NEAR(d(i, 5).toDouble(), kV.at(x, y, w), 0.021);
        EXPECT_NEAR(d(i, 6).toDouble(), kH.at(x, y, w), 0.21);
        const double t[5] = {1, x, y, x * x, y * y};
        double mv = 0, mh = 0;
        for (int k = 0; k < 5; ++k) {
            mv += ct(5 * (w - 1) + 1 + k, 3).toDouble() * t[k];
            mh += ct(5 * (w - 1) + 1 + k, 4).toDouble() * t[k];
        }
        EXPECT_NEAR(d(i, 8).toDouble(), mv, 1e-5);
        EXPECT_NEAR(d(i, 9).toDouble(), mh, 1e-4);
        EXPECT_NEAR(d(i, 8).toDouble() + d(i, 11).toDouble(), d(i, 5).toDouble(), 1e-5);
        EXPECT_NEAR(d(i, 9).toDouble() + d(i, 12).toDouble(), d(i, 6).toDouble(), 1e-4);
        for (int c : {7, 10, 13}) EXPECT_DOUBLE_EQ(d(i, c).toDouble(), double(kMissingValue));
        // Astigmatism is H less V.
        EXPECT_NEAR(d(i, 14).toDouble(), d(i, 6).toDouble() - d(i, 5).toDouble(), 1e-4);
        EXPECT_NEAR(d(i, 16).toDouble(), d(i, 12).toDouble() - d(i, 11).toDouble(), 1e-4);
        const double res = d(i, 11).toDouble();
        sum[w - 1] += res;
        sumX[w - 1] += res * x;
        sumY2[w - 1] += res * y * y;
    }
    for (int w = 0; w < 2; ++w) {
        EXPECT_NEAR(sum[w], 0, 1e-4);
        EXPECT_NEAR(sumX[w], 0, 1e-3);
        EXPECT_NEAR(sumY2[w], 0, 1e-1);
    }

    lot->Wafers().At(1)->setCull(true);
    lot->Wafers().At(2)->setCull(true);
    auto none = GetModeledData(*lot);
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(none.failure().tag, "GetModeledData: ");
}

TEST(TiltBow, CulledWafersAndPointsAreLeftOut) {
    ScopedCapture cap;
    auto lot = MakeAberrationLot();
    cWafer* w1 = lot->Wafers().At(1);
    cWafer* w2 = lot->Wafers().At(2);
    cWafer* w3 = lot->Wafers().At(3);
    w2->setCull(true);
    for (cField* f : w3->Fields()) f->setCull(true);  // no live point: skipped quietly
    // A wild point, culled: it neither spoils the fit nor gets a model.
    cPoint* wild = w1->Fields().At(5)->sites().Item(5)->Points().Item(1);
    wild->ValueV = 1e6f;
    wild->setCull(true);

    auto r = CalcWaferTiltBow(*lot, TiltBowSetup{});
    ASSERT_TRUE(r.ok()) << r.failure().message();
    const Datam& rep = r->report;
    ASSERT_EQ(rep.rowUb(), 2 + 3);
    EXPECT_EQ(rep(1, 0).toString(), w1->WaferID);
    EXPECT_EQ(rep(2, 0).toString(), w1->WaferID);
    EXPECT_EQ(rep(3, 0).toString(), "_Summary_");
    EXPECT_NEAR(rep(1, columnOf(rep, "Ry(X-Tilt)urad")).toDouble(), 50.0, 0.05);
    EXPECT_EQ(r->coefficients.rowUb(), 10);
    EXPECT_TRUE(IsMissing(wild->ValueV_fit));
    const cPoint* p2 = w2->Fields().At(1)->sites().Item(1)->Points().Item(1);
    EXPECT_TRUE(IsMissing(p2->ValueV_fit));
    EXPECT_TRUE(cap.boxes.empty()) << cap.joined();

    w1->setCull(true);
    auto none = CalcWaferTiltBow(*lot, TiltBowSetup{});
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(none.failure().tag, "cLot(CalcWaferTiltBow): ");
}

// ------------------------------------------------------------ small wafers

// Terms in use: the points less 2, at most those asked.
TEST(TiltBow, FewPointsLimitTheTerms) {
    ScopedCapture cap;
    LotShape s;
    s.wafers = 1;
    s.fieldsX = s.fieldsY = 1;
    s.sitesX = s.sitesY = 2;
    s.pitchX = 2000;
    s.pitchY = 1000;
    s.lineWidth = false;
    s.features = 3;
    // One field at the origin: x is 10 -+ 1 mm, y 15 -+ 0.5 mm.
    auto lot = MakeStatsLot(s, [&](const PointAt& p) {
        const double x = 10.0 + (p.a == 0 ? -1.0 : 1.0);
        return std::array<double, 8>{1.0 + 0.1 * x, 5.0, kMissingValue, 0, 0, 0, 0, 0};
    });
    lot->PlotFeature(ePlotFeatureV);
    auto fit = CalcTiltBow(*lot->Wafers().At(1), TiltBowSetup{});
    ASSERT_TRUE(fit.ok()) << fit.failure().message();
    EXPECT_EQ(fit->terms, 2);
    ASSERT_EQ(fit->coef.rowUb(), 2);
    EXPECT_EQ(fit->coef(2, 0).toString(), "TiltX");
    EXPECT_NEAR(fit->coef(1, 1).toDouble(), 1.0, 1e-5);
    EXPECT_NEAR(fit->coef(2, 1).toDouble(), 0.1, 1e-6);

    // Two points are too few for any model.
    lot->Wafers().At(1)->Fields().At(1)->sites().Item(1)->setCull(true);
    lot->Wafers().At(1)->Fields().At(1)->sites().Item(2)->setCull(true);
    auto few = CalcTiltBow(*lot->Wafers().At(1), TiltBowSetup{});
    ASSERT_FALSE(few.ok());
    EXPECT_EQ(few.failure().tag, "cWafer(CalcTiltBow): ");
    auto lotFew = CalcWaferTiltBow(*lot, TiltBowSetup{});
    ASSERT_FALSE(lotFew.ok());
    EXPECT_EQ(lotFew.failure().tag, "cWafer(CalcTiltBow): ");
    EXPECT_EQ(lot->PlotFeature(), ePlotFeatureV);
}

}  // namespace
}  // namespace zorv
