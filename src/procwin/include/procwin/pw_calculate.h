// The process window pipeline: one entry point (PWcalculate) that selects the
// points of a lot by site, focus and dose and runs one of the five analyses
// named by the setup's key ("kDose", "kFocus", "kDoseBF", "kPW",
// "kIsoFocal"). Each analysis fills the chart in PWState, a report table and
// the result tables below; with a workbook in the setup the result sheets and
// the report sheet are written there (the caller saves the file).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "procwin/pw_setup.h"

namespace zorv {

class cGraphic;
class cLot;

// The isofocal dose of one feature and site: where the F^2 term of the
// surface vanishes, and the surface there at F = 0.
struct PWIsoFocal {
    std::string feature;
    long site = 0;
    double dose = 0;
    double value = 0;  // the feature at (dose, F = 0); kPW leaves it 0
};

// Best focus and dose of one feature and site. kDose: the maximum dose
// latitude over the focus groups; kFocus: the dose row of the largest DoF.
struct PWSiteBest {
    std::string feature;
    long site = 0;
    double x = 0, y = 0;  // the site in the field, mm
    double bestDose = 0, bestFocus = 0;
    double latitude = 0, pctLatitude = 0;    // kDose
    double dof = 0, featureAtBestFocus = 0;  // kFocus
};

// One isoline of the window chart, with the scan ranges it was found in.
struct PWIsolineInfo {
    std::string feature;
    long site = 0;
    std::string limit;  // "UCL", "TCL", "LCL"
    double value = 0;
    int rows = 0;
    int tries = 0;  // widenings it took
    double doseLow = 0, doseHigh = 0, focusLow = 0, focusHigh = 0;
    std::string equation;  // dose of focus X
};

// A note placed at a point of the chart (data coordinates). The chart engine
// places notes by pixel only, so they travel here and in the series labels.
struct PWAnnotation {
    std::string text;
    double x = 0, y = 0;
};

// BestFocusCreate: the best focus of kFocus summarised across field sites.
struct PWBestFocus {
    // "Feature", "TargetSize", "BestFocus", "BestDose", "Mean", "DoF",
    // "Mean(IFD)", "BestFocus(IFD)", "DoF(IFD)"; a row per feature from 1.
    Datam summary;
    // "Wafer", "Test", "Diex", "Diey", "Size at BF", then "<feature>_Focus"
    // and "<feature>_DoF" per feature; a row per site, then "Mean:", "Max:",
    // "Min:", "IFD:".
    Datam sites;
    // "Feature", "Dose", "Mean", "IFD", "BestFocus(BF)", "BFifd", "DoF",
    // "DoF(ifd)": per feature and dose, across the sites.
    Datam detail;
};

// What PWcalculate found, for a caller that prints it rather than reading
// sheets. Tables are 1-based (row 1 the first header row) as they go to
// their sheets.
struct PWReport {
    std::string key;
    Datam report;                         // the report sheet's table: rows from 1, columns 1..21
    std::string reportSheet;              // its sheet name ("" for kIsoFocal)
    std::vector<std::string> titleLines;  // the chart's title, line by line
    std::vector<PWAnnotation> annotations;
    std::vector<std::string> sheets;  // sheets written to setup.workbook
    std::vector<std::string> status;  // the status texts of the run, in order

    // The run's selection and scan ranges (widened ones included).
    long points = 0;
    long removed = 0;  // points the setup's data cull removed
    bool escaped = false;  // Esc cut the run short: what it holds is partial
    int focusCount = 0, doseCount = 0;
    double doseLow = 0, doseHigh = 0, doseStep = 0, focusLow = 0, focusHigh = 0, focusStep = 0;
    Datam working;  // "Serial", "Site", "Focus", "Dose", a column per variable; sorted by site

    std::vector<PWIsoFocal> isoFocal;
    std::vector<PWSiteBest> best;

