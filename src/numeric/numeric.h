// numeric.h - the plain vector and matrix operations the stages share.
//
// Conventions of every operation here: output first, then inputs, then the
// length. A length below 1 changes nothing (stages rely on that for empty
// lists). Single precision unless a name says otherwise.
#pragma once

#include <cstdint>
#include <cstddef>

namespace kvane {

// A complex sample: real part, then imaginary part (layout of two floats,
// as the matrix library expects).
struct cfloat {
    float re;
    float im;
};

// Size of the thread team of every parallel loop: the design value 3, but not
// more than OpenMP would run (so OMP_NUM_THREADS=1 runs serially) nor than
// the processors the process may run on. Scratch buffers that are split per
// thread hold three slices. No result depends on the team's size.
constexpr int kTeamCapacity = 3;
int teamSize();

// The team follows the cores the process actually gets. A ping starts with
// beginTeamPing (which takes the processors the process may run on now);
// the threads of its largest parallel loop time their share of it (wall and
// own processor time, TeamShareClock) and the ping ends its loop with
// noteTeamShares. When a thread got clearly less than a whole core for its
// share, other work holds the cores: the following pings run on one thread,
// and every so often (less often while it lasts) one ping tries the whole
// team again.
void beginTeamPing();
struct TeamShareClock {
    double wallStart = 0.0, cpuStart = 0.0;
    void start();
    // The share's processor time over its wall time; negative for shares
    // too short to judge.
    double stop() const;
};
void noteTeamShares(const double* shares, int team);

// The hottest loops are built twice: for the baseline processor and for one
// with AVX2, which runs the same single-precision operations on wider vectors
// (no fused multiply-adds), so both builds give the same results. True when
// the AVX2 build may run here.
// The shared body is forced inline into both builds.
bool cpuHasAvx2();
#define KVANE_AVX2 __attribute__((target("avx2")))
#define KVANE_LOOP_BODY inline __attribute__((always_inline))

// The samples a later stage will read of each row of a beam-major buffer: up
// to kMaxRowWindows windows per row, each from first to last inclusive. A
// stage that fills such a buffer may leave every other sample as it was.
constexpr int kMaxRowWindows = 6;
struct SampleWindows {
    int32_t rows;
    int32_t count[256];
    int32_t first[256][kMaxRowWindows];
    int32_t last[256][kMaxRowWindows];
};

// Sets the matrix library's thread count (OpenBLAS).
void setMatrixThreads(int threads);

// The matrix library's current thread count.
int matrixThreads();

// 64-byte aligned, zero-filled allocation of count elements of elemSize bytes;
// nullptr for count < 1. Release with alignedFree.
void* alignedAlloc(std::size_t count, std::size_t elemSize);
void alignedFree(void* p);
// Makes the first `bytes` of an allocation of alignedAlloc resident (they
// keep reading as zeros), so that the first ping does not pay for it.
void makeResident(void* p, std::size_t bytes);

// Round half away from zero.
float roundHalfAway(float x);

// Row-major transposition: out (cols rows of rows) from in (rows rows of cols),
// out[c * rows + r] = in[r * cols + c].
void transpose(float* out, const float* in, int rows, int cols);
void transpose(cfloat* out, const cfloat* in, int rows, int cols);

// Magnitude sqrt(re^2 + im^2) of n complex samples.
void magnitude(float* out, const cfloat* in, int n);

// Four-quadrant arctangent out[i] = atan2(y[i], x[i]), radians, n floats; out
// may be y or x. The single-precision formulas of the C library this system
// is built on (glibc 2.36's atan2f and atanf: argument reduction into five
// ranges, an odd polynomial in two halves, the quadrant from the signs),
// evaluated branch-free on wide vectors; zeros, infinities, NaN, denormals,
// x = 1 and quotients beyond 2^60 go to the library's atan2f itself. On that
// library every value is the same bits as std::atan2's.
void arcTangent2(float* out, const float* y, const float* x, int n);
// The same, one value at a time (the reference of the vector form).
float arcTangent2(float y, float x);

// The sum of n floats in double precision, added in index order from 0.0
// (the same double, bit for bit, taken faster where no addition rounds).
double orderedSum(const float* x, int n);

// x[i] = sqrt(x[i]) for n floats; returns the lowest root as an ordered
// pass finds it (the first root, then each later one that is smaller).
float squareRootsLowest(float* x, int n);

// Mean of n floats, accumulated in double precision, rounded to float.
float mean(const float* x, int n);
// Sample standard deviation (divisor n - 1), accumulated in double.
float stdDev(const float* x, int n);

// decimatedMovingAverage: out[i] for i < ceil(n / step) is the mean of the
// width (odd) inputs centred on x[i * step]; indices outside 0..n-1 read the
// nearest end sample. Returns the output length.
int decimatedMovingAverage(float* out, const float* x, int n, int width, int step);

// Causal running median: out[i] is the median of in[i - mask + 1 .. i], inputs
// before the first equal to in[0]. An even mask is lowered by one. out may
// equal in.
void runningMedianCausal(float* out, const float* in, int n, int mask);

}  // namespace kvane
