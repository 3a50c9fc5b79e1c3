// Variables and control flow: `var`, `eval`, `if`, `while` and `for`.
//
// They share the variable store (req.variables) with the expression evaluator. The loops and
// `if` take their parameters raw and expand only the branch or body they need, each time
// afresh from the raw text in their own slot, so that operators in the parts not chosen
// never run.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "core/number.h"
#include "core/sorted_map.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/expr.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

// The most bodies one `while` expands; the 1000th pass ends the loop with a message.
constexpr int MAX_WHILE_PASSES = 999;

// Strips text in place and evaluates it. Null on success; otherwise the evaluator's message
// built with who ("[if: Syntax error near ...]"). Ownership: borrows both, new result.
char* control_eval(char* text, const char* who, double& value)
{
    const char* rest;
    value = expr_evaluate_text(expr_strip(text), rest);
    return expr_status == EXPR_OK ? nullptr : expr_error_message(who, rest);
}

// Parameter i expanded in its slot and handed over, the slot left empty: a branch without
// calls costs no copy. Null when the call has none. Ownership: new result.
char* control_branch(int count, char** params, int i)
{
    char* text = expand_param_text(count, params, i);
    if (text)
        params[i] = nullptr;
    return text;
}

// The 32-bit integer arithmetic of var(name;op;operand): wraps around, and a zero divisor
// ends the process with SIGFPE.
int control_int_op(char op, int a, int b)
{
    switch (op) {
    case '+':
        return (int)((uint32_t)a + (uint32_t)b);
    case '-':
        return (int)((uint32_t)a - (uint32_t)b);
    case '*':
        return (int)((uint32_t)a * (uint32_t)b);
    default:
        return expr_int_divide(a, b);
    }
}

// The new value of var(name;op;operand) from the old one, for every op but "." (appending).
// Ownership: borrows all, new result.
char* var_compute(const char* old, const char* op, char* operand)
{
    if (str_equal(op, "+") || str_equal(op, "-") || str_equal(op, "*") || str_equal(op, "/"))
        return str_dup(fmt_int(control_int_op(op[0], str_to_int(old), str_to_int(operand))).text);
    double value;
    char* error = control_eval(operand, "var", value);
    return error ? error : expr_format_number(value, op);
}

// Whether the variable name holds request data.
bool var_holds_request_data(const char* name)
{
    return req.request_data_variables->get(name) != nullptr;
}

// Records whether the variable name now holds request data.
void var_mark(const char* name, bool request_data)
{
    req.request_data_variables->set(name, request_data ? "1" : nullptr);
}

// Puts a loop variable's earlier value back (or removes it) when the loop ends, also when
// a table lock violation unwinds through the loop. While the loop runs it holds numbers,
// which are not request data, whatever it held before.
class loop_variable {
public:
    explicit loop_variable(const char* name)
        : name_(name), saved_(str_dup(req.variables->get(name))),
          saved_request_data_(var_holds_request_data(name))
    {
        var_mark(name, false);
    }
    ~loop_variable()
    {
        req.variables->set_take(name_, saved_);
        var_mark(name_, saved_request_data_);
    }
    loop_variable(const loop_variable&) = delete;
    loop_variable& operator=(const loop_variable&) = delete;
    void set(int value) { req.variables->set(name_, fmt_int(value).text); }

private:
    const char* name_;
    char* saved_;
    bool saved_request_data_;
};

// var[name], var[name;value], var[name;op;operand]. A variable holds request data when the
// call that set it read some; reading it then reads request data.
// The value of the variable name, as var[name] shows it. Ownership: borrows name, new result.
char* var_read(const char* name)
{
    if (var_holds_request_data(name))
        request_data_note();
    return escape_take(str_dup(req.variables->get(name)));
}

