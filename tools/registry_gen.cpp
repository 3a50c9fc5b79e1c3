// tessel-registry-gen: writes the program's pre-filled registry. It registers every family of
// OPERATOR_FAMILIES (ops/ops.h) as a start of the program would, then writes the resulting
// entries and hash index as C++ data that points into that list's tables by position
// (&OPERATOR_FAMILIES[7].rows[3]). Linked into the program in place of the empty storage, that
// data makes registration cost nothing per request, with the order and first-registration-wins
// outcome of register_all_operators exactly.
//
//   tessel-registry-gen OUTPUT.cpp      exit status 0, or 1 with a message on stderr
#include <cstdio>
#include <iterator>
#include <string>

#include "interp/registry_storage.h"
#include "ops/ops.h"

namespace {

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

// False, with a message, when a family's table has a row without a name: ops/ops.h declares
// more rows than the family's file defines, and the rest were filled with zeros.
bool tables_complete()
{
    for (const op_family& family : OPERATOR_FAMILIES)
        for (size_t i = 0; i < family.count; i++)
            if (!family.rows[i].name) {
                fprintf(stderr,
                        "tessel-registry-gen: family %s: row %zu of %zu is empty: ops/ops.h "
                        "declares more rows than ops/%s.cpp defines\n",
                        family.name, i + 1, family.count, family.name);
                return false;
            }
    return true;
}

// The position in OPERATOR_FAMILIES of the table that holds row; false when none does.
bool position_of(const op_row* row, size_t& family, size_t& index)
{
    for (family = 0; family < std::size(OPERATOR_FAMILIES); family++) {
        const op_family& f = OPERATOR_FAMILIES[family];
        if (row >= f.rows && row < f.rows + f.count) {
            index = row - f.rows;
            return true;
        }
    }
    return false;
}

bool write_registry(FILE* out)
{
    fprintf(out, "// Written by tessel-registry-gen at build time: the registry as\n"
                 "// register_all_operators leaves it. Do not edit.\n"
                 "#include \"interp/registry_storage.h\"\n"
                 "#include \"ops/ops.h\"\n\n");
    fprintf(out, "extern const bool registry_storage_prefilled = true;\n");
    fprintf(out, "int registry_entry_count = %d;\n\n", registry_entry_count);
    fprintf(out, "operator_entry registry_entries[MAX_OPERATORS] = {\n");
    for (int i = 0; i < registry_entry_count; i++) {
        const operator_entry& entry = registry_entries[i];
        size_t family = 0, index = 0;
        if (!position_of(entry.row, family, index)) {
            fprintf(stderr, "tessel-registry-gen: %s is not in a family's table\n",
                    entry.row->name);
            return false;
        }
        // The list is constexpr and each table's size is declared: a constant address.
        fprintf(out, "    {&OPERATOR_FAMILIES[%zu].rows[%zu], %s}, // %s\n", family, index,
                quoted(OPERATOR_FAMILIES[family].name).c_str(), entry.row->name);
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
    if (!tables_complete())
        return 1;
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
