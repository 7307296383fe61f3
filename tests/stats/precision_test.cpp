// The precision table against sums of squares computed here by explicit
// group loops (a map from each level's key to its values), on lots whose
// nested structure is known.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "base/report.h"
#include "stats/precision.h"
#include "stats_fixture.h"

using namespace zorv;
using namespace zorv::testing;

namespace {

// One point as the reference sees it.
struct Obs {
    int wafer, field, site, family;
    double x, y, xabs, yabs;  // mm
    std::vector<double> v;    // per feature; NaN where missing
};

std::vector<Obs> Collect(cLot& lot, int nf) {
    std::vector<Obs> out;
    int wi = 0, fi = 0;
    const cWafer* lw = nullptr;
    const cField* lf = nullptr;
    lot.forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        if (&w != lw) lw = &w, ++wi;
        if (&f != lf) lf = &f, ++fi;
        Obs o{wi, fi, s.NumberKey(), int(s.Family()), s.LocationX / 1000.0, s.LocationY / 1000.0,
              s.LocationXabs / 1000.0, s.LocationYabs / 1000.0, {}};
        for (int k = 1; k <= nf; ++k) {
            const float raw = *p.FeatureSlot(k, 0);
            o.v.push_back(raw == kMissingValue ? NAN : double(float(raw / 1000.0)));
        }
        out.push_back(o);
    });
    return out;
}

// Pooled within-group sum of squares of feature j, and the number of groups.
template <class Key>
std::pair<double, int> WithinSS(const std::vector<Obs>& obs, int j, Key key) {
    std::map<decltype(key(obs[0])), std::vector<double>> groups;
    for (const Obs& o : obs) groups[key(o)].push_back(o.v[j]);
    double ss = 0;
    for (auto& [k, vals] : groups) {
        double sum = 0;
        int n = 0;
        for (double x : vals)
            if (!std::isnan(x)) sum += x, ++n;
        const double mean = n ? sum / n : 0;
        for (double x : vals)
            if (!std::isnan(x)) ss += (x - mean) * (x - mean);
    }
    return {ss, int(groups.size())};
}

// The table's number in a row by label; NaN when the row is absent.
double Cell(const Datam& t, const std::string& label, int col) {
    for (int r = 1; r <= t.rowUb(); ++r)
        if (t(r, 0).str() == label) return std::stod(std::string(t(r, col).str()));
    return NAN;
}
bool HasRow(const Datam& t, const std::string& label) {
    for (int r = 1; r <= t.rowUb(); ++r)
        if (t(r, 0).str() == label) return true;
    return false;
}

// Wafer, field and site effects and a site pattern that differs by field, so
// that each level has its own share.
std::array<double, 8> Nested(const PointAt& p) {
    const double w = 0.8 * p.wafer, f = 0.3 * ((p.field * 7) % 5), s = 0.05 * ((p.site * 3) % 7);
    const double e = 0.01 * ((p.wafer * 31 + p.field * 17 + p.site * 13) % 11);
    return {10 + w + f + s + e, 5 - 2 * w + s - e, 0, 0, 0, 0, 0, 0};
}

}  // namespace

