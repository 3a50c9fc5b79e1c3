// The page checker's tables of request data: where it comes from, where it must not go, what
// passes it on, and the text around a printed value.
#include "tools/check_flow.h"

#include <cctype>
#include <cstring>

#include "core/setting.h"
#include "interp/escape.h"

namespace {

constexpr int LAST = -1; // the call's last parameter, however many it has
constexpr int END = -1;  // up to the call's last parameter

// Parameters where request data becomes a path, code, a name or a connection string.
struct place_row {
    const char* op;
    int index; // or LAST
    const char* tail;
};

// clang-format off
constexpr place_row PLACES[] = {
    {"include",      LAST, "reaches the path of ^include"},
    {"macro_use",    0,    "reaches the path of ^macro_use"},
    {"load",         LAST, "reaches the path of ^load"},
    {"save",         0,    "reaches the path of ^save"},
    {"unlink",       0,    "reaches the path of ^unlink"},
    {"download",     0,    "reaches the path of ^download"},
    {"upload",       1,    "reaches the target of ^upload"},
    {"counter",      0,    "reaches the path of ^counter"},
    {"gif_template", 0,    "reaches the path of ^gif_template"},
    {"gif_template", 2,    "reaches the output path of ^gif_template"},
    {"lock",         0,    "reaches the name of ^lock, which names its file"},
    {"index",        0,    "reaches the folder ^index lists"},
    {"exec",         0,    "reaches the program ^exec runs through the shell"},
    {"process",      0,    "reaches the text ^process expands a second time"},
    {"macro",        0,    "reaches the name of the macro ^macro calls"},
    {"macro_new",    0,    "reaches the name of the macro ^macro_new defines"},
    {"for",          0,    "reaches the name of the variable ^for sets"},
    {"server",       0,    "reaches the connection string of ^server"},
};
// clang-format on

// Parameters whose text becomes part of the operator's result.
struct carry_row {
    const char* op;
    int first; // or LAST: the last parameter only
    int last;  // or END
    int count; // the call's parameter count this row needs; 0 for any
};

// clang-format off
constexpr carry_row CARRIES[] = {
    {"left",  0, 0, 0},  {"right", 0, 0, 0},  {"mid", 0, 0, 0},  {"truncate", 0, 0, 0},
    {"toupper", 0, 0, 0},  {"tolower", 0, 0, 0},  {"unescape_br", 0, 0, 0},
    {"hotline_quote", 0, 0, 0},  {"hotline_cutmark_thread", 0, 0, 0},
    {"name", 0, 0, 0},  {"-f", 0, 0, 0},  {"find", 0, END, 0},
    {"default", 0, END, 0},  {"color", 0, END, 0},  {"empty", 0, END, 0},
    {"optionor", 0, END, 0},  {"optionand", 0, END, 0},  {"optionclear", 0, 0, 0},
    {"if", 1, END, 0},  {"eq", 2, END, 0},  {"ifdef", 1, END, 0},  {"start", 1, END, 0},
    {"cmp", 2, END, 0},  {"switch", 1, 1, 0},  {"case", LAST, END, 0},
    {"for", 3, 4, 0},  {"while", 1, 1, 0},  {"table", 1, END, 0},  {"menu", 0, END, 0},
    {"context", 1, 1, 0},  {"lock", 1, 1, 0},  {"cache", 1, 1, 0},  {"server", 1, 1, 0},
    {"level", 1, 1, 0},  {"process", 0, 0, 0},  {"match", 2, 3, 4},
};
// clang-format on

// CGI variables whose value the visitor writes (besides every HTTP_ header).
constexpr const char* REQUEST_VARIABLES[] = {
    "QUERY_STRING", "QUERY_STRING_UNESCAPED", "REQUEST_URI",          "DOCUMENT_URI",
    "PATH_INFO",    "PATH_TRANSLATED",        "SCRIPT_URI",           "SCRIPT_URL",
    "REDIRECT_URL", "REDIRECT_QUERY_STRING",  "REDIRECT_REQUEST_URI", "CONTENT_TYPE",
    "REMOTE_USER",  "REDIRECT_REMOTE_USER",   "REMOTE_IDENT",
};

bool env_from_request(std::string_view name)
{
    if (name.substr(0, 5) == "HTTP_")
        return true;
    for (const char* variable : REQUEST_VARIABLES)
        if (name == variable)
            return true;
    return false;
}

// The setting under which html escaping also writes "'" and "&", and the URI, the query
// string and an upload's client name are escaped like a form field.
bool safe_escaping()
{
    return setting_on("TESSEL_SAFE_ESCAPING");
}

bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

} // namespace

void flow_value::merge(const flow_value& other)
{
    if (source.empty()) {
        source = other.source;
        via = other.via;
        escaped = other.escaped;
    }
    params |= other.params;
}

std::string flow_value::describe() const
{
    return via.empty() ? source : source + " via " + via;
}

