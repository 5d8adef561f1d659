// File-system access on Windows through the ANSI calls: status, directory
// search, directory and file management, and the well-known paths.
#include "pl_fs.h"

#include <windows.h>
#include <sys/stat.h>
#include <string.h>

#include <cstdio>
#include <vector>

bool PlStat(const char* path, PlStatInfo* out) {
  if (!path || !*path) return false;
  struct _stati64 st;
  if (_stati64(path, &st) != 0) return false;
  if (out) {
    out->Size = (long long)st.st_size;
    out->MTime = (long long)st.st_mtime;
    out->IsDir = (st.st_mode & _S_IFDIR) != 0;
  }
  return true;
}

bool PlIsDir(const char* path) {
  PlStatInfo st;
  return PlStat(path, &st) && st.IsDir;
}

bool PlIsFile(const char* path) {
  PlStatInfo st;
  return PlStat(path, &st) && !st.IsDir;
}

// The first entry comes with FindFirstFileA itself, so it is held back
// until the first PlDirNext. An empty drive root has no entries at all
// (not even "."), which is still a directory that can be read.
struct PlDir {
  HANDLE Handle;
  WIN32_FIND_DATAA Data;
  bool Pending;
  bool Done;
  std::string Path;  // for the status of an entry's target
};

PlDir* PlDirOpen(const char* path) {
  if (!path || !*path) return nullptr;
  std::string pattern(path);
  if (pattern.back() != '\\' && pattern.back() != '/') pattern += '\\';
  pattern += '*';
  PlDir* dir = new PlDir;
  dir->Path = path;
  dir->Handle = FindFirstFileA(pattern.c_str(), &dir->Data);
  dir->Pending = dir->Handle != INVALID_HANDLE_VALUE;
  dir->Done = !dir->Pending;
  if (dir->Done && !(GetLastError() == ERROR_FILE_NOT_FOUND && PlIsDir(path))) {
    delete dir;
    return nullptr;
  }
  return dir;
}

const char* PlDirNext(PlDir* dir) {
  if (!dir || dir->Done) return nullptr;
  for (;;) {
    if (!dir->Pending && !FindNextFileA(dir->Handle, &dir->Data)) {
      dir->Done = true;
      return nullptr;
    }
    dir->Pending = false;
    const char* name = dir->Data.cFileName;
    if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0) return name;
  }
}

// The search record already holds the entry's own size, time and kind.
bool PlDirEntryStat(PlDir* dir, PlStatInfo* out) {
  if (!dir || dir->Done || dir->Pending) return false;
  const WIN32_FIND_DATAA& d = dir->Data;
  if (out) {
    ULARGE_INTEGER t;
    t.LowPart = d.ftLastWriteTime.dwLowDateTime;
    t.HighPart = d.ftLastWriteTime.dwHighDateTime;
    const unsigned long long kEpochDiff = 116444736000000000ULL;  // 1601 to 1970 in 100 ns
    out->Size = (long long)(((unsigned long long)d.nFileSizeHigh << 32) | d.nFileSizeLow);
    out->MTime = t.QuadPart >= kEpochDiff ? (long long)((t.QuadPart - kEpochDiff) / 10000000ULL) : 0;
    out->IsDir = (d.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  }
  return true;
}

void PlDirClose(PlDir* dir) {
  if (!dir) return;
  if (dir->Handle != INVALID_HANDLE_VALUE) FindClose(dir->Handle);
  delete dir;
}

bool PlMkdir(const char* path) { return path && *path && CreateDirectoryA(path, nullptr); }
bool PlRmdir(const char* path) { return path && *path && RemoveDirectoryA(path); }
bool PlChdir(const char* path) { return path && *path && SetCurrentDirectoryA(path); }
bool PlUnlink(const char* path) { return path && *path && DeleteFileA(path); }

bool PlRename(const char* from, const char* to) {
  return from && *from && to && *to &&
         MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED);
}

// Keeps "C:\" whole; any other final separator goes.
static void DropFinalSep(std::string* s) {
  if (s->size() > 3 && (s->back() == '\\' || s->back() == '/')) s->pop_back();
}

bool PlGetCwd(std::string* out) {
  DWORD n = GetCurrentDirectoryA(0, nullptr);
  if (n == 0) return false;
  std::vector<char> buf(n + 1);
  DWORD got = GetCurrentDirectoryA((DWORD)buf.size(), buf.data());
  if (got == 0 || got >= buf.size()) return false;
  out->assign(buf.data(), got);
  DropFinalSep(out);
  return true;
}

bool PlTempDir(std::string* out) {
  DWORD n = GetTempPathA(0, nullptr);
  if (n == 0) return false;
  std::vector<char> buf(n + 1);
  DWORD got = GetTempPathA((DWORD)buf.size(), buf.data());
  if (got == 0 || got >= buf.size()) return false;
  out->assign(buf.data(), got);
  DropFinalSep(out);
  return true;
}

bool PlMakePrivateTempDir(const char* prefix, std::string* out) {
  std::string base;
  if (!PlTempDir(&base)) return false;
  // The user's own temporary directory is private to the user already.
  for (unsigned attempt = 0; attempt < 100; attempt++) {
    char unique[32];
    snprintf(unique, sizeof unique, "%lu-%u", GetCurrentProcessId(), (unsigned)(GetTickCount() + attempt));
    std::string path = base + "\\" + prefix + unique;
    if (CreateDirectoryA(path.c_str(), nullptr)) {
      *out = path;
      return true;
    }
    if (GetLastError() != ERROR_ALREADY_EXISTS) return false;
  }
  return false;
}

