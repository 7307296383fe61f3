// The PSFM calibration against lots whose image shift is a known polynomial
// of focus, and the polynomial inverse against a root found by bisection.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>

#include "base/format.h"
#include "calib/best_focus.h"
#include "calib/calibrate.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "numerics/equation.h"
#include "numerics/matrix.h"

namespace zorv {
namespace {

// The site's response in nm at focus F (um).
struct Truth {
    double off, slope, c2 = 0, c3 = 0;
    double at(double f) const { return off + slope * f + c2 * f * f + c3 * f * f * f; }
};

struct LotPlan {
    std::vector<double> focus = {-0.3, -0.24, -0.18, -0.12, -0.06, 0, 0.06, 0.12, 0.18, 0.24, 0.3};
    std::vector<double> doses = {20};
    int sites = 4;
    double noise = 0;  // nm
    std::function<Truth(int site, bool x)> truth = [](int site, bool x) {
        return x ? Truth{2.0 + site, 150.0 + 3 * site} : Truth{-1.5 - site, 140.0 - 2 * site};
    };
};

std::shared_ptr<cLot> MakeLot(const LotPlan& plan) {
    auto lot = cLot::create();
    lot->LotName = "PSFM";
    std::mt19937 rng(7);
    std::normal_distribution<double> g(0, 1);
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    int col = 0;
    for (double dose : plan.doses)
        for (double f : plan.focus) {
            cField* field = w->AddField(static_cast<float>(col++), 0, isNew);
            field->Focus = static_cast<float>(f);
            field->Dose = static_cast<float>(dose);
            field->NA = 0.75f;
            for (int s = 1; s <= plan.sites; ++s) {
                Ref<cSite> site = cSite::New();
                site->setNumberKey(s);
                site->LocationX = static_cast<float>(1000 * s);
                site->LocationY = static_cast<float>(-500 * s);
                site->setParent(field);
                field->sites().Add(site, std::to_string(s));
                auto p = std::make_unique<cPoint>();
                p->ValueV = static_cast<float>(plan.truth(s, true).at(f) + plan.noise * g(rng));
                p->ValueH = static_cast<float>(plan.truth(s, false).at(f) + plan.noise * g(rng));
                field->AddPoint(site, std::move(p));
            }
        }
    return lot;
}

Status Calibrate(cLot& lot, cTemplate& t, CalibrateOut& out, int order, CalGraphs* graphs = nullptr) {
    CalibrateArgs a;
    a.fitOrder = order;
    a.rangeCull = 1000;  // exact data: no four-sigma cull of rounding noise
    a.graphs = graphs;
    return CalibrateReticle(t, lot, a, out);
}

double Mean11(const Datam& r, int rows) {
    double m = 0;
    for (int i = 1; i <= rows; ++i) m += r(i, 11).toDouble() / rows;
    return m;
}

double Bisect(const std::function<double(double)>& f, double target, double lo, double hi) {
    for (int i = 0; i < 200; ++i) {
        const double mid = (lo + hi) / 2;
        ((f(lo) - target) * (f(mid) - target) <= 0 ? hi : lo) = mid;
    }
    return (lo + hi) / 2;
}

TEST(EquationInvert, LinearIsExactAndCubicMatchesTheRootWithinTheRange) {
    std::vector<double> c;
    std::string text;
    ASSERT_TRUE(EquationInvert("2 + 4 * Y", "Y", 1, 20, 1, -1, c, text));
    ASSERT_EQ(c.size(), 2u);
    EXPECT_NEAR(c[0], -0.5, 1e-9);  // Y = (s - 2) / 4
    EXPECT_NEAR(c[1], 0.25, 1e-9);

    // s = 0.1 + 0.15 F - 0.02 F^3: the inverse at order 3 against bisection.
    auto fwd = [](double f) { return 0.1 + 0.15 * f - 0.02 * f * f * f; };
    ASSERT_TRUE(EquationInvert("0.1 + 0.15 * X - 0.02 * X^3", "X", 3, 20, 0.4, -0.4, c, text));
    EXPECT_NE(text.find("* (X^3)"), std::string::npos) << text;
    clsEquation inv(text);
    for (double f = -0.4; f <= 0.4; f += 0.05) {
        const double s = fwd(f), root = Bisect(fwd, s, -1, 1);
        inv.Var("X", s);
        EXPECT_NEAR(inv.Solution(), root, 1e-4) << "F = " << f;  // 0.1 nm: a least squares inverse, not an exact one
    }

    EXPECT_EQ(EquationInvert("Y", "Y", 1, 20, 1, 0, c, text).failure().text, "Equation or variable name not given.");
    EXPECT_EQ(EquationInvert("1 + Y", "Y", 0, 20, 1, 0, c, text).failure().text, "Equation order was not given");
    EXPECT_EQ(EquationInvert("1 + Y", "Y", 1, 20, 0, 1, c, text).failure().text, "X-Axis max/min values are not correct.");
    ASSERT_TRUE(EquationInvert("1 + Y", "Y", 1, 20, 1, 1, c, text));
    EXPECT_TRUE(c.empty());
}

TEST(EquationText, TidiedAsTheTemplateStoresIt) {
    EXPECT_EQ(CalPolynomialText({1.5, -2, 0.25}, "Y"), "1.5 -2 * Y + 0.25 * Y^2");
    EXPECT_EQ(CalPolynomialText({1.5, -2}, "Y"), "1.5 -2 * Y");
    EXPECT_EQ(TidyEquation("1 +  -2 * F^ 2"), "1 -2 * F^2");
}

TEST(CalibrateReticle, FirstOrderRecoversOffsetsAndSlopesAndInvertsThemExactly) {
    auto lot = MakeLot({});
    cTemplate t;
    CalibrateOut out;
    ASSERT_TRUE(Calibrate(*lot, t, out, 1));
    ASSERT_EQ(t.sites.Count(), 4);
    const Datam& r = out.results;
    EXPECT_EQ(FindColumn(r, Value("YFsigma"), 0), 20);  // (n - 1) * 4 + 22 columns from column 0, then the block
    EXPECT_EQ(r(0, 7).toString(), "Xloc");
    EXPECT_EQ(r(0, 8).toString(), "Xloc");
    EXPECT_LE(FindColumn(r, Value("X_2_order"), 0), 0);
    EXPECT_EQ(r(0, 21).toDouble(), 4);  // the site count
    for (int s = 1; s <= 4; ++s) {
        const double ox = (2.0 + s) / 1000, sx = (150.0 + 3 * s) / 1000;
        const double oy = (-1.5 - s) / 1000, sy = (140.0 - 2 * s) / 1000;
        EXPECT_NEAR(r(s, 9).toDouble(), ox, 1e-6);
        EXPECT_NEAR(r(s, 10).toDouble(), oy, 1e-6);
        EXPECT_NEAR(r(s, 11).toDouble(), sx, 1e-6);
        EXPECT_NEAR(r(s, 12).toDouble(), sy, 1e-6);
        EXPECT_NEAR(r(s, 7).toDouble(), s, 1e-9);
        EXPECT_NEAR(r(s, 8).toDouble(), -0.5 * s, 1e-9);
        const cSiteCal* c = t.GetSite(std::to_string(s));
        ASSERT_NE(c, nullptr);
        EXPECT_NEAR(c->OffsetX, -ox / sx, 1e-5);  // focus at zero shift
        EXPECT_NEAR(c->SlopeX, 1 / sx, 1e-3);
        EXPECT_NEAR(c->OffsetY, -oy / sy, 1e-5);
        EXPECT_EQ(c->X2nd, 0);
        EXPECT_EQ(c->NumberKey, std::to_string(s) + "_20_0.75_0_0");
        EXPECT_NEAR(r(s, 17).toDouble(), -ox / sx, 1e-5);  // "Xfocus"
    }
}

TEST(CalibrateReticle, NoisySlopesLieWithinThreeStandardErrors) {
    LotPlan plan;
    plan.noise = 0.8;
    plan.sites = 9;
    auto lot = MakeLot(plan);
    cTemplate t;
    CalibrateOut out;
    CalibrateArgs a;
    a.fitOrder = 1;
    ASSERT_TRUE(CalibrateReticle(t, *lot, a, out));
    const Datam& r = out.results;
    const int ox = FindColumn(r, Value("Xoffset_sigma"), 0);
    for (int s = 1; s <= 9; ++s) {
        // The slope's error from the template: the table's "Xslope_sigma" gives
        // way to the slope's deviation from the mean.
        const double se = t.sites.Item(std::to_string(s) + "_20_0.75_0_0")->SlopeXse;
        EXPECT_GT(se, 0);
        EXPECT_LT(std::fabs(r(s, 11).toDouble() - (150.0 + 3 * s) / 1000), 3 * se) << s;
        EXPECT_LT(std::fabs(r(s, 9).toDouble() - (2.0 + s) / 1000), 3 * r(s, ox).toDouble()) << s;
        EXPECT_NEAR(r(s, 15).toDouble(), r(s, 11).toDouble() - Mean11(r, 9), 1e-3);
    }
}

TEST(CalibrateReticle, CubicResponseIsInvertedWithinTheFocusRange) {
    LotPlan plan;
    plan.truth = [](int site, bool x) {
        return x ? Truth{2.0 + site, 150, 10, -20} : Truth{-1.5, 140.0 + site, -6, 15};
    };
    auto lot = MakeLot(plan);
    cTemplate t;
    CalibrateOut out;
    ASSERT_TRUE(Calibrate(*lot, t, out, 3));
    const Datam& r = out.results;
    EXPECT_NEAR(r(1, FindColumn(r, Value("X_2_order"), 0)).toDouble(), 10.0 / 1000, 1e-6);
    EXPECT_NEAR(r(1, FindColumn(r, Value("Y_2_order"), 0)).toDouble(), -6.0 / 1000, 1e-6);
    for (int s = 1; s <= 4; ++s) {
        const cSiteCal* c = t.GetSite(std::to_string(s));
        for (bool x : {true, false}) {
            const Truth tr = plan.truth(s, x);
            const double o = x ? c->OffsetX : c->OffsetY, k1 = x ? c->SlopeX : c->SlopeY;
            const double k2 = x ? c->X2nd : c->Y2nd, k3 = x ? c->X3rd : c->Y3rd;
            for (double f = -0.3; f <= 0.3; f += 0.05) {
                const double shift = tr.at(f) / 1000;  // um
                const double back = o + k1 * shift + k2 * shift * shift + k3 * shift * shift * shift;
                EXPECT_NEAR(back, f, 0.002) << "site " << s << (x ? " X" : " Y") << " F " << f;
            }
        }
    }
}

TEST(CalibrateReticle, EdgeCasesOfTheData) {
    {  // one focus value everywhere
        LotPlan plan;
        plan.focus = {0.1, 0.1, 0.1};
        auto lot = MakeLot(plan);
        cTemplate t;
        CalibrateOut out;
        auto s = Calibrate(*lot, t, out, 1);
        ASSERT_FALSE(s);
        EXPECT_EQ(s.failure().text, "Bad Data: Only one Focus value = 0.1");
    }
    {  // a fully culled site is left out; order above points - 2 falls back
        LotPlan plan;
        plan.focus = {-0.2, -0.1, 0, 0.1, 0.2};
        auto lot = MakeLot(plan);
        for (cField* f : lot->Wafers().Item(1)->Fields())
            for (cSite* s : f->sites())
                if (s->NumberKey() == 2)
                    for (cPoint* p : s->Points()) p->setCull(true);
        cTemplate t;
        CalibrateOut out;
        ASSERT_TRUE(Calibrate(*lot, t, out, 6));
        EXPECT_EQ(t.sites.Item("2_20_0.75_0_0"), nullptr);
        EXPECT_EQ(t.sites.Count(), 3);
        const cSiteCal* c = t.sites.Item("1_20_0.75_0_0");
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(c->X4th, 0);  // 5 points carry 3 terms
        EXPECT_EQ(c->X6th, 0);
        EXPECT_NEAR(c->SlopeX, 1000.0 / 153, 1e-2);
    }
    {  // doses 20.0001 and 20.0003 are one exposure set
        LotPlan plan;
        plan.doses = {20.0001, 20.0003};
        auto lot = MakeLot(plan);
        cTemplate t;
        CalibrateOut out;
        ASSERT_TRUE(Calibrate(*lot, t, out, 1));
        EXPECT_EQ(t.sites.Count(), 4);
    }
}

TEST(CalibrateReticle, ChartPerSiteAndSummaryBlock) {
    LotPlan plan;
    plan.doses = {20, 22};
    auto lot = MakeLot(plan);
    cTemplate t;
    CalibrateOut out;
    CalGraphs graphs;
    std::vector<std::string> groups, best;
    CalibrateEvents ev;
    ev.CurrentExpoGroup = [&](const std::string& s) { groups.push_back(s); };
    ev.BestFocusCalculated = [&](const std::string& s) { best.push_back(s); };
    CalibrateArgs a;
    a.fitOrder = 1;
    a.rangeCull = 1000;
    a.graphs = &graphs;
    a.events = &ev;
    ASSERT_TRUE(CalibrateReticle(t, *lot, a, out));
    ASSERT_EQ(graphs.Count(), 8);
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[1], "[ 22.000 , 0.750 , 0.000 , 0.000 ]");
    ASSERT_EQ(best.size(), 8u);
    EXPECT_EQ(best[0], "1:[ " + Format(-3.0 / 153, "####0.000") + "," + Format(2.5 / 138, "####0.000") + "]");
    const cGraphic* g = graphs.Item("3_2");
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g->TitleObj.TitleString, "Site:3 [Dose=22,NA=0.75,PCi=0,PCo=0]");
    EXPECT_EQ(g->Series.Count(), 6);
    EXPECT_NE(g->Series.Item("X_fit"), nullptr);
    EXPECT_EQ(g->Axes.Item("X")->Label, "Tool Focus");

