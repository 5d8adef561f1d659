// User-facing pieces of the operating system the player needs: a modal
// message box, and waiting for the user's request to stop a console program.
#ifndef LUMETTA_PL_UI_H
#define LUMETTA_PL_UI_H

// Shows text in a modal box with one OK button and a warning icon, owned by
// `owner` (a native window, or null). Returns when the user has closed it.
// On POSIX the box needs a GUI toolkit: the windowed program installs one
// with PlUiSetMessageBox once it has a display; without it nothing is shown
// (callers write the text to standard error as well).
void PlMessageBox(void* owner, const char* text, const char* caption);

typedef void (*PlMessageBoxFunc)(void* owner, const char* text, const char* caption);
void PlUiSetMessageBox(PlMessageBoxFunc show);

// Stop requests of a console program (SIGINT/SIGTERM, Ctrl+C, console close).
// PlStopSignalsBlock must run before any thread starts, so the request
// reaches PlStopSignalsWait and no other thread; PlStopSignalsWait then
// blocks until one arrives and returns its number.
bool PlStopSignalsBlock();
int PlStopSignalsWait();

#endif
