/* The library's own files (lock files, cache files, pid files) opened as a
 * kernel with protected_symlinks, protected_regular and protected_fifos set
 * would open them, whatever the sysctls say. Root daemons keep these files
 * in directories that other local users may write (/tmp above all), so a
 * name there may already hold a link, a FIFO or a file another user planted.
 * Plain C, no logging: callers name the refusal in their own line. */
#pragma once

#include <stddef.h>
#include <sys/stat.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VANTDR_HIDDEN __attribute__((visibility("hidden")))

/* Why a name was refused; errno is EACCES for each, as the kernel's own
 * protections answer. */
enum VantDROwnRefusal {
  VANTDR_OWN_ACCEPTED = 0,
  VANTDR_OWN_FOREIGN_LINK, /* a link of another user in a shared directory */
  VANTDR_OWN_FOREIGN_FILE, /* another user's file, or a hard link, there */
  VANTDR_OWN_SPECIAL_FILE, /* not a regular file: FIFO, device, socket, directory */
  VANTDR_OWN_UNSAFE_DIR    /* a directory of another user, or writable by others */
};

/* Root and the effective user are the only owners whose files are trusted. */
VANTDR_HIDDEN int VantDRTrustedOwner(uid_t uid);

/* 1 when someone other than root and the effective user may create names in
 * the directory: another owner, or group or other write bits. */
VANTDR_HIDDEN int VantDRSharedDir(const struct stat* dir);

/* Opens the library's file `base` in the directory `dirFd` with `flags`
 * (O_CREAT creates it with `mode` less the umask; O_TRUNC truncates only
 * once the file is accepted). In a shared directory a link is followed only
 * when root or the effective user owns it, and a file is accepted only when
 * one of them owns it and it has no other hard link. Anywhere, only a regular
 * file is accepted, and a FIFO never blocks the open. The descriptor is
 * close-on-exec and blocking. Returns it, or -1 with errno; `*refusal` (may
 * be NULL) tells a refusal from a failure. */
VANTDR_HIDDEN int VantDROpenOwnFileAt(int dirFd, const char* base, int flags, unsigned mode,
                                      enum VantDROwnRefusal* refusal);

/* The same for a path: its directory is resolved once. */
VANTDR_HIDDEN int VantDROpenOwnFile(const char* path, int flags, unsigned mode,
                                    enum VantDROwnRefusal* refusal);

/* Splits `path` into its directory (opened O_PATH, close-on-exec) and its
 * last component (a pointer into `path`). -1 with errno when the last
 * component is empty or the directory cannot be opened. */
VANTDR_HIDDEN int VantDROpenParent(const char* path, const char** base);

/* Words for a refusal, for the caller's log line. */
VANTDR_HIDDEN const char* VantDROwnRefusalText(enum VantDROwnRefusal refusal);

#ifdef __cplusplus
}
#endif
