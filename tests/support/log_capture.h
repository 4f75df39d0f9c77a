// Captures every line the library logs while the object lives.
#pragma once

#include <string>
#include <vector>

namespace VantDRTest {

// A line; prefixed ones ("file:line(func)[LEVEL][pid]: message") are parsed.
struct LogLine {
  int priority = 0, line = 0, pid = 0;
  bool prefixed = false;
  std::string text, file, func, level, message;
};

// `message` whole, or past 64 KiB cut and followed by "...[cut, N bytes in all]".
bool CarriesMessage(const LogLine& line, const std::string& message);

class LogCapture {
 public:
  LogCapture();   // installs the capturing sink; only one at a time
  ~LogCapture();  // restores syslog
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& Lines() const;
  void Clear();

  // The messages (prefix stripped) logged at `level`, in order.
  std::vector<std::string> Messages(const std::string& level) const;
  // Every message, prefix stripped, as "LEVEL func: message".
  std::vector<std::string> Summary() const;
  // How many lines carry exactly `message` (at any level).
  int Count(const std::string& message) const;
  bool Has(const std::string& level, const std::string& message) const;
};

}  // namespace VantDRTest