flow_value flow_source(const std::string& op, const std::string& call, std::string_view first,
                       std::string_view second, int count)
{
    flow_value value;
    bool escaped_when_safe = op == "query" || op == "uri" || (op == "upload" && second == "name");
    bool escaped = op == "form" || op == "combine" || (op == "cookie" && count == 1) ||
                   (op == "env" && env_from_request(first)) ||
                   (escaped_when_safe && safe_escaping());
    bool raw = escaped_when_safe || op == "user" || (op == "upload" && second == "value");
    if (escaped || raw) {
        value.source = call;
        value.escaped = escaped;
    }
    return value;
}

const char* flow_place(const std::string& op, int index, int count)
{
    for (const place_row& row : PLACES)
        if (op == row.op && (row.index == index || (row.index == LAST && index == count - 1)))
            return row.tail;
    return nullptr;
}

bool flow_carries(const std::string& op, int index, int count)
{
    for (const carry_row& row : CARRIES) {
        if (op != row.op || (row.count && row.count != count))
            continue;
        if (row.first == LAST)
            return index == count - 1;
        return index >= row.first && (row.last == END || index <= row.last);
    }
    return false;
}

bool flow_pattern_checks(std::string_view pattern)
{
    size_t n = pattern.size();
    if (n < 3 || pattern.compare(0, 2, "^^") != 0 || pattern[n - 1] != '$' ||
        pattern[n - 2] == '\\')
        return false;
    for (size_t i = 2; i + 1 < n; i++) {
        char c = pattern[i];
        if (c == '\\' && i + 2 < n) {
            char next = pattern[++i];
            if (next == 'S' || next == 'W' || next == 'D')
                return false;
            continue;
        }
        if (strchr("^$|./`", c))
            return false;
    }
    return true;
}

void flow_text::feed(char c)
{
    if (kind_ == HTML)
        feed_html(c);
    else if (kind_ == SQL)
        feed_sql(c);
}

void flow_text::feed_html(char c)
{
    switch (state_) {
    case TEXT:
        if (c == '<')
            state_ = TAG_OPEN;
        break;
    case TAG_OPEN:
        state_ = isalpha((unsigned char)c) || c == '/' ? IN_TAG : c == '!' ? COMMENT : TEXT;
        break;
    case COMMENT:
        if (c == '>')
            state_ = TEXT;
        break;
    case IN_TAG:
    case AFTER_NAME:
        if (c == '>')
            state_ = TEXT;
        else if (c == '=' && state_ == AFTER_NAME)
            state_ = BEFORE_VALUE;
        else if (!is_space(c) && c != '/')
            state_ = ATTR_NAME;
        break;
    case ATTR_NAME:
        state_ = c == '>' ? TEXT : c == '=' ? BEFORE_VALUE : is_space(c) ? AFTER_NAME : ATTR_NAME;
        break;
    case BEFORE_VALUE:
        if (c == '>')
            state_ = TEXT;
        else if (!is_space(c))
            state_ = c == '"' ? VALUE_DOUBLE : c == '\'' ? VALUE_SINGLE : VALUE_BARE;
        break;
    case VALUE_DOUBLE:
    case VALUE_SINGLE:
        if (c == (state_ == VALUE_DOUBLE ? '"' : '\''))
            state_ = IN_TAG;
        break;
    case VALUE_BARE:
        state_ = c == '>' ? TEXT : is_space(c) ? IN_TAG : VALUE_BARE;
        break;
    default:
        break;
    }
}

void flow_text::feed_sql(char c)
{
    if (state_ == SQL_BACKSLASH)
        state_ = SQL_QUOTED;
    else if (state_ == SQL_QUOTED && c == '\\')
        state_ = SQL_BACKSLASH;
    else if (state_ == SQL_QUOTED && c == quote_)
        state_ = TEXT;
    else if (state_ == TEXT && (c == '\'' || c == '"')) {
        state_ = SQL_QUOTED;
        quote_ = c;
    }
}

const char* flow_text::risk(bool escaped, int mode) const
{
    if (kind_ == NOT_PRINTED || mode == ESCAPE_MODE_KEEP)
        return nullptr;
    if (kind_ == SQL) {
        if (!escaped || mode != ESCAPE_MODE_SQL)
            return "reaches the text of ^sql without sql escaping";
        return state_ == TEXT ? "sits outside quotes in the text of ^sql, where sql escaping "
                                "does not hold it"
                              : nullptr;
    }
    if (mode == ESCAPE_MODE_NONE && escaped)
        return "reaches the page without html escaping, under ^level[none]";
    if (mode == ESCAPE_MODE_CONFIG && escaped)
        return "reaches the page without html escaping, under ^level[config]";
    if (mode != ESCAPE_MODE_NONE && mode != ESCAPE_MODE_HTML)
        return nullptr;
    if (state_ == VALUE_SINGLE)
        return mode == ESCAPE_MODE_HTML && safe_escaping()
                   ? nullptr
                   : "sits in a single-quoted HTML attribute, where html escaping leaves ' as it "
                     "is";
    if (state_ == BEFORE_VALUE || state_ == VALUE_BARE)
        return "sits in an unquoted HTML attribute, where html escaping does not hold it";
    if (state_ != TEXT && state_ != VALUE_DOUBLE && state_ != COMMENT)
        return "sits in an HTML tag outside any attribute value, where html escaping does not "
               "hold it";
    return nullptr;
}
