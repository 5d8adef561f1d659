// The tests' support library, the part that stands on the engines: a real
// CHttpServer on a free port of 127.0.0.1, set up bare or as the player sets
// up its own, with the PHP interpreter the gateway finds and small engines.
#ifndef LUMETTA_TESTS_TEST_SERVERS_H
#define LUMETTA_TESTS_TEST_SERVERS_H

#include <string>

#include "chttpserver.h"
#include "clog.h"
#include "test_support.h"

class PhpPool;

namespace testsup {

// What a TestServer carries beyond its home directory.
struct ServerSetup {
  // The player's own set-up: the CGI gateway, the run wrapper on "/run.ebd",
  // the player's server name and no expiry on replies.
  bool AsPlayer = false;
  // With AsPlayer: "php" pages run by the interpreter the gateway finds.
  bool Php = false;
  // With Php: "php" goes to this pool's workers (started with Workers the
  // first time, and the gateway's current time-out each time). The caller
  // keeps the pool until the server is gone, then calls
  // CgiUsePool(nullptr, nullptr).
  PhpPool* Pool = nullptr;
  int Workers = 2;
};

// A server logging at level 3 into its own directory, named "LumettaTest"
// unless it is set up as the player.
class TestServer {
 public:
  explicit TestServer(const std::string& home, const ServerSetup& setup = ServerSetup());
  ~TestServer() { Stop(); }
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;
  CHttpServer& Srv() { return *Server; }
  unsigned short Port() const { return ListenPort; }
  bool Start();  // on a free port; a failure is also reported to the test
  void Stop() { delete Server, Server = nullptr; }  // the log stays readable
  std::string LogText() const;
  // The connection thread may log after the client saw the close: wait a bit.
  bool WaitLog(const std::string& text, int timeoutMs = 3000) const;
  void AddCommonMimeTypes();

 private:
  void SetUpAsPlayer();
  bool RoutePhp();

  ServerSetup Setup;
  TempDir LogDir;
  CLog Log;
  CHttpServer* Server;
  unsigned short ListenPort = 0;
};

// The server's canned 401 and 302 replies, for a server named "LumettaTest".
std::string AuthReply(const std::string& realm);
std::string MovedReply(const std::string& url);

// An engine answering "size N": the length of the raw query or body it got.
bool BodySizeEngine(void* object, void* client);

// An engine answering "args N", then per argument its name, a tab, the byte
// length of its value, a tab and the value's bytes.
bool EchoArgsEngine(void* object, void* client);

// The command line that starts the interpreter the gateway finds, with its
// options; empty when there is no php-cgi.
std::string PhpCommandLine();
// Appends the variables that give that interpreter the player's settings.
void AddPhpOptions(CStrList& env);
// A path of ours as the interpreter sees it. Under wine, PHP is the host's,
// reached through the php-cgi.exe stand-in, and opens files by the host's
// names ("C:/x" -> "/.../dosdevices/c:/x"); elsewhere the path itself.
std::string PathSeenByPhp(const std::string& path);
// A "NAME=value" entry as the interpreter sees it: under wine the paths in
// the variables PHP opens files by are the host's, and the scan directory
// list is separated the host's way; elsewhere the entry itself.
std::string VariableSeenByPhp(const std::string& entry);
// Copies the interpreter program into dir so that it runs from there, and
// returns the copy's path. A Windows program goes with the files beside it.
std::string CopyInterpreter(const std::string& program, const std::string& dir);

}  // namespace testsup

#endif
