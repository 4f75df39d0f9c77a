// Plain and 64-bit entry points are separate symbols (the library may bind to either), and
// fortified inline versions would clash: declare them as the C library's base ABI does.
#undef _FORTIFY_SOURCE
#undef _TIME_BITS
#undef _FILE_OFFSET_BITS

#include "support/fault_injection.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <type_traits>
#include <utility>

namespace VantDRTest {
namespace Faults {
namespace {

struct State {
  bool armed = false, fired = false;
  int counts[kCallKinds] = {};
  Call call = kOpen;
  int nth = 0, error = 0, steps = 0, stepNth = 0, stepResult = 0;
  std::vector<unsigned> sleeps;
  Call observed = kCallKinds;
  std::function<void(long)> observer;
};

State& Current() {
  static State* state = new State();  // never destroyed: calls come until exit
  return *state;
}

}  // namespace

// Counts one call of `call`; true (errno set) when it is the one to fail.
bool Inject(Call call) {
  State& s = Current();
  if (!s.armed || ++s.counts[call] != s.nth || call != s.call) return false;
  s.fired = true;
  errno = s.error;
  return true;
}

template <typename T>
T Observed(Call call, T result) {
  State& s = Current();
  if (!s.armed || call != s.observed || !s.observer) return result;
  const int saved = errno;
  s.armed = false;
  if constexpr (std::is_pointer<T>::value)
    s.observer(result == nullptr ? -1 : 0);
  else
    s.observer(static_cast<long>(result));
  s.armed = true;
  errno = saved;
  return result;
}

const char* Name(Call call) {
  static const char* const names[kCallKinds] = {
      "open",  "read", "write", "fsync",     "close",     "rename",          "unlink",
      "flock", "fork", "pipe2", "setresuid", "setresgid", "large allocation"};
  return call >= 0 && call < kCallKinds ? names[call] : "?";
}

const std::vector<int>& Errnos() {
  static const std::vector<int> errnos = {ENOSPC, EIO, EMFILE, EAGAIN, EINTR};
  return errnos;
}

const char* ErrnoName(int error) { return strerrorname_np(error); }

void Arm(Call call, int nth, int error) {
  State& s = Current() = State();
  s.call = call;
  s.nth = nth;
  s.error = error;
  s.armed = true;
}

void Disarm() { Current().armed = false; }
int Count(Call call) { return Current().counts[call]; }
bool Fired() { return Current().fired; }
bool FiredOn(Call call) { return Current().fired && Current().call == call; }
const std::vector<unsigned>& Sleeps() { return Current().sleeps; }

int Steps() { return Current().steps; }
void Observe(Call call, std::function<void(long)> observer) {
  Current().observed = call;
  Current().observer = std::move(observer);
}
void FailStep(int nth, int result) {
  Current().steps = 0;
  Current().stepNth = nth;
  Current().stepResult = result;
}

}  // namespace Faults
}  // namespace VantDRTest

