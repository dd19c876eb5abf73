// test_beams.cpp
#include <gtest/gtest.h>
