#include <dlfcn.h>

#include "support/suite.h"

TEST(ErrTest, EveryIntegerHasTheNameOfItsTableEntryOrUnknown) {
  std::istringstream table(
      "400 ERR_DR_MIN 401 BAD_PARAMETER 402 ERR_ALLOCATE_MEMORY 403 ERR_NULL_POINTER 404 "
      "ERR_DATABASE_OPERATION 405 ERR_DATABASE_LOCK 406 ERR_FORK_FAILED 407 ERR_UNKNOWN 500 "
      "ERR_CONNECTION_FAILED 501 ERR_LOGIN_AUTH_INVALID 502 ERR_LOGIN_AUTH_DISABLED 503 "
      "ERR_LOGIN_AUTH_PRIVILEGE 504 ERR_LOGIN_AUTH_REQUIRED_OTP 505 "
      "ERR_LOGIN_AUTH_INVALID_OTP 506 ERR_INIT_CREDENTIAL 507 ERR_NODE_NOT_EXIST 508 "
      "ERR_NODE_EXIST 509 ERR_NODE_INVALID_REMOTE_SESSION_CREATE 510 ERR_NODE_CREATE 511 "
      "ERR_NODE_SESSION_CREATE 512 ERR_NODE_SESSION_REMOVE 513 ERR_NODE_GET 514 "
      "ERR_NODE_SET 515 ERR_NODE_LIST 516 ERR_CRED_NOT_EXIST 517 ERR_INVALID_CONN 518 "
      "ERR_NOT_SAME_NODE 519 ERR_GET_NODE_INFO 520 ERR_INVALID_SENDER 521 "
      "ERR_INVALID_SESSION 522 ERR_NOT_AVALIABLE_CONN 523 ERR_LOGIN_AUTH 524 "
      "ERR_CREDENTIAL_OPERATION 525 ERR_NO_PERMISSION 526 ERR_NO_SUCH_API 527 "
      "ERR_INVALID_USER 528 ERR_SESSION_GET 599 ERR_NODE_UNKNOWN 673 ERR_DR_MAX ");
  std::map<int, std::string> named;
  int number;
  std::string name;
  while (table >> number >> name) named[number] = name;
  ASSERT_EQ(named.size(), 39u);
  for (int code = -2; code <= 700; ++code) {
    auto it = named.find(code);
    EXPECT_EQ(ERR::ToString(code), it == named.end() ? "<UNKNOWN ERR CODE>" : it->second) << code;
  }
  EXPECT_EQ(ERR::ToString(INT32_MIN) + ERR::ToString(INT32_MAX),
            "<UNKNOWN ERR CODE><UNKNOWN ERR CODE>");
  EXPECT_TRUE(ERR::ERR_DATABASE_LOCK == 405 && ERR::ERR_NOT_AVALIABLE_CONN == 522);
}

class NamingRecorder : public ErrRecorder {
 public:
  std::string GetErrCodeStr(int code) const override { return ERR::ToString(code); }
};

TEST(ErrTest, RecorderRendersCodeNameAndMessageOnlyWhenPresent) {
  ErrRecorder record;
  const auto text = [](const ErrRecorder& r) { return VantDRCore::JsonToString(r.GetErr()); };
  EXPECT_EQ(text(record), R"({"err_code":0})");
  record.SetErr(404);
  EXPECT_EQ(text(record), R"({"err_code":404})");
  record.SetErr(404, "disk I/O error");
  EXPECT_EQ(text(record), R"({"err_code":404,"err_msg":"disk I/O error"})");
  Json::Value detail(Json::objectValue);
  detail["sqlite_errcode"] = 5;
  detail["sqlite_errmsg"] = "database is locked";
  record.SetErr(405, detail);
  EXPECT_TRUE(record.GetErr()["err_msg"] == detail && !record.GetErr().isMember("err_code_str"));
  record.SetErr(401);  // a new code without a message drops the old message
  EXPECT_EQ(text(record), R"({"err_code":401})");

  NamingRecorder named;
  named.SetErr(405);
  EXPECT_EQ(text(named), R"({"err_code":405,"err_code_str":"ERR_DATABASE_LOCK"})");
  const ErrRecorder& base = named;  // the override is virtual
  EXPECT_EQ(base.GetErr()["err_code_str"], "ERR_DATABASE_LOCK");
}