namespace {

using namespace VantDRTest::Faults;

template <typename Fn>
Fn Next(Fn, const char* name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

mode_t ModeArgument(int flags, va_list ap) {
  return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(ap, mode_t) : 0;
}

}  // namespace

#define VANTDR_NEXT(name) static const auto next = Next(&::name, #name)
#define VANTDR_FAIL(type, name, kind, failed, params, args, except) \
  type name params except {                                         \
    if (Inject(kind)) return failed;                                \
    VANTDR_NEXT(name);                                              \
    return Observed(kind, next args);                               \
  }
// The open family: `mode` follows `flags` only when a file may be created.
#define VANTDR_OPEN(name, params, args)          \
  int name params {                              \
    va_list ap;                                  \
    va_start(ap, flags);                         \
    const mode_t mode = ModeArgument(flags, ap); \
    va_end(ap);                                  \
    if (Inject(kOpen)) return -1;                \
    VANTDR_NEXT(name);                           \
    return Observed(kOpen, next args);           \
  }

extern "C" {

VANTDR_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
VANTDR_OPEN(open64, (const char* path, int flags, ...), (path, flags, mode))
VANTDR_OPEN(openat, (int dirFd, const char* path, int flags, ...), (dirFd, path, flags, mode))
VANTDR_OPEN(openat64, (int dirFd, const char* path, int flags, ...), (dirFd, path, flags, mode))
VANTDR_FAIL(FILE*, fopen, kOpen, nullptr, (const char* path, const char* mode), (path, mode), )
VANTDR_FAIL(FILE*, fopen64, kOpen, nullptr, (const char* path, const char* mode), (path, mode), )
VANTDR_FAIL(FILE*, fdopen, kOpen, nullptr, (int fd, const char* mode), (fd, mode), noexcept)
VANTDR_FAIL(ssize_t, read, kRead, -1, (int fd, void* buffer, size_t size), (fd, buffer, size), )
VANTDR_FAIL(ssize_t, pread64, kRead, -1, (int fd, void* buffer, size_t size, off64_t offset),
            (fd, buffer, size, offset), )
VANTDR_FAIL(ssize_t, write, kWrite, -1, (int fd, const void* buffer, size_t size),
            (fd, buffer, size), )
VANTDR_FAIL(ssize_t, pwrite64, kWrite, -1,
            (int fd, const void* buffer, size_t size, off64_t offset), (fd, buffer, size, offset), )
VANTDR_FAIL(int, fsync, kFsync, -1, (int fd), (fd), )
VANTDR_FAIL(int, fdatasync, kFsync, -1, (int fd), (fd), )
VANTDR_FAIL(int, rename, kRename, -1, (const char* from, const char* to), (from, to), noexcept)
VANTDR_FAIL(int, renameat, kRename, -1, (int fromDir, const char* from, int toDir, const char* to),
            (fromDir, from, toDir, to), noexcept)
VANTDR_FAIL(int, linkat, kRename, -1,
            (int fromDir, const char* from, int toDir, const char* to, int flags),
            (fromDir, from, toDir, to, flags), noexcept)
VANTDR_FAIL(int, unlinkat, kUnlink, -1, (int dirFd, const char* path, int flags),
            (dirFd, path, flags), noexcept)
VANTDR_FAIL(int, unlink, kUnlink, -1, (const char* path), (path), noexcept)
VANTDR_FAIL(int, flock, kFlock, -1, (int fd, int operation), (fd, operation), noexcept)
VANTDR_FAIL(int, pipe2, kPipe2, -1, (int fds[2], int flags), (fds, flags), noexcept)
VANTDR_FAIL(int, setresuid, kSetresuid, -1, (uid_t r, uid_t e, uid_t s), (r, e, s), noexcept)
VANTDR_FAIL(int, setresgid, kSetresgid, -1, (gid_t r, gid_t e, gid_t s), (r, e, s), noexcept)

int fflush(FILE* stream) {  // fflush(nullptr) at exit is never failed
  if (stream != nullptr && Inject(kWrite)) return EOF;
  VANTDR_NEXT(fflush);
  return next(stream);
}

// Linux releases the descriptor even when close reports an error.
#define VANTDR_RELEASE(name, type, failed) \
  int name(type handle) {                  \
    const bool fail = Inject(kClose);      \
    const int error = errno;               \
    VANTDR_NEXT(name);                     \
    const int result = next(handle);       \
    if (!fail) return result;              \
    errno = error;                         \
    return failed;                         \
  }
VANTDR_RELEASE(close, int, -1)
VANTDR_RELEASE(fclose, FILE*, EOF)

pid_t fork() noexcept {
  if (Inject(kFork)) return -1;
  VANTDR_NEXT(fork);
  const pid_t pid = next();
  if (pid == 0) Current().armed = false;
  return pid;
}

int usleep(useconds_t usec) {
  if (Current().armed) Current().sleeps.push_back(usec);
  VANTDR_NEXT(usleep);
  return next(usec);
}

int sqlite3_step(sqlite3_stmt* statement) {
  State& s = Current();
  if (s.armed && ++s.steps == s.stepNth) return s.stepResult;
  VANTDR_NEXT(sqlite3_step);
  return next(statement);
}

}  // extern "C"
