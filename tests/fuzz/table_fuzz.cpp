// Fuzz target: table text parsing and the reads of a parsed table (cells by index and by
// name, lookups, cursor moves, the text form again).
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>

#include "core/str.h"
#include "core/table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    bool named = in.ConsumeBool();
    std::string column = in.ConsumeRandomLengthString(12);
    std::string value = in.ConsumeRandomLengthString(24);
    int step = in.ConsumeIntegral<int>();
    int index = in.ConsumeIntegralInRange(-1, 8);
    char* text = str_dup(in.ConsumeRemainingBytesAsString().c_str());
    table* t = named ? new table_named(text) : new table(text);
    for (int row = 0; row < t->count(); row++) {
        t->set_current(row);
        str_free(t->item_by_index(index));
        str_free(t->item_by_name(column.c_str()));
        table_cell_length(t->cell_start(index < 0 ? 0 : index));
    }
    t->locate_exact(column.c_str(), value.c_str());
    t->locate_prefix(index < 0 ? 0 : index, value.c_str());
    t->shift(step);
    if (t->has_current_row())
        str_free(t->item_by_index(0));
    str_free(t->serialise());
    delete t;
    return 0;
}
