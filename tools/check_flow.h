// What the page checker knows about request data: the calls that bring it into a page, the
// parameters of operators where it becomes code or a path, the parameters an operator passes
// on into its result, and the HTML or SQL text around a value that a page prints.
#ifndef TESSEL_TOOLS_CHECK_FLOW_H
#define TESSEL_TOOLS_CHECK_FLOW_H

#include <bitset>
#include <string>
#include <string_view>

// ---- values ---------------------------------------------------------------------------------

// The most parameters a macro body refers to ("$1" to "$99").
constexpr int FLOW_MACRO_PARAMS = 100;

// Where the result of a text may come from: request data (the first call found that brings it
// in), and, inside a macro body, the body's parameters that reach it (request data only when
// a call passes it some).
struct flow_value {
    std::string source;   // the call as written ("^form[x]"); empty: no request data
    std::string via;      // the variable read that carried it ("^var[x]"), or empty
    bool escaped = false; // it went through the escaping scope in force where it was read
    std::bitset<FLOW_MACRO_PARAMS> params;

    bool any() const { return !source.empty() || params.any(); }
    // Adds what other holds; the first request data found stays the one named.
    void merge(const flow_value& other);
    // "^form[x]", or "^form[x] via ^var[y]": how a warning names the data.
    std::string describe() const;
};

// ---- operators ------------------------------------------------------------------------------

// The request data a call of op brings in, or an empty value. call is the call as written;
// first and second its first two parameters as written (empty when absent), count the number
// of its parameters. Only `number` of the field readers gives nothing dangerous (digits or 0).
// With TESSEL_SAFE_ESCAPING=1 in the checker's environment, as the engine reads it, the URI,
// the query string and an upload's client name count as escaped.
flow_value flow_source(const std::string& op, const std::string& call, std::string_view first,
                       std::string_view second, int count);

// What parameter index (from 0, of count) of op is when request data reaches it, as the end
// of a warning ("reaches the path of ^include"); null when it is no such place. `var`'s name
// is handled by the checker itself, which knows whether the call reads or sets.
const char* flow_place(const std::string& op, int index, int count);

// Whether the text of parameter index of op becomes part of op's result: the branches of a
// condition, a loop's body, the text a string operator cuts. Parameters that are only tested,
// counted or consumed are not: their request data does not reach the page through op.
bool flow_carries(const std::string& op, int index, int count);

// Whether pattern, as written in a page, is one `match` checks a whole value against and
// that lets through no "/", no "." and no call: anchored with "^^" and "$", without
// alternatives, unescaped dots, negated classes or the shorthands for "any but".
bool flow_pattern_checks(std::string_view pattern);

// ---- text around a printed value ------------------------------------------------------------

// The text a value lands in, followed byte by byte: HTML markup (to know whether a value sits
// in a tag and how its attribute is quoted) or the text of an SQL query (to know whether it
// sits in a quoted string). Copyable: a call's branches each start from where the call sits.
class flow_text {
public:
    enum kind { NOT_PRINTED, HTML, SQL };

    explicit flow_text(kind k = NOT_PRINTED) : kind_(k) {}
    kind lang() const { return kind_; }

    // Moves past one byte of the page's own text.
    void feed(char c);

    // What is wrong with request data inserted here under the escaping mode (0 when the mode
    // is unknown), as the end of a warning; null when nothing is. escaped says whether the
    // data went through that mode at all. With TESSEL_SAFE_ESCAPING=1, html escaping holds
    // single-quoted attributes too.
    const char* risk(bool escaped, int mode) const;

private:
    enum state {
        TEXT,          // HTML: between tags; SQL: outside quotes
        TAG_OPEN,      // after "<"
        COMMENT,       // in "<!...>": a comment or a declaration, where escaped data is text
        IN_TAG,        // in a tag's name or between its attributes
        ATTR_NAME,     // in an attribute's name
        AFTER_NAME,    // after an attribute's name, before a possible "="
        BEFORE_VALUE,  // after "="
        VALUE_DOUBLE,  // in a value in double quotes
        VALUE_SINGLE,  // in a value in single quotes
        VALUE_BARE,    // in an unquoted value
        SQL_QUOTED,    // SQL: in a string, opened by quote_
        SQL_BACKSLASH, // SQL: after a backslash in a string
    };

    void feed_html(char c);
    void feed_sql(char c);

    kind kind_;
    state state_ = TEXT;
    char quote_ = 0;
};

#endif
