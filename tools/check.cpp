// tessel-check: reads pages and macro files as the engine would and reports, with file, line
// and column, the calls that would show an error or silently misbehave, and warns where
// request data reaches a place where it becomes code or a path. It reads texts with the
// engine's own call scanner and looks operators up in the engine's own registry.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include "core/file.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/macros.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "interp/scanner.h"
#include "ops/ops.h"
#include "program/page.h"
#include "tools/check_flow.h"
#include "tools/site.h"

namespace {

constexpr const char* USAGE = "usage: tessel-check [--docroot DIR] FILE...\n";

constexpr const char* HELP =
    "Checks tessel pages and macro files without serving them. Reports, one line each as\n"
    "FILE:LINE:COLUMN: MESSAGE, calls of unknown operators, parameter counts an operator does\n"
    "not accept, calls whose brackets never close, stray \"]\", calls with more than 19\n"
    "parameters, calls nested deeper than 999, macros called but defined in none of the\n"
    "files the page reads, ^macro_use of a file that does not exist, and in a page the lines\n"
    "that begin with \"#\" in a style sheet or script (dropped as comments) or with \"@\" where\n"
    "no definitions were meant (the page becomes a file of definitions). It warns\n"
    "(\"warning:\") where request data (form fields, cookies, the query string, the URI,\n"
    "request headers, upload names) reaches a path, code, a variable or macro name, a\n"
    "connection string, SQL text without sql escaping or quotes, the page under\n"
    "^level[none], or an HTML tag outside a double-quoted attribute. Exit status: 0 when\n"
    "nothing but warnings was found, 1 when something else was, 2 when a file cannot be\n"
    "read or the command line is wrong. Run it with TESSEL_SAFE_ESCAPING=1 when the site\n"
    "has that setting: html escaping then holds single-quoted attributes, and the URI, the\n"
    "query string and upload names are escaped like form fields.\n"
    "\n"
    "  --docroot DIR  the site's document root: where \"/_macro.cfg\" and names beginning\n"
    "                 with \"/\" are found (default: the nearest folder at or above the file\n"
    "                 that holds _macro.cfg, else the file's folder)\n"
    "  --help         this text\n"
    "  --version      the engine's version\n";

// One file as read: its bytes, the text after the engine's clean-up, and where each byte of
// that text came from, so that findings name the line and column of the file as written.
struct source {
    std::string path; // as named on the command line or resolved by the engine
    std::string raw;  // as written, up to a NUL byte
    std::string text; // cleaned: carriage returns and "#" lines gone
    std::vector<size_t> origins;
    std::vector<size_t> line_starts; // offsets of the lines of the file as written
};

std::unique_ptr<source> source_read(const std::string& path)
{
    struct stat info;
    FILE* in = stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) ? fopen(path.c_str(), "rb")
                                                                       : nullptr;
    if (!in)
        return nullptr;
    auto src = std::make_unique<source>();
    src->path = path;
    char buffer[65536];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, in)) > 0;)
        src->text.append(buffer, n);
    fclose(in);
    src->text.resize(strlen(src->text.c_str())); // the engine reads up to a NUL byte
    src->raw = src->text;
    src->line_starts.push_back(0);
    for (size_t i = 0; i < src->text.size(); i++)
        if (src->text[i] == '\n')
            src->line_starts.push_back(i + 1);
    src->origins.resize(src->text.size() + 1);
    file_clean_text(src->text.data(), false, src->origins.data());
    src->text.resize(strlen(src->text.c_str()));
    return src;
}

struct finding {
    int line, column;
    std::string message;
    bool warning; // printed as such, and leaves the exit status alone
};

// A call of a macro by a name written out, checked once every file the page reads is known.
struct macro_call {
    size_t at;
    std::string name;
};

using param_list = std::vector<std::pair<size_t, size_t>>;

// What request data passed to one parameter of a macro meets in the macro's body: the end of
// the warning for data that went through the escaping where it was read and for data that
// did not, and the parameters of other macros it is passed on to.
struct param_use {
    std::string escaped, raw;
    std::vector<std::pair<std::string, int>> forwards;
};

using macro_summary = std::map<int, param_use>;

// The macro body being read: what its "$" references name, and the variables it set from its
// parameters, which mean nothing once the body ends.
struct body_scan {
    std::vector<std::string> param_names;
    macro_summary* summary;
    std::vector<std::string> vars_set;
};

