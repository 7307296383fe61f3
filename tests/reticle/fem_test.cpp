// Focus-exposure matrices on a lot built here: two wafers exposed with the
// same 2 doses x 3 focuses, so each cell holds two fields whose mean at a
// site is known by hand; the common height scale, the layout of the small
// multiples, a lot of one exposure, and lots with nothing to show.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "graphics/recording_surface.h"
#include "lot/lot.h"
#include "meef_lots.h"
#include "reticle/fem.h"

using namespace zorv;

namespace {

const float kDoses[2] = {20.f, 22.f};
const float kFocuses[3] = {-0.1f, 0.f, 0.1f};
const double kSiteMm[3] = {-8, 0, 8};

// CD at a site: 100 + dose + 10 focus + x/2, one nm up on wafer 1 and down
// on wafer 2, so a cell's mean is the law without the wafer term. Space is
// flat 50. With `oneExposure` every field gets dose 20 and focus 0.
double Law(double dose, double focus, double x) { return 100 + dose + 10 * focus + 0.5 * x; }

std::shared_ptr<cLot> FemLot(bool oneExposure = false) {
    auto lot = cLot::create();
    lot->DataSource(eDataSourceCDSEM);
    lot->ValueV_Name = "CD";
    lot->ValueH_Name = "Space";
    lot->DieSizeX = 26000;
    lot->DieSizeY = 33000;
    for (int wn = 1; wn <= 2; ++wn) {
        bool isNew = false;
        cWafer* w = lot->AddWafer(std::to_string(wn), isNew);
        const double waferTerm = wn == 1 ? 1 : -1;
        for (int k = 0; k < 6; ++k) {
            // Wafer 2 runs through the exposures backwards over the same dies.
            const int e = wn == 1 ? k : 5 - k;
            const int row = e / 3, col = e % 3;
            cField* f = w->AddField(static_cast<float>(k % 3), static_cast<float>(k / 3), isNew, true);
            f->Dose = oneExposure ? 20.f : kDoses[row];
            f->Focus = oneExposure ? 0.f : kFocuses[col];
            for (int r = 0; r < 3; ++r)
                for (int c = 0; c < 3; ++c) {
                    const int number = r * 3 + c + 1;
                    zorv::testing::AddSite(*lot, *f, number, kSiteMm[c], kSiteMm[r], Law(f->Dose, f->Focus, kSiteMm[c]) + waferTerm, 50.0);
                }
        }
    }
    return lot;
}

}  // namespace

TEST(FemMatrix, FieldsOfOneExposureShareACell) {
    auto lot = FemLot();
    auto fem = doFEMsetup(lot.get());
    ASSERT_TRUE(fem.ok()) << fem.failure().text;
    ASSERT_EQ(fem->Rows(), 2);
    ASSERT_EQ(fem->Cols(), 3);
    EXPECT_NEAR(fem->doses[0], 20, 1e-6);
    EXPECT_NEAR(fem->doses[1], 22, 1e-6);
    EXPECT_NEAR(fem->focuses[0], -0.1, 1e-6);
    EXPECT_NEAR(fem->focuses[2], 0.1, 1e-6);
    ASSERT_EQ(fem->cells.size(), 6u);
    std::set<std::string> captions;
    for (const FEMCell& c : fem->cells) {
        EXPECT_EQ(c.fields, 2) << c.caption;
        captions.insert(c.caption);
    }
    EXPECT_EQ(captions, (std::set<std::string>{"(20, -0.1)", "(20, 0)", "(20, 0.1)", "(22, -0.1)", "(22, 0)", "(22, 0.1)"}));
    ASSERT_NE(fem->At(1, 2), nullptr);
    EXPECT_EQ(fem->At(1, 2)->caption, "(22, 0.1)");
    EXPECT_EQ(FEMDoseLabel(22), "Dose = 22");
}

