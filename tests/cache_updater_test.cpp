#include <json/writer.h>

#include <new>
#include <stdexcept>

#include "support/suite.h"

class CacheUpdater : public CacheFixture {};

// The one fetch blocks until the file "release" appears.
TEST_F(CacheUpdater, SimultaneousStaleReadersFetchOnceAndAKilledUpdaterBlocksNothing) {
  TestCache cache(dir.path());
  cache.delayMs = 20000;
  ASSERT_TRUE(cache.UpdateWithData(Data(1)) && cache.SetAge(200));  // valid but stale
  // Old data at once: nobody waits for the fetch.
  EXPECT_EQ(RunTogether(16,
                        [&](int) {
                          bool old = false;
                          const double took = SecondsTaken([&] { old = cache.Read() == Data(1); });
                          return old && took < Bound(1.0) ? 0 : 1;
                        }),
            0);
  const std::string pidPath = cache.GetCachePath() + ".pid";
  ASSERT_TRUE(WaitFor([&] { return cache.Fetches() > 0; }, 5));
  usleep(500000);  // a second updater would have fetched by now
  const pid_t updater = VLIBCReadPidFile(pidPath.c_str());
  ASSERT_TRUE(cache.Fetches() == 1 && updater > 0);
  EXPECT_NE(getsid(updater), getsid(0));  // detached from the caller's session
  ASSERT_TRUE(kill(updater, SIGKILL) == 0 &&
              WaitFor([&] { return VLIBCProcAlive(updater) != 1; }, 5));
  EXPECT_EQ(VLIBCReadPidFile(pidPath.c_str()), updater);  // left behind by the dead updater

  ASSERT_TRUE(WriteText(dir.File("release"), ""));
  // Old data, or the new if the detached updater already wrote.
  const Json::Value again = cache.Read();
  EXPECT_TRUE(again == Data(1) || again == Data(7)) << again;
  // Well inside the 5 s of any lock time-out.
  EXPECT_TRUE(WaitFor([&] { return cache.Fetches() == 2; }, 2) &&
              WaitFor([&] { return !Exists(pidPath); }, 5) && cache.Read() == Data(7));
  EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);  // the updaters detached
}

// Keeps none of a lock holder's locks (unlocked, dropped or dead), yet uses its other files.
TEST_F(CacheUpdater, ForkedUpdaterKeepsNoLockOfItsParent) {
  const int kExclusive = LOCK_EX | LOCK_NB;
  const std::string unlocked = UniqueName("held_unlocked"), dropped = UniqueName("held_dropped"),
                    killed = UniqueName("held_killed");
  TestCache cache(dir.path());
  ASSERT_TRUE(cache.UpdateWithData(Data(1)) && cache.SetAge(200));
  int ready[2], news[2];
  ASSERT_TRUE(pipe(ready) == 0 && pipe(news) == 0);
  const pid_t holder = StartChild([&] {
    close(ready[0]);
    close(news[0]);
    FileLock kept(killed), released(unlocked);
    auto dropping = std::make_unique<FileLock>(dropped);
    if (!kept.lock(kExclusive, 0) || !released.lock(kExclusive, 0) ||
        !dropping->lock(kExclusive, 0)) {
      return 1;
    }
    // The updater reports through a descriptor of the caller's own.
    cache.onFetch = [&] { (void)!write(news[1], "f", 1); };
    cache.delayMs = 20000;
    if (cache.Read() != Data(1)) return 2;
    released.unlock();
    dropping.reset();
    if (write(ready[1], "r", 1) != 1) return 3;
    pause();  // killed here, still holding `kept`
    return 4;
  });
  close(ready[1]);
  close(news[1]);
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  ASSERT_EQ(read(news[0], &c, 1), 1);  // the updater is fetching
  ASSERT_EQ(kill(holder, SIGKILL), 0);
  EXPECT_EQ(WaitChild(holder).signal, SIGKILL);
  for (const std::string& name : {unlocked, dropped, killed}) {
    FileLock rival(name);
    EXPECT_TRUE(rival.lock(kExclusive, 0)) << name;
    unlink(FileLock::getLockFilePath(name).c_str());
  }
  const std::string pidPath = cache.GetCachePath() + ".pid";
  EXPECT_TRUE(Exists(pidPath));  // still updating
  ASSERT_TRUE(WriteText(dir.File("release"), ""));
  EXPECT_TRUE(WaitFor([&] { return !Exists(pidPath); }, 10));
  // A new object: this one's copy may carry the same whole-second time stamp.
  EXPECT_EQ(TestCache(dir.path()).GetCachedData(), Data(7));
  close(ready[0]);
  close(news[0]);
}

