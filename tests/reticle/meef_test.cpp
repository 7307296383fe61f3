// Mask error factors against lots with a known MEEF map: the local slopes
// within their errors, the field-wide slope against a straight-line fit
// written here, the neighbour order, the edge cases and bad input.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <random>

#include "lot/lot.h"
#include "meef_lots.h"
#include "reticle/meef.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::testing;
namespace fs = std::filesystem;

namespace {

constexpr double kNominal = 90, kMag = 4;

MEFSetup MefSetup(double mag = kMag) {
    MEFSetup s;
    s.feature = "CD";
    s.reticleFeature = "Mask_CD";
    s.mag = mag;
    return s;
}

// Wafer CD through a MEEF map, with Gaussian noise of `noise` nm.
CdLaw Law(const MeefMap& m, double noise, unsigned seed = 11) {
    auto rng = std::make_shared<std::mt19937>(seed);
    return [=](const MaskSite& s, int, int) {
        std::normal_distribution<double> g(0.0, 1.0);
        return kNominal + m(s.x, s.y) * (s.maskCD / kMag - kNominal) + noise * g(*rng);
    };
}

// Slope, intercept and the slope's standard error of y on x, as a textbook
// writes them (n - 2 degrees of freedom).
struct Line {
    double slope = 0, offset = 0, slopeSE = 0;
};
Line HandFit(const std::vector<double>& x, const std::vector<double>& y) {
    const double n = static_cast<double>(x.size());
    double mx = 0, my = 0;
    for (size_t i = 0; i < x.size(); ++i) mx += x[i] / n, my += y[i] / n;
    double sxx = 0, sxy = 0;
    for (size_t i = 0; i < x.size(); ++i) sxx += (x[i] - mx) * (x[i] - mx), sxy += (x[i] - mx) * (y[i] - my);
    Line l;
    l.slope = sxy / sxx;
    l.offset = my - l.slope * mx;
    double ssr = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        const double e = y[i] - l.offset - l.slope * x[i];
        ssr += e * e;
    }
    l.slopeSE = std::sqrt(ssr / (n - 2) / sxx);
    return l;
}

const MEFRow* RowOf(const MEFResult& r, double dieX, double dieY, int site) {
    for (const MEFRow& row : r.rows)
        if (row.dieX == dieX && row.dieY == dieY && row.site == site) return &row;
    return nullptr;
}

}  // namespace

// ---------------------------------------------------------------- against truth

TEST(MeefTruth, LocalSlopesFollowTheMapWithinTheirErrors) {
    const std::vector<MaskSite> mask = MaskGrid(9, 3.0);
    const MeefMap map{2.0, 0.003, -0.002, 0.0001};
    auto lot = WaferLot(mask, 3, Law(map, 0.3));
    auto ret = ReticleLot(mask);
    auto r = FindMEF(lot.get(), ret.get(), MefSetup());
    ASSERT_TRUE(r.ok()) << r.failure().message();
    ASSERT_EQ(r->rows.size(), 9u * 81u);
    ASSERT_EQ(r->fields.size(), 9u);
    double z2 = 0;
    for (const MEFRow& row : r->rows) {
        const MaskSite& s = mask[static_cast<size_t>(row.site - 1)];
        ASSERT_TRUE(std::isfinite(row.meef)) << row.site;
        const double z = (row.meef - map(s.x, s.y)) / row.slopeSigma;
        EXPECT_LT(std::fabs(z), 4.5) << "site " << row.site << " meef " << row.meef << " truth " << map(s.x, s.y);
        z2 += z * z;
        // Bias is wafer less reticle CD, so its slope is the MEEF less one.
        EXPECT_NEAR(row.beef, row.meef - 1, 1e-9);
        EXPECT_NEAR(row.retCD, s.maskCD / kMag, 1e-9);
    }
    // The errors are of the right size: the mean square of z is about 1.
    const double meanZ2 = z2 / static_cast<double>(r->rows.size());
    EXPECT_GT(meanZ2, 0.3);
    EXPECT_LT(meanZ2, 3.0);
}

