// Registration functions of the operator families, called in a fixed order at start-up.
#ifndef TESSEL_OPS_OPS_H
#define TESSEL_OPS_OPS_H

// Registers every family in order; the first registration of a name wins. Does nothing in the
// shipped program, whose registry the build filled by running it (tools/registry_gen.cpp).
void register_all_operators();

// Each family registers one table of rows named after its file: ops/compare.cpp registers
// compare_rows, which the build's pre-filled registry refers to by that name.

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
void register_resource_log_ops();

#endif
