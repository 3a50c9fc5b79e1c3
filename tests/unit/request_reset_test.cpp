// The reset between requests: each piece of per-request state, changed as a page changes it,
// reads as in a fresh process after request_reset.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi/form.h"
#include "cgi/request.h"
#include "core/environment.h"
#include "core/str.h"
#include "interp/expr.h"
#include "interp/macros.h"
#include "interp/registry.h"
#include "program/page.h"
#include "program/reset.h"
#include "test_support.h"

namespace {

// Expands text as a page would, with header lines going nowhere; returns the result ("" for
// none).
std::string page(const char* text)
{
    static FILE* sink = fopen("/dev/null", "w");
    req.output_stream = sink;
    str_holder result(expand_copy(text));
    return str_or_empty(result.get());
}

// Applies a .profile of text, as the page main does in the program's folder.
void profile(const char* text)
{
    char start[4096];
    ASSERT_TRUE(getcwd(start, sizeof start));
    std::string dir = temp_path("reset_profile");
    mkdir(dir.c_str(), 0700);
    ASSERT_EQ(chdir(dir.c_str()), 0);
    FILE* file = fopen(".profile", "w");
    fputs(text, file);
    fclose(file);
    apply_profile();
    unlink(".profile");
    ASSERT_EQ(chdir(start), 0);
    rmdir(dir.c_str());
}

bool env_is(const char* name, const char* value)
{
    const char* now = getenv(name);
    return value ? now && std::string(now) == value : !now;
}

struct piece {
    const char* what;
    std::function<void()> change; // what a request does to it
    std::function<bool()> fresh;  // whether it reads as at start-up
};

const piece PIECES[] = {
    {"content type", [] { page("^header[Content-Type;text/plain]"); },
     [] { return req.content_type == nullptr; }},
    {"output switch", [] { req.output_enabled = false; }, [] { return req.output_enabled; }},
    {"compaction", [] { page("^optimize[no]"); }, [] { return req.compaction_enabled == 1; }},
    {"escaping mode", [] { escape_mode_by_name("sql"); },
     [] { return req.escape_mode == ESCAPE_MODE_HTML; }},
    {"variables", [] { page("^var[v;1]"); }, [] { return page("^var[v]").empty(); }},
    {"macros", [] { page("^macro_new[m;x]"); }, [] { return macro_body("m") == nullptr; }},
    {"tables and the current name", [] { page("^context[t]^config[a]"); },
     [] { return !req.tables->current_name() && page("^context[t;^item[0]]").empty(); }},
    {"form entries", [] { form_decode_urlencoded("f=1", 3); },
     [] { return !req.form_entries && !form_find_first("f"); }},
    {"request data", [] { form_decode_urlencoded("f=1", 3), page("^var[d;^form[f]]"); },
     [] { return req.request_data_reads == 0 && !req.request_data_variables->get("d"); }},
    {"depth and page line", [] { req.depth = 3, req.page_line = 7; },
     [] { return req.depth == 0 && req.page_line == 0; }},
    {"request URI and page path",
     [] { req.request_uri = str_dup("/a.html"), req.page_path = str_dup("/srv/a.html"); },
     [] { return !req.request_uri && !req.page_path; }},
    {"CGI variables and code pages",
     [] { env_set("QUERY_STRING", "q"), env_set("CHARSET", "KOI"), request_init(); },
     [] { return *req.cgi.query_string == '\0' && req.output_charset == 0 && !req.output_stream; }},
    {"the environment .profile set",
     [] { profile("TESSEL_RESET_NEW=1\nHOME=/elsewhere\n"), env_unset("TESSEL_RESET_GONE"); },
     [] {
         return env_is("TESSEL_RESET_NEW", nullptr) && env_is("HOME", "/home/reset") &&
                env_is("TESSEL_RESET_GONE", "1");
     }},
    {"color alternation", [] { page("^color[a;b]"); }, [] { return page("^color[a;b]") == "b"; }},
    {"expression status", [] { page("^eval[1+]"); }, [] { return expr_status == EXPR_OK; }},
};

// The next request finds each piece as a fresh process does, whatever the last one left. In
// the sanitizer build, what the reset drops without freeing it is reported as a leak.
TEST(RequestReset, EveryPieceReadsFreshAfterTheReset)
{
    register_all_operators();
    std::string home = str_or_empty(getenv("HOME"));
    setenv("HOME", "/home/reset", 1);
    setenv("TESSEL_RESET_GONE", "1", 1);
    request_env_remember();
    for (const piece& p : PIECES) {
        SCOPED_TRACE(p.what);
        request_reset();
        ASSERT_TRUE(p.fresh()) << "not fresh at start";
        request_reset(); // reading a piece may change it (color)
        p.change();
        EXPECT_FALSE(p.fresh()) << "the change did not show";
        request_reset();
        EXPECT_TRUE(p.fresh());
    }
    request_reset();
    env_unset("TESSEL_RESET_GONE");
    env_set("HOME", home.c_str());
}

} // namespace
