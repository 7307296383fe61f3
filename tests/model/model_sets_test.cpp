// Model sheets, library sets, the built-in process window models and the
// lot-wide fit reports.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "../stats/stats_fixture.h"
#include "base/text.h"
#include "model/model_sets.h"
#include "numerics/equation.h"
#include "workbook/store.h"

namespace zorv {
namespace {

using Row = std::vector<Value>;

// A sheet as the workbook hands it over: rows and columns from 1.
Datam Sheet(const std::vector<Row>& rows) {
    size_t cols = 1;
    for (const Row& r : rows) cols = std::max(cols, r.size());
    Datam d(static_cast<int>(rows.size()), static_cast<int>(cols), 1, 1);
    for (size_t r = 0; r < rows.size(); ++r)
        for (size_t c = 0; c < rows[r].size(); ++c) d(static_cast<int>(r) + 1, static_cast<int>(c) + 1) = rows[r][c];
    return d;
}

std::vector<Row> Header(const std::string& name, int models) {
    return {{"Name", name},
            {"Number of Models", models},
            {"Date Created", "2024-01-02"},
            {"Date Modified", "2024-02-03"},
            {"Number of Calculations", 7},
            {"Comment", "hand made"},
            {}};
}

void Append(std::vector<Row>& to, const std::vector<Row>& rows) { to.insert(to.end(), rows.begin(), rows.end()); }

const Row kModelLabels{"Name", "Family", "Variable", "Coefficients", "FieldModelType"};
const Row kCoefLabels{"Name", "DisplayName", "Format", "Units", "Threshold", "Term"};

// Three models starting in column 2, so that the reader must follow the
// markers' column: variable by text ("Xreg"), blank (its position), family by
// number, "all" and by name.
std::vector<Row> OverlaySheet() {
    std::vector<Row> s = Header("Overlay set", 3);
    Append(s, {{Value(), "[Model]"},
               {Value(), "Name", "Family", "Variable", "Coefficients"},
               {Value(), "Tilt", 2, "Xreg", 3},
               {Value(), "[Coefficients]"},
               {Value(), "Name", "DisplayName", "Format", "Units", "Threshold", "Term"},
               {Value(), "Offset", "Offset", "\"0.000#\"", "", 1, ""},
               {Value(), "TiltX", "Tilt X", "0.0000", "\"urad\"", 3, "\"R * cos(Theta)\""},
               {Value(), "TiltY", "", "0.0000", "urad", 3, "R * Sin(Theta)"},
               {},
               {Value(), "[Model]"},
               {Value(), "Name", "Family", "Variable", "Coefficients"},
               {Value(), "Tilt", "all", Value(), 1},
               {Value(), "[Coefficients]"},
               {Value(), "Name", "DisplayName", "Format", "Units", "Threshold", "Term"},
               {Value(), "Offset", "Offset", "0.000#", "", 1, "1"},
               {Value(), "[Model]"},
               {Value(), "Name", "Family", "Variable", "Coefficients"},
               {Value(), "Tilt", "DENSE", "y", "2"},
               {Value(), "[Coefficients]"},
               {Value(), "Name", "DisplayName", "Format", "Units", "Threshold", "Term"},
               {Value(), "Offset", "Offset", "0.000#", "", 1, "1"},
               {Value(), "BowX", "Bow X", "0.0000", "nm/cm2", 4, "(R * Cos(Theta))^2"}});
    return s;
}

std::shared_ptr<cLot> FamilyLot() {
    testing::LotShape shape;
    shape.wafers = 1;
    shape.fieldsX = shape.fieldsY = 1;
    shape.families = 5;
    auto lot = testing::MakeStatsLot(shape, [](const testing::PointAt&) { return std::array<double, 8>{}; });
    lot->FamilyNames = Datam::fromRows({{"Enum", "Name", "Count", "Selected"},
                                        {1, "Iso", 0, true},
                                        {3, "Dense", 0, true}});
    // A name only the sites know.
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields())
            for (cSite* s : f->sites())
                if (s->Family() == 5) s->setFamilyName("Grating");
    return lot;
}

std::string Msg(const Status& s) { return s ? std::string() : s.failure().text; }

TEST(ModelSheet, ReadsHeaderModelsAndTerms) {
    auto lot = FamilyLot();
    Datam sheet = Sheet(OverlaySheet());
    cModelSet set;
    ASSERT_TRUE(set.LoadWaferModelArray(sheet, lot.get()));
    EXPECT_EQ(set.NameSet, "Overlay set");
    EXPECT_EQ(set.NumberModels, 3);
    EXPECT_EQ(set.DateCreated, "2024-01-02");
    EXPECT_EQ(set.DateModified, "2024-02-03");
    EXPECT_EQ(set.NumberCalculations, 7);
    EXPECT_EQ(set.Comment, "hand made");
    ASSERT_EQ(set.models.Count(), 3);

    // Family by number, variable "Xreg" is X.
    const Cmodel* a = set.models.Item("Tilt~1~2");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->Key, "Tilt~1~2");
    EXPECT_EQ(a->PlotFeature, 1);
    EXPECT_EQ(a->FamilyType, 2);
    ASSERT_EQ(a->Coefficients.Count(), 3);
    const cCoefficient* off = a->Coefficients.Item(1);
    EXPECT_EQ(off->NameCoef, "Offset");
    EXPECT_EQ(off->DisplayFormat, "0.000#");  // quotes gone
    EXPECT_EQ(off->ValueString(), "1");       // empty term
    EXPECT_EQ(off->Threshold, 1);
    const cCoefficient* tx = a->Coefficients.Item("2");
    ASSERT_NE(tx, nullptr);
    EXPECT_EQ(tx->Key, "2");
    EXPECT_EQ(tx->DisplayNameCoef, "Tilt X");
    EXPECT_EQ(tx->DisplayUnits, "urad");
    EXPECT_EQ(tx->ValueString(), "R * cos(Theta)");
    EXPECT_EQ(tx->Threshold, 3);
    EXPECT_EQ(a->Coefficients.Item(3)->DisplayNameCoef, "TiltY");  // blank display name: the name
    EXPECT_TRUE(a->IsRadial);

