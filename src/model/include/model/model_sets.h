// Where a model's terms come from and how models are grouped: the models of
// one wafer or field (Models, ModelsField, hung on the tree as attachments),
// the lot-wide report lists (ModelWafer, ModelField), the named sets of the
// model libraries (cModelSet, cModelWaferLib, cModelFieldLib) read from a
// model sheet, and the two models built in code for the process window.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/datam.h"
#include "base/proc.h"
#include "lot/keyed.h"
#include "lot/lot.h"
#include "model/model.h"

namespace zorv {

// A keyed list of models, in order.
class ModelList {
public:
    int Count() const { return list_.Count(); }
    Cmodel* Item(int pos) const { return list_.at(pos); }
    Cmodel* Item(std::string_view key) const { return list_.byKey(key); }
    // False (nothing added) when the key is taken.
    bool Add(std::unique_ptr<Cmodel> m, const std::string& key);
    void Clear() { list_.clear(); }
    auto begin() const { return list_.begin(); }
    auto end() const { return list_.end(); }

private:
    KeyedList<std::unique_ptr<Cmodel>> list_;
};

// The models of one wafer (cWafer::Models).
class Models : public LotAttachment {
public:
    std::string Name, Comments;
    cWafer* parent = nullptr;
    ModelList models;

    std::unique_ptr<LotAttachment> clone() const override;
    void Clear() override { models.Clear(); }
    void SetPlotFeature(int feature);
    // Models(LoadModelArray): a model sheet for this wafer (the layout at
    // cModelSet), models keyed name "_" variable "_" family; needs a parent.
    // A sheet that fails leaves the models as they were.
    [[nodiscard]] Status LoadModelArray(const Datam& sheet, cLot* lot);
};

// The models of one field (cField::ModelsField).
class ModelsField : public LotAttachment {
public:
    std::string Name, Comments;
    cField* parent = nullptr;
    ModelList models;

    std::unique_ptr<LotAttachment> clone() const override;
    void Clear() override { models.Clear(); }
    void SetPlotFeature(int feature);
    [[nodiscard]] Status LoadModelArray(const Datam& sheet, cLot* lot);
};

// The wafer's (field's) model collection, made when missing.
Models& WaferModels(cWafer& w);
ModelsField& FieldModels(cField& f);

// The lot-wide lists: one clone per model key, and what the per-wafer
// (per-field) fits average to.
class ModelWafer : public LotAttachment {
public:
    ModelList models;
    std::string Key;
    std::string AvgEquation;
    Datam AvgCoefs, AvgSigma;

    std::unique_ptr<LotAttachment> clone() const override;
    void Clear() override;
    // ModelWafer(UpdateAverageModels): the report of every wafer's fit of
    // every model, with a summary block per model. Rows from 0: the header
    // "Wafer", "Feature", "Family", then per term its name and name "_SE",
    // and "MSE" in the last column; one row per model and wafer not culled
    // that holds the model's key (its terms' Value, Sigma and the model's
    // MSE as they stand; the feature by name, the family by number); a new
    // header row where a model's terms differ from those above. Then per
    // model: a row of "________", a row "  Model", " Summary", key, term
    // headers, a row "MEAN" of the values and a row "RMSS" of the errors and
    // MSE, as text "##0.00000". AvgCoefs and AvgSigma (rows 1..t, column 0
    // the term name, column 1 the mean / RMSS, row 0 "Term" and the key) and
    // AvgEquation are of the model of key Key, or of the first one. No
    // models: no table (not an array).
    [[nodiscard]] Result<Datam> UpdateAverageModels(cLot& lot);
};
class ModelField : public LotAttachment {
public:
    ModelList models;
    std::string AvgEquation;
    Datam AvgCoefs, AvgSigma;

