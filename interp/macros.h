// Macros: user operators written in definition files, per-directory files and pages, called
// through the `macro` operator with "$1".."$99" replaced by the call's arguments.
//
// A definition file ignores everything before its first line that begins with "@". Each
// "@name" or "@name[p1;p2]" line starts a definition whose body runs to the next header line
// (one blank line before that header is not part of the body); the last body keeps its
// final newline. A header directly followed by another header defines nothing. Named
// parameters are rewritten to positions when the macro is defined ("$p2" becomes "$2");
// "$$" stands for "$". A file's own "autoexec" runs when the file has been read and its
// "main" is the file's output; neither outlives the file. A null string reads as empty text.
#ifndef TESSEL_INTERP_MACROS_H
#define TESSEL_INTERP_MACROS_H

#include <functional>
#include <initializer_list>

#include "core/memory.h"

// ---- start-up and pages -------------------------------------------------------------------

// Defines the macros of "_macro.cfg" in the working directory, or, when that defines none,
// of "/_macro.cfg" under DOCUMENT_ROOT. The outputs of their "main" are discarded.
void macro_init();

// Reads the page file (empty lines kept) and renders it: the expansion of its "main" when it
// defines macros (null when it has no "main"), otherwise the page text expanded. Null when
// the page is missing or renders empty. Ownership: borrows path, new result.
char* load_page(const char* path);

// ---- definitions ------------------------------------------------------------------------

// Defines the macros of text and returns how many were defined. Runs the text's "autoexec"
// (output discarded) and appends the expansion of its "main" to output when output is not
// null; the "autoexec" and "main" defined before are back afterwards.
// Ownership: borrows text (cut in place), borrows output.
int define_macros(char* text, str_builder* output);

// Calls on_definition(header, body) for each definition of text, in order, and returns how
// many there were: header is the header line without "@" ("name" or "name[p1;p2]"), body the
// body as written. Headers without a body are skipped. Defines nothing itself.
// Ownership: borrows text (cut in place: header and body are views into it).
int macro_each_definition(char* text,
                          const std::function<void(char* header, char* body)>& on_definition);

// define_macros of a whole file; 0 when it cannot be read. Ownership: borrows both.
int macro_define_file(const char* path, str_builder* output);

// Stores body under the name of header ("name" or "name[p1;p2;...]"), replacing an earlier
// body, with named parameters rewritten to positions. Ownership: borrows both.
void macro_define(const char* header, const char* body);

// The body with every "$name" of the ";"-separated params list rewritten to "$n" (names
// tried in order as prefixes, an empty name matching anything); "$$" and "$digit" are left
// alone; a "$" that no name fits gets "[macro param name not found]" inserted after it. A
// null or empty params list leaves the body as it is. Ownership: borrows both, new result.
char* macro_rewrite_params(const char* body, const char* params);

// The body of the named macro, null when none. Ownership: view.
const char* macro_body(const char* name);

// ---- calls ------------------------------------------------------------------------------

// The body with "$$" made "$" and "$n"/"$nn" replaced by params[n] as written (no text for
// 0, for n >= count or for an empty argument); inserted text is never scanned again. Null
// when the result is empty. Ownership: borrows all, new result.
char* macro_substitute(const char* body, int count, char** params);

// Runs macro params[0] (expanded in place first) with the arguments params[1..count-1]:
// the substituted body expanded, or "[undefined macro NAME]". Ownership: new result.
char* macro_call(int count, char** params);

// Calls the named macro with the given arguments through the `macro` operator, so the call
// counts towards the nesting limit like any other: how the engine itself runs a macro such as
// "SERVER_ERROR" or "main". Arguments past the most a call may carry are dropped.
// Ownership: borrows all, new result.
char* macro_run(const char* name, std::initializer_list<const char*> arguments = {});

// The work of macro_use[name]: "tessel.cfg" reads every "/_tessel.cfg" from the root down to
// the page's directory; "a/b.cfg" reads "a/_b.cfg" beside the page ("/a/b.cfg" under
// DOCUMENT_ROOT); a name ending in "/" reads every entry of that directory not starting with
// "." (in name order). Returns the outputs of every "main" met, null for none.
// Ownership: borrows name, new result.
char* macro_use(const char* name);

#endif
