// The readers of the format table, by their procedure names.
#pragma once

#include <string>

#include "base/proc.h"
#include "import/import.h"

namespace zorv {

// KLA 8xxx CD-SEM report.
[[nodiscard]] Result<std::string> ImportKLACDsem(const ImportRequest& request);

}  // namespace zorv
