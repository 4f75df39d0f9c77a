// Making the kernel refuse one feature in a child process, to reach the code
// paths of machines that lack it.
#pragma once

namespace VantDRTest {

#include <errno.h>

// From now on, in this process and its children, opening an unnamed
// temporary file (O_TMPFILE) fails with `error`, as on a file system
// without them. Irreversible: call it in a forked child. False when the
// filter could not be installed.
bool RefuseUnnamedTemporaryFiles(int error = EOPNOTSUPP);
// As above, but fchmod reports success and changes nothing, as a file
// system may silently drop mode bits.
bool IgnoreModeChanges();

}  // namespace VantDRTest
