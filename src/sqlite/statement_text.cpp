#include "sqlite/statement_text.h"

#include <strings.h>

#include <cctype>

namespace VantDRCore {
namespace {

// Skips blanks and comments from `i`; returns the next significant index.
size_t SkipBlanks(const std::string& sql, size_t i) {
  while (i < sql.size()) {
    if (isspace(static_cast<unsigned char>(sql[i]))) {
      ++i;
    } else if (sql.compare(i, 2, "--") == 0) {
      const size_t end = sql.find('\n', i);
      i = end == std::string::npos ? sql.size() : end + 1;
    } else if (sql.compare(i, 2, "/*") == 0) {
      const size_t end = sql.find("*/", i + 2);
      i = end == std::string::npos ? sql.size() : end + 2;
    } else {
      break;
    }
  }
  return i;
}

bool StartsWithWord(const std::string& sql, size_t i, const char* word) {
  size_t n = 0;
  while (word[n] != '\0') ++n;
  if (i + n > sql.size() || strncasecmp(sql.c_str() + i, word, n) != 0) return false;
  return i + n == sql.size() ||
         !(isalnum(static_cast<unsigned char>(sql[i + n])) || sql[i + n] == '_');
}

}  // namespace

bool IsSingleStatement(const std::string& sql) {
  size_t i = SkipBlanks(sql, 0);
  if (StartsWithWord(sql, i, "ATTACH") || StartsWithWord(sql, i, "DETACH") ||
      StartsWithWord(sql, i, "VACUUM")) {
    return false;
  }
  bool ended = false;
  while ((i = SkipBlanks(sql, i)) < sql.size()) {
    const char c = sql[i];
    if (c == ';') {
      ended = true;
      ++i;
      continue;
    }
    if (ended) return false;  // something after the first statement's end
    if (c == '\'' || c == '"' || c == '`' || c == '[') {
      // Quoted text or name; a doubled quote reads as two quoted runs.
      const size_t end = sql.find(c == '[' ? ']' : c, i + 1);
      if (end == std::string::npos) return true;  // unterminated: SQLite refuses it whole
      i = end + 1;
      continue;
    }
    ++i;
  }
  return true;
}

}  // namespace VantDRCore