    // "all" is family 0, every family's; a blank variable is the model's position.
    const Cmodel* b = set.models.Item(2);
    EXPECT_EQ(b->Key, "Tilt~2~0");
    EXPECT_EQ(b->PlotFeature, 2);
    EXPECT_EQ(b->FamilyType, 0);
    EXPECT_EQ(b->Coefficients.Count(), 1);

    // A family name from the lot's table, case blind; "y" is Y.
    const Cmodel* c = set.models.Item(3);
    EXPECT_EQ(c->Key, "Tilt~2~3");
    EXPECT_EQ(c->Coefficients.Item(2)->ValueString(), "(R * Cos(Theta))^2");
}

TEST(ModelSheet, FamilyNamesVariablesAndFieldTypes) {
    auto lot = FamilyLot();
    std::vector<Row> s = Header("Fields", 4);
    auto model = [&s](Value name, Value fam, Value var, Value type) {
        Append(s, {{"[Model]"},
                   kModelLabels,
                   {name, fam, var, 1, type},
                   {"[Coefficients]"},
                   kCoefLabels,
                   {"Piston", "Piston", "0.0000", "", 1, "1"}});
    };
    model("A", "grating", "Overlay Y", 1);  // the sites' family name; "Y" in the text
    model("B", "Nowhere", "Length", Value());  // unknown family stays 0; no X nor Y: position 2
    model("C", 4, 6, "Columns");
    model("D", "Iso", "X", 9);  // out of range: whole field
    Datam sheet = Sheet(s);
    cModelSet set;
    Status st = set.LoadFieldModelArray(sheet, lot.get());
    ASSERT_TRUE(st) << Msg(st);
    ASSERT_EQ(set.models.Count(), 4);
    EXPECT_EQ(set.models.Item(1)->Key, "A~2~5");
    EXPECT_EQ(set.models.Item(1)->FieldModelType, 1);
    EXPECT_EQ(set.models.Item(2)->Key, "B~2~0");
    EXPECT_EQ(set.models.Item(2)->FieldModelType, 3);
    EXPECT_EQ(set.models.Item(3)->Key, "C~6~4");
    EXPECT_EQ(set.models.Item(3)->FieldModelType, 2);
    EXPECT_EQ(set.models.Item(4)->Key, "D~1~1");
    EXPECT_EQ(set.models.Item(4)->FieldModelType, 3);
    // The family look-up left the sites as they were.
    long fives = 0;
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields())
            for (cSite* x : f->sites()) fives += x->Family() == 5;
    EXPECT_GT(fives, 0);

    // Without a lot a name is the default family.
    cModelSet bare;
    ASSERT_TRUE(bare.LoadFieldModelArray(sheet, nullptr));
    EXPECT_EQ(bare.models.Item(1)->Key, "A~2~0");
}

TEST(ModelSheet, RenameOnlyWhenTheNameDiffers) {
    auto lot = FamilyLot();
    Datam sheet = Sheet(OverlaySheet());
    cModelSet set;
    ASSERT_TRUE(set.LoadWaferModelArray(sheet, lot.get(), "OVERLAY SET"));
    EXPECT_EQ(set.NameSet, "Overlay set");
    EXPECT_EQ(sheet(1, 2).str(), "Overlay set");

    ASSERT_TRUE(set.LoadWaferModelArray(sheet, lot.get(), "Renamed"));
    EXPECT_EQ(set.NameSet, "Renamed");
    EXPECT_EQ(sheet(1, 2).str(), "Renamed");
    EXPECT_EQ(set.models.Count(), 3);  // loaded again, not added to
}

