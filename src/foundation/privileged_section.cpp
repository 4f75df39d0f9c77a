#include "vantdr/privileged_section.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace VantDRCore {
namespace {

constexpr int kErrorPriority = LOG_AUTH | LOG_ERR;      // 35
constexpr int kWarningPriority = LOG_AUTH | LOG_DEBUG;  // 39

// Calls setresuid/setresgid(-1, id, -1) and writes its WARNING or ERROR line.
// Returns false (errno 1) on failure, after the ERROR line and `phase`.
bool SetEffective(const char* file, int line, bool user, unsigned id, bool logSuccess,
                  const char* phase) {
  const char* which = user ? "resuid" : "resgid";
  int rc = user ? setresuid(static_cast<uid_t>(-1), id, static_cast<uid_t>(-1))
                : setresgid(static_cast<gid_t>(-1), id, static_cast<gid_t>(-1));
  if (rc != 0) {
    char reason[1024];
    memset(reason, 0, sizeof reason);
    const char* text = strerror_r(errno, reason, sizeof reason);
    LogRaw(kErrorPriority, "%s:%d ERROR: set%s(%d, %d, %d) [%s]", file, line, which, -1,
           static_cast<int>(id), -1, text);
    errno = 1;
    LogRaw(kErrorPriority, "%s:%d ERROR: %s", file, line, phase);
    errno = 1;
    return false;
  }
  if (logSuccess) {
    LogRaw(kWarningPriority, "%s:%d WARNING: set%s(%d, %d, %d)", file, line, which, -1,
           static_cast<int>(id), -1);
  }
  return true;
}

}  // namespace

PrivilegedSection::PrivilegedSection(const char* file, int line)
    : file_(file), line_(line), savedEuid_(geteuid()), savedEgid_(getegid()) {
  Enter();
}

PrivilegedSection::~PrivilegedSection() { Leave(); }

void PrivilegedSection::Enter() {
  static const char kPhase[] = "ENTERCriticalSection";
  if (savedEgid_ != 0 && !SetEffective(file_, line_, false, 0, true, kPhase)) return;
  if (savedEuid_ == 0) {
    errno = 0;
    return;
  }
  if (SetEffective(file_, line_, true, 0, true, kPhase)) errno = 0;
}

void PrivilegedSection::Leave() {
  static const char kPhase[] = "LEAVECriticalSection";
  const uid_t euid = geteuid();
  const gid_t egid = getegid();
  if (euid == savedEuid_ && egid == savedEgid_) {
    errno = 0;
    return;
  }
  const bool userChanged = euid != savedEuid_;
  // Root first, so that the group may be changed back.
  if (userChanged && !SetEffective(file_, line_, true, 0, true, kPhase)) return;
  if (egid != savedEgid_ &&
      !SetEffective(file_, line_, false, savedEgid_, savedEgid_ == 0, kPhase)) {
    return;
  }
  if (userChanged && !SetEffective(file_, line_, true, savedEuid_, savedEuid_ == 0, kPhase)) {
    return;
  }
  errno = 0;
}

}  // namespace VantDRCore
