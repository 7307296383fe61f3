#include "numerics/svd.h"

#include <algorithm>
#include <cmath>

namespace zorv {

double svd_Pythag(double a, double b) {
    const double absa = std::fabs(a), absb = std::fabs(b);
    if (absa > absb) {
        const double r = absb / absa;
        return absa * std::sqrt(1.0 + r * r);
    }
    if (absb == 0.0) return 0.0;
    const double r = absa / absb;
    return absb * std::sqrt(1.0 + r * r);
}

namespace svdk {

// The hot loops get an AVX2 clone where the processor has it. No FMA: the
// arithmetic, and so every result, is the same in either clone.
#if defined(__GNUC__) && defined(__x86_64__) && !defined(__clang__)
#define ZORV_HOT __attribute__((target_clones("avx2", "default")))
#else
#define ZORV_HOT
#endif

namespace {

inline double signOf(double a, double b) { return b >= 0.0 ? std::fabs(a) : -std::fabs(a); }

ZORV_HOT void axpy(double alpha, const double* x, double* y, size_t n) {
    for (size_t i = 0; i < n; ++i) y[i] += alpha * x[i];
}

ZORV_HOT void scal(double alpha, double* x, size_t n) {
    for (size_t i = 0; i < n; ++i) x[i] *= alpha;
}

}  // namespace

ZORV_HOT double dot(const double* a, const double* b, size_t n) {
    double s0 = 0, s1 = 0, s2 = 0, s3 = 0, s4 = 0, s5 = 0, s6 = 0, s7 = 0;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        s0 += a[i] * b[i];
        s1 += a[i + 1] * b[i + 1];
        s2 += a[i + 2] * b[i + 2];
        s3 += a[i + 3] * b[i + 3];
        s4 += a[i + 4] * b[i + 4];
        s5 += a[i + 5] * b[i + 5];
        s6 += a[i + 6] * b[i + 6];
        s7 += a[i + 7] * b[i + 7];
    }
    for (; i < n; ++i) s0 += a[i] * b[i];
    return ((s0 + s4) + (s1 + s5)) + ((s2 + s6) + (s3 + s7));
}

bool golubReinsch(double* a, int m, int n, double* w, double* v) {
    // a: m x n row-major (m >= n), becomes u; v: n x n row-major.
#define A_(i, j) a[static_cast<size_t>(i) * n + (j)]
#define V_(i, j) v[static_cast<size_t>(i) * n + (j)]
    std::vector<double> rv1(static_cast<size_t>(n), 0.0);
    double g = 0, scale = 0, anorm = 0, s, f, h;
    int l = 0;

    // Householder reduction to bidiagonal form; each column and row is
    // scaled by its sum of magnitudes first.
    for (int i = 0; i < n; ++i) {
        l = i + 1;
        rv1[i] = scale * g;
        g = s = scale = 0.0;
        if (i < m) {
            for (int k = i; k < m; ++k) scale += std::fabs(A_(k, i));
            if (scale != 0.0) {
                for (int k = i; k < m; ++k) {
                    A_(k, i) /= scale;
                    s += A_(k, i) * A_(k, i);
                }
                f = A_(i, i);
                g = -signOf(std::sqrt(s), f);
                h = f * g - s;
                A_(i, i) = f - g;
                for (int j = l; j < n; ++j) {
                    s = 0.0;
                    for (int k = i; k < m; ++k) s += A_(k, i) * A_(k, j);
                    f = s / h;
                    for (int k = i; k < m; ++k) A_(k, j) += f * A_(k, i);
                }
                for (int k = i; k < m; ++k) A_(k, i) *= scale;
            }
        }
        w[i] = scale * g;
        g = s = scale = 0.0;
        if (i < m && i != n - 1) {
            for (int k = l; k < n; ++k) scale += std::fabs(A_(i, k));
            if (scale != 0.0) {
                for (int k = l; k < n; ++k) {
                    A_(i, k) /= scale;
                    s += A_(i, k) * A_(i, k);
                }
                f = A_(i, l);
                g = -signOf(std::sqrt(s), f);
                h = f * g - s;
                A_(i, l) = f - g;
                for (int k = l; k < n; ++k) rv1[k] = A_(i, k) / h;
                for (int j = l; j < m; ++j) {
                    s = 0.0;
                    for (int k = l; k < n; ++k) s += A_(j, k) * A_(i, k);
                    for (int k = l; k < n; ++k) A_(j, k) += s * rv1[k];
                }
                for (int k = l; k < n; ++k) A_(i, k) *= scale;
            }
        }
        anorm = std::max(anorm, std::fabs(w[i]) + std::fabs(rv1[i]));
    }

    // Accumulation of the right-hand transformations.
    for (int i = n - 1; i >= 0; --i) {
        if (i < n - 1) {
            if (g != 0.0) {
                for (int j = l; j < n; ++j) V_(j, i) = (A_(i, j) / A_(i, l)) / g;
                for (int j = l; j < n; ++j) {
                    s = 0.0;
                    for (int k = l; k < n; ++k) s += A_(i, k) * V_(k, j);
                    for (int k = l; k < n; ++k) V_(k, j) += s * V_(k, i);
                }
            }
            for (int j = l; j < n; ++j) V_(i, j) = V_(j, i) = 0.0;
        }
        V_(i, i) = 1.0;
        g = rv1[i];
        l = i;
    }

    // Accumulation of the left-hand transformations.
    for (int i = std::min(m, n) - 1; i >= 0; --i) {
        l = i + 1;
        g = w[i];
        for (int j = l; j < n; ++j) A_(i, j) = 0.0;
        if (g != 0.0) {
            g = 1.0 / g;
            for (int j = l; j < n; ++j) {
                s = 0.0;
                for (int k = l; k < m; ++k) s += A_(k, i) * A_(k, j);
                f = (s / A_(i, i)) * g;
                for (int k = i; k < m; ++k) A_(k, j) += f * A_(k, i);
            }
            for (int j = i; j < m; ++j) A_(j, i) *= g;
        } else {
            for (int j = i; j < m; ++j) A_(j, i) = 0.0;
        }
        A_(i, i) += 1.0;
    }

    // Implicit QR on the bidiagonal, each singular value from the last.
    // Negligible elements are found by adding them to the matrix norm.
    for (int k = n - 1; k >= 0; --k) {
        for (int its = 1; its <= 30; ++its) {
            bool flag = true;
            int nm = 0;
            for (l = k; l >= 0; --l) {
                nm = l - 1;
                if (std::fabs(rv1[l]) + anorm == anorm) {  // rv1[0] is always 0
                    flag = false;
                    break;
                }
                if (std::fabs(w[nm]) + anorm == anorm) break;
            }
            if (flag) {
                double c = 0.0;
                s = 1.0;
                for (int i = l; i <= k; ++i) {
                    f = s * rv1[i];
                    rv1[i] = c * rv1[i];
                    if (std::fabs(f) + anorm == anorm) break;
                    g = w[i];
                    h = svd_Pythag(f, g);
                    w[i] = h;
                    h = 1.0 / h;
                    c = g * h;
                    s = -f * h;
                    for (int j = 0; j < m; ++j) {
                        const double y = A_(j, nm);
                        const double z = A_(j, i);
                        A_(j, nm) = y * c + z * s;
                        A_(j, i) = z * c - y * s;
                    }
                }
            }
            double z = w[k];
            if (l == k) {
                if (z < 0.0) {
                    w[k] = -z;
                    for (int j = 0; j < n; ++j) V_(j, k) = -V_(j, k);
                }
                break;
            }
            // No convergence: the routine ends here and says nothing.
            if (its == 30) return false;
            double x = w[l];
            nm = k - 1;
            double y = w[nm];
            g = rv1[nm];
            h = rv1[k];
            f = ((y - z) * (y + z) + (g - h) * (g + h)) / (2.0 * h * y);
            g = svd_Pythag(f, 1.0);
            f = ((x - z) * (x + z) + h * ((y / (f + signOf(g, f))) - h)) / x;
            double c = 1.0;
            s = 1.0;
            for (int j = l; j <= nm; ++j) {
                const int i = j + 1;
                g = rv1[i];
                y = w[i];
                h = s * g;
                g = c * g;
                z = svd_Pythag(f, h);
                rv1[j] = z;
                c = f / z;
                s = h / z;
                f = x * c + g * s;
                g = g * c - x * s;
                h = y * s;
                y *= c;
                for (int jj = 0; jj < n; ++jj) {
                    x = V_(jj, j);
                    z = V_(jj, i);
                    V_(jj, j) = x * c + z * s;
                    V_(jj, i) = z * c - x * s;
                }
                z = svd_Pythag(f, h);
                w[j] = z;
                if (z != 0.0) {  // the rotation can be arbitrary when z is 0
                    z = 1.0 / z;
                    c = f * z;
                    s = h * z;
                }
                f = c * g + s * y;
                x = c * y - s * g;
                for (int jj = 0; jj < m; ++jj) {
                    y = A_(jj, j);
                    z = A_(jj, i);
                    A_(jj, j) = y * c + z * s;
                    A_(jj, i) = z * c - y * s;
                }
            }
            rv1[l] = 0.0;
            rv1[k] = f;
            w[k] = x;
        }
    }
    return true;
#undef A_
#undef V_
}

void absorbRows(double* R, int nc, double* B, int bs, int ldb) {
    if (bs <= 0) return;
    const size_t n = static_cast<size_t>(bs);
    for (int j = 0; j < nc; ++j) {
        double* bj = B + static_cast<size_t>(j) * ldb;
        const double s = dot(bj, bj, n);
        if (s == 0.0) continue;  // nothing below the diagonal: no reflection
        double& rjj = R[j + static_cast<size_t>(j) * nc];
        const double alpha = rjj;
        const double nrm = std::sqrt(alpha * alpha + s);
        const double beta = alpha >= 0.0 ? -nrm : nrm;
        scal(1.0 / (alpha - beta), bj, n);
        const double tau = (beta - alpha) / beta;
        rjj = beta;
        for (int k = j + 1; k < nc; ++k) {
            double* bk = B + static_cast<size_t>(k) * ldb;
            double& rjk = R[j + static_cast<size_t>(k) * nc];
            const double t = tau * (rjk + dot(bj, bk, n));
            rjk -= t;
            axpy(-t, bj, bk, n);
        }
    }
}

void decompose(const double* a, int rows, int cols, bool wantU, Dense& out) {
    out.cols = cols;
    out.w.assign(static_cast<size_t>(cols), 0.0);
    out.v.assign(static_cast<size_t>(cols) * cols, 0.0);
    out.u.clear();
    const size_t nc = static_cast<size_t>(cols);
    if (cols <= 0) {
        out.rows = std::max(rows, 0);
        return;
    }

    if (rows <= 2 * cols) {
        // Short table: Golub-Reinsch on the table itself, enlarged to a
        // square with zero rows when it has fewer rows than columns.
        const int r = std::max(rows, cols);
        std::vector<double> u(static_cast<size_t>(r) * nc, 0.0);
        if (rows > 0) std::copy(a, a + static_cast<size_t>(rows) * nc, u.begin());
        out.converged = golubReinsch(u.data(), r, cols, out.w.data(), out.v.data());
        out.rows = r;
        if (wantU) out.u = std::move(u);
        return;
    }

    // Tall table: Householder QR (column-major copy, reflectors kept in
    // place), then Golub-Reinsch on the triangular factor.
    const size_t nr = static_cast<size_t>(rows);
    std::vector<double> q(nr * nc);
    for (size_t i = 0; i < nr; ++i)
        for (size_t j = 0; j < nc; ++j) q[j * nr + i] = a[i * nc + j];
    std::vector<double> tau(nc, 0.0);
    for (size_t j = 0; j < nc; ++j) {
        double* col = q.data() + j * nr;
        const size_t len = nr - j - 1;
        double* x = col + j + 1;
        const double s = dot(x, x, len);
        if (s == 0.0) continue;
        const double alpha = col[j];
        const double nrm = std::sqrt(alpha * alpha + s);
        const double beta = alpha >= 0.0 ? -nrm : nrm;
        scal(1.0 / (alpha - beta), x, len);
        tau[j] = (beta - alpha) / beta;
        col[j] = beta;
        for (size_t k = j + 1; k < nc; ++k) {
            double* ck = q.data() + k * nr;
            const double t = tau[j] * (ck[j] + dot(x, ck + j + 1, len));
            ck[j] -= t;
            axpy(-t, x, ck + j + 1, len);
        }
    }
    std::vector<double> r(nc * nc, 0.0);  // row-major triangular factor
    for (size_t i = 0; i < nc; ++i)
        for (size_t j = i; j < nc; ++j) r[i * nc + j] = q[j * nr + i];
    out.converged = golubReinsch(r.data(), cols, cols, out.w.data(), out.v.data());
    out.rows = rows;
    if (!wantU) return;

    // u = Q [ur; 0], applying the reflectors from the last.
    std::vector<double> z(nr * nc, 0.0);  // column-major
    for (size_t i = 0; i < nc; ++i)
        for (size_t j = 0; j < nc; ++j) z[j * nr + i] = r[i * nc + j];
    for (size_t jj = nc; jj-- > 0;) {
        if (tau[jj] == 0.0) continue;
        const double* x = q.data() + jj * nr + jj + 1;
        const size_t len = nr - jj - 1;
        for (size_t c = 0; c < nc; ++c) {
            double* zc = z.data() + c * nr;
            const double t = tau[jj] * (zc[jj] + dot(x, zc + jj + 1, len));
            zc[jj] -= t;
            axpy(-t, x, zc + jj + 1, len);
        }
    }
    out.u.assign(nr * nc, 0.0);
    for (size_t i = 0; i < nr; ++i)
        for (size_t j = 0; j < nc; ++j) out.u[i * nc + j] = z[j * nr + i];
}

void coeffs(const double* b, int nb, const double* u, int urows, int cols, double* w,
            const double* v, float& tol, double* x) {
    if (tol == 0.0f) tol = static_cast<float>(std::exp(-12.0));
    double wmax = 0.0;
    for (int j = 0; j < cols; ++j) wmax = std::max(wmax, w[j]);
    const double thresh = static_cast<double>(tol) * wmax;
    for (int j = 0; j < cols; ++j)
        if (w[j] < thresh) w[j] = 0.0;
    const int nr = std::min(nb, urows);
    std::vector<double> tmp(static_cast<size_t>(cols), 0.0);
    for (int j = 0; j < cols; ++j) {
        if (w[j] == 0.0) continue;
        double s = 0.0;
        for (int i = 0; i < nr; ++i) s += u[static_cast<size_t>(i) * cols + j] * b[i];
        tmp[j] = s / w[j];
    }
    for (int j = 0; j < cols; ++j) {
        double s = 0.0;
        for (int k = 0; k < cols; ++k) s += v[static_cast<size_t>(j) * cols + k] * tmp[k];
        x[j] = s;
    }
}

void covariance(const double* v, const double* w, int m, double* cvm) {
    std::vector<double> wti(static_cast<size_t>(m), 0.0);
    for (int k = 0; k < m; ++k)
        if (w[k] != 0.0) wti[k] = 1.0 / (w[k] * w[k]);
    for (int i = 0; i < m; ++i) {
        for (int j = 0; j <= i; ++j) {
            double s = 0.0;
            for (int k = 0; k < m; ++k)
                s += v[static_cast<size_t>(i) * m + k] * v[static_cast<size_t>(j) * m + k] * wti[k];
            cvm[static_cast<size_t>(i) * m + j] = cvm[static_cast<size_t>(j) * m + i] = s;
        }
    }
}

}  // namespace svdk
}  // namespace zorv