int g_evaluations = 0;
int Evaluate() { return ++g_evaluations; }

std::string Prefix(int line, const char* func, const char* level) {
  return "foundation_test.cpp:" + std::to_string(line) + "(" + func + ")[" + level + "][" +
         std::to_string(getpid()) + "]: ";
}

void LogFromNamedFunction() { VLOG_WARN("Bad Parameter."); }

TEST(LogTest, EveryLevelHasItsPriorityAndExactPrefix) {
  VantDRTest::LogCapture log;
  const int first = __LINE__ + 2;
  // clang-format off
  VLOG_ERR("Invalid table [%s]", "job");
  VLOG_WARN("[%s] is not int", "\"x\"");
  VLOG_NOTICE("Cannot find separator[%s] in line[%s]", "=", "abc");
  VLOG_INFO("%s Exec cmd: %s", "tag", "DELETE FROM t;");
  VLOG_DEBUG("field [%s] is not existed", "age");
  // clang-format on
  const char* const expected[][2] = {{"ERR", "Invalid table [job]"},
                                     {"WARN", "[\"x\"] is not int"},
                                     {"NOTICE", "Cannot find separator[=] in line[abc]"},
                                     {"INFO", "tag Exec cmd: DELETE FROM t;"},
                                     {"DEBUG", "field [age] is not existed"}};
  ASSERT_EQ(log.Lines().size(), 5u);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(log.Lines()[i].text, Prefix(first + i, "TestBody", expected[i][0]) + expected[i][1]);
    EXPECT_EQ(log.Lines()[i].priority, 3 + i) << i;
  }
  log.Clear();
  LogFromNamedFunction();
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].func, "LogFromNamedFunction");
}

TEST(LogTest, MaskedPrioritiesAreNeitherFormattedNorDelivered) {
  VantDRTest::LogCapture log;
  const int saved = setlogmask(LOG_UPTO(LOG_NOTICE));
  g_evaluations = 0;
  VLOG_INFO("%d", Evaluate());
  VLOG_DEBUG("%d", Evaluate());
  VLOG_NOTICE("%d", Evaluate());
  // The mask is on the level, whatever the facility bits.
  EXPECT_TRUE(!LogEnabled(LOG_AUTH | LOG_DEBUG) && LogEnabled(LOG_AUTH | LOG_ERR));
  setlogmask(saved);
  EXPECT_EQ(g_evaluations, 1);  // arguments of masked lines are not even evaluated
  EXPECT_EQ(log.Summary(), Lines{"NOTICE TestBody: 1"});
}

// %m shows the caller's errno, which survives; long lines arrive whole.
TEST(LogTest, PercentMAndLongAndHugeLines) {
  VantDRTest::LogCapture log;
  errno = ENOENT;
  VLOG_ERR("Failed to open lock file[%s], errno=%m", "/tmp/x");
  EXPECT_EQ(errno, ENOENT);  // the caller's, kept
  const std::string sql(5000, 'x');
  VLOG_ERR("Reach retry limit [%u], failed to exec command [%s] with err [%s]", 3u, sql.c_str(),
           "{}");
  EXPECT_EQ(log.Messages("ERR"),
            (std::vector<std::string>{
                "Failed to open lock file[/tmp/x], errno=No such file or directory",
                "Reach retry limit [3], failed to exec command [" + sql + "] with err [{}]"}));
  // Past 64 KiB a line is cut and says how long it was.
  log.Clear();
  const std::string huge(100 * 1024, 'y');
  VLOG_ERR("Cannot find separator[%s] in line[%s]", "=", huge.c_str());
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_TRUE(CarriesMessage(log.Lines()[0], "Cannot find separator[=] in line[" + huge + "]") &&
              log.Lines()[0].text.substr(64 * 1024, 9) == "...[cut, ");
}

