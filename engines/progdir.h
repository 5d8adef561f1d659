// The program's own directory and the token that stands for it in settings
// and run requests.
#ifndef LUMETTA_PROGDIR_H
#define LUMETTA_PROGDIR_H

#include "cstr.h"

// Directory of the program file, without a trailing separator. Set once at
// start-up, read-only afterwards.
extern CStr ProgDir;

// Replaces every "%PROGDIR%", then every "PROGDIR:", by ProgDir.
void ExpandTokens(CStr& text);

#endif
