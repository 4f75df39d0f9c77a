// SQLite failing underneath SqliteDB; each failure leaves its exact error record.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "support/fault_injection.h"
#include "support/log_capture.h"
#include "support/private_tmpfs.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "vantdr/json_text.h"
#include "vantdr/sqlite_db.h"

using namespace VantDRCore;
using namespace VantDRTest;
using Rows = std::vector<SqliteValueList>;

namespace {

const SqliteTableHandler kItems("item", "id INTEGER PRIMARY KEY, name TEXT");

InsertCommand Item(int id, const std::string& name) {
  InsertCommand insert;
  insert.SetTable(kItems);
  insert.AddFieldValue("id", id);
  insert.AddFieldValue("name", name);
  return insert;
}

SelectCommand AllItems() {
  SelectCommand select;
  select.SetTable(kItems);
  select.SelectAll();
  return select;
}

// One transaction: a sync per row would make the larger files slow.
bool Seed(const std::string& path, int rows, size_t nameSize = 4) {
  SqliteDB db(path, 0, "seed");
  if (!db.CreateTable(kItems) || !db.Exec("BEGIN")) return false;
  for (int id = 1; id <= rows; ++id) {
    if (!db.Exec(Item(id, std::string(nameSize, 'a' + id % 26)).GetCommand())) return false;
  }
  return db.Exec("COMMIT");
}

// The ids of `rows`, in order: "1,2,3".
std::string Ids(const Rows& rows) {
  std::string ids;
  for (const SqliteValueList& row : rows) {
    int id = 0;
    ids += (ids.empty() ? "" : ",") + (row.GetValue("id", id) ? std::to_string(id) : "?");
  }
  return ids;
}

std::string Err(int code, int sqliteCode, const std::string& message) {
  return R"({"err_code":)" + std::to_string(code) + R"(,"err_msg":{"sqlite_errcode":)" +
         std::to_string(sqliteCode) + R"(,"sqlite_errmsg":")" + message + R"("}})";
}

// Runs `body` in a child and returns the text it produced ("" when the child
// failed); `code` gets the child's exit code.
std::string InChild(const std::function<int(std::string&)>& body, int& code) {
  int out[2];
  if (pipe(out) != 0) return "";
  const pid_t pid = StartChild([&] {
    close(out[0]);
    std::string text;
    const int result = body(text);
    return write(out[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? result
                                                                                        : 96;
  });
  close(out[1]);
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = read(out[0], buffer, sizeof buffer)) > 0) text.append(buffer, n);
  close(out[0]);
  code = WaitChild(pid).exitCode;
  return text;
}

// A file the process may only read: the write is refused, reading still works.
TEST(SqliteFaults, ReadOnlyFile) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  TempDir dir;
  chmod(dir.path().c_str(), 0755);
  const std::string path = dir.File("ro.db");
  ASSERT_TRUE(Seed(path, 2));
  chmod(path.c_str(), 0644);
  int code = -1;
  const std::string outcome = InChild(
      [&](std::string& text) {
        if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) return 98;
        SqliteDB db(path, 0, "ro");
        const bool inserted = db.InsertRecord(Item(3, "c"));
        text = std::string(inserted ? "inserted " : "refused ") + JsonToString(db.GetErr());
        Rows rows;
        text += db.SelectRecords(AllItems(), rows) ? " read " + Ids(rows) : " unread";
        return 0;
      },
      code);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(outcome,
            "refused " + Err(404, 8, "attempt to write a readonly database") + " read 1,2");
}

