// The tests' support library, the part that needs only the core layer:
// scratch directories and files, child processes, a raw HTTP client side,
// loopback peers, and what lets one test source run on Linux and Windows.
#ifndef LUMETTA_TESTS_TEST_SUPPORT_H
#define LUMETTA_TESTS_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pl_dl.h"
#include "pl_fs.h"
#include "pl_net.h"
#include "pl_process.h"
#include "pl_thread.h"

class CHttpServer;

namespace testsup {

const unsigned kLoopback = 0x7f000001u;  // 127.0.0.1, host order

// ---- Portability: the platform asked at run time, so tests have no #ifdef.

inline bool TestOnWindows() { return PL_PATH_SEP == '\\'; }

// Skips the current test on Windows with the reason printed.
#define SKIP_ON_WINDOWS(reason) \
  if (::testsup::TestOnWindows()) GTEST_SKIP() << "not on Windows: " << reason

// True under wine, whose system differs from Windows in a few places tests see.
bool TestUnderWine();
// A program file name as the platform spells it ("x" or "x.exe").
std::string TestExeName(const std::string& base);
// A path written with "/" in the platform's own form.
std::string TestNativePath(std::string path);
// True when the run-time library (one of PlDlOpen's names) can be loaded here.
bool TestLibraryPresent(const char* names);
// Sets or (value null) removes an environment variable of the test process.
inline void TestSetEnv(const char* name, const char* value) { PlSetEnv(name, value); }

// A bound on how long the code under test may take to answer, stretched in
// the slower sanitized and emulated builds.
inline unsigned ReplyBoundMs(unsigned ms) { return ms * LUMETTA_TIME_SCALE; }

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

// ---- Files and scratch directories.

std::string ReadFile(const std::string& path);  // "" when unreadable
void WriteFile(const std::string& path, const std::string& data);

// Creates a fresh directory below the system's temporary directory, named by
// prefix and a random part; returns its path, written with "/".
std::string MakeTempDir(const std::string& prefix);

// A fresh temporary directory, removed with everything in it when it goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& Path() const { return Root; }
  std::string Join(const std::string& rel) const { return Root + "/" + rel; }
  std::string Write(const std::string& rel, const std::string& content) const;  // makes parents
  std::string Read(const std::string& rel) const { return ReadFile(Join(rel)); }
  std::string MakeDir(const std::string& rel) const;

 private:
  std::string Root;
};

// ---- Processes.

// True while the process runs (a zombie counts as ended).
bool ProcessAlive(long long pid);
// The environment text without the variables the system gives every
// process, whatever block its parent passed (wine's WINE* and the system
// drive and root); unchanged off Windows.
std::string WithoutSystemVariables(const std::string& env);
// Runs a shell command; returns its exit status and standard output.
int RunCommand(const std::string& command, std::string* output = nullptr);
// A field of /proc/self/status in KiB ("VmRSS", "VmHWM"); -1 where there is none.
long ProcStatusKb(const std::string& field);
// The child programs built for the tests, in tests/helpers of the build tree.
std::string PipeHelperPath();
std::string PipeHelperCmd(const std::string& args);  // its quoted path, then args
std::string PoolHelperPath();

// ---- The client side of HTTP, over raw sockets to 127.0.0.1.

// One reply as it came off the wire, split at the first blank line.
struct Reply {
  std::string Raw, StatusLine, Head, Body;
  int Status = 0;
  std::string Header(const std::string& name) const;  // "" when absent
  bool Has(const std::string& s) const { return Raw.find(s) != std::string::npos; }
};
Reply ParseReply(const std::string& raw);

// A raw client connection to 127.0.0.1.
class Conn {
 public:
  explicit Conn(unsigned short port);
  ~Conn() { if (Sock != PL_NO_SOCKET) PlSockClose(Sock); }
  Conn(const Conn&) = delete;
  Conn& operator=(const Conn&) = delete;
  bool Send(const std::string& data);
  void HalfClose() { PlSockShutdownSend(Sock); }
  // Bytes until the server closes or timeoutSec passes without data.
  std::string ReadAll(int timeoutSec = 10);

 private:
  PlSocket Sock;
};

// Sends the request as it is and reads until the server closes.
std::string Exchange(unsigned short port, const std::string& request, bool halfClose = false, int timeoutSec = 10);
// Interpreters may start slowly in the sanitized builds: these wait longer.
Reply Get(unsigned short port, const std::string& target, const std::string& extraHeaders = "");
Reply Post(unsigned short port, const std::string& target, const std::string& type, const std::string& body);

// Starts srv through Start() on a free port of 127.0.0.1; returns the port or
// 0. Errors other than a taken port (TLS set-up) reach the caller as thrown.
unsigned short StartOnFreePort(CHttpServer& srv);

// ---- Peers on 127.0.0.1.

class LoopbackListener {
 public:
  LoopbackListener();  // throws std::runtime_error when it can't listen
  ~LoopbackListener() { Close(); }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;
  unsigned short Port() const { return PortNo; }
  PlSocket Accept() { return PlSockAccept(Handle, nullptr, nullptr); }  // caller owns it
  // Ends a wait in Accept on another thread, which may still read Handle.
  void Close();

 private:
  PlSocket Handle = PL_NO_SOCKET;
  bool Closed = false;
  unsigned short PortNo = 0;
};

// A port on 127.0.0.1 on which nothing listens (it was free a moment ago).
inline unsigned short ClosedLoopbackPort() { return LoopbackListener().Port(); }

// A connected pair: Near is meant for the code under test (TakeNear hands it
// over), Far for the test itself.
struct LoopbackPair {
  LoopbackPair();
  ~LoopbackPair();
  LoopbackPair(const LoopbackPair&) = delete;
  LoopbackPair& operator=(const LoopbackPair&) = delete;
  PlSocket TakeNear();
  bool Send(const std::string& data);  // all of it, from Far
  void CloseFar();

  PlSocket Near = PL_NO_SOCKET;
  PlSocket Far = PL_NO_SOCKET;
};

// A scripted server: every accepted connection has its request head read,
// then gets the next canned reply and is closed. A '\x01' in a reply splits
// it into parts sent with a short pause between them.
class ScriptedPeer {
 public:
  explicit ScriptedPeer(std::vector<std::string> replies);
  ~ScriptedPeer();
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;
  unsigned short Port() const { return Listener.Port(); }
  std::vector<std::string> Requests();  // the heads received so far

 private:
  static unsigned Run(void* arg);
  void Serve(PlSocket conn, const std::string& reply);

  std::vector<std::string> Replies, Received;
  PlMutex Lock;
  LoopbackListener Listener;
  PlThread* Thread = nullptr;
};

}  // namespace testsup

#endif
