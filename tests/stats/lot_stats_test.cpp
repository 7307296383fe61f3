// Lot and table summaries: hand values, the lot matrix route, failures.
#include "stats/lot_stats.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "numerics/matrix.h"
#include "stats_fixture.h"

namespace zorv {
namespace {

using testing::LotShape;
using testing::MakeStatsLot;
using testing::PointAt;
using testing::ScopedCapture;

constexpr double M = kMissingValue;

// Column 0 labels of rows 1..n.
std::vector<std::string> Labels(const Datam& t) {
    std::vector<std::string> out;
    for (int r = 1; r <= t.rowUb(); ++r) out.push_back(t(r, 0).toString());
    return out;
}

int RowOf(const Datam& t, const std::string& label) {
    for (int r = 1; r <= t.rowUb(); ++r)
        if (t(r, 0).toString() == label) return r;
    ADD_FAILURE() << "no row " << label;
    return 0;
}

// ---------------------------------------------------------------- CalcStatistics

Datam SmallTable() {
    return Datam::fromRows({
        {"key", "A", "B", "C"},
        {1, 1.0, -10.0, "x"},
        {2, 2.0, -20.0, "y"},
        {3, 3.0, "abc", ""},
        {4, 4.0, Value(), "z"},
        {5, 10.0, -30.0, "w"},
    });
}

TEST(CalcStatistics, AllColumnsAgainstHandValues) {
    ScopedCapture cap;
    auto r = CalcStatistics(SmallTable(), -1, "###0.00#", "Stats");
    ASSERT_TRUE(r.ok()) << r.failure().message();
    const Datam& t = *r;
    EXPECT_EQ(cap.statuses.front(), "Calculating summary statistics ...");
    EXPECT_EQ(Labels(t), (std::vector<std::string>{"Count", "Mean", "Median", "SEM", "StDev",
                                                   "Maximum", "Minimum", "Range", "Mean+3Sigma"}));
    EXPECT_EQ(t(0, 0).toString(), "Stats");
    EXPECT_EQ(t(0, 1).toString(), "A");
    EXPECT_EQ(t(0, 2).toString(), "B");
    // A: 1 2 3 4 10 -> mean 4, variance (130 - 80) / 4 = 12.5.
    EXPECT_EQ(t(1, 1).type(), VType::Long);
    EXPECT_EQ(t(1, 1).toLong(), 5);
    EXPECT_EQ(t(2, 1).toString(), "4.00");
    EXPECT_EQ(t(3, 1).toString(), "5.50");   // the summary's median: mid-range
    EXPECT_EQ(t(4, 1).toString(), "1.581");  // sqrt(12.5 / 5)
    EXPECT_EQ(t(5, 1).toString(), "3.536");  // sqrt(12.5)
    EXPECT_EQ(t(6, 1).toString(), "10.00");
    EXPECT_EQ(t(7, 1).toString(), "1.00");
    EXPECT_EQ(t(8, 1).toString(), "9.00");
    EXPECT_EQ(t(9, 1).toString(), "14.607");  // 4 + 3 sqrt(12.5)
    // B: text and empty cells skipped; -10 -20 -30: Mean + |3 StDev| = -20 + 30.
    EXPECT_EQ(t(1, 2).toLong(), 3);
    EXPECT_EQ(t(2, 2).toString(), "-20.00");
    EXPECT_EQ(t(9, 2).toString(), "10.00");
    // C holds no number: its cells stay empty, Count is not forced.
    EXPECT_EQ(t(0, 3).toString(), "C");
    for (int r2 = 1; r2 <= 9; ++r2) EXPECT_TRUE(t(r2, 3).isEmpty()) << r2;
}

TEST(CalcStatistics, SingleColumnFormatAndHeaderRow) {
    Datam d = SmallTable();
    d(0, 2) = Value("ignored");
    d(1, 2) = Value("Bee");  // a text header in the first data row is skipped as data
    auto r = CalcStatistics(d, 2, "0.0", "T", 1);
    ASSERT_TRUE(r.ok());
    const Datam& t = *r;
    EXPECT_EQ(t.colUb(), 1);
    EXPECT_EQ(t(0, 1).toString(), "Bee");
    EXPECT_EQ(t(1, 1).toLong(), 2);  // -20 and -30
    EXPECT_EQ(t(2, 1).toString(), "-25.0");
    EXPECT_EQ(t(5, 1).toString(), "7.1");   // sqrt(50)
    EXPECT_EQ(t(9, 1).toString(), "-3.8");  // -25 + 3 sqrt(50)
}

TEST(CalcStatistics, Failures) {
    auto none = CalcStatistics(Datam());
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(none.failure().tag, "Util(CalcStatistics): ");
    EXPECT_EQ(none.failure().text, "A table of data for analysis must be given.");
    auto noRows = CalcStatistics(Datam::fromRows({{"k", "A"}}));
    ASSERT_FALSE(noRows.ok());
    EXPECT_EQ(noRows.failure().text,
              "Zero (0) rows available for analysis. Please check selections.");
    auto noData = CalcStatistics(Datam::fromRows({{"k", "A"}, {1, "x"}}));
    ASSERT_FALSE(noData.ok());
    EXPECT_EQ(noData.failure().text, "No data.");
}

// ---------------------------------------------------------------- lot tables

// Two wafers of two fields of two sites; CD by hand, Height = 2 CD but missing
// on the last point.
const double kCD[2][2][2] = {{{1, 2}, {3, 5}}, {{0.5, 0.5}, {4, 8}}};

std::shared_ptr<cLot> HandLot() {
    LotShape shape;
    shape.wafers = 2;
    shape.fieldsX = 2;
    shape.fieldsY = 1;
    shape.sitesX = 2;
    shape.sitesY = 1;
    shape.features = 2;
    return MakeStatsLot(shape, [](const PointAt& at) {
        const double cd = kCD[at.wafer - 1][at.field - 1][at.site - 1];
        const bool last = at.wafer == 2 && at.field == 2 && at.site == 2;
        return std::array<double, 8>{cd, last ? M : 2 * cd, M, M, M, M, M, M};
    });
}

TEST(CalcRawStats, RowsAndValuesByHand) {
    auto lot = HandLot();
    Datam t;
    ASSERT_TRUE(CalcRawStats(*lot, &t).ok());
    EXPECT_EQ(Labels(t), (std::vector<std::string>{
                             "Count", "Wafers", "Fields", "Sites", "IFD", "IFDxy_max", "Raw Astig",
                             "Astig(YXmax)", "________", "__Raw Data__", "Mean", "Median", "SEM",
                             "StdErr", "Maximum", "Minimum", "Range", "Mean+3Sigma"}));
    EXPECT_EQ(t(0, 1).toString(), "CD");
    EXPECT_EQ(t(0, 2).toString(), "Height");
    EXPECT_EQ(t(0, 3).toString(), "Mean");
    EXPECT_EQ(t(1, 1).toLong(), 8);
    EXPECT_EQ(t(2, 1).toLong(), 2);
    EXPECT_EQ(t(3, 1).toLong(), 4);
    EXPECT_EQ(t(4, 1).toLong(), 8);
    // Field ranges CD 1, 2, 0, 4; Height 2, 4, 0, 0 (one value).
    EXPECT_DOUBLE_EQ(t(5, 1).toDouble(), 7.0 / 4);
    EXPECT_DOUBLE_EQ(t(5, 2).toDouble(), 6.0 / 4);
    EXPECT_DOUBLE_EQ(t(6, 1).toDouble(), 7.0 / 4);
    // A scalar lot has no astigmatism.
    for (int c = 1; c <= t.colUb(); ++c) EXPECT_TRUE(t(7, c).isEmpty() && t(8, c).isEmpty());
    // CD: sum 24, sum of squares 119.5, n 8.
    const double var = (8 * 119.5 - 24.0 * 24) / (8 * 7);
    const int s0 = RowOf(t, "Mean");
    EXPECT_DOUBLE_EQ(t(s0, 1).toDouble(), 3);
    EXPECT_DOUBLE_EQ(t(s0 + 1, 1).toDouble(), (8 + 0.5) / 2);
    EXPECT_NEAR(t(s0 + 2, 1).toDouble(), std::sqrt(var / 8), 1e-9);
    EXPECT_NEAR(t(s0 + 3, 1).toDouble(), std::sqrt(var), 1e-9);
    EXPECT_DOUBLE_EQ(t(s0 + 4, 1).toDouble(), 8);
    EXPECT_DOUBLE_EQ(t(s0 + 5, 1).toDouble(), 0.5);
    EXPECT_DOUBLE_EQ(t(s0 + 6, 1).toDouble(), 7.5);
    EXPECT_NEAR(t(s0 + 7, 1).toDouble(), 3 + 3 * std::sqrt(var), 1e-9);
    // Height: 2 4 6 10 1 1 8.
    EXPECT_DOUBLE_EQ(t(s0, 2).toDouble(), 32.0 / 7);
    // Row means 1.5 3 4.5 7.5 0.75 0.75 6 8.
    EXPECT_DOUBLE_EQ(t(s0, 3).toDouble(), 4);
    EXPECT_DOUBLE_EQ(t(s0 + 5, 3).toDouble(), 0.75);
    EXPECT_DOUBLE_EQ(t(s0 + 4, 3).toDouble(), 8);
}

TEST(CalcRawStats, CullingAndDataKind) {
    auto lot = HandLot();
    // Wafer 2 left out: CD 1 2 3 5, field ranges 1 and 2.
    lot->Wafers().At(2)->setCull(true);
    lot->PLotDataType = eFitted;
    lot->forEachLive([](cWafer&, cField&, cSite&, cPoint& p) { p.ValueV_fit = p.ValueV / 2; });
    Datam t;
    ASSERT_TRUE(CalcRawStats(*lot, &t).ok());
    EXPECT_EQ(t(10, 0).toString(), "__Fitted__");
    EXPECT_EQ(t(1, 1).toLong(), 4);
    EXPECT_EQ(t(2, 1).toLong(), 1);
    EXPECT_EQ(t(0, 2).toString(), "Mean");  // Height holds no fitted value: one feature
    EXPECT_DOUBLE_EQ(t(5, 1).toDouble(), (0.5 + 1.0) / 2);
    EXPECT_DOUBLE_EQ(t(RowOf(t, "Mean"), 1).toDouble(), 11.0 / 8);
}

// The same numbers as the lot matrix and the toolkit's summary give them.
TEST(CalcRawStats, MatchesLotMatrixAndSummary) {
    LotShape shape;
    shape.features = 4;
    auto lot = MakeStatsLot(shape, [](const PointAt& at) {
        const double base = at.wafer * 0.37 + at.field * 0.011 - at.a * 0.173 + at.b * 0.0731;
        const bool gap = (at.site + at.field) % 5 == 0;
        return std::array<double, 8>{base,
                                     gap ? M : base * base - 0.3,
                                     1.0 / (at.site + 2),
                                     at.site % 3 ? 12.34567 : M,
                                     M,
                                     M,
                                     M,
                                     M};
    });
    Datam t;
    ASSERT_TRUE(CalcRawStats(*lot, &t).ok());

    Datam m = lot->GetDataMatrix();
    const int f0 = 6, f1 = 13;  // "Yloc" + 1 .. "Family" - 1
    const Datam lim = Datam::fromRows({{f0, f1}}, 1, 1);
    const Datam rowMeans = mat_rcstat(m, "MEAN", false, -1, nullptr, &lim);
    const int meanCol = m.colUb() + 1;
    m.redimPreserve(m.rowUb(), meanCol);
    for (int r = 1; r <= m.rowUb(); ++r) m(r, meanCol) = rowMeans.get(r, 1);
    Datam summary;
    (void)mat_rcstat(m, "AVERAGE", true, -1, &summary);
    auto sumRow = [&](const char* label) {
        for (int r = 1; r <= summary.rowUb(); ++r)
            if (summary(r, 0).toString() == label) return r;
        return 0;
    };
    const char* ours[] = {"Mean",    "Median",  "SEM",   "StdErr",
                          "Maximum", "Minimum", "Range", "Mean+3Sigma"};
    const char* theirs[] = {"Mean",    "Median",  "SEM",   "StDev",
                            "Maximum", "Minimum", "Range", "Mean+3Sigma"};
    for (int i = 0; i < 8; ++i) {
        const int r = RowOf(t, ours[i]), sr = sumRow(theirs[i]);
        ASSERT_GT(sr, 0);
        for (int c = 1; c <= 4; ++c)
            EXPECT_EQ(t(r, c).toDouble(), summary(sr, f0 + c - 1).toDouble())
                << ours[i] << " " << c;
        EXPECT_EQ(t(r, 5).toDouble(), summary(sr, meanCol).toDouble()) << ours[i];
    }
    EXPECT_EQ(t(1, 1).toLong(), m.rowUb());
}

// Vector lot: V and H in columns 6 and 7 of the matrix, d = H - V.
std::shared_ptr<cLot> VectorLot() {
    LotShape shape;
    shape.wafers = 1;
    shape.fieldsX = 2;
    shape.fieldsY = 1;
    shape.sitesX = 2;
    shape.sitesY = 1;
    shape.lineWidth = false;
    shape.features = 3;
    // (V, H) per field and site; d = 1, -5, 3, 0.5; the last H missing.
    return MakeStatsLot(shape, [](const PointAt& at) {
        static const double v[2][2] = {{1, 6}, {-2, 0.5}};
        static const double h[2][2] = {{2, 1}, {1, 7}};
        const bool last = at.field == 2 && at.site == 2;
        return std::array<double, 8>{v[at.field - 1][at.site - 1],
                                     last ? M : h[at.field - 1][at.site - 1],
                                     M,
                                     M,
                                     M,
                                     M,
                                     M,
                                     M};
    });
}

TEST(CalcRawStats, VectorLotAstigmatism) {
    auto lot = VectorLot();
    Datam t;
    ASSERT_TRUE(CalcRawStats(*lot, &t).ok());
    // mean(H) = 4 / 3, mean(V) = 5.5 / 4.
    EXPECT_EQ(t(7, 0).toString(), "Raw Astig");
    EXPECT_EQ(t(7, 1).toString(), "H-Vmeans");
    EXPECT_DOUBLE_EQ(t(7, 2).toDouble(), 4.0 / 3 - 5.5 / 4);
    // d = 1, -5, 3: the extreme of larger magnitude is -5.
    EXPECT_EQ(t(8, 1).toString(), "Astig-Max");
    EXPECT_DOUBLE_EQ(t(8, 2).toDouble(), -5);
    EXPECT_TRUE(t(8, 3).isEmpty());  // no field fit values yet
    // IFD: V ranges 5 and 2.5, H 1 and 0: IFDxy_max the larger of 3.75 and 0.5.
    EXPECT_DOUBLE_EQ(t(5, 1).toDouble(), 3.75);
    EXPECT_DOUBLE_EQ(t(5, 2).toDouble(), 0.5);
    EXPECT_DOUBLE_EQ(t(6, 1).toDouble(), 3.75);

    lot->ValueV_Offset = 0.25f;
    lot->ValueH_Offset = 1.0f;
    ASSERT_TRUE(CalcRawStats(*lot, &t).ok());
    EXPECT_EQ(t(8, 3).toString(), "Astigmatism");
    EXPECT_DOUBLE_EQ(t(8, 4).toDouble(), 0.75);
    // A tilt alone also counts as fit values.
    lot->ValueV_Offset = 0;
    lot->ValueV_Tilt = 0.1f;
    ASSERT_TRUE(CalcRawStats(*lot, &t).ok());
    EXPECT_DOUBLE_EQ(t(8, 4).toDouble(), 1.0);
}

TEST(CalcIFDstats, RowsFitTermsAndAsmlTilts) {
    auto lot = VectorLot();
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields())
            for (cSite* s : f->sites())
                for (cPoint* p : s->Points()) p->ValueV_Res = p->ValueV / 10;
    lot->ValueV_Offset = 0.25f;
    lot->ValueV_XTilt = 2;
    lot->ValueV_Curvature = 3;
    lot->ValueH_Offset = 1.0f;
    Datam t;
    ASSERT_TRUE(CalcIFDstats(*lot, &t).ok());
    EXPECT_EQ(Labels(t),
              (std::vector<std::string>{
                  "Wafers",       "Sites/Die",      "#Dice",       "IFD",          "IFDxy_max",
                  "Raw Astig",    "Astig(YXmax)",   "________",    "_Model__",     "__Wafer__",
                  "IFDresid(um)", "StDEVresid(um)", "__Field__",   "BF(Fitted)",   "X Tilt(urad)",
                  "Y Tilt(urad)", "Tilt(urad)",     "Astigmatism", "Curv(nm/cm2)", "__Stats__",
                  "Mean",         "Median",         "SEM",         "StdErr",       "Maximum",
                  "Minimum",      "Range",          "Mean+3Sigma"}));
    EXPECT_EQ(t(0, 0).toString(), "Raw Data");
    EXPECT_EQ(t(1, 1).toLong(), 1);
    EXPECT_EQ(t(2, 1).toLong(), 2);
    EXPECT_EQ(t(3, 1).toLong(), 2);
    EXPECT_DOUBLE_EQ(t(4, 1).toDouble(), 3.75);
    EXPECT_DOUBLE_EQ(t(7, 2).toDouble(), -5);
    // Residual V: 0.1 0.6 -0.2 0.05: field ranges 0.5, 0.25.
    EXPECT_NEAR(t(11, 1).toDouble(), 0.375, 1e-6);
    EXPECT_TRUE(t(11, 2).isEmpty());
    EXPECT_DOUBLE_EQ(t(14, 1).toDouble(), 0.25);
    EXPECT_DOUBLE_EQ(t(14, 2).toDouble(), 1.0);
    EXPECT_TRUE(t(15, 1).isEmpty());  // tilts only for ASML data
    EXPECT_DOUBLE_EQ(t(18, 1).toDouble(), 0.75);
    EXPECT_DOUBLE_EQ(t(19, 1).toDouble(), 3);
    EXPECT_DOUBLE_EQ(t(RowOf(t, "Mean"), 1).toDouble(), 5.5 / 4);

