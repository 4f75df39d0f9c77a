// Batches written by real processes: contending for one file, and killed in
// the middle of a transaction.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/process.h"
#include "support/temp_dir.h"
#include "vantdr/sqlite_db.h"

using namespace VantDRCore;
using namespace VantDRTest;

namespace {

const SqliteTableHandler kRows("rows",
                               "id INTEGER PRIMARY KEY, who INTEGER, batch INTEGER, seq INTEGER, "
                               "UNIQUE (who, batch, seq)");

std::vector<InsertCommand> Batch(int who, int batch, int rows) {
  std::vector<InsertCommand> commands(rows);
  for (int seq = 0; seq < rows; ++seq) {
    commands[seq].SetTable(kRows);
    commands[seq].AddFieldValue("who", who);
    commands[seq].AddFieldValue("batch", batch);
    commands[seq].AddFieldValue("seq", seq);
  }
  return commands;
}

TEST(SqliteBatchStress, ConcurrentBatchesLoseAndRepeatNoRow) {
  TempDir dir;
  const std::string path = dir.File("batches.db");
  const int kProcs = 8, kBatches = 20, kRowsPerBatch = 50;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcs; ++p) {
    children.push_back(StartChild([&, p] {
      setlogmask(LOG_UPTO(LOG_NOTICE));
      SqliteDB db(path, 5, "stress");
      for (int b = 0; b < kBatches; ++b) {
        if (!db.InsertRecords(Batch(p, b, kRowsPerBatch))) return 1;
      }
      return 0;
    }));
  }
  int failed = 0;
  for (pid_t pid : children) failed += WaitChild(pid).exitCode != 0;
  EXPECT_EQ(failed, 0);
  // A batch applied twice would have broken the UNIQUE constraint.
  SqliteDB db(path, 0, "check");
  int rows = -1;
  EXPECT_TRUE(db.GetCount(kRows, rows));
  EXPECT_EQ(rows, kProcs * kBatches * kRowsPerBatch);
  for (int p = 0; p < kProcs; ++p) {
    int own = -1;
    EXPECT_TRUE(db.GetCount(kRows, SqliteEqual("who", p), own));
    EXPECT_EQ(own, kBatches * kRowsPerBatch) << p;
  }
}

// The child's connections get a function that reports on `stallPipe` and
// then waits to be killed, called by a trigger in the middle of the batch.
int stallPipe = -1;

void Stall(sqlite3_context*, int, sqlite3_value**) {
  if (write(stallPipe, "s", 1) != 1) _exit(3);
  for (;;) pause();
}

int RegisterStall(sqlite3* handle, const char**, const sqlite3_api_routines*) {
  return sqlite3_create_function(handle, "stall", 0, SQLITE_UTF8, nullptr, Stall, nullptr, nullptr);
}

const SqliteTableHandler kPages("pages", "id INTEGER PRIMARY KEY, seq INTEGER, text TEXT");

// Rows of a kilobyte each: a few make a page.
std::vector<InsertCommand> Pages(int rows) {
  std::vector<InsertCommand> commands(rows);
  for (int seq = 0; seq < rows; ++seq) {
    commands[seq].SetTable(kPages);
    commands[seq].AddFieldValue("seq", seq);
    commands[seq].AddFieldValue("text", std::string(1000, 'a' + seq % 26));
  }
  return commands;
}

off_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

TEST(SqliteBatchStress, AProcessKilledInsideABatchLeavesNoneOfItsRows) {
  TempDir dir;
  const std::string path = dir.File("killed.db");
  {
    SqliteDB setup(path, 0, "setup");
    ASSERT_TRUE(setup.InsertRecords(Pages(1)));
    // A cache of ten pages: the killed transaction spills into the file long
    // before the stall, leaving changed pages and a sealed journal that the
    // next connection must play back.
    ASSERT_TRUE(setup.Exec("PRAGMA default_cache_size=10"));
    ASSERT_TRUE(setup.Exec(
        "CREATE TRIGGER stall_midway AFTER INSERT ON pages WHEN NEW.seq = 500 BEGIN SELECT "
        "stall(); END"));
  }
  const off_t original = FileSize(path);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t child = StartChild([&] {
    close(fds[0]);
    stallPipe = fds[1];
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(RegisterStall));
    SqliteDB db(path, 5, "killed");
    db.InsertRecords(Pages(1000));
    return 2;  // never reached: the trigger stalls at row 500
  });
  close(fds[1]);
  char c = 0;
  const bool stalled = read(fds[0], &c, 1) == 1;
  close(fds[0]);
  ASSERT_TRUE(stalled);
  ASSERT_EQ(kill(child, SIGKILL), 0);
  EXPECT_EQ(WaitChild(child).signal, SIGKILL);
  EXPECT_GT(FileSize(path), original + 100 * 1000);
  EXPECT_GT(FileSize(path + "-journal"), 0);

  // The next connection plays the journal back: none of the rows, no debris.
  SqliteDB db(path, 0, "check");
  int rows = -1;
  EXPECT_TRUE(db.GetCount(kPages, rows));
  EXPECT_EQ(rows, 1);
  EXPECT_EQ(FileSize(path), original);
  EXPECT_EQ(FileSize(path + "-journal"), -1);
  SqliteValueList check;
  EXPECT_TRUE(db.SelectByCommand("PRAGMA integrity_check", check));
  EXPECT_EQ(check.ToStr(), "integrity_check:'ok'");
  ASSERT_TRUE(db.Exec("DROP TRIGGER stall_midway"));
  EXPECT_TRUE(db.InsertRecords(Pages(1000)) && db.GetCount(kPages, rows));
  EXPECT_EQ(rows, 1001);
}

}  // namespace
