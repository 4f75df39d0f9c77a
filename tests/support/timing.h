// Time bounds for tests that assert how long something took.
#pragma once

#include <chrono>

namespace VantDRTest {

// How much slower than native the tests run: 1 natively, 2 under
// AddressSanitizer, 5 when VANTDR_EMULATED is set to anything but "" or "0"
// (scripts/test-armhf runs the suite under qemu-arm that way). Upper bounds on durations are
// multiplied by it; lower bounds, which state what the library waits, are not.
double TimeScale();

// `seconds` * TimeScale().
inline double Bound(double seconds) { return seconds * TimeScale(); }

// Seconds `body` took, on the monotonic clock.
template <typename Body>
double SecondsTaken(Body body) {
  const auto start = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace VantDRTest
