#include "vantdr/sqlite_db.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "vantdr/json_text.h"

using namespace VantDRCore;
using Lines = std::vector<std::string>;
using Rows = std::vector<SqliteValueList>;

namespace {

const SqliteTableHandler kJobs("job", "id INTEGER PRIMARY KEY, name TEXT, state INTEGER");

InsertCommand Job(int id, const std::string& name) {
  InsertCommand insert;
  insert.SetTable(kJobs);
  if (id > 0) insert.AddFieldValue("id", id);
  insert.AddFieldValue("name", name);
  return insert;
}

SelectCommand AllJobs(const std::string& condition) {
  SelectCommand select;
  select.SetTable(kJobs);
  select.SelectAll();
  select.SetCondition(condition);
  return select;
}

// A child holding BEGIN EXCLUSIVE on `path` for 1.5 s; returns once it holds.
pid_t HoldExclusive(const std::string& path) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = VantDRTest::StartChild([&]() {
    sqlite3* handle = nullptr;
    sqlite3_open(path.c_str(), &handle);
    if (sqlite3_exec(handle, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != 0) return 1;
    if (write(fds[1], "x", 1) == 1) usleep(1500 * 1000);
    return sqlite3_exec(handle, "COMMIT", nullptr, nullptr, nullptr);
  });
  char c;
  close(fds[1]);
  if (read(fds[0], &c, 1) != 1) pid = -1;
  close(fds[0]);
  return pid;
}

}  // namespace

TEST(SqliteDB, ConnectionAndFailures) {
  VantDRTest::TempDir tmp;
  SqliteDB db(tmp.File("a.db"), 2, "t");
  EXPECT_FALSE(db.IsExisted());  // construction opens nothing
  ASSERT_TRUE(db.Exec("CREATE TEMP TABLE mark (x)"));
  EXPECT_TRUE(db.Open());  // the connection owning the temp table survives
  SqliteValueList row;
  EXPECT_TRUE(db.SelectByCommand("SELECT count() AS n FROM temp.mark", row));
  VantDRTest::LogCapture log;
  Rows rows;
  // A final failure: no retry, 404 with SQLite's own code and text.
  const std::string err =
      "{\"err_code\":404,\"err_msg\":{\"sqlite_errcode\":1,\"sqlite_errmsg\":\"near "
      "\\\"SELEC\\\": syntax error\"}}";
  EXPECT_FALSE(db.Exec("SELEC 1") || db.SelectByCommand("SELEC 1", row) ||
               db.SelectByCommand("SELEC 1", rows));
  EXPECT_EQ(JsonToString(db.GetErr()), err);
  const std::string tail = "[SELEC 1] with err [" + err + "]";
  EXPECT_EQ(log.Messages("ERR"), (Lines{"Reach retry limit [0], failed to exec command " + tail,
                                        "Reach retry limit [0], failed to select command" + tail,
                                        "Reach retry limit [0], failed to exec command " + tail}));
  EXPECT_EQ(row.ToStr(), "n:0");
}

TEST(SqliteDB, RowConversion) {
  VantDRTest::TempDir tmp;
  SqliteDB db(tmp.File("a.db"), 0, "t");
  ASSERT_TRUE(
      db.Exec("CREATE TABLE m (i INTEGER, t TEXT, n TEXT, r REAL, b BLOB);"
              "INSERT INTO m VALUES (8589934592, 'x', NULL, 1.5, x'00ff');"
              "INSERT INTO m VALUES (-7, '', NULL, 2.5, x'01');"));
  VantDRTest::LogCapture log;
  SqliteValueList row;
  row.AddValue("old", SqliteValue(1));
  ASSERT_TRUE(db.SelectByCommand("SELECT * FROM m", row));
  long long big = 0;
  EXPECT_TRUE(row.GetValue("i", big) && big == 8589934592LL);
  EXPECT_EQ(row.ToStr(), "i:, t:'x'");  // replaced, not merged; 2^33 formats to ""
  EXPECT_EQ(log.Summary(), (Lines{"WARN ParseRecord: field [n] has null value",
                                  "WARN ParseRecord: Not supported type [2] with field [r]",
                                  "WARN ParseRecord: Not supported type [4] with field [b]"}));
  db.SetErr(407);
  EXPECT_TRUE(db.SelectByCommand("SELECT * FROM m WHERE i = 0", row));
  EXPECT_EQ(db.GetErrCode(), 0);
  EXPECT_EQ(row.ToStr(), "i:, t:'x'");  // no row: untouched
  Rows rows(1);
  ASSERT_TRUE(db.SelectByCommand("SELECT i, t FROM m ORDER BY i", rows));
  ASSERT_EQ(rows.size(), 3u);  // appended after the caller's element
  EXPECT_EQ(rows[1].ToStr(), "i:-7, t:''");
}