    lot->MetrologyTool = "asml Stepper ";
    ASSERT_TRUE(CalcIFDstats(*lot, &t).ok());
    EXPECT_DOUBLE_EQ(t(15, 1).toDouble(), 2);
    EXPECT_DOUBLE_EQ(t(16, 1).toDouble(), 0);
}

TEST(CalcFeatureStats, LevelsByHand) {
    auto lot = HandLot();
    Datam t;
    ASSERT_TRUE(CalcFeatureStats(*lot, &t).ok());
    EXPECT_EQ(Labels(t),
              (std::vector<std::string>{"Points", "Time-Samples", "Sensors", "Wafers", "Fields",
                                        "Sites", "________", "___Wafer___", "___Model___",
                                        " ___Field___", "__Raw Data__", "IFDresid(um)"}));
    EXPECT_EQ(t(0, 0).toString(), "CD");  // no plot feature chosen: the first
    EXPECT_EQ(t(0, 1).toString(), "abs(Min/Max)");
    EXPECT_EQ(t(0, 2).toString(), " Mean");
    EXPECT_EQ(t(0, 3).toString(), " (Max)");
    EXPECT_EQ(t(0, 4).toString(), " (IFD)");
    EXPECT_EQ(t(1, 1).toLong(), 8);
    EXPECT_EQ(t(2, 1).toLong(), 1);
    EXPECT_EQ(t(3, 1).toLong(), 2);
    // Wafer means 2.75, 3.25; field means 1.5, 4, 0.5, 6.
    EXPECT_DOUBLE_EQ(t(8, 1).toDouble(), 3.25);
    EXPECT_DOUBLE_EQ(t(8, 2).toDouble(), 3);
    EXPECT_TRUE(t(8, 4).isEmpty());
    EXPECT_TRUE(t(9, 1).isEmpty());  // no fitted values
    EXPECT_DOUBLE_EQ(t(10, 1).toDouble(), 6);
    EXPECT_DOUBLE_EQ(t(10, 2).toDouble(), 3);
    EXPECT_DOUBLE_EQ(t(11, 1).toDouble(), 8);
    EXPECT_DOUBLE_EQ(t(11, 4).toDouble(), 1.75);

    lot->PlotFeature(2);
    ASSERT_TRUE(CalcFeatureStats(*lot, &t).ok());
    EXPECT_EQ(t(0, 0).toString(), "Height");
    EXPECT_DOUBLE_EQ(t(11, 3).toDouble(), 10);
}

TEST(LotStats, Failures) {
    auto lot = HandLot();
    using Fn = Status (*)(cLot&, Datam*);
    const std::pair<Fn, const char*> fns[] = {{CalcRawStats, "cLot(CalcRawStats): "},
                                              {CalcFeatureStats, "Clot(CalcFeatureStats): "},
                                              {CalcIFDstats, "cLot(CalcIFDstats): "}};
    ScopedCapture cap;
    for (const auto& [fn, tag] : fns) {
        Status s = fn(*lot, nullptr);
        ASSERT_FALSE(s.ok());
        EXPECT_EQ(s.failure().tag, tag);
        EXPECT_EQ(s.failure().text, "A table of data for analysis must be given.");
    }
    // All values missing: rows but no data.
    auto empty = HandLot();
    empty->forEachLive(
        [](cWafer&, cField&, cSite&, cPoint& p) { p.ValueV = p.ValueH = kMissingValue; });
    Datam t;
    for (const auto& [fn, tag] : fns) {
        Status s = fn(*empty, &t);
        ASSERT_FALSE(s.ok()) << tag;
        EXPECT_EQ(s.failure().text, "No data.");
    }
    // Everything culled: no rows.
    for (cWafer* w : lot->Wafers()) w->setCull(true);
    for (const auto& [fn, tag] : fns) {
        Status s = fn(*lot, &t);
        ASSERT_FALSE(s.ok()) << tag;
        EXPECT_EQ(s.failure().text,
                  "Zero (0) rows available for analysis. Please check selections.");
    }
    auto cov = CoVariance(*lot);
    ASSERT_FALSE(cov.ok());
    EXPECT_EQ(cov.failure().tag, "cLot(CoVariance): ");
    EXPECT_EQ(cov.failure().text, "Not enough data points.");
    EXPECT_TRUE(cap.boxes.empty()) << cap.joined();
}

// ---------------------------------------------------------------- CoVariance

TEST(CoVariance, MatchesMomentsOfTheLotMatrix) {
    LotShape shape;
    shape.features = 3;
    auto lot = MakeStatsLot(shape, [](const PointAt& at) {
        const double x = at.a * 0.7 + at.wafer * 0.13 + at.field * 0.05;
        const double y = at.b * -0.4 + x * 0.3 + (at.site % 4) * 0.021;
        return std::array<double, 8>{
            x, at.site == 5 ? M : y, (at.site * 7 % 5) * 0.2 - x, M, M, M, M, M};
    });
    ScopedCapture cap;
    auto r = CoVariance(*lot);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    const Datam& c = *r;
    ASSERT_EQ(c.rowUb(), 3);
    ASSERT_EQ(c.colUb(), 3);
    EXPECT_EQ(c(0, 2).toString(), "Height");
    EXPECT_EQ(c(3, 0).toString(), "SWA");
    EXPECT_EQ(cap.statuses.front(), "Covariance setup ...");
    EXPECT_EQ(cap.statuses[1], "Feature Family setup ...");
    EXPECT_EQ(cap.statuses[2], "Covariance analysis feature: 1 of 3");
    EXPECT_EQ(cap.statuses.back(), "Final setup of covariance matrix ...");

    // (E[xy] - E[x]E[y]) n / (n - 1) over the rows holding both.
    const Datam m = lot->GetDataMatrix();
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j) {
            double sx = 0, sy = 0, sxy = 0;
            long n = 0;
            for (int row = 1; row <= m.rowUb(); ++row) {
                const double x = m(row, 5 + i).toDouble(), y = m(row, 5 + j).toDouble();
                if (IsMissingTol(x) || IsMissingTol(y)) continue;
                sx += x;
                sy += y;
                sxy += x * y;
                ++n;
            }
            const double want = (sxy / n - (sx / n) * (sy / n)) * n / (n - 1);
            EXPECT_NEAR(c(i, j).toDouble(), want, 1e-9) << i << "," << j;
        }
}

// ---------------------------------------------------------------- CalcPointVectors

TEST(CalcPointVectors, ThreeFourFive) {
    LotShape shape;
    shape.wafers = 1;
    shape.fieldsX = 1;
    shape.fieldsY = 1;
    shape.sitesX = 2;
    shape.sitesY = 1;
    shape.lineWidth = false;
    shape.features = 3;
    auto lot = MakeStatsLot(shape, [](const PointAt& at) {
        return std::array<double, 8>{at.site == 1 ? 3.0 : M, -4, 1, M, M, M, M, M};
    });
    CalcPointVectors(*lot);
    std::vector<float> z;
    lot->forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) { z.push_back(p.ValueZ); });
    ASSERT_EQ(z.size(), 2u);
    EXPECT_FLOAT_EQ(z[0], 5000);
    EXPECT_EQ(z[1], kMissingValue);
    EXPECT_EQ(lot->valueZ_Name, "Magnitude");
    EXPECT_EQ(lot->PlotFeatureName, "Magnitude");
}

}  // namespace
}  // namespace zorv
