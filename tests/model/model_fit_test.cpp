// Model fits against known generators and a second least-squares method, the
// small-set rules, the missing mark, the write-back and the display factors.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../stats/stats_fixture.h"
#include "model/model.h"
#include "model/model_sets.h"

namespace zorv {
namespace {

using testing::LotShape;
using testing::MakeStatsLot;
using testing::PointAt;
using testing::ScopedCapture;

using Fn = std::function<double(double x, double y, double r, double th)>;
struct TermDef {
    const char* name;
    const char* text;
    int threshold;
    Fn f;
};

// Offset, tilts, bow and the second and third order radial terms.
std::vector<TermDef> WaferTerms() {
    return {
        {"Offset", "1", 1, [](double, double, double, double) { return 1.0; }},
        {"TiltX", "X", 3, [](double x, double, double, double) { return x; }},
        {"TiltY", "Y", 3, [](double, double y, double, double) { return y; }},
        {"Bow", "R^2", 4, [](double, double, double r, double) { return r * r; }},
        {"Astig0", "R^2*cos(2*Theta)", 4, [](double, double, double r, double t) { return r * r * std::cos(2 * t); }},
        {"Astig45", "R^2*sin(2*Theta)", 4, [](double, double, double r, double t) { return r * r * std::sin(2 * t); }},
        {"ComaX", "R^3*cos(Theta)", 5, [](double, double, double r, double t) { return r * r * r * std::cos(t); }},
        {"ComaY", "R^3*sin(Theta)", 5, [](double, double, double r, double t) { return r * r * r * std::sin(t); }},
    };
}
const std::vector<double> kTruth = {0.1, 2e-3, -1.5e-3, 3e-6, 2e-6, -1e-6, 1e-8, -2e-8};

void AddTerms(Cmodel& m, const std::vector<TermDef>& terms) {
    for (const TermDef& t : terms) m.AddTerm(t.name, t.text, t.threshold);
}

// Deterministic noise, uniform in [-a, a].
struct Noise {
    uint64_t s = 12345;
    double operator()(double a) {
        s = s * 6364136223846793005ULL + 1442695040888963407ULL;
        return a * (2.0 * static_cast<double>(s >> 11) / 9007199254740992.0 - 1.0);
    }
};

// Sets feature `feature` of every point of a wafer from its absolute site
// position (mm) through fn.
void SetWaferValues(cWafer& w, int feature, const std::function<double(const cSite&)>& fn) {
    for (cField* f : w.Fields())
        for (cSite* s : f->sites())
            for (cPoint* p : s->Points()) *p->FeatureSlot(feature, eRaw) = static_cast<float>(fn(*s) * 1000.0);
}

double WaferModel(const std::vector<TermDef>& terms, const std::vector<double>& c, const cSite& s) {
    const double x = s.LocationXabs / 1000.0, y = s.LocationYabs / 1000.0, r = s.LocationRabs / 1000.0;
    const double th = s.LocationThetaAbs;
    double v = 0;
    for (size_t k = 0; k < terms.size() && k < c.size(); ++k) v += c[k] * terms[k].f(x, y, r, th);
    return v;
}

// Least squares the other way: centred and scaled normal equations solved by
// Gaussian elimination with partial pivoting; the intercept from the means.
std::vector<double> NormalEquations(const Datam& mitp, const Datam& dep, int m) {
    const int n = dep.rowUb();
    std::vector<double> mean(static_cast<size_t>(m), 0.0), norm(static_cast<size_t>(m), 0.0);
    double ymean = 0;
    for (int i = 1; i <= n; ++i) {
        ymean += dep(i, 1).toDouble() / n;
        for (int k = 0; k < m; ++k) mean[static_cast<size_t>(k)] += mitp(i, k + 1).toDouble() / n;
    }
    auto xc = [&](int i, int k) { return mitp(i, k + 1).toDouble() - mean[static_cast<size_t>(k)]; };
    for (int k = 0; k < m; ++k) {
        for (int i = 1; i <= n; ++i) norm[static_cast<size_t>(k)] += xc(i, k) * xc(i, k);
        norm[static_cast<size_t>(k)] = std::sqrt(norm[static_cast<size_t>(k)]);
    }
    std::vector<std::vector<double>> a(static_cast<size_t>(m), std::vector<double>(static_cast<size_t>(m + 1), 0.0));
    for (int j = 0; j < m; ++j) {
        for (int k = 0; k < m; ++k) {
            double s = 0;
            for (int i = 1; i <= n; ++i) s += xc(i, j) * xc(i, k);
            a[j][k] = s / (norm[j] * norm[k]);
        }
        double s = 0;
        for (int i = 1; i <= n; ++i) s += xc(i, j) * (dep(i, 1).toDouble() - ymean);
        a[j][m] = s / norm[j];
    }
    for (int c = 0; c < m; ++c) {
        int piv = c;
        for (int r = c + 1; r < m; ++r)
            if (std::fabs(a[r][c]) > std::fabs(a[piv][c])) piv = r;
        std::swap(a[c], a[piv]);
        for (int r = c + 1; r < m; ++r) {
            const double f = a[r][c] / a[c][c];
            for (int k = c; k <= m; ++k) a[r][k] -= f * a[c][k];
        }
    }
    std::vector<double> b(static_cast<size_t>(m), 0.0);
    for (int r = m - 1; r >= 0; --r) {
        double s = a[r][m];
        for (int k = r + 1; k < m; ++k) s -= a[r][k] * b[k];
        b[r] = s / a[r][r];
    }
    std::vector<double> coef(1, ymean);
    for (int k = 0; k < m; ++k) {
        const double slope = b[k] / norm[k];
        coef[0] -= slope * mean[k];
        coef.push_back(slope);
    }
    return coef;
}

bool SawStatus(const ScopedCapture& cap, const std::string& text) {
    for (const auto& s : cap.statuses)
        if (s == text) return true;
    return false;
}

// ---------------------------------------------------------------- wafer fits

struct WaferLot {
    std::shared_ptr<cLot> lot;
    std::vector<TermDef> terms = WaferTerms();
    explicit WaferLot(double noise) {
        LotShape sh;
        sh.wafers = 2;
        sh.fieldsX = 5;
        sh.fieldsY = 5;
        sh.features = 2;
        lot = MakeStatsLot(sh, [](const PointAt&) { return std::array<double, 8>{}; });
        lot->PlotFeature(1);
        Noise nz;
        for (cWafer* w : lot->Wafers())
            SetWaferValues(*w, 1, [&](const cSite& s) { return WaferModel(terms, kTruth, s) + nz(noise); });
    }
    cWafer& wafer(int i) { return *lot->Wafers().At(i); }
};

TEST(ModelFitWafer, RecoversKnownCoefficientsAndMatchesNormalEquations) {
    ScopedCapture cap;
    WaferLot wl(0.002);
    cWafer& w = wl.wafer(1);
    Cmodel m;
    m.Name = "Wafer";
    m.Key = "Wafer_1_0";
    m.ParentWafer = &w;
    m.PlotFeature = 1;
    AddTerms(m, wl.terms);
    ModelFitOptions o;
    o.rangeCull = 1e6f;  // no cull: both methods see the same rows
    auto r = m.Fit(o);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    ASSERT_GE(r->equation.size(), 2u);

    ASSERT_EQ(m.Mitp().rowUb(), 225);
    ASSERT_EQ(m.Mitp().colUb(), 7);
    ASSERT_EQ(m.Dependent().rowUb(), 225);
    const std::vector<double> ne = NormalEquations(m.Mitp(), m.Dependent(), 7);
    for (int k = 1; k <= 8; ++k) {
        const cCoefficient* c = m.Coefficients.Item(k);
        const double truth = kTruth[static_cast<size_t>(k - 1)];
        EXPECT_TRUE(c->Include) << k;
        EXPECT_GT(c->Sigma, 0) << k;
        EXPECT_LT(c->Sigma, std::fabs(truth) / 3) << k;  // the test below means something
        EXPECT_LE(std::fabs(c->Value - truth), 3 * c->Sigma) << c->NameCoef << " " << c->Value << " +- " << c->Sigma;
        EXPECT_NEAR(c->Value, ne[static_cast<size_t>(k - 1)], 1e-9 * std::fabs(ne[static_cast<size_t>(k - 1)]))
            << c->NameCoef;
        EXPECT_DOUBLE_EQ(r->coef(k, 1).toDouble(), c->Value);
        EXPECT_DOUBLE_EQ(r->sigma(k, 1).toDouble(), c->Sigma);
    }

    // Every live point: fitted is the model at its site, raw = fitted + residual.
    std::vector<double> fitted;
    for (int k = 1; k <= 8; ++k) fitted.push_back(m.Coefficients.Item(k)->Value);
    int checked = 0;
    for (cField* f : w.Fields())
        for (cSite* s : f->sites())
            for (cPoint* p : s->Points()) {
                const double model = WaferModel(wl.terms, fitted, *s);
                EXPECT_NEAR(p->ValueV_fit, model * 1000.0, 1e-4);
                EXPECT_NEAR(p->ValueV, p->ValueV_fit + p->ValueV_Res, 1e-4);
                // The equation text says the same.
                m.FullModel.Var("x", s->LocationXabs / 1000.0);
                m.FullModel.Var("y", s->LocationYabs / 1000.0);
                m.FullModel.Var("r", s->LocationRabs / 1000.0);
                m.FullModel.Var("theta", s->LocationThetaAbs);
                EXPECT_NEAR(m.FullModel.Solution(), model, 1e-12);
                ++checked;
            }
    EXPECT_EQ(checked, 225);
    // The other wafer is not touched.
    EXPECT_TRUE(IsMissing(wl.wafer(2).Fields().At(1)->sites().Item(1)->Points().Item(1)->ValueV_fit));

    // Records, the lot's list, the status line.
    ASSERT_EQ(m.FitLibrary.Count(), 1);
    const cFitRecord* rec = m.FitLibrary.Item("Var_1_Fam_0");
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->CountValues(), 8);
    EXPECT_DOUBLE_EQ(rec->GetFitValue(2), m.Coefficients.Item(2)->Value);
    EXPECT_FLOAT_EQ(rec->MSE, m.MSE);
    EXPECT_NE(LotModelWafer(*wl.lot).models.Item("Wafer_1_0"), nullptr);
    const std::string id = w.WaferID;
    EXPECT_TRUE(SawStatus(cap, "Model Wafer: " + id + " Family: 0"));
    EXPECT_TRUE(SawStatus(cap, "Wafer: '" + id + "' fit data assembly [1 -0]...Field 25 of 25"));
    EXPECT_TRUE(SawStatus(cap, "Update Field Results: " + w.Fields().At(3)->NumberKey + ",[ 3 of 25 ]"));
    ASSERT_EQ(r->resids.rowUb(), 225);
    EXPECT_EQ(r->resids(1, 0).toString(), m.Mitp()(1, 0).toString());

