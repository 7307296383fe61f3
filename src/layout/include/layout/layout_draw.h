// The layout tab's picture and lists: the wafer's fields as filled cells
// coloured by a layout variable, the values written in them, the start field
// marked; the feature lists and the field boxes written back to the lot.
// The cells stand on the die grid with DieY growing upward, as the wafer
// maps draw it.
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/surface.h"

namespace zorv {

class cLot;

// Where the die grid of a layout stands on the surface.
struct LayoutView {
    int x0 = 0, y0 = 0, columns = 0, rows = 0;  // lowest DieX, DieY; grid size
    double left = 0, top = 0, cellWidth = 0, cellHeight = 0;
    // The pixel rectangle of the cell of a field.
    double cellLeft(double dieX) const { return left + (dieX - x0) * cellWidth; }
    double cellTop(double dieY) const { return top + (y0 + rows - 1 - dieY) * cellHeight; }
};

// The value of a variable (kLayoutVariables, or a FP data head) on a field.
class cField;
double LayoutFieldValue(const cField& field, const std::string& variable);

// LP(MainDraw): clears the surface, prints the title ("Variable: " name
// " - Wafer: " id, or " - Wafers: " and the ids with "All" and several
// wafers) and draws one filled cell per field of the wafer, its colour by the
// variable's value from blue (lowest) to red (highest), with a key of the
// range. Fails "No data in lot object." without fields.
[[nodiscard]] Result<LayoutView> MainDraw(const cLot& lot, const std::string& variable, const std::string& wafer,
                                          Surface& s);

// LP(DisplayVariables): writes the values of the variable's column of the
// FP data table in the cells of the wafer's fields; answers the values in
// table order, as the form's list shows them. "Could not find column values
// for: " and the variable when the table has no such column.
[[nodiscard]] Result<std::vector<std::string>> DisplayVariables(const Datam& table, const std::string& variable,
                                                                const std::string& wafer, const LayoutView& view,
                                                                Surface& s);

// LP(DrawLayoutOrigin): outlines the start field given by the text of the
// DieXo and DieYo boxes. ": Data entry error.." after the entry when a box
// holds no number; "Could not locate field in data." when the wafer has no
// field there.
[[nodiscard]] Status DrawLayoutOrigin(const cLot& lot, const std::string& wafer, const std::string& dieXo,
                                      const std::string& dieYo, const LayoutView& view, Surface& s);

// LayoutPgms(LoadFeatures): the lists of the layout tab.
struct LayoutLists {
    std::vector<std::string> variables, wafers, meanders, programs, features;
};
// The variables, "All" and the wafer ids, the eight kinds, the programs, and
// the lot's features ("Horiz. & Vertical" names the pair of a vector lot).
LayoutLists LoadFeatures(const cLot& lot);

// The exposure boxes of the selected field.
struct FieldExposureValues {
    double focus = 0, dose = 0, NA = 0, PCinner = 0, PCouter = 0;
    std::string direction = "Up";
};
// LayoutPrograms(UpdateLotFromDisplay): writes the boxes onto the field of
// the wafer (by WaferID or key) with the field key or number. "Could not
// locate field in data." when there is none.
[[nodiscard]] Status UpdateLotFromDisplay(cLot& lot, const std::string& wafer, const std::string& field,
                                          const FieldExposureValues& values);

}  // namespace zorv
