/* The rule, in one place. A document is written in place, exactly as
 * fopen(path, "w") would, wherever replacing the file would show to anyone:
 * the final target of the path is not a plain file (FIFO, device, socket),
 * has other hard links, carries extended attributes or an ACL, is a mount
 * point, or has an owner, group or mode that a new file of ours cannot get;
 * also when the temporary file cannot be made or renamed for a reason that
 * writing in place does not share (EACCES, EPERM, ENAMETOOLONG, EBUSY,
 * EXDEV). Otherwise the document goes to an unnamed (or short, exclusively
 * created) temporary file beside the target, is synced, and renamed over the
 * target: readers see the old or the new document, never a part. Links are
 * followed by the kernel itself, so its protections for shared directories
 * apply as they would to fopen. */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include "foundation/durable_write.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#ifndef O_TMPFILE
#define O_TMPFILE (020000000 | O_DIRECTORY)
#endif
#ifndef STATX_ATTR_MOUNT_ROOT
#define STATX_ATTR_MOUNT_ROOT 0x00002000
#endif

/* Temporary names are short (any name fopen accepts must work) and carry the
 * writer's pid, so the next writer in the directory can remove what a killed
 * one left. */
#define TEMP_PREFIX ".vantdr-tmp."
#define TEMP_ATTEMPTS 100

enum Plan { PLAN_IN_PLACE, PLAN_REPLACE_NEW, PLAN_REPLACE_EXISTING };

struct Target {
  char dir[PATH_MAX];
  char base[NAME_MAX + 1];
  struct stat st; /* of the existing file (PLAN_REPLACE_EXISTING) */
};

static int WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) {
      errno = EIO;
      return -1;
    }
    data += n;
    size -= (size_t)n;
  }
  return 0;
}

/* Splits `path` into its directory and last component; -1 when the last
 * component is empty or too long (fopen then decides). */
static int Split(const char* path, struct Target* t) {
  const char* slash = strrchr(path, '/');
  const char* base = slash ? slash + 1 : path;
  size_t dirLen = slash ? (size_t)(slash - path) : 0;
  if (*base == '\0' || strlen(base) > NAME_MAX || dirLen + 2 > sizeof t->dir) return -1;
  if (!slash) {
    strcpy(t->dir, ".");
  } else if (dirLen == 0) {
    strcpy(t->dir, "/");
  } else {
    memcpy(t->dir, path, dirLen);
    t->dir[dirLen] = '\0';
  }
  strcpy(t->base, base);
  return 0;
}

static void FdPath(char* buf, size_t size, int fd) { snprintf(buf, size, "/proc/self/fd/%d", fd); }

static int IsMountRoot(int fd) {
  struct statx stx;
  if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS, &stx) != 0) {
    return 0; /* unknown here: a rename over it fails with EBUSY and we fall back */
  }
  return (stx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) &&
         (stx.stx_attributes & STATX_ATTR_MOUNT_ROOT);
}

/* Decides how `path` is written and, for a replacement, where. */
static enum Plan Inspect(const char* path, struct Target* t) {
  int fd = open(path, O_PATH | O_CLOEXEC);
  if (fd < 0) {
    struct stat lst;
    /* A dangling link (fopen creates its target) or an error fopen reports. */
    if (errno != ENOENT || lstat(path, &lst) == 0 || errno != ENOENT) return PLAN_IN_PLACE;
    return Split(path, t) == 0 ? PLAN_REPLACE_NEW : PLAN_IN_PLACE;
  }
  enum Plan plan = PLAN_IN_PLACE;
  char self[32];
  FdPath(self, sizeof self, fd);
  struct stat lst;
  if (fstat(fd, &t->st) != 0 || !S_ISREG(t->st.st_mode) || t->st.st_nlink != 1) goto done;
  /* The caller must be allowed to open the file itself, as with fopen. */
  if (faccessat(AT_FDCWD, self, W_OK, AT_EACCESS) != 0) goto done;
  ssize_t attrs = listxattr(self, NULL, 0);
  if (attrs != 0 && !(attrs < 0 && errno == ENOTSUP)) goto done;
  if (IsMountRoot(fd)) goto done;
  if (lstat(path, &lst) != 0) goto done;
  if (S_ISLNK(lst.st_mode)) {
    /* The final target of the link chain, as the kernel resolved it. */
    char real[PATH_MAX];
    ssize_t n = readlink(self, real, sizeof real - 1);
    if (n <= 0 || real[0] != '/') goto done;
    real[n] = '\0';
    if (Split(real, t) != 0) goto done;
  } else if (Split(path, t) != 0) {
    goto done;
  }
  plan = PLAN_REPLACE_EXISTING;
done:
  close(fd);
  return plan;
}

