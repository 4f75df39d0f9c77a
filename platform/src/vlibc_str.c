/* In-place string trimming: VLIBCStrTrim. */
#include <string.h>

#include "vantcore/vlibc.h"

static int is_space(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

char* VLIBCStrTrim(char* str, int reserved1, int reserved2) {
  (void)reserved1;
  (void)reserved2;
  if (str == NULL) return NULL;
  size_t len = strlen(str);
  while (len > 0 && is_space((unsigned char)str[len - 1])) str[--len] = '\0';
  size_t start = 0;
  while (start < len && is_space((unsigned char)str[start])) ++start;
  if (start > 0) memmove(str, str + start, len - start + 1);
  return str;
}
