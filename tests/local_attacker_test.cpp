// uid 65534 against a root service on a private /tmp, whatever the fs.protected_* sysctls say.
#include <spawn.h>
#include <sys/prctl.h>

#include "support/file_sandbox.h"
#include "support/suite.h"
#include "support/syscall_filter.h"

extern "C" char** environ;

const uid_t kAttacker = 65534;
// A root file only root may read, and a cache document: served, it would show.
const std::string kSecret = R"({"cached_data":{"v":666}})";
const char* const kSecretPath = "/tmp/rootdir/secret";

#define CHECK_OR(code, cond) \
  if (!(cond)) return code

void OnPrivateTmp(const std::function<int()>& body) {
  VANTDR_ON_PRIVATE_TMPFS(code, 1 << 20, [&](const std::string&) {
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777,size=256m") != 0) return 97;
    if (mkdir("/tmp/rootdir", 0700) != 0 || !WriteText(kSecretPath, kSecret)) return 96;
    alarm(60);
    return chmod(kSecretPath, 0600) == 0 ? body() : 96;
  });
  EXPECT_EQ(code, 0);
}

bool AsAttacker(const std::function<int()>& body) {
  return RunUnprivileged(body, false).exitCode == 0;
}

pid_t StartAttacker(const std::function<int()>& body) {
  return StartChild([&] {
    if (setresgid(kAttacker, kAttacker, kAttacker) != 0 ||
        setresuid(kAttacker, kAttacker, kAttacker) != 0)
      return 98;
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return 98;  // after the id change, which clears it
    return body();
  });
}

bool Untouched(const std::string& path = kSecretPath, const std::string& text = kSecret,
               uid_t uid = 0) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == uid &&
         ReadText(path) == text;
}

TEST(LocalAttacker, ExchangedDirectoryNeverHandsARootFileOver) {
  for (const bool attackerDir : {false, true}) {
    SCOPED_TRACE(attackerDir ? "cache directory of the attacker" : "fallback path");
    OnPrivateTmp([&] {
      CHECK_OR(2, AsAttacker([&] {
                 const char* link =
                     attackerDir ? "/tmp/cachedir/c.cached" : "/tmp/default_dr_cache";
                 return (attackerDir && mkdir("/tmp/cachedir", 0777) != 0) ||
                        mkdir("/tmp/swap", 0777) != 0 || !WriteText("/tmp/swap/secret", "mine") ||
                        symlink("/tmp/rootdir", "/tmp/swaplink") != 0 ||
                        symlink("/tmp/swap/secret", link) != 0;
               }));
      const pid_t swapper = StartAttacker([] {
        for (;;) syscall(SYS_renameat2, AT_FDCWD, "/tmp/swap", AT_FDCWD, "/tmp/swaplink", 2);
        return 0;
      });
      TestCache cache(attackerDir ? "/tmp/cachedir" : "", false, -1);
      LogCapture log;
      int wrote = 0, failed = 0;
      for (int i = 0; i < 20000 && !failed; ++i) {
        if (cache.UpdateWithData(Data(i))) failed = 3;
        wrote += File::Write(cache.GetCachePath(), Data(i));
        struct stat st;
        if (stat(kSecretPath, &st) != 0 || st.st_uid != 0 || (st.st_mode & 07777) != 0600)
          failed = 4;
      }
      kill(swapper, SIGKILL);
      WaitChild(swapper);
      CHECK_OR(failed, failed == 0);
      // A plain write follows the link as fopen would; the cache never does.
      CHECK_OR(6,
               wrote > 0 && log.Count("Refused [" + cache.GetCachePath() +
                                      "]: a link, special file or file of another user") == 20000);
      return 0;
    });
  }
}

