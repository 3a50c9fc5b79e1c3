// Download: `download` answers the request with a file from disk instead of the page.
#include <cstdio>
#include <cstring>

#include "cgi/response.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/macros.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"
#include "ops/upload.h"

namespace {

constexpr const char* DEFAULT_TYPE = "application/octet-stream";

// The part of name after its last "/", or "noname.dat" when that is empty. Ownership: view.
const char* download_offered_name(const char* name)
{
    const char* slash = strrchr(name, '/');
    const char* base = slash ? slash + 1 : name;
    return *base ? base : "noname.dat";
}

// The media type of the extension in the table of the "MIME_TYPES" macro (rows of extension
// TAB media type); null when the name has no extension or no row names it.
// Ownership: new result.
char* download_listed_type(const char* name)
{
    const char* dot = strrchr(name, '.');
    const char* body = macro_body("MIME_TYPES");
    if (!dot || !dot[1] || !body)
        return nullptr;
    size_t length = strlen(dot + 1);
    table types(str_dup(body));
    for (int i = 0; i < types.count(); i++) {
        const char* row = types.row(i);
        if ((size_t)table_cell_length(row) != length || strncmp(row, dot + 1, length) != 0)
            continue;
        const char* second = row[length] == '\t' ? row + length + 1 : nullptr;
        return second ? str_dup_n(second, table_cell_length(second)) : nullptr;
    }
    return nullptr;
}

// Prints the header block and the bytes; the page itself is not printed after them.
void download_send(const char* type, const char* name, const char* data, int size)
{
    response_content(type, size);
    response_filename(name);
    response_end_header();
    fwrite(data, 1, size, response_stream());
    req.output_enabled = false;
}

// download[path;name;type]: the file as the response, offered under name with the type.
constexpr param_range DOWNLOAD_PARAMS = {1, 3};

char* op_download(int count, char** params)
{
    if (!DOWNLOAD_PARAMS.accepts(count))
        return page_error("[invalid parameters to operator download]");
    str_holder path(resolve_path(param_text(count, params, 0)));
    const char* name = download_offered_name(param_or(count, params, 1, path.get()));
    str_holder type(str_dup(param_text(count, params, 2)));
    if (!str_nonempty(type.get()))
        type.reset(download_listed_type(name));
    int size = 0;
    char* error = nullptr;
    str_holder data(read_file_raw(path.get(), size, error));
    str_holder reason(error);
    if (!data.get())
        return page_error_logged("[download error: %s]", reason.get());
    download_send(str_nonempty(type.get()) ? type.get() : DEFAULT_TYPE, name, data.get(), size);
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row download_rows[] = {
    // name       handler      params  flags       accepted
    {"download",  op_download, 0,      0,          DOWNLOAD_PARAMS},
};
// clang-format on

void register_download_ops()
{
    register_rows(download_rows);
}