// Request data a page passes to a macro, checked once every body the page reads is known.
struct macro_argument {
    size_t at;
    std::string macro;
    int index;
    flow_value value;
};

// The check of one file: its findings, and the macros defined in the files it reads.
class page_check {
public:
    explicit page_check(std::unique_ptr<source> page) : page_(std::move(page)) {}

    std::vector<finding> run()
    {
        str_holder site_macros(resolve_path("/_macro.cfg"));
        read_definitions(site_macros.get(), false);
        bool page = is_page(page_->path);
        if (page)
            report_comment_traps();
        bool definitions = scan_definitions(*page_, true);
        // A page that turned into definitions by mistake is also read as the text its author
        // meant, so that the trap hides none of its other problems.
        if (!definitions || (page && report_definition_traps()))
            scan(*page_, 0, page_->text.size(), true, flow_text(flow_text::HTML), ESCAPE_MODE_HTML);
        for (const macro_call& call : macro_calls_)
            if (!defined_.count(call.name))
                report(call.at,
                       "macro \"" + call.name + "\" is not defined in the files this page reads");
        for (const macro_argument& argument : macro_arguments_) {
            const auto& [escaped, raw] = resolve_use(argument.macro, argument.index);
            const std::string& tail = argument.value.escaped ? escaped : raw;
            if (!tail.empty())
                warn(argument.at, argument.value, tail, argument.macro);
        }
        std::stable_sort(findings_.begin(), findings_.end(), [](const auto& a, const auto& b) {
            return a.line != b.line ? a.line < b.line : a.column < b.column;
        });
        findings_.erase(std::unique(findings_.begin(), findings_.end(),
                                    [](const auto& a, const auto& b) {
                                        return a.line == b.line && a.column == b.column &&
                                               a.message == b.message;
                                    }),
                        findings_.end());
        return findings_;
    }

private:
    // Whether path names a page rather than a file of definitions or a table: a file whose
    // name begins with "_" or ends in ".cfg" is read for its definitions on purpose.
    static bool is_page(const std::string& path)
    {
        std::string name = path.substr(path.find_last_of('/') + 1);
        return name[0] != '_' && (name.size() < 4 || name.compare(name.size() - 4, 4, ".cfg") != 0);
    }

    // A finding at the start of line (counted from 0) of the file as written.
    void report_line(size_t line, std::string message)
    {
        findings_.push_back({(int)line + 1, 1, std::move(message), false});
    }

    // The lines of the file as written, each without its line end.
    std::vector<std::string_view> raw_lines() const
    {
        std::vector<std::string_view> lines;
        const std::string& raw = page_->raw;
        for (size_t i = 0; i < page_->line_starts.size(); i++) {
            size_t start = page_->line_starts[i];
            size_t end =
                i + 1 < page_->line_starts.size() ? page_->line_starts[i + 1] - 1 : raw.size();
            lines.push_back(std::string_view(raw).substr(std::min(start, raw.size()), end - start));
        }
        return lines;
    }

    // A line that begins with "#" is a comment to the engine. In a style sheet or a script, or
    // where it opens a block ("#menu {"), it was meant as text: report it.
    void report_comment_traps()
    {
        bool in_code = false; // inside <style> or <script>
        auto lowered_find = [](std::string_view line, const char* what) {
            std::string lowered(line);
            for (char& c : lowered)
                c = (char)tolower((unsigned char)c);
            return lowered.find(what) != std::string::npos;
        };
        std::vector<std::string_view> lines = raw_lines();
        for (size_t i = 0; i < lines.size(); i++) {
            std::string_view line = lines[i];
            if (!line.empty() && line[0] == '#' &&
                (in_code || line.find('{') != std::string_view::npos))
                report_line(i, "line begins with \"#\", so the page drops it as a comment: indent "
                               "it to keep it as text");
            if (lowered_find(line, "<style") || lowered_find(line, "<script"))
                in_code = true;
            if (lowered_find(line, "</style") || lowered_find(line, "</script"))
                in_code = false;
        }
    }

