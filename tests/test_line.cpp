// test_line.cpp
#include <gtest/gtest.h>
