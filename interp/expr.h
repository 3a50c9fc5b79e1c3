// The arithmetic expression evaluator behind `eval`, `if`, `while`, `for` and `var`.
//
// An expression is a short infix text such as "a+2*(b-1)" read into a double. Operands are
// numbers, variables of the variable store and table items ("t::col", "::col", "col"); a
// name of 128 characters or more is refused as "Bad variable or table item name". The caller
// strips every white-space character first: the evaluator never skips blanks. A null string
// reads as empty text.
//
// Precedence deliberately keeps only two levels at once (the pending operator and one tighter
// level), function names are matched as prefixes ("absent" is abs of "ent"), sqrt yields 0,
// "/" by zero yields 1e300, and a number starting with "0" is a prefixed unsigned integer.
#ifndef TESSEL_INTERP_EXPR_H
#define TESSEL_INTERP_EXPR_H

// ---- status -----------------------------------------------------------------------------

constexpr int EXPR_OK = 0;
constexpr int EXPR_SYNTAX_ERROR = 1;
constexpr int EXPR_MISSING_PAREN = 2;
constexpr int EXPR_STRING_VALUE = 3;
constexpr int EXPR_BAD_NAME = 4;

// The status of the last evaluation: reset by every whole-text evaluation and left holding
// the last error code. Read it right after the call, before any other evaluation.
extern int expr_status;

// "OK", "Syntax error", "Missing ')'", "Variable has string value",
// "Bad variable or table item name"; "" for any other code. Ownership: view of a literal.
const char* expr_status_text(int status);

// ---- evaluation -------------------------------------------------------------------------

constexpr int EXPR_WHOLE = 0;   // the whole text; resets the status
constexpr int EXPR_GROUP = 1;   // up to ")" (not consumed); the end of text is "Missing ')'"
constexpr int EXPR_OPERAND = 2; // exactly one operand

// Evaluates from position, which is moved to where reading stopped (on an error, to where
// the error was found). On a non-zero expr_status the result is 0 and meaningless. Callers
// use EXPR_WHOLE. Ownership: position is a view into the caller's text.
double expr_evaluate(const char*& position, int mode);

// expr_evaluate(EXPR_WHOLE) of text; rest is set to where reading stopped. Ownership: view.
double expr_evaluate_text(const char* text, const char*& rest);

// Removes every white-space character of text in place; returns text. Ownership: view.
char* expr_strip(char* text);

// "[" name ": " status text " near '" rest "']" for the current expr_status, e.g.
// "[eval: Syntax error near ')+2']". Ownership: borrows both, new result.
char* expr_error_message(const char* name, const char* rest);

// ---- formatting -------------------------------------------------------------------------

// The value as text, made in a 1024-byte buffer:
// - no format (null): the value truncated toward zero to a 32-bit integer, as "%d";
// - a format with none of the letters "diouxX" anywhere: formatted as a double;
// - a format with any of "ouxX" anywhere: the low 32 bits of the value truncated to 64 bits,
//   unsigned (so "Total: %.2f", which holds an "o", prints a whole number);
// - otherwise ("d" or "i" only): the value truncated toward zero to a 32-bit integer.
// Only the first conversion of the format takes the value; conversions that cannot take a
// number (such as "%s" or "%n"), and any after the first, are copied as text.
// Ownership: borrows format, new result.
char* expr_format_number(double value, const char* format);

// The value truncated toward zero to a 32-bit signed integer; NaN and values outside the
// range give INT_MIN, as the processor's conversion does.
int expr_to_int(double value);

// Integer quotient and remainder of 32-bit values, wrapping around as the other 32-bit
// operations do (INT_MIN / -1 is INT_MIN, INT_MIN % -1 is 0). A zero divisor ends the process
// with SIGFPE, deliberately: the signal is raised explicitly, with its default action, so
// every build (sanitizers included) faults alike instead of relying on undefined behaviour
// (run_end_by_signal, core/run.h: a resident worker answers the request first).
int expr_int_divide(int a, int b);
int expr_int_remainder(int a, int b);

#endif
