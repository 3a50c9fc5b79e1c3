// Page loading and macro definitions.
#include "interp/macros.h"

#include "core/str.h"
#include "interp/registry.h"

void macro_init()
{
}

char* load_page(const char* path)
{
    char* text = read_file(path, false, false);
    return text ? expand_in_place(text) : nullptr;
}