char* op_var(int count, char** params)
{
    if (count == 1) {
        // A name without calls, as nearly every one is, is read where the call wrote it.
        std::string_view raw = param_raw_view(params, 0);
        char name[64];
        if (!raw.empty() && raw.size() < sizeof name && !memchr(raw.data(), '^', raw.size())) {
            memcpy(name, raw.data(), raw.size());
            name[raw.size()] = '\0';
            return var_read(name);
        }
    }
    {
        escape_mode_scope none(ESCAPE_MODE_NONE);
        if (count <= 1)
            params[0] = expand_for_second_pass(param_raw(params, 0));
        else
            for (int i = 0; i < count; i++)
                expand_param(params, i);
    }
    sorted_map& vars = *req.variables;
    if (count <= 1) {
        expand_param(params, 0); // the name is expanded a second time
        return var_read(params[0]);
    }
    bool request_data = request_data_in_call();
    if (count == 2) {
        vars.set_take(params[0], params[1]); // the value is handed over from its slot
        params[1] = nullptr;
    } else if (str_equal(params[1], ".")) {
        vars.append(params[0], params[2]); // in place, so building a text costs what it adds
        request_data = request_data || var_holds_request_data(params[0]);
    } else
        vars.set_take(params[0], var_compute(vars.get(params[0]), params[1], params[2]));
    var_mark(params[0], request_data);
    return nullptr;
}

// eval[expression;format].
char* op_eval(int count, char** params)
{
    double value;
    char* error = control_eval(params[0], "eval", value);
    return error ? error : expr_format_number(value, param_text(count, params, 1));
}

// if[condition;then;else] or if[condition;negative;zero;positive].
constexpr param_range IF_PARAMS = {1, 4};

char* op_if(int count, char** params)
{
    double value;
    char* error = control_eval(expand_param_text(count, params, 0), "if", value);
    if (error)
        return error;
    if (!IF_PARAMS.accepts(count)) // refused only after the condition ran
        return page_error("[if: wrong param count]");
    if (count <= 3)
        return control_branch(count, params, value == 0 ? 2 : 1); // NaN is true
    return control_branch(count, params, value < 0 ? 1 : value == 0 ? 2 : 3);
}

// while[condition;body]: at most 999 bodies.
char* op_while(int, char** params)
{
    if (!params[0])
        return nullptr;
    str_builder result;
    expansion_plan condition_plan(params[0]), body_plan(params[1]);
    for (int pass = 1;; pass++) {
        if (pass > MAX_WHILE_PASSES)
            return page_error("[while: endless loop detected]");
        str_holder condition(condition_plan.expand());
        if (!str_nonempty(expr_strip(condition.get())))
            break;
        double value;
        char* error = control_eval(condition.get(), "while", value);
        if (error)
            return error;
        if (value == 0)
            break;
        str_holder body(body_plan.expand());
        result.append(body.get());
    }
    return result.take(true);
}

// for[variable;from;to;body;separator]: the variable counts from..to and gets its earlier
// value back afterwards.
char* op_for(int count, char** params)
{
    const char* name = expand_param_text(count, params, 0);
    char* from_text = expand_param_text(count, params, 1);
    char* to_text = expand_param_text(count, params, 2);
    const char* separator = expand_param_text(count, params, 4);
    double from, to;
    if (char* error = control_eval(from_text, "for from", from))
        return error;
    if (char* error = control_eval(to_text, "for to", to))
        return error;
    loop_variable variable(name);
    expansion_plan body(param_text(count, params, 3));
    str_builder result;
    bool have_result = false; // an earlier body produced text
    for (int64_t i = expr_to_int(from); i <= expr_to_int(to); i++) {
        variable.set((int)i);
        if (have_result)
            result.append(separator);
        str_holder text(body.expand());
        if (text.get()) {
            result.append(text.get());
            have_result = true;
        }
    }
    return result.take(true);
}

} // namespace

// clang-format off
extern constexpr op_row control_rows[] = {
    // name    handler    params  flags       accepted
    {"var",    op_var,    0,      RAW_PARAMS | LAZY_PARAMS, {1, 3}},
    {"eval",   op_eval,   0,      0,          {1, 2}},
    {"if",     op_if,     0,      RAW_PARAMS | LAZY_PARAMS, IF_PARAMS},
    {"while",  op_while,  2,      RAW_PARAMS},
    {"for",    op_for,    0,      RAW_PARAMS, {4, 5}},
};
// clang-format on

void register_control_ops()
{
    register_rows(control_rows);
}
