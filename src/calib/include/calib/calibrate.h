// PSFM focus calibration: a focus matrix lot (fields exposed at known tool
// focus, ValueV the X image shift and ValueH the Y image shift of each site)
// becomes a cTemplate. Site by site and exposure set by exposure set the
// image shift is fitted as a polynomial of focus, and the polynomial is
// turned round by a least squares inverse over the calibrated focus range, so
// that focus becomes a polynomial of image shift.
//
// The workbench's controls come in as a plain record (CalControls); the
// routines never need a window, so the command line runs them too.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "calib/template_library.h"
#include "graphics/chart.h"

namespace zorv {

class cLot;
class Workbook;

// What the calibration tells its form while it runs: the exposure set in
// work as "[ dose , NA , PCi , PCo ]" and each site's best focus as
// site:[ x, y], numbers "####0.000".
struct CalibrateEvents {
    std::function<void(const std::string&)> CurrentExpoGroup;
    std::function<void(const std::string&)> BestFocusCalculated;
};

// One chart per site and exposure set, keyed site_exposureIndex.
using CalGraphs = CalCollection<cGraphic>;

// cTemplate.CalibrateReticle's arguments beside the lot and the template.
struct CalibrateArgs {
    std::string siteChoice = "All";  // "All" or a site number
    float rangeCull = 0;             // the fit's cull range (0: four sigma)
    int fitOrder = 6;                // 1 to 6
    CalGraphs* graphs = nullptr;     // no charts when null
    const CalibrateEvents* events = nullptr;
};
struct CalibrateOut {
    Datam results;      // CalResults
    float sigma = 1;    // the fit's sigma in-out
    long cullsX = 0, cullsY = 0;
    bool escaped = false;
};
// The calibration of `lot` into `tpl` (its sites and best focus sets are
// emptied first). Fails with the "Bad Data: Only one Focus value = " text,
// or where the lot holds nothing to calibrate.
[[nodiscard]] Status CalibrateReticle(cTemplate& tpl, cLot& lot, const CalibrateArgs& args, CalibrateOut& out);

// Utility(EquationInvert): the least squares inverse of a polynomial in
// `variable` over [xLow, xHigh], sampled at `points` places (at least
// order + 4 where fewer than order + 2 were asked). coefficients gets the
// constant first, inverseText the polynomial in `variable`. Equal limits
// answer at once with nothing.
[[nodiscard]] Status EquationInvert(const std::string& equation, const std::string& variable, int order,
                                    int points, double xHigh, double xLow, std::vector<double>& coefficients,
                                    std::string& inverseText);

// The forward equation as the calibration writes it: c0 + c1 * V + c2 * V^2
// ..., then tidied ("V^1" to "V", "+-", "+ -", "+  -" to "-", "^ " to "^").
std::string CalPolynomialText(const std::vector<double>& coefficients, const std::string& variable);
// Those four replacements.
std::string TidyEquation(std::string text);

// The culling and calibration controls of the calibration workbench.
struct CalControls {
    std::string focusMax = "All", focusMin = "All", doseMax = "All", doseMin = "All";
    std::vector<std::string> wafers;  // wafer keys selected; empty: all
    std::vector<std::string> scans;   // scan directions selected ("Up", "Down", ...); empty: all
    std::string na = "All", pci = "All", pco = "All";
    float range = 0;         // txtRange
    double astigCull = 0;    // txtAstigCull
    long siteNumber = 0;     // optSelectLayout 1 with txtSiteNumber; 0: all sites
    int fitOrder = 6;        // cmbFitOrder
};

// What the workbench holds between runs: the points the last astigmatic
// cull took out, given back at the next.
struct CalFormState {
    std::vector<int32_t> astigSerials;
};

// frmCal(UpdateCulls): the controls' culls on the lot; the description
// text grows by what was applied.
struct CalCullResult {
    long astigCulled = 0;
};
[[nodiscard]] Result<CalCullResult> UpdateCalCulls(cLot& lot, const CalControls& controls, CalFormState& state,
                                                   std::string& description);

// frmCal(UpdateReticleCal2Lot): the calibrated lot (a clone whose points
// carry the focus at zero image shift in A and B, the forward intercepts in
// V and H and the residuals of the forward fits) and the best focus lot
// (one field per exposure set).
struct CalLots {
    std::shared_ptr<cLot> calibrated, bestFocus;
};
[[nodiscard]] Result<CalLots> UpdateReticleCal2Lot(cLot& lot, const Datam& results);

// frmCalibrate(CalibratePSFM): culls, calibrates, and builds the two lots.
// With saveSheet the results go to the "Calibration" sheet of the lot's
// workbook.
struct CalibrationRun {
    std::shared_ptr<cTemplate> tpl;
    Datam results;
    std::unique_ptr<CalGraphs> graphs;  // empty without charts
    CalLots lots;
    long culled = 0;       // cullsX + cullsY
    long astigCulled = 0;
    std::string description;
    std::vector<std::string> exposureGroups;  // "[ dose , NA , PCi , PCo ]"
    bool escaped = false;
};
struct CalibrateOptions {
    bool charts = true;
    bool saveSheet = false;
    const CalibrateEvents* events = nullptr;
    Workbook* workbook = nullptr;  // where the "Calibration" sheet goes
};
[[nodiscard]] Result<CalibrationRun> CalibratePSFM(cLot& lot, const CalControls& controls, CalFormState& state,
                                                   const CalibrateOptions& options = {});

// "[ dose , NA , PCi , PCo ]" with each value "####0.000".
std::string ExposureGroupText(double dose, double na, double pcInner, double pcOuter);

// The dose views of the calibrated lot. "kDoseSlope": the slopes of every
// site against dose. "kNonLinearity": the quartiles of the X and Y residuals
// at each dose; its table ("Dose", "X_Nonlinearity", "Y_Nonlinearity") comes
// back.
[[nodiscard]] Status DoseSlopeGraph(cLot& calibrated, cGraphic& chart);
[[nodiscard]] Result<Datam> NonLinearityGraph(cLot& calibrated, cGraphic& chart);

}  // namespace zorv
