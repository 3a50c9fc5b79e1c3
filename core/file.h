// Whole-file reading and writing, the text clean-up every file of the system gets, stream
// locks, the system's error texts and directory walks.
//
// A null path reads as empty text: a helper given one fails the way its comment says. File
// helpers report through their result (null or an error text), never by ending the program.
#ifndef TESSEL_CORE_FILE_H
#define TESSEL_CORE_FILE_H

#include <cstddef>
#include <cstdio>
#include <sys/stat.h>

// ---- whole files ----------------------------------------------------------------------

// The whole file, with carriage returns removed and lines beginning with "#" dropped; with
// drop_blank_lines also empty lines. An exclusive flock is held during the read when lock is
// set, and the file's size is then taken under it. Null when path is null or the file cannot
// be opened. Ownership: new result.
char* read_file(const char* path, bool drop_blank_lines, bool lock);

// Removes carriage returns and "#" comment lines (and, with drop_blank_lines, empty lines)
// in place: the clean-up every text file of the system gets. When origins is given (room for
// one entry per byte of text), origins[i] receives the offset in the original text of the
// byte kept at position i. Ownership: borrows text, borrows origins.
void file_clean_text(char* text, bool drop_blank_lines, size_t* origins = nullptr);

// Replaces the file's contents by text, creating it when missing, through file_replace
// (core/file_replace.h): after a crash or on a full disk the file holds its old text or the new
// one. lock is no longer needed and is ignored. Null on success, otherwise an error text ("no
// filename specified" or the system's message). Ownership: borrows both, new result.
char* write_file(const char* path, const char* text, bool lock);

// unlink; null on success, otherwise an error text. Ownership: new result.
char* file_remove(const char* path);

// The system's message for errno followed by "(#", the number and ")". Ownership: new result.
char* system_error_text();

// Exclusive flock on a stream's descriptor, and its release.
void lock_stream(FILE* stream);
void unlock_stream(FILE* stream);

// Opens the lock file at path, creating it (mode 0666 less the umask), and waits for its
// exclusive flock: the descriptor, whose close releases the lock, or -1 with errno set.
int lock_file_open(const char* path);

// ---- directories ----------------------------------------------------------------------

// Walks the entries of one directory, each with the result of stat on "dir/name" (a zeroed
// record when stat fails). Closed by close() or the destructor.
class dir_walk {
public:
    explicit dir_walk(const char* path);
    ~dir_walk();
    dir_walk(const dir_walk&) = delete;
    dir_walk& operator=(const dir_walk&) = delete;
    bool is_open() const { return dir_ != nullptr; }
    // Moves to the next entry; false at the end.
    bool next();
    const char* name() const { return name_; }
    const struct stat& info() const { return info_; }
    void close();

private:
    void* dir_ = nullptr;
    char path_[1000] = {};
    char name_[1000] = {};
    struct stat info_ = {};
};

#endif
