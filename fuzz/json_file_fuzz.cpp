// JSON files with arbitrary bytes: reading never throws; whatever parses is
// written back and reads back equal.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "vantdr/file.h"
#include "vantdr/json_text.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FuzzSupport::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = FuzzSupport::WorkDir() + "/doc.json";
  const std::string copy = FuzzSupport::WorkDir() + "/copy.json";
  if (!FuzzSupport::WriteBytes(path, data, size)) return 0;

  Json::Value value;
  if (!VantDRCore::File::Read(path, value)) return 0;
  Json::Value again;
  if (!VantDRCore::File::Write(copy, value) || !VantDRCore::File::Read(copy, again) ||
      !(again == value)) {
    abort();
  }
  Json::Value fromFile;
  if (!VantDRCore::JsonFromFile(fromFile, copy) || !(fromFile == value)) abort();
  return 0;
}
