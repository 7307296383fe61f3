// The exposure layout programs: which exposure value varies across a wafer,
// from which start field, along which path and by which step, and the field
// values that follow (LayoutPgms(CalculateLayout)).
//
// Directions on the wafer grid: DieX grows to the right, DieY grows upward,
// as the wafer maps draw it (the row with the highest DieY is at the top).
// "Right" walks to higher DieX, "Left" to lower, "Up" to higher DieY and
// "Down" to lower DieY, toward the lower rows of the drawn map.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

class cLot;
class cWafer;
class Workbook;

// One meander kind: the corner of the start and the first and second scan
// directions.
struct MeanderKind {
    const char* kind;
    const char* scan1;
    const char* scan2;
};
inline constexpr std::array<MeanderKind, 8> kMeanderKinds{{
    {"ULRight", "Right", "Down"},
    {"LLRight", "Right", "Up"},
    {"LLUp", "Up", "Right"},
    {"LRUp", "Up", "Left"},
    {"LRLeft", "Left", "Up"},
    {"URLeft", "Left", "Down"},
    {"URDown", "Down", "Left"},
    {"ULDown", "Down", "Right"},
}};

// The row of the kinds table a control index selects. The index is a combo
// box index, counted from 0: 0..7 select rows 1..8 ("ULRight" .. "ULDown").
// Any other index (negative, 8 or beyond) selects row 5, "LRLeft", so that a
// bad setting still gives a definite path. Rows are counted from 1.
int MeanderRow(int controlIndex);
const MeanderKind& MeanderOf(int controlIndex);
// The control index of a kind by name (case-insensitive); -1 when unknown.
int MeanderControlIndex(std::string_view kind);

// The programs of the meander box.
inline constexpr std::array<const char*, 4> kMeanderPrograms{{"Constant", "Serpentine", "SingleScan", "MultiScan"}};
bool IsMeanderProgram(std::string_view program);

// The field table (FP data): rows from 0 (row 0 the header), columns 1..10.
inline constexpr std::array<const char*, 10> kFPdataHeads{
    {"Wafer", "Field", "Diex", "Diey", "Focus", "Dose", "NA", "PCinner", "PCouter", "ScanDirection"}};
// The column of a layout variable: "Focus" 5, "Dose" 6, "Numeric Aperature"
// (or "NA") 7, "PCinner" 8, "PCouter" 9, anything else 10 (the scan direction).
int LayoutVariableColumn(std::string_view variable);
// The variables of the variable box, in its order.
inline constexpr std::array<const char*, 6> kLayoutVariables{
    {"Focus", "Dose", "Numeric Aperature", "PCinner", "PCouter", "ScanDirection"}};

// Scan direction codes of cField::Direction as words, and back: 0 "Down",
// 1 "Left", 2 "Right", anything else "Up".
std::string DirectionWord(long code);

// The wafers a layout applies to: every wafer with "All" (or nothing), else
// the one of that WaferID or key (a number also as "W" and the number),
// the first wafer when none has it.
std::vector<cWafer*> LayoutWafers(const cLot& lot, std::string_view wafer);

// The values of the layout controls (the main window's layout tab).
struct LayoutControls {
    std::string variable = "Focus";    // cmbVariable
    std::string wafer = "All";         // cmbWafer: "All" or a wafer's WaferID (or key)
    std::string meander;               // a kind name; when it is one, it sets controlIndex
    std::string program = "Constant";  // cmbMeander: the program
    double initial = 0, step = 0;      // txtInitial, txtStep ("Constant" sets step to 0)
    int controlIndex = 0;              // the kind, see MeanderRow
    float dieXo = 0, dieYo = 0;        // the start field
};

// The values a layout gave the grid of the wafer, for display: columns from
// the lowest DieX, rows from the lowest DieY.
struct LayoutGrid {
    int x0 = 0, y0 = 0, columns = 0, rows = 0;
    enum State : signed char { Empty = 0, Field = 1, Excluded = -1 };
    std::vector<State> state;   // per cell; Excluded is the -999 mark
    std::vector<double> value;  // per cell; meaningful where not Excluded
    int index(int col, int row) const { return row * columns + col; }
    bool contains(int dieX, int dieY) const {
        return dieX >= x0 && dieX < x0 + columns && dieY >= y0 && dieY < y0 + rows;
    }
};

struct LayoutOutcome {
    double step = 0;       // the step used, as the box shows it afterwards
    const MeanderKind* kind = nullptr;
    int column = 0;        // the variable's column of the table
    int rowsWritten = 0;   // table rows that took a value
    LayoutGrid grid;
    // "Layout re-calculated." when the table had to be made anew from the
    // lot (the answer Yes of the corrupted-file question); the lot was then
    // left as it was.
    std::string note;
};

struct LayoutCalcOptions {
    // Where the table is saved when it is made anew; none: not saved.
    Workbook* workbook = nullptr;
    // The yes/no question "Layout File may be corrupted." ...; none: asked
    // through MsgBox.
    std::function<bool(const std::string&)> ask;
};

// LayoutPgms(CalculateLayout): computes the variable's value for every field
// of the wafer (all wafers with "All") and writes it into the table's column
// and onto the lot's fields; the wafer's cLayout of the variable takes the
// settings. Cells outside the path keep their old values. `table` is the FP
// data (rows from 0, columns 1..10); it is made anew when its row count does
// not match the lot's fields. Failures: "An input calibration table was not
// provided." (no table), "Error: Layout not updated." (the answer No). The
// lot keeps its values on every failure.
[[nodiscard]] Result<LayoutOutcome> CalculateLayout(LayoutControls& controls, cLot& lot, Datam* table,
                                                    const LayoutCalcOptions& options = {});

// The start corner of a kind on the die grid of the wafer's fields ("All":
// all wafers): "UL" the highest DieY and lowest DieX, "LR" the lowest DieY
// and highest DieX, and so on. From there no cell is left out. False when
// there is no field.
bool LayoutCorner(const cLot& lot, std::string_view wafer, int controlIndex, float& dieX, float& dieY);

}  // namespace zorv
