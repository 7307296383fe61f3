// The chart of the points inside a rectangle selected on a map: their values
// against radius, row or column position, one curve per family, and for the
// radial chart the zone statistics and a polynomial of the radius per family.
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

class cGraphic;
class cLot;
class Workbook;

enum class SubDataKind { Radial, Rows, Columns };

struct SubDataOptions {
    SubDataKind kind = SubDataKind::Radial;
    // The rectangle is in field positions (a field map), else wafer positions.
    bool fieldPositions = false;
    // "" every point; "Mean", "StDev", "Maximum" or "Minimum": one value per
    // position and family.
    std::string statistic;
    // Radial: the zone table and the fit per family, their curves drawn.
    bool radialAnalysis = true;
    // Subtract each family's fitted offset, or its mean, from its values.
    bool removeOffset = false, subtractMean = false;
    // Fit order; 0 takes "RadiusFitOrder" of the settings' "RadialOptions".
    int fitOrder = 0;
    // Zone edges in mm; empty takes the "RadiusZone..." settings, else the
    // quarters of the wafer's radius.
    std::vector<double> zones;
};

struct SubDataResult {
    // The selected rows: "Position" (mm) and a value column per family.
    Datam data;
    // "Feature", "Family", "Radius (mm)", "Average", "StDev", "Points",
    // "Maximum", "Minimum": a row per family and zone (edge = its radius).
    Datam zones;
    // "Feature", "Family", "Offset", "Coef_1".., "MSE", "Residuals(1s)",
    // "Average", "Count": a row per family.
    Datam fit;
    // The fits as shown, in R ("Fit_" family ": " equation).
    std::vector<std::string> equations;
    long points = 0;
};

// Graphics(PlotSubData): gathers the live points of the lot whose sites lie
// in rect (rows 1..4: x1, y1, x2, y2 in micrometres, corners in any order),
// sets the chart up as an XY chart of them (KeyName "RadialPlot" or
// "RowPlot", title, axes, curves) and draws it when the chart has a
// container. No point inside: "No data rows in selection." and "Please
// re-display graphic and select the area again." on two lines.
[[nodiscard]] Status PlotSubData(cGraphic& chart, cLot& lot, const Datam& rect, const SubDataOptions& options,
                                 SubDataResult* result = nullptr);

// The radial tables as the sheets "RadialZones_" name and "RadialFit_" name,
// listed in the workbook's index; the caller saves the workbook.
[[nodiscard]] Status SaveRadialSheets(const SubDataResult& result, Workbook* workbook, const std::string& name);

}  // namespace zorv
