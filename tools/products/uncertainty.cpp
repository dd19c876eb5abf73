// uncertainty.cpp - the uncertainty of every sounding (see uncertainty.h and
// kvane/uncertainty.py for the model). The arithmetic follows the Python
// side operation by operation, so that both give the same numbers.
#include "uncertainty.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kvproducts {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kPi = 3.14159265358979323846;
constexpr double kRadiansPerDegree = kPi / 180.0;
constexpr double kMinusLn09 = 0.10536051565782628;  // -ln(0.9): the 10th percentile of exponential power

// Echo window: smoothed over 5 samples, peak within 8 samples of the bottom,
// edges at a 14 dB drop from the peak or 6 dB above the noise, at most 400
// samples from the bottom on either side.
constexpr int kSmoothHalf = 2;
constexpr int kPeakReach = 8;
constexpr double kEdgeDrop = 25.0;
constexpr double kNoiseMargin = 4.0;
constexpr int kMaxReach = 400;
constexpr int kNoiseSamples = 64;  // water-column samples per beam for the noise estimate

// Linear-interpolation percentile, with numpy's index and interpolation
// arithmetic.
double percentile(std::vector<double>& v, double q) {
    std::sort(v.begin(), v.end());
    const double n = static_cast<double>(v.size());
    const double quantile = q / 100.0;
    const double rank = std::min(std::max(n * quantile + (1.0 + quantile * -1.0) - 1.0, 0.0), n - 1.0);
    const size_t lo = static_cast<size_t>(std::floor(rank));
    const size_t hi = std::min(lo + 1, v.size() - 1);
    const double t = rank - static_cast<double>(lo);
    const double diff = v[hi] - v[lo];
    return t >= 0.5 ? v[hi] - diff * (1.0 - t) : v[lo] + diff * t;
}

double median(std::vector<double>& v) {
    const size_t half = v.size() / 2;
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(half), v.end());
    const double upper = v[half];
    if (v.size() % 2 == 1) return upper;
    const double lower = *std::max_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(half));
    return (lower + upper) / 2.0;
}

// The echo around image sample index of one beam: its length in samples and
// its mean power.
void echoWindow(const float* row, int n, int64_t index, double noise, int32_t* length, double* meanPower) {
    constexpr int reach = kMaxReach + kSmoothHalf;
    constexpr int span = 2 * reach + 1;
    constexpr int smoothedCount = span - 2 * kSmoothHalf;  // offsets -kMaxReach .. kMaxReach
    double power[span], inside[span], smoothed[smoothedCount];
    for (int k = 0; k < span; ++k) {
        const int64_t at = index - reach + k;
        const bool in = at >= 0 && at < n;
        const double v = in ? static_cast<double>(row[at]) : 0.0;
        power[k] = in ? v * v : 0.0;
        inside[k] = in ? 1.0 : 0.0;
    }
    for (int j = 0; j < smoothedCount; ++j) {
        double total = power[j], count = inside[j];
        for (int k = 1; k <= 2 * kSmoothHalf; ++k) {
            total += power[j + k];
            count += inside[j + k];
        }
        smoothed[j] = total / count;  // NaN beyond the beam's ends
    }
    constexpr int centre = kMaxReach;
    double peak = -std::numeric_limits<double>::infinity();
    bool anyPeak = false;
    for (int j = centre - kPeakReach; j <= centre + kPeakReach; ++j)
        if (!std::isnan(smoothed[j])) {
            peak = anyPeak ? std::max(peak, smoothed[j]) : smoothed[j];
            anyPeak = true;
        }
    if (!anyPeak) peak = kNan;
    const double drop = peak / kEdgeDrop;
    const double floor = kNoiseMargin * noise;
    const double edge = std::isnan(drop) || std::isnan(floor) ? kNan : std::max(drop, floor);
    int left = 0;
    while (left < kMaxReach && smoothed[centre - 1 - left] > edge) ++left;
    int right = 0;
    while (right < kMaxReach && smoothed[centre + 1 + right] > edge) ++right;
    // The window's power summed in sample order from its first sample.
    const int first = reach - left, last = reach + right;
    double window = 0.0;
    for (int k = first; k <= last; ++k) window += power[k];
    *length = last - first + 1;
    *meanPower = window / static_cast<double>(*length);
}

