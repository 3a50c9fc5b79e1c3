// Site folders for the command-line tools.
#include "tools/site.h"

#include <climits>
#include <cstdlib>
#include <unistd.h>

std::string site_absolute(const std::string& path)
{
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) ? std::string(resolved) : std::string();
}

std::string site_dirname(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

std::string site_document_root(const std::string& page, const char* docroot)
{
    if (docroot)
        return site_absolute(docroot);
    std::string own = site_dirname(page);
    for (std::string dir = own;; dir = site_dirname(dir)) {
        std::string prefix = dir == "/" ? "" : dir;
        if (access((prefix + "/_macro.cfg").c_str(), F_OK) == 0)
            return dir;
        if (dir == "/")
            return own;
    }
}
