// The comparison family: choosing between alternatives, and the algebra of option lists.
//
// The choosing operators take raw parameters and expand only what they compare and the
// branch they return, so a branch that is not chosen has no effect. An option list is a text
// of items separated by "|"; an item matches as a whole (same length, same bytes), and a
// trailing empty item is no item, so "a|" holds one item and "" holds none.
#include <cstring>
#include <string_view>
#include <vector>

#include "core/number.h"
#include "core/str.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

using option_items = std::vector<std::string_view>;

// The items of an option list, in order. Ownership: views into list.
option_items option_split(const char* list)
{
    option_items items;
    if (!str_nonempty(list))
        return items;
    for (const char* p = list;;) {
        const char* bar = strchr(p, '|');
        if (!bar) {
            if (*p)
                items.emplace_back(p);
            return items;
        }
        items.emplace_back(p, bar - p);
        p = bar + 1;
    }
}

bool option_contains(const option_items& items, std::string_view item)
{
    for (std::string_view each : items)
        if (each == item)
            return true;
    return false;
}

// The items joined with "|"; null when there are none or they join to no text.
char* option_join(const option_items& items)
{
    str_builder out;
    for (size_t i = 0; i < items.size(); i++) {
        if (i > 0)
            out.append('|');
        out.append(items[i].data(), items[i].size());
    }
    return out.take(true);
}

// Every item of every parameter, first appearance first. Ownership: views into params.
option_items option_union(int count, char** params)
{
    option_items all;
    for (int i = 0; i < count; i++)
        for (std::string_view item : option_split(params[i]))
            if (!option_contains(all, item))
                all.push_back(item);
    return all;
}

// Parameter i expanded in its slot and handed over, the slot left empty: a parameter without
// calls costs no copy. Null when the call has no such parameter. Ownership: new result.
char* compare_take(int count, char** params, int i)
{
    char* text = expand_param_text(count, params, i);
    if (text)
        params[i] = nullptr;
    return text;
}

constexpr param_range EQ_PARAMS = {3, 4};
constexpr param_range IFDEF_PARAMS = {2, 3};

char* op_eq(int count, char** params)
{
    if (!EQ_PARAMS.accepts(count))
        return page_error("[eq: wrong params number]");
    expand_param(params, 0);
    expand_param(params, 1);
    return compare_take(count, params, str_equal(params[0], params[1]) ? 2 : 3);
}

char* op_ifdef(int count, char** params)
{
    if (!IFDEF_PARAMS.accepts(count))
        return page_error("[ifdef: wrong params number]");
    expand_param(params, 0);
    return compare_take(count, params, params[0] ? 1 : 2);
}

char* op_start(int, char** params)
{
    const char* prefix = expand_param_text(3, params, 0);
    bool inside = str_nonempty(prefix) && str_starts_with(req.request_uri, prefix);
    return compare_take(3, params, inside ? 1 : 2);
}

char* op_default(int, char** params)
{
    expand_param(params, 0);
    if (!str_nonempty(params[0]))
        return compare_take(2, params, 1);
    char* text = params[0]; // handed over: the slot is left empty
    params[0] = nullptr;
    return text;
}

char* op_cmp(int, char** params)
{
    int left = expand_param_int(5, params, 0);
    int right = expand_param_int(5, params, 1);
    return compare_take(5, params, left < right ? 2 : left == right ? 3 : 4);
}

char* op_optionset(int, char** params)
{
    option_items list = option_split(params[0]);
    bool all_set = true;
    for (std::string_view wanted : option_split(params[1]))
        if (!option_contains(list, wanted))
            all_set = false;
    return all_set ? str_dup("yes") : nullptr;
}

// Removes the first item equal to params[1] together with one "|" next to it.
char* op_optionclear(int, char** params)
{
    char* list = params[0];
    std::string_view gone = str_or_empty(params[1]);
    for (std::string_view item : option_split(list)) {
        if (item != gone)
            continue;
        int pos = item.data() - list;
        int len = item.size();
        if (list[pos + len] == '|')
            return str_splice(str_dup(list), pos, len + 1, nullptr);
        if (pos > 0)
            return str_splice(str_dup(list), pos - 1, len + 1, nullptr);
        return nullptr;
    }
    return str_dup(list);
}

char* op_optionor(int count, char** params)
{
    return option_join(option_union(count, params));
}

char* op_optionand(int count, char** params)
{
    option_items kept;
    for (std::string_view item : option_union(count, params)) {
        bool everywhere = true;
        for (int i = 0; i < count && everywhere; i++)
            everywhere = option_contains(option_split(params[i]), item);
        if (everywhere)
            kept.push_back(item);
    }
    return option_join(kept);
}

char* op_optioncount(int, char** params)
{
    return str_dup(fmt_int(option_split(params[0]).size()).text);
}

} // namespace

// clang-format off
extern constexpr op_row compare_rows[] = {
    // name           handler          params  flags       accepted
    {"eq",            op_eq,           0,      RAW_PARAMS | LAZY_PARAMS, EQ_PARAMS},
    {"ifdef",         op_ifdef,        0,      RAW_PARAMS | LAZY_PARAMS, IFDEF_PARAMS},
    {"start",         op_start,        3,      RAW_PARAMS | LAZY_PARAMS},
    {"default",       op_default,      2,      RAW_PARAMS | LAZY_PARAMS},
    {"optionset",     op_optionset,    2,      0},
    {"optionclear",   op_optionclear,  2,      0},
    {"optionor",      op_optionor,     0,      0},
    {"optionand",     op_optionand,    0,      0},
    {"optioncount",   op_optioncount,  0,      0},
    {"cmp",           op_cmp,          5,      RAW_PARAMS | LAZY_PARAMS},
};
// clang-format on

void register_compare_ops()
{
    register_rows(compare_rows);
}
