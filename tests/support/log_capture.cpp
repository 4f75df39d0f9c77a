#include "support/log_capture.h"

#include <cstdio>
#include <cstring>

#include "vantdr/log.h"

namespace VantDRTest {
namespace {

std::vector<LogLine> g_lines;

LogLine Parse(int priority, const char* text) {
  LogLine entry;
  entry.priority = priority;
  entry.text = text;
  // "file:line(func)[LEVEL][pid]: message"
  const std::string& s = entry.text;
  size_t colon = s.find(':');
  size_t open = s.find('(', colon == std::string::npos ? 0 : colon);
  size_t close = s.find(")[", open == std::string::npos ? 0 : open);
  size_t levelEnd = s.find("][", close == std::string::npos ? 0 : close);
  size_t pidEnd = s.find("]: ", levelEnd == std::string::npos ? 0 : levelEnd);
  if (colon == std::string::npos || open == std::string::npos || close == std::string::npos ||
      levelEnd == std::string::npos || pidEnd == std::string::npos) {
    return entry;
  }
  entry.prefixed = true;
  entry.file = s.substr(0, colon);
  entry.line = std::atoi(s.substr(colon + 1, open - colon - 1).c_str());
  entry.func = s.substr(open + 1, close - open - 1);
  entry.level = s.substr(close + 2, levelEnd - close - 2);
  entry.pid = std::atoi(s.substr(levelEnd + 2, pidEnd - levelEnd - 2).c_str());
  entry.message = s.substr(pidEnd + 3);
  return entry;
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
  for (const LogLine& l : g_lines) {
    if (l.prefixed && l.level == level) out.push_back(l.message);
  }
  return out;
}

std::vector<std::string> LogCapture::Summary() const {
  std::vector<std::string> out;
  for (const LogLine& l : g_lines) {
    out.push_back(l.prefixed ? l.level + " " + l.func + ": " + l.message : l.text);
  }
  return out;
}

int LogCapture::Count(const std::string& message) const {
  int n = 0;
  for (const LogLine& l : g_lines) n += (l.prefixed && l.message == message) ? 1 : 0;
  return n;
}

bool LogCapture::Has(const std::string& level, const std::string& message) const {
  for (const LogLine& l : g_lines) {
    if (l.prefixed && l.level == level && l.message == message) return true;
  }
  return false;
}

}  // namespace VantDRTest
