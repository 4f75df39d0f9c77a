// Shared set-up of the fuzz targets.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "vantdr/log.h"

namespace FuzzSupport {

inline void DropLogLine(int, const char*) {}

// Library log lines are formatted (so that code runs) but not sent anywhere.
inline void QuietLogs() { VantDRCore::SetLogSink(DropLogLine); }

// A private directory for the process, created once.
inline const std::string& WorkDir() {
  static const std::string dir = [] {
    // Under TMPDIR when set, so that scripts/fuzz removes only its own run's files.
    const char* base = getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/vantdr_fuzz.XXXXXX";
    return std::string(mkdtemp(pattern.data()) != nullptr ? pattern.c_str() : "/tmp");
  }();
  return dir;
}

// Replaces `path` with exactly `size` bytes of `data`.
inline bool WriteBytes(const std::string& path, const uint8_t* data, size_t size) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  bool ok = fwrite(data, 1, size, f) == size;
  return fclose(f) == 0 && ok;
}

}  // namespace FuzzSupport
