// The kernel refusing a feature in a child, to reach the code paths of machines that lack it.
#pragma once

#include <errno.h>

namespace VantDRTest {

// From now on here and in children, O_TMPFILE opens fail with `error`. Irreversible: call it in
// a forked child. False when the filter could not be installed.
bool RefuseUnnamedTemporaryFiles(int error = EOPNOTSUPP);
// As above, fchmod succeeds and changes nothing, as a file system may silently drop mode bits.
bool IgnoreModeChanges();

}  // namespace VantDRTest
