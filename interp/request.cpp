// The request record and the page-relative path resolution.
#include "interp/request.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

#include "core/charset.h"
#include "core/log.h"
#include "core/setting.h"
#include "core/str.h"

request_record req;

// A member that frees what it owns in its destructor would be freed twice by
// request_record_reset, which deletes the owned pointers by hand and then rebuilds the record.
static_assert(std::is_trivially_destructible_v<request_record>);

request_record::request_record()
{
    log_bind(&page_path, log_names);
    charset_case_bind(&source_charset);
}

void request_record_reset()
{
    str_free(req.content_type);
    str_free(req.request_uri);
    str_free(req.page_path);
    delete req.request_data_variables;
    delete req.macros;
    delete req.variables;
    delete req.tables;
    // The fields own nothing else, so the record can be rebuilt in place: the default values
    // of the declaration are then the reset values, and a new field cannot be forgotten.
    std::destroy_at(&req);
    std::construct_at(&req);
}

char* resolve_path(const char* name)
{
    if (name && name[0] == '/')
        return str_join(req.cgi.document_root, name, nullptr);
    char* dir = str_dup(req.page_path);
    str_cut_at_last(dir, '/');
    char* path = str_join(str_or_empty(dir), "/", str_or_empty(name), nullptr);
    str_free(dir);
    return path;
}

char* resolve_private_path(const char* name)
{
    str_holder path(resolve_path(name));
    char* slash = strrchr(path.get(), '/');
    if (!slash)
        return str_join("_", path.get(), nullptr);
    *slash = '\0';
    return str_join(path.get(), "/_", slash + 1, nullptr);
}

const char* request_path_shown(const char* path, const char* written)
{
    return str_or_empty(setting_on("TESSEL_SAFE_ERROR_PAGES") ? written : path);
}

bool request_search_reaches(const char* dir)
{
    const char* root = req.cgi.document_root;
    if (!str_nonempty(root) || !setting_on("TESSEL_STOP_AT_DOCUMENT_ROOT"))
        return true;
    size_t length = strlen(root);
    while (length > 0 && root[length - 1] == '/')
        length--;
    return strncmp(str_or_empty(dir), root, length) == 0 &&
           (dir[length] == '\0' || dir[length] == '/');
}

void request_store_table(std::unique_ptr<table> t, table_origin origin)
{
    if (!t)
        return;
    if (origin == table_origin::CALL && request_data_in_call())
        t->holds_request_data = true;
    req.tables->store(std::move(t));
}
