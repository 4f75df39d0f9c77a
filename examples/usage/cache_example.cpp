// A cache shared by all processes: readers get the stored data at once,
// one process at a time refreshes it in the background.
#include <sys/statvfs.h>

#include <cstdio>

#include "vantdr/cache.h"

class FreeSpaceCache : public VantDRCore::Cache {
 public:
  FreeSpaceCache() : Cache("/tmp/vantdr_example_cache", "free_space", 60, false, 1) {}
  Json::Value GetCacheInfo() const override { return "free space of /tmp"; }
  Json::Value GetDefaultValue() const override { return Json::Value(Json::UInt64(0)); }
  bool GetUpdatedData(Json::Value& data) const override {
    struct statvfs fs;
    if (statvfs("/tmp", &fs) != 0) return false;
    data = Json::UInt64(fs.f_bavail) * Json::UInt64(fs.f_frsize);
    return true;
  }
  bool IsValidData(const Json::Value& data) const override { return data.isUInt64(); }
};

int main() {
  FreeSpaceCache cache;
  // The first read finds nothing stored: it starts a background refresh
  // and returns the default; later reads get the stored value.
  Json::Value bytes = cache.Read();
  std::printf("free bytes (may be the default at first): %s\n", bytes.asString().c_str());
  return 0;
}
