// Tables: rows of TAB-separated cells with a cursor, named tables, and the table registry.
//
// A table is an object_array<char> whose slots are its rows (owned heap strings without their
// line ends). Text form: rows end with "\n", cells are separated by one TAB, no quoting; a
// table_named reads its first line as the column names. The registry (table_array) keeps the
// tables of a request sorted by name; its current name (the "context") selects the table that
// the table operators work on. A null string reads as empty text throughout.
#ifndef TESSEL_CORE_TABLE_H
#define TESSEL_CORE_TABLE_H

#include <memory>

#include "core/object_array.h"
#include "core/str.h"

class table;

// ---- lock violation ---------------------------------------------------------------------

// Thrown when a table that a loop holds locked is looped over again (code 1) or would be
// replaced or removed from the registry (code 2). The loop that locked `target` catches it,
// stops, and reports the violation; loops over other tables let it pass.
struct table_lock_violation {
    int code;
    const table* target;
};

constexpr int TABLE_LOCK_REENTERED = 1;
constexpr int TABLE_LOCK_REPLACED = 2;

// ---- cells ------------------------------------------------------------------------------

// Bytes of the cell starting at cell, up to the next TAB or the end; 0 for null.
int table_cell_length(const char* cell);

// ---- table ------------------------------------------------------------------------------

// Rows with a cursor (the current row, 0-based, starting at 0), a lock flag and a name. The
// table owns its rows and its name. Not copyable.
class table : public object_array<char> {
public:
    // An empty table: no rows, cursor 0, unlocked, no name.
    table();

    // Rows from text: split at every "\n"; a final "\n" starts no further row, an empty
    // piece between two line ends is an empty row, and carriage returns are kept.
    // Ownership: takes text.
    explicit table(char* text);

    ~table() override;

    // The row at index; an empty row reads as "". Requires: 0 <= index < count
    // ("table row index %d out of range [0..%d]"). Ownership: view.
    const char* row(int index) const;

    // True when the cursor names an existing row.
    bool has_current_row() const { return current_ >= 0 && current_ < count(); }

    // Start of cell `column` in the current row, null when the row has fewer TABs.
    // Requires: the current row exists (fatal as row()). Ownership: view.
    const char* cell_start(int column) const;

    // Copy of cell `column` of the current row; null when there is no current row, no such
    // cell, or the cell is empty. Ownership: new result.
    char* item_by_index(int column) const;

    // The column given by name. A plain table reads the name as a number (str_to_int), so
    // non-numeric text selects column 0. Ownership: borrows name, new result.
    virtual char* item_by_name(const char* name) const;

    // Makes current the first row whose cell `column` (by item_by_name) equals value;
    // row 0 and false when none does or value is null.
    bool locate_exact(const char* column, const char* value);

    // Makes current the row whose cell `column` is the longest prefix of value (the first of
    // equal lengths); row 0 and false when none is.
    bool locate_prefix(int column, const char* value);

    // Moves the cursor cyclically by step: (step + current + count) % count; nothing on an
    // empty table.
    void shift(int step);

    // Every row followed by "\n"; null for no rows. The header of a table_named is not
    // written. Ownership: new result.
    char* serialise() const;

    // Marks the table as iterated by a loop. Throws table_lock_violation{1, this} when it is
    // locked already (a loop over this table inside the loop's body).
    void lock();
    void unlock() { locked_ = false; }
    bool locked() const { return locked_; }

    // Pins the table in the registry while its rows are reordered in place: a pinned table
    // can be neither replaced nor removed, but unlike a lock it may still be looped over.
    // Pins nest.
    void pin() { pinned_++; }
    void unpin() { pinned_--; }
    // True when the registry must keep the table: locked or pinned.
    bool held() const { return locked_ || pinned_ > 0; }

    int current() const { return current_; }
    void set_current(int row) { current_ = row; }

    // The name under which the registry keeps the table; null until stored. Ownership: view.
    const char* name() const { return name_; }
    // Ownership: borrows name.
    void set_name(const char* name);

    // Appends a copy of row (an empty copy for null). Ownership: borrows row.
    void add_row(const char* row);

    // Inserts a copy of row at index (see object_array::insert). Ownership: borrows row.
    void insert_row(int index, const char* row);

