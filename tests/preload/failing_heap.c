// Preloaded into the daemon by tools/faults: lets one request to the heap fail, runs a script in
// the daemon's pauses, and writes a report.
//
// Environment: FAULT_AT, the number of the request that fails, from 1; 0 for none. FAULT_SCRIPT, a
// file of lines (below). FAULT_OUTPUT, the output directory. FAULT_REPORT, the file that gets the
// report. FAULT_TRACE, if set: the report also gets the backtrace of the request that fails.
// FAULT_PLACES, if set: the report gets a line for every request.
//
// Lines of the script; PAUSE is the number of a pause between passes, from 1, in ascending order:
//   PAUSE put FROM TO   the file FROM appears as TO, at once with its whole content
//   PAUSE wait PATH -   the daemon goes on when PATH exists, or after five seconds
//   PAUSE end - -       SIGINT
//
// Lines of the report:
//   failed PAUSES           the request failed when there had been that many pauses
//   temporary PATH          the daemon made this file or directory
//   locked PAUSE            the output directory was locked in a pause
//   missing PATH            a wait timed out
//   request NUMBER PLACE    requests with the same place have the same callers, up to main
//   ended PAUSES REQUESTS   the script is done; the number of pauses and of requests so far
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* block, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);

enum { kPassPause = 100000, kReport = 250, kWaits = 5000, kFrames = 40 };

static long requests;
static long fault_at;
static long pauses;
static int is_ours;  // Nonzero: a request is not the daemon's.
static int has_places;
static pid_t daemon_pid;
static char script[16384];
static char* next_line = script;

static void Sleep(long nanoseconds) {
  const struct timespec pause = {0, nanoseconds};
  nanosleep(&pause, NULL);
}

static void ReportPlace(void) {
  void* frames[kFrames];
  unsigned long hash = 5381;
  is_ours = 1;
  for (int i = backtrace(frames, kFrames) - 1; i >= 0; --i) {
    hash = hash * 33 + (unsigned long)frames[i];
  }
  dprintf(kReport, "request %ld %lx\n", requests, hash);
  is_ours = 0;
}

static int Fails(void) {
  if (is_ours) {
    return 0;
  }
  ++requests;
  if (has_places && getpid() == daemon_pid) {
    ReportPlace();
  }
  if (requests != fault_at || getpid() != daemon_pid) {
    return 0;
  }
  is_ours = 1;
  dprintf(kReport, "failed %ld\n", pauses);
  if (getenv("FAULT_TRACE") != NULL) {
    void* frames[kFrames];
    backtrace_symbols_fd(frames, backtrace(frames, kFrames), kReport);
  }
  is_ours = 0;
  errno = ENOMEM;
  return 1;
}

void* malloc(size_t size) { return Fails() ? NULL : __libc_malloc(size); }

void* calloc(size_t count, size_t size) { return Fails() ? NULL : __libc_calloc(count, size); }

void* realloc(void* block, size_t size) { return Fails() ? NULL : __libc_realloc(block, size); }

void* aligned_alloc(size_t alignment, size_t size) {
  return Fails() ? NULL : __libc_memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
  *block = Fails() ? NULL : __libc_memalign(alignment, size);
  return *block == NULL ? ENOMEM : 0;
}

static void Require(int holds, const char* subject) {
  if (!holds) {
    dprintf(kReport, "broken: %s: %s\n", subject, strerror(errno));
    _exit(125);
  }
}

// In programs that the daemon starts, no request fails.
__attribute__((constructor)) static void Begin(void) {
  is_ours = 1;
  unsetenv("LD_PRELOAD");
  const int report = open(getenv("FAULT_REPORT"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  Require(dup3(report, kReport, O_CLOEXEC) == kReport, "the report");
  close(report);
  const int file = open(getenv("FAULT_SCRIPT"), O_RDONLY | O_CLOEXEC);
  const ssize_t length = read(file, script, sizeof(script));
  Require(length > 0 && length < (ssize_t)sizeof(script), "the script");
  close(file);
  has_places = getenv("FAULT_PLACES") != NULL;
  if (has_places || getenv("FAULT_TRACE") != NULL) {
    void* frame = NULL;
    backtrace(&frame, 1);  // Its first call loads a library.
  }
  daemon_pid = getpid();
  fault_at = atol(getenv("FAULT_AT"));
  requests = 0;
  is_ours = 0;
}

int mkostemp64(char* path_template, int flags);
int mkostemp64(char* path_template, int flags) {
  static int (*make)(char*, int);
  is_ours = 1;
  if (make == NULL) {
    *(void**)&make = dlsym(RTLD_NEXT, "mkostemp64");
  }
  const int fd = make(path_template, flags);
  if (fd >= 0) {
    dprintf(kReport, "temporary %s\n", path_template);
  }
  is_ours = 0;
  return fd;
}

char* mkdtemp(char* path_template) {
  static char* (*make)(char*);
  is_ours = 1;
  if (make == NULL) {
    *(void**)&make = dlsym(RTLD_NEXT, "mkdtemp");
  }
  char* const path = make(path_template);
  if (path != NULL) {
    dprintf(kReport, "temporary %s\n", path);
  }
  is_ours = 0;
  return path;
}

// Replaces the daemon's wait for a helper's end: returns as soon as the helper has ended.
unsigned int sleep(unsigned int seconds) {
  siginfo_t info;
  (void)seconds;
  waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
  return 0;
}

static void LookAtLock(void) {
  const int fd = open(getenv("FAULT_OUTPUT"), O_RDONLY | O_CLOEXEC);
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    dprintf(kReport, "locked %ld\n", pauses);
  }
  close(fd);
}

static void Put(const char* from, const char* to) {
  Require(link(from, ".put") == 0, from);
  Require(rename(".put", to) == 0 || errno == ENOENT, to);
  unlink(".put");
}

static void Wait(const char* path) {
  for (int i = 0; i < kWaits && access(path, F_OK) != 0; ++i) {
    Sleep(1000000);
  }
  if (access(path, F_OK) != 0) {
    dprintf(kReport, "missing %s\n", path);
  }
}

// Runs the script's next line. False if its pause has not come yet.
static int FollowLine(void) {
  long pause = 0;
  int length = 0;
  char verb[16];
  char from[256];
  char to[256];
  if (sscanf(next_line, "%ld %15s %255s %255s %n", &pause, verb, from, to, &length) != 4 ||
      pause > pauses) {
    return 0;
  }
  next_line += length;
  if (strcmp(verb, "put") == 0) {
    Put(from, to);
  } else if (strcmp(verb, "wait") == 0) {
    Wait(from);
  } else {
    dprintf(kReport, "ended %ld %ld\n", pauses, requests);
    kill(getpid(), SIGINT);
  }
  return 1;
}

int usleep(useconds_t useconds) {
  if (useconds == kPassPause) {
    is_ours = 1;
    ++pauses;
    LookAtLock();
    while (FollowLine()) {
    }
    is_ours = 0;
  }
  return 0;
}
