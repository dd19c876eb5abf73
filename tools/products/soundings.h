// soundings.h - soundings in metres from the kernel's bottom line, for the
// tools. The Python package computes the same (kvane/soundings.py); the tests
// hold the two against each other.
//
// A bottom sample counts from the first sample the kernel keeps: the first 15
// samples of every channel are dropped, so the echo's two-way time is
// (bottomSample + 15) / 20000 s from the centre of the transmitted pulse. In
// double precision:
//   range  = (bottomSample + 15 - rangeOffsetSamples) * soundSpeed / (2 * 20000)   m, one way
//   angle  = steering angle - roll at the time of the echo   (one-shot path)
//          = steering angle                                   (segmented path: the
//            beams were steered with the roll of each 10 ms stretch)
//   across = range * sin(angle)   m, positive to starboard
//   depth  = range * cos(angle)   m, positive down, from the array
// The roll at the echo, pingTime + (bottomSample + 15) / 20 ms, is read from
// the ping's roll table, linear between samples and held at the table's ends.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

namespace kvproducts {

constexpr double kSampleRate = 20000.0;  // complex samples per second
constexpr int kDroppedSamples = 15;      // samples the kernel drops at the head of every channel

// The header line of the soundings CSV.
inline constexpr const char* kSoundingsHeader =
    "ping,beam,angle_deg,range_m,across_m,depth_m,flag,depth_unc_m,across_unc_m,qf,iho_order";

// A roll table: times (ms, ascending) and roll angles (degrees) on the clock
// of pingTime, the time of sample 0 of the ping.
struct RollSamples {
    int32_t pingTime = 0;
    std::vector<int32_t> time;
    std::vector<float> angle;
};

// One sounding; every field is NaN for a beam without a detection.
struct Sounding {
    double angleDeg;  // earth-frame angle from vertical, negative to port
    double rangeM;    // one-way slant range
    double acrossM;   // across-track distance, positive to starboard
    double depthM;    // depth below the array
};

// Roll (degrees) at atMs: linear between samples, held at the ends, 0 for an
// empty table.
double interpolateRoll(const RollSamples& roll, double atMs);

// Soundings of one ping. bottomSample, steeringDeg: beamCount entries as the
// kernel leaves them (bottomSample 0 or not finite: no detection). roll: the
// ping's roll table on the one-shot path, nullptr for none or on the
// segmented path. out: beamCount entries.
void computeSoundings(Sounding* out, const float* bottomSample, const float* steeringDeg, int beamCount,
                      float soundSpeed, const RollSamples* roll, double rangeOffsetSamples);

struct SoundingUncertainty;

// Writes one CSV line per beam with a detection, with the digits the Python
// package writes. Returns false if a write failed.
bool writeSoundingRows(std::FILE* file, long long ping, const Sounding* soundings, const uint8_t* flags,
                       const SoundingUncertainty* uncertainty, int beamCount);

}  // namespace kvproducts
