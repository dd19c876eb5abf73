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
// 0 for a rejected beam. Counts arrive as floats. bottomSample holds at least
// 256 floats: entries from beamCount to 255 are written (0) as well.
void traceBottomCurve(float* candidates, float beamCount, float sampleCount, float* bottomSample);
// Fills empty beams from the inner neighbour and flags each beam:
// 1 own detection, 2 copied. bottomSample holds at least beamCount + 1 floats
// (the centre step reads one beam past the middle).
void completeBottomLine(float* bottomSample, uint8_t* bottomFlag, int32_t beamCount);

// Pieces of the bottom trace, reachable for tests.
//
// A point of the normalised beam/range plane: x = (beam + 1) / 256,
// y = sample / sampleCount.
struct PlanePoint {
    float x;
    float y;
};
// x of beam j in the normalised plane; the step is 1/256 whatever the beam count.
inline float fanX(int j) { return 0.00390625f + static_cast<float>(j) * 0.00390625f; }
// The line's lists and local lines have 256 slots: a beam count as an integer
// in 0..256, and a beam index held in a float as a slot 0..255 (NaN reads 0).
// In a well-formed list every index already lies in range; the clamp keeps
// damaged lists from reaching outside the arrays.
inline int lineBeamCount(float beamCount) {
    if (!(beamCount > 0.0f)) return 0;
    return beamCount >= 256.0f ? 256 : static_cast<int>(beamCount);
}
inline int lineSlot(float beam) {
    if (!(beam > 0.0f)) return 0;
    return beam >= 255.0f ? 255 : static_cast<int>(beam);
}
// Interior angle at v of the triangle p, v, q in degrees (180 for a straight
// continuation). The cosine is not clamped: coincident points, or rounding
// past +-1, give NaN, which fails every comparison.
float vertexAngle(PlanePoint p, PlanePoint v, PlanePoint q);
// The segment lists: segmentStart/segmentEnd hold 256 floats each (closed
// beam intervals), segmentCount the number of entries in use. bottomSample
// holds at least 256 floats (fixed slot 255 is written whatever the beam
// count). candidates: 1536 floats, read only.
//
// Runs of beams whose row-0 candidates lie on a smooth curve; rejected beams
// are 0 in bottomSample (which gets row 0 first).
void findSmoothSegments(const float* candidates, float beamCount, float sampleCount,
                        float* segmentStart, float* segmentEnd, int32_t* segmentCount,
                        float* bottomSample);
// Merges neighbouring runs that continue each other and fills the beams
// between them from the six candidate rows.
void bridgeSegmentGaps(const float* candidates, float beamCount, float sampleCount,
                       float* segmentStart, float* segmentEnd, int32_t* segmentCount,
                       float* bottomSample);
// Chains runs outward from the longest near-port run, fills the gaps against
// the chord, and carries the curve on to the end of the fan. Leaves only the
// chain in the lists.
void extendBottomChain(const float* candidates, float beamCount, float sampleCount,
                       float* segmentStart, float* segmentEnd, int32_t* segmentCount,
                       float* bottomSample);

// Scratch of the wedge picture, from the workspace.
struct WedgeWork {
    float* regrid;       // 2,048,000
    float* angleGrid;    // 256
    int32_t* sourceBeam; // 256
};

// Paints the 8-bit fan picture of beamImage (beam-major, row stride
// sampleCount) into displayImage (imageWidth x imageHeight bytes), which the
// caller cleared. Writes only inside that raster: grid rows and columns beyond
// it are clipped.
void renderWaterColumnImage(const float* beamImage, int32_t beamCount, int32_t sampleCount,
                            const float* beamAngles, float sectorPort, float sectorStarboard,
                            int8_t beamSpacing, float imageGain, uint8_t* displayImage,
                            int32_t imageWidth, int32_t imageHeight, const SectorGrid* grid,
                            const WedgeWork* work);

// The picture of an equal-angle fan (beamSpacing 1, no smoothing) drawn
// piece by piece while the image is formed: the pixels that show the image,
// each with the four samples it blends, ordered by the later of its two
// sample positions. A piece of samples is drawn as soon as its columns of the
// image are final and still in the cache; the pixels that blend samples of
// two pieces are drawn at the end. Every pixel gets the value
// renderWaterColumnImage gives it.
struct WedgePixel {
    int32_t out;        // byte of displayImage
    int32_t beam;       // lower beam of the blend
    int32_t near;       // the two samples of the blend
    int32_t far;
    float beamWeight;   // weight of the lower beam
    float rangeWeight;  // weight of the near sample
};
struct WedgePlan {
    WedgePixel* pixels;     // kGridCapacity
    int32_t* firstPixel;    // 8002: pixels with far sample t start at firstPixel[t]
    int32_t count;
    bool ready;
    // What the plan was made from.
    const float* gridBeam;
    int32_t signature, rows, cols, cells, beamCount, sampleCount, imageWidth, imageHeight;
    uint8_t fitsHeight;
};
// Makes the plan for this ping's grid and sizes (kept while they stay); false
// when renderWaterColumnImage would draw nothing for them.
bool prepareWedgePlan(WedgePlan* plan, const SectorGrid* grid, int32_t beamCount,
                      int32_t sampleCount, int32_t imageWidth, int32_t imageHeight);
// Draws the pixels whose samples all lie in start..start + count - 1.
void drawWedgeSamples(const WedgePlan& plan, const float* beamImage, float imageGain,
                      uint8_t* displayImage, int32_t start, int32_t count);
// Draws the pixels whose two samples lie on either side of a multiple of
// pieceLength: with drawWedgeSamples over pieces of that length, every pixel.
void drawWedgeBorders(const WedgePlan& plan, const float* beamImage, float imageGain,
                      uint8_t* displayImage, int32_t pieceLength);

// Scrolling port/starboard waterfall: 200 rows of 16000 floats, newest at
// row 0, kept between pings. The scroll moves no data: the first `span` rows
// (the visible count of the last ping) form a ring whose row 0 is the stored
// row `head`; rows from span on lie in place. When the visible count changes,
// the ring is first laid out in order again, so the rows are exactly those
// that moving the first sideScanRows - 1 rows down by one would give.
constexpr int32_t kWaterfallRowLength = 16000;
constexpr int32_t kWaterfallRows = 200;
struct WaterfallRing {
    float* rows;    // kWaterfallRows rows of kWaterfallRowLength
    int32_t* head;  // retained
    int32_t* span;  // retained
};
void updateSideScanWaterfall(const float* beamImage, int32_t beamCount, int32_t sampleCount,
                             const float* beamAngles, const float* bottomSample,
                             float* sideScanImage, int32_t sideScanMode, int32_t sideScanRows,
                             int32_t firstEchoSample, const WaterfallRing& waterfall);

// Slant-range smoothing in the depth domain (not used by the ping path).
// ranges, angles: count entries (count <= 256); output: at least count floats.
void smoothSlantRanges16(const int32_t* ranges, const float* angles, float angleOffset,
                         float* output, int32_t count);
void smoothSlantRanges8(const int32_t* ranges, const float* angles, float angleOffset,
                        float* output, int32_t count);
void smoothSlantRanges4(const int32_t* ranges, const float* angles, float angleOffset,
                        float* output, int32_t count);

}  // namespace kvane