    // The row slots, for sorting in place. Ownership: view.
    char** row_slots() const { return slots(); }

    // True when the rows hold text of the request (form fields, a match over a field...), so
    // that reading a cell reads request data. Set by whoever stores the table.
    bool holds_request_data = false;

protected:
    // Adds the rows of text, split as the text constructor does. Ownership: borrows text.
    void add_rows_from(const char* text);

private:
    bool locked_ = false;
    int pinned_ = 0;
    int current_ = 0;
    char* name_ = nullptr;
};

// ---- table_named --------------------------------------------------------------------

// A table whose first text line names its columns. Owns the header copy and the name array.
class table_named : public table {
public:
    // The first line becomes the column names, the lines after it the rows. An empty or
    // absent text has no columns. Ownership: takes text.
    explicit table_named(char* text);
    ~table_named() override;

    // All-digit text is a column number; otherwise the first column of exactly that name; an
    // unknown name gives "[invalid item name NAME]". Ownership: borrows name, new result.
    char* item_by_name(const char* name) const override;

    // Number of columns.
    int column_count() const;

    // Name of column i, null when out of range. Ownership: view.
    const char* column_name(int i) const;

private:
    char** columns_ = nullptr; // null-terminated; columns_[0] owns the header copy
};

// ---- sorted_array<table, char*> -------------------------------------------------------

// Tables kept in ascending order of name, found by binary search. Owns its tables.
template <typename T, typename K> class sorted_array : public object_array<T> {
public:
    sorted_array(int limit, int delta) : object_array<T>(limit, delta) {}

    // True when a table of that name exists; pos is the lower bound (the match when found).
    bool find(K name, int& pos) const
    {
        auto name_at = [this](int i) { return this->at(i)->name(); };
        return str_lower_bound(this->count(), name_at, name, pos);
    }
};

// ---- table_array --------------------------------------------------------------------

// The table registry of a request, with its current name. Owns its tables and the name.
class table_array : public sorted_array<table, const char*> {
public:
    table_array();
    ~table_array() override;

    // The current name (the context); null at start. Ownership: view.
    const char* current_name() const { return current_name_; }
    // Ownership: borrows name.
    void set_current_name(const char* name);

    // The table under the current name, or null. Ownership: view.
    table* get_current() const { return get_by_name(current_name_); }

    // The table under name (null finds the unnamed table), or null. Ownership: view.
    table* get_by_name(const char* name) const;

    // Stores t under the current name, destroying a table of that name. When that table is
    // held (locked or pinned), t is destroyed instead and table_lock_violation{2, that table}
    // is thrown. Requires: t is not null.
    // Ownership: takes t.
    void store(std::unique_ptr<table> t);

    // Destroys the table under the current name, if any. A held table is left alone and
    // table_lock_violation{2, that table} is thrown.
    void remove_current();

private:
    char* current_name_ = nullptr;
};

// ---- scopes -------------------------------------------------------------------------------

// Makes name the registry's current name for the scope's life, then restores the name it
// found, also when an exception (a lock violation) leaves the scope: the body of
// ^context[name;body] and the replacement of a match run under a name of their own.
// Not copyable. Ownership: borrows tables for the scope's life, borrows name.
class table_context_scope {
public:
    table_context_scope(table_array& tables, const char* name);
    ~table_context_scope();
    table_context_scope(const table_context_scope&) = delete;
    table_context_scope& operator=(const table_context_scope&) = delete;

private:
    table_array& tables_;
    str_holder saved_;
};

// How a table_hold_scope protects its table. Both keep the registry from replacing or
// removing it. LOCK: a loop over the rows that may not run again inside itself (table,
// menu). PIN: the rows are reordered in place (sort), and loops over them stay allowed.
enum class table_hold { LOCK, PIN };

// Holds t as `how` says while a loop runs over it and releases it however the loop ends.
// With LOCK the constructor throws table_lock_violation{1, t} when a loop holds t locked
// already, and then holds nothing. Not copyable. Ownership: borrows t for the scope's life.
class table_hold_scope {
public:
    table_hold_scope(table& t, table_hold how);
    ~table_hold_scope();
    table_hold_scope(const table_hold_scope&) = delete;
    table_hold_scope& operator=(const table_hold_scope&) = delete;

private:
    table& t_;
    table_hold how_;
};

#endif
