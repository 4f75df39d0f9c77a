// A plain file is replaced whole; anything else a caller could tell apart is written in place.
#include <grp.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <cstring>

#include "support/file_sandbox.h"
#include "support/suite.h"
#include "support/syscall_filter.h"

using Names = std::set<std::string>;

const uid_t kNobody = 65534;

Json::Value Doc(int n, size_t padding = 16) {
  Json::Value doc;
  doc["v"] = n;
  doc["pad"] = std::string(padding, static_cast<char>('a' + n % 26));
  return doc;
}

struct stat Lstat(const std::string& path) {
  struct stat st = {};
  lstat(path.c_str(), &st);
  return st;
}

bool Holds(const std::string& path, const Json::Value& doc) {
  Json::Value back;
  return JsonFromFile(back, path) && back == doc;
}

// Unnamed temporaries (true), plus named ones (false) where a child can be denied unnamed ones.
std::vector<bool> TemporaryKinds() {
  static const bool canRefuse =
      RunInChild([] { return RefuseUnnamedTemporaryFiles() ? 0 : 1; }).exitCode == 0;
  return canRefuse ? std::vector<bool>{true, false} : std::vector<bool>{true};
}

#define VANTDR_TEMPORARIES(unnamed) \
  if (!(unnamed) && !RefuseUnnamedTemporaryFiles()) return 3

class FileWriteTest : public ::testing::Test {
 protected:
  FileWriteTest() { alarm(120); }  // a write blocked for good fails the test, not the suite
  ~FileWriteTest() override { alarm(0); }
  TempDir dir;
  LogCapture log;
};

TEST_F(FileWriteTest, LinksAreWrittenThroughAndKept) {
  const std::string target = dir.File("target");
  ASSERT_TRUE(WriteText(target, "old") && symlink("target", dir.File("inner").c_str()) == 0 &&
              symlink(dir.File("inner").c_str(), dir.File("outer").c_str()) == 0 &&
              File::Write(dir.File("outer"), Doc(2)));
  EXPECT_TRUE(Holds(target, Doc(2)) && S_ISLNK(Lstat(dir.File("outer")).st_mode));
  EXPECT_EQ(std::filesystem::read_symlink(dir.File("inner")), "target");
  ASSERT_TRUE(symlink("created", dir.File("dangling").c_str()) == 0 &&
              File::Write(dir.File("dangling"), Doc(3)));
  EXPECT_TRUE(S_ISLNK(Lstat(dir.File("dangling")).st_mode) && Holds(dir.File("created"), Doc(3)));
  const ino_t before = Lstat(target).st_ino;
  ASSERT_TRUE(File::Write(target, Doc(1)));
  EXPECT_TRUE(Lstat(target).st_ino != before && Holds(target, Doc(1)));
  const ino_t shared = Lstat(target).st_ino;
  ASSERT_TRUE(link(target.c_str(), dir.File("second").c_str()) == 0 &&
              File::Write(dir.File("second"), Doc(4)));
  EXPECT_TRUE(Holds(target, Doc(4)) && Lstat(target).st_ino == shared &&
              Lstat(dir.File("second")).st_ino == shared);
  EXPECT_EQ(Entries(dir.path()),
            (Names{"target", "inner", "outer", "dangling", "created", "second"}));
  EXPECT_TRUE(log.Lines().empty());
}