TEST(ModelSheet, Failures) {
    // Two models with the same name, variable and family.
    std::vector<Row> s = Header("Twice", 2);
    for (int i = 0; i < 2; ++i)
        Append(s, {{"[Model]"}, kModelLabels, {"Tilt", 1, "X", 1}, {"[Coefficients]"}, kCoefLabels, {"Offset", "", "", "", 1, ""}});
    Datam twice = Sheet(s);
    cModelSet set;
    Status st = set.LoadWaferModelArray(twice, nullptr);
    ASSERT_FALSE(st);
    EXPECT_EQ(st.failure().tag, "cModelSet(LoadWaferModelArray): ");
    EXPECT_NE(st.failure().text.find("Tilt~1~1"), std::string::npos) << st.failure().text;

    // No "Name" marker.
    Datam noName = Sheet({{"Title", "x"}, {"[Model]"}});
    st = set.LoadWaferModelArray(noName, nullptr);
    ASSERT_FALSE(st);
    EXPECT_EQ(st.failure().text, "Could not find first row with 'Name' of model.");
    Datam nothing;
    st = set.LoadWaferModelArray(nothing, nullptr);
    EXPECT_EQ(Msg(st), "Could not find first row with 'Name' of model.");

    // Fewer models than the header promises.
    s = Header("Short", 2);
    Append(s, {{"[Model]"}, kModelLabels, {"Only", 1, "X", 1}, {"[Coefficients]"}, kCoefLabels, {"Offset", "", "", "", 1, ""}});
    Datam shortSheet = Sheet(s);
    EXPECT_EQ(Msg(set.LoadWaferModelArray(shortSheet, nullptr)), "Could not find '[Model]' for model 2 of 2.");

    // A model whose term list is missing must not take the next model's.
    s = Header("Gap", 2);
    Append(s, {{"[Model]"}, kModelLabels, {"First", 1, "X", 1}, {}});
    Append(s, {{"[Model]"}, kModelLabels, {"Second", 1, "Y", 1}, {"[Coefficients]"}, kCoefLabels, {"Offset", "", "", "", 1, ""}});
    Datam gap = Sheet(s);
    st = set.LoadFieldModelArray(gap, nullptr);
    ASSERT_FALSE(st);
    EXPECT_EQ(st.failure().tag, "Models(LoadWaferModelArray): ");
    EXPECT_EQ(st.failure().text, "Could not locate coefficient information for: First~1~1");
}

TEST(ModelSheet, WaferAndFieldCollections) {
    auto lot = FamilyLot();
    const Datam sheet = Sheet(OverlaySheet());
    cWafer* w = lot->Wafers().At(1);
    cField* f = w->Fields().At(1);

    Models loose;
    Status st = loose.LoadModelArray(sheet, lot.get());
    EXPECT_EQ(Msg(st), "Wafer parent for Model Library not set.");
    EXPECT_EQ(st.failure().tag, "Models(LoadModelArray): ");
    ModelsField looseField;
    st = looseField.LoadModelArray(sheet, lot.get());
    EXPECT_EQ(Msg(st), "Field parent for Model Library not set.");
    EXPECT_EQ(st.failure().tag, "ModelsField(LoadModelArray): ");

    Models& wm = WaferModels(*w);
    ASSERT_TRUE(wm.LoadModelArray(sheet, lot.get()));
    EXPECT_EQ(wm.Name, "Overlay set");
    EXPECT_EQ(wm.Comments, "hand made");
    ASSERT_EQ(wm.models.Count(), 3);
    const Cmodel* m = wm.models.Item("Tilt_2_3");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->ParentWafer, w);
    EXPECT_EQ(m->ParentField, nullptr);
    // A sheet that fails leaves what was loaded.
    EXPECT_FALSE(wm.LoadModelArray(Sheet({{"Nothing"}}), lot.get()));
    EXPECT_EQ(wm.models.Count(), 3);

    ModelsField& fm = FieldModels(*f);
    ASSERT_TRUE(fm.LoadModelArray(sheet, lot.get()));
    ASSERT_EQ(fm.models.Count(), 3);
    EXPECT_EQ(fm.models.Item("Tilt_1_2")->ParentField, f);
    EXPECT_EQ(fm.models.Item("Tilt_1_2")->ParentWafer, w);
}

