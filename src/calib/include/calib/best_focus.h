// Best focus and field aberrations: piston, tilt and curvature of focus
// across a field, for the whole field and for each row and column of sites,
// from a calibration's best focus lot or field by field from a converted lot.
// Focus is read in micrometres (ValueV, ValueH, ValueZ / 1000: the vertical
// feature, the horizontal one and their mean); positions in millimetres.
//
// Table units: piston in um, tilts in urad (um/mm x 1000), curvature in
// nm/cm2 (um/mm2 x 10^5).
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

class cField;
class cGraphic;
class cLot;
class cTemplate;
class Workbook;

// The points of a field set: focus and positions, one entry per live point.
struct FieldPoints {
    std::vector<std::string> label;  // field_site
    std::vector<double> dX, dY, dZ;  // um
    std::vector<double> x, y;        // mm, 2 decimals
    std::vector<double> r, angle;    // LocationR / 1000 and LocationTheta / 1000, 2 decimals
    size_t size() const { return dX.size(); }
};

// One fitted model: piston, two slopes, curvature (raw, per mm) with their
// errors, and the residual spreads.
struct FocusModel {
    bool ok = false;
    double piston = 0, pistonSE = 0;
    double tiltX = 0, tiltXSE = 0, tiltY = 0, tiltYSE = 0;  // um/mm
    double curvature = 0, curvatureSE = 0;                  // um/mm2
    double seResiduals = 0;                                 // sqrt(MSE), um
    double sdResiduals = 0, maxResidual = 0;                // of the residuals, um
    std::vector<double> fit, resid;
};

// The whole field of one feature (0 dX, 1 dY, 2 dZ): focus against R cos(a),
// R sin(a) and R^2 with the intercept. The angle is the stored one divided by
// 1000, as it always was.
FocusModel WholeFieldModel(const FieldPoints& pts, int feature);
// Focus against s and s^2 with the intercept (s the position along the line);
// fewer than 3 points fit nothing.
FocusModel LineModel(const std::vector<double>& s, const std::vector<double>& focus);

// Rows (vertical feature dX along x) or columns (horizontal feature dY along
// y): one line per distinct location (rounded to 1 decimal); a site within
// 0.5 mm of a location counts for it. Header row 0: "Row (mm)" or
// "Column(mm)", "Focus (um)", "FocusSE (um)", "Tilt(urad)", "TiltSE(urad)",
// "Curv(nm/cm2)", "CurvSE(nm/cm2", and "SEreisduals(um)" (rows) or
// "SEresiduals(um)" (columns); a line per model, then the rows "MEAN",
// "Maximum", "Minimum", "StdErr" (labels in column 0).
Datam RowModels(const FieldPoints& pts, const std::string& lastHeader = "SEreisduals(um)");
Datam ColumnModels(const FieldPoints& pts, const std::string& lastHeader = "SEresiduals(um)");
// The one-row table of a whole field model ("Focus (um)" .. "SEresiduals(um)").
Datam WholeFieldTable(const FocusModel& m);

// CalculateLensTiltCurvature: the lens tilt and curvature of a best focus
// map, one focus (um) per site at x, y (mm): the row and column models with
// the last header "IFDresidsualsSE(um)". Lines of fewer than 3 sites fit
// nothing and are left out.
struct LensTiltCurvature {
    Datam rows, columns;
};
LensTiltCurvature CalculateLensTiltCurvature(const std::vector<double>& x, const std::vector<double>& y,
                                             const std::vector<double>& focus);

// Live points of the lot's fields that pass `field` (number; 0 all) and the
// exposure set (all four values at 3 decimals) when `exposure` is given.
FieldPoints GatherFieldPoints(const cLot& lot, long field = 0, const double* exposure = nullptr);

// PSFManal(CalcBFTiltCurvature): per exposure set the whole field model of
// dZ and the row and column models; the sheet "BestFocusModel" with save.
struct BestFocusSet {
    double exposure[4] = {};  // Dose, NA, PCinner, PCouter
    FocusModel whole;
    Datam rows, columns;
};
struct BestFocusModels {
    std::vector<BestFocusSet> sets;
    Datam sheet;
};
[[nodiscard]] Result<BestFocusModels> CalcBFTiltCurvature(const cLot& lot, long fieldNumber = 0,
                                                          Workbook* saveTo = nullptr);

// PSFManal(CalTemplateBFupdate): the set's cBestFocus (found or made) takes a
// cCalRow per row model and a cCalColumn per column model.
void CalTemplateBFupdate(cTemplate& t, float na, float pcInner, float pcOuter, float dose, const Datam& rows,
                         const Datam& columns);
// PSFManal(ModelUpdate): every set of a CalcBFTiltCurvature into the template.
void ModelUpdate(cTemplate& t, const BestFocusModels& models);

