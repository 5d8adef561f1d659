// Shared pieces of the pipe stream, gateway and run-wrapper tests: the helper
// child program, scratch directories, and a real server with a raw client.
#ifndef LUMETTA_TESTS_ENGINES_HELPERS_H
#define LUMETTA_TESTS_ENGINES_HELPERS_H

#include <memory>
#include <string>

#include "chttpserver.h"

class PhpPool;

std::string EnginesHelperPath();  // tests/helpers/pipe_helper in the build tree
std::string HelperCmd(const std::string& args);  // its quoted path, then args
std::string EnginesPoolHelperPath();  // tests/helpers/pool_helper
// The command line that starts the interpreter the gateway finds, with its
// options; empty when there is no php-cgi.
std::string EnginesPhpCommandLine();
// Appends the variables that give that interpreter the player's settings.
void EnginesPhpOptions(CStrList& env);
// A path of ours as the interpreter sees it. Under wine, PHP is the host's,
// reached through the php-cgi.exe stand-in, and opens files by the host's
// names ("C:/x" -> "/.../dosdevices/c:/x"); elsewhere the path itself.
std::string EnginesPathSeenByPhp(const std::string& path);
// A "NAME=value" entry as the interpreter sees it: under wine the paths in
// the variables PHP opens files by are the host's, and the scan directory
// list is separated the host's way; elsewhere the entry itself.
std::string EnginesVariableSeenByPhp(const std::string& entry);
// Copies the interpreter program into dir so that it runs from there, and
// returns the copy's path. A Windows program goes with the files beside it.
std::string EnginesCopyInterpreter(const std::string& program, const std::string& dir);
// The environment text without the variables the system gives every
// process, whatever block its parent passed (wine's WINE* and the system
// drive and root); unchanged off Windows.
std::string EnginesWithoutSystemVariables(const std::string& env);
std::string EnginesReadFile(const std::string& path);
void EnginesWriteFile(const std::string& path, const std::string& data);

// A fresh temporary directory, removed with its contents at the end.
struct EnginesTempDir {
  EnginesTempDir();
  ~EnginesTempDir();
  std::string operator/(const std::string& name) const { return Path + "/" + name; }
  std::string Path;
};

struct EnginesReply {
  std::string Raw, StatusLine, Body;
  bool Has(const std::string& s) const { return Raw.find(s) != std::string::npos; }
};

// Sends the bytes as they are and reads until the server closes.
EnginesReply EnginesHttp(unsigned short port, const std::string& request);
EnginesReply EnginesGet(unsigned short port, const std::string& target, const std::string& heads = "");
EnginesReply EnginesPost(unsigned short port, const std::string& target, const std::string& type,
                         const std::string& body);

// A server listening on 127.0.0.1 and set up as the player sets up its own:
// the CGI gateway, the run wrapper on "/run.ebd" and, when asked, "php" for
// the interpreter the gateway finds. Null when it cannot listen. With a
// pool, "php" goes to its workers (started with `workers` the first time,
// and the gateway's current time-out each time); the caller keeps the pool
// until the server is gone, then calls CgiUsePool(nullptr, nullptr).
std::unique_ptr<CHttpServer> EnginesStartServer(const std::string& homeDir, bool withPhp, PhpPool* pool = nullptr,
                                                int workers = 2);

#endif
