/* Program execution without a shell: VLIBCExec, VLIBCPopen, VLIBCPclose. */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vantcore/vlibc.h"

#define VLIBC_MAX_ARGS 64

/* Forks and execs `argv[0]` with `argv`. When `child_fd` >= 0 it becomes the
 * child's descriptor `target_fd`. Returns the child's pid, or -1 when the
 * fork failed or the exec failed (the failed child is reaped here). Only
 * async-signal-safe calls run in the child. */
static pid_t spawn(char* const argv[], int child_fd, int target_fd) {
  int status_pipe[2];
  if (pipe2(status_pipe, O_CLOEXEC) != 0) return -1;
  pid_t pid = fork();
  if (pid < 0) {
    int saved = errno;
    close(status_pipe[0]);
    close(status_pipe[1]);
    errno = saved;
    return -1;
  }
  if (pid == 0) {
    close(status_pipe[0]);
    /* Already in place (the caller had `target_fd` closed): only the
     * close-on-exec flag has to go, as dup2 would have cleared it. */
    int placed = 0;
    if (child_fd >= 0) {
      placed = child_fd == target_fd ? fcntl(target_fd, F_SETFD, 0) : dup2(child_fd, target_fd);
    }
    if (placed < 0) {
      int err = errno;
      (void)!write(status_pipe[1], &err, sizeof err);
      _exit(127);
    }
    execv(argv[0], argv);
    int err = errno;
    (void)!write(status_pipe[1], &err, sizeof err);
    _exit(127);
  }
  close(status_pipe[1]);
  int child_errno = 0;
  ssize_t n;
  do {
    n = read(status_pipe[0], &child_errno, sizeof child_errno);
  } while (n < 0 && errno == EINTR);
  close(status_pipe[0]);
  if (n > 0) { /* exec failed: the pipe carried its errno */
    while (waitpid(pid, NULL, 0) < 0 && errno == EINTR) {
    }
    errno = child_errno;
    return -1;
  }
  return pid;
}

static int wait_child(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

int VLIBCExec(const char* prog, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4) {
  if (prog == NULL || *prog == '\0') return -1;
  const char* given[4] = {arg1, arg2, arg3, arg4};
  char* argv[6] = {(char*)prog, NULL, NULL, NULL, NULL, NULL};
  for (int i = 0; i < 4 && given[i] != NULL; ++i) argv[i + 1] = (char*)given[i];
  pid_t pid = spawn(argv, -1, -1);
  if (pid < 0) return -1;
  int status = wait_child(pid);
  if (status < 0) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

/* Streams opened by VLIBCPopen and their children. */
struct popen_entry {
  FILE* stream;
  pid_t pid;
  struct popen_entry* next;
};
static struct popen_entry* popen_list = NULL;
static pthread_mutex_t popen_mutex = PTHREAD_MUTEX_INITIALIZER;

FILE* VLIBCPopen(const char* prog, const char* mode, ...) {
  if (prog == NULL || *prog == '\0' || mode == NULL || strcmp(mode, "r") != 0) return NULL;

  char* argv[VLIBC_MAX_ARGS + 2];
  int argc = 0;
  argv[argc++] = (char*)prog;
  va_list ap;
  va_start(ap, mode);
  const char* arg;
  while ((arg = va_arg(ap, const char*)) != NULL) {
    if (argc > VLIBC_MAX_ARGS) {
      va_end(ap);
      errno = E2BIG;
      return NULL;
    }
    argv[argc++] = (char*)arg;
  }
  va_end(ap);
  argv[argc] = NULL;

  struct popen_entry* entry = malloc(sizeof *entry);
  if (entry == NULL) return NULL;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    free(entry);
    return NULL;
  }
  pid_t pid = spawn(argv, fds[1], STDOUT_FILENO);
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    free(entry);
    return NULL;
  }
  FILE* stream = fdopen(fds[0], "r");
  if (stream == NULL) {
    close(fds[0]);
    wait_child(pid);
    free(entry);
    return NULL;
  }
  entry->stream = stream;
  entry->pid = pid;
  pthread_mutex_lock(&popen_mutex);
  entry->next = popen_list;
  popen_list = entry;
  pthread_mutex_unlock(&popen_mutex);
  return stream;
}

int VLIBCPclose(FILE* stream) {
  if (stream == NULL) return -1;
  pthread_mutex_lock(&popen_mutex);
  struct popen_entry** link = &popen_list;
  while (*link != NULL && (*link)->stream != stream) link = &(*link)->next;
  struct popen_entry* entry = *link;
  if (entry != NULL) *link = entry->next;
  pthread_mutex_unlock(&popen_mutex);
  if (entry == NULL) return -1;
  fclose(stream);
  int status = wait_child(entry->pid);
  free(entry);
  return status;
}
