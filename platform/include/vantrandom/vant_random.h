// The platform random source: uniform integers drawn from the kernel.
#pragma once

namespace VANT {
namespace RANDOM {

class VANTRandomBase {
 public:
  virtual ~VANTRandomBase() = default;

  // A number drawn uniformly (no modulo bias) from the closed range
  // [min, max] using the kernel's random source. min >= max returns min.
  unsigned urandom(unsigned min, unsigned max);

 protected:
  // Fills `buf` with `len` random bytes; false when the source failed.
  virtual bool Fill(void* buf, unsigned len);
};

// The generator object callers create; draws from getrandom(2).
class VANTRandom : public VANTRandomBase {};

}  // namespace RANDOM
}  // namespace VANT
