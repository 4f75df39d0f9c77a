#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <string>

#include "support/temp_dir.h"
#include "vantdr/cache.h"

namespace VantDRTest {

inline Json::Value Data(int v) {
  Json::Value data;
  data["v"] = v;
  return data;
}

inline bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Polls `done` every 10 ms for at most `seconds`.
inline bool WaitFor(const std::function<bool()>& done, double seconds = 10) {
  for (int i = 0; i < seconds * 100 && !done(); ++i) usleep(10000);
  return done();
}

// Cache "c", valid data has "v"; a fetch is counted in <dir>/fetches (children too), runs
// onFetch, waits delayMs or for <dir>/release, and yields {"v": value} (fails when `fail`).
struct TestCache : VantDRCore::Cache {
  explicit TestCache(const std::string& dir, bool required = false, int retryLimit = 0,
                     long timeout = 100)
      : Cache(dir, "c", timeout, required, retryLimit), dir(dir) {}
  Json::Value GetCacheInfo() const override { return "test"; }
  Json::Value GetDefaultValue() const override { return fallback; }
  bool GetUpdatedData(Json::Value& data) const override {
    const int fd = open((dir + "/fetches").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd >= 0 && (write(fd, "f\n", 2) != 2 || close(fd) != 0)) return false;
    if (onFetch) onFetch();
    WaitFor([&] { return Exists(dir + "/release"); }, delayMs / 1000.0);
    data = Data(value);
    return !fail;
  }
  bool IsValidData(const Json::Value& data) const override {
    return data.isObject() && data.isMember("v");
  }
  int Fetches() const { return static_cast<int>(ReadText(dir + "/fetches").size() / 2); }
  // Sets the file's modification time `age` seconds before `now`.
  bool SetAge(long age, time_t now = time(nullptr)) const {
    const struct timespec times[2] = {{now - age, 0}, {now - age, 0}};
    return utimensat(AT_FDCWD, GetCachePath().c_str(), times, 0) == 0;
  }

  const std::string dir;
  Json::Value fallback;
  int delayMs = 0, value = 7;
  bool fail = false;
  std::function<void()> onFetch;
};

// A hang fails the test, not the suite; the caches' lock files go afterwards.
class CacheFixture : public ::testing::Test {
 protected:
  CacheFixture() { alarm(60); }
  ~CacheFixture() override {
    alarm(0);
    std::filesystem::remove_all("/tmp/.vantdr_lock" + dir.path());
  }
  TempDir dir;
};

}  // namespace VantDRTest
