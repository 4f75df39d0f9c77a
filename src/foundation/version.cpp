#include "vantdr/version.h"

namespace VantDRCore {

// Compiled into the shared object, so it reports the library that is loaded.
const char* GetLibraryVersion() { return VANTDR_VERSION_STRING; }

}  // namespace VantDRCore
