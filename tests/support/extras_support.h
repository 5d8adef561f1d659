// Helpers shared by the stream, database, HTTP client and TLS tests.
#ifndef LUMETTA_EXTRAS_SUPPORT_H
#define LUMETTA_EXTRAS_SUPPORT_H

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cerror.h"
#include "chttpserver.h"
#include "pl_net.h"
#include "pl_thread.h"
#include "server_support.h"

// The int code a call throws, 0 when it returns normally.
template <class F>
int ThrownCode(F f) {
  try {
    f();
  } catch (int code) {
    return code;
  }
  return 0;
}

// A fresh temporary directory, removed with its contents on destruction.
class ExtrasTempDir {
 public:
  ExtrasTempDir() : Dir(srvtest::MakeTempDir("lumetta-extras-")) {}
  ~ExtrasTempDir() {
    std::error_code ec;
    std::filesystem::remove_all(Dir, ec);
  }
  const std::string& Path() const { return Dir; }
  std::string File(const std::string& name) const { return Dir + "/" + name; }
  std::string Write(const std::string& name, const std::string& bytes) const {
    std::ofstream(File(name), std::ios::binary) << bytes;
    return File(name);
  }
  std::string Read(const std::string& name) const {
    return std::string(std::istreambuf_iterator<char>(std::ifstream(File(name), std::ios::binary).rdbuf()), {});
  }

 private:
  std::string Dir;
};

// A scripted peer on 127.0.0.1: every accepted connection has its request head
// read, then gets the next canned reply and is closed. A '\x01' in a reply
// splits it into parts sent with a short pause between them.
class ExtrasRawPeer {
 public:
  explicit ExtrasRawPeer(std::vector<std::string> replies) : Replies(std::move(replies)), Listener(PlSockTcp()) {
    unsigned addr = 0;
    if (Listener != PL_NO_SOCKET && PlSockBind(Listener, 0x7f000001u, 0) && PlSockListen(Listener, 8) &&
        PlSockLocalAddr(Listener, &addr, &ListenPort))
      Thread = PlThreadStart(Run, this);
  }
  ~ExtrasRawPeer() {
    PlSockClose(Listener);
    if (Thread) PlThreadWait(Thread, PL_INFINITE), PlThreadClose(Thread);
  }
  unsigned short Port() const { return ListenPort; }
  std::vector<std::string> Requests() {
    PlLock hold(Lock);
    return Received;
  }

 private:
  std::vector<std::string> Replies, Received;
  PlMutex Lock;
  PlSocket Listener;
  unsigned short ListenPort = 0;
  PlThread* Thread = nullptr;

  static unsigned Run(void* arg) {
    ExtrasRawPeer* self = static_cast<ExtrasRawPeer*>(arg);
    for (const std::string& reply : self->Replies) {
      PlSocket conn = PlSockAccept(self->Listener, nullptr, nullptr);
      if (conn == PL_NO_SOCKET) break;
      self->Serve(conn, reply);
      PlSockClose(conn);
    }
    return 0;
  }
  void Serve(PlSocket conn, const std::string& reply) {
    std::string head;
    char buf[1024];
    int n;
    while (head.find("\r\n\r\n") == std::string::npos && PlSockWaitReadable(conn, 5) == 1 &&
           (n = PlSockRecv(conn, buf, sizeof buf)) > 0)
      head.append(buf, (size_t)n);
    {
      PlLock hold(Lock);
      Received.push_back(head);
    }
    std::istringstream parts(reply);
    for (std::string part; std::getline(parts, part, '\x01'); PlSleepMs(20))
      if (!part.empty() && PlSockSend(conn, part.data(), (int)part.size()) < 0) return;
  }
};

// Runs a shell command; returns its exit status and standard output.
inline int ExtrasRun(const std::string& command, std::string* output = nullptr) {
  FILE* p = popen(command.c_str(), "r");
  if (!p) return -1;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
    if (output) output->append(buf, n);
  return pclose(p);
}

// Starts srv through Start() on a free port of 127.0.0.1; returns the port or 0.
inline unsigned short ExtrasStartServer(CHttpServer& srv) {
  srv.SetListeningAddr(0x7f000001);
  std::random_device rd;
  for (int attempt = 0; attempt < 200; ++attempt) {
    srv.SetPortA((unsigned short)(20000 + rd() % 30000));
    try {
      srv.Start();
      return srv.GetPort();
    } catch (int code) {
      if (code != CERR_HTTPSRV_LISTEN) throw;  // TLS setup errors reach the test
    }
  }
  return 0;
}

#endif
