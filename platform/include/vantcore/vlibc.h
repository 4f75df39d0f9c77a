/* The platform core functions the library relies on: process execution,
 * pipes, file tests, pid files, liveness and fork. Plain C, no logging:
 * callers report failures themselves. */
#pragma once

#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Runs `prog` with up to four arguments and waits for it. The argument list
 * ends at the first null. The program is executed directly (execv), never
 * through a shell, so arguments reach it byte for byte.
 * Returns 0 when the program exited with status 0; its non-zero exit status
 * otherwise; 128 + signal number when it was killed; -1 when it could not be
 * started at all. */
int VLIBCExec(const char* prog, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4);

/* 1 when `path` exists and is a directory (symbolic links followed), else 0. */
int VLIBCFileCheckDir(const char* path);

/* 1 when `path` exists (any type, links followed: a dangling link is 0), else 0. */
int VLIBCFileExist(const char* path);

/* Starts `prog` with the null-terminated argument list that follows `mode`
 * and returns a stream on its standard output. `mode` must be "r". No shell
 * is involved. Returns NULL when the pipe, the fork or the exec failed; an
 * exec failure is detected before returning. Close with VLIBCPclose only. */
FILE* VLIBCPopen(const char* prog, const char* mode, ...);

/* Closes a stream from VLIBCPopen and reaps its child. Returns the child's
 * wait status, or -1 for a stream that VLIBCPopen did not return. */
int VLIBCPclose(FILE* stream);

/* Strips leading and trailing white space (isspace in the C locale, line
 * ends included) in place. The two int arguments are reserved and must be
 * 0. Returns `str` (NULL for NULL). */
char* VLIBCStrTrim(char* str, int reserved1, int reserved2);

/* The process id stored in a pid file as decimal text; 0 when the file is
 * missing, empty or unreadable, -1 when its content is not a positive
 * number that fits a pid. A link, a FIFO or anything but a regular file at
 * `path` reads as missing, and so does, in a directory other users can
 * write, a file owned by neither root nor the effective user. */
int VLIBCReadPidFile(const char* path);

/* 1 when process `pid` exists and is not a zombie; 0 otherwise, and for any
 * pid of 0 or less. */
int VLIBCProcAlive(pid_t pid);

/* Writes the calling process's id (decimal, one line) into `path`,
 * replacing the file whole; a link at `path` is replaced, never followed.
 * The file is synced before success.
 * Returns 0 on success, -1 on failure (errno set). */
int VLIBCProcPidFileCreate(const char* path);

/* Flag bits of VLIBCProcForkEx. */
/* Fork twice and reap the intermediate child at once, so the worker is
 * adopted by init and never becomes a zombie of the caller. The caller
 * still receives the worker's pid. */
#define VLIBC_FORK_DETACH 0x01
/* The worker starts a new session (setsid): job-control signals aimed at
 * the caller's process group or terminal do not reach it. */
#define VLIBC_FORK_NEW_SESSION 0x40

/* fork() with options. In the caller: the worker's pid (> 0), or -1 on
 * failure with errno set. In the worker: 0. Unknown bits are ignored.
 * The cache passes VLIBC_FORK_DETACH | VLIBC_FORK_NEW_SESSION (0x41). */
pid_t VLIBCProcForkEx(int flags);

#ifdef __cplusplus
}
#endif