    // A second variable over the same sites: the same MITP, a new record,
    // and still one clone in the lot's list.
    Noise nz(777);
    SetWaferValues(w, 2, [&](const cSite& s) { return 0.5 - WaferModel(wl.terms, kTruth, s) + nz(0.001); });
    const Datam before = m.Mitp();
    m.PlotFeature = 2;
    auto r2 = m.Fit(o);
    ASSERT_TRUE(r2.ok()) << r2.failure().message();
    EXPECT_EQ(wl.lot->PlotFeature(), 1);
    for (int i = 1; i <= 225; i += 37)
        for (int k = 0; k <= 7; ++k) EXPECT_TRUE(m.Mitp()(i, k).identical(before(i, k)));
    const std::vector<double> ne2 = NormalEquations(m.Mitp(), m.Dependent(), 7);
    EXPECT_NEAR(m.Coefficients.Item(1)->Value, ne2[0], 1e-9 * std::fabs(ne2[0]));
    EXPECT_NEAR(m.Coefficients.Item(4)->Value, ne2[3], 1e-9 * std::fabs(ne2[3]));
    EXPECT_NEAR(m.Coefficients.Item(4)->Value, -3e-6, 3 * m.Coefficients.Item(4)->Sigma);
    EXPECT_EQ(m.FitLibrary.Count(), 2);
    EXPECT_NE(m.FitLibrary.Item("Var_2_Fam_0"), nullptr);
    EXPECT_EQ(LotModelWafer(*wl.lot).models.Count(), 1);
    auto r3 = m.Fit(o);  // the same variable again replaces its record
    ASSERT_TRUE(r3.ok());
    EXPECT_EQ(m.FitLibrary.Count(), 2);
}

// A single-column lot for the small cases: one wafer, one field.
std::shared_ptr<cLot> SmallLot(int sx, int sy, const std::function<double(int a, int b)>& value) {
    LotShape sh;
    sh.wafers = 1;
    sh.fieldsX = 1;
    sh.fieldsY = 1;
    sh.sitesX = sx;
    sh.sitesY = sy;
    auto lot = MakeStatsLot(sh, [&](const PointAt& at) {
        std::array<double, 8> v{};
        v[0] = value(at.a, at.b);
        return v;
    });
    lot->PlotFeature(1);
    return lot;
}

TEST(ModelFitWafer, ThreePointsRefusedAndEverythingLeftAsItWas) {
    ScopedCapture cap;
    auto lot = SmallLot(3, 1, [](int a, int) { return 0.1 * a; });
    lot->PlotFeatureMin = -3;
    lot->PlotFeatureMax = 4;
    Cmodel m;
    m.ParentWafer = lot->Wafers().At(1);
    m.PlotFeature = 2;  // switched for the fit, and back after the refusal
    m.AddTerm("Offset", "1").Value = 7;
    m.AddTerm("TiltX", "X", 3).Value = 8;
    m.AddTerm("TiltY", "Y", 3).Value = 9;
    m.Coefficients.Item(2)->Sigma = 0.5;
    auto r = m.Fit({});
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.failure().tag, "cModel(FitWafer): ");
    EXPECT_EQ(r.failure().text,
              "There are not enough data points in the set.\r\nModel fit requires at least 3 data points. "
              "\r\nSet contains only: 3 data points.");
    EXPECT_DOUBLE_EQ(m.Coefficients.Item(1)->Value, 7);
    EXPECT_DOUBLE_EQ(m.Coefficients.Item(2)->Value, 8);
    EXPECT_DOUBLE_EQ(m.Coefficients.Item(3)->Value, 9);
    EXPECT_DOUBLE_EQ(m.Coefficients.Item(2)->Sigma, 0.5);
    EXPECT_EQ(m.FitLibrary.Count(), 0);
    EXPECT_EQ(lot->PlotFeature(), 1);
    EXPECT_FLOAT_EQ(lot->PlotFeatureMin, -3);
    EXPECT_FLOAT_EQ(lot->PlotFeatureMax, 4);
    EXPECT_TRUE(cap.boxes.empty());
}

