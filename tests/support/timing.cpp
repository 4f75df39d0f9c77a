#include "support/timing.h"

#include <cstdlib>
#include <cstring>

namespace VantDRTest {

double TimeScale() {
  const char* emulated = std::getenv("VANTDR_EMULATED");
  return emulated != nullptr && *emulated != '\0' && std::strcmp(emulated, "0") != 0 ? 5.0 : 1.0;
}

}  // namespace VantDRTest
