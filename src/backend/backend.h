// backend.h - bottom trace across the fan, segment bridging, water-column
// wedge, side-scan waterfall, slant-range smoothing.
#pragma once

#include <cstdint>

#include "../numeric/numeric.h"

namespace kvane {

// The polar lookup of the fan picture, kept between pings (built by the
// driver's updateSectorGrid). Buffers: gridRows rows of gridCols cells,
// capacity kGridCapacity each.
constexpr int32_t kGridCapacity = 2097152;
struct SectorGrid {
    int32_t signature;
    int32_t width;
    int32_t height;
    int32_t rows;
    int32_t cols;
    int32_t cells;
    uint8_t fitsHeight;
    float* x;
    float* y;
    float* range;  // range of each cell, samples
    float* beam;   // fractional beam coordinate of each cell
};

// Turns the six candidate rows (candidates[c * beamCount + j], values 1..n;
// 1536 floats, changed in place) into one line: bottomSample[beamCount],
// 0 for a rejected beam. Counts arrive as floats.
void traceBottomCurve(float* candidates, float beamCount, float sampleCount, float* bottomSample);
// Fills empty beams from the inner neighbour and flags each beam:
// 1 own detection, 2 copied.
void completeBottomLine(float* bottomSample, uint8_t* bottomFlag, int32_t beamCount);

// Scratch of the wedge picture, from the workspace.
struct WedgeWork {
    float* sampleMajor;  // 2,048,000
    float* regrid;       // 2,048,000
    float* angleGrid;    // 256
    int32_t* sourceBeam; // 256
    float* pixelLevels;  // kGridCapacity
    uint8_t* pixelBytes; // kGridCapacity
};

// Paints the 8-bit fan picture of beamImage (beam-major, row stride
// sampleCount) into displayImage (imageWidth wide), which the caller cleared.
void renderWaterColumnImage(const float* beamImage, int32_t beamCount, int32_t sampleCount,
                            const float* beamAngles, float sectorPort, float sectorStarboard,
                            int8_t beamSpacing, float imageGain, uint8_t* displayImage,
                            int32_t imageWidth, const SectorGrid* grid, const WedgeWork* work);

// Scrolling port/starboard waterfall: 200 rows of 16000 floats, newest at
// row 0, kept between pings.
constexpr int32_t kWaterfallRowLength = 16000;
constexpr int32_t kWaterfallRows = 200;
void updateSideScanWaterfall(const float* beamImage, int32_t beamCount, int32_t sampleCount,
                             const float* beamAngles, const float* bottomSample,
                             float* sideScanImage, int32_t sideScanMode, int32_t sideScanRows,
                             int32_t firstEchoSample, float* waterfall);

// Slant-range smoothing in the depth domain (not used by the ping path).
// ranges, angles: count entries (count <= 256); output: at least count floats.
void smoothSlantRanges16(const int32_t* ranges, const float* angles, float angleOffset,
                         float* output, int32_t count);
void smoothSlantRanges8(const int32_t* ranges, const float* angles, float angleOffset,
                        float* output, int32_t count);
void smoothSlantRanges4(const int32_t* ranges, const float* angles, float angleOffset,
                        float* output, int32_t count);

}  // namespace kvane
