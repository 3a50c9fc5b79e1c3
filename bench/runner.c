/* Times whole processes the way a web server runs a CGI program: start it, read everything it
 * writes to a pipe, wait for it to exit. The cases run interleaved, one after the other in
 * every round, so that slow phases of the machine hit all of them alike; each case reports
 * the median of its rounds.
 *
 * Usage: runner ROUNDS CASE...    CASE is LABEL=PROGRAM or LABEL=PROGRAM@PAGE; with a page,
 * the program gets it as PATH_TRANSLATED and REQUEST_URI=/<file name>, as a server sets them.
 * Prints one line per case: label, median milliseconds, bytes read.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

struct bench_case {
    char *label, *program, *page;
    double* ms;
    long bytes;
};

static double now_ms(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

static void run_child(const struct bench_case* c, int out)
{
    dup2(out, 1);
    if (c->page) {
        const char* name = strrchr(c->page, '/');
        char uri[4096];
        snprintf(uri, sizeof uri, "/%s", name ? name + 1 : c->page);
        setenv("PATH_TRANSLATED", c->page, 1);
        setenv("REQUEST_URI", uri, 1);
    }
    execl(c->program, c->program, (char*)0);
    _exit(127);
}

/* One run: returns the elapsed milliseconds and stores the byte count. */
static double run_once(struct bench_case* c)
{
    static char buffer[1 << 16];
    int fds[2];
    long bytes = 0;
    ssize_t n;
    int status;
    double start = now_ms();
    if (pipe(fds) != 0) {
        perror("pipe");
        exit(2);
    }
    pid_t pid = fork();
    if (pid == 0)
        run_child(c, fds[1]);
    close(fds[1]);
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0)
        bytes += n;
    close(fds[0]);
    waitpid(pid, &status, 0);
    double elapsed = now_ms() - start;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "runner: %s exited abnormally (status %d)\n", c->label, status);
        exit(2);
    }
    c->bytes = bytes;
    return elapsed;
}

static int by_value(const void* a, const void* b)
{
    double x = *(const double*)a, y = *(const double*)b;
    return (x > y) - (x < y);
}

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: runner ROUNDS LABEL=PROGRAM[@PAGE]...\n");
        return 2;
    }
    int rounds = atoi(argv[1]), count = argc - 2;
    struct bench_case* cases = calloc(count, sizeof *cases);
    for (int i = 0; i < count; i++) {
        char *spec = argv[i + 2], *eq = strchr(spec, '='), *at;
        if (!eq) {
            fprintf(stderr, "runner: bad case %s\n", spec);
            return 2;
        }
        *eq = 0;
        cases[i].label = spec;
        cases[i].program = eq + 1;
        at = strchr(eq + 1, '@');
        if (at) {
            *at = 0;
            cases[i].page = at + 1;
        }
        cases[i].ms = calloc(rounds, sizeof(double));
    }
    for (int i = 0; i < count; i++) /* warm the page cache and the loader */
        run_once(&cases[i]);
    for (int r = 0; r < rounds; r++)
        for (int i = 0; i < count; i++)
            cases[i].ms[r] = run_once(&cases[i]);
    for (int i = 0; i < count; i++) {
        qsort(cases[i].ms, rounds, sizeof(double), by_value);
        printf("%s %.3f %ld\n", cases[i].label, cases[i].ms[rounds / 2], cases[i].bytes);
    }
    return 0;
}
