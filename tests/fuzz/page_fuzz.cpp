// Fuzz target: a whole page request through the page main, with every operator family whose
// effects stay inside the scratch folder. The input is the page file; a first line that
// starts with "?" is the query string instead.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cgi/form.h"
#include "cgi/request.h"
#include "fuzz_support.h"
#include "interp/registry.h"
#include "program/page.h"

namespace {

// Operators that reach outside the scratch folder (a database server, mail, programs) are
// registered first as no-ops, so that their families' own registrations are ignored.
char* op_disabled(int, char**)
{
    return nullptr;
}

constexpr const char* DISABLED[] = {"server", "sql", "sendmail", "exec"};

std::string page_path;

void write_page(const uint8_t* data, size_t size)
{
    FILE* page = fopen(page_path.c_str(), "wb");
    if (!page)
        abort();
    fwrite(data, 1, size, page);
    fclose(page);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    page_path = fuzz_scratch_init() + "/page.html";
    for (const char* name : DISABLED)
        register_operator(name, op_disabled, 0, RAW_PARAMS);
    setenv("REQUEST_METHOD", "GET", 1);
    setenv("REQUEST_URI", "/page.html", 1);
    setenv("PATH_TRANSLATED", page_path.c_str(), 1);
    setenv("SCRIPT_NAME", "/cgi-bin/tessel", 1);
    setenv("REMOTE_ADDR", "127.0.0.1", 1);
    fuzz_keep_environment();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_reset_request();
    std::string query;
    if (size > 0 && data[0] == '?') {
        size_t end = 1;
        while (end < size && data[end] != '\n')
            end++;
        query.assign((const char*)data + 1, end - 1);
        size_t skip = end < size ? end + 1 : end;
        data += skip;
        size -= skip;
    }
    write_page(data, size);
    // The request's own values go into the record rather than the environment: a new
    // environment string per input would look like memory never given back.
    fuzz_run([&] {
        request_init();
        req.cgi.query_string = query.c_str();
        fuzz_quiet_output();
        if (read_form_input() == 0)
            render_page();
    });
    return 0;
}
