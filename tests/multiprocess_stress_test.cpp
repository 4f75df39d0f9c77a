// Real processes contending for one database, one cache and one lock.
#include <gtest/gtest.h>
#include <json/writer.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/test_cache.h"
#include "support/timing.h"
#include "vantcore/vlibc.h"
#include "vantdr/file_lock.h"
#include "vantdr/sqlite_db.h"

using namespace VantDRCore;
using namespace VantDRTest;

namespace {

// Runs body(i) in `n` children released together; returns how many did not exit 0.
int RunTogether(int n, const std::function<int(int)>& body) {
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
  close(gate[1]);
  int failed = 0;
  for (pid_t pid : children) failed += WaitChild(pid).exitCode != 0;
  close(gate[0]);
  return failed;
}

class StressTest : public CacheFixture {};

TEST_F(StressTest, ConcurrentInsertsLoseNoRow) {
  const SqliteTableHandler table("t", "id INTEGER PRIMARY KEY, who INTEGER");
  const int kProcs = 8, kInserts = 250;
  const int failed = RunTogether(kProcs, [&](int p) {
    setlogmask(LOG_UPTO(LOG_NOTICE));  // one INFO line per insert otherwise
    // Retries are ~1 s each; eight syncing writers can starve one for seconds.
    SqliteDB db(dir.File("s.db"), static_cast<unsigned>(20 * TimeScale()), "stress");
    InsertCommand insert;
    insert.SetTable(table);
    insert.AddFieldValue("who", p);
    for (int i = 0; i < kInserts; ++i) {
      if (!db.InsertRecord(insert)) return 1;
    }
    return 0;
  });
  EXPECT_EQ(failed, 0);
  SqliteDB db(dir.File("s.db"), 0, "check");
  int rows = -1;
  EXPECT_TRUE(db.GetCount(table, rows));
  EXPECT_EQ(rows, kProcs * kInserts);
}

// The one fetch blocks until the file "release" appears.
TEST_F(StressTest, SimultaneousStaleReadersFetchOnceAndAKilledUpdaterBlocksNothing) {
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
  EXPECT_EQ(cache.Fetches(), 1);
  const pid_t updater = VLIBCReadPidFile(pidPath.c_str());
  ASSERT_GT(updater, 0);
  ASSERT_EQ(kill(updater, SIGKILL), 0);
  ASSERT_TRUE(WaitFor([&] { return VLIBCProcAlive(updater) != 1; }, 5));
  EXPECT_EQ(VLIBCReadPidFile(pidPath.c_str()), updater);  // left behind by the dead updater

  ASSERT_TRUE(WriteText(dir.File("release"), ""));
  // Old data, or the new if the detached updater already wrote.
  const Json::Value again = cache.Read();
  EXPECT_TRUE(again == Data(1) || again == Data(7)) << again;
  // Well inside the 5 s of any lock time-out.
  EXPECT_TRUE(WaitFor([&] { return cache.Fetches() == 2; }, 2));
  EXPECT_TRUE(WaitFor([&] { return !Exists(pidPath); }, 5));
  EXPECT_EQ(cache.Read(), Data(7));
  // The updaters were detached: this process has no child left to reap.
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(StressTest, FileLockSerialisesCounterIncrements) {
  const std::string name = UniqueName("stress_counter"), counter = dir.File("counter");
  ASSERT_TRUE(WriteText(counter, "0"));
  const int kProcs = 8, kIncrements = 200;
  EXPECT_EQ(RunTogether(kProcs,
                        [&](int) {
                          FileLock lock(name);
                          for (int i = 0; i < kIncrements; ++i) {
                            if (!lock.lock(LOCK_EX | LOCK_NB, 10)) return 1;
                            const int value = std::stoi("0" + ReadText(counter));
                            if (!WriteText(counter, std::to_string(value + 1))) return 2;
                            lock.unlock();
                          }
                          return 0;
                        }),
            0);
  EXPECT_EQ(ReadText(counter), std::to_string(kProcs * kIncrements));
  unlink(FileLock::getLockFilePath(name).c_str());
}

}  // namespace
