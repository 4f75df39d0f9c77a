// Online backup. The copy is taken in one step from one read transaction, so
// commits by others never restart it. It is written in a private directory
// of its own (unpredictable name, mode 0700) beside the destination, reached
// only through descriptors of directories opened once: a daemon running as
// root must not be steered into writing or replacing a file through a link
// another local user planted, nor have a journal planted beside its copy
// rolled into it.
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "foundation/no_throw.h"
#include "vantdr/log.h"
#include "vantdr/sqlite_db.h"
#include "vantdr/utils.h"

namespace VantDRCore {

namespace {

const unsigned kRetryPauseMinMSec = 1000;
const unsigned kRetryPauseMaxMSec = 2000;
const int kBusyTimeoutMSec = 1000;  // the connection's own, restored after the copy
// The private directory: followed by the writer's pid (so that the next
// backup in the directory can remove what a killed one left) and 64 random
// bits. The copy inside it is kCopyName.
const char kTempPrefix[] = ".vantdr-backup.";
const char kCopyName[] = "copy";

// The default file system layer, except that names are used as given. SQLite
// would otherwise resolve "/proc/self/fd/N/name" back into the directory's
// path text, which is what the descriptor is there to avoid.
int FullPathnameAsGiven(sqlite3_vfs*, const char* name, int size, char* out) {
  const size_t length = strlen(name);
  if (size < 0 || length + 1 > static_cast<size_t>(size)) return SQLITE_CANTOPEN;
  memcpy(out, name, length + 1);
  return SQLITE_OK;
}

const char* DescriptorVfs() {
  static const char* const name = []() -> const char* {
    static sqlite3_vfs vfs;
    sqlite3_vfs* base = sqlite3_vfs_find(nullptr);
    if (base == nullptr) return nullptr;
    vfs = *base;
    vfs.pNext = nullptr;
    vfs.zName = "vantdr-descriptor";
    vfs.xFullPathname = FullPathnameAsGiven;
    return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK ? vfs.zName : nullptr;
  }();
  return name;
}

// Writers that commit back to back leave a reader short gaps only; the
// usual time-out's growing sleeps (up to 100 ms) can miss every one of them.
// Polled each millisecond for about as long as that time-out.
int PollBusy(void*, int tries) {
  if (tries >= 1000) return 0;
  usleep(1000);
  return 1;
}

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A destination the backup may replace: a regular file of the caller's own,
// never a link.
bool Replaceable(const struct stat& st) { return S_ISREG(st.st_mode) && st.st_uid == geteuid(); }

// Private directories left by killed backups: only ours, emptied of the
// files a backup makes there and nothing else.
void RemoveLeftovers(int dirFd) {
  const int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    close(fd);
    return;
  }
  const size_t prefixLength = sizeof kTempPrefix - 1;
  while (const struct dirent* entry = readdir(dir)) {
    if (strncmp(entry->d_name, kTempPrefix, prefixLength) != 0) continue;
    char* end = nullptr;
    const long pid = strtol(entry->d_name + prefixLength, &end, 10);
    if (pid <= 0 || pid > INT_MAX || *end != '.' || pid == getpid()) continue;
    if (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    const int inner =
        openat(dirfd(dir), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat st;
    if (inner < 0) continue;
    if (fstat(inner, &st) == 0 && st.st_uid == geteuid()) {
      for (const std::string& name :
           {std::string(kCopyName), kCopyName + std::string("-journal")}) {
        if (fstatat(inner, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && Replaceable(st)) {
          unlinkat(inner, name.c_str(), 0);
        }
      }
      unlinkat(dirfd(dir), entry->d_name, AT_REMOVEDIR);
    }
    close(inner);
  }
  closedir(dir);
}

// One backup's files: the directory, the temporary, and the copy's
// connection. Whatever is left when it ends is closed and removed.
class BackupFiles {
 public:
  ~BackupFiles() {
    if (copy != nullptr) sqlite3_close(copy);
    if (tempFd >= 0) close(tempFd);
    RemoveTemporary();
    if (tempDirFd >= 0) close(tempDirFd);
    if (dirFd >= 0) close(dirFd);
  }
  std::string ViaDirectory() const {
    return "/proc/self/fd/" + std::to_string(tempDirFd) + "/" + kCopyName;
  }
  void RemoveTemporary() {
    if (tempDirFd >= 0 && copyNamed) unlinkat(tempDirFd, kCopyName, 0);
    copyNamed = false;
    if (!tempDirName.empty()) unlinkat(dirFd, tempDirName.c_str(), AT_REMOVEDIR);
    tempDirName.clear();
  }

  int dirFd = -1;
  int tempDirFd = -1;
  std::string tempDirName;  // empty once removed
  int tempFd = -1;
  bool copyNamed = false;  // false once renamed
  sqlite3* copy = nullptr;
};

// Where a backup stopped: the code for the record, SQLite's code and message
// (or 0 and the system's), and the step for the log line.
struct Failure {
  int code = 0;
  int sqliteCode = 0;
  std::string message;
  std::string step;
};

Failure PathFailure(const std::string& step) { return {ERR::BAD_PARAMETER, 0, "", step}; }

Failure SystemFailure(const std::string& step) {
  return {ERR::ERR_DATABASE_OPERATION, 0, strerror(errno), step + ": " + strerror(errno)};
}

Failure SqliteFailure(const std::string& step, int code, sqlite3* db) {
  const char* text = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(code);
  return {code == SQLITE_BUSY || code == SQLITE_LOCKED ? ERR::ERR_DATABASE_LOCK
                                                       : ERR::ERR_DATABASE_OPERATION,
          code, text, step + ": " + text};
}

bool SplitPath(const std::string& path, std::string& dir, std::string& base) {
  const size_t slash = path.rfind('/');
  base = slash == std::string::npos ? path : path.substr(slash + 1);
  if (slash == std::string::npos) {
    dir = ".";
  } else {
    dir = slash == 0 ? "/" : path.substr(0, slash);
  }
  return !base.empty() && base != "." && base != ".." && base.size() <= NAME_MAX;
}

bool CreateTemporary(BackupFiles& files) {
  unsigned char random[8];
  if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) return false;
  char hex[sizeof random * 2 + 1];
  for (size_t i = 0; i < sizeof random; ++i) snprintf(hex + 2 * i, 3, "%02x", random[i]);
  const std::string name = kTempPrefix + std::to_string(getpid()) + "." + hex;
  if (mkdirat(files.dirFd, name.c_str(), 0700) != 0) return false;
  files.tempDirName = name;
  // Ours as made, unless someone swapped the name meanwhile.
  files.tempDirFd =
      openat(files.dirFd, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat st;
  if (files.tempDirFd < 0 || fstat(files.tempDirFd, &st) != 0 || st.st_uid != geteuid() ||
      (st.st_mode & 077) != 0) {
    if (files.tempDirFd >= 0) files.tempDirName.clear();  // not ours to remove
    errno = EPERM;
    return false;
  }
  files.tempFd =
      openat(files.tempDirFd, kCopyName, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (files.tempFd < 0) return false;
  files.copyNamed = true;
  return true;
}

// The whole database in one step: one read transaction, so the copy is one
// consistent state; a busy source is retried as Exec retries.
bool Copy(sqlite3* source, BackupFiles& files, unsigned retryLimit, Failure& failure) {
  const char* vfs = DescriptorVfs();
  const int opened =
      sqlite3_open_v2(files.ViaDirectory().c_str(), &files.copy, SQLITE_OPEN_READWRITE, vfs);
  if (vfs == nullptr || opened != SQLITE_OK) {
    failure = SqliteFailure("open the copy", vfs == nullptr ? SQLITE_ERROR : opened, files.copy);
    return false;
  }
  // No journal beside the copy (nothing to roll back into, nothing a kill
  // could leave); one sync of the whole file follows.
  const int set = sqlite3_exec(files.copy, "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF",
                               nullptr, nullptr, nullptr);
  if (set != SQLITE_OK) {
    failure = SqliteFailure("set up the copy", set, files.copy);
    return false;
  }
  sqlite3_backup* backup = sqlite3_backup_init(files.copy, "main", source, "main");
  if (backup == nullptr) {
    failure = SqliteFailure("start the copy", sqlite3_errcode(files.copy), files.copy);
    return false;
  }
  int stepped;
  unsigned retries = 0;
  sqlite3_busy_handler(source, PollBusy, nullptr);
  while ((stepped = sqlite3_backup_step(backup, -1)) == SQLITE_BUSY || stepped == SQLITE_LOCKED) {
    if (++retries > retryLimit) break;
    RandomSleepInMSec(kRetryPauseMinMSec, kRetryPauseMaxMSec);
  }
  sqlite3_busy_timeout(source, kBusyTimeoutMSec);
  const int finished = sqlite3_backup_finish(backup);
  if (stepped != SQLITE_DONE) {
    failure = SqliteFailure("copy", stepped, nullptr);
    if (finished != SQLITE_OK) failure = SqliteFailure("copy", finished, files.copy);
    return false;
  }
  const int closed = sqlite3_close(files.copy);
  files.copy = nullptr;
  if (closed != SQLITE_OK) {
    failure = SqliteFailure("close the copy", closed, nullptr);
    return false;
  }
  // The pages carry the source's WAL marks: the copy is made a plain
  // rollback-journal database, which opens anywhere without -wal and -shm.
  unsigned char versions[2];
  if (pread(files.tempFd, versions, 2, 18) == 2 && (versions[0] == 2 || versions[1] == 2)) {
    const unsigned char legacy[2] = {1, 1};
    if (pwrite(files.tempFd, legacy, 2, 18) != 2) {
      failure = SystemFailure("write the copy");
      return false;
    }
  }
  if (fsync(files.tempFd) != 0) {
    failure = SystemFailure("sync the copy");
    return false;
  }
  return true;
}

// The copy as it is on disk, read through a connection of its own.
bool QuickCheck(BackupFiles& files, Failure& failure) {
  sqlite3* check = nullptr;
  int rc =
      sqlite3_open_v2(files.ViaDirectory().c_str(), &check, SQLITE_OPEN_READONLY, DescriptorVfs());
  sqlite3_stmt* stmt = nullptr;
  // Read through a mapping: the check reads every page once.
  if (rc == SQLITE_OK) {
    rc = sqlite3_exec(check, "PRAGMA mmap_size=1073741824", nullptr, nullptr, nullptr);
  }
  if (rc == SQLITE_OK) rc = sqlite3_prepare_v2(check, "PRAGMA quick_check", -1, &stmt, nullptr);
  std::string answer;
  int rows = 0;
  while (rc == SQLITE_OK && (rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    const unsigned char* text = sqlite3_column_text(stmt, 0);
    if (rows++ == 0 && text != nullptr) answer = reinterpret_cast<const char*>(text);
    rc = SQLITE_OK;
  }
  if (rc != SQLITE_DONE) {
    failure = SqliteFailure("check the copy", rc, check);
  } else if (rows != 1 || answer != "ok") {
    failure = {ERR::ERR_DATABASE_OPERATION, 0, answer, "check the copy: " + answer};
  }
  sqlite3_finalize(stmt);
  sqlite3_close(check);
  return rc == SQLITE_DONE && rows == 1 && answer == "ok";
}

// `seen` is the destination as first looked at (`existed` whether it was
// there): it must still be that file, or still be absent.
bool Replace(BackupFiles& files, const std::string& base, bool existed, const struct stat& seen,
             Failure& failure) {
  struct stat temp, named, now;
  if (fstat(files.tempFd, &temp) != 0 ||
      fstatat(files.tempDirFd, kCopyName, &named, AT_SYMLINK_NOFOLLOW) != 0 ||
      !SameFile(temp, named)) {
    failure = PathFailure("the copy was moved");
    return false;
  }
  int renamed;
  if (existed) {
    if (fstatat(files.dirFd, base.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 ||
        !SameFile(now, seen) || !Replaceable(now)) {
      failure = PathFailure("the destination changed during the backup");
      return false;
    }
    renamed = renameat(files.tempDirFd, kCopyName, files.dirFd, base.c_str());
  } else {
    // Whatever appeared meanwhile is left alone.
    renamed = renameat2(files.tempDirFd, kCopyName, files.dirFd, base.c_str(), RENAME_NOREPLACE);
    if (renamed != 0 && errno == EINVAL) {
      // A file system without the flag: checked just before, as above.
      renamed = fstatat(files.dirFd, base.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 ? -1 : 0;
      if (renamed == 0) {
        renamed = renameat(files.tempDirFd, kCopyName, files.dirFd, base.c_str());
      } else {
        errno = EEXIST;
      }
    }
    if (renamed != 0 && errno == EEXIST) {
      failure = PathFailure("the destination appeared during the backup");
      return false;
    }
  }
  if (renamed != 0) {
    failure = SystemFailure("rename the copy");
    return false;
  }
  files.copyNamed = false;
  files.RemoveTemporary();  // before the sync, which then covers it too
  const int dir = openat(files.dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool synced = dir >= 0 && fsync(dir) == 0;
  if (!synced) failure = SystemFailure("sync the directory");
  if (dir >= 0) close(dir);
  return synced;
}

}  // namespace

bool SqliteDB::Backup(const std::string& destPath) try {
  SetErr(ERR::ERR_UNKNOWN);
  const auto started = std::chrono::steady_clock::now();
  std::string dirPath, base;
  if (!SplitPath(destPath, dirPath, base)) {
    SetErr(ERR::BAD_PARAMETER);
    VLOG_ERR("Invalid backup path [%s] for db[%s]", destPath.c_str(), path_.c_str());
    return false;
  }
  if (!Open()) {
    if (GetErrCode() == ERR::ERR_UNKNOWN) SetErr(ERR::ERR_DATABASE_OPERATION);
    VLOG_ERR("Failed to open db [%s]", path_.c_str());
    return false;
  }
  BackupFiles files;
  Failure failure;
  struct stat dest, source;
  bool existed = false;
  files.dirFd = open(dirPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (sqlite3_get_autocommit(handle_) == 0) {
    failure = PathFailure("the connection is inside a transaction");
  } else if (files.dirFd < 0) {
    failure = PathFailure(std::string("no directory: ") + strerror(errno));
  } else if (fstatat(files.dirFd, base.c_str(), &dest, AT_SYMLINK_NOFOLLOW) == 0) {
    existed = true;
    if (!Replaceable(dest)) failure = PathFailure("not a regular file of this user");
    if (stat(path_.c_str(), &source) == 0 && SameFile(source, dest)) {
      failure = PathFailure("the destination is the database itself");
    }
  } else if (errno != ENOENT) {
    failure = PathFailure(std::string("destination: ") + strerror(errno));
  }
  if (failure.step.empty()) {
    RemoveLeftovers(files.dirFd);
    if (!CreateTemporary(files)) {
      failure = errno == EACCES || errno == EPERM || errno == EROFS
                    ? PathFailure(std::string("cannot create the copy: ") + strerror(errno))
                    : SystemFailure("create the copy");
    }
  }
  if (failure.step.empty() && Copy(handle_, files, retryLimit_, failure) &&
      QuickCheck(files, failure)) {
    // A new backup is as readable as the database; a replaced one keeps its
    // own mode and group.
    mode_t mode = stat(path_.c_str(), &source) == 0 ? (source.st_mode & 0777) : 0600;
    if (existed) {
      mode = dest.st_mode & 07777;
      if (fchown(files.tempFd, static_cast<uid_t>(-1), dest.st_gid) != 0) {
        VLOG_WARN("Backup [%s] keeps group [%u] from the writer: %m", destPath.c_str(),
                  static_cast<unsigned>(getegid()));
      }
    }
    if (fchmod(files.tempFd, mode) != 0) {
      failure = SystemFailure("set the copy's mode");
    } else {
      Replace(files, base, existed, dest, failure);
    }
  }
  if (!failure.step.empty()) {
    if (failure.code == ERR::BAD_PARAMETER) {
      SetErr(failure.code);
    } else {
      Json::Value detail(Json::objectValue);
      if (failure.sqliteCode != 0) detail["sqlite_errcode"] = Json::Int(failure.sqliteCode);
      detail[failure.sqliteCode != 0 ? "sqlite_errmsg" : "errmsg"] = failure.message;
      SetErr(failure.code, detail);
    }
    VLOG_ERR("Failed to back up db[%s] to [%s]: %s", path_.c_str(), destPath.c_str(),
             failure.step.c_str());
    return false;
  }
  struct stat written;
  const long long size = fstat(files.tempFd, &written) == 0 ? written.st_size : -1;
  const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - started)
                           .count();
  SetErr(0);
  VLOG_INFO("Backup of db[%s] to [%s] done: %lld bytes in %lld ms", path_.c_str(), destPath.c_str(),
            size, ms);
  return true;
}
VANTDR_CATCH_ALL(false)

}  // namespace VantDRCore