    // The statistics block: the second set's "Xslope" mean is the mean of its rows.
    const Datam& r = out.results;
    const int sc = FindColumn(r, Value("YFsigma"), 0) + 2;
    EXPECT_EQ(r(2, sc).toString(), "[Dose,");
    EXPECT_EQ(r(3, sc).toDouble(), 20);
    const int params = FindColumn(r, Value("YFsigma"), 0) - 9 + 1;
    const int top = 3 + params + 5;
    EXPECT_EQ(r(top, sc).toDouble(), 22);
    EXPECT_EQ(r(top + 1, sc + 1).toString(), "Mean");
    EXPECT_EQ(r(top + 2 + 2, sc).toString(), "Xslope");
    double mean = 0;
    for (int s = 5; s <= 8; ++s) mean += r(s, 11).toDouble() / 4;
    EXPECT_NEAR(r(top + 2 + 2, sc + 1).toDouble(), mean, 1e-7);  // the statistics read singles
    EXPECT_EQ(r(top + 2 + 2, sc + 6).toDouble(), 4);  // Count
}

TEST(CalibrateWorkbench, CullLimitsAndTheTwoLots) {
    auto lot = MakeLot({});
    CalControls c;
    CalFormState state;
    std::string d;
    c.focusMax = c.focusMin = "0.1";
    EXPECT_EQ(UpdateCalCulls(*lot, c, state, d).failure().text,
              "Focus maximum value must be greater than the minimum setting.");
    c.focusMax = "0.2", c.focusMin = "-0.2";
    c.doseMax = c.doseMin = "20";
    d.clear();
    ASSERT_TRUE(UpdateCalCulls(*lot, c, state, d));
    EXPECT_EQ(d, "Focus:[0.2,-0.2]Cull:[Range,Sigma]=[0,0]");
    int live = 0;
    for (cField* f : lot->Wafers().Item(1)->Fields()) live += !f->cull();
    EXPECT_EQ(live, 7);  // -0.18 .. 0.18

    c.fitOrder = 1;
    c.range = 1000;
    auto run = CalibratePSFM(*lot, c, state, {});
    ASSERT_TRUE(run) << run.failure().text;
    ASSERT_TRUE(run->lots.calibrated && run->lots.bestFocus);
    const cSiteCal* s1 = run->tpl->sites.Item("1_20_0.75_0_0");
    bool seen = false;
    run->lots.calibrated->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
        if (s.NumberKey() != 1) return;
        seen = true;
        EXPECT_NEAR(p.ValueA, 1000 * s1->OffsetX, 1e-2);
        EXPECT_NEAR(p.ValueV_Res, 0, 1e-3);  // exact data: the forward fit leaves nothing
        EXPECT_NEAR(p.ValueV, 0.003, 1e-6);  // the forward intercept, um
        EXPECT_NEAR(p.ValueV_fit, 0.153, 1e-6);
    });
    EXPECT_TRUE(seen);
    EXPECT_EQ(run->lots.bestFocus->LotName, "Best Focus PSFM");
    ASSERT_EQ(run->lots.bestFocus->Wafers().Count(), 1);
    EXPECT_EQ(run->lots.bestFocus->Wafers().Item(1)->Fields().Count(), 1);
    ASSERT_EQ(run->exposureGroups.size(), 1u);
    EXPECT_EQ(run->exposureGroups[0], "[ 20.000 , 0.750 , 0.000 , 0.000 ]");
}

}  // namespace
}  // namespace zorv

