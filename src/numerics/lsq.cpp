// svdfit_std and the Datam faces of the decomposition.
//
// The pipeline works on a compacted, column-major copy of the data. Each
// pass needs the decomposition of the centred and scaled design; it is
// obtained from the triangular factor of a Householder QR made in row blocks
// (superblocks of kSuperRows rows, each with its own factor, merged at the
// end). With centring and no empty cells the design carries a leading column
// of ones and is shifted by the first pass's means: the factor's trailing
// block is then the factor of the exactly centred data of whatever rows are
// still active, so a cull pass only re-factors the superblocks that lost rows.
// Column sums of squares are the column norms of that factor, and scaling is a
// column scaling of it. Golub-Reinsch then runs on the m x m factor.
#include "numerics/lsq.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

#include "base/proc.h"
#include "base/report.h"  // CheckEscKey
#include "numerics/svd.h"
#include "tell.h"

namespace zorv {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr int kSuperRows = 1024;
constexpr int kBlockRows = 128;

inline bool isBlank(const Value& v) {
    switch (v.type()) {
        case VType::Empty:
        case VType::Null:
        case VType::Array: return true;
        case VType::String: return v.str().empty();
        default: return false;
    }
}

// A cell as a number for the arithmetic; NaN where it takes no part.
inline double cellValue(const Value& v) {
    switch (v.type()) {
        case VType::Empty:
        case VType::Null:
        case VType::Error:
        case VType::Array: return kNaN;
        default: {
            bool ok = true;
            const double d = v.toDouble(&ok);
            return ok ? d : kNaN;
        }
    }
}

// vec_SEM of a set of values: sqrt(s^2/n), -999 below 3 values.
double semOf(const double* r, size_t n) {
    if (n < 3) return -999.0;
    double s1 = 0, s2 = 0;
    for (size_t i = 0; i < n; ++i) {
        s1 += r[i];
        s2 += r[i] * r[i];
    }
    const double dn = static_cast<double>(n);
    const double var = std::fabs((dn * s2 - s1 * s1) / (dn * (dn - 1)));
    return std::sqrt(var / dn);
}

// vec_StDev: sqrt(|(n sum x^2 - (sum x)^2)/(n(n-1))|), 0 below 2 values.
double stdevOf(const double* r, size_t n) {
    if (n < 2) return 0.0;
    double s1 = 0, s2 = 0;
    for (size_t i = 0; i < n; ++i) {
        s1 += r[i];
        s2 += r[i] * r[i];
    }
    const double dn = static_cast<double>(n);
    return std::sqrt(std::fabs((dn * s2 - s1 * s1) / (dn * (dn - 1))));
}

// The compacted data of a fit: row-major rows x m, NaN = empty. x and y
// point either into the caller's arrays (nothing to compact) or into xbuf
// and ybuf.
struct Work {
    int n = 0;  // rows of the source
    int m = 0;
    int rows = 0;  // compacted rows
    const double* x = nullptr;
    const double* y = nullptr;
    std::unique_ptr<double[]> xbuf;  // uninitialised: every cell is written
    std::vector<double> ybuf;
    std::vector<int32_t> src;  // source row (1-based) of each compacted row
    std::vector<uint8_t> excluded;  // n + 1 flags
    bool hasEmpty = false;
    double xv(int i, int j) const { return x[static_cast<size_t>(i) * m + j]; }
};

class FitEngine {
public:
    FitEngine(Work& wk, float tol, bool center, bool scale, float threshold, float rangeCull,
              bool wantU, Proc& p, Notes* notes, SvdFitArrays& out)
        : wk_(wk), tol_(tol), center_(center), scale_(scale), threshold_(threshold),
          rangeCull_(rangeCull), wantU_(wantU), p_(p), notes_(notes), out_(out) {}

    void run();

private:
    // Column means of the active rows; a column whose cells are all equal
    // gets that value exactly, so that it centres to zero.
    void activeMeans(std::vector<double>& mx, double& my) const;
    // All active cells of column j equal (no empty cells: the fast path);
    // value gets that value.
    bool isConstantActive(int j, double& value) const;
    void factorSuperblock(int sb, double* R);
    void mergeFactors(std::vector<double>& Rt);
    // modelled and residuals with coefficients c over the active rows (all
    // rows when allRows); returns the intercept; resid gets every row.
    double residuals(const double* c, bool allRows, std::vector<double>& resid, double& ssResid);
    void solvePass(std::vector<double>& c, std::vector<double>& var);

    Work& wk_;
    float tol_;
    bool center_, scale_;
    float threshold_, rangeCull_;
    bool wantU_;
    Proc& p_;
    Notes* notes_;
    SvdFitArrays& out_;

