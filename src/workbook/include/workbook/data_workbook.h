// The data workbook: the normalised spreadsheet every tool file is turned
// into, and the loader that builds a cLot from it.
//
// Sheets, in the order a first save leaves them: "Sites" (site table),
// "Information" (47 keys in column A, values in B, statistics from E2), the
// data sheet (one row per measurement: Wafer, Test, Diex, Diey and up to eight
// values), "Excluded" (rows the importer left out). "Layout" and "Index" may
// follow. Lengths are millimetres in the workbook, micrometres in the lot.
#pragma once

#include <array>
#include <climits>
#include <memory>
#include <string>
#include <string_view>

#include "base/datam.h"
#include "lot/data_source.h"
#include "base/proc.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv {

class cLot;

inline constexpr int kInformationKeyCount = 47;
// The keys of the Information sheet in their fixed order ("Data Type" first).
extern const std::array<const char*, kInformationKeyCount> kInformationKeys;
// Position (1-based) of the keys the code addresses by row.
enum InfoRow : int {
    infoDataType = 1, infoDataTable, infoInspection, infoDevice, infoLevel, infoDieSizeX, infoDieSizeY,
    infoXDiceField, infoYDiceField, infoSiteXoffset, infoSiteYoffset, infoDieXoffset, infoDieYoffset,
    infoDieXarray, infoDieYarray, infoFlatLocation, infoMetrologynom, infoLot, infoJob, infoDate, infoTitle,
    infoComments, infoExposureTool, infoMeasureTime, infoProcessStep, infoProcessDate, infoTechnology,
    infoStepperJob, infoRework, infoUserName, infoStepperID, infoReticle, infoFilePath, infoWorkBookPath,
    infoDataFolder, infoExposureToolType, infoNA, infoPCinner, infoPCouter, infoFo, infoFocusStep, infoDose,
    infoDoseStep, infoIllumination, infoLensID, infoLensType, infoWaferSize,
};

// The word SaveData writes for a data type number ("" outside 0..7).
const char* DataTypeWord(int number);
// The loader's DataSource of a data type text (unknown text: 3).
eDataSource DataSourceOfText(std::string_view text);
// SaveData's scalar test of a data type text.
bool IsScalarDataType(std::string_view text);

// Sentinel of FindFirstRow's optional bounds.
inline constexpr int kDefaultBound = INT_MIN;

// Import(FindFirstRow): the first cell equal to `text` (case-insensitive),
// rows first, then columns; error cells skipped. Returns the row (and sets
// row, column) or -1. A table that is no table is a look-up that finds
// nothing; unless `quiet` it also shows "Input matrix is not an array." or
// "No data points in array." (the caller goes on without the cell).
int FindFirstRow(const Datam& table, int& row, int& column, std::string_view text,
                 int lastRow = kDefaultBound, int lastColumn = kDefaultBound,
                 int firstRow = kDefaultBound, int firstColumn = kDefaultBound, bool quiet = false);

// import(FindFieldSize): field size (mm) from the site rows (X column 4, Y
// column 5, rows from 1). Steps of 0 are found from the sites. With `center`
// the sites are shifted to the middle. Fails "No site information in data.".
[[nodiscard]] Status FindFieldSize(Datam& sites, double& sizeX, double& sizeY, double& stepX, double& stepY,
                                   bool center);
// Import(CenterFieldSites): the middle of the sites (mm); the lot's site
// offsets become minus the middle (um). Fails "No sites data.".
[[nodiscard]] Status CenterFieldSites(Datam& sites, double& offsetX, double& offsetY, bool center, cLot* lot);
// Import(CenterWaferGrid): moves the field grid of the data rows (DieX column
// 3, DieY column 4) around index 0 and sets the lot's arrays and offsets. A
// table without numeric indices is left as it is; fails "No data rows." when
// it has no index columns.
[[nodiscard]] Status CenterWaferGrid(Datam& data, bool reposition, cLot* lot);

// Import(SaveData): writes the data workbook of an import. The workbook path
// comes from "WorkBookPath" of `information` (or the data folder and the data
// table name). Returns the path of the file written. A reader that knows
// the exposure of each field passes the "Layout" sheet too (its cells from
// A1), so that one save writes everything.
[[nodiscard]] Result<std::string> SaveData(const Datam& data, const Datam& excluded, const Datam& sites,
                                           const Datam& information, const std::string& comments = {},
                                           const Datam* layout = nullptr);

