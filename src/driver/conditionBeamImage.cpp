// conditionBeamImage.cpp - stub, being built.
#include "driver.h"

namespace kvane {
void conditionBeamImage(float*, float*, float*, const cfloat*, int32_t, int32_t, float, bool) {}
}  // namespace kvane