    std::unique_ptr<LotAttachment> clone() const override;
    void Clear() override;
    // ModelField(UpdateAverageModels): as the wafer report, one row per field
    // not culled, the identity columns "Model" (its key), "Field" (NumberKey),
    // "Feature", "Family", "Focus", "Dose" (text "0.00", empty unless some
    // wafer has an exposure layout or some field an exposure); the summary in
    // "0.000000". The averages are of the first model.
    [[nodiscard]] Result<Datam> UpdateAverageModels(cLot& lot);
};
ModelWafer& LotModelWafer(cLot& lot);
ModelField& LotModelField(cLot& lot);

// One named set of models in a library; its models keyed name "~" variable
// "~" family (Cmodel::Key the same).
//
// A model sheet (cells found by their markers, case blind, anywhere):
//   "Name"            | set name     the six rows under the marker, in the
//   (any label)       | model count  column to its right
//   (any label)       | date created
//   (any label)       | date modified
//   (any label)       | number of calculations
//   (any label)       | comment
// then per model, from the marker's column:
//   "[Model]"
//   (labels)
//   name | family | variable | term count | field model type
//   "[Coefficients]"
//   (labels)
//   NameCoef | DisplayNameCoef | DisplayFormat | DisplayUnits | Threshold | ValueString
//   ... one row per term
// Family: a number, "ALL" (family 0: every family's model), or a name of the lot's FamilyNames or
// of its sites; unknown: 0. Variable: a number, text with "X" 1, with "Y" 2,
// else the model's position. The field model type (field sets only; 1 by
// rows, 2 by columns, 3 whole field, or text holding "Row" / "Col") is 3
// when blank. A term count that is no number reads terms to the first empty
// name; a blank threshold is 1, a blank format "0.0000". A term list is
// looked for only before the next "[Model]". A model count that is no number
// reads every "[Model]".
class cModelSet {
public:
    std::string NameSet;
    long NumberModels = 0;
    std::string DateCreated, DateModified;
    long NumberCalculations = 0;
    std::string Comment;
    std::string Key;
    ModelList models;

    void Clear() { models.Clear(); }
    // cModelSet(LoadWaferModelArray): a model sheet into this set. The lot
    // resolves family names; newName (when not empty and not the sheet's
    // name, case blind) renames the set in the sheet and here. A sheet that
    // fails leaves the set as it was.
    [[nodiscard]] Status LoadWaferModelArray(Datam& sheet, const cLot* lot, std::string_view newName = {});
    // Models(LoadWaferModelArray), the old tag: the same with field models.
    [[nodiscard]] Status LoadFieldModelArray(Datam& sheet, const cLot* lot, std::string_view newName = {});
    std::unique_ptr<cModelSet> clone() const;
};

// A library of sets, by name (case blind); a set of a name present replaces it.
class cModelLib {
public:
    int Count() const { return list_.Count(); }
    cModelSet* Item(int pos) const { return list_.at(pos); }
    cModelSet* Find(std::string_view name) const;
    void Add(std::unique_ptr<cModelSet> set);
    void Clear() { list_.clear(); }
    auto begin() const { return list_.begin(); }
    auto end() const { return list_.end(); }

private:
    KeyedList<std::unique_ptr<cModelSet>> list_;
};
class cModelWaferLib : public cModelLib {};
class cModelFieldLib : public cModelLib {};

// The global libraries, filled at start-up from the model library workbook.
cModelWaferLib& WaferModelLibrary();
cModelFieldLib& FieldModelLibrary();

// Every set of a library workbook's sheets: a sheet whose name holds "Field"
// (case blind) goes to the field library, others to the wafer library. The
// first failure stops the load and names the sheet.
[[nodiscard]] Status LoadModelLibraries(const std::string& workbookPath, cModelWaferLib& wafers,
                                        cModelFieldLib& fields);

// The library workbook of this installation: $ZORV_MODEL_LIBRARY when set,
// else "models/ModelLibrary.xlsx" of the data folder shipped with the program.
std::string ModelLibraryPath();
// Fills the global libraries from ModelLibraryPath() unless they hold sets
// already; the program and zorv-cli call it at start-up.
[[nodiscard]] Status LoadGlobalModelLibraries();

// cWafer(LoadWaferModelObject) / cField(LoadFieldModelObject): copies the set
// of that name (case blind) onto the wafer (field), replacing its models:
// clones under their keys, their parents set. "Could not locate wafer
// model: " / "Could not locate field model: " and the name.
[[nodiscard]] Status LoadWaferModelObject(cWafer& w, std::string_view setName, const cModelLib* library);
[[nodiscard]] Status LoadFieldModelObject(cField& f, std::string_view setName, const cModelLib* library);

// frmPW(LoadPWModel): the process window field model (Piston, TiltX, TiltY,
// CurvX, CurvY; whole field) for `feature`: name "PWField", family 1, key
// "PWField_" feature "_1"; thresholds 1, 3, 3, 4, 4 by the terms' order.
std::unique_ptr<Cmodel> LoadPWModel(int feature);
// frmPW(LoadPW_WafModelPentode): the ten-term wafer model "Pentode", key
// "Setup", family and variable 1.
std::unique_ptr<Cmodel> LoadPW_WafModelPentode();

}  // namespace zorv
