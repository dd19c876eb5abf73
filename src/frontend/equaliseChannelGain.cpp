// equaliseChannelGain.cpp - stub, being built.
#include "frontend.h"

namespace kvane {
void equaliseChannelGain(cfloat*, float*, int32_t*, int32_t) {}
}  // namespace kvane
