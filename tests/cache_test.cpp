#include "vantdr/cache.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "vantcore/vlibc.h"
#include "vantdr/json_text.h"

using namespace VantDRCore;
using namespace VantDRTest;

namespace {

Json::Value Data(int v) {
  Json::Value data;
  data["v"] = v;
  return data;
}

// Appends one line per fetch to a file, so fetches in children count too.
class TestCache : public Cache {
 public:
  TestCache(const std::string& dir, long timeout, bool required, int retryLimit)
      : Cache(dir, "c", timeout, required, retryLimit), log_(dir + "/fetches") {}
  Json::Value GetCacheInfo() const override { return "test"; }
  Json::Value GetDefaultValue() const override { return fallback; }
  bool GetUpdatedData(Json::Value& data) const override {
    int fd = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (write(fd, "f\n", 2) != 2) return false;
    close(fd);
    if (onFetch) onFetch();
    usleep(delayMs * 1000);
    data = next;
    return !fail;
  }
  bool IsValidData(const Json::Value& data) const override {
    return data.isObject() && data.isMember("v");
  }

  Json::Value fallback, next = Data(7);
  int delayMs = 0;
  bool fail = false;
  std::function<void()> onFetch;

 private:
  std::string log_;
};

class CacheTest : public ::testing::Test {
 protected:
  // A reader that waits for ever on a bad pid check fails instead of hanging.
  CacheTest() { alarm(30); }
  ~CacheTest() override {
    alarm(0);
    std::filesystem::remove_all("/tmp/.vantdr_lock" + dir.path());
  }
  int Fetches() { return static_cast<int>(ReadText(dir.File("fetches")).size() / 2); }
  std::string Path() { return dir.File("c.cached"); }
  void SetAge(long seconds) {
    struct timespec times[2] = {{time(nullptr) - seconds, 0}, {time(nullptr) - seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, Path().c_str(), times, 0), 0);
  }
  static bool WaitFor(const std::function<bool()>& done) {
    for (int i = 0; i < 1000 && !done(); ++i) usleep(10000);
    return done();
  }
  TempDir dir;
};

TEST_F(CacheTest, PathFallbackAndExactFreshness) {
  LogCapture log;
  EXPECT_EQ(TestCache(dir.path(), 1, false, 0).GetCachePath(), Path());
  EXPECT_EQ(TestCache("", 1, false, 0).GetCachePath(), "/tmp/default_dr_cache");
  EXPECT_TRUE(log.Has("WARN", "Invalid dir[] and file[c] to cache"));
  ASSERT_TRUE(WriteText(dir.File("plain"), "x"));
  EXPECT_EQ(TestCache(dir.File("plain/sub"), 1, false, 0).GetCachePath(), "/tmp/default_dr_cache");
  EXPECT_TRUE(log.Has("ERR", "Failed to create [" + dir.File("plain/sub") + "]"));

  TestCache cache(dir.path(), 100, false, 0);
  EXPECT_TRUE(cache.IsTimeout());  // no file yet
  ASSERT_TRUE(cache.UpdateWithData(Data(1)));
  for (int tries = 0; tries < 3; ++tries) {  // the check is exact only within one second
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
  TestCache cache(dir.path(), 100, false, 0);
  ASSERT_TRUE(cache.UpdateWithData(Data(1)));
  SetAge(10);
  EXPECT_EQ(cache.Read(), Data(1));
  // Rewritten behind the cache's back with the same time: memory is served.
  ASSERT_TRUE(WriteText(Path(), R"({"cached_data":{"v":2}})"));
  SetAge(10);
  EXPECT_EQ(cache.GetCachedData(), Data(1));
  SetAge(20);
  EXPECT_EQ(cache.GetCachedData(), Data(2));
  // A document without "cached_data" keeps the old data; hostile shapes load nothing.
  ASSERT_TRUE(WriteText(Path(), R"({"max_updated_time":9007199254740993})"));
  EXPECT_TRUE(cache.Load());
  EXPECT_EQ(cache.GetCachedData(), Data(2));
  EXPECT_EQ(cache.GetMaxUpdateTime(), 0);

  cache.fallback = Data(-1);
  LogCapture log;
  for (const char* text : {R"({"cached_data":{"v":3)", "[1,2]", "\"text\""}) {
    ASSERT_TRUE(WriteText(Path(), text));
    SetAge(30);
    EXPECT_EQ(cache.Read(), Data(-1)) << text;
    EXPECT_EQ(cache.GetMaxUpdateTime(), 0);
  }
  EXPECT_TRUE(log.Has("DEBUG", "Failed to load cache [" + Path() + "], use default cache data"));
  EXPECT_EQ(Fetches(), 0);
}

TEST_F(CacheTest, DocumentTimesAndInvalidData) {
  TestCache cache(dir.path(), 100, false, 0);
  ASSERT_TRUE(cache.UpdateWithData(Data(1)));
  EXPECT_EQ(ReadText(Path()),
            R"({"begin_time_to_update":0,"cached_data":{"v":1},"finish_time_to_update":0,)"
            R"("info":"test","max_updated_time":0,"timeout":100,"updated_time":0.0})"
            "\n");
  ASSERT_TRUE(WriteText(Path(), R"({"max_updated_time":42})"));
  ASSERT_TRUE(cache.UpdateWithData(Data(2), 100, 110));
  EXPECT_EQ(ReadText(Path()),
            R"({"begin_time_to_update":100,"cached_data":{"v":2},"finish_time_to_update":110,)"
            R"("info":"test","max_updated_time":42,"timeout":100,"updated_time":10.0})"
            "\n");
  ASSERT_TRUE(cache.UpdateWithData(Data(3), 100, 200));
  EXPECT_EQ(cache.GetMaxUpdateTime(), 100);
  ASSERT_TRUE(cache.UpdateWithData(Data(4), 100, 0));
  const std::string written = ReadText(Path());
  EXPECT_NE(written.find(R"("begin_time_to_update":0,)"), std::string::npos);
  EXPECT_NE(written.find(R"("max_updated_time":100,)"), std::string::npos);

  LogCapture log;
  EXPECT_FALSE(cache.UpdateWithData(Json::Value("x"), 1, 2));
  EXPECT_EQ(log.Summary(),
            std::vector<std::string>{
                R"(DEBUG UpdateWithData: ["x"] is not valid to update for cache ["test"])"});
  EXPECT_EQ(ReadText(Path()), written);
}

TEST_F(CacheTest, WriteAndFetchRetriesAreCounted) {
  if (geteuid() != 0) GTEST_SKIP();
  ASSERT_EQ(mkdir(Path().c_str(), 0755), 0);  // a directory cannot be replaced by a file
  for (int limit : {-1, 0, 1}) {
    TestCache cache(dir.path(), 100, false, limit);
    // Unprivileged, every write attempt raises the ids once and logs it.
    ChildResult writes = RunUnprivileged([&] {
      LogCapture log;
      if (cache.UpdateWithData(Data(1))) return 90;
      int raises = 0;
      for (const LogLine& line : log.Lines())
        raises += line.text.rfind("cache.cpp:", 0) == 0 &&
                  line.text.find("WARNING: setresgid(-1, 0, -1)") != std::string::npos;
      return log.Has("DEBUG", "Failed to write cache to file [" + Path() +
                                  "] and reach retry limit[" + std::to_string(limit) + "]")
                 ? raises
                 : 91;
    });
    EXPECT_EQ(writes.exitCode, limit + 2);
  }
  rmdir(Path().c_str());

  TestCache cache(dir.path(), 100, false, 0);
  cache.fail = true;
  LogCapture log;
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(cache.DoUpdate());
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(Fetches(), 2);
  EXPECT_GE(took.count(), 0.5);
  EXPECT_LT(took.count(), 1.5);
  EXPECT_TRUE(
      log.Has("DEBUG", R"(Failed to get updated cache ["test"] and reach the retry limit[0])"));
  EXPECT_FALSE(VLIBCFileExist(Path().c_str()));
}

TEST_F(CacheTest, ConcurrentStaleReadersCauseOneBackgroundFetch) {
  TestCache cache(dir.path(), 100, false, 0);
  ASSERT_TRUE(cache.UpdateWithData(Data(1)));  // valid but stale: old data will do
  SetAge(200);
  cache.delayMs = 1500;
  std::vector<pid_t> readers;
  for (int i = 0; i < 8; ++i) {
    readers.push_back(StartChild([&] {
      if (!WaitFor([&] { return VLIBCFileExist(dir.File("go").c_str()) == 1; })) return 2;
      auto start = std::chrono::steady_clock::now();
      bool served = cache.Read() == Data(1);
      return served && std::chrono::steady_clock::now() - start < std::chrono::seconds(1) ? 0 : 1;
    }));
  }
  ASSERT_TRUE(WriteText(dir.File("go"), ""));
  for (pid_t reader : readers) EXPECT_EQ(WaitChild(reader).exitCode, 0);
  EXPECT_TRUE(WaitFor([&] { return VLIBCFileExist(Path().c_str()) == 1; }));
  EXPECT_TRUE(WaitFor([&] { return VLIBCFileExist((Path() + ".pid").c_str()) == 0; }));
  usleep(300000);  // a late second updater would have fetched by now
  EXPECT_EQ(Fetches(), 1);
  EXPECT_EQ(cache.Read(), Data(7));
}

TEST_F(CacheTest, RequiredReaderWaitsForRunningUpdater) {
  TestCache updater(dir.path(), 100, true, 0);
  updater.delayMs = 1500;
  pid_t child = StartChild([&] { return updater.Update() ? 0 : 1; });
  ASSERT_TRUE(WaitFor([&] { return VLIBCFileExist((Path() + ".pid").c_str()) == 1; }));
  TestCache reader(dir.path(), 100, true, 0);
  LogCapture log;
  EXPECT_EQ(reader.Read(), Data(7));
  EXPECT_TRUE(log.Has("DEBUG", "start to block wait cache [" + Path() + "] "));
  EXPECT_TRUE(log.Has("DEBUG", "finish to block wait cache [" + Path() + "] "));
  EXPECT_EQ(WaitChild(child).exitCode, 0);
  EXPECT_EQ(Fetches(), 1);
}

TEST_F(CacheTest, PidFilesOfDeadProcessesDoNotBlockAndOthersAreKept) {
  const std::string pidPath = Path() + ".pid";
  pid_t dead = StartChild([] { return 0; });
  WaitChild(dead);
  pid_t zombie = StartChild([] { return 0; });
  ASSERT_TRUE(WaitFor([&] { return VLIBCProcAlive(zombie) == 0; }));
  TestCache cache(dir.path(), 100, true, 0);
  LogCapture log;
  for (pid_t stale : {dead, zombie}) {
    ASSERT_TRUE(WriteText(pidPath, std::to_string(stale) + "\n"));
    cache.Remove();
    EXPECT_EQ(cache.Read(), Data(7));
    EXPECT_FALSE(VLIBCFileExist(pidPath.c_str()));
  }
  WaitChild(zombie);
  EXPECT_EQ(Fetches(), 2);
  EXPECT_EQ(log.Count("<--- Finish to update cache [" + Path() + "]"), 2);

  pid_t other = StartChild([] { return pause(); });
  cache.onFetch = [&] { WriteText(pidPath, std::to_string(other) + "\n"); };
  cache.Remove();
  log.Clear();
  EXPECT_EQ(cache.Read(), Data(7));
  EXPECT_EQ(ReadText(pidPath), std::to_string(other) + "\n");
  EXPECT_TRUE(log.Has("DEBUG", "Failed to unset updating cache [" + pidPath +
                                   "] since different pid[" + std::to_string(other) + "]"));
  EXPECT_EQ(log.Count("<--- Finish to update cache [" + Path() + "]"), 0);
  kill(other, SIGKILL);
  WaitChild(other);
}

}  // namespace
