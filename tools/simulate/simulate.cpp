// simulate.cpp - synthetic pings of a known seabed (see simulate.h for the
// physics and the conventions).
#include "simulate.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

#include "recording.h"

namespace kvsim {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;
constexpr double kFilterSigma = 0.6;  // receive filter, samples
constexpr double kSupportSigmas = 4.5;
constexpr int kTableSteps = 512;      // envelope table points per sample
constexpr double kWaterTargetLevel = 0.3;
// Largest incidence on the seabed that still gets scatterers: grazing rays
// give no usable echo and an unbounded range.
constexpr double kMaxIncidenceDeg = 85.0;

enum Stream : uint64_t { streamSeabed = 1, streamNoise = 2, streamTargets = 3, streamAmplitude = 4 };

uint64_t splitmix64(uint64_t& state) {
    state += 0x9E3779B97F4A7C15ull;
    uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// A small generator of our own: the same numbers with every standard library.
struct Rng {
    uint64_t state;
    bool haveSpare = false;
    double spare = 0.0;

    Rng(uint32_t seed, uint64_t index, Stream stream) {
        uint64_t s = seed;
        s = splitmix64(s) ^ (index * 0xD1B54A32D192ED03ull);
        s = splitmix64(s) ^ (static_cast<uint64_t>(stream) * 0x8CB92BA72F3D8DD7ull);
        state = splitmix64(s);
    }
    // Uniform in [0, 1).
    double uniform() { return static_cast<double>(splitmix64(state) >> 11) * 0x1.0p-53; }
    // Standard normal, Box-Muller.
    double normal() {
        if (haveSpare) {
            haveSpare = false;
            return spare;
        }
        const double u1 = 1.0 - uniform();  // (0, 1]
        const double u2 = uniform();
        const double r = std::sqrt(-2.0 * std::log(u1));
        spare = r * std::sin(2.0 * kPi * u2);
        haveSpare = true;
        return r * std::cos(2.0 * kPi * u2);
    }
};

// The pulse envelope, peak 1, tabulated finely and read with linear
// interpolation; zero outside +-halfWidth samples.
struct Envelope {
    double halfWidth = 0.0;
    std::vector<double> table;

    explicit Envelope(double pulseSamples) {
        const double h = 0.5 * pulseSamples;
        const double k = 1.0 / (kFilterSigma * std::sqrt(2.0));
        halfWidth = h + kSupportSigmas * kFilterSigma;
        const double peak = std::erf(h * k);
        const int count = static_cast<int>(std::ceil(2.0 * halfWidth * kTableSteps)) + 2;
        table.resize(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            const double x = -halfWidth + static_cast<double>(i) / kTableSteps;
            table[static_cast<size_t>(i)] = 0.5 * (std::erf((x + h) * k) - std::erf((x - h) * k)) / peak;
        }
    }
    double at(double x) const {
        const double pos = (x + halfWidth) * kTableSteps;
        if (pos < 0.0) return 0.0;
        const size_t i = static_cast<size_t>(pos);
        if (i + 1 >= table.size()) return 0.0;
        const double f = pos - static_cast<double>(i);
        return table[i] + f * (table[i + 1] - table[i]);
    }
};

// Complex sums of one ping, 64 rows of n, before noise and rounding.
struct Field {
    int n = 0;
    std::vector<double> re, im;
};

// Adds one point echo: two-way delay in samples at element 0, array angle,
// complex amplitude at the envelope peak.
void addEcho(Field& field, const Envelope& env, double delaySamples, double arrayAngleDeg,
             std::complex<double> amplitude, double soundSpeed) {
    const double sinTheta = std::sin(arrayAngleDeg * kDeg);
    const double perElement = kElementSpacing * sinTheta / soundSpeed * kSampleRate;  // samples
    // Carrier phase of the delay, reduced to one cycle before it meets 2 pi.
    const double cycles = kCarrier * delaySamples / kSampleRate;
    const double phase0 = -2.0 * kPi * (cycles - std::floor(cycles));
    const double phaseStep = -2.0 * kPi * kCarrier * kElementSpacing * sinTheta / soundSpeed;
    const double lastSample = field.n - 1;
    for (int e = 0; e < kElements; ++e) {
        const double centre = delaySamples + e * perElement;
        const double lo = std::max(0.0, std::ceil(centre - env.halfWidth));
        const double hi = std::min(lastSample, std::floor(centre + env.halfWidth));
        if (lo > hi) continue;
        const std::complex<double> a = amplitude * std::polar(1.0, phase0 + e * phaseStep);
        double* re = field.re.data() + static_cast<size_t>(e) * field.n;
        double* im = field.im.data() + static_cast<size_t>(e) * field.n;
        for (int k = static_cast<int>(lo); k <= static_cast<int>(hi); ++k) {
            const double w = env.at(k - centre);
            re[k] += a.real() * w;
            im[k] += a.imag() * w;
        }
    }
}

// Backscatter intensity at incidence angle i (degrees), relative to normal
// incidence: Lambert's cos^2 plus a specular lobe near the normal.
double backscatter(double incidenceDeg) {
    const double c = std::cos(incidenceDeg * kDeg);
    const double lobe = std::exp(-(incidenceDeg / 8.0) * (incidenceDeg / 8.0));
    return (c * c + 3.0 * lobe) / 4.0;
}

struct Scatterer {
    double delaySamples;
    double earthAngleDeg;
    double gain;  // sqrt(backscatter) / range relative to nadir
};

// The seabed scatterers of one ping that can echo within its samples.
std::vector<Scatterer> seabedScatterers(const SimConfig& config, int index, double maxDelay) {
    std::vector<Scatterer> out;
    const double D = config.depth;
    const double slope = config.slopeDeg * kDeg;
    const double sa = std::sin(slope), ca = std::cos(slope);
    // Along-seabed coordinate s: point (s cos a, D + s sin a).
    const double loAngle = std::max(-config.maxAngle, -kMaxIncidenceDeg - config.slopeDeg);
    const double hiAngle = std::min(config.maxAngle, kMaxIncidenceDeg - config.slopeDeg);
    if (loAngle >= hiAngle) return out;
    auto alongAt = [&](double angleDeg) {
        const double r = D * ca / std::cos(angleDeg * kDeg + slope);
        return r * std::sin(angleDeg * kDeg) / ca;
    };
    double sLo = alongAt(loAngle), sHi = alongAt(hiAngle);
    // Range window: |point|^2 = s^2 + 2 D s sin a + D^2 <= rMax^2.
    const double rMax = maxDelay / kSampleRate * config.soundSpeed / 2.0;
    const double closest = D * ca;
    if (rMax <= closest) return out;
    const double q = std::sqrt(rMax * rMax - closest * closest);
    sLo = std::max(sLo, -D * sa - q);
    sHi = std::min(sHi, -D * sa + q);
    if (sLo >= sHi) return out;

    Rng rng(config.seed, static_cast<uint64_t>(index), streamSeabed);
    const double spacing = config.scattererSpacing;
    const size_t count = static_cast<size_t>((sHi - sLo) / spacing) + 1;
    out.reserve(count);
    for (size_t k = 0; k < count; ++k) {
        const double s = sLo + (static_cast<double>(k) + rng.uniform()) * spacing;
        if (s > sHi) break;
        const double x = s * ca, z = D + s * sa;
        const double r = std::sqrt(x * x + z * z);
        const double angle = std::atan2(x, z) / kDeg;
        const double incidence = angle + config.slopeDeg;
        out.push_back({2.0 * r / config.soundSpeed * kSampleRate, angle,
                       std::sqrt(backscatter(incidence)) * D / r});
    }
    return out;
}

int32_t toCounts(double v) {
    const double r = std::round(v);  // half away from zero
    if (!(r > -2147483648.0)) return std::numeric_limits<int32_t>::min();  // NaN too
    if (r > 2147483647.0) return std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(r);
}

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

std::string range(const char* name, const char* valid) {
    return std::string(name) + " must be " + valid;
}

}  // namespace

std::string checkConfig(const SimConfig& c) {
    auto inRange = [](double v, double lo, double hi) { return std::isfinite(v) && v >= lo && v <= hi; };
    if (!inRange(c.depth, 0.1, 1000.0)) return range("depth", "0.1 to 1000 m");
    if (!inRange(c.slopeDeg, -60.0, 60.0)) return range("slope", "-60 to 60 degrees");
    if (c.pings < 1 || c.pings > 1000000) return range("pings", "1 to 1000000");
    if (c.samples < 1 || c.samples > kMaxSamples) return range("samples", "1 to 8000");
    if (!inRange(c.snrDb, -40.0, 300.0)) return range("snr", "-40 to 300 dB");
    if (!inRange(c.soundSpeed, 1300.0, 1800.0)) return range("sound speed", "1300 to 1800 m/s");
    if (!inRange(c.pulseLength, 1e-6, 0.01)) return range("pulse length", "1e-6 to 0.01 s");
    if (!inRange(c.rollAmplitude, 0.0, 45.0)) return range("roll amplitude", "0 to 45 degrees");
    if (!inRange(c.rollPeriod, 0.1, 1000.0)) return range("roll period", "0.1 to 1000 s");
    if (!inRange(c.pingInterval, 0.001, 100.0)) return range("ping interval", "0.001 to 100 s");
    if (!inRange(c.startTime, 0.0, 1e6)) return range("start time", "0 to 1e6 s");
    if (!inRange(c.maxAngle, 1.0, 89.0)) return range("max angle", "1 to 89 degrees");
    if (!inRange(c.echoLevel, 1.0, 2e9)) return range("echo level", "1 to 2e9 counts");
    if (!inRange(c.scattererSpacing, 0.001, 10.0)) return range("scatterer spacing", "0.001 to 10 m");
    if (c.waterTargets < 0 || c.waterTargets > 10000) return range("targets", "0 to 10000");
    for (const SimTarget& t : c.targets)
        if (!inRange(t.angleDeg, -89.0, 89.0) || !inRange(t.range, 0.01, 1e4) ||
            !inRange(t.amplitude, 0.0, 2e9))
            return "a target needs an angle within +-89 degrees, a range of 0.01 to 1e4 m and an "
                   "amplitude of 0 to 2e9 counts";
    return {};
}

double rollAt(const SimConfig& config, double seconds) {
    return config.rollAmplitude * std::sin(2.0 * kPi * seconds / config.rollPeriod);
}

int32_t pingTimeMs(const SimConfig& config, int index) {
    return static_cast<int32_t>(std::llround(1000.0 * (config.startTime + index * config.pingInterval)));
}

double seabedSample(const SimConfig& config, double angleDeg) {
    const double slope = config.slopeDeg * kDeg;
    const double c = std::cos(angleDeg * kDeg + slope);
    if (!(c > 0.0)) return std::numeric_limits<double>::quiet_NaN();
    const double r = config.depth * std::cos(slope) / c;
    return 2.0 * r / config.soundSpeed * kSampleRate;
}

int16_t rangeSettingMetres(const SimConfig& config) {
    const double metres = config.samples / kSampleRate * config.soundSpeed / 2.0;
    return static_cast<int16_t>(std::clamp(std::lround(metres), 0L, 32767L));
}

std::vector<float> truthFanAngles() {
    std::vector<float> a(256);
    // The kernel's equal-angle fan: -P + i * (P + S) / float(B - 1), in floats.
    for (int i = 0; i < 256; ++i) a[static_cast<size_t>(i)] = -70.0f + static_cast<float>(i) * 140.0f / 255.0f;
    return a;
}

SimPing simulatePing(const SimConfig& config, int index) {
    SimPing ping;
    const int n = std::clamp(config.samples, 1, kMaxSamples);
    ping.sampleCount = n;
    ping.pingTime = pingTimeMs(config, index);
    const double pingSeconds = ping.pingTime / 1000.0;
    const double c = config.soundSpeed;

    // Roll samples every 10 ms, 3 ms past the tens, around the whole ping.
    const int64_t durationMs = static_cast<int64_t>(std::ceil(n / kSampleRate * 1000.0));
    const int64_t first = floorDiv(static_cast<int64_t>(ping.pingTime) - 50 - 3, 10) * 10 + 3;
    for (int64_t t = first; ping.rollTime.size() < 100; t += 10) {
        ping.rollTime.push_back(static_cast<int32_t>(t));
        ping.rollAngle.push_back(static_cast<float>(rollAt(config, t / 1000.0)));
        if (t >= ping.pingTime + durationMs + 50) break;
    }

    const Envelope env(config.pulseLength * kSampleRate);
    Field field;
    field.n = n;
    field.re.assign(static_cast<size_t>(kElements) * n, 0.0);
    field.im.assign(static_cast<size_t>(kElements) * n, 0.0);
    const double maxDelay = n - 1 + env.halfWidth;
    auto arrayAngle = [&](double earthAngleDeg, double delaySamples) {
        return earthAngleDeg + rollAt(config, pingSeconds + delaySamples / kSampleRate);
    };

    // The level the noise is set against: the mean seabed echo power at one
    // element over the seabed's return within the ping, or echoLevel^2 when
    // there is no seabed.
    double meanEchoPower = config.echoLevel * config.echoLevel;
    if (config.seabed) {
        const std::vector<Scatterer> bed = seabedScatterers(config, index, maxDelay);
        // Expected power at element 0, sample by sample, from the gains alone;
        // its maximum is set to echoLevel^2.
        std::vector<double> power(static_cast<size_t>(n), 0.0);
        double firstDelay = maxDelay, lastDelay = 0.0;
        for (const Scatterer& s : bed) {
            firstDelay = std::min(firstDelay, s.delaySamples);
            lastDelay = std::max(lastDelay, s.delaySamples);
            const double lo = std::max(0.0, std::ceil(s.delaySamples - env.halfWidth));
            const double hi = std::min<double>(n - 1, std::floor(s.delaySamples + env.halfWidth));
            for (int k = static_cast<int>(lo); k <= static_cast<int>(hi); ++k) {
                const double w = env.at(k - s.delaySamples) * s.gain;
                power[static_cast<size_t>(k)] += w * w;
            }
        }
        const double peak = power.empty() ? 0.0 : *std::max_element(power.begin(), power.end());
        if (peak > 0.0) {
            const double powerScale = config.echoLevel * config.echoLevel / peak;
            const int from = std::clamp(static_cast<int>(std::round(firstDelay)), 0, n - 1);
            const int to = std::clamp(static_cast<int>(std::round(lastDelay)), from, n - 1);
            double sum = 0.0;
            for (int k = from; k <= to; ++k) sum += power[static_cast<size_t>(k)];
            meanEchoPower = sum / (to - from + 1) * powerScale;

            const double scale = std::sqrt(powerScale / 2.0);
            Rng rng(config.seed, static_cast<uint64_t>(index), streamAmplitude);
            for (const Scatterer& s : bed) {
                const double re = rng.normal(), im = rng.normal();
                addEcho(field, env, s.delaySamples, arrayAngle(s.earthAngleDeg, s.delaySamples),
                        std::complex<double>(re, im) * (scale * s.gain), c);
            }
        }
    }

    auto addTarget = [&](const SimTarget& t) {
        const double delay = 2.0 * t.range / c * kSampleRate;
        if (delay > maxDelay) return;
        addEcho(field, env, delay, arrayAngle(t.angleDeg, delay), t.amplitude, c);
    };
    if (config.waterTargets > 0) {
        // Targets stay put from ping to ping: their numbers depend on the seed only.
        Rng rng(config.seed, 0, streamTargets);
        for (int i = 0; i < config.waterTargets; ++i) {
            SimTarget t;
            t.angleDeg = -60.0 + 120.0 * rng.uniform();
            double bottom = seabedSample(config, t.angleDeg) / kSampleRate * c / 2.0;
            if (!std::isfinite(bottom)) bottom = config.depth / std::cos(t.angleDeg * kDeg);
            t.range = bottom * (0.15 + 0.7 * rng.uniform());
            t.amplitude = kWaterTargetLevel * config.echoLevel;
            addTarget(t);
        }
    }
    for (const SimTarget& t : config.targets) addTarget(t);

    const double sigma = std::sqrt(meanEchoPower / 2.0) * std::pow(10.0, -config.snrDb / 20.0);
    Rng noise(config.seed, static_cast<uint64_t>(index), streamNoise);
    const size_t total = static_cast<size_t>(kElements) * n;
    ping.planeI.resize(total);
    ping.planeQ.resize(total);
    for (size_t i = 0; i < total; ++i) {
        const double ni = noise.normal() * sigma;
        const double nq = noise.normal() * sigma;
        ping.planeI[i] = toCounts(field.re[i] + ni);
        ping.planeQ[i] = toCounts(field.im[i] + nq);
    }
    return ping;
}

std::string writeRecording(const std::string& path, const SimConfig& config) {
    const std::string bad = checkConfig(config);
    if (!bad.empty()) return bad;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), &std::fclose);
    if (!file) return path + ": cannot open for writing (" + std::strerror(errno) + ")";
    const int16_t lc = rangeSettingMetres(config);
    for (int k = 0; k < config.pings; ++k) {
        const SimPing ping = simulatePing(config, k);
        kvreplay::RollTable roll;
        roll.pingTime = ping.pingTime;
        roll.time = ping.rollTime;
        roll.angle = ping.rollAngle;
        const std::vector<uint8_t> record = kvreplay::encodeRecord(
            lc, ping.planeI.data(), ping.planeQ.data(), ping.sampleCount, kvreplay::encodeRollAux(roll));
        if (std::fwrite(record.data(), 1, record.size(), file.get()) != record.size())
            return path + ": write failed (" + std::strerror(errno) + ")";
    }
    if (std::fclose(file.release()) != 0) return path + ": write failed (" + std::strerror(errno) + ")";
    return {};
}

std::string writeTruthCsv(const std::string& path, const SimConfig& config) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "w"), &std::fclose);
    if (!file) return path + ": cannot open for writing (" + std::strerror(errno) + ")";
    std::fprintf(file.get(), "angle_deg,raw_sample\n");
    for (float a : truthFanAngles()) {
        const double s = seabedSample(config, a);
        if (std::isfinite(s))
            std::fprintf(file.get(), "%.9g,%.6f\n", static_cast<double>(a), s);
        else
            std::fprintf(file.get(), "%.9g,nan\n", static_cast<double>(a));
    }
    if (std::fclose(file.release()) != 0) return path + ": write failed (" + std::strerror(errno) + ")";
    return {};
}

}  // namespace kvsim