TEST(SqliteDB, TableAndRecordOperations) {
  VantDRTest::TempDir tmp;
  VantDRTest::LogCapture log;
  SqliteDB db(tmp.File("jobs.db"), 1, "[jobs]");
  // Without a file, deleting succeeds, reading fails leaving the record; neither creates it.
  EXPECT_TRUE(db.DeleteRecord("id=1", kJobs) && db.DeleteAllRecords(kJobs));
  db.SetErr(123, "earlier");
  Rows rows;
  SqliteValueList row;
  EXPECT_FALSE(db.SelectRecords(AllJobs("id=1"), rows) || db.SelectRecord(AllJobs("id=1"), row));
  EXPECT_EQ(JsonToString(db.GetErr()), "{\"err_code\":123,\"err_msg\":\"earlier\"}");
  EXPECT_TRUE(db.CreateTable(SqliteTableHandler("", "")));  // nothing to create: nothing sent
  EXPECT_FALSE(db.IsExisted());
  int count = -1;
  EXPECT_FALSE(db.GetCount(kJobs, count) || db.IsTableExisted("job"));
  EXPECT_EQ(log.Messages("ERR").back(),
            "Record is empty on command [SELECT count() as count FROM 'job';]");
  log.Clear();
  EXPECT_FALSE(db.InsertRecord(InsertCommand()));
  EXPECT_EQ(db.GetErrCode(), 401);
  ASSERT_TRUE(db.InsertRecord(Job(1, "backup")));
  EXPECT_EQ(log.Summary(),
            (Lines{"ERR GetCommand: Bad insert parameter", "INFO Exec: [jobs] Exec cmd: ",
                   "INFO Exec: [jobs] Exec cmd: INSERT INTO job (id,name) VALUES (1,'backup');",
                   "INFO Exec: [jobs] Exec cmd success"}));
  for (int id = 2; id <= 5; ++id) ASSERT_TRUE(db.InsertRecord(Job(id, "j")));
  EXPECT_FALSE(db.DeleteRecord("", kJobs));
  EXPECT_EQ(db.GetErrCode(), 401);
  EXPECT_TRUE(db.DeleteRecord("id=3", kJobs));
  SelectCommand select = AllJobs("id>1");
  select.AddOrderField("id");
  select.SetLimit(2);
  ASSERT_TRUE(db.SelectRecords(select, rows));
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].ToStr() + "|" + rows[1].ToStr(), "id:5, name:'j'|id:4, name:'j'");
  EXPECT_TRUE(db.GetCount(kJobs, count) && count == 4);
  EXPECT_TRUE(db.DeleteAllRecords(kJobs) && db.GetCount(kJobs, count) && count == 0);
}

TEST(SqliteDB, StringsRoundTripAndInjectionStaysAValue) {
  VantDRTest::TempDir tmp;
  SqliteDB db(tmp.File("a.db"), 0, "t");
  const Lines texts = {
      "it's",        "''", "\"q\" \\'", "a\nb\r\t", "\xc3\xa9\xff\x01", "x'); DROP TABLE job; --",
      "' OR '1'='1", ""};
  for (size_t i = 0; i < texts.size(); ++i) ASSERT_TRUE(db.InsertRecord(Job(i + 1, texts[i])));
  for (size_t i = 0; i < texts.size(); ++i) {
    SelectCommand select = AllJobs("");
    select.SetCondition(SqliteEqual("name", SqliteValue(texts[i])));
    Rows rows;
    std::string name;
    ASSERT_TRUE(db.SelectRecords(select, rows) && rows.size() == 1u) << i;
    EXPECT_TRUE(rows[0].GetValue("name", name) && name == texts[i]) << i;
  }
}

TEST(SqliteDBContention, RetryLimitBoundsAttempts) {
  VantDRTest::TempDir tmp;
  SqliteDB db(tmp.File("c.db"), 0, "t");
  ASSERT_TRUE(db.Exec("CREATE TABLE t (x INTEGER); INSERT INTO t VALUES (1);"));
  VantDRTest::LogCapture log;
  pid_t holder = HoldExclusive(tmp.File("c.db"));
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(db.Exec("INSERT INTO t VALUES (2)"));
  // The busy time-out waited once; no retry pause followed.
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(waited > std::chrono::milliseconds(900) && waited < std::chrono::milliseconds(1900));
  EXPECT_EQ(VantDRTest::WaitChild(holder).exitCode, 0);
  const std::string err =
      "{\"err_code\":405,\"err_msg\":{\"sqlite_errcode\":5,\"sqlite_errmsg\":\"database is "
      "locked\"}}";
  EXPECT_EQ(log.Messages("ERR"), Lines{"Reach retry limit [1], failed to exec command [INSERT "
                                       "INTO t VALUES (2)] with err [" +
                                       err + "]"});
  SqliteDB patient(tmp.File("c.db"), 2, "t");
  log.Clear();
  holder = HoldExclusive(tmp.File("c.db"));
  EXPECT_TRUE(patient.Exec("INSERT INTO t VALUES (3)"));
  EXPECT_EQ(VantDRTest::WaitChild(holder).exitCode, 0);
  holder = HoldExclusive(tmp.File("c.db"));
  Rows rows;
  SqliteDB reader(tmp.File("c.db"), 1, "t");  // one retry is enough, and allowed
  EXPECT_TRUE(reader.SelectByCommand("SELECT x FROM t", rows) && rows.size() == 2u);
  EXPECT_EQ(VantDRTest::WaitChild(holder).exitCode, 0);
  EXPECT_EQ(log.Summary(),
            (Lines{"INFO Exec: After retry [1] times, success to exec command [INSERT INTO t "
                   "VALUES (3)]",
                   "INFO SelectByCommand: After retry [1] times, success to select command"}));
}

TEST(SqliteDBContention, ConcurrentWritersLoseNoRow) {
  VantDRTest::TempDir tmp;
  const int kWriters = 4, kInserts = 200;
  std::vector<pid_t> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.push_back(VantDRTest::StartChild([&]() {
      setlogmask(LOG_UPTO(LOG_NOTICE));
      SqliteDB db(tmp.File("w.db"), 3, "w");
      int failed = 0;
      for (int i = 0; i < kInserts; ++i) failed += db.InsertRecord(Job(0, "w")) ? 0 : 1;
      return failed;
    }));
  }
  int succeeded = 0;
  for (pid_t pid : writers) {
    const int failed = VantDRTest::WaitChild(pid).exitCode;
    EXPECT_EQ(failed, 0);
    succeeded += kInserts - failed;
  }
  SqliteDB db(tmp.File("w.db"), 0, "t");
  int count = -1;
  EXPECT_TRUE(db.GetCount(kJobs, count) && count == succeeded);
}
