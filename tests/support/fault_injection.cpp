// The wrappers must define the plain and the 64-bit entry points as separate
// symbols (the library may bind to either), and fortified inline versions
// would clash with the definitions: declare them as glibc's base ABI does.
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
#include <sys/file.h>
#include <unistd.h>

namespace VantDRTest {
namespace Faults {
namespace {

struct State {
  bool armed = false;
  int counts[kCallKinds] = {};
  Call call = kOpen;
  int nth = 0;
  int error = 0;
  bool fired = false;
  int steps = 0;
  int stepNth = 0;
  int stepResult = 0;
  std::vector<unsigned> sleeps;
};

State& Current() {
  static State* state = new State();  // never destroyed: calls come until exit
  return *state;
}

}  // namespace

// Counts one call of `call`; true (errno set) when it is the one to fail.
bool Inject(Call call) {
  State& s = Current();
  if (!s.armed) return false;
  const int n = ++s.counts[call];
  if (call != s.call || n != s.nth) return false;
  s.fired = true;
  errno = s.error;
  return true;
}

void ForkedChild() { Current().armed = false; }

void RecordSleep(unsigned usec) {
  if (Current().armed) Current().sleeps.push_back(usec);
}

// The result sqlite3_step must give instead of stepping, or -1.
int StepOverride() {
  State& s = Current();
  if (!s.armed || ++s.steps != s.stepNth) return -1;
  return s.stepResult;
}

const char* Name(Call call) {
  static const char* const names[kCallKinds] = {"open",  "read",   "write",     "fsync",
                                                "close", "rename", "unlink",    "flock",
                                                "fork",  "pipe2",  "setresuid", "setresgid"};
  return call >= 0 && call < kCallKinds ? names[call] : "?";
}

const std::vector<int>& Errnos() {
  static const std::vector<int> errnos = {ENOSPC, EIO, EMFILE, EAGAIN, EINTR};
  return errnos;
}

const char* ErrnoName(int error) {
  switch (error) {
    case ENOSPC:
      return "ENOSPC";
    case EIO:
      return "EIO";
    case EMFILE:
      return "EMFILE";
    case EAGAIN:
      return "EAGAIN";
    case EINTR:
      return "EINTR";
    default:
      return "?";
  }
}

void Arm(Call call, int nth, int error) {
  State& s = Current();
  s.armed = false;
  for (int& count : s.counts) count = 0;
  s.call = call;
  s.nth = nth;
  s.error = error;
  s.fired = false;
  s.steps = 0;
  s.stepNth = 0;
  s.sleeps.clear();
  s.armed = true;
}

void Disarm() { Current().armed = false; }

int Count(Call call) { return Current().counts[call]; }

bool Fired() { return Current().fired; }

bool FiredOn(Call call) { return Current().fired && Current().call == call; }

const std::vector<unsigned>& Sleeps() { return Current().sleeps; }

void FailStep(int nth, int result) {
  Current().steps = 0;
  Current().stepNth = nth;
  Current().stepResult = result;
}

int Steps() { return Current().steps; }

}  // namespace Faults
}  // namespace VantDRTest

