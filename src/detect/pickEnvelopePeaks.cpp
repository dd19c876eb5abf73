// pickEnvelopePeaks.cpp - stub, being built.
#include "detect.h"

namespace kvane {

}  // namespace kvane
