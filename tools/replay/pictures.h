// pictures.h - PNG pictures of a ping's outputs for people to look at.
#pragma once

#include <cstdint>
#include <string>

#include "kVane.h"

namespace kvreplay {

// Writes an 8-bit picture, width x height pixels of `channels` bytes each
// (1: grey, 3: RGB), rows packed. With a palette (paletteEntries RGB
// triples, 1 to 256) the single byte of a pixel indexes it. Returns an empty
// string or a message.
std::string writePng(const std::string& path, const uint8_t* pixels, int width, int height,
                     int channels, const uint8_t* palette = nullptr, int paletteEntries = 0);

// Writes the pictures of one ping that has just been processed, sized so
// that a screen shows each whole:
// <prefix>wedge.png      displayImage as the kernel paints it (grey,
//                        imageWidth x imageHeight);
// <prefix>waterfall.png  the shown rows of sideScanImage (sideScanRows, or 100
//                        when outside 10..200, each 2E wide, E = sampleCount
//                        rounded down to even), each row averaged down to at
//                        most 1000 columns and drawn 400 / rows pixels tall
//                        (at least 1);
// <prefix>beams.png      beamImage, beams across (768 / beamCount pixels each,
//                        at least 1) and samples down, averaged down to at
//                        most 600 rows, with the bottom line of bottomSample
//                        on top (cyan: own detection, white: copied).
// The waterfall and the beam image are in colour: the 5th..99.5th percentile
// of 20*log10 of the positive averaged values maps from dark purple to pale
// yellow; an average over no data is 0 and the darkest colour. Every
// picture that can be written is; returns an empty string or the first
// failure's message.
std::string writePingPictures(const std::string& prefix, const KVaneParams& params,
                              const KVaneResult& result, int32_t sampleCount);

}  // namespace kvreplay
