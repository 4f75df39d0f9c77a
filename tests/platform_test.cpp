#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "vantcore/vlibc.h"
#include "vantrandom/vant_random.h"

namespace {

using VantDRTest::TempDir;

const char kHostile[] = "a b \"quoted\" 'single' ; rm -rf ~ $(id) `id` | x > y";

// Polls `done` every 10 ms for up to 5 s.
template <typename Predicate>
bool WaitUntil(Predicate done) {
  for (int i = 0; i < 500 && !done(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

std::set<std::string> DirEntries(const std::string& path) {
  std::set<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.insert(name);
  }
  closedir(dir);
  return names;
}

TEST(PlatformTest, ExecPassesArgumentsVerbatimAndReportsStatus) {
  TempDir dir;
  const std::string target = dir.File(kHostile);
  EXPECT_EQ(VLIBCExec("/usr/bin/touch", target.c_str(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(DirEntries(dir.path()), std::set<std::string>{kHostile});

  // Arguments after the first null are not passed.
  const std::string second = dir.File("second");
  EXPECT_EQ(VLIBCExec("/usr/bin/touch", target.c_str(), nullptr, second.c_str(), nullptr), 0);
  EXPECT_EQ(VLIBCFileExist(second.c_str()), 0);

  EXPECT_EQ(VLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_NE(VLIBCExec("/bin/false", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(VLIBCExec("/bin/sh", "-c", "exit 7", nullptr, nullptr), 7);
  EXPECT_EQ(VLIBCExec("/no/such/program", "x", nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(VLIBCExec(nullptr, nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(VLIBCExec("", nullptr, nullptr, nullptr, nullptr), -1);
}

TEST(PlatformTest, PopenReadsTheProgramsOutputAndArgumentsAreNotShellWords) {
  FILE* out = VLIBCPopen("/usr/bin/printf", "r", "[%s][%s]", kHostile, "second",
                         static_cast<const char*>(nullptr));
  ASSERT_NE(out, nullptr);
  char buffer[256] = {0};
  size_t n = fread(buffer, 1, sizeof buffer - 1, out);
  EXPECT_EQ(std::string(buffer, n), std::string("[") + kHostile + "][second]");
  int status = VLIBCPclose(out);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  // A daemon with stdin and stdout closed gets the pipe as descriptors 0 and 1.
  EXPECT_EQ(VantDRTest::RunInChild([] {
              close(0);
              close(1);
              FILE* in = VLIBCPopen("/bin/echo", "r", "hi", static_cast<const char*>(nullptr));
              char line[8] = {0};
              bool ok = in != nullptr && fgets(line, sizeof line, in) != nullptr;
              if (in != nullptr) VLIBCPclose(in);
              return ok && std::string(line) == "hi\n" ? 0 : 1;
            }).exitCode,
            0);
  EXPECT_EQ(VLIBCPopen("/no/such/program", "r", static_cast<const char*>(nullptr)), nullptr);
  EXPECT_EQ(VLIBCPopen("/bin/true", "w", static_cast<const char*>(nullptr)), nullptr);
  EXPECT_EQ(VLIBCPclose(nullptr), -1);
  EXPECT_EQ(VLIBCPclose(stdin), -1);  // not ours: left alone
}

TEST(PlatformTest, FileTestsAndTrim) {
  TempDir dir;
  const std::string file = dir.File("f");
  ASSERT_TRUE(VantDRTest::WriteText(file, "x"));
  EXPECT_EQ(VLIBCFileCheckDir(dir.path().c_str()), 1);
  EXPECT_EQ(VLIBCFileCheckDir(file.c_str()), 0);
  EXPECT_EQ(VLIBCFileCheckDir(dir.File("missing").c_str()), 0);
  EXPECT_EQ(VLIBCFileCheckDir(nullptr), 0);
  EXPECT_EQ(VLIBCFileExist(file.c_str()), 1);
  EXPECT_EQ(VLIBCFileExist(dir.path().c_str()), 1);
  EXPECT_EQ(VLIBCFileExist(dir.File("missing").c_str()), 0);
  EXPECT_EQ(VLIBCFileExist(""), 0);
  const std::string link = dir.File("link");
  ASSERT_EQ(symlink(dir.File("missing").c_str(), link.c_str()), 0);
  EXPECT_EQ(VLIBCFileExist(link.c_str()), 0);
  ASSERT_EQ(rename(file.c_str(), dir.File("missing").c_str()), 0);
  EXPECT_EQ(VLIBCFileExist(link.c_str()), 1);

  char text[] = " \t uuid text \r\n";
  EXPECT_STREQ(VLIBCStrTrim(text, 0, 0), "uuid text");
  char blank[] = " \n\t ";
  EXPECT_STREQ(VLIBCStrTrim(blank, 0, 0), "");
  EXPECT_EQ(VLIBCStrTrim(nullptr, 0, 0), nullptr);
}

TEST(PlatformTest, PidFilesRoundTripAndBadContentIsNoPid) {
  TempDir dir;
  const std::string pidFile = dir.File("updater.pid");
  EXPECT_EQ(VLIBCReadPidFile(pidFile.c_str()), 0);  // missing
  ASSERT_EQ(VLIBCProcPidFileCreate(pidFile.c_str()), 0);
  EXPECT_EQ(VLIBCReadPidFile(pidFile.c_str()), getpid());
  EXPECT_EQ(VantDRTest::ReadText(pidFile), std::to_string(getpid()) + "\n");
  EXPECT_EQ(DirEntries(dir.path()), std::set<std::string>{"updater.pid"});  // no temp left

  const struct {
    const char* content;
    int expected;
  } cases[] = {{"", 0},   {"abc", -1},         {"12x", -1},    {"-5", -1},
               {"0", -1}, {"99999999999", -1}, {"  42 \n", 42}};
  for (const auto& c : cases) {
    ASSERT_TRUE(VantDRTest::WriteText(pidFile, c.content));
    EXPECT_EQ(VLIBCReadPidFile(pidFile.c_str()), c.expected) << '"' << c.content << '"';
  }
  EXPECT_NE(VLIBCProcPidFileCreate(dir.File("no/such/dir/x.pid").c_str()), 0);
  EXPECT_NE(VLIBCProcPidFileCreate(nullptr), 0);
  EXPECT_EQ(VLIBCReadPidFile(nullptr), 0);
}

TEST(PlatformTest, LivenessTreatsZombiesAndNonPositivePidsAsDead) {
  EXPECT_EQ(VLIBCProcAlive(getpid()), 1);
  EXPECT_EQ(VLIBCProcAlive(0), 0);
  EXPECT_EQ(VLIBCProcAlive(-1), 0);

  pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  EXPECT_EQ(VLIBCProcAlive(child), 1);
  kill(child, SIGKILL);
  // Until it is reaped the child is a zombie, which is not alive.
  EXPECT_TRUE(WaitUntil([&] { return VLIBCProcAlive(child) == 0; }));
  // Nobody had reaped it. Blocking: a multi-threaded process (qemu-arm
  // running the test) shows its leader as a zombie before the others are gone.
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST(PlatformTest, DetachedForkGivesTheWorkersPidAndLeavesNoZombie) {
  TempDir dir;
  const std::string report = dir.File("worker");
  pid_t worker = VLIBCProcForkEx(VLIBC_FORK_DETACH | VLIBC_FORK_NEW_SESSION);
  if (worker == 0) {
    std::string text = std::to_string(getpid()) + " " + std::to_string(getsid(0) == getpid());
    VantDRTest::WriteText(report + ".tmp", text);
    rename((report + ".tmp").c_str(), report.c_str());
    _exit(0);
  }
  ASSERT_GT(worker, 0);
  EXPECT_TRUE(WaitUntil([&] { return VLIBCFileExist(report.c_str()) == 1; }));
  // The worker is not our child: nothing to reap, now or after it exits.
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  // The pid we were given is the worker's own; it is not a session leader
  // (the intermediate was), so it can never reacquire a terminal.
  EXPECT_EQ(VantDRTest::ReadText(report), std::to_string(worker) + " 0");
  EXPECT_TRUE(WaitUntil([&] { return VLIBCProcAlive(worker) == 0; }));

  // Without flags it is a plain fork: the caller reaps its own child.
  pid_t plain = VLIBCProcForkEx(0);
  if (plain == 0) _exit(3);
  ASSERT_GT(plain, 0);
  int status = 0;
  EXPECT_EQ(waitpid(plain, &status, 0), plain);
  EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(PlatformTest, RandomIsWithinTheClosedRangeAndReachesBothEnds) {
  VANT::RANDOM::VANTRandom random;
  EXPECT_EQ(random.urandom(7, 7), 7u);
  EXPECT_EQ(random.urandom(9, 3), 9u);
  std::set<unsigned> seen;
  for (int i = 0; i < 2000; ++i) {
    unsigned n = random.urandom(1000, 1003);
    ASSERT_GE(n, 1000u);
    ASSERT_LE(n, 1003u);
    seen.insert(n);
  }
  EXPECT_EQ(seen.size(), 4u);
  std::set<unsigned> wide;
  for (int i = 0; i < 64; ++i) wide.insert(random.urandom(0, UINT32_MAX));
  EXPECT_GT(wide.size(), 60u);  // the full range draws raw words
}

}  // namespace
