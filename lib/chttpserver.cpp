// CHttpServer: object set-up, registry, settings, listening and the
// accepting thread.
#include "chttpserver.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <deque>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "pl_fs.h"
#include "pl_process.h"

namespace {

// Distinguishes server objects in log lines.
std::atomic<int> NextServerId{0};

// Connection threads need little stack: line and header buffers of 1 KiB and
// the engines' own frames. A small stack keeps thousands of idle
// connections cheap in address space and start-up cost.
const size_t kClientStackSize = 256 * 1024;

// How long the destructor waits for connection threads it has woken.
const unsigned kClientDrainMs = 5000;

// A thread that has served its connection goes back to accept the next one
// itself (starting a thread, or waking one, costs more than the whole reply
// to a small file). Only about two per core wait in accept; the rest end.
// Under load a connection then waits in the backlog for the first thread to
// come back, which takes it without sleeping, instead of waking one of many
// sleepers: with 64 waiting, a small reply cost 21 us of CPU and a context
// switch; with 4, 13 us and half a switch.
int IdleAcceptorsMax() {
  static const int most = 2 * (int)std::max(std::thread::hardware_concurrency(), 1u);
  return most;
}

// How long a thread beyond the accepting few waits to be called back
// before it ends.
const int kParkedLeaveSec = 30;

// How long StopListening waits for the threads in accept to leave it before
// the listener's descriptor is closed (and its number can be reused).
const unsigned kAcceptorsLeaveMs = 1000;

// Descriptors kept free below the process's limit for what serving a
// request opens besides its socket: files, pipes to PHP, the log.
int ConnCapFor(int openFileLimit) {
  int spare = openFileLimit / 8 > 64 ? openFileLimit / 8 : 64;
  int cap = openFileLimit - spare;
  return cap < 16 ? 16 : cap;
}

// The whole request head must be in by then, however it trickles in: a
// connection that holds a thread without asking for anything is let go.
const int kHeadDeadlineMs = 15000;

// How long a connection may stay silent before it is accepted all the same.
const int kDeferAcceptSec = 5;

const char kBusyLine[] = "HTTP/1.1 503 Service Unavailable\r\n";

}  // namespace

// Connection threads of one server: the sockets being served (to wake
// them), the threads in accept, and the number of threads (to wait for
// them). Each thread accepts a connection, makes sure another one is left
// accepting, serves it from its first byte to its close, and accepts again.
struct LiveClients {
  PlMutex Lock;
  PlEvent NoneLeft;  // set while Threads is 0
  std::unordered_set<PlSocket> Sockets;
  PlSocket Listener = PL_NO_SOCKET;  // what the threads accept on; none once stopped
  int Acceptors = 0;                 // threads in accept, or on their way into it
  // Connections still waiting for their request head, oldest first: the
  // first to go when the cap is reached. An entry is live while InHead
  // holds its arrival number; older ones are dropped as they surface.
  std::unordered_map<PlSocket, uint64_t> InHead;
  std::deque<std::pair<uint64_t, PlSocket>> HeadOrder;
  uint64_t Arrivals = 0;
  std::unordered_set<PlSocket> Evicted;  // shut down, not yet closed
  int Threads = 0;
  bool Stopping = false;
  // Threads beyond the accepting few wait here to be called back, instead
  // of ending and being started anew a moment later.
  std::condition_variable_any Unparked;
  int Parked = 0;
  int Calls = 0;  // parked threads called back and not yet up
  LiveClients() { NoneLeft.Set(); }
};

namespace {

// Called with the lock held.
void ForgetSocket(LiveClients& live, PlSocket sock) {
  live.Sockets.erase(sock);
  live.InHead.erase(sock);
  live.Evicted.erase(sock);
}

// PlMutex under the names the standard condition variable locks with.
struct LockableRef {
  PlMutex& M;
  void lock() { M.Lock(); }
  void unlock() { M.Unlock(); }
};

// Pops entries of connections that are past their head from the front, so
// the queue only ever spans the oldest connection still waiting for one.
void DropFinishedHeads(LiveClients& live) {
  while (!live.HeadOrder.empty()) {
    auto it = live.InHead.find(live.HeadOrder.front().second);
    if (it != live.InHead.end() && it->second == live.HeadOrder.front().first) break;
    live.HeadOrder.pop_front();
  }
}

}  // namespace

