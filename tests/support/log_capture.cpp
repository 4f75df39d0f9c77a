#include "support/log_capture.h"

#include <cstdio>
#include <cstring>

#include "vantdr/log.h"

namespace VantDRTest {
namespace {

std::vector<LogLine> g_lines;

// "file:line(func)[LEVEL][pid]: message"; other lines keep only their text.
LogLine Parse(int priority, const char* text) {
  LogLine e;
  e.priority = priority;
  e.text = text;
  const std::string& s = e.text;
  const size_t colon = s.find(':'), open = s.find('(', colon), close = s.find(")[", open),
               level = s.find("][", close), pid = s.find("]: ", level);
  if (pid == std::string::npos) return e;  // npos propagates through every find above
  e.prefixed = true;
  e.file = s.substr(0, colon);
  e.line = std::atoi(s.substr(colon + 1, open - colon - 1).c_str());
  e.func = s.substr(open + 1, close - open - 1);
  e.level = s.substr(close + 2, level - close - 2);
  e.pid = std::atoi(s.substr(level + 2, pid - level - 2).c_str());
  e.message = s.substr(pid + 3);
  return e;
}

void CaptureSink(int priority, const char* line) { g_lines.push_back(Parse(priority, line)); }

}  // namespace

bool CarriesMessage(const LogLine& line, const std::string& message) {
  const size_t kMaxLine = 64 * 1024;
  const std::string full = line.text.substr(0, line.text.size() - line.message.size()) + message;
  if (full.size() <= kMaxLine) return line.text == full;
  return line.text ==
         full.substr(0, kMaxLine) + "...[cut, " + std::to_string(full.size()) + " bytes in all]";
}

LogCapture::LogCapture() {
  g_lines.clear();
  VantDRCore::SetLogSink(CaptureSink);
}

LogCapture::~LogCapture() {
  VantDRCore::SetLogSink(nullptr);
  g_lines.clear();
}

const std::vector<LogLine>& LogCapture::Lines() const { return g_lines; }

void LogCapture::Clear() { g_lines.clear(); }

std::vector<std::string> LogCapture::Messages(const std::string& level) const {
  std::vector<std::string> out;
  for (const LogLine& l : g_lines)
    if (l.prefixed && l.level == level) out.push_back(l.message);
  return out;
}

std::vector<std::string> LogCapture::Summary() const {
  std::vector<std::string> out;
  for (const LogLine& l : g_lines)
    out.push_back(l.prefixed ? l.level + " " + l.func + ": " + l.message : l.text);
  return out;
}

int LogCapture::Count(const std::string& message) const {
  int n = 0;
  for (const LogLine& l : g_lines) n += l.prefixed && l.message == message;
  return n;
}

bool LogCapture::Has(const std::string& level, const std::string& message) const {
  for (const LogLine& l : g_lines)
    if (l.prefixed && l.level == level && l.message == message) return true;
  return false;
}

}  // namespace VantDRTest
