// Fuzz target: request decoding as the program entry does it (query string, then an
// urlencoded or multipart body chosen by REQUEST_METHOD and CONTENT_TYPE, CONTENT_LENGTH bytes
// of it read from standard input), then every lookup of the decoded entries; and the
// illegal-call test with the query string as the request URI and the name as SCRIPT_NAME.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cgi/dispatch.h"
#include "cgi/form.h"
#include "cgi/request.h"
#include "core/memory.h"
#include "fuzz_support.h"

namespace {

// Reads the next line of the input (without its line feed) and moves past it.
std::string next_line(const char*& p, const char* end)
{
    const char* stop = std::find(p, end, '\n');
    std::string line(p, stop);
    p = stop < end ? stop + 1 : end;
    return line;
}

// Reads every value of name through each lookup, with a buffer of a fuzzed size.
void look_up(const char* name, int buffer_size)
{
    int size = 0;
    form_value_length(name, size);
    char* buffer = (char*)checked_malloc(buffer_size);
    form_copy_value(name, buffer, buffer_size, true);
    form_copy_value(name, buffer, buffer_size, false);
    free(buffer);
    int value = 0;
    form_int(name, value, -1);
    char** values = nullptr;
    form_all_values(name, values);
    form_free_values(values);
    for (form_entry* e = form_find_first(name); e; e = form_find_next())
        (void)e->length;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_scratch_init();
    return 0;
}

// The input: REQUEST_METHOD, CONTENT_TYPE, CONTENT_LENGTH ("=" for the body's own length),
// QUERY_STRING and the name to look up, one per line, then the body on standard input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_reset_request();
    const char* p = (const char*)data;
    const char* end = p + size;
    std::string method = next_line(p, end);
    std::string type = next_line(p, end);
    std::string length = next_line(p, end);
    std::string query = next_line(p, end);
    std::string name = next_line(p, end);
    std::string body(p, end);
    if (length == "=")
        length = std::to_string(body.size());
    int buffer_size = 1 + (int)(name.size() * 7 % 64);

    // An empty body still needs a stream to read its end from.
    FILE* input = fmemopen(body.empty() ? (void*)"" : body.data(), body.size() + body.empty(), "r");
    fuzz_run([&] {
        // The request's own values go into the record as request_init reads them from the
        // environment: a new environment string per input would look like memory never
        // given back.
        request_init();
        req.cgi.request_method = method.c_str();
        req.cgi.content_type = type.c_str();
        req.cgi.query_string = query.c_str();
        req.content_length = atoi(length.c_str());
        fuzz_quiet_output();
        req.input_stream = input;
        if (read_form_input() == 0)
            look_up(name.c_str(), buffer_size);
        dispatch_is_illegal_call(query.c_str(), name.c_str());
    });
    fclose(input);
    form_free_all();
    return 0;
}
