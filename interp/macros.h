// Macro definitions: site files read at start-up, per-directory files, and pages.
#ifndef TESSEL_INTERP_MACROS_H
#define TESSEL_INTERP_MACROS_H

// Creates the macro table and reads the site's macro file.
void macro_init();

// Reads the page file and renders it: its "main" when it defines macros, otherwise the page
// text expanded. Null when the page is missing or renders empty. Ownership: new result.
char* load_page(const char* path);

#endif
