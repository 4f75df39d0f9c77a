#include "vantdr/cache.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "vantcore/vlibc.h"

using namespace VantDRCore;
using namespace VantDRTest;

namespace {

Json::Value Data(int v) {
  Json::Value data;
  data["v"] = v;
  return data;
}

// Appends one line per fetch to a file, so fetches in children count too.
struct TestCache : Cache {
  TestCache(const std::string& dir, bool required, int retryLimit)
      : Cache(dir, "c", 100, required, retryLimit), limit(retryLimit), log(dir + "/fetches") {}
  Json::Value GetCacheInfo() const override { return "test"; }
  Json::Value GetDefaultValue() const override { return fallback; }
  bool GetUpdatedData(Json::Value& data) const override {
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (write(fd, "f\n", 2) != 2 || close(fd) != 0) return false;
    if (onFetch) onFetch();
    usleep(delayMs * 1000);
    data = Data(7);
    return !fail;
  }
  bool IsValidData(const Json::Value& data) const override {
    return data.isObject() && data.isMember("v");
  }
  int limit;
  std::string log;
  Json::Value fallback;
  int delayMs = 0;
  bool fail = false;
  std::function<void()> onFetch;
};

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool WaitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 1000 && !done(); ++i) usleep(10000);
  return done();
}

// Unprivileged, each write raises the group id once, which is logged.
int WriteAttempts(const TestCache& cache) {
  return RunUnprivileged([&] {
           LogCapture log;
           const std::string gaveUp = "Failed to write cache to file [" + cache.GetCachePath() +
                                      "] and reach retry limit[" + std::to_string(cache.limit) +
                                      "]";
           if (cache.UpdateWithData(Data(1)) || log.Count(gaveUp) != 1) return 90;
           int raises = 0;
           for (const LogLine& line : log.Lines())
             raises += line.text.find("WARNING: setresgid(-1, 0, -1)") != std::string::npos;
           return raises;
         })
      .exitCode;
}

