/* The rule, in one place. The path's directory is resolved once; the final
 * component is looked at, replaced and re-checked through that descriptor
 * only, so nobody can swap what we looked at for what we write.
 *
 * A document is written in place, as fopen(path, "w") would, wherever
 * replacing the file would show to anyone or could be turned against
 * someone: the final component is a link (the kernel's own rules then
 * decide, as for fopen), is not a plain file (FIFO, device, socket), has
 * other hard links, belongs to another user (a replacement would have to be
 * handed to them, and a rename would bypass protected_regular), carries
 * extended attributes or an ACL, is a mount point, or has a group or mode a
 * new file of ours cannot get; also when the temporary file cannot be made
 * or renamed for a reason writing in place does not share (EACCES, EPERM,
 * ENAMETOOLONG, EBUSY, EXDEV). Otherwise the document goes to an unnamed
 * (or randomly named, exclusively created) temporary file beside the target,
 * is synced, and is renamed over the target: readers see the old or the new
 * document, never a part. */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include "fileio/durable_write.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include "fileio/own_files.h"

#ifndef O_TMPFILE
#define O_TMPFILE (020000000 | O_DIRECTORY)
#endif
#ifndef STATX_ATTR_MOUNT_ROOT
#define STATX_ATTR_MOUNT_ROOT 0x00002000
#endif
#ifndef RENAME_NOREPLACE
#define RENAME_NOREPLACE 1
#endif

/* Temporary names carry the writer's pid (the next writer removes what a
 * killed one left) and 64 random bits (nobody can occupy them in advance). */
#define TEMP_PREFIX ".vantdr-tmp."
#define TEMP_ATTEMPTS 8
/* Looks at one name that keeps changing under us before writing in place. */
#define RACE_ATTEMPTS 3
/* Directory entries the clean-up reads per replacement, resuming where the
 * previous one stopped: a large directory costs every write a little. */
#define CLEANUP_BUFFER 1024

enum Plan { PLAN_IN_PLACE, PLAN_CREATE, PLAN_REPLACE_EXISTING, PLAN_REPLACE_NAME };
/* Replace() results besides a step: write in place, or look again. */
#define USE_IN_PLACE (-1)
#define RACED (-2)

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

static void FdPath(char* buf, size_t size, int fd) { snprintf(buf, size, "/proc/self/fd/%d", fd); }

static int IsMountRoot(int fd) {
  struct statx stx;
  if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS, &stx) != 0) {
    return 0; /* unknown here: a rename over it fails with EBUSY and we fall back */
  }
  return (stx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) &&
         (stx.stx_attributes & STATX_ATTR_MOUNT_ROOT);
}

static int SameFile(const struct stat* a, const struct stat* b) {
  return a->st_dev == b->st_dev && a->st_ino == b->st_ino;
}