TEST(CalcPrecision, EveryLevelMatchesExplicitGroupSums) {
    LotShape shape;
    shape.wafers = 3;
    shape.fieldsX = 3;
    shape.fieldsY = 2;
    shape.sitesX = 4;
    shape.sitesY = 3;
    shape.features = 2;
    shape.families = 3;
    auto lot = MakeStatsLot(shape, Nested);
    auto res = CalcPrecision(*lot);
    ASSERT_TRUE(res) << res.failure().message();
    const Datam& t = *res;
    const std::vector<Obs> obs = Collect(*lot, 2);
    const int N = int(obs.size()), W = 3, F = 18;
    ASSERT_EQ(N, 3 * 6 * 12);

    const std::vector<std::string> order = {"#Points:", "Average", "Range", "_Precision_", "Lot", "Wafer",
                                            "InterWafer", "Field", "Field Grid", "Site", "IntraField",
                                            "InterField", "Column", "InterColumn", "Row", "InterRow",
                                            "Family", "IntraFamily"};
    ASSERT_EQ(t.rowUb(), int(order.size()));
    for (int r = 1; r <= t.rowUb(); ++r) EXPECT_EQ(t(r, 0).str(), order[r - 1]);
    EXPECT_EQ(t(0, 1).str(), "CD");
    EXPECT_EQ(t(0, 2).str(), "Height");
    EXPECT_EQ(t(4, 1).str(), "_____");

    for (int j = 0; j < 2; ++j) {
        SCOPED_TRACE(j);
        const int col = j + 1;
        auto dofOf = [&](int groups) { return double(N - groups - 1); };
        auto [ssLot, g1] = WithinSS(obs, j, [](const Obs&) { return 0; });
        auto [ssW, gw] = WithinSS(obs, j, [](const Obs& o) { return o.wafer; });
        auto [ssF, gf] = WithinSS(obs, j, [](const Obs& o) { return o.field; });
        auto [ssS, gs] = WithinSS(obs, j, [](const Obs& o) { return o.site; });
        auto [ssG, gg] = WithinSS(obs, j, [](const Obs& o) {
            return std::lround((o.xabs * o.xabs + o.yabs * o.yabs) * 1000);
        });
        auto [ssC, gc] = WithinSS(obs, j, [](const Obs& o) { return std::make_pair(o.field, std::lround(o.x * 1000)); });
        auto [ssR, gr] = WithinSS(obs, j, [](const Obs& o) { return std::make_pair(o.field, std::lround(o.y * 1000)); });
        auto [ssP, gp] = WithinSS(obs, j, [](const Obs& o) { return o.family; });
        EXPECT_EQ(gw, W);
        EXPECT_EQ(gf, F);
        EXPECT_EQ(gc, F * 4);
        EXPECT_EQ(gr, F * 3);
        const double T = N, S = 12;
        (void)S;
        const double tol = 6e-4;
        EXPECT_EQ(t(1, col).toLong(), N);
        EXPECT_NEAR(Cell(t, "Lot", col), std::sqrt(ssLot / (N - 1)), tol);
        EXPECT_NEAR(Cell(t, "Wafer", col), std::sqrt(ssW / dofOf(gw)), tol);
        EXPECT_NEAR(Cell(t, "InterWafer", col), std::sqrt(std::fabs((ssLot - ssW) / (N - double(N) / W))), tol);
        EXPECT_NEAR(Cell(t, "Field", col), std::sqrt(ssF / dofOf(gf)), tol);
        EXPECT_NEAR(Cell(t, "Field Grid", col), std::sqrt(std::fabs(ssG / dofOf(gg))), tol);
        EXPECT_NEAR(Cell(t, "Site", col), std::sqrt(std::fabs(ssS / dofOf(gs))), tol);
        EXPECT_NEAR(Cell(t, "IntraField", col), std::sqrt(std::fabs((ssF - ssS) / (T - F))), tol);
        EXPECT_NEAR(Cell(t, "InterField", col), std::sqrt(std::fabs(ssW - ssF) / (F - W)), tol);
        EXPECT_NEAR(Cell(t, "Column", col), std::sqrt(ssC / dofOf(gc)), tol);
        EXPECT_NEAR(Cell(t, "InterColumn", col),
                    std::sqrt(std::fabs((ssF - ssC) / (dofOf(gf) - double(gc) / F))), tol);
        EXPECT_NEAR(Cell(t, "Row", col), std::sqrt(ssR / dofOf(gr)), tol);
        EXPECT_NEAR(Cell(t, "InterRow", col),
                    std::sqrt(std::fabs((ssF - ssR) / (dofOf(gf) - double(gr) / F))), tol);
        EXPECT_NEAR(Cell(t, "Family", col), std::sqrt(ssP / dofOf(gp)), tol);
    }
    // The table's number format.
    EXPECT_EQ(t(2, 1).str().find('.') != std::string::npos, true);
}

TEST(CalcPrecision, OneWaferOneFieldAndSparseFields) {
    LotShape shape;
    shape.features = 1;
    {
        SCOPED_TRACE("one wafer: Wafer and InterWafer repeat the Lot row");
        shape.wafers = 1;
        auto lot = MakeStatsLot(shape, Nested);
        auto res = CalcPrecision(*lot);
        ASSERT_TRUE(res);
        EXPECT_EQ(Cell(*res, "Wafer", 1), Cell(*res, "Lot", 1));
        EXPECT_EQ(Cell(*res, "InterWafer", 1), Cell(*res, "Lot", 1));
        EXPECT_FALSE(HasRow(*res, "Field Grid"));  // needs W > 1
        EXPECT_TRUE(HasRow(*res, "Field"));
    }
    {
        SCOPED_TRACE("one field: IntraField is the standard deviation of all points");
        shape.wafers = 1;
        shape.fieldsX = shape.fieldsY = 1;
        auto lot = MakeStatsLot(shape, Nested);
        auto res = CalcPrecision(*lot);
        ASSERT_TRUE(res);
        const auto obs = Collect(*lot, 1);
        double s1 = 0, s2 = 0;
        for (const Obs& o : obs) s1 += o.v[0], s2 += o.v[0] * o.v[0];
        const double n = double(obs.size());
        EXPECT_NEAR(Cell(*res, "IntraField", 1), std::sqrt((n * s2 - s1 * s1) / (n * (n - 1))), 6e-4);
        EXPECT_FALSE(HasRow(*res, "Field"));
        EXPECT_FALSE(HasRow(*res, "InterField"));
    }
    {
        SCOPED_TRACE("T = F: one site in each field, the IntraField divisor is 1");
        shape = LotShape();
        shape.features = 1;
        shape.wafers = 2;
        shape.fieldsX = 2;
        shape.fieldsY = 1;
        shape.sitesX = 2;
        shape.sitesY = 1;
        auto lot = MakeStatsLot(shape, Nested);
        // Keep site 1 in the first field of each wafer and site 2 in the second.
        for (cWafer* w : lot->Wafers()) {
            int fi = 0;
            for (cField* f : w->Fields()) {
                ++fi;
                for (cSite* s : f->sites())
                    if (s->NumberKey() != fi) s->setCull(true);
            }
        }
        auto res = CalcPrecision(*lot);
        ASSERT_TRUE(res);
        const auto obs = Collect(*lot, 1);
        ASSERT_EQ(obs.size(), 4u);
        auto [ssF, gf] = WithinSS(obs, 0, [](const Obs& o) { return o.field; });
        auto [ssS, gs] = WithinSS(obs, 0, [](const Obs& o) { return o.site; });
        EXPECT_EQ(ssF, 0.0);
        EXPECT_NEAR(Cell(*res, "IntraField", 1), std::sqrt(std::fabs(ssF - ssS) / 1.0), 6e-4);
    }
}

