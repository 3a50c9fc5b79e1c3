// Program entry: one run serves one request.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>

#include "cgi/form.h"
#include "cgi/request.h"
#include "program/page.h"

namespace {

// A POST body is read when its content type is urlencoded or multipart (a prefix match either
// way, so "multipart/form-data; boundary=..." and an empty type both select multipart).
int read_body()
{
    const char* type = req.cgi.content_type;
    if (strcasecmp(type, "application/x-www-form-urlencoded") == 0)
        return read_post_body(false);
    const char* multipart = "multipart/form-data";
    size_t shorter = std::min(strlen(type), strlen(multipart));
    if (strncasecmp(type, multipart, shorter) == 0)
        return read_post_body(true);
    return 0;
}

} // namespace

int main()
{
    umask(002);
    request_init();
    read_query_string();
    if (strcasecmp(req.cgi.request_method, "post") == 0 && read_body() != 0) {
        form_free_all();
        return 255;
    }
    render_page();
    form_free_all();
    fflush(stdout);
    return 0;
}
