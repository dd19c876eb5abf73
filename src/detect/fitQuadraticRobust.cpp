// fitQuadraticRobust.cpp - quadratic fit by iteratively reweighted least
// squares with bisquare weights and leverage adjustment.
#include <cblas.h>
#include <lapacke.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "detect.h"

// LAPACK's unblocked Householder routine for Q^T applied to a matrix (its
// header leaves it out); the two hidden lengths are those of the strings.
extern "C" void sorm2r_(const char* side, const char* trans, const lapack_int* m,
                        const lapack_int* n, const lapack_int* k, const float* A,
                        const lapack_int* lda, const float* tau, float* C, const lapack_int* ldc,
                        float* work, lapack_int* info, std::size_t sideLength,
                        std::size_t transLength);

namespace kvane {
namespace {

// Fits of up to this many rows take the direct route; longer ones (no ping
// makes them) go through the wrapper.
constexpr int kDirectRows = 1024;
// LAPACK's blocked routines would want 3 + 3 * 32 floats for three columns
// (their block size is 32); with three columns they run unblocked anyway.
constexpr int kSolverWork = 128;

// The solver leaves a matrix and a right-hand side unscaled when the largest
// magnitude of each lies in this range (a zero right-hand side too): the
// safe minimum over the precision, 2^-126 / 2^-23, and its reciprocal.
constexpr float kSmallestUnscaled = 0x1p-103f;
constexpr float kLargestUnscaled = 0x1p103f;

bool holdsNaN(const float* x, int count) {
    bool nan = false;
    for (int i = 0; i < count; ++i) nan = nan || x[i] != x[i];
    return nan;
}

// Largest magnitude of count floats; NaN when one of them is NaN.
float largestMagnitude(const float* x, int count) {
    float m = 0.0f;
    bool nan = false;
    for (int i = 0; i < count; ++i) {
        const float a = std::fabs(x[i]);
        nan = nan || a != a;
        m = a > m ? a : m;
    }
    return nan ? NAN : m;
}

}  // namespace

// The least-squares solver for more rows than columns, without a transpose,
// factors A = QR (Householder, unblocked for three columns), applies Q^T to
// the right-hand side and solves with R, after scaling A or the right-hand
// side when its largest magnitude lies outside the range above (and zeroing
// the solution for a zero A). When neither needs it, the same three routines
// are called here directly on the same numbers: the same results without the
// solver's norms, scaling tests and block-size queries. Anything else goes
// through the solver itself.
void leastSquaresColumns3(float* A, float* rhs, int m) {
    if (m < 3 || m > kDirectRows) {
        LAPACKE_sgels(LAPACK_ROW_MAJOR, 'N', m, 3, 1, A, 3, rhs, 1);
        return;
    }
    if (LAPACKE_get_nancheck() && (holdsNaN(A, 3 * m) || holdsNaN(rhs, m))) return;
    float columns[3 * kDirectRows];
    for (int i = 0; i < m; ++i)
        for (int j = 0; j < 3; ++j) columns[j * m + i] = A[3 * i + j];
    float work[kSolverWork];
    const lapack_int rows = m, cols = 3, rhsCount = 1, lwork = kSolverWork;
    lapack_int info = 0;
    const float aNorm = largestMagnitude(columns, 3 * m);
    const float bNorm = largestMagnitude(rhs, m);
    const bool unscaled = aNorm >= kSmallestUnscaled && aNorm <= kLargestUnscaled &&
                          (bNorm == 0.0f || (bNorm >= kSmallestUnscaled && bNorm <= kLargestUnscaled));
    if (!unscaled) {
        const char trans = 'N';
        LAPACK_sgels(&trans, &rows, &cols, &rhsCount, columns, &rows, rhs, &rows, work, &lwork,
                     &info);
        return;
    }
    float tau[3];
    LAPACK_sgeqr2(&rows, &cols, columns, &rows, tau, work, &info);
    sorm2r_("L", "T", &rows, &rhsCount, &cols, columns, &rows, tau, rhs, &rows, work, &info, 1, 1);
    LAPACK_strtrs("U", "N", "N", &cols, &rhsCount, columns, &rows, rhs, &rows, &info);
}

namespace {

// The R of the QR factorisation of an n x 3 matrix (row-major), as the
// factorisation routine leaves it: for three columns it runs the unblocked
// Householder routine, called here directly on a column-major copy.
void upperFactor3(float* R, const float* X, int n) {
    if (n > kDirectRows) {
        std::vector<float> A(X, X + 3 * static_cast<std::size_t>(n));
        float tau[3];
        LAPACKE_sgeqrf(LAPACK_ROW_MAJOR, n, 3, A.data(), 3, tau);
        const float r[9] = {A[0], A[1], A[2], 0.0f, A[4], A[5], 0.0f, 0.0f, A[8]};
        std::memcpy(R, r, sizeof r);
        return;
    }
    float columns[3 * kDirectRows];
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < 3; ++j) columns[j * n + i] = X[3 * i + j];
    float tau[3];
    float work[3];
    const lapack_int rows = n, cols = 3;
    lapack_int info = 0;
    LAPACK_sgeqr2(&rows, &cols, columns, &rows, tau, work, &info);
    const float r[9] = {columns[0], columns[n], columns[2 * n], 0.0f, columns[n + 1],
                        columns[2 * n + 1], 0.0f, 0.0f, columns[2 * n + 2]};
    std::memcpy(R, r, sizeof r);
}

}  // namespace

