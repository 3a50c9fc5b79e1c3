// The operator registry and the expander.
//
// The registry is a fixed table of entries with an open-addressing hash index over their names,
// both static storage (interp/registry_storage.h; the shipped program's comes filled at build
// time): registering a family's rows copies no name and allocates nothing, and the process
// ends without tearing anything down. The first registration of a name wins, and a
// lookup costs the same whatever the number of operators. The expander reads its input once,
// left to right, and writes into a separate output buffer: a result is appended and never
// rescanned, which is exactly what splicing it into the text and scanning on after it would do,
// without copying the rest of the text for every call.
#include "interp/registry.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "core/number.h"
#include "core/setting.h"
#include "core/str.h"
#include "interp/registry_storage.h"
#include "interp/request.h"
#include "interp/scanner.h"

char lazy_slot_mark;

namespace {

// FNV-1a over the bytes of name.
uint32_t registry_hash(const char* name)
{
    uint32_t hash = 2166136261u;
    for (const unsigned char* p = (const unsigned char*)name; *p; p++)
        hash = (hash ^ *p) * 16777619u;
    return hash;
}

// The index slot that holds name, or the free slot where it belongs.
uint16_t& registry_slot(const char* name)
{
    for (uint32_t i = registry_hash(name);; i++) {
        uint16_t& slot = registry_index[i & (INDEX_SLOTS - 1)];
        if (slot == 0 || strcmp(registry_entries[slot - 1].row->name, name) == 0)
            return slot;
    }
}

} // namespace

void registry_add(const op_row* row, const char* source)
{
    if (!str_nonempty(row->name))
        return;
    uint16_t& slot = registry_slot(row->name);
    if (slot != 0)
        return; // the first registration wins
    if (registry_entry_count == MAX_OPERATORS)
        log_fatal("more than %d operators registered", MAX_OPERATORS);
    registry_entries[registry_entry_count] = {row, source};
    slot = (uint16_t)++registry_entry_count;
}

void registry_add_family(const op_row* rows, size_t count, const char* source)
{
    for (size_t i = 0; i < count; i++)
        registry_add(&rows[i], source);
}

bool registry_prefilled()
{
    return registry_storage_prefilled;
}

namespace {

char* const LAZY_SLOT = &lazy_slot_mark;

// The parameters of one call: up to MAX_PARAMS heap strings, freed last to first.
struct param_slots {
    char* slots[MAX_PARAMS + 1] = {};
    int count = 0;
    param_slots() = default;
    param_slots(const param_slots&) = delete;
    param_slots& operator=(const param_slots&) = delete;
    ~param_slots()
    {
        while (count > 0)
            str_free(slots[--count]);
    }
};

// The parameters of a LAZY_PARAMS call: slots still waiting hold no string to free.
struct lazy_param_slots : param_slots {
    ~lazy_param_slots()
    {
        for (int i = 0; i < count; i++)
            if (slots[i] == LAZY_SLOT)
                slots[i] = nullptr;
    }
};

// A LAZY_PARAMS call while its handler runs: where its slots' bytes lie. The calls in progress
// form a stack through outer, innermost first; a handler asks for its own call's slots.
struct lazy_call {
    char** slots;
    const char* text;
    const text_range* ranges;
    lazy_call* outer;
};
lazy_call* lazy_calls = nullptr;

// Puts a LAZY_PARAMS call on the stack while its handler runs, also when an exception passes.
struct lazy_scope {
    lazy_call call;
    lazy_scope(char** slots, const char* text, const text_range* ranges)
        : call{slots, text, ranges, lazy_calls}
    {
        lazy_calls = &call;
    }
    lazy_scope(const lazy_scope&) = delete;
    lazy_scope& operator=(const lazy_scope&) = delete;
    ~lazy_scope() { lazy_calls = call.outer; }
};

// The bytes of a waiting slot: in the call that owns the slot array.
text_range lazy_bytes(char** params, int i, const char*& text)
{
    lazy_call* call = lazy_calls;
    while (call->slots != params)
        call = call->outer;
    text = call->text;
    return call->ranges[i];
}

// Lowers the nesting counter when a dispatched call ends, by return or by exception, and
// gives the enclosing call back its own start for request_data_in_call.
struct depth_guard {
    unsigned outer_start = req.call_start_reads;
    depth_guard() { req.call_start_reads = req.request_data_reads; }
    depth_guard(const depth_guard&) = delete;
    depth_guard& operator=(const depth_guard&) = delete;
    ~depth_guard()
    {
        req.depth--;
        req.call_start_reads = outer_start;
    }
};

// How expand_text treats the text it expands.
enum class expand_mode {
    PLAIN,
    QUOTE_REQUEST_DATA, // results that hold request data are written quoted
    PAGE,               // the page file's text: each call's line is kept in req.page_line
};

// Appends text quoted as quote_for_expansion does. A lone "^" that out ends with would join
// the quoted text's first byte into an escape or a call name, so it is doubled first.
void append_quoted(str_builder& out, const char* text)
{
    if (!str_nonempty(text))
        return;
    size_t carets = 0;
    const char* written = out.view();
    while (carets < out.size() && written[out.size() - 1 - carets] == '^')
        carets++;
    if (carets % 2 == 1)
        out.append('^');
    for (const char* p = text; *p; p++) {
        if (*p == '^' || *p == ';')
            out.append('^');
        out.append(*p);
    }
}

// Keeps req.page_line at the line of each call while the page's own text is expanded, and
// clears it after.
struct page_line_scope {
    int outer = req.page_line;
    page_line_scope() = default;
    page_line_scope(const page_line_scope&) = delete;
    page_line_scope& operator=(const page_line_scope&) = delete;
    ~page_line_scope() { req.page_line = outer; }
};

} // namespace

