// Macro definitions: definition files, named parameters, calls with "$n" substitution,
// per-directory files and pages rendered through their "main".
#include "interp/macros.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include "core/file.h"
#include "core/number.h"
#include "core/sorted_map.h"
#include "core/str.h"
#include "interp/registry.h"
#include "interp/request.h"

namespace {

constexpr const char* PARAM_NOT_FOUND = "[macro param name not found]";

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Hides the "autoexec" and "main" defined so far while one file is defined, so that the
// file's own are seen alone, and puts them back afterwards (also when an exception unwinds).
class per_file_macros {
public:
    per_file_macros()
    {
        sorted_map& table = *req.macros;
        autoexec_ = str_dup(table.get("autoexec"));
        main_ = str_dup(table.get("main"));
        table.remove("autoexec");
        table.remove("main");
    }
    ~per_file_macros()
    {
        req.macros->set_take("autoexec", autoexec_);
        req.macros->set_take("main", main_);
    }
    per_file_macros(const per_file_macros&) = delete;
    per_file_macros& operator=(const per_file_macros&) = delete;

private:
    char* autoexec_;
    char* main_;
};

// The first header line of text: the text itself when it begins with "@", else the line
// after the first newline followed by "@"; null when there is none. Ownership: view.
char* first_header(char* text)
{
    if (text[0] == '@')
        return text;
    char* at = strstr(text, "\n@");
    return at ? at + 1 : nullptr;
}

// Ends the body at the next newline followed by "@" (or one earlier when a blank line
// precedes that header) and returns that next header; null when the body runs to the end.
// Ownership: view.
char* cut_body(char* body)
{
    char* newline = strstr(body, "\n@");
    if (!newline)
        return nullptr;
    char* end = newline > body && newline[-1] == '\n' ? newline - 1 : newline;
    *end = '\0';
    return newline + 1;
}

// Index (from 1) of the first name that text begins with, and its length; 0 for none.
int match_param_name(const char* text, const std::vector<std::string>& names, size_t& len)
{
    for (size_t i = 0; i < names.size(); i++) {
        if (strncmp(text, names[i].c_str(), names[i].size()) == 0) {
            len = names[i].size();
            return (int)i + 1;
        }
    }
    return 0;
}

std::vector<std::string> split_param_names(const char* params)
{
    std::vector<std::string> names;
    const char* start = params;
    for (const char* p = params;; p++) {
        if (*p == ';' || *p == '\0') {
            names.emplace_back(start, p - start);
            if (!*p)
                break;
            start = p + 1;
        }
    }
    return names;
}

// The per-directory files from the file system root (or, with the setting, the document
// root) down to the page's directory.
void use_tessel_cfg_walk(str_builder& output)
{
    const char* page = str_or_empty(req.page_path);
    for (const char* slash = strchr(page, '/'); slash; slash = strchr(slash + 1, '/')) {
        std::string path(page, slash - page);
        if (!request_search_reaches(path.empty() ? "/" : path.c_str()))
            continue;
        path += "/_tessel.cfg";
        macro_define_file(path.c_str(), &output);
    }
}

// Every entry of a directory whose name does not begin with ".", in name order.
void use_directory(const char* dir, str_builder& output)
{
    std::vector<std::string> names;
    dir_walk walk(dir);
    while (walk.next())
        if (walk.name()[0] != '.' && S_ISREG(walk.info().st_mode))
            names.emplace_back(walk.name());
    walk.close();
    std::sort(names.begin(), names.end());
    for (const std::string& name : names)
        macro_define_file((std::string(dir) + name).c_str(), &output);
}

// "dir/name" read as "dir/_name".
void use_file(char* path, str_builder& output)
{
    char* base = str_cut_at_last(path, '/');
    std::string file = base ? std::string(path) + "/_" + base : std::string("_") + path;
    macro_define_file(file.c_str(), &output);
}

} // namespace

// ---- start-up and pages -------------------------------------------------------------------

void macro_init()
{
    if (macro_define_file("_macro.cfg", nullptr) > 0)
        return;
    str_holder site_file(resolve_path("/_macro.cfg"));
    macro_define_file(site_file.get(), nullptr);
}

char* load_page(const char* path)
{
    char* text = read_file(path, false, false);
    if (!text)
        return nullptr;
    if (!first_header(text)) // no definitions: spare a copy of a page that may be large
        return expand_page_text(text);
    str_holder copy(str_dup(text));
    str_builder output;
    if (define_macros(copy.get(), &output) > 0) {
        str_free(text);
        return output.take(true);
    }
    return expand_page_text(text);
}

// ---- definitions ------------------------------------------------------------------------

