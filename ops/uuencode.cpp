// uuencode: a text turned into a uuencoded mail attachment block.
#include "core/str.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "ops/mail.h"
#include "ops/ops.h"

namespace {

// uuencode[text;name]: both parameters expanded unescaped; the text up to its first NUL.
char* op_uuencode(int count, char** params)
{
    const char* text;
    const char* name;
    {
        escape_mode_scope none(ESCAPE_MODE_NONE);
        text = expand_param_text(count, params, 0);
        name = expand_param_text(count, params, 1);
    }
    return build_attachment(text, str_len0(text), str_nonempty(name) ? name : "noname.dat");
}

} // namespace

// clang-format off
extern constexpr op_row uuencode_rows[] = {
    // name       handler      params  flags
    {"uuencode",  op_uuencode, 2,      RAW_PARAMS},
};
// clang-format on

void register_uuencode_ops()
{
    register_rows(uuencode_rows);
}
