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

#include "pl_thread.h"

static SOCKET Sock(PlSocket s) { return static_cast<SOCKET>(s); }

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
  DWORD ms = timeoutMs > 0 ? static_cast<DWORD>(timeoutMs) : 0u;
  return setsockopt(Sock(s), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms) == 0;
}

int PlSockSend(PlSocket s, const void* buf, int n) {
  if (n < 0) return -1;
  int r = send(Sock(s), static_cast<const char*>(buf), n, 0);
  return r == SOCKET_ERROR ? -1 : r;
}

int PlSockRecv(PlSocket s, void* buf, int n) {
  if (n < 0) return -1;
  int r = recv(Sock(s), static_cast<char*>(buf), n, 0);
  return r == SOCKET_ERROR ? -1 : r;
}

void PlSockShutdownSend(PlSocket s) { shutdown(Sock(s), SD_SEND); }

// Closes the socket and forgets it was shut: the number may be handed out again.
static void CloseAndForget(PlSocket s) {
  if (s == PL_NO_SOCKET) return;
  {
    std::lock_guard<std::mutex> g(ShutLock);
    ShutSockets.erase(Sock(s));
  }
  closesocket(Sock(s));
}

void PlSockClose(PlSocket s) { CloseAndForget(s); }  // also ends a blocked accept

// php-cgi on Windows takes its FastCGI connections from a named pipe or a
// loopback port, not from a Unix-domain socket; until that transport is in,
// callers see "no local sockets" and keep one interpreter per request.
PlSocket PlSockLocalListen(const char*, int) { return PL_NO_SOCKET; }
PlSocket PlSockLocalConnect(const char*) { return PL_NO_SOCKET; }

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
