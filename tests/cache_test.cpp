#include "support/suite.h"

class CacheTest : public CacheFixture {
 protected:
  const std::string path = dir.File("c.cached"), pidPath = path + ".pid";
};

TEST_F(CacheTest, PathFallbackAndExactFreshness) {
  LogCapture log;
  EXPECT_EQ(TestCache("").GetCachePath(), "/tmp/default_dr_cache");
  EXPECT_TRUE(log.Has("WARN", "Invalid dir[] and file[c] to cache"));
  TestCache cache(dir.path());
  EXPECT_EQ(cache.GetCachePath(), path);
  EXPECT_TRUE(cache.IsTimeout());  // no file yet
  ASSERT_TRUE(cache.UpdateWithData(Data(1)));
  time_t now;
  bool stale;
  do {  // exact only while the clock stays in one second
    now = time(nullptr);
    ASSERT_TRUE(cache.SetAge(100, now));
    stale = cache.IsTimeout();
  } while (time(nullptr) != now);
  EXPECT_FALSE(stale);
  ASSERT_TRUE(cache.SetAge(101));
  EXPECT_TRUE(cache.IsTimeout());
}

TEST_F(CacheTest, MemoryCopyFollowsModificationTime) {
  TestCache cache(dir.path());
  const time_t now = time(nullptr);
  ASSERT_TRUE(cache.UpdateWithData(Data(1)) && cache.SetAge(10, now));
  EXPECT_EQ(cache.Read(), Data(1));
  // Rewritten behind the cache's back with the same time: memory is served.
  ASSERT_TRUE(WriteText(path, R"({"cached_data":{"v":2}})") && cache.SetAge(10, now));
  EXPECT_EQ(cache.Read(), Data(1));
  ASSERT_TRUE(cache.SetAge(20, now));
  EXPECT_EQ(cache.Read(), Data(2));
  // Without "cached_data" the data in memory stays.
  ASSERT_TRUE(WriteText(path, "{}") && cache.SetAge(30, now));
  EXPECT_TRUE(cache.Read() == Data(2) && cache.Fetches() == 0);
}

TEST_F(CacheTest, DocumentTimesAndInvalidData) {
  TestCache cache(dir.path());
  ASSERT_TRUE(WriteText(path, R"({"max_updated_time":42})"));
  ASSERT_TRUE(cache.UpdateWithData(Data(1), 100, 110));  // the larger maximum is kept
  EXPECT_EQ(ReadText(path),
            R"({"begin_time_to_update":100,"cached_data":{"v":1},"finish_time_to_update":110,)"
            R"("info":"test","max_updated_time":42,"timeout":100,"updated_time":10.0})"
            "\n");
  ASSERT_TRUE(cache.UpdateWithData(Data(1), 100, 200));
  // Unless both times are positive both are written as 0.
  for (const auto& times : {std::make_pair(-5L, 10L), std::make_pair(100L, 0L)}) {
    ASSERT_TRUE(cache.UpdateWithData(Data(2), times.first, times.second));
    EXPECT_EQ(ReadText(path),
              R"({"begin_time_to_update":0,"cached_data":{"v":2},"finish_time_to_update":0,)"
              R"("info":"test","max_updated_time":100,"timeout":100,"updated_time":0.0})"
              "\n");
  }
  const std::string written = ReadText(path);
  LogCapture log;
  EXPECT_FALSE(cache.UpdateWithData(Json::Value("x"), 1, 2));
  EXPECT_EQ(log.Summary(), std::vector<std::string>{R"(DEBUG UpdateWithData: ["x"] is not )"
                                                    R"(valid to update for cache ["test"])"});
  EXPECT_EQ(ReadText(path), written);
}

TEST_F(CacheTest, WriteAndFetchRetriesAreCounted) {
  if (geteuid() != 0) GTEST_SKIP();
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);  // cannot be replaced by a file
  for (int limit : {-1, 0, 1}) {
    const TestCache cache(dir.path(), false, limit);
    const std::string gaveUp = "Failed to write cache to file [" + path +
                               "] and reach retry limit[" + std::to_string(limit) + "]";
    // Unprivileged, each write attempt raises the group id once, which is logged.
    EXPECT_EQ(RunUnprivileged([&] {
                LogCapture log;
                if (cache.UpdateWithData(Data(1)) || log.Count(gaveUp) != 1) return 90;
                int raises = 0;
                for (const LogLine& line : log.Lines())
                  raises += line.text.find("WARNING: setresgid(-1, 0, -1)") != std::string::npos;
                return raises;
              }).exitCode,
              limit + 2);
  }
  ASSERT_EQ(rmdir(path.c_str()), 0);

  TestCache cache(dir.path());
  cache.fail = true;
  LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(cache.DoUpdate());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_TRUE(cache.Fetches() == 2 && !Exists(path));
  EXPECT_EQ(log.Count(R"(Failed to get updated cache ["test"] and reach the retry limit[0])"), 1);
}

TEST_F(CacheTest, RequiredReaderWaitsForRunningUpdater) {
  TestCache updater(dir.path(), true);
  updater.delayMs = 1500;
  const pid_t child = StartChild([&] { return updater.Update() ? 0 : 1; });
  ASSERT_TRUE(WaitFor([&] { return Exists(pidPath); }));
  LogCapture log;
  EXPECT_EQ(TestCache(dir.path(), true).Read(), Data(7));
  EXPECT_TRUE(log.Has("DEBUG", "start to block wait cache [" + path + "] ") &&
              log.Has("DEBUG", "finish to block wait cache [" + path + "] "));
  EXPECT_TRUE(WaitChild(child).exitCode == 0 && updater.Fetches() == 1);
}

TEST_F(CacheTest, PidFilesOfDeadProcessesDoNotBlockAndOthersAreKept) {
  const pid_t dead = StartChild([] { return 0; });
  WaitChild(dead);
  const pid_t zombie = StartChild([] { return 0; });
  ASSERT_TRUE(WaitFor([&] { return VLIBCProcAlive(zombie) == 0; }));
  TestCache cache(dir.path(), true);
  LogCapture log;
  const std::string finished = "<--- Finish to update cache [" + path + "]";
  for (pid_t gone : {dead, zombie}) {
    ASSERT_TRUE(WriteText(pidPath, std::to_string(gone) + "\n"));
    cache.Remove();
    EXPECT_TRUE(cache.Read() == Data(7) && !Exists(pidPath));
  }
  WaitChild(zombie);
  EXPECT_TRUE(cache.Fetches() == 2 && log.Count(finished) == 2);

  const pid_t other = StartChild([] { return pause(); });
  cache.onFetch = [&] { WriteText(pidPath, std::to_string(other) + "\n"); };
  cache.Remove();
  EXPECT_TRUE(cache.Read() == Data(7) && ReadText(pidPath) == std::to_string(other) + "\n");
  EXPECT_TRUE(log.Has("DEBUG", "Failed to unset updating cache [" + pidPath +
                                   "] since different pid[" + std::to_string(other) + "]"));
  EXPECT_EQ(log.Count(finished), 2);
  kill(other, SIGKILL);
  WaitChild(other);
}
