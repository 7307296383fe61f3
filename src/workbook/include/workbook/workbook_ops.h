// Operations of the analyses on the workbook store: opening or creating the
// data workbook, saving a table as a sheet, the "Index" sheet, naming rules.
// The store stands in for the spreadsheet application: a workbook that is
// already open in the process is found and reused.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "workbook/store.h"

namespace zorv {

inline constexpr size_t kMaxSheetName = 31;

// Import(FixSheetName): "[" "(", "]" ")", ":" out, "*" "x", "?" out, "/" and
// "\" "_", ".." ".", doubled ".xls" once, then ".xls" out; at most 31 characters.
std::string FixSheetName(std::string_view name);
// Utility(FixWorkSheetName): ".", "/", "\", "?", "*:" and ";" out, "[" and "]"
// "_", at most 31 characters; a name that `exists` gets "_" and a running
// number, the stem cut so the whole stays within 31.
std::string FixWorkSheetName(std::string_view name,
                             const std::function<bool(std::string_view)>& exists);
std::string FixWorkSheetName(Workbook* workbook, std::string_view name);
// Import(FixWorkbookPathName): the file part of a path cleaned by the same
// rules; the folder and the extension stay.
std::string FixWorkbookPathName(std::string_view path);

// Utility(OpenExcelWorksheet): opens the workbook at `path` (an open one is
// reused) or, with `create`, makes it (first sheet "Information", document
// properties, saved at once). `sheet` is the active sheet. In logging mode
// each step writes a line to the log. The failure names the file.
[[nodiscard]] Status OpenExcelWorksheet(const std::string& path, WorkbookPtr& workbook, Worksheet** sheet,
                                        bool create);
// Import(OpenExcelWorkBook): the same for a plain workbook, with its status texts.
[[nodiscard]] Status OpenExcelWorkBook(const std::string& path, WorkbookPtr& workbook, bool create);

// The document properties every saved workbook carries.
void SetWorkbookProperties(Workbook& wb);

// Import(SaveArray): writes `table` (its first row and column at A1, or at A2
// below `title` in A1) to the sheet `sheetName` (spaces taken out; found or
// added after the last sheet), numbers formatted "0.0000"; marks a data sheet
// ("DATASHEET" and the file name) or a batch sheet ("BATCHFILE") with hidden
// comments; writes the properties and saves.
struct SaveArrayOptions {
    std::string title;
    bool dataSheet = false;
    bool batchFile = false;
    std::string fileName;  // the A2 comment of a data sheet
    bool save = true;
};
[[nodiscard]] Status SaveArray(const Datam& table, const std::string& sheetName, Workbook* workbook,
                               const SaveArrayOptions& options = {});
[[nodiscard]] Status SaveArray(const Datam& table, const std::string& sheetName, const std::string& title,
                               Workbook* workbook);

// Saves with the wait of the original: on failure "Error Saving: " and the
// path, or the time-out after 60 seconds.
[[nodiscard]] Status SaveWorkbookChecked(Workbook& wb, const std::string& sheetName, bool dataSheet);

// Import(AddIndexItem): adds (or renews) the row of `sheetName` on the "Index"
// sheet, made when missing before "Sites", cleans the names and renews the
// links. `date` empty: now. With no workbook the most recently opened one is
// taken.
[[nodiscard]] Status AddIndexItem(Workbook* workbook, const std::string& sheetName,
                                  const std::string& description, const Value& date = Value(),
                                  bool save = true);

// Util(CheckExcel): a workbook reference that is no longer open is opened
// again from folder and name ("/" and ".xlsx" added as needed).
[[nodiscard]] Status CheckExcel(WorkbookPtr& workbook, const std::string& folder, const std::string& name);

// Utility(UpdateSpreadsheets): the captions of the window's sheet menu
// (mnuSpreadSheets): one entry per sheet, "Empty" for a free entry. `menu`
// keeps at least its size.
[[nodiscard]] Status UpdateSpreadsheets(std::vector<std::string>* menu, Workbook* workbook);

// xlwb_BeforeClose: the before-close event of a workbook the program holds.
// A close by the user is refused with a box (`cancel` set); on the exit path
// it is told in the status line (WorkbookBeforeClose).
void xlwb_BeforeClose(const Workbook& xlwb, bool& cancel);

// Registers the store's close step with the exit path (idempotent; the
// opening routines call it).
void InstallWorkbookCloseHook();

// Util(DateExtract): a cell or text as a date serial (a bare number is a
// serial already). False when it is no date.
bool DateExtract(const Value& v, double& serial);

}  // namespace zorv
