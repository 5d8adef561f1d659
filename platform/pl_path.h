// Path rules the HTTP server needs beyond pl_fs.h: a containment test that
// follows the platform's rules for separators and letter case, and
// thread-safe broken-down times for listings, log stamps and HTTP dates.
#ifndef LUMETTA_PL_PATH_H
#define LUMETTA_PL_PATH_H

#include <ctime>

#include "pl_fs.h"

// True when path is root itself or lies below it (whole components only:
// "/srv/www2" is not inside "/srv/www"). Both are compared as given, after
// the platform's lexical normalisation; no link is followed.
bool PlPathInside(const char* root, const char* path);

// Thread-safe conversions of a time to the local and to the UTC broken-down time.
bool PlLocalTime(time_t t, struct tm* out);
bool PlUtcTime(time_t t, struct tm* out);

// True for the separators the platform's file system accepts.
inline bool PlPathIsSep(char c) { return c == PL_PATH_SEP || c == '/'; }

#endif
