// The wafer and field model reports and their charts, on lots made from known
// wafer and field terms: the blocks and labels, and the numbers worked from
// the terms put in (not from the fits).
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include "base/identity.h"
#include "graphics/chart.h"
#include "graphics/recording_surface.h"
#include "model/lot_fit.h"
#include "procwin/model_reports.h"
#include "stats/stats_fixture.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::testing;

namespace {

// ---------------------------------------------------------------- helpers

struct Hand {
    double n = 0, mean = 0, sd = 0, sem = 0, mx = 0, mn = 0;
};
Hand HandStats(const std::vector<double>& v) {
    Hand h;
    h.n = static_cast<double>(v.size());
    if (v.empty()) return h;
    h.mean = std::accumulate(v.begin(), v.end(), 0.0) / h.n;
    double ss = 0;
    for (double x : v) ss += (x - h.mean) * (x - h.mean);
    h.sd = v.size() > 1 ? std::sqrt(ss / (h.n - 1)) : 0.0;
    h.sem = h.sd / std::sqrt(h.n);
    h.mx = *std::max_element(v.begin(), v.end());
    h.mn = *std::min_element(v.begin(), v.end());
    return h;
}

// The row whose column 0 reads `label`, from `from` on; -1 when none.
int RowOf(const Datam& t, const std::string& label, int from = 0) {
    for (int r = std::max(from, t.rowLb()); r <= t.rowUb(); ++r)
        if (t(r, 0).toString() == label) return r;
    return -1;
}
int ColOf(const Datam& t, int row, const std::string& head) {
    for (int c = t.colLb(); c <= t.colUb(); ++c)
        if (t(row, c).toString() == head) return c;
    return -1;
}
// A block's data row: the first row under the header `header` whose cells
// in the given columns read the given texts.
int FindRow(const Datam& t, int header, std::vector<std::pair<std::string, std::string>> match) {
    for (int r = header + 1; r <= t.rowUb() && t(r, 0).toString().rfind("____", 0) != 0; ++r) {
        bool ok = true;
        for (const auto& [h, v] : match) ok = ok && t(r, ColOf(t, header, h)).toString() == v;
        if (ok) return r;
    }
    return -1;
}
double At(const Datam& t, int header, int row, const std::string& head) {
    const int c = ColOf(t, header, head);
    EXPECT_GE(c, 0) << head;
    return c >= 0 ? t(row, c).toDouble() : NAN;
}

// A small deterministic noise of at most 1e-4 (display units). Data without
// any would leave the fits' residuals at rounding level, where the default
// four-sigma range cull throws out rows at random.
double Noise(const cWafer& w, const cField& f, const cSite& s) {
    return 1e-4 * (((w.Number() * 7919 + f.Number * 104729 + s.NumberKey() * 1299709L) % 21) - 10) / 10.0;
}

// ---------------------------------------------------------------- a wafer signature

// V = 2 + 0.01 X - 0.02 Y + 3e-4 X^2 - 2e-4 Y^2 (absolute mm) + 0.5 in family 2.
constexpr double kWafer[5] = {2, 0.01, -0.02, 3e-4, -2e-4};
double Signature(double X, double Y) { return kWafer[1] * X + kWafer[2] * Y + kWafer[3] * X * X + kWafer[4] * Y * Y; }

std::unique_ptr<Cmodel> QuadModel(int family) {
    auto m = std::make_unique<Cmodel>();
    m->Name = "Quad";
    m->PlotFeature = 1;
    m->FamilyType = family;
    m->Key = "Quad_1_" + std::to_string(family);
    m->AddTerm("Offset", "1", 1);
    m->AddTerm("TiltX", "X", 3, "urad");
    m->AddTerm("TiltY", "Y", 3, "urad");
    m->AddTerm("BowX", "X^2", 4, "nm/cm2");
    m->AddTerm("BowY", "Y^2", 4, "nm/cm2");
    return m;
}

std::shared_ptr<cLot> WaferLot() {
    LotShape shape;
    shape.wafers = 2;
    shape.fieldsX = 3;
    shape.fieldsY = 2;
    shape.sitesX = shape.sitesY = 3;
    shape.pitchX = 4000;
    shape.pitchY = 5000;
    shape.families = 2;
    auto lot = MakeStatsLot(shape, [](const PointAt&) { return std::array<double, 8>{}; });
    lot->LotName = "WLot";
    lot->forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        const double X = s.LocationXabs / 1000.0, Y = s.LocationYabs / 1000.0;
        p.ValueV = static_cast<float>((kWafer[0] + Signature(X, Y) + 0.5 * (s.Family() - 1) + Noise(w, f, s)) * 1000);
    });
    lot->FamilyNames = Datam(2, 3, 0, 0);
    lot->FamilyNames(0, 1) = Value("Name");
    lot->FamilyNames(1, 1) = Value("Dense");
    lot->FamilyNames(2, 1) = Value("Iso");
    for (cWafer* w : lot->Wafers()) {
        Models& ms = WaferModels(*w);
        for (int f : {1, 2, 0}) {
            auto m = QuadModel(f);
            const std::string key = m->Key;
            ms.models.Add(std::move(m), key);
        }
        WaferModels(*w);
    }
    return lot;
}

