// detectInGate.cpp - arrival time of one echo in a gate of one beam, by the
// zero crossing of the split-aperture phase and by the halving point of the
// envelope's running integral, each with a quality factor.
#include <lapacke.h>

#include <algorithm>
#include <cmath>

#include "detect.h"

namespace kvane {

float quadraticRoot(float a, float b, float c, float limit) {
    const float disc = b * b - 4.0f * a * c;
    if (!(disc > 0.0f)) return 0.0f;
    const float s = std::sqrt(disc);
    const float r1 = (s - b) / (2.0f * a);
    const float r2 = -(b + s) / (2.0f * a);
    const bool in1 = r1 >= 0.0f && r1 <= limit;
    const bool in2 = r2 >= 0.0f && r2 <= limit;
    if (in1 && in2) return a > 0.0f ? r2 : r1;  // the smaller root
    if (in1) return r1;
    if (in2) return r2;
    return 0.0f;
}

void cumulativeTrapezoid(float* out, const float* x, int n) {
    if (n < 1) return;
    out[0] = 0.0f;
    for (int i = 1; i < n; ++i) out[i] = out[i - 1] + 0.5f * (x[i - 1] + x[i]);
    for (int i = 0; i < n; ++i) out[i] += 0.001f;
}

namespace {

// Divisions of a vector by a constant multiply by its reciprocal.
const float kInvPi = 1.0f / 3.1415927f;

// The phase detector. ph: the smoothed phase, m samples, in units of pi.
// gateI/gateQ: the unsmoothed gate, n samples. Leaves result untouched when
// the fit yields no zero crossing.
void detectPhase(GateDetection* result, const float* ph, int m, const float* gateI,
                 const float* gateQ, int n, int step, int base, float pulseLength,
                 int32_t sampleRate, int32_t firstSample, float* scratch) {
    const int d = m - 2;  // second differences
    float* jump = scratch;
    for (int i = 0; i < d; ++i) jump[i] = std::fabs((ph[i + 2] - ph[i + 1]) - (ph[i + 1] - ph[i]));

    // Pivot inside the phase ramp: a second difference above 0.8 marks a wrap
    // or a break, so the pivot moves off it, at most twice. A gate above 20
    // samples has m >= 11, which keeps all three choices inside 1..d.
    auto pivotClear = [&](int p) { return p < 1 || p > d || !(jump[p - 1] > 0.8f); };
    int p = truncToInt(0.5f + static_cast<float>(d) / 2.5f);
    if (!pivotClear(p)) p = truncToInt(0.5f + static_cast<float>(d) / 4.5f);
    if (!pivotClear(p)) p = truncToInt(0.75f * static_cast<float>(d) + 0.5f);
    p = std::clamp(p, 1, d);

    // Fit range: from the nearest break left of the pivot to the nearest break
    // right of it.
    int a = 2;
    for (int i = 0; p - 2 - i >= 0; ++i)
        if (jump[p - 2 - i] >= 0.8f) {
            a = p - i;
            break;
        }
    int start = a - 1;
    int j = m - p - 2;
    for (int t = 0; t < m - p - 1; ++t)
        if (jump[p - 1 + t] >= 0.8f) {
            j = t;
            break;
        }
    int end = p + j - 1;
    if (end - start < 4) end = a + 3;
    end = std::min(end, m - 1);
    int span2 = end - start;
    const int nFit = span2 + 1;
    if (nFit < 3) return;  // cannot happen for m >= 11; keeps the solver determined

    // Least-squares quadratic over k = 1..nFit.
    float* A = scratch;
    float* rhs = A + 3 * nFit;
    for (int k = 1; k <= nFit; ++k) {
        const float kf = static_cast<float>(k);
        A[3 * (k - 1)] = kf * kf;
        A[3 * (k - 1) + 1] = kf;
        A[3 * (k - 1) + 2] = 1.0f;
        rhs[k - 1] = ph[start + k - 1];
    }
    leastSquaresColumns3(A, rhs, nFit);
    float qa = rhs[0], qb = rhs[1], qc = rhs[2];
    float root = quadraticRoot(qa, qb, qc, static_cast<float>(span2));
    if (truncToInt(root) == 0) return;

    // Refinement: fit again, robustly, over a window around the crossing whose
    // width grows with the crossing's index.
    const float rate = static_cast<float>(sampleRate) / static_cast<float>(step);
    const float w = rate * root * 0.00047548706f;
    if (w < static_cast<float>(span2)) {
        const int64_t nearK = truncToInt(std::floor(root - 0.5f * w));
        const int64_t farK = truncToInt(std::ceil(root + 0.5f * w));
        const int64_t minLen = std::max(4, truncToInt(std::ceil(25.0f / static_cast<float>(step))));
        const int64_t s2 = nearK < 0 ? start : start + nearK;
        const int64_t e2 = std::min<int64_t>(start + farK, end);
        const int64_t count = e2 - s2 + 1;
        // The window lies in start..end; its length is at most m <= 728 here,
        // so the fit's 10 * count floats fit in one line.
        if (count > minLen && 10 * count <= kDetectLineLength) {
            float coef[3];
            fitQuadraticRobust(coef, ph + s2, static_cast<int>(count), scratch);
            const float root2 = quadraticRoot(coef[0], coef[1], coef[2], static_cast<float>(e2 - s2));
            if (root2 > 0.0f) {
                qa = coef[0];
                qb = coef[1];
                qc = coef[2];
                root = root2;
                start = static_cast<int>(s2);
                end = static_cast<int>(e2);
            }
        }
    }

    // Back to full rate: residual of the fit against the unsmoothed phase.
    const int span = n - 1;
    const int fullStart = std::max(step * start, 0);
    int fullEnd = step * end;
    if (fullEnd > n) fullEnd = span;
    // end <= m - 1 keeps step * end <= n - 1; this only guards the lines.
    fullEnd = std::min(fullEnd, span);
    const int q = fullEnd - fullStart;
    if (q < 0) return;
    const int nPhase = q + 1;
    // The sums below are those of mean, stdDev and sumOfSquares, each in its
    // own order; sums over the same values share a pass.
    float* values = scratch;
    double rawSum = 0.0;
    arcTangent2(values, gateQ + fullStart, gateI + fullStart, nPhase);
    for (int i = 0; i < nPhase; ++i) {
        values[i] = values[i] * kInvPi;
        rawSum += values[i];
    }
    const float rawMean = static_cast<float>(rawSum / nPhase);
    double sstSum = 0.0;
    const float stepF = static_cast<float>(step);
    double residualSum = 0.0;
    double squareSum = 0.0;
    for (int i = 0; i < nPhase; ++i) {
        const float dv = values[i] - rawMean;
        sstSum += static_cast<double>(dv * dv);
        // The abscissa starts one full-rate sample into the fit range.
        const float x = 1.0f + static_cast<float>(i + 1) / stepF;
        const float fit = (qa * x + qb) * x + qc;
        values[i] = fit - values[i];
        residualSum += values[i];
        squareSum += static_cast<double>(values[i] * values[i]);
    }
    const float sst = static_cast<float>(sstSum);
    float sd = 0.0f;
    if (nPhase >= 2) {
        const double residualMean = residualSum / nPhase;
        double spread = 0.0;
        for (int i = 0; i < nPhase; ++i) spread += (values[i] - residualMean) * (values[i] - residualMean);
        sd = static_cast<float>(std::sqrt(spread / (nPhase - 1)));
    }
    const float sse = static_cast<float>(squareSum);
    const float adjusted =
        1.0f - (static_cast<float>(q) / static_cast<float>(q - 2)) * sse / sst;

    float phaseQuality = 0.0f;
    // Written as the rule stands, although a phase in units of pi hardly ever
    // spreads by 3.
    if (sd < 3.0f || static_cast<double>(adjusted) < 0.2) {
        const float slopeError = sd / (rate * qb * std::sqrt(static_cast<float>(nPhase)));
        const float pulseTerm = pulseLength / 3.4641016f;
        const float variance = slopeError * slopeError + pulseTerm * pulseTerm;
        const int64_t centreSample = static_cast<int64_t>(firstSample) + base + (fullStart + fullEnd) / 2;
        const float centre = static_cast<float>(centreSample) / static_cast<float>(sampleRate);
        phaseQuality = std::log10(centre / std::sqrt(variance));
    }
    result->phaseQuality = phaseQuality;
    result->phaseResidual = sd;
    result->phaseFitDone = 1.0f;
    result->fitQuality = adjusted;
    result->fitStart = base + fullStart;
    result->fitEnd = base + fullEnd;
    // The crossing in work indices plus 1.5, truncated: the phase detection
    // reads one sample later than the work index of the crossing.
    result->phaseSample = truncToInt(static_cast<float>(step) * (root - 1.0f) +
                                     (static_cast<float>(base) + 1.5f + static_cast<float>(fullStart)));
}

}  // namespace

void detectInGate(GateDetection* result, float* envelopeWork, const cfloat* iqWork,
                  float pulseLength, int32_t sampleRate, int32_t gateFirst, int32_t gateLast,
                  int32_t firstSample, int32_t workLength, const DetectWork* work) {
    *result = GateDetection{};
    result->phaseQuality = -100.0f;
    result->phaseResidual = -1.0f;
    result->phaseFitDone = 0.0f;
    result->phaseSample = 0;
    result->amplitudeSample = 0;

    // The caller's gates lie in 0..workLength; anything else is clamped so
    // that no line is read or written outside its samples.
    const int32_t g0 = std::max(gateFirst, 0);
    const int32_t g1 = std::min(gateLast, std::min(workLength, kDetectLineLength - 1));
    if (g1 < g0) return;
    const int span = g1 - g0;
    const int n = span + 1;

    int width = std::min(21, n / 10);
    if (width % 2 == 0) ++width;
    const int step = std::max(1, truncToInt(0.5f * static_cast<float>(width) + 0.5f));
    const int base = g0;
    float* gateI = work->gateI;
    float* gateQ = work->gateQ;
    for (int i = 0; i < n; ++i) {
        gateI[i] = iqWork[base + i].re;
        gateQ[i] = iqWork[base + i].im;
    }
    float* smoothI = work->gatePhase;
    float* smoothQ = work->scratchA;
    const int m = decimatedMovingAverage(smoothI, gateI, n, width, step);
    decimatedMovingAverage(smoothQ, gateQ, n, width, step);
    if (m < 3) return;

    // The phase detection counts only for gates of more than 20 samples.
    if (n > 20) {
        float* ph = work->gatePhase;  // replaces smoothI in place
        arcTangent2(ph, smoothQ, smoothI, m);
        for (int i = 0; i < m; ++i) ph[i] = ph[i] * kInvPi;
        detectPhase(result, ph, m, gateI, gateQ, n, step, base, pulseLength, sampleRate,
                    firstSample, work->scratchA);
    }

    // Amplitude: the point that halves the running integral of the levelled
    // square-root envelope.
    result->gateStart = g0;
    result->gateEnd = g1;
    // The mean of the envelope (the sum of mean, in its order) in the pass
    // that takes the square roots and their lowest value, then the levelled
    // envelope's total and its running integral (cumulativeTrapezoid) in one
    // pass; the integral is made again over ones when the total is zero.
    // (The envelope's deviation in the gate feeds nothing and is not taken.)
    float* e = envelopeWork + g0;
    const double levelSum = orderedSum(e, n);
    const float lowest = squareRootsLowest(e, n);
    result->meanLevel = static_cast<float>(levelSum / n);
    result->amplitudeQuality = std::log10(
        ((static_cast<float>(firstSample) + 0.5f * static_cast<float>(g0 + g1)) /
         static_cast<float>(sampleRate)) /
        (0.1485f * pulseLength * std::sqrt(static_cast<float>(span))));
    float* c = work->scratchA;
    // The integral is stored with its offset of 0.001 added; a zero total
    // makes it again, offset included, over ones.
    float previous = e[0] - lowest;
    float integral = 0.0f;
    e[0] = previous;
    double total = previous;
    c[0] = integral + 0.001f;
    for (int i = 1; i < n; ++i) {
        const float level = e[i] - lowest;
        e[i] = level;
        total += level;
        integral = integral + 0.5f * (previous + level);
        c[i] = integral + 0.001f;
        previous = level;
    }
    const float sum = static_cast<float>(total);
    if (sum >= -0.000001f && sum < 0.000001f) {
        for (int i = 0; i < n; ++i) e[i] = 1.0f;
        cumulativeTrapezoid(c, e, n);
    }
    const float half = 0.5f * c[n - 1];
    int lo = 0;
    int hi = n - 1;
    int index = -1;
    while (lo <= hi) {
        const int mid = (lo + hi) / 2;
        if (c[mid] > half) {
            hi = mid - 1;
        } else if (c[mid] < half) {
            lo = mid + 1;
        } else {
            index = mid;
            break;
        }
    }
    if (index < 0) index = hi == n - 1 ? 1 : lo;
    result->amplitudeSample = index + g0;
}

}  // namespace kvane
