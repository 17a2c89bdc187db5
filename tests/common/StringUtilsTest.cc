#include "common/StringUtils.h"

#include <gtest/gtest.h>

TEST(X, Y) {}