TEST(MeefTruth, FieldWideSlopeIsAStraightLineThroughTheFieldsPoints) {
    const std::vector<MaskSite> mask = MaskGrid(7, 4.0, 3);
    const MeefMap map{1.8, 0.01, 0.0, 0.0005};
    const CdLaw law = Law(map, 0.4, 5);
    // Draw the values once, so that the hand fit sees the same numbers.
    std::map<std::tuple<int, int, int>, double> cd;
    for (int fy = 0; fy < 2; ++fy)
        for (int fx = 0; fx < 2; ++fx)
            for (const MaskSite& s : mask) cd[{fx, fy, s.number}] = law(s, fx, fy);
    auto lot = WaferLot(mask, 2, [&](const MaskSite& s, int fx, int fy) { return cd[{fx, fy, s.number}]; });
    auto ret = ReticleLot(mask);
    auto r = FindMEF(lot.get(), ret.get(), MefSetup());
    ASSERT_TRUE(r.ok()) << r.failure().message();
    ASSERT_EQ(r->fields.size(), 4u);
    for (const MEFField& f : r->fields) {
        std::vector<double> x, y, b;
        for (const MaskSite& s : mask) {
            // Values pass through the tree as float thousandths.
            const double v = static_cast<float>(cd[{int(f.dieX), int(f.dieY), s.number}] * 1000) / 1000.0;
            x.push_back(s.maskCD / kMag);
            y.push_back(v);
            b.push_back(v - s.maskCD / kMag);
        }
        const Line line = HandFit(x, y), bias = HandFit(x, b);
        EXPECT_NEAR(f.meef, line.slope, 1e-6 * std::fabs(line.slope)) << f.title;
        EXPECT_NEAR(f.meefSigma, line.slopeSE, 0.02 * line.slopeSE);
        EXPECT_NEAR(f.beef, bias.slope, 1e-6);
        EXPECT_NEAR(f.retEffective, -bias.offset / bias.slope, 1e-4);
        // Every row of the field carries the field-wide values.
        for (int i = f.firstRow; i < f.firstRow + f.rows; ++i) {
            EXPECT_EQ(r->rows[i].meefField, f.meef);
            EXPECT_EQ(r->table(i + 1, mefMEEFfield).toDouble(), f.meef);
            EXPECT_EQ(r->table(i + 1, mefMEEFfieldSigma).toDouble(), f.meefSigma);
        }
    }
    // The summary: title row, heads, one row per field with 3 sigma.
    EXPECT_EQ(r->summary(0, 1).str(), "Full-Field");
    EXPECT_EQ(r->summary(0, 2).str(), "Summary");
    EXPECT_EQ(r->summary(1, 1).str(), "Die(X,Y)");
    EXPECT_EQ(r->summary(1, 3).str(), "StdErr(3s)");
    EXPECT_EQ(r->summary(3, 1).str(), "(1, 0)");
    EXPECT_DOUBLE_EQ(r->summary(3, 3).toDouble(), 3 * r->fields[1].meefSigma);
}

TEST(MeefTruth, ConstantMeefWithoutNoiseIsExactAndZeroBiasSitsAtTheNominal) {
    const std::vector<MaskSite> mask = MaskGrid(5, 2.0);
    auto lot = WaferLot(mask, 1, Law(MeefMap{2.5}, 0));
    auto ret = ReticleLot(mask);
    auto r = FindMEF(lot.get(), ret.get(), MefSetup());
    ASSERT_TRUE(r.ok()) << r.failure().message();
    for (const MEFRow& row : r->rows) {
        EXPECT_NEAR(row.meef, 2.5, 1e-4);
        EXPECT_NEAR(row.beef, 1.5, 1e-4);
        // bias = 1.5 ret - 135: zero at a reticle CD of 90.
        EXPECT_NEAR(row.retEffective, 90, 1e-2);
        EXPECT_NEAR(row.ratio, row.cd / row.retCD, 1e-12);
    }
    EXPECT_NEAR(r->fields[0].meef, 2.5, 1e-4);
}

