// detectBeamCandidates.cpp - stub, being built.
#include "detect.h"

namespace kvane {
void detectBeamCandidates(const BottomDetectArgs*, EchoCandidate* const*, const int32_t*) {}
}  // namespace kvane
