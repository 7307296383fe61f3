// Extents, building and copying, element-wise arithmetic, look-ups.
#include "numerics/matrix.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <string>

#include "base/proc.h"
#include "base/text.h"
#include "tell.h"

namespace zorv {

// ---- cell tests -------------------------------------------------------------

bool IsBlank(const Value& v) {
    switch (v.type()) {
        case VType::Empty:
        case VType::Null:
        case VType::Array: return true;
        case VType::String: return v.str().empty();
        default: return false;  // numbers, dates, Booleans and errors always have a text form
    }
}

bool NumericOf(const Value& v, double& out) {
    switch (v.type()) {
        case VType::Integer:
        case VType::Long:
        case VType::Single:
        case VType::Double:
        case VType::Boolean: out = v.toDouble(); return true;
        case VType::String: {
            const std::string_view s = v.str();
            if (s.empty()) return false;
            if (ParseNumber(s, out)) return true;
            if (s.find('%') == std::string_view::npos) return false;
            std::string t;
            t.reserve(s.size());
            for (char c : s)
                if (c != '%') t += c;
            return ParseNumber(t, out);
        }
        default: return false;
    }
}

int VecCol(const Datam& v) {
    if (!v.isArray() || v.dims() != 2) return 0;
    return (v.colLb() <= 1 && v.colUb() >= 1) ? 1 : v.colLb();
}

int FirstData(const Datam& m, int dim) {
    if (!m.isArray() || dim > m.dims()) return 1;
    return std::max(dim == 1 ? m.rowLb() : m.colLb(), 1);
}

namespace {

const Value& EmptyValue() {
    static const Value empty;
    return empty;
}

// A number for arithmetic: numeric text, numbers, dates. Empty and other
// text are not.
bool ArithOf(const Value& v, double& out) {
    if (v.isEmpty()) return false;
    if (v.isDate()) {
        out = v.toDouble();
        return true;
    }
    return NumericOf(v, out);
}

// "0.000000" form of a value taken as a 32-bit float.
std::string Fixed6(double d) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6f", static_cast<double>(static_cast<float>(d)));
    return buf;
}

// Applies f to each data cell of m; a cell f does not take (returns false)
// keeps its value. Header row and key column are carried unchanged.
template <class F>
Datam MapCells(const Datam& m, F&& f) {
    Datam out = m;
    if (!out.isArray() || out.dims() != 2) return out;
    const int r0 = FirstData(m, 1), c0 = FirstData(m, 2);
    for (int r = r0; r <= m.rowUb(); ++r)
        for (int c = c0; c <= m.colUb(); ++c) {
            double x;
            Value& cell = out(r, c);
            if (!ArithOf(cell, x)) continue;
            f(cell, x);
        }
    return out;
}

// The operand cell that meets cell (r, c) of the left table: the same cell,
// or the vector's cell in row r when the operand has one column.
const Value& OperandCell(const Datam& b, int r, int c) {
    if (b.dims() == 1) return b.inRange(r) ? b.at(r) : EmptyValue();
    if (b.inRange(r, c)) return b(r, c);
    if (b.colCount() == 1) return b.get(r, b.colLb());
    return b.get(r, VecCol(b));
}

int RowsOf(const Datam& b) { return b.isArray() ? b.rowUb() : -1; }

// a (op) b element by element. An empty cell on either side gives an empty
// cell; text in a is carried; an undefined result (division by 0) is empty.
template <class Op>
Datam Binary(const Datam& a, const MatOperand& b, Op op) {
    Datam out = a;
    if (!out.isArray() || out.dims() != 2) return out;
    int lastRow = a.rowUb();
    if (b.isTable()) lastRow = std::min(lastRow, RowsOf(b.table()));
    const int r0 = FirstData(a, 1), c0 = FirstData(a, 2);
    for (int r = r0; r <= lastRow; ++r)
        for (int c = c0; c <= a.colUb(); ++c) {
            Value& cell = out(r, c);
            if (cell.isEmpty()) continue;
            double x, y;
            if (!ArithOf(cell, x)) continue;
            if (b.isTable()) {
                const Value& bc = OperandCell(b.table(), r, c);
                if (!ArithOf(bc, y)) {
                    cell = Value();
                    continue;
                }
            } else {
                y = b.scalar();
            }
            double z;
            if (op(x, y, z))
                cell = Value(z);
            else
                cell = Value();
        }
    if (lastRow < a.rowUb()) out.redimPreserve(std::max(lastRow, a.rowLb() - 1), a.colUb());
    return out;
}

}  // namespace