// Syncing a FIFO or a device fails (EINVAL) after the text went through, as with fopen.
TEST_F(FileWriteTest, FifoAndDeviceNodeAreWrittenThroughAndKept) {
  const std::string fifo = dir.File("fifo"), node = dir.File("node");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const pid_t reader = StartChild([&] {
    alarm(10);  // no writer ever comes if the FIFO was replaced
    return WriteText(dir.File("received"), ReadText(fifo)) ? 0 : 1;
  });
  EXPECT_FALSE(File::Write(fifo, Doc(1)));
  EXPECT_EQ(WaitChild(reader).exitCode, 0);
  EXPECT_EQ(ReadText(dir.File("received")), JsonToString(Doc(1)));
  EXPECT_TRUE(S_ISFIFO(Lstat(fifo).st_mode));
  EXPECT_EQ(log.Summary(), Lines{"ERR Write: Failed to sync file [" + fifo + "]"});
  if (mknod(node.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) GTEST_SKIP() << strerror(errno);
  const int probe = open(node.c_str(), O_WRONLY);
  if (probe < 0 || close(probe) != 0) GTEST_SKIP() << "device nodes cannot be opened here";
  log.Clear();
  EXPECT_FALSE(File::Write(node, Doc(2)));
  EXPECT_TRUE(S_ISCHR(Lstat(node).st_mode) && Lstat(node).st_rdev == makedev(1, 3));
  EXPECT_EQ(log.Summary(), Lines{"ERR Write: Failed to sync file [" + node + "]"});
}

TEST_F(FileWriteTest, OtherUsersAndSharedGroupsFiles) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to stage other users' files";
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const std::string mine = dir.File("mine");
  ASSERT_TRUE(WriteText(mine, "old") && chown(mine.c_str(), kNobody, kNobody) == 0);
  const ino_t inode = Lstat(mine).st_ino;
  EXPECT_EQ(RunUnprivileged([&] { return File::Write(mine, Doc(1)) ? 0 : 1; }).exitCode, 0);
  EXPECT_TRUE(Holds(mine, Doc(1)) && Lstat(mine).st_ino == inode && Lstat(mine).st_uid == kNobody);
  // Read-only files in the writer's directory: refused, as fopen would, though rename could.
  const std::string sub = dir.File("sub"), roots = sub + "/roots", readOnly = sub + "/read_only";
  ASSERT_EQ(mkdir(sub.c_str(), 0755) | chown(sub.c_str(), kNobody, kNobody), 0);
  ASSERT_TRUE(WriteText(roots, "old") && WriteText(readOnly, "old"));
  ASSERT_EQ(chmod(roots.c_str(), 0644) | chown(readOnly.c_str(), kNobody, kNobody) |
                chmod(readOnly.c_str(), 0444),
            0);
  const Lines refused{"ERR Write: Failed to open file [" + roots + "]"};
  EXPECT_EQ(RunUnprivileged([&] {
              LogCapture childLog;
              if (File::Write(roots, Doc(2)) || childLog.Summary() != refused) return 1;
              return File::Write(readOnly, Doc(3)) ? 2 : 0;
            }).exitCode,
            0);
  EXPECT_TRUE(ReadText(roots) == "old" && ReadText(readOnly) == "old" && Lstat(roots).st_uid == 0);
  EXPECT_EQ(Entries(sub), (Names{"roots", "read_only"}));
  const gid_t team = 4321;  // a member writes in place where it could replace the file
  ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
  const std::string shared = dir.File("shared");
  ASSERT_TRUE(WriteText(shared, "old") &&
              (chown(shared.c_str(), 0, team) | chmod(shared.c_str(), 0660)) == 0);
  const ino_t sharedInode = Lstat(shared).st_ino;
  EXPECT_EQ(RunInChild([&] {
              return setgroups(1, &team) != 0 ? 98 : RunUnprivileged([&] {
                                                       return File::Write(shared, Doc(1)) ? 0 : 1;
                                                     }).exitCode;
            }).exitCode,
            0);
  EXPECT_TRUE(Holds(shared, Doc(1)) && Lstat(shared).st_ino == sharedInode);
  // Root can give a replacement the same owner, group and mode, so it does.
  ASSERT_TRUE(chmod(shared.c_str(), 02660) == 0 && File::Write(shared, Doc(2)));
  const struct stat st = Lstat(shared);
  EXPECT_TRUE(Holds(shared, Doc(2)) && st.st_uid == 0u && st.st_gid == team &&
              (st.st_mode & 07777) == 02660u);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(FileWriteTest, ExtendedAttributesAndAclsAreKept) {
  // An access ACL, little-endian (perm << 16 | tag, id): owner rw, 65534 r, group r, mask r.
  const uint32_t acl[] = {2,          0x60001, UINT32_MAX, 0x40002, kNobody,   0x40004,
                          UINT32_MAX, 0x40010, UINT32_MAX, 0x00020, UINT32_MAX};
  const struct {
    const char *name, *attribute;
    const void* value;
    size_t size;
  } rows[] = {{"tagged", "user.origin", "appliance", 9},
              {"guarded", "system.posix_acl_access", acl, sizeof acl}};
  for (const auto& row : rows) {
    const std::string path = dir.File(row.name);
    ASSERT_TRUE(WriteText(path, "old"));
    if (setxattr(path.c_str(), row.attribute, row.value, row.size, 0) != 0)
      GTEST_SKIP() << row.attribute << ": " << strerror(errno);
    const mode_t mode = Lstat(path).st_mode;
    ASSERT_TRUE(File::Write(path, Doc(1)));
    EXPECT_TRUE(Holds(path, Doc(1)) && Lstat(path).st_mode == mode);
    char back[sizeof acl] = {};
    EXPECT_TRUE(getxattr(path.c_str(), row.attribute, back, sizeof back) == ssize_t(row.size) &&
                memcmp(back, row.value, row.size) == 0)
        << row.attribute;
  }
}

TEST_F(FileWriteTest, AnyNameFopenAcceptsWorks) {
  const std::string longest = dir.File(std::string(255, 'n'));
  ASSERT_TRUE(File::Write(longest, Doc(1)) && File::Write(longest, Doc(2)) &&
              Holds(longest, Doc(2)));
  EXPECT_EQ(Entries(dir.path()), Names{std::string(255, 'n')});
  Lines expected;
  for (const std::string& path : {longest + "n", dir.path(), longest + "/x"}) {
    EXPECT_FALSE(File::Write(path, Doc(3)));
    expected.push_back("ERR Write: Failed to open file [" + path + "]");
  }
  EXPECT_EQ(log.Summary(), expected);
}

TEST_F(FileWriteTest, FullFileSystemKeepsTheOldDocumentAndBindMountsAreWrittenThrough) {
  const Json::Value big = Doc(2, 100 * 1024);
  const std::vector<bool> kinds = TemporaryKinds();
  VANTDR_ON_PRIVATE_TMPFS(code, 64 * 1024, [&](const std::string& mnt) {
    const std::string doc = mnt + "/doc", source = mnt + "/source", mounted = mnt + "/mounted";
    if (!WriteText(source, "old") || !WriteText(mounted, "")) return 10;
    if (mount(source.c_str(), mounted.c_str(), nullptr, MS_BIND, nullptr) != 0) return 11;
    if (!File::Write(mounted, Doc(1)) || !Holds(source, Doc(1))) return 12;
    for (bool unnamed : kinds) {
      VANTDR_TEMPORARIES(unnamed);
      LogCapture childLog;
      if (!File::Write(doc, Doc(1)) || File::Write(doc, big)) return 13;
      if (childLog.Lines().size() != 1 || childLog.Lines()[0].level != "ERR" ||
          !CarriesMessage(childLog.Lines()[0],
                          "Failed to write [" + JsonToString(big) + "] to [" + doc + "].")) {
        return 15;
      }
      if (!Holds(doc, Doc(1)) || Entries(mnt) != Names{"doc", "source", "mounted"}) return 16;
    }
    return 0;
  });
  EXPECT_EQ(code, 0);
}

TEST_F(FileWriteTest, KilledWritersLeaveNoTemporaryFile) {
  const std::string path = dir.File("doc");
  const Json::Value first = Doc(0, 1000), a = Doc(1, 300 * 1024), b = Doc(2, 300 * 1024);
  const Names whole = {JsonToString(first), JsonToString(a), JsonToString(b)};
  ASSERT_TRUE(File::Write(path, first));
  const std::string live = ".vantdr-tmp.1.0123456789abcdef";  // init's: alive, kept
  ASSERT_TRUE(WriteText(dir.File(live), "keep"));
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const bool bothKinds = TemporaryKinds().size() == 2;
  for (int round = 0; round < 40; ++round) {
    const bool unnamed = round % 2 == 0 || !bothKinds;
    const pid_t writer = StartChild([&] {
      VANTDR_TEMPORARIES(unnamed);
      while (File::Write(path, a) && File::Write(path, b)) continue;
      return 4;
    });
    usleep(std::uniform_int_distribution<useconds_t>(0, 30000)(random));
    ::kill(writer, SIGKILL);
    ASSERT_EQ(WaitChild(writer).signal, SIGKILL);
    EXPECT_EQ(whole.count(ReadText(path)), 1u) << "after kill " << round;
    EXPECT_EQ(RunInChild([&] {
                VANTDR_TEMPORARIES(unnamed);
                return File::Write(path, first) ? 0 : 4;
              }).exitCode,
              0);
    EXPECT_EQ(Entries(dir.path()), (Names{"doc", live})) << "after kill " << round;
  }
}

// A failed pid file write (a file size limit: short, then EFBIG) keeps the old file.
TEST_F(FileWriteTest, LinksPlantedAtTheWritersNamesAreNeverFollowed) {
  const std::string victim = dir.File("victim"), pidFile = dir.File("updater.pid");
  ASSERT_TRUE(WriteText(victim, "precious"));
  Names names = {"victim", "updater.pid"};
  const auto plantTemporaries = [&](pid_t pid) {
    for (int k = 0; k < 10; ++k) {
      const std::string name = ".vantdr-tmp." + std::to_string(pid) + "." + std::to_string(k);
      if (symlink(victim.c_str(), dir.File(name).c_str()) != 0 && errno != EEXIST) return false;
      names.insert(name);
    }
    return true;
  };
  for (bool unnamed : TemporaryKinds()) {
    ASSERT_EQ(symlink(victim.c_str(), pidFile.c_str()), 0);
    const pid_t creator = StartChild([&] {
      VANTDR_TEMPORARIES(unnamed);
      if (!plantTemporaries(getpid())) return 4;
      return VLIBCProcPidFileCreate(pidFile.c_str()) == 0 ? 0 : 5;
    });
    EXPECT_EQ(WaitChild(creator).exitCode, 0);
    plantTemporaries(creator);
    EXPECT_TRUE(ReadText(victim) == "precious" && S_ISREG(Lstat(pidFile).st_mode) &&
                ReadText(pidFile) == std::to_string(creator) + "\n");
    EXPECT_EQ(RunInChild([&] {
                VANTDR_TEMPORARIES(unnamed);
                const struct rlimit limit = {2, 2};
                signal(SIGXFSZ, SIG_IGN);
                if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 4;
                errno = 0;
                if (VLIBCProcPidFileCreate(pidFile.c_str()) != -1) return 5;
                return errno == EFBIG ? 0 : 6;
              }).exitCode,
              0);
    EXPECT_EQ(ReadText(pidFile), std::to_string(creator) + "\n");
    EXPECT_EQ(Entries(dir.path()), names);
    ASSERT_EQ(unlink(pidFile.c_str()), 0);
  }
  ASSERT_TRUE(plantTemporaries(getpid()));
  ASSERT_TRUE(File::Write(dir.File("doc"), Doc(1)) && JsonToFile(Doc(2), dir.File("doc")));
  EXPECT_TRUE(Holds(dir.File("doc"), Doc(2)) && ReadText(victim) == "precious");
}
