// The sorted string map: order, replacement, removal, null keys and values.
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <random>
#include <string>

#include "core/sorted_map.h"
#include "core/str.h"

namespace {

std::string keys_of(const sorted_map& m)
{
    std::string out;
    for (int i = 0; i < m.count(); i++)
        out += std::string(m.key_at(i) ? m.key_at(i) : "(null)") + ",";
    return out;
}

TEST(SortedMap, NullKeySortsFirst)
{
    sorted_map m;
    m.set("a", "1");
    m.set(nullptr, "0");
    EXPECT_EQ(keys_of(m), "(null),a,");
    EXPECT_STREQ(m.get(nullptr), "0");
    m.remove(nullptr);
    EXPECT_EQ(keys_of(m), "a,");
}

TEST(SortedMap, SetTakeKeepsThePointerAndCopiesAreIndependent)
{
    sorted_map m;
    char* owned = str_dup("taken");
    m.set_take("t", owned);
    EXPECT_EQ(m.get("t"), owned);
    std::string key = "k";
    std::string value = "v";
    m.set(key.c_str(), value.c_str());
    key[0] = 'z';
    value[0] = 'w';
    EXPECT_STREQ(m.get("k"), "v");
    m.set("k", m.get("k")); // a value read from the map itself survives its replacement
    EXPECT_STREQ(m.get("k"), "v");
}

TEST(SortedMap, AppendGrowsOneValue)
{
    sorted_map m;
    m.append("x", nullptr); // an absent key gets the (empty) text
    ASSERT_NE(m.get("x"), nullptr);
    EXPECT_STREQ(m.get("x"), "");
    std::string ref;
    for (int i = 0; i < 5000; i++) {
        m.append("x", i % 7 ? "ab" : nullptr);
        ref += i % 7 ? "ab" : "";
    }
    EXPECT_EQ(m.get("x"), ref);
    m.set("x", "12");
    m.append("x", m.get("x")); // the value itself, which moves as it grows
    m.append("x", m.get("x") + 1);
    EXPECT_STREQ(m.get("x"), "1212212");
}

// Random insertions, appends and removals (by a null value and by remove) against std::map
// with a fixed seed: keys in byte order, capitals first, empty values kept as values, and
// find giving the slot where a missing key would go.
TEST(SortedMap, MatchesAReferenceMap)
{
    std::mt19937 rng(12345);
    sorted_map m;
    std::map<std::string, std::string> ref;
    for (int step = 0; step < 3000; step++) {
        std::string key(1 + rng() % 3, 'a');
        for (char& c : key)
            c = "abcAB"[rng() % 5];
        int op = rng() % 4;
        if (op == 0) {
            m.set(key.c_str(), nullptr);
            ref.erase(key);
        } else if (op == 1) {
            std::string tail(rng() % 40, "xyz"[step % 3]);
            m.append(key.c_str(), tail.c_str());
            ref[key] += tail;
        } else if (op == 2) {
            std::string value = step % 5 ? std::to_string(step) : "";
            m.set(key.c_str(), value.c_str());
            ref[key] = value;
        } else {
            m.remove(key.c_str());
            ref.erase(key);
        }
        int pos = -1;
        EXPECT_EQ(m.find(key.c_str(), pos), ref.count(key) == 1) << key;
        EXPECT_EQ(pos, std::distance(ref.begin(), ref.lower_bound(key))) << key;
    }
    ASSERT_EQ(m.count(), (int)ref.size());
    int i = 0;
    for (const auto& [key, value] : ref) {
        EXPECT_EQ(m.key_at(i), key);
        EXPECT_STREQ(m.value_at(i), value.c_str());
        EXPECT_STREQ(m.get(key.c_str()), value.c_str());
        i++;
    }
}

} // namespace
