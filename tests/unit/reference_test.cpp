// The operator reference under docs/ names exactly the operators that the program registers.
#include <algorithm>
#include <dirent.h>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"
#include "test_support.h"

namespace {

const std::string DOCS = TESSEL_DOCS_DIR;

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
        std::istringstream in(file_text(DOCS + "/" + file));
        for (std::string line; std::getline(in, line);)
            if (line.size() > 6 && line.starts_with("### `") && line.ends_with("`"))
                found[line.substr(5, line.size() - 6)].insert(file);
    }
    closedir(dir);
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