CHttpServer::CHttpServer() : Log(nullptr) { Init(); }

CHttpServer::CHttpServer(CLog* log) : Log(log) { Init(); }

void CHttpServer::Init() {
  MimeList = new CList<CMime>;
  ObjList = new CList<__https_obj>;
  RedirEnabled = false;
  char host[256] = {0};
  if (!PlGetHostName(host, sizeof host)) host[0] = 0;
  HostName = host;
  // The machine name follows the host with no separator: callers rely on it.
  RedirLocation = "https://localhost";
  RedirLocation += HostName;
  ServerName = "CHttpServer";
  Id = NextServerId.fetch_add(1);
  FreeLog = Log == nullptr;
  if (!Log) {
    Log = new CLog;
    Log->LogLevel = 0;
  }
  SslEnabled = false;
  SslCtx = nullptr;
  ErrMsg401.Message = "401 Authorization Required";
  ErrMsg403.Message = "403 Forbidden";
  ErrMsg404.Message = "404 Not Found";
  // The 400 record deliberately has no text: a POST without a path gets a
  // bare "HTTP/1.1 " line.
  ErrMsg400.Message.Empty();
  ErrMsg405.Message = "405 Method Not Allowed";
  ErrMsg411.Message = "411 Length Required";
  ErrMsg413.Message = "413 Request Entity Too Large";
  ErrMsg500.Message = "500 Internal Server Error";
  ErrMsg414.Message = "414 URI Too Long";
  ErrMsg431.Message = "431 Request Header Fields Too Large";
  CacheExpire = 18000;
  OnCgi = nullptr;
  OnConnect = nullptr;
  OnError = nullptr;
  OnExpandPath = nullptr;
  OnRequest = nullptr;
  OnSslError = nullptr;
  IsAccepting = false;
  IsListening = false;
  HomeDir = PlRootDir();
  DirCss.Empty();
  MaxConn = INT_MAX;
  ConnCap = INT_MAX;
  HeadDeadlineMs = kHeadDeadlineMs;
  ListeningSock = PL_NO_SOCKET;
  ListeningAddr = 0;
  Port = 80;
  MaxPostLen = 4096;
  AcceptingThread = nullptr;
  AcceptingThreadID = 0;
  Live = new LiveClients;
  HomeRoot = nullptr;
}

CHttpServer::~CHttpServer() {
  StopListening();
  // The accepting thread may be serving a connection: the drain wakes it.
  DrainClients();
  if (AcceptingThread) {
    PlThreadWait(AcceptingThread, kClientDrainMs);
    PlThreadClose(AcceptingThread);
  }
  PlRootClose(HomeRoot);
  if (SslCtx && OpenSsl.SSL_CTX_free) OpenSsl.SSL_CTX_free(SslCtx);
  delete MimeList;
  delete ObjList;
  if (FreeLog) delete Log;
  delete Live;
}

// Wakes every connection thread (their socket operations fail at once, and
// waiting threads end) and waits a bounded time for them to finish.
void CHttpServer::DrainClients() {
  {
    PlLock g(Live->Lock);
    Live->Stopping = true;
    Live->Unparked.notify_all();
    for (PlSocket s : Live->Sockets) PlSockShutdownBoth(s);
  }
  // A thread still running after the bounded wait (a long CGI run) would use
  // the server and this record after they are freed: it is waited for.
  if (!Live->NoneLeft.Wait(kClientDrainMs)) Live->NoneLeft.Wait(PL_INFINITE);
  // The last thread sets the event while holding the lock; taking the lock
  // once more makes sure it has let go before the lock is destroyed.
  PlLock g(Live->Lock);
}

// Records a connection that this thread is about to serve.
void CHttpServer::Register(HTTPS_CLIENT* client) {
  PlLock g(Live->Lock);
  const PlSocket sock = client->Socket->Socket;
  Live->Sockets.insert(sock);
  const uint64_t arrival = ++Live->Arrivals;
  Live->InHead[sock] = arrival;
  Live->HeadOrder.emplace_back(arrival, sock);
  DropFinishedHeads(*Live);
}

// Starts one more thread that accepts; it has been counted in already.
void CHttpServer::StartAcceptor() {
  PlThread* thread = PlThreadStart(AcceptorThread, this, kClientStackSize);
  if (thread) {
    PlThreadClose(thread);  // the thread's records live on their own
    return;
  }
  PlLock g(Live->Lock);
  WorkerGone();
}