// ---- extents ----------------------------------------------------------------

int mat_LastCol(const Datam& m, bool asIs, int row) {
    if (!m.isArray() || m.dims() != 2) return 0;
    if (asIs || m.colCount() == 1) return m.colUb();
    if (row == kMissing) row = m.colLb();  // the second dimension's bound, as written
    for (int c = m.colUb(); c >= 1; --c) {
        const Value& v = m.get(row, c);
        if (!v.isError() && !IsBlank(v)) return c;
    }
    return 0;
}

namespace {
int LastInColumn(const Datam& m, int c) {
    for (int r = m.rowUb(); r >= m.rowLb(); --r)
        if (!IsBlank(m.get(r, c))) return r;
    return m.rowLb();
}
}  // namespace

int mat_LastRow(const Datam& m, int col) {
    if (!m.isArray()) return -1;
    if (m.dims() == 1) {  // two subscripts fail: walk the single one
        for (int i = m.rowUb(); i >= m.rowLb(); --i)
            if (!IsBlank(m.at(i))) return i;
        return m.rowLb();
    }
    if (col < 0) {
        if (m.colCount() == 1) return LastInColumn(m, m.colLb());
        const int lastCol = mat_LastCol(m);
        int last = m.rowLb();
        for (int c = std::max(1, m.colLb()); c <= lastCol; ++c) {
            last = LastInColumn(m, c);
            if (last > m.rowLb()) break;
        }
        return last;
    }
    if (col > mat_LastCol(m)) return -1;
    return LastInColumn(m, col);
}

namespace {
template <class Cmp>
double SeededExtreme(const Value* b, const Value* e, Cmp better) {
    if (b == e) return 0;
    double best = b->toDouble();
    for (const Value* p = b; p != e; ++p) {
        double x;
        if (!IsNumericValue(*p) || !NumericOf(*p, x)) continue;
        if (better(x, best)) best = x;
    }
    return best;
}
}  // namespace

double mv_Max(std::initializer_list<Value> list) {
    return SeededExtreme(list.begin(), list.end(), [](double x, double b) { return x > b; });
}
double mv_Min(std::initializer_list<Value> list) {
    return SeededExtreme(list.begin(), list.end(), [](double x, double b) { return x < b; });
}
double mv_Max(const std::vector<Value>& list) {
    return SeededExtreme(list.data(), list.data() + list.size(),
                         [](double x, double b) { return x > b; });
}
double mv_Min(const std::vector<Value>& list) {
    return SeededExtreme(list.data(), list.data() + list.size(),
                         [](double x, double b) { return x < b; });
}

namespace {
// Calls f(x) for each numeric, non-blank data cell of a vector.
template <class F>
void ForVec(const Datam& v, F&& f) {
    if (!v.isArray()) return;
    if (v.dims() == 1) {
        for (int i = FirstData(v, 1); i <= v.rowUb(); ++i) {
            double x;
            if (NumericOf(v.at(i), x)) f(x);
        }
        return;
    }
    const int c = VecCol(v);
    for (int r = FirstData(v, 1); r <= v.rowUb(); ++r) {
        double x;
        if (NumericOf(v(r, c), x)) f(x);
    }
}
}  // namespace

double vec_Max(const Datam& v) {
    double best = -3.402e38;
    ForVec(v, [&](double x) { best = std::max(best, x); });
    return best;
}

