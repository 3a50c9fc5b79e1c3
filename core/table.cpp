// Tables, named tables and the table registry.
#include "core/table.h"

#include <cstring>

#include "core/number.h"
#include "core/str.h"

namespace {

constexpr int TABLE_LIMIT = 16;
constexpr int TABLE_DELTA = 16;
constexpr int REGISTRY_LIMIT = 5;
constexpr int REGISTRY_DELTA = 5;

// Cuts the header copy at its TABs into a null-terminated array of column names.
char** split_columns(char* header)
{
    int n = 1;
    for (const char* p = header; *p; p++)
        n += *p == '\t';
    char** columns = (char**)checked_malloc(sizeof(char*) * (n + 1));
    int i = 0;
    columns[i++] = header;
    for (char* p = header; *p; p++)
        if (*p == '\t') {
            *p = '\0';
            columns[i++] = p + 1;
        }
    columns[i] = nullptr;
    return columns;
}

} // namespace

int table_cell_length(const char* cell)
{
    return cell ? (int)strcspn(cell, "\t") : 0;
}

// ---- table ------------------------------------------------------------------------------

table::table() : object_array<char>(TABLE_LIMIT, TABLE_DELTA) {}

table::table(char* text) : object_array<char>(TABLE_LIMIT, TABLE_DELTA)
{
    add_rows_from(text);
    str_free(text);
}

table::~table()
{
    str_free(name_);
}

void table::add_rows_from(const char* text)
{
    if (!text)
        return;
    const char* start = text;
    while (*start) {
        const char* end = strchr(start, '\n');
        if (!end) {
            append(str_copy_bytes(start, strlen(start)));
            return;
        }
        append(str_copy_bytes(start, end - start));
        start = end + 1;
    }
}

const char* table::row(int index) const
{
    if (index < 0 || index >= count())
        log_fatal("table row index %d out of range [0..%d]", index, count() - 1);
    return slots()[index];
}

const char* table::cell_start(int column) const
{
    const char* cell = row(current_);
    for (int k = 0; k < column; k++) {
        cell = cell ? strchr(cell, '\t') : nullptr;
        if (!cell)
            return nullptr;
        cell++;
    }
    return column < 0 ? nullptr : cell;
}

char* table::item_by_index(int column) const
{
    if (!has_current_row())
        return nullptr;
    const char* cell = cell_start(column);
    int n = table_cell_length(cell);
    return n > 0 ? str_dup_n(cell, n) : nullptr;
}

char* table::item_by_name(const char* name) const
{
    return item_by_index(str_to_int(name));
}

bool table::locate_exact(const char* column, const char* value)
{
    if (value) {
        size_t n = strlen(value);
        for (int i = 0; i < count(); i++) {
            current_ = i;
            str_holder cell(item_by_name(column));
            if ((size_t)table_cell_length(cell.get()) == n &&
                strncmp(str_or_empty(cell.get()), value, n) == 0)
                return true;
        }
    }
    current_ = 0;
    return false;
}

bool table::locate_prefix(int column, const char* value)
{
    const char* text = str_or_empty(value);
    int best_length = -1, best_row = 0;
    for (int i = 0; i < count(); i++) {
        current_ = i;
        const char* cell = cell_start(column);
        int n = table_cell_length(cell);
        // A cell longer than value differs from it at value's NUL, so no length test is needed.
        if (cell && strncmp(cell, text, n) == 0 && n > best_length) {
            best_length = n;
            best_row = i;
        }
    }
    current_ = best_row;
    return best_length >= 0;
}

void table::shift(int step)
{
    // The sum wraps at 32 bits instead of overflowing, so a huge step is still a defined move.
    if (count() > 0)
        current_ = (int)((unsigned)step + (unsigned)current_ + (unsigned)count()) % count();
}

char* table::serialise() const
{
    if (count() == 0)
        return nullptr;
    str_builder text; // grows by doubling: a large table costs no more per row than a small one
    for (int i = 0; i < count(); i++) {
        text.append(slots()[i]);
        text.append('\n');
    }
    return text.take(false);
}

void table::lock()
{
    if (locked_)
        throw table_lock_violation{TABLE_LOCK_REENTERED, this};
    locked_ = true;
}

void table::set_name(const char* name)
{
    char* copy = str_dup(name);
    str_free(name_);
    name_ = copy;
}

void table::add_row(const char* row)
{
    append(str_dup(str_or_empty(row)));
}

void table::insert_row(int index, const char* row)
{
    insert(index, str_dup(str_or_empty(row)));
}

// ---- table_named ------------------------------------------------------------------------

table_named::table_named(char* text)
{
    if (text && *text) {
        char* rest = strchr(text, '\n');
        if (rest)
            *rest++ = '\0';
        add_rows_from(rest);
        char* header = str_dup(text);
        columns_ = split_columns(header ? header : str_copy_bytes("", 0));
    }
    str_free(text);
}

table_named::~table_named()
{
    if (columns_)
        str_free(columns_[0]);
    str_free(columns_);
}

char* table_named::item_by_name(const char* name) const
{
    if (str_is_digits(name))
        return item_by_index(str_to_int(name));
    for (int i = 0; columns_ && columns_[i]; i++)
        if (str_equal(columns_[i], name))
            return item_by_index(i);
    return str_join("[invalid item name ", str_or_null(name), "]", nullptr);
}

int table_named::column_count() const
{
    int n = 0;
    while (columns_ && columns_[n])
        n++;
    return n;
}

const char* table_named::column_name(int i) const
{
    return i >= 0 && i < column_count() ? columns_[i] : nullptr;
}

// ---- registry ---------------------------------------------------------------------------

table_array::table_array() : sorted_array<table, const char*>(REGISTRY_LIMIT, REGISTRY_DELTA) {}

table_array::~table_array()
{
    str_free(current_name_);
}

void table_array::set_current_name(const char* name)
{
    char* copy = str_dup(name);
    str_free(current_name_);
    current_name_ = copy;
}

table* table_array::get_by_name(const char* name) const
{
    int pos;
    return find(name, pos) ? at(pos) : nullptr;
}

void table_array::store(std::unique_ptr<table> t)
{
    t->set_name(current_name_);
    int pos;
    if (!find(current_name_, pos)) {
        insert(pos, t.release());
        return;
    }
    table* old = at(pos);
    if (old->held()) {
        t.reset();
        throw table_lock_violation{TABLE_LOCK_REPLACED, old};
    }
    // Release the old table but keep its slot, so the new one takes its place in the order.
    delete old;
    slots()[pos] = nullptr;
    put(pos, t.release());
}

void table_array::remove_current()
{
    int pos;
    if (!find(current_name_, pos))
        return;
    if (at(pos)->held())
        throw table_lock_violation{TABLE_LOCK_REPLACED, at(pos)};
    remove(pos);
}

// ---- scopes -------------------------------------------------------------------------------

table_context_scope::table_context_scope(table_array& tables, const char* name)
    : tables_(tables), saved_(str_dup(tables.current_name()))
{
    tables_.set_current_name(name);
}

table_context_scope::~table_context_scope()
{
    tables_.set_current_name(saved_.get());
}

table_hold_scope::table_hold_scope(table& t, table_hold how) : t_(t), how_(how)
{
    if (how_ == table_hold::LOCK)
        t_.lock();
    else
        t_.pin();
}

table_hold_scope::~table_hold_scope()
{
    if (how_ == table_hold::LOCK)
        t_.unlock();
    else
        t_.unpin();
}
