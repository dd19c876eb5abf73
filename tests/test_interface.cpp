// test_interface.cpp - the public blocks' layout, as C and C++ see it, and the
// workspace life cycle through the exported functions.
#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "kVane.h"

extern "C" size_t kvaneCParamsOffsets(size_t* out);
extern "C" size_t kvaneCResultOffsets(size_t* out);

TEST(BlockLayout, ParamsFieldsStandWhereTheHostExpectsThem) {
    const std::vector<size_t> want = {12,   16,   32,   40,   44,   48,   8056, 8456,
                                      8856, 8860, 8864, 8876, 8877, 8880, 8884, 8888,
                                      8892, 8896, 8904, 8908, 8912, 8916, 8920, 8924};
    std::vector<size_t> fromC(32);
    fromC.resize(kvaneCParamsOffsets(fromC.data()));
    EXPECT_EQ(fromC, want);
    EXPECT_EQ(offsetof(KVaneParams, rollCount), 8856u);
    EXPECT_EQ(offsetof(KVaneParams, qualityThreshold), 8920u);
    EXPECT_EQ(sizeof(KVaneParams), 8924u);
}

TEST(BlockLayout, ResultAndInputFieldsStandWhereTheHostExpectsThem) {
    const std::vector<size_t> want = {0,     7680,  15360, 16640, 16648, 16656, 18580,
                                      18584, 18592, 18600, 0,     8,     16,    24};
    std::vector<size_t> fromC(32);
    fromC.resize(kvaneCResultOffsets(fromC.data()));
    EXPECT_EQ(fromC, want);
    EXPECT_EQ(offsetof(KVaneResult, sideScanImage), 18584u);
    EXPECT_EQ(sizeof(KVaneResult), 18600u);
}