    std::vector<uint8_t> active_;
    int nActive_ = 0;
    bool lead_ = false;  // leading column of ones (algebraic centring)
    int nc_ = 0;         // columns of the factored design
    std::vector<double> shift_;  // per x column
    double yShift_ = 0;
    std::vector<double> sbR_;
    std::vector<uint8_t> dirty_;
    std::vector<double> buf_;
    std::vector<int> idx_;
    std::vector<double> mod_, act_;
};

void FitEngine::activeMeans(std::vector<double>& mx, double& my) const {
    const int rows = wk_.rows, m = wk_.m;
    mx.assign(static_cast<size_t>(m), 0.0);
    const bool all = nActive_ == rows;
    const double inf = std::numeric_limits<double>::infinity();
    std::vector<double> s(static_cast<size_t>(m), 0.0), lo(static_cast<size_t>(m), inf),
        hi(static_cast<size_t>(m), -inf);
    std::vector<size_t> cnt(static_cast<size_t>(m), 0);
    for (int i = 0; i < rows; ++i) {
        if (!all && !active_[i]) continue;
        const double* xr = wk_.x + static_cast<size_t>(i) * m;
        if (wk_.hasEmpty) {
            for (int j = 0; j < m; ++j) {
                const double v = xr[j];
                if (v != v) continue;
                s[j] += v;
                lo[j] = std::min(lo[j], v);
                hi[j] = std::max(hi[j], v);
                ++cnt[j];
            }
        } else {
            for (int j = 0; j < m; ++j) {
                const double v = xr[j];
                s[j] += v;
                lo[j] = v < lo[j] ? v : lo[j];
                hi[j] = v > hi[j] ? v : hi[j];
            }
        }
    }
    for (int j = 0; j < m; ++j) {
        const size_t c = wk_.hasEmpty ? cnt[j] : static_cast<size_t>(nActive_);
        if (c) mx[j] = lo[j] == hi[j] ? lo[j] : s[j] / static_cast<double>(c);
    }
    double sy = 0;
    for (int i = 0; i < rows; ++i)
        if (all || active_[i]) sy += wk_.y[i];
    my = nActive_ ? sy / nActive_ : 0.0;
}

bool FitEngine::isConstantActive(int j, double& value) const {
    const int rows = wk_.rows, m = wk_.m;
    bool seen = false;
    double first = 0;
    for (int i = 0; i < rows; ++i) {
        if (!active_[i]) continue;
        const double v = wk_.x[static_cast<size_t>(i) * m + j];
        if (!seen) {
            first = v;
            seen = true;
        } else if (v != first) {
            return false;
        }
    }
    value = first;
    return seen;
}

void FitEngine::factorSuperblock(int sb, double* R) {
    const int nc = nc_, m = wk_.m, rows = wk_.rows;
    std::fill(R, R + static_cast<size_t>(nc) * nc, 0.0);
    const int r0 = sb * kSuperRows, r1 = std::min(rows, r0 + kSuperRows);
    const int xoff = lead_ ? 1 : 0;
    int i = r0;
    while (i < r1) {
        int cnt = 0;
        idx_.clear();
        for (; i < r1 && cnt < kBlockRows; ++i)
            if (active_[i]) {
                idx_.push_back(i);
                ++cnt;
            }
        if (!cnt) break;
        double* B = buf_.data();
        if (lead_) std::fill(B, B + cnt, 1.0);
        double* bx = B + static_cast<size_t>(xoff) * kBlockRows;
        const double* sh = shift_.data();
        for (int t = 0; t < cnt; ++t) {
            const double* xr = wk_.x + static_cast<size_t>(idx_[t]) * m;
            if (wk_.hasEmpty) {
                for (int j = 0; j < m; ++j) {
                    const double v = xr[j];
                    bx[static_cast<size_t>(j) * kBlockRows + t] = v != v ? 0.0 : v - sh[j];
                }
            } else {
                for (int j = 0; j < m; ++j) bx[static_cast<size_t>(j) * kBlockRows + t] = xr[j] - sh[j];
            }
        }
        double* by = B + static_cast<size_t>(nc - 1) * kBlockRows;
        for (int t = 0; t < cnt; ++t) by[t] = wk_.y[idx_[t]] - yShift_;
        svdk::absorbRows(R, nc, B, cnt, kBlockRows);
    }
}

void FitEngine::mergeFactors(std::vector<double>& Rt) {
    const int nc = nc_;
    const size_t sq = static_cast<size_t>(nc) * nc;
    Rt.assign(sq, 0.0);
    const int nsb = static_cast<int>(dirty_.size());
    for (int sb = 0; sb < nsb; ++sb) {
        if (dirty_[sb]) {
            factorSuperblock(sb, sbR_.data() + sb * sq);
            dirty_[sb] = 0;
        }
    }
    std::vector<double> B(sq);
    for (int sb = 0; sb < nsb; ++sb) {
        const double* R = sbR_.data() + sb * sq;
        std::copy(R, R + sq, B.begin());
        svdk::absorbRows(Rt.data(), nc, B.data(), nc, nc);
    }
}

double FitEngine::residuals(const double* c, bool allRows, std::vector<double>& resid,
                            double& ssResid) {
    const int rows = wk_.rows, m = wk_.m;
    std::vector<double>& mod = mod_;
    mod.resize(static_cast<size_t>(rows));
    for (int i = 0; i < rows; ++i) {
        const double* xr = wk_.x + static_cast<size_t>(i) * m;
        double sum = 0;
        if (wk_.hasEmpty) {
            for (int j = 0; j < m; ++j) {
                const double v = xr[j];
                if (v == v) sum += v * c[j];
            }
        } else {
            for (int j = 0; j < m; ++j) sum += xr[j] * c[j];
        }
        mod[i] = sum;
    }
    resid.resize(static_cast<size_t>(rows));
    double s = 0;
    size_t cnt = 0;
    for (int i = 0; i < rows; ++i) {
        resid[i] = wk_.y[i] - mod[i];
        if (allRows || active_[i]) {
            s += resid[i];
            ++cnt;
        }
    }
    const double intercept = cnt ? s / static_cast<double>(cnt) : 0.0;
    double s2 = 0, s1 = 0;
    for (int i = 0; i < rows; ++i) {
        resid[i] -= intercept;
        if (allRows || active_[i]) s1 += resid[i];
    }
    const double rm = cnt ? s1 / static_cast<double>(cnt) : 0.0;
    for (int i = 0; i < rows; ++i)
        if (allRows || active_[i]) s2 += (resid[i] - rm) * (resid[i] - rm);
    ssResid = s2;
    return intercept;
}

// One fit of the active rows: c in raw units and the variance of each term.
void FitEngine::solvePass(std::vector<double>& c, std::vector<double>& var) {
    const int m = wk_.m, rows = wk_.rows;
    const bool flags = center_ || scale_;

    // Sum of squares of y about its mean (output 10) and ynorm.
    double ynorm = 0;
    if (flags) {
        double s = 0;
        for (int i = 0; i < rows; ++i)
            if (active_[i]) s += wk_.y[i];
        const double my = nActive_ ? s / nActive_ : 0.0;
        double ss = 0;
        for (int i = 0; i < rows; ++i)
            if (active_[i]) ss += (wk_.y[i] - my) * (wk_.y[i] - my);
        if (std::fabs(ss) > 1e135) ss = ss < 0 ? -1e135 : 1e135;
        out_.ssy = ss;
        ynorm = std::sqrt(ss);
    }
    const double ydiv = scale_ && ynorm != 0.0 ? ynorm : 1.0;

    std::vector<double> colW(static_cast<size_t>(m), 1.0), colScale(static_cast<size_t>(m), 1.0);
    svdk::Dense d;
    std::vector<double> b;
    int brows = 0;

    if (wantU_) {
        // Explicit design: the left vectors are wanted.
        std::vector<double> mx(static_cast<size_t>(m), 0.0);
        double my = 0;
        if (center_) activeMeans(mx, my);
        std::vector<double> A(static_cast<size_t>(nActive_) * m);
        b.resize(static_cast<size_t>(nActive_));
        int r = 0;
        for (int i = 0; i < rows; ++i) {
            if (!active_[i]) continue;
            for (int j = 0; j < m; ++j) {
                const double v = wk_.xv(i, j);
                A[static_cast<size_t>(r) * m + j] = v != v ? 0.0 : v - mx[j];
            }
            b[r] = wk_.y[i] - my;
            ++r;
        }
        if (flags) {
            for (int j = 0; j < m; ++j) {
                double ss = 0;
                for (int i = 0; i < nActive_; ++i)
                    ss += A[static_cast<size_t>(i) * m + j] * A[static_cast<size_t>(i) * m + j];
                colW[j] = ss == 0.0 ? 1e10 : ss;
                colScale[j] = 1.0 / std::sqrt(colW[j]);
            }
        }
        if (scale_) {
            for (int i = 0; i < nActive_; ++i)
                for (int j = 0; j < m; ++j) A[static_cast<size_t>(i) * m + j] *= colScale[j];
            for (double& t : b) t /= ydiv;
        }
        svdk::decompose(A.data(), nActive_, m, true, d);
        brows = nActive_;
    } else {
        std::vector<double> Rt;
        mergeFactors(Rt);
        const int nc = nc_, off = lead_ ? 1 : 0;
        auto R = [&](int i, int j) { return Rt[(off + i) + static_cast<size_t>(off + j) * nc]; };
        if (flags) {
            for (int j = 0; j < m; ++j) {
                double ss = 0;
                for (int i = 0; i <= j; ++i) ss += R(i, j) * R(i, j);
                colW[j] = ss == 0.0 ? 1e10 : ss;
                colScale[j] = 1.0 / std::sqrt(colW[j]);
            }
        }
        std::vector<double> a(static_cast<size_t>(m) * m, 0.0);
        b.assign(static_cast<size_t>(m), 0.0);
        for (int i = 0; i < m; ++i) {
            for (int j = i; j < m; ++j)
                a[static_cast<size_t>(i) * m + j] = scale_ ? R(i, j) * colScale[j] : R(i, j);
            b[i] = R(i, m) / ydiv;
        }
        d.rows = m;
        d.cols = m;
        d.w.assign(static_cast<size_t>(m), 0.0);
        d.v.assign(static_cast<size_t>(m) * m, 0.0);
        d.converged = svdk::golubReinsch(a.data(), m, m, d.w.data(), d.v.data());
        d.u = std::move(a);
        brows = m;
    }
    if (flags) out_.colWeights = colW;

    c.assign(static_cast<size_t>(m), 0.0);
    float tol = tol_;
    svdk::coeffs(b.data(), brows, d.u.data(), d.rows, m, d.w.data(), d.v.data(), tol, c.data());
    if (scale_)
        for (int j = 0; j < m; ++j) c[j] *= ydiv * colScale[j];

    // Variances from the decomposition (the covariance diagonal).
    var.assign(static_cast<size_t>(m), 0.0);
    for (int i = 0; i < m; ++i) {
        double s = 0;
        for (int k = 0; k < m; ++k) {
            const double wk = d.w[k];
            if (wk != 0.0) {
                const double vik = d.v[static_cast<size_t>(i) * m + k];
                s += vik * vik * (1.0 / (wk * wk));
            }
        }
        if (scale_ && colW[i] != 0.0) s /= colW[i];
        var[i] = s;
    }

    out_.w = d.w;
    out_.v = d.v;
    if (wantU_) {
        out_.uRows = d.rows;
        out_.u = std::move(d.u);
    }
}

void FitEngine::run() {
    const int m = wk_.m, rows = wk_.rows;
    out_.threshold = threshold_;
    // One observation is still fitted (with centring its terms vanish and
    // the intercept is the value); the count is checked after each cull.
    if (rows < 1) {
        p_.error("The number  of DEPENDANT(vdtp) observations is <2.");
        out_.result = -1;
        return;
    }
    p_.chk = 3;
    active_.assign(static_cast<size_t>(rows), 1);
    nActive_ = rows;
    lead_ = center_ && !wk_.hasEmpty && !wantU_;
    nc_ = m + 1 + (lead_ ? 1 : 0);
    shift_.assign(static_cast<size_t>(m), 0.0);
    yShift_ = 0;
    if (lead_) activeMeans(shift_, yShift_);
    const int nsb = (rows + kSuperRows - 1) / kSuperRows;
    dirty_.assign(static_cast<size_t>(nsb), 1);
    sbR_.assign(static_cast<size_t>(nsb) * nc_ * nc_, 0.0);
    buf_.assign(static_cast<size_t>(kBlockRows) * nc_, 0.0);

    std::vector<double> c, var, resid;
    double intercept = 0, ssResid = 0;
    int culled = 0;
    float rc = rangeCull_;
    std::vector<int> list;

    for (int pass = 0;; ) {
        p_.chk = 4 + pass * 0.1f;
        if (center_ && !lead_ && !wantU_) {
            // Empty cells stay empty under centring: centre explicitly.
            activeMeans(shift_, yShift_);
            std::fill(dirty_.begin(), dirty_.end(), 1);
        } else if (lead_ && pass > 0) {
            // A column that the culls left constant must centre to exactly
            // zero (weight 1e10, no coefficient); the leading column only
            // makes it zero up to rounding, so shift it by its value.
            bool moved = false;
            for (int j = 0; j < m; ++j) {
                double v = 0;
                if (isConstantActive(j, v) && shift_[j] != v) {
                    shift_[j] = v;
                    moved = true;
                }
            }
            if (moved) std::fill(dirty_.begin(), dirty_.end(), 1);
        }
        solvePass(c, var);

        intercept = residuals(c.data(), false, resid, ssResid);
        out_.mse = static_cast<float>(ssResid / std::max(nActive_ - m, 1));
        for (double& t : var) t = std::fabs(t * static_cast<double>(out_.mse));

        if (CheckEscKey()) {
            out_.coef.assign(1, intercept);
            out_.coef.insert(out_.coef.end(), c.begin(), c.end());
            out_.errors = var;
            out_.result = -1;
            return;
        }

        // Range cull: 0 means four standard deviations of the residuals,
        // fixed for the rest of the call.
        if (rc == 0.0f) {
            std::vector<double>& act = act_;
            act.clear();
            for (int i = 0; i < rows; ++i)
                if (active_[i]) act.push_back(resid[i]);
            rc = static_cast<float>(4.0 * stdevOf(act.data(), act.size()));
        }
        if (rc <= 0.0f) break;
        double rmax = -9999, rmin = 9999;
        list.clear();
        for (int i = 0; i < rows; ++i) {
            if (!active_[i]) continue;
            const double r = resid[i];
            if (r > rmax) rmax = r;
            if (r < rmin) rmin = r;
            if (std::fabs(r) > static_cast<double>(rc)) {
                list.push_back(i);
                wk_.excluded[wk_.src[i]] = 1;
            }
        }
        if (list.empty()) break;
        if (nActive_ - static_cast<int>(list.size()) <= 2) break;
        for (int i : list) {
            active_[i] = 0;
            dirty_[i / kSuperRows] = 1;
        }
        nActive_ -= static_cast<int>(list.size());
        culled += static_cast<int>(list.size());
        if (nActive_ < 2) {
            TellWarning(notes_, {"Warning:\r\nData 'Range-cull' variable is set too low: " +
                                     NumberToText(rc, 7) + ".\r\nResidual (Max/Min)=(" +
                                     NumberToText(rmax) + "/" + NumberToText(rmin) + ")",
                                 p_.tag(), false});
        }
        if (pass == 3) break;
        ++pass;
        if (nActive_ < 2) {
            p_.error("The number  of DEPENDANT(vdtp) observations is <2.");
            out_.result = -1;
            return;
        }
    }
    p_.chk = 6;

    // With culls, the residuals and the intercept cover every row again.
    if (culled > 0) intercept = residuals(c.data(), true, resid, ssResid);

    out_.coef.assign(1, intercept);
    out_.coef.insert(out_.coef.end(), c.begin(), c.end());
    out_.resid = std::move(resid);

    // Errors: the intercept's variance is the residuals' SEM squared, doubled.
    const double e = semOf(out_.resid.data(), out_.resid.size());
    const double var0 = std::fabs(e) < 100 ? 2 * e * e : 0.0;
    out_.errors.assign(1, var0);
    out_.errors.insert(out_.errors.end(), var.begin(), var.end());
    for (double& t : out_.errors) t = std::fabs(std::sqrt(std::fabs(t)));

    // Thresholded model.
    p_.chk = 7;
    out_.curMse = out_.mse;
    out_.curCoef = out_.coef;
    out_.curErrors = out_.errors;
    out_.curResid = out_.resid;
    bool changed = false;
    for (size_t i = 0; i < out_.coef.size(); ++i) {
        if (std::fabs(out_.coef[i]) < std::fabs(static_cast<double>(threshold_) * out_.errors[i])) {
            out_.curCoef[i] = 0.0;
            changed = true;
        }
    }
    if (changed && out_.curCoef.size() > 1) {
        double ss = 0;
        const double ci = residuals(out_.curCoef.data() + 1, true, out_.curResid, ss);
        out_.curCoef[0] = ci;
        out_.curErrors[0] = 1.0;
        const double ce = semOf(out_.curResid.data(), out_.curResid.size());
        if (std::fabs(ce) < 100) out_.curErrors[0] = ce;
        out_.curMse = ss / std::max(nActive_ - m, 1);
    }
    out_.result = culled;
}

// The fit on compacted data; out gets everything.
void runFit(Work& wk, float tolerance, bool center, bool scale, float threshold, float rangeCull,
            bool wantU, Proc& p, Notes* notes, SvdFitArrays& out) {
    FitEngine eng(wk, tolerance, center, scale, threshold, rangeCull, wantU, p, notes, out);
    Guarded(p, [&] { eng.run(); });
    if (p.failed()) {
        out.result = -1;
        TellFailure(notes, p.failure());
    }
    if (!out.resid.empty()) out.residRow = std::move(wk.src);
    out.excluded = std::move(wk.excluded);
}

void earlyOnes(SvdFitArrays& out) {
    out.coef.assign(1, 1.0);
    out.errors.assign(1, 1.0);
    out.curCoef = out.coef;
    out.curErrors = out.errors;
    out.result = -1;
}

// Last non-blank row of a column, or the lower row bound.
int lastRowOf(const Datam& t, int col) {
    if (!t.isArray() || t.dims() != 2) return 0;
    if (col < t.colLb() || col > t.colUb()) return t.rowLb();
    for (int r = t.rowUb(); r > t.rowLb(); --r)
        if (!isBlank(t(r, col))) return r;
    return t.rowLb();
}

// Number of term columns: one less than a column headed "Xloc", else the
// last column with something in the header row.
int termColumns(const Datam& mitp) {
    if (!mitp.isArray() || mitp.dims() != 2) return 0;
    const int hr = mitp.rowLb();
    for (int c = mitp.colUb(); c >= mitp.colLb(); --c) {
        const Value& h = mitp.get(hr, c);  // a table may have no rows at all
        if (!h.isString()) continue;
        std::string s(h.str());
        for (char& ch : s) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        if (s == "XLOC") return c - 1;
    }
    if (mitp.colCount() <= 1) return mitp.colUb();
    for (int c = mitp.colUb(); c >= 1; --c) {
        const Value& h = mitp.get(hr, c);
        if (!isBlank(h) && !h.isError()) return c;
    }
    // A table without headers: all its columns.
    return mitp.colUb();
}

// Fills a cell of a freshly made table: an empty value holds nothing to
// release, so the number is constructed in its place (a million-row output
// costs a third of the assignment).
template <class T>
inline void putNew(Value& cell, T x) {
    ::new (static_cast<void*>(&cell)) Value(x);
}

Datam toVec(const std::vector<double>& v) {
    Datam d(static_cast<int>(v.size()), 1, 0, 1);
    Value* p = d.data();
    for (size_t i = 0; i < v.size(); ++i) putNew(p[i + 1], v[i]);
    return d;
}

Datam toMat(const std::vector<double>& a, int rows, int cols) {
    Datam d(rows, cols, 1, 1);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j)
            d(i + 1, j + 1) = Value(a[static_cast<size_t>(i) * cols + j]);
    return d;
}

