#include "vantrandom/vant_random.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <climits>

namespace VANT {
namespace RANDOM {

bool VANTRandomBase::Fill(void* buf, unsigned len) {
  char* p = static_cast<char*>(buf);
  while (len > 0) {
    ssize_t n = getrandom(p, len, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    len -= static_cast<unsigned>(n);
  }
  return true;
}

unsigned VANTRandomBase::urandom(unsigned min, unsigned max) {
  if (min >= max) return min;
  const unsigned span = max - min;  // range size minus one
  unsigned draw = 0;
  if (span == UINT_MAX) return Fill(&draw, sizeof draw) ? draw : min;
  const unsigned range = span + 1;
  // Reject the top partial block so every value is equally likely.
  const unsigned limit = UINT_MAX - (UINT_MAX % range + 1) % range;
  do {
    if (!Fill(&draw, sizeof draw)) return min;
  } while (draw > limit);
  return min + draw % range;
}

}  // namespace RANDOM
}  // namespace VANT