double vec_Min(const Datam& v) {
    double best = 3.402e38;
    ForVec(v, [&](double x) { best = std::min(best, x); });
    return best;
}

Datam mat_Bounds(const Datam& m) {
    if (!m.isArray()) return {};
    Datam b(m.dims(), 2, 1, 1);
    for (int d = 1; d <= m.dims() && d <= 10; ++d) {
        b(d, 1) = Value(int32_t(m.lb(d)));
        b(d, 2) = Value(int32_t(m.ub(d)));
    }
    return b;
}

// ---- building and copying -----------------------------------------------------

Datam vec_Fill(int count, const Value& value) {
    Datam v(count, 1, 0, 1);
    for (int r = 0; r <= count; ++r) v(r, 1) = value;
    return v;
}

Datam mat_copy(const Datam& m) { return m; }

void mat_redim(Datam& m, int rows, int cols) {
    if (!m.isArray() || m.dims() != 2) {
        m = Datam(rows, cols, 1, 1);
        return;
    }
    const int rlb = m.rowLb() == 0 ? 0 : 1;
    if (rlb == m.rowLb())
        m.redim(rows, cols, rlb, m.colLb(), true);
    else {
        Datam next(rows, cols, rlb, m.colLb());
        for (int r = std::max(rlb, m.rowLb()); r <= std::min(rows, m.rowUb()); ++r)
            for (int c = m.colLb(); c <= std::min(cols, m.colUb()); ++c) next(r, c) = m(r, c);
        m = std::move(next);
    }
}

Datam mat_vector(const Datam& m, bool byRow, int index) {
    if (!m.isArray() || m.dims() != 2) return {};
    if (byRow) {
        Datam v(m.colUb(), 1, m.colLb(), 1);
        for (int c = m.colLb(); c <= m.colUb(); ++c) v(c, 1) = m.get(index, c);
        return v;
    }
    Datam v(m.rowUb(), 1, m.rowLb(), 1);
    for (int r = m.rowLb(); r <= m.rowUb(); ++r) v(r, 1) = m.get(r, index);
    return v;
}

Datam mat_partition(const Datam& m, int fromRow, int fromCol, int toRow, int toCol, int rowKeyCol,
                    Notes* notes) {
    Proc p("MathUtil(mat_partition): ");
    if (!m.isArray() || m.dims() != 2) {
        p.error("Type mismatch");
        TellFailure(notes, p.failure());
        return {};
    }
    p.chk = 1;
    if (fromRow == kMissing) fromRow = std::max(1, m.rowLb());
    if (fromCol == kMissing) fromCol = std::max(1, m.colLb());
    fromRow = std::max(fromRow, m.rowLb());
    fromCol = std::max(fromCol, m.colLb());
    if (toRow == kMissing || toRow < 0 || toRow > m.rowUb()) toRow = m.rowUb();
    if (toCol == kMissing || toCol < 0 || toCol > m.colUb()) toCol = m.colUb();

    p.chk = 2;
    // Header: row 0 of the source, or the row found by the upward search.
    int headerRow = kMissing;
    if (m.rowLb() == 0 && fromRow > 0 && mat_LastRow(m) > 0) headerRow = 0;
    if (rowKeyCol < 0) {
        for (int r = fromRow; r >= m.rowLb(); --r) {
            const Value& v = m.get(r, fromCol);
            if (IsBlank(v) || IsNumericValue(v) || v.isDate()) continue;
            if (IsNumericValue(m.get(r + 1, fromCol))) {
                headerRow = r;
                break;
            }
        }
    }

    p.chk = 3;
    // Same base as the request: a request from row/column 0 keeps 0-based
    // numbering; otherwise data starts at 1 and row 0 holds the header.
    const int rowShift = fromRow == 0 ? 0 : fromRow - 1;
    const int colShift = fromCol == 0 ? 0 : fromCol - 1;
    const int rlb = (fromRow == 0 || m.rowLb() == 0 || headerRow != kMissing) ? 0 : 1;
    const int clb = (fromCol == 0 || m.colLb() == 0) ? 0 : 1;
    const int nr = std::max(toRow - fromRow + 1, 0), nc = std::max(toCol - fromCol + 1, 0);
    const int rub = (fromRow == 0 ? -1 : 0) + nr, cub = (fromCol == 0 ? -1 : 0) + nc;
    Datam out(rub, cub, rlb, clb);
    for (int r = fromRow; r <= toRow; ++r) {
        const int orow = r - rowShift;
        for (int c = fromCol; c <= toCol; ++c) out(orow, c - colShift) = m(r, c);
        if (rowKeyCol >= 0 && clb == 0 && fromCol > 0) out(orow, 0) = m.get(r, rowKeyCol);
    }
    if (headerRow != kMissing && fromRow > 0)
        for (int c = fromCol; c <= toCol; ++c) out(0, c - colShift) = m(headerRow, c);
    return out;
}

