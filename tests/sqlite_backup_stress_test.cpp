
#include "support/suite.h"

class SqliteBackupStress : public ::testing::Test {
 protected:
  TempDir tmp;
  const std::string path = tmp.File("src.db"), stop = tmp.File("stop");
};

// Readers never see half a pair or the count go back; copies hold whole prefixes; no commit lost.
TEST_F(SqliteBackupStress, BackupsAndReadersUnderWalWritersLoseNothing) {
  const std::vector<std::string> setup = {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=NORMAL"};
  const SqliteTableHandler rows("rows", "w INTEGER, seq INTEGER, half INTEGER");
  ASSERT_TRUE(SqliteDB(path, 0, "t").CreateTable(rows));
  std::vector<pid_t> writers, readers;
  for (int w = 0; w < 4; ++w) {
    writers.push_back(StartChild([&, w] {
      SqliteDB db(path, 20, "w");
      db.SetConnectionSetup(setup);
      int seq = 1;
      for (; access(stop.c_str(), F_OK) != 0; ++seq) {
        std::vector<InsertCommand> pair(2);
        for (int half = 0; half < 2; ++half) {
          pair[half].SetTable(rows);
          pair[half].AddFieldValue("w", w);
          pair[half].AddFieldValue("seq", seq);
          pair[half].AddFieldValue("half", half);
        }
        if (!db.InsertRecords(pair)) return 1;
      }
      return WriteText(stop + "." + std::to_string(w), std::to_string(seq - 1)) ? 0 : 2;
    }));
  }
  for (int r = 0; r < 2; ++r) {
    readers.push_back(StartChild([&] {
      SqliteDB db(path, 20, "r");
      db.SetConnectionSetup(setup);
      int last = 0, count = 0;
      for (; access(stop.c_str(), F_OK) != 0; last = count)
        if (!db.GetCount(rows, count) || count < last || count % 2 != 0) return 1;
      return 0;
    }));
  }
  SqliteDB db(path, 5, "t");
  int copied = 0;
  for (int i = 0; i < 5; ++i) {
    usleep(300 * 1000);
    const std::string copy = tmp.File("copy" + std::to_string(i) + ".db");
    ASSERT_TRUE(db.Backup(copy)) << JsonToString(db.GetErr());
    EXPECT_EQ(Query(copy,
                    "SELECT (SELECT count(*) FROM rows) = 2 * (SELECT coalesce(sum(m), 0) FROM "
                    "(SELECT max(seq) AS m FROM rows GROUP BY w)) AND NOT EXISTS "
                    "(SELECT 1 FROM rows GROUP BY w, seq HAVING count(*) != 2)"),
              "1")
        << i;
    const int now = std::stoi(Query(copy, "SELECT count(*) FROM rows"));
    EXPECT_GE(now, copied);  // later copies hold later states
    copied = now;
  }
  ASSERT_TRUE(WriteText(stop, ""));
  for (pid_t child : readers) EXPECT_EQ(WaitChild(child).exitCode, 0);
  for (size_t w = 0; w < writers.size(); ++w) {
    EXPECT_EQ(WaitChild(writers[w]).exitCode, 0);
    EXPECT_EQ(Query(path, "SELECT count(*) FROM rows WHERE w = " + std::to_string(w)),
              std::to_string(2 * std::stoi("0" + ReadText(stop + "." + std::to_string(w)))));
  }
  EXPECT_GT(copied, 0);
  EXPECT_EQ(Query(path, "PRAGMA journal_mode"), "wal");
}

TEST_F(SqliteBackupStress, KilledBackupsLeaveThePreviousOneWhole) {
  const std::string dest = tmp.File("backup.db");
  SqliteDB db(path, 0, "t");
  ASSERT_TRUE(db.Exec(
      "CREATE TABLE t (v TEXT); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n "
      "WHERE i<20000) INSERT INTO t SELECT printf('%0200d', i) FROM n;"));
  const auto started = std::chrono::steady_clock::now();
  ASSERT_TRUE(db.Backup(dest));
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - started);
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<long> when(0, took.count() * 3 / 2);
  db.Close();
  for (int kill = 0; kill < 20; ++kill) {
    const pid_t child = StartChild([&] { return SqliteDB(path, 0, "t").Backup(dest) ? 0 : 1; });
    usleep(static_cast<useconds_t>(when(random)));
    ::kill(child, SIGKILL);
    WaitChild(child);
    EXPECT_EQ(Query(dest, "SELECT (SELECT quick_check FROM pragma_quick_check) || count(*) FROM t"),
              "ok20000")
        << kill;
  }
  ASSERT_TRUE(db.Backup(dest));
  EXPECT_EQ(Entries(tmp.path()), (std::set<std::string>{"src.db", "backup.db"}));
}

TEST_F(SqliteBackupStress, SixProcessesMigrateEachStepOnce) {
  const std::vector<std::string> steps = {
      "CREATE TABLE effects (step INTEGER); INSERT INTO effects VALUES (1)",
      "INSERT INTO effects VALUES (2)", "INSERT INTO effects VALUES (3)",
      "INSERT INTO effects VALUES (4)"};
  std::vector<pid_t> children;
  for (int i = 0; i < 6; ++i) {
    children.push_back(StartChild([&] {
      SqliteDB db(path, 10, "m");
      int version = 0;
      return db.Migrate(steps) && db.GetSchemaVersion(version) && version == 4 ? 0 : 1;
    }));
  }
  for (pid_t child : children) EXPECT_EQ(WaitChild(child).exitCode, 0);
  EXPECT_EQ(Query(path, "SELECT group_concat(step) FROM (SELECT step FROM effects ORDER BY 1)"),
            "1,2,3,4");
  EXPECT_EQ(Query(path, "PRAGMA user_version"), "4");
}

// The attack on the swap: while the backup waits, its destination becomes a link to a victim.
TEST_F(SqliteBackupStress, DestinationSwappedDuringTheBackupIsLeftAlone) {
  const std::string dest = tmp.File("backup.db"), victim = tmp.File("victim");
  ASSERT_TRUE(WriteText(victim, "precious") && SqliteDB(path, 0, "t").Exec("CREATE TABLE t (a)"));
  for (const bool existed : {true, false}) {
    unlink(dest.c_str());
    ASSERT_TRUE(!existed || WriteText(dest, "old backup"));
    const pid_t holder = HoldSqliteLock(path, "BEGIN EXCLUSIVE", 1500);
    ASSERT_GT(holder, 0);
    const pid_t attacker = StartChild([&] {
      usleep(300 * 1000);
      if (existed && rename(dest.c_str(), tmp.File("moved").c_str()) != 0) return 1;
      return symlink(victim.c_str(), dest.c_str()) == 0 ? 0 : 2;
    });
    SqliteDB db(path, 2, "t");
    EXPECT_TRUE(!db.Backup(dest) && JsonToString(db.GetErr()) == "{\"err_code\":401}") << existed;
    EXPECT_TRUE(WaitChild(attacker).exitCode == 0 && WaitChild(holder).exitCode == 0 &&
                ReadText(victim) == "precious");
    EXPECT_EQ(std::filesystem::read_symlink(dest), victim);
    EXPECT_EQ(Entries(tmp.path()),
              (std::set<std::string>{"src.db", "victim", "backup.db", "moved"}));
  }
}
