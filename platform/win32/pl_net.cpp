// WinSock 2: start-up, TCP listening, accepting, connecting and transfer,
// and name lookup.
#include "pl_net.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <unordered_set>

#include "pl_random.h"
#include "pl_thread.h"

static SOCKET Sock(PlSocket s) { return static_cast<SOCKET>(s); }

// ---------------------------------------------------------------- local pipes
//
// Local endpoints are named pipes. A loopback port would let any program on
// the machine talk to a helper; a pipe's random name is known only to us and
// the child we tell it to. A connected pipe travels as a PlSocket with its
// lowest bit set (socket handles are multiples of four), so the transfer
// calls above serve both kinds.

namespace {

// One client end, opened for overlapped I/O so that a wait for input can
// end at a deadline. One read is kept outstanding into Buf.
struct LocalPipe {
  HANDLE Pipe = INVALID_HANDLE_VALUE;
  OVERLAPPED ReadOv = {}, WriteOv = {};
  char Buf[16384];
  DWORD Have = 0, Taken = 0;
  bool Pending = false, Ended = false;
  DWORD RecvTimeoutMs = INFINITE;  // how long PlSockRecvTimed waits

  bool Available() const { return Taken < Have || Ended; }
  void StartRead() {
    if (Pending || Available()) return;
    ResetEvent(ReadOv.hEvent);
    Have = Taken = 0;
    if (ReadFile(Pipe, Buf, sizeof Buf, nullptr, &ReadOv) || GetLastError() == ERROR_IO_PENDING)
      Pending = true;
    else
      Ended = true;  // the server closed its end, or the pipe broke
  }
  // Collects the outstanding read; false while it is still under way.
  bool Finish(bool wait) {
    if (!Pending) return true;
    DWORD n = 0;
    if (!GetOverlappedResult(Pipe, &ReadOv, &n, wait ? TRUE : FALSE)) {
      if (!wait && GetLastError() == ERROR_IO_INCOMPLETE) return false;
      Ended = true;
    }
    Pending = false;
    Have = n;
    return true;
  }
};

bool IsPipe(PlSocket s) { return s != PL_NO_SOCKET && (s & 1); }
LocalPipe* PipeOf(PlSocket s) { return reinterpret_cast<LocalPipe*>(static_cast<uintptr_t>(s & ~1ULL)); }

int PipePoll(LocalPipe* p, int events, int timeoutMs) {
  int out = events & PL_SOCK_OUT;  // a write waits only for the pipe's buffer
  if (!(events & PL_SOCK_IN)) return out;
  p->StartRead();
  p->Finish(false);
  if (p->Available()) return PL_SOCK_IN | out;
  if (out) return out;
  DWORD r = WaitForSingleObject(p->ReadOv.hEvent, timeoutMs < 0 ? INFINITE : (DWORD)timeoutMs);
  if (r == WAIT_TIMEOUT) return 0;
  p->Finish(true);
  return PL_SOCK_IN;
}

int PipeRecv(LocalPipe* p, void* buf, int n) {
  while (!p->Available()) {
    p->StartRead();
    p->Finish(true);
  }
  if (p->Taken == p->Have) return 0;  // ended
  int k = (int)(p->Have - p->Taken) < n ? (int)(p->Have - p->Taken) : n;
  memcpy(buf, p->Buf + p->Taken, (size_t)k);
  p->Taken += (DWORD)k;
  return k;
}

// As PipeRecv, but PL_SOCK_NOTHING_YET once the pipe's receive time-out
// passes with nothing come; the read stays outstanding for the next call.
int PipeRecvTimed(LocalPipe* p, void* buf, int n) {
  if (!p->Available()) {
    p->StartRead();
    if (!p->Finish(false)) {
      if (WaitForSingleObject(p->ReadOv.hEvent, p->RecvTimeoutMs) == WAIT_TIMEOUT) return PL_SOCK_NOTHING_YET;
      p->Finish(true);
    }
  }
  return PipeRecv(p, buf, n);
}

int PipeSend(LocalPipe* p, const void* buf, int n) {
  DWORD done = 0;
  ResetEvent(p->WriteOv.hEvent);
  if (!WriteFile(p->Pipe, buf, (DWORD)n, nullptr, &p->WriteOv) && GetLastError() != ERROR_IO_PENDING) return -1;
  return GetOverlappedResult(p->Pipe, &p->WriteOv, &done, TRUE) ? (int)done : -1;
}

void PipeClose(LocalPipe* p) {
  if (p->Pending) {
    CancelIoEx(p->Pipe, &p->ReadOv);
    DWORD n;
    GetOverlappedResult(p->Pipe, &p->ReadOv, &n, TRUE);
  }
  CloseHandle(p->Pipe);
  CloseHandle(p->ReadOv.hEvent);
  CloseHandle(p->WriteOv.hEvent);
  delete p;
}

}  // namespace

