// The process window pipeline on focus-exposure matrices painted from the
// 7-term CD law CD = c1 + c2 D + c3 F + c4 F^2 + c5 D F + c6 F^3 + c7 D F^2,
// noise-free, with results worked by hand from the coefficients.
#include "procwin/pw_calculate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/report.h"
#include "common/capture_reporter.h"
#include "graphics/chart.h"
#include "graphics/recording_surface.h"
#include "lot/lot.h"
#include "numerics/equation.h"
#include "procwin/pw_charts.h"
#include "workbook/store.h"

using namespace zorv;
using zorv::testing::ScopedCapture;

namespace {

struct Law {
    double c1 = 0, c2 = 0, c3 = 0, c4 = 0, c5 = 0, c6 = 0, c7 = 0;
    double operator()(double d, double f) const {
        return c1 + c2 * d + c3 * f + c4 * f * f + c5 * d * f + c6 * f * f * f + c7 * d * f * f;
    }
};

struct Fem {
    std::vector<double> foci{-0.1, -0.05, 0, 0.05, 0.1};
    std::vector<double> doses{18, 19, 20, 21, 22};
    std::vector<int> sites{1, 2, 3};
    double siteOffset = 0;  // added to c1 per site number above 1
    Law law;
    Law law2;  // the second feature (H), when named
    std::string name2;
};

// One wafer, a field per focus and dose, a few sites per field; values
// stored as the lot keeps them (x1000).
std::shared_ptr<cLot> FemLot(const Fem& fem, std::vector<std::pair<double, double>> extra = {}) {
    auto lot = cLot::create();
    lot->DataSource(eDataSourceCDSEM);
    lot->LotName = "FEM1";
    lot->ValueV_Name = "CD";
    if (!fem.name2.empty()) lot->ValueH_Name = fem.name2;
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    std::vector<std::pair<double, double>> cells;
    for (double f : fem.foci)
        for (double d : fem.doses) cells.push_back({f, d});
    for (const auto& c : extra) cells.push_back(c);
    int i = 0;
    for (const auto& [f, d] : cells) {
        cField* fld = w->AddField(float(i % 7), float(i / 7), isNew, false);
        ++i;
        fld->Focus = float(f);
        fld->Dose = float(d);
        for (int s : fem.sites) {
            Ref<cSite> site = cSite::New();
            site->setNumberKey(s);
            site->LocationX = float(1000 * s);
            site->LocationY = float(-500 * s);
            auto p = std::make_unique<cPoint>();
            Law l = fem.law;
            l.c1 += fem.siteOffset * (s - 1);
            p->ValueV = float(l(float(d), float(f)) * 1000);
            if (!fem.name2.empty()) p->ValueH = float(fem.law2(float(d), float(f)) * 1000);
            fld->AddPoint(site, std::move(p));
        }
    }
    return lot;
}

struct Var {
    std::string name;
    double target, max, min;
};

PWSetup MakeSetup(const char* key, std::vector<Var> vars) {
    PWSetup s;
    s.key = key;
    s.variables = Datam(static_cast<int>(vars.size()), 4, 0, 1);
    const char* h[] = {"Variable", "Target", "Max", "Min"};
    for (int c = 1; c <= 4; ++c) s.variables(0, c) = Value(h[c - 1]);
    for (size_t k = 0; k < vars.size(); ++k) {
        const int r = static_cast<int>(k) + 1;
        s.variables(r, 1) = Value(vars[k].name);
        s.variables(r, 2) = Value(vars[k].target);
        s.variables(r, 3) = Value(vars[k].max);
        s.variables(r, 4) = Value(vars[k].min);
        s.title += (k ? ", " : "") + vars[k].name;
    }
    return s;
}

struct Ran {
    Result<std::shared_ptr<cLot>> lot;
    PWReport report;
};

Ran RunPW(const PWSetup& s, cLot& lot, PWState& state, bool update = false) {
    PWReport rep;
    Result<std::shared_ptr<cLot>> r = PWcalculate(s, lot, Datam(), Datam(), state, update, &rep);
    return {std::move(r), std::move(rep)};
}

// The rows of a result table (data from row 3) that match a site.
std::vector<int> RowsOfSite(const Datam& t, long site) {
    std::vector<int> rows;
    for (int r = 3; r <= t.rowUb(); ++r)
        if (t(r, 3).toLong() == site) rows.push_back(r);
    return rows;
}

bool ReportHas(const Datam& t, const std::string& text) {
    for (int r = t.rowLb(); r <= t.rowUb(); ++r)
        for (int c = t.colLb(); c <= t.colUb(); ++c)
            if (t(r, c).toString() == text) return true;
    return false;
}

// The dose-response law of the hand calculations: CD falls with dose and
// bows with focus; no cross terms, so the dose to size is a parabola in focus.
//   T(F) = (TCL - c1 - c3 F - c4 F^2) / c2 = 20 + 2F - 100F^2 for TCL 0.3:
//   turning point F* = 0.01, best dose T(F*) = 20.01; UCL 0.33 and LCL
//   0.27 give doses 17 + ... and 23 + ..., a latitude of 6 at every focus.
Law DoseLaw() {
    return Law{0.5, -0.01, 0.02, -1, 0, 0, 0};
}

}  // namespace

