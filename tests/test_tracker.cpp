// test_tracker.cpp
#include <gtest/gtest.h>
