// A private directory under /tmp, removed with everything in it.
#pragma once

#include <string>

namespace VantDRTest {

class TempDir {
 public:
  // mkdtemp("<parent>/vantdr_test.XXXXXX"), in /tmp when `parent` refuses.
  explicit TempDir(const std::string& parent = "/tmp");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string File(const std::string& name) const;

 private:
  std::string path_;
};

// Writes `text` to `path` (test fixture data); false on failure.
bool WriteText(const std::string& path, const std::string& text);
// The whole file, or "" when it cannot be read.
std::string ReadText(const std::string& path);
// A name unique to this process and call, for fixed shared directories.
std::string UniqueName(const std::string& stem);

}  // namespace VantDRTest
