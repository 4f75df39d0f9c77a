// JSON documents read from a descriptor the caller opened (the cache opens
// its own files with the checks of fileio/own_files.h).
#pragma once

#include <json/value.h>

namespace VantDRCore {

// Reads and parses the whole file; closes `fd` exactly once, whatever
// happens. False for a negative descriptor, a read error, more than a string
// holds, or text that does not parse; `out` is then null.
bool JsonFromDescriptor(Json::Value& out, int fd);

}  // namespace VantDRCore
