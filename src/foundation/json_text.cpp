#include "vantdr/json_text.h"

#include <errno.h>
#include <fcntl.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>

#include "fileio/durable_write.h"
#include "foundation/json_file.h"
#include "foundation/no_throw.h"
#include "vantdr/log.h"

namespace VantDRCore {
namespace {

// The deepest node a document may have, the root being at depth 0. The writer
// refuses what the reader would refuse, so every text written parses back.
constexpr int kMaxDepth = 512;

// Bytes that end a run of plain string content, for reading (quote,
// backslash, control characters) and for writing, which escapes the same set.
struct StopBytes {
  bool stop[256];
  constexpr StopBytes() : stop() {
    for (int c = 0; c < 0x20; ++c) stop[c] = true;
    stop[static_cast<unsigned char>('"')] = true;
    stop[static_cast<unsigned char>('\\')] = true;
  }
};
constexpr StopBytes kStopBytes;

inline bool IsStop(char c) { return kStopBytes.stop[static_cast<unsigned char>(c)]; }
inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void AppendUtf8(std::string& out, unsigned cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Strict RFC 8259 in one pass, building the value as it goes. Strings are
// byte strings: bytes of 0x80 and above pass unchecked, so whatever
// JsonToString writes parses. Numbers are typed as JsonCpp's reader types
// them, so a value read here equals the one JsonCpp would build.
class Reader {
 public:
  Reader(const char* begin, const char* end) : p_(begin), end_(end) {}

  bool Document(Json::Value& out) {
    SkipSpace();
    if (!Value(out, 0)) return false;
    SkipSpace();
    return p_ == end_;
  }

 private:
  // Only the payload: the slots filled here carry no comments to keep.
  static void Set(Json::Value& out, Json::Value&& value) { out.swapPayload(value); }

  void SkipSpace() {
    while (p_ < end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) ++p_;
  }

  bool Literal(const char* word, size_t length) {
    if (static_cast<size_t>(end_ - p_) < length || memcmp(p_, word, length) != 0) return false;
    p_ += length;
    return true;
  }

  bool Value(Json::Value& out, int depth) {
    if (p_ == end_ || depth > kMaxDepth) return false;
    switch (*p_) {
      case '{':
        return Container(out, depth, true);
      case '[':
        return Container(out, depth, false);
      case '"': {
        const char* begin;
        const char* end;
        if (!String(begin, end)) return false;
        Set(out, Json::Value(begin, end));
        return true;
      }
      case 't':
        if (!Literal("true", 4)) return false;
        Set(out, Json::Value(true));
        return true;
      case 'f':
        if (!Literal("false", 5)) return false;
        Set(out, Json::Value(false));
        return true;
      case 'n':
        if (!Literal("null", 4)) return false;
        Set(out, Json::Value());
        return true;
      default:
        return Number(out);
    }
  }

  // Arrays and objects: `members` says whether each item comes with a key.
  bool Container(Json::Value& out, int depth, bool members) {
    const char close = members ? '}' : ']';
    ++p_;
    Set(out, Json::Value(members ? Json::objectValue : Json::arrayValue));
    SkipSpace();
    if (p_ < end_ && *p_ == close) {
      ++p_;
      return true;
    }
    while (true) {
      SkipSpace();
      Json::Value* item;
      if (members) {
        const char* begin;
        const char* end;
        if (p_ == end_ || *p_ != '"' || !String(begin, end)) return false;
        // A repeated key takes the later value, as JsonCpp's reader does.
        item = out.demand(begin, end);
        SkipSpace();
        if (p_ == end_ || *p_++ != ':') return false;
        SkipSpace();
      } else {
        item = &out.append(Json::Value());
      }
      if (!Value(*item, depth + 1)) return false;
      SkipSpace();
      if (p_ == end_) return false;
      const char c = *p_++;
      if (c == close) return true;
      if (c != ',') return false;
    }
  }

  bool Hex4(unsigned& cp) {
    if (end_ - p_ < 4) return false;
    cp = 0;
    for (int i = 0; i < 4; ++i) {
      const int digit = HexValue(*p_++);
      if (digit < 0) return false;
      cp = cp << 4 | static_cast<unsigned>(digit);
    }
    return true;
  }

  // The string's bytes: the text itself when it has no escape, else the
  // decoded copy in scratch_ (valid until the next string).
  bool String(const char*& begin, const char*& end) {
    const char* start = ++p_;
    while (p_ < end_ && !IsStop(*p_)) ++p_;
    if (p_ == end_) return false;
    if (*p_ == '"') {
      begin = start;
      end = p_++;
      return true;
    }
    scratch_.assign(start, p_);
    while (true) {
      const char* run = p_;
      while (p_ < end_ && !IsStop(*p_)) ++p_;
      scratch_.append(run, p_);
      if (p_ == end_) return false;
      const char c = *p_++;
      if (c == '"') break;
      if (c != '\\' || p_ == end_) return false;  // a raw control character
      switch (*p_++) {
        case '"':
          scratch_ += '"';
          break;
        case '\\':
          scratch_ += '\\';
          break;
        case '/':
          scratch_ += '/';
          break;
        case 'b':
          scratch_ += '\b';
          break;
        case 'f':
          scratch_ += '\f';
          break;
        case 'n':
          scratch_ += '\n';
          break;
        case 'r':
          scratch_ += '\r';
          break;
        case 't':
          scratch_ += '\t';
          break;
        case 'u': {
          unsigned cp;
          if (!Hex4(cp)) return false;
          // A high surrogate takes the next escape as its pair, whatever it
          // holds, and fails without one: JsonCpp's reading of such text.
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            unsigned low;
            if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') return false;
            p_ += 2;
            if (!Hex4(low)) return false;
            cp = 0x10000 + ((cp & 0x3FF) << 10) + (low & 0x3FF);
          }
          AppendUtf8(scratch_, cp);
          break;
        }
        default:
          return false;
      }
    }
    begin = scratch_.data();
    end = begin + scratch_.size();
    return true;
  }

  bool Digits() {
    if (p_ == end_ || !IsDigit(*p_)) return false;
    while (p_ < end_ && IsDigit(*p_)) ++p_;
    return true;
  }

  bool Number(Json::Value& out) {
    const char* start = p_;
    const bool negative = *p_ == '-';
    if (negative) ++p_;
    const char* digits = p_;
    if (p_ < end_ && *p_ == '0') {
      ++p_;
    } else if (!Digits()) {
      return false;
    }
    const char* digitsEnd = p_;
    bool integral = true;
    if (p_ < end_ && *p_ == '.') {
      ++p_;
      if (!Digits()) return false;
      integral = false;
    }
    if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
      ++p_;
      if (p_ < end_ && (*p_ == '+' || *p_ == '-')) ++p_;
      if (!Digits()) return false;
      integral = false;
    }
    if (integral && Integer(digits, digitsEnd, negative, out)) return true;
    return Real(start, p_, out);
  }

