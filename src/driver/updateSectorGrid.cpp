// updateSectorGrid.cpp - the polar lookup of the fan picture: for every cell of
// a raster-shaped grid, its range in samples and its fractional beam coordinate.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "driver.h"

namespace kvane {
namespace {

// float -> int32 truncation that is defined for every input: NaN and values out
// of range give INT32_MIN, the value a hardware conversion yields for them.
int32_t truncToInt32(float v) {
    if (!(v >= -2147483648.0f && v < 2147483648.0f)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}

void leaveEmpty(SectorGrid* grid) {
    grid->rows = 0;
    grid->cols = 0;
    grid->cells = 0;
}

}  // namespace

void updateSectorGrid(SectorGrid* grid, float sectorPort, float sectorStarboard,
                      int32_t imageWidth, int32_t imageHeight, int32_t n, int32_t beamCount) {
    const float P = sectorPort;
    const float S = sectorStarboard;
    const int32_t W = imageWidth;
    const int32_t H = imageHeight;

    // The key sees only sums: the sector angles together and n*B + W*H. Two
    // settings with equal sums share a grid, and a host whose key is 0 never
    // gets one (the stored value starts at 0). The integer sum wraps like the
    // 32-bit arithmetic it stands for instead of overflowing.
    const uint32_t sizes = static_cast<uint32_t>(beamCount) * static_cast<uint32_t>(n) +
                           static_cast<uint32_t>(W) * static_cast<uint32_t>(H);
    const float keySum = (P + S) + static_cast<float>(static_cast<int32_t>(sizes));
    const int32_t key = truncToInt32(keySum);
    if (key == grid->signature) return;

    grid->signature = key;
    grid->width = W;
    grid->height = H;

    // Only the wider sector sets the grid's width: halfWidth = sin(max(P, S)),
    // the across-track half-width of the fan at unit range.
    const float m = P > S ? P : S;
    const float a = static_cast<float>(static_cast<double>(180.0f - m - m) *
                                       1.5707963705062866 / 180.0);
    const float halfWidth = std::cos(a);

    // Grid size: the fan's proportions (2*halfWidth : 1) fitted to the raster.
    // Sizes are judged in double before any conversion, so that a grid that
    // would not fit its buffers (rows*cols above kGridCapacity, negative or
    // NaN sizes from odd sectors or rasters) is never built, nor one over a NaN
    // sector: it is left with no cells and the wedge stays empty until the key
    // changes again.
    double rowsD;
    double colsD;
    uint8_t fitsHeight;
    if (H <= W) {
        rowsD = static_cast<double>(H);
        colsD = static_cast<double>(halfWidth * 2.0f * static_cast<float>(H));
        fitsHeight = 1;
    } else {
        colsD = static_cast<double>(W);
        rowsD = static_cast<double>(W) * 0.5 / static_cast<double>(halfWidth);
        fitsHeight = 0;
    }
    grid->fitsHeight = fitsHeight;
    rowsD = std::trunc(rowsD);
    colsD = std::trunc(colsD);
    const bool buffersPresent =
        grid->x != nullptr && grid->y != nullptr && grid->range != nullptr && grid->beam != nullptr;
    const bool sectorsValid = P == P && S == S;  // not NaN
    if (!(rowsD >= 0.0 && colsD >= 0.0 && rowsD * colsD <= static_cast<double>(kGridCapacity)) ||
        !buffersPresent || !sectorsValid) {
        leaveEmpty(grid);
        return;
    }
    const int32_t rows = static_cast<int32_t>(rowsD);
    const int32_t cols = static_cast<int32_t>(colsD);
    grid->rows = rows;
    grid->cols = cols;
    grid->cells = rows * cols;
    if (grid->cells == 0) return;

    // Cell positions in samples: x across track from -n*halfWidth, y down from
    // the head, (n / rows) samples per row. Row 0 sits at 0.01 rather than 0 so
    // that its phase is defined.
    const float nf = static_cast<float>(n);
    const float xStart = -nf * halfWidth;
    const float xStep = static_cast<float>(2.0 * static_cast<double>(n) *
                                           static_cast<double>(halfWidth) / static_cast<double>(cols));
    const float yStep = nf / static_cast<float>(rows);
    for (int32_t c = 0; c < cols; ++c) grid->x[c] = xStart + static_cast<float>(c) * xStep;
    for (int32_t i = 1; i < rows; ++i)
        std::memcpy(grid->x + static_cast<std::size_t>(i) * cols, grid->x,
                    sizeof(float) * static_cast<std::size_t>(cols));
    for (int32_t i = 0; i < rows; ++i) {
        const float yi = i == 0 ? 0.01f : yStep * static_cast<float>(i);
        float* yRow = grid->y + static_cast<std::size_t>(i) * cols;
        for (int32_t c = 0; c < cols; ++c) yRow[c] = yi;
    }

    // Polar form: range in samples, and the phase turned into the beam
    // coordinate: degrees, plus P - 90, over the beam width (P + S) / B. The
    // division by a constant is a multiplication by its reciprocal and is
    // skipped when the width is 0.
    const float beamWidth = (P + S) / static_cast<float>(beamCount);
    const float offset = P - 90.0f;
    const bool divide = beamWidth != 0.0f;
    const float inverseWidth = divide ? 1.0f / beamWidth : 1.0f;
    const int32_t cells = grid->cells;
    // Every cell on its own: the team shares them.
#pragma omp parallel for num_threads(teamSize()) schedule(static)
    for (int32_t p = 0; p < cells; ++p) {
        const float x = grid->x[p];
        const float y = grid->y[p];
        grid->range[p] = std::sqrt(x * x + y * y);
        float b = std::atan2(y, x) * 57.29578f + offset;
        if (divide) b *= inverseWidth;
        grid->beam[p] = b;
    }
}

}  // namespace kvane