TEST(ModelFitWafer, FivePointsNineTermsUseSixWhileTheMitpKeepsEight) {
    // 3 x 2 sites, one missing: 5 points.
    auto lot = SmallLot(3, 2, [](int a, int b) {
        if (a == 2 && b == 1) return double(kMissingValue);
        return 0.1 + 0.02 * a - 0.03 * b + 0.005 * a * a + 0.004 * a * b;
    });
    cWafer* w = lot->Wafers().At(1);
    Cmodel m;
    m.ParentWafer = w;
    const std::vector<TermDef> terms = {
        {"C", "1", 1, [](double, double, double, double) { return 1.0; }},
        {"X", "X", 1, [](double x, double, double, double) { return x; }},
        {"Y", "Y", 1, [](double, double y, double, double) { return y; }},
        {"XX", "X^2", 1, [](double x, double, double, double) { return x * x; }},
        {"XY", "X*Y", 1, [](double x, double y, double, double) { return x * y; }},
        {"YY", "Y^2", 1, [](double, double y, double, double) { return y * y; }},
        {"XXX", "X^3", 1, [](double x, double, double, double) { return x * x * x; }},
        {"YYY", "Y^3", 1, [](double, double y, double, double) { return y * y * y; }},
        {"XXY", "X^2*Y", 1, [](double x, double y, double, double) { return x * x * y; }},
    };
    AddTerms(m, terms);
    // The MITP of a fit over the same sites with more terms: all 8 columns.
    cField* f = w->Fields().At(1);
    Datam mitp(5, 8, 0, 0);
    int row = 0;
    for (cSite* s : f->sites()) {
        if (IsMissing(s->Points().Item(1)->ValueV)) continue;
        ++row;
        mitp(row, 0) = Value(f->NumberKey + "_" + std::to_string(s->NumberKey()));
        const double x = s->LocationXabs / 1000.0, y = s->LocationYabs / 1000.0;
        for (int k = 1; k <= 8; ++k) mitp(row, k) = Value(terms[static_cast<size_t>(k)].f(x, y, 0, 0));
    }
    ASSERT_EQ(row, 5);
    m.SetMitp(mitp);
    auto r = m.Fit({});
    ASSERT_TRUE(r.ok()) << r.failure().message();
    EXPECT_EQ(m.Mitp().colUb(), 8);
    for (int k = 1; k <= 8; ++k) EXPECT_TRUE(m.Mitp()(3, k).identical(mitp(3, k)));
    ASSERT_EQ(m.FitLibrary.Item(1)->CountValues(), 6);
    for (int k = 1; k <= 9; ++k) EXPECT_EQ(m.Coefficients.Item(k)->Include, k <= 6) << k;
    EXPECT_EQ(r->coef.rowUb(), 6);
    // Six terms through five points: the model passes through them.
    for (cSite* s : f->sites()) {
        const cPoint* p = s->Points().Item(1);
        if (IsMissing(p->ValueV)) continue;
        EXPECT_NEAR(p->ValueV_fit, p->ValueV, 1e-3);
        EXPECT_NEAR(p->ValueV_Res, 0, 1e-3);
    }
}