TEST(ModelLibrary, SetsOntoWafersAndFields) {
    auto lot = FamilyLot();
    cWafer* w = lot->Wafers().At(1);
    cField* f = w->Fields().At(1);
    Datam sheet = Sheet(OverlaySheet());
    auto set = std::make_unique<cModelSet>();
    ASSERT_TRUE(set->LoadWaferModelArray(sheet, lot.get()));
    cModelWaferLib lib;
    lib.Add(std::move(set));

    Status st = LoadWaferModelObject(*w, "Overlay set", nullptr);
    EXPECT_EQ(Msg(st), "Model library not provided.");
    EXPECT_EQ(st.failure().tag, "cWafer(LoadWaferModelObject): ");
    st = LoadWaferModelObject(*w, "Nope", &lib);
    EXPECT_EQ(Msg(st), "Could not locate wafer model: Nope");
    st = LoadFieldModelObject(*f, "Nope", &lib);
    EXPECT_EQ(Msg(st), "Could not locate field model: Nope");
    EXPECT_EQ(st.failure().tag, "cField(LoadFieldModelObject): ");

    // What was there goes; the set's models come as clones.
    Models& wm = WaferModels(*w);
    wm.models.Add(std::make_unique<Cmodel>(), "old");
    ASSERT_TRUE(LoadWaferModelObject(*w, "OVERLAY SET", &lib));
    EXPECT_EQ(wm.Name, "Overlay set");
    EXPECT_EQ(wm.Comments, "hand made");
    ASSERT_EQ(wm.models.Count(), 3);
    EXPECT_EQ(wm.models.Item("old"), nullptr);
    Cmodel* m = wm.models.Item("Tilt~1~2");
    ASSERT_NE(m, nullptr);
    EXPECT_NE(m, lib.Item(1)->models.Item("Tilt~1~2"));
    EXPECT_EQ(m->ParentWafer, w);
    EXPECT_EQ(m->Coefficients.Count(), 3);
    m->Coefficients.Item(1)->Value = 5;
    EXPECT_EQ(lib.Item(1)->models.Item("Tilt~1~2")->Coefficients.Item(1)->Value, 0);

    ASSERT_TRUE(LoadFieldModelObject(*f, "overlay set", &lib));
    ModelsField& fm = FieldModels(*f);
    ASSERT_EQ(fm.models.Count(), 3);
    EXPECT_EQ(fm.models.Item(3)->ParentField, f);
    EXPECT_EQ(fm.models.Item(3)->ParentWafer, w);
}

struct Term {
    const char* name;
    const char* format;
    const char* units;
    int threshold;
    const char* term;
};

void ExpectTerms(const Cmodel& m, const std::vector<Term>& terms) {
    ASSERT_EQ(m.Coefficients.Count(), static_cast<int>(terms.size()));
    for (size_t i = 0; i < terms.size(); ++i) {
        const cCoefficient* c = m.Coefficients.Item(static_cast<int>(i) + 1);
        SCOPED_TRACE(terms[i].name);
        EXPECT_EQ(c->NameCoef, terms[i].name);
        EXPECT_EQ(c->DisplayFormat, terms[i].format);
        EXPECT_EQ(c->DisplayUnits, terms[i].units);
        EXPECT_EQ(c->Threshold, terms[i].threshold);
        EXPECT_EQ(c->ValueString(), terms[i].term);
        EXPECT_EQ(c->Key, std::to_string(i + 1));
    }
}

TEST(ProcessWindowModels, TermTables) {
    auto pent = LoadPW_WafModelPentode();
    EXPECT_EQ(pent->Key, "Setup");
    EXPECT_EQ(pent->FamilyType, 1);
    EXPECT_EQ(pent->PlotFeature, 1);
    EXPECT_TRUE(pent->IsRadial);
    ExpectTerms(*pent, {{"Offset", "0.000#", "", 1, "1"},
                        {"TiltX", "0.0000", "urad", 3, "R * cos(Theta)"},
                        {"TiltY", "0.0000", "urad", 3, "R * Sin(Theta)"},
                        {"BowX", "0.0000", "nm/cm2", 4, "(R * Cos(Theta))^2"},
                        {"BowY", "0.0000", "nm/cm2", 4, "(R * Sin(Theta))^2"},
                        {"TriFoilX", "0.0000", "nm/cm3", 5, "R^3 * cos(3*Theta)"},
                        {"TriFoilY", "0.0000", "nm/cm3", 5, "R^3 * sin(3*Theta)"},
                        {"PentodeX", "0.0000", "nm/cm5", 6, "R^5 * cos(5*Theta)"},
                        {"PentodeY", "0.0000", "nm/cm5", 6, "R^5 * sin(5*Theta)"},
                        {"Pentode", "0.0000", "nm/cm5", 6, "R^5"}});

    auto pw = LoadPWModel(2);
    EXPECT_EQ(pw->FieldModelType, 3);
    EXPECT_EQ(pw->PlotFeature, 2);
    EXPECT_EQ(pw->Key, "PWField_2_1");
    EXPECT_FALSE(pw->IsRadial);
    ExpectTerms(*pw, {{"Piston", "0.0000", "", 1, "1"},
                      {"TiltX", "0.0000", "urad", 3, "X"},
                      {"TiltY", "0.0000", "urad", 3, "Y"},
                      {"CurvX", "0.0000", "nm/cm2", 4, "X^2"},
                      {"CurvY", "0.0000", "nm/cm2", 4, "Y^2"}});
}

// ---------------------------------------------------------------- reports

std::unique_ptr<Cmodel> TiltModel(const std::string& key) {
    auto m = std::make_unique<Cmodel>();
    m->Name = "Tilt";
    m->Key = key;
    m->PlotFeature = 1;
    m->FamilyType = 1;
    m->AddTerm("Offset", "1");
    m->AddTerm("TiltX", "R * cos(Theta)", 3, "urad");
    m->AddTerm("TiltY", "R * Sin(Theta)", 3, "urad");
    return m;
}

