// The lens models of the process window on lots made from a known wafer tilt
// and a known field curvature: what the models recover, what the removal
// leaves, what it keeps when a term is switched off, and the sheets it writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "../stats/stats_fixture.h"
#include "model/lot_fit.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::testing;

namespace {

// The generator, in display units and mm: offset + tiltX X + tiltY Y (X, Y
// absolute on the wafer) + curvX x^2 + curvY y^2 (x, y in the field) + noise.
struct Truth {
    double offset = 1.0, tiltX = 0.01, tiltY = -0.005, curvX = 0.01, curvY = 0;
    double noise = 0.001;
};

double Noise(const PointAt& p, double size) {
    return size * (((p.wafer * 7919 + p.field * 104729 + p.site * 1299709) % 21) - 10) / 10.0;
}

// Two wafers of 3 x 3 fields of 5 x 5 sites, the wafer centred on the middle
// field; the generator writes `feature`.
std::shared_ptr<cLot> LensLot(bool lineWidth, int feature, const Truth& t) {
    LotShape shape;
    shape.wafers = 2;
    shape.fieldsX = shape.fieldsY = 3;
    shape.sitesX = shape.sitesY = 5;
    shape.lineWidth = lineWidth;
    shape.features = lineWidth ? 2 : 3;
    auto lot = MakeStatsLot(shape, [](const PointAt&) { return std::array<double, 8>{}; });
    lot->DieXarray = -1.5f;
    lot->DieYarray = -1.5f;
    lot->CalcWaferPositions();
    lot->forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& p) {
        const double X = s.LocationXabs / 1000.0, Y = s.LocationYabs / 1000.0;
        const double x = s.LocationX / 1000.0, y = s.LocationY / 1000.0;
        const PointAt at{int(w.Number()), f.Number, s.NumberKey(), 0, 0, 0, 0};
        const double v = t.offset + t.tiltX * X + t.tiltY * Y + t.curvX * x * x + t.curvY * y * y + Noise(at, t.noise);
        *p.FeatureSlot(feature, eRaw) = static_cast<float>(v * 1000);
    });
    return lot;
}

int Col(const Datam& t, const std::string& head) {
    for (int c = t.colLb(); c <= t.colUb(); ++c)
        if (t(0, c).isString() && t(0, c).str() == head) return c;
    return -1;
}
int Row(const Datam& t, const std::string& key) {
    for (int r = 1; r <= t.rowUb(); ++r)
        if (t(r, 0).toString() == key) return r;
    return -1;
}
double Cell(const Datam& t, const std::string& row, const std::string& col) {
    const int r = Row(t, row), c = Col(t, col);
    EXPECT_GT(r, 0) << row;
    EXPECT_GT(c, 0) << col;
    return r > 0 && c > 0 ? t(r, c).toDouble() : 1e300;
}

// Wafer `w`, field `f` (row-major from the lower left), site key `k`: its first point.
cPoint* PointOf(cLot& lot, int w, int f, int k) {
    cSite* s = lot.Wafers().At(w)->Fields().At(f)->sites().Item(std::to_string(k));
    return s ? s->Points().Item(1) : nullptr;
}
float Resid(cLot& lot, int feature, int w, int f, int k) {
    cPoint* p = PointOf(lot, w, f, k);
    return p ? *p->FeatureSlot(feature, eResidual) : 1e30f;
}

// Every raw, fitted and residual value of a feature, in walk order.
std::vector<float> Snapshot(cLot& lot, int feature) {
    std::vector<float> v;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        for (int k = 0; k < 3; ++k) v.push_back(*p.FeatureSlot(feature, k));
    });
    return v;
}

// The largest |residual| of the feature over the lot (stored units), and
// whether fitted + residual gives raw back everywhere.
double MaxResidual(cLot& lot, int feature, bool& adds) {
    double m = 0;
    adds = true;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) {
        const float raw = *p.FeatureSlot(feature, eRaw), fit = *p.FeatureSlot(feature, eFitted),
                    res = *p.FeatureSlot(feature, eResidual);
        m = std::max(m, std::fabs(double(res)));
        if (std::fabs(double(fit) + res - raw) > 0.01) adds = false;
    });
    return m;
}

