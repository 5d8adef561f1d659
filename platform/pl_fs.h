// File-system access: status queries, directory search, directory and file
// management, and the well-known paths (current, temporary, program).
// Paths are 8-bit text in the platform's own form.
#ifndef LUMETTA_PL_FS_H
#define LUMETTA_PL_FS_H

#include <string>

#ifdef _WIN32
const char PL_PATH_SEP = '\\';
#else
const char PL_PATH_SEP = '/';
#endif

// What a status query reports about one entry.
struct PlStatInfo {
  long long Size;   // bytes (0 for directories on most systems)
  long long MTime;  // last modification, seconds since 1970-01-01 UTC
  bool IsDir;
};

// Status of path (symbolic links followed); false when it can't be queried.
bool PlStat(const char* path, PlStatInfo* out);
// True when path names an existing directory / a non-directory entry.
bool PlIsDir(const char* path);
bool PlIsFile(const char* path);

// Directory search. Open returns null when the directory can't be read.
struct PlDir;
PlDir* PlDirOpen(const char* path);
// Next entry name, without "." and ".."; null at the end. The text stays
// valid until the next call on the same handle.
const char* PlDirNext(PlDir* dir);
// Status of the entry PlDirNext returned last, as the search itself sees it
// (a link is not followed): what there is to show of a link whose target is
// gone. False before the first entry or when it has vanished.
bool PlDirEntryStat(PlDir* dir, PlStatInfo* out);
void PlDirClose(PlDir* dir);  // accepts null

bool PlMkdir(const char* path);  // one level; false when it exists already
bool PlRmdir(const char* path);  // only an empty directory
bool PlChdir(const char* path);
bool PlUnlink(const char* path);  // files only
// Renames or moves; an existing file at 'to' is replaced.
bool PlRename(const char* from, const char* to);

// Current directory, without a final separator (except for a root).
bool PlGetCwd(std::string* out);
// Directory for temporary files (TMPDIR or /tmp; GetTempPath on Windows),
// without a final separator (except for a root).
bool PlTempDir(std::string* out);
// Makes a new directory below the temporary one, named prefix plus a unique
// part, that only the current user can enter; its full path goes to out.
bool PlMakePrivateTempDir(const char* prefix, std::string* out);
// Absolute path with links, "." and ".." resolved; the entry must exist.
bool PlRealPath(const char* path, std::string* out);
// Full path of the running program file.
bool PlProgramPath(std::string* out);

#endif
