// detectFirstEcho.cpp - the sample at which the strong return starts after the
// quietest stretch of the ping, from the incoherent mean of all 64 channels.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "frontend.h"

namespace kvane {
namespace {

constexpr int32_t kChannelCount = 64;
constexpr int32_t kMaxPingSamples = 8000;
constexpr int32_t kKernelLength = 21;
constexpr int32_t kKernelDelay = 10;  // (kKernelLength - 1) / 2
// Samples before this one are never taken as an edge; it is also the answer
// when nothing rises.
constexpr int32_t kFirstEdgeSample = 20;
// Room of the edge lists: the first 200 rises (and the gaps they close) are
// considered, edges after the 200th rise are ignored.
constexpr int32_t kMaxEdges = 200;
// A burst between two gaps is stepped over while the next gap opens at most
// this many samples after the rise that closes the current one.
constexpr int32_t kMaxBurstSpan = 50;
constexpr double kLevelTolerance = 1.2;

// Per-thread scratch: the smoothed trace and the 0/1 mask of one ping.
thread_local float smoothedTrace[kMaxPingSamples + 50];
thread_local float maskTrace[kMaxPingSamples + 50];

// Hamming window of 21 taps divided by its sum, so a constant trace keeps its
// level.
void buildSmoothingKernel(float* kernel) {
    for (int32_t i = 0; i < kKernelLength; ++i) {
        const double w = 0.54 - 0.46 * std::cos(2.0 * 3.141592653589793 * i / (kKernelLength - 1));
        kernel[i] = static_cast<float>(w);
    }
    double sum = 0.0;
    for (int32_t i = 0; i < kKernelLength; ++i) sum += kernel[i];
    // A vector divided by a constant is multiplied by its reciprocal.
    const float inverse = 1.0f / static_cast<float>(sum);
    for (int32_t i = 0; i < kKernelLength; ++i) kernel[i] *= inverse;
}

// Mean over the 64 channels of sample rows from..to - 1, with double
// accumulation. Eight independent partial sums in a fixed order keep the
// result the same on every machine while letting the loop vectorise.
void channelMean(float* out, const float* magnitudeBySample, int32_t from, int32_t to) {
    for (int32_t t = from; t < to; ++t) {
        const float* row = magnitudeBySample + static_cast<int64_t>(t) * kChannelCount;
        double part[8] = {};
        for (int32_t c = 0; c < kChannelCount; c += 8)
            for (int32_t k = 0; k < 8; ++k) part[k] += row[c + k];
        const double sum = ((part[0] + part[1]) + (part[2] + part[3])) +
                           ((part[4] + part[5]) + (part[6] + part[7]));
        out[t] = static_cast<float>(sum / kChannelCount);
    }
}

// Linear convolution with the symmetric kernel, with the kernel's delay of 10
// samples removed: out[t] = sum over k of kernel[k] * in[t + 10 - k], terms
// outside the trace left out; outputs from..to - 1 of a trace of n.
void smoothTrace(float* out, const float* in, const float* kernel, int32_t n, int32_t from,
                 int32_t to) {
    for (int32_t t = from; t < to; ++t) {
        const int32_t m = t + kKernelDelay;
        const int32_t kFirst = m - (n - 1) > 0 ? m - (n - 1) : 0;
        const int32_t kLast = m < kKernelLength - 1 ? m : kKernelLength - 1;
        float s = 0.0f;
        for (int32_t k = kFirst; k <= kLast; ++k) s += kernel[k] * in[m - k];
        out[t] = s;
    }
}

}  // namespace

int32_t pickFirstEchoRise(const float* mask, const float* trace, int32_t sampleCount) {
    int32_t riseEdges[kMaxEdges];
    int32_t fallEdges[kMaxEdges + 1];
    float gapLevels[kMaxEdges];
    int32_t rises = 0;
    int32_t falls = 0;
    // A rise is the last low sample before a high one; a fall the first low
    // sample after a high one. The comparisons are written so that a NaN in
    // the mask is neither high nor low.
    for (int32_t j = kFirstEdgeSample; j <= sampleCount - 2; ++j) {
        if (mask[j - 1] > 0.0f && mask[j] < 1.0f && falls < kMaxEdges) fallEdges[falls++] = j;
        if (mask[j] < 1.0f && mask[j + 1] > 0.0f) {
            riseEdges[rises++] = j;
            if (rises == kMaxEdges) break;
        }
    }
    if (rises == 0) return kFirstEdgeSample;

    // The mask started low (also when it rose and never fell): the first gap
    // opens at sample 20, so every fall moves up by one to stay paired with
    // the rise that closes its gap.
    if (falls == 0 || riseEdges[0] < fallEdges[0]) {
        std::memmove(fallEdges + 1, fallEdges, sizeof(int32_t) * static_cast<std::size_t>(falls));
        fallEdges[0] = kFirstEdgeSample;
        ++falls;
    }
    // Gap k runs from fallEdges[k] to riseEdges[k]. Edges of a 0/1 mask
    // alternate, so there is a fall for every rise; only a mask with NaN
    // entries can break the pairing, and then the unpaired rises are dropped.
    const int32_t gaps = rises < falls ? rises : falls;
    for (int32_t k = 0; k < gaps; ++k) {
        const int32_t length = riseEdges[k] - fallEdges[k] + 1;
        // An inverted gap (again only from NaN entries) can never be the quiet one.
        gapLevels[k] = length >= 1 ? mean(trace + fallEdges[k], length) : INFINITY;
    }

    int32_t quietestIndex = 0;
    for (int32_t k = 1; k < gaps; ++k)
        if (gapLevels[k] < gapLevels[quietestIndex]) quietestIndex = k;
    const double quietest = gapLevels[quietestIndex];

    // Step over short bursts into later gaps of about the same level: the
    // first echo is the end of the quiet water column, not a fish or a
    // side-lobe return inside it.
    int32_t chosen = quietestIndex;
    for (int32_t k = quietestIndex; k + 1 < gaps; ++k) {
        if (fallEdges[k + 1] - riseEdges[k] > kMaxBurstSpan) break;
        if (static_cast<double>(gapLevels[k + 1]) > kLevelTolerance * quietest) break;
        chosen = k + 1;
    }
    return riseEdges[chosen];
}

int32_t detectFirstEcho(const float* magnitudeBySample, int32_t sampleCount) {
    if (sampleCount <= 21) return kFirstEdgeSample;
    // The scratch holds one ping of at most 8000 samples; a longer one is read
    // as its first 8000.
    const int32_t n = sampleCount < kMaxPingSamples ? sampleCount : kMaxPingSamples;

    float kernel[kKernelLength];
    buildSmoothingKernel(kernel);

    // Both passes smooth the same trace and differ only in the threshold, so
    // the trace, its mean and its peak are made once.
    // Both steps make every sample on its own, so the team shares them in
    // blocks of samples (the scratch is the calling thread's).
    float* meanTrace = maskTrace;
    float* smoothed = smoothedTrace;
    constexpr int32_t kBlock = 500;
    const int32_t blocks = (n + kBlock - 1) / kBlock;
#pragma omp parallel num_threads(teamSize())
    {
#pragma omp for schedule(static)
        for (int32_t k = 0; k < blocks; ++k)
            channelMean(meanTrace, magnitudeBySample, k * kBlock, std::min(n, (k + 1) * kBlock));
#pragma omp for schedule(static)
        for (int32_t k = 0; k < blocks; ++k)
            smoothTrace(smoothed, meanTrace, kernel, n, k * kBlock, std::min(n, (k + 1) * kBlock));
    }

    const float traceMean = mean(smoothedTrace, n);
    // The first 20 samples count for the mean but not for the peak.
    float peak = smoothedTrace[kFirstEdgeSample];
    for (int32_t t = kFirstEdgeSample + 1; t < n; ++t)
        if (smoothedTrace[t] > peak) peak = smoothedTrace[t];

    const float thresholdFactors[2] = {0.1f, 0.5f};
    int32_t passResults[2];
    for (int32_t pass = 0; pass < 2; ++pass) {
        const float low = 1.5f * traceMean;
        const float high = thresholdFactors[pass] * peak;
        const float threshold = low > high ? low : high;
        for (int32_t t = 0; t < n; ++t) {
            float v = smoothedTrace[t];
            if (v < threshold) v = 0.0f;
            if (v > 0.0f) v = 1.0f;
            maskTrace[t] = v;
        }
        passResults[pass] = pickFirstEchoRise(maskTrace, smoothedTrace, n);
        // A pass without a rise answers 20, whatever the other pass found;
        // every rise is at 20 or later, so the smaller result below is 20 then.
        if (passResults[pass] == kFirstEdgeSample) return kFirstEdgeSample;
    }
    return passResults[0] < passResults[1] ? passResults[0] : passResults[1];
}

}  // namespace kvane
