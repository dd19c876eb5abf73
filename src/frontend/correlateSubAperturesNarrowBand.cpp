// correlateSubAperturesNarrowBand.cpp - stub, being built.
#include "frontend.h"

namespace kvane {
void correlateSubAperturesNarrowBand(const cfloat*, int32_t, float, float, const double*, int32_t, int8_t, cfloat*, const SplitScratch*) {}
}  // namespace kvane