    // A line that begins with "@" makes the whole page a file of definitions, shown through
    // its macro "main" only. Reports the lines that were meant as text: rules of a style sheet
    // ("@media"), or every such line of a page that defines no "main". True when one was.
    bool report_definition_traps()
    {
        static constexpr const char* AT_RULES[] = {
            "@media", "@import",    "@font-face", "@keyframes", "@charset", "@supports",
            "@page",  "@namespace", "@layer",     "@container", "@-",
        };
        bool has_main = false;
        std::string copy = page_->text;
        macro_each_definition(copy.data(), [&](char* header, char*) {
            has_main |= std::string(header, strcspn(header, "[")) == "main";
        });
        bool found = false;
        std::vector<std::string_view> lines = raw_lines();
        for (size_t i = 0; i < lines.size(); i++) {
            std::string_view line = lines[i];
            if (line.empty() || line[0] != '@')
                continue;
            bool at_rule = false;
            for (const char* rule : AT_RULES)
                at_rule |= line.substr(0, strlen(rule)) == rule;
            if (!at_rule && has_main)
                continue;
            report_line(i, has_main ? "line begins with \"@\", so the page is read as definitions "
                                      "and this style rule is lost: indent it to keep it as text"
                                    : "line begins with \"@\", so the page is read as definitions "
                                      "and, with no \"@main\", shows nothing: indent it to keep "
                                      "it as text");
            found = true;
        }
        return found;
    }

    void report(size_t at, std::string message, bool warning = false)
    {
        size_t origin = page_->origins[std::min(at, page_->text.size() - 1)];
        auto line = std::upper_bound(page_->line_starts.begin(), page_->line_starts.end(), origin);
        size_t start = *(line - 1);
        findings_.push_back({(int)(line - page_->line_starts.begin()), (int)(origin - start + 1),
                             message, warning});
    }

    // A warning for request data reaching what tail says, through macro when not empty.
    void warn(size_t at, const flow_value& value, const std::string& tail,
              const std::string& macro = "")
    {
        std::string through = macro.empty() ? "" : " passed to macro \"" + macro + "\"";
        report(at, "warning: request data (" + value.describe() + ")" + through + " " + tail, true);
    }

    // Records the definitions of src and scans their bodies; false when it defines none. The
    // variables a file sets are its own: a file read from within another starts afresh.
    bool scan_definitions(source& src, bool reporting)
    {
        std::map<std::string, flow_value> outer_vars = std::move(vars_);
        vars_.clear();
        body_scan* outer_body = body_;
        int outer_depth = depth_;
        depth_ = 0;
        std::string copy = src.text;
        int count = macro_each_definition(copy.data(), [&](char* header, char* body) {
            std::string name(header, strcspn(header, "["));
            defined_.insert(name);
            macro_summary& summary = summaries_[name];
            summary.clear();
            body_scan scan_state{header_params(header), &summary, {}};
            body_ = &scan_state;
            size_t start = body - copy.data();
            scan(src, start, start + strlen(body), reporting, flow_text(flow_text::HTML),
                 ESCAPE_MODE_HTML);
            for (const std::string& var : scan_state.vars_set)
                vars_.erase(var);
            body_ = nullptr;
        });
        vars_ = std::move(outer_vars);
        body_ = outer_body;
        depth_ = outer_depth;
        return count > 0;
    }

    // The parameter names of a header "name[p1;p2]".
    static std::vector<std::string> header_params(const char* header)
    {
        std::vector<std::string> names;
        const char* open = strchr(header, '[');
        if (!open || !open[1])
            return names;
        std::string list(open + 1, strcspn(open + 1, "]"));
        if (list.empty())
            return names;
        for (size_t start = 0;;) {
            size_t end = list.find(';', start);
            names.push_back(list.substr(start, end - start));
            if (end == std::string::npos)
                return names;
            start = end + 1;
        }
    }

    // Reads the definitions of a file the page would read, once; its own findings are not
    // reported. False when it does not exist.
    bool read_definitions(const char* path, bool must_exist)
    {
        if (!path || !read_.insert(path).second)
            return true;
        std::unique_ptr<source> src = source_read(path);
        if (!src)
            return !must_exist;
        scan_definitions(*src, false);
        others_.push_back(std::move(src));
        return true;
    }

