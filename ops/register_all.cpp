// The one place that fixes the order in which operator families register.
#include "ops/ops.h"

#include "interp/registry.h"

// A name registered by two families belongs to the one listed first here. The list is kept out
// of clang-format so that adding a family changes its own line only.
// clang-format off
void register_all_operators()
{
    // The shipped program's registry was filled at build time by this very function.
    if (registry_prefilled())
        return;
    register_cache_ops();            // 1
    register_optimize_ops();         // 2
    register_request_ops();          // 3
    register_misc_ops();             // 4
    register_exec_ops();             // 5
    register_file_ops();             // 6
    register_image_size_ops();       // 7
    register_compare_ops();          // 8
    register_macro_ops();            // 9
    register_match_ops();            // 10
    register_mail_ops();             // 11
    register_sort_ops();             // 12
    register_string_case_ops();      // 13
    register_table_ops();            // 14
    register_cookie_ops();           // 15
    register_upload_ops();           // 16
    register_uuencode_ops();         // 17
    register_sql_ops();              // 18
    register_counter_ops();          // 19
    register_date_ops();             // 20
    register_gif_template_ops();     // 21
    register_switch_ops();           // 22
    register_control_ops();          // 23
    register_access_ops();           // 24
    register_thread_ops();           // 25
    register_download_ops();         // 26
    register_chat_ops();             // 27
    register_string_ops();           // 28
    register_resource_log_ops();     // 29
}
// clang-format on
