// key=value files with arbitrary bytes: the three readers never throw and
// never report more entries than the file has lines.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "fuzz_support.h"
#include "vantdr/file.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FuzzSupport::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = FuzzSupport::WorkDir() + "/settings.conf";
  if (!FuzzSupport::WriteBytes(path, data, size)) return 0;
  size_t lines = 1;
  for (size_t i = 0; i < size; ++i) lines += data[i] == '\n';

  std::map<std::string, std::string> texts;
  std::map<std::string, int> ints;
  std::map<std::string, double> reals;
  int a = VantDRCore::File::Read(path, texts);
  int b = VantDRCore::File::Read(path, ints);
  int c = VantDRCore::File::Read(path, reals);
  if (a < 0 || b < 0 || c < 0 || static_cast<size_t>(a) > lines ||
      static_cast<size_t>(a) != texts.size() || static_cast<size_t>(b) != ints.size()) {
    abort();
  }
  return 0;
}
