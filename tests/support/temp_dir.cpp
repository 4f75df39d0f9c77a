#include "support/temp_dir.h"

#include <ftw.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace VantDRTest {

TempDir::TempDir(const std::string& parent) {
  for (const std::string& where : {parent, std::string("/tmp")}) {
    std::string pattern = where + "/vantdr_test.XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr) {
      path_ = pattern;
      return;
    }
  }
  std::abort();
}

TempDir::~TempDir() {
  const auto remove = [](const char* p, const struct stat*, int, FTW*) { return ::remove(p); };
  nftw(path_.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
}

std::string TempDir::File(const std::string& name) const { return path_ + "/" + name; }

bool WriteText(const std::string& path, const std::string& text) {
  return static_cast<bool>(std::ofstream(path, std::ios::binary | std::ios::trunc) << text);
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string UniqueName(const std::string& stem) {
  static std::atomic<int> counter{0};
  return stem + "_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

}  // namespace VantDRTest
