/* Runs a program with standard input from a file and its output thrown away, and prints the
 * peak resident set size of that process in kilobytes. A small C parent keeps the figure
 * clean: the resident size before exec counts too, and here it is tiny.
 *
 * Usage: peak_rss INPUT PROGRAM [ARG...]
 */
#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: peak_rss INPUT PROGRAM [ARG...]\n");
        return 2;
    }
    pid_t pid = fork();
    if (pid == 0) {
        int in = open(argv[1], O_RDONLY), out = open("/dev/null", O_WRONLY);
        if (in < 0 || out < 0)
            _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        execv(argv[2], argv + 2);
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    if (pid < 0 || wait4(pid, &status, 0, &usage) < 0)
        return 1;
    printf("%ld %d\n", usage.ru_maxrss, WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return 0;
}
