// Helpers for tests that drive a real CHttpServer over 127.0.0.1.
#ifndef LUMETTA_TESTS_SERVER_SUPPORT_H
#define LUMETTA_TESTS_SERVER_SUPPORT_H

#include <string>

#include "chttpserver.h"
#include "pl_net.h"

namespace srvtest {

// Creates a fresh directory below the system's temporary directory, named by
// prefix and a random part; returns its path, written with "/".
std::string MakeTempDir(const std::string& prefix);

// A bound on how long the server may take to answer, stretched in the
// slower sanitized builds.
inline unsigned ReplyBoundMs(unsigned ms) { return ms * LUMETTA_TIME_SCALE; }

// A fresh directory below the system's temporary directory, removed with
// everything in it when the object goes.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  const std::string& Path() const { return Root; }
  std::string Join(const std::string& rel) const { return Root + "/" + rel; }
  std::string Write(const std::string& rel, const std::string& content) const;  // makes parents
  std::string MakeDir(const std::string& rel) const;

 private:
  std::string Root;
};

// One reply as it came off the wire, split at the first blank line.
struct Reply {
  std::string Raw, StatusLine, Head, Body;
  int Status = 0;
  std::string Header(const std::string& name) const;  // "" when absent
};
Reply ParseReply(const std::string& raw);

// A raw client connection to 127.0.0.1.
class Conn {
 public:
  explicit Conn(unsigned short port);
  ~Conn() { if (Sock != PL_NO_SOCKET) PlSockClose(Sock); }
  bool Send(const std::string& data);
  void HalfClose() { PlSockShutdownSend(Sock); }
  // Bytes until the server closes or timeoutSec passes without data.
  std::string ReadAll(int timeoutSec = 10);

 private:
  PlSocket Sock;
};

std::string Exchange(unsigned short port, const std::string& request, bool halfClose = false, int timeoutSec = 10);
Reply Get(unsigned short port, const std::string& target, const std::string& extraHeaders = "");

// The server's canned 401 and 302 replies, for a server named "LumettaTest".
std::string AuthReply(const std::string& realm);
std::string MovedReply(const std::string& url);

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM"); -1 where there is none.
long ProcStatusKb(const std::string& field);

// An engine answering "size N": the length of the raw query or body it got.
bool BodySizeEngine(void* object, void* client);

// An engine answering "args N", then per argument its name, a tab, the byte
// length of its value, a tab and the value's bytes.
bool EchoArgsEngine(void* object, void* client);

// A server named "LumettaTest" logging at level 3 into its own directory.
class TestServer {
 public:
  explicit TestServer(const std::string& home);
  ~TestServer() { Stop(); }
  CHttpServer& Srv() { return *Server; }
  unsigned short Port() const { return ListenPort; }
  void Start();  // on a free port
  void Stop() { delete Server, Server = nullptr; }  // the log stays readable
  std::string LogText() const;
  // The connection thread may log after the client saw the close: wait a bit.
  bool WaitLog(const std::string& text, int timeoutMs = 3000) const;
  void AddCommonMimeTypes();

 private:
  ScratchDir LogDir;
  CLog Log;
  CHttpServer* Server;
  unsigned short ListenPort = 0;
};

}  // namespace srvtest

#endif
