// Datam: the two-dimensional table of tagged values in which data travels.
// Each dimension has its own lower bound (0 or 1, occasionally other) and an
// upper bound; row 0 is the header row and column 0 the row key where a table
// has them. A default-constructed Datam is "not an array".
#pragma once

#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <vector>

#include "base/value.h"

namespace zorv {

// Thrown by checked access; the analogue of "Subscript out of range".
struct SubscriptError : std::out_of_range {
    using std::out_of_range::out_of_range;
};

class Datam {
public:
    Datam() = default;
    // A two-dimensional table (rowLb..rowUb, colLb..colUb).
    Datam(int rowUb, int colUb, int rowLb = 0, int colLb = 0) { redim(rowUb, colUb, rowLb, colLb); }

    // A one-dimensional array (lb..ub).
    static Datam array1(int ub, int lb = 0);
    // A column vector (rows lb..n, column 1, column lower bound 1).
    static Datam vec(int n, int rowLb = 1) { return Datam(n, 1, rowLb, 1); }
    // Rows of values, for tests and small constant tables: row r of the list
    // becomes row rowLb + r, column c becomes column colLb + c.
    static Datam fromRows(std::initializer_list<std::initializer_list<Value>> rows, int rowLb = 0,
                          int colLb = 0);

    bool isArray() const noexcept { return dims_ != 0; }
    int dims() const noexcept { return dims_; }
    // dim 1 = rows, dim 2 = columns. Throws SubscriptError for a missing dimension.
    int lb(int dim = 1) const;
    int ub(int dim = 1) const;
    int rowLb() const noexcept { return rlb_; }
    int rowUb() const noexcept { return rub_; }
    int colLb() const noexcept { return clb_; }
    int colUb() const noexcept { return cub_; }
    int rowCount() const noexcept { return dims_ ? rub_ - rlb_ + 1 : 0; }
    int colCount() const noexcept { return dims_ ? cub_ - clb_ + 1 : 0; }

    bool inRange(int r, int c) const noexcept {
        return dims_ == 2 && r >= rlb_ && r <= rub_ && c >= clb_ && c <= cub_;
    }
    bool inRange(int i) const noexcept { return dims_ == 1 && i >= rlb_ && i <= rub_; }

    // Unchecked access.
    Value& operator()(int r, int c) noexcept { return cells_[index(r, c)]; }
    const Value& operator()(int r, int c) const noexcept { return cells_[index(r, c)]; }
    // Checked access; a one-dimensional array refuses two subscripts and the reverse.
    Value& at(int r, int c);
    const Value& at(int r, int c) const;
    Value& at(int i);
    const Value& at(int i) const;
    // A cell or an empty value when out of range.
    const Value& get(int r, int c) const noexcept;

    // New bounds; with preserve the overlapping cells are kept.
    void redim(int rowUb, int colUb, int rowLb, int colLb, bool preserve = false);
    void redimPreserve(int rowUb, int colUb) { redim(rowUb, colUb, rlb_, clb_, true); }
    void clear() noexcept { *this = Datam(); }

    // Row-major storage, for fast walks.
    Value* data() noexcept { return cells_.data(); }
    const Value* data() const noexcept { return cells_.data(); }
    size_t stride() const noexcept { return static_cast<size_t>(colCount()); }

private:
    size_t index(int r, int c) const noexcept {
        return static_cast<size_t>(r - rlb_) * static_cast<size_t>(cub_ - clb_ + 1) +
               static_cast<size_t>(c - clb_);
    }

    std::vector<Value> cells_;
    int rlb_ = 0, rub_ = -1, clb_ = 0, cub_ = -1;
    int dims_ = 0;
};

namespace detail {
struct ArrRep {
    std::atomic<uint32_t> rc;
    Datam d;
};
}  // namespace detail

inline const Datam& Value::array() const { return u_.a->d; }

}  // namespace zorv