Datam mat_append(const Datam& a, const Datam& b, std::string_view mode) {
    if (!a.isArray() || a.dims() != 2) return b;
    if (!b.isArray() || b.dims() != 2) return a;
    const std::string md = Upper(std::string(mode));
    if (md == "ADDCOLUMNS") {
        const int b0 = FirstData(b, 2);
        const int extra = std::max(b.colUb() - b0 + 1, 0);
        const int rub = std::max(a.rowUb(), b.rowUb());
        Datam out(rub, a.colUb() + extra, a.rowLb(), a.colLb());
        for (int r = a.rowLb(); r <= a.rowUb(); ++r)
            for (int c = a.colLb(); c <= a.colUb(); ++c) out(r, c) = a(r, c);
        for (int r = std::max(b.rowLb(), a.rowLb()); r <= b.rowUb(); ++r)
            for (int c = b0; c <= b.colUb(); ++c) out(r, a.colUb() + c - b0 + 1) = b(r, c);
        return out;
    }
    // ADDROWS and VECTOR: b's data rows under a's rows; b's header row is not repeated.
    const int b0 = FirstData(b, 1);
    const int extra = std::max(b.rowUb() - b0 + 1, 0);
    const int cub = md == "VECTOR" ? a.colUb() : std::max(a.colUb(), b.colUb());
    Datam out(a.rowUb() + extra, cub, a.rowLb(), a.colLb());
    for (int r = a.rowLb(); r <= a.rowUb(); ++r)
        for (int c = a.colLb(); c <= a.colUb(); ++c) out(r, c) = a(r, c);
    for (int r = b0; r <= b.rowUb(); ++r) {
        const int orow = a.rowUb() + r - b0 + 1;
        if (md == "VECTOR")
            out(orow, VecCol(out)) = b(r, VecCol(b));
        else
            for (int c = std::max(b.colLb(), a.colLb()); c <= b.colUb(); ++c) out(orow, c) = b(r, c);
    }
    return out;
}

Datam mat_delrc(const Datam& m, const Datam& list, bool byRow, Notes* notes) {
    Proc p("MathUtility(mat_delrc): ");
    if (!m.isArray() || m.dims() != 2) {
        p.error("Type mismatch");
        TellFailure(notes, p.failure());
        return {};
    }
    const int lo = byRow ? m.rowLb() : m.colLb(), hi = byRow ? m.rowUb() : m.colUb();
    std::vector<char> drop(static_cast<size_t>(hi - lo + 1), 0);
    size_t ndrop = 0;
    auto mark = [&](const Value& v) {
        double x;
        if (!NumericOf(v, x)) return;
        const long long i = std::llround(x);
        if (i < lo || i > hi || drop[static_cast<size_t>(i - lo)]) return;
        drop[static_cast<size_t>(i - lo)] = 1;
        ++ndrop;
    };
    if (list.isArray()) {
        if (list.dims() == 1)
            for (int i = list.rowLb(); i <= list.rowUb(); ++i) mark(list.at(i));
        else
            for (int r = list.rowLb(); r <= list.rowUb(); ++r)
                for (int c = list.colLb(); c <= list.colUb(); ++c) mark(list(r, c));
    }
    if (ndrop == 0) return m;
    p.chk = 2;
    const int n = static_cast<int>(ndrop);
    Datam out = byRow ? Datam(m.rowUb() - n, m.colUb(), m.rowLb(), m.colLb())
                      : Datam(m.rowUb(), m.colUb() - n, m.rowLb(), m.colLb());
    if (byRow) {
        int orow = m.rowLb();
        for (int r = m.rowLb(); r <= m.rowUb(); ++r) {
            if (drop[static_cast<size_t>(r - lo)]) continue;
            for (int c = m.colLb(); c <= m.colUb(); ++c) out(orow, c) = m(r, c);
            ++orow;
        }
    } else {
        for (int r = m.rowLb(); r <= m.rowUb(); ++r) {
            int oc = m.colLb();
            for (int c = m.colLb(); c <= m.colUb(); ++c)
                if (!drop[static_cast<size_t>(c - lo)]) out(r, oc++) = m(r, c);
        }
    }
    return out;
}

