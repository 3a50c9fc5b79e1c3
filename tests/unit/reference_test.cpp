// The operator reference under docs/ names exactly the operators that the program registers.
#include <algorithm>
#include <cctype>
#include <dirent.h>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"
#include "test_support.h"

namespace {

const std::string DOCS = TESSEL_DOCS_DIR;

// The lines of a file, without their line feeds; none when it cannot be read.
std::vector<std::string> lines_of(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream in(file_text(path));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// A line that opens or closes a fenced block, also one indented inside a list item.
bool is_fence(const std::string& line)
{
    size_t at = line.find_first_not_of(' ');
    return at != std::string::npos && line.compare(at, 3, "```") == 0;
}

// The text of a Markdown heading line ("## Text"), or nothing when the line is none.
std::optional<std::string> heading_text(const std::string& line)
{
    size_t level = line.find_first_not_of('#');
    if (level == 0 || level > 6 || line[level] != ' ') // npos is above 6 too
        return std::nullopt;
    return line.substr(level + 1);
}

// The operator named by an entry heading ("### `name`" alone on its line), or "".
std::string operator_heading(const std::string& line)
{
    if (line.size() > 6 && line.starts_with("### `") && line.ends_with("`"))
        return line.substr(5, line.size() - 6);
    return "";
}

// One operator entry: its file, and its lines from the heading up to the next heading.
struct entry {
    std::string file;
    std::vector<std::string> lines;
};

// Every operator entry of the docs/*.md files, by name (a name headed in several files has
// several entries). Headings inside fenced blocks are example text. The index docs/README.md
// holds no entries.
std::multimap<std::string, entry> operator_entries()
{
    std::multimap<std::string, entry> found;
    DIR* dir = opendir(DOCS.c_str());
    if (!dir)
        return found;
    while (dirent* ent = readdir(dir)) {
        std::string file = ent->d_name;
        if (!file.ends_with(".md") || file == "README.md")
            continue;
        entry* current = nullptr;
        bool fenced = false;
        for (const std::string& line : lines_of(DOCS + "/" + file)) {
            fenced ^= is_fence(line);
            if (!fenced && heading_text(line)) {
                std::string name = operator_heading(line);
                current = name.empty() ? nullptr : &found.emplace(name, entry{file, {}})->second;
            }
            if (current)
                current->lines.push_back(line);
        }
    }
    closedir(dir);
    return found;
}

// The files that hold an entry of each documented operator.
std::map<std::string, std::set<std::string>> documented_operators()
{
    std::map<std::string, std::set<std::string>> found;
    for (const auto& [name, at] : operator_entries())
        found[name].insert(at.file);
    return found;
}

// The docs/*.md files that the index links, in the order of their first link.
std::vector<std::string> index_links()
{
    std::vector<std::string> links;
    std::string index = file_text(DOCS + "/README.md");
    std::regex link(R"(\]\(([a-z_]+\.md)\))");
    for (std::sregex_iterator m(index.begin(), index.end(), link), end; m != end; ++m)
        if (std::find(links.begin(), links.end(), (*m)[1]) == links.end())
            links.push_back((*m)[1]);
    return links;
}

// The words of an entry's synopsis, the one-line paragraph under its heading that lists the
// calls and says what the operator does: "`^name[a]`, `^name[a;b]`: what it does." Empty
// when the entry does not open with one.
std::string synopsis(const std::string& name, const entry& at)
{
    if (at.lines.size() < 4 || !at.lines[1].empty() || !at.lines[3].empty())
        return "";
    std::string call = "`\\^" +
                       std::regex_replace(name, std::regex(R"([.^$|()\[\]{}*+?\\])"), "\\$&") +
                       "\\[[^`]*\\]`";
    std::smatch m;
    if (!std::regex_match(at.lines[2], m, std::regex("^" + call + "(?:, " + call + ")*: (.+\\.)$")))
        return "";
    return m[1];
}

// A link to an operator entry: [`name`](file.md#anchor).
struct entry_link {
    std::string name, file, anchor;
};

const std::string ENTRY_LINK_TEXT = R"(\[`([^`]+)`\]\(([a-z_]+\.md)#([^)]+)\))";
const std::regex ENTRY_LINK(ENTRY_LINK_TEXT);

// The links of an entry's last line, "See also: [`a`](f.md#a), [`b`](g.md#b)."; none when the
// last line is not such a line, or holds anything else.
std::vector<entry_link> see_also(const entry& at)
{
    auto last =
        std::find_if(at.lines.rbegin(), at.lines.rend(), [](auto& l) { return !l.empty(); });
    std::vector<entry_link> links;
    if (last == at.lines.rend() || !last->starts_with("See also: ") || !last->ends_with("."))
        return links;
    std::string rebuilt = "See also: ";
    for (std::sregex_iterator m(last->begin(), last->end(), ENTRY_LINK), end; m != end; ++m) {
        rebuilt += (links.empty() ? "" : ", ") + m->str();
        links.push_back({(*m)[1], (*m)[2], (*m)[3]});
    }
    if (rebuilt + "." != *last)
        links.clear();
    return links;
}

// The anchor that GitHub (and GitLab and the common renderers) give a heading: lower case,
// punctuation other than '-' and '_' dropped, blanks made '-'.
std::string anchor_of(const std::string& heading)
{
    std::string anchor;
    for (unsigned char c : heading)
        if (c == ' ')
            anchor += '-';
        else if (std::isalnum(c) || c == '-' || c == '_' || c >= 0x80)
            anchor += static_cast<char>(std::tolower(c));
    return anchor;
}

// The anchors of a Markdown file's headings; a repeated one gets -1, -2, ... as on GitHub.
std::set<std::string> anchors(const std::string& path)
{
    std::set<std::string> found;
    bool fenced = false;
    for (const std::string& line : lines_of(path)) {
        fenced ^= is_fence(line);
        if (auto text = heading_text(line); text && !fenced) {
            std::string anchor = anchor_of(*text), unique = anchor;
            for (int n = 1; found.count(unique); n++)
                unique = anchor + "-" + std::to_string(n);
            found.insert(unique);
        }
    }
    return found;
}

} // namespace

TEST(Reference, EveryRegisteredOperatorIsDocumentedOnceInItsFamily)
{
    auto documented = documented_operators();
    ASSERT_FALSE(documented.empty()) << "no operator headings under " << DOCS;
    for (const auto& [name, family] : registered_families()) {
        std::set<std::string> want = {family + ".md"};
        EXPECT_EQ(documented[name], want)
            << "operator " << name << " of ops/" << family << ".cpp needs one heading \"### `"
            << name << "`\" in docs/" << family << ".md and none elsewhere";
    }
}

TEST(Reference, EveryDocumentedOperatorIsRegistered)
{
    register_all_operators();
    for (const auto& [name, files] : documented_operators())
        EXPECT_NE(registry_find(name.c_str()), nullptr)
            << "docs/" << *files.begin() << " documents " << name << ", which is not registered";
}

// The index links every family's reference file.
TEST(Reference, IndexLinksEveryFamily)
{
    std::vector<std::string> links = index_links();
    for (const auto& [name, family] : registered_families())
        EXPECT_NE(std::find(links.begin(), links.end(), family + ".md"), links.end())
            << "docs/README.md does not link " << family << ".md";
}

// Each entry opens with its synopsis and ends with 1 to 4 links to other entries, each to the
// file that holds that entry and its heading's anchor, the name.
TEST(Reference, EveryEntryOpensWithASynopsisAndEndsWithSeeAlso)
{
    auto entries = operator_entries();
    for (const auto& [name, at] : entries) {
        EXPECT_NE(synopsis(name, at), "")
            << "docs/" << at.file << ": " << name << " needs a synopsis line under its heading: "
            << "\"`^" << name << "[...]`, `^" << name << "[...]`: what it does.\"";
        std::vector<entry_link> links = see_also(at);
        EXPECT_TRUE(links.size() >= 1 && links.size() <= 4)
            << "docs/" << at.file << ": " << name
            << " needs a last line \"See also: [`a`](f.md#a), ...\" with 1 to 4 links";
        for (const entry_link& link : links) {
            auto target = entries.find(link.name);
            EXPECT_TRUE(target != entries.end() && link.name != name &&
                        target->second.file == link.file && link.anchor == link.name)
                << "docs/" << at.file << ": " << name << "'s See also links " << link.name << " as "
                << link.file << "#" << link.anchor;
        }
    }
}

// The index in docs/README.md names every registered operator once, in byte order, linked to
// its entry, with the words of the entry's synopsis.
TEST(Reference, IndexListsEveryOperatorOnceWithItsSynopsis)
{
    std::vector<std::string> lines = lines_of(DOCS + "/README.md");
    auto start = std::find(lines.begin(), lines.end(), "## Index");
    ASSERT_NE(start, lines.end()) << "docs/README.md has no \"## Index\"";
    auto entries = operator_entries();
    auto families = registered_families();
    std::regex item("^- " + ENTRY_LINK_TEXT + ": (.*)$");
    std::vector<std::string> listed;
    for (auto line = start + 1; line != lines.end() && !line->starts_with("## "); ++line) {
        std::smatch m;
        if (!line->starts_with("- "))
            continue;
        ASSERT_TRUE(std::regex_match(*line, m, item)) << "index line: " << *line;
        std::string name = m[1];
        auto at = entries.find(name);
        ASSERT_TRUE(at != entries.end() && families.count(name))
            << "the index names " << name << ", which is no documented, registered operator";
        EXPECT_TRUE(m[2] == at->second.file && m[3] == name)
            << "the index links " << name << " to " << m[2] << "#" << m[3];
        EXPECT_EQ(m[4].str(), synopsis(name, at->second)) << "the index's words for " << name;
        EXPECT_TRUE(listed.empty() || listed.back() < name)
            << "the index lists " << name << " after " << listed.back();
        listed.push_back(name);
    }
    for (const auto& [name, family] : families)
        EXPECT_NE(std::find(listed.begin(), listed.end(), name), listed.end())
            << "the index in docs/README.md does not list " << name;
}

// Every link of the reference to a file, or to a heading of one, finds it.
TEST(Reference, LinksFindTheirHeadings)
{
    std::set<std::string> files = {"README.md"};
    for (const auto& [name, at] : operator_entries())
        files.insert(at.file);
    std::regex link(R"(\]\(([^)#\s:]*)(?:#([^)\s]*))?\))");
    for (const std::string& file : files) {
        bool fenced = false;
        for (const std::string& line : lines_of(DOCS + "/" + file)) {
            fenced ^= is_fence(line);
            if (fenced)
                continue;
            for (std::sregex_iterator m(line.begin(), line.end(), link), end; m != end; ++m) {
                std::string target = DOCS + "/" + ((*m)[1].length() ? (*m)[1].str() : file);
                EXPECT_TRUE(access(target.c_str(), R_OK) == 0)
                    << "docs/" << file << " links " << m->str() << ": no such file";
                EXPECT_TRUE(!(*m)[2].matched || anchors(target).count((*m)[2]))
                    << "docs/" << file << " links " << m->str() << ": no such heading";
            }
        }
    }
}
