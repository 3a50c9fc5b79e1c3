// The illegal-call test: every spelling of the program's own URL is refused, pages are not.
#include <cstdlib>
#include <gtest/gtest.h>

#include "cgi/dispatch.h"
#include "test_support.h"

namespace {

TEST(Dispatch, NormalizeDecodesMergesAndResolvesSegments)
{
    struct row {
        const char* uri;
        const char* path;
    };
    const row rows[] = {
        {"/shop/list.html?a=/cgi-bin/x#top", "/shop/list.html"},
        {"//cgi-bin//tessel///x", "/cgi-bin/tessel/x"},
        {"/cgi-bin/./tessel/x", "/cgi-bin/tessel/x"},
        {"/a/b/../../cgi-bin/tessel/x", "/cgi-bin/tessel/x"},
        {"/../../cgi-bin/tessel", "/cgi-bin/tessel"},
        {"/cgi-bin/%74essel/%2e%2E/tessel/x", "/cgi-bin/tessel/x"},
        {"/100%/%zz%4", "/100%/%zz%4"},
        {"/cgi-bin/tessel%00/x", "/cgi-bin/tessel"},
        {"http://example.org:80//cgi-bin/tessel/x?y", "/cgi-bin/tessel/x"},
        {"/dir/", "/dir/"},
        {"", ""},
        {"/", "/"},
        {"/..", "/"},
    };
    for (const row& r : rows)
        EXPECT_EQ(own(uri_path_normalize(r.uri)), r.path) << r.uri;
}

TEST(Dispatch, ProgramUrlRefusedInEverySpellingPagesServed)
{
    unsetenv("TESSEL_REQUIRE_REDIRECT");
    const char* script = "/cgi-bin/tessel";
    for (const char* uri :
         {"/cgi-bin/tessel/_guestbook", "/cgi-bin//tessel/x", "//cgi-bin/tessel/x",
          "/cgi-bin/./tessel/x", "/cgi-bin/%74essel/x", "/x/../cgi-bin/tessel/y", "/cgi-bin/tessel",
          "http://h/cgi-bin/tessel/x"})
        EXPECT_TRUE(dispatch_is_illegal_call(uri, script)) << uri;
    for (const char* uri :
         {"/x.html", "/cgi-bin/x.html", "/shop/cgi-bin/tessel/x", "/?/cgi-bin/tessel"})
        EXPECT_FALSE(dispatch_is_illegal_call(uri, script)) << uri;
    EXPECT_FALSE(dispatch_is_illegal_call("/cgi-bin/tessel/x", ""));
}

TEST(Dispatch, RedirectRequiredBySetting)
{
    unsetenv("REDIRECT_STATUS");
    setenv("TESSEL_REQUIRE_REDIRECT", "1", 1);
    EXPECT_TRUE(dispatch_is_illegal_call("/x.html", "/cgi-bin/tessel"));
    EXPECT_TRUE(dispatch_is_illegal_call("/x.html", ""));
    setenv("REDIRECT_STATUS", "200", 1);
    EXPECT_FALSE(dispatch_is_illegal_call("/x.html", "/cgi-bin/tessel"));
    EXPECT_TRUE(dispatch_is_illegal_call("/cgi-bin//tessel/x.html", "/cgi-bin/tessel"));
    unsetenv("REDIRECT_STATUS");
    unsetenv("TESSEL_REQUIRE_REDIRECT");
}

} // namespace
