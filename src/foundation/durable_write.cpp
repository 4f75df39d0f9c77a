#include "foundation/durable_write.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace VantDRCore {
namespace {

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Creates a temporary file beside `path` that did not exist before: never
// follows a link planted under a guessable name (the cache writes as root in
// shared directories such as /tmp).
int CreateTemporary(const std::string& path, std::string& tmp) {
  static std::atomic<unsigned> counter{0};
  const std::string stem = path + ".tmp." + std::to_string(getpid()) + ".";
  for (int attempt = 0; attempt < 16; ++attempt) {
    tmp = stem + std::to_string(counter++);
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

// Syncs the directory entry of a renamed file; best effort.
void SyncParentDir(const std::string& path) {
  std::string::size_type slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    fsync(fd);
    close(fd);
  }
}

}  // namespace

DurableWriteStep WriteFileDurably(const std::string& path, const std::string& text) {
  struct stat st;
  const bool existed = stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
  std::string tmp;
  int fd = CreateTemporary(path, tmp);
  if (fd < 0) return DurableWriteStep::kOpen;
  DurableWriteStep step = DurableWriteStep::kDone;
  if (existed) {
    // The replacement takes the old file's owner (best effort: only root may
    // give a file away) and then its bits, which a change of owner may clear.
    if (st.st_uid != geteuid() || st.st_gid != getegid()) {
      (void)!fchown(fd, st.st_uid, st.st_gid);
    }
    fchmod(fd, st.st_mode & 07777);
  }
  if (!WriteAll(fd, text.data(), text.size())) {
    step = DurableWriteStep::kWrite;
  } else if (fsync(fd) != 0) {
    step = DurableWriteStep::kSync;
  }
  int saved = errno;
  if (close(fd) != 0 && step == DurableWriteStep::kDone) {
    step = DurableWriteStep::kFlush;
    saved = errno;
  }
  if (step == DurableWriteStep::kDone && rename(tmp.c_str(), path.c_str()) != 0) {
    step = DurableWriteStep::kRename;
    saved = errno;
  }
  if (step != DurableWriteStep::kDone) {
    unlink(tmp.c_str());
    errno = saved;
    return step;
  }
  SyncParentDir(path);
  return step;
}

}  // namespace VantDRCore
