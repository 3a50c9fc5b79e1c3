// tessel-registry-gen: writes the shipped program's pre-filled registry. It registers every
// family as a start of the program would, then writes the resulting entries and hash index as
// C++ data that points at each family's table of rows (ops/compare.cpp: compare_rows). Linked
// into the program, that data makes registration cost nothing per request, with the order and
// first-registration-wins outcome of register_all_operators exactly.
//
//   tessel-registry-gen OUTPUT.cpp      exit status 0, or 1 with a message on stderr
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "interp/registry_storage.h"
#include "ops/ops.h"

namespace {

// compare_rows for ".../ops/compare.cpp".
std::string rows_symbol(const char* source)
{
    std::string stem = source;
    stem = stem.substr(stem.find_last_of('/') + 1);
    return stem.substr(0, stem.find('.')) + "_rows";
}

// A C string literal of text.
std::string quoted(const char* text)
{
    std::string out = "\"";
    for (const char* p = text; *p; p++) {
        if (*p == '"' || *p == '\\')
            out += '\\';
        out += *p;
    }
    return out + "\"";
}

// The family table that holds row and the row's place in it; null when none does.
const operator_family* family_of(const std::vector<operator_family>& families, const op_row* row,
                                 size_t& index)
{
    for (const operator_family& family : families)
        if (row >= family.rows && row < family.rows + family.count) {
            index = row - family.rows;
            return &family;
        }
    return nullptr;
}

bool write_registry(FILE* out)
{
    std::vector<operator_family> families = registry_families();
    fprintf(out, "// Written by tessel-registry-gen at build time: the registry as\n"
                 "// register_all_operators leaves it. Do not edit.\n"
                 "#include \"interp/registry_storage.h\"\n\n");
    for (const operator_family& family : families)
        // With its size declared, &table[i] is a constant: the data needs no code at start.
        fprintf(out, "extern const op_row %s[%zu];\n", rows_symbol(family.source).c_str(),
                family.count);
    fprintf(out, "\nextern const bool registry_storage_prefilled = true;\n");
    fprintf(out, "int registry_entry_count = %d;\n\n", registry_entry_count);
    fprintf(out, "operator_entry registry_entries[MAX_OPERATORS] = {\n");
    for (int i = 0; i < registry_entry_count; i++) {
        const operator_entry& entry = registry_entries[i];
        size_t index = 0;
        const operator_family* family = family_of(families, entry.row, index);
        if (!family) {
            fprintf(stderr, "tessel-registry-gen: %s is not in a family's table\n",
                    entry.row->name);
            return false;
        }
        fprintf(out, "    {&%s[%zu], %s}, // %s\n", rows_symbol(family->source).c_str(), index,
                quoted(family->source).c_str(), entry.row->name);
    }
    fprintf(out, "};\n\nuint16_t registry_index[INDEX_SLOTS] = {");
    for (uint32_t i = 0; i < INDEX_SLOTS; i++)
        fprintf(out, "%s%u,", i % 16 ? " " : "\n    ", registry_index[i]);
    fprintf(out, "\n};\n");
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: tessel-registry-gen OUTPUT.cpp\n");
        return 1;
    }
    register_all_operators();
    std::string temporary = std::string(argv[1]) + ".new";
    FILE* out = fopen(temporary.c_str(), "w");
    if (!out) {
        perror(temporary.c_str());
        return 1;
    }
    bool written = write_registry(out);
    if (fclose(out) != 0 || !written || rename(temporary.c_str(), argv[1]) != 0) {
        fprintf(stderr, "tessel-registry-gen: could not write %s\n", argv[1]);
        remove(temporary.c_str());
        return 1;
    }
    return 0;
}
