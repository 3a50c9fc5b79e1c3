// The operator registry and the expander that finds "^name[p1;p2]" calls and splices results.
#ifndef TESSEL_INTERP_REGISTRY_H
#define TESSEL_INTERP_REGISTRY_H

#include <cstddef>
#include <string_view>
#include <vector>

// A handler reads (count, params) and returns a new heap string or null. The parameter slots
// belong to the expander: a handler may replace a slot (with a heap string or null) but never
// frees one. An empty parameter is a null slot.
using operator_handler = char* (*)(int count, char** params);

// Flag bit 0: parameters are handed over unexpanded; the handler expands what it needs.
constexpr unsigned RAW_PARAMS = 1;

// Flag bit 1: the result is request data (a form field, a cookie, the query string...): the
// dispatcher notes it (request_data_note in interp/request.h) when the handler returns.
constexpr unsigned REQUEST_DATA = 2;

// Flag bit 2, with RAW_PARAMS: a slot that the handler reads only through expand_param (and
// the accessors built on it), param_raw or param_raw_view is filled when it asks: a parameter it
// expands is expanded straight from the text around the call, with no raw copy, and one it never
// reads (a branch not chosen) is never copied. Until then the slot holds a mark that is no text:
// the handler reads no slot directly before one of those calls.
constexpr unsigned LAZY_PARAMS = 4;

// The most parameters one call may carry; a call with more is left as text.
constexpr int MAX_PARAMS = 19;

// The nesting depth beyond which every call yields "[infinite operator recursion detected]".
constexpr int MAX_DEPTH = 999;

// The parameter counts from min to max that an operator works with; max 0: no upper bound.
// The empty range accepts every count.
struct param_range {
    int min = 0;
    int max = 0;
    constexpr bool accepts(int count) const { return count >= min && (max == 0 || count <= max); }
};

// One row of a family's registration table. When param_count is 0 the dispatcher passes
// every count, and accepted declares the counts the handler works with: a handler that refuses
// the others tests its range with accepts(), and the page checker reports calls outside it.
// A family names such a range once, as a constant that both its row and its handler read.
struct op_row {
    const char* name;
    operator_handler handler;
    int param_count; // 0: any number
    unsigned flags;
    param_range accepted = {};
};

// A registered operator: its row, and what registered it (the family's name, or the source
// file whose register_rows added it; null otherwise). Both members have initialisers, so a
// static table of entries is constant-initialised: the empty one is zeroed memory that costs
// nothing until an entry is written, and the program's pre-filled one is data that no code
// runs to build.
struct operator_entry {
    const op_row* row = nullptr;
    const char* source = nullptr;
};

// Adds an operator to the registry. Ignored for a null or empty name and for a
// name that is registered already: the first registration wins. source names what registers
// it (kept for tests and diagnostics); accepted is as in op_row. More than 256 operators is
// fatal (exit 254). Ownership: borrows name, borrows source for the life of the process.
void register_operator(const char* name, operator_handler handler, int param_count, unsigned flags,
                       const char* source = nullptr, param_range accepted = {});

// As register_operator, but keeps row itself: for rows that live as long as the process, such
// as a family's table. Ownership: borrows row and source for the life of the process.
void registry_add(const op_row* row, const char* source);

// Registers each of count rows in order with source as their source. Ownership: borrows rows
// and source for the life of the process.
void registry_add_family(const op_row* rows, size_t count, const char* source);

// Registers each row in order, noting the calling file (ops/<family>.cpp) as their source.
// Nothing is copied or allocated: the entries point at the rows. __builtin_FILE in a
// default argument names the caller's file, as std::source_location does, and clang 14 with
// libstdc++ 12 has the one but not the other.
template <size_t N>
void register_rows(const op_row (&rows)[N], const char* where = __builtin_FILE())
{
    registry_add_family(rows, N, where);
}

// True when the registry came filled at build time with every family, in the order that
// register_all_operators registers them: the program's registry costs no work at start.
bool registry_prefilled();

// Every registered entry, in the order of registration. Ownership: view.
std::vector<const operator_entry*> registry_operators();

// The entry registered under name (exact bytes), null when none or name is null.
// Ownership: view.
const operator_entry* registry_find(const char* name);

// True when a call of entry with count parameters is one it works with: exactly param_count
// when that is fixed, otherwise a count in its accepted range.
inline bool operator_accepts(const operator_entry& entry, int count)
{
    const op_row& row = *entry.row;
    return row.param_count != 0 ? count == row.param_count : row.accepted.accepts(count);
}

// Evaluates one call: depth check, lookup, parameter expansion (unless raw), count check,
// handler. Errors come back as bracketed texts. Ownership: borrows name, params stay the
// caller's, new result.
char* call_operator(const char* name, int count, char** params);

// Expands every call in text; results are never rescanned. Null when a call left the text
// empty. When an exception (a table-lock violation) passes through, text is left as it was,
// so a parameter slot handed in still owns it. Ownership: takes text, new result.
char* expand_in_place(char* text);

// What a LAZY_PARAMS slot holds until its handler asks for it: its address is no string's.
extern char lazy_slot_mark;

// Fills a waiting LAZY_PARAMS slot with its parameter expanded from the call's text.
void expand_lazy_param(char** params, int i);