uint8_t detectionMethod(double steeringDeg, int32_t echoSamples) {
    if (echoSamples <= 0) return kNoMethod;
    const double a = std::fabs(steeringDeg);
    if (a < 45.0 && echoSamples < 8) return kAmplitude;
    if (a < 45.0 && (echoSamples < 12 || (a < 20.0 && echoSamples < 16))) return kEither;
    return kPhase;
}

uint8_t ihoOrder(double depth, double depthUncertainty) {
    struct Limit {
        uint8_t code;
        double a, b;
    };
    // From the loosest: a stricter order met overwrites.
    static constexpr Limit kLimits[] = {
        {kOrder2, 1.0, 0.023}, {kOrder1, 0.5, 0.013}, {kOrderSpecial, 0.25, 0.0075}, {kOrderExclusive, 0.15, 0.0075}};
    if (std::isnan(depthUncertainty)) return kOrderNone;
    const double d = std::fabs(depth);
    const double tvu = 1.96 * depthUncertainty;
    uint8_t order = kOrderNone;
    for (const Limit& l : kLimits)
        if (tvu <= std::sqrt(l.a * l.a + (l.b * d) * (l.b * d))) order = l.code;
    return order;
}

}  // namespace

const char* ihoOrderName(uint8_t order) {
    switch (order) {
        case kOrderExclusive: return "exclusive";
        case kOrderSpecial: return "special";
        case kOrder1: return "1a/1b";
        case kOrder2: return "2";
        default: return "none";
    }
}

double noisePower(const float* image, int beamCount, int sampleCount, float firstEcho) {
    int end = 0;
    if (std::isfinite(firstEcho)) end = static_cast<int>(std::max(-1e9, std::min(1e9, 0.8 * firstEcho)));
    end = std::min(end, sampleCount);
    std::vector<double> power;
    if (end - 16 >= 16) {
        const int step = std::max(1, (end - 16) / kNoiseSamples);
        power.reserve(static_cast<size_t>(beamCount) * static_cast<size_t>((end - 16) / step + 1));
        for (int b = 0; b < beamCount; ++b)
            for (int t = 16; t < end; t += step) {
                const double v = image[static_cast<size_t>(b) * sampleCount + t];
                power.push_back(v * v);
            }
        return median(power) / std::log(2.0);
    }
    power.reserve(static_cast<size_t>(beamCount) * sampleCount);
    for (size_t i = 0; i < static_cast<size_t>(beamCount) * sampleCount; ++i) {
        const double v = image[i];
        power.push_back(v * v);
    }
    if (power.empty()) return kNan;
    return percentile(power, 10.0) / kMinusLn09;
}