LensSetup PwSetup(int feature) {
    LensSetup s;
    s.name = "PW(1.5)";
    s.feature = feature;
    return s;
}

}  // namespace

// Tilt 0.01 um/mm is 10 urad; a curvature of 0.01 um/mm^2 is 1000 nm/cm2.
TEST(LensModel, RecoversWaferTiltAndFieldCurvature) {
    ScopedCapture cap;
    const Truth t;
    auto lot = LensLot(true, ePlotFeatureV, t);
    auto r = ModelLensAberrations(*lot, PwSetup(ePlotFeatureV));
    ASSERT_TRUE(r) << r.failure().message();
    const Datam& wm = r->waferModel;
    ASSERT_EQ(wm.rowUb(), 3);  // two wafers and "Mean"
    EXPECT_EQ(wm(3, 0).toString(), "Mean");
    for (const char* w : {"1", "2", "Mean"}) {
        EXPECT_NEAR(Cell(wm, w, "TiltX(urad)"), 10.0, 0.05) << w;
        EXPECT_NEAR(Cell(wm, w, "TiltY(urad)"), -5.0, 0.05) << w;
        EXPECT_NEAR(Cell(wm, w, "Points"), 225, 0) << w;
    }
    EXPECT_EQ(wm(1, 1).toString(), "CD");
    EXPECT_GT(Col(wm, "Pentode(nm/cm5)"), 0);
    EXPECT_GT(Col(wm, "TiltX_SE"), 0);

    // The field signature: the curvature along X only, no tilt left.
    const Datam& fm = r->fieldModel;
    ASSERT_EQ(fm.rowUb(), 19);  // 18 fields and "Mean"
    EXPECT_NEAR(Cell(fm, "Mean", "CurvX(nm/cm2)"), 1000.0, 20.0);
    EXPECT_NEAR(Cell(fm, "Mean", "CurvY(nm/cm2)"), 0.0, 10.0);
    EXPECT_NEAR(Cell(fm, "Mean", "TiltX(urad)"), 0.0, 0.5);
    EXPECT_NEAR(Cell(fm, "Mean", "TiltY(urad)"), 0.0, 0.5);

    // Column averages of the field less the wafer model follow c x^2: the
    // column at x = 2 mm stands 0.04 above the centre one; rows are flat.
    const Datam& ca = r->columnAverage;
    ASSERT_EQ(ca.rowUb(), 5);
    EXPECT_EQ(ca(0, 0).toString(), "Column(mm)");
    EXPECT_NEAR(ca(1, 0).toDouble(), -2.0, 1e-9);
    EXPECT_NEAR(ca(5, 1).toDouble() - ca(3, 1).toDouble(), 0.04, 0.002);
    for (int i = 1; i <= 5; ++i) EXPECT_NEAR(ca(i, 3).toDouble(), 0.0, 0.002) << i;  // "Residual"
    const Datam& ra = r->rowAverage;
    ASSERT_EQ(ra.rowUb(), 5);
    EXPECT_EQ(ra(0, 0).toString(), "Row(mm)");
    EXPECT_NEAR(ra(5, 0).toDouble(), 3.0, 1e-9);
    EXPECT_NEAR(ra(5, 1).toDouble() - ra(3, 1).toDouble(), 0.0, 0.002);
    EXPECT_EQ(ra(1, 4).toDouble(), 18 * 5);  // 18 fields of 5 sites a row

    // The response across the wafer: the middle field of wafer 1 sits at the
    // centre, the field to its right 20 mm on, 0.2 higher by the tilt.
    const Datam& wr = r->waferResponse;
    ASSERT_EQ(wr.rowUb(), 18);
    EXPECT_NEAR(wr(5, 2).toDouble(), 0.0, 1e-6);
    EXPECT_NEAR(wr(6, 4).toDouble() - wr(5, 4).toDouble(), 0.2, 0.002);
    EXPECT_NEAR(wr(6, 6).toDouble(), 0.0, 0.002);

    // No workbook: no sheets, the results all the same; nothing to remove.
    EXPECT_TRUE(r->sheets.empty());
    ASSERT_EQ(r->notes.size(), 1u);
    EXPECT_EQ(r->notes[0], "Range,Sigma cull of 0 points.");
    EXPECT_FALSE(r->removed.isArray());
    EXPECT_TRUE(cap.boxes.empty()) << cap.joined();
    for (const char* s : {"Data model setup ...", "Wafer-model clone ...", ".. .Done", "Remove model component..."})
        EXPECT_NE(std::find(cap.statuses.begin(), cap.statuses.end(), s), cap.statuses.end()) << s;
}

