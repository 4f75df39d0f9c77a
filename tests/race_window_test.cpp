#include "support/fault_injection.h"
#include "support/suite.h"
#include "support/syscall_filter.h"

const Json::Value kDoc = Data(2);
const std::string kText = JsonToString(kDoc);

// The modes our temporaries have when they are opened, through their descriptors.
std::vector<mode_t> TemporaryModesWhileWriting(const std::string& path) {
  std::vector<mode_t> modes;
  Faults::Arm();
  Faults::Observe(Faults::kOpen, [&](long fd) {
    char link[64], name[512] = {0};
    snprintf(link, sizeof link, "/proc/self/fd/%ld", fd);
    struct stat st;
    if (fd >= 0 && readlink(link, name, sizeof name - 1) > 0 && fstat(fd, &st) == 0 &&
        S_ISREG(st.st_mode) && std::string(name).find(".vantdr-tmp.") != std::string::npos)
      modes.push_back(st.st_mode & 07777);
  });
  if (!File::Write(path, kDoc)) modes.push_back(01);
  Faults::Disarm();
  return modes;
}

class RaceWindow : public CacheFixture {};

// A named temporary is private until it has the old file's identity: an early opener reads all.
TEST_F(RaceWindow, NamedTemporariesArePrivateUntilTheyAreTheOldFile) {
  const std::string path = dir.File("doc");
  for (int error : {EOPNOTSUPP, EINVAL, EISDIR}) {
    ASSERT_TRUE(WriteText(path, "old") && chmod(path.c_str(), 0644) == 0);
    const int code = RunInChild([&] {
                       if (!RefuseUnnamedTemporaryFiles(error)) return 77;
                       return TemporaryModesWhileWriting(path) == std::vector<mode_t>{0600} ? 0 : 1;
                     }).exitCode;
    if (code == 77) GTEST_SKIP() << "no system call filter here";
    EXPECT_EQ(code, 0) << error;
    EXPECT_TRUE(ReadText(path) == kText && fs::status(path).permissions() == fs::perms(0644))
        << error;
  }
}

// A replacement whose mode did not take is not installed: the file is written in place.
TEST_F(RaceWindow, IdentityIsCheckedAfterItIsCopied) {
  const std::string path = dir.File("doc");
  ASSERT_TRUE(WriteText(path, "old") && chmod(path.c_str(), 02644) == 0);
  struct stat before, after;
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  const int code = RunInChild([&] {
                     if (!IgnoreModeChanges()) return 77;
                     return File::Write(path, kDoc) ? 0 : 1;
                   }).exitCode;
  if (code == 77) GTEST_SKIP() << "no system call filter here";
  EXPECT_TRUE(code == 0 && stat(path.c_str(), &after) == 0 && after.st_ino == before.st_ino &&
              (after.st_mode & 07777) == 02644 && ReadText(path) == kText);
}

// A name made meanwhile (a link to another's file) is not renamed over; the write goes through.
TEST_F(RaceWindow, NameMadeBeforeTheRenameIsNotReplaced) {
  const std::string path = dir.File("doc"), theirs = dir.File("theirs");
  ASSERT_TRUE(WriteText(theirs, "theirs"));
  Faults::Arm();
  Faults::Observe(Faults::kFsync, [&](long) {
    if (access(path.c_str(), F_OK) != 0) link(theirs.c_str(), path.c_str());
  });
  EXPECT_TRUE(File::Write(path, kDoc));
  Faults::Disarm();
  EXPECT_EQ(ReadText(theirs), kText);  // through the name, as an open of it would
}

// Written in place, the whole document is in the file when it is synced.
TEST_F(RaceWindow, InPlaceDataReachTheFileBeforeTheSync) {
  const std::string target = dir.File("target"), link = dir.File("link");
  ASSERT_TRUE(WriteText(target, "old") && symlink(target.c_str(), link.c_str()) == 0);
  std::vector<off_t> sizes;
  Faults::Arm();
  Faults::Observe(Faults::kFsync, [&](long) {
    struct stat st;
    sizes.push_back(stat(target.c_str(), &st) == 0 ? st.st_size : -1);
  });
  EXPECT_TRUE(File::Write(link, kDoc));
  Faults::Disarm();
  EXPECT_EQ(sizes, std::vector<off_t>{static_cast<off_t>(kText.size())});
}

// A stale file refreshed while it is read: the fresh file's time decides, no second update.
TEST_F(RaceWindow, FileRefreshedDuringTheReadIsNotUpdatedAgain) {
  TestCache cache(dir.path(), true, -1);
  ASSERT_TRUE(cache.UpdateWithData(Data(1)) && cache.SetAge(200));
  TestCache other(dir.path(), true, -1);
  bool refreshed = false;
  Faults::Arm();
  Faults::Observe(Faults::kOpen, [&](long) {
    if (!refreshed) refreshed = other.UpdateWithData(Data(3));
  });
  const Json::Value served = cache.Read();
  Faults::Disarm();
  EXPECT_TRUE(refreshed);
  EXPECT_TRUE(served == Data(1) || served == Data(3)) << JsonToString(served);
  EXPECT_EQ(cache.Fetches(), 0);
}
