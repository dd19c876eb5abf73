// pictures.h - PNG pictures of a ping's outputs for people to look at.
#pragma once

#include <cstdint>
#include <string>

namespace kvreplay {

// Writes an 8-bit grey or RGB image; returns an empty string or a message.
std::string writePng(const std::string& path, const uint8_t* pixels, int width, int height,
                     int channels);

}  // namespace kvreplay
