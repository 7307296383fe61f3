// Tables as the verbs print them: aligned text, JSON by row label and column
// header, and result sheets written back to a workbook.
#pragma once

#include <string>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {
class Workbook;
class cGraphic;
}

namespace zorv::cli {

class Json;

// A cell as JSON: a number when it reads as one, else its text.
void CellJson(Json& j, const Value& v);
// "columns": [...], "rows": [{"label": L, "values": {H: v, ...}}, ...] into an
// open JSON object.
void TableJson(Json& j, const Datam& t);
// The table as a block of aligned columns, labels left, values right; numbers
// at 6 significant digits.
void PrintTable(const Datam& t);
// Writes a result sheet with its title and Index row, then saves the file;
// formatted numbers go in as numbers.
[[nodiscard]] Status SaveResult(Workbook* wb, const Datam& table, const std::string& sheet,
                                const std::string& title);

#ifdef ZORV_HAVE_PAINT
// Draws a set-up chart (of its kind) into a PNG, SVG or PDF
// file; a chart that cannot be drawn leaves no file and gives its failure.
[[nodiscard]] Status WriteChart(cGraphic& chart, const std::string& path, int width, int height);
#endif

}  // namespace zorv::cli
