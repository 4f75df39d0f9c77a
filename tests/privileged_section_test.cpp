#include "vantdr/privileged_section.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using Lines = std::vector<std::string>;
using Launcher = std::function<VantDRTest::ChildResult(const std::function<int()>&)>;

// What one privileged section in a child set up by `launch` saw: ids and errno
// inside and after, all ids, and log lines with the section's own file:line as WHERE.
Lines Observe(const Launcher& launch) {
  VantDRTest::TempDir dir;
  chmod(dir.path().c_str(), 0777);  // the child may write as nobody
  const std::string path = dir.File("observed");
  auto result = launch([&]() -> int {
    std::ostringstream out;
    VantDRTest::LogCapture log;
    errno = 12345;
    const std::string where = "privileged_section_test.cpp:" + std::to_string(__LINE__ + 2);
    {
      VANTDR_PRIVILEGED_SECTION(section);
      out << "inside " << geteuid() << "/" << getegid() << " errno " << errno << "\n";
    }
    out << "after " << geteuid() << "/" << getegid() << " errno " << errno << "\n";
    uid_t r, e, s;
    gid_t gr, ge, gs;
    getresuid(&r, &e, &s);
    getresgid(&gr, &ge, &gs);
    out << "ids " << r << "," << e << "," << s << " " << gr << "," << ge << "," << gs << "\n";
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
  // Root: no id change, no line.
  EXPECT_EQ(Observe([](Body body) { return VantDRTest::RunInChild(body); }),
            (Lines{"inside 0/0 errno 0", "after 0/0 errno 0", "ids 0,0,0 0,0,0"}));
  // Effective nobody with saved root: raised for the section, restored after;
  // real and saved ids never move.
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

}  // namespace
