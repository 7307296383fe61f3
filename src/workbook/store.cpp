// The in-memory workbook model and the process-wide list of open workbooks.
#include "workbook/store.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "xlsx_internal.h"

namespace zorv {

using xlsx::IEquals;

// ------------------------------------------------------------ references

std::string_view ErrorText(int32_t code) {
    switch (code) {
    case xlErrNull: return "#NULL!";
    case xlErrDiv0: return "#DIV/0!";
    case xlErrValue: return "#VALUE!";
    case xlErrRef: return "#REF!";
    case xlErrName: return "#NAME?";
    case xlErrNum: return "#NUM!";
    default: return "#N/A";
    }
}

int32_t ErrorCode(std::string_view t) {
    if (t == "#NULL!") return xlErrNull;
    if (t == "#DIV/0!") return xlErrDiv0;
    if (t == "#VALUE!") return xlErrValue;
    if (t == "#REF!") return xlErrRef;
    if (t == "#NAME?") return xlErrName;
    if (t == "#NUM!") return xlErrNum;
    if (t == "#N/A") return xlErrNA;
    if (t == "#GETTING_DATA" || t == "#SPILL!" || t == "#CALC!") return xlErrNA;
    return 0;
}

std::string ColumnLetters(int col) {
    if (col < 1 || col > kMaxCols) return {};
    std::string s;
    while (col > 0) {
        int r = (col - 1) % 26;
        s.insert(s.begin(), char('A' + r));
        col = (col - 1) / 26;
    }
    return s;
}

std::string CellAddress(int row, int col, bool absolute) {
    std::string s;
    if (absolute) s += '$';
    s += ColumnLetters(col);
    if (absolute) s += '$';
    s += std::to_string(row);
    return s;
}

namespace {
// Parses "$A$1", "A", "$1" pieces: col or row may stay 0.
bool ParsePiece(std::string_view t, int& row, int& col) {
    size_t i = 0;
    row = col = 0;
    if (i < t.size() && t[i] == '$') ++i;
    int c = 0;
    size_t letters = 0;
    while (i < t.size() && std::isalpha(static_cast<unsigned char>(t[i]))) {
        c = c * 26 + (std::toupper(static_cast<unsigned char>(t[i])) - 'A' + 1);
        if (++letters > 3) return false;
        ++i;
    }
    if (i < t.size() && t[i] == '$') {
        if (letters == 0 && i + 1 < t.size() && std::isalpha(static_cast<unsigned char>(t[i + 1]))) return false;
        ++i;
    }
    long r = 0;
    size_t digits = 0;
    while (i < t.size() && std::isdigit(static_cast<unsigned char>(t[i]))) {
        r = r * 10 + (t[i] - '0');
        if (++digits > 7) return false;
        ++i;
    }
    if (i != t.size() || (letters == 0 && digits == 0)) return false;
    if (letters && (c < 1 || c > kMaxCols)) return false;
    if (digits && (r < 1 || r > kMaxRows)) return false;
    row = static_cast<int>(r);
    col = c;
    return true;
}
}  // namespace

bool ParseCellRef(std::string_view ref, int& row, int& col) {
    return ParsePiece(ref, row, col) && row > 0 && col > 0;
}

std::optional<RangeRef> ParseRangeRef(std::string_view ref) {
    while (!ref.empty() && ref.front() == ' ') ref.remove_prefix(1);
    if (!ref.empty() && ref.front() == '=') ref.remove_prefix(1);
    while (!ref.empty() && ref.back() == ' ') ref.remove_suffix(1);
    RangeRef out;
    if (!ref.empty() && ref.front() == '\'') {
        size_t i = 1;
        std::string name;
        for (; i < ref.size(); ++i) {
            if (ref[i] == '\'') {
                if (i + 1 < ref.size() && ref[i + 1] == '\'') {
                    name += '\'';
                    ++i;
                    continue;
                }
                break;
            }
            name += ref[i];
        }
        if (i + 1 >= ref.size() || ref[i + 1] != '!') return std::nullopt;
        out.sheet = name;
        ref.remove_prefix(i + 2);
    } else if (size_t bang = ref.find('!'); bang != std::string_view::npos) {
        out.sheet = std::string(ref.substr(0, bang));
        ref.remove_prefix(bang + 1);
    }
    size_t colon = ref.find(':');
    std::string_view a = ref.substr(0, colon);
    std::string_view b = colon == std::string_view::npos ? a : ref.substr(colon + 1);
    int r1, c1, r2, c2;
    if (!ParsePiece(a, r1, c1) || !ParsePiece(b, r2, c2)) return std::nullopt;
    if ((r1 == 0) != (r2 == 0) || (c1 == 0) != (c2 == 0)) return std::nullopt;
    if (colon == std::string_view::npos && (r1 == 0 || c1 == 0)) return std::nullopt;
    if (r1 == 0) { r1 = 1; r2 = kMaxRows; }
    if (c1 == 0) { c1 = 1; c2 = kMaxCols; }
    out.area = Area{std::min(r1, r2), std::min(c1, c2), std::max(r1, r2), std::max(c1, c2)};
    return out;
}

namespace {
bool SheetNeedsQuotes(std::string_view s) {
    if (s.empty()) return false;
    if (std::isdigit(static_cast<unsigned char>(s[0]))) return true;
    for (char c : s)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || (c & 0x80))) return true;
    int r, c;
    return ParseCellRef(s, r, c);  // "A1" as a sheet name
}