ModelReportSetup FixedSetup(const cLot& lot) {
    ModelReportSetup s = ReportSetupFor(lot);
    s.date = 45293 + (3 * 60 + 4) / 1440.0;  // 2024-01-02 03:04
    s.range = 0.3f;
    s.sigma = 3;
    s.rangeCulled = 2;
    s.sigmaCulled = 1;
    return s;
}

// ---------------------------------------------------------------- a field signature

// Each field: V = piston + 0.02 x - 0.01 y (field mm), piston = 1 + focus +
// 0.01 (dose - 20) + 0.5 in family 2; focus -0.1, 0, 0.1 by column, dose 20,
// 22 by row.
double Piston(double focus, double dose, long family) { return 1 + focus + 0.01 * (dose - 20) + 0.5 * (family - 1); }
double FieldSignature(double x, double y) { return 0.02 * x - 0.01 * y; }

std::shared_ptr<cLot> FieldLot() {
    LotShape shape;
    shape.wafers = 2;
    shape.fieldsX = 3;
    shape.fieldsY = 2;
    shape.sitesX = shape.sitesY = 5;
    shape.pitchX = 4000;
    shape.pitchY = 5000;
    shape.families = 2;
    auto lot = MakeStatsLot(shape, [](const PointAt&) { return std::array<double, 8>{}; });
    lot->LotName = "FLot";
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) {
            f->Focus = -0.1f + 0.1f * static_cast<float>(f->LocationX / lot->DieSizeX);
            f->Dose = 20 + 2 * static_cast<float>(f->LocationY / lot->DieSizeY);
            ModelsField& mf = FieldModels(*f);
            for (int fam : {1, 2}) {
                auto m = LoadPWModel(1);
                m->FamilyType = fam;
                m->Key = "PWField_1_" + std::to_string(fam);
                const std::string key = m->Key;
                mf.models.Add(std::move(m), key);
            }
            FieldModels(*f);
        }
    lot->forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        const double x = (s.LocationX + lot->SiteXoffset) / 1000.0, y = (s.LocationY + lot->SiteYoffset) / 1000.0;
        const double v = Piston(f.Focus, f.Dose, s.Family()) + FieldSignature(x, y) + Noise(w, f, s);
        p.ValueV = static_cast<float>(v * 1000);
    });
    return lot;
}

struct FieldFixture {
    std::shared_ptr<cLot> lot = FieldLot();
    Datam table;
    FieldFixture() {
        LotFitSetup setup;
        setup.doWafer = false;
        setup.doField = true;
        auto r = LotModelFit(*lot, setup);
        EXPECT_TRUE(r) << r.failure().message();
        if (r) table = r->fieldReport;
    }
};

}  // namespace

// ---------------------------------------------------------------- wafer report