TEST(MeefTruth, ReticleOnACoarserGridIsInterpolated) {
    // The reticle measured every 2 mm, CD linear in x and y; the lot every 1 mm.
    std::vector<MaskSite> coarse;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            coarse.push_back({r * 3 + c + 1, (c - 1) * 2.0, (r - 1) * 2.0, 360 + 8 * (c - 1) * 2.0 - 4 * (r - 1) * 2.0});
    std::vector<MaskSite> fine = MaskGrid(5, 1.0);
    auto lot = WaferLot(fine, 1, [](const MaskSite& s, int, int) { return 80 + s.x; });
    auto ret = ReticleLot(coarse);
    auto r = FindMEF(lot.get(), ret.get(), MefSetup(1));
    ASSERT_TRUE(r.ok()) << r.failure().message();
    ASSERT_EQ(r->rows.size(), 25u);
    for (const MEFRow& row : r->rows) {
        const MaskSite& s = fine[static_cast<size_t>(row.site - 1)];
        EXPECT_NEAR(row.retCD, 360 + 8 * s.x - 4 * s.y, 1e-3) << row.site;
    }
}

TEST(MeefTruth, SiteMagnificationBringsReticlePositionsToTheLots) {
    const std::vector<MaskSite> mask = MaskGrid(5, 2.0);
    auto lot = WaferLot(mask, 1, Law(MeefMap{2.0}, 0));
    auto ret = ReticleLot(mask, 4);  // positions at mask scale
    MEFSetup s = MefSetup();
    s.siteMag = 4;
    auto r = FindMEF(lot.get(), ret.get(), s);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    EXPECT_EQ(r->rows.size(), 25u);
    EXPECT_NEAR(r->fields[0].meef, 2.0, 1e-4);
}

// ---------------------------------------------------------------- the neighbour table

TEST(MeefNeighbors, OffsetsInTheirOrderOnAFiveByFiveGrid) {
    SiteLayout layout;
    for (int r = 0; r < 5; ++r)
        for (int c = 0; c < 5; ++c) layout.push_back({r * 5 + c + 1, c * 1000.0, r * 1000.0});
    auto nb = GetNeighborSites(layout);
    ASSERT_TRUE(nb.ok());
    // Site 13 at (2, 2): ring one, then row r-2, the sides row by row, row r+2.
    const int want[kMefNeighbors] = {8, 18, 14, 12, 7, 9, 17, 19, 1, 2, 3, 4, 5,
                                     6, 10, 11, 15, 16, 20, 21, 22, 23, 24, 25};
    const int i = nb->IndexOf(13);
    for (int k = 0; k < kMefNeighbors; ++k) EXPECT_EQ(nb->site[nb->neighbor[i][k]], want[k]) << "k " << k + 1;
    // Corner site 1 at (0, 0): three direct neighbours (k 2, 3, 8) and five of ring two.
    const int c = nb->IndexOf(1);
    std::vector<int> direct, ring2;
    for (int k = 0; k < kMefNeighbors; ++k)
        if (nb->neighbor[c][k] >= 0) (k < 8 ? direct : ring2).push_back(nb->site[nb->neighbor[c][k]]);
    EXPECT_EQ(direct, (std::vector<int>{6, 2, 7}));
    EXPECT_EQ(ring2, (std::vector<int>{3, 8, 11, 12, 13}));
    const Datam t = nb->ToDatam();
    EXPECT_EQ(t(0, 1).str(), "Site");
    EXPECT_EQ(t(0, 25).str(), "N24");
    EXPECT_TRUE(t(1, 2).isEmpty());  // site 1 has nothing at (c, r - 1)
}

// ---------------------------------------------------------------- edge cases

