// Every operation raising its ids to root leaves all caller ids as they were, success or not.
#include <array>

#include "support/suite.h"

std::array<unsigned, 6> Ids() {
  uid_t u[3];
  gid_t g[3];
  getresuid(&u[0], &u[1], &u[2]);
  getresgid(&g[0], &g[1], &g[2]);
  return {u[0], u[1], u[2], g[0], g[1], g[2]};
}

struct Row {
  const char* name;
  bool expected;  // the operation's own result
  std::function<bool()> op;
};

class PrivilegeHygiene : public CacheFixture {};

TEST_F(PrivilegeHygiene, IdsAreRestoredAfterEveryPrivilegedOperation) {
  if (geteuid() != 0) GTEST_SKIP();
  // The directories are root's and 0700: only raised ids can write in them.
  TempDir made;
  const std::string leaf = made.File("a b; touch x") + "/leaf";
  ASSERT_TRUE(WriteText(dir.File("plain"), "x"));
  const std::string lockName = UniqueName("hygiene");
  const std::string heldName = UniqueName("hygiene_held");
  FileLock held(heldName);  // held by the parent: the child's own open file conflicts
  ASSERT_TRUE(held.lock(LOCK_EX | LOCK_NB, 0));
  FileLock lock(lockName), unnamed(""), busy(heldName);
  // Retry limit -1: one attempt, no pauses.
  TestCache cache(dir.path(), false, -1), required(dir.path(), true, -1);
  TestCache unwritable(dir.File("other"), true, -1);
  ASSERT_EQ(mkdir(unwritable.GetCachePath().c_str(), 0755), 0);  // no file can replace it
  LogCapture quiet;  // keeps the failure lines out of the system log

  const std::vector<Row> rows = {
      {"CreateDir", true, [&] { return File::CreateDir(leaf, 0750); }},
      {"CreateDir under a file", false, [&] { return File::CreateDir(dir.File("plain/d"), 0755); }},
      {"lock", true, [&] { return lock.lock(LOCK_EX | LOCK_NB, 0); }},
      {"lock again", true, [&] { return lock.lock(LOCK_SH | LOCK_NB, 0); }},
      {"unlock", true, [&] { return lock.unlock(), true; }},
      {"tryLock", true, [&] { return lock.tryLock(LOCK_EX | LOCK_NB); }},
      {"lock without a name", false, [&] { return unnamed.lock(LOCK_EX | LOCK_NB, 0); }},
      {"unlock without a file", true, [&] { return unnamed.unlock(), true; }},
      {"lock held elsewhere", false, [&] { return busy.lock(LOCK_EX | LOCK_NB, 0); }},
      {"UpdateWithData", true, [&] { return cache.UpdateWithData(Data(1)); }},
      {"UpdateWithData unwritable", false, [&] { return unwritable.UpdateWithData(Data(1)); }},
      {"Update required", true, [&] { return required.Update(); }},
      {"Update required unwritable", false, [&] { return unwritable.Update(); }},
      {"DoUpdate", true, [&] { return cache.DoUpdate(); }},
      {"DoUpdate unwritable", false, [&] { return unwritable.DoUpdate(); }},
  };
  // As a root daemon serving a user: row i exits 10 + i for changed ids, 50 + i for a wrong result.
  const int code = RunUnprivileged([&] {
                     alarm(20);  // a row that blocks for ever fails instead of hanging
                     for (size_t i = 0; i < rows.size(); ++i) {
                       const auto before = Ids();
                       const bool ok = rows[i].op();
                       if (Ids() != before) return static_cast<int>(10 + i);
                       if (ok != rows[i].expected) return static_cast<int>(50 + i);
                     }
                     return 0;
                   }).exitCode;
  const size_t row = static_cast<size_t>(code >= 50 ? code - 50 : code - 10);
  EXPECT_EQ(code, 0) << (code >= 50 ? "wrong result of " : "ids changed by ")
                     << (code >= 10 && row < rows.size() ? rows[row].name : "(child failed)");
  held.unlock();
  for (const std::string& name : {lockName, heldName})
    unlink(FileLock::getLockFilePath(name).c_str());
  // Made by root with the requested mode, and nothing else beside it.
  struct stat st;
  EXPECT_TRUE(stat(leaf.c_str(), &st) == 0 && (st.st_mode & 07777) == 0750u && st.st_uid == 0u)
      << std::oct << st.st_mode;
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(made.path()), {}), 2);
}
