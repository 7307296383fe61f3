// The field table of a lot (FP data) and the "Layout" sheet: made from the
// lot, saved into the data workbook, and the layout templates kept beside
// the program.
//
// The sheet holds the field table from column 1 ("Wafer" .. "ScanDirection"),
// the layout of each wafer and variable from column 12 ("Wafer", "Variable",
// "Meander", "DieXo", "DieYo", "InitialValue", "Step", "ControlIndex",
// "Scan1", "Scan2"), as the loader reads them back, and the lot's unique
// exposures from column 23 under "Unique Exposures for Layout:".
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

class cLot;
class Workbook;

// First column of the per-wafer layout rows and of the exposures on the sheet.
inline constexpr int kLayoutSetupColumn = 12;
inline constexpr int kLayoutExposureColumn = 23;

// Import(GetExposureStandard): the exposure defaults of a lot.
struct ExposureStandard {
    double focus = 0, dose = 0, NA = 0, PCinner = 0, PCouter = 0;
};
// From the Information table of the lot's workbook ("Fo", "Dose", "NA",
// "PCinner", "PCouter" in column 1, values in column 2) where it gives them,
// else from the lot's first field.
ExposureStandard GetExposureStandard(const cLot& lot, const Datam* information = nullptr);

// PSFManalysis(MakeFPdata): one row per field of every wafer, in lot order
// (row 0 the header, columns 1..10). "No data in lot object." without a lot
// or without a field.
[[nodiscard]] Result<Datam> MakeFPdata(const cLot* lot);

// Import(MakeSetup): the setup table, a block of eight rows per wafer (row 0
// the header "selWafer", "Variable", "Focus", "Dose", "NA", "PCinner",
// "PCouter", "ScanDirection"; the row names "Meander", "DieXo", "DieYo",
// "InitialValue", "Step", "ControlIndex", "Scan1", "Scan2" in "Variable"),
// with the defaults "Constant", the wafer's start field (lowest row, then
// lowest column), 0, 0, 1, "Right", "Up"; "InitialValue" from the first field.
Datam MakeSetup(const cLot& lot);

// Import(FEMlayout): gives every wafer without layouts the cLayout of each
// variable from the setup table (MakeSetup when none is given). Answers the
// number of wafers that got them.
int FEMlayout(cLot& lot, const Datam* setup = nullptr);

// The per-wafer layout rows of the sheet (row 0 the header) from the wafers'
// cLayouts.
Datam LayoutSetupRows(const cLot& lot);

// PSFManalysis(SaveFPdata): the whole "Layout" sheet (field table, layout
// rows, unique exposures) as one table with rows and columns from 1. Wafers
// without layouts get the defaults of MakeSetup first (FEMlayout), so that
// every wafer has its rows.
Datam LayoutSheetTable(cLot& lot, const Datam& fpData);
// Writes the sheet "Layout" and its Index row ("Wafer Layout last saved: "
// and the date), then saves the workbook when `save`.
[[nodiscard]] Status SaveFPdata(cLot& lot, const Datam& fpData, Workbook* workbook, bool save = true);
// LayoutPrograms(SaveFPdataFromLot): MakeFPdata, then SaveFPdata. An
// unnamed lot gives "File not saved".
[[nodiscard]] Status SaveFPdataFromLot(cLot& lot, Workbook* workbook, bool save = true);

// The folder of the layout templates: `folder` when given, else
// "LayoutTemplates" beside the program when that can be written, else under
// the user's data folder (XDG_DATA_HOME or ~/.local/share, "zorv").
std::string LayoutTemplateFolder(const std::string& folder = {});
// Import(SaveAsLayout): the lot's "Layout" sheet as a layout template
// workbook `name`.xlsx in the folder. Answers the path written.
[[nodiscard]] Result<std::string> SaveAsLayout(cLot& lot, const std::string& name, const std::string& folder = {});
// Utility(UpdateLayoutTemplates): the template files of the folder as a list
// with the head "Files" first; "Empty" as the only entry when there is none.
std::vector<std::string> UpdateLayoutTemplates(const std::string& folder = {});

}  // namespace zorv
