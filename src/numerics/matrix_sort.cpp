// Sorts and unique values. The system's sort is a stable exchange sort on
// 32-bit keys; this gives the same order with keys computed once per row and
// a stable merge sort, so a million rows take a fraction of a second.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "base/proc.h"
#include "base/report.h"  // CheckEscKey
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "tell.h"

namespace zorv {

namespace {

enum KeyClass : uint8_t { kEmptyKey = 0, kNumberKey = 1, kTextKey = 2, kErrorKey = 3 };

struct SortKey {
    double num = 0;           // number key, or the raw number for the unique walk
    const char* txt = nullptr;
    uint32_t len = 0;
    uint8_t cls = kEmptyKey;
};

constexpr double kPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                             1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                             1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

double Key7Text(float f) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.6e", static_cast<double>(f));
    return std::strtod(buf, nullptr);
}

// The value a 32-bit float shows with its seven significant digits, read back
// as a double. Identical to printing "%.6e" and reading it back; the powers of
// ten used are exact, so the one rounding of the quotient or product is the
// same as the reader's, and near-ties go through the text.
double Key7(double x) {
    const float f = static_cast<float>(x);
    if (f == 0) return 0.0;
    if (!std::isfinite(f)) return f;
    const double a = std::fabs(static_cast<double>(f));
    if (a < 1e-15 || a >= 1e22) return Key7Text(f);
    int b2 = 0;
    std::frexp(a, &b2);  // decimal exponent from the binary one, corrected below
    int e = static_cast<int>(std::floor((b2 - 1) * 0.30102999566398120));
    double q = 0;
    for (int tries = 0; tries < 3; ++tries) {
        q = e <= 6 ? a * kPow10[6 - e] : a / kPow10[e - 6];
        if (q >= 1e7) ++e;
        else if (q < 1e6) --e;
        else break;
    }
    if (q < 1e6 || q >= 1e7) return Key7Text(f);
    const double frac = q - std::floor(q);
    if (std::fabs(frac - 0.5) < 1e-6) return Key7Text(f);
    double r = std::nearbyint(q);
    if (r >= 1e7) {
        r = 1e6;
        ++e;
    }
    const double k = e <= 6 ? r / kPow10[6 - e] : r * kPow10[e - 6];
    return f < 0 ? -k : k;
}

SortKey MakeKey(const Value& v) {
    SortKey k;
    switch (v.type()) {
        case VType::Empty:
        case VType::Null:
        case VType::Array: return k;
        case VType::Error:
            k.cls = kErrorKey;
            k.num = v.errorCode();
            return k;
        case VType::Date:
            k.cls = kNumberKey;
            k.num = v.toDouble();
            return k;
        case VType::String: {
            double x;
            if (NumericOf(v, x)) {
                k.cls = kNumberKey;
                k.num = Key7(x);
            } else {
                const std::string_view s = v.str();
                k.cls = kTextKey;
                k.txt = s.data();
                k.len = static_cast<uint32_t>(s.size());
            }
            return k;
        }
        case VType::Integer:
        case VType::Long: {
            // A whole number under 1e7 is its own seven-digit float key.
            const double x = v.toDouble();
            k.cls = kNumberKey;
            k.num = std::fabs(x) < 1e7 ? x : Key7(x);
            return k;
        }
        default:
            k.cls = kNumberKey;
            k.num = Key7(v.toDouble());
            return k;
    }
}

inline int Cmp(const SortKey& a, const SortKey& b) {
    if (a.cls != b.cls) return a.cls < b.cls ? -1 : 1;
    switch (a.cls) {
        case kNumberKey:
        case kErrorKey: return a.num < b.num ? -1 : (a.num > b.num ? 1 : 0);
        case kTextKey: {
            const size_t n = std::min(a.len, b.len);
            const int c = n ? std::memcmp(a.txt, b.txt, n) : 0;
            if (c) return c < 0 ? -1 : 1;
            return a.len < b.len ? -1 : (a.len > b.len ? 1 : 0);
        }
        default: return 0;
    }
}

// Equality of the unique-value walks: numbers at 6 decimals (32-bit values
// in the sort's table, 64-bit in GetUniqueValues), text as it stands.
struct UniqueKey {
    uint8_t cls = kEmptyKey;
    double num = 0;
    std::string_view txt;
};

UniqueKey MakeUniqueKey(const Value& v, bool single) {
    UniqueKey k;
    double x;
    switch (v.type()) {
        case VType::Empty:
        case VType::Null:
        case VType::Array: return k;
        case VType::Error:
            k.cls = kErrorKey;
            k.num = v.errorCode();
            return k;
        case VType::Date:
            k.cls = kNumberKey;
            k.num = std::nearbyint(v.toDouble() * 1e6);
            return k;
        default:
            if (NumericOf(v, x)) {
                if (single) x = static_cast<double>(static_cast<float>(x));
                k.cls = kNumberKey;
                k.num = std::nearbyint(x * 1e6);
            } else {
                k.cls = kTextKey;
                k.txt = v.str();
            }
            return k;
    }
}

bool SameUnique(const UniqueKey& a, const UniqueKey& b) {
    if (a.cls != b.cls) return false;
    if (a.cls == kTextKey) return a.txt == b.txt;
    return a.num == b.num;
}

int DataRows(const Datam& m) { return m.rowUb() - FirstData(m, 1) + 1; }

struct RadixItem {
    uint64_t key;
    int row;
};

// Stable LSD radix sort on 11-bit digits; digits that are the same in every
// key are skipped.
void RadixSort(RadixItem* items, size_t n, std::vector<RadixItem>& tmp) {
    constexpr int kBits = 11, kPasses = 6;
    constexpr size_t kBuckets = size_t(1) << kBits;
    if (n < 2) return;
    std::vector<size_t> count(kBuckets * kPasses, 0);
    for (size_t i = 0; i < n; ++i)
        for (int p = 0; p < kPasses; ++p)
            ++count[p * kBuckets + ((items[i].key >> (p * kBits)) & (kBuckets - 1))];
    tmp.resize(std::max(tmp.size(), n));
    RadixItem* src = items;
    RadixItem* dst = tmp.data();
    for (int p = 0; p < kPasses; ++p) {
        size_t* c = &count[p * kBuckets];
        if (c[(src[0].key >> (p * kBits)) & (kBuckets - 1)] == n) continue;
        size_t sum = 0;
        for (size_t b = 0; b < kBuckets; ++b) {
            const size_t k = c[b];
            c[b] = sum;
            sum += k;
        }
        for (size_t i = 0; i < n; ++i) dst[c[(src[i].key >> (p * kBits)) & (kBuckets - 1)]++] = src[i];
        std::swap(src, dst);
    }
    if (src != items) std::copy_n(src, n, items);
}

// Unsigned order of the bits that is the numeric order of the doubles.
inline uint64_t OrderedBits(double d) {
    uint64_t u;
    std::memcpy(&u, &d, sizeof u);
    return (u >> 63) ? ~u : (u | (uint64_t(1) << 63));
}

// Replaces the text keys by their rank in binary order (equal texts, equal
// ranks), so that every class sorts on a number.
void RankTexts(std::vector<SortKey>& keys, size_t n) {
    std::unordered_map<const char*, uint32_t> slot;
    std::vector<const SortKey*> distinct;
    std::vector<uint32_t> ofKey(n, 0);
    const char* lastPtr = nullptr;
    uint32_t last = 0;
    for (size_t i = 0; i < n; ++i) {
        if (keys[i].cls != kTextKey) continue;
        if (keys[i].txt != lastPtr || !lastPtr) {
            auto [it, fresh] = slot.emplace(keys[i].txt, static_cast<uint32_t>(distinct.size()));
            if (fresh) distinct.push_back(&keys[i]);
            lastPtr = keys[i].txt;
            last = it->second;
        }
        ofKey[i] = last;
    }
    std::vector<uint32_t> byText(distinct.size());
    for (uint32_t i = 0; i < byText.size(); ++i) byText[i] = i;
    std::sort(byText.begin(), byText.end(),
              [&](uint32_t a, uint32_t b) { return Cmp(*distinct[a], *distinct[b]) < 0; });
    std::vector<double> rank(distinct.size());
    double r = 0;
    for (size_t i = 0; i < byText.size(); ++i) {
        if (i && Cmp(*distinct[byText[i - 1]], *distinct[byText[i]]) != 0) ++r;
        rank[byText[i]] = r;
    }
    for (size_t i = 0; i < n; ++i)
        if (keys[i].cls == kTextKey) keys[i].num = rank[ofKey[i]];
}

// Sorts rows[0..n) (source row numbers) stably on one key column. With
// `poll`, progress goes to the caller each tenth and Esc stops the walk: the
// rows seen so far are sorted and the rest keep their places, as the exchange
// sort leaves them.
void SortRowList(const Datam& m, int col, bool descending, int* rows, size_t n, bool poll,
                 Notes* notes) {
    if (n < 2) return;
    std::vector<SortKey> keys(n);
    const size_t tenth = std::max<size_t>(n / 10, 1);
    size_t seen = n;
    bool allNumbers = true;
    for (size_t i = 0; i < n; ++i) {
        if (poll && i % tenth == 0 && i) {
            TellProgress(notes, static_cast<int>(100 * i / n));
            if (CheckEscKey()) {
                seen = i;
                break;
            }
        }
        SortKey& k = keys[i];
        k = MakeKey(m(rows[i], col));
        allNumbers = allNumbers && k.cls == kNumberKey;
    }
    // Classes in their order (reversed when descending), each sorted
    // stably on its number: the value, a text's rank or an error's code.
    if (!allNumbers) RankTexts(keys, seen);
    size_t count[4] = {0, 0, 0, 0};
    for (size_t i = 0; i < seen; ++i) ++count[keys[i].cls];
    size_t start[4];
    size_t pos = 0;
    for (int j = 0; j < 4; ++j) {
        const int c = descending ? 3 - j : j;
        start[c] = pos;
        pos += count[c];
    }
    std::vector<RadixItem> items(seen);
    size_t fill[4] = {start[0], start[1], start[2], start[3]};
    for (size_t i = 0; i < seen; ++i) {
        const uint64_t u = OrderedBits(keys[i].num);
        items[fill[keys[i].cls]++] = RadixItem{descending ? ~u : u, rows[i]};
    }
    std::vector<SortKey>().swap(keys);
    std::vector<RadixItem> tmp;
    for (int c = kNumberKey; c <= kErrorKey; ++c) RadixSort(items.data() + start[c], count[c], tmp);
    for (size_t i = 0; i < seen; ++i) rows[i] = items[i].row;
    if (poll) TellProgress(notes, -1);
}

std::vector<int> SortRows(const Datam& m, int col, bool descending, Notes* notes) {
    const int r0 = FirstData(m, 1);
    const int n = DataRows(m);
    std::vector<int> order(static_cast<size_t>(std::max(n, 0)));
    for (int i = 0; i < n; ++i) order[static_cast<size_t>(i)] = r0 + i;
    SortRowList(m, col, descending, order.data(), order.size(), true, notes);
    return order;
}

// The table with its data rows in `order` (source row numbers).
Datam Permuted(const Datam& m, const std::vector<int>& order) {
    Datam out(m.rowUb(), m.colUb(), m.rowLb(), m.colLb());
    const size_t w = m.stride();
    const int r0 = FirstData(m, 1);
    for (int r = m.rowLb(); r < r0; ++r)
        std::copy_n(&m(r, m.colLb()), w, &out(r, m.colLb()));
    // A gather of random rows: fetch a few rows ahead.
    constexpr size_t kAhead = 8;
    for (size_t i = 0; i < order.size(); ++i) {
        if (i + kAhead < order.size()) {
            const char* p = reinterpret_cast<const char*>(&m(order[i + kAhead], m.colLb()));
            for (size_t b = 0; b < w * sizeof(Value); b += 64) __builtin_prefetch(p + b);
        }
        std::copy_n(&m(order[i], m.colLb()), w, &out(r0 + static_cast<int>(i), m.colLb()));
    }
    return out;
}

Datam HeaderVector(const Datam& m) {
    Datam h(m.colUb(), 1, m.colLb(), 1);
    if (m.rowLb() == 0)
        for (int c = m.colLb(); c <= m.colUb(); ++c) h(c, 1) = m(0, c);
    return h;
}

// The unique table of a sorted key column: value, "Count", "SortOrder" (the
// last sorted row of the value); numbers equal at 6 decimals as 32-bit floats.
Datam UniqueTable(const Datam& sorted, int col) {
    const int r0 = FirstData(sorted, 1);
    std::vector<int> starts;
    UniqueKey cur;
    for (int r = r0; r <= sorted.rowUb(); ++r) {
        const UniqueKey k = MakeUniqueKey(sorted(r, col), true);
        if (starts.empty() || !SameUnique(k, cur)) {
            starts.push_back(r);
            cur = k;
        }
    }
    const int nu = static_cast<int>(starts.size());
    Datam u(nu, 3, 0, 1);
    u(0, 1) = sorted.rowLb() == 0 ? sorted(0, col) : Value();
    u(0, 2) = Value("Count");
    u(0, 3) = Value("SortOrder");
    for (int i = 0; i < nu; ++i) {
        const int s = starts[static_cast<size_t>(i)];
        const int e = i + 1 < nu ? starts[static_cast<size_t>(i) + 1] - 1 : sorted.rowUb();
        u(i + 1, 1) = sorted(s, col);
        u(i + 1, 2) = Value(int32_t(e - s + 1));
        u(i + 1, 3) = Value(int32_t(e));
    }
    return u;
}

struct KeySpec {
    int col;
    bool descending;
};

std::vector<KeySpec> ParseKeys(const Datam& keys) {
    std::vector<KeySpec> out;
    if (!keys.isArray()) return out;
    auto add = [&](const Value& c, const Value& flag) {
        double x;
        if (!NumericOf(c, x)) return;
        double f = 0;
        const bool desc = NumericOf(flag, f) ? f != 0 : (flag.isString() && flag.toBool());
        out.push_back(KeySpec{static_cast<int>(std::llround(x)), desc});
    };
    if (keys.dims() == 1) {
        for (int i = keys.rowLb(); i <= keys.rowUb(); ++i) add(keys.at(i), Value());
        return out;
    }
    const int c = VecCol(keys);
    for (int r = FirstData(keys, 1); r <= keys.rowUb(); ++r) add(keys(r, c), keys.get(r, c + 1));
    return out;
}

Datam KeyList(int col, bool descending) {
    Datam k(1, 2, 1, 1);
    k(1, 1) = Value(int32_t(col));
    k(1, 2) = Value(descending);
    return k;
}

}  // namespace