std::string QuoteSheet(std::string_view s) {
    if (!SheetNeedsQuotes(s)) return std::string(s);
    std::string q = "'";
    for (char c : s) {
        if (c == '\'') q += '\'';
        q += c;
    }
    return q + "'";
}
}  // namespace

std::string FormatRangeRef(std::string_view sheet, const Area& a) {
    std::string s = "=";
    if (!sheet.empty()) s += QuoteSheet(sheet) + "!";
    if (a.row1 == 1 && a.row2 >= kMaxRows) {
        s += "$" + ColumnLetters(a.col1) + ":$" + ColumnLetters(a.col2);
    } else if (a.col1 == 1 && a.col2 >= kMaxCols) {
        s += "$" + std::to_string(a.row1) + ":$" + std::to_string(a.row2);
    } else {
        s += CellAddress(a.row1, a.col1, true);
        if (a.row2 != a.row1 || a.col2 != a.col1) s += ":" + CellAddress(a.row2, a.col2, true);
    }
    return s;
}

// ------------------------------------------------------------- worksheet

namespace {
const Value kEmpty;
}

Worksheet::Worksheet(Workbook* wb, std::string name) : wb_(wb), name_(std::move(name)), d_(new Data) {}
Worksheet::~Worksheet() = default;

int Worksheet::index() const {
    for (size_t i = 0; i < wb_->sheets_.size(); ++i)
        if (wb_->sheets_[i].get() == this) return static_cast<int>(i) + 1;
    return 0;
}

void Worksheet::touch() {
    dirty_ = true;
    wb_->savedOverride_ = false;
}

// ------------------------------------------------- cells held by reference

namespace {
xlsx::Row& RowAt(std::vector<xlsx::Row>& rows, int row, int width);

// Copies referred cells into ordinary rows and lets go of the table. A
// column style of the reference overrides; style 0 leaves the ordinary one.
void Materialize(Worksheet::Data& d) {
    if (!d.ref) return;
    const TableRef t = std::move(*d.ref);
    d.ref.reset();
    bool styled = std::any_of(t.style.begin(), t.style.end(), [](uint16_t s) { return s != 0; });
    for (int i = 0; i < t.rows; ++i) {
        auto& r = RowAt(d.rows, t.row + i, t.lastCol());
        const Value* src = t.cells + static_cast<size_t>(i) * t.stride;
        std::copy(src, src + t.cols, r.v.begin() + (t.col - 1));
        if (!styled) continue;
        if (r.s.empty()) r.s.assign(r.v.size(), 0);
        for (int j = 0; j < t.cols; ++j)
            if (t.style[static_cast<size_t>(j)]) r.s[static_cast<size_t>(t.col - 1 + j)] = t.style[static_cast<size_t>(j)];
    }
}
}  // namespace

void Worksheet::referRows(int row, int col, const Datam& t, int firstRow, int lastRow) {
    if (!t.isArray() || t.dims() != 2 || row < 1 || col < 1) return;
    firstRow = std::max(firstRow, t.rowLb());
    lastRow = std::min(lastRow, t.rowUb());
    int nr = std::min(lastRow - firstRow + 1, kMaxRows - row + 1);
    int nc = std::min(t.colCount(), kMaxCols - col + 1);
    if (nr <= 0 || nc <= 0) return;
    ensure();
    touch();
    TableRef ref;
    ref.cells = t.data() + static_cast<size_t>(firstRow - t.rowLb()) * t.stride();
    ref.stride = t.stride();
    ref.row = row;
    ref.col = col;
    ref.rows = nr;
    ref.cols = nc;
    ref.style.assign(static_cast<size_t>(nc), 0);
    // Values under the area are overwritten; formats there stay, which only
    // ordinary cells can hold.
    bool formatted = false;
    auto& rows = d_->rows;
    for (int r = row; r <= ref.lastRow() && static_cast<size_t>(r) <= rows.size(); ++r) {
        auto& o = rows[static_cast<size_t>(r) - 1];
        int last = std::min<int>(ref.lastCol(), static_cast<int>(o.v.size()));
        for (int c = col; c <= last; ++c) {
            o.v[static_cast<size_t>(c) - 1] = Value();
            formatted |= !o.s.empty() && o.s[static_cast<size_t>(c) - 1] != 0;
        }
    }
    d_->ref = std::move(ref);
    if (formatted) Materialize(*d_);
}

