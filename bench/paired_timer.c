// Runs two commands alternately, many times, and prints the median cost of each.
//
//     paired-timer ROUNDS COUNT_A WORD_A... WORD_B...
//
// COUNT_A is the number of words of the first command. Both inherit standard output. The result goes to
// standard error, a line for each command: median wall time in microseconds, page faults, peak resident size in KiB.
// Alternating runs expose both commands to the same load of the machine.
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

extern char **environ;

struct Series {
    char **words;
    double *microseconds;
    long faults;
    long residentKiB;
};

static double Now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

static void RunOnce(struct Series *series, int round)
{
    pid_t child;
    int status;
    struct rusage usage;
    const double start = Now();
    if (posix_spawnp(&child, series->words[0], NULL, NULL, series->words, environ) != 0) {
        perror(series->words[0]);
        exit(1);
    }
    wait4(child, &status, 0, &usage);
    series->microseconds[round] = Now() - start;
    series->faults = usage.ru_minflt;
    series->residentKiB = usage.ru_maxrss;
}

static int CompareDoubles(const void *left, const void *right)
{
    const double difference = *(const double *)left - *(const double *)right;
    return (difference > 0) - (difference < 0);
}

static void Report(struct Series *series, int rounds)
{
    qsort(series->microseconds, (size_t)rounds, sizeof(double), CompareDoubles);
    fprintf(stderr, "%.1f %ld %ld\n", series->microseconds[rounds / 2], series->faults, series->residentKiB);
}

// Copies `count` words and appends a null pointer. The copy is never released.
static char **TakeWords(char **words, int count)
{
    char **copy = calloc((size_t)count + 1, sizeof *copy);
    memcpy(copy, words, (size_t)count * sizeof *copy);
    return copy;
}

int main(int argc, char **argv)
{
    const int rounds = argc > 4 ? atoi(argv[1]) : 0;
    const int countA = argc > 4 ? atoi(argv[2]) : 0;
    if (rounds <= 0 || countA <= 0 || 3 + countA >= argc) {
        fprintf(stderr, "usage: paired-timer ROUNDS COUNT_A WORD_A... WORD_B...\n");
        return 2;
    }
    struct Series a = {TakeWords(argv + 3, countA), calloc((size_t)rounds, sizeof(double)), 0, 0};
    struct Series b = {TakeWords(argv + 3 + countA, argc - 3 - countA), calloc((size_t)rounds, sizeof(double)), 0, 0};
    for (int round = 0; round < rounds; ++round) {
        RunOnce(round % 2 == 0 ? &a : &b, round);
        RunOnce(round % 2 == 0 ? &b : &a, round);
    }
    Report(&a, rounds);
    Report(&b, rounds);
    return 0;
}