/* Errors of making or renaming the temporary file that writing in place
 * would not meet. */
static int InPlaceWouldWork(int err) {
  return err == EACCES || err == EPERM || err == ENAMETOOLONG || err == EBUSY || err == EXDEV;
}

static void TempName(char* buf, size_t size, int attempt) {
  snprintf(buf, size, TEMP_PREFIX "%d.%d", (int)getpid(), attempt);
}

/* Removes temporary files left in the directory by writers that died. */
static void RemoveLeftovers(int dirFd) {
  int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  DIR* dir = fdopendir(fd);
  if (dir == NULL) {
    close(fd);
    return;
  }
  const size_t prefixLen = strlen(TEMP_PREFIX);
  struct dirent* entry;
  while ((entry = readdir(dir)) != NULL) {
    if (strncmp(entry->d_name, TEMP_PREFIX, prefixLen) != 0) continue;
    char* end;
    long pid = strtol(entry->d_name + prefixLen, &end, 10);
    if (pid <= 0 || pid > INT_MAX || *end != '.' || pid == getpid()) continue;
    strtol(end + 1, &end, 10);
    if (*end != '\0') continue;
    if (kill((pid_t)pid, 0) == 0 || errno != ESRCH) continue;
    unlinkat(dirfd(dir), entry->d_name, 0);
  }
  closedir(dir);
}

/* An unnamed file in the directory, or an exclusively created short name
 * where the file system has no unnamed files. `name` is empty for the
 * former. -1 with errno on failure. */
static int CreateTemporary(int dirFd, unsigned mode, char* name, size_t nameSize) {
  name[0] = '\0';
  int fd = openat(dirFd, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
  for (int attempt = 0; attempt < TEMP_ATTEMPTS; ++attempt) {
    TempName(name, nameSize, attempt);
    fd = openat(dirFd, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST) break;
  }
  if (fd < 0) name[0] = '\0';
  return fd;
}

/* Gives an unnamed temporary file a short name; never through a link. */
static int NameTemporary(int fd, int dirFd, char* name, size_t nameSize) {
  char self[32];
  FdPath(self, sizeof self, fd);
  for (int attempt = 0; attempt < TEMP_ATTEMPTS; ++attempt) {
    TempName(name, nameSize, attempt);
    int rc = linkat(AT_FDCWD, self, dirFd, name, AT_SYMLINK_FOLLOW);
    if (rc != 0 && errno == ENOENT) rc = linkat(fd, "", dirFd, name, AT_EMPTY_PATH);
    if (rc == 0) return 0;
    if (errno != EEXIST) break;
  }
  name[0] = '\0';
  return -1;
}

/* Makes the temporary file indistinguishable from the old one; -1 when it
 * cannot be (the caller then writes in place). */
static int CopyIdentity(int fd, const struct stat* old) {
  struct stat now;
  if (fstat(fd, &now) != 0) return -1;
  if ((now.st_uid != old->st_uid || now.st_gid != old->st_gid) &&
      fchown(fd, old->st_uid, old->st_gid) != 0) {
    return -1;
  }
  /* After the owner: a change of owner may clear set-id bits. */
  if (fchmod(fd, old->st_mode & 07777) != 0 || fstat(fd, &now) != 0) return -1;
  return now.st_uid == old->st_uid && now.st_gid == old->st_gid &&
                 (now.st_mode & 07777) == (old->st_mode & 07777)
             ? 0
             : -1;
}

static void SyncDirectory(int dirFd) {
  int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    fsync(fd);
    close(fd);
  }
}