void Worksheet::holdCells() { Materialize(*d_); }

// Loads the sheet, and copies in referred cells: what reads or writes cells
// one by one sees ordinary rows only.
bool Worksheet::ensure() {
    if (!loaded_) (void)load();
    Materialize(*d_);
    return loaded_;
}

Status Worksheet::load() {
    if (loaded_) {
        if (src_ && !src_->loadError.empty()) {
            Failure f;
            f.tag = "Workbook(LoadSheet): ";
            f.text = src_->loadError;
            return f;
        }
        return StatusOk();
    }
    Status st = WorkbookImpl::loadSheet(*wb_, *this);
    loaded_ = true;
    if (!st) {
        src_->loadError = st.failure().text;
        d_ = std::make_unique<Data>();
    }
    return st;
}

bool Worksheet::unload() {
    if (!loaded_ || dirty_ || !src_ || !src_->loadError.empty() || !wb_->impl_->zip) return false;
    d_ = std::make_unique<Data>();
    loaded_ = false;
    return true;
}

Status Worksheet::forEachRow(const RowVisitor& f) {
    if (!loaded_) return WorkbookImpl::streamSheet(*wb_, *this, f);
    if (Status st = load(); !st) return st;  // a part that failed to load says so again
    holdCells();                              // rows held by reference become ordinary rows
    const auto& rows = d_->rows;
    for (size_t i = 0; i < rows.size(); ++i) {
        const auto& v = rows[i].v;
        size_t n = v.size();
        while (n > 0 && v[n - 1].isEmpty()) --n;
        if (n && !f(static_cast<int>(i) + 1, v.data(), static_cast<int>(n))) break;
    }
    return StatusOk();
}

std::optional<Area> Worksheet::declaredArea() {
    if (loaded_ || dirty_ || !src_ || !wb_->impl_->zip) return std::nullopt;
    return WorkbookImpl::declaredArea(*wb_, *this);
}

bool Worksheet::setName(std::string_view name) {
    if (!Workbook::validSheetName(name)) return false;
    for (auto& s : wb_->sheets_)
        if (s.get() != this && IEquals(s->name_, name)) return false;
    if (name_ == name) return true;
    // Names that point at this sheet follow it.
    std::string oldQ = QuoteSheet(name_) + "!", newQ = QuoteSheet(name) + "!";
    for (auto& n : wb_->names_) {
        std::string& t = n.refersTo;
        for (size_t pos = 0; (pos = t.find(oldQ, pos)) != std::string::npos;) {
            bool boundary = pos == 0 || std::string_view("=,( :").find(t[pos - 1]) != std::string_view::npos;
            if (boundary) {
                t.replace(pos, oldQ.size(), newQ);
                pos += newQ.size();
            } else {
                pos += oldQ.size();
            }
        }
    }
    name_ = std::string(name);
    wb_->changed();
    return true;
}

const Value& Worksheet::cell(int row, int col) {
    if (!ensure() || row < 1 || col < 1) return kEmpty;
    auto& rows = d_->rows;
    if (static_cast<size_t>(row) > rows.size()) return kEmpty;
    auto& r = rows[static_cast<size_t>(row) - 1];
    if (static_cast<size_t>(col) > r.v.size()) return kEmpty;
    return r.v[static_cast<size_t>(col) - 1];
}

namespace {
xlsx::Row& RowAt(std::vector<xlsx::Row>& rows, int row, int width) {
    if (rows.size() < static_cast<size_t>(row)) rows.resize(static_cast<size_t>(row));
    auto& r = rows[static_cast<size_t>(row) - 1];
    if (r.v.size() < static_cast<size_t>(width)) {
        r.v.resize(static_cast<size_t>(width));
        if (!r.s.empty()) r.s.resize(static_cast<size_t>(width), 0);
    }
    return r;
}
}  // namespace

