// Counts the library's system calls and fails the nth of one kind. Wrappers in the executable
// come first in lookup scope and forward via dlsym(RTLD_NEXT): a preload must follow the sanitizer
// runtime, --wrap misses shared calls. Calls inside glibc are reached only via entry points.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace VantDRTest {
namespace Faults {

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
const std::vector<int>& Errnos();  // those every call is failed with

// Counts anew; nth > 0 fails the nth `call` with `error`. Forked children start disarmed.
void Arm(Call call = kOpen, int nth = 0, int error = 0);
void Disarm();  // counts stay readable
int Count(Call call);
bool Fired();             // the armed fault was injected
bool FiredOn(Call call);  // ... into a call of `call`
// observer(result; FILE*: 0, failure: -1), disarmed, after each unfailed `call`. Arm clears it.
void Observe(Call call, std::function<void(long result)> observer);
const std::vector<unsigned>& Sleeps();  // usleep's arguments since Arm; never failed

// Fails the nth allocation of at least `bytes` (0: none), apart from any armed fault.
void FailAllocation(size_t bytes, int nth);
int LargeAllocations();  // allocations of at least `bytes` since

// sqlite3_step's nth call returns `result` unstepped: the only way to show contention mid-rows.
void FailStep(int nth, int result);
int Steps();  // calls of sqlite3_step since Arm

}  // namespace Faults
}  // namespace VantDRTest
