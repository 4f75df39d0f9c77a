// File services: whole JSON documents on disk, directories made and removed
// by the system's tools, and key=value text files.
#pragma once

#include <json/value.h>

#include <map>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>

#include "vantdr/export.h"
#include "vantdr/supported_types.h"

namespace VantDRCore {

class VANTDR_API File {
 public:
  // Reads the whole file and parses it as JSON into `value`. A file that
  // does not exist is success and leaves `value` untouched: callers treat it
  // as an empty store. Lines are joined without their line ends.
  static bool Read(const std::string& path, Json::Value& value);

  // Writes `value` as compact JSON, synced before success. A plain file is
  // replaced whole: readers see the old or the new document, a failure keeps
  // the old one, owner, group and mode stay. Where a replacement would show
  // (links, hard links, special files, attributes, ACLs, owners or a directory
  // the caller cannot write) it is written in place, as fopen(path, "w") would.
  static bool Write(const std::string& path, const Json::Value& value);

  // Reads and parses everything left on `fd`. Once the stream is opened the
  // descriptor is closed on return, whatever the result: do not close it.
  static bool Read(int fd, Json::Value& value);

  // Writes `value` in place at `fd`'s offset, flushes and syncs it. Closes
  // the descriptor like Read(fd, ...).
  static bool Write(int fd, const Json::Value& value);

  // True when `fd` is open on a regular file.
  static bool IsRegularFile(int fd);

  // The text before the last "/": "/a/b" -> "/a", "/a/b/" -> "/a/b",
  // "/a" -> "" (never "/"), "name" -> "name", "" -> "".
  static std::string GetParentDir(const std::string& path);

  // Runs "/bin/mkdir -p <path> -m <mode>" with root effective ids. True when
  // the directory exists afterwards; an existing directory is accepted as it
  // is. Modes of 01000 and above (and negative ones) are refused.
  static bool CreateDir(const std::string& path, int mode);

  // Runs "/bin/rm -rf <path>" when `path` is a directory. True when no such
  // directory is left. Runs with the caller's own ids.
  static bool RemoveDir(const std::string& path);

  // Loads "key=value" lines into `map`, which is cleared first; the last of
  // repeated keys wins, bad lines are logged and skipped. Keys and values
  // are read like operator>>: leading blanks skipped, cut at the first blank
  // ("name = my value" -> "name" = "my", "port= 80x" -> 80).
  // Returns the number of entries, 0 (map untouched) when the file does not
  // exist, -1 for an empty path or an unreadable file.
  // Instances: std::map<std::string, std::string|int|double>.
  template <typename K, typename V>
  static int Read(const std::string& path, std::map<K, V>& map) {
    static_assert(std::is_same<K, std::string>::value && IsOneOf<V, std::string, int, double>,
                  "File::Read<K, V> supports K = std::string with V = std::string, int, double");
    return Read(path, map, CheckedType());
  }

  // Splits `line` at the first `separator` and converts both sides with
  // toType. False for an empty line or separator, a missing separator, or an
  // empty key or value text. Same instances as Read<K, V>.
  template <typename K, typename V>
  static bool parseLineKeyValue(const std::string& line, const std::string& separator, K& key,
                                V& value) {
    static_assert(std::is_same<K, std::string>::value && IsOneOf<V, std::string, int, double>,
                  "File::parseLineKeyValue<K, V> supports K = std::string with V = std::string, "
                  "int, double");
    return parseLineKeyValue(line, separator, key, value, CheckedType());
  }

  // Extracts `out` from `text` with operator>> and returns true, even when
  // the extraction fails (then `out` is what the failed extraction left, 0
  // for numbers). An empty `text` sets `out` to `fallback` and returns false.
  template <typename T, typename U>
  static bool toType(const T& text, U& out, const U& fallback) {
    static_assert(std::is_same<T, std::string>::value && Extractable<U>::value,
                  "File::toType<T, U> supports T = std::string with any U read by operator>>");
    std::istringstream in(text);
    if (text.empty()) {
      out = fallback;
      return false;
    }
    in >> out;
    return true;
  }

 private:
  template <typename K, typename V>
  static int Read(const std::string& path, std::map<K, V>& map, CheckedType);
  template <typename K, typename V>
  static bool parseLineKeyValue(const std::string& line, const std::string& separator, K& key,
                                V& value, CheckedType);

  template <typename U, typename = void>
  struct Extractable : std::false_type {};
  template <typename U>
  struct Extractable<U, std::void_t<decltype(std::declval<std::istream&>() >> std::declval<U&>())>>
      : std::true_type {};
};

}  // namespace VantDRCore
