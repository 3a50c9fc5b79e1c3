// The operator reference under docs/ names exactly the operators that the program registers.
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>

#include "cgi/request.h"
#include "interp/registry.h"
#include "ops/ops.h"

namespace {

// Every operator heading ("### `name`", alone on its line) of the docs/*.md files, with the
// files that hold it. The index docs/README.md lists families and holds no headings.
std::map<std::string, std::set<std::string>> documented_operators()
{
    std::map<std::string, std::set<std::string>> found;
    DIR* dir = opendir(TESSEL_DOCS_DIR);
    if (!dir)
        return found;
    while (dirent* entry = readdir(dir)) {
        std::string file = entry->d_name;
        if (file.size() < 4 || file.substr(file.size() - 3) != ".md" || file == "README.md")
            continue;
        std::ifstream in(std::string(TESSEL_DOCS_DIR) + "/" + file);
        for (std::string line; std::getline(in, line);)
            if (line.size() > 6 && line.starts_with("### `") && line.ends_with("`"))
                found[line.substr(5, line.size() - 6)].insert(file);
    }
    closedir(dir);
    return found;
}

// The names that register_all_operators adds to the registry. A test that registered names
// before (in the same process) only shortens the list; ctest runs each test alone.
std::set<std::string> registered_operators()
{
    const operator_entry* tail = req.operators;
    while (tail && tail->next)
        tail = tail->next;
    register_all_operators();
    std::set<std::string> names;
    for (const operator_entry* e = tail ? tail->next : req.operators; e; e = e->next)
        names.insert(e->name);
    return names;
}

} // namespace

TEST(Reference, EveryRegisteredOperatorIsDocumentedOnce)
{
    auto documented = documented_operators();
    ASSERT_FALSE(documented.empty()) << "no operator headings under " << TESSEL_DOCS_DIR;
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
