// heap_workspace.cpp - workspace buffers from the instrumented heap.
//
// The kernel maps its workspace buffers straight from the system, where the
// address sanitizer cannot see a stage that runs past the end of one. The fuzz
// targets are linked with --wrap on the two allocator functions, so every
// buffer comes from here instead: exactly the bytes asked for, 64-byte
// aligned and zero-filled like fresh mappings.
#include <cstddef>
#include <cstdlib>
#include <cstring>

extern "C" void* __wrap__ZN5kvane12alignedAllocEmm(std::size_t count, std::size_t elemSize) {
    if (count < 1 || elemSize < 1) return nullptr;
    const std::size_t bytes = count * elemSize;
    void* p = nullptr;
    if (posix_memalign(&p, 64, bytes) != 0) return nullptr;
    std::memset(p, 0, bytes);
    return p;
}

extern "C" void __wrap__ZN5kvane11alignedFreeEPv(void* p) { std::free(p); }
