#include "pl_path.h"

#include <windows.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <vector>

bool PlPathStat(const char* path, PlPathInfo* info) {
  struct _stati64 st;
  if (!path || _stati64(path, &st) != 0) return false;
  info->Size = (long long)st.st_size;
  info->MTime = (time_t)st.st_mtime;
  info->IsDir = (st.st_mode & _S_IFDIR) != 0;
  return true;
}

bool PlPathListDir(const char* dir, void (*fn)(void* arg, const char* name), void* arg) {
  std::string pattern = dir;
  pattern += "\\*";
  WIN32_FIND_DATAA fd;
  HANDLE h = FindFirstFileA(pattern.c_str(), &fd);
  if (h == INVALID_HANDLE_VALUE) return false;
  do fn(arg, fd.cFileName);
  while (FindNextFileA(h, &fd));
  FindClose(h);
  return true;
}

bool PlPathReal(const char* path, std::string& out) {
  HANDLE h = CreateFileA(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  std::vector<char> buf(32768);
  DWORD n = GetFinalPathNameByHandleA(h, buf.data(), (DWORD)buf.size(), FILE_NAME_NORMALIZED);
  CloseHandle(h);
  if (n == 0 || n >= buf.size()) return false;
  out.assign(buf.data(), n);
  // Drop the long-path prefix so the result compares with ordinary paths.
  if (out.compare(0, 8, "\\\\?\\UNC\\") == 0) out = "\\\\" + out.substr(8);
  else if (out.compare(0, 4, "\\\\?\\") == 0) out = out.substr(4);
  return true;
}

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

bool PlLocalTime(time_t t, struct tm* out) { return localtime_s(out, &t) == 0; }
