// Tables as the verbs print them.
#include "tables.h"

#include <algorithm>
#include <cassert>
#include <stdexcept>
#include <cstdio>
#include <string>
#include <vector>

#include "graphics/chart.h"
#include "base/text.h"
#include "json.h"
#include "lot/lot.h"
#include "numerics/matrix.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"
#ifdef ZORV_HAVE_PAINT
#include "paint/chart_file.h"
#endif

namespace zorv::cli {

std::vector<std::string> SplitCommas(const std::string& s) {
    std::vector<std::string> out;
    for (size_t a = 0, b; a <= s.size(); a = b + 1) {
        b = s.find(',', a);
        if (b == std::string::npos) b = s.size();
        if (b > a) out.push_back(Trim(std::string_view(s).substr(a, b - a)));
    }
    return out;
}

Status LoadLot(const std::string& path, const Args& args, Loaded& out) {
    LoadOptions options;
    options.sheetName = OptionValue(args, "--sheet");
    options.quiet = true;
    if (Status st = GetExcelWBLot(path, options, out.lot, &out.tables); !st) return st;
    assert(out.lot);
    KeepUntilExit(out.lot);
    return StatusOk();
}

void KeepUntilExit(std::shared_ptr<cLot> lot) {
    static auto* kept = new std::vector<std::shared_ptr<cLot>>;  // never destroyed, on purpose
    kept->push_back(std::move(lot));
}

Status SelectFeature(cLot& lot, const std::string& name, const std::string& tag) {
    if (name.empty()) return StatusOk();
    const int k = lot.GetPlotFeature(name);
    if (k < ePlotFeatureV || k > ePlotFeatureAstig) {
        Proc p(tag);
        return p.fail("Feature '" + name + "' is not in lot: " + lot.LotName);
    }
    lot.PlotFeature(k);
    return StatusOk();
}

void CellJson(Json& j, const Value& v) {
    double x;
    if (v.isEmpty()) j.null();
    else if (NumericOf(v, x)) j.value(x);
    else j.value(v.toString());
}

void TableJson(Json& j, const Datam& t) {
    j.key("columns").beginArray();
    for (int c = 1; c <= t.colUb(); ++c) j.value(t(0, c).toString());
    j.endArray();
    j.key("rows").beginArray();
    for (int r = 1; r <= t.rowUb(); ++r) {
        j.beginObject().field("label", t(r, 0).toString());
        j.key("values").beginObject();
        for (int c = 1; c <= t.colUb(); ++c) {
            j.key(t(0, c).toString());
            CellJson(j, t(r, c));
        }
        j.endObject().endObject();
    }
    j.endArray();
}

namespace {

// A cell for the text block: numbers at 6 significant digits, which is what
// a reader of the table wants; --json keeps every digit.
std::string CellText(const Value& v) {
    if (v.type() != VType::Double && v.type() != VType::Single) return v.toString();
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.6g", v.toDouble());
    return buf;
}

}  // namespace

// The table as a block of aligned columns, labels left, values right.
void PrintTable(const Datam& t) {
    std::vector<size_t> w(static_cast<size_t>(t.colUb() + 1), 0);
    for (int r = t.rowLb(); r <= t.rowUb(); ++r)
        for (int c = t.colLb(); c <= t.colUb(); ++c) w[c] = std::max(w[c], CellText(t(r, c)).size());
    for (int r = t.rowLb(); r <= t.rowUb(); ++r) {
        std::string line;
        for (int c = t.colLb(); c <= t.colUb(); ++c) {
            const std::string s = CellText(t(r, c));
            const std::string pad(w[c] - s.size(), ' ');
            line += c == t.colLb() ? s + pad : "  " + pad + s;
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        std::printf("%s\n", line.c_str());
    }
}

// Writes a result sheet with its title and Index row, then saves the file.
// Formatted numbers go in as numbers, as a spreadsheet takes typed text, so
// that the sheet can be computed with.
Status SaveResult(Workbook* wb, const Datam& formatted, const std::string& sheet, const std::string& title) {
    Datam table = formatted;
    for (int r = table.rowLb() + 1; r <= table.rowUb(); ++r)
        for (int c = table.colLb() + 1; c <= table.colUb(); ++c) {
            double x;
            if (table(r, c).isString() && NumericOf(table(r, c), x)) table(r, c) = Value(x);
        }
    SaveArrayOptions o;
    o.title = title;
    o.save = false;
    if (Status s = SaveArray(table, sheet, wb, o); !s) return s;
    return AddIndexItem(wb, sheet, title, Value(), true);
}

#ifdef ZORV_HAVE_PAINT
Status WriteChart(cGraphic& chart, const std::string& path, int width, int height) {
    Status drawn = StatusOk();
    Status written = RenderToFile(path, width, height, [&](Surface& s) {
        chart.Container(&s);
        drawn = chart.DrawFigure();
        chart.Container(nullptr);
        // The renderer drops its temporary file when the drawing throws.
        if (!drawn) throw std::runtime_error(drawn.failure().text);
    });
    if (!drawn) return drawn;
    return written;
}
#endif

}  // namespace zorv::cli