    // kDose: "DoseResponse" (two header rows), the "Feature Summary" block
    // ("Feature", "BestDose", "DoseRange", "BestFocus", "FocusRange",
    // "Dose_%Latitude"; a row per feature, then "Summary"), "DoseUniformity".
    Datam doseResponse, featureSummary, doseUniformity;
    // kFocus: "FocusResponse" (two header rows), the best focus summary,
    // "RawFocus"; addDoseBFTab: more than one dose, so the dose at best
    // focus can be shown.
    Datam focusResponse;
    PWBestFocus bestFocus;
    Datam rawFocus;
    bool addDoseBFTab = false;
    // kDoseBF: "Summary:" (one row) and "Summary by Feature".
    Datam doseBFSummary, doseBFByFeature;
    // kPW: the isolines, the keys of the painted grids, the window found.
    std::vector<PWIsolineInfo> isolines;
    std::vector<std::string> surfaceKeys;
    bool haveWindow = false;
    double rectFocus = 0, rectDose = 0, rectDoF = 0, rectExpoLat = 0, rectExpoLatPct = 0;
    double ellipseFocus = 0, ellipseDose = 0, ellipseDoF = 0, ellipseExpoLat = 0,
           ellipseExpoLatPct = 0;
    Datam processWindowSpace, rectangles, scan, windowSeries;
    std::shared_ptr<cGraphic> expoLatChart;  // DoF against exposure latitude
    // kIsoFocal: the working rows with "Aberrated", "Dose", "FittedFocus".
    Datam isoFocalTable;
};

// PWcommon(PWcalculate): runs the analysis of setup.key on a clone of `lot`.
// focusValues and doseValues are the tables of GetUniqueExposures (column 1
// "Focus" / "Dose"); they seed the scan steps the setup leaves at 0 and may
// be left empty. With updateCulls the setup's focus, dose, site and data
// selections are applied through UpdatePWLotCulls and UpdatePWsites2Lot;
// otherwise the lot's culls stand. The chart goes to state.chart, complete
// but without a container. Returns the lot the analysis used (its culls
// reset); on failure the tag, checkpoint and the collected messages, with
// *report and the sheets written so far kept.
[[nodiscard]] Result<std::shared_ptr<cLot>> PWcalculate(const PWSetup& setup, cLot& lot,
                                                        const Datam& focusValues,
                                                        const Datam& doseValues, PWState& state,
                                                        bool updateCulls,
                                                        PWReport* report = nullptr);

// CreateDoseUniformity: adds the best dose, best focus, dose latitude and
// %latitude of each site of `best` to `table` ("Wafer", "Test", "DieX",
// "DieY", then "BestDose_<feature>", "BestFocus_<feature>",
// "DoseLatitude_<feature>", "Dose%Latitude_<feature>"), one row per site,
// appending sites and feature columns not yet there. A table that is not an
// array is started.
void CreateDoseUniformity(Datam& table, const std::vector<PWSiteBest>& best,
                          const std::string& wafer);

// BestFocusCreate: the FocusResponse table (two header rows) summarised
// across sites; `best` gives the sites' places. Fails without a "Site"
// column or with fewer than two rows.
[[nodiscard]] Result<PWBestFocus> BestFocusCreate(const Datam& focusResponse,
                                                  const std::vector<PWSiteBest>& best,
                                                  const std::string& wafer);

// UpdateLotModel: selects the setup's (first) feature on the lot and answers
// what a model is then applied to: "PlotFeature", "Name" (header row 0), the
// feature's number and name, then "Wafer" and "Field" with their term
// strings.
Datam UpdateLotModel(cLot& lot, const PWSetup& setup);

// UpdatePWsites2Lot: unless the site list text holds "ALL", culls every live
// site whose number is not in it (numbers split on ":" and ","). Answers how
// many sites were culled.
long UpdatePWsites2Lot(cLot& lot, const PWSetup& setup);

// PWgetBestFocusDose: a rectangle row of a ProcessWindowSpace table: with a
// dose above -1 the row of the nearest "Dose", otherwise the first row of
// the largest "Area". False when the table has no such row.
struct PWBestRow {
    int row = 0;
    double focus = 0, dose = 0, area = 0, dof = 0, expoLat = 0;
};
bool PWgetBestFocusDose(const Datam& processWindowSpace, double dose, PWBestRow& out);

// getModeledData: the lot as the analyses see it, the switched wafer and
// field models removed (RemoveLensAberrations) when the setup asks for it,
// and its table with exposure and "Serial" columns.
struct PWModeled {
    std::shared_ptr<cLot> lot;
    Datam table;
};
[[nodiscard]] Result<PWModeled> getModeledData(const PWSetup& setup, cLot& lot);

}  // namespace zorv
