/// @file
/// Symbol export for libvantdrcore: the library is built with hidden
/// visibility, and only what carries VANTDR_API is part of its ABI.
#pragma once

#if defined(VANTDR_BUILDING_LIBRARY)
#define VANTDR_API __attribute__((visibility("default")))
#else
/// Marks a class or function as part of the shared object's interface:
/// exported while the library is built, empty for its users.
#define VANTDR_API
#endif