    // The files of macro_use[name] (see macro_use in interp/macros.h); false when one it names
    // does not exist.
    bool use_file(const std::string& name)
    {
        if (name == "tessel.cfg") {
            const char* page = req.page_path;
            for (const char* slash = strchr(page, '/'); slash; slash = strchr(slash + 1, '/'))
                read_definitions((std::string(page, slash - page) + "/_tessel.cfg").c_str(), false);
            return true;
        }
        str_holder resolved(resolve_path(name.c_str()));
        std::string path = resolved.get();
        if (path.back() == '/')
            return use_directory(path);
        size_t slash = path.rfind('/');
        return read_definitions((path.substr(0, slash) + "/_" + path.substr(slash + 1)).c_str(),
                                true);
    }

    // Every entry of dir not beginning with "."; false when dir is not a folder.
    bool use_directory(const std::string& dir)
    {
        DIR* d = opendir(dir.c_str());
        if (!d)
            return false;
        while (const dirent* entry = readdir(d))
            if (entry->d_name[0] != '.')
                read_definitions((dir + entry->d_name).c_str(), false);
        closedir(d);
        return true;
    }

    // A parameter written out in full: no call, no escape and no macro argument in it.
    static bool literal(std::string_view text)
    {
        return text.find_first_of("^$") == std::string_view::npos;
    }

    static std::string_view text_of(const source& src, std::pair<size_t, size_t> param)
    {
        return std::string_view(src.text).substr(param.first, param.second - param.first);
    }

    // Checks the call of name at at (its "]" at close), and gives the request data its
    // result holds.
    flow_value check_call(source& src, size_t at, size_t close, const std::string& name,
                          const param_list& params, bool reporting, const flow_text& printed,
                          int mode)
    {
        if (depth_ == MAX_DEPTH) {
            // The engine stops here; reading on would cost the depth again at every level.
            if (reporting)
                report(at, "calls nested deeper than " + std::to_string(MAX_DEPTH) +
                               ": the page shows [infinite operator recursion detected]");
            return {};
        }
        const operator_entry* entry = registry_find(name.c_str());
        if (!entry) {
            if (reporting && name.find('$') == std::string::npos)
                report(at, "unknown operator \"" + name + "\"");
            return {}; // its parameters are never expanded
        }
        int count = (int)params.size();
        if (reporting && !operator_accepts(*entry, count))
            report(at, count_message(*entry, count));
        if (name == "rem")
            return {};
        std::string first(literal(text_of(src, params[0])) ? text_of(src, params[0]) : "");
        if (name == "macro" && reporting && !first.empty())
            macro_calls_.push_back({at, first});
        if (name == "macro_new" && literal(text_of(src, params[0])))
            defined_.insert(first.substr(0, first.find('[')));
        if (name == "macro_use" && !first.empty() && !use_file(first) && reporting)
            report(at, "macro_use of \"" + first + "\": no such file");
        depth_++;
        flow_value result = follow_call(src, at, close, name, params, reporting, printed, mode);
        depth_--;
        return result;
    }

    // Follows request data through a call: into its parameters, each scanned with the text
    // and escaping it lands in, to the places among them, and on into the call's result.
    flow_value follow_call(source& src, size_t at, size_t close, const std::string& name,
                           const param_list& params, bool reporting, const flow_text& printed,
                           int mode)
    {
        int count = (int)params.size();
        std::vector<flow_value> values;
        for (int i = 0; i < count; i++) {
            flow_text inner = flow_carries(name, i, count) ? printed : flow_text();
            int inner_mode =
                name == "level" && i == 1 ? level_mode(text_of(src, params[0]), mode) : mode;
            if (name == "sql" && i == 0) {
                inner = flow_text(flow_text::SQL);
                inner_mode = ESCAPE_MODE_SQL;
            }
            values.push_back(
                scan(src, params[i].first, params[i].second, reporting, inner, inner_mode));
        }
        for (int i = 0; i < count; i++)
            if (const char* tail = place_of(name, i, count); tail && values[i].any())
                reach(at, values[i], tail, reporting);
        // A source is named as written, when that is short enough to read in a warning.
        std::string call =
            close + 1 - at <= 40 ? src.text.substr(at, close + 1 - at) : "^" + name + "[...]";
        std::replace(call.begin(), call.end(), '\n', ' ');
        flow_value source = flow_source(name, call, text_of(src, params[0]),
                                        count > 1 ? text_of(src, params[1]) : "", count);
        if (source.any()) {
            print(at, source, printed, mode, reporting);
            return source;
        }
        return call_result(src, at, name, params, values, printed, mode, reporting);
    }