// ---------------------------------------------------------------- kDose

TEST(PWDose, BestDoseAndFocusFromTheLaw) {
    ScopedCapture rep;
    Fem fem;
    fem.law = DoseLaw();
    fem.siteOffset = 0.001;  // T moves by 100 x 0.001 per site
    auto lot = FemLot(fem);
    PWState state;
    auto wb = Workbook::create("/tmp/pwcalc_never_saved.xlsx");
    PWSetup s = MakeSetup(kDose, {{"CD", 0.3, 0.33, 0.27}});
    s.workbook = wb.get();
    Ran r = RunPW(s, *lot, state);
    ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();

    ASSERT_EQ(r.report.best.size(), 3u);
    for (const PWSiteBest& b : r.report.best) {
        const double shift = 0.1 * (b.site - 1);
        EXPECT_NEAR(b.bestFocus, 0.01, 1e-9) << b.site;
        EXPECT_NEAR(b.bestDose, 20.01 + shift, 1e-9) << b.site;
        EXPECT_NEAR(b.latitude, 6.0, 1e-9);
        // Taken at the focus group nearest best focus, F = 0: 6 / T(0).
        EXPECT_NEAR(b.pctLatitude, std::round(600.0 / (20 + shift) * 100) / 100, 1e-9);
        EXPECT_DOUBLE_EQ(b.x, 1.0 * b.site);  // mm
    }
    // One row per focus group: offset c1 + c3 F + c4 F^2, slope c2.
    const Datam& t = r.report.doseResponse;
    EXPECT_EQ(t(1, 6).toString(), "Residuals");
    EXPECT_EQ(t(2, 9).toString(), "%Latitude");
    const std::vector<int> rows = RowsOfSite(t, 1);
    ASSERT_EQ(rows.size(), 5u);
    for (int row : rows) {
        const double f = t(row, 2).toDouble();
        EXPECT_NEAR(t(row, 4).toDouble(), 0.5 + 0.02 * f - f * f, 6e-4);
        EXPECT_NEAR(t(row, 5).toDouble(), -0.01, 1e-9);
        EXPECT_NEAR(t(row, 7).toDouble(), 20 + 2 * f - 100 * f * f, 1e-9);
        EXPECT_NEAR(t(row, 8).toDouble(), 6.0, 1e-9);
        EXPECT_DOUBLE_EQ(t(row, 11).toDouble(), 0.3);
    }
    // Summary over the sites: mean best dose 20.11, range 0.2.
    const Datam& fs = r.report.featureSummary;
    ASSERT_TRUE(fs.isArray());
    EXPECT_EQ(fs(fs.rowUb(), 1).toString(), "Summary");
    EXPECT_NEAR(fs(fs.rowUb(), 2).toDouble(), 20.11, 1e-9);
    EXPECT_NEAR(fs(fs.rowUb(), 3).toDouble(), 0.2, 1e-9);
    EXPECT_NEAR(fs(fs.rowUb(), 4).toDouble(), 0.01, 1e-9);

    // Uniformity: one row per site with the feature's four columns.
    const Datam& u = r.report.doseUniformity;
    ASSERT_EQ(u.rowUb(), 4);
    EXPECT_EQ(u(1, 5).toString(), "BestDose_CD");
    EXPECT_NEAR(u(3, 5).toDouble(), 20.11, 1e-9);

    // Sheets and report.
    for (const char* sh : {"DoseResponse", "DoseUniformity", "DoseResponseReport", "Index"})
        EXPECT_NE(wb->sheet(sh), nullptr) << sh;
    EXPECT_EQ(r.report.reportSheet, "DoseResponseReport");
    EXPECT_EQ(r.report.report(1, 1).toString(),
              "FEM1 - Critical Feature Process Window  vs Dose Response");
    EXPECT_TRUE(
        ReportHas(r.report.report, "Summary of Dose Response for Max Dose Latitude by Site"));
    EXPECT_TRUE(ReportHas(r.report.report, "# Points:"));
    EXPECT_EQ(r.report.report(5, 1).toString(), "Current Date:");
    EXPECT_EQ(r.report.report(5, 2).toString().substr(0, 2), "20");  // yyyy-mm-dd hh:nn

    // The chart is complete: a container and DrawFigure.
    ASSERT_TRUE(state.chart);
    EXPECT_EQ(state.chart->KeyName, "kDose");
    EXPECT_EQ(state.chart->Series.Item(1)->Label, "Focus: -0.1 CD Site: 1");
    RecordingSurface surf;
    state.chart->Container(&surf);
    EXPECT_TRUE(state.chart->DrawFigure().ok());
    // The y axis starts at 0 or above for CD data.
    EXPECT_GE(state.chart->Axes.Item("Y")->LowValue, 0.f);
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();
}

