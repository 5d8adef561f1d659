// The fading unit on Windows: layered-window opacity bound at run time,
// thread timers of the window's thread, and a subclassed window procedure
// that reports show, activation, close and destroy.
#ifndef LUMETTA_SHELL_WIN32_ALPHAWIN_WIN32_H
#define LUMETTA_SHELL_WIN32_ALPHAWIN_WIN32_H

#include <windows.h>

// Takes a top-level window under the fading unit's management.
void AwWin32InitWindow(HWND window);

#endif
