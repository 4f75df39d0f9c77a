/// @file
/// Logging: every line the library writes has the prefix
/// `"<file>:<line>(<function>)[<LEVEL>][<pid>]: "` followed by the message,
/// and goes to one sink (syslog unless replaced). The library never calls
/// openlog(): to see the lines in a terminal, call
/// `openlog(ident, LOG_PERROR, LOG_USER)` or SetLogSink() with a printer.
#pragma once

#include <syslog.h>

#include "vantdr/export.h"

namespace VantDRCore {

/// Receives every line that passes the process log mask: the syslog
/// priority and the whole formatted line.
using LogSink = void (*)(int priority, const char* line);

/// Replaces the sink for the whole process; nullptr restores syslog.
/// Not synchronised: set it before other threads log.
VANTDR_API void SetLogSink(LogSink sink);

/// True when setlogmask(0) lets `priority` through. Lines at a masked
/// priority are never formatted.
VANTDR_API bool LogEnabled(int priority);

/// Formats one prefixed line and hands it to the sink. errno is read by
/// "%m" as it was on entry and is preserved across the call. `file` is the
/// base name of the logging source file, `func` the bare function name.
VANTDR_API void LogPrintf(int priority, const char* file, int line, const char* func,
                          const char* level, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

/// A line without the common prefix (used by the privileged section).
VANTDR_API void LogRaw(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// The base name of a path, at compile time: the file name in the prefix.
constexpr const char* LogBaseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') base = p + 1;
  }
  return base;
}

}  // namespace VantDRCore

/// The base name of the current source file, for the log prefix.
#define VANTDR_FILE_NAME (::VantDRCore::LogBaseName(__FILE__))

/// Logs a printf-style message at syslog `priority` with the level name
/// `level` ("ERR", "WARN", ...), prefixed with file, line, function and pid.
/// The arguments are not evaluated when the process log mask filters the
/// priority out.
#define VANTDR_LOG_AT(priority, level, ...)                                                        \
  do {                                                                                             \
    if (::VantDRCore::LogEnabled(priority))                                                        \
      ::VantDRCore::LogPrintf(priority, VANTDR_FILE_NAME, __LINE__, __func__, level, __VA_ARGS__); \
  } while (0)

/// Logs a printf-style message at LOG_ERR, level name "ERR".
#define VLOG_ERR(...) VANTDR_LOG_AT(LOG_ERR, "ERR", __VA_ARGS__)
/// Logs a printf-style message at LOG_WARNING, level name "WARN".
#define VLOG_WARN(...) VANTDR_LOG_AT(LOG_WARNING, "WARN", __VA_ARGS__)
/// Logs a printf-style message at LOG_NOTICE, level name "NOTICE".
#define VLOG_NOTICE(...) VANTDR_LOG_AT(LOG_NOTICE, "NOTICE", __VA_ARGS__)
/// Logs a printf-style message at LOG_INFO, level name "INFO".
#define VLOG_INFO(...) VANTDR_LOG_AT(LOG_INFO, "INFO", __VA_ARGS__)
/// Logs a printf-style message at LOG_DEBUG, level name "DEBUG".
#define VLOG_DEBUG(...) VANTDR_LOG_AT(LOG_DEBUG, "DEBUG", __VA_ARGS__)