/* Replaces t->base in t->dir. Returns the failed step, or -1 when the file
 * must be written in place instead (nothing was changed). */
static int Replace(const struct Target* t, enum Plan plan, const char* data, size_t size,
                   unsigned newMode, int flags) {
  int dirFd = open(t->dir, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0)
    return (!(flags & VANTDR_WRITE_REPLACE_NAME) && InPlaceWouldWork(errno)) ? -1
                                                                             : VANTDR_WRITE_OPEN;
  RemoveLeftovers(dirFd);
  char name[sizeof TEMP_PREFIX + 32];
  int result = VANTDR_WRITE_DONE;
  /* Private until it has the old file's owner and mode: whoever opened a
   * named temporary earlier could otherwise read what follows. */
  const unsigned mode = plan == PLAN_REPLACE_EXISTING ? 0600 : newMode;
  int fd = CreateTemporary(dirFd, mode, name, sizeof name);
  if (fd < 0) {
    result = VANTDR_WRITE_OPEN;
  } else if (plan == PLAN_REPLACE_EXISTING && CopyIdentity(fd, &t->st) != 0) {
    errno = EPERM;
    result = VANTDR_WRITE_OPEN;
  } else if (WriteAll(fd, data, size) != 0) {
    result = VANTDR_WRITE_WRITE;
  } else if (fsync(fd) != 0) {
    result = VANTDR_WRITE_SYNC;
  } else if ((name[0] == '\0' && NameTemporary(fd, dirFd, name, sizeof name) != 0) ||
             renameat(dirFd, name, dirFd, t->base) != 0) {
    result = VANTDR_WRITE_OPEN;
  }
  int saved = errno;
  if (fd >= 0 && close(fd) != 0 && result == VANTDR_WRITE_DONE) {
    result = VANTDR_WRITE_FLUSH;
    saved = errno;
  }
  if (result != VANTDR_WRITE_DONE && name[0] != '\0') unlinkat(dirFd, name, 0);
  if (result == VANTDR_WRITE_DONE) SyncDirectory(dirFd);
  close(dirFd);
  errno = saved;
  if (result == VANTDR_WRITE_OPEN && !(flags & VANTDR_WRITE_REPLACE_NAME) &&
      InPlaceWouldWork(saved)) {
    return -1;
  }
  return result;
}

/* The plain write: fopen, write, flush, sync, close. */
static enum VantDRWriteStep WriteInPlace(const char* path, const char* data, size_t size) {
  FILE* file = fopen(path, "we");
  if (file == NULL) return VANTDR_WRITE_OPEN;
  enum VantDRWriteStep step = VANTDR_WRITE_DONE;
  if (fwrite(data, 1, size, file) != size) {
    step = VANTDR_WRITE_WRITE;
  } else if (fflush(file) != 0) {
    step = VANTDR_WRITE_FLUSH;
  } else if (fsync(fileno(file)) != 0) {
    step = VANTDR_WRITE_SYNC;
  }
  int saved = errno;
  fclose(file);
  errno = saved;
  return step;
}

enum VantDRWriteStep VantDRWriteFile(const char* path, const char* data, size_t size,
                                     unsigned newMode, int flags) {
  if (path == NULL || *path == '\0') {
    errno = EINVAL;
    return VANTDR_WRITE_OPEN;
  }
  struct Target target;
  enum Plan plan;
  if (flags & VANTDR_WRITE_REPLACE_NAME) {
    if (Split(path, &target) != 0) {
      errno = EINVAL;
      return VANTDR_WRITE_OPEN;
    }
    plan = PLAN_REPLACE_NEW;
  } else {
    plan = Inspect(path, &target);
  }
  if (plan != PLAN_IN_PLACE) {
    int result = Replace(&target, plan, data, size, newMode, flags);
    if (result >= 0) return (enum VantDRWriteStep)result;
  }
  return WriteInPlace(path, data, size);
}
