// The overlay readers of the BioRad / Accent family and the ASML scanner
// logs. Private to the import subsystem; reached through the format table.
#pragma once

#include <string>

#include "base/proc.h"
#include "import/import.h"

namespace zorv {

// "Accent Overlay" and "BioRad Questar Overlay": the Q6 "Res" file. A file
// that is recognisably a Questar QDX report or an Accent Q200 report goes to
// ImportBioRad or ImportAccentQ200_OL, so one row reads all three. Text.
[[nodiscard]] Result<std::string> ImportBioRadQ6res(const ImportRequest& request);

// The Questar QDX overlay report (no row of its own). Text.
[[nodiscard]] Result<std::string> ImportBioRad(const ImportRequest& request);

// The Accent Q200 overlay report (no row of its own). Text.
[[nodiscard]] Result<std::string> ImportAccentQ200_OL(const ImportRequest& request);

// "ASML Registration": the scanner's registration log, levels 'A' and 'B';
// a brace-nested XT log goes to ImportASMLxt. Text.
[[nodiscard]] Result<std::string> ImportASML(const ImportRequest& request);

// The brace-nested ASML XT log of mark results (no row of its own). Text.
[[nodiscard]] Result<std::string> ImportASMLxt(const ImportRequest& request);

}  // namespace zorv
