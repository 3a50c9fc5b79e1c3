/* A FastCGI client for the benchmarks: sends requests over a unix socket one after the other,
 * one connection each, as fast as the server answers them, and checks that every response of
 * a request is the very bytes its first response was.
 *
 * Usage: client SOCKET COUNT EVERY PARENT REQUEST...
 *   COUNT    requests in all, taking the REQUEST files in turn
 *   EVERY    after every EVERY requests (0: never), prints "REQUESTS WORKER_PID RSS_KB" for
 *            the worker: the child of the process PARENT (the resident program's parent)
 *   REQUEST  a file of params, one NAME=VALUE a line, then an empty line, then the body; a
 *            line "#body-only" among the params compares only the body of its responses
 *            (for a header that holds the time, as a cookie's expiry does)
 * The first response to each REQUEST file is written beside it, to REQUEST.response: the
 * response's stdout, then a line "status N" with its appStatus. Exits 1 when a response differed or
 * a request failed, after printing the first few. */
#define _GNU_SOURCE /* memmem */
#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { BEGIN_REQUEST = 1, END_REQUEST = 3, PARAMS = 4, STDIN = 5, STDOUT = 6, STDERR = 7 };
enum { RECORD_MAX = 65535, REPORTS_MAX = 5 };

struct buffer {
    char* data;
    size_t used, size;
};

struct request {
    const char* name;
    struct buffer params; /* encoded name-value pairs */
    struct buffer body;
    struct buffer first; /* the first response, stdout then the status */
    int answered;
    int body_only;
};

static void put(struct buffer* b, const void* data, size_t n)
{
    if (b->used + n > b->size) {
        b->size = (b->used + n) * 2 + 64;
        b->data = realloc(b->data, b->size);
        if (!b->data) {
            perror("client");
            exit(2);
        }
    }
    memcpy(b->data + b->used, data, n);
    b->used += n;
}

static void put_length(struct buffer* b, size_t n)
{
    unsigned char bytes[4] = {(unsigned char)(0x80 | n >> 24), (unsigned char)(n >> 16),
                              (unsigned char)(n >> 8), (unsigned char)n};
    if (n < 128)
        put(b, bytes + 3, 1);
    else
        put(b, bytes, 4);
}

static void put_record(struct buffer* b, int type, const char* data, size_t n)
{
    unsigned char header[8] = {
        1, (unsigned char)type, 0, 1, (unsigned char)(n >> 8), (unsigned char)n, 0, 0};
    put(b, header, sizeof header);
    put(b, data, n);
}

static void read_request(struct request* r, const char* path)
{
    FILE* f = fopen(path, "rb");
    char line[65536];
    if (!f) {
        perror(path);
        exit(2);
    }
    r->name = path;
    while (fgets(line, sizeof line, f) && strcmp(line, "\n") != 0) {
        char* eq = strchr(line, '=');
        if (strcmp(line, "#body-only\n") == 0)
            r->body_only = 1;
        size_t end = strcspn(line, "\n");
        if (!eq)
            continue;
        line[end] = '\0';
        put_length(&r->params, (size_t)(eq - line));
        put_length(&r->params, strlen(eq + 1));
        put(&r->params, line, (size_t)(eq - line));
        put(&r->params, eq + 1, strlen(eq + 1));
    }
    size_t n;
    while ((n = fread(line, 1, sizeof line, f)) > 0)
        put(&r->body, line, n);
    fclose(f);
}

static int connect_to(const char* path)
{
    struct sockaddr_un where = {.sun_family = AF_UNIX};
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    strncpy(where.sun_path, path, sizeof where.sun_path - 1);
    if (fd < 0 || connect(fd, (struct sockaddr*)&where, sizeof where) != 0) {
        perror(path);
        exit(2);
    }
    return fd;
}

static int write_all(int fd, const char* data, size_t n)
{
    while (n > 0) {
        ssize_t sent = write(fd, data, n);
        if (sent <= 0)
            return -1;
        data += sent;
        n -= (size_t)sent;
    }
    return 0;
}

static int read_all(int fd, char* data, size_t n)
{
    while (n > 0) {
        ssize_t got = read(fd, data, n);
        if (got <= 0)
            return -1;
        data += got;
        n -= (size_t)got;
    }
    return 0;
}