TEST(ModelReports, WaferReportBlocksAndNumbers) {
    auto lot = WaferLot();
    // Two culled points of family 1 ("Dense"), before the fit: out of it too.
    std::vector<double> culled;
    int k = 0;
    lot->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
        if (s.Family() != 1) return;
        const int i = k++;
        if (i == 3 || i == 9) {
            culled.push_back(p.ValueV / 1000.0);
            p.setCull(true);
        }
    });
    ASSERT_EQ(culled.size(), 2u);
    auto fit = LotModelFit(*lot, LotFitSetup{});
    ASSERT_TRUE(fit) << fit.failure().message();

    auto rep = CreateWaferReport(*lot, fit->waferReport, FixedSetup(*lot));
    ASSERT_TRUE(rep) << rep.failure().message();
    const Datam& t = *rep;

    // The head.
    EXPECT_EQ(t(0, 0).toString(),
              "Modeled Wafer Uniformity Response - Feature: CD Ver: " + VersionString() + "  2024-01-02 03:04");
    EXPECT_EQ(t(1, 0).toString(), "   Lot: ");
    EXPECT_EQ(t(1, 1).toString(), "WLot");
    EXPECT_EQ(t(2, 0).toString(), "   Path: ");
    const int cull = RowOf(t, "Data Culling");
    ASSERT_GT(cull, 0);
    EXPECT_EQ(t(cull + 1, 0).toString(), "Method");
    EXPECT_EQ(t(cull + 1, 1).toString(), "Setting");
    EXPECT_EQ(t(cull + 1, 2).toString(), "#Culled");
    EXPECT_EQ(t(cull + 2, 0).toString(), "   Range:");
    EXPECT_NEAR(t(cull + 2, 1).toDouble(), 0.3, 1e-6);
    EXPECT_EQ(t(cull + 2, 2).toDouble(), 2);
    EXPECT_EQ(t(cull + 3, 0).toString(), "   Sigma:");
    EXPECT_EQ(t(cull + 3, 2).toDouble(), 1);

    // The summary: the MEAN rows of the models, family by name.
    const int sum = RowOf(t, " Summary of Modeled Offset and Residuals");
    const int var = RowOf(t, "Systematic Across-Wafer Variance");
    const int cds = RowOf(t, "Culled Data Statistics");
    ASSERT_TRUE(sum > cull && var > sum && cds > var) << sum << " " << var << " " << cds;
    const int h = sum + 1;
    EXPECT_EQ(t(h, 0).toString(), "Feature");
    EXPECT_EQ(t(h, 1).toString(), "Family");
    EXPECT_EQ(t(h, 2).toString(), "Offset");
    EXPECT_EQ(t(h, 3).toString(), "Offset_SE");
    EXPECT_EQ(ColOf(t, h, "MSE"), 12);
    const int dense = FindRow(t, h, {{"Family", "Dense"}}), iso = FindRow(t, h, {{"Family", "Iso"}});
    const int all = FindRow(t, h, {{"Family", "All Features"}});
    ASSERT_TRUE(dense > 0 && iso > 0 && all > 0);
    EXPECT_EQ(t(dense, 0).toString(), "CD");
    EXPECT_NEAR(At(t, h, dense, "Offset"), 2.0, 2e-4);
    EXPECT_NEAR(At(t, h, iso, "Offset"), 2.5, 2e-4);
    EXPECT_NEAR(At(t, h, dense, "TiltX"), 0.01, 1e-4);
    EXPECT_NEAR(At(t, h, iso, "TiltY"), -0.02, 1e-4);
    EXPECT_NEAR(At(t, h, dense, "MSE"), 0, 1e-7);

    // The systematic signature less the offset, from the terms put in.
    for (long fam : {1L, 2L, 0L}) {
        SCOPED_TRACE(fam);
        std::vector<double> v;
        lot->forEachLive([&](cWafer&, cField&, cSite& s, cPoint&) {
            if (fam == 0 || s.Family() == fam) v.push_back(Signature(s.LocationXabs / 1000.0, s.LocationYabs / 1000.0));
        });
        const Hand hs = HandStats(v);
        const int vh = var + 1;
        EXPECT_EQ(t(vh, 2).toString(), "Count");
        const int r = FindRow(t, vh, {{"Family", fam == 1 ? "Dense" : fam == 2 ? "Iso" : "All Features"}});
        ASSERT_GT(r, 0);
        EXPECT_EQ(At(t, vh, r, "Count"), hs.n);
        EXPECT_NEAR(At(t, vh, r, "Mean"), hs.mean, 5e-4);
        EXPECT_NEAR(At(t, vh, r, "StDev"), hs.sd, 5e-4);
        EXPECT_NEAR(At(t, vh, r, "Maximum"), hs.mx, 5e-4);
        EXPECT_NEAR(At(t, vh, r, "Minimum"), hs.mn, 5e-4);
        EXPECT_NEAR(At(t, vh, r, "Range"), hs.mx - hs.mn, 5e-4);
        EXPECT_NEAR(At(t, vh, r, "MinMax"), std::fabs(hs.mn) > std::fabs(hs.mx) ? hs.mn : hs.mx, 5e-4);
        EXPECT_NEAR(At(t, vh, r, "Mean+3Sigma"), std::fabs(hs.mean) + 3 * hs.sd, 5e-4);
    }

    // The culled points: two of "Dense", none of "Iso".
    const Hand hc = HandStats(culled);
    const int ch = cds + 1;
    const int cd = FindRow(t, ch, {{"Feature", "CD"}, {"Family", "Dense"}});
    const int ci = FindRow(t, ch, {{"Feature", "CD"}, {"Family", "Iso"}});
    ASSERT_TRUE(cd > 0 && ci > 0);
    EXPECT_EQ(At(t, ch, cd, "Count"), 2);
    EXPECT_NEAR(At(t, ch, cd, "Mean"), hc.mean, 1e-4);
    EXPECT_NEAR(At(t, ch, cd, "Maximum"), hc.mx, 1e-4);
    EXPECT_EQ(At(t, ch, ci, "Count"), 0);
    EXPECT_TRUE(t(ci, ColOf(t, ch, "Mean")).isEmpty());
    EXPECT_EQ(t(t.rowUb(), 0).toString(), "________");
}

