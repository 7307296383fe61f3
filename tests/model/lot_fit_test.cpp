// The lot fit on lots made from known wafer and field terms: what it
// recovers, what it writes back into the points, and what it leaves as it
// found it.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "../stats/stats_fixture.h"
#include "model/lot_fit.h"
#include "stats/cull.h"

using namespace zorv;
using namespace zorv::testing;

namespace {

// A small deterministic noise of about 0.01 (display units).
double Noise(const PointAt& p) { return 0.01 * (((p.wafer * 7919 + p.field * 104729 + p.site * 1299709) % 21) - 10) / 10.0; }

// The absolute wafer position of a point in mm, as the lot computes it.
struct Pos {
    double x, y;
};

// A wafer model in code: offset, X, Y, X^2 and Y^2 for feature `feature`.
std::unique_ptr<Cmodel> QuadModel(int feature, int family = 0) {
    auto m = std::make_unique<Cmodel>();
    m->Name = "Quad";
    m->PlotFeature = feature;
    m->FamilyType = family;
    m->Key = "Quad_" + std::to_string(feature) + "_" + std::to_string(family);
    m->AddTerm("Offset", "1", 1);
    m->AddTerm("TiltX", "X", 3, "urad");
    m->AddTerm("TiltY", "Y", 3, "urad");
    m->AddTerm("BowX", "X^2", 4, "nm/cm2");
    m->AddTerm("BowY", "Y^2", 4, "nm/cm2");
    return m;
}

void PutModels(cLot& lot, int features, int families = 0) {
    for (cWafer* w : lot.Wafers()) {
        Models& ms = WaferModels(*w);
        ms.Clear();
        for (int k = 1; k <= features; ++k) {
            if (families == 0) {
                auto m = QuadModel(k);
                const std::string key = m->Key;
                ms.models.Add(std::move(m), key);
            }
            for (int f = 1; f <= families; ++f) {
                auto m = QuadModel(k, f);
                const std::string key = m->Key;
                ms.models.Add(std::move(m), key);
            }
        }
        WaferModels(*w);  // parents
    }
}

// Truth: V = 2 + 0.01 X - 0.02 Y + 3e-4 X^2 - 2e-4 Y^2 (X, Y absolute, mm).
constexpr double kTruth[5] = {2, 0.01, -0.02, 3e-4, -2e-4};

std::shared_ptr<cLot> TruthLot(LotShape shape, double familyStep = 0) {
    // The absolute positions come from the lot itself, so the values are set
    // after it is built.
    auto lot = MakeStatsLot(shape, [](const PointAt&) { return std::array<double, 8>{}; });
    lot->forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        const double X = s.LocationXabs / 1000.0, Y = s.LocationYabs / 1000.0;
        const PointAt at{int(w.Number()), f.Number, s.NumberKey(), 0, 0, 0, 0};
        const double v = kTruth[0] + kTruth[1] * X + kTruth[2] * Y + kTruth[3] * X * X + kTruth[4] * Y * Y +
                         familyStep * (s.Family() - 1) + Noise(at);
        p.ValueV = static_cast<float>(v * 1000);
        p.ValueH = static_cast<float>((1 - v) * 1000);
    });
    return lot;
}

LotShape Shape() {
    LotShape shape;
    shape.lineWidth = false;
    shape.wafers = 3;
    shape.fieldsX = 4;
    shape.fieldsY = 3;
    shape.sitesX = shape.sitesY = 3;
    shape.pitchX = 4000;
    shape.pitchY = 5000;
    return shape;
}

}  // namespace

TEST(LotModelFit, WaferTermsWithinThreeErrorsAndWrittenBack) {
    auto lot = TruthLot(Shape());
    PutModels(*lot, 1);
    lot->PlotFeature(2);  // the model carries its own feature; the lot's comes back
    LotFitSetup setup;
    auto r = LotModelFit(*lot, setup);
    ASSERT_TRUE(r) << r.failure().message();
    EXPECT_EQ(r->wafersFitted, 3);
    EXPECT_EQ(lot->PlotFeature(), 2);
    for (cWafer* w : lot->Wafers()) {
        Cmodel* m = WaferModels(*w).models.Item(1);
        ASSERT_NE(m, nullptr);
        int k = 0;
        for (cCoefficient* c : m->Coefficients) {
            SCOPED_TRACE(c->NameCoef);
            EXPECT_TRUE(c->Include);
            EXPECT_GT(c->Sigma, 0);
            EXPECT_LT(std::fabs(c->Value - kTruth[k]), 3 * c->Sigma + 1e-12) << c->Value << " +- " << c->Sigma;
            ++k;
        }
    }
    // raw = fitted + residual at every live point.
    long n = 0;
    lot->forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        ++n;
        EXPECT_NEAR(p.ValueV, p.ValueV_fit + p.ValueV_Res, 0.05f);
        EXPECT_NE(p.ValueV_fit, kMissingValue);
    });
    EXPECT_EQ(n, 3 * 12 * 9);
    ASSERT_TRUE(r->waferReport.isArray());
    EXPECT_GE(r->waferReport.rowUb(), 3);
}

