// The sort operator: reorders the current table by a key that the page computes per row.
//
// The key body is expanded with the row under comparison as the current row, twice per
// comparison (keys are not cached), and the parts of the two keys are compared by a small
// specification such as "A|-N". The rows are sorted in place, comparing rows at their
// positions in the row array, by a three-way quicksort that stays inside its range whatever
// the comparison answers (a key may be random or inconsistent).
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "cgi/charset.h"
#include "core/number.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

// What one sort compares with: the key body as written, the expanded specification and the
// table being sorted.
struct sort_job {
    const char* key;
    const char* spec;
    table* rows;
};

// ---- comparing keys ---------------------------------------------------------------------

int sign_of(double d)
{
    return (d > 0) - (d < 0);
}

// Alphabetical in the Windows-1251 code page; an absent part sorts before any text.
int sort_alphabetical(const char* a, const char* b)
{
    if (!a || !b)
        return (a != nullptr) - (b != nullptr);
    str_holder x(str_dup(a)), y(str_dup(b));
    charset_convert(x.get(), req.source_charset, CHARSET_WIN);
    charset_convert(y.get(), req.source_charset, CHARSET_WIN);
    return strcmp(x.get(), y.get());
}

// One key part of each side compared by kind: "A" text, "D" integers, "N" numbers with
// fractions; any other kind compares equal.
int sort_compare_parts(char kind, const char* a, const char* b)
{
    switch (toupper((unsigned char)kind)) {
    case 'A':
        return sort_alphabetical(a, b);
    case 'D':
        return sign_of((double)str_to_int(a) - (double)str_to_int(b));
    case 'N':
        return sign_of((a ? atof(a) : 0) - (b ? atof(b) : 0));
    default:
        return 0;
    }
}

// Compares two keys by a sort specification, a "|"-separated list of items "[+|-]kind", one per
// "|"-separated key part. A character other than "|" after an item ends the comparison as
// equal, so a malformed spec leaves the order to chance. Ownership: borrows all (the keys
// are cut in place).
int sort_compare_keys(char* key_a, char* key_b, const char* spec)
{
    int state = 0, sign = 1;
    char kind = 0;
    for (const char* p = spec;; p++) {
        if (state == 0 || state == 1) {
            if (!*p)
                return 0;
            if (state == 0 && (*p == '+' || *p == '-')) {
                sign = *p == '-' ? -1 : 1;
                state = 1;
                continue;
            }
            sign = state == 0 ? 1 : sign;
            kind = *p;
            state = 2;
            continue;
        }
        if (*p != '|' && *p)
            return 0;
        char* part_a = str_next_field(key_a, '|');
        char* part_b = str_next_field(key_b, '|');
        int order = sort_compare_parts(kind, part_a, part_b);
        if (order != 0)
            return order * sign;
        if (!*p)
            return 0;
        state = 0;
    }
}

// Compares the rows at positions i and j by their expanded keys.
int sort_compare_rows(const sort_job& job, int i, int j)
{
    table* t = job.rows;
    if (!t->exists(i) || !t->exists(j))
        return 0;
    t->set_current(i);
    str_holder a(expand_copy(job.key));
    t->set_current(j);
    str_holder b(expand_copy(job.key));
    return sort_compare_keys(a.get(), b.get(), job.spec);
}

// ---- sorting in place -------------------------------------------------------------------

// Swaps two rows. The slot array is read afresh: a key body may have added or removed rows.
void sort_swap(const sort_job& job, int i, int j)
{
    if (i == j || i >= job.rows->count() || j >= job.rows->count())
        return;
    char** slots = job.rows->row_slots();
    char* row = slots[i];
    slots[i] = slots[j];
    slots[j] = row;
}

// Three-way partition of [lo, hi] around the middle row: on return [lo, lt) holds the rows
// before the pivot and (gt, hi] those after it.
void sort_partition(const sort_job& job, int lo, int hi, int& lt, int& gt)
{
    int pivot = lo;
    sort_swap(job, lo, lo + (hi - lo) / 2);
    lt = lo;
    gt = hi;
    for (int i = lo + 1; i <= gt;) {
        int order = sort_compare_rows(job, i, pivot);
        if (order < 0) {
            sort_swap(job, lt, i);
            pivot = pivot == lt ? i : pivot;
            lt++;
            i++;
        } else if (order > 0) {
            sort_swap(job, i, gt--);
        } else {
            i++;
        }
    }
}

// Sorts [lo, hi], recursing into the smaller side so the stack stays logarithmic.
void sort_range(const sort_job& job, int lo, int hi)
{
    while (lo < hi) {
        int lt, gt;
        sort_partition(job, lo, hi, lt, gt);
        if (lt - lo < hi - gt) {
            sort_range(job, lo, lt - 1);
            lo = gt + 1;
        } else {
            sort_range(job, gt + 1, hi);
            hi = lt - 1;
        }
    }
}

// Sorts t pinned, so that a key body cannot replace or remove the table while its rows are
// being moved; such an attempt ends the sort where it stands. The key may still loop over
// the table. When a loop holds the table locked, the attempt is that loop's to report.
void sort_table(const sort_job& job)
{
    table* t = job.rows;
    table_hold_scope pin(*t, table_hold::PIN);
    int depth = req.depth;
    try {
        sort_range(job, 0, t->count() - 1);
    } catch (const table_lock_violation& violation) {
        if (violation.target != t || t->locked())
            throw;
        req.depth = depth; // the calls that were unwound did not return
    }
}

// ---- handlers ---------------------------------------------------------------------------

char* op_sort(int, char** params)
{
    str_holder spec(expand_copy(params[1]));
    table* t = req.tables->get_current();
    if (!t || t->count() < 1)
        return nullptr;
    sort_table(sort_job{params[0], str_or_empty(spec.get()), t});
    t->set_current(0);
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row sort_rows[] = {
    // name    handler   params  flags
    {"sort",   op_sort,  2,      RAW_PARAMS},
};
// clang-format on

void register_sort_ops()
{
    register_rows(sort_rows);
}
