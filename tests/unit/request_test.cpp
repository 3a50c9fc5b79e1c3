// Path resolution and page compaction of the request record.
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

#include "cgi/request.h"
#include "core/str.h"
#include "program/page.h"
#include "test_support.h"

namespace {

std::string compacted(const char* text, bool header_set)
{
    char* copy = str_dup(text);
    req.content_type = header_set ? (char*)"text/plain" : nullptr;
    compact_page(copy);
    req.content_type = nullptr;
    return own(copy);
}

TEST(Request, ResolvePathAgainstRootOrPageDirectory)
{
    req.cgi.document_root = "/srv/site";
    req.page_path = (char*)"/srv/site/shop/list.html";
    EXPECT_EQ(own(resolve_path("/img/a.gif")), "/srv/site/img/a.gif");
    EXPECT_EQ(own(resolve_path("data/_t")), "/srv/site/shop/data/_t");
    EXPECT_EQ(own(resolve_path("")), "/srv/site/shop/");
    req.page_path = (char*)"page.html"; // no directory part: nothing is cut
    EXPECT_EQ(own(resolve_path("x")), "page.html/x");
    req.page_path = nullptr;
}

// The plain byte-by-byte rule, to check the word-at-a-time compaction against.
std::string compact_reference(const std::string& text, bool html)
{
    std::string out;
    bool after_blank = !html;
    for (char c : text) {
        bool blank = c == '\n' || c == '\r' || (html && (c == ' ' || c == '\t'));
        if (!(blank && after_blank))
            out += c;
        after_blank = blank;
    }
    return out;
}

TEST(Request, CompactionMatchesTheByteRuleOnRandomTexts)
{
    srand(7);
    const char alphabet[] = "ab \t\r\n";
    for (int round = 0; round < 20000; round++) {
        std::string text(rand() % 40, 'x');
        for (char& c : text)
            c = alphabet[rand() % 6];
        for (bool header_set : {false, true})
            ASSERT_EQ(compacted(text.c_str(), header_set), compact_reference(text, !header_set))
                << "text: " << testing::PrintToString(text);
    }
}

TEST(Request, CompactionCanBeSwitchedOff)
{
    req.compaction_enabled = 0;
    EXPECT_EQ(compacted("a  b", false), "a  b");
    req.compaction_enabled = 1;
}

} // namespace
