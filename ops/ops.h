// The operator families: their tables, the one list that orders them, and their registration.
#ifndef TESSEL_OPS_OPS_H
#define TESSEL_OPS_OPS_H

#include <cstddef>

#include "interp/registry.h"

// ---- the families' tables ------------------------------------------------------------------

// Each family's table of rows, defined in ops/<family>.cpp as `extern constexpr op_row
// <family>_rows[] = {...}`. The number of rows is part of the declaration, so that the list
// below knows each table's size at compile time: a table with more rows than declared does not
// build, and one with fewer (a row left empty) stops tessel-registry-gen with a message.
// clang-format off
extern const op_row cache_rows[1];
extern const op_row optimize_rows[1];
extern const op_row request_rows[9];
extern const op_row misc_rows[7];
extern const op_row exec_rows[1];
extern const op_row files_rows[6];
extern const op_row image_size_rows[3];
extern const op_row compare_rows[10];
extern const op_row macros_rows[4];
extern const op_row match_rows[1];
extern const op_row mail_rows[1];
extern const op_row sort_rows[1];
extern const op_row string_case_rows[6];
extern const op_row tables_rows[11];
extern const op_row cookie_rows[1];
extern const op_row upload_rows[2];
extern const op_row uuencode_rows[1];
extern const op_row sql_rows[2];
extern const op_row counter_rows[1];
extern const op_row dates_rows[3];
extern const op_row gif_template_rows[1];
extern const op_row switch_rows[2];
extern const op_row control_rows[5];
extern const op_row access_rows[2];
extern const op_row threads_rows[2];
extern const op_row download_rows[1];
extern const op_row chat_rows[7];
extern const op_row strings_rows[7];
extern const op_row lock_rows[1];
// clang-format on

// One family: a name for tests and diagnostics, and its table of rows.
struct op_family {
    const char* name;
    const op_row* rows;
    size_t count;
};

template <size_t N> constexpr op_family op_family_of(const char* name, const op_row (&rows)[N])
{
    return {name, rows, N};
}

// Every family, in the order they register: a name that two families register belongs to the
// one listed first. register_all_operators registers this list at run time, and
// tessel-registry-gen writes the program's pre-filled registry from it at build time, as data
// that points into it. The resource log registers no
// operator and has no row here. Adding a family is a table in its file, its declaration above
// and its line here (README, "For developers").
// clang-format off
inline constexpr op_family OPERATOR_FAMILIES[] = {
    op_family_of("cache",        cache_rows),
    op_family_of("optimize",     optimize_rows),
    op_family_of("request",      request_rows),
    op_family_of("misc",         misc_rows),
    op_family_of("exec",         exec_rows),
    op_family_of("files",        files_rows),
    op_family_of("image_size",   image_size_rows),
    op_family_of("compare",      compare_rows),
    op_family_of("macros",       macros_rows),
    op_family_of("match",        match_rows),
    op_family_of("mail",         mail_rows),
    op_family_of("sort",         sort_rows),
    op_family_of("string_case",  string_case_rows),
    op_family_of("tables",       tables_rows),
    op_family_of("cookie",       cookie_rows),
    op_family_of("upload",       upload_rows),
    op_family_of("uuencode",     uuencode_rows),
    op_family_of("sql",          sql_rows),
    op_family_of("counter",      counter_rows),
    op_family_of("dates",        dates_rows),
    op_family_of("gif_template", gif_template_rows),
    op_family_of("switch",       switch_rows),
    op_family_of("control",      control_rows),
    op_family_of("access",       access_rows),
    op_family_of("threads",      threads_rows),
    op_family_of("download",     download_rows),
    op_family_of("chat",         chat_rows),
    op_family_of("strings",      strings_rows),
    op_family_of("lock",         lock_rows),
};
// clang-format on

// ---- registration --------------------------------------------------------------------------

// Registers every family of OPERATOR_FAMILIES in order; the first registration of a name wins.
// Does nothing in the program, whose registry the build filled from the same list.
void register_all_operators();

// Each registers one family's table alone, for tests that need only that family.
void register_cache_ops();
void register_optimize_ops();
void register_request_ops();
void register_misc_ops();
void register_exec_ops();
void register_file_ops();
void register_image_size_ops();
void register_compare_ops();
void register_macro_ops();
void register_match_ops();
void register_mail_ops();
void register_sort_ops();
void register_string_case_ops();
void register_table_ops();
void register_cookie_ops();
void register_upload_ops();
void register_uuencode_ops();
void register_sql_ops();
void register_counter_ops();
void register_date_ops();
void register_gif_template_ops();
void register_switch_ops();
void register_control_ops();
void register_access_ops();
void register_thread_ops();
void register_download_ops();
void register_chat_ops();
void register_string_ops();
void register_lock_ops();
void register_resource_log_ops();

#endif
