// Forum-thread formatting: a message turned into a quoted reply, and a message cut at its
// cut mark for a listing.
#include <cstring>

#include "core/number.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "ops/ops.h"

namespace {

constexpr int QUOTE_WIDTH = 72;    // line width of a quoted reply unless the page gives one
constexpr int QUOTE_MIN_TEXT = 20; // a narrow width still leaves this much text per line
constexpr const char* CUT_MARK = "[cut]";

// Appends words to out as lines of at most width bytes, each opened by prefix; a word longer
// than a line stands alone on its line. An empty text gives the prefix alone, without its
// trailing blank.
void quote_wrap(str_builder& out, const char* prefix, const char* words, int width)
{
    int room = int_max(width - (int)strlen(prefix), QUOTE_MIN_TEXT);
    int used = -1; // bytes on the current line after the prefix; -1 before the first word
    for (const char* p = words; *p;) {
        p += strspn(p, " ");
        int length = strcspn(p, " ");
        if (length == 0)
            break;
        if (used >= 0 && used + 1 + length <= room) {
            out.append(' ');
            used += 1 + length;
        } else {
            if (used >= 0)
                out.append('\n');
            out.append(prefix);
            used = length;
        }
        out.append(p, length);
        p += length;
    }
    if (used < 0)
        out.append(prefix, strlen(prefix) - 1);
}

// The number of quote marks that open line, each ">" or its escaped form "&gt;" (text that
// went through the page's escaping once already), and the rest after them.
int quote_marks(const char*& line)
{
    int marks = 0;
    for (;; marks++) {
        if (*line == '>')
            line++;
        else if (strncmp(line, "&gt;", 4) == 0)
            line += 4;
        else
            return marks;
    }
}

// One line of the message, quoted once more: ">" before the quote marks it has, then a blank.
void quote_line(str_builder& out, const char* line, int width)
{
    int marks = quote_marks(line);
    str_holder prefix(str_dup(">"));
    for (int i = 0; i < marks; i++)
        str_append(prefix.ref(), ">");
    str_append(prefix.ref(), " ");
    quote_wrap(out, prefix.get(), line, width);
}

// hotline_quote[text;width]: every line marked with "> ", lines that were quotes already get
// one more ">", and lines longer than width (72 by default) wrapped at blanks. Escaped, so
// marks that arrive escaped ("&gt;", from form or item) count as quote marks too.
char* op_hotline_quote(int count, char** params)
{
    int width = param_int(count, params, 1);
    str_holder text(str_dup(param_text(count, params, 0)));
    if (!str_nonempty(text.get()))
        return nullptr;
    str_builder out;
    char* cursor = text.get();
    str_replace_char(cursor, '\r', ' ');
    str_replace_char(cursor, '\t', ' ');
    while (cursor) {
        const char* line = str_take_token(cursor, '\n');
        if (!cursor && !*line)
            break; // the line end of the last line opens no further line
        if (out.size() > 0)
            out.append('\n');
        quote_line(out, line, width > 0 ? width : QUOTE_WIDTH);
    }
    return escape_take(out.take(true));
}

// The text with every mark taken out: the whole message, as its own page shows it.
// Ownership: borrows text and mark, new result.
char* cutmark_removed(const char* text, const char* mark)
{
    str_builder out;
    size_t skip = strlen(mark);
    for (const char* found; (found = strstr(text, mark)); text = found + skip)
        out.append(text, found - text);
    out.append(text);
    return out.take(true);
}

// hotline_cutmark_thread[text;link;mark]: with a link, the text up to its first cut mark
// ("[cut]" unless mark names another), followed by the link, or the whole text when it holds
// no mark; without a link, the whole text with the marks taken out. The text is escaped, the
// link is the page's own markup and is not.
char* op_hotline_cutmark_thread(int count, char** params)
{
    const char* text = param_text(count, params, 0);
    const char* link = param_text(count, params, 1);
    const char* mark = param_or(count, params, 2, CUT_MARK);
    const char* found = text ? strstr(text, mark) : nullptr;
    if (!str_nonempty(link))
        return escape_take(cutmark_removed(str_or_empty(text), mark));
    if (!found)
        return escape_take(str_dup(text));
    int length = found - text;
    while (length > 0 && strchr(" \n\r\t", text[length - 1]))
        length--;
    char* shown = escape_take(str_dup_n(text, length));
    str_append(shown, link);
    return shown;
}

} // namespace

// clang-format off
extern constexpr op_row threads_rows[] = {
    // name                      handler                     params  flags       accepted
    {"hotline_cutmark_thread",  op_hotline_cutmark_thread,  0,      0,          {1, 2}},
    {"hotline_quote",           op_hotline_quote,           0,      0,          {1, 2}},
};
// clang-format on

void register_thread_ops()
{
    register_rows(threads_rows);
}