  // Whole numbers are Int64 from -2^63 to 2^63-1, UInt64 above that up to
  // 2^64-1, and real beyond: JsonCpp's typing.
  static bool Integer(const char* digits, const char* end, bool negative, Json::Value& out) {
    uint64_t magnitude = 0;
    for (const char* d = digits; d < end; ++d) {
      if (__builtin_mul_overflow(magnitude, 10u, &magnitude) ||
          __builtin_add_overflow(magnitude, static_cast<unsigned>(*d - '0'), &magnitude)) {
        return false;
      }
    }
    constexpr uint64_t kInt64Max = static_cast<uint64_t>(INT64_MAX);
    if (negative) {
      if (magnitude > kInt64Max + 1) return false;
      Set(out, Json::Value(magnitude == 0 ? Json::Int64(0)
                                          : -static_cast<Json::Int64>(magnitude - 1) - 1));
    } else if (magnitude <= kInt64Max) {
      Set(out, Json::Value(static_cast<Json::Int64>(magnitude)));
    } else {
      Set(out, Json::Value(static_cast<Json::UInt64>(magnitude)));
    }
    return true;
  }

  // Correctly rounded in the C locale whatever the process locale; a value
  // too large for a double is refused, one too small becomes 0 or subnormal.
  static bool Real(const char* begin, const char* end, Json::Value& out) {
    static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
    char small[64];
    std::string large;
    const size_t length = static_cast<size_t>(end - begin);
    const char* text;
    if (length < sizeof small) {
      memcpy(small, begin, length);
      small[length] = '\0';
      text = small;
    } else {
      large.assign(begin, end);
      text = large.c_str();
    }
    const double value = c_locale != static_cast<locale_t>(0) ? strtod_l(text, nullptr, c_locale)
                                                              : strtod(text, nullptr);
    if (std::isinf(value)) return false;
    Set(out, Json::Value(value));
    return true;
  }

