// Every operator name the families register, and the family whose registration wins it.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

#include "interp/registry.h"
#include "ops/ops.h"

namespace {

struct owned_name {
    const char* name;
    const char* family; // ops/<family>.cpp, whose register_rows registered the name first
};

// One row per registered name, grouped by family in registration order. A new family adds its
// names here; a name that a later family registers too stays with the earlier one.
constexpr owned_name REGISTERED[] = {
    // clang-format off
    // cache
    {"cache",           "cache"},
    // optimize
    {"optimize",        "optimize"},
    // request
    {"browser",         "request"},
    {"combine",         "request"},
    {"env",             "request"},
    {"form",            "request"},
    {"header",          "request"},
    {"mangle",          "request"},
    {"number",          "request"},
    {"query",           "request"},
    {"uri",             "request"},
    // misc
    {"color",           "misc"},
    {"date",            "misc"},
    {"level",           "misc"},
    {"process",         "misc"},
    {"random",          "misc"},
    {"rem",             "misc"},
    {"sum",             "misc"},
    // exec
    {"exec",            "exec"},
    // files
    {"-f",              "files"},
    {"find",            "files"},
    {"include",         "files"},
    {"index",           "files"},
    {"name",            "files"},
    {"stat",            "files"},
    // image_size
    {"gifsize",         "image_size"},
    {"imgsize",         "image_size"},
    {"jpegsize",        "image_size"},
    // compare
    {"cmp",             "compare"},
    {"default",         "compare"},
    {"eq",              "compare"},
    {"ifdef",           "compare"},
    {"optionand",       "compare"},
    {"optionclear",     "compare"},
    {"optioncount",     "compare"},
    {"optionor",        "compare"},
    {"optionset",       "compare"},
    {"start",           "compare"},
    // macros
    {"macro",           "macros"},
    {"macro_exists",    "macros"},
    {"macro_new",       "macros"},
    {"macro_use",       "macros"},
    // match
    {"match",           "match"},
    // mail
    {"sendmail",        "mail"},
    // sort
    {"sort",            "sort"},
    // string_case
    {"lsplit",          "string_case"},
    {"rsplit",          "string_case"},
    {"tolower",         "string_case"},
    {"toupper",         "string_case"},
    {"truncate",        "string_case"},
    {"unescape_br",     "string_case"},
    // tables
    {"config",          "tables"},
    {"context",         "tables"},
    {"empty",           "tables"},
    {"flip",            "tables"},
    {"item",            "tables"},
    {"load",            "tables"},
    {"locate",          "tables"},
    {"menu",            "tables"},
    {"save",            "tables"},
    {"shift",           "tables"},
    {"table",           "tables"},
    // cookie
    {"cookie",          "cookie"},
    // upload
    {"unlink",          "upload"},
    {"upload",          "upload"},
    // uuencode
    {"uuencode",        "uuencode"},
    // sql
    {"server",          "sql"},
    {"sql",             "sql"},
    // counter
    {"counter",         "counter"},
    // dates
    {"calendar",        "dates"},
    {"dateoffset",      "dates"},
    {"loadtimestamp",   "dates"},
    // gif_template
    {"gif_template",    "gif_template"},
    // switch
    {"case",            "switch"},
    {"switch",          "switch"},
    // control
    {"eval",            "control"},
    {"for",             "control"},
    {"if",              "control"},
    {"var",             "control"},
    {"while",           "control"},
    // access
    {"auth",            "access"},
    {"user",            "access"},
    // threads
    {"hotline_cutmark_thread", "threads"},
    {"hotline_quote",   "threads"},
    // download
    {"download",        "download"},
    // chat (its "cookie" stays with the cookie family, registered earlier)
    {"chat",            "chat"},
    {"log",             "chat"},
    {"login",           "chat"},
    {"message",         "chat"},
    {"startup",         "chat"},
    {"userlist",        "chat"},
    {"validate",        "chat"},
    // strings
    {"ascii",           "strings"},
    {"char",            "strings"},
    {"findstr",         "strings"},
    {"left",            "strings"},
    {"length",          "strings"},
    {"mid",             "strings"},
    {"right",           "strings"},
    // clang-format on
};

// The family of an entry: the file name of its source without folder and extension.
std::string family_of(const operator_entry* entry)
{
    std::string path = entry->source;
    path = path.substr(path.find_last_of('/') + 1);
    return path.substr(0, path.find('.'));
}

// name -> family of every operator a family registered (operators registered by tests have no
// source and are left out).
std::map<std::string, std::string> registered_families()
{
    register_all_operators();
    std::map<std::string, std::string> families;
    for (const operator_entry* entry : registered_operators())
        if (entry->source)
            families[entry->row->name] = family_of(entry);
    return families;
}

TEST(RegisterAll, EveryNameBelongsToItsFamily)
{
    std::map<std::string, std::string> actual = registered_families();
    std::map<std::string, std::string> expected;
    for (const owned_name& row : REGISTERED)
        expected[row.name] = row.family;
    for (const auto& [name, family] : actual)
        EXPECT_EQ(family, expected[name]) << "{\"" << name << "\", \"" << family << "\"},";
    for (const auto& [name, family] : expected)
        EXPECT_TRUE(actual.count(name)) << name << " (" << family << ") is not registered";
}

} // namespace
