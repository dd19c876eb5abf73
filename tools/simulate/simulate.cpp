// simulate.cpp - stub, being built.
#include "simulate.h"
namespace kvsim {
SimPing simulatePing(const SimConfig&, int) { return {}; }
double seabedSample(const SimConfig&, double) { return 0.0; }
double rollAt(const SimConfig&, double) { return 0.0; }
std::string writeRecording(const std::string&, const SimConfig&) { return "not built"; }
}  // namespace kvsim
