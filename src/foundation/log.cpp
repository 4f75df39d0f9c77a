#include "vantdr/log.h"

#include <errno.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace VantDRCore {
namespace {

void SyslogSink(int priority, const char* line) { syslog(priority, "%s", line); }

LogSink g_sink = SyslogSink;

// Appends the vprintf expansion of `format` after `used` bytes of `stack`
// and hands the line to the sink. Long lines move to the heap.
void Emit(int priority, char* stack, size_t size, int used, const char* format, va_list ap) {
  if (used < 0) return;
  if (static_cast<size_t>(used) >= size) used = static_cast<int>(size) - 1;
  va_list again;
  va_copy(again, ap);
  int more = vsnprintf(stack + used, size - used, format, ap);
  if (more >= 0 && static_cast<size_t>(used + more) >= size) {
    std::string line(stack, used);
    line.resize(used + more + 1);
    vsnprintf(&line[used], more + 1, format, again);
    line.resize(used + more);
    g_sink(priority, line.c_str());
  } else if (more >= 0) {
    g_sink(priority, stack);
  }
  va_end(again);
}

}  // namespace

void SetLogSink(LogSink sink) { g_sink = sink != nullptr ? sink : SyslogSink; }

bool LogEnabled(int priority) { return (setlogmask(0) & LOG_MASK(LOG_PRI(priority))) != 0; }

void LogPrintf(int priority, const char* file, int line, const char* func, const char* level,
               const char* format, ...) {
  const int savedErrno = errno;
  if (!LogEnabled(priority)) return;
  char buffer[1024];
  int used = snprintf(buffer, sizeof buffer, "%s:%d(%s)[%s][%d]: ", file, line, func, level,
                      static_cast<int>(getpid()));
  errno = savedErrno;  // "%m" must see the caller's errno
  va_list ap;
  va_start(ap, format);
  Emit(priority, buffer, sizeof buffer, used, format, ap);
  va_end(ap);
  errno = savedErrno;
}

void LogRaw(int priority, const char* format, ...) {
  const int savedErrno = errno;
  if (!LogEnabled(priority)) return;
  char buffer[1024];
  va_list ap;
  va_start(ap, format);
  Emit(priority, buffer, sizeof buffer, 0, format, ap);
  va_end(ap);
  errno = savedErrno;
}

}  // namespace VantDRCore
