// correlateSubAperturesSectioned.cpp - stub, being built.
#include "frontend.h"

namespace kvane {
void correlateSubAperturesSectioned(const cfloat*, int32_t, int32_t, float, float, const float*, int32_t, cfloat*, const SplitScratch*) {}
}  // namespace kvane