int macro_each_definition(char* text, const std::function<void(char*, char*)>& on_definition)
{
    int defined = 0;
    for (char* header = text ? first_header(text) : nullptr; header;) {
        char* body = str_cut_at(header, '\n');
        if (!body)
            break; // a header on the last line has no body
        if (*body == '@') {
            header = body; // an empty body: the first header is dropped
            continue;
        }
        char* next = cut_body(body);
        if (*body) {
            on_definition(header + 1, body);
            defined++;
        }
        header = next;
    }
    return defined;
}

int define_macros(char* text, str_builder* output)
{
    if (!text || !first_header(text))
        return 0;
    per_file_macros scope;
    int defined =
        macro_each_definition(text, [](char* name, char* body) { macro_define(name, body); });
    if (macro_body("autoexec"))
        str_free(macro_run("autoexec"));
    if (output && macro_body("main")) {
        str_holder main_output(macro_run("main"));
        output->append(main_output.get());
    }
    return defined;
}

int macro_define_file(const char* path, str_builder* output)
{
    str_holder text(read_file(path, false, false));
    return text.get() ? define_macros(text.get(), output) : 0;
}

void macro_define(const char* header, const char* body)
{
    str_holder name(str_dup(header));
    char* params = str_cut_at(name.get(), '[');
    if (params)
        str_cut_at(params, ']');
    req.macros->set_take(name.get(), macro_rewrite_params(body, params));
}

char* macro_rewrite_params(const char* body, const char* params)
{
    if (!str_nonempty(params) || !body)
        return str_dup(body);
    std::vector<std::string> names = split_param_names(params);
    str_builder out;
    for (const char* p = body; *p;) {
        if (*p != '$') {
            out.append(*p++);
            continue;
        }
        out.append(*p++);
        if (*p == '$') {
            out.append(*p++); // "$$" stays for the call to make "$"
            continue;
        }
        if (is_digit(*p))
            continue;
        size_t len = 0;
        int number = match_param_name(p, names, len);
        out.append(number ? fmt_int(number).text : PARAM_NOT_FOUND);
        p += len;
    }
    return out.take(false);
}

const char* macro_body(const char* name)
{
    return req.macros->get(name);
}

// ---- calls ------------------------------------------------------------------------------

namespace {

// macro_substitute into out.
void substitute_into(str_builder& out, const char* body, int count, char** params)
{
    const char* p = str_or_empty(body);
    for (const char* dollar; (dollar = strchr(p, '$'));) {
        out.append(p, dollar - p); // the text up to the "$" goes over in one piece
        p = dollar;
        if (p[1] != '$' && !is_digit(p[1])) {
            out.append(*p++);
            continue;
        }
        if (p[1] == '$') {
            out.append('$');
            p += 2;
            continue;
        }
        int number = p[1] - '0';
        p += 2;
        if (is_digit(*p))
            number = number * 10 + (*p++ - '0');
        std::string_view argument = number > 0 && number < count
                                        ? param_raw_view(params, number) // no copy of a lazy slot
                                        : std::string_view();
        if (!argument.empty())
            out.append(argument.data(), argument.size());
    }
    out.append(p);
}

} // namespace

char* macro_substitute(const char* body, int count, char** params)
{
    str_builder out;
    substitute_into(out, body, count, params);
    return out.take(true);
}

char* macro_run(const char* name, std::initializer_list<const char*> arguments)
{
    // The slots of the call: the `macro` operator may replace them, the caller frees them.
    struct call_slots {
        char* slots[MAX_PARAMS] = {};
        int count = 0;
        ~call_slots()
        {
            while (count > 0)
                str_free(slots[--count]);
        }
    } call;
    call.slots[call.count++] = str_dup(name);
    for (const char* argument : arguments)
        if (call.count < MAX_PARAMS)
            call.slots[call.count++] = str_dup(argument);
    return call_operator("macro", call.count, call.slots);
}

char* macro_call(int count, char** params)
{
    expand_param(params, 0);
    const char* body = macro_body(params[0]);
    if (!body)
        return params[0] ? page_error("[undefined macro %s]", params[0])
                         : page_error("[undefined macro ");
    // Expanded where it was built: a short body costs no allocation before its calls run.
    str_builder text;
    substitute_into(text, body, count, params);
    return text.size() > 0 ? expand_view(text.view()) : nullptr;
}

char* macro_use(const char* name)
{
    if (!str_nonempty(name))
        return nullptr;
    str_builder output;
    if (str_equal(name, "tessel.cfg")) {
        use_tessel_cfg_walk(output);
    } else {
        str_holder path(resolve_path(name));
        char* p = path.get();
        if (p && *p && p[strlen(p) - 1] == '/')
            use_directory(p, output);
        else if (p)
            use_file(p, output);
    }
    return output.take(true);
}