  const char* p_;
  const char* end_;
  std::string scratch_;
};

// Compact text exactly as JsonCpp's stream writer gives it with no
// indentation and UTF-8 output, comments included, written straight into one
// string.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  bool Document(const Json::Value& root) {
    Before(root);
    if (!Value(root, 0)) return false;
    After(root);
    return true;
  }

 private:
  bool Value(const Json::Value& v, int depth) {
    if (depth > kMaxDepth) return false;
    switch (v.type()) {
      case Json::nullValue:
        out_ += "null";
        return true;
      case Json::intValue:
        return Chars(v.asLargestInt());
      case Json::uintValue:
        return Chars(v.asLargestUInt());
      case Json::realValue:
        Real(v.asDouble());
        return true;
      case Json::stringValue: {
        const char* begin;
        const char* end;
        if (v.getString(&begin, &end)) Quoted(begin, end);
        return true;
      }
      case Json::booleanValue:
        out_ += v.asBool() ? "true" : "false";
        return true;
      case Json::arrayValue:
        return Array(v, depth);
      case Json::objectValue:
        return Object(v, depth);
    }
    return true;
  }

  bool Array(const Json::Value& v, int depth) {
    if (v.empty()) {
      out_ += "[]";
      return true;
    }
    out_ += '[';
    const Json::Value* previous = nullptr;
    Json::ArrayIndex next = 0;
    for (Json::Value::const_iterator it = v.begin(); it != v.end(); ++it) {
      // Indexes never set read as null, and JsonCpp writes them so.
      for (const Json::ArrayIndex index = it.index(); next <= index; ++next) {
        const Json::Value& item = next == index ? *it : Json::Value::nullSingleton();
        if (previous != nullptr) Separator(*previous);
        Before(item);
        if (!Value(item, depth + 1)) return false;
        previous = &item;
      }
    }
    After(*previous);
    out_ += ']';
    return true;
  }

  bool Object(const Json::Value& v, int depth) {
    if (v.empty()) {
      out_ += "{}";
      return true;
    }
    out_ += '{';
    const Json::Value* previous = nullptr;
    for (Json::Value::const_iterator it = v.begin(); it != v.end(); ++it) {
      if (previous != nullptr) Separator(*previous);
      Before(*it);
      const char* keyEnd;
      const char* key = it.memberName(&keyEnd);
      Quoted(key, keyEnd);
      out_ += ':';
      if (!Value(*it, depth + 1)) return false;
      previous = &*it;
    }
    After(*previous);
    out_ += '}';
    return true;
  }

  // The comma after a member comes before that member's trailing comments.
  void Separator(const Json::Value& previous) {
    out_ += ',';
    After(previous);
  }

  void Before(const Json::Value& v) {
    if (v.hasComment(Json::commentBefore)) out_ += v.getComment(Json::commentBefore);
  }

  void After(const Json::Value& v) {
    if (v.hasComment(Json::commentAfterOnSameLine)) {
      out_ += ' ';
      out_ += v.getComment(Json::commentAfterOnSameLine);
    }
    if (v.hasComment(Json::commentAfter)) out_ += v.getComment(Json::commentAfter);
  }

  template <typename Integer>
  bool Chars(Integer n) {
    char buffer[24];
    const std::to_chars_result r = std::to_chars(buffer, buffer + sizeof buffer, n);
    out_.append(buffer, r.ptr);
    return true;
  }

  // 17 significant digits as "%.17g" in the C locale gives them, with ".0"
  // added when the text would read back as an integer.
  void Real(double d) {
    if (std::isnan(d)) {
      out_ += "null";
      return;
    }
    if (std::isinf(d)) {
      out_ += d < 0 ? "-1e+9999" : "1e+9999";
      return;
    }
    char buffer[32];
    const std::to_chars_result r =
        std::to_chars(buffer, buffer + sizeof buffer, d, std::chars_format::general, 17);
    out_.append(buffer, r.ptr);
    if (std::find_if(buffer, r.ptr, [](char c) { return c == '.' || c == 'e'; }) == r.ptr) {
      out_ += ".0";
    }
  }

  void Quoted(const char* p, const char* end) {
    static const char kHex[] = "0123456789abcdef";
    out_ += '"';
    while (true) {
      const char* run = p;
      while (p < end && !IsStop(*p)) ++p;
      out_.append(run, p);
      if (p == end) break;
      const unsigned char c = static_cast<unsigned char>(*p++);
      switch (c) {
        case '"':
          out_ += "\\\"";
          break;
        case '\\':
          out_ += "\\\\";
          break;
        case '\b':
          out_ += "\\b";
          break;
        case '\f':
          out_ += "\\f";
          break;
        case '\n':
          out_ += "\\n";
          break;
        case '\r':
          out_ += "\\r";
          break;
        case '\t':
          out_ += "\\t";
          break;
        default: {
          const char escape[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
          out_.append(escape, sizeof escape);
        }
      }
    }
    out_ += '"';
  }

  std::string& out_;
};

}  // namespace