TEST(FemMatrix, TableHasOneRowPerPoint) {
    auto lot = FemLot();
    auto fem = doFEMsetup(lot.get());
    ASSERT_TRUE(fem.ok());
    const Datam& t = fem->table;
    ASSERT_EQ(t.rowUb(), 2 * 6 * 9);
    ASSERT_EQ(t.colUb(), 6);
    const char* heads[] = {"Wafer", "Test", "Dose", "Focus", "CD", "Space"};
    for (int c = 0; c < 6; ++c) EXPECT_EQ(t(0, c + 1).toString(), heads[c]);
    // Wafer 2, site 6 (x = 8) at dose 22 and focus 0.1: 100 + 22 + 1 + 4 - 1.
    int found = 0;
    for (int r = 1; r <= t.rowUb(); ++r) {
        if (t(r, 1).toString() != "2" || t(r, 2).toDouble() != 6) continue;
        if (std::fabs(t(r, 3).toDouble() - 22) > 1e-6 || std::fabs(t(r, 4).toDouble() - 0.1) > 1e-6) continue;
        ++found;
        EXPECT_NEAR(t(r, 5).toDouble(), 126, 1e-3);
        EXPECT_NEAR(t(r, 6).toDouble(), 50, 1e-6);
    }
    EXPECT_EQ(found, 1);
}

TEST(FemMatrix, SurfacesAreFieldMeansOnOneScale) {
    auto lot = FemLot();
    auto fem = doFEMsetup(lot.get());
    ASSERT_TRUE(fem.ok());
    ASSERT_TRUE(doFEMsurfm(*lot, "CD", *fem).ok());
    EXPECT_EQ(fem->feature, "CD");
    for (const FEMCell& c : fem->cells) {
        ASSERT_EQ(c.sites.size(), 9u) << c.caption;
        for (const FEMCell::Site& s : c.sites) EXPECT_NEAR(s.z, Law(c.dose, c.focus, s.x), 2e-3) << c.caption;
        ASSERT_TRUE(c.grid.isArray());
        // X in row 0 and Y in column 0 span the field (26 x 33 mm).
        EXPECT_LT(c.grid(0, 1).toDouble(), -12);
        EXPECT_GT(c.grid(0, c.grid.colUb()).toDouble(), 12);
        EXPECT_GT(std::fabs(c.grid(1, 0).toDouble()), 15);
    }
    // The range of every site: 100 + 20 - 1 - 4 up to 100 + 22 + 1 + 4; the
    // surfaces between and beyond the sites stay inside it.
    EXPECT_NEAR(fem->zmin, 115, 0.05);
    EXPECT_NEAR(fem->zmax, 127, 0.05);
    EXPECT_LE(fem->zlow, fem->zmin);
    EXPECT_GE(fem->zhigh, fem->zmax);
    ASSERT_GT(fem->zstep, 0);
    const double ticks = (fem->zhigh - fem->zlow) / fem->zstep;
    EXPECT_NEAR(ticks, std::round(ticks), 1e-9);
    EXPECT_GE(ticks, 3);
    EXPECT_LE(ticks, 10);
    // The flat feature: one value everywhere, a range around it.
    ASSERT_TRUE(doFEMsurfm(*lot, "Space", *fem).ok());
    EXPECT_NEAR(fem->zmin, 50, 1e-4);
    EXPECT_NEAR(fem->zmax, 50, 1e-4);
    EXPECT_LT(fem->zlow, 50);
    EXPECT_GT(fem->zhigh, 50);
}