TEST(MeefEdges, CornerSiteStillFits) {
    const std::vector<MaskSite> mask = MaskGrid(5, 2.0);
    auto lot = WaferLot(mask, 1, Law(MeefMap{2.2}, 0.2));
    auto ret = ReticleLot(mask);
    auto r = FindMEF(lot.get(), ret.get(), MefSetup());
    ASSERT_TRUE(r.ok());
    const MEFRow* corner = RowOf(*r, 0, 0, 1);
    ASSERT_TRUE(corner);
    EXPECT_EQ(corner->points, 9);  // itself, 3 direct, 5 of ring two
    EXPECT_TRUE(std::isfinite(corner->meef));
    EXPECT_EQ(RowOf(*r, 0, 0, 3)->points, 15);   // middle of an edge
    EXPECT_EQ(RowOf(*r, 0, 0, 13)->points, 25);  // the centre
}

TEST(MeefEdges, SiteWithoutNeighboursStaysBlank) {
    // Field (1, 0) holds only the four corners of the 5 x 5 grid: 4 apart.
    const std::vector<MaskSite> mask = MaskGrid(5, 2.0);
    auto lot = WaferLot(mask, 2, [](const MaskSite& s, int fx, int) {
        const bool corner = s.number == 1 || s.number == 5 || s.number == 21 || s.number == 25;
        return fx == 1 && !corner ? NAN : kNominal + 2 * (s.maskCD / kMag - kNominal);
    });
    // Field (1, 1) too; the layout comes from the full fields (0, 0) and (0, 1).
    auto ret = ReticleLot(mask);
    auto r = FindMEF(lot.get(), ret.get(), MefSetup());
    ASSERT_TRUE(r.ok()) << r.failure().message();
    int alone = 0;
    for (int i = 1; i <= r->table.rowUb(); ++i) {
        if (r->table(i, mefDieX).toDouble() != 1) continue;
        ++alone;
        for (int c : {mefMEEF, mefBEEF, mefRetEffective})
            EXPECT_TRUE(r->table(i, c).isEmpty()) << "row " << i << " col " << c;
        for (int c = mefOffset; c <= mefBiasSlopeSigma; ++c) EXPECT_TRUE(r->table(i, c).isEmpty()) << c;
        for (int c : {mefCD, mefRetCD, mefBias, mefRatio, mefMEEFfield}) EXPECT_FALSE(r->table(i, c).isEmpty()) << c;
    }
    EXPECT_EQ(alone, 8);  // fields (1, 0) and (1, 1), four corners each
}

TEST(MeefEdges, BiasSlopeOfZeroLeavesRetEffectiveBlank) {
    // Wafer CD = reticle CD + 5 exactly: MEEF 1, bias flat.
    const std::vector<MaskSite> mask = MaskGrid(5, 2.0);
    auto lot = WaferLot(mask, 1, [](const MaskSite& s, int, int) { return s.maskCD + 5; });
    auto ret = ReticleLot(mask);
    auto r = FindMEF(lot.get(), ret.get(), MefSetup(1));
    ASSERT_TRUE(r.ok()) << r.failure().message();
    for (int i = 1; i <= r->table.rowUb(); ++i) {
        EXPECT_NEAR(r->table(i, mefMEEF).toDouble(), 1.0, 1e-9);
        EXPECT_TRUE(r->table(i, mefRetEffective).isEmpty());
        EXPECT_TRUE(r->table(i, mefBEEF).isEmpty());
        EXPECT_NEAR(r->table(i, mefBias).toDouble(), 5.0, 1e-9);
    }
    EXPECT_TRUE(r->table(1, mefRetEffField).isEmpty());
    EXPECT_EQ(r->table(1, mefBEEFfield).toDouble(), 0.0);
}

