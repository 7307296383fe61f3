// Conversion of image shift to focus by hand-made templates: the two
// polynomial paths, the signs, the exposure matching and its defeat switches,
// the site matching modes, and the messages.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <string>

#include "base/report.h"
#include "calib/convert.h"
#include "lot/lot.h"

namespace zorv {
namespace {

// Counts the boxes shown, answering each with No.
class CountingReporter : public Reporter {
public:
    int showBox(const std::string& message, int, const std::string& title) override {
        ++boxes;
        last = message;
        lastTitle = title;
        return vbNo;
    }
    int boxes = 0;
    std::string last, lastTitle;
};

struct ReporterScope {
    CountingReporter r;
    ReporterScope() { SetReporter(&r); }
    ~ReporterScope() { SetReporter(nullptr); }
};

// One field per (dieX) with sites 1..n on a line along Y (site k at y = k mm)
// and one point each holding the shifts (stored units).
std::shared_ptr<cLot> ShiftLot(int fields, int sites, float v, float h, float dose = 20) {
    auto lot = cLot::create();
    lot->LotName = "Prod";
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    for (int i = 0; i < fields; ++i) {
        cField* f = w->AddField(static_cast<float>(i), 0, isNew);
        f->Dose = dose;
        f->NA = 0.75f;
        for (int s = 1; s <= sites; ++s) {
            Ref<cSite> site = cSite::New();
            site->setNumberKey(s);
            site->LocationX = 0;
            site->LocationY = static_cast<float>(1000 * (s - 1));
            site->LocationR = std::fabs(site->LocationY);
            site->setParent(f);
            f->sites().Add(site, std::to_string(s));
            auto p = std::make_unique<cPoint>();
            p->ValueV = v * s, p->ValueH = h * s;
            f->AddPoint(site, std::move(p));
        }
    }
    return lot;
}

struct Library {
    std::filesystem::path dir = std::filesystem::path(ZORV_TEST_TMP) / "convert_lib";
    cTemplateLibrary lib{dir.string()};
    std::shared_ptr<cTemplate> t = std::make_shared<cTemplate>();
    Library() { lib.AddTemplate(t, "T"); }
    cSiteCal* site(long n, float dose, float y = 0) {
        auto s = std::make_unique<cSiteCal>();
        s->NumberKey = std::to_string(n);
        s->NumberKey.append("_").append(std::to_string(static_cast<int>(dose))).append("_0.75_0_0");
        s->Dose = dose, s->NA = 0.75f;
        s->LocationY = y;
        s->OffsetX = s->OffsetY = 0.5f;  // never used by the conversion
        s->SlopeX = 0.01f, s->SlopeY = 0.02f;
        return t->AddSite(std::move(s));
    }
};

ConvertOptions Opt(SiteMatch mode = SiteMatch::AllSites) {
    ConvertOptions o;
    o.templateName.push_back('T');  // GCC 12 warns falsely on assigning the short literal
    o.mode = mode;
    return o;
}

TEST(ConvertLot, FirstOrderPathsSignsAndZeroShift) {
    Library L;
    for (int n = 1; n <= 3; ++n) L.site(n, 20)->Y2nd = 5;  // Y's higher orders alone don't leave the slope path
    auto lot = ShiftLot(2, 3, 1000, -2000);
    lot->FocusReportCorrections = false;
    auto r = ConvertLot(*lot, L.lib, Opt());
    ASSERT_TRUE(r) << r.failure().text;
    ASSERT_TRUE(*r);
    EXPECT_EQ((*r)->LotName, "Focus of Prod");
    EXPECT_EQ((*r)->ValueV_Name, "Slit");
    (*r)->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
        const int k = s.NumberKey();
        EXPECT_FLOAT_EQ(p.ValueV, 0.01f * 1000 * k);
        EXPECT_FLOAT_EQ(p.ValueH, 0.02f * -2000 * k);
        EXPECT_FLOAT_EQ(p.ValueZ, (p.ValueV + p.ValueH) / 2);
    });
    // The source lot keeps its shifts.
    EXPECT_FLOAT_EQ(lot->Wafers().Item(1)->Fields().Item(1)->sites().Item(1)->Points().Item(1)->ValueV, 1000);

    lot->FocusReportCorrections = true;
    auto rev = ConvertLot(*lot, L.lib, Opt());
    ASSERT_TRUE(rev && *rev);
    (*rev)->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) { EXPECT_FLOAT_EQ(p.ValueV, -0.01f * 1000 * s.NumberKey()); });

    auto zero = ShiftLot(1, 3, 0, 0);
    auto z = ConvertLot(*zero, L.lib, Opt());
    ASSERT_TRUE(z && *z);
    (*z)->forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        EXPECT_EQ(p.ValueV, 0);  // whatever OffsetX
        EXPECT_EQ(p.ValueH, 0);
    });
}

TEST(ConvertLot, HigherOrderPathAndTheXCoefficientsDecide) {
    Library L;
    cSiteCal* a = L.site(1, 20);
    a->X2nd = 1, a->X3rd = -1;  // sum 0: still the slope path
    a->Y2nd = 3;
    cSiteCal* b = L.site(2, 20);
    b->X2nd = 0.5f, b->X3rd = 0.25f, b->Y3rd = -2;
    auto lot = ShiftLot(1, 2, 3000, 2000);
    lot->FocusReportCorrections = true;
    auto r = ConvertLot(*lot, L.lib, Opt());
    ASSERT_TRUE(r && *r);
    (*r)->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
        if (s.NumberKey() == 1) {
            EXPECT_FLOAT_EQ(p.ValueV, -0.01f * 3000);
            EXPECT_FLOAT_EQ(p.ValueH, -0.02f * 2000);
        } else {
            const double v = 6, h = 4;  // shifts / 1000
            EXPECT_NEAR(p.ValueV, -1000 * (0.01 * v + 0.5 * v * v + 0.25 * v * v * v), 1e-2);
            EXPECT_NEAR(p.ValueH, -1000 * (0.02 * h - 2 * h * h * h), 1e-2);
        }
    });
}

