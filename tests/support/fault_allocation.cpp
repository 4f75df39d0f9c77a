// A large allocation is a call the fault harness counts and can fail.
#include <cstdlib>
#include <new>

#include "support/fault_injection.h"

namespace VantDRTest::Faults {
bool Inject(Call call);  // fault_injection.cpp
}  // namespace VantDRTest::Faults

namespace {

size_t g_bytes = 0;  // FailAllocation's: 0 while nothing is armed
int g_nth = 0, g_count = 0;

void* Allocate(size_t size) {
  using namespace VantDRTest::Faults;
  if (g_bytes > 0 && size >= g_bytes && ++g_count == g_nth) return nullptr;
  if (size >= (256 << 10) && Inject(kAllocation)) return nullptr;
  return std::malloc(size > 0 ? size : 1);
}

void* OrThrow(void* p) { return p != nullptr ? p : throw std::bad_alloc(); }

}  // namespace

void VantDRTest::Faults::FailAllocation(size_t bytes, int nth) {
  g_count = 0;
  g_nth = nth;
  g_bytes = bytes;
}

int VantDRTest::Faults::LargeAllocations() { return g_count; }

void* operator new(size_t size) { return OrThrow(Allocate(size)); }
void* operator new[](size_t size) { return OrThrow(Allocate(size)); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