TEST(PWDose, DosePolynomialGivesTheSameBest) {
    Fem fem;
    fem.law = DoseLaw();
    fem.sites = {4};
    auto lot = FemLot(fem);
    PWState state;
    PWSetup s = MakeSetup(kDose, {{"CD", 0.3, 0.33, 0.27}});
    s.surfaceAlgorithm = false;
    s.method = "Dose polynomial";
    Ran r = RunPW(s, *lot, state);
    ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
    ASSERT_EQ(r.report.best.size(), 1u);
    EXPECT_NEAR(r.report.best[0].bestFocus, 0.01, 1e-9);
    EXPECT_NEAR(r.report.best[0].bestDose, 20.01, 1e-9);
}

TEST(PWDose, EdgeGroups) {
    ScopedCapture rep;
    // A focus with a single field is left out of the fits, silently.
    {
        Fem fem;
        fem.law = DoseLaw();
        fem.sites = {1};
        auto lot = FemLot(fem, {{0.2, 20}});
        PWState state;
        Ran r = RunPW(MakeSetup(kDose, {{"CD", 0.3, 0.33, 0.27}}), *lot, state);
        ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
        const Datam& t = r.report.doseResponse;
        ASSERT_EQ(t.rowUb(), 2 + 5);
        for (int row = 3; row <= t.rowUb(); ++row) EXPECT_LT(t(row, 2).toDouble(), 0.15);
        EXPECT_NEAR(r.report.best[0].bestFocus, 0.01, 1e-9);
    }
    // One focus group: best focus is that focus, best dose T there.
    {
        Fem fem;
        fem.law = DoseLaw();
        fem.foci = {0.05};
        fem.sites = {1};
        auto lot = FemLot(fem);
        PWState state;
        Ran r = RunPW(MakeSetup(kDose, {{"CD", 0.3, 0.33, 0.27}}), *lot, state);
        ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
        ASSERT_EQ(r.report.best.size(), 1u);
        EXPECT_NEAR(r.report.best[0].bestFocus, 0.05, 1e-9);
        EXPECT_NEAR(r.report.best[0].bestDose, 20 + 0.1 - 0.25, 1e-9);
        EXPECT_NEAR(r.report.best[0].latitude, 6.0, 1e-9);
    }
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();
}

// ---------------------------------------------------------------- kFocus

// dZ/dF = c3 + 2 c4 F + c5 D + 2 c7 D F = 0 at F*(D) = -(c3 + c5 D) / (2 (c4 + c7 D)).
TEST(PWFocus, BossungTurningPointIsTheLawsBestFocus) {
    const Law law{0.5, -0.01, 0.02, -1, 0.001, 0, 0.01};
    for (bool surface : {true, false}) {
        Fem fem;
        fem.law = law;
        fem.sites = {1, 2};
        auto lot = FemLot(fem);
        PWState state;
        auto wb = Workbook::create("/tmp/pwcalc_focus_never_saved.xlsx");
        PWSetup s = MakeSetup(kFocus, {{"CD", 0.3, 0.33, 0.27}});
        s.surfaceAlgorithm = surface;
        s.workbook = wb.get();
        Ran r = RunPW(s, *lot, state);
        ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
        const Datam& t = r.report.focusResponse;
        EXPECT_EQ(t(2, 5).toString(), "'@BestFocus");
        const std::vector<int> rows = RowsOfSite(t, 2);
        ASSERT_EQ(rows.size(), 5u) << surface;
        for (int row : rows) {
            const double d = t(row, 2).toDouble();
            const double fstar = -(law.c3 + law.c5 * d) / (2 * (law.c4 + law.c7 * d));
            EXPECT_NEAR(t(row, 4).toDouble(), fstar, 5e-4)
                << "dose " << d << " surface " << surface;
            EXPECT_NEAR(t(row, 5).toDouble(), law(d, fstar), 1e-4);
            EXPECT_GT(t(row, 6).toDouble(), 0.0);  // a span within the limits
        }
        // The isofocal dose -c4/c7 = 100, and the surface there at F = 0.
        ASSERT_EQ(r.report.isoFocal.size(), 2u);
        EXPECT_NEAR(r.report.isoFocal[0].dose, 100, 1e-9);
        EXPECT_NEAR(r.report.isoFocal[0].value, law(100, 0), 1e-9);

        // Across sites: one feature, a site table without focus columns in RawFocus.
        ASSERT_TRUE(r.report.bestFocus.summary.isArray());
        EXPECT_EQ(r.report.bestFocus.summary(2, 1).toString(), "CD");
        const Datam& raw = r.report.rawFocus;
        ASSERT_TRUE(raw.isArray());
        EXPECT_EQ(raw(1, 1).toString(), "Wafer");
        for (int c = 1; c <= raw.colUb(); ++c)
            EXPECT_EQ(raw(1, c).toString().find("Focus"), std::string::npos);
        EXPECT_TRUE(r.report.addDoseBFTab);
        for (const char* sh : {"FocusResponse", "FocusResponseSum", "BestFocusData", "RawFocus",
                               "FocusResponseReport"})
            EXPECT_NE(wb->sheet(sh), nullptr) << sh;
        EXPECT_EQ(state.chart->KeyName, "kFocus");
    }
}

