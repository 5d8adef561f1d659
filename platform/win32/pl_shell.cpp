// Opening a file, folder or program the way the desktop does, through
// ShellExecuteA unless a test has put its own opener in.
#include "pl_shell.h"

#include <windows.h>
#include <shellapi.h>

#include <atomic>

static bool DesktopOpen(const char* file, const char* params, const char* dir, int showCmd) {
  HINSTANCE r = ShellExecuteA(nullptr, "open", file, params, dir && *dir ? dir : nullptr, showCmd);
  return (INT_PTR)r > 32;  // 32 and below are the shell's error numbers
}

static std::atomic<PlShellOpenFunc> Opener{DesktopOpen};

bool PlShellOpen(const char* file, const char* params, const char* dir, int showCmd) {
  return Opener.load()(file, params, dir, showCmd);
}

void PlShellSetOpener(PlShellOpenFunc fn) { Opener = fn ? fn : DesktopOpen; }