TEST(ModelFitWafer, MissingValueSkippedInTablesAndWriteBack) {
    auto lot = SmallLot(3, 3, [](int a, int b) {
        if (a == 1 && b == 1) return double(kMissingValue);
        return 0.2 + 0.01 * a + 0.02 * b + 0.001 * ((a * 7 + b * 3) % 5);
    });
    cWafer* w = lot->Wafers().At(1);
    cField* f = w->Fields().At(1);
    Cmodel m;
    m.ParentWafer = w;
    m.AddTerm("Offset", "1");
    m.AddTerm("TiltX", "X", 3);
    m.AddTerm("TiltY", "Y", 3);
    std::string text;
    ASSERT_TRUE(m.LoadWaferMITP(0, false, &text).ok());
    EXPECT_EQ(text, " + A1 * 1 + A2 * X + A3 * Y");
    auto r = m.Fit({});
    ASSERT_TRUE(r.ok()) << r.failure().message();
    ASSERT_EQ(m.Mitp().rowUb(), 8);
    ASSERT_EQ(m.Dependent().rowUb(), 8);
    const std::string gone = f->NumberKey + "_5";
    for (int i = 1; i <= 8; ++i) {
        EXPECT_NE(m.Mitp()(i, 0).toString(), gone);
        EXPECT_NE(m.Dependent()(i, 0).toString(), gone);
        EXPECT_GT(m.Dependent()(i, 1).toDouble(), 0.1);
    }
    const cPoint* hole = f->sites().Item(5)->Points().Item(1);
    EXPECT_TRUE(IsMissing(hole->ValueV_fit));
    EXPECT_TRUE(IsMissing(hole->ValueV_Res));
    const cPoint* other = f->sites().Item(4)->Points().Item(1);
    EXPECT_FALSE(IsMissing(other->ValueV_fit));
    EXPECT_NEAR(other->ValueV, other->ValueV_fit + other->ValueV_Res, 1e-4);
}

