// Fuzz target: the image-size readers and the GIF template. The input is the commands of a
// `gif_template` call, a line feed, then the bytes of a picture file; the file is read for its
// size as a GIF and as a JPEG, and drawn on as the template (and as its font) by gd.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/image_size.h"
#include "core/str.h"
#include "fuzz_support.h"
#include "interp/macros.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

std::string scratch;

void write_file_bytes(const std::string& path, const std::string& bytes)
{
    FILE* file = fopen(path.c_str(), "wb");
    if (!file)
        abort();
    fwrite(bytes.data(), 1, bytes.size(), file);
    fclose(file);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    scratch = fuzz_scratch_init();
    register_all_operators();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_reset_request();
    std::string input((const char*)data, size);
    size_t line = input.find('\n');
    std::string commands = line == std::string::npos ? "" : input.substr(0, line);
    std::string bytes = line == std::string::npos ? input : input.substr(line + 1);
    write_file_bytes(scratch + "/t.gif", bytes);
    write_file_bytes(scratch + "/t.jpg", bytes);
    req.page_path = str_dup((scratch + "/page.html").c_str());
    fuzz_run([&] {
        int width = 0, height = 0;
        image_gif_header_size((const unsigned char*)bytes.data(), bytes.size(), width, height);
        image_file_size("t.gif", width, height);
        image_file_size("t.jpg", width, height);
        macro_define("font", "t.gif\n8\t1\n .abcXYZ019\n");
        char* params[] = {str_dup("t.gif"), str_dup(commands.c_str())};
        str_free(call_operator("gif_template", 2, params));
        str_free(params[0]);
        str_free(params[1]);
    });
    return 0;
}
