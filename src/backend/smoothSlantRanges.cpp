// smoothSlantRanges.cpp - stub, being built.
#include "backend.h"

namespace kvane {
void smoothSlantRanges16(const int32_t*, const float*, float, float*, int32_t) {}
void smoothSlantRanges8(const int32_t*, const float*, float, float*, int32_t) {}
void smoothSlantRanges4(const int32_t*, const float*, float, float*, int32_t) {}
}  // namespace kvane
