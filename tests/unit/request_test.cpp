// Path resolution and page compaction of the request record.
#include <climits>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

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

// lighttpd's cgi.assign runs the program in the page's folder with the page as SCRIPT_FILENAME
// and no PATH_TRANSLATED: the page becomes PATH_TRANSLATED and the program works in its own
// folder, where its logs and cache are under every server.
TEST(Request, PageNamedAsTheScriptFileBecomesTheTranslatedPath)
{
    char start[PATH_MAX], exe[PATH_MAX + 1], now[PATH_MAX];
    ASSERT_TRUE(getcwd(start, sizeof start));
    ssize_t length = readlink("/proc/self/exe", exe, PATH_MAX);
    ASSERT_GT(length, 0);
    std::string folder(exe, length);
    folder.erase(folder.rfind('/'));
    ASSERT_EQ(chdir("/"), 0);
    unsetenv("PATH_TRANSLATED");
    setenv("SCRIPT_FILENAME", "/srv/site/sub/p.html", 1);
    request_init();
    EXPECT_STREQ(req.cgi.path_translated, "/srv/site/sub/p.html");
    EXPECT_STREQ(getenv("PATH_TRANSLATED"), "/srv/site/sub/p.html");
    EXPECT_EQ(std::string(getcwd(now, sizeof now)), folder);

    // A server that passes PATH_TRANSLATED keeps it, and the folder it started the program in.
    ASSERT_EQ(chdir("/"), 0);
    setenv("PATH_TRANSLATED", "/srv/site/x.html", 1);
    request_init();
    EXPECT_STREQ(req.cgi.path_translated, "/srv/site/x.html");
    EXPECT_EQ(std::string(getcwd(now, sizeof now)), "/");
    unsetenv("PATH_TRANSLATED");
    unsetenv("SCRIPT_FILENAME");
    req.cgi = cgi_vars();
    ASSERT_EQ(chdir(start), 0);
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