TEST(FemMatrix, SmallMultiplesFitOnOneSurface) {
    auto lot = FemLot();
    auto fem = doFEMsetup(lot.get());
    ASSERT_TRUE(fem.ok());
    ASSERT_TRUE(doFEMsurfm(*lot, "CD", *fem).ok());
    RecordingSurface s(900, 600);
    const FEMLayout L = FEMresize(*fem, 900, 600, s);
    ASSERT_EQ(L.cells.size(), 6u);
    // Cells of one size, side by side without overlap, inside the surface.
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 3; ++c) {
            const FEMRect& a = L.Cell(r, c, 3);
            EXPECT_NEAR(a.width, L.Cell(0, 0, 3).width, 1e-9);
            EXPECT_NEAR(a.height, L.Cell(0, 0, 3).height, 1e-9);
            EXPECT_GE(a.left, L.rowHead[0].left + L.rowHead[0].width);
            EXPECT_LE(a.left + a.width, L.key.left);
            EXPECT_LE(a.top + a.height, 600 + 1e-9);
            if (c > 0) {
                EXPECT_NEAR(a.left, L.Cell(r, c - 1, 3).left + L.Cell(r, c - 1, 3).width, 1e-9);
            }
            if (r > 0) {
                EXPECT_NEAR(a.top, L.Cell(r - 1, c, 3).top + L.Cell(r - 1, c, 3).height, 1e-9);
            }
        }
    // A wider surface gives wider cells.
    EXPECT_GT(FEMresize(*fem, 1400, 600, s).Cell(0, 0, 3).width, L.Cell(0, 0, 3).width + 100);

    ASSERT_TRUE(DrawFEM(*fem, s).ok());
    const std::vector<std::string> texts = s.texts();
    auto printed = [&](const std::string& t) { return std::count(texts.begin(), texts.end(), t); };
    EXPECT_EQ(printed("Focus"), 1);
    EXPECT_EQ(printed("Dose = 20"), 1);
    EXPECT_EQ(printed("Dose = 22"), 1);
    for (const FEMCell& c : fem->cells) EXPECT_EQ(printed(c.caption), 1) << c.caption;
    // Every surface line stays on the surface, and each cell has its own.
    int lines = 0;
    std::set<int> cellsHit;
    for (const RecordingSurface::Call* call : s.of(RecordingSurface::Op::Polyline)) {
        ++lines;
        for (const PointD& p : call->points) {
            EXPECT_GE(p.x, 0);
            EXPECT_LE(p.x, 900);
            EXPECT_GE(p.y, 0);
            EXPECT_LE(p.y, 600);
        }
        const PointD& p = call->points.front();
        for (int k = 0; k < 6; ++k) {
            const FEMRect& a = L.cells[static_cast<size_t>(k)];
            if (p.x >= a.left && p.x <= a.left + a.width && p.y >= a.top && p.y <= a.top + a.height) cellsHit.insert(k);
        }
    }
    EXPECT_GT(lines, 6 * 10);
    EXPECT_EQ(cellsHit.size(), 6u);
}

TEST(FemMatrix, OneExposureIsOneCell) {
    auto lot = FemLot(true);
    auto fem = doFEMsetup(lot.get());
    ASSERT_TRUE(fem.ok());
    EXPECT_EQ(fem->Rows(), 1);
    EXPECT_EQ(fem->Cols(), 1);
    ASSERT_EQ(fem->cells.size(), 1u);
    EXPECT_EQ(fem->cells[0].caption, "(20, 0)");
    EXPECT_EQ(fem->cells[0].fields, 12);
    ASSERT_TRUE(doFEMsurfm(*lot, "CD", *fem).ok());
    // Mean of every field at x: 100 + 20 + x/2 (the wafer terms cancel).
    for (const FEMCell::Site& s : fem->cells[0].sites) EXPECT_NEAR(s.z, 120 + 0.5 * s.x, 2e-3);
    RecordingSurface s(400, 300);
    EXPECT_TRUE(DrawFEM(*fem, s).ok());
}

TEST(FemMatrix, NothingToShowIsAFailure) {
    auto none = doFEMsetup(nullptr);
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(none.failure().text, "No lot data.");

    auto empty = cLot::create();
    auto bare = doFEMsetup(empty.get());
    ASSERT_FALSE(bare.ok());
    EXPECT_EQ(bare.failure().text, "The lot has no features.");
    empty->ValueV_Name = "CD";
    auto noPoints = doFEMsetup(empty.get());
    ASSERT_FALSE(noPoints.ok());
    EXPECT_EQ(noPoints.failure().text, "No data points in the lot.");

    auto lot = FemLot();
    auto fem = doFEMsetup(lot.get());
    ASSERT_TRUE(fem.ok());
    RecordingSurface s;
    // Not yet surfaced, then an unknown feature.
    Status drawn = DrawFEM(*fem, s);
    ASSERT_FALSE(drawn.ok());
    EXPECT_EQ(drawn.failure().text, "No surfaces to draw.");
    Status bad = doFEMsurfm(*lot, "Pitch", *fem);
    ASSERT_FALSE(bad.ok());
    EXPECT_EQ(bad.failure().text, "Could not find feature column.");
}