// A fitted model as the fit leaves it: values, errors and MSE.
std::unique_ptr<Cmodel> Fitted(const Cmodel& proto, std::vector<double> values, std::vector<double> sigmas, float mse) {
    auto m = proto.clone();
    for (size_t i = 0; i < values.size(); ++i) {
        m->Coefficients.Item(static_cast<int>(i) + 1)->Value = values[i];
        m->Coefficients.Item(static_cast<int>(i) + 1)->Sigma = sigmas[i];
    }
    m->MSE = mse;
    return m;
}

std::shared_ptr<cLot> TwoWaferLot() {
    testing::LotShape shape;
    shape.fieldsX = shape.fieldsY = 1;
    return testing::MakeStatsLot(shape, [](const testing::PointAt&) { return std::array<double, 8>{}; });
}

std::string Cell(const Datam& d, int r, int c) { return d.get(r, c).toString(); }

TEST(ModelReports, WaferMeansAndRmss) {
    auto lot = TwoWaferLot();
    auto proto = TiltModel("Tilt_1_1");
    auto bow = std::make_unique<Cmodel>();
    bow->Key = "Bow_1_1";
    bow->PlotFeature = 1;
    bow->FamilyType = 1;
    bow->AddTerm("Offset", "1");
    bow->AddTerm("BowX", "(R * Cos(Theta))^2", 4, "nm/cm2");

    ModelWafer& mw = LotModelWafer(*lot);
    mw.models.Add(proto->clone(), proto->Key);
    mw.models.Add(bow->clone(), bow->Key);
    cWafer* w1 = lot->Wafers().At(1);
    cWafer* w2 = lot->Wafers().At(2);
    WaferModels(*w1).models.Add(Fitted(*proto, {1.0, 2.0, -3.0}, {0.1, 0.2, 0.3}, 0.5f), proto->Key);
    WaferModels(*w2).models.Add(Fitted(*proto, {3.0, 4.0, 1.0}, {0.3, 0.4, 0.1}, 1.5f), proto->Key);
    WaferModels(*w2).models.Add(Fitted(*bow, {0.25, -0.5}, {0.02, 0.04}, 0.125f), bow->Key);

    testing::ScopedCapture cap;
    auto res = mw.UpdateAverageModels(*lot);
    ASSERT_TRUE(res.ok()) << res.failure().text;
    const Datam& d = *res;
    // Header, two Tilt rows, a new header for Bow, one Bow row, two blocks of four.
    ASSERT_EQ(d.rowUb(), 4 + 8);
    ASSERT_EQ(d.colUb(), 9);
    const char* head[] = {"Wafer", "Feature", "Family", "Offset", "Offset_SE", "TiltX", "TiltX_SE", "TiltY", "TiltY_SE", "MSE"};
    for (int c = 0; c <= 9; ++c) EXPECT_EQ(Cell(d, 0, c), head[c]);
    EXPECT_EQ(Cell(d, 1, 0), "1");
    EXPECT_EQ(Cell(d, 1, 1), "CD");
    EXPECT_EQ(d(1, 2).toLong(), 1);
    EXPECT_DOUBLE_EQ(d(1, 7).toDouble(), -3.0);
    EXPECT_DOUBLE_EQ(d(2, 6).toDouble(), 0.4);
    EXPECT_DOUBLE_EQ(d(2, 9).toDouble(), 1.5);
    EXPECT_EQ(Cell(d, 3, 0), "Wafer");
    EXPECT_EQ(Cell(d, 3, 5), "BowX");
    EXPECT_EQ(Cell(d, 3, 7), "");
    EXPECT_EQ(Cell(d, 3, 9), "MSE");
    EXPECT_EQ(Cell(d, 4, 0), "2");
    EXPECT_DOUBLE_EQ(d(4, 6).toDouble(), 0.04);

    // Tilt summary: means (1+3)/2, (2+4)/2, (-3+1)/2; RMSS of the errors
    // sqrt((0.1^2+0.3^2)/2) = sqrt(0.05), sqrt(0.1), sqrt(0.05); MSE sqrt(1.25).
    EXPECT_EQ(Cell(d, 5, 0), "________");
    EXPECT_EQ(Cell(d, 5, 9), "________");
    EXPECT_EQ(Cell(d, 6, 0), "  Model");
    EXPECT_EQ(Cell(d, 6, 1), " Summary");
    EXPECT_EQ(Cell(d, 6, 2), "Tilt_1_1");
    EXPECT_EQ(Cell(d, 6, 5), "TiltX");
    EXPECT_EQ(Cell(d, 7, 0), "MEAN");
    EXPECT_EQ(Cell(d, 7, 3), "2.00000");
    EXPECT_EQ(Cell(d, 7, 4), "");
    EXPECT_EQ(Cell(d, 7, 5), "3.00000");
    EXPECT_EQ(Cell(d, 7, 7), "-1.00000");
    EXPECT_EQ(Cell(d, 8, 0), "RMSS");
    EXPECT_EQ(Cell(d, 8, 3), "");
    EXPECT_EQ(Cell(d, 8, 4), "0.22361");
    EXPECT_EQ(Cell(d, 8, 6), "0.31623");
    EXPECT_EQ(Cell(d, 8, 8), "0.22361");
    EXPECT_EQ(Cell(d, 8, 9), "1.11803");
    // Bow: one wafer, its own numbers.
    EXPECT_EQ(Cell(d, 10, 2), "Bow_1_1");
    EXPECT_EQ(Cell(d, 11, 3), "0.25000");
    EXPECT_EQ(Cell(d, 11, 5), "-0.50000");
    EXPECT_EQ(Cell(d, 12, 6), "0.04000");
    EXPECT_EQ(Cell(d, 12, 9), "0.12500");
    EXPECT_EQ(Cell(d, 12, 7), "");

    // The averages are of the first model (no Key chosen).
    ASSERT_EQ(mw.AvgCoefs.rowUb(), 3);
    EXPECT_NEAR(mw.AvgCoefs(2, 1).toDouble(), 3.0, 1e-6);
    EXPECT_NEAR(mw.AvgSigma(1, 1).toDouble(), std::sqrt(0.05), 1e-6);
    EXPECT_EQ(mw.AvgCoefs(3, 0).str(), "TiltY");
    // The equation gives 2 + 3 x - y at x = R cos, y = R sin.
    clsEquation eq(mw.AvgEquation);
    eq.Var("R", 2.0);
    eq.Var("Theta", 0.5);
    EXPECT_NEAR(eq.Solution(), 2 + 3 * 2 * std::cos(0.5) - 2 * std::sin(0.5), 1e-9) << mw.AvgEquation;
    EXPECT_EQ(cap.statusText(), "Update model 'Bow_1_1' results for wafer 2 of 2");

    // A Key picks the averaged model; a culled wafer is left out.
    mw.Key = "Bow_1_1";
    w1->setCull(true);
    res = mw.UpdateAverageModels(*lot);
    ASSERT_TRUE(res.ok());
    EXPECT_EQ(res->rowUb(), 2 + 1 + 8);
    EXPECT_EQ(mw.AvgCoefs(0, 1).str(), "Bow_1_1");
    EXPECT_NEAR(mw.AvgCoefs(2, 1).toDouble(), -0.5, 1e-7);
    w1->setCull(false);

    mw.Clear();
    res = mw.UpdateAverageModels(*lot);
    ASSERT_TRUE(res.ok());
    EXPECT_FALSE(res->isArray());
    EXPECT_TRUE(mw.AvgEquation.empty());
}

