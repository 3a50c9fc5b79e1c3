// Access control: the authenticated user and the "require" rules of .htaccess files.
#include <cstdlib>
#include <cstring>

#include "cgi/request.h"
#include "core/file.h"
#include "core/setting.h"
#include "core/str.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

constexpr const char* NO_DECISION = nullptr;

// With TESSEL_AUTH_NEEDS_USER=1 a visitor nobody signed in passes no rule, valid-user included.
bool access_needs_user()
{
    return setting_on("TESSEL_AUTH_NEEDS_USER");
}

// Whether names (a "group" line's list, separated by single blanks) holds user as a whole
// name. A listed name is never empty and holds no blank, so an empty user and a user such as
// "ann joe" match none, whatever extra blanks the line has.
bool access_listed(const char* names, const char* user)
{
    if (!*user || strchr(user, ' '))
        return false;
    str_holder needle(str_join(" ", user, " ", nullptr));
    str_holder listed(str_join(" ", names, " ", nullptr));
    return str_find(listed.get(), needle.get()) != nullptr;
}

// The answer of one "require" line for user: "yes", "no", or NO_DECISION when the line is not
// a rule. The words must be separated by exactly one space.
const char* access_rule_answer(const char* line, const char* user)
{
    if (!str_starts_with(line, "require "))
        return NO_DECISION;
    const char* second = line + strlen("require ");
    if (strcmp(second, "valid-user") == 0 || str_starts_with(second, "valid-user "))
        return *user || !access_needs_user() ? "yes" : "no";
    if (strcmp(second, "group") != 0 && !str_starts_with(second, "group "))
        return NO_DECISION;
    const char* names = second[5] ? second + 6 : "";
    return access_listed(names, user) ? "yes" : "no";
}

// The answer of the first deciding line of a rule file's text, or NO_DECISION.
const char* access_file_answer(char* text, const char* user)
{
    for (char* cursor = text; cursor;) {
        const char* answer = access_rule_answer(str_take_token(cursor, '\n'), user);
        if (answer)
            return answer;
    }
    return NO_DECISION;
}

// auth[user;path]: walks up from the path's directory to the file system root and answers
// from the first .htaccess that decides; nothing when none does.
char* op_auth(int count, char** params)
{
    const char* user = str_or_empty(param_text(count, params, 0));
    const char* path = param_text(count, params, 1);
    const char* root = getenv("DOCUMENT_ROOT");
    str_holder start(str_nonempty(path) && path[0] == '/'
                         ? str_join(str_or_empty(root), path, nullptr)
                         : resolve_path(path));
    char* dir = start.get();
    while (dir && str_cut_at_last(dir, '/') && request_search_reaches(*dir ? dir : "/")) {
        str_holder file(str_join(dir, "/.htaccess", nullptr));
        str_holder text(read_file(file.get(), false, false));
        if (!text.get())
            continue;
        const char* answer = access_file_answer(text.get(), user);
        if (answer)
            return str_dup(answer);
    }
    return nullptr;
}

// user[]: the name the web server authenticated, or nothing; see request_remote_user for a
// page the server reached through its page handler.
char* op_user(int, char**)
{
    return str_dup(request_remote_user());
}

} // namespace

// clang-format off
extern constexpr op_row access_rows[] = {
    // name   handler   params  flags       accepted
    {"auth",  op_auth,  2,      0},
    {"user",  op_user,  0,      REQUEST_DATA, {1, 1}},
};
// clang-format on

void register_access_ops()
{
    register_rows(access_rows);
}
