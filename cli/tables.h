// Tables as the verbs print them: aligned text, JSON by row label and column
// header, and result sheets written back to a workbook.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "verbs.h"
#include "workbook/data_workbook.h"

namespace zorv {
class Workbook;
class cGraphic;
class cLot;
}

namespace zorv::cli {

class Json;

// A data workbook loaded into its lot.
struct Loaded {
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
};
// Loads as `info` does (--sheet names the data sheet): the user's settings
// are neither read nor written. The lot is kept until the process ends.
[[nodiscard]] Status LoadLot(const std::string& path, const Args& args, Loaded& out);
// Holds a loaded lot until the process ends. A verb runs once and exits, and
// freeing a million points one by one would add a tenth of a second to every
// run; the system takes the memory back at once.
void KeepUntilExit(std::shared_ptr<cLot> lot);
// Selects the feature by name; a name the lot doesn't have fails under tag.
[[nodiscard]] Status SelectFeature(cLot& lot, const std::string& name, const std::string& tag);

// "a, b,c" as {"a", "b", "c"}: blanks trimmed, empty items dropped.
std::vector<std::string> SplitCommas(const std::string& s);

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
