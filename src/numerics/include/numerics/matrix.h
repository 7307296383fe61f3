// The matrix toolkit: free functions on Datam tables. They are tolerant by
// design: empty and text cells are skipped, not rejected, and extents and
// statistics of unusable data give neutral results instead of errors.
//
// Conventions shared by all functions here:
// - Row 0 (where a table has one) is the header row and column 0 the row key;
//   data rows and columns start at 1 (or at the lower bound when it is above 1).
//   Element-wise arithmetic carries the header row and key column unchanged.
// - A cell is blank when its text length is 0 (IsBlank). Numeric means
//   IsNumericValue; NumericOf reads such a cell (text after removing "%").
// - A vector is an n by 1 table used as column 1 (VecCol gives the column).
// - Nothing in numerics shows a box or writes the status line. A routine that
//   can fail, warn or show progress takes a last argument `Notes* notes =
//   nullptr` (numerics/notes.h): on failure it returns its neutral value (an
//   empty, non-array Datam, -1, 0 or a result struct marked as failed) and
//   puts the composed Failure (tag, text, " chk: ", checkpoint) in
//   notes->failure; warnings it goes on after are added to notes->warnings.
//   Routines it calls get the same Notes. The caller shows what it wants.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/marks.h"
#include "base/value.h"
#include "numerics/notes.h"

