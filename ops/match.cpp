// The match family: POSIX extended regular expressions that test a text, expose the match as
// a table, or replace matches.
//
// ^match[pattern;text] and ^match[pattern;flags;text] test; ^match[pattern;flags;repl;text]
// replaces. The match table is a named table with the columns "match", "\1".."\N",
// "prematch" and "postmatch" and one row; TABs inside its cells become blanks. In the
// replace form the row is built for the text searched from the current position, and the
// replacement is expanded once per match with that table current under the name "match".
#include <cstring>
#include <memory>
#include <vector>

#include "core/number.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"
#include "ops/regex.h"

namespace {

// Every occurrence of from in s replaced by to. Ownership: takes s, borrows both, new result.
char* match_replace_all(char* s, const char* from, const char* to)
{
    str_holder owned(s);
    str_builder out;
    size_t from_len = strlen(from);
    for (const char* p = s; p && *p;) {
        if (strncmp(p, from, from_len) == 0) {
            out.append(to);
            p += from_len;
        } else {
            out.append(*p++);
        }
    }
    return out.take(true);
}

// The short forms a pattern may use: \n, \t, \d and \s; a doubled backslash stays a literal
// backslash. The placeholder keeps "\\n" from being read as a backslash and an "n".
// Ownership: takes pattern, new result.
char* match_rewrite(char* pattern)
{
    pattern = match_replace_all(pattern, "\\\\", "[[:BACKSLASH:]]");
    pattern = match_replace_all(pattern, "\\n", "\n");
    pattern = match_replace_all(pattern, "\\t", "\t");
    pattern = match_replace_all(pattern, "\\d", "[[:digit:]]");
    pattern = match_replace_all(pattern, "\\s", "[[:space:]]");
    return match_replace_all(pattern, "[[:BACKSLASH:]]", "\\\\");
}

// regcomp flags from the flags text: i ignores case, n is newline-sensitive. g is read by
// the replace form.
int match_compile_flags(const char* flags)
{
    int result = REG_EXTENDED;
    if (flags && strpbrk(flags, "iI"))
        result |= REG_ICASE;
    if (flags && strpbrk(flags, "nN"))
        result |= REG_NEWLINE;
    return result;
}

// Appends the bytes [from, to) of text as one cell, TABs turned into blanks.
void match_add_cell(str_builder& row, const char* text, regoff_t from, regoff_t to)
{
    while (from < to) {
        const char* tab = (const char*)memchr(text + from, '\t', to - from);
        regoff_t end = tab ? tab - text : to;
        row.append(text + from, end - from); // whole stretches: pre- and postmatch are long
        if (tab)
            row.append(' ');
        from = end + (tab ? 1 : 0);
    }
}

// The match table for one match of a pattern with `groups` groups in text.
// Ownership: borrows text, new result.
std::unique_ptr<table> match_table(const char* text, const regmatch_t* found, int groups)
{
    str_builder header;
    str_builder row;
    header.append("match");
    match_add_cell(row, text, found[0].rm_so, found[0].rm_eo);
    for (int g = 1; g <= groups; g++) {
        header.append("\t\\");
        header.append(fmt_int(g).text);
        row.append('\t');
        if (found[g].rm_so >= 0)
            match_add_cell(row, text, found[g].rm_so, found[g].rm_eo);
    }
    header.append("\tprematch\tpostmatch");
    row.append('\t');
    match_add_cell(row, text, 0, found[0].rm_so);
    row.append('\t');
    match_add_cell(row, text, found[0].rm_eo, strlen(text));
    auto result = std::make_unique<table_named>(header.take(false));
    result->add_row(row.view()); // added whole: a line feed in a cell does not start a row
    return result;
}

// One execution on text: "yes" or nothing without groups; with groups the match table is
// stored on a match and the current table removed otherwise, and the result is nothing.
char* match_test(const compiled_regex& re, const char* text)
{
    std::vector<regmatch_t> found(re.groups() + 1);
    int status = regexec(re.get(), text, found.size(), found.data(), 0);
    if (status != 0 && status != REG_NOMATCH)
        return regex_error_text(status, re.get());
    if (re.groups() == 0)
        return status == 0 ? str_dup("yes") : nullptr;
    if (status == 0)
        request_store_table(match_table(text, found.data(), re.groups()));
    else
        req.tables->remove_current();
    return nullptr;
}

// The expansion of the replacement for one match in s (the text searched from the current
// position), with its match table current under "match". Ownership: borrows all, new result.
char* match_expand_replacement(const char* replacement, const char* s, const regmatch_t* found,
                               int groups)
{
    table_context_scope context(*req.tables, "match");
    request_store_table(match_table(s, found, groups));
    return expand_copy(replacement);
}

// Searches text[pos, length) as a text of its own, so that "^" matches at pos. Offsets in
// found are relative to pos.
int match_search(const compiled_regex& re, const char* text, size_t pos, size_t length,
                 std::vector<regmatch_t>& found)
{
    found[0].rm_so = 0;
    found[0].rm_eo = (regoff_t)(length - pos); // no measuring of the rest on every search
    return regexec(re.get(), text + pos, found.size(), found.data(), REG_STARTEND);
}

// Replaces the first match in text, or every match with global. Each search starts where the
// last match ended, as if the text began there; after an empty match it starts one byte
// further, so a pattern that matches nothing cannot loop forever. The result is written once,
// left to right. A match table is built for a match only when the replacement has calls,
// which may read it, and for the last match, which stays under "match" afterwards.
// Ownership: borrows all, new result.
char* match_replace(const compiled_regex& re, const char* replacement, const char* text,
                    bool global)
{
    std::vector<regmatch_t> found(re.groups() + 1), last_found;
    const bool reads_table = replacement && strchr(replacement, '^');
    const size_t length = strlen(text);
    str_builder out;
    size_t pos = 0, last = 0; // where the search starts; where the last match's search started
    bool replaced = false;
    do {
        if (pos > length)
            break;
        int status = match_search(re, text, pos, length, found);
        if (status == REG_NOMATCH)
            break;
        if (status != 0)
            return regex_error_text(status, re.get());
        out.append(text + pos, found[0].rm_so);
        if (reads_table) {
            str_holder inserted(
                match_expand_replacement(replacement, text + pos, found.data(), re.groups()));
            out.append(inserted.get());
        } else {
            out.append(replacement);
        }
        last = pos;
        last_found = found;
        replaced = true;
        pos += found[0].rm_eo;
        if (found[0].rm_so == found[0].rm_eo && pos < length)
            out.append(text[pos]); // the byte after an empty match stays
        pos += found[0].rm_so == found[0].rm_eo ? 1 : 0;
    } while (global);
    if (!replaced)
        return str_dup(text);
    if (!reads_table) {
        table_context_scope context(*req.tables, "match");
        request_store_table(match_table(text + last, last_found.data(), re.groups()));
    }
    if (pos < length)
        out.append(text + pos, length - pos);
    return out.take(true);
}

// match[pattern;text], match[pattern;flags;text], match[pattern;flags;replacement;text].
constexpr param_range MATCH_PARAMS = {2, 4};

char* op_match(int count, char** params)
{
    if (!MATCH_PARAMS.accepts(count))
        return nullptr;
    {
        escape_mode_scope none(ESCAPE_MODE_NONE);
        int plain = count == 4 ? 2 : count;
        for (int i = 0; i < plain; i++)
            expand_param(params, i);
    }
    if (count == 4)
        expand_param(params, 3);
    const char* text = params[count - 1];
    if (!text)
        return nullptr;
    const char* flags = count > 2 ? params[1] : nullptr;
    str_holder pattern(match_rewrite(str_dup(params[0])));
    compiled_regex re(str_or_empty(pattern.get()), match_compile_flags(flags));
    if (re.status() != 0)
        return regex_error_text(re.status(), re.get());
    if (count < 4)
        return match_test(re, text);
    return match_replace(re, params[2], text, flags && strpbrk(flags, "gG"));
}

} // namespace

// clang-format off
extern constexpr op_row match_rows[] = {
    // name     handler    params  flags       accepted
    {"match",   op_match,  0,      RAW_PARAMS, MATCH_PARAMS},
};
// clang-format on

void register_match_ops()
{
    register_rows(match_rows);
}
