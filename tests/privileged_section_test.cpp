#include "vantdr/privileged_section.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

// What a child saw around one privileged section: the log lines (priority
// and text), the ids and errno inside and after.
struct Observed {
  std::vector<std::string> lines;
  std::string inside;
  std::string after;
};

// Runs the section in the current process and records what happened.
std::string RunSection(int* ranFlag) {
  std::ostringstream out;
  VantDRTest::LogCapture log;
  errno = 12345;
  {
    out << "line " << __LINE__ + 1 << "\n";
    VANTDR_PRIVILEGED_SECTION(section);
    *ranFlag = 1;
    out << "inside " << geteuid() << "/" << getegid() << " errno " << errno << "\n";
  }
  out << "after " << geteuid() << "/" << getegid() << " errno " << errno << "\n";
  uid_t r, e, s;
  getresuid(&r, &e, &s);
  gid_t gr, ge, gs;
  getresgid(&gr, &ge, &gs);
  out << "ids " << r << "," << e << "," << s << " " << gr << "," << ge << "," << gs << "\n";
  for (const auto& line : log.Lines()) out << line.priority << " " << line.text << "\n";
  return out.str();
}

// Runs RunSection in a child set up by `launch` and returns its record.
template <typename Launch>
std::vector<std::string> InChild(Launch launch) {
  VantDRTest::TempDir dir;
  chmod(dir.path().c_str(), 0777);  // the child may write as nobody
  const std::string path = dir.File("observed");
  auto result = launch([&]() -> int {
    int ran = 0;
    std::string text = RunSection(&ran);
    return VantDRTest::WriteText(path, text) && ran == 1 ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode, 0);
  // The first line names the source line of the section; the log lines
  // must carry that file and line.
  std::vector<std::string> lines;
  std::istringstream in(VantDRTest::ReadText(path));
  std::string where;
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, 5, "line ") == 0) {
      where = "privileged_section_test.cpp:" + line.substr(5);
    } else {
      size_t at = line.find(where + " ");
      if (!where.empty() && at != std::string::npos) line.replace(at, where.size(), "WHERE");
      lines.push_back(line);
    }
  }
  EXPECT_FALSE(where.empty());
  return lines;
}

std::string Where() { return "WHERE"; }

TEST(PrivilegedSectionTest, RootChangesNothingAndLogsNothing) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  auto lines = InChild([](auto body) { return VantDRTest::RunInChild(body); });
  EXPECT_EQ(lines, (std::vector<std::string>{"inside 0/0 errno 0", "after 0/0 errno 0",
                                             "ids 0,0,0 0,0,0"}));
}

TEST(PrivilegedSectionTest, UnprivilegedWithSavedRootRaisesAndRestores) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  auto lines = InChild([](auto body) { return VantDRTest::RunUnprivileged(body, true); });
  // Real ids stay root (0) and saved ids stay root: only effective ids move.
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "inside 0/0 errno 0",
                       "after 65534/65534 errno 0",
                       "ids 0,65534,0 0,65534,0",
                       "39 " + Where() + " WARNING: setresgid(-1, 0, -1)",
                       "39 " + Where() + " WARNING: setresuid(-1, 0, -1)",
                       "39 " + Where() + " WARNING: setresuid(-1, 0, -1)",
                   }));
}

TEST(PrivilegedSectionTest, OnlyTheGroupIsRaisedWhenTheUserIsRoot) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  auto lines = InChild([](auto body) {
    return VantDRTest::RunInChild([&]() -> int {
      if (setresgid(-1, 65534, 0) != 0) return 98;
      return body();
    });
  });
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "inside 0/0 errno 0",
                       "after 0/65534 errno 0",
                       "ids 0,0,0 0,65534,0",
                       "39 " + Where() + " WARNING: setresgid(-1, 0, -1)",
                   }));
}

TEST(PrivilegedSectionTest, WithoutAnyRootIdsTheOperationStillRunsAndErrorsAreLogged) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  auto lines = InChild([](auto body) { return VantDRTest::RunUnprivileged(body, false); });
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "inside 65534/65534 errno 1",
                       "after 65534/65534 errno 0",
                       "ids 65534,65534,65534 65534,65534,65534",
                       "35 " + Where() + " ERROR: setresgid(-1, 0, -1) [Operation not permitted]",
                       "35 " + Where() + " ERROR: ENTERCriticalSection",
                   }));
}

}  // namespace
