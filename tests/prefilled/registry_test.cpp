// The pre-filled registry: it is in use, and registering the families again changes nothing.
#include <gtest/gtest.h>

#include "interp/registry.h"
#include "ops/ops.h"

TEST(PrefilledRegistry, HoldsEveryFamilyBeforeRegistration)
{
    ASSERT_TRUE(registry_prefilled());
    std::vector<const operator_entry*> before = registry_operators();
    ASSERT_FALSE(before.empty());
    register_all_operators();
    EXPECT_EQ(registry_operators(), before);
    for (const operator_entry* entry : before)
        EXPECT_EQ(registry_find(entry->row->name), entry) << entry->row->name;
}
