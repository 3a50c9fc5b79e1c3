// Tests of tables: the text format, items, the two locates, shift, and the registry.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>

#include "cgi/request.h"
#include "core/str.h"
#include "core/table.h"
#include "test_support.h"

namespace {

std::unique_ptr<table> plain(const char* text)
{
    return std::make_unique<table>(str_dup(text));
}

// The item, "(null)" when there is none.
std::string item(const table& t, const char* name)
{
    return own(t.item_by_name(name));
}

} // namespace

TEST(Table, TextFormatRoundTrip)
{
    table t(str_dup("a\tb\n\nc\n"));
    ASSERT_EQ(t.count(), 3);
    EXPECT_STREQ(t.row(0), "a\tb");
    EXPECT_STREQ(t.row(1), "");
    EXPECT_STREQ(t.row(2), "c");
    EXPECT_EQ(own(t.serialise()), "a\tb\n\nc\n");

    EXPECT_EQ(own(table(str_dup("a\tb")).serialise()), "a\tb\n");           // the line end is added
    EXPECT_EQ(own(table(str_dup("x\r\ny\r\n")).serialise()), "x\r\ny\r\n"); // CR has no meaning
    EXPECT_EQ(table(str_dup("\n")).count(), 1);
    EXPECT_EQ(table(nullptr).count(), 0);
    EXPECT_EQ(own(table().serialise()), "(null)");
}

TEST(Table, RandomTextsRoundTrip)
{
    std::mt19937 random(42);
    const char alphabet[] = "ab\t\r #\xe9\n";
    for (int round = 0; round < 200; round++) {
        std::string text;
        int length = random() % 40;
        for (int i = 0; i < length; i++)
            text += alphabet[random() % (sizeof alphabet - 1)];
        if (text.empty() || text.back() != '\n')
            text += '\n';
        table t(str_dup(text.c_str()));
        EXPECT_EQ(own(t.serialise()), text);
        // Every row is a whole line: rows + line ends give back the length.
        size_t total = 0;
        for (int i = 0; i < t.count(); i++)
            total += strlen(t.row(i)) + 1;
        EXPECT_EQ(total, text.size());
    }
}

// More cells by number and by name show on the page cases of tests/pages/tables.
TEST(Table, ItemsByIndexAndName)
{
    table t(str_dup("a\t\tc\nshort\n"));
    EXPECT_EQ(item(t, "0"), "a");
    EXPECT_EQ(item(t, "1"), "(null)"); // empty cell
    EXPECT_EQ(item(t, "2"), "c");
    EXPECT_EQ(item(t, "3"), "(null)"); // no such cell
    t.set_current(1);
    EXPECT_EQ(t.cell_start(1), nullptr);
    EXPECT_EQ(item(t, "0"), "short");
    t.set_current(5);
    EXPECT_EQ(item(t, "0"), "(null)"); // no current row is not fatal
    EXPECT_EQ(item(table(), "0"), "(null)");
}

TEST(Table, NamedTableColumns)
{
    table_named t(str_dup("name\tage\nann\t31\n"));
    ASSERT_EQ(t.count(), 1);
    ASSERT_EQ(t.column_count(), 2);
    EXPECT_STREQ(t.column_name(1), "age");
    EXPECT_EQ(item(t, "name"), "ann");
    EXPECT_EQ(item(t, nullptr), "[invalid item name (null)]");
    EXPECT_EQ(own(t.serialise()), "ann\t31\n"); // the header is not written back

    table_named leading_break(str_dup("\nx\n"));
    EXPECT_EQ(leading_break.column_count(), 1);
    EXPECT_STREQ(leading_break.column_name(0), "");
    EXPECT_EQ(leading_break.count(), 1);

    table_named empty(nullptr);
    EXPECT_EQ(empty.column_count(), 0);
    EXPECT_EQ(empty.count(), 0);

    table_named header_only(str_dup("name\tmail"));
    EXPECT_EQ(header_only.column_count(), 2);
    EXPECT_EQ(header_only.count(), 0);
}

// A plain table searched by column number shows on page/tables/empty_locate_shift.
TEST(Table, LocateExactByNameOrNumber)
{
    table_named t(str_dup("id\tname\n1\tann\n2\tbob\n3\t\n"));
    EXPECT_TRUE(t.locate_exact("name", "bob"));
    EXPECT_EQ(t.current(), 1);
    EXPECT_TRUE(t.locate_exact("name", "")); // an empty cell equals an empty value
    EXPECT_EQ(t.current(), 2);
    EXPECT_FALSE(t.locate_exact("name", "bo"));
    EXPECT_EQ(t.current(), 0);
    t.set_current(2);
    EXPECT_FALSE(t.locate_exact("name", nullptr));
    EXPECT_EQ(t.current(), 0);
}

TEST(Table, LocateLongestPrefix)
{
    table t(str_dup("/\tall\n/shop\tshop\n/shop/list\tlist\n/sh\tsh\n/shop/list\tsecond\n"));
    EXPECT_TRUE(t.locate_prefix(0, "/shop/list.html"));
    EXPECT_EQ(t.current(), 2); // the first of equal lengths
    EXPECT_TRUE(t.locate_prefix(0, "/x"));
    EXPECT_EQ(t.current(), 0);
    EXPECT_FALSE(t.locate_prefix(0, "x"));
    EXPECT_EQ(t.current(), 0);
    EXPECT_FALSE(t.locate_prefix(3, "/")); // no row has a cell 3

    table empty_cell(str_dup("abc\n\tx\n"));
    EXPECT_TRUE(empty_cell.locate_prefix(0, "zzz")); // the empty cell is a prefix of anything
    EXPECT_EQ(empty_cell.current(), 1);
    EXPECT_FALSE(table().locate_prefix(0, "a"));
}

