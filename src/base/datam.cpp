#include "base/datam.h"

#include <algorithm>

namespace zorv {

Datam Datam::array1(int ub, int lb) {
    Datam d;
    d.redim(ub, 0, lb, 0);
    d.dims_ = 1;
    return d;
}

Datam Datam::fromRows(std::initializer_list<std::initializer_list<Value>> rows, int rowLb,
                      int colLb) {
    size_t ncol = 0;
    for (const auto& r : rows) ncol = std::max(ncol, r.size());
    Datam d(rowLb + static_cast<int>(rows.size()) - 1, colLb + static_cast<int>(ncol) - 1, rowLb,
            colLb);
    int r = rowLb;
    for (const auto& row : rows) {
        int c = colLb;
        for (const auto& v : row) d(r, c++) = v;
        ++r;
    }
    return d;
}

int Datam::lb(int dim) const {
    if (dims_ == 0 || dim < 1 || dim > dims_) throw SubscriptError("Subscript out of range");
    return dim == 1 ? rlb_ : clb_;
}

int Datam::ub(int dim) const {
    if (dims_ == 0 || dim < 1 || dim > dims_) throw SubscriptError("Subscript out of range");
    return dim == 1 ? rub_ : cub_;
}

Value& Datam::at(int r, int c) {
    if (!inRange(r, c)) throw SubscriptError("Subscript out of range");
    return (*this)(r, c);
}

const Value& Datam::at(int r, int c) const {
    if (!inRange(r, c)) throw SubscriptError("Subscript out of range");
    return (*this)(r, c);
}

Value& Datam::at(int i) {
    if (!inRange(i)) throw SubscriptError("Subscript out of range");
    return cells_[static_cast<size_t>(i - rlb_)];
}

const Value& Datam::at(int i) const {
    if (!inRange(i)) throw SubscriptError("Subscript out of range");
    return cells_[static_cast<size_t>(i - rlb_)];
}

const Value& Datam::get(int r, int c) const noexcept {
    static const Value empty;
    if (dims_ == 2 ? !inRange(r, c) : (dims_ == 1 ? (c != clb_ || !inRange(r)) : true))
        return empty;
    return cells_[index(r, c)];
}

void Datam::redim(int rowUb, int colUb, int rowLb, int colLb, bool preserve) {
    if (rowUb < rowLb - 1) rowUb = rowLb - 1;
    if (colUb < colLb - 1) colUb = colLb - 1;
    const size_t nr = static_cast<size_t>(rowUb - rowLb + 1);
    const size_t nc = static_cast<size_t>(colUb - colLb + 1);
    if (preserve && dims_ != 0) {
        if (rowLb == rlb_ && colLb == clb_ && colUb == cub_) {
            cells_.resize(nr * nc);  // rows only: row-major storage grows in place
        } else {
            std::vector<Value> next(nr * nc);
            const int r1 = std::min(rub_, rowUb), c1 = std::min(cub_, colUb);
            for (int r = std::max(rlb_, rowLb); r <= r1; ++r)
                for (int c = std::max(clb_, colLb); c <= c1; ++c)
                    next[static_cast<size_t>(r - rowLb) * nc + static_cast<size_t>(c - colLb)] =
                        std::move(cells_[index(r, c)]);
            cells_.swap(next);
        }
    } else {
        cells_.clear();
        cells_.resize(nr * nc);  // default-constructed: no per-cell copy
        if (dims_ == 0) dims_ = 2;
    }
    if (dims_ == 0) dims_ = 2;
    rlb_ = rowLb;
    rub_ = rowUb;
    clb_ = colLb;
    cub_ = colUb;
}

}  // namespace zorv
