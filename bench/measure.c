/* Runs a command with its output thrown away and prints what it took.
 *
 *     measure COMMAND [ARGUMENT...]
 *
 * Prints wall, user and system seconds and the peak resident KiB. A small program of its own
 * because a process's peak counts what it shared with its parent before it became the command.
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double seconds(struct timeval time)
{
    return (double)time.tv_sec + (double)time.tv_usec / 1e6;
}

static void become(char **command)
{
    const int nowhere = open("/dev/null", O_WRONLY);

    dup2(nowhere, STDOUT_FILENO);
    execvp(command[0], command);
    perror(command[0]);
    _exit(127);
}

int main(int argc, char **argv)
{
    struct timespec begin, end;
    struct rusage usage;
    int status;
    pid_t child;

    if (argc < 2) {
        fprintf(stderr, "usage: measure COMMAND [ARGUMENT...]\n");
        return 2;
    }
    clock_gettime(CLOCK_MONOTONIC, &begin);
    child = fork();
    if (child == 0) {
        become(argv + 1);
    }
    if (child < 0 || wait4(child, &status, 0, &usage) < 0) {
        perror("measure");
        return 1;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    printf("%.6f %.6f %.6f %ld\n",
           (double)(end.tv_sec - begin.tv_sec) + (double)(end.tv_nsec - begin.tv_nsec) / 1e9,
           seconds(usage.ru_utime), seconds(usage.ru_stime), usage.ru_maxrss);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