// The path the system has for an open handle: the file that is really
// open, links and junctions resolved.
static bool HandlePath(HANDLE h, std::string* out) {
  std::vector<char> buf(MAX_PATH + 1);
  DWORD n = GetFinalPathNameByHandleA(h, buf.data(), (DWORD)buf.size(), FILE_NAME_NORMALIZED);
  if (n >= buf.size()) {
    buf.resize(n + 1);
    n = GetFinalPathNameByHandleA(h, buf.data(), (DWORD)buf.size(), FILE_NAME_NORMALIZED);
  }
  if (n == 0 || n >= buf.size()) return false;
  std::string full(buf.data(), n);
  // Drop the "\\?\" prefix of the extended form when it names a drive path.
  if (full.compare(0, 4, "\\\\?\\") == 0 && full.compare(4, 4, "UNC\\") != 0) full.erase(0, 4);
  *out = full;
  return true;
}

static HANDLE OpenForReading(const char* path) {
  return CreateFileA(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                     OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

bool PlRealPath(const char* path, std::string* out) {
  if (!path || !*path) return false;
  HANDLE h = CreateFileA(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  bool ok = HandlePath(h, out);
  CloseHandle(h);
  return ok;
}

bool PlProgramPath(std::string* out) {
  std::vector<char> buf(MAX_PATH + 1);
  for (;;) {
    DWORD n = GetModuleFileNameA(nullptr, buf.data(), (DWORD)buf.size());
    if (n == 0) return false;
    if (n < buf.size()) {
      out->assign(buf.data(), n);
      return true;
    }
    if (buf.size() > 32768) return false;
    buf.resize(buf.size() * 2);
  }
}

// ---------------------------------------------------------------- beneath

struct PlRoot {
  std::string Dir;   // as given, to join names onto
  std::string Real;  // final path, to compare opened files with
};

PlRoot* PlRootOpen(const char* dir) {
  std::string real;
  if (!PlIsDir(dir) || !PlRealPath(dir, &real)) return nullptr;
  return new PlRoot{dir, real};
}

void PlRootClose(PlRoot* root) { delete root; }

static bool RealInside(const std::string& root, const std::string& path) {
  std::string r = root;
  while (r.size() > 3 && (r.back() == '\\' || r.back() == '/')) r.pop_back();
  if (r.size() > path.size() || _strnicmp(r.c_str(), path.c_str(), r.size()) != 0) return false;
  return path.size() == r.size() || path[r.size()] == '\\' || r.back() == '\\';
}

static long long FileTimeToUnix(const FILETIME& ft) {
  unsigned long long t = ((unsigned long long)ft.dwHighDateTime << 32) | ft.dwLowDateTime;
  return (long long)(t / 10000000ULL) - 11644473600LL;
}

// The check is made on the open handle: where the system says the opened
// file lies, so a link swapped after the check can't change what is read.
PlBeneathResult PlOpenBeneath(PlRoot* root, const char* rel, PlFile* out, PlStatInfo* info) {
  *out = PL_NO_FILE;
  if (!rel) return PL_BENEATH_MISSING;
  std::string path = rel;
  if (root) {
    if (rel[0] == '/' || rel[0] == '\\' || strchr(rel, ':')) return PL_BENEATH_OUTSIDE;
    path = root->Dir;
    if (*rel && path.back() != '\\' && path.back() != '/') path += '\\';
    path += rel;
  }
  for (char& c : path)
    if (c == '/') c = '\\';
  HANDLE h = OpenForReading(path.c_str());
  if (h == INVALID_HANDLE_VALUE) return PL_BENEATH_MISSING;
  std::string real;
  if (root && (!HandlePath(h, &real) || !RealInside(root->Real, real))) {
    CloseHandle(h);
    return PL_BENEATH_OUTSIDE;
  }
  BY_HANDLE_FILE_INFORMATION fi;
  if (!GetFileInformationByHandle(h, &fi) || GetFileType(h) != FILE_TYPE_DISK) {
    CloseHandle(h);
    return PL_BENEATH_MISSING;
  }
  if (info) {
    info->Size = ((long long)fi.nFileSizeHigh << 32) | fi.nFileSizeLow;
    info->MTime = FileTimeToUnix(fi.ftLastWriteTime);
    info->IsDir = (fi.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  }
  *out = (PlFile)(intptr_t)h;
  return PL_BENEATH_OPEN;
}

int PlFileRead(PlFile f, void* buf, unsigned n) {
  DWORD got = 0;
  if (!ReadFile(reinterpret_cast<HANDLE>((intptr_t)f), buf, n, &got, nullptr)) return -1;
  return (int)got;
}

void PlFileClose(PlFile f) {
  if (f != PL_NO_FILE) CloseHandle(reinterpret_cast<HANDLE>((intptr_t)f));
}

// The search runs on the handle's final path: the directory that was
// opened and checked, not what its name may lead to by now.
PlDir* PlDirOpenHandle(PlFile dir) {
  std::string path;
  if (!HandlePath(reinterpret_cast<HANDLE>((intptr_t)dir), &path)) return nullptr;
  return PlDirOpen(path.c_str());
}

bool PlDirEntryTargetStat(PlDir* dir, PlStatInfo* out) {
  if (!dir || dir->Done || dir->Pending) return false;
  std::string full = dir->Path;
  if (full.back() != '\\' && full.back() != '/') full += '\\';
  full += dir->Data.cFileName;
  return PlStat(full.c_str(), out);
}

const char* PlRootDir() { return "C:\\"; }
