// The expression evaluator: documented results, its deliberate oddities, operands from
// variables and tables, error positions, and number formatting.
#include <cmath>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <utility>

#include "cgi/request.h"
#include "core/sorted_map.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/expr.h"
#include "test_support.h"

namespace {

struct outcome {
    double value;
    int status;
    std::string rest;
};

outcome eval(const char* text)
{
    const char* rest;
    double value = expr_evaluate_text(text, rest);
    return {value, expr_status, rest};
}

double value_of(const char* text)
{
    outcome o = eval(text);
    EXPECT_EQ(o.status, EXPR_OK) << text << " stopped at '" << o.rest << "'";
    return o.value;
}

int status_of(const char* text)
{
    return eval(text).status;
}

// Each text evaluates without error to its value.
void expect_values(std::initializer_list<std::pair<const char*, double>> rows)
{
    for (auto [text, value] : rows)
        EXPECT_EQ(value_of(text), value) << text;
}

// Each value formatted by its format gives its text.
void expect_formatted(std::initializer_list<std::tuple<double, const char*, const char*>> rows)
{
    for (auto [value, format, text] : rows)
        EXPECT_EQ(own(expr_format_number(value, format)), text) << format;
}

sorted_map& variables()
{
    if (!req.variables)
        req.variables = new sorted_map;
    return *req.variables;
}

// clang-format off
TEST(Expr, ArithmeticAndTheTwoLevelPrecedence)
{
    expect_values({{"", 0}, {"7", 7}, {"2*3+4*5", 26}, {"1-2-3", -4}, {"2+3*4<1", 0},
                   {"10-2*3", 4}});
}

TEST(Expr, PrecedenceGroupsOnlyAgainstThePendingOperator)
{
    // Behind a looser pending operator, tighter operators run left to right on one value:
    // 2+3*4 there is (2+3)*4, not 14. An operator no tighter than the pending one completes
    // it first.
    expect_values({{"20==2+3*4", 1}, {"15<2+3*4", 1}, {"0||1+1*0", 0}, {"1+2==3", 1},
                   {"6/2*3", 9}, {"(1+2)*(3+4)", 21}, {"((2))", 2}});
}

TEST(Expr, NumbersAndSigns)
{
    // A number right after an operand replaces it: "0" then ".5", octal "0" then "8".
    expect_values({{".5", 0.5}, {"0x1F", 31}, {"017", 15}, {"1.5e2", 150}, {"-3*2", -6},
                   {"1+2*-3", -5}, {"1*(-2)", -2}, {"0.5", 0.5}, {"08", 8},
                   {"0xFFFFFFFF", 4294967295.0}});
    EXPECT_EQ(status_of("2e"), EXPR_BAD_NAME); // "2" then the name "e": no variable, no table
    EXPECT_EQ(status_of("1*-2"), EXPR_SYNTAX_ERROR);
}

TEST(Expr, DivisionRemainderAndBitOperators)
{
    // "^" is exclusive or, not a power.
    expect_values({{"7/2", 3.5}, {"7%2.9", 1}, {"-7%3", -1}, {"5&&.5", 0}, {"0||.5", 0},
                   {"2||0", 1}, {"6&3", 2}, {"6|3", 7}, {"6^3", 5}, {"1<<33", 2},
                   {"1<<31", -2147483648.0}, {"-8>>1", -4}, {"3<=3", 1}, {"3>=4", 0},
                   {"3!=4", 1}, {"3>2", 1}});
}

TEST(Expr, PrefixOperatorsAndFunctions)
{
    // In "!0.5", "!" takes the operand "0", then ".5" replaces the 1.
    expect_values({{"!(0.5)", 1}, {"!.5", 1}, {"!0.5", 0.5}, {"!3", 0}, {"~0", 4294967295.0},
                   {"~-1", 0}, {"round2.5", 3}, {"round(-2.5)", -2}, {"floor(-1.5)", -2},
                   {"ceiling1.2", 2}, {"abs(-4)+1", 5}, {"sqrt16", 0}, {"sign(-7)", -1},
                   {"sign0", 0}, {"2abs3", 3}, {"2*abs-3", 6}});
}
// clang-format on

TEST(Expr, FunctionWordsArePrefixes)
{
    sorted_map& vars = variables();
    vars.set("ent", "-5");
    vars.set("absent", "100");
    vars.set("al", "-2");
    EXPECT_EQ(value_of("absent"), 5); // abs applied to "ent"
    EXPECT_EQ(value_of("signal"), -1);
    vars.remove("ent");
    vars.remove("absent");
    vars.remove("al");
}

TEST(Expr, ErrorsAndWhereTheyStop)
{
    EXPECT_EQ(eval("(1+2").status, EXPR_MISSING_PAREN);
    EXPECT_EQ(eval("(1+2").value, 0);
    // The text where evaluation stopped.
    for (auto [text, rest] : {std::pair{"2(3)", "(3)"}, {"1+", ""}, {"(1+2))+2", ")+2"}}) {
        EXPECT_EQ(eval(text).status, EXPR_SYNTAX_ERROR) << text;
        EXPECT_EQ(eval(text).rest, rest) << text;
    }
    EXPECT_EQ(status_of("1 + 2"), EXPR_SYNTAX_ERROR);
    EXPECT_EQ(status_of("1#2"), EXPR_SYNTAX_ERROR);
    EXPECT_EQ(status_of("*2"), EXPR_SYNTAX_ERROR);
    EXPECT_EQ(status_of("(1+)"), EXPR_SYNTAX_ERROR);
    // A "(" at the very end is an empty group: 0 and no error, and nothing read past the end.
    EXPECT_EQ(value_of("("), 0);
    EXPECT_EQ(value_of("1+("), 1);
    EXPECT_EQ(value_of("()"), 0);
    // A tighter operator at the very end takes an empty operand.
    EXPECT_EQ(value_of("1+2*"), 1);
    // The status is reset by the next whole evaluation.
    EXPECT_EQ(status_of("2"), EXPR_OK);
}

TEST(Expr, DeepNestingIsRefusedNotACrash)
{
    std::string deep(200000, '(');
    EXPECT_EQ(status_of(deep.c_str()), EXPR_SYNTAX_ERROR);
    std::string bangs(200000, '!');
    EXPECT_EQ(status_of((bangs + "1").c_str()), EXPR_SYNTAX_ERROR);
    std::string ok(1000, '(');
    ok += "1" + std::string(1000, ')');
    EXPECT_EQ(value_of(ok.c_str()), 1);
}

TEST(Expr, VariablesAsOperands)
{
    sorted_map& vars = variables();
    vars.set("x", "7");
    vars.set("s", "abc");
    vars.set("n", "12abc");
    vars.set("o", "010");
    vars.set("h", "0x10");
    vars.set("f", "0.5");
    vars.set("a", "1");
    EXPECT_EQ(value_of("x*2+1"), 15);
    EXPECT_EQ(status_of("s+1"), EXPR_STRING_VALUE);
    EXPECT_EQ(value_of("n"), 12);
    EXPECT_EQ(value_of("o"), 8);
    EXPECT_EQ(value_of("h"), 16);
    EXPECT_EQ(value_of("f"), 0); // a value starting with "0" is an integer
    outcome o = eval("a=1");
    EXPECT_EQ(o.status, EXPR_SYNTAX_ERROR);
    EXPECT_EQ(o.rest, "=1");
    o = eval("1+s*2");
    EXPECT_EQ(o.status, EXPR_STRING_VALUE);
    EXPECT_EQ(o.rest, "*2");
    std::string long_name(128, 'v');
    EXPECT_EQ(status_of(long_name.c_str()), EXPR_BAD_NAME);
    for (const char* name : {"x", "s", "n", "o", "h", "f", "a"})
        vars.remove(name);
}

TEST(Expr, TableItemsAsOperands)
{
    bool own_tables = !req.tables;
    if (own_tables)
        req.tables = new table_array;
    EXPECT_EQ(status_of("nosuch"), EXPR_BAD_NAME); // no current table
    req.tables->set_current_name("t");
    req.tables->store(std::make_unique<table_named>(str_dup("price\tqty\tword\n2.5\t4\tabc\n")));
    req.tables->set_current_name("other");
    req.tables->store(std::make_unique<table>(str_dup("9\t8\n")));
    EXPECT_EQ(value_of("t::price*t::qty"), 10);
    EXPECT_EQ(value_of("::1+1"), 9);    // plain table: column by number
    EXPECT_EQ(value_of("anything"), 9); // non-numeric name selects column 0
    EXPECT_EQ(status_of("t::word"), EXPR_STRING_VALUE);
    EXPECT_EQ(status_of("t::nosuch"), EXPR_STRING_VALUE); // "[invalid item name nosuch]"
    EXPECT_EQ(status_of("missing::price"), EXPR_BAD_NAME);
    EXPECT_EQ(status_of("::7"), EXPR_SYNTAX_ERROR); // the table has no cell 7
    req.tables->set_current_name("t");
    EXPECT_EQ(value_of("price"), 2.5);
    req.tables->get_current()->set_current(5);
    EXPECT_EQ(status_of("price"), EXPR_SYNTAX_ERROR); // no current row: no text
    if (own_tables) {
        delete req.tables;
        req.tables = nullptr;
    } else {
        req.tables->remove_current();
        req.tables->set_current_name("other");
        req.tables->remove_current();
        req.tables->set_current_name(nullptr);
    }
}

TEST(Expr, Strip)
{
    char text[] = " 1 +\t2\n* 3 ";
    EXPECT_STREQ(expr_strip(text), "1+2*3");
    EXPECT_EQ(expr_strip(nullptr), nullptr);
}

// clang-format off
TEST(Expr, FormatNumberPaths)
{
    // Any "o", "u", "x" or "X" in the text makes the value an unsigned integer; an "i", as
    // in "pi", an integer.
    expect_formatted({{7.9, nullptr, "7"}, {14, "%.2f", "14.00"}, {3.14159, "v=%.3f!", "v=3.142!"},
                      {3.14159, "pi=%.3f!", "pi=3.000!"}, {1.5, "%g", "1.5"},
                      {-1, "%u", "4294967295"}, {-1, "%d of", "-1 of"},
                      {4294967296.0 + 5, "%X", "5"}, {-2.9, "%5d|", "   -2|"}, {42, "%ld", "42"},
                      {42, "100%% %i", "100% 42"}});
}

TEST(Expr, FormatNumberNeverPassesANumberToATextConversion)
{
    // Nor a width or precision wider than the result can be.
    expect_formatted({{1, "%s", "%s"}, {1, "%n%.1f", "%n%.1f"}, {1, "%.1f %.1f", "1.0 %.1f"},
                      {1, "%*d", "%*d"}, {1, "%", "%"}, {1, "abc", "abc"}, {1, "%2000d", "%2000d"},
                      {1, "%.99999999999f", "%.99999999999f"}});
    EXPECT_EQ(own(expr_format_number(1, "%1000d")).size(), 1000u);
    EXPECT_EQ(own(expr_format_number(1e300, "%.1000f")).size(), 1023u);
}
// clang-format on

} // namespace