TEST(MeefEdges, NeighbourMissingInTheFieldCountsThroughItsEquivalent) {
    // Sites 1..9 on a 3 x 3 grid; site 105 on the place of site 5 (a second
    // feature on the same mask spot). Field (1, 0) lacks site 5 but has 105.
    std::vector<MaskSite> mask = MaskGrid(3, 2.0);
    MaskSite twin = mask[4];
    twin.number = 105;
    std::vector<MaskSite> all = mask;
    all.push_back(twin);
    const CdLaw law = [](const MaskSite& s, int fx, int) {
        if ((fx == 0 && s.number == 105) || (fx == 1 && s.number == 5)) return double(NAN);
        return kNominal + 2 * (s.maskCD / kMag - kNominal);
    };
    auto lot = WaferLot(all, 2, law);

    auto run = [&](const std::vector<MaskSite>& reticleSites) {
        auto r = FindMEF(lot.get(), ReticleLot(reticleSites).get(), MefSetup());
        EXPECT_TRUE(r.ok()) << r.failure().message();
        return r;
    };
    auto withTwin = run(mask);  // the reticle measured the centre spot
    ASSERT_TRUE(withTwin.ok());
    EXPECT_EQ(RowOf(*withTwin, 1, 0, 1)->points, 9);  // 2, 4, 5 (as 105), ring two 3, 6, 7, 8, 9
    EXPECT_EQ(RowOf(*withTwin, 0, 0, 1)->points, 9);
    const Datam eq = withTwin->equivalents.ToDatam(withTwin->neighbors);
    ASSERT_EQ(eq.rowUb(), 2);
    EXPECT_EQ(eq(0, 2).str(), "Equivalent");
    EXPECT_EQ(eq(1, 1).toLong(), 5);
    EXPECT_EQ(eq(1, 2).toLong(), 105);

    // Without a reticle value on that spot nothing ties the two sites.
    std::vector<MaskSite> holed = mask;
    holed.erase(holed.begin() + 4);
    auto without = run(holed);
    ASSERT_TRUE(without.ok());
    EXPECT_EQ(without->equivalents.ToDatam(without->neighbors).rowUb(), 0);
    EXPECT_EQ(RowOf(*without, 1, 0, 1)->points, 8);
}

// ---------------------------------------------------------------- bad input

TEST(MeefBadInput, MessagesOfTheChecks) {
    const std::vector<MaskSite> mask = MaskGrid(3, 2.0);
    auto lot = WaferLot(mask, 1, Law(MeefMap{2.0}, 0));
    auto ret = ReticleLot(mask);
    auto fails = [](const Result<MEFResult>& r, const std::string& text) {
        ASSERT_FALSE(r.ok());
        EXPECT_EQ(r.failure().text, text);
        EXPECT_EQ(r.failure().tag, "PWcommon(FindMEF): ");
    };
    fails(FindMEF(nullptr, ret.get(), MefSetup()), "Lot data not provided.");
    fails(FindMEF(lot.get(), nullptr, MefSetup()), "Reticle data not provided.");

    const std::vector<MaskSite> two(mask.begin(), mask.begin() + 2);
    fails(FindMEF(WaferLot(two, 1, Law(MeefMap{2.0}, 0)).get(), ret.get(), MefSetup()),
          "Insufficient data points in the Lot: 2");
    fails(FindMEF(lot.get(), ReticleLot(two).get(), MefSetup()), "Insufficient data points in the Reticle Data: 2");

    MEFSetup other = MefSetup();
    other.reticleFeature = "Nonexistent";
    fails(FindMEF(lot.get(), ret.get(), other), "Could not find feature column.");
    fails(FindMEF(lot.get(), ReticleLot(mask, 1, "Mask_Width").get(), MefSetup()), "Could not find feature column.");
    other = MefSetup();
    other.feature = "MEAS_1";
    fails(FindMEF(lot.get(), ret.get(), other), "Could not find feature column.");

    // A reticle whose sites lie beside the lot's field: the layouts do not meet.
    std::vector<MaskSite> away = mask;
    for (MaskSite& m : away) m.x += 100;
    fails(FindMEF(lot.get(), ReticleLot(away).get(), MefSetup()), "Surface array could not be generated.");
}

