// The precision table: the spread of each feature split over the nested
// levels of the lot (lot, wafer, field, site, column, row, family) by sums of
// squares within groups.
#pragma once

#include "base/datam.h"
#include "base/proc.h"
#include "lot/lot.h"

namespace zorv {

// cLot(CalcPrecision): column 0 the row labels, one column per feature that
// holds data, headers in row 0. Rows: "#Points:", "Average", "Range",
// "_Precision_" (a line "_____" in each feature column), then the levels
// "Lot", "Wafer", "InterWafer", "Field", "Field Grid", "Site", "IntraField",
// "InterField", "Column", "InterColumn", "Row", "InterRow", "Family",
// "IntraFamily", those that apply. Values are text in "###0.00#" (the
// "IntraFamily" row "####0.0000"). Esc between levels returns the table as
// it stands. No live points: "No data."
[[nodiscard]] Result<Datam> CalcPrecision(cLot& lot);

}  // namespace zorv
