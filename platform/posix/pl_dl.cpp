// Shared libraries on POSIX, through dlopen.
#include "pl_dl.h"

#include <dlfcn.h>

void* PlDlOpenFile(const char* name) {
  if (!name || !*name) return nullptr;
  // RTLD_LOCAL keeps the library's symbols out of the global namespace, so
  // two bound libraries can't interfere with each other.
  return dlopen(name, RTLD_NOW | RTLD_LOCAL);
}

void* PlDlSymbol(void* lib, const char* name) {
  if (!lib || !name) return nullptr;
  return dlsym(lib, name);
}

void PlDlClose(void* lib) {
  if (lib) dlclose(lib);
}

bool PlDlIsLoaded(const char* name) {
  if (!name || !*name) return false;
  void* h = dlopen(name, RTLD_NOW | RTLD_NOLOAD);
  if (h) dlclose(h);
  return h != nullptr;
}

const char* const PL_LIB_SSL = "libssl.so.3";
const char* const PL_LIB_SQLITE = "libsqlite3.so.0";
