// The string-case family: case mapping, truncation, line-break markup, and the splitters.
//
// `lsplit` and `rsplit` leave a plain table under the current table name: one row whose cells
// are the pieces in order (from the left for `lsplit`, from the right for `rsplit`), each
// followed by a TAB, so the row also ends in one empty cell. Both keep the remainder beyond
// the last cut as a piece; `^item[0]` reads the first piece.
#include <cstring>
#include <memory>

#include "core/number.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

// Appends piece and its TAB to line. Ownership: borrows piece.
void split_add(str_builder& line, const char* piece)
{
    line.append(piece);
    line.append('\t');
}

// The pieces of text cut at every separator from the left, as one TAB-joined line.
// Requires: separator is not null. Ownership: takes text, new result.
char* split_left(char* text, const char* separator)
{
    str_holder owned(text);
    str_builder line;
    for (char* rest = text; rest;)
        split_add(line, str_take_token_str(rest, separator));
    return line.take(true);
}

// As split_left, cutting at the last separator each time, so the pieces come right to left
// and the leftmost remainder comes last. Requires: separator is not null.
// Ownership: takes text, new result.
char* split_right(char* text, const char* separator)
{
    str_holder owned(text);
    str_builder line;
    while (char* after = str_cut_at_last_str(text, separator))
        split_add(line, after);
    if (text)
        split_add(line, text);
    return line.take(true);
}

using split_function = char* (*)(char* text, const char* separator);

// Expands both parameters under "config" escaping, splits the text (all of it is one piece
// when there is no separator) and stores the one-row table under the current name.
char* split_store(char** params, split_function split)
{
    {
        escape_mode_scope config(ESCAPE_MODE_CONFIG);
        expand_param(params, 0);
        expand_param(params, 1);
    }
    // An empty separator would cut nothing off forever: it counts as no separator.
    const char* separator = str_nonempty(params[1]) ? params[1] : nullptr;
    char* line = separator ? split(str_dup(params[0]), separator)
                           : (params[0] ? str_join(params[0], "\t", nullptr) : nullptr);
    request_store_table(std::make_unique<table>(line));
    return nullptr;
}

char* op_rsplit(int, char** params)
{
    return split_store(params, split_right);
}

char* op_lsplit(int, char** params)
{
    return split_store(params, split_left);
}

char* op_toupper(int, char** params)
{
    return str_upper(str_dup(params[0]));
}

char* op_tolower(int, char** params)
{
    return str_lower(str_dup(params[0]));
}

// The three dots come on top of the n bytes kept.
char* op_truncate(int count, char** params)
{
    const char* text = params[0];
    int n = param_int(count, params, 1);
    if (!text)
        return nullptr;
    if (str_len0(text) <= n)
        return str_dup(text);
    char* cut = str_dup_n(text, int_max(n, 0));
    str_append(cut, "...");
    return cut;
}

// Two line feeds become one paragraph mark, a single one a line break.
char* op_unescape_br(int, char** params)
{
    const char* text = params[0];
    if (!text)
        return nullptr;
    str_builder out;
    for (const char* p = text; *p; p++) {
        if (*p != '\n') {
            out.append(*p);
        } else if (p[1] == '\n') {
            out.append("<p>\n");
            p++;
        } else {
            out.append("<br>\n");
        }
    }
    return out.take(true);
}

} // namespace

// clang-format off
extern constexpr op_row string_case_rows[] = {
    // name          handler          params  flags
    {"rsplit",       op_rsplit,       2,      RAW_PARAMS},
    {"lsplit",       op_lsplit,       2,      RAW_PARAMS},
    {"toupper",      op_toupper,      1,      0},
    {"tolower",      op_tolower,      1,      0},
    {"truncate",     op_truncate,     2,      0},
    {"unescape_br",  op_unescape_br,  1,      0},
};
// clang-format on

void register_string_case_ops()
{
    register_rows(string_case_rows);
}