TEST(ModelReports, FieldRowsWithExposure) {
    auto lot = TwoWaferLot();
    auto proto = LoadPWModel(1);
    ModelField& mf = LotModelField(*lot);
    mf.models.Add(proto->clone(), proto->Key);
    const double v[2][5] = {{1, 2, 3, 4, 5}, {3, 6, 9, 12, -15}};
    const double e[2][5] = {{0.1, 0.2, 0.3, 0.4, 0.5}, {0.3, 0.6, 0.9, 1.2, 1.5}};
    int i = 0;
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) {
            f->Focus = 0.125f * (i + 1);
            f->Dose = 20 + i;
            FieldModels(*f).models.Add(
                Fitted(*proto, {v[i][0], v[i][1], v[i][2], v[i][3], v[i][4]}, {e[i][0], e[i][1], e[i][2], e[i][3], e[i][4]},
                       i ? 0.75f : 0.25f),
                proto->Key);
            ++i;
        }
    testing::ScopedCapture cap;
    auto res = mf.UpdateAverageModels(*lot);
    ASSERT_TRUE(res.ok()) << res.failure().text;
    const Datam& d = *res;
    ASSERT_EQ(d.rowUb(), 2 + 4);
    const char* head[] = {"Model", "Field", "Feature", "Family", "Focus", "Dose", "Piston", "Piston_SE", "TiltX"};
    for (int c = 0; c < 9; ++c) EXPECT_EQ(Cell(d, 0, c), head[c]);
    EXPECT_EQ(Cell(d, 0, 16), "MSE");
    EXPECT_EQ(Cell(d, 1, 0), "PWField_1_1");
    EXPECT_EQ(Cell(d, 1, 1), lot->Wafers().At(1)->Fields().At(1)->NumberKey);
    EXPECT_EQ(Cell(d, 1, 4), "0.13");  // 0.125 half away from zero
    EXPECT_EQ(Cell(d, 2, 4), "0.25");
    EXPECT_EQ(Cell(d, 2, 5), "21.00");
    EXPECT_DOUBLE_EQ(d(2, 14).toDouble(), -15);
    // Means 2, 4, 6, 8, -5; RMSS of errors sqrt((a^2 + 9 a^2)/2) = a sqrt(5);
    // MSE sqrt((0.0625 + 0.5625)/2) = sqrt(0.3125).
    EXPECT_EQ(Cell(d, 4, 2), "PWField_1_1");
    EXPECT_EQ(Cell(d, 5, 6), "2.000000");
    EXPECT_EQ(Cell(d, 5, 14), "-5.000000");
    EXPECT_EQ(Cell(d, 6, 7), "0.223607");
    EXPECT_EQ(Cell(d, 6, 15), "1.118034");
    EXPECT_EQ(Cell(d, 6, 16), "0.559017");
    EXPECT_EQ(cap.statusText(), "Update model 'PWField_1_1' results for field 2 of 2");
    EXPECT_EQ(mf.AvgCoefs(5, 0).str(), "CurvY");
    EXPECT_NEAR(mf.AvgCoefs(5, 1).toDouble(), -5, 1e-6);

    // Without exposures the columns stay empty.
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) f->Focus = f->Dose = 0;
    res = mf.UpdateAverageModels(*lot);
    ASSERT_TRUE(res.ok());
    EXPECT_EQ(Cell(*res, 1, 4), "");
    EXPECT_EQ(Cell(*res, 1, 5), "");
}