void register_operator(const char* name, operator_handler handler, int param_count, unsigned flags,
                       const char* source, param_range accepted)
{
    if (str_nonempty(name) && !registry_find(name))
        registry_add(new op_row{str_dup(name), handler, param_count, flags, accepted}, source);
}

const operator_entry* registry_find(const char* name)
{
    if (!name)
        return nullptr;
    uint16_t slot = registry_slot(name);
    return slot == 0 ? nullptr : &registry_entries[slot - 1];
}

std::vector<const operator_entry*> registry_operators()
{
    std::vector<const operator_entry*> list;
    for (int i = 0; i < registry_entry_count; i++)
        list.push_back(&registry_entries[i]);
    return list;
}

namespace {

// The entry to call for name, the one the caller knows already when it does, after the
// depth check; null with *error set when the call is refused.
const operator_entry* call_entry(const operator_entry* known, const char* name, char** error)
{
    // Refused calls leave the counter raised on purpose: it counts nesting plus every refusal.
    if (++req.depth > MAX_DEPTH) {
        *error = page_error("[infinite operator recursion detected]");
        return nullptr;
    }
    const operator_entry* entry = known ? known : registry_find(name);
    if (!entry) // a null name shows as "[invalid operator " alone
        *error =
            name ? page_error("[invalid operator %s]", name) : page_error("[invalid operator ");
    return entry;
}

// Runs row's handler on parameters already expanded (unless raw), after the count check.
char* call_handler(const op_row& row, const char* name, int count, char** params)
{
    if (row.param_count != 0 && row.param_count != count)
        return page_error("[invalid parameters to operator %s]", name);
    char* result = row.handler(count, params);
    if (row.flags & REQUEST_DATA)
        request_data_note();
    return result;
}

// call_operator, with the entry of name when the caller knows it already.
char* call_known(const operator_entry* known, const char* name, int count, char** params)
{
    char* error = nullptr;
    const operator_entry* entry = call_entry(known, name, &error);
    if (!entry)
        return error;
    depth_guard leave;
    const op_row& row = *entry->row;
    if (!(row.flags & RAW_PARAMS))
        for (int i = 0; i < count; i++)
            expand_param(params, i);
    return call_handler(row, name, count, params);
}

char* expand_bytes(const char* text, size_t size, expand_mode mode); // calls call_ranges

// Parameter bytes [p, p + n) as the handler receives them: expanded, or copied for a raw
// operator; null when empty.
char* param_from_bytes(const char* p, size_t n, bool raw)
{
    if (n == 0)
        return nullptr;
    return raw ? str_copy_bytes(p, n) : expand_bytes(p, n, expand_mode::PLAIN);
}

// A call whose parameters are count ranges of text: as call_known, but each parameter is
// expanded straight from its bytes (or copied, for a raw operator), with no copy to expand.
char* call_ranges(const operator_entry* known, const char* name, const char* text,
                  const text_range* ranges, int count)
{
    char* error = nullptr;
    const operator_entry* entry = call_entry(known, name, &error);
    if (!entry)
        return error;
    depth_guard leave;
    const op_row& row = *entry->row;
    bool raw = row.flags & RAW_PARAMS;
    if (raw && (row.flags & LAZY_PARAMS)) {
        lazy_param_slots params;
        for (int k = 0; k < count; k++)
            params.slots[params.count++] = ranges[k].end > ranges[k].start ? LAZY_SLOT : nullptr;
        lazy_scope scope(params.slots, text, ranges);
        return call_handler(row, name, count, params.slots);
    }
    param_slots params;
    for (int k = 0; k < count; k++) {
        const text_range& r = ranges[k];
        params.slots[params.count++] = param_from_bytes(text + r.start, r.end - r.start, raw);
    }
    return call_handler(row, name, count, params.slots);
}

} // namespace

