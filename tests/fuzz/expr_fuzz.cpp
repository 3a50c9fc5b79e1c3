// Fuzz target: the expression evaluator over variables and table items, and the number
// formatting of its result. Input: the format, a line feed, the expression.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/str.h"
#include "fuzz_support.h"
#include "interp/expr.h"
#include "interp/request.h"

namespace {

// Variables and a current table for the expression's names to find.
void define_operands()
{
    req.variables->set("n", "42");
    req.variables->set("big", "2147483647");
    req.variables->set("neg", "-2147483648");
    req.variables->set("s", "text");
    req.variables->set("f", "1.5e3");
    req.tables->set_current_name("t");
    request_store_table(std::make_unique<table_named>(str_dup("a\tb\tc\n1\t2.5\tx\n-7\t\t0x1f\n")));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_scratch_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_reset_request();
    define_operands();
    std::string input((const char*)data, size);
    size_t line = input.find('\n');
    bool has_format = line != std::string::npos;
    std::string format = has_format ? input.substr(0, line) : "";
    std::string expression = has_format ? input.substr(line + 1) : input;
    fuzz_run([&] {
        str_holder text(str_dup(expression.c_str()));
        expr_strip(text.get());
        const char* rest = nullptr;
        double value = expr_evaluate_text(text.get(), rest);
        if (expr_status != EXPR_OK)
            str_free(expr_error_message("eval", rest));
        str_free(expr_format_number(value, has_format ? format.c_str() : nullptr));
        expr_to_int(value);
    });
    return 0;
}
