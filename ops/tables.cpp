// The table operators: context, creating, loading and saving tables, the cursor, items, loops.
#include <cstring>
#include <memory>

#include "cgi/form.h"
#include "core/file.h"
#include "core/number.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

// ---- helpers ----------------------------------------------------------------------------

table* tables_current()
{
    return req.tables->get_current();
}

// Runs body over t with t locked; false when it was stopped. Locking a table that an outer
// loop holds throws to that loop. A violation aimed at t (a nested loop over it, or an
// attempt to replace it) stops this loop; one aimed at another loop's table passes on.
template <typename Body> bool tables_loop(table* t, Body body)
{
    table_hold_scope lock(*t, table_hold::LOCK);
    int depth = req.depth;
    try {
        body();
    } catch (const table_lock_violation& violation) {
        if (violation.target != t)
            throw;
        req.depth = depth; // the calls that were unwound did not return
        return false;
    }
    return true;
}

// ---- load and save ----------------------------------------------------------------------

// The "_" file for file in dir: "dir/<dirs of file>/_<base name>". Ownership: new result.
char* tables_file_name(const char* dir, const char* file)
{
    str_holder candidate(str_join(dir, "/", str_or_empty(file), nullptr));
    char* base = str_cut_at_last(candidate.get(), '/');
    return str_join(candidate.get(), "/_", base, nullptr);
}

// The text of the first "_" file found from the page's directory upward, cleaned of carriage
// returns, comments and empty lines; null when there is none. Ownership: new result.
char* tables_find_file(const char* file)
{
    str_holder dir(str_dup(req.page_path));
    while (str_cut_at_last(dir.get(), '/')) {
        str_holder candidate(tables_file_name(dir.get(), file));
        char* text = read_file(candidate.get(), true, false);
        if (text)
            return text;
    }
    return nullptr;
}

// ---- config -----------------------------------------------------------------------------

// Removes the row at start n times; n = 0 removes nothing and a negative n removes every row
// from start on (the countdown only ends at -1). Each removal packs the rows, even when
// start names no row, so the gaps left by an insert past the end close. Once start names no
// row after a pack, further removals change nothing and the loop ends early.
void config_remove(table* t, int count, char** params)
{
    int start = count >= 2 ? str_to_int(params[1]) : t->current();
    int n = count >= 3 ? str_to_int(params[2]) : 1;
    while (--n != -1) {
        t->remove(start);
        if (!t->exists(start))
            break;
    }
}

// A table with one row per form field name, in arrival order.
std::unique_ptr<table> config_form_elements()
{
    auto t = std::make_unique<table>();
    for (form_entry* entry = req.form_entries; entry; entry = entry->next)
        t->add_row(entry->name);
    return t;
}

// Copies the rows of the table named source to the end of t. A table joined into itself gets
// its rows once more.
void config_join(table* t, const char* source)
{
    table* from = req.tables->get_by_name(source);
    int rows = from ? from->count() : 0;
    for (int i = 0; i < rows; i++)
        t->insert_row(t->count(), from->row(i));
}

// Inserts the lines of text at index, keeping their order.
void config_insert_lines(table* t, int index, const char* text)
{
    table lines(str_dup(text));
    for (int i = 0; i < lines.count(); i++)
        t->insert_row(index++, lines.row(i));
}

// The two-or-more-parameter forms: "named", "join", "append", "insert" (anything else
// appends the lines).
void config_edit(table* t, int count, char** params)
{
    const char* verb = params[0];
    const char* text = params[count - 1];
    if (str_equal(verb, "named"))
        request_store_table(std::make_unique<table_named>(str_dup(text)));
    else if (str_equal(verb, "join"))
        config_join(t, params[1]);
    else if (str_equal(verb, "insert"))
        config_insert_lines(t, count >= 3 ? str_to_int(params[1]) : t->current(), text);
    else
        config_insert_lines(t, t->count(), text);
}

// ---- grid -------------------------------------------------------------------------------

// Fills the grid column by column: cell i shows row (i mod cols) x rows + i / cols.
void table_grid(table* t, int cols, const char* body_text, const char* filler, str_builder& out)
{
    expansion_plan body(body_text);
    long long rows = ((long long)cols + t->count() - 1) / int_max(cols, 1);
    long long cells = cols * rows;
    for (long long i = 0; i < cells; i++) {
        t->set_current((int)((i % cols) * rows + i / cols));
        if (t->current() < t->count()) {
            str_holder cell(body.expand());
            out.append(cell.get());
        } else {
            out.append("<td>");
            out.append(filler);
            out.append("</td>");
        }
        if (i % cols == cols - 1LL && i < cells - 1)
            out.append("</tr><tr>");
    }
}

// ---- handlers ---------------------------------------------------------------------------

char* op_config(int count, char** params)
{
    escape_mode_scope scope(ESCAPE_MODE_CONFIG);
    for (int i = 0; i < count; i++)
        expand_param(params, i);
    if (!tables_current())
        request_store_table(std::make_unique<table>());
    table* t = tables_current();
    if (str_equal(params[0], "remove")) {
        config_remove(t, count, params);
        return nullptr;
    }
    file_clean_text(params[count - 1], true);
    if (count >= 2)
        config_edit(t, count, params);
    else if (str_equal(params[0], "formelements")) {
        request_data_note(); // the form's fields become the table's rows
        request_store_table(config_form_elements());
    } else
        request_store_table(std::make_unique<table>(str_dup(params[0])));
    return nullptr;
}

