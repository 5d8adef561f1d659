// Shared libraries on Windows, through LoadLibraryA.
#include "pl_dl.h"

#include <windows.h>

void* PlDlOpenFile(const char* name) {
  if (!name || !*name) return nullptr;
  return reinterpret_cast<void*>(LoadLibraryA(name));
}

void* PlDlSymbol(void* lib, const char* name) {
  if (!lib || !name) return nullptr;
  // FARPROC -> void* goes through an integer to keep the conversion
  // warning-free; both are plain code addresses on this platform.
  FARPROC fn = GetProcAddress(static_cast<HMODULE>(lib), name);
  return reinterpret_cast<void*>(reinterpret_cast<INT_PTR>(fn));
}

void PlDlClose(void* lib) {
  if (lib) FreeLibrary(static_cast<HMODULE>(lib));
}

bool PlDlIsLoaded(const char* name) {
  if (!name || !*name) return false;
  return GetModuleHandleA(name) != nullptr;
}

// OpenSSL 3 first, then 1.1 (the names of the usual Windows builds).
const char* const PL_LIB_SSL = "libssl-3-x64.dll|libssl-1_1-x64.dll";
const char* const PL_LIB_SQLITE = "sqlite3.dll";