TEST(ModelFitWafer, WaferSiteLotWalksTheWaferSites) {
    auto lot = cLot::create();
    lot->DataSource(eDataSourceWaferSite);
    ASSERT_TRUE(lot->PlotWaferSites);
    lot->ValueV_Name = "Rs";
    bool isNew = false;
    cWafer* w = lot->AddWafer("7", isNew);
    int key = 0;
    for (int j = -2; j <= 2; ++j)
        for (int i = -2; i <= 2; ++i) {
            Ref<cSite> s = cSite::New();
            s->setNumberKey(++key);
            s->LocationX = i * 20000.0f;
            s->LocationY = j * 15000.0f;
            auto p = std::make_unique<cPoint>();
            p->ValueV = static_cast<float>(1000 * (0.3 + 0.01 * (i * 20) - 0.02 * (j * 15)));
            w->AddPoint(s, std::move(p));
        }
    lot->CalcWaferPositions();
    w->SitesWafer().Item(13)->setCull(true);
    lot->PlotFeature(1);
    Cmodel m;
    m.ParentWafer = w;
    m.AddTerm("Offset", "1");
    m.AddTerm("TiltX", "X", 3);
    m.AddTerm("TiltY", "Y", 3);
    ScopedCapture cap;
    auto r = m.Fit({});
    ASSERT_TRUE(r.ok()) << r.failure().message();
    ASSERT_EQ(m.Mitp().rowUb(), 24);
    // Absolute positions carry the die offset: the tilts are the generator's.
    EXPECT_NEAR(m.Coefficients.Item(2)->Value, 0.01, 1e-7);
    EXPECT_NEAR(m.Coefficients.Item(3)->Value, -0.02, 1e-7);
    const std::string fieldKey = w->Fields().At(1)->NumberKey;
    EXPECT_EQ(m.Mitp()(1, 0).toString(), fieldKey + "_1");
    EXPECT_EQ(m.Mitp()(13, 0).toString(), fieldKey + "_14");
    EXPECT_TRUE(SawStatus(cap, "Wafer: '" + w->WaferID + "' fit data assembly [1 -0]...Field 1 of 1"));
    EXPECT_TRUE(SawStatus(cap, "Update Field Results: " + fieldKey + ",[ 1 of 1 ]"));
    EXPECT_TRUE(IsMissing(w->SitesWafer().Item(13)->Points().Item(1)->ValueV_fit));
    EXPECT_FALSE(IsMissing(w->SitesWafer().Item(14)->Points().Item(1)->ValueV_fit));
}

TEST(ModelFitWafer, CurrentCoefficientsUnderAHighThresholdLeaveTheMean) {
    auto lot = SmallLot(3, 3, [](int a, int b) { return 0.2 + 0.01 * a + 0.001 * ((a * 5 + b * 3) % 4); });
    Cmodel m;
    m.ParentWafer = lot->Wafers().At(1);
    m.AddTerm("Offset", "1");
    m.AddTerm("TiltX", "X", 3);
    m.AddTerm("TiltY", "Y", 3);
    ModelFitOptions o;
    o.thresholdMultiple = 1e9f;  // nothing is significant
    o.useCurrent = true;
    auto r = m.Fit(o);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    double mean = 0;
    for (int i = 1; i <= 9; ++i) mean += m.Dependent()(i, 1).toDouble() / 9;
    EXPECT_NEAR(m.Coefficients.Item(1)->Value, mean, 1e-12);
    EXPECT_EQ(m.Coefficients.Item(2)->Value, 0.0);
    EXPECT_EQ(m.Coefficients.Item(3)->Value, 0.0);
    EXPECT_EQ(r->equation.find('*'), std::string::npos) << r->equation;
}

TEST(ModelFitWafer, EscapeStopsTheLoadAndIsPassedOn) {
    auto lot = SmallLot(3, 3, [](int a, int b) { return 0.2 + 0.01 * a + 0.02 * b; });
    Cmodel m;
    m.ParentWafer = lot->Wafers().At(1);
    m.AddTerm("Offset", "1").Value = 5;
    m.AddTerm("TiltX", "X", 3);
    SetEscPressed(true);
    auto r = m.Fit({});
    ASSERT_TRUE(r.ok());
    EXPECT_TRUE(r->equation.empty());
    EXPECT_FALSE(m.Mitp().isArray());
    EXPECT_DOUBLE_EQ(m.Coefficients.Item(1)->Value, 5);
    EXPECT_EQ(m.FitLibrary.Count(), 0);
    EXPECT_TRUE(CheckEscKey());  // still there for the lot's loop
    EXPECT_FALSE(CheckEscKey());
}