namespace zorv {
namespace {

// A line through a cubic leaves the same residuals at every site: their range
// by dose is the non-linearity, against an ordinary least squares by hand.
TEST(CalibrateWorkbench, NonLinearityIsTheResidualRangeOfTheLine) {
    LotPlan plan;
    plan.doses = {20, 22};
    plan.truth = [](int site, bool x) { return x ? Truth{1.0 * site, 150, 0, -40} : Truth{-1.0, 140, 0, 0}; };
    auto lot = MakeLot(plan);
    CalControls c;
    c.fitOrder = 1;
    c.range = 1000;
    CalFormState state;
    auto run = CalibratePSFM(*lot, c, state, {});
    ASSERT_TRUE(run) << run.failure().text;

    const std::vector<double>& f = plan.focus;
    const double n = static_cast<double>(f.size());
    double sf = 0, sff = 0, sy = 0, sfy = 0;
    for (double x : f) {
        const double y = -40 * x * x * x;
        sf += x, sff += x * x, sy += y, sfy += x * y;
    }
    const double b = (n * sfy - sf * sy) / (n * sff - sf * sf), a = (sy - b * sf) / n;
    double lo = 1e9, hi = -1e9;
    for (double x : f) {
        const double r = -40 * x * x * x - (a + b * x);
        lo = std::min(lo, r), hi = std::max(hi, r);
    }
    cGraphic g;
    auto t = NonLinearityGraph(*run->lots.calibrated, g);
    ASSERT_TRUE(t) << t.failure().text;
    ASSERT_EQ(t->rowUb(), 2);
    for (int r = 1; r <= 2; ++r) {
        EXPECT_NEAR((*t)(r, 2).toDouble(), (hi - lo) / 1000, 1e-6) << r;  // stored nm, shown / 1000
        EXPECT_NEAR((*t)(r, 3).toDouble(), 0, 1e-6) << r;
    }
    EXPECT_EQ(g.Series.Count(), 4);
    EXPECT_NE(g.Series.Item("Dose_22X"), nullptr);

    cGraphic s;
    ASSERT_TRUE(DoseSlopeGraph(*run->lots.calibrated, s));
    EXPECT_EQ(s.Series.Count(), 2);
    EXPECT_EQ(s.Data().rowUb(), 2 * static_cast<int>(f.size()) * 4);
}

}  // namespace
}  // namespace zorv

