// The expression evaluator: operator reader, two-level precedence loop, operands and
// number formatting.
#include "interp/expr.h"

#include <cctype>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "core/number.h"
#include "core/run.h"
#include "core/sorted_map.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"

int expr_status = EXPR_OK;

namespace {

// ---- operator codes: the operator's first characters packed, the first in the low byte ----

constexpr int pack2(char a, char b)
{
    return (unsigned char)a + 256 * (unsigned char)b;
}

constexpr int pack4(const char* s)
{
    return pack2(s[0], s[1]) + 65536 * pack2(s[2], s[3]);
}

constexpr int OP_NONE = 0;
constexpr int OP_AND = pack2('&', '&');
constexpr int OP_OR = pack2('|', '|');
constexpr int OP_SHL = pack2('<', '<');
constexpr int OP_SHR = pack2('>', '>');
constexpr int OP_EQ = pack2('=', '=');
constexpr int OP_NE = pack2('!', '=');
constexpr int OP_LE = pack2('<', '=');
constexpr int OP_GE = pack2('>', '=');
constexpr int FN_ROUND = pack4("roun");
constexpr int FN_FLOOR = pack4("floo");
constexpr int FN_CEILING = pack4("ceil");
constexpr int FN_ABS = pack4("abs ");
constexpr int FN_SQRT = pack4("sqrt");
constexpr int FN_SIGN = pack4("sign");

struct function_word {
    const char* word;
    int code;
};

// Tried in this order as prefixes of the text.
constexpr function_word FUNCTIONS[] = {
    {"round", FN_ROUND}, {"floor", FN_FLOOR}, {"ceiling", FN_CEILING},
    {"abs", FN_ABS},     {"sqrt", FN_SQRT},   {"sign", FN_SIGN},
};

constexpr int NAME_BUFFER = 128;

// The size of the buffer a formatted number is made in; longer results are cut.
constexpr int FORMAT_BUFFER = 1024;

// Deeper nesting of groups and prefix operators is refused as a syntax error rather than
// running out of stack.
constexpr int MAX_NESTING = 5000;
int nesting = 0;

// One evaluation call's state.
struct evaluation {
    double acc = 0;
    double cur = 0;
    int pending = OP_NONE;
    bool have_value = false;   // an operand stands and an operator may follow
    bool seen_operand = false; // an operand has been read at all in this call
    bool acc_set = false;
};

// ---- tokens -----------------------------------------------------------------------------

// The code of an operator made of one or two of the characters "!%&*+-/<=>^|~"; 0 when c
// starts none (a single "=" is no operator). len is set to the characters it spans.
int symbol_operator(char c, char next, int& len)
{
    len = 1;
    switch (c) {
    case '!':
    case '<':
    case '>':
        if (next == '=' || (next == c && c != '!')) {
            len = 2;
            return pack2(c, next);
        }
        return c;
    case '&':
    case '|':
    case '=':
        if (next == c) {
            len = 2;
            return pack2(c, c);
        }
        return c == '=' ? OP_NONE : c;
    default:
        return c;
    }
}

// Reads an operator or function word at p and moves past it; 0 and status "Syntax error"
// when none starts there.
int read_operator(const char*& p)
{
    if (*p && strchr("!%&*+-/<=>^|~", *p)) {
        int len;
        int code = symbol_operator(p[0], p[1], len);
        if (code != OP_NONE) {
            p += len;
            return code;
        }
    } else {
        for (const function_word& f : FUNCTIONS) {
            size_t len = strlen(f.word);
            if (strncmp(p, f.word, len) == 0) {
                p += len;
                return f.code;
            }
        }
    }
    expr_status = EXPR_SYNTAX_ERROR;
    return OP_NONE;
}

bool is_prefix_operator(int op)
{
    return op == '!' || op == '~' || op == FN_ROUND || op == FN_FLOOR || op == FN_CEILING ||
           op == FN_ABS || op == FN_SQRT || op == FN_SIGN;
}

// Binding strength; no pending operator ranks above every operator.
int precedence(int op)
{
    // clang-format off
    switch (op) {
    case OP_NONE: return 11;
    case '*': case '/': case '%': return 9;
    case '+': case '-': return 8;
    case OP_SHL: case OP_SHR: return 7;
    case '<': case '>': case OP_LE: case OP_GE: case OP_EQ: case OP_NE: return 6;
    case '&': return 5;
    case '^': case '|': return 4;
    case OP_AND: return 3;
    case OP_OR: return 2;
    default: return 1;
    }
    // clang-format on
}

// ---- numbers ----------------------------------------------------------------------------

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Length of a decimal floating-point number at p (optional sign, digits with an optional
// fraction, optional exponent); 0 when none starts there.
size_t decimal_length(const char* p)
{
    const char* q = p;
    if (*q == '+' || *q == '-')
        q++;
    int digits = 0;
    for (; is_digit(*q); q++)
        digits++;
    if (*q == '.')
        for (q++; is_digit(*q); q++)
            digits++;
    if (digits == 0)
        return 0;
    if (*q == 'e' || *q == 'E') {
        const char* e = q + 1;
        if (*e == '+' || *e == '-')
            e++;
        if (is_digit(*e)) {
            while (is_digit(*e))
                e++;
            q = e;
        }
    }
    return q - p;
}

// Reads a number at p: a leading "0" starts an unsigned 32-bit integer whose base follows
// from its prefix ("0x" hexadecimal, else octal), anything else a decimal number. False when
// no number starts at p.
bool read_number(const char* p, double& value, const char*& end)
{
    if (*p == '0') {
        char* stop;
        value = (double)(uint32_t)strtoul(p, &stop, 0);
        end = stop;
        return true;
    }
    size_t len = decimal_length(p);
    if (len == 0)
        return false;
    if (!parse_decimal(p, len, value)) {
        str_holder copy(str_dup_n(p, len)); // strtod alone would also take "inf" and hex forms
        value = strtod(copy.get(), nullptr);
    }
    end = p + len;
    return true;
}

int64_t to_int64(double value)
{
    if (!(value >= -9223372036854775808.0 && value < 9223372036854775808.0))
        return INT64_MIN;
    return (int64_t)value;
}

// ---- operands ---------------------------------------------------------------------------

// Sets cur from the number at the start of text; status "Variable has string value" when
// none starts there, otherwise "OK".
void text_operand(const char* text, double& cur)
{
    double value;
    const char* end;
    if (!read_number(text, value, end)) {
        expr_status = EXPR_STRING_VALUE;
        return;
    }
    cur = value;
    expr_status = EXPR_OK;
}

// The table a name addresses: "t::col" table t, "::col" and "col" the current table. item is
// set to the column part. Null when there is no such table. Ownership: view.
const table* item_table(const char* name, const char*& item)
{
    const char* sep = strstr(name, "::");
    item = sep ? sep + 2 : name;
    if (!sep || sep == name)
        return req.tables->get_current();
    std::string table_name(name, sep - name);
    return req.tables->get_by_name(table_name.c_str());
}

// Sets cur from the item of the current row, escaped like any inserted item. No table gives
// "Bad variable or table item name"; no text for the item leaves the status as it is.
void item_operand(const char* name, double& cur)
{
    const char* item;
    const table* t = item_table(name, item);
    if (!t) {
        expr_status = EXPR_BAD_NAME;
        return;
    }
    str_holder escaped(escape_take(t->item_by_name(item)));
    if (escaped.get())
        text_operand(escaped.get(), cur);
}

bool is_name_char(char c)
{
    return isalnum((unsigned char)c) || c == '_' || c == ':';
}

// Reads the name at p (moving past it) and sets cur from the variable of that name or, when
// there is none, from the table item. The status tells the outcome.
void name_operand(const char*& p, double& cur)
{
    const char* start = p;
    while (is_name_char(*p))
        p++;
    size_t len = p - start;
    if (len >= NAME_BUFFER) {
        expr_status = EXPR_BAD_NAME;
        return;
    }
    char name[NAME_BUFFER];
    memcpy(name, start, len);
    name[len] = '\0';
    const char* value = req.variables->get(name);
    if (value)
        text_operand(value, cur);
    else
        item_operand(name, cur);
}

// ---- arithmetic -------------------------------------------------------------------------

double apply(double a, int op, double b)
{
    int x = expr_to_int(a), y = expr_to_int(b);
    // clang-format off
    switch (op) {
    case '+': return a + b;
    case '-': return a - b;
    case '*': return a * b;
    case '/': return b == 0 ? 1e300 : a / b;
    case '%': return expr_int_remainder(x, y);
    case '&': return x & y;
    case '|': return x | y;
    case '^': return x ^ y;
    case OP_SHL: return (int32_t)((uint32_t)x << (y & 31));
    case OP_SHR: return x >> (y & 31);
    case OP_AND: return x != 0 && y != 0;
    case OP_OR: return x != 0 || y != 0;
    case '<': return a < b;
    case '>': return a > b;
    case OP_LE: return a <= b;
    case OP_GE: return a >= b;
    case OP_EQ: return a == b;
    case OP_NE: return a != b;
    default: return b;
    }
    // clang-format on
}

double apply_prefix(int op, double x)
{
    // clang-format off
    switch (op) {
    case '!': return expr_to_int(x) == 0;
    case '~': return (uint32_t)~expr_to_int(x);
    case FN_ROUND: return floor(x + 0.5);
    case FN_FLOOR: return floor(x);
    case FN_CEILING: return ceil(x);
    case FN_ABS: return fabs(x);
    case FN_SIGN: return x > 0 ? 1 : x < 0 ? -1 : 0;
    default: return 0;  // sqrt is accepted and computes nothing
    }
    // clang-format on
}

// ---- the loop's steps: each returns false when the evaluation stops on an error ----------

bool step_group(const char*& p, evaluation& s)
{
    if (s.have_value) {
        expr_status = EXPR_SYNTAX_ERROR;
        return false;
    }
    p++;
    s.cur = expr_evaluate(p, EXPR_GROUP);
    if (expr_status != EXPR_OK)
        return false;
    if (*p)
        p++; // the ")"; a "(" that ends the text has none
    s.have_value = s.seen_operand = true;
    return true;
}

bool step_prefix(const char*& p, evaluation& s, int op)
{
    double x = expr_evaluate(p, EXPR_OPERAND);
    if (expr_status != EXPR_OK)
        return false;
    s.cur = apply_prefix(op, x); // replaces a value standing before it
    s.have_value = s.seen_operand = true;
    return true;
}

// A tighter operator than the pending one takes exactly one operand at once; otherwise the
// pending operation is done and the operator read becomes pending.
bool step_binary(const char*& p, evaluation& s, int op)
{
    if (!s.have_value) {
        expr_status = EXPR_SYNTAX_ERROR;
        return false;
    }
    if (precedence(op) > precedence(s.pending)) {
        double b = expr_evaluate(p, EXPR_OPERAND);
        if (expr_status != EXPR_OK)
            return false;
        s.cur = apply(s.cur, op, b);
        return true;
    }
    if (s.pending != OP_NONE) {
        s.acc = apply(s.acc, s.pending, s.cur);
    } else {
        s.acc = s.cur;
        s.acc_set = true;
    }
    s.pending = op;
    s.have_value = false;
    return true;
}

bool step_operand_or_operator(const char*& p, evaluation& s)
{
    double number;
    const char* end;
    // After the first operand a sign is always an operator.
    if (read_number(p, number, end) && !(s.seen_operand && (*p == '+' || *p == '-'))) {
        s.cur = number;
        s.have_value = s.seen_operand = true;
        p = end;
        return true;
    }
    int op = read_operator(p);
    if (op != OP_NONE)
        return is_prefix_operator(op) ? step_prefix(p, s, op) : step_binary(p, s, op);
    if (!isalpha((unsigned char)*p) && *p != '_' && *p != ':')
        return false; // the failed operator read left "Syntax error"
    name_operand(p, s.cur);
    if (expr_status != EXPR_OK)
        return false;
    s.have_value = s.seen_operand = true;
    return true;
}

double run_loop(const char*& p, int mode)
{
    evaluation s;
    while (true) {
        if (!*p) {
            if (mode == EXPR_GROUP) {
                expr_status = EXPR_MISSING_PAREN;
                return 0;
            }
            break;
        }
        if ((mode == EXPR_GROUP && *p == ')') || (mode == EXPR_OPERAND && s.seen_operand))
            break;
        bool ok = *p == '(' ? step_group(p, s) : step_operand_or_operator(p, s);
        if (!ok)
            return 0;
    }
    if (s.pending != OP_NONE && !s.have_value) {
        expr_status = EXPR_SYNTAX_ERROR; // a trailing operator
        return 0;
    }
    return apply(s.acc, s.pending, s.cur);
}

// ---- formatting -------------------------------------------------------------------------

enum class number_kind { floating, signed_int, unsigned_int };

// One conversion of a format: its text span and a rebuilt specification without length
// modifiers.
struct conversion {
    size_t length = 0;      // bytes of the format it spans
    std::string spec;       // "%" flags width precision and the conversion letter
    char letter = '\0';     // NUL when the format ends inside the conversion
    bool oversized = false; // a width or precision beyond what the result can hold
};

// Moves past a run of digits; a number above the result buffer marks the conversion.
void skip_field_width(const char*& q, conversion& c)
{
    long n = 0;
    for (; is_digit(*q); q++)
        n = n > FORMAT_BUFFER ? n : n * 10 + (*q - '0');
    c.oversized = c.oversized || n > FORMAT_BUFFER;
}

conversion read_conversion(const char* p)
{
    conversion c;
    const char* q = p + 1;
    while (*q && strchr("-+ #0'", *q))
        q++;
    skip_field_width(q, c);
    if (*q == '.')
        skip_field_width(++q, c);
    c.spec.assign(p, q - p);
    while (*q && strchr("hlLqjzt", *q))
        q++;
    c.letter = *q;
    if (*q) {
        c.spec += *q;
        q++;
    }
    c.length = q - p;
    return c;
}

// The decimals of a plain "%f" or "%.Nf" conversion (no flags, no width), whose digits
// fmt_fixed can print; -1 for any other conversion.
int fixed_decimals(const conversion& c)
{
    const std::string& s = c.spec;
    if (c.letter != 'f' && c.letter != 'F')
        return -1;
    if (s.size() == 2)
        return 6;
    if (s[1] != '.')
        return -1;
    int decimals = 0;
    for (size_t i = 2; i + 1 < s.size(); i++) {
        if (!is_digit(s[i]) || decimals > FMT_FIXED_MAX_DECIMALS)
            return -1;
        decimals = decimals * 10 + (s[i] - '0');
    }
    return decimals;
}

// Formats the value through one conversion; false when the conversion cannot take a number.
bool format_conversion(const conversion& c, double value, number_kind kind, std::string& out)
{
    char piece[FORMAT_BUFFER];
    if (c.oversized)
        return false;
    bool integer = kind != number_kind::floating;
    uint32_t low_bits = (uint32_t)to_int64(value);
    int whole = kind == number_kind::unsigned_int ? (int)low_bits : expr_to_int(value);
    if (c.letter && strchr("fFeEgGaA", c.letter)) {
        double shown = kind == number_kind::floating       ? value
                       : kind == number_kind::unsigned_int ? (double)low_bits
                                                           : (double)whole;
        int decimals = fixed_decimals(c);
        fmt_digits fixed;
        if (decimals >= 0 && fmt_fixed(shown, decimals, fixed)) {
            out += fixed.text;
            return true;
        }
        snprintf(piece, sizeof piece, c.spec.c_str(), shown);
    } else if (integer && c.letter && strchr("di", c.letter)) {
        snprintf(piece, sizeof piece, c.spec.c_str(), whole);
    } else if (integer && c.letter && strchr("ouxXc", c.letter)) {
        snprintf(piece, sizeof piece, c.spec.c_str(), (unsigned)whole);
    } else {
        return false;
    }
    out += piece; // snprintf has terminated it, also when it cut the text
    return true;
}

// The decimals of a format that is one plain "%.Nf" (or "%f") and nothing else; -1 otherwise.
int whole_fixed_format(const char* format)
{
    if (format[0] != '%')
        return -1;
    if (format[1] == 'f' && !format[2])
        return 6;
    if (format[1] != '.')
        return -1;
    int decimals = 0;
    const char* p = format + 2;
    for (; is_digit(*p) && decimals <= FMT_FIXED_MAX_DECIMALS; p++)
        decimals = decimals * 10 + (*p - '0');
    return p[0] == 'f' && !p[1] && decimals <= FMT_FIXED_MAX_DECIMALS ? decimals : -1;
}

number_kind format_kind(const char* format)
{
    if (!strpbrk(format, "diouxX"))
        return number_kind::floating;
    return strpbrk(format, "ouxX") ? number_kind::unsigned_int : number_kind::signed_int;
}

} // namespace

// ---- interface ------------------------------------------------------------------------

const char* expr_status_text(int status)
{
    static const char* const TEXTS[] = {"OK", "Syntax error", "Missing ')'",
                                        "Variable has string value",
                                        "Bad variable or table item name"};
    return status >= 0 && status <= EXPR_BAD_NAME ? TEXTS[status] : "";
}

double expr_evaluate(const char*& position, int mode)
{
    if (mode == EXPR_WHOLE)
        expr_status = EXPR_OK;
    if (!position || !*position)
        return 0;
    if (nesting >= MAX_NESTING) {
        expr_status = EXPR_SYNTAX_ERROR;
        return 0;
    }
    nesting++;
    double value = run_loop(position, mode);
    nesting--;
    return value;
}

double expr_evaluate_text(const char* text, const char*& rest)
{
    rest = str_or_empty(text);
    return expr_evaluate(rest, EXPR_WHOLE);
}

char* expr_strip(char* text)
{
    if (!text)
        return text;
    char* out = text;
    for (const char* in = text; *in; in++)
        if (!isspace((unsigned char)*in))
            *out++ = *in;
    *out = '\0';
    return text;
}

char* expr_error_message(const char* name, const char* rest)
{
    return page_error("[%s: %s near '%s']", str_or_empty(name), expr_status_text(expr_status),
                      str_or_empty(rest));
}

int expr_to_int(double value)
{
    if (!(value > -2147483649.0 && value < 2147483648.0))
        return INT_MIN;
    return (int)value;
}

namespace {

void divisor_check(int b)
{
    if (b != 0)
        return;
    run_end_by_signal(SIGFPE);
}

} // namespace

int expr_int_divide(int a, int b)
{
    divisor_check(b);
    if (b == -1)
        return (int)(0u - (uint32_t)a);
    return a / b;
}

int expr_int_remainder(int a, int b)
{
    divisor_check(b);
    return b == -1 ? 0 : a % b;
}

char* expr_format_number(double value, const char* format)
{
    if (!format)
        return str_dup(fmt_int(expr_to_int(value)).text);
    int decimals = whole_fixed_format(format);
    fmt_digits fixed;
    if (decimals >= 0 && fmt_fixed(value, decimals, fixed))
        return str_dup(fixed.text); // the common "%.2f" without building the general result
    number_kind kind = format_kind(format);
    std::string out;
    bool used = false;
    for (const char* p = format; *p;) {
        if (*p != '%') {
            out += *p++;
            continue;
        }
        if (p[1] == '%') {
            out += '%';
            p += 2;
            continue;
        }
        conversion c = read_conversion(p);
        if (used || !format_conversion(c, value, kind, out))
            out.append(p, c.length);
        used = true;
        p += c.length;
    }
    if (out.size() >= FORMAT_BUFFER)
        out.resize(FORMAT_BUFFER - 1);
    return str_dup(out.c_str());
}