TEST(CalcPrecision, ConstantFeatureAndMissingValues) {
    LotShape shape;
    shape.features = 2;
    shape.families = 2;
    // Feature 1 all zeros; feature 2 missing on site 5 of every field.
    auto lot = MakeStatsLot(shape, [](const PointAt& p) {
        std::array<double, 8> v{};
        v[1] = p.site == 5 ? double(kMissingValue) : 1.0 + 0.1 * p.site + 0.5 * p.wafer;
        return v;
    });
    CaptureReporter rep;
    SetReporter(&rep);
    auto res = CalcPrecision(*lot);
    SetReporter(nullptr);
    ASSERT_TRUE(res) << res.failure().message();
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();
    const Datam& t = *res;
    for (int r = 5; r <= t.rowUb(); ++r) {
        SCOPED_TRACE(t(r, 0).str());
        EXPECT_EQ(std::stod(std::string(t(r, 1).str())), 0.0);
        EXPECT_TRUE(std::isfinite(std::stod(std::string(t(r, 2).str()))));
    }
    // The missing site is left out of the count and of the sums.
    const int perSite = 2 * 4;  // wafers x fields
    EXPECT_EQ(t(1, 2).toLong(), 9 * perSite - perSite);
    const auto obs = Collect(*lot, 2);
    auto [ssS, gs] = WithinSS(obs, 1, [](const Obs& o) { return o.site; });
    EXPECT_NEAR(Cell(t, "Site", 2), std::sqrt(ssS / double(obs.size() - gs - 1)), 6e-4);
}

TEST(CalcPrecision, NegativeDifferencesAreTakenInAbsoluteValue) {
    // Large field effects and no site pattern: the within-site sum of squares
    // exceeds the within-field one, so SSf - SSs is negative.
    LotShape shape;
    shape.features = 1;
    auto lot = MakeStatsLot(shape, [](const PointAt& p) {
        std::array<double, 8> v{};
        v[0] = 3.0 * p.field + 0.01 * ((p.site * 5) % 3);
        return v;
    });
    auto res = CalcPrecision(*lot);
    ASSERT_TRUE(res);
    const auto obs = Collect(*lot, 1);
    auto [ssF, gf] = WithinSS(obs, 0, [](const Obs& o) { return o.field; });
    auto [ssS, gs] = WithinSS(obs, 0, [](const Obs& o) { return o.site; });
    ASSERT_LT(ssF, ssS);
    const double T = double(obs.size()), F = gf;
    EXPECT_NEAR(Cell(*res, "IntraField", 1), std::sqrt((ssS - ssF) / (T - F)), 6e-4);
}

TEST(CalcPrecision, NoDataAndEscape) {
    LotShape shape;
    shape.features = 1;
    auto lot = MakeStatsLot(shape, Nested);
    for (cWafer* w : lot->Wafers()) w->setCull(true);
    auto none = CalcPrecision(*lot);
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().text, "No data.");
    EXPECT_EQ(none.failure().tag, "cLot(CalcPrecision): ");
    for (cWafer* w : lot->Wafers()) w->setCull(false);

    // Esc pressed while "Field ..." shows: the table stops after the levels
    // before it, as it stands.
    struct EscAtField : CaptureReporter {
        void status(const std::string& text) override {
            CaptureReporter::status(text);
            if (text == "Field ...") SetEscPressed(true);
        }
    } rep;
    SetReporter(&rep);
    auto part = CalcPrecision(*lot);
    SetReporter(nullptr);
    SetEscPressed(false);
    ASSERT_TRUE(part);
    ASSERT_EQ(part->rowUb(), 7);
    EXPECT_EQ((*part)(7, 0).str(), "InterWafer");
    EXPECT_EQ(rep.statuses.front(), "Lot..");
}