Datam residVec(const std::vector<double>& r, const std::vector<int32_t>& rows) {
    Datam d(static_cast<int>(r.size()), 1, 0, 0);
    Value* p = d.data() + 2;  // row 1, column 0
    for (size_t i = 0; i < r.size(); ++i) {
        putNew(p[2 * i], rows[i]);
        putNew(p[2 * i + 1], r[i]);
    }
    return d;
}

// Values of column 1 (rows 1..ub) of a vector, empty as 0.
std::vector<double> vecValues(const Datam& t) {
    std::vector<double> out;
    if (!t.isArray() || t.dims() != 2) return out;
    const int c = std::max(1, t.colLb()) <= t.colUb() ? std::max(1, t.colLb()) : t.colLb();
    for (int r = std::max(1, t.rowLb()); r <= t.rowUb(); ++r) out.push_back(t(r, c).toDouble());
    return out;
}

// A table's numeric part (rows and columns from 1), row-major, empty as 0.
std::vector<double> matValues(const Datam& t, int& rows, int& cols) {
    rows = cols = 0;
    std::vector<double> out;
    if (!t.isArray() || t.dims() != 2) return out;
    const int r0 = std::max(1, t.rowLb()), c0 = std::max(1, t.colLb());
    rows = std::max(0, t.rowUb() - r0 + 1);
    cols = std::max(0, t.colUb() - c0 + 1);
    out.resize(static_cast<size_t>(rows) * cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j)
            out[static_cast<size_t>(i) * cols + j] = t(r0 + i, c0 + j).toDouble();
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------

SvdFitArrays svdfit_std(const double* x, const double* y, int n, int m, float tolerance,
                        bool center, bool scale, float threshold, float rangeCull, bool wantU,
                        Notes* notes) {
    Proc p("MathUtil(svdfit_std): ");
    SvdFitArrays out;
    tolerance = std::max(tolerance, 1e-15f);
    if (threshold < 0) threshold = 1;
    out.threshold = threshold;
    if (n < 1 || m < 1) {
        earlyOnes(out);
        return out;
    }
    p.chk = 2;
    Work wk;
    wk.n = n;
    wk.m = m;
    wk.excluded.assign(static_cast<size_t>(n) + 1, 0);
    wk.src.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        if (y[i] != y[i]) {
            wk.excluded[i + 1] = 1;
            continue;
        }
        wk.src.push_back(i + 1);
    }
    wk.rows = static_cast<int>(wk.src.size());
    const size_t rows = static_cast<size_t>(wk.rows);
    if (wk.rows == n) {
        wk.x = x;  // nothing to compact: work on the caller's arrays
        wk.y = y;
    } else {
        wk.xbuf.reset(new double[rows * m]);
        wk.ybuf.resize(rows);
        for (size_t k = 0; k < rows; ++k) {
            const size_t i = static_cast<size_t>(wk.src[k] - 1);
            wk.ybuf[k] = y[i];
            std::copy(x + i * m, x + (i + 1) * m, wk.xbuf.get() + k * m);
        }
        wk.x = wk.xbuf.get();
        wk.y = wk.ybuf.data();
    }
    for (size_t k = 0, e = rows * m; k < e; ++k)
        if (wk.x[k] != wk.x[k]) {
            wk.hasEmpty = true;
            break;
        }
    runFit(wk, tolerance, center, scale, threshold, rangeCull, wantU, p, notes, out);
    return out;
}