bool PlNetStartup() {
  WSADATA data;
  return WSAStartup(MAKEWORD(2, 0), &data) == 0;
}

void PlNetCleanup() { WSACleanup(); }

void PlNetNoSigPipe() {}  // Windows has no SIGPIPE: a failed send just reports an error

// Replies are written in several small pieces (header, then body); without
// this the second piece can wait for the peer's delayed acknowledgement.
static bool NoDelay(SOCKET s) {
  BOOL on = TRUE;
  return setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on) == 0;
}

bool PlSockNoDelay(PlSocket s) { return NoDelay(static_cast<SOCKET>(s)); }

PlSocket PlSockTcp() {
  // Not inheritable: child processes must never hold a connection open.
  SOCKET s = WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
  return s == INVALID_SOCKET ? PL_NO_SOCKET : static_cast<PlSocket>(s);
}

bool PlSockBind(PlSocket s, unsigned addrHostOrder, unsigned short port) {
  // Exclusive use: on Windows a shared address would let a second server
  // take over a port that is already being listened on.
  BOOL on = TRUE;
  setsockopt(Sock(s), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on), sizeof on);
  sockaddr_in sa;
  memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port);
  sa.sin_addr.s_addr = htonl(addrHostOrder);
  return bind(Sock(s), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
}

bool PlSockListen(PlSocket s, int backlog) { return listen(Sock(s), backlog) == 0; }

// Winsock has no plain equivalent (only AcceptEx with a first buffer).
bool PlSockDeferAccept(PlSocket, int) { return false; }

static bool ListenerGone(int err) {
  return err == WSAENOTSOCK || err == WSAEINVAL || err == WSAEINTR || err == WSAEOPNOTSUPP ||
         err == WSANOTINITIALISED;
}

PlSocket PlSockAccept(PlSocket s, unsigned* remoteAddr, unsigned short* remotePort) {
  for (;;) {
    sockaddr_in sa;
    int len = sizeof sa;
    SOCKET c = accept(Sock(s), reinterpret_cast<sockaddr*>(&sa), &len);
    if (c != INVALID_SOCKET) {
      SetHandleInformation(reinterpret_cast<HANDLE>(c), HANDLE_FLAG_INHERIT, 0);
      if (remoteAddr) *remoteAddr = sa.sin_addr.s_addr;
      if (remotePort) *remotePort = ntohs(sa.sin_port);
      return static_cast<PlSocket>(c);
    }
    int err = WSAGetLastError();
    if (ListenerGone(err)) return PL_NO_SOCKET;
    if (err == WSAEMFILE || err == WSAENOBUFS) Sleep(50);
  }
}

bool PlSockLocalAddr(PlSocket s, unsigned* addr, unsigned short* port) {
  sockaddr_in sa;
  int len = sizeof sa;
  if (getsockname(Sock(s), reinterpret_cast<sockaddr*>(&sa), &len) != 0) return false;
  if (addr) *addr = sa.sin_addr.s_addr;
  if (port) *port = ntohs(sa.sin_port);
  return true;
}

