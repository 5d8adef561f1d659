#include "pl_path.h"

#include <string.h>
#include <time.h>

bool PlPathInside(const char* root, const char* path) {
  size_t rootLen = strlen(root);
  // A trailing separator on the root is not part of the comparison, except
  // for the file-system root itself.
  while (rootLen > 1 && root[rootLen - 1] == '/') rootLen--;
  if (rootLen == 0 || strncmp(path, root, rootLen) != 0) return false;
  char next = path[rootLen];
  return next == 0 || next == '/' || (rootLen == 1 && root[0] == '/');
}

bool PlLocalTime(time_t t, struct tm* out) { return localtime_r(&t, out) != nullptr; }
bool PlUtcTime(time_t t, struct tm* out) { return gmtime_r(&t, out) != nullptr; }
