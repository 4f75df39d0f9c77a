/// @file
/// The privileged section: raises the effective user and group ids to root
/// for exactly the lifetime of one guard object, and restores them after.
///
/// Entering and leaving write fixed lines without the common log prefix, at
/// LOG_AUTH|LOG_DEBUG (39) for each id changed and LOG_AUTH|LOG_ERR (35) for
/// each failure. A failure to raise is only logged (errno is left at 1): the
/// guarded operation still runs, with the caller's own ids. Real and saved
/// ids are never changed. A process that is already root changes nothing
/// and logs nothing. Process-wide: never enter from two threads at once.
#pragma once

#include <sys/types.h>

#include "vantdr/export.h"
#include "vantdr/log.h"

namespace VantDRCore {

/// The guard object: effective ids raised to root from construction to
/// destruction. Use VANTDR_PRIVILEGED_SECTION to declare one.
class VANTDR_API PrivilegedSection {
 public:
  /// Raises the effective ids to root. `file` and `line` name the guarded
  /// operation in the log lines.
  PrivilegedSection(const char* file, int line);
  /// Restores the effective ids the constructor found.
  ~PrivilegedSection();

  PrivilegedSection(const PrivilegedSection&) = delete;
  PrivilegedSection& operator=(const PrivilegedSection&) = delete;

 private:
  void Enter();
  void Leave();

  const char* file_;
  int line_;
  uid_t savedEuid_;
  gid_t savedEgid_;
};

}  // namespace VantDRCore

/// Declares a guard named `name` for the rest of the enclosing scope.
#define VANTDR_PRIVILEGED_SECTION(name) \
  ::VantDRCore::PrivilegedSection name(VANTDR_FILE_NAME, __LINE__)
