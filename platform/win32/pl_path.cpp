// The containment test of request paths on Windows: both separators, no
// regard to letter case, and full paths resolved by the system first.
#include "pl_path.h"

#include <windows.h>
#include <string.h>

#include <string>
#include <vector>

static std::string FullPath(const char* path) {
  std::vector<char> buf(32768);
  DWORD n = GetFullPathNameA(path, (DWORD)buf.size(), buf.data(), nullptr);
  if (n == 0 || n >= buf.size()) return std::string();
  return std::string(buf.data(), n);
}

bool PlPathInside(const char* root, const char* path) {
  // GetFullPathName folds "..", "." and both separators, so a backslash
  // step hidden in a URL path cannot climb out unnoticed.
  std::string r = FullPath(root), p = FullPath(path);
  if (r.empty() || p.empty()) return false;
  while (r.size() > 3 && PlPathIsSep(r.back())) r.pop_back();
  if (r.size() > p.size() || _strnicmp(r.c_str(), p.c_str(), r.size()) != 0) return false;
  if (p.size() == r.size()) return true;
  return PlPathIsSep(p[r.size()]) || PlPathIsSep(r.back());
}
