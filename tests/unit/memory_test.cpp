// The checked allocator's string builder.
#include <gtest/gtest.h>

#include "core/memory.h"
#include "test_support.h"

namespace {

TEST(Memory, BuilderGrowsAndHandsOver)
{
    str_builder b;
    for (int i = 0; i < 1000; i++)
        b.append("xy");
    EXPECT_EQ(b.size(), 2000u);
    EXPECT_EQ(own(b.take(true)).size(), 2000u);
    EXPECT_EQ(b.take(true), nullptr);
    EXPECT_EQ(own(b.take(false)), "");
}

} // namespace
