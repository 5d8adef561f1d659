// Opening a document, folder or program the way the desktop would.
#ifndef LUMETTA_PL_SHELL_H
#define LUMETTA_PL_SHELL_H

// file: what to open; params: command-line text for a program (Windows
// quoting rules) or null; dir: working directory or null; showCmd: window
// show state (SW_* numbers; only Windows acts on it). True when the file was
// handed over; false when it does not exist or nothing could open it.
typedef bool (*PlShellOpenFunc)(const char* file, const char* params, const char* dir, int showCmd);

bool PlShellOpen(const char* file, const char* params, const char* dir, int showCmd);

// Replaces the opener (tests install a recorder); null restores the desktop's.
void PlShellSetOpener(PlShellOpenFunc fn);

#endif