// ---------------------------------------------------------------- field fits

TEST(ModelFitField, ByRowsShortRowTakesItsMeanAndZeroCoefficients) {
    // Rows at y = -1.5, 0, 1.5 mm; the top row lacks its middle point.
    auto value = [](double x, double y) { return 0.2 + 0.03 * x + 0.01 * x * x + 0.05 * y; };
    auto lot = SmallLot(3, 3, [&](int a, int b) {
        if (a == 1 && b == 2) return double(kMissingValue);
        return value(a - 1.0, (b - 1) * 1.5);
    });
    cWafer* w = lot->Wafers().At(1);
    cField* f = w->Fields().At(1);
    Cmodel m;
    m.ParentWafer = w;
    m.ParentField = f;
    m.FieldModelType = 1;
    m.AddTerm("Piston", "1");
    m.AddTerm("TiltX", "X", 3);
    m.AddTerm("CurvX", "X^2", 4);
    ScopedCapture cap;
    auto r = m.Fit({});
    ASSERT_TRUE(r.ok()) << r.failure().message();
    const Datam& c = r->coef;
    ASSERT_EQ(c.colUb(), 4);
    ASSERT_EQ(c.rowUb(), 4);
    EXPECT_FLOAT_EQ(c(0, 1).toSingle(), -1.5f);
    EXPECT_FLOAT_EQ(c(0, 2).toSingle(), 0.0f);
    EXPECT_FLOAT_EQ(c(0, 3).toSingle(), 1.5f);
    EXPECT_EQ(c(0, 4).toString(), "Mean");
    EXPECT_EQ(c(4, 0).toString(), "MSE");
    // Full rows: three points, three terms, the generator comes back.
    for (int j = 1; j <= 2; ++j) {
        const double y = (j - 2) * 1.5;
        EXPECT_NEAR(c(1, j).toDouble(), 0.2 + 0.05 * y, 1e-6);
        EXPECT_NEAR(c(2, j).toDouble(), 0.03, 1e-6);
        EXPECT_NEAR(c(3, j).toDouble(), 0.01, 1e-6);
    }
    // The short row: mean of value(-1, 1.5) and value(1, 1.5), nothing else.
    const double rowMean = (value(-1, 1.5) + value(1, 1.5)) / 2;
    EXPECT_NEAR(c(1, 3).toDouble(), rowMean, 1e-6);
    EXPECT_EQ(c(2, 3).toDouble(), 0.0);
    EXPECT_EQ(c(3, 3).toDouble(), 0.0);
    // Its MSE: squares about the mean over one degree of freedom.
    const double d = value(1, 1.5) - rowMean;
    EXPECT_NEAR(c(4, 3).toDouble(), 2 * d * d, 1e-8);
    // "Mean" over the lines; the field MSE is the root sum of squares.
    for (int k = 1; k <= 3; ++k)
        EXPECT_NEAR(c(k, 4).toDouble(), (c(k, 1).toDouble() + c(k, 2).toDouble() + c(k, 3).toDouble()) / 3, 1e-12);
    const double m1 = c(4, 1).toDouble(), m2 = c(4, 2).toDouble(), m3 = c(4, 3).toDouble();
    EXPECT_NEAR(c(4, 4).toDouble(), std::sqrt(m1 * m1 + m2 * m2 + m3 * m3), 1e-9);
    EXPECT_NEAR(m.MSE, c(4, 4).toDouble(), 1e-6);
    EXPECT_NEAR(m.Coefficients.Item(2)->Value, c(2, 4).toDouble(), 1e-12);
    EXPECT_TRUE(SawStatus(cap, "..Update Fit Results"));
    // Points: the short row's points get its mean; the others their row model.
    const cPoint* p7 = f->sites().Item(7)->Points().Item(1);  // x = -1, y = 1.5
    EXPECT_NEAR(p7->ValueV_fit, rowMean * 1000, 1e-3);
    EXPECT_NEAR(p7->ValueV_Res, (value(-1, 1.5) - rowMean) * 1000, 1e-3);
    const cPoint* p2 = f->sites().Item(2)->Points().Item(1);
    EXPECT_NEAR(p2->ValueV_fit, value(0, -1.5) * 1000, 1e-3);
    EXPECT_TRUE(IsMissing(f->sites().Item(8)->Points().Item(1)->ValueV_fit));
    EXPECT_NE(LotModelField(*lot).models.Count(), 0);
    EXPECT_NE(m.FitLibrary.Item("1_0_Mean"), nullptr);

    // By columns: the middle column is the short one now.
    Cmodel mc;
    mc.ParentWafer = w;
    mc.ParentField = f;
    mc.FieldModelType = 2;
    mc.AddTerm("Piston", "1");
    mc.AddTerm("TiltY", "Y", 3);
    auto rc = mc.Fit({});
    ASSERT_TRUE(rc.ok()) << rc.failure().message();
    const Datam& cc = rc->coef;
    ASSERT_EQ(cc.colUb(), 4);
    for (int j : {1, 3}) {
        const double x = cc(0, j).toDouble();
        EXPECT_NEAR(cc(1, j).toDouble(), value(x, 0), 1e-6);
        EXPECT_NEAR(cc(2, j).toDouble(), 0.05, 1e-6);
    }
    EXPECT_NEAR(cc(1, 2).toDouble(), (value(0, -1.5) + value(0, 0)) / 2, 1e-6);
    EXPECT_EQ(cc(2, 2).toDouble(), 0.0);
}