Datam mat_delrc(const Datam& m, int index, bool byRow, Notes* notes) {
    Datam list(1, 1, 1, 1);
    list(1, 1) = Value(int32_t(index));
    return mat_delrc(m, list, byRow, notes);
}

Datam vec_DropEmpty(const Datam& v) {
    if (!v.isArray() || v.dims() != 2 || v.colCount() < 1) return {};
    const int c = VecCol(v);
    int n = 0;
    for (int r = v.rowLb(); r <= v.rowUb(); ++r)
        if (!v(r, c).isEmpty() && !v(r, c).isNull()) ++n;
    if (n == 0) return {};
    Datam out(v.rowLb() + n - 1, 1, v.rowLb(), 1);
    int o = v.rowLb();
    for (int r = v.rowLb(); r <= v.rowUb(); ++r)
        if (!v(r, c).isEmpty() && !v(r, c).isNull()) out(o++, 1) = v(r, c);
    return out;
}

bool mat_SwapRows(Datam& m, int a, int b, Notes* notes) {
    Proc p("MathUtil(mat_SwapRows): ");
    if (!m.isArray() || m.dims() != 2 || a < m.rowLb() || a > m.rowUb() || b < m.rowLb() ||
        b > m.rowUb()) {
        p.error("Subscript out of range");
        TellFailure(notes, p.failure());
        return false;
    }
    if (a == b) return true;
    Value* ra = &m(a, m.colLb());
    Value* rb = &m(b, m.colLb());
    std::swap_ranges(ra, ra + m.colCount(), rb);
    return true;
}

// ---- arithmetic -------------------------------------------------------------

Datam mat_scale(const Datam& m, double s) {
    return MapCells(m, [s](Value& cell, double x) { cell = Value(x * s); });
}

Datam mat_mulRegion(const Datam& a, const Datam& b, RegionTouched* touched, int fromRow,
                    int fromCol, int toRow, int toCol) {
    Datam out = a;
    RegionTouched t{std::numeric_limits<int>::max(), std::numeric_limits<int>::max(), kMissing,
                    kMissing};
    if (out.isArray() && out.dims() == 2 && b.isArray()) {
        if (fromRow == kMissing) fromRow = FirstData(a, 1);
        if (fromCol == kMissing) fromCol = FirstData(a, 2);
        if (toRow == kMissing || toRow < 0) toRow = a.rowUb();
        if (toCol == kMissing || toCol < 0) toCol = a.colUb();
        fromRow = std::max(fromRow, a.rowLb());
        fromCol = std::max(fromCol, a.colLb());
        toRow = std::min(toRow, a.rowUb());
        toCol = std::min(toCol, a.colUb());
        for (int r = fromRow; r <= toRow; ++r)
            for (int c = fromCol; c <= toCol; ++c) {
                double x, y;
                Value& cell = out(r, c);
                if (!ArithOf(cell, x) || !ArithOf(b.get(r, c), y)) continue;
                cell = Value(x * y);
                t.minRow = std::min(t.minRow, r);
                t.minCol = std::min(t.minCol, c);
                t.maxRow = std::max(t.maxRow, r);
                t.maxCol = std::max(t.maxCol, c);
            }
    }
    if (t.maxRow == kMissing) t = RegionTouched{};
    if (touched) *touched = t;
    return out;
}

