// Built as a caller who never heard of the large-file and 64-bit time flags
// that the rest of the project uses.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS

#include <sys/types.h>

#include <ctime>

#include "support/layout.h"

// Without this the comparison would prove nothing on a 32-bit target.
static_assert(sizeof(void*) == 8 || (sizeof(off_t) == 4 && sizeof(time_t) == 4),
              "the default flags did not take effect");

namespace VantDRTest {

std::vector<ClassLayout> LayoutsWithDefaultFlags() { return VANTDR_PUBLIC_LAYOUTS; }

}  // namespace VantDRTest
