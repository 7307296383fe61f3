// LayoutPgms(CalculateLayout) and the tables it reads.
#include "layout/meander.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "layout/fp_data.h"
#include "lot/lot.h"

namespace zorv {

int MeanderRow(int controlIndex) {
    return controlIndex >= 0 && controlIndex < static_cast<int>(kMeanderKinds.size()) ? controlIndex + 1 : 5;
}

const MeanderKind& MeanderOf(int controlIndex) { return kMeanderKinds[MeanderRow(controlIndex) - 1]; }

int MeanderControlIndex(std::string_view kind) {
    for (size_t i = 0; i < kMeanderKinds.size(); ++i)
        if (IEquals(kind, kMeanderKinds[i].kind)) return static_cast<int>(i);
    return -1;
}

bool IsMeanderProgram(std::string_view program) {
    for (const char* p : kMeanderPrograms)
        if (IEquals(program, p)) return true;
    return false;
}

int LayoutVariableColumn(std::string_view variable) {
    if (IEquals(variable, "Focus")) return 5;
    if (IEquals(variable, "Dose")) return 6;
    if (IEquals(variable, "Numeric Aperature") || IEquals(variable, "NA")) return 7;
    if (IEquals(variable, "PCinner")) return 8;
    if (IEquals(variable, "PCouter")) return 9;
    return 10;
}

std::string DirectionWord(long code) {
    switch (code) {
        case 0: return "Down";
        case 1: return "Left";
        case 2: return "Right";
        default: return "Up";
    }
}

namespace {

struct Step2 {
    int dx = 0, dy = 0;
};
Step2 DirectionStep(std::string_view d) {
    if (IEquals(d, "Right")) return {1, 0};
    if (IEquals(d, "Left")) return {-1, 0};
    if (IEquals(d, "Up")) return {0, 1};
    return {0, -1};  // "Down"
}

// The wafer a table row belongs to, matched as the loader matches it: by key
// or id, a numeric key also with the "W" the loader puts before it.
cWafer* RowWafer(const std::vector<cWafer*>& wafers, const Value& key) {
    const std::string k = key.isError() ? std::string() : key.toString();
    if (k.empty()) return nullptr;
    for (cWafer* w : wafers)
        if (IEquals(w->KeyName, k) || IEquals(w->WaferID, k) || (IsNumericValue(key) && IEquals(w->KeyName, "W" + k)))
            return w;
    return nullptr;
}

long TotalFields(const cLot& lot) {
    long n = 0;
    for (cWafer* w : lot.Wafers()) n += w->Fields().Count();
    return n;
}

float* FieldMember(cField& f, int column) {
    switch (column) {
        case 5: return &f.Focus;
        case 6: return &f.Dose;
        case 7: return &f.NA;
        case 8: return &f.PCinner;
        case 9: return &f.PCouter;
        default: return nullptr;
    }
}

cLayout& LayoutOf(cWafer& w, const std::string& variable) {
    for (cLayout& l : w.Layouts)
        if (IEquals(l.VariableName, variable)) return l;
    w.Layouts.push_back(cLayout{});
    w.Layouts.back().VariableName = variable;
    return w.Layouts.back();
}

// A row of the table that names a field of one of the wafers.
struct TableRow {
    int row;
    cWafer* wafer;
    int dieX, dieY;
};

}  // namespace

std::vector<cWafer*> LayoutWafers(const cLot& lot, std::string_view wafer) {
    std::vector<cWafer*> out;
    if (IEquals(wafer, "All") || wafer.empty()) {
        for (cWafer* w : lot.Wafers()) out.push_back(w);
        return out;
    }
    // A number also names the wafer the loader called "W" and the number.
    std::string prefixed = "W";
    prefixed.append(wafer);
    const bool numeric = IsNumericValue(wafer);
    for (cWafer* w : lot.Wafers())
        if (IEquals(w->WaferID, wafer) || IEquals(w->KeyName, wafer) ||
            (numeric && (IEquals(w->WaferID, prefixed) || IEquals(w->KeyName, prefixed)))) {
            out.push_back(w);
            return out;
        }
    if (cWafer* w = lot.Wafers().At(1)) out.push_back(w);
    return out;
}

bool LayoutCorner(const cLot& lot, std::string_view wafer, int controlIndex, float& dieX, float& dieY) {
    bool any = false;
    float x0 = 0, x1 = 0, y0 = 0, y1 = 0;
    for (cWafer* w : LayoutWafers(lot, wafer))
        for (cField* f : w->Fields()) {
            if (!any) x0 = x1 = f->DieX, y0 = y1 = f->DieY;
            x0 = std::min(x0, f->DieX), x1 = std::max(x1, f->DieX);
            y0 = std::min(y0, f->DieY), y1 = std::max(y1, f->DieY);
            any = true;
        }
    if (!any) return false;
    // The kind's name starts with its corner: U(pper) or L(ower), then L(eft) or R(ight).
    const std::string_view k = MeanderOf(controlIndex).kind;
    dieY = k[0] == 'U' ? y1 : y0;
    dieX = k[1] == 'L' ? x0 : x1;
    return true;
}

namespace {

// Step 8: the rows of the table on the wafers, and the grid over them with
// every field's cell marked.
std::vector<TableRow> WaferRows(const Datam& table, const std::vector<cWafer*>& wafers) {
    std::vector<TableRow> rows;
    const int c0 = table.colLb();
    for (int r = table.rowLb() + 1; r <= table.rowUb(); ++r) {
        const Value& x = table.get(r, c0 + 2);
        const Value& y = table.get(r, c0 + 3);
        if (!IsNumericValue(x) || !IsNumericValue(y)) continue;
        cWafer* w = RowWafer(wafers, table.get(r, c0));
        if (!w) continue;
        rows.push_back({r, w, static_cast<int>(std::lround(x.toDouble())), static_cast<int>(std::lround(y.toDouble()))});
    }
    return rows;
}

LayoutGrid BuildGrid(const std::vector<TableRow>& rows) {
    LayoutGrid g;
    if (!rows.empty()) {
        int x1 = rows[0].dieX, y1 = rows[0].dieY;
        g.x0 = x1, g.y0 = y1;
        for (const TableRow& t : rows) {
            g.x0 = std::min(g.x0, t.dieX), x1 = std::max(x1, t.dieX);
            g.y0 = std::min(g.y0, t.dieY), y1 = std::max(y1, t.dieY);
        }
        g.columns = x1 - g.x0 + 1;
        g.rows = y1 - g.y0 + 1;
    }
    g.state.assign(static_cast<size_t>(g.columns) * g.rows, LayoutGrid::Empty);
    g.value.assign(g.state.size(), 0.0);
    for (const TableRow& t : rows) g.state[g.index(t.dieX - g.x0, t.dieY - g.y0)] = LayoutGrid::Field;
    return g;
}

// Step 9: "Up" leaves out the rows below the start, "Down" those above,
// "Right" the columns before it, "Left" those after it.
void MarkExcluded(LayoutGrid& g, int sc, int sr, std::string_view d) {
    for (int r = 0; r < g.rows; ++r)
        for (int col = 0; col < g.columns; ++col) {
            const bool off = IEquals(d, "Up")      ? r < sr
                             : IEquals(d, "Down")  ? r > sr
                             : IEquals(d, "Right") ? col < sc
                                                   : col > sc;
            if (off) g.state[g.index(col, r)] = LayoutGrid::Excluded;
        }
}

// Step 10: lines along Scan1, one after the other along Scan2, each from the
// start's side (Serpentine: every second line from the far end). Empty cells
// on a line count as walked, so a value belongs to a grid position, not to
// the field count. SingleScan starts every line again at the initial value;
// MultiScan and Serpentine run on.
void WalkValues(LayoutGrid& g, int sc, int sr, const MeanderKind& kind, const LayoutControls& c) {
    const bool reversing = IEquals(c.program, "Serpentine");
    const bool running = reversing || IEquals(c.program, "MultiScan");
    const Step2 d1 = DirectionStep(kind.scan1), d2 = DirectionStep(kind.scan2);
    auto span = [&](Step2 d) {
        if (d.dx > 0) return g.columns - sc;
        if (d.dx < 0) return sc + 1;
        if (d.dy > 0) return g.rows - sr;
        return sr + 1;
    };
    const int length = span(d1), lines = span(d2);
    double base = c.initial;
    for (int n = 0; n < lines; ++n) {
        double v = base;
        for (int k = 0; k < length; ++k) {
            const int kk = reversing && n % 2 == 1 ? length - 1 - k : k;
            const int i = g.index(sc + n * d2.dx + kk * d1.dx, sr + n * d2.dy + kk * d1.dy);
            if (g.state[i] != LayoutGrid::Excluded) g.value[i] = v;
            v = base + (k + 1) * c.step;
        }
        if (running) base = v;
    }
}

// "Constant": one value over the whole grid, whatever the start (no cell is
// left out for it).
void FillConstant(LayoutGrid& g, double value) {
    std::fill(g.value.begin(), g.value.end(), value);
}

using Written = std::map<std::pair<cWafer*, std::pair<int, int>>, double>;

// Step 11: the grid into the variable's column; cells off the path keep
// their values. Answers what was written, by wafer and cell.
Written WriteColumn(Datam& table, const std::vector<TableRow>& rows, const LayoutGrid& g, int column) {
    Written written;
    const int tc = table.colLb() + column - 1;
    for (const TableRow& t : rows) {
        const int i = g.index(t.dieX - g.x0, t.dieY - g.y0);
        if (g.state[i] == LayoutGrid::Excluded) continue;
        const double v = g.value[i];
        table(t.row, tc) = column == 10 ? Value(DirectionWord(std::lround(v))) : Value(v);
        written[{t.wafer, {t.dieX, t.dieY}}] = v;
    }
    return written;
}

// Step 12: the values onto the lot's fields, the settings into each wafer's
// cLayout of the variable.
void ApplyToLot(const std::vector<cWafer*>& wafers, const Written& written, int column, const MeanderKind& kind,
                const LayoutControls& c) {
    for (cWafer* w : wafers) {
        for (cField* f : w->Fields()) {
            auto it = written.find({w, {static_cast<int>(std::lround(f->DieX)), static_cast<int>(std::lround(f->DieY))}});
            if (it == written.end()) continue;
            if (float* m = FieldMember(*f, column))
                *m = static_cast<float>(it->second);
            else
                f->SetDirection(DirectionWord(std::lround(it->second)));
        }
        cLayout& l = LayoutOf(*w, kFPdataHeads[column - 1]);
        l.InitialValue = static_cast<float>(c.initial);
        l.Step = static_cast<float>(c.step);
        l.Meander = c.program;
        l.ControlIndex = c.controlIndex;
        l.Scan1 = kind.scan1;
        l.Scan2 = kind.scan2;
        l.DieXo = c.dieXo;
        l.DieYo = c.dieYo;
    }
}

// The table made again from the lot, saved when there is a workbook.
Status RemakeTable(cLot& lot, Datam& table, Workbook* workbook) {
    Result<Datam> fresh = MakeFPdata(&lot);
    if (!fresh) return fresh.failure();
    table = std::move(fresh.value());
    if (workbook) return SaveFPdata(lot, table, workbook);
    return StatusOk();
}

}  // namespace

Result<LayoutOutcome> CalculateLayout(LayoutControls& c, cLot& lot, Datam* table, const LayoutCalcOptions& o) {
    Proc p("LayoutPgms(CalculateLayout): ");
    LayoutOutcome out;
    p.chk = 1;
    if (!table || !table->isArray() || table->dims() != 2) return p.fail("An input calibration table was not provided.");

    p.chk = 2;
    if (!c.meander.empty())
        if (const int k = MeanderControlIndex(c.meander); k >= 0) c.controlIndex = k;
    const MeanderKind& kind = MeanderOf(c.controlIndex);
    out.kind = &kind;

    p.chk = 3;
    const int column = LayoutVariableColumn(c.variable);
    out.column = column;
    const std::vector<cWafer*> wafers = LayoutWafers(lot, c.wafer);
    if (wafers.empty()) return p.fail("No data in lot object.");

    p.chk = 4;
    if (!IsMeanderProgram(c.program)) return p.fail("Unknown meander program: " + c.program);
    const bool constant = IEquals(c.program, "Constant");
    if (constant) c.step = 0;
    out.step = c.step;

    p.chk = 7;
    if (table->rowUb() - table->rowLb() != TotalFields(lot))
        if (Status s = RemakeTable(lot, *table, o.workbook); !s) return s.failure();

    p.chk = 8;
    const std::vector<TableRow> rows = WaferRows(*table, wafers);
    out.grid = BuildGrid(rows);
    LayoutGrid& g = out.grid;

    // What the original met as a subscript out of range: a start field off
    // the grid, or a table without the variable's column.
    const int sx = static_cast<int>(std::lround(c.dieXo)), sy = static_cast<int>(std::lround(c.dieYo));
    if (rows.empty() || !g.contains(sx, sy) || table->colUb() < table->colLb() + column - 1) {
        p.chk = 13;
        const std::string question = "Layout File may be corrupted.\r\nGenerate new file? ";
        const bool yes = o.ask ? o.ask(question) : MsgBox(question, vbYesNo | vbQuestion, p.tag()) == vbYes;
        if (!yes) return p.fail("Error: Layout not updated.");
        if (Status s = RemakeTable(lot, *table, o.workbook); !s) return s.failure();
        out.note = "Layout re-calculated.";
        out.grid = LayoutGrid{};
        return out;
    }

    p.chk = 9;
    const int sc = sx - g.x0, sr = sy - g.y0;
    if (!constant) {
        MarkExcluded(g, sc, sr, kind.scan1);
        MarkExcluded(g, sc, sr, kind.scan2);
    }

    p.chk = 10;
    if (constant)
        FillConstant(g, c.initial);
    else
        WalkValues(g, sc, sr, kind, c);

    p.chk = 11;
    const Written written = WriteColumn(*table, rows, g, column);
    out.rowsWritten = static_cast<int>(written.size());

    p.chk = 12;
    ApplyToLot(wafers, written, column, kind, c);
    lot.SetModified();
    return out;
}

}  // namespace zorv