// Expands parameter slot i of a call in place: what raw-parameter handlers do with the
// parameters they evaluate once. Requires: i < the call's parameter count.
inline void expand_param(char** params, int i)
{
    if (params[i] == &lazy_slot_mark)
        expand_lazy_param(params, i);
    else
        params[i] = expand_in_place(params[i]);
}

// Slot i of a call with its raw text: a LAZY_PARAMS slot still waiting is filled with a copy
// of the parameter as written. Requires: i < the call's parameter count. Ownership: view
// (the slot stays the expander's).
char* param_raw(char** params, int i);

// The bytes of parameter i as written, without filling a waiting slot: a view of the call's
// text for a LAZY_PARAMS slot that waits, else the slot's text. Requires: i < the call's
// parameter count. Ownership: view, valid while the handler runs and the slot is unchanged.
std::string_view param_raw_view(char** params, int i);

// Expands parameter slot i in place when the call has it and returns the slot: null when the
// call has fewer parameters. Ownership: view (the slot stays the expander's).
inline char* expand_param_text(int count, char** params, int i)
{
    if (i >= count)
        return nullptr;
    expand_param(params, i);
    return params[i];
}

// As expand_in_place, for a text that the caller expands a second time (a variable's name,
// `process`): with the setting TESSEL_INERT_REQUEST_DATA the result of every call that read
// request data is written quoted (quote_for_expansion), so the second expansion gives that
// text back as it was and never runs it. Without the setting it is expand_in_place.
// Ownership: takes text, new result.
char* expand_for_second_pass(char* text);

// The expansion of the page file's own text: as expand_in_place, and a page error made while
// one of its calls runs is logged with that call's line (see page_error).
// Ownership: takes text, new result.
char* expand_page_text(char* text);

// text written so that one expansion gives it back unchanged: every "^" doubled and every ";"
// escaped ("^;"), so no call starts in it and no parameter ends in it. Ownership: borrows
// text, new result (null for null or empty text).
char* quote_for_expansion(const char* text);

// As expand_in_place, but text is freed even when an exception passes through: for a text
// that no parameter slot holds. Ownership: takes text, new result.
char* expand_taken(char* text);

// expand_taken of a copy. Ownership: borrows text, new result.
char* expand_copy(const char* text);

// As expand_copy, without the copy: for a text that nothing can change or free while its
// calls run, such as a loop body in its own call's parameter slot, expanded once per pass.
// A variable's value or a table's cell is not such a text: a call in it may replace it.
// Ownership: borrows text, new result.
char* expand_view(const char* text);

// The bytes [start, end) of a text: where a call's parameter lies in the text around it.
struct text_range {
    size_t start, end;
};

// A text read once by the call scanner and then expanded any number of times, as a loop
// expands its body once per pass: each expansion gives what expand_view gives, without
// scanning the text again or looking up again an operator it found before.
// Requires: text outlives the plan and does not change while it lives.
class expansion_plan {
public:
    explicit expansion_plan(const char* text);
    expansion_plan(const expansion_plan&) = delete;
    expansion_plan& operator=(const expansion_plan&) = delete;
    // As expand_view(text). Ownership: new result.
    char* expand();

private:
    // Bytes of the text written as they stand, or a call.
    struct step {
        size_t start;                // the literal's or the name's first byte
        size_t length;               // the literal's or the name's length
        int first_param;             // a call's first parameter in params_; -1 for a literal
        int param_count;             // a call's parameter count
        const operator_entry* entry; // the operator once found: entries are never removed
    };
    const char* text_;
    size_t size_ = 0;
    bool ends_with_call_ = false;
    std::vector<step> steps_;
    std::vector<text_range> params_; // each parameter's bytes
};

// ---- parameter accessors for handlers ---------------------------------------------------

// Parameter i, or null when the call has fewer. Ownership: view.
inline const char* param_text(int count, char** params, int i)
{
    return i < count ? params[i] : nullptr;
}

// Parameter i as atoi reads it; 0 when absent.
int param_int(int count, char** params, int i);

// Parameter i, or fallback when it is absent or empty. Ownership: view.
inline const char* param_or(int count, char** params, int i, const char* fallback)
{
    const char* p = param_text(count, params, i);
    return p && *p ? p : fallback;
}

// expand_param_text read as atoi reads it; 0 when absent.
int expand_param_int(int count, char** params, int i);

// ---- page errors ------------------------------------------------------------------------

// A failure inside an operator is a bracketed text in the page, written whole as one literal
// where it is returned, so that what a page shows can be found with grep:
//     return page_error("[if: wrong param count]");
//     return page_error_logged("[save to '%s' failed: %s]", file, reason);
// The format follows printf; a %s argument must not be null.

// The page error formatted from format, not logged, unless the setting
// TESSEL_SAFE_ERROR_PAGES is on: then every page error is logged, with the line of the page's
// call that made it. Ownership: new result.
char* page_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

// As page_error, and writes the same text without its enclosing brackets to the error log:
// "[save to 'x' failed: y]" logs "save to 'x' failed: y". The log line is cut as every log
// line is (core/log.h); the page text is not. Ownership: new result.
char* page_error_logged(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