void Worksheet::setCell(int row, int col, Value v) {
    if (row < 1 || col < 1 || row > kMaxRows || col > kMaxCols) return;
    ensure();
    touch();
    auto& r = RowAt(d_->rows, row, col);
    r.v[static_cast<size_t>(col) - 1] = std::move(v);
}

void Worksheet::setRange(int row, int col, const Datam& t) {
    if (!t.isArray() || row < 1 || col < 1) return;
    ensure();
    touch();
    if (t.dims() == 1) {
        int n = std::min(t.rowCount(), kMaxCols - col + 1);
        auto& r = RowAt(d_->rows, row, col + n - 1);
        for (int i = 0; i < n; ++i) r.v[static_cast<size_t>(col - 1 + i)] = t.at(t.rowLb() + i);
        return;
    }
    int nr = std::min(t.rowCount(), kMaxRows - row + 1);
    int nc = std::min(t.colCount(), kMaxCols - col + 1);
    if (nr <= 0 || nc <= 0) return;
    if (d_->rows.size() < static_cast<size_t>(row + nr - 1)) d_->rows.resize(static_cast<size_t>(row + nr - 1));
    const Value* src = t.data();
    size_t stride = t.stride();
    for (int i = 0; i < nr; ++i) {
        auto& r = RowAt(d_->rows, row + i, col + nc - 1);
        const Value* s = src + static_cast<size_t>(i) * stride;
        Value* d = r.v.data() + (col - 1);
        for (int j = 0; j < nc; ++j) d[j] = s[j];
    }
}

Datam Worksheet::range(const Area& a) {
    if (a.empty()) return Datam();
    ensure();
    Datam out(a.rows(), a.cols(), 1, 1);
    auto& rows = d_->rows;
    Value* dst = out.data();
    size_t nc = static_cast<size_t>(a.cols());
    for (int r = a.row1; r <= a.row2 && static_cast<size_t>(r) <= rows.size(); ++r) {
        const auto& row = rows[static_cast<size_t>(r) - 1];
        Value* d = dst + static_cast<size_t>(r - a.row1) * nc;
        int last = std::min<int>(a.col2, static_cast<int>(row.v.size()));
        for (int c = a.col1; c <= last; ++c) d[c - a.col1] = row.v[static_cast<size_t>(c) - 1];
    }
    return out;
}

Area Worksheet::usedArea() {
    ensure();
    int r1 = 0, r2 = 0, c1 = kMaxCols + 1, c2 = 0;
    auto& rows = d_->rows;
    for (size_t i = 0; i < rows.size(); ++i) {
        const auto& row = rows[i];
        int first = 0, last = 0;
        for (size_t c = 0; c < row.v.size(); ++c) {
            if (!row.v[c].isEmpty() || (!row.s.empty() && row.s[c] != 0)) {
                if (!first) first = static_cast<int>(c) + 1;
                last = static_cast<int>(c) + 1;
            }
        }
        if (!first) continue;
        if (!r1) r1 = static_cast<int>(i) + 1;
        r2 = static_cast<int>(i) + 1;
        c1 = std::min(c1, first);
        c2 = std::max(c2, last);
    }
    for (auto& [k, cm] : d_->comments) {
        (void)cm;
        if (!r1 || k.first < r1) r1 = k.first;
        r2 = std::max(r2, k.first);
        c1 = std::min(c1, k.second);
        c2 = std::max(c2, k.second);
    }
    if (!r1) return Area{};
    return Area{r1, c1, r2, c2};
}

Datam Worksheet::usedRange() { return range(usedArea()); }

int Worksheet::lastRow() {
    Area a = usedArea();
    return a.empty() ? 0 : a.row2;
}

int Worksheet::lastCol() {
    Area a = usedArea();
    return a.empty() ? 0 : a.col2;
}

void Worksheet::clear() {
    (void)load();
    touch();
    d_->ref.reset();
    d_->rows.clear();
    d_->rows.shrink_to_fit();
}

void Worksheet::clearContents(const Area& a) {
    if (a.empty()) return;
    ensure();
    touch();
    auto& rows = d_->rows;
    for (int r = a.row1; r <= a.row2 && static_cast<size_t>(r) <= rows.size(); ++r) {
        auto& row = rows[static_cast<size_t>(r) - 1];
        int last = std::min<int>(a.col2, static_cast<int>(row.v.size()));
        for (int c = a.col1; c <= last; ++c) row.v[static_cast<size_t>(c) - 1] = Value();
    }
}

