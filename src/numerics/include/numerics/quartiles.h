// Quartiles by the median-of-halves rule, of raw values or of (value,
// frequency) pairs. Numbers, not drawing: the chart engine's histograms and
// box plots and the culling both use them.
#pragma once

#include "base/datam.h"
#include "numerics/notes.h"

namespace zorv {

struct Quartiles {
    // Rows 0..7, columns 0..2: row 0 the headers "" / "Value" / "Percentage";
    // column 0 the labels "Count", "Q0", "Q1", "Median", "Q3", "Q4", "IQR".
    // Column 1 the values (read as 32-bit floats); column 2 the 1-based row
    // positions, in the sorted values, of Q0, Q1, the median, Q3 and Q4 (a
    // position ending in .5 is the mean of two rows), and n on "Count".
    // Not an array with fewer than 2 values.
    Datam table;
    // Rows 0..11, columns 0..2: row 0 "Percentile" / "Value" / "Row"; rows
    // 1..10 the deciles 10% .. 100% (nearest rank), row 11 "Mean".
    Datam second;
    double lowerFence = 0, upperFence = 0;  // Q1 - 1.5 IQR, Q3 + 1.5 IQR

    bool ok() const { return table.isArray(); }
    double count() const { return value(1); }
    double q0() const { return value(2); }
    double q1() const { return value(3); }
    double median() const { return value(4); }
    double q3() const { return value(5); }
    double q4() const { return value(6); }
    double iqr() const { return value(7); }

private:
    double value(int row) const { return ok() ? table(row, 1).toDouble() : 0.0; }
};

// cGraphic(GetQuartiles): quartiles of the numeric cells of one column of a
// table whose data rows start at 1 (row 0 the header when present). A column
// beyond the table's last fails with "Data array contains only '" n "'
// columns of data and column: " c " was specified for use."
Quartiles GetQuartiles(const Datam& table, int col, Notes* notes = nullptr);

// The same on (value, frequency) pairs: valueCol holds the values, freqCol
// how many times each occurs (rounded to whole counts; 0 or less skips the
// row). Positions are those of the expanded, sorted list.
Quartiles GetQuartilesFreq(const Datam& table, int valueCol, int freqCol, Notes* notes = nullptr);

}  // namespace zorv