// The Y component of a vector lot, with the curvature along Y.
TEST(LensModel, VectorLotComponent) {
    Truth t;
    t.tiltX = 0.002;
    t.tiltY = 0.008;
    t.curvX = 0;
    t.curvY = -0.004;
    auto lot = LensLot(false, ePlotFeatureH, t);
    LensSetup s = PwSetup(ePlotFeatureH);
    s.removeWafer = s.removeField = true;
    auto r = RemoveLensAberrations(*lot, s);
    ASSERT_TRUE(r) << r.failure().message();
    EXPECT_NEAR(Cell(r->waferModel, "Mean", "TiltX(urad)"), 2.0, 0.05);
    EXPECT_NEAR(Cell(r->waferModel, "Mean", "TiltY(urad)"), 8.0, 0.05);
    EXPECT_NEAR(Cell(r->fieldModel, "Mean", "CurvY(nm/cm2)"), -400.0, 10.0);
    EXPECT_NEAR(Cell(r->fieldModel, "Mean", "CurvX(nm/cm2)"), 0.0, 10.0);
    EXPECT_EQ(r->waferModel(1, 1).toString(), "Y");
    bool adds = false;
    EXPECT_LT(MaxResidual(*r->lot, ePlotFeatureH, adds), 4.0);
    EXPECT_TRUE(adds);
}

// All switches on: what is left is the noise (1 display unit in 1000 here),
// fitted + residual is raw, and the lot given keeps every value it had.
TEST(LensRemoval, AllTermsLeaveTheNoise) {
    auto lot = LensLot(true, ePlotFeatureV, Truth());
    lot->PLotDataType = eRaw;
    const std::vector<float> before = Snapshot(*lot, ePlotFeatureV);
    const std::vector<float> otherBefore = Snapshot(*lot, ePlotFeatureH);
    LensSetup s = PwSetup(ePlotFeatureV);
    s.removeWafer = s.removeField = true;
    auto r = RemoveLensAberrations(*lot, s);
    ASSERT_TRUE(r) << r.failure().message();
    ASSERT_TRUE(r->lot);
    EXPECT_NE(r->lot.get(), lot.get());
    EXPECT_EQ(r->lot->PLotDataType, eResidual);
    bool adds = false;
    EXPECT_LT(MaxResidual(*r->lot, ePlotFeatureV, adds), 3.0);
    EXPECT_TRUE(adds);
    // Another feature reads its raw values as residuals.
    cPoint* p = PointOf(*r->lot, 1, 1, 1);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->ValueH_Res, p->ValueH);
    EXPECT_EQ(p->ValueH_fit, 0.0f);

    EXPECT_EQ(Snapshot(*lot, ePlotFeatureV), before);
    EXPECT_EQ(Snapshot(*lot, ePlotFeatureH), otherBefore);
    EXPECT_EQ(lot->PLotDataType, eRaw);
    for (cWafer* w : lot->Wafers()) {
        EXPECT_FALSE(w->Models);
        for (cField* f : w->Fields()) EXPECT_FALSE(f->ModelsField);
    }
    EXPECT_FALSE(lot->ModelWafer);
}