namespace zorv {
namespace {

TEST(FocusDose, EachDoseCrossesZeroWhereTheLineDoes) {
    LotPlan plan;
    plan.doses = {20, 22};
    auto lot = MakeLot(plan);
    cGraphic g;
    auto t = FocusDoseGraph(*lot, 1, g);
    ASSERT_TRUE(t) << t.failure().text;
    ASSERT_EQ(t->rowUb(), 4);  // two features at two doses
    EXPECT_EQ((*t)(0, 4).toString(), "Best Focus");
    EXPECT_EQ((*t)(1, 2).toDouble(), 20);
    EXPECT_NEAR((*t)(1, 4).toDouble(), -3.0 / 153, 1e-7);   // X: 3 + 153 F = 0
    EXPECT_NEAR((*t)(1, 8).toDouble(), 0.153, 1e-7);        // "Slope", from singles
    EXPECT_NEAR((*t)(3, 4).toDouble(), 2.5 / 138, 1e-7);    // Y: -2.5 + 138 F = 0
    EXPECT_EQ(g.KeyName, "kFocus");
    EXPECT_NE(g.Series.Item("Dose response for 22.0 mj"), nullptr);
    EXPECT_EQ(FocusDoseGraph(*lot, 0, g).failure().text, "A Field site has not been selected.");
}

}  // namespace
}  // namespace zorv

namespace zorv {
namespace {

TEST(CalibrateWorkbench, AstigmaticCullIsGivenBackAtTheNextRun) {
    LotPlan plan;
    // Site 4's H runs 10 nm above its V at every focus: its astigmatism stands out.
    plan.truth = [](int site, bool x) { return x ? Truth{0, 150} : Truth{site == 4 ? 10.0 : 0.0, 150}; };
    auto lot = MakeLot(plan);
    CalControls c;
    c.astigCull = 0.005;  // um of astigmatism (display units)
    CalFormState state;
    std::string d;
    auto r = UpdateCalCulls(*lot, c, state, d);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->astigCulled, 11);
    EXPECT_EQ(state.astigSerials.size(), 11u);
    EXPECT_NE(d.find("Astigmatic Cull[Range: 0.005] Points culled: 11"), std::string::npos) << d;
    c.astigCull = 0;
    d.clear();
    ASSERT_TRUE(UpdateCalCulls(*lot, c, state, d));
    long live = 0;
    lot->forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++live; });
    EXPECT_EQ(live, 44);
    EXPECT_TRUE(state.astigSerials.empty());
}

}  // namespace
}  // namespace zorv
