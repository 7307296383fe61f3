// Readers that are not rows of the tool formats: the generic delimited text
// reader. Private to the import subsystem; reached through the format table.
#pragma once

#include <string>

#include "base/proc.h"
#include "import/import.h"

namespace zorv {

// Import(ImportDelimited): a comma, tab or semicolon separated table with one
// header row, its columns found by name (docs/tool-formats.md, "Delimited
// text"). Writes the data workbook and answers its path.
[[nodiscard]] Result<std::string> ImportDelimited(const ImportRequest& request);

}  // namespace zorv