// A "0" keeps its term's signature in the lot: the field curvature (between
// x = 2 mm and x = 0 of one field row: c 4 = 0.04, 40 stored) and the wafer
// X tilt (between the left and right fields: 0.01 x 40 mm = 0.4, 400 stored).
TEST(LensRemoval, SwitchedOffTermsStay) {
    auto lot = LensLot(true, ePlotFeatureV, Truth());
    LensSetup s = PwSetup(ePlotFeatureV);
    s.removeWafer = s.removeField = true;
    auto all = RemoveLensAberrations(*lot, s);
    ASSERT_TRUE(all) << all.failure().message();
    // Field 5 is the middle one; site 15 is x = 2 mm, site 13 x = 0 (middle row).
    EXPECT_NEAR(Resid(*all->lot, 1, 1, 5, 15) - Resid(*all->lot, 1, 1, 5, 13), 0.0, 3.0);
    EXPECT_NEAR(Resid(*all->lot, 1, 1, 6, 13) - Resid(*all->lot, 1, 1, 4, 13), 0.0, 3.0);

    s.fieldTerms = "11101";
    auto noCurvX = RemoveLensAberrations(*lot, s);
    ASSERT_TRUE(noCurvX) << noCurvX.failure().message();
    EXPECT_NEAR(Resid(*noCurvX->lot, 1, 1, 5, 15) - Resid(*noCurvX->lot, 1, 1, 5, 13), 40.0, 3.0);
    // The field table holds the removed terms only.
    EXPECT_LT(Col(noCurvX->fieldModel, "CurvX(nm/cm2)"), 0);
    EXPECT_GT(Col(noCurvX->fieldModel, "CurvY(nm/cm2)"), 0);

    s.fieldTerms = "11111";
    s.waferTerms = "1011111111";
    auto noTiltX = RemoveLensAberrations(*lot, s);
    ASSERT_TRUE(noTiltX) << noTiltX.failure().message();
    EXPECT_NEAR(Resid(*noTiltX->lot, 1, 1, 6, 13) - Resid(*noTiltX->lot, 1, 1, 4, 13), 400.0, 3.0);
    // ... and inside a field: 0.01 x 2 mm, 20 stored.
    EXPECT_NEAR(Resid(*noTiltX->lot, 1, 1, 5, 15) - Resid(*noTiltX->lot, 1, 1, 5, 13), 20.0, 3.0);
    EXPECT_LT(Col(noTiltX->waferModel, "TiltX(urad)"), 0);

    // Short strings leave the rest off: only the offset and the piston go;
    // the curvature and the wafer tilt stay (40 + 20).
    s.waferTerms = "1";
    s.fieldTerms = "1";
    auto few = RemoveLensAberrations(*lot, s);
    ASSERT_TRUE(few) << few.failure().message();
    EXPECT_NEAR(Resid(*few->lot, 1, 1, 5, 15) - Resid(*few->lot, 1, 1, 5, 13), 60.0, 3.0);
    EXPECT_EQ(few->fieldModel.colUb(), 2 + 2 + 2);  // Wafer, Field, Piston, its SE, MSE, Points, Culled
}

// The measured field instead of its model: the average at each site key of
// the chosen fields less the wafer model; only the middle column of fields
// chosen here (numbers 2, 5, 8 on both wafers).
TEST(LensRemoval, MetrologyField) {
    auto lot = LensLot(true, ePlotFeatureV, Truth());
    LensSetup s = PwSetup(ePlotFeatureV);
    s.removeWafer = true;
    s.removeFieldMetrology = true;
    s.fields = Datam::fromRows({{Value("Field")}, {Value(int32_t(2))}, {Value(int32_t(5))}, {Value("WW1F8")}, {Value("ww2f8")}},
                               0, 1);
    auto r = RemoveLensAberrations(*lot, s);
    ASSERT_TRUE(r) << r.failure().message();
    bool adds = false;
    EXPECT_LT(MaxResidual(*r->lot, ePlotFeatureV, adds), 4.0);
    EXPECT_TRUE(adds);
    const Datam& m = r->removed;
    ASSERT_EQ(m.rowUb(), 25);
    EXPECT_EQ(m(0, 3).toString(), "CD");
    EXPECT_EQ(m(15, 4).toDouble(), 6);  // six fields
    EXPECT_NEAR(m(15, 3).toDouble() - m(13, 3).toDouble(), 0.04, 0.002);
    EXPECT_EQ(r->fieldModel.isArray(), false);
    EXPECT_EQ(r->rowAverage(1, 4).toDouble(), 6 * 5);
}

