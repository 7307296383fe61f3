// Summaries of a lot and of a table: the summary column, the raw, feature
// and IFD statistics of a lot, the covariance of its features and the point
// vector magnitudes. The precision table is in stats/precision.h.
//
// Failures come back as values with the routine's tag; status texts go to
// the status line. Nothing here shows a box.
#pragma once

#include <string>
#include <string_view>

#include "base/datam.h"
#include "base/proc.h"
#include "lot/lot.h"

namespace zorv {

// Util(CalcStatistics): the summary table of the data columns of `table`
// (data rows from 1): row 0 holds `title` in column 0 and the column headers
// copied from `headerRow` of the table; column 0 the labels "Count", "Mean",
// "Median", "SEM", "StDev", "Maximum", "Minimum", "Range", "Mean+3Sigma".
// column > -1 gives that column alone (result column 1), -1 all data columns
// (result column c for table column c). Numbers go through `format`
// (Format()); "Count" is a whole number; "Mean+3Sigma" is Mean + |3 StDev|.
[[nodiscard]] Result<Datam> CalcStatistics(const Datam& table, int column = -1,
                                           std::string_view format = "###0.00#",
                                           std::string_view title = {}, int headerRow = 0);

// cLot(CalcRawStats): fills *table (resized as needed) with the raw statistics
// of the lot's live points, for the lot's plot data type. nullptr fails with
// "A table of data for analysis must be given."; no live points with "Zero
// (0) rows available for analysis. Please check selections."; no feature
// value with "No data." Layout: see lot_stats.cpp.
[[nodiscard]] Status CalcRawStats(cLot& lot, Datam* table);
// Clot(CalcFeatureStats): the feature statistics table of the lot.
[[nodiscard]] Status CalcFeatureStats(cLot& lot, Datam* table);
// cLot(CalcIFDstats): the intra-field difference table of the lot.
[[nodiscard]] Status CalcIFDstats(cLot& lot, Datam* table);

// cLot(CoVariance): the feature-by-feature covariance (sample, n - 1) of the
// lot's feature columns (those between "Yloc" and "Family" of the lot matrix
// that hold data): rows and columns 1..k, headers in row 0 and column 0.
// Fewer than two points: "Not enough data points."
[[nodiscard]] Result<Datam> CoVariance(cLot& lot);

// Each point's Z becomes sqrt(V^2 + H^2) of its raw vector (missing where V
// or H is missing); valueZ_Name and the lot's PlotFeatureName "Magnitude".
void CalcPointVectors(cLot& lot);

}  // namespace zorv