class CacheTest : public ::testing::Test {
 protected:
  // A reader that waits for ever on a bad pid check fails instead of hanging.
  CacheTest() { alarm(30); }
  ~CacheTest() override {
    alarm(0);
    std::filesystem::remove_all("/tmp/.vantdr_lock" + dir.path());
  }
  int Fetches() { return static_cast<int>(ReadText(dir.File("fetches")).size() / 2); }
  void SetAge(long seconds) {
    struct timespec times[2] = {{time(nullptr) - seconds, 0}, {time(nullptr) - seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  TempDir dir;
  const std::string path = dir.File("c.cached"), pidPath = path + ".pid";
};

TEST_F(CacheTest, PathFallbackAndExactFreshness) {
  LogCapture log;
  EXPECT_EQ(TestCache("", false, 0).GetCachePath(), "/tmp/default_dr_cache");
  EXPECT_TRUE(log.Has("WARN", "Invalid dir[] and file[c] to cache"));
  TestCache cache(dir.path(), false, 0);
  EXPECT_EQ(cache.GetCachePath(), path);
  EXPECT_TRUE(cache.IsTimeout());  // no file yet
  ASSERT_TRUE(cache.UpdateWithData(Data(1)));
  for (int tries = 0; tries < 3; ++tries) {  // exact only while the clock stays in one second
    time_t before = time(nullptr);
    SetAge(100);
    bool stale = cache.IsTimeout();
    if (time(nullptr) != before) continue;
    EXPECT_FALSE(stale);
    break;
  }
  SetAge(101);
  EXPECT_TRUE(cache.IsTimeout());
}

TEST_F(CacheTest, MemoryCopyFollowsModificationTimeAndBadFilesFallBack) {
  TestCache cache(dir.path(), false, 0);
  ASSERT_TRUE(cache.UpdateWithData(Data(1)));
  // Rewritten behind the cache's back with the same time: memory is served.
  SetAge(10);
  EXPECT_EQ(cache.Read(), Data(1));
  ASSERT_TRUE(WriteText(path, R"({"cached_data":{"v":2}})"));
  SetAge(10);
  EXPECT_EQ(cache.Read(), Data(1));
  SetAge(20);
  EXPECT_EQ(cache.Read(), Data(2));
  // Without "cached_data" the old data stays; hostile shapes never throw.
  ASSERT_TRUE(WriteText(path, R"({"max_updated_time":9007199254740993})"));
  EXPECT_TRUE(cache.Load());
  EXPECT_EQ(cache.GetCachedData(), Data(2));
  EXPECT_EQ(cache.GetMaxUpdateTime(), 0);
  cache.fallback = Data(-1);
  LogCapture log;
  for (const char* text : {R"({"cached_data":{"v":3)", "[1,2]"}) {
    ASSERT_TRUE(WriteText(path, text));
    SetAge(30);
    EXPECT_EQ(cache.Read(), Data(-1)) << text;
    EXPECT_EQ(cache.GetMaxUpdateTime(), 0);
  }
  EXPECT_TRUE(log.Has("DEBUG", "Failed to load cache [" + path + "], use default cache data"));
  EXPECT_EQ(Fetches(), 0);
}

TEST_F(CacheTest, DocumentTimesAndInvalidData) {
  TestCache cache(dir.path(), false, 0);
  ASSERT_TRUE(cache.UpdateWithData(Data(1)));
  EXPECT_EQ(ReadText(path),
            R"({"begin_time_to_update":0,"cached_data":{"v":1},"finish_time_to_update":0,)"
            R"("info":"test","max_updated_time":0,"timeout":100,"updated_time":0.0})"
            "\n");
  ASSERT_TRUE(WriteText(path, R"({"max_updated_time":42})"));
  ASSERT_TRUE(cache.UpdateWithData(Data(2), 100, 110));
  EXPECT_EQ(ReadText(path),
            R"({"begin_time_to_update":100,"cached_data":{"v":2},"finish_time_to_update":110,)"
            R"("info":"test","max_updated_time":42,"timeout":100,"updated_time":10.0})"
            "\n");
  ASSERT_TRUE(cache.UpdateWithData(Data(3), 100, 200));
  ASSERT_TRUE(cache.UpdateWithData(Data(4), 100, 0));
  const std::string written = ReadText(path);
  EXPECT_NE(written.find(R"(0,"info":"test","max_updated_time":100,)"), std::string::npos);

  LogCapture log;
  EXPECT_FALSE(cache.UpdateWithData(Json::Value("x"), 1, 2));
  EXPECT_EQ(log.Summary(), std::vector<std::string>{R"(DEBUG UpdateWithData: ["x"] is not )"
                                                    R"(valid to update for cache ["test"])"});
  EXPECT_EQ(ReadText(path), written);
}

TEST_F(CacheTest, WriteAndFetchRetriesAreCounted) {
  if (geteuid() != 0) GTEST_SKIP();
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);  // a directory cannot be replaced by a file
  for (int limit : {-1, 0, 1}) {
    EXPECT_EQ(WriteAttempts(TestCache(dir.path(), false, limit)), limit + 2);
  }
  rmdir(path.c_str());

  TestCache cache(dir.path(), false, 0);
  cache.fail = true;
  LogCapture log;
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(cache.DoUpdate());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_EQ(Fetches(), 2);
  EXPECT_EQ(log.Count(R"(Failed to get updated cache ["test"] and reach the retry limit[0])"), 1);
  EXPECT_FALSE(Exists(path));
}

TEST_F(CacheTest, ConcurrentStaleReadersCauseOneDetachedFetch) {
  TestCache cache(dir.path(), false, 0);
  ASSERT_TRUE(cache.UpdateWithData(Data(1)));  // valid but stale: old data will do
  SetAge(200);
  cache.delayMs = 1500;
  std::vector<pid_t> readers;
  for (int i = 0; i < 8; ++i) {
    readers.push_back(StartChild([&] {
      if (!WaitFor([&] { return Exists(dir.File("go")); })) return 2;
      auto start = std::chrono::steady_clock::now();
      bool old = cache.Read() == Data(1);
      return old && std::chrono::steady_clock::now() - start < std::chrono::seconds(1) ? 0 : 1;
    }));
  }
  ASSERT_TRUE(WriteText(dir.File("go"), ""));
  for (pid_t reader : readers) EXPECT_EQ(WaitChild(reader).exitCode, 0);
  EXPECT_TRUE(WaitFor([&] { return Fetches() == 1 && !Exists(pidPath); }));
  usleep(300000);  // a late second updater would have fetched by now
  EXPECT_EQ(Fetches(), 1);
  EXPECT_EQ(cache.Read(), Data(7));
  // Our own stale read leaves no child to reap: the updater is adopted by init.
  SetAge(200);
  EXPECT_EQ(cache.Read(), Data(7));
  EXPECT_TRUE(WaitFor([&] { return Fetches() == 2 && !Exists(pidPath); }));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(CacheTest, RequiredReaderWaitsForRunningUpdater) {
  TestCache updater(dir.path(), true, 0);
  updater.delayMs = 1500;
  pid_t child = StartChild([&] { return updater.Update() ? 0 : 1; });
  ASSERT_TRUE(WaitFor([&] { return Exists(pidPath); }));
  LogCapture log;
  EXPECT_EQ(TestCache(dir.path(), true, 0).Read(), Data(7));
  EXPECT_TRUE(log.Has("DEBUG", "start to block wait cache [" + path + "] "));
  EXPECT_TRUE(log.Has("DEBUG", "finish to block wait cache [" + path + "] "));
  EXPECT_EQ(WaitChild(child).exitCode, 0);
  EXPECT_EQ(Fetches(), 1);
}

TEST_F(CacheTest, PidFilesOfDeadProcessesDoNotBlockAndOthersAreKept) {
  pid_t dead = StartChild([] { return 0; });
  WaitChild(dead);
  pid_t zombie = StartChild([] { return 0; });
  ASSERT_TRUE(WaitFor([&] { return VLIBCProcAlive(zombie) == 0; }));
  TestCache cache(dir.path(), true, 0);
  LogCapture log;
  for (pid_t gone : {dead, zombie}) {
    ASSERT_TRUE(WriteText(pidPath, std::to_string(gone) + "\n"));
    cache.Remove();
    EXPECT_EQ(cache.Read(), Data(7));
    EXPECT_FALSE(Exists(pidPath));
  }
  WaitChild(zombie);
  EXPECT_EQ(Fetches(), 2);
  EXPECT_EQ(log.Count("<--- Finish to update cache [" + path + "]"), 2);

  const pid_t other = StartChild([] { return pause(); });
  cache.onFetch = [&] { WriteText(pidPath, std::to_string(other) + "\n"); };
  cache.Remove();
  EXPECT_EQ(cache.Read(), Data(7));
  EXPECT_EQ(ReadText(pidPath), std::to_string(other) + "\n");
  EXPECT_TRUE(log.Has("DEBUG", "Failed to unset updating cache [" + pidPath +
                                   "] since different pid[" + std::to_string(other) + "]"));
  EXPECT_EQ(log.Count("<--- Finish to update cache [" + path + "]"), 2);
  kill(other, SIGKILL);
  WaitChild(other);
}

}  // namespace
