#include "support/suite.h"

std::string ErrText(const SqliteDB& db) { return JsonToString(db.GetErr()); }

void Fill(const std::string& path, int rows) {
  Query(path,
        "CREATE TABLE t (id INTEGER PRIMARY KEY, v TEXT); CREATE INDEX tv ON t (v);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<" +
            std::to_string(rows) + ") INSERT INTO t SELECT i, printf('value-%06d', i) FROM n;");
}

TEST(SqliteBackup, CopiesReplacesAndKeepsWhatItMustNotTouch) {
  TempDir tmp;
  const std::string src = tmp.File("src.db"), dest = tmp.File("backup.db");
  Fill(src, 500);
  chmod(src.c_str(), 0640);
  SqliteDB db(src, 0, "t");
  // Leftovers of a dead backup (pid 0x7fffffff) go; those of a living one (init) stay.
  const std::string dead = ".vantdr-backup.2147483647.00", alive = ".vantdr-backup.1.00";
  for (const std::string& name : {dead, alive}) {
    mkdir(tmp.File(name).c_str(), 0700);
    ASSERT_TRUE(WriteText(tmp.File(name + "/copy"), "x"));
  }
  struct stat st;
  {
    LogCapture log;
    ASSERT_TRUE(db.Backup(dest)) << ErrText(db);
    ASSERT_EQ(stat(dest.c_str(), &st), 0);
    EXPECT_TRUE(std::regex_match(
        log.Messages("INFO").at(0),
        std::regex("Backup of db\\[" + src + "\\] to \\[" + dest +
                   "\\] done: " + std::to_string(st.st_size) + " bytes in [0-9]+ ms")));
    EXPECT_EQ(st.st_mode & 07777, 0640u);  // as readable as the database
  }
  EXPECT_EQ(Query(dest, "SELECT count(*) || ':' || sum(length(v)) FROM t"), "500:6000");
  EXPECT_EQ(Entries(tmp.path()), (std::set<std::string>{"src.db", "backup.db", alive}));
  // A replaced backup keeps mode and group; a WAL database's copy opens plain, leaving no -wal.
  ASSERT_EQ(chown(dest.c_str(), -1, 65534) | chmod(dest.c_str(), 0604), 0);
  ASSERT_EQ(Query(src, "PRAGMA journal_mode=WAL; INSERT INTO t (v) VALUES ('wal')"), "");
  db.Close();
  ASSERT_TRUE(db.Backup(dest)) << ErrText(db);
  ASSERT_EQ(stat(dest.c_str(), &st), 0);
  EXPECT_TRUE((st.st_mode & 07777) == 0604u && st.st_gid == 65534u) << st.st_mode;
  EXPECT_EQ(Query(dest, "SELECT count(*) FROM t", SQLITE_OPEN_READONLY), "501");
  EXPECT_EQ(Query(dest, "PRAGMA journal_mode"), "delete");

  // Refusals leave the previous backup, whatever sits at the path, and nothing beside them.
  mkdir(tmp.File("dir").c_str(), 0755);
  symlink(dest.c_str(), tmp.File("link.db").c_str());
  WriteText(tmp.File("theirs.db"), "not ours");
  chown(tmp.File("theirs.db").c_str(), 65534, 65534);
  const std::string before = ReadText(dest);
  const std::pair<std::string, std::string> refusals[] = {
      {tmp.path() + "/..", ""},
      {tmp.File("missing/x.db"), "no directory: No such file or directory"},
      {tmp.File("link.db"), "not a regular file of this user"},
      {tmp.File("dir"), "not a regular file of this user"},
      {tmp.File("theirs.db"), "not a regular file of this user"},
      {src, "the destination is the database itself"},
  };
  for (const auto& [path, step] : refusals) {
    LogCapture log;
    EXPECT_FALSE(db.Backup(path)) << path;
    EXPECT_EQ(ErrText(db), "{\"err_code\":401}") << path;
    EXPECT_EQ(log.Messages("ERR"),
              Lines{step.empty() ? "Invalid backup path [" + path + "] for db[" + src + "]"
                                 : "Failed to back up db[" + src + "] to [" + path + "]: " + step});
  }
  EXPECT_EQ(ReadText(tmp.File("theirs.db")), "not ours");
  {  // inside a transaction the copy would hold what is not committed
    SqliteTransaction transaction(db);
    ASSERT_TRUE(transaction.Begin());
    EXPECT_TRUE(!db.Backup(dest) && ErrText(db) == "{\"err_code\":401}");
  }
  // A directory the caller cannot write to: a user who is not root.
  db.Close();
  ASSERT_EQ(Query(src, "PRAGMA journal_mode=DELETE"), "delete");
  chmod(src.c_str(), 0644);
  chmod(tmp.path().c_str(), 0755);
  EXPECT_EQ(RunUnprivileged([&] {
              SqliteDB other(src, 0, "t");
              LogCapture log;
              if (other.Backup(tmp.File("fresh.db")) || other.GetErrCode() != 401) return 1;
              const Lines want = {"Failed to back up db[" + src + "] to [" + tmp.File("fresh.db") +
                                  "]: cannot create the copy: Permission denied"};
              return log.Messages("ERR") == want ? 0 : 2;
            }).exitCode,
            0);
  EXPECT_EQ(ReadText(dest), before);
  EXPECT_EQ(Entries(tmp.path()),
            (std::set<std::string>{"src.db", "backup.db", alive, "dir", "link.db", "theirs.db"}));
}