// PSFManalysis(CalculateFieldTiltCurvature): row and column models per field
// ("FieldAberrations"); (CalculateWholeFieldTiltCurvature): whole field models
// of X, Y and Z per field ("WholeFieldAberrations"); (CalculateASMLscanModel):
// along the slit (x, x^2) and along the scan (y) per field. Each table is
// headed "FieldKey" and saved with its sheet when a workbook is given.
struct FieldAberrations {
    Datam rows, columns;  // every field's lines, "FieldKey" first
    Datam sheet;
};
[[nodiscard]] Result<FieldAberrations> CalculateFieldTiltCurvature(const cLot& lot, long fieldNumber = 0,
                                                                   Workbook* saveTo = nullptr);
struct WholeFieldAberrations {
    Datam x, y, z;  // a row per field
    Datam sheet;
};
[[nodiscard]] Result<WholeFieldAberrations> CalculateWholeFieldTiltCurvature(const cLot& lot, Workbook* saveTo = nullptr);
struct ScanModels {
    Datam slit, scan;  // a row per field
    Datam sheet;
};
[[nodiscard]] Result<ScanModels> CalculateASMLscanModel(const cLot& lot, Workbook* saveTo = nullptr);

}  // namespace zorv

namespace zorv {

// PSFManal(FocusDoseGraph), chart key "kFocus": for one site, each feature's
// response against focus, one cubic per dose (fewer terms where the points
// cannot carry it). The table has a row per feature and dose: "Feature",
// "Dose", "Site", "Best Focus" (the focus of zero response within the
// measured span, empty where the curve does not cross it), "culls", "DoF"
// (the span), "Offset", "Slope", "Cubic", "Residuals" (sqrt of the mean
// square error), "Sigma" (the offset's error), "FocusMax", "FocusMin". With a
// workbook it goes to the sheet "DoseResponse".
[[nodiscard]] Result<Datam> FocusDoseGraph(const cLot& lot, long site, cGraphic& chart, Workbook* saveTo = nullptr);

}  // namespace zorv

namespace zorv {

// frmCal(BestFocusModel): the whole field models of X, Y and mean focus of
// every exposure set of the best focus lot that the four lists select (an
// empty list is "All"), as the tables "RowModel" (X focus), "ColModel" (Y
// focus) and "ZModel" (mean focus), a row "Expo: i" each with "Dose", "NA",
// "PCinner", "PCouter" and the model; the sheet "BestFocusModelData".
struct BestFocusSelection {
    std::vector<double> doses, na, pcInner, pcOuter;
};
struct BestFocusModelData {
    Datam row, column, z;
    Datam sheet;
};
[[nodiscard]] Result<BestFocusModelData> BestFocusModel(const cLot& bestFocus, const std::string& dataSet,
                                                        const BestFocusSelection& selection = {},
                                                        Workbook* saveTo = nullptr);

// frmCalibrate(getBFdata): "selsite", "X_Loc", "Y_Loc", "ValueH", "ValueV",
// "ValueZ" and their fits and residuals, a row per live point; values
// through "#######0.0000000000", positions "#####0.00".
Datam GetBFdata(const cLot& lot);

}  // namespace zorv

namespace zorv {

// Which components of a plane-and-bowl fit (focus = p + a x + b y + k r^2)
// come off which features.
struct FocusComponents {
    bool v = false, h = false;
    bool piston = false, tilt = false, curvature = false;
    bool any() const { return (v || h) && (piston || tilt || curvature); }
};
// Fits the live points of `fields` together (on wafer positions, or on field
// positions) and takes the chosen components off; Z becomes the mean again.
void RemoveComponents(cLot& lot, const std::vector<cField*>& fields, bool onWafer, const FocusComponents& c);
// frmAnalysis(getFocusData): the focus table (MakeFocusData) after the chosen
// wafer components (each wafer's fit) and field components (each field's)
// are removed from the lot's points; the choice as text in *description.
Datam GetFocusData(cLot& lot, const FocusComponents& wafer, const FocusComponents& field,
                   std::string* description = nullptr);

// frmAnalysis(ModelFocusAberrations) on a converted lot: the wafer's tilt and
// bow report ("WaferAberrations"), the wafer components chosen removed from
// the chosen features (piston, tilt, curvature of a plane-and-bowl fit over
// each wafer), then the whole field model of each field for X (slit), Y
// (scan) and mean focus ("Field_RC_Aberrrations").
struct FocusAberrationControls {
    bool waferModel = true;
    int waferTerms = 10;  // Zernike terms of the wafer report, the piston included
    bool removeV = false, removeH = false;
    bool piston = false, tilt = false, curvature = false;
};
struct FocusAberrationReport {
    Datam waferReport;
    Datam xModel, yModel, meanModel;  // "Wafer", "Field", the field terms; "MEAN" last
    std::string description;
};
[[nodiscard]] Result<FocusAberrationReport> ModelFocusAberrations(cLot& lot, const FocusAberrationControls& controls,
                                                                  Workbook* saveTo = nullptr);

}  // namespace zorv
