// The CD-SEM and scatterometry readers of the format table: Hitachi S9xxx
// (.msr, its points or its statistics), AMAT NanoSEM 3D (report and RPT
// forms), Soluris Yosemite and Accent Optical CDS. Each takes the raw file as
// text, writes the data workbook and answers its path.
#pragma once

#include <string>

#include "base/proc.h"
#include "import/import.h"

namespace zorv {

// "Hitachi_CDSEM (multi-point)": the "_DATA" section, one row per chip and point.
[[nodiscard]] Result<std::string> ImportHitachi_CDSEM_S9xxx(const ImportRequest& request);
// "Hitachi_CDSEM (statistical)": the "_STATS" section of the same file.
[[nodiscard]] Result<std::string> ImportHitachi_CDSEM_Stats(const ImportRequest& request);

// "AMAT NanoSEM 3D": the detailed report or the RPT table (found by its
// columns); one feature per measurement name.
[[nodiscard]] Result<std::string> ImportNanoSEM(const ImportRequest& request);
// "AMAT NanoSEM 3D(Family)": each measurement name its own site of its family.
[[nodiscard]] Result<std::string> ImportNanoSEM_ByFamily(const ImportRequest& request);
// The RPT table alone (ImportNanoSEM reads it too).
[[nodiscard]] Result<std::string> ImportNanoSEM_RPTfile(const ImportRequest& request);

// "Soluris Yosemite CD-SEM family".
[[nodiscard]] Result<std::string> ImportIVSyosemite(const ImportRequest& request);

// "Accent Optical CDS" (scatterometry).
[[nodiscard]] Result<std::string> ImportAccentCDS(const ImportRequest& request);

}  // namespace zorv
