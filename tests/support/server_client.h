// Helpers for tests that talk to a real CHttpServer over 127.0.0.1.
#ifndef LUMETTA_TEST_SERVER_CLIENT_H
#define LUMETTA_TEST_SERVER_CLIENT_H

#include <string>

#include "chttpserver.h"

// Binds srv to 127.0.0.1 on a free port and starts it; returns the port.
unsigned short ServerTestStart(CHttpServer& srv);

// Sends request and returns every byte the server sends until it closes
// the connection (or until timeoutMs passes without data).
std::string HttpExchange(unsigned short port, const std::string& request, int timeoutMs = 5000);

// An open client connection, for tests that need control over the timing.
class TestConnection {
 public:
  explicit TestConnection(unsigned short port);
  ~TestConnection();
  bool Connected() const { return Sock != PL_NO_SOCKET; }
  bool Send(const std::string& data);
  void ShutdownSend() { PlSockShutdownSend(Sock); }
  // Bytes until the peer closes or timeoutMs passes without data.
  std::string ReadAll(int timeoutMs = 5000);
  // True when the peer has closed (end of stream seen within timeoutMs).
  bool WaitClosed(int timeoutMs);
  void Close();

 private:
  PlSocket Sock;
};

// Seconds since 1970 of an HTTP date ("Sun, 09 Sep 2001 01:46:40 GMT"); -1
// when the text is not one.
long long ParseHttpDate(const std::string& text);

// The value of header `name` in a reply ("" when absent).
std::string HeaderValue(const std::string& reply, const std::string& name);

// A fresh directory below the system's temporary directory, removed with
// its contents at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& Path() const { return Dir; }
  std::string Write(const std::string& name, const std::string& content) const;

 private:
  std::string Dir;
};

std::string ReadWholeFile(const std::string& path);

#endif