TEST(LotModelFit, FamiliesOneByOneAndTheirCullsUndone) {
    LotShape shape = Shape();
    shape.families = 2;
    auto lot = TruthLot(shape, 0.5);  // family 2 sits 0.5 higher
    PutModels(*lot, 1, 2);
    const long before = lot->TotalPoints();
    auto r = LotModelFit(*lot, LotFitSetup{});
    ASSERT_TRUE(r) << r.failure().message();
    EXPECT_EQ(lot->TotalPoints(), before);  // the family culls are undone
    for (cWafer* w : lot->Wafers()) {
        Cmodel* f1 = WaferModels(*w).models.Item("Quad_1_1");
        Cmodel* f2 = WaferModels(*w).models.Item("Quad_1_2");
        ASSERT_TRUE(f1 && f2);
        EXPECT_NEAR(f2->Coefficients.Item(1)->Value - f1->Coefficients.Item(1)->Value, 0.5,
                    3 * std::hypot(f1->Coefficients.Item(1)->Sigma, f2->Coefficients.Item(1)->Sigma));
    }
}

TEST(LotModelFit, LotWithoutFamiliesIsFamilyOne) {
    auto lot = TruthLot(Shape());
    lot->forEachLiveSite([](cWafer&, cField&, cSite& s) { s.setFamily(0); });
    const Datam fams = LotFamilies(*lot);
    ASSERT_EQ(fams.rowUb(), 1);
    EXPECT_EQ(fams(1, 2).toLong(), 1);
    EXPECT_TRUE(fams(1, 3).toBool());
    PutModels(*lot, 1, 1);  // a model for family 1
    auto r = LotModelFit(*lot, LotFitSetup{});
    ASSERT_TRUE(r) << r.failure().message();
    EXPECT_EQ(r->wafersFitted, 3);
}

TEST(LotModelFit, CulledWaferSkippedAndRefusedWaferStopsTheFamily) {
    auto lot = TruthLot(Shape());
    PutModels(*lot, 1);
    lot->Wafers().Item(2)->setCull(true);
    CaptureReporter rep;
    SetReporter(&rep);
    auto r = LotModelFit(*lot, LotFitSetup{});
    SetReporter(nullptr);
    ASSERT_TRUE(r) << r.failure().message();
    EXPECT_EQ(r->wafersFitted, 2);
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();  // passed over without a word

    // Wafer 3 keeps three points: refused, and the run stops with the three lines.
    lot->Wafers().Item(2)->setCull(false);
    cWafer* w3 = lot->Wafers().Item(3);
    int kept = 0;
    for (cField* f : w3->Fields())
        for (cSite* s : f->sites())
            if (++kept > 3) s->setCull(true);
    lot->PlotFeature(2);
    auto bad = LotModelFit(*lot, LotFitSetup{});
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.failure().tag, "cLot(ModelFit): ");
    EXPECT_NE(bad.failure().text.find("Wafer model was not fitted for wafer '" + w3->WaferID + "'"), std::string::npos)
        << bad.failure().text;
    EXPECT_NE(bad.failure().text.find(" Number of data points in the wafer = 3"), std::string::npos);
    EXPECT_NE(bad.failure().text.find(" Please insure that a model variable was properly specified."),
              std::string::npos);
    EXPECT_EQ(lot->PlotFeature(), 2);
}

