// equaliseChannelGain.cpp - optional automatic gain: one gain curve over time,
// derived from channel 0, held constant over 22-sample blocks and applied to
// all 64 channels of filteredChannels.
#include <cmath>
#include <cstring>

#include "frontend.h"

namespace kvane {
namespace {

constexpr int32_t kChannelCount = 64;
constexpr int32_t kMaxPingSamples = 8000;
constexpr int32_t kBlockLength = 22;
constexpr int32_t kDbEntries = 600;

constexpr float kLoopStep = 0.1f;           // fraction of the error taken per sample
constexpr float kTargetLogPower = 6.907755f;  // ln 1000: target of the squared magnitude
constexpr float kExponentCeiling = 0.1151293f;  // ln 10 / 20: the gain never exceeds 1 dB
constexpr float kOnsetInverseGain = 2.0f;   // onset: first gain of 0.5 or less
constexpr int32_t kOnsetBackOff = 5;

// Per-thread scratch: magnitude of channel 0, then the gain curve, which is
// stepped in place.
thread_local float channelMagnitude[kMaxPingSamples];
thread_local float gainCurve[kMaxPingSamples];

}  // namespace

void equaliseChannelGain(cfloat* filteredChannels, float* gainProfile, int32_t* gainOnsetSample,
                         int32_t sampleCount) {
    // The scratch holds one ping of at most 8000 samples; a longer one is
    // levelled over its first 8000.
    const int32_t n = sampleCount < kMaxPingSamples ? sampleCount : kMaxPingSamples;
    float blockGainDb[kDbEntries] = {};

    if (n >= 1) magnitude(channelMagnitude, filteredChannels, n);

    // First-order loop run from the last sample back to the first: g tracks
    // half the log distance of the sample power from 1000. The gain may fall
    // without limit but rises at most to the ceiling, which also holds g when
    // a zero magnitude makes the level minus infinity.
    float g = 0.0f;
    for (int32_t t = n - 1; t >= 0; --t) {
        gainCurve[t] = std::exp(g);
        const float level = std::log(channelMagnitude[t] * channelMagnitude[t]);
        g = std::fma(kLoopStep, (kTargetLogPower - level) - (g + g), g);
        if (g > kExponentCeiling) g = kExponentCeiling;
    }

    // Onset of the attenuation, for the caller's information only; it may be
    // -5. (The driver's second local raised to at least 10 alongside it is
    // read by nothing and is not kept.)
    int32_t onset = 0;
    for (int32_t t = 0; t < n; ++t) {
        if (1.0f / gainCurve[t] >= kOnsetInverseGain) {
            onset = t;
            break;
        }
    }
    if (gainOnsetSample != nullptr) *gainOnsetSample = onset - kOnsetBackOff;

    // Hold the gain over 22-sample blocks at the block's minimum, never above
    // 1.0, so the stage only attenuates. The last block (complete or not) is
    // never processed and keeps the gain 1.0.
    const int32_t blockCount = (n + kBlockLength - 1) / kBlockLength;
    float* steppedGain = gainCurve;
    const int32_t steppedEnd = blockCount >= 1 ? (blockCount - 1) * kBlockLength : 0;
    for (int32_t k = 0; k + 1 < blockCount; ++k) {
        float* block = steppedGain + k * kBlockLength;
        float blockGain = block[0];
        for (int32_t i = 1; i < kBlockLength; ++i)
            if (block[i] < blockGain) blockGain = block[i];
        if (blockGain > 1.0f) blockGain = 1.0f;
        for (int32_t i = 0; i < kBlockLength; ++i) block[i] = blockGain;
        const float db = -20.0f * std::log10(1.0f / blockGain);
        blockGainDb[k] = db < 0.0f ? db : 0.0f;
    }
    for (int32_t t = steppedEnd; t < n; ++t) steppedGain[t] = 1.0f;

    // The gain is a real factor, applied as the complex product with an
    // imaginary part of 0.
    for (int32_t c = 0; c < kChannelCount; ++c) {
        cfloat* row = filteredChannels + static_cast<int64_t>(c) * sampleCount;
        for (int32_t t = 0; t < n; ++t) {
            const float s = steppedGain[t];
            const float re = row[t].re * s - row[t].im * 0.0f;
            const float im = row[t].re * 0.0f + row[t].im * s;
            row[t] = cfloat{re, im};
        }
    }

    // The profile carries the linear gains, with the dB values of the blocks
    // over its first 600 entries whatever the ping length.
    if (n >= 1) std::memcpy(gainProfile, steppedGain, sizeof(float) * static_cast<std::size_t>(n));
    std::memcpy(gainProfile, blockGainDb, sizeof blockGainDb);

    // The stage has no further output: a spike ratio of channel 1 that
    // nothing reads is not computed.
}

}  // namespace kvane