// The wrap both ways and the negative cursor show on page/tables/empty_locate_shift; an empty
// table, where a wrap would divide by zero, shows here.
TEST(Table, ShiftWrapsAround)
{
    table empty;
    empty.shift(3);
    EXPECT_EQ(empty.current(), 0);
}

TEST(Table, LockIsNotReentrant)
{
    table t;
    t.lock();
    try {
        t.lock();
        FAIL() << "a second lock must throw";
    } catch (const table_lock_violation& v) {
        EXPECT_EQ(v.code, TABLE_LOCK_REENTERED);
        EXPECT_EQ(v.target, &t);
    }
    t.unlock();
    t.lock();
    EXPECT_TRUE(t.locked());
}

TEST(TableArray, KeepsTablesSortedAndStoresUnderTheCurrentName)
{
    table_array tables;
    EXPECT_EQ(tables.get_current(), nullptr);
    for (const char* name : {"b", "a", "c"}) {
        tables.set_current_name(name);
        tables.store(plain(name));
    }
    tables.set_current_name(nullptr);
    tables.store(plain("unnamed"));
    ASSERT_EQ(tables.count(), 4);
    EXPECT_EQ(tables.at(0)->name(), nullptr); // null sorts first
    EXPECT_STREQ(tables.at(1)->name(), "a");
    EXPECT_STREQ(tables.at(3)->name(), "c");
    EXPECT_STREQ(tables.get_current()->row(0), "unnamed");
    EXPECT_STREQ(tables.get_by_name("b")->row(0), "b");
    EXPECT_EQ(tables.get_by_name("B"), nullptr);

    tables.set_current_name("b");
    tables.store(plain("b2")); // replaces in the same slot
    EXPECT_EQ(tables.count(), 4);
    EXPECT_STREQ(tables.at(2)->row(0), "b2");
    tables.remove_current();
    EXPECT_EQ(tables.count(), 3);
    EXPECT_EQ(tables.get_current(), nullptr);
    tables.remove_current(); // nothing to remove
    EXPECT_EQ(tables.count(), 3);
}

TEST(TableArray, LockedTableIsNeitherReplacedNorRemoved)
{
    table_array tables;
    tables.set_current_name("t");
    tables.store(plain("old"));
    table* old = tables.get_current();
    old->lock();
    try {
        tables.store(plain("new"));
        FAIL() << "store over a locked table must throw";
    } catch (const table_lock_violation& v) {
        EXPECT_EQ(v.code, TABLE_LOCK_REPLACED);
        EXPECT_EQ(v.target, old);
    }
    EXPECT_THROW(tables.remove_current(), table_lock_violation);
    EXPECT_EQ(tables.get_current(), old);
    EXPECT_STREQ(old->row(0), "old");
    old->unlock();
    tables.store(plain("new"));
    EXPECT_STREQ(tables.get_current()->row(0), "new");
}

// The scopes put things back however their body ends: here by the lock violation that a
// nested loop or store throws through them.
TEST(TableScopes, ContextIsRestoredOnAThrow)
{
    table_array tables;
    for (const char* outer : {"outer", static_cast<const char*>(nullptr)}) {
        tables.set_current_name(outer);
        try {
            table_context_scope scope(tables, "inner");
            EXPECT_STREQ(tables.current_name(), "inner");
            tables.set_current_name("changed inside"); // ^context[x] in the body
            throw table_lock_violation{TABLE_LOCK_REPLACED, nullptr};
        } catch (const table_lock_violation&) {
        }
        EXPECT_STREQ(tables.current_name(), outer);
    }
}

TEST(TableScopes, HoldKeepsTheTableAndIsReleasedOnAThrow)
{
    table_array tables;
    tables.store(plain("old"));
    table* t = tables.get_current();
    try {
        table_hold_scope lock(*t, table_hold::LOCK);
        EXPECT_THROW(tables.store(plain("new")), table_lock_violation);
        EXPECT_THROW(table_hold_scope again(*t, table_hold::LOCK), table_lock_violation);
        EXPECT_TRUE(t->locked()); // the refused second lock released nothing
        throw table_lock_violation{TABLE_LOCK_REENTERED, t};
    } catch (const table_lock_violation&) {
    }
    EXPECT_FALSE(t->held());
    try {
        table_hold_scope pin(*t, table_hold::PIN);
        table_hold_scope loop(*t, table_hold::LOCK); // a loop over a table being sorted
        EXPECT_THROW(tables.remove_current(), table_lock_violation);
        throw table_lock_violation{TABLE_LOCK_REPLACED, t};
    } catch (const table_lock_violation&) {
    }
    EXPECT_FALSE(t->held());
    tables.store(plain("new"));
    EXPECT_STREQ(tables.get_current()->row(0), "new");
}

TEST(TableDeathTest, RowOutOfRangeIsFatal)
{
    expect_fatal([] { table(str_dup("a\nb\nc\n")).row(3); },
                 "table row index 3 out of range [0..2]");
    expect_fatal([] { table().cell_start(0); }, "table row index 0 out of range [0..-1]");
}
