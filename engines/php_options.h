// The player's own settings for php-cgi (no redirect guard, the script found
// through SCRIPT_FILENAME, upload limits) go into a generated ini file named
// in the interpreter's environment, never onto its command line: over CGI,
// php-cgi ignores every command-line option when the query looks like one
// ("?-s", "?-n"), and any page can send such a query.
#ifndef LUMETTA_PHP_OPTIONS_H
#define LUMETTA_PHP_OPTIONS_H

#include "cgi_reply.h"
#include "cstr.h"

// Writes the settings file (once per process; it goes at exit) and records
// the variables that name it for the interpreter at interpreterPath.
// bundledIni: the application's own php.ini, empty for the system's (whose
// upload limits are then raised to what the player accepts). False when no
// file could be written.
bool PhpRegisterOptions(const CStr& interpreterPath, const CStr& bundledIni);

// Appends the variables recorded for interpreterPath, if any, to env.
void PhpAddOptionsEnvironment(const CStr& interpreterPath, CStrList& env);
void PhpAddOptionsEnvironment(const CStr& interpreterPath, CgiEnv& env);

#endif