// Import(GetDataSheet): the data sheet of a workbook by name (or base name),
// by the "DataSheet" comment, or (with a Yes) the first sheet. nullptr when
// the user answers No (the question was the message) or there is no sheet.
Worksheet* GetDataSheet(Workbook* workbook, std::string_view name, bool quiet);
// The area of the data table (from A1 to the last used cell), after the
// data sheet check of GetWorksheetData; empty when the sheet holds nothing.
Area DataSheetArea(Worksheet*& sheet, bool quiet = false);
// Import(GetWorksheetData): the used range as a table (rows, columns from 1)
// and its row count; with fewer than 2 rows or columns the true data sheet
// is looked up first.
Datam GetWorksheetData(Worksheet*& sheet, long& rows, bool quiet = false);
// Import(GetWorksheetSites): the site table from the X column on (row 0 the
// header), scaled by `scale`, and the units table. Moves "Sites" to the front.
// Fails with string 2200 without the sheet and 2199 when it is empty.
[[nodiscard]] Result<Datam> GetWorksheetSites(Workbook* workbook, double scale, Datam& units);
// Import(GetDataUnits): "Variable", "Units", "PlotFeature" rows from the
// "_UNITS" columns of the Sites table (row 0 the header).
Datam GetDataUnits(const Datam& table);
// Import(GetWorksheetInspection): the Information keys and values as a
// two-column table (rows from 0, "Data Type" first); made when missing.
[[nodiscard]] Result<Datam> GetWorksheetInspection(Workbook* workbook);
// Import(CreateInfoWorksheet): makes the Information sheet with its 47 keys.
[[nodiscard]] Status CreateInfoWorksheet(Workbook* workbook, Datam& table);
// Import(xlDataTypeCD): true when the data type is scalar CD.
[[nodiscard]] Result<bool> xlDataTypeCD(Workbook* workbook);
// Import(UpdateXLInformation): writes the lot's geometry back to Information.
[[nodiscard]] Status UpdateXLInformation(Workbook* workbook, const cLot* lot);
// GetLayoutData: the two tables of the "Layout" sheet (field table with 10
// columns from 1, and the per-wafer variable rows). False without the sheet.
bool GetLayoutData(Workbook* workbook, Datam& layoutSetup, Datam& layoutValues);
// Import(FPdata2Lot): the exposure of each field (focus, dose, NA, PCinner,
// PCouter, scan direction) from the field table of GetLayoutData.
void FPdata2Lot(cLot& lot, const Datam& fp);

// cLot::UpdateUnits2Workbook through the lot's hook: the lot's units into the
// "_UNITS" columns of its workbook's Sites sheet, then saved.
[[nodiscard]] Status WriteUnitsToWorkbook(cLot& lot);
// Installs the lot's workbook hooks (the loader calls it; idempotent).
void InstallDataWorkbookHooks();

// What the loader reads from the user's settings; the desktop fills it with
// LoadOptionsFromSettings(), zorv-cli from its own flags, so a read-only run
// never changes the settings file.
struct LoadOptions {
    std::string sheetName;               // data sheet; empty: the file's base name
    bool quiet = false;
    bool splitByField = true;
    bool focusReportCorrections = true;  // "Options"/"FocusCorrections"
    double substrateMm = 200;            // "ToolSettings"/"Substrate", when the workbook gives no size
};
LoadOptions LoadOptionsFromSettings();

// What GetExcelWBLot hands back beside the lot.
struct WBLotTables {
    Datam information;   // GetWorksheetInspection
    Datam sites;         // GetWorksheetSites
    Datam units;         // GetDataUnits
    Datam layoutSetup;   // Layout sheet, first table
    Datam layoutValues;  // Layout sheet, second table
    WorkbookPtr workbook;
    std::string sheetName;
    // What the load asks to remember. The folder is known once the file is
    // found, also when the load fails later; empty before.
    std::string sourceDirectory;
    // The wafer size the load ended with, for "Substrate"; 0 when it failed
    // before. The setting is read in millimetres but gets this value in
    // micrometres, as it always has.
    double substrateMm = 0;
};

// Import(GetExcelWBLot): loads a data workbook into `lot` (a lot it holds is
// killed first). The failure names the file and, where they apply, the
// sheet, row and column; the caller shows it. A failure with no text is a
// load the user ended (No to the data sheet question): nothing more to show.
[[nodiscard]] Status GetExcelWBLot(const std::string& path, const LoadOptions& options,
                                   std::shared_ptr<cLot>& lot, WBLotTables* tables = nullptr);
// The desktop program persists what a load asks to remember ("SourceDirectory", "Substrate").
void SaveLoadSettings(const WBLotTables& tables);

}  // namespace zorv
