// buildBeamFan.cpp - stub, being built.
#include "driver.h"

namespace kvane {
void fillBeamAnglesFromTable(float* beamAngles, int32_t beamCount) { (void)beamAngles; (void)beamCount; }
uint8_t finishBeamFan(float*, double*, float*, float, float, int8_t, int32_t, int32_t*) { return 0; }
}  // namespace kvane
