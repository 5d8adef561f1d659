// Loading a shared library at run time and looking up its exported symbols.
#ifndef LUMETTA_PL_DL_H
#define LUMETTA_PL_DL_H

// Opens the library by file name (the system's search rules apply); NULL when
// it can't be loaded. A name may list alternatives separated by '|', tried
// in order (a newer build's name first, then an older one's).
void* PlDlOpen(const char* name);
// One file name, no alternatives (each platform's loader).
void* PlDlOpenFile(const char* name);
// Address of an exported symbol, or NULL when the library lacks it.
void* PlDlSymbol(void* lib, const char* name);
// Releases a handle from PlDlOpen; NULL is ignored.
void PlDlClose(void* lib);
// True when the library is mapped into the process already (nothing loaded).
bool PlDlIsLoaded(const char* name);

// File names of the libraries the program binds at run time on this platform.
extern const char* const PL_LIB_SSL;     // the TLS library
extern const char* const PL_LIB_SQLITE;  // the SQLite library

#endif
