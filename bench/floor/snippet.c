// The least work of one snippet: the text file, the translator by way of the shell, the count of
// the output directory and the copy into it, both under its lock, and the status file.
//
// snippet TRANSLATOR TEXT AUDIO OUTPUT STATUS
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

enum { kPassPause = 100000 };

extern char** environ;

static volatile sig_atomic_t exit_request;

static void HandleInt(int sig) {
  (void)sig;
  exit_request = 1;
}

static void Fail(const char* what) {
  perror(what);
  exit(2);
}

static void Shell(char* command) {
  char shell[] = "sh";
  char option[] = "-c";
  char* const arguments[] = {shell, option, command, NULL};
  pid_t pid = 0;
  int status = 0;
  if (posix_spawn(&pid, "/bin/sh", NULL, NULL, arguments, environ) != 0 ||
      waitpid(pid, &status, 0) != pid || status != 0) {
    Fail(command);
  }
}

static void WriteFile(const char* path, const char* text) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || write(fd, text, strlen(text)) != (ssize_t)strlen(text)) Fail(path);
  close(fd);
}

static int CountFiles(int lock, const char* path) {
  flock(lock, LOCK_EX);
  DIR* dir = opendir(path);
  if (dir == NULL) Fail(path);
  int count = 0;
  const struct dirent* entry;
  while ((entry = readdir(dir)) != NULL) {
    count += entry->d_type == DT_REG && entry->d_name[0] != '.';
  }
  closedir(dir);
  flock(lock, LOCK_UN);
  return count;
}

int main(int argc, char** argv) {
  if (argc != 6) {
    return 2;
  }
  static char command[16384];
  const char* output = argv[4];
  const int lock = open(output, O_RDONLY | O_CLOEXEC);
  if (lock < 0) Fail(output);
  signal(SIGINT, HandleInt);
  unsigned int number = 0;
  while (!exit_request) {
    CountFiles(lock, output);
    WriteFile(argv[2], "\\pau=300\\ The train to the north leaves from platform nine. ");
    snprintf(command, sizeof(command), "%s %s %s  \"message\" > /dev/null 2>&1", argv[1], argv[2],
             argv[3]);
    Shell(command);
    flock(lock, LOCK_EX);
    snprintf(command, sizeof(command), "cp %s %s/%u_bench.text_live_first.raw", argv[3], output,
             number++);
    Shell(command);
    flock(lock, LOCK_UN);
    usleep(kPassPause);
    WriteFile(argv[5], "<tts-status/>\n");
    CountFiles(lock, output);
    usleep(kPassPause);
  }
  return 0;
}