// A full 64 KiB file system: SQLITE_FULL, earlier rows kept and readable.
TEST(SqliteFaults, FullFileSystem) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting needs root";
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  VANTDR_ON_PRIVATE_TMPFS(code, 64 * 1024, [&](const std::string& mnt) {
    const std::string path = mnt + "/full.db";
    SqliteDB db(path, 0, "full");
    int inserted = 0;
    while (inserted < 100 && db.InsertRecord(Item(inserted + 1, std::string(2000, 'x')))) {
      ++inserted;
    }
    int count = -1;
    SqliteDB reader(path, 0, "reader");
    const bool counted = reader.GetCount(kItems, count);
    const std::string text =
        JsonToString(db.GetErr()) + " " + (counted && count == inserted ? "all kept" : "rows lost");
    if (write(out[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) return 2;
    return inserted > 0 && inserted < 100 ? 0 : 1;
  });
  close(out[1]);
  char buffer[512] = {};
  const ssize_t n = read(out[0], buffer, sizeof buffer - 1);
  close(out[0]);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(std::string(buffer, n > 0 ? n : 0),
            Err(404, 13, "database or disk is full") + " all kept");
}

// A foreign header gives SQLITE_NOTADB, garbage table pages SQLITE_CORRUPT.
TEST(SqliteFaults, CorruptedHeaderAndPages) {
  TempDir dir;
  const std::string header = dir.File("header.db"), pages = dir.File("pages.db");
  ASSERT_TRUE(Seed(header, 2) && Seed(pages, 200, 100));
  auto scribble = [](const std::string& path, off_t at, size_t size) {
    const int fd = open(path.c_str(), O_WRONLY);
    const std::string junk(size, '\xa5');
    const bool written = pwrite(fd, junk.data(), size, at) == static_cast<ssize_t>(size);
    return close(fd) == 0 && written;
  };
  ASSERT_TRUE(scribble(header, 0, 100));
  ASSERT_TRUE(scribble(pages, 4096, 4096 * 4));  // the table's root and first leaves

  LogCapture log;
  for (const auto& [path, err] :
       {std::make_pair(header, Err(404, 26, "file is not a database")),
        std::make_pair(pages, Err(404, 11, "database disk image is malformed"))}) {
    SqliteDB db(path, 0, "corrupt");
    Rows rows;
    EXPECT_FALSE(db.SelectRecords(AllItems(), rows)) << path;
    EXPECT_EQ(JsonToString(db.GetErr()), err);
    EXPECT_TRUE(rows.empty()) << path;
    EXPECT_FALSE(db.InsertRecord(Item(201, "z"))) << path;
    EXPECT_EQ(JsonToString(db.GetErr()), err);
  }
}

// Deleted while open: the write is refused as read-only, the read fails too.
TEST(SqliteFaults, FileDeletedWhileOpen) {
  TempDir dir;
  const std::string path = dir.File("gone.db");
  SqliteDB db(path, 0, "gone");
  ASSERT_TRUE(db.InsertRecord(Item(1, "a")));
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_FALSE(db.InsertRecord(Item(2, "b")));
  const std::string refused = Err(404, 8, "attempt to write a readonly database");
  EXPECT_EQ(JsonToString(db.GetErr()), refused);
  Rows rows;
  EXPECT_FALSE(db.SelectRecords(AllItems(), rows));
  EXPECT_EQ(JsonToString(db.GetErr()), refused);
  EXPECT_NE(access(path.c_str(), F_OK), 0);  // not recreated
}

// SQLITE_BUSY on the third row: rows read stay; no retry gives 405, one retry appends all rows.
TEST(SqliteFaults, BusyInTheMiddleOfSelectRecords) {
  TempDir dir;
  const std::string path = dir.File("busy.db");
  ASSERT_TRUE(Seed(path, 5));
  // The query's own steps are its last six (five rows, then the end).
  Faults::Arm();
  Rows rows;
  {
    SqliteDB db(path, 0, "busy");
    ASSERT_TRUE(db.SelectRecords(AllItems(), rows));
  }
  const int thirdRow = Faults::Steps() - 6 + 3;
  Faults::Disarm();
  ASSERT_EQ(Ids(rows), "1,2,3,4,5");

  LogCapture log;
  for (unsigned retryLimit : {0u, 1u}) {
    SqliteDB db(path, retryLimit, "busy");
    rows.clear();
    log.Clear();
    Faults::Arm();
    Faults::FailStep(thirdRow, SQLITE_BUSY);
    const bool ok = db.SelectRecords(AllItems(), rows);
    Faults::Disarm();
    const std::string sql = AllItems().GetCommand();
    if (retryLimit == 0) {
      EXPECT_FALSE(ok);
      EXPECT_EQ(Ids(rows), "1,2");
      EXPECT_EQ(JsonToString(db.GetErr()), Err(405, 5, "another row available"));
      EXPECT_EQ(log.Summary(),
                (std::vector<std::string>{"ERR SelectByCommand: Reach retry limit [1], failed to "
                                          "exec command [" +
                                          sql + "] with err [" + JsonToString(db.GetErr()) + "]"}));
    } else {
      EXPECT_TRUE(ok);
      EXPECT_EQ(Ids(rows), "1,2,1,2,3,4,5");
      EXPECT_EQ(JsonToString(db.GetErr()), R"({"err_code":0})");
      EXPECT_EQ(log.Summary(),
                (std::vector<std::string>{
                    "INFO SelectByCommand: After retry [1] times, success to select command"}));
    }
  }
}

}  // namespace
