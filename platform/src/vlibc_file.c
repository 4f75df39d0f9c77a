/* File tests: VLIBCFileCheckDir, VLIBCFileExist. */
#include <sys/stat.h>

#include "vantcore/vlibc.h"

int VLIBCFileCheckDir(const char* path) {
  struct stat st;
  if (path == NULL || *path == '\0' || stat(path, &st) != 0) return 0;
  return S_ISDIR(st.st_mode) ? 1 : 0;
}

int VLIBCFileExist(const char* path) {
  struct stat st;
  if (path == NULL || *path == '\0') return 0;
  /* Follows links: a dangling link names nothing a caller could open. */
  return stat(path, &st) == 0 ? 1 : 0;
}
