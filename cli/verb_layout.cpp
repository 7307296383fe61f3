// zorv-cli layout: the exposure layout of a wafer computed from a start
// field, a meander and a program, printed as the die grid; written into the
// "Layout" sheet with --save, drawn with --chart.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/proc.h"
#include "base/text.h"
#include "base/value.h"
#include "json.h"
#include "layout/fp_data.h"
#include "layout/layout_draw.h"
#include "layout/meander.h"
#include "lot/lot.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

#ifdef ZORV_HAVE_PAINT
#include "paint/chart_file.h"
#endif

namespace zorv::cli {

namespace {

// The field values of the shown wafer by grid cell; the grid's top row is
// the highest DieY.
struct Grid {
    int x0 = 0, x1 = -1, y0 = 0, y1 = -1;
    std::map<std::pair<int, int>, std::string> cells;
};

Grid ShownGrid(const cLot& lot, const std::string& wafer, const std::string& variable) {
    Grid g;
    const std::vector<cWafer*> wafers = LayoutWafers(lot, wafer);
    if (wafers.empty()) return g;
    bool first = true;
    const bool direction = LayoutVariableColumn(variable) == 10;
    for (const cField* f : wafers.front()->Fields()) {
        const int x = static_cast<int>(std::lround(f->DieX)), y = static_cast<int>(std::lround(f->DieY));
        if (first) g.x0 = g.x1 = x, g.y0 = g.y1 = y;
        g.x0 = std::min(g.x0, x), g.x1 = std::max(g.x1, x);
        g.y0 = std::min(g.y0, y), g.y1 = std::max(g.y1, y);
        first = false;
        const double v = LayoutFieldValue(*f, variable);
        g.cells[{x, y}] = direction ? DirectionWord(f->Direction) : NumberToText(std::fabs(v) < 5e-7 ? 0.0 : v, 6);
    }
    return g;
}

bool StartPair(const std::string& text, float& x, float& y) {
    const std::vector<std::string> f = SplitCommas(text);
    double a, b;
    if (f.size() != 2 || !ParseNumber(f[0], a) || !ParseNumber(f[1], b)) return false;
    x = static_cast<float>(a), y = static_cast<float>(b);
    return true;
}

}  // namespace

const char kLayoutHelp[] =
    "Usage: zorv-cli layout WORKBOOK [--variable NAME] [--meander KIND] [--program NAME]\n"
    "                       [--initial V] [--step S] [--start X,Y] [--wafer W]\n"
    "                       [--save] [--chart FILE.png|.svg|.pdf] [--size WxH] [--json]\n\n"
    "Computes the exposure layout of the data workbook's lot: the variable's value\n"
    "of every field, stepped from the start field along the meander, and prints it\n"
    "as the die grid (rows by DieY, the highest at the top; columns by DieX; '.'\n"
    "where there is no field).\n\n"
    "--variable  Focus (default), Dose, \"Numeric Aperature\" (or NA), PCinner, PCouter,\n"
    "            ScanDirection (values 0 Down, 1 Left, 2 Right, 3 Up)\n"
    "--meander   the start corner and the two scan directions: ULRight (default;\n"
    "            Right then Down), LLRight, LLUp, LRUp, LRLeft, URLeft, URDown, ULDown\n"
    "--program   Constant (default; the step becomes 0), Serpentine, SingleScan,\n"
    "            MultiScan\n"
    "--initial V, --step S  the start field's value and the step per field (default 0)\n"
    "--start X,Y the start field (DieX,DieY); default the meander's corner of the grid.\n"
    "            Only fields on the path from the start (beyond it along both scan\n"
    "            directions) change; the others keep their values.\n"
    "--wafer W   one wafer by id or key (default All: every wafer, the first shown)\n"
    "--save      writes the \"Layout\" sheet (field table, layouts, exposures) and its\n"
    "            Index row into the workbook\n"
    "--chart FILE  the map of the wafer's fields coloured by the value, the values\n"
    "            written in the cells and the start field marked\n\n"
    "A workbook that cannot be loaded, or a start field off the grid (\"Layout File may\n"
    "be corrupted.\", answered No), gives the message on stderr (with --json an error\n"
    "object) and exit code 1.\n";

int RunLayout(const Args& args) {
    const Args pos = Positional(args, {"--variable", "--meander", "--program", "--initial", "--step", "--start",
                                       "--wafer", "--chart", "--size", "--sheet"});
    const bool json = HasFlag(args, "--json");
    LayoutControls c;
    c.wafer = "All";
    c.meander = "ULRight";
    if (const std::string v = OptionValue(args, "--variable"); !v.empty()) c.variable = v;
    if (const std::string v = OptionValue(args, "--meander"); !v.empty()) c.meander = v;
    if (const std::string v = OptionValue(args, "--program"); !v.empty()) c.program = v;
    if (const std::string v = OptionValue(args, "--wafer"); !v.empty()) c.wafer = v;
    bool bad = pos.size() != 1 || MeanderControlIndex(c.meander) < 0 || !IsMeanderProgram(c.program);
    bool unknown = !IEquals(c.variable, "NA");
    for (const char* v : kLayoutVariables) unknown = unknown && !IEquals(v, c.variable);
    bad = bad || unknown;
    auto number = [&](const char* opt, double& out) {
        const std::string s = OptionValue(args, opt);
        if (!s.empty() && !ParseNumber(s, out)) bad = true;
    };
    number("--initial", c.initial);
    number("--step", c.step);
    const std::string start = OptionValue(args, "--start");
    bool haveStart = !start.empty();
    if (haveStart) bad = bad || !StartPair(start, c.dieXo, c.dieYo);
    int w = 1000, h = 800;
    if (const std::string sz = OptionValue(args, "--size"); !sz.empty())
        bad = bad || std::sscanf(sz.c_str(), "%dx%d", &w, &h) != 2 || w < 50 || h < 50 || w > 20000 || h > 20000;
    if (bad) {
        std::fprintf(stderr, "Usage: zorv-cli layout WORKBOOK [--variable NAME] [--meander KIND] [--program NAME]\n"
                             "       [--initial V] [--step S] [--start X,Y] [--wafer W] [options]\n"
                             "       (zorv-cli layout --help for the options)\n");
        return kExitUsage;
    }
    c.controlIndex = MeanderControlIndex(c.meander);
    for (const MeanderKind& k : kMeanderKinds)
        if (IEquals(k.kind, c.meander)) c.meander = k.kind;

    Loaded loaded;
    if (Status st = LoadLot(pos[0], args, loaded); !st) return ShowFailure(st.failure(), json);
    cLot& lot = *loaded.lot;
    if (!haveStart && !LayoutCorner(lot, c.wafer, c.controlIndex, c.dieXo, c.dieYo))
        return ShowFailure(Proc("zorv-cli(layout): ").fail("No data in lot object."), json);

    // The sheet's field table when the workbook has one, else the lot's.
    Datam table = loaded.tables.layoutSetup;
    if (!table.isArray()) {
        Result<Datam> fp = MakeFPdata(&lot);
        if (!fp) return ShowFailure(fp.failure(), json);
        table = std::move(fp.value());
    }
    Workbook* wb = HasFlag(args, "--save") ? loaded.tables.workbook.get() : nullptr;
    LayoutCalcOptions options;
    options.workbook = wb;
    Result<LayoutOutcome> out = CalculateLayout(c, lot, &table, options);
    if (!out) return ShowFailure(out.failure(), json);
    if (wb)
        if (Status st = SaveFPdata(lot, table, wb); !st) return ShowFailure(st.failure(), json);
    // The table was made anew from the lot instead: nothing computed.
    if (!out->note.empty()) {
        if (json) {
            Json j;
            j.beginObject().field("workbook", pos[0]).field("note", out->note).endObject();
            std::printf("%s\n", j.str().c_str());
        } else {
            std::printf("%s\n", out->note.c_str());
        }
        return kExitOk;
    }
    const std::vector<cWafer*> shown = LayoutWafers(lot, c.wafer);
    // The table names wafers by key, whatever the user called it.
    const std::string shownKey = IEquals(c.wafer, "All") || shown.empty() ? std::string("All") : shown.front()->KeyName;

#ifdef ZORV_HAVE_PAINT
    if (const std::string chart = OptionValue(args, "--chart"); !chart.empty()) {
        Status drawn = StatusOk();
        Status written = RenderToFile(chart, w, h, [&](Surface& s) {
            Result<LayoutView> view = MainDraw(lot, c.variable, c.wafer, s);
            if (!view) {
                drawn = view.failure();
                throw std::runtime_error(drawn.failure().text);
            }
            if (auto values = DisplayVariables(table, c.variable, shownKey, *view, s); !values) drawn = values.failure();
            // A start on an empty corner of the grid has no field to mark.
            (void)DrawLayoutOrigin(lot, c.wafer, NumberToText(c.dieXo), NumberToText(c.dieYo), *view, s);
        });
        if (!drawn) return ShowFailure(drawn.failure(), json);
        if (!written) return ShowFailure(written.failure(), json);
    }
#else
    if (!OptionValue(args, "--chart").empty())
        return ShowFailure(Proc("zorv-cli(layout): ").fail("This zorv-cli was built without the drawing library."), json);
#endif

    const Grid g = ShownGrid(lot, c.wafer, c.variable);
    const std::string waferName = shown.empty() ? std::string() : (shown.front()->WaferID.empty() ? shown.front()->KeyName : shown.front()->WaferID);
    const MeanderKind& kind = *out->kind;
    if (json) {
        Json j;
        j.beginObject().field("workbook", pos[0]).field("variable", c.variable).field("wafer", c.wafer);
        j.field("shownWafer", waferName).field("meander", kind.kind).field("scan1", kind.scan1).field("scan2", kind.scan2);
        j.field("program", c.program).field("initial", static_cast<float>(c.initial)).field("step", static_cast<float>(c.step));
        j.key("start").beginArray().value(c.dieXo).value(c.dieYo).endArray();
        j.field("fieldsWritten", out->rowsWritten).field("saved", wb != nullptr);
        j.key("columns").beginArray();
        for (int x = g.x0; x <= g.x1; ++x) j.value(x);
        j.endArray().key("rows").beginArray();
        for (int y = g.y1; y >= g.y0; --y) {
            j.beginObject().field("dieY", y).key("values").beginArray();
            for (int x = g.x0; x <= g.x1; ++x) {
                auto it = g.cells.find({x, y});
                if (it == g.cells.end()) j.null();
                else if (double d; ParseNumber(it->second, d)) j.value(static_cast<float>(d));
                else j.value(it->second);
            }
            j.endArray().endObject();
        }
        j.endArray().endObject();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }

    std::printf("Layout of %s, wafer %s: %s (%s, %s), %s, initial %s, step %s, start %s,%s\n", c.variable.c_str(),
                waferName.c_str(), kind.kind, kind.scan1, kind.scan2, c.program.c_str(), NumberToText(c.initial).c_str(),
                NumberToText(c.step).c_str(), NumberToText(c.dieXo).c_str(), NumberToText(c.dieYo).c_str());
    size_t width = 5;
    for (const auto& [at, text] : g.cells) width = std::max(width, text.size());
    for (int x = g.x0; x <= g.x1; ++x) width = std::max(width, std::to_string(x).size());
    std::printf("%9s", "DieY\\DieX");
    for (int x = g.x0; x <= g.x1; ++x) std::printf(" %*d", static_cast<int>(width), x);
    std::printf("\n");
    for (int y = g.y1; y >= g.y0; --y) {
        std::printf("%9d", y);
        for (int x = g.x0; x <= g.x1; ++x) {
            auto it = g.cells.find({x, y});
            std::printf(" %*s", static_cast<int>(width), it == g.cells.end() ? "." : it->second.c_str());
        }
        std::printf("\n");
    }
    std::printf("%d fields set%s\n", out->rowsWritten, wb ? "; \"Layout\" sheet saved" : "");
    return kExitOk;
}

}  // namespace zorv::cli
