#include "pl_path.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

bool PlPathStat(const char* path, PlPathInfo* info) {
  struct stat st;
  if (!path || stat(path, &st) != 0) return false;
  info->Size = (long long)st.st_size;
  info->MTime = st.st_mtime;
  info->IsDir = S_ISDIR(st.st_mode);
  return true;
}

bool PlPathListDir(const char* dir, void (*fn)(void* arg, const char* name), void* arg) {
  DIR* d = opendir(dir);
  if (!d) return false;
  while (struct dirent* e = readdir(d)) fn(arg, e->d_name);
  closedir(d);
  return true;
}

bool PlPathReal(const char* path, std::string& out) {
  char* resolved = realpath(path, nullptr);
  if (!resolved) return false;
  out = resolved;
  free(resolved);
  return true;
}

bool PlPathInside(const char* root, const char* path) {
  size_t rootLen = strlen(root);
  // A trailing separator on the root is not part of the comparison, except
  // for the file-system root itself.
  while (rootLen > 1 && root[rootLen - 1] == '/') rootLen--;
  if (strncmp(path, root, rootLen) != 0) return false;
  char next = path[rootLen];
  return next == 0 || next == '/' || (rootLen == 1 && root[0] == '/');
}

bool PlLocalTime(time_t t, struct tm* out) { return localtime_r(&t, out) != nullptr; }
