// Path rules the HTTP server needs beyond pl_fs.h: a containment test that
// follows the platform's rules for separators and letter case.
#ifndef LUMETTA_PL_PATH_H
#define LUMETTA_PL_PATH_H

#include "pl_fs.h"

// True when path is root itself or lies below it (whole components only:
// "/srv/www2" is not inside "/srv/www"). Both are compared as given, after
// the platform's lexical normalisation; no link is followed.
bool PlPathInside(const char* root, const char* path);

// True for the separators the platform's file system accepts.
inline bool PlPathIsSep(char c) { return c == PL_PATH_SEP || c == '/'; }

#endif
