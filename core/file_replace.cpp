// Whole-file replacement through a temporary file and rename.
#include "core/file_replace.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/file.h"
#include "core/str.h"

namespace {

constexpr const char* TEMP_SUFFIX = ".tmp-XXXXXX";

// Writes all size bytes; false with errno set on the first failure.
bool write_all(int fd, const char* data, size_t size)
{
    while (size > 0) {
        ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            if (written == 0)
                errno = EIO;
            return false;
        }
        data += written;
        size -= (size_t)written;
    }
    return true;
}

bool fsync_wanted()
{
    return str_equal(getenv("TESSEL_FSYNC"), "1");
}

// Flushes the folder that holds path, so that a rename in it survives a power cut.
void fsync_folder(const char* path)
{
    str_holder folder(str_dup(path));
    if (!str_cut_at_last(folder.get(), '/'))
        folder.reset(str_dup("."));
    else if (!*folder.get())
        folder.reset(str_dup("/"));
    int fd = open(folder.get(), O_RDONLY | O_DIRECTORY);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

// The file a symbolic link at path leads to, or a copy of path. Ownership: new result.
char* replace_target(const char* path)
{
    struct stat info;
    if (lstat(path, &info) != 0 || !S_ISLNK(info.st_mode))
        return str_dup(path);
    char* resolved = realpath(path, nullptr);
    if (!resolved)
        return str_dup(path);
    char* copy = str_dup(resolved);
    free(resolved);
    return copy;
}

// The permission bits a new file gets: 0666 less the process's mask.
mode_t new_file_mode()
{
    mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// Writes the temporary file's data and gives it the old file's mode and owner; false with
// errno set when a step fails.
bool fill_temporary(int fd, const char* data, size_t size, const struct stat* old)
{
    if (!write_all(fd, data, size))
        return false;
    if (fchmod(fd, old ? old->st_mode & 07777 : new_file_mode()) != 0)
        return false;
    if (old) {
        [[maybe_unused]] int ignored = fchown(fd, old->st_uid, old->st_gid); // only root may
    }
    return !fsync_wanted() || fsync(fd) == 0;
}

// Closes fd after the steps before it gave ok; the error text of the first failure (saved is
// errno after those steps), or null. A file system may report a failed write only at close.
char* close_checked(int fd, bool ok, int saved)
{
    if (close(fd) != 0 && ok) {
        ok = false;
        saved = errno;
    }
    if (ok)
        return nullptr;
    errno = saved ? saved : EIO;
    return system_error_text();
}

// The old way, for a folder that cannot hold the temporary file: write over the file, then cut
// it to its new length.
char* write_in_place(const char* path, const char* data, size_t size)
{
    int fd = open(path, O_WRONLY);
    if (fd < 0)
        return system_error_text();
    bool ok = write_all(fd, data, size) && ftruncate(fd, (off_t)size) == 0 &&
              (!fsync_wanted() || fsync(fd) == 0);
    return close_checked(fd, ok, errno);
}

} // namespace

char* file_replace(const char* path, const char* data, size_t size)
{
    if (!path)
        return str_dup("no filename specified");
    str_holder target(replace_target(path));
    struct stat old_info;
    bool existed = stat(target.get(), &old_info) == 0;
    // Replacing a file takes only the folder's permission; the file's own must allow it too.
    if (existed && access(target.get(), W_OK) != 0)
        return system_error_text();
    str_holder temporary(str_join(target.get(), TEMP_SUFFIX, nullptr));
    int fd = mkstemp(temporary.get());
    if (fd < 0) {
        bool folder_refused = errno == EACCES || errno == EROFS || errno == EPERM;
        if (folder_refused && existed && S_ISREG(old_info.st_mode))
            return write_in_place(target.get(), data, size);
        return system_error_text();
    }
    bool ok = fill_temporary(fd, data, size, existed ? &old_info : nullptr);
    char* error = close_checked(fd, ok, errno);
    if (!error && rename(temporary.get(), target.get()) != 0)
        error = system_error_text();
    if (error) {
        unlink(temporary.get());
        return error;
    }
    if (fsync_wanted())
        fsync_folder(target.get());
    return nullptr;
}