// ---------------------------------------------------------------- workbooks

TEST(MeefWorkbook, SheetsAndTheResultAsALot) {
    const fs::path dir = fs::path(ZORV_TEST_TMP) / "reticle";
    fs::remove_all(dir);
    fs::create_directories(dir);
    const std::vector<MaskSite> mask = MaskGrid(5, 2.0);
    auto lot = WaferLot(mask, 2, Law(MeefMap{2.0, 0.01}, 0.2));
    auto ret = ReticleLot(mask);
    const std::string book = (dir / "lot.xlsx").string();
    WorkbookPtr wb = Workbook::create(book, "Information");
    MEFSetup s = MefSetup();
    s.workbook = wb.get();
    auto r = FindMEF(lot.get(), ret.get(), s);
    ASSERT_TRUE(r.ok()) << r.failure().message();
    EXPECT_EQ(r->sheets, (std::vector<std::string>{"MEF_CD_Mask_CD", "MEEF_FieldSummary_CD"}));

    auto back = Workbook::open(book);
    ASSERT_TRUE(back.ok()) << back.failure().message();
    Worksheet* mef = (*back)->sheet("MEF_CD_Mask_CD");
    ASSERT_TRUE(mef);
    const std::vector<std::string> heads = MefHeaders("CD", "Mask_CD");
    ASSERT_EQ(heads.size(), 30u);
    for (int c = 1; c <= 30; ++c) EXPECT_EQ(mef->cell(1, c).toString(), heads[c - 1]) << c;
    EXPECT_EQ(heads[6], "MEEF_CD_Mask_CD");
    EXPECT_EQ(heads[8], "WaferBias(CD)");
    EXPECT_EQ(heads[9], "Ratio_CD/Mask_CD");
    EXPECT_EQ(mef->lastRow(), 101);  // four fields of 25 sites
    Worksheet* summary = (*back)->sheet("MEEF_FieldSummary_CD");
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->cell(1, 1).toString(), "Full-Field");
    EXPECT_EQ(summary->cell(2, 2).toString(), "MEEF");
    Worksheet* index = (*back)->sheet("Index");
    ASSERT_TRUE(index);
    bool listed = false;
    const Datam used = index->usedRange();
    for (int i = 1; i <= used.rowUb(); ++i)
        for (int c = 1; c <= used.colUb(); ++c)
            listed = listed || used(i, c).toString().rfind("Summary of MEEF/BEEF for each field ", 0) == 0;
    EXPECT_TRUE(listed);

    // The result as a lot: MEEF is a feature like any other.
    const std::string out = (dir / "meef_lot.xlsx").string();
    auto saved = SaveAsLot(*r, *lot, s, out);
    ASSERT_TRUE(saved.ok()) << saved.failure().message();
    std::shared_ptr<cLot> loaded;
    LoadOptions o;
    o.quiet = true;
    ASSERT_TRUE(GetExcelWBLot(*saved, o, loaded).ok());
    const int f = loaded->GetPlotFeature("MEEF_CD_Mask_CD");
    ASSERT_GE(f, 1);
    std::map<std::pair<std::string, int>, double> want;
    for (const MEFRow& row : r->rows) want[{std::to_string(int(row.dieX)) + "," + std::to_string(int(row.dieY)), row.site}] = row.meef;
    long seen = 0;
    loaded->forEachLive([&](cWafer&, cField& fd, cSite& st, cPoint& p) {
        const float* v = p.FeatureSlot(f, eRaw);
        const auto it = want.find({std::to_string(int(fd.DieX)) + "," + std::to_string(int(fd.DieY)), st.NumberKey()});
        ASSERT_NE(it, want.end());
        EXPECT_NEAR(*v / 1000.0, it->second, 1e-3);
        ++seen;
    });
    EXPECT_EQ(seen, 100);
}