namespace {
// Applies f to the style of every cell of the area (whole columns and rows
// clipped to what is in use). Referred cells keep their reference when the
// area spans all their rows: their style is one per column.
template <class F>
void Restyle(Worksheet::Data& d, xlsx::StyleTable& styles, Area a, F&& f) {
    if (a.empty()) return;
    int usedRows = static_cast<int>(d.rows.size());
    if (d.ref) usedRows = std::max(usedRows, d.ref->lastRow());
    if (a.row2 >= kMaxRows) a.row2 = std::max(a.row1, usedRows);
    if (a.col2 >= kMaxCols) {
        size_t w = 0;
        for (auto& r : d.rows) w = std::max(w, r.v.size());
        if (d.ref) w = std::max(w, static_cast<size_t>(d.ref->lastCol()));
        a.col2 = std::max(a.col1, static_cast<int>(w));
    }
    if (d.ref) {
        const TableRef& t = *d.ref;
        bool meets = a.row1 <= t.lastRow() && a.row2 >= t.row && a.col1 <= t.lastCol() && a.col2 >= t.col;
        if (meets && (a.row1 > t.row || a.row2 < t.lastRow())) Materialize(d);
    }
    std::map<uint16_t, uint16_t> memo;
    auto apply = [&](uint16_t& s) {
        auto it = memo.find(s);
        if (it == memo.end()) {
            xlsx::Style st = styles.at(s);
            f(st);
            it = memo.emplace(s, styles.intern(st)).first;
        }
        s = it->second;
    };
    auto span = [&](int r, int c1, int c2) {
        if (c1 > c2) return;
        auto& row = RowAt(d.rows, r, c2);
        if (row.s.empty()) row.s.assign(row.v.size(), 0);
        for (int c = c1; c <= c2; ++c) apply(row.s[static_cast<size_t>(c) - 1]);
    };
    TableRef* t = d.ref ? &*d.ref : nullptr;
    for (int r = a.row1; r <= a.row2; ++r) {
        if (t && r >= t->row && r <= t->lastRow()) {
            span(r, a.col1, std::min(a.col2, t->col - 1));
            span(r, std::max(a.col1, t->lastCol() + 1), a.col2);
        } else {
            span(r, a.col1, a.col2);
        }
    }
    if (t && a.row1 <= t->row && a.row2 >= t->lastRow())
        for (int c = std::max(a.col1, t->col); c <= std::min(a.col2, t->lastCol()); ++c)
            apply(t->style[static_cast<size_t>(c - t->col)]);
}

uint16_t StyleIdAt(Worksheet::Data& d, int row, int col) {
    if (d.ref && row >= d.ref->row && row <= d.ref->lastRow() && col >= d.ref->col && col <= d.ref->lastCol())
        return d.ref->style[static_cast<size_t>(col - d.ref->col)];
    if (row < 1 || col < 1 || static_cast<size_t>(row) > d.rows.size()) return 0;
    const auto& r = d.rows[static_cast<size_t>(row) - 1];
    if (r.s.empty() || static_cast<size_t>(col) > r.s.size()) return 0;
    return r.s[static_cast<size_t>(col) - 1];
}
}  // namespace

void Worksheet::setNumberFormat(const Area& a, std::string_view format) {
    (void)load();
    touch();
    std::string f = IEquals(format, "General") ? std::string() : std::string(format);
    Restyle(*d_, wb_->impl_->styles, a, [&](xlsx::Style& s) { s.numFmt = f; });
}

std::string Worksheet::numberFormat(int row, int col) {
    (void)load();
    const auto& s = wb_->impl_->styles.at(StyleIdAt(*d_, row, col));
    return s.numFmt.empty() ? "General" : s.numFmt;
}

void Worksheet::setBold(const Area& a, bool b) {
    (void)load();
    touch();
    Restyle(*d_, wb_->impl_->styles, a, [&](xlsx::Style& s) { s.bold = b; });
}

bool Worksheet::bold(int row, int col) {
    (void)load();
    return wb_->impl_->styles.at(StyleIdAt(*d_, row, col)).bold;
}

void Worksheet::setAlignment(const Area& a, HAlign al) {
    (void)load();
    touch();
    Restyle(*d_, wb_->impl_->styles, a, [&](xlsx::Style& s) { s.align = al; });
}

HAlign Worksheet::alignment(int row, int col) {
    (void)load();
    return wb_->impl_->styles.at(StyleIdAt(*d_, row, col)).align;
}

void Worksheet::setComment(int row, int col, std::string_view text, bool visible) {
    if (row < 1 || col < 1 || row > kMaxRows || col > kMaxCols) return;
    (void)load();  // comments and links leave referred cells be
    touch();
    Comment c;
    c.row = row;
    c.col = col;
    c.text = std::string(text);
    c.visible = visible;
    d_->comments[{row, col}] = std::move(c);
}

