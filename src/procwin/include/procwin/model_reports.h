// The summary sheets of the wafer and field model fits and their charts: the
// wafer report, the field report with its exposure and family blocks, the
// family response charts and the three ways of drawing a family table.
//
// The reports start from the tables the lot fit hands back (LotFitResult's
// waferReport and fieldReport: a header row holding "Feature" and "Family",
// the fits one row each, then the "  Model" " Summary" blocks). What those
// tables do not hold (the systematic and residual values point by point, the
// culled points) is read from the lot the fit left them in.
//
// Report layout: column 0 holds the labels, every block starts with its
// title row and a header row and ends with a row of "________".
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

class cGraphic;
class cLot;
class Workbook;

// What the head of a report says, and where it goes.
struct ModelReportSetup {
    std::string feature;         // empty: the first "Feature" of the table
    std::string lotName, path;
    std::string unit;            // the feature's unit text, for the charts
    double date = 0;             // date serial; 0: now
    // The data culls: their settings (0: off) and the points each removed.
    float range = 0, sigma = 0;
    long rangeCulled = 0, sigmaCulled = 0;
    Workbook* workbook = nullptr;  // where the sheet goes; none: not saved
};

// The lot's name, path (folder and file) and the unit of its plot feature;
// the feature itself is left to the table.
ModelReportSetup ReportSetupFor(const cLot& lot);

// The sheets the reports are saved to.
std::string WaferReportSheet(const std::string& feature);  // "WaferReport_" feature
std::string FieldReportSheet(const std::string& feature);  // "FieldResponse_" feature

// PWcommon(CreateWaferReport): from the wafer report of the lot fit. Head,
// then " Summary of Modeled Offset and Residuals" (per model: "Feature",
// "Family" (its name, "All Features" for family 0), the "MEAN" row's terms,
// the "RMSS" row's errors and "MSE"), "Systematic Across-Wafer Variance"
// (per model: the statistics of the modelled value less the wafer's constant
// term over the family's live points: "Count", "Mean", "StDev", "Maximum",
// "Minimum", "Range", "MinMax" (the one of the two of larger size),
// "Mean+3Sigma") and "Culled Data Statistics" (the culled points of live
// sites by feature and family: "Count", "Mean", "StDev", "Maximum",
// "Minimum"). Saved as WaferReportSheet when setup.workbook is given.
[[nodiscard]] Result<Datam> CreateWaferReport(const cLot& lot, const Datam& table, const ModelReportSetup& setup);

// PWcommon(CreateFieldReport): from the field report of the lot fit (cell
// (0,0) "Model" or "FullField"). Status "Creating Field-Model Summary
// Report". Head; "Exposure Range" ("Focus Max:", "Focus Steps:" (distinct
// values), "Focus Min:", "Dose Max:", "Dose Steps:", "Dose Min:"); "Summary
// by Exposure: Modeled Offset and Residuals": "Feature", "Family", "Focus",
// "Dose", "Fields", then the "Model" row's columns (means of the terms, RMSS
// of "_SE" and "MSE"), the first term headed "Piston" where no term has that
// name; then the family
// blocks of FamilyReport (with the lot, its residual block too). Saved as
// FieldReportSheet when setup.workbook is given.
[[nodiscard]] Result<Datam> CreateFieldReport(const Datam& table, const ModelReportSetup& setup,
                                              const cLot* lot = nullptr);

// The family blocks' titles.
inline constexpr const char* kFamilyOffsetTitle = "Family Summary: Modeled Offset and Residuals";
inline constexpr const char* kFamilyVarianceTitle = "Family Summary: Systematic Across-Field Variance";
inline constexpr const char* kFamilyResidualTitle = "Family Summary: Systematic and Residual Field Response";

// PWcommon(FamilyReport): the field report's rows by feature and family; the
// piston is the term of that name, else the first term.
// kFamilyOffsetTitle: "Family", "Feature", "Fields", "Piston", "SE", each
// other term and its "_SE", "MSE_Fit" (RMSS of the fits' MSE) and
// "StDev_Fit" (its root). kFamilyVarianceTitle: "Family", "Feature", "Term",
// "Mean", "RMSS", "Mean+3Sigma" of each term across the fields. With a lot,
// kFamilyResidualTitle over the family's live points: "Family", "Feature",
// "Count", "Mean", "SEM" (of the modelled values), "System StDev", "System
// Range" (of the modelled values less their field's mean), "Residual StDev",
// "Residual Range". No header row: "Could not find first 'Family' row.".
[[nodiscard]] Result<Datam> FamilyReport(const Datam& table, const cLot* lot = nullptr);

// Charts are set up with their data, series, axes and title; drawing needs a
// surface (cGraphic::Container, then PlotChart).
struct ChartSetup {
    std::string name;     // the title's start: the lot or analysis
    std::string feature;  // empty: the first the table holds
    std::string unit;
};

// PWcommon(CreateFieldReportGraphs): one chart per feature of a field
// report: the exposures' mean piston (error bars the RMSS of its SE) against
// focus, a series per dose ("Dose: " value), or with seriesByDose off against
// dose, a series per focus ("Focus: " value). selection: "All Dose" (or any
// text that is no number) draws every series, a number only that one.
// Title: name " - Modeled Field Piston, Feature:" feature " & Spreadsheet:
// (" FieldReportSheet ")".
struct FieldGraphSetup {
    std::string name;
    bool seriesByDose = true;
    std::string selection = "All Dose";
};
[[nodiscard]] Result<std::vector<std::shared_ptr<cGraphic>>> CreateFieldReportGraphs(const Datam& table,
                                                                                     const FieldGraphSetup& setup);

// PWcommon(GraphFamilyPlot): the three family charts of a field report (the
// kFamilyOffsetTitle and kFamilyResidualTitle blocks), x the family:
// name " - Family Piston Response" (series "Piston" with "StDev" error bars,
// "Mean" with "SEM"), name " - Family Range Response" ("System Range",
// "Residual Range"), name " - Family 'StDev' Response" ("System StDev",
// "Residual StDev"). No family rows: "No data for graph generation."; no
// residual block or one without its end row: "Could not find end row of
// residual report".
struct FamilyCharts {
    std::shared_ptr<cGraphic> piston, range, stdev;
};
[[nodiscard]] Result<FamilyCharts> GraphFamilyPlot(const Datam& report, const ChartSetup& setup);

// A table with a header row holding "Family", "Focus" and "Dose" drawn three
// ways, one series per distinct value (in rising order, the chart's colours):
// GraphFamily_DoseVfocus: a series per family, dose against focus.
// GraphDose_FamilyVfocus: a series per dose, family against focus.
// GraphFocus_FamilyVdose: a series per focus, family against dose.
// A family that is no number stands at its place in the sorted list.
[[nodiscard]] Result<std::shared_ptr<cGraphic>> GraphFamily_DoseVfocus(const Datam& table, const ChartSetup& setup);
[[nodiscard]] Result<std::shared_ptr<cGraphic>> GraphDose_FamilyVfocus(const Datam& table, const ChartSetup& setup);
[[nodiscard]] Result<std::shared_ptr<cGraphic>> GraphFocus_FamilyVdose(const Datam& table, const ChartSetup& setup);

}  // namespace zorv