TEST(ModelFitField, WholeFieldRecoversPistonTiltsAndCurvatures) {
    const double P = 0.05, TX = 0.002, TY = -0.003, CX = 0.0004, CY = 0.0007;
    auto lot = SmallLot(5, 5, [&](int a, int b) {
        const double x = a - 2.0, y = (b - 2) * 1.5;
        return P + TX * x + TY * y + CX * x * x + CY * y * y;
    });
    cWafer* w = lot->Wafers().At(1);
    cField* f = w->Fields().At(1);
    Cmodel m;
    m.ParentWafer = w;
    m.ParentField = f;
    m.FieldModelType = 3;
    m.AddTerm("Piston", "1");
    m.AddTerm("TiltX", "X", 3);
    m.AddTerm("TiltY", "Y", 3);
    m.AddTerm("CurvX", "X^2", 4);
    m.AddTerm("CurvY", "Y^2", 4);
    ModelFitOptions o;
    o.rangeCull = 1e6f;
    auto r = m.Fit(o);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    const double truth[] = {P, TX, TY, CX, CY};
    for (int k = 1; k <= 5; ++k) {
        EXPECT_NEAR(m.Coefficients.Item(k)->Value, truth[k - 1], 1e-7) << k;
        EXPECT_TRUE(m.Coefficients.Item(k)->Include);
    }
    ASSERT_EQ(r->coef.rowUb(), 6);
    EXPECT_EQ(r->coef(6, 0).toString(), "MSE");
    EXPECT_EQ(r->coef(0, 1).toString(), f->NumberKey);
    EXPECT_LT(m.MSE, 1e-10);
    EXPECT_EQ(m.Mitp().colUb(), 8);
    EXPECT_EQ(m.Mitp()(0, 5).toString(), "Xloc");
    EXPECT_EQ(m.Mitp()(0, 8).toString(), "Tloc");
    EXPECT_NE(m.FitLibrary.Item("1_0_" + f->NumberKey), nullptr);
    for (cSite* s : f->sites()) {
        const cPoint* p = s->Points().Item(1);
        EXPECT_NEAR(p->ValueV_fit, p->ValueV, 1e-3);
    }
}

TEST(ModelFitField, SmallFieldTakesTermsByThreshold) {
    auto lot = SmallLot(3, 1, [](int a, int) { return 0.1 + 0.01 * a; });
    cWafer* w = lot->Wafers().At(1);
    Cmodel m;
    m.ParentWafer = w;
    m.ParentField = w->Fields().At(1);
    m.AddTerm("Piston", "1");
    m.AddTerm("TiltX", "X", 3);
    m.AddTerm("CurvX", "X^2", 4);
    m.AddTerm("TiltY", "Y", 3);
    std::string text;
    ASSERT_TRUE(m.LoadFieldMITP(0, false, &text).ok());
    EXPECT_EQ(text, " + A1 * 1 + A2 * X + A3 * Y");
    EXPECT_EQ(m.Mitp()(0, 2).toString(), "TiltY");
    auto r = m.Fit({});
    ASSERT_TRUE(r.ok()) << r.failure().message();
    EXPECT_NEAR(m.Coefficients.Item(2)->Value, 0.01, 1e-6);
    EXPECT_FALSE(m.Coefficients.Item(3)->Include);
    EXPECT_TRUE(m.Coefficients.Item(4)->Include);
}

// ---------------------------------------------------------------- display factors