// ---------------------------------------------------------------- the shipped library

struct LibModel {
    std::string name;
    Value family, variable;
    std::vector<std::vector<Value>> terms;  // name, display name, format, units, threshold, term
    Value fieldType = Value();
};

Datam LibrarySheet(const std::string& name, const std::string& comment, const std::vector<LibModel>& models, bool field) {
    std::vector<Row> s = {{"Name", name},
                          {"Number of Models", static_cast<int32_t>(models.size())},
                          {"Date Created", "2024-06-01"},
                          {"Date Modified", "2024-06-01"},
                          {"Number of Calculations", 0},
                          {"Comment", comment},
                          {}};
    for (const LibModel& m : models) {
        Row labels{"Name", "Family", "Variable", "Coefficients"};
        Row cells{m.name, m.family, m.variable, static_cast<int32_t>(m.terms.size())};
        if (field) {
            labels.push_back("FieldModelType");
            cells.push_back(m.fieldType);
        }
        Append(s, {{"[Model]"}, labels, cells, {"[Coefficients]"}, kCoefLabels});
        for (const auto& t : m.terms) s.push_back(t);
        s.push_back({});
    }
    return Sheet(s);
}

using Terms = std::vector<std::vector<Value>>;
const Terms kOffsetTilt = {{"Offset", "Offset", "0.000#", "", 1, "1"},
                           {"TiltX", "TiltX", "0.0000", "urad", 3, "R * cos(Theta)"},
                           {"TiltY", "TiltY", "0.0000", "urad", 3, "R * Sin(Theta)"}};
const Terms kBow = {{"BowX", "BowX", "0.0000", "nm/cm2", 4, "(R * Cos(Theta))^2"},
                    {"BowY", "BowY", "0.0000", "nm/cm2", 4, "(R * Sin(Theta))^2"}};
const Terms kTrifoil = {{"TriFoilX", "TriFoilX", "0.0000", "nm/cm3", 5, "R^3 * cos(3*Theta)"},
                        {"TriFoilY", "TriFoilY", "0.0000", "nm/cm3", 5, "R^3 * sin(3*Theta)"}};
const Terms kPentode = {{"PentodeX", "PentodeX", "0.0000", "nm/cm5", 6, "R^5 * cos(5*Theta)"},
                        {"PentodeY", "PentodeY", "0.0000", "nm/cm5", 6, "R^5 * sin(5*Theta)"},
                        {"Pentode", "Pentode", "0.0000", "nm/cm5", 6, "R^5"}};
const Terms kFieldLinear = {{"Piston", "Piston", "0.0000", "", 1, "1"},
                            {"TiltX", "TiltX", "0.0000", "urad", 3, "X"},
                            {"TiltY", "TiltY", "0.0000", "urad", 3, "Y"}};
const Terms kFieldCurv = {{"CurvX", "CurvX", "0.0000", "nm/cm2", 4, "X^2"},
                          {"CurvY", "CurvY", "0.0000", "nm/cm2", 4, "Y^2"}};

Terms Join(std::initializer_list<const Terms*> parts) {
    Terms t;
    for (const Terms* p : parts) t.insert(t.end(), p->begin(), p->end());
    return t;
}

// One model per overlay component (variable 1 and 2), every family.
std::vector<LibModel> XY(const std::string& name, const Terms& terms, Value fieldType = Value()) {
    return {{name, "ALL", "X", terms, fieldType}, {name, "ALL", "Y", terms, fieldType}};
}

std::string LibraryPath() { return std::string(ZORV_DATA_DIR) + "/models/ModelLibrary.xlsx"; }