    // What parameter index of name is for request data (see flow_place); `var`'s name is
    // expanded a second time when var reads.
    static const char* place_of(const std::string& name, int index, int count)
    {
        if (name != "var")
            return flow_place(name, index, count);
        if (index > 0)
            return nullptr;
        return count <= 1 ? "reaches the name of ^var, which it expands a second time"
                          : "reaches the name of the variable ^var sets";
    }

    // What a call that brings in no request data itself gives back of its parameters'.
    flow_value call_result(const source& src, size_t at, const std::string& name,
                           const param_list& params, const std::vector<flow_value>& values,
                           const flow_text& printed, int mode, bool reporting)
    {
        int count = (int)params.size();
        std::string_view first = text_of(src, params[0]);
        if (name == "var")
            return literal(first) ? var_call(at, std::string(first), src, params, values, printed,
                                             mode, reporting)
                                  : flow_value();
        if (name == "match" && count <= 3 && flow_pattern_checks(first)) {
            std::string_view subject = text_of(src, params[count - 1]);
            if (subject.substr(0, 5) == "^var[" && subject.back() == ']')
                vars_.erase(std::string(subject.substr(5, subject.size() - 6))); // checked
        }
        bool macro = name == "macro" && literal(first) && !first.empty();
        flow_value result;
        for (int i = 0; i < count; i++) {
            if (macro && i > 0)
                pass_to_macro(at, std::string(first), i, values[i], reporting);
            if (flow_carries(name, i, count) || (name == "macro" && i > 0))
                result.merge(values[i]);
        }
        return result;
    }

    // var[name] gives what the page stored under name; var[name;value] and var[name;.;text]
    // store request data, and arithmetic or a number format stores none.
    flow_value var_call(size_t at, const std::string& name, const source& src,
                        const param_list& params, const std::vector<flow_value>& values,
                        const flow_text& printed, int mode, bool reporting)
    {
        auto stored = vars_.find(name);
        if (params.size() <= 1) {
            if (stored == vars_.end())
                return {};
            flow_value value = stored->second;
            value.via = "^var[" + name + "]";
            value.escaped = true; // var escapes what it gives by the scope in force
            print(at, value, printed, mode, reporting);
            return value;
        }
        bool append = params.size() > 2 && text_of(src, params[1]) == ".";
        if (params.size() > 2 && !append) {
            vars_.erase(name);
            return {};
        }
        flow_value value = values.back();
        if (append && stored != vars_.end())
            value.merge(stored->second);
        if (!value.any()) {
            vars_.erase(name);
            return {};
        }
        if (body_ && value.params.any())
            body_->vars_set.push_back(name);
        vars_[name] = value;
        return {};
    }

    // The escaping mode level[name;...] puts in force over one that is (0: not known).
    static int level_mode(std::string_view name, int mode)
    {
        if (!literal(name))
            return ESCAPE_MODE_KEEP;
        int outer = req.escape_mode;
        req.escape_mode = mode;
        escape_mode_by_name(std::string(name).c_str()); // an unknown name keeps the mode
        int chosen = req.escape_mode;
        req.escape_mode = outer;
        return chosen;
    }

    // Request data reaches a place (tail says which): a warning, or, for a macro's parameters,
    // what their use says.
    void reach(size_t at, const flow_value& value, const char* tail, bool reporting)
    {
        if (!value.source.empty() && reporting)
            warn(at, value, tail);
        for (int n = 1; body_ && n < FLOW_MACRO_PARAMS; n++)
            if (value.params[n]) {
                param_use& use = (*body_->summary)[n];
                if (use.escaped.empty())
                    use.escaped = tail;
                if (use.raw.empty())
                    use.raw = tail;
            }
    }

    // Request data read at at lands in printed text under mode.
    void print(size_t at, const flow_value& value, const flow_text& printed, int mode,
               bool reporting)
    {
        if (const char* tail = printed.risk(value.escaped, mode);
            tail && reporting && !value.source.empty())
            warn(at, value, tail);
        for (int n = 1; body_ && n < FLOW_MACRO_PARAMS; n++)
            if (value.params[n])
                print_param(n, printed, mode, value.escaped);
    }