SvdFit svdfit_std(const Datam& mitp, const Datam& vdtp, float tolerance, bool center, bool scale,
                  float threshold, float rangeCull, bool wantU, Notes* notes) {
    Proc p("MathUtil(svdfit_std): ");
    SvdFit res;
    SvdFitArrays out;
    tolerance = std::max(tolerance, 1e-15f);
    if (threshold < 0) threshold = 1;
    res.threshold = threshold;
    const int ycol = 1;
    const int n = vdtp.isArray() && vdtp.dims() == 2 ? lastRowOf(vdtp, ycol) : 0;
    const int m = termColumns(mitp);
    if (n < 1 || m < 1) {
        earlyOnes(out);
    } else {
        p.chk = 2;
        // Compaction: rows with a y take part, in column-major working arrays.
        Work wk;
        wk.n = n;
        wk.m = m;
        wk.excluded.assign(static_cast<size_t>(n) + 1, 0);
        wk.src.reserve(static_cast<size_t>(n));
        wk.ybuf.reserve(static_cast<size_t>(n));
        for (int i = 1; i <= n; ++i) {
            const double v = vdtp.inRange(i, ycol) ? cellValue(vdtp(i, ycol)) : kNaN;
            if (v != v) {
                wk.excluded[i] = 1;
                continue;
            }
            wk.src.push_back(i);
            wk.ybuf.push_back(v);
        }
        wk.rows = static_cast<int>(wk.src.size());
        const size_t rows = static_cast<size_t>(wk.rows);
        wk.xbuf.reset(new double[rows * m]);
        double* xb = wk.xbuf.get();
        const Value* base = mitp.data();
        const size_t stride = mitp.stride();
        const int mcols = std::min(m, mitp.colUb());
        const bool partial = mcols < m || mitp.colLb() > 1;  // some term columns missing
        for (size_t k = 0; k < rows; ++k) {
            const int r = wk.src[k];
            double* xr = xb + k * m;
            if (partial || r < mitp.rowLb() || r > mitp.rowUb()) {
                std::fill(xr, xr + m, kNaN);
                wk.hasEmpty = true;
                if (r < mitp.rowLb() || r > mitp.rowUb()) continue;
            }
            const Value* row = base + static_cast<size_t>(r - mitp.rowLb()) * stride;
            for (int j = std::max(1, mitp.colLb()); j <= mcols; ++j) {
                const double v = cellValue(row[j - mitp.colLb()]);
                if (v != v) wk.hasEmpty = true;
                xr[j - 1] = v;
            }
        }
        wk.x = wk.xbuf.get();
        wk.y = wk.ybuf.data();
        runFit(wk, tolerance, center, scale, threshold, rangeCull, wantU, p, notes, out);
    }

    res.result = out.result;
    res.threshold = out.threshold;
    if (!out.coef.empty()) res.coef = toVec(out.coef);
    if (!out.errors.empty()) res.errors = toVec(out.errors);
    if (!out.resid.empty()) res.resids = residVec(out.resid, out.residRow);
    res.mse = out.mse;
    res.ssy = out.ssy;
    if (!out.colWeights.empty()) res.colWeights = toVec(out.colWeights);
    const int mm = static_cast<int>(out.w.size());
    if (mm) {
        res.w = toVec(out.w);
        res.v = toMat(out.v, mm, mm);
        if (!out.u.empty()) res.u = toMat(out.u, out.uRows, mm);
    }
    if (!out.curCoef.empty()) res.curCoef = toVec(out.curCoef);
    if (!out.curErrors.empty()) res.curErrors = toVec(out.curErrors);
    if (!out.curResid.empty()) res.curResids = toVec(out.curResid);
    res.curMse = out.curMse;
    if (!out.excluded.empty()) {
        res.excluded = Datam(static_cast<int>(out.excluded.size()) - 1, 1, 0, 1);
        Value* p = res.excluded.data();
        for (size_t i = 1; i < out.excluded.size(); ++i)
            putNew(p[i], static_cast<int32_t>(out.excluded[i]));
    }
    return res;
}

