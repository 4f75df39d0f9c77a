// Replacing a file's content durably; shared by the JSON file writers.
#pragma once

#include <string>

namespace VantDRCore {

// The step at which a durable write stopped.
enum class DurableWriteStep { kDone, kOpen, kWrite, kFlush, kSync, kRename };

// Writes `text` to a temporary file beside `path`, syncs it and renames it
// over `path`; an existing file's owner (when allowed) and permission bits are kept, a new file
// gets 0666 less the umask (as with fopen). On failure the temporary file is removed, `path` is
// untouched and errno tells why.
DurableWriteStep WriteFileDurably(const std::string& path, const std::string& text);

}  // namespace VantDRCore
