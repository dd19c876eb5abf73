// pictures.cpp - PNG pictures of a ping's outputs for people to look at.
#include "pictures.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace kvreplay {

std::string writePng(const std::string& path, const uint8_t* pixels, int width, int height,
                     int channels) {
    if (pixels == nullptr || width < 1 || height < 1)
        return "no picture to write to " + path;
    if (channels != 1 && channels != 3)
        return "unsupported channel count " + std::to_string(channels) + " for " + path;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = channels == 1 ? PNG_FORMAT_GRAY : PNG_FORMAT_RGB;
    const png_int_32 rowStride = static_cast<png_int_32>(width) * channels;
    if (!png_image_write_to_file(&image, path.c_str(), 0, pixels, rowStride, nullptr)) {
        std::string message = "cannot write " + path + ": " + image.message;
        png_image_free(&image);
        return message;
    }
    return "";
}

namespace {

// Maps amplitudes to grey levels on a decibel scale. The window runs from the
// 5th to the 99.5th percentile of 20*log10 of the positive values, so that a
// picture of any gain spreads its noise floor to dark grey and its strongest
// returns (the seabed) to white, and a few extreme samples cannot flatten the
// rest. Zero, negative and non-finite amplitudes (no data) are black.
struct DecibelWindow {
    float low = 0.0f;
    float high = 1.0f;
};

float percentile(std::vector<float>& values, double fraction) {
    const std::size_t k = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
    return values[k];
}

DecibelWindow decibelWindow(const float* amplitude, std::size_t count) {
    std::vector<float> db;
    db.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        if (amplitude[i] > 0.0f && std::isfinite(amplitude[i]))
            db.push_back(20.0f * std::log10(amplitude[i]));
    DecibelWindow w;
    if (db.empty()) return w;
    w.low = percentile(db, 0.05);
    w.high = percentile(db, 0.995);
    if (!(w.high > w.low)) w.high = w.low + 1.0f;
    return w;
}

uint8_t greyLevel(float amplitude, const DecibelWindow& w) {
    if (!(amplitude > 0.0f) || !std::isfinite(amplitude)) return 0;
    const float t = (20.0f * std::log10(amplitude) - w.low) / (w.high - w.low);
    return static_cast<uint8_t>(std::lround(std::clamp(t, 0.0f, 1.0f) * 255.0f));
}

std::string writeWedge(const std::string& path, const KVaneParams& params,
                       const KVaneResult& result) {
    if (result.displayImage == nullptr || params.imageWidth < 1 || params.imageHeight < 1)
        return "no wedge picture (no displayImage or an empty raster)";
    return writePng(path, result.displayImage, params.imageWidth, params.imageHeight, 1);
}

// The rows the kernel shows: sideScanRows when 10..200, else 100, each 2E
// floats wide with E the sample count rounded down to even (at most 8000).
std::string writeWaterfall(const std::string& path, const KVaneParams& params,
                           const KVaneResult& result, int32_t sampleCount) {
    const int32_t rows = static_cast<uint32_t>(params.sideScanRows) - 10u > 190u
                             ? 100
                             : params.sideScanRows;
    const int32_t E = std::clamp(sampleCount, 0, 8000) & ~1;
    if (result.sideScanImage == nullptr || E < 1) return "no waterfall picture";
    const std::size_t width = static_cast<std::size_t>(2 * E);
    const std::size_t count = width * static_cast<std::size_t>(rows);
    const DecibelWindow w = decibelWindow(result.sideScanImage, count);
    std::vector<uint8_t> grey(count);
    for (std::size_t i = 0; i < count; ++i) grey[i] = greyLevel(result.sideScanImage[i], w);
    return writePng(path, grey.data(), static_cast<int>(width), rows, 1);
}

// Beams across, samples down, grey on a decibel scale, with the bottom line
// in red: each beam's bottom sample, joined to the next beam's by a vertical
// run so that the line reads as a line and not as scattered dots. Rejected
// beams (0) are left out.
std::string writeBeams(const std::string& path, const KVaneParams& params,
                       const KVaneResult& result, int32_t sampleCount) {
    const int32_t B = params.beamCount;
    const int32_t n = sampleCount;
    if (result.beamImage == nullptr || B < 1 || B > 256 || n < 1) return "no beam picture";
    const std::size_t count = static_cast<std::size_t>(B) * static_cast<std::size_t>(n);
    const DecibelWindow w = decibelWindow(result.beamImage, count);
    std::vector<uint8_t> rgb(count * 3);
    for (int32_t b = 0; b < B; ++b)
        for (int32_t s = 0; s < n; ++s) {
            const uint8_t g =
                greyLevel(result.beamImage[static_cast<std::size_t>(b) * n + s], w);
            uint8_t* px = &rgb[(static_cast<std::size_t>(s) * B + b) * 3];
            px[0] = px[1] = px[2] = g;
        }
    auto rowOf = [n](float sample) -> int32_t {
        if (!(sample > 0.0f) || !(sample < static_cast<float>(n))) return -1;
        return static_cast<int32_t>(std::lround(sample));
    };
    auto paint = [&](int32_t b, int32_t s) {
        if (s < 0 || s >= n) return;
        uint8_t* px = &rgb[(static_cast<std::size_t>(s) * B + b) * 3];
        px[0] = 255;
        px[1] = 0;
        px[2] = 0;
    };
    for (int32_t b = 0; b < B; ++b) {
        const int32_t s = rowOf(result.bottomSample[b]);
        if (s < 0) continue;
        for (int32_t k = -1; k <= 1; ++k) paint(b, s + k);
        const int32_t next = b + 1 < B ? rowOf(result.bottomSample[b + 1]) : -1;
        if (next >= 0)
            for (int32_t k = std::min(s, next); k <= std::max(s, next); ++k) paint(b, k);
    }
    return writePng(path, rgb.data(), B, n, 3);
}

}  // namespace

std::string writePingPictures(const std::string& prefix, const KVaneParams& params,
                              const KVaneResult& result, int32_t sampleCount) {
    // Every picture that can be written is; the first failure is reported.
    const std::string messages[] = {
        writeWedge(prefix + "wedge.png", params, result),
        writeWaterfall(prefix + "waterfall.png", params, result, sampleCount),
        writeBeams(prefix + "beams.png", params, result, sampleCount),
    };
    for (const std::string& m : messages)
        if (!m.empty()) return m;
    return "";
}

}  // namespace kvreplay
