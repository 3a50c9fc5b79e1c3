// Whether a request reached the program the way a page should: dispatched by the server as the
// handler of a page file, not addressed to the program's own URL. Servers say so in two ways:
// Apache's Action runs the program by its own file and URL and names the page PATH_TRANSLATED
// (nginx through fcgiwrap does the same with the page's URL as SCRIPT_NAME); lighttpd's
// cgi.assign runs it as the handler of the page's file, named SCRIPT_FILENAME, with the page's
// URL as SCRIPT_NAME. A null string reads as empty.
#ifndef TESSEL_CGI_DISPATCH_H
#define TESSEL_CGI_DISPATCH_H

// The path of a request URI as a server maps it to a file: a leading "scheme://host" and the
// query and fragment cut off, percent escapes decoded once (an escape that is not two
// hexadecimal digits stays as it is), runs of "/" merged into one, "." segments dropped and
// each ".." segment taking the one before it away (never above the root). Null reads as
// empty. Ownership: borrows uri, new result.
char* uri_path_normalize(const char* uri);

// True when path names the running program's own file (the same device and inode as
// /proc/self/exe, so a link or another spelling counts). False when path does not exist;
// true for every path when the program cannot find its own file, so that nothing is taken
// for a page in doubt.
bool dispatch_is_program(const char* path);

// The page's file: path_translated when it is not empty; otherwise script_filename when it
// names a file other than the program, which is how a server that runs the program as the
// handler of a page file names that file. Empty when neither names a page.
// Ownership: view (of one of the arguments, or a static empty string).
const char* dispatch_page_file(const char* path_translated, const char* script_filename);

// Moves to the folder that holds the program's own file, where the program keeps its logs,
// its cache and its .profile whichever folder the server started it in. False, and the
// working folder unchanged, when that folder cannot be found or entered.
bool dispatch_enter_program_folder();

// True when the server named the page itself as the script it ran, so that script_name is
// the page's URL and not the program's: the page's file (req.cgi.path_translated) is the
// SCRIPT_FILENAME the server ran the program for, or, with no PATH_INFO, the document root
// joined to script_name names the page's file (runs of "/" count as one). Never when that
// file is the program itself.
bool dispatch_script_is_page(const char* script_name);

// True when a request for uri must not run a page. Unless dispatch_script_is_page holds,
// script_name is the program's URL and a uri that begins with it, either byte for byte or
// once both are normalized as above, addresses the program itself (no spelling of that URL,
// doubled slashes, "." or "..", escapes, gets through); an empty script_name names nothing.
// Two settings refuse more: TESSEL_REQUIRE_REDIRECT "1" every request for which the server
// passed no REDIRECT_STATUS (Apache sets it when its Action hands a page to the program), and
// TESSEL_REQUIRE_HANDLER "1" every request for which dispatch_script_is_page does not hold
// (lighttpd and nginx with the shipped configurations always name the page so).
bool dispatch_is_illegal_call(const char* uri, const char* script_name);

#endif