TEST(ModelReports, WaferReportSavedAndRefusals) {
    auto lot = WaferLot();
    auto fit = LotModelFit(*lot, LotFitSetup{});
    ASSERT_TRUE(fit) << fit.failure().message();
    const std::filesystem::path dir = std::filesystem::path(ZORV_TEST_TMP) / "pw_model_reports";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    WorkbookPtr wb = Workbook::create((dir / "Reports.xlsx").string(), "Information");
    ModelReportSetup setup = FixedSetup(*lot);
    setup.workbook = wb.get();
    auto rep = CreateWaferReport(*lot, fit->waferReport, setup);
    ASSERT_TRUE(rep) << rep.failure().message();
    EXPECT_EQ(WaferReportSheet("CD"), "WaferReport_CD");
    Worksheet* ws = wb->sheet("WaferReport_CD");
    ASSERT_NE(ws, nullptr);
    EXPECT_EQ(ws->cell(1, 1).toString(), (*rep)(0, 0).toString());
    Worksheet* ix = wb->sheet("Index");
    ASSERT_NE(ix, nullptr);
    bool indexed = false;
    for (int row = 1; row <= ix->lastRow(); ++row)
        indexed = indexed || (ix->cell(row, 1).toString() == "WaferReport_CD" &&
                              ix->cell(row, 3).toString() == "Modeled Wafer Uniformity Response: WLot");
    EXPECT_TRUE(indexed);

    auto none = CreateWaferReport(*lot, Datam::fromRows({{"a", "b"}, {1, 2}}), setup);
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().tag, "PWcommon(CreateWaferReport): ");
    EXPECT_EQ(none.failure().text, "Could not find first 'Family' row.");
}

// ---------------------------------------------------------------- field report