// ---------------------------------------------------------------------------

void svd_decompose(const Datam& a, Datam& u, Datam& w, Datam& v) {
    int rows = 0, cols = 0;
    const std::vector<double> av = matValues(a, rows, cols);
    svdk::Dense d;
    svdk::decompose(av.data(), rows, cols, true, d);
    u = toMat(d.u, d.rows, cols);
    w = toVec(d.w);
    v = toMat(d.v, cols, cols);
}

Datam svd_coeffs(const Datam& b, const Datam& u, Datam& w, const Datam& v, float& tolerance,
                 Notes* notes) {
    Proc p("MathUtility(svd_coeffs): ");
    std::vector<double> bv = vecValues(b), wv = vecValues(w);
    int ur = 0, uc = 0, vr = 0, vc = 0;
    const std::vector<double> uv = matValues(u, ur, uc), vv = matValues(v, vr, vc);
    const int m = static_cast<int>(wv.size());
    if (m == 0 || uc != m || vr != m || vc != m) {
        p.error("Subscript out of range");
        TellFailure(notes, p.failure());
        return Datam();
    }
    std::vector<double> x(static_cast<size_t>(m));
    svdk::coeffs(bv.data(), static_cast<int>(bv.size()), uv.data(), ur, m, wv.data(), vv.data(),
                 tolerance, x.data());
    for (int j = 0; j < m; ++j) {
        const int r = std::max(1, w.colLb()) <= w.colUb() ? std::max(1, w.colLb()) : w.colLb();
        w(std::max(1, w.rowLb()) + j, r) = Value(wv[j]);
    }
    return toVec(x);
}