TEST(ConvertLot, ExposureMatchingAndItsMessages) {
    Library L;
    for (int n = 1; n <= 3; ++n) L.site(n, 30);
    auto lot = ShiftLot(1, 3, 1000, 1000);
    auto r = ConvertLot(*lot, L.lib, Opt());
    ASSERT_FALSE(r);
    EXPECT_EQ(r.failure().text,
              "Dose, NA, PCinner and PCouter settings do not match between template and lot.\r\n"
              "[Dose,NA,PCi,PCo]\r\nLot: [20,0.75,0,0]\r\nTemplate: [30,0.75,0,0]");
    ConvertOptions o = Opt();
    o.noDose = true;
    auto d = ConvertLot(*lot, L.lib, o);
    ASSERT_TRUE(d && *d) << (d ? "" : d.failure().text);

    o.templateName = "Nope";
    auto missing = ConvertLot(*lot, L.lib, o);
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.failure().text,
              "PSFM Focus Calibration Template 'Nope' could not be located in the library.\r\n"
              "Please insure that you specified the correct PSFM template.");
}

TEST(ConvertLot, MissingSitesAskOnceAndCullWhenContinued) {
    Library L;
    L.site(1, 20), L.site(2, 20);
    auto lot = ShiftLot(3, 4, 1000, 1000);  // sites 3 and 4 are missing in 3 fields
    std::string asked;
    ConvertOptions o = Opt();
    o.continueMissing = [&](const std::string& q) {
        asked = q;
        return false;
    };
    {
        ReporterScope rep;
        auto no = ConvertLot(*lot, L.lib, o);
        ASSERT_TRUE(no);
        EXPECT_FALSE(*no);
        EXPECT_EQ(rep.r.boxes, 2);  // once per site, not per field
        EXPECT_EQ(rep.r.lastTitle, "Zorving Fixed-Focus Conversion");
        EXPECT_EQ(rep.r.last, "Field:Site= WW1F1.4not located!");
    }
    EXPECT_EQ(asked, "A total of 2 Field Sites out of 4 could not \r\nbe found in the Template.\r\nSite #'s: 3,4\r\n"
                     " Continue calibration with 2 sites? ..");
    o.continueMissing = [](const std::string&) { return true; };
    ReporterScope rep;
    auto yes = ConvertLot(*lot, L.lib, o);
    ASSERT_TRUE(yes && *yes);
    long live = 0;
    (*yes)->forEachLive([&](cWafer&, cField&, cSite& s, cPoint&) {
        ++live;
        EXPECT_LE(s.NumberKey(), 2);
    });
    EXPECT_EQ(live, 6);
}

TEST(ConvertLot, CentreColumnTakesTheNearestInY) {
    Library L;
    // The template knows sites 1 and 2 of the centre column, at y = 0 and 1 mm.
    L.site(1, 20, 0)->SlopeX = 0.01f;
    L.site(2, 20, 1000)->SlopeX = 0.03f;
    auto lot = ShiftLot(1, 4, 1000, 1000);  // sites 3, 4 at y = 2, 3 mm: nearest is site 2
    auto r = ConvertLot(*lot, L.lib, Opt(SiteMatch::CenterColumn));
    ASSERT_TRUE(r && *r) << (r ? "" : r.failure().text);
    (*r)->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
        const float slope = s.NumberKey() == 1 ? 0.01f : 0.03f;
        EXPECT_FLOAT_EQ(p.ValueV, slope * 1000 * s.NumberKey()) << s.NumberKey();
    });
    auto c = ConvertLot(*lot, L.lib, Opt(SiteMatch::Center));  // the first template site for all
    ASSERT_TRUE(c && *c);
    (*c)->forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) { EXPECT_FLOAT_EQ(p.ValueV, 0.01f * 1000 * s.NumberKey()); });
}

TEST(Astigmatism, CullsAndTheStatisticsTable) {
    auto lot = ShiftLot(1, 5, 0, 1000);  // astigmatism H - V = 1, 2, .. 5 um
    const AstigmatismSums s = CalcAstigmatism(*lot);
    EXPECT_DOUBLE_EQ(s.mean, 3000);
    EXPECT_DOUBLE_EQ(s.max, 5000);
    EXPECT_DOUBLE_EQ(s.notMin, 9999);  // not a minimum, as it always was
    auto copy = lot->clone(true);
    const FocusCullCounts c = FocusRangeCull(*copy, 1.5, 0, true);  // |a - 3| >= 1.5: 1 and 5
    EXPECT_EQ(c.range, 2);
    EXPECT_EQ(c.sigma, 0);
    auto r = AstigmaticAnalysis(*lot, 1.5, 0, c);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->stats(0, 1).toString(), "Astigmatism");
    EXPECT_EQ(r->stats(4, 0).toString(), "Average");
    EXPECT_DOUBLE_EQ(r->stats(4, 1).toDouble(), 3);
    EXPECT_NEAR(r->stats(5, 1).toDouble(), std::sqrt(2.5), 1e-9);
    EXPECT_EQ(r->stats(10, 0).toString(), "Range (1.5):");
    EXPECT_EQ(r->stats(10, 1).toDouble(), 2);
    EXPECT_EQ(r->title, "Prod Astigmatism (pre-calibration)");
}

}  // namespace
}  // namespace zorv