TEST(ModelReports, FieldReportExposureAndFamilyBlocks) {
    FieldFixture fx;
    ASSERT_TRUE(fx.table.isArray());
    ScopedCapture cap;
    ModelReportSetup setup = FixedSetup(*fx.lot);
    auto rep = CreateFieldReport(fx.table, setup, fx.lot.get());
    ASSERT_TRUE(rep) << rep.failure().message();
    const Datam& t = *rep;
    EXPECT_NE(std::find(cap.statuses.begin(), cap.statuses.end(), "Creating Field-Model Summary Report"),
              cap.statuses.end());
    EXPECT_EQ(t(0, 0).toString(),
              "Modeled Field Uniformity Response - Feature: CD Ver: " + VersionString() + "  2024-01-02 03:04");
    EXPECT_EQ(t(1, 1).toString(), "FLot");
    ASSERT_GT(RowOf(t, "Data Culling"), 0);

    // Exposure range: three focus steps, two dose steps.
    const int ex = RowOf(t, "Exposure Range");
    ASSERT_GT(ex, 0);
    const char* labels[] = {"Focus Max:", "Focus Steps:", "Focus Min:", "Dose Max:", "Dose Steps:", "Dose Min:"};
    const double want[] = {0.1, 3, -0.1, 22, 2, 20};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(t(ex + 1 + i, 0).toString(), labels[i]);
        EXPECT_NEAR(t(ex + 1 + i, 1).toDouble(), want[i], 1e-9) << labels[i];
    }

    // By exposure: the piston put in, two fields (wafers) each.
    const int se = RowOf(t, "Summary by Exposure: Modeled Offset and Residuals");
    ASSERT_GT(se, ex);
    const int h = se + 1;
    for (const char* head : {"Feature", "Family", "Focus", "Dose", "Fields", "Piston", "Piston_SE", "TiltX", "MSE"})
        EXPECT_GE(ColOf(t, h, head), 0) << head;
    int rows = 0;
    for (int r = h + 1; t(r, 0).toString() != "________"; ++r) {
        ++rows;
        const double focus = At(t, h, r, "Focus"), dose = At(t, h, r, "Dose");
        const long fam = static_cast<long>(At(t, h, r, "Family"));
        EXPECT_EQ(At(t, h, r, "Fields"), 2);
        EXPECT_NEAR(At(t, h, r, "Piston"), Piston(focus, dose, fam), 3e-4) << focus << " " << dose << " " << fam;
        EXPECT_NEAR(At(t, h, r, "TiltX"), 0.02, 5e-5);
        EXPECT_NEAR(At(t, h, r, "TiltY"), -0.01, 5e-5);
    }
    EXPECT_EQ(rows, 3 * 2 * 2);

    // The family blocks.
    const int fo = RowOf(t, kFamilyOffsetTitle), fv = RowOf(t, kFamilyVarianceTitle);
    const int fr = RowOf(t, kFamilyResidualTitle);
    ASSERT_TRUE(fo > se && fv > fo && fr > fv);
    EXPECT_EQ(std::string(kFamilyOffsetTitle), "Family Summary: Modeled Offset and Residuals");
    EXPECT_EQ(std::string(kFamilyVarianceTitle), "Family Summary: Systematic Across-Field Variance");
    const int oh = fo + 1;
    EXPECT_EQ(t(oh, 0).toString(), "Family");
    EXPECT_EQ(t(oh, 3).toString(), "Piston");
    EXPECT_EQ(t(oh, 4).toString(), "SE");
    EXPECT_GE(ColOf(t, oh, "TiltX_SE"), 0);
    EXPECT_GE(ColOf(t, oh, "MSE_Fit"), 0);
    EXPECT_GE(ColOf(t, oh, "StDev_Fit"), 0);
    for (long fam : {1L, 2L}) {
        SCOPED_TRACE(fam);
        // The pistons of the twelve fields of a family.
        std::vector<double> pistons;
        for (int w = 0; w < 2; ++w)
            for (double focus : {-0.1, 0.0, 0.1})
                for (double dose : {20.0, 22.0}) pistons.push_back(Piston(focus, dose, fam));
        const Hand hp = HandStats(pistons);
        const int r = FindRow(t, oh, {{"Family", std::to_string(fam)}});
        ASSERT_GT(r, 0);
        EXPECT_EQ(t(r, 1).toString(), "CD");
        EXPECT_EQ(At(t, oh, r, "Fields"), 12);
        EXPECT_NEAR(At(t, oh, r, "Piston"), hp.mean, 3e-4);
        EXPECT_NEAR(At(t, oh, r, "CurvX"), 0, 1e-5);

        const int vh = fv + 1;
        const int vr = FindRow(t, vh, {{"Family", std::to_string(fam)}, {"Term", "Piston"}});
        ASSERT_GT(vr, 0);
        double ss = 0;
        for (double x : pistons) ss += x * x;
        EXPECT_NEAR(At(t, vh, vr, "Mean"), hp.mean, 3e-4);
        EXPECT_NEAR(At(t, vh, vr, "RMSS"), std::sqrt(ss / 12), 3e-4);
        EXPECT_NEAR(At(t, vh, vr, "Mean+3Sigma"), std::fabs(hp.mean) + 3 * hp.sd, 1e-3);

        // Point by point: the modelled values and their spread in the field.
        std::vector<double> fitted, signature;
        fx.lot->forEachLive([&](cWafer&, cField& f, cSite& s, cPoint&) {
            if (s.Family() != fam) return;
            const double x = (s.LocationX + fx.lot->SiteXoffset) / 1000.0;
            const double y = (s.LocationY + fx.lot->SiteYoffset) / 1000.0;
            fitted.push_back(Piston(f.Focus, f.Dose, fam) + FieldSignature(x, y));
            signature.push_back(FieldSignature(x, y));
        });
        const Hand hf = HandStats(fitted), hs = HandStats(signature);
        const int rh = fr + 1;
        const int rr = FindRow(t, rh, {{"Family", std::to_string(fam)}});
        ASSERT_GT(rr, 0);
        EXPECT_EQ(At(t, rh, rr, "Count"), hf.n);
        EXPECT_NEAR(At(t, rh, rr, "Mean"), hf.mean, 3e-4);
        EXPECT_NEAR(At(t, rh, rr, "SEM"), hf.sem, 1e-4);
        // Every field holds the same signature: its spread about each field's mean is the signature's.
        EXPECT_NEAR(At(t, rh, rr, "System StDev"), hs.sd, 5e-4);
        EXPECT_NEAR(At(t, rh, rr, "System Range"), hs.mx - hs.mn, 5e-4);
        EXPECT_NEAR(At(t, rh, rr, "Residual StDev"), 0, 2e-4);
        EXPECT_NEAR(At(t, rh, rr, "Residual Range"), 0, 4e-4);
    }
    EXPECT_EQ(t(t.rowUb(), 0).toString(), "________");
}

