// The containment test of request paths on a POSIX file system, where
// names are case-sensitive and '/' is the only separator.
#include "pl_path.h"

#include <string.h>

bool PlPathInside(const char* root, const char* path) {
  size_t rootLen = strlen(root);
  // A trailing separator on the root is not part of the comparison, except
  // for the file-system root itself.
  while (rootLen > 1 && root[rootLen - 1] == '/') rootLen--;
  if (rootLen == 0 || strncmp(path, root, rootLen) != 0) return false;
  char next = path[rootLen];
  return next == 0 || next == '/' || (rootLen == 1 && root[0] == '/');
}
