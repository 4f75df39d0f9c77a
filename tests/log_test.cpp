#include "vantdr/log.h"

#include <errno.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/log_capture.h"

namespace {

int g_evaluations = 0;
int Evaluate() { return ++g_evaluations; }

std::string Prefix(int line, const char* func, const char* level) {
  return "log_test.cpp:" + std::to_string(line) + "(" + func + ")[" + level + "][" +
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
  const char* func = "TestBody";
  ASSERT_EQ(log.Lines().size(), 5u);
  EXPECT_EQ(log.Lines()[0].text, Prefix(first, func, "ERR") + "Invalid table [job]");
  EXPECT_EQ(log.Lines()[1].text, Prefix(first + 1, func, "WARN") + "[\"x\"] is not int");
  EXPECT_EQ(log.Lines()[2].text,
            Prefix(first + 2, func, "NOTICE") + "Cannot find separator[=] in line[abc]");
  EXPECT_EQ(log.Lines()[3].text, Prefix(first + 3, func, "INFO") + "tag Exec cmd: DELETE FROM t;");
  EXPECT_EQ(log.Lines()[4].text, Prefix(first + 4, func, "DEBUG") + "field [age] is not existed");
  const int priorities[] = {3, 4, 5, 6, 7};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(log.Lines()[i].priority, priorities[i]) << i;

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
  // Facility bits do not matter: the mask is on the level.
  EXPECT_FALSE(VantDRCore::LogEnabled(LOG_AUTH | LOG_DEBUG));
  EXPECT_TRUE(VantDRCore::LogEnabled(LOG_AUTH | LOG_ERR));
  setlogmask(saved);
  EXPECT_EQ(g_evaluations, 1);  // arguments of masked lines are not even evaluated
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].message, "1");
}

// %m shows the caller's errno, which survives; long lines arrive whole.
TEST(LogTest, PercentMAndLongLines) {
  VantDRTest::LogCapture log;
  errno = ENOENT;
  VLOG_ERR("Failed to open lock file[%s], errno=%m", "/tmp/x");
  EXPECT_EQ(errno, ENOENT);
  const std::string sql(5000, 'x');
  VLOG_ERR("Reach retry limit [%u], failed to exec command [%s] with err [%s]", 3u, sql.c_str(),
           "{}");
  EXPECT_EQ(log.Messages("ERR"),
            (std::vector<std::string>{
                "Failed to open lock file[/tmp/x], errno=No such file or directory",
                "Reach retry limit [3], failed to exec command [" + sql + "] with err [{}]"}));
}

}  // namespace
