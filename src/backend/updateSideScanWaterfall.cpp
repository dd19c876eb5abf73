// updateSideScanWaterfall.cpp - stub, being built.
#include "backend.h"

namespace kvane {
void updateSideScanWaterfall(const float*, int32_t, int32_t, const float*, const float*, float*, int32_t, int32_t, int32_t, float*) {}
}  // namespace kvane
