// Time bounds for tests that assert how long something took.
#pragma once

#include <chrono>

namespace VantDRTest {

// Slowdown: 1 native, 2 under ASan, 5 with VANTDR_EMULATED (qemu); scales upper bounds only.
double TimeScale();

inline double Bound(double seconds) { return seconds * TimeScale(); }

// Seconds `body` took, on the monotonic clock.
template <typename Body>
double SecondsTaken(Body body) {
  const auto start = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace VantDRTest
