// char is not among the element types.
#include "vantdr/utils.h"

std::string Probe(const std::vector<char>& items) {
  return VantDRCore::Container::ToString(items, ",");
}
