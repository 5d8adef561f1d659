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
#include <sys/syscall.h>
#include <unistd.h>
#ifdef __linux__
#include <linux/openat2.h>
#endif

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

PlDir* PlDirOpenHandle(PlFile dir) {
  int fd = openat((int)dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  DIR* d = fdopendir(fd);
  if (!d) {
    close(fd);
    return nullptr;
  }
  return new PlDir{d, nullptr};
}

bool PlDirEntryTargetStat(PlDir* dir, PlStatInfo* out) {
  struct stat st;
  if (!dir || !dir->Last || fstatat(dirfd(dir->Handle), dir->Last, &st, 0) != 0) return false;
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

// ---------------------------------------------------------------- beneath

struct PlRoot {
  int Fd;            // the directory itself, for openat
  std::string Real;  // its path with every link resolved
};

// The path the kernel has for an open descriptor: the file that is really
// open, not what its name pointed at when it was checked.
static bool DescriptorPath(int fd, std::string* out) {
  char link[48];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  std::vector<char> buf(PATH_MAX + 1);
  ssize_t n = readlink(link, buf.data(), buf.size());
  if (n <= 0 || (size_t)n >= buf.size()) return false;
  out->assign(buf.data(), (size_t)n);
  return true;
}

static bool RealInside(const std::string& root, const std::string& path) {
  if (root == "/") return true;
  return path.compare(0, root.size(), root) == 0 &&
         (path.size() == root.size() || path[root.size()] == '/');
}

PlRoot* PlRootOpen(const char* dir) {
  if (!dir || !*dir) return nullptr;
  int fd = open(dir, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  std::string real;
  if (!DescriptorPath(fd, &real) && !PlRealPath(dir, &real)) {
    close(fd);
    return nullptr;
  }
  return new PlRoot{fd, real};
}

void PlRootClose(PlRoot* root) {
  if (!root) return;
  close(root->Fd);
  delete root;
}

// Non-blocking, so that a named pipe in the tree can't hold the caller in
// open; reads of regular files and directories are not affected.
static const int kReadFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

// One call that refuses every way out of the directory (links, "..",
// absolute links, /proc's magic links). -1 with ENOSYS where the kernel
// predates it.
static int OpenResolvedBeneath(int dirFd, const char* rel) {
#if defined(__linux__) && defined(SYS_openat2)
  struct open_how how;
  memset(&how, 0, sizeof how);
  how.flags = kReadFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  return (int)syscall(SYS_openat2, dirFd, rel, &how, sizeof how);
#else
  (void)dirFd;
  (void)rel;
  errno = ENOSYS;
  return -1;
#endif
}

// The slower way, taken where openat2 is missing or refused a link that may
// still stay inside (an absolute one): open following links, then ask the
// kernel where the open file lies. A rename after the open can't change
// which file that is.
static int OpenCheckedByDescriptor(PlRoot* root, const char* rel, bool* outside) {
  int fd = openat(root->Fd, rel, kReadFlags);
  if (fd < 0) return -1;
  std::string real;
  if (!DescriptorPath(fd, &real) || !RealInside(root->Real, real)) {
    close(fd);
    *outside = true;
    return -1;
  }
  return fd;
}

PlBeneathResult PlOpenBeneath(PlRoot* root, const char* rel, PlFile* out, PlStatInfo* info) {
  *out = PL_NO_FILE;
  if (!rel) return PL_BENEATH_MISSING;
  bool outside = false;
  int fd;
  if (!root) {
    fd = open(rel, kReadFlags);
  } else {
    if (rel[0] == '/') return PL_BENEATH_OUTSIDE;
    const char* name = *rel ? rel : ".";
    fd = OpenResolvedBeneath(root->Fd, name);
    if (fd < 0 && (errno == EXDEV || errno == ENOSYS || errno == EPERM || errno == EINVAL || errno == E2BIG))
      fd = OpenCheckedByDescriptor(root, name, &outside);
  }
  if (fd < 0) return outside ? PL_BENEATH_OUTSIDE : PL_BENEATH_MISSING;
  struct stat st;
  if (fstat(fd, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) {
    close(fd);
    return PL_BENEATH_MISSING;
  }
  FillStat(st, info);
  *out = fd;
  return PL_BENEATH_OPEN;
}

int PlFileRead(PlFile f, void* buf, unsigned n) {
  for (;;) {
    ssize_t got = read((int)f, buf, n);
    if (got >= 0) return (int)got;
    if (errno != EINTR) return -1;
  }
}

void PlFileClose(PlFile f) {
  if (f != PL_NO_FILE) close((int)f);
}

const char* PlRootDir() { return "/"; }
