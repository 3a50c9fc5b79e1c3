// The match operator driven through the expander: replacement positions checked against a
// reference engine on fixed-seed random texts, and empty matches. The short forms, flags and
// a replacement that holds the pattern show on the pages of tests/pages/match.
#include <gtest/gtest.h>
#include <random>
#include <regex>
#include <string>

#include "cgi/request.h"
#include "core/memory.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "ops/ops.h"

namespace {

class Match : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        register_match_ops();
        register_table_ops();
    }
    void SetUp() override
    {
        req.depth = 0;
        req.escape_mode = ESCAPE_MODE_HTML;
    }

    // The expansion of page text; null prints as "".
    static std::string expand(const std::string& text)
    {
        char* out = expand_copy(text.c_str());
        std::string s = out ? out : "";
        str_free(out);
        return s;
    }

    static std::string replace(const std::string& pattern, const std::string& flags,
                               const std::string& with, const std::string& text)
    {
        return expand("^match[" + pattern + ";" + flags + ";" + with + ";" + text + "]");
    }

    // A text of up to max_len bytes drawn from alphabet.
    static std::string random_text(std::mt19937& rng, const std::string& alphabet, int max_len)
    {
        std::string s(rng() % (max_len + 1), ' ');
        for (char& c : s)
            c = alphabet[rng() % alphabet.size()];
        return s;
    }
};

// Patterns whose leftmost match is the same under every regex flavour, so the reference
// engine gives the expected text for a replacement that never matches the pattern itself.
TEST_F(Match, ReplacementAgreesWithReferenceOnRandomTexts)
{
    const char* patterns[] = {"a", "ab", "b+", "a[ab]", "ba*", "-", "a-?b"};
    const char* replacements[] = {"X", "", "<>"};
    std::mt19937 rng(20261122);
    for (int round = 0; round < 400; round++) {
        std::string text = random_text(rng, "ab-", 12);
        std::string pattern = patterns[rng() % std::size(patterns)];
        std::string with = replacements[rng() % std::size(replacements)];
        std::regex reference(pattern, std::regex::extended);
        std::string all = std::regex_replace(text, reference, with);
        std::string first =
            std::regex_replace(text, reference, with, std::regex_constants::format_first_only);
        EXPECT_EQ(replace(pattern, "g", with, text), all) << pattern << " in " << text;
        EXPECT_EQ(replace(pattern, "", with, text), first) << pattern << " in " << text;
    }
}

// A pattern that matches the empty string moves one byte on after each empty match, so
// global replacement ends and puts the replacement between all bytes.
TEST_F(Match, EmptyMatchesAdvanceOneByte)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 100; round++) {
        std::string text = random_text(rng, "ab", 10);
        if (text.empty())
            continue;
        std::string spread = "-";
        for (char c : text)
            spread += std::string(1, c) + "-";
        EXPECT_EQ(replace("x*", "g", "-", text), spread) << text;
        EXPECT_EQ(replace("x*", "g", "", text), text) << text;
        EXPECT_EQ(replace("x*", "", "-", text), "-" + text) << text;
    }
}

// The match table's row holds the whole match, each group (empty when it took no part),
// then the text before and after; a TAB inside becomes a blank.
TEST_F(Match, TableRowFromGroups)
{
    req.tables->set_current_name("unit");
    EXPECT_EQ(expand("^match[(x)?(b+)(c);a\tbbc\td]"), "");
    table* t = req.tables->get_current();
    ASSERT_NE(t, nullptr);
    ASSERT_EQ(t->count(), 1);
    EXPECT_STREQ(t->row(0), "bbc\t\tbb\tc\ta \t d");
    EXPECT_EQ(expand("^match[(z);abc]"), "");
    EXPECT_EQ(req.tables->get_current(), nullptr);
    req.tables->set_current_name(nullptr);
}

} // namespace
