// What the command-line tools share: finding a page's site folder and pointing the request
// record at a page, as the web server would.
#ifndef TESSEL_TOOLS_SITE_H
#define TESSEL_TOOLS_SITE_H

#include <string>

// The absolute form of path with symbolic links resolved; empty when it does not exist.
std::string site_absolute(const std::string& path);

// The document root for a page given by its absolute path: docroot made absolute when given,
// otherwise the nearest folder at or above the page's that holds "_macro.cfg", otherwise the
// page's own folder. Never ends in "/" (except the root itself).
std::string site_document_root(const std::string& page, const char* docroot);

// The folder part of an absolute path ("/" for a file in the root).
std::string site_dirname(const std::string& path);

#endif