TEST(PWFocus, OneDoseWritesNoDoseVariation) {
    Fem fem;
    fem.law = Law{0.5, -0.01, 0.02, -1, 0.001, 0, 0.01};
    fem.doses = {20};
    fem.sites = {1};
    auto lot = FemLot(fem);
    PWState state;
    Ran r = RunPW(MakeSetup(kFocus, {{"CD", 0.3, 0.31, 0.29}}), *lot, state);
    ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
    EXPECT_TRUE(ReportHas(r.report.report, "No Dose Variation"));
    EXPECT_TRUE(r.report.isoFocal.empty());
    EXPECT_FALSE(r.report.addDoseBFTab);
    ASSERT_EQ(r.report.best.size(), 1u);
    EXPECT_NEAR(r.report.best[0].bestFocus, 0.025, 5e-4);  // -(0.02 + 0.02) / (2 (-1 + 0.2))
}

// ---------------------------------------------------------------- kDoseBF and kIsoFocal

TEST(PWDoseBF, BestDoseAtBestFocus) {
    // At best focus the size is c1 + c2 D + (terms of F*): with c5 = c7 = 0
    // F* = 0.01 at every dose and Z(D, F*) = 0.5001 - 0.01 D: the target
    // 0.3 at D = 20.01, the limits 0.33 and 0.27 at 17.01 and 23.01.
    Fem fem;
    fem.law = DoseLaw();
    fem.sites = {1};
    auto lot = FemLot(fem);
    PWState state;
    Ran r = RunPW(MakeSetup(kDoseBF, {{"CD", 0.3, 0.33, 0.27}}), *lot, state);
    ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
    ASSERT_EQ(r.report.best.size(), 1u);
    EXPECT_NEAR(r.report.best[0].bestDose, 20.01, 0.011);
    EXPECT_NEAR(r.report.best[0].bestFocus, 0.01, 1.1e-3);
    EXPECT_NEAR(r.report.best[0].latitude, 6.0, 0.02);
    EXPECT_EQ(r.report.reportSheet, "Dose_atBestFocusReport");
    EXPECT_EQ(r.report.titleLines.front(), "CD vs Dose at Best Focus");
    EXPECT_EQ(state.chart->KeyName, "kDoseBF");
    ASSERT_TRUE(r.report.doseBFSummary.isArray());
    EXPECT_EQ(r.report.doseBFSummary(0, 1).toString(), "BestDose");
    RecordingSurface surf;
    state.chart->Container(&surf);
    EXPECT_TRUE(state.chart->DrawFigure().ok());
}

TEST(PWIsoFocal, IsofocalDoseIsMinusC4OverC7) {
    const Law law{0.5, -0.01, 0.02, -0.2, 0.001, 0, 0.01};  // -c4/c7 = 20
    Fem fem;
    fem.law = law;
    auto lot = FemLot(fem);
    PWState state;
    Ran r = RunPW(MakeSetup(kIsoFocal, {{"CD", 0.3, 0.33, 0.27}}), *lot, state);
    ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
    ASSERT_EQ(r.report.isoFocal.size(), 3u);
    for (const PWIsoFocal& i : r.report.isoFocal) {
        EXPECT_NEAR(i.dose, 20, 1e-9);
        EXPECT_NEAR(i.value, law(20, 0), 1e-9);
    }
    EXPECT_EQ(state.chart->KeyName, "kIsoFocal");
    EXPECT_TRUE(r.report.reportSheet.empty());
    // Deviation from F = 0: c3 F + c4 F^2 + c5 D F + c7 D F^2.
    const Datam& t = r.report.isoFocalTable;
    ASSERT_TRUE(t.isArray());
    for (int row = 1; row <= t.rowUb(); ++row) {
        const double f = t(row, 2).toDouble(), d = t(row, 3).toDouble();
        EXPECT_NEAR(t(row, 5).toDouble(), law(float(d), float(f)) - law(float(d), 0), 1e-6);
    }
    // More than one isofocal row: the summary block.
    EXPECT_TRUE(ReportHas(r.report.report, "DoseMean"));
    RecordingSurface surf;
    state.chart->Container(&surf);
    EXPECT_TRUE(state.chart->DrawFigure().ok());
}

// ---------------------------------------------------------------- kPW

