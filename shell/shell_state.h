// Program-wide state of the player, shared by the entry, the settings and the
// start sequence. ProgDir lives with the engines (engines/progdir.h), which
// expand the program-directory token too.
#ifndef LUMETTA_SHELL_STATE_H
#define LUMETTA_SHELL_STATE_H

#include "cstr.h"

class CHttpServer;

extern CStr IniFile;          // settings file; empty until /INI or the start sets it
extern CStr StartPage;        // page below the server root; empty when not given
extern char* CmdTitle;        // /TITLE value, pointing into the word block, or null
extern CHttpServer* HttpServer;
extern void* MainWindowHandle;  // native window of the main form, owner of messages

// Shows a message (caption "Lumetta") and writes it to standard error too, so
// a failure stays visible without a display. Formats like printf; messages
// longer than 511 characters are cut.
void Error(const char* format, ...);

#endif
