// pictures.h - PNG pictures of a ping's outputs for people to look at.
#pragma once

#include <cstdint>
#include <string>

#include "kVane.h"

namespace kvreplay {

// Writes an 8-bit picture, width x height pixels of `channels` bytes each
// (1: grey, 3: RGB), rows packed. Returns an empty string or a message.
std::string writePng(const std::string& path, const uint8_t* pixels, int width, int height,
                     int channels);

// Writes the pictures of one ping that has just been processed:
// <prefix>wedge.png   displayImage as grey, imageWidth x imageHeight;
// <prefix>waterfall.png  the shown rows of sideScanImage (sideScanRows, or 100
//                     when outside 10..200, each 2E wide, E = sampleCount
//                     rounded down to even), on a decibel scale;
// <prefix>beams.png   beamImage, beams across and samples down, on a decibel
//                     scale, with the bottom line of bottomSample in red.
// The decibel pictures map the 5th..99.5th percentile of 20*log10 of the
// positive values to black..white; zero (no data) is black. Every picture that
// can be written is; returns an empty string or the first failure's message.
std::string writePingPictures(const std::string& prefix, const KVaneParams& params,
                              const KVaneResult& result, int32_t sampleCount);

}  // namespace kvreplay
