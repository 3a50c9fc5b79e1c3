/* Times whole processes the way a web server runs a CGI program: start it, read everything it
 * writes to a pipe, wait for it to exit. The cases run interleaved, one after the other in
 * every round, so that slow phases of the machine hit all of them alike; each case reports
 * the median of its rounds.
 *
 * Usage: runner ROUNDS CASE...    CASE is LABEL=PROGRAM or LABEL=PROGRAM@PAGE; with a page,
 * the program gets it as PATH_TRANSLATED and REQUEST_URI=/<file name>, as a server sets them.
 * Prints one line per case: label, median milliseconds, bytes read, median CPU milliseconds
 * (user and system time of the process, which waiting for a busy machine does not inflate)
 * and the median of the process's peak resident memory in KB.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

struct bench_case {
    char *label, *program, *page;
    char** env;
    double *ms, *cpu_ms, *peak_kb;
    long bytes;
};

static double now_ms(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

/* The environment of a case: the runner's own, with PATH_TRANSLATED and REQUEST_URI for its
 * page. Built before the runs, so that the child allocates nothing between fork and exec:
 * the kernel counts the memory the child held before exec in its peak. */
static char** case_environment(const char* page)
{
    extern char** environ;
    int n = 0;
    while (environ[n])
        n++;
    char** env = calloc(n + 3, sizeof *env);
    int out = 0;
    for (int i = 0; i < n; i++)
        if (!page || (strncmp(environ[i], "PATH_TRANSLATED=", 16) != 0 &&
                      strncmp(environ[i], "REQUEST_URI=", 12) != 0))
            env[out++] = environ[i];
    if (page) {
        const char* name = strrchr(page, '/');
        env[out] = malloc(strlen(page) + 17);
        sprintf(env[out++], "PATH_TRANSLATED=%s", page);
        env[out] = malloc(strlen(page) + 14);
        sprintf(env[out++], "REQUEST_URI=/%s", name ? name + 1 : page);
    }
    return env;
}

static void run_child(const struct bench_case* c, int out)
{
    dup2(out, 1);
    char* argv[] = {c->program, 0};
    execve(c->program, argv, c->env);
    _exit(127);
}

/* One run: returns the elapsed milliseconds and stores the byte count, the CPU time in
 * *cpu_ms and the peak resident memory in *peak_kb. */
static double run_once(struct bench_case* c, double* cpu_ms, double* peak_kb)
{
    static char buffer[1 << 16];
    int fds[2];
    long bytes = 0;
    ssize_t n;
    int status;
    struct rusage usage;
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
    wait4(pid, &status, 0, &usage);
    double elapsed = now_ms() - start;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "runner: %s exited abnormally (status %d)\n", c->label, status);
        exit(2);
    }
    c->bytes = bytes;
    *cpu_ms = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
              (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
    *peak_kb = usage.ru_maxrss;
    return elapsed;
}

static int by_value(const void* a, const void* b)
{
    double x = *(const double*)a, y = *(const double*)b;
    return (x > y) - (x < y);
}

/* Sorts the values and returns the middle one. */
static double median(double* values, int count)
{
    qsort(values, count, sizeof(double), by_value);
    return values[count / 2];
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
        cases[i].env = case_environment(cases[i].page);
        cases[i].ms = calloc(rounds, sizeof(double));
        cases[i].cpu_ms = calloc(rounds, sizeof(double));
        cases[i].peak_kb = calloc(rounds, sizeof(double));
    }
    double cpu, kb;
    for (int i = 0; i < count; i++) /* warm the page cache and the loader */
        run_once(&cases[i], &cpu, &kb);
    /* Each round starts one case further on, so that every case follows every other equally
     * often: a case that always ran right after the one that writes 4 MB would always find
     * the caches cold. */
    for (int r = 0; r < rounds; r++)
        for (int k = 0; k < count; k++) {
            int i = (r + k) % count;
            cases[i].ms[r] = run_once(&cases[i], &cases[i].cpu_ms[r], &cases[i].peak_kb[r]);
        }
    for (int i = 0; i < count; i++) {
        struct bench_case* c = &cases[i];
        printf("%s %.3f %ld %.3f %.0f\n", c->label, median(c->ms, rounds), c->bytes,
               median(c->cpu_ms, rounds), median(c->peak_kb, rounds));
    }
    return 0;
}
