// Symbol export for libvantdrcore: the library is built with hidden
// visibility, and only what carries VANTDR_API is part of its ABI.
#pragma once

#if defined(VANTDR_BUILDING_LIBRARY)
#define VANTDR_API __attribute__((visibility("default")))
#else
#define VANTDR_API
#endif
