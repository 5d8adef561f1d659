// The CGI gateway: runs a server-side script through an external CGI/1.1
// interpreter (php-cgi for the player) and relays its output to the client.
#ifndef LUMETTA_CGIWRAPPER_H
#define LUMETTA_CGIWRAPPER_H

#include "cstr.h"

// Seconds an interpreter may run before it is ended. Tests shorten it.
extern unsigned CgiTimeOut;

// The server's OnCgi hook: obj is the matched __https_obj, client the
// HTTPS_CLIENT. Writes the whole reply; false only when the interpreter had
// to be stopped by the time-out. Throws the pipe stream's codes when the
// interpreter cannot be started.
bool CgiWrapper(void* obj, void* client);

// The interpreter command and argument text for the extension handler of
// ".php": the one shipped below progDir ("Php5/php-cgi" with its php.ini)
// when present, else php-cgi found on PATH. False when there is none. Both
// are ready for Vadd("php", path, args, 8, 1): path is the bare file, args
// quoted with any '%' doubled (the gateway formats it), and empty once the
// player's PHP settings file is written (php_options.h), which the gateway
// then names in the interpreter's environment. The script reaches php-cgi
// through SCRIPT_FILENAME only.
bool FindPhpInterpreter(const CStr& progDir, CStr& path, CStr& args);

#endif
