// Fault injection for the test suite: counts the library's system calls and
// fails the Nth call of one kind with a chosen errno.
//
// How: the calls are interposed by wrappers defined in the test executable
// (fault_injection.cpp). The executable comes first in the dynamic lookup
// scope, so libvantdrcore, SQLite and libstdc++ bind their calls of open,
// write, flock ... to these wrappers, which forward to the next definition
// (dlsym(RTLD_NEXT)). Chosen over an LD_PRELOAD shim because the sanitizer
// runtime must be the first object loaded and a preload must be passed to
// qemu-user separately; chosen over -Wl,--wrap because that renames calls
// only in objects linked statically, not in the shared library under test.
// Only the executables that link this harness see the wrappers; while nothing
// is armed they forward every call unchanged.
//
// Calls inside glibc (fopen opening its file, fflush writing) never reach
// interposed symbols: the walk reaches them through the entry points above.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace VantDRTest {
namespace Faults {

// Kinds of call; each groups the entry points that do that work.
enum Call {
  kOpen,       // open, open64, openat, openat64, fopen, fopen64, fdopen
  kRead,       // read, pread64
  kWrite,      // write, pwrite64, fflush
  kFsync,      // fsync, fdatasync
  kClose,      // close, fclose (the descriptor is released, as the kernel does)
  kRename,     // rename, renameat, linkat (the calls that name a file)
  kUnlink,     // unlink, unlinkat
  kFlock,      // flock
  kFork,       // fork
  kPipe2,      // pipe2
  kSetresuid,  // setresuid
  kSetresgid,  // setresgid
  kCallKinds
};

const char* Name(Call call);
// "ENOSPC", "EIO", ... for the errno values walked.
const char* ErrnoName(int error);
// The errno values every call is failed with.
const std::vector<int>& Errnos();

// Starts counting calls (counts reset). With `nth` > 0 the nth call of
// `call` fails with `error` instead of running; later calls run again.
// Children forked while armed start disarmed.
void Arm(Call call = kOpen, int nth = 0, int error = 0);
// Stops counting and injecting; counts stay readable.
void Disarm();
// Calls of `call` since Arm.
int Count(Call call);
// Whether the armed fault has been injected.
bool Fired();
// Whether it has been injected into a call of `call`.
bool FiredOn(Call call);
// Runs `observer` after every call of `call` that was not failed, with its
// result (a descriptor, a count, 0; -1 for a failure, 0 for a FILE*), so a
// test can look at what a call did or change the world between two calls.
// The observer runs disarmed; Arm clears it.
void Observe(Call call, std::function<void(long result)> observer);
// The arguments of usleep since Arm (usleep is counted, never failed).
const std::vector<unsigned>& Sleeps();

// Counts allocations (operator new) of at least `bytes` from now on and
// makes the nth of them fail (0: none fails); `bytes` 0 stops counting.
void FailAllocation(size_t bytes, int nth);
// Allocations of at least those bytes since FailAllocation.
int LargeAllocations();

// Makes sqlite3_step return `result` on its nth call from now on (0: never;
// Arm clears it) without stepping: SQLite cannot be made to report
// contention in the middle of a query's rows any other way.
void FailStep(int nth, int result);
// Calls of sqlite3_step since Arm.
int Steps();

}  // namespace Faults
}  // namespace VantDRTest