const Comment* Worksheet::comment(int row, int col) {
    (void)load();
    auto it = d_->comments.find({row, col});
    return it == d_->comments.end() ? nullptr : &it->second;
}

std::vector<Comment> Worksheet::comments() {
    (void)load();
    std::vector<Comment> out;
    for (auto& [k, c] : d_->comments) out.push_back(c);
    return out;
}

bool Worksheet::removeComment(int row, int col) {
    (void)load();
    if (!d_->comments.erase({row, col})) return false;
    touch();
    return true;
}

void Worksheet::clearComments() {
    (void)load();
    if (d_->comments.empty()) return;
    touch();
    d_->comments.clear();
}

void Worksheet::addHyperlink(int row, int col, std::string_view target, std::string_view tooltip) {
    if (row < 1 || col < 1 || row > kMaxRows || col > kMaxCols) return;
    (void)load();
    touch();
    if (!target.empty() && target[0] == '#') target.remove_prefix(1);
    auto& links = d_->links;
    links.erase(std::remove_if(links.begin(), links.end(),
                               [&](const Hyperlink& h) { return h.row == row && h.col == col; }),
                links.end());
    links.push_back(Hyperlink{row, col, std::string(target), std::string(tooltip)});
}

std::vector<Hyperlink> Worksheet::hyperlinks() {
    (void)load();
    return d_->links;
}

void Worksheet::clearHyperlinks() {
    (void)load();
    if (d_->links.empty()) return;
    touch();
    d_->links.clear();
}

// -------------------------------------------------------------- workbook

Workbook::Workbook() : impl_(new WorkbookImpl) {}
Workbook::~Workbook() = default;

std::string Workbook::name() const {
    return std::filesystem::path(path_).filename().string();
}

bool Workbook::validSheetName(std::string_view n) {
    if (n.empty() || n.size() > 31) return false;
    if (n.front() == '\'' || n.back() == '\'') return false;
    for (char c : n)
        if (std::string_view("[]:*?/\\").find(c) != std::string_view::npos || (c >= 0 && c < 0x20)) return false;
    return !IEquals(n, "History");
}

Worksheet* WorkbookImpl::newSheet(Workbook& wb, std::string name, int position) {
    std::unique_ptr<Worksheet> ws(new Worksheet(&wb, std::move(name)));
    Worksheet* p = ws.get();
    if (position < 0 || position > static_cast<int>(wb.sheets_.size())) position = static_cast<int>(wb.sheets_.size());
    wb.sheets_.insert(wb.sheets_.begin() + position, std::move(ws));
    return p;
}

WorkbookPtr Workbook::create(const std::string& path, const std::string& firstSheet) {
    WorkbookPtr wb(new Workbook);
    wb->path_ = path;
    wb->impl_->file = wb->name();
    WorkbookImpl::newSheet(*wb, validSheetName(firstSheet) ? firstSheet : "Sheet1", -1);
    wb->structDirty_ = true;
    return wb;
}

namespace {
bool FileStartsWithOle(std::string_view head) {
    return head.size() >= 8 && head.substr(0, 8) == std::string_view("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8);
}

Failure OpenFail(const std::string& text) {
    Failure f;
    f.tag = "Workbook(Open): ";
    f.text = text;
    return f;
}
}  // namespace

Result<WorkbookPtr> Workbook::open(const std::string& path, Load load) {
    WorkbookPtr wb(new Workbook);
    wb->path_ = path;
    wb->impl_->file = wb->name();
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) return OpenFail("Cannot find file: " + path);
    std::string head(8, '\0');
    {
        std::ifstream f(path, std::ios::binary);
        if (!f) return OpenFail("Cannot read file: " + path);
        f.read(head.data(), 8);
        head.resize(static_cast<size_t>(f.gcount()));
    }
    if (FileStartsWithOle(head)) {
        if (auto st = WorkbookImpl::loadLegacy(*wb, path, {}); !st) return st.failure();
        return wb;
    }
    auto z = xlsx::ZipReader::openFile(path, wb->impl_->file);
    if (!z) return OpenFail(z.failure().text);
    wb->impl_->zip = std::move(*z);
    if (auto st = WorkbookImpl::readPackage(*wb, load); !st) return st.failure();
    return wb;
}