char* op_load(int count, char** params)
{
    req.tables->remove_current();
    char* text = tables_find_file(params[count - 1]);
    if (!text)
        return nullptr;
    std::unique_ptr<table> loaded;
    if (count == 1)
        loaded = std::make_unique<table>(text);
    else
        loaded = std::make_unique<table_named>(text);
    table* t = loaded.get();
    request_store_table(std::move(loaded), table_origin::STORED);
    t->locate_prefix(0, req.request_uri);
    return nullptr;
}

char* op_save(int count, char** params)
{
    expand_param(params, 0);
    str_holder file(resolve_private_path(params[0]));
    table* t = tables_current();
    str_holder text(count >= 2 ? expand_copy(params[1]) : t ? t->serialise() : nullptr);
    str_holder error(write_file(file.get(), text.get(), false));
    if (!error.get())
        return nullptr;
    return page_error_logged("[save to '%s' failed: %s]", request_path_shown(file.get(), params[0]),
                             error.get());
}

char* op_flip(int, char** params)
{
    table* from = req.tables->get_by_name(params[0]);
    auto t = std::make_unique<table>();
    t->holds_request_data = from && from->holds_request_data;
    if (from && from->has_current_row()) {
        str_holder row(str_dup(from->row(from->current())));
        char* cursor = row.get();
        while (cursor) {
            bool first = cursor == row.get();
            char* cell = str_take_token(cursor, '\t');
            // An empty first or last cell is dropped: a row may begin or end with a TAB.
            if (*cell || (!first && cursor))
                t->add_row(cell);
        }
    }
    request_store_table(std::move(t));
    return nullptr;
}

char* op_context(int count, char** params)
{
    str_holder name(expand_copy(params[0]));
    if (count == 1) {
        req.tables->set_current_name(name.get());
        return nullptr;
    }
    table_context_scope scope(*req.tables, name.get());
    return expand_copy(params[1]);
}

char* op_empty(int, char** params)
{
    table* t = tables_current();
    return expand_copy(t && t->count() > 0 ? params[1] : params[0]);
}

char* op_locate(int, char** params)
{
    if (table* t = tables_current())
        t->locate_exact(params[0], params[1]);
    return nullptr;
}

char* op_shift(int count, char** params)
{
    if (table* t = tables_current())
        t->shift(param_int(count, params, 0));
    return nullptr;
}

// The cell of the row before or after the cursor. The cursor is shifted back by the opposite
// step, which returns it to where it was whenever it named a row.
char* item_neighbour(int step, const char* column)
{
    table* t = tables_current();
    if (!t)
        return escape_take(nullptr);
    t->shift(step);
    if (t->holds_request_data)
        request_data_note();
    char* value = t->item_by_name(column);
    t->shift(-step);
    return escape_take(value);
}

char* op_item(int count, char** params)
{
    if (count < 1)
        return nullptr;
    const char* column = params[count - 1];
    if (count >= 2 && (str_equal(params[0], "prev") || str_equal(params[0], "next")))
        return item_neighbour(str_equal(params[0], "prev") ? -1 : 1, column);
    table* t = count >= 2 ? req.tables->get_by_name(params[0]) : tables_current();
    if (!t)
        return nullptr;
    // These words win over column names: a column called "count" is read by number.
    if (str_equal(column, "current"))
        return str_dup(fmt_int(t->current()).text);
    if (str_equal(column, "number"))
        return str_dup(fmt_int(t->current() + 1).text);
    if (str_equal(column, "count"))
        return str_dup(fmt_int(t->count()).text);
    if (t->holds_request_data)
        request_data_note();
    return escape_take(t->item_by_name(column));
}

char* op_table(int count, char** params)
{
    // The filler may replace or remove the current table (config, load, a failing sql), so
    // the table is looked up only once it has been expanded.
    str_holder filler(count >= 3 ? expand_copy(params[2]) : str_dup("&nbsp;"));
    table* t = tables_current();
    if (!t)
        return nullptr;
    int cols = str_to_int(params[0]); // read as written, not expanded
    const char* body = param_text(count, params, 1);
    str_builder out;
    if (!tables_loop(t, [&] { table_grid(t, cols, body, filler.get(), out); }))
        out.append(str_holder(page_error("[table lock violation in table macro]")).get());
    return out.take(true);
}

char* op_menu(int count, char** params)
{
    const char* separator = str_or_empty(expand_param_text(count, params, 1));
    table* t = tables_current();
    if (!t)
        return nullptr;
    int saved = t->current();
    str_builder out;
    expansion_plan body(params[0]);
    bool whole = tables_loop(t, [&] {
        for (int i = 0; i < t->count(); i++) {
            t->set_current(i);
            str_holder piece(body.expand());
            if (!str_nonempty(piece.get()))
                continue;
            if (out.size() > 0)
                out.append(separator);
            out.append(piece.get());
        }
    });
    t->set_current(saved);
    if (!whole)
        out.append(str_holder(page_error("[table lock violation in menu macro]")).get());
    return out.take(true);
}

} // namespace

// clang-format off
extern constexpr op_row tables_rows[] = {
    // name      handler      params  flags       accepted
    {"config",   op_config,   0,      RAW_PARAMS},
    {"load",     op_load,     0,      0,          {1, 2}},
    {"save",     op_save,     0,      RAW_PARAMS, {1, 2}},
    {"flip",     op_flip,     1,      RAW_PARAMS},
    {"context",  op_context,  0,      RAW_PARAMS, {1, 2}},
    {"empty",    op_empty,    2,      RAW_PARAMS},
    {"locate",   op_locate,   2,      0},
    {"shift",    op_shift,    1,      0},
    {"item",     op_item,     0,      0,          {1, 2}},
    {"table",    op_table,    0,      RAW_PARAMS, {2, 3}},
    {"menu",     op_menu,     0,      RAW_PARAMS, {1, 2}},
};
// clang-format on

void register_table_ops()
{
    register_rows(tables_rows);
}
