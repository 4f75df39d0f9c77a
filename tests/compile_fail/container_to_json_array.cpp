// long is not among the element types.
#include "vantdr/utils.h"

Json::Value Probe(const std::vector<long>& items) {
  return VantDRCore::Container::ToJsonArray(items);
}