TEST(ModelDisplayFactor, ByHand) {
    cCoefficient c;
    auto factor = [&](const char* units, long code) {
        c.DisplayUnits = units;
        c.DisplayFactor = -1;
        EXPECT_TRUE(c.CalcDisplayFactor(code).ok()) << units << " " << code;
        return c.DisplayFactor;
    };
    // nm/cm2: 1000 / 0.1^2 over the base of the feature's unit.
    EXPECT_FLOAT_EQ(factor("nm/cm2", 0), 1e5f);
    EXPECT_FLOAT_EQ(factor("nm/cm2", 2), 100.0f);
    EXPECT_FLOAT_EQ(factor("nm/cm2", 1), 10.0f);
    EXPECT_FLOAT_EQ(factor("nm/cm2", 3), 1e8f);
    EXPECT_FLOAT_EQ(factor("nm/cm2", 4), 1000.0f);
    EXPECT_FLOAT_EQ(factor("nm/cm^2", 0), 1e5f);
    EXPECT_FLOAT_EQ(factor("nm/cm3", 0), 1e6f);
    EXPECT_FLOAT_EQ(factor("um/mm", 0), 1.0f);
    EXPECT_FLOAT_EQ(factor("A/mm^2", 2), 10.0f);  // 1e4 / 1 / 1000
    // urad and ppm: 1000 over the base.
    EXPECT_FLOAT_EQ(factor("urad", 0), 1000.0f);
    EXPECT_FLOAT_EQ(factor("URAD", 3), 1e6f);
    EXPECT_FLOAT_EQ(factor("ppm", 2), 1.0f);
    // No "/": 1.
    EXPECT_FLOAT_EQ(factor("um", 2), 1.0f);
    // A unit code outside the table leaves the factor.
    c.DisplayUnits = "nm/cm2";
    c.DisplayFactor = 42;
    EXPECT_TRUE(c.CalcDisplayFactor(8).ok());
    EXPECT_FLOAT_EQ(c.DisplayFactor, 42.0f);
    // A half no rule knows.
    c.DisplayUnits = "xyz/cm";
    auto bad = c.CalcDisplayFactor(0);
    ASSERT_FALSE(bad.ok());
    EXPECT_EQ(bad.failure().tag, "cCoefficient(CalcDisplayFactor): ");
    EXPECT_EQ(bad.failure().text, "Improper Units-of-Measure set for variable calculation.");
    EXPECT_FLOAT_EQ(c.DisplayFactor, 42.0f);
}

TEST(ModelDisplayFactor, UnitsDetermination) {
    struct Case {
        const char* text;
        long code;
        double exponent;
    };
    const Case cases[] = {
        {"cm2", 4, 2},  {"cm^3", 4, 3},   {"CM", 4, 1},        {"urad", 7, 1}, {"mrad", 7, 1},
        {"nm", 2, 1},   {"nanometer", 2, 1}, {"Angstrom", 1, 1}, {"deg", 6, 1},  {"mm", 3, 1},
        {"um^2", 0, 2}, {"micron", 0, 1}, {"m", 5, 1},         {"A", 1, 1},    {"C", 6, 1},
    };
    for (const Case& k : cases) {
        auto u = UnitsDetermination(k.text);
        ASSERT_TRUE(u.ok()) << k.text;
        EXPECT_EQ(u->code, k.code) << k.text;
        EXPECT_DOUBLE_EQ(u->exponent, k.exponent) << k.text;
    }
    auto empty = UnitsDetermination("");
    ASSERT_FALSE(empty.ok());
    EXPECT_EQ(empty.failure().tag, "cCoefficient(UnitsDetermination): ");
    EXPECT_EQ(empty.failure().text, "No input string.");
    EXPECT_FALSE(UnitsDetermination("xyz").ok());
}

// ---------------------------------------------------------------- speed

// A million points over 25 wafers, ten terms: run by hand with
// --gtest_also_run_disabled_tests (it builds a 600 MB lot first).
TEST(ModelFitSpeed, DISABLED_MillionPointsOverTwentyFiveWafers) {
    LotShape sh;
    sh.wafers = 25;
    sh.fieldsX = 10;
    sh.fieldsY = 10;
    sh.sitesX = 20;
    sh.sitesY = 20;
    sh.pitchY = 1400;
    sh.features = 2;
    auto lot = MakeStatsLot(sh, [](const PointAt& at) {
        std::array<double, 8> v{};
        v[0] = 0.1 + 0.001 * at.a + 0.002 * at.b + 0.0001 * at.field + 0.00001 * ((at.site * 7919) % 13);
        return v;
    });
    lot->PlotFeature(1);
    ASSERT_EQ(lot->TotalPoints(), 1000000);
    std::vector<std::unique_ptr<Cmodel>> models;
    for (cWafer* w : lot->Wafers()) {
        auto m = std::make_unique<Cmodel>();
        m->ParentWafer = w;
        m->Key = "Speed_1_0";
        AddTerms(*m, WaferTerms());
        m->AddTerm("TrefoilX", "R^3*cos(3*Theta)", 5);
        m->AddTerm("TrefoilY", "R^3*sin(3*Theta)", 5);
        models.push_back(std::move(m));
    }
    ScopedCapture cap;
    const auto t0 = std::chrono::steady_clock::now();
    for (auto& m : models) ASSERT_TRUE(m->Fit({}).ok());
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("25 wafer fits, 1e6 points, 10 terms: %.3f s\n", seconds);
    EXPECT_LT(seconds, 1.5);
}

}  // namespace
}  // namespace zorv