void fitQuadraticRobust(float* coef, const float* y, int n, float* scratch) {
    coef[0] = coef[1] = coef[2] = 0.0f;
    // Fewer than three samples do not determine a quadratic; the gate detector
    // never asks for fewer than five.
    if (n < 3) return;
    float* X = scratch;           // n x 3 model matrix, row-major, rows (k^2, k, 1)
    float* A = X + 3 * n;         // solver copy of X
    float* rhs = A + 3 * n;       // solver copy of the right-hand side
    float* adjust = rhs + n;      // leverage adjustment per sample
    float* r = adjust + n;        // residuals, then adjusted residuals
    float* sorted = r + n;        // |adjusted residuals| for the scale, then sqrt of weights
    for (int i = 0; i < n; ++i) {
        const float k = static_cast<float>(i + 1);
        X[3 * i] = std::pow(k, 2.0f);
        X[3 * i + 1] = k;
        X[3 * i + 2] = 1.0f;
    }
    const std::size_t matrixBytes = sizeof(float) * 3 * static_cast<std::size_t>(n);

    // Ordinary least squares. The solver leaves the coefficients first and its
    // residual information after them; the scale floor below is taken over
    // that whole vector.
    std::memcpy(A, X, matrixBytes);
    std::memcpy(rhs, y, sizeof(float) * n);
    leastSquaresColumns3(A, rhs, n);
    float b[3] = {rhs[0], rhs[1], rhs[2]};
    float tiny = 0.000001f * stdDev(rhs, n);
    if (tiny == 0.0f) tiny = 1.0f;

    // Leverage h = row sums of squares of X R^-1, with R from the QR of X.
    float R[9];
    upperFactor3(R, X, n);
    std::memcpy(A, X, matrixBytes);
    cblas_strsm(CblasRowMajor, CblasRight, CblasUpper, CblasNoTrans, CblasNonUnit, n, 3, 1.0f, R,
                3, A, 3);
    for (int i = 0; i < n; ++i) {
        const float h = A[3 * i] * A[3 * i] + A[3 * i + 1] * A[3 * i + 1] + A[3 * i + 2] * A[3 * i + 2];
        const float capped = static_cast<float>(std::min(static_cast<double>(h), 0.9999));
        adjust[i] = std::pow(std::sqrt(1.0f - capped), -1.0f);
    }

    const int half = (n - 2) / 2;
    for (int iteration = 0; iteration < 10; ++iteration) {
        std::memcpy(r, y, sizeof(float) * n);
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, n, 1, 3, -1.0f, X, 3, b, 1, 1.0f, r,
                    1);
        for (int i = 0; i < n; ++i) {
            r[i] *= adjust[i];
            sorted[i] = std::fabs(r[i]);
        }
        // Scale: median of the sorted magnitudes from index 2 on (the two
        // smallest stand for the degrees of freedom the fit used up). Only the
        // order statistics at half + 1 and half + 2 are needed.
        std::nth_element(sorted, sorted + half + 2, sorted + n);
        double s;
        if (n % 2 == 1) {
            s = static_cast<double>(sorted[half + 2]) / 0.6745;
        } else {
            const float lower = *std::max_element(sorted, sorted + half + 2);
            s = static_cast<double>(lower + sorted[half + 2]) / 1.349;
        }
        const float scale = std::max(static_cast<float>(s), tiny);
        // Divisions of a vector by a constant multiply by its reciprocal.
        const float byScale = 1.0f / scale;
        const float byTune = 1.0f / 4.685f;
        for (int i = 0; i < n; ++i) {
            const float u = r[i] * byScale * byTune;
            float w = 0.0f;
            if (std::fabs(u) < 1.0f) {
                const float t = 1.0f - u * u;
                w = t * t;
            }
            sorted[i] = std::sqrt(w);
        }
        const float bOld[3] = {b[0], b[1], b[2]};
        for (int i = 0; i < n; ++i) {
            A[3 * i] = X[3 * i] * sorted[i];
            A[3 * i + 1] = X[3 * i + 1] * sorted[i];
            A[3 * i + 2] = X[3 * i + 2] * sorted[i];
            rhs[i] = y[i] * sorted[i];
        }
        leastSquaresColumns3(A, rhs, n);
        b[0] = rhs[0];
        b[1] = rhs[1];
        b[2] = rhs[2];
        // One settled coefficient ends the iteration; the others need not be.
        bool settled = false;
        for (int c = 0; c < 3; ++c)
            if (0.00034527f * std::fabs(b[c]) > std::fabs(b[c] - bOld[c])) settled = true;
        if (settled) break;
    }
    coef[0] = b[0];
    coef[1] = b[1];
    coef[2] = b[2];
}

}  // namespace kvane
