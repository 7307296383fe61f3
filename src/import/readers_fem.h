// The reader of focus-exposure (FEM) spreadsheets, "Focus/Dose(FEM) spreadsheets".
#pragma once

#include <string>

#include "base/proc.h"
#include "import/import.h"

namespace zorv {

// Import(ImportExcelFEM): the "CD_" sheets of a workbook (.xlsx, or .xls read
// through FreeXL), or the sheets request.sheets names, into one data workbook.
[[nodiscard]] Result<std::string> ImportExcelFEM(const ImportRequest& request);

}  // namespace zorv
