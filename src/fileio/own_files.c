#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include "fileio/own_files.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

/* A name that keeps changing under us is someone racing: give up after a
 * few looks rather than loop. */
#define OWN_ATTEMPTS 4

int VantDRTrustedOwner(uid_t uid) { return uid == 0 || uid == geteuid(); }

int VantDRSharedDir(const struct stat* dir) {
  return !VantDRTrustedOwner(dir->st_uid) || (dir->st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

static int Refuse(enum VantDROwnRefusal why, enum VantDROwnRefusal* refusal) {
  if (refusal) *refusal = why;
  errno = EACCES;
  return -1;
}

/* Checks what was opened; closes and refuses what must not be used. */
static int Accept(int fd, int shared, int flags, enum VantDROwnRefusal* refusal) {
  struct stat st;
  if (fstat(fd, &st) != 0) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  enum VantDROwnRefusal why = VANTDR_OWN_ACCEPTED;
  if (!S_ISREG(st.st_mode)) {
    why = VANTDR_OWN_SPECIAL_FILE;
  } else if (shared && (!VantDRTrustedOwner(st.st_uid) || st.st_nlink > 1)) {
    why = VANTDR_OWN_FOREIGN_FILE;
  }
  if (why != VANTDR_OWN_ACCEPTED) {
    close(fd);
    return Refuse(why, refusal);
  }
  int fl = fcntl(fd, F_GETFL);
  if ((fl >= 0 && fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) != 0) ||
      ((flags & O_TRUNC) && ftruncate(fd, 0) != 0)) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}

int VantDROpenOwnFileAt(int dirFd, const char* base, int flags, unsigned mode,
                        enum VantDROwnRefusal* refusal) {
  if (refusal) *refusal = VANTDR_OWN_ACCEPTED;
  struct stat dir;
  if (fstat(dirFd, &dir) != 0) return -1;
  const int shared = VantDRSharedDir(&dir);
  /* Truncation waits until the file is accepted; nothing blocks meanwhile. */
  const int openFlags = (flags & ~(O_CREAT | O_EXCL | O_TRUNC)) | O_NONBLOCK | O_CLOEXEC;
  for (int attempt = 0; attempt < OWN_ATTEMPTS; ++attempt) {
    struct stat lst;
    if (fstatat(dirFd, base, &lst, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT || !(flags & O_CREAT)) return -1;
      int fd = openat(dirFd, base, openFlags | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
      if (fd >= 0) return Accept(fd, shared, flags, refusal);
      if (errno == EEXIST) continue; /* planted meanwhile: look again */
      return -1;
    }
    int fd;
    if (S_ISLNK(lst.st_mode)) {
      if (shared && !VantDRTrustedOwner(lst.st_uid)) {
        return Refuse(VANTDR_OWN_FOREIGN_LINK, refusal);
      }
      /* A link of ours: what it names is opened as the caller asked. */
      struct stat target;
      if (fstatat(dirFd, base, &target, 0) == 0 && !S_ISREG(target.st_mode)) {
        return Refuse(VANTDR_OWN_SPECIAL_FILE, refusal);
      }
      fd = openat(dirFd, base, openFlags | (flags & O_CREAT), mode);
      if (fd < 0) return -1;
    } else {
      /* Refused before opening: opening a device may already do something. */
      if (!S_ISREG(lst.st_mode)) return Refuse(VANTDR_OWN_SPECIAL_FILE, refusal);
      fd = openat(dirFd, base, openFlags | O_NOFOLLOW, mode);
      if (fd < 0) {
        if (errno == ENOENT || errno == ELOOP) continue; /* swapped meanwhile */
        return -1;
      }
      struct stat st;
      if (fstat(fd, &st) != 0 || st.st_dev != lst.st_dev || st.st_ino != lst.st_ino) {
        close(fd);
        continue;
      }
    }
    return Accept(fd, shared, flags, refusal);
  }
  errno = EAGAIN;
  return -1;
}

int VantDROpenParent(const char* path, const char** base) {
  const char* slash = strrchr(path, '/');
  *base = slash ? slash + 1 : path;
  if (**base == '\0' || strlen(*base) > NAME_MAX) {
    errno = **base == '\0' ? EISDIR : ENAMETOOLONG;
    return -1;
  }
  char dir[PATH_MAX];
  size_t dirLen = slash ? (size_t)(slash - path) : 0;
  if (dirLen + 1 > sizeof dir) {
    errno = ENAMETOOLONG;
    return -1;
  }
  if (!slash) {
    strcpy(dir, ".");
  } else if (dirLen == 0) {
    strcpy(dir, "/");
  } else {
    memcpy(dir, path, dirLen);
    dir[dirLen] = '\0';
  }
  return open(dir, O_PATH | O_DIRECTORY | O_CLOEXEC);
}

int VantDROpenOwnFile(const char* path, int flags, unsigned mode, enum VantDROwnRefusal* refusal) {
  if (refusal) *refusal = VANTDR_OWN_ACCEPTED;
  const char* base;
  int dirFd = VantDROpenParent(path, &base);
  if (dirFd < 0) return -1;
  int fd = VantDROpenOwnFileAt(dirFd, base, flags, mode, refusal);
  int saved = errno;
  close(dirFd);
  errno = saved;
  return fd;
}

const char* VantDROwnRefusalText(enum VantDROwnRefusal refusal) {
  switch (refusal) {
    case VANTDR_OWN_FOREIGN_LINK:
      return "a link of another user in a shared directory";
    case VANTDR_OWN_FOREIGN_FILE:
      return "a file of another user, or a hard link, in a shared directory";
    case VANTDR_OWN_SPECIAL_FILE:
      return "not a regular file";
    case VANTDR_OWN_UNSAFE_DIR:
      return "a directory other users can write";
    default:
      return "accepted";
  }
}
