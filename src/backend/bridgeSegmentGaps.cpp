// bridgeSegmentGaps.cpp - stub, being built.
#include "backend.h"

namespace kvane {

}  // namespace kvane
