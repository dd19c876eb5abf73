// trackSoundings.cpp - stub, being built.
#include "frontend.h"

namespace kvane {
void trackRawSoundings(const int32_t*, int32_t, const int32_t*, float, const float*, float, int32_t*, const float*, uint8_t*) {}
void trackDetectedSoundings(const int32_t*, int32_t, const int32_t*, float, const float*, float, int32_t*, const float*, uint8_t*) {}
}  // namespace kvane
