// Model fitting over a whole lot: the loops over families, wafers and fields
// and their reports, the aberration (tilt and bow) model of each wafer, the
// table of modelled data, and the lens-signature models of the process
// window with the sheets they write.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "lot/lot.h"
#include "model/model.h"
#include "model/model_sets.h"
#include "workbook/store.h"

namespace zorv {

// ---- the lot fit ------------------------------------------------------------

// The selected families: rows 1..n, column 1 the name, 2 the number, 3
// "Include" (Boolean), headers in row 0. From the lot: every family included;
// a lot without families gets one row, family 1.
Datam LotFamilies(cLot& lot);

// What the model controls of a workbench hold.
struct LotFitSetup {
    bool doWafer = true, doField = false;
    ModelFitOptions fit;
    bool doCull = false;  // the range cull starts again at each wafer
    Datam families;       // as LotFamilies; not an array: LotFamilies(lot)
};

struct LotFitResult {
    Datam waferReport;      // ModelWafer::UpdateAverageModels
    Datam fieldReport;      // ModelField::UpdateAverageModels, or "FullField"
    Datam residuals;        // rows "<field key>: <n>" of the field fits' residuals
    Datam rowColumnReport;  // UpdateRowColumnModelValues, by-rows/by-columns field models
    float mse = 0;
    long wafersFitted = 0, fieldsFitted = 0;
};

// cLot(ModelFit): every included family in turn (its sites culled for the
// fit by CullFeature and restored after), each live wafer's models
// (cWafer.ModelFit) and, with doField alone, each live field's. A refused
// wafer stops the run with "Wafer model was not fitted for wafer '" id "'"
// and two more lines. The lot's family and plot feature come back on every
// path. Models must be on the wafers and fields first (LoadWaferModelObject,
// LoadFieldModelObject).
[[nodiscard]] Result<LotFitResult> LotModelFit(cLot& lot, const LotFitSetup& setup);

// cWafer(ModelFit): the wafer's models for `family` (models of family 0
// serve every family; family 0 fits all), and with doField its fields'
// models on the wafer model's residuals; the equation of the last model
// fitted.
[[nodiscard]] Result<std::string> WaferModelFit(cWafer& w, const LotFitSetup& setup, long family = 0);

// cField(ModelFit): all models of the field. result stays "-1" when nothing
// was fitted; keys has "ModelKey", "MSE"; coefs one block of rows per model
// (term names as headers, "Feature" the plot feature); resids a column per
// model headed by its feature's name.
struct FieldFitResult {
    std::string result = "-1";
    Datam keys, coefs, resids;
    float mse = 0;
};
[[nodiscard]] Result<FieldFitResult> FieldModelFit(cField& f, const ModelFitOptions& options, long family = 0);

// cLot(UpdateRowColumnModelValues): by-rows (type 1) and by-columns (type 2)
// field fits of the lot's fields, one row per line: "Wafer", "Field", "Xloc",
// "Yloc", "Feature", "Family", the terms, their "_SE", "MSE", "Focus",
// "Dose", "NA", "PCi", "PCo".
[[nodiscard]] Result<Datam> UpdateRowColumnModelValues(cLot& lot);
// cLot(SummarizeRCmodel): that table's means by family and by feature.
[[nodiscard]] Result<Datam> SummarizeRCmodel(const Datam& rowColumn);

// cLot(UpdateMITP): copies the MITP tables of the same-key models of a lot of
// identical sites (wafers by WaferID, fields by NumberKey).
[[nodiscard]] Status UpdateMITP(cLot& lot, cLot& source, bool doWafer, bool doField);
// cLot(AddWafCoef): adds the effect of wafer-model term `coef` (1-based) of
// model `model` (1-based) to every point of the wafers, family `family`.
[[nodiscard]] Status AddWafCoef(cLot& lot, int coef, int family, int model);

// ---- tilt and bow -------------------------------------------------------------

// Which aberration terms a tilt and bow report holds (offset and tilts always).
struct TiltBowSetup {
    bool bow = true, trifoil = false, pentode = false;
    int terms = 10;  // Zernike terms asked, the piston included
    float threshold = 0, rangeCull = 0;
};
struct TiltBowResult {
    // "Wafer", "Feature", "Piston(um)", "SE", "Ry(X-Tilt)urad", "SE", ... ,
    // "MSerror(um)"; then "_Summary_" with "Mean" and "Maximum".
    Datam report;
    // Per term: "MSe", "CoefV", "CoefH", "CoefZ", "SterV", "SterH", "SterZ".
    Datam coefficients;
};
// cLot(CalcWaferTiltBow) over every live wafer, through cWafer.CalcTiltBow.
[[nodiscard]] Result<TiltBowResult> CalcWaferTiltBow(cLot& lot, const TiltBowSetup& setup);

// cWafer(CalcTiltBow): the Zernike model of one wafer's V, H and Z (plot
// feature 0) or of the plot feature alone: rows of coefficient names in
// column 0, a value and an error column per component; the MSE per component.
struct WaferTiltBow {
    Datam coef, errors;  // rows 1..terms; columns 1..3 (V, H, Z) or 1
    Datam mse;           // rows 1..3 or 1
    int terms = 0;
};
[[nodiscard]] Result<WaferTiltBow> CalcTiltBow(cWafer& w, const TiltBowSetup& setup);
// cWafer(UpdateWaferModel): the model's fitted value and residual into each
// live point of the wafer (x1000), for the components fitted.
[[nodiscard]] Status UpdateWaferModel(cWafer& w, const WaferTiltBow& fit);

// GetModeledData: "selSite", "GridLocX", "GridLocY", "FieldLocX",
// "FieldLocY", "ValueV" .. "ValueAstig_Res", "PosX", "PosY"; one row per
// live point (display units, mm).
[[nodiscard]] Result<Datam> GetModeledData(cLot& lot);

// ---- the lens signature of the process window ---------------------------------

// What the process window workbench holds for its lens models: the wafer
// model (the ten pentode terms) and the field model (piston, tilts,
// curvatures), each with a switch string of "0"/"1", one character a term
// (shorter strings leave the rest off), and whether each is removed.
struct LensSetup {
    std::string name;  // the analysis, for sheet names
    int feature = ePlotFeatureLot;
    bool removeWafer = false, removeField = false;
    // The field removed is the measured one (the chosen fields' average at
    // each site, less the wafer model) rather than its model.
    bool removeFieldMetrology = false;
    std::string waferTerms = "1111111111", fieldTerms = "11111";
    // The fits' threshold multiple and range cull; sigma, when above 0, is the
    // significance limit: terms under it count as zero (the reduced solution).
    float threshold = 0, rangeCull = 0, sigma = 0;
    // Fields or site groups averaged into the field signature: column 1 (or
    // the first), a field Number (that field of every wafer) or a field key;
    // cells that name none (a header) are passed over. Not an array: every
    // live field.
    Datam fields;
};
struct LensResult {
    Datam waferModel, waferResponse, fieldModel;  // the sheets' tables
    Datam rowAverage, columnAverage;              // "Row(mm)", "Column(mm)"
    Datam removed;                                // the field removed, by site
    std::shared_ptr<cLot> lot;                    // the lot with the removals
    long culled = 0;
    std::vector<std::string> notes;               // "Data Removal, " ..., "Range,Sigma cull of " ...
    std::vector<std::string> sheets;              // sheets written
};
// PWcommon(ModelLensAberrations): models the wafer and field signatures of a
// feature and, as switched, removes them; writes its sheets and Index rows
// into `workbook` when one is given.
[[nodiscard]] Result<LensResult> ModelLensAberrations(cLot& lot, const LensSetup& setup,
                                                      Workbook* workbook = nullptr);
// PWcommon(RemoveLensAberrations): the lot less the switched wafer and field
// terms (its data type the residual), and the sheets "WaferPWModel_" name
// "[" feature "]" and "FieldPWModel_" name "[" feature "]".
[[nodiscard]] Result<LensResult> RemoveLensAberrations(cLot& lot, const LensSetup& setup,
                                                       Workbook* workbook = nullptr);

}  // namespace zorv