namespace {
// No focus dependence: the isoline of a value v is the dose (v - 0.1) / 0.01.
Fem FlatFem() {
    Fem fem;
    fem.law = Law{0.1, 0.01, 0, 0, 0, 0, 0};
    fem.law2 = fem.law;
    fem.name2 = "CD2";
    fem.doses = {20, 21, 22, 23, 24};
    fem.sites = {1};
    return fem;
}
}  // namespace

TEST(PWWindow, UnreachableLimitWidensRangesForLaterFeatures) {
    auto lot = FemLot(FlatFem());
    PWState state;
    // UCL 0.43 lies at dose 33: beyond 24 + 2 x 4 at first, within 24.4 +
    // 2 x 4.8 after one widening by a tenth of the ranges.
    PWSetup s = MakeSetup(kPW, {{"CD", 0.32, 0.43, 0.31}, {"CD2", 0.32, 0.33, 0.31}});
    s.precision = 2;  // a coarse grid: the window search is not what is tested here
    Ran r = RunPW(s, *lot, state);
    ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
    ASSERT_EQ(r.report.isolines.size(), 6u);
    const PWIsolineInfo& first = r.report.isolines[0];
    EXPECT_EQ(first.limit, "UCL");
    EXPECT_EQ(first.tries, 1);
    EXPECT_NEAR(first.doseLow, 19.6, 1e-9);
    EXPECT_NEAR(first.doseHigh, 24.4, 1e-9);
    EXPECT_NEAR(first.focusLow, -0.12, 1e-9);
    EXPECT_NEAR(first.focusHigh, 0.12, 1e-9);
    for (size_t k = 1; k < r.report.isolines.size(); ++k) {
        const PWIsolineInfo& i = r.report.isolines[k];
        EXPECT_EQ(i.tries, 0) << k;
        EXPECT_DOUBLE_EQ(i.doseLow, first.doseLow) << k;
        EXPECT_DOUBLE_EQ(i.doseHigh, first.doseHigh) << k;
        EXPECT_DOUBLE_EQ(i.focusHigh, first.focusHigh) << k;
    }
    EXPECT_EQ(r.report.isolines[3].feature, "CD2");
    EXPECT_NEAR(r.report.doseHigh, 24.4, 1e-9);
    // The isolines: dose (v - 0.1) / 0.01 at every focus.
    for (const PWIsolineInfo& i : r.report.isolines) {
        clsEquation e(i.equation);
        e.Var("x", 0.05);
        EXPECT_NEAR(e.Solution(), (i.value - 0.1) / 0.01, 1e-6) << i.equation;
    }
    EXPECT_EQ(r.report.surfaceKeys, (std::vector<std::string>{"CD_1", "CD2_1"}));
    EXPECT_TRUE(r.report.haveWindow);
    // The common window is the band of CD2's limits, doses 21 to 23, over
    // every focus: centred on dose 22.
    EXPECT_NEAR(r.report.rectDose, 22, 0.26);
    EXPECT_NEAR(r.report.rectExpoLat, r.report.rectDose * r.report.rectExpoLatPct / 100, 1e-9);
    // The figures on the chart, found by their keys; the best shown.
    const Datam& ws = r.report.windowSeries;
    ASSERT_TRUE(ws.isArray());
    EXPECT_EQ(ws(0, 3).toString(), "Key");
    EXPECT_EQ(ws(1, 3).toString(), "PW area top");
    int shown = 0;
    for (int row = 1; row <= ws.rowUb(); ++row) {
        const std::string key = ws(row, 3).toString();
        if (key.rfind("PWrect Dose_", 0) != 0) continue;
        const cSeries* c = state.chart->Series.Item(static_cast<int>(ws(row, 1).toLong()));
        ASSERT_NE(c, nullptr);
        shown += !c->Hide;
    }
    EXPECT_EQ(shown, 1);
    EXPECT_TRUE(r.report.expoLatChart);
    RecordingSurface surf;
    state.chart->Container(&surf);
    EXPECT_TRUE(state.chart->DrawFigure().ok());
    EXPECT_TRUE(ReportHas(r.report.report, "PW Rectangle:"));
    EXPECT_EQ(r.report.reportSheet, "ProcessWindowReport");
    EXPECT_EQ(state.chart->KeyName, "kPW");
    EXPECT_EQ(state.chart->Series.Item(2)->Label, "CD,Site: 1=0.43");
    EXPECT_EQ(state.chart->Axes.Item("X")->Label, "Focus");
}

TEST(PWWindow, LimitOffTheMatrixAfterFourTries) {
    auto lot = FemLot(FlatFem());
    PWState state;
    Ran r = RunPW(MakeSetup(kPW, {{"CD", 0.32, 0.9, 0.31}}), *lot, state);
    ASSERT_FALSE(r.lot.ok());
    EXPECT_EQ(r.lot.failure().tag, "PWcommon(PWcalculate): ");
    EXPECT_EQ(r.lot.failure().text,
              "Less than 3 data points are available for surface contour: CD (0.9)\r\n"
              "You have requested a feature size outside of the valid area covered by your Focus "
              "and Dose matrix.");
}

