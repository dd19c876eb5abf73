// test_channels.cpp
#include <gtest/gtest.h>
