#include "vantdr/log.h"

#include <errno.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

namespace VantDRCore {
namespace {

void SyslogSink(int priority, const char* line) { syslog(priority, "%s", line); }

LogSink g_sink = SyslogSink;

// No line carries more than this: a huge input quoted in a message (a whole
// line of a file) must not become a huge allocation and a huge log record.
const size_t kMaxLine = 64 * 1024;

// Appends the vprintf expansion of `format` after `used` bytes of `stack`
// and hands the line to the sink. Long lines move to the heap; lines over
// kMaxLine are cut there and end with a marker giving their full length.
void Emit(int priority, char* stack, size_t size, int used, const char* format, va_list ap) {
  if (used < 0) return;
  if (static_cast<size_t>(used) >= size) used = static_cast<int>(size) - 1;
  va_list again;
  va_copy(again, ap);
  const int more = vsnprintf(stack + used, size - used, format, ap);
  const size_t full = static_cast<size_t>(used) + static_cast<size_t>(more);
  if (more >= 0 && full >= size) {
    char marker[64] = "";
    const int markerLength =
        full > kMaxLine ? snprintf(marker, sizeof marker, "...[cut, %zu bytes in all]", full) : 0;
    const size_t kept = full > kMaxLine ? kMaxLine : full;
    std::unique_ptr<char[]> line(new (std::nothrow) char[kept + markerLength + 1]);
    if (line) {
      memcpy(line.get(), stack, used);
      vsnprintf(line.get() + used, kept - used + 1, format, again);
      memcpy(line.get() + kept, marker, markerLength + 1);
      g_sink(priority, line.get());
    } else {
      g_sink(priority, stack);  // cut at the stack buffer rather than lost
    }
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
