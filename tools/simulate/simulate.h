// simulate.h - synthetic pings of a known seabed, for the demo, the tests and
// users who want to try the kernel without a sonar.
//
// Physics: 64 elements 3.75 mm apart, carrier 200 kHz, complex baseband at
// 20,000 samples per second. Time 0 of a ping is the centre of the transmitted
// pulse, so the envelope of an echo with two-way travel time t0 peaks at sample
// t0 * 20000 at element 0. An echo from array angle theta (degrees, negative
// to port, from vertical) reaches element n later by
// n * 0.00375 * sin(theta) / c seconds, so element n carries
//   A * exp(-j 2 pi 200e3 (t0 + n 0.00375 sin(theta) / c)) * env(t - t0 - n 0.00375 sin(theta) / c)
// with the envelope evaluated at each element's own delayed time.
// Array angle = earth angle + roll, the roll taken at the moment the echo
// returns (pingTime + t0).
//
// The pulse envelope is the transmitted rectangle of pulseLength, smoothed by
// a Gaussian receive filter of 0.6 samples standard deviation (about 5 kHz of
// bandwidth), and scaled to a peak of 1. For the 50 us default it spans about
// five samples.
//
// The seabed is a line of point scatterers across track, depth + x tan(slope),
// one every scattererSpacing metres along the seabed with a random jitter, over
// earth angles +-maxAngle. Each has a random complex Gaussian amplitude times
// sqrt(backscatter(incidence)) / range: Lambert's cos^2 with a specular lobe
// near normal incidence (3 times the Lambert level at 0, 8 degrees wide), and
// the amplitude falling as 1/range (spherical spreading net of the receiver's
// gain). Levels are set per ping so that the expected RMS amplitude of the
// seabed echo at one element, at its strongest sample (the nadir return), is
// echoLevel counts.
//
// Noise: complex white Gaussian, independent per element and sample, snrDb
// below the mean seabed echo power at one element, the mean taken from the
// first seabed echo to the last one within the ping (with no seabed: below
// echoLevel^2). The sum is rounded half away from zero and clamped to int32.
//
// Random numbers come from our own splitmix64 streams, one per purpose, so a
// given seed gives the same pings with every standard library: the seabed of
// a ping depends on (seed, ping index), its noise on (seed, ping index) too but
// through another stream, the random water targets on the seed alone (they
// stay put from ping to ping).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvsim {

constexpr int kElements = 64;
constexpr double kElementSpacing = 0.00375;  // m
constexpr double kCarrier = 200e3;           // Hz
constexpr double kSampleRate = 20000.0;      // complex samples per second
constexpr int kMaxSamples = 8000;            // per channel

// A point echo at a fixed place in the earth frame.
struct SimTarget {
    double angleDeg = 0.0;   // earth angle from vertical, negative to port
    double range = 10.0;     // m, one way
    double amplitude = 1e8;  // counts per element at the envelope's peak
};

struct SimConfig {
    double depth = 20.0;          // metres below the array, at nadir
    double slopeDeg = 0.0;        // across-track seabed slope, degrees (positive: deeper to starboard)
    int pings = 10;
    int samples = 4000;           // samples per channel, 1..8000
    double snrDb = 30.0;          // mean seabed echo power over the noise power, dB
    double soundSpeed = 1500.0;   // m/s
    double pulseLength = 50e-6;   // s
    double rollAmplitude = 0.0;   // degrees, sinusoidal roll
    double rollPeriod = 8.0;      // seconds
    double pingInterval = 0.5;    // seconds between pings
    double startTime = 100.0;     // s, clock time of sample 0 of ping 0
    double maxAngle = 75.0;       // seabed scatterers lie within +-maxAngle (earth frame)
    double echoLevel = 1e8;       // RMS seabed echo per element at its strongest, counts
    double scattererSpacing = 0.01;  // m along the seabed
    bool seabed = true;           // false: no seabed echo at all (targets and noise only)
    int waterTargets = 0;         // random point targets in the water column, 0.3 * echoLevel each
    std::vector<SimTarget> targets;  // further point targets placed by the caller
    uint32_t seed = 1;
};

// One ping as the kernel takes it.
struct SimPing {
    int32_t sampleCount = 0;
    std::vector<int32_t> planeI;     // 64 rows of sampleCount
    std::vector<int32_t> planeQ;
    int32_t pingTime = 0;            // ms, time of sample 0
    std::vector<float> rollAngle;    // roll samples (degrees) around the ping
    std::vector<int32_t> rollTime;   // their times, ms
};

// An empty string if the config is usable, else a one-line message naming the
// field and its valid range.
std::string checkConfig(const SimConfig& config);

// Makes ping number index (0-based) of the configured survey. Deterministic
// for a given config and index. The roll table holds samples every 10 ms
// (times 3 ms past a multiple of 10: the attitude sensor runs on its own
// phase) from at least 50 ms before the ping to 50 ms after its last sample;
// at most 100 entries. The config must pass checkConfig.
SimPing simulatePing(const SimConfig& config, int index);

// Time of sample 0 of ping index, ms: startTime + index * pingInterval.
int32_t pingTimeMs(const SimConfig& config, int index);

// The truth: the raw sample (before the kernel drops 15) at which the ray at
// earth angle angleDeg (degrees) meets the seabed, 2 * range / c * 20000. NaN
// where the ray does not reach the seabed.
double seabedSample(const SimConfig& config, double angleDeg);

// The roll (degrees) at clock time seconds: rollAmplitude * sin(2 pi t / rollPeriod).
double rollAt(const SimConfig& config, double seconds);

// The range setting stored in each record: the range of the last sample,
// metres, rounded.
int16_t rangeSettingMetres(const SimConfig& config);

// The 256 earth angles of a +-70 degree equal-angle fan, as the kernel forms
// them in single precision; the angles of the truth file.
std::vector<float> truthFanAngles();

// Writes config.pings records in the recording format to path, each with its
// roll table in the auxiliary block. Returns an empty string on success, else
// a one-line message.
std::string writeRecording(const std::string& path, const SimConfig& config);

// Writes the truth CSV (header angle_deg,raw_sample, one line per angle of
// truthFanAngles; "nan" where the ray misses the seabed). Empty string or a
// one-line message.
std::string writeTruthCsv(const std::string& path, const SimConfig& config);

}  // namespace kvsim
