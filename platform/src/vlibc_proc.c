/* Processes: pid files, liveness, fork. */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fileio/durable_write.h"
#include "fileio/own_files.h"
#include "vantcore/vlibc.h"

int VLIBCReadPidFile(const char* path) {
  if (path == NULL || *path == '\0') return 0;
  /* Never through a link, never blocked by a FIFO, and in a directory other
   * users can write, only a file of root or of the effective user counts:
   * anyone could plant "1" there and stop every refresh. */
  int fd = VantDROpenOwnFile(path, O_RDONLY | O_NOFOLLOW, 0, NULL);
  if (fd < 0) return 0;
  char buf[32];
  ssize_t n;
  do {
    n = read(fd, buf, sizeof buf - 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return 0;
  buf[n] = '\0';
  char* end = NULL;
  errno = 0;
  long pid = strtol(buf, &end, 10);
  if (end == buf || errno != 0 || pid <= 0 || pid > INT_MAX) return -1;
  while (*end == ' ' || *end == '\n' || *end == '\r' || *end == '\t') ++end;
  return *end == '\0' ? (int)pid : -1;
}

int VLIBCProcAlive(pid_t pid) {
  if (pid <= 0) return 0;
  char path[32];
  snprintf(path, sizeof path, "/proc/%d/stat", (int)pid);
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    /* Without /proc fall back to signal 0, which cannot see zombies. */
    if (errno == ENOENT || errno == ESRCH) return 0;
    return (kill(pid, 0) == 0 || errno == EPERM) ? 1 : 0;
  }
  char buf[512];
  ssize_t n = read(fd, buf, sizeof buf - 1);
  close(fd);
  if (n <= 0) return 0;
  buf[n] = '\0';
  /* "pid (comm) S ...": comm may hold ')' itself, so take the last one. */
  char* paren = strrchr(buf, ')');
  if (paren == NULL || paren[1] != ' ') return 0;
  char state = paren[2];
  return (state == 'Z' || state == 'X' || state == 'x') ? 0 : 1;
}

int VLIBCProcPidFileCreate(const char* path) {
  if (path == NULL || *path == '\0') {
    errno = EINVAL;
    return -1;
  }
  /* Replaced whole, so a reader never sees it empty or half written; the
   * name is replaced, never followed, since the creator may be root in a
   * shared directory. */
  char text[24];
  int len = snprintf(text, sizeof text, "%d\n", (int)getpid());
  return VantDRWriteFile(path, text, (size_t)len, 0644, VANTDR_WRITE_REPLACE_NAME) ==
                 VANTDR_WRITE_DONE
             ? 0
             : -1;
}

static pid_t fork_detached(int flags) {
  int pid_pipe[2];
  if (pipe2(pid_pipe, O_CLOEXEC) != 0) return -1;
  pid_t middle = fork();
  if (middle < 0) {
    int saved = errno;
    close(pid_pipe[0]);
    close(pid_pipe[1]);
    errno = saved;
    return -1;
  }
  if (middle == 0) {
    close(pid_pipe[0]);
    if (flags & VLIBC_FORK_NEW_SESSION) setsid();
    pid_t worker = fork();
    if (worker != 0) {
      /* The intermediate child: hand the worker's pid (or -errno) up, exit. */
      pid_t report = worker > 0 ? worker : -errno;
      (void)!write(pid_pipe[1], &report, sizeof report);
      _exit(0);
    }
    close(pid_pipe[1]);
    return 0;
  }
  close(pid_pipe[1]);
  pid_t worker = -EIO;
  ssize_t n;
  do {
    n = read(pid_pipe[0], &worker, sizeof worker);
  } while (n < 0 && errno == EINTR);
  close(pid_pipe[0]);
  while (waitpid(middle, NULL, 0) < 0 && errno == EINTR) {
  }
  if (n != (ssize_t)sizeof worker || worker <= 0) {
    errno = (n == (ssize_t)sizeof worker && worker < 0) ? -worker : EIO;
    return -1;
  }
  return worker;
}

pid_t VLIBCProcForkEx(int flags) {
  if (flags & VLIBC_FORK_DETACH) return fork_detached(flags);
  pid_t pid = fork();
  if (pid == 0 && (flags & VLIBC_FORK_NEW_SESSION)) setsid();
  return pid < 0 ? -1 : pid;
}