// ---------------------------------------------------------------- messages

TEST(PWMessages, SelectionsAndVariables) {
    Fem fem;
    fem.law = DoseLaw();
    fem.sites = {1};
    auto lot = FemLot(fem);
    PWState state;
    {
        Ran r = RunPW(MakeSetup(kDose, {}), *lot, state);
        ASSERT_FALSE(r.lot.ok());
        EXPECT_EQ(r.lot.failure().text,
                  "No process variables have been selected for analysis. Please access the "
                  "\"Setup\" tab.");
        EXPECT_EQ(r.lot.failure().chk, 3.f);
    }
    {
        Ran r = RunPW(MakeSetup(kDose, {{"Foo", 1, 2, 0}}), *lot, state);
        ASSERT_FALSE(r.lot.ok());
        const std::string& m = r.lot.failure().text;
        EXPECT_EQ(m.rfind("Could not locate variable: 'Foo' in dataset.\r\nHeaders:\r\n  "
                          "5:Yloc\r\n  6:CD\r\n",
                          0),
                  0u)
            << m;
    }
    {
        Fem one = fem;
        one.foci = {0};
        auto l1 = FemLot(one);
        Ran r = RunPW(MakeSetup(kFocus, {{"CD", 0.3, 0.33, 0.27}}), *l1, state);
        ASSERT_FALSE(r.lot.ok());
        EXPECT_EQ(r.lot.failure().text, "There is only one focus value for this data set.");
        r = RunPW(MakeSetup(kPW, {{"CD", 0.3, 0.33, 0.27}}), *l1, state);
        ASSERT_FALSE(r.lot.ok());
        EXPECT_EQ(
            r.lot.failure().text,
            "There is not enough Exposure and/or Focus variation to calculate a process window.");
    }
    {
        Fem one = fem;
        one.doses = {20};
        auto l1 = FemLot(one);
        for (const char* key : {kDose, kDoseBF, kIsoFocal}) {
            Ran r = RunPW(MakeSetup(key, {{"CD", 0.3, 0.33, 0.27}}), *l1, state);
            ASSERT_FALSE(r.lot.ok()) << key;
            EXPECT_EQ(r.lot.failure().text, "The is only one Dose value for this data set.") << key;
        }
    }
}

TEST(PWMessages, VariableNamesAndSelections) {
    Fem fem;
    fem.law = DoseLaw();
    auto lot = FemLot(fem);
    lot->ValueV_Name = "Line_CD";
    PWState state;
    // "Line CD" is found as "Line_CD".
    PWSetup s = MakeSetup(kDose, {{"Line CD", 0.3, 0.33, 0.27}});
    // Sites 1 and 3, doses 19 to 21: a lot with culls applied from the setup.
    s.siteListText = "1:3";
    s.doseLow = 19, s.doseHigh = 21;
    Ran r = RunPW(s, *lot, state, true);
    ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
    ASSERT_EQ(r.report.best.size(), 2u);
    EXPECT_EQ(r.report.best[0].site, 1);
    EXPECT_EQ(r.report.best[1].site, 3);
    EXPECT_EQ(r.report.points, 2 * 5 * 3);
    EXPECT_EQ(r.report.doseCount, 3);
    EXPECT_NEAR(r.report.best[0].bestDose, 20.01, 1e-9);
    // The caller's lot is left as it was; the lot returned has its culls reset.
    long culled = 0;
    EXPECT_EQ(lot->TotalPoints(&culled, true), 75);
    EXPECT_EQ((*r.lot)->TotalPoints(nullptr, true), 75);
}

TEST(PWDose, ModelRemovalRunsOnTheResiduals) {
    Fem fem;
    fem.law = DoseLaw();
    auto lot = FemLot(fem);
    PWState state;
    auto wb = Workbook::create("/tmp/pwcalc_model_never_saved.xlsx");
    PWSetup s = MakeSetup(kDose, {{"CD", 0.3, 0.33, 0.27}});
    s.waferModelRemoval = 1;
    s.workbook = wb.get();
    Ran r = RunPW(s, *lot, state);
    ASSERT_TRUE(r.lot.ok()) << r.lot.failure().message();
    EXPECT_NE(wb->sheet("WaferPWModel_Dose(CD)"), nullptr);
    EXPECT_FALSE(std::filesystem::exists("/tmp/pwcalc_model_never_saved.xlsx"));
    EXPECT_EQ((*r.lot)->PLotDataType, eResidual);
    EXPECT_EQ((*r.lot)->PlotFeature(), 1);  // UpdateLotModel selected the feature
    EXPECT_EQ(lot->PLotDataType, eRaw);
}

