// DllGetAddresses and DllFree: binding a shared library's functions by name
// at run time, all of them or none.
#include "dll.h"

#include <cstdarg>

#include "pl_dl.h"

bool DllGetAddresses(DLLHANDLE* handle, const char* dllName, ...) {
  if (!handle) return false;
  if (*handle) return true;
  DLLHANDLE lib = PlDlOpen(dllName);
  if (!lib) return false;
  *handle = lib;

  bool complete = true;
  va_list ap;
  va_start(ap, dllName);
  for (;;) {
    void** slot = va_arg(ap, void**);
    if (!slot) break;
    const char* name = va_arg(ap, const char*);
    *slot = PlDlSymbol(lib, name);
    if (!*slot) {
      // A partly bound library is useless to the caller: drop it entirely.
      PlDlClose(lib);
      *handle = nullptr;
      complete = false;
      break;
    }
  }
  va_end(ap);
  return complete;
}

void DllFree(DLLHANDLE handle) {
  PlDlClose(handle);
}