unsigned int CHttpServer::AcceptorThread(void* server) {
  static_cast<CHttpServer*>(server)->AcceptAndServe();
  return 0;
}

// The life of a connection thread: accept, leave another thread accepting
// when none is, serve, and again, until the listener stops or enough
// threads wait already. The thread is counted in Threads by whoever
// started it and counts itself out here.
void CHttpServer::AcceptAndServe() {
  for (;;) {
    PlSocket listener;
    {
      PlLock g(Live->Lock);
      for (;;) {
        listener = Live->Listener;
        if (listener == PL_NO_SOCKET || Live->Stopping) {
          WorkerGone();
          return;
        }
        if (Live->Acceptors < IdleAcceptorsMax()) break;
        if (!Park()) {
          WorkerGone();
          return;
        }
      }
      Live->Acceptors++;
    }
    unsigned remoteAddr = 0;
    unsigned short remotePort = 0;
    // Only a listener that has been shut down or closed gives no socket;
    // transient failures are retried inside the platform layer.
    PlSocket sock = PlSockAccept(listener, &remoteAddr, &remotePort);
    bool another;
    {
      PlLock g(Live->Lock);
      Live->Acceptors--;
      if (sock == PL_NO_SOCKET) {
        WorkerGone();
        return;
      }
      another = Live->Acceptors == 0 && Live->Listener == listener && !Live->Stopping;
      if (another && Live->Parked > Live->Calls) {
        Live->Calls++;
        Live->Unparked.notify_one();
        another = false;
      }
      if (another && Live->Threads++ == 0) Live->NoneLeft.Reset();
    }
    if (another) StartAcceptor();
    AcceptOne(sock, remoteAddr, remotePort);
  }
}

// Waits, with the lock held, to be called back to accept; false when none
// came for a while (or the server stops), and the thread should end.
bool CHttpServer::Park() {
  LockableRef lock{Live->Lock};
  Live->Parked++;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kParkedLeaveSec);
  bool called = Live->Unparked.wait_until(lock, until, [this] {
    return Live->Calls > 0 || Live->Stopping || Live->Listener == PL_NO_SOCKET;
  });
  Live->Parked--;
  if (Live->Calls > 0) {
    Live->Calls--;
    return true;
  }
  return called;  // stopping: the caller sees it and ends
}

// Counts a thread out; called with the lock held.
void CHttpServer::WorkerGone() {
  if (--Live->Threads == 0) Live->NoneLeft.Set();
}

// Called before the socket is closed, so that a reused descriptor number
// is never shut down by DrainClients.
void CHttpServer::ClientSocketClosing(HTTPS_CLIENT* client) {
  PlLock g(Live->Lock);
  ForgetSocket(*Live, client->Socket->Socket);
}

// The head is in (or will never come): the connection is no longer one to
// drop for a newcomer.
void CHttpServer::HeadDone(HTTPS_CLIENT* client) {
  PlLock g(Live->Lock);
  Live->InHead.erase(client->Socket->Socket);
}

// Under the cap every connection is taken. At the cap, the connection that
// has waited longest for its request head makes room; when every one is
// busy with a request, the newcomer is refused. Only counts and a shutdown
// happen here, on the accepting thread.
bool CHttpServer::AdmitConnection() {
  PlLock g(Live->Lock);
  if ((long long)Live->Sockets.size() - (long long)Live->Evicted.size() < ConnCap) return true;
  while (!Live->HeadOrder.empty()) {
    std::pair<uint64_t, PlSocket> oldest = Live->HeadOrder.front();
    Live->HeadOrder.pop_front();
    auto it = Live->InHead.find(oldest.second);
    if (it == Live->InHead.end() || it->second != oldest.first) continue;
    Live->InHead.erase(it);
    Live->Evicted.insert(oldest.second);
    PlSockShutdownBoth(oldest.second);
    return true;
  }
  return false;
}

// ---------------------------------------------------------------- registry

__https_obj* CHttpServer::EngsAdd(const char* name, CGI_ENG_FUNC func, int flags) {
  __https_obj* obj = ObjList->Add();
  obj->Next = nullptr;
  obj->Alias = name;
  obj->Func = func;
  obj->Flags = flags;
  obj->Type = HTTPS_OBJ_ENGINE;
  return obj;
}

