// test_endtoend.cpp
#include <gtest/gtest.h>
