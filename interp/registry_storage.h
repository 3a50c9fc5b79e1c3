// The registry's storage: the entries in order of registration and the hash index over their
// names. It is not part of the interp library: every program links exactly one definition,
// either interp/registry_storage.cpp, empty (CMake's registry_empty: tests and tools), or the
// program's, which the build wrote by registering every family (tools/registry_gen.cpp,
// CMake's registry_table). Two definitions, or none, fail the link.
#ifndef TESSEL_INTERP_REGISTRY_STORAGE_H
#define TESSEL_INTERP_REGISTRY_STORAGE_H

#include <cstdint>

#include "interp/registry.h"

// Room for every operator; the index has twice as many slots, so probe runs stay short.
constexpr int MAX_OPERATORS = 256;
constexpr uint32_t INDEX_SLOTS = 2 * MAX_OPERATORS; // a power of two

extern operator_entry registry_entries[MAX_OPERATORS];
extern int registry_entry_count;
extern uint16_t registry_index[INDEX_SLOTS]; // entry number + 1; 0 for a free slot
extern const bool registry_storage_prefilled;

#endif
