// "Data Distribution and Cull Analysis": per family the distribution of a
// feature and how many points each range or sigma limit would cull, without
// culling anything. The tables feed the range-cull and sigma-cull graphs.
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/chart.h"
#include "lot/lot.h"

namespace zorv {

// The limits the dialog's controls hold.
struct SigmaTestSetup {
    int feature = ePlotFeatureLot;  // -99: the lot's PlotFeature
    // Range limits (display units) and sigma limits; empty: a default series
    // (ten steps up to the largest |delta|, and 1..6 sigma).
    std::vector<double> rangeLimits, sigmaLimits;
};

struct SigmaTestResult {
    std::string title;      // " Data Distribution Analysis - <feature> (<unit>)"
    std::string heading;    // "<feature> Data Distribution and Cull Analysis"
    std::string lot, feature, unit;
    // Header row 0: "Family", "DeltaAbs", "SigmaDelta", "Points", "Mean",
    // "StDev", "Range", "Median", "Cull%", "Delta", "Culls"; one row per family
    // and limit step: the family, the range limit, the sigma limit, the
    // family's points, mean, stdev, range, median (display units), the share
    // culled at that step ("#0.00%"), the step's delta and its cull count.
    Datam distribution;
    // Header row 0: "Enum", "Name", "Count", "Median".
    Datam families;
    // The two graphs' series: "DeltaAbs" (rows: limit, points in range) and
    // "SigmaDelta" (rows: sigma, points within).
    Datam rangeSeries, sigmaSeries;
};
// cmdSigmaTest on a clone of the lot (existing culls removed first, the lot
// given stays as it is).
[[nodiscard]] Result<SigmaTestResult> SigmaTest(cLot& lot, const SigmaTestSetup& setup);

// The two graphs of the analysis, set up on their charts (drawn with
// PlotChart): "Range Cull", "Absolute Delta from Median (Range Cull)", x
// "AbsDelta from median (<unit>)", y "Points in Range"; and the sigma cull's
// over "SigmaDelta".
[[nodiscard]] Status SigmaTestGraphs(const SigmaTestResult& result, cGraphic& rangeGraph, cGraphic& sigmaGraph);

}  // namespace zorv
