// Replacing a file whole: after a crash at any instant, or a full disk, the file holds either
// its old content or its new content, never a mix.
#ifndef TESSEL_CORE_FILE_REPLACE_H
#define TESSEL_CORE_FILE_REPLACE_H

#include <cstddef>

// Replaces the file at path by size bytes of data. The data goes to a temporary file beside
// it (the name followed by ".tmp-" and six random characters, so a private name such as
// "_table" stays private), which then takes the file's place by rename(2): readers see the old
// content or the new, never part of either. A file that existed keeps its permission bits
// (and its owner where the process may set it); a new one gets 0666 less the process's mask.
// A path that is a symbolic link replaces the file the link points to. With the setting
// TESSEL_FSYNC=1 the data and the folder entry reach the disk before the call returns.
//
// Where the folder cannot take the temporary file but the file exists and may be written, the
// file is written in place and then cut to its new length, as before; a crash or a full disk
// in between can then leave it mixed.
//
// Null on success; otherwise the system's message for the step that failed, as
// system_error_text gives it ("No space left on device(#28)"), and the old file untouched
// (the temporary file is removed). "no filename specified" for a null path.
// Ownership: borrows path and data, new result.
char* file_replace(const char* path, const char* data, size_t size);

#endif
