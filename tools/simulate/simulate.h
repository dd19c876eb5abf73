// simulate.h - synthetic pings of a known seabed, for the demo, the tests and
// users who want to try the kernel without a sonar.
//
// Physics: 64 elements 3.75 mm apart, carrier 200 kHz, complex baseband at
// 20,000 samples per second. An echo from array angle theta (degrees, negative
// to port, from vertical) reaches element n later by n * 0.00375 * sin(theta)
// / c seconds, so element n carries
// exp(-j 2 pi 200e3 (t0 + n 0.00375 sin(theta) / c)) times the delayed pulse
// envelope. Array angle = earth angle + roll.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvsim {

struct SimConfig {
    double depth = 20.0;          // metres below the array, at nadir
    double slopeDeg = 0.0;        // across-track seabed slope, degrees (positive: deeper to starboard)
    int pings = 10;
    int samples = 4000;           // samples per channel, 1..8000
    double snrDb = 30.0;          // mean seabed echo over noise, dB
    double soundSpeed = 1500.0;   // m/s
    double pulseLength = 50e-6;   // s
    double rollAmplitude = 0.0;   // degrees, sinusoidal roll
    double rollPeriod = 8.0;      // seconds
    double pingInterval = 0.5;    // seconds between pings
    double maxAngle = 75.0;       // seabed scatterers lie within +-maxAngle (earth frame)
    double echoLevel = 1e8;       // typical seabed echo amplitude per element, counts
    int waterTargets = 0;         // point targets in the water column
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

// Makes ping number index (0-based) of the configured survey. Deterministic
// for a given config and index.
SimPing simulatePing(const SimConfig& config, int index);

// The truth: the raw sample (before the kernel drops 15) at which the ray at
// earth angle angleDeg (degrees) meets the seabed, 2 * range / c * 20000.
double seabedSample(const SimConfig& config, double angleDeg);

// The roll (degrees) at time seconds.
double rollAt(const SimConfig& config, double seconds);

// Writes config.pings records in the recording format to path. Returns an
// empty string on success, else a one-line message.
std::string writeRecording(const std::string& path, const SimConfig& config);

}  // namespace kvsim
