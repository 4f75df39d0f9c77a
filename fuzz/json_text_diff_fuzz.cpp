// The JSON text helpers against their previous implementation (the oracle):
// raw bytes must be accepted or refused alike and read to values equal node
// for node, types included; values built from the bytes (any real, holes,
// comments, nesting past the limit) must be written to identical text.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "json_text_oracle.h"
#include "vantdr/json_text.h"

namespace {

// operator== plus the same type at every node (it already compares types at
// the top, but reals compare by value, so -0.0 and 0.0 would pass).
bool Same(const Json::Value& a, const Json::Value& b) {
  if (a.type() != b.type() || a.size() != b.size()) return false;
  if (a.isDouble()) {
    const double x = a.asDouble(), y = b.asDouble();
    return memcmp(&x, &y, sizeof x) == 0;
  }
  if (!a.isArray() && !a.isObject()) return a == b;
  for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j) {
    if (i.key() != j.key() || !Same(*i, *j)) return false;
  }
  return true;
}

class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}
  bool empty() const { return p_ == end_; }
  uint8_t Byte() { return p_ < end_ ? *p_++ : 0; }
  uint64_t Word() {
    uint64_t w = 0;
    for (int i = 0; i < 8; ++i) w = w << 8 | Byte();
    return w;
  }
  std::string Text() {
    std::string s;
    for (size_t n = Byte() % 12; n > 0 && !empty(); --n) s += static_cast<char>(Byte());
    return s;
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

const Json::CommentPlacement kPlacements[] = {Json::commentBefore, Json::commentAfterOnSameLine,
                                              Json::commentAfter};

// The depth of the deepest node below `v` (inputs are short: this recursion
// stays shallow).
int Deepest(const Json::Value& v) {
  int deepest = 0;
  for (const Json::Value& child : v) deepest = std::max(deepest, 1 + Deepest(child));
  return deepest;
}

// A value shaped by the bytes; `plain` is cleared when it holds something
// whose text does not read back (comments, infinities, NaN).
Json::Value Build(Bytes& in, bool& plain) {
  Json::Value v;
  const uint8_t op = in.Byte();
  switch (op % 10) {
    case 0:
      break;
    case 1:
      v = (op & 0x10) != 0;
      break;
    case 2:
      v = static_cast<Json::Int64>(in.Word());
      break;
    case 3:
      v = static_cast<Json::UInt64>(in.Word());
      break;
    case 4: {
      const uint64_t bits = in.Word();
      double d;
      memcpy(&d, &bits, sizeof d);
      if (!std::isfinite(d)) plain = false;  // written as text that does not read back
      v = d;
      break;
    }
    case 5:
      v = in.Text();
      break;
    case 6:
    case 7: {
      v = Json::Value(op % 10 == 6 ? Json::arrayValue : Json::objectValue);
      // A long chain of single children reaches past the depth limit.
      const int children = (op & 0x80) != 0 ? 1 : (op >> 4) % 4;
      for (int i = 0; i < children && !in.empty(); ++i) {
        Json::Value child = Build(in, plain);
        if (v.isArray()) {
          v.append(std::move(child));
        } else {
          v[in.Text()] = std::move(child);
        }
      }
      break;
    }
    case 8:
      v = Json::Value(Json::arrayValue);
      v[in.Byte() % 8] = Build(in, plain);  // earlier indexes unset
      break;
    case 9:
      v = Build(in, plain);
      v.setComment("//" + in.Text(), kPlacements[op / 10 % 3]);
      plain = false;
      break;
  }
  return v;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FuzzSupport::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value expected;
  Json::Value actual;
  const bool accepted = JsonOracle::FromString(expected, text);
  if (VantDRCore::JsonFromString(actual, text) != accepted) abort();
  if (!Same(actual, expected)) abort();  // both null when refused
  if (accepted && VantDRCore::JsonToString(actual) != JsonOracle::ToString(expected)) abort();

  Bytes in(data, size);
  bool plain = true;
  Json::Value built = Build(in, plain);
  const std::string written = VantDRCore::JsonToString(built);
  if (Deepest(built) > JsonOracle::kMaxDepth) {
    if (!written.empty()) abort();
  } else {
    if (written != JsonOracle::ToString(built)) abort();
    Json::Value back;
    if (plain &&
        (!VantDRCore::JsonFromString(back, written) || VantDRCore::JsonToString(back) != written)) {
      abort();
    }
  }
  return 0;
}
