// traceBottomCurve.cpp - stub, being built.
#include "backend.h"

namespace kvane {
void traceBottomCurve(float*, float, float, float*) {}
void completeBottomLine(float*, uint8_t*, int32_t) {}
}  // namespace kvane