TEST(LocalAttacker, TemporaryNamesCannotBeOccupiedAndCleanUpIsBounded) {
  OnPrivateTmp([&] {
    const pid_t victim = StartChild([] {
      RefuseUnnamedTemporaryFiles();
      kill(getpid(), SIGSTOP);
      if (!File::Write("/tmp/doc", Data(1)) || !File::Write("/tmp/doc", Data(2))) return 4;
      return VLIBCProcPidFileCreate("/tmp/x.pid") == 0 && VLIBCReadPidFile("/tmp/x.pid") == getpid()
                 ? 0
                 : 5;
    });
    waitpid(victim, nullptr, WUNTRACED);
    CHECK_OR(2, AsAttacker([&] {
               // The names of a counter, decimal or as wide as our random part.
               const std::string stem = "/tmp/.vantdr-tmp." + std::to_string(victim) + ".";
               for (int n = 0; n < 100; ++n) {
                 char wide[32];
                 snprintf(wide, sizeof wide, "%016x", n);
                 if (!WriteText(stem + std::to_string(n), "x") || !WriteText(stem + wide, "x"))
                   return 1;
               }
               return 0;
             }));
    kill(victim, SIGCONT);
    CHECK_OR(4, WaitChild(victim).exitCode == 0 &&
                    Untouched("/tmp/.vantdr-tmp." + std::to_string(victim) + ".7", "x", kAttacker));
    // Leftovers of a dead writer: each replacement removes a few, never all at once.
    mkdir("/tmp/many", 0755);
    for (int n = 0; n < 3000; ++n) {
      char name[64];
      snprintf(name, sizeof name, "/tmp/many/.vantdr-tmp.%d.%016x", 999999, n);
      CHECK_OR(5, WriteText(name, ""));
    }
    CHECK_OR(6, File::Write("/tmp/many/doc", Data(1)) && File::Write("/tmp/many/doc", Data(2)));
    const size_t afterOne = Entries("/tmp/many").size();
    CHECK_OR(7, afterOne > 2900 && afterOne < 3001);
    // Our name form, a dead pid, but another user's file: never removed.
    const std::string foreign = "/tmp/many/.vantdr-tmp.999999.00000000deadbeef";
    CHECK_OR(8, WriteText(foreign, "") && chown(foreign.c_str(), kAttacker, kAttacker) == 0);
    for (int i = 0; i < 400; ++i) CHECK_OR(9, File::Write("/tmp/many/doc", Data(i)));
    CHECK_OR(10, Entries("/tmp/many").size() == 2 && Untouched(foreign, "", kAttacker));
    // An unprivileged writer cannot signal init (EPERM): its leftover is alive.
    const std::string live = "/tmp/mine/.vantdr-tmp.1.0123456789abcdef";
    CHECK_OR(11, AsAttacker([&] {
                   return mkdir("/tmp/mine", 0755) != 0 || !WriteText(live, "") ||
                          !File::Write("/tmp/mine/doc", Data(1)) ||
                          !File::Write("/tmp/mine/doc", Data(2));
                 }) &&
                     Untouched(live, "", kAttacker));
    // Without /proc an unnamed temporary is named through its descriptor.
    CHECK_OR(12, umount2("/proc", MNT_DETACH) == 0 && File::Write("/tmp/noproc", Data(3)) &&
                     ReadText("/tmp/noproc") == JsonToString(Data(3)));
    return 0;
  });
}

TEST(LocalAttacker, PlantedCacheAndPidFilesAreNeitherTrustedNorWrittenThrough) {
  const std::string cached = "/tmp/default_dr_cache", pid = cached + ".pid";
  const std::string foreign = "a link, special file or file of another user";
  const struct {
    std::string path, plant, refusal;
  } rows[] = {{cached, "file", foreign},
              {cached, kSecretPath, foreign},
              {cached, "/dev/zero", foreign},
              {cached, "fifo", foreign},
              {pid, "fifo", "not a regular file"},
              {pid, "1\n", "a file of another user, or a hard link, in a shared directory"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path + " " + row.plant);
    OnPrivateTmp([&] {
      const char* path = row.path.c_str();
      CHECK_OR(2, AsAttacker([&] {
                 if (row.plant == "fifo") return mkfifo(path, 0666);
                 if (row.plant[0] == '/') return symlink(row.plant.c_str(), path);
                 return WriteText(path, row.plant == "file" ? kSecret : row.plant) ? 0 : 1;
               }));
      const std::string refused = "Refused [" + row.path + "]: " + row.refusal;
      if (row.path == pid) {
        CHECK_OR(3, VLIBCReadPidFile(path) == 0);
        TestCache cache("/proc/vantdr-none", true, 0);
        LogCapture log;
        CHECK_OR(4, cache.GetCachePath() == cached && cache.Read() == Data(7));
        return log.Count(refused) >= 1 ? 0 : 5;
      }
      struct stat before, after;
      lstat(path, &before);
      TestCache cache("", false, -1);
      cache.fallback = Data(0);
      LogCapture log;
      CHECK_OR(3, cache.GetCachedData() == Data(0) && !cache.UpdateWithData(Data(1)));
      CHECK_OR(4, Untouched() && lstat(path, &after) == 0 && after.st_ino == before.st_ino &&
                      after.st_size == before.st_size);
      return log.Count(refused) == 1 ? 0 : 5;
    });
  }
}