TEST(SqliteBackup, IntegrityChecksFindDamage) {
  TempDir tmp;
  const std::string path = tmp.File("a.db");
  Fill(path, 2000);
  SqliteDB db(path, 0, "t");
  EXPECT_TRUE(db.CheckIntegrity() && db.CheckIntegrity(false));
  ASSERT_TRUE(db.Backup(tmp.File("good.db")));
  const std::string good = ReadText(tmp.File("good.db"));
  db.Close();
  // One index key changed in place: the structure holds (quick check passes), the index is wrong.
  std::string bytes = ReadText(path);
  const size_t at = bytes.rfind("value-001000");
  const std::string indexRoot = Query(path, "SELECT rootpage FROM sqlite_master WHERE name='tv'");
  ASSERT_GT(at, std::stoul(indexRoot) * 4096 - 4096);  // the last copy is in the index
  bytes[at + 6] = '9';
  ASSERT_TRUE(WriteText(path, bytes));
  {
    LogCapture log;
    EXPECT_TRUE(db.CheckIntegrity(true) && !db.CheckIntegrity(false));
    EXPECT_EQ(ErrText(db), "{\"err_code\":404,\"err_msg\":\"row 1000 missing from index tv\"}");
    EXPECT_EQ(log.Messages("ERR"), Lines{"Integrity check [integrity_check] of db[" + path +
                                         "] failed: row 1000 missing from index tv"});
  }
  db.Close();
  // A table page overwritten: both checks fail, and so does a backup, keeping the good copy.
  bytes = ReadText(path);
  for (size_t i = 3 * 4096 + 100; i < 3 * 4096 + 400; ++i) bytes[i] = '\x55';
  ASSERT_TRUE(WriteText(path, bytes));
  EXPECT_TRUE(!db.CheckIntegrity() && !db.Backup(tmp.File("good.db")) && db.GetErrCode() == 404);
  EXPECT_EQ(ReadText(tmp.File("good.db")), good);
  EXPECT_EQ(Entries(tmp.path()), (std::set<std::string>{"a.db", "good.db"}));
}

TEST(SqliteBackup, MigrateRunsEachMissingStepOnce) {
  const Lines steps = {"CREATE TABLE log (step INTEGER)", "INSERT INTO log VALUES (2)",
                       "ALTER TABLE log ADD COLUMN note TEXT; INSERT INTO log VALUES (3, 'x')"};
  const Lines failing = {steps[0], steps[1], "INSERT INTO nowhere VALUES (1)"};
  struct Case {
    int startVersion;  // -1: a new file
    Lines steps;
    int code, endVersion;
    std::string logged, line;  // the steps run; the one INFO or ERR line, % for the path
  };
  const Case cases[] = {
      {-1, steps, 0, 3, "2,3", "INFO Migrate: Migrated db[%] from version [0] to [3]"},
      {1, steps, 0, 3, "2,3", "INFO Migrate: Migrated db[%] from version [1] to [3]"},
      {3, steps, 0, 3, "", ""},
      {1, failing, 404, 1, "",
       "ERR Migrate: Migration step [3] of db[%] failed with err "
       "[{\"err_code\":404,\"err_msg\":{\"sqlite_errcode\":1,\"sqlite_errmsg\":\"no such table: "
       "nowhere\"}}]"},
      {5, steps, 401, 5, "",
       "ERR Migrate: Schema version [5] of db[%] is newer than the [3] "
       "steps given"},
  };
  for (const Case& c : cases) {
    TempDir tmp;
    const std::string path = tmp.File("m.db");
    if (c.startVersion >= 0)
      Query(path, "CREATE TABLE log (step INTEGER); PRAGMA user_version=" +
                      std::to_string(c.startVersion));
    SqliteDB db(path, 0, "t");
    LogCapture log;
    EXPECT_TRUE(db.Migrate(c.steps) == (c.code == 0) && db.GetErrCode() == c.code) << c.line;
    int version = -1;
    EXPECT_TRUE(db.GetSchemaVersion(version) && version == c.endVersion) << version;
    EXPECT_EQ(Query(path, "SELECT group_concat(step) FROM log"), c.logged) << c.line;
    const std::string line = std::regex_replace(c.line, std::regex("%"), path);
    EXPECT_EQ(log.Summary(), line.empty() ? Lines{} : Lines{line});
  }
}

TEST(SqliteBackup, ConnectionSetupRunsOnEveryOpen) {
  TempDir tmp;
  const std::string path = tmp.File("s.db");
  SqliteDB db(path, 0, "t");
  SqliteValueList row;
  ASSERT_TRUE(db.SelectByCommand("PRAGMA synchronous", row));  // opens with the defaults
  db.SetConnectionSetup({"PRAGMA synchronous=EXTRA", "PRAGMA foreign_keys=ON"});
  for (int open = 0; open < 2; ++open) {
    ASSERT_TRUE(db.SelectByCommand("SELECT * FROM pragma_synchronous, pragma_foreign_keys", row));
    EXPECT_EQ(row.ToStr(), "foreign_keys:1, synchronous:3") << open;
    db.Close();
  }
  db.SetConnectionSetup({"PRAGMA synchronous=OFF", "PRAGMA no such thing"});
  const std::string err =
      "{\"err_code\":404,\"err_msg\":{\"sqlite_errcode\":1,\"sqlite_errmsg\":\"near \\\"such\\\": "
      "syntax error\"}}";
  LogCapture log;
  EXPECT_FALSE(db.Exec("CREATE TABLE x (a)") || db.SelectByCommand("SELECT 1", row));
  EXPECT_EQ(ErrText(db), err);
  const std::string setup =
      "Connection setup [PRAGMA no such thing] failed on db[" + path + "] with err [" + err + "]";
  EXPECT_EQ(log.Messages("ERR"), (Lines{setup, "Failed to open db [" + path + "]", setup,
                                        "Failed to open db [" + path + "]"}));
  EXPECT_EQ(Query(path, "SELECT count(*) FROM sqlite_master"), "0");
}
