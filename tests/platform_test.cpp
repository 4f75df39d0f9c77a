#include "support/suite.h"
#include "vantrandom/vant_random.h"

const char kHostile[] = "a b \"quoted\" 'single' ; rm -rf ~ $(id) `id` | x > y";

TEST(PlatformTest, ExecPassesArgumentsVerbatimAndReportsStatus) {
  TempDir dir;
  const std::string target = dir.File(kHostile);
  EXPECT_EQ(VLIBCExec("/usr/bin/touch", target.c_str(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Entries(dir.path()), std::set<std::string>{kHostile});

  // Arguments after the first null are not passed.
  const std::string second = dir.File("second");
  EXPECT_EQ(VLIBCExec("/usr/bin/touch", target.c_str(), nullptr, second.c_str(), nullptr), 0);
  EXPECT_EQ(VLIBCFileExist(second.c_str()), 0);

  EXPECT_EQ(VLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(VLIBCExec("/bin/false", nullptr, nullptr, nullptr, nullptr), 1);
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
  const int status = VLIBCPclose(out);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  // A daemon with stdin and stdout closed gets the pipe as descriptors 0 and 1.
  EXPECT_EQ(RunInChild([] {
              close(0);
              close(1);
              FILE* in = VLIBCPopen("/bin/echo", "r", "hi", static_cast<const char*>(nullptr));
              char line[8] = {0};
              bool ok = in != nullptr && fgets(line, sizeof line, in) != nullptr;
              if (in != nullptr) VLIBCPclose(in);
              return ok && std::string(line) == "hi\n" ? 0 : 1;
            }).exitCode,
            0);
  const char* end = nullptr;
  EXPECT_TRUE(VLIBCPopen("/no/such/program", "r", end) == nullptr &&
              VLIBCPopen("/bin/true", "w", end) == nullptr);
  EXPECT_TRUE(VLIBCPclose(nullptr) == -1 && VLIBCPclose(stdin) == -1);  // stdin: not ours
}

TEST(PlatformTest, FileTestsAndTrim) {
  TempDir dir;
  const std::string file = dir.File("f");
  ASSERT_TRUE(WriteText(file, "x"));
  const std::string missing = dir.File("missing");
  const struct {
    const char* path;
    int isDir, exists;
  } paths[] = {
      {dir.path().c_str(), 1, 1}, {file.c_str(), 0, 1}, {missing.c_str(), 0, 0}, {"", 0, 0}};
  for (const auto& p : paths) {
    EXPECT_EQ(VLIBCFileCheckDir(p.path), p.isDir) << p.path;
    EXPECT_EQ(VLIBCFileExist(p.path), p.exists) << p.path;
  }
  EXPECT_EQ(VLIBCFileCheckDir(nullptr), 0);
  const std::string link = dir.File("link");
  ASSERT_EQ(symlink(missing.c_str(), link.c_str()), 0);
  EXPECT_EQ(VLIBCFileExist(link.c_str()), 0);
  ASSERT_EQ(rename(file.c_str(), missing.c_str()), 0);
  EXPECT_EQ(VLIBCFileExist(link.c_str()), 1);

  char text[] = " \t uuid text \r\n", blank[] = " \n\t ";
  EXPECT_STREQ(VLIBCStrTrim(text, 0, 0), "uuid text");
  EXPECT_STREQ(VLIBCStrTrim(blank, 0, 0), "");
  EXPECT_EQ(VLIBCStrTrim(nullptr, 0, 0), nullptr);
}

TEST(PlatformTest, PidFilesRoundTripAndBadContentIsNoPid) {
  TempDir dir;
  const std::string pidFile = dir.File("updater.pid");
  EXPECT_EQ(VLIBCReadPidFile(pidFile.c_str()), 0);  // missing
  ASSERT_EQ(VLIBCProcPidFileCreate(pidFile.c_str()), 0);
  EXPECT_EQ(VLIBCReadPidFile(pidFile.c_str()), getpid());
  EXPECT_EQ(ReadText(pidFile), std::to_string(getpid()) + "\n");
  EXPECT_EQ(Entries(dir.path()), std::set<std::string>{"updater.pid"});  // no temp left

  const std::pair<const char*, int> cases[] = {{"", 0},        {"abc", -1}, {"12x", -1},
                                               {"-5", -1},     {"0", -1},   {"99999999999", -1},
                                               {"  42 \n", 42}};
  for (const auto& [content, expected] : cases) {
    ASSERT_TRUE(WriteText(pidFile, content));
    EXPECT_EQ(VLIBCReadPidFile(pidFile.c_str()), expected) << '"' << content << '"';
  }
  EXPECT_TRUE(VLIBCProcPidFileCreate(dir.File("no/such/dir/x.pid").c_str()) != 0 &&
              VLIBCProcPidFileCreate(nullptr) != 0 && VLIBCReadPidFile(nullptr) == 0);
}

TEST(PlatformTest, RandomIsWithinTheClosedRangeAndReachesBothEnds) {
  VANT::RANDOM::VANTRandom random;
  EXPECT_TRUE(random.urandom(7, 7) == 7u && random.urandom(9, 3) == 9u);
  std::set<unsigned> seen;
  for (int i = 0; i < 2000; ++i) seen.insert(random.urandom(1000, 1003));
  EXPECT_EQ(seen, (std::set<unsigned>{1000, 1001, 1002, 1003}));  // in range, both ends reached
  std::set<unsigned> wide;
  for (int i = 0; i < 64; ++i) wide.insert(random.urandom(0, UINT32_MAX));
  EXPECT_GT(wide.size(), 60u);  // the full range draws raw words
  // A third of this range is below 2^30; modulo bias would make it half.
  int low = 0;
  for (int i = 0; i < 3000; ++i) low += random.urandom(0, 0xBFFFFFFFu) < (1u << 30);
  EXPECT_TRUE(low > 850 && low < 1150) << low;
}