Datam svd_covariance(const Datam& v, const Datam& w) {
    const std::vector<double> wv = vecValues(w);
    int vr = 0, vc = 0;
    const std::vector<double> vv = matValues(v, vr, vc);
    const int m = static_cast<int>(wv.size());
    if (m == 0 || vr != m || vc != m) return Datam();
    std::vector<double> cvm(static_cast<size_t>(m) * m);
    svdk::covariance(vv.data(), wv.data(), m, cvm.data());
    return toMat(cvm, m, m);
}

int CalcFitResids(const Datam& x, const Datam& y, const Datam& c, Datam& coef, Datam& modelled,
                  Datam& resids, double& ssModelled, double& ssResids, Notes* notes) {
    if (!x.isArray() || x.dims() != 2 || x.rowUb() < 2) {
        Proc p("MathUtil(CalcFitResids): ");
        TellFailure(notes, p.fail("No data in matrix"));
        return -1;
    }
    const std::vector<double> cv = vecValues(c);
    const int n = x.rowUb();
    const int m = std::min(static_cast<int>(cv.size()), x.colUb());
    const int yc = y.isArray() && y.colLb() <= 1 && y.colUb() >= 1 ? 1 : (y.isArray() ? y.colLb() : 1);
    std::vector<double> mod(static_cast<size_t>(n) + 1, 0.0), raw(static_cast<size_t>(n) + 1, kNaN);
    double s = 0;
    int cnt = 0;
    for (int i = 1; i <= n; ++i) {
        double sum = 0;
        for (int j = std::max(1, x.colLb()); j <= m; ++j) {
            const double v = cellValue(x(i, j));
            if (v == v) sum += v * cv[j - 1];
        }
        mod[i] = sum;
        const double yv = y.inRange(i, yc) ? cellValue(y(i, yc)) : kNaN;
        if (yv == yv) {
            raw[i] = yv - sum;
            s += raw[i];
            ++cnt;
        }
    }
    const double intercept = cnt ? s / cnt : 0.0;
    coef = Datam(static_cast<int>(cv.size()) + 1, 1, 0, 1);
    coef(1, 1) = Value(intercept);
    for (size_t j = 0; j < cv.size(); ++j) coef(static_cast<int>(j) + 2, 1) = Value(cv[j]);
    modelled = Datam(n, 1, 0, 1);
    resids = Datam(n, 1, 0, 1);
    double mm = 0, rm = 0;
    for (int i = 1; i <= n; ++i) {
        modelled(i, 1) = Value(mod[i]);
        mm += mod[i];
        if (raw[i] == raw[i]) {
            raw[i] -= intercept;
            resids(i, 1) = Value(raw[i]);
            rm += raw[i];
        }
    }
    mm /= n;
    rm = cnt ? rm / cnt : 0.0;
    ssModelled = ssResids = 0;
    for (int i = 1; i <= n; ++i) {
        ssModelled += (mod[i] - mm) * (mod[i] - mm);
        if (raw[i] == raw[i]) ssResids += (raw[i] - rm) * (raw[i] - rm);
    }
    return 1;
}

}  // namespace zorv
