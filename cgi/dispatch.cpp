// The illegal-call test: a request addressed to the program instead of to a page.
#include "cgi/dispatch.h"

#include <cstdlib>
#include <cstring>

#include "core/number.h"
#include "core/setting.h"
#include "core/str.h"

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

bool dispatch_is_illegal_call(const char* uri, const char* script_name)
{
    if (setting_on("TESSEL_REQUIRE_REDIRECT") && !str_nonempty(getenv("REDIRECT_STATUS")))
        return true;
    if (!str_nonempty(script_name))
        return false;
    if (str_starts_with(uri, script_name))
        return true;
    str_holder path(uri_path_normalize(uri));
    str_holder script(uri_path_normalize(script_name));
    return str_nonempty(script.get()) && str_starts_with(path.get(), script.get());
}
