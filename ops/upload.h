// Whole files as bytes: what `upload` saves and `download` sends. File errors read as the
// system's message followed directly by "(#N)", or "no filename specified" for a null path.
#ifndef TESSEL_OPS_UPLOAD_H
#define TESSEL_OPS_UPLOAD_H

// The file's bytes in a new buffer with a NUL after them (never null on success), their count
// in size. Null on failure, with the file error text in error. Ownership: borrows path, new
// result, new error.
char* read_file_raw(const char* path, int& size, char*& error);

// Replaces the file by length bytes of data (file_replace of core/file_replace.h): a new file
// gets mode 0666 less the umask, an old one keeps its mode, and a crash or a full disk leaves
// its old content whole. Null on success, else the file error text. Ownership: borrows both,
// new result.
char* write_file_raw(const char* path, const char* data, int length);

#endif
