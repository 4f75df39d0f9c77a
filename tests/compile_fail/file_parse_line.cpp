// Keys are text only.
#include "vantdr/file.h"

bool Probe(int& key, std::string& value) {
  return VantDRCore::File::parseLineKeyValue("1=a", "=", key, value);
}