char* call_operator(const char* name, int count, char** params)
{
    return call_known(nullptr, name, count, params);
}

namespace {

// A call's name, copied beside the text: on the stack when it is short, as nearly every name
// is, so that a call costs no allocation for its name. An empty name reads as null.
class call_name {
public:
    call_name(const char* p, size_t len)
    {
        if (len >= sizeof(inline_))
            heap_.reset(str_dup_n(p, len));
        else if (len > 0)
            memcpy(inline_, p, len), inline_[len] = '\0';
        name_ = heap_.get() ? heap_.get() : len > 0 ? inline_ : nullptr;
    }
    call_name(const call_name&) = delete;
    call_name& operator=(const call_name&) = delete;
    const char* get() const { return name_; }

private:
    char inline_[48];
    str_holder heap_;
    const char* name_;
};

// Expands size bytes at text into out. The text is only read, so its owner keeps it. True
// when the text ends with a call: the result is then null if it came out empty. When whole is
// given and the text is one call and nothing else, that call's result is put there instead of
// into out: it is the whole expansion, with no copy.
bool expand_into(str_builder& out, const char* text, size_t size, expand_mode mode,
                 str_holder* whole = nullptr)
{
    call_scanner scanner(text, size);
    size_t i = 0;
    size_t counted = 0; // page lines are counted up to here
    page_line_scope keep_line;
    if (mode == expand_mode::PAGE)
        req.page_line = 1;
    text_range ranges[MAX_PARAMS + 1];
    while (i < size) {
        const char* caret = (const char*)memchr(text + i, '^', size - i);
        size_t at = caret ? caret - text : size;
        out.append(text + i, at - i);
        i = at;
        if (i >= size)
            break;
        int count = 0;
        caret_scan found = scanner.read(i, [&](size_t start, size_t end) {
            ranges[count++] = {start, end};
        });
        if (found.kind == caret_kind::ESCAPE) {
            if (i + 1 < size)
                out.append(text[i + 1]);
            i += 2;
            continue;
        }
        if (found.kind != caret_kind::CALL) {
            out.append('^');
            i++;
            continue;
        }
        call_name name(text + i + 1, found.open - i - 1);
        if (mode == expand_mode::PAGE) {
            for (; counted < i; counted++)
                req.page_line += text[counted] == '\n';
        }
        unsigned reads_before = req.request_data_reads;
        str_holder result(call_ranges(nullptr, name.get(), text, ranges, count));
        bool sole = i == 0 && found.close + 1 == size;
        if (sole && whole)
            whole->reset(result.release());
        else if (mode == expand_mode::QUOTE_REQUEST_DATA && req.request_data_reads != reads_before)
            append_quoted(out, result.get());
        else
            out.append(result.get());
        i = found.close + 1;
        if (i >= size)
            return true;
    }
    return false;
}

// The expansion of size bytes at text as a new string; null when the last call left it empty.
char* expand_bytes(const char* text, size_t size, expand_mode mode)
{
    if (!memchr(text, '^', size))
        return str_copy_bytes(text, size);
    str_builder out;
    str_holder whole;
    // A text that is one call, as most parameters with a call are, is that call's result.
    bool may_be_one_call = mode == expand_mode::PLAIN && text[0] == '^' && text[size - 1] == ']';
    if (!may_be_one_call)
        out.reserve(size); // most pages come out about as long as they went in
    bool ends_with_call = expand_into(out, text, size, mode, may_be_one_call ? &whole : nullptr);
    if (str_nonempty(whole.get()))
        return whole.release();
    return out.take(ends_with_call);
}

char* expand_text(char* text, expand_mode mode)
{
    if (!text)
        return nullptr;
    size_t size = strlen(text);
    if (!memchr(text, '^', size))
        return text; // nothing to expand: the text is its own result, allocation-free
    // The input is freed only on a normal return: when a table-lock exception passes through,
    // the caller's slot still holds it and frees it once.
    char* result = expand_bytes(text, size, mode);
    str_free(text);
    return result;
}

} // namespace

char* expand_in_place(char* text)
{
    return expand_text(text, expand_mode::PLAIN);
}

void expand_lazy_param(char** params, int i)
{
    const char* text;
    text_range r = lazy_bytes(params, i, text);
    params[i] = expand_bytes(text + r.start, r.end - r.start, expand_mode::PLAIN);
}

std::string_view param_raw_view(char** params, int i)
{
    if (params[i] != LAZY_SLOT)
        return params[i] ? std::string_view(params[i]) : std::string_view();
    const char* text;
    text_range r = lazy_bytes(params, i, text);
    return std::string_view(text + r.start, r.end - r.start);
}

char* param_raw(char** params, int i)
{
    if (params[i] == LAZY_SLOT) {
        const char* text;
        text_range r = lazy_bytes(params, i, text);
        params[i] = str_copy_bytes(text + r.start, r.end - r.start);
    }
    return params[i];
}