/* Whether the plain file `base` (lstat in `st`) can be replaced unseen. */
static enum Plan InspectExisting(int dirFd, const char* base, const struct stat* st) {
  if (!S_ISREG(st->st_mode) || st->st_nlink != 1 || st->st_uid != geteuid()) return PLAN_IN_PLACE;
  int fd = openat(dirFd, base, O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return PLAN_IN_PLACE;
  enum Plan plan = PLAN_IN_PLACE;
  char self[32];
  FdPath(self, sizeof self, fd);
  struct stat now;
  ssize_t attrs;
  if (fstat(fd, &now) != 0 || !SameFile(&now, st)) goto done;
  /* The caller must be allowed to open the file itself, as with fopen. */
  if (faccessat(AT_FDCWD, self, W_OK, AT_EACCESS) != 0) goto done;
  attrs = listxattr(self, NULL, 0);
  if (attrs != 0 && !(attrs < 0 && errno == ENOTSUP)) goto done;
  if (IsMountRoot(fd)) goto done;
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

static uint64_t RandomBits(void) {
  uint64_t bits;
  if (getrandom(&bits, sizeof bits, GRND_NONBLOCK) == (ssize_t)sizeof bits) return bits;
  /* No entropy yet (early boot): still not guessable from the pid alone. */
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  static __thread uint64_t counter;
  bits = ((uint64_t)ts.tv_nsec << 20) ^ (uint64_t)ts.tv_sec ^ ((uint64_t)getpid() << 40) ^
         (++counter * 0x9E3779B97F4A7C15ull) ^ (uint64_t)(uintptr_t)&bits;
  return bits;
}

static void TempName(char* buf, size_t size) {
  snprintf(buf, size, TEMP_PREFIX "%d.%016llx", (int)getpid(), (unsigned long long)RandomBits());
}

/* A leftover of a dead writer of ours: our prefix, a pid that is gone, our
 * owner. Nobody else's file is ever removed. */
static int IsLeftover(int dirFd, const char* name) {
  const size_t prefixLen = sizeof TEMP_PREFIX - 1;
  if (strncmp(name, TEMP_PREFIX, prefixLen) != 0) return 0;
  char* end;
  long pid = strtol(name + prefixLen, &end, 10);
  if (pid <= 0 || pid > INT_MAX || *end != '.' || pid == getpid()) return 0;
  if (strlen(end + 1) != 16 || strspn(end + 1, "0123456789abcdef") != 16) return 0;
  if (kill((pid_t)pid, 0) == 0 || errno != ESRCH) return 0;
  struct stat st;
  return fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
         st.st_uid == geteuid();
}

/* Where the clean-up of a directory stopped, per thread, for a few
 * directories. */
struct Cursor {
  dev_t dev;
  ino_t ino;
  off_t offset;
};
static __thread struct Cursor cursors[4];
static __thread unsigned nextCursor;

static struct Cursor* CursorFor(const struct stat* dir) {
  for (unsigned i = 0; i < 4; ++i) {
    if (cursors[i].dev == dir->st_dev && cursors[i].ino == dir->st_ino) return &cursors[i];
  }
  struct Cursor* c = &cursors[nextCursor++ % 4];
  c->dev = dir->st_dev;
  c->ino = dir->st_ino;
  c->offset = 0;
  return c;
}

struct LinuxDirent64 {
  uint64_t d_ino;
  int64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
  char d_name[];
};

/* Removes temporary files left by writers that died, reading one small
 * batch of entries per call. */
static void RemoveLeftovers(int dirFd) {
  int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat dir;
  if (fstat(fd, &dir) != 0) {
    close(fd);
    return;
  }
  struct Cursor* cursor = CursorFor(&dir);
  long buffer[CLEANUP_BUFFER / sizeof(long)];
  long n = -1;
  if (lseek(fd, cursor->offset, SEEK_SET) == cursor->offset) {
    n = syscall(SYS_getdents64, fd, buffer, sizeof buffer);
  }
  off_t next = 0; /* the end, or an error: start again next time */
  for (long pos = 0; n > 0 && pos < n;) {
    struct LinuxDirent64* entry = (struct LinuxDirent64*)((char*)buffer + pos);
    if (IsLeftover(fd, entry->d_name)) unlinkat(fd, entry->d_name, 0);
    next = (off_t)entry->d_off;
    pos += entry->d_reclen;
  }
  /* Room left for another entry: that was the end of the directory. */
  if (n >= 0 && (size_t)n + 24 + NAME_MAX + 1 < sizeof buffer) next = 0;
  cursor->offset = next;
  close(fd);
}

/* An unnamed file in the directory, or an exclusively created random name
 * where the file system has no unnamed files. `name` is empty for the
 * former. -1 with errno on failure. */
static int CreateTemporary(int dirFd, unsigned mode, char* name, size_t nameSize) {
  name[0] = '\0';
  int fd = openat(dirFd, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
  for (int attempt = 0; attempt < TEMP_ATTEMPTS; ++attempt) {
    TempName(name, nameSize);
    fd = openat(dirFd, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST) break;
  }
  if (fd < 0) name[0] = '\0';
  return fd;
}

/* Links an unnamed file at `name` in the directory; never through a link,
 * never over anything. */
static int LinkUnnamed(int fd, int dirFd, const char* name) {
  char self[32];
  FdPath(self, sizeof self, fd);
  int rc = linkat(AT_FDCWD, self, dirFd, name, AT_SYMLINK_FOLLOW);
  if (rc != 0 && errno == ENOENT) rc = linkat(fd, "", dirFd, name, AT_EMPTY_PATH);
  return rc;
}

/* Gives an unnamed temporary file a random name. */
static int NameTemporary(int fd, int dirFd, char* name, size_t nameSize) {
  for (int attempt = 0; attempt < TEMP_ATTEMPTS; ++attempt) {
    TempName(name, nameSize);
    if (LinkUnnamed(fd, dirFd, name) == 0) return 0;
    if (errno != EEXIST) break;
  }
  name[0] = '\0';
  return -1;
}

/* Makes the temporary file indistinguishable from the old one, which is the
 * writer's own; -1 when it cannot be (the caller then writes in place). */
static int CopyIdentity(int fd, const struct stat* old) {
  struct stat now;
  if (fstat(fd, &now) != 0) return -1;
  if (now.st_gid != old->st_gid && fchown(fd, (uid_t)-1, old->st_gid) != 0) return -1;
  /* After the group: a change of group may clear the set-gid bit. */
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

/* Moves the finished, named temporary to `base`. A new file never lands
 * over anything; an existing one is replaced only while it is still the
 * file that was inspected. RACED when the name changed meanwhile. */
static int Install(int dirFd, char* name, const char* base, enum Plan plan,
                   const struct stat* old) {
  if (plan == PLAN_CREATE) {
    int rc = renameat2(dirFd, name, dirFd, base, RENAME_NOREPLACE);
    if (rc != 0 && (errno == EINVAL || errno == ENOSYS)) {
      rc = linkat(dirFd, name, dirFd, base, 0); /* no renameat2 here: same effect */
      if (rc == 0) unlinkat(dirFd, name, 0);
    }
    if (rc != 0) return errno == EEXIST ? RACED : VANTDR_WRITE_OPEN;
  } else {
    struct stat now;
    if (plan == PLAN_REPLACE_EXISTING &&
        (fstatat(dirFd, base, &now, AT_SYMLINK_NOFOLLOW) != 0 || !SameFile(&now, old) ||
         now.st_nlink != 1 || now.st_uid != old->st_uid)) {
      return RACED;
    }
    if (renameat(dirFd, name, dirFd, base) != 0) return VANTDR_WRITE_OPEN;
  }
  name[0] = '\0';
  return VANTDR_WRITE_DONE;
}

/* Replaces `base` in the directory. Returns the failed step, USE_IN_PLACE
 * when the file must be written in place instead, or RACED; in both of the
 * latter nothing was changed. */
static int Replace(int dirFd, const char* base, enum Plan plan, const struct stat* old,
                   const char* data, size_t size, unsigned newMode) {
  RemoveLeftovers(dirFd);
  char name[sizeof TEMP_PREFIX + 40];
  int result = VANTDR_WRITE_DONE;
  /* Private until it has the old file's group and mode: whoever opened a
   * named temporary earlier could otherwise read what follows. */
  const unsigned mode = plan == PLAN_REPLACE_EXISTING ? 0600 : newMode;
  int fd = CreateTemporary(dirFd, mode, name, sizeof name);
  if (fd < 0) {
    result = VANTDR_WRITE_OPEN;
  } else if (plan == PLAN_REPLACE_EXISTING && CopyIdentity(fd, old) != 0) {
    errno = EPERM;
    result = VANTDR_WRITE_OPEN;
  } else if (WriteAll(fd, data, size) != 0) {
    result = VANTDR_WRITE_WRITE;
  } else if (fsync(fd) != 0) {
    result = VANTDR_WRITE_SYNC;
  } else if (name[0] == '\0' && NameTemporary(fd, dirFd, name, sizeof name) != 0) {
    result = VANTDR_WRITE_OPEN;
  }
  int saved = errno;
  if (fd >= 0 && close(fd) != 0 && result == VANTDR_WRITE_DONE) {
    result = VANTDR_WRITE_FLUSH; /* not seen in practice: the data was synced */
    saved = errno;
  }
  /* Installed only once nothing can fail any more: a failure must keep the
   * old file, not report an error over the new one. */
  if (result == VANTDR_WRITE_DONE) {
    result = Install(dirFd, name, base, plan, old);
    if (result != VANTDR_WRITE_DONE) saved = errno;
  }
  if (name[0] != '\0') unlinkat(dirFd, name, 0);
  if (result == VANTDR_WRITE_DONE) SyncDirectory(dirFd);
  errno = saved;
  if (result == VANTDR_WRITE_OPEN && plan != PLAN_REPLACE_NAME && InPlaceWouldWork(saved)) {
    return USE_IN_PLACE;
  }
  return result;
}

/* The plain write: open as fopen(path, "w") would, then write, flush,
 * sync, close. `dirFd` -1 means `path` is opened as given. */
static enum VantDRWriteStep WriteInPlace(int dirFd, const char* path, const char* data, size_t size,
                                         int flags) {
  int fd;
  if (flags & VANTDR_WRITE_OWN_FILE) {
    enum VantDROwnRefusal refusal;
    fd = VantDROpenOwnFileAt(dirFd, path, O_WRONLY | O_CREAT, 0666, &refusal);
    if (fd < 0) return refusal != VANTDR_OWN_ACCEPTED ? VANTDR_WRITE_REFUSED : VANTDR_WRITE_OPEN;
  } else {
    /* The caller's own path: a FIFO there is theirs, and waits for its
     * reader exactly as with fopen. */
    fd = openat(dirFd < 0 ? AT_FDCWD : dirFd, path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return VANTDR_WRITE_OPEN;
  }
  /* Truncated last, as fopen's O_TRUNC: a failure to open changes nothing. */
  struct stat st;
  FILE* file = fdopen(fd, "w");
  if (file == NULL || fstat(fd, &st) != 0 || (S_ISREG(st.st_mode) && ftruncate(fd, 0) != 0)) {
    int saved = errno;
    if (file != NULL) {
      fclose(file);
    } else {
      close(fd);
    }
    errno = saved;
    return VANTDR_WRITE_OPEN;
  }
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

/* Decides how `base` is written, looking at it through the directory only. */
static enum Plan Inspect(int dirFd, const char* base, int flags, struct stat* st,
                         enum VantDRWriteStep* refused) {
  if (fstatat(dirFd, base, st, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? (flags & VANTDR_WRITE_REPLACE_NAME ? PLAN_REPLACE_NAME : PLAN_CREATE)
                           : PLAN_IN_PLACE;
  }
  if (flags & VANTDR_WRITE_REPLACE_NAME) return PLAN_REPLACE_NAME;
  if (flags & VANTDR_WRITE_OWN_FILE) {
    struct stat dir;
    const int shared = fstat(dirFd, &dir) != 0 || VantDRSharedDir(&dir);
    if ((S_ISLNK(st->st_mode) && shared && !VantDRTrustedOwner(st->st_uid)) ||
        (S_ISREG(st->st_mode) && shared && (!VantDRTrustedOwner(st->st_uid) || st->st_nlink > 1)) ||
        (!S_ISLNK(st->st_mode) && !S_ISREG(st->st_mode))) {
      *refused = VANTDR_WRITE_REFUSED;
      errno = EACCES;
      return PLAN_IN_PLACE;
    }
  }
  return InspectExisting(dirFd, base, st);
}

enum VantDRWriteStep VantDRWriteFile(const char* path, const char* data, size_t size,
                                     unsigned newMode, int flags) {
  if (path == NULL || *path == '\0') {
    errno = EINVAL;
    return VANTDR_WRITE_OPEN;
  }
  const char* base;
  int dirFd = VantDROpenParent(path, &base);
  if (dirFd < 0) {
    /* No name to replace ("dir/"): fopen decides, as it would anyway. */
    if (errno == EISDIR && !(flags & (VANTDR_WRITE_REPLACE_NAME | VANTDR_WRITE_OWN_FILE))) {
      return WriteInPlace(-1, path, data, size, flags);
    }
    return VANTDR_WRITE_OPEN;
  }
  enum VantDRWriteStep step = VANTDR_WRITE_DONE;
  int result = USE_IN_PLACE;
  for (int attempt = 0; attempt < RACE_ATTEMPTS; ++attempt) {
    struct stat st;
    enum Plan plan = Inspect(dirFd, base, flags, &st, &step);
    if (step == VANTDR_WRITE_REFUSED) break;
    if (plan == PLAN_IN_PLACE) {
      result = USE_IN_PLACE;
      break;
    }
    result = Replace(dirFd, base, plan, &st, data, size, newMode);
    if (result != RACED) break;
  }
  if (step != VANTDR_WRITE_REFUSED) {
    if (result == RACED && (flags & VANTDR_WRITE_REPLACE_NAME)) {
      errno = EAGAIN;
      step = VANTDR_WRITE_OPEN;
    } else if (result >= 0) {
      step = (enum VantDRWriteStep)result;
    } else {
      step = WriteInPlace(dirFd, base, data, size, flags);
    }
  }
  int saved = errno;
  close(dirFd);
  errno = saved;
  return step;
}
