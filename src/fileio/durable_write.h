/* The one file writer behind File::Write(path), JsonToFile, the cache file
 * and the pid file. Plain C in a module of its own, below both the library
 * and the platform layer that use it; no logging: callers report the step
 * that failed. */
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The step at which a write stopped; errno tells why. */
enum VantDRWriteStep {
  VANTDR_WRITE_DONE = 0,
  VANTDR_WRITE_OPEN,
  VANTDR_WRITE_WRITE,
  VANTDR_WRITE_FLUSH,
  VANTDR_WRITE_SYNC,
  VANTDR_WRITE_REFUSED /* VANTDR_WRITE_OWN_FILE only: errno EACCES */
};

/* Flag: the name itself is replaced, a link at it included, and nothing is
 * ever written in place (pid files: no link planted at any name is followed). */
#define VANTDR_WRITE_REPLACE_NAME 0x01
/* Flag: one of the library's own files (the cache file): what is at the name
 * is trusted only as VantDROpenOwnFileAt trusts it; otherwise nothing is
 * written and the step is VANTDR_WRITE_REFUSED. */
#define VANTDR_WRITE_OWN_FILE 0x02

/* Writes `size` bytes to `path` and syncs them. The directory is resolved
 * once; everything after works through its descriptor. Without flags, a
 * plain file of the effective user is replaced atomically (readers see the
 * old or the new content, a failure keeps the old one, group and mode are
 * kept, the directory is synced); wherever a replacement would show, or
 * would hand a file to another owner, the file is written in place as
 * fopen(path, "w") would, except that a FIFO without a reader fails the
 * open instead of blocking. A new file gets `newMode` less the umask.
 * Returns VANTDR_WRITE_DONE or the failed step with errno set. */
__attribute__((visibility("hidden"))) enum VantDRWriteStep VantDRWriteFile(
    const char* path, const char* data, size_t size, unsigned newMode, int flags);

#ifdef __cplusplus
}

#include <string>

namespace VantDRCore {

enum class DurableWriteStep { kDone, kOpen, kWrite, kFlush, kSync, kRefused };

// A JSON document file: 0666 less the umask when new.
inline DurableWriteStep WriteFileDurably(const std::string& path, const std::string& text,
                                         int flags = 0) {
  return static_cast<DurableWriteStep>(
      VantDRWriteFile(path.c_str(), text.data(), text.size(), 0666, flags));
}

}  // namespace VantDRCore
#endif
