// Image sizes: `imgsize`, `jpegsize` and `gifsize` leave the pixel size of a GIF or JPEG file
// as the current table, one row "width<TAB>height", for width and height attributes.
#include <memory>

#include "core/image_size.h"
#include "core/memory.h"
#include "core/number.h"
#include "core/table.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

// All three names: the file's extension, not the name, chooses the reader. "0\t0" whenever
// the size cannot be read.
char* op_imgsize(int count, char** params)
{
    str_holder path(resolve_path(param_text(count, params, 0)));
    req.tables->remove_current();
    int width = 0, height = 0;
    if (!image_file_size(path.get(), width, height))
        width = height = 0;
    str_builder text;
    text.append(fmt_int(width).text);
    text.append('\t');
    text.append(fmt_int(height).text);
    request_store_table(std::make_unique<table>(text.take(false)));
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row image_size_rows[] = {
    // name       handler     params  flags
    {"imgsize",   op_imgsize, 1,      0},
    {"jpegsize",  op_imgsize, 1,      0},
    {"gifsize",   op_imgsize, 1,      0},
};
// clang-format on

void register_image_size_ops()
{
    register_rows(image_size_rows);
}