// The look under the exclusive lock sees an updater that came after the first look.
TEST_F(CacheUpdater, ClaimantBetweenTheTwoLocksYields) {
  TestCache cache(dir.path(), true, -1);
  ASSERT_TRUE(cache.UpdateWithData(Data(1)) && cache.SetAge(200));
  const std::string pidPath = cache.GetCachePath() + ".pid";
  // Looks pass under a shared lock; the claim waits for the exclusive one.
  FileLock looking(cache.GetCachePath() + ".lock");
  ASSERT_TRUE(looking.lock(LOCK_SH | LOCK_NB, 0));
  const pid_t claimant = StartChild([&] { return cache.Update() ? 0 : 1; });
  usleep(300 * 1000);  // the claimant has looked and polls for the exclusive lock
  ASSERT_EQ(VLIBCProcPidFileCreate(pidPath.c_str()), 0);  // this live process came first
  looking.unlock();
  EXPECT_TRUE(WaitChild(claimant).exitCode == 1 && cache.Fetches() == 0 &&
              VLIBCReadPidFile(pidPath.c_str()) == getpid());
}

// A lock file closed before the fork leaves its number to a caller's file the updater keeps.
TEST_F(CacheUpdater, DescriptorReusedBeforeTheForkStaysTheCallers) {
  TestCache cache(dir.path());
  ASSERT_TRUE(cache.UpdateWithData(Data(1)) && cache.SetAge(200));
  int news[2];
  ASSERT_EQ(pipe(news), 0);
  const std::string name = UniqueName("reused");
  const int reused = open("/dev/null", O_RDONLY);  // the number the lock file takes next
  close(reused);
  {
    FileLock lock(name);
    ASSERT_TRUE(lock.lock(LOCK_EX | LOCK_NB, 0));
  }
  ASSERT_EQ(dup2(news[1], reused), reused);
  close(news[1]);
  cache.onFetch = [&] { (void)!write(reused, "f", 1); };
  EXPECT_EQ(cache.Read(), Data(1));
  close(reused);
  char c = 0;
  EXPECT_EQ(read(news[0], &c, 1), 1);  // end of file instead when the updater closed it
  close(news[0]);
  EXPECT_TRUE(WaitFor([&] { return !Exists(cache.GetCachePath() + ".pid"); }, 10));
  unlink(FileLock::getLockFilePath(name).c_str());
}

// No file is stale whatever the time-out, even one longer than the time since the epoch.
TEST_F(CacheUpdater, MissingFileIsStaleWhateverTheTimeOut) {
  TestCache cache(dir.path(), true, -1, LONG_MAX);
  cache.fallback = Data(3);  // valid: only staleness makes it fetch
  EXPECT_TRUE(cache.Read() == Data(7) && cache.Fetches() == 1);
}

// Whatever a callback throws (std::exception, bad_alloc, an int) stays inside; no pid file left.
struct ThrowingCache : TestCache {
  ThrowingCache(const std::string& dir, int where, int kind)
      : TestCache(dir, true, -1), where(where), kind(kind) {}
  void Throw(int callback) const {
    if (callback != where) return;
    if (kind == 0) throw std::runtime_error("thrown");
    if (kind == 1) throw std::bad_alloc();
    throw 42;
  }
  Json::Value GetCacheInfo() const override { return Throw(0), TestCache::GetCacheInfo(); }
  Json::Value GetDefaultValue() const override { return Throw(1), TestCache::GetDefaultValue(); }
  bool GetUpdatedData(Json::Value& data) const override {
    return Throw(2), TestCache::GetUpdatedData(data);
  }
  bool IsValidData(const Json::Value& data) const override {
    return Throw(3), TestCache::IsValidData(data);
  }
  bool IsNeedUpdate(const Json::Value&) const override { return Throw(4), true; }
  const int where, kind;
};

TEST_F(CacheUpdater, ExceptionsOfCallbacksStayInside) {
  LogCapture log;
  const char* const logged[] = {"Unexpected exception [thrown]", "Failed to allocate memory",
                                "Unexpected exception"};
  for (int where = 0; where < 5; ++where) {
    for (int kind = 0; kind < 3; ++kind) {
      SCOPED_TRACE(std::to_string(where) + "/" + std::to_string(kind));
      ThrowingCache cache(dir.path(), where, kind);
      EXPECT_NO_THROW(cache.UpdateWithData(Data(1)));
      EXPECT_NO_THROW(cache.Read());  // a fresh file: IsNeedUpdate is asked
      EXPECT_NO_THROW(cache.Update());
      EXPECT_NO_THROW(cache.DoUpdate());
      EXPECT_NO_THROW(cache.IsUpdatedDataRequired());
      cache.Remove();
      EXPECT_NO_THROW(cache.GetCachedData());  // no file: the default is asked
      EXPECT_FALSE(Exists(cache.GetCachePath() + ".pid"));
      EXPECT_GT(log.Count(logged[kind]), 0);
      log.Clear();
    }
  }
}