bool PlSockConnect(PlSocket s, unsigned addr, unsigned short port) {
  sockaddr_in sa;
  memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port);
  sa.sin_addr.s_addr = addr;
  if (connect(Sock(s), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return false;
  NoDelay(Sock(s));
  return true;
}

// Sockets shut down by PlSockShutdownBoth and not yet closed. A shutdown does
// not wake a thread already waiting in select on the socket (not under wine,
// and not reliably on Windows either), so waits look here between slices.
static std::mutex ShutLock;
static std::unordered_set<SOCKET> ShutSockets;

static bool IsShut(SOCKET s) {
  std::lock_guard<std::mutex> g(ShutLock);
  return ShutSockets.count(s) != 0;
}

void PlSockShutdownBoth(PlSocket s) {
  if (s == PL_NO_SOCKET) return;
  {
    std::lock_guard<std::mutex> g(ShutLock);
    ShutSockets.insert(Sock(s));
  }
  shutdown(Sock(s), SD_BOTH);
}

int PlSockWaitReadable(PlSocket s, int timeoutSec) {
  if (timeoutSec < 0) return PlSockWaitMs(s, false, -1);
  const long long ms = static_cast<long long>(timeoutSec) * 1000;
  return PlSockWaitMs(s, false, ms > 0x7fffffff ? 0x7fffffff : static_cast<int>(ms));
}

// select has no descriptor-value limit on Windows (the set is a list).
int PlSockWaitMs(PlSocket s, bool forWrite, int timeoutMs) {
  if (s == PL_NO_SOCKET) return -1;
  // Waits in slices, so a shutdown from another thread ends the wait (as
  // ready: the next transfer then fails) within one slice. Each idle
  // connection's thread wakes once a slice: at 100 ms a thousand of them
  // kept wine's server so busy that a new request waited 40 s.
  const int kSliceMs = 500;
  long long leftMs = timeoutMs;  // negative: no limit
  for (;;) {
    if (IsShut(Sock(s))) return 1;
    int sliceMs = leftMs < 0 || leftMs > kSliceMs ? kSliceMs : static_cast<int>(leftMs);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(Sock(s), &set);
    timeval tv;
    tv.tv_sec = 0;
    tv.tv_usec = sliceMs * 1000;
    int r = select(0, forWrite ? nullptr : &set, forWrite ? &set : nullptr, nullptr, &tv);
    if (r == SOCKET_ERROR) return -1;
    if (r > 0) return 1;
    if (leftMs >= 0 && (leftMs -= sliceMs) <= 0) return 0;
  }
}

int PlSockPoll(PlSocket s, int events, int timeoutMs) {
  if (s == PL_NO_SOCKET) return -1;
  if (IsPipe(s)) return PipePoll(PipeOf(s), events, timeoutMs);
  fd_set readSet, writeSet;
  FD_ZERO(&readSet);
  FD_ZERO(&writeSet);
  FD_SET(Sock(s), &readSet);
  if (events & PL_SOCK_OUT) FD_SET(Sock(s), &writeSet);
  timeval tv;
  tv.tv_sec = timeoutMs / 1000;
  tv.tv_usec = (timeoutMs % 1000) * 1000;
  int r = select(0, &readSet, &writeSet, nullptr, timeoutMs < 0 ? nullptr : &tv);
  if (r == SOCKET_ERROR) return -1;
  int ready = FD_ISSET(Sock(s), &readSet) ? PL_SOCK_IN : 0;
  if (FD_ISSET(Sock(s), &writeSet)) ready |= PL_SOCK_OUT;
  return ready;
}

int PlSockSendSome(PlSocket s, const void* buf, int n) {
  if (n < 0) return -1;
  if (IsPipe(s)) return PipeSend(PipeOf(s), buf, n);
  u_long on = 1, off = 0;
  ioctlsocket(Sock(s), FIONBIO, &on);
  int r = send(Sock(s), static_cast<const char*>(buf), n, 0);
  bool full = r == SOCKET_ERROR && WSAGetLastError() == WSAEWOULDBLOCK;
  ioctlsocket(Sock(s), FIONBIO, &off);
  if (full) return 0;
  return r == SOCKET_ERROR ? -1 : r;
}

bool PlSockSetNonBlocking(PlSocket s, bool on) {
  u_long mode = on ? 1 : 0;
  return ioctlsocket(Sock(s), FIONBIO, &mode) == 0;
}

bool PlSockSetRecvTimeout(PlSocket s, int timeoutSec) {
  DWORD ms = timeoutSec > 0 ? static_cast<DWORD>(timeoutSec) * 1000u : 0u;
  return setsockopt(Sock(s), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms) == 0;
}

bool PlSockSetRecvTimeoutMs(PlSocket s, int timeoutMs) {
  if (IsPipe(s)) {
    PipeOf(s)->RecvTimeoutMs = timeoutMs > 0 ? static_cast<DWORD>(timeoutMs) : INFINITE;
    return true;
  }
  DWORD ms = timeoutMs > 0 ? static_cast<DWORD>(timeoutMs) : 0u;
  return setsockopt(Sock(s), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms) == 0;
}

int PlSockSend(PlSocket s, const void* buf, int n) {
  if (n < 0) return -1;
  if (IsPipe(s)) return PipeSend(PipeOf(s), buf, n);
  int r = send(Sock(s), static_cast<const char*>(buf), n, 0);
  return r == SOCKET_ERROR ? -1 : r;
}

int PlSockRecv(PlSocket s, void* buf, int n) {
  if (n < 0) return -1;
  if (IsPipe(s)) return PipeRecv(PipeOf(s), buf, n);
  int r = recv(Sock(s), static_cast<char*>(buf), n, 0);
  return r == SOCKET_ERROR ? -1 : r;
}

void PlSockShutdownSend(PlSocket s) { shutdown(Sock(s), SD_SEND); }

// Closes the socket and forgets it was shut: the number may be handed out again.
static void CloseAndForget(PlSocket s) {
  if (s == PL_NO_SOCKET) return;
  if (IsPipe(s)) return PipeClose(PipeOf(s));
  {
    std::lock_guard<std::mutex> g(ShutLock);
    ShutSockets.erase(Sock(s));
  }
  closesocket(Sock(s));
}

void PlSockClose(PlSocket s) { CloseAndForget(s); }  // also ends a blocked accept


// Local endpoints: named pipes (see LocalPipe above).
std::string PlLocalEndpointPath(const std::string&, const std::string& name) {
  unsigned char r[12];
  if (!PlRandomBytes(r, sizeof r)) return "";
  char hex[sizeof r * 2 + 1];
  for (size_t i = 0; i < sizeof r; i++) snprintf(hex + 2 * i, 3, "%02x", r[i]);
  return std::string("\\\\.\\pipe\\lumetta-") + hex + "-" + name;
}

bool PlLocalServeByChild(const char* path, PlFile*, std::string* cmdTail, PlSocket* ours) {
  *ours = PL_NO_SOCKET;
  if (!path || !*path) return false;
  *cmdTail += std::string(" -b ") + path;
  return true;
}

PlSocket PlSockLocalConnect(const char* path) {
  HANDLE h = INVALID_HANDLE_VALUE;
  for (int attempt = 0; attempt < 3 && h == INVALID_HANDLE_VALUE; attempt++) {
    h = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    // Busy: the server is between two clients and makes the pipe anew.
    if (h == INVALID_HANDLE_VALUE && (GetLastError() != ERROR_PIPE_BUSY || !WaitNamedPipeA(path, 2000))) break;
  }
  if (h == INVALID_HANDLE_VALUE) return PL_NO_SOCKET;
  LocalPipe* p = new LocalPipe;
  p->Pipe = h;
  p->ReadOv.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  p->WriteOv.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  return static_cast<PlSocket>(reinterpret_cast<uintptr_t>(p)) | 1;
}

void PlSockCloseHandle(PlSocket s) { CloseAndForget(s); }

void PlSockCloseConnected(PlSocket s) { PlSockClose(s); }

// Only what is already counted as arrived is taken; an end of input is left
// to the waiting receive.
int PlSockRecvNoWait(PlSocket s, void* buf, int n) {
  u_long ready = 0;
  if (n < 0 || ioctlsocket(Sock(s), FIONREAD, &ready) != 0) return -1;
  if (ready == 0) return PL_SOCK_NOTHING_YET;
  return PlSockRecv(s, buf, n);
}

int PlSockRecvTimed(PlSocket s, void* buf, int n) {
  if (n < 0) return -1;
  if (IsPipe(s)) return PipeRecvTimed(PipeOf(s), buf, n);
  int r = recv(Sock(s), static_cast<char*>(buf), n, 0);
  if (r != SOCKET_ERROR) return r;
  return WSAGetLastError() == WSAETIMEDOUT ? PL_SOCK_NOTHING_YET : -1;
}

bool PlResolveHost(const char* host, unsigned* addr) {
  if (!host || !addr) return false;
  unsigned long a = inet_addr(host);
  if (a != INADDR_NONE) {
    // A dotted address stands for itself; a reverse lookup would only add a
    // delay and fail for addresses without a name.
    *addr = static_cast<unsigned>(a);
    return true;
  }
  addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &res) != 0 || !res) return false;
  *addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr.s_addr;
  freeaddrinfo(res);
  return true;
}

bool PlGetHostName(char* buf, int size) {
  if (!buf || size < 1) return false;
  if (gethostname(buf, size) != 0) return false;
  buf[size - 1] = 0;
  return true;
}

unsigned PlHtonl(unsigned v) { return htonl(v); }
unsigned PlNtohl(unsigned v) { return ntohl(v); }

void PlLastErrorText(char* buf, int size) {
  const DWORD err = GetLastError();
  if (!buf || size < 1) return;
  buf[0] = 0;
  char* text = nullptr;
  DWORD n = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, err,
                           MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<char*>(&text), 255,
                           nullptr);
  if (n && text) snprintf(buf, static_cast<size_t>(size), "%s", text);
  if (text) LocalFree(text);
}

// Windows has no cork; writes go out as the stack sees fit.
bool PlSockCork(PlSocket) { return false; }