// Culls: one wild point is culled by its wafer's fit and by its field's.
TEST(LensModel, RangeCullCount) {
    auto lot = LensLot(true, ePlotFeatureV, Truth());
    PointOf(*lot, 2, 3, 13)->ValueV += 2000;  // the middle of its field
    LensSetup s = PwSetup(ePlotFeatureV);
    s.rangeCull = 0.5f;
    auto r = ModelLensAberrations(*lot, s);
    ASSERT_TRUE(r) << r.failure().message();
    EXPECT_EQ(r->culled, 2);
    EXPECT_EQ(r->notes.back(), "Range,Sigma cull of 2 points.");
    EXPECT_EQ(Cell(r->waferModel, "2", "Culled"), 1);
    EXPECT_EQ(Cell(r->waferModel, "1", "Culled"), 0);
    EXPECT_NEAR(Cell(r->waferModel, "2", "TiltX(urad)"), 10.0, 0.05);
    EXPECT_EQ(Cell(r->fieldModel, "2", "Culled"), 0);  // the first field of wafer 2 holds none
    EXPECT_EQ(r->fieldModel(12, 1).toString(), "WW2F3");
    EXPECT_EQ(r->fieldModel(12, Col(r->fieldModel, "Culled")).toDouble(), 1);
    EXPECT_NEAR(r->fieldModel(12, Col(r->fieldModel, "CurvX(nm/cm2)")).toDouble(), 1000.0, 20.0);
}

TEST(LensSheets, ModelSheetsAndIndex) {
    ScopedCapture cap;
    const std::filesystem::path dir = std::filesystem::path(ZORV_TEST_TMP) / "lens_model";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    const std::string path = (dir / "Lens.xlsx").string();
    WorkbookPtr wb = Workbook::create(path, "Information");
    auto lot = LensLot(true, ePlotFeatureV, Truth());

    LensSetup s = PwSetup(ePlotFeatureV);
    s.removeWafer = s.removeField = true;
    s.fieldTerms = "11101";
    auto r = ModelLensAberrations(*lot, s, wb.get());
    ASSERT_TRUE(r) << r.failure().message();
    const std::vector<std::string> want = {"WaferModel_CD", "WaferResponse_CD", "FieldModel_PW(1.5)(CD)",
                                           "FieldAberrations", "FieldModelRemoval"};
    EXPECT_EQ(r->sheets, want);
    ASSERT_EQ(r->notes.size(), 2u);
    EXPECT_EQ(r->notes[0], "Data Removal, CD. Piston:  Vertical,Horiz, Tilt:  Vertical,Horiz, Curvature: Horiz,");
    EXPECT_TRUE(std::filesystem::exists(path));

    Worksheet* ws = wb->sheet("WaferModel_CD");
    ASSERT_NE(ws, nullptr);
    EXPECT_EQ(ws->cell(1, 1).toString(), "Wafer");
    EXPECT_EQ(ws->cell(1, 4).toString(), "TiltX(urad)");
    EXPECT_NEAR(ws->cell(2, 4).toDouble(), 10.0, 0.05);
    Worksheet* rm = wb->sheet("FieldModelRemoval");
    ASSERT_NE(rm, nullptr);
    EXPECT_EQ(rm->cell(1, 1).toString(), r->notes[0]);
    EXPECT_EQ(rm->cell(2, 4).toString(), "Removed");
    // The removed field keeps the curvature along X: site 15 and 13 alike.
    EXPECT_NEAR(r->removed(15, 3).toDouble() - r->removed(13, 3).toDouble(), 0.0, 0.001);
    Worksheet* fa = wb->sheet("FieldAberrations");
    ASSERT_NE(fa, nullptr);
    EXPECT_EQ(fa->cell(1, 1).toString(), "Row(mm)");
    EXPECT_EQ(fa->cell(8, 1).toString(), "Column(mm)");

    Worksheet* ix = wb->sheet("Index");
    ASSERT_NE(ix, nullptr);
    auto described = [&](const std::string& sheet) {
        for (int row = 1; row <= ix->lastRow(); ++row)
            if (ix->cell(row, 1).toString() == sheet) return ix->cell(row, 3).toString();
        return std::string("(no row)");
    };
    EXPECT_EQ(described("WaferModel_CD"), "Modeled wafer Tilt & Bow. ");
    EXPECT_EQ(described("WaferResponse_CD"), "Feature response across wafer.");
    EXPECT_EQ(described("FieldModel_PW(1.5)(CD)"), "Modeled Field Aberrations. ");
    EXPECT_EQ(described("FieldAberrations"), "Modeled Field Aberrations. ");
    EXPECT_EQ(described("FieldModelRemoval"), "Modeled Values of Field removed: PW_1_5_");

    // The measured field instead: "FieldRemoval".
    s.removeField = false;
    s.removeFieldMetrology = true;
    auto m = ModelLensAberrations(*lot, s, wb.get());
    ASSERT_TRUE(m) << m.failure().message();
    EXPECT_EQ(m->sheets.back(), "FieldRemoval");
    EXPECT_EQ(described("FieldRemoval"), "Metrology Field removed: PW(1.5) from dataset. ");
    EXPECT_EQ(m->notes[0], "Data Removal, CD.");
    EXPECT_NE(std::find(cap.statuses.begin(), cap.statuses.end(), "Removal of Modeled values ...."), cap.statuses.end());
}