    // A macro's parameter n lands in printed text; escaped when it went through a variable.
    void print_param(int n, const flow_text& printed, int mode, bool escaped)
    {
        param_use& use = (*body_->summary)[n];
        const char* if_escaped = printed.risk(true, mode);
        const char* if_raw = escaped ? if_escaped : printed.risk(false, mode);
        if (use.escaped.empty() && if_escaped)
            use.escaped = if_escaped;
        if (use.raw.empty() && if_raw)
            use.raw = if_raw;
    }

    // Request data (or a body's parameters) passed to parameter index of macro.
    void pass_to_macro(size_t at, const std::string& macro, int index, const flow_value& value,
                       bool reporting)
    {
        if (!value.source.empty() && reporting)
            macro_arguments_.push_back({at, macro, index, value});
        for (int n = 1; body_ && n < FLOW_MACRO_PARAMS; n++)
            if (value.params[n])
                (*body_->summary)[n].forwards.push_back({macro, index});
    }

    // What request data passed to parameter n of macro meets, through the macros it is passed
    // on to as well: the warning's end for escaped and for raw data (empty: nothing). Macros
    // that pass it on further than the engine nests calls never run there.
    const std::pair<std::string, std::string>& resolve_use(const std::string& macro, int n,
                                                           int depth = 0)
    {
        static const std::pair<std::string, std::string> NOTHING;
        auto key = std::make_pair(macro, n);
        if (auto known = resolved_.find(key); known != resolved_.end())
            return known->second;
        if (depth == MAX_DEPTH)
            return NOTHING;
        resolved_[key]; // while it is worked out, a cycle back to it adds nothing
        std::pair<std::string, std::string> tails;
        auto summary = summaries_.find(macro);
        if (summary != summaries_.end())
            if (auto use = summary->second.find(n); use != summary->second.end()) {
                tails = {use->second.escaped, use->second.raw};
                for (const auto& [next, index] : use->second.forwards) {
                    const auto& [escaped, raw] = resolve_use(next, index, depth + 1);
                    if (tails.first.empty())
                        tails.first = escaped;
                    if (tails.second.empty())
                        tails.second = raw;
                }
            }
        return resolved_[key] = tails;
    }

    // The parameter a "$" at text[i] names in the body being read, 0 for none, and the
    // length of the reference: "$1" to "$99", or a parameter name as macro_define rewrites it.
    int param_ref(const char* text, size_t i, size_t size, size_t& length) const
    {
        length = 1;
        if (i + 1 < size && text[i + 1] == '$') {
            length = 2;
            return 0;
        }
        if (i + 1 < size && isdigit((unsigned char)text[i + 1])) {
            bool two = i + 2 < size && isdigit((unsigned char)text[i + 2]);
            length = two ? 3 : 2;
            return two ? (text[i + 1] - '0') * 10 + text[i + 2] - '0' : text[i + 1] - '0';
        }
        const std::vector<std::string>& names = body_->param_names;
        for (size_t k = 0; k < names.size(); k++)
            if (names[k].size() <= size - i - 1 &&
                names[k].compare(0, names[k].size(), text + i + 1, names[k].size()) == 0) {
                length = 1 + names[k].size();
                return (int)k + 1;
            }
        return 0;
    }

    static std::string count_message(const operator_entry& entry, int count)
    {
        param_range range = entry.row->param_count
                                ? param_range{entry.row->param_count, entry.row->param_count}
                                : entry.row->accepted;
        std::string takes = range.max == range.min ? std::to_string(range.min)
                            : range.max == 0
                                ? "at least " + std::to_string(range.min)
                                : std::to_string(range.min) + " to " + std::to_string(range.max);
        return "\"" + std::string(entry.row->name) + "\" takes " + takes +
               (range.max == 1 ? " parameter" : " parameters") + ", not " + std::to_string(count);
    }