namespace {

using VantDRTest::Faults::Call;
using VantDRTest::Faults::Inject;

template <typename Fn>
Fn Next(Fn, const char* name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

mode_t ModeArgument(int flags, va_list ap) {
  return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(ap, mode_t) : 0;
}

}  // namespace

#define VANTDR_NEXT(name) static const auto next = Next(&::name, #name)
// Declares `mode`, the optional argument after `flags` of the open family.
#define VANTDR_MODE_ARGUMENT(flags)            \
  va_list ap;                                  \
  va_start(ap, flags);                         \
  const mode_t mode = ModeArgument(flags, ap); \
  va_end(ap)

using namespace VantDRTest::Faults;

extern "C" {

int open(const char* path, int flags, ...) {
  VANTDR_MODE_ARGUMENT(flags);
  if (Inject(kOpen)) return -1;
  VANTDR_NEXT(open);
  return next(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  VANTDR_MODE_ARGUMENT(flags);
  if (Inject(kOpen)) return -1;
  VANTDR_NEXT(open64);
  return next(path, flags, mode);
}

int openat(int dirFd, const char* path, int flags, ...) {
  VANTDR_MODE_ARGUMENT(flags);
  if (Inject(kOpen)) return -1;
  VANTDR_NEXT(openat);
  return next(dirFd, path, flags, mode);
}

int openat64(int dirFd, const char* path, int flags, ...) {
  VANTDR_MODE_ARGUMENT(flags);
  if (Inject(kOpen)) return -1;
  VANTDR_NEXT(openat64);
  return next(dirFd, path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
  if (Inject(kOpen)) return nullptr;
  VANTDR_NEXT(fopen);
  return next(path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
  if (Inject(kOpen)) return nullptr;
  VANTDR_NEXT(fopen64);
  return next(path, mode);
}

FILE* fdopen(int fd, const char* mode) noexcept {
  if (Inject(kOpen)) return nullptr;
  VANTDR_NEXT(fdopen);
  return next(fd, mode);
}

ssize_t read(int fd, void* buffer, size_t size) {
  if (Inject(kRead)) return -1;
  VANTDR_NEXT(read);
  return next(fd, buffer, size);
}

ssize_t pread64(int fd, void* buffer, size_t size, off64_t offset) {
  if (Inject(kRead)) return -1;
  VANTDR_NEXT(pread64);
  return next(fd, buffer, size, offset);
}

ssize_t write(int fd, const void* buffer, size_t size) {
  if (Inject(kWrite)) return -1;
  VANTDR_NEXT(write);
  return next(fd, buffer, size);
}

ssize_t pwrite64(int fd, const void* buffer, size_t size, off64_t offset) {
  if (Inject(kWrite)) return -1;
  VANTDR_NEXT(pwrite64);
  return next(fd, buffer, size, offset);
}

int fflush(FILE* stream) {
  if (stream != nullptr && Inject(kWrite)) return EOF;
  VANTDR_NEXT(fflush);
  return next(stream);
}

int fsync(int fd) {
  if (Inject(kFsync)) return -1;
  VANTDR_NEXT(fsync);
  return next(fd);
}

int fdatasync(int fd) {
  if (Inject(kFsync)) return -1;
  VANTDR_NEXT(fdatasync);
  return next(fd);
}

// Linux releases the descriptor even when close reports an error.
int close(int fd) {
  const bool fail = Inject(kClose);
  const int error = errno;
  VANTDR_NEXT(close);
  const int result = next(fd);
  if (!fail) return result;
  errno = error;
  return -1;
}

int fclose(FILE* stream) {
  const bool fail = Inject(kClose);
  const int error = errno;
  VANTDR_NEXT(fclose);
  const int result = next(stream);
  if (!fail) return result;
  errno = error;
  return EOF;
}

int rename(const char* from, const char* to) noexcept {
  if (Inject(kRename)) return -1;
  VANTDR_NEXT(rename);
  return next(from, to);
}

int renameat(int fromDir, const char* from, int toDir, const char* to) noexcept {
  if (Inject(kRename)) return -1;
  VANTDR_NEXT(renameat);
  return next(fromDir, from, toDir, to);
}

int linkat(int fromDir, const char* from, int toDir, const char* to, int flags) noexcept {
  if (Inject(kRename)) return -1;
  VANTDR_NEXT(linkat);
  return next(fromDir, from, toDir, to, flags);
}

int unlinkat(int dirFd, const char* path, int flags) noexcept {
  if (Inject(kUnlink)) return -1;
  VANTDR_NEXT(unlinkat);
  return next(dirFd, path, flags);
}

int unlink(const char* path) noexcept {
  if (Inject(kUnlink)) return -1;
  VANTDR_NEXT(unlink);
  return next(path);
}

int flock(int fd, int operation) noexcept {
  if (Inject(kFlock)) return -1;
  VANTDR_NEXT(flock);
  return next(fd, operation);
}

pid_t fork() noexcept {
  if (Inject(kFork)) return -1;
  VANTDR_NEXT(fork);
  const pid_t pid = next();
  if (pid == 0) ForkedChild();
  return pid;
}

int pipe2(int fds[2], int flags) noexcept {
  if (Inject(kPipe2)) return -1;
  VANTDR_NEXT(pipe2);
  return next(fds, flags);
}

int setresuid(uid_t ruid, uid_t euid, uid_t suid) noexcept {
  if (Inject(kSetresuid)) return -1;
  VANTDR_NEXT(setresuid);
  return next(ruid, euid, suid);
}

int setresgid(gid_t rgid, gid_t egid, gid_t sgid) noexcept {
  if (Inject(kSetresgid)) return -1;
  VANTDR_NEXT(setresgid);
  return next(rgid, egid, sgid);
}

int usleep(useconds_t usec) {
  RecordSleep(usec);
  VANTDR_NEXT(usleep);
  return next(usec);
}

int sqlite3_step(sqlite3_stmt* statement) {
  const int result = StepOverride();
  if (result >= 0) return result;
  VANTDR_NEXT(sqlite3_step);
  return next(statement);
}

}  // extern "C"
