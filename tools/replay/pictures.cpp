// pictures.cpp - PNG pictures of a ping's outputs for people to look at.
#include "pictures.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace kvreplay {

std::string writePng(const std::string& path, const uint8_t* pixels, int width, int height,
                     int channels, const uint8_t* palette, int paletteEntries) {
    if (pixels == nullptr || width < 1 || height < 1)
        return "no picture to write to " + path;
    if (channels != 1 && channels != 3)
        return "unsupported channel count " + std::to_string(channels) + " for " + path;
    if (palette != nullptr && (channels != 1 || paletteEntries < 1 || paletteEntries > 256))
        return "a palette picture has one byte a pixel and 1 to 256 colours: " + path;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = palette != nullptr ? PNG_FORMAT_RGB_COLORMAP
                   : channels == 1    ? PNG_FORMAT_GRAY
                                      : PNG_FORMAT_RGB;
    if (palette != nullptr) image.colormap_entries = static_cast<png_uint_32>(paletteEntries);
    const png_int_32 rowStride = static_cast<png_int_32>(width) * channels;
    if (!png_image_write_to_file(&image, path.c_str(), 0, pixels, rowStride, palette)) {
        std::string message = "cannot write " + path + ": " + image.message;
        png_image_free(&image);
        return message;
    }
    return "";
}

namespace {

// The pictures fit a 1280 x 800 screen whole: the beam image at most
// kBeamWidth x kBeamRows pixels, the waterfall at most kWaterfallWidth wide
// and about kWaterfallHeight tall.
constexpr int32_t kBeamWidth = 768;
constexpr int32_t kBeamRows = 600;
constexpr int32_t kWaterfallWidth = 1000;
constexpr int32_t kWaterfallHeight = 400;

// The colour map of the pictures (and of kvane-view's page): dark purple
// through red and orange to pale yellow, brightness rising steadily, so that
// levels read in order on screen and in grey print. Eleven points, linear
// between them. The pictures are written with a palette: kLevels entries of
// the map, then the two colours of the bottom line.
constexpr uint8_t kColourPoints[11][3] = {
    {0, 0, 4},      {22, 11, 57},   {66, 10, 104},  {106, 23, 110}, {147, 38, 103}, {188, 55, 84},
    {221, 81, 58},  {243, 118, 27}, {252, 165, 10}, {246, 215, 70}, {252, 255, 164}};
constexpr int32_t kLevels = 254;
constexpr uint8_t kOwnBottom = 254;     // cyan: the beam's own detection
constexpr uint8_t kCopiedBottom = 255;  // white: copied from a neighbour

std::vector<uint8_t> picturePalette() {
    std::vector<uint8_t> rgb(256 * 3);
    for (int32_t k = 0; k < kLevels; ++k) {
        const double t = static_cast<double>(k) / (kLevels - 1) * 10.0;
        const int32_t i = std::min(static_cast<int32_t>(t), 9);
        const double f = t - i;
        for (int c = 0; c < 3; ++c)
            rgb[k * 3 + c] = static_cast<uint8_t>(
                std::lround(kColourPoints[i][c] * (1.0 - f) + kColourPoints[i + 1][c] * f));
    }
    const uint8_t lines[2][3] = {{0, 255, 255}, {255, 255, 255}};
    for (int c = 0; c < 3; ++c) {
        rgb[kOwnBottom * 3 + c] = lines[0][c];
        rgb[kCopiedBottom * 3 + c] = lines[1][c];
    }
    return rgb;
}

// Maps amplitudes to levels 0..kLevels-1 on a decibel scale. The window runs
// from the 5th to the 99.5th percentile of 20*log10 of the positive values,
// so that a picture of any gain spreads its noise floor to the dark colours
// and its strongest returns (the seabed) to the bright ones, and a few
// extreme samples cannot flatten the rest. Zero, negative and non-finite
// amplitudes (no data) get level 0.
struct DecibelWindow {
    float low = 0.0f;
    float high = 1.0f;
};

float percentile(std::vector<float>& values, double fraction) {
    const std::size_t k = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
    return values[k];
}

DecibelWindow decibelWindow(const std::vector<float>& amplitude) {
    std::vector<float> db;
    db.reserve(amplitude.size());
    for (float a : amplitude)
        if (a > 0.0f && std::isfinite(a)) db.push_back(20.0f * std::log10(a));
    DecibelWindow w;
    if (db.empty()) return w;
    w.low = percentile(db, 0.05);
    w.high = percentile(db, 0.995);
    if (!(w.high > w.low)) w.high = w.low + 1.0f;
    return w;
}

uint8_t level(float amplitude, const DecibelWindow& w) {
    if (!(amplitude > 0.0f) || !std::isfinite(amplitude)) return 0;
    const float t = (20.0f * std::log10(amplitude) - w.low) / (w.high - w.low);
    return static_cast<uint8_t>(std::lround(std::clamp(t, 0.0f, 1.0f) * (kLevels - 1)));
}

std::string writeLevels(const std::string& path, const std::vector<uint8_t>& levels, int32_t width,
                        int32_t height) {
    const std::vector<uint8_t> palette = picturePalette();
    return writePng(path, levels.data(), width, height, 1, palette.data(), 256);
}

// The mean of the positive, finite values of `count` values `stride` apart;
// 0 when there are none (no data stays no data).
float meanAmplitude(const float* values, std::size_t count, std::size_t stride) {
    double sum = 0.0;
    std::size_t used = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const float a = values[i * stride];
        if (a > 0.0f && std::isfinite(a)) {
            sum += a;
            ++used;
        }
    }
    return used ? static_cast<float>(sum / static_cast<double>(used)) : 0.0f;
}

