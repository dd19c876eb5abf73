// test_detect.cpp
#include <gtest/gtest.h>