/* Runs one request; the response's stdout followed by its 4-byte status lands in out. */
static int run(const char* socket_path, struct request* r, struct buffer* out)
{
    static struct buffer message;
    static const char begin[8] = {0, 1, 0, 0, 0, 0, 0, 0}; /* responder, close after */
    message.used = 0;
    put_record(&message, BEGIN_REQUEST, begin, sizeof begin);
    for (size_t at = 0; at < r->params.used; at += RECORD_MAX) {
        size_t n = r->params.used - at < RECORD_MAX ? r->params.used - at : RECORD_MAX;
        put_record(&message, PARAMS, r->params.data + at, n);
    }
    put_record(&message, PARAMS, NULL, 0);
    for (size_t at = 0; at < r->body.used; at += RECORD_MAX) {
        size_t n = r->body.used - at < RECORD_MAX ? r->body.used - at : RECORD_MAX;
        put_record(&message, STDIN, r->body.data + at, n);
    }
    put_record(&message, STDIN, NULL, 0);

    int fd = connect_to(socket_path);
    out->used = 0;
    int result = write_all(fd, message.data, message.used);
    while (result == 0) {
        unsigned char header[8];
        char content[RECORD_MAX + 255];
        if (read_all(fd, (char*)header, sizeof header) != 0) {
            result = -1;
            break;
        }
        size_t length = (size_t)header[4] << 8 | header[5];
        if (read_all(fd, content, length + header[6]) != 0) {
            result = -1;
            break;
        }
        if (header[1] == STDOUT)
            put(out, content, length);
        else if (header[1] == STDERR)
            fwrite(content, 1, length, stderr);
        else if (header[1] == END_REQUEST) {
            put(out, content, 4);
            break;
        }
    }
    close(fd);
    return result;
}

static void save_first(const struct request* r)
{
    char path[4096];
    snprintf(path, sizeof path, "%s.response", r->name);
    FILE* f = fopen(path, "wb");
    if (!f)
        return;
    const unsigned char* status = (const unsigned char*)r->first.data + r->first.used - 4;
    fwrite(r->first.data, 1, r->first.used - 4, f);
    fprintf(f, "status %d\n", status[0] << 24 | status[1] << 16 | status[2] << 8 | status[3]);
    fclose(f);
}

/* The part of a response that must repeat: all of it, or what follows the header. */
static const char* compared(const struct request* r, const struct buffer* b, size_t* size)
{
    const char* start = b->data;
    const char* blank = r->body_only ? memmem(b->data, b->used, "\n\n", 2) : NULL;
    if (blank)
        start = blank + 2;
    *size = b->used - (size_t)(start - b->data);
    return start;
}

static int same(const struct request* r, const struct buffer* response)
{
    size_t a_size, b_size;
    const char* a = compared(r, &r->first, &a_size);
    const char* b = compared(r, response, &b_size);
    return a_size == b_size && memcmp(a, b, a_size) == 0;
}

/* The child of parent, or 0. */
static int worker_of(int parent)
{
    DIR* proc = opendir("/proc");
    struct dirent* entry;
    int found = 0;
    while (proc && !found && (entry = readdir(proc))) {
        char path[300], text[512];
        int pid = atoi(entry->d_name), ppid = 0;
        snprintf(path, sizeof path, "/proc/%s/stat", entry->d_name);
        FILE* f = pid > 0 ? fopen(path, "r") : NULL;
        if (!f)
            continue;
        size_t n = fread(text, 1, sizeof text - 1, f);
        fclose(f);
        text[n] = '\0';
        char* close_paren = strrchr(text, ')'); /* the name may hold spaces */
        if (close_paren && sscanf(close_paren + 2, "%*c %d", &ppid) == 1 && ppid == parent)
            found = pid;
    }
    if (proc)
        closedir(proc);
    return found;
}

static long rss_kb(int pid)
{
    char path[64], line[256];
    long kb = -1;
    snprintf(path, sizeof path, "/proc/%d/status", pid);
    FILE* f = fopen(path, "r");
    while (f && fgets(line, sizeof line, f))
        if (sscanf(line, "VmRSS: %ld", &kb) == 1)
            break;
    if (f)
        fclose(f);
    return kb;
}

int main(int argc, char** argv)
{
    if (argc < 6) {
        fprintf(stderr, "usage: client SOCKET COUNT EVERY PARENT REQUEST...\n");
        return 2;
    }
    long count = atol(argv[2]), every = atol(argv[3]);
    int parent = atoi(argv[4]), kinds = argc - 5, reported = 0, failures = 0;
    struct request* requests = calloc((size_t)kinds, sizeof *requests);
    struct buffer response = {0};
    for (int k = 0; k < kinds; k++)
        read_request(&requests[k], argv[5 + k]);
    for (long i = 0; i < count; i++) {
        struct request* r = &requests[i % kinds];
        if (run(argv[1], r, &response) != 0) {
            failures++;
            if (reported++ < REPORTS_MAX)
                fprintf(stderr, "request %ld (%s): the connection ended early\n", i, r->name);
        } else if (!r->answered) {
            put(&r->first, response.data, response.used);
            r->answered = 1;
            save_first(r);
        } else if (!same(r, &response)) {
            failures++;
            if (reported++ < REPORTS_MAX)
                fprintf(stderr, "request %ld (%s): %zu bytes where the first had %zu\n", i, r->name,
                        response.used, r->first.used);
        }
        if (every > 0 && (i + 1) % every == 0) {
            int worker = worker_of(parent);
            printf("%ld %d %ld\n", i + 1, worker, worker ? rss_kb(worker) : -1L);
            fflush(stdout);
        }
    }
    if (failures)
        fprintf(stderr, "%d of %ld responses differed from their request's first\n", failures,
                count);
    return failures ? 1 : 0;
}
