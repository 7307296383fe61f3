#include "graphics/axis.h"

#include <algorithm>
#include <cmath>

#include "base/format.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/value.h"
#include "numerics/equation.h"
#include "numerics/matrix.h"
#include "numerics/tickformat.h"

namespace zorv {

// ---- cAxis --------------------------------------------------------------------

Status cAxis::SetStyle(const cAxis* other) {
    Proc p("cAxis(SetStyle): ");
    p.chk = 1;
    if (!other) {
        p.error("Object variable or With block variable not set");
        return p.failure();
    }
    Color = other->Color;
    Font = other->Font;
    HighValue = other->HighValue;
    LowValue = other->LowValue;
    nPenWidth = other->nPenWidth;
    PlotGridline = other->PlotGridline;
    Resolution = other->Resolution;
    TickFormat = other->TickFormat;
    TickInterval = other->TickInterval;
    return StatusOk();
}

void cAxis::ResetScale() {
    LowValue = OriginLowValue;
    HighValue = OriginHighValue;
    UnitsPerTick = OriginTickInterval;
    TickFormat = OriginTickFormat;
}

float cAxis::TickStep() const {
    if (TickInterval != 0) return TickInterval;
    if (UnitsPerTick > 0) return UnitsPerTick;
    return std::fabs(HighValue - LowValue) / 9.0f;
}

// ---- CalcAutoScale ------------------------------------------------------------------

namespace {

// The running range of the scan. A bound still at 0 takes the next value as it
// is, so a 0 never holds the range.
struct RunningRange {
    float high = 0, low = 0;
    void add(float v) {
        if (high == 0) high = v;
        high = std::max(high, v);
        if (low == 0) low = v;
        low = std::min(low, v);
    }
};

bool ColumnIn(const Datam& t, int col) { return col >= 0 && col >= t.colLb() && col <= t.colUb(); }

int RoleColumn(const AutoScaleSeries& s, AxisRole role) {
    switch (role) {
        case AxisRole::X: return s.xCol;
        case AxisRole::Y: return s.yCol;
        case AxisRole::Y2: return s.y2Col;
    }
    return -1;
}

// One cell of the scan: a "%" goes from the text, which is stored back; a
// numeric cell is read as a 32-bit float. Only cells holding a "%" allocate.
bool ReadCell(Value& cell, float& out) {
    if (cell.isString()) {
        const std::string_view s = cell.str();
        if (s.empty()) return false;
        if (s.find('%') != std::string_view::npos) {
            std::string t;
            t.reserve(s.size());
            for (char c : s)
                if (c != '%') t += c;
            cell = Value(t);
        }
    }
    if (!IsNumericValue(cell)) return false;
    out = cell.toSingle();
    return true;
}

std::string Lower(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

// The variable a display function takes X as: the X column's header when the
// text uses it, otherwise the first variable the text uses ("" for none).
std::string FunctionVariable(const clsEquation& eq, const Datam& t, int xCol) {
    const Datam names = eq.GetmvarVarNames();
    if (!names.isArray()) return {};
    if (t.rowLb() <= 0 && t.rowUb() >= 0) {
        const Value& h = t(0, xCol);
        const std::string head = Lower(h.isString() ? std::string(h.str()) : h.toString());
        if (!head.empty())
            for (int r = names.rowLb(); r <= names.rowUb(); ++r)
                if (names(r, 1).str() == head) return head;
    }
    return std::string(names(names.rowLb(), 1).str());
}

// A display function at the X values of the first, last and middle rows.
// Returns true when it gave a value.
bool SampleFunction(const AutoScaleSeries& s, const Datam& t, RunningRange& range) {
    clsEquation eq(s.displayFunction);
    const std::string var = FunctionVariable(eq, t, s.xCol);
    const int first = FirstData(t, 1), last = t.rowUb();
    if (last < first) return false;
    const int rows[3] = {first, last, (last + 1) / 2};
    bool any = false;
    for (int r : rows) {
        if (r < first) continue;
        double x = 0;
        if (!NumericOf(t(r, s.xCol), x)) continue;
        if (!var.empty()) eq.Var(var, x);
        if (!eq.Solve()) continue;
        const float v = static_cast<float>(eq.LastValue());
        if (!std::isfinite(v)) continue;
        range.add(v);
        any = true;
    }
    return any;
}

// A value written with the tick format and read back: rounded as the labels show it.
float RoundedTo(float v, const std::string& format) {
    double d = 0;
    return ParseMachineNumber(Format(v, format), d) ? static_cast<float>(d) : v;
}

}  // namespace

Status CalcAutoScale(cAxis& axis, Datam& table, const std::vector<AutoScaleSeries>& series, AxisRole role,
                     int chartType, bool textAxis) {
    Proc p("cAxis(CalcAutoScale): ");
    p.chk = 1;
    if (CheckEscKey()) return StatusOk();
    if (!table.isArray() || table.dims() != 2) {
        p.error("Subscript out of range");
        return p.failure();
    }
    // Only the X axis of a category chart holds the categories.
    const bool text = textAxis || (chartType == 2 && role == AxisRole::X);
    RunningRange range;
    bool colSet = false;

    p.chk = 2;
    for (const AutoScaleSeries& s : series) {
        if (CheckEscKey()) return StatusOk();
        const int col = RoleColumn(s, role);
        if (text) {
            if (!ColumnIn(table, col)) continue;
            p.chk = 3;
            Notes notes;
            const Datam unique = GetUniqueValues(table, col, nullptr, false, &notes);
            if (!unique.isArray()) {
                if (notes.failure) return *notes.failure;
                continue;
            }
            const float count = static_cast<float>(unique.rowUb());
            if (!colSet || count + 1 > range.high) range.high = count + 1;
            colSet = true;
            continue;
        }
        // A function curve lies on Y, or on Y2 when it has a Y2 column.
        const bool onY2 = ColumnIn(table, s.y2Col);
        const bool functionHere =
            (role == AxisRole::Y && !onY2) || (role == AxisRole::Y2 && onY2);
        if (!s.displayFunction.empty() && ColumnIn(table, s.xCol) && role != AxisRole::X) {
            p.chk = 4;
            if (functionHere && SampleFunction(s, table, range)) colSet = true;
            continue;
        }
        if (!ColumnIn(table, col)) continue;
        p.chk = 5;
        colSet = true;
        const int first = FirstData(table, 1), last = table.rowUb();
        for (int r = first; r <= last; ++r) {
            if (((r - first) & 0xFFFF) == 0xFFFF && CheckEscKey()) return StatusOk();
            float v;
            if (ReadCell(table(r, col), v)) range.add(v);
        }
    }

    p.chk = 6;
    float high = range.high, low = range.low;
    if (colSet && high == low) high = low + 5;
    if (text) low = 1;
    float interval = axis.TickInterval;
    if (interval == 0) interval = text ? 1.0f : (high - low) / 9.0f;
    const TickFormat tf = CalcTickFormat(interval, 1);
    high = RoundedTo(high, tf.format);
    low = RoundedTo(low, tf.format);
    if (interval > 0) {
        high += interval;
        low -= interval;
    }

    axis.HighValue = high;
    axis.LowValue = low;
    axis.UnitsPerTick = interval;
    axis.TickFormat = tf.format;
    axis.OriginHighValue = high;
    axis.OriginLowValue = low;
    axis.OriginTickInterval = interval;
    axis.OriginTickFormat = tf.format;
    return StatusOk();
}

// ---- range checks -----------------------------------------------------------------

Status CheckRange(const cAxis& axis, std::string_view rangeText, std::string_view tag) {
    Proc p(tag);
    p.chk = 1;
    if (axis.HighValue == axis.LowValue) return p.fail(std::string(rangeText));
    p.chk = 2;
    const float step = axis.TickStep();
    if (!(step > 0) || !std::isfinite(step) || std::fabs(axis.HighValue - axis.LowValue) / step > kMaxTicks)
        return p.fail(std::string(kBadTickInterval));
    return StatusOk();
}

Status ValidateAxis(const cAxis& axis, char which, bool threeD, std::string_view tag) {
    std::string_view text;
    switch (which) {
        case 'X':
        case 'x': text = threeD ? kXRange3D : kXRange2D; break;
        case 'Z':
        case 'z': text = kZRange3D; break;
        default: text = threeD ? kYRange3D : kYRange2D; break;
    }
    return CheckRange(axis, text, tag);
}

// ---- Axes -----------------------------------------------------------------------

namespace {
bool SameKey(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 'a' + 'A');
        if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 'a' + 'A');
        if (x != y) return false;
    }
    return true;
}
}  // namespace