int CompareKeys(const Value& a, const Value& b) { return Cmp(MakeKey(a), MakeKey(b)); }

std::vector<int> mat_sortOrder(const Datam& m, int col, bool descending, Notes* notes) {
    if (!m.isArray() || m.dims() != 2 || col < m.colLb() || col > m.colUb()) return {};
    return SortRows(m, col, descending, notes);
}

Datam mat_sortCol(const Datam& m, int col, bool descending, Datam* header, Datam* unique,
                  Notes* notes) {
    Proc p("MathUtil(mat_sortCol): ");
    if (!m.isArray() || m.dims() != 2 || DataRows(m) < 1 || mat_LastRow(m) < 1) {
        TellFailure(notes, p.fail("No data rows provided."));
        return {};
    }
    p.chk = 1;
    if (col < m.colLb() || col > m.colUb()) {
        p.error("Subscript out of range");
        TellFailure(notes, p.failure());
        return {};
    }
    p.chk = 2;
    if (header) *header = HeaderVector(m);
    const std::vector<int> order = SortRows(m, col, descending, notes);
    p.chk = 3;
    Datam out = Permuted(m, order);
    if (unique) *unique = UniqueTable(out, col);
    return out;
}

namespace {

// Stable multi-key order of the data rows. Hierarchical: groups of the first
// key (equal at 6 decimals, as GetUniqueValues finds them) are sorted on the
// remaining keys; otherwise a plain lexicographic order.
std::vector<int> MultiKeyOrder(const Datam& m, const std::vector<KeySpec>& keys, bool hierarchical,
                               Notes* notes) {
    const int r0 = FirstData(m, 1);
    const int n = DataRows(m);
    std::vector<int> rows(static_cast<size_t>(std::max(n, 0)));
    for (int i = 0; i < n; ++i) rows[static_cast<size_t>(i)] = r0 + i;
    if (!hierarchical) {
        // Stable sorts from the last key to the first give the order of runs
        // of equal keys sorted on the next key.
        for (size_t k = keys.size(); k-- > 0;)
            SortRowList(m, keys[k].col, keys[k].descending, rows.data(), rows.size(), false, notes);
        return rows;
    }
    struct Range {
        size_t b, e, k;
    };
    std::vector<Range> work{{0, rows.size(), 0}};
    while (!work.empty()) {
        const Range rg = work.back();
        work.pop_back();
        if (rg.e - rg.b < 2) continue;
        SortRowList(m, keys[rg.k].col, keys[rg.k].descending, rows.data() + rg.b, rg.e - rg.b,
                    rg.k == 0, notes);
        if (rg.k + 1 >= keys.size()) continue;
        // Groups of the key as GetUniqueValues finds them, each on the next key.
        const int col = keys[rg.k].col;
        size_t s = rg.b;
        UniqueKey cur = MakeUniqueKey(m(rows[s], col), false);
        for (size_t i = rg.b + 1; i <= rg.e; ++i) {
            UniqueKey k;
            if (i < rg.e) k = MakeUniqueKey(m(rows[i], col), false);
            if (i == rg.e || !SameUnique(k, cur)) {
                work.push_back(Range{s, i, rg.k + 1});
                s = i;
                cur = k;
            }
        }
    }
    return rows;
}

}  // namespace