TEST(ModelReports, FamilyReportAloneAndItsRefusal) {
    FieldFixture fx;
    auto fam = FamilyReport(fx.table);
    ASSERT_TRUE(fam) << fam.failure().message();
    EXPECT_EQ((*fam)(0, 0).toString(), kFamilyOffsetTitle);
    EXPECT_GT(RowOf(*fam, kFamilyVarianceTitle), 0);
    EXPECT_LT(RowOf(*fam, kFamilyResidualTitle), 0);  // the residuals need the lot

    // The report read back as the table gives the same pistons: a fit table
    // whose first column is "FullField" is read the same way.
    Datam full = fx.table;
    full(0, 0) = Value("FullField");
    auto again = FamilyReport(full);
    ASSERT_TRUE(again);
    EXPECT_EQ((*again)(2, 3).toDouble(), (*fam)(2, 3).toDouble());

    auto bad = FamilyReport(Datam::fromRows({{"Model", "Field", "Feature"}, {"x", "1", "CD"}}));
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.failure().tag, "PWcommon(FamilyReport): ");
    EXPECT_EQ(bad.failure().text, "Could not find first 'Family' row.");
    auto badField = CreateFieldReport(Datam(), ModelReportSetup{});
    ASSERT_FALSE(badField);
    EXPECT_EQ(badField.failure().text, "Could not find first 'Family' row.");
}

TEST(ModelReports, FieldReportSavedAsFieldResponse) {
    FieldFixture fx;
    const std::filesystem::path dir = std::filesystem::path(ZORV_TEST_TMP) / "pw_model_reports_field";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    WorkbookPtr wb = Workbook::create((dir / "Reports.xlsx").string(), "Information");
    ModelReportSetup setup = FixedSetup(*fx.lot);
    setup.workbook = wb.get();
    auto rep = CreateFieldReport(fx.table, setup, fx.lot.get());
    ASSERT_TRUE(rep) << rep.failure().message();
    Worksheet* ws = wb->sheet("FieldResponse_CD");
    ASSERT_NE(ws, nullptr);
    EXPECT_EQ(ws->cell(1, 1).toString(), (*rep)(0, 0).toString());
    EXPECT_TRUE(std::filesystem::exists(dir / "Reports.xlsx"));
}

// ---------------------------------------------------------------- charts

TEST(ModelReports, FieldReportGraphsBySelection) {
    FieldFixture fx;
    FieldGraphSetup g;
    g.name = "FLot";
    auto all = CreateFieldReportGraphs(fx.table, g);
    ASSERT_TRUE(all) << all.failure().message();
    ASSERT_EQ(all->size(), 1u);  // one feature
    cGraphic& c = *all->front();
    EXPECT_EQ(c.TitleObj.TitleString, "FLot - Modeled Field Piston, Feature:CD & Spreadsheet: (FieldResponse_CD)");
    ASSERT_EQ(c.Series.Count(), 4);  // two doses of two families
    const cSeries* s = c.Series.Item("Dose: 20.00 Family: 1");
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(s->PlotData.rowUb(), 3);  // three focus steps, rising
    EXPECT_EQ(s->PlotData(0, s->Xcol).toString(), "Focus");
    EXPECT_EQ(s->PlotData(0, s->Ycol).toString(), "Piston");
    EXPECT_EQ(s->PlotData(0, s->YerrCol1).toString(), "SE");
    for (int r = 1; r <= 3; ++r) {
        const double focus = -0.1 + 0.1 * (r - 1);
        EXPECT_NEAR(s->PlotData(r, s->Xcol).toDouble(), focus, 1e-6);
        EXPECT_NEAR(s->PlotData(r, s->Ycol).toDouble(), Piston(focus, 20, 1), 3e-4);
    }
    RecordingSurface surface;
    c.Container(&surface);
    ASSERT_TRUE(c.PlotChart());
    const auto texts = surface.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), c.TitleObj.TitleString), texts.end());

    g.selection = "22";
    auto one = CreateFieldReportGraphs(fx.table, g);
    ASSERT_TRUE(one);
    ASSERT_EQ(one->front()->Series.Count(), 2);
    EXPECT_NE(one->front()->Series.Item("Dose: 22.00 Family: 2"), nullptr);

    g.seriesByDose = false;
    g.selection = "All Dose";
    auto byFocus = CreateFieldReportGraphs(fx.table, g);
    ASSERT_TRUE(byFocus);
    EXPECT_EQ(byFocus->front()->Series.Count(), 6);
    const cSeries* f = byFocus->front()->Series.Item("Focus: -0.10 Family: 2");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->PlotData(0, f->Xcol).toString(), "Dose");

    g.seriesByDose = true;
    g.selection = "30";
    auto none = CreateFieldReportGraphs(fx.table, g);
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().tag, "PWcommon(CreateFieldReportGraphs): ");
    EXPECT_EQ(none.failure().text, "No data for graph generation.");
}

