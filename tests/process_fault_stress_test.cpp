// Updaters and lock holders killed while others read and wait.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/test_cache.h"
#include "vantcore/vlibc.h"
#include "vantdr/file_lock.h"
#include "vantdr/json_text.h"

using namespace VantDRCore;
using namespace VantDRTest;
using Clock = std::chrono::steady_clock;

namespace {

const int kExclusive = LOCK_EX | LOCK_NB;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Fetches {"v": value} after `delayUs`; anything else it serves is a fault.
struct NumberCache : Cache {
  NumberCache(const std::string& dir, bool required) : Cache(dir, "n", 100, required, 0) {}
  Json::Value GetCacheInfo() const override { return "numbers"; }
  Json::Value GetDefaultValue() const override { return "default"; }
  bool GetUpdatedData(Json::Value& data) const override {
    usleep(delayUs);
    data = Data(value);
    return true;
  }
  bool IsValidData(const Json::Value& data) const override {
    return data.isObject() && data.isMember("v") && data["v"].isInt();
  }
  int value = 0;
  unsigned delayUs = 0;
};

class ProcessFaults : public CacheFixture {};

// 100 updaters killed at random under 8 readers: no torn or default document
// served, no process left, the next update completes at once.
TEST_F(ProcessFaults, UpdatersKilledAtRandomPointsUnderReaders) {
  NumberCache updater(dir.path(), true);
  updater.value = 1;
  ASSERT_TRUE(updater.UpdateWithData(Data(1)));
  // The kill window tracks the updaters' pace so kills land before and after the pid file.
  double window = 0.02;

  const std::string stop = dir.File("stop");
  std::vector<pid_t> readers;
  for (int r = 0; r < 8; ++r) {
    readers.push_back(StartChild([&] {
      setlogmask(LOG_UPTO(LOG_NOTICE));
      NumberCache reader(dir.path(), false);
      int reads = 0;
      while (!Exists(stop) || reads == 0) {
        const Json::Value served = reader.Read();
        if (!reader.IsValidData(served)) {
          std::fprintf(stderr, "reader served %s\n", JsonToString(served).c_str());
          return 1;
        }
        ++reads;
        usleep(1000);
      }
      return 0;
    }));
  }

  std::mt19937 random(12345);
  const std::string pidPath = updater.GetCachePath() + ".pid";
  int killedMidway = 0, finished = 0;
  double slowestRestart = 0;
  for (int i = 0; i < 100; ++i) {
    const pid_t victim = StartChild([&] {
      setlogmask(LOG_UPTO(LOG_NOTICE));
      NumberCache doomed(dir.path(), true);
      doomed.value = 1000 + i;
      doomed.delayUs = random() % 3000;
      return doomed.Update() ? 0 : 1;
    });
    usleep(static_cast<unsigned>(std::uniform_real_distribution<double>(0, window)(random) * 1e6));
    kill(victim, SIGKILL);
    const ChildResult result = WaitChild(victim);
    killedMidway += result.signal == SIGKILL;
    finished += result.exitCode == 0;
    window *= result.signal == SIGKILL ? 1.2 : 0.8;
    // The document is whole: the old data or the victim's.
    Json::Value doc;
    ASSERT_TRUE(JsonFromFile(doc, updater.GetCachePath())) << i;
    const int v = doc["cached_data"]["v"].asInt();
    EXPECT_TRUE(v == i + 1 || v == 1000 + i) << i << ": " << v;

    const auto restart = Clock::now();
    updater.value = i + 2;
    EXPECT_TRUE(updater.Update()) << i;
    slowestRestart = std::max(slowestRestart, Since(restart));
    EXPECT_EQ(updater.GetCachedData(), Data(i + 2)) << i;
    EXPECT_FALSE(Exists(pidPath)) << i;
  }
  ASSERT_TRUE(WriteText(stop, ""));
  int readerFaults = 0;
  for (pid_t reader : readers) readerFaults += WaitChild(reader).exitCode != 0;
  EXPECT_EQ(readerFaults, 0);
  EXPECT_GT(killedMidway, 0);
  EXPECT_GT(finished, 0);
  EXPECT_LT(slowestRestart, 4.0);  // never a lock time-out of the 5 s kind
  EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);  // no child left
}

// The updater forked by a lock holder's Read keeps none of its locks (unlocked,
// dropped or dead holder), yet can use the holder's other descriptors.
TEST_F(ProcessFaults, ForkedUpdaterKeepsNoLockOfItsParent) {
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

// A killed holder's lock goes to the waiter at once, not after a time-out.
TEST_F(ProcessFaults, KilledLockHolderReleasesTheLock) {
  const std::string name = UniqueName("killed_holder");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t holder = StartChild([&] {
    FileLock lock(name);
    if (!lock.lock(kExclusive, 0) || write(ready[1], "r", 1) != 1) return 1;
    pause();
    return 2;
  });
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  FileLock waiter(name);
  EXPECT_FALSE(waiter.lock(kExclusive, 0));
  EXPECT_FALSE(waiter.lock(LOCK_SH | LOCK_NB, 0));
  const pid_t killer = StartChild([&] {
    usleep(200 * 1000);
    return kill(holder, SIGKILL) == 0 ? 0 : 1;
  });
  const auto start = Clock::now();
  EXPECT_TRUE(waiter.lock(kExclusive, 5));
  EXPECT_LT(Since(start), 3.0);  // the kill, not the 5 s time-out, ended the wait
  EXPECT_EQ(WaitChild(holder).signal, SIGKILL);
  EXPECT_EQ(WaitChild(killer).exitCode, 0);
  close(ready[0]);
  close(ready[1]);
  unlink(FileLock::getLockFilePath(name).c_str());
}

}  // namespace