Datam mat_sum(std::initializer_list<MatOperand> terms) {
    Datam out;
    const Datam* shape = nullptr;
    for (const MatOperand& t : terms)
        if (t.isTable() && t.table().isArray() && t.table().dims() == 2) {
            shape = &t.table();
            break;
        }
    if (!shape) return out;
    out = *shape;
    bool first = true;
    for (const MatOperand& t : terms) {
        if (t.missing()) continue;
        if (t.isTable() && &t.table() == shape && first) {
            first = false;
            continue;
        }
        if (t.isTable()) {
            const Datam& b = t.table();
            const int r0 = FirstData(out, 1), c0 = FirstData(out, 2);
            for (int r = r0; r <= out.rowUb(); ++r)
                for (int c = c0; c <= out.colUb(); ++c) {
                    double x, y;
                    Value& cell = out(r, c);
                    if (!ArithOf(cell, x) || !ArithOf(b.get(r, c), y)) continue;
                    cell = Value(x + y);
                }
        } else {
            const double s = t.scalar();
            out = MapCells(out, [s](Value& cell, double x) { cell = Value(x + s); });
        }
    }
    return out;
}

Datam vec_sub(const Datam& a, const MatOperand& b, Notes* notes) {
    Proc p("MathUtility(vec_sub): ");
    if (b.missing()) {
        TellFailure(notes, p.fail("Second vector not submitted."));
        return {};
    }
    if (b.isTable() && a.isArray() && b.table().isArray() &&
        a.rowUb() != b.table().rowUb())
        TellWarning(notes, {"Warning: unequal length vectors in Subtraction.", p.tag(), true});
    return Binary(a, b, [](double x, double y, double& z) {
        z = x - y;
        return true;
    });
}

Datam vec_mul(const Datam& a, const MatOperand& b) {
    if (b.missing()) return a;
    return Binary(a, b, [](double x, double y, double& z) {
        z = x * y;
        return true;
    });
}

Datam vec_div(const Datam& a, const MatOperand& b) {
    if (b.missing()) return a;
    return Binary(a, b, [](double x, double y, double& z) {
        if (y == 0) return false;
        z = x / y;
        return true;
    });
}

Datam vec_abs(const Datam& v) {
    return MapCells(v, [](Value& cell, double x) { cell = Value(std::fabs(x)); });
}

Datam vec_pow(const Datam& v, double power) {
    return MapCells(v, [power](Value& cell, double x) {
        const double z = std::pow(x, power);
        cell = std::isfinite(z) ? Value(z) : Value();
    });
}

Datam vec_sqrt(const Datam& v) {
    return MapCells(v, [](Value& cell, double x) { cell = x >= 0 ? Value(std::sqrt(x)) : Value(); });
}

Datam vec_recip(const Datam& v) {
    return MapCells(v, [](Value& cell, double x) { cell = x != 0 ? Value(1.0 / x) : Value(); });
}

Datam mat_scaleCols(const Datam& m, const Datam& factors, bool byRow) {
    Datam out = m;
    if (!out.isArray() || out.dims() != 2 || !factors.isArray()) return out;
    const int fc = factors.dims() == 2 ? VecCol(factors) : 0;
    auto factor = [&](int i, double& f) {
        const Value& v = factors.dims() == 1 ? (factors.inRange(i) ? factors.at(i) : EmptyValue())
                                             : factors.get(i, fc);
        return ArithOf(v, f);
    };
    const int r0 = FirstData(m, 1), c0 = FirstData(m, 2);
    for (int r = r0; r <= m.rowUb(); ++r)
        for (int c = c0; c <= m.colUb(); ++c) {
            double x, f;
            Value& cell = out(r, c);
            if (!ArithOf(cell, x) || !factor(byRow ? r : c, f)) continue;
            cell = Value(x * f);
        }
    return out;
}