Datam mat_sort(const Datam& m, const Datam& keys, Datam* unique, bool hierarchical, Notes* notes) {
    Proc p("Math(mat_sort): ");
    const std::vector<KeySpec> ks = ParseKeys(keys);
    if (!m.isArray() || m.dims() != 2) {
        p.error("Type mismatch");
        TellFailure(notes, p.failure());
        return {};
    }
    if (ks.empty()) {
        TellFailure(notes, p.fail("Sort column or vector not given."));
        return {};
    }
    p.chk = 1;
    for (const KeySpec& k : ks)
        if (k.col < m.colLb() || k.col > m.colUb()) {
            p.error("Subscript out of range");
            TellFailure(notes, p.failure());
            return {};
        }
    if (DataRows(m) < 2) {
        if (unique) {
            Datam u(1, 2, 0, 1);
            u(0, 1) = m.rowLb() == 0 ? m.get(0, ks[0].col) : Value();
            u(0, 2) = Value("Count");
            u(1, 1) = m.get(FirstData(m, 1), ks[0].col);
            u(1, 2) = Value(int32_t(1));
            *unique = std::move(u);
        }
        return m;
    }
    p.chk = 2;
    if (ks.size() == 1) return mat_sortCol(m, ks[0].col, ks[0].descending, nullptr, unique, notes);
    p.chk = 3;
    Datam out = Permuted(m, MultiKeyOrder(m, ks, hierarchical, notes));
    if (unique) *unique = UniqueTable(out, ks[0].col);
    return out;
}

