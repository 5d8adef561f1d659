// File-system path queries used by the HTTP server's file serving: metadata of
// one path, the entries of a directory, the fully resolved form of a path (links
// followed) and a containment test that follows the platform's rules for
// separators and letter case.
#ifndef LUMETTA_PL_PATH_H
#define LUMETTA_PL_PATH_H

#include <ctime>
#include <string>

// The platform's separator of file-system paths.
#ifdef _WIN32
const char PL_PATH_SEP = '\\';
#else
const char PL_PATH_SEP = '/';
#endif

// What the server needs of a stat record.
struct PlPathInfo {
  long long Size;
  time_t MTime;
  bool IsDir;
};

// Metadata of path, links followed. False when it does not exist.
bool PlPathStat(const char* path, PlPathInfo* info);

// Calls fn(arg, name) for every entry of dir, "." and ".." included, in the
// order the system gives them. False when the directory can't be searched.
bool PlPathListDir(const char* dir, void (*fn)(void* arg, const char* name), void* arg);

// The absolute form of an existing path with every link resolved.
bool PlPathReal(const char* path, std::string& out);

// True when path is root itself or lies below it (whole components only:
// "/srv/www2" is not inside "/srv/www"). Both are compared as given, after
// the platform's lexical normalisation.
bool PlPathInside(const char* root, const char* path);

// Thread-safe conversion of a time to the local broken-down time.
bool PlLocalTime(time_t t, struct tm* out);

// True for the separators the platform's file system accepts.
inline bool PlPathIsSep(char c) {
#ifdef _WIN32
  return c == '\\' || c == '/';
#else
  return c == '/';
#endif
}

#endif
