// Many real processes contending for one database and one cache.

#include "support/suite.h"

class StressTest : public CacheFixture {};

// 8 writers: a lost row lowers a count, a batch applied twice breaks the UNIQUE constraint.
TEST_F(StressTest, ConcurrentWritersLoseAndRepeatNoRow) {
  const SqliteTableHandler table("t",
                                 "who INTEGER, batch INTEGER, seq INTEGER, "
                                 "UNIQUE (who, batch, seq)");
  const int kProcs = 8, kSingles = 100, kBatches = 10, kRowsPerBatch = 50;
  const int failed = RunTogether(kProcs, [&](int p) {
    setlogmask(LOG_UPTO(LOG_NOTICE));  // one INFO line per insert otherwise
    // Retries are ~1 s each; eight syncing writers can starve one for seconds.
    SqliteDB db(dir.File("s.db"), static_cast<unsigned>(20 * TimeScale()), "stress");
    for (int b = 0; b <= kBatches; ++b) {
      std::vector<InsertCommand> commands(b == kBatches ? kSingles : kRowsPerBatch);
      for (size_t seq = 0; seq < commands.size(); ++seq) {
        commands[seq].SetTable(table);
        commands[seq].AddFieldValue("who", p);
        commands[seq].AddFieldValue("batch", b);
        commands[seq].AddFieldValue("seq", static_cast<int>(seq));
        if (b == kBatches && !db.InsertRecord(commands[seq])) return 1;
      }
      if (b < kBatches && !db.InsertRecords(commands)) return 2;
    }
    return 0;
  });
  EXPECT_EQ(failed, 0);
  SqliteDB db(dir.File("s.db"), 0, "check");
  for (int p = 0; p < kProcs; ++p) {
    int own = -1;
    EXPECT_TRUE(db.GetCount(table, SqliteEqual("who", p), own));
    EXPECT_EQ(own, kSingles + kBatches * kRowsPerBatch) << p;
  }
}

// Updaters killed at random under readers: nothing torn served, no process left, no wait after.
TEST_F(StressTest, UpdatersKilledAtRandomPointsUnderReaders) {
  TestCache updater(dir.path(), true);
  ASSERT_TRUE(updater.UpdateWithData(Data(1)));
  // The kill window tracks the updaters' pace so kills land before and after the pid file.
  double window = 0.02;
  const std::string stop = dir.File("stop");
  std::vector<pid_t> readers;
  for (int r = 0; r < 8; ++r) {
    readers.push_back(StartChild([&] {
      setlogmask(LOG_UPTO(LOG_NOTICE));
      TestCache reader(dir.path(), false);
      int reads = 0;
      while (!Exists(stop) || reads == 0) {
        if (!reader.IsValidData(reader.Read())) return 1;
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
      TestCache doomed(dir.path(), true);
      doomed.value = 1000 + i;
      doomed.delayMs = static_cast<int>(random() % 3);
      return doomed.Update() ? 0 : 1;
    });
    usleep(static_cast<unsigned>(std::uniform_real_distribution<double>(0, window)(random) * 1e6));
    kill(victim, SIGKILL);
    const ChildResult result = WaitChild(victim);
    killedMidway += result.signal == SIGKILL;
    finished += result.exitCode == 0;
    window *= result.signal == SIGKILL ? 1.2 : 0.8;
    Json::Value doc;  // whole: the old data or the victim's
    ASSERT_TRUE(JsonFromFile(doc, updater.GetCachePath())) << i;
    const int v = doc["cached_data"]["v"].asInt();
    EXPECT_TRUE(v == i + 1 || v == 1000 + i) << i << ": " << v;
    updater.value = i + 2;
    slowestRestart =
        std::max(slowestRestart, SecondsTaken([&] { EXPECT_TRUE(updater.Update()) << i; }));
    EXPECT_TRUE(updater.GetCachedData() == Data(i + 2) && !Exists(pidPath)) << i;
  }
  ASSERT_TRUE(WriteText(stop, ""));
  int readerFaults = 0;
  for (pid_t reader : readers) readerFaults += WaitChild(reader).exitCode != 0;
  EXPECT_TRUE(readerFaults == 0 && killedMidway > 0 && finished > 0)
      << readerFaults << " " << killedMidway << " " << finished;
  EXPECT_LT(slowestRestart, 4.0);  // never a lock time-out of the 5 s kind
  EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);  // no child left
}