TEST(UtilsTest, RandomSleepRefusesEmptyAndZeroBasedRanges) {
  VantDRTest::LogCapture log;
  const unsigned refused[][2] = {{0, 100}, {100, 0}, {50, 50}, {60, 50}, {0, 0}};
  std::vector<std::string> expected;
  for (const auto& range : refused) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(RandomSleepInMSec(range[0], range[1]));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    expected.push_back("Invalid period [" + std::to_string(range[0]) + " - " +
                       std::to_string(range[1]) + "] to sleep");
  }
  EXPECT_TRUE(log.Messages("ERR") == expected && log.Lines()[0].func == "RandomSleepInMSec");
  log.Clear();
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(RandomSleepInMSec(1, 2) && log.Lines().empty());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1));
}

TEST(UtilsTest, VolumePaths) {
  for (const std::string path : {"/volume", "/volume1/share", "/volumeExt1"})
    EXPECT_TRUE(Validator::IsVolPath(path)) << path;
  for (const std::string path : {"/volum", "", "/Volume1", "volume1"})
    EXPECT_FALSE(Validator::IsVolPath(path)) << path;
  EXPECT_FALSE(Validator::IsVolPath(std::string("/vol\0me1", 8)));
}

TEST(UtilsTest, JoiningSkipsSeparatorsAfterEmptyTextAndNumbersAreSingleCharacters) {
  using Container::ToString;
  EXPECT_EQ(
      ToString<std::string>({"", "a", "b"}, ",") + "|" + ToString<std::string>({"a", "", "b"}, ","),
      "a,b|a,,b");
  EXPECT_EQ(ToString<std::string>({}, ",") + ToString<std::string>({"", ""}, ","), "");
  EXPECT_EQ(ToString<int>({65, 66}, "-") + ToString<int>({321}, "-"), "A-BA");
  EXPECT_EQ(ToString<int>({-1}, ""), "\xff");
  EXPECT_EQ(ToString<int>({0, 65}, "-"), std::string("\0-A", 3));  // "\0" is text
  EXPECT_EQ(ToString<bool>({true, false}, "|"), std::string("\x01|\x00", 3));
  EXPECT_EQ(ToString<double>({65.9, 322.0}, "+"), "A+B");
  // Values with no unsigned meaning still give one defined character.
  EXPECT_EQ(ToString<double>({-1.0, 1e300, std::nan("")}, "").size(), 3u);
}

TEST(UtilsTest, GenerateUUIDReturnsOneTrimmedUuid) {
  const std::string a = GenerateUUID(), b = GenerateUUID();
  const std::regex uuid("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}");
  EXPECT_TRUE(std::regex_match(a, uuid) && std::regex_match(b, uuid) && a != b) << a << b;
}

TEST(VersionTest, HeaderLibraryAndSharedObjectAgreeWithTheProjectVersion) {
  static_assert(VANTDR_VERSION == VANTDR_VERSION_MAJOR * 10000 + VANTDR_VERSION_MINOR * 100 +
                                      VANTDR_VERSION_PATCH,
                "one comparable number, usable in #if");
  EXPECT_EQ(std::to_string(VANTDR_VERSION_MAJOR) + "." + std::to_string(VANTDR_VERSION_MINOR) +
                "." + std::to_string(VANTDR_VERSION_PATCH),
            VANTDR_TEST_PROJECT_VERSION);
  // The loaded library's version equals the header's and its real file name's suffix.
  const std::string loaded = VantDRCore::GetLibraryVersion();
  Dl_info info{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&VantDRCore::GetLibraryVersion), &info), 0);
  const std::string file = std::filesystem::canonical(info.dli_fname);
  EXPECT_TRUE(loaded == VANTDR_VERSION_STRING && loaded == VANTDR_TEST_PROJECT_VERSION) << loaded;
  EXPECT_TRUE(std::regex_match(file, std::regex(".*/libvantdrcore\\.so\\." + loaded))) << file;
}

using Launcher = std::function<VantDRTest::ChildResult(const std::function<int()>&)>;

