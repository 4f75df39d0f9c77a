/// @file
/// Advisory whole-file locks (flock) shared between processes, on lock files
/// kept in "/tmp/.vantdr_lock". Includes <sys/file.h>, so LOCK_SH, LOCK_EX
/// and LOCK_NB are at hand.
#pragma once

#include <sys/file.h>

#include <string>

#include "vantdr/export.h"

namespace VantDRCore {

/// One lock file, opened on demand and locked for one guarded operation.
/// Opening, locking and unlocking run with root effective ids, so processes
/// of different users share the same lock files. Locks belong to the open
/// file: two objects on the same name exclude each other even in one process.
/// Non-copyable, since two objects must not close the same descriptor.
///
/// A new lock file gets mode 01204 less the umask (sticky; owner write only,
/// group nothing, others read) and is opened read-only, which is all flock
/// needs. With root ids that never matters. A process that cannot raise its
/// ids (no root saved id) opens the file as itself: it can open a lock file
/// another user created (others may read) unless it is in the file's group,
/// it cannot reopen one it created itself (its owner may not read), and it
/// cannot create one in a lock directory root made (0755).
///
/// The lock directory, and every directory a name with slashes walks
/// through, is used only when root or the effective user owns it and nobody
/// else may write it (write bits for others on the user's own are removed,
/// so a careless umask never opens it); otherwise opening fails with EACCES.
/// Nothing at a lock name is followed if it is a link, and nothing but a
/// regular file is used, so a FIFO never blocks. The descriptor is
/// close-on-exec: a program the holder starts does not keep the lock.
class VANTDR_API FileLock {
 public:
  /// No lock file set: lock() fails until setLockFile().
  FileLock();
  /// The lock file of `name` (see getLockFilePath); not opened yet.
  explicit FileLock(const std::string& name);
  /// Closes the descriptor, which releases a lock still held through it. The
  /// lock file stays.
  ~FileLock();

  /// Not copyable: two objects must not close the same descriptor.
  FileLock(const FileLock&) = delete;
  /// Not assignable, for the same reason.
  FileLock& operator=(const FileLock&) = delete;

  /// "/tmp/.vantdr_lock/" + name, the name taken as it is (slashes and ".."
  /// included); "" with an ERR line for an empty name.
  static std::string getLockFilePath(const std::string& name);

  /// Points the object at the lock file of `name`. Refused (false) for an
  /// empty name, and while a different lock file is open.
  bool setLockFile(const std::string& name);

  /// Makes sure the lock file's directory exists (created 0755 when missing).
  bool checkLockDir() const;

  /// Opens (creating it if needed, mode 01204 less the umask) the lock file,
  /// or keeps the descriptor when it is already open on a regular file. Runs
  /// with the caller's ids; lock() calls it with root ids.
  bool openLockedFile();

  /// flock(operation) polled every 50 ms for up to `timeout` seconds; 0 makes
  /// exactly one attempt. `operation` is LOCK_SH or LOCK_EX, normally with
  /// LOCK_NB (without it the first attempt blocks and `timeout` is moot).
  /// True when the lock is held on return; a time-out is not logged.
  bool lock(int operation, unsigned timeout);

  /// Releases the lock; the file stays open for the next lock().
  void unlock() const;

  /// Whether `operation` could be taken right now: lock(operation, 0), then
  /// unlock() on success, so nothing is held afterwards. Without LOCK_NB in
  /// `operation` it blocks until the lock is free, like lock().
  bool tryLock(int operation);

  /// The lock file path; "" when none is set.
  const std::string& getLockFile() const { return path_; }
  /// The open descriptor, or -1.
  int getFd() const { return fd_; }

 private:
  int fd_;
  std::string path_;
};

}  // namespace VantDRCore