TEST(ModelReports, FamilyPlotThreeCharts) {
    FieldFixture fx;
    auto rep = CreateFieldReport(fx.table, FixedSetup(*fx.lot), fx.lot.get());
    ASSERT_TRUE(rep) << rep.failure().message();
    auto charts = GraphFamilyPlot(*rep, ChartSetup{"FLot", "", "nm"});
    ASSERT_TRUE(charts) << charts.failure().message();

    cGraphic& p = *charts->piston;
    EXPECT_EQ(p.TitleObj.TitleString, "FLot - Family Piston Response");
    EXPECT_EQ(p.Axes.Item("Y")->Label,
              "Modeled Field Piston (nm) with Residual StDev Uncertainty, Systematic Field Mean with SEM Uncertainty");
    EXPECT_EQ(p.Axes.Item("X")->Label, "Family");
    ASSERT_EQ(p.Series.Count(), 2);
    const Datam& d = p.Data();
    const cSeries* piston = p.Series.Item("Piston");
    const cSeries* mean = p.Series.Item("Mean");
    ASSERT_TRUE(piston && mean);
    EXPECT_EQ(d(0, piston->Ycol).toString(), "Piston");
    EXPECT_EQ(d(0, piston->YerrCol1).toString(), "StDev");
    EXPECT_EQ(d(0, piston->YerrCol2).toString(), "StDev");
    EXPECT_EQ(d(0, mean->Ycol).toString(), "Mean");
    EXPECT_EQ(d(0, mean->YerrCol1).toString(), "SEM");
    ASSERT_EQ(d.rowUb(), 2);
    // Family 1: the mean of its twelve pistons, put in as 1 + focus + 0.01 (dose - 20).
    EXPECT_EQ(d(1, piston->Xcol).toDouble(), 1);
    EXPECT_NEAR(d(1, piston->Ycol).toDouble(), 1.01, 3e-4);
    EXPECT_NEAR(d(2, piston->Ycol).toDouble(), 1.51, 3e-4);
    EXPECT_NEAR(d(1, piston->YerrCol1).toDouble(), 0, 2e-4);  // residual StDev: the noise put in

    cGraphic& r = *charts->range;
    EXPECT_EQ(r.TitleObj.TitleString, "FLot - Family Range Response");
    EXPECT_EQ(r.Axes.Item("Y")->Label, "Systematic and Residual Range for CD");
    ASSERT_EQ(r.Series.Count(), 2);
    EXPECT_EQ(r.Series.Item(1)->Label, "System Range");
    EXPECT_EQ(r.Series.Item(2)->Label, "Residual Range");
    EXPECT_LT(r.Series.Item(1)->YerrCol1, 0);
    cGraphic& s = *charts->stdev;
    EXPECT_EQ(s.TitleObj.TitleString, "FLot - Family 'StDev' Response");
    EXPECT_EQ(s.Axes.Item("Y")->Label, "Systematic and Residual Standard Deviation for CD");
    EXPECT_EQ(s.Series.Item(1)->Label, "System StDev");
    EXPECT_EQ(s.Series.Item(2)->Label, "Residual StDev");
    EXPECT_NE(s.Series.Item(1)->ColorFore, s.Series.Item(2)->ColorFore);

    for (cGraphic* g : {&p, &r, &s}) {
        RecordingSurface surface;
        g->Container(&surface);
        EXPECT_TRUE(g->PlotChart()) << g->TitleObj.TitleString;
        EXPECT_FALSE(surface.of(RecordingSurface::Op::Polyline).empty());
    }
}

TEST(ModelReports, FamilyPlotRefusals) {
    FieldFixture fx;
    // No residual block (no lot): the end of the residual report is not found.
    auto noLot = CreateFieldReport(fx.table, FixedSetup(*fx.lot));
    ASSERT_TRUE(noLot);
    auto a = GraphFamilyPlot(*noLot, ChartSetup{"FLot", "", "nm"});
    ASSERT_FALSE(a);
    EXPECT_EQ(a.failure().tag, "PWcommon(GraphFamilyPlot): ");
    EXPECT_EQ(a.failure().text, "Could not find end row of residual report");

    // A residual block cut off before its end row.
    auto withLot = CreateFieldReport(fx.table, FixedSetup(*fx.lot), fx.lot.get());
    ASSERT_TRUE(withLot);
    Datam cut = *withLot;
    cut.redimPreserve(cut.rowUb() - 1, cut.colUb());
    auto b = GraphFamilyPlot(cut, ChartSetup{"FLot", "", "nm"});
    ASSERT_FALSE(b);
    EXPECT_EQ(b.failure().text, "Could not find end row of residual report");

    // No family rows, or none of the feature asked for.
    auto c = GraphFamilyPlot(Datam::fromRows({{"nothing"}}), ChartSetup{});
    ASSERT_FALSE(c);
    EXPECT_EQ(c.failure().text, "No data for graph generation.");
    auto d = GraphFamilyPlot(*withLot, ChartSetup{"FLot", "Height", "nm"});
    ASSERT_FALSE(d);
    EXPECT_EQ(d.failure().text, "No data for graph generation.");
}

