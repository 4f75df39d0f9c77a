// Making the kernel refuse one feature in a child process, to reach the code
// paths of machines that lack it.
#pragma once

namespace VantDRTest {

// From now on, in this process and its children, opening an unnamed
// temporary file (O_TMPFILE) fails with EOPNOTSUPP, as on a file system
// without them. Irreversible: call it in a forked child. False when the
// filter could not be installed.
bool RefuseUnnamedTemporaryFiles();

}  // namespace VantDRTest