Datam mat_center(const Datam& m, int fromCol, int toCol, Datam* means) {
    Datam out = m;
    if (!m.isArray() || m.dims() != 2) return out;
    if (fromCol == kMissing) fromCol = FirstData(m, 2);
    if (toCol == kMissing || toCol < 0 || toCol > m.colUb()) toCol = m.colUb();
    fromCol = std::max(fromCol, m.colLb());
    Datam mv(std::max(toCol, 1), 1, 1, 1);
    const int r0 = FirstData(m, 1);
    for (int c = fromCol; c <= toCol; ++c) {
        const double mean = mat_rcstat1(m, "MEAN", c);
        if (c >= 1) mv(c, 1) = Value(mean);
        for (int r = r0; r <= m.rowUb(); ++r) {
            Value& cell = out(r, c);
            if (IsBlank(cell) || !cell.isNumericPlain()) continue;
            cell = Value(cell.toDouble() - mean);
        }
    }
    if (means) *means = std::move(mv);
    return out;
}

double vec_center(Datam& v) {
    const double mean = vec_Mean(v);
    v = MapCells(v, [mean](Value& cell, double x) { cell = Value(x - mean); });
    return mean;
}

Datam mat_vecProduct(const Datam& m, const Datam& v) {
    if (!m.isArray() || m.dims() != 2 || !v.isArray()) return {};
    Datam out(m.rowUb(), 1, m.rowLb(), 1);
    const int vc = v.dims() == 2 ? VecCol(v) : 0;
    const int c0 = FirstData(m, 2);
    for (int r = FirstData(m, 1); r <= m.rowUb(); ++r) {
        double s = 0;
        for (int c = c0; c <= m.colUb(); ++c) {
            double x, y;
            const Value& vv = v.dims() == 1 ? (v.inRange(c) ? v.at(c) : EmptyValue())
                                            : v.get(c, vc);
            if (!ArithOf(m(r, c), x) || !ArithOf(vv, y)) continue;
            s += x * y;
        }
        out(r, 1) = Value(s);
    }
    return out;
}

Datam mat_diag(const Datam& m) {
    if (!m.isArray() || m.dims() != 2) return {};
    const int lo = std::max(FirstData(m, 1), FirstData(m, 2));
    const int hi = std::min(m.rowUb(), m.colUb());
    Datam out(std::max(hi, lo - 1), 1, lo, 1);
    for (int i = lo; i <= hi; ++i) out(i, 1) = m(i, i);
    return out;
}

double vec_Sum(const Datam& v) {
    double s = 0;
    ForVec(v, [&](double x) { s += x; });
    return s;
}

double vec_Mean(const Datam& v) {
    double s = 0;
    long long n = 0;
    ForVec(v, [&](double x) { s += x, ++n; });
    return n ? s / static_cast<double>(n) : 0.0;
}

double vec_SS(const Datam& v, bool aboutMean) {
    const double mean = aboutMean ? vec_Mean(v) : 0.0;
    double s = 0;
    ForVec(v, [&](double x) { s += (x - mean) * (x - mean); });
    return s;
}

namespace {
// (n sum(x^2) - (sum x)^2) / (n (n - 1)); 0 below 2 values.
double SampleVariance(const Datam& v, int& n) {
    double s = 0, ss = 0;
    long long k = 0;
    ForVec(v, [&](double x) { s += x, ss += x * x, ++k; });
    n = static_cast<int>(k);
    if (k < 2) return 0;
    const double dn = static_cast<double>(k);
    return (dn * ss - s * s) / (dn * (dn - 1));
}
}  // namespace

double vec_StDev(const Datam& v, int* n) {
    int k = 0;
    const double var = SampleVariance(v, k);
    if (n) *n = k;
    return k < 2 ? 0.0 : std::sqrt(std::fabs(var));
}

