// File-system access on POSIX: status, directory search, directory and file
// management, and the well-known paths.
#include "pl_fs.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <vector>

static void FillStat(const struct stat& st, PlStatInfo* out) {
  if (!out) return;
  out->Size = (long long)st.st_size;
  out->MTime = (long long)st.st_mtime;
  out->IsDir = S_ISDIR(st.st_mode);
}

bool PlStat(const char* path, PlStatInfo* out) {
  if (!path || !*path) return false;
  struct stat st;
  if (stat(path, &st) != 0) return false;
  FillStat(st, out);
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

struct PlDir {
  DIR* Handle;
  const char* Last;  // the name PlDirNext returned last, inside readdir's record
};

PlDir* PlDirOpen(const char* path) {
  if (!path || !*path) return nullptr;
  DIR* d = opendir(path);
  if (!d) return nullptr;
  return new PlDir{d, nullptr};
}

const char* PlDirNext(PlDir* dir) {
  if (!dir) return nullptr;
  dir->Last = nullptr;
  while (struct dirent* e = readdir(dir->Handle)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    return dir->Last = e->d_name;
  }
  return nullptr;
}

bool PlDirEntryStat(PlDir* dir, PlStatInfo* out) {
  struct stat st;
  if (!dir || !dir->Last || fstatat(dirfd(dir->Handle), dir->Last, &st, AT_SYMLINK_NOFOLLOW) != 0)
    return false;
  FillStat(st, out);
  return true;
}

void PlDirClose(PlDir* dir) {
  if (!dir) return;
  closedir(dir->Handle);
  delete dir;
}

bool PlMkdir(const char* path) { return path && *path && mkdir(path, 0777) == 0; }
bool PlRmdir(const char* path) { return path && *path && rmdir(path) == 0; }
bool PlChdir(const char* path) { return path && *path && chdir(path) == 0; }
bool PlUnlink(const char* path) { return path && *path && unlink(path) == 0; }

bool PlRename(const char* from, const char* to) {
  return from && *from && to && *to && rename(from, to) == 0;
}

// A final '/' is dropped so that callers can add their own separator.
static void DropFinalSep(std::string* s) {
  if (s->size() > 1 && s->back() == '/') s->pop_back();
}

bool PlGetCwd(std::string* out) {
  std::vector<char> buf(256);
  while (!getcwd(buf.data(), buf.size())) {
    if (errno != ERANGE || buf.size() > (1u << 20)) return false;
    buf.resize(buf.size() * 2);
  }
  *out = buf.data();
  return true;
}

bool PlTempDir(std::string* out) {
  const char* dir = getenv("TMPDIR");
  *out = (dir && *dir) ? dir : "/tmp";
  DropFinalSep(out);
  return true;
}

bool PlMakePrivateTempDir(const char* prefix, std::string* out) {
  std::string base;
  PlTempDir(&base);
  std::string pattern = base + "/" + prefix + "XXXXXX";
  if (!mkdtemp(&pattern[0])) return false;  // mode 0700
  *out = pattern;
  return true;
}

bool PlRealPath(const char* path, std::string* out) {
  if (!path || !*path) return false;
  char* full = realpath(path, nullptr);
  if (!full) return false;
  *out = full;
  free(full);
  return true;
}

bool PlProgramPath(std::string* out) {
  std::vector<char> buf(PATH_MAX + 1);
  ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size() - 1);
  if (n <= 0) return false;
  out->assign(buf.data(), (size_t)n);
  return true;
}
