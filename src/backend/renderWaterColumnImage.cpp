// renderWaterColumnImage.cpp - stub, being built.
#include "backend.h"

namespace kvane {
void renderWaterColumnImage(const float*, int32_t, int32_t, const float*, float, float, int8_t, float, uint8_t*, int32_t, const SectorGrid*, const WedgeWork*) {}
}  // namespace kvane