Datam mat_sort(const Datam& m, int keyCol, bool descending, Datam* unique, Notes* notes) {
    return mat_sort(m, KeyList(keyCol, descending), unique, true, notes);
}

Datam mat_SheetSort(const Datam& m, const Datam& keys, Datam* unique, Notes* notes) {
    Proc p("MathUtil(mat_SheetSort): ");
    if (!m.isArray() || m.dims() != 2 || mat_LastRow(m) < 1 || DataRows(m) < 1) {
        TellFailure(notes, p.fail("Input data is not a matrix or has no data in it."));
        return {};
    }
    p.chk = 1;
    const std::vector<KeySpec> ks = ParseKeys(keys);
    if (ks.empty()) {
        TellFailure(notes, p.fail("Sort column or vector not given."));
        return {};
    }
    p.chk = 2;
    for (const KeySpec& k : ks)
        if (k.col < std::max(m.colLb(), 0) || k.col > m.colUb()) {
            TellFailure(notes,
                        p.fail("Insufficient rows/columns in input data matrix: (row,col)=(" +
                               std::to_string(m.rowUb()) + ", " + std::to_string(m.colUb()) + ")"));
            return {};
        }
    p.chk = 3;
    // No spreadsheet host: the host's sort is a stable sort on the keys.
    if (ks.size() == 1) return mat_sortCol(m, ks[0].col, ks[0].descending, nullptr, unique, notes);
    Datam out = Permuted(m, MultiKeyOrder(m, ks, false, notes));
    if (unique) *unique = UniqueTable(out, ks[0].col);
    return out;
}