// Ids and errno inside and after one section in a child, then its lines (WHERE: its file:line).
Lines Observe(const Launcher& launch) {
  VantDRTest::TempDir dir;
  chmod(dir.path().c_str(), 0777);  // the child may write as nobody
  const std::string path = dir.File("observed");
  auto result = launch([&]() -> int {
    std::ostringstream out;
    VantDRTest::LogCapture log;
    errno = 12345;
    const std::string where = "foundation_test.cpp:" + std::to_string(__LINE__ + 2);
    {
      VANTDR_PRIVILEGED_SECTION(section);
      out << "inside " << geteuid() << "/" << getegid() << " errno " << errno << "\n";
    }
    out << "after " << geteuid() << "/" << getegid() << " errno " << errno << "\n";
    uid_t u[3];
    gid_t g[3];
    getresuid(&u[0], &u[1], &u[2]), getresgid(&g[0], &g[1], &g[2]);
    out << "ids " << u[0] << "," << u[1] << "," << u[2] << " " << g[0] << "," << g[1] << "," << g[2]
        << "\n";
    for (const auto& line : log.Lines()) {
      std::string text = line.text;
      if (text.compare(0, where.size() + 1, where + " ") == 0)
        text.replace(0, where.size(), "WHERE");
      out << line.priority << " " << text << "\n";
    }
    return VantDRTest::WriteText(path, out.str()) ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode, 0);
  Lines lines;
  std::istringstream in(VantDRTest::ReadText(path));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

using Body = const std::function<int()>&;

TEST(PrivilegedSectionTest, RaisesOnlyWhatIsNeededRestoresEffectiveIdsAndLogsFailures) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  EXPECT_EQ(Observe([](Body body) { return VantDRTest::RunInChild(body); }),
            (Lines{"inside 0/0 errno 0", "after 0/0 errno 0", "ids 0,0,0 0,0,0"}));
  // Effective nobody with saved root: raised, then restored; real and saved ids never move.
  EXPECT_EQ(
      Observe([](Body body) { return VantDRTest::RunUnprivileged(body, true); }),
      (Lines{"inside 0/0 errno 0", "after 65534/65534 errno 0", "ids 0,65534,0 0,65534,0",
             "39 WHERE WARNING: setresgid(-1, 0, -1)", "39 WHERE WARNING: setresuid(-1, 0, -1)",
             "39 WHERE WARNING: setresuid(-1, 0, -1)"}));
  // Only the group is not root: only the group moves.
  EXPECT_EQ(Observe([](Body body) {
              return VantDRTest::RunInChild([&] { return setresgid(-1, 65534, 0) ? 98 : body(); });
            }),
            (Lines{"inside 0/0 errno 0", "after 0/65534 errno 0", "ids 0,0,0 0,65534,0",
                   "39 WHERE WARNING: setresgid(-1, 0, -1)"}));
  // No root ids at all: the body still runs and the failures are logged.
  EXPECT_EQ(Observe([](Body body) { return VantDRTest::RunUnprivileged(body, false); }),
            (Lines{"inside 65534/65534 errno 1", "after 65534/65534 errno 0",
                   "ids 65534,65534,65534 65534,65534,65534",
                   "35 WHERE ERROR: setresgid(-1, 0, -1) [Operation not permitted]",
                   "35 WHERE ERROR: ENTERCriticalSection"}));
}

// Platform calls the updater relies on: signals and two streams open at once.
TEST(PlatformProcesses, KilledProgramsAndTwoStreams) {
  EXPECT_EQ(VLIBCExec("/bin/sh", "-c", "kill -TERM $$", nullptr, nullptr), 128 + SIGTERM);
  FILE* first = VLIBCPopen("/bin/sh", "r", "-c", "exit 3", static_cast<const char*>(nullptr));
  FILE* second = VLIBCPopen("/bin/echo", "r", "two", static_cast<const char*>(nullptr));
  ASSERT_TRUE(first != nullptr && second != nullptr);
  char line[8] = {0};
  EXPECT_TRUE(fgets(line, sizeof line, second) != nullptr && std::string(line) == "two\n");
  EXPECT_EQ(VLIBCPclose(second), 0);  // the newer stream's own child
  const int status = VLIBCPclose(first);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
  // 64 arguments at most; one more is refused, not written past the vector.
#define A8 "a", "a", "a", "a", "a", "a", "a", "a"
#define A64 A8, A8, A8, A8, A8, A8, A8, A8
  const char* end = nullptr;
  FILE* most = VLIBCPopen("/bin/true", "r", A64, end);
  EXPECT_TRUE(most != nullptr && VLIBCPclose(most) == 0);
  EXPECT_EQ(VLIBCPopen("/bin/true", "r", A64, "b", end), nullptr);
#undef A64
#undef A8
}
