// Preloaded into the daemon or a floor: makes the pause between passes return at once, measures the
// time between two pauses, and ends the program by SIGINT after a number of passes.
//
// Environment: BENCH_PASSES, how many passes are measured after BENCH_WARMUP others; BENCH_REPORT,
// the file that gets the result. BENCH_COUNT_ONLY: no clock is read, and the pause is a real system
// call of no length, for programs that count.
// Done during a pause, outside of what is measured: a log file on standard error is emptied;
// BENCH_FLIP, a file, gets its byte at offset BENCH_FLIP_OFFSET changed; BENCH_DROP, a directory,
// gets a new file, a copy of BENCH_DROP_FROM, in every second pause.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

// In heap.c, if that is preloaded too.
extern unsigned long heap_requests(void) __attribute__((weak));

enum { kPassPause = 100000, kMaxPasses = 10000 };  // Microseconds; passes.

struct Sample {
  int64_t wall;  // Nanoseconds.
  int64_t cpu;   // Nanoseconds.
};

// Programs that the program starts run without this library. Counting tools are different: they
// start the program itself.
__attribute__((constructor)) static void ForgetPreload(void) {
  if (getenv("BENCH_COUNT_ONLY") == NULL) {
    unsetenv("LD_PRELOAD");
  }
}

static struct Sample start;
static struct Sample samples[kMaxPasses];
static long pauses;
static unsigned long heap_at_start;

// Memory of this library must not count as growth of the program.
__attribute__((constructor)) static void TouchSamples(void) { memset(samples, 1, sizeof(samples)); }

static long Number(const char* name) {
  const char* text = getenv(name);
  return text == NULL ? 0 : atol(text);
}

static int64_t Nanoseconds(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static struct Sample Now(void) {
  const struct Sample now = {Nanoseconds(CLOCK_MONOTONIC), Nanoseconds(CLOCK_PROCESS_CPUTIME_ID)};
  return now;
}

static int Compare(const void* a, const void* b) {
  const int64_t left = *(const int64_t*)a;
  const int64_t right = *(const int64_t*)b;
  return (left > right) - (left < right);
}

// A median over the passes; step 2 takes every second one, from the first on.
static int64_t Median(long count, size_t offset, long step) {
  static int64_t values[kMaxPasses];
  size_t n = 0;
  for (long i = 0; i < count; i += step) {
    memcpy(&values[n++], (const char*)&samples[i] + offset, sizeof(int64_t));
  }
  qsort(values, n, sizeof(values[0]), Compare);
  return n == 0 ? 0 : values[n / 2];
}

static long ResidentBytes(void) {
  long pages = 0;
  FILE* file = fopen("/proc/self/statm", "re");
  if (file != NULL) {
    if (fscanf(file, "%*d %ld", &pages) != 1) {
      pages = 0;
    }
    fclose(file);
  }
  return pages * sysconf(_SC_PAGESIZE);
}

static int OpenDescriptors(void) {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (dir != NULL && readdir(dir) != NULL) {
    ++count;
  }
  if (dir != NULL) {
    closedir(dir);
  }
  return count - 3;  // ".", ".." and the listing's own.
}

// Children that are running or not waited for. REQUIRES: the kernel lists them
// (CONFIG_PROC_CHILDREN).
static int Children(void) {
  int count = 0;
  FILE* file = fopen("/proc/thread-self/children", "re");
  int pid = 0;
  while (file != NULL && fscanf(file, "%d", &pid) == 1) {
    ++count;
  }
  if (file != NULL) {
    fclose(file);
  }
  return file == NULL ? -1 : count;
}

static void Report(long passes) {
  const char* path = getenv("BENCH_REPORT");
  FILE* file = path == NULL ? NULL : fopen(path, "we");
  if (file == NULL) {
    return;
  }
  const long step = getenv("BENCH_DROP") == NULL ? 1 : 2;
  const unsigned long heap = heap_requests == NULL ? 0 : heap_requests() - heap_at_start;
  const long resident = ResidentBytes();
  const struct mallinfo2 info = mallinfo2();
  fprintf(file, "{\"wall\": %lld, \"cpu\": %lld, \"heap_requests\": %.2f, ",
          (long long)Median(passes, offsetof(struct Sample, wall), step),
          (long long)Median(passes, offsetof(struct Sample, cpu), step),
          (double)heap / (double)passes);
  fprintf(file, "\"rss\": %ld, \"heap_bytes\": %zu, \"descriptors\": %d, \"children\": %d}\n",
          resident, info.uordblks + info.hblkhd, OpenDescriptors(), Children());
  fclose(file);
}

static void EmptyLog(void) {
  struct stat status;
  if (fstat(STDERR_FILENO, &status) == 0 && S_ISREG(status.st_mode) &&
      ftruncate(STDERR_FILENO, 0) != 0) {
    abort();
  }
}

static void FlipByte(const char* path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  const off_t offset = Number("BENCH_FLIP_OFFSET");
  char byte = 0;
  if (fd < 0 || pread(fd, &byte, 1, offset) != 1) {
    abort();
  }
  byte = byte == 'a' ? 'b' : 'a';
  if (pwrite(fd, &byte, 1, offset) != 1) {
    abort();
  }
  close(fd);
}

// The name appears with the whole content, as every sender must do it. The content differs each
// time: the daemon would not speak the same text under the same name.
static void DropFile(const char* directory) {
  static unsigned int number;
  char hidden[4096];
  char name[4096];
  char text[4096];
  snprintf(hidden, sizeof(hidden), "%s/.part", directory);
  snprintf(name, sizeof(name), "%s/message-%06u.txt", directory, number);
  const int from = open(getenv("BENCH_DROP_FROM"), O_RDONLY | O_CLOEXEC);
  const int to = open(hidden, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  const ssize_t length = from < 0 ? -1 : read(from, text, sizeof(text));
  if (to < 0 || length < 0 || write(to, text, (size_t)length) != length ||
      dprintf(to, " %u", number++) < 0) {
    abort();
  }
  close(from);
  close(to);
  if (rename(hidden, name) != 0) {
    abort();
  }
}

int usleep(useconds_t useconds) {
  if (useconds != kPassPause) {
    return 0;
  }
  const int count_only = getenv("BENCH_COUNT_ONLY") != NULL;
  if (count_only) {
    const struct timespec none = {0, 0};
    nanosleep(&none, NULL);
  } else {
    const struct Sample now = Now();
    const long index = pauses - Number("BENCH_WARMUP") - 1;
    if (index >= 0 && index < kMaxPasses) {
      samples[index].wall = now.wall - start.wall;
      samples[index].cpu = now.cpu - start.cpu;
    }
  }
  const long passes = pauses - Number("BENCH_WARMUP");
  if (passes == 0 && heap_requests != NULL) {
    heap_at_start = heap_requests();
  }
  if (passes == Number("BENCH_PASSES")) {
    if (!count_only || heap_requests != NULL) {
      Report(passes);
    }
    kill(getpid(), SIGINT);
  }
  if (!count_only) {
    EmptyLog();
  }
  if (getenv("BENCH_FLIP") != NULL) {
    FlipByte(getenv("BENCH_FLIP"));
  }
  // So that the first pass measured, and every second one, finds a message.
  if (getenv("BENCH_DROP") != NULL && (pauses - Number("BENCH_WARMUP")) % 2 == 0) {
    DropFile(getenv("BENCH_DROP"));
  }
  ++pauses;
  if (!count_only) {
    start = Now();
  }
  return 0;
}
