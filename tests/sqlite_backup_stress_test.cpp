// Backups, migrations and WAL settings with real processes: writers that
// keep committing, backups killed at random points, migrations racing.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "support/db_files.h"
#include "support/process.h"
#include "support/sqlite_lock.h"
#include "support/temp_dir.h"
#include "vantdr/json_text.h"
#include "vantdr/sqlite_db.h"

using namespace VantDRCore;
using namespace VantDRTest;

namespace {

const SqliteTableHandler kRows("rows",
                               "w INTEGER, seq INTEGER, half INTEGER, UNIQUE (w, seq, half)");

InsertCommand Row(int w, int seq, int half) {
  InsertCommand insert;
  insert.SetTable(kRows);
  insert.AddFieldValue("w", w);
  insert.AddFieldValue("seq", seq);
  insert.AddFieldValue("half", half);
  return insert;
}

// A database `path` with table rows, written by processes until `stop` exists.
class SqliteBackupStress : public ::testing::Test {
 protected:
  SqliteBackupStress() {
    SqliteDB db(path, 0, "t");
    EXPECT_TRUE(db.CreateTable(kRows));
  }
  // Writer w inserts transactions of two rows, then writes how many it committed to stop.<w>.
  void StartWriters(int n, const std::vector<std::string>& setup = {}) {
    for (int w = 0; w < n; ++w) {
      writers.push_back(StartChild([=] {
        SqliteDB db(path, 20, "w");
        db.SetConnectionSetup(setup);
        int seq = 1;
        for (; access(stop.c_str(), F_OK) != 0; ++seq) {
          if (!db.InsertRecords({Row(w, seq, 0), Row(w, seq, 1)})) return 1;
        }
        return WriteText(stop + "." + std::to_string(w), std::to_string(seq - 1)) ? 0 : 2;
      }));
    }
  }
  // Stops the writers: each committed every transaction, and all of them are in the database.
  void StopWriters() {
    ASSERT_TRUE(WriteText(stop, ""));
    for (size_t w = 0; w < writers.size(); ++w) {
      EXPECT_EQ(WaitChild(writers[w]).exitCode, 0);
      EXPECT_EQ(Query(path, "SELECT count(*) FROM rows WHERE w = " + std::to_string(w)),
                std::to_string(2 * std::stoi("0" + ReadText(stop + "." + std::to_string(w)))));
    }
  }
  TempDir tmp;
  const std::string path = tmp.File("src.db"), stop = tmp.File("stop");
  std::vector<pid_t> writers;
};

TEST_F(SqliteBackupStress, BackupUnderWritersHoldsAPrefixOfCommits) {
  StartWriters(4);
  SqliteDB db(path, 5, "t");
  int rows = 0;
  for (int i = 0; i < 5; ++i) {
    usleep(100 * 1000);
    const std::string copy = tmp.File("copy" + std::to_string(i) + ".db");
    ASSERT_TRUE(db.Backup(copy)) << JsonToString(db.GetErr());
    EXPECT_EQ(Query(copy, "PRAGMA quick_check"), "ok");
    // For every writer, its transactions 1..k whole: a prefix of what was committed.
    EXPECT_EQ(Query(copy,
                    "SELECT (SELECT count(*) FROM rows) = 2 * (SELECT coalesce(sum(m), 0) FROM "
                    "(SELECT max(seq) AS m FROM rows GROUP BY w)) AND NOT EXISTS "
                    "(SELECT 1 FROM rows GROUP BY w, seq HAVING count(*) != 2)"),
              "1")
        << i;
    const int now = std::stoi(Query(copy, "SELECT count(*) FROM rows"));
    EXPECT_GE(now, rows);  // later copies hold later states
    rows = now;
  }
  StopWriters();
  EXPECT_GT(rows, 0);
}

TEST_F(SqliteBackupStress, KilledBackupsLeaveThePreviousOneWhole) {
  const std::string dest = tmp.File("backup.db");
  SqliteDB db(path, 0, "t");
  ASSERT_TRUE(db.Exec(
      "CREATE TABLE t (v TEXT); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n "
      "WHERE i<20000) INSERT INTO t SELECT printf('%0200d', i) FROM n;"));
  const auto started = std::chrono::steady_clock::now();
  ASSERT_TRUE(db.Backup(dest));
  const std::chrono::microseconds took = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - started);
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<long> when(0, took.count() * 3 / 2);
  db.Close();
  for (int kill = 0; kill < 20; ++kill) {
    const pid_t child = StartChild([&] { return SqliteDB(path, 0, "t").Backup(dest) ? 0 : 1; });
    usleep(static_cast<useconds_t>(when(random)));
    ::kill(child, SIGKILL);
    WaitChild(child);
    EXPECT_EQ(Query(dest, "PRAGMA quick_check"), "ok") << kill;
    EXPECT_EQ(Query(dest, "SELECT count(*) FROM t"), "20000") << kill;
  }
  // The next backup clears what the killed ones left.
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

TEST_F(SqliteBackupStress, WalFromConnectionSetupLosesNothing) {
  const std::vector<std::string> setup = {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=NORMAL"};
  StartWriters(3, setup);
  // Readers never see the count go back, nor a half transaction.
  std::vector<pid_t> readers;
  for (int r = 0; r < 2; ++r) {
    readers.push_back(StartChild([&] {
      SqliteDB db(path, 20, "r");
      db.SetConnectionSetup(setup);
      int last = 0, count = 0;
      while (access(stop.c_str(), F_OK) != 0) {
        if (!db.GetCount(kRows, count) || count < last || count % 2 != 0) return 1;
        last = count;
      }
      return 0;
    }));
  }
  usleep(1500 * 1000);
  StopWriters();
  for (pid_t child : readers) EXPECT_EQ(WaitChild(child).exitCode, 0);
  EXPECT_EQ(Query(path, "PRAGMA journal_mode"), "wal");
  EXPECT_GT(std::stoi(Query(path, "SELECT count(*) FROM rows")), 0);
}

// The attack on the swap: while the backup waits for a writer, the name it
// will replace is turned into a link to a file the daemon must not touch.
TEST_F(SqliteBackupStress, DestinationSwappedDuringTheBackupIsLeftAlone) {
  const std::string dest = tmp.File("backup.db"), victim = tmp.File("victim");
  ASSERT_TRUE(WriteText(victim, "precious"));
  // The destination existed, or appeared during the backup.
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
    EXPECT_FALSE(db.Backup(dest)) << existed;
    EXPECT_EQ(JsonToString(db.GetErr()), "{\"err_code\":401}");
    EXPECT_EQ(WaitChild(attacker).exitCode, 0);
    EXPECT_EQ(WaitChild(holder).exitCode, 0);
    EXPECT_EQ(ReadText(victim), "precious");
    EXPECT_EQ(std::filesystem::read_symlink(dest), victim);
    // Nothing of the backup's own beside what the attacker left.
    EXPECT_EQ(Entries(tmp.path()),
              (std::set<std::string>{"src.db", "victim", "backup.db", "moved"}));
  }
}

}  // namespace