// Writes data/models/ModelLibrary.xlsx; run by hand with
// --gtest_also_run_disabled_tests --gtest_filter=*WriteModelLibrary.
TEST(ModelLibraryFile, DISABLED_WriteModelLibrary) {
    struct SheetDef {
        std::string name, comment;
        std::vector<LibModel> models;
        bool field;
    };
    const std::vector<SheetDef> sheets = {
        {"Offset+Tilt", "Wafer offset and tilt.", XY("OffsetTilt", kOffsetTilt), false},
        {"Tilt+Bow", "Wafer offset, tilt and bow.", XY("TiltBow", Join({&kOffsetTilt, &kBow})), false},
        {"Trifoil", "Wafer terms up to trifoil.", XY("Trifoil", Join({&kOffsetTilt, &kBow, &kTrifoil})), false},
        {"Pentode", "The ten-term wafer model.", XY("Pentode", Join({&kOffsetTilt, &kBow, &kTrifoil, &kPentode})), false},
        {"Field Piston+Tilt+Curv", "Whole field piston, tilt and curvature.",
         XY("PistonTiltCurv", Join({&kFieldLinear, &kFieldCurv}), 3), true},
        {"Field Linear", "Whole field piston and tilt.", XY("Linear", kFieldLinear, 3), true},
    };
    const std::string path = LibraryPath();
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    WorkbookPtr wb = Workbook::create(path, sheets.front().name);
    for (const SheetDef& s : sheets) {
        Worksheet* ws = wb->sheet(s.name);
        if (!ws) ws = wb->addSheet(s.name);
        ASSERT_NE(ws, nullptr) << s.name;
        ws->setRange(1, 1, LibrarySheet(s.name, s.comment, s.models, s.field));
        ws->setBold(Area{1, 1, 6, 1});
    }
    wb->setProperty("Title", "Model library");
    Status st = wb->save();
    ASSERT_TRUE(st) << st.failure().text;
}

TEST(ModelLibraryFile, ShippedLibraryLoads) {
    cModelWaferLib wafers;
    cModelFieldLib fields;
    Status st = LoadModelLibraries(LibraryPath(), wafers, fields);
    ASSERT_TRUE(st) << st.failure().text;
    ASSERT_EQ(wafers.Count(), 4);
    EXPECT_EQ(wafers.Item(1)->NameSet, "Offset+Tilt");
    EXPECT_EQ(wafers.Item(2)->NameSet, "Tilt+Bow");
    EXPECT_EQ(wafers.Item(3)->NameSet, "Trifoil");
    EXPECT_EQ(wafers.Item(4)->NameSet, "Pentode");
    ASSERT_EQ(fields.Count(), 2);
    EXPECT_NE(fields.Find("field piston+tilt+curv"), nullptr);
    EXPECT_NE(fields.Find("Field Linear"), nullptr);

    const cModelSet* ot = wafers.Find("Offset+Tilt");
    ASSERT_EQ(ot->models.Count(), 2);
    const Cmodel* x = ot->models.Item("OffsetTilt~1~0");
    const Cmodel* y = ot->models.Item("OffsetTilt~2~0");
    ASSERT_NE(x, nullptr);
    ASSERT_NE(y, nullptr);
    ExpectTerms(*x, {{"Offset", "0.000#", "", 1, "1"},
                     {"TiltX", "0.0000", "urad", 3, "R * cos(Theta)"},
                     {"TiltY", "0.0000", "urad", 3, "R * Sin(Theta)"}});

    // The pentode set carries the built-in model's terms.
    auto builtIn = LoadPW_WafModelPentode();
    const Cmodel* p = wafers.Find("Pentode")->models.Item("Pentode~2~0");
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->Coefficients.Count(), builtIn->Coefficients.Count());
    for (int k = 1; k <= p->Coefficients.Count(); ++k) {
        const cCoefficient* a = p->Coefficients.Item(k);
        const cCoefficient* b = builtIn->Coefficients.Item(k);
        EXPECT_EQ(a->NameCoef, b->NameCoef);
        EXPECT_EQ(a->ValueString(), b->ValueString());
        EXPECT_EQ(a->DisplayUnits, b->DisplayUnits);
        EXPECT_EQ(a->Threshold, b->Threshold);
    }
    EXPECT_EQ(wafers.Find("Trifoil")->models.Item(1)->Coefficients.Count(), 7);
    EXPECT_EQ(wafers.Find("Tilt+Bow")->models.Item(1)->Coefficients.Count(), 5);

    const Cmodel* f = fields.Find("Field Piston+Tilt+Curv")->models.Item("PistonTiltCurv~2~0");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->FieldModelType, 3);
    ExpectTerms(*f, {{"Piston", "0.0000", "", 1, "1"},
                     {"TiltX", "0.0000", "urad", 3, "X"},
                     {"TiltY", "0.0000", "urad", 3, "Y"},
                     {"CurvX", "0.0000", "nm/cm2", 4, "X^2"},
                     {"CurvY", "0.0000", "nm/cm2", 4, "Y^2"}});
    EXPECT_EQ(fields.Find("Field Linear")->models.Item(1)->Coefficients.Count(), 3);

    Status missing = LoadModelLibraries(LibraryPath() + ".none", wafers, fields);
    EXPECT_FALSE(missing);
}

}  // namespace
}  // namespace zorv
