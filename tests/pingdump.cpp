// pingdump.cpp - runs the fixed ping sequence of the reliability checks
// through the shared library and writes every output, byte for byte, to a
// file. Run under different OMP_NUM_THREADS / OPENBLAS_NUM_THREADS settings,
// the files must be identical.
//
//   kvane_pingdump OUTPUT
#include <cstdio>
#include <vector>

#include "kVane.h"
#include "reliability_support.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: kvane_pingdump OUTPUT\n");
        return 2;
    }
    std::vector<kvrel::SequencePing> sequence = kvrel::fixedSequence();
    kVaneMalloc();
    const std::vector<uint8_t> bytes = kvrel::runSequence(sequence);
    kVaneFree();
    std::FILE* out = std::fopen(argv[1], "wb");
    if (out == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
    if (std::fclose(out) != 0 || !written) {
        std::perror(argv[1]);
        return 1;
    }
    return 0;
}
