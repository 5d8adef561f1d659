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

// An open file or pipe end: a descriptor on POSIX, a HANDLE on Windows.
typedef long long PlFile;
const PlFile PL_NO_FILE = -1;

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
// A search of the directory that the open handle dir (from PlOpenBeneath)
// is open on: what was checked is what is listed, whatever its name now
// leads to. Null when it can't be read.
PlDir* PlDirOpenHandle(PlFile dir);
// Status of the entry PlDirNext returned last, a link followed to its target
// as a status query by name would; false when that fails (a dangling link).
bool PlDirEntryTargetStat(PlDir* dir, PlStatInfo* out);

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
// The file-system root used when no home directory is configured.
const char* PlRootDir();
// Makes a new directory below the temporary one, named prefix plus a unique
// part, that only the current user can enter; its full path goes to out.
bool PlMakePrivateTempDir(const char* prefix, std::string* out);
// Absolute path with links, "." and ".." resolved; the entry must exist.
bool PlRealPath(const char* path, std::string* out);
// Full path of the running program file.
bool PlProgramPath(std::string* out);

// A directory that files are opened below without ever leaving it: the
// server's home directory and mapped directories. Null when dir is not a
// directory that can be opened.
struct PlRoot;
PlRoot* PlRootOpen(const char* dir);
void PlRootClose(PlRoot* root);  // accepts null

enum PlBeneathResult {
  PL_BENEATH_OPEN,     // *out is open for reading, *info describes it
  PL_BENEATH_MISSING,  // nothing there, or nothing a reader may open (a pipe, a device)
  PL_BENEATH_OUTSIDE   // the name leads out of root, through a link or otherwise
};
// Opens rel ('/'-separated, relative, already simplified; "" is root itself)
// below root for reading. Links are followed only while they stay inside
// root, and the status is taken from the open handle: what was checked is
// what gets read, whatever is renamed meanwhile. With a null root, rel is a
// full path opened as it stands.
PlBeneathResult PlOpenBeneath(PlRoot* root, const char* rel, PlFile* out, PlStatInfo* info);
// One read from an open file: bytes read, 0 at its end, -1 on error.
int PlFileRead(PlFile f, void* buf, unsigned n);
void PlFileClose(PlFile f);  // accepts PL_NO_FILE

#endif
