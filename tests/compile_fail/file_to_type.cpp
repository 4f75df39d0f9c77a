// A vector cannot be read with operator>>.
#include <vector>

#include "vantdr/file.h"

bool Probe(std::vector<int>& out) {
  return VantDRCore::File::toType(std::string("1 2"), out, std::vector<int>());
}