// Output cell k of `cells` over `length` inputs covers [first, end).
std::size_t spanStart(int32_t k, int32_t cells, int32_t length) {
    return static_cast<std::size_t>(static_cast<int64_t>(k) * length / cells);
}

std::string writeWedge(const std::string& path, const KVaneParams& params,
                       const KVaneResult& result) {
    if (result.displayImage == nullptr || params.imageWidth < 1 || params.imageHeight < 1)
        return "no wedge picture (no displayImage or an empty raster)";
    return writePng(path, result.displayImage, params.imageWidth, params.imageHeight, 1);
}

// The rows the kernel shows: sideScanRows when 10..200, else 100, each 2E
// floats wide with E the sample count rounded down to even (at most 8000).
// Each row is averaged down to at most kWaterfallWidth columns and drawn
// kWaterfallHeight / rows pixels tall.
std::string writeWaterfall(const std::string& path, const KVaneParams& params,
                           const KVaneResult& result, int32_t sampleCount) {
    const int32_t rows = static_cast<uint32_t>(params.sideScanRows) - 10u > 190u
                             ? 100
                             : params.sideScanRows;
    const int32_t E = std::clamp(sampleCount, 0, 8000) & ~1;
    if (result.sideScanImage == nullptr || E < 1) return "no waterfall picture";
    const int32_t length = 2 * E;
    const int32_t columns = std::min(length, kWaterfallWidth);
    const int32_t rowHeight = std::max(1, kWaterfallHeight / rows);
    std::vector<float> cells(static_cast<std::size_t>(columns) * rows);
    for (int32_t r = 0; r < rows; ++r) {
        const float* line = result.sideScanImage + static_cast<std::size_t>(r) * length;
        for (int32_t c = 0; c < columns; ++c) {
            const std::size_t first = spanStart(c, columns, length);
            const std::size_t end = spanStart(c + 1, columns, length);
            cells[static_cast<std::size_t>(r) * columns + c] = meanAmplitude(line + first, end - first, 1);
        }
    }
    const DecibelWindow w = decibelWindow(cells);
    const std::size_t height = static_cast<std::size_t>(rows) * rowHeight;
    std::vector<uint8_t> levels(height * columns);
    for (std::size_t y = 0; y < height; ++y)
        for (int32_t c = 0; c < columns; ++c)
            levels[y * columns + c] = level(cells[(y / rowHeight) * columns + c], w);
    return writeLevels(path, levels, columns, static_cast<int32_t>(height));
}

// Beams across, kBeamWidth / B pixels each, samples down (averaged down to at
// most kBeamRows rows), with the bottom line on top: cyan where the beam
// found its bottom itself, white where it was copied from a neighbour, each
// beam's bottom joined to the next beam's by a vertical run so that the line
// reads as a line and not as scattered dots. Rejected beams (0) are left out.
std::string writeBeams(const std::string& path, const KVaneParams& params,
                       const KVaneResult& result, int32_t sampleCount) {
    const int32_t B = params.beamCount;
    const int32_t n = sampleCount;
    if (result.beamImage == nullptr || B < 1 || B > 256 || n < 1) return "no beam picture";
    const int32_t rows = std::min(n, kBeamRows);
    const int32_t beamWidth = std::max(1, kBeamWidth / B);
    const int32_t width = B * beamWidth;
    std::vector<float> cells(static_cast<std::size_t>(rows) * B);
    for (int32_t b = 0; b < B; ++b)
        for (int32_t r = 0; r < rows; ++r) {
            const std::size_t first = spanStart(r, rows, n);
            const std::size_t end = spanStart(r + 1, rows, n);
            cells[static_cast<std::size_t>(r) * B + b] = meanAmplitude(
                result.beamImage + static_cast<std::size_t>(b) * n + first, end - first, 1);
        }
    const DecibelWindow w = decibelWindow(cells);
    std::vector<uint8_t> levels(static_cast<std::size_t>(rows) * width);
    for (int32_t r = 0; r < rows; ++r)
        for (int32_t x = 0; x < width; ++x)
            levels[static_cast<std::size_t>(r) * width + x] =
                level(cells[static_cast<std::size_t>(r) * B + x / beamWidth], w);
    auto rowOf = [n, rows](float sample) -> int32_t {
        if (!(sample > 0.0f) || !(sample < static_cast<float>(n))) return -1;
        return static_cast<int32_t>(std::lround(sample)) * rows / n;
    };
    auto paint = [&](int32_t b, int32_t r, bool copied) {
        if (r < 0 || r >= rows) return;
        for (int32_t x = b * beamWidth; x < (b + 1) * beamWidth; ++x)
            levels[static_cast<std::size_t>(r) * width + x] = copied ? kCopiedBottom : kOwnBottom;
    };
    for (int32_t b = 0; b < B; ++b) {
        const int32_t r = rowOf(result.bottomSample[b]);
        if (r < 0) continue;
        const bool copied = result.bottomFlag[b] == 2;
        for (int32_t k = -1; k <= 1; ++k) paint(b, r + k, copied);
        const int32_t next = b + 1 < B ? rowOf(result.bottomSample[b + 1]) : -1;
        if (next >= 0)
            for (int32_t k = std::min(r, next); k <= std::max(r, next); ++k) paint(b, k, copied);
    }
    return writeLevels(path, levels, width, rows);
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