__https_obj* CHttpServer::Vadd(const char* alias, const char* path, const char* args, int type,
                               int flags) {
  if (!alias || !path) return nullptr;
  __https_obj* obj = ObjList->Add();
  obj->Next = nullptr;
  obj->Flags = flags;
  obj->Path = path;
  obj->Type = type;
  if (args) {
    obj->Args = args;
    if (OnExpandPath) OnExpandPath(obj->Args);
  }
  if (OnExpandPath) OnExpandPath(obj->Path);
  obj->Path.NativePath();
  obj->Path.PathSimplify(PL_PATH_SEP);
  // A target that does not exist leaves the object in the list without an
  // alias, so it can never match; callers only see the null result.
  bool exists = (type == HTTPS_OBJ_VDIR) ? obj->Path.DirExist()
                : (type == HTTPS_OBJ_VFILE || type == HTTPS_OBJ_EXT) ? obj->Path.FileExist()
                : true;
  if (!exists) return nullptr;
  obj->Alias = alias;
  obj->Alias.PathSimplify('/');
  return obj;
}

__https_obj* CHttpServer::VdirAdd(const char* alias, const char* path, int flags) {
  return Vadd(alias, path, nullptr, HTTPS_OBJ_VDIR, flags);
}

__https_obj* CHttpServer::VdirAdd(CStr alias, CStr path, int flags) {
  return Vadd(alias.c_str(), path.c_str(), nullptr, HTTPS_OBJ_VDIR, flags);
}

__https_obj* CHttpServer::VfileAdd(const char* alias, const char* path, int flags) {
  return Vadd(alias, path, nullptr, HTTPS_OBJ_VFILE, flags);
}

__https_obj* CHttpServer::VfileAdd(CStr alias, CStr path, int flags) {
  return Vadd(alias.c_str(), path.c_str(), nullptr, HTTPS_OBJ_VFILE, flags);
}

__https_obj* CHttpServer::VfileMapAdd(const char* ext, const char* path, const char* args,
                                      int flags) {
  return Vadd(ext, path, args, HTTPS_OBJ_EXT, flags);
}

__https_obj* CHttpServer::VfileMapAdd(CStr ext, CStr path, CStr args, int flags) {
  return Vadd(ext.c_str(), path.c_str(), args.IsEmpty() ? nullptr : args.c_str(), HTTPS_OBJ_EXT,
              flags);
}

// ---------------------------------------------------------------- settings

bool CHttpServer::SetPortA(unsigned short port) {
  if (IsListening || port == 0) return false;
  Port = port;
  return true;
}

bool CHttpServer::SetListeningAddr(unsigned int addr) {
  if (IsListening) return false;
  ListeningAddr = addr;
  return true;
}

void CHttpServer::SetMaxConn(int n) {
  if (n >= 0) MaxConn = n;
}

void CHttpServer::SetMaxPostLen(int n) {
  if (n > 0) MaxPostLen = n;
}

void CHttpServer::SetHeadDeadlineMs(int ms) {
  if (ms > 0) HeadDeadlineMs = ms;
}

bool CHttpServer::SetDir(CStr& field, CStr path) {
  path.NativePath();
  if (!path.DirExist()) return false;
  field = path;
  return true;
}

bool CHttpServer::SetHomeDir(const char* path) { return SetDir(HomeDir, CStr(path)); }

bool CHttpServer::SetHomeDir(CStr path) { return SetDir(HomeDir, path); }

void CHttpServer::SetDirCss(const char* css) { DirCss = css; }

// ------------------------------------------------------- listening, accepting

void CHttpServer::Start() {
  SslCtx = OpenSSLCreateCtx();
  if (!StartListening()) throw (int)CERR_HTTPSRV_LISTEN;
  if (!StartAccepting()) throw (int)CERR_HTTPSRV_THREAD;
}

bool CHttpServer::StartListening() {
  if (IsListening) return true;
  PlSocket s = PlSockTcp();
  if (s == PL_NO_SOCKET) return false;
  if (!PlSockBind(s, ListeningAddr, Port) || !PlSockListen(s, MaxConn)) {
    PlSockClose(s);
    IsListening = false;
    return false;
  }
  // A connection reaches a thread only once its request has begun to arrive:
  // the thread then reads at once instead of sleeping in a wait for it. A
  // client that stays silent is handed over anyway after a few seconds, to
  // meet the head deadline like any other.
  PlSockDeferAccept(s, kDeferAcceptSec);
  ListeningSock = s;
  IsListening = true;
  return true;
}

