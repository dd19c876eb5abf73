// fitQuadraticRobust.cpp - quadratic fit by iteratively reweighted least
// squares with bisquare weights and leverage adjustment.
#include <cblas.h>
#include <lapacke.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "detect.h"

namespace kvane {
namespace {

// Fits of up to this many rows take the direct route; longer ones (no ping
// makes them) go through the wrapper.
constexpr int kDirectRows = 1024;
// LAPACK's blocked routines would want 3 + 3 * 32 floats for three columns
// (their block size is 32); with three columns they run unblocked anyway.
constexpr int kSolverWork = 128;

bool holdsNaN(const float* x, int count) {
    bool nan = false;
    for (int i = 0; i < count; ++i) nan = nan || x[i] != x[i];
    return nan;
}

}  // namespace

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
    const char trans = 'N';
    const lapack_int rows = m, cols = 3, rhsCount = 1, lwork = kSolverWork;
    lapack_int info = 0;
    LAPACK_sgels(&trans, &rows, &cols, &rhsCount, columns, &rows, rhs, &rows, work, &lwork, &info);
}

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
    float tau[3];
    std::memcpy(A, X, matrixBytes);
    LAPACKE_sgeqrf(LAPACK_ROW_MAJOR, n, 3, A, 3, tau);
    float R[9] = {A[0], A[1], A[2], 0.0f, A[4], A[5], 0.0f, 0.0f, A[8]};
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
