// updateSectorGrid.cpp - stub, being built.
#include "driver.h"

namespace kvane {
void updateSectorGrid(SectorGrid*, float, float, int32_t, int32_t, int32_t, int32_t) {}
}  // namespace kvane