TEST(LocalAttacker, LockDirectoryOfAnotherUserIsRefused) {
  OnPrivateTmp([&] {
    CHECK_OR(2, AsAttacker([] {
               return mkdir("/tmp/.vantdr_lock", 0777) | chmod("/tmp/.vantdr_lock", 0777) |
                      mkfifo("/tmp/.vantdr_lock/fifo", 0666) |
                      symlink("/tmp/rootdir/created", "/tmp/.vantdr_lock/link");
             }));
    LogCapture log;
    for (const char* name : {"fifo", "link", "new"})
      CHECK_OR(3, !FileLock(name).lock(LOCK_EX | LOCK_NB, 0));
    CHECK_OR(5, access("/tmp/rootdir/created", F_OK) != 0 && Untouched() &&
                    log.Count("Failed to open lock file[/tmp/.vantdr_lock/new], errno=Permission "
                              "denied") == 1);
    CHECK_OR(6, system("rm -rf /tmp/.vantdr_lock") == 0);
    umask(0);  // careless: root's own lock directories must still be closed to others
    auto deep = std::make_unique<FileLock>("a/b/lock");
    CHECK_OR(7, deep->lock(LOCK_EX | LOCK_NB, 0));
    for (const char* dir : {"/tmp/.vantdr_lock", "/tmp/.vantdr_lock/a", "/tmp/.vantdr_lock/a/b"}) {
      struct stat st;
      CHECK_OR(8, stat(dir, &st) == 0 && (st.st_mode & 022) == 0);
    }
    CHECK_OR(9, (fcntl(deep->getFd(), F_GETFD) & FD_CLOEXEC) != 0);
    if (getenv("VANTDR_EMULATED") != nullptr) return 0;  // emulation runs programs its own way
    pid_t program;
    char* const argv[] = {const_cast<char*>("sleep"), const_cast<char*>("5"), nullptr};
    CHECK_OR(10, posix_spawn(&program, "/bin/sleep", nullptr, nullptr, argv, environ) == 0);
    deep.reset();
    CHECK_OR(11, RunInChild([] {
                   return FileLock("a/b/lock").tryLock(LOCK_EX | LOCK_NB) ? 0 : 1;
                 }).exitCode == 0);
    kill(program, SIGKILL);
    waitpid(program, nullptr, 0);
    return 0;
  });
}

TEST(LocalAttacker, BuilderTextRunsAsExactlyOneStatement) {
  TempDir dir;
  SqliteDB db(dir.File("db"), 0, "t");
  ASSERT_TRUE(db.Exec("CREATE TABLE victim (v INTEGER); INSERT INTO victim VALUES (1);"));
  const SqliteTableHandler job("job", "id INTEGER, name TEXT");
  InsertCommand field, table;
  field.SetTable(job);
  field.AddFieldValue("id) VALUES (1); DROP TABLE victim; --", 1);
  table.SetTable(SqliteTableHandler("job (id INTEGER); DROP TABLE victim; --", "id INTEGER"));
  table.AddFieldValue("id", 1);
  UpdateCommand update;
  update.SetTable(job);
  update.AddFieldValue("name", std::string("x"));
  update.SetCondition("1=1; DELETE FROM victim");
  SelectCommand select;
  select.SetTable(job);
  select.AddField("id FROM job; ATTACH DATABASE 'x' AS y; --");
  LogCapture log;
  std::vector<SqliteValueList> rows;
  const auto refused = [&](bool ok) {
    EXPECT_TRUE(!ok && db.GetErrCode() == 401);
    const std::vector<std::string> errs = log.Messages("ERR");
    EXPECT_TRUE(errs.size() == 1 && errs[0].rfind("Refused [", 0) == 0) << errs.size();
    log.Clear();
  };
  refused(db.InsertRecord(field));
  refused(db.InsertRecord(table));
  refused(db.InsertRecords({field}));
  refused(db.UpdateRecord(update));
  refused(db.UpdateRecords({update}));
  refused(db.SelectRecords(select, rows));
  EXPECT_EQ(Query(dir.File("db"), "SELECT count(*) FROM victim"), "1");
  EXPECT_FALSE(db.IsTableExisted("job"));
}
