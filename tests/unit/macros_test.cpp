// Macro definition files, named parameters, "$n" substitution, calls and the per-file
// "autoexec" and "main".
#include <gtest/gtest.h>
#include <string>

#include "cgi/request.h"
#include "core/sorted_map.h"
#include "core/str.h"
#include "interp/macros.h"
#include "ops/ops.h"
#include "test_support.h"

namespace {

std::string body(const char* name)
{
    const char* b = macro_body(name);
    return b ? b : "(null)";
}

// Defines the macros of a copy of text; returns the count.
int define(const char* text, str_builder* output = nullptr)
{
    str_holder copy(str_dup(text));
    return define_macros(copy.get(), output);
}

// Calls a macro with the given arguments, as ^macro[name;args...] would.
std::string call(std::initializer_list<const char*> params)
{
    register_macro_ops();
    register_control_ops();
    char* slots[20] = {};
    int count = 0;
    for (const char* p : params)
        slots[count++] = str_dup(p);
    std::string out = own(macro_call(count, slots));
    for (int i = 0; i < count; i++)
        str_free(slots[i]);
    return out;
}

TEST(Macros, FileWithSeveralDefinitions)
{
    EXPECT_EQ(
        define("ignored\n# not a comment here\n@hello\nHi $1!\n@x\ny\n@greet[name]\nHi $name"), 3);
    EXPECT_EQ(body("hello"), "Hi $1!");
    EXPECT_EQ(body("x"), "y");
    EXPECT_EQ(body("greet"), "Hi $1");
    EXPECT_EQ(call({"hello", "World"}), "Hi World!");
    // A later definition replaces an earlier one.
    EXPECT_EQ(define("@x\nz"), 1);
    EXPECT_EQ(body("x"), "z");
}

TEST(Macros, BodyBoundaries)
{
    EXPECT_EQ(define("@last1\nA\n\n\n@last2\nB\n"), 2);
    EXPECT_EQ(body("last1"), "A\n");           // only one blank line before a header is dropped
    EXPECT_EQ(body("last2"), "B\n");           // the last body keeps its final newline
    EXPECT_EQ(define("@bare1\n@bare2\nx"), 1); // an empty body defines nothing
    EXPECT_EQ(body("bare1"), "(null)");
    EXPECT_EQ(define("@bare3\n"), 0);
    EXPECT_EQ(define("@bare4"), 0);
    EXPECT_EQ(define("@h[a;b] trailing\n$b$a"), 1);
    EXPECT_EQ(body("h"), "$2$1");
}

TEST(Macros, TextWithoutHeadersDefinesNothing)
{
    EXPECT_EQ(define(""), 0);
    EXPECT_EQ(define("plain text\nmail me@example.org"), 0);
    EXPECT_EQ(define_macros(nullptr, nullptr), 0);
    EXPECT_EQ(macro_define_file("/nonexistent/_macro.cfg", nullptr), 0);
}

TEST(Macros, NamedParametersRewritten)
{
    EXPECT_EQ(own(macro_rewrite_params("Hi $name", "name")), "Hi $1");
    EXPECT_EQ(own(macro_rewrite_params("$user@$host", "host;user")), "$2@$1");
    EXPECT_EQ(own(macro_rewrite_params("$ab", "a;ab")), "$1b"); // first prefix match wins
    EXPECT_EQ(own(macro_rewrite_params("$$x $1 $zz", "x")),
              "$$x $1 $[macro param name not found]zz");
    EXPECT_EQ(own(macro_rewrite_params("$foo $a", "a;")), "$2foo $1"); // empty name fits all
    EXPECT_EQ(own(macro_rewrite_params("end $", "a")), "end $[macro param name not found]");
    EXPECT_EQ(own(macro_rewrite_params("$x", nullptr)), "$x");
    EXPECT_EQ(own(macro_rewrite_params("$x", "")), "$x");
    EXPECT_EQ(own(macro_rewrite_params(nullptr, "a")), "(null)");
}

TEST(Macros, ArgumentsSubstituted)
{
    char* params[13] = {(char*)"m", (char*)"A", (char*)"B"};
    EXPECT_EQ(own(macro_substitute("$0$5|$1|$$1|$2x|$|$x", 3, params)), "|A|$1|Bx|$|$x");
    char* many[13] = {(char*)"m",   (char*)"1", (char*)"2",     (char*)"3", (char*)"4",
                      (char*)"5",   (char*)"6", (char*)"7",     (char*)"8", (char*)"9",
                      (char*)"ten", nullptr,    (char*)"twelve"};
    EXPECT_EQ(own(macro_substitute("$10 $11 $123 $01", 13, many)), "ten  twelve3 1");
    EXPECT_EQ(own(macro_substitute("$3", 3, params)), "(null)");
    EXPECT_EQ(own(macro_substitute(nullptr, 1, params)), "(null)");
}

TEST(Macros, AutoexecAndMainArePerFile)
{
    register_macro_ops();
    register_control_ops();
    macro_define("main", "outer main");
    macro_define("autoexec", "outer autoexec");
    str_builder output;
    int defined = define("@autoexec\n^var[ran;yes]ignored\n@main\nM^var[ran]\n@f\nF", &output);
    EXPECT_EQ(defined, 3);
    EXPECT_STREQ(output.view(), "Myes");
    EXPECT_EQ(body("main"), "outer main");
    EXPECT_EQ(body("autoexec"), "outer autoexec");
    EXPECT_EQ(body("f"), "F");
    // A file without its own main adds nothing, and the outer main does not run for it.
    str_builder none;
    define("@g\nG", &none);
    EXPECT_EQ(none.size(), 0u);
    req.macros->remove("main");
    req.macros->remove("autoexec");
}

} // namespace