void computeUncertainty(SoundingUncertainty* out, const float* image, int beamCount, int sampleCount,
                        const float* bottomSample, const uint8_t* bottomFlag, const float* steeringDeg,
                        const Sounding* soundings, float firstEcho, float pulseLength, float soundSpeed,
                        const SurveySigmas& survey) {
    const double c = soundSpeed;
    const double metresPerSample = c / (2.0 * kSampleRate);
    const double pulse = std::max(static_cast<double>(pulseLength) * kSampleRate, 1.0);
    const double noise = noisePower(image, beamCount, sampleCount, firstEcho);

    std::vector<double> rangeSigma(static_cast<size_t>(beamCount), kNan);
    std::vector<double> angleSigma(static_cast<size_t>(beamCount), kNan);  // radians
    for (int b = 0; b < beamCount; ++b) {
        SoundingUncertainty& u = out[b];
        u = {0, kNan, kNoMethod, kNan, kNan, kNan, kNan, kNan, kOrderNone};
        const float bottom = bottomSample[b];
        if (!std::isfinite(bottom) || bottom == 0.0f || sampleCount <= 0) continue;
        const int64_t index =
            std::clamp<int64_t>(static_cast<int64_t>(bottom) - 1, 0, static_cast<int64_t>(sampleCount) - 1);
        double mean = 0.0;
        echoWindow(image + static_cast<size_t>(b) * sampleCount, sampleCount, index, noise, &u.echoSamples, &mean);
        u.echoSnr = noise > 0.0 ? std::max(mean / noise - 1.0, 0.01) : 1e6;
        const double steering = steeringDeg[b];
        u.method = detectionMethod(steering, u.echoSamples);
        const double pulses = static_cast<double>(u.echoSamples) / pulse;
        const bool inner = b >= kFirstInnerBeam && b <= kLastInnerBeam;
        const double spread =
            inner ? pulse * pulse * kPhaseFloor + kPhaseSpread * pulses : pulse * pulse * kOuterPhaseFloor;
        const double phase = spread + kPhaseNoise * pulses / u.echoSnr;
        const double amplitude = pulse * pulse * kAmplitudeFloor + kAmplitudeNoise / u.echoSnr;
        const double variance = u.method == kAmplitude ? amplitude
                                : u.method == kEither  ? std::max(phase, amplitude)
                                                       : phase;
        rangeSigma[static_cast<size_t>(b)] = std::sqrt(variance) * metresPerSample;
        const double beamwidth = kBeamwidthRad * (c / 1500.0) / std::cos(steering * kRadiansPerDegree);
        angleSigma[static_cast<size_t>(b)] = kAngleFactor * beamwidth / std::sqrt(u.echoSnr * pulses);
        u.angleSigmaDeg = angleSigma[static_cast<size_t>(b)] * (180.0 / kPi);
    }

    // A copied beam carries its inner neighbour's range at its own angle: add
    // the range change over the angle between them, from the slope of that
    // neighbour's and the next own detection's ranges inward (or, without
    // one, of a flat seabed).
    const int centre = beamCount / 2;
    std::vector<double> copied = rangeSigma;
    for (int b = 0; b < beamCount; ++b) {
        if (bottomFlag[b] != 2 || std::isnan(soundings[b].rangeM)) continue;
        const int inward = b >= centre ? -1 : 1;
        int j = b + inward;
        while (j >= 0 && j < beamCount && !(bottomFlag[j] == 1 && bottomSample[j] == bottomSample[b])) j += inward;
        if (j < 0 || j >= beamCount) {
            copied[static_cast<size_t>(b)] = soundings[b].rangeM;
            continue;
        }
        int k = j + inward;
        while (k >= 0 && k < beamCount && bottomFlag[k] != 1) k += inward;
        double perDegree;
        if (k >= 0 && k < beamCount && soundings[k].angleDeg != soundings[j].angleDeg)
            perDegree = std::fabs((soundings[j].rangeM - soundings[k].rangeM) /
                                  (soundings[j].angleDeg - soundings[k].angleDeg));
        else
            perDegree = std::fabs(soundings[j].rangeM * std::tan(soundings[j].angleDeg * kRadiansPerDegree)) * kPi /
                        180.0;
        const double step = perDegree * std::fabs(soundings[b].angleDeg - soundings[j].angleDeg);
        const double own = rangeSigma[static_cast<size_t>(j)];
        copied[static_cast<size_t>(b)] = std::sqrt(own * own + step * step);
    }

    const double rollRad = survey.rollDeg * kRadiansPerDegree;
    for (int b = 0; b < beamCount; ++b) {
        SoundingUncertainty& u = out[b];
        const Sounding& s = soundings[b];
        const double sigma = copied[static_cast<size_t>(b)];
        u.rangeSigma = sigma;
        u.qualityFactor = std::log10(s.rangeM / sigma);
        const double radians = s.angleDeg * kRadiansPerDegree;
        const double surveyRange = s.rangeM * survey.soundSpeed / c;
        const double steer = std::tan(radians) * survey.soundSpeed / c;
        const double surveyAngleSq = rollRad * rollRad + steer * steer;
        const double detectionAngle = angleSigma[static_cast<size_t>(b)];
        const double totalRangeSq = sigma * sigma + surveyRange * surveyRange;
        const double totalAngleSq = detectionAngle * detectionAngle + surveyAngleSq;
        const double sn = std::sin(radians), cs = std::cos(radians);
        u.depthUncertainty = std::sqrt(cs * cs * totalRangeSq + s.rangeM * s.rangeM * sn * sn * totalAngleSq);
        u.acrossUncertainty = std::sqrt(sn * sn * totalRangeSq + s.rangeM * s.rangeM * cs * cs * totalAngleSq);
        u.ihoOrder = ihoOrder(s.depthM, u.depthUncertainty);
    }
}

}  // namespace kvproducts
