// pictures.h - PNG pictures of a ping's outputs for people to look at.
#pragma once

#include <cstdint>
#include <string>

namespace kvreplay {

// Writes an 8-bit grey or RGB image; returns an empty string or a message.
std::string writePng(const std::string& path, const uint8_t* pixels, int width, int height,
                     int channels);

}  // namespace kvreplay

#include "kVane.h"

namespace kvreplay {

// Writes the pictures of one ping that has just been processed:
// <prefix>wedge.png (displayImage), <prefix>waterfall.png (sideScanImage, scaled
// to 8 bits) and <prefix>beams.png (beamImage, beams across, samples down, log
// scale, bottom line drawn over it). Returns an empty string or a one-line message.
std::string writePingPictures(const std::string& prefix, const KVaneParams& params,
                              const KVaneResult& result, int32_t sampleCount);

}  // namespace kvreplay
