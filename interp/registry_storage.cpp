// The registry's storage as tests and tools link it: empty, so that registration fills it at
// run time. Zeroed memory costs nothing until an entry is written.
#include "interp/registry_storage.h"

operator_entry registry_entries[MAX_OPERATORS];
int registry_entry_count = 0;
uint16_t registry_index[INDEX_SLOTS];
extern const bool registry_storage_prefilled = false;