char* expand_for_second_pass(char* text)
{
    if (!text || !strchr(text, '^'))
        return text; // no call runs, so the setting is not read
    bool quote = setting_on("TESSEL_INERT_REQUEST_DATA");
    return expand_text(text, quote ? expand_mode::QUOTE_REQUEST_DATA : expand_mode::PLAIN);
}

char* expand_page_text(char* text)
{
    str_holder held(text); // frees the page when an error ends the request from inside it
    char* out = expand_text(text, expand_mode::PAGE);
    held.release(); // the result, or freed by expand_text
    return out;
}

char* quote_for_expansion(const char* text)
{
    str_builder out;
    append_quoted(out, text);
    return out.take(true);
}

char* expand_taken(char* text)
{
    str_holder held(text); // frees the text when an exception passes through
    char* out = expand_in_place(text);
    held.release(); // expand_in_place has freed it
    return out;
}

char* expand_copy(const char* text)
{
    return expand_taken(str_dup(text));
}

char* expand_view(const char* text)
{
    return text ? expand_bytes(text, strlen(text), expand_mode::PLAIN) : nullptr;
}

expansion_plan::expansion_plan(const char* text) : text_(text)
{
    if (!text)
        return;
    size_ = strlen(text);
    call_scanner scanner(text, size_);
    size_t i = 0;
    while (i < size_) {
        const char* caret = (const char*)memchr(text + i, '^', size_ - i);
        size_t at = caret ? caret - text : size_;
        if (at > i)
            steps_.push_back({i, at - i, -1, 0, nullptr});
        i = at;
        if (i >= size_)
            break;
        size_t first = params_.size();
        caret_scan found = scanner.read(i, [&](size_t start, size_t end) {
            params_.push_back({start, end});
        });
        if (found.kind != caret_kind::CALL)
            params_.resize(first);
        if (found.kind == caret_kind::ESCAPE) {
            if (i + 1 < size_)
                steps_.push_back({i + 1, 1, -1, 0, nullptr});
            i += 2;
            continue;
        }
        if (found.kind != caret_kind::CALL) {
            steps_.push_back({i, 1, -1, 0, nullptr}); // the caret itself, as text
            i++;
            continue;
        }
        int count = (int)(params_.size() - first);
        steps_.push_back({i + 1, found.open - i - 1, (int)first, count, nullptr});
        i = found.close + 1;
        ends_with_call_ = i >= size_;
    }
}

char* expansion_plan::expand()
{
    if (!text_)
        return nullptr;
    str_builder out;
    out.reserve(size_);
    page_line_scope keep_line;
    for (step& s : steps_) {
        if (s.first_param < 0) {
            out.append(text_ + s.start, s.length);
            continue;
        }
        call_name name(text_ + s.start, s.length);
        if (!s.entry)
            s.entry = registry_find(name.get());
        const text_range* ranges = s.param_count ? &params_[s.first_param] : nullptr;
        str_holder result(call_ranges(s.entry, name.get(), text_, ranges, s.param_count));
        out.append(result.get());
    }
    return out.take(ends_with_call_);
}

int param_int(int count, char** params, int i)
{
    return str_to_int(param_text(count, params, i));
}

int expand_param_int(int count, char** params, int i)
{
    return str_to_int(expand_param_text(count, params, i));
}

namespace {

// The text of format and its arguments, formatted once. Ownership: new result.
char* page_error_format(const char* format, va_list args)
{
    va_list again;
    va_copy(again, args);
    int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0)
        length = 0;
    char* text = static_cast<char*>(checked_malloc((size_t)length + 1));
    vsnprintf(text, (size_t)length + 1, format, args);
    return text;
}

// Writes a page error to the error log without its enclosing brackets, after the line of
// the page's call that made it when the setting TESSEL_SAFE_ERROR_PAGES is on and the line is
// known.
void page_error_log(const char* text)
{
    size_t length = strlen(text);
    bool bracketed = length >= 2 && text[0] == '[' && text[length - 1] == ']';
    int shown = (int)(length - (bracketed ? 2 : 0));
    const char* start = text + (bracketed ? 1 : 0);
    if (req.page_line > 0 && setting_on("TESSEL_SAFE_ERROR_PAGES"))
        log_line(LOG_ERROR, "line %d: %.*s", req.page_line, shown, start);
    else
        log_line(LOG_ERROR, "%.*s", shown, start);
}

} // namespace

char* page_error(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char* text = page_error_format(format, args);
    va_end(args);
    if (setting_on("TESSEL_SAFE_ERROR_PAGES"))
        page_error_log(text);
    return text;
}

char* page_error_logged(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char* text = page_error_format(format, args);
    va_end(args);
    page_error_log(text);
    return text;
}
