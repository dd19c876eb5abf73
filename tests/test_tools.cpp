// test_tools.cpp
#include <gtest/gtest.h>
