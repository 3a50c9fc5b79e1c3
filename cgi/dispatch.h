// Whether a request reached the program the way a page should: dispatched by the server as the
// handler of a page file, not addressed to the program's own URL.
#ifndef TESSEL_CGI_DISPATCH_H
#define TESSEL_CGI_DISPATCH_H

// The path of a request URI as a server maps it to a file: a leading "scheme://host" and the
// query and fragment cut off, percent escapes decoded once (an escape that is not two
// hexadecimal digits stays as it is), runs of "/" merged into one, "." segments dropped and
// each ".." segment taking the one before it away (never above the root). Null reads as
// empty. Ownership: borrows uri, new result.
char* uri_path_normalize(const char* uri);

// True when a request for uri must not run a page: the uri addresses the program itself,
// that is, it begins with script_name either byte for byte or once both are normalized as
// above, so no spelling of the program's URL (doubled slashes, "." or "..", escapes) gets
// through; or the setting TESSEL_REQUIRE_REDIRECT is "1" and the server passed no
// REDIRECT_STATUS, which it sets when it hands a page to its handler. An empty script_name
// only counts for the setting.
bool dispatch_is_illegal_call(const char* uri, const char* script_name);

#endif
