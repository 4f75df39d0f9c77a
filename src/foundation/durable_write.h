/* The one file writer behind File::Write(path), JsonToFile and the pid file.
 * Plain C so that the platform layer's pid-file creation shares it; no
 * logging: callers report the step that failed. */
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
  VANTDR_WRITE_SYNC
};

/* Flag: the name itself is replaced, a link at it included, and nothing is
 * ever written in place (pid files: no link planted at any name is followed). */
#define VANTDR_WRITE_REPLACE_NAME 0x01

/* Writes `size` bytes to `path` and syncs them. Without flags, a plain file
 * is replaced atomically (readers see the old or the new content, a failure
 * keeps the old one, owner, group and mode are kept, the directory is
 * synced); wherever a replacement would show, the file is written in place
 * as fopen(path, "w") would. A new file gets `newMode` less the umask.
 * Returns VANTDR_WRITE_DONE or the failed step with errno set. */
__attribute__((visibility("hidden"))) enum VantDRWriteStep VantDRWriteFile(
    const char* path, const char* data, size_t size, unsigned newMode, int flags);

#ifdef __cplusplus
}

#include <string>

namespace VantDRCore {

enum class DurableWriteStep { kDone, kOpen, kWrite, kFlush, kSync };

// A JSON document file: 0666 less the umask when new.
inline DurableWriteStep WriteFileDurably(const std::string& path, const std::string& text) {
  return static_cast<DurableWriteStep>(
      VantDRWriteFile(path.c_str(), text.data(), text.size(), 0666, 0));
}

}  // namespace VantDRCore
#endif
