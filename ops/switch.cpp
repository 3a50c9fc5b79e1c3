// The switch family: `switch` runs its body only for the `case` calls in it, then expands the
// branch they chose.
//
// Three process-wide slots hold the value being switched on, the matched branch and the
// default branch. Each `switch` saves them on entry and restores them on leaving, so switches
// nest. Among several matching cases the last one wins, deliberately.
#include "core/str.h"
#include "interp/registry.h"
#include "ops/ops.h"
#include "ops/reset.h"

namespace {

struct switch_slots {
    const char* value = nullptr; // view of the running switch's expanded value
    char* matched = nullptr;     // owned copy of the raw branch of the last matching case
    char* fallback = nullptr;    // owned copy of the raw branch of the last DEFAULT case
};

switch_slots slots;

// Saves the outer slots when one switch starts and puts them back when it ends, also when a
// table lock violation unwinds through it. Cases met while the switch's own value is being
// expanded still compare with the outer value, but what they record is dropped at start.
class switch_scope {
public:
    switch_scope() : saved_(slots) { slots = switch_slots{saved_.value}; }
    ~switch_scope()
    {
        clear();
        slots = saved_;
    }
    switch_scope(const switch_scope&) = delete;
    switch_scope& operator=(const switch_scope&) = delete;

    // Makes value the one switched on, with no branch recorded yet.
    void start(const char* value)
    {
        clear();
        slots.value = value;
    }

private:
    static void clear()
    {
        str_free(slots.matched);
        str_free(slots.fallback);
        slots.matched = slots.fallback = nullptr;
    }
    switch_slots saved_;
};

// Replaces a recorded branch by a copy of branch. Ownership: borrows branch.
void switch_record(char*& slot, const char* branch)
{
    str_free(slot);
    slot = str_dup(branch);
}

char* op_switch(int, char** params)
{
    switch_scope scope;
    expand_param(params, 0);
    scope.start(params[0]);
    str_free(expand_copy(params[1]));
    return expand_copy(slots.matched ? slots.matched : slots.fallback);
}

constexpr param_range CASE_PARAMS = {2, 0}; // values, then the branch

char* op_case(int count, char** params)
{
    if (!CASE_PARAMS.accepts(count))
        return page_error("[case: not enough params]");
    const char* branch = params[count - 1];
    for (int i = 0; i < count - 1; i++) {
        expand_param(params, i);
        if (str_equal(params[i], slots.value)) {
            switch_record(slots.matched, branch);
            break;
        }
        if (str_equal(params[i], "DEFAULT")) {
            switch_record(slots.fallback, branch);
            break;
        }
    }
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row switch_rows[] = {
    // name      handler     params  flags       accepted
    {"switch",   op_switch,  2,      RAW_PARAMS},
    {"case",     op_case,    0,      RAW_PARAMS, CASE_PARAMS},
};
// clang-format on

void register_switch_ops()
{
    register_rows(switch_rows);
}

void switch_reset()
{
    str_free(slots.matched);
    str_free(slots.fallback);
    slots = switch_slots{};
}