std::string_view AxisKey(AxisRole role) {
    switch (role) {
        case AxisRole::X: return "X";
        case AxisRole::Y: return "Y";
        case AxisRole::Y2: return "Y2";
    }
    return "X";
}

int Axes::find(std::string_view key) const {
    for (size_t i = 0; i < items_.size(); ++i)
        if (SameKey(items_[i].key, key)) return static_cast<int>(i);
    return -1;
}

cAxis& Axes::Add(std::string_view key) {
    const int i = find(key);
    if (i >= 0) return *items_[static_cast<size_t>(i)].axis;
    items_.push_back({std::string(key), std::make_unique<cAxis>()});
    return *items_.back().axis;
}

cAxis* Axes::Item(std::string_view key) {
    const int i = find(key);
    return i >= 0 ? items_[static_cast<size_t>(i)].axis.get() : nullptr;
}

const cAxis* Axes::Item(std::string_view key) const {
    const int i = find(key);
    return i >= 0 ? items_[static_cast<size_t>(i)].axis.get() : nullptr;
}

cAxis* Axes::Item(int index) {
    if (index < 1 || index > Count()) return nullptr;
    return items_[static_cast<size_t>(index - 1)].axis.get();
}

bool Axes::Remove(std::string_view key) {
    const int i = find(key);
    if (i < 0) return false;
    items_.erase(items_.begin() + i);
    return true;
}

void Axes::Reset() {
    for (auto& e : items_) e.axis->ResetScale();
    if (const cAxis* y2 = Item("Y2")) {
        y2min = y2->LowValue;
        y2max = y2->HighValue;
    }
}

void Axes::LineSegmentsClear() {
    for (auto& e : items_) e.axis->LineSegmentsClear();
}

Status Axes::CalcAutoScale(AxisRole role, Datam& table, const std::vector<AutoScaleSeries>& series,
                           int chartType, bool textAxis) {
    cAxis* a = Item(AxisKey(role));
    if (!a) a = &Add(AxisKey(role));
    Status s = zorv::CalcAutoScale(*a, table, series, role, chartType, textAxis);
    if (s.ok() && role == AxisRole::Y2) {
        y2min = a->LowValue;
        y2max = a->HighValue;
    }
    return s;
}

}  // namespace zorv
