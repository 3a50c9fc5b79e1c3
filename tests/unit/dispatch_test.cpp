// The illegal-call test: every spelling of the program's own URL is refused, pages are not,
// whether the server names the page PATH_TRANSLATED or as the script it ran.
#include <climits>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "cgi/dispatch.h"
#include "test_support.h"

namespace {

// The running test program's own file, as the kernel names it.
std::string own_file()
{
    char path[PATH_MAX + 1];
    ssize_t length = readlink("/proc/self/exe", path, PATH_MAX);
    return std::string(path, length > 0 ? length : 0);
}

// What a server passed about the script it ran; restores the record and the environment.
struct script_env {
    script_env(const char* page, const char* script_filename, const char* path_info,
               const char* document_root)
    {
        req.cgi.path_translated = page;
        req.cgi.path_info = path_info;
        req.cgi.document_root = document_root;
        setenv("SCRIPT_FILENAME", script_filename, 1);
    }
    ~script_env()
    {
        req.cgi = cgi_vars();
        unsetenv("SCRIPT_FILENAME");
        unsetenv("TESSEL_REQUIRE_HANDLER");
    }
    script_env(const script_env&) = delete;
    script_env& operator=(const script_env&) = delete;
};

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

TEST(Dispatch, PageFileFromPathTranslatedOrTheFileTheServerRan)
{
    std::string program = own_file();
    std::string link = temp_path("program_link");
    ASSERT_EQ(symlink(program.c_str(), link.c_str()), 0);
    EXPECT_TRUE(dispatch_is_program(link.c_str()));
    EXPECT_FALSE(dispatch_is_program("/srv/site/p.html"));
    EXPECT_STREQ(dispatch_page_file("/srv/site/a.html", "/srv/site/b.html"), "/srv/site/a.html");
    EXPECT_STREQ(dispatch_page_file("", "/srv/site/b.html"), "/srv/site/b.html");
    EXPECT_STREQ(dispatch_page_file(nullptr, link.c_str()), "");
    EXPECT_STREQ(dispatch_page_file("", ""), "");
    unlink(link.c_str());
}

TEST(Dispatch, ScriptNameOfThePageItselfIsNoCallForTheProgram)
{
    std::string program = own_file();
    for (bool required : {false, true}) {
        // lighttpd's cgi.assign: the program ran as the handler of the page's file, even one
        // reached through an alias, where the document root is the alias's folder.
        {
            script_env server("/srv/site/sub/p.html", "/srv/site/sub/p.html", "", "/srv/alias/");
            if (required)
                setenv("TESSEL_REQUIRE_HANDLER", "1", 1);
            EXPECT_FALSE(dispatch_is_illegal_call("/sub/p.html?a", "/sub/p.html"));
        }
        // nginx with fastcgi_params: the program's own file, the page's URL as SCRIPT_NAME.
        for (const char* root : {"/srv/site", "/srv/site/"}) {
            script_env server("/srv/site/sub/p.html", program.c_str(), "", root);
            if (required)
                setenv("TESSEL_REQUIRE_HANDLER", "1", 1);
            EXPECT_FALSE(dispatch_is_illegal_call("/sub//p.html", "/sub/p.html")) << root;
            EXPECT_FALSE(dispatch_is_illegal_call("/sub/", "/sub/p.html")) << root;
        }
    }
}

TEST(Dispatch, ProgramUrlStillRefusedWhereTheScriptNameCouldNamePages)
{
    std::string program = own_file();
    // A page after the page's URL (lighttpd's PATH_INFO, which it joins to the document root
    // as PATH_TRANSLATED): the page's URL stands where the program's would.
    {
        script_env server("/srv/site/_guestbook", "/srv/site/p.html", "/_guestbook", "/srv/site");
        for (const char* uri :
             {"/p.html/_guestbook", "/p%2Ehtml/_guestbook", "/p.html%2F_guestbook"})
            EXPECT_TRUE(dispatch_is_illegal_call(uri, "/p.html")) << uri;
    }
    // The program's URL with itself after it, so that the document root joined to SCRIPT_NAME
    // is the translated path.
    {
        script_env server("/srv/site/cgi-bin/tessel", program.c_str(), "/cgi-bin/tessel",
                          "/srv/site");
        EXPECT_TRUE(dispatch_is_illegal_call("/cgi-bin/tessel/cgi-bin/tessel", "/cgi-bin/tessel"));
    }
    // The program's own file as the page names no page.
    {
        script_env server(program.c_str(), program.c_str(), "", "/");
        setenv("TESSEL_REQUIRE_HANDLER", "1", 1);
        EXPECT_TRUE(dispatch_is_illegal_call("/x.html", program.c_str()));
    }
    // An Apache Action names the page only by PATH_INFO: served by default, refused when the
    // server must name the page as its script.
    {
        script_env server("/srv/site/x.html", program.c_str(), "/x.html", "/srv/site");
        EXPECT_FALSE(dispatch_is_illegal_call("/x.html", "/cgi-bin/tessel"));
        setenv("TESSEL_REQUIRE_HANDLER", "1", 1);
        EXPECT_TRUE(dispatch_is_illegal_call("/x.html", "/cgi-bin/tessel"));
    }
}

} // namespace
