// Tests of object_array: growth, shrinking, ownership and the fatal misuse messages.
#include <gtest/gtest.h>
#include <memory>

#include "cgi/request.h"
#include "core/number.h"
#include "core/object_array.h"
#include "core/str.h"
#include "core/table.h"
#include "test_support.h"

namespace {

char* s(const char* text)
{
    return str_dup(text);
}

// An array of the given limit and delta holding count items.
std::unique_ptr<object_array<char>> holding(int limit, int delta, int count)
{
    auto a = std::make_unique<object_array<char>>(limit, delta);
    for (int i = 0; i < count; i++)
        a->append(s("x"));
    return a;
}

// A table that counts its destructions, to see how the array releases its items.
int destroyed = 0;
class counted_table : public table {
public:
    ~counted_table() override { destroyed++; }
};

} // namespace

TEST(ObjectArray, PutPastTheEndLeavesNullGaps)
{
    object_array<char> a(16, 16);
    a.put(5, s("x"));
    EXPECT_EQ(a.count(), 6);
    EXPECT_FALSE(a.exists(2));
    EXPECT_TRUE(a.exists(5));
    EXPECT_STREQ(a.at(5), "x");
    expect_fatal([&] { a.at(2); }, "array at 2 error");
    a.put(2, s("y")); // an empty slot inside the used range takes an item
    EXPECT_STREQ(a.at(2), "y");
    a.put(40, s("z")); // grows by whole steps
    EXPECT_EQ(a.limit(), 48);
    EXPECT_EQ(a.count(), 41);
}

TEST(ObjectArray, InsertShiftsOrActsAsPutBeyondCount)
{
    object_array<char> a(2, 1);
    a.append(s("a"));
    a.append(s("c"));
    a.insert(1, s("b"));
    ASSERT_EQ(a.count(), 3);
    EXPECT_STREQ(a.at(0), "a");
    EXPECT_STREQ(a.at(1), "b");
    EXPECT_STREQ(a.at(2), "c");
    a.insert(6, s("g"));
    EXPECT_EQ(a.count(), 7);
    EXPECT_FALSE(a.exists(4));
    EXPECT_STREQ(a.at(6), "g");
}

TEST(ObjectArray, RemovePacksAndShrinksInDeltaSteps)
{
    object_array<char> a(16, 16);
    for (int i = 0; i < 48; i++)
        a.append(s(fmt_int(i).text));
    EXPECT_EQ(a.limit(), 48);
    while (a.count() > 10)
        a.remove(0);
    EXPECT_EQ(a.limit(), 16); // 16 - 16 = 0 is not above 10
    EXPECT_STREQ(a.at(0), "38");
    a.remove(99); // a missing index is no error
    EXPECT_EQ(a.count(), 10);
}

TEST(ObjectArray, PackClosesGapsInOrder)
{
    object_array<char> a(4, 0);
    a.put(1, s("b"));
    a.put(3, s("d"));
    a.pack();
    ASSERT_EQ(a.count(), 2);
    EXPECT_STREQ(a.at(0), "b");
    EXPECT_STREQ(a.at(1), "d");
    EXPECT_EQ(a.limit(), 4); // delta 0 never shrinks
    // The slots the pack vacated still hold the moved pointers; storing past the end must
    // not bring them back as items (the row would be owned twice).
    a.put(3, s("e"));
    EXPECT_FALSE(a.exists(2));
    EXPECT_STREQ(a.at(3), "e");
    object_array<char> b(4, 4);
    b.append(s("a"));
    b.append(s("b"));
    b.remove(0);
    b.insert(3, s("c"));
    EXPECT_FALSE(b.exists(1));
    EXPECT_FALSE(b.exists(2));
}

TEST(ObjectArray, OwnsItsTablesThroughTheVirtualDestructor)
{
    destroyed = 0;
    {
        object_array<table> a(1, 1);
        a.append(new counted_table);
        a.append(new counted_table);
        a.remove(0);
        EXPECT_EQ(destroyed, 1);
    }
    EXPECT_EQ(destroyed, 2);
}

TEST(ObjectArrayDeathTest, MisuseIsFatalWithItsMessage)
{
    expect_fatal([] { object_array<char> a(1, -1); }, "array negative delta");
    expect_fatal([] { object_array<char>(0, 0).at(-1); }, "array index -1 out of range [0..-1]");
    expect_fatal([] { holding(4, 4, 1)->at(1); }, "array index 1 out of range [0..0]");
    expect_fatal([] { holding(1, 0, 2); }, "array increase error");
    expect_fatal([] { holding(4, 4, 1)->put(0, s("y")); }, "array item 0 put error");
    expect_fatal([] { holding(4, 4, 1)->put(-1, s("y")); }, "array item -1 put error");
    expect_fatal([] { holding(4, 4, 0)->insert(-1, s("y")); }, "array negative insert index");
    expect_fatal([] { holding(4, 4, 2)->set_limit(1); }, "array set_limit error");
}