bool JsonFromString(Json::Value& out, const std::string& text) try {
  try {
    out = Json::Value();
    if (Reader(text.data(), text.data() + text.size()).Document(out)) return true;
  } catch (const std::exception&) {
  }
  out = Json::Value();
  return false;
}
VANTDR_CATCH_ALL(false)

std::string JsonToString(const Json::Value& value) try {
  // Text grows in a buffer kept per thread and leaves as one exact copy:
  // growing a fresh string each time costs a megabyte document more in page
  // faults than the writing itself. Buffers past 2 MiB are not kept.
  static thread_local std::string scratch;
  struct Trim {
    ~Trim() {
      if (scratch.capacity() > (2u << 20)) std::string().swap(scratch);
      scratch.clear();
    }
  } trim;
  try {
    if (Writer(scratch).Document(value)) return scratch;
    VLOG_ERR("Refused to write a value nested deeper than %d levels", kMaxDepth);
  } catch (const std::exception& e) {
    VLOG_ERR("Failed to write JSON text: %s", e.what());
  }
  return std::string();
}
VANTDR_CATCH_ALL(std::string())

bool JsonFromDescriptor(Json::Value& out, int fd) try {
  out = Json::Value();
  if (fd < 0) return false;
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } closer{fd};  // the one close, whatever happens below
  std::string text;
  struct stat st;
  // More than a string holds (possible with a 32-bit size_t) is refused, not
  // truncated into a wrong reservation.
  const bool sized = fstat(fd, &st) == 0 && st.st_size > 0;
  if (sized && static_cast<uint64_t>(st.st_size) > text.max_size()) return false;
  if (sized) text.reserve(static_cast<size_t>(st.st_size));
  char buffer[65536];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) != 0) {
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    text.append(buffer, static_cast<size_t>(n));
  }
  return JsonFromString(out, text);
}
VANTDR_CATCH_ALL(false)

bool JsonFromFile(Json::Value& out, const std::string& path) try {
  out = Json::Value();
  // Plain reads: iostreams throw on some read errors (a directory, EIO).
  return JsonFromDescriptor(out, open(path.c_str(), O_RDONLY | O_CLOEXEC));
}
VANTDR_CATCH_ALL(false)

bool JsonToFile(const Json::Value& value, const std::string& path) try {
  if (path.empty()) return false;
  const std::string text = JsonToString(value);
  if (text.empty()) return false;  // too deep to read back: JsonToString said so
  return WriteFileDurably(path, text + "\n") == DurableWriteStep::kDone;
}
VANTDR_CATCH_ALL(false)

}  // namespace VantDRCore