Result<WorkbookPtr> Workbook::openMemory(std::string_view bytes, const std::string& name, Load load) {
    WorkbookPtr wb(new Workbook);
    wb->path_ = name;
    wb->impl_->file = name;
    if (FileStartsWithOle(bytes)) {
        if (auto st = WorkbookImpl::loadLegacy(*wb, {}, bytes); !st) return st.failure();
        return wb;
    }
    auto z = xlsx::ZipReader::openMemory(bytes, name);
    if (!z) return OpenFail(z.failure().text);
    wb->impl_->zip = std::move(*z);
    if (auto st = WorkbookImpl::readPackage(*wb, load); !st) return st.failure();
    return wb;
}

std::vector<std::string> Workbook::sheetNames() const {
    std::vector<std::string> out;
    for (auto& s : sheets_) out.push_back(s->name());
    return out;
}

Worksheet* Workbook::sheet(int index) {
    if (index < 1 || index > sheetCount()) return nullptr;
    return sheets_[static_cast<size_t>(index) - 1].get();
}

Worksheet* Workbook::sheet(std::string_view name) {
    for (auto& s : sheets_)
        if (IEquals(s->name(), name)) return s.get();
    return nullptr;
}

Worksheet* Workbook::addSheet(std::string_view name, int position) {
    if (readOnly_ || !validSheetName(name) || sheet(name)) return nullptr;
    changed();
    return WorkbookImpl::newSheet(*this, std::string(name), position);
}

bool Workbook::removeSheet(std::string_view name) {
    if (sheets_.size() <= 1) return false;
    for (size_t i = 0; i < sheets_.size(); ++i) {
        if (!IEquals(sheets_[i]->name(), name)) continue;
        // Sheet-local names go with the sheet; later indexes shift down.
        int idx = static_cast<int>(i);
        names_.erase(std::remove_if(names_.begin(), names_.end(),
                                    [&](const DefinedName& n) { return n.localSheet == idx; }),
                     names_.end());
        for (auto& n : names_)
            if (n.localSheet > idx) --n.localSheet;
        sheets_.erase(sheets_.begin() + idx);
        if (active_ >= static_cast<int>(sheets_.size())) active_ = static_cast<int>(sheets_.size()) - 1;
        changed();
        return true;
    }
    return false;
}

bool Workbook::moveSheet(std::string_view name, int position) {
    Worksheet* ws = sheet(name);
    if (!ws) return false;
    int from = ws->index() - 1;
    position = std::clamp(position, 0, sheetCount() - 1);
    if (from == position) return true;
    Worksheet* active = activeSheet();
    auto p = std::move(sheets_[static_cast<size_t>(from)]);
    sheets_.erase(sheets_.begin() + from);
    sheets_.insert(sheets_.begin() + position, std::move(p));
    // Sheet-local names follow their sheet.
    for (auto& n : names_) {
        if (n.localSheet < 0) continue;
        if (n.localSheet == from) n.localSheet = position;
        else if (from < position && n.localSheet > from && n.localSheet <= position) --n.localSheet;
        else if (from > position && n.localSheet >= position && n.localSheet < from) ++n.localSheet;
    }
    if (active) active_ = active->index() - 1;
    changed();
    return true;
}

Worksheet* Workbook::activeSheet() {
    if (sheets_.empty()) return nullptr;
    return sheets_[static_cast<size_t>(std::clamp(active_, 0, sheetCount() - 1))].get();
}

void Workbook::activate(Worksheet* ws) {
    if (!ws || &ws->workbook() != this) return;
    int i = ws->index() - 1;
    if (i != active_) {
        active_ = i;
        changed();
    }
}

namespace {
bool ValidName(std::string_view n) {
    if (n.empty() || n.size() > 255) return false;
    unsigned char c0 = static_cast<unsigned char>(n[0]);
    if (!(std::isalpha(c0) || c0 == '_' || c0 == '\\' || c0 >= 0x80)) return false;
    for (char c : n) {
        unsigned char u = static_cast<unsigned char>(c);
        if (!(std::isalnum(u) || c == '_' || c == '.' || c == '\\' || u >= 0x80)) return false;
    }
    int r, c;
    if (ParseCellRef(n, r, c)) return false;
    return !(n.size() <= 2 && (IEquals(n, "R") || IEquals(n, "C")));
}
}  // namespace

bool Workbook::addName(std::string_view name, std::string_view refersTo) {
    if (!ValidName(name) && name.substr(0, 6) != "_xlnm.") return false;
    std::string ref(refersTo);
    if (ref.empty() || ref[0] != '=') ref.insert(ref.begin(), '=');
    changed();
    for (auto& n : names_) {
        if (n.localSheet < 0 && IEquals(n.name, name)) {
            n.refersTo = ref;
            return true;
        }
    }
    names_.push_back(DefinedName{std::string(name), ref, -1, false});
    return true;
}

