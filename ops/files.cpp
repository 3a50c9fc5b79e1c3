// The file family: includes, tests and descriptions of files, the nearest file of a name above
// the page, page names from paths, and directory listings as the current table.
//
// Every path goes through resolve_path: "/x" is under the document root, anything else is
// beside the page. Nothing confines a path to the document root; a site must not build paths
// from form input.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/file.h"
#include "core/number.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"
#include "ops/regex.h"

namespace {

constexpr int FSIZE_BYTES_BELOW = 512;
constexpr int FSIZE_KB_BELOW = 524288;

// ---- helpers ----------------------------------------------------------------------------

// The page-relative path of a parameter, or null for an empty one. Ownership: new result.
char* files_resolve_nonempty(const char* name)
{
    return str_nonempty(name) ? resolve_path(name) : nullptr;
}

// "stat" of the resolved path of name; false for an empty name or a failed stat.
bool files_stat(const char* name, struct stat& info)
{
    str_holder path(files_resolve_nonempty(name));
    return path.get() && stat(path.get(), &info) == 0;
}

// The size for people: bytes below 512, else KB below 512 KB, else MB, one decimal.
char* files_human_size(off_t size, const char* bytes, const char* kb, const char* mb)
{
    char number[64];
    const char* unit = bytes;
    if (size < FSIZE_BYTES_BELOW) {
        snprintf(number, sizeof number, "%lld", (long long)size);
    } else {
        bool in_kb = size < FSIZE_KB_BELOW;
        snprintf(number, sizeof number, "%.*f", 1, size / (in_kb ? 1024.0 : 1048576.0));
        unit = in_kb ? kb : mb;
    }
    return str_join(number, str_or_empty(unit), nullptr);
}

// Leading number as atoi reads it, then bytes: 2.html comes before 10.html.
bool files_index_order(const std::string& a, const std::string& b)
{
    int na = str_to_int(a.c_str()), nb = str_to_int(b.c_str());
    return na != nb ? na < nb : a < b;
}

// The names in dir that do not start with "." and that re matches (all of them without re),
// sorted. Null, or the regex error text when matching fails. Ownership: new result.
char* files_list(const char* dir, const compiled_regex* re, std::vector<std::string>& names)
{
    dir_walk walk(dir);
    while (walk.next()) {
        const char* name = walk.name();
        if (!*name || *name == '.')
            continue;
        int status = re ? regexec(re->get(), name, 0, nullptr, 0) : 0;
        if (status == REG_NOMATCH)
            continue;
        if (status != 0)
            return regex_error_text(status, re->get());
        names.emplace_back(name);
    }
    std::sort(names.begin(), names.end(), files_index_order);
    return nullptr;
}

// Stores the names, one row each, as the current table.
void files_store_listing(const std::vector<std::string>& names)
{
    str_builder text;
    for (const std::string& name : names) {
        text.append(name.data(), name.size());
        text.append('\n');
    }
    request_store_table(std::make_unique<table>(text.take(true)));
}

// ---- handlers ---------------------------------------------------------------------------

// include[path] expands the file in the page's state; include[asis;path] returns it as is.
char* op_include(int count, char** params)
{
    bool asis = count == 2 && str_equal(params[0], "asis");
    str_holder path(resolve_path(params[count - 1]));
    char* text = read_file(path.get(), false, false);
    return asis ? text : expand_taken(text);
}

// name[path;level]: the component level steps up from the end, without its extension.
char* op_name(int count, char** params)
{
    int level = param_int(count, params, 1);
    str_holder path(str_dup(params[0]));
    char* component = nullptr;
    for (int i = 0; i <= level; i++) {
        component = str_cut_at_last(path.get(), '/');
        if (!component)
            break;
    }
    if (component)
        str_cut_at_last(component, '.');
    return str_dup(str_nonempty(component) ? component : "index");
}

// -f[path]: the path as passed when the file is readable.
char* op_file_readable(int, char** params)
{
    str_holder path(files_resolve_nonempty(params[0]));
    return path.get() && access(path.get(), R_OK) == 0 ? str_dup(params[0]) : nullptr;
}

// stat[what;path] and stat[fsize;path;bytes unit;KB unit;MB unit].
char* op_stat(int count, char** params)
{
    struct stat info;
    if (!files_stat(param_text(count, params, 1), info))
        return nullptr;
    const char* what = params[0];
    if (str_equal(what, "fsize"))
        return files_human_size(info.st_size, param_text(count, params, 2),
                                param_text(count, params, 3), param_text(count, params, 4));
    long long value = 0;
    if (str_equal(what, "atime"))
        value = info.st_atime;
    if (str_equal(what, "mtime"))
        value = info.st_mtime;
    if (str_equal(what, "ctime"))
        value = info.st_ctime;
    if (str_equal(what, "size"))
        value = info.st_size;
    char number[32];
    snprintf(number, sizeof number, "%lld", value);
    return str_dup(number);
}

// find[name;...;default]: the name relative to the page's directory in the nearest directory
// up to the root that holds it readable, else the default.
char* op_find(int count, char** params)
{
    const char* name = expand_param_text(count, params, 0);
    str_holder answer(str_dup(name));
    str_holder dir(str_dup(req.page_path));
    while (str_cut_at_last(dir.get(), '/')) {
        str_holder candidate(str_join(dir.get(), "/", name, nullptr));
        if (access(candidate.get(), R_OK) == 0)
            return answer.release();
        answer.reset(str_join("../", answer.get(), nullptr));
    }
    return str_dup(count == 1 ? name : expand_param_text(count, params, count - 1));
}

// index[directory;pattern]: the directory's visible names as the current table.
constexpr param_range INDEX_PARAMS = {1, 2};

char* op_index(int count, char** params)
{
    if (!INDEX_PARAMS.accepts(count))
        return page_error("[index: too many params]");
    str_holder dir(resolve_path(params[0]));
    std::unique_ptr<compiled_regex> re;
    if (count == 2) {
        re = std::make_unique<compiled_regex>(params[1], REG_EXTENDED);
        if (re->status() != 0)
            return regex_error_text(re->status(), re->get());
    }
    std::vector<std::string> names;
    if (char* error = files_list(dir.get(), re.get(), names))
        return error;
    files_store_listing(names);
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row files_rows[] = {
    // name      handler            params  flags        accepted
    {"name",     op_name,           0,      0,           {1, 2}},
    {"-f",       op_file_readable,  1,      0},
    {"stat",     op_stat,           0,      0,           {2, 5}},
    {"find",     op_find,           0,      RAW_PARAMS,  {1, 0}},
    {"include",  op_include,        0,      0,           {1, 2}},
    {"index",    op_index,          0,      0,           INDEX_PARAMS},
};
// clang-format on

void register_file_ops()
{
    register_rows(files_rows);
}
