// Real processes contending for one database, one cache and one lock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/temp_dir.h"
#include "vantcore/vlibc.h"
#include "vantdr/cache.h"
#include "vantdr/file_lock.h"
#include "vantdr/sqlite_db.h"

using namespace VantDRCore;
using namespace VantDRTest;
using Clock = std::chrono::steady_clock;

namespace {

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

bool WaitFor(const std::function<bool()>& done, double seconds) {
  for (auto start = Clock::now(); !done(); usleep(10000)) {
    if (Since(start) > seconds) return false;
  }
  return true;
}

// Runs body(i) in `n` children that block on a pipe until all exist, then go
// at once. The number of children that did not exit 0; `seconds` from the
// release until the last one ended.
int RunTogether(int n, const std::function<int(int)>& body, double& seconds) {
  int gate[2];
  if (pipe(gate) != 0) return n;
  std::vector<pid_t> children;
  for (int i = 0; i < n; ++i) {
    children.push_back(StartChild([&, i] {
      close(gate[1]);
      char c;
      return read(gate[0], &c, 1) == 0 ? body(i) : 97;
    }));
  }
  const auto start = Clock::now();
  close(gate[1]);
  int failed = 0;
  for (pid_t pid : children) failed += WaitChild(pid).exitCode != 0;
  close(gate[0]);
  seconds = Since(start);
  return failed;
}

// Each fetch appends one line to "fetches"; a fetch blocks until the file
// "release" exists (at most `blockMs`).
class SlowCache : public Cache {
 public:
  SlowCache(const std::string& dir, int blockMs)
      : Cache(dir, "c", 100, false, 0), dir_(dir), blockMs_(blockMs) {}
  Json::Value GetCacheInfo() const override { return "slow"; }
  bool GetUpdatedData(Json::Value& data) const override {
    int fd = open((dir_ + "/fetches").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    bool logged = fd >= 0 && write(fd, "f\n", 2) == 2;
    if (fd >= 0) close(fd);
    WaitFor([&] { return VLIBCFileExist((dir_ + "/release").c_str()) == 1; }, blockMs_ / 1000.0);
    data["v"] = 2;
    return logged;
  }
  bool IsValidData(const Json::Value& data) const override {
    return data.isObject() && data.isMember("v");
  }
  int Fetches() const { return static_cast<int>(ReadText(dir_ + "/fetches").size() / 2); }
  // Valid old data whose file is `age` seconds old.
  bool MakeStale(long age) const {
    Json::Value old;
    old["v"] = 1;
    struct timespec times[2] = {{time(nullptr) - age, 0}, {time(nullptr) - age, 0}};
    return UpdateWithData(old) && utimensat(AT_FDCWD, GetCachePath().c_str(), times, 0) == 0;
  }

 private:
  std::string dir_;
  int blockMs_;
};

class StressTest : public ::testing::Test {
 protected:
  StressTest() { alarm(60); }  // a hang fails the test instead of the suite
  ~StressTest() override {
    alarm(0);
    std::filesystem::remove_all("/tmp/.vantdr_lock" + dir.path());
  }
  TempDir dir;
};

TEST_F(StressTest, ConcurrentInsertsLoseNoRow) {
  const SqliteTableHandler table("t", "id INTEGER PRIMARY KEY, who INTEGER");
  const int kProcs = 8, kInserts = 250;
  double took = 0;
  const int failed = RunTogether(
      kProcs,
      [&](int p) {
        setlogmask(LOG_UPTO(LOG_NOTICE));  // one INFO line per insert otherwise
        SqliteDB db(dir.File("s.db"), 5, "stress");
        InsertCommand insert;
        insert.SetTable(table);
        insert.AddFieldValue("who", p);
        for (int i = 0; i < kInserts; ++i) {
          if (!db.InsertRecord(insert)) return 1;
        }
        return 0;
      },
      took);
  EXPECT_EQ(failed, 0);
  SqliteDB db(dir.File("s.db"), 0, "check");
  int rows = -1;
  EXPECT_TRUE(db.GetCount(table, rows));
  EXPECT_EQ(rows, kProcs * kInserts);
  std::printf("[stress] %d processes x %d inserts: %d rows in %.2f s\n", kProcs, kInserts, rows,
              took);
}

TEST_F(StressTest, SimultaneousStaleReadersFetchOnce) {
  SlowCache cache(dir.path(), 2000);
  ASSERT_TRUE(cache.MakeStale(200));
  double served = 0;
  const auto start = Clock::now();
  // 1 s is far below the 2 s fetch: nobody waited for it.
  EXPECT_EQ(RunTogether(
                16,
                [&](int) {
                  const auto begin = Clock::now();
                  return cache.Read()["v"] == 1 && Since(begin) < 1.0 ? 0 : 1;
                },
                served),
            0);
  EXPECT_TRUE(WaitFor([&] { return cache.Fetches() > 0; }, 5));
  EXPECT_TRUE(WaitFor([&] { return !VLIBCFileExist((cache.GetCachePath() + ".pid").c_str()); }, 5));
  usleep(300000);  // a late second updater would have fetched by now
  EXPECT_EQ(cache.Fetches(), 1);
  EXPECT_EQ(cache.Read()["v"], 2);
  std::printf("[stress] 16 stale readers served in %.2f s, %d fetch(es), done after %.2f s\n",
              served, cache.Fetches(), Since(start));
}

TEST_F(StressTest, KilledUpdaterDoesNotBlockTheNextUpdate) {
  SlowCache cache(dir.path(), 20000);
  ASSERT_TRUE(cache.MakeStale(200));
  const std::string pidPath = cache.GetCachePath() + ".pid";
  EXPECT_EQ(cache.Read()["v"], 1);  // the updater runs detached
  ASSERT_TRUE(WaitFor([&] { return cache.Fetches() == 1; }, 5));
  const pid_t updater = VLIBCReadPidFile(pidPath.c_str());
  ASSERT_GT(updater, 0);
  ASSERT_EQ(kill(updater, SIGKILL), 0);
  ASSERT_TRUE(WaitFor([&] { return VLIBCProcAlive(updater) != 1; }, 5));
  EXPECT_EQ(VLIBCReadPidFile(pidPath.c_str()), updater);  // left behind by the dead updater

  ASSERT_TRUE(WriteText(dir.File("release"), ""));
  auto start = Clock::now();
  EXPECT_EQ(cache.Read()["v"], 1);
  // Well inside the 5 s of any lock time-out.
  EXPECT_TRUE(WaitFor([&] { return cache.Fetches() == 2; }, 2));
  const double restarted = Since(start);
  EXPECT_TRUE(WaitFor([&] { return !VLIBCFileExist(pidPath.c_str()); }, 5));
  EXPECT_EQ(cache.Read()["v"], 2);
  std::printf("[stress] updater %d killed; next update fetched after %.2f s\n", updater, restarted);
}

TEST_F(StressTest, FileLockSerialisesCounterIncrements) {
  const std::string name = UniqueName("stress_counter");
  const std::string counter = dir.File("counter");
  ASSERT_TRUE(WriteText(counter, "0"));
  const int kProcs = 8, kIncrements = 200;
  double took = 0;
  EXPECT_EQ(RunTogether(
                kProcs,
                [&](int) {
                  FileLock lock(name);
                  for (int i = 0; i < kIncrements; ++i) {
                    if (!lock.lock(LOCK_EX | LOCK_NB, 10)) return 1;
                    const int value = std::stoi("0" + ReadText(counter));
                    if (!WriteText(counter, std::to_string(value + 1))) return 2;
                    lock.unlock();
                  }
                  return 0;
                },
                took),
            0);
  EXPECT_EQ(ReadText(counter), std::to_string(kProcs * kIncrements));
  unlink(FileLock::getLockFilePath(name).c_str());
  std::printf("[stress] %d processes x %d locked increments: %s in %.2f s\n", kProcs, kIncrements,
              ReadText(counter).c_str(), took);
}

}  // namespace
