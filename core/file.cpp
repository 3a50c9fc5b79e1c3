// Whole-file reading and writing, stream locks, error texts and directory walks.
#include "core/file.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "core/file_replace.h"
#include "core/number.h"
#include "core/str.h"

// ---- whole files ----------------------------------------------------------------------

void file_clean_text(char* text, bool drop_blank_lines, size_t* origins)
{
    if (!text)
        return;
    char* out = text;
    const char* in = text;
    bool line_start = true;
    while (*in) {
        char c = *in;
        if (line_start && c == '#') { // a comment line goes with its line end
            const char* end = strchr(in, '\n');
            in = end ? end + 1 : in + strlen(in);
            continue;
        }
        size_t n = 0;
        if (c == '\n') {
            n = !(drop_blank_lines && line_start);
            line_start = true;
        } else if (c != '\r') {
            n = strcspn(in, "\r\n"); // the rest of the line moves as one block
            line_start = false;
        }
        if (origins)
            for (size_t k = 0; k < n; k++)
                origins[out - text + k] = in - text + k;
        if (n && out != in)
            memmove(out, in, n);
        out += n;
        in += c == '\r' || c == '\n' ? 1 : n;
    }
    *out = '\0';
}

char* read_file(const char* path, bool drop_blank_lines, bool lock)
{
    struct stat info;
    if (!path || stat(path, &info) != 0)
        return nullptr;
    int fd = open(path, O_RDONLY);
    if (fd < 0)
        return nullptr;
    // A writer that held the lock may have changed the file since the stat: with the lock the
    // size is taken again, or a text being written would come back cut short.
    if (lock) {
        flock(fd, LOCK_EX);
        fstat(fd, &info);
    }
    char* text = (char*)checked_malloc(info.st_size + 1);
    ssize_t got = info.st_size > 0 ? read(fd, text, info.st_size) : 0;
    text[got > 0 ? got : 0] = '\0';
    if (lock)
        flock(fd, LOCK_UN);
    ::close(fd);
    file_clean_text(text, drop_blank_lines);
    return text;
}

char* write_file(const char* path, const char* text, bool)
{
    // A replaced file needs no lock: a reader sees its old or its new content whole, and of two
    // writers at once the later rename wins with its whole text.
    return file_replace(path, text, str_len0(text));
}

char* file_remove(const char* path)
{
    if (!path)
        return str_dup("no filename specified");
    return unlink(path) == 0 ? nullptr : system_error_text();
}

char* system_error_text()
{
    int number = errno;
    return str_join(strerror(number), "(#", fmt_int(number).text, ")", nullptr);
}

void lock_stream(FILE* stream)
{
    flock(fileno(stream), LOCK_EX);
}

void unlock_stream(FILE* stream)
{
    flock(fileno(stream), LOCK_UN);
}

int lock_file_open(const char* path)
{
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return -1;
    while (flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            int saved = errno;
            close(fd);
            errno = saved;
            return -1;
        }
    }
    return fd;
}

// ---- directories ----------------------------------------------------------------------

dir_walk::dir_walk(const char* path)
{
    snprintf(path_, sizeof path_, "%s", str_or_empty(path));
    dir_ = opendir(path_);
}

dir_walk::~dir_walk()
{
    close();
}

bool dir_walk::next()
{
    if (!dir_)
        return false;
    struct dirent* entry = readdir((DIR*)dir_);
    if (!entry)
        return false;
    snprintf(name_, sizeof name_, "%s", entry->d_name);
    char full[2048];
    snprintf(full, sizeof full, "%s/%s", path_, name_);
    if (stat(full, &info_) != 0)
        info_ = {};
    return true;
}

void dir_walk::close()
{
    if (dir_)
        closedir((DIR*)dir_);
    dir_ = nullptr;
}