TEST(PWState, StickyYAxisCarriesToTheNextResponseChart) {
    Fem fem;
    fem.law = DoseLaw();
    fem.sites = {1};
    auto lot = FemLot(fem);
    PWState state;
    PWSetup s = MakeSetup(kDose, {{"CD", 0.3, 0.33, 0.27}});
    s.stickyY = true;
    ASSERT_TRUE(RunPW(s, *lot, state).lot.ok());
    cAxis* y = state.chart->Axes.Item("Y");
    y->LowValue = 0.2f, y->HighValue = 0.6f, y->TickInterval = 0.1f;
    s.key = kFocus;
    ASSERT_TRUE(RunPW(s, *lot, state).lot.ok());
    EXPECT_TRUE(state.stickyAxes);
    EXPECT_FLOAT_EQ(state.chart->Axes.Item("Y")->LowValue, 0.2f);
    EXPECT_FLOAT_EQ(state.chart->Axes.Item("Y")->HighValue, 0.6f);
    EXPECT_FALSE(state.chart->Axes.Item("Y")->AutoScale);
    // An isofocal chart is not a response chart: nothing sticks after it.
    s.key = kIsoFocal;
    ASSERT_TRUE(RunPW(s, *lot, state).lot.ok());
    s.key = kDose;
    ASSERT_TRUE(RunPW(s, *lot, state).lot.ok());
    EXPECT_FALSE(state.stickyAxes);
}

// ---------------------------------------------------------------- tables

TEST(PWTables, BestFocusCreateFromHandTable) {
    // Two sites, three doses: size at best focus 0.1 + 0.01 D (site 2 higher
    // by 0.002), best focus 0.01 / 0.03; target 0.3 meets the mean at D = 19.9.
    Datam fr(2 + 6, 14, 1, 1);
    fr(1, 1) = Value("Feature"), fr(1, 2) = Value("Dose"), fr(1, 3) = Value("Site"),
          fr(1, 4) = Value("Best Focus");
    fr(1, 5) = Value("Feature"), fr(1, 6) = Value("DoF"), fr(1, 12) = Value("Target");
    int r = 2;
    for (long site : {1L, 2L})
        for (double d : {19.0, 20.0, 21.0}) {
            ++r;
            fr(r, 1) = Value("CD"), fr(r, 2) = Value(d),
                  fr(r, 3) = Value(static_cast<int32_t>(site));
            fr(r, 4) = Value(site == 1 ? 0.01 : 0.03);
            fr(r, 5) = Value(0.1 + 0.01 * d + (site == 2 ? 0.002 : 0));
            fr(r, 6) = Value(0.2 + 0.01 * site);
            fr(r, 12) = Value(0.3);
        }
    std::vector<PWSiteBest> places(2);
    places[0].site = 1, places[0].x = 1, places[0].y = -0.5;
    places[1].site = 2, places[1].x = 2, places[1].y = -1;
    Result<PWBestFocus> b = BestFocusCreate(fr, places, "W1");
    ASSERT_TRUE(b.ok()) << b.failure().message();
    const Datam& sm = b->summary;
    EXPECT_EQ(sm(2, 1).toString(), "CD");
    EXPECT_NEAR(sm(2, 4).toDouble(), 19.9, 1e-9);  // BestDose
    EXPECT_NEAR(sm(2, 3).toDouble(), 0.02, 1e-9);  // mean best focus at dose 20
    EXPECT_NEAR(sm(2, 8).toDouble(), 0.02, 1e-9);  // BestFocus(IFD): the range across sites
    EXPECT_NEAR(sm(2, 6).toDouble(), 0.215, 1e-9);
    const Datam& st = b->sites;
    EXPECT_EQ(st(1, 6).toString(), "CD_Focus");
    EXPECT_EQ(st(3, 2).toLong(), 2);
    EXPECT_DOUBLE_EQ(st(3, 3).toDouble(), 2);
    EXPECT_NEAR(st(3, 6).toDouble(), 0.03, 1e-12);
    EXPECT_EQ(st(4, 1).toString(), "Mean:");
    EXPECT_EQ(st(7, 1).toString(), "IFD:");
    EXPECT_NEAR(st(7, 6).toDouble(), 0.02, 1e-12);
    EXPECT_EQ(b->detail.rowUb(), 1 + 3);
    EXPECT_NEAR(b->detail(3, 3).toDouble(), 0.301, 1e-9);  // mean size at dose 20
    EXPECT_NEAR(b->detail(3, 4).toDouble(), 0.002, 1e-9);

    Datam noSite = fr;
    noSite(1, 3) = Value("Where");
    EXPECT_FALSE(BestFocusCreate(noSite, places, "W1").ok());
}

