// File import: the table of formats, the dispatch of a raw tool file to its
// reader, and the choice of where the data workbook goes. A reader turns the
// file into the four tables of SaveData and writes the workbook; the lot is
// always loaded from that workbook afterwards (GetExcelWBLot).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

// What a reader is called with. The desktop fills it from its dialogs and
// settings, zorv-cli from its flags.
struct ImportRequest {
    std::string path;          // the raw tool file
    std::string workbookPath;  // the data workbook to write; empty: next to the source (or in dataFolder)
    std::string dataFolder;    // where a workbook without a path goes; empty: the source's folder
    std::string description;   // the format row ("KLA 8xxx CD-SEM")
    // "Focus/Dose(FEM) spreadsheets": the sheets to take; empty takes every "CD_" sheet.
    std::vector<std::string> sheets;
};

// A reader: writes the data workbook and answers its path.
using ReaderFn = Result<std::string> (*)(const ImportRequest&);

// The format table: headers "Description", "Filter", "Procedure" in row 0,
// one row per format from 1 (the 28 rows of the tool formats, then the
// delimited text reader). Built once; columns 0..2.
const Datam& FormatTable();
inline constexpr int kToolFormatCount = 28;
// The description of the generic reader, the row after the tool formats.
inline constexpr const char* kDelimitedDescription = "Delimited text (CSV, TSV)";

// The reader of a procedure name, nullptr for one not built yet.
ReaderFn ReaderOfProcedure(std::string_view procedure);

// Import(ImportRawData): the dispatch by description. "Import format not
// found." for an unknown description, "Data import format not available."
// for a row whose reader is not built. A spreadsheet source is first made a
// text copy (XLS2ASCII) for the readers that take text.
[[nodiscard]] Result<std::string> ImportRawData(const ImportRequest& request);
// Import(ImportCall): ImportRawData with `Exiting` (app/shutdown.h) held
// for the time of the import, so that workbook close events pass.
[[nodiscard]] Result<std::string> ImportCall(const ImportRequest& request);

// Import(XLS2ASCII): a ".xls", ".xlsx" or ".xlt" source becomes a text copy
// "ZORV" + base name + ".txt" beside it (tab separated, the active or first
// sheet); any other file passes unchanged. `out` names the text to read.
[[nodiscard]] Status XLS2ASCII(const std::string& path, std::string& out);
bool IsSpreadsheetPath(std::string_view path);

// Import(FileOpen) without its dialog: the filters of the table, the start
// folder and filter from the settings, and where the workbook will go.
struct FileOpenSetup {
    std::string filters;          // "All Files (*.*)|*.*|" then one "Description|Filter" per row, joined by "|"
    std::string startDirectory;   // "Options"/"SourceDirectory"
    std::string startFilter;      // "Options"/"ImportFilter"
    bool followLastDirectory = true;
    bool storeInDataDirectory = true;
    std::string dataStorageDirectory;  // normalised
};
FileOpenSetup FileOpenSettings();
// The storage folder for a chosen source: the source's folder, or the storage
// folder when "StoreInDataDirectory" is off and it can be reached. An
// unreachable storage folder gives the warning (flags 64) and the source's folder.
std::string ImportDataFolder(const FileOpenSetup& setup, const std::string& sourcePath);
// After the choice: the folder and the filter go back to the settings.
void SaveFileOpenChoice(const std::string& sourcePath, const std::string& filter);
// One back-slash between the parts of a folder path ("\\", "/\", "\/" become "\").
std::string NormaliseStoragePath(std::string_view path);
// The stored back-slash form as a path of this file system.
std::string StorageFolderOnDisk(std::string_view stored);

// Import(GetDataFile): the request for one raw file. The file must exist;
// without a description its first kilobytes choose the format (`why` says
// how); a file that fits no format, or two alike, fails naming the best
// candidates.
[[nodiscard]] Result<ImportRequest> GetDataFile(const std::string& path, const std::string& description = {},
                                                std::string* why = nullptr);

// Which reader a file is for, from its first few kilobytes. `description` is
// the format row chosen (empty when none fits); `why` says which words
// decided, or names the two best candidates when the choice is not clear.
struct Detection {
    std::string description;
    std::string why;
    bool ok() const { return !description.empty(); }
};
Detection DetectFormat(const std::string& path);

}  // namespace zorv