Datam mat_SheetSort(const Datam& m, int keyCol, bool descending, Datam* unique, Notes* notes) {
    if (keyCol == kMissing || keyCol < 0) return mat_SheetSort(m, Datam(), unique, notes);
    return mat_SheetSort(m, KeyList(keyCol, descending), unique, notes);
}

Datam vec_sort(const Datam& v, bool descending, Notes* notes) {
    if (!v.isArray() || v.dims() != 2 || DataRows(v) < 1) {
        TellWarning(notes, {"Vec_sort: no rows in vector", "", false});
        return {};
    }
    return Permuted(v, SortRows(v, VecCol(v), descending, notes));
}

Datam GetUniqueValues(const Datam& m, int col, Value* header, bool sorted, Notes* notes) {
    Proc p("MathUtility(GetUniqueValues): ");
    if (!m.isArray() || m.dims() != 2 || col < m.colLb() || col > m.colUb()) {
        p.error("Subscript out of range");
        TellFailure(notes, p.failure());
        return {};
    }
    p.chk = 1;
    Datam v = mat_partition(m, FirstData(m, 1), col, -1, col, -1, notes);
    if (!v.isArray()) return {};
    const int vc = VecCol(v);  // 1, or 0 for a key column partitioned out from 0
    const Value head = v.rowLb() == 0 ? v(0, vc) : Value();
    if (header) *header = head;
    p.chk = 2;
    // The walk goes through the sort order; the sorted copy itself is not needed.
    std::vector<int> order;
    if (!sorted && DataRows(v) > 1) {
        order = SortRows(v, vc, false, notes);
    } else {
        for (int r = FirstData(v, 1); r <= v.rowUb(); ++r) order.push_back(r);
    }
    p.chk = 3;
    std::vector<std::pair<int, int>> groups;  // source row of the value, count
    UniqueKey cur;
    const size_t n = order.size();
    const size_t tenth = std::max<size_t>(n / 10, 1);
    for (size_t i = 0; i < n; ++i) {
        if (i % tenth == 0 && i && CheckEscKey()) break;
        const int r = order[i];
        const UniqueKey k = MakeUniqueKey(v(r, vc), false);
        if (groups.empty() || !SameUnique(k, cur)) {
            groups.emplace_back(r, 1);
            cur = k;
        } else {
            ++groups.back().second;
        }
    }
    const int nu = static_cast<int>(groups.size());
    Datam u(nu, 2, 0, 1);
    u(0, 1) = head;
    u(0, 2) = Value("Count");
    for (int i = 0; i < nu; ++i) {
        u(i + 1, 1) = v(groups[static_cast<size_t>(i)].first, vc);
        u(i + 1, 2) = Value(int32_t(groups[static_cast<size_t>(i)].second));
    }
    return u;
}