double vec_SEM(const Datam& v) {
    int k = 0;
    const double var = SampleVariance(v, k);
    if (k < 3) return kNoSEM;
    return std::sqrt(std::fabs(var) / k);
}

double svd_Sign(double a, double b) { return b >= 0 ? std::fabs(a) : -std::fabs(a); }

// Through the arctangent, as the original language had no inverse sine.
// At |x| = 1 the quotient is infinite and the arctangent gives the limit.
double ArcSin(double x) { return std::atan(x / std::sqrt(-x * x + 1)); }
double ArcCos(double x) { return std::atan(-x / std::sqrt(-x * x + 1)) + 2 * std::atan(1.0); }

void mat_StdErrCols(Datam& m, int fromCol, int toCol) {
    if (!m.isArray() || m.dims() != 2) return;
    if (fromCol == kMissing) fromCol = FirstData(m, 2);
    if (toCol == kMissing || toCol < 0 || toCol > m.colUb()) toCol = m.colUb();
    fromCol = std::max(fromCol, m.colLb());
    for (int c = fromCol; c <= toCol; ++c) {
        const double mean = mat_rcstat1(m, "MEAN", c);
        const double sd = mat_rcstat1(m, "STDERR", c);
        if (sd == 0) continue;
        for (int r = FirstData(m, 1); r <= m.rowUb(); ++r) {
            Value& cell = m(r, c);
            if (IsBlank(cell) || !cell.isNumericPlain()) continue;
            cell = Value((cell.toDouble() - mean) / sd);
        }
    }
}

// ---- search -----------------------------------------------------------------

namespace {
// Upper-cased text equality, or for a numeric name and a numeric cell the
// "0.000000" forms of both as 32-bit floats.
struct KeyMatcher {
    std::string upper;
    bool numeric = false;
    double value = 0;
    std::string fixed;
    explicit KeyMatcher(const Value& key) : upper(Upper(key.toString())) {
        if (NumericOf(key, value)) {
            numeric = true;
            fixed = Fixed6(value);
        }
    }
    bool operator()(const Value& cell) const {
        const VType t = cell.type();
        if (t == VType::Integer || t == VType::Long || t == VType::Single || t == VType::Double) {
            // A number's text is numeric: only a numeric name can match it, and
            // then the "0.000000" forms decide; far-apart values need no formatting.
            if (!numeric) return false;
            const double x = cell.toDouble();
            if (std::fabs(x - value) > 1e-5 * std::max(1.0, std::fabs(value))) return false;
            return Fixed6(x) == fixed;
        }
        if (cell.isString()) {
            const std::string_view s = cell.str();
            if (s.size() == upper.size()) {
                bool same = true;
                for (size_t i = 0; i < s.size() && same; ++i)
                    same = std::toupper(static_cast<unsigned char>(s[i])) ==
                           static_cast<unsigned char>(upper[i]);
                if (same) return true;
            }
        } else if (!cell.isEmpty() && Upper(cell.toString()) == upper) {
            return true;
        }
        double x;
        return numeric && NumericOf(cell, x) && Fixed6(x) == fixed;
    }
};
}  // namespace

int FindColumn(const Datam& m, const Value& name, int row, int start) {
    if (!m.isArray() || m.dims() != 2) return 0;
    if (row == kMissing) row = m.rowLb();
    if (start == kMissing) start = m.colLb();
    const KeyMatcher match(name);
    for (int c = m.colUb(); c >= start; --c)
        if (match(m.get(row, c))) return c;
    return std::min(start - 1, 0);
}

int RowNumber(const Datam& m, const Value& key, int col, int start) {
    if (!m.isArray() || m.dims() != 2) return 0;
    if (col == kMissing) col = m.colLb();
    if (start == kMissing) start = m.rowLb();
    const KeyMatcher match(key);
    for (int r = m.rowUb(); r >= start; --r)
        if (match(m.get(r, col))) return r;
    return std::min(start - 1, 0);
}

}  // namespace zorv
