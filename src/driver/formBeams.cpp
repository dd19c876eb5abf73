// formBeams.cpp - stub, being built.
#include "driver.h"

namespace kvane {
void formSteeringMatrix(cfloat*, const double*, int32_t, double, float) {}
void interpolateRoll(float*, int32_t, const float*, const int32_t*, int32_t, int32_t, float*, float*) {}
float formBeams(KVaneParams*, KVaneResult*, const float*, const double*, int32_t, const BeamformingIo*) { return 0.0f; }
}  // namespace kvane
