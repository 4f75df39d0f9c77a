#include "support/timing.h"

#include <cstdlib>
#include <cstring>

namespace VantDRTest {

double TimeScale() {
  const char* emulated = std::getenv("VANTDR_EMULATED");
  if (emulated != nullptr && *emulated != '\0' && std::strcmp(emulated, "0") != 0) return 5.0;
#if defined(__SANITIZE_ADDRESS__)
  return 2.0;  // the sanitizers slow every process, forked children included
#else
  return 1.0;
#endif
}

}  // namespace VantDRTest
