// Shared pieces of the pipe stream, gateway and run-wrapper tests: the helper
// child program, scratch directories, and a real server with a raw client.
#ifndef LUMETTA_TESTS_ENGINES_HELPERS_H
#define LUMETTA_TESTS_ENGINES_HELPERS_H

#include <memory>
#include <string>

#include "chttpserver.h"

std::string EnginesHelperPath();  // tests/helpers/pipe_helper in the build tree
std::string HelperCmd(const std::string& args);  // its quoted path, then args
std::string EnginesPoolHelperPath();  // tests/helpers/pool_helper
// The command line that starts the interpreter the gateway finds, with its
// options; empty when there is no php-cgi.
std::string EnginesPhpCommandLine();
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
// the interpreter the gateway finds. Null when it cannot listen.
std::unique_ptr<CHttpServer> EnginesStartServer(const std::string& homeDir, bool withPhp);

#endif