TEST(PWTables, DoseUniformityAndWindowRows) {
    Datam u;
    std::vector<PWSiteBest> best(2);
    best[0].feature = "CD", best[0].site = 5, best[0].bestDose = 20, best[0].bestFocus = 0.01;
    best[1].feature = "CD2", best[1].site = 5, best[1].bestDose = 21, best[1].pctLatitude = 9;
    CreateDoseUniformity(u, best, "W1");
    std::vector<PWSiteBest> more(1);
    more[0].feature = "CD", more[0].site = 7, more[0].bestDose = 22, more[0].x = 3;
    CreateDoseUniformity(u, more, "W1");
    ASSERT_EQ(u.rowUb(), 3);
    ASSERT_EQ(u.colUb(), 12);
    EXPECT_EQ(u(1, 9).toString(), "BestDose_CD2");
    EXPECT_EQ(u(1, 12).toString(), "Dose%Latitude_CD2");
    EXPECT_DOUBLE_EQ(u(2, 9).toDouble(), 21);
    EXPECT_DOUBLE_EQ(u(2, 12).toDouble(), 9);
    EXPECT_EQ(u(3, 2).toLong(), 7);
    EXPECT_DOUBLE_EQ(u(3, 3).toDouble(), 3);
    EXPECT_DOUBLE_EQ(u(3, 5).toDouble(), 22);

    // ProcessWindowSpace rows: the nearest dose, or the first largest area.
    Datam pws(3, 23, 0, 0);
    pws(0, 1) = Value("Rectangle Focus"), pws(0, 2) = Value("Dose"), pws(0, 9) = Value("Area");
    const double rows[3][5] = {
        {0.01, 19, 10, 0.2, 1.5}, {0.02, 20, 12, 0.25, 2}, {0.03, 21, 12, 0.22, 2.1}};
    for (int i = 0; i < 3; ++i) {
        pws(i + 1, 1) = Value(rows[i][0]), pws(i + 1, 2) = Value(rows[i][1]),
                   pws(i + 1, 9) = Value(rows[i][2]);
        pws(i + 1, 10) = Value(rows[i][3]), pws(i + 1, 11) = Value(rows[i][4]);
    }
    PWBestRow b;
    ASSERT_TRUE(PWgetBestFocusDose(pws, 20.8, b));
    EXPECT_EQ(b.row, 3);
    EXPECT_DOUBLE_EQ(b.focus, 0.03);
    EXPECT_DOUBLE_EQ(b.expoLat, 2.1);
    ASSERT_TRUE(PWgetBestFocusDose(pws, -1, b));
    EXPECT_EQ(b.row, 2);
    EXPECT_DOUBLE_EQ(b.dof, 0.25);
    EXPECT_FALSE(PWgetBestFocusDose(Datam(), 20, b));
}

TEST(PWTables, SitesAndModelRecord) {
    Fem fem;
    fem.law = DoseLaw();
    fem.foci = {0};
    fem.doses = {20};
    fem.sites = {1, 2, 3, 4};
    auto lot = FemLot(fem);
    PWSetup s = MakeSetup(kDose, {{"CD", 0.3, 0.33, 0.27}});
    s.siteListText = "All Sites";
    EXPECT_EQ(UpdatePWsites2Lot(*lot, s), 0);
    s.siteListText = "2, 4";
    EXPECT_EQ(UpdatePWsites2Lot(*lot, s), 2);
    std::vector<long> live;
    lot->forEachLiveSite([&](cWafer&, cField&, cSite& site) { live.push_back(site.NumberKey()); });
    EXPECT_EQ(live, (std::vector<long>{2, 4}));

    s.waferCoefsPW = "1100";
    const Datam m = UpdateLotModel(*lot, s);
    EXPECT_EQ(m(0, 1).toString(), "PlotFeature");
    EXPECT_EQ(m(1, 1).toLong(), 1);
    EXPECT_EQ(m(1, 2).toString(), "CD");
    EXPECT_EQ(m(2, 2).toString(), "1100");
    EXPECT_EQ(lot->PlotFeature(), 1);
    Result<PWModeled> md = getModeledData(s, *lot);
    ASSERT_TRUE(md.ok());
    EXPECT_EQ(md->table.rowUb(), 2);
}

TEST(PWCharts, ColumnsJoinOneTable) {
    cGraphic g;
    Datam a(2, 2, 0, 0), b(3, 1, 0, 0);
    a(0, 1) = Value("X"), a(0, 2) = Value("Y"), a(1, 1) = Value(1.0), a(2, 2) = Value(2.0);
    b(0, 1) = Value("Z"), b(3, 1) = Value(5.0);
    EXPECT_EQ(PWChartAddColumns(g, a), 1);
    EXPECT_EQ(PWChartAddColumns(g, b), 3);
    EXPECT_EQ(g.Data().rowUb(), 3);
    EXPECT_EQ(g.Data()(0, 3).toString(), "Z");
    EXPECT_DOUBLE_EQ(g.Data()(2, 2).toDouble(), 2.0);
    EXPECT_DOUBLE_EQ(g.Data()(3, 3).toDouble(), 5.0);
    EXPECT_EQ(PWChartAddColumns(g, Datam()), -1);
    EXPECT_EQ(PWJoinTitle({"A", "", " B"}), "A\r\n B");
}