bool CHttpServer::StartAccepting() {
  if (IsAccepting) return true;
  if (!IsListening) return false;
  ConnCap = ConnCapFor(PlOpenFileLimit());
  {
    PlLock g(Live->Lock);
    Live->Listener = ListeningSock;
    if (Live->Threads++ == 0) Live->NoneLeft.Reset();
  }
  // Held open from here on, so that a request opens its file with one call
  // relative to it; a home directory changed later is opened per request.
  if (!HomeRoot) {
    HomeRoot = PlRootOpen(HomeDir.c_str());
    HomeRootPath = HomeDir;
  }
  AcceptingThread = PlThreadStart(StartAcceptingEx, this, kClientStackSize);
  IsAccepting = AcceptingThread != nullptr;
  if (!IsAccepting) {
    PlLock g(Live->Lock);
    Live->Listener = PL_NO_SOCKET;
    WorkerGone();
  }
  return IsAccepting;
}

bool CHttpServer::StopListening() {
  if (!IsListening) return true;
  // Shut down first: on Linux a blocked accept only returns for that.
  {
    PlLock g(Live->Lock);
    Live->Listener = PL_NO_SOCKET;
    Live->Unparked.notify_all();
  }
  PlSockShutdownBoth(ListeningSock);
  // A thread still busy after a second (serving a connection) keeps its
  // handle, so that the destructor can wait for it to leave.
  if (AcceptingThread && PlThreadWait(AcceptingThread, 1000)) {
    PlThreadClose(AcceptingThread);
    AcceptingThread = nullptr;
  }
  WaitForAcceptorsToLeave();
  PlSockClose(ListeningSock);
  ListeningSock = PL_NO_SOCKET;
  IsListening = false;
  // IsAccepting stays set: a later StartAccepting reports success without
  // starting a thread, and callers depend on that.
  return true;
}

// Threads on their way into accept find the listener shut down and leave at
// once; its descriptor is closed only after that, so that a listener opened
// later under the same number is never accepted on by them.
void CHttpServer::WaitForAcceptorsToLeave() {
  const uint64_t until = PlMonotonicMs() + kAcceptorsLeaveMs;
  for (;;) {
    {
      PlLock g(Live->Lock);
      if (Live->Acceptors == 0) return;
    }
    if (PlMonotonicMs() >= until) return;
    PlSleepMs(1);
  }
}

// The accepting thread is the first connection thread.
unsigned int CHttpServer::StartAcceptingEx(void* arg) {
  CHttpServer* srv = static_cast<CHttpServer*>(arg);
  srv->AcceptingThreadID = PlThreadCurrentId();
  srv->AcceptAndServe();
  return 0;
}

void CHttpServer::AcceptOne(PlSocket sock, unsigned remoteAddr, unsigned short remotePort) {
  // The local address is looked up only when something needs it: the
  // admission hook here, or ClientEx when the listener takes any address.
  unsigned localAddr = 0;
  unsigned short localPort = 0;
  if (OnConnect) {
    PlSockLocalAddr(sock, &localAddr, &localPort);
    if (!OnConnect((int)localAddr, (int)remoteAddr, (int)remotePort)) {
      PlSockShutdownSend(sock);
      PlSockClose(sock);
      return;
    }
  }
  if (!AdmitConnection()) {
    PlSockSend(sock, kBusyLine, (int)sizeof kBusyLine - 1);
    PlSockShutdownSend(sock);
    PlSockClose(sock);
    return;
  }
  HTTPS_CLIENT* client = new HTTPS_CLIENT();
  client->CHttpServerEx = this;
  client->Socket = new CSocket(sock);
  // A reply is a header, a body and a close: let them leave together
  // instead of as one packet per write. The close flushes what is held.
  // TLS starts on the connection thread and writes records of its own: it
  // gets no cork, only small writes sent at once.
  if (SslEnabled) PlSockNoDelay(sock);
  else PlSockCork(sock);
  // A listener bound to one address accepts only on that address.
  if (!localAddr && ListeningAddr) localAddr = PlHtonl(ListeningAddr);
  client->Ip = remoteAddr;
  client->Port = remotePort;
  client->LocalIp = localAddr;
  Register(client);
  ClientEx(client);  // frees the client
}
