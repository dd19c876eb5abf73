// test_pictures.cpp
#include <gtest/gtest.h>
