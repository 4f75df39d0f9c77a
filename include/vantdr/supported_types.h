// The public templates are instantiated inside the library for a fixed set
// of types. Each checks its type at compile time, so an unsupported one is a
// compile error naming the supported types rather than an undefined symbol
// at link time.
#pragma once

#include <type_traits>

namespace VantDRCore {

// True when T is exactly one of Ts.
template <typename T, typename... Ts>
constexpr bool IsOneOf = (std::is_same<T, Ts>::value || ...);

// Passed by a checked public template to the implementation the library
// instantiates: only the checked entry point reaches it.
struct CheckedType {};

}  // namespace VantDRCore