TEST(LotModelFit, FieldModelsOnTheirOwn) {
    // Every field: V = 1 + 0.02 x - 0.01 y (field position, mm) + noise.
    LotShape shape = Shape();
    shape.sitesX = shape.sitesY = 4;
    auto lot = MakeStatsLot(shape, [](const PointAt&) { return std::array<double, 8>{}; });
    lot->forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        const double x = (s.LocationX + lot->SiteXoffset) / 1000.0, y = (s.LocationY + lot->SiteYoffset) / 1000.0;
        const PointAt at{int(w.Number()), f.Number, s.NumberKey(), 0, 0, 0, 0};
        p.ValueV = static_cast<float>((1 + 0.02 * x - 0.01 * y + Noise(at)) * 1000);
    });
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) {
            ModelsField& mf = FieldModels(*f);
            auto m = LoadPWModel(1);
            const std::string key = m->Key;
            mf.models.Add(std::move(m), key);
            FieldModels(*f);
        }
    LotFitSetup setup;
    setup.doWafer = false;
    setup.doField = true;
    auto r = LotModelFit(*lot, setup);
    ASSERT_TRUE(r) << r.failure().message();
    EXPECT_EQ(r->fieldsFitted, 3 * 12);
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) {
            Cmodel* m = FieldModels(*f).models.Item(1);
            ASSERT_NE(m, nullptr);
            // The piston's error, as the fit gives it (from the residuals'
            // mean), understates its spread beside curvature terms: held to
            // the noise's amplitude instead.
            EXPECT_NEAR(m->Coefficients.Item(1)->Value, 1, 0.01);
            EXPECT_NEAR(m->Coefficients.Item(2)->Value, 0.02, 3 * m->Coefficients.Item(2)->Sigma + 1e-9);
            EXPECT_NEAR(m->Coefficients.Item(3)->Value, -0.01, 3 * m->Coefficients.Item(3)->Sigma + 1e-9);
        }
    ASSERT_TRUE(r->residuals.isArray());
    EXPECT_EQ(r->residuals.rowUb(), 3 * 12 * 16);
    EXPECT_NE(r->residuals(1, 0).toString().find(": 1"), std::string::npos);
}

TEST(UpdateMITP, CopiesTablesAndRefusesBothSwitches) {
    auto a = TruthLot(Shape());
    auto b = TruthLot(Shape());
    PutModels(*a, 1);
    PutModels(*b, 1);
    ASSERT_TRUE(LotModelFit(*a, LotFitSetup{}));
    auto both = UpdateMITP(*b, *a, true, true);
    ASSERT_FALSE(both);
    EXPECT_EQ(both.failure().text, "Cannot have both field and wafer switches. Check MITP update code.");
    ASSERT_TRUE(UpdateMITP(*b, *a, true, false));
    Cmodel* ma = WaferModels(*a->Wafers().Item(1)).models.Item(1);
    Cmodel* mb = WaferModels(*b->Wafers().Item(1)).models.Item(1);
    ASSERT_TRUE(ma->Mitp().isArray());
    EXPECT_EQ(mb->Mitp().rowUb(), ma->Mitp().rowUb());
    EXPECT_EQ(mb->Mitp().colUb(), ma->Mitp().colUb());
}

TEST(AddWafCoef, AddsTheTermsEffect) {
    auto lot = TruthLot(Shape());
    PutModels(*lot, 1);
    ASSERT_TRUE(LotModelFit(*lot, LotFitSetup{}));
    // The TiltX term's effect: value x X at each point.
    std::vector<double> before, expect;
    lot->forEachLive([&](cWafer& w, cField&, cSite& s, cPoint& p) {
        const double c = WaferModels(w).models.Item(1)->Coefficients.Item(2)->Value;
        before.push_back(p.ValueV);
        expect.push_back(p.ValueV + c * 1000 * (s.LocationXabs / 1000.0));
    });
    ASSERT_TRUE(AddWafCoef(*lot, 2, 0, 1));
    size_t i = 0;
    lot->forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        EXPECT_NEAR(p.ValueV, expect[i], 0.02);
        ++i;
    });
}

TEST(LotModelFit, EscapeStopsAndPutsTheLotBack) {
    LotShape shape = Shape();
    shape.families = 2;
    auto lot = TruthLot(shape, 0.5);
    PutModels(*lot, 1, 2);
    const long before = lot->TotalPoints();
    lot->PlotFeature(3);
    // Esc pressed while the first wafer's table is assembled.
    struct EscOnWafer : CaptureReporter {
        void status(const std::string& text) override {
            CaptureReporter::status(text);
            if (text.rfind("Wafer: '", 0) == 0) SetEscPressed(true);
        }
    } rep;
    SetReporter(&rep);
    auto r = LotModelFit(*lot, LotFitSetup{});
    SetReporter(nullptr);
    SetEscPressed(false);
    ASSERT_FALSE(r);
    EXPECT_EQ(r.failure().text, "Model fit stopped.");
    EXPECT_EQ(lot->PlotFeature(), 3);
    EXPECT_EQ(lot->TotalPoints(), before);  // the family cull undone
}
