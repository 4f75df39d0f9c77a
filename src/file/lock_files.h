// The lock files this process holds open through FileLock objects.
#pragma once

namespace VantDRCore {

// Closes, in a freshly forked child, every lock file descriptor inherited
// from the parent. A flock lock lives as long as any descriptor of its open
// file, so a child that kept them would hold its parent's locks until it
// exits, whatever the parent does with them. Other descriptors stay open.
void CloseInheritedLockFiles();

}  // namespace VantDRCore
