// The illegal-call test: a request addressed to the program instead of to a page, and the
// page's file as each kind of server names it.
#include "cgi/dispatch.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "core/number.h"
#include "core/setting.h"
#include "core/str.h"
#include "interp/request.h"

namespace {

bool is_hex(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Where the path of uri starts: after "scheme://authority" when the uri is in absolute form
// (a server may pass the request target as the client sent it).
const char* uri_path_start(const char* uri)
{
    const char* p = uri;
    while ((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z') || (*p >= '0' && *p <= '9') ||
           *p == '+' || *p == '-' || *p == '.')
        p++;
    if (p == uri || strncmp(p, "://", 3) != 0)
        return uri;
    p += 3;
    return p + strcspn(p, "/?#");
}

// Appends the path of uri to out, decoded: "%" and two hexadecimal digits become their byte.
// A decoded NUL ends the path, as it ends the file name the server looks up.
void uri_decode_path(const char* uri, str_builder& out)
{
    for (const char* p = uri_path_start(uri); *p && *p != '?' && *p != '#'; p++) {
        char c = *p;
        if (c == '%' && is_hex(p[1]) && is_hex(p[2])) {
            c = (char)(str_hex_digit(p[1]) * 16 + str_hex_digit(p[2]));
            p += 2;
        }
        if (c == '\0')
            break;
        out.append(c);
    }
}

// Removes the last segment of the normalized path held in text[0, size): the size of what
// is left, which keeps the root's "/".
size_t uri_drop_segment(const char* text, size_t size)
{
    while (size > 1 && text[size - 1] != '/')
        size--;
    return size > 1 ? size - 1 : size;
}

// True when a and b name the same path, taking each run of "/" as one.
bool path_same(const char* a, const char* b)
{
    while (*a && *a == *b) {
        bool slash = *a == '/';
        a++;
        b++;
        if (slash) {
            a += strspn(a, "/");
            b += strspn(b, "/");
        }
    }
    return *a == *b;
}

} // namespace

char* uri_path_normalize(const char* uri)
{
    str_builder decoded;
    uri_decode_path(str_or_empty(uri), decoded);
    const char* path = decoded.view();
    // Segments are copied one by one; "out" always holds a path that starts with "/" (or is
    // empty), with no "//", "." or ".." in it.
    char* out = (char*)checked_malloc(decoded.size() + 2);
    size_t size = 0;
    const char* p = path;
    while (*p) {
        if (*p == '/') {
            p++;
            continue;
        }
        size_t length = strcspn(p, "/");
        if (length == 2 && p[0] == '.' && p[1] == '.') {
            size = uri_drop_segment(out, size);
        } else if (!(length == 1 && p[0] == '.')) {
            if (size == 0 || out[size - 1] != '/')
                out[size++] = '/';
            memcpy(out + size, p, length);
            size += length;
        }
        p += length;
    }
    if (size == 0 && *path)
        out[size++] = '/';
    // A trailing "/" of the request stays: "/a/" and "/a" name different things.
    if (size > 0 && out[size - 1] != '/' && decoded.size() > 0 && path[decoded.size() - 1] == '/')
        out[size++] = '/';
    out[size] = '\0';
    return out;
}

bool dispatch_is_program(const char* path)
{
    struct stat own, file;
    if (stat("/proc/self/exe", &own) != 0)
        return true;
    if (!str_nonempty(path) || stat(path, &file) != 0)
        return false;
    return own.st_dev == file.st_dev && own.st_ino == file.st_ino;
}

const char* dispatch_page_file(const char* path_translated, const char* script_filename)
{
    if (str_nonempty(path_translated))
        return path_translated;
    if (str_nonempty(script_filename) && !dispatch_is_program(script_filename))
        return script_filename;
    return "";
}

bool dispatch_enter_program_folder()
{
    char path[PATH_MAX + 1];
    ssize_t length = readlink("/proc/self/exe", path, PATH_MAX);
    if (length <= 0)
        return false;
    path[length] = '\0';
    char* slash = strrchr(path, '/');
    if (!slash)
        return false;
    slash[slash == path] = '\0'; // a program in "/" keeps the "/"
    return chdir(path) == 0;
}

bool dispatch_script_is_page(const char* script_name)
{
    const char* page = req.cgi.path_translated;
    if (!str_nonempty(page) || dispatch_is_program(page))
        return false;
    if (str_equal(page, getenv("SCRIPT_FILENAME")))
        return true;
    // PATH_INFO is how a request for the program's URL names a page: such a request is never
    // the page's own.
    if (str_nonempty(req.cgi.path_info) || !str_nonempty(req.cgi.document_root) ||
        !str_nonempty(script_name))
        return false;
    str_holder joined(str_join(req.cgi.document_root, "/", script_name, nullptr));
    return path_same(joined.get(), page);
}

bool dispatch_is_illegal_call(const char* uri, const char* script_name)
{
    if (setting_on("TESSEL_REQUIRE_REDIRECT") && !str_nonempty(getenv("REDIRECT_STATUS")))
        return true;
    bool page_script = dispatch_script_is_page(script_name);
    if (setting_on("TESSEL_REQUIRE_HANDLER") && !page_script)
        return true;
    if (page_script || !str_nonempty(script_name))
        return false;
    if (str_starts_with(uri, script_name))
        return true;
    str_holder path(uri_path_normalize(uri));
    str_holder script(uri_path_normalize(script_name));
    return str_nonempty(script.get()) && str_starts_with(path.get(), script.get());
}
