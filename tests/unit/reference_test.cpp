// The operator reference under docs/ names exactly the operators that the program registers.
#include <algorithm>
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cgi/request.h"
#include "interp/registry.h"
#include "ops/ops.h"

namespace {

const std::string DOCS = TESSEL_DOCS_DIR;

std::string read_text(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Every operator heading ("### `name`", alone on its line) of the docs/*.md files, with the
// files that hold it. The index docs/README.md lists families and holds no headings.
std::map<std::string, std::set<std::string>> documented_operators()
{
    std::map<std::string, std::set<std::string>> found;
    DIR* dir = opendir(DOCS.c_str());
    if (!dir)
        return found;
    while (dirent* entry = readdir(dir)) {
        std::string file = entry->d_name;
        if (!file.ends_with(".md") || file == "README.md")
            continue;
        std::istringstream in(read_text(DOCS + "/" + file));
        for (std::string line; std::getline(in, line);)
            if (line.size() > 6 && line.starts_with("### `") && line.ends_with("`"))
                found[line.substr(5, line.size() - 6)].insert(file);
    }
    closedir(dir);
    return found;
}

// The names that register_all_operators adds to the registry, in registration order. A test
// that registered names earlier in the same process only shortens the list (ctest runs each
// test alone, where it is complete), so the checks below can miss a fault but never invent
// one.
const std::vector<std::string>& registered_operators()
{
    static const std::vector<std::string> names = [] {
        const operator_entry* tail = req.operators;
        while (tail && tail->next)
            tail = tail->next;
        register_all_operators();
        std::vector<std::string> added;
        for (const operator_entry* e = tail ? tail->next : req.operators; e; e = e->next)
            added.push_back(e->name);
        return added;
    }();
    return names;
}

// The docs/*.md files that the index links, in the order of their first link.
std::vector<std::string> index_links()
{
    std::vector<std::string> links;
    std::string index = read_text(DOCS + "/README.md");
    std::regex link(R"(\]\(([a-z_]+\.md)\))");
    for (std::sregex_iterator m(index.begin(), index.end(), link), end; m != end; ++m)
        if (std::find(links.begin(), links.end(), (*m)[1]) == links.end())
            links.push_back((*m)[1]);
    return links;
}

} // namespace

TEST(Reference, EveryRegisteredOperatorIsDocumentedOnce)
{
    auto documented = documented_operators();
    ASSERT_FALSE(documented.empty()) << "no operator headings under " << DOCS;
    for (const std::string& name : registered_operators())
        EXPECT_EQ(documented[name].size(), 1u)
            << "operator " << name << " is documented in " << documented[name].size()
            << " files of docs/ (a heading \"### `" << name << "`\" in exactly one is due)";
}

TEST(Reference, EveryDocumentedOperatorIsRegistered)
{
    registered_operators();
    for (const auto& [name, files] : documented_operators())
        EXPECT_NE(find_operator(name.c_str()), nullptr)
            << "docs/" << *files.begin() << " documents " << name << ", which is not registered";
}

// The index lists each family file once, in the order in which the families register: a
// file's place is that of its first registered operator.
TEST(Reference, IndexListsFamiliesInRegistrationOrder)
{
    std::map<std::string, size_t> place;
    const auto& registered = registered_operators();
    for (const auto& [name, files] : documented_operators()) {
        size_t at = std::find(registered.begin(), registered.end(), name) - registered.begin();
        for (const std::string& file : files)
            if (at < registered.size() && (!place.count(file) || at < place[file]))
                place[file] = at;
    }
    std::vector<std::string> links = index_links();
    for (const auto& [file, at] : place)
        EXPECT_NE(std::find(links.begin(), links.end(), file), links.end())
            << "docs/README.md does not link " << file;
    size_t last = 0;
    std::string last_file;
    for (const std::string& file : links) {
        if (!place.count(file))
            continue;
        EXPECT_GE(place[file], last) << file << " is listed after " << last_file
                                     << " in docs/README.md but registers before it";
        last = place[file];
        last_file = file;
    }
}
