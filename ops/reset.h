// The operator families' per-request state: one reset function per family that keeps any,
// and the one call that runs them all.
//
// A family that keeps state in a file-level variable beyond one operator call (a connection, a
// counter, a value a later call reads) defines <family>_reset() at the end of its file, which
// frees what the variable owns and puts it back to its start-up value, and adds it to
// OPERATOR_FAMILY_RESETS. Families whose statics only live inside a scope (an RAII holder that
// restores them however the scope ends) reset them too, so the list names every mutable static
// of ops/. What a process keeps on purpose (loaded client libraries, the random
// generator's seed) is not reset; docs/DEVELOPING.md lists it.
#ifndef TESSEL_OPS_RESET_H
#define TESSEL_OPS_RESET_H

// chat: forgets the ticket that `login` gave in this request.
void chat_reset();
// gif_template: a failure to load gd is logged again.
void gif_template_reset();
// lock: forgets the lock files held (none is held between requests).
void lock_reset();
// misc: `color` starts its alternation again.
void misc_reset();
// sql: closes the connection, if one is open.
void sql_reset();
// switch: frees the recorded branches and forgets the value switched on.
void switch_reset();

// Every family's reset, in the order of OPERATOR_FAMILIES.
inline constexpr void (*OPERATOR_FAMILY_RESETS[])() = {
    misc_reset, sql_reset, gif_template_reset, switch_reset, chat_reset, lock_reset,
};

// Runs every family's reset. Call it between requests only, never during an expansion.
void ops_reset_all();

#endif
