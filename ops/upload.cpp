// Upload: `upload` saves or inspects a file that arrived in a multipart form field, `unlink`
// removes a file. The raw file routines that `download` shares live here too.
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi/charset.h"
#include "cgi/form.h"
#include "core/charset.h"
#include "core/file.h"
#include "core/file_replace.h"
#include "core/log.h"
#include "core/number.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/mail.h"
#include "ops/ops.h"
#include "ops/upload.h"

namespace {

constexpr const char* NO_FILE = "(no file)";

// Logs the failure and returns its bracketed text. Ownership: borrows all, new result.
char* upload_error(const char* field, const char* target, const char* reason)
{
    return page_error_logged("[upload field '%s' to '%s' failed: %s]", field, target, reason);
}

// The client file name with blanks made "_", escaped under TESSEL_SAFE_ESCAPING. The form
// reader already kept only its last path component, so it names no folder. Ownership: new
// result.
char* upload_client_name(const form_entry* field)
{
    char* name = str_dup(field->file_name);
    str_replace_char(name, ' ', '_');
    return escape_take_when_safe(name);
}

// Creates every directory on the way to path (0775); failures are left to the write.
void upload_make_directories(char* path)
{
    for (char* slash = strchr(path, '/'); slash; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        mkdir(path, 0775);
        *slash = '/';
    }
}

// Saves the field's bytes under target (blanks in the resolved path made "_"): null on
// success, else the upload error. Ownership: new result.
char* upload_save(const char* field_name, const form_entry* field, const char* target)
{
    str_holder path(resolve_path(target));
    str_replace_char(path.get(), ' ', '_');
    upload_make_directories(path.get());
    str_holder reason(write_file_raw(path.get(), field->value, field->length));
    if (!reason.get())
        return nullptr;
    return upload_error(field_name, request_path_shown(path.get(), target), reason.get());
}

// What `upload` gives for a file field: its name, size, data, attachment block, or the save.
char* upload_file_field(const char* field_name, const form_entry* field, int count, char** params)
{
    const char* what = param_or(count, params, 1, "");
    if (strcmp(what, "name") == 0)
        return upload_client_name(field);
    if (strcmp(what, "size") == 0)
        return str_dup(fmt_int(field->length).text);
    if (strcmp(what, "value") == 0)
        return str_dup_n(field->value, field->length);
    if (strcmp(what, "uuencode") == 0)
        return build_attachment(field->value, field->length,
                                count >= 3 ? param_or(count, params, 2, "") : "noname.dat");
    return upload_save(field_name, field, what);
}

// A last parameter "text" recodes the result from the client's code page to the pages' one,
// "sql" to the database's, and both clean it as a text file is cleaned.
char* upload_recode(char* result, const char* last)
{
    int to = strcmp(last, "text") == 0  ? req.source_charset
             : strcmp(last, "sql") == 0 ? database_charset_get().code_page
                                        : -1;
    if (to >= 0 && result) {
        charset_convert(result, req.output_charset, to);
        file_clean_text(result, false);
    }
    return result;
}

// upload[field;what;...]: "name", "size", "value", "uuencode" [;name], or a target path to
// save to; a last parameter "text" or "sql" recodes what comes back.
constexpr param_range UPLOAD_PARAMS = {2, 0};

char* op_upload(int count, char** params)
{
    if (!UPLOAD_PARAMS.accepts(count))
        return page_error("[invalid parameters to operator upload]");
    const char* field_name = param_or(count, params, 0, "");
    const form_entry* field = form_find_first(field_name);
    char* result;
    if (!field)
        result = upload_error(field_name, NO_FILE, "no such field");
    else if (!field->file_name)
        result =
            upload_error(field_name, NO_FILE, "field is not of file type/wrong method/enctype");
    else
        result = upload_file_field(field_name, field, count, params);
    return upload_recode(result, param_or(count, params, count - 1, ""));
}

// unlink[path]: removes the file.
char* op_unlink(int count, char** params)
{
    const char* name = param_or(count, params, 0, "");
    str_holder path(resolve_path(name));
    str_holder reason(file_remove(path.get()));
    if (!reason.get())
        return nullptr;
    // The log names the file removed; the page, the name as the page wrote it.
    log_line(LOG_ERROR, "unlink '%s' failed: %s", path.get(), reason.get());
    return page_error("[unlink '%s' failed: %s]", name, reason.get());
}

} // namespace

// clang-format off
extern constexpr op_row upload_rows[] = {
    // name     handler     params  flags       accepted
    {"upload",  op_upload,  0,      REQUEST_DATA, UPLOAD_PARAMS},
    {"unlink",  op_unlink,  1,      0},
};
// clang-format on

char* read_file_raw(const char* path, int& size, char*& error)
{
    size = 0;
    error = nullptr;
    struct stat info;
    int fd = -1;
    if (!path || stat(path, &info) != 0 || (fd = open(path, O_RDONLY)) < 0) {
        error = path ? system_error_text() : str_dup("no filename specified");
        return nullptr;
    }
    if (info.st_size >= INT_MAX) { // sizes are counted in int, as form data is
        close(fd);
        errno = EFBIG;
        error = system_error_text();
        return nullptr;
    }
    char* data = static_cast<char*>(checked_malloc(info.st_size + 1));
    ssize_t got = read(fd, data, info.st_size);
    if (got < 0) {
        error = system_error_text();
        close(fd);
        str_free(data);
        return nullptr;
    }
    close(fd);
    data[got] = '\0';
    size = static_cast<int>(got);
    return data;
}

char* write_file_raw(const char* path, const char* data, int length)
{
    return file_replace(path, data, length > 0 ? (size_t)length : 0);
}

void register_upload_ops()
{
    register_rows(upload_rows);
}