TEST(LensSheets, RemovalSheetsAndIndex) {
    const std::filesystem::path dir = std::filesystem::path(ZORV_TEST_TMP) / "lens_remove";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    WorkbookPtr wb = Workbook::create((dir / "Lens.xlsx").string(), "Information");
    auto lot = LensLot(true, ePlotFeatureV, Truth());
    LensSetup s = PwSetup(ePlotFeatureV);
    s.removeWafer = true;
    s.waferTerms = "111";

    auto w = RemoveLensAberrations(*lot, s, wb.get());
    ASSERT_TRUE(w) << w.failure().message();
    ASSERT_EQ(w->sheets, std::vector<std::string>{"WaferPWModel_PW(1.5)(CD)"});
    Worksheet* ws = wb->sheet("WaferPWModel_PW(1.5)(CD)");
    ASSERT_NE(ws, nullptr);
    EXPECT_EQ(ws->cell(1, 1).toString(), "Data Removal, CD.");
    EXPECT_EQ(ws->cell(2, 6).toString(), "Offset_SE");  // three terms, then their errors
    EXPECT_LT(Col(w->waferModel, "BowX(nm/cm2)"), 0);

    s.removeWafer = false;
    s.removeField = true;
    auto f = RemoveLensAberrations(*lot, s, wb.get());
    ASSERT_TRUE(f) << f.failure().message();
    ASSERT_EQ(f->sheets, std::vector<std::string>{"FieldPWModel_PW(1.5)(CD)"});
    Worksheet* ix = wb->sheet("Index");
    ASSERT_NE(ix, nullptr);
    int found = 0;
    for (int row = 1; row <= ix->lastRow(); ++row) {
        const std::string name = ix->cell(row, 1).toString(), text = ix->cell(row, 3).toString();
        if (name == "WaferPWModel_PW(1.5)(CD)") found += text == "PW Wafer errors removed. ";
        if (name == "FieldPWModel_PW(1.5)(CD)") found += text == "PW Field Aberrations removed. ";
    }
    EXPECT_EQ(found, 2);
    // Nothing switched on the wafer side means nothing of the wafer removed:
    // the tilt is still there.
    EXPECT_NEAR(Resid(*f->lot, 1, 1, 6, 13) - Resid(*f->lot, 1, 1, 4, 13), 400.0, 3.0);
}

