// TLS test helpers: certificates made at run time with the openssl command,
// a running server on 127.0.0.1, and fetches through real TLS clients.
#ifndef LUMETTA_EXTRAS_TLS_H
#define LUMETTA_EXTRAS_TLS_H

#include <string>

#include "chttpserver.h"

// Writes a self-signed certificate for 127.0.0.1/localhost and its key.
bool ExtrasMakeCert(const std::string& certPath, const std::string& keyPath);
// Writes a second, unrelated key.
bool ExtrasMakeKey(const std::string& keyPath);

// Starts srv on a free port of 127.0.0.1 through Start() (so the TLS context
// is made as in production); returns the port, 0 on failure. TLS errors
// thrown by Start propagate.
unsigned short ExtrasStartServer(CHttpServer& srv);

// Runs a shell command; returns its exit status and its standard output.
int ExtrasRun(const std::string& command, std::string* output = nullptr);

#endif
