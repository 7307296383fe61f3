// Singular value decomposition kernels on plain double arrays. The Datam
// entry points (svd_decompose, svd_coeffs, svd_covariance) are in lsq.h; these
// are what they and the fit pipeline run on.
//
// Golub-Reinsch: Householder bidiagonalisation, then implicit QR on the
// bidiagonal. Singular values come out unsorted. A value that has not
// converged after 30 iterations ends the routine with the factors as they
// stand; nothing is reported (callers go on with them).
#pragma once

#include <cstddef>
#include <vector>

namespace zorv {

// Hypotenuse by dividing through by the larger magnitude; 0 when both are 0.
double svd_Pythag(double a, double b);

namespace svdk {

// In place on a row-major rows x cols array with rows >= cols: a becomes u,
// w gets cols singular values, v (cols x cols, row-major) the right vectors.
// Returns false on the silent stop at iteration 30.
bool golubReinsch(double* a, int rows, int cols, double* w, double* v);

// Decomposition of a row-major rows x cols array. Fewer rows than columns:
// the table is taken as enlarged to a square with zero rows, so u has
// max(rows, cols) rows. A tall table is reduced by a Householder QR first and
// Golub-Reinsch runs on the triangular factor; u is then Q times the factor's
// left vectors, formed only with wantU.
struct Dense {
    int rows = 0;  // rows of u
    int cols = 0;
    std::vector<double> u;  // rows x cols, row-major (empty without wantU)
    std::vector<double> w;  // cols
    std::vector<double> v;  // cols x cols, row-major
    bool converged = true;
};
void decompose(const double* a, int rows, int cols, bool wantU, Dense& out);

// Solution of u w v' x = b: singular values below tol * max(w) are set to 0
// in w (in place). b has nb rows (rows of u beyond nb count as zero terms).
// A tolerance of exactly 0 becomes e^-12 and goes back through tol.
void coeffs(const double* b, int nb, const double* u, int urows, int cols, double* w,
            const double* v, float& tol, double* x);

// cvm(i,j) = sum_k v(i,k) v(j,k) / w(k)^2 over non-zero w(k); m x m row-major.
void covariance(const double* v, const double* w, int m, double* cvm);

// Merges a block of rows into an upper triangular factor: [R; B] = Q [R'; 0].
// R is nc x nc column-major (R[j + k*nc]), B is bs x nc column-major with
// leading dimension ldb and is overwritten with the reflector tails.
void absorbRows(double* R, int nc, double* B, int bs, int ldb);

// Unrolled dot product with a fixed summation order (vectorises without
// reassociation, so results do not depend on the instruction set).
double dot(const double* a, const double* b, size_t n);

}  // namespace svdk
}  // namespace zorv
