// Shared cache: a slow measurement kept in a file, refreshed in the background.
#include "vantdr/cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>

#include "demo.h"
#include "vantdr/json_text.h"

namespace {

using Clock = std::chrono::steady_clock;

// The free space of a directory, measured slowly (as a remote query would be).
class FreeSpaceCache : public VantDRCore::Cache {
 public:
  FreeSpaceCache(const std::string& cacheDir, const std::string& measuredDir)
      : Cache(cacheDir, "free_space", 2, false, 1), measuredDir_(measuredDir) {}

  Json::Value GetCacheInfo() const override {
    Json::Value info;
    info["name"] = "free space";
    info["dir"] = measuredDir_;
    return info;
  }
  // Valid, so that a first reader is served at once instead of waiting.
  Json::Value GetDefaultValue() const override {
    Json::Value data;
    data["free_mb"] = -1;
    data["measured_at"] = "never";
    return data;
  }
  bool GetUpdatedData(Json::Value& data) const override {
    usleep(800 * 1000);
    struct statvfs fs;
    if (statvfs(measuredDir_.c_str(), &fs) != 0) return false;
    data["free_mb"] = static_cast<Json::UInt64>(fs.f_bavail) * fs.f_frsize / (1024 * 1024);
    char stamp[16];
    time_t now = time(nullptr);
    strftime(stamp, sizeof stamp, "%H:%M:%S", localtime(&now));
    data["measured_at"] = stamp;
    return true;
  }
  bool IsValidData(const Json::Value& data) const override {
    return data.isObject() && data.isMember("free_mb") && data.isMember("measured_at");
  }

 private:
  std::string measuredDir_;
};

std::string Elapsed(Clock::time_point start) {
  auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
  return us < 10000 ? std::to_string(us) + " us" : std::to_string(us / 1000) + " ms";
}

// The background updater is a detached process: watch its pid file go.
void WaitForUpdater(const FreeSpaceCache& cache) {
  const std::string pidPath = cache.GetCachePath() + ".pid";
  for (int i = 0; i < 300 && access(pidPath.c_str(), F_OK) != 0; ++i) usleep(10000);
  for (int i = 0; i < 500 && access(pidPath.c_str(), F_OK) == 0; ++i) usleep(10000);
}

void Run(const std::string& workDir) {
  using VantDRCore::JsonToString;
  FreeSpaceCache cache(workDir + "/cache", workDir);
  std::vector<std::vector<std::string>> rows;
  auto read = [&](const std::string& when) {
    auto start = Clock::now();
    Json::Value data = cache.Read();
    rows.push_back({when, JsonToString(data), Elapsed(start)});
  };

  Demo::Step("A cache of the free space of " + workDir + " (0.8 s to measure, stale after 2 s)");
  Demo::Show("cache file", cache.GetCachePath());
  read("1st read, no file yet");
  WaitForUpdater(cache);
  read("after the background refresh");
  read("again: served from memory");

  // Age the file instead of waiting for it to go stale.
  struct timespec old[2] = {{time(nullptr) - 10, 0}, {time(nullptr) - 10, 0}};
  utimensat(AT_FDCWD, cache.GetCachePath().c_str(), old, 0);
  read("file 10 s old: stale");
  WaitForUpdater(cache);
  read("after the second refresh");
  Demo::Table({"read", "data returned", "took"}, rows);

  Demo::Step("The document every process shares");
  Json::Value doc;
  VantDRCore::JsonFromFile(doc, cache.GetCachePath());
  for (const char* key : {"cached_data", "info", "timeout", "updated_time", "max_updated_time"}) {
    Demo::Show(key, JsonToString(doc.isObject() ? doc.get(key, Json::Value()) : Json::Value()));
  }

  cache.Remove();
  std::error_code ignored;
  std::filesystem::remove_all("/tmp/.vantdr_lock" + workDir, ignored);
}

}  // namespace

VANTDR_DEMO_SECTION(50, "Shared cache", Run);