namespace zorv {

// Marks used with the statistics.
inline constexpr double kNoSEM = -999;           // vec_SEM below 3 values
// An argument not given (the original's missing optional argument).
inline constexpr int kMissing = std::numeric_limits<int>::min();

// ---- cell tests -------------------------------------------------------------
bool IsBlank(const Value& v);  // text length 0
// Value of a cell that passes IsNumericValue ("12%" reads as 12). False otherwise.
bool NumericOf(const Value& v, double& out);
// Column used as "the" column of a vector: 1 when present, else the lower bound.
int VecCol(const Datam& v);
// First data row/column of a dimension: max(lower bound, 1).
int FirstData(const Datam& m, int dim);

// ---- extents ----------------------------------------------------------------
// Last row with a non-blank cell; see the notes in matrix.cpp. A one-dimensional
// array is walked as such. -1 for a column beyond mat_LastCol or a non-array.
int mat_LastRow(const Datam& m, int col = -1);
// Last column with a non-blank, non-error cell in `row` (default: the lower
// bound of the second dimension, as the original has it); with `asIs` or a
// single column, the upper bound. 0 when the walk finds nothing.
int mat_LastCol(const Datam& m, bool asIs = false, int row = kMissing);
// Largest / smallest numeric entry as a double; the first entry seeds the result.
double mv_Max(std::initializer_list<Value> list);
double mv_Min(std::initializer_list<Value> list);
double mv_Max(const std::vector<Value>& list);
double mv_Min(const std::vector<Value>& list);
// Largest / smallest numeric value of a vector, seeded with -3.402e38 / 3.402e38.
double vec_Max(const Datam& v);
double vec_Min(const Datam& v);
// Rows 1..dims, columns 1 (lower bound) and 2 (upper bound). Empty for a non-array.
Datam mat_Bounds(const Datam& m);

// ---- building and copying -----------------------------------------------------
Datam vec_Fill(int count, const Value& value);  // rows 0..count, column 1
Datam mat_copy(const Datam& m);
// Resizes keeping the overlap; a row lower bound of 0 is kept, else rows from 1.
void mat_redim(Datam& m, int rows, int cols);
// Column `index` (or with byRow, row `index`) as a vector over the same bounds.
Datam mat_vector(const Datam& m, bool byRow, int index);
// Sub-table; kMissing or a negative `to` means "to the end". rowKeyCol < 0
// searches upward from fromRow for a header row; rowKeyCol >= 0 copies that
// column into column 0 of the result (when the result has a column 0).
Datam mat_partition(const Datam& m, int fromRow = kMissing, int fromCol = kMissing,
                    int toRow = kMissing, int toCol = kMissing, int rowKeyCol = -1,
                    Notes* notes = nullptr);
// mode "ADDROWS", "ADDCOLUMNS" or "VECTOR" (case-blind).
Datam mat_append(const Datam& a, const Datam& b, std::string_view mode = "ADDROWS");
// Without the listed rows (byRow) or columns; `list` is a vector of indexes.
Datam mat_delrc(const Datam& m, const Datam& list, bool byRow = true, Notes* notes = nullptr);
Datam mat_delrc(const Datam& m, int index, bool byRow = true, Notes* notes = nullptr);
// Without empty and null cells; all empty gives a non-array Datam.
Datam vec_DropEmpty(const Datam& v);
// False (a run-time failure) for a row outside the table.
bool mat_SwapRows(Datam& m, int a, int b, Notes* notes = nullptr);

// ---- arithmetic (empty cells skipped and kept empty) --------------------------
// An operand that is a table, a number, or not given.
class MatOperand {
public:
    MatOperand() = default;
    MatOperand(const Datam& m) : m_(&m), kind_(Table) {}
    MatOperand(double d) : d_(d), kind_(Scalar) {}
    MatOperand(int i) : d_(i), kind_(Scalar) {}
    bool missing() const { return kind_ == Missing; }
    bool isTable() const { return kind_ == Table; }
    const Datam& table() const { return *m_; }
    double scalar() const { return d_; }

private:
    const Datam* m_ = nullptr;
    double d_ = 0;
    enum Kind { Missing, Table, Scalar } kind_ = Missing;
};

struct RegionTouched {
    int minRow = 0, minCol = 0, maxRow = 0, maxCol = 0;
};

Datam mat_scale(const Datam& m, double s);
// a with the cells of the region multiplied by b's; a cell empty in either
// stays as it was. Region defaults to the whole data part of a.
Datam mat_mulRegion(const Datam& a, const Datam& b, RegionTouched* touched = nullptr,
                    int fromRow = kMissing, int fromCol = kMissing, int toRow = kMissing,
                    int toCol = kMissing);
Datam mat_sum(std::initializer_list<MatOperand> terms);
// Vectors of unequal length are cut to the shorter, with a status-line warning.
Datam vec_sub(const Datam& a, const MatOperand& b = MatOperand(), Notes* notes = nullptr);
Datam vec_abs(const Datam& v);
Datam vec_pow(const Datam& v, double power);
Datam vec_mul(const Datam& a, const MatOperand& b);
Datam vec_sqrt(const Datam& v);
Datam vec_recip(const Datam& v);
Datam vec_div(const Datam& a, const MatOperand& b);
// Each data column (or row, byRow) times the matching entry of `factors`.
Datam mat_scaleCols(const Datam& m, const Datam& factors, bool byRow = false);
// Subtracts each column's "MEAN" from its numeric non-blank cells between the
// columns; `means` gets a vector indexed by column.
Datam mat_center(const Datam& m, int fromCol = kMissing, int toCol = kMissing,
                 Datam* means = nullptr);
double vec_center(Datam& v);
Datam mat_vecProduct(const Datam& m, const Datam& v);
Datam mat_diag(const Datam& m);
double vec_SS(const Datam& v, bool aboutMean = false);
double vec_Mean(const Datam& v);
double vec_StDev(const Datam& v, int* n = nullptr);
double vec_SEM(const Datam& v);
double vec_Sum(const Datam& v);
double svd_Sign(double a, double b);
double ArcSin(double x);
double ArcCos(double x);
// In place: each numeric cell of the columns becomes (x - MEAN) / STDERR of its column.
void mat_StdErrCols(Datam& m, int fromCol = kMissing, int toCol = kMissing);

// ---- sorts ------------------------------------------------------------------
// The order of sort keys: empty (and null, arrays) first, then numbers (and
// dates, Booleans), then text in binary (byte) order, then error values; a
// descending sort reverses it, equal keys keeping their order either way.
// Numeric keys (IsNumericValue, "12%" as 12) are the 32-bit float of the
// value at the seven significant digits a float carries, so 1.0000001 and
// 1.0000002 are one key; dates compare by their serial value. Returns <0, 0, >0.
int CompareKeys(const Value& a, const Value& b);

// Stable sort of the data rows (from 1; row 0 stays) on one column: the
// result of the system's exchange sort, in O(n log n). `header` gets row 0 as
// a vector indexed by column; `unique` gets the table of unique keys: columns
// value (the first of its run), "Count", "SortOrder" (last sorted row of the
// value), header in row 0; numbers are one value when equal at 6 decimals as
// 32-bit floats. Esc stops the sort with the rows seen so far sorted.
// Failure gives a non-array Datam.
Datam mat_sortCol(const Datam& m, int col, bool descending = false, Datam* header = nullptr,
                  Datam* unique = nullptr, Notes* notes = nullptr);
// The permutation mat_sortCol applies: sorted data row k comes from source row
// order[k - first data row]. Empty when there are no data rows.
std::vector<int> mat_sortOrder(const Datam& m, int col, bool descending = false,
                               Notes* notes = nullptr);

// Several keys: `keys` is a vector of column numbers, with an optional
// descending flag in its column 2; non-numeric entries are skipped.
// hierarchical: groups of the first key (equal at 6 decimals) sorted on the
// rest; otherwise runs of equal keys sorted on the next key.
Datam mat_sort(const Datam& m, const Datam& keys, Datam* unique = nullptr, bool hierarchical = true,
               Notes* notes = nullptr);
Datam mat_sort(const Datam& m, int keyCol, bool descending = false, Datam* unique = nullptr,
               Notes* notes = nullptr);
// The worksheet sort. Without a spreadsheet host it gives mat_sortCol's result
// (mat_sort's for several keys) and keeps its failure messages.
Datam mat_SheetSort(const Datam& m, const Datam& keys, Datam* unique = nullptr,
                    Notes* notes = nullptr);
Datam mat_SheetSort(const Datam& m, int keyCol, bool descending = false, Datam* unique = nullptr,
                    Notes* notes = nullptr);
// A vector without rows gives a non-array Datam and the untagged warning
// "Vec_sort: no rows in vector" (a box).
Datam vec_sort(const Datam& v, bool descending = false, Notes* notes = nullptr);

// ---- statistics -------------------------------------------------------------
// The running sums mat_rcstat keeps of one column, and what it derives from
// them; for routines that walk their own data but must report the toolkit's
// numbers.
struct RcMoments {
    long long n = 0;
    double sum = 0, ss = 0, mn = 0, mx = 0;
    void add(double x) {
        if (n == 0) mn = mx = x;
        mn = x < mn ? x : mn;
        mx = x > mx ? x : mx;
        sum += x;
        ss += x * x;
        ++n;
    }
};
struct RcStats {
    // var: (n sum(x^2) - (sum x)^2) / (n (n - 1)) rounded to 10 decimals (0
    // below 2 values); one value is its own maximum and minimum, range 0.
    double n = 0, mean = 0, var = 0, sd = 0, sem = 0, mx = 0, mn = 0, range = 0, rmss = 0, ss = 0, sum = 0;
    double minmax() const { return (mn < 0 ? -mn : mn) > (mx < 0 ? -mx : mx) ? mn : mx; }
};
RcStats RcFinish(const RcMoments& m);

// Statistic `name` of each data column (byCol) or row; index -1 for all, giving
// a vector indexed by column (row); a single index gives a one-entry vector.
// `summary` (made when not an array) gets the labels "Count" .. "RMSS" in column 0
// and one column per entry, headed from the source's header row. `range`, when
// it holds two numbers in its first data row, limits the walk along each
// column (row) to those rows (columns). `hasData` tells whether any cell counted;
// when none did, the status-line warning "No data in input matrix.".
Datam mat_rcstat(const Datam& m, std::string_view name, bool byCol = true, int index = -1,
                 Datam* summary = nullptr, const Datam* range = nullptr, bool* hasData = nullptr,
                 Notes* notes = nullptr);
// mat_rcstat of one column as a number (0 when empty).
double mat_rcstat1(const Datam& m, std::string_view name, int col, Notes* notes = nullptr);

// ---- search and unique values -------------------------------------------------
// Highest column whose cell in `row` matches the name (upper-cased; numbers at
// "0.000000" as 32-bit floats). Not found: 0 or below.
int FindColumn(const Datam& m, const Value& name, int row = kMissing, int start = kMissing);
// The same down a column: highest matching row; not found 0 or below.
int RowNumber(const Datam& m, const Value& key, int col = kMissing, int start = kMissing);
// Unique values of a column in sorted order: rows 1..k, column 1 the value,
// column 2 its count; row 0 holds the header and "Count". `header` gets the
// column's header. Non-array Datam on failure.
Datam GetUniqueValues(const Datam& m, int col, Value* header = nullptr, bool sorted = false,
                      Notes* notes = nullptr);
// Row (byCol) or column of the cell nearest to `value`; 0 when none is nearer
// than the starting bound, -1 on failure.
int mv_FindNearest(double value, const Datam& m, int col, bool byCol = true,
                   Notes* notes = nullptr);

}  // namespace zorv