TEST(ModelReports, FamilyTableThreeWays) {
    // Best dose by family and focus: family 1 at two focus values, family 2 at three.
    const Datam t = Datam::fromRows({{"Family", "Focus", "Dose"},
                                     {1, 0.1, 21.0},
                                     {1, -0.1, 20.0},
                                     {2, 0.0, 22.0},
                                     {2, -0.1, 22.0},
                                     {2, 0.1, 24.0}});
    const ChartSetup cs{"Lot", "", ""};

    auto a = GraphFamily_DoseVfocus(t, cs);
    ASSERT_TRUE(a) << a.failure().message();
    ASSERT_EQ((*a)->Series.Count(), 2);
    const cSeries* f1 = (*a)->Series.Item("Family: 1");
    ASSERT_NE(f1, nullptr);
    EXPECT_EQ(f1->PlotData(0, f1->Xcol).toString(), "Focus");
    EXPECT_EQ(f1->PlotData(0, f1->Ycol).toString(), "Dose");
    ASSERT_EQ(f1->PlotData.rowUb(), 2);
    EXPECT_NEAR(f1->PlotData(1, f1->Xcol).toDouble(), -0.1, 1e-9);  // rising focus
    EXPECT_NEAR(f1->PlotData(1, f1->Ycol).toDouble(), 20.0, 1e-9);
    EXPECT_EQ((*a)->Series.Item(1)->ColorFore, cGraphic::GetPlotColors(0));
    EXPECT_EQ((*a)->Series.Item(2)->ColorFore, cGraphic::GetPlotColors(1));

    auto b = GraphDose_FamilyVfocus(t, cs);
    ASSERT_TRUE(b);
    ASSERT_EQ((*b)->Series.Count(), 4);  // doses 20, 21, 22, 24
    const cSeries* d22 = (*b)->Series.Item("Dose: 22.00");
    ASSERT_NE(d22, nullptr);
    EXPECT_EQ(d22->PlotData(0, d22->Xcol).toString(), "Focus");
    EXPECT_EQ(d22->PlotData(0, d22->Ycol).toString(), "Family");
    EXPECT_EQ(d22->PlotData.rowUb(), 2);

    auto c = GraphFocus_FamilyVdose(t, cs);
    ASSERT_TRUE(c);
    ASSERT_EQ((*c)->Series.Count(), 3);
    const cSeries* fm = (*c)->Series.Item("Focus: -0.10");
    ASSERT_NE(fm, nullptr);
    EXPECT_EQ(fm->PlotData(0, fm->Xcol).toString(), "Dose");
    EXPECT_EQ(fm->PlotData(0, fm->Ycol).toString(), "Family");
    EXPECT_NEAR(fm->PlotData(1, fm->Xcol).toDouble(), 20.0, 1e-9);
    EXPECT_NEAR(fm->PlotData(2, fm->Xcol).toDouble(), 22.0, 1e-9);

    for (auto* g : {a->get(), b->get(), c->get()}) {
        RecordingSurface surface;
        g->Container(&surface);
        EXPECT_TRUE(g->PlotChart()) << g->TitleObj.TitleString;
    }

    // Families by name stand at their place in the sorted list.
    const Datam named = Datam::fromRows({{"Family", "Focus", "Dose"}, {"Iso", 0.0, 21.0}, {"Dense", 0.0, 20.0}});
    auto n = GraphDose_FamilyVfocus(named, cs);
    ASSERT_TRUE(n);
    const cSeries* iso = (*n)->Series.Item("Dose: 21.00");
    ASSERT_NE(iso, nullptr);
    EXPECT_EQ(iso->PlotData(1, iso->Ycol).toDouble(), 2);
    auto nf = GraphFamily_DoseVfocus(named, cs);
    ASSERT_TRUE(nf);
    EXPECT_NE((*nf)->Series.Item("Family: Dense"), nullptr);

    auto missing = GraphFocus_FamilyVdose(Datam::fromRows({{"Family", "Focus"}, {1, 0.0}}), cs);
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.failure().tag, "PWcommon(GraphFocus_FamilyVdose): ");
    auto empty = GraphFamily_DoseVfocus(Datam::fromRows({{"Family", "Focus", "Dose"}}), cs);
    ASSERT_FALSE(empty);
    EXPECT_EQ(empty.failure().text, "No data for graph generation.");
}
