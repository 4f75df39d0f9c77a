// Shared cache: a slow measurement kept in a file, refreshed in the background,
// and eight processes reading it at once when it is stale.
#include "vantdr/cache.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <vector>

#include "demo.h"
#include "vantdr/json_text.h"

namespace {

using Clock = std::chrono::steady_clock;

// The free space of a directory, measured slowly (as a remote query would be).
class FreeSpaceCache : public VantDRCore::Cache {
 public:
  FreeSpaceCache(const std::string& cacheDir, const std::string& measuredDir,
                 const std::string& fetchLog)
      : Cache(cacheDir, "free_space", 2, false, 1),
        measuredDir_(measuredDir),
        fetchLog_(fetchLog) {}

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
  // Every fetch leaves its pid in the fetch log, whichever process runs it.
  bool GetUpdatedData(Json::Value& data) const override {
    if (FILE* log = fopen(fetchLog_.c_str(), "a")) {
      fprintf(log, "%d\n", static_cast<int>(getpid()));
      fclose(log);
    }
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
  std::string fetchLog_;
};

std::vector<std::string> Lines(const std::string& path) {
  std::vector<std::string> lines;
  if (FILE* file = fopen(path.c_str(), "r")) {
    char line[64];
    while (fgets(line, sizeof line, file) != nullptr) lines.push_back(strtok(line, "\n"));
    fclose(file);
  }
  return lines;
}

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

// Makes the file look `seconds` old, as if it had been written back then.
void Age(const std::string& path, int seconds) {
  const time_t then = time(nullptr) - seconds;
  const struct timespec times[2] = {{then, 0}, {then, 0}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

void Run(const std::string& workDir) {
  using VantDRCore::JsonToString;
  const std::string fetchLog = workDir + "/fetches";
  FreeSpaceCache cache(workDir + "/cache", workDir, fetchLog);
  std::vector<std::vector<std::string>> rows;
  auto readNow = [&](const std::string& when) {
    auto start = Clock::now();
    Json::Value data = cache.Read();
    rows.push_back({when, JsonToString(data), Elapsed(start)});
  };

  Demo::Step("Free space of the work directory: 0.8 s to measure, stale after 2 s");
  Demo::Show("cache file", cache.GetCachePath());
  readNow("1st read, no file yet");
  WaitForUpdater(cache);
  readNow("after the background refresh");
  readNow("again: served from memory");
  Demo::Table({"read", "data returned", "took"}, rows);
  Demo::Note("the first reader gets GetDefaultValue() at once; a child fetches meanwhile");

  Demo::Step("The file made stale: its modification time set 10 s back (utimensat)");
  Age(cache.GetCachePath(), 10);
  remove(fetchLog.c_str());
  fflush(stdout);
  // Eight readers released together through one pipe; each reports a line.
  int go[2], report[2];
  if (pipe(go) != 0 || pipe(report) != 0) return;
  std::vector<pid_t> readers;
  for (int i = 0; i < 8; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      char byte;
      close(go[1]);
      if (read(go[0], &byte, 1) != 1) _exit(1);
      const auto start = Clock::now();
      const Json::Value data = cache.Read();
      char line[256];
      const int n = snprintf(line, sizeof line, "%d|%s|%s\n", static_cast<int>(getpid()),
                             Elapsed(start).c_str(), JsonToString(data).c_str());
      _exit(write(report[1], line, n) == n ? 0 : 1);
    }
    if (pid > 0) readers.push_back(pid);
  }
  close(go[0]);
  close(report[1]);
  const std::string all(readers.size(), 'x');
  if (write(go[1], all.data(), all.size()) < 0) return;
  close(go[1]);
  for (pid_t pid : readers) waitpid(pid, nullptr, 0);
  rows.clear();
  if (FILE* reports = fdopen(report[0], "r")) {
    char pid[16], took[16], data[200];
    while (fscanf(reports, "%15[^|]|%15[^|]|%199[^\n]\n", pid, took, data) == 3) {
      rows.push_back({std::string("reader ") + pid, data, took});
    }
    fclose(reports);
  }
  Demo::Table({"process", "data returned", "took"}, rows);
  WaitForUpdater(cache);
  const std::vector<std::string> fetchers = Lines(fetchLog);
  Demo::Show("fetches",
             std::to_string(fetchers.size()) + (fetchers.empty() ? "" : ", by pid " + fetchers[0]));
  Demo::Show("then Read()", JsonToString(cache.Read()));
  Demo::Note(
      "all 8 got the old data at once; one detached updater fetched, the rest saw its pid file");

  Json::Value doc;
  VantDRCore::JsonFromFile(doc, cache.GetCachePath());
  std::string members;
  for (const std::string& name : doc.getMemberNames())
    members += (members.empty() ? "" : " ") + name;
  Demo::Show("members of the file", members);
  Demo::Note("rewritten whole on each refresh; only cached_data and max_updated_time are read");

  cache.Remove();
  std::error_code ignored;
  std::filesystem::remove_all("/tmp/.vantdr_lock" + workDir, ignored);
}

}  // namespace

VANTDR_DEMO_SECTION(50, "Shared cache", Run);