std::optional<std::string> Workbook::nameRef(std::string_view name) const {
    for (auto& n : names_)
        if (n.localSheet < 0 && IEquals(n.name, name)) return n.refersTo;
    for (auto& n : names_)
        if (IEquals(n.name, name)) return n.refersTo;
    return std::nullopt;
}

std::optional<RangeRef> Workbook::nameRange(std::string_view name) const {
    auto r = nameRef(name);
    if (!r) return std::nullopt;
    return ParseRangeRef(*r);
}

bool Workbook::removeName(std::string_view name) {
    auto it = std::find_if(names_.begin(), names_.end(), [&](const DefinedName& n) { return IEquals(n.name, name); });
    if (it == names_.end()) return false;
    names_.erase(it);
    changed();
    return true;
}

void Workbook::setProperty(std::string_view key, std::string_view value) {
    auto it = props_.find(std::string(key));
    if (it != props_.end() && it->second == value) return;
    props_[std::string(key)] = std::string(value);
    changed();
}

std::string Workbook::property(std::string_view key) const {
    for (auto& [k, v] : props_)
        if (IEquals(k, key)) return v;
    return {};
}

bool Workbook::saved() const {
    if (savedOverride_) return true;
    if (structDirty_) return false;
    for (auto& s : sheets_)
        if (s->dirty_) return false;
    return true;
}

void Workbook::setSaved(bool s) {
    savedOverride_ = s;
    if (!s) structDirty_ = true;
}

Status Workbook::loadAll() {
    for (auto& s : sheets_)
        if (auto st = s->load(); !st) return st;
    return StatusOk();
}

Status Workbook::save() { return saveAs(path_); }

Status Workbook::saveAs(const std::string& path) {
    Failure f;
    f.tag = "Workbook(Save): ";
    if (readOnly_ && path == path_) {
        f.text = "Error Saving: " + path + " (the workbook was opened read-only)";
        return f;
    }
    for (auto& s : sheets_) {
        if (s->dirty_ && s->src_ && !s->src_->loadError.empty()) {
            f.text = "Error Saving: " + path + " (sheet '" + s->name_ + "' could not be read: " + s->src_->loadError + ")";
            return f;
        }
    }
    if (auto st = WorkbookImpl::write(*this, path); !st) {
        f.text = st.failure().text;
        return f;
    }
    path_ = path;
    impl_->file = name();
    readOnly_ = false;
    return StatusOk();
}

// -------------------------------------------------------------- registry

namespace Workbooks {
namespace {
std::mutex g_mu;
std::vector<WorkbookPtr>& List() {
    static std::vector<WorkbookPtr> list;
    return list;
}

std::string Normal(std::string_view p) {
    std::error_code ec;
    auto abs = std::filesystem::absolute(std::filesystem::path(p), ec);
    return (ec ? std::filesystem::path(p) : abs).lexically_normal().string();
}
}  // namespace

WorkbookPtr Find(std::string_view pathOrName) {
    std::lock_guard<std::mutex> lock(g_mu);
    bool bare = pathOrName.find('/') == std::string_view::npos && pathOrName.find('\\') == std::string_view::npos;
    std::string want = bare ? std::string(pathOrName) : Normal(pathOrName);
    for (auto& wb : List()) {
        if (bare ? IEquals(wb->name(), want) : IEquals(Normal(wb->path()), want)) return wb;
    }
    return nullptr;
}

Result<WorkbookPtr> Open(const std::string& path) {
    if (auto wb = Find(path)) return wb;
    auto r = Workbook::open(path, Workbook::Load::Lazy);
    if (r) Register(*r);
    return r;
}

WorkbookPtr Add(const std::string& path, const std::string& firstSheet) {
    auto wb = Workbook::create(path, firstSheet);
    Register(wb);
    return wb;
}

void Register(const WorkbookPtr& wb) {
    if (!wb) return;
    std::lock_guard<std::mutex> lock(g_mu);
    auto& l = List();
    if (std::find(l.begin(), l.end(), wb) == l.end()) l.push_back(wb);
}

void Close(const WorkbookPtr& wb) {
    std::lock_guard<std::mutex> lock(g_mu);
    auto& l = List();
    l.erase(std::remove(l.begin(), l.end(), wb), l.end());
}

void CloseAll() {
    std::lock_guard<std::mutex> lock(g_mu);
    List().clear();
}

std::vector<WorkbookPtr> All() {
    std::lock_guard<std::mutex> lock(g_mu);
    return List();
}

int Count() {
    std::lock_guard<std::mutex> lock(g_mu);
    return static_cast<int>(List().size());
}
}  // namespace Workbooks

}  // namespace zorv
