// The JSON text helpers as they were before the one-pass reader and the
// direct writer: a grammar check followed by JsonCpp's reader, and JsonCpp's
// stream writer. Kept as the oracle of the differential fuzz target and as
// the baseline of the benchmarks; the library has one implementation.
#pragma once

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <sstream>
#include <string>

namespace JsonOracle {

constexpr int kMaxDepth = 512;

// An RFC 8259 grammar check. JsonCpp's reader is lax (comments, control
// characters in strings, leading zeros, trailing text), so the text must
// pass here before JsonCpp builds the value. Strings are byte strings: bytes
// of 0x80 and above pass unchecked, so whatever JsonToString writes parses.
class StrictJsonChecker {
 public:
  StrictJsonChecker(const char* begin, const char* end) : p_(begin), end_(end) {}

  bool Check() {
    SkipSpace();
    if (!Value(0)) return false;
    SkipSpace();
    return p_ == end_;
  }

 private:
  void SkipSpace() {
    while (p_ < end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')) ++p_;
  }

  bool Literal(const char* word) {
    for (; *word != '\0'; ++word, ++p_) {
      if (p_ == end_ || *p_ != *word) return false;
    }
    return true;
  }

  static bool IsDigit(char c) { return c >= '0' && c <= '9'; }
  static bool IsHex(char c) {
    return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  }

  bool Digits() {
    if (p_ == end_ || !IsDigit(*p_)) return false;
    while (p_ < end_ && IsDigit(*p_)) ++p_;
    return true;
  }

  bool Number() {
    if (p_ < end_ && *p_ == '-') ++p_;
    if (p_ == end_) return false;
    if (*p_ == '0') {
      ++p_;
    } else if (!Digits()) {
      return false;
    }
    if (p_ < end_ && *p_ == '.') {
      ++p_;
      if (!Digits()) return false;
    }
    if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
      ++p_;
      if (p_ < end_ && (*p_ == '+' || *p_ == '-')) ++p_;
      if (!Digits()) return false;
    }
    return true;
  }

  bool String() {
    ++p_;  // opening quote
    while (p_ < end_) {
      unsigned char c = static_cast<unsigned char>(*p_++);
      if (c == '"') return true;
      if (c < 0x20) return false;
      if (c != '\\') continue;
      if (p_ == end_) return false;
      char e = *p_++;
      if (e == 'u') {
        for (int i = 0; i < 4; ++i, ++p_) {
          if (p_ == end_ || !IsHex(*p_)) return false;
        }
      } else if (e != '"' && e != '\\' && e != '/' && e != 'b' && e != 'f' && e != 'n' &&
                 e != 'r' && e != 't') {
        return false;
      }
    }
    return false;
  }

  bool Container(int depth, char close, bool members) {
    ++p_;  // opening bracket
    SkipSpace();
    if (p_ < end_ && *p_ == close) {
      ++p_;
      return true;
    }
    while (true) {
      SkipSpace();
      if (members) {
        if (p_ == end_ || *p_ != '"' || !String()) return false;
        SkipSpace();
        if (p_ == end_ || *p_++ != ':') return false;
        SkipSpace();
      }
      if (!Value(depth + 1)) return false;
      SkipSpace();
      if (p_ == end_) return false;
      char c = *p_++;
      if (c == close) return true;
      if (c != ',') return false;
    }
  }

  bool Value(int depth) {
    if (p_ == end_ || depth > kMaxDepth) return false;
    switch (*p_) {
      case '{':
        return Container(depth, '}', true);
      case '[':
        return Container(depth, ']', false);
      case '"':
        return String();
      case 't':
        return Literal("true");
      case 'f':
        return Literal("false");
      case 'n':
        return Literal("null");
      default:
        return Number();
    }
  }

  const char* p_;
  const char* end_;
};

inline bool FromString(Json::Value& out, const std::string& text) {
  const char* begin = text.data();
  const char* end = begin + text.size();
  out = Json::Value();
  if (!StrictJsonChecker(begin, end).Check()) return false;
  static thread_local std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["stackLimit"] = kMaxDepth + 8;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  try {
    Json::Value parsed;
    if (!reader->parse(begin, end, &parsed, nullptr)) return false;
    out.swap(parsed);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

inline std::string ToString(const Json::Value& value) {
  static thread_local std::unique_ptr<Json::StreamWriter> writer = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
  }();
  std::ostringstream out;
  try {
    writer->write(value, &out);
  } catch (const std::exception&) {
    return std::string();
  }
  return out.str();
}

}  // namespace JsonOracle
