// Starts a program again and again, with first_pause.c preloaded, and prints the median time from
// just before the fork to the program's first pause, in nanoseconds.
//
// launch RUNS LIBRARY PROGRAM ARGUMENT...
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static int64_t Nanoseconds(const struct timespec* time) {
  return (int64_t)time->tv_sec * 1000000000 + time->tv_nsec;
}

static int Compare(const void* a, const void* b) {
  const int64_t left = *(const int64_t*)a;
  const int64_t right = *(const int64_t*)b;
  return (left > right) - (left < right);
}

int main(int argc, char** argv) {
  static int64_t times[10000];
  char number[16];
  int ends[2];
  const int runs = argc < 4 ? 0 : atoi(argv[1]);
  if (runs <= 0 || runs > (int)(sizeof(times) / sizeof(times[0])) || pipe(ends) != 0) {
    return 2;
  }
  snprintf(number, sizeof(number), "%d", ends[1]);
  setenv("BENCH_PIPE", number, 1);
  for (int i = 0; i < runs; ++i) {
    struct timespec start;
    struct timespec end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const pid_t pid = fork();
    if (pid == 0) {
      setenv("LD_PRELOAD", argv[2], 1);
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, STDOUT_FILENO);
      dup2(null, STDERR_FILENO);
      execv(argv[3], argv + 3);
      _exit(127);
    }
    if (pid < 0 || waitpid(pid, NULL, 0) != pid ||
        read(ends[0], &end, sizeof(end)) != (ssize_t)sizeof(end)) {
      fprintf(stderr, "%s did not get to its first pause\n", argv[3]);
      return 1;
    }
    times[i] = Nanoseconds(&end) - Nanoseconds(&start);
  }
  qsort(times, (size_t)runs, sizeof(times[0]), Compare);
  printf("%lld\n", (long long)times[runs / 2]);
  return 0;
}
