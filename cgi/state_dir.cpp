// The site's state folder.
#include "cgi/state_dir.h"

#include <cstdlib>
#include <unistd.h>

#include "cgi/log.h"
#include "core/file.h"
#include "core/memory.h"
#include "core/str.h"

void state_dir_enter()
{
    const char* dir = getenv("TESSEL_STATE_DIR");
    if (!str_nonempty(dir) || chdir(dir) == 0)
        return;
    // Still in the folder the server started the program in: the log line goes there, or to
    // the server's error log when that folder is not writable.
    str_holder reason(system_error_text());
    fatal_error(500, "the site's state folder cannot be used", "state folder %s: %s", dir,
                reason.get());
}
