// Helpers for the server dispatch tests: a scratch directory tree, a raw
// HTTP client over 127.0.0.1, and a running server with a readable log.
#ifndef LUMETTA_TESTS_DISPATCH_SUPPORT_H
#define LUMETTA_TESTS_DISPATCH_SUPPORT_H

#include <string>

#include "chttpserver.h"

namespace dispatch_test {

// A fresh directory below the system's temporary directory, removed with
// everything in it when the object goes.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& Path() const { return Root; }
  // Creates the file (and its directories) below the root.
  std::string Write(const std::string& rel, const std::string& content) const;
  std::string MakeDir(const std::string& rel) const;
  std::string Join(const std::string& rel) const { return Root + "/" + rel; }

 private:
  std::string Root;
};

// One reply as it came off the wire, split at the first blank line.
struct Reply {
  std::string Raw;
  std::string StatusLine;  // without CR LF
  std::string Head;        // the header lines, CR LF kept
  std::string Body;
  int Status = 0;
  bool HasHeader(const std::string& line) const;  // exact "Name: value"
  std::string Header(const std::string& name) const;
};

Reply ParseReply(const std::string& raw);

// An engine that answers with the request's arguments: "args N", then one
// line per argument: its name, a tab, the byte length of its value, a tab
// and the value's bytes.
bool EchoArgsEngine(void* object, void* client);

// Sends request as given, half-closes when asked, and reads until the server
// closes (at most timeoutSec seconds without data).
std::string Exchange(unsigned short port, const std::string& request, bool halfClose = false,
                     int timeoutSec = 10);
Reply Get(unsigned short port, const std::string& target, const std::string& extraHeaders = "");

// A server on 127.0.0.1 with a free port, logging at level 3 into its own
// scratch directory so tests can read what it logged.
class TestServer {
 public:
  explicit TestServer(const std::string& home);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  CHttpServer& Srv() { return *Server; }
  unsigned short Port() const { return ListenPort; }
  void Start();  // picks a free port, then listens and accepts
  std::string LogText() const;
  // Waits briefly for a line containing text: the log is written by the
  // connection thread, possibly after the client saw the connection close.
  bool WaitLog(const std::string& text, int timeoutMs = 3000) const;
  void AddCommonMimeTypes();

 private:
  ScratchDir LogDir;
  CLog* Log;
  CHttpServer* Server;
  unsigned short ListenPort = 0;
};

}  // namespace dispatch_test

#endif
