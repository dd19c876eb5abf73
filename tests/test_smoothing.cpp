// test_smoothing.cpp
#include <gtest/gtest.h>
