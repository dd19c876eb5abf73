// correlateSubAperturesNarrowBand.cpp - the split-aperture product by phase
// shifts alone: no time alignment of the channels, weights in double
// precision rounded to single precision for the products.
#include <cblas.h>

#include <cmath>

#include "frontend.h"

namespace kvane {
namespace {

// Sub-aperture taper held in double precision, entries 0 to 15; 16 to 31
// mirror them.
constexpr double kTaperHalf[16] = {0.4438836, 0.2433151, 0.3035482, 0.3683799,
                                   0.4367064, 0.5072329, 0.5785091, 0.6489719,
                                   0.7169954, 0.7809441, 0.8392290, 0.8903624,
                                   0.9330113, 0.9660454, 0.9885782, 1.0000000};

// Degrees per radian as stored (180 over the single-precision pi) and
// 2 pi * 200 kHz * 3.75 mm in m/s, as stored.
constexpr double kDegreesPerRadian = 57.29577791868205;
constexpr double kPhaseConstant = -4712.38921875;

}  // namespace

void correlateSubAperturesNarrowBand(const cfloat* channelBlock, int32_t sampleCount,
                                     float angleOffset, float soundSpeed,
                                     const double* beamAnglesDouble, int32_t beamCount,
                                     int8_t beamSpacing, cfloat* splitCorrelation,
                                     const SplitScratch* scratch) {
    (void)beamSpacing;  // passed along by the driver, not used here
    const int32_t n = sampleCount;
    const int32_t B = beamCount;
    if (n < 1 || B < 1 || B > 256) return;

    const double toRadians = 1.0 / kDegreesPerRadian;
    const double phaseScale = kPhaseConstant / static_cast<double>(soundSpeed);
    cfloat* const subBeams[3] = {scratch->subBeamLow, scratch->subBeamMid, scratch->subBeamHigh};
    const float one[2] = {1.0f, 0.0f};
    const float zero[2] = {0.0f, 0.0f};
    cfloat weights[256 * 32];

    for (int32_t a = 0; a < 3; ++a) {
        const int32_t firstElement = 16 * a;
        setMatrixThreads(teamSize());
        for (int32_t b = 0; b < B; ++b) {
            const double scaledSin =
                std::sin((beamAnglesDouble[b] + static_cast<double>(angleOffset)) * toRadians) *
                phaseScale;
            for (int32_t i = 0; i < 32; ++i) {
                // exp(-j phase) times the taper; the element index is absolute,
                // so all three sub-aperture beams refer to element 0.
                const double phase = scaledSin * static_cast<double>(firstElement + i);
                const double t = kTaperHalf[i < 16 ? i : 31 - i];
                double sn, cs;
                ::sincos(-phase, &sn, &cs);  // the same values as sin and cos, in one call
                weights[b * 32 + i] =
                    cfloat{static_cast<float>(cs * t), static_cast<float>(sn * t)};
            }
        }
        cblas_cgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, B, n, 32, one, weights, 32,
                    channelBlock + static_cast<int64_t>(firstElement) * n, n, zero, subBeams[a],
                    n);
    }
    closeSplitCorrelation(splitCorrelation, subBeams[0], subBeams[1], subBeams[2],
                          static_cast<int64_t>(B) * n);
}

}  // namespace kvane
