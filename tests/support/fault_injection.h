// Counts the library's system calls and fails the nth call of one kind with a chosen errno.
// The wrappers (fault_injection.cpp) are defined in the test executable, which comes first in the
// lookup scope, so the library, SQLite and libstdc++ bind to them; they forward through
// dlsym(RTLD_NEXT). Not a preload (the sanitizer runtime must load first, and qemu-user needs it
// passed apart) nor --wrap (it renames only statically linked calls). Calls inside glibc (fopen's
// open, fflush's write) are reached through the entry points only.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace VantDRTest {
namespace Faults {

// Kinds of call; each groups the entry points that do that work.
enum Call {
  kOpen,        // open, open64, openat, openat64, fopen, fopen64, fdopen
  kRead,        // read, pread64
  kWrite,       // write, pwrite64, fflush
  kFsync,       // fsync, fdatasync
  kClose,       // close, fclose (the descriptor is released, as the kernel does)
  kRename,      // rename, renameat, linkat (the calls that name a file)
  kUnlink,      // unlink, unlinkat
  kFlock,       // flock
  kFork,        // fork
  kPipe2,       // pipe2
  kSetresuid,   // setresuid
  kSetresgid,   // setresgid
  kAllocation,  // operator new of at least 256 KiB (fault_allocation.cpp)
  kCallKinds
};

const char* Name(Call call);
const char* ErrnoName(int error);
// The errno values every call is failed with.
const std::vector<int>& Errnos();

// Starts counting calls (counts reset). With `nth` > 0 the nth call of `call` fails with `error`
// instead of running. Children forked while armed start disarmed.
void Arm(Call call = kOpen, int nth = 0, int error = 0);
void Disarm();  // counts stay readable
int Count(Call call);
bool Fired();             // the armed fault was injected
bool FiredOn(Call call);  // ... into a call of `call`
// Runs `observer` disarmed after every call of `call` that was not failed, with its result (a
// descriptor, a count, 0; -1 for a failure, 0 for a FILE*), so a test can look at what a call
// did or change the world between two calls. Arm clears it.
void Observe(Call call, std::function<void(long result)> observer);
// The arguments of usleep since Arm (counted, never failed).
const std::vector<unsigned>& Sleeps();

// Makes the nth allocation of at least `bytes` fail (0: none) apart from any armed fault; `bytes`
// 0 stops. LargeAllocations: those allocations since.
void FailAllocation(size_t bytes, int nth);
int LargeAllocations();

// Makes sqlite3_step return `result` on its nth call (0: never; Arm clears it) without stepping:
// SQLite cannot be made to report contention in the middle of a query's rows any other way.
void FailStep(int nth, int result);
int Steps();  // calls of sqlite3_step since Arm

}  // namespace Faults
}  // namespace VantDRTest
