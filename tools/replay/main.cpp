// main.cpp - kvane-replay, stub.
#include "kVane.h"
int main() { kVaneMalloc7420(); kVaneFree7420(); return 0; }
