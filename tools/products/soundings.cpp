// soundings.cpp - soundings in metres from the kernel's bottom line (see
// soundings.h for the formulas).
#include "soundings.h"

#include <cmath>
#include <limits>

#include "uncertainty.h"

namespace kvproducts {

double interpolateRoll(const RollSamples& roll, double atMs) {
    const size_t count = roll.time.size();
    if (count == 0) return 0.0;
    const double first = roll.time.front(), last = roll.time.back();
    if (count == 1 || atMs <= first) return roll.angle.front();
    if (atMs >= last) return roll.angle.back();
    // Interval j holds time[j] <= atMs < time[j + 1].
    size_t j = 0;
    while (j + 2 < count && static_cast<double>(roll.time[j + 1]) <= atMs) ++j;
    const double t0 = roll.time[j], t1 = roll.time[j + 1];
    const double a0 = roll.angle[j], a1 = roll.angle[j + 1];
    const double w = t1 > t0 ? (atMs - t0) / (t1 - t0) : 0.0;
    return a0 + w * (a1 - a0);
}

void computeSoundings(Sounding* out, const float* bottomSample, const float* steeringDeg, int beamCount,
                      float soundSpeed, const RollSamples* roll, double rangeOffsetSamples) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double kRadiansPerDegree = 3.14159265358979323846 / 180.0;
    const bool corrected = roll != nullptr && !roll->time.empty();
    for (int b = 0; b < beamCount; ++b) {
        const double bottom = bottomSample[b];
        if (!std::isfinite(bottom) || bottom == 0.0) {
            out[b] = {nan, nan, nan, nan};
            continue;
        }
        const double raw = bottom + kDroppedSamples - rangeOffsetSamples;
        const double range = raw * static_cast<double>(soundSpeed) / (2.0 * kSampleRate);
        double angle = steeringDeg[b];
        if (corrected) angle -= interpolateRoll(*roll, roll->pingTime + raw * (1000.0 / kSampleRate));
        const double radians = angle * kRadiansPerDegree;
        out[b] = {angle, range, range * std::sin(radians), range * std::cos(radians)};
    }
}

bool writeSoundingRows(std::FILE* file, long long ping, const Sounding* soundings, const uint8_t* flags,
                       const SoundingUncertainty* uncertainty, int beamCount) {
    for (int b = 0; b < beamCount; ++b) {
        const Sounding& s = soundings[b];
        const SoundingUncertainty& u = uncertainty[b];
        if (std::isnan(s.rangeM)) continue;
        if (std::fprintf(file, "%lld,%d,%.4f,%.4f,%.4f,%.4f,%u,%.4f,%.4f,%.3f,%s\n", ping, b, s.angleDeg, s.rangeM,
                         s.acrossM, s.depthM, flags[b], u.depthUncertainty, u.acrossUncertainty, u.qualityFactor,
                         ihoOrderName(u.ihoOrder)) < 0)
            return false;
    }
    return true;
}

}  // namespace kvproducts