// ---------------------------------------------------------------------------

// The rows are taken in the key column's sort order and grouped as the unique
// walk groups them; each cell is centred on its group's mean and squared as
// mat_rcstat's "SS" reads a centred table. The sorted, centred copy itself is
// never built: at a million rows that copy was most of the time.
Datam CalcSS(const Datam& table, Datam& ss, int& dof, int& groups, Notes* notes) {
    dof = 0;
    groups = 0;
    ss = Datam();
    if (!table.isArray() || table.dims() != 2) return Datam();
    const int keyCol = table.colLb();
    if (DataRows(table) < 1) {
        TellFailure(notes, Proc("Math(mat_sort): ").fail("Input data is not a matrix or has no data in it."));
        return Datam();
    }
    // Sorted without the sort's own Esc poll, so that Esc stops CalcSS
    // itself rather than leaving it with a half-sorted key.
    std::vector<int> order(static_cast<size_t>(DataRows(table)));
    for (size_t i = 0; i < order.size(); ++i) order[i] = FirstData(table, 1) + static_cast<int>(i);
    SortRowList(table, keyCol, false, order.data(), order.size(), false, notes);
    if (CheckEscKey()) return Datam();
    // Group boundaries in the order: starts[g] .. starts[g + 1] - 1.
    std::vector<size_t> starts;
    {
        UniqueKey cur;
        for (size_t i = 0; i < order.size(); ++i) {
            const UniqueKey k = MakeUniqueKey(table(order[i], keyCol), false);
            if (starts.empty() || !SameUnique(k, cur)) {
                starts.push_back(i);
                cur = k;
            }
        }
        starts.push_back(order.size());
    }
    groups = static_cast<int>(starts.size()) - 1;
    const int c0 = FirstData(table, 2), cu = table.colUb();
    const int total = static_cast<int>(order.size());

    // Group by group, all columns of a row together: the rows come in key
    // order, so reading a row at a time keeps the walk in the cache.
    const size_t nc = static_cast<size_t>(std::max(cu - c0 + 1, 0));
    std::vector<double> sums(nc, 0.0), mean(nc, 0.0), s2(nc, 0.0);
    std::vector<int> m(nc, 0);
    std::vector<long long> counts(nc, 0);
    for (int g = 0; g < groups; ++g) {
        std::fill(sums.begin(), sums.end(), 0.0);
        std::fill(m.begin(), m.end(), 0);
        // The group's means: cells read as 32-bit floats, the missing mark
        // left out, dates by their serial value.
        for (size_t i = starts[g]; i < starts[g + 1]; ++i) {
            const Value* row = &table(order[i], c0);
            for (size_t c = 0; c < nc; ++c) {
                const Value& v = row[c];
                double x;
                if (v.type() == VType::Double) {  // the common cell, first
                    const float f = static_cast<float>(v.toDouble());
                    if (f == kMissingValue) continue;
                    x = f;
                } else if (v.isDate()) {
                    x = v.toDouble();
                } else {
                    if (IsBlank(v) || !v.isNumericPlain()) continue;
                    const float f = v.toSingle();
                    if (f == kMissingValue) continue;
                    x = f;
                }
                sums[c] += x;
                ++m[c];
            }
        }
        for (size_t c = 0; c < nc; ++c) mean[c] = m[c] ? sums[c] / m[c] : 0.0;
        // Every plain numeric cell is centred (the missing mark too, as the
        // centring always did); a date stays as it is.
        for (size_t i = starts[g]; i < starts[g + 1]; ++i) {
            const Value* row = &table(order[i], c0);
            for (size_t c = 0; c < nc; ++c) {
                const Value& v = row[c];
                double x;
                if (v.isDate()) {
                    x = v.toDouble();
                } else {
                    if (v.type() != VType::Double && (IsBlank(v) || !v.isNumericPlain())) continue;
                    const float f = static_cast<float>(v.toDouble() - mean[c]);
                    if (f == kMissingValue) continue;
                    x = f;
                }
                s2[c] += x * x;
                ++counts[c];
            }
        }
        if (g % 100 == 99 && CheckEscKey()) return Datam();
    }
    if (CheckEscKey()) return Datam();
    dof = total - groups - 1;
    // The shape of mat_rcstat's vector: rows 1..last column.
    ss = Datam::vec(std::max(cu, 1));
    bool any = false;
    for (int c = std::max(c0, 1); c <= cu; ++c)
        if (counts[static_cast<size_t>(c - c0)] > 0) {
            ss(c, 1) = Value(s2[static_cast<size_t>(c - c0)]);
            any = true;
        }
    if (!any && notes) notes->warnings.push_back({"No data in input matrix.", {}, true});
    Datam sigma(ss.rowUb(), 1, ss.rowLb(), ss.colLb());
    for (int i = std::max(1, ss.rowLb()); i <= ss.rowUb(); ++i) {
        double s;
        if (dof > 0 && NumericOf(ss(i, 1), s)) sigma(i, 1) = Value(std::sqrt(s / dof));
    }
    return sigma;
}

}  // namespace zorv