TEST(LensModel, Refusals) {
    ScopedCapture cap;
    // A lot with no points: one wafer, every point culled; and no wafer at all.
    auto lot = LensLot(true, ePlotFeatureV, Truth());
    lot->forEachLive([](cWafer&, cField&, cSite&, cPoint& p) { p.setCull(true); });
    auto r = ModelLensAberrations(*lot, PwSetup(ePlotFeatureV));
    ASSERT_FALSE(r);
    EXPECT_EQ(r.failure().tag, "PWcommon(ModelLensAberrations): ");
    EXPECT_EQ(r.failure().text, "No data points in lot.");
    auto empty = cLot::create();
    auto e = RemoveLensAberrations(*empty, PwSetup(ePlotFeatureV));
    ASSERT_FALSE(e);
    EXPECT_EQ(e.failure().tag, "PWcommon(RemoveLensAberrations): ");
    EXPECT_EQ(e.failure().text, "No data points in lot.");

    // The vector is no single feature; a feature without values has no model.
    auto good = LensLot(false, ePlotFeatureV, Truth());
    EXPECT_FALSE(ModelLensAberrations(*good, PwSetup(ePlotFeatureVector)));
    good->forEachLive([](cWafer&, cField&, cSite&, cPoint& p) { p.ValueZ = kMissingValue; });
    auto z = ModelLensAberrations(*good, PwSetup(ePlotFeatureZ));
    ASSERT_FALSE(z);
    EXPECT_NE(z.failure().text.find("No data for the feature"), std::string::npos);

    // Fields that name none of the lot's.
    LensSetup s = PwSetup(ePlotFeatureV);
    s.fields = Datam::fromRows({{Value("W9F9")}}, 1, 1);
    auto none = ModelLensAberrations(*good, s);
    ASSERT_FALSE(none);
    EXPECT_EQ(none.failure().text, "None of the chosen fields holds data.");
    EXPECT_TRUE(cap.boxes.empty()) << cap.joined();
}

// The significance limit: terms the generator lacks fall under it and count
// as zero; a wafer without values of the feature is passed over.
TEST(LensModel, SignificanceLimitAndEmptyWafer) {
    auto lot = LensLot(true, ePlotFeatureV, Truth());
    for (cField* f : lot->Wafers().At(2)->Fields())
        for (cSite* s : f->sites()) s->Points().Item(1)->ValueV = kMissingValue;
    LensSetup s = PwSetup(ePlotFeatureV);
    s.sigma = 3;
    auto r = ModelLensAberrations(*lot, s);
    ASSERT_TRUE(r) << r.failure().message();
    const Datam& wm = r->waferModel;
    ASSERT_EQ(wm.rowUb(), 2);  // wafer 1 and "Mean"
    EXPECT_EQ(wm(1, 0).toString(), "1");
    EXPECT_NEAR(Cell(wm, "1", "TiltX(urad)"), 10.0, 0.05);
    for (const char* t : {"BowX(nm/cm2)", "BowY(nm/cm2)", "TriFoilX(nm/cm3)", "TriFoilY(nm/cm3)", "PentodeX(nm/cm5)",
                          "PentodeY(nm/cm5)", "Pentode(nm/cm5)"})
        EXPECT_EQ(Cell(wm, "1", t), 0.0) << t;
    const Datam& fm = r->fieldModel;
    ASSERT_EQ(fm.rowUb(), 10);
    EXPECT_NEAR(Cell(fm, "Mean", "CurvX(nm/cm2)"), 1000.0, 20.0);
    for (const char* t : {"TiltX(urad)", "TiltY(urad)", "CurvY(nm/cm2)"}) EXPECT_EQ(Cell(fm, "Mean", t), 0.0) << t;
}
