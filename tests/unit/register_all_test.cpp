// Every operator name the families register, and the family whose registration wins it.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>

#include "interp/registry.h"
#include "ops/ops.h"
#include "test_support.h"

namespace {

struct family_names {
    const char* family; // its name in OPERATOR_FAMILIES (ops/ops.h), the stem of its file
    const char* names;  // separated by spaces
};

// One row per family in registration order. A new family adds its names here; a name that a
// later family registers too stays with the earlier one.
constexpr family_names REGISTERED[] = {
    {"cache", "cache"},
    {"optimize", "optimize"},
    {"request", "browser combine env form header mangle number query uri"},
    {"misc", "color date level process random rem sum"},
    {"exec", "exec"},
    {"files", "-f find include index name stat"},
    {"image_size", "gifsize imgsize jpegsize"},
    {"compare", "cmp default eq ifdef optionand optionclear optioncount optionor optionset start"},
    {"macros", "macro macro_exists macro_new macro_use"},
    {"match", "match"},
    {"mail", "sendmail"},
    {"sort", "sort"},
    {"string_case", "lsplit rsplit tolower toupper truncate unescape_br"},
    {"tables", "config context empty flip item load locate menu save shift table"},
    {"cookie", "cookie"},
    {"upload", "unlink upload"},
    {"uuencode", "uuencode"},
    {"sql", "server sql"},
    {"counter", "counter"},
    {"dates", "calendar dateoffset loadtimestamp"},
    {"gif_template", "gif_template"},
    {"switch", "case switch"},
    {"control", "eval for if var while"},
    {"access", "auth user"},
    {"threads", "hotline_cutmark_thread hotline_quote"},
    {"download", "download"},
    {"chat", "chat log login message startup userlist validate"},
    {"strings", "ascii char findstr left length mid right"},
    {"lock", "lock"},
};

TEST(RegisterAll, EveryNameBelongsToItsFamily)
{
    std::map<std::string, std::string> actual = registered_families();
    std::map<std::string, std::string> expected;
    for (const family_names& row : REGISTERED) {
        std::istringstream names(row.names);
        for (std::string name; names >> name;)
            expected[name] = row.family;
    }
    for (const auto& [name, family] : actual)
        EXPECT_EQ(family, expected[name]) << name << " is registered by " << family;
    for (const auto& [name, family] : expected)
        EXPECT_TRUE(actual.count(name)) << name << " (" << family << ") is not registered";
}

} // namespace