    // Reads src.text[begin, end) as the expander would read it as one text, which lands in
    // printed under the escaping mode; gives the request data its result holds.
    flow_value scan(source& src, size_t begin, size_t end, bool reporting, flow_text printed,
                    int mode)
    {
        const char* text = src.text.data() + begin;
        size_t size = end - begin;
        call_scanner scanner(text, size);
        flow_value value;
        int plain_brackets = 0; // "[" in the text itself, not yet matched by a "]"
        for (size_t i = 0; i < size;) {
            char c = text[i];
            if (c == '[')
                plain_brackets++;
            if (c == ']' && plain_brackets > 0)
                plain_brackets--;
            else if (c == ']' && reporting && !(i > 0 && text[i - 1] == '^'))
                report(begin + i, "stray \"]\" outside any call");
            if (c == '$' && body_) {
                size_t length;
                int n = param_ref(text, i, size, length);
                if (n > 0) {
                    value.params.set(n);
                    print_param(n, printed, mode, false);
                }
                i += length;
                continue;
            }
            if (c != '^') {
                printed.feed(c);
                i++;
                continue;
            }
            param_list params;
            caret_scan found = scanner.read(i, [&](size_t start, size_t stop) {
                params.push_back({begin + start, begin + stop});
            });
            std::string name(text + i + 1, found.open > i ? found.open - i - 1 : 0);
            // "^[" is how a page writes a bracket that does not count: no call is meant.
            if (found.kind == caret_kind::UNCLOSED && reporting && !name.empty())
                report(begin + i, "call of \"" + name + "\" is never closed");
            if (found.kind == caret_kind::TOO_MANY && reporting)
                report(begin + i, "call of \"" + name + "\" has more than 19 parameters");
            if (found.kind == caret_kind::CALL) {
                value.merge(check_call(src, begin + i, begin + found.close, name, params, reporting,
                                       printed, mode));
                i = found.close + 1;
            } else {
                i += found.kind == caret_kind::ESCAPE ? 2 : 1;
            }
        }
        return value;
    }

    std::unique_ptr<source> page_;
    std::vector<std::unique_ptr<source>> others_; // files the page reads
    std::set<std::string> read_;
    std::set<std::string> defined_;
    std::vector<macro_call> macro_calls_;
    std::vector<finding> findings_;
    std::map<std::string, flow_value> vars_; // variables set from request data in this file
    body_scan* body_ = nullptr;              // the macro body being read, if any
    int depth_ = 0;                          // calls the one being read is nested in
    std::map<std::string, macro_summary> summaries_;
    std::vector<macro_argument> macro_arguments_;
    std::map<std::pair<std::string, int>, std::pair<std::string, std::string>> resolved_;
};

// Checks one file and prints its findings; -1 when it cannot be read, else the number of
// findings that are not warnings.
int check_file(const std::string& path, const char* docroot)
{
    std::string absolute = site_absolute(path);
    std::unique_ptr<source> page = absolute.empty() ? nullptr : source_read(path);
    if (!page) {
        fprintf(stderr, "tessel-check: %s: cannot read the file\n", path.c_str());
        return -1;
    }
    std::string root = site_document_root(absolute, docroot);
    str_holder page_path(str_dup(absolute.c_str()));
    req.page_path = page_path.get();
    req.cgi.document_root = root.c_str();
    std::vector<finding> findings = page_check(std::move(page)).run();
    for (const finding& f : findings)
        printf("%s:%d:%d: %s\n", path.c_str(), f.line, f.column, f.message.c_str());
    req.page_path = nullptr;
    return (int)std::count_if(findings.begin(), findings.end(),
                              [](const finding& f) { return !f.warning; });
}

} // namespace

int main(int argc, char** argv)
{
    const char* docroot = nullptr;
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--help") {
            fputs(USAGE, stdout);
            fputs(HELP, stdout);
            return 0;
        }
        if (arg == "--version") {
            printf("tessel-check, %s\n", TESSEL_BANNER);
            return 0;
        }
        if (arg == "--docroot" && i + 1 < argc) {
            docroot = argv[++i];
        } else if (arg.rfind("--", 0) == 0 && arg.size() > 2) {
            fprintf(stderr, "tessel-check: unknown option %s\n%s", arg.c_str(), USAGE);
            return 2;
        } else {
            files.push_back(arg);
        }
    }
    if (files.empty() || (docroot && site_absolute(docroot).empty())) {
        fputs(files.empty() ? USAGE : "tessel-check: no such --docroot folder\n", stderr);
        return 2;
    }
    register_all_operators();
    bool unreadable = false, found = false;
    for (const std::string& file : files) {
        int n = check_file(file, docroot);
        unreadable |= n < 0;
        found |= n > 0;
    }
    return unreadable ? 2 : found ? 1 : 0;
}
