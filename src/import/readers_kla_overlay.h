// The overlay readers of the format table: KLA Archer (and its Zspin focus
// files and AIM statistics), KLA 5xxx, Nova Track, Nikon NRM, Soluris IVS.
// Each writes the data workbook and answers its path.
#pragma once

#include <string>

#include "base/proc.h"
#include "import/import.h"

namespace zorv {

// "KLA Archer overlay", and "KLA ZspinFocus" (the description tells which).
// A statistics file goes on to ImportKLA_Stats.
[[nodiscard]] Result<std::string> ImportKLAarcher(const ImportRequest& request);
// The Archer AIM statistics: one mean misregistration per test.
[[nodiscard]] Result<std::string> ImportKLA_Stats(const ImportRequest& request);
// "KLA 5xxx": the KLA 50xx overlay report, wafer by wafer with pass or fail.
[[nodiscard]] Result<std::string> ImportKLA(const ImportRequest& request);
// "Nova Track 2020-3030 OL (*.*)".
[[nodiscard]] Result<std::string> ImportNovaTrackOL(const ImportRequest& request);
// "Nikon NRM Series OL (*.msr, *.XLS)": records by line code.
[[nodiscard]] Result<std::string> ImportNikonNRM(const ImportRequest& request);
// "Soluris IVS Overlay family(IVS135 etc.)".
[[nodiscard]] Result<std::string> ImportIVS(const ImportRequest& request);

}  // namespace zorv
