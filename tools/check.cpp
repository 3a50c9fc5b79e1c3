// tessel-check: reads pages and macro files as the engine would and reports, with file, line
// and column, the calls that would show an error or silently misbehave. It reads texts with
// the engine's own call scanner and looks operators up in the engine's own registry.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <set>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "core/file.h"
#include "core/str.h"
#include "interp/macros.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "interp/scanner.h"
#include "ops/ops.h"
#include "program/page.h"
#include "tools/site.h"

namespace {

constexpr const char* USAGE = "usage: tessel-check [--docroot DIR] FILE...\n";

constexpr const char* HELP =
    "Checks tessel pages and macro files without serving them. Reports, one line each as\n"
    "FILE:LINE:COLUMN: MESSAGE, calls of unknown operators, parameter counts an operator does\n"
    "not accept, calls whose brackets never close, stray \"]\", calls with more than 19\n"
    "parameters, macros called but defined in none of the files the page reads, and\n"
    "^macro_use of a file that does not exist. Exit status: 0 when nothing was found, 1 when\n"
    "something was, 2 when a file cannot be read or the command line is wrong.\n"
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
};

// A call of a macro by a name written out, checked once every file the page reads is known.
struct macro_call {
    size_t at;
    std::string name;
};

using param_list = std::vector<std::pair<size_t, size_t>>;

// The check of one file: its findings, and the macros defined in the files it reads.
class page_check {
public:
    explicit page_check(std::unique_ptr<source> page) : page_(std::move(page)) {}

    std::vector<finding> run()
    {
        str_holder site_macros(resolve_path("/_macro.cfg"));
        read_definitions(site_macros.get(), false);
        if (!scan_definitions(*page_, true))
            scan(*page_, 0, page_->text.size(), true);
        for (const macro_call& call : macro_calls_)
            if (!defined_.count(call.name))
                report(call.at,
                       "macro \"" + call.name + "\" is not defined in the files this page reads");
        std::stable_sort(findings_.begin(), findings_.end(), [](const auto& a, const auto& b) {
            return a.line != b.line ? a.line < b.line : a.column < b.column;
        });
        return findings_;
    }

private:
    void report(size_t at, std::string message)
    {
        size_t origin = page_->origins[std::min(at, page_->text.size() - 1)];
        auto line = std::upper_bound(page_->line_starts.begin(), page_->line_starts.end(), origin);
        size_t start = *(line - 1);
        findings_.push_back(
            {(int)(line - page_->line_starts.begin()), (int)(origin - start + 1), message});
    }

    // Records the definitions of src and scans their bodies; false when it defines none.
    bool scan_definitions(source& src, bool reporting)
    {
        std::string copy = src.text;
        int count = macro_each_definition(copy.data(), [&](char* header, char* body) {
            defined_.insert(std::string(header, strcspn(header, "[")));
            size_t start = body - copy.data();
            scan(src, start, start + strlen(body), reporting);
        });
        return count > 0;
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
    static bool literal(const std::string& text)
    {
        return text.find_first_of("^$") == std::string::npos;
    }

    void check_call(source& src, size_t at, const std::string& name, const param_list& params,
                    bool reporting)
    {
        const operator_entry* entry = registry_find(name.c_str());
        if (!entry) {
            if (reporting && name.find('$') == std::string::npos)
                report(at, "unknown operator \"" + name + "\"");
            return; // its parameters are never expanded
        }
        int count = (int)params.size();
        if (reporting && !operator_accepts(*entry, count))
            report(at, count_message(*entry, count));
        if (name == "rem")
            return;
        std::string first = src.text.substr(params[0].first, params[0].second - params[0].first);
        if (name == "macro" && reporting && literal(first) && !first.empty())
            macro_calls_.push_back({at, first});
        if (name == "macro_new" && literal(first))
            defined_.insert(first.substr(0, first.find('[')));
        if (name == "macro_use" && literal(first) && !first.empty() && !use_file(first) &&
            reporting)
            report(at, "macro_use of \"" + first + "\": no such file");
        for (const auto& [start, end] : params)
            scan(src, start, end, reporting);
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

    // Reads src.text[begin, end) as the expander would read it as one text.
    void scan(source& src, size_t begin, size_t end, bool reporting)
    {
        const char* text = src.text.data() + begin;
        size_t size = end - begin;
        call_scanner scanner(text, size);
        int plain_brackets = 0; // "[" in the text itself, not yet matched by a "]"
        for (size_t i = 0; i < size;) {
            char c = text[i];
            if (c == '[')
                plain_brackets++;
            if (c == ']' && plain_brackets > 0)
                plain_brackets--;
            else if (c == ']' && reporting && !(i > 0 && text[i - 1] == '^'))
                report(begin + i, "stray \"]\" outside any call");
            if (c != '^') {
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
                check_call(src, begin + i, name, params, reporting);
                i = found.close + 1;
            } else {
                i += found.kind == caret_kind::ESCAPE ? 2 : 1;
            }
        }
    }

    std::unique_ptr<source> page_;
    std::vector<std::unique_ptr<source>> others_; // files the page reads
    std::set<std::string> read_;
    std::set<std::string> defined_;
    std::vector<macro_call> macro_calls_;
    std::vector<finding> findings_;
};

// Checks one file and prints its findings; -1 when it cannot be read, else their number.
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
    return (int)findings.size();
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
